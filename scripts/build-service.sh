#!/usr/bin/env bash
# Builds the service and, where PipeWire's headers are installed, the audio programs
# (build/service/), the tools and the development stand-in helpers (build/tools/) in one step.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
scripts/build.sh build "$@"
