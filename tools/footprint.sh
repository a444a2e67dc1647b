#!/usr/bin/env bash
# Footprint of libCorvane.so: builds the library alone (-O2 -DNDEBUG, no
# tests, tools or examples) for the host and for arm-linux-gnueabihf, strips
# it and prints its size, its text/data/bss split and its largest sections.
#
# Usage: tools/footprint.sh [host|arm]...   (default: both)
# Build trees: build/footprint-host, build/footprint-arm.
set -euo pipefail
cd "$(dirname "$0")/.."

limit_kib=150   # target for the stripped x86_64 library
targets=("$@")
(( ${#targets[@]} )) || targets=(host arm)

measure() {  # name builddir tool-prefix toolchain-file
  local name=$1 dir=$2 prefix=$3 toolchain=$4
  local args=(-S . -B "$dir" -DCMAKE_BUILD_TYPE=Release
              "-DCMAKE_C_FLAGS_RELEASE=-O2 -DNDEBUG" "-DCMAKE_CXX_FLAGS_RELEASE=-O2 -DNDEBUG"
              -DCORVANE_BUILD_TESTS=OFF -DCORVANE_BUILD_EXAMPLES=OFF -DCORVANE_BUILD_TOOLS=OFF
              -DCORVANE_BUILD_BENCH=OFF -DCORVANE_BUILD_FUZZ=OFF -DCORVANE_SANITIZE=)
  [[ -n $toolchain ]] && args+=("-DCMAKE_TOOLCHAIN_FILE=$toolchain")
  cmake "${args[@]}" >/dev/null
  cmake --build "$dir" -j2 --target Corvane >/dev/null
  local lib=$dir/libCorvane.so.1.0.0 stripped
  stripped=$(mktemp)
  "${prefix}strip" --strip-unneeded -o "$stripped" "$lib"
  local bytes
  bytes=$(stat -c %s "$stripped")
  printf -- '-- %s libCorvane.so.1.0.0: %d bytes stripped (%.1f KiB); %d unstripped\n' \
    "$name" "$bytes" "$(bc -l <<<"$bytes / 1024")" "$(stat -c %s "$lib")"
  "${prefix}size" -B "$stripped" | sed "s|$stripped|(stripped)|; s/^/   /"
  echo "   largest sections (bytes):"
  "${prefix}size" -A "$stripped" | awk 'NR > 2 && $2 > 0 && $1 != "Total" {print}' |
    sort -k2 -n -r | head -10 | awk '{printf "     %-20s %8d\n", $1, $2}'
  if [[ $name == x86_64 ]]; then
    if (( bytes <= limit_kib * 1024 )); then
      echo "   target <= ${limit_kib} KiB: met"
    else
      echo "   target <= ${limit_kib} KiB: MISSED"
    fi
  fi
  rm -f "$stripped"
}

for t in "${targets[@]}"; do
  case $t in
    host) measure "$(uname -m)" build/footprint-host "" "" ;;
    arm)  measure arm-linux-gnueabihf build/footprint-arm arm-linux-gnueabihf- \
            "$PWD/cmake/toolchains/arm-linux-gnueabihf.cmake" ;;
    *) echo "footprint: unknown target $t (host or arm)" >&2; exit 2 ;;
  esac
done
