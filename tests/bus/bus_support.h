// What the bus tests share (bus_test.cpp, survive_test.cpp): files, bounded
// waits, child processes, raw D-Bus connections and the fixture that starts
// a private dbus-daemon with this process on it as a user.
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <systemd/sd-bus.h>

#include "corvane/corvane.h"
#include "quib_dbus.h"
#include "support/child.h"
#include "support/syslog_capture.h"

namespace bustest {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

inline std::string slurp(const std::string &path)
{
    std::stringstream s;
    s << std::ifstream(path).rdbuf();
    return s.str();
}

inline size_t countOf(const std::string &text, const std::string &what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

inline bool waitUntil(const std::function<bool()> &done, int timeout)
{
    for (const auto end = Clock::now() + milliseconds(timeout); !done();) {
        if (Clock::now() > end)
            return false;
        std::this_thread::sleep_for(milliseconds(20));
    }
    return true;
}

// A child process with its stdout and stderr in files.
struct Proc {
    pid_t pid = -1;
    int status = -1;
    std::string out, err;

    Proc(std::vector<std::string> args, const std::string &dir, const std::string &tag)
        : out(dir + "/" + tag + ".out"), err(dir + "/" + tag + ".err")
    {
        pid = cvtest::startChild(std::move(args), out, err);
    }
    ~Proc() { stop(SIGKILL, 2000); }
    // Sends sig (none when 0) and waits: the exit status (128 + signal when
    // killed), or -1 if still running after ms.
    int stop(int sig, int ms)
    {
        if (pid > 0 && sig != 0)
            kill(pid, sig);
        if (pid > 0 && waitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, ms))
            pid = -1;
        if (pid > 0)
            return -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    int wait(int ms) { return stop(0, ms); }
};

inline void putBe32(Bytes &b, size_t at, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        b[at + i] = static_cast<uint8_t>(v >> (24 - 8 * i));
}

// A body's bytes as a sender writes them: the magic (tag 0), the envelope
// word (tag 1), then the payload.
inline Bytes wire(const char *method, const void *payload)
{
    const CorVaneMessageInfo *m = corVane_messageByName(method);
    Bytes b(24 + corVane_record_serialize_lg(m->payload, payload));
    const uint32_t head[] = {0, 4, m->magic, 1, 4, m->envelope};
    for (size_t i = 0; i < std::size(head); ++i)
        putBe32(b, 4 * i, head[i]);
    uint8_t *cursor = b.data() + 24;
    EXPECT_EQ(corVane_record_serialize(m->payload, payload, &cursor), 0u);
    return b;
}

// Raw D-Bus on a connection of its own: whatever bytes, from a connection
// that owns the user name `owns` (as escaped on the bus), or none.
struct Raw {
    sd_bus *bus = nullptr;
    explicit Raw(const std::string &address, const char *owns = nullptr)
    {
        sd_bus_new(&bus);
        sd_bus_set_address(bus, address.c_str());
        sd_bus_set_bus_client(bus, 1);
        EXPECT_GE(sd_bus_start(bus), 0);
        if (owns != nullptr) {
            const std::string name = std::string("org.corvane.user.") + owns;
            EXPECT_GE(sd_bus_request_name(bus, name.c_str(), 0), 0) << name;
        }
    }
    ~Raw() { sd_bus_flush_close_unref(bus); }
    std::string unique() const
    {
        const char *u = nullptr;
        sd_bus_get_unique_name(bus, &u);
        return u != nullptr ? u : "";
    }
    // The bytes as a command to the user `to` (its name as escaped on the
    // bus): its "u" answer, or the error's name. Without `to`, as a
    // notification: "sent"; with `signalTo`, a notification sent to that
    // user alone. Returns once the bus has routed it.
    std::string send(const char *member, const Bytes &b, const char *to = nullptr,
                     const char *signalTo = nullptr)
    {
        const std::string table = to != nullptr ? "CorVaneCmd" : "CorVaneNtfy";
        const std::string path = "/org/corvane/" + table, intf = "org.corvane." + table;
        const std::string dest = std::string("org.corvane.user.") + (to != nullptr ? to : "");
        sd_bus_message *m = nullptr, *reply = nullptr;
        if (to != nullptr) {
            sd_bus_message_new_method_call(bus, &m, dest.c_str(), path.c_str(), intf.c_str(),
                                           member);
        } else {
            sd_bus_message_new_signal(bus, &m, path.c_str(), intf.c_str(), member);
            if (signalTo != nullptr)
                sd_bus_message_set_destination(
                    m, (std::string("org.corvane.user.") + signalTo).c_str());
        }
        sd_bus_message_append_array(m, 'y', b.data(), b.size());
        sd_bus_error e = SD_BUS_ERROR_NULL;
        uint32_t status = 0;
        std::string result = "sent";
        if (to == nullptr) {
            EXPECT_GE(sd_bus_send(bus, m, nullptr), 0);
            // The bus handles a connection's messages in order: once it has
            // answered this, the signal is on its way to its receivers.
            sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                               "org.freedesktop.DBus", "GetId", nullptr, nullptr, "");
        } else if (sd_bus_call(bus, m, 3000000, &e, &reply) < 0) {
            result = e.name;
        } else if (sd_bus_message_read(reply, "u", &status) >= 0) {
            result = std::to_string(status);
        } else {
            result = "no status";
        }
        sd_bus_flush(bus);
        sd_bus_error_free(&e);
        sd_bus_message_unref(reply);
        sd_bus_message_unref(m);
        return result;
    }
};

// The user name of this process on the bus, and that name as escaped there: a
// leading digit and every byte but [A-Za-z0-9] as _ and two hex digits.
inline constexpr const char *kSelf = "1_test-\xc3\xa9", *kSelfOnTheBus = "_31_5ftest_2d_c3_a9";

inline const lineCallState kCallState = {1, 2, 3};

class Bus : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        static const uint32_t initialized = corvane_initialize();  // once per process
        ASSERT_EQ(initialized, 0u);
    }

    std::string dir, address;
    std::vector<std::unique_ptr<Proc>> procs;  // the bus first, killed by their pids
    void *self = nullptr;                      // this process on the bus: kSelf

    void SetUp() override
    {
        char tmpl[] = "/tmp/corvane-bus-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        address = "unix:path=" + dir + "/bus";
        spawn({"dbus-daemon", "--session", "--address=" + address, "--nofork", "--print-address"},
              "dbus-daemon", "unix:");
        uint32_t status = 1;
        self = quibDbus_newUser(kSelf, address.c_str(), &status);
        ASSERT_EQ(status, 0u);
        quibDbus_setTimeout(0);
    }
    void TearDown() override
    {
        quibDbus_freeUser(self);
        procs.clear();
        std::filesystem::remove_all(dir);
    }
    // Starts a process and waits until its stdout holds `ready`.
    Proc *spawn(std::vector<std::string> args, const std::string &tag, const char *ready = "")
    {
        procs.push_back(std::make_unique<Proc>(std::move(args), dir, tag));
        Proc *p = procs.back().get();
        EXPECT_TRUE(waitUntil([&] { return slurp(p->out).find(ready) != std::string::npos; }, 5000))
            << tag << " not ready: " << slurp(p->err);
        return p;
    }
    // The management daemon under that user name, serving.
    Proc *mgmt(const std::string &name, std::vector<std::string> args = {})
    {
        args.insert(args.begin(), {MGMT_SIM, "--bus", address, "--name", name});
        return spawn(args, name, "serving 19 commands");
    }
};

inline uint32_t sendCallState(void *user, const char *to)
{
    return corVane_sendReq_setLineCallState(user, nullptr, to, &kCallState);
}

inline std::string credsOfThisProcess()
{
    return " (pid " + std::to_string(getpid()) + ", uid " + std::to_string(getuid()) + ")";
}

inline size_t loggedLines(const std::string &text)
{
    size_t n = 0;
    for (const auto &l : cvtest::logLines())
        n += l.text.find(text) != std::string::npos;
    return n;
}

}  // namespace bustest
