#!/usr/bin/env bash
# Writes the ABI description of a libCorvane.so build (abidw, Debian's
# abigail-tools) restricted to what the public headers declare:
#   abi/dump.sh build/package/libCorvane.so.1.0.0 OUT.abi
# No paths, source lines or parameter names: the file changes only when the
# ABI does. Used for the baseline (abi/update-baseline.sh) and by the check.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
abidw --headers-dir "$here/../include/corvane" --drop-private-types --exported-interfaces-only \
      --no-corpus-path --no-comp-dir-path --no-show-locs --no-parameter-names \
      --type-id-style hash --out-file "$2" "$1"
# Compilation units are named by their path in the source tree, not on the
# machine that dumped them.
root=$(cd "$here/.." && pwd)
sed -i "s|path='$root/|path='|" "$2"
