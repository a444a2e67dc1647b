/*
 * libCorvane: voice behaviour and battery settings.
 *
 * VoiceBehavior is the payload of OnVoiceBehaviorCfg, BatteryCfg of OnBatteryCfg.
 *
 * Each field's wire tag is given beside it; a tag marked "reserved" belongs to
 * a nested record or array, whose own elements are written in its place.
 */
#ifndef CORVANE_VOICE_BEHAVIOR_H
#define CORVANE_VOICE_BEHAVIOR_H

#include "corvane/schema.h"

CORVANE_BEGIN_DECLS

typedef struct LocalAnnouncement {
    uint32_t announcementValue1; /* tag 3 */
    uint32_t announcementValue2; /* tag 4 */
    uint32_t announcementValue3; /* tag 5 */
    char announcementText[128];  /* tag 6, text, at most 127 characters */
} LocalAnnouncement;

/* 12 bytes on the wire. */
typedef struct CallControl {
    uint32_t callControlValue; /* tag 3 */
} CallControl;

/* 48 bytes on the wire. */
typedef struct BackupInterface {
    uint32_t backupValue1; /* tag 3 */
    uint32_t backupValue2; /* tag 4 */
    uint32_t backupValue3; /* tag 5 */
    uint32_t backupValue4; /* tag 6 */
} BackupInterface;

/* 12 bytes on the wire. */
typedef struct DualStack {
    uint32_t dualStackValue; /* tag 3 */
} DualStack;

/* Service-wide behaviour settings. */
typedef struct VoiceBehavior {
    uint32_t behaviorValue;              /* tag 3 */
    LocalAnnouncement localAnnouncement; /* tag 4 reserved: inline LocalAnnouncement */
    CallControl callControl;             /* tag 5 reserved: inline CallControl */
    BackupInterface backupInterface;     /* tag 6 reserved: inline BackupInterface */
    DualStack dualStack;                 /* tag 7 reserved: inline DualStack */
} VoiceBehavior;

/* 48 bytes on the wire. */
typedef struct BatteryCfg {
    uint32_t batteryValue1; /* tag 3 */
    uint32_t batteryValue2; /* tag 4 */
    uint32_t batteryValue3; /* tag 5 */
    uint32_t batteryValue4; /* tag 6 */
} BatteryCfg;

CORVANE_RECORD_OPS(LocalAnnouncement)
CORVANE_RECORD_OPS(CallControl)
CORVANE_RECORD_OPS(BackupInterface)
CORVANE_RECORD_OPS(DualStack)
CORVANE_RECORD_OPS(VoiceBehavior)
CORVANE_RECORD_OPS(BatteryCfg)

CORVANE_END_DECLS

#endif /* CORVANE_VOICE_BEHAVIOR_H */
