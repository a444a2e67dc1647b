// What the D-Bus middleware and its event loop share inside libcorvane_dbus.
#ifndef CORVANE_DBUS_LOOP_H
#define CORVANE_DBUS_LOOP_H

#include <systemd/sd-event.h>

namespace quibdbus {

// The event loop every user's connection is attached to (the thread's
// default sd-event loop, kept for the life of the process); NULL if it
// cannot be had.
sd_event *loopEvent();

// Called when a user's bus connection is lost: the running loop returns
// -ENOTCONN.
void connectionLost();

}  // namespace quibdbus

#endif  // CORVANE_DBUS_LOOP_H
