#!/usr/bin/env bash
# Installs the SDK from a build into a scratch prefix, moves the build out of
# the way, and builds and runs external consumers against the installation:
# through find_package and through pkg-config, in C11 and C++.
#   tests/install/run.sh BUILD_DIR
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"; [ -d "$build.moved" ] && mv "$build.moved" "$build"' EXIT
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
mv "$build" "$build.moved"  # nothing may come from the build tree

cmake -S "$here" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/consumer_c"
"$work/cmake/consumer_cpp"

export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
flags="-Wall -Wextra -Wpedantic -Werror"
cc -std=c11 $flags "$here/consumer.c" -o "$work/pc_c" $(pkg-config --cflags --libs kavo-sim) -Wl,-rpath,"$prefix/lib"
c++ -std=c++17 $flags "$here/consumer.cpp" -o "$work/pc_cpp" $(pkg-config --cflags --libs kavo-sim) -Wl,-rpath,"$prefix/lib"
"$work/pc_c"
"$work/pc_cpp"

# The installed tools run from the installation, moved elsewhere.
mv "$prefix" "$work/moved"
"$work/moved/bin/kavoctl" status >/dev/null 2>&1
"$work/moved/bin/kavoctl" --json call kavo_dcsu_cfg_get dcsu_inst=0 2>/dev/null | grep -q '"result":0'
man -l "$work/moved/share/man/man1/kavoctl.1" >/dev/null 2>&1 || true
echo "install and consume: ok"
