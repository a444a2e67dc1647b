// Receiving: a command or a notification is rebuilt with the bounded
// decoder, handed to the method's receive function with the registered
// handler, and released; a command is answered with the status the server
// gave.

#include "internal.h"

#include <errno.h>

#include <cstring>

namespace quibdbus {
namespace {

// Rebuilds the body from the message's bytes with the bounded decoder, calls
// the receive function with the registered handler and releases the body.
// Returns the answer: the decoder's status when it refused the bytes, else
// the status given through quibCore_sendMsgRes, else 0.
uint32_t deliver(const Registration &reg, sd_bus_message *m)
{
    const char *member = sd_bus_message_get_member(m);
    const CorVaneMessageInfo *info = corVane_messageByName(member);
    const Row row = rowOf(reg.num, reg.method);
    if (info == nullptr || info->index != reg.method || row.name == nullptr ||
        std::strcmp(row.name, member) != 0)
        return QUIB_DBUS_E_NO_TABLE;
    const void *bytes = nullptr;
    size_t length = 0;
    if (sd_bus_message_read_array(m, 'y', &bytes, &length) < 0)
        return CORVANE_E_ELEMENT;
    static const uint8_t kEmpty[1] = {0};
    void *body = nullptr;
    uint32_t size = 0;
    const uint32_t status = corVane_unserializeBody_bounded(
        info, CORVANE_BODY_REQUEST, bytes != nullptr ? static_cast<const uint8_t *>(bytes) : kEmpty,
        length, &body, &size);
    if (status != 0) {
        logError("%s from %s refused: status %u (%s)", member, sd_bus_message_get_sender(m),
                 status, quibDbus_strerror(status));
        return status;
    }
    // Copied: a handler may register again, which replaces reg in place.
    const CorVaneHandler handler = reg.handler;
    void *const arg = reg.arg;
    const CorVaneRecvFn recv = corVane_intfMethods(reg.desc)[reg.method].recv;
    MsgCtx ctx{reg.num, reg.method, reg.user, m, false, 0, st().live};
    st().live = &ctx;
    if (recv != nullptr)
        recv(&ctx, body, handler, arg);
    for (MsgCtx **p = &st().live; *p != nullptr; p = &(*p)->next) {
        if (*p == &ctx) {
            *p = ctx.next;
            break;
        }
    }
    releaseBody(row.freeBody, body);
    return ctx.answered ? ctx.status : 0;
}

}  // namespace

bool isLive(const MsgCtx *ctx)
{
    for (const MsgCtx *c = st().live; c != nullptr; c = c->next)
        if (c == ctx)
            return true;
    return false;
}

int onMethodCall(sd_bus_message *m, void *userdata, sd_bus_error *error)
{
    return guarded<int>(-ENOMEM, [&]() -> int {
        const Served *served = static_cast<const Served *>(userdata);
        if (int r = answerIntrospection(m, *served, error); r != 0)
            return r;
        const Table *table = tableNamed(served->table);
        const char *intf = sd_bus_message_get_interface(m);
        const char *member = sd_bus_message_get_member(m);
        if (table == nullptr || intf == nullptr || member == nullptr || table->intf != intf)
            return 0;  // not ours: sd-bus answers that the method is unknown
        const uint16_t num = numOf(table);
        Registration *reg = nullptr;
        for (uint16_t i = 0; i < table->count && reg == nullptr; ++i) {
            const char *name = quib_tableRows(table->words)[i].name;
            if (name != nullptr && std::strcmp(name, member) == 0)
                reg = findReg(st().servers, served->user, num, i);
        }
        if (reg == nullptr)
            return sd_bus_error_setf(error, SD_BUS_ERROR_UNKNOWN_METHOD,
                                     "%s serves no method %s", served->user->name.c_str(), member);
        if (!sd_bus_message_has_signature(m, "ay"))
            return sd_bus_error_setf(error, SD_BUS_ERROR_INVALID_ARGS,
                                     "%s takes one argument \"ay\"", member);
        const uint32_t answer = deliver(*reg, m);
        return sd_bus_reply_method_return(m, "u", answer);
    });
}

int onSignal(sd_bus_message *m, void *userdata, sd_bus_error *)
{
    return guarded<int>(0, [&]() -> int {
        const Registration *reg = static_cast<const Registration *>(userdata);
        if (!senderIsUser(reg->user, m))
            return 0;
        if (!sd_bus_message_has_signature(m, "ay")) {
            logError("%s from %s dropped: signature \"%s\", not \"ay\"",
                     sd_bus_message_get_member(m), sd_bus_message_get_sender(m),
                     sd_bus_message_get_signature(m, 1));
            return 0;
        }
        deliver(*reg, m);
        return 0;
    });
}

}  // namespace quibdbus

using namespace quibdbus;

extern "C" {

uint32_t quibCore_sendMsgRes(void *ctx, void *, uint32_t status, uint32_t)
{
    auto *c = static_cast<MsgCtx *>(ctx);
    if (!isLive(c))
        return QUIB_DBUS_E_USER;
    c->answered = true;
    c->status = status;
    return 0;
}

}  // extern "C"
