// Schemas of the DECT repeater and SUOTA records.
#include "records/record_list.h"

CV_RECORD(dectRepeater,
         CV_FIELD(value1), CV_FIELD(value2), CV_FIELD(value3), CV_FIELD(text1), CV_FIELD(text2))

CV_RECORD(repeater_status,
         CV_FIELD(value1), CV_FIELD(value2), CV_FIELD(value3))

CV_RECORD(suotaStatus,
         CV_FIELD(value1), CV_FIELD(value2), CV_FIELD(value3), CV_FIELD(text1))
