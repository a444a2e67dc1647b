/*
 * libCorvane: every record type of the interface.
 */
#ifndef CORVANE_RECORDS_H
#define CORVANE_RECORDS_H

#include "corvane/status_records.h"
#include "corvane/calling_features.h"
#include "corvane/profile_sip.h"
#include "corvane/numbering_plan.h"
#include "corvane/voice_profile.h"
#include "corvane/fqdn_servers.h"
#include "corvane/voice_behavior.h"
#include "corvane/line_ringer.h"
#include "corvane/line_codec.h"
#include "corvane/profile_line.h"
#include "corvane/account.h"
#include "corvane/account_status.h"
#include "corvane/phy_interface.h"
#include "corvane/phy_interface_status.h"
#include "corvane/dect_repeater.h"
#include "corvane/capabilities.h"
#include "corvane/registration_status.h"
#include "corvane/line_stats.h"

#endif /* CORVANE_RECORDS_H */
