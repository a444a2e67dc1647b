#!/usr/bin/env bash
# ABI guard: the library's ABI against the committed baseline abi/libCorvane.abi.
# Any change to an existing function, variable or public struct, and any
# removed symbol, fails; added symbols are allowed. The struct layouts are
# also pinned at compile time by tests/abi_layout_test.cpp (stage 10).
set -euo pipefail
cd "$(dirname "$0")/../.."

cmake --preset package >/dev/null
cmake --build --preset package
lib=build/package/libCorvane.so.1.0.0

fail() { echo "abi: $*" >&2; exit 1; }
readelf -d "$lib" | grep -q 'SONAME.*\[libCorvane.so.1\]' || fail "SONAME is not libCorvane.so.1"
# Every exported definition carries the version node of the version script.
unversioned=$(objdump -T "$lib" | awk '$2 == "g" && $4 != "*UND*" && $6 != "CORVANE_1.0" && $6 != "(CORVANE_1.0)"')
[ -z "$unversioned" ] || fail "symbols outside CORVANE_1.0:"$'\n'"$unversioned"

current=$(mktemp)
trap 'rm -f "$current"' EXIT
abi/dump.sh "$lib" "$current"
status=0
abidiff --no-added-syms abi/libCorvane.abi "$current" || status=$?
if [ "$status" -ne 0 ]; then
  fail "abidiff exit status $status: the ABI differs from abi/libCorvane.abi (see above)." \
       "If the change is deliberate, see abi/update-baseline.sh."
fi
echo "-- ABI matches abi/libCorvane.abi ($(grep -c '<elf-symbol' abi/libCorvane.abi) symbols)"
