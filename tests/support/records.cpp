#include "support/records.h"

#include <cstring>

namespace cvtest {
namespace {

uint32_t readWord(const void* p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

void writeWord(uint8_t* p, uint32_t v) { std::memcpy(p, &v, 4); }

uint32_t entriesUsed(const CorVaneSchema& s, uint32_t i, const uint8_t* rec) {
    const CorVaneField& f = s.fields[i];
    if (f.kind == CORVANE_FIELD_FIXED_ARRAY) return f.capacity;
    const uint32_t count = readWord(rec + s.fields[i - 1].offset);
    return count < f.capacity ? count : f.capacity;
}

// Text content that differs from field to field: letters and digits from a
// running counter, never a NUL.
void fillText(char* dst, uint32_t length, uint32_t salt) {
    static const char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";
    for (uint32_t i = 0; i < length; ++i) dst[i] = kAlphabet[(salt * 7 + i * 13 + i / 61) % 66];
    dst[length] = '\0';
}

// Fills every field: words distinct and non-zero (from `next`) or random,
// texts at capacity - 1 characters or of random length, counts as asked or
// random up to capacity + 2. Every entry of every array is filled, beyond
// the count too, so that "untouched" can be checked against it.
struct Filler {
    uint32_t next;
    Counts counts;
    std::mt19937* rng;  // random content when set

    void fill(const CorVaneSchema& s, uint8_t* rec) {
        for (uint32_t i = 0; i < s.fieldCount; ++i) {
            const CorVaneField& f = s.fields[i];
            uint8_t* m = rec + f.offset;
            if (f.kind == CORVANE_FIELD_U32) {
                writeWord(m, rng ? static_cast<uint32_t>((*rng)()) : ++next * 2654435761u | 1u);
            } else if (f.kind == CORVANE_FIELD_TEXT) {
                const uint32_t n = rng ? static_cast<uint32_t>((*rng)() % f.capacity) : f.capacity - 1u;
                if (rng) std::memset(m, '#', f.capacity);  // junk after the NUL
                fillText(reinterpret_cast<char*>(m), n, rng ? static_cast<uint32_t>((*rng)()) : ++next);
            } else if (f.kind == CORVANE_FIELD_RECORD) {
                fill(*f.record, m);
            } else {
                const uint32_t count = counts == Counts::kZero       ? 0u
                                       : counts == Counts::kCapacity ? f.capacity
                                       : counts == Counts::kOne      ? 1u
                                                                     : 0xFFFFFFFFu;
                if (f.kind == CORVANE_FIELD_ARRAY)
                    writeWord(rec + s.fields[i - 1].offset,
                              rng ? static_cast<uint32_t>((*rng)() % (f.capacity + 3u)) : count);
                for (uint32_t j = 0; j < f.capacity; ++j) fill(*f.record, m + j * f.record->size);
            }
        }
    }
};

struct Walker {
    const uint8_t* root;
    size_t wire = 0;
    std::vector<Element> out;
    std::vector<Level> levels;

    void walk(const CorVaneSchema& s, const uint8_t* rec, const std::string& prefix) {
        levels.push_back({&s, wire, 0});
        for (uint32_t i = 0; i < s.fieldCount; ++i) {
            levels.back().fieldIndex = i;
            const CorVaneField& f = s.fields[i];
            const uint8_t* m = rec + f.offset;
            const std::string path = prefix + f.name;
            switch (f.kind) {
                case CORVANE_FIELD_U32:
                case CORVANE_FIELD_TEXT: {
                    size_t size = 12;
                    if (f.kind == CORVANE_FIELD_TEXT) {
                        const size_t n = strnlen(reinterpret_cast<const char*>(m), f.capacity);
                        size = 8 + paddedLength(n);
                    }
                    out.push_back({wire, size, i + 3u, &f, static_cast<size_t>(m - root), path,
                                   levels});
                    wire += size;
                    break;
                }
                case CORVANE_FIELD_RECORD:
                    walk(*f.record, m, path + ".");
                    break;
                default: {
                    const uint32_t n = entriesUsed(s, i, rec);
                    for (uint32_t j = 0; j < n; ++j)
                        walk(*f.record, m + j * f.record->size,
                             path + "[" + std::to_string(j) + "].");
                    break;
                }
            }
        }
        levels.pop_back();
    }
};

}  // namespace

Record::Record(const CorVaneSchema* schema)
    : schema_(schema), bytes_(new uint8_t[schema->size]()) {}

Record::Record(const Record& other) : Record(other.schema_) {
    std::memcpy(bytes_.get(), other.bytes_.get(), schema_->size);
}

void fillFull(const CorVaneSchema& s, void* rec, uint32_t seed, Counts counts) {
    Filler{seed * 100000u, counts, nullptr}.fill(s, static_cast<uint8_t*>(rec));
}

void fillRandom(const CorVaneSchema& s, void* rec, std::mt19937& rng) {
    Filler{0, Counts::kZero, &rng}.fill(s, static_cast<uint8_t*>(rec));
}

std::vector<Element> elements(const CorVaneSchema& s, const void* rec) {
    Walker w{static_cast<const uint8_t*>(rec), 0, {}, {}};
    w.walk(s, static_cast<const uint8_t*>(rec), "");
    return std::move(w.out);
}

std::string diff(const CorVaneSchema& s, const void* a, const void* b) {
    for (const Element& e : elements(s, a)) {
        const char* x = static_cast<const char*>(a) + e.recordOffset;
        const char* y = static_cast<const char*>(b) + e.recordOffset;
        const bool text = e.field->kind == CORVANE_FIELD_TEXT;
        const size_t n = text ? strnlen(x, e.field->capacity) : 4;
        if ((text && strnlen(y, e.field->capacity) != n) || std::memcmp(x, y, n) != 0)
            return e.path + " differs";
    }
    return {};
}

std::vector<const CorVaneSchema*> allRecords() {
    std::vector<const CorVaneSchema*> v;
    for (uint32_t i = 0; i < corVane_recordCount(); ++i) v.push_back(corVane_recordSchemaAt(i));
    return v;
}

}  // namespace cvtest
