/*
 * libCorvane: account status.
 *
 * accountStatus is the payload of SetAccountStatus.
 *
 * Each field's wire tag is given beside it; a tag marked "reserved" belongs to
 * a nested record or array, whose own elements are written in its place.
 */
#ifndef CORVANE_ACCOUNT_STATUS_H
#define CORVANE_ACCOUNT_STATUS_H

#include "corvane/schema.h"

CORVANE_BEGIN_DECLS

typedef struct accountStatus {
    uint32_t value1; /* tag 3 */
    uint32_t value2; /* tag 4 */
    uint32_t value3; /* tag 5 */
    uint32_t value4; /* tag 6 */
    char text1[64];  /* tag 7, text, at most 63 characters */
    char text2[45];  /* tag 8, text, at most 44 characters */
    char text3[256]; /* tag 9, text, at most 255 characters */
    char text4[64];  /* tag 10, text, at most 63 characters */
    uint32_t value5; /* tag 11 */
    uint32_t value6; /* tag 12 */
} accountStatus;

CORVANE_RECORD_OPS(accountStatus)

CORVANE_END_DECLS

#endif /* CORVANE_ACCOUNT_STATUS_H */
