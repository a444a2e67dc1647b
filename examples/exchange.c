/*
 * An exchange between a voice service and its management side on the
 * stand-in bus: the management user serves every command and the voice
 * service subscribes to every notification; then the voice service sends
 * each of the 19 commands and the management side each of the 30
 * notifications. Every handler prints what it received.
 *
 * Usage: corvane-exchange [-v] [-o DIR]
 *   -v      print every field of every payload, not only the first ones
 *   -o DIR  also write each serialised body to DIR/<Method>.bin (for
 *           corvane decode)
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "corvane/corvane.h"
#include "quib_stub.h"

static int verbose;
static const char *outDir;
static unsigned received;

/* ---- printing a payload through its schema ------------------------------ */

static void printRecord(const CorVaneSchema *s, const unsigned char *rec, int depth, int *budget);

static void indent(int depth)
{
    printf("%*s", 4 + 2 * depth, "");
}

static uint32_t word(const unsigned char *p)
{
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

static void printField(const CorVaneSchema *s, uint32_t i, const unsigned char *rec, int depth,
                       int *budget)
{
    const CorVaneField *f = &s->fields[i];
    const unsigned char *m = rec + f->offset;
    uint32_t n, j;

    if (*budget <= 0) return;
    switch (f->kind) {
    case CORVANE_FIELD_U32:
        indent(depth);
        printf("%s = %lu\n", f->name, (unsigned long)word(m));
        --*budget;
        break;
    case CORVANE_FIELD_TEXT:
        indent(depth);
        printf("%s = \"%.*s\"\n", f->name, (int)f->capacity, (const char *)m);
        --*budget;
        break;
    case CORVANE_FIELD_RECORD:
        indent(depth);
        printf("%s: %s\n", f->name, f->record->name);
        printRecord(f->record, m, depth + 1, budget);
        break;
    default:
        n = f->capacity;
        if (f->kind == CORVANE_FIELD_ARRAY) {
            uint32_t count = word(rec + s->fields[i - 1].offset);
            if (count < n) n = count;
        }
        for (j = 0; j < n && *budget > 0; ++j) {
            indent(depth);
            printf("%s[%lu]: %s\n", f->name, (unsigned long)j, f->record->name);
            printRecord(f->record, m + (size_t)j * f->record->size, depth + 1, budget);
        }
        break;
    }
}

static void printRecord(const CorVaneSchema *s, const unsigned char *rec, int depth, int *budget)
{
    uint32_t i;
    for (i = 0; i < s->fieldCount && *budget > 0; ++i) printField(s, i, rec, depth, budget);
}

/* The handler of every message: the registration argument is its descriptor. */
static uint32_t onMessage(void *ctx, void *arg, void *payload)
{
    const CorVaneMessageInfo *m = (const CorVaneMessageInfo *)arg;
    int budget = verbose ? 1 << 30 : 4;
    (void)ctx;
    ++received;
    printf("%s %-27s received %s (%lu bytes on the wire)\n",
           m->intf == CORVANE_INTF_CMD ? "mgmt  <- cmd " : "voice <- ntfy", m->name,
           m->payload->name,
           (unsigned long)(24u + corVane_record_serialize_lg(m->payload, payload)));
    printRecord(m->payload, (const unsigned char *)payload, 0, &budget);
    if (budget <= 0) printf("    ...\n");
    return 0;
}

/* ---- payloads -------------------------------------------------------------- */

/* Fills a record with recognisable content: words count up, texts name
 * their field, arrays hold two entries. */
static void fill(const CorVaneSchema *s, unsigned char *rec, uint32_t *next)
{
    uint32_t i, j;
    for (i = 0; i < s->fieldCount; ++i) {
        const CorVaneField *f = &s->fields[i];
        unsigned char *m = rec + f->offset;
        switch (f->kind) {
        case CORVANE_FIELD_U32: {
            uint32_t v = (*next)++;
            memcpy(m, &v, sizeof v);
            break;
        }
        case CORVANE_FIELD_TEXT:
            snprintf((char *)m, f->capacity, "%s", f->name);
            break;
        case CORVANE_FIELD_RECORD:
            fill(f->record, m, next);
            break;
        default: {
            uint32_t used = f->capacity;
            if (f->kind == CORVANE_FIELD_ARRAY) {
                uint32_t two = 2;
                memcpy(rec + s->fields[i - 1].offset, &two, sizeof two);
                used = 2;
            }
            for (j = 0; j < used; ++j) fill(f->record, m + (size_t)j * f->record->size, next);
            break;
        }
        }
    }
}

/* Keeps the serialised body of a message in DIR/<Method>.bin. */
static void saveBody(const CorVaneMessageInfo *m, const void *payload)
{
    const CorVaneMethod *method = m->intf == CORVANE_INTF_CMD ? &corVane_base.cmd.methods[m->index]
                                                              : &corVane_base.ntfy.methods[m->index];
    void *body = calloc(1, m->bodySize);
    uint8_t *buffer = NULL;
    uint32_t length = 0;
    char path[512];
    FILE *f;

    if (!body) return;
    memcpy(body, &m->magic, sizeof m->magic);
    corVane_record_copy(m->payload, corVane_bodyPayload(body), payload);
    if (method->serializeBody(CORVANE_BODY_REQUEST, body, &buffer, &length) == CORVANE_OK) {
        snprintf(path, sizeof path, "%s/%s.bin", outDir, m->name);
        f = fopen(path, "wb");
        if (f) {
            fwrite(buffer, 1, length, f);
            fclose(f);
        }
        free(buffer);
    }
    method->freeBody(CORVANE_BODY_REQUEST, body);
}

/* ---- registering and sending every message ------------------------------ */

#define HANDLER ((void *)(uintptr_t)onMessage)
#define INFO(intf, index) ((void *)(uintptr_t)corVane_messageInfo(intf, index))

#define SERVE(index, Name, name, NAME, magic, key, env, P, shape)                                 \
    if (corVane_modSrv_recvMsg_##name(mgmt, HANDLER, INFO(CORVANE_INTF_CMD, index), NULL))       \
        ++failures;
#define SUBSCRIBE(index, Name, name, NAME, magic, key, nu, P, shape)                              \
    if (corVane_modCliNtfyUser_recvMsg_##name(voice, HANDLER, INFO(CORVANE_INTF_NTFY, index),   \
                                              NULL, "example-bus", "voice"))                      \
        ++failures;

/* Arguments of the send functions of the scalar messages. */
#define ARGS_RECORD(P, p) (const P *)(p)
#define ARGS_SCALAR(P, p) ARGS_##P((const P *)(p))
#define ARGS_CorVaneRepeaterId(v) (v)->repeaterId
#define ARGS_CorVaneBatteryEnable(v) (v)->enable
#define ARGS_CorVaneValues1(v) (v)->value1
#define ARGS_CorVaneValues2(v) (v)->value1, (v)->value2
#define ARGS_CorVaneValues3(v) (v)->value1, (v)->value2, (v)->value3
#define ARGS_CorVaneValues4(v) (v)->value1, (v)->value2, (v)->value3, (v)->value4
#define ARGS_CorVaneMakeCall(v) (v)->value1, (v)->value2, (v)->text1, (v)->text2, (v)->text3
#define ARGS_CorVanePingSip(v) (v)->value1, (v)->value2, (v)->value3, (v)->text1

#define SEND_COMMAND(index, Name, name, NAME, magic, key, env, P, shape)                          \
    {                                                                                             \
        const CorVaneMessageInfo *m = corVane_messageInfo(CORVANE_INTF_CMD, index);               \
        void *p = newPayload(m);                                                                  \
        if (!p) return 1;                                                                         \
        printf("voice -> cmd  %s\n", #Name);                                                      \
        if (corVane_sendReq_##name(voice, NULL, "mgmt", ARGS_##shape(P, p))) ++failures;          \
        if (outDir) saveBody(m, p);                                                               \
        free(p);                                                                                  \
    }
#define SEND_NOTIFICATION(index, Name, name, NAME, magic, key, nu, P, shape)                      \
    {                                                                                             \
        const CorVaneMessageInfo *m = corVane_messageInfo(CORVANE_INTF_NTFY, index);              \
        void *p = newPayload(m);                                                                  \
        if (!p) return 1;                                                                         \
        printf("mgmt  -> ntfy %s\n", #Name);                                                      \
        corVane_sendReq_ntfy##Name(mgmt, NULL, NULL, ARGS_##shape(P, p));                         \
        if (outDir) saveBody(m, p);                                                               \
        free(p);                                                                                  \
    }

static void *newPayload(const CorVaneMessageInfo *m)
{
    static uint32_t next = 1;
    unsigned char *p = calloc(1, m->payload->size);
    if (p) fill(m->payload, p, &next);
    return p;
}

int main(int argc, char **argv)
{
    void *voice, *mgmt;
    unsigned failures = 0;
    QuibStubStats stats;
    int i;

    for (i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "-v") == 0) {
            verbose = 1;
        } else if (strcmp(argv[i], "-o") == 0 && i + 1 < argc) {
            outDir = argv[++i];
        } else {
            fprintf(stderr, "usage: %s [-v] [-o DIR]\n", argv[0]);
            return 2;
        }
    }

    if (corvane_initialize() != CORVANE_OK) return 1;
    printf("interfaces up: CorVaneCmd #%u, CorVaneNtfy #%u\n", corVane_getCmdIntfNum(),
           corVane_getNtfyIntfNum());

    voice = quibStub_newUser("voice");
    mgmt = quibStub_newUser("mgmt");
    if (corVane_regUser_msgMngt(voice, NULL, NULL, CORVANE_SELECT_BOTH) ||
        corVane_regUser_msgMngt(mgmt, NULL, NULL, CORVANE_SELECT_BOTH))
        return 1;
    CORVANE_COMMANDS(SERVE)
    CORVANE_NOTIFICATIONS(SUBSCRIBE)

    CORVANE_COMMANDS(SEND_COMMAND)
    CORVANE_NOTIFICATIONS(SEND_NOTIFICATION)

    corVane_unregUser_msgMngt(voice, CORVANE_SELECT_BOTH);
    corVane_unregUser_msgMngt(mgmt, CORVANE_SELECT_BOTH);
    if (ranqStub_deliver(0) != 0) ++failures; /* the event loop tears the base down */
    quibStub_stats(&stats);
    printf("%u of %u messages received; bodies %llu taken, %llu released; base state %u\n",
           received, CORVANE_CMD_COUNT + CORVANE_NTFY_COUNT,
           (unsigned long long)stats.bodiesTaken, (unsigned long long)stats.bodiesReleased,
           corVane_base.state);
    quibStub_reset();
    if (received != CORVANE_CMD_COUNT + CORVANE_NTFY_COUNT || failures) return 1;
    return 0;
}
