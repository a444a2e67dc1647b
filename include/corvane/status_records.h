/*
 * libCorvane: call and profile status records.
 *
 * Five small status records of scalars only, each the payload of one command
 * (SetInternalCallStatus, SetProfileStatus, SetProfileBackupIntfStatus,
 * SetLineCallState, SetPingSipState). Their wire lengths are constant.
 *
 * Each field's wire tag is given beside it; a tag marked "reserved" belongs to
 * a nested record or array, whose own elements are written in its place.
 */
#ifndef CORVANE_STATUS_RECORDS_H
#define CORVANE_STATUS_RECORDS_H

#include "corvane/schema.h"

CORVANE_BEGIN_DECLS

/* SetInternalCallStatus; 12 bytes on the wire. */
typedef struct internalCallStatus {
    uint32_t value1; /* tag 3 */
} internalCallStatus;

/* SetProfileStatus; 24 bytes on the wire. */
typedef struct ProfileStatus {
    uint32_t value1; /* tag 3 */
    uint32_t value2; /* tag 4 */
} ProfileStatus;

/* SetProfileBackupIntfStatus; 36 bytes on the wire. */
typedef struct ProfileBackupIntfStatus {
    uint32_t value1; /* tag 3 */
    uint32_t value2; /* tag 4 */
    uint32_t value3; /* tag 5 */
} ProfileBackupIntfStatus;

/* SetLineCallState; 36 bytes on the wire. */
typedef struct lineCallState {
    uint32_t value1; /* tag 3 */
    uint32_t value2; /* tag 4 */
    uint32_t value3; /* tag 5 */
} lineCallState;

/* SetPingSipState; 36 bytes on the wire. */
typedef struct pingSipState {
    uint32_t value1; /* tag 3 */
    uint32_t value2; /* tag 4 */
    uint32_t value3; /* tag 5 */
} pingSipState;

CORVANE_RECORD_OPS(internalCallStatus)
CORVANE_RECORD_OPS(ProfileStatus)
CORVANE_RECORD_OPS(ProfileBackupIntfStatus)
CORVANE_RECORD_OPS(lineCallState)
CORVANE_RECORD_OPS(pingSipState)

CORVANE_END_DECLS

#endif /* CORVANE_STATUS_RECORDS_H */
