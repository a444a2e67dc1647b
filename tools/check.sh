#!/usr/bin/env bash
# Builds and runs every test of the project: each stage script in tools/ci/
# runs in name order (normal tests, sanitizers, big-endian host, fuzzing,
# install and ABI checks). Missing Debian packages named in tools/ci/*.packages
# are installed first when the script runs as root; otherwise it names them.
set -euo pipefail
cd "$(dirname "$0")/.."

mapfile -t packages < <(cat tools/ci/*.packages 2>/dev/null | sed 's/#.*//' | tr -s ' \t' '\n' | sed '/^$/d' | sort -u)
bash tools/ensure-packages.sh "${packages[@]}"

start=$SECONDS
for stage in tools/ci/[0-9]*.sh; do
  echo "== stage ${stage#tools/ci/} ($((SECONDS - start)) s)"
  bash "$stage"
done
echo "== all stages passed in $((SECONDS - start)) s"
