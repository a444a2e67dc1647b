#include "codec/engine.h"

#include <cstring>

#include "codec/wire.h"

namespace cv {
namespace {

constexpr uint32_t tagOf(uint32_t fieldIndex) { return fieldIndex + CORVANE_FIRST_TAG; }

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
void logErrorBefore(const Scope& sc, uint32_t failed) {
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

// ---- copy ----------------------------------------------------------------

uint32_t copyFields(const CorVaneSchema& s, uint8_t* d, const uint8_t* src, const FnName* who) {
    const CorVaneField* f = s.fields;
    for (uint32_t i = 0; i < s.fieldCount; ++i, ++f) {
        uint8_t* dm = d + f->offset;
        const uint8_t* sm = src + f->offset;
        switch (f->kind) {
            case CORVANE_FIELD_U32:
                std::memcpy(dm, sm, 4);
                break;
            case CORVANE_FIELD_TEXT:
                // An over-long (unterminated) source is cut to capacity - 1.
                std::strncpy(reinterpret_cast<char*>(dm), reinterpret_cast<const char*>(sm),
                             f->capacity);
                dm[f->capacity - 1] = '\0';
                break;
            case CORVANE_FIELD_RECORD: {
                const uint32_t st = copyFields(*f->record, dm, sm, nullptr);
                if (st) {
                    log(kPrioError, Scope{&s, nullptr, who, "_copy"}.name(), __LINE__,
                        "Copy %s failed(%d)\n", f->record->name, static_cast<int>(st));
                    return st;
                }
                break;
            }
            default: {  // record arrays, counted or fixed
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
                break;
            }
        }
    }
    return kOk;
}

// ---- length and serialise --------------------------------------------------

// Counts the bytes an encoding takes; the same walk as the writer, so the
// two cannot disagree.
struct CountSink {
    static constexpr bool kWrites = false;
    uint32_t total = 0;
    const uint8_t* position() const { return nullptr; }
    void u32(uint32_t, uint32_t) { total += kU32ElementBytes; }
    void text(uint32_t, const uint8_t*, uint32_t n) { total += textElementBytes(n); }
};

struct WriteSink {
    static constexpr bool kWrites = true;
    uint8_t* cur;
    const uint8_t* position() const { return cur; }
    void u32(uint32_t tag, uint32_t value) {
        storeBe32(cur, tag);
        storeBe32(cur + 4, 4);
        storeBe32(cur + 8, value);
        cur += kU32ElementBytes;
    }
    // Writes the text and its NUL; the padding bytes keep what the buffer held.
    void text(uint32_t tag, const uint8_t* s, uint32_t n) {
        const uint32_t padded = paddedLength(n);
        storeBe32(cur, tag);
        storeBe32(cur + 4, padded);
        std::memcpy(cur + kHeaderBytes, s, n + 1);
        cur += kHeaderBytes + padded;
    }
};

template <class Sink>
uint32_t encodeFields(const CorVaneSchema& s, const uint8_t* rec, Sink& out, const FnName* who) {
    const Scope sc{&s, out.position(), who, "_serialize"};
    const CorVaneField* f = s.fields;
    for (uint32_t i = 0; i < s.fieldCount; ++i, ++f) {
        const uint8_t* m = rec + f->offset;
        uint32_t st = kOk;
        switch (f->kind) {
            case CORVANE_FIELD_U32:
                out.u32(tagOf(i), loadHost32(m));
                break;
            case CORVANE_FIELD_TEXT: {
                const uint32_t n = static_cast<uint32_t>(
                    strnlen(reinterpret_cast<const char*>(m), f->capacity));
                // A text must end within its field; the padded length always
                // has room for the text and its NUL.
                if (Sink::kWrites && (n + 1 > f->capacity || n + 1 > paddedLength(n))) {
                    log(kPrioError, sc.name(), __LINE__, "lgChainIn(%d) lgMaxChainOut(%d)\n",
                        static_cast<int>(n + 1), static_cast<int>(f->capacity));
                    st = kMismatch;
                    break;
                }
                out.text(tagOf(i), m, n);
                break;
            }
            case CORVANE_FIELD_RECORD:
                st = encodeFields(*f->record, m, out, nullptr);
                break;
            default: {
                const CorVaneSchema& e = *f->record;
                const uint32_t n = entryCount(f, rec);
                for (uint32_t j = 0; j < n && st == kOk; ++j)
                    st = encodeFields(e, m + j * e.size, out, nullptr);
                break;
            }
        }
        if (st) {
            logErrorBefore(sc, i);
            return st;
        }
    }
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

template <bool kBounded>
uint32_t decodeFields(const CorVaneSchema& s, uint8_t* rec, Reader<kBounded>& r,
                      const FnName* who) {
    const Scope sc{&s, r.cur, who, "_unserialize"};
    const CorVaneField* f = s.fields;
    for (uint32_t i = 0; i < s.fieldCount; ++i, ++f) {
        uint8_t* m = rec + f->offset;
        uint32_t st = kOk;
        switch (f->kind) {
            case CORVANE_FIELD_U32:
                st = readU32(r, sc, tagOf(i), m);
                break;
            case CORVANE_FIELD_TEXT:
                st = readText(r, sc, tagOf(i), m, f->capacity);
                break;
            case CORVANE_FIELD_RECORD:
                st = decodeFields(*f->record, m, r, nullptr);
                break;
            default: {
                // The count was stored as received; at most capacity entries.
                const CorVaneSchema& e = *f->record;
                const uint32_t n = entryCount(f, rec);
                for (uint32_t j = 0; j < n && st == kOk; ++j)
                    st = decodeFields(e, m + j * e.size, r, nullptr);
                break;
            }
        }
        if (st) {
            if (st != kOverrun) logErrorBefore(sc, i);
            return st;
        }
    }
    return kOk;
}

}  // namespace

uint32_t copyRecord(const CorVaneSchema& s, void* dst, const void* src, const FnName* who) {
    if (dst == src) return kOk;
    return copyFields(s, static_cast<uint8_t*>(dst), static_cast<const uint8_t*>(src), who);
}

uint32_t recordLength(const CorVaneSchema& s, const void* rec) {
    CountSink count;
    encodeFields(s, static_cast<const uint8_t*>(rec), count, nullptr);
    return count.total;
}

uint32_t encodeRecord(const CorVaneSchema& s, const void* rec, uint8_t** cursor,
                      const FnName* who) {
    WriteSink out{*cursor};
    const uint32_t st = encodeFields(s, static_cast<const uint8_t*>(rec), out, who);
    *cursor = out.cur;
    return st;
}

uint32_t decodeRecord(const CorVaneSchema& s, void* rec, const uint8_t** cursor,
                      const uint8_t* end, const FnName* who) {
    uint32_t st;
    if (end) {
        Reader<true> r{*cursor, end};
        st = decodeFields(s, static_cast<uint8_t*>(rec), r, who);
        *cursor = r.cur;
    } else {
        Reader<false> r{*cursor, nullptr};
        st = decodeFields(s, static_cast<uint8_t*>(rec), r, who);
        *cursor = r.cur;
    }
    return st;
}

uint32_t decodeWord(uint32_t tag, uint32_t* value, const uint8_t** cursor, const uint8_t* end,
                    const uint8_t* recordStart, const FnName& who) {
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
