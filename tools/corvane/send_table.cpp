#include "send_table.h"

#include <cstring>

namespace cvi {
namespace {

// The send functions take a record by pointer, or the scalar payload's
// fields one by one.
#define CVI_ARGS_RECORD(P, p) static_cast<const P*>(p)
#define CVI_ARGS_SCALAR(P, p) CVI_ARGS_##P(static_cast<const P*>(p))
#define CVI_ARGS_CorVaneRepeaterId(v) (v)->repeaterId
#define CVI_ARGS_CorVaneBatteryEnable(v) (v)->enable
#define CVI_ARGS_CorVaneValues1(v) (v)->value1
#define CVI_ARGS_CorVaneValues2(v) (v)->value1, (v)->value2
#define CVI_ARGS_CorVaneValues3(v) (v)->value1, (v)->value2, (v)->value3
#define CVI_ARGS_CorVaneValues4(v) (v)->value1, (v)->value2, (v)->value3, (v)->value4
#define CVI_ARGS_CorVaneMakeCall(v) (v)->value1, (v)->value2, (v)->text1, (v)->text2, (v)->text3
#define CVI_ARGS_CorVanePingSip(v) (v)->value1, (v)->value2, (v)->value3, (v)->text1

#define CVI_COMMAND_ROW(index, Name, name, NAME, magic, key, env, P, shape)                        \
    {#Name, CORVANE_INTF_CMD, index,                                                              \
     [](void* user, const char* toUser, const void* payload) -> uint32_t {                         \
         return corVane_sendReq_##name(user, nullptr, toUser, CVI_ARGS_##shape(P, payload));       \
     }},
#define CVI_NOTIFICATION_ROW(index, Name, name, NAME, magic, key, nu, P, shape)                    \
    {#Name, CORVANE_INTF_NTFY, index, [](void* user, const char* toUser, const void* payload) -> uint32_t { \
         corVane_sendReq_ntfy##Name(user, nullptr, *toUser ? const_cast<char*>(toUser) : nullptr, CVI_ARGS_##shape(P, payload)); \
         return 0;                                                                                 \
     }},

const SendEntry kTable[] = {CORVANE_COMMANDS(CVI_COMMAND_ROW)
                                CORVANE_NOTIFICATIONS(CVI_NOTIFICATION_ROW)};

}  // namespace

std::span<const SendEntry> sendTable() { return kTable; }

const SendEntry* findSendEntry(const char* name) {
    for (const SendEntry& e : kTable)
        if (std::strcmp(e.name, name) == 0) return &e;
    return nullptr;
}

}  // namespace cvi
