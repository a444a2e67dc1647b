#include "wire.h"

#include <cstring>

namespace cvi {
namespace {

constexpr size_t kHeader = 8;    // tag word, length word
constexpr size_t kU32Size = 12;  // header and value word

class Walker {
public:
    explicit Walker(std::span<const uint8_t> data) : data_(data) {}

    Walk out;

    // Fields of a record from the current position; false once stopped.
    bool fields(const CorVaneSchema& s, const std::string& prefix) {
        std::vector<uint32_t> words(s.fieldCount, 0);  // u32 values, for array counts
        for (uint32_t i = 0; i < s.fieldCount; ++i) {
            const CorVaneField& f = s.fields[i];
            const uint32_t tag = CORVANE_FIRST_TAG + i;
            const std::string path = prefix + f.name;
            switch (f.kind) {
                case CORVANE_FIELD_U32:
                    if (!u32(tag, path, &words[i])) return false;
                    break;
                case CORVANE_FIELD_TEXT:
                    if (!text(tag, path, f.capacity)) return false;
                    break;
                case CORVANE_FIELD_RECORD:
                    nested(path, std::string(f.record->name) + ", inline (tag " +
                                     std::to_string(tag) + " reserved)");
                    if (!fields(*f.record, path + ".")) return false;
                    break;
                default: {
                    uint32_t n = f.capacity;
                    std::string note;
                    if (f.kind == CORVANE_FIELD_ARRAY) {
                        const uint32_t count = i > 0 ? words[i - 1] : 0;
                        n = count < f.capacity ? count : f.capacity;
                        note = std::to_string(n) + " of " + std::to_string(f.capacity) + " " +
                               f.record->name + " entries, count " + s.fields[i - 1].name +
                               " = " + std::to_string(count);
                    } else {
                        note = std::to_string(n) + " " + f.record->name + " entries, fixed";
                    }
                    nested(path, note + " (tag " + std::to_string(tag) + " reserved)");
                    for (uint32_t j = 0; j < n; ++j) {
                        const std::string entry = path + "[" + std::to_string(j) + "]";
                        nested(entry, f.record->name);
                        if (!fields(*f.record, entry + ".")) return false;
                    }
                    break;
                }
            }
        }
        return true;
    }

    bool u32(uint32_t tag, const std::string& path, uint32_t* value) {
        uint32_t len = 0;
        if (!header(tag, path, "u32", len)) return false;
        // The value word is read whatever the length says.
        if (left() < kU32Size)
            return overrun(tag, path, "u32", kU32Size, "the element");
        if (kHeader + uint64_t{len} > left())
            return overrun(tag, path, "u32", kHeader + uint64_t{len}, "its declared length");
        Item item = element(CORVANE_FIELD_U32, tag, len, path);
        item.value = *value = loadBe32(at() + kHeader);
        return advance(std::move(item));
    }

    bool text(uint32_t tag, const std::string& path, uint32_t capacity) {
        const std::string kind = "text[" + std::to_string(capacity) + "]";
        uint32_t len = 0;
        if (!header(tag, path, kind, len)) return false;
        // The text runs to its NUL, whatever the length word says.
        const uint8_t* start = at() + kHeader;
        const void* nul = std::memchr(start, 0, left() - kHeader);
        if (!nul) {
            return stop(tag, path, kind,
                        "the text has no NUL before the end of the body (" +
                            std::to_string(left() - kHeader) + " bytes after the header)");
        }
        const size_t n = static_cast<size_t>(static_cast<const uint8_t*>(nul) - start);
        if (n + 1 > capacity) {
            return stop(tag, path, kind,
                        "a text of " + std::to_string(n) + " characters does not fit the field (" +
                            std::to_string(capacity) + " bytes: at most " +
                            std::to_string(capacity - 1) + " characters)");
        }
        if (kHeader + uint64_t{len} > left())
            return overrun(tag, path, kind, kHeader + uint64_t{len}, "its declared length");
        Item item = element(CORVANE_FIELD_TEXT, tag, len, path);
        item.text.assign(reinterpret_cast<const char*>(start), n);
        item.padding = len > n + 1 ? len - (n + 1) : 0;
        return advance(std::move(item));
    }

    // The envelope word must carry the message's value in its low 16 bits.
    bool envelope(uint32_t expected) {
        const size_t offset = cur_;
        uint32_t word;
        if (!u32(1, "<envelope>", &word)) return false;
        if ((word & 0xffffu) == expected) return true;
        out.items.pop_back();
        cur_ = offset;
        return stop(1, "<envelope>", "u32",
                    "the envelope word is " + std::to_string(word) + "; this message carries " +
                        std::to_string(expected));
    }

private:
    std::span<const uint8_t> data_;
    size_t cur_ = 0;

    size_t left() const { return data_.size() - cur_; }
    const uint8_t* at() const { return data_.data() + cur_; }

    bool header(uint32_t tag, const std::string& path, const std::string& kind, uint32_t& len) {
        if (left() < kHeader)
            return overrun(tag, path, kind, kHeader, "an element header");
        const uint32_t found = loadBe32(at());
        len = loadBe32(at() + 4);
        if (found != tag) return stop(tag, path, kind, "tag mismatch");
        return true;
    }

    Item element(uint8_t kind, uint32_t tag, uint32_t len, const std::string& path) const {
        Item item;
        item.offset = cur_;
        item.kind = kind;
        item.tag = tag;
        item.length = len;
        item.size = kHeader + len;
        item.path = path;
        return item;
    }

    bool advance(Item item) {
        cur_ += item.size;
        out.end = cur_;
        out.items.push_back(std::move(item));
        return true;
    }

    void nested(const std::string& path, std::string note) {
        Item item;
        item.type = Item::Type::kNested;
        item.offset = cur_;
        item.path = path;
        item.note = std::move(note);
        out.items.push_back(std::move(item));
    }

    bool overrun(uint32_t tag, const std::string& path, const std::string& kind, uint64_t need,
                 const char* what) {
        return stop(tag, path, kind,
                    std::string(what) + " runs past the end of the body: " +
                        std::to_string(need) + " bytes needed, " + std::to_string(left()) +
                        " left");
    }

    bool stop(uint32_t tag, const std::string& path, const std::string& kind, std::string why) {
        Stop s;
        s.offset = cur_;
        s.haveTag = left() >= kHeader;
        if (s.haveTag) {
            s.tagFound = loadBe32(at());
            s.lengthFound = loadBe32(at() + 4);
        }
        s.tagExpected = tag;
        s.path = path;
        s.kind = kind;
        s.reason = std::move(why);
        out.stop = std::move(s);
        return false;
    }
};

}  // namespace

uint32_t loadBe32(const uint8_t* p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

Walk walkBody(const CorVaneMessageInfo& m, std::span<const uint8_t> body) {
    Walker w(body);
    uint32_t magic;
    if (w.u32(0, "<magic>", &magic) && w.envelope(m.envelope)) w.fields(*m.payload, "");
    return std::move(w.out);
}

std::string escaped(std::string_view text) {
    static const char kHex[] = "0123456789abcdef";
    std::string out = "\"";
    for (const char ch : text) {
        const auto c = static_cast<unsigned char>(ch);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += ch;
        } else if (c >= 0x20 && c < 0x7f) {
            out += ch;
        } else {
            out += "\\x";
            out += kHex[c >> 4];
            out += kHex[c & 15];
        }
    }
    return out + "\"";
}

}  // namespace cvi
