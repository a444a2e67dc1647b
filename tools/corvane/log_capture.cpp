// Replaces syslog() for the whole process: the executable exports these
// definitions (ENABLE_EXPORTS), so libCorvane's log lines land here, where
// corvane shows them next to the failure they explain.
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "inspect.h"

namespace cvi {
namespace {

std::vector<std::string>& lines() {
    static std::vector<std::string> v;
    return v;
}

void capture(const char* fmt, va_list ap) {
    char buf[2048];
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    std::string line(buf);
    while (!line.empty() && line.back() == '\n') line.pop_back();
    lines().push_back(std::move(line));
}

}  // namespace

std::vector<std::string> takeLog() {
    std::vector<std::string> out;
    out.swap(lines());
    return out;
}

}  // namespace cvi

extern "C" {

void syslog(int, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    cvi::capture(fmt, ap);
    va_end(ap);
}

void __syslog_chk(int, int, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    cvi::capture(fmt, ap);
    va_end(ap);
}

}  // extern "C"
