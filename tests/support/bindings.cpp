#include "support/bindings.h"

#include <cstdlib>
#include <cstring>

namespace cvtest {
namespace {

#define CVTEST_ARGS_CorVaneRepeaterId(v) v->repeaterId
#define CVTEST_ARGS_CorVaneBatteryEnable(v) v->enable
#define CVTEST_ARGS_CorVaneValues1(v) v->value1
#define CVTEST_ARGS_CorVaneValues2(v) v->value1, v->value2
#define CVTEST_ARGS_CorVaneValues3(v) v->value1, v->value2, v->value3
#define CVTEST_ARGS_CorVaneValues4(v) v->value1, v->value2, v->value3, v->value4
#define CVTEST_ARGS_CorVaneMakeCall(v) v->value1, v->value2, v->text1, v->text2, v->text3
#define CVTEST_ARGS_CorVanePingSip(v) v->value1, v->value2, v->value3, v->text1
#define CVTEST_PAYLOAD_RECORD(P, v) v
#define CVTEST_PAYLOAD_SCALAR(P, v) CVTEST_ARGS_##P(v)

#define CVTEST_NEED_UPDATE_NEED_UPDATE(Name) corVane_modSrv_needUpdate_ntfy##Name
#define CVTEST_NEED_UPDATE_NO_UPDATE(Name) nullptr

#define CVTEST_COMMAND_(index, Name, name, NAME, magic, key, env, P, shape)                        \
    Binding{corVane_messageInfo(CORVANE_INTF_CMD, index),                                          \
            [](void* u, void* a, const char* to, const void* p) -> uint32_t {                      \
                [[maybe_unused]] const P* v = static_cast<const P*>(p);                            \
                return corVane_sendReq_##name(u, a, to, CVTEST_PAYLOAD_##shape(P, v));             \
            },                                                                                     \
            [](void* u, void* a, void* b, void* c, const char*, const char*) -> uint32_t {         \
                return corVane_modSrv_recvMsg_##name(u, a, b, c);                                  \
            },                                                                                     \
            nullptr,                                                                               \
            corVane_recvReq_##name,                                                                \
            corVane_cbEvtMsgMngt_freeBody_msgCmd_##name,                                           \
            corVane_cbEvtMsgMngt_serializeBody_msgCmd_##name,                                      \
            corVane_cbEvtMsgMngt_unserializeBody_msgCmd_##name,                                    \
            corVane_cbEvtMsgMngt_logBody_msgCmd_##name},

#define CVTEST_NOTIFICATION_(index, Name, name, NAME, magic, key, nu, P, shape)                    \
    Binding{corVane_messageInfo(CORVANE_INTF_NTFY, index),                                         \
            [](void* u, void* a, const char*, const void* p) -> uint32_t {                         \
                [[maybe_unused]] const P* v = static_cast<const P*>(p);                            \
                corVane_sendReq_ntfy##Name(u, a, nullptr, CVTEST_PAYLOAD_##shape(P, v));           \
                return 0;                                                                          \
            },                                                                                     \
            corVane_modCliNtfyUser_recvMsg_##name,                                                 \
            CVTEST_NEED_UPDATE_##nu(Name),                                                         \
            corVane_recvReq_ntfy##Name,                                                            \
            corVane_cbEvtMsgMngt_freeBody_msgNtfy_##name,                                          \
            corVane_cbEvtMsgMngt_serializeBody_msgNtfy_##name,                                     \
            corVane_cbEvtMsgMngt_unserializeBody_msgNtfy_##name,                                   \
            corVane_cbEvtMsgMngt_logBody_msgNtfy_##name},

}  // namespace

const std::vector<Binding>& bindings() {
    static const std::vector<Binding> all = {CORVANE_COMMANDS(CVTEST_COMMAND_)
                                                 CORVANE_NOTIFICATIONS(CVTEST_NOTIFICATION_)};
    return all;
}

void* makeBody(const Binding& b, const void* payload) {
    void* body = std::calloc(1, b.info->bodySize);
    std::memcpy(body, &b.info->magic, 4);
    corVane_record_copy(b.info->payload, static_cast<uint8_t*>(body) + 8, payload);
    return body;
}

std::vector<uint8_t> serializedBody(const Binding& b, void* body) {
    uint8_t* buf = nullptr;
    uint32_t len = 0;
    std::vector<uint8_t> out;
    if (b.serializeBody(0, body, &buf, &len) == 0) out.assign(buf, buf + len);
    std::free(buf);
    return out;
}

}  // namespace cvtest
