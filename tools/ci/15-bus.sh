#!/usr/bin/env bash
# Two processes on a real bus: the bus tests (tests/bus, each on a private
# dbus-daemon of its own: all 49 messages between the two daemons, hostile
# bodies sent to each, a server killed during a call, a name nobody owns, the
# bus going away, forged notifications, a stranger queued for a name,
# introspection, with busctl's view of it, what a policy refuses, a frozen
# subscriber on a bus with small limits, either daemon restarted under the
# other, the broker restarted under both, bursts past the bounds), the
# bus policy (tests/policy: strangers, the daemons' users, engineers and
# root on private system-type buses, clients under other uids -- required
# here, so not skipped, as CI runs as root -- and what cmake --install puts
# on a host for the daemons as services), a short run of the bus benchmark,
# and the README's first command
# (tools/example.sh), which builds without the test framework.
set -euo pipefail
cd "$(dirname "$0")/../.."

export CORVANE_REQUIRE_POLICY_TESTS=1
cmake --workflow --preset bus
# The installed layout needs the whole tree built.
cmake --build build/default -j2
ctest --test-dir build/default -L policy -LE bus --output-on-failure
cmake --build build/default -j2 --target corvane_bench_bus
build/default/bench/corvane_bench_bus --calls 200 --rounds 3 --phase-ms 300
bash tools/example.sh
