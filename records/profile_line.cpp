// Schemas of the profile line records.
#include "records/record_list.h"

CV_RECORD(LineSIPEventSubscribe,
         CV_FIELD(value1), CV_FIELD(event), CV_FIELD(authUserName), CV_FIELD(authPassword))

CV_RECORD(LineSIP,
         CV_FIELD(authUserName), CV_FIELD(authPassword), CV_FIELD(uri),
         CV_FIELD(eventSubscribeNumberOfEntries),
         CV_ARRAY(eventSubscribe, eventSubscribeNumberOfEntries))

CV_RECORD(LineVoiceProcessing,
         CV_FIELD(transmitGain), CV_FIELD(receiveGain), CV_FIELD(echoCancellationEnable),
         CV_FIELD(echoCancellationInUse), CV_FIELD(echoCancellationTail))

CV_RECORD(LineSession,
         CV_FIELD(sessionStartTime), CV_FIELD(sessionDuration), CV_FIELD(farEndIPAddress),
         CV_FIELD(farEndUDPPort), CV_FIELD(localUDPPort))

CV_RECORD(ProfileLine,
         CV_FIELD(value1), CV_FIELD(value2), CV_FIELD(value3), CV_FIELD(text1), CV_FIELD(text2),
         CV_FIELD(value4), CV_FIELD(value5), CV_FIELD(value6), CV_FIELD(text3), CV_FIELD(value7),
         CV_FIELD(value8), CV_FIELD(value9), CV_FIELD(text4), CV_FIELD(value10), CV_FIELD(sip),
         CV_FIELD(ringer), CV_FIELD(callingFeatures), CV_FIELD(voiceProcessing), CV_FIELD(codec),
         CV_FIELD(sessionNumberOfEntries), CV_ARRAY(session, sessionNumberOfEntries))
