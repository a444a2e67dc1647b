#include "record_json.h"

#include <cstring>
#include <limits>

#include "wire.h"

namespace cvi {
namespace {

uint32_t loadWord(const uint8_t* p) {
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

void storeWord(uint8_t* p, uint32_t v) { std::memcpy(p, &v, sizeof v); }

std::string textOf(const uint8_t* p, uint32_t capacity) {
    const char* s = reinterpret_cast<const char*>(p);
    return std::string(s, strnlen(s, capacity));
}

// Entries an array field holds in memory: the count (the previous field)
// bounded by the capacity, or the whole capacity for a fixed array.
uint32_t entries(const CorVaneSchema& s, uint32_t i, const uint8_t* rec) {
    const CorVaneField& f = s.fields[i];
    if (f.kind == CORVANE_FIELD_FIXED_ARRAY) return f.capacity;
    const uint32_t count = loadWord(rec + s.fields[i - 1].offset);
    return count < f.capacity ? count : f.capacity;
}

const CorVaneField* fieldNamed(const CorVaneSchema& s, const std::string& name) {
    for (uint32_t i = 0; i < s.fieldCount; ++i)
        if (name == s.fields[i].name) return &s.fields[i];
    return nullptr;
}

class Reader {
public:
    std::vector<std::string> errors;

    void record(const CorVaneSchema& s, const Json& j, uint8_t* rec, const std::string& path) {
        if (!j.is_object()) {
            fail(path.empty() ? std::string("the payload") : "'" + path + "'",
                 std::string("must be an object (") + s.name + ")");
            return;
        }
        for (const auto& [key, value] : j.items()) {
            if (!fieldNamed(s, key))
                errors.push_back("unknown field '" + join(path, key) + "' (" + s.name +
                                 " has no such field)");
        }
        for (uint32_t i = 0; i < s.fieldCount; ++i) {
            const CorVaneField& f = s.fields[i];
            const auto it = j.find(f.name);
            if (it == j.end()) continue;
            const std::string p = join(path, f.name);
            uint8_t* m = rec + f.offset;
            switch (f.kind) {
                case CORVANE_FIELD_U32:
                    word(*it, m, p);
                    break;
                case CORVANE_FIELD_TEXT:
                    text(*it, m, f.capacity, p);
                    break;
                case CORVANE_FIELD_RECORD:
                    record(*f.record, *it, m, p);
                    break;
                default:
                    array(s, i, *it, rec, p, j);
                    break;
            }
        }
    }

private:
    static std::string join(const std::string& path, const std::string& name) {
        return path.empty() ? name : path + "." + name;
    }

    void fail(const std::string& what, const std::string& why) {
        errors.push_back(what + " " + why);
    }

    void word(const Json& v, uint8_t* m, const std::string& p) {
        uint64_t value = 0;
        bool ok = false;
        if (v.is_number_unsigned()) {
            value = v.get<uint64_t>();
            ok = true;
        } else if (v.is_number_integer() && v.get<int64_t>() >= 0) {  // built in C++ from an int
            value = static_cast<uint64_t>(v.get<int64_t>());
            ok = true;
        } else if (v.is_string()) {  // "0x1f", "31"
            const std::string s = v.get<std::string>();
            char* end = nullptr;
            value = std::strtoull(s.c_str(), &end, 0);
            ok = !s.empty() && s[0] != '-' && *end == '\0';
        }
        if (!ok || value > std::numeric_limits<uint32_t>::max()) {
            fail("field '" + p + "'", "expects an unsigned 32-bit number, got " + v.dump());
            return;
        }
        storeWord(m, static_cast<uint32_t>(value));
    }

    void text(const Json& v, uint8_t* m, uint32_t capacity, const std::string& p) {
        if (!v.is_string()) {
            fail("field '" + p + "'", "expects a string, got " + v.dump());
            return;
        }
        const std::string& s = v.get_ref<const std::string&>();
        if (s.find('\0') != std::string::npos) {
            fail("field '" + p + "'", "holds a NUL character");
            return;
        }
        if (s.size() + 1 > capacity) {
            fail("field '" + p + "'", "is too long: " + std::to_string(s.size()) +
                                          " bytes, capacity " + std::to_string(capacity) +
                                          " (at most " + std::to_string(capacity - 1) +
                                          " characters)");
            return;
        }
        std::memcpy(m, s.data(), s.size());
        m[s.size()] = '\0';
    }

    void array(const CorVaneSchema& s, uint32_t i, const Json& v, uint8_t* rec,
               const std::string& p, const Json& parent) {
        const CorVaneField& f = s.fields[i];
        if (!v.is_array()) {
            fail("field '" + p + "'", std::string("expects an array of ") + f.record->name);
            return;
        }
        if (v.size() > f.capacity) {
            fail("field '" + p + "'", "has " + std::to_string(v.size()) + " entries, capacity " +
                                          std::to_string(f.capacity));
            return;
        }
        if (f.kind == CORVANE_FIELD_ARRAY) {
            // Entries beyond the count are not sent: refuse them rather than
            // drop them silently.
            const CorVaneField& count = s.fields[i - 1];
            uint8_t* c = rec + count.offset;
            if (!parent.contains(count.name)) {
                storeWord(c, static_cast<uint32_t>(v.size()));
            } else if (loadWord(c) < v.size()) {
                fail("field '" + p + "'", "has " + std::to_string(v.size()) +
                                              " entries but its count '" + count.name +
                                              "' is " + std::to_string(loadWord(c)));
                return;
            }
        }
        for (size_t j = 0; j < v.size(); ++j)
            record(*f.record, v[j], rec + f.offset + j * f.record->size,
                   p + "[" + std::to_string(j) + "]");
    }
};

}  // namespace

Json recordToJson(const CorVaneSchema& s, const void* record) {
    const auto* rec = static_cast<const uint8_t*>(record);
    Json j = Json::object();
    for (uint32_t i = 0; i < s.fieldCount; ++i) {
        const CorVaneField& f = s.fields[i];
        const uint8_t* m = rec + f.offset;
        switch (f.kind) {
            case CORVANE_FIELD_U32:
                j[f.name] = loadWord(m);
                break;
            case CORVANE_FIELD_TEXT:
                j[f.name] = textOf(m, f.capacity);
                break;
            case CORVANE_FIELD_RECORD:
                j[f.name] = recordToJson(*f.record, m);
                break;
            default: {
                Json a = Json::array();
                const uint32_t n = entries(s, i, rec);
                for (uint32_t e = 0; e < n; ++e)
                    a.push_back(recordToJson(*f.record, m + e * f.record->size));
                j[f.name] = std::move(a);
                break;
            }
        }
    }
    return j;
}

std::vector<std::string> recordFromJson(const CorVaneSchema& s, const Json& json, void* record) {
    Reader r;
    r.record(s, json, static_cast<uint8_t*>(record), "");
    return std::move(r.errors);
}

void printRecord(std::ostream& os, const CorVaneSchema& s, const void* record, int indent) {
    const auto* rec = static_cast<const uint8_t*>(record);
    const std::string pad(static_cast<size_t>(indent), ' ');
    for (uint32_t i = 0; i < s.fieldCount; ++i) {
        const CorVaneField& f = s.fields[i];
        const uint8_t* m = rec + f.offset;
        switch (f.kind) {
            case CORVANE_FIELD_U32: {
                const uint32_t v = loadWord(m);
                os << pad << f.name << " = " << v;
                if (v > 9) os << " (0x" << std::hex << v << std::dec << ")";
                os << '\n';
                break;
            }
            case CORVANE_FIELD_TEXT:
                os << pad << f.name << " = " << escaped(textOf(m, f.capacity)) << '\n';
                break;
            case CORVANE_FIELD_RECORD:
                os << pad << f.name << ": " << f.record->name << '\n';
                printRecord(os, *f.record, m, indent + 2);
                break;
            default: {
                const uint32_t n = entries(s, i, rec);
                os << pad << f.name << ": " << n << " of " << f.capacity << " " << f.record->name
                   << '\n';
                for (uint32_t e = 0; e < n; ++e) {
                    os << pad << "  [" << e << "]\n";
                    printRecord(os, *f.record, m + e * f.record->size, indent + 4);
                }
                break;
            }
        }
    }
}

}  // namespace cvi
