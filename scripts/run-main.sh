#!/usr/bin/env bash
# The main job: installs what is missing, builds the library and its tools (Release), and runs
# kelo-sim, a simulated day of a background-scheduling daemon. Extra arguments go to kelo-sim
# (for example --apps 50 --seed 7, or --json).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/setup.sh"
build=$top/build/release
echo "== building the library, kelo and kelo-sim (Release) in ${build#$top/}" >&2
cmake -S "$top" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKELO_BUILD_TESTS=OFF >/dev/null
# Everything the package installs, so that `cmake --install build/release` works afterwards.
cmake --build "$build" -j"$(nproc)" >/dev/null
echo "== running kelo-sim $*" >&2
exec "$build/tools/kelo-sim/kelo-sim" "$@"
