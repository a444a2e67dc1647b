"""Records as dicts through libCorvane itself.

The fields, kinds, offsets and capacities come from the library's exported
schemas (corvane/schema.h); a payload is filled into memory laid out as the
C struct, and the message's own serializeBody writes the body. A body is
read back with the library's bounded body decoder (corVane_unserializeBody_bounded)
and the record it builds is turned into a dict through the same schema.
Nothing here knows the wire format beyond finding the magic in the body's
first element and, for an error message, reading the tag and length words
where the library's decoder stopped.
"""

import ctypes
import json
import os
import re
import struct
import sys
import tempfile

from . import _lib, _names

U32_MAX = 0xFFFFFFFF
KIND_NAMES = {
    _lib.FIELD_U32: "u32",
    _lib.FIELD_TEXT: "text",
    _lib.FIELD_RECORD: "record",
    _lib.FIELD_ARRAY: "array",
    _lib.FIELD_FIXED_ARRAY: "fixed_array",
}
STATUS_TEXT = {
    0: "done",
    1: "not processed",
    2: "envelope or magic refused",
    3: "wrong state",
    4: "malformed payload",
    5: "out of memory",
    20: "no handler",
}


class FieldInfo:
    """One field of a record: its name, tag, kind ("u32", "text", "record",
    "array", "fixed_array"), capacity (a text's bytes with the NUL, an
    array's entries; None otherwise), nested record (a RecordSchema or None)
    and, for a counted array, the name of its count field."""

    __slots__ = ("name", "tag", "kind", "capacity", "record", "count_field", "offset")

    def __init__(self, name, tag, kind, capacity, record, count_field, offset):
        self.name, self.tag, self.kind, self.capacity = name, tag, kind, capacity
        self.record, self.count_field, self.offset = record, count_field, offset

    def __repr__(self):
        extra = ""
        if self.kind == "text":
            extra = "[%d]" % self.capacity
        elif self.record is not None:
            extra = " %s" % self.record.name
            if self.capacity:
                extra += "[%d]" % self.capacity
        return "<field %d %s: %s%s>" % (self.tag, self.name, self.kind, extra)


class RecordSchema:
    """A record type (or a scalar payload) as libCorvane describes it: name,
    size in memory, fields in order."""

    def __init__(self, ptr):
        s = ptr.contents
        self._ptr = ptr
        self.name = s.name.decode()
        self.size = s.size
        self.fields = ()
        self._by_name = {}

    def _fill(self, fields):
        self.fields = tuple(fields)
        self._by_name = {f.name: f for f in self.fields}

    def field(self, name):
        return self._by_name.get(name)

    def as_dict(self):
        """The schema as plain data (what `corvane --json schema` gives, less
        the wire sizes)."""
        out = []
        for f in self.fields:
            d = {"tag": f.tag, "name": f.name, "kind": f.kind}
            if f.capacity:
                d["capacity"] = f.capacity
            if f.record is not None:
                d["record"] = f.record.name
            if f.count_field:
                d["count_field"] = f.count_field
            out.append(d)
        return {"name": self.name, "size": self.size, "fields": out}

    def __repr__(self):
        return "<record %s: %d fields, %d bytes>" % (self.name, len(self.fields), self.size)


class Message:
    """One of the 49 messages: name, interface ("command" or
    "notification"), index, magic, key, payload (its RecordSchema),
    need_update and body_size."""

    def __init__(self, ptr, payload):
        m = ptr.contents
        self._ptr = ptr
        self.name = m.name.decode()
        self.interface = "command" if m.intf == _lib.INTF_CMD else "notification"
        self.index = m.index
        self.magic = m.magic
        self.key = m.key
        self.envelope = m.envelope
        self.body_size = m.bodySize
        self.record_payload = bool(m.flags & _lib.MSG_RECORD_PAYLOAD)
        self.need_update = bool(m.flags & _lib.MSG_NEED_UPDATE)
        self.payload = payload
        half = "msgCmd" if self.interface == "command" else "msgNtfy"
        self.lower = self.name[0].lower() + self.name[1:]
        self._callbacks = "%s_%s" % (half, self.lower)

    @property
    def is_command(self):
        return self.interface == "command"

    def __repr__(self):
        return "<%s %d %s, magic 0x%08x, payload %s>" % (
            self.interface, self.index, self.name, self.magic, self.payload.name)


class PayloadError(ValueError):
    """A payload the library cannot take: `errors` lists every problem, each
    naming its field."""

    def __init__(self, method, errors):
        self.method, self.errors = method, list(errors)
        super().__init__(error_line(method, self.errors))


class DecodeError(ValueError):
    """A body the library's bounded decoder refused: `status` (2 envelope or
    magic, 4 payload), `offset` where decoding stopped, `found` (tag, length)
    there, `expected` (tag, "Record.field") and the library's `log` lines."""

    def __init__(self, line, method, status, offset=None, found=None, expected=None, log=()):
        super().__init__(line)
        self.method, self.status, self.offset = method, status, offset
        self.found, self.expected, self.log = found, expected, list(log)


def error_line(method, errors):
    """One line for a refused payload; with several problems, their number
    first (the same line as corvane encode, call and emit print)."""
    prefix = method + ": " if method else ""
    if len(errors) == 1:
        return prefix + errors[0]
    return "%s%d fields are wrong: %s" % (prefix, len(errors), "; ".join(errors))


# ---- the catalogue ---------------------------------------------------------

class _Catalogue:
    def __init__(self):
        self.libs = _lib.libs()
        core = self.libs.core
        self._schemas = {}
        self.records = [self.schema_of(core.corVane_recordSchemaAt(i))
                        for i in range(core.corVane_recordCount())]
        self.messages = []
        for intf in (_lib.INTF_CMD, _lib.INTF_NTFY):
            i = 0
            while True:
                p = core.corVane_messageInfo(intf, i)
                if not p:
                    break
                self.messages.append(Message(p, self.schema_of(p.contents.payload)))
                i += 1
        self.by_name = {m.name: m for m in self.messages}
        # Record types, then the scalar payloads by their type names.
        self.schemas = {s.name: s for s in self.records}
        for m in self.messages:
            self.schemas.setdefault(m.payload.name, m.payload)

    def schema_of(self, ptr):
        key = ctypes.addressof(ptr.contents)
        if key in self._schemas:
            return self._schemas[key]
        s = RecordSchema(ptr)
        self._schemas[key] = s
        raw = ptr.contents
        fields = []
        for i in range(raw.fieldCount):
            f = raw.fields[i]
            kind = KIND_NAMES.get(f.kind, "unknown")
            nested = self.schema_of(f.record) if f.record else None
            capacity = f.capacity if f.kind != _lib.FIELD_U32 and f.kind != _lib.FIELD_RECORD else None
            count = fields[i - 1].name if f.kind == _lib.FIELD_ARRAY and i > 0 else None
            fields.append(FieldInfo(f.name.decode(), _lib.FIRST_TAG + i, kind, capacity, nested,
                                    count, f.offset))
        s._fill(fields)
        return s


_catalogue = None


def catalogue():
    global _catalogue
    if _catalogue is None:
        _catalogue = _Catalogue()
    return _catalogue


def messages():
    """The 19 commands, then the 30 notifications, in table order."""
    return list(catalogue().messages)


def message(name, interface=None):
    """A message by method name: exact, else case-insensitively when that is
    unambiguous. An unknown name, or one of the wrong interface ("command" or
    "notification"), raises ValueError with the closest names."""
    if isinstance(name, Message):
        m = name
    else:
        if not isinstance(name, str):
            raise TypeError("a method name is a str, not %s" % type(name).__name__)
        cat = catalogue()
        pool = [x.name for x in cat.messages if interface is None or x.interface == interface]
        found = _names.resolve(name, list(cat.by_name))
        if found is None:
            hint = _names.did_you_mean(name, pool)
            what = "method" if interface is None else interface
            raise ValueError("unknown %s '%s'%s" % (what, name, " (" + hint + ")" if hint else ""))
        m = cat.by_name[found]
    if interface is not None and m.interface != interface:
        other = "emit" if m.is_command else "call"
        raise ValueError("%s is a %s, not a %s (use %s)" % (m.name, m.interface, interface, other))
    return m


def schema(name):
    """A record's schema by its type name, a scalar payload's (CorVaneValues2),
    or a message's payload by the method name; names as message() takes them."""
    cat = catalogue()
    names = list(cat.schemas) + [m.name for m in cat.messages]
    found = _names.resolve(name, names)
    if found is None:
        hint = _names.did_you_mean(name, names)
        raise ValueError("unknown record '%s'%s" % (name, " (" + hint + ")" if hint else ""))
    if found in cat.schemas:
        return cat.schemas[found]
    return cat.by_name[found].payload


# ---- records in memory <-> dicts --------------------------------------------

def _join(path, name):
    return name if not path else path + "." + name


def _dump(value):
    try:
        return json.dumps(value, separators=(",", ":"))
    except (TypeError, ValueError):
        return repr(value)


def _word_problem(value):
    """Why a JSON value is not an unsigned 32-bit number, or None."""
    if isinstance(value, bool) or not isinstance(value, (int, float, str)):
        return "expects an unsigned 32-bit integer, got " + _dump(value)
    if isinstance(value, str):
        return "expects a number, got the string %s (numbers are not quoted)" % _dump(value)
    if isinstance(value, float):
        return "expects an unsigned 32-bit integer, got " + _dump(value)
    if value < 0 or value > U32_MAX:
        return "is out of range: %d (0 to %d)" % (value, U32_MAX)
    return None


class _Filler:
    def __init__(self, mem):
        self.mem = mem
        self.errors = []

    def record(self, s, obj, base, path):
        if not isinstance(obj, dict):
            what = "'%s'" % path if path else "the payload"
            self.errors.append("%s must be an object (%s), got %s" % (what, s.name, _dump(obj)))
            return
        for key in obj:
            if s.field(key) is None:
                hint = _names.did_you_mean(key, [f.name for f in s.fields])
                self.errors.append("unknown field '%s' (%s has no such field%s)" % (
                    _join(path, key), s.name, "; " + hint if hint else ""))
        for f in s.fields:
            if f.name not in obj:
                continue
            value, p, at = obj[f.name], _join(path, f.name), base + f.offset
            if f.kind == "u32":
                problem = _word_problem(value)
                if problem:
                    self.errors.append("field '%s' %s" % (p, problem))
                else:
                    struct.pack_into("=I", self.mem, at, value)
            elif f.kind == "text":
                self.text(value, at, f.capacity, p)
            elif f.kind == "record":
                self.record(f.record, value, at, p)
            else:
                self.array(s, f, obj, value, base, p)

    def text(self, value, at, capacity, p):
        if not isinstance(value, str):
            self.errors.append("field '%s' expects a string, got %s" % (p, _dump(value)))
            return
        raw = value.encode("utf-8", "surrogateescape")
        if b"\0" in raw:
            self.errors.append("field '%s' holds a NUL character" % p)
        elif len(raw) + 1 > capacity:
            self.errors.append("field '%s' is too long: %d bytes, capacity %d (at most %d "
                               "characters)" % (p, len(raw), capacity, capacity - 1))
        else:
            self.mem[at:at + len(raw) + 1] = raw + b"\0"

    def array(self, s, f, parent, value, base, p):
        if not isinstance(value, list):
            self.errors.append("field '%s' expects an array of %s" % (p, f.record.name))
            return
        if len(value) > f.capacity:
            self.errors.append("field '%s' has %d entries, capacity %d" % (p, len(value), f.capacity))
            return
        if f.kind == "array":
            # The count is what goes on the wire, and the library sends
            # min(count, capacity) entries: entries beyond the count would not
            # be sent, so they are refused rather than dropped.
            count_at = base + s.field(f.count_field).offset
            if f.count_field not in parent:
                struct.pack_into("=I", self.mem, count_at, len(value))
            else:
                count = parent[f.count_field]
                if _word_problem(count) is None and count < len(value):
                    self.errors.append("field '%s' has %d entries but its count '%s' is %d" % (
                        p, len(value), f.count_field, count))
                    return
        size = f.record.size
        for i, entry in enumerate(value):
            self.record(f.record, entry, base + f.offset + i * size, "%s[%d]" % (p, i))


def fill(s, payload, mem, base=0):
    """Writes the payload dict into mem (zeroed, laid out as the C struct) at
    base; returns the list of problems, each naming its field."""
    filler = _Filler(mem)
    filler.record(s, payload, base, "")
    return filler.errors


def read(s, mem, base=0):
    """The record in mem at base as a dict, every field in order; a counted
    array lists min(count, capacity) entries, a fixed one all of them."""
    out = {}
    for f in s.fields:
        at = base + f.offset
        if f.kind == "u32":
            out[f.name] = struct.unpack_from("=I", mem, at)[0]
        elif f.kind == "text":
            raw = bytes(mem[at:at + f.capacity])
            out[f.name] = raw.split(b"\0", 1)[0].decode("utf-8", "surrogateescape")
        elif f.kind == "record":
            out[f.name] = read(f.record, mem, at)
        else:
            n = f.capacity
            if f.kind == "array":
                n = min(out[f.count_field], f.capacity)
            out[f.name] = [read(f.record, mem, at + i * f.record.size) for i in range(n)]
    return out


# ---- JSON as corvane prints it --------------------------------------------------

def payload_of(method, payload):
    """(Message, payload dict) from what encode() and the mocks are given: a
    payload dict with a method name, or the whole object `corvane --json
    decode` or `corvane monitor --json` printed for a body (its "method" and
    its "payload"). The method given must then be the object's."""
    if payload is None and isinstance(method, dict):
        method, payload = None, method
    if payload is None:
        payload = {}
    # No record has a field named "method": an object with one is an entry.
    if isinstance(payload, dict) and isinstance(payload.get("method"), str):
        named = payload["method"]
        if "payload" not in payload:
            if "decode_error" in payload:
                why = "its body did not decode"
            elif "type" in payload:
                why = "it is a %s entry, not a body" % payload["type"]
            else:
                why = "it has no payload"
            raise ValueError("%s: nothing to encode: %s" % (named, why))
        inner = message(named)
        if method is not None and message(method) is not inner:
            raise ValueError("the object is a %s entry, not %s" % (inner.name, message(method).name))
        return inner, payload["payload"]
    if method is None:
        raise ValueError("no method: give one (the payload alone names none)")
    return message(method), payload


# ---- encoding and decoding ---------------------------------------------------------

def _body_callbacks(m):
    libs = catalogue().libs
    vp, u32 = ctypes.c_void_p, ctypes.c_uint32
    serialize = libs.function("corVane_cbEvtMsgMngt_serializeBody_" + m._callbacks, u32,
                              [u32, vp, ctypes.POINTER(vp), ctypes.POINTER(u32)])
    free_body = libs.function("corVane_cbEvtMsgMngt_freeBody_" + m._callbacks, None, [u32, vp])
    return serialize, free_body


def encode(method, payload=None):
    """The body of a message, as the library serialises it.

    encode("SetLineCallState", {"value1": 1}) fills the payload (missing
    fields zero or empty) and returns the bytes. The whole object that
    `corvane --json decode` or `monitor --json` printed is taken too, alone
    (encode(obj)) or with its method. A payload the library cannot take
    raises PayloadError (a ValueError) naming every field at fault: unknown
    fields, texts over capacity, wrong types, numbers out of range, array
    entries beyond their count or capacity."""
    m, obj = payload_of(method, payload)
    body = bytearray(m.body_size)
    struct.pack_into("=I", body, 0, m.magic)
    errors = fill(m.payload, obj, body, _lib.BODY_PAYLOAD_OFFSET)
    if errors:
        raise PayloadError(m.name, errors)
    serialize, _ = _body_callbacks(m)
    cbody = (ctypes.c_char * len(body)).from_buffer(body)
    out, length = ctypes.c_void_p(), ctypes.c_uint32()
    status = serialize(_lib.BODY_REQUEST, ctypes.addressof(cbody), ctypes.byref(out),
                       ctypes.byref(length))
    if status != 0:
        raise PayloadError(m.name, ["serializeBody refused the body (status %d)" % status])
    try:
        return ctypes.string_at(out.value, length.value)
    finally:
        catalogue().libs.libc.free(out)


def _be32(data, at):
    return struct.unpack_from(">I", data, at)[0]


def magic_of(data):
    """The value of the body's first element when it is the tag-0 magic."""
    if len(data) < 12 or _be32(data, 0) != 0 or _be32(data, 4) != 4:
        return None
    return _be32(data, 8)


def _bounded(m, data):
    libs = catalogue().libs
    body, size = ctypes.c_void_p(), ctypes.c_uint32()
    buf = data if data else b"\0"
    status = libs.core.corVane_unserializeBody_bounded(
        m._ptr, _lib.BODY_REQUEST, buf, len(data), ctypes.byref(body), ctypes.byref(size))
    return status, body.value


LOG_PERROR = 0x20
_log_option = 0


def set_log_option(option):
    """The openlog() option the process keeps (a mock's child sets LOG_PERROR)."""
    global _log_option
    _log_option = option


def _library_log(fn):
    """fn()'s result and the library's log lines meanwhile: syslog copies
    them to standard error under LOG_PERROR, which is a file for that time."""
    libc = catalogue().libs.libc
    sys.stderr.flush()
    saved = os.dup(2)
    with tempfile.TemporaryFile() as tmp:
        os.dup2(tmp.fileno(), 2)
        libc.openlog(None, LOG_PERROR, 0)
        try:
            result = fn()
        finally:
            libc.openlog(None, _log_option, 0)
            libc.closelog()
            os.dup2(saved, 2)
            os.close(saved)
        tmp.seek(0)
        text = tmp.read().decode("utf-8", "replace")
    # Each line as the library wrote it, without the "ident: " syslog adds.
    lines = [line[max(line.find("["), 0):] for line in text.splitlines() if line]
    return result, lines


_LOG_LINE = re.compile(r"\[CORVANE\] -> (\w+)\(\d+\): (?:pBody\([^)]*\): )?(.*)")
_EXPECTED = re.compile(r"expectded\((\d+)\)|^Type\((\d+)\)")


def _expected_field(m, log, found):
    """(tag, "Record.field (kind)") the library expected, from its first log
    line: the function names the record, the line the tag."""
    if not log:
        return None
    hit = _LOG_LINE.search(log[0])
    if not hit:
        return None
    function, text = hit.groups()
    tag = None
    t = _EXPECTED.search(text)
    if t:
        tag = int(t.group(1) or t.group(2))
    elif text.startswith("lgChainIn") and found:
        tag = found[0]
    if tag is None:
        return None
    rec = m.payload
    if function.startswith("corVane_") and function.endswith("_unserialize"):
        rec = catalogue().schemas.get(function[len("corVane_"):-len("_unserialize")], rec)
    index = tag - _lib.FIRST_TAG
    if 0 <= index < len(rec.fields):
        f = rec.fields[index]
        kind = "text[%d]" % f.capacity if f.kind == "text" else f.kind
        return tag, "%s.%s (%s)" % (rec.name, f.name, kind)
    return tag, None


def _refusal(m, data, status):
    """The DecodeError for a refused body: where and why decoding stopped."""
    _, log = _library_log(lambda: _bounded(m, data))
    head = "%s: the %d-byte body is refused (status %d, %s): " % (
        m.name, len(data), status, STATUS_TEXT.get(status, "unknown status"))
    magic = magic_of(data)
    if status == 2:
        if magic is None:
            why = "no magic: the body does not start with the tag-0 magic element"
        elif magic != m.magic:
            owners = [x.name for x in messages() if x.magic == magic]
            why = "the body's magic 0x%08x is not %s's 0x%08x (%s)" % (
                magic, m.name, m.magic,
                "it is the magic of " + ", ".join(owners) if owners else "no message has it")
        else:
            why = "the envelope is refused"
        tail = _LOG_LINE.search(log[0]) if log else None
        if tail and magic == m.magic:
            why += " (library: %s)" % tail.group(2)
        return DecodeError(head + why, m.name, status, 0, log=log)
    # Where the library's payload decoder stops: its cursor, from the
    # payload's start after the 24 bytes of the envelope's two elements.
    if len(data) < 24:
        offset = 0 if len(data) < 12 else 12
    else:
        libs = catalogue().libs
        scratch = ctypes.create_string_buffer(m.payload.size + 8)
        buf = ctypes.create_string_buffer(data, len(data))
        start = ctypes.addressof(buf)
        cursor = ctypes.c_void_p(start + 24)
        _library_log(lambda: libs.core.corVane_record_unserialize_bounded(
            m.payload._ptr, scratch, ctypes.byref(cursor), start + len(data)))
        offset = cursor.value - start
    found = (_be32(data, offset), _be32(data, offset + 4)) if len(data) - offset >= 8 else None
    expected = _expected_field(m, log, found)
    line = head + "stopped at offset %d (0x%x)" % (offset, offset)
    if expected:
        line += ", expected tag %d%s" % (expected[0], " " + expected[1] if expected[1] else "")
    if found:
        line += ", found tag %d length %d" % found
    else:
        line += ", found %d bytes, no complete element header" % (len(data) - offset)
    tail = _LOG_LINE.search(log[0]) if log else None
    if tail:
        line += " (library: %s)" % tail.group(2)
    return DecodeError(line, m.name, status, offset, found, expected, log)


def decode(body, method=None):
    """(method name, payload dict) of a body, read by the library's bounded
    decoder. Without a method, the body's magic names it (a magic several
    messages share needs the method). A refused body raises DecodeError (a
    ValueError) saying where decoding stopped and what the library logged."""
    data = bytes(body)
    if method is not None:
        m = message(method)
    else:
        magic = magic_of(data)
        if magic is None:
            raise DecodeError("no magic: the body does not start with the tag-0 magic element "
                              "(%d bytes)" % len(data), None, 2, 0)
        owners = [x for x in messages() if x.magic == magic]
        if not owners:
            raise DecodeError("the body's magic 0x%08x is no message's" % magic, None, 2, 0)
        if len(owners) > 1:
            raise ValueError("magic 0x%08x is shared by %s: give the method" % (
                magic, ", ".join(x.name for x in owners)))
        m = owners[0]
    status, ptr = _bounded(m, data)
    if status != 0:
        raise _refusal(m, data, status)
    _, free_body = _body_callbacks(m)
    try:
        mem = ctypes.string_at(ptr + _lib.BODY_PAYLOAD_OFFSET, m.payload.size)
        return m.name, read(m.payload, mem)
    finally:
        free_body(_lib.BODY_REQUEST, ptr)
