#!/usr/bin/env bash
# Installs the library into a temporary prefix, checks the layout and builds
# and runs two consumers against the installed copy: a C++ one through the
# CMake package, a C one through pkg-config.
set -euo pipefail
cd "$(dirname "$0")/../.."

cmake --preset package >/dev/null
cmake --build --preset package

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
cmake --install build/package --prefix "$prefix" >/dev/null
libdir=$(sed -n 's/^libdir=\${exec_prefix}\///p' "$prefix"/lib*/pkgconfig/corvane.pc)
libdir=${libdir:-lib}

fail() { echo "install: $*" >&2; exit 1; }
for f in include/corvane/corvane.h include/corvane/schema.h include/corvane-platform/quib_stub.h \
         include/corvane-platform/quib_dbus.h \
         "$libdir/libCorvane.so.1.0.0" "$libdir/libcorvane_platform.so.1" "$libdir/libcorvane_dbus.so.1" \
         "$libdir/pkgconfig/corvane.pc" "$libdir/pkgconfig/corvane-dbus.pc" \
         "$libdir/pkgconfig/corvane-platform.pc" "$libdir/cmake/Corvane/CorvaneConfig.cmake" \
         "$libdir/cmake/Corvane/CorvaneConfigVersion.cmake" \
         "$libdir/cmake/Corvane/CorvaneTargets.cmake"; do
  [ -e "$prefix/$f" ] || fail "missing $f"
done
[ "$(readlink "$prefix/$libdir/libCorvane.so")" = libCorvane.so.1 ] || fail "libCorvane.so link"
[ "$(readlink "$prefix/$libdir/libCorvane.so.1")" = libCorvane.so.1.0.0 ] || fail "libCorvane.so.1 link"
readelf -d "$prefix/$libdir/libCorvane.so.1.0.0" | grep -q 'SONAME.*\[libCorvane.so.1\]' \
  || fail "SONAME is not libCorvane.so.1"
# The middleware is the process's: libCorvane names none of ours.
! readelf -d "$prefix/$libdir/libCorvane.so.1.0.0" | grep 'NEEDED.*libcorvane_' \
  || fail "libCorvane names a middleware of this tree as NEEDED"
[ "$(pkg-config --with-path="$prefix/$libdir/pkgconfig" --variable=prefix corvane)" = "$prefix" ] \
  || fail "corvane.pc does not point into the install prefix"

echo "-- consumer through find_package(Corvane 1.0)"
cmake -S tests/consumers/cmake -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/consumer" | tee "$work/out1"
grep -q "^Registrar: [0-9]* bytes on the wire, round trip ok$" "$work/out1" || fail "CMake consumer"

# SameMajorVersion: a consumer asking for 2.0 must not get this package.
if cmake -S tests/consumers/cmake -B "$work/cmake2" -DCMAKE_PREFIX_PATH="$prefix" \
         -DCORVANE_WANT_VERSION=2.0 >"$work/cmake2.log" 2>&1; then
  fail "find_package(Corvane 2.0) accepted version 1"
fi
grep -q "version: 1.0.0" "$work/cmake2.log" || fail "find_package(Corvane 2.0) failed for another reason"

echo "-- consumer through pkg-config (C99, with the D-Bus middleware)"
mkdir -p "$work/pc"
PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig" make -s -C tests/consumers/pkgconfig O="$work/pc"
"$work/pc/consumer" | tee "$work/out2"
grep -q "^SetLineCallState body: 60 bytes on the wire, round trip ok$" "$work/out2" \
  || fail "pkg-config consumer"
grep -q "^user voice: org.corvane.user.voice$" "$work/out2" || fail "pkg-config consumer: bus name"
"$work/pc/codec_only" | tee "$work/out3"
grep -q "^codec only: lineCallState 36 bytes, round trip ok$" "$work/out3" \
  || fail "pkg-config consumer of the codec alone (-Wl,--as-needed)"
readelf -d "$work/pc/codec_only" | grep -q 'NEEDED.*libcorvane_dbus' \
  || fail "the pkg-config line let --as-needed drop libcorvane_dbus"
echo "-- install and consumers: ok"
