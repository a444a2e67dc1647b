/*
 * libCorvane: voice profile.
 *
 * VoiceProfile is the whole configuration of one voice profile, the payload
 * of SetProfileConfig, OnAddObjectVoiceProfile and OnChangeObjectVoiceProfile.
 * On a failure while reading, these six records log an "Error Before" line
 * for every later tag number, the reserved numbers of nested records and
 * arrays included.
 *
 * Each field's wire tag is given beside it; a tag marked "reserved" belongs to
 * a nested record or array, whose own elements are written in its place.
 */
#ifndef CORVANE_VOICE_PROFILE_H
#define CORVANE_VOICE_PROFILE_H

#include "corvane/schema.h"
#include "corvane/profile_sip.h"
#include "corvane/numbering_plan.h"

CORVANE_BEGIN_DECLS

/* RTCP settings. */
typedef struct ProfileRTCP {
    uint32_t enable;           /* tag 3 */
    uint32_t txRepeatInterval; /* tag 4 */
    char localCName[64];       /* tag 5, text, at most 63 characters */
} ProfileRTCP;

/* Media settings. */
typedef struct ProfileRTP {
    uint32_t rtpValue1;  /* tag 3 */
    uint32_t rtpValue2;  /* tag 4 */
    uint32_t rtpValue3;  /* tag 5 */
    uint32_t rtpValue4;  /* tag 6 */
    uint32_t rtpValue5;  /* tag 7 */
    uint32_t rtpValue6;  /* tag 8 */
    uint32_t rtpValue7;  /* tag 9 */
    uint32_t rtpValue8;  /* tag 10 */
    uint32_t rtpValue9;  /* tag 11 */
    uint32_t rtpValue10; /* tag 12 */
    uint32_t rtpValue11; /* tag 13 */
    ProfileRTCP rtcp;    /* tag 14 reserved: inline ProfileRTCP */
} ProfileRTP;

/* T.38 fax settings; 72 bytes on the wire. */
typedef struct FaxT38 {
    uint32_t enable;              /* tag 3 */
    uint32_t bitRate;             /* tag 4 */
    uint32_t highSpeedPacketRate; /* tag 5 */
    uint32_t highSpeedRedundancy; /* tag 6 */
    uint32_t lowSpeedRedundancy;  /* tag 7 */
    uint32_t tcfMethod;           /* tag 8 */
} FaxT38;

/* Emergency-call settings. */
typedef struct Emergency {
    uint32_t emergencyValue1; /* tag 3 */
    char emergencyText[256];  /* tag 4, text, at most 255 characters */
    uint32_t emergencyValue3; /* tag 5 */
    uint32_t emergencyValue4; /* tag 6 */
    uint32_t emergencyValue5; /* tag 7 */
    uint32_t emergencyValue6; /* tag 8 */
    uint32_t emergencyValue7; /* tag 9 */
} Emergency;

/* One digit map. */
typedef struct ProfileDigitMap {
    uint32_t digitMapValue1; /* tag 3 */
    uint32_t digitMapValue2; /* tag 4 */
    char digitMap[4096];     /* tag 5, text, at most 4095 characters */
} ProfileDigitMap;

/* Only the first min(digitMapNumberOfEntries, 40) digit maps are meaningful. */
typedef struct VoiceProfile {
    uint32_t profileValue3;           /* tag 3 */
    uint32_t profileValue4;           /* tag 4 */
    uint32_t profileValue5;           /* tag 5 */
    uint32_t profileValue6;           /* tag 6 */
    uint32_t profileValue7;           /* tag 7 */
    uint32_t profileValue8;           /* tag 8 */
    char profileText9[64];            /* tag 9, text, at most 63 characters */
    char profileText10[64];           /* tag 10, text, at most 63 characters */
    uint32_t profileValue11;          /* tag 11 */
    char profileText12[10];           /* tag 12, text, at most 9 characters */
    uint32_t profileValue13;          /* tag 13 */
    uint32_t profileValue14;          /* tag 14 */
    char profileText15[4];            /* tag 15, text, at most 3 characters */
    char profileText16[2048];         /* tag 16, text, at most 2047 characters */
    uint32_t profileValue17;          /* tag 17 */
    uint32_t profileValue18;          /* tag 18 */
    char profileText19[256];          /* tag 19, text, at most 255 characters */
    uint32_t profileValue20;          /* tag 20 */
    uint32_t profileValue21;          /* tag 21 */
    uint32_t profileValue22;          /* tag 22 */
    uint32_t profileValue23;          /* tag 23 */
    uint32_t profileValue24;          /* tag 24 */
    uint32_t profileValue25;          /* tag 25 */
    ProfileSIP sip;                   /* tag 26 reserved: inline ProfileSIP */
    ProfileRTP rtp;                   /* tag 27 reserved: inline ProfileRTP */
    NumberingPlan numberingPlan;      /* tag 28 reserved: inline NumberingPlan */
    FaxT38 faxT38;                    /* tag 29 reserved: inline FaxT38 */
    Emergency emergency;              /* tag 30 reserved: inline Emergency */
    uint32_t digitMapNumberOfEntries; /* tag 31 */
    ProfileDigitMap digitMaps[40];    /* tag 32 reserved: 40 entries, count in digitMapNumberOfEntries */
    uint32_t profileValue33;          /* tag 33 */
} VoiceProfile;

CORVANE_RECORD_OPS(ProfileRTCP)
CORVANE_RECORD_OPS(ProfileRTP)
CORVANE_RECORD_OPS(FaxT38)
CORVANE_RECORD_OPS(Emergency)
CORVANE_RECORD_OPS(ProfileDigitMap)
CORVANE_RECORD_OPS(VoiceProfile)

CORVANE_END_DECLS

#endif /* CORVANE_VOICE_PROFILE_H */
