// A message received through sd-bus as a DbusMessage (its header fields and
// body in D-Bus wire form), for the monitor and for captures.
#pragma once

#include <systemd/sd-bus.h>

#include <optional>

#include "dbus_message.h"

namespace cvi {

// nullopt when sd-bus cannot read the message's values.
std::optional<DbusMessage> dbusMessageOf(sd_bus_message* m);

}  // namespace cvi
