// The D-Bus middleware between processes: each test starts a private
// dbus-daemon and the daemons of examples/ it needs, and sends through the
// library or as raw D-Bus messages (bytes no library would write). Every
// wait is bounded; every process is stopped by its pid.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
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
#include "bus_support.h"

namespace {

using namespace bustest;

// Every command is answered 0 and every notification arrives, once, with the
// payload that was sent; each side's line names both processes.
TEST_F(Bus, AllMessagesBetweenTheDaemons)
{
    Proc *m = mgmt("mgmt");
    Proc *v = spawn({VOICE_SIM, "--bus", address, "--once"}, "voice");
    const std::string voice = "voice[" + std::to_string(v->pid) + "] ";
    const std::string server = "mgmt[" + std::to_string(m->pid) + "] ";
    ASSERT_EQ(v->wait(15000), 0) << slurp(v->err);
    EXPECT_EQ(m->stop(SIGTERM, 5000), 0);
    const std::string vOut = slurp(v->out), mOut = slurp(m->out);
    const struct {
        const std::string &text, who, end;
        size_t count;
    } lines[] = {
        {vOut, voice + "-> " + server, " bytes, answer 0x0 (done)\n", 19},
        {mOut, server + "<- " + voice, " bytes, sample payload\n", 19},
        {mOut, server + "-> " + voice, " bytes, sent\n", 30},
        {vOut, voice + "<- " + server, " bytes, sample payload\n", 30},
    };
    for (const auto &l : lines) {
        EXPECT_EQ(countOf(l.text, l.who), l.count) << l.who;
        EXPECT_EQ(countOf(l.text, l.end), l.count) << l.who << "..." << l.end;
    }
    EXPECT_EQ(countOf(mOut, " needs updates of 14 notifications\n"), 1u);
    EXPECT_EQ(slurp(v->err) + slurp(m->err), "");
}

// Edits of a valid body whose last element is the text "host.example" (12
// characters, 16 bytes with its NUL and padding).
struct Hostile {
    const char *what;
    std::function<void(Bytes &)> edit;
    const char *answer;  // the management daemon's
    const char *log;     // both daemons'
};

const Hostile kHostile[] = {
    {"truncated", [](Bytes &b) { b.resize(24 + 10); }, "4",
     "Type(3) runs past the end of the buffer: 12 bytes needed, 10 left"},
    {"length word 0x7ffffff0", [](Bytes &b) { putBe32(b, 28, 0x7ffffff0); }, "4",
     "Type(3) runs past the end of the buffer: 2147483640 bytes needed"},
    {"length word that wraps", [](Bytes &b) { putBe32(b, 28, 0xfffffff8); }, "4",
     "Type(3) runs past the end of the buffer: 4294967296 bytes needed"},
    {"text without its NUL at the end", [](Bytes &b) { std::memset(&b[b.size() - 16], 'x', 16); },
     "4", "text has no NUL before the end of the buffer"},
    {"another message's magic", [](Bytes &b) { putBe32(b, 8, 0x20132509); }, "2",
     "magic(20132509) refused"},
    {"no magic", [](Bytes &b) { b.erase(b.begin(), b.begin() + 12); }, "2", "Tl(1-4) expectded(0)"},
};

// Each hostile body goes as a command to the management daemon and as a
// notification to the voice daemon (waiting for a server named "late"): the
// command is answered with the decoder's status, the notification dropped,
// each with the library's log line, and each daemon takes the next good one.
// Then both daemons still complete a whole exchange.
TEST_F(Bus, HostileBodiesToBothDaemons)
{
    Proc *m = mgmt("mgmt");
    Proc *v = spawn({VOICE_SIM, "--bus", address, "--once", "--to", "late"}, "voice", "subscribed");
    const registrationStatus rs{7, 0, 0, 0, {}, "host.example"};
    const CorVaneMakeCall call{3, 0, "", "", "host.example"};
    const Bytes cmd = wire("SetRegistrationStatus", &rs), ntfy = wire("OnMakeCall", &call);
    Raw raw(address, "raw");  // a notification from a connection without a user name is refused
    size_t n = 0;
    for (const Hostile &h : kHostile) {
        Bytes badCmd = cmd, badNtfy = ntfy;
        h.edit(badCmd);
        h.edit(badNtfy);
        EXPECT_EQ(raw.send("SetRegistrationStatus", badCmd, "mgmt"), h.answer) << h.what;
        EXPECT_EQ(raw.send("SetRegistrationStatus", cmd, "mgmt"), "0") << "after " << h.what;
        raw.send("OnMakeCall", badNtfy);
        raw.send("OnMakeCall", ntfy);
        ++n;
        EXPECT_TRUE(waitUntil(
            [&] { return countOf(slurp(v->out), " OnMakeCall: notification") == n; }, 3000))
            << "after " << h.what;
        for (const Proc *p : {m, v})
            EXPECT_NE(slurp(p->err).find(h.log), std::string::npos) << h.what << slurp(p->err);
    }
    mgmt("late");
    EXPECT_EQ(v->wait(15000), 0) << slurp(v->err);
    Proc *again = spawn({VOICE_SIM, "--bus", address, "--once"}, "again");
    EXPECT_EQ(again->wait(15000), 0) << slurp(again->err);
}

// This process serves a command without a handler, called from a thread: the
// answer is the library's 20, given through quibCore_sendMsgRes (the daemons'
// handlers give none: 0). A method it does not serve is unknown.
TEST_F(Bus, TheServersAnswer)
{
    ASSERT_EQ(corVane_regUser_msgMngt(self, nullptr, nullptr, CORVANE_SELECT_CMD), 0u);
    ASSERT_EQ(corVane_modSrv_recvMsg_setLineCallState(self, nullptr, nullptr, nullptr), 0u);
    std::string served, unknown;
    std::atomic<bool> done = false;
    std::thread client([&] {
        Raw raw(address);
        served = raw.send("SetLineCallState", wire("SetLineCallState", &kCallState), kSelfOnTheBus);
        unknown = raw.send("SetLineModif", wire("SetLineCallState", &kCallState), kSelfOnTheBus);
        done = true;
    });
    for (int i = 0; i < 50 && !done; ++i)
        ranqDbus_runFor(100);
    client.join();
    EXPECT_EQ(served, "20");
    EXPECT_EQ(unknown, SD_BUS_ERROR_UNKNOWN_METHOD);
}

// A name nobody owns: a call to it is refused at once, and the voice daemon
// waiting for it gives up after 10 s naming all it misses. A server too slow
// for the timeout (quibDbus_setTimeout, else $CORVANE_BUS_TIMEOUT_MS): the
// call gives up in time.
TEST_F(Bus, NoAnswer)
{
    const auto started = Clock::now();
    Proc *v = spawn({VOICE_SIM, "--bus", address, "--once", "--to", "nobody"}, "voice");
    mgmt("mgmt", {"--delay", "2000"});
    auto t = Clock::now();
    EXPECT_EQ(sendCallState(self, "nobody"), QUIB_DBUS_E_NO_SERVER);
    EXPECT_LT(Clock::now() - t, milliseconds(1000));
    setenv("CORVANE_BUS_TIMEOUT_MS", "no number", 1);
    EXPECT_EQ(quibDbus_timeout(), QUIB_DBUS_TIMEOUT_MS);
    setenv("CORVANE_BUS_TIMEOUT_MS", "300", 1);
    EXPECT_EQ(quibDbus_timeout(), 300u);
    unsetenv("CORVANE_BUS_TIMEOUT_MS");
    quibDbus_setTimeout(200);
    t = Clock::now();
    EXPECT_EQ(sendCallState(self, "mgmt"), QUIB_DBUS_E_TIMEOUT);
    EXPECT_EQ(quibDbus_lastStatus(self), QUIB_DBUS_E_TIMEOUT);
    EXPECT_GE(Clock::now() - t, milliseconds(200));
    EXPECT_LT(Clock::now() - t, milliseconds(1200));
    EXPECT_EQ(v->wait(13000), 1);
    EXPECT_GE(Clock::now() - started, milliseconds(10000));
    // The 14 with a need for updates were pushed when the voice daemon
    // appeared, hello or not.
    EXPECT_NE(slurp(v->err).find("no complete exchange after 10 s; missing 19 answers and 16 "
                                 "notifications: SetCapabilities(not sent) "),
              std::string::npos)
        << slurp(v->err);
}

// A server killed during a call, then the bus going away during a call: the
// caller gets a status within a bound, and later calls fail at once (away:
// this process reconnects); a daemon run with --exit-on-bus-loss says the bus
// went away and exits 1, one without it stays up and says it reconnects.
TEST_F(Bus, TheServerOrTheBusGoesAway)
{
    const pid_t bus = procs[0]->pid, killed = mgmt("mgmt", {"--delay", "1000"})->pid;
    Proc *other = mgmt("other", {"--delay", "1000", "--exit-on-bus-loss"});
    Proc *stays = mgmt("stays");
    for (auto [to, victim] : {std::pair{"mgmt", killed}, {"other", bus}}) {
        std::thread killer([victim] {
            std::this_thread::sleep_for(milliseconds(300));
            kill(victim, SIGKILL);
        });
        const auto t = Clock::now();
        EXPECT_EQ(sendCallState(self, to), QUIB_DBUS_E_DISCONNECTED) << to;
        EXPECT_LT(Clock::now() - t, milliseconds(1000)) << to;
        killer.join();
    }
    const auto t = Clock::now();
    EXPECT_EQ(sendCallState(self, "other"), QUIB_DBUS_E_AWAY);
    EXPECT_EQ(quibDbus_busStatus(self), QUIB_DBUS_E_AWAY);
    EXPECT_LT(Clock::now() - t, milliseconds(100));
    EXPECT_EQ(other->wait(5000), 1);
    EXPECT_NE(slurp(other->out).find("the bus went away\n"), std::string::npos);
    EXPECT_TRUE(waitUntil(
        [&] { return slurp(stays->out).find("the bus went away; reconnecting\n") != std::string::npos; },
        3000));
    EXPECT_EQ(stays->wait(500), -1) << "still up";
}

// A name another connection owns (the log line names it, its pid and uid);
// no bus at the address.
TEST_F(Bus, JoiningTheBus)
{
    uint32_t status = 0;
    cvtest::clearLog();
    EXPECT_EQ(quibDbus_newUser(kSelf, address.c_str(), &status), nullptr);
    EXPECT_EQ(status, QUIB_DBUS_E_NAME_TAKEN);
    const Raw probe(address);
    sd_bus_message *reply = nullptr;
    const char *owner = "?";
    sd_bus_call_method(probe.bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                       "org.freedesktop.DBus", "GetNameOwner", nullptr, &reply, "s",
                       (std::string("org.corvane.user.") + kSelfOnTheBus).c_str());
    sd_bus_message_read(reply, "s", &owner);
    EXPECT_EQ(loggedLines(std::string("[QUIB-DBUS] user ") + kSelf + ": org.corvane.user." +
                          kSelfOnTheBus + " is owned by " + owner + credsOfThisProcess() +
                          ", another process: not taken"),
              1u);
    sd_bus_message_unref(reply);
    EXPECT_EQ(quibDbus_newUser("x", ("unix:path=" + dir + "/none").c_str(), &status), nullptr);
    EXPECT_EQ(status, QUIB_DBUS_E_NO_BUS);
}

// What a bus's policy refuses has a status of its own, 0x6a: owning a name
// it keeps from everyone, and a command it does not let through (here on a
// private bus whose policy refuses one name and one command).
TEST_F(Bus, WhatThePolicyRefuses)
{
    const std::string conf = dir + "/policy.conf", policyBus = "unix:path=" + dir + "/policy-bus";
    std::ofstream(conf) << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration "
                           "1.0//EN\" \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                           "<busconfig><type>session</type><listen>" << policyBus << "</listen>\n"
                           "<auth>EXTERNAL</auth><policy context=\"default\">\n"
                           "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>\n"
                           "<allow own=\"*\"/>\n"
                           "<deny own=\"org.corvane.user.denied\"/>\n"
                           "<deny send_destination=\"org.corvane.user.mgmt\" "
                           "send_interface=\"org.corvane.CorVaneCmd\" send_member=\"DeleteRepeater\"/>\n"
                           "</policy></busconfig>\n";
    spawn({"dbus-daemon", "--config-file=" + conf, "--nofork", "--print-address"}, "policy-bus",
          "unix:");
    uint32_t status = 0;
    EXPECT_EQ(quibDbus_newUser("denied", policyBus.c_str(), &status), nullptr);
    EXPECT_EQ(status, QUIB_DBUS_E_DENIED);
    EXPECT_STREQ(quibDbus_strerror(status), "denied by the bus's policy");
    spawn({MGMT_SIM, "--bus", policyBus}, "mgmt", "serving 19 commands");
    void *caller = quibDbus_newUser("voice", policyBus.c_str(), &status);
    ASSERT_NE(caller, nullptr) << status;
    EXPECT_EQ(corVane_sendReq_deleteRepeater(caller, nullptr, "mgmt", 7), QUIB_DBUS_E_DENIED);
    EXPECT_EQ(sendCallState(caller, "mgmt"), 0u);
    quibDbus_freeUser(caller);
}

// A notification from a connection that owns no corvane user name,
// broadcast or sent to the subscriber alone, is dropped, and logged once per
// sender connection with its unique name, pid and uid; one sent from the
// management side's name is taken, and the subscriber names its sender.
TEST_F(Bus, NotificationsOnlyFromUsers)
{
    Proc *v = spawn({VOICE_SIM, "--bus", address, "--to", "late"}, "voice", "subscribed");
    const CorVaneMakeCall call{3, 0, "", "", "host.example"};
    const Bytes ntfy = wire("OnMakeCall", &call);
    Raw broadcast(address), directed(address), mgmtSide(address, "mgmt");
    for (int i = 0; i < 2; ++i) {
        broadcast.send("OnMakeCall", ntfy);
        directed.send("OnMakeCall", ntfy, nullptr, "voice");
    }
    // Routed after the forged ones, so taken after them.
    mgmtSide.send("OnMakeCall", ntfy);
    const std::string taken = " <- mgmt[" + std::to_string(getpid()) +
                              "] OnMakeCall: notification, " + std::to_string(ntfy.size()) +
                              " bytes, ";
    EXPECT_TRUE(waitUntil([&] { return countOf(slurp(v->out), taken) == 1; }, 3000))
        << slurp(v->out);
    for (const auto &[kind, raw] : {std::pair{"broadcast", &broadcast}, {"directed", &directed}}) {
        const std::string line = std::string("user voice: ") + kind +
                                 " notification OnMakeCall from " + raw->unique() +
                                 credsOfThisProcess() +
                                 " refused: the sender owns no org.corvane.user.* name";
        EXPECT_TRUE(waitUntil([&] { return countOf(slurp(v->err), line) == 1; }, 3000))
            << line << "\n" << slurp(v->err);
    }
    EXPECT_EQ(countOf(slurp(v->out), " OnMakeCall: notification"), 1u) << slurp(v->out);
    EXPECT_EQ(countOf(slurp(v->err), " refused: "), 2u) << slurp(v->err);
}

struct Seen {
    int calls = 0;
    int peerRc = -1, senderRc = -1;
    QuibDbusPeer peer{};
    char sender[300] = "";
    int32_t pid = 0;
    void *ctx = nullptr;
};

uint32_t remember(void *ctx, void *arg, void *)
{
    auto *s = static_cast<Seen *>(arg);
    ++s->calls;
    s->peerRc = quibDbus_ctxPeer(ctx, &s->peer);
    s->senderRc = quibDbus_ctxSender(ctx, s->sender, sizeof s->sender, &s->pid);
    s->ctx = ctx;
    return 0;
}

// A handler learns its sender from the bus: the user name its connection
// owns, its unique name, pid and uid. This process subscribes to OnMakeCall
// and serves SetLineCallState: the notification of a connection without a
// user name never reaches the handler (logged once), that of "mgmt" does; a
// command is handed on whoever calls, and the handler sees the caller owns
// no user name.
TEST_F(Bus, WhoSentIt)
{
    ASSERT_EQ(corVane_regUser_msgMngt(self, nullptr, nullptr, CORVANE_SELECT_BOTH), 0u);
    Seen ntfy, cmd;
    void *const handler = reinterpret_cast<void *>(reinterpret_cast<uintptr_t>(remember));
    ASSERT_EQ(corVane_modCliNtfyUser_recvMsg_onMakeCall(self, handler, &ntfy, nullptr, nullptr,
                                                        kSelf),
              0u);
    ASSERT_EQ(corVane_modSrv_recvMsg_setLineCallState(self, handler, &cmd, nullptr), 0u);
    const CorVaneMakeCall call{3, 0, "", "", "host.example"};
    Raw anonymous(address), named(address, "mgmt");
    cvtest::clearLog();
    anonymous.send("OnMakeCall", wire("OnMakeCall", &call));
    anonymous.send("OnMakeCall", wire("OnMakeCall", &call));
    named.send("OnMakeCall", wire("OnMakeCall", &call));
    for (int i = 0; i < 30 && (ntfy.calls == 0 || loggedLines(" refused: ") == 0); ++i)
        ranqDbus_runFor(100);
    EXPECT_EQ(ntfy.calls, 1);
    EXPECT_EQ(ntfy.peerRc, 0);
    EXPECT_STREQ(ntfy.peer.userName, "mgmt");
    EXPECT_EQ(ntfy.peer.uniqueName, named.unique());
    EXPECT_EQ(ntfy.peer.pid, getpid());
    EXPECT_EQ(ntfy.peer.uid, getuid());
    EXPECT_EQ(ntfy.senderRc, 0);
    EXPECT_STREQ(ntfy.sender, "mgmt");
    EXPECT_EQ(ntfy.pid, getpid());
    EXPECT_EQ(loggedLines(std::string("[QUIB-DBUS] user ") + kSelf +
                          ": broadcast notification OnMakeCall from " + anonymous.unique() +
                          credsOfThisProcess() + " refused"),
              1u);

    std::string answer;
    std::atomic<bool> done = false;
    std::thread client([&] {
        answer = anonymous.send("SetLineCallState", wire("SetLineCallState", &kCallState),
                                kSelfOnTheBus);
        done = true;
    });
    for (int i = 0; i < 50 && !done; ++i)
        ranqDbus_runFor(100);
    client.join();
    EXPECT_EQ(answer, "0");
    EXPECT_EQ(cmd.calls, 1);
    EXPECT_STREQ(cmd.peer.userName, "");
    EXPECT_EQ(cmd.peer.uniqueName, anonymous.unique());
    EXPECT_EQ(cmd.peer.pid, getpid());
    EXPECT_EQ(cmd.peer.uid, getuid());
    EXPECT_EQ(cmd.sender, anonymous.unique());
    // A context is valid during its delivery only.
    QuibDbusPeer after;
    EXPECT_EQ(quibDbus_ctxPeer(cmd.ctx, &after), -1);
    EXPECT_EQ(quibDbus_ctxSender(cmd.ctx, nullptr, 0, nullptr), -1);
}

// A connection that queues for the management side's name is reported by
// the daemon that owns it, once; when that daemon dies, the stranger gets the
// name: the voice daemon, which talks to it, logs the takeover with the
// stranger's pid and uid, and a management daemon started again is refused,
// naming the stranger.
TEST_F(Bus, AStrangerQueuesForTheName)
{
    Proc *m = mgmt("mgmt");
    Proc *v = spawn({VOICE_SIM, "--bus", address}, "voice", "subscribed");
    ASSERT_TRUE(waitUntil([&] { return countOf(slurp(v->out), " StopAutoCall: notification") == 1; },
                          5000))
        << slurp(v->err);
    Raw stranger(address);
    ASSERT_GE(sd_bus_request_name(stranger.bus, "org.corvane.user.mgmt", SD_BUS_NAME_QUEUE), 0);
    const std::string who = stranger.unique() + credsOfThisProcess();
    const std::string queued = "user mgmt: " + who + " queues for org.corvane.user.mgmt";
    EXPECT_TRUE(waitUntil([&] { return countOf(slurp(m->err), queued) == 1; }, 5000))
        << slurp(m->err);
    // The next look at the queue (every 2 s) does not log it again.
    std::this_thread::sleep_for(milliseconds(2500));
    EXPECT_EQ(countOf(slurp(m->err), queued), 1u) << slurp(m->err);
    EXPECT_EQ(countOf(slurp(v->err), "org.corvane.user.mgmt"), 0u) << slurp(v->err);

    m->stop(SIGKILL, 2000);
    const std::string takeover = "user voice: org.corvane.user.mgmt was taken over by " + who;
    EXPECT_TRUE(waitUntil([&] { return countOf(slurp(v->err), takeover) == 1; }, 3000))
        << slurp(v->err);
    Proc *again = spawn({MGMT_SIM, "--bus", address}, "again");
    EXPECT_EQ(again->wait(5000), 1);
    EXPECT_EQ(countOf(slurp(again->err), "user mgmt: org.corvane.user.mgmt is owned by " + who +
                                             ", another process: not taken"),
              1u)
        << slurp(again->err);
    EXPECT_EQ(countOf(slurp(again->err), "the user name is taken by another connection (0x67)"), 1u);
}

// One method or signal of an introspection document.
struct Member {
    std::string kind, name;                 // "method" or "signal"
    std::vector<std::string> args;          // "in ay", "out u"; a signal's: "ay"
    std::vector<std::string> annotations;   // names whose value is "true"
};

// The members of interface `intf` in an introspection document: a reader of
// just what that XML holds (elements, double-quoted attributes, the DOCTYPE).
std::vector<Member> membersOf(const std::string &xml, const std::string &intf)
{
    std::vector<Member> out;
    bool inside = false;
    for (size_t at = xml.find('<'); at != std::string::npos; at = xml.find('<', at + 1)) {
        const size_t end = xml.find('>', at);
        if (end == std::string::npos)
            break;
        std::string tag = xml.substr(at + 1, end - at - 1);
        if (tag.empty() || tag[0] == '!' || tag[0] == '?')
            continue;
        if (tag[0] == '/') {
            inside = inside && tag != "/interface";
            continue;
        }
        std::istringstream words(tag);
        std::string element;
        words >> element;
        std::map<std::string, std::string> attrs;
        for (size_t eq = tag.find('='); eq != std::string::npos; eq = tag.find('=', eq + 1)) {
            const size_t nameStart = tag.rfind(' ', eq) + 1, open = eq + 1;
            const size_t close = tag.find('"', open + 1);
            if (tag[open] != '"' || close == std::string::npos)
                break;
            attrs[tag.substr(nameStart, eq - nameStart)] = tag.substr(open + 1, close - open - 1);
        }
        if (element == "interface")
            inside = attrs["name"] == intf;
        else if (inside && (element == "method" || element == "signal"))
            out.push_back({element, attrs["name"], {}, {}});
        else if (inside && element == "arg" && !out.empty())
            out.back().args.push_back(
                (attrs.count("direction") ? attrs["direction"] + " " : "") + attrs["type"]);
        else if (inside && element == "annotation" && !out.empty() && attrs["value"] == "true")
            out.back().annotations.push_back(attrs["name"]);
    }
    return out;
}

std::string findProgram(const std::string &name)
{
    const char *path = std::getenv("PATH");
    std::istringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
    for (std::string dir; std::getline(dirs, dir, ':');)
        if (access((dir + "/" + name).c_str(), X_OK) == 0)
            return dir + "/" + name;
    return "";
}

// Introspection, generated from the tables and the registrations: the
// management daemon's CorVaneCmd object lists its 19 commands (ay in, u out)
// and its CorVaneNtfy object the 30 notifications it sends, the 14 it needs
// updates of annotated; the voice daemon's CorVaneNtfy object lists the 30 it
// subscribes to, and it has no CorVaneCmd object. "/" and the path between
// answer with their child nodes. busctl, when installed (Debian: systemd),
// shows each command with "ay" in and "u" out, and the tree.
TEST_F(Bus, Introspection)
{
    mgmt("mgmt");
    spawn({VOICE_SIM, "--bus", address, "--to", "late"}, "voice", "subscribed");
    const Raw raw(address);
    auto introspect = [&](const char *user, const char *path) {
        sd_bus_message *reply = nullptr;
        sd_bus_error e = SD_BUS_ERROR_NULL;
        const char *xml = nullptr;
        std::string out;
        if (sd_bus_call_method(raw.bus, (std::string("org.corvane.user.") + user).c_str(), path,
                               "org.freedesktop.DBus.Introspectable", "Introspect", &e, &reply,
                               "") < 0)
            out = std::string("error ") + (e.name != nullptr ? e.name : "?");
        else if (sd_bus_message_read(reply, "s", &xml) >= 0)
            out = xml;
        sd_bus_error_free(&e);
        sd_bus_message_unref(reply);
        return out;
    };
    const struct {
        const char *user, *path;
        uint32_t intf;
        const char *kind;
        std::vector<std::string> args;
        bool subscribed, needsUpdate;
    } objects[] = {
        {"mgmt", "/org/corvane/CorVaneCmd", CORVANE_INTF_CMD, "method", {"in ay", "out u"}, false, false},
        {"mgmt", "/org/corvane/CorVaneNtfy", CORVANE_INTF_NTFY, "signal", {"ay"}, false, true},
        {"voice", "/org/corvane/CorVaneNtfy", CORVANE_INTF_NTFY, "signal", {"ay"}, true, false},
    };
    size_t listed = 0;
    for (const auto &o : objects) {
        const std::string intf =
            o.intf == CORVANE_INTF_CMD ? "org.corvane.CorVaneCmd" : "org.corvane.CorVaneNtfy";
        const std::vector<Member> members = membersOf(introspect(o.user, o.path), intf);
        const size_t count = o.intf == CORVANE_INTF_CMD ? CORVANE_CMD_COUNT : CORVANE_NTFY_COUNT;
        ASSERT_EQ(members.size(), count) << o.user << " " << o.path;
        for (uint16_t i = 0; i < count; ++i) {
            const CorVaneMessageInfo *info = corVane_messageInfo(o.intf, i);
            const Member &m = members[i];
            EXPECT_EQ(m.kind, o.kind) << info->name;
            EXPECT_EQ(m.name, info->name);
            EXPECT_EQ(m.args, o.args) << info->name;
            std::vector<std::string> annotations;
            if (o.subscribed)
                annotations.push_back("org.corvane.Subscribed");
            if (o.needsUpdate && (info->flags & CORVANE_MSG_NEED_UPDATE) != 0)
                annotations.push_back("org.corvane.NeedsUpdate");
            EXPECT_EQ(m.annotations, annotations) << o.user << " " << info->name;
        }
        listed += o.user == std::string("mgmt") ? members.size() : 0;
    }
    EXPECT_EQ(listed, 49u);
    EXPECT_EQ(introspect("voice", "/org/corvane/CorVaneCmd"),
              "error org.freedesktop.DBus.Error.UnknownObject");
    EXPECT_NE(introspect("voice", "/").find("<node name=\"org\""), std::string::npos);
    const std::string between = introspect("mgmt", "/org/corvane");
    EXPECT_NE(between.find("<node name=\"CorVaneCmd\""), std::string::npos) << between;
    EXPECT_NE(between.find("<node name=\"CorVaneNtfy\""), std::string::npos) << between;

    const std::string busctl = findProgram("busctl");
    if (busctl.empty()) {
        std::cout << "busctl is not installed (Debian: systemd): its view not checked\n";
        return;
    }
    Proc *shown = spawn({busctl, "--address=" + address, "introspect", "org.corvane.user.mgmt",
                         "/org/corvane/CorVaneCmd"},
                        "busctl-introspect");
    ASSERT_EQ(shown->wait(5000), 0) << slurp(shown->err);
    std::istringstream lines(slurp(shown->out));
    size_t commands = 0;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream cols(line);
        std::string name, type, in, out;
        cols >> name >> type >> in >> out;
        const CorVaneMessageInfo *info = corVane_messageByName(name.c_str() + (name[0] == '.'));
        if (type == "method" && info != nullptr && info->intf == CORVANE_INTF_CMD) {
            EXPECT_EQ(in + " " + out, "ay u") << line;
            ++commands;
        }
    }
    EXPECT_EQ(commands, 19u) << slurp(shown->out);
    Proc *tree = spawn({busctl, "--address=" + address, "tree", "org.corvane.user.voice"}, "busctl-tree");
    ASSERT_EQ(tree->wait(5000), 0) << slurp(tree->err);
    EXPECT_NE(slurp(tree->out).find("/org/corvane/CorVaneNtfy"), std::string::npos) << slurp(tree->out);
}

}  // namespace
