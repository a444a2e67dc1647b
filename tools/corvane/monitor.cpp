// The monitor holds two connections to the bus: one that becomes a monitor
// (org.freedesktop.DBus.Monitoring.BecomeMonitor; a monitor may send nothing
// more) and an ordinary one that asks the bus who owns a name and which
// process is behind a connection. Each message goes through the same
// Traffic as a capture file read by `corvane decode` (bus_traffic.h):
// bodies are decoded with the library's bounded decoder.
#include "monitor.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <systemd/sd-bus.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <optional>

#include "bus_names.h"
#include "bus_traffic.h"
#include "cli.h"
#include "pcap.h"
#include "sd_message.h"

#ifndef CORVANE_VERSION
#error "CORVANE_VERSION must be defined by the build"
#endif

namespace cvi {
namespace {

constexpr uint64_t kCallTimeoutUsec = 2'000'000;
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
class Peers : public Names {
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

    void ownerChanged(const std::string& name, const std::string& oldOwner,
                      const std::string& newOwner) override {
        const auto user = userOfBusName(name);
        if (!user) return;
        if (!oldOwner.empty()) {
            const auto it = users_.find(oldOwner);
            if (it != users_.end() && it->second == *user) users_.erase(it);
        }
        if (!newOwner.empty()) users_[newOwner] = *user;
    }

    std::string shown(const std::string& name) override {
        if (const auto user = userOfBusName(name)) return *user;
        const auto it = users_.find(name);
        return it != users_.end() ? it->second : name;
    }

    std::optional<uint32_t> pid(const std::string& name) override {
        if (name.empty() || name == kBusService) return std::nullopt;
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

// The two connections of a watch: the monitor connection has become a
// monitor of our interfaces, the answers and the users' names changing
// hands; the control connection asks the bus about names and processes.
struct Watch {
    Bus control;
    Bus monitor;
};

// Asks the bus to make `monitor` a monitor of what corvane shows.
void becomeMonitor(sd_bus* monitor) {
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
    int r = sd_bus_message_new_method_call(monitor, &raw, kBusService, kBusPath,
                                           "org.freedesktop.DBus.Monitoring", "BecomeMonitor");
    Message call(raw);
    if (r >= 0) r = sd_bus_message_open_container(raw, 'a', "s");
    for (const std::string& rule : ours)
        if (r >= 0) r = sd_bus_message_append(raw, "s", rule.c_str());
    if (r >= 0) r = sd_bus_message_close_container(raw);
    if (r >= 0) r = sd_bus_message_append(raw, "u", 0u);
    sd_bus_error error = SD_BUS_ERROR_NULL;
    if (r >= 0) r = sd_bus_call(monitor, raw, kCallTimeoutUsec, &error, nullptr);
    const std::string why = error.message ? error.message : errnoText(r);
    sd_bus_error_free(&error);
    if (r < 0) throw BusGone("the bus refused to be monitored: " + why);
}

// The connection setup shared by monitor and capture; `ready` runs between
// connecting and becoming a monitor (the peers are listed then).
Watch openWatch(const std::string& address, const std::function<void(sd_bus* control)>& ready) {
    Watch w{connect(address, false), connect(address, true)};
    // Monitoring first, then the names: an owner that changes in between is
    // both listed and seen changing, never missed.
    becomeMonitor(w.monitor.get());
    ready(w.control.get());
    return w;
}

// Runs a watch until a signal, the count or the timeout; each message goes
// to `each`, which says whether it was an entry (counted).
class Loop {
public:
    Loop(Watch& watch, const WatchOptions& options) : w_(watch), options_(options) {}

    // Whether the watch ended as asked (a signal, the count, the timeout
    // without a count) or the timeout came before the count (kShort).
    enum class End { kDone, kShort };
    End run(const std::function<bool(const DbusMessage&)>& each) {
        sigset_t stop;
        sigemptyset(&stop);
        sigaddset(&stop, SIGINT);
        sigaddset(&stop, SIGTERM);
        sigprocmask(SIG_BLOCK, &stop, nullptr);
        const Fd signals{signalfd(-1, &stop, SFD_CLOEXEC)};
        if (signals.fd < 0) throw BusGone("signalfd: " + errnoText(errno));
        const auto start = std::chrono::steady_clock::now();
        for (;;) {
            if (drain(each)) return End::kDone;
            int wait = -1;
            if (options_.timeoutMs) {
                const auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(
                                       std::chrono::steady_clock::now() - start).count();
                if (spent >= static_cast<int64_t>(options_.timeoutMs))
                    return options_.count && entries_ < options_.count ? End::kShort : End::kDone;
                wait = static_cast<int>(static_cast<int64_t>(options_.timeoutMs) - spent);
            }
            pollfd fds[3] = {
                {sd_bus_get_fd(w_.monitor.get()), static_cast<short>(sd_bus_get_events(w_.monitor.get())), 0},
                {sd_bus_get_fd(w_.control.get()), static_cast<short>(sd_bus_get_events(w_.control.get())), 0},
                {signals.fd, POLLIN, 0}};
            if (poll(fds, 3, wait) < 0 && errno != EINTR) throw BusGone("poll: " + errnoText(errno));
            if (fds[2].revents & POLLIN) return End::kDone;
            if (fds[1].revents & (POLLHUP | POLLERR)) {
                if (sd_bus_process(w_.control.get(), nullptr) < 0) throw BusGone("the bus went away");
            }
        }
    }

    uint64_t entries() const { return entries_; }

private:
    Watch& w_;
    const WatchOptions& options_;
    uint64_t entries_ = 0;

    // Handles what has arrived; true once the count is reached.
    bool drain(const std::function<bool(const DbusMessage&)>& each) {
        for (;;) {
            sd_bus_message* raw = nullptr;
            const int r = sd_bus_process(w_.monitor.get(), &raw);
            Message m(raw);
            if (r < 0) throw BusGone("the bus went away: " + errnoText(r));
            if (m) {
                if (sd_bus_message_is_signal(m.get(), "org.freedesktop.DBus.Local", "Disconnected") > 0)
                    throw BusGone("the bus went away");
                if (const auto message = dbusMessageOf(m.get()); message && each(*message)) {
                    ++entries_;
                    if (options_.count && entries_ >= options_.count) return true;
                }
                continue;
            }
            if (r == 0) break;
        }
        // The control connection only answers our questions; drop the rest.
        while (sd_bus_process(w_.control.get(), nullptr) > 0) {}
        return false;
    }
};

// The end of a watch: 0, or 1 with one line when the timeout came first.
int ended(Loop::End end, const WatchOptions& options, uint64_t entries) {
    if (end == Loop::End::kDone) return 0;
    const std::string line = "timeout after " + std::to_string(options.timeoutMs) + " ms: " +
                             std::to_string(entries) + " of " + std::to_string(options.count) +
                             " messages";
    if (options.json)
        std::cerr << dumpLine(Json{{"error", line}, {"count", entries}}) << std::endl;
    else
        std::cerr << "corvane: " << line << std::endl;
    return 1;
}

void reportFailure(const BusGone& e, const std::string& address, bool json) {
    if (json)
        std::cerr << dumpLine(Json{{"error", e.what()}, {"bus", address}}) << std::endl;
    else
        std::cerr << "corvane: " << e.what() << " (" << address << ")" << std::endl;
}

}  // namespace

int runMonitor(const std::string& address, const WatchOptions& options) {
    try {
        std::unique_ptr<Peers> peers;
        Watch watch = openWatch(address, [&](sd_bus* control) {
            peers = std::make_unique<Peers>(control);
            peers->load();
        });
        if (options.json)
            std::cerr << dumpLine(Json{{"monitoring", address}}) << std::endl;
        else
            std::cerr << "corvane: monitoring " << address << std::endl;
        Traffic traffic(*peers, options.only, options.fold);
        Loop loop(watch, options);
        const Loop::End end = loop.run([&](const DbusMessage& m) {
            const Traffic::Result r = traffic.take(m);
            if (!r.entry) return false;
            std::cout << (options.json ? dumpLine(r.entry->json) + '\n' : r.entry->text) << std::flush;
            return true;
        });
        return ended(end, options, loop.entries());
    } catch (const BusGone& e) {
        reportFailure(e, address, options.json);
        return 1;
    }
}

int runCapture(const std::string& address, const WatchOptions& options, const std::string& output) {
    const bool toStdout = output == "-";
    const std::string shownOutput = toStdout ? "standard output" : output;
    int fd = STDOUT_FILENO;
    if (toStdout && isatty(STDOUT_FILENO))
        throw Failure(kExitUsage, "binary output to a terminal: give -o FILE, or redirect standard output");
    const Fd file{toStdout ? -1 : open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)};
    if (!toStdout) {
        if (file.fd < 0) throw Failure(kExitUsage, "cannot write " + output + ": " + std::strerror(errno));
        fd = file.fd;
    }
    uint64_t frames = 0;
    try {
        std::unique_ptr<Peers> peers;
        Watch watch = openWatch(address, [&](sd_bus* control) {
            peers = std::make_unique<Peers>(control);
            peers->load();
        });
        PcapngWriter writer(fd, std::string("corvane ") + CORVANE_VERSION, address);
        if (options.json)
            std::cerr << dumpLine(Json{{"capturing", address}, {"output", shownOutput}}) << std::endl;
        else
            std::cerr << "corvane: capturing " << address << " to " << shownOutput << std::endl;
        Traffic traffic(*peers, options.only, true);
        Loop loop(watch, options);
        const Loop::End end = loop.run([&](const DbusMessage& m) {
            timespec now{};
            clock_gettime(CLOCK_REALTIME, &now);
            const Traffic::Result r = traffic.take(m);
            if (r.kind != Traffic::Kind::kEntry && r.kind != Traffic::Kind::kOwnerChange)
                return false;
            const std::string comment = r.entry ? endpointsText(r.entry->json) : "";
            try {
                writer.write(marshalDbusMessage(m), static_cast<uint64_t>(now.tv_sec),
                             static_cast<uint32_t>(now.tv_nsec / 1000), comment);
            } catch (const std::runtime_error& e) {
                throw BusGone("cannot write " + shownOutput + ": " + e.what());
            }
            ++frames;
            return r.entry.has_value();
        });
        const uint64_t entries = loop.entries();
        if (options.json)
            std::cerr << dumpLine(Json{{"captured", entries}, {"packets", frames}, {"output", shownOutput}}) << std::endl;
        else
            std::cerr << "corvane: " << entries << " messages captured (" << frames << " packets) to "
                      << shownOutput << std::endl;
        return ended(end, options, entries);
    } catch (const BusGone& e) {
        reportFailure(e, address, options.json);
        if (frames)
            std::cerr << "corvane: " << frames << " packets kept in " << shownOutput << std::endl;
        return 1;
    } catch (const std::runtime_error& e) {  // the header could not be written
        std::cerr << "corvane: cannot write " << shownOutput << ": " << e.what() << std::endl;
        return 1;
    }
}

}  // namespace cvi
