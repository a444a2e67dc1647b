// What the D-Bus middleware and its event loop share inside libcorvane_dbus.
#ifndef CORVANE_DBUS_LOOP_H
#define CORVANE_DBUS_LOOP_H

#include <systemd/sd-event.h>

#include <functional>

namespace quibdbus {

// The event loop every user's connection is attached to (the thread's
// default sd-event loop, kept for the life of the process); NULL if it
// cannot be had.
sd_event *loopEvent();

// Whether a lost connection ends the loop (ranqDbus_exitOnBusLoss(1))
// rather than being made again.
bool exitOnLoss();

// Runs fn from the event loop, as soon as it is idle (never from within the
// call that asks for it). 0, or a negative errno.
int later(std::function<void()> fn);

// Called when a user's bus connection is lost under exitOnLoss(): the
// running loop returns -ENOTCONN.
void connectionLost();

}  // namespace quibdbus

#endif  // CORVANE_DBUS_LOOP_H
