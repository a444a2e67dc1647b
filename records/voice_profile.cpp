// Schemas of the voice profile records.
#include "records/record_list.h"

CV_RECORD_FLAGS(ProfileRTCP, CORVANE_SCHEMA_ERROR_BEFORE_RESERVED,
         CV_FIELD(enable), CV_FIELD(txRepeatInterval), CV_FIELD(localCName))

CV_RECORD_FLAGS(ProfileRTP, CORVANE_SCHEMA_ERROR_BEFORE_RESERVED,
         CV_FIELD(rtpValue1), CV_FIELD(rtpValue2), CV_FIELD(rtpValue3), CV_FIELD(rtpValue4),
         CV_FIELD(rtpValue5), CV_FIELD(rtpValue6), CV_FIELD(rtpValue7), CV_FIELD(rtpValue8),
         CV_FIELD(rtpValue9), CV_FIELD(rtpValue10), CV_FIELD(rtpValue11), CV_FIELD(rtcp))

CV_RECORD_FLAGS(FaxT38, CORVANE_SCHEMA_ERROR_BEFORE_RESERVED,
         CV_FIELD(enable), CV_FIELD(bitRate), CV_FIELD(highSpeedPacketRate),
         CV_FIELD(highSpeedRedundancy), CV_FIELD(lowSpeedRedundancy), CV_FIELD(tcfMethod))

CV_RECORD_FLAGS(Emergency, CORVANE_SCHEMA_ERROR_BEFORE_RESERVED,
         CV_FIELD(emergencyValue1), CV_FIELD(emergencyText), CV_FIELD(emergencyValue3),
         CV_FIELD(emergencyValue4), CV_FIELD(emergencyValue5), CV_FIELD(emergencyValue6),
         CV_FIELD(emergencyValue7))

CV_RECORD_FLAGS(ProfileDigitMap, CORVANE_SCHEMA_ERROR_BEFORE_RESERVED,
         CV_FIELD(digitMapValue1), CV_FIELD(digitMapValue2), CV_FIELD(digitMap))

CV_RECORD_FLAGS(VoiceProfile, CORVANE_SCHEMA_ERROR_BEFORE_RESERVED,
         CV_FIELD(profileValue3), CV_FIELD(profileValue4), CV_FIELD(profileValue5),
         CV_FIELD(profileValue6), CV_FIELD(profileValue7), CV_FIELD(profileValue8),
         CV_FIELD(profileText9), CV_FIELD(profileText10), CV_FIELD(profileValue11),
         CV_FIELD(profileText12), CV_FIELD(profileValue13), CV_FIELD(profileValue14),
         CV_FIELD(profileText15), CV_FIELD(profileText16), CV_FIELD(profileValue17),
         CV_FIELD(profileValue18), CV_FIELD(profileText19), CV_FIELD(profileValue20),
         CV_FIELD(profileValue21), CV_FIELD(profileValue22), CV_FIELD(profileValue23),
         CV_FIELD(profileValue24), CV_FIELD(profileValue25), CV_FIELD(sip), CV_FIELD(rtp),
         CV_FIELD(numberingPlan), CV_FIELD(faxT38), CV_FIELD(emergency),
         CV_FIELD(digitMapNumberOfEntries), CV_ARRAY(digitMaps, digitMapNumberOfEntries),
         CV_FIELD(profileValue33))
