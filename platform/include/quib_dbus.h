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
 *  - a notification is a signal (no destination) from the sender's
 *    connection, signature "ay"; a subscriber adds one match rule per
 *    notification it subscribed to.
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
 * the result of publishing a notification (whose send function returns
 * nothing). 0 for an unknown user. */
uint32_t quibDbus_lastStatus(void *user);

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

/* Runs the event loop until ranqDbus_stop(), SIGINT or SIGTERM, or until a
 * user's bus connection is lost; then delivers event 0 to every base
 * registered with ranq_addEvtBase (which tears it down). Returns 0, -ENOTCONN
 * when a connection was lost, or another negative errno. */
int ranqDbus_run(void);

/* Like ranqDbus_run, but also returns (0) after `ms` milliseconds, and
 * delivers no event: the bases stay up. For tests and benchmarks. */
int ranqDbus_runFor(uint32_t ms);

/* Makes the running loop return; safe from a handler. */
void ranqDbus_stop(void);

/* Calls fn(arg) once from the event loop, `ms` milliseconds from now (0: as
 * soon as the loop is idle). 0, or a negative errno. */
int ranqDbus_schedule(uint32_t ms, void (*fn)(void *arg), void *arg);

#ifdef __cplusplus
}
#endif

#endif /* QUIB_DBUS_H */
