// Schemas of the capabilities records.
#include "records/record_list.h"

CV_RECORD(capa_codec,
         CV_FIELD(value1), CV_FIELD(text1), CV_FIELD(value2), CV_FIELD(text2), CV_FIELD(value3))

CV_RECORD(capabilities,
         CV_FIELD(value1), CV_FIELD(value2), CV_FIELD(value3), CV_FIELD(value4),
         CV_FIELD(value5), CV_FIELD(value6), CV_FIELD(value7), CV_FIELD(value8),
         CV_FIELD(value9), CV_FIELD(value10), CV_FIELD(value11), CV_FIELD(value12),
         CV_FIELD(value13), CV_FIELD(value14), CV_FIELD(value15), CV_FIELD(value16),
         CV_FIELD(value17), CV_FIELD(value18), CV_FIELD(value19), CV_FIELD(text1),
         CV_FIELD(text2), CV_FIELD(value20), CV_FIELD(value21), CV_FIELD(value22),
         CV_FIELD(text3), CV_FIELD(text4), CV_FIELD(text5), CV_FIELD(value23), CV_FIXED(codecs))
