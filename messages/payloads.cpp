// Schemas of the scalar payloads: their fields travel as u32 (and string)
// elements with tags 3, 4, ... like any record's.
#include "records/record_list.h"

CV_RECORD(CorVaneRepeaterId, CV_FIELD(repeaterId))
CV_RECORD(CorVaneBatteryEnable, CV_FIELD(enable))
CV_RECORD(CorVaneValues1, CV_FIELD(value1))
CV_RECORD(CorVaneValues2, CV_FIELD(value1), CV_FIELD(value2))
CV_RECORD(CorVaneValues3, CV_FIELD(value1), CV_FIELD(value2), CV_FIELD(value3))
CV_RECORD(CorVaneValues4, CV_FIELD(value1), CV_FIELD(value2), CV_FIELD(value3), CV_FIELD(value4))
CV_RECORD(CorVaneMakeCall, CV_FIELD(value1), CV_FIELD(value2), CV_FIELD(text1), CV_FIELD(text2),
          CV_FIELD(text3))
CV_RECORD(CorVanePingSip, CV_FIELD(value1), CV_FIELD(value2), CV_FIELD(value3), CV_FIELD(text1))
