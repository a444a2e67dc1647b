#!/usr/bin/env bash
# The whole test suite on a big-endian, strict-alignment host: a mips-linux-gnu
# cross build run under qemu-mips. GoogleTest is built once for the target from
# /usr/src/googletest and installed under build/mips-gtest, where the mips
# preset finds it. Emulated, the truncation test takes every 7th length (and
# every length near an element boundary; see the mips test preset).
set -euo pipefail
cd "$(dirname "$0")/../.."

gtest=build/mips-gtest
if [ ! -f "$gtest/install/lib/cmake/GTest/GTestConfig.cmake" ]; then
  cmake -S /usr/src/googletest -B "$gtest" \
    -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/mips-linux-gnu.cmake" \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$PWD/$gtest/install" >/dev/null
  cmake --build "$gtest" -j2 >/dev/null
  cmake --install "$gtest" >/dev/null
fi

cmake --workflow --preset mips
# The middleware is the process's: no library of ours among the dependencies
# (cmake/check_imports.cmake also checked the imports after the link).
if mips-linux-gnu-readelf -d build/mips/libCorvane.so.1.0.0 | grep 'NEEDED.*libcorvane_'; then
  echo "mips: libCorvane names a middleware of this tree as NEEDED" >&2; exit 1
fi
