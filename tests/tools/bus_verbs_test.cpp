// corvane's verbs on a private dbus-daemon with the two daemons of
// examples/: call and emit of every message reach them with the payload
// given (the daemons say whether it is their sample, field for field),
// monitor --json running meanwhile shows each call, answer and signal
// decoded (a body cut short: capture_test.cpp, through the same decoding of
// traffic), a name nobody owns and a late answer fail with their status
// within the timeout, and the monitor exits 0 on SIGTERM and 1 when the bus
// goes away. Every wait is bounded; every process started here is stopped by
// its pid.
#include <chrono>
#include <functional>
#include <regex>

#include "on_bus.h"

namespace {

using Clock = std::chrono::steady_clock;
using cvi::Json;
using cvtest::Proc;
using cvtest::waitUntil;

TEST_F(OnTheBus, CallAndEmitReachTheDaemonsAndTheMonitorShowsThem) {
    Proc* mgmt = spawn({MGMT_SIM, "--bus", address}, "serving 19 commands");
    spawn({MGMT_SIM, "--bus", address, "--name", "slow", "--delay", "3000"}, "serving");
    Proc* voice = spawn({VOICE_SIM, "--bus", address, "--to", "nobody"}, "subscribed to 30");
    Proc* all = corvane({"--json", "monitor"}, "monitoring");
    Proc* onlyCall = corvane({"monitor", "OnMakeCall"}, "monitoring");
    const std::string mgmtPid = std::to_string(mgmt->pid);
    // The first line of the JSON monitor that matches, waited for 5 s at most;
    // null when none does.
    auto monitorLine = [&](const std::function<bool(Json)>& match) {
        Json found;
        waitUntil(
            [&] {
                const std::string text = all->stdout_();
                std::istringstream in(text.substr(0, text.rfind('\n') + 1));
                for (std::string l; found.is_null() && std::getline(in, l);)
                    if (Json j = Json::parse(l); match(j)) found = j;
                return !found.is_null();
            },
            5000);
        return found;
    };
    // Runs corvane, checks its exit status and its one line (stdout when it
    // exits 0, else stderr), and returns the call or signal the monitor saw
    // it send (none for an empty method).
    auto send = [&](std::vector<std::string> args, const std::string& method, int rc,
                    const std::string& line) {
        const auto t = Clock::now();
        Proc* p = corvane(std::move(args));
        EXPECT_EQ(p->wait(), rc) << p->stderr_();
        EXPECT_LT(Clock::now() - t, std::chrono::seconds(3));  // 1000 ms of timeout at most
        EXPECT_TRUE(std::regex_search(rc == 0 ? p->stdout_() : p->stderr_(), std::regex(line)))
            << p->stdout_() << p->stderr_();
        EXPECT_EQ(p->stderr_().empty(), rc == 0) << p->stderr_();
        const std::string self = "corvane-" + std::to_string(p->pid);
        if (method.empty()) return Json();  // nothing goes on the bus
        const Json sent = monitorLine([&](Json j) {
            return j["sender"] == self && j["method"] == method && j["type"] != "return";
        });
        EXPECT_FALSE(sent.is_null()) << self << " " << method << " not in\n" << all->stdout_();
        return sent;
    };
    // Whether the monitor shows the answer to that call, with that status.
    auto answered = [&](const Json& call, int status) {
        return !monitorLine([&](Json j) {
                    return j["type"] == "return" && j["destination"] == call["sender"] &&
                           j["reply_serial"] == call["serial"] && j["method"] == call["method"] &&
                           j["status"] == status;
                }).is_null();
    };

    // Every message with the daemons' sample payload: the receiving daemon
    // got exactly the sample from corvane, the monitor shows it decoded and
    // the command's answer.
    for (const CorVaneMessageInfo* m : cvi::allMessages()) {
        SCOPED_TRACE(m->name);
        const bool command = m->intf == CORVANE_INTF_CMD;
        const Json payload = sample(*m);
        // A notification goes to each subscriber: the voice daemon alone.
        const std::string to = command ? "mgmt\\[" + mgmtPid + "\\]" : "\\* \\(1 subscriber\\)";
        Json sent = send({command ? "call" : "emit", m->name, payload.dump()}, m->name, 0,
                         std::string("^") + m->name + " -> " + to + ": status 0 \\(done\\)\n$");
        EXPECT_EQ(sent["payload"], payload);
        // The sender is named by its unique name once it has left the bus;
        // the management daemon sends the samples of all notifications too.
        const std::regex got(
            "<- (?!mgmt\\[)\\S+ " + std::string(m->name) + ": " + cvi::interfaceKind(*m) + ", " +
            std::to_string(cvi::encodeBody(*m, payload).bytes.size()) + " bytes, sample payload\n");
        Proc* daemon = command ? mgmt : voice;
        EXPECT_TRUE(waitUntil([&] { return std::regex_search(daemon->stdout_(), got); }, 5000))
            << daemon->stdout_();
        if (!command) continue;
        EXPECT_EQ(sent["destination_pid"], mgmt->pid);
        EXPECT_TRUE(answered(sent, 0)) << all->stdout_();
    }

    // A notification to one subscriber by name, and to a user that is not
    // on the bus.
    send({"--json", "emit", "--to", "voice", "StopAutoCall"}, "StopAutoCall", 0,
         "^\\{\"method\":\"StopAutoCall\",\"from\":\"corvane-\\d+\",\"to\":\"voice\","
         "\"subscribers\":1,\"status\":0,\"status_text\":\"done\"\\}\n$");
    send({"emit", "--to", "nobody", "StopAutoCall"}, "", 1,
         "^corvane: StopAutoCall -> nobody \\(no subscriber\\): status 0x62 [^\n]*\n$");

    // A call's --json line, and calls that fail within their timeout.
    send({"--json", "call", "DeleteRepeater"}, "DeleteRepeater", 0,
         "^\\{\"method\":\"DeleteRepeater\",\"from\":\"corvane-\\d+\",\"to\":\"mgmt\",\"to_pid\":" +
             mgmtPid + ",\"status\":0,\"status_text\":\"done\"\\}\n$");
    send({"call", "--to", "nobody", "--timeout", "1000", "SetLineStats"}, "SetLineStats", 1,
         "^corvane: SetLineStats -> nobody: status 0x62 \\(no server: nobody owns the "
         "name[^\n]*\n$");
    send({"call", "--to", "slow", "--timeout", "300", "SetLineStats"}, "SetLineStats", 1,
         "^corvane: SetLineStats -> slow\\[\\d+\\]: status 0x63 \\(timeout: no answer in time, 300 "
         "ms; the command may still have run\\)\n$");
    send({"--json", "call", "--to", "nobody", "SetLineStats"}, "SetLineStats", 1,
         "^\\{\"error\":\"SetLineStats -> nobody: status 0x62 [^\n]*\"status\":98,[^\n]*\\}\n$");

    // The filtered monitor shows that notification alone, in text (sent to
    // the voice daemon, its one subscriber).
    EXPECT_EQ(all->stop(SIGTERM), 0);
    EXPECT_EQ(onlyCall->stop(SIGINT), 0);
    const std::string text = onlyCall->stdout_();
    EXPECT_TRUE(
        std::regex_search(text, std::regex("(^|\n)signal OnMakeCall corvane-\\d+(\\[\\d+\\])? -> "
                                           "voice\\[\\d+\\], serial \\d+, 96 bytes\n  value1 = ")))
        << text;
    EXPECT_NE(text.find("  text1 = \"text1\"\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("SetLineCallState"), std::string::npos) << text;
}

TEST_F(OnTheBus, TheMonitorExitsWhenTheBusGoesAway) {
    Proc* m = corvane({"monitor"}, "monitoring");
    ASSERT_EQ(procs[0]->stop(SIGTERM), 0);
    EXPECT_EQ(m->wait(), 1);
    EXPECT_NE(m->stderr_().find("\ncorvane: the bus went away"), std::string::npos) << m->stderr_();
}

}  // namespace
