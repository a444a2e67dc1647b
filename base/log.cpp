#include "base/log.h"

#include <syslog.h>

#include <cstdio>

namespace cv {

const char* FnName::render(char* buf, size_t size) const {
    size_t at = 0;
    auto put = [&](char c) {
        if (at + 1 < size) buf[at++] = c;
    };
    for (const char* p = prefix; p && *p; ++p) put(*p);
    for (const char* p = name; p && *p; ++p) {
        char c = *p;
        bool lower = nameCase == Case::kLowerFirst && p == name;
        if (lower && c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        if (nameCase == Case::kUpper && c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
        put(c);
    }
    for (const char* p = suffix; p && *p; ++p) put(*p);
    if (size) buf[at] = '\0';
    return buf;
}

void vlog(int prio, const char* func, int line, const char* fmt, va_list ap) {
    // Lines are short; a bus or user name longer than the buffer is cut.
    char text[512];
    int head = std::snprintf(text, sizeof text, "[CORVANE] -> %s(%d): ", func, line);
    if (head < 0) return;
    if (static_cast<size_t>(head) < sizeof text) {
        std::vsnprintf(text + head, sizeof text - static_cast<size_t>(head), fmt, ap);
    }
    syslog(prio, "%s", text);
}

void log(int prio, const char* func, int line, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vlog(prio, func, line, fmt, ap);
    va_end(ap);
}

void log(int prio, const FnName& func, int line, const char* fmt, ...) {
    char name[kFnNameMax];
    va_list ap;
    va_start(ap, fmt);
    vlog(prio, func.render(name, sizeof name), line, fmt, ap);
    va_end(ap);
}

}  // namespace cv
