// The monitor holds two connections to the bus: one that becomes a monitor
// (org.freedesktop.DBus.Monitoring.BecomeMonitor; a monitor may send nothing
// more) and an ordinary one that asks the bus who owns a name and which
// process is behind a connection. Bodies are decoded with the library's
// bounded decoder, exactly as `corvane decode` does.
#include "monitor.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <systemd/sd-bus.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <deque>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <sstream>

#include "bus_names.h"
#include "inspect.h"

namespace cvi {
namespace {

constexpr uint64_t kCallTimeoutUsec = 2'000'000;
constexpr size_t kMaxPendingCalls = 4096;
constexpr const char* kBusService = "org.freedesktop.DBus";
constexpr const char* kBusPath = "/org/freedesktop/DBus";

struct BusUnref {
    void operator()(sd_bus* b) const { sd_bus_flush_close_unref(b); }
};
using Bus = std::unique_ptr<sd_bus, BusUnref>;

struct MessageUnref {
    void operator()(sd_bus_message* m) const { sd_bus_message_unref(m); }
};
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;

struct Fd {
    int fd;
    ~Fd() {
        if (fd >= 0) close(fd);
    }
};

struct BusGone : std::runtime_error {
    using std::runtime_error::runtime_error;
};

std::string errnoText(int r) { return std::strerror(r < 0 ? -r : r); }

std::string dumpLine(const Json& j) { return j.dump(-1, ' ', false, Json::error_handler_t::replace); }

Bus connect(const std::string& address, bool monitor) {
    sd_bus* raw = nullptr;
    int r = sd_bus_new(&raw);
    Bus bus(raw);
    if (r >= 0) r = sd_bus_set_address(raw, address.c_str());
    if (r >= 0) r = sd_bus_set_bus_client(raw, 1);
    if (r >= 0 && monitor) r = sd_bus_set_monitor(raw, 1);
    if (r >= 0) r = sd_bus_set_method_call_timeout(raw, kCallTimeoutUsec);
    if (r >= 0) r = sd_bus_start(raw);
    if (r < 0) throw BusGone("cannot connect to the bus: " + errnoText(r));
    return bus;
}

// Who is who on the bus: the users behind unique names (kept up to date from
// NameOwnerChanged) and the process behind each connection (asked once).
class Peers {
public:
    explicit Peers(sd_bus* control) : bus_(control) {}

    void load() {
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        int r = sd_bus_call_method(bus_, kBusService, kBusPath, kBusService, "ListNames", &error,
                                   &reply, "");
        sd_bus_error_free(&error);
        if (r < 0) throw BusGone("the bus does not list its names: " + errnoText(r));
        Message hold(reply);
        std::vector<std::string> names;
        if (sd_bus_message_enter_container(reply, 'a', "s") > 0) {
            const char* name;
            while (sd_bus_message_read(reply, "s", &name) > 0) names.emplace_back(name);
        }
        for (const std::string& name : names) {
            const auto user = userOfBusName(name);
            if (!user) continue;
            const char* owner = nullptr;
            sd_bus_message* ownerReply = nullptr;
            r = sd_bus_call_method(bus_, kBusService, kBusPath, kBusService, "GetNameOwner", &error,
                                   &ownerReply, "s", name.c_str());
            sd_bus_error_free(&error);
            Message holdOwner(ownerReply);
            if (r >= 0 && sd_bus_message_read(ownerReply, "s", &owner) > 0) users_[owner] = *user;
        }
    }

    void ownerChanged(const char* name, const char* oldOwner, const char* newOwner) {
        const auto user = userOfBusName(name);
        if (!user) return;
        if (*oldOwner) {
            const auto it = users_.find(oldOwner);
            if (it != users_.end() && it->second == *user) users_.erase(it);
        }
        if (*newOwner) users_[newOwner] = *user;
    }

    // A bus name as shown: the user name, else the name itself.
    std::string shown(const char* name) const {
        if (!name) return "*";
        if (const auto user = userOfBusName(name)) return *user;
        const auto it = users_.find(name);
        return it != users_.end() ? it->second : std::string(name);
    }

    std::optional<uint32_t> pid(const char* name) {
        if (!name || std::strcmp(name, kBusService) == 0) return std::nullopt;
        std::string unique = name;
        if (unique[0] != ':') {  // a well-known name: its current owner
            unique.clear();
            const auto user = userOfBusName(name);
            for (const auto& [u, n] : users_)
                if (user && n == *user) unique = u;
            if (unique.empty()) return std::nullopt;
        }
        const auto cached = pids_.find(unique);
        if (cached != pids_.end()) return cached->second;
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        uint32_t pid = 0;
        const int r = sd_bus_call_method(bus_, kBusService, kBusPath, kBusService,
                                         "GetConnectionUnixProcessID", &error, &reply, "s",
                                         unique.c_str());
        sd_bus_error_free(&error);
        Message hold(reply);
        std::optional<uint32_t> found;
        if (r >= 0 && sd_bus_message_read(reply, "u", &pid) > 0) found = pid;
        pids_[unique] = found;
        return found;
    }

private:
    sd_bus* bus_;
    std::map<std::string, std::string> users_;               // unique name -> user
    std::map<std::string, std::optional<uint32_t>> pids_;    // unique name -> pid
};

class Monitor {
public:
    Monitor(const std::string& address, const std::vector<const CorVaneMessageInfo*>& only,
            bool json)
        : address_(address), only_(only), json_(json), control_(connect(address, false)),
          monitor_(connect(address, true)), peers_(control_.get()) {}

    int run() {
        peers_.load();
        becomeMonitor();
        if (json_)
            std::cerr << dumpLine(Json{{"monitoring", address_}}) << std::endl;
        else
            std::cerr << "corvane: monitoring " << address_ << std::endl;

        sigset_t stop;
        sigemptyset(&stop);
        sigaddset(&stop, SIGINT);
        sigaddset(&stop, SIGTERM);
        sigprocmask(SIG_BLOCK, &stop, nullptr);
        const Fd signals{signalfd(-1, &stop, SFD_CLOEXEC)};
        if (signals.fd < 0) throw BusGone("signalfd: " + errnoText(errno));
        while (!drain(signals.fd)) {}
        return 0;
    }

private:
    std::string address_;
    std::vector<const CorVaneMessageInfo*> only_;
    bool json_;
    Bus control_;
    Bus monitor_;
    Peers peers_;
    // Calls waiting for their answer: (caller, serial) -> method.
    std::map<std::pair<std::string, uint64_t>, const CorVaneMessageInfo*> pending_;
    std::deque<std::pair<std::string, uint64_t>> pendingOrder_;

    void becomeMonitor() {
        const std::string ours[] = {
            std::string("interface='") + kCmdInterface + "'",
            std::string("interface='") + kNtfyInterface + "'",
            "type='method_return'",
            "type='error'",
            std::string("type='signal',sender='") + kBusService + "',interface='" + kBusService +
                "',member='NameOwnerChanged',arg0namespace='" +
                std::string(kUserPrefix.substr(0, kUserPrefix.size() - 1)) + "'",
        };
        sd_bus_message* raw = nullptr;
        int r = sd_bus_message_new_method_call(monitor_.get(), &raw, kBusService, kBusPath,
                                               "org.freedesktop.DBus.Monitoring", "BecomeMonitor");
        Message call(raw);
        if (r >= 0) r = sd_bus_message_open_container(raw, 'a', "s");
        for (const std::string& rule : ours)
            if (r >= 0) r = sd_bus_message_append(raw, "s", rule.c_str());
        if (r >= 0) r = sd_bus_message_close_container(raw);
        if (r >= 0) r = sd_bus_message_append(raw, "u", 0u);
        sd_bus_error error = SD_BUS_ERROR_NULL;
        if (r >= 0) r = sd_bus_call(monitor_.get(), raw, kCallTimeoutUsec, &error, nullptr);
        const std::string why = error.message ? error.message : errnoText(r);
        sd_bus_error_free(&error);
        if (r < 0) throw BusGone("the bus refused to be monitored: " + why);
    }

    // Handles what has arrived, then waits for more; true once a signal
    // asks to stop.
    bool drain(int signals) {
        for (;;) {
            sd_bus_message* raw = nullptr;
            const int r = sd_bus_process(monitor_.get(), &raw);
            Message m(raw);
            if (r < 0) throw BusGone("the bus went away: " + errnoText(r));
            if (m) {
                if (sd_bus_message_is_signal(m.get(), "org.freedesktop.DBus.Local", "Disconnected") > 0)
                    throw BusGone("the bus went away");
                handle(m.get());
                continue;
            }
            if (r == 0) break;
        }
        // The control connection only answers our questions; drop the rest.
        while (sd_bus_process(control_.get(), nullptr) > 0) {}

        pollfd fds[3] = {{sd_bus_get_fd(monitor_.get()), static_cast<short>(sd_bus_get_events(monitor_.get())), 0},
                         {sd_bus_get_fd(control_.get()), static_cast<short>(sd_bus_get_events(control_.get())), 0},
                         {signals, POLLIN, 0}};
        if (poll(fds, 3, -1) < 0 && errno != EINTR) throw BusGone("poll: " + errnoText(errno));
        if (fds[2].revents & POLLIN) return true;
        if (fds[1].revents & (POLLHUP | POLLERR)) {
            if (sd_bus_process(control_.get(), nullptr) < 0) throw BusGone("the bus went away");
        }
        return false;
    }

    bool shown(const CorVaneMessageInfo* info) const {
        if (only_.empty()) return true;
        for (const CorVaneMessageInfo* o : only_)
            if (o == info) return true;
        return false;
    }

    Json endpoints(sd_bus_message* m) {
        const char* sender = sd_bus_message_get_sender(m);
        const char* destination = sd_bus_message_get_destination(m);
        Json j = Json::object();
        j["sender"] = peers_.shown(sender);
        j["sender_bus_name"] = sender ? Json(sender) : Json();
        if (const auto pid = peers_.pid(sender)) j["sender_pid"] = *pid;
        j["destination"] = destination ? Json(peers_.shown(destination)) : Json();
        j["destination_bus_name"] = destination ? Json(destination) : Json();
        if (const auto pid = peers_.pid(destination)) j["destination_pid"] = *pid;
        return j;
    }

    static std::string party(const Json& j, const char* who) {
        const Json& name = j[who];
        std::string out = name.is_null() ? "*" : name.get<std::string>();
        const std::string pidKey = std::string(who) + "_pid";
        if (j.contains(pidKey)) {
            out += '[';
            out += std::to_string(j[pidKey].get<uint32_t>());
            out += ']';
        }
        return out;
    }

    void handle(sd_bus_message* m) {
        uint8_t type = 0;
        sd_bus_message_get_type(m, &type);
        if (type == SD_BUS_MESSAGE_SIGNAL &&
            sd_bus_message_is_signal(m, kBusService, "NameOwnerChanged") > 0) {
            const char *name, *oldOwner, *newOwner;
            if (sd_bus_message_read(m, "sss", &name, &oldOwner, &newOwner) > 0)
                peers_.ownerChanged(name, oldOwner, newOwner);
            return;
        }
        if (type == SD_BUS_MESSAGE_METHOD_CALL || type == SD_BUS_MESSAGE_SIGNAL)
            body(m, type == SD_BUS_MESSAGE_METHOD_CALL);
        else if (type == SD_BUS_MESSAGE_METHOD_RETURN || type == SD_BUS_MESSAGE_METHOD_ERROR)
            answer(m, type == SD_BUS_MESSAGE_METHOD_ERROR);
    }

    void remember(const char* caller, uint64_t serial, const CorVaneMessageInfo* info) {
        if (!caller) return;
        auto key = std::make_pair(std::string(caller), serial);
        if (pending_.emplace(key, info).second) pendingOrder_.push_back(key);
        if (pendingOrder_.size() > kMaxPendingCalls) {
            pending_.erase(pendingOrder_.front());
            pendingOrder_.pop_front();
        }
    }

    // A command (method call) or a notification (signal) on our interfaces.
    void body(sd_bus_message* m, bool call) {
        const char* member = sd_bus_message_get_member(m);
        const char* iface = sd_bus_message_get_interface(m);
        // Only our interfaces: the bus also tells the monitor about its own name.
        if (!iface || (std::strcmp(iface, kCmdInterface) != 0 && std::strcmp(iface, kNtfyInterface) != 0))
            return;
        const CorVaneMessageInfo* info = member ? findMessage(member) : nullptr;
        if (!shown(info)) return;
        uint64_t serial = 0;
        sd_bus_message_get_cookie(m, &serial);
        if (call && sd_bus_message_get_expect_reply(m) > 0)
            remember(sd_bus_message_get_sender(m), serial, info);

        Json j{{"type", call ? "call" : "signal"},
               {"method", member ? member : ""},
               {"interface", iface ? iface : ""},
               {"serial", serial}};
        j.update(endpoints(m));
        std::vector<std::string> notes;
        const char* expected = info && info->intf == CORVANE_INTF_CMD ? kCmdInterface : kNtfyInterface;
        if (!info)
            notes.push_back("no message of that name");
        else if (std::strcmp(iface, expected) != 0)
            notes.push_back(std::string("a ") + interfaceKind(*info) + " on " + iface);
        else if (call != (info->intf == CORVANE_INTF_CMD))
            notes.push_back(std::string("a ") + interfaceKind(*info) + " sent as a " + (call ? "method call" : "signal"));

        const void* data = nullptr;
        size_t size = 0;
        const bool ay = sd_bus_message_has_signature(m, "ay") > 0 &&
                        sd_bus_message_read_array(m, 'y', &data, &size) >= 0;
        std::optional<Decoded> decoded;
        std::span<const uint8_t> bytes;
        if (!ay) {
            const char* sig = sd_bus_message_get_signature(m, 1);
            notes.push_back(std::string("signature '") + (sig ? sig : "") + "', not 'ay'");
        } else {
            bytes = {static_cast<const uint8_t*>(data), size};
            j["bytes"] = size;
            if (info) {
                decoded = decodeBody(*info, bytes);
                if (decoded->status == CORVANE_OK)
                    j["payload"] = decodedJson(*info, bytes, *decoded)["payload"];
                else
                    j["decode_error"] = failureJson(*info, bytes, *decoded);
                j["decode_status"] = decoded->status;
            }
        }
        if (!notes.empty()) j["notes"] = notes;

        if (json_) {
            std::cout << dumpLine(j) << std::endl;
            return;
        }
        std::ostringstream os;
        os << (call ? "call" : "signal") << ' ' << j["method"].get<std::string>() << ' '
           << party(j, "sender") << " -> " << party(j, "destination") << ", serial " << serial;
        if (ay) os << ", " << size << " bytes";
        os << '\n';
        for (const std::string& n : notes) os << "  note: " << n << '\n';
        if (decoded && decoded->status == CORVANE_OK) {
            printRecord(os, *info->payload,
                        static_cast<const uint8_t*>(decoded->body.get()) + CORVANE_BODY_PAYLOAD_OFFSET, 2);
        } else if (decoded && decoded->status == CORVANE_E_ELEMENT) {
            std::ostringstream failure;
            printFailure(failure, *info, bytes, *decoded);
            std::istringstream lines(failure.str());
            for (std::string line; std::getline(lines, line);) os << "  " << line << '\n';
        } else if (decoded) {
            os << "  " << failureLine(*info, bytes, *decoded) << '\n';
        }
        std::cout << os.str() << std::flush;
    }

    // The answer to a call we showed: its status, or the D-Bus error.
    void answer(sd_bus_message* m, bool error) {
        uint64_t replyTo = 0;
        sd_bus_message_get_reply_cookie(m, &replyTo);
        const char* caller = sd_bus_message_get_destination(m);
        if (!caller) return;
        const auto it = pending_.find({caller, replyTo});
        if (it == pending_.end()) return;  // not an answer to one of ours
        const CorVaneMessageInfo* info = it->second;
        pending_.erase(it);

        Json j{{"type", error ? "error" : "return"},
               {"method", info ? info->name : ""},
               {"reply_serial", replyTo}};
        j.update(endpoints(m));
        std::string outcome;
        if (error) {
            const sd_bus_error* e = sd_bus_message_get_error(m);
            j["error_name"] = e && e->name ? e->name : "";
            j["error_message"] = e && e->message ? e->message : "";
            outcome = j["error_name"].get<std::string>() + ": " + j["error_message"].get<std::string>();
        } else if (uint32_t status = 0; sd_bus_message_has_signature(m, "u") > 0 &&
                                        sd_bus_message_read(m, "u", &status) > 0) {
            j["status"] = status;
            j["status_text"] = statusText(status);
            outcome = "status " + std::to_string(status) + " (" + statusText(status) + ")";
        } else {
            const char* sig = sd_bus_message_get_signature(m, 1);
            j["notes"] = {std::string("signature '") + (sig ? sig : "") + "', not 'u'"};
            outcome = std::string("an answer with signature '") + (sig ? sig : "") + "'";
        }
        if (json_) {
            std::cout << dumpLine(j) << std::endl;
            return;
        }
        std::cout << (error ? "error " : "return ") << j["method"].get<std::string>() << ' '
                  << party(j, "sender") << " -> " << party(j, "destination") << ", serial "
                  << replyTo << ": " << outcome << std::endl;
    }
};

}  // namespace

int runMonitor(const std::string& address, const std::vector<const CorVaneMessageInfo*>& only,
               bool json) {
    try {
        Monitor monitor(address, only, json);
        return monitor.run();
    } catch (const BusGone& e) {
        if (json)
            std::cerr << dumpLine(Json{{"error", e.what()}, {"bus", address}}) << std::endl;
        else
            std::cerr << "corvane: " << e.what() << " (" << address << ")" << std::endl;
        return 1;
    }
}

}  // namespace cvi
