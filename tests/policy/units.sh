#!/usr/bin/env bash
# What `cmake --install` puts on a host or a gateway rootfs for the daemons
# as services: the bus policy, the two systemd units, the sysusers.d file
# and the daemons. Checks that each unit runs its daemon as the user the
# policy lets own the unit's BusName, that the units and the sysusers.d file
# are what systemd reads (when systemd-analyze and systemd-sysusers are
# here), and runs the two ExecStart lines as they stand on a private bus
# standing in for the system bus: the voice service exchanges all 49
# messages and keeps running until stopped, and both stop with 0.
#
# Usage: units.sh BUILD_DIR
set -uo pipefail
build=${1:?usage: units.sh BUILD_DIR}
work=$(mktemp -d)
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill -TERM "$p" 2>/dev/null; done
  for p in "${pids[@]}"; do wait "$p" 2>/dev/null; done
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "units: $*" >&2; exit 1; }

# A gateway rootfs: DESTDIR, prefix /usr.
DESTDIR=$work/root cmake --install "$build" --prefix /usr >"$work/install.log" || fail "install into a rootfs failed"
root=$work/root
policy=$root/usr/share/dbus-1/system.d/org.corvane.conf
sysusers=$root/usr/lib/sysusers.d/corvane.conf
for f in "$policy" "$sysusers" "$root"/usr/bin/corvane-{mgmt,voice}-sim \
         "$root"/usr/lib/systemd/system/corvane-{mgmt,voice}-sim.service; do
  [ -e "$f" ] || fail "cmake --install did not install ${f#"$root"}"
done

# key=value of a unit
field() { sed -n "s/^$2=//p" "$1"; }
# Whether the policy's <policy user="$1"> block allows owning $2.
owns() {
  awk -v u="<policy user=\"$1\">" -v own="<allow own=\"$2\"/>" '
    index($0, u) { inside = 1 } inside && index($0, own) { found = 1 } /<\/policy>/ { inside = 0 }
    END { exit !found }' "$policy"
}
for daemon in mgmt voice; do
  unit=$root/usr/lib/systemd/system/corvane-$daemon-sim.service
  user=$(field "$unit" User) bus=$(field "$unit" BusName) exec=$(field "$unit" ExecStart)
  [ "$(field "$unit" Type)" = dbus ] || fail "$daemon: Type is not dbus"
  [ -n "$user" ] && [ -n "$bus" ] || fail "$daemon: no User= or BusName="
  owns "$user" "$bus" || fail "$daemon: the policy does not let $user own $bus"
  [[ $exec == "/usr/bin/corvane-$daemon-sim --bus system "* ]] || fail "$daemon: ExecStart=$exec"
  grep -q "^u *$user " "$sysusers" || fail "$daemon: the sysusers.d file does not create $user"
done
group=$(sed -n 's/.*<policy group="\([^"]*\)">.*/\1/p' "$policy")
grep -q "^g *$group " "$sysusers" || fail "the sysusers.d file does not create the group $group"

if [ "$(id -u)" = 0 ] && command -v systemd-sysusers >/dev/null; then
  mkdir -p "$root/etc" && touch "$root/etc/passwd" "$root/etc/group"
  systemd-sysusers --root="$root" >"$work/sysusers.log" 2>&1 || fail "systemd-sysusers: $(cat "$work/sysusers.log")"
  for daemon in mgmt voice; do
    user=$(field "$root/usr/lib/systemd/system/corvane-$daemon-sim.service" User)
    grep -q "^$user:" "$root/etc/passwd" || fail "systemd-sysusers did not create $user"
  done
  grep -q "^$group:" "$root/etc/group" || fail "systemd-sysusers did not create the group $group"
else
  echo "units: systemd-sysusers not run (needs root and systemd)"
fi

# A host: the install prefix as given, the units naming the daemons there.
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >"$work/install2.log" || fail "install into a prefix failed"
units=("$prefix"/lib/systemd/system/corvane-{mgmt,voice}-sim.service)
if command -v systemd-analyze >/dev/null &&
   { [ -e /lib/systemd/system/dbus.socket ] || [ -e /usr/lib/systemd/system/dbus.socket ]; }; then
  # It exits 0 on an unknown key; any line it prints is a fault.
  systemd-analyze verify "${units[@]}" >"$work/verify.log" 2>&1 && [ ! -s "$work/verify.log" ] ||
    fail "systemd-analyze verify: $(cat "$work/verify.log")"
else
  echo "units: systemd-analyze or dbus.socket (Debian: systemd, dbus-system-bus-common) not found; the units are not verified"
fi

# The ExecStart lines as they stand, on a private bus given as the system bus.
dbus-daemon --session --address="unix:path=$work/bus" --nofork --print-address=3 \
  3>"$work/address" 2>"$work/dbus-daemon.log" &
pids+=($!)
for _ in $(seq 50); do [ -s "$work/address" ] && break; sleep 0.1; done
[ -s "$work/address" ] || fail "dbus-daemon did not start: $(cat "$work/dbus-daemon.log")"
export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$work/bus"
unset CORVANE_BUS
read -ra mgmt_cmd <<<"$(field "${units[0]}" ExecStart)"
read -ra voice_cmd <<<"$(field "${units[1]}" ExecStart)"
env -u LD_LIBRARY_PATH "${mgmt_cmd[@]}" >"$work/mgmt.out" 2>"$work/mgmt.err" &
mgmt=$!
pids=("$mgmt" "${pids[@]}")
# The voice service starts once the management side serves (as its unit is
# ordered after it): a voice service whose first command reaches the
# management side while that one is still joining the bus can miss the
# notifications pushed in answer to it (those with a need for updates are
# sent again, the others are not).
for _ in $(seq 50); do grep -q ': serving ' "$work/mgmt.out" && break; sleep 0.1; done
grep -q ': serving ' "$work/mgmt.out" || fail "corvane-mgmt-sim does not serve: $(cat "$work/mgmt.err")"
env -u LD_LIBRARY_PATH "${voice_cmd[@]}" >"$work/voice.out" 2>"$work/voice.err" &
voice=$!
pids=("$voice" "${pids[@]}")
done=0
for _ in $(seq 100); do
  if [ "$(grep -c 'answer 0x0 (done)' "$work/voice.out")" = 19 ] &&
     [ "$(grep -c ': notification, .*sample payload$' "$work/voice.out")" = 30 ]; then done=1; break; fi
  sleep 0.1
done
[ $done = 1 ] || fail "the services did not exchange the 49 messages:
$(cat "$work/voice.out" "$work/voice.err" "$work/mgmt.out" "$work/mgmt.err")"
sleep 0.3
kill -0 "$voice" 2>/dev/null || fail "corvane-voice-sim stopped after the exchange: $(cat "$work/voice.err")"
kill -TERM "$voice" "$mgmt"
wait "$voice"; voice_status=$?
wait "$mgmt"; mgmt_status=$?
pids=("${pids[@]:2}")
[ $voice_status = 0 ] && [ $mgmt_status = 0 ] || fail "exit status on SIGTERM: voice $voice_status, mgmt $mgmt_status"
grep -q ': stopped$' "$work/voice.out" || fail "corvane-voice-sim did not say it stopped"
echo "units: installed, consistent with the policy, and the two services exchange all 49 messages"
