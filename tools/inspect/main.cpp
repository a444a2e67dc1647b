// corvane-inspect: decodes, annotates and builds serialised message bodies
// of libCorvane, and lists its messages and record schemas.
//
// Exit status: 0 done; 1 the body or the JSON was refused; 2 bad usage
// (unknown method or record, unreadable input).
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include "inspect.h"

namespace {

constexpr int kRefused = 1;
constexpr int kUsage = 2;

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

std::string readInput(const std::string& path) {
    if (path == "-") {
        std::ostringstream ss;
        ss << std::cin.rdbuf();
        return ss.str();
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) throw UsageError("cannot read " + path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

const CorVaneMessageInfo& message(const std::string& name) {
    const CorVaneMessageInfo* m = cvi::findMessage(name);
    if (!m) throw UsageError("unknown method '" + name + "' (corvane-inspect list shows them all)");
    return *m;
}

int decode(const std::string& method, const std::string& path, bool hex, bool json,
           bool annotate) {
    const CorVaneMessageInfo& m = message(method);
    const std::string raw = readInput(path);
    std::vector<uint8_t> bytes;
    if (hex) {
        try {
            bytes = cvi::parseHex(raw);
        } catch (const std::runtime_error& e) {
            throw UsageError(path + ": " + e.what());
        }
    } else {
        bytes.assign(raw.begin(), raw.end());
    }
    const cvi::Decoded d = cvi::decodeBody(m, bytes);
    if (annotate) cvi::printAnnotated(std::cout, m, bytes, d.walk);
    if (d.status != CORVANE_OK) {
        std::cout.flush();
        cvi::printFailure(std::cerr, m, bytes, d);
        return kRefused;
    }
    if (json) {
        std::cout << cvi::recordToJson(*m.payload, static_cast<const uint8_t*>(d.body.get()) +
                                                       CORVANE_BODY_PAYLOAD_OFFSET)
                         .dump(2, ' ', false, cvi::Json::error_handler_t::replace)
                  << '\n';
    } else if (!annotate) {
        cvi::printDecoded(std::cout, m, d);
    }
    if (const std::string other = cvi::magicMismatch(m, bytes); !other.empty())
        std::cerr << "note: " << other << '\n';
    if (d.walk.end < bytes.size()) {
        std::cerr << "note: " << bytes.size() - d.walk.end << " bytes after the payload (from offset "
                  << d.walk.end << ") were not read\n";
    }
    return 0;
}

int encode(const std::string& method, const std::string& path, bool hex,
           const std::string& output) {
    const CorVaneMessageInfo& m = message(method);
    cvi::Json payload;
    try {
        payload = cvi::Json::parse(readInput(path));
    } catch (const cvi::Json::parse_error& e) {
        std::cerr << "corvane-inspect: " << path << ": not JSON: " << e.what() << '\n';
        return kRefused;
    }
    const cvi::Encoded e = cvi::encodeBody(m, payload);
    if (!e.errors.empty()) {
        for (const std::string& err : e.errors)
            std::cerr << "corvane-inspect: " << m.name << ": " << err << '\n';
        for (const std::string& line : e.log) std::cerr << "  " << line << '\n';
        return kRefused;
    }
    std::ofstream file;
    if (!output.empty() && output != "-") {
        file.open(output, std::ios::binary);
        if (!file) throw UsageError("cannot write " + output);
    }
    std::ostream& out = file.is_open() ? file : std::cout;
    if (hex) {
        cvi::printHex(out, e.bytes);
    } else {
        if (!file.is_open() && isatty(STDOUT_FILENO))
            throw UsageError("binary output to a terminal: use --hex or --output FILE");
        out.write(reinterpret_cast<const char*>(e.bytes.data()),
                  static_cast<std::streamsize>(e.bytes.size()));
    }
    return 0;
}

int schema(const std::string& name) {
    if (name.empty()) {
        for (uint32_t i = 0; const CorVaneSchema* s = corVane_recordSchemaAt(i); ++i)
            std::cout << s->name << '\n';
        return 0;
    }
    const CorVaneSchema* s = cvi::findSchema(name);
    if (!s) throw UsageError("unknown record '" + name + "' (corvane-inspect schema lists them)");
    if (const CorVaneMessageInfo* m = cvi::findMessage(name))
        std::cout << m->name << " carries " << s->name << ": body = 24 bytes of envelope + len("
                  << s->name << ")\n";
    cvi::printSchema(std::cout, *s);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"corvane-inspect: read, annotate and build libCorvane message bodies"};
    app.require_subcommand(1);

    std::string method, path = "-", output, record;
    bool hex = false, json = false, annotate = false;

    CLI::App* dec = app.add_subcommand("decode", "Print a serialised body field by field");
    dec->add_option("--method,-m", method, "Method name, e.g. SetLineStats")->required();
    dec->add_option("file", path, "Body to read (binary, or hex with --hex); - for stdin");
    dec->add_flag("--hex", hex, "The input is hex digits (whitespace allowed)");
    auto* jsonFlag = dec->add_flag("--json", json, "Print the payload as JSON");
    dec->add_flag("--annotate", annotate,
                  "Annotated hex dump: offset, bytes, tag, length, field path, value")
        ->excludes(jsonFlag);

    CLI::App* enc = app.add_subcommand("encode", "Write the body for a JSON payload");
    enc->add_option("--method,-m", method, "Method name, e.g. OnAddObjectAccount")->required();
    enc->add_option("file", path, "JSON payload; - for stdin");
    enc->add_flag("--hex", hex, "Write hex digits instead of binary");
    enc->add_option("--output,-o", output, "Write to FILE instead of stdout");

    CLI::App* lst = app.add_subcommand("list", "The 49 messages");
    CLI::App* sch = app.add_subcommand("schema", "A record's fields, tags and wire length");
    sch->add_option("record", record, "Record type (or method) name; none lists the records");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : kUsage;  // --help is not an error
    }
    try {
        if (*dec) return decode(method, path, hex, json, annotate);
        if (*enc) return encode(method, path, hex, output);
        if (*lst) {
            cvi::printMessageList(std::cout);
            return 0;
        }
        return schema(record);
    } catch (const UsageError& e) {
        std::cerr << "corvane-inspect: " << e.what() << '\n';
        return kUsage;
    }
}
