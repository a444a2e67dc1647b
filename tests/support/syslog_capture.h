// Captures the lines the library sends to syslog, for exact comparison.
#pragma once

#include <string>
#include <vector>

namespace cvtest {

struct LogLine {
    int priority;
    std::string text;
};

// Lines captured since the last clear, oldest first.
const std::vector<LogLine>& logLines();
void clearLog();

// The texts only, oldest first.
std::vector<std::string> logTexts();

// A line with the function and line number replaced by `func`, for tests that
// compare exact texts without pinning source line numbers:
// "[CORVANE] -> corVane_X_unserialize(123): Tl..." -> "corVane_X_unserialize: Tl...".
std::string withoutLine(const std::string& text);
std::vector<std::string> logTextsWithoutLine();

}  // namespace cvtest
