#include "hex_input.h"

#include <cstdio>
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

}  // namespace

std::vector<uint8_t> parseHex(std::string_view text) {
    for (size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if ((c < 0x20 && c != '\t' && c != '\n' && c != '\r') || c >= 0x7f)
            throw BinaryNotHex("binary data, not hex text (byte " + hexByte(c) + " at offset " +
                               std::to_string(i) + ")");
    }
    const std::vector<std::string> lines = splitLines(text);
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

}  // namespace cvi
