/*
 * libCorvane: capabilities.
 *
 * capabilities is the payload of SetCapabilities; its 40 capa_codec entries
 * have no count and always travel in full (2736 bytes with every text empty).
 *
 * Each field's wire tag is given beside it; a tag marked "reserved" belongs to
 * a nested record or array, whose own elements are written in its place.
 */
#ifndef CORVANE_CAPABILITIES_H
#define CORVANE_CAPABILITIES_H

#include "corvane/schema.h"

CORVANE_BEGIN_DECLS

/* One codec the service supports. */
typedef struct capa_codec {
    uint32_t value1; /* tag 3 */
    char text1[40];  /* tag 4, text, at most 39 characters */
    uint32_t value2; /* tag 5 */
    char text2[40];  /* tag 6, text, at most 39 characters */
    uint32_t value3; /* tag 7 */
} capa_codec;

typedef struct capabilities {
    uint32_t value1;       /* tag 3 */
    uint32_t value2;       /* tag 4 */
    uint32_t value3;       /* tag 5 */
    uint32_t value4;       /* tag 6 */
    uint32_t value5;       /* tag 7 */
    uint32_t value6;       /* tag 8 */
    uint32_t value7;       /* tag 9 */
    uint32_t value8;       /* tag 10 */
    uint32_t value9;       /* tag 11 */
    uint32_t value10;      /* tag 12 */
    uint32_t value11;      /* tag 13 */
    uint32_t value12;      /* tag 14 */
    uint32_t value13;      /* tag 15 */
    uint32_t value14;      /* tag 16 */
    uint32_t value15;      /* tag 17 */
    uint32_t value16;      /* tag 18 */
    uint32_t value17;      /* tag 19 */
    uint32_t value18;      /* tag 20 */
    uint32_t value19;      /* tag 21 */
    char text1[256];       /* tag 22, text, at most 255 characters */
    char text2[256];       /* tag 23, text, at most 255 characters */
    uint32_t value20;      /* tag 24 */
    uint32_t value21;      /* tag 25 */
    uint32_t value22;      /* tag 26 */
    char text3[256];       /* tag 27, text, at most 255 characters */
    char text4[256];       /* tag 28, text, at most 255 characters */
    char text5[256];       /* tag 29, text, at most 255 characters */
    uint32_t value23;      /* tag 30 */
    capa_codec codecs[40]; /* tag 31 reserved: always 40 entries */
} capabilities;

CORVANE_RECORD_OPS(capa_codec)
CORVANE_RECORD_OPS(capabilities)

CORVANE_END_DECLS

#endif /* CORVANE_CAPABILITIES_H */
