// Schemas of the physical interface records.
#include "records/record_list.h"

CV_RECORD(phyInterfaceCodecList,
         CV_FIELD(codec))

CV_RECORD(phyInterfaceTest,
         CV_FIELD(text1), CV_FIELD(value1), CV_FIELD(value2))

CV_RECORD(phyInterfaceDectUsb,
         CV_FIELD(value1))

CV_RECORD(phyInterfaceDectFp,
         CV_FIELD(value1), CV_FIELD(value2), CV_FIELD(value3), CV_FIELD(text1), CV_FIELD(value4),
         CV_FIELD(value5), CV_FIELD(value6), CV_FIELD(value7), CV_FIELD(value8),
         CV_FIELD(value9), CV_FIELD(text2), CV_FIELD(text3), CV_FIELD(text4))

CV_RECORD(phyInterfaceDectPp,
         CV_FIELD(value1), CV_FIELD(value2))

CV_RECORD(phyInterfaceFxs,
         CV_FIELD(value1), CV_FIELD(value2), CV_FIELD(value3), CV_FIELD(value4),
         CV_FIELD(value5))

CV_RECORD(phyInterfaceIsdn,
         CV_FIELD(text1))

CV_RECORD(phyInterfaceReinjection,
         CV_FIELD(value1), CV_FIELD(value2))

CV_RECORD(PhyInterface,
         CV_FIELD(value1), CV_FIELD(phyPort), CV_FIELD(interfaceID), CV_FIELD(description),
         CV_FIELD(text1), CV_FIELD(value2), CV_FIELD(outGoingLine), CV_FIELD(test),
         CV_FIELD(dectUsb), CV_FIELD(dectFp), CV_FIELD(dectPp), CV_FIELD(fxs), CV_FIELD(isdn),
         CV_FIELD(reinjection), CV_FIELD(codecCount), CV_ARRAY(codecList, codecCount),
         CV_FIELD(value3), CV_FIELD(value4), CV_FIELD(callingFeatures), CV_FIELD(value5))
