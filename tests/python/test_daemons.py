"""The project's own daemons against the mocks: corvane-voice-sim --once
against a mock management side, corvane-mgmt-sim against a mock voice
service, every message with the daemons' sample payloads."""

import subprocess
import time

import pytest

import corvane
from conftest import MGMT_SIM, VOICE_SIM, sample

pytestmark = pytest.mark.usefixtures("daemons_built")

COMMANDS = [m.name for m in corvane.messages() if m.interface == "command"]
NOTIFICATIONS = [m.name for m in corvane.messages() if m.interface == "notification"]


def push_configuration(mgmt):
    """What the management daemon does on the voice service's hello."""
    def on_hello(rec):
        for name in NOTIFICATIONS:
            mgmt.emit(name, sample(name))
        return 0
    return on_hello


def test_the_voice_daemon_against_a_mock_management_side(corvane_bus):
    mgmt = corvane_bus.mgmt()
    mgmt.answer("SetCapabilities", push_configuration(mgmt))
    done = subprocess.run([VOICE_SIM, "--once"], capture_output=True, text=True, timeout=30)
    assert done.returncode == 0, done.stderr
    calls = mgmt.calls()
    assert [c.method for c in calls] == COMMANDS
    for c in calls:
        assert c == sample(c.method), c.method
        assert c.sender == "voice" and c.status == 0
    assert "30 notifications" in done.stdout

    # One command answered with a status other than 0: the daemon says which.
    mgmt.answer("SetLineModif", 0x17)
    done = subprocess.run([VOICE_SIM, "--once"], capture_output=True, text=True, timeout=30)
    assert done.returncode == 1
    assert "a command failed; missing 1 answers" in done.stderr
    assert " SetLineModif(0x17 " in done.stderr
    assert [c.method for c in mgmt.calls()] == COMMANDS * 2
    assert mgmt.calls("SetLineModif")[1].status == 0x17


def test_the_management_daemon_against_a_mock_voice_service(corvane_bus):
    daemon = subprocess.Popen([MGMT_SIM], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        voice = corvane_bus.voice()
        # The daemon serves once its name is on the bus.
        deadline = 50
        while voice.call("SetCapabilities", sample("SetCapabilities")) != 0:
            deadline -= 1
            assert deadline, "corvane-mgmt-sim did not serve within 5 s"
            time.sleep(0.1)
        for name in NOTIFICATIONS:
            got = voice.wait_for(name, timeout=5)
            assert got == sample(name), name
            assert got.sender == "mgmt" and got.sender_pid == daemon.pid
        # Each once: the 14 with a need for updates pushed when the mock
        # appeared, the 16 others on its hello.
        assert sorted(n.method for n in voice.notifications()) == sorted(NOTIFICATIONS)
        # Its answers, to the sample payload and to another one.
        assert voice.call("SetLineStats", sample("SetLineStats")) == 0
        assert voice.call("SetLineStats", {"value1": 1}) == 0
    finally:
        daemon.terminate()
        out, _ = daemon.communicate(timeout=10)
    sent = len(corvane.encode("SetLineStats", sample("SetLineStats")))
    other = len(corvane.encode("SetLineStats", {"value1": 1}))
    assert "SetLineStats: command, %d bytes, sample payload" % sent in out
    assert "SetLineStats: command, %d bytes, payload differs from the sample" % other in out
