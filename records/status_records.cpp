// Schemas of the call and profile status records records.
#include "records/record_list.h"

CV_RECORD(internalCallStatus,
         CV_FIELD(value1))

CV_RECORD(ProfileStatus,
         CV_FIELD(value1), CV_FIELD(value2))

CV_RECORD(ProfileBackupIntfStatus,
         CV_FIELD(value1), CV_FIELD(value2), CV_FIELD(value3))

CV_RECORD(lineCallState,
         CV_FIELD(value1), CV_FIELD(value2), CV_FIELD(value3))

CV_RECORD(pingSipState,
         CV_FIELD(value1), CV_FIELD(value2), CV_FIELD(value3))
