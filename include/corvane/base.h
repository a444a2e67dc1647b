/*
 * libCorvane: the interface descriptor object, lifecycle and user registration.
 *
 * All state of the library lives in one exported, statically initialised
 * object, corVane_base. The middleware reads its layout, so the layout is part
 * of the interface:
 *
 *   CorVaneBase
 *     magic    u32                 CORVANE_MAGIC_BASE
 *     name     const char *        "CorVane"
 *     cmd      CorVaneCmdIntfDesc  command interface "CorVaneCmd", 19 methods
 *     ntfy     CorVaneNtfyIntfDesc notification interface "CorVaneNtfy", 30 methods
 *     debug    u32                 debug level, stored by corVane_modDebug
 *     state    u8                  CORVANE_STATE_BASE_*
 *     flags    u8                  CORVANE_FLAGS_BASE_*
 *
 * An interface descriptor is variable in length: the fixed head described by
 * CorVaneIntfDesc (magic, name, unreg, num, count) is followed directly, at
 * the next pointer-aligned offset (CORVANE_INTF_METHODS_OFFSET), by `count`
 * method entries in method-index order. CorVaneCmdIntfDesc and
 * CorVaneNtfyIntfDesc are that head with 19 and 30 entries. Code that walks
 * either interface takes a const CorVaneIntfDesc * and reaches the entries
 * with corVane_intfMethods().
 *
 * A method entry is eight words: recv, recvRes (always NULL), name, the four
 * body callbacks and the index (a u32 in the last word).
 */
#ifndef CORVANE_BASE_H
#define CORVANE_BASE_H

#include "corvane/types.h"

CORVANE_BEGIN_DECLS

#define CORVANE_MAGIC_BASE 0x1300713u
#define CORVANE_MAGIC_INTF_CMD 0x1300714u
#define CORVANE_MAGIC_INTF_NTFY 0x1300715u
#define CORVANE_MAGIC_FREED 0xdeadbeefu

#define CORVANE_STATE_BASE_WAIT_INIT 0u
#define CORVANE_STATE_BASE_INIT 1u

#define CORVANE_FLAGS_BASE_REG_CMD 0x1u
#define CORVANE_FLAGS_BASE_REG_NTFY 0x2u

#define CORVANE_CMD_COUNT 19u
#define CORVANE_NTFY_COUNT 30u

/* Interface selectors of corVane_regUser_msgMngt / corVane_unregUser_msgMngt. */
#define CORVANE_SELECT_BOTH 0u
#define CORVANE_SELECT_CMD 1u
#define CORVANE_SELECT_NTFY 2u

/* Message-management number of an interface that is not set up. */
#define CORVANE_NUM_NONE 0xffffu

typedef struct CorVaneMethod {
    CorVaneRecvFn recv;                       /* corVane_recvReq_<message> */
    CorVaneRecvFn recvRes;                    /* NULL in every entry */
    const char *name;                         /* method name, e.g. "SetCapabilities" */
    CorVaneFreeBodyFn freeBody;
    CorVaneSerializeBodyFn serializeBody;
    CorVaneUnserializeBodyFn unserializeBody;
    CorVaneLogBodyFn logBody;
    uint32_t index;                           /* place in the interface's array */
} CorVaneMethod;

#define CORVANE_INTF_DESC_HEAD                                                 \
    uint32_t magic;       /* CORVANE_MAGIC_INTF_CMD / CORVANE_MAGIC_INTF_NTFY */ \
    const char *name;     /* "CorVaneCmd" / "CorVaneNtfy" */                   \
    CorVaneUnregFn unreg; /* unregister callback for the middleware */         \
    uint16_t num;         /* message-management number; 0xffff while none */  \
    uint16_t count;       /* number of method entries that follow */

/* The fixed head of an interface descriptor; `count` entries follow it. */
typedef struct CorVaneIntfDesc {
    CORVANE_INTF_DESC_HEAD
} CorVaneIntfDesc;

typedef struct CorVaneCmdIntfDesc {
    CORVANE_INTF_DESC_HEAD
    CorVaneMethod methods[19];
} CorVaneCmdIntfDesc;

typedef struct CorVaneNtfyIntfDesc {
    CORVANE_INTF_DESC_HEAD
    CorVaneMethod methods[30];
} CorVaneNtfyIntfDesc;

#define CORVANE_INTF_METHODS_OFFSET offsetof(CorVaneCmdIntfDesc, methods)

/* The method entries that follow an interface descriptor's head. */
static inline const CorVaneMethod *corVane_intfMethods(const CorVaneIntfDesc *desc)
{
    return (const CorVaneMethod *)(const void *)((const char *)desc +
                                                 CORVANE_INTF_METHODS_OFFSET);
}

typedef struct CorVaneBase {
    uint32_t magic;
    const char *name;
    CorVaneCmdIntfDesc cmd;
    CorVaneNtfyIntfDesc ntfy;
    uint32_t debug;
    uint8_t state;
    uint8_t flags;
} CorVaneBase;

/* The descriptor object. Written only by start-up, shut-down, the two
 * unregister callbacks and corVane_modDebug; no locking. */
extern CORVANE_API CorVaneBase corVane_base;

/* Start-up: runs corVane_addBase and logs its failure. */
CORVANE_API uint32_t corvane_initialize(void);
/* 0 done; 1 the middleware refused a table; 3 wrong state; else the event
 * loop's code. Aborts if corVane_base's magic is wrong. */
CORVANE_API uint32_t corVane_addBase(void);
/* 0 done; 3 wrong state; else the middleware's code. */
CORVANE_API uint32_t corVane_delBase(void);
/* Event-loop callback: event 0 deletes the base. */
CORVANE_API void corVane_cbEvtBase(void *ctx, int32_t event);
/* Middleware error callback; does nothing. */
CORVANE_API void corVane_cbEvtMsgError(void);
/* Called by the middleware when it drops the command / notification table. */
CORVANE_API void corVane_cbEvtMsgMngt_unreg_msgCmd(uint16_t num);
CORVANE_API void corVane_cbEvtMsgMngt_unreg_msgNtfy(uint16_t num);
CORVANE_API void corVane_modDebug(uint32_t level);

/* Registers a user with the interfaces the selector names (CORVANE_SELECT_*);
 * an unknown selector does nothing and returns 0. Interfaces not set up are
 * skipped. 0 or the middleware's code. */
CORVANE_API uint32_t corVane_regUser_msgMngt(void *user, void *arg, void *ref, uint32_t selector);
CORVANE_API uint32_t corVane_unregUser_msgMngt(void *user, uint32_t selector);

/* Passes its arguments and the base name to the middleware's lookup. */
CORVANE_API void *corVane_findSrvMthdNtfyUser(void *a, void *b, uint16_t method, void *d);

CORVANE_API uint16_t corVane_getCmdIntfNum(void);
CORVANE_API uint16_t corVane_getNtfyIntfNum(void);

CORVANE_END_DECLS

#endif /* CORVANE_BASE_H */
