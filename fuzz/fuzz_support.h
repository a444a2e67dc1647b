// What the fuzz targets and the seed generator share: choosing a message from
// the first input byte and the syslog() replacement that counts the library's
// lines. Comparing and filling records come from the tests' support/records.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "corvane/base.h"
#include "corvane/messages.h"
#include "corvane/schema.h"
#include "support/records.h"

namespace cvfuzz {

constexpr uint32_t kMessageCount = CORVANE_CMD_COUNT + CORVANE_NTFY_COUNT;

// Message n of 49: the commands first, then the notifications.
const CorVaneMessageInfo* messageAt(uint32_t n);
// Its method entry in corVane_base (the callbacks the middleware calls).
const CorVaneMethod& methodOf(const CorVaneMessageInfo& m);

// Lines the library sent to syslog() since the last reset, and whether one of
// them reported a read that would have run past the end of the buffer.
struct LogCounter {
    uint32_t lines;
    uint32_t overruns;
};
LogCounter& logCounter();
inline void resetLog() { logCounter() = {0, 0}; }

// Prints the message and aborts: libFuzzer records the input as a crash.
[[noreturn]] void fail(const char* what, const std::string& detail = {});

// A copy of `size` bytes followed by zeros, for the unbounded reader, which
// trusts its buffer to hold the whole encoding. The zeros stop any walk that
// a bounded read accepted long before they are reached.
const uint8_t* paddedCopy(const uint8_t* data, size_t size);
constexpr size_t kPadding = 64 * 1024;

}  // namespace cvfuzz
