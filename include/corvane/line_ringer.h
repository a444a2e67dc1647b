/*
 * libCorvane: line ringer.
 *
 * LineRinger is nested in ProfileLine: three tables of up to 40 entries each.
 *
 * Each field's wire tag is given beside it; a tag marked "reserved" belongs to
 * a nested record or array, whose own elements are written in its place.
 */
#ifndef CORVANE_LINE_RINGER_H
#define CORVANE_LINE_RINGER_H

#include "corvane/schema.h"

CORVANE_BEGIN_DECLS

/* One ring event; 24 bytes on the wire. */
typedef struct EventList {
    uint32_t value1; /* tag 3 */
    uint32_t value2; /* tag 4 */
} EventList;

/* One ring description. */
typedef struct DescriptionList {
    uint32_t value1; /* tag 3 */
    uint32_t value2; /* tag 4 */
    char text1[256]; /* tag 5, text, at most 255 characters */
    uint32_t value3; /* tag 6 */
    char text2[256]; /* tag 7, text, at most 255 characters */
} DescriptionList;

/* One cadence step; 48 bytes on the wire. */
typedef struct PatternList {
    uint32_t entry;     /* tag 3 */
    uint32_t ringerOn;  /* tag 4 */
    uint32_t duration;  /* tag 5 */
    uint32_t nextEntry; /* tag 6 */
} PatternList;

/* Only the first min(count, 40) entries of each table are meaningful. */
typedef struct LineRinger {
    uint32_t eventNumberOfEntries;       /* tag 3 */
    EventList event[40];                 /* tag 4 reserved: 40 entries, count in eventNumberOfEntries */
    uint32_t descriptionNumberOfEntries; /* tag 5 */
    DescriptionList description[40];     /* tag 6 reserved: 40 entries, count in descriptionNumberOfEntries */
    uint32_t patternNumberOfEntries;     /* tag 7 */
    PatternList pattern[40];             /* tag 8 reserved: 40 entries, count in patternNumberOfEntries */
} LineRinger;

CORVANE_RECORD_OPS(EventList)
CORVANE_RECORD_OPS(DescriptionList)
CORVANE_RECORD_OPS(PatternList)
CORVANE_RECORD_OPS(LineRinger)

CORVANE_END_DECLS

#endif /* CORVANE_LINE_RINGER_H */
