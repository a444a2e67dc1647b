// Sending: a command is a method call that waits for its "u" answer within
// the timeout; a notification is a signal, sent without waiting.

#include "internal.h"

#include <cstdlib>
#include <cstring>

namespace quibdbus {
namespace {

// Takes the body over and serialises it; on 0 the caller frees *buf.
uint32_t takeAndSerialize(const Row &row, void *body, uint8_t **buf, uint32_t *len)
{
    if (row.table == nullptr || row.name == nullptr || row.serialize == nullptr) {
        releaseBody(row.freeBody, body);
        return QUIB_DBUS_E_NO_TABLE;
    }
    *buf = nullptr;
    *len = 0;
    const uint32_t rc = row.serialize(CORVANE_BODY_REQUEST, body, buf, len);
    releaseBody(row.freeBody, body);
    if (rc != 0 || (*buf == nullptr && *len != 0))
        return QUIB_DBUS_E_SERIALIZE;
    return 0;
}

// The message that carries the bytes, with its one "ay" argument.
int newMessage(User *u, const Row &row, const char *dest, const uint8_t *buf, uint32_t len,
               sd_bus_message **m)
{
    int r = dest != nullptr ? sd_bus_message_new_method_call(u->bus, m, dest, row.table->path.c_str(),
                                                             row.table->intf.c_str(), row.name)
                            : sd_bus_message_new_signal(u->bus, m, row.table->path.c_str(),
                                                        row.table->intf.c_str(), row.name);
    if (r >= 0)
        r = sd_bus_message_append_array(*m, 'y', buf != nullptr ? buf : reinterpret_cast<const uint8_t *>(""), len);
    return r;
}

}  // namespace

uint32_t timeoutMs()
{
    State &s = st();
    if (s.timeoutMs != 0)
        return s.timeoutMs;
    if (const char *env = std::getenv("CORVANE_BUS_TIMEOUT_MS")) {
        char *end = nullptr;
        const unsigned long ms = std::strtoul(env, &end, 10);
        if (end != env && *end == '\0' && ms > 0 && ms <= UINT32_MAX)
            return static_cast<uint32_t>(ms);
    }
    return QUIB_DBUS_TIMEOUT_MS;
}

uint32_t sendCommand(User *u, void *body, const char *userName, uint16_t num, uint16_t method)
{
    const Row row = rowOf(num, method);
    uint8_t *buf = nullptr;
    uint32_t len = 0;
    if (uint32_t rc = takeAndSerialize(row, body, &buf, &len); rc != 0)
        return rc;
    char dest[kMaxBusName + 1];
    if (userName == nullptr || quibDbus_busName(userName, dest, sizeof dest) != 0) {
        std::free(buf);
        return QUIB_DBUS_E_NO_SERVER;
    }
    talksTo(u, dest);
    sd_bus_message *m = nullptr, *reply = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    int r = newMessage(u, row, dest, buf, len, &m);
    std::free(buf);
    if (r >= 0)
        r = sd_bus_call(u->bus, m, uint64_t{timeoutMs()} * 1000, &error, &reply);
    uint32_t status = 0;
    if (r < 0)
        status = statusOfError(&error, r);
    else if (sd_bus_message_read(reply, "u", &status) < 0)
        status = QUIB_DBUS_E_BUS;
    if (r < 0)
        logError("%s from %s to %s: %s (0x%x)%s%s", row.name, u->name.c_str(), userName,
                 quibDbus_strerror(status), status, error.message != nullptr ? ": " : "",
                 error.message != nullptr ? error.message : "");
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    sd_bus_message_unref(m);
    return status;
}

uint32_t sendNotification(User *u, void *body, uint16_t num, uint16_t method)
{
    const Row row = rowOf(num, method);
    uint8_t *buf = nullptr;
    uint32_t len = 0;
    if (uint32_t rc = takeAndSerialize(row, body, &buf, &len); rc != 0)
        return rc;
    sd_bus_message *m = nullptr;
    int r = newMessage(u, row, nullptr, buf, len, &m);
    std::free(buf);
    if (r >= 0)
        r = sd_bus_send(u->bus, m, nullptr);
    sd_bus_message_unref(m);
    if (r >= 0)
        return 0;
    const uint32_t status = statusOfError(nullptr, r);
    logError("%s from %s: %s (0x%x)", row.name, u->name.c_str(), quibDbus_strerror(status), status);
    return status;
}

}  // namespace quibdbus

using namespace quibdbus;

extern "C" {

uint32_t quibCore_sendMsgReq_toNameUser(void *coreUser, void *body, uint32_t, uint32_t, uint32_t,
                                        void *, const char *userName, uint16_t num,
                                        uint16_t method, uint16_t, uint32_t)
{
    return guarded<uint32_t>(CORVANE_E_NOMEM, [&]() -> uint32_t {
        User *u = userOf(coreUser);
        if (u == nullptr) {
            releaseBody(rowOf(num, method).freeBody, body);
            return QUIB_DBUS_E_USER;
        }
        return u->lastStatus = sendCommand(u, body, userName, num, method);
    });
}

uint32_t quibIntf_sendReq_ntfy(void *user, void *body, uint32_t, uint32_t, uint32_t, void *,
                               void *, const char *, uint16_t num, uint16_t method, uint32_t,
                               uint32_t, uint32_t)
{
    return guarded<uint32_t>(CORVANE_E_NOMEM, [&]() -> uint32_t {
        User *u = userOf(user);
        if (u == nullptr) {
            releaseBody(rowOf(num, method).freeBody, body);
            return QUIB_DBUS_E_USER;
        }
        return u->lastStatus = sendNotification(u, body, num, method);
    });
}

void quibDbus_setTimeout(uint32_t ms)
{
    st().timeoutMs = ms;
}

uint32_t quibDbus_timeout(void)
{
    return timeoutMs();
}

uint32_t quibDbus_lastStatus(void *user)
{
    const User *u = userOf(user);
    return u != nullptr ? u->lastStatus : 0;
}

}  // extern "C"
