// Raw D-Bus on a connection of its own: bytes no library would write, sent
// as commands and notifications, and questions to the bus. Nothing here
// reports to the test framework, so a child running under another account
// uses it as well; a failure is in the result ("no connection", an error's
// name).
#pragma once

#include <string.h>

#include <functional>
#include <string>
#include <vector>

#include <systemd/sd-bus.h>

#include "corvane/corvane.h"
#include "quib_dbus.h"

namespace cvtest {

using Bytes = std::vector<uint8_t>;

// A user's bus name, as the middleware escapes it ("voice-1": voice_2d1).
inline std::string userBus(const char* user) {
    char name[256] = "";
    quibDbus_busName(user, name, sizeof name);
    return name;
}

inline void putBe32(Bytes& b, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) b[at + i] = static_cast<uint8_t>(v >> (24 - 8 * i));
}

// A body's bytes as a sender writes them: the magic (tag 0), the envelope
// word (tag 1), then the payload (all zero when none is given).
inline Bytes wire(const char* method, const void* payload = nullptr) {
    const CorVaneMessageInfo* m = corVane_messageByName(method);
    const std::vector<uint8_t> zero(m->payload->size, 0);
    if (payload == nullptr) payload = zero.data();
    Bytes b(24 + corVane_record_serialize_lg(m->payload, payload));
    const uint32_t head[] = {0, 4, m->magic, 1, 4, m->envelope};
    for (size_t i = 0; i < std::size(head); ++i) putBe32(b, 4 * i, head[i]);
    uint8_t* cursor = b.data() + 24;
    return corVane_record_serialize(m->payload, payload, &cursor) == 0 ? b : Bytes{};
}

struct RawBus {
    sd_bus* bus = nullptr;

    // Connected to the address; owning the user name `owns`, when given.
    explicit RawBus(const std::string& address, const char* owns = nullptr) {
        int r = sd_bus_new(&bus);
        if (r >= 0) r = sd_bus_set_address(bus, address.c_str());
        if (r >= 0) r = sd_bus_set_bus_client(bus, 1);
        if (r >= 0) r = sd_bus_start(bus);
        if (r >= 0 && owns != nullptr) r = sd_bus_request_name(bus, userBus(owns).c_str(), 0);
        if (r < 0) bus = sd_bus_flush_close_unref(bus);
    }
    ~RawBus() { sd_bus_flush_close_unref(bus); }
    RawBus(const RawBus&) = delete;
    RawBus& operator=(const RawBus&) = delete;

    std::string unique() const {
        const char* u = nullptr;
        return bus != nullptr && sd_bus_get_unique_name(bus, &u) >= 0 ? u : "";
    }

    // A method call, its arguments added by `append`: what `read` makes of
    // the reply ("ok" without it), or the error's name.
    std::string call(const std::string& dest, const char* path, const char* intf, const char* member,
                     const std::function<int(sd_bus_message*)>& append = {},
                     const std::function<std::string(sd_bus_message*)>& read = {}) {
        if (bus == nullptr) return "no connection";
        sd_bus_message *m = nullptr, *reply = nullptr;
        sd_bus_error e = SD_BUS_ERROR_NULL;
        int r = sd_bus_message_new_method_call(bus, &m, dest.c_str(), path, intf, member);
        if (r >= 0 && append) r = append(m);
        if (r >= 0) r = sd_bus_call(bus, m, 3'000'000, &e, &reply);
        const std::string result = r < 0 ? (e.name != nullptr ? e.name : strerror(-r)) : read ? read(reply) : "ok";
        sd_bus_error_free(&e);
        sd_bus_message_unref(reply);
        sd_bus_message_unref(m);
        return result;
    }
    std::string callBus(const char* member, const std::string& arg,
                        const std::function<std::string(sd_bus_message*)>& read = {}) {
        return call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", member,
                    [&](sd_bus_message* m) { return sd_bus_message_append(m, "s", arg.c_str()); }, read);
    }

    // The bytes as a command to `to` (a bus name or a unique name): the
    // answer as a number ("0"), or the error's name.
    std::string command(const std::string& to, const char* member, const Bytes& body) {
        return call(
            to, "/org/corvane/CorVaneCmd", "org.corvane.CorVaneCmd", member,
            [&](sd_bus_message* m) { return sd_bus_message_append_array(m, 'y', body.data(), body.size()); },
            [](sd_bus_message* reply) {
                uint32_t status = 0;
                return sd_bus_message_read(reply, "u", &status) > 0 ? std::to_string(status) : "no status";
            });
    }

    // The bytes as a notification, broadcast or to `to` alone: "sent" once
    // the bus has routed it (it handles a connection's messages in order:
    // once it has answered the next call, the signal is on its way).
    std::string notify(const char* member, const Bytes& body, const std::string& to = "") {
        if (bus == nullptr) return "no connection";
        sd_bus_message* m = nullptr;
        int r = sd_bus_message_new_signal(bus, &m, "/org/corvane/CorVaneNtfy", "org.corvane.CorVaneNtfy", member);
        if (r >= 0 && !to.empty()) r = sd_bus_message_set_destination(m, to.c_str());
        if (r >= 0) r = sd_bus_message_append_array(m, 'y', body.data(), body.size());
        if (r >= 0) r = sd_bus_send(bus, m, nullptr);
        sd_bus_message_unref(m);
        if (r < 0) return strerror(-r);
        call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId");
        return "sent";
    }

    // RequestName with the flags: "owner", "queued", "exists", "already
    // owner", or the error's name.
    std::string requestName(const std::string& name, uint32_t flags) {
        return call(
            "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
            [&](sd_bus_message* m) { return sd_bus_message_append(m, "su", name.c_str(), flags); },
            [](sd_bus_message* reply) {
                uint32_t v = 0;
                const char* const what[] = {"?", "owner", "queued", "exists", "already owner"};
                return std::string(sd_bus_message_read(reply, "u", &v) > 0 && v < 5 ? what[v] : "?");
            });
    }

    // The unique name owning `name`, "" when none.
    std::string ownerOf(const std::string& name) {
        std::string owner;
        callBus("GetNameOwner", name, [&](sd_bus_message* reply) {
            const char* s = nullptr;
            if (sd_bus_message_read(reply, "s", &s) > 0) owner = s;
            return owner;
        });
        return owner;
    }
};

}  // namespace cvtest
