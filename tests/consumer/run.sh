#!/usr/bin/env bash
# Installs the build tree into a scratch prefix and builds two outside
# consumers against it: a CMake project (find_package) and a C program
# (pkg-config). Usage: run.sh BUILD_DIR CONSUMER_SRC WORK_DIR
set -euo pipefail
build=$1 src=$2 work=$3
rm -rf "$work"
mkdir -p "$work"
cmake --install "$build" --prefix "$work/prefix" > "$work/install.log"
cmake -S "$src" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix" \
      -DCMAKE_BUILD_TYPE=Release > "$work/configure.log"
cmake --build "$work/build" > "$work/build.log"
libdir=$(dirname "$(find "$work/prefix" -name 'libqvn_kit.so' | head -n 1)")
LD_LIBRARY_PATH="$libdir" "$work/build/consumer"
env -u LD_LIBRARY_PATH "$work/build/kit_only"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
cc -std=c11 -Wall -Wextra -pedantic -Werror "$src/main.c" -o "$work/c_consumer" \
   $(pkg-config --cflags --libs qvn_kit)
LD_LIBRARY_PATH="$libdir" "$work/c_consumer"
