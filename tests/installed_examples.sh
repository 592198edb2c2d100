#!/usr/bin/env bash
# The package as a user gets it: installs a build tree into a temporary prefix, builds every example against
# the installed package twice (with pkg-config, and with CMake through find_package(Tandro)), and runs each
# build against the installed tandro-sim (tests/examples_check.sh). Fails on any error.
#   installed_examples.sh BUILD_DIR
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" > "$work/install.log"
pc=$(find "$prefix" -name tandro.pc)
[ -n "$pc" ] || { echo "-- no tandro.pc was installed"; exit 1; }
libdir=$(dirname "$(dirname "$pc")")
export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$pc")

echo "-- pkg-config: $(pkg-config --cflags --libs tandro)"
mkdir -p "$work/pkg-config"
for src in "$root"/examples/*.c; do
  name=$(basename "$src" .c)
  packages=(tandro)
  grep -q '^#include "zelsim.h"' "$src" && packages+=(tandro-zelsim)
  # shellcheck disable=SC2046
  cc -std=c11 -Wall -Wextra -Werror -pthread "$src" $(pkg-config --cflags --libs "${packages[@]}") \
    -Wl,-rpath,"$libdir" -o "$work/pkg-config/$name"
done

echo "-- CMake: find_package(Tandro) under $prefix"
cmake -S "$root/examples" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  > "$work/cmake.log" || { cat "$work/cmake.log"; exit 1; }
cmake --build "$work/cmake" -j "${JOBS:-2}" > "$work/cmake-build.log" || { cat "$work/cmake-build.log"; exit 1; }

for kind in pkg-config cmake; do
  echo "-- the examples built with $kind"
  bash "$root/tests/examples_check.sh" "$prefix/bin/tandro-sim" "$work/$kind" ""
done
