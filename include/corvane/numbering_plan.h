/*
 * libCorvane: numbering plan.
 *
 * NumberingPlan is nested in VoiceProfile; its 40 PrefixInfo entries have no
 * count and always travel in full.
 *
 * Each field's wire tag is given beside it; a tag marked "reserved" belongs to
 * a nested record or array, whose own elements are written in its place.
 */
#ifndef CORVANE_NUMBERING_PLAN_H
#define CORVANE_NUMBERING_PLAN_H

#include "corvane/schema.h"

CORVANE_BEGIN_DECLS

/* One dialled-prefix range and its action. */
typedef struct PrefixInfo {
    uint32_t prefixValue1;            /* tag 3 */
    char prefixRange[42];             /* tag 4, text, at most 41 characters */
    uint32_t prefixValue3;            /* tag 5 */
    uint32_t prefixValue4;            /* tag 6 */
    uint32_t prefixValue5;            /* tag 7 */
    uint32_t prefixValue6;            /* tag 8 */
    uint32_t prefixValue7;            /* tag 9 */
    uint32_t prefixValue8;            /* tag 10 */
    uint32_t prefixValue9;            /* tag 11 */
    char facilityActionArgument[256]; /* tag 12, text, at most 255 characters */
} PrefixInfo;

/* Dialling rules of one voice profile. */
typedef struct NumberingPlan {
    uint32_t planValue1;       /* tag 3 */
    uint32_t planValue2;       /* tag 4 */
    uint32_t planValue3;       /* tag 5 */
    uint32_t planValue4;       /* tag 6 */
    uint32_t planValue5;       /* tag 7 */
    uint32_t planValue6;       /* tag 8 */
    uint32_t planValue7;       /* tag 9 */
    uint32_t planValue8;       /* tag 10 */
    PrefixInfo prefixInfo[40]; /* tag 11 reserved: always 40 entries */
    char planText[2];          /* tag 12, text, at most 1 characters */
    uint32_t planValue13;      /* tag 13 */
} NumberingPlan;

CORVANE_RECORD_OPS(PrefixInfo)
CORVANE_RECORD_OPS(NumberingPlan)

CORVANE_END_DECLS

#endif /* CORVANE_NUMBERING_PLAN_H */
