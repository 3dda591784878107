#!/usr/bin/env bash
# Builds everything and runs the service on the example document until Ctrl-C.
#
# On a desktop that runs PipeWire, brisola-virtual-devices runs beside the service, so the
# document's devices become real PipeWire devices, and the real helpers route real sound.
# Without PipeWire (or with BRISOLA_HARDWARE_SIMULATION set), the service runs against the
# example simulated hardware with the development stand-in helpers.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build-service.sh
export BRISOLA_CONFIG_PATH=${BRISOLA_CONFIG_PATH:-$PWD/examples/config.json}

socket="${PIPEWIRE_RUNTIME_DIR:-${XDG_RUNTIME_DIR:-}}/${PIPEWIRE_REMOTE:-pipewire-0}"
if [[ -z ${BRISOLA_HARDWARE_SIMULATION:-} && -S $socket && -x build/service/brisola-virtual-devices ]]; then
  echo "PipeWire at $socket: running brisola-virtual-devices beside the service"
  build/service/brisola-virtual-devices &
  devices=$!
  trap 'kill -TERM $devices 2>/dev/null; wait $devices 2>/dev/null' EXIT
  build/service/brisola-audio-service
else
  echo "No PipeWire session at $socket: simulated hardware and stand-in helpers"
  export BRISOLA_HARDWARE_SIMULATION=${BRISOLA_HARDWARE_SIMULATION:-$PWD/examples/hardware-simulation.json}
  export BRISOLA_HELPER_DIR=${BRISOLA_HELPER_DIR:-$PWD/build/tools}
  exec build/service/brisola-audio-service
fi
