#!/usr/bin/env bash
# Instructions per operation under callgrind for a fixed list of cases (or
# the cases given as "Record/case/op" arguments), from the bench build.
# Deterministic: use it to compare engine changes on a loaded machine.
#
# Usage: bench/opcount.sh [Record/empty|full/op | trip/Message/send ...]
set -euo pipefail
cd "$(dirname "$0")/.."
bin=build/bench/bench/corvane_bench_opcount
[[ -x $bin ]] || { echo "opcount: build the bench preset first (tools/bench.sh)" >&2; exit 1; }
n=200
cases=("$@")
if (( ${#cases[@]} == 0 )); then
  source bench/cases.sh
  cases=("${default_cases[@]}")
fi
printf '%-42s %14s\n' case "instr/op"
for c in "${cases[@]}"; do
  IFS=/ read -r what how op <<<"$c"
  reps=$n
  [[ $what == trip && $how == SetProfileConfig ]] && reps=20
  total=$(valgrind --tool=callgrind --instr-atstart=no --collect-atstart=no \
            --callgrind-out-file=/dev/null "$bin" "$what" "$how" "$op" "$reps" 2>&1 |
          sed -n 's/.*Collected : *//p')
  printf '%-42s %14.1f\n' "$c" "$(bc -l <<<"$total / $reps")"
done
