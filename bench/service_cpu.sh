#!/usr/bin/env bash
# The real service's CPU time over a minute at its default interval: on the example document
# and on a generated 1,000-device one (two helpers per device), against simulated hardware
# and helpers that only sleep. It publishes the real control block: run it where no other
# service does (scripts/build.sh build -DBRISOLA_BUILD_BENCH=ON first).
#   bench/service_cpu.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/helpers"
for helper in brisola-monitor brisola-hardware-source brisola-process-tap; do
  printf '#!/bin/sh\nexec sleep 100000\n' > "$work/helpers/$helper"
  chmod +x "$work/helpers/$helper"
done
cp examples/config.json "$work/example.json"
build/bench/bench_service_cycle --write-files "$work/large" 1000
hz=$(getconf CLK_TCK)

# utime + stime of the process, in clock ticks.
ticks() { sed 's/.*) //' "/proc/$1/stat" | awk '{ print $12 + $13 }'; }

measure() {
  local name=$1 document=$2 hardware=$3
  BRISOLA_CONFIG_PATH=$document BRISOLA_HARDWARE_SIMULATION=$hardware \
    BRISOLA_HELPER_DIR="$work/helpers" XDG_DATA_HOME="$work/data" \
    build/service/brisola-audio-service > "$work/$name.log" &
  local pid=$!
  # The first cycles start every helper; the steady state is what counts: wait until the log
  # has been still for two seconds.
  local lines=-1
  while sleep 2 && [[ $(wc -l < "$work/$name.log") != "$lines" ]]; do
    lines=$(wc -l < "$work/$name.log")
  done
  local before after rss
  before=$(ticks $pid)
  sleep "$seconds"
  after=$(ticks $pid)
  rss=$(awk '/VmRSS/ { print $2 }' "/proc/$pid/status")
  kill -TERM $pid
  wait $pid
  awk -v name="$name" -v t=$((after - before)) -v hz="$hz" -v s="$seconds" -v rss="$rss" 'BEGIN {
    printf "%s: %.0f ms of CPU in %d s, %.3f%% of one core, resident %.1f MB\n",
           name, 1000 * t / hz, s, 100 * t / hz / s, rss / 1024 }'
}

measure "example document" "$work/example.json" "$PWD/examples/hardware-simulation.json"
measure "1,000 devices" "$work/large/config.json" "$work/large/hardware.json"
