#!/usr/bin/env bash
# The test suite on the host, in the release build with debug info.
set -euo pipefail
cmake --workflow --preset test
