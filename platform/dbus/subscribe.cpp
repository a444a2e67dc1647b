// Servers, subscribers and needs for updates: a server's connection serves
// the table's object path; a subscriber adds one match rule per
// notification. Each of them publishes the table's object path on the
// user's connection, where introspection shows what the user registered.
//
// A user's subscriptions are also what the other users must know to send it
// notifications (delivery.cpp): every user serves org.corvane.Middleware
// (Subscriptions() -> a(ss)), broadcasts SubscriptionsChanged(a(ss)) when
// it subscribes to something new, and sends the same signal to a server
// before its first command to it (or to its next owner): the bus keeps the
// order of one connection's messages to another, so the server knows them
// before it handles the command and whatever it pushes in answer reaches
// this user. The registrations are data: a new connection (reconnection)
// gets the objects, match rules and the middleware's object again.

#include "internal.h"

#include <cstring>

namespace quibdbus {
namespace {

std::string matchRule(const Table &table, const char *member)
{
    return "type='signal',path='" + table.path + "',interface='" + table.intf + "',member='" +
           member + "'";
}

// Makes sure the user's connection serves the table's object path.
int publish(User *u, const Table &table)
{
    for (const auto &s : u->served)
        if (s->table == table.name)
            return 0;
    auto served = std::make_unique<Served>(Served{u, table.name, nullptr});
    const int r = sd_bus_add_object(u->bus, &served->slot, table.path.c_str(), onMethodCall,
                                    served.get());
    if (r >= 0)
        u->served.push_back(std::move(served));
    return r;
}

// The user's subscriptions, as the bus names them.
std::set<Sub> subscriptionsOf(const User *u)
{
    std::set<Sub> subs;
    for (const auto &r : st().subscribers) {
        const Row row = r->user == u ? rowOf(r->num, r->method) : Row{};
        if (row.table != nullptr && row.name != nullptr)
            subs.emplace(row.table->intf, row.name);
    }
    return subs;
}

int appendSubs(sd_bus_message *m, const std::set<Sub> &subs)
{
    int r = sd_bus_message_open_container(m, 'a', "(ss)");
    for (const Sub &s : subs)
        if (r >= 0)
            r = sd_bus_message_append(m, "(ss)", s.first.c_str(), s.second.c_str());
    if (r >= 0)
        r = sd_bus_message_close_container(m);
    return r;
}

// SubscriptionsChanged to `dest`, or broadcast.
int announce(User *u, const char *dest)
{
    sd_bus_message *m = nullptr;
    int r = sd_bus_message_new_signal(u->bus, &m, kMwPath, kMwIntf, "SubscriptionsChanged");
    if (r >= 0 && dest != nullptr)
        r = sd_bus_message_set_destination(m, dest);
    if (r >= 0)
        r = appendSubs(m, subscriptionsOf(u));
    if (r >= 0)
        r = sd_bus_send(u->bus, m, nullptr);
    sd_bus_message_unref(m);
    return r;
}

int onSubscriptions(sd_bus_message *m, void *userdata, sd_bus_error *)
{
    return guarded<int>(-ENOMEM, [&]() -> int {
        const User *u = static_cast<const User *>(userdata);
        sd_bus_message *reply = nullptr;
        int r = sd_bus_message_new_method_return(m, &reply);
        if (r >= 0)
            r = appendSubs(reply, subscriptionsOf(u));
        if (r >= 0)
            r = sd_bus_send(nullptr, reply, nullptr);
        sd_bus_message_unref(reply);
        return r < 0 ? r : 1;
    });
}

// The middleware's own interface: unprivileged, as anyone may ask (the bus
// policy says who), and as sd-bus would otherwise ask the bus for the
// caller's credentials on every call.
const sd_bus_vtable kMiddleware[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_ARGS("Subscriptions", SD_BUS_NO_ARGS, SD_BUS_RESULT("a(ss)", subscriptions),
                            onSubscriptions, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL_WITH_ARGS("SubscriptionsChanged", SD_BUS_ARGS("a(ss)", subscriptions), 0),
    SD_BUS_SIGNAL_WITH_ARGS("Delivered", SD_BUS_ARGS("u", notifications), 0),
    SD_BUS_VTABLE_END,
};

uint32_t enroll(std::vector<std::unique_ptr<Registration>> &regs, bool subscriber, void *user,
                const void *descPtr, uint16_t method, void *a, void *b)
{
    User *u = userOf(user);
    if (u == nullptr)
        return QUIB_DBUS_E_USER;
    const auto *desc = static_cast<const CorVaneIntfDesc *>(descPtr);
    if (uint32_t rc = checkDesc(desc, method); rc != 0)
        return rc;
    const Row row = rowOf(desc->num, method);
    if (row.name == nullptr)
        return QUIB_DBUS_E_NO_TABLE;
    const auto handler = reinterpret_cast<CorVaneHandler>(a);
    if (Registration *r = findReg(regs, u, desc->num, method)) {
        r->desc = desc;
        r->handler = handler;
        r->arg = b;
        return 0;
    }
    if (u->away)
        return QUIB_DBUS_E_AWAY;
    auto reg = std::make_unique<Registration>(
        Registration{u, desc->num, method, desc, handler, b, nullptr});
    int r = publish(u, *row.table);
    if (r >= 0 && subscriber)
        r = sd_bus_add_match(u->bus, &reg->match, matchRule(*row.table, row.name).c_str(), onSignal,
                             reg.get());
    if (r < 0) {
        const uint32_t status = statusOfError(nullptr, r);
        logError("%s of %s as %s: %s (%s)", row.name, u->name.c_str(),
                 subscriber ? "subscriber" : "server", quibDbus_strerror(status), strerror(-r));
        return status;
    }
    regs.push_back(std::move(reg));
    if (subscriber) {
        // Everyone learns it now; servers told before are told again.
        u->announced.clear();
        announce(u, nullptr);
    }
    return 0;
}

}  // namespace

Registration *findReg(std::vector<std::unique_ptr<Registration>> &regs, const User *user,
                      uint16_t num, uint16_t method)
{
    for (auto &r : regs)
        if (r->user == user && r->num == num && r->method == method)
            return r.get();
    return nullptr;
}

UpdateNeed *findNeed(const User *user, uint16_t num, uint16_t method)
{
    for (UpdateNeed &n : st().updates)
        if (n.user == user && n.num == num && n.method == method)
            return &n;
    return nullptr;
}

int restoreRegistrations(User *u)
{
    int r = sd_bus_add_object_vtable(u->bus, &u->mwObject, kMwPath, kMwIntf, kMiddleware, u);
    for (auto &served : u->served) {
        const Table *table = tableNamed(served->table);
        if (r >= 0 && table != nullptr)
            r = sd_bus_add_object(u->bus, &served->slot, table->path.c_str(), onMethodCall,
                                  served.get());
    }
    bool subscribes = false;
    for (auto &reg : st().subscribers) {
        const Row row = reg->user == u ? rowOf(reg->num, reg->method) : Row{};
        if (r >= 0 && row.name != nullptr) {
            r = sd_bus_add_match(u->bus, &reg->match, matchRule(*row.table, row.name).c_str(),
                                 onSignal, reg.get());
            subscribes = true;
        }
    }
    u->announced.clear();
    if (r >= 0 && subscribes)
        r = announce(u, nullptr);
    return r;
}

void releaseRegistrations(User *u)
{
    for (auto &served : u->served)
        served->slot = sd_bus_slot_unref(served->slot);
    for (auto &reg : st().subscribers)
        if (reg->user == u)
            reg->match = sd_bus_slot_unref(reg->match);
    u->mwObject = sd_bus_slot_unref(u->mwObject);
    u->announced.clear();
}

void announceTo(User *u, const char *busName)
{
    bool subscribes = false;
    for (const auto &r : st().subscribers)
        subscribes |= r->user == u;
    if (!subscribes)
        return;
    const auto owner = u->owners.byName.find(busName);
    const std::string now = owner != u->owners.byName.end() ? owner->second : "";
    const auto told = u->announced.find(busName);
    if (told != u->announced.end() && !now.empty() && told->second == now)
        return;
    if (announce(u, busName) >= 0) {
        if (u->announced.size() >= 256)
            u->announced.clear();
        u->announced[busName] = now;
    }
}

}  // namespace quibdbus

using namespace quibdbus;

extern "C" {

uint32_t quibIntf_modSrv_mthd(void *user, void *a, void *b, void *, uint32_t, const char *,
                              const void *cmdDesc, const void *, uint16_t method, uint16_t,
                              uint16_t)
{
    return guarded<uint32_t>(CORVANE_E_NOMEM, [&]() -> uint32_t {
        return enroll(st().servers, false, user, cmdDesc, method, a, b);
    });
}

uint32_t quibIntf_modSrv_ntfy_needUpdate(void *user, void *a, void *b, void *, const char *,
                                         const void *, const void *ntfyDesc, uint16_t method)
{
    return guarded<uint32_t>(CORVANE_E_NOMEM, [&]() -> uint32_t {
        User *u = userOf(user);
        if (u == nullptr)
            return QUIB_DBUS_E_USER;
        const auto *desc = static_cast<const CorVaneIntfDesc *>(ntfyDesc);
        if (uint32_t rc = checkDesc(desc, method); rc != 0)
            return rc;
        const auto fn = reinterpret_cast<QuibDbusNeedUpdateFn>(a);
        if (UpdateNeed *need = findNeed(u, desc->num, method)) {
            need->fn = fn;
            need->arg = b;
        } else {
            if (u->away)
                return QUIB_DBUS_E_AWAY;
            const Row row = rowOf(desc->num, method);
            if (const int r = row.table != nullptr ? publish(u, *row.table) : 0; r < 0) {
                const uint32_t status = statusOfError(nullptr, r);
                logError("%s of %s as needing updates: %s (%s)", row.name, u->name.c_str(),
                         quibDbus_strerror(status), strerror(-r));
                return status;
            }
            st().updates.push_back(UpdateNeed{u, desc->num, method, fn, b});
        }
        needRegistered(u, desc->num, method);
        return 0;
    });
}

uint32_t quibIntf_modCliNtfyUser_mthd(void *user, void *a, void *b, void *, uint32_t,
                                      const char *, const char *, const char *, const void *,
                                      const void *ntfyDesc, uint16_t method)
{
    return guarded<uint32_t>(CORVANE_E_NOMEM, [&]() -> uint32_t {
        return enroll(st().subscribers, true, user, ntfyDesc, method, a, b);
    });
}

void *quibIntf_findSrvMthdNtfyUser(void *a, void *, const char *, uint16_t, void *)
{
    return a;
}

int quibDbus_needsUpdate(void *user, uint16_t num, uint16_t method)
{
    return findNeed(static_cast<const User *>(user), num, method) != nullptr ? 1 : 0;
}

}  // extern "C"
