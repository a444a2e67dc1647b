/*
 * libCorvane: SIP settings of a voice profile.
 *
 * ProfileSIP is nested in VoiceProfile; it carries up to 40 event
 * subscriptions (ProfileEventSubscribe).
 *
 * Each field's wire tag is given beside it; a tag marked "reserved" belongs to
 * a nested record or array, whose own elements are written in its place.
 */
#ifndef CORVANE_PROFILE_SIP_H
#define CORVANE_PROFILE_SIP_H

#include "corvane/schema.h"

CORVANE_BEGIN_DECLS

/* One SIP event package the profile subscribes to. */
typedef struct ProfileEventSubscribe {
    uint32_t eventIndex;        /* tag 3 */
    char event[32];             /* tag 4, text, at most 31 characters */
    char notifier[256];         /* tag 5, text, at most 255 characters */
    uint32_t notifierPort;      /* tag 6 */
    uint32_t notifierTransport; /* tag 7 */
    uint32_t expireTime;        /* tag 8 */
} ProfileEventSubscribe;

/* SIP signalling settings; only the first min(eventSubscribeNumberOfEntries, 40)
 * entries of eventSubscribe are meaningful. */
typedef struct ProfileSIP {
    char proxyServer[256];                    /* tag 3, text, at most 255 characters */
    uint32_t proxyServerPort;                 /* tag 4 */
    uint32_t proxyServerTransport;            /* tag 5 */
    char registrarServer[256];                /* tag 6, text, at most 255 characters */
    uint32_t registrarServerPort;             /* tag 7 */
    uint32_t registrarServerTransport;        /* tag 8 */
    char userAgentDomain[256];                /* tag 9, text, at most 255 characters */
    uint32_t userAgentPort;                   /* tag 10 */
    uint32_t userAgentTransport;              /* tag 11 */
    char outboundProxy[256];                  /* tag 12, text, at most 255 characters */
    uint32_t outboundProxyPort;               /* tag 13 */
    char organization[256];                   /* tag 14, text, at most 255 characters */
    uint32_t sipValue15;                      /* tag 15 */
    uint32_t sipValue16;                      /* tag 16 */
    uint32_t sipValue17;                      /* tag 17 */
    uint32_t sipValue18;                      /* tag 18 */
    uint32_t sipValue19;                      /* tag 19 */
    uint32_t sipValue20;                      /* tag 20 */
    uint32_t sipValue21;                      /* tag 21 */
    uint32_t sipValue22;                      /* tag 22 */
    uint32_t sipValue23;                      /* tag 23 */
    uint32_t sipValue24;                      /* tag 24 */
    uint32_t sipValue25;                      /* tag 25 */
    uint32_t sipValue26;                      /* tag 26 */
    uint32_t sipValue27;                      /* tag 27 */
    uint32_t sipValue28;                      /* tag 28 */
    uint32_t sipValue29;                      /* tag 29 */
    uint32_t sipValue30;                      /* tag 30 */
    uint32_t sipValue31;                      /* tag 31 */
    uint32_t sipValue32;                      /* tag 32 */
    uint32_t sipValue33;                      /* tag 33 */
    uint32_t sipValue34;                      /* tag 34 */
    uint32_t sipValue35;                      /* tag 35 */
    uint32_t sipValue36;                      /* tag 36 */
    uint32_t sipValue37;                      /* tag 37 */
    char inboundAuthUsername[256];            /* tag 38, text, at most 255 characters */
    char inboundAuthPassword[256];            /* tag 39, text, at most 255 characters */
    uint32_t sipValue40;                      /* tag 40 */
    uint32_t sipValue41;                      /* tag 41 */
    uint32_t sipValue42;                      /* tag 42 */
    uint32_t sipValue43;                      /* tag 43 */
    uint32_t sipValue44;                      /* tag 44 */
    uint32_t eventSubscribeNumberOfEntries;   /* tag 45 */
    ProfileEventSubscribe eventSubscribe[40]; /* tag 46 reserved: 40 entries, count in eventSubscribeNumberOfEntries */
    uint32_t sipValue47;                      /* tag 47 */
    uint32_t sipValue48;                      /* tag 48 */
    uint32_t sipValue49;                      /* tag 49 */
    uint32_t sipValue50;                      /* tag 50 */
    uint32_t sipValue51;                      /* tag 51 */
    uint32_t sipValue52;                      /* tag 52 */
    uint32_t sipValue53;                      /* tag 53 */
    uint32_t sipValue54;                      /* tag 54 */
    uint32_t sipValue55;                      /* tag 55 */
    uint32_t sipValue56;                      /* tag 56 */
    char sipText57[256];                      /* tag 57, text, at most 255 characters */
    char sipText58[256];                      /* tag 58, text, at most 255 characters */
    uint32_t sipValue59;                      /* tag 59 */
    char sipText60[64];                       /* tag 60, text, at most 63 characters */
    char sipText61[256];                      /* tag 61, text, at most 255 characters */
    char sipText62[256];                      /* tag 62, text, at most 255 characters */
    char sipText63[256];                      /* tag 63, text, at most 255 characters */
    uint32_t sipValue64;                      /* tag 64 */
    uint32_t sipValue65;                      /* tag 65 */
} ProfileSIP;

CORVANE_RECORD_OPS(ProfileEventSubscribe)
CORVANE_RECORD_OPS(ProfileSIP)

CORVANE_END_DECLS

#endif /* CORVANE_PROFILE_SIP_H */
