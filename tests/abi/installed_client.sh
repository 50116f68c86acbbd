#!/bin/sh
# installed_client.sh - build a client against the installed headers alone, once by
# the CMake package and once by pkg-config, and run it.
#
# Usage: installed_client.sh BUILD CLIENT PREFIX
set -eu
build=$1 client=$2 prefix=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
DESTDIR=$work/root cmake --install "$build" >/dev/null
installed=$work/root$prefix

cmake -S "$client" -B "$work/build" -DCMAKE_PREFIX_PATH="$installed" >/dev/null
cmake --build "$work/build" >/dev/null
LD_LIBRARY_PATH=$installed/lib "$work/build/client"

PKG_CONFIG_PATH=$installed/lib/pkgconfig PKG_CONFIG_SYSROOT_DIR=$work/root
export PKG_CONFIG_PATH PKG_CONFIG_SYSROOT_DIR
# shellcheck disable=SC2046 # the flags are words
c++ -std=c++17 -o "$work/client" "$client/client.cpp" $(pkg-config --cflags --libs postwell) \
  -Wl,-rpath-link,"$installed/lib"
LD_LIBRARY_PATH=$installed/lib "$work/client"
