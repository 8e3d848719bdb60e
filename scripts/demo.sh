#!/bin/bash
# The main job: a one-node mail server managed through the library, shown step by step inside the
# sandbox (the machine's own /var/packages, /etc and ports are not touched). Run as root on a
# Debian machine; safe to run again.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake -S . -B build-demo -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQSV_TESTS=OFF >/dev/null
cmake --build build-demo -j "$(nproc)" >/dev/null
tests/harness/sandbox --build build-demo -- bash scripts/demo-steps.sh build-demo
