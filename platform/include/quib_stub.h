/*
 * Control interface of the stand-in platform (libcorvane_platform).
 *
 * The stand-in implements the middleware and event-loop functions of quib.h
 * and ranq.h with an in-process, synchronous bus:
 *
 *  - users are created by name (quibStub_newUser); a user handle is also its
 *    own core user;
 *  - quibCore_getBase_msgMngt hands out numbered tables (1, 2, 3, ...) of
 *    3 + 6 * count words, freed by quibCore_putBase_msgMngt;
 *  - quibIntf_modSrv_mthd / quibIntf_modCliNtfyUser_mthd record the user as
 *    server / subscriber of (interface number, method) with a = handler
 *    (a CorVaneHandler), b = handler argument; c is ignored;
 *  - a command sent with quibCore_sendMsgReq_toNameUser, or a notification
 *    sent with quibIntf_sendReq_ntfy, is carried through the method's row of
 *    the registration table: serializeBody, then freeBody on the sent body,
 *    then for each receiver (the server registered under the destination
 *    user name; every subscriber of a notification) unserializeBody on a heap
 *    copy of exactly the serialised bytes, the method's receive function
 *    (found in the interface descriptor given at registration) with the
 *    registered handler and argument, and freeBody on the received body;
 *  - quibCore_sendMsgRes records the response;
 *  - ranq_addEvtBase keeps the callback, which ranqStub_deliver calls.
 *
 * Every call can be made to fail with a given code. The stand-in frees every
 * buffer it owns and counts what it allocated and released.
 */
#ifndef QUIB_STUB_H
#define QUIB_STUB_H

#include <stddef.h>
#include <stdint.h>

#include "quib.h"
#include "ranq.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Returned by a send when the destination has no server / the method no table. */
#define QUIB_STUB_E_NO_TABLE 0x51u
#define QUIB_STUB_E_NO_SERVER 0x52u
#define QUIB_STUB_E_SERIALIZE 0x53u
#define QUIB_STUB_NUM_WITHOUT_TABLE 0x54u

/* The platform calls, for failure injection and call records. */
typedef enum QuibStubCall {
    QUIB_STUB_GET_BASE = 0,      /* quibCore_getBase_msgMngt: fails with QUIB_NUM_NONE, or
                                    with QUIB_STUB_NUM_WITHOUT_TABLE, as a broken middleware
                                    could: a number but no table */
    QUIB_STUB_PUT_BASE,          /* quibCore_putBase_msgMngt */
    QUIB_STUB_REG_USER,          /* quibIntf_regUser_msgMngt */
    QUIB_STUB_UNREG_USER,        /* quibIntf_unregUser_msgMngt */
    QUIB_STUB_GET_CORE_USER,     /* quibIntf_getCore_user (cannot fail) */
    QUIB_STUB_SEND_REQ,          /* quibCore_sendMsgReq_toNameUser */
    QUIB_STUB_SEND_NTFY,         /* quibIntf_sendReq_ntfy */
    QUIB_STUB_SEND_RES,          /* quibCore_sendMsgRes */
    QUIB_STUB_MOD_SRV,           /* quibIntf_modSrv_mthd */
    QUIB_STUB_NEED_UPDATE,       /* quibIntf_modSrv_ntfy_needUpdate */
    QUIB_STUB_MOD_CLI,           /* quibIntf_modCliNtfyUser_mthd */
    QUIB_STUB_FIND,              /* quibIntf_findSrvMthdNtfyUser (cannot fail) */
    QUIB_STUB_ADD_EVT,           /* ranq_addEvtBase */
    QUIB_STUB_CALL_COUNT
} QuibStubCall;

/* The arguments of the last call of one kind, each widened to a word. */
typedef struct QuibStubCallRecord {
    uintptr_t args[13];
    uint32_t argCount;
    uint32_t calls; /* how many times the call was made since the last reset */
} QuibStubCallRecord;

/* A response recorded by quibCore_sendMsgRes. */
typedef struct QuibStubResponse {
    uint16_t num;      /* interface number of the request */
    uint16_t method;   /* method index of the request */
    uint32_t status;   /* e.g. 20 for "no handler" */
    uint32_t prio;     /* 18 */
} QuibStubResponse;

/* Counters of the bus. */
typedef struct QuibStubStats {
    uint64_t requestsSent;       /* commands accepted by quibCore_sendMsgReq_toNameUser */
    uint64_t notificationsSent;  /* notifications accepted by quibIntf_sendReq_ntfy */
    uint64_t deliveries;         /* receive functions called */
    uint64_t buffersTaken;       /* buffers from serializeBody, plus the bus's own copies */
    uint64_t buffersFreed;       /* of those, freed by the stand-in */
    uint64_t bodiesTaken;        /* bodies built by unserializeBody, plus bodies sent */
    uint64_t bodiesReleased;     /* bodies passed to freeBody */
    uint64_t failures;           /* serialize / unserialize callbacks that failed */
} QuibStubStats;

/* Creates a user with the given name (copied); freed by quibStub_reset. */
void *quibStub_newUser(const char *name);

/* Drops users, tables, registrations, responses, failures, call records and
 * counters, and frees everything the stand-in holds. */
void quibStub_reset(void);

/* Makes the given call fail with `code` after `after` more successful calls;
 * code 0 clears it. A failure stays until cleared or reset. */
void quibStub_setFailure(QuibStubCall call, uint32_t code, uint32_t after);

/* The last call of that kind (argCount 0 if none). */
const QuibStubCallRecord *quibStub_lastCall(QuibStubCall call);

/* The table with that number, or NULL; count receives its number of rows. */
QuibMsgMngtTable *quibStub_table(uint16_t num, uint16_t *count);

/* Acts as the middleware dropping the table: calls its unregister callback
 * (word 1) with the table's number. Returns 0, or QUIB_STUB_E_NO_TABLE. */
uint32_t quibStub_dropTable(uint16_t num);

/* Whether the user registered with the interface number (regUser). */
int quibStub_isRegistered(void *user, uint16_t num);

/* Whether the user registered a need for updates of that notification. */
int quibStub_needsUpdate(void *user, uint16_t num, uint16_t method);

/* Recorded responses, oldest first; count receives their number. */
const QuibStubResponse *quibStub_responses(size_t *count);

void quibStub_stats(QuibStubStats *out);

/* Calls the callback registered with ranq_addEvtBase with `event`.
 * Returns 0, or -1 when no callback is registered. */
int ranqStub_deliver(int32_t event);

#ifdef __cplusplus
}
#endif

#endif /* QUIB_STUB_H */
