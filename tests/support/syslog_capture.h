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

// The texts, oldest first, with the prefix and the source line number taken
// out, for tests that compare exact texts without pinning line numbers:
// "[CORVANE] -> corVane_X_unserialize(123): Tl..." -> "corVane_X_unserialize: Tl...".
// A line without the "[CORVANE] -> name(n): " prefix is kept whole, so it
// cannot match an expected text.
std::vector<std::string> logTextsWithoutLine();

}  // namespace cvtest
