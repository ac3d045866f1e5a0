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
# Everything goes under the prefix given at install time, the reference
# plugins included (into lib/travik-<version>/<kind>/).
outside=$(sed -n 's/^-- \(Installing\|Up-to-date\): //p' "$work/install.log" |
  grep -v "^$prefix/" || true)
[ -z "$outside" ] || { echo "installed outside $prefix:"; echo "$outside"; exit 1; }
for plugin in "$build"/plugins/*/lib*.so; do
  [ -e "$plugin" ] || continue
  kind=$(basename "$(dirname "$plugin")")
  ls "$prefix"/lib/travik-*/"$kind/$(basename "$plugin")" >/dev/null ||
    { echo "plugin not installed under $prefix: $plugin"; exit 1; }
done

export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
cc -std=c99 -Wall -Werror -o "$work/app-pc" "$consumer/main.c" $(pkg-config --cflags --libs travik)
LD_LIBRARY_PATH="$prefix/lib" "$work/app-pc"

cmake -S "$consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" >"$work/configure.log"
cmake --build "$work/cmake-build" >"$work/build.log"
LD_LIBRARY_PATH="$prefix/lib" "$work/cmake-build/app"
echo "install consumer: ok"

# An out-of-tree plugin (the SDK example) built with the installed package's
# travik_add_plugin, then found and loaded by an installed-library program.
example=$4
cmake -S "$example" -B "$work/plugin-build" -DCMAKE_PREFIX_PATH="$prefix" >"$work/plugin-configure.log"
cmake --build "$work/plugin-build" >"$work/plugin-build.log"
plugin=$work/plugin-build/plugins/demuxer/libdemuxer_example.so
exports=$(nm -D --defined-only "$plugin" | awk '$2 != "A" { print $3 }')
[ "$exports" = "travik_demuxer_example" ] || { echo "plugin exports: $exports"; exit 1; }
cc -std=c99 -Wall -Werror -o "$work/plugin-app" "$consumer/../plugin_consumer.c" \
  $(pkg-config --cflags --libs travik)
mkdir -p "$work/home"
HOME="$work/home" TRAVIK_PLUGINS_DIR="$work/plugin-build/plugins" \
  LD_LIBRARY_PATH="$prefix/lib" "$work/plugin-app"
echo "install plugin: ok"
