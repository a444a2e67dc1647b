// Every message's exported functions, reached through one table, so that
// tests can drive all 49 messages the way users call them.
#pragma once

#include <cstdint>
#include <vector>

#include "corvane/messages.h"

namespace cvtest {

struct Binding {
    const CorVaneMessageInfo* info;
    // Sends a payload of the message's type (the record, or the scalar
    // struct whose fields become the send function's arguments). For a
    // command, `to` is the destination user name; a notification ignores it.
    uint32_t (*send)(void* user, void* arg, const char* to, const void* payload);
    // Registers as server (command) or subscriber (notification).
    uint32_t (*listen)(void* user, void* a, void* b, void* c, const char* bus, const char* name);
    uint32_t (*needUpdate)(void* user, void* a, void* b, void* c);  // null when none
    CorVaneRecvFn recv;
    CorVaneFreeBodyFn freeBody;
    CorVaneSerializeBodyFn serializeBody;
    CorVaneUnserializeBodyFn unserializeBody;
    CorVaneLogBodyFn logBody;
};

// Commands first, then notifications, each in index order.
const std::vector<Binding>& bindings();

// A body as a sender builds it: the message's magic, ref 0 and a copy of
// `payload`; released with the message's freeBody.
void* makeBody(const Binding& b, const void* payload);

// What the message's serializeBody makes of a body; empty if it refuses.
std::vector<uint8_t> serializedBody(const Binding& b, void* body);

}  // namespace cvtest
