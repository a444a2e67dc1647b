#include "codec/engine.h"

#include <bit>
#include <cstring>

#include "codec/wire.h"

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
// A text whose NUL lies in its first eight bytes (most texts on the wire:
// empty ones and short codes) is found and copied from one word read in
// place, with no call into the C library. A longer one is measured by
// strlen, which the C library vectorises for each target, and copied by
// overlapping moves of eight bytes when its field has up to 32; in a larger
// field stpcpy finds and copies it in one pass. Measured against the
// x86-only vector code this replaced (bench/ab.sh 90d8904, medians of 200
// batch pairs on x86-64): memchr then memcpy for every longer text made
// CallingFeatures full serialise 1.21x and unserialise 1.35x slower, stpcpy
// for all 1.18x and 1.25x, a loop of words to 32 bytes 1.30x and 1.31x;
// this way 1.04x and 1.05-1.07x. The one word is worth it: CallingFeatures
// empty unserialises in 0.73x and serialises in 0.75x the time it takes
// with the C library alone (bench/abtime, medians of 300).
//
// The callers guarantee that a NUL lies within the bytes they let the
// helpers read; the helpers read nothing outside those bytes and write
// exactly the text and its NUL. The word is taken as a little-endian number
// on every host, so that its lowest flagged byte is its first NUL in memory.

// The eight bytes of w as they lie in memory, read as a little-endian number.
inline uint64_t littleEndian(uint64_t w) {
    if constexpr (std::endian::native == std::endian::big) return __builtin_bswap64(w);
    return w;
}

inline uint64_t loadLe64(const uint8_t* p) { return littleEndian(load64(p)); }

// The 0x80 bit of every byte of w below its first NUL is clear and that of
// the first NUL is set (bytes above it may be flagged wrongly); zero when w
// holds no NUL. Exact for "is there a NUL" in either byte order.
inline uint64_t nulBits(uint64_t w) {
    return (w - 0x0101010101010101ull) & ~w & 0x8080808080808080ull;
}

inline bool hasNul32(uint32_t w) { return ((w - 0x01010101u) & ~w & 0x80808080u) != 0; }

// Index of the byte flagged first in a little-endian word's nulBits, which
// must not be zero. Counted on 32-bit halves: on 32-bit ARM and MIPS a count
// over 64 bits is a call into libgcc, which the library does not import.
inline size_t firstFlagged(uint64_t bits) {
    const auto low = static_cast<uint32_t>(bits);
    if (low != 0) return static_cast<size_t>(std::countr_zero(low)) / 8;
    return 4 + static_cast<size_t>(std::countr_zero(static_cast<uint32_t>(bits >> 32))) / 8;
}

// Index of the first NUL in s[0, lim) with lim < 8, or lim.
inline size_t nulIndexBelow8(const uint8_t* s, size_t lim) {
    for (size_t i = 0; i < lim; ++i)
        if (s[i] == 0) return i;
    return lim;
}

// Index of the first NUL in s[0, lim), or lim; reads only s[0, lim).
inline size_t nulIndex(const uint8_t* s, size_t lim) {
    if (lim < 8) return nulIndexBelow8(s, lim);
    if (const uint64_t b = nulBits(loadLe64(s))) return firstFlagged(b);
    // A NUL in the last byte bounds the text: strlen, which is cheaper than
    // strnlen (CallingFeatures full serialize_lg 1.19x -> 0.98x the time of
    // the x86-only code this replaced, bench/ab.sh).
    if (s[lim - 1] == 0) return std::strlen(reinterpret_cast<const char*>(s));
    return strnlen(reinterpret_cast<const char*>(s), lim);
}

// Copies s[0..n] for n < 8: one move of eight bytes, two overlapping moves
// of four, or three of one (the same byte may be written twice).
inline void finishCopy(uint8_t* d, const uint8_t* s, size_t n) {
    if (n >= 7) {
        store64(d + n - 7, load64(s + n - 7));
    } else if (n >= 3) {
        const uint32_t a = loadHost32(s), b = loadHost32(s + n - 3);
        storeHost32(d, a);
        storeHost32(d + n - 3, b);
    } else {
        const uint8_t a = s[0], b = s[n / 2], c = s[n];
        d[0] = a;
        d[n / 2] = b;
        d[n] = c;
    }
}

// Copies s[0..n] for n < 16: two overlapping moves of eight bytes from
// n = 8 on, finishCopy below.
inline void copyBelow16(uint8_t* d, const uint8_t* s, size_t n) {
    if (n >= 8) {
        const uint64_t a = load64(s), b = load64(s + n - 7);
        store64(d, a);
        store64(d + n - 7, b);
    } else {
        finishCopy(d, s, n);
    }
}

// copyThroughNul for a text that may not end in its first word. In a field
// of up to 32 bytes it is measured by strlen and copied by overlapping moves
// of eight bytes; in a larger field stpcpy finds and copies it in one pass.
// Past the moves n cannot reach 32 in such a field; the memcpy keeps the
// copy whole for any n, and this shape measured fastest (without it,
// CallingFeatures full unserialise went from 1.05x to 1.12-1.17x).
inline size_t copyLong(uint8_t* d, const uint8_t* s, size_t lim) {
    if (lim > 32) {
        char* const end = stpcpy(reinterpret_cast<char*>(d), reinterpret_cast<const char*>(s));
        return static_cast<size_t>(end - reinterpret_cast<char*>(d));
    }
    const size_t n = std::strlen(reinterpret_cast<const char*>(s));
    if (n < 16) {
        copyBelow16(d, s, n);
    } else if (n < 32) {
        const uint64_t a = load64(s), b = load64(s + 8);
        const uint64_t y = load64(s + n - 15), z = load64(s + n - 7);
        store64(d, a);
        store64(d + 8, b);
        store64(d + n - 15, y);
        store64(d + n - 7, z);
    } else {
        std::memcpy(d, s, n + 1);
    }
    return n;
}

// Copies s[0..n] to d[0..n], n being the first NUL in s[0, lim), which must
// hold one. Reads only s[0, lim); writes only d[0, n]. Returns n. Kept in
// the walks' loops: a call there would cost as much as a short text.
// Byte 7 tells which way: a text of eight characters or more has one there,
// and a shorter one has its NUL in the word wherever byte 7 is 0; a short
// text followed by stray bytes goes to copyLong, with the same result.
// Testing that byte rather than the word took CallingFeatures full
// serialise from 1,992 to 1,852 instructions and unserialise from 2,225 to
// 2,089 (bench/opcount.sh), and unserialise from 1.17-1.21x to 1.05-1.07x
// the time of the x86-only code (bench/ab.sh).
CV_ALWAYS_INLINE size_t copyThroughNul(uint8_t* d, const uint8_t* s, size_t lim) {
    size_t n;
    if (lim < 8) {
        n = nulIndexBelow8(s, lim);
    } else if (s[7] != 0) {
        return copyLong(d, s, lim);
    } else {
        n = firstFlagged(nulBits(loadLe64(s)));
    }
    finishCopy(d, s, n);
    return n;
}

// Whether s[0, lim) holds a NUL in its last four bytes (all of them if fewer).
inline bool nulNearEnd(const uint8_t* s, size_t lim) {
    if (lim >= 4) return hasNul32(loadHost32(s + lim - 4));
    for (size_t i = 0; i < lim; ++i)
        if (s[i] == 0) return true;
    return false;
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
        total += textElementBytes(static_cast<uint32_t>(nulIndex(m, capacity)));
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
        // A NUL in the field's last byte means there is one within the
        // field: the text can be copied while it is measured.
        if (m[capacity - 1] == 0) {
            n = static_cast<uint32_t>(copyThroughNul(cur + kHeaderBytes, m, capacity));
        } else {
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
        if (kind == CORVANE_FIELD_TEXT &&
            (!kBounded || r.end - c >= static_cast<ptrdiff_t>(kHeaderBytes))) {
            // A text whose NUL is where its length says: copied without
            // the general reader. The text ends before the element's last byte and must
            // fit the field; a well-formed element has its NUL in the last
            // four bytes of that stretch, and finding one there first means
            // the copy cannot miss it. Bounded, the whole element must lie
            // in the buffer; unbounded, the buffer is trusted to hold the
            // whole encoding, this element included.
            const uint32_t len = loadBe32(c + 4);
            const uint32_t lim = len - 1 < f->capacity ? len - 1 : f->capacity;
            const uint8_t* text = c + kHeaderBytes;
            if (loadBe32(c) == tag && len != 0 &&
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
