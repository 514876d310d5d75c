#!/usr/bin/env bash
# Installs the library into a staging prefix and runs the hostile-file program, built against
# the installed package only, as a daemon's developer would build it.
# Usage: check-hostile.sh BUILD SOURCE WORK_DIR CXX [SANITIZER_FLAGS]
set -euo pipefail
build=$1 source=$2 work=$3 cxx=$4 flags=${5:-}
rm -rf "$work" && mkdir -p "$work"
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
lib=$(ls "$prefix"/lib*/libKeloAXLConfigLogger.so.1 | head -n1)
export PKG_CONFIG_PATH=$(dirname "$lib")/pkgconfig
unset LD_LIBRARY_PATH
# shellcheck disable=SC2086
"$cxx" -std=c++17 -O1 $flags "$source" $(pkg-config --cflags --libs KeloAXLConfigLogger) \
  -o "$work/hostile"
"$work/hostile"
