/*
 * libCorvane: profile line.
 *
 * ProfileLine is the whole configuration of one line of a voice profile, the
 * payload of OnAddObjectProfileLine and OnChangeObjectProfileLine.
 *
 * Each field's wire tag is given beside it; a tag marked "reserved" belongs to
 * a nested record or array, whose own elements are written in its place.
 */
#ifndef CORVANE_PROFILE_LINE_H
#define CORVANE_PROFILE_LINE_H

#include "corvane/schema.h"
#include "corvane/calling_features.h"
#include "corvane/line_ringer.h"
#include "corvane/line_codec.h"

CORVANE_BEGIN_DECLS

typedef struct LineSIPEventSubscribe {
    uint32_t value1;        /* tag 3 */
    char event[32];         /* tag 4, text, at most 31 characters */
    char authUserName[128]; /* tag 5, text, at most 127 characters */
    char authPassword[128]; /* tag 6, text, at most 127 characters */
} LineSIPEventSubscribe;

/* SIP identity of the line; uri keeps its odd capacity of 389 bytes. */
typedef struct LineSIP {
    char authUserName[128];                   /* tag 3, text, at most 127 characters */
    char authPassword[128];                   /* tag 4, text, at most 127 characters */
    char uri[389];                            /* tag 5, text, at most 388 characters */
    uint32_t eventSubscribeNumberOfEntries;   /* tag 6 */
    LineSIPEventSubscribe eventSubscribe[40]; /* tag 7 reserved: 40 entries, count in eventSubscribeNumberOfEntries */
} LineSIP;

/* 60 bytes on the wire. */
typedef struct LineVoiceProcessing {
    uint32_t transmitGain;           /* tag 3 */
    uint32_t receiveGain;            /* tag 4 */
    uint32_t echoCancellationEnable; /* tag 5 */
    uint32_t echoCancellationInUse;  /* tag 6 */
    uint32_t echoCancellationTail;   /* tag 7 */
} LineVoiceProcessing;

typedef struct LineSession {
    uint32_t sessionStartTime; /* tag 3 */
    uint32_t sessionDuration;  /* tag 4 */
    char farEndIPAddress[16];  /* tag 5, text, at most 15 characters */
    uint32_t farEndUDPPort;    /* tag 6 */
    uint32_t localUDPPort;     /* tag 7 */
} LineSession;

/* Only the first min(sessionNumberOfEntries, 40) sessions are meaningful. */
typedef struct ProfileLine {
    uint32_t value1;                     /* tag 3 */
    uint32_t value2;                     /* tag 4 */
    uint32_t value3;                     /* tag 5 */
    char text1[32];                      /* tag 6, text, at most 31 characters */
    char text2[16];                      /* tag 7, text, at most 15 characters */
    uint32_t value4;                     /* tag 8 */
    uint32_t value5;                     /* tag 9 */
    uint32_t value6;                     /* tag 10 */
    char text3[128];                     /* tag 11, text, at most 127 characters */
    uint32_t value7;                     /* tag 12 */
    uint32_t value8;                     /* tag 13 */
    uint32_t value9;                     /* tag 14 */
    char text4[256];                     /* tag 15, text, at most 255 characters */
    uint32_t value10;                    /* tag 16 */
    LineSIP sip;                         /* tag 17 reserved: inline LineSIP */
    LineRinger ringer;                   /* tag 18 reserved: inline LineRinger */
    CallingFeatures callingFeatures;     /* tag 19 reserved: inline CallingFeatures */
    LineVoiceProcessing voiceProcessing; /* tag 20 reserved: inline LineVoiceProcessing */
    LineCodec codec;                     /* tag 21 reserved: inline LineCodec */
    uint32_t sessionNumberOfEntries;     /* tag 22 */
    LineSession session[40];             /* tag 23 reserved: 40 entries, count in sessionNumberOfEntries */
} ProfileLine;

CORVANE_RECORD_OPS(LineSIPEventSubscribe)
CORVANE_RECORD_OPS(LineSIP)
CORVANE_RECORD_OPS(LineVoiceProcessing)
CORVANE_RECORD_OPS(LineSession)
CORVANE_RECORD_OPS(ProfileLine)

CORVANE_END_DECLS

#endif /* CORVANE_PROFILE_LINE_H */
