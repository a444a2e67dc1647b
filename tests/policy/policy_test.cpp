// The bus policy on a private dbus-daemon of the system type: the usual
// default system policy, then the policy written from the shipped template
// for this test's accounts. The daemons of examples/ and raw clients run
// under other uids (this test runs as root); each client is a child process
// that drops to its account, does one thing on the bus and reports back.
// Every wait is bounded; every process is stopped by its pid.
#include <gtest/gtest.h>

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>

#include "support/private_bus.h"
#include "support/raw_bus.h"

namespace {

using namespace cvtest;
namespace fs = std::filesystem;

// The bus names as the middleware writes them ("voice-1" is escaped); the
// policy, written by CMake, must name the same.
const std::string kMgmtBus = userBus(MGMT_NAME);
const std::string kVoiceBus = userBus(VOICE_NAME);
const char *const kCmdPath = "/org/corvane/CorVaneCmd";
const char *const kDenied = SD_BUS_ERROR_ACCESS_DENIED;

// Who a child runs as: a uid, its primary gid, and its supplementary groups.
struct Account {
    std::string label;
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;
};

Account account(const char *label, const char *user, const char *groupName = nullptr)
{
    Account a{label, 0, 0, {}};
    const passwd *pw = getpwnam(user);
    const struct group *gr = groupName != nullptr ? getgrnam(groupName) : nullptr;
    if (pw == nullptr || (groupName != nullptr && gr == nullptr)) {
        ADD_FAILURE() << "no user " << user << " or group " << (groupName ? groupName : "-")
                      << " on this system (Debian's base-passwd has them)";
        return a;
    }
    a.uid = pw->pw_uid;
    a.gid = pw->pw_gid;
    if (gr != nullptr)
        a.groups.push_back(gr->gr_gid);
    return a;
}

// In a forked child: become the account, or exit 126.
void become(const Account &a)
{
    if (setgroups(a.groups.size(), a.groups.data()) != 0 || setresgid(a.gid, a.gid, a.gid) != 0 ||
        setresuid(a.uid, a.uid, a.uid) != 0)
        _exit(126);
}

// Each test runs on both buses: the policy under test over the default
// policy of a system bus, and over an open one (what it denies is then
// denied by it alone).
class Policy : public ::testing::TestWithParam<const char *> {
protected:
    static inline PrivateBus *bus = nullptr;  // the directory, both buses and their management sides
    static inline std::map<std::string, std::pair<std::string, Proc *>> buses;  // address, mgmt
    // The bus of the running test, and its management side.
    static inline std::string address;
    static inline Proc *mgmt = nullptr;
    static inline std::string skipped;  // why the tests cannot run here
    static inline Account root, mgmtUser, voiceUser, engineer, outsider, stranger;

    static std::string bin(const char *program) { return bus->dir + "/" + fs::path(program).filename().string(); }

    // The base policy, then `policy`.
    static std::string policies(const std::string &base, const char *policy)
    {
        return (base == "system" ? slurp(SYSTEM_DEFAULT_POLICY) : kOpenPolicy) + "<include>" + policy +
               "</include>\n";
    }

    // In the child: the account, and the copies of the libraries.
    static std::function<void()> runAs(const Account &who)
    {
        return [who] {
            setenv("LD_LIBRARY_PATH", bus->dir.c_str(), 1);
            become(who);
        };
    }

    static void SetUpTestSuite()
    {
        const char *required = getenv("CORVANE_REQUIRE_POLICY_TESTS");
        if (geteuid() != 0 || system("command -v dbus-daemon >/dev/null") != 0) {
            skipped = "the policy tests need root (to run clients under other uids) and dbus-daemon "
                      "(CORVANE_REQUIRE_POLICY_TESTS=1 makes this a failure)";
            if (required != nullptr && std::string(required) == "1")
                FAIL() << skipped;
            return;
        }
        ASSERT_EQ(corvane_initialize(), CORVANE_OK);
        root = {"root", 0, 0, {}};
        mgmtUser = account("the management side", MGMT_USER);
        voiceUser = account("the voice service", VOICE_USER);
        engineer = account("an engineer", ENGINEER_USER, ENGINEER_GROUP);
        outsider = account("an engineer's uid outside the group", ENGINEER_USER);
        stranger = account("a stranger", STRANGER_USER);
        ASSERT_FALSE(HasFailure());

        // A directory every account can reach, holding the buses' sockets and
        // copies of the programs and libraries (the build tree may not be
        // readable to other users).
        bus = new PrivateBus;
        ASSERT_TRUE(bus->open("corvane-policy", false));
        chmod(bus->dir.c_str(), 0755);
        for (const char *file : {MGMT_SIM, VOICE_SIM
#ifdef CORVANE_TOOL
                                 , CORVANE_TOOL
#endif
             })
            fs::copy_file(file, bin(file));
        fs::copy_file(LIB_CORVANE, bus->dir + "/" LIB_CORVANE_SONAME);
        fs::copy_file(LIB_DBUS, bus->dir + "/" LIB_DBUS_SONAME);

        for (const char *base : {"system", "open"}) {
            address = bus->startBus(std::string("bus-") + base, "system", policies(base, TEST_POLICY));
            ASSERT_FALSE(address.empty());
            mgmt = bus->spawn({bin(MGMT_SIM), "--bus", address, "--name", MGMT_NAME}, "", runAs(mgmtUser));
            ASSERT_TRUE(waitUntil([] { return !RawBus(address).ownerOf(kMgmtBus).empty(); }, 5000))
                << "corvane-mgmt-sim did not take " << kMgmtBus << " as " << MGMT_USER << ": " << mgmt->stderr_();
            buses[base] = {address, mgmt};
        }
    }

    static void TearDownTestSuite()
    {
        delete bus;
        buses.clear();
    }

    // Runs `what` in a child process as `who`, on a connection of its own:
    // its result, "cannot become ..." or "timeout".
    static std::string as(const Account &who, const std::function<std::string(RawBus &)> &what)
    {
        Proc p({"as"}, bus->dir, [&] {
            become(who);
            RawBus c(address);
            const std::string r = what(c);
            _exit(write(1, r.data(), r.size()) == static_cast<ssize_t>(r.size()) ? 0 : 1);
        });
        const int status = p.wait(10000);
        return status == 126 ? "cannot become " + who.label : status < 0 ? "timeout" : p.stdout_();
    }

    void SetUp() override
    {
        if (!skipped.empty())
            GTEST_SKIP() << skipped;
        ASSERT_EQ(buses.count(GetParam()), 1u);
        std::tie(address, mgmt) = buses[GetParam()];
        // The management side owns its name whatever a test did before.
        ASSERT_FALSE(RawBus(address).ownerOf(kMgmtBus).empty()) << mgmt->stderr_();
    }
    // A daemon of examples/ as that account on the running test's bus.
    Proc daemon(const Account &who, const char *program, std::vector<std::string> args)
    {
        args.insert(args.begin(), {bin(program), "--bus", address});
        return Proc(args, bus->dir, runAs(who));
    }
};

// Nobody but the management side's user owns its name, nobody but the voice
// service's user owns its own, and nobody else owns any org.corvane.user.
// name, nor queues for one; engineers own any other (corvane call and emit
// join as corvane-PID). The running daemon's name cannot be replaced.
TEST_P(Policy, OnlyTheirUsersOwnTheNames)
{
    struct Row {
        const Account *who;
        std::string name;
        const char *expected;
    };
    const std::string tool = "org.corvane.user.corvane_2d4242";
    const Row rows[] = {
        {&stranger, kMgmtBus, kDenied},
        {&stranger, kVoiceBus, kDenied},
        {&stranger, "org.corvane.user", kDenied},
        {&stranger, "org.corvane.user.someone", kDenied},
        {&stranger, tool, kDenied},
        {&stranger, "org.corvane.user.mgmt.below", kDenied},
        {&outsider, tool, kDenied},
        {&mgmtUser, kVoiceBus, kDenied},
        {&mgmtUser, "org.corvane.user.someone", kDenied},
        {&voiceUser, kMgmtBus, kDenied},
        {&voiceUser, "org.corvane.user.someone", kDenied},
        {&engineer, kMgmtBus, kDenied},
        {&engineer, kVoiceBus, kDenied},
        {&root, kMgmtBus, kDenied},
        {&root, kVoiceBus, kDenied},
        {&voiceUser, kVoiceBus, "owner"},
        {&mgmtUser, kMgmtBus, "queued"},  // the running daemon has it
        {&engineer, tool, "owner"},
        {&root, tool, "owner"},
    };
    const uint32_t flagSets[] = {0, 1 | 2 /* allow replacement, replace existing */, 4 /* do not queue */};
    for (const Row &row : rows) {
        for (uint32_t flags : flagSets) {
            std::string expected = row.expected;
            if (expected == "queued" && (flags & 4) != 0)
                expected = "exists";
            EXPECT_EQ(as(*row.who, [&](RawBus &c) { return c.requestName(row.name, flags); }), expected)
                << row.who->label << " asks for " << row.name << " with flags " << flags;
        }
    }
}

// Only the voice service's user sends commands to the management side (and
// engineers; answered 0); the others get AccessDenied from the bus, whether
// they name the side by its bus name or by its connection.
TEST_P(Policy, OnlyTheVoiceServiceSendsCommands)
{
    const std::string unique = RawBus(address).ownerOf(kMgmtBus);
    struct Row {
        const Account *who;
        std::string to;
        const char *expected;
    };
    const Row rows[] = {
        {&stranger, kMgmtBus, kDenied}, {&stranger, unique, kDenied}, {&outsider, kMgmtBus, kDenied},
        {&mgmtUser, kMgmtBus, kDenied}, {&voiceUser, kMgmtBus, "0"},  {&voiceUser, unique, "0"},
        {&engineer, kMgmtBus, "0"},     {&root, kMgmtBus, "0"},
    };
    for (const Row &row : rows)
        EXPECT_EQ(as(*row.who,
                     [&](RawBus &c) { return c.command(row.to, "SetLineCallState", wire("SetLineCallState")); }),
                  row.expected)
            << row.who->label << " sends SetLineCallState to " << row.to;
}

// Anyone may introspect and ping a user's objects, nothing more.
TEST_P(Policy, AnyoneMayIntrospect)
{
    const auto method = [](const char *intf, const char *member, const std::function<int(sd_bus_message *)> &args) {
        return [=](RawBus &c) { return c.call(kMgmtBus, kCmdPath, intf, member, args); };
    };
    EXPECT_EQ(as(stranger, method("org.freedesktop.DBus.Introspectable", "Introspect", {})), "ok");
    EXPECT_EQ(as(stranger, method("org.freedesktop.DBus.Peer", "Ping", {})), "ok");
    EXPECT_EQ(as(stranger, method("org.freedesktop.DBus.Properties", "Set",
                                  [](sd_bus_message *m) {
                                      return sd_bus_message_append(m, "ssv", "org.corvane.CorVaneCmd", "Anything",
                                                                   "u", 1u);
                                  })),
              kDenied);
}

// A notification from anyone but the management side (and engineers),
// broadcast or directed, never reaches the voice service: it neither
// handles it nor sees it arrive (the sender's unique name is in none of its
// lines). An engineer's raw notification is the control that does arrive.
TEST_P(Policy, OnlyTheManagementSideNotifies)
{
    // --to a user nobody is: the voice service sends no command, so the
    // management side pushes nothing.
    Proc voice = daemon(voiceUser, VOICE_SIM, {"--name", VOICE_NAME, "--to", "absent"});
    ASSERT_TRUE(waitUntil([&] { return countOf(voice.stdout_(), "subscribed to 30 notifications") == 1; }, 5000))
        << voice.stderr_();
    // A listener that owns no user name: what reaches it is up to the
    // notifications' own rule.
    RawBus listener(address);
    ASSERT_EQ(listener.callBus("AddMatch", "type='signal',interface='org.corvane.CorVaneNtfy'"), "ok");

    const std::pair<const Account *, std::string> rows[] = {
        {&stranger, ""}, {&stranger, kVoiceBus}, {&outsider, ""}, {&voiceUser, ""}, {&voiceUser, kVoiceBus},
    };
    std::vector<std::string> senders;
    for (const auto &[who, to] : rows) {
        const std::string r = as(*who, [&](RawBus &c) { return c.unique() + " " + c.notify("OnMakeCall", wire("OnMakeCall"), to); });
        ASSERT_EQ(r.substr(r.find(' ') + 1), "sent") << who->label;
        senders.push_back(r.substr(0, r.find(' ')));
    }
    // The control: from the engineers' group, sent after the others and on
    // a connection owning a user name, as corvane emit does.
    const std::string control = as(engineer, [&](RawBus &c) {
        const std::string taken = c.requestName("org.corvane.user.corvane_2d1", 4);
        return c.unique() + " " + taken + " " + c.notify("OnMakeCall", wire("OnMakeCall"));
    });
    const std::string controlSender = control.substr(0, control.find(' '));
    ASSERT_EQ(control, controlSender + " owner sent");

    // The listener got the control, and nothing before it.
    std::vector<std::string> heard;
    waitUntil(
        [&] {
            sd_bus_message *m = nullptr;
            while (sd_bus_process(listener.bus, &m) > 0) {
                if (m != nullptr && sd_bus_message_is_signal(m, "org.corvane.CorVaneNtfy", nullptr) > 0)
                    heard.push_back(sd_bus_message_get_sender(m));
                m = sd_bus_message_unref(m);
            }
            return !heard.empty() && heard.back() == controlSender;
        },
        5000);
    EXPECT_EQ(heard, std::vector<std::string>{controlSender});
    EXPECT_TRUE(waitUntil([&] { return countOf(voice.stdout_(), ": notification, ") >= 1; }, 5000));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // anything else in flight lands meanwhile
    EXPECT_EQ(voice.stop(SIGTERM, 5000), 0);
    const std::string seen = voice.stdout_() + voice.stderr_();
    EXPECT_EQ(countOf(voice.stdout_(), " OnMakeCall: notification, "), 1u) << seen;
    for (size_t i = 0; i < senders.size(); ++i)
        EXPECT_EQ(countOf(seen, senders[i]), 0u) << rows[i].first->label << "'s notification (" << senders[i]
                                                 << ", to '" << rows[i].second << "') reached the voice service:\n"
                                                 << seen;
}

// The two daemons, each under its own user, exchange all 49 messages: 19
// commands answered 0 and 30 notifications, each with the payload as sent.
TEST_P(Policy, TheDaemonsExchangeAll49Messages)
{
    const size_t before = mgmt->stdout_().size();
    Proc voice = daemon(voiceUser, VOICE_SIM, {"--name", VOICE_NAME, "--once"});
    EXPECT_EQ(voice.wait(15000), 0) << voice.stdout_() << voice.stderr_();
    const std::string out = voice.stdout_();
    EXPECT_EQ(countOf(out, "answer 0x0 (done)"), 19u) << out;
    EXPECT_EQ(countOf(out, "sample payload"), 30u) << out;
    std::string served;
    EXPECT_TRUE(waitUntil([&] { return countOf(served = mgmt->stdout_().substr(before), ", sent\n") == 30; }, 3000));
    EXPECT_EQ(countOf(served, "sample payload"), 19u) << served;
}

#ifdef CORVANE_TOOL
// An engineer's corvane: a member of the engineers' group, and root, call
// and emit; the same uid outside the group cannot join. Monitoring takes
// root: dbus-daemon grants BecomeMonitor to no one else.
TEST_P(Policy, EngineersCallEmitAndMonitor)
{
    Proc voice = daemon(voiceUser, VOICE_SIM, {"--name", VOICE_NAME, "--to", "absent"});
    ASSERT_TRUE(waitUntil([&] { return countOf(voice.stdout_(), "subscribed to 30 notifications") == 1; }, 5000))
        << voice.stderr_();
    Proc monitor = daemon(root, CORVANE_TOOL, {"monitor"});
    ASSERT_TRUE(waitUntil([&] { return countOf(monitor.stderr_(), "corvane: monitoring ") == 1; }, 5000))
        << monitor.stderr_();

    const auto corvane = [&](const Account &who, std::vector<std::string> args) {
        Proc p = daemon(who, CORVANE_TOOL, std::move(args));
        const int status = p.wait(10000);
        return std::to_string(status) + " " + p.stdout_() + p.stderr_();
    };
    for (const Account *who : {&engineer, &root}) {
        const std::string called = corvane(*who, {"call", "SetLineCallState", "{}"});
        EXPECT_EQ(called.rfind("0 SetLineCallState -> mgmt[", 0), 0u) << who->label << ": " << called;
        const std::string emitted = corvane(*who, {"emit", "OnMakeCall", "{}"});
        EXPECT_EQ(emitted.rfind("0 ", 0), 0u) << who->label << ": " << emitted;
    }
    const std::string refused = corvane(outsider, {"call", "SetLineCallState", "{}"});
    EXPECT_EQ(refused.rfind("1 corvane: cannot join the bus", 0), 0u) << refused;
    const std::string groupMonitor = corvane(engineer, {"monitor"});
    EXPECT_EQ(groupMonitor.rfind("1 ", 0), 0u) << groupMonitor;
    EXPECT_NE(groupMonitor.find("refused to be monitored"), std::string::npos) << groupMonitor;

    EXPECT_TRUE(waitUntil([&] { return countOf(voice.stdout_(), " OnMakeCall: notification, ") == 2; }, 5000))
        << voice.stdout_() << voice.stderr_();
    EXPECT_TRUE(waitUntil([&] { return countOf(monitor.stdout_(), "return SetLineCallState mgmt[") == 2; }, 5000))
        << monitor.stdout_();
    EXPECT_EQ(countOf(monitor.stdout_(), "call SetLineCallState corvane-"), 2u) << monitor.stdout_();
    EXPECT_EQ(countOf(monitor.stdout_(), "signal OnMakeCall corvane-"), 2u) << monitor.stdout_();
    EXPECT_EQ(monitor.stop(SIGTERM, 5000), 0);
}
#endif

// The policy written for the configured users is one dbus-daemon accepts,
// over either base policy (users that do not exist here are only warned
// about).
TEST_P(Policy, TheShippedPolicyLoads)
{
    // Listening (it said its address): the configuration was read.
    EXPECT_FALSE(bus->startBus(std::string("shipped-") + GetParam(), "system", policies(GetParam(), SHIPPED_POLICY))
                     .empty());
    Proc *daemon = bus->procs.back().get();
    daemon->stop(SIGTERM, 5000);
    // Lines about users and groups this machine lacks are fine, and so is
    // one about the file descriptor limit in a container.
    std::istringstream lines(daemon->stderr_());
    for (std::string line; std::getline(lines, line);)
        EXPECT_TRUE(line.find("Unknown username") != std::string::npos ||
                    line.find("Unknown group") != std::string::npos || line.find("fd limit") != std::string::npos)
            << line;
}

INSTANTIATE_TEST_SUITE_P(Bus, Policy, ::testing::Values("system", "open"),
                         [](const auto &p) { return std::string(p.param); });

}  // namespace
