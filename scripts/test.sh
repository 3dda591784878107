#!/usr/bin/env bash
# Runs the whole test suite: formatting check, the release build with warnings as errors,
# then the suite again under AddressSanitizer and UndefinedBehaviorSanitizer, the runtime
# tests under ThreadSanitizer, and a short run of every fuzz target.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh

echo "== clang-format"
git ls-files '*.cpp' '*.hpp' '*.c' '*.h' | xargs -r clang-format --dry-run -Werror

echo "== build (warnings are errors)"
scripts/build.sh build -DBRISOLA_WERROR=ON -DBRISOLA_BUILD_BENCH=ON
ctest --test-dir build --output-on-failure -j "$(nproc)"

echo "== AddressSanitizer + UndefinedBehaviorSanitizer"
scripts/build.sh build-asan -DBRISOLA_WERROR=ON -DBRISOLA_SANITIZE=address,undefined \
  -DCMAKE_BUILD_TYPE=Debug
ctest --test-dir build-asan --output-on-failure -j "$(nproc)"

echo "== ThreadSanitizer (runtime shared memory, audio hand-over)"
# Only the code that shares memory between threads or processes without locks: the
# shared-memory protocol and the hand-over of controls to the audio thread.
cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DBRISOLA_WERROR=ON \
  -DBRISOLA_SANITIZE=thread >/dev/null
cmake --build build-tsan -j "$(nproc)" --target runtime_tests audio_tests
ctest --test-dir build-tsan -L 'runtime|audio' --output-on-failure -j "$(nproc)"

echo "== Fuzz targets (a few seconds each; scripts/fuzz.sh SECONDS for longer runs)"
scripts/fuzz.sh 5
