#include "dbus_message.h"

#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace cvi {
namespace {

constexpr size_t kFixedHeader = 16;                    // 12 bytes, then the fields' array length
constexpr uint64_t kMaxMessage = uint64_t{1} << 27;   // 128 MiB, the protocol's limit
constexpr uint32_t kMaxArray = uint32_t{1} << 26;     // 64 MiB
constexpr int kMaxDepth = 64;

enum FieldCode : uint8_t {
    kPath = 1, kInterface, kMember, kErrorName, kReplySerial, kDestination, kSender, kSignature,
    kUnixFds
};

struct Bad : std::runtime_error {
    using std::runtime_error::runtime_error;
};

std::string num(uint64_t v) { return std::to_string(v); }

// Reads values at a position, each aligned from the start of `data` (the
// message for the header, the body for the body: the body starts 8-aligned).
class WireReader {
public:
    WireReader(std::span<const uint8_t> data, bool big) : data_(data), big_(big) {}

    size_t pos = 0;

    void need(uint64_t n, const char* what) const {
        if (pos + n > data_.size())
            throw Bad(std::string(what) + " at offset " + num(pos) + " runs past the end (" +
                      num(n) + " bytes needed, " + num(data_.size() - pos) + " left)");
    }
    void align(size_t n) {
        const size_t to = (pos + n - 1) / n * n;
        need(to - pos, "padding");
        pos = to;
    }
    uint8_t u8() {
        need(1, "a byte");
        return data_[pos++];
    }
    uint32_t u32() {
        align(4);
        need(4, "a 32-bit word");
        const uint8_t* p = data_.data() + pos;
        pos += 4;
        return big_ ? uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3]
                    : uint32_t{p[3]} << 24 | uint32_t{p[2]} << 16 | uint32_t{p[1]} << 8 | p[0];
    }
    std::string string() {
        const uint32_t n = u32();
        return terminated(n, "a string");
    }
    std::string signature() {
        const uint8_t n = u8();
        return terminated(n, "a signature");
    }

    // Steps over one value of the complete type at sig[i]; returns the index
    // just past that type in the signature.
    size_t skip(const std::string& sig, size_t i, int depth = 0) {
        if (depth > kMaxDepth) throw Bad("values nested too deeply");
        if (i >= sig.size()) throw Bad("signature '" + sig + "' ends inside a type");
        const char c = sig[i];
        switch (c) {
            case 'y': need(1, "a byte"); pos += 1; return i + 1;
            case 'n': case 'q': align(2); need(2, "a 16-bit word"); pos += 2; return i + 1;
            case 'b': case 'i': case 'u': case 'h': u32(); return i + 1;
            case 'x': case 't': case 'd': align(8); need(8, "a 64-bit word"); pos += 8; return i + 1;
            case 's': case 'o': string(); return i + 1;
            case 'g': signature(); return i + 1;
            case 'v': {
                const std::string inner = signature();
                if (skip(inner, 0, depth + 1) != inner.size())
                    throw Bad("variant signature '" + inner + "' is not one type");
                return i + 1;
            }
            case 'a': {
                const uint32_t length = u32();
                if (length > kMaxArray) throw Bad("an array of " + num(length) + " bytes");
                const size_t next = typeEnd(sig, i + 1, depth + 1);
                align(dbusAlignment(sig[i + 1]));
                need(length, "an array");
                const size_t end = pos + length;
                while (pos < end) skip(sig, i + 1, depth + 1);
                if (pos != end) throw Bad("an array's last element runs past its length");
                return next;
            }
            case '(': case '{': {
                align(8);
                const char close = c == '(' ? ')' : '}';
                size_t j = i + 1;
                if (j < sig.size() && sig[j] == close) throw Bad("signature '" + sig + "' holds an empty struct");
                while (j < sig.size() && sig[j] != close) j = skip(sig, j, depth + 1);
                if (j >= sig.size()) throw Bad("signature '" + sig + "' does not close a " + c);
                return j + 1;
            }
            default:
                throw Bad(std::string("signature '") + sig + "' holds an unknown type '" + c + "'");
        }
    }

    static size_t typeEnd(const std::string& sig, size_t i, int depth) {
        if (depth > kMaxDepth) throw Bad("types nested too deeply");
        if (i >= sig.size()) throw Bad("signature '" + sig + "' ends inside a type");
        const char c = sig[i];
        if (c == 'a') return typeEnd(sig, i + 1, depth + 1);
        if (c == '(' || c == '{') {
            const char close = c == '(' ? ')' : '}';
            size_t j = i + 1;
            while (j < sig.size() && sig[j] != close) j = typeEnd(sig, j, depth + 1);
            if (j >= sig.size()) throw Bad("signature '" + sig + "' does not close a " + c);
            return j + 1;
        }
        if (std::strchr("ynqbiuxtdhsogv", c) == nullptr || c == '\0')
            throw Bad(std::string("signature '") + sig + "' holds an unknown type '" + c + "'");
        return i + 1;
    }

private:
    std::span<const uint8_t> data_;
    bool big_;

    std::string terminated(uint32_t n, const char* what) {
        need(uint64_t{n} + 1, what);
        const auto* p = reinterpret_cast<const char*>(data_.data() + pos);
        if (p[n] != '\0') throw Bad(std::string(what) + " at offset " + num(pos) + " has no NUL");
        if (std::memchr(p, 0, n)) throw Bad(std::string(what) + " at offset " + num(pos) + " holds a NUL");
        pos += n + 1;
        return std::string(p, n);
    }
};

const char* typeName(uint8_t type) {
    switch (type) {
        case DbusMessage::kMethodCall: return "a method call";
        case DbusMessage::kMethodReturn: return "a method return";
        case DbusMessage::kError: return "an error";
        default: return "a signal";
    }
}

}  // namespace

size_t dbusAlignment(char c) {
    switch (c) {
        case 'n': case 'q': return 2;
        case 'b': case 'i': case 'u': case 'h': case 's': case 'o': case 'a': return 4;
        case 'x': case 't': case 'd': case '(': case '{': return 8;
        default: return 1;
    }
}

bool looksLikeDbusMessage(std::span<const uint8_t> b) {
    return b.size() >= kFixedHeader && (b[0] == 'l' || b[0] == 'B') && b[1] >= 1 && b[1] <= 4 &&
           b[3] == 1;
}

std::optional<DbusMessage> parseDbusMessage(std::span<const uint8_t> bytes, std::string* why,
                                            bool cut) {
    try {
        if (bytes.size() < kFixedHeader)
            throw Bad(num(bytes.size()) + " bytes, fewer than the 16 of a D-Bus header");
        DbusMessage m;
        if (bytes[0] != 'l' && bytes[0] != 'B') {
            char b[80];
            std::snprintf(b, sizeof b, "the endianness byte is 0x%02x, neither 'l' nor 'B'", bytes[0]);
            throw Bad(b);
        }
        if (bytes.size() > kMaxMessage) throw Bad(num(bytes.size()) + " bytes, more than a D-Bus message may have");
        m.bigEndian = bytes[0] == 'B';
        m.type = bytes[1];
        m.flags = bytes[2];
        m.version = bytes[3];
        if (m.type < DbusMessage::kMethodCall || m.type > DbusMessage::kSignal)
            throw Bad("message type " + num(m.type) + " is none of D-Bus's four");
        if (m.version != 1) throw Bad("protocol version " + num(m.version) + ", not 1");
        WireReader r(bytes, m.bigEndian);
        r.pos = 4;
        const uint32_t bodyLength = r.u32();
        m.serial = r.u32();
        if (m.serial == 0) throw Bad("serial 0");
        const uint32_t fieldsLength = r.u32();
        if (fieldsLength > kMaxArray) throw Bad("header fields of " + num(fieldsLength) + " bytes");
        const uint64_t fieldsEnd = kFixedHeader + uint64_t{fieldsLength};
        if (fieldsEnd > bytes.size())
            throw Bad("the header fields (" + num(fieldsLength) + " bytes) run past the end of the " +
                      num(bytes.size()) + " bytes");
        while (r.pos < fieldsEnd) {
            r.align(8);
            const uint8_t code = r.u8();
            const std::string sig = r.signature();
            auto text = [&](std::optional<std::string>& into, char type) {
                if (sig.size() != 1 || sig[0] != type) return false;
                into = type == 'g' ? r.signature() : r.string();
                return true;
            };
            auto word = [&](std::optional<uint32_t>& into) {
                if (sig != "u") return false;
                into = r.u32();
                return true;
            };
            std::optional<std::string> signature;
            bool known = false;
            switch (code) {
                case kPath: known = text(m.path, 'o'); break;
                case kInterface: known = text(m.interface, 's'); break;
                case kMember: known = text(m.member, 's'); break;
                case kErrorName: known = text(m.errorName, 's'); break;
                case kReplySerial: known = word(m.replySerial); break;
                case kDestination: known = text(m.destination, 's'); break;
                case kSender: known = text(m.sender, 's'); break;
                case kSignature: known = text(signature, 'g'); break;
                case kUnixFds: known = word(m.unixFds); break;
                default: break;
            }
            if (code >= kPath && code <= kUnixFds && !known)
                throw Bad("header field " + num(code) + " has signature '" + sig + "'");
            if (!known && r.skip(sig, 0) != sig.size())  // a field of a later protocol
                throw Bad("header field " + num(code) + ": '" + sig + "' is not one type");
            if (signature) m.signature = *signature;
            if (r.pos > fieldsEnd) throw Bad("header field " + num(code) + " runs past the header");
        }
        const uint64_t bodyStart = (fieldsEnd + 7) / 8 * 8;
        uint64_t end = bodyStart + bodyLength;
        if (cut && end > bytes.size() && bodyStart <= bytes.size()) {
            m.bodyMissing = end - bytes.size();
            end = bytes.size();
        }
        if (end > bytes.size())
            throw Bad("the body (" + num(bodyLength) + " bytes at offset " + num(bodyStart) +
                      ") runs past the end of the " + num(bytes.size()) + " bytes");
        if (end < bytes.size())
            throw Bad(num(bytes.size() - end) + " bytes after the message's " + num(end));
        const char* missing = nullptr;
        switch (m.type) {
            case DbusMessage::kMethodCall: missing = !m.path ? "path" : !m.member ? "member" : nullptr; break;
            case DbusMessage::kMethodReturn: missing = !m.replySerial ? "reply serial" : nullptr; break;
            case DbusMessage::kError: missing = !m.errorName ? "error name" : !m.replySerial ? "reply serial" : nullptr; break;
            default: missing = !m.path ? "path" : !m.interface ? "interface" : !m.member ? "member" : nullptr; break;
        }
        if (missing) throw Bad(std::string(typeName(m.type)) + " without a " + missing);
        if (bodyLength > 0 && m.signature.empty()) throw Bad("a body without a signature");
        m.body.assign(bytes.begin() + static_cast<std::ptrdiff_t>(bodyStart), bytes.begin() + static_cast<std::ptrdiff_t>(end));
        return m;
    } catch (const Bad& e) {
        if (why) *why = e.what();
        return std::nullopt;
    }
}

std::optional<uint32_t> DbusMessage::byteArrayLength() const {
    if (signature != "ay" || body.size() < 4) return std::nullopt;
    WireReader r(body, bigEndian);
    return r.u32();
}

std::optional<std::span<const uint8_t>> DbusMessage::byteArray() const {
    if (signature != "ay" || body.size() < 4 || bodyMissing) return std::nullopt;
    WireReader r(body, bigEndian);
    const uint32_t n = r.u32();
    if (uint64_t{n} + 4 != body.size()) return std::nullopt;
    return std::span<const uint8_t>(body).subspan(4);
}

std::optional<uint32_t> DbusMessage::uint32() const {
    if (signature != "u" || body.size() != 4) return std::nullopt;
    WireReader r(body, bigEndian);
    return r.u32();
}

std::optional<std::vector<std::string>> DbusMessage::strings(size_t count) const {
    if (signature.size() < count || signature.find_first_not_of('s') < count) return std::nullopt;
    try {
        WireReader r(body, bigEndian);
        std::vector<std::string> out;
        for (size_t i = 0; i < count; ++i) out.push_back(r.string());
        return out;
    } catch (const Bad&) {
        return std::nullopt;
    }
}

void DbusWriter::align(size_t n) {
    while (out_.size() % n) out_.push_back(0);
}

void DbusWriter::u16(uint16_t v) {
    align(2);
    const uint8_t b[2] = {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8)};
    if (big_) out_.insert(out_.end(), {b[1], b[0]});
    else out_.insert(out_.end(), {b[0], b[1]});
}

void DbusWriter::u32(uint32_t v) {
    align(4);
    for (int i = 0; i < 4; ++i) out_.push_back(static_cast<uint8_t>(v >> (big_ ? 24 - 8 * i : 8 * i)));
}

void DbusWriter::u64(uint64_t v) {
    align(8);
    for (int i = 0; i < 8; ++i) out_.push_back(static_cast<uint8_t>(v >> (big_ ? 56 - 8 * i : 8 * i)));
}

void DbusWriter::string(std::string_view s) {
    u32(static_cast<uint32_t>(s.size()));
    out_.insert(out_.end(), s.begin(), s.end());
    out_.push_back(0);
}

void DbusWriter::signature(std::string_view s) {
    u8(static_cast<uint8_t>(s.size()));
    out_.insert(out_.end(), s.begin(), s.end());
    out_.push_back(0);
}

DbusWriter::Array DbusWriter::openArray(size_t elementAlignment) {
    u32(0);
    Array a{out_.size() - 4, 0};
    align(elementAlignment);
    a.start = out_.size();
    return a;
}

void DbusWriter::closeArray(Array a) {
    const auto n = static_cast<uint32_t>(out_.size() - a.start);
    for (int i = 0; i < 4; ++i)
        out_[a.lengthAt + static_cast<size_t>(i)] = static_cast<uint8_t>(n >> (big_ ? 24 - 8 * i : 8 * i));
}

std::vector<uint8_t> marshalDbusMessage(const DbusMessage& m) {
    DbusWriter w(m.bigEndian);
    w.u8(m.bigEndian ? 'B' : 'l');
    w.u8(m.type);
    w.u8(m.flags);
    w.u8(m.version);
    w.u32(static_cast<uint32_t>(m.body.size()));
    w.u32(m.serial);
    const DbusWriter::Array fields = w.openArray(8);
    auto text = [&](uint8_t code, const std::optional<std::string>& v, char type) {
        if (!v) return;
        w.align(8);
        w.u8(code);
        w.signature(std::string(1, type));
        if (type == 'g') w.signature(*v);
        else w.string(*v);
    };
    auto word = [&](uint8_t code, const std::optional<uint32_t>& v) {
        if (!v) return;
        w.align(8);
        w.u8(code);
        w.signature("u");
        w.u32(*v);
    };
    text(kPath, m.path, 'o');
    text(kInterface, m.interface, 's');
    text(kMember, m.member, 's');
    text(kErrorName, m.errorName, 's');
    word(kReplySerial, m.replySerial);
    text(kDestination, m.destination, 's');
    text(kSender, m.sender, 's');
    if (!m.signature.empty()) text(kSignature, m.signature, 'g');
    word(kUnixFds, m.unixFds);
    w.closeArray(fields);
    w.align(8);
    std::vector<uint8_t>& out = w.bytes();
    out.insert(out.end(), m.body.begin(), m.body.end());
    return std::move(out);
}

}  // namespace cvi
