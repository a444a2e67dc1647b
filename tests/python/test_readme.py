"""The README's two examples for test engineers, run as a reader would run
them, with corvane-voice-sim as the voice service under test: the pytest
block under "A pytest test against your daemon" and the shell block under
"The same in shell, with `corvane serve`"."""

import os
import subprocess
import sys

import pytest

from conftest import EXE, VOICE_SIM

README = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "README.md")
pytestmark = pytest.mark.usefixtures("daemons_built")


def block(heading, language):
    with open(README) as f:
        text = f.read()
    after = text.split("\n" + heading + "\n", 1)
    assert len(after) == 2, "README has no heading %r" % heading
    start = after[1].index("```" + language + "\n") + len(language) + 4
    return after[1][start:after[1].index("```\n", start)]


def test_the_pytest_example(tmp_path):
    test = tmp_path / "test_voiced.py"
    test.write_text(block("### A pytest test against your daemon", "python"))
    env = dict(os.environ, VOICED=VOICE_SIM)
    env.pop("CORVANE_BUS", None)
    done = subprocess.run([sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider",
                           "-p", "corvane.testing", "--rootdir", str(tmp_path), str(test)],
                          capture_output=True, text=True, timeout=60, env=env, cwd=tmp_path)
    assert done.returncode == 0, done.stdout + done.stderr
    assert "1 passed" in done.stdout


def test_the_shell_example(tmp_path):
    script = block("### The same in shell, with `corvane serve`", "sh")
    env = dict(os.environ, VOICED=VOICE_SIM, TMPDIR=str(tmp_path),
               PATH=os.path.dirname(EXE) + os.pathsep + os.environ["PATH"])
    env.pop("CORVANE_BUS", None)
    done = subprocess.run(["bash", "-c", script], capture_output=True, text=True, timeout=60,
                          env=env, cwd=tmp_path)
    assert "serve: exit 0\nSetLineCallState answered 3\n" in done.stdout, done.stdout + done.stderr
    assert os.listdir(tmp_path) == []  # its directory is gone
    left = subprocess.run(["pgrep", "-f", str(tmp_path)], capture_output=True, text=True)
    assert left.stdout == "", "left running: " + left.stdout
