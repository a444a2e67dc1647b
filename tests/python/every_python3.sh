#!/usr/bin/env bash
# Runs smoke.py (no pytest) under every python3 on PATH, each interpreter
# once: the first one on PATH is often not Debian's (pyenv, conda), and the
# package must work under it with nothing but the standard library.
#   every_python3.sh SMOKE_PY     (PYTHONPATH and CORVANE_EXE set by ctest)
set -uo pipefail
smoke=$1
declare -A seen
status=0 ran=0
while read -r py; do
  real=$("$py" -c 'import os, sys; print(os.path.realpath(sys.executable))' 2>/dev/null) || continue
  [[ -n ${seen[$real]:-} ]] && continue
  seen[$real]=1
  ran=$((ran + 1))
  echo "-- $py -> $real"
  "$py" "$smoke" || { echo "FAILED under $py" >&2; status=1; }
done < <(type -ap python3)
((ran > 0)) || { echo "no python3 on PATH" >&2; exit 1; }
exit $status
