"""The process behind a mock peer of corvane.testing:

    python -m corvane._peer mgmt|voice NAME ADDRESS

It is one user of libcorvane_dbus, the project's D-Bus middleware, which is
single-threaded: every middleware call is made here, on the thread running
its event loop. The test process talks to it over standard input and output,
one JSON object per line:

  to the test   {"ev": "ready", "pid": P, "bus_name": B}       once joined
                {"ev": "error", "message": M}                  could not join
                {"ev": "call", "id": N, "method": M, "payload": {...},
                 "sender": S, "sender_pid": P}                 a command came;
                                                               answer {"re": N, ...}
                {"ev": "notification", "method": M, "payload": {...}, ...}
                {"re": N, "status": S}                         an op is done
                {"ev": "gone"}                                 the bus went away
  from the test {"op": "answer", "re": N, "status": S}         a command's answer
                {"op": "emit", "id": N, "method": M, "payload": {...}}
                {"op": "call", "id": N, "method": M, "payload": {...},
                 "to": U, "timeout_ms": T}
                {"op": "sync", "id": N}
End of input ends the process.

"mgmt" serves every command and registers its need for updates of the
notifications that have one, as a management daemon does; "voice"
subscribes to every notification.
"""

import ctypes
import fcntl
import json
import os
import select
import signal
import sys

from . import _codec, _lib

LOG_PID, LOG_DAEMON = 0x01, 3 << 3
_ident = None
ANSWER_WAIT_S = 120  # a test that never answers: the caller's own timeout ends it first


class Peer:
    def __init__(self, role, name, address):
        self.role, self.name, self.address = role, name, address
        self.libs = _lib.libs()
        self.cat = _codec.catalogue()
        self.out = os.fdopen(os.dup(1), "w", buffering=1)
        os.dup2(2, 1)  # stray output of the process must not reach the test
        self.inbuf = b""
        self.queued = []
        self.closed = False
        self.next_id = 0
        self.user = None
        self.handler = _lib.HANDLER(self.on_message)

    # ---- the pipe to the test -------------------------------------------------

    def send(self, obj):
        self.out.write(json.dumps(obj, separators=(",", ":")) + "\n")

    def read_lines(self, timeout):
        """Lines that arrived within timeout seconds (0: whatever is there)."""
        if self.closed:
            return []
        ready, _, _ = select.select([0], [], [], timeout)
        if not ready:
            return []
        chunk = os.read(0, 65536)
        if not chunk:
            self.closed = True
            return []
        self.inbuf += chunk
        *lines, self.inbuf = self.inbuf.split(b"\n")
        return [json.loads(line) for line in lines if line.strip()]

    # ---- joining the bus --------------------------------------------------------

    def join(self):
        core, mw = self.libs.core, self.libs.mw
        if not self.libs.bus:
            return "libcorvane_dbus.so.1 could not be loaded (%s)" % self.libs.mw_path
        if core.corvane_initialize() != 0:
            return "corvane_initialize failed"
        status = ctypes.c_uint32()
        self.user = mw.quibDbus_newUser(self.name.encode(), self.address.encode(),
                                        ctypes.byref(status))
        if not self.user:
            return "cannot join the bus at %s as %s: %s (0x%x)" % (
                self.address, self.name, mw.quibDbus_strerror(status.value).decode(), status.value)
        if core.corVane_regUser_msgMngt(self.user, None, None, _lib.SELECT_BOTH) != 0:
            return "corVane_regUser_msgMngt failed"
        vp, u32 = ctypes.c_void_p, ctypes.c_uint32
        bus_name = ctypes.create_string_buffer(256)
        fn = self.libs.mw.quibDbus_busName
        fn.argtypes, fn.restype = [ctypes.c_char_p, ctypes.c_char_p, ctypes.c_size_t], ctypes.c_int
        fn(self.name.encode(), bus_name, 256)
        self.bus_name = bus_name.value.decode()
        handler = ctypes.cast(self.handler, vp)
        for number, m in enumerate(self.cat.messages):
            arg = vp(number + 1)
            if self.role == "mgmt" and m.is_command:
                reg = self.libs.function("corVane_modSrv_recvMsg_" + m.lower, u32, [vp] * 4)
                failed = reg(self.user, handler, arg, None)
            elif self.role == "mgmt" and m.need_update:
                reg = self.libs.function("corVane_modSrv_needUpdate_ntfy" + m.name, u32, [vp] * 4)
                failed = reg(self.user, None, None, None)
            elif self.role == "voice" and not m.is_command:
                reg = self.libs.function("corVane_modCliNtfyUser_recvMsg_" + m.lower, u32,
                                         [vp] * 4 + [ctypes.c_char_p] * 2)
                failed = reg(self.user, handler, arg, None, self.bus_name.encode(),
                             self.name.encode())
            else:
                continue
            if failed:
                return "registering %s failed (0x%x)" % (m.name, failed)
        return None

    # ---- receiving ------------------------------------------------------------------

    def on_message(self, ctx, arg, payload):
        m = self.cat.messages[arg - 1]
        record = _codec.read(m.payload, ctypes.string_at(payload, m.payload.size))
        sender = ctypes.create_string_buffer(256)
        pid = ctypes.c_int32(-1)
        self.libs.mw.quibDbus_ctxSender(ctx, sender, 256, ctypes.byref(pid))
        event = {"method": m.name, "payload": record, "sender": sender.value.decode(),
                 "sender_pid": pid.value}
        if not m.is_command:
            event["ev"] = "notification"
            self.send(event)
            return 0
        self.next_id += 1
        event.update(ev="call", id=self.next_id)
        self.send(event)
        status = self.wait_answer(self.next_id)
        self.libs.mw.quibCore_sendMsgRes(ctx, None, status, 18)
        return 0

    def wait_answer(self, wanted):
        """The test's answer to a command; other requests wait their turn."""
        waited = 0.0
        while not self.closed and waited < ANSWER_WAIT_S:
            self.queued += self.read_lines(0.5)
            for i, msg in enumerate(self.queued):
                if msg.get("op") == "answer" and msg.get("re") == wanted:
                    del self.queued[i]
                    return msg["status"]
            waited += 0.5
        return 1  # nobody answered: "not processed"

    # ---- requests of the test ----------------------------------------------------------

    def payload_args(self, m, payload):
        """The send function's payload arguments, and the buffer to keep alive."""
        mem = bytearray(m.payload.size)
        errors = _codec.fill(m.payload, payload, mem)
        if errors:  # the test process checked it already
            raise ValueError(_codec.error_line(m.name, errors))
        buf = (ctypes.c_char * len(mem)).from_buffer(mem)
        if m.record_payload:
            return [ctypes.c_void_p], [ctypes.addressof(buf)], buf
        types, values = [], []
        for f in m.payload.fields:
            if f.kind == "u32":
                types.append(ctypes.c_uint32)
                values.append(payload.get(f.name, 0))
            else:
                types.append(ctypes.c_char_p)
                values.append(payload.get(f.name, "").encode("utf-8", "surrogateescape"))
        return types, values, buf

    def handle(self, msg):
        op = msg.get("op")
        reply = {"re": msg.get("id")}
        vp = ctypes.c_void_p
        if op == "emit" or op == "call":
            m = self.cat.by_name[msg["method"]]
            types, values, keep = self.payload_args(m, msg.get("payload") or {})
            if op == "emit":
                send = self.libs.function("corVane_sendReq_ntfy" + m.name, None, [vp, vp, vp] + types)
                send(self.user, None, None, *values)
                reply["status"] = self.libs.mw.quibDbus_lastStatus(self.user)
            else:
                send = self.libs.function("corVane_sendReq_" + m.lower, ctypes.c_uint32,
                                          [vp, vp, ctypes.c_char_p] + types)
                self.libs.mw.quibDbus_setTimeout(int(msg.get("timeout_ms", 0)))
                reply["status"] = send(self.user, None, msg.get("to", "mgmt").encode(), *values)
            del keep
        elif op != "sync":
            reply["error"] = "unknown request %r" % op
        self.send(reply)

    def run(self):
        mw = self.libs.mw
        while not self.closed:
            rc = mw.ranqDbus_runFor(10)
            if rc < 0:
                self.send({"ev": "gone", "errno": -rc})
                return 1
            pending, self.queued = self.queued, []
            for msg in pending + self.read_lines(0):
                self.handle(msg)
        return 0


def main(argv):
    if len(argv) != 4 or argv[1] not in ("mgmt", "voice"):
        sys.stderr.write("usage: python -m corvane._peer mgmt|voice NAME ADDRESS\n")
        return 2
    # Ctrl-C reaches the whole process group: the test process ends this one
    # by closing its input.
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    fcntl.fcntl(0, fcntl.F_SETFL, fcntl.fcntl(0, fcntl.F_GETFL) | os.O_NONBLOCK)
    peer = Peer(argv[1], argv[2], argv[3])
    # The library's and the middleware's lines go to this process's stderr too.
    option = _codec.LOG_PERROR | LOG_PID
    _codec.set_log_option(option)
    global _ident  # syslog keeps the pointer
    _ident = ctypes.create_string_buffer(("corvane-mock-" + argv[1]).encode())
    peer.libs.libc.openlog(_ident, option, LOG_DAEMON)
    problem = peer.join()
    if problem:
        peer.send({"ev": "error", "message": problem})
        return 1
    peer.send({"ev": "ready", "pid": os.getpid(), "bus_name": peer.bus_name})
    try:
        return peer.run()
    finally:
        peer.libs.mw.quibDbus_freeUser(peer.user)


if __name__ == "__main__":
    sys.exit(main(sys.argv))
