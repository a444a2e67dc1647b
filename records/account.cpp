// Schemas of the registrar, account and contact records.
#include "records/record_list.h"

CV_RECORD(outGoingLine,
         CV_FIELD(value1), CV_FIELD(value2))

CV_RECORD(Registrar,
         CV_FIELD(value1), CV_FIELD(value2), CV_FIELD(value3), CV_FIELD(text1), CV_FIELD(text2),
         CV_FIELD(value4), CV_FIELD(value5), CV_FIELD(value6), CV_FIELD(text3), CV_FIELD(text4),
         CV_FIELD(value7), CV_FIELD(text5))

CV_RECORD(Account,
         CV_FIELD(value1), CV_FIELD(value2), CV_FIELD(value3), CV_FIELD(value4), CV_FIELD(text1),
         CV_FIELD(authUserName), CV_FIELD(authPassword), CV_FIELD(uri), CV_FIELD(text2),
         CV_FIELD(text3), CV_FIELD(text4), CV_FIELD(value5), CV_FIELD(outGoingLine),
         CV_FIELD(value6), CV_FIELD(text5), CV_FIELD(callingFeatures))

CV_RECORD(Contact,
         CV_FIELD(value1), CV_FIELD(value2), CV_FIELD(value3), CV_FIELD(value4), CV_FIELD(text1),
         CV_FIELD(text2), CV_FIELD(value5), CV_FIELD(text3), CV_FIELD(text4))
