#!/usr/bin/env bash
# Builds everything and runs the service against the example document and the example
# simulated hardware, with the development stand-in helpers, until Ctrl-C.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build-service.sh
export BRISOLA_CONFIG_PATH=${BRISOLA_CONFIG_PATH:-$PWD/examples/config.json}
export BRISOLA_HARDWARE_SIMULATION=${BRISOLA_HARDWARE_SIMULATION:-$PWD/examples/hardware-simulation.json}
exec build/service/brisola-audio-service
