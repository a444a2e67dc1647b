"""corvane serve, the shell's counterpart of the mock management side, and
the whole entry it prints, which call (and emit: the same code) take back."""

import json
import select
import shutil
import subprocess
import time

import pytest

import corvane
from conftest import EXE, cli


class Running:
    """A corvane verb in the background, its stderr read line by line."""

    def __init__(self, *args):
        self.proc = subprocess.Popen([EXE] + list(args), stdout=subprocess.PIPE,
                                     stderr=subprocess.PIPE, text=True)

    def err_line(self, timeout=5):
        return self.proc.stderr.readline() if select.select([self.proc.stderr], [], [], timeout)[0] else None

    def out_line(self, timeout=5):
        return self.proc.stdout.readline() if select.select([self.proc.stdout], [], [], timeout)[0] else None

    def finish(self, timeout=10):
        out, err = self.proc.communicate(timeout=timeout)
        return self.proc.returncode, out, err

    def stop(self):
        if self.proc.poll() is None:
            self.proc.terminate()
        return self.finish()


def serve(*args):
    s = Running("serve", *args)
    line = s.err_line()
    assert line and "serving" in line, line
    return s


def test_serve_answers_and_prints_what_monitor_prints(corvane_bus):
    monitor = Running("monitor", "--json", "SetLineCallState")
    assert "monitoring" in monitor.err_line()
    server = serve("--answer", "SetLineCallState=3", "--count", "1", "--json")
    rc, _, err = cli("call", "SetLineCallState", '{"value1": 9}')
    assert rc == 1 and "status 3" in err
    rc, out, _ = server.finish()
    assert rc == 0
    lines = out.splitlines()
    assert len(lines) == 1
    served = json.loads(lines[0])
    assert served["payload"] == {"value1": 9, "value2": 0, "value3": 0}
    assert (served["status"], served["status_text"]) == (3, "wrong state")
    seen = json.loads(monitor.out_line())
    monitor.stop()
    # The same entry as the monitor's, less what the middleware does not
    # tell a server (the serial, the caller's connection name), plus the answer.
    # A process id is the monitor's when it could still ask for it: serve has
    # left the bus by the time the monitor may get to the call.
    assert seen["type"] == "call"
    pids = {"sender_pid", "destination_pid"}
    assert set(served) - {"status", "status_text"} - pids == set(seen) - {"serial", "sender_bus_name"} - pids
    assert pids <= set(served)
    for key in set(served) - {"status", "status_text"}:
        if key in seen:
            assert served[key] == seen[key], key
    # Given back whole to call, the entry sends the same payload.
    mgmt = corvane_bus.mgmt()
    rc, _, err = cli("call", "@-", input=lines[0])
    assert rc == 0, err
    assert mgmt.calls() == [served["payload"]]


def test_answers_from_the_command_line_and_a_file(corvane_bus, tmp_path):
    answers = tmp_path / "answers.json"
    answers.write_text('{"SetLineStats": 4, "*": 97}')
    server = serve("--answer", "@%s" % answers, "--answer", "setlinemodif=0x10", "--count", "3")
    voice = corvane_bus.voice()
    assert voice.call("SetLineStats", {"value1": 5}) == 4
    assert voice.call("SetLineModif", {}) == 16
    assert voice.call("SetLineCallState", {}) == 97
    rc, out, _ = server.finish()
    assert rc == 0
    size = len(corvane.encode("SetLineStats", {"value1": 5}))
    me = "mgmt[%d]" % server.proc.pid
    caller = "voice[%d]" % voice.pid
    assert out.startswith("call SetLineStats %s -> %s, %d bytes\n  value1 = 5\n  value2 = 0\n"
                          "  stats: lineStatsS\n" % (caller, me, size))
    assert "return SetLineStats %s -> %s: status 4 (malformed payload)\n" % (me, caller) in out
    assert "return SetLineModif %s -> %s: status 16 (unknown status)\n" % (me, caller) in out


def test_serve_stops_in_time_and_refuses_what_it_cannot_do(corvane_bus):
    start = time.monotonic()
    rc, _, err = cli("serve", "--count", "2", "--timeout", "300")
    assert rc == 1 and err.endswith("corvane: served 0 of 2 commands in 300 ms\n")
    rc, _, _ = cli("serve", "--timeout", "200")
    assert rc == 0
    assert time.monotonic() - start < 5
    corvane_bus.mgmt()
    rc, _, err = cli("serve")
    assert rc == 1 and "cannot serve as mgmt on unix:" in err and "taken" in err
    for given, said in [("OnMakeCall=1", "OnMakeCall is a notification: serve answers commands"),
                        ("SetLineCalState=1", "unknown command 'SetLineCalState' (did you mean "
                                              "SetLineCallState?)"),
                        ("SetLineCallState=-1", "the status must be 0 to 4294967295"),
                        ("SetLineCallState", "give METHOD=STATUS or @FILE")]:
        rc, _, err = cli("serve", "--answer", given)
        assert rc == 2 and said in err, err
    # Another name, called by name.
    server = serve("--name", "mgmt-2", "--count", "1")
    assert cli("call", "--to", "mgmt-2", "SetLineStats")[0] == 0
    assert server.finish()[0] == 0


@pytest.mark.skipif(not shutil.which("dbus-send"), reason="dbus-send is not installed")
def test_serve_shows_the_library_s_refusal_of_a_malformed_body(corvane_bus):
    server = serve("--count", "1")
    body = corvane.encode("SetLineCallState", {"value1": 1})[:40]
    send = subprocess.run(
        ["dbus-send", "--bus=" + corvane_bus.address, "--print-reply",
         "--dest=org.corvane.user.mgmt", "/org/corvane/CorVaneCmd",
         "org.corvane.CorVaneCmd.SetLineCallState",
         "array:byte:" + ",".join(str(b) for b in body)], capture_output=True, text=True, timeout=10)
    assert "uint32 4" in send.stdout
    assert cli("call", "SetLineCallState")[0] == 0
    rc, out, err = server.finish()
    assert rc == 0 and out.count("\ncall ") == 0 and out.startswith("call SetLineCallState")
    assert "corvane: [CORVANE] -> corVane_lineCallState_unserialize" in err
    assert "SetLineCallState from" in err and "refused: status 4" in err
