#!/bin/bash
# Builds the libFuzzer targets with clang and runs one for a while.
#   scripts/fuzz.sh TARGET [SECONDS]      e.g. scripts/fuzz.sh base64_decode_fuzz 600
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DQSV_TESTS=OFF -DQSV_FUZZ=ON
cmake --build build-fuzz -j "$(nproc)" --target "$1" syslog_sink
mkdir -p "build-fuzz/corpus/$1"
tests/harness/sandbox --build build-fuzz -- "build-fuzz/fuzz/$1" -max_total_time="${2:-60}" \
    "build-fuzz/corpus/$1" "fuzz/seeds/$1"
