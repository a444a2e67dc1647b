#!/usr/bin/env bash
# corvane-inspect must build here (stage 10 skips it quietly when nlohmann-json
# or CLI11 is missing): build it in the default tree and run its tests, the
# round trip of all 49 messages, the golden annotated dump and the error exits.
set -euo pipefail
cd "$(dirname "$0")/../.."

cmake --preset default >/dev/null
cmake --build build/default -j2 --target corvane-inspect corvane_inspect_tests
ctest --test-dir build/default -R '^inspect_' --output-on-failure
