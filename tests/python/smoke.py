"""The package under the python3 that runs this, without pytest: every
message encoded and decoded through the library, a quoted number refused,
and mock peers on a private bus answering `corvane call` (found on the
PATH the bus sets) and passing a notification."""

import subprocess
import sys

import corvane
from corvane.testing import CorvaneBus


def main():
    for m in corvane.messages():
        assert corvane.decode(corvane.encode(m.name, {}), m.name)[0] == m.name, m.name
    try:
        corvane.encode("SetLineCallState", {"value1": "1"})
        raise SystemExit("a quoted number was taken")
    except ValueError as e:
        assert "field 'value1' expects a number" in str(e), e
    payload = {"value1": 2, "value2": 3, "text1": "sip:12@x", "text2": "", "text3": ""}
    assert corvane.decode(corvane.encode("OnMakeCall", payload)) == ("OnMakeCall", payload)
    with CorvaneBus() as bus:
        mgmt = bus.mgmt()
        mgmt.answer("SetLineCallState", 5)
        done = subprocess.run(["corvane", "call", "SetLineCallState", '{"value1": 9}'],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              universal_newlines=True, timeout=20)
        assert done.returncode == 1 and "status 5" in done.stderr, done.stderr
        assert mgmt.calls()[0]["value1"] == 9
        voice = bus.voice()
        assert mgmt.emit("OnMakeCall", payload) == 0
        assert voice.wait_for("OnMakeCall") == payload
    print("%s (Python %d.%d.%d): %d messages through the library, mocks on a private bus: ok"
          % ((sys.executable,) + tuple(sys.version_info[:3]) + (len(corvane.messages()),)))


if __name__ == "__main__":
    main()
