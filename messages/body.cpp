#include "messages/body.h"

#include <cstdlib>
#include <cstring>

#include "base/log.h"
#include "codec/api.h"
#include "codec/engine.h"
#include "codec/wire.h"
#include "corvane/base.h"
#include "quib.h"

namespace cv::msg {
namespace {

constexpr uint32_t kRespondNoHandler = 20;
constexpr uint32_t kPriority = 18;
constexpr uint16_t kAll = 0xffff;
constexpr uint32_t kEnvelopeBytes = 2 * kU32ElementBytes;

struct BodyHead {
    uint32_t magic;
    uint16_t ref;
};

uint8_t* payloadOf(void* body) { return static_cast<uint8_t*>(body) + CORVANE_BODY_PAYLOAD_OFFSET; }

// A zeroed block of n bytes, or null.
void* zeroedBlock(size_t n) { return std::calloc(n, 1); }

bool isCommand(const Msg& m) { return m.intf == CORVANE_INTF_CMD; }
bool isRecord(const Msg& m) { return m.flags & CORVANE_MSG_RECORD_PAYLOAD; }

enum class Callback { kFree, kSerialize, kUnserialize, kLog };

// corVane_cbEvtMsgMngt_<callback>_msg{Cmd,Ntfy}[Req]_<message>: the kind
// checks name the callback itself, the request half names itself "...Req".
FnName callbackName(const Msg& m, Callback cb, bool request) {
    static constexpr const char* kPrefix[4][2][2] = {
        {{"corVane_cbEvtMsgMngt_freeBody_msgCmd_", "corVane_cbEvtMsgMngt_freeBody_msgCmdReq_"},
         {"corVane_cbEvtMsgMngt_freeBody_msgNtfy_", "corVane_cbEvtMsgMngt_freeBody_msgNtfyReq_"}},
        {{"corVane_cbEvtMsgMngt_serializeBody_msgCmd_",
          "corVane_cbEvtMsgMngt_serializeBody_msgCmdReq_"},
         {"corVane_cbEvtMsgMngt_serializeBody_msgNtfy_",
          "corVane_cbEvtMsgMngt_serializeBody_msgNtfyReq_"}},
        {{"corVane_cbEvtMsgMngt_unserializeBody_msgCmd_",
          "corVane_cbEvtMsgMngt_unserializeBody_msgCmdReq_"},
         {"corVane_cbEvtMsgMngt_unserializeBody_msgNtfy_",
          "corVane_cbEvtMsgMngt_unserializeBody_msgNtfyReq_"}},
        {{"corVane_cbEvtMsgMngt_logBody_msgCmd_", "corVane_cbEvtMsgMngt_logBody_msgCmdReq_"},
         {"corVane_cbEvtMsgMngt_logBody_msgNtfy_", "corVane_cbEvtMsgMngt_logBody_msgNtfyReq_"}},
    };
    return {kPrefix[static_cast<int>(cb)][isCommand(m) ? 0 : 1][request ? 1 : 0], m.name, "",
            FnName::Case::kLowerFirst};
}

// corVane_<role>_<message> for commands, corVane_<role>_ntfy<Message> for
// notifications.
FnName roleName(const Msg& m, const char* cmdPrefix, const char* ntfyPrefix) {
    return isCommand(m) ? FnName{cmdPrefix, m.name, "", FnName::Case::kLowerFirst}
                        : FnName{ntfyPrefix, m.name, "", FnName::Case::kAsIs};
}

FnName receiveName(const Msg& m) { return roleName(m, "corVane_recvReq_", "corVane_recvReq_ntfy"); }

// A body whose magic is not the message's own is a programming error: the
// body was freed already, or belongs to another message.
// CORVANE_MAGIC_MSGCMD_<NAME> / CORVANE_MAGIC_MSGNTFY_<NAME>
FnName magicLabel(const Msg& m) {
    return {isCommand(m) ? "CORVANE_MAGIC_MSGCMD_" : "CORVANE_MAGIC_MSGNTFY_", m.name, "",
            FnName::Case::kUpper};
}

[[noreturn]] __attribute__((noinline, cold)) void wrongMagic(const Msg& m, const void* body,
                                                             uint32_t found, const FnName& who) {
    char label[kFnNameMax];
    magicLabel(m).render(label, sizeof label);
    log(kPrioFatal, who, __LINE__, "Check Magic[%s-%X] Ctx[ptr(%p) magic(%X)] text[%s]\n", label,
        m.magic, body, found, "");
    std::abort();
}

inline void checkMagic(const Msg& m, const void* body, const FnName& who) {
    uint32_t found;
    std::memcpy(&found, body, sizeof found);
    if (found != m.magic) wrongMagic(m, body, found, who);
}

// Answers 1 for a response or an unknown kind, after logging it.
bool refuseKind(const Msg& m, Callback cb, uint32_t kind, const char* responseText,
                const char* unknownFormat) {
    if (kind == CORVANE_BODY_REQUEST) return false;
    const FnName self = callbackName(m, cb, false);
    if (kind == CORVANE_BODY_RESPONSE)
        log(kPrioError, self, __LINE__, "%s", responseText);
    else
        log(kPrioError, self, __LINE__, unknownFormat, static_cast<int>(kind));
    return true;
}

// The names the payload's lines carry: a record logs under its own
// operations, a scalar payload under the callback that reads or writes it.
const FnName* payloadWho(const Msg& m, const FnName& callback) {
    return isRecord(m) ? nullptr : &callback;
}

}  // namespace

void putText(char* field, const char* text, uint32_t size) {
    std::strncpy(field, text ? text : "", size);
}

void freeBody(const Msg& m, uint32_t kind, void* body) {
    // This line alone has no line feed at its end.
    if (refuseKind(m, Callback::kFree, kind, "No free body response process\n", "Type(%d) unknown"))
        return;
    const FnName req = callbackName(m, Callback::kFree, true);
    if (!body) {
        log(kPrioError, req, __LINE__, "Ctx[NULL] text[%s]\n", "");
        return;
    }
    checkMagic(m, body, req);
    BodyHead* head = static_cast<BodyHead*>(body);
    if (head->ref != 0) return;  // still held by someone else
    api::clean(*m.payload, payloadOf(body));
    // A late use or second release hits the magic check. The store goes
    // through a volatile access: a plain one just before free() is a dead
    // store that the compiler drops.
    *static_cast<volatile uint32_t*>(&head->magic) = CORVANE_MAGIC_FREED;
    std::free(body);
}

uint32_t serializeBody(const Msg& m, uint32_t kind, void* body, uint8_t** buffer,
                       uint32_t* length) {
    if (refuseKind(m, Callback::kSerialize, kind, "No Serialize response process\n",
                   "Type(%d) unknown\n"))
        return CORVANE_E_NOT_PROCESSED;
    const FnName req = callbackName(m, Callback::kSerialize, true);
    if (!body || !buffer || !length) {
        log(kPrioError, req, __LINE__, "Ctx[NULL] text[%s]\n", body ? "out" : "");
        return CORVANE_E_ELEMENT;
    }
    checkMagic(m, body, req);
    const uint8_t* payload = payloadOf(body);
    const uint32_t n = kEnvelopeBytes + recordLength(*m.payload, payload);
    uint8_t* out = static_cast<uint8_t*>(zeroedBlock(n));
    if (!out) {
        log(kPrioError, req, __LINE__, "Allocating Memory N Ctx[%s]\n", "");
        return CORVANE_E_NOMEM;
    }
    uint32_t magic;
    std::memcpy(&magic, body, sizeof magic);
    storeBe32(out, 0);
    storeBe32(out + 4, 4);
    storeBe32(out + 8, magic);
    storeBe32(out + 12, 1);
    storeBe32(out + 16, 4);
    storeBe32(out + 20, m.envelope);
    uint8_t* cursor = out + kEnvelopeBytes;
    const uint32_t st = encodeRecord(*m.payload, payload, &cursor, payloadWho(m, req));
    if (st) {
        log(kPrioError, req, __LINE__, "BodyReq(%p): On serialize failed(%d)\n",
            static_cast<void*>(out), static_cast<int>(st));
        // Nobody else holds the buffer: release it rather than leak it.
        std::free(out);
        return st;
    }
    *buffer = out;
    *length = n;
    return CORVANE_OK;
}

uint32_t unserializeBody(const Msg& m, uint32_t kind, const uint8_t* buffer, const uint8_t* end,
                         bool bounded, void** body, uint32_t* size) {
    if (refuseKind(m, Callback::kUnserialize, kind, "No Unserialize response process\n",
                   "Type(%d) unknown\n"))
        return CORVANE_E_NOT_PROCESSED;
    const FnName req = callbackName(m, Callback::kUnserialize, true);
    if (!buffer || !body || !size) {
        log(kPrioError, req, __LINE__, "Ctx[NULL] text[%s]\n", buffer ? "out" : "buffer");
        return CORVANE_E_ELEMENT;
    }
    void* b = zeroedBlock(m.bodySize);
    if (!b) {
        log(kPrioError, req, __LINE__, "Allocating Memory Ctx[%s]\n", "");
        return CORVANE_E_NOMEM;
    }
    const uint8_t* limit = bounded ? end : nullptr;
    const uint8_t* cursor = buffer;

    // Tag 0: the magic, taken as it comes; the receive function checks it.
    // Tag 1: 0, or 1 for the one message that writes 1; only the low 16 bits count.
    uint32_t magic = 0, word = 0;
    if ((!limit || limit - cursor >= static_cast<ptrdiff_t>(kEnvelopeBytes)) &&
        load64(cursor) == headerBytes(0, 4) && load64(cursor + 12) == headerBytes(1, 4)) {
        // The usual envelope, both words read at once.
        magic = loadBe32(cursor + 8);
        word = loadBe32(cursor + 20);
        cursor += kEnvelopeBytes;
    } else {
        uint32_t st = decodeWord(0, &magic, &cursor, limit, buffer, req);
        if (st == kMismatch)
            log(kPrioError, req, __LINE__, "pBody(%p): Type(%d) -> Error Before\n",
                static_cast<const void*>(buffer), 1);
        if (!st) st = decodeWord(1, &word, &cursor, limit, buffer, req);
        if (st) {
            std::free(b);
            return st == kOverrun ? CORVANE_E_ELEMENT : CORVANE_E_ENVELOPE;
        }
    }
    // Bytes from another process must not carry another message's magic (or
    // none) into a body: the receive function and freeBody would abort on it.
    // The bounded reader, the one for such bytes, refuses it here.
    if (bounded && magic != m.magic) {
        char label[kFnNameMax];
        log(kPrioError, req, __LINE__, "pBody(%p): Check Magic[%s-%X] magic(%X) refused\n",
            static_cast<const void*>(buffer), magicLabel(m).render(label, sizeof label), m.magic,
            magic);
        std::free(b);
        return CORVANE_E_ENVELOPE;
    }
    if ((word & 0xffff) != m.envelope) {
        std::free(b);
        return CORVANE_E_ENVELOPE;
    }
    std::memcpy(b, &magic, sizeof magic);  // ref stays 0

    const uint32_t st = decodeRecord(*m.payload, payloadOf(b), &cursor, limit, payloadWho(m, req));
    if (st) {
        std::free(b);
        return st;
    }
    *body = b;
    *size = m.bodySize;
    return CORVANE_OK;
}

void logBody(const Msg& m, char** text) {
    const FnName req = callbackName(m, Callback::kLog, true);
    if (!text) {
        log(kPrioError, req, __LINE__, "Invalid parameter\n");
        return;
    }
    // Bodies are never rendered as text: the caller gets an empty string to free.
    *text = static_cast<char*>(std::calloc(1, 1));
    if (!*text) log(kPrioError, req, __LINE__, "Allocating Memory N Ctx[%s]\n", "");
}

void receive(const Msg& m, void* ctx, void* body, CorVaneHandler handler, void* arg) {
    const FnName self = receiveName(m);
    if (!body) {
        log(kPrioError, self, __LINE__, "Ctx[NULL] text[%s]\n", "");
        return;
    }
    checkMagic(m, body, self);
    if (!handler) {
        quibCore_sendMsgRes(ctx, body, kRespondNoHandler, kPriority);
        return;
    }
    handler(ctx, arg, payloadOf(body));
}

namespace {

// A new body holding a copy of the payload; null when out of memory (logged).
void* newBody(const Msg& m, const FnName& sender, const void* payload) {
    void* body = zeroedBlock(m.bodySize);
    if (!body) {
        log(kPrioError, sender, __LINE__, "Allocating Memory Ctx[%s]\n", "");
        return nullptr;
    }
    std::memcpy(body, &m.magic, sizeof m.magic);
    // A failed copy is logged and the body is sent all the same.
    if (api::copy(*m.payload, payloadOf(body), payload) != 0)
        log(kPrioError, sender, __LINE__, "Copy %s failed\n", m.payload->name);
    return body;
}

}  // namespace

uint32_t sendCommand(const Msg& m, void* user, void* arg, const char* userName,
                     const void* payload) {
    const FnName self = roleName(m, "corVane_sendReq_", "");
    if (!userName) {
        log(kPrioError, self, __LINE__, "user(%p): UserName Null\n", user);
        return 0;
    }
    void* body = newBody(m, self, payload);
    if (!body) return 0;
    return quibCore_sendMsgReq_toNameUser(quibIntf_getCore_user(user), body, 0, 0, 0, arg,
                                          userName, corVane_base.cmd.num, m.index, kAll,
                                          kPriority);
}

void sendNotification(const Msg& m, void* user, void* dest1, void* dest2, const void* payload) {
    void* body = newBody(m, roleName(m, "", "corVane_sendReq_ntfy"), payload);
    if (!body) return;
    quibIntf_sendReq_ntfy(user, body, 0, 0, 0, dest1, dest2, corVane_base.name,
                          corVane_base.ntfy.num, m.index, 0, 0, kPriority);
}

uint32_t registerServer(const Msg& m, void* user, void* a, void* b, void* c) {
    const uint32_t r = quibIntf_modSrv_mthd(user, a, b, c, m.key, corVane_base.name,
                                            &corVane_base.cmd, &corVane_base.ntfy, m.index, kAll,
                                            kAll);
    // The server registration logs the same wording as the subscription.
    if (r)
        log(kPrioError, FnName{"corVane_modSrv_recvMsg_", m.name, "", FnName::Case::kLowerFirst},
            __LINE__, "user(%p): ModCliNtfyUser failed(%d)\n", user, static_cast<int>(r));
    return r;
}

uint32_t subscribe(const Msg& m, void* user, void* a, void* b, void* c, const char* busName,
                   const char* userName) {
    const uint32_t r = quibIntf_modCliNtfyUser_mthd(user, a, b, c, m.key, busName, userName,
                                                    corVane_base.name, &corVane_base.cmd,
                                                    &corVane_base.ntfy, m.index);
    if (r)
        log(kPrioError,
            FnName{"corVane_modCliNtfyUser_recvMsg_", m.name, "", FnName::Case::kLowerFirst},
            __LINE__, "user(%p) bus name(%s) user name(%p): ModCliNtfyUser\n", user,
            busName ? busName : "(null)", static_cast<const void*>(userName));
    return r;
}

uint32_t registerNeedUpdate(const Msg& m, void* user, void* a, void* b, void* c) {
    const uint32_t r = quibIntf_modSrv_ntfy_needUpdate(user, a, b, c, corVane_base.name,
                                                       &corVane_base.cmd, &corVane_base.ntfy,
                                                       m.index);
    if (r)
        log(kPrioError,
            FnName{"corVane_modSrv_needUpdate_ntfy", m.name, "", FnName::Case::kAsIs}, __LINE__,
            "user(%p): ModSrv failed(%d)\n", user, static_cast<int>(r));
    return r;
}

}  // namespace cv::msg
