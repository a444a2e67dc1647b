#!/usr/bin/env bash
# Fuzzing of the decoders: builds the libFuzzer targets with clang (ASan and
# UBSan), generates the seed corpora from valid encodings of every record and
# message, replays them, then fuzzes both targets side by side for
# CORVANE_FUZZ_SECONDS (default 60) each. A crash, leak, timeout or failed
# round-trip check fails the stage; the input is kept in build/fuzz/findings/.
set -euo pipefail
cd "$(dirname "$0")/../.."

seconds=${CORVANE_FUZZ_SECONDS:-60}
dir=build/fuzz

cmake --workflow --preset fuzz
rm -rf "$dir/seeds"
"$dir/fuzz/corvane_fuzz_seeds" "$dir/seeds"
mkdir -p "$dir/findings" "$dir/corpus/record" "$dir/corpus/message"

for target in record message; do
  if ! "$dir/fuzz/corvane_fuzz_$target" -runs=0 "$dir/seeds/$target" >"$dir/replay-$target.log" 2>&1; then
    tail -60 "$dir/replay-$target.log" >&2
    exit 1
  fi
  echo "-- $target seeds replayed: $(grep -E '^#[0-9]+.*INITED' "$dir/replay-$target.log")"
done

pids=()
for target in record message; do
  "$dir/fuzz/corvane_fuzz_$target" -max_total_time="$seconds" -timeout=10 -print_final_stats=1 \
    -artifact_prefix="$dir/findings/$target-" "$dir/corpus/$target" "$dir/seeds/$target" \
    >"$dir/$target.log" 2>&1 &
  pids+=($!)
done
failed=0
for i in 0 1; do
  target=$([ "$i" = 0 ] && echo record || echo message)
  if wait "${pids[$i]}"; then
    echo "-- $target: $(grep -E '^#[0-9]+.*DONE' "$dir/$target.log" | tail -1)"
    grep -E "stat::(number_of_executed_units|average_exec_per_sec)" "$dir/$target.log"
  else
    echo "-- $target: FAILED" >&2
    tail -60 "$dir/$target.log" >&2
    failed=1
  fi
done
exit $failed
