#!/usr/bin/env bash
# Installs the library into a scratch prefix and builds a small consumer against it, once through
# the CMake package and once through pkg-config, and checks the SONAME.
set -euo pipefail
build=$1 consumer=$2 work=$3 cc=$4 flags=${5:-}
rm -rf "$work" && mkdir -p "$work"
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
lib=$(ls "$prefix"/lib*/libKeloAXLConfigLogger.so.1 2>/dev/null | head -n1)
soname=$(readelf -d "$lib" | sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p')
[ "$soname" = "libKeloAXLConfigLogger.so.1" ] || { echo "unexpected SONAME '$soname'" >&2; exit 1; }
libdir=$(dirname "$lib")

cmake -S "$consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH=$libdir "$work/cmake-build/consumer"

# Plain C through pkg-config: the C interface compiles as C.
export PKG_CONFIG_PATH=$libdir/pkgconfig
"$cc" -std=c11 -Wall -Wextra -Werror $flags "$consumer/consumer.c" $(pkg-config --cflags --libs KeloAXLConfigLogger) \
  -o "$work/consumer-c"
LD_LIBRARY_PATH=$libdir "$work/consumer-c"
echo "installed consumer ok"
