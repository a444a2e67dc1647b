#include "hex_input.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <regex>
#include <string>

namespace cvi {
namespace {

enum class Layout { kPipe, kColon, kCList, kPlain };

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool isHex(std::string_view s) {
    if (s.empty()) return false;
    for (char c : s)
        if (hexDigit(c) < 0) return false;
    return true;
}

bool hasHexPrefix(std::string_view t) {
    return t.size() > 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X');
}

std::string hexByte(unsigned v) {
    char b[8];
    std::snprintf(b, sizeof b, "0x%02x", v);
    return b;
}

struct LineError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// "Mar  3 10:12:01 gw voice[812]: " and "2024-03-03T10:12:01+01:00 gw voice[812]: ".
const std::regex& syslogPrefix() {
    static const std::regex re(
        R"(^(?:[A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2}(?:\.[0-9]+)?)"
        R"(|[0-9]{4}-[0-9]{2}-[0-9]{2}[T ][0-9:.]+(?:Z|[+-][0-9:]+)?) \S+ [^\s:]+: ?)");
    return re;
}

std::vector<std::string> splitLines(std::string_view text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string_view::npos) end = text.size();
        std::string line(text.substr(start, end - start));
        if (!line.empty() && line.back() == '\r') line.pop_back();
        std::smatch m;
        if (std::regex_search(line, m, syslogPrefix())) line.erase(0, m.length(0));
        lines.push_back(std::move(line));
        start = end + 1;
    }
    return lines;
}

std::vector<std::string> tokens(std::string_view s, std::string_view separators) {
    std::vector<std::string> out;
    size_t i = 0;
    while (i < s.size()) {
        while (i < s.size() && separators.find(s[i]) != std::string_view::npos) ++i;
        size_t j = i;
        while (j < s.size() && separators.find(s[j]) == std::string_view::npos) ++j;
        if (j > i) out.emplace_back(s.substr(i, j - i));
        i = j;
    }
    return out;
}

void appendHex(std::vector<uint8_t>& out, std::string_view digits) {
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back(static_cast<uint8_t>(hexDigit(digits[i]) << 4 | hexDigit(digits[i + 1])));
}

Layout layoutOf(const std::vector<std::string>& lines) {
    static const std::regex pipe(R"(^[0-9a-fA-F]{4,}  [0-9a-fA-F]{2}( |$).*\|)");
    static const std::regex colon(R"(^(0[xX])?[0-9a-fA-F]+:(\s|$))");
    static const std::regex clist(R"((^|[\s,{])0[xX][0-9a-fA-F])");
    bool hasColon = false, hasCList = false;
    for (const std::string& l : lines) {
        if (std::regex_search(l, pipe)) return Layout::kPipe;
        hasColon = hasColon || std::regex_search(l, colon);
        hasCList = hasCList || std::regex_search(l, clist);
    }
    return hasColon ? Layout::kColon : hasCList ? Layout::kCList : Layout::kPlain;
}

// The rows of an offset dump: each line's offset is checked against the
// bytes read so far; after a `*` line the previous row is repeated up to it.
class OffsetRows {
public:
    std::vector<uint8_t> bytes;

    void repeat() {
        if (lastRow_.empty()) throw LineError("'*' before any row");
        pendingRepeat_ = true;
    }

    void row(uint64_t offset, const std::vector<uint8_t>& data) {
        reach(offset);
        bytes.insert(bytes.end(), data.begin(), data.end());
        if (!data.empty()) lastRow_ = data;
        if (firstRow_ == 0) firstRow_ = data.size();
    }

    // A line that holds only an offset: the end of the dump.
    void end(uint64_t offset) { reach(offset); }

    // Bytes of the first row; 0 before it.
    size_t rowWidth() const { return firstRow_; }

private:
    std::vector<uint8_t> lastRow_;
    size_t firstRow_ = 0;
    bool pendingRepeat_ = false;

    void reach(uint64_t offset) {
        if (pendingRepeat_) {
            while (bytes.size() < offset) {
                if (offset - bytes.size() < lastRow_.size())
                    throw LineError("a '*' repeat does not end on a row boundary");
                bytes.insert(bytes.end(), lastRow_.begin(), lastRow_.end());
            }
            pendingRepeat_ = false;
        }
        if (offset != bytes.size()) {
            char b[96];
            std::snprintf(b, sizeof b, "offset 0x%llx, but 0x%zx bytes come before it",
                          static_cast<unsigned long long>(offset), bytes.size());
            throw LineError(b);
        }
    }
};

uint64_t parseOffset(std::string_view token) {
    if (hasHexPrefix(token)) token.remove_prefix(2);
    if (!isHex(token) || token.size() > 12)
        throw LineError("not an offset: '" + std::string(token) + "'");
    return std::stoull(std::string(token), nullptr, 16);
}

// The bytes of one row's hex part: tokens of hex digits, each of an even count.
std::vector<uint8_t> rowBytes(const std::vector<std::string>& toks) {
    std::vector<uint8_t> out;
    for (const std::string& t : toks) {
        if (!isHex(t) || t.size() % 2) throw LineError("not a hex byte group: '" + t + "'");
        appendHex(out, t);
    }
    return out;
}

void pipeLine(OffsetRows& rows, const std::string& line) {
    if (line == "*") return rows.repeat();
    const size_t sp = line.find_first_of(" \t");
    const uint64_t offset = parseOffset(line.substr(0, sp));
    if (sp == std::string::npos) return rows.end(offset);
    const size_t bar = line.find('|', sp);
    rows.row(offset, rowBytes(tokens(line.substr(sp, bar - sp), " \t")));
}

// After "offset:" the bytes run up to two spaces; a further run after two
// spaces still belongs to them when its groups are as wide as the first
// ones ("0000: 00 .. 07  08 .. 0f") and the row stays within the width of
// the first row; anything else is the ascii column.
void colonLine(OffsetRows& rows, const std::string& line) {
    const size_t rowWidth = rows.rowWidth();
    if (line == "*") return rows.repeat();
    const size_t colon = line.find(':');
    if (colon == std::string::npos) throw LineError("no 'offset:' at the start");
    const uint64_t offset = parseOffset(line.substr(0, colon));
    std::string rest = line.substr(colon + 1);
    for (char& c : rest)
        if (c == '\t') c = ' ';
    std::vector<uint8_t> data;
    size_t width = 0, pos = 0;
    while (pos < rest.size()) {
        while (pos < rest.size() && rest[pos] == ' ') ++pos;
        size_t end = rest.find("  ", pos);
        if (end == std::string::npos) end = rest.size();
        const std::vector<std::string> groups = tokens(rest.substr(pos, end - pos), " ");
        if (groups.empty()) break;
        if (width == 0) {  // the first run: bytes, whatever follows
            data = rowBytes(groups);
            width = groups.front().size();
            pos = end;
            continue;
        }
        bool sameWidth = true;
        for (const std::string& g : groups) sameWidth = sameWidth && isHex(g) && g.size() == width;
        if (sameWidth && (rowWidth == 0 || data.size() + groups.size() * width / 2 <= rowWidth)) {
            const std::vector<uint8_t> more = rowBytes(groups);
            data.insert(data.end(), more.begin(), more.end());
        } else {
            break;  // the ascii column
        }
        pos = end;
    }
    if (data.empty()) return rows.end(offset);
    rows.row(offset, data);
}

std::vector<uint8_t> offsetDump(const std::vector<std::string>& lines, Layout layout) {
    OffsetRows rows;
    for (size_t i = 0; i < lines.size(); ++i) {
        const size_t first = lines[i].find_first_not_of(" \t");
        if (first == std::string::npos) continue;
        const std::string line = lines[i].substr(first);
        try {
            if (layout == Layout::kPipe)
                pipeLine(rows, line);
            else
                colonLine(rows, line);
        } catch (const LineError& e) {
            throw std::runtime_error("line " + std::to_string(i + 1) + ": " + e.what());
        }
    }
    return std::move(rows.bytes);
}

std::vector<uint8_t> cList(const std::vector<std::string>& lines) {
    std::vector<uint8_t> out;
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::vector<std::string> toks = tokens(lines[i], " \t,;{}");
        bool any = false;
        for (const std::string& t : toks) any = any || hasHexPrefix(t);
        if (!any) continue;
        for (const std::string& t : toks) {
            const bool prefixed = hasHexPrefix(t);
            const std::string digits = prefixed ? t.substr(2) : t;
            if (!prefixed || !isHex(digits)) {
                if (isHex(t)) {
                    throw std::runtime_error("line " + std::to_string(i + 1) + ": '" + t +
                                             "' among 0x values");
                }
                continue;  // a word of a declaration: "unsigned", "char", "x[]", "="
            }
            appendHex(out, digits.size() % 2 ? "0" + digits : digits);
        }
    }
    return out;
}

std::vector<uint8_t> plain(std::string_view text) {
    std::vector<uint8_t> out;
    int high = -1;
    size_t line = 1;
    for (const char c : text) {
        if (c == '\n') ++line;
        if (c == ' ' || c == '\t' || c == '\n' || c == '\r') continue;
        const int d = hexDigit(c);
        if (d < 0) {
            throw std::runtime_error("line " + std::to_string(line) + ": not a hex digit: '" +
                                     std::string(1, c) + "'");
        }
        if (high < 0) {
            high = d;
        } else {
            out.push_back(static_cast<uint8_t>(high << 4 | d));
            high = -1;
        }
    }
    if (high >= 0) throw std::runtime_error("odd number of hex digits");
    return out;
}

// ---- what the D-Bus tools print ------------------------------------------------

std::string trimmed(const std::string& s) {
    const size_t a = s.find_first_not_of(" \t");
    if (a == std::string::npos) return "";
    return s.substr(a, s.find_last_not_of(" \t") - a + 1);
}

// The value after `key` ("member=") on the nearest line at or before `line`
// that has it, not looking past a line for which `stop` holds.
template <class Stop>
std::string headerValue(const std::vector<std::string>& lines, size_t line, const std::string& key,
                        Stop stop) {
    for (size_t i = line + 1; i-- > 0;) {
        const size_t at = lines[i].find(key);
        if (at != std::string::npos && (at == 0 || lines[i][at - 1] == ' ' || lines[i][at - 1] == ';')) {
            const size_t from = at + key.size();
            return lines[i].substr(from, lines[i].find_first_of(" \t;", from) - from);
        }
        if (stop(lines[i])) break;
    }
    return "";
}

// Refuses a dump of several messages.
void one(size_t found, const char* what) {
    if (found > 1)
        throw SeveralMessages("the dump holds " + std::to_string(found) + " " + what +
                              ": give one message's");
}

// dbus-monitor: "   array of bytes [", rows of two-digit bytes, "   ]".
std::optional<HexDump> dbusMonitor(const std::vector<std::string>& lines) {
    std::optional<HexDump> out;
    size_t found = 0;
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string t = trimmed(lines[i]);
        if (t.rfind("array of bytes", 0) != 0) continue;
        ++found;
        if (t != "array of bytes [")
            throw std::runtime_error("line " + std::to_string(i + 1) +
                                     ": dbus-monitor printed these bytes as text, not hex");
        HexDump d;
        d.tool = "dbus-monitor";
        d.member = headerValue(lines, i, "member=", [](const std::string& l) {
            return l.rfind("method call ", 0) == 0 || l.rfind("signal ", 0) == 0;
        });
        size_t j = i + 1;
        for (; j < lines.size() && trimmed(lines[j]) != "]"; ++j) {
            for (const std::string& tok : tokens(lines[j], " \t")) {
                if (tok.size() != 2 || !isHex(tok))
                    throw std::runtime_error("line " + std::to_string(j + 1) +
                                             ": not a byte of dbus-monitor's array: '" + tok + "'");
                appendHex(d.bytes, tok);
            }
        }
        if (j == lines.size())
            throw std::runtime_error("line " + std::to_string(i + 1) + ": the array of bytes has no closing ']'");
        if (!out) out = std::move(d);
        i = j;
    }
    one(found, "byte arrays");
    return out;
}

// busctl monitor: `ARRAY "y" {`, one "BYTE n;" line per byte (decimal), "};".
std::optional<HexDump> busctlMonitor(const std::vector<std::string>& lines) {
    std::optional<HexDump> out;
    size_t found = 0;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (trimmed(lines[i]) != "ARRAY \"y\" {") continue;
        ++found;
        HexDump d;
        d.tool = "busctl monitor";
        d.member = headerValue(lines, i, "Member=", [](const std::string& l) {
            return l.find("Type=") != std::string::npos;
        });
        size_t j = i + 1;
        for (; j < lines.size() && trimmed(lines[j]) != "};"; ++j) {
            const std::string t = trimmed(lines[j]);
            char* end = nullptr;
            const unsigned long v = t.rfind("BYTE ", 0) == 0 ? std::strtoul(t.c_str() + 5, &end, 10) : 256;
            if (v > 255 || !end || end == t.c_str() + 5 || std::string(end) != ";")
                throw std::runtime_error("line " + std::to_string(j + 1) + ": not a 'BYTE n;' line: '" + t + "'");
            d.bytes.push_back(static_cast<uint8_t>(v));
        }
        if (j == lines.size())
            throw std::runtime_error("line " + std::to_string(i + 1) + ": the ARRAY \"y\" has no closing '};'");
        if (!out) out = std::move(d);
        i = j;
    }
    one(found, "byte arrays");
    return out;
}

// A row of `tshark -x` (and of Wireshark's "Copy as Hex + ASCII Dump"): a 4-
// to 8-digit offset, two or three spaces, 1 to 16 bytes separated by one
// space, then nothing or, after two spaces or more, an ascii column exactly
// as long as the row's bytes (which tells it from hexdump -C's |...|).
bool tsharkRow(const std::string& l, uint64_t& offset, std::vector<uint8_t>& bytes) {
    size_t w = 0;
    while (w < l.size() && hexDigit(l[w]) >= 0) ++w;
    if (w < 4 || w > 8 || l.compare(w, 2, "  ") != 0) return false;
    size_t p = w + 2 + (w + 2 < l.size() && l[w + 2] == ' ' ? 1 : 0);
    bytes.clear();
    while (bytes.size() < 16 && p + 2 <= l.size() && hexDigit(l[p]) >= 0 && hexDigit(l[p + 1]) >= 0 &&
           (p + 2 == l.size() || l[p + 2] == ' ')) {
        appendHex(bytes, std::string_view(l).substr(p, 2));
        p += 3;
    }
    if (bytes.empty()) return false;
    if (p < l.size()) {
        // Spaces, then the ascii column, which may itself start with one.
        const size_t ascii = l.size() - bytes.size();
        if (ascii < p + 1 || l.find_first_not_of(' ', p - 1) < ascii) return false;
    }
    offset = std::stoull(l.substr(0, w), nullptr, 16);
    return true;
}

std::optional<HexDump> tsharkDump(const std::vector<std::string>& lines) {
    HexDump d;
    d.tool = "tshark -x";
    size_t packets = 0;
    uint64_t offset = 0;
    std::vector<uint8_t> row;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (!tsharkRow(lines[i], offset, row)) continue;
        if (offset == 0) ++packets;
        if (packets == 1 && offset != d.bytes.size()) {
            char b[96];
            std::snprintf(b, sizeof b, "line %zu: offset 0x%llx, but 0x%zx bytes come before it", i + 1,
                          static_cast<unsigned long long>(offset), d.bytes.size());
            throw std::runtime_error(b);
        }
        if (packets == 1) d.bytes.insert(d.bytes.end(), row.begin(), row.end());
    }
    if (packets == 0) return std::nullopt;
    one(packets, "packets (or data sources)");
    return d;
}

// Text: printable ASCII, tabs and line ends, and UTF-8 (busctl's "‣").
void requireText(std::string_view text) {
    for (size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        size_t extra = c >= 0xf0 && c < 0xf5 ? 3 : c >= 0xe0 && c < 0xf0 ? 2 : c >= 0xc2 && c < 0xe0 ? 1 : 0;
        bool ok = (c >= 0x20 && c < 0x7f) || c == '\t' || c == '\n' || c == '\r' || extra > 0;
        for (size_t k = 1; ok && k <= extra; ++k)
            ok = i + k < text.size() && (static_cast<unsigned char>(text[i + k]) & 0xc0) == 0x80;
        if (!ok)
            throw BinaryNotHex("binary data, not hex text (byte " + hexByte(c) + " at offset " +
                               std::to_string(i) + ")");
        i += 1 + extra;
    }
}

// Terminal colours (ESC [ ... letter) as busctl prints them on a terminal.
std::string withoutColours(std::string_view text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\x1b' && i + 1 < text.size() && text[i + 1] == '[') {
            size_t j = i + 2;
            while (j < text.size() && ((text[j] >= '0' && text[j] <= '9') || text[j] == ';')) ++j;
            if (j < text.size() && std::isalpha(static_cast<unsigned char>(text[j]))) {
                i = j;
                continue;
            }
        }
        out += text[i];
    }
    return out;
}

std::vector<uint8_t> layouts(const std::vector<std::string>& lines) {
    std::vector<uint8_t> out;
    switch (layoutOf(lines)) {
        case Layout::kPipe: out = offsetDump(lines, Layout::kPipe); break;
        case Layout::kColon: out = offsetDump(lines, Layout::kColon); break;
        case Layout::kCList: out = cList(lines); break;
        case Layout::kPlain: {
            std::string joined;
            for (const std::string& l : lines) joined += l + '\n';
            out = plain(joined);
            break;
        }
    }
    if (out.empty()) throw std::runtime_error("no hex bytes in the input");
    return out;
}

}  // namespace

HexDump parseDump(std::string_view raw) {
    const std::string text = withoutColours(raw);
    requireText(text);
    const std::vector<std::string> lines = splitLines(text);
    for (auto reader : {dbusMonitor, busctlMonitor, tsharkDump}) {
        if (std::optional<HexDump> d = reader(lines)) {
            if (d->bytes.empty()) throw std::runtime_error(d->tool + ": an empty byte array");
            return std::move(*d);
        }
    }
    return HexDump{layouts(lines), "", ""};
}

std::vector<uint8_t> parseHex(std::string_view text) { return parseDump(text).bytes; }

}  // namespace cvi
