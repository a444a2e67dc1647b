// corvane's verbs on a private dbus-daemon with the two daemons of
// examples/: call and emit reach them with the payload given (the daemons
// say whether it is their sample, field for field), monitor --json running
// meanwhile shows each call, answer and signal decoded, a name nobody owns
// and a late answer fail with their status within the timeout, a body cut
// short is shown with where decoding stopped, and the monitor exits 0 on
// SIGTERM and 1 when the bus goes away. Every wait is bounded; every process
// started here is stopped by its pid.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <thread>

#include "bus_names.h"
#include "inspect.h"
extern "C" {
#include "sim.h"  // the daemons' sample payloads
}

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
using cvi::Json;

bool waitUntil(const std::function<bool()>& done, int ms) {
    for (const auto until = Clock::now() + std::chrono::milliseconds(ms); !done();) {
        if (Clock::now() > until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

std::string slurp(const std::string& path) {
    std::stringstream s;
    s << std::ifstream(path).rdbuf();
    return s.str();
}

// A child process, its standard output and error in files.
struct Proc {
    pid_t pid = -1;
    bool running = false;
    int status = -1;
    std::string out, err;

    Proc(std::vector<std::string> args, const std::string& dir) {
        static int n = 0;
        out = dir + "/" + std::to_string(++n) + ".out";
        err = dir + "/" + std::to_string(n) + ".err";
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_addopen(&fa, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addopen(&fa, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        running = posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), environ) == 0;
        posix_spawn_file_actions_destroy(&fa);
    }
    ~Proc() { stop(SIGKILL); }
    // The exit status (128 + signal), or -1 when still running after ms.
    int wait(int ms = 10000) {
        if (running && waitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, ms))
            running = false;
        return running ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    int stop(int sig) {
        if (running) kill(pid, sig);
        return wait();
    }
    std::string stdout_() const { return slurp(out); }
    std::string stderr_() const { return slurp(err); }
};

class OnTheBus : public ::testing::Test {
protected:
    void SetUp() override {
        if (access("/usr/bin/dbus-daemon", X_OK) != 0) {
            if (std::getenv("CORVANE_REQUIRE_DBUS")) FAIL() << "dbus-daemon is not installed";
            GTEST_SKIP() << "dbus-daemon is not installed (package dbus-daemon)";
        }
        char tmpl[] = "/tmp/corvane-cli-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        address_ = "unix:path=" + dir_ + "/bus";
        daemon_ = start({"/usr/bin/dbus-daemon", "--session", "--address=" + address_, "--nofork",
                         "--print-address"}, "unix:");
    }
    void TearDown() override {
        for (auto it = procs_.rbegin(); it != procs_.rend(); ++it) (*it)->stop(SIGKILL);
        if (!dir_.empty()) std::filesystem::remove_all(dir_);
    }
    // Starts a process and waits until its output (or error) holds `ready`.
    Proc* start(std::vector<std::string> args, const std::string& ready) {
        procs_.push_back(std::make_unique<Proc>(std::move(args), dir_));
        Proc* p = procs_.back().get();
        EXPECT_TRUE(waitUntil([&] { return (p->stdout_() + p->stderr_()).find(ready) != std::string::npos; },
                              5000))
            << "not ready: " << p->stdout_() << p->stderr_();
        return p;
    }
    Proc* corvane(std::vector<std::string> args, const std::string& ready = "") {
        args.insert(args.begin(), {CORVANE_EXE, "--bus", address_});
        return start(std::move(args), ready);
    }

    std::string dir_, address_;
    std::vector<std::unique_ptr<Proc>> procs_;
    Proc* daemon_ = nullptr;
};

// The sample payload the daemons send of a message, as JSON: a receiving
// daemon says whether it got exactly that.
Json sample(const CorVaneMessageInfo& m) {
    void* p = sim_newSample(&m);
    const Json j = cvi::recordToJson(*m.payload, p);
    std::free(p);
    return j;
}

TEST_F(OnTheBus, CallAndEmitReachTheDaemonsAndTheMonitorShowsThem) {
    Proc* mgmt = start({MGMT_SIM, "--bus", address_}, "serving 19 commands");
    start({MGMT_SIM, "--bus", address_, "--name", "slow", "--delay", "3000"}, "serving");
    Proc* voice = start({VOICE_SIM, "--bus", address_, "--to", "nobody"}, "subscribed to 30");
    Proc* all = corvane({"--json", "monitor"}, "monitoring");
    Proc* onlyCall = corvane({"monitor", "OnMakeCall"}, "monitoring");
    const std::string mgmtWho = "mgmt\\[" + std::to_string(mgmt->pid) + "\\]";
    // SAMPLE in args stands for the sample payload's JSON, @SAMPLE for a file
    // holding it.
    const struct {
        std::vector<std::string> args;
        const char* method;
        int rc;
        std::string output;  // stdout when rc is 0, else stderr
        Json payload = nullptr;  // null: the sample
    } cases[] = {
        {{"call", "SetLineCallState", R"({"value1":1,"value2":2})"}, "SetLineCallState", 0,
         "^SetLineCallState -> " + mgmtWho + ": status 0 \\(done\\)\n$", Json::parse(R"({"value1":1,"value2":2,"value3":0})")},
        {{"call", "SetProfileConfig", "@SAMPLE"}, "SetProfileConfig", 0, "^SetProfileConfig -> " + mgmtWho},
        {{"--json", "call", "DeleteRepeater", "SAMPLE"}, "DeleteRepeater", 0,
         "^\\{\"method\":\"DeleteRepeater\",\"from\":\"corvane-\\d+\",\"to\":\"mgmt\",\"to_pid\":" +
             std::to_string(mgmt->pid) + ",\"status\":0,\"status_text\":\"done\"\\}\n$"},
        {{"emit", "OnMakeCall", "SAMPLE"}, "OnMakeCall", 0, "^OnMakeCall -> \\*: status 0 \\(done\\)\n$"},
        {{"emit", "OnAddObjectAccount", "@SAMPLE"}, "OnAddObjectAccount", 0, ""},
        {{"call", "--to", "nobody", "--timeout", "1000", "SetLineStats"}, "SetLineStats", 1,
         "^corvane: SetLineStats -> nobody: status 0x62 \\(no server: nobody owns the name[^\n]*\n$"},
        {{"call", "--to", "slow", "--timeout", "300", "SetLineStats"}, "SetLineStats", 1,
         "^corvane: SetLineStats -> slow\\[\\d+\\]: status 0x63 \\(timeout: no answer in time, 300 ms\\)\n$"},
        {{"--json", "call", "--to", "nobody", "SetLineStats"}, "SetLineStats", 1,
         "^\\{\"error\":\"SetLineStats -> nobody: status 0x62 [^\n]*\"status\":98,[^\n]*\\}\n$"},
    };
    // Whether a line of the JSON monitor matches, within 5 s.
    auto monitorShows = [&](const std::function<bool(Json)>& match) {
        return waitUntil([&] {
            const std::string text = all->stdout_();
            std::istringstream in(text.substr(0, text.rfind('\n') + 1));
            for (std::string l; std::getline(in, l);)
                if (match(Json::parse(l))) return true;
            return false;
        }, 5000);
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args[0] + " " + c.args[1] + " " + c.method);
        const CorVaneMessageInfo& m = *corVane_messageByName(c.method);
        const Json payload = c.payload.is_null() ? sample(m) : c.payload;
        std::vector<std::string> args = c.args;
        std::ofstream(dir_ + "/sample.json") << payload;
        for (std::string& arg : args)
            arg = arg == "SAMPLE" ? payload.dump() : arg == "@SAMPLE" ? "@" + dir_ + "/sample.json" : arg;
        const auto t = Clock::now();
        Proc* p = corvane(args);
        const int rc = p->wait();
        EXPECT_LT(Clock::now() - t, std::chrono::seconds(3));  // 1000 ms of timeout at most
        EXPECT_EQ(rc, c.rc) << p->stderr_();
        EXPECT_TRUE(std::regex_search(rc == 0 ? p->stdout_() : p->stderr_(), std::regex(c.output)))
            << p->stdout_() << p->stderr_();
        EXPECT_EQ(p->stderr_().empty(), rc == 0) << p->stderr_();
        // The monitor shows the call or signal with its sender and fields.
        const std::string self = "corvane-" + std::to_string(p->pid);
        Json sent;
        EXPECT_TRUE(monitorShows([&](Json j) {
            if (j["sender"] == self && j["method"] == c.method && j["type"] != "return") sent = j;
            return !sent.is_null();
        })) << self << " " << c.method << " not in\n" << all->stdout_();
        if (rc != 0) continue;
        EXPECT_EQ(sent["payload"], payload);  // missing fields are 0
        // The receiving daemon got it, exactly the sample or not.
        const bool command = m.intf == CORVANE_INTF_CMD;
        const std::string got = std::string(c.method) + (command ? ": command, " : ": notification, ") +
                                std::to_string(cvi::encodeBody(m, payload).bytes.size()) + " bytes, " +
                                (c.payload.is_null() ? "sample payload" : "payload differs from the sample");
        Proc* daemon = command ? mgmt : voice;
        EXPECT_TRUE(waitUntil([&] { return daemon->stdout_().find(got) != std::string::npos; }, 5000))
            << got << " not in\n" << daemon->stdout_();
        if (!command) continue;
        EXPECT_EQ(sent["destination_pid"], mgmt->pid);
        EXPECT_TRUE(monitorShows([&](Json j) {
            return j["type"] == "return" && j["destination"] == self && j["status"] == 0 &&
                   j["reply_serial"] == sent["serial"] && j["method"] == c.method;
        })) << all->stdout_();
    }

    // A body cut after value1 and 4 bytes of value2's header: the management
    // daemon answers 4 and the monitor shows where decoding stopped.
    const cvi::Encoded cut = cvi::encodeBody(*corVane_messageByName("SetLineCallState"), Json::object());
    std::string bytes = "array:byte:";
    for (size_t i = 0; i < 40; ++i) bytes += std::to_string(cut.bytes[i]) + (i < 39 ? "," : "");
    Proc* send = start({"/usr/bin/dbus-send", "--bus=" + address_, "--print-reply", "--dest=org.corvane.user.mgmt",
                        cvi::kCmdPath, std::string(cvi::kCmdInterface) + ".SetLineCallState", bytes}, "");
    EXPECT_EQ(send->wait(), 0) << send->stderr_();
    EXPECT_NE(send->stdout_().find("uint32 4\n"), std::string::npos) << send->stdout_();
    Json refused;
    EXPECT_TRUE(monitorShows([&](Json j) {
        if (j["bytes"] == 40) refused = j;
        return !refused.is_null();
    }));
    EXPECT_EQ(refused["decode_status"], 4);
    EXPECT_FALSE(refused.contains("payload"));
    EXPECT_EQ(refused["decode_error"]["stopped_at"], 36);
    EXPECT_EQ(refused["decode_error"]["expected"]["field"], "value2");
    EXPECT_TRUE(monitorShows([&](Json j) {
        return j["type"] == "return" && j["reply_serial"] == refused["serial"] && j["status"] == 4;
    }));

    // The filtered monitor shows the one notification alone, in text.
    EXPECT_EQ(all->stop(SIGTERM), 0);
    EXPECT_EQ(onlyCall->stop(SIGINT), 0);
    const std::string text = onlyCall->stdout_();
    EXPECT_TRUE(std::regex_search(text, std::regex("^signal OnMakeCall corvane-\\d+(\\[\\d+\\])? -> \\*, serial \\d+, "
                                                   "96 bytes\n  value1 = ")))
        << text;
    EXPECT_NE(text.find("  text1 = \"text1\"\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("SetLineCallState"), std::string::npos) << text;
}

TEST_F(OnTheBus, TheMonitorExitsWhenTheBusGoesAway) {
    Proc* m = corvane({"monitor"}, "monitoring");
    ASSERT_EQ(daemon_->stop(SIGTERM), 0);
    EXPECT_EQ(m->wait(), 1);
    EXPECT_NE(m->stderr_().find("\ncorvane: the bus went away"), std::string::npos) << m->stderr_();
}

}  // namespace
