// The D-Bus middleware between processes: each test starts a private
// dbus-daemon, the two daemons as the test needs them, and sends through the
// library (a user of this process) or as raw D-Bus messages (bytes no
// library would write). Every wait is bounded.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <systemd/sd-bus.h>

#include "corvane/corvane.h"
#include "quib_dbus.h"

extern char **environ;

namespace {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

std::string slurp(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

size_t countOf(const std::string &text, const std::string &what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

bool waitUntil(const std::function<bool()> &done, int ms)
{
    const auto end = Clock::now() + std::chrono::milliseconds(ms);
    while (!done()) {
        if (Clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

long msSince(Clock::time_point t)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count();
}

// A child process with its stdout and stderr in files.
struct Proc {
    pid_t pid = -1;
    std::string out, err;
    int status = -1;

    Proc(const std::vector<std::string> &args, const std::string &dir, const std::string &tag)
        : out(dir + "/" + tag + ".out"), err(dir + "/" + tag + ".err")
    {
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_addopen(&fa, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addopen(&fa, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        std::vector<char *> argv;
        for (const auto &a : args)
            argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        if (posix_spawnp(&pid, argv[0], &fa, nullptr, argv.data(), environ) != 0)
            pid = -1;
        posix_spawn_file_actions_destroy(&fa);
    }
    ~Proc() { stop(SIGKILL, 2000); }
    // The exit status (128 + signal when killed), or -1 if still running after ms.
    int wait(int ms)
    {
        if (pid > 0 && waitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, ms))
            pid = -1;
        if (pid > 0)
            return -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    int stop(int sig, int ms)
    {
        if (pid > 0)
            kill(pid, sig);
        return wait(ms);
    }
    std::string stdout_() const { return slurp(out); }
    std::string stderr_() const { return slurp(err); }
};

// A message body serialised by the library, for a payload of the method's type.
Bytes wire(const char *method, const void *payload)
{
    const CorVaneMessageInfo *m = corVane_messageByName(method);
    const CorVaneIntfDesc *desc = m->intf == CORVANE_INTF_CMD
                                      ? reinterpret_cast<const CorVaneIntfDesc *>(&corVane_base.cmd)
                                      : reinterpret_cast<const CorVaneIntfDesc *>(&corVane_base.ntfy);
    const CorVaneMethod &entry = corVane_intfMethods(desc)[m->index];
    void *body = std::calloc(1, m->bodySize);
    std::memcpy(body, &m->magic, sizeof m->magic);
    corVane_record_copy(m->payload, corVane_bodyPayload(body), payload);
    uint8_t *buf = nullptr;
    uint32_t len = 0;
    EXPECT_EQ(entry.serializeBody(CORVANE_BODY_REQUEST, body, &buf, &len), 0u);
    entry.freeBody(CORVANE_BODY_REQUEST, body);
    Bytes bytes(buf, buf + len);
    std::free(buf);
    return bytes;
}

void putBe32(Bytes &b, size_t at, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        b[at + i] = static_cast<uint8_t>(v >> (24 - 8 * i));
}

// Raw D-Bus on a connection of its own: whatever bytes, whatever signature.
struct Raw {
    sd_bus *bus = nullptr;
    explicit Raw(const std::string &address)
    {
        sd_bus_new(&bus);
        sd_bus_set_address(bus, address.c_str());
        sd_bus_set_bus_client(bus, 1);
        EXPECT_GE(sd_bus_start(bus), 0);
    }
    ~Raw() { sd_bus_flush_close_unref(bus); }
    sd_bus_message *message(const char *table, const char *member, const char *dest)
    {
        const std::string path = std::string("/org/corvane/") + table;
        const std::string intf = std::string("org.corvane.") + table;
        sd_bus_message *m = nullptr;
        if (dest != nullptr)
            sd_bus_message_new_method_call(bus, &m, dest, path.c_str(), intf.c_str(), member);
        else
            sd_bus_message_new_signal(bus, &m, path.c_str(), intf.c_str(), member);
        return m;
    }
    // The "u" answer, or the error's name.
    std::string call(const char *member, const Bytes &b, const char *sig = "ay")
    {
        sd_bus_message *m = message("CorVaneCmd", member, "org.corvane.user.mgmt"), *reply = nullptr;
        if (std::strcmp(sig, "ay") == 0)
            sd_bus_message_append_array(m, 'y', b.data(), b.size());
        else
            sd_bus_message_append(m, "s", "not a body");
        sd_bus_error e = SD_BUS_ERROR_NULL;
        uint32_t status = 0;
        std::string result = sd_bus_call(bus, m, 3000000, &e, &reply) < 0 ? e.name
                             : sd_bus_message_read(reply, "u", &status) < 0
                                 ? "no status"
                                 : std::to_string(status);
        sd_bus_error_free(&e);
        sd_bus_message_unref(reply);
        sd_bus_message_unref(m);
        return result;
    }
    void signal(const char *member, const Bytes &b)
    {
        sd_bus_message *m = message("CorVaneNtfy", member, nullptr);
        sd_bus_message_append_array(m, 'y', b.data(), b.size());
        EXPECT_GE(sd_bus_send(bus, m, nullptr), 0);
        sd_bus_message_unref(m);
        sd_bus_flush(bus);
    }
};

class Bus : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_EQ(corvane_initialize(), 0u); }

    std::string dir, address;
    std::unique_ptr<Proc> daemon;
    std::vector<void *> users;

    void SetUp() override
    {
        char tmpl[] = "/tmp/corvane-bus-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        daemon = std::make_unique<Proc>(
            std::vector<std::string>{"dbus-daemon", "--session", "--address=unix:path=" + dir + "/bus",
                                     "--nofork", "--print-address"},
            dir, "dbus-daemon");
        ASSERT_GT(daemon->pid, 0) << "dbus-daemon not found";
        ASSERT_TRUE(waitUntil([&] { return slurp(daemon->out).find('\n') != std::string::npos; }, 5000));
        address = slurp(daemon->out).substr(0, slurp(daemon->out).find('\n'));
        quibDbus_setTimeout(0);
    }
    void TearDown() override
    {
        for (void *u : users)
            quibDbus_freeUser(u);
        daemon->stop(SIGTERM, 3000);
        std::system(("rm -rf " + dir).c_str());
    }
    std::unique_ptr<Proc> start(const char *which, std::vector<std::string> args = {})
    {
        const std::string path = which == std::string("mgmt") ? MGMT_SIM : VOICE_SIM;
        args.insert(args.begin(), {path, "--bus", address});
        auto p = std::make_unique<Proc>(args, dir, which);
        const char *ready = which == std::string("mgmt") ? "serving 19 commands" : "subscribed to 30";
        EXPECT_TRUE(waitUntil([&] { return p->stdout_().find(ready) != std::string::npos; }, 5000))
            << which << ": " << p->stderr_();
        return p;
    }
    void *user(const char *name)
    {
        uint32_t status = 1;
        void *u = quibDbus_newUser(name, address.c_str(), &status);
        EXPECT_EQ(status, 0u);
        users.push_back(u);
        return u;
    }
};

// ---- the two daemons ------------------------------------------------------------

// Every command is answered 0 and every notification arrives, with the
// payload that was sent; each side's line names both processes and agrees
// with the other side's on the number of bytes.
TEST_F(Bus, AllMessagesBetweenTheDaemons)
{
    auto mgmt = start("mgmt");
    auto voice = std::make_unique<Proc>(
        std::vector<std::string>{VOICE_SIM, "--bus", address, "--once"}, dir, "voice");
    ASSERT_EQ(voice->wait(15000), 0) << voice->stderr_();
    const std::string v = voice->stdout_(), m = mgmt->stdout_();
    std::smatch who;
    ASSERT_TRUE(std::regex_search(v, who, std::regex(R"((voice\[\d+\]) -> (mgmt\[\d+\]))")));
    EXPECT_EQ(who[2].str(), "mgmt[" + std::to_string(mgmt->pid) + "]");
    for (uint32_t intf : {CORVANE_INTF_CMD, CORVANE_INTF_NTFY}) {
        for (uint32_t i = 0; const CorVaneMessageInfo *info = corVane_messageInfo(intf, i); ++i) {
            const bool cmd = intf == CORVANE_INTF_CMD;
            const std::string sent = std::string(cmd ? who[1] : who[2]) + " -> " +
                                     (cmd ? who[2] : who[1]).str() + " " + info->name +
                                     (cmd ? ": command, (\\d+) bytes, answer 0x0 \\(done\\)"
                                          : ": notification, (\\d+) bytes, sent");
            const std::string got = std::string(cmd ? who[2] : who[1]) + " <- " +
                                    (cmd ? who[1] : who[2]).str() + " " + info->name +
                                    (cmd ? ": command" : ": notification") +
                                    ", (\\d+) bytes, sample payload";
            auto escaped = [](std::string s) {
                return std::regex_replace(s, std::regex(R"([\[\]])"), R"(\$&)");
            };
            std::smatch a, b;
            EXPECT_TRUE(std::regex_search(cmd ? v : m, a, std::regex(escaped(sent)))) << sent;
            EXPECT_TRUE(std::regex_search(cmd ? m : v, b, std::regex(escaped(got)))) << got;
            if (!a.empty() && !b.empty()) {
                EXPECT_EQ(a[1].str(), b[1].str()) << info->name;
            }
        }
    }
    EXPECT_NE(m.find("serving 19 commands as org.corvane.user.mgmt, needs updates of 14 notifications"),
              std::string::npos);
    EXPECT_EQ(countOf(v, " -> "), 19u);
    EXPECT_EQ(countOf(v, " <- "), 30u);
    EXPECT_EQ(mgmt->stop(SIGTERM, 5000), 0);
    EXPECT_EQ(voice->stderr_() + mgmt->stderr_(), "");
}

// ---- hostile bodies ------------------------------------------------------------

// Edits of a valid body whose last element is a text of `textLen` characters.
struct Hostile {
    const char *what;
    std::function<void(Bytes &, size_t textLen)> edit;
    uint32_t status;
    const char *log;
};

const Hostile kHostile[] = {
    {"truncated", [](Bytes &b, size_t) { b.resize(24 + 10); }, 4,
     "Type(3) runs past the end of the buffer: 12 bytes needed, 10 left"},
    {"length word 0x7ffffff0", [](Bytes &b, size_t) { putBe32(b, 28, 0x7ffffff0); }, 4,
     "Type(3) runs past the end of the buffer: 2147483640 bytes needed"},
    {"length word that wraps", [](Bytes &b, size_t) { putBe32(b, 28, 0xfffffff8); }, 4,
     "Type(3) runs past the end of the buffer: 4294967296 bytes needed"},
    {"text without its NUL at the end",
     [](Bytes &b, size_t n) {
         const size_t words = ((n + 1) & ~size_t{3}) + 4;
         std::memset(b.data() + b.size() - words, 'x', words);
     },
     4, "text has no NUL before the end of the buffer"},
    {"another message's magic", [](Bytes &b, size_t) { putBe32(b, 8, 0x20132509); }, 2,
     "magic(20132509) refused"},
    {"no magic", [](Bytes &b, size_t) { b.erase(b.begin(), b.begin() + 12); }, 2, "Tl(1-4) expectded(0)"},
    {"empty", [](Bytes &b, size_t) { b.clear(); }, 4, "Type(0) runs past the end of the buffer: 8 bytes needed, 0 left"},
};

// The management daemon answers each with the decoder's status, logs the
// library's line and serves the next call; then a whole exchange still works.
TEST_F(Bus, HostileCommandsToTheManagementDaemon)
{
    auto mgmt = start("mgmt");
    registrationStatus rs{};
    rs.value1 = 7;
    std::strcpy(rs.text1, "registrar.example");
    const Bytes good = wire("SetRegistrationStatus", &rs);
    Raw raw(address);
    for (const Hostile &h : kHostile) {
        Bytes bad = good;
        h.edit(bad, std::strlen(rs.text1));
        EXPECT_EQ(raw.call("SetRegistrationStatus", bad), std::to_string(h.status)) << h.what;
        EXPECT_EQ(raw.call("SetRegistrationStatus", good), "0") << "after " << h.what;
        EXPECT_NE(mgmt->stderr_().find(h.log), std::string::npos) << h.what << ":\n" << mgmt->stderr_();
    }
    EXPECT_EQ(raw.call("SetRegistrationStatus", good, "s"), SD_BUS_ERROR_INVALID_ARGS);
    EXPECT_EQ(raw.call("NoSuchCommand", good), SD_BUS_ERROR_UNKNOWN_METHOD);
    Proc voice({VOICE_SIM, "--bus", address, "--once"}, dir, "voice");
    EXPECT_EQ(voice.wait(15000), 0) << voice.stderr_();
}

// The voice daemon, waiting for its server, drops each bad notification with
// the library's line and takes the next good one; when the management
// daemon comes up the whole exchange still completes.
TEST_F(Bus, HostileNotificationsToTheVoiceDaemon)
{
    auto voice = start("voice", {"--once"});
    CorVaneMakeCall call{};
    call.value1 = 3;
    std::strcpy(call.text3, "callee.example");
    const Bytes good = wire("OnMakeCall", &call);
    Raw raw(address);
    size_t n = 0;
    for (const Hostile &h : kHostile) {
        Bytes bad = good;
        h.edit(bad, std::strlen(call.text3));
        raw.signal("OnMakeCall", bad);
        raw.signal("OnMakeCall", good);
        ++n;
        EXPECT_TRUE(waitUntil([&] { return countOf(voice->stdout_(), " OnMakeCall: notification") == n; }, 3000))
            << "after " << h.what;
        EXPECT_NE(voice->stderr_().find(h.log), std::string::npos) << h.what << ":\n" << voice->stderr_();
    }
    auto mgmt = start("mgmt");
    EXPECT_EQ(voice->wait(15000), 0) << voice->stderr_();
}

// ---- the answer of a server ---------------------------------------------------

std::string gSender;
int32_t gSenderPid;

uint32_t handlerAnswering7(void *ctx, void *, void *)
{
    char name[64];
    quibDbus_ctxSender(ctx, name, sizeof name, &gSenderPid);
    gSender = name;
    return quibCore_sendMsgRes(ctx, nullptr, 7, 18);
}
uint32_t handlerSilent(void *, void *, void *) { return 0; }

// A server in this process, its event loop run here, called from a thread:
// the answer is what the handler gave through quibCore_sendMsgRes, 0 when it
// gave none, 20 (the library's) when no handler is registered, and a
// method this user does not serve is unknown.
TEST_F(Bus, TheServersAnswer)
{
    void *srv = user("srv");
    ASSERT_EQ(corVane_regUser_msgMngt(srv, nullptr, nullptr, CORVANE_SELECT_CMD), 0u);
    auto fn = [](auto f) { return reinterpret_cast<void *>(f); };
    ASSERT_EQ(corVane_modSrv_recvMsg_setLineCallState(srv, fn(handlerAnswering7), nullptr, nullptr), 0u);
    ASSERT_EQ(corVane_modSrv_recvMsg_setPingSipState(srv, fn(handlerSilent), nullptr, nullptr), 0u);
    ASSERT_EQ(corVane_modSrv_recvMsg_setLineStats(srv, nullptr, nullptr, nullptr), 0u);
    const lineCallState s = {1, 2, 3};
    const pingSipState p = {4, 5, 6};
    const lineStats l{};
    const struct {
        const char *method;
        Bytes body;
        std::string answer;
    } cases[] = {{"SetLineCallState", wire("SetLineCallState", &s), "7"},
                 {"SetPingSipState", wire("SetPingSipState", &p), "0"},
                 {"SetLineStats", wire("SetLineStats", &l), "20"},
                 {"SetLineModif", wire("SetLineCallState", &s), SD_BUS_ERROR_UNKNOWN_METHOD}};
    std::vector<std::string> answers;
    bool done = false;
    std::thread client([&] {
        Raw raw(address);
        for (const auto &c : cases) {
            sd_bus_message *m = raw.message("CorVaneCmd", c.method, "org.corvane.user.srv"), *r = nullptr;
            sd_bus_message_append_array(m, 'y', c.body.data(), c.body.size());
            sd_bus_error e = SD_BUS_ERROR_NULL;
            uint32_t st = 0;
            answers.push_back(sd_bus_call(raw.bus, m, 3000000, &e, &r) < 0 ? e.name
                              : sd_bus_message_read(r, "u", &st) < 0  ? "no status"
                                                                      : std::to_string(st));
            sd_bus_error_free(&e);
            sd_bus_message_unref(r);
            sd_bus_message_unref(m);
        }
        __atomic_store_n(&done, true, __ATOMIC_RELEASE);
    });
    for (int i = 0; i < 50 && !__atomic_load_n(&done, __ATOMIC_ACQUIRE); ++i)
        ranqDbus_runFor(100);
    client.join();
    ASSERT_EQ(answers.size(), std::size(cases));
    for (size_t i = 0; i < answers.size(); ++i)
        EXPECT_EQ(answers[i], cases[i].answer) << cases[i].method;
    EXPECT_EQ(gSender.substr(0, 1), ":");  // the raw client owns no user name
    EXPECT_EQ(gSenderPid, getpid());
}

// ---- failures: a clear status within the timeout ---------------------------------

uint32_t sendCallState(void *user, const char *to)
{
    const lineCallState s = {1, 2, 3};
    return corVane_sendReq_setLineCallState(user, nullptr, to, &s);
}

TEST_F(Bus, ANameNobodyOwns)
{
    const auto t = Clock::now();
    EXPECT_EQ(sendCallState(user("client"), "nobody"), QUIB_DBUS_E_NO_SERVER);
    EXPECT_LT(msSince(t), 1000);
}

// The timeout comes from quibDbus_setTimeout, else $CORVANE_BUS_TIMEOUT_MS.
TEST_F(Bus, NoAnswerWithinTheTimeout)
{
    auto mgmt = start("mgmt", {"--delay", "2000"});
    void *u = user("client");
    const struct {
        const char *env;
        uint32_t set, ms;
    } cases[] = {{"300", 0, 300}, {"300", 200, 200}, {"no number", 0, QUIB_DBUS_TIMEOUT_MS}};
    for (const auto &c : cases) {
        setenv("CORVANE_BUS_TIMEOUT_MS", c.env, 1);
        quibDbus_setTimeout(c.set);
        EXPECT_EQ(quibDbus_timeout(), c.ms) << c.env << " " << c.set;
        if (c.ms > 1000)
            continue;
        const auto t = Clock::now();
        EXPECT_EQ(sendCallState(u, "mgmt"), QUIB_DBUS_E_TIMEOUT);
        EXPECT_EQ(quibDbus_lastStatus(u), QUIB_DBUS_E_TIMEOUT);
        EXPECT_GE(msSince(t), c.ms);
        EXPECT_LT(msSince(t), c.ms + 1000);
    }
    unsetenv("CORVANE_BUS_TIMEOUT_MS");
}

// Without its server, `corvane-voice-sim --once` gives up after 10 s and
// names everything that is missing.
TEST_F(Bus, TheVoiceDaemonGivesUp)
{
    const auto t = Clock::now();
    Proc voice({VOICE_SIM, "--bus", address, "--once", "--to", "nobody"}, dir, "voice");
    EXPECT_EQ(voice.wait(13000), 1);
    EXPECT_GE(msSince(t), 10000);
    EXPECT_NE(voice.stderr_().find("no complete exchange after 10 s; missing 19 answers and 30 "
                                   "notifications: SetCapabilities(not sent) "),
              std::string::npos)
        << voice.stderr_();
    EXPECT_NE(voice.stderr_().find(" OnMakeCall OnPingSip StopAutoCall\n"), std::string::npos);
}

TEST_F(Bus, ServerKilledDuringTheCall)
{
    auto mgmt = start("mgmt", {"--delay", "3000"});
    std::thread killer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        kill(mgmt->pid, SIGKILL);
    });
    const auto t = Clock::now();
    EXPECT_EQ(sendCallState(user("client"), "mgmt"), QUIB_DBUS_E_DISCONNECTED);
    EXPECT_LT(msSince(t), 2000);
    killer.join();
}

// The caller gets a status, later calls too; the daemon says so and exits 1.
TEST_F(Bus, TheBusGoesAway)
{
    auto mgmt = start("mgmt", {"--delay", "1000"});
    void *u = user("client");
    std::thread killer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        kill(daemon->pid, SIGKILL);
    });
    const auto t = Clock::now();
    EXPECT_EQ(sendCallState(u, "mgmt"), QUIB_DBUS_E_DISCONNECTED);
    EXPECT_LT(msSince(t), 1000);
    killer.join();
    EXPECT_EQ(sendCallState(u, "mgmt"), QUIB_DBUS_E_DISCONNECTED);
    EXPECT_EQ(mgmt->wait(5000), 1);
    EXPECT_NE(mgmt->stdout_().find("the bus went away"), std::string::npos);
}

TEST_F(Bus, JoiningTheBus)
{
    auto mgmt = start("mgmt");
    uint32_t status = 0;
    EXPECT_EQ(quibDbus_newUser("mgmt", address.c_str(), &status), nullptr);
    EXPECT_EQ(status, QUIB_DBUS_E_NAME_TAKEN);
    EXPECT_EQ(quibDbus_newUser("x", ("unix:path=" + dir + "/none").c_str(), &status), nullptr);
    EXPECT_EQ(status, QUIB_DBUS_E_NO_BUS);
    unsetenv("CORVANE_BUS");
    EXPECT_EQ(quibDbus_newUser("x", nullptr, &status), nullptr);
    EXPECT_EQ(status, QUIB_DBUS_E_NO_BUS);
    Proc noBus({MGMT_SIM}, dir, "nobus");
    EXPECT_EQ(noBus.wait(5000), 2);
    EXPECT_EQ(noBus.stderr_(), "corvane-mgmt-sim: no bus address: give --bus ADDRESS or set CORVANE_BUS\n");
}

TEST(BusNames, Escaping)
{
    const struct {
        const char *user, *bus;
    } cases[] = {{"mgmt", "org.corvane.user.mgmt"},
                 {"voice-1", "org.corvane.user.voice_2d1"},
                 {"1a", "org.corvane.user._31a"},
                 {"a_b.c", "org.corvane.user.a_5fb_2ec"},
                 {"\xc3\xa9", "org.corvane.user._c3_a9"}};
    char out[256];
    for (const auto &c : cases) {
        ASSERT_EQ(quibDbus_busName(c.user, out, sizeof out), 0) << c.user;
        EXPECT_STREQ(out, c.bus);
    }
    EXPECT_EQ(quibDbus_busName("", out, sizeof out), -1);
    EXPECT_EQ(quibDbus_busName("mgmt", out, 21), -1);  // 21 bytes with its NUL
    EXPECT_EQ(quibDbus_busName("mgmt", out, 22), 0);
    EXPECT_EQ(quibDbus_busName(std::string(80, '-').c_str(), out, sizeof out), -1);  // 257 > 255
}

}  // namespace
