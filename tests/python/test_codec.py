"""corvane.encode/decode/messages/schema against the library and the corvane
command line: every message round-trips through Python and C with the same
bytes, the same fields are refused with the same words, and a malformed body
is refused where the library's decoder stops."""

import json
import os
import struct

import pytest

import corvane
from conftest import DATA, cli, cli_json, sample

NAMES = [m.name for m in corvane.messages()]


def test_the_catalogue_and_the_schemas_are_the_command_line_s():
    _, rows, _ = cli_json("list")
    assert [(r["name"], r["interface"], r["index"], int(r["magic"], 16), r["payload"],
             r["need_update"]) for r in rows] == [
        (m.name, m.interface, m.index, m.magic, m.payload.name, m.need_update)
        for m in corvane.messages()]
    assert sum(m.interface == "command" for m in corvane.messages()) == 19
    _, schemas, _ = cli_json("schema")
    assert len(schemas) == 66
    for s in schemas:
        mine = corvane.schema(s["name"]).as_dict()
        assert mine["size"] == s["size"], s["name"]
        assert mine["fields"] == [{k: v for k, v in f.items() if k not in ("wire_bytes", "reserved")}
                                  for f in s["fields"]], s["name"]


@pytest.mark.parametrize("name", NAMES)
def test_every_message_round_trips_through_python_and_c(name):
    payload = sample(name)
    body = corvane.encode(name, payload)
    assert corvane.decode(body, name) == (name, payload)
    # The command line builds the same bytes from the payload...
    rc, out, err = cli("encode", "-m", name, input=json.dumps(payload).encode())
    assert (rc, err) == (0, b"") and out == body
    # ...decodes them to the same fields...
    rc, out, err = cli("--json", "decode", "-m", name, input=body)
    assert rc == 0, err
    entry = json.loads(out)
    assert entry["payload"] == payload and entry["bytes"] == len(body)
    # ...and takes the whole entry it printed back, as Python does.
    rc, out, err = cli("encode", input=json.dumps(entry).encode())
    assert (rc, err) == (0, b"") and out == body
    assert corvane.encode(entry) == body
    assert corvane.encode(name, entry) == body


# (method, payload, one expected piece per problem, in order)
REFUSED = [
    ("SetLineCallState", {"value1": "1"},
     ["field 'value1' expects a number, got the string \"1\" (numbers are not quoted)"]),
    ("SetLineCallState", {"value1": "0x10"}, ["field 'value1' expects a number"]),
    ("SetLineCallState", {"value2": -1}, ["field 'value2' is out of range: -1 (0 to 4294967295)"]),
    ("SetLineCallState", {"value1": 4294967296}, ["field 'value1' is out of range: 4294967296"]),
    ("SetLineCallState", {"value1": 1.5}, ["field 'value1' expects an unsigned 32-bit integer, got 1.5"]),
    ("SetLineCallState", {"value1": True}, ["field 'value1' expects an unsigned 32-bit integer, got true"]),
    ("SetLineCallState", {"value1": None}, ["got null"]),
    ("SetLineCallState", {"value4": 1},
     ["unknown field 'value4' (lineCallState has no such field; did you mean value1, value2 or value3?)"]),
    ("SetLineCallState", [], ["the payload must be an object (lineCallState), got []"]),
    ("OnMakeCall", {"text1": "x" * 32},
     ["field 'text1' is too long: 32 bytes, capacity 32 (at most 31 characters)"]),
    ("OnMakeCall", {"text2": "\u00e9" * 16}, ["field 'text2' is too long: 32 bytes"]),
    ("OnMakeCall", {"text1": "a\u0000b"}, ["field 'text1' holds a NUL character"]),
    ("OnMakeCall", {"text3": 5}, ["field 'text3' expects a string, got 5"]),
    ("SetLineStats", {"stats": 3}, ["'stats' must be an object (lineStatsS), got 3"]),
    ("SetProfileFQDNServers", {"fqdnServersNumberOfEntries": 1, "fqdnServers": [{}, {}]},
     ["field 'fqdnServers' has 2 entries but its count 'fqdnServersNumberOfEntries' is 1"]),
    ("SetProfileFQDNServers", {"fqdnServers": [{}] * 21},
     ["field 'fqdnServers' has 21 entries, capacity 20"]),
    ("SetProfileFQDNServers", {"fqdnServers": {}}, ["field 'fqdnServers' expects an array of FQDNServers"]),
    ("SetProfileFQDNServers", {"fqdnServers": [{}, {"hostNam": "x", "serverValue1": "5060"}]},
     ["unknown field 'fqdnServers[1].hostNam' (FQDNServers has no such field; did you mean hostName?)",
      "field 'fqdnServers[1].serverValue1' expects a number"]),
    ("SetLineCallState", {"value1": "1", "valu2": 3, "value3": -1},
     ["unknown field 'valu2'", "field 'value1' expects", "field 'value3' is out of range"]),
]


@pytest.mark.parametrize("method,payload,expected", REFUSED)
def test_refused_payloads_name_every_field_the_same_way_in_python_and_c(method, payload, expected):
    with pytest.raises(corvane.PayloadError) as caught:
        corvane.encode(method, payload)
    e = caught.value
    assert isinstance(e, ValueError) and e.method == method
    assert len(e.errors) == len(expected)
    for error, piece in zip(e.errors, expected):
        assert piece in error
    if len(expected) > 1:
        assert str(e).startswith("%s: %d fields are wrong: " % (method, len(expected)))
    rc, out, err = cli("encode", "-m", method, "--hex", input=json.dumps(payload))
    assert (rc, out, err) == (1, "", "corvane: %s\n" % e)


def _roundtrip(method, payload):
    body = corvane.encode(method, payload)
    rc, out, err = cli("--json", "decode", "-m", method, input=body)
    assert rc == 0, err
    assert json.loads(out)["payload"] == corvane.decode(body, method)[1]
    return body, corvane.decode(body, method)[1]


def test_edges_that_are_accepted():
    _, got = _roundtrip("SetLineCallState", {"value1": 4294967295, "value2": 0})
    assert got == {"value1": 4294967295, "value2": 0, "value3": 0}
    _, got = _roundtrip("OnMakeCall", {"text1": "x" * 31, "text2": "\u00e9" * 15})
    assert got["text1"] == "x" * 31 and got["text2"] == "\u00e9" * 15


def test_a_count_field_is_kept_as_given_as_the_library_sends_it():
    server = {"ipAddress": "192.0.2.1", "hostName": "a", "serverValue1": 5060}
    # No count: the entries given.
    _, got = _roundtrip("SetProfileFQDNServers", {"fqdnServers": [server]})
    assert got["fqdnServersNumberOfEntries"] == 1 and got["fqdnServers"][0]["hostName"] == "a"
    # A count past the entries given: min(count, capacity) entries go on the
    # wire, those not given all zero.
    body, got = _roundtrip("SetProfileFQDNServers",
                           {"fqdnServersNumberOfEntries": 3, "fqdnServers": [server]})
    assert got["fqdnServersNumberOfEntries"] == 3 and len(got["fqdnServers"]) == 3
    assert got["fqdnServers"][1] == got["fqdnServers"][2] == {
        "ipAddress": "", "hostName": "", "serverValue1": 0, "serverValue2": 0, "serverValue3": 0,
        "serverValue4": 0, "serverValue5": 0}
    # A count past the capacity stays on the wire, with 20 entries, and the
    # decoded object gives the same bytes again.
    body, got = _roundtrip("SetProfileFQDNServers",
                           {"fqdnServersNumberOfEntries": 25, "fqdnServers": [server] * 20})
    assert got["fqdnServersNumberOfEntries"] == 25 and len(got["fqdnServers"]) == 20
    assert corvane.encode("SetProfileFQDNServers", got) == body


def test_entries_as_decode_and_monitor_print_them():
    payload = {"value1": 1, "value2": 3, "text1": "sip:12@x", "text2": "", "text3": ""}
    body = corvane.encode("OnMakeCall", payload)
    monitored = {"type": "signal", "method": "OnMakeCall", "interface": "org.corvane.CorVaneNtfy",
                 "serial": 3, "sender": "mgmt", "bytes": len(body), "payload": payload,
                 "decode_status": 0}
    assert corvane.encode(monitored) == body
    assert corvane.encode("onmakecall", monitored) == body
    rc, out, _ = cli("encode", input=json.dumps(monitored).encode())
    assert (rc, out) == (0, body)
    refusals = [
        ({"type": "return", "method": "SetLineCallState", "status": 0},
         "SetLineCallState: nothing to encode: it is a return entry, not a body"),
        ({"type": "call", "method": "SetLineCallState", "decode_error": {}},
         "SetLineCallState: nothing to encode: its body did not decode"),
    ]
    for entry, line in refusals:
        with pytest.raises(ValueError, match="^" + line + "$"):
            corvane.encode(entry)
        assert cli("encode", input=json.dumps(entry))[2] == "corvane: %s\n" % line
    with pytest.raises(ValueError, match="is a OnMakeCall entry, not SetLineCallState"):
        corvane.encode("SetLineCallState", monitored)
    assert cli("encode", "-m", "SetLineCallState", input=json.dumps(monitored))[:1] == (2,)
    with pytest.raises(ValueError, match="no method"):
        corvane.encode(payload)
    rc, _, err = cli("encode", input=json.dumps(payload))
    assert (rc, err) == (2, "corvane: no method: give -m METHOD (the payload alone names none)\n")


def test_names_forgive_case_and_typos():
    assert corvane.encode("setlinecallstate", {}) == corvane.encode("SetLineCallState", {})
    assert corvane.schema("voiceprofile").name == "VoiceProfile"
    assert corvane.schema("SETLINESTATS").name == "lineStats"
    for given, hint in [("SetLineCalState", "did you mean SetLineCallState?"),
                        ("OnMakeCal", "did you mean OnMakeCall?"),
                        ("LineCallState", "did you mean SetLineCallState?")]:
        with pytest.raises(ValueError, match="unknown method '%s' \\(%s" % (given, hint.replace("?", "\\?"))):
            corvane.encode(given, {})
        rc, _, err = cli("encode", "-m", given, input="{}")
        assert rc == 2 and "unknown method '%s' (%s" % (given, hint) in err
        rc, _, err = cli("call", given)
        assert rc == 2 and hint in err
    with pytest.raises(ValueError, match="did you mean VoiceProfile\\?"):
        corvane.schema("VoiceProfil")
    rc, _, err = cli("schema", "VoiceProfil")
    assert rc == 2 and "unknown record 'VoiceProfil' (did you mean VoiceProfile? " in err
    rc, out, _ = cli("schema", "voiceprofile")
    assert rc == 0 and out.startswith("VoiceProfile: 31 fields")
    with pytest.raises(ValueError, match="^unknown method 'Nothing'$"):
        corvane.message("Nothing")
    with pytest.raises(ValueError, match="OnMakeCall is a notification"):
        corvane.message("OnMakeCall", "command")


def _cli_stop(body, method):
    rc, out, err = cli("--json", "decode", "-m", method, input=body)
    assert rc == 1
    return json.loads(err)


def test_a_cut_body_is_refused_where_the_library_stops():
    method = "OnMakeCall"
    body = corvane.encode(method, sample(method))
    for n in range(1, len(body)):
        with pytest.raises(corvane.DecodeError) as caught:
            corvane.decode(body[:n], method)
        e = caught.value
        assert e.status == 4 and e.method == method, n
        told = _cli_stop(body[:n], method)
        # The command line's element walk and the library's cursor agree.
        assert e.offset == told["stopped_at"], n
        assert "stopped at offset %d (0x%x)" % (e.offset, e.offset) in str(e)
        assert e.log and e.log[0].startswith("[CORVANE] -> ")
        if told["expected"]["tag"] >= 3:
            assert e.expected[0] == told["expected"]["tag"], n
            assert e.expected[1].split(".")[1].split(" ")[0] == told["expected"]["field"], n


def test_a_wrong_tag_and_a_foreign_magic():
    with open(os.path.join(DATA, "make_call_bad_tag.hex")) as f:
        body = bytes.fromhex(f.read())
    with pytest.raises(corvane.DecodeError) as caught:
        corvane.decode(body)
    e = caught.value
    assert (e.offset, e.found, e.expected) == (64, (9, 4), (6, "CorVaneMakeCall.text2 (text[32])"))
    assert str(e).startswith("OnMakeCall: the %d-byte body is refused (status 4, malformed payload): "
                             "stopped at offset 64 (0x40), expected tag 6 CorVaneMakeCall.text2 "
                             "(text[32]), found tag 9 length 4 (library: " % len(body))
    line = corvane.encode("SetLineCallState", {"value1": 1})
    foreign = line[:8] + struct.pack(">I", corvane.message("SetLineStats").magic) + line[12:]
    with pytest.raises(corvane.DecodeError, match="status 2.*the body's magic 0x20132508 is not "
                       "SetLineCallState's 0x20132509 \\(it is the magic of SetLineStats\\)"):
        corvane.decode(foreign, "SetLineCallState")
    shared = corvane.encode("SetAccountStatus", {})
    with pytest.raises(ValueError, match="shared by SetRegistrationStatus, SetPhyInterfaceStatus, "
                       "SetAccountStatus: give the method"):
        corvane.decode(shared)
    assert corvane.decode(shared, "SetAccountStatus")[0] == "SetAccountStatus"
    with pytest.raises(corvane.DecodeError, match="no magic"):
        corvane.decode(line[12:])
