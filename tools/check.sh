#!/usr/bin/env bash
# Builds and runs every test of the project: each stage script in tools/ci/
# runs in name order (normal tests, sanitizers, big-endian host, fuzzing,
# install and ABI checks). Missing Debian packages named in tools/ci/*.packages
# are installed first when the script runs as root; otherwise it names them.
#
# Each stage ends with one line, "== PASS <stage> (<n> s)" or "== FAIL ...",
# and a table of all stages closes the run, with "stages: N passed, N failed"
# as its last line. The first failing stage stops
# the run, unless --keep-going is given: then every stage runs and the run
# fails at the end if any of them failed.
#
# Usage: tools/check.sh [--keep-going]
set -uo pipefail
cd "$(dirname "$0")/.."

usage() { echo "usage: tools/check.sh [--keep-going]"; }
keep_going=0
for arg in "$@"; do
  case $arg in
    -k | --keep-going) keep_going=1 ;;
    -h | --help) usage; exit 0 ;;
    *) echo "check.sh: unknown argument '$arg'" >&2; usage >&2; exit 2 ;;
  esac
done

mapfile -t packages < <(cat tools/ci/*.packages 2>/dev/null | sed 's/#.*//' | tr -s ' \t' '\n' | sed '/^$/d' | sort -u)
bash tools/ensure-packages.sh "${packages[@]}" || { echo "== FAIL packages" >&2; exit 1; }

stages=(tools/ci/[0-9]*.sh)
declare -A result seconds
start=$SECONDS
failed=0
for stage in "${stages[@]}"; do
  name=$(basename "$stage" .sh)
  echo "== stage $name"
  t0=$SECONDS
  if bash "$stage"; then result[$name]=PASS; else result[$name]=FAIL; failed=1; fi
  seconds[$name]=$((SECONDS - t0))
  echo "== ${result[$name]} $name (${seconds[$name]} s)"
  ((failed && !keep_going)) && break
done

echo
printf '%-16s %-8s %8s\n' stage result seconds
for stage in "${stages[@]}"; do
  name=$(basename "$stage" .sh)
  printf '%-16s %-8s %8s\n' "$name" "${result[$name]:-not run}" "${seconds[$name]:--}"
done
printf '%-16s %-8s %8s\n' total "$( ((failed)) && echo FAIL || echo PASS)" $((SECONDS - start))
passes=0 fails=0
for r in "${result[@]}"; do if [[ $r == PASS ]]; then ((++passes)); else ((++fails)); fi; done
echo "stages: $passes passed, $fails failed"
exit $failed
