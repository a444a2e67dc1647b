// Two figures of the D-Bus middleware between processes, in one run:
//
// 1. Commands and notifications with and without a frozen subscriber: a
//    server process floods its subscribers with OnChangeObjectAccount, as
//    fast as the healthy one takes them, while this process calls
//    SetLineCallState on it in a loop; in alternating phases a second
//    subscriber is present and stopped (SIGSTOP) or absent. The bus is a
//    private dbus-daemon with the system bus's default limits (127 MB per
//    connection). Printed: commands per second, the slowest answer, and
//    notifications per second at the healthy subscriber, each the median
//    of the rounds, and the ratio with / without.
//
// 2. One SetLineCallState call and its answer through the library and
//    libcorvane_dbus, next to a plain sd-bus method call that carries the
//    same bytes ("ay" in, "u" back), in alternating batches: the median
//    time per call of each and their ratio.
//
// The program starts the dbus-daemon and copies of itself: the server
// (--serve: the command through the library, a plain sd-bus method, and the
// flood, switched on and off with SetBatteryEnable) and the subscribers
// (--subscribe: each counts what it receives and writes the count to a
// file every 50 ms).
//
// Usage: corvane_bench_bus [--calls N] [--rounds R] [--phase-ms P]
//        (defaults 2000, 15 and 1000)
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <systemd/sd-bus.h>

#include "corvane/corvane.h"
#include "quib_dbus.h"

extern char **environ;

namespace {

constexpr const char kPlainName[] = "org.corvane.bench.plain";
constexpr const char kPlainPath[] = "/org/corvane/bench";
constexpr const char kPlainIntf[] = "org.corvane.bench";

using Clock = std::chrono::steady_clock;

[[noreturn]] void fail(const std::string &why)
{
    std::fprintf(stderr, "corvane_bench_bus: %s\n", why.c_str());
    std::exit(1);
}

sd_bus *connect(const char *address)
{
    sd_bus *bus = nullptr;
    if (sd_bus_new(&bus) < 0 || sd_bus_set_address(bus, address) < 0 ||
        sd_bus_set_bus_client(bus, 1) < 0 || sd_bus_start(bus) < 0)
        fail(std::string("cannot reach the bus at ") + address);
    return bus;
}

// ---- the server process ----------------------------------------------------------

int plainMethod(sd_bus_message *m, void *, sd_bus_error *)
{
    const void *bytes;
    size_t size;
    if (sd_bus_message_read_array(m, 'y', &bytes, &size) < 0)
        return -EINVAL;
    return sd_bus_reply_method_return(m, "u", 0u);
}

// Unprivileged: else sd-bus asks the bus for the caller's credentials on
// every call, which costs a round trip the library's path does not make.
const sd_bus_vtable kPlainVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("SetLineCallState", "ay", "u", plainMethod, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

uint32_t onCallState(void *, void *, void *) { return 0; }

// The flood: as many notifications per turn of the loop as a subscriber
// takes (at most 64), the next turn at once; when none took one (the
// healthy subscriber's window is full too), 1 ms later.
void *serverUser = nullptr;
bool flooding = false;
const Account kAccount{};

void flood(void *)
{
    if (!flooding)
        return;
    int sent = 0;
    for (; sent < 64; ++sent) {
        corVane_sendReq_ntfyOnChangeObjectAccount(serverUser, nullptr, nullptr, &kAccount);
        QuibDbusSendReport report{};
        quibDbus_lastSend(serverUser, &report);
        if (report.sent == 0)
            break;
    }
    ranqDbus_schedule(sent > 0 ? 0 : 1, flood, nullptr);
}

uint32_t onBattery(void *, void *, void *payload)
{
    const bool on = static_cast<const CorVaneBatteryEnable *>(payload)->enable != 0;
    if (on && !flooding)
        ranqDbus_schedule(0, flood, nullptr);
    flooding = on;
    return 0;
}

int serve(const char *address)
{
    uint32_t status = 0;
    if (corvane_initialize() != 0)
        fail("corvane_initialize failed");
    void *user = serverUser = quibDbus_newUser("bench-server", address, &status);
    if (user == nullptr)
        fail(std::string("server: ") + quibDbus_strerror(status));
    corVane_regUser_msgMngt(user, nullptr, nullptr, CORVANE_SELECT_BOTH);
    corVane_modSrv_recvMsg_setLineCallState(user, reinterpret_cast<void *>(onCallState), nullptr,
                                            nullptr);
    corVane_modSrv_recvMsg_setBatteryEnable(user, reinterpret_cast<void *>(onBattery), nullptr,
                                            nullptr);
    // The plain server: its own connection on the same event loop.
    sd_bus *plain = connect(address);
    sd_event *event = nullptr;
    sd_event_default(&event);
    if (sd_bus_add_object_vtable(plain, nullptr, kPlainPath, kPlainIntf, kPlainVtable, nullptr) < 0 ||
        sd_bus_request_name(plain, kPlainName, 0) < 0 || sd_bus_attach_event(plain, event, 0) < 0)
        fail("plain server setup failed");
    const int r = ranqDbus_run();
    QuibDbusCounters c{};
    quibDbus_counters(user, &c);
    std::printf("%llu %llu %llu\n", static_cast<unsigned long long>(c.notifications),
                static_cast<unsigned long long>(c.queueFull), static_cast<unsigned long long>(c.stalls));
    sd_bus_flush_close_unref(plain);
    sd_event_unref(event);
    quibDbus_freeUser(user);
    return r == 0 ? 0 : 1;
}

// ---- a subscriber process --------------------------------------------------------

uint64_t received = 0;
std::string countFile;

uint32_t onAccount(void *, void *, void *)
{
    ++received;
    return 0;
}

// Written to a new file, then renamed over the old: a reader never sees half.
void writeCount(void *)
{
    const std::string tmp = countFile + ".new";
    if (FILE *f = std::fopen(tmp.c_str(), "w")) {
        std::fprintf(f, "%llu\n", static_cast<unsigned long long>(received));
        std::fclose(f);
        std::rename(tmp.c_str(), countFile.c_str());
    }
    ranqDbus_schedule(50, writeCount, nullptr);
}

int subscribe(const char *address, const char *name, const char *file)
{
    uint32_t status = 0;
    if (corvane_initialize() != 0)
        fail("corvane_initialize failed");
    void *user = quibDbus_newUser(name, address, &status);
    if (user == nullptr)
        fail(std::string("subscriber: ") + quibDbus_strerror(status));
    corVane_regUser_msgMngt(user, nullptr, nullptr, CORVANE_SELECT_NTFY);
    corVane_modCliNtfyUser_recvMsg_onChangeObjectAccount(user, reinterpret_cast<void *>(onAccount),
                                                         nullptr, nullptr, nullptr, name);
    countFile = file;
    writeCount(nullptr);
    const int r = ranqDbus_run();
    quibDbus_freeUser(user);
    return r == 0 ? 0 : 1;
}

// ---- the client -------------------------------------------------------------------

struct Child {
    pid_t pid = -1;
    ~Child() { stop(); }
    void stop(int sig = SIGTERM)
    {
        if (pid > 0) {
            kill(pid, SIGCONT);
            kill(pid, sig);
            waitpid(pid, nullptr, 0);
        }
        pid = -1;
    }
};

pid_t spawn(std::vector<std::string> args, const char *out)
{
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    if (out != nullptr)
        posix_spawn_file_actions_addopen(&fa, 1, out, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
    std::vector<char *> argv;
    for (auto &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawnp(&pid, argv[0], &fa, nullptr, argv.data(), environ) != 0)
        fail("cannot start " + args[0]);
    posix_spawn_file_actions_destroy(&fa);
    return pid;
}

bool waitFor(const std::function<bool()> &ready)
{
    for (int i = 0; i < 250; ++i) {
        if (ready())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

uint32_t plainCall(sd_bus *bus, const std::vector<uint8_t> &bytes)
{
    sd_bus_message *m = nullptr, *reply = nullptr;
    uint32_t status = 1;
    if (sd_bus_message_new_method_call(bus, &m, kPlainName, kPlainPath, kPlainIntf,
                                       "SetLineCallState") < 0 ||
        sd_bus_message_append_array(m, 'y', bytes.data(), bytes.size()) < 0 ||
        sd_bus_call(bus, m, uint64_t{QUIB_DBUS_TIMEOUT_MS} * 1000, nullptr, &reply) < 0 ||
        sd_bus_message_read(reply, "u", &status) < 0)
        status = 1;
    sd_bus_message_unref(reply);
    sd_bus_message_unref(m);
    return status;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

uint64_t readCount(const std::string &file)
{
    unsigned long long n = 0;
    if (FILE *f = std::fopen(file.c_str(), "r")) {
        if (std::fscanf(f, "%llu", &n) != 1)
            n = 0;
        std::fclose(f);
    }
    return n;
}

long rssKiB(pid_t pid)
{
    long kib = 0;
    if (FILE *f = std::fopen(("/proc/" + std::to_string(pid) + "/status").c_str(), "r")) {
        char line[256];
        while (std::fgets(line, sizeof line, f) != nullptr)
            if (std::strncmp(line, "VmRSS:", 6) == 0)
                kib = std::atol(line + 6);
        std::fclose(f);
    }
    return kib;
}

// The system bus's limits (dbus-daemon's defaults for a system bus) on a
// private session-type bus at `socket`.
std::string systemLimitsConfig(const std::string &socket)
{
    return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
           "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig><type>session</type><listen>unix:path=" +
           socket +
           "</listen><auth>EXTERNAL</auth>\n"
           "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
           "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy>\n"
           "<limit name=\"max_incoming_bytes\">133169152</limit>\n"
           "<limit name=\"max_outgoing_bytes\">133169152</limit>\n"
           "<limit name=\"max_message_size\">33554432</limit>\n"
           "<limit name=\"max_replies_per_connection\">128</limit>\n"
           "<limit name=\"max_match_rules_per_connection\">512</limit>\n"
           "</busconfig>\n";
}


// Figure 1 (see the top of the file). Returns nothing; prints its lines.
void frozenFigure(void *user, const std::string &address, const std::string &dir, pid_t daemon,
                  pid_t server, int rounds, int phaseMs)
{
    const std::string healthyFile = dir + "/healthy", frozenFile = dir + "/frozen";
    Child healthy;
    healthy.pid = spawn({"/proc/self/exe", "--subscribe", address, "bench-healthy", healthyFile}, nullptr);
    if (!waitFor([&] { return readCount(healthyFile) == 0 && access(healthyFile.c_str(), F_OK) == 0; }))
        fail("the subscriber did not come up");
    const lineCallState state = {1, 2, 3};
    if (corVane_sendReq_setBatteryEnable(user, nullptr, "bench-server", 1) != 0)
        fail("the server does not flood");
    std::this_thread::sleep_for(std::chrono::milliseconds(200));

    struct Phase {
        std::vector<double> calls, slowest, notifications;
    } without, with;
    long brokerKiB = 0, serverKiB = 0;
    auto measure = [&](Phase &into) {
        const uint64_t before = readCount(healthyFile);
        const auto start = Clock::now();
        double slowest = 0;
        int n = 0;
        while (Clock::now() - start < std::chrono::milliseconds(phaseMs)) {
            const auto t = Clock::now();
            if (uint32_t st = corVane_sendReq_setLineCallState(user, nullptr, "bench-server", &state); st != 0)
                fail("a call answered " + std::to_string(st) + " (" + quibDbus_strerror(st) + ")");
            slowest = std::max(slowest, std::chrono::duration<double, std::milli>(Clock::now() - t).count());
            ++n;
        }
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        // The count file is written every 50 ms: let the last one land.
        std::this_thread::sleep_for(std::chrono::milliseconds(60));
        into.calls.push_back(n / seconds);
        into.slowest.push_back(slowest);
        into.notifications.push_back((readCount(healthyFile) - before) / (seconds + 0.06));
    };
    for (int r = 0; r < rounds; ++r) {
        measure(without);
        Child frozen;
        std::remove(frozenFile.c_str());
        frozen.pid = spawn({"/proc/self/exe", "--subscribe", address, "bench-frozen", frozenFile}, nullptr);
        if (!waitFor([&] { return readCount(frozenFile) > 0; }))
            fail("the second subscriber received nothing");
        kill(frozen.pid, SIGSTOP);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));  // its window fills
        measure(with);
        brokerKiB = std::max(brokerKiB, rssKiB(daemon));
        serverKiB = std::max(serverKiB, rssKiB(server));
        frozen.stop(SIGKILL);
    }
    corVane_sendReq_setBatteryEnable(user, nullptr, "bench-server", 0);
    healthy.stop();
    const double c0 = median(without.calls), c1 = median(with.calls);
    const double n0 = median(without.notifications), n1 = median(with.notifications);
    std::printf("Commands and notifications on a private dbus-daemon with the system bus's limits "
                "(127 MB per\nconnection): the server floods its subscribers with "
                "OnChangeObjectAccount (%u bytes) as fast\nas the healthy one takes them, while "
                "this process calls SetLineCallState on it; median of %d\nrounds of %d ms:\n",
                24 + corVane_record_serialize_lg(corVane_messageByName("OnChangeObjectAccount")->payload,
                                                 &kAccount),
                rounds, phaseMs);
    std::printf("                                   commands/s  slowest answer  notifications/s "
                "(healthy subscriber)\n");
    std::printf("  no frozen subscriber             %10.0f  %11.1f ms  %15.0f\n", c0,
                median(without.slowest), n0);
    std::printf("  one frozen subscriber (SIGSTOP)  %10.0f  %11.1f ms  %15.0f\n", c1,
                median(with.slowest), n1);
    std::printf("  with / without                   %10.2f  %14s  %15.2f (target: at least 0.90)\n",
                c1 / c0, "", n1 / n0);
    std::printf("  memory while one was frozen: dbus-daemon %ld KiB, server %ld KiB (resident, "
                "largest seen)\n",
                brokerKiB, serverKiB);
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc == 3 && std::strcmp(argv[1], "--serve") == 0)
        return serve(argv[2]);
    if (argc == 5 && std::strcmp(argv[1], "--subscribe") == 0)
        return subscribe(argv[2], argv[3], argv[4]);
    int calls = 2000, rounds = 15, phaseMs = 1000;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--calls") == 0)
            calls = std::atoi(argv[i + 1]);
        else if (std::strcmp(argv[i], "--rounds") == 0)
            rounds = std::atoi(argv[i + 1]);
        else if (std::strcmp(argv[i], "--phase-ms") == 0)
            phaseMs = std::atoi(argv[i + 1]);
        else
            calls = 0;
    }
    if (calls <= 0 || rounds <= 0 || phaseMs <= 0 || argc % 2 == 0) {
        std::fprintf(stderr, "usage: corvane_bench_bus [--calls N] [--rounds R] [--phase-ms P]\n");
        return 2;
    }

    char dir[] = "/tmp/corvane-bench-bus-XXXXXX";
    if (mkdtemp(dir) == nullptr)
        fail("mkdtemp failed");
    const std::string conf = std::string(dir) + "/bus.conf";
    if (FILE *f = std::fopen(conf.c_str(), "w")) {
        std::fputs(systemLimitsConfig(std::string(dir) + "/bus").c_str(), f);
        std::fclose(f);
    }
    const std::string addrFile = std::string(dir) + "/address", serverOut = std::string(dir) + "/server";
    Child daemon, server;
    daemon.pid = spawn({"dbus-daemon", "--config-file=" + conf, "--nofork", "--print-address"},
                       addrFile.c_str());
    std::string address;
    if (!waitFor([&] {
            FILE *f = std::fopen(addrFile.c_str(), "r");
            char line[512] = "";
            if (f != nullptr) {
                if (std::fgets(line, sizeof line, f) != nullptr && std::strchr(line, '\n'))
                    address.assign(line, std::strcspn(line, "\n"));
                std::fclose(f);
            }
            return !address.empty();
        }))
        fail("dbus-daemon did not start");
    server.pid = spawn({"/proc/self/exe", "--serve", address}, serverOut.c_str());

    uint32_t status = 0;
    if (corvane_initialize() != 0)
        fail("corvane_initialize failed");
    void *user = quibDbus_newUser("bench-client", address.c_str(), &status);
    if (user == nullptr)
        fail(quibDbus_strerror(status));
    sd_bus *plain = connect(address.c_str());
    auto plainUp = [&] {
        sd_bus_creds *creds = nullptr;
        const bool up = sd_bus_get_name_creds(plain, kPlainName, 0, &creds) >= 0;
        sd_bus_creds_unref(creds);
        return up;
    };
    if (!waitFor([&] { return quibDbus_userPid(user, "bench-server") > 0 && plainUp(); }))
        fail("the server did not come up");

    frozenFigure(user, address, dir, daemon.pid, server.pid, rounds, phaseMs);
    std::printf("\n");
    const lineCallState state = {1, 2, 3};
    // The same bytes the library sends: the body its serializeBody writes.
    const CorVaneMessageInfo *info = corVane_messageByName("SetLineCallState");
    void *body = std::calloc(1, info->bodySize);
    std::memcpy(body, &info->magic, sizeof info->magic);
    std::memcpy(corVane_bodyPayload(body), &state, sizeof state);
    uint8_t *buf = nullptr;
    uint32_t len = 0;
    const CorVaneMethod &method = corVane_base.cmd.methods[info->index];
    if (method.serializeBody(CORVANE_BODY_REQUEST, body, &buf, &len) != 0)
        fail("serializeBody failed");
    method.freeBody(CORVANE_BODY_REQUEST, body);
    const std::vector<uint8_t> bytes(buf, buf + len);
    std::free(buf);

    auto library = [&] { return corVane_sendReq_setLineCallState(user, nullptr, "bench-server", &state); };
    auto raw = [&] { return plainCall(plain, bytes); };
    // Microseconds per call over one batch; any failed call stops the run.
    auto batch = [&](auto call, int n) {
        const auto t = Clock::now();
        for (int i = 0; i < n; ++i)
            if (uint32_t st = call(); st != 0)
                fail("a call answered " + std::to_string(st) + " (" + quibDbus_strerror(st) + ")");
        return std::chrono::duration<double, std::micro>(Clock::now() - t).count() / n;
    };
    batch(library, 200);  // warm-up
    batch(raw, 200);
    std::vector<double> lib, plainTimes;
    for (int r = 0; r < rounds; ++r) {
        lib.push_back(batch(library, calls));
        plainTimes.push_back(batch(raw, calls));
    }
    const double a = median(lib), b = median(plainTimes);
    std::printf("SetLineCallState, call and answer between two processes over a private dbus-daemon\n"
                "(%zu bytes \"ay\" in, \"u\" back); median of %d batches of %d calls, alternating:\n",
                bytes.size(), rounds, calls);
    std::printf("  library + libcorvane_dbus  %8.1f us per call (fastest batch %.1f)\n", a,
                *std::min_element(lib.begin(), lib.end()));
    std::printf("  plain sd-bus method call   %8.1f us per call (fastest batch %.1f)\n", b,
                *std::min_element(plainTimes.begin(), plainTimes.end()));
    std::printf("  ratio                      %8.2f (target: at most 1.20)\n", a / b);

    sd_bus_flush_close_unref(plain);
    quibDbus_freeUser(user);
    server.stop();
    if (FILE *f = std::fopen(serverOut.c_str(), "r")) {
        unsigned long long sent = 0, skipped = 0, stalls = 0;
        if (std::fscanf(f, "%llu %llu %llu", &sent, &skipped, &stalls) == 3)
            std::printf("\nThe server sent %llu notifications; %llu were not sent to a subscriber "
                        "whose window was full (%llu times full).\n",
                        sent, skipped, stalls);
        std::fclose(f);
    }
    std::system((std::string("rm -rf ") + dir).c_str());
    return 0;
}
