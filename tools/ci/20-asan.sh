#!/usr/bin/env bash
# The whole test suite under AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
cmake --workflow --preset asan
