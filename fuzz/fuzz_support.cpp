#include "fuzz_support.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace cvfuzz {
namespace {

uint32_t word(const uint8_t* p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

uint32_t entriesUsed(const CorVaneSchema& s, uint32_t i, const uint8_t* rec) {
    const CorVaneField& f = s.fields[i];
    if (f.kind == CORVANE_FIELD_FIXED_ARRAY) return f.capacity;
    const uint32_t count = word(rec + s.fields[i - 1].offset);
    return count < f.capacity ? count : f.capacity;
}

bool differ(const CorVaneSchema& s, const uint8_t* a, const uint8_t* b, std::string& path) {
    for (uint32_t i = 0; i < s.fieldCount; ++i) {
        const CorVaneField& f = s.fields[i];
        const uint8_t* ma = a + f.offset;
        const uint8_t* mb = b + f.offset;
        switch (f.kind) {
            case CORVANE_FIELD_U32:
                if (word(ma) != word(mb)) {
                    path = std::string(f.name) + ": " + std::to_string(word(ma)) +
                           " != " + std::to_string(word(mb));
                    return true;
                }
                break;
            case CORVANE_FIELD_TEXT: {
                const size_t na = strnlen(reinterpret_cast<const char*>(ma), f.capacity);
                const size_t nb = strnlen(reinterpret_cast<const char*>(mb), f.capacity);
                if (na != nb || std::memcmp(ma, mb, na) != 0) {
                    path = std::string(f.name) + ": texts differ";
                    return true;
                }
                break;
            }
            case CORVANE_FIELD_RECORD:
                if (differ(*f.record, ma, mb, path)) {
                    path = std::string(f.name) + "." + path;
                    return true;
                }
                break;
            default: {
                const uint32_t n = entriesUsed(s, i, a);
                const uint32_t size = f.record->size;
                for (uint32_t j = 0; j < n; ++j) {
                    if (differ(*f.record, ma + j * size, mb + j * size, path)) {
                        path = std::string(f.name) + "[" + std::to_string(j) + "]." + path;
                        return true;
                    }
                }
                break;
            }
        }
    }
    return false;
}

struct Filler {
    Fill how;
    uint32_t next = 0;

    uint32_t textLength(uint32_t capacity) {
        if (how == Fill::kEmpty) return 0;
        if (how == Fill::kFull) return capacity - 1;
        return (next % 4) < capacity - 1 ? next % 4 : capacity - 1;
    }

    uint32_t count(uint32_t capacity) {
        if (how == Fill::kEmpty) return 0;
        return how == Fill::kFull ? capacity : 1;
    }

    void fill(const CorVaneSchema& s, uint8_t* rec) {
        for (uint32_t i = 0; i < s.fieldCount; ++i) {
            const CorVaneField& f = s.fields[i];
            uint8_t* m = rec + f.offset;
            switch (f.kind) {
                case CORVANE_FIELD_U32: {
                    const uint32_t v = how == Fill::kEmpty ? 0 : ++next * 2654435761u;
                    std::memcpy(m, &v, 4);
                    break;
                }
                case CORVANE_FIELD_TEXT: {
                    const uint32_t n = textLength(f.capacity);
                    for (uint32_t k = 0; k < n; ++k) m[k] = static_cast<uint8_t>('a' + (next + k) % 26);
                    m[n] = 0;
                    ++next;
                    break;
                }
                case CORVANE_FIELD_RECORD:
                    fill(*f.record, m);
                    break;
                default: {
                    uint32_t n = f.capacity;
                    if (f.kind == CORVANE_FIELD_ARRAY) {
                        n = count(f.capacity);
                        std::memcpy(rec + s.fields[i - 1].offset, &n, 4);
                    }
                    for (uint32_t j = 0; j < n; ++j) fill(*f.record, m + j * f.record->size);
                    break;
                }
            }
        }
    }
};

}  // namespace

const CorVaneMessageInfo* messageAt(uint32_t n) {
    return n < CORVANE_CMD_COUNT ? corVane_messageInfo(CORVANE_INTF_CMD, n)
                                 : corVane_messageInfo(CORVANE_INTF_NTFY, n - CORVANE_CMD_COUNT);
}

const CorVaneMethod& methodOf(const CorVaneMessageInfo& m) {
    return m.intf == CORVANE_INTF_CMD ? corVane_base.cmd.methods[m.index]
                                      : corVane_base.ntfy.methods[m.index];
}

std::string firstDifference(const CorVaneSchema& s, const void* a, const void* b) {
    std::string path;
    if (!differ(s, static_cast<const uint8_t*>(a), static_cast<const uint8_t*>(b), path)) return {};
    return std::string(s.name) + "." + path;
}

void fillRecord(const CorVaneSchema& s, void* rec, Fill how) {
    Filler{how}.fill(s, static_cast<uint8_t*>(rec));
}

LogCounter& logCounter() {
    static LogCounter counter;
    return counter;
}

void fail(const char* what, const std::string& detail) {
    std::fprintf(stderr, "corvane fuzz check failed: %s %s\n", what, detail.c_str());
    std::abort();
}

const uint8_t* paddedCopy(const uint8_t* data, size_t size) {
    static uint8_t* buffer = nullptr;
    static size_t capacity = 0;  // bytes of input the buffer can take
    static size_t used = 0;      // bytes of input the last call copied
    if (size > capacity) {
        std::free(buffer);
        capacity = size;
        buffer = static_cast<uint8_t*>(std::calloc(capacity + kPadding, 1));
        used = 0;
        if (!buffer) fail("out of memory");
    }
    if (used > size) std::memset(buffer + size, 0, used - size);
    if (size) std::memcpy(buffer, data, size);
    used = size;
    return buffer;
}

}  // namespace cvfuzz

// The library reports every refused input through syslog(). The fuzz targets
// replace it: no formatting and no system call per line, only a count, and a
// note of the lines that report an overrun. The library formats its line
// itself and passes it as the one "%s" argument.
namespace {
void countLine(const char* fmt, va_list ap) {
    cvfuzz::LogCounter& c = cvfuzz::logCounter();
    ++c.lines;
    if (std::strcmp(fmt, "%s") != 0) return;
    const char* text = va_arg(ap, const char*);
    if (text && std::strstr(text, "the end of the buffer")) ++c.overruns;
}
}  // namespace

extern "C" {

void syslog(int, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    countLine(fmt, ap);
    va_end(ap);
}

void __syslog_chk(int, int, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    countLine(fmt, ap);
    va_end(ap);
}

}  // extern "C"
