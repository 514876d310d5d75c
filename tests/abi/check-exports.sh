#!/usr/bin/env bash
# Compares the dynamic symbols the library defines with the list kept in the tree.
# Regenerate the list with scripts/update-exports.sh after a deliberate interface change.
set -euo pipefail
lib=$1 expected=$2
actual=$(nm -D --defined-only "$lib" | awk '{print $3}' | sed 's/@.*//' \
  | grep -v -E '^(KELO_1\.0|__(asan|ubsan|tsan|odr_asan|sancov)|_(init|fini)$)' | LC_ALL=C sort -u)
if ! diff -u "$expected" <(echo "$actual"); then
  echo "exported symbols differ from $expected (lines with + are exported but not listed)" >&2
  exit 1
fi
echo "exported symbols match ($(echo "$actual" | wc -l) names)"
