#!/usr/bin/env bash
# Rewrites tests/abi/exported-symbols.txt from a built library (after a deliberate interface
# change). Usage: scripts/update-exports.sh [build-dir]
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$top/build}
lib=$(ls "$build"/libKeloAXLConfigLogger.so.1.* | head -n1)
nm -D --defined-only "$lib" | awk '{print $3}' | sed 's/@.*//' \
  | grep -v -E '^(KELO_1\.0|__(asan|ubsan|tsan|odr_asan|sancov)|_(init|fini)$)' \
  | LC_ALL=C sort -u >"$top/tests/abi/exported-symbols.txt"
echo "wrote $(wc -l <"$top/tests/abi/exported-symbols.txt") names"
