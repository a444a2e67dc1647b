// Users: each one bus connection that owns the user's well-known name,
// attached to the event loop; their registration with the library's
// interfaces; and the connection made again when it is lost.
//
// A user's registrations are data (servers, subscribers, needs for updates,
// the objects it serves), not only slots on its sd_bus: when the connection
// is lost the slots go with it, and a new connection gets them all again.
// While away, sends fail at once with QUIB_DBUS_E_AWAY; the middleware tries
// again from the event loop after 50 ms, then doubling up to every 500 ms
// (so a user is back at most about half a second after its bus is), and on
// a send that finds an attempt due (a process that never runs the loop gets
// back too). Each attempt is synchronous: connect, Hello, RequestName, then
// the registrations; a bus that is not there fails at connect(), at once.
// Under ranqDbus_exitOnBusLoss(1) nothing is tried: the loop returns
// -ENOTCONN, as it always did.

#include "internal.h"

#include <errno.h>
#include <syslog.h>
#include <time.h>

#include <algorithm>
#include <cstring>

namespace quibdbus {
namespace {

constexpr uint32_t kFirstRetryMs = 50;
constexpr uint32_t kMaxRetryMs = 500;

// Tells the process, from the event loop, how its user's connection is.
void tell(User *u, uint32_t status)
{
    later([u, status] {
        User *live = userOf(u);
        if (live != nullptr && live->onBus != nullptr)
            live->onBus(live, status, live->onBusArg);
    });
}

// Sees every message of a user's connection first: the one sd-bus makes up
// when the connection closes, and each notification sent to this
// connection alone, which it acknowledges to its sender (delivery.cpp).
int onFilter(sd_bus_message *m, void *userdata, sd_bus_error *)
{
    return guarded<int>(0, [&]() -> int {
        User *u = static_cast<User *>(userdata);
        if (sd_bus_message_is_signal(m, "org.freedesktop.DBus.Local", "Disconnected"))
            lostConnection(u);
        else
            readFrom(u, m);
        return 0;
    });
}

}  // namespace

int startClient(const User *u, uint64_t timeoutUs, sd_bus **bus)
{
    sd_bus *b = nullptr;
    int r = sd_bus_new(&b);
    if (r >= 0)
        r = sd_bus_set_address(b, u->address.c_str());
    if (r >= 0)
        r = sd_bus_set_bus_client(b, 1);
    if (r >= 0)
        r = sd_bus_set_method_call_timeout(b, timeoutUs);
    if (r >= 0)
        r = sd_bus_start(b);
    *bus = r >= 0 ? b : sd_bus_unref(b);
    return r;
}

namespace {

// Drops everything tied to the user's connection and closes it; the
// registrations stay, as data.
void release(User *u)
{
    if (u->bus == nullptr)
        return;
    unwatchPeers(u);
    stopDelivery(u);
    releaseRegistrations(u);
    u->filter = sd_bus_slot_unref(u->filter);
    u->queued.clear();
    u->queuedBytes = 0;
    sd_bus_detach_event(u->bus);
    u->bus = sd_bus_flush_close_unref(u->bus);
}

// Opens a connection for the user, takes its name and restores what the
// user had on the bus. 0, or the status of the step that failed (the
// connection is then closed again).
uint32_t open(User *u)
{
    sd_event *event = loopEvent();
    if (event == nullptr)
        return QUIB_DBUS_E_NO_BUS;
    sd_bus *bus = nullptr;
    int r = startClient(u, uint64_t{timeoutMs()} * 1000, &bus);
    if (r < 0) {
        if (!u->away)
            logError("user %s: cannot reach the bus at %s: %s", u->name.c_str(),
                     u->address.c_str(), strerror(-r));
        return QUIB_DBUS_E_NO_BUS;
    }
    u->bus = bus;
    // Flags 0: not queued behind another owner (the call fails instead),
    // and not replaceable by one that asks to replace it.
    r = sd_bus_request_name(bus, u->busName.c_str(), 0);
    if (r < 0) {
        uint32_t status = r == -EEXIST || r == -EALREADY ? QUIB_DBUS_E_NAME_TAKEN
                                                         : statusOfError(nullptr, r);
        if (status == QUIB_DBUS_E_DISCONNECTED)
            status = QUIB_DBUS_E_NO_BUS;
        // A refusal is logged once per kind while away.
        if (!u->away || status != u->refusedWith) {
            if (status == QUIB_DBUS_E_NAME_TAKEN)
                logOwner(u, u->busName.c_str());
            else if (status != QUIB_DBUS_E_NO_BUS)
                logError("user %s: cannot own %s: %s", u->name.c_str(), u->busName.c_str(),
                         strerror(-r));
        }
        u->bus = sd_bus_flush_close_unref(bus);
        return status;
    }
    r = sd_bus_add_filter(bus, &u->filter, onFilter, u);
    if (r >= 0)
        r = sd_bus_attach_event(bus, event, SD_EVENT_PRIORITY_NORMAL);
    if (r >= 0)
        r = watchPeers(u);
    if (r >= 0)
        r = restoreRegistrations(u);
    if (r >= 0)
        r = startDelivery(u);
    if (r < 0) {
        uint32_t status = statusOfError(nullptr, r);
        if (status == QUIB_DBUS_E_DISCONNECTED)
            status = QUIB_DBUS_E_NO_BUS;
        if (!u->away)
            logError("user %s: cannot attach to the event loop or restore its registrations: %s",
                     u->name.c_str(), strerror(-r));
        release(u);
        return status;
    }
    return 0;
}

// One attempt to get back on the bus.
void attempt(User *u)
{
    release(u);
    ++u->attempts;
    const uint32_t status = open(u);
    if (status == 0) {
        u->away = false;
        ++u->counters.reconnections;
        const char *unique = "?";
        sd_bus_get_unique_name(u->bus, &unique);
        size_t serving = 0, subscribed = 0, needs = 0;
        for (const auto &r : st().servers)
            serving += r->user == u;
        for (const auto &r : st().subscribers)
            subscribed += r->user == u;
        for (const auto &n : st().updates)
            needs += n.user == u;
        logLine(LOG_NOTICE,
                "user %s: back on the bus as %s after %llu ms (%u attempts): %s, %zu commands "
                "served, %zu subscriptions, %zu needs for updates",
                u->name.c_str(), unique,
                static_cast<unsigned long long>((nowUs() - u->awaySince) / 1000), u->attempts,
                u->busName.c_str(), serving, subscribed, needs);
        tell(u, 0);
        return;
    }
    u->backoffMs = std::min(u->backoffMs * 2, kMaxRetryMs);
    u->nextAttempt = nowUs() + uint64_t{u->backoffMs} * 1000;
    if (status != QUIB_DBUS_E_NO_BUS && status != u->refusedWith) {
        u->refusedWith = status;
        logError("user %s: the bus is back but refuses it: %s (0x%x); trying again every %u ms",
                 u->name.c_str(), quibDbus_strerror(status), status, kMaxRetryMs);
        tell(u, status);
    }
}

int onRetry(sd_event_source *, uint64_t, void *userdata)
{
    guarded<int>(0, [&]() -> int {
        User *u = static_cast<User *>(userdata);
        if (u->away && nowUs() >= u->nextAttempt)
            attempt(u);
        if (u->away) {
            sd_event_source_set_time(u->retry, u->nextAttempt);
            sd_event_source_set_enabled(u->retry, SD_EVENT_ONESHOT);
        }
        return 0;
    });
    return 0;
}

}  // namespace

State &st()
{
    static State *const s = new State;
    return *s;
}

User *userOf(const void *handle)
{
    for (auto &u : st().users)
        if (u.get() == handle)
            return u.get();
    return nullptr;
}

uint64_t nowUs()
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return uint64_t(t.tv_sec) * 1000000 + uint64_t(t.tv_nsec) / 1000;
}

void lostConnection(User *u)
{
    if (u->away)
        return;
    u->away = true;
    u->awaySince = nowUs();
    u->attempts = 0;
    u->refusedWith = 0;
    if (exitOnLoss()) {
        logError("user %s: the bus connection was lost", u->name.c_str());
        connectionLost();
        return;
    }
    logError("user %s: the bus connection was lost; reconnecting (after %u ms, then every %u "
             "ms at most)",
             u->name.c_str(), kFirstRetryMs, kMaxRetryMs);
    u->backoffMs = kFirstRetryMs;
    u->nextAttempt = u->awaySince + uint64_t{kFirstRetryMs} * 1000;
    // The connection is let go from the loop, not from within its own
    // dispatch (or a send made from it).
    later([u] {
        if (userOf(u) == u && u->away)
            release(u);
    });
    tell(u, QUIB_DBUS_E_AWAY);
    if (u->retry == nullptr)
        sd_event_add_time(loopEvent(), &u->retry, CLOCK_MONOTONIC, u->nextAttempt, 1000,
                          onRetry, u);
    else
        sd_event_source_set_time(u->retry, u->nextAttempt);
    sd_event_source_set_enabled(u->retry, SD_EVENT_ONESHOT);
}

bool onBus(User *u)
{
    if (u->away && !exitOnLoss() && nowUs() >= u->nextAttempt)
        attempt(u);
    return !u->away;
}

}  // namespace quibdbus

using namespace quibdbus;

extern "C" {

void *quibDbus_newUser(const char *name, const char *address, uint32_t *status)
{
    uint32_t dummy;
    uint32_t &result = status != nullptr ? *status : dummy;
    result = CORVANE_E_NOMEM;  // unless one of the answers below is given
    return guarded<void *>(nullptr, [&]() -> void * {
        char busName[kMaxBusName + 1];
        const char *addr = quibDbus_address(address);
        result = QUIB_DBUS_E_USER;
        if (quibDbus_busName(name, busName, sizeof busName) != 0)
            return nullptr;
        result = QUIB_DBUS_E_NO_BUS;
        if (const char *problem = quibDbus_addressProblem(addr)) {
            logError("user %s: %s", name, problem);
            return nullptr;
        }
        auto u = std::make_unique<User>();
        u->name = name;
        u->busName = busName;
        u->address = addr;
        result = open(u.get());
        if (result != 0)
            return nullptr;
        st().users.push_back(std::move(u));
        return st().users.back().get();
    });
}

void quibDbus_freeUser(void *user)
{
    State &s = st();
    User *u = userOf(user);
    if (u == nullptr)
        return;
    release(u);
    std::erase_if(s.servers, [u](const auto &r) { return r->user == u; });
    std::erase_if(s.subscribers, [u](const auto &r) { return r->user == u; });
    std::erase_if(s.updates, [u](const UpdateNeed &n) { return n.user == u; });
    std::erase_if(s.userRegs, [u](const auto &r) { return r.first == u; });
    u->retry = sd_event_source_disable_unref(u->retry);
    std::erase_if(s.users, [u](const auto &p) { return p.get() == u; });
}

void quibDbus_onBus(void *user, QuibDbusBusFn fn, void *arg)
{
    if (User *u = userOf(user)) {
        u->onBus = fn;
        u->onBusArg = arg;
    }
}

uint32_t quibDbus_busStatus(void *user)
{
    const User *u = userOf(user);
    if (u == nullptr)
        return QUIB_DBUS_E_USER;
    return u->away ? QUIB_DBUS_E_AWAY : 0;
}

uint32_t quibIntf_regUser_msgMngt(void *user, void *, void *, uint16_t num, uint16_t, uint32_t)
{
    return guarded<uint32_t>(CORVANE_E_NOMEM, [&]() -> uint32_t {
        User *u = userOf(user);
        if (u == nullptr)
            return QUIB_DBUS_E_USER;
        for (const auto &r : st().userRegs)
            if (r.first == u && r.second == num)
                return 0;
        st().userRegs.emplace_back(u, num);
        return 0;
    });
}

uint32_t quibIntf_unregUser_msgMngt(void *user, uint16_t num, uint16_t, uint32_t)
{
    std::erase_if(st().userRegs, [&](const auto &r) { return r.first == user && r.second == num; });
    return 0;
}

void *quibIntf_getCore_user(void *user)
{
    return user;
}

}  // extern "C"
