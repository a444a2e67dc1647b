// The D-Bus middleware between processes: each test starts a private
// dbus-daemon and the daemons of examples/ it needs, and sends through the
// library or as raw D-Bus messages (bytes no library would write). Every
// wait is bounded; every process is stopped by its pid.
#include <atomic>
#include <functional>
#include <map>
#include <regex>
#include <thread>

#include "bus_support.h"

namespace {

using namespace bustest;

// Every command is answered 0 and every notification arrives, once, with the
// payload that was sent; each side's line names both processes.
TEST_F(Bus, AllMessagesBetweenTheDaemons)
{
    Proc *m = mgmt("mgmt");
    Proc *v = voice({"--once"});
    const std::string client = "voice[" + std::to_string(v->pid) + "] ";
    const std::string server = "mgmt[" + std::to_string(m->pid) + "] ";
    ASSERT_EQ(v->wait(15000), 0) << v->stderr_();
    EXPECT_EQ(m->stop(SIGTERM, 5000), 0);
    const std::string vOut = v->stdout_(), mOut = m->stdout_();
    const struct {
        const std::string &text, who, end;
        size_t count;
    } lines[] = {
        {vOut, client + "-> " + server, " bytes, answer 0x0 (done)\n", 19},
        {mOut, server + "<- " + client, " bytes, sample payload\n", 19},
        {mOut, server + "-> " + client, " bytes, sent\n", 30},
        {vOut, client + "<- " + server, " bytes, sample payload\n", 30},
    };
    for (const auto &l : lines) {
        EXPECT_EQ(countOf(l.text, l.who), l.count) << l.who;
        EXPECT_EQ(countOf(l.text, l.end), l.count) << l.who << "..." << l.end;
    }
    EXPECT_EQ(countOf(mOut, " needs updates of 14 notifications\n"), 1u);
    EXPECT_EQ(v->stderr_() + m->stderr_(), "");
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
    {"text without its NUL at the end", [](Bytes &b) { memset(&b[b.size() - 16], 'x', 16); },
     "4", "text has no NUL before the end of the buffer"},
    {"another message's magic", [](Bytes &b) { putBe32(b, 8, 0x20132509); }, "2",
     "magic(20132509) refused"},
    {"no magic", [](Bytes &b) { b.erase(b.begin(), b.begin() + 12); }, "2", "Tl(1-4) expectded(0)"},
};

// Each hostile body goes as a command to the management daemon and as a
// notification to the voice daemon (waiting for a server named "late"): the
// command is answered with the decoder's status, the notification dropped,
// each with the library's log line, and each daemon takes the next good one.
// Then the voice daemon still completes a whole exchange.
TEST_F(Bus, HostileBodiesToBothDaemons)
{
    Proc *m = mgmt("mgmt");
    Proc *v = voice({"--once", "--to", "late"});
    const registrationStatus rs{7, 0, 0, 0, {}, "host.example"};
    const CorVaneMakeCall call{3, 0, "", "", "host.example"};
    const Bytes cmd = wire("SetRegistrationStatus", &rs), ntfy = wire("OnMakeCall", &call);
    RawBus raw(address, "raw");  // a notification from a connection without a user name is refused
    size_t n = 0;
    for (const Hostile &h : kHostile) {
        Bytes badCmd = cmd, badNtfy = ntfy;
        h.edit(badCmd);
        h.edit(badNtfy);
        EXPECT_EQ(raw.command(kMgmt, "SetRegistrationStatus", badCmd), h.answer) << h.what;
        EXPECT_EQ(raw.command(kMgmt, "SetRegistrationStatus", cmd), "0") << "after " << h.what;
        raw.notify("OnMakeCall", badNtfy);
        raw.notify("OnMakeCall", ntfy);
        ++n;
        EXPECT_TRUE(waitUntil([&] { return countOf(v->stdout_(), " OnMakeCall: notification") == n; }, 3000))
            << "after " << h.what;
        for (const Proc *p : {m, v})
            EXPECT_NE(p->stderr_().find(h.log), std::string::npos) << h.what << p->stderr_();
    }
    mgmt("late");
    EXPECT_EQ(v->wait(15000), 0) << v->stderr_();
}

// A name nobody owns: a call to it is refused at once, and the voice daemon
// waiting for it gives up after 10 s naming all it misses. A server too slow
// for the timeout (quibDbus_setTimeout, else $CORVANE_BUS_TIMEOUT_MS): the
// call gives up in time.
TEST_F(Bus, NoAnswer)
{
    const auto started = Clock::now();
    Proc *v = voice({"--once", "--to", "nobody"});
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
    EXPECT_NE(v->stderr_().find("no complete exchange after 10 s; missing 19 answers and 16 "
                                "notifications: SetCapabilities(not sent) "),
              std::string::npos)
        << v->stderr_();
}

// A server killed during a call, then the bus going away during a call: the
// caller gets a status within a bound (what comes after, the broker
// restarted: survive_test.cpp); a daemon run with --exit-on-bus-loss says
// the bus went away and exits 1.
TEST_F(Bus, TheServerOrTheBusGoesAway)
{
    const pid_t bus = procs[0]->pid, killed = mgmt("mgmt", {"--delay", "1000"})->pid;
    Proc *other = mgmt("other", {"--delay", "1000", "--exit-on-bus-loss"});
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
    EXPECT_EQ(other->wait(5000), 1);
    EXPECT_NE(other->stdout_().find("the bus went away\n"), std::string::npos);
}

// What a bus refuses has a status of its own: no bus at the address (0x61);
// owning a name its policy keeps from everyone, and a command it does not
// let through (0x6a; here on a private bus whose policy refuses one name and
// one command). A name another connection owns: AStrangerQueuesForTheName.
TEST_F(Bus, WhatTheBusRefuses)
{
    uint32_t status = 0;
    EXPECT_EQ(quibDbus_newUser("x", ("unix:path=" + dir + "/none").c_str(), &status), nullptr);
    EXPECT_EQ(status, QUIB_DBUS_E_NO_BUS);
    const std::string policyBus = startBus(
        "policy-bus", "session",
        std::string(kOpenPolicy) +
            "<policy context=\"default\"><deny own=\"org.corvane.user.denied\"/>\n"
            "<deny send_destination=\"org.corvane.user.mgmt\" send_interface=\"org.corvane.CorVaneCmd\" "
            "send_member=\"DeleteRepeater\"/></policy>\n");
    EXPECT_EQ(quibDbus_newUser("denied", policyBus.c_str(), &status), nullptr);
    EXPECT_EQ(status, QUIB_DBUS_E_DENIED);
    EXPECT_STREQ(quibDbus_strerror(status), "denied by the bus's policy");
    spawn({MGMT_SIM, "--bus", policyBus}, "serving 19 commands");
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
    Proc *v = voice({"--to", "late"});
    const Bytes ntfy = wire("OnMakeCall");
    RawBus broadcast(address), directed(address), mgmtSide(address, "mgmt");
    for (int i = 0; i < 2; ++i) {
        broadcast.notify("OnMakeCall", ntfy);
        directed.notify("OnMakeCall", ntfy, "org.corvane.user.voice");
    }
    // Routed after the forged ones, so taken after them.
    mgmtSide.notify("OnMakeCall", ntfy);
    const std::string taken = " <- mgmt[" + std::to_string(getpid()) + "] OnMakeCall: notification, " +
                              std::to_string(ntfy.size()) + " bytes, ";
    EXPECT_TRUE(waitUntil([&] { return countOf(v->stdout_(), taken) == 1; }, 3000)) << v->stdout_();
    for (const auto &[kind, raw] : {std::pair{"broadcast", &broadcast}, {"directed", &directed}}) {
        const std::string line = std::string("user voice: ") + kind + " notification OnMakeCall from " +
                                 raw->unique() + credsOfThisProcess() +
                                 " refused: the sender owns no org.corvane.user.* name";
        EXPECT_TRUE(waitUntil([&] { return countOf(v->stderr_(), line) == 1; }, 3000))
            << line << "\n" << v->stderr_();
    }
    EXPECT_EQ(countOf(v->stdout_(), " OnMakeCall: notification"), 1u) << v->stdout_();
    EXPECT_EQ(countOf(v->stderr_(), " refused: "), 2u) << v->stderr_();
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
// and serves SetLineCallState with a handler, SetLineStats without one: the
// notification from "mgmt" reaches the handler; a command is handed on
// whoever calls (here a connection that owns no user name), answered with
// what the handler gave (none: 0), and without a handler with the library's
// 20 (through quibCore_sendMsgRes); a method it does not serve is unknown.
TEST_F(Bus, WhoSentItAndTheAnswers)
{
    ASSERT_EQ(corVane_regUser_msgMngt(self, nullptr, nullptr, CORVANE_SELECT_BOTH), 0u);
    Seen ntfy, cmd;
    void *const handler = reinterpret_cast<void *>(reinterpret_cast<uintptr_t>(remember));
    ASSERT_EQ(corVane_modCliNtfyUser_recvMsg_onMakeCall(self, handler, &ntfy, nullptr, nullptr, kSelf), 0u);
    ASSERT_EQ(corVane_modSrv_recvMsg_setLineCallState(self, handler, &cmd, nullptr), 0u);
    ASSERT_EQ(corVane_modSrv_recvMsg_setLineStats(self, nullptr, nullptr, nullptr), 0u);
    RawBus anonymous(address), named(address, "mgmt");
    named.notify("OnMakeCall", wire("OnMakeCall"));
    std::vector<std::string> answers;
    std::atomic<bool> done = false;
    std::thread client([&] {
        for (const char *m : {"SetLineCallState", "SetLineStats", "SetLineModif"})
            answers.push_back(anonymous.command(kSelfOnTheBus, m, wire(m)));
        done = true;
    });
    for (int i = 0; i < 50 && (!done || ntfy.calls == 0); ++i)
        ranqDbus_runFor(100);
    client.join();
    EXPECT_EQ(answers, (std::vector<std::string>{"0", "20", SD_BUS_ERROR_UNKNOWN_METHOD}));
    for (const auto &[s, user, unique] : {std::tuple{&ntfy, "mgmt", named.unique()},
                                          std::tuple{&cmd, "", anonymous.unique()}}) {
        EXPECT_EQ(s->calls, 1) << unique;
        EXPECT_EQ(s->peerRc, 0);
        EXPECT_STREQ(s->peer.userName, user);
        EXPECT_EQ(s->peer.uniqueName, unique);
        EXPECT_EQ(s->peer.pid, getpid());
        EXPECT_EQ(s->peer.uid, getuid());
        EXPECT_EQ(s->senderRc, 0);
        EXPECT_EQ(s->sender, *user != '\0' ? user : unique);
        EXPECT_EQ(s->pid, getpid());
    }
    // A context is valid during its delivery only.
    QuibDbusPeer after;
    EXPECT_EQ(quibDbus_ctxPeer(cmd.ctx, &after), -1);
    EXPECT_EQ(quibDbus_ctxSender(cmd.ctx, nullptr, 0, nullptr), -1);
}

// A connection that queues for the management side's name is reported by
// the daemon that owns it, once; when that daemon dies, the stranger gets the
// name: the voice daemon, which talks to it, logs the takeover with the
// stranger's pid and uid, and a management daemon started again is refused
// (0x67), naming the stranger.
TEST_F(Bus, AStrangerQueuesForTheName)
{
    Proc *m = mgmt("mgmt");
    Proc *v = voice();
    ASSERT_TRUE(waitUntil([&] { return countOf(v->stdout_(), " StopAutoCall: notification") == 1; }, 5000))
        << v->stderr_();
    RawBus stranger(address);
    ASSERT_EQ(stranger.requestName(kMgmt, 0), "queued");
    const std::string who = stranger.unique() + credsOfThisProcess();
    const std::string queued = "user mgmt: " + who + " queues for org.corvane.user.mgmt";
    EXPECT_TRUE(waitUntil([&] { return countOf(m->stderr_(), queued) == 1; }, 5000)) << m->stderr_();
    // The next look at the queue (every 2 s) does not log it again.
    std::this_thread::sleep_for(milliseconds(2500));
    EXPECT_EQ(countOf(m->stderr_(), queued), 1u) << m->stderr_();
    EXPECT_EQ(countOf(v->stderr_(), "org.corvane.user.mgmt"), 0u) << v->stderr_();

    m->stop(SIGKILL, 2000);
    const std::string takeover = "user voice: org.corvane.user.mgmt was taken over by " + who;
    EXPECT_TRUE(waitUntil([&] { return countOf(v->stderr_(), takeover) == 1; }, 3000)) << v->stderr_();
    Proc *again = spawn({MGMT_SIM, "--bus", address});
    EXPECT_EQ(again->wait(5000), 1);
    EXPECT_EQ(countOf(again->stderr_(), "user mgmt: org.corvane.user.mgmt is owned by " + who +
                                            ", another process: not taken"),
              1u)
        << again->stderr_();
    EXPECT_EQ(countOf(again->stderr_(), "the user name is taken by another connection (0x67)"), 1u);
}

// The members of interface `intf` in an introspection document, one line
// each: "method SetLineCallState in:ay out:u", "signal OnMakeCall ay
// org.corvane.Subscribed" (the annotations whose value is "true").
std::vector<std::string> membersOf(const std::string &xml, const std::string &intf)
{
    static const std::regex element(R"re(<(/?)(\w+)((?:\s+\w+="[^"]*")*)\s*/?>)re"),
        attr(R"re((\w+)="([^"]*)")re");
    std::vector<std::string> out;
    bool inside = false;
    for (std::sregex_iterator e(xml.begin(), xml.end(), element), end; e != end; ++e) {
        const std::string name = (*e)[2], attrs = (*e)[3];
        const bool closing = (*e)[1].length() != 0;
        std::map<std::string, std::string> a;
        for (std::sregex_iterator m(attrs.begin(), attrs.end(), attr); m != end; ++m)
            a[(*m)[1]] = (*m)[2];
        if (name == "interface")
            inside = !closing && a["name"] == intf;
        else if (inside && !closing && (name == "method" || name == "signal"))
            out.push_back(name + " " + a["name"]);
        else if (inside && name == "arg" && !out.empty())
            out.back() += std::string(" ") + (a.count("direction") ? a["direction"] + ":" : "") + a["type"];
        else if (inside && name == "annotation" && !out.empty() && a["value"] == "true")
            out.back() += " " + a["name"];
    }
    return out;
}

// Introspection, generated from the tables and the registrations: the
// management daemon's CorVaneCmd object lists its 19 commands (ay in, u out)
// and its CorVaneNtfy object the 30 notifications it sends, the 14 it needs
// updates of annotated; the voice daemon's CorVaneNtfy object lists the 30 it
// subscribes to, and it has no CorVaneCmd object. "/" and the path between
// answer with their child nodes. busctl shows each command with "ay" in and
// "u" out, and the tree.
TEST_F(Bus, Introspection)
{
    mgmt("mgmt");
    voice({"--to", "late"});
    RawBus raw(address);
    auto introspect = [&](const char *user, const char *path) {
        return raw.call(std::string("org.corvane.user.") + user, path, "org.freedesktop.DBus.Introspectable",
                        "Introspect", {}, [](sd_bus_message *reply) {
                            const char *xml = "";
                            sd_bus_message_read(reply, "s", &xml);
                            return std::string(xml);
                        });
    };
    const struct {
        const char *user, *path;
        uint32_t intf;
        const char *kind, *args, *annotation;  // annotation: of all, or of those that need updates
    } objects[] = {
        {"mgmt", "/org/corvane/CorVaneCmd", CORVANE_INTF_CMD, "method ", " in:ay out:u", ""},
        {"mgmt", "/org/corvane/CorVaneNtfy", CORVANE_INTF_NTFY, "signal ", " ay", " org.corvane.NeedsUpdate"},
        {"voice", "/org/corvane/CorVaneNtfy", CORVANE_INTF_NTFY, "signal ", " ay", " org.corvane.Subscribed"},
    };
    for (const auto &o : objects) {
        SCOPED_TRACE(std::string(o.user) + " " + o.path);
        const std::vector<std::string> members = membersOf(
            introspect(o.user, o.path), o.intf == CORVANE_INTF_CMD ? "org.corvane.CorVaneCmd" : "org.corvane.CorVaneNtfy");
        ASSERT_EQ(members.size(), o.intf == CORVANE_INTF_CMD ? CORVANE_CMD_COUNT : CORVANE_NTFY_COUNT);
        for (uint16_t i = 0; i < members.size(); ++i) {
            const CorVaneMessageInfo *info = corVane_messageInfo(o.intf, i);
            const bool annotated = std::string(o.user) == "voice" || (info->flags & CORVANE_MSG_NEED_UPDATE) != 0;
            EXPECT_EQ(members[i], o.kind + std::string(info->name) + o.args + (annotated ? o.annotation : ""));
        }
    }
    EXPECT_EQ(introspect("voice", "/org/corvane/CorVaneCmd"), SD_BUS_ERROR_UNKNOWN_OBJECT);
    EXPECT_NE(introspect("voice", "/").find("<node name=\"org\""), std::string::npos);
    const std::string between = introspect("mgmt", "/org/corvane");
    EXPECT_NE(between.find("<node name=\"CorVaneCmd\""), std::string::npos) << between;
    EXPECT_NE(between.find("<node name=\"CorVaneNtfy\""), std::string::npos) << between;

    // busctl's lines: ".SetLineCallState   method   ay   u   -".
    const Outcome shown = run({"busctl", "--address=" + address, "introspect", kMgmt, "/org/corvane/CorVaneCmd"});
    ASSERT_EQ(shown.status, 0) << shown.err << " (busctl: Debian's systemd)";
    const std::regex command(R"((^|\n)\.\w+ +method +ay +u +-)");
    EXPECT_EQ(std::distance(std::sregex_iterator(shown.out.begin(), shown.out.end(), command), {}), 19) << shown.out;
    const Outcome tree = run({"busctl", "--address=" + address, "tree", "org.corvane.user.voice"});
    EXPECT_NE(tree.out.find("/org/corvane/CorVaneNtfy"), std::string::npos) << tree.out << tree.err;
}

}  // namespace
