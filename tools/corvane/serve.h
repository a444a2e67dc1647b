// `corvane serve`: the management side of a test written in shell. Serves
// every command as a user of the D-Bus middleware (libcorvane_dbus, as the
// management daemon does, with its need for updates registered), answers each
// with the status it was told (0 by default) and prints each command it got,
// decoded: text, or with --json one object per line, the keys of a "call"
// entry of monitor --json with the answer's "status" and "status_text".
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace cvi {

struct ServeOptions {
    std::string address;                     // the bus
    std::string name = "mgmt";               // the user to serve as
    std::map<std::string, uint32_t> answers; // method -> status; "*" for the others
    uint64_t count = 0;                      // stop after that many commands; 0: no limit
    uint32_t timeoutMs = 0;                  // stop after that long; 0: no limit
    bool json = false;
};

// Adds the answers of one --answer value: METHOD=STATUS (a command's name as
// corvane takes it, or *; the status decimal or 0x hex), or @FILE, a JSON
// object of them ({"SetLineCallState": 3, "*": 0}). A bad one is a Failure.
void addAnswers(ServeOptions& o, const std::string& spec);

// Serves until --count commands were answered (0), --timeout passed (0, or 1
// with one line when --count commands did not come), SIGINT or SIGTERM (0),
// or the bus went away (1).
int runServe(const ServeOptions& o);

}  // namespace cvi
