// What corvane makes of D-Bus messages, live (monitor, capture) or from a
// capture file (decode): the commands and notifications on our interfaces,
// decoded, the answers to the calls it saw, and the users' names changing
// hands. One entry per message, as text and as the JSON object that
// `monitor --json` prints.
#pragma once

#include <map>
#include <optional>
#include <deque>
#include <string>
#include <vector>

#include "corvane/corvane.h"
#include "dbus_message.h"
#include "record_json.h"

namespace cvi {

// Who is who on the bus: a bus name as shown (a user's name, else the name
// itself) and the process behind it, when known.
class Names {
public:
    virtual ~Names() = default;
    virtual std::string shown(const std::string& busName) = 0;
    virtual std::optional<uint32_t> pid(const std::string& busName) = 0;
    // NameOwnerChanged of a user's name.
    virtual void ownerChanged(const std::string& name, const std::string& oldOwner,
                              const std::string& newOwner) = 0;
};

struct TrafficEntry {
    Json json;          // type, method, interface, serial, endpoints, payload...
    std::string text;   // the heading line, then the payload's lines, each ending in '\n'
};

class Traffic {
public:
    enum class Kind {
        kOther,        // not corvane's: another interface, an answer to a call not seen
        kOwnerChange,  // a user's name changed hands (NameOwnerChanged); no entry
        kFiltered,     // corvane's, but not among the methods asked for
        kEntry,        // a command, notification or answer: see entry
    };
    struct Result {
        Kind kind = Kind::kOther;
        std::optional<TrafficEntry> entry;
    };

    // `only` limits the entries to those methods (and the answers to their
    // calls); empty: all. `fold` folds runs of zero and empty fields in the
    // text (see printFolded).
    Traffic(Names& names, std::vector<const CorVaneMessageInfo*> only, bool fold)
        : names_(names), only_(std::move(only)), fold_(fold) {}

    Result take(const DbusMessage& m);

private:
    Names& names_;
    std::vector<const CorVaneMessageInfo*> only_;
    bool fold_;
    // Calls waiting for their answer: (caller, serial) -> method.
    std::map<std::pair<std::string, uint32_t>, const CorVaneMessageInfo*> pending_;
    std::deque<std::pair<std::string, uint32_t>> pendingOrder_;

    bool shown(const CorVaneMessageInfo* info) const;
    Json endpoints(const DbusMessage& m);
    void remember(const std::string& caller, uint32_t serial, const CorVaneMessageInfo* info);
    TrafficEntry body(const DbusMessage& m, const CorVaneMessageInfo* info);
    TrafficEntry answer(const DbusMessage& m, const CorVaneMessageInfo* info);
};

// "voice[4242] -> mgmt[4241]": an entry's sender and destination as the text
// shows them ("*" for no destination, a signal's).
std::string endpointsText(const Json& entry);

// One JSON object on one line, invalid UTF-8 replaced.
std::string dumpLine(const Json& j);

}  // namespace cvi
