/*
 * libCorvane: the whole public interface.
 *
 *   corvane/base.h      corVane_base, lifecycle, user registration
 *   corvane/messages.h  the 19 commands and 30 notifications
 *   corvane/records.h   the 66 record types and their operations
 *   corvane/payloads.h  payloads of the scalar messages
 *   corvane/schema.h    record schemas and generic record operations
 */
#ifndef CORVANE_CORVANE_H
#define CORVANE_CORVANE_H

#include "corvane/base.h"
#include "corvane/messages.h"
#include "corvane/payloads.h"
#include "corvane/records.h"
#include "corvane/schema.h"
#include "corvane/types.h"

#endif /* CORVANE_CORVANE_H */
