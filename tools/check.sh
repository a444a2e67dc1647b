#!/usr/bin/env bash
# Builds and runs every test of the project: each stage script in tools/ci/
# runs in name order (normal tests, sanitizers, big-endian host, fuzzing,
# install and ABI checks). Missing Debian packages named in tools/ci/*.packages
# are installed first when the script runs as root; otherwise it names them.
set -euo pipefail
cd "$(dirname "$0")/.."

mapfile -t packages < <(cat tools/ci/*.packages 2>/dev/null | sed 's/#.*//' | tr -s ' \t' '\n' | sed '/^$/d' | sort -u)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  if [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null; then
    echo "== installing: ${missing[*]}"
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
  else
    echo "missing Debian packages; run: sudo apt-get install ${missing[*]}" >&2
    exit 1
  fi
fi

start=$SECONDS
for stage in tools/ci/[0-9]*.sh; do
  echo "== stage ${stage#tools/ci/} ($((SECONDS - start)) s)"
  bash "$stage"
done
echo "== all stages passed in $((SECONDS - start)) s"
