#include "codec/engine.h"

#include <cstring>

#include "codec/wire.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#define CV_FUSED_TEXT 1
#else
#define CV_FUSED_TEXT 0
#endif

// On x86-64 the texts of 33 to 256 bytes also have an AVX2 path, taken when
// the CPU has AVX2 (the build itself assumes only the base instruction set).
// CORVANE_TEXT_AVX2=0 leaves it out, so that the SSE2 path can be tested on
// any machine.
#if CV_FUSED_TEXT && defined(__x86_64__) && defined(__GNUC__) && CORVANE_TEXT_AVX2
#include <immintrin.h>
#define CV_TEXT_AVX2 1
#else
#define CV_TEXT_AVX2 0
#endif

// The walks below keep their common case (runs of u32 fields, short texts)
// in small loops with few live values, and leave failures, nested records
// and long texts to separate functions (CV_COLD, CV_NOINLINE): a record of
// three words then costs little more than the words themselves.

namespace cv {
namespace {

constexpr uint32_t tagOf(uint32_t fieldIndex) { return fieldIndex + CORVANE_FIRST_TAG; }

// How many fields, counted from the first, have tags below 256: the number a
// record may have for its headers to be stepped (see nextTagHeader).
constexpr uint32_t kSteppedTags = 256 - CORVANE_FIRST_TAG;

// A field written under its own tag: a scalar, a text or an array count.
constexpr bool isWritten(uint8_t kind) {
    return kind == CORVANE_FIELD_U32 || kind == CORVANE_FIELD_TEXT;
}

// Names and positions a record's log lines need; built only on failure.
struct Scope {
    const CorVaneSchema* s;  // null for the envelope's words
    const uint8_t* start;    // where the record's first element begins
    const FnName* who;
    const char* op;          // "_serialize", "_unserialize", "_copy"

    FnName name() const {
        return who ? *who : FnName{"corVane_", s->name, op, FnName::Case::kAsIs};
    }
};

// After a failure at field `failed`: one "Error Before" line for each later
// field written under its own tag, and for the reserved numbers of nested
// records and arrays too where the schema asks for it.
CV_COLD void logErrorBefore(const Scope& sc, uint32_t failed) {
    const CorVaneSchema& s = *sc.s;
    const bool reservedToo = s.flags & CORVANE_SCHEMA_ERROR_BEFORE_RESERVED;
    const FnName name = sc.name();
    for (uint32_t j = failed + 1; j < s.fieldCount; ++j) {
        if (reservedToo || isWritten(s.fields[j].kind)) {
            log(kPrioError, name, __LINE__, "pBody(%p): Type(%d) -> Error Before\n",
                static_cast<const void*>(sc.start), static_cast<int>(tagOf(j)));
        }
    }
}

uint32_t entryCount(const CorVaneField* f, const uint8_t* rec) {
    if (f->kind == CORVANE_FIELD_FIXED_ARRAY) return f->capacity;
    const uint32_t count = loadHost32(rec + f[-1].offset);  // the count member precedes
    return count < f->capacity ? count : f->capacity;
}

// ---- texts -----------------------------------------------------------------
//
// Where SSE2 is part of the base instruction set, a short text is found and
// copied in one pass, 16 bytes at a time, instead of a measuring pass
// (strnlen / strlen) and then a copying one, each a call into the C library.
// The callers guarantee that a NUL lies within the bytes they let the
// helpers read, so a copy never has to be abandoned half-way; the helpers
// read nothing outside those bytes and write exactly the text and its NUL.
// Longer texts, and other targets, use the C library's string functions,
// whose wider vectors win once a text spans a few hundred bytes.
//
// Texts of up to 32 bytes are handled with at most two 16-byte moves.
// Longer ones go 64 bytes at a time; the block that holds the NUL is
// finished from the masks already computed: the vectors wholly before the
// NUL are stored, then the 16 bytes that end with it. Any text byte may be
// written again with its own value, which is what makes the overlapping
// moves exact.

constexpr size_t kFusedTextMax = 256;

#if CV_FUSED_TEXT

inline uint32_t nulMask16(const uint8_t* p) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    return static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_setzero_si128())));
}

// Copies the 16 bytes at s to d.
inline void move16(uint8_t* d, const uint8_t* s) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d),
                     _mm_loadu_si128(reinterpret_cast<const __m128i*>(s)));
}

// The 0x80 bits of the NUL bytes of a little-endian word; the lowest one is
// exact (x86 is little-endian).
inline uint64_t nulBits64(uint64_t w) {
    return (w - 0x0101010101010101ull) & ~w & 0x8080808080808080ull;
}

inline uint32_t nulBits32(uint32_t w) { return (w - 0x01010101u) & ~w & 0x80808080u; }

inline size_t lowByte(uint64_t bits) { return static_cast<size_t>(__builtin_ctzll(bits)) / 8; }

// Index of the first NUL in s[0, lim) with lim < 16, or lim.
inline size_t nulIndexShort(const uint8_t* s, size_t lim) {
    if (lim >= 8) {
        if (const uint64_t b = nulBits64(load64(s))) return lowByte(b);
        if (const uint64_t b = nulBits64(load64(s + lim - 8))) return lim - 8 + lowByte(b);
        return lim;
    }
    if (lim >= 4) {
        if (const uint32_t b = nulBits32(loadHost32(s))) return lowByte(b);
        if (const uint32_t b = nulBits32(loadHost32(s + lim - 4))) return lim - 4 + lowByte(b);
        return lim;
    }
    for (size_t i = 0; i < lim; ++i)
        if (s[i] == 0) return i;
    return lim;
}

// Index of the first NUL in s[0, lim) with lim > 32, or lim.
CV_NOINLINE size_t nulIndexSse2(const uint8_t* s, size_t lim) {
    size_t i = 16;  // the caller looked at the first 16
    const __m128i zero = _mm_setzero_si128();
    for (; i + 64 <= lim; i += 64) {
        const __m128i low = _mm_min_epu8(
            _mm_min_epu8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i)),
                         _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i + 16))),
            _mm_min_epu8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i + 32)),
                         _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i + 48))));
        if (_mm_movemask_epi8(_mm_cmpeq_epi8(low, zero))) break;  // the NUL is in these 64
    }
    for (; i + 16 <= lim; i += 16)
        if (const uint32_t m = nulMask16(s + i)) return i + static_cast<size_t>(__builtin_ctz(m));
    if (i == lim) return lim;
    // The last 16 bytes; those before i are known not to be NUL.
    const uint32_t m = nulMask16(s + lim - 16);
    return m ? lim - 16 + static_cast<size_t>(__builtin_ctz(m)) : lim;
}

// Copies k bytes, 1 <= k <= 16, with at most two overlapping moves a side.
inline void copyShort(uint8_t* d, const uint8_t* s, size_t k) {
    if (k >= 8) {
        const uint64_t a = load64(s), b = load64(s + k - 8);
        store64(d, a);
        store64(d + k - 8, b);
    } else if (k >= 4) {
        const uint32_t a = loadHost32(s), b = loadHost32(s + k - 4);
        storeHost32(d, a);
        storeHost32(d + k - 4, b);
    } else {
        const uint8_t a = s[0], b = s[k / 2], c = s[k - 1];
        d[0] = a;
        d[k / 2] = b;
        d[k - 1] = c;
    }
}

// The NUL mask of the 64 bytes a..e, or 0 when they hold none.
inline uint64_t nulMask64(__m128i a, __m128i b, __m128i c, __m128i e) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i low = _mm_min_epu8(_mm_min_epu8(a, b), _mm_min_epu8(c, e));
    if (!_mm_movemask_epi8(_mm_cmpeq_epi8(low, zero))) return 0;
    const auto mask = [zero](__m128i v) {
        return static_cast<uint64_t>(
            static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, zero))));
    };
    return mask(a) | mask(b) << 16 | mask(c) << 32 | mask(e) << 48;
}

// copyThroughNul when lim > 32 and the first 16 bytes hold no NUL.
CV_NOINLINE size_t copyThroughNulSse2(uint8_t* d, const uint8_t* s, size_t lim) {
    size_t n;
    size_t i = 0;
    for (; i + 64 <= lim; i += 64) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i + 16));
        const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i + 32));
        const __m128i e = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i + 48));
        if (const uint64_t m = nulMask64(a, b, c, e)) {
            n = i + static_cast<size_t>(__builtin_ctzll(m));
            if (n >= i + 16) _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i), a);
            if (n >= i + 32) _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i + 16), b);
            if (n >= i + 48) _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i + 32), c);
            goto last;
        }
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i), a);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i + 16), b);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i + 32), c);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i + 48), e);
    }
    for (; i + 16 <= lim; i += 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i));
        const uint32_t m =
            static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_setzero_si128())));
        if (m) {
            n = i + static_cast<size_t>(__builtin_ctz(m));
            goto last;
        }
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i), v);
    }
    // The NUL is in the last 16 bytes, beyond those already copied.
    n = lim - 16 + static_cast<size_t>(__builtin_ctz(nulMask16(s + lim - 16)));
last:
    // The 16 bytes that end with the NUL (n >= 16 here).
    move16(d + n - 15, s + n - 15);
    return n;
}

#if CV_TEXT_AVX2

#define CV_AVX2 __attribute__((target("avx2")))

CV_AVX2 inline uint32_t nulMask32(__m256i v) {
    const __m256i nul = _mm256_cmpeq_epi8(v, _mm256_setzero_si256());
    return static_cast<uint32_t>(_mm256_movemask_epi8(nul));
}

CV_AVX2 inline __m256i load32(const uint8_t* p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}

// The NUL mask of the 64 bytes a, b, or 0 when they hold none.
CV_AVX2 inline uint64_t nulMask64(__m256i a, __m256i b) {
    if (!nulMask32(_mm256_min_epu8(a, b))) return 0;
    return nulMask32(a) | static_cast<uint64_t>(nulMask32(b)) << 32;
}

// nulIndexSse2 with 32-byte vectors.
CV_AVX2 CV_NOINLINE size_t nulIndexAvx2(const uint8_t* s, size_t lim) {
    size_t i = 0;
    for (; i + 64 <= lim; i += 64)
        if (const uint64_t m = nulMask64(load32(s + i), load32(s + i + 32)))
            return i + static_cast<size_t>(__builtin_ctzll(m));
    for (; i + 32 <= lim; i += 32)
        if (const uint32_t m = nulMask32(load32(s + i)))
            return i + static_cast<size_t>(__builtin_ctz(m));
    if (i == lim) return lim;
    // The last 32 bytes; those before i are known not to be NUL.
    const uint32_t m = nulMask32(load32(s + lim - 32));
    return m ? lim - 32 + static_cast<size_t>(__builtin_ctz(m)) : lim;
}

// copyThroughNulSse2 with 32-byte vectors.
CV_AVX2 CV_NOINLINE size_t copyThroughNulAvx2(uint8_t* d, const uint8_t* s, size_t lim) {
    size_t i = 0, n;
    for (; i + 64 <= lim; i += 64) {
        const __m256i a = load32(s + i), b = load32(s + i + 32);
        if (const uint64_t m = nulMask64(a, b)) {
            n = i + static_cast<size_t>(__builtin_ctzll(m));
            if (n >= i + 32) {
                _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + i), a);
                i += 32;
            }
            goto last;
        }
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + i), a);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + i + 32), b);
    }
    for (; i + 32 <= lim; i += 32) {
        const __m256i a = load32(s + i);
        if (const uint32_t m = nulMask32(a)) {
            n = i + static_cast<size_t>(__builtin_ctz(m));
            goto last;
        }
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + i), a);
    }
    // The NUL is in the last 32 bytes, beyond those already copied.
    n = lim - 32 + static_cast<size_t>(__builtin_ctz(nulMask32(load32(s + lim - 32))));
last:
    // s[i, n] is left, fewer than 32 bytes, and n >= 16.
    if (n >= i + 16)
        move16(d + i, s + i);
    move16(d + n - 15, s + n - 15);
    return n;
}

#undef CV_AVX2

// Whether the CPU has AVX2 and the system keeps its registers across task
// switches. Runs while the library is being loaded, before any of its code
// may use the sanitizers' run-time, hence not instrumented.
__attribute__((no_sanitize("address", "undefined"))) bool cpuHasAvx2() {
    uint32_t a, b, c, d;
    __asm__("cpuid" : "=a"(a), "=b"(b), "=c"(c), "=d"(d) : "a"(0), "c"(0));
    if (a < 7) return false;
    __asm__("cpuid" : "=a"(a), "=b"(b), "=c"(c), "=d"(d) : "a"(1), "c"(0));
    if (!(c & (1u << 27))) return false;  // OSXSAVE: xgetbv tells what is kept
    uint32_t low, high;
    __asm__("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
    if ((low & 6) != 6) return false;  // the XMM and YMM halves
    __asm__("cpuid" : "=a"(a), "=b"(b), "=c"(c), "=d"(d) : "a"(7), "c"(0));
    return b & (1u << 5);
}

using NulIndexFn = size_t (*)(const uint8_t*, size_t);
using CopyThroughNulFn = size_t (*)(uint8_t*, const uint8_t*, size_t);

}  // namespace
}  // namespace cv

// Called once by the dynamic loader when it loads the library: the two
// functions below are bound to the version for this CPU, so the library
// keeps no flag of its own and a call costs one indirect jump. Hidden, like
// everything the library does not export.
#define CV_RESOLVER \
    extern "C" __attribute__((visibility("hidden"), no_sanitize("address", "undefined")))
CV_RESOLVER cv::NulIndexFn cv_pick_nul_index();
CV_RESOLVER cv::CopyThroughNulFn cv_pick_copy_through_nul();

cv::NulIndexFn cv_pick_nul_index() {
    return cv::cpuHasAvx2() ? cv::nulIndexAvx2 : cv::nulIndexSse2;
}

cv::CopyThroughNulFn cv_pick_copy_through_nul() {
    return cv::cpuHasAvx2() ? cv::copyThroughNulAvx2 : cv::copyThroughNulSse2;
}
#undef CV_RESOLVER

namespace cv {
namespace {

size_t nulIndexBlocks(const uint8_t* s, size_t lim) __attribute__((ifunc("cv_pick_nul_index")));
size_t copyThroughNulBlocks(uint8_t* d, const uint8_t* s, size_t lim)
    __attribute__((ifunc("cv_pick_copy_through_nul")));

#else

inline size_t nulIndexBlocks(const uint8_t* s, size_t lim) { return nulIndexSse2(s, lim); }
inline size_t copyThroughNulBlocks(uint8_t* d, const uint8_t* s, size_t lim) {
    return copyThroughNulSse2(d, s, lim);
}

#endif  // CV_TEXT_AVX2

// copyThroughNul when the first 16 bytes hold no NUL.
CV_NOINLINE size_t copyThroughNulLong(uint8_t* d, const uint8_t* s, size_t lim) {
    if (lim > 32) return copyThroughNulBlocks(d, s, lim);
    // The first NUL of the last 16 bytes is the text's (n >= 16).
    const size_t n = lim - 16 + static_cast<size_t>(__builtin_ctz(nulMask16(s + lim - 16)));
    move16(d, s);
    move16(d + n - 15, s + n - 15);
    return n;
}

// Index of the first NUL in s[0, lim), or lim; reads only s[0, lim).
inline size_t nulIndex(const uint8_t* s, size_t lim) {
    if (lim < 16) return nulIndexShort(s, lim);
    if (const uint32_t m = nulMask16(s)) return static_cast<size_t>(__builtin_ctz(m));
    if (lim <= 32) {
        // The last 16 bytes cover all that the first 16 did not.
        const uint32_t m = nulMask16(s + lim - 16);
        return m ? lim - 16 + static_cast<size_t>(__builtin_ctz(m)) : lim;
    }
    return nulIndexBlocks(s, lim);
}

// Copies s[0..n] to d[0..n], n being the first NUL in s[0, lim), which must
// hold one. Reads only s[0, lim); writes only d[0, n]. Returns n. Kept in
// the walks' loops: a call there would cost as much as a short text.
CV_ALWAYS_INLINE size_t copyThroughNul(uint8_t* d, const uint8_t* s, size_t lim) {
    size_t n;
    if (lim < 16) {
        n = nulIndexShort(s, lim);
    } else if (const uint32_t m = nulMask16(s)) {
        n = static_cast<size_t>(__builtin_ctz(m));
    } else {
        return copyThroughNulLong(d, s, lim);
    }
    copyShort(d, s, n + 1);
    return n;
}

// Whether s[0, lim) holds a NUL in its last four bytes (all of them if fewer).
inline bool nulNearEnd(const uint8_t* s, size_t lim) {
    if (lim >= 4) return nulBits32(loadHost32(s + lim - 4)) != 0;
    for (size_t i = 0; i < lim; ++i)
        if (s[i] == 0) return true;
    return false;
}

#endif  // CV_FUSED_TEXT

// Length of the text in a field of `capacity` bytes; capacity when it has
// no NUL.
inline uint32_t textLength(const uint8_t* m, uint32_t capacity) {
#if CV_FUSED_TEXT
    if (capacity <= kFusedTextMax) return static_cast<uint32_t>(nulIndex(m, capacity));
#endif
    return static_cast<uint32_t>(strnlen(reinterpret_cast<const char*>(m), capacity));
}

// ---- copy ----------------------------------------------------------------

// Copies the run of u32 fields that starts at f; returns the field after it.
inline const CorVaneField* copyU32Run(const CorVaneField* f, const CorVaneField* last, uint8_t* d,
                                      const uint8_t* src) {
    do {
        std::memcpy(d + f->offset, src + f->offset, 4);
    } while (++f != last && f->kind == CORVANE_FIELD_U32);
    return f;
}

uint32_t copyFrom(const CorVaneSchema& s, const CorVaneField* f, uint8_t* d, const uint8_t* src,
                  const FnName* who);

inline uint32_t copyFields(const CorVaneSchema& s, uint8_t* d, const uint8_t* src,
                           const FnName* who) {
    return copyFrom(s, s.fields, d, src, who);
}

// A nested record or a record array.
CV_NOINLINE uint32_t copyNested(const CorVaneSchema& s, const CorVaneField* f, uint8_t* d,
                                const uint8_t* src, const FnName* who) {
    uint8_t* dm = d + f->offset;
    const uint8_t* sm = src + f->offset;
    if (f->kind == CORVANE_FIELD_RECORD) {
        const uint32_t st = copyFields(*f->record, dm, sm, nullptr);
        if (st)
            log(kPrioError, Scope{&s, nullptr, who, "_copy"}.name(), __LINE__,
                "Copy %s failed(%d)\n", f->record->name, static_cast<int>(st));
        return st;
    }
    // record arrays, counted or fixed
    const CorVaneSchema& e = *f->record;
    const uint32_t n = entryCount(f, src);
    for (uint32_t j = 0; j < n; ++j) {
        const uint32_t st = copyFields(e, dm + j * e.size, sm + j * e.size, nullptr);
        if (st) {
            log(kPrioError, Scope{&s, nullptr, who, "_copy"}.name(), __LINE__,
                "Copy %s failed(%u)\n", e.name, st);
            return st;
        }
    }
    return kOk;
}

// Copies the fields of src from f on.
CV_NOINLINE uint32_t copyFrom(const CorVaneSchema& s, const CorVaneField* f, uint8_t* d,
                              const uint8_t* src, const FnName* who) {
    const CorVaneField* const last = s.fields + s.fieldCount;
    while (f != last) {
        switch (f->kind) {
            case CORVANE_FIELD_U32:
                f = copyU32Run(f, last, d, src);
                continue;
            case CORVANE_FIELD_TEXT: {
                // An over-long (unterminated) source is cut to capacity - 1.
                uint8_t* dm = d + f->offset;
                std::strncpy(reinterpret_cast<char*>(dm),
                             reinterpret_cast<const char*>(src + f->offset), f->capacity);
                dm[f->capacity - 1] = '\0';
                break;
            }
            default:
                if (const uint32_t st = copyNested(s, f, d, src, who)) return st;
                break;
        }
        ++f;
    }
    return kOk;
}

// ---- length and serialise --------------------------------------------------

// Counts the bytes an encoding takes; the same walk as the writer, so the
// two cannot disagree.
struct CountSink {
    uint32_t total = 0;
    const uint8_t* position() const { return nullptr; }
    // A run of u32 fields from f; returns the field after it.
    const CorVaneField* u32Run(const CorVaneField* f, const CorVaneField* last, const uint8_t*,
                               uint32_t& tag, bool) {
        uint32_t t = total, g = tag;
        do {
            t += kU32ElementBytes;
            ++g;
        } while (++f != last && f->kind == CORVANE_FIELD_U32);
        total = t;
        tag = g;
        return f;
    }
    bool text(uint32_t, const uint8_t* m, uint32_t capacity) {
        total += textElementBytes(textLength(m, capacity));
        return true;
    }
};

struct WriteSink {
    uint8_t* cur;
    const uint8_t* position() const { return cur; }
    // The header is stepped from tag to tag while the record's tags stay
    // below 256, and built for each field otherwise.
    const CorVaneField* u32Run(const CorVaneField* f, const CorVaneField* last,
                               const uint8_t* rec, uint32_t& tag, bool stepped) {
        uint8_t* c = cur;
        uint32_t g = tag;
        if (stepped) [[likely]] {
            uint64_t header = headerBytes(g, 4);
            do {
                store64(c, header);
                storeBe32(c + kHeaderBytes, loadHost32(rec + f->offset));
                c += kU32ElementBytes;
                ++g;
                header = nextTagHeader(header);
            } while (++f != last && f->kind == CORVANE_FIELD_U32);
        } else {
            do {
                store64(c, headerBytes(g++, 4));
                storeBe32(c + kHeaderBytes, loadHost32(rec + f->offset));
                c += kU32ElementBytes;
            } while (++f != last && f->kind == CORVANE_FIELD_U32);
        }
        tag = g;
        cur = c;
        return f;
    }
    // Writes the text and its NUL; the padding bytes keep what the buffer
    // held. False, with nothing written, when the text does not end within
    // its field.
    bool text(uint32_t tag, const uint8_t* m, uint32_t capacity) {
        uint32_t n;
#if CV_FUSED_TEXT
        // A NUL in the field's last byte means there is one within the
        // field: the text can be copied while it is measured.
        if (capacity <= kFusedTextMax && m[capacity - 1] == 0) {
            n = static_cast<uint32_t>(copyThroughNul(cur + kHeaderBytes, m, capacity));
        } else
#endif
        {
            n = static_cast<uint32_t>(strnlen(reinterpret_cast<const char*>(m), capacity));
            // The padded length always has room for the text and its NUL.
            if (n + 1 > capacity || n + 1 > paddedLength(n)) return false;
            std::memcpy(cur + kHeaderBytes, m, n + 1);
        }
        const uint32_t padded = paddedLength(n);
        store64(cur, headerBytes(tag, padded));
        cur += kHeaderBytes + padded;
        return true;
    }
};

// Encodes the fields of `rec` from f (whose tag is `tag`) on; `start` is
// where the record's encoding began.
template <class Sink>
uint32_t encodeFrom(const CorVaneSchema& s, const uint8_t* rec, Sink& out, const FnName* who,
                    const CorVaneField* f, uint32_t tag, const uint8_t* start);

template <class Sink>
inline uint32_t encodeFields(const CorVaneSchema& s, const uint8_t* rec, Sink& out,
                             const FnName* who) {
    return encodeFrom(s, rec, out, who, s.fields, CORVANE_FIRST_TAG, out.position());
}

// A text that does not end within its field: its line, then the record's.
CV_COLD uint32_t textTooLong(const CorVaneSchema& s, const CorVaneField* f, const uint8_t* rec,
                             const uint8_t* start, const FnName* who) {
    const Scope sc{&s, start, who, "_serialize"};
    const uint32_t n =
        static_cast<uint32_t>(strnlen(reinterpret_cast<const char*>(rec + f->offset), f->capacity));
    log(kPrioError, sc.name(), __LINE__, "lgChainIn(%d) lgMaxChainOut(%d)\n",
        static_cast<int>(n + 1), static_cast<int>(f->capacity));
    logErrorBefore(sc, static_cast<uint32_t>(f - s.fields));
    return kMismatch;
}

// A nested record or record array; on failure, the enclosing record's lines.
template <class Sink>
CV_NOINLINE uint32_t encodeNested(const CorVaneSchema& s, const CorVaneField* f,
                                  const uint8_t* rec, Sink& out, const uint8_t* start,
                                  const FnName* who) {
    const uint8_t* m = rec + f->offset;
    uint32_t st;
    if (f->kind == CORVANE_FIELD_RECORD) {
        st = encodeFields(*f->record, m, out, nullptr);
    } else {
        const CorVaneSchema& e = *f->record;
        const uint32_t n = entryCount(f, rec);
        st = kOk;
        for (uint32_t j = 0; j < n && st == kOk; ++j)
            st = encodeFields(e, m + j * e.size, out, nullptr);
    }
    if (st) logErrorBefore(Scope{&s, start, who, "_serialize"}, static_cast<uint32_t>(f - s.fields));
    return st;
}

template <class Sink>
CV_NOINLINE uint32_t encodeFrom(const CorVaneSchema& s, const uint8_t* rec, Sink& out,
                                const FnName* who, const CorVaneField* f, uint32_t tag,
                                const uint8_t* start) {
    const CorVaneField* const last = s.fields + s.fieldCount;
    const bool stepped = s.fieldCount <= kSteppedTags;
    // The walk writes through a copy of the sink that never leaves this
    // function, so its position can stay in a register: the caller's sink
    // may lie anywhere, and every byte written would otherwise force it to
    // be read again. The caller's sink is brought up to date around the
    // nested records and on the way out.
    Sink o = out;
    while (f != last) {
        const uint8_t kind = f->kind;
        if (kind == CORVANE_FIELD_U32) {
            // A run of u32 fields in one tight loop.
            f = o.u32Run(f, last, rec, tag, stepped);
            continue;
        }
        if (kind == CORVANE_FIELD_TEXT) {
            if (!o.text(tag, rec + f->offset, f->capacity)) {
                out = o;
                return textTooLong(s, f, rec, start, who);
            }
        } else {
            out = o;
            if (const uint32_t st = encodeNested(s, f, rec, out, start, who)) return st;
            o = out;
        }
        ++f;
        ++tag;
    }
    out = o;
    return kOk;
}

// ---- unserialise -----------------------------------------------------------

template <bool kBounded>
struct Reader {
    const uint8_t* cur;
    const uint8_t* end;  // used only when bounded

    size_t left() const { return end > cur ? static_cast<size_t>(end - cur) : 0; }

    // Moves past an element of declared length len. Unbounded, the move is
    // 8 + len computed on 32 bits, as received; bounded, it was checked to
    // stay within the buffer.
    void skip(uint32_t len) {
        if constexpr (kBounded) {
            cur += kHeaderBytes + static_cast<size_t>(len);
        } else {
            cur = reinterpret_cast<const uint8_t*>(reinterpret_cast<uintptr_t>(cur) +
                                                   static_cast<uint32_t>(kHeaderBytes + len));
        }
    }
};

uint32_t overrun(const Scope& sc, uint32_t tag, uint64_t need, size_t left) {
    log(kPrioError, sc.name(), __LINE__,
        "pBody(%p): Type(%u) runs past the end of the buffer: %llu bytes needed, %zu left\n",
        static_cast<const void*>(sc.start), tag, static_cast<unsigned long long>(need), left);
    return kOverrun;
}

// Reads an element header. Fails if the tag is not the expected one.
template <bool kBounded>
uint32_t readHeader(const Reader<kBounded>& r, const Scope& sc, uint32_t tag, uint32_t& len) {
    if (kBounded && r.left() < kHeaderBytes) return overrun(sc, tag, kHeaderBytes, r.left());
    const uint32_t found = loadBe32(r.cur);
    len = loadBe32(r.cur + 4);
    if (found != tag) {
        log(kPrioError, sc.name(), __LINE__, "pBody(%p): Tl(%u-%u) expectded(%u)\n",
            static_cast<const void*>(sc.start), found, len, tag);
        return kMismatch;
    }
    return kOk;
}

template <bool kBounded>
uint32_t readU32(Reader<kBounded>& r, const Scope& sc, uint32_t tag, uint8_t* dst) {
    uint32_t len;
    if (const uint32_t st = readHeader(r, sc, tag, len)) return st;
    if constexpr (kBounded) {
        // The value word is read whatever the length says; the whole
        // element must lie in the buffer as well.
        if (r.left() < kU32ElementBytes) return overrun(sc, tag, kU32ElementBytes, r.left());
        if (uint64_t{kHeaderBytes} + len > r.left())
            return overrun(sc, tag, uint64_t{kHeaderBytes} + len, r.left());
    }
    storeHost32(dst, loadBe32(r.cur + kHeaderBytes));
    r.skip(len);  // a longer element from a newer peer is skipped whole
    return kOk;
}

template <bool kBounded>
uint32_t readText(Reader<kBounded>& r, const Scope& sc, uint32_t tag, uint8_t* dst,
                  uint32_t capacity) {
    uint32_t len;
    if (const uint32_t st = readHeader(r, sc, tag, len)) return st;
    const char* text = reinterpret_cast<const char*>(r.cur + kHeaderBytes);
    size_t n;
    if constexpr (kBounded) {
        // The text is measured up to its NUL, not by the length word.
        const size_t room = r.left() - kHeaderBytes;
        const void* nul = std::memchr(text, 0, room);
        if (!nul) {
            log(kPrioError, sc.name(), __LINE__,
                "pBody(%p): Type(%u) text has no NUL before the end of the buffer(%zu bytes)\n",
                static_cast<const void*>(sc.start), tag, room);
            return kOverrun;
        }
        n = static_cast<size_t>(static_cast<const char*>(nul) - text);
    } else {
        n = std::strlen(text);
    }
    if (n + 1 > capacity) {
        log(kPrioError, sc.name(), __LINE__, "lgChainIn(%d) lgMaxChainOut(%d)\n",
            static_cast<int>(n + 1), static_cast<int>(capacity));
        return kMismatch;
    }
    if (kBounded && uint64_t{kHeaderBytes} + len > r.left())
        return overrun(sc, tag, uint64_t{kHeaderBytes} + len, r.left());
    std::memcpy(dst, text, n + 1);
    r.skip(len);
    return kOk;
}

// Any field that is not the usual u32 or short text element: the element
// read by the rules above (or the nested record or array), and on failure
// the record's "Error Before" lines. `start` is where the record began.
template <bool kBounded>
uint32_t decodeFrom(const CorVaneSchema& s, uint8_t* rec, Reader<kBounded>& r, const FnName* who,
                    const CorVaneField* f, uint32_t tag, const uint8_t* start);

template <bool kBounded>
inline uint32_t decodeFields(const CorVaneSchema& s, uint8_t* rec, Reader<kBounded>& r,
                             const FnName* who) {
    return decodeFrom(s, rec, r, who, s.fields, CORVANE_FIRST_TAG, r.cur);
}

template <bool kBounded>
CV_NOINLINE uint32_t decodeSlow(const CorVaneSchema& s, const CorVaneField* f, uint8_t* rec,
                                Reader<kBounded>& r, const uint8_t* start, const FnName* who) {
    const Scope sc{&s, start, who, "_unserialize"};
    const uint32_t tag = tagOf(static_cast<uint32_t>(f - s.fields));
    uint8_t* m = rec + f->offset;
    uint32_t st;
    switch (f->kind) {
        case CORVANE_FIELD_U32:
            st = readU32(r, sc, tag, m);
            break;
        case CORVANE_FIELD_TEXT:
            st = readText(r, sc, tag, m, f->capacity);
            break;
        case CORVANE_FIELD_RECORD:
            st = decodeFields(*f->record, m, r, nullptr);
            break;
        default: {
            // The count was stored as received; at most capacity entries.
            const CorVaneSchema& e = *f->record;
            const uint32_t n = entryCount(f, rec);
            st = kOk;
            for (uint32_t j = 0; j < n && st == kOk; ++j)
                st = decodeFields(e, m + j * e.size, r, nullptr);
            break;
        }
    }
    if (st && st != kOverrun) logErrorBefore(sc, static_cast<uint32_t>(f - s.fields));
    return st;
}

template <bool kBounded>
CV_NOINLINE uint32_t decodeFrom(const CorVaneSchema& s, uint8_t* rec, Reader<kBounded>& r,
                                const FnName* who, const CorVaneField* f, uint32_t tag,
                                const uint8_t* start) {
    const CorVaneField* const last = s.fields + s.fieldCount;
    const bool stepped = s.fieldCount <= kSteppedTags;
    const uint8_t* c = r.cur;
    while (f != last) {
        const uint8_t kind = f->kind;
        if (kind == CORVANE_FIELD_U32) {
            // A run of u32 fields in one tight loop. The usual element, tag
            // as expected and length 4, is checked as one 64-bit word, the
            // expected one stepped from tag to tag; a record whose tags go
            // past 255 is read element by element.
            if (stepped) [[likely]] {
                uint64_t expected = headerBytes(tag, 4);
                do {
                    if ((kBounded && r.end - c < static_cast<ptrdiff_t>(kU32ElementBytes)) ||
                        load64(c) != expected)
                        goto slow;
                    storeHost32(rec + f->offset, loadBe32(c + kHeaderBytes));
                    c += kU32ElementBytes;
                    ++tag;
                    expected = nextTagHeader(expected);
                } while (++f != last && f->kind == CORVANE_FIELD_U32);
                continue;
            }
            goto slow;
        }
#if CV_FUSED_TEXT
        if (kind == CORVANE_FIELD_TEXT &&
            (!kBounded || r.end - c >= static_cast<ptrdiff_t>(kHeaderBytes))) {
            // A short text whose NUL is where its length says: copied in one
            // pass. The text ends before the element's last byte and must
            // fit the field; a well-formed element has its NUL in the last
            // four bytes of that stretch, and finding one there first means
            // the copy cannot miss it. Bounded, the whole element must lie
            // in the buffer; unbounded, the buffer is trusted to hold the
            // whole encoding, this element included.
            const uint32_t len = loadBe32(c + 4);
            const uint32_t lim = len - 1 < f->capacity ? len - 1 : f->capacity;
            const uint8_t* text = c + kHeaderBytes;
            if (loadBe32(c) == tag && len != 0 && lim <= kFusedTextMax &&
                (!kBounded || uint64_t{kHeaderBytes} + len <= static_cast<size_t>(r.end - c)) &&
                nulNearEnd(text, lim)) {
                copyThroughNul(rec + f->offset, text, lim);
                r.cur = c;
                r.skip(len);
                c = r.cur;
                ++f;
                ++tag;
                continue;
            }
        }
#endif
    slow:
        r.cur = c;
        if (const uint32_t st = decodeSlow(s, f, rec, r, start, who)) return st;
        c = r.cur;
        ++f;
        ++tag;
    }
    r.cur = c;
    return kOk;
}

}  // namespace

// As the other entry points below, the leading run of u32 fields is copied
// here and the general walk, reached by a tail call, takes what follows.
uint32_t copyRecord(const CorVaneSchema& s, void* dst, const void* src, const FnName* who) {
    if (dst == src) return kOk;
    auto* const d = static_cast<uint8_t*>(dst);
    const auto* const r = static_cast<const uint8_t*>(src);
    const CorVaneField* f = s.fields;
    const CorVaneField* const last = f + s.fieldCount;
    if (f != last && f->kind == CORVANE_FIELD_U32) f = copyU32Run(f, last, d, r);
    if (f != last) return copyFrom(s, f, d, r, who);
    return kOk;
}

// The entry points walk a record's leading run of u32 fields themselves and
// hand over to the general walk only if there is more: a record of a few
// words never pays for the general walk's set-up.

uint32_t recordLength(const CorVaneSchema& s, const void* rec) {
    CountSink count;
    const CorVaneField* f = s.fields;
    const CorVaneField* const last = f + s.fieldCount;
    uint32_t tag = CORVANE_FIRST_TAG;
    if (f != last && f->kind == CORVANE_FIELD_U32) f = count.u32Run(f, last, nullptr, tag, true);
    if (f != last)
        encodeFrom(s, static_cast<const uint8_t*>(rec), count, nullptr, f, tag, nullptr);
    return count.total;
}

namespace {

// Everything after the leading run of u32 fields that encodeRecord wrote up
// to c; reached by a tail call, as decodeRest below.
CV_NOINLINE uint32_t encodeRest(const CorVaneSchema& s, const uint8_t* rec, uint8_t** cursor,
                                uint8_t* c, const FnName* who) {
    uint8_t* const start = *cursor;
    const auto run = static_cast<uint32_t>(static_cast<size_t>(c - start) / kU32ElementBytes);
    WriteSink out{c};
    const uint32_t st = encodeFrom(s, rec, out, who, s.fields + run, CORVANE_FIRST_TAG + run, start);
    *cursor = out.cur;
    return st;
}

}  // namespace

uint32_t encodeRecord(const CorVaneSchema& s, const void* rec, uint8_t** cursor,
                      const FnName* who) {
    const uint8_t* const r = static_cast<const uint8_t*>(rec);
    uint8_t* c = *cursor;
    const CorVaneField* f = s.fields;
    const uint32_t n = s.fieldCount;
    const CorVaneField* const last = f + n;
    // The header steps from tag to tag, which holds while the tags stay
    // below 256: a longer record is written by the general walk.
    if (n > kSteppedTags) [[unlikely]]
        return encodeRest(s, r, cursor, c, who);
    WriteSink out{c};
    if (f != last && f->kind == CORVANE_FIELD_U32) {
        uint32_t tag = CORVANE_FIRST_TAG;
        f = out.u32Run(f, last, r, tag, true);
    }
    if (f != last) return encodeRest(s, r, cursor, out.cur, who);
    *cursor = out.cur;
    return kOk;
}

namespace {

// Everything after the leading run of usual u32 elements: c is where the run
// stopped, and the run's length gives the field and tag to go on from. Kept
// out of line and reached by a tail call, so that a record of a few words is
// read without saving a register.
template <bool kBounded>
CV_NOINLINE uint32_t decodeRest(const CorVaneSchema& s, uint8_t* rec, const uint8_t** cursor,
                                const uint8_t* c, const uint8_t* end, const FnName* who) {
    const uint8_t* const start = *cursor;
    const auto run = static_cast<uint32_t>(static_cast<size_t>(c - start) / kU32ElementBytes);
    Reader<kBounded> r{c, end};
    const uint32_t st = decodeFrom(s, rec, r, who, s.fields + run, CORVANE_FIRST_TAG + run, start);
    *cursor = r.cur;
    return publicStatus(st);
}

// The leading run of usual u32 elements, then the general walk if needed.
template <bool kBounded>
inline uint32_t decodeTop(const CorVaneSchema& s, uint8_t* rec, const uint8_t** cursor,
                          const uint8_t* end, const FnName* who) {
    const uint8_t* c = *cursor;
    const CorVaneField* f = s.fields;
    const uint32_t n = s.fieldCount;
    const CorVaneField* const last = f + n;
    // The expected header steps from tag to tag, which holds while the tags
    // stay below 256: a longer record is read element by element.
    if (n > kSteppedTags) [[unlikely]]
        return decodeRest<kBounded>(s, rec, cursor, c, end, who);
    uint64_t expected = headerBytes(CORVANE_FIRST_TAG, 4);
    while (f != last && f->kind == CORVANE_FIELD_U32 &&
           (!kBounded || end - c >= static_cast<ptrdiff_t>(kU32ElementBytes)) &&
           load64(c) == expected) {
        storeHost32(rec + f->offset, loadBe32(c + kHeaderBytes));
        c += kU32ElementBytes;
        ++f;
        expected = nextTagHeader(expected);
    }
    if (f != last) return decodeRest<kBounded>(s, rec, cursor, c, end, who);
    *cursor = c;
    return kOk;
}

}  // namespace

uint32_t decodeTrusted(const CorVaneSchema& s, void* rec, const uint8_t** cursor,
                       const FnName* who) {
    return decodeTop<false>(s, static_cast<uint8_t*>(rec), cursor, nullptr, who);
}

uint32_t decodeBounded(const CorVaneSchema& s, void* rec, const uint8_t** cursor,
                       const uint8_t* end, const FnName* who) {
    return decodeTop<true>(s, static_cast<uint8_t*>(rec), cursor, end, who);
}

uint32_t decodeWord(uint32_t tag, uint32_t* value, const uint8_t** cursor, const uint8_t* end,
                    const uint8_t* recordStart, const FnName& who) {
    // The usual element (tag as expected, length 4) read at once.
    const uint8_t* c = *cursor;
    if ((!end || end - c >= static_cast<ptrdiff_t>(kU32ElementBytes)) &&
        load64(c) == headerBytes(tag, 4)) {
        *value = loadBe32(c + kHeaderBytes);
        *cursor = c + kU32ElementBytes;
        return kOk;
    }
    const Scope sc{nullptr, recordStart, &who, ""};
    uint8_t word[4];
    uint32_t st;
    if (end) {
        Reader<true> r{*cursor, end};
        st = readU32(r, sc, tag, word);
        *cursor = r.cur;
    } else {
        Reader<false> r{*cursor, nullptr};
        st = readU32(r, sc, tag, word);
        *cursor = r.cur;
    }
    if (!st) *value = loadHost32(word);
    return st;
}

}  // namespace cv
