#!/usr/bin/env bash
# The concurrency tests (HardeningThreads.*) under ThreadSanitizer: records and
# message bodies serialised, unserialised and copied on several threads at once.
set -euo pipefail
cd "$(dirname "$0")/../.."
cmake --workflow --preset tsan
