#include "decode_capture.h"

#include <time.h>

#include <cstdio>
#include <iostream>
#include <iterator>
#include <map>
#include <optional>

#include "bus_names.h"
#include "bus_traffic.h"
#include "dbus_message.h"
#include "pcap.h"

namespace cvi {
namespace {

// Names as a capture tells them: the users behind unique names from the
// NameOwnerChanged signals it holds, and for each packet the sender and
// receiver its comment names ("voice[4242] -> mgmt[4241]", as corvane
// capture writes them).
class CaptureNames : public Names {
public:
    struct Party {
        std::string shown;
        std::optional<uint32_t> pid;
    };

    // The parties of the next packet, from its comments; none when no
    // comment reads as "SENDER -> RECEIVER".
    void packet(const CaptureFrame& f, const DbusMessage& m) {
        current_.clear();
        if (f.comments.size() != 1) return;
        const std::string& c = f.comments[0];
        const size_t arrow = c.find(" -> ");
        if (arrow == std::string::npos) return;
        const Party from = party(c.substr(0, arrow)), to = party(c.substr(arrow + 4));
        if (m.sender) current_[*m.sender] = from;
        if (m.destination) current_[*m.destination] = to;
    }

    std::string shown(const std::string& name) override {
        if (const auto it = current_.find(name); it != current_.end()) return it->second.shown;
        if (const auto user = userOfBusName(name)) return *user;
        const auto it = users_.find(name);
        return it != users_.end() ? it->second : name;
    }

    std::optional<uint32_t> pid(const std::string& name) override {
        const auto it = current_.find(name);
        return it != current_.end() ? it->second.pid : std::nullopt;
    }

    void ownerChanged(const std::string& name, const std::string& oldOwner,
                      const std::string& newOwner) override {
        const auto user = userOfBusName(name);
        if (!user) return;
        if (!oldOwner.empty() && users_[oldOwner] == *user) users_.erase(oldOwner);
        if (!newOwner.empty()) users_[newOwner] = *user;
    }

private:
    std::map<std::string, std::string> users_;  // unique name -> user
    std::map<std::string, Party> current_;

    // "mgmt[4241]", "mgmt", "*".
    static Party party(const std::string& text) {
        Party p{text, std::nullopt};
        const size_t open = text.rfind('[');
        if (open == std::string::npos || open == 0 || text.back() != ']') return p;
        const std::string digits = text.substr(open + 1, text.size() - open - 2);
        if (digits.empty() || digits.size() > 10 || digits.find_first_not_of("0123456789") != std::string::npos)
            return p;
        const unsigned long long pid = std::stoull(digits);
        if (pid > 0xffffffffull) return p;
        p.shown = text.substr(0, open);
        p.pid = static_cast<uint32_t>(pid);
        return p;
    }
};

// "2026-11-24T21:27:34.477594Z"
std::string isoTime(const CaptureFrame& f) {
    const auto t = static_cast<time_t>(f.seconds);
    tm utc{};
    gmtime_r(&t, &utc);
    char b[64];
    const size_t n = std::strftime(b, sizeof b, "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(b + n, sizeof b - n, ".%06uZ", f.nanoseconds / 1000);
    return b;
}

// "21:27:34.477594", local time.
std::string clockTime(const CaptureFrame& f) {
    const auto t = static_cast<time_t>(f.seconds);
    tm local{};
    localtime_r(&t, &local);
    char b[48];
    const size_t n = std::strftime(b, sizeof b, "%H:%M:%S", &local);
    std::snprintf(b + n, sizeof b - n, ".%06u", f.nanoseconds / 1000);
    return b;
}

}  // namespace

int decodeCapture(std::span<const uint8_t> bytes, const std::string& where,
                  const CaptureDecodeOptions& options) {
    const Capture capture = readCapture(bytes);
    CaptureNames names;
    Traffic traffic(names, options.only, options.fold);
    uint64_t shown = 0, notDbus = 0, invalid = 0, other = 0, owners = 0, filtered = 0;
    for (const CaptureFrame& f : capture.frames) {
        if (f.linkType != kLinkTypeDbus) {
            ++notDbus;
            continue;
        }
        std::string why;
        const std::optional<DbusMessage> m = parseDbusMessage(f.data, &why, f.cut);
        if (!m) {
            ++invalid;
            continue;
        }
        names.packet(f, *m);
        const Traffic::Result r = traffic.take(*m);
        if (!r.entry) {
            ++(r.kind == Traffic::Kind::kOwnerChange ? owners
               : r.kind == Traffic::Kind::kFiltered  ? filtered
                                                     : other);
            continue;
        }
        ++shown;
        if (options.json) {
            Json j{{"frame", f.number}, {"time", isoTime(f)}};
            j.update(r.entry->json);
            std::cout << dumpLine(j) << '\n';
        } else {
            std::cout << "frame " << f.number << ", " << clockTime(f) << ": " << r.entry->text;
        }
    }
    std::cout.flush();
    const uint64_t frames = capture.frames.size();
    if (capture.damage) {
        const std::string line = where + ": a damaged " + capture.format + " capture: " +
                                 *capture.damage + " (after " + std::to_string(frames) + " frames)";
        if (options.json)
            std::cerr << dumpLine(Json{{"error", line}, {"frames", frames}, {"messages", shown}}) << '\n';
        else
            std::cerr << "corvane: " << line << '\n';
        return 1;
    }
    // What was skipped, by why.
    const std::pair<const char*, uint64_t> skipped[] = {
        {"other D-Bus messages", other}, {"changes of a user name's owner", owners},
        {"of other methods", filtered},  {"not D-Bus", notDbus},
        {"not a valid D-Bus message", invalid}};
    if (options.json) {
        Json j{{"file", where}, {"format", capture.format}, {"frames", frames}, {"messages", shown},
               {"skipped", frames - shown}};
        const char* keys[] = {"other_dbus", "name_changes", "other_methods", "not_dbus", "invalid_dbus"};
        for (size_t i = 0; i < std::size(skipped); ++i) j[keys[i]] = skipped[i].second;
        std::cerr << dumpLine(j) << '\n';
    } else {
        std::string why;
        for (const auto& [what, n] : skipped)
            if (n) why += (why.empty() ? " (" : ", ") + std::to_string(n) + " " + what;
        std::cerr << "corvane: " << where << " (" << capture.format << "): " << frames << " frames, "
                  << shown << " corvane messages, " << frames - shown << " skipped"
                  << (why.empty() ? "" : why + ")") << '\n';
    }
    return 0;
}

}  // namespace cvi
