#!/usr/bin/env bash
# Builds the service and, where PipeWire's headers are installed, the audio programs
# (build/service/), brisolactl and the development stand-in helpers (build/tools/) in one
# step; not the tests or the benchmarks.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
cmake --build build -j "$(nproc)" --target brisola-programs
