#include "fuzz_support.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace cvfuzz {

const CorVaneMessageInfo* messageAt(uint32_t n) {
    return n < CORVANE_CMD_COUNT ? corVane_messageInfo(CORVANE_INTF_CMD, n)
                                 : corVane_messageInfo(CORVANE_INTF_NTFY, n - CORVANE_CMD_COUNT);
}

const CorVaneMethod& methodOf(const CorVaneMessageInfo& m) {
    return m.intf == CORVANE_INTF_CMD ? corVane_base.cmd.methods[m.index]
                                      : corVane_base.ntfy.methods[m.index];
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
