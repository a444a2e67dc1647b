// The library's one logging path: every line is formatted as
// "[CORVANE] -> <function>(<line>): <text>" and sent to syslog.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

namespace cv {

// syslog priorities used by the library.
constexpr int kPrioFatal = 0;    // before abort()
constexpr int kPrioError = 3;    // failures
constexpr int kPrioWarning = 4;  // flag and state warnings

// The name of the function that logs, assembled from parts only when a line
// is written: prefix, then `name` (its first letter lowered if asked), then
// suffix. "corVane_" + "CallingFeatures" + "_unserialize", or
// "corVane_cbEvtMsgMngt_freeBody_msgCmdReq_" + "SetLineStats" (lowered).
struct FnName {
    enum class Case : uint8_t { kAsIs, kLowerFirst, kUpper };
    const char* prefix;
    const char* name;
    const char* suffix;
    Case nameCase;

    // Writes the full name into buf (always NUL-terminated) and returns buf.
    const char* render(char* buf, size_t size) const;
};

constexpr size_t kFnNameMax = 128;

void vlog(int prio, const char* func, int line, const char* fmt, va_list ap);
void log(int prio, const char* func, int line, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));
void log(int prio, const FnName& func, int line, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

}  // namespace cv
