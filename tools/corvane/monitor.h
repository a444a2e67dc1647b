// `corvane monitor`: watches the bus as a D-Bus monitor and prints every
// command, notification and answer that crosses it, decoded.
#pragma once

#include <string>
#include <vector>

#include "corvane/corvane.h"

namespace cvi {

// Watches the bus at that address until SIGINT or SIGTERM (returns 0) or
// until the bus goes away (one line, returns 1). `only` limits the output to
// those methods (and the answers to their calls); empty shows all. Announces
// itself on standard error once it watches ("corvane: monitoring ADDRESS",
// or {"monitoring": ADDRESS} with json), then prints one entry per message on
// standard output: text, or one JSON object per line.
int runMonitor(const std::string& address, const std::vector<const CorVaneMessageInfo*>& only,
               bool json);

}  // namespace cvi
