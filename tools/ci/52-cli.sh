#!/usr/bin/env bash
# corvane, the command line: its tests in the default tree (call, emit,
# monitor, capture and serve against a private dbus-daemon and the two daemons
# of examples/, captures by busctl and dbus-monitor read back by tshark with
# the generated dissector -- dbus-daemon, busctl and tshark must be installed
# here -- and the dumps of the real xxd and hexdump), then what
# `cmake --install` puts in a prefix: the executable finding libCorvane
# through its RUNPATH, the man page, the bash completion, the dissector,
# which the installed tshark loads, and the Python package finding the
# libraries beside itself, with pytest loading its plugin through the
# installed entry point.
set -euo pipefail
cd "$(dirname "$0")/../.."

cmake --preset default >/dev/null
cmake --build build/default -j2 --target corvane corvane_docs corvane_dissector corvane_cli_tests \
  corvane_bus_verbs_tests corvane_capture_tests corvane_python
CORVANE_REQUIRE_DBUS=1 ctest --test-dir build/default -R '^cli_' --output-on-failure

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
cmake --install build/default --prefix "$prefix" >/dev/null
fail() { echo "52-cli: $*" >&2; exit 1; }
for f in bin/corvane share/man/man1/corvane.1 share/bash-completion/completions/corvane \
         share/corvane/wireshark/corvane.lua; do
  [ -e "$prefix/$f" ] || fail "cmake --install did not install $f"
done
readelf -d "$prefix/bin/corvane" | grep -q 'RUNPATH.*\[\$ORIGIN/\.\./lib' || fail "RUNPATH of bin/corvane"
version=$(env -u LD_LIBRARY_PATH "$prefix/bin/corvane" --version) || fail "installed corvane --version"
[[ $version =~ ^corvane\ [0-9]+\.[0-9]+\.[0-9]+$ ]] || fail "--version printed '$version'"
grep -q '^\.TH CORVANE 1 ' "$prefix/share/man/man1/corvane.1" || fail "corvane.1 has no .TH line"
bash tests/tools/completion.sh "$prefix/share/bash-completion/completions/corvane"

pydir=$prefix/lib/python3/dist-packages
ls "$pydir"/corvane-*.dist-info/entry_points.txt >/dev/null || fail "no dist-info for the Python package"
cp tests/python/installed_check.py "$work/test_installed.py"
(cd "$work" && env -u LD_LIBRARY_PATH PYDIR="$pydir" PYTHONPATH="$pydir" PYTHONDONTWRITEBYTECODE=1 \
   /usr/bin/python3 -m pytest -q -p no:cacheprovider test_installed.py) || fail "the installed Python package"

# A pcapng of a section header alone: the filter compiles only with the
# dissector's fields.
printf '\x0a\x0d\x0d\x0a\x1c\0\0\0\x4d\x3c\x2b\x1a\x01\0\0\0\xff\xff\xff\xff\xff\xff\xff\xff\x1c\0\0\0' > "$work/empty.pcapng"
tshark -X lua_script:"$prefix/share/corvane/wireshark/corvane.lua" -r "$work/empty.pcapng" \
  -Y 'corvane.method == "SetLineCallState" || corvane.value1 == 1' 2>/dev/null ||
  fail "tshark does not load the installed corvane.lua"
echo "-- corvane: tests, install, man page, completion, dissector and Python package: ok ($version)"
