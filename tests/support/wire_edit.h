// Building and editing encodings for tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "corvane/schema.h"
#include "support/records.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define CVTEST_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define CVTEST_ASAN 1
#endif
#ifdef CVTEST_ASAN
#include <sanitizer/asan_interface.h>
#endif

namespace cvtest {

using Bytes = std::vector<uint8_t>;

inline uint32_t be32(const uint8_t* p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

inline void putBe32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

// Serialises with the generic operation into a buffer of exactly the
// announced length.
Bytes encode(const CorVaneSchema& s, const void* rec);

// The encoding with the element at `e` replaced by `replacement`.
Bytes replaceElement(const Bytes& wire, const Element& e, const Bytes& replacement);

// A string element holding `text` with the given tag and the padded length.
Bytes stringElement(uint32_t tag, const std::string& text);

// A heap block holding exactly `bytes`, so that a sanitizer reports any read
// past its end. With AddressSanitizer, the bytes from `visible` on can be
// poisoned too, so a truncation needs no new allocation.
class ExactBuffer {
public:
    explicit ExactBuffer(const Bytes& bytes);
    ~ExactBuffer();
    ExactBuffer(const ExactBuffer&) = delete;
    ExactBuffer& operator=(const ExactBuffer&) = delete;
    const uint8_t* data() const { return data_; }
    size_t size() const { return size_; }
    // Makes only the first `visible` bytes readable (a no-op without ASan).
    void limit(size_t visible);

private:
    uint8_t* data_;
    size_t size_;
};

// "%p" of a pointer, as the library prints it.
std::string ptr(const void* p);

}  // namespace cvtest
