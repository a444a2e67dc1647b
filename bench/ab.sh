#!/usr/bin/env bash
# Times the library as built at REV (A) against the bench build of the
# working tree (B), both loaded into one process and run in alternating
# batches (corvane_bench_abtime), for a fixed list of cases or the cases
# given as "Record/empty|full/op". Use it to tell whether an engine change
# is faster on a machine whose speed drifts; REV is built with the bench
# preset in a git worktree, build/ab-<rev>, kept for the next comparison.
#
# Usage: bench/ab.sh REV [Record/empty|full/op ...]
set -euo pipefail
cd "$(dirname "$0")/.."
(( $# >= 1 )) || { echo "usage: bench/ab.sh REV [Record/empty|full/op ...]" >&2; exit 2; }
rev=$(git rev-parse --short "$1")
shift
bin=build/bench/bench/corvane_bench_abtime
[[ -x $bin ]] || { echo "ab: build the bench preset first (tools/bench.sh)" >&2; exit 1; }
base=build/ab-$rev
lib=$base/build/bench/libCorvane.so.1.0.0
if [[ ! -e $lib ]]; then
  git worktree remove --force "$base" 2>/dev/null || rm -rf "$base"
  git worktree add --detach "$base" "$rev" >/dev/null
  (cd "$base" && cmake --preset bench >/dev/null && cmake --build --preset bench --target Corvane -j2 >/dev/null)
fi
cases=("$@")
if (( ${#cases[@]} == 0 )); then
  source bench/cases.sh
  for c in "${default_cases[@]}"; do [[ $c == trip/* ]] || cases+=("$c"); done
fi
echo "-- A: $rev ($lib), B: working tree (build/bench); ns per operation, medians of ${AB_ROUNDS:-300} batch pairs"
for c in "${cases[@]}"; do
  IFS=/ read -r what how op <<<"$c"
  "$bin" "$lib" build/bench/libCorvane.so.1.0.0 "$what" "$how" "$op" "${AB_ROUNDS:-300}"
done
