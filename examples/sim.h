/*
 * What the two simulated daemons (corvane-mgmt-sim, corvane-voice-sim)
 * share: their command line, the payload each sends for a message, and the
 * way they print a message.
 */
#ifndef CORVANE_SIM_H
#define CORVANE_SIM_H

#include <stdint.h>

#include "corvane/corvane.h"

typedef struct SimOptions {
    const char *bus;      /* --bus ADDRESS, else $CORVANE_BUS */
    const char *name;     /* --name USER */
    const char *to;       /* --to USER (voice) */
    int once;             /* --once (voice) */
    unsigned delayMs;     /* --delay MS (mgmt) */
    int exitOnBusLoss;    /* --exit-on-bus-loss */
} SimOptions;

#define SIM_VOICE 1 /* the options of corvane-voice-sim */
#define SIM_MGMT 2  /* the options of corvane-mgmt-sim */

/* Reads the command line into *o. Returns -1 to go on, else the exit status
 * (0 after --help, 2 after a usage error, which it has printed). Also makes
 * stdout line-buffered and sends the library's syslog lines to stderr too. */
int sim_start(int argc, char **argv, int which, SimOptions *o);

/* The payload the simulators send for a message: words count up from a
 * start of the message's own, texts name their field, record arrays hold two
 * entries. A block of m->payload->size bytes, or NULL; freed with free(). */
void *sim_newSample(const CorVaneMessageInfo *m);

/* Whether a received payload is exactly the one sim_newSample gives. */
int sim_isSample(const CorVaneMessageInfo *m, const void *payload);

/* The length of the serialised body that carries the payload. */
uint32_t sim_wireLength(const CorVaneMessageInfo *m, const void *payload);

/* "name[pid]" of a process on the bus, for the lines the daemons print. */
const char *sim_who(char *out, unsigned size, const char *name, long pid);

/* Prints one line when the user's bus connection is lost and when it is
 * back (quibDbus_onBus); `self` is the daemon's "name[pid]". */
void sim_followBus(void *user, const char *self);

#endif /* CORVANE_SIM_H */
