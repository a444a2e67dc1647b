/*
 * libCorvane: calling features.
 *
 * The calling-feature settings of one line, account or physical interface:
 * 42 numeric and 15 text settings. Never sent alone; nested by value in
 * ProfileLine, Account, PhyInterface and phyInterfaceStatus.
 * Wire length: 699 + sum over the texts of (n - ((n + 1) & 3)); 684 bytes
 * with every text empty, 1580 with every text full.
 *
 * Each field's wire tag is given beside it; a tag marked "reserved" belongs to
 * a nested record or array, whose own elements are written in its place.
 */
#ifndef CORVANE_CALLING_FEATURES_H
#define CORVANE_CALLING_FEATURES_H

#include "corvane/schema.h"

CORVANE_BEGIN_DECLS

typedef struct CallingFeatures {
    uint32_t value1;  /* tag 3 */
    uint32_t value2;  /* tag 4 */
    uint32_t value3;  /* tag 5 */
    uint32_t value4;  /* tag 6 */
    char text1[256];  /* tag 7, text, at most 255 characters */
    uint32_t value5;  /* tag 8 */
    uint32_t value6;  /* tag 9 */
    uint32_t value7;  /* tag 10 */
    uint32_t value8;  /* tag 11 */
    uint32_t value9;  /* tag 12 */
    uint32_t value10; /* tag 13 */
    uint32_t value11; /* tag 14 */
    uint32_t value12; /* tag 15 */
    uint32_t value13; /* tag 16 */
    uint32_t value14; /* tag 17 */
    uint32_t value15; /* tag 18 */
    uint32_t value16; /* tag 19 */
    char text2[32];   /* tag 20, text, at most 31 characters */
    char text3[32];   /* tag 21, text, at most 31 characters */
    char text4[16];   /* tag 22, text, at most 15 characters */
    uint32_t value17; /* tag 23 */
    char text5[32];   /* tag 24, text, at most 31 characters */
    char text6[32];   /* tag 25, text, at most 31 characters */
    char text7[32];   /* tag 26, text, at most 31 characters */
    uint32_t value18; /* tag 27 */
    char text8[32];   /* tag 28, text, at most 31 characters */
    char text9[32];   /* tag 29, text, at most 31 characters */
    char text10[16];  /* tag 30, text, at most 15 characters */
    uint32_t value19; /* tag 31 */
    uint32_t value20; /* tag 32 */
    char text11[32];  /* tag 33, text, at most 31 characters */
    char text12[32];  /* tag 34, text, at most 31 characters */
    uint32_t value21; /* tag 35 */
    uint32_t value22; /* tag 36 */
    uint32_t value23; /* tag 37 */
    uint32_t value24; /* tag 38 */
    uint32_t value25; /* tag 39 */
    uint32_t value26; /* tag 40 */
    uint32_t value27; /* tag 41 */
    uint32_t value28; /* tag 42 */
    uint32_t value29; /* tag 43 */
    uint32_t value30; /* tag 44 */
    uint32_t value31; /* tag 45 */
    uint32_t value32; /* tag 46 */
    uint32_t value33; /* tag 47 */
    uint32_t value34; /* tag 48 */
    uint32_t value35; /* tag 49 */
    char text13[256]; /* tag 50, text, at most 255 characters */
    uint32_t value36; /* tag 51 */
    char text14[32];  /* tag 52, text, at most 31 characters */
    char text15[32];  /* tag 53, text, at most 31 characters */
    uint32_t value37; /* tag 54 */
    uint32_t value38; /* tag 55 */
    uint32_t value39; /* tag 56 */
    uint32_t value40; /* tag 57 */
    uint32_t value41; /* tag 58 */
    uint32_t value42; /* tag 59 */
} CallingFeatures;

CORVANE_RECORD_OPS(CallingFeatures)

CORVANE_END_DECLS

#endif /* CORVANE_CALLING_FEATURES_H */
