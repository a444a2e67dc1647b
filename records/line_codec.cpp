// Schemas of the line codecs records.
#include "records/record_list.h"

CV_RECORD(CodecList,
         CV_FIELD(entryId), CV_FIELD(codec), CV_FIELD(bitRate), CV_FIELD(packetizationPeriod),
         CV_FIELD(silenceSuppression), CV_FIELD(enable), CV_FIELD(priority), CV_FIELD(value1))

CV_RECORD(LineCodec,
         CV_FIELD(value1), CV_FIELD(value2), CV_FIELD(value3), CV_FIELD(value4),
         CV_FIELD(value5), CV_FIELD(value6), CV_FIELD(value7), CV_FIELD(listNumberOfEntries),
         CV_ARRAY(list, listNumberOfEntries))
