#!/usr/bin/env bash
# The build a user does first: no preset, default options, Release (-O3).
# Warnings are not errors by default; this stage also fails on any warning,
# so that the presets, where they are errors, stay clean at every level of
# optimisation.
set -euo pipefail
cd "$(dirname "$0")/../.."

dir=build/plain
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release >/dev/null
grep -q '^CORVANE_WERROR:BOOL=OFF$' "$dir/CMakeCache.txt" \
  || { echo "plain: warnings are errors by default" >&2; exit 1; }
if ! cmake --build "$dir" -j2 >"$dir/build.log" 2>&1; then
  tail -40 "$dir/build.log" >&2
  echo "plain: the Release build with default options failed" >&2; exit 1
fi
if grep -E 'warning:' "$dir/build.log"; then
  echo "plain: the Release build printed the warnings above" >&2; exit 1
fi
echo "-- plain Release build with default options: no warning"
