// Output of `corvane`: decoded bodies, failures, annotated dumps, schemas,
// as text and as JSON.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "inspect.h"

namespace cvi {
namespace {

constexpr size_t kRowBytes = 16;

std::string hex32(uint32_t v) {
    char b[16];
    std::snprintf(b, sizeof b, "0x%08x", v);
    return b;
}

// Annotated dump rows: offset, up to 16 raw bytes, then a description.
class Rows {
public:
    Rows(std::ostream& os, std::span<const uint8_t> bytes) : os_(os), bytes_(bytes) {
        size_t digits = 4;
        while (digits < 8 && (bytes.size() >> (4 * digits)) != 0) ++digits;
        width_ = static_cast<int>(digits);
    }

    // Bytes [from, to) on as many rows as needed; the description goes on the first.
    void bytes(size_t from, size_t to, const std::string& description) {
        to = std::min(to, bytes_.size());
        bool first = true;
        do {
            const size_t end = std::min(to, from + kRowBytes);
            std::string hex;
            for (size_t i = from; i < end; ++i) {
                char b[4];
                std::snprintf(b, sizeof b, i + 1 < end ? "%02x " : "%02x", bytes_[i]);
                hex += b;
            }
            line(from, hex, first ? description : "");
            first = false;
            from = end;
        } while (from < to);
    }

    void note(size_t offset, const std::string& text) { line(offset, "", text); }

private:
    std::ostream& os_;
    std::span<const uint8_t> bytes_;
    int width_;

    void line(size_t offset, const std::string& hex, const std::string& text) {
        char head[96];
        std::snprintf(head, sizeof head, "%0*zx  %-47s", width_, offset, hex.c_str());
        std::string out = head;
        if (!text.empty()) out += "  " + text;
        while (!out.empty() && out.back() == ' ') out.pop_back();
        os_ << out << '\n';
    }
};

std::string describeStop(const Stop& s) {
    std::string found = s.haveTag ? "found tag " + std::to_string(s.tagFound) + " length " +
                                        std::to_string(s.lengthFound)
                                  : "no complete element header";
    return "expected tag " + std::to_string(s.tagExpected) + " " + s.path + " (" + s.kind +
           "), " + found + ": " + s.reason;
}

// ---- schema ------------------------------------------------------------------

struct Range {
    uint64_t min = 0, max = 0;
};

// Bytes of a text element for n characters: 8 + ((n + 1) & ~3) + 4.
uint64_t textElement(uint64_t n) { return 8 + ((n + 1) & ~uint64_t{3}) + 4; }

Range wireRange(const CorVaneSchema& s) {
    Range r;
    for (uint32_t i = 0; i < s.fieldCount; ++i) {
        const CorVaneField& f = s.fields[i];
        switch (f.kind) {
            case CORVANE_FIELD_U32:
                r.min += 12;
                r.max += 12;
                break;
            case CORVANE_FIELD_TEXT:
                r.min += textElement(0);
                r.max += textElement(f.capacity - 1u);
                break;
            case CORVANE_FIELD_RECORD: {
                const Range n = wireRange(*f.record);
                r.min += n.min;
                r.max += n.max;
                break;
            }
            default: {
                const Range n = wireRange(*f.record);
                if (f.kind == CORVANE_FIELD_FIXED_ARRAY) r.min += f.capacity * n.min;
                r.max += f.capacity * n.max;
                break;
            }
        }
    }
    return r;
}

std::string rangeText(Range r) {
    return r.min == r.max ? std::to_string(r.min)
                          : std::to_string(r.min) + ".." + std::to_string(r.max);
}

// "len(R) = 12 * k + T(a) + len(Sub) + ..." wrapped before 100 columns.
void printFormula(std::ostream& os, const CorVaneSchema& s) {
    std::vector<std::string> terms;
    uint32_t words = 0;
    for (uint32_t i = 0; i < s.fieldCount; ++i) {
        const CorVaneField& f = s.fields[i];
        switch (f.kind) {
            case CORVANE_FIELD_U32: ++words; break;
            case CORVANE_FIELD_TEXT: terms.push_back(std::string("T(") + f.name + ")"); break;
            case CORVANE_FIELD_RECORD:
                terms.push_back(std::string("len(") + f.record->name + ")");
                break;
            case CORVANE_FIELD_ARRAY:
                terms.push_back(std::string("min(") + s.fields[i - 1].name + ", " +
                                std::to_string(f.capacity) + ") * len(" + f.record->name + ")");
                break;
            default:
                terms.push_back(std::to_string(f.capacity) + " * len(" + f.record->name + ")");
                break;
        }
    }
    if (words) terms.insert(terms.begin(), "12 * " + std::to_string(words));
    const std::string head = std::string("  len(") + s.name + ") = ";
    std::string line = head;
    for (size_t i = 0; i < terms.size(); ++i) {
        const std::string term = (i ? " + " : "") + terms[i];
        if (line.size() + term.size() > 99 && line.size() > head.size()) {
            os << line << '\n';
            line = std::string(head.size() - 2, ' ') + term;
        } else {
            line += term;
        }
    }
    os << line << '\n';
}

void collectNested(const CorVaneSchema& s, std::vector<const CorVaneSchema*>& out) {
    for (uint32_t i = 0; i < s.fieldCount; ++i) {
        const CorVaneSchema* n = s.fields[i].record;
        if (n && std::find(out.begin(), out.end(), n) == out.end()) {
            out.push_back(n);
            collectNested(*n, out);
        }
    }
}

// Why the envelope (tag 0 magic, tag 1 word) was refused.
std::string envelopeReason(const CorVaneMessageInfo& m, std::span<const uint8_t> bytes,
                           const Decoded& d) {
    if (!bodyMagic(bytes)) {
        if (bytes.size() < 12)
            return "no magic: " + std::to_string(bytes.size()) +
                   " bytes are too few for the tag-0 element";
        return "no magic: the first element is tag " + std::to_string(loadBe32(bytes.data())) +
               " length " + std::to_string(loadBe32(bytes.data() + 4)) +
               ", not the tag-0 magic element";
    }
    if (std::string other = magicMismatch(m, bytes); !other.empty()) return other;
    if (d.walk.stop) return d.walk.stop->reason;
    return "envelope refused";
}

// ---- folded records -----------------------------------------------------------

uint32_t wordAt(const uint8_t* p) {
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// Entries an array holds: min(count, capacity), or the capacity of a fixed one.
uint32_t entryCount(const CorVaneSchema& s, uint32_t i, const uint8_t* rec) {
    const CorVaneField& f = s.fields[i];
    if (f.kind == CORVANE_FIELD_FIXED_ARRAY) return f.capacity;
    const uint32_t count = wordAt(rec + s.fields[i - 1].offset);
    return count < f.capacity ? count : f.capacity;
}

bool recordBlank(const CorVaneSchema& s, const uint8_t* rec);

bool fieldBlank(const CorVaneSchema& s, uint32_t i, const uint8_t* rec) {
    const CorVaneField& f = s.fields[i];
    const uint8_t* m = rec + f.offset;
    switch (f.kind) {
        case CORVANE_FIELD_U32: return wordAt(m) == 0;
        case CORVANE_FIELD_TEXT: return m[0] == 0;
        case CORVANE_FIELD_RECORD: return recordBlank(*f.record, m);
        default:
            for (uint32_t e = 0, n = entryCount(s, i, rec); e < n; ++e)
                if (!recordBlank(*f.record, m + e * f.record->size)) return false;
            return true;
    }
}

bool recordBlank(const CorVaneSchema& s, const uint8_t* rec) {
    for (uint32_t i = 0; i < s.fieldCount; ++i)
        if (!fieldBlank(s, i, rec)) return false;
    return true;
}

constexpr uint32_t kFieldRun = 3;  // blank fields folded into one line from this many
constexpr uint32_t kEntryRun = 2;  // blank array entries likewise

void printField(std::ostream& os, const CorVaneSchema& s, uint32_t i, const uint8_t* rec,
                int indent, bool fold) {
    const std::string pad(static_cast<size_t>(indent), ' ');
    const CorVaneField& f = s.fields[i];
    const uint8_t* m = rec + f.offset;
    switch (f.kind) {
        case CORVANE_FIELD_U32: {
            const uint32_t v = wordAt(m);
            os << pad << f.name << " = " << v;
            if (v > 9) os << " (0x" << std::hex << v << std::dec << ")";
            os << '\n';
            break;
        }
        case CORVANE_FIELD_TEXT:
            os << pad << f.name << " = "
               << escaped(std::string_view(reinterpret_cast<const char*>(m), strnlen(reinterpret_cast<const char*>(m), f.capacity)))
               << '\n';
            break;
        case CORVANE_FIELD_RECORD:
            os << pad << f.name << ": " << f.record->name;
            if (fold && recordBlank(*f.record, m)) {
                os << ", all zero or empty\n";
                break;
            }
            os << '\n';
            printFolded(os, *f.record, m, indent + 2, fold);
            break;
        default: {
            const uint32_t n = entryCount(s, i, rec);
            const size_t size = f.record->size;
            os << pad << f.name << ": " << n << " of " << f.capacity << " " << f.record->name;
            if (fold && n > 0 && fieldBlank(s, i, rec)) {
                os << ", all zero or empty\n";
                break;
            }
            os << '\n';
            for (uint32_t e = 0; e < n;) {
                uint32_t run = 0;
                while (fold && e + run < n && recordBlank(*f.record, m + (e + run) * size)) ++run;
                if (run >= kEntryRun) {
                    os << pad << "  [" << e << "] .. [" << e + run - 1 << "]: all " << run
                       << " zero or empty\n";
                    e += run;
                } else if (run == 1) {
                    os << pad << "  [" << e << "]: all zero or empty\n";
                    ++e;
                } else {
                    os << pad << "  [" << e << "]\n";
                    printFolded(os, *f.record, m + e * size, indent + 4, fold);
                    ++e;
                }
            }
            break;
        }
    }
}

}  // namespace

void printFolded(std::ostream& os, const CorVaneSchema& s, const void* record, int indent,
                 bool fold) {
    const auto* rec = static_cast<const uint8_t*>(record);
    for (uint32_t i = 0; i < s.fieldCount;) {
        uint32_t run = 0;
        while (fold && i + run < s.fieldCount && fieldBlank(s, i + run, rec)) ++run;
        if (run >= kFieldRun) {
            os << std::string(static_cast<size_t>(indent), ' ') << s.fields[i].name << " .. "
               << s.fields[i + run - 1].name << ": all " << run << " zero or empty\n";
            i += run;
            continue;
        }
        for (uint32_t k = 0; k < (run ? run : 1); ++k) printField(os, s, i + k, rec, indent, fold);
        i += run ? run : 1;
    }
}

const char* statusText(uint32_t st) {
    switch (st) {
        case CORVANE_OK: return "done";
        case CORVANE_E_NOT_PROCESSED: return "not processed";
        case CORVANE_E_ENVELOPE: return "envelope or magic refused";
        case 3: return "wrong state";
        case CORVANE_E_ELEMENT: return "malformed payload";
        case CORVANE_E_NOMEM: return "out of memory";
        case 20: return "no handler";
        default: return "unknown status";
    }
}

std::string failureLine(const CorVaneMessageInfo& m, std::span<const uint8_t> bytes,
                        const Decoded& d) {
    std::string line = std::string(m.name) + ": the " + std::to_string(bytes.size()) +
                       "-byte body is refused (status " + std::to_string(d.status) + ", " +
                       statusText(d.status) + "): ";
    if (d.status == CORVANE_E_ENVELOPE) return line + envelopeReason(m, bytes, d);
    if (d.walk.stop) {
        char at[64];
        std::snprintf(at, sizeof at, "stopped at offset %zu (0x%zx), ", d.walk.stop->offset,
                      d.walk.stop->offset);
        return line + at + describeStop(*d.walk.stop);
    }
    return line + "the element walk found no fault";
}

Json failureJson(const CorVaneMessageInfo& m, std::span<const uint8_t> bytes, const Decoded& d) {
    Json j = Json::object();
    j["error"] = failureLine(m, bytes, d);
    j["method"] = m.name;
    j["status"] = d.status;
    j["bytes"] = bytes.size();
    if (d.status == CORVANE_E_ENVELOPE) {
        j["reason"] = envelopeReason(m, bytes, d);
        if (const auto magic = bodyMagic(bytes)) j["magic"] = hex32(*magic);
    } else if (d.walk.stop) {
        const Stop& s = *d.walk.stop;
        j["stopped_at"] = s.offset;
        j["found"] = s.haveTag ? Json{{"tag", s.tagFound}, {"length", s.lengthFound}} : Json();
        j["expected"] = Json{{"tag", s.tagExpected}, {"field", s.path}, {"kind", s.kind}};
        j["reason"] = s.reason;
    }
    j["log"] = d.log;
    return j;
}

Json decodedJson(const CorVaneMessageInfo& m, std::span<const uint8_t> bytes, const Decoded& d) {
    Json j = Json::object();
    j["method"] = m.name;
    j["interface"] = interfaceKind(m);
    j["index"] = m.index;
    j["magic"] = hex32(m.magic);
    j["bytes"] = bytes.size();
    j["payload"] = recordToJson(*m.payload, static_cast<const uint8_t*>(d.body.get()) +
                                                CORVANE_BODY_PAYLOAD_OFFSET);
    if (d.walk.end < bytes.size()) j["unread_bytes"] = bytes.size() - d.walk.end;
    return j;
}

Json messageJson(const CorVaneMessageInfo& m) {
    return Json{{"name", m.name},
                {"interface", interfaceKind(m)},
                {"index", m.index},
                {"magic", hex32(m.magic)},
                {"key", hex32(m.key)},
                {"envelope", m.envelope},
                {"payload", m.payload->name},
                {"payload_kind", m.flags & CORVANE_MSG_RECORD_PAYLOAD ? "record" : "scalars"},
                {"need_update", (m.flags & CORVANE_MSG_NEED_UPDATE) != 0},
                {"body_size", m.bodySize}};
}

void printDecoded(std::ostream& os, const CorVaneMessageInfo& m, const Decoded& d) {
    os << m.name << ": " << interfaceKind(m) << " " << m.index << ", magic " << hex32(m.magic)
       << ", payload " << m.payload->name << '\n';
    printRecord(os, *m.payload,
                static_cast<const uint8_t*>(d.body.get()) + CORVANE_BODY_PAYLOAD_OFFSET, 2);
}

void printFailure(std::ostream& os, const CorVaneMessageInfo& m, std::span<const uint8_t> bytes,
                  const Decoded& d) {
    os << m.name << ": the " << bytes.size() << "-byte body is malformed (status " << d.status
       << ": " << statusText(d.status) << ")\n";
    if (d.walk.stop) {
        const Stop& s = *d.walk.stop;
        char at[64];
        std::snprintf(at, sizeof at, "offset %zu (0x%zx)", s.offset, s.offset);
        os << "  stopped at " << at << '\n'
           << "  found:    "
           << (s.haveTag ? "tag " + std::to_string(s.tagFound) + ", length " +
                               std::to_string(s.lengthFound)
                         : std::to_string(bytes.size() - s.offset) +
                               " bytes, no complete element header")
           << '\n'
           << "  expected: tag " << s.tagExpected << ", " << s.path << " (" << s.kind << ")\n"
           << "  reason:   " << s.reason << '\n';
        if (d.libraryStop && *d.libraryStop != s.offset)
            os << "  note: the library's payload decoder stopped at offset " << *d.libraryStop
               << '\n';
    } else {
        os << "  the element walk found no fault in the payload (envelope word or magic?)\n";
    }
    if (const std::string other = magicMismatch(m, bytes); !other.empty())
        os << "  note: " << other << '\n';
    os << "library log:" << (d.log.empty() ? " nothing" : "") << '\n';
    for (const std::string& line : d.log) os << "  " << line << '\n';
}

std::string magicMismatch(const CorVaneMessageInfo& m, std::span<const uint8_t> bytes) {
    if (bytes.size() < 12 || loadBe32(bytes.data()) != 0) return "";
    const uint32_t magic = loadBe32(bytes.data() + 8);
    if (magic == m.magic) return "";
    std::string owners;
    for (uint32_t intf : {CORVANE_INTF_CMD, CORVANE_INTF_NTFY})
        for (uint32_t i = 0; const CorVaneMessageInfo* o = corVane_messageInfo(intf, i); ++i)
            if (o->magic == magic) owners += (owners.empty() ? "" : ", ") + std::string(o->name);
    return "the body's magic " + hex32(magic) + " is not " + m.name + "'s " + hex32(m.magic) +
           (owners.empty() ? " (no message has it)" : " (it is the magic of " + owners + ")");
}

void printAnnotated(std::ostream& os, const CorVaneMessageInfo& m,
                    std::span<const uint8_t> bytes, const Walk& walk) {
    os << m.name << " (" << interfaceKind(m) << " " << m.index << ", payload " << m.payload->name
       << "): " << bytes.size() << " bytes\n";
    Rows rows(os, bytes);
    for (const Item& it : walk.items) {
        if (it.type == Item::Type::kNested) {
            rows.note(it.offset, "-- " + it.path + ": " + it.note);
            continue;
        }
        const std::string head = "tag " + std::to_string(it.tag) + " len " +
                                 std::to_string(it.length) + "  " + it.path + " = ";
        if (it.kind == CORVANE_FIELD_U32) {
            std::string value = std::to_string(it.value);
            if (it.path == "<magic>") {
                value = hex32(it.value) +
                        (it.value == m.magic ? "" : " (not " + std::string(m.name) + "'s " +
                                                        hex32(m.magic) + ")");
            } else if (it.value > 9) {
                char h[16];
                std::snprintf(h, sizeof h, " (0x%x)", it.value);
                value += h;
            }
            rows.bytes(it.offset, it.offset + it.size, head + value);
        } else {
            const size_t textEnd = std::min(it.offset + it.size, it.offset + 8 + it.text.size() + 1);
            rows.bytes(it.offset, textEnd, head + escaped(it.text));
            if (it.offset + it.size > textEnd)
                rows.bytes(textEnd, it.offset + it.size,
                           "padding (" + std::to_string(it.offset + it.size - textEnd) +
                               (it.offset + it.size - textEnd == 1 ? " byte)" : " bytes)"));
        }
    }
    if (walk.stop) {
        rows.note(walk.stop->offset, ">> stopped: " + describeStop(*walk.stop));
        rows.bytes(walk.stop->offset, bytes.size(), "not read");
    } else if (walk.end < bytes.size()) {
        rows.bytes(walk.end, bytes.size(), "not read: after the payload");
    }
}

void printHex(std::ostream& os, std::span<const uint8_t> bytes) {
    for (size_t i = 0; i < bytes.size(); ++i) {
        char b[4];
        std::snprintf(b, sizeof b, "%02x", bytes[i]);
        os << b << ((i + 1) % kRowBytes == 0 || i + 1 == bytes.size() ? '\n' : ' ');
    }
}

void printSchema(std::ostream& os, const CorVaneSchema& s) {
    const Range total = wireRange(s);
    os << s.name << ": " << s.fieldCount << (s.fieldCount == 1 ? " field, " : " fields, ") << s.size << " bytes in memory, "
       << rangeText(total) << " bytes on the wire\n";
    struct Row {
        std::string tag, name, kind, bytes;
    };
    std::vector<Row> rows;
    for (uint32_t i = 0; i < s.fieldCount; ++i) {
        const CorVaneField& f = s.fields[i];
        const std::string tag = std::to_string(CORVANE_FIRST_TAG + i);
        switch (f.kind) {
            case CORVANE_FIELD_U32:
                rows.push_back({tag, f.name, "u32", "12"});
                break;
            case CORVANE_FIELD_TEXT:
                rows.push_back({tag, f.name,
                                "text[" + std::to_string(f.capacity) + "], at most " +
                                    std::to_string(f.capacity - 1) + " characters",
                                rangeText({textElement(0), textElement(f.capacity - 1u)})});
                break;
            case CORVANE_FIELD_RECORD:
                rows.push_back({"(" + tag + ")", f.name, std::string(f.record->name) + ", inline",
                                rangeText(wireRange(*f.record))});
                break;
            default: {
                const Range e = wireRange(*f.record);
                const bool fixed = f.kind == CORVANE_FIELD_FIXED_ARRAY;
                rows.push_back({"(" + tag + ")", f.name,
                                std::string(f.record->name) + "[" + std::to_string(f.capacity) +
                                    "], " +
                                    (fixed ? std::string("fixed")
                                           : std::string("count in ") + s.fields[i - 1].name),
                                rangeText({fixed ? f.capacity * e.min : 0, f.capacity * e.max})});
                break;
            }
        }
    }
    int nameWidth = 5, kindWidth = 4;
    for (const Row& r : rows) {
        nameWidth = std::max(nameWidth, static_cast<int>(r.name.size()));
        kindWidth = std::max(kindWidth, static_cast<int>(r.kind.size()));
    }
    char line[512];
    std::snprintf(line, sizeof line, "  %5s  %-*s  %-*s  %s\n", "tag", nameWidth, "field",
                  kindWidth, "kind", "wire bytes");
    os << line;
    for (const Row& r : rows) {
        std::snprintf(line, sizeof line, "  %5s  %-*s  %-*s  %s\n", r.tag.c_str(), nameWidth,
                      r.name.c_str(), kindWidth, r.kind.c_str(), r.bytes.c_str());
        os << line;
    }
    os << "wire length (tags in parentheses are reserved: nested records and arrays write\n"
          "no element of their own):\n";
    printFormula(os, s);
    std::vector<const CorVaneSchema*> nested;
    collectNested(s, nested);
    for (const CorVaneSchema* n : nested) printFormula(os, *n);
    os << "  T(f) = 8 + ((n + 1) & ~3) + 4 for a text of n characters (n < capacity of f)\n";
}

Json schemaJson(const CorVaneSchema& s) {
    auto range = [](Range r) { return Json{{"min", r.min}, {"max", r.max}}; };
    Json fields = Json::array();
    for (uint32_t i = 0; i < s.fieldCount; ++i) {
        const CorVaneField& f = s.fields[i];
        Json j{{"tag", CORVANE_FIRST_TAG + i}, {"name", f.name}};
        switch (f.kind) {
            case CORVANE_FIELD_U32:
                j["kind"] = "u32";
                j["wire_bytes"] = range({12, 12});
                break;
            case CORVANE_FIELD_TEXT:
                j["kind"] = "text";
                j["capacity"] = f.capacity;
                j["wire_bytes"] = range({textElement(0), textElement(f.capacity - 1u)});
                break;
            case CORVANE_FIELD_RECORD:
                j["kind"] = "record";
                j["record"] = f.record->name;
                j["reserved"] = true;
                j["wire_bytes"] = range(wireRange(*f.record));
                break;
            default: {
                const bool fixed = f.kind == CORVANE_FIELD_FIXED_ARRAY;
                const Range e = wireRange(*f.record);
                j["kind"] = fixed ? "fixed_array" : "array";
                j["record"] = f.record->name;
                j["capacity"] = f.capacity;
                if (!fixed) j["count_field"] = s.fields[i - 1].name;
                j["reserved"] = true;
                j["wire_bytes"] = range({fixed ? f.capacity * e.min : 0, f.capacity * e.max});
                break;
            }
        }
        fields.push_back(std::move(j));
    }
    return Json{{"name", s.name},
                {"size", s.size},
                {"wire_bytes", range(wireRange(s))},
                {"fields", std::move(fields)}};
}

}  // namespace cvi
