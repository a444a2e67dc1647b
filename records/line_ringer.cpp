// Schemas of the line ringer records.
#include "records/record_list.h"

CV_RECORD(EventList,
         CV_FIELD(value1), CV_FIELD(value2))

CV_RECORD(DescriptionList,
         CV_FIELD(value1), CV_FIELD(value2), CV_FIELD(text1), CV_FIELD(value3), CV_FIELD(text2))

CV_RECORD(PatternList,
         CV_FIELD(entry), CV_FIELD(ringerOn), CV_FIELD(duration), CV_FIELD(nextEntry))

CV_RECORD(LineRinger,
         CV_FIELD(eventNumberOfEntries), CV_ARRAY(event, eventNumberOfEntries),
         CV_FIELD(descriptionNumberOfEntries), CV_ARRAY(description, descriptionNumberOfEntries),
         CV_FIELD(patternNumberOfEntries), CV_ARRAY(pattern, patternNumberOfEntries))
