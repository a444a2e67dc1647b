// corvane monitor against a private dbus-daemon: commands, answers and
// notifications crafted with sd-bus as the bus conventions say, shown with
// their users, processes and decoded fields; a malformed body with where
// decoding stopped; the method filter; exit 0 on SIGTERM and 1 when the bus
// goes away. Every wait is bounded.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "bus_names.h"
#include "inspect.h"

namespace {

using Clock = std::chrono::steady_clock;
using cvi::Json;
constexpr auto kWait = std::chrono::seconds(10);

// A child process with its standard output and error on pipes.
class Child {
public:
    explicit Child(std::vector<std::string> argv) {
        int out[2], err[2];
        if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            dup2(out[1], 1);
            dup2(err[1], 2);
            std::vector<char*> args;
            for (std::string& a : argv) args.push_back(a.data());
            args.push_back(nullptr);
            execvp(args[0], args.data());
            _exit(127);
        }
        close(out[1]);
        close(err[1]);
        out_ = out[0];
        err_ = err[0];
    }
    ~Child() {
        if (pid_ > 0 && status_ < 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (out_ >= 0) close(out_);
        if (err_ >= 0) close(err_);
    }

    pid_t pid() const { return pid_; }

    // The next line of standard output (or error); "" once the deadline passes.
    std::string lineOut(Clock::time_point until) { return line(out_, outBuf_, until); }
    std::string lineErr(Clock::time_point until) { return line(err_, errBuf_, until); }
    std::string allOut() const { return outBuf_; }

    // The exit status after a signal (or none), waiting at most kWait; -1 if
    // it did not exit.
    int stop(int sig) {
        if (sig) kill(pid_, sig);
        const auto until = Clock::now() + kWait;
        while (Clock::now() < until) {
            int st = 0;
            if (waitpid(pid_, &st, WNOHANG) == pid_) {
                status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
                drain(out_, outBuf_);
                drain(err_, errBuf_);
                return status_;
            }
            usleep(10'000);
        }
        return -1;
    }
    std::string allErr() const { return errBuf_; }

private:
    pid_t pid_ = -1;
    int out_ = -1, err_ = -1, status_ = -1;
    std::string outBuf_, errBuf_;
    size_t outRead_ = 0, errRead_ = 0;

    static bool readSome(int fd, std::string& buf) {
        char chunk[4096];
        const ssize_t n = read(fd, chunk, sizeof chunk);
        if (n > 0) buf.append(chunk, static_cast<size_t>(n));
        return n > 0;
    }
    static void drain(int fd, std::string& buf) {
        pollfd p{fd, POLLIN, 0};
        while (poll(&p, 1, 0) > 0 && readSome(fd, buf)) {}
    }
    std::string line(int fd, std::string& buf, Clock::time_point until) {
        size_t& from = &buf == &outBuf_ ? outRead_ : errRead_;
        for (;;) {
            const size_t nl = buf.find('\n', from);
            if (nl != std::string::npos) {
                std::string l = buf.substr(from, nl - from);
                from = nl + 1;
                return l;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
            if (left.count() <= 0) return "";
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, static_cast<int>(left.count())) <= 0 || !readSome(fd, buf)) return "";
        }
    }
};

struct BusUnref {
    void operator()(sd_bus* b) const { sd_bus_flush_close_unref(b); }
};
using Bus = std::unique_ptr<sd_bus, BusUnref>;

Bus connect(const std::string& address, const char* user) {
    sd_bus* b = nullptr;
    EXPECT_GE(sd_bus_new(&b), 0);
    EXPECT_GE(sd_bus_set_address(b, address.c_str()), 0);
    EXPECT_GE(sd_bus_set_bus_client(b, 1), 0);
    EXPECT_GE(sd_bus_start(b), 0);
    if (user) {
        EXPECT_GE(sd_bus_request_name(b, cvi::userBusName(user).c_str(), 0), 0);
    }
    return Bus(b);
}

std::vector<uint8_t> body(const char* method, const char* json) {
    const cvi::Encoded e = cvi::encodeBody(*cvi::findMessage(method), Json::parse(json));
    EXPECT_TRUE(e.errors.empty());
    return e.bytes;
}

void send(sd_bus* bus, bool call, const char* member, const std::vector<uint8_t>& bytes,
          bool expectReply = true) {
    sd_bus_message* m = nullptr;
    if (call)
        ASSERT_GE(sd_bus_message_new_method_call(bus, &m, cvi::userBusName("mgmt").c_str(),
                                                 cvi::kCmdPath, cvi::kCmdInterface, member), 0);
    else
        ASSERT_GE(sd_bus_message_new_signal(bus, &m, cvi::kNtfyPath, cvi::kNtfyInterface, member), 0);
    ASSERT_GE(sd_bus_message_append_array(m, 'y', bytes.data(), bytes.size()), 0);
    uint64_t serial = 0;  // without it, sd-bus marks a call as expecting no reply
    ASSERT_GE(sd_bus_send(bus, m, expectReply ? &serial : nullptr), 0);
    sd_bus_message_unref(m);
}

std::string findDaemon() {
    for (const char* dir : {"/usr/bin", "/bin", "/usr/local/bin"}) {
        const std::string p = std::string(dir) + "/dbus-daemon";
        if (access(p.c_str(), X_OK) == 0) return p;
    }
    return "";
}

class Monitor : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string daemon = findDaemon();
        if (daemon.empty()) {
            if (std::getenv("CORVANE_REQUIRE_DBUS")) FAIL() << "dbus-daemon is not installed";
            GTEST_SKIP() << "dbus-daemon is not installed (package dbus-daemon)";
        }
        char tmpl[] = "/tmp/corvane-monitor-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        address_ = "unix:path=" + dir_ + "/bus";
        daemon_ = std::make_unique<Child>(std::vector<std::string>{
            daemon, "--session", "--address=" + address_, "--nofork", "--print-address"});
        ASSERT_NE(daemon_->lineOut(Clock::now() + kWait), "") << "dbus-daemon did not start";
    }
    void TearDown() override {
        if (daemon_) daemon_->stop(SIGTERM);
        if (!dir_.empty()) std::filesystem::remove_all(dir_);
    }

    std::unique_ptr<Child> monitor(std::vector<std::string> args) {
        args.insert(args.begin(), {CORVANE_EXE, "--bus", address_, "monitor"});
        auto m = std::make_unique<Child>(args);
        const std::string ready = m->lineErr(Clock::now() + kWait);
        EXPECT_NE(ready.find("monitoring"), std::string::npos) << "monitor not ready: " << ready;
        return m;
    }

    std::string dir_, address_;
    std::unique_ptr<Child> daemon_;
};

// Answers every command with status 0.
int answer(sd_bus_message* m, void* answered, sd_bus_error*) {
    *static_cast<bool*>(answered) = true;
    return sd_bus_reply_method_return(m, "u", 0u);
}

TEST_F(Monitor, ShowsCommandsAnswersAndNotificationsDecoded) {
    Bus mgmt = connect(address_, "mgmt");  // before the monitors: found by ListNames
    bool answered = false;
    ASSERT_GE(sd_bus_add_object(mgmt.get(), nullptr, cvi::kCmdPath, answer, &answered), 0);
    auto all = monitor({"--json"});
    auto onlyCall = monitor({"OnMakeCall"});
    Bus voice = connect(address_, "voice-1");  // after: found by NameOwnerChanged

    send(voice.get(), true, "SetLineCallState", body("SetLineCallState", R"({"value1":1,"value2":2})"));
    for (const auto until = Clock::now() + kWait; !answered && Clock::now() < until;) {
        if (sd_bus_process(mgmt.get(), nullptr) == 0) sd_bus_wait(mgmt.get(), 100'000);
    }
    ASSERT_TRUE(answered);
    ASSERT_GE(sd_bus_flush(mgmt.get()), 0);
    send(mgmt.get(), false, "OnMakeCall", body("OnMakeCall", R"({"value1":7,"text1":"hello"})"));
    std::vector<Json> lines;
    auto readLines = [&](size_t n) {
        for (const auto until = Clock::now() + kWait; lines.size() < n;) {
            const std::string l = all->lineOut(until);
            if (l.empty()) break;
            lines.push_back(Json::parse(l));
        }
    };
    readLines(3);  // messages of two connections: only those of one keep their order
    std::vector<uint8_t> cut = body("SetLineCallState", "{}");
    cut.resize(40);  // the envelope, value1 and 4 bytes of value2's header
    send(voice.get(), true, "SetLineCallState", cut, false);
    ASSERT_GE(sd_bus_flush(voice.get()), 0);
    readLines(4);
    ASSERT_EQ(lines.size(), 4u) << all->allOut();
    const uint32_t pid = static_cast<uint32_t>(getpid());
    EXPECT_EQ(lines[0]["type"], "call");
    EXPECT_EQ(lines[0]["method"], "SetLineCallState");
    EXPECT_EQ(lines[0]["sender"], "voice-1");
    EXPECT_EQ(lines[0]["sender_pid"], pid);
    EXPECT_EQ(lines[0]["destination"], "mgmt");
    EXPECT_EQ(lines[0]["destination_bus_name"], "org.corvane.user.mgmt");
    EXPECT_EQ(lines[0]["payload"], Json::parse(R"({"value1":1,"value2":2,"value3":0})"));
    EXPECT_EQ(lines[0]["decode_status"], 0);

    EXPECT_EQ(lines[1]["type"], "return");
    EXPECT_EQ(lines[1]["method"], "SetLineCallState");
    EXPECT_EQ(lines[1]["status"], 0);
    EXPECT_EQ(lines[1]["sender"], "mgmt");
    EXPECT_EQ(lines[1]["destination"], "voice-1");
    EXPECT_EQ(lines[1]["reply_serial"], lines[0]["serial"]);

    EXPECT_EQ(lines[2]["type"], "signal");
    EXPECT_EQ(lines[2]["method"], "OnMakeCall");
    EXPECT_EQ(lines[2]["sender"], "mgmt");
    EXPECT_TRUE(lines[2]["destination"].is_null());
    EXPECT_EQ(lines[2]["payload"]["value1"], 7);
    EXPECT_EQ(lines[2]["payload"]["text1"], "hello");

    EXPECT_EQ(lines[3]["type"], "call");
    EXPECT_EQ(lines[3]["bytes"], 40);
    EXPECT_EQ(lines[3]["decode_status"], 4);
    EXPECT_FALSE(lines[3].contains("payload"));
    const Json& why = lines[3]["decode_error"];
    EXPECT_EQ(why["stopped_at"], 36);
    EXPECT_EQ(why["expected"]["field"], "value2");
    EXPECT_TRUE(why["found"].is_null());
    EXPECT_NE(why["reason"].get<std::string>().find("runs past the end"), std::string::npos);

    // The filtered monitor shows the notification alone, in text.
    const std::string head = onlyCall->lineOut(Clock::now() + kWait);
    EXPECT_EQ(head, "signal OnMakeCall mgmt[" + std::to_string(pid) + "] -> *, serial " +
                        std::to_string(lines[2]["serial"].get<uint64_t>()) + ", 88 bytes");
    EXPECT_EQ(all->stop(SIGTERM), 0);
    EXPECT_EQ(onlyCall->stop(SIGINT), 0);
    EXPECT_NE(onlyCall->allOut().find("  text1 = \"hello\"\n"), std::string::npos) << onlyCall->allOut();
    EXPECT_EQ(onlyCall->allOut().find("SetLineCallState"), std::string::npos) << onlyCall->allOut();
}

TEST_F(Monitor, ExitsWhenTheBusGoesAway) {
    auto m = monitor({});
    ASSERT_EQ(daemon_->stop(SIGTERM), 0);
    daemon_.reset();
    EXPECT_EQ(m->stop(0), 1);
    EXPECT_EQ(m->lineErr(Clock::now()).rfind("corvane: the bus went away", 0), 0u) << m->allErr();
}

}  // namespace
