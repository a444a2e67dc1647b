/*
 * The event loop's interface, as libCorvane imports it. Provided in this tree
 * by the stand-in platform library.
 */
#ifndef RANQ_H
#define RANQ_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Lifecycle callback of a base; event 0 means delete the base. */
typedef void (*RanqEvtFn)(void *ctx, int32_t event);

/* Registers the callback; 0 or a failure code. */
uint32_t ranq_addEvtBase(RanqEvtFn callback, void *ctx);

#ifdef __cplusplus
}
#endif

#endif /* RANQ_H */
