#include "verbs.h"

namespace cvi {
namespace {

const OptionDef kGlobal[] = {
    {"--json", nullptr, "One JSON object per line on standard output; errors as {\"error\": ...} on standard error"},
    {"--bus", "ADDRESS", "D-Bus address of the bus, or system, or user (default: $CORVANE_BUS)"},
};

const OptionDef kSchema[] = {
    {"RECORD", "RECORD", "Record type, or a method for its payload; none lists the record types",
     Complete::kRecord},
};

const OptionDef kDecode[] = {
    {"-m,--method", "METHOD", "The body's method (by default the one whose magic the body carries); of a capture, show only that method",
     Complete::kMethod},
    {"--hex", nullptr, "The input is a hex dump (plain, xxd, hexdump -C, 0x list, log lines, dbus-monitor, busctl monitor, tshark -x)"},
    {"--annotate", nullptr, "Every element with its offset, bytes, tag, length, field and value"},
    {"--all", nullptr, "Of a capture, every field and entry, also runs of zero or empty ones"},
    {"FILE", "FILE", "The body (binary, or hex with --hex), a D-Bus message, or a pcap or pcapng capture; - or none for standard input",
     Complete::kFile},
};

const OptionDef kEncode[] = {
    {"-m,--method", "METHOD", "The method whose body to build (default: the \"method\" of an entry that decode --json or monitor --json printed)",
     Complete::kMethod},
    {"--hex", nullptr, "Write hex digits instead of binary"},
    {"-o,--output", "OUT", "Write to OUT instead of standard output", Complete::kFile},
    {"FILE", "FILE", "The payload as JSON, or the whole entry that decode --json or monitor --json printed; - or none for standard input", Complete::kFile},
};

const OptionDef kMonitor[] = {
    {"--count", "N", "Stop after N commands, notifications and answers"},
    {"--timeout", "MS", "Stop after MS milliseconds (exit 1 if --count was given and not reached)"},
    {"--all", nullptr, "Every field and entry, also runs of zero or empty ones"},
    {"METHOD", "METHOD", "Show only these methods (and the answers to them)", Complete::kMethod,
     true},
};

const OptionDef kCapture[] = {
    {"-o,--output", "FILE", "Write the pcapng file to FILE instead of standard output", Complete::kFile},
    {"--count", "N", "Stop after N commands, notifications and answers"},
    {"--timeout", "MS", "Stop after MS milliseconds (exit 1 if --count was given and not reached)"},
    {"METHOD", "METHOD", "Capture only these methods (and the answers to them)", Complete::kMethod,
     true},
};

const OptionDef kCall[] = {
    {"--to", "USER", "The user that serves the command (default: mgmt)"},
    {"--timeout", "MS", "Wait at most MS milliseconds for the answer (default: $CORVANE_BUS_TIMEOUT_MS, else 5000)"},
    {"METHOD", "METHOD", "The command", Complete::kCommand, false, true},
    {"PAYLOAD", "JSON|@FILE", "The payload as JSON, or @FILE (@- for standard input); none: all zero"},
};

const OptionDef kEmit[] = {
    {"--to", "USER", "Send it to this subscriber alone (default: every subscriber)"},
    {"METHOD", "METHOD", "The notification", Complete::kNotification, false, true},
    {"PAYLOAD", "JSON|@FILE", "The payload as JSON, or @FILE (@- for standard input); none: all zero"},
};

const OptionDef kServe[] = {
    {"--name", "USER", "The user to serve as (default: mgmt)"},
    {"--answer", "METHOD=STATUS", "Answer METHOD with STATUS (decimal or 0x hex; * for the other commands), or @FILE: a JSON object of them; repeatable (default: 0)",
     Complete::kNone, true},
    {"--count", "N", "Exit 0 once N commands are answered"},
    {"--timeout", "MS", "Exit after MS milliseconds: 0, or 1 when --count commands did not come"},
};

const VerbDef kVerbs[] = {
    {"list", "List the 49 messages: interface, index, name, magic, key, payload",
     "Lists the 19 commands and the 30 notifications in table order with their interface, "
     "method index, name, body magic, response or subscription key and payload type.",
     {}},
    {"schema", "Show a record's fields, tags, capacities and wire length",
     "Shows a record type's fields in order with their tags (reserved tags of nested records "
     "and arrays in parentheses), kinds and capacities, the bytes each takes on the wire and "
     "the formula of the record's wire length. Given a method, shows its payload.",
     kSchema},
    {"decode", "Decode a serialised body field by field, or a capture",
     "Reads a serialised body through the library's bounded decoder and prints its payload. "
     "A body that does not decode is shown with where decoding stopped, what was found and "
     "expected there, and the library's log lines. Without --method the body's magic names "
     "the message (or the member of the D-Bus message holding it); a magic that several "
     "messages share needs --method. A pcap or pcapng file (corvane capture, busctl capture, "
     "dbus-monitor --pcap) is recognised by its magic: every corvane message in it is shown "
     "as monitor shows it, with its frame number and time, and the other frames are counted.",
     kDecode},
    {"encode", "Build the body of a JSON payload",
     "Fills the method's payload from a JSON object (member names are the keys, nested "
     "records are objects, arrays are arrays; missing fields are zero or empty) and writes "
     "the body as the library serialises it. The whole entry that decode --json or monitor "
     "--json printed for a body is taken as it is (its method, unless -m names it, and its "
     "payload), and gives the same bytes. Numbers are JSON numbers. A count field is kept as "
     "given and min(count, capacity) entries are written, those not given all zero, as the "
     "library does; entries past the count are refused. Unknown fields, over-long texts, "
     "quoted or out-of-range numbers are refused, naming every field at fault.",
     kEncode},
    {"monitor", "Print every body that crosses the bus, decoded",
     "Watches the bus (--bus or $CORVANE_BUS) as a D-Bus monitor and prints every command, "
     "notification and answer: sender and receiver (user names, process ids), method and "
     "decoded fields, the status of each answer. A body that does not decode is shown with "
     "where decoding stopped; runs of three or more zero or empty fields, and of two or "
     "more such array entries, take one line (--all shows them). Runs until interrupted, "
     "--count messages or --timeout (exit 0), or until the bus goes away (exit 1).",
     kMonitor},
    {"capture", "Write the corvane traffic on the bus to a pcapng file",
     "Watches the bus as monitor does and writes every command, notification and answer, and "
     "each change of a user name's owner, as a packet of a pcapng file in the D-Bus link type "
     "(231) as busctl capture writes it, which Wireshark, tshark and corvane decode read "
     "(corvane.lua shows its fields in Wireshark); each packet's comment "
     "names its sender and receiver with their process ids. Each packet is written as it "
     "comes, so the file is whole whenever the capture stops: interrupted (Ctrl-C, SIGTERM), "
     "after --count messages or --timeout (exit 0), or when the bus goes away (exit 1).",
     kCapture},
    {"call", "Send one command and print the answer's status",
     "Sends one command to a user on the bus (--to, by default mgmt, the management side) "
     "through the library's send function, from a user of its own named corvane-PID, and "
     "prints the status of the answer. The payload's fields are the keys of the JSON "
     "object, as encode takes them (the scalar payloads' are value1, value2, ..., text1, "
     "..., repeaterId, enable), or the whole entry decode --json or monitor --json printed "
     "(then METHOD may be left out); missing fields are zero or empty. Exits 0 when the status "
     "is 0, else 1 with one line naming the status: no server (nobody owns the name), a "
     "timeout, a body the server refused, no handler (20).",
     kCall},
    {"emit", "Send one notification",
     "Sends one notification from a user of its own named corvane-PID, its payload given as "
     "for call: a signal to each subscriber of it on the bus (--to: to that user alone), and "
     "prints to how many it went. Exits 0 when the middleware has sent it (to no subscriber "
     "too: there was none), else 1 with one line naming the status.",
     kEmit},
    {"serve", "Serve the commands as the management side and print each one",
     "Serves every command as a user of its own on the bus (--name, by default mgmt), as the "
     "management daemon does, and answers each with 0, or the status --answer gives it. "
     "Prints each command received, decoded: text, or with --json one object per line with "
     "the keys of monitor --json's call entries and the answer's status. Runs until --count "
     "commands are answered or --timeout passes, or until interrupted (exit 0); exits 1 when "
     "--count commands did not come in --timeout, or the bus went away.",
     kServe},
};

}  // namespace

std::span<const VerbDef> verbTable() { return kVerbs; }
std::span<const OptionDef> globalOptions() { return kGlobal; }

bool isPositional(const OptionDef& o) { return o.names[0] != '-'; }

std::string optionKey(const OptionDef& o) {
    const std::string names = o.names;
    if (isPositional(o)) return names;
    const size_t longName = names.find("--");
    const size_t start = longName == std::string::npos ? 1 : longName + 2;
    return names.substr(start, names.find(',', start) - start);
}

}  // namespace cvi
