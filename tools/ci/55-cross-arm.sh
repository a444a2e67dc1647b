#!/usr/bin/env bash
# Builds the library alone for arm-linux-gnueabihf with Debian's cross
# compiler, checks what came out and prints its stripped size.
set -euo pipefail
cd "$(dirname "$0")/../.."

cmake --workflow --preset arm
lib=build/arm/libCorvane.so.1.0.0
file_header=$(arm-linux-gnueabihf-readelf -h "$lib")
grep -q 'Machine:.*ARM' <<<"$file_header" || { echo "cross-arm: $lib is not an ARM object" >&2; exit 1; }
arm-linux-gnueabihf-readelf -d "$lib" | grep -q 'SONAME.*\[libCorvane.so.1\]' \
  || { echo "cross-arm: SONAME is not libCorvane.so.1" >&2; exit 1; }
# The middleware is the process's: no library of ours among the dependencies
# (cmake/check_imports.cmake also checked the imports after the link).
if arm-linux-gnueabihf-readelf -d "$lib" | grep 'NEEDED.*libcorvane_'; then
  echo "cross-arm: libCorvane names a middleware of this tree as NEEDED" >&2; exit 1
fi

stripped=$(mktemp)
trap 'rm -f "$stripped"' EXIT
arm-linux-gnueabihf-strip --strip-unneeded -o "$stripped" "$lib"
echo "-- arm-linux-gnueabihf libCorvane.so.1.0.0: $(stat -c %s "$lib") bytes," \
     "$(stat -c %s "$stripped") bytes stripped"
arm-linux-gnueabihf-size "$stripped" | sed "s|$stripped|libCorvane.so.1.0.0 (stripped)|; s/^/   /"
