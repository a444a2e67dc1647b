"""The mock peers of corvane.testing on a private bus: answers given to a
blocking caller, records in order, notifications between two mocks, bounded
waits that say what arrived, and payloads refused in the test process."""

import time

import pytest

import corvane
from corvane.testing import CorvaneBus, WaitTimeout
from conftest import cli


def call(*args):
    return cli("call", *args)


def test_a_blocking_caller_is_answered_and_recorded(corvane_bus):
    mgmt = corvane_bus.mgmt()
    mgmt.answer("SetLineCallState", 5)
    # corvane finds the bus through $CORVANE_BUS, which the fixture set.
    rc, out, err = call("SetLineCallState", '{"value1": 9}')
    assert rc == 1 and "status 5" in err
    got = mgmt.calls("SetLineCallState")
    assert got == [{"value1": 9, "value2": 0, "value3": 0}]
    assert got[0].status == 5 and got[0].sender.startswith("corvane-") and got[0].sender_pid > 0
    # An answer computed from the record, in the test process.
    seen = []
    mgmt.answer("setlinecallstate", lambda rec: seen.append(dict(rec)) or rec["value2"] + 1)
    rc, _, err = call("SetLineCallState", '{"value2": 41}')
    assert rc == 1 and "status 42" in err
    assert seen == [{"value1": 0, "value2": 41, "value3": 0}]
    rc, _, _ = call("SetLineStats")
    assert rc == 0  # not told: 0
    assert [r.method for r in mgmt.calls()] == ["SetLineCallState", "SetLineCallState", "SetLineStats"]
    assert mgmt.wait_for("SetLineCallState", where={"value2": 41}).status == 42


def test_a_mock_voice_service_calls_and_hears_a_mock_management_side(corvane_bus):
    mgmt = corvane_bus.mgmt()
    voice = corvane_bus.voice()
    profile_line = corvane.schema("ProfileLine")
    payload = {"value1": 2, "value2": 3, "text1": "sip:12@x"}
    assert mgmt.emit("OnMakeCall", payload) == 0
    got = voice.wait_for("OnMakeCall")
    assert got == dict(payload, text2="", text3="") and got.sender == "mgmt"
    assert got.sender_pid == mgmt.pid
    # An answer that pushes a notification: it is sent once the answer is out.
    mgmt.answer("SetCapabilities",
                lambda rec: mgmt.emit("OnChangeObjectProfileLine", {profile_line.fields[0].name: 7}) or 0)
    assert voice.call("SetCapabilities", {}) == 0
    change = voice.wait_for("OnChangeObjectProfileLine", where={profile_line.fields[0].name: 7})
    assert change.method == "OnChangeObjectProfileLine"
    assert [r.method for r in voice.notifications()] == ["OnMakeCall", "OnChangeObjectProfileLine"]
    mgmt.answer("SetLineStats", 7)
    assert voice.call("setlinestats", {"value1": 1}) == 7
    assert mgmt.calls("SetLineStats")[0]["value1"] == 1
    # Nobody serves "nobody": the middleware's status.
    assert voice.call("SetLineStats", {}, to="nobody") == 0x62
    # The whole entry printed by monitor --json is a payload as well.
    entry = {"type": "call", "method": "SetLineCallState", "payload": {"value1": 3}}
    assert voice.call(entry) == 0
    assert mgmt.calls("SetLineCallState") == [{"value1": 3, "value2": 0, "value3": 0}]


def test_waits_are_bounded_and_say_what_arrived(corvane_bus):
    mgmt = corvane_bus.mgmt()
    call("SetLineCallState", '{"value1": 9}')
    start = time.monotonic()
    with pytest.raises(WaitTimeout) as caught:
        mgmt.wait_for("SetLineCallState", timeout=0.3, where={"value1": 8})
    assert time.monotonic() - start < 2
    said = str(caught.value)
    assert "no SetLineCallState matching {\"value1\":8} within 0.3 s" in said
    assert "received 1: SetLineCallState" in said and '"value1":9' in said
    with pytest.raises(WaitTimeout, match="no SetLineStats within 0.2 s; received 1: SetLineCallState$"):
        mgmt.wait_for("SetLineStats", timeout=0.2)


def test_payloads_and_names_are_refused_in_the_test(corvane_bus):
    mgmt = corvane_bus.mgmt()
    voice = corvane_bus.voice()
    with pytest.raises(ValueError, match="field 'value1' expects a number"):
        voice.call("SetLineCallState", {"value1": "9"})
    with pytest.raises(ValueError, match="did you mean OnMakeCall\\?"):
        mgmt.emit("OnMakeCal", {})
    with pytest.raises(ValueError, match="SetLineCallState is a command, not a notification"):
        mgmt.emit("SetLineCallState", {})
    with pytest.raises(ValueError, match="OnMakeCall is a notification, not a command"):
        mgmt.answer("OnMakeCall", 1)
    with pytest.raises(ValueError, match="must be a status"):
        mgmt.answer("SetLineCallState", -1)
    assert mgmt.calls() == [] and voice.notifications() == []
    with pytest.raises(RuntimeError, match="name is taken"):
        corvane_bus.mgmt()


def test_an_answer_function_that_fails_answers_1_and_fails_the_test():
    bus = CorvaneBus()
    try:
        mgmt = bus.mgmt()
        mgmt.answer("SetLineCallState", lambda rec: rec["nothing"])
        rc, _, err = call("SetLineCallState")
        assert rc == 1 and "status 1" in err
        with pytest.raises(KeyError):
            mgmt.calls()
    finally:
        address = bus.address
        bus.close()
    # The bus is gone, and with it $CORVANE_BUS.
    rc, _, err = call("--bus", address, "SetLineCallState")
    assert rc == 1 and "cannot join the bus" in err
    bus = CorvaneBus()
    bus.mgmt().answer("SetLineCallState", lambda rec: 1 / 0)
    call("SetLineCallState")
    with pytest.raises(ZeroDivisionError):
        bus.close()
