#!/usr/bin/env bash
# Two processes on a real bus: the bus tests (tests/bus, each on a private
# dbus-daemon of its own: all 49 messages between the two daemons, hostile
# bodies sent to each, a server killed during a call, a name nobody owns, the
# bus going away, forged notifications, a stranger queued for a name,
# introspection, with busctl's view of it, and what a policy refuses), a
# short run of the bus benchmark, and the README's first command
# (tools/example.sh), which builds without the test framework.
set -euo pipefail
cd "$(dirname "$0")/../.."

cmake --workflow --preset bus
cmake --build build/default -j2 --target corvane_bench_bus
build/default/bench/corvane_bench_bus --calls 200 --rounds 3
bash tools/example.sh
