#!/usr/bin/env bash
# Runs the whole test suite: formatting check, the release build with warnings as errors,
# then the suite again under AddressSanitizer and UndefinedBehaviorSanitizer, and the runtime
# tests under ThreadSanitizer.
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

echo "== ThreadSanitizer (runtime shared memory)"
# Only the runtime tests: the shared-memory protocol is the library's one lock-free part.
cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DBRISOLA_WERROR=ON \
  -DBRISOLA_SANITIZE=thread >/dev/null
cmake --build build-tsan -j "$(nproc)" --target runtime_tests runtime_shm_tests
ctest --test-dir build-tsan -L runtime --output-on-failure -j "$(nproc)"
