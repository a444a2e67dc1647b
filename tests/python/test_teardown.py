"""The fixture cleans up after a test that fails and after one that is
interrupted, while a command waits for its answer: no dbus-daemon, no mock
process and no socket is left behind, and $CORVANE_BUS is restored."""

import json
import os
import subprocess
import sys
import time

INNER = '''
import json, os, signal, subprocess

def test_inner(corvane_bus):
    mgmt = corvane_bus.mgmt()
    voice = corvane_bus.voice()
    # A child of the test that is still waiting for its answer at the end.
    mgmt.answer("SetLineCallState", lambda rec: __import__("time").sleep(30) or 0)
    caller = subprocess.Popen([os.environ["CORVANE_EXE"], "call", "SetLineCallState"])
    with open(os.environ["TRACE"], "w") as f:
        json.dump({"pids": [corvane_bus.pid, mgmt.pid, voice.pid],
                   "address": corvane_bus.address, "bus": os.environ["CORVANE_BUS"]}, f)
    mgmt.wait_for("SetLineCallState")
    HOW

def test_after():
    with open(os.environ["TRACE"] + ".after", "w") as f:
        json.dump({"bus": os.environ.get("CORVANE_BUS")}, f)
'''


def gone(pid):
    try:
        with open("/proc/%d/stat" % pid) as f:
            return f.read().split(") ")[1].split()[0] == "Z"  # a zombie is gone too
    except (FileNotFoundError, ProcessLookupError):
        return True


def run_inner(tmp_path, how):
    test = tmp_path / "test_inner.py"
    test.write_text(INNER.replace("HOW", how))
    trace = tmp_path / "trace.json"
    env = dict(os.environ, TRACE=str(trace))
    env.pop("CORVANE_BUS", None)
    done = subprocess.run([sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider",
                           "-p", "corvane.testing", "--rootdir", str(tmp_path), str(test)],
                          capture_output=True, text=True, timeout=60, env=env, cwd=tmp_path)
    seen = json.loads(trace.read_text())
    after = tmp_path / "trace.json.after"
    seen["after"] = json.loads(after.read_text()) if after.exists() else None
    return done, seen


def check_cleaned(seen):
    deadline = time.monotonic() + 10
    while not all(gone(p) for p in seen["pids"]) and time.monotonic() < deadline:
        time.sleep(0.05)
    assert all(gone(p) for p in seen["pids"]), seen
    socket = seen["address"].split("unix:path=")[1].split(",")[0]
    assert not os.path.exists(os.path.dirname(socket))


def test_a_failing_test_leaves_nothing_behind(tmp_path):
    done, seen = run_inner(tmp_path, "assert False, 'the test failed'")
    assert done.returncode == 1 and "the test failed" in done.stdout
    assert seen["bus"] == seen["address"]
    check_cleaned(seen)
    # The next test runs without the bus in its environment.
    assert seen["after"] == {"bus": None}


def test_an_interrupted_test_leaves_nothing_behind(tmp_path):
    done, seen = run_inner(tmp_path, "os.kill(os.getpid(), signal.SIGINT)")
    assert done.returncode == 2 and "KeyboardInterrupt" in done.stdout
    check_cleaned(seen)
    assert seen["after"] is None
