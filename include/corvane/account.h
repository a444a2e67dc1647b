/*
 * libCorvane: registrar, account and contact.
 *
 * Registrar, Account and Contact are the payloads of their OnAddObject and
 * OnChangeObject notifications; outGoingLine is nested in Account and
 * PhyInterface. The capacities 45 and 389 are kept exactly.
 *
 * Each field's wire tag is given beside it; a tag marked "reserved" belongs to
 * a nested record or array, whose own elements are written in its place.
 */
#ifndef CORVANE_ACCOUNT_H
#define CORVANE_ACCOUNT_H

#include "corvane/schema.h"
#include "corvane/calling_features.h"

CORVANE_BEGIN_DECLS

/* 24 bytes on the wire. */
typedef struct outGoingLine {
    uint32_t value1; /* tag 3 */
    uint32_t value2; /* tag 4 */
} outGoingLine;

typedef struct Registrar {
    uint32_t value1; /* tag 3 */
    uint32_t value2; /* tag 4 */
    uint32_t value3; /* tag 5 */
    char text1[64];  /* tag 6, text, at most 63 characters */
    char text2[45];  /* tag 7, text, at most 44 characters */
    uint32_t value4; /* tag 8 */
    uint32_t value5; /* tag 9 */
    uint32_t value6; /* tag 10 */
    char text3[256]; /* tag 11, text, at most 255 characters */
    char text4[256]; /* tag 12, text, at most 255 characters */
    uint32_t value7; /* tag 13 */
    char text5[256]; /* tag 14, text, at most 255 characters */
} Registrar;

typedef struct Account {
    uint32_t value1;                  /* tag 3 */
    uint32_t value2;                  /* tag 4 */
    uint32_t value3;                  /* tag 5 */
    uint32_t value4;                  /* tag 6 */
    char text1[64];                   /* tag 7, text, at most 63 characters */
    char authUserName[128];           /* tag 8, text, at most 127 characters */
    char authPassword[128];           /* tag 9, text, at most 127 characters */
    char uri[389];                    /* tag 10, text, at most 388 characters */
    char text2[256];                  /* tag 11, text, at most 255 characters */
    char text3[32];                   /* tag 12, text, at most 31 characters */
    char text4[256];                  /* tag 13, text, at most 255 characters */
    uint32_t value5;                  /* tag 14 */
    struct outGoingLine outGoingLine; /* tag 15 reserved: inline outGoingLine */
    uint32_t value6;                  /* tag 16 */
    char text5[256];                  /* tag 17, text, at most 255 characters */
    CallingFeatures callingFeatures;  /* tag 18 reserved: inline CallingFeatures */
} Account;

typedef struct Contact {
    uint32_t value1; /* tag 3 */
    uint32_t value2; /* tag 4 */
    uint32_t value3; /* tag 5 */
    uint32_t value4; /* tag 6 */
    char text1[64];  /* tag 7, text, at most 63 characters */
    char text2[45];  /* tag 8, text, at most 44 characters */
    uint32_t value5; /* tag 9 */
    char text3[256]; /* tag 10, text, at most 255 characters */
    char text4[64];  /* tag 11, text, at most 63 characters */
} Contact;

CORVANE_RECORD_OPS(outGoingLine)
CORVANE_RECORD_OPS(Registrar)
CORVANE_RECORD_OPS(Account)
CORVANE_RECORD_OPS(Contact)

CORVANE_END_DECLS

#endif /* CORVANE_ACCOUNT_H */
