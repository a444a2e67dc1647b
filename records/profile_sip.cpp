// Schemas of the SIP settings of a voice profile records.
#include "records/record_list.h"

CV_RECORD(ProfileEventSubscribe,
         CV_FIELD(eventIndex), CV_FIELD(event), CV_FIELD(notifier), CV_FIELD(notifierPort),
         CV_FIELD(notifierTransport), CV_FIELD(expireTime))

CV_RECORD(ProfileSIP,
         CV_FIELD(proxyServer), CV_FIELD(proxyServerPort), CV_FIELD(proxyServerTransport),
         CV_FIELD(registrarServer), CV_FIELD(registrarServerPort),
         CV_FIELD(registrarServerTransport), CV_FIELD(userAgentDomain), CV_FIELD(userAgentPort),
         CV_FIELD(userAgentTransport), CV_FIELD(outboundProxy), CV_FIELD(outboundProxyPort),
         CV_FIELD(organization), CV_FIELD(sipValue15), CV_FIELD(sipValue16),
         CV_FIELD(sipValue17), CV_FIELD(sipValue18), CV_FIELD(sipValue19), CV_FIELD(sipValue20),
         CV_FIELD(sipValue21), CV_FIELD(sipValue22), CV_FIELD(sipValue23), CV_FIELD(sipValue24),
         CV_FIELD(sipValue25), CV_FIELD(sipValue26), CV_FIELD(sipValue27), CV_FIELD(sipValue28),
         CV_FIELD(sipValue29), CV_FIELD(sipValue30), CV_FIELD(sipValue31), CV_FIELD(sipValue32),
         CV_FIELD(sipValue33), CV_FIELD(sipValue34), CV_FIELD(sipValue35), CV_FIELD(sipValue36),
         CV_FIELD(sipValue37), CV_FIELD(inboundAuthUsername), CV_FIELD(inboundAuthPassword),
         CV_FIELD(sipValue40), CV_FIELD(sipValue41), CV_FIELD(sipValue42), CV_FIELD(sipValue43),
         CV_FIELD(sipValue44), CV_FIELD(eventSubscribeNumberOfEntries),
         CV_ARRAY(eventSubscribe, eventSubscribeNumberOfEntries), CV_FIELD(sipValue47),
         CV_FIELD(sipValue48), CV_FIELD(sipValue49), CV_FIELD(sipValue50), CV_FIELD(sipValue51),
         CV_FIELD(sipValue52), CV_FIELD(sipValue53), CV_FIELD(sipValue54), CV_FIELD(sipValue55),
         CV_FIELD(sipValue56), CV_FIELD(sipText57), CV_FIELD(sipText58), CV_FIELD(sipValue59),
         CV_FIELD(sipText60), CV_FIELD(sipText61), CV_FIELD(sipText62), CV_FIELD(sipText63),
         CV_FIELD(sipValue64), CV_FIELD(sipValue65))
