"""Test your own daemon against a scripted peer on a private bus.

A pytest plugin (`pytest -p corvane.testing`; loaded by itself once the
package is installed, through its pytest11 entry point) with one fixture,
`corvane_bus`: a dbus-daemon of its own for each test, its address in
`corvane_bus.address` and in $CORVANE_BUS for the processes the test starts
(with the directory of the corvane program that goes with this package first
on $PATH), stopped after the test whether it passed, failed or was
interrupted. On it:

    mgmt = corvane_bus.mgmt()            # a management side, user "mgmt"
    mgmt.answer("SetLineCallState", 3)   # or a function of the record
    ...                                  # start the voice service under test
    rec = mgmt.wait_for("SetLineStats", where={"lineIndex": 1})
    mgmt.emit("OnChangeObjectProfileLine", {...})

    voice = corvane_bus.voice()          # a voice service, user "voice"
    status = voice.call("SetLineCallState", {"value1": 9})
    voice.wait_for("OnMakeCall")

Each mock is a user of libcorvane_dbus, the project's own D-Bus middleware,
in a process of its own (python -m corvane._peer, this interpreter): the
middleware is single-threaded and serves nothing while one of its users
waits for an answer, so each side needs its process. The test process keeps
the records and runs the answer functions, on a thread of its own, so a
command sent by a blocking subprocess of the test is answered.

Without pytest, CorvaneBus is a context manager with the same API.
"""

import atexit
import json
import os
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

from . import _codec, _lib

U32_MAX = 0xFFFFFFFF
START_TIMEOUT_S = 10.0
STOP_TIMEOUT_S = 5.0

_live = set()  # processes started and not yet stopped, stopped at exit in any case


def _stop(proc, sig=signal.SIGTERM):
    if proc.poll() is None:
        try:
            proc.send_signal(sig)
            proc.wait(STOP_TIMEOUT_S)
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.wait()
    _live.discard(proc)


@atexit.register
def _stop_all():
    for proc in list(_live):
        _stop(proc)


class _Lines:
    """Lines from a pipe, with a bounded wait."""

    def __init__(self, pipe):
        self.fd = pipe.fileno()
        self.buf = b""

    def next(self, timeout=None):
        deadline = None if timeout is None else time.monotonic() + timeout
        while b"\n" not in self.buf:
            left = None if deadline is None else max(0.0, deadline - time.monotonic())
            if not select.select([self.fd], [], [], left)[0]:
                return None
            chunk = os.read(self.fd, 65536)
            if not chunk:
                return None
            self.buf += chunk
        line, self.buf = self.buf.split(b"\n", 1)
        return line.decode("utf-8", "surrogateescape")


class Record(dict):
    """A payload a mock received, as a dict, with `method`, `sender` (user
    name, or bus name when the sender owns none), `sender_pid` and, for a
    command, `status`: the answer it was given (None while an answer
    function is still deciding it). It compares equal to the payload."""

    def __init__(self, payload, method, sender, sender_pid, status=None):
        super().__init__(payload)
        self.method, self.sender, self.sender_pid, self.status = method, sender, sender_pid, status

    @property
    def payload(self):
        return dict(self)

    # No record has a field named "method" or "payload": rec["method"] and
    # rec["payload"] read as in the entries monitor --json prints.
    def __missing__(self, key):
        if key == "payload":
            return dict(self)
        if key == "method":
            return self.method
        raise KeyError(key)


class WaitTimeout(AssertionError):
    """Nothing matching arrived in time; the message says what did."""


def _matches(where, value):
    if isinstance(where, dict):
        return isinstance(value, dict) and all(
            k in value and _matches(v, value[k]) for k, v in where.items())
    if isinstance(where, list):
        return isinstance(value, list) and len(where) == len(value) and all(
            _matches(w, v) for w, v in zip(where, value))
    return where == value


def _short(payload, limit=160):
    text = json.dumps(payload, separators=(",", ":"))
    return text if len(text) <= limit else text[:limit - 3] + "..."


class _Mock:
    role = kind = None

    def __init__(self, bus, name):
        self.bus, self.name = bus, name
        self._cond = threading.Condition()
        self._write_lock = threading.Lock()
        self._records = []
        self._replies = {}
        self._errors = []
        self._answers = {}
        self._next_id = 0
        self._gone = None
        env = dict(os.environ)
        package_parent = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
        env["PYTHONPATH"] = os.pathsep.join(
            p for p in (package_parent, env.get("PYTHONPATH")) if p)
        self._proc = subprocess.Popen(
            [sys.executable, "-m", "corvane._peer", self.role, name, bus.address],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=env)
        _live.add(self._proc)
        self._lines = _Lines(self._proc.stdout)
        line = self._lines.next(START_TIMEOUT_S)
        first = json.loads(line) if line else {}
        if first.get("ev") != "ready":
            self._close_process()
            raise RuntimeError("mock %s %r: %s" % (self.role, name, first.get(
                "message", "did not start within %.0f s" % START_TIMEOUT_S)))
        self.pid = first["pid"]
        self.bus_name = first["bus_name"]
        self._reader = threading.Thread(target=self._read, name="corvane-mock-" + name,
                                        daemon=True)
        self._reader.start()

    def __repr__(self):
        return "<mock %s %r, pid %d>" % (self.role, self.name, self.pid)

    # ---- the pipe to the process ---------------------------------------------------

    def _write(self, obj):
        data = (json.dumps(obj, separators=(",", ":")) + "\n").encode()
        with self._write_lock:
            try:
                self._proc.stdin.write(data)
                self._proc.stdin.flush()
            except (BrokenPipeError, ValueError):
                pass  # the process is gone; _read says why

    def _read(self):
        while True:
            line = self._lines.next()
            if line is None:
                break
            msg = json.loads(line)
            if "re" in msg:
                if msg["re"] is None:
                    continue  # a request sent from an answer function
                with self._cond:
                    self._replies[msg["re"]] = msg
                    self._cond.notify_all()
            elif msg.get("ev") == "call":
                # Recorded before it is answered: its caller may be waiting
                # for an answer function that waits for the record.
                rec = Record(msg["payload"], msg["method"], msg["sender"], msg["sender_pid"])
                with self._cond:
                    self._records.append(rec)
                    self._cond.notify_all()
                status = self._answer(rec)
                with self._cond:
                    rec.status = status
                self._write({"op": "answer", "re": msg["id"], "status": status})
            elif msg.get("ev") == "notification":
                rec = Record(msg["payload"], msg["method"], msg["sender"], msg["sender_pid"])
                with self._cond:
                    self._records.append(rec)
                    self._cond.notify_all()
            elif msg.get("ev") == "gone":
                self._gone = "its bus connection was lost"
        with self._cond:
            if self._gone is None:
                self._gone = "its process ended (exit status %s)" % self._proc.poll()
            self._cond.notify_all()

    def _answer(self, rec):
        with self._cond:
            given = self._answers.get(rec.method, 0)
        if not callable(given):
            return given
        try:
            status = given(rec)
            if isinstance(status, bool) or not isinstance(status, int) or not 0 <= status <= U32_MAX:
                raise TypeError("the answer to %s must be a status, 0 to 0x%x, not %r" % (
                    rec.method, U32_MAX, status))
            return status
        except BaseException as e:  # kept for the test, which fails with it
            with self._cond:
                self._errors.append(e)
            return 1  # "not processed"

    def _request(self, obj, timeout):
        if threading.current_thread() is self._reader:
            # From an answer function: the process sends it once the answer is out.
            self._write(dict(obj, id=None))
            return None
        with self._cond:
            self._next_id += 1
            wanted = self._next_id
        self._write(dict(obj, id=wanted))
        deadline = time.monotonic() + timeout
        with self._cond:
            while wanted not in self._replies:
                if self._gone:
                    raise RuntimeError("%r: %s" % (self, self._gone))
                left = deadline - time.monotonic()
                if left <= 0:
                    raise TimeoutError("%r did not do %s within %.1f s" % (self, obj["op"], timeout))
                self._cond.wait(left)
            return self._replies.pop(wanted)

    def _raise_errors(self):
        with self._cond:
            errors, self._errors = self._errors, []
        if errors:
            raise errors[0]

    # ---- what arrived ------------------------------------------------------------------

    def _received(self, method=None):
        self._raise_errors()
        if method is not None:
            method = _codec.message(method, self.kind).name
        # Whatever the process sent before this request has been read by now.
        if not self._gone:
            self._request({"op": "sync"}, STOP_TIMEOUT_S)
        with self._cond:
            return [r for r in self._records if method is None or r.method == method]

    def wait_for(self, method, timeout=2.0, where=None):
        """The first record of that method (that `where` accepts: a dict of
        fields it must hold, nested dicts and lists compared likewise, or a
        function of the record) received since the mock started, waiting at
        most `timeout` seconds for it; else WaitTimeout naming what arrived."""
        name = _codec.message(method, self.kind).name
        accept = where if callable(where) else (lambda r: where is None or _matches(where, r))
        deadline = time.monotonic() + timeout
        with self._cond:
            seen = 0
            while True:
                for rec in self._records[seen:]:
                    if rec.method == name and accept(rec):
                        return rec
                seen = len(self._records)
                left = deadline - time.monotonic()
                if left <= 0 or self._gone:
                    break
                self._cond.wait(left)
            records = list(self._records)
        self._raise_errors()
        what = name + ("" if where is None else " matching " + (
            getattr(where, "__name__", "a function") if callable(where) else _short(where)))
        got = ", ".join(r.method for r in records[-20:]) or "nothing"
        same = [_short(r) for r in records if r.method == name][-5:]
        raise WaitTimeout("%s %r: no %s within %.1f s%s; received %d: %s%s" % (
            self.role, self.name, what, timeout, " (" + self._gone + ")" if self._gone else "",
            len(records), got, "; its %s: %s" % (name, " | ".join(same)) if same else ""))

    # ---- the end ------------------------------------------------------------------------

    def _close_process(self):
        try:
            self._proc.stdin.close()  # the process ends at the end of its input
        except OSError:
            pass
        try:
            self._proc.wait(STOP_TIMEOUT_S)
        except subprocess.TimeoutExpired:
            pass
        _stop(self._proc)
        self._proc.stdout.close()

    def close(self):
        self._close_process()
        # The pipe is closed: the thread ends, unless an answer function
        # still runs on it (it is a daemon thread).
        self._reader.join(1.0)


class MockMgmt(_Mock):
    """A management side: serves every command (answering 0 unless told
    otherwise) and registers its need for updates as a management daemon
    does."""

    role, kind = "mgmt", "command"

    def answer(self, method, status):
        """Answers the command with `status` (0 to 0xffffffff), or with what
        status(record) returns; the function runs in the test process, on the
        mock's reader thread."""
        m = _codec.message(method, "command")
        if not callable(status) and (isinstance(status, bool) or not isinstance(status, int)
                                     or not 0 <= status <= U32_MAX):
            raise ValueError("the answer to %s must be a status, 0 to 0x%x, or a function of the "
                             "record: %r" % (m.name, U32_MAX, status))
        with self._cond:
            self._answers[m.name] = status
        return self

    def calls(self, method=None):
        """The records of the commands received (of that method), in order."""
        return self._received(method)

    def emit(self, notification, payload=None):
        """Sends a notification; its payload as encode() takes it. Returns the
        middleware's status (0: sent). From inside an answer function it is
        sent once the answer is out, and None is returned."""
        m, obj = _codec.payload_of(notification, payload)
        _codec.message(m, "notification")
        _codec.encode(m.name, obj)  # refuses a bad payload here, naming the field
        reply = self._request({"op": "emit", "method": m.name, "payload": obj}, STOP_TIMEOUT_S)
        return None if reply is None else reply["status"]


class MockVoice(_Mock):
    """A voice service: subscribed to every notification."""

    role, kind = "voice", "notification"

    def call(self, command, payload=None, timeout=2.0, to="mgmt"):
        """Sends a command to the user `to` and returns the answer's status
        (a status of the middleware, 0x61 to 0x69, when there was none)."""
        m, obj = _codec.payload_of(command, payload)
        _codec.message(m, "command")
        _codec.encode(m.name, obj)
        reply = self._request({"op": "call", "method": m.name, "payload": obj, "to": to,
                               "timeout_ms": max(1, int(timeout * 1000))}, timeout + STOP_TIMEOUT_S)
        return None if reply is None else reply["status"]

    def notifications(self, name=None):
        """The records of the notifications received (of that name), in order."""
        return self._received(name)


class CorvaneBus:
    """A private dbus-daemon, and the mocks on it. Sets $CORVANE_BUS (and
    puts the matching corvane program first on $PATH) until closed."""

    def __init__(self, dbus_daemon="dbus-daemon"):
        self._dir = tempfile.mkdtemp(prefix="corvane-bus-")
        self._mocks = []
        argv = [dbus_daemon, "--session", "--address=unix:path=" + os.path.join(self._dir, "bus"),
                "--nofork", "--print-address=1"]
        setpriv = shutil.which("setpriv")
        if setpriv:  # the bus ends with the test process, however that ends
            argv = [setpriv, "--pdeathsig", "TERM", "--"] + argv
        # Its own lines (a refused fd limit, say) in a file beside its socket.
        self._daemon_log = os.path.join(self._dir, "dbus-daemon.log")
        try:
            with open(self._daemon_log, "wb") as log:
                self._daemon = subprocess.Popen(argv, stdin=subprocess.DEVNULL,
                                                stdout=subprocess.PIPE, stderr=log)
        except OSError as e:
            shutil.rmtree(self._dir, ignore_errors=True)
            raise RuntimeError("cannot start %s (Debian: dbus-daemon): %s" % (dbus_daemon, e))
        _live.add(self._daemon)
        line = _Lines(self._daemon.stdout).next(START_TIMEOUT_S)
        if not line:
            with open(self._daemon_log, "rb") as log:
                said = log.read().decode("utf-8", "replace").strip()
            self._stop_daemon()
            raise RuntimeError("dbus-daemon did not start within %.0f s%s" % (
                START_TIMEOUT_S, ": " + said if said else ""))
        self.address = line.strip()
        self.pid = self._daemon.pid
        self._saved = {k: os.environ.get(k) for k in ("CORVANE_BUS", "PATH")}
        os.environ["CORVANE_BUS"] = self.address
        bindir = self._bindir()
        if bindir:
            os.environ["PATH"] = os.pathsep.join(p for p in (bindir, os.environ.get("PATH")) if p)

    @staticmethod
    def _bindir():
        for d in _lib.search_bindirs():
            if os.access(os.path.join(d, "corvane"), os.X_OK):
                return d
        return None

    def mgmt(self, name="mgmt"):
        """A mock management side as user `name`."""
        mock = MockMgmt(self, name)
        self._mocks.append(mock)
        return mock

    def voice(self, name="voice"):
        """A mock voice service as user `name`."""
        mock = MockVoice(self, name)
        self._mocks.append(mock)
        return mock

    def _stop_daemon(self):
        _stop(self._daemon)
        self._daemon.stdout.close()
        shutil.rmtree(self._dir, ignore_errors=True)

    def close(self):
        """Stops the mocks and the bus, restores the environment, and raises
        the first exception an answer function raised, if any."""
        errors = []
        for mock in self._mocks:
            mock.close()
            errors += mock._errors
        self._mocks = []
        self._stop_daemon()
        for key, value in self._saved.items():
            if value is None:
                os.environ.pop(key, None)
            else:
                os.environ[key] = value
        if errors:
            raise errors[0]

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False


try:
    import pytest
except ImportError:  # the mocks work without pytest
    pytest = None

if pytest is not None:
    @pytest.fixture
    def corvane_bus():
        """A private dbus-daemon for the test (CorvaneBus): .address,
        $CORVANE_BUS, .mgmt(name="mgmt"), .voice(name="voice")."""
        bus = CorvaneBus()
        try:
            yield bus
        finally:
            bus.close()
