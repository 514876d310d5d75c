#!/usr/bin/env bash
# Builds the benchmarks in Release, runs every one of them, and prints one table: each measured
# operation beside its peer and its physical limit from the same run, the ratios, the target and
# whether it holds. Exit status 0 when every target holds.
#   scripts/bench.sh              print the table
#   scripts/bench.sh --markdown   print it as a Markdown table (as in BENCHMARKS.md)
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/setup.sh"
build=$top/build/bench
mkdir -p "$top/build"
results=$build/results
cmake -S "$top" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKELO_BUILD_BENCH=ON \
  -DKELO_BUILD_TESTS=OFF -DKELO_BUILD_TOOLS=ON >"$top/build/bench.configure.log"
cmake --build "$build" -j"$(nproc)" >/dev/null
rm -rf "$results" && mkdir -p "$results"

run() {  # name [benchmark arguments...]
  local name=$1
  shift
  echo "== running $name $*" >&2
  "$build/bench/kelo_${name}" --benchmark_out="$results/$name${SUFFIX:-}.json" \
    --benchmark_out_format=json "$@" >/dev/null
}

# Queue post is held to its peer run by run (idle, and beside a busy process the benchmark starts),
# so the single runs are kept beside their median.
run queue_bench --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true
run logging_bench --benchmark_repetitions=6 --benchmark_enable_random_interleaving=true \
  --benchmark_report_aggregates_only=true
# Each of these is held to a peer from the same binary: their repetitions interleave, so that a
# moment of load (a busy disk, a busy processor) falls on both alike.
for name in config_bench upload_bench coldstart_bench; do
  run $name --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true \
    --benchmark_report_aggregates_only=true
done
run stats_bench
run zones_bench
run report_bench
run powerd_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
# The energy service is one per process and its pools keep every record: one size per process.
for size in 1000 10000 100000; do
  SUFFIX=-$size run energy_bench --benchmark_filter="BM_RefreshAndRead/$size/" \
    --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
done

# kelo-sim's whole day (set-up, reports and summary included) at 2,000 and 10,000 applications,
# written as a benchmark result so the table reads it like the others.
sim_entries=()
for apps in 2000 10000; do
  echo "== running kelo-sim --apps $apps" >&2
  wall=$("$build/tools/kelo-sim/kelo-sim" --apps "$apps" --json --root "$build/kelo-sim-$apps" |
    sed -n 's/^  "wallSeconds": \([0-9.e+-]*\),*$/\1/p')
  sim_entries+=("{\"run_name\": \"BM_KeloSimDay/$apps\", \"run_type\": \"iteration\", \"real_time\": $wall, \"time_unit\": \"s\"}")
done
(IFS=,; echo "{\"benchmarks\": [${sim_entries[*]}]}") >"$results/kelo_sim.json"

format=()
[ "${1:-}" = "--markdown" ] && format=(--markdown)
"$build/bench/kelo_bench_report" "$results" "${format[@]}"
