#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer + UndefinedBehaviorSanitizer) and runs
# each one on a copy of its seed corpus.
#   scripts/fuzz.sh --smoke        about 30 seconds per target (the test command runs this)
#   scripts/fuzz.sh [SECONDS]      longer runs, 600 seconds per target by default
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
seconds=600
[ "${1:-}" = "--smoke" ] && seconds=30
[[ "${1:-}" =~ ^[0-9]+$ ]] && seconds=$1
build=$top/build/fuzz
mkdir -p "$top/build"
CC=clang CXX=clang++ cmake -S "$top" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKELO_BUILD_FUZZ=ON -DKELO_BUILD_TESTS=OFF -DKELO_BUILD_TOOLS=OFF \
  -DKELO_SANITIZE=address,undefined >"$top/build/fuzz.configure.log"
cmake --build "$build" -j"$(nproc)"
export ASAN_OPTIONS=abort_on_error=1:detect_leaks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
status=0
for bin in "$build"/fuzz/kelo_*_fuzz; do
  [ -x "$bin" ] || continue
  name=$(basename "$bin" | sed 's/^kelo_//; s/_fuzz$//')
  work=$build/corpus-$name
  rm -rf "$work" && mkdir -p "$work"
  [ -d "$top/fuzz/corpus/$name" ] && cp -r "$top/fuzz/corpus/$name/." "$work/"
  log=$build/$name.log
  if "$bin" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
      "$work" >"$log" 2>&1; then
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n1)
    echo "fuzz $name: ${runs:-?} executions in ${seconds}s, no finding"
  else
    echo "fuzz $name: FAILED (see $log)"
    tail -n 40 "$log"
    status=1
  fi
done
exit $status
