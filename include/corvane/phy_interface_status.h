/*
 * libCorvane: physical interface status.
 *
 * phyInterfaceStatus is the run-time state of one physical interface, the
 * payload of SetPhyInterfaceStatus.
 *
 * Each field's wire tag is given beside it; a tag marked "reserved" belongs to
 * a nested record or array, whose own elements are written in its place.
 */
#ifndef CORVANE_PHY_INTERFACE_STATUS_H
#define CORVANE_PHY_INTERFACE_STATUS_H

#include "corvane/schema.h"
#include "corvane/calling_features.h"

CORVANE_BEGIN_DECLS

/* 24 bytes on the wire. */
typedef struct phyInterfaceStatusTest {
    uint32_t value1; /* tag 3 */
    uint32_t value2; /* tag 4 */
} phyInterfaceStatusTest;

/* 36 bytes on the wire. */
typedef struct phyInterfaceStatusDectUsb {
    uint32_t value1; /* tag 3 */
    uint32_t value2; /* tag 4 */
    uint32_t value3; /* tag 5 */
} phyInterfaceStatusDectUsb;

typedef struct phyInterfaceStatusDectFp {
    uint32_t value1;  /* tag 3 */
    uint32_t value2;  /* tag 4 */
    uint32_t value3;  /* tag 5 */
    char text1[16];   /* tag 6, text, at most 15 characters */
    char text2[9];    /* tag 7, text, at most 8 characters */
    uint32_t value4;  /* tag 8 */
    uint32_t value5;  /* tag 9 */
    uint32_t value6;  /* tag 10 */
    char text3[64];   /* tag 11, text, at most 63 characters */
    char text4[20];   /* tag 12, text, at most 19 characters */
    char text5[20];   /* tag 13, text, at most 19 characters */
    char text6[20];   /* tag 14, text, at most 19 characters */
    uint32_t value7;  /* tag 15 */
    uint32_t value8;  /* tag 16 */
    uint32_t value9;  /* tag 17 */
    uint32_t value10; /* tag 18 */
    uint32_t value11; /* tag 19 */
    uint32_t value12; /* tag 20 */
} phyInterfaceStatusDectFp;

typedef struct phyInterfaceStatusDectPp {
    uint32_t value1; /* tag 3 */
    char text1[16];  /* tag 4, text, at most 15 characters */
    char text2[16];  /* tag 5, text, at most 15 characters */
    char text3[4];   /* tag 6, text, at most 3 characters */
    char text4[16];  /* tag 7, text, at most 15 characters */
    uint32_t value2; /* tag 8 */
    uint32_t value3; /* tag 9 */
    uint32_t value4; /* tag 10 */
    char text5[20];  /* tag 11, text, at most 19 characters */
    char text6[20];  /* tag 12, text, at most 19 characters */
    uint32_t value5; /* tag 13 */
    char text7[32];  /* tag 14, text, at most 31 characters */
    uint32_t value6; /* tag 15 */
} phyInterfaceStatusDectPp;

typedef struct phyInterfaceStatus {
    uint32_t value1;                   /* tag 3 */
    uint32_t value2;                   /* tag 4 */
    uint32_t value3;                   /* tag 5 */
    char text1[32];                    /* tag 6, text, at most 31 characters */
    uint32_t value4;                   /* tag 7 */
    phyInterfaceStatusTest test;       /* tag 8 reserved: inline phyInterfaceStatusTest */
    phyInterfaceStatusDectUsb dectUsb; /* tag 9 reserved: inline phyInterfaceStatusDectUsb */
    phyInterfaceStatusDectFp dectFp;   /* tag 10 reserved: inline phyInterfaceStatusDectFp */
    phyInterfaceStatusDectPp dectPp;   /* tag 11 reserved: inline phyInterfaceStatusDectPp */
    CallingFeatures callingFeatures;   /* tag 12 reserved: inline CallingFeatures */
} phyInterfaceStatus;

CORVANE_RECORD_OPS(phyInterfaceStatusTest)
CORVANE_RECORD_OPS(phyInterfaceStatusDectUsb)
CORVANE_RECORD_OPS(phyInterfaceStatusDectFp)
CORVANE_RECORD_OPS(phyInterfaceStatusDectPp)
CORVANE_RECORD_OPS(phyInterfaceStatus)

CORVANE_END_DECLS

#endif /* CORVANE_PHY_INTERFACE_STATUS_H */
