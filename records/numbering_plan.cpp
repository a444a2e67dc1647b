// Schemas of the numbering plan records.
#include "records/record_list.h"

CV_RECORD(PrefixInfo,
         CV_FIELD(prefixValue1), CV_FIELD(prefixRange), CV_FIELD(prefixValue3),
         CV_FIELD(prefixValue4), CV_FIELD(prefixValue5), CV_FIELD(prefixValue6),
         CV_FIELD(prefixValue7), CV_FIELD(prefixValue8), CV_FIELD(prefixValue9),
         CV_FIELD(facilityActionArgument))

CV_RECORD(NumberingPlan,
         CV_FIELD(planValue1), CV_FIELD(planValue2), CV_FIELD(planValue3), CV_FIELD(planValue4),
         CV_FIELD(planValue5), CV_FIELD(planValue6), CV_FIELD(planValue7), CV_FIELD(planValue8),
         CV_FIXED(prefixInfo), CV_FIELD(planText), CV_FIELD(planValue13))
