// The bus policy on a private dbus-daemon of the system type: the usual
// default system policy, then the policy written from the shipped template
// for this test's accounts. The daemons of examples/ and raw clients run
// under other uids (this test runs as root); each client is a child process
// that drops to its account, does one thing on the bus and reports back.
// Every wait is bounded; every process is stopped by its pid.
#include <gtest/gtest.h>

#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <systemd/sd-bus.h>

#include "corvane/corvane.h"
#include "quib_dbus.h"

extern char **environ;

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// The bus names as the middleware writes them ("voice-1" is escaped); the
// policy, written by CMake, must name the same.
std::string busName(const char *user)
{
    char name[256] = "";
    quibDbus_busName(user, name, sizeof name);
    return name;
}
const std::string kMgmtBus = busName(MGMT_NAME);
const std::string kVoiceBus = busName(VOICE_NAME);
const char *const kCmdPath = "/org/corvane/CorVaneCmd";
const char *const kCmdIntf = "org.corvane.CorVaneCmd";
const char *const kNtfyPath = "/org/corvane/CorVaneNtfy";
const char *const kNtfyIntf = "org.corvane.CorVaneNtfy";
const char *const kDenied = "error org.freedesktop.DBus.Error.AccessDenied";

std::string slurp(const std::string &path)
{
    std::stringstream s;
    s << std::ifstream(path).rdbuf();
    return s.str();
}

size_t countOf(const std::string &text, const std::string &what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

bool waitUntil(const std::function<bool()> &done, int timeoutMs)
{
    for (const auto end = Clock::now() + milliseconds(timeoutMs); !done();) {
        if (Clock::now() > end)
            return false;
        std::this_thread::sleep_for(milliseconds(20));
    }
    return true;
}

// Who a child runs as: a uid, its primary gid, and its supplementary groups.
struct Account {
    std::string label;
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;
};

Account account(const char *label, const char *user, const char *groupName = nullptr)
{
    Account a;
    a.label = label;
    const passwd *pw = getpwnam(user);
    if (pw == nullptr) {
        ADD_FAILURE() << "no user " << user << " on this system (Debian's base-passwd has it)";
        return a;
    }
    a.uid = pw->pw_uid;
    a.gid = pw->pw_gid;
    if (groupName != nullptr) {
        const struct group *gr = getgrnam(groupName);
        if (gr == nullptr)
            ADD_FAILURE() << "no group " << groupName << " on this system";
        else
            a.groups.push_back(gr->gr_gid);
    }
    return a;
}

// In a forked child: become the account, or exit 126.
void become(const Account &a)
{
    if (setgroups(a.groups.size(), a.groups.data()) != 0 || setresgid(a.gid, a.gid, a.gid) != 0 ||
        setresuid(a.uid, a.uid, a.uid) != 0)
        _exit(126);
}

// A program run as an account, stdout and stderr in files; killed when this
// process dies.
struct Proc {
    pid_t pid = -1;
    int status = -1;
    std::string out, err;

    Proc(const Account &who, std::vector<std::string> args, const std::string &dir,
         const std::string &tag)
        : out(dir + "/" + tag + ".out"), err(dir + "/" + tag + ".err")
    {
        std::vector<char *> argv;
        for (std::string &arg : args)
            argv.push_back(arg.data());
        argv.push_back(nullptr);
        // The copies of the daemons find the copies of the libraries.
        std::string libraryPath = "LD_LIBRARY_PATH=" + dir;
        std::vector<char *> env{libraryPath.data()};
        for (char **e = environ; *e != nullptr; ++e)
            if (std::strncmp(*e, "LD_LIBRARY_PATH=", 16) != 0)
                env.push_back(*e);
        env.push_back(nullptr);
        const pid_t parent = getpid();
        pid = fork();
        if (pid != 0)
            return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent)
            _exit(127);
        const int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (o < 0 || e < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0)
            _exit(127);
        become(who);
        execve(argv[0], argv.data(), env.data());
        _exit(127);
    }
    Proc(const Proc &) = delete;
    Proc &operator=(const Proc &) = delete;
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
    std::string stdout_() const { return slurp(out); }
    std::string stderr_() const { return slurp(err); }
};

// A connection of its own to the bus.
struct Conn {
    sd_bus *bus = nullptr;
    explicit Conn(const std::string &address)
    {
        int r = sd_bus_new(&bus);
        if (r >= 0)
            r = sd_bus_set_address(bus, address.c_str());
        if (r >= 0)
            r = sd_bus_set_bus_client(bus, 1);
        if (r >= 0)
            r = sd_bus_start(bus);
        if (r < 0) {
            sd_bus_unref(bus);
            bus = nullptr;
        }
    }
    ~Conn() { sd_bus_flush_close_unref(bus); }
    std::string unique() const
    {
        const char *u = nullptr;
        return bus != nullptr && sd_bus_get_unique_name(bus, &u) >= 0 ? u : "";
    }
};

// A finished call: "error <name>" or what the reply says, as printed by read.
std::string outcome(int r, const sd_bus_error &e, sd_bus_message *reply,
                    const std::function<std::string(sd_bus_message *)> &read)
{
    if (r < 0)
        return std::string("error ") + (e.name != nullptr ? e.name : std::strerror(-r));
    return read(reply);
}

std::string call(sd_bus *bus, const std::string &dest, const char *path, const char *intf,
                 const char *member, const std::function<int(sd_bus_message *)> &append,
                 const std::function<std::string(sd_bus_message *)> &read)
{
    sd_bus_message *m = nullptr, *reply = nullptr;
    sd_bus_error e = SD_BUS_ERROR_NULL;
    int r = sd_bus_message_new_method_call(bus, &m, dest.c_str(), path, intf, member);
    if (r >= 0)
        r = append(m);
    if (r >= 0)
        r = sd_bus_call(bus, m, 3'000'000, &e, &reply);
    std::string result = outcome(r, e, reply, read);
    sd_bus_error_free(&e);
    sd_bus_message_unref(reply);
    sd_bus_message_unref(m);
    return result;
}

// RequestName with the given flags: "owner", "queued", ... or the error.
std::string requestName(sd_bus *bus, const std::string &name, uint32_t flags)
{
    return call(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        [&](sd_bus_message *m) { return sd_bus_message_append(m, "su", name.c_str(), flags); },
        [](sd_bus_message *reply) {
            uint32_t v = 0;
            sd_bus_message_read(reply, "u", &v);
            const char *const what[] = {"?", "owner", "queued", "exists", "already owner"};
            return std::string(v < 5 ? what[v] : "?");
        });
}

void putBe32(Bytes &b, size_t at, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        b[at + i] = static_cast<uint8_t>(v >> (24 - 8 * i));
}

// The body of a message with an all-zero payload, as a sender writes it.
Bytes body(const char *method)
{
    const CorVaneMessageInfo *m = corVane_messageByName(method);
    std::vector<uint8_t> payload(m->payload->size, 0);
    Bytes b(24 + corVane_record_serialize_lg(m->payload, payload.data()));
    const uint32_t head[] = {0, 4, m->magic, 1, 4, m->envelope};
    for (size_t i = 0; i < std::size(head); ++i)
        putBe32(b, 4 * i, head[i]);
    uint8_t *cursor = b.data() + 24;
    EXPECT_EQ(corVane_record_serialize(m->payload, payload.data(), &cursor), 0u);
    return b;
}

// A command with a well-formed body: "answer N" or the error.
std::string command(sd_bus *bus, const std::string &dest, const char *method)
{
    const Bytes b = body(method);
    return call(
        bus, dest, kCmdPath, kCmdIntf, method,
        [&](sd_bus_message *m) { return sd_bus_message_append_array(m, 'y', b.data(), b.size()); },
        [](sd_bus_message *reply) {
            uint32_t v = 0;
            return sd_bus_message_read(reply, "u", &v) > 0 ? "answer " + std::to_string(v)
                                                           : std::string("answer ?");
        });
}

// A notification, broadcast (to "") or directed; flushed before returning.
std::string notify(sd_bus *bus, const std::string &dest, const char *method)
{
    const Bytes b = body(method);
    sd_bus_message *m = nullptr;
    int r = sd_bus_message_new_signal(bus, &m, kNtfyPath, kNtfyIntf, method);
    if (r >= 0 && !dest.empty())
        r = sd_bus_message_set_destination(m, dest.c_str());
    if (r >= 0)
        r = sd_bus_message_append_array(m, 'y', b.data(), b.size());
    if (r >= 0)
        r = sd_bus_send(bus, m, nullptr);
    if (r >= 0)
        r = sd_bus_flush(bus);
    sd_bus_message_unref(m);
    return r >= 0 ? "sent" : std::string("error ") + std::strerror(-r);
}

// Each test runs on both buses: the policy under test over the default
// policy of a system bus, and over an open one.
class Policy : public ::testing::TestWithParam<const char *> {
protected:
    struct TestBus {
        std::string address;
        Proc *daemon = nullptr, *mgmt = nullptr;
    };
    static inline std::map<std::string, TestBus> buses;
    // The bus of the running test, and its management side.
    static inline std::string dir, address;
    static inline Proc *mgmt = nullptr;
    static inline std::string skipped;  // why the tests cannot run here
    static inline Account root, mgmtUser, voiceUser, engineer, outsider, stranger;

    static std::string bin(const char *program) { return dir + "/" + fs::path(program).filename().string(); }

    static void SetUpTestSuite()
    {
        const bool required = getenv("CORVANE_REQUIRE_POLICY_TESTS") != nullptr &&
                              std::string(getenv("CORVANE_REQUIRE_POLICY_TESTS")) == "1";
        const char *missing = geteuid() != 0 ? "not root: cannot run clients under other uids"
                              : system("command -v dbus-daemon >/dev/null") != 0
                                  ? "dbus-daemon not found (Debian: dbus-daemon)"
                                  : nullptr;
        if (missing != nullptr) {
            if (required)
                FAIL() << "the policy tests cannot run: " << missing;
            skipped = std::string("the policy tests need root and dbus-daemon: ") + missing +
                      " (CORVANE_REQUIRE_POLICY_TESTS=1 makes this a failure)";
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

        // A directory every account can reach, holding the bus's socket and
        // copies of the programs and libraries (the build tree may not be
        // readable to other users).
        char tmpl[] = "/tmp/corvane-policy-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        chmod(dir.c_str(), 0755);
        for (const char *file : {MGMT_SIM, VOICE_SIM
#ifdef CORVANE_TOOL
                                 , CORVANE_TOOL
#endif
             })
            fs::copy_file(file, bin(file));
        fs::copy_file(LIB_CORVANE, dir + "/" LIB_CORVANE_SONAME);
        fs::copy_file(LIB_DBUS, dir + "/" LIB_DBUS_SONAME);

        for (const char *base : {"system", "open"}) {
            startBus(base);
            if (HasFatalFailure())
                return;
        }
    }

    // A dbus-daemon of the system type with a base policy, then the policy
    // under test, and the management side on it. "system": the default
    // policy of a system bus, as Debian's system.conf has it. "open":
    // anyone may own any name and send anything (as on a session bus), so
    // that what the policy under test denies is denied by it alone.
    // The configuration of a bus of the system type listening on `socket`:
    // the base policy, then `policy`.
    static std::string config(const std::string &base, const std::string &socket,
                              const std::string &policy)
    {
        const std::string systemBase = R"(
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
    <allow send_destination="org.freedesktop.DBus"
           send_interface="org.freedesktop.DBus.Introspectable"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus.Properties"/>
    <deny send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"
          send_member="UpdateActivationEnvironment"/>
  </policy>
  <policy user="root">
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus.Monitoring"/>)";
        const std::string openBase = R"(
    <allow user="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>)";
        return R"(<!DOCTYPE busconfig PUBLIC
 "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=)" + socket + R"(</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">)" + (base == "system" ? systemBase : openBase) + R"(
  </policy>
  <include>)" + policy + R"(</include>
</busconfig>
)";
    }

    static void startBus(const std::string &base)
    {
        const std::string socket = dir + "/bus-" + base;
        std::ofstream(dir + "/" + base + ".conf") << config(base, socket, TEST_POLICY);
        TestBus &b = buses[base];
        b.daemon = new Proc(root, {"/usr/bin/env", "dbus-daemon", "--config-file=" + dir + "/" + base + ".conf",
                                   "--nofork", "--nopidfile", "--nosyslog", "--print-address=1"},
                            dir, "dbus-daemon-" + base);
        ASSERT_TRUE(waitUntil([&] { return fs::exists(socket) && !b.daemon->stdout_().empty(); }, 5000))
            << "dbus-daemon did not start: " << b.daemon->stderr_();
        b.address = address = "unix:path=" + socket;
        b.mgmt = new Proc(mgmtUser, {bin(MGMT_SIM), "--bus", address, "--name", MGMT_NAME}, dir,
                          "mgmt-" + base);
        ASSERT_TRUE(waitUntil([] { return !ownerOf(kMgmtBus).empty(); }, 5000))
            << "corvane-mgmt-sim did not take " << kMgmtBus << " as " << MGMT_USER << ": "
            << b.mgmt->stderr_();
    }

    static void TearDownTestSuite()
    {
        for (auto &[base, b] : buses) {
            delete b.mgmt;
            delete b.daemon;
        }
        buses.clear();
        if (!dir.empty())
            fs::remove_all(dir);
    }

    // The unique name owning `name`, "" when none (asked as root).
    static std::string ownerOf(const std::string &name)
    {
        Conn c(address);
        if (c.bus == nullptr)
            return "";
        const std::string owner = call(
            c.bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "GetNameOwner",
            [&](sd_bus_message *m) { return sd_bus_message_append(m, "s", name.c_str()); },
            [](sd_bus_message *reply) {
                const char *s = "";
                sd_bus_message_read(reply, "s", &s);
                return std::string(s);
            });
        return owner.rfind("error ", 0) == 0 ? "" : owner;
    }

    // Runs `what` in a child process as `who`, on a connection of its own;
    // its result, "no connection" or "timeout".
    static std::string as(const Account &who, const std::function<std::string(Conn &)> &what)
    {
        int fds[2];
        if (pipe(fds) != 0)
            return "no pipe";
        const pid_t parent = getpid();
        const pid_t pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent)
                _exit(127);
            close(fds[0]);
            become(who);
            std::string result;
            {
                Conn c(address);
                result = c.bus != nullptr ? what(c) : "no connection";
            }
            const ssize_t w = write(fds[1], result.data(), result.size());
            _exit(w == static_cast<ssize_t>(result.size()) ? 0 : 1);
        }
        close(fds[1]);
        std::string result;
        const auto end = Clock::now() + milliseconds(10000);
        for (;;) {
            const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now()).count();
            pollfd p{fds[0], POLLIN, 0};
            if (left <= 0 || poll(&p, 1, static_cast<int>(left)) <= 0) {
                kill(pid, SIGKILL);
                result = "timeout";
                break;
            }
            char buf[512];
            const ssize_t n = read(fds[0], buf, sizeof buf);
            if (n <= 0)
                break;
            result.append(buf, static_cast<size_t>(n));
        }
        close(fds[0]);
        int status = 0;
        waitpid(pid, &status, 0);
        if (result.empty() && WIFEXITED(status) && WEXITSTATUS(status) == 126)
            return "cannot become " + who.label;
        return result;
    }

    void SetUp() override
    {
        if (!skipped.empty())
            GTEST_SKIP() << skipped;
        ASSERT_EQ(buses.count(GetParam()), 1u);
        address = buses[GetParam()].address;
        mgmt = buses[GetParam()].mgmt;
        // The management side owns its name whatever a test did before.
        ASSERT_FALSE(ownerOf(kMgmtBus).empty()) << mgmt->stderr_();
    }
};

// Nobody but the management side's user owns its name, nobody but the voice
// service's user owns its own, and nobody else owns any org.corvane.user.
// name, nor queues for one; engineers own any other (corvane call and emit
// join as corvane-PID).
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
            EXPECT_EQ(as(*row.who, [&](Conn &c) { return requestName(c.bus, row.name, flags); }), expected)
                << row.who->label << " asks for " << row.name << " with flags " << flags;
        }
    }

    // The management side's name has had no other owner and no one queued.
    Conn c(address);
    const std::string owners = call(
        c.bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "ListQueuedOwners",
        [&](sd_bus_message *m) { return sd_bus_message_append(m, "s", kMgmtBus.c_str()); },
        [](sd_bus_message *reply) {
            char **names = nullptr;
            std::string all;
            sd_bus_message_read_strv(reply, &names);
            for (char **n = names; n != nullptr && *n != nullptr; ++n) {
                all += std::string(all.empty() ? "" : " ") + *n;
                free(*n);
            }
            free(names);
            return all;
        });
    EXPECT_EQ(owners, ownerOf(kMgmtBus));
    EXPECT_EQ(countOf(mgmt->stdout_(), "the bus went away"), 0u);
}

// Only the voice service's user sends commands to the management side (and
// engineers); the others get AccessDenied, whether they name the side by its
// bus name or by its connection, and the management side sees nothing.
TEST_P(Policy, OnlyTheVoiceServiceSendsCommands)
{
    const std::string unique = ownerOf(kMgmtBus);
    struct Row {
        const Account *who;
        std::string to;
        const char *expected;
    };
    const Row rows[] = {
        {&stranger, kMgmtBus, kDenied},
        {&stranger, unique, kDenied},
        {&outsider, kMgmtBus, kDenied},
        {&mgmtUser, kMgmtBus, kDenied},
        {&voiceUser, kMgmtBus, "answer 0"},
        {&voiceUser, unique, "answer 0"},
        {&engineer, kMgmtBus, "answer 0"},
        {&root, kMgmtBus, "answer 0"},
    };
    size_t answered = 0;
    const size_t before = countOf(mgmt->stdout_(), " SetLineCallState: command, ");
    for (const Row &row : rows) {
        EXPECT_EQ(as(*row.who, [&](Conn &c) { return command(c.bus, row.to, "SetLineCallState"); }),
                  row.expected)
            << row.who->label << " sends SetLineCallState to " << row.to;
        answered += std::string(row.expected) == "answer 0";
    }
    EXPECT_TRUE(waitUntil(
        [&] { return countOf(mgmt->stdout_(), " SetLineCallState: command, ") == before + answered; },
        3000));
    EXPECT_EQ(countOf(mgmt->stdout_(), " SetLineCallState: command, "), before + answered)
        << mgmt->stdout_();
}

// Anyone may introspect and ping a user's objects, nothing more.
TEST_P(Policy, AnyoneMayIntrospect)
{
    const auto introspect = [](Conn &c) {
        return call(
            c.bus, kMgmtBus, kCmdPath, "org.freedesktop.DBus.Introspectable", "Introspect",
            [](sd_bus_message *) { return 0; },
            [](sd_bus_message *reply) {
                const char *xml = "";
                sd_bus_message_read(reply, "s", &xml);
                return std::string(std::strstr(xml, "<node") != nullptr ? "xml" : "no xml");
            });
    };
    const auto ping = [](Conn &c) {
        return call(
            c.bus, kMgmtBus, kCmdPath, "org.freedesktop.DBus.Peer", "Ping", [](sd_bus_message *) { return 0; },
            [](sd_bus_message *) { return std::string("pong"); });
    };
    const auto setProperty = [](Conn &c) {
        return call(
            c.bus, kMgmtBus, kCmdPath, "org.freedesktop.DBus.Properties", "Set",
            [](sd_bus_message *m) {
                return sd_bus_message_append(m, "ssv", kCmdIntf, "Anything", "u", 1u);
            },
            [](sd_bus_message *) { return std::string("set"); });
    };
    EXPECT_EQ(as(stranger, introspect), "xml");
    EXPECT_EQ(as(stranger, ping), "pong");
    EXPECT_EQ(as(stranger, setProperty), kDenied);
}

// A notification from anyone but the management side (and engineers),
// broadcast or directed, never reaches the voice service: it neither
// handles it nor sees it arrive (the sender's unique name is in none of its
// lines). An engineer's `corvane emit` is the control that does arrive.
TEST_P(Policy, OnlyTheManagementSideNotifies)
{
    // --to a user nobody is: the voice service sends no command, so the
    // management side pushes nothing.
    Proc voice(voiceUser, {bin(VOICE_SIM), "--bus", address, "--name", VOICE_NAME, "--to", "absent"},
               dir, std::string(GetParam()) + "-voice-notified");
    ASSERT_TRUE(waitUntil([&] { return countOf(voice.stdout_(), "subscribed to 30 notifications") == 1; }, 5000))
        << voice.stderr_();

    // A listener that owns no user name: what reaches it is up to the
    // notifications' own rule.
    Conn listener(address);
    ASSERT_NE(listener.bus, nullptr);
    ASSERT_GE(sd_bus_call_method(listener.bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                 "org.freedesktop.DBus", "AddMatch", nullptr, nullptr, "s",
                                 "type='signal',interface='org.corvane.CorVaneNtfy'"),
              0);

    struct Row {
        const Account *who;
        std::string to;
    };
    const Row rows[] = {
        {&stranger, ""},       {&stranger, kVoiceBus}, {&outsider, ""},
        {&voiceUser, ""},      {&voiceUser, kVoiceBus},
    };
    std::vector<std::string> senders;
    for (const Row &row : rows) {
        const std::string r = as(*row.who, [&](Conn &c) {
            return c.unique() + " " + notify(c.bus, row.to, "OnMakeCall");
        });
        ASSERT_EQ(r.substr(r.find(' ') + 1), "sent") << row.who->label;
        senders.push_back(r.substr(0, r.find(' ')));
    }
    // The control: a raw notification from the engineers' group, sent after
    // the others and on a connection owning a user name, as corvane emit
    // does.
    const std::string control = as(engineer, [&](Conn &c) {
        const std::string taken = requestName(c.bus, "org.corvane.user.corvane_2d1", 4);
        return c.unique() + " " + taken + " " + notify(c.bus, "", "OnMakeCall");
    });
    const std::string controlSender = control.substr(0, control.find(' '));
    ASSERT_EQ(control, controlSender + " owner sent");
    EXPECT_TRUE(waitUntil([&] { return countOf(voice.stdout_(), ": notification, ") >= 1; }, 5000));

    // The listener got the control, and nothing before it.
    std::vector<std::string> heard;
    waitUntil(
        [&] {
            sd_bus_message *m = nullptr;
            while (sd_bus_process(listener.bus, &m) > 0) {
                if (m != nullptr && sd_bus_message_is_signal(m, kNtfyIntf, nullptr) > 0)
                    heard.push_back(sd_bus_message_get_sender(m));
                sd_bus_message_unref(m);
                m = nullptr;
            }
            return !heard.empty() && heard.back() == controlSender;
        },
        5000);
    EXPECT_EQ(heard, std::vector<std::string>{controlSender});
    std::this_thread::sleep_for(milliseconds(200));  // anything else in flight lands meanwhile
    EXPECT_EQ(voice.stop(SIGTERM, 5000), 0);
    const std::string seen = voice.stdout_() + voice.stderr_();
    EXPECT_EQ(countOf(voice.stdout_(), " OnMakeCall: notification, "), 1u) << seen;
    for (size_t i = 0; i < senders.size(); ++i)
        EXPECT_EQ(countOf(seen, senders[i]), 0u)
            << rows[i].who->label << "'s notification (" << senders[i] << ", to '" << rows[i].to
            << "') reached the voice service:\n" << seen;
}

// The two daemons, each under its own user, exchange all 49 messages: 19
// commands answered 0 and 30 notifications, each with the payload as sent.
TEST_P(Policy, TheDaemonsExchangeAll49Messages)
{
    const std::string before = mgmt->stdout_();
    Proc voice(voiceUser, {bin(VOICE_SIM), "--bus", address, "--name", VOICE_NAME, "--once"}, dir,
               "voice-once");
    EXPECT_EQ(voice.wait(15000), 0) << voice.stdout_() << voice.stderr_();
    const std::string out = voice.stdout_();
    EXPECT_EQ(countOf(out, ": command, "), 19u) << out;
    EXPECT_EQ(countOf(out, "answer 0x0 (done)"), 19u) << out;
    EXPECT_EQ(countOf(out, ": notification, "), 30u) << out;
    EXPECT_EQ(countOf(out, "sample payload"), 30u) << out;
    ASSERT_TRUE(waitUntil([&] { return countOf(mgmt->stdout_(), ": notification, ") - countOf(before, ": notification, ") == 30; }, 3000));
    const std::string served = mgmt->stdout_().substr(before.size());
    EXPECT_EQ(countOf(served, ": command, "), 19u) << served;
    EXPECT_EQ(countOf(served, "sample payload"), 19u) << served;
    EXPECT_EQ(countOf(served, ", sent\n"), 30u) << served;
}

#ifdef CORVANE_TOOL
// An engineer's corvane: a member of the engineers' group, and root, call
// and emit; the same uid outside the group cannot join. Monitoring takes
// root: dbus-daemon grants BecomeMonitor to no one else.
TEST_P(Policy, EngineersCallEmitAndMonitor)
{
    Proc voice(voiceUser, {bin(VOICE_SIM), "--bus", address, "--name", VOICE_NAME, "--to", "absent"},
               dir, std::string(GetParam()) + "-voice-engineers");
    ASSERT_TRUE(waitUntil([&] { return countOf(voice.stdout_(), "subscribed to 30 notifications") == 1; }, 5000))
        << voice.stderr_();
    Proc monitor(root, {bin(CORVANE_TOOL), "--bus", address, "monitor"}, dir, std::string(GetParam()) + "-monitor-root");
    ASSERT_TRUE(waitUntil([&] { return countOf(monitor.stderr_(), "corvane: monitoring ") == 1; }, 5000))
        << monitor.stderr_();

    const auto run = [&](const Account &who, std::vector<std::string> args, const std::string &tag) {
        args.insert(args.begin(), {bin(CORVANE_TOOL), "--bus", address});
        Proc p(who, args, dir, std::string(GetParam()) + "-" + tag);
        const int status = p.wait(10000);
        return std::to_string(status) + " " + p.stdout_() + p.stderr_();
    };
    for (const Account *who : {&engineer, &root}) {
        const std::string called = run(*who, {"call", "SetLineCallState", "{}"}, "call");
        EXPECT_EQ(called.rfind("0 SetLineCallState -> mgmt[", 0), 0u) << who->label << ": " << called;
        const std::string emitted = run(*who, {"emit", "OnMakeCall", "{}"}, "emit");
        EXPECT_EQ(emitted.rfind("0 ", 0), 0u) << who->label << ": " << emitted;
    }
    const std::string refused = run(outsider, {"call", "SetLineCallState", "{}"}, "call-outsider");
    EXPECT_EQ(refused.rfind("1 corvane: cannot join the bus", 0), 0u) << refused;
    const std::string refusedEmit = run(outsider, {"emit", "OnMakeCall", "{}"}, "emit-outsider");
    EXPECT_EQ(refusedEmit.rfind("1 ", 0), 0u) << refusedEmit;
    const std::string groupMonitor = run(engineer, {"monitor"}, "monitor-engineer");
    EXPECT_EQ(groupMonitor.rfind("1 ", 0), 0u) << groupMonitor;
    EXPECT_NE(groupMonitor.find("refused to be monitored"), std::string::npos) << groupMonitor;

    EXPECT_TRUE(waitUntil([&] { return countOf(voice.stdout_(), " OnMakeCall: notification, ") == 2; }, 5000))
        << voice.stdout_() << voice.stderr_();
    EXPECT_TRUE(waitUntil([&] { return countOf(monitor.stdout_(), "return SetLineCallState mgmt[") == 2; }, 5000))
        << monitor.stdout_();
    EXPECT_EQ(countOf(monitor.stdout_(), "call SetLineCallState corvane-"), 2u) << monitor.stdout_();
    EXPECT_EQ(countOf(monitor.stdout_(), "signal OnMakeCall corvane-"), 2u) << monitor.stdout_();
    EXPECT_EQ(monitor.stop(SIGTERM, 5000), 0);
    EXPECT_EQ(voice.stop(SIGTERM, 5000), 0);
    EXPECT_EQ(countOf(voice.stdout_(), " OnMakeCall: notification, "), 2u) << voice.stdout_();
}
#endif

// The policy written for the configured users is one dbus-daemon accepts,
// over either base policy (users that do not exist here are only warned
// about).
TEST_P(Policy, TheShippedPolicyLoads)
{
    const std::string conf = dir + "/shipped-" + GetParam() + ".conf";
    std::ofstream(conf) << config(GetParam(), dir + "/shipped-bus-" + GetParam(), SHIPPED_POLICY);
    Proc bus(root, {"/usr/bin/env", "dbus-daemon", "--config-file=" + conf, "--nofork", "--nopidfile",
                    "--nosyslog", "--print-address=1"},
             dir, std::string("shipped-bus-") + GetParam());
    EXPECT_TRUE(waitUntil([&] { return !bus.stdout_().empty(); }, 5000)) << bus.stderr_();
    EXPECT_EQ(bus.stop(SIGTERM, 5000), 0) << bus.stderr_();
    std::string errors = bus.stderr_();
    // Lines about users and groups this machine lacks are fine, and so is
    // one about the file descriptor limit in a container.
    std::istringstream lines(errors);
    for (std::string line; std::getline(lines, line);)
        EXPECT_TRUE(line.find("Unknown username") != std::string::npos ||
                    line.find("Unknown group") != std::string::npos ||
                    line.find("fd limit") != std::string::npos)
            << line;
}

INSTANTIATE_TEST_SUITE_P(Bus, Policy, ::testing::Values("system", "open"),
                         [](const auto &p) { return std::string(p.param); });

}  // namespace
