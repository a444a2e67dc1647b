// Schemas of the registration and transport status records.
#include "records/record_list.h"

CV_RECORD(CurrentRegistrar,
         CV_FIELD(text1), CV_FIELD(value1), CV_FIELD(value2))

CV_RECORD(registrationStatus,
         CV_FIELD(value1), CV_FIELD(value2), CV_FIELD(value3), CV_FIELD(value4),
         CV_FIELD(registrar), CV_FIELD(text1))

CV_RECORD(transportEvent,
         CV_FIELD(value1), CV_FIELD(value2), CV_FIELD(value3), CV_FIELD(value4), CV_FIELD(text1))
