// Wire primitives: big-endian words at any alignment, and the size rules of
// the two element kinds that carry values.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace cv {

// Reads a big-endian word at p. The memcpy keeps the access free of alignment
// assumptions (compilers turn it into a plain load where the CPU allows one).
inline uint32_t loadBe32(const uint8_t* p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap32(v);
    return v;
}

inline void storeBe32(uint8_t* p, uint32_t v) {
    if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap32(v);
    std::memcpy(p, &v, 4);
}

// A host word inside a record (records are aligned C structs, but the engine
// only sees byte addresses).
inline uint32_t loadHost32(const uint8_t* p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

inline void storeHost32(uint8_t* p, uint32_t v) { std::memcpy(p, &v, 4); }

// The tag and length words of an element as the eight bytes the wire holds,
// read or written as one 64-bit access.
inline uint64_t headerBytes(uint32_t tag, uint32_t len) {
    uint8_t b[8];
    storeBe32(b, tag);
    storeBe32(b + 4, len);
    uint64_t v;
    std::memcpy(&v, b, 8);
    return v;
}

// The header bytes of the next tag with the same length word: one added to
// the tag's low byte, so only for tags up to 254 (a carry out of that byte
// would land in the length word).
inline uint64_t nextTagHeader(uint64_t header) {
    constexpr uint64_t kStep = std::endian::native == std::endian::little ? 1ull << 24 : 1ull << 32;
    return header + kStep;
}

inline uint64_t load64(const uint8_t* p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    return v;
}

inline void store64(uint8_t* p, uint64_t v) { std::memcpy(p, &v, 8); }

constexpr uint32_t kHeaderBytes = 8;     // tag and length words
constexpr uint32_t kU32ElementBytes = 12;

// Padded length L of a string element for a text of n characters: (n + 1)
// rounded down to a multiple of 4, plus 4, so there are 1 to 4 bytes of
// padding after the NUL.
constexpr uint32_t paddedLength(uint32_t n) { return ((n + 1) & ~3u) + 4; }

constexpr uint32_t textElementBytes(uint32_t n) { return kHeaderBytes + paddedLength(n); }

}  // namespace cv
