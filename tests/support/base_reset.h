// Puts corVane_base and the stand-in platform back to their load-time state,
// so that each test starts from scratch in the shared process.
#pragma once

#include <cstdint>
#include <vector>

#include "corvane/base.h"
#include "quib_stub.h"
#include "support/syslog_capture.h"

namespace cvtest {

inline void resetBase() {
    quibStub_reset();
    corVane_base.magic = CORVANE_MAGIC_BASE;
    corVane_base.state = CORVANE_STATE_BASE_WAIT_INIT;
    corVane_base.flags = 0;
    corVane_base.debug = 0;
    corVane_base.cmd.num = CORVANE_NUM_NONE;
    corVane_base.ntfy.num = CORVANE_NUM_NONE;
    clearLog();
}

// A pointer as the stand-in records it.
inline uintptr_t w(const void* p) { return reinterpret_cast<uintptr_t>(p); }

// The arguments the stand-in recorded for the last call of a kind, as many
// as that call took.
inline std::vector<uintptr_t> lastArgs(QuibStubCall c) {
    const QuibStubCallRecord* r = quibStub_lastCall(c);
    return {r->args, r->args + r->argCount};
}

}  // namespace cvtest
