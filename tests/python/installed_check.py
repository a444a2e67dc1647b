"""Run by tools/ci/52-cli.sh as test_installed.py against a `cmake --install`
prefix, with PYTHONPATH at the installed package, no LD_LIBRARY_PATH and no
-p: the plugin must come from the installed entry point, the libraries from
the package's place, and corvane from the prefix's bin directory."""

import os
import subprocess

import corvane


def test_installed(corvane_bus):
    assert corvane.__file__.startswith(os.environ["PYDIR"] + "/corvane/")
    mgmt = corvane_bus.mgmt()
    mgmt.answer("SetLineCallState", 5)
    done = subprocess.run(["corvane", "call", "SetLineCallState", '{"value1": 9}'],
                          capture_output=True, text=True, timeout=20)
    assert done.returncode == 1 and "status 5" in done.stderr, done.stderr
    assert mgmt.calls()[0]["value1"] == 9
