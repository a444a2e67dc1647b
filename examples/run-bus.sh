#!/usr/bin/env bash
# The example on a private bus: starts a dbus-daemon of its own (no system
# bus, no root, no systemd), corvane-mgmt-sim on it, then
# corvane-voice-sim --once, and stops what it started. Shows the voice
# service's line for each of the 49 messages (its 19 commands with their
# answers, the 30 notifications it received), then what the management side
# saw. Exit status: that of corvane-voice-sim --once (0: all 49 messages went
# through), 1 otherwise.
#
# Usage: examples/run-bus.sh DIR    (DIR holds corvane-mgmt-sim and corvane-voice-sim)
set -uo pipefail
bin=${1:?usage: run-bus.sh DIR}
command -v dbus-daemon >/dev/null || { echo "run-bus: dbus-daemon not found (Debian package dbus-daemon)" >&2; exit 1; }

work=$(mktemp -d)
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill -TERM "$p" 2>/dev/null; done
  for p in "${pids[@]}"; do wait "$p" 2>/dev/null; done
  rm -rf "$work"
}
trap cleanup EXIT

dbus-daemon --session --address="unix:path=$work/bus" --nofork --print-address=3 \
  3>"$work/address" 2>"$work/dbus-daemon.log" &
pids+=($!)
for _ in $(seq 50); do [ -s "$work/address" ] && break; sleep 0.1; done
[ -s "$work/address" ] || { echo "run-bus: dbus-daemon did not start:" >&2; cat "$work/dbus-daemon.log" >&2; exit 1; }
export CORVANE_BUS=$(head -n1 "$work/address")
echo "== private bus at $CORVANE_BUS (dbus-daemon pid ${pids[0]})"

"$bin/corvane-mgmt-sim" >"$work/mgmt.out" &
mgmt=$!
pids=("$mgmt" "${pids[@]}")   # stopped before the bus
"$bin/corvane-voice-sim" --once
status=$?

kill -TERM "$mgmt"
wait "$mgmt"
mgmt_status=$?
pids=("${pids[@]:1}")
served=$(grep -c ' <- .*: command, ' "$work/mgmt.out")
pushed=$(grep -c ' -> .*: notification, .*, sent$' "$work/mgmt.out")
samples=$(grep -c ': command, .*, sample payload$' "$work/mgmt.out")
echo "== $(head -n1 "$work/mgmt.out")"
echo "== corvane-mgmt-sim served $served commands ($samples with the payload as sent)," \
     "pushed $pushed notifications, exit status $mgmt_status"
if [ "$status" -eq 0 ] && [ "$served" -eq 19 ] && [ "$samples" -eq 19 ] && [ "$pushed" -eq 30 ] \
   && [ "$mgmt_status" -eq 0 ]; then
  echo "== all 49 messages went through the bus"
  exit 0
fi
echo "== the exchange is incomplete (corvane-voice-sim exit status $status)" >&2
exit 1
