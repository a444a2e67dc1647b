#!/usr/bin/env bash
# Builds the benchmarks with the `bench` preset (release, -O2, no -march=native),
# runs every one of them, and prints each figure as a ratio to its floor and
# the targets (bench/ratios.py).
#
# Usage: tools/bench.sh [--no-build] [corvane_bench flags...]
#   e.g. tools/bench.sh --benchmark_filter='CallingFeatures|trip|floor'
# Environment: BENCH_REPETITIONS (default 5), BENCH_MIN_TIME (seconds per
# repetition, default 0.03). Results: build/bench/bench-results.json (every
# repetition and the aggregates), build/bench/bench-console.txt.
set -euo pipefail
cd "$(dirname "$0")/.."

bash tools/ensure-packages.sh cmake g++ make libbenchmark-dev libprotobuf-dev protobuf-compiler python3

if [[ ${1:-} == --no-build ]]; then
  shift
else
  cmake --preset bench >/dev/null
  cmake --build --preset bench
fi

out=build/bench/bench-results.json
console=build/bench/bench-console.txt
echo "-- $(lscpu | sed -n 's/^Model name: *//p'), $(nproc) CPUs; running corvane_bench" \
     "(repetitions ${BENCH_REPETITIONS:-5}, min time ${BENCH_MIN_TIME:-0.03} s; console in $console)"
build/bench/bench/corvane_bench \
  --benchmark_repetitions="${BENCH_REPETITIONS:-5}" \
  --benchmark_min_time="${BENCH_MIN_TIME:-0.03}" \
  --benchmark_enable_random_interleaving=true \
  --benchmark_display_aggregates_only=true \
  --benchmark_out="$out" --benchmark_out_format=json \
  "$@" >"$console"
python3 bench/ratios.py "$out"
