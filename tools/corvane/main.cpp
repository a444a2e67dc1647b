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
#include <fstream>
#include <iostream>
#include <map>

#include "bus_send.h"
#include "cli.h"
#include "hex_input.h"
#include "inspect.h"
#include "monitor.h"
#include "quib_dbus.h"
#include "send_table.h"
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

const CorVaneMessageInfo& message(const std::string& name) {
    const CorVaneMessageInfo* m = cvi::findMessage(name);
    if (!m) throw Failure(kExitUsage, "unknown method '" + name + "' (corvane list shows them all)");
    return *m;
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

std::vector<uint8_t> hexBody(const std::string& raw, const std::string& where) {
    if (raw.find_first_not_of(" \t\r\n") == std::string::npos)
        throw Failure(kExitRefused, where + ": empty input");
    try {
        return cvi::parseHex(raw);
    } catch (const cvi::BinaryNotHex& e) {
        throw Failure(kExitUsage, where + ": " + e.what() + "; leave out --hex for a binary body");
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
    const CorVaneSchema* s = cvi::findSchema(name);
    if (!s) throw Failure(kExitUsage, "unknown record '" + name + "' (corvane schema lists them)");
    const CorVaneMessageInfo* m = cvi::findMessage(name);
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

int verbDecode(const Args& a) {
    const bool annotate = a.flag("annotate");
    if (annotate && a.json()) throw Failure(kExitUsage, "--annotate and --json exclude each other");
    const std::string method = a.value("method");
    const CorVaneMessageInfo* named = method.empty() ? nullptr : &message(method);
    const std::string path = a.value("FILE", "-");
    const std::string where = path == "-" ? "standard input" : path;
    const std::string raw = cvi::readInput(path);
    const std::vector<uint8_t> bytes = a.flag("hex") ? hexBody(raw, where) : binaryBody(raw, where);
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
    const CorVaneMessageInfo& m = message(a.value("method"));
    const std::string path = a.value("FILE", "-");
    const cvi::Json payload = cvi::payloadArgument("@" + path);
    const cvi::Encoded e = cvi::encodeBody(m, payload);
    if (!e.errors.empty()) {
        Json detail{{"method", m.name}, {"errors", e.errors}, {"log", e.log}};
        std::string line = std::string(m.name) + ": " + e.errors.front();
        if (e.errors.size() > 1) line += " (and " + std::to_string(e.errors.size() - 1) + " more)";
        if (!a.json()) {
            for (size_t i = 1; i < e.errors.size(); ++i)
                std::cerr << "corvane: " << m.name << ": " << e.errors[i] << '\n';
        }
        throw Failure(kExitRefused, line, detail);
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

int verbMonitor(const Args& a) {
    std::vector<const CorVaneMessageInfo*> only;
    for (const std::string& name : a.list("METHOD")) only.push_back(&message(name));
    return cvi::runMonitor(cvi::busAddress(a.value("bus")), only, a.json());
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
    const CorVaneMessageInfo& m = message(a.value("METHOD"));
    const bool command = intf == CORVANE_INTF_CMD;
    if (m.intf != intf) {
        throw Failure(kExitUsage, std::string(m.name) + " is a " + (command ? "notification" : "command") +
                                      ": send it with corvane " + (command ? "emit" : "call"));
    }
    const std::string given = a.value("PAYLOAD");
    const Json json = given.empty() ? Json::object() : cvi::payloadArgument(given);
    std::unique_ptr<void, decltype(&std::free)> payload(std::calloc(1, m.payload->size), std::free);
    if (!payload) throw Failure(kExitRefused, "out of memory");
    const std::vector<std::string> errors = cvi::recordFromJson(*m.payload, json, payload.get());
    if (!errors.empty()) {
        std::string line = std::string(m.name) + ": " + errors.front();
        if (errors.size() > 1) line += " (and " + std::to_string(errors.size() - 1) + " more)";
        throw Failure(kExitRefused, line, Json{{"method", m.name}, {"errors", errors}});
    }
    uint32_t timeoutMs = 0;
    if (const std::string t = a.value("timeout"); !t.empty()) {
        char* end = nullptr;
        const unsigned long ms = std::strtoul(t.c_str(), &end, 10);
        if (t[0] < '0' || t[0] > '9' || *end || ms < 1 || ms > 600000)
            throw Failure(kExitUsage, "--timeout takes milliseconds, 1 to 600000: '" + t + "'");
        timeoutMs = static_cast<uint32_t>(ms);
    }
    const std::string address = cvi::busAddress(a.value("bus"));
    const std::string to = command ? a.value("to", "mgmt") : "";

    const cvi::SendOutcome o = cvi::sendOnBus(address, *cvi::findSendEntry(m.name), to,
                                              payload.get(), timeoutMs);
    Json j{{"method", m.name}, {"from", o.from}};
    if (command) j["to"] = to;
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
    std::string line = std::string(m.name) + " -> " + (command ? to : "*");
    if (o.toPid >= 0) line += "[" + std::to_string(o.toPid) + "]";
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

const std::map<std::string, int (*)(const Args&)> kHandlers = {
    {"list", verbList},     {"schema", verbSchema},   {"decode", verbDecode},
    {"encode", verbEncode}, {"monitor", verbMonitor}, {"call", verbCall},
    {"emit", verbEmit},
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
    app.add_option("--generate", generate)->check(CLI::IsMember({"man", "bash-completion"}))->group("");
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
            std::cout << (generate == "man" ? cvi::manPage(CORVANE_VERSION) : cvi::bashCompletion());
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
