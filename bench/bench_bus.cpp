// One SetLineCallState call and its answer between two processes, through
// the library and libcorvane_dbus, next to a plain sd-bus method call that
// carries the same bytes ("ay" in, "u" back), in the same run.
//
// The program starts a private dbus-daemon and a copy of itself as the
// server process (--serve), which serves both: the command through the
// library (a handler that does nothing), and a plain sd-bus method whose
// handler reads the bytes and answers 0. The client then times batches of
// calls, alternating between the two, and prints the median time per call of
// each and their ratio.
//
// Usage: corvane_bench_bus [--calls N] [--rounds R]   (defaults 2000 and 15)
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

int serve(const char *address)
{
    uint32_t status = 0;
    if (corvane_initialize() != 0)
        fail("corvane_initialize failed");
    void *user = quibDbus_newUser("bench-server", address, &status);
    if (user == nullptr)
        fail(std::string("server: ") + quibDbus_strerror(status));
    corVane_regUser_msgMngt(user, nullptr, nullptr, CORVANE_SELECT_CMD);
    corVane_modSrv_recvMsg_setLineCallState(user, reinterpret_cast<void *>(onCallState), nullptr,
                                            nullptr);
    // The plain server: its own connection on the same event loop.
    sd_bus *plain = connect(address);
    sd_event *event = nullptr;
    sd_event_default(&event);
    if (sd_bus_add_object_vtable(plain, nullptr, kPlainPath, kPlainIntf, kPlainVtable, nullptr) < 0 ||
        sd_bus_request_name(plain, kPlainName, 0) < 0 || sd_bus_attach_event(plain, event, 0) < 0)
        fail("plain server setup failed");
    const int r = ranqDbus_run();
    sd_bus_flush_close_unref(plain);
    sd_event_unref(event);
    quibDbus_freeUser(user);
    return r == 0 ? 0 : 1;
}

// ---- the client -------------------------------------------------------------------

struct Child {
    pid_t pid = -1;
    ~Child()
    {
        if (pid > 0) {
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
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

}  // namespace

int main(int argc, char **argv)
{
    if (argc == 3 && std::strcmp(argv[1], "--serve") == 0)
        return serve(argv[2]);
    int calls = 2000, rounds = 15;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--calls") == 0)
            calls = std::atoi(argv[i + 1]);
        else if (std::strcmp(argv[i], "--rounds") == 0)
            rounds = std::atoi(argv[i + 1]);
    }
    if (calls <= 0 || rounds <= 0 || argc % 2 == 0) {
        std::fprintf(stderr, "usage: corvane_bench_bus [--calls N] [--rounds R]\n");
        return 2;
    }

    char dir[] = "/tmp/corvane-bench-bus-XXXXXX";
    if (mkdtemp(dir) == nullptr)
        fail("mkdtemp failed");
    const std::string addrFile = std::string(dir) + "/address";
    Child daemon, server;
    daemon.pid = spawn({"dbus-daemon", "--session", std::string("--address=unix:path=") + dir + "/bus",
                        "--nofork", "--print-address"},
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
    server.pid = spawn({"/proc/self/exe", "--serve", address}, nullptr);

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
    std::system((std::string("rm -rf ") + dir).c_str());
    return 0;
}
