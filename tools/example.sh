#!/usr/bin/env bash
# The example, as a new user runs it first: installs what it needs (as root;
# otherwise names the Debian packages to install), builds the library, the
# D-Bus middleware and the two daemons (no test framework needed: preset
# `example`), then runs examples/run-bus.sh: a private dbus-daemon, the
# management daemon, the voice daemon with --once, one line per message.
set -euo pipefail
cd "$(dirname "$0")/.."

bash tools/ensure-packages.sh cmake make g++ pkgconf libsystemd-dev dbus-daemon
cmake --workflow --preset example
