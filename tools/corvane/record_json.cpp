#include "record_json.h"

#include "inspect.h"

#include <cstring>
#include <limits>

#include "names.h"
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

// Why a JSON value is not an unsigned 32-bit number; empty when it is one.
std::string wordProblem(const Json& v) {
    if (v.is_string())
        return "expects a number, got the string " + v.dump() + " (numbers are not quoted)";
    if (v.is_number_unsigned()) {
        if (v.get<uint64_t>() <= std::numeric_limits<uint32_t>::max()) return "";
        return "is out of range: " + v.dump() + " (0 to 4294967295)";
    }
    if (v.is_number_integer()) {  // signed: built in C++ from an int, or negative
        const int64_t x = v.get<int64_t>();
        if (x >= 0 && x <= int64_t{std::numeric_limits<uint32_t>::max()}) return "";
        return "is out of range: " + v.dump() + " (0 to 4294967295)";
    }
    return "expects an unsigned 32-bit integer, got " + v.dump();
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
                 std::string("must be an object (") + s.name + "), got " + j.dump());
            return;
        }
        for (const auto& [key, value] : j.items()) {
            if (fieldNamed(s, key)) continue;
            std::vector<std::string> names;
            for (uint32_t i = 0; i < s.fieldCount; ++i) names.emplace_back(s.fields[i].name);
            const std::string hint = didYouMean(key, names);
            errors.push_back("unknown field '" + join(path, key) + "' (" + s.name +
                             " has no such field" + (hint.empty() ? "" : "; " + hint) + ")");
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
        if (const std::string problem = wordProblem(v); !problem.empty()) {
            fail("field '" + p + "'", problem);
            return;
        }
        storeWord(m, static_cast<uint32_t>(v.get<uint64_t>()));
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
            // The count is what goes on the wire, and the library sends
            // min(count, capacity) entries: entries beyond the count would
            // not be sent, so they are refused rather than dropped.
            const CorVaneField& count = s.fields[i - 1];
            uint8_t* c = rec + count.offset;
            if (!parent.contains(count.name)) {
                storeWord(c, static_cast<uint32_t>(v.size()));
            } else if (wordProblem(parent[count.name]).empty() && loadWord(c) < v.size()) {
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

std::string errorLine(const std::string& method, const std::vector<std::string>& errors) {
    const std::string prefix = method.empty() ? "" : method + ": ";
    if (errors.size() == 1) return prefix + errors.front();
    std::string line = prefix + std::to_string(errors.size()) + " fields are wrong: ";
    for (size_t i = 0; i < errors.size(); ++i) line += (i ? "; " : "") + errors[i];
    return line;
}

PayloadInput payloadInput(const Json& json) {
    PayloadInput in;
    // No record has a field named "method": an object with one is an entry
    // as decode --json or monitor --json printed it.
    if (!json.is_object() || !json.contains("method") || !json["method"].is_string()) {
        in.payload = json;
        return in;
    }
    in.method = json["method"].get<std::string>();
    in.entry = true;
    if (json.contains("payload")) {
        in.payload = json["payload"];
    } else if (json.contains("decode_error")) {
        in.problem = "nothing to encode: its body did not decode";
    } else if (json.contains("type") && json["type"].is_string()) {
        in.problem = "nothing to encode: it is a " + json["type"].get<std::string>() +
                     " entry, not a body";
    } else {
        in.problem = "nothing to encode: it has no payload";
    }
    return in;
}

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
    printFolded(os, s, record, indent, false);
}

}  // namespace cvi
