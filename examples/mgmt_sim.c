/*
 * corvane-mgmt-sim: a simulated management side on the bus. It serves all
 * 19 commands and subscribes to nothing. Its configuration is the sample
 * payload of the 14 notifications that have a need for updates: it
 * registers that need with a callback, and the middleware calls it whenever
 * a subscriber needs one of them (a voice service appears, starts again or
 * reconnects, this process starts or reconnects under running voice
 * services, or a subscriber has caught up after missing some): it pushes
 * that notification to that subscriber. When it has served SetCapabilities,
 * the voice service's hello, it pushes the 16 other notifications (the
 * sample actions) to every subscriber, once the answer is on its way: with
 * the 14 a voice service is pushed when it appears, it gets all 30.
 *
 * One line per message on stdout, naming the sending and the receiving
 * process; the library's and the middleware's log lines on stderr.
 *
 * Usage: corvane-mgmt-sim [--bus ADDRESS] [--name USER] [--delay MS]
 *                         [--exit-on-bus-loss]
 *   --delay MS  wait MS milliseconds before answering each command (a slow
 *               management side)
 *   --exit-on-bus-loss  exit 1 when the bus goes away, rather than staying
 *               up and reconnecting (for a supervisor that restarts it)
 * Runs until SIGINT or SIGTERM (exit 0). The bus going away is one line
 * ("the bus went away; reconnecting"), and one more when it is back.
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

static SimOptions opt;
static void *user;
static char self[300];
static char hello[300]; /* who sent the last SetCapabilities */

static void sleepMs(unsigned ms)
{
    struct timespec t;
    t.tv_sec = ms / 1000;
    t.tv_nsec = (long)(ms % 1000) * 1000000L;
    nanosleep(&t, NULL);
}

/* ---- pushing the notifications ----------------------------------------------- */

#define ARGS_RECORD(P, p) (const P *)(p)
#define ARGS_SCALAR(P, p) ARGS_##P((const P *)(p))
#define ARGS_CorVaneValues1(v) (v)->value1
#define ARGS_CorVaneValues2(v) (v)->value1, (v)->value2
#define ARGS_CorVaneValues3(v) (v)->value1, (v)->value2, (v)->value3
#define ARGS_CorVaneValues4(v) (v)->value1, (v)->value2, (v)->value3, (v)->value4
#define ARGS_CorVaneMakeCall(v) (v)->value1, (v)->value2, (v)->text1, (v)->text2, (v)->text3
#define ARGS_CorVanePingSip(v) (v)->value1, (v)->value2, (v)->value3, (v)->text1

#define SEND_CASE(index, Name, name, NAME, magic, key, nu, P, shape)                             \
    case index:                                                                                 \
        corVane_sendReq_ntfy##Name(user, NULL, (void *)(uintptr_t)to, ARGS_##shape(P, p));      \
        break;

/* Sends the sample of notification `index` to the user `to` (NULL: every
 * subscriber) and prints one line naming `who`. */
static void push(unsigned index, const char *to, const char *who)
{
    const CorVaneMessageInfo *m = corVane_messageInfo(CORVANE_INTF_NTFY, index);
    void *p = sim_newSample(m);
    QuibDbusSendReport report;
    uint32_t status;
    if (!p) return;
    switch (index) {
        CORVANE_NOTIFICATIONS(SEND_CASE)
    default:
        break;
    }
    status = quibDbus_lastStatus(user);
    /* A push that found no subscriber says so: it reached nobody. */
    if (status == 0 && quibDbus_lastSend(user, &report) == 0 && report.subscribers == 0)
        printf("%s -> * %s: notification, %lu bytes, no subscriber\n", self, m->name,
               (unsigned long)sim_wireLength(m, p));
    else
        printf("%s -> %s %s: notification, %lu bytes, %s\n", self, who, m->name,
               (unsigned long)sim_wireLength(m, p), status ? quibDbus_strerror(status) : "sent");
    free(p);
}

/* Runs from the event loop after the answer to SetCapabilities has gone out:
 * the notifications without a need for updates, to every subscriber; the
 * line names the process whose hello asked for them. */
static void pushActions(void *arg)
{
    unsigned i;
    (void)arg;
    for (i = 0; i < CORVANE_NTFY_COUNT; ++i)
        if (!(corVane_messageInfo(CORVANE_INTF_NTFY, i)->flags & CORVANE_MSG_NEED_UPDATE))
            push(i, NULL, hello);
}

/* The middleware: `userName` needs the current state of notification
 * `method`. */
static void onNeedUpdate(void *u, const char *userName, uint16_t num, uint16_t method, void *arg)
{
    char who[300];
    (void)u;
    (void)num;
    (void)arg;
    push(method, userName, sim_who(who, sizeof who, userName, (long)quibDbus_userPid(user, userName)));
}

/* ---- serving the commands -------------------------------------------------- */

static uint32_t onCommand(void *ctx, void *arg, void *payload)
{
    const CorVaneMessageInfo *m = (const CorVaneMessageInfo *)arg;
    char sender[256] = "?", who[300];
    int32_t pid = -1;

    quibDbus_ctxSender(ctx, sender, sizeof sender, &pid);
    sim_who(who, sizeof who, sender, pid);
    printf("%s <- %s %s: command, %lu bytes, %s\n", self, who, m->name,
           (unsigned long)sim_wireLength(m, payload),
           sim_isSample(m, payload) ? "sample payload" : "payload differs from the sample");
    if (opt.delayMs) sleepMs(opt.delayMs);
    if (m->index == 0) { /* SetCapabilities */
        snprintf(hello, sizeof hello, "%s", who);
        if (ranqDbus_schedule(0, pushActions, NULL) != 0)
            fprintf(stderr, "corvane-mgmt-sim: cannot schedule the notifications\n");
    }
    return 0;
}

#define HANDLER ((void *)(uintptr_t)onCommand)
#define INFO(intf, index) ((void *)(uintptr_t)corVane_messageInfo(intf, index))
#define SERVE(index, Name, name, NAME, magic, key, env, P, shape)                                 \
    failed |= corVane_modSrv_recvMsg_##name(user, HANDLER, INFO(CORVANE_INTF_CMD, index), NULL) != 0;
#define NEED_UPDATE_NEED_UPDATE(Name)                                                              \
    failed |= corVane_modSrv_needUpdate_ntfy##Name(user, (void *)(uintptr_t)onNeedUpdate, NULL,   \
                                                   NULL) != 0;
#define NEED_UPDATE_NO_UPDATE(Name)
#define NEED_UPDATE(index, Name, name, NAME, magic, key, nu, P, shape) NEED_UPDATE_##nu(Name)

int main(int argc, char **argv)
{
    uint32_t status = 0;
    unsigned needs = 0, i;
    int failed = 0, rc = sim_start(argc, argv, SIM_MGMT, &opt);
    char busName[256];

    if (rc >= 0) return rc;
    if (corvane_initialize() != CORVANE_OK) return 1;
    user = quibDbus_newUser(opt.name, opt.bus, &status);
    if (!user) {
        fprintf(stderr, "corvane-mgmt-sim: cannot join the bus at %s as %s: %s (0x%x)\n", opt.bus,
                opt.name, quibDbus_strerror(status), (unsigned)status);
        return 1;
    }
    sim_who(self, sizeof self, opt.name, (long)getpid());
    sim_followBus(user, self);
    failed |= corVane_regUser_msgMngt(user, NULL, NULL, CORVANE_SELECT_BOTH) != 0;
    CORVANE_COMMANDS(SERVE)
    CORVANE_NOTIFICATIONS(NEED_UPDATE)
    if (failed) {
        fprintf(stderr, "corvane-mgmt-sim: registering with the bus failed\n");
        quibDbus_freeUser(user);
        return 1;
    }
    for (i = 0; i < CORVANE_NTFY_COUNT; ++i)
        needs += (unsigned)quibDbus_needsUpdate(user, corVane_getNtfyIntfNum(), (uint16_t)i);
    quibDbus_busName(opt.name, busName, sizeof busName);
    printf("%s: serving %u commands as %s, needs updates of %u notifications\n", self,
           CORVANE_CMD_COUNT, busName, needs);

    rc = ranqDbus_run();
    printf("%s: %s\n", self, rc == 0 ? "stopped" : "the bus went away");
    quibDbus_freeUser(user);
    return rc == 0 ? 0 : 1;
}
