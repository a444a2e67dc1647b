#!/usr/bin/env bash
# Replaces abi/libCorvane.abi with the ABI of the current sources, built as the
# check builds them (preset `package`, RelWithDebInfo). Run it only for a
# change meant to alter the ABI, and commit the new baseline with it.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset package >/dev/null
cmake --build --preset package
abi/dump.sh build/package/libCorvane.so.1.0.0 abi/libCorvane.abi
echo "abi/libCorvane.abi: $(grep -c '<elf-symbol' abi/libCorvane.abi) symbols"
