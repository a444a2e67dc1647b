// Users: each one bus connection that owns the user's well-known name,
// attached to the event loop; and their registration with the library's
// interfaces.

#include "internal.h"

#include <errno.h>

#include <cstring>

namespace quibdbus {
namespace {

// Sees every message of a user's connection first: the one sd-bus makes up
// when the connection closes stops the event loop.
int onFilter(sd_bus_message *m, void *userdata, sd_bus_error *)
{
    if (sd_bus_message_is_signal(m, "org.freedesktop.DBus.Local", "Disconnected")) {
        logError("user %s: the bus connection was lost", static_cast<User *>(userdata)->name.c_str());
        connectionLost();
    }
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
        sd_event *event = loopEvent();
        if (const char *problem = quibDbus_addressProblem(addr)) {
            logError("user %s: %s", name, problem);
            return nullptr;
        }
        if (event == nullptr)
            return nullptr;
        auto u = std::make_unique<User>();
        u->name = name;
        u->busName = busName;
        int r = sd_bus_new(&u->bus);
        if (r >= 0)
            r = sd_bus_set_address(u->bus, addr);
        if (r >= 0)
            r = sd_bus_set_bus_client(u->bus, 1);
        if (r >= 0)
            r = sd_bus_set_method_call_timeout(u->bus, uint64_t{timeoutMs()} * 1000);
        if (r >= 0)
            r = sd_bus_start(u->bus);
        if (r < 0) {
            logError("user %s: cannot reach the bus at %s: %s", name, addr, strerror(-r));
            sd_bus_unref(u->bus);
            return nullptr;
        }
        // Flags 0: not queued behind another owner (the call fails instead),
        // and not replaceable by one that asks to replace it.
        r = sd_bus_request_name(u->bus, busName, 0);
        if (r < 0) {
            result = r == -EEXIST || r == -EALREADY ? QUIB_DBUS_E_NAME_TAKEN
                                                    : statusOfError(nullptr, r);
            if (result == QUIB_DBUS_E_DISCONNECTED)
                result = QUIB_DBUS_E_NO_BUS;
            if (result == QUIB_DBUS_E_NAME_TAKEN)
                logOwner(u.get(), busName);
            else
                logError("user %s: cannot own %s: %s", name, busName, strerror(-r));
            sd_bus_flush_close_unref(u->bus);
            return nullptr;
        }
        r = sd_bus_add_filter(u->bus, &u->filter, onFilter, u.get());
        if (r >= 0)
            r = sd_bus_attach_event(u->bus, event, SD_EVENT_PRIORITY_NORMAL);
        if (r >= 0)
            r = watchPeers(u.get());
        if (r < 0) {
            result = statusOfError(nullptr, r);
            if (result == QUIB_DBUS_E_DISCONNECTED)
                result = QUIB_DBUS_E_NO_BUS;
            logError("user %s: cannot attach to the event loop or follow the owners of the "
                     "names on the bus: %s", name, strerror(-r));
            unwatchPeers(u.get());
            sd_bus_slot_unref(u->filter);
            sd_bus_detach_event(u->bus);
            sd_bus_flush_close_unref(u->bus);
            return nullptr;
        }
        result = 0;
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
    auto drop = [u](std::vector<std::unique_ptr<Registration>> &regs) {
        for (auto &r : regs)
            if (r->user == u)
                sd_bus_slot_unref(r->match);
        std::erase_if(regs, [u](const auto &r) { return r->user == u; });
    };
    drop(s.servers);
    drop(s.subscribers);
    std::erase_if(s.updates, [u](const UpdateNeed &n) { return n.user == u; });
    std::erase_if(s.userRegs, [u](const auto &r) { return r.first == u; });
    for (auto &served : u->served)
        sd_bus_slot_unref(served->slot);
    unwatchPeers(u);
    sd_bus_slot_unref(u->filter);
    sd_bus_detach_event(u->bus);
    sd_bus_flush_close_unref(u->bus);
    std::erase_if(s.users, [u](const auto &p) { return p.get() == u; });
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
