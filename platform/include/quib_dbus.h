/*
 * The middleware (quib.h) and event loop (ranq.h) over D-Bus:
 * libcorvane_dbus.so.1, built on sd-bus and sd-event, with dbus-daemon as
 * the broker.
 *
 * Naming on the bus:
 *  - a user is one bus connection that owns the well-known name
 *    "org.corvane.user." + escape(user name) (quibDbus_busName): bytes
 *    [A-Za-z0-9] are kept, every other byte, and a leading digit, becomes
 *    '_' and two lower-case hex digits ("voice-1" -> org.corvane.user.voice_2d1);
 *  - a table (quibCore_getBase_msgMngt) named T is the object path
 *    /org/corvane/T and the interface org.corvane.T (T escaped the same way;
 *    the library's tables are "CorVaneCmd" and "CorVaneNtfy"); the member is
 *    the method's row name ("SetLineCallState");
 *  - a command is a method call to the server user's well-known name with
 *    one argument "ay", the body as the row's serializeBody wrote it. The
 *    answer is a method return "u": the status the server gave through
 *    quibCore_sendMsgRes while receiving (20 when the library found no
 *    handler), 0 when the handler ran and gave none, or the status of the
 *    bounded body decoder when it refused the bytes (2 envelope or magic,
 *    4 payload);
 *  - a notification is a signal, signature "ay", sent by the sending user
 *    to each subscriber of it on its own (the destination is the
 *    subscriber's unique name), never broadcast: see "Delivery" below. A
 *    subscriber also adds one match rule per notification it subscribed to,
 *    so that a broadcast one (a tool's, or another middleware's) reaches it.
 *
 * Who is who (the bus tells, never the message):
 *  - a notification, broadcast or sent to the subscriber alone, is handed on
 *    only when its sender owned a corvane user name ("org.corvane.user.*")
 *    when it sent it; any other sender's is dropped, and logged once per
 *    sender connection with its unique name, pid and uid;
 *  - a user takes its name without queueing and without letting anyone
 *    replace it: a name owned by another connection fails with
 *    QUIB_DBUS_E_NAME_TAKEN, logging the owner's pid and uid; every 2 s the
 *    user asks the bus who queues behind it for its name and logs each one
 *    (it would get the name when this user leaves); a name the user talks
 *    to that gets a new owner is logged with the new owner's pid and uid;
 *  - quibDbus_ctxPeer gives a handler its sender's user name, pid and uid.
 *    Commands are handed on whoever sends them: a server checks the caller
 *    with it, and the bus's policy says who may call.
 *
 * Introspection: each object path a user serves (a table it serves,
 * subscribes to or needs updates of) answers
 * org.freedesktop.DBus.Introspectable with the table's interface: a method
 * ("body" ay in, "status" u out) per command the user serves, a signal
 * ("body" ay) per notification it subscribes to (annotated
 * org.corvane.Subscribed) and, for the side that needs updates (it sends the
 * table's notifications), a signal per notification of the table, those it
 * needs updates of annotated org.corvane.NeedsUpdate.
 *
 * Delivery (why: a subscriber that stops reading must not stall the
 * others; the bus charges every message to its sender until all its
 * recipients have read it, and stops reading a sender past its limit, 127 MB
 * on the system bus, so one frozen subscriber of broadcast signals stalls
 * the sender's commands and every other subscriber):
 *  - every user serves org.corvane.Middleware at /org/corvane/Middleware:
 *    method Subscriptions() -> a(ss), the (interface, member) of each
 *    notification it subscribes to; signal SubscriptionsChanged(a(ss)),
 *    broadcast when they change and sent to a server before the first
 *    command to it (so the server knows them before it handles the command);
 *    signal Delivered(u), sent to a notification's sender: that many more of
 *    its notifications were read (at least every 64 messages or 256 KiB, and
 *    whenever the event loop is idle);
 *  - a user that sends a notification, or registers a need for updates,
 *    learns the subscriptions of every other user (asking them, then
 *    following SubscriptionsChanged and the owners of the names), and
 *    sends each notification to each subscriber of it;
 *  - per subscriber at most QUIB_DBUS_WINDOW_MESSAGES notifications and
 *    QUIB_DBUS_WINDOW_BYTES bytes may be unacknowledged (one always may). A
 *    subscriber whose window is full is not sent any notification (status
 *    QUIB_DBUS_E_QUEUE_FULL, counted) until it has read all it was sent; it
 *    is logged (once, then at most once a minute for the same subscriber),
 *    and when it has caught up the serving side is told to
 *    re-sync it (the need-update callback below, for each notification
 *    with one that it missed). Nothing but its acknowledgements or its
 *    leaving the bus frees a window;
 *  - a notification's send function returns nothing: its status
 *    (quibDbus_lastStatus) and per-subscriber account (quibDbus_lastSend)
 *    are settled before the send function returns, and nothing done later
 *    changes them until the user's next send.
 *
 * Need-update: a need-update registration (quibIntf_modSrv_ntfy_needUpdate)
 * gives a callback (QuibDbusNeedUpdateFn). It is called from the event loop,
 * within a second, with the user name of a subscriber of that notification
 * that needs its current state: a subscriber that appears (starts, restarts,
 * reconnects, or subscribes to it), every subscriber present when the
 * serving side itself registers, restarts or reconnects, and a subscriber
 * that has caught up after its window was full and it missed that
 * notification. The serving side pushes the state to that user alone
 * (the second destination value of corVane_sendReq_ntfy<M>, below).
 *
 * The middleware values of the library's functions, as this middleware
 * uses them:
 *  - corVane_modSrv_recvMsg_<m>(user, a, b, c) and
 *    corVane_modCliNtfyUser_recvMsg_<m>(user, a, b, c, busName, userName):
 *    a = the handler (CorVaneHandler, as a pointer), b = its argument, c
 *    reserved (NULL); busName and userName are not used (the user's name
 *    is the one given to quibDbus_newUser);
 *  - corVane_modSrv_needUpdate_ntfy<M>(user, a, b, c): a = the need-update
 *    callback (QuibDbusNeedUpdateFn, as a pointer; NULL: the need is only
 *    recorded, quibDbus_needsUpdate), b = its argument, c reserved (NULL);
 *  - corVane_sendReq_ntfy<M>(user, d1, d2, ...): d1 reserved (NULL); d2 =
 *    a user name (const char *): that user alone, if it subscribes to the
 *    notification (else QUIB_DBUS_E_NO_SERVER); NULL: every subscriber;
 *  - corVane_sendReq_<m>(user, arg, userName, ...): arg is not used.
 *  Registering again replaces the handler (or callback) and its argument.
 *
 * Bounds: besides the windows, a user's own queue of messages that sd-bus
 * has not yet written to the bus holds at most QUIB_DBUS_QUEUE_MESSAGES
 * messages and QUIB_DBUS_QUEUE_BYTES bytes (one message always fits; the
 * largest body is about 200 KB): past it a send fails at once with
 * QUIB_DBUS_E_QUEUE_FULL (a notification's subscribers are re-synced once
 * the queue has room again). The user's memory for messages going out is so
 * bounded by QUEUE_BYTES plus one message, and what the bus holds for it by
 * WINDOW_BYTES plus one message per subscriber.
 *
 * Reconnection: a user whose connection is lost keeps its handle. It is away
 * (sends fail at once with QUIB_DBUS_E_AWAY) while the middleware connects
 * again from the event loop, first after 50 ms, then doubling to every
 * 500 ms, and on a send that finds an attempt due; back, it owns its name
 * again, serves what it served, subscribes to what it subscribed to and
 * keeps its needs for updates (so its serving side is told about every
 * subscriber present), and the process is told (quibDbus_onBus). A process
 * that prefers to exit calls ranqDbus_exitOnBusLoss(1): then the loop
 * returns -ENOTCONN on a lost connection, as a supervisor expects.
 *
 * A command that timed out (QUIB_DBUS_E_TIMEOUT) may still have run, or may
 * still run: the server got it and may answer after the caller gave up. A
 * caller that sends it again may apply it twice.
 *
 * Received bytes are read only with corVane_unserializeBody_bounded, never
 * with the row's unserializeBody callback: a malformed body gets the
 * library's status and log line and is dropped before any receive function
 * sees it.
 *
 * Sending a command is synchronous and bounded: the call waits at most the
 * timeout (QUIB_DBUS_TIMEOUT_MS, $CORVANE_BUS_TIMEOUT_MS, quibDbus_setTimeout)
 * for the answer. While it waits, the process serves nothing else, so a
 * command between two users of the same single-threaded process ends in
 * QUIB_DBUS_E_TIMEOUT: give each side its own process. Sending a
 * notification does not wait. The middleware owns and releases (freeBody)
 * every body it is given, whatever happens.
 *
 * Everything runs on the thread that runs the event loop (ranqDbus_run); no
 * function is safe to call from another thread.
 */
#ifndef QUIB_DBUS_H
#define QUIB_DBUS_H

#include <stddef.h>
#include <stdint.h>

#include "quib.h"
#include "ranq.h"

#ifdef __cplusplus
extern "C" {
#endif

#define QUIB_DBUS_TIMEOUT_MS 5000u

/* Statuses of the middleware, beside the library's own (0, 1..5, 20). */
#define QUIB_DBUS_E_NO_BUS 0x61u       /* no address given, or the bus cannot be reached */
#define QUIB_DBUS_E_NO_SERVER 0x62u    /* nobody owns the destination's name, or it serves no such method */
#define QUIB_DBUS_E_TIMEOUT 0x63u      /* no answer within the timeout */
#define QUIB_DBUS_E_DISCONNECTED 0x64u /* the server or the bus went away during the call */
#define QUIB_DBUS_E_NO_TABLE 0x65u     /* no table, row or serializer for the method */
#define QUIB_DBUS_E_SERIALIZE 0x66u    /* serializeBody failed */
#define QUIB_DBUS_E_NAME_TAKEN 0x67u   /* the user's name is owned by another connection */
#define QUIB_DBUS_E_BUS 0x68u          /* any other error reported by the bus */
#define QUIB_DBUS_E_USER 0x69u         /* not a user of this middleware, or a name that cannot be one */
#define QUIB_DBUS_E_DENIED 0x6au       /* the bus's policy refused it: owning the name, or the call */
#define QUIB_DBUS_E_QUEUE_FULL 0x6bu   /* queue full: the user's queue to the bus, or a subscriber's window */
#define QUIB_DBUS_E_AWAY 0x6cu         /* away: the bus connection was lost, the middleware reconnects */

/* Per subscriber: notifications sent and not yet acknowledged (see Delivery). */
#define QUIB_DBUS_WINDOW_MESSAGES 256u
#define QUIB_DBUS_WINDOW_BYTES (1024u * 1024u)
/* Per user: messages sd-bus has not yet written to the bus. */
#define QUIB_DBUS_QUEUE_MESSAGES 256u
#define QUIB_DBUS_QUEUE_BYTES (4u * 1024u * 1024u)

/* The bus address: `address` when given and not empty, else $CORVANE_BUS
 * when set and not empty, else NULL. Two names stand for a bus found as
 * sd-bus finds it: "system" ($DBUS_SYSTEM_BUS_ADDRESS, else
 * unix:path=/run/dbus/system_bus_socket) and "user" ($DBUS_SESSION_BUS_ADDRESS,
 * else unix:path=$XDG_RUNTIME_DIR/bus; NULL when neither is set). The text
 * returned for a name stays valid until the next call. */
const char *quibDbus_address(const char *address);

/* NULL when `address` reads as a D-Bus address (transport:key=value), else
 * one line that says why not, for the user: no address at all, or a path
 * given for an address ("/tmp/x/bus is a path, not a bus address: give
 * unix:path=/tmp/x/bus"). Valid until the next call. quibDbus_newUser
 * refuses such an address with QUIB_DBUS_E_NO_BUS and logs the line. */
const char *quibDbus_addressProblem(const char *address);

/* Connects to the bus at quibDbus_address(address), takes the user's
 * well-known name and attaches the connection to the event loop. Returns the
 * user handle (also its own core user), or NULL with *status set
 * (QUIB_DBUS_E_NO_BUS, _NAME_TAKEN, _USER, _BUS); status may be NULL. */
void *quibDbus_newUser(const char *name, const char *address, uint32_t *status);

/* Drops the user's registrations, flushes and closes its connection. */
void quibDbus_freeUser(void *user);

/* Writes the well-known name of a user name into out. 0, or -1 when the
 * name is empty or the result does not fit in size bytes (or in the bus's
 * 255-byte limit). */
int quibDbus_busName(const char *userName, char *out, size_t size);

/* The timeout of a command, in milliseconds; 0 restores the default
 * ($CORVANE_BUS_TIMEOUT_MS when it holds a number, else QUIB_DBUS_TIMEOUT_MS). */
void quibDbus_setTimeout(uint32_t ms);
uint32_t quibDbus_timeout(void);

/* The status of the user's last send: a command's answer or failure, or
 * the result of sending a notification (whose send function returns
 * nothing): 0 when it was sent to every subscriber it was for (or there
 * was none), QUIB_DBUS_E_QUEUE_FULL when at least one was skipped,
 * QUIB_DBUS_E_AWAY while reconnecting, QUIB_DBUS_E_NO_SERVER for a
 * notification to a user (second destination value) that does not
 * subscribe to it, else the first failure. Settled before the send function
 * returns. 0 for an unknown user. */
uint32_t quibDbus_lastStatus(void *user);

/* The account of the user's last send. */
typedef struct QuibDbusSendReport {
    uint32_t status;      /* as quibDbus_lastStatus */
    uint32_t subscribers; /* a notification: the subscribers it was for */
    uint32_t sent;        /* messages handed to the bus (a command: 1) */
    uint32_t queueFull;   /* subscribers skipped: window or queue full */
    uint32_t failed;      /* subscribers not sent to for another failure */
} QuibDbusSendReport;

/* Fills *report with the account of the user's last send. 0, or -1 for an
 * unknown user or a NULL report. */
int quibDbus_lastSend(void *user, QuibDbusSendReport *report);

/* What a user has done since quibDbus_newUser. */
typedef struct QuibDbusCounters {
    uint64_t commands;          /* commands sent (whatever their answer) */
    uint64_t notifications;     /* notification messages handed to the bus, one per subscriber */
    uint64_t queueFull;         /* notifications not sent to a subscriber: window or queue full */
    uint64_t failed;            /* sends (or a subscriber's part of one) failed otherwise */
    uint64_t stalls;            /* times a subscriber's window filled */
    uint64_t resyncs;           /* need-update callbacks made */
    uint64_t reconnections;     /* times the user came back on the bus */
} QuibDbusCounters;

/* Fills *counters. 0, or -1 for an unknown user or a NULL pointer. */
int quibDbus_counters(void *user, QuibDbusCounters *counters);

/* The need-update callback (see Need-update above): `userName` is the
 * subscriber that needs the current state of notification `method` of the
 * table numbered `num` (corVane_getNtfyIntfNum()). Called from the event
 * loop; it may send. */
typedef void (*QuibDbusNeedUpdateFn)(void *user, const char *userName, uint16_t num,
                                     uint16_t method, void *arg);

/* Told when the user's connection is lost (QUIB_DBUS_E_AWAY; the middleware
 * reconnects) and when it is back (0), and once per other status that
 * refuses a reconnection (QUIB_DBUS_E_NAME_TAKEN, QUIB_DBUS_E_DENIED: it
 * goes on trying). Called from the event loop. NULL: not told. */
typedef void (*QuibDbusBusFn)(void *user, uint32_t status, void *arg);
void quibDbus_onBus(void *user, QuibDbusBusFn fn, void *arg);

/* 0 while the user is on the bus, QUIB_DBUS_E_AWAY while it reconnects,
 * QUIB_DBUS_E_USER for an unknown user. */
uint32_t quibDbus_busStatus(void *user);

/* One line of text for a status: 0, the library's 1..5 and 20, and
 * QUIB_DBUS_E_*; "unknown status" otherwise. */
const char *quibDbus_strerror(uint32_t status);

/* Whether the user registered a need for updates of that notification
 * (quibIntf_modSrv_ntfy_needUpdate): 1 or 0. */
int quibDbus_needsUpdate(void *user, uint16_t num, uint16_t method);

/* The process id behind a user name on the user's bus, or -1 when nobody
 * owns the name (or the bus cannot tell). */
int32_t quibDbus_userPid(void *user, const char *userName);

/* The uid of a peer the bus cannot tell (the value of (uid_t)-1, never a user's). */
#define QUIB_DBUS_UID_UNKNOWN 0xffffffffu

/* Who sent a message, as the bus tells it; nothing is taken from the
 * message itself. */
typedef struct QuibDbusPeer {
    char userName[256];   /* the user name whose well-known name the sending
                           * connection owned when it sent ("mgmt"); "" when
                           * it owned none (never for a notification: one
                           * from such a sender is refused before delivery) */
    char uniqueName[256]; /* the sending connection's unique name (":1.42") */
    int32_t pid;          /* its process id, -1 when the bus cannot tell (it has
                           * left the bus already) */
    uint32_t uid;         /* its user id, QUIB_DBUS_UID_UNKNOWN likewise */
} QuibDbusPeer;

/* For a message context handed to a receive function and its handler: the
 * sender of the command or notification under delivery. pid and uid are
 * asked of the bus (GetConnectionCredentials) the first time a connection
 * is asked about, then remembered. A server checks who calls it with this:
 * the middleware hands on every well-formed command, whoever sends it (on a
 * bus with the corvane policy, only the allowed users can). 0, or -1 for a
 * context that is not under delivery or a NULL peer. */
int quibDbus_ctxPeer(void *ctx, QuibDbusPeer *peer);

/* The same, as it was first given: the sending user's name (its
 * connection's unique name when it owns no user name) and process id (-1 if
 * unknown). 0, or -1 for a context that is not under delivery. userName may
 * be NULL; so may pid. */
int quibDbus_ctxSender(void *ctx, char *userName, size_t size, int32_t *pid);

/* Runs the event loop until ranqDbus_stop(), SIGINT or SIGTERM (or, after
 * ranqDbus_exitOnBusLoss(1), until a user's bus connection is lost; else
 * the middleware reconnects); then delivers event 0 to every base
 * registered with ranq_addEvtBase (which tears it down). Returns 0, -ENOTCONN
 * when a connection was lost under ranqDbus_exitOnBusLoss(1), or another
 * negative errno. */
int ranqDbus_run(void);

/* Like ranqDbus_run, but also returns (0) after `ms` milliseconds, and
 * delivers no event: the bases stay up. For tests and benchmarks. */
int ranqDbus_runFor(uint32_t ms);

/* 1: a lost bus connection is not reconnected; the running loop returns
 * -ENOTCONN (the daemons' --exit-on-bus-loss). 0 (the default): users
 * reconnect. */
void ranqDbus_exitOnBusLoss(int exit);

/* Makes the running loop return; safe from a handler. */
void ranqDbus_stop(void);

/* Calls fn(arg) once from the event loop, `ms` milliseconds from now (0: as
 * soon as the loop is idle). 0, or a negative errno. */
int ranqDbus_schedule(uint32_t ms, void (*fn)(void *arg), void *arg);

#ifdef __cplusplus
}
#endif

#endif /* QUIB_DBUS_H */
