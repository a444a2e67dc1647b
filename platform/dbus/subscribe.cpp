// Servers, subscribers and needs for updates: a server's connection serves
// the table's object path; a subscriber adds one match rule per
// notification. Each of them publishes the table's object path on the
// user's connection, where introspection shows what the user registered.

#include "internal.h"

#include <cstring>

namespace quibdbus {
namespace {

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

std::string matchRule(const Table &table, const char *member)
{
    return "type='signal',path='" + table.path + "',interface='" + table.intf + "',member='" +
           member + "'";
}

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

uint32_t quibIntf_modSrv_ntfy_needUpdate(void *user, void *, void *, void *, const char *,
                                         const void *, const void *ntfyDesc, uint16_t method)
{
    return guarded<uint32_t>(CORVANE_E_NOMEM, [&]() -> uint32_t {
        User *u = userOf(user);
        if (u == nullptr)
            return QUIB_DBUS_E_USER;
        const auto *desc = static_cast<const CorVaneIntfDesc *>(ntfyDesc);
        if (uint32_t rc = checkDesc(desc, method); rc != 0)
            return rc;
        if (quibDbus_needsUpdate(u, desc->num, method))
            return 0;
        const Row row = rowOf(desc->num, method);
        if (const int r = row.table != nullptr ? publish(u, *row.table) : 0; r < 0) {
            const uint32_t status = statusOfError(nullptr, r);
            logError("%s of %s as needing updates: %s (%s)", row.name, u->name.c_str(),
                     quibDbus_strerror(status), strerror(-r));
            return status;
        }
        st().updates.push_back(UpdateNeed{u, desc->num, method});
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
    for (const UpdateNeed &n : st().updates)
        if (n.user == user && n.num == num && n.method == method)
            return 1;
    return 0;
}

}  // extern "C"
