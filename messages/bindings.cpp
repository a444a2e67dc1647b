// The exported functions of the 49 messages and their descriptors, generated
// from the command and notification tables of corvane/messages.h.
#include <cstring>
#include <iterator>

#include "corvane/base.h"
#include "messages/body.h"
#include "records/record_list.h"

namespace cv::msg {
namespace {

constexpr uint8_t kShapeFlags_RECORD = CORVANE_MSG_RECORD_PAYLOAD;
constexpr uint8_t kShapeFlags_SCALAR = 0;
constexpr uint8_t kUpdateFlags_NEED_UPDATE = CORVANE_MSG_NEED_UPDATE;
constexpr uint8_t kUpdateFlags_NO_UPDATE = 0;

template <class P>
constexpr uint32_t bodySize() {
    static_assert(alignof(P) <= CORVANE_BODY_PAYLOAD_OFFSET);
    return CORVANE_BODY_PAYLOAD_OFFSET + sizeof(P);
}

#define CV_COMMAND_INFO_(index, Name, name, NAME, magic, key, env, P, shape)                       \
    {#Name, kSchemaOf<P>, magic, key, bodySize<P>(), env, index, CORVANE_INTF_CMD,                 \
     kShapeFlags_##shape},
#define CV_NOTIFICATION_INFO_(index, Name, name, NAME, magic, key, nu, P, shape)                   \
    {#Name, kSchemaOf<P>, magic, key, bodySize<P>(), 0, index, CORVANE_INTF_NTFY,                  \
     static_cast<uint8_t>(kShapeFlags_##shape | kUpdateFlags_##nu)},

constexpr CorVaneMessageInfo kCommands[] = {CORVANE_COMMANDS(CV_COMMAND_INFO_)};
constexpr CorVaneMessageInfo kNotifications[] = {CORVANE_NOTIFICATIONS(CV_NOTIFICATION_INFO_)};

static_assert(std::size(kCommands) == CORVANE_CMD_COUNT);
static_assert(std::size(kNotifications) == CORVANE_NTFY_COUNT);

// Each row's index is its place in the table.
consteval bool indicesInOrder() {
    for (size_t i = 0; i < std::size(kCommands); ++i)
        if (kCommands[i].index != i) return false;
    for (size_t i = 0; i < std::size(kNotifications); ++i)
        if (kNotifications[i].index != i) return false;
    return true;
}
static_assert(indicesInOrder());

}  // namespace
}  // namespace cv::msg

using cv::msg::kCommands;
using cv::msg::kNotifications;

// ---- payload parameters of the send functions ------------------------------

#define CV_PAYLOAD_RECORD(P) const void* payload = record;
#define CV_PAYLOAD_SCALAR(P)                                                                       \
    P local{};                                                                                     \
    CV_FILL_##P const void* payload = &local;
#define CV_FILL_CorVaneRepeaterId local.repeaterId = repeaterId;
#define CV_FILL_CorVaneBatteryEnable local.enable = enable;
#define CV_FILL_CorVaneValues1 local.value1 = value1;
#define CV_FILL_CorVaneValues2 CV_FILL_CorVaneValues1 local.value2 = value2;
#define CV_FILL_CorVaneValues3 CV_FILL_CorVaneValues2 local.value3 = value3;
#define CV_FILL_CorVaneValues4 CV_FILL_CorVaneValues3 local.value4 = value4;
#define CV_FILL_CorVaneMakeCall                                                                    \
    CV_FILL_CorVaneValues2 cv::msg::putText(local.text1, text1, sizeof local.text1);               \
    cv::msg::putText(local.text2, text2, sizeof local.text2);                                      \
    cv::msg::putText(local.text3, text3, sizeof local.text3);
#define CV_FILL_CorVanePingSip                                                                     \
    CV_FILL_CorVaneValues3 cv::msg::putText(local.text1, text1, sizeof local.text1);

// ---- the four body callbacks -----------------------------------------------

#define CV_BODY_CALLBACKS_(half, name, M)                                                          \
    extern "C" void corVane_cbEvtMsgMngt_freeBody_##half##_##name(uint32_t kind, void* body) {     \
        cv::msg::freeBody(M, kind, body);                                                          \
    }                                                                                              \
    extern "C" uint32_t corVane_cbEvtMsgMngt_serializeBody_##half##_##name(                        \
        uint32_t kind, void* body, uint8_t** buffer, uint32_t* length) {                           \
        return cv::msg::serializeBody(M, kind, body, buffer, length);                              \
    }                                                                                              \
    extern "C" uint32_t corVane_cbEvtMsgMngt_unserializeBody_##half##_##name(                      \
        uint32_t kind, const uint8_t* buffer, void** body, uint32_t* size) {                       \
        return cv::msg::unserializeBody(M, kind, buffer, nullptr, false, body, size);              \
    }                                                                                              \
    extern "C" void corVane_cbEvtMsgMngt_logBody_##half##_##name(void*, void*, void*,              \
                                                                 char** text) {                    \
        cv::msg::logBody(M, text);                                                                 \
    }

// ---- commands ----------------------------------------------------------------

#define CV_COMMAND_(index, Name, name, NAME, magic, key, env, P, shape)                            \
    extern "C" uint32_t corVane_sendReq_##name(void* user, void* arg, const char* userName,        \
                                               CORVANE_SEND_PARAMS_##shape(P)) {                   \
        CV_PAYLOAD_##shape(P) return cv::msg::sendCommand(kCommands[index], user, arg, userName,   \
                                                          payload);                                \
    }                                                                                              \
    extern "C" uint32_t corVane_modSrv_recvMsg_##name(void* user, void* a, void* b, void* c) {     \
        return cv::msg::registerServer(kCommands[index], user, a, b, c);                           \
    }                                                                                              \
    extern "C" void corVane_recvReq_##name(void* ctx, void* body, CorVaneHandler handler,          \
                                           void* arg) {                                            \
        cv::msg::receive(kCommands[index], ctx, body, handler, arg);                               \
    }                                                                                              \
    CV_BODY_CALLBACKS_(msgCmd, name, kCommands[index])

CORVANE_COMMANDS(CV_COMMAND_)

// ---- notifications -----------------------------------------------------------

#define CV_NEED_UPDATE_NEED_UPDATE(index, Name)                                                    \
    extern "C" uint32_t corVane_modSrv_needUpdate_ntfy##Name(void* user, void* a, void* b,         \
                                                             void* c) {                            \
        return cv::msg::registerNeedUpdate(kNotifications[index], user, a, b, c);                  \
    }
#define CV_NEED_UPDATE_NO_UPDATE(index, Name)

#define CV_NOTIFICATION_(index, Name, name, NAME, magic, key, nu, P, shape)                        \
    extern "C" void corVane_sendReq_ntfy##Name(void* user, void* dest1, void* dest2,               \
                                               CORVANE_SEND_PARAMS_##shape(P)) {                   \
        CV_PAYLOAD_##shape(P) cv::msg::sendNotification(kNotifications[index], user, dest1, dest2, \
                                                        payload);                                  \
    }                                                                                              \
    extern "C" uint32_t corVane_modCliNtfyUser_recvMsg_##name(                                     \
        void* user, void* a, void* b, void* c, const char* busName, const char* userName) {        \
        return cv::msg::subscribe(kNotifications[index], user, a, b, c, busName, userName);        \
    }                                                                                              \
    CV_NEED_UPDATE_##nu(index, Name) extern "C" void corVane_recvReq_ntfy##Name(                   \
        void* ctx, void* body, CorVaneHandler handler, void* arg) {                                \
        cv::msg::receive(kNotifications[index], ctx, body, handler, arg);                          \
    }                                                                                              \
    CV_BODY_CALLBACKS_(msgNtfy, name, kNotifications[index])

CORVANE_NOTIFICATIONS(CV_NOTIFICATION_)

// ---- lookups -------------------------------------------------------------------

extern "C" const CorVaneMessageInfo* corVane_messageInfo(uint32_t intf, uint32_t index) {
    if (intf == CORVANE_INTF_CMD && index < std::size(kCommands)) return &kCommands[index];
    if (intf == CORVANE_INTF_NTFY && index < std::size(kNotifications))
        return &kNotifications[index];
    return nullptr;
}

extern "C" const CorVaneMessageInfo* corVane_messageByName(const char* name) {
    if (!name) return nullptr;
    for (const auto& m : kCommands)
        if (std::strcmp(m.name, name) == 0) return &m;
    for (const auto& m : kNotifications)
        if (std::strcmp(m.name, name) == 0) return &m;
    return nullptr;
}

extern "C" uint32_t corVane_unserializeBody_bounded(const CorVaneMessageInfo* msg, uint32_t kind,
                                                    const uint8_t* buffer, size_t length,
                                                    void** body, uint32_t* size) {
    if (!msg) return CORVANE_E_ELEMENT;
    return cv::msg::unserializeBody(*msg, kind, buffer, buffer ? buffer + length : nullptr, true,
                                    body, size);
}
