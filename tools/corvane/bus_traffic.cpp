#include "bus_traffic.h"

#include <cstring>
#include <sstream>

#include "bus_names.h"
#include "inspect.h"

namespace cvi {
namespace {

constexpr size_t kMaxPendingCalls = 4096;
constexpr const char* kBusService = "org.freedesktop.DBus";

std::string party(const Json& j, const char* who) {
    const Json& name = j[who];
    std::string out = name.is_null() ? "*" : name.get<std::string>();
    const std::string pidKey = std::string(who) + "_pid";
    if (j.contains(pidKey)) {  // appended piece by piece: GCC 12 at -O3 warns of "[" + string
        out += '[';
        out += std::to_string(j[pidKey].get<uint32_t>());
        out += ']';
    }
    return out;
}

bool ours(const std::optional<std::string>& iface) {
    return iface && (*iface == kCmdInterface || *iface == kNtfyInterface);
}

}  // namespace

std::string dumpLine(const Json& j) { return j.dump(-1, ' ', false, Json::error_handler_t::replace); }

std::string endpointsText(const Json& entry) {
    return party(entry, "sender") + " -> " + party(entry, "destination");
}

bool Traffic::shown(const CorVaneMessageInfo* info) const {
    if (only_.empty()) return true;
    for (const CorVaneMessageInfo* o : only_)
        if (o == info) return true;
    return false;
}

Json Traffic::endpoints(const DbusMessage& m) {
    Json j = Json::object();
    j["sender"] = m.sender ? Json(names_.shown(*m.sender)) : Json("*");
    j["sender_bus_name"] = m.sender ? Json(*m.sender) : Json();
    if (m.sender)
        if (const auto pid = names_.pid(*m.sender)) j["sender_pid"] = *pid;
    j["destination"] = m.destination ? Json(names_.shown(*m.destination)) : Json();
    j["destination_bus_name"] = m.destination ? Json(*m.destination) : Json();
    if (m.destination)
        if (const auto pid = names_.pid(*m.destination)) j["destination_pid"] = *pid;
    return j;
}

void Traffic::remember(const std::string& caller, uint32_t serial, const CorVaneMessageInfo* info) {
    auto key = std::make_pair(caller, serial);
    if (pending_.emplace(key, info).second) pendingOrder_.push_back(key);
    if (pendingOrder_.size() > kMaxPendingCalls) {
        pending_.erase(pendingOrder_.front());
        pendingOrder_.pop_front();
    }
}

Traffic::Result Traffic::take(const DbusMessage& m) {
    Result out;
    if (m.type == DbusMessage::kSignal && m.interface == kBusService &&
        m.member == std::string("NameOwnerChanged") && m.sender == std::string(kBusService)) {
        const auto names = m.strings(3);
        if (!names || !userOfBusName((*names)[0])) return out;
        names_.ownerChanged((*names)[0], (*names)[1], (*names)[2]);
        out.kind = Kind::kOwnerChange;
        return out;
    }
    if (m.type == DbusMessage::kMethodCall || m.type == DbusMessage::kSignal) {
        // Only our interfaces: the bus also speaks of its own names.
        if (!ours(m.interface)) return out;
        const CorVaneMessageInfo* info = m.member ? findMessage(*m.member) : nullptr;
        if (!shown(info)) {
            out.kind = Kind::kFiltered;
            return out;
        }
        if (m.type == DbusMessage::kMethodCall && !(m.flags & DbusMessage::kNoReplyExpected) && m.sender)
            remember(*m.sender, m.serial, info);
        out.kind = Kind::kEntry;
        out.entry = body(m, info);
        return out;
    }
    if (!m.destination || !m.replySerial) return out;
    const auto it = pending_.find({*m.destination, *m.replySerial});
    if (it == pending_.end()) return out;  // not an answer to one of ours
    const CorVaneMessageInfo* info = it->second;
    pending_.erase(it);
    out.kind = Kind::kEntry;
    out.entry = answer(m, info);
    return out;
}

// A command (method call) or a notification (signal) on our interfaces.
TrafficEntry Traffic::body(const DbusMessage& m, const CorVaneMessageInfo* info) {
    const bool call = m.type == DbusMessage::kMethodCall;
    const std::string member = m.member.value_or("");
    const std::string iface = m.interface.value_or("");
    Json j{{"type", call ? "call" : "signal"},
           {"method", member},
           {"interface", iface},
           {"serial", m.serial}};
    j.update(endpoints(m));
    std::vector<std::string> notes;
    const char* expected = info && info->intf == CORVANE_INTF_CMD ? kCmdInterface : kNtfyInterface;
    if (!info)
        notes.push_back("no message of that name");
    else if (iface != expected)
        notes.push_back(std::string("a ") + interfaceKind(*info) + " on " + iface);
    else if (call != (info->intf == CORVANE_INTF_CMD))
        notes.push_back(std::string("a ") + interfaceKind(*info) + " sent as a " +
                        (call ? "method call" : "signal"));

    const std::optional<std::span<const uint8_t>> bytes = m.byteArray();
    std::optional<Decoded> decoded;
    const std::optional<uint32_t> length = m.byteArrayLength();
    if (m.bodyMissing && length) {
        const uint64_t kept = m.body.size() - 4;
        j["bytes"] = *length;
        j["captured_bytes"] = kept;
        notes.push_back("the capture kept " + std::to_string(kept) + " of its " +
                        std::to_string(*length) +
                        " bytes (a snapshot length; busctl capture keeps 4096 bytes of a "
                        "message unless given --size): not decoded");
    } else if (!bytes) {
        notes.push_back("signature '" + m.signature + "', not 'ay'");
    } else {
        j["bytes"] = bytes->size();
        if (info) {
            decoded = decodeBody(*info, *bytes);
            if (decoded->status == CORVANE_OK)
                j["payload"] = decodedJson(*info, *bytes, *decoded)["payload"];
            else
                j["decode_error"] = failureJson(*info, *bytes, *decoded);
            j["decode_status"] = decoded->status;
        }
    }
    if (!notes.empty()) j["notes"] = notes;

    std::ostringstream os;
    os << (call ? "call" : "signal") << ' ' << member << ' ' << endpointsText(j) << ", serial "
       << m.serial;
    if (j.contains("bytes")) os << ", " << j["bytes"].get<uint64_t>() << " bytes";
    os << '\n';
    for (const std::string& n : notes) os << "  note: " << n << '\n';
    if (decoded && decoded->status == CORVANE_OK) {
        printFolded(os, *info->payload,
                    static_cast<const uint8_t*>(decoded->body.get()) + CORVANE_BODY_PAYLOAD_OFFSET, 2,
                    fold_);
    } else if (decoded && decoded->status == CORVANE_E_ELEMENT) {
        std::ostringstream failure;
        printFailure(failure, *info, *bytes, *decoded);
        std::istringstream lines(failure.str());
        for (std::string line; std::getline(lines, line);) os << "  " << line << '\n';
    } else if (decoded) {
        os << "  " << failureLine(*info, *bytes, *decoded) << '\n';
    }
    return {std::move(j), os.str()};
}

// The answer to a call we saw: its status, or the D-Bus error.
TrafficEntry Traffic::answer(const DbusMessage& m, const CorVaneMessageInfo* info) {
    const bool error = m.type == DbusMessage::kError;
    Json j{{"type", error ? "error" : "return"},
           {"method", info ? info->name : ""},
           {"reply_serial", *m.replySerial}};
    j.update(endpoints(m));
    std::string outcome;
    if (error) {
        const auto message = m.strings(1);
        j["error_name"] = m.errorName.value_or("");
        j["error_message"] = message ? (*message)[0] : "";
        outcome = j["error_name"].get<std::string>() + ": " + j["error_message"].get<std::string>();
    } else if (const auto status = m.uint32()) {
        j["status"] = *status;
        j["status_text"] = statusText(*status);
        outcome = "status " + std::to_string(*status) + " (" + statusText(*status) + ")";
    } else {
        j["notes"] = {"signature '" + m.signature + "', not 'u'"};
        outcome = "an answer with signature '" + m.signature + "'";
    }
    std::string text = std::string(error ? "error " : "return ") + j["method"].get<std::string>() +
                       ' ' + endpointsText(j) + ", serial " + std::to_string(*m.replySerial) +
                       ": " + outcome + '\n';
    return {std::move(j), std::move(text)};
}

}  // namespace cvi
