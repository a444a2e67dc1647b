// Schemas of the account status records.
#include "records/record_list.h"

CV_RECORD(accountStatus,
         CV_FIELD(value1), CV_FIELD(value2), CV_FIELD(value3), CV_FIELD(value4), CV_FIELD(text1),
         CV_FIELD(text2), CV_FIELD(text3), CV_FIELD(text4), CV_FIELD(value5), CV_FIELD(value6))
