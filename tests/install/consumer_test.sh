#!/usr/bin/env bash
# Installs the build into a temporary prefix, checks that everything lands where Debian puts
# it, and builds the consumer against the installed copy with find_package and with pkg-config.
#   consumer_test.sh BUILD_DIR CONSUMER_SOURCE_DIR [EXTRA_COMPILER_FLAGS]
set -euo pipefail
build=$1
source=$2
flags=${3:-}
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
for file in bin/brisolactl bin/brisola-audio-service include/brisola/model/config.hpp \
  share/man/man1/brisolactl.1 share/man/man1/brisola-audio-service.1 \
  share/bash-completion/completions/brisolactl lib/systemd/user/brisola-audio-service.service; do
  [[ -e $prefix/$file ]] || { echo "not installed: $file"; exit 1; }
done
grep -q "^ExecStart=$prefix/bin/brisola-audio-service$" \
  "$prefix/lib/systemd/user/brisola-audio-service.service"

cmake -S "$source" -B "$tmp/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_FLAGS="$flags" >/dev/null
cmake --build "$tmp/cmake" >/dev/null
"$tmp/cmake/consumer" | grep -q '"errors": \[\]'

pc_dir=$(dirname "$(find "$prefix" -name brisola.pc)")
# shellcheck disable=SC2046,SC2086
c++ -std=c++20 $flags "$source/main.cpp" -o "$tmp/consumer-pc" \
  $(PKG_CONFIG_PATH=$pc_dir pkg-config --cflags --libs brisola)
"$tmp/consumer-pc" | grep -q '"errors": \[\]'
echo "installed copy builds and runs both ways"
