// What the files of the D-Bus middleware share: its state and the helpers
// one concern offers another. One file per concern, as sd-bus splits its
// own:
//   names.cpp       escaping, bus names, addresses
//   status.cpp      statuses, their texts, log lines
//   tables.cpp      the message-management tables and their rows
//   connection.cpp  users: their connection to the bus, new and free, lost
//                   and made again
//   send.cpp        commands and notifications going out, the user's queue
//   receive.cpp     commands and notifications coming in, answers
//   subscribe.cpp   servers, subscribers, needs for updates; the user's own
//                   subscriptions as the other users learn them
//   delivery.cpp    notifications to each subscriber: the other users'
//                   subscriptions, each subscriber's window and its
//                   acknowledgements, the need-update callbacks
//   peers.cpp       who is at the other end: names' owners, credentials
//   introspect.cpp  what each object says it serves
//   loop.cpp        the event loop (ranq*)
//
// Choices, the same as the in-process stand-in's where the contract leaves
// room:
//  - A table is handed out all zero; the caller fills in every word. Its
//    name must make a path element (not empty), else it is refused.
//  - A server registration is keyed by (cmdDesc->num, method), a subscription
//    and a need for updates by (ntfyDesc->num, method), read when the call is
//    made; a NULL descriptor, one that names no live table or has no entry
//    for the method, or a user that is not ours, is refused with
//    QUIB_DBUS_E_NO_TABLE / QUIB_DBUS_E_USER. Registering again replaces the
//    handler (a) and its argument (b) in place; a need for updates keeps
//    its callback (a) and argument (b) the same way.
//  - The receive function is read from the registration's descriptor at
//    delivery time. The received body is released with the row's freeBody
//    (free() when the row has none).
//  - A message context is valid during the receive call only.
//  - Unregistering a user (quibIntf_unregUser_msgMngt) leaves its server and
//    subscriber registrations alone.
//  - No library callback runs with a registration list half-changed, so
//    handlers may register, send and answer.
//
// Everything runs on the event loop's thread; nothing here locks.
#ifndef CORVANE_DBUS_INTERNAL_H
#define CORVANE_DBUS_INTERNAL_H

#include "api.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <systemd/sd-bus.h>

#include "corvane/base.h"
#include "corvane/messages.h"
#include "loop.h"

namespace quibdbus {

constexpr const char kUserPrefix[] = "org.corvane.user.";
constexpr const char kPathPrefix[] = "/org/corvane/";
constexpr const char kIntfPrefix[] = "org.corvane.";
constexpr size_t kMaxBusName = 255;  // the bus's limit on names
constexpr uint32_t kUnknownUid = QUIB_DBUS_UID_UNKNOWN;
constexpr const char kDriver[] = "org.freedesktop.DBus";
// The middleware's own object and interface, served by every user.
constexpr const char kMwPath[] = "/org/corvane/Middleware";
constexpr const char kMwIntf[] = "org.corvane.Middleware";

// ---- state ------------------------------------------------------------------

struct Table {
    QuibMsgMngtTable *words;
    std::string name;
    std::string path;   // /org/corvane/<escaped name>
    std::string intf;   // org.corvane.<escaped name>
    uint16_t count;
};

struct User;

// A server or a subscriber of (num, method).
struct Registration {
    User *user;
    uint16_t num;
    uint16_t method;
    const CorVaneIntfDesc *desc;
    CorVaneHandler handler;
    void *arg;
    sd_bus_slot *match;  // a subscriber's match rule
};

// An object path a user serves (a table it serves, subscribes to or needs
// updates of): the table's name, looked up at each call.
struct Served {
    User *user;
    std::string table;
    sd_bus_slot *slot;
};

// What the bus says of a connection (GetConnectionCredentials).
struct Creds {
    int32_t pid = -1;             // -1: unknown (it left the bus before it was asked)
    uint32_t uid = kUnknownUid;
};

// A call to the bus driver under way; its reply runs `done`.
struct Pending {
    User *user;
    sd_bus_slot *slot;
    std::function<void(sd_bus_message *reply)> done;
};

// Who owns which corvane user name on a user's bus, as the bus said it
// (ListNames and GetNameOwner when the user joined, then NameOwnerChanged),
// in the order of the messages the connection receives: when a message is
// dispatched, the table holds the owners of the moment it was sent.
struct Owners {
    sd_bus_slot *watch = nullptr;                 // the NameOwnerChanged match
    std::map<std::string, std::string> byName;    // well-known name -> unique name
    std::set<std::string> talkedTo;               // names sent to or heard from
    std::map<std::string, Creds> creds;           // by unique name (never reused on a bus)
    std::set<std::string> refused;                // anonymous senders already logged
    std::set<std::string> queued;                 // queued for our name, already logged
};

// A notification as the bus names it: (interface, member).
using Sub = std::pair<std::string, std::string>;
// A notification as a table names it: (num, method).
using Method = std::pair<uint16_t, uint16_t>;

// Another user's connection, as a user that sends notifications sees it:
// what it subscribes to, and its window (notifications sent to it and not
// yet acknowledged).
struct Peer {
    std::string unique;             // its connection
    std::string busName;            // the corvane user name it owns
    bool known = false;             // it has told its subscriptions
    bool asking = false;            // a Subscriptions call to it is under way
    std::set<Sub> subs;
    std::set<Method> told;          // need-update callbacks made since it appeared
    uint64_t sent = 0;              // notifications sent to it
    uint64_t acked = 0;             // ... and acknowledged
    std::deque<uint32_t> sizes;     // bytes of each unacknowledged one, oldest first
    uint64_t inFlight = 0;          // their sum
    bool full = false;              // its window filled: nothing sent until it caught up
    uint64_t skipped = 0;           // notifications not sent to it since
    std::set<Method> missed;        // ... and which
    uint64_t loggedAt = 0;          // when its window filling was last logged
    uint64_t fills = 0;             // times it filled since
    bool logged = false;            // this time was logged (so is its catching up)
};

struct User {
    sd_bus *bus = nullptr;
    std::string name;
    std::string busName;
    std::string address;
    uint32_t lastStatus = 0;
    QuibDbusSendReport last{};
    QuibDbusCounters counters{};
    sd_bus_slot *filter = nullptr;
    std::vector<std::unique_ptr<Served>> served;
    Owners owners;
    sd_event_source *queueCheck = nullptr;        // the timer of checkQueue
    std::vector<std::unique_ptr<Pending>> pending;
    // Reconnection (connection.cpp).
    bool away = false;
    uint32_t backoffMs = 0;                       // until the next attempt
    uint64_t nextAttempt = 0;                     // CLOCK_MONOTONIC, microseconds
    uint64_t awaySince = 0;
    uint32_t attempts = 0;
    uint32_t refusedWith = 0;                     // the last refusal told
    sd_event_source *retry = nullptr;
    QuibDbusBusFn onBus = nullptr;
    void *onBusArg = nullptr;
    // The user's own subscriptions as others learn them (subscribe.cpp).
    sd_bus_slot *mwObject = nullptr;
    std::map<std::string, std::string> announced; // server name -> owner told
    // Delivery (delivery.cpp): as a sender ...
    bool tracking = false;
    std::map<std::string, Peer> peers;            // by unique name
    sd_bus_slot *mwMatch = nullptr;
    sd_event_source *recheck = nullptr;           // peers skipped for the user's own queue
    // ... and as a subscriber: acknowledgements owed, by sender.
    std::map<std::string, std::pair<uint32_t, uint64_t>> owed;
    sd_event_source *ackIdle = nullptr;
    // The user's queue (send.cpp): sizes of the latest messages it sent.
    std::deque<uint32_t> queued;
    uint64_t queuedBytes = 0;
    bool queueFullLogged = false;
};

struct UpdateNeed {
    User *user;
    uint16_t num;
    uint16_t method;
    QuibDbusNeedUpdateFn fn;
    void *arg;
};

// The context handed to a receive function and its handler; contexts under
// delivery are linked through `next` (they live on the delivering stack).
struct MsgCtx {
    uint16_t num;
    uint16_t method;
    User *to;
    sd_bus_message *message;
    bool answered;
    uint32_t status;
    MsgCtx *next;
};

struct State {
    std::map<uint16_t, Table> tables;
    uint16_t nextNum = 1;
    std::vector<std::unique_ptr<User>> users;
    std::vector<std::pair<User *, uint16_t>> userRegs;
    std::vector<std::unique_ptr<Registration>> servers;
    std::vector<std::unique_ptr<Registration>> subscribers;
    std::vector<UpdateNeed> updates;
    uint32_t timeoutMs = 0;  // 0: the default
    MsgCtx *live = nullptr;
    std::string namedAddress;           // quibDbus_address of "system" or "user"
    std::string addressProblem;         // quibDbus_addressProblem's last line
};

// Never destroyed: the library may call in while the process exits.
State &st();

// Runs f; an exception (out of memory) gives onError instead: nothing
// thrown crosses into C.
template <class R, class F>
R guarded(R onError, F f) noexcept
{
    try {
        return f();
    } catch (...) {
        return onError;
    }
}

// ---- names (names.cpp) --------------------------------------------------------

// [A-Za-z0-9] kept; every other byte, and a leading digit, as _xx.
std::string escape(const char *name);
std::string unescape(const char *escaped);

// ---- statuses (status.cpp) ----------------------------------------------------

// One "[QUIB-DBUS] ..." line to syslog, priority LOG_ERR; logLine at the
// priority given (LOG_WARNING, LOG_NOTICE).
void logError(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void logLine(int priority, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// The status of a failed call, from the error the bus or sd-bus gave.
uint32_t statusOfError(const sd_bus_error *error, int r);

// ---- tables (tables.cpp) ------------------------------------------------------

const Table *tableNamed(const std::string &name);
uint16_t numOf(const Table *t);

// The body callbacks and names of one method, from its table.
struct Row {
    const Table *table = nullptr;
    const char *name = nullptr;
    CorVaneFreeBodyFn freeBody = nullptr;
    CorVaneSerializeBodyFn serialize = nullptr;
};

Row rowOf(uint16_t num, uint16_t method);
void releaseBody(CorVaneFreeBodyFn freeBody, void *body);
uint32_t checkDesc(const CorVaneIntfDesc *desc, uint16_t method);

// ---- users (connection.cpp) ---------------------------------------------------

User *userOf(const void *handle);
// The connection was found lost (a send or call failed with it): the user
// is away from now on, and the middleware reconnects (or the loop ends,
// under ranqDbus_exitOnBusLoss).
void lostConnection(User *u);
// While away: tries to connect again if an attempt is due; whether the user
// is on the bus.
bool onBus(User *u);
uint64_t nowUs();
// A client connection to the user's bus, started, whose calls time out
// after timeoutUs. Null in *bus on failure.
int startClient(const User *u, uint64_t timeoutUs, sd_bus **bus);

// ---- sending (send.cpp) -------------------------------------------------------

uint32_t timeoutMs();
uint32_t sendCommand(User *u, void *body, const char *userName, uint16_t num, uint16_t method);
uint32_t sendNotification(User *u, void *body, uint16_t num, uint16_t method, const char *toUser);
// Whether the user's queue to the bus has room for `bytes` more.
bool queueHasRoom(User *u, uint32_t bytes);
// Sends m (sealing it), and counts it in the user's queue.
int sendQueued(User *u, sd_bus_message *m, uint32_t bytes);

// ---- receiving (receive.cpp) --------------------------------------------------

bool isLive(const MsgCtx *ctx);
// A method call to a path a user serves (userdata: the Served).
int onMethodCall(sd_bus_message *m, void *userdata, sd_bus_error *error);
// A notification signal matched by a subscription, broadcast or sent to this
// connection alone (userdata: the Registration); taken only from the owner
// of a corvane user name (senderIsUser).
int onSignal(sd_bus_message *m, void *userdata, sd_bus_error *);

// ---- peers (peers.cpp) ----------------------------------------------------------

// After the user took its name: follows the owners of every corvane user
// name on its bus, and checks now and then who queues for its own name.
// 0, or a negative errno.
int watchPeers(User *u);
// Stops all of that and drops the calls under way (the user is going).
void unwatchPeers(User *u);
// The corvane user name (unescaped) that the connection `unique` owns, or
// "" when it owns none; one of them if it owns several.
std::string userNameOf(const User *u, const char *unique);
// Whether the notification's sender owns a corvane user name; if not, logs
// its refusal once per sender connection (with its pid and uid).
bool senderIsUser(User *u, sd_bus_message *m);
// Remembers that the user talks to that well-known name: a later change of
// its owner is logged.
void talksTo(User *u, const char *busName);
// The credentials of a connection (cached; else asked of the bus now).
Creds credsOf(User *u, const char *unique);
// Why the name could not be taken: logs its owner, pid and uid.
void logOwner(User *u, const char *busName);
// Calls then(credentials of unique): at once when known, else once the bus
// has answered.
void withCreds(User *u, const std::string &unique, std::function<void(const Creds &)> then);
// " (pid 123, uid 1000)", or what is known of it.
std::string describe(const Creds &c);
// Calls member() of dest without waiting; `done` gets the reply (an error
// reply too: a timeout's after timeoutUs, none with UINT64_MAX). Dropped
// with the user's connection. 0, or a negative errno.
int callAsync(User *u, const std::string &dest, const char *path, const char *intf,
              const char *member, uint64_t timeoutUs, std::function<void(sd_bus_message *)> done);

// ---- introspection (introspect.cpp) --------------------------------------------

// Answers Introspect, and Properties calls for the table's interface, on an
// object the user serves: > 0 when answered (or < 0 with the error), 0 when
// the call is not one of those.
int answerIntrospection(sd_bus_message *m, const Served &served, sd_bus_error *error);

// ---- servers and subscribers (subscribe.cpp) ----------------------------------

Registration *findReg(std::vector<std::unique_ptr<Registration>> &regs, const User *user,
                      uint16_t num, uint16_t method);
UpdateNeed *findNeed(const User *user, uint16_t num, uint16_t method);
// On a new connection: the user's objects, match rules and the middleware's
// object again, and its subscriptions told to everyone. 0 or a negative
// errno.
int restoreRegistrations(User *u);
// Drops the slots that tie the registrations to the connection going away
// (the registrations stay).
void releaseRegistrations(User *u);
// Before a command to busName: tells that server the user's subscriptions
// if it has not been told them by its current owner.
void announceTo(User *u, const char *busName);

// ---- delivery (delivery.cpp) ----------------------------------------------------

// On a new connection: follows the middleware's signals (acknowledgements,
// subscriptions), and the other users' subscriptions if it did before.
int startDelivery(User *u);
// Drops all of it (the connection is going away).
void stopDelivery(User *u);
// The user sends notifications or needs updates from now on: learns who
// subscribes to what. With `now`, waits (a bounded time) for the answers.
void track(User *u, bool now);
// The connections that subscribe to (intf, member) and are sent it, for
// toUser alone when not NULL (well-known name escaped as on the bus).
std::vector<Peer *> subscribersOf(User *u, const std::string &intf, const std::string &member,
                                  const char *toBusName);
// Whether the peer's window takes `bytes` more; if not (or it is full),
// counts the notification as skipped for it.
bool windowTakes(User *u, Peer &p, uint32_t bytes, Method m);
// Sent to the peer: counts it in its window.
void sentTo(Peer &p, uint32_t bytes);
// Not sent to the peer because the user's own queue is full: it is
// re-synced once the queue has room.
void skippedForQueue(User *u, Peer &p, Method m);
// A name's owner changed (from peers.cpp).
void ownerChanged(User *u, const std::string &name, const std::string &before,
                  const std::string &now);
// A notification sent to this connection alone was read (from the filter).
void readFrom(User *u, sd_bus_message *m);
// The user registered a need for updates of (num, method): tells it about
// the subscribers present.
void needRegistered(User *u, uint16_t num, uint16_t method);
// The subscriptions a connection told (its answer or its signal).
void subscriptionsOf(User *u, const std::string &unique, sd_bus_message *m);
// Reads an a(ss) of subscriptions.
bool readSubs(sd_bus_message *m, std::set<Sub> &out);

}  // namespace quibdbus

#endif  // CORVANE_DBUS_INTERNAL_H
