#!/usr/bin/env bash
# corvane, the command line: its tests in the default tree (call, emit and
# monitor against a private dbus-daemon and the two daemons of examples/ --
# dbus-daemon must be installed here -- and the dumps of the real xxd and
# hexdump), then what `cmake --install` puts in a prefix:
# the executable finding libCorvane through its RUNPATH, the man page and the
# bash completion.
set -euo pipefail
cd "$(dirname "$0")/../.."

cmake --preset default >/dev/null
cmake --build build/default -j2 --target corvane corvane_docs corvane_cli_tests corvane_bus_verbs_tests
CORVANE_REQUIRE_DBUS=1 ctest --test-dir build/default -R '^cli_' --output-on-failure

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
cmake --install build/default --prefix "$prefix" >/dev/null
fail() { echo "52-cli: $*" >&2; exit 1; }
for f in bin/corvane share/man/man1/corvane.1 share/bash-completion/completions/corvane; do
  [ -e "$prefix/$f" ] || fail "cmake --install did not install $f"
done
readelf -d "$prefix/bin/corvane" | grep -q 'RUNPATH.*\[\$ORIGIN/\.\./lib' || fail "RUNPATH of bin/corvane"
version=$(env -u LD_LIBRARY_PATH "$prefix/bin/corvane" --version) || fail "installed corvane --version"
[[ $version =~ ^corvane\ [0-9]+\.[0-9]+\.[0-9]+$ ]] || fail "--version printed '$version'"
grep -q '^\.TH CORVANE 1 ' "$prefix/share/man/man1/corvane.1" || fail "corvane.1 has no .TH line"
bash tests/tools/completion.sh "$prefix/share/bash-completion/completions/corvane"
echo "-- corvane: tests, install, man page and completion: ok ($version)"
