// The record engine: copy, length, serialise and unserialise of any record,
// driven by its schema.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/log.h"
#include "corvane/schema.h"

// For paths kept out of the common case: failures (cold) and the less
// usual element kinds (out of line).
#define CV_COLD __attribute__((noinline, cold))
#define CV_NOINLINE __attribute__((noinline))
// For a small helper that each walk must have in its own loop.
#define CV_ALWAYS_INLINE __attribute__((always_inline)) inline

namespace cv {

// Internal results. kOverrun is a bounded read that would have gone past the
// end of the buffer: it is reported as 4 to callers, but the records it
// unwinds through log nothing more, so that it gives one log line.
enum : uint32_t { kOk = 0, kMismatch = 4, kOverrun = 0x104 };

inline uint32_t publicStatus(uint32_t st) { return st == kOverrun ? kMismatch : st; }

// `who` names the function that logs for the top-level record; nullptr
// means the record's own operation, corVane_<Record>_<op>. Nested records
// always log under their own operation names.
uint32_t copyRecord(const CorVaneSchema& s, void* dst, const void* src, const FnName* who = nullptr);
uint32_t recordLength(const CorVaneSchema& s, const void* rec);
uint32_t encodeRecord(const CorVaneSchema& s, const void* rec, uint8_t** cursor,
                      const FnName* who = nullptr);
// Reads at *cursor. With end == nullptr the read is unbounded: the buffer is
// trusted to hold the whole encoding. Otherwise nothing at or beyond end is
// read. Returns a public status: an overrun is reported as kMismatch.
uint32_t decodeTrusted(const CorVaneSchema& s, void* rec, const uint8_t** cursor,
                       const FnName* who = nullptr);
uint32_t decodeBounded(const CorVaneSchema& s, void* rec, const uint8_t** cursor,
                       const uint8_t* end, const FnName* who = nullptr);
inline uint32_t decodeRecord(const CorVaneSchema& s, void* rec, const uint8_t** cursor,
                             const uint8_t* end, const FnName* who = nullptr) {
    return end ? decodeBounded(s, rec, cursor, end, who) : decodeTrusted(s, rec, cursor, who);
}

// Reads one u32 element that must carry `tag` (the two words of a message
// envelope), by the rules of a scalar field; its lines name `who`, with
// recordStart as the position printed.
uint32_t decodeWord(uint32_t tag, uint32_t* value, const uint8_t** cursor, const uint8_t* end,
                    const uint8_t* recordStart, const FnName& who);

}  // namespace cv
