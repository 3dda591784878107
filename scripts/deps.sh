#!/usr/bin/env bash
# Installs the build and test dependencies that are missing, from Debian's packages.
set -euo pipefail

packages=(g++ cmake ninja-build pkg-config nlohmann-json3-dev libicu-dev uuid-dev
          libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev clang-format
          libpipewire-0.3-dev pipewire pipewire-bin wireplumber dbus libsimdjson-dev
          clang libclang-rt-14-dev)  # the last two: libFuzzer for scripts/fuzz.sh

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done

if ((${#missing[@]})); then
  echo "scripts/deps.sh: installing the missing Debian packages: ${missing[*]}"
  if [[ $(id -u) -ne 0 ]]; then sudo=sudo; else sudo=; fi
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update
  $sudo apt-get install -y --no-install-recommends "${missing[@]}"
fi
