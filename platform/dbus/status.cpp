// Statuses: the one the bus's errors map to, the text of each, and the
// middleware's log lines.

#include "internal.h"

#include <errno.h>
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace quibdbus {

namespace {

void logv(int priority, const char *fmt, va_list ap)
{
    char text[512];
    std::vsnprintf(text, sizeof text, fmt, ap);
    syslog(priority, "[QUIB-DBUS] %s", text);
}

}  // namespace

void logError(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    logv(LOG_ERR, fmt, ap);
    va_end(ap);
}

void logLine(int priority, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    logv(priority, fmt, ap);
    va_end(ap);
}

uint32_t statusOfError(const sd_bus_error *error, int r)
{
    static const struct {
        const char *name;
        uint32_t status;
    } kErrors[] = {
        {SD_BUS_ERROR_SERVICE_UNKNOWN, QUIB_DBUS_E_NO_SERVER},
        {SD_BUS_ERROR_NAME_HAS_NO_OWNER, QUIB_DBUS_E_NO_SERVER},
        {SD_BUS_ERROR_UNKNOWN_METHOD, QUIB_DBUS_E_NO_SERVER},
        {SD_BUS_ERROR_UNKNOWN_OBJECT, QUIB_DBUS_E_NO_SERVER},
        {SD_BUS_ERROR_UNKNOWN_INTERFACE, QUIB_DBUS_E_NO_SERVER},
        {SD_BUS_ERROR_TIMEOUT, QUIB_DBUS_E_TIMEOUT},
        // The bus's answer when the server's connection closed before it answered.
        {SD_BUS_ERROR_NO_REPLY, QUIB_DBUS_E_DISCONNECTED},
        {SD_BUS_ERROR_DISCONNECTED, QUIB_DBUS_E_DISCONNECTED},
        {SD_BUS_ERROR_ACCESS_DENIED, QUIB_DBUS_E_DENIED},
    };
    if (error != nullptr && error->name != nullptr)
        for (const auto &e : kErrors)
            if (std::strcmp(error->name, e.name) == 0)
                return e.status;
    switch (-r) {
    case ETIMEDOUT:
        return QUIB_DBUS_E_TIMEOUT;
    case ECONNRESET:
    case ENOTCONN:
    case EPIPE:
    case ESHUTDOWN:
        return QUIB_DBUS_E_DISCONNECTED;
    case EACCES:
    case EPERM:
        return QUIB_DBUS_E_DENIED;
    default:
        return QUIB_DBUS_E_BUS;
    }
}

}  // namespace quibdbus

extern "C" {

const char *quibDbus_strerror(uint32_t status)
{
    switch (status) {
    case 0: return "done";
    case CORVANE_E_NOT_PROCESSED: return "not processed (a response or unknown body kind)";
    case CORVANE_E_ENVELOPE: return "envelope refused (tag 0 or 1 missing or wrong, or another message's magic)";
    case CORVANE_E_STATE: return "the base is in the wrong state";
    case CORVANE_E_ELEMENT: return "malformed payload (element mismatch, text too long or truncated)";
    case CORVANE_E_NOMEM: return "out of memory";
    case 20: return "no handler: the server registered none";
    case QUIB_DBUS_E_NO_BUS: return "no bus: no address given, or the bus cannot be reached";
    case QUIB_DBUS_E_NO_SERVER: return "no server: nobody owns the name, or it serves no such method";
    case QUIB_DBUS_E_TIMEOUT: return "timeout: no answer in time";
    case QUIB_DBUS_E_DISCONNECTED: return "disconnected: the server or the bus went away";
    case QUIB_DBUS_E_NO_TABLE: return "no table, row or serializer for the method";
    case QUIB_DBUS_E_SERIALIZE: return "serializeBody failed";
    case QUIB_DBUS_E_NAME_TAKEN: return "the user name is taken by another connection";
    case QUIB_DBUS_E_BUS: return "the bus reported an error";
    case QUIB_DBUS_E_USER: return "not a user of this bus, or a name that cannot be one";
    case QUIB_DBUS_E_DENIED: return "denied by the bus's policy";
    case QUIB_DBUS_E_QUEUE_FULL: return "queue full: too much not yet read by the bus or the subscriber";
    case QUIB_DBUS_E_AWAY: return "away: the bus connection was lost, reconnecting";
    default: return "unknown status";
    }
}

}  // extern "C"
