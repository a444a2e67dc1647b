"""What the Python tests share: the corvane program of the build (CORVANE_EXE),
the daemons of examples/ (MGMT_SIM, VOICE_SIM), the committed test inputs
(CORVANE_DATA) and the daemons' sample payloads."""

import json
import os
import subprocess

import pytest

import corvane

EXE = os.environ.get("CORVANE_EXE", "corvane")
DATA = os.environ.get("CORVANE_DATA", "")
MGMT_SIM = os.environ.get("MGMT_SIM", "")
VOICE_SIM = os.environ.get("VOICE_SIM", "")


def cli(*args, input=None, timeout=20, env=None):
    """Runs corvane; (exit status, stdout, stderr), stdout as bytes when
    input is bytes."""
    text = not isinstance(input, bytes)
    r = subprocess.run([EXE] + [str(a) for a in args], input=input, capture_output=True,
                       timeout=timeout, text=text, env=env)
    return r.returncode, r.stdout, r.stderr


def cli_json(*args, **kw):
    rc, out, err = cli("--json", *args, **kw)
    return rc, [json.loads(line) for line in out.splitlines() if line.strip()], err


def sample(name):
    """The payload the daemons of examples/ send for a message (sim.c): words
    count up from 1000 * (interface * 100 + index + 1) in field order, texts
    hold their field's name, counted arrays hold two entries."""
    m = corvane.message(name)
    counter = [1000 * ((0 if m.interface == "command" else 1) * 100 + m.index + 1)]

    def fill(s):
        out = {}
        for f in s.fields:
            if f.kind == "u32":
                out[f.name] = counter[0]
                counter[0] += 1
            elif f.kind == "text":
                out[f.name] = f.name[:f.capacity - 1]
            elif f.kind == "record":
                out[f.name] = fill(f.record)
            else:
                n = f.capacity
                if f.kind == "array":
                    out[f.count_field] = n = 2
                out[f.name] = [fill(f.record) for _ in range(n)]
        return out

    return fill(m.payload)


@pytest.fixture
def daemons_built():
    if not (MGMT_SIM and VOICE_SIM):
        pytest.skip("the daemons of examples/ are not built")
