/*
 * The messaging middleware's interface, as libCorvane imports it.
 *
 * In a product these functions come from the in-house middleware library.
 * In this tree they are provided by the stand-in platform library
 * (libcorvane_platform), which implements their contracts with an
 * in-process bus.
 */
#ifndef QUIB_H
#define QUIB_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A pointer-sized slot holding a function; the real type depends on the row. */
typedef void (*QuibFn)(void);

/* Number of a message-management table; QUIB_NUM_NONE when refused. */
#define QUIB_NUM_NONE 0xffffu

/*
 * A message-management table, owned by the middleware: word 0 the interface
 * name, word 1 its unregister callback, word 2 the middleware's own, then
 * one six-word row per method (quib_tableRows).
 */
typedef struct QuibMsgMngtTable {
    const char *name;
    QuibFn unreg;   /* void (*)(uint16_t num) */
    void *own;
} QuibMsgMngtTable;

typedef struct QuibMsgMngtRow {
    QuibFn recvRes;
    const char *name;
    QuibFn freeBody;
    QuibFn serializeBody;
    QuibFn unserializeBody;
    QuibFn logBody;
} QuibMsgMngtRow;

static inline QuibMsgMngtRow *quib_tableRows(QuibMsgMngtTable *table)
{
    return (QuibMsgMngtRow *)(void *)(table + 1);
}

/* Tables. *table is set to the new table; the result is its number. */
uint16_t quibCore_getBase_msgMngt(const char *name, QuibMsgMngtTable **table, uint16_t count);
uint32_t quibCore_putBase_msgMngt(uint16_t num, uint32_t reserved);

/* Users. */
uint32_t quibIntf_regUser_msgMngt(void *user, void *arg, void *ref, uint16_t num, uint16_t all,
                                  uint32_t reserved);
uint32_t quibIntf_unregUser_msgMngt(void *user, uint16_t num, uint16_t all, uint32_t reserved);
void *quibIntf_getCore_user(void *user);

/* Sending. The middleware takes the body over. */
uint32_t quibCore_sendMsgReq_toNameUser(void *coreUser, void *body, uint32_t r1, uint32_t r2,
                                        uint32_t r3, void *arg, const char *userName,
                                        uint16_t num, uint16_t method, uint16_t all,
                                        uint32_t prio);
uint32_t quibIntf_sendReq_ntfy(void *user, void *body, uint32_t r1, uint32_t r2, uint32_t r3,
                               void *dest1, void *dest2, const char *baseName, uint16_t num,
                               uint16_t method, uint32_t r4, uint32_t r5, uint32_t prio);

/* Answers a request without a handler. */
uint32_t quibCore_sendMsgRes(void *ctx, void *body, uint32_t status, uint32_t prio);

/*
 * Server and subscriber registration. cmdDesc and ntfyDesc are the
 * interface descriptors of the base (their layout is the one the base
 * publishes); the middleware finds a method's receive function there.
 */
uint32_t quibIntf_modSrv_mthd(void *user, void *a, void *b, void *c, uint32_t key,
                              const char *baseName, const void *cmdDesc, const void *ntfyDesc,
                              uint16_t method, uint16_t all1, uint16_t all2);
uint32_t quibIntf_modSrv_ntfy_needUpdate(void *user, void *a, void *b, void *c,
                                         const char *baseName, const void *cmdDesc,
                                         const void *ntfyDesc, uint16_t method);
uint32_t quibIntf_modCliNtfyUser_mthd(void *user, void *a, void *b, void *c, uint32_t key,
                                      const char *busName, const char *userName,
                                      const char *baseName, const void *cmdDesc,
                                      const void *ntfyDesc, uint16_t method);

/* Lookup. */
void *quibIntf_findSrvMthdNtfyUser(void *a, void *b, const char *baseName, uint16_t method,
                                   void *d);

#ifdef __cplusplus
}
#endif

#endif /* QUIB_H */
