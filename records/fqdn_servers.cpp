// Schemas of the FQDN servers records.
#include "records/record_list.h"

CV_RECORD(FQDNServers,
         CV_FIELD(ipAddress), CV_FIELD(hostName), CV_FIELD(serverValue1), CV_FIELD(serverValue2),
         CV_FIELD(serverValue3), CV_FIELD(serverValue4), CV_FIELD(serverValue5))

CV_RECORD(ProfileFQDNServers,
         CV_FIELD(profileIndex), CV_FIELD(fqdnServersNumberOfEntries),
         CV_ARRAY(fqdnServers, fqdnServersNumberOfEntries))

CV_RECORD(outBoundProxy,
         CV_FIELD(outboundProxy))
