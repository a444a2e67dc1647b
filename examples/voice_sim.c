/*
 * corvane-voice-sim: a simulated voice service on the bus. It subscribes to
 * all 30 notifications, waits until the management side's user (--to,
 * "mgmt" by default) is on the bus, then sends all 19 commands to it,
 * SetCapabilities (its hello) first.
 *
 * One line per message on stdout, naming the sending and the receiving
 * process; the library's and the middleware's log lines on stderr.
 *
 * Usage: corvane-voice-sim [--bus ADDRESS] [--name USER] [--to USER] [--once]
 *                          [--exit-on-bus-loss]
 *   --once  exit 0 as soon as the 19 commands are answered (status 0) and
 *           the 30 notifications received; exit 1 naming what is missing
 *           after 10 s, or as soon as a command failed.
 *   --exit-on-bus-loss  exit 1 when the bus goes away, rather than staying
 *           up and reconnecting (for a supervisor that restarts it)
 * Without --once it runs until SIGINT or SIGTERM (exit 0). The bus going
 * away is one line ("the bus went away; reconnecting"), and one more when it
 * is back; the management side then pushes its configuration again.
 */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "corvane/corvane.h"
#include "quib_dbus.h"
#include "sim.h"

#define ONCE_MS 10000u

static SimOptions opt;
static void *user;
static char self[300], server[300];
static int32_t serverPid = -1;
static uint32_t answers[CORVANE_CMD_COUNT]; /* status of each command; ~0 not sent */
static unsigned char received[CORVANE_NTFY_COUNT];
static int exitStatus, reported;
static struct timespec started;

static uint32_t elapsedMs(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (uint32_t)((now.tv_sec - started.tv_sec) * 1000 + (now.tv_nsec - started.tv_nsec) / 1000000);
}

/* One line naming every command not answered with 0 and every notification
 * not received. */
static void reportMissing(const char *why)
{
    unsigned i, commands = 0, notifications = 0;
    reported = 1;
    for (i = 0; i < CORVANE_CMD_COUNT; ++i) commands += answers[i] != 0;
    for (i = 0; i < CORVANE_NTFY_COUNT; ++i) notifications += !received[i];
    fprintf(stderr, "corvane-voice-sim: %s; missing %u answers and %u notifications:", why,
            commands, notifications);
    for (i = 0; i < CORVANE_CMD_COUNT; ++i) {
        if (answers[i] == 0) continue;
        fprintf(stderr, " %s(", corVane_messageInfo(CORVANE_INTF_CMD, i)->name);
        if (answers[i] == ~0u)
            fprintf(stderr, "not sent)");
        else
            fprintf(stderr, "0x%x %s)", (unsigned)answers[i], quibDbus_strerror(answers[i]));
    }
    for (i = 0; i < CORVANE_NTFY_COUNT; ++i)
        if (!received[i]) fprintf(stderr, " %s", corVane_messageInfo(CORVANE_INTF_NTFY, i)->name);
    fprintf(stderr, "\n");
}

static void checkDone(void)
{
    unsigned i;
    if (!opt.once) return;
    for (i = 0; i < CORVANE_CMD_COUNT; ++i)
        if (answers[i] != 0) return;
    for (i = 0; i < CORVANE_NTFY_COUNT; ++i)
        if (!received[i]) return;
    exitStatus = 0;
    ranqDbus_stop();
}

static void onDeadline(void *arg)
{
    (void)arg;
    reportMissing("no complete exchange after 10 s");
    exitStatus = 1;
    ranqDbus_stop();
}

/* ---- receiving the notifications --------------------------------------------- */

static uint32_t onNotification(void *ctx, void *arg, void *payload)
{
    const CorVaneMessageInfo *m = (const CorVaneMessageInfo *)arg;
    char sender[256] = "?", who[300];
    int32_t pid = -1;
    int sample = sim_isSample(m, payload);

    quibDbus_ctxSender(ctx, sender, sizeof sender, &pid);
    printf("%s <- %s %s: notification, %lu bytes, %s\n", self, sim_who(who, sizeof who, sender, pid),
           m->name, (unsigned long)sim_wireLength(m, payload),
           sample ? "sample payload" : "payload differs from the sample");
    if (sample) received[m->index] = 1;
    checkDone();
    return 0;
}

/* ---- sending the commands ------------------------------------------------------ */

#define ARGS_RECORD(P, p) (const P *)(p)
#define ARGS_SCALAR(P, p) ARGS_##P((const P *)(p))
#define ARGS_CorVaneRepeaterId(v) (v)->repeaterId
#define ARGS_CorVaneBatteryEnable(v) (v)->enable

#define SEND(index, Name, name, NAME, magic, key, env, P, shape)                                  \
    {                                                                                             \
        const CorVaneMessageInfo *m = corVane_messageInfo(CORVANE_INTF_CMD, index);               \
        void *p = sim_newSample(m);                                                               \
        if (!p) return;                                                                           \
        if (opt.once) { /* no answer may outlast the 10 s */                                      \
            uint32_t left = elapsedMs() < ONCE_MS ? ONCE_MS - elapsedMs() : 1;                    \
            quibDbus_setTimeout(left < QUIB_DBUS_TIMEOUT_MS ? left : 0);                          \
        }                                                                                         \
        answers[index] = corVane_sendReq_##name(user, NULL, opt.to, ARGS_##shape(P, p));          \
        printf("%s -> %s %s: command, %lu bytes, answer 0x%x (%s)\n", self, server, #Name,        \
               (unsigned long)sim_wireLength(m, p), (unsigned)answers[index],                     \
               quibDbus_strerror(answers[index]));                                                \
        free(p);                                                                                  \
    }

static void sendAll(void)
{
    unsigned i;
    CORVANE_COMMANDS(SEND)
    for (i = 0; i < CORVANE_CMD_COUNT; ++i) {
        if (opt.once && answers[i] != 0) {
            reportMissing("a command failed");
            exitStatus = 1;
            ranqDbus_stop();
            return;
        }
    }
    checkDone();
}

/* Polls until the server's user is on the bus, then sends. */
static void waitForServer(void *arg)
{
    static int told;
    (void)arg;
    serverPid = quibDbus_userPid(user, opt.to);
    if (serverPid < 0) {
        if (!told++) printf("%s: waiting for %s on the bus\n", self, opt.to);
        ranqDbus_schedule(50, waitForServer, NULL);
        return;
    }
    sim_who(server, sizeof server, opt.to, serverPid);
    sendAll();
}

#define HANDLER ((void *)(uintptr_t)onNotification)
#define INFO(intf, index) ((void *)(uintptr_t)corVane_messageInfo(intf, index))
#define SUBSCRIBE(index, Name, name, NAME, magic, key, nu, P, shape)                              \
    failed |= corVane_modCliNtfyUser_recvMsg_##name(user, HANDLER, INFO(CORVANE_INTF_NTFY, index), \
                                                    NULL, busName, me) != 0;

int main(int argc, char **argv)
{
    uint32_t status = 0;
    unsigned i;
    int failed = 0, rc = sim_start(argc, argv, SIM_VOICE, &opt);
    char busName[256];
    const char *me;

    if (rc >= 0) return rc;
    clock_gettime(CLOCK_MONOTONIC, &started);
    for (i = 0; i < CORVANE_CMD_COUNT; ++i) answers[i] = ~0u;
    if (corvane_initialize() != CORVANE_OK) return 1;
    user = quibDbus_newUser(opt.name, opt.bus, &status);
    if (!user) {
        fprintf(stderr, "corvane-voice-sim: cannot join the bus at %s as %s: %s (0x%x)\n", opt.bus,
                opt.name, quibDbus_strerror(status), (unsigned)status);
        return 1;
    }
    sim_who(self, sizeof self, opt.name, (long)getpid());
    sim_followBus(user, self);
    quibDbus_busName(opt.name, busName, sizeof busName);
    me = opt.name;
    failed |= corVane_regUser_msgMngt(user, NULL, NULL, CORVANE_SELECT_BOTH) != 0;
    CORVANE_NOTIFICATIONS(SUBSCRIBE)
    if (failed) {
        fprintf(stderr, "corvane-voice-sim: registering with the bus failed\n");
        quibDbus_freeUser(user);
        return 1;
    }
    printf("%s: subscribed to %u notifications as %s\n", self, CORVANE_NTFY_COUNT, busName);

    exitStatus = opt.once ? 1 : 0;
    if (ranqDbus_schedule(0, waitForServer, NULL) != 0 ||
        (opt.once && ranqDbus_schedule(ONCE_MS, onDeadline, NULL) != 0))
        return 1;
    rc = ranqDbus_run();
    if (rc != 0) {
        printf("%s: the bus went away\n", self);
        if (opt.once) reportMissing("the bus went away");
        exitStatus = 1;
    } else if (!opt.once) {
        printf("%s: stopped\n", self);
    } else if (exitStatus != 0 && !reported) {
        reportMissing("stopped");
    }
    quibDbus_freeUser(user);
    return exitStatus;
}
