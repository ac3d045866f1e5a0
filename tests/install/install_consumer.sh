#!/bin/sh
# Installs the build tree into a scratch prefix, then builds and runs a
# small C application against it twice: once through pkg-config, once
# through the CMake package.
set -eu
build=$1
consumer=$2
work=$3
rm -rf "$work"
mkdir -p "$work"
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >"$work/install.log"

export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
cc -std=c99 -Wall -Werror -o "$work/app-pc" "$consumer/main.c" $(pkg-config --cflags --libs travik)
LD_LIBRARY_PATH="$prefix/lib" "$work/app-pc"

cmake -S "$consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" >"$work/configure.log"
cmake --build "$work/cmake-build" >"$work/build.log"
LD_LIBRARY_PATH="$prefix/lib" "$work/cmake-build/app"
echo "install consumer: ok"
