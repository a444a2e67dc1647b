// `corvane monitor` and `corvane capture`: watch the bus as a D-Bus monitor;
// the first prints every command, notification and answer that crosses it,
// decoded, the second writes them to a pcapng file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "corvane/corvane.h"

namespace cvi {

struct WatchOptions {
    std::vector<const CorVaneMessageInfo*> only;  // these methods (and answers); empty: all
    bool json = false;
    bool fold = true;         // monitor text: runs of zero or empty fields on one line
    uint64_t count = 0;       // stop after this many commands, notifications and answers; 0: never
    uint64_t timeoutMs = 0;   // stop after this many milliseconds; 0: never
};

// Watches the bus at that address until SIGINT or SIGTERM, until `count`
// entries or `timeoutMs` (returns 0; 1 when the timeout ends a watch that
// was given a count before the count was reached, with one line saying so),
// or until the bus goes away (one line, returns 1). Announces itself on
// standard error once it watches ("corvane: monitoring ADDRESS", or
// {"monitoring": ADDRESS} with json), then prints one entry per message on
// standard output: text, or one JSON object per line.
int runMonitor(const std::string& address, const WatchOptions& options);

// The same watch, writing each command, notification and answer, and each
// change of a user name's owner, as a packet of a pcapng file (link type
// D-Bus) to `output` ("-": standard output, which must not be a terminal),
// flushed packet by packet; each packet's comment names its sender and
// receiver as the monitor does. Announces "corvane: capturing ADDRESS to
// OUTPUT" on standard error, and at the end how many it wrote.
int runCapture(const std::string& address, const WatchOptions& options, const std::string& output);

}  // namespace cvi
