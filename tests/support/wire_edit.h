// Building, editing and holding encodings for tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "corvane/schema.h"
#include "support/records.h"

#if defined(__SANITIZE_ADDRESS__)
#define CVTEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define CVTEST_ASAN 1
#endif
#endif

namespace cvtest {

using Bytes = std::vector<uint8_t>;

inline uint32_t be32(const uint8_t* p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

inline void putBe32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (24 - 8 * i));
}

// Big-endian words, as the wire holds them.
Bytes words(std::initializer_list<uint32_t> ws);
Bytes operator+(Bytes a, const Bytes& b);

// Serialises with the generic operation into a buffer of exactly the announced length.
Bytes encode(const CorVaneSchema& s, const void* rec);

// The encoding with the element at `e` replaced by `replacement`.
Bytes replaceElement(const Bytes& wire, const Element& e, const Bytes& replacement);

// A string element holding `text` with the given tag and its padded length.
Bytes stringElement(uint32_t tag, const std::string& text);

// `bytes` in a heap block that starts `shift` bytes past malloc's aligned
// address and ends exactly where they end, so that AddressSanitizer reports
// any read past them. With it, limit() also makes the bytes from `visible`
// on unreadable.
class ExactBuffer {
public:
    explicit ExactBuffer(const Bytes& bytes, size_t shift = 0);
    ~ExactBuffer();
    ExactBuffer(const ExactBuffer&) = delete;
    ExactBuffer& operator=(const ExactBuffer&) = delete;
    uint8_t* data() const { return data_; }
    uint8_t* end() const { return data_ + size_; }
    size_t size() const { return size_; }
    void limit(size_t visible);

private:
    uint8_t* block_;
    uint8_t* data_;
    size_t size_;
};

// "%p" of a pointer, as the library prints it.
std::string ptr(const void* p);

// The bounded reader up to `end`, or the classic one when `end` is null.
uint32_t decode(const CorVaneSchema& s, void* rec, const uint8_t** in, const uint8_t* end);

// corVane_<Record><op>, the name a record's lines carry.
std::string fnOf(const CorVaneSchema& s, const char* op = "_unserialize");

// The "Error Before" lines a failure at element e gives, innermost record
// first: each enclosing record names its later written fields (and its
// reserved numbers too, where its schema says so). `wire` is where the
// encoding starts.
std::vector<std::string> errorBeforeLines(const Element& e, const uint8_t* wire,
                                          const char* op = "_unserialize");

}  // namespace cvtest
