/*
 * libCorvane: the 19 commands and 30 notifications.
 *
 * The two tables below are the catalogue of the interface: every function of
 * every message, the method entries of corVane_base and the message
 * descriptors all come from them.
 *
 * Message body (a heap block owned by the middleware once sent):
 *   offset 0  magic  u32   the message's body magic, checked on every entry
 *   offset 4  ref    u16   0 while the body belongs to the callbacks
 *   offset 8  payload      the record, or one of the structs of payloads.h
 *
 * Serialised body (the envelope): u32 element tag 0 holding the magic, u32
 * element tag 1 holding 0 (1 for SetCapabilities alone), then the payload's
 * elements from tag 3. Its length is 24 + the payload's length.
 *
 * For a command <name> (method name with a lower-case initial):
 *   uint32_t corVane_sendReq_<name>(void *user, void *arg, const char *userName, payload)
 *       Copies the payload into a new body and hands it to the middleware,
 *       addressed to userName. Returns the middleware's result; 0 also when
 *       nothing was sent (no user name, no memory; both are logged).
 *   uint32_t corVane_modSrv_recvMsg_<name>(void *user, void *a, void *b, void *c)
 *       Registers the user as the server of the command; a, b and c are the
 *       middleware's values (the stand-in platform takes a = handler,
 *       b = handler argument).
 *   void corVane_recvReq_<name>(void *ctx, void *body, CorVaneHandler h, void *arg)
 *   and the four body callbacks corVane_cbEvtMsgMngt_{freeBody,serializeBody,
 *   unserializeBody,logBody}_msgCmd_<name>.
 *
 * For a notification <Name> (<name> with a lower-case initial):
 *   void corVane_sendReq_ntfy<Name>(void *user, void *dest1, void *dest2, payload)
 *   uint32_t corVane_modCliNtfyUser_recvMsg_<name>(void *user, void *a, void *b,
 *                                                   void *c, const char *busName,
 *                                                   const char *userName)
 *   uint32_t corVane_modSrv_needUpdate_ntfy<Name>(void *user, void *a, void *b, void *c)
 *       (only the 14 notifications marked NEED_UPDATE)
 *   void corVane_recvReq_ntfy<Name>(void *ctx, void *body, CorVaneHandler h, void *arg)
 *   and the four body callbacks ..._msgNtfy_<name>.
 *
 * The payload argument of a send function is `const T *record` for a record
 * message, else the scalars (and texts) of the payload struct in order.
 */
#ifndef CORVANE_MESSAGES_H
#define CORVANE_MESSAGES_H

#include "corvane/payloads.h"
#include "corvane/records.h"
#include "corvane/schema.h"
#include "corvane/types.h"

CORVANE_BEGIN_DECLS

/*
 * Commands, voice service to management.
 * X(index, Name, name, NAME, body magic, response key, envelope word, payload, shape)
 */
#define CORVANE_COMMANDS(X)                                                                        \
    X(0, SetCapabilities, setCapabilities, SETCAPABILITIES, 0x2300713u, 0x2300714u, 1u,            \
      capabilities, RECORD)                                                                        \
    X(1, SetRegistrationStatus, setRegistrationStatus, SETREGISTRATIONSTATUS, 0x20132510u,         \
      0x20132511u, 0u, registrationStatus, RECORD)                                                 \
    X(2, SetTransportStatus, setTransportStatus, SETTRANSPORTSTATUS, 0x9032020u, 0x9032021u, 0u,   \
      transportEvent, RECORD)                                                                      \
    X(3, SetPhyInterfaceStatus, setPhyInterfaceStatus, SETPHYINTERFACESTATUS, 0x20132510u,         \
      0x20132511u, 0u, phyInterfaceStatus, RECORD)                                                 \
    X(4, SetRepeaterStatus, setRepeaterStatus, SETREPEATERSTATUS, 0x30132510u, 0x30132511u, 0u,    \
      repeater_status, RECORD)                                                                     \
    X(5, SetSuotaStatus, setSuotaStatus, SETSUOTASTATUS, 0x20180708u, 0x20180709u, 0u,             \
      suotaStatus, RECORD)                                                                         \
    X(6, CreateRepeater, createRepeater, CREATEREPEATER, 0x30180708u, 0x30180709u, 0u,             \
      dectRepeater, RECORD)                                                                        \
    X(7, DeleteRepeater, deleteRepeater, DELETEREPEATER, 0x40180708u, 0x40180709u, 0u,             \
      CorVaneRepeaterId, SCALAR)                                                                   \
    X(8, SetBatteryEnable, setBatteryEnable, SETBATTERYENABLE, 0x20160104u, 0x20160105u, 0u,       \
      CorVaneBatteryEnable, SCALAR)                                                                \
    X(9, SetLineCallState, setLineCallState, SETLINECALLSTATE, 0x20132509u, 0x20132510u, 0u,       \
      lineCallState, RECORD)                                                                       \
    X(10, SetPingSipState, setPingSipState, SETPINGSIPSTATE, 0x20161107u, 0x20161108u, 0u,         \
      pingSipState, RECORD)                                                                        \
    X(11, SetLineStats, setLineStats, SETLINESTATS, 0x20132508u, 0x20132509u, 0u, lineStats,       \
      RECORD)                                                                                      \
    X(12, SetLineModif, setLineModif, SETLINEMODIF, 0x20132507u, 0x20132508u, 0u, lineModif,       \
      RECORD)                                                                                      \
    X(13, SetProfileStatus, setProfileStatus, SETPROFILESTATUS, 0x20152307u, 0x20152308u, 0u,      \
      ProfileStatus, RECORD)                                                                       \
    X(14, SetProfileBackupIntfStatus, setProfileBackupIntfStatus, SETPROFILEBACKUPINTFSTATUS,      \
      0x20151903u, 0x20151904u, 0u, ProfileBackupIntfStatus, RECORD)                               \
    X(15, SetProfileFQDNServers, setProfileFQDNServers, SETPROFILEFQDNSERVERS, 0x20161401u,        \
      0x20161402u, 0u, ProfileFQDNServers, RECORD)                                                 \
    X(16, SetProfileConfig, setProfileConfig, SETPROFILECONFIG, 0x20171210u, 0x20171211u, 0u,      \
      VoiceProfile, RECORD)                                                                        \
    X(17, SetAccountStatus, setAccountStatus, SETACCOUNTSTATUS, 0x20132510u, 0x20132511u, 0u,      \
      accountStatus, RECORD)                                                                       \
    X(18, SetInternalCallStatus, setInternalCallStatus, SETINTERNALCALLSTATUS, 0x20162106u,        \
      0x20162107u, 0u, internalCallStatus, RECORD)

/*
 * Notifications, management to voice service.
 * X(index, Name, name, NAME, body magic, subscription key, need update, payload, shape)
 */
#define CORVANE_NOTIFICATIONS(X)                                                                   \
    X(0, OnBatteryCfg, onBatteryCfg, ONBATTERYCFG, 0x20162103u, 0x20162104u, NO_UPDATE,            \
      BatteryCfg, RECORD)                                                                          \
    X(1, OnVoiceBehaviorCfg, onVoiceBehaviorCfg, ONVOICEBEHAVIORCFG, 0x20190508u, 0x20190509u,     \
      NEED_UPDATE, VoiceBehavior, RECORD)                                                          \
    X(2, DebugMode, debugMode, DEBUGMODE, 0x3300713u, 0x3300714u, NO_UPDATE, CorVaneValues1,       \
      SCALAR)                                                                                      \
    X(3, OnAddObjectVoiceProfile, onAddObjectVoiceProfile, ONADDOBJECTVOICEPROFILE, 0x20132506u,   \
      0x20132507u, NEED_UPDATE, VoiceProfile, RECORD)                                              \
    X(4, OnAddObjectProfileLine, onAddObjectProfileLine, ONADDOBJECTPROFILELINE, 0x20132504u,      \
      0x20132505u, NEED_UPDATE, ProfileLine, RECORD)                                               \
    X(5, OnAddObjectPhyInterface, onAddObjectPhyInterface, ONADDOBJECTPHYINTERFACE, 0x20132503u,   \
      0x20132504u, NEED_UPDATE, PhyInterface, RECORD)                                              \
    X(6, OnAddObjectRegistrar, onAddObjectRegistrar, ONADDOBJECTREGISTRAR, 0x20151130u,            \
      0x20151131u, NEED_UPDATE, Registrar, RECORD)                                                 \
    X(7, OnAddObjectAccount, onAddObjectAccount, ONADDOBJECTACCOUNT, 0x30151130u, 0x30151131u,     \
      NEED_UPDATE, Account, RECORD)                                                                \
    X(8, OnAddObjectContact, onAddObjectContact, ONADDOBJECTCONTACT, 0x40151130u, 0x40151131u,     \
      NEED_UPDATE, Contact, RECORD)                                                                \
    X(9, OnAddObjectDectRepeater, onAddObjectDectRepeater, ONADDOBJECTDECTREPEATER, 0x20132504u,   \
      0x20132505u, NEED_UPDATE, dectRepeater, RECORD)                                              \
    X(10, OnChangeObjectVoiceProfile, onChangeObjectVoiceProfile, ONCHANGEOBJECTVOICEPROFILE,      \
      0x20132502u, 0x20132503u, NO_UPDATE, VoiceProfile, RECORD)                                   \
    X(11, OnChangeObjectProfileLine, onChangeObjectProfileLine, ONCHANGEOBJECTPROFILELINE,         \
      0x20132500u, 0x20132501u, NO_UPDATE, ProfileLine, RECORD)                                    \
    X(12, OnChangeObjectPhyInterface, onChangeObjectPhyInterface, ONCHANGEOBJECTPHYINTERFACE,      \
      0x20132599u, 0x20132600u, NO_UPDATE, PhyInterface, RECORD)                                   \
    X(13, OnChangeObjectRegistrar, onChangeObjectRegistrar, ONCHANGEOBJECTREGISTRAR, 0x50151130u,  \
      0x50151131u, NEED_UPDATE, Registrar, RECORD)                                                 \
    X(14, OnChangeObjectAccount, onChangeObjectAccount, ONCHANGEOBJECTACCOUNT, 0x60151130u,        \
      0x60151131u, NEED_UPDATE, Account, RECORD)                                                   \
    X(15, OnChangeObjectContact, onChangeObjectContact, ONCHANGEOBJECTCONTACT, 0x70151130u,        \
      0x70151131u, NEED_UPDATE, Contact, RECORD)                                                   \
    X(16, OnDeleteObjectVoiceProfile, onDeleteObjectVoiceProfile, ONDELETEOBJECTVOICEPROFILE,      \
      0x20132598u, 0x20132599u, NO_UPDATE, CorVaneValues1, SCALAR)                                 \
    X(17, OnDeleteObjectProfileLine, onDeleteObjectProfileLine, ONDELETEOBJECTPROFILELINE,         \
      0x20132597u, 0x20132598u, NO_UPDATE, CorVaneValues2, SCALAR)                                 \
    X(18, OnDeleteObjectRegistrar, onDeleteObjectRegistrar, ONDELETEOBJECTREGISTRAR, 0x80151130u,  \
      0x80151131u, NEED_UPDATE, CorVaneValues1, SCALAR)                                            \
    X(19, OnDeleteObjectAccount, onDeleteObjectAccount, ONDELETEOBJECTACCOUNT, 0x90151130u,        \
      0x90151131u, NEED_UPDATE, CorVaneValues2, SCALAR)                                            \
    X(20, OnDeleteObjectContact, onDeleteObjectContact, ONDELETEOBJECTCONTACT, 0x10151130u,        \
      0x10151131u, NEED_UPDATE, CorVaneValues3, SCALAR)                                            \
    X(21, OnActionPhyInterface, onActionPhyInterface, ONACTIONPHYINTERFACE, 0x20132596u,           \
      0x20132597u, NO_UPDATE, CorVaneValues4, SCALAR)                                              \
    X(22, DeregisterRepeater, deregisterRepeater, DEREGISTERREPEATER, 0x30132596u, 0x30132597u,    \
      NO_UPDATE, CorVaneValues1, SCALAR)                                                           \
    X(23, StartPairing, startPairing, STARTPAIRING, 0x20191118u, 0x20191119u, NO_UPDATE,           \
      CorVaneValues2, SCALAR)                                                                      \
    X(24, StopPairing, stopPairing, STOPPAIRING, 0x20191119u, 0x20191120u, NO_UPDATE,              \
      CorVaneValues1, SCALAR)                                                                      \
    X(25, OnActionVoiceProfile, onActionVoiceProfile, ONACTIONVOICEPROFILE, 0x20132597u,           \
      0x20132598u, NO_UPDATE, CorVaneValues2, SCALAR)                                              \
    X(26, OnActionVoiceProfileLine, onActionVoiceProfileLine, ONACTIONVOICEPROFILELINE,            \
      0x20132596u, 0x20132597u, NO_UPDATE, CorVaneValues3, SCALAR)                                 \
    X(27, OnMakeCall, onMakeCall, ONMAKECALL, 0x20140808u, 0x20140809u, NO_UPDATE,                 \
      CorVaneMakeCall, SCALAR)                                                                     \
    X(28, OnPingSip, onPingSip, ONPINGSIP, 0x20161107u, 0x20161108u, NO_UPDATE, CorVanePingSip,    \
      SCALAR)                                                                                      \
    X(29, StopAutoCall, stopAutoCall, STOPAUTOCALL, 0x20192110u, 0x20192111u, NO_UPDATE,           \
      CorVaneValues2, SCALAR)

/* Parameters that carry the payload into a send function. */
#define CORVANE_SEND_PARAMS_RECORD(P) const P *record
#define CORVANE_SEND_PARAMS_SCALAR(P) CORVANE_SEND_PARAMS_##P
#define CORVANE_SEND_PARAMS_CorVaneRepeaterId uint32_t repeaterId
#define CORVANE_SEND_PARAMS_CorVaneBatteryEnable uint32_t enable
#define CORVANE_SEND_PARAMS_CorVaneValues1 uint32_t value1
#define CORVANE_SEND_PARAMS_CorVaneValues2 uint32_t value1, uint32_t value2
#define CORVANE_SEND_PARAMS_CorVaneValues3 uint32_t value1, uint32_t value2, uint32_t value3
#define CORVANE_SEND_PARAMS_CorVaneValues4                                                         \
    uint32_t value1, uint32_t value2, uint32_t value3, uint32_t value4
#define CORVANE_SEND_PARAMS_CorVaneMakeCall                                                        \
    uint32_t value1, uint32_t value2, const char *text1, const char *text2, const char *text3
#define CORVANE_SEND_PARAMS_CorVanePingSip                                                         \
    uint32_t value1, uint32_t value2, uint32_t value3, const char *text1

#define CORVANE_DECLARE_BODY_CALLBACKS_(half, name)                                                \
    CORVANE_API void corVane_cbEvtMsgMngt_freeBody_##half##_##name(uint32_t kind, void *body);     \
    CORVANE_API uint32_t corVane_cbEvtMsgMngt_serializeBody_##half##_##name(                       \
        uint32_t kind, void *body, uint8_t **buffer, uint32_t *length);                            \
    CORVANE_API uint32_t corVane_cbEvtMsgMngt_unserializeBody_##half##_##name(                     \
        uint32_t kind, const uint8_t *buffer, void **body, uint32_t *size);                        \
    CORVANE_API void corVane_cbEvtMsgMngt_logBody_##half##_##name(void *a, void *b, void *c,       \
                                                                  char **text);

#define CORVANE_DECLARE_COMMAND_(index, Name, name, NAME, magic, key, env, P, shape)               \
    CORVANE_API uint32_t corVane_sendReq_##name(void *user, void *arg, const char *userName,       \
                                                CORVANE_SEND_PARAMS_##shape(P));                   \
    CORVANE_API uint32_t corVane_modSrv_recvMsg_##name(void *user, void *a, void *b, void *c);     \
    CORVANE_API void corVane_recvReq_##name(void *ctx, void *body, CorVaneHandler handler,         \
                                            void *arg);                                            \
    CORVANE_DECLARE_BODY_CALLBACKS_(msgCmd, name)

#define CORVANE_DECLARE_NEED_UPDATE_NEED_UPDATE(Name)                                              \
    CORVANE_API uint32_t corVane_modSrv_needUpdate_ntfy##Name(void *user, void *a, void *b,        \
                                                              void *c);
#define CORVANE_DECLARE_NEED_UPDATE_NO_UPDATE(Name)

#define CORVANE_DECLARE_NOTIFICATION_(index, Name, name, NAME, magic, key, nu, P, shape)           \
    CORVANE_API void corVane_sendReq_ntfy##Name(void *user, void *dest1, void *dest2,              \
                                                CORVANE_SEND_PARAMS_##shape(P));                   \
    CORVANE_API uint32_t corVane_modCliNtfyUser_recvMsg_##name(                                    \
        void *user, void *a, void *b, void *c, const char *busName, const char *userName);         \
    CORVANE_DECLARE_NEED_UPDATE_##nu(Name)                                                         \
    CORVANE_API void corVane_recvReq_ntfy##Name(void *ctx, void *body, CorVaneHandler handler,     \
                                                void *arg);                                        \
    CORVANE_DECLARE_BODY_CALLBACKS_(msgNtfy, name)

CORVANE_COMMANDS(CORVANE_DECLARE_COMMAND_)
CORVANE_NOTIFICATIONS(CORVANE_DECLARE_NOTIFICATION_)

/* ---- Message bodies ---------------------------------------------------- */

typedef struct CorVaneMsgBody {
    uint32_t magic;
    uint16_t ref;
    /* the payload follows at CORVANE_BODY_PAYLOAD_OFFSET */
} CorVaneMsgBody;

#define CORVANE_BODY_PAYLOAD_OFFSET 8u

static inline void *corVane_bodyPayload(void *body)
{
    return (char *)body + CORVANE_BODY_PAYLOAD_OFFSET;
}

/* ---- Message descriptors ---------------------------------------------- */

#define CORVANE_INTF_CMD 0u
#define CORVANE_INTF_NTFY 1u

#define CORVANE_MSG_NEED_UPDATE 0x1u    /* has corVane_modSrv_needUpdate_ntfy<Name> */
#define CORVANE_MSG_RECORD_PAYLOAD 0x2u /* the payload is a record type */

typedef struct CorVaneMessageInfo {
    const char *name;              /* method name, e.g. "SetLineStats" */
    const CorVaneSchema *payload;  /* the payload's schema */
    uint32_t magic;                /* body magic */
    uint32_t key;                  /* response key (commands) / subscription key */
    uint32_t bodySize;             /* bytes of a body: 8 + sizeof the payload */
    uint32_t envelope;             /* value of the envelope's tag-1 element */
    uint16_t index;                /* method index within its interface */
    uint8_t intf;                  /* CORVANE_INTF_CMD or CORVANE_INTF_NTFY */
    uint8_t flags;                 /* CORVANE_MSG_* */
} CorVaneMessageInfo;

/* NULL for an unknown interface or an index out of range. */
CORVANE_API const CorVaneMessageInfo *corVane_messageInfo(uint32_t intf, uint32_t index);
/* Looks a message up by its method name; NULL when there is none. */
CORVANE_API const CorVaneMessageInfo *corVane_messageByName(const char *name);

/*
 * The message's unserializeBody callback with the buffer's length known, for
 * bytes from another process. It behaves as the callback on every buffer
 * whose elements lie within length bytes and whose tag-0 element carries the
 * message's own magic, with two differences:
 *  - an element that runs past the end gives 4 with one log line instead of
 *    a read past it;
 *  - a tag-0 magic that is not msg->magic gives 2 with one log line
 *    ("Check Magic[<label>-<magic>] magic(<found>) refused"), and no body,
 *    where the callback would build a body that aborts the process at the
 *    next magic check.
 */
CORVANE_API uint32_t corVane_unserializeBody_bounded(const CorVaneMessageInfo *msg, uint32_t kind,
                                                     const uint8_t *buffer, size_t length,
                                                     void **body, uint32_t *size);

CORVANE_END_DECLS

#endif /* CORVANE_MESSAGES_H */
