// The record types of the interface, in a fixed order. This list drives the
// typed record operations, the schema registry and the tests; adding a
// record means adding its struct, its schema and one line here.
#pragma once

#include "codec/schema_def.h"
#include "corvane/payloads.h"
#include "corvane/records.h"

#define CORVANE_RECORD_LIST(X)                                                                  \
    X(internalCallStatus) X(ProfileStatus) X(ProfileBackupIntfStatus) X(lineCallState)          \
    X(pingSipState) X(CallingFeatures) X(ProfileEventSubscribe) X(ProfileSIP) X(PrefixInfo)     \
    X(NumberingPlan) X(ProfileRTCP) X(ProfileRTP) X(FaxT38) X(Emergency) X(ProfileDigitMap)     \
    X(VoiceProfile) X(FQDNServers) X(ProfileFQDNServers) X(outBoundProxy) X(LocalAnnouncement)  \
    X(CallControl) X(BackupInterface) X(DualStack) X(VoiceBehavior) X(BatteryCfg) X(EventList)  \
    X(DescriptionList) X(PatternList) X(LineRinger) X(CodecList) X(LineCodec)                   \
    X(LineSIPEventSubscribe) X(LineSIP) X(LineVoiceProcessing) X(LineSession) X(ProfileLine)    \
    X(outGoingLine) X(Registrar) X(Account) X(Contact) X(accountStatus)                         \
    X(phyInterfaceCodecList) X(phyInterfaceTest) X(phyInterfaceDectUsb) X(phyInterfaceDectFp)   \
    X(phyInterfaceDectPp) X(phyInterfaceFxs) X(phyInterfaceIsdn) X(phyInterfaceReinjection)     \
    X(PhyInterface) X(phyInterfaceStatusTest) X(phyInterfaceStatusDectUsb)                      \
    X(phyInterfaceStatusDectFp) X(phyInterfaceStatusDectPp) X(phyInterfaceStatus)               \
    X(dectRepeater) X(repeater_status) X(suotaStatus) X(capa_codec) X(capabilities)             \
    X(CurrentRegistrar) X(registrationStatus) X(transportEvent) X(lineStatsS) X(lineStats)      \
    X(lineModif)

// The scalar payloads of the messages that carry no record.
#define CORVANE_PAYLOAD_LIST(X)                                                                 \
    X(CorVaneRepeaterId) X(CorVaneBatteryEnable) X(CorVaneValues1) X(CorVaneValues2)            \
    X(CorVaneValues3) X(CorVaneValues4) X(CorVaneMakeCall) X(CorVanePingSip)

#define CV_DECLARE_SCHEMA_(T)                                                                   \
    namespace cv::schemas {                                                                     \
    extern const CorVaneSchema T;                                                               \
    }                                                                                           \
    namespace cv {                                                                              \
    template <>                                                                                 \
    inline constexpr const CorVaneSchema* kSchemaOf<::T> = &schemas::T;                         \
    template <>                                                                                 \
    inline constexpr bool kHasSchema<::T> = true;                                               \
    }

CORVANE_RECORD_LIST(CV_DECLARE_SCHEMA_)
CORVANE_PAYLOAD_LIST(CV_DECLARE_SCHEMA_)
