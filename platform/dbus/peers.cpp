// Peers: who is at the other end of a user's connection, as the bus tells,
// never as a message says.
//
// - Each user follows who owns which corvane user name on its bus
//   (Owners): the bus sends NameOwnerChanged for every such name, in order
//   with the other messages the connection receives, so when a notification
//   is dispatched the table holds the owners of the moment it was sent, even
//   if its sender has left since. A notification is taken only from the
//   owner of a corvane user name; any other sender's is refused and dropped,
//   logged once per sender connection.
// - A change of owner of a name the user talks to is logged with the new
//   owner's pid and uid: a restarted peer (no owner before) at notice, a
//   name handed from one connection to another (a queued connection took
//   it over) as a warning.
// - Every kQueueCheckMs the user asks the bus who queues for its own name
//   (ListQueuedOwners) and logs each connection queued behind it once, with
//   its pid and uid: it would get the name, silently, when this one leaves.
// - Credentials (pid, uid) come from GetConnectionCredentials, asked without
//   blocking where the loop may be busy (logs), and cached by unique name.

#include "internal.h"

#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace quibdbus {
namespace {

constexpr uint64_t kQueueCheckMs = 2000;
constexpr size_t kMaxRemembered = 256;  // per set or map of unique names

constexpr const char kDriverPath[] = "/org/freedesktop/DBus";

// Keeps a set or map of unique names bounded: unique names are never reused,
// so forgetting them all only costs asking again (or logging again).
template <class C>
void bound(C &c)
{
    if (c.size() >= kMaxRemembered)
        c.clear();
}

Creds parseCreds(sd_bus_message *reply)
{
    Creds c;
    if (reply == nullptr || sd_bus_message_is_method_error(reply, nullptr) ||
        sd_bus_message_enter_container(reply, 'a', "{sv}") < 0)
        return c;
    while (sd_bus_message_enter_container(reply, 'e', "sv") > 0) {
        const char *key = nullptr;
        uint32_t value = 0;
        if (sd_bus_message_read(reply, "s", &key) < 0)
            break;
        const bool uid = std::strcmp(key, "UnixUserID") == 0;
        const bool pid = std::strcmp(key, "ProcessID") == 0;
        if ((uid || pid) && sd_bus_message_read(reply, "v", "u", &value) >= 0) {
            if (uid)
                c.uid = value;
            else
                c.pid = static_cast<int32_t>(value);
        } else if (sd_bus_message_skip(reply, "v") < 0) {
            break;
        }
        if (sd_bus_message_exit_container(reply) < 0)
            break;
    }
    return c;
}

int onReply(sd_bus_message *m, void *userdata, sd_bus_error *)
{
    return guarded<int>(0, [&]() -> int {
        auto *p = static_cast<Pending *>(userdata);
        User *u = p->user;
        // Taken off the list first: `done` may ask again.
        std::unique_ptr<Pending> self;
        for (auto &q : u->pending)
            if (q.get() == p)
                self = std::move(q);
        std::erase_if(u->pending, [](const auto &q) { return q == nullptr; });
        if (self != nullptr) {
            self->done(m);
            sd_bus_slot_unref(self->slot);
        }
        return 0;
    });
}

// Asks the bus driver `member`(arg) without waiting; `done` gets the reply
// (an error reply too). Dropped with the user.
void askBus(User *u, const char *member, const std::string &arg,
            std::function<void(sd_bus_message *)> done)
{
    auto p = std::make_unique<Pending>(Pending{u, nullptr, std::move(done)});
    if (sd_bus_call_method_async(u->bus, &p->slot, kDriver, kDriverPath, kDriver, member, onReply,
                                 p.get(), "s", arg.c_str()) >= 0)
        u->pending.push_back(std::move(p));
}

}  // namespace

int callAsync(User *u, const std::string &dest, const char *path, const char *intf,
              const char *member, uint64_t timeoutUs, std::function<void(sd_bus_message *)> done)
{
    auto p = std::make_unique<Pending>(Pending{u, nullptr, std::move(done)});
    sd_bus_message *m = nullptr;
    int r = sd_bus_message_new_method_call(u->bus, &m, dest.c_str(), path, intf, member);
    if (r >= 0)
        r = sd_bus_call_async(u->bus, &p->slot, m, onReply, p.get(), timeoutUs);
    sd_bus_message_unref(m);
    if (r >= 0)
        u->pending.push_back(std::move(p));
    return r;
}

std::string describe(const Creds &c)
{
    if (c.pid < 0 && c.uid == kUnknownUid)
        return " (pid and uid unknown: it has left the bus)";
    char text[64];
    std::snprintf(text, sizeof text, " (pid %ld, uid %lu)", static_cast<long>(c.pid),
                  static_cast<unsigned long>(c.uid));
    return text;
}

void withCreds(User *u, const std::string &unique, std::function<void(const Creds &)> then)
{
    auto it = u->owners.creds.find(unique);
    if (it != u->owners.creds.end()) {
        then(it->second);
        return;
    }
    askBus(u, "GetConnectionCredentials", unique, [u, unique, then](sd_bus_message *reply) {
        const Creds c = parseCreds(reply);
        bound(u->owners.creds);
        u->owners.creds[unique] = c;
        then(c);
    });
}

namespace {

int onOwnerChanged(sd_bus_message *m, void *userdata, sd_bus_error *)
{
    return guarded<int>(0, [&]() -> int {
        User *u = static_cast<User *>(userdata);
        const char *sender = sd_bus_message_get_sender(m);
        const char *name = nullptr, *before = nullptr, *now = nullptr;
        // The match names the bus as the sender; a signal sent to this
        // connection directly is matched here too, so look again.
        if (sender == nullptr || std::strcmp(sender, kDriver) != 0 ||
            sd_bus_message_read(m, "sss", &name, &before, &now) < 0)
            return 0;
        ownerChanged(u, name, before, now);
        if (*now == '\0') {
            u->owners.byName.erase(name);
            return 0;
        }
        u->owners.byName[name] = now;
        if (u->owners.talkedTo.count(name) == 0 || u->busName == name)
            return 0;
        const std::string what = name, from = before, to = now, user = u->name;
        withCreds(u, to, [what, from, to, user](const Creds &c) {
            if (from.empty())
                logLine(LOG_NOTICE, "user %s: %s is owned by %s%s now", user.c_str(), what.c_str(),
                        to.c_str(), describe(c).c_str());
            else
                logLine(LOG_WARNING, "user %s: %s was taken over by %s%s from %s", user.c_str(),
                        what.c_str(), to.c_str(), describe(c).c_str(), from.c_str());
        });
        return 0;
    });
}

// Who queues for the user's name behind it; each one logged once.
void checkQueue(User *u)
{
    askBus(u, "ListQueuedOwners", u->busName, [u](sd_bus_message *reply) {
        const char *self = nullptr;
        if (sd_bus_message_is_method_error(reply, nullptr) ||
            sd_bus_get_unique_name(u->bus, &self) < 0 ||
            sd_bus_message_enter_container(reply, 'a', "s") < 0)
            return;
        const char *unique = nullptr;
        while (sd_bus_message_read(reply, "s", &unique) > 0) {
            if (std::strcmp(unique, self) == 0 || u->owners.queued.count(unique) != 0)
                continue;
            bound(u->owners.queued);
            u->owners.queued.insert(unique);
            const std::string who = unique, name = u->busName, user = u->name;
            withCreds(u, who, [who, name, user](const Creds &c) {
                logLine(LOG_WARNING,
                        "user %s: %s%s queues for %s: it gets the name if this process leaves "
                        "the bus",
                        user.c_str(), who.c_str(), describe(c).c_str(), name.c_str());
            });
        }
    });
}

int onQueueTimer(sd_event_source *source, uint64_t, void *userdata)
{
    guarded<int>(0, [&]() -> int {
        checkQueue(static_cast<User *>(userdata));
        return 0;
    });
    sd_event_source_set_time_relative(source, kQueueCheckMs * 1000);
    sd_event_source_set_enabled(source, SD_EVENT_ONESHOT);
    return 0;
}

}  // namespace

int watchPeers(User *u)
{
    Owners &o = u->owners;
    o = Owners{};
    // The match first, then the names as they are: a change in between
    // arrives after the answers and is applied after them.
    const std::string rule = std::string("type='signal',sender='") + kDriver + "',path='" +
                             kDriverPath + "',interface='" + kDriver +
                             "',member='NameOwnerChanged',arg0namespace='" +
                             std::string(kUserPrefix, std::strlen(kUserPrefix) - 1) + "'";
    int r = sd_bus_add_match(u->bus, &o.watch, rule.c_str(), onOwnerChanged, u);
    char **names = nullptr;
    if (r >= 0)
        r = sd_bus_list_names(u->bus, &names, nullptr);
    const size_t prefix = std::strlen(kUserPrefix);
    for (char **n = names; r >= 0 && n != nullptr && *n != nullptr; ++n) {
        if (std::strncmp(*n, kUserPrefix, prefix) != 0)
            continue;
        sd_bus_message *reply = nullptr;
        const char *owner = nullptr;
        // No owner any more: it left after ListNames.
        if (sd_bus_call_method(u->bus, kDriver, kDriverPath, kDriver, "GetNameOwner", nullptr,
                               &reply, "s", *n) >= 0 &&
            sd_bus_message_read(reply, "s", &owner) >= 0)
            o.byName[*n] = owner;
        sd_bus_message_unref(reply);
    }
    for (char **n = names; n != nullptr && *n != nullptr; ++n)
        std::free(*n);
    std::free(names);
    if (r >= 0)
        r = sd_event_add_time_relative(loopEvent(), &u->queueCheck, CLOCK_MONOTONIC,
                                       kQueueCheckMs * 1000, 0, onQueueTimer, u);
    return r;
}

void unwatchPeers(User *u)
{
    u->queueCheck = sd_event_source_disable_unref(u->queueCheck);
    u->owners.watch = sd_bus_slot_unref(u->owners.watch);
    for (auto &p : u->pending)
        sd_bus_slot_unref(p->slot);
    u->pending.clear();
}

std::string userNameOf(const User *u, const char *unique)
{
    if (unique == nullptr)
        return {};
    for (const auto &[name, owner] : u->owners.byName)
        if (owner == unique)
            return unescape(name.c_str() + std::strlen(kUserPrefix));
    return {};
}

bool senderIsUser(User *u, sd_bus_message *m)
{
    const char *sender = sd_bus_message_get_sender(m);
    if (sender != nullptr)
        for (const auto &[name, owner] : u->owners.byName)
            if (owner == sender) {
                talksTo(u, name.c_str());
                return true;
            }
    const std::string who = sender != nullptr ? sender : "";
    if (u->owners.refused.count(who) != 0)
        return false;
    bound(u->owners.refused);
    u->owners.refused.insert(who);
    const std::string member = sd_bus_message_get_member(m) != nullptr ? sd_bus_message_get_member(m) : "?";
    const std::string user = u->name;
    const bool directed = sd_bus_message_get_destination(m) != nullptr;
    withCreds(u, who, [who, member, user, directed](const Creds &c) {
        logLine(LOG_WARNING,
                "user %s: %s notification %s from %s%s refused: the sender owns no %s* name "
                "(its further notifications are dropped without a line)",
                user.c_str(), directed ? "directed" : "broadcast", member.c_str(), who.c_str(),
                describe(c).c_str(), kUserPrefix);
    });
    return false;
}

void talksTo(User *u, const char *busName)
{
    // Bounded by the corvane names on the bus one talks to; a stranger can
    // add one name per connection at most, as it must own it.
    if (u->owners.talkedTo.count(busName) == 0) {
        bound(u->owners.talkedTo);
        u->owners.talkedTo.insert(busName);
    }
}

Creds credsOf(User *u, const char *unique)
{
    auto it = u->owners.creds.find(unique);
    if (it != u->owners.creds.end())
        return it->second;
    sd_bus_message *reply = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    Creds c;
    const int r = sd_bus_call_method(u->bus, kDriver, kDriverPath, kDriver,
                                     "GetConnectionCredentials", &error, &reply, "s", unique);
    if (r >= 0)
        c = parseCreds(reply);
    // Kept unless the bus could not answer: a connection that left stays gone.
    if (r >= 0 || sd_bus_error_has_name(&error, SD_BUS_ERROR_NAME_HAS_NO_OWNER)) {
        bound(u->owners.creds);
        u->owners.creds[unique] = c;
    }
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    return c;
}

void logOwner(User *u, const char *busName)
{
    sd_bus_message *reply = nullptr;
    const char *owner = nullptr;
    if (sd_bus_call_method(u->bus, kDriver, kDriverPath, kDriver, "GetNameOwner", nullptr, &reply,
                           "s", busName) >= 0 &&
        sd_bus_message_read(reply, "s", &owner) >= 0)
        logError("user %s: %s is owned by %s%s, another process: not taken", u->name.c_str(),
                 busName, owner, describe(credsOf(u, owner)).c_str());
    sd_bus_message_unref(reply);
}

}  // namespace quibdbus

using namespace quibdbus;

extern "C" {

int32_t quibDbus_userPid(void *user, const char *userName)
{
    return guarded<int32_t>(-1, [&]() -> int32_t {
        User *u = userOf(user);
        char name[kMaxBusName + 1];
        if (u == nullptr || u->away || quibDbus_busName(userName, name, sizeof name) != 0)
            return -1;
        // Asked now (the bus answers for the name's owner of this moment):
        // a caller that never runs the loop has not seen the owners change.
        sd_bus_message *reply = nullptr;
        Creds c;
        if (sd_bus_call_method(u->bus, kDriver, kDriverPath, kDriver, "GetConnectionCredentials",
                               nullptr, &reply, "s", name) >= 0)
            c = parseCreds(reply);
        sd_bus_message_unref(reply);
        return c.pid;
    });
}

int quibDbus_ctxPeer(void *ctx, QuibDbusPeer *peer)
{
    return guarded<int>(-1, [&]() -> int {
        auto *c = static_cast<MsgCtx *>(ctx);
        if (!isLive(c) || peer == nullptr)
            return -1;
        const char *unique = sd_bus_message_get_sender(c->message);
        if (unique == nullptr)
            unique = "";
        const Creds creds = *unique != '\0' ? credsOf(c->to, unique) : Creds{};
        std::snprintf(peer->userName, sizeof peer->userName, "%s",
                      userNameOf(c->to, unique).c_str());
        std::snprintf(peer->uniqueName, sizeof peer->uniqueName, "%s", unique);
        peer->pid = creds.pid;
        peer->uid = creds.uid;
        return 0;
    });
}

int quibDbus_ctxSender(void *ctx, char *userName, size_t size, int32_t *pid)
{
    QuibDbusPeer peer;
    if (quibDbus_ctxPeer(ctx, &peer) != 0)
        return -1;
    if (userName != nullptr && size > 0)
        std::snprintf(userName, size, "%s", *peer.userName != '\0' ? peer.userName : peer.uniqueName);
    if (pid != nullptr)
        *pid = peer.pid;
    return 0;
}

}  // extern "C"
