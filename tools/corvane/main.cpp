// corvane: decodes, annotates and builds libCorvane's message bodies, lists
// its messages and record schemas, sends commands and notifications on the
// bus and watches the bodies that cross it.
//
// Exit status: 0 done; 1 refused (a body, JSON or input the tool cannot use,
// a command answered with a status other than 0, a send that failed, the bus
// went away); 2 bad usage (unknown name, a command given where a
// notification is due or the reverse, unreadable input, wrong kind of input,
// no bus). The verbs and options come from verbs.cpp.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iostream>
#include <map>

#include "bus_send.h"
#include "cli.h"
#include "dbus_message.h"
#include "decode_capture.h"
#include "hex_input.h"
#include "pcap.h"
#include "inspect.h"
#include "monitor.h"
#include "names.h"
#include "quib_dbus.h"
#include "send_table.h"
#include "serve.h"
#include "verbs.h"

#ifndef CORVANE_VERSION
#error "CORVANE_VERSION must be defined by the build"
#endif

namespace {

using cvi::Failure;
using cvi::Json;
using cvi::kExitOk;
using cvi::kExitRefused;
using cvi::kExitUsage;

// What the command line gave, by the keys of verbs.h (optionKey).
struct Args {
    std::map<std::string, std::string> values;
    std::map<std::string, bool> flags;
    std::map<std::string, std::vector<std::string>> lists;

    std::string value(const std::string& key, const std::string& otherwise = "") const {
        const auto it = values.find(key);
        return it == values.end() || it->second.empty() ? otherwise : it->second;
    }
    bool flag(const std::string& key) const {
        const auto it = flags.find(key);
        return it != flags.end() && it->second;
    }
    const std::vector<std::string>& list(const std::string& key) const {
        static const std::vector<std::string> kNone;
        const auto it = lists.find(key);
        return it == lists.end() ? kNone : it->second;
    }
    bool json() const { return flag("json"); }
};

std::string dumpLine(const Json& j) {
    return j.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::vector<std::string> methodNames() {
    std::vector<std::string> out;
    for (const CorVaneMessageInfo* m : cvi::allMessages()) out.emplace_back(m->name);
    return out;
}

// A method by name: exact, else case-insensitively when that is unambiguous;
// an unknown name gets the closest ones.
const CorVaneMessageInfo& message(const std::string& name) {
    const auto found = cvi::resolveName(name, methodNames());
    if (found) return *cvi::findMessage(*found);
    const std::string hint = cvi::didYouMean(name, methodNames());
    throw Failure(kExitUsage, "unknown method '" + name + "' (" + (hint.empty() ? "" : hint + " ") +
                                  "corvane list shows them all)");
}

// The message and payload of encode, call and emit: the method named on the
// command line (may be empty) and the JSON given, a payload or the whole
// entry that decode --json or monitor --json printed.
std::pair<const CorVaneMessageInfo*, Json> payloadFor(const std::string& named, const Json& json) {
    const cvi::PayloadInput in = cvi::payloadInput(json);
    const CorVaneMessageInfo* m = named.empty() ? nullptr : &message(named);
    if (in.entry) {
        const CorVaneMessageInfo& own = message(in.method);
        if (!in.problem.empty()) throw Failure(kExitRefused, std::string(own.name) + ": " + in.problem);
        if (m && m != &own)
            throw Failure(kExitUsage, std::string("the JSON is a ") + own.name + " entry, not " + m->name);
        m = &own;
    }
    if (!m) throw Failure(kExitUsage, "no method: give -m METHOD (the payload alone names none)");
    return {m, in.payload};
}

std::string magicText(uint32_t magic) {
    char b[16];
    std::snprintf(b, sizeof b, "0x%08x", magic);
    return b;
}

std::string names(const std::vector<const CorVaneMessageInfo*>& ms) {
    std::string out;
    for (const CorVaneMessageInfo* m : ms) out += (out.empty() ? "" : ", ") + std::string(m->name);
    return out;
}

// The message a body belongs to, by its magic, when no --method is given.
const CorVaneMessageInfo& messageOfMagic(std::span<const uint8_t> bytes) {
    const std::optional<uint32_t> magic = cvi::bodyMagic(bytes);
    if (!magic) {
        const std::string found =
            bytes.size() < 12 ? std::to_string(bytes.size()) + " bytes are too few for it"
                              : "the first element is tag " +
                                    std::to_string(cvi::loadBe32(bytes.data())) + " length " +
                                    std::to_string(cvi::loadBe32(bytes.data() + 4));
        throw Failure(kExitRefused, "no magic: the body does not start with the tag-0 magic "
                                    "element (" + found + ")");
    }
    const auto owners = cvi::messagesWithMagic(*magic);
    if (owners.empty())
        throw Failure(kExitRefused, "the body's magic " + magicText(*magic) + " is no message's");
    if (owners.size() > 1) {
        throw Failure(kExitUsage, "magic " + magicText(*magic) + " is shared by " + names(owners) +
                                      ": give --method");
    }
    return *owners.front();
}

// The bytes of a body given in binary: refuses an empty input and hex text.
std::vector<uint8_t> binaryBody(const std::string& raw, const std::string& where) {
    if (raw.empty()) throw Failure(kExitRefused, where + ": empty input");
    bool text = true;
    for (const char ch : raw) {
        const auto c = static_cast<unsigned char>(ch);
        text = text && ((c >= 0x20 && c < 0x7f) || c == '\t' || c == '\n' || c == '\r');
    }
    // A binary body starts with a tag-0 word, four zero bytes: never text.
    if (text) throw Failure(kExitUsage, where + ": text, not a binary body (a hex dump? add --hex)");
    return {raw.begin(), raw.end()};
}

cvi::HexDump hexBody(const std::string& raw, const std::string& where) {
    if (raw.find_first_not_of(" \t\r\n") == std::string::npos)
        throw Failure(kExitRefused, where + ": empty input");
    try {
        return cvi::parseDump(raw);
    } catch (const cvi::BinaryNotHex& e) {
        throw Failure(kExitUsage, where + ": " + e.what() + "; leave out --hex for a binary body");
    } catch (const cvi::SeveralMessages& e) {
        throw Failure(kExitUsage, where + ": " + e.what());
    } catch (const std::runtime_error& e) {
        throw Failure(kExitRefused, where + ": not a hex dump: " + e.what());
    }
}

int verbList(const Args& a) {
    if (!a.json()) {
        cvi::printMessageList(std::cout);
        return kExitOk;
    }
    for (const CorVaneMessageInfo* m : cvi::allMessages()) std::cout << dumpLine(cvi::messageJson(*m)) << '\n';
    return kExitOk;
}

int verbSchema(const Args& a) {
    const std::string name = a.value("RECORD");
    if (name.empty()) {
        for (uint32_t i = 0; const CorVaneSchema* s = corVane_recordSchemaAt(i); ++i)
            std::cout << (a.json() ? dumpLine(cvi::schemaJson(*s)) : s->name) << '\n';
        return kExitOk;
    }
    std::vector<std::string> names = methodNames();
    for (uint32_t i = 0; const CorVaneSchema* r = corVane_recordSchemaAt(i); ++i) names.emplace_back(r->name);
    for (const CorVaneMessageInfo* x : cvi::allMessages()) names.emplace_back(x->payload->name);
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    const auto found = cvi::resolveName(name, names);
    if (!found) {
        const std::string hint = cvi::didYouMean(name, names);
        throw Failure(kExitUsage, "unknown record '" + name + "' (" + (hint.empty() ? "" : hint + " ") +
                                      "corvane schema lists them)");
    }
    const CorVaneSchema* s = cvi::findSchema(*found);
    const CorVaneMessageInfo* m = cvi::findMessage(*found);
    if (a.json()) {
        Json j = cvi::schemaJson(*s);
        if (m) j["message"] = m->name;
        std::cout << dumpLine(j) << '\n';
        return kExitOk;
    }
    if (m)
        std::cout << m->name << " carries " << s->name << ": body = 24 bytes of envelope + len("
                  << s->name << ")\n";
    cvi::printSchema(std::cout, *s);
    return kExitOk;
}

// A whole D-Bus message (a frame of tshark -x, say): its "ay" body, and
// the method its member names.
std::vector<uint8_t> outOfDbusMessage(std::vector<uint8_t> bytes, const std::string& where,
                                      std::string& member) {
    if (!cvi::looksLikeDbusMessage(bytes)) return bytes;
    std::string why;
    const std::optional<cvi::DbusMessage> m = cvi::parseDbusMessage(bytes, &why);
    if (!m) throw Failure(kExitRefused, where + ": a D-Bus message that cannot be read: " + why);
    const auto body = m->byteArray();
    if (!body)
        throw Failure(kExitRefused, where + ": a D-Bus message whose body is '" + m->signature +
                                        "', not a corvane body ('ay')");
    if (m->member) member = *m->member;
    return {body->begin(), body->end()};
}

int verbDecode(const Args& a) {
    const bool annotate = a.flag("annotate");
    if (annotate && a.json()) throw Failure(kExitUsage, "--annotate and --json exclude each other");
    const std::string method = a.value("method");
    const CorVaneMessageInfo* named = method.empty() ? nullptr : &message(method);
    const std::string path = a.value("FILE", "-");
    const std::string where = path == "-" ? "standard input" : path;
    const std::string raw = cvi::readInput(path);
    const std::span<const uint8_t> rawBytes(reinterpret_cast<const uint8_t*>(raw.data()), raw.size());
    if (!a.flag("hex") && cvi::isCaptureFile(rawBytes)) {
        if (annotate) throw Failure(kExitUsage, where + " is a capture: --annotate shows one body");
        cvi::CaptureDecodeOptions o;
        o.json = a.json();
        o.fold = !a.flag("all");
        if (named) o.only.push_back(named);
        return cvi::decodeCapture(rawBytes, where, o);
    }
    std::string member;  // of the D-Bus message around the body, if any
    std::vector<uint8_t> bytes;
    if (a.flag("hex")) {
        cvi::HexDump dump = hexBody(raw, where);
        member = dump.member;
        bytes = outOfDbusMessage(std::move(dump.bytes), where, member);
    } else {
        bytes = outOfDbusMessage(binaryBody(raw, where), where, member);
    }
    if (!named && !member.empty()) named = cvi::findMessage(member);
    const CorVaneMessageInfo& m = named ? *named : messageOfMagic(bytes);

    const cvi::Decoded d = cvi::decodeBody(m, bytes);
    if (annotate) cvi::printAnnotated(std::cout, m, bytes, d.walk);
    if (d.status != CORVANE_OK) {
        if (d.status == CORVANE_E_ELEMENT && !a.json()) {
            // Where the payload stopped, with the library's own lines.
            std::cout.flush();
            cvi::printFailure(std::cerr, m, bytes, d);
            return kExitRefused;
        }
        throw Failure(kExitRefused, cvi::failureLine(m, bytes, d), cvi::failureJson(m, bytes, d));
    }
    if (a.json()) {
        std::cout << dumpLine(cvi::decodedJson(m, bytes, d)) << '\n';
        return kExitOk;
    }
    if (!annotate) cvi::printDecoded(std::cout, m, d);
    if (d.walk.end < bytes.size()) {
        std::cerr << "note: " << bytes.size() - d.walk.end << " bytes after the payload (from offset "
                  << d.walk.end << ") were not read\n";
    }
    return kExitOk;
}

int verbEncode(const Args& a) {
    const std::string path = a.value("FILE", "-");
    const auto [method, payload] = payloadFor(a.value("method"), cvi::payloadArgument("@" + path));
    const CorVaneMessageInfo& m = *method;
    const cvi::Encoded e = cvi::encodeBody(m, payload);
    if (!e.errors.empty()) {
        Json detail{{"method", m.name}, {"errors", e.errors}, {"log", e.log}};
        throw Failure(kExitRefused, cvi::errorLine(m.name, e.errors), detail);
    }
    const std::string output = a.value("output", "-");
    std::ofstream file;
    if (output != "-") {
        file.open(output, std::ios::binary);
        if (!file) throw Failure(kExitUsage, "cannot write " + output);
    }
    if (!file.is_open() && !a.flag("hex") && !a.json() && isatty(STDOUT_FILENO))
        throw Failure(kExitUsage, "binary output to a terminal: use --hex or --output FILE");
    if (file.is_open() || !a.json()) {
        std::ostream& out = file.is_open() ? file : std::cout;
        if (a.flag("hex"))
            cvi::printHex(out, e.bytes);
        else
            out.write(reinterpret_cast<const char*>(e.bytes.data()),
                      static_cast<std::streamsize>(e.bytes.size()));
        out.flush();
        if (!out) throw Failure(kExitUsage, "cannot write " + output);
    }
    if (a.json()) {
        Json j{{"method", m.name}, {"bytes", e.bytes.size()}};
        if (file.is_open()) {
            j["output"] = output;
        } else {
            static const char kHex[] = "0123456789abcdef";
            std::string hex;
            for (uint8_t b : e.bytes) (hex += kHex[b >> 4]) += kHex[b & 15];
            j["hex"] = hex;
        }
        std::cout << dumpLine(j) << '\n';
    }
    return kExitOk;
}

// A whole number given to an option, from 1 to max; 0 when not given.
uint64_t numberOption(const Args& a, const std::string& key, uint64_t max, const char* what) {
    const std::string t = a.value(key);
    if (t.empty()) return 0;
    char* end = nullptr;
    errno = 0;
    const unsigned long long v = std::strtoull(t.c_str(), &end, 10);
    if (t[0] < '0' || t[0] > '9' || *end || errno || v < 1 || v > max)
        throw Failure(kExitUsage, "--" + key + " takes " + what + ", 1 to " + std::to_string(max) +
                                      ": '" + t + "'");
    return v;
}

cvi::WatchOptions watchOptions(const Args& a) {
    cvi::WatchOptions o;
    for (const std::string& name : a.list("METHOD")) o.only.push_back(&message(name));
    o.json = a.json();
    o.fold = !a.flag("all");
    o.count = numberOption(a, "count", 1'000'000'000, "a number of messages");
    o.timeoutMs = numberOption(a, "timeout", 86'400'000, "milliseconds");
    return o;
}

int verbMonitor(const Args& a) {
    const cvi::WatchOptions o = watchOptions(a);
    return cvi::runMonitor(cvi::busAddress(a.value("bus")), o);
}

int verbCapture(const Args& a) {
    const cvi::WatchOptions o = watchOptions(a);
    return cvi::runCapture(cvi::busAddress(a.value("bus")), o, a.value("output", "-"));
}

// A status as the README's tables give it: the library's in decimal, the
// middleware's (0x61...) in hex.
std::string statusNumber(uint32_t status) {
    char b[16];
    std::snprintf(b, sizeof b, status < 0x60 ? "%u" : "0x%x", status);
    return b;
}

// call and emit: the method's payload from its JSON, sent from a user of
// this process; one line (or object) for the outcome.
int sendVerb(const Args& a, uint8_t intf) {
    // A lone @FILE or JSON object in the method's place: an entry that names it.
    std::string named = a.value("METHOD"), given = a.value("PAYLOAD");
    if (given.empty() && (named.starts_with("@") || named.starts_with("{"))) std::swap(named, given);
    const auto [method, json] =
        payloadFor(named, given.empty() ? Json::object() : cvi::payloadArgument(given));
    const CorVaneMessageInfo& m = *method;
    const bool command = intf == CORVANE_INTF_CMD;
    if (m.intf != intf) {
        throw Failure(kExitUsage, std::string(m.name) + " is a " + (command ? "notification" : "command") +
                                      ": send it with corvane " + (command ? "emit" : "call"));
    }
    std::unique_ptr<void, decltype(&std::free)> payload(std::calloc(1, m.payload->size), std::free);
    if (!payload) throw Failure(kExitRefused, "out of memory");
    const std::vector<std::string> errors = cvi::recordFromJson(*m.payload, json, payload.get());
    if (!errors.empty())
        throw Failure(kExitRefused, cvi::errorLine(m.name, errors), Json{{"method", m.name}, {"errors", errors}});
    uint32_t timeoutMs = 0;
    if (const std::string t = a.value("timeout"); !t.empty()) {
        char* end = nullptr;
        const unsigned long ms = std::strtoul(t.c_str(), &end, 10);
        if (t[0] < '0' || t[0] > '9' || *end || ms < 1 || ms > 600000)
            throw Failure(kExitUsage, "--timeout takes milliseconds, 1 to 600000: '" + t + "'");
        timeoutMs = static_cast<uint32_t>(ms);
    }
    const std::string address = cvi::busAddress(a.value("bus"));
    const std::string to = command ? a.value("to", "mgmt") : a.value("to");

    const cvi::SendOutcome o = cvi::sendOnBus(address, *cvi::findSendEntry(m.name), to,
                                              payload.get(), timeoutMs);
    Json j{{"method", m.name}, {"from", o.from}};
    if (command || !to.empty()) j["to"] = to;
    if (!command && o.joined) j["subscribers"] = o.subscribers;
    if (o.toPid >= 0) j["to_pid"] = o.toPid;
    j["status"] = o.status;
    j["status_text"] = quibDbus_strerror(o.status);
    if (!o.joined) {
        j["bus"] = address;
        j["log"] = o.log;
        throw Failure(kExitRefused, "cannot join the bus at " + address + " as " + o.from + ": " +
                                        quibDbus_strerror(o.status) + " (status " +
                                        statusNumber(o.status) + ")", j);
    }
    std::string line = std::string(m.name) + " -> " + (to.empty() ? "*" : to);
    if (o.toPid >= 0) line += "[" + std::to_string(o.toPid) + "]";
    if (!command)
        line += o.subscribers == 0 ? " (no subscriber)"
                                   : " (" + std::to_string(o.subscribers) +
                                         (o.subscribers == 1 ? " subscriber)" : " subscribers)");
    line += ": status " + statusNumber(o.status) + " (" + quibDbus_strerror(o.status);
    if (o.status == QUIB_DBUS_E_TIMEOUT)
        line += ", " + std::to_string(o.timeoutMs) + " ms; the command may still have run";
    line += ")";
    if (o.status != 0) {
        j["log"] = o.log;
        throw Failure(kExitRefused, line, j);
    }
    std::cout << (a.json() ? dumpLine(j) : line) << '\n';
    return kExitOk;
}

int verbCall(const Args& a) { return sendVerb(a, CORVANE_INTF_CMD); }
int verbEmit(const Args& a) { return sendVerb(a, CORVANE_INTF_NTFY); }

// A whole number within [lo, hi] given to an option.
uint64_t number(const Args& a, const std::string& key, uint64_t lo, uint64_t hi, const char* what) {
    const std::string t = a.value(key);
    char* end = nullptr;
    const unsigned long long v = std::strtoull(t.c_str(), &end, 10);
    if (t.empty() || t[0] < '0' || t[0] > '9' || *end || v < lo || v > hi)
        throw Failure(kExitUsage, "--" + key + " takes " + what + ", " + std::to_string(lo) + " to " +
                                      std::to_string(hi) + ": '" + t + "'");
    return v;
}

int verbServe(const Args& a) {
    cvi::ServeOptions o;
    o.name = a.value("name", "mgmt");
    for (const std::string& spec : a.list("answer")) cvi::addAnswers(o, spec);
    if (!a.value("count").empty()) o.count = number(a, "count", 1, UINT32_MAX, "a number of commands");
    if (!a.value("timeout").empty())
        o.timeoutMs = static_cast<uint32_t>(number(a, "timeout", 1, 86400000, "milliseconds"));
    o.json = a.json();
    o.address = cvi::busAddress(a.value("bus"));
    return cvi::runServe(o);
}

const std::map<std::string, int (*)(const Args&)> kHandlers = {
    {"list", verbList},     {"schema", verbSchema},   {"decode", verbDecode},
    {"encode", verbEncode}, {"monitor", verbMonitor}, {"call", verbCall},
    {"emit", verbEmit},     {"serve", verbServe},     {"capture", verbCapture},
};

void addOptions(CLI::App& app, std::span<const cvi::OptionDef> options, Args& args) {
    for (const cvi::OptionDef& o : options) {
        const std::string key = cvi::optionKey(o);
        CLI::Option* opt;
        if (!o.value)
            opt = app.add_flag(o.names, args.flags[key], o.help);
        else if (o.many)
            opt = app.add_option(o.names, args.lists[key], o.help);
        else
            opt = app.add_option(o.names, args.values[key], o.help);
        if (o.value && !cvi::isPositional(o)) opt->type_name(o.value);
        if (o.required) opt->required();
    }
}

void printError(bool json, const Failure& f) {
    if (json) {
        Json j{{"error", f.what()}};
        for (const auto& [k, v] : f.detail.items())
            if (k != "error") j[k] = v;
        std::cerr << dumpLine(j) << '\n';
    } else {
        std::cerr << "corvane: " << f.what() << '\n';
    }
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"corvane: decode, build, send and watch libCorvane message bodies"};
    app.fallthrough();
    app.require_subcommand(0, 1);
    Args args;
    addOptions(app, cvi::globalOptions(), args);
    bool version = false;
    std::string generate;
    app.add_flag("--version", version, "Print the version and exit");
    app.add_option("--generate", generate)
        ->check(CLI::IsMember({"man", "bash-completion", "wireshark-lua"}))
        ->group("");
    for (const cvi::VerbDef& v : cvi::verbTable()) {
        CLI::App* sub = app.add_subcommand(v.name, v.summary);
        addOptions(*sub, v.options, args);
    }

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        printError(args.json(), Failure(kExitUsage, std::string(e.what()) + " (corvane --help shows the verbs)"));
        return kExitUsage;
    }
    try {
        if (version) {
            if (args.json())
                std::cout << dumpLine(Json{{"name", "corvane"}, {"version", CORVANE_VERSION}}) << '\n';
            else
                std::cout << "corvane " << CORVANE_VERSION << '\n';
            return kExitOk;
        }
        if (!generate.empty()) {
            std::cout << (generate == "man"             ? cvi::manPage(CORVANE_VERSION)
                          : generate == "wireshark-lua" ? cvi::dissectorTables(CORVANE_VERSION)
                                                        : cvi::bashCompletion());
            return kExitOk;
        }
        for (CLI::App* sub : app.get_subcommands()) return kHandlers.at(sub->get_name())(args);
        throw Failure(kExitUsage, "no verb given (corvane --help shows them)");
    } catch (const Failure& f) {
        std::cout.flush();
        printError(args.json(), f);
        return f.exitStatus;
    }
}
