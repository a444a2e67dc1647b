/*
 * libCorvane: common types, status codes and callback signatures.
 *
 * Every public header of the library includes this one. The headers are
 * plain C99 and can be included from C++ as they are.
 */
#ifndef CORVANE_TYPES_H
#define CORVANE_TYPES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define CORVANE_BEGIN_DECLS extern "C" {
#define CORVANE_END_DECLS }
#else
#define CORVANE_BEGIN_DECLS
#define CORVANE_END_DECLS
#endif

#if defined(__GNUC__)
#define CORVANE_API __attribute__((visibility("default")))
#else
#define CORVANE_API
#endif

/* Status codes returned by the library. Codes of the middleware and of the
 * event loop are passed through unchanged and may take other values. */
#define CORVANE_OK 0u                /* done */
#define CORVANE_E_NOT_PROCESSED 1u   /* a response or unknown body kind; a refused table */
#define CORVANE_E_ENVELOPE 2u        /* envelope mismatch (tag 0 or 1 missing or wrong) */
#define CORVANE_E_STATE 3u           /* the base is in the wrong state */
#define CORVANE_E_ELEMENT 4u         /* element mismatch, text too long, null body, truncated input */
#define CORVANE_E_NOMEM 5u           /* allocation failure */

/* Body kinds given as the first argument of the body callbacks. */
#define CORVANE_BODY_REQUEST 0u
#define CORVANE_BODY_RESPONSE 1u

/* Handler installed by a server or a subscriber. It receives the message
 * context, the argument given at registration and a pointer to the payload
 * inside the body (the record, or the scalar payload struct). Its result is
 * ignored by the library. */
typedef uint32_t (*CorVaneHandler)(void *ctx, void *arg, void *payload);

/* Receive function of a method: checks the body and calls the handler. */
typedef void (*CorVaneRecvFn)(void *ctx, void *body, CorVaneHandler handler, void *arg);

/* The four body callbacks through which the middleware handles a body. */
typedef void (*CorVaneFreeBodyFn)(uint32_t kind, void *body);
typedef uint32_t (*CorVaneSerializeBodyFn)(uint32_t kind, void *body, uint8_t **buffer,
                                           uint32_t *length);
typedef uint32_t (*CorVaneUnserializeBodyFn)(uint32_t kind, const uint8_t *buffer, void **body,
                                             uint32_t *size);
typedef void (*CorVaneLogBodyFn)(void *a, void *b, void *c, char **text);

/* Called by the middleware when it drops an interface's table. */
typedef void (*CorVaneUnregFn)(uint16_t num);

/* Event-loop callback: context (the base) and event number (0 = delete). */
typedef void (*CorVaneEvtFn)(void *ctx, int32_t event);

#endif /* CORVANE_TYPES_H */
