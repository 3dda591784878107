#!/usr/bin/env bash
# Builds the project and loads the example document through the configuration store.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
scripts/build.sh build
build/tools/brisola-show-config examples/config.json
