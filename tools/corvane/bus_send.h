// Sending one command or notification on the bus, as libCorvane's own users
// do: a user of this process ("corvane-<pid>") on the D-Bus middleware
// (libcorvane_dbus), the message's send function from the send table. Only
// the corvane executable links this (and the middleware); the tests' own
// binaries run the executable.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "send_table.h"

namespace cvi {

struct SendOutcome {
    bool joined = false;    // whether the user got onto the bus
    uint32_t status = 0;    // joining's status, else the send's (quibDbus_lastStatus)
    std::string from;       // this process's user name
    int32_t toPid = -1;     // the process behind the destination (a command), -1 if none
    uint32_t timeoutMs = 0; // the timeout the command had
    uint32_t subscribers = 0;  // a notification: the subscribers it was for
    std::vector<std::string> log;  // the library's and the middleware's lines meanwhile
};

// Joins the bus at `address`, sends `payload` (the message's payload type,
// filled) with e.send to `to` (a command's server; a notification's one
// subscriber, or every subscriber when empty) and leaves the bus. timeoutMs 0
// keeps the middleware's default.
SendOutcome sendOnBus(const std::string& address, const SendEntry& e, const std::string& to,
                      const void* payload, uint32_t timeoutMs);

}  // namespace cvi
