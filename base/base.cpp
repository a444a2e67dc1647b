// The descriptor object corVane_base, start-up and shut-down of the interface
// inside the middleware, and user registration.
#include "corvane/base.h"

#include <cstdlib>

#include "base/log.h"
#include "corvane/messages.h"
#include "quib.h"
#include "ranq.h"

using cv::kPrioError;
using cv::kPrioFatal;
using cv::kPrioWarning;
using cv::log;

// ---- the descriptor object ----------------------------------------------------

#define CV_COMMAND_METHOD_(index, Name, name, NAME, magic, key, env, P, shape)                     \
    {corVane_recvReq_##name,                                                                       \
     nullptr,                                                                                      \
     #Name,                                                                                        \
     corVane_cbEvtMsgMngt_freeBody_msgCmd_##name,                                                  \
     corVane_cbEvtMsgMngt_serializeBody_msgCmd_##name,                                             \
     corVane_cbEvtMsgMngt_unserializeBody_msgCmd_##name,                                           \
     corVane_cbEvtMsgMngt_logBody_msgCmd_##name,                                                   \
     index},
#define CV_NOTIFICATION_METHOD_(index, Name, name, NAME, magic, key, nu, P, shape)                 \
    {corVane_recvReq_ntfy##Name,                                                                   \
     nullptr,                                                                                      \
     #Name,                                                                                        \
     corVane_cbEvtMsgMngt_freeBody_msgNtfy_##name,                                                 \
     corVane_cbEvtMsgMngt_serializeBody_msgNtfy_##name,                                            \
     corVane_cbEvtMsgMngt_unserializeBody_msgNtfy_##name,                                          \
     corVane_cbEvtMsgMngt_logBody_msgNtfy_##name,                                                  \
     index},

extern "C" {
constinit CorVaneBase corVane_base = {
    CORVANE_MAGIC_BASE,
    "CorVane",
    {CORVANE_MAGIC_INTF_CMD, "CorVaneCmd", corVane_cbEvtMsgMngt_unreg_msgCmd, CORVANE_NUM_NONE,
     CORVANE_CMD_COUNT, {CORVANE_COMMANDS(CV_COMMAND_METHOD_)}},
    {CORVANE_MAGIC_INTF_NTFY, "CorVaneNtfy", corVane_cbEvtMsgMngt_unreg_msgNtfy, CORVANE_NUM_NONE,
     CORVANE_NTFY_COUNT, {CORVANE_NOTIFICATIONS(CV_NOTIFICATION_METHOD_)}},
    0,
    CORVANE_STATE_BASE_WAIT_INIT,
    0,
};
}

static_assert(offsetof(CorVaneCmdIntfDesc, methods) == offsetof(CorVaneNtfyIntfDesc, methods),
              "both interfaces place their methods at the same offset");

namespace {

constexpr uint16_t kAll = 0xffff;

// One interface of the base, with what its messages need to be told apart.
struct Interface {
    const char* name;
    CorVaneUnregFn unreg;
    uint16_t* num;             // corVane_base.cmd.num or .ntfy.num
    uint16_t count;
    const CorVaneMethod* methods;
    uint8_t flag;
    const char* flagLabel;
    const char* addFailed;     // "Add ... message management failed"
    const char* putFailed;     // "Put ... message management(%u) failed(%d)"
};

Interface commands() {
    CorVaneCmdIntfDesc& d = corVane_base.cmd;
    return {d.name, d.unreg, &d.num, d.count, d.methods,
            CORVANE_FLAGS_BASE_REG_CMD, "CORVANE_FLAGS_BASE_REG_CMD",
            "Add command message management failed\n",
            "Put command message management(%u) failed(%d)\n"};
}

Interface notifications() {
    CorVaneNtfyIntfDesc& d = corVane_base.ntfy;
    return {d.name, d.unreg, &d.num, d.count, d.methods,
            CORVANE_FLAGS_BASE_REG_NTFY, "CORVANE_FLAGS_BASE_REG_NTFY",
            "Add notification message management failed\n",
            "Put notification message management(%u) failed(%d)\n"};
}

bool checkState(const char* fn, uint8_t expected, const char* label) {
    if (corVane_base.state == expected) return true;
    log(kPrioError, fn, __LINE__, "Check State[%s-%X] Ctx[ptr(%p) state(%X)] text[%s]\n", label,
        expected, static_cast<void*>(&corVane_base), corVane_base.state, "");
    return false;
}

void setState(const char* fn, uint8_t state, const char* label) {
    if (corVane_base.state == state)
        log(kPrioWarning, fn, __LINE__, "Set State[%s-%d] in ctx(%p) already set\n", label, state,
            static_cast<void*>(&corVane_base));
    corVane_base.state = state;
}

void setFlag(const char* fn, const Interface& in) {
    if (corVane_base.flags & in.flag)
        log(kPrioWarning, fn, __LINE__, "Set Flag[%s-%X] in ctx(%p) already set[%X] text[%s]\n",
            in.flagLabel, in.flag, static_cast<void*>(&corVane_base), corVane_base.flags, "");
    corVane_base.flags = static_cast<uint8_t>(corVane_base.flags | in.flag);
}

void unsetFlag(const char* fn, const Interface& in) {
    if (!(corVane_base.flags & in.flag))
        log(kPrioWarning, fn, __LINE__, "Unset Flag[%s-%X] in ctx(%p) not set[%X] text[%s]\n",
            in.flagLabel, in.flag, static_cast<void*>(&corVane_base), corVane_base.flags, "");
    corVane_base.flags = static_cast<uint8_t>(corVane_base.flags & ~in.flag);
}

// Asks the middleware for the interface's table and fills it from the method
// entries: six words a method (the receive function and the index stay here).
uint32_t addInterface(const char* fn, const Interface& in) {
    if (in.count == 0) return CORVANE_OK;
    QuibMsgMngtTable* table = nullptr;
    *in.num = quibCore_getBase_msgMngt(in.name, &table, in.count);
    if (*in.num == CORVANE_NUM_NONE || !table) {
        log(kPrioError, fn, __LINE__, "%s", in.addFailed);
        return CORVANE_E_NOT_PROCESSED;
    }
    table->name = in.name;
    table->unreg = reinterpret_cast<QuibFn>(in.unreg);
    QuibMsgMngtRow* rows = quib_tableRows(table);
    for (uint16_t i = 0; i < in.count; ++i) {
        const CorVaneMethod& m = in.methods[i];
        rows[i] = {reinterpret_cast<QuibFn>(m.recvRes), m.name,
                   reinterpret_cast<QuibFn>(m.freeBody), reinterpret_cast<QuibFn>(m.serializeBody),
                   reinterpret_cast<QuibFn>(m.unserializeBody), reinterpret_cast<QuibFn>(m.logBody)};
    }
    setFlag(fn, in);
    return CORVANE_OK;
}

uint32_t putInterface(const char* fn, const Interface& in) {
    if (!(corVane_base.flags & in.flag)) return CORVANE_OK;
    const uint32_t r = quibCore_putBase_msgMngt(*in.num, 0);
    if (r) {
        // The number printed is the notification interface's for both
        // interfaces; the line has always read so.
        log(kPrioError, fn, __LINE__, in.putFailed, corVane_base.ntfy.num, static_cast<int>(r));
        return r;
    }
    *in.num = CORVANE_NUM_NONE;
    unsetFlag(fn, in);
    return CORVANE_OK;
}

void unregister(const char* fn, const Interface& in, uint16_t num) {
    if (num != *in.num) {
        log(kPrioError, fn, __LINE__, "Message management(%d) unknown\n", num);
        return;
    }
    unsetFlag(fn, in);  // the number itself stays as it was
}

// The interfaces a selector names, in the order they are registered.
int selected(uint32_t selector, Interface out[2]) {
    switch (selector) {
        case CORVANE_SELECT_BOTH:
            out[0] = commands();
            out[1] = notifications();
            return 2;
        case CORVANE_SELECT_CMD:
            out[0] = commands();
            return 1;
        case CORVANE_SELECT_NTFY:
            out[0] = notifications();
            return 1;
        default:
            return 0;
    }
}

}  // namespace

extern "C" uint32_t corvane_initialize(void) {
    const uint32_t r = corVane_addBase();
    if (r) log(kPrioError, __func__, __LINE__, "Add Base failed(%d)\n", static_cast<int>(r));
    return r;
}

extern "C" uint32_t corVane_addBase(void) {
    if (corVane_base.magic != CORVANE_MAGIC_BASE) {
        log(kPrioFatal, __func__, __LINE__, "Magic[%s-%X] Ctx[ptr(%p) magic(%X)] text[%s]\n",
            "CORVANE_MAGIC_BASE", CORVANE_MAGIC_BASE, static_cast<void*>(&corVane_base),
            corVane_base.magic, "");
        std::abort();
    }
    if (!checkState(__func__, CORVANE_STATE_BASE_WAIT_INIT, "CORVANE_STATE_BASE_WAIT_INIT"))
        return CORVANE_E_STATE;
    corVane_base.flags = 0;
    // What is won here stays registered if a later step fails, so that a
    // second call asks the middleware again.
    if (const uint32_t r = addInterface(__func__, commands())) return r;
    if (const uint32_t r = addInterface(__func__, notifications())) return r;
    if (const uint32_t r = ranq_addEvtBase(corVane_cbEvtBase, &corVane_base)) {
        log(kPrioError, __func__, __LINE__, "Add event base failed(%d)\n", static_cast<int>(r));
        return r;
    }
    setState(__func__, CORVANE_STATE_BASE_INIT, "CORVANE_STATE_BASE_INIT");
    return CORVANE_OK;
}

extern "C" uint32_t corVane_delBase(void) {
    if (!checkState(__func__, CORVANE_STATE_BASE_INIT, "CORVANE_STATE_BASE_INIT"))
        return CORVANE_E_STATE;
    if (const uint32_t r = putInterface(__func__, commands())) return r;
    if (const uint32_t r = putInterface(__func__, notifications())) return r;
    setState(__func__, CORVANE_STATE_BASE_WAIT_INIT, "CORVANE_STATE_BASE_WAIT_INIT");
    return CORVANE_OK;
}

extern "C" void corVane_cbEvtBase(void*, int32_t event) {
    if (event != 0) {
        log(kPrioError, __func__, __LINE__, "Unknown event(%d)\n", static_cast<int>(event));
        return;
    }
    if (corVane_delBase() != CORVANE_OK) log(kPrioError, __func__, __LINE__, "Delete Base\n");
}

extern "C" void corVane_cbEvtMsgError(void) {}

extern "C" void corVane_cbEvtMsgMngt_unreg_msgCmd(uint16_t num) {
    unregister(__func__, commands(), num);
}

extern "C" void corVane_cbEvtMsgMngt_unreg_msgNtfy(uint16_t num) {
    unregister(__func__, notifications(), num);
}

extern "C" void corVane_modDebug(uint32_t level) { corVane_base.debug = level; }

extern "C" uint32_t corVane_regUser_msgMngt(void* user, void* arg, void* ref, uint32_t selector) {
    Interface ins[2];
    const int n = selected(selector, ins);
    for (int i = 0; i < n; ++i) {
        if (*ins[i].num == CORVANE_NUM_NONE) continue;  // not set up
        const uint32_t r = quibIntf_regUser_msgMngt(user, arg, ref, *ins[i].num, kAll, 0);
        if (r) {
            // The number printed is the command interface's, whichever failed.
            log(kPrioError, __func__, __LINE__,
                "user(%p): regUser message management failed(%d) -> num(%d) ref(%p)\n", user,
                static_cast<int>(r), corVane_base.cmd.num, ref);
            return r;
        }
    }
    return CORVANE_OK;
}

extern "C" uint32_t corVane_unregUser_msgMngt(void* user, uint32_t selector) {
    Interface ins[2];
    const int n = selected(selector, ins);
    for (int i = 0; i < n; ++i) {
        if (*ins[i].num == CORVANE_NUM_NONE) continue;
        const uint32_t r = quibIntf_unregUser_msgMngt(user, *ins[i].num, kAll, 0);
        if (r) {
            log(kPrioError, __func__, __LINE__,
                "user(%p): unregUser message management failed(%d) -> num(%d)\n", user,
                static_cast<int>(r), *ins[i].num);
            return r;
        }
    }
    return CORVANE_OK;
}

extern "C" void* corVane_findSrvMthdNtfyUser(void* a, void* b, uint16_t method, void* d) {
    return quibIntf_findSrvMthdNtfyUser(a, b, corVane_base.name, method, d);
}

extern "C" uint16_t corVane_getCmdIntfNum(void) { return corVane_base.cmd.num; }

extern "C" uint16_t corVane_getNtfyIntfNum(void) { return corVane_base.ntfy.num; }
