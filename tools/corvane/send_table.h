// Sending one message by its method name: the library's send function of
// that message (corVane_sendReq_<name> or corVane_sendReq_ntfy<Name>), its
// payload taken from a payload in memory, as encodeBody or decodeBody hold
// it. The table is built from the two message tables of corvane/messages.h,
// so it has one row per message in the same order.
#pragma once

#include <cstdint>
#include <span>

#include "corvane/corvane.h"

namespace cvi {

struct SendEntry {
    const char* name;  // method name
    uint8_t intf;      // CORVANE_INTF_CMD or CORVANE_INTF_NTFY
    uint16_t index;
    // Commands: the send function's result (the middleware's status).
    // Notifications: 0 (their send function returns nothing).
    uint32_t (*send)(void* user, const char* toUser, const void* payload);
};

// The 19 commands then the 30 notifications.
std::span<const SendEntry> sendTable();
// The row of that method, or nullptr.
const SendEntry* findSendEntry(const char* name);

}  // namespace cvi
