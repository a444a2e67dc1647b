// Schemas of the physical interface status records.
#include "records/record_list.h"

CV_RECORD(phyInterfaceStatusTest,
         CV_FIELD(value1), CV_FIELD(value2))

CV_RECORD(phyInterfaceStatusDectUsb,
         CV_FIELD(value1), CV_FIELD(value2), CV_FIELD(value3))

CV_RECORD(phyInterfaceStatusDectFp,
         CV_FIELD(value1), CV_FIELD(value2), CV_FIELD(value3), CV_FIELD(text1), CV_FIELD(text2),
         CV_FIELD(value4), CV_FIELD(value5), CV_FIELD(value6), CV_FIELD(text3), CV_FIELD(text4),
         CV_FIELD(text5), CV_FIELD(text6), CV_FIELD(value7), CV_FIELD(value8), CV_FIELD(value9),
         CV_FIELD(value10), CV_FIELD(value11), CV_FIELD(value12))

CV_RECORD(phyInterfaceStatusDectPp,
         CV_FIELD(value1), CV_FIELD(text1), CV_FIELD(text2), CV_FIELD(text3), CV_FIELD(text4),
         CV_FIELD(value2), CV_FIELD(value3), CV_FIELD(value4), CV_FIELD(text5), CV_FIELD(text6),
         CV_FIELD(value5), CV_FIELD(text7), CV_FIELD(value6))

CV_RECORD(phyInterfaceStatus,
         CV_FIELD(value1), CV_FIELD(value2), CV_FIELD(value3), CV_FIELD(text1), CV_FIELD(value4),
         CV_FIELD(test), CV_FIELD(dectUsb), CV_FIELD(dectFp), CV_FIELD(dectPp),
         CV_FIELD(callingFeatures))
