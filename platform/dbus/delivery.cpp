// Delivery: each notification goes to each subscriber of it on its own (a
// signal whose destination is the subscriber's unique name), within a window
// per subscriber that only the subscriber's acknowledgements free.
//
// Why not broadcast signals: the bus charges a message to its sender until
// every recipient has read it, and stops reading a sender whose charge
// passes its limit (127 MB on the system bus). One subscriber that stops
// reading (stopped, or a client that adds a match rule and sleeps) so makes
// the bus stop taking anything from the management side: its answers to
// commands wait (the callers time out although the commands ran) and the
// other subscribers get nothing, for as long as it sleeps. Measured with
// private buses: under the system bus's limits a flood of 3 KB signals with
// one stopped subscriber let the broker grow to 154 MB, after which every
// call timed out and the healthy subscriber got 6,000 messages a second; the
// same flood sent to each subscriber with this window: the broker stayed at
// 6 MB, calls were answered in 4 ms (median), the healthy subscriber got
// 39,000 a second. Sent to each subscriber without a window, the stopped one
// stalls the sender just the same. The window also keeps answers quick
// under a flood with no stopped subscriber (4 ms, against 100 to 190 ms
// with no window), as the bus holds little ahead of them. Method calls
// with the reply as the acknowledgement would give the same bound, but a
// notification would no longer be a signal, which monitors, captures and
// other tools read it as.
//
// The window: QUIB_DBUS_WINDOW_MESSAGES notifications and
// QUIB_DBUS_WINDOW_BYTES bytes unacknowledged per subscriber (one always
// fits: a body can be 200 KB). Measured, 64 messages already gave the
// subscriber its full rate; 256 lets a serving side push a few hundred
// objects in one turn of its loop, and costs the answers behind a flood
// about 4 ms (1,024: 17 ms). A subscriber acknowledges at least every 64
// messages or 256 KiB, and whenever its loop is idle: signal Delivered(u n)
// to the sender. When a window is full, the subscriber is sent nothing
// more (QUIB_DBUS_E_QUEUE_FULL, counted) until it has acknowledged all it
// was sent; then the serving side is told to re-sync it (need-update
// callback) for each notification it missed that has a need for updates.
// Logged once when it fills, once when it catches up.
//
// Who subscribes to what: a user that sends notifications or needs updates
// asks every other user (Subscriptions) and follows SubscriptionsChanged and
// the owners of the corvane user names. The first send of a user that did
// not follow them waits for the answers, at most kProbeMs, on a connection
// of its own (so that nothing else is dispatched meanwhile); those that do
// not answer in time are asked again without waiting, and counted as
// subscribers once they answer. Only connections that own a corvane user
// name count, as the bus says (peers.cpp).

#include "internal.h"

#include <syslog.h>

#include <algorithm>
#include <cstring>

namespace quibdbus {
namespace {

constexpr uint64_t kProbeMs = 500;
constexpr uint32_t kAckEvery = 64;
constexpr uint64_t kAckBytes = 256 * 1024;
constexpr uint64_t kRecheckMs = 100;
constexpr uint64_t kLogEveryUs = 60 * 1000 * 1000;

std::string userNameOfBus(const std::string &busName)
{
    const size_t prefix = std::strlen(kUserPrefix);
    return busName.size() > prefix ? unescape(busName.c_str() + prefix) : busName;
}

// (num, method) of a notification named by the bus; QUIB_NUM_NONE if no
// table has it.
Method methodOf(const Sub &s)
{
    for (const auto &[num, t] : st().tables) {
        if (t.intf != s.first)
            continue;
        for (uint16_t i = 0; i < t.count; ++i) {
            const char *name = quib_tableRows(t.words)[i].name;
            if (name != nullptr && s.second == name)
                return {num, i};
        }
    }
    return {QUIB_NUM_NONE, 0};
}

// The need-update callbacks waiting for the loop, in order.
struct Tell {
    User *user;
    std::string unique;  // the subscriber's connection: none told once it has left
    std::string userName;
    Method method;
};

std::vector<Tell> &tells()
{
    static auto *const t = new std::vector<Tell>;
    return *t;
}

void runTells()
{
    std::vector<Tell> now;
    now.swap(tells());
    for (const Tell &t : now) {
        User *u = userOf(t.user);
        const UpdateNeed *need = u != nullptr ? findNeed(u, t.method.first, t.method.second) : nullptr;
        if (need == nullptr || need->fn == nullptr || u->peers.count(t.unique) == 0)
            continue;
        ++u->counters.resyncs;
        // Copied: the callback may register again, which replaces *need.
        const QuibDbusNeedUpdateFn fn = need->fn;
        void *const arg = need->arg;
        fn(u, t.userName.c_str(), t.method.first, t.method.second, arg);
    }
}

// The serving side is to be told that the peer needs (num, method).
void tell(User *u, const Peer &p, Method m)
{
    const UpdateNeed *need = findNeed(u, m.first, m.second);
    if (need == nullptr || need->fn == nullptr)
        return;
    if (tells().empty())
        later(runTells);
    tells().push_back(Tell{u, p.unique, userNameOfBus(p.busName), m});
}

Peer &peer(User *u, const std::string &unique, const std::string &busName)
{
    Peer &p = u->peers[unique];
    if (p.unique.empty()) {
        p.unique = unique;
        p.busName = busName;
    }
    return p;
}

// Asks the peer its subscriptions, without waiting and with no timeout of
// our own: one that does not read answers when it reads again, and only one
// question to it is ever under way (the bus bounds a connection's pending
// calls). Asked again if the bus itself gave up.
void ask(User *u, const std::string &unique)
{
    auto it = u->peers.find(unique);
    if (it == u->peers.end() || it->second.asking || u->bus == nullptr)
        return;
    it->second.asking = true;
    const int r = callAsync(u, unique, kMwPath, kMwIntf, "Subscriptions", UINT64_MAX,
                            [u, unique](sd_bus_message *reply) {
        auto found = u->peers.find(unique);
        if (found == u->peers.end())
            return;
        Peer &p = found->second;
        p.asking = false;
        if (!sd_bus_message_is_method_error(reply, nullptr)) {
            subscriptionsOf(u, unique, reply);
            return;
        }
        const sd_bus_error *e = sd_bus_message_get_error(reply);
        if (sd_bus_error_has_names(e, SD_BUS_ERROR_NO_REPLY, SD_BUS_ERROR_TIMEOUT))
            ask(u, unique);
        else
            p.known = true;  // not a user of this middleware, or gone: no subscriptions
    });
    if (r < 0)
        it->second.asking = false;
}

// The user's own unique name.
std::string self(const User *u)
{
    const char *unique = nullptr;
    return u->bus != nullptr && sd_bus_get_unique_name(u->bus, &unique) >= 0 ? unique : "";
}

// Whether a connection owns a corvane user name (as the bus has said so far).
const std::string *userNameOwnedBy(const User *u, const char *unique)
{
    if (unique != nullptr)
        for (const auto &[name, owner] : u->owners.byName)
            if (owner == unique)
                return &name;
    return nullptr;
}

// The peers' answers on a connection of the probe's own, waiting at most
// kProbeMs in all; the others are asked again on the user's connection.
void probe(User *u)
{
    struct Question {
        User *u;
        std::string unique;
        sd_bus_slot *slot = nullptr;
        bool answered = false;
    };
    std::vector<std::unique_ptr<Question>> questions;
    sd_bus *b = nullptr;
    int r = startClient(u, kProbeMs * 1000, &b);
    auto onAnswer = [](sd_bus_message *m, void *userdata, sd_bus_error *) -> int {
        auto *q = static_cast<Question *>(userdata);
        q->answered = true;
        guarded<int>(0, [&]() -> int {
            auto it = q->u->peers.find(q->unique);
            if (it == q->u->peers.end())
                return 0;
            if (!sd_bus_message_is_method_error(m, nullptr))
                subscriptionsOf(q->u, q->unique, m);
            else if (!sd_bus_error_has_names(sd_bus_message_get_error(m), SD_BUS_ERROR_NO_REPLY,
                                             SD_BUS_ERROR_TIMEOUT))
                it->second.known = true;
            else
                q->answered = false;
            return 0;
        });
        return 0;
    };
    for (auto &[unique, p] : u->peers) {
        if (r < 0 || p.known)
            continue;
        auto q = std::make_unique<Question>(Question{u, unique});
        if (sd_bus_call_method_async(b, &q->slot, unique.c_str(), kMwPath, kMwIntf, "Subscriptions",
                                     onAnswer, q.get(), "") >= 0)
            questions.push_back(std::move(q));
    }
    const uint64_t deadline = nowUs() + kProbeMs * 1000;
    auto open = [&] {
        return std::any_of(questions.begin(), questions.end(),
                           [](const auto &q) { return !q->answered && q->slot != nullptr; });
    };
    while (r >= 0 && open()) {
        const uint64_t now = nowUs();
        if (now >= deadline)
            break;
        r = sd_bus_process(b, nullptr);
        if (r == 0)
            r = sd_bus_wait(b, deadline - now);
    }
    for (auto &q : questions)
        sd_bus_slot_unref(q->slot);
    sd_bus_flush_close_unref(b);
    for (auto &[unique, p] : u->peers)
        if (!p.known)
            ask(u, unique);
}

// The peer has acknowledged all it was sent after its window filled (or was
// skipped for the user's full queue, and the queue has room again): the
// serving side re-syncs what it missed.
void caughtUp(User *u, Peer &p)
{
    size_t resync = 0;
    for (const Method &m : p.missed) {
        const UpdateNeed *need = findNeed(u, m.first, m.second);
        if (need != nullptr && need->fn != nullptr) {
            tell(u, p, m);
            ++resync;
        }
    }
    if (p.logged)
        logLine(LOG_NOTICE,
                "user %s: subscriber %s (%s) has read all it was sent: %llu notifications were not "
                "sent to it; the serving side is told to re-sync %zu of them",
                u->name.c_str(), userNameOfBus(p.busName).c_str(), p.unique.c_str(),
                static_cast<unsigned long long>(p.skipped), resync);
    p.logged = false;
    p.full = false;
    p.skipped = 0;
    p.missed.clear();
}

int onRecheck(sd_event_source *, uint64_t, void *userdata);

// Peers skipped for the user's own full queue have nothing in flight to be
// acknowledged: looked at again every kRecheckMs until the queue has room.
void recheckLater(User *u)
{
    if (u->recheck == nullptr) {
        if (sd_event_add_time_relative(loopEvent(), &u->recheck, CLOCK_MONOTONIC,
                                       kRecheckMs * 1000, 1000, onRecheck, u) < 0)
            u->recheck = nullptr;
        return;
    }
    sd_event_source_set_time_relative(u->recheck, kRecheckMs * 1000);
    sd_event_source_set_enabled(u->recheck, SD_EVENT_ONESHOT);
}

int onRecheck(sd_event_source *, uint64_t, void *userdata)
{
    guarded<int>(0, [&]() -> int {
        User *u = static_cast<User *>(userdata);
        bool waiting = false;
        for (auto &[unique, p] : u->peers) {
            if (!p.full || p.sent != p.acked)
                continue;
            if (queueHasRoom(u, 0))
                caughtUp(u, p);
            else
                waiting = true;
        }
        if (waiting)
            recheckLater(u);
        return 0;
    });
    return 0;
}

void acknowledged(User *u, Peer &p, uint32_t n)
{
    const uint64_t count = std::min<uint64_t>(n, p.sent - p.acked);
    for (uint64_t i = 0; i < count; ++i) {
        p.inFlight -= p.sizes.front();
        p.sizes.pop_front();
    }
    p.acked += count;
    if (p.full && p.sent == p.acked) {
        if (queueHasRoom(u, 0))
            caughtUp(u, p);
        else
            recheckLater(u);
    }
}

// Sends the acknowledgement owed to one sender. Not bounded by the user's
// queue: a sender's window is freed by nothing else.
void acknowledge(User *u, const std::string sender)  // a copy: its entry is erased here
{
    auto it = u->owed.find(sender);
    if (it == u->owed.end())
        return;
    const uint32_t n = it->second.first;
    u->owed.erase(it);
    sd_bus_message *m = nullptr;
    int r = sd_bus_message_new_signal(u->bus, &m, kMwPath, kMwIntf, "Delivered");
    if (r >= 0)
        r = sd_bus_message_set_destination(m, sender.c_str());
    if (r >= 0)
        r = sd_bus_message_append(m, "u", n);
    if (r >= 0)
        sd_bus_send(u->bus, m, nullptr);
    sd_bus_message_unref(m);
}

int onAckIdle(sd_event_source *, void *userdata)
{
    guarded<int>(0, [&]() -> int {
        User *u = static_cast<User *>(userdata);
        sd_event_source_set_enabled(u->ackIdle, SD_EVENT_OFF);
        while (!u->owed.empty())
            acknowledge(u, u->owed.begin()->first);
        return 0;
    });
    return 0;
}

int onMiddlewareSignal(sd_bus_message *m, void *userdata, sd_bus_error *)
{
    return guarded<int>(0, [&]() -> int {
        User *u = static_cast<User *>(userdata);
        const char *sender = sd_bus_message_get_sender(m);
        if (sender == nullptr)
            return 0;
        if (sd_bus_message_is_signal(m, kMwIntf, "Delivered")) {
            // Only a subscriber acknowledges its own window: the bus names
            // the sender.
            uint32_t n = 0;
            auto it = u->peers.find(sender);
            if (it != u->peers.end() && sd_bus_message_read(m, "u", &n) >= 0)
                acknowledged(u, it->second, n);
        } else if (sd_bus_message_is_signal(m, kMwIntf, "SubscriptionsChanged") && u->tracking) {
            if (const std::string *name = userNameOwnedBy(u, sender); name != nullptr &&
                                                                      sender != self(u)) {
                peer(u, sender, *name);
                subscriptionsOf(u, sender, m);
            }
        }
        return 0;
    });
}

}  // namespace

bool readSubs(sd_bus_message *m, std::set<Sub> &out)
{
    if (sd_bus_message_enter_container(m, 'a', "(ss)") < 0)
        return false;
    const char *intf = nullptr, *member = nullptr;
    int r;
    while ((r = sd_bus_message_read(m, "(ss)", &intf, &member)) > 0)
        if (out.size() < 4096)
            out.emplace(intf, member);
    return r >= 0 && sd_bus_message_exit_container(m) >= 0;
}

void subscriptionsOf(User *u, const std::string &unique, sd_bus_message *m)
{
    auto it = u->peers.find(unique);
    std::set<Sub> subs;
    if (it == u->peers.end() || !readSubs(m, subs))
        return;
    Peer &p = it->second;
    p.known = true;
    for (const Sub &s : subs) {
        if (!p.subs.insert(s).second)
            continue;
        const Method method = methodOf(s);
        const UpdateNeed *need = method.first != QUIB_NUM_NONE
                                     ? findNeed(u, method.first, method.second)
                                     : nullptr;
        if (need != nullptr && need->fn != nullptr && p.told.insert(method).second)
            tell(u, p, method);
    }
}

int startDelivery(User *u)
{
    const std::string rule =
        std::string("type='signal',path='") + kMwPath + "',interface='" + kMwIntf + "'";
    int r = sd_bus_add_match(u->bus, &u->mwMatch, rule.c_str(), onMiddlewareSignal, u);
    if (r >= 0 && sd_event_add_defer(loopEvent(), &u->ackIdle, onAckIdle, u) >= 0) {
        sd_event_source_set_priority(u->ackIdle, SD_EVENT_PRIORITY_IDLE);
        sd_event_source_set_enabled(u->ackIdle, SD_EVENT_OFF);
    }
    if (r >= 0 && u->tracking) {
        // Back on the bus: every subscriber present appears anew.
        u->tracking = false;
        track(u, false);
    }
    return r;
}

void stopDelivery(User *u)
{
    u->mwMatch = sd_bus_slot_unref(u->mwMatch);
    u->ackIdle = sd_event_source_disable_unref(u->ackIdle);
    u->recheck = sd_event_source_disable_unref(u->recheck);
    u->peers.clear();
    u->owed.clear();
}

void track(User *u, bool now)
{
    if (u->tracking || u->bus == nullptr)
        return;
    u->tracking = true;
    const std::string me = self(u);
    for (const auto &[name, owner] : u->owners.byName)
        if (owner != me)
            peer(u, owner, name);
    if (now)
        probe(u);
    else
        for (auto &[unique, p] : u->peers)
            ask(u, unique);
}

std::vector<Peer *> subscribersOf(User *u, const std::string &intf, const std::string &member,
                                  const char *toBusName)
{
    std::vector<Peer *> out;
    const Sub s{intf, member};
    for (auto &[unique, p] : u->peers)
        if (p.known && p.subs.count(s) != 0 && (toBusName == nullptr || p.busName == toBusName))
            out.push_back(&p);
    return out;
}

bool windowTakes(User *u, Peer &p, uint32_t bytes, Method m)
{
    const uint64_t unacked = p.sent - p.acked;
    if (!p.full && (unacked == 0 || (unacked < QUIB_DBUS_WINDOW_MESSAGES &&
                                     p.inFlight + bytes <= QUIB_DBUS_WINDOW_BYTES)))
        return true;
    if (!p.full) {
        p.full = true;
        ++u->counters.stalls;
        ++p.fills;
        // Once, and again at most once a minute: a subscriber merely slower
        // than a flood fills its window time and again.
        const uint64_t now = nowUs();
        p.logged = p.loggedAt == 0 || now - p.loggedAt >= kLogEveryUs;
        if (p.logged) {
            const std::string user = u->name, sub = userNameOfBus(p.busName), unique = p.unique;
            const uint64_t flying = unacked, inFlight = p.inFlight, fills = p.fills;
            withCreds(u, unique, [user, sub, unique, flying, inFlight, fills](const Creds &c) {
                logLine(LOG_WARNING,
                        "user %s: subscriber %s, %s%s, has not read its last %llu notifications "
                        "(%llu bytes): it is sent no more, and what it misses is counted, until it "
                        "has read them; then the serving side is told to re-sync it%s",
                        user.c_str(), sub.c_str(), unique.c_str(), describe(c).c_str(),
                        static_cast<unsigned long long>(flying),
                        static_cast<unsigned long long>(inFlight),
                        fills > 1 ? (" (its window filled " + std::to_string(fills) +
                                     " times since the last line)").c_str()
                                  : "");
            });
            p.loggedAt = now;
            p.fills = 0;
        }
    }
    ++p.skipped;
    p.missed.insert(m);
    return false;
}

void sentTo(Peer &p, uint32_t bytes)
{
    ++p.sent;
    p.sizes.push_back(bytes);
    p.inFlight += bytes;
}

void skippedForQueue(User *u, Peer &p, Method m)
{
    p.full = true;
    ++p.skipped;
    p.missed.insert(m);
    if (p.sent == p.acked)
        recheckLater(u);
}

void ownerChanged(User *u, const std::string &name, const std::string &before,
                  const std::string &now)
{
    if (!u->tracking)
        return;
    if (!before.empty()) {
        auto it = u->peers.find(before);
        if (it != u->peers.end() && it->second.busName == name)
            u->peers.erase(it);
    }
    if (!now.empty() && now != self(u)) {
        peer(u, now, name);
        ask(u, now);
    }
}

void readFrom(User *u, sd_bus_message *m)
{
    if (!sd_bus_message_is_signal(m, nullptr, nullptr))
        return;
    const char *dest = sd_bus_message_get_destination(m), *path = sd_bus_message_get_path(m);
    const char *sender = sd_bus_message_get_sender(m);
    if (dest == nullptr || path == nullptr || sender == nullptr || *dest != ':' ||
        std::strncmp(path, kPathPrefix, std::strlen(kPathPrefix)) != 0 ||
        std::strcmp(path, kMwPath) == 0 || userNameOwnedBy(u, sender) == nullptr)
        return;
    const void *bytes = nullptr;
    size_t size = 0;
    if (sd_bus_message_read_array(m, 'y', &bytes, &size) < 0)
        size = 0;
    sd_bus_message_rewind(m, 1);
    auto &[count, total] = u->owed[sender];
    ++count;
    total += size;
    if (count >= kAckEvery || total >= kAckBytes)
        acknowledge(u, sender);
    else if (u->ackIdle != nullptr)
        sd_event_source_set_enabled(u->ackIdle, SD_EVENT_ON);
}

void needRegistered(User *u, uint16_t num, uint16_t method)
{
    track(u, false);
    const Row row = rowOf(num, method);
    const UpdateNeed *need = findNeed(u, num, method);
    if (row.table == nullptr || row.name == nullptr || need == nullptr || need->fn == nullptr)
        return;
    const Sub s{row.table->intf, row.name};
    for (auto &[unique, p] : u->peers)
        if (p.known && p.subs.count(s) != 0 && p.told.insert({num, method}).second)
            tell(u, p, {num, method});
}

}  // namespace quibdbus
