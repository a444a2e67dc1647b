// Schema-driven helpers for table-driven record tests: instances of any
// record type, the list of elements its encoding must hold (worked out here
// from the wire rules, independently of the library's engine), and
// field-by-field comparison.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "corvane/schema.h"

namespace cvtest {

// A zeroed, heap-allocated record of a schema (records can be ~200 KB).
class Record {
public:
    explicit Record(const CorVaneSchema* schema);
    Record(const Record& other);
    uint8_t* data() { return bytes_.get(); }
    const uint8_t* data() const { return bytes_.get(); }
    const CorVaneSchema* schema() const { return schema_; }
    size_t size() const { return schema_->size; }

private:
    const CorVaneSchema* schema_;
    std::unique_ptr<uint8_t[]> bytes_;
};

// How the count of each counted array is set by fillFull: 0, the capacity,
// 0xFFFFFFFF (kept as received; only the capacity's entries count), or 1
// (every kind of element once, in a short encoding).
enum class Counts { kZero, kCapacity, kAllOnes, kOne };

// Every word distinct and non-zero (derived from seed), every text at
// capacity - 1 characters of distinct content, counts as asked. Every entry
// of every array is filled, beyond the count too, so that "untouched" can be
// checked against it.
void fillFull(const CorVaneSchema& s, void* rec, uint32_t seed, Counts counts);

// Random words, texts of random length (0 to capacity - 1) with non-zero
// bytes after the NUL, counts from 0 to capacity + 2.
void fillRandom(const CorVaneSchema& s, void* rec, std::mt19937& rng);

// The padded length of a text of n characters on the wire: the text, its
// NUL and up to three more bytes, to a multiple of four.
inline uint32_t paddedLength(size_t n) { return static_cast<uint32_t>((n + 1) / 4 * 4 + 4); }

// One enclosing record of an element: the schema, where the record's first
// element starts in the encoding, and the index of the field through which
// the element is reached.
struct Level {
    const CorVaneSchema* schema;
    size_t start;
    uint32_t fieldIndex;
};

// One element of a record's encoding: a u32, a text or an array count.
struct Element {
    size_t wireOffset;          // where the element starts in the encoding
    size_t wireSize;            // 12, or 8 + padded length
    uint32_t tag;
    const CorVaneField* field;
    size_t recordOffset;        // byte offset of the field in the outermost record
    std::string path;           // e.g. "sip.eventSubscribe[3].notifier"
    std::vector<Level> levels;  // outermost first
};

// The elements, in wire order, that encoding `rec` must produce. Array
// entries follow the counts held in `rec`.
std::vector<Element> elements(const CorVaneSchema& s, const void* rec);

// The path of the first difference between the meaningful contents of a and
// b (texts as strings, only the first min(count, capacity) entries of counted
// arrays); empty when they are equal.
std::string diff(const CorVaneSchema& s, const void* a, const void* b);

// Every record type, from the library's registry.
std::vector<const CorVaneSchema*> allRecords();

}  // namespace cvtest
