#!/bin/bash
# The test command: installs what is missing, builds with AddressSanitizer and
# UndefinedBehaviorSanitizer, and runs every test binary in its own sandbox, in parallel.
# Run as root on a Debian machine; safe to run again.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQSV_SANITIZE=ON -DQSV_TESTS=ON
cmake --build build -j "$(nproc)"
cd build
ctest -j "$(nproc)" --output-on-failure
