#!/usr/bin/env bash
# Builds and runs the whole suite three times: a normal build, AddressSanitizer with
# UndefinedBehaviorSanitizer, and ThreadSanitizer (separate build folders under build/). Any
# failing test or sanitizer report fails the run. Then the fuzz targets run for a short while.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/setup.sh"
jobs=$(nproc)

export ASAN_OPTIONS=abort_on_error=1:detect_leaks=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

run_suite() {
  local name=$1
  shift
  local dir=$top/build/$name
  echo "== $name: configure and build"
  cmake -S "$top" -B "$dir" -G Ninja "$@" >"$top/build/$name.configure.log"
  cmake --build "$dir" -j"$jobs"
  echo "== $name: tests"
  ctest --test-dir "$dir" -j"$jobs" --output-on-failure --timeout 600
}

mkdir -p "$top/build"
run_suite normal -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELO_BUILD_BENCH=ON
run_suite asan-ubsan -DCMAKE_BUILD_TYPE=Debug -DKELO_SANITIZE=address,undefined
run_suite tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELO_SANITIZE=thread

if [ -x "$top/scripts/fuzz.sh" ]; then
  echo "== fuzz smoke runs"
  "$top/scripts/fuzz.sh" --smoke
fi
echo "== all suites passed"
