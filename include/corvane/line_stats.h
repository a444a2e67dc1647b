/*
 * libCorvane: line statistics and modifications.
 *
 * lineStats (with its counters lineStatsS nested) is the payload of
 * SetLineStats, lineModif of SetLineModif.
 *
 * Each field's wire tag is given beside it; a tag marked "reserved" belongs to
 * a nested record or array, whose own elements are written in its place.
 */
#ifndef CORVANE_LINE_STATS_H
#define CORVANE_LINE_STATS_H

#include "corvane/schema.h"

CORVANE_BEGIN_DECLS

typedef struct lineStatsS {
    uint32_t value1;  /* tag 3 */
    uint32_t value2;  /* tag 4 */
    uint32_t value3;  /* tag 5 */
    uint32_t value4;  /* tag 6 */
    uint32_t value5;  /* tag 7 */
    uint32_t value6;  /* tag 8 */
    uint32_t value7;  /* tag 9 */
    uint32_t value8;  /* tag 10 */
    uint32_t value9;  /* tag 11 */
    uint32_t value10; /* tag 12 */
    uint32_t value11; /* tag 13 */
    uint32_t value12; /* tag 14 */
    uint32_t value13; /* tag 15 */
    uint32_t value14; /* tag 16 */
    uint32_t value15; /* tag 17 */
    uint32_t value16; /* tag 18 */
    uint32_t value17; /* tag 19 */
    uint32_t value18; /* tag 20 */
    uint32_t value19; /* tag 21 */
    uint32_t value20; /* tag 22 */
    uint32_t value21; /* tag 23 */
    uint32_t value22; /* tag 24 */
    uint32_t value23; /* tag 25 */
    uint32_t value24; /* tag 26 */
    uint32_t value25; /* tag 27 */
    uint32_t value26; /* tag 28 */
    uint32_t value27; /* tag 29 */
    uint32_t value28; /* tag 30 */
    uint32_t value29; /* tag 31 */
    uint32_t value30; /* tag 32 */
    char text1[32];   /* tag 33, text, at most 31 characters */
} lineStatsS;

typedef struct lineStats {
    uint32_t value1;  /* tag 3 */
    uint32_t value2;  /* tag 4 */
    lineStatsS stats; /* tag 5 reserved: inline lineStatsS */
} lineStats;

typedef struct lineModif {
    uint32_t value1;  /* tag 3 */
    uint32_t value2;  /* tag 4 */
    uint32_t value3;  /* tag 5 */
    uint32_t value4;  /* tag 6 */
    char text1[32];   /* tag 7, text, at most 31 characters */
    uint32_t value5;  /* tag 8 */
    uint32_t value6;  /* tag 9 */
    uint32_t value7;  /* tag 10 */
    char text2[32];   /* tag 11, text, at most 31 characters */
    char text3[32];   /* tag 12, text, at most 31 characters */
    uint32_t value8;  /* tag 13 */
    char text4[32];   /* tag 14, text, at most 31 characters */
    char text5[32];   /* tag 15, text, at most 31 characters */
    char text6[32];   /* tag 16, text, at most 31 characters */
    uint32_t value9;  /* tag 17 */
    char text7[32];   /* tag 18, text, at most 31 characters */
    char text8[32];   /* tag 19, text, at most 31 characters */
    char text9[32];   /* tag 20, text, at most 31 characters */
    uint32_t value10; /* tag 21 */
    char text10[32];  /* tag 22, text, at most 31 characters */
    char text11[32];  /* tag 23, text, at most 31 characters */
    char text12[32];  /* tag 24, text, at most 31 characters */
    uint32_t value11; /* tag 25 */
    uint32_t value12; /* tag 26 */
    uint32_t value13; /* tag 27 */
    uint32_t value14; /* tag 28 */
    char text13[256]; /* tag 29, text, at most 255 characters */
    uint32_t value15; /* tag 30 */
    char text14[128]; /* tag 31, text, at most 127 characters */
    uint32_t value16; /* tag 32 */
    uint32_t value17; /* tag 33 */
} lineModif;

CORVANE_RECORD_OPS(lineStatsS)
CORVANE_RECORD_OPS(lineStats)
CORVANE_RECORD_OPS(lineModif)

CORVANE_END_DECLS

#endif /* CORVANE_LINE_STATS_H */
