/*
 * libCorvane: payloads of the messages that carry scalars rather than a record.
 *
 * A handler of such a message receives a pointer to one of these structs.
 * On the wire the fields are u32 elements (and, for the two mixed payloads,
 * string elements) with tags 3, 4, ... in field order.
 */
#ifndef CORVANE_PAYLOADS_H
#define CORVANE_PAYLOADS_H

#include "corvane/types.h"

CORVANE_BEGIN_DECLS

/* DeleteRepeater */
typedef struct CorVaneRepeaterId {
    uint32_t repeaterId;
} CorVaneRepeaterId;

/* SetBatteryEnable */
typedef struct CorVaneBatteryEnable {
    uint32_t enable;
} CorVaneBatteryEnable;

/* Notifications with one to four u32 values. */
typedef struct CorVaneValues1 {
    uint32_t value1;
} CorVaneValues1;

typedef struct CorVaneValues2 {
    uint32_t value1;
    uint32_t value2;
} CorVaneValues2;

typedef struct CorVaneValues3 {
    uint32_t value1;
    uint32_t value2;
    uint32_t value3;
} CorVaneValues3;

typedef struct CorVaneValues4 {
    uint32_t value1;
    uint32_t value2;
    uint32_t value3;
    uint32_t value4;
} CorVaneValues4;

/* OnMakeCall */
typedef struct CorVaneMakeCall {
    uint32_t value1;
    uint32_t value2;
    char text1[32];
    char text2[32];
    char text3[32];
} CorVaneMakeCall;

/* OnPingSip */
typedef struct CorVanePingSip {
    uint32_t value1;
    uint32_t value2;
    uint32_t value3;
    char text1[32];
} CorVanePingSip;

CORVANE_END_DECLS

#endif /* CORVANE_PAYLOADS_H */
