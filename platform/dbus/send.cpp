// Sending: a command is a method call that waits for its "u" answer within
// the timeout; a notification is a signal to each of its subscribers
// (delivery.cpp), sent without waiting.
//
// The user's queue: sd-bus keeps what the socket does not take at once, and
// without a bound it grows for as long as the bus does not read (242 MB
// were measured in a sender of 200,000 notifications in one turn of its
// loop). A send fails at once with QUIB_DBUS_E_QUEUE_FULL when sd-bus
// already holds QUIB_DBUS_QUEUE_MESSAGES messages or QUIB_DBUS_QUEUE_BYTES
// bytes of the user's (one always fits). sd-bus tells how many messages it
// holds; their bytes are those of the user's latest sends, as the queue is
// first in, first out (a message sd-bus sent on its own, an answer to
// Introspect or Ping, counts as one of the user's: the estimate errs high).

#include "internal.h"

#include <syslog.h>

#include <cstdlib>
#include <cstring>

namespace quibdbus {
namespace {

// What a message adds to its body: the header (path, interface, member,
// destination, signature), as an upper bound.
constexpr uint32_t kHeaderBytes = 256;

uint32_t awayStatus()
{
    return exitOnLoss() ? QUIB_DBUS_E_DISCONNECTED : QUIB_DBUS_E_AWAY;
}

// Logs a full queue once until it has room again.
void queueFull(User *u, const char *what)
{
    if (u->queueFullLogged)
        return;
    u->queueFullLogged = true;
    uint64_t n = 0;
    sd_bus_get_n_queued_write(u->bus, &n);
    uint64_t bytes = 0;
    for (uint32_t b : u->queued)
        bytes += b;
    logLine(LOG_WARNING,
            "user %s: its queue to the bus is full (%llu messages, about %llu bytes): %s fails "
            "with queue full until the bus has read more",
            u->name.c_str(), static_cast<unsigned long long>(n),
            static_cast<unsigned long long>(bytes), what);
}

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

bool queueHasRoom(User *u, uint32_t bytes)
{
    uint64_t n = 0;
    if (u->bus == nullptr || sd_bus_get_n_queued_write(u->bus, &n) < 0)
        return true;
    while (u->queued.size() > n) {
        u->queuedBytes -= u->queued.front();
        u->queued.pop_front();
    }
    const bool room = n == 0 || (n < QUIB_DBUS_QUEUE_MESSAGES &&
                                 u->queuedBytes + bytes + kHeaderBytes <= QUIB_DBUS_QUEUE_BYTES);
    if (room && n < QUIB_DBUS_QUEUE_MESSAGES / 2)
        u->queueFullLogged = false;
    return room;
}

int sendQueued(User *u, sd_bus_message *m, uint32_t bytes)
{
    const int r = sd_bus_send(u->bus, m, nullptr);
    if (r >= 0) {
        u->queued.push_back(bytes + kHeaderBytes);
        u->queuedBytes += bytes + kHeaderBytes;
    }
    return r;
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
    if (!onBus(u)) {
        std::free(buf);
        return awayStatus();
    }
    if (!queueHasRoom(u, len)) {
        std::free(buf);
        queueFull(u, "a command");
        return QUIB_DBUS_E_QUEUE_FULL;
    }
    talksTo(u, dest);
    announceTo(u, dest);
    ++u->counters.commands;
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
    if (r < 0 && sd_bus_is_open(u->bus) <= 0)
        lostConnection(u);
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    sd_bus_message_unref(m);
    return status;
}

uint32_t sendNotification(User *u, void *body, uint16_t num, uint16_t method, const char *toUser)
{
    QuibDbusSendReport &report = u->last;
    const Row row = rowOf(num, method);
    uint8_t *buf = nullptr;
    uint32_t len = 0;
    if (uint32_t rc = takeAndSerialize(row, body, &buf, &len); rc != 0)
        return rc;
    char to[kMaxBusName + 1];
    if (toUser != nullptr && quibDbus_busName(toUser, to, sizeof to) != 0) {
        std::free(buf);
        return QUIB_DBUS_E_NO_SERVER;
    }
    if (!onBus(u)) {
        std::free(buf);
        return awayStatus();
    }
    track(u, true);
    const std::vector<Peer *> subscribers =
        subscribersOf(u, row.table->intf, row.name, toUser != nullptr ? to : nullptr);
    report.subscribers = static_cast<uint32_t>(subscribers.size());
    uint32_t status = toUser != nullptr && subscribers.empty() ? QUIB_DBUS_E_NO_SERVER : 0;
    const Method which{num, method};
    for (Peer *p : subscribers) {
        if (!windowTakes(u, *p, len, which)) {
            ++report.queueFull;
            continue;
        }
        if (!queueHasRoom(u, len)) {
            queueFull(u, "a notification");
            skippedForQueue(u, *p, which);
            ++report.queueFull;
            continue;
        }
        sd_bus_message *m = nullptr;
        int r = newMessage(u, row, nullptr, buf, len, &m);
        if (r >= 0)
            r = sd_bus_message_set_destination(m, p->unique.c_str());
        if (r >= 0)
            r = sendQueued(u, m, len);
        sd_bus_message_unref(m);
        if (r >= 0) {
            sentTo(*p, len);
            ++report.sent;
            continue;
        }
        ++report.failed;
        if (status == 0)
            status = statusOfError(nullptr, r);
        logError("%s from %s to %s: %s (0x%x)", row.name, u->name.c_str(), p->unique.c_str(),
                 quibDbus_strerror(status), status);
        if (sd_bus_is_open(u->bus) <= 0) {
            lostConnection(u);
            break;
        }
    }
    std::free(buf);
    u->counters.notifications += report.sent;
    u->counters.queueFull += report.queueFull;
    u->counters.failed += report.failed;
    if (status == 0 && report.queueFull != 0)
        status = QUIB_DBUS_E_QUEUE_FULL;
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
        u->last = QuibDbusSendReport{};
        const uint32_t status = sendCommand(u, body, userName, num, method);
        u->last.status = status;
        u->last.sent = status != QUIB_DBUS_E_AWAY && status != QUIB_DBUS_E_QUEUE_FULL;
        u->last.queueFull = status == QUIB_DBUS_E_QUEUE_FULL;
        if (status != 0 && status != QUIB_DBUS_E_QUEUE_FULL)
            ++u->counters.failed;
        return u->lastStatus = status;
    });
}

uint32_t quibIntf_sendReq_ntfy(void *user, void *body, uint32_t, uint32_t, uint32_t, void *,
                               void *toUser, const char *, uint16_t num, uint16_t method, uint32_t,
                               uint32_t, uint32_t)
{
    return guarded<uint32_t>(CORVANE_E_NOMEM, [&]() -> uint32_t {
        User *u = userOf(user);
        if (u == nullptr) {
            releaseBody(rowOf(num, method).freeBody, body);
            return QUIB_DBUS_E_USER;
        }
        u->last = QuibDbusSendReport{};
        const uint32_t status =
            sendNotification(u, body, num, method, static_cast<const char *>(toUser));
        u->last.status = status;
        return u->lastStatus = status;
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

int quibDbus_lastSend(void *user, QuibDbusSendReport *report)
{
    const User *u = userOf(user);
    if (u == nullptr || report == nullptr)
        return -1;
    *report = u->last;
    return 0;
}

int quibDbus_counters(void *user, QuibDbusCounters *counters)
{
    const User *u = userOf(user);
    if (u == nullptr || counters == nullptr)
        return -1;
    *counters = u->counters;
    return 0;
}

}  // extern "C"
