/*
 * libCorvane: FQDN servers.
 *
 * ProfileFQDNServers is the payload of SetProfileFQDNServers: a profile key and
 * up to 20 resolved servers. outBoundProxy is carried by no message.
 *
 * Each field's wire tag is given beside it; a tag marked "reserved" belongs to
 * a nested record or array, whose own elements are written in its place.
 */
#ifndef CORVANE_FQDN_SERVERS_H
#define CORVANE_FQDN_SERVERS_H

#include "corvane/schema.h"

CORVANE_BEGIN_DECLS

/* One resolved server: textual address (room for an IPv6 address) and host name. */
typedef struct FQDNServers {
    char ipAddress[46];    /* tag 3, text, at most 45 characters */
    char hostName[256];    /* tag 4, text, at most 255 characters */
    uint32_t serverValue1; /* tag 5 */
    uint32_t serverValue2; /* tag 6 */
    uint32_t serverValue3; /* tag 7 */
    uint32_t serverValue4; /* tag 8 */
    uint32_t serverValue5; /* tag 9 */
} FQDNServers;

/* Only the first min(fqdnServersNumberOfEntries, 20) entries are meaningful. */
typedef struct ProfileFQDNServers {
    uint32_t profileIndex;               /* tag 3 */
    uint32_t fqdnServersNumberOfEntries; /* tag 4 */
    FQDNServers fqdnServers[20];         /* tag 5 reserved: 20 entries, count in fqdnServersNumberOfEntries */
} ProfileFQDNServers;

/* An outbound-proxy host. */
typedef struct outBoundProxy {
    char outboundProxy[256]; /* tag 3, text, at most 255 characters */
} outBoundProxy;

CORVANE_RECORD_OPS(FQDNServers)
CORVANE_RECORD_OPS(ProfileFQDNServers)
CORVANE_RECORD_OPS(outBoundProxy)

CORVANE_END_DECLS

#endif /* CORVANE_FQDN_SERVERS_H */
