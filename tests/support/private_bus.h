// A private dbus-daemon for a test, in a temporary directory of its own, and
// the processes the test starts beside it: never the machine's buses. The
// processes are killed and the directory removed when the object goes.
#pragma once

#include <gtest/gtest.h>

#include <stdlib.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "support/child.h"

namespace cvtest {

// An open policy: anyone owns any name and sends anything, as on a session bus.
inline constexpr const char* kOpenPolicy =
    "<policy context=\"default\"><allow user=\"*\"/><allow send_destination=\"*\" eavesdrop=\"true\"/>"
    "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy>\n";

// The configuration of a bus of `type` (session, system) listening on the
// socket, then `rest` (policies, limits, includes).
inline std::string busConfig(const std::string& type, const std::string& socket, const std::string& rest) {
    return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig><type>" + type + "</type><listen>unix:path=" + socket +
           "</listen><auth>EXTERNAL</auth>\n" + rest + "</busconfig>\n";
}

struct PrivateBus {
    std::string dir, address;                  // address: the session bus's
    std::vector<std::unique_ptr<Proc>> procs;  // killed last first

    PrivateBus() = default;
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;
    ~PrivateBus() { stopAll(); }

    // The directory (under /tmp, named after `prefix`), and with `session`
    // a session bus in it, started and listening; false on a failure.
    bool open(const std::string& prefix, bool session = true) {
        std::string tmpl = "/tmp/" + prefix + "-XXXXXX";
        if (mkdtemp(tmpl.data()) == nullptr) return false;
        dir = tmpl;
        address = "unix:path=" + dir + "/bus";
        return !session ||
               listening(spawn({"dbus-daemon", "--session", "--address=" + address, "--nofork", "--print-address"},
                               "unix:"));
    }
    void stopAll() {
        while (!procs.empty()) procs.pop_back();
        if (!dir.empty()) std::filesystem::remove_all(dir);
        dir.clear();
    }
    // A dbus-daemon of its own with that configuration (busConfig) on the
    // socket dir/name; its address, "" when it did not start.
    std::string startBus(const std::string& name, const std::string& type, const std::string& rest,
                         const std::function<void()>& inChild = {}) {
        const std::string conf = dir + "/" + name + ".conf";
        writeFile(conf, busConfig(type, dir + "/" + name, rest));
        return listening(spawn({"dbus-daemon", "--config-file=" + conf, "--nofork", "--nopidfile",
                                "--nosyslog", "--print-address=1"},
                               "unix:", inChild))
                   ? "unix:path=" + dir + "/" + name
                   : "";
    }
    // Starts a process and waits (5 s at most) until its stdout or stderr
    // holds `ready` (a failure when it does not).
    Proc* spawn(std::vector<std::string> args, const std::string& ready = "",
                const std::function<void()>& inChild = {}) {
        procs.push_back(std::make_unique<Proc>(std::move(args), dir, inChild));
        Proc* p = procs.back().get();
        EXPECT_TRUE(waitUntil([&] { return (p->stdout_() + p->stderr_()).find(ready) != std::string::npos; },
                              5000))
            << "not ready (no '" << ready << "'): " << p->stdout_() << p->stderr_();
        return p;
    }
    static bool listening(const Proc* bus) { return bus->stdout_().find("unix:") != std::string::npos; }
    // A program run to its end (20 s at most): exit status, stdout, stderr.
    struct Outcome {
        int status;
        std::string out, err;
    };
    Outcome run(std::vector<std::string> args) {
        Proc* p = spawn(std::move(args));
        const int status = p->wait();
        return {status, p->stdout_(), p->stderr_()};
    }
};

}  // namespace cvtest
