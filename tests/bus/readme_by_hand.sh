#!/usr/bin/env bash
# Runs the README's by-hand block (the sh block after "By hand, built with")
# as a user pastes it, from a copy of the tree's layout: the daemons under
# build/default/examples/ are those of this build. Three runs in a row, each
# must print "exit 0" and leave neither the bus nor a daemon behind.
#
# Usage: readme_by_hand.sh README EXAMPLES_DIR
set -uo pipefail
readme=${1:?usage: readme_by_hand.sh README EXAMPLES_DIR}
examples=${2:?usage: readme_by_hand.sh README EXAMPLES_DIR}

block=$(awk '/^By hand, built with/ {found = 1} found && /^```sh$/ {inside = 1; next}
             inside && /^```$/ {exit} inside {print}' "$readme")
[ -n "$block" ] || { echo "readme_by_hand: no sh block after 'By hand' in $readme" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/build/default"
ln -s "$examples" "$work/build/default/examples"
# The block's fixed socket path, made private to this run.
block=${block//\/tmp\/corvane-bus/$work/bus}

for run in 1 2 3; do
  out=$(cd "$work" && timeout 30 bash -c "$block" 2>&1)
  status=$?
  if [ "$status" -ne 0 ] || ! grep -qx 'exit 0' <<<"$out"; then
    echo "readme_by_hand: run $run: status $status" >&2
    echo "$out" | tail -20 >&2
    exit 1
  fi
  sleep 0.2
  if [ -e "$work/bus" ] || pgrep -f "unix:path=$work/bus" >/dev/null; then
    echo "readme_by_hand: run $run left the bus behind" >&2
    exit 1
  fi
done
echo "readme_by_hand: 3 runs, exit 0 each"
