#!/usr/bin/env bash
# The test suite of the release build (the one stage 10 builds) under
# valgrind's memcheck: no invalid access, no use of uninitialised memory, no
# definite or indirect leak. The truncation test takes every 7th length; the
# example exchange runs too when built.
set -euo pipefail
cd "$(dirname "$0")/../.."

cmake --preset default >/dev/null
cmake --build --preset default

memcheck=(valgrind -q --error-exitcode=1 --leak-check=full --show-leak-kinds=definite,indirect
          --errors-for-leak-kinds=definite,indirect --child-silent-after-fork=yes)
export CORVANE_TRUNCATION_STRIDE=7
"${memcheck[@]}" build/default/tests/corvane_tests --gtest_brief=1
if [ -x build/default/examples/corvane-exchange ]; then
  "${memcheck[@]}" build/default/examples/corvane-exchange >/dev/null
fi
echo "valgrind: no errors, no leaks"
