// Replaces syslog() for the whole test process: the test binary exports these
// definitions, so the library's calls land here instead of in the C library.
#include "support/syslog_capture.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace cvtest {
namespace {
std::mutex gMutex;
std::vector<LogLine>& lines() {
    static std::vector<LogLine> v;
    return v;
}

void capture(int priority, const char* fmt, va_list ap) {
    char buf[2048];
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    // A line logged just before abort() is also written to stderr, where
    // death tests look for it.
    if ((priority & 7) == 0) std::fputs(buf, stderr);
    std::lock_guard<std::mutex> lock(gMutex);
    lines().push_back({priority & 7, buf});
}

std::string withoutLine(const std::string& text) {
    const std::string prefix = "[CORVANE] -> ";
    if (text.compare(0, prefix.size(), prefix) != 0) return text;
    const size_t open = text.find('(', prefix.size());
    const size_t close = text.find("): ", open == std::string::npos ? 0 : open);
    if (open == std::string::npos || close == std::string::npos) return text;
    return text.substr(prefix.size(), open - prefix.size()) + ": " + text.substr(close + 3);
}
}  // namespace

const std::vector<LogLine>& logLines() { return lines(); }

void clearLog() {
    std::lock_guard<std::mutex> lock(gMutex);
    lines().clear();
}

std::vector<std::string> logTextsWithoutLine() {
    std::vector<std::string> out;
    for (const auto& l : lines()) out.push_back(withoutLine(l.text));
    return out;
}

}  // namespace cvtest

extern "C" {

void syslog(int priority, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    cvtest::capture(priority, fmt, ap);
    va_end(ap);
}

void __syslog_chk(int priority, int, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    cvtest::capture(priority, fmt, ap);
    va_end(ap);
}

}  // extern "C"
