#!/usr/bin/env bash
# The generated bash completion completes verbs, options, method and record
# names where each is due.   completion.sh COMPLETION_FILE
set -uo pipefail
source "$1" || { echo "cannot source $1"; exit 1; }
status=0
check() {  # expected completions, then the words typed (the last one being completed)
  local expected=$1; shift
  COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMPREPLY=()
  _corvane
  local got="${COMPREPLY[*]}"
  if [[ $got != "$expected" ]]; then
    echo "corvane ${*:2}<TAB>: got '$got', expected '$expected'"; status=1
  fi
}
check "decode" corvane de
check "list" corvane --json l
check "--method" corvane decode --met
check "SetLineCallState SetLineStats SetLineModif" corvane decode -m SetLine
check "OnMakeCall" corvane --bus unix:path=/x monitor OnMake
check "ProfileFQDNServers" corvane schema ProfileFQ
check "--annotate" corvane --json decode --ann
check "--output" corvane encode --out
check "--version" corvane --vers
check "" corvane --bus un
check "SetLineCallState SetLineStats SetLineModif" corvane call SetLine
check "" corvane emit SetLine
check "OnMakeCall" corvane --json emit OnMake
check "--timeout" corvane call --ti
check "capture call" corvane ca
check "--count" corvane monitor --cou
check "SetLineCallState SetLineStats SetLineModif" corvane capture -o x.pcapng SetLine
[[ $status == 0 ]] && echo "completion: ok"
exit $status
