/*
 * libCorvane: registration and transport status.
 *
 * registrationStatus is the payload of SetRegistrationStatus (with the
 * registrar in use, CurrentRegistrar, nested), transportEvent of
 * SetTransportStatus.
 *
 * Each field's wire tag is given beside it; a tag marked "reserved" belongs to
 * a nested record or array, whose own elements are written in its place.
 */
#ifndef CORVANE_REGISTRATION_STATUS_H
#define CORVANE_REGISTRATION_STATUS_H

#include "corvane/schema.h"

CORVANE_BEGIN_DECLS

typedef struct CurrentRegistrar {
    char text1[256]; /* tag 3, text, at most 255 characters */
    uint32_t value1; /* tag 4 */
    uint32_t value2; /* tag 5 */
} CurrentRegistrar;

typedef struct registrationStatus {
    uint32_t value1;            /* tag 3 */
    uint32_t value2;            /* tag 4 */
    uint32_t value3;            /* tag 5 */
    uint32_t value4;            /* tag 6 */
    CurrentRegistrar registrar; /* tag 7 reserved: inline CurrentRegistrar */
    char text1[64];             /* tag 8, text, at most 63 characters */
} registrationStatus;

typedef struct transportEvent {
    uint32_t value1; /* tag 3 */
    uint32_t value2; /* tag 4 */
    uint32_t value3; /* tag 5 */
    uint32_t value4; /* tag 6 */
    char text1[128]; /* tag 7, text, at most 127 characters */
} transportEvent;

CORVANE_RECORD_OPS(CurrentRegistrar)
CORVANE_RECORD_OPS(registrationStatus)
CORVANE_RECORD_OPS(transportEvent)

CORVANE_END_DECLS

#endif /* CORVANE_REGISTRATION_STATUS_H */
