// The functions libcorvane_dbus exports: those of quib.h, ranq.h and
// quib_dbus.h, and nothing else. The library is compiled with hidden
// visibility; the public headers are read here with default visibility, so
// their functions, declared first here, stay exported. Every source file of
// the library includes this header (directly or through internal.h) before
// any other.
#ifndef CORVANE_DBUS_API_H
#define CORVANE_DBUS_API_H

#pragma GCC visibility push(default)
#include "quib_dbus.h"
#pragma GCC visibility pop

#endif  // CORVANE_DBUS_API_H
