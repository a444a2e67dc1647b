#!/usr/bin/env bash
# Makes sure the named Debian packages are installed: as root it installs the
# missing ones with apt-get; otherwise it names them and exits 1.
#
# Usage: tools/ensure-packages.sh PACKAGE...
set -euo pipefail

missing=()
for p in "$@"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
(( ${#missing[@]} )) || exit 0
if [[ $(id -u) == 0 ]] && command -v apt-get >/dev/null; then
  echo "== installing: ${missing[*]}"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
else
  echo "missing Debian packages; run: sudo apt-get install ${missing[*]}" >&2
  exit 1
fi
