/*
 * libCorvane: DECT repeater and SUOTA.
 *
 * dectRepeater travels in CreateRepeater and OnAddObjectDectRepeater,
 * repeater_status in SetRepeaterStatus, suotaStatus in SetSuotaStatus.
 *
 * Each field's wire tag is given beside it; a tag marked "reserved" belongs to
 * a nested record or array, whose own elements are written in its place.
 */
#ifndef CORVANE_DECT_REPEATER_H
#define CORVANE_DECT_REPEATER_H

#include "corvane/schema.h"

CORVANE_BEGIN_DECLS

/* One DECT repeater known to the base. */
typedef struct dectRepeater {
    uint32_t value1; /* tag 3 */
    uint32_t value2; /* tag 4 */
    uint32_t value3; /* tag 5 */
    char text1[13];  /* tag 6, text, at most 12 characters */
    char text2[5];   /* tag 7, text, at most 4 characters */
} dectRepeater;

/* Run-time state of a repeater; 36 bytes on the wire. */
typedef struct repeater_status {
    uint32_t value1; /* tag 3 */
    uint32_t value2; /* tag 4 */
    uint32_t value3; /* tag 5 */
} repeater_status;

/* Progress and result of a handset software update over the air. */
typedef struct suotaStatus {
    uint32_t value1; /* tag 3 */
    uint32_t value2; /* tag 4 */
    uint32_t value3; /* tag 5 */
    char text1[20];  /* tag 6, text, at most 19 characters */
} suotaStatus;

CORVANE_RECORD_OPS(dectRepeater)
CORVANE_RECORD_OPS(repeater_status)
CORVANE_RECORD_OPS(suotaStatus)

CORVANE_END_DECLS

#endif /* CORVANE_DECT_REPEATER_H */
