/*
 * libCorvane: line codecs.
 *
 * LineCodec is nested in ProfileLine: seven settings and up to 40 codecs.
 *
 * Each field's wire tag is given beside it; a tag marked "reserved" belongs to
 * a nested record or array, whose own elements are written in its place.
 */
#ifndef CORVANE_LINE_CODEC_H
#define CORVANE_LINE_CODEC_H

#include "corvane/schema.h"

CORVANE_BEGIN_DECLS

/* One codec entry. */
typedef struct CodecList {
    uint32_t entryId;             /* tag 3 */
    char codec[64];               /* tag 4, text, at most 63 characters */
    uint32_t bitRate;             /* tag 5 */
    char packetizationPeriod[64]; /* tag 6, text, at most 63 characters */
    uint32_t silenceSuppression;  /* tag 7 */
    uint32_t enable;              /* tag 8 */
    uint32_t priority;            /* tag 9 */
    uint32_t value1;              /* tag 10 */
} CodecList;

/* Only the first min(listNumberOfEntries, 40) entries are meaningful. */
typedef struct LineCodec {
    uint32_t value1;              /* tag 3 */
    uint32_t value2;              /* tag 4 */
    uint32_t value3;              /* tag 5 */
    uint32_t value4;              /* tag 6 */
    uint32_t value5;              /* tag 7 */
    uint32_t value6;              /* tag 8 */
    uint32_t value7;              /* tag 9 */
    uint32_t listNumberOfEntries; /* tag 10 */
    CodecList list[40];           /* tag 11 reserved: 40 entries, count in listNumberOfEntries */
} LineCodec;

CORVANE_RECORD_OPS(CodecList)
CORVANE_RECORD_OPS(LineCodec)

CORVANE_END_DECLS

#endif /* CORVANE_LINE_CODEC_H */
