#define _DEFAULT_SOURCE /* LOG_PERROR */

#include "sim.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include "quib_dbus.h"

static void usage(FILE *to, const char *prog, int which)
{
    fprintf(to, "usage: %s [--bus ADDRESS] [--name USER]%s [--exit-on-bus-loss]\n", prog,
            which == SIM_VOICE ? " [--to USER] [--once]" : " [--delay MS]");
}

int sim_start(int argc, char **argv, int which, SimOptions *o)
{
    const char *prog = which == SIM_VOICE ? "corvane-voice-sim" : "corvane-mgmt-sim";
    const char *problem;
    int i;

    memset(o, 0, sizeof *o);
    o->name = which == SIM_VOICE ? "voice" : "mgmt";
    o->to = "mgmt";
    for (i = 1; i < argc; ++i) {
        const char *a = argv[i];
        const char *value = i + 1 < argc ? argv[i + 1] : NULL;
        if (strcmp(a, "--help") == 0 || strcmp(a, "-h") == 0) {
            usage(stdout, prog, which);
            return 0;
        } else if (strcmp(a, "--bus") == 0 && value) {
            o->bus = value;
        } else if (strcmp(a, "--name") == 0 && value) {
            o->name = value;
        } else if (which == SIM_VOICE && strcmp(a, "--to") == 0 && value) {
            o->to = value;
        } else if (which == SIM_VOICE && strcmp(a, "--once") == 0) {
            o->once = 1;
            continue;
        } else if (strcmp(a, "--exit-on-bus-loss") == 0) {
            o->exitOnBusLoss = 1;
            continue;
        } else if (which == SIM_MGMT && strcmp(a, "--delay") == 0 && value) {
            char *end;
            unsigned long ms = strtoul(value, &end, 10);
            if (*value == '\0' || *end != '\0' || ms > 60000) {
                fprintf(stderr, "%s: --delay takes milliseconds, 0 to 60000\n", prog);
                return 2;
            }
            o->delayMs = (unsigned)ms;
        } else {
            usage(stderr, prog, which);
            return 2;
        }
        ++i; /* the option's value */
    }
    o->bus = quibDbus_address(o->bus);
    problem = quibDbus_addressProblem(o->bus);
    if (problem) {
        fprintf(stderr, "%s: %s\n", prog, problem);
        return 2;
    }
    ranqDbus_exitOnBusLoss(o->exitOnBusLoss);
    setvbuf(stdout, NULL, _IOLBF, 0);
    /* No syslog daemon on a developer's machine or in a container: the
     * library's lines go to stderr as well. */
    openlog(prog, LOG_PERROR | LOG_PID, LOG_DAEMON);
    return -1;
}

/* ---- sample payloads ------------------------------------------------------ */

static void fill(const CorVaneSchema *s, unsigned char *rec, uint32_t *next)
{
    uint32_t i, j;
    for (i = 0; i < s->fieldCount; ++i) {
        const CorVaneField *f = &s->fields[i];
        unsigned char *at = rec + f->offset;
        switch (f->kind) {
        case CORVANE_FIELD_U32: {
            uint32_t v = (*next)++;
            memcpy(at, &v, sizeof v);
            break;
        }
        case CORVANE_FIELD_TEXT:
            snprintf((char *)at, f->capacity, "%s", f->name);
            break;
        case CORVANE_FIELD_RECORD:
            fill(f->record, at, next);
            break;
        default: {
            uint32_t used = f->capacity;
            if (f->kind == CORVANE_FIELD_ARRAY) {
                uint32_t two = 2; /* the count field comes just before the array */
                memcpy(rec + s->fields[i - 1].offset, &two, sizeof two);
                used = 2;
            }
            for (j = 0; j < used; ++j) fill(f->record, at + (size_t)j * f->record->size, next);
            break;
        }
        }
    }
}

void *sim_newSample(const CorVaneMessageInfo *m)
{
    unsigned char *p = calloc(1, m->payload->size);
    uint32_t next = 1000u * (m->intf * 100u + m->index + 1u);
    if (p) fill(m->payload, p, &next);
    return p;
}

int sim_isSample(const CorVaneMessageInfo *m, const void *payload)
{
    void *sample = sim_newSample(m);
    int same = sample && memcmp(sample, payload, m->payload->size) == 0;
    free(sample);
    return same;
}

uint32_t sim_wireLength(const CorVaneMessageInfo *m, const void *payload)
{
    return 24u + corVane_record_serialize_lg(m->payload, payload);
}

const char *sim_who(char *out, unsigned size, const char *name, long pid)
{
    snprintf(out, size, "%s[%ld]", name, pid);
    return out;
}

static void onBus(void *user, uint32_t status, void *arg)
{
    (void)user;
    if (status == QUIB_DBUS_E_AWAY)
        printf("%s: the bus went away; reconnecting\n", (const char *)arg);
    else if (status == 0)
        printf("%s: back on the bus\n", (const char *)arg);
    else
        printf("%s: the bus is back but refuses it: %s (0x%x)\n", (const char *)arg,
               quibDbus_strerror(status), (unsigned)status);
}

void sim_followBus(void *user, const char *self)
{
    quibDbus_onBus(user, onBus, (void *)(uintptr_t)self);
}
