/*
 * libCorvane: physical interface.
 *
 * PhyInterface describes one physical telephony interface (FXS, ISDN, DECT
 * base, DECT USB dongle, DECT handset slot, reinjection) with its settings;
 * the payload of OnAddObjectPhyInterface and OnChangeObjectPhyInterface.
 *
 * Each field's wire tag is given beside it; a tag marked "reserved" belongs to
 * a nested record or array, whose own elements are written in its place.
 */
#ifndef CORVANE_PHY_INTERFACE_H
#define CORVANE_PHY_INTERFACE_H

#include "corvane/schema.h"
#include "corvane/account.h"
#include "corvane/calling_features.h"

CORVANE_BEGIN_DECLS

/* One allowed codec; 12 bytes on the wire. */
typedef struct phyInterfaceCodecList {
    uint32_t codec; /* tag 3 */
} phyInterfaceCodecList;

/* Line-test settings. */
typedef struct phyInterfaceTest {
    char text1[64];  /* tag 3, text, at most 63 characters */
    uint32_t value1; /* tag 4 */
    uint32_t value2; /* tag 5 */
} phyInterfaceTest;

/* DECT USB dongle setting; 12 bytes on the wire. */
typedef struct phyInterfaceDectUsb {
    uint32_t value1; /* tag 3 */
} phyInterfaceDectUsb;

/* DECT fixed-part (base) settings. */
typedef struct phyInterfaceDectFp {
    uint32_t value1; /* tag 3 */
    uint32_t value2; /* tag 4 */
    uint32_t value3; /* tag 5 */
    char text1[9];   /* tag 6, text, at most 8 characters */
    uint32_t value4; /* tag 7 */
    uint32_t value5; /* tag 8 */
    uint32_t value6; /* tag 9 */
    uint32_t value7; /* tag 10 */
    uint32_t value8; /* tag 11 */
    uint32_t value9; /* tag 12 */
    char text2[19];  /* tag 13, text, at most 18 characters */
    char text3[64];  /* tag 14, text, at most 63 characters */
    char text4[64];  /* tag 15, text, at most 63 characters */
} phyInterfaceDectFp;

/* DECT portable-part (handset) settings; 24 bytes on the wire. */
typedef struct phyInterfaceDectPp {
    uint32_t value1; /* tag 3 */
    uint32_t value2; /* tag 4 */
} phyInterfaceDectPp;

/* FXS settings; 60 bytes on the wire. */
typedef struct phyInterfaceFxs {
    uint32_t value1; /* tag 3 */
    uint32_t value2; /* tag 4 */
    uint32_t value3; /* tag 5 */
    uint32_t value4; /* tag 6 */
    uint32_t value5; /* tag 7 */
} phyInterfaceFxs;

/* ISDN settings. */
typedef struct phyInterfaceIsdn {
    char text1[10]; /* tag 3, text, at most 9 characters */
} phyInterfaceIsdn;

/* Reinjection settings; 24 bytes on the wire. */
typedef struct phyInterfaceReinjection {
    uint32_t value1; /* tag 3 */
    uint32_t value2; /* tag 4 */
} phyInterfaceReinjection;

/* Only the first min(codecCount, 40) entries of codecList are meaningful. */
typedef struct PhyInterface {
    uint32_t value1;                     /* tag 3 */
    char phyPort[2];                     /* tag 4, text, at most 1 characters */
    uint32_t interfaceID;                /* tag 5 */
    char description[32];                /* tag 6, text, at most 31 characters */
    char text1[32];                      /* tag 7, text, at most 31 characters */
    uint32_t value2;                     /* tag 8 */
    struct outGoingLine outGoingLine;    /* tag 9 reserved: inline outGoingLine */
    phyInterfaceTest test;               /* tag 10 reserved: inline phyInterfaceTest */
    phyInterfaceDectUsb dectUsb;         /* tag 11 reserved: inline phyInterfaceDectUsb */
    phyInterfaceDectFp dectFp;           /* tag 12 reserved: inline phyInterfaceDectFp */
    phyInterfaceDectPp dectPp;           /* tag 13 reserved: inline phyInterfaceDectPp */
    phyInterfaceFxs fxs;                 /* tag 14 reserved: inline phyInterfaceFxs */
    phyInterfaceIsdn isdn;               /* tag 15 reserved: inline phyInterfaceIsdn */
    phyInterfaceReinjection reinjection; /* tag 16 reserved: inline phyInterfaceReinjection */
    uint32_t codecCount;                 /* tag 17 */
    phyInterfaceCodecList codecList[40]; /* tag 18 reserved: 40 entries, count in codecCount */
    uint32_t value3;                     /* tag 19 */
    uint32_t value4;                     /* tag 20 */
    CallingFeatures callingFeatures;     /* tag 21 reserved: inline CallingFeatures */
    uint32_t value5;                     /* tag 22 */
} PhyInterface;

CORVANE_RECORD_OPS(phyInterfaceCodecList)
CORVANE_RECORD_OPS(phyInterfaceTest)
CORVANE_RECORD_OPS(phyInterfaceDectUsb)
CORVANE_RECORD_OPS(phyInterfaceDectFp)
CORVANE_RECORD_OPS(phyInterfaceDectPp)
CORVANE_RECORD_OPS(phyInterfaceFxs)
CORVANE_RECORD_OPS(phyInterfaceIsdn)
CORVANE_RECORD_OPS(phyInterfaceReinjection)
CORVANE_RECORD_OPS(PhyInterface)

CORVANE_END_DECLS

#endif /* CORVANE_PHY_INTERFACE_H */
