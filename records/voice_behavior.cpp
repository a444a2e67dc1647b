// Schemas of the voice behaviour and battery settings records.
#include "records/record_list.h"

CV_RECORD(LocalAnnouncement,
         CV_FIELD(announcementValue1), CV_FIELD(announcementValue2),
         CV_FIELD(announcementValue3), CV_FIELD(announcementText))

CV_RECORD(CallControl,
         CV_FIELD(callControlValue))

CV_RECORD(BackupInterface,
         CV_FIELD(backupValue1), CV_FIELD(backupValue2), CV_FIELD(backupValue3),
         CV_FIELD(backupValue4))

CV_RECORD(DualStack,
         CV_FIELD(dualStackValue))

CV_RECORD(VoiceBehavior,
         CV_FIELD(behaviorValue), CV_FIELD(localAnnouncement), CV_FIELD(callControl),
         CV_FIELD(backupInterface), CV_FIELD(dualStack))

CV_RECORD(BatteryCfg,
         CV_FIELD(batteryValue1), CV_FIELD(batteryValue2), CV_FIELD(batteryValue3),
         CV_FIELD(batteryValue4))
