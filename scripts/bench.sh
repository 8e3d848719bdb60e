#!/bin/bash
# Builds the benchmarks optimised and without sanitizers, and runs each inside the sandbox.
#   scripts/bench.sh [BENCH_NAME...]     (default: all)
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DQSV_TESTS=OFF -DQSV_BENCH=ON
cmake --build build-bench -j "$(nproc)"
names=("$@")
if [ ${#names[@]} -eq 0 ]; then
    mapfile -t names < <(cd build-bench/bench && ls -1 | grep '_bench$')
fi
for b in "${names[@]}"; do
    tests/harness/sandbox --build build-bench -- "build-bench/bench/$b"
done
