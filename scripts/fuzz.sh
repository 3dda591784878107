#!/usr/bin/env bash
# Builds the libFuzzer targets with clang, AddressSanitizer and UndefinedBehaviorSanitizer, and
# runs each for the given number of seconds (default 10), one after the other:
#   scripts/fuzz.sh [SECONDS [TARGET...]]
# Targets: document_decode document_edit hardware_file shared_readers. Corpora grow in
# build-fuzz/corpus/<target>, seeded from examples/; a finding stops the script with the
# crashing input in build-fuzz/ and a non-zero status.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-10}
shift || true
targets=("$@")
((${#targets[@]})) || targets=(document_decode document_edit hardware_file shared_readers)

CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DBRISOLA_FUZZ=ON -DBRISOLA_SANITIZE=address,undefined -DBRISOLA_BUILD_TESTS=OFF \
  -DBRISOLA_PIPEWIRE=OFF >/dev/null
cmake --build build-fuzz -j "$(nproc)" --target "${targets[@]/#/fuzz_}"

status=0
for target in "${targets[@]}"; do
  corpus=build-fuzz/corpus/$target
  mkdir -p "$corpus"
  options=()
  case $target in
    document_*) cp -n examples/config.json "$corpus"/ ;;
    hardware_file) cp -n examples/hardware-simulation.json "$corpus"/ ;;
    shared_readers) options=(-max_len=70000) ;;  # a whole control block and more
  esac
  echo "== fuzz_$target for ${seconds}s"
  if (cd build-fuzz && "fuzz/fuzz_$target" -max_total_time="$seconds" -print_final_stats=1       "${options[@]}" "corpus/$target" >"$target.log" 2>&1); then
    grep -E '^stat::(number_of_executed_units|average_exec_per_sec|peak_rss_mb)'       "build-fuzz/$target.log"
  else
    tail -n 40 "build-fuzz/$target.log"
    status=1
  fi
done
exit $status
