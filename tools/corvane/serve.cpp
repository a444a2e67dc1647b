#include "serve.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>

#include "bus_names.h"
#include "cli.h"
#include "inspect.h"
#include "names.h"
#include "quib_dbus.h"

namespace cvi {
namespace {

constexpr uint32_t kLogFlushMs = 100;

struct Server {
    const ServeOptions* options = nullptr;
    void* user = nullptr;
    uint64_t served = 0;
    bool timedOut = false;
};
Server server;

std::string dumpLine(const Json& j) { return j.dump(-1, ' ', false, Json::error_handler_t::replace); }

// The library's and the middleware's lines (a refused body, say), on stderr.
void flushLog() {
    for (const std::string& line : takeLog()) {
        if (server.options->json)
            std::cerr << dumpLine(Json{{"log", line}}) << std::endl;
        else
            std::cerr << "corvane: " << line << std::endl;
    }
}

void onLogTimer(void*) {
    flushLog();
    ranqDbus_schedule(kLogFlushMs, onLogTimer, nullptr);
}

void onTimeout(void*) {
    server.timedOut = true;
    ranqDbus_stop();
}

uint32_t answerFor(const CorVaneMessageInfo& m) {
    const auto& answers = server.options->answers;
    auto it = answers.find(m.name);
    if (it == answers.end()) it = answers.find("*");
    return it == answers.end() ? 0 : it->second;
}

std::string party(const std::string& name, int32_t pid) {
    return pid >= 0 ? name + "[" + std::to_string(pid) + "]" : name;
}

uint32_t onCommand(void* ctx, void* arg, void* payload) {
    const CorVaneMessageInfo& m = *static_cast<const CorVaneMessageInfo*>(arg);
    const uint32_t status = answerFor(m);
    quibCore_sendMsgRes(ctx, nullptr, status, 18);

    char sender[256] = "";
    int32_t pid = -1;
    quibDbus_ctxSender(ctx, sender, sizeof sender, &pid);
    const std::string& name = server.options->name;
    const int32_t self = static_cast<int32_t>(getpid());
    const uint32_t bytes = 24 + corVane_record_serialize_lg(m.payload, payload);
    // The keys of monitor --json's "call" entries that the middleware tells a
    // server, and the answer.
    Json j{{"type", "call"}, {"method", m.name}, {"interface", kCmdInterface}, {"sender", sender}};
    if (pid >= 0) j["sender_pid"] = pid;
    j["destination"] = name;
    j["destination_bus_name"] = userBusName(name);
    j["destination_pid"] = self;
    j["bytes"] = bytes;
    j["payload"] = recordToJson(*m.payload, payload);
    j["decode_status"] = 0;
    j["status"] = status;
    j["status_text"] = statusText(status);
    if (server.options->json) {
        std::cout << dumpLine(j) << std::endl;
    } else {
        std::ostringstream os;
        os << "call " << m.name << ' ' << party(sender, pid) << " -> " << party(name, self) << ", "
           << bytes << " bytes\n";
        printRecord(os, *m.payload, payload, 2);
        os << "return " << m.name << ' ' << party(name, self) << " -> " << party(sender, pid)
           << ": status " << status << " (" << statusText(status) << ")\n";
        std::cout << os.str() << std::flush;
    }
    ++server.served;
    if (server.options->count != 0 && server.served >= server.options->count) ranqDbus_stop();
    return 0;
}

uint32_t statusValue(const std::string& text, const std::string& where) {
    char* end = nullptr;
    errno = 0;
    const unsigned long long v = std::strtoull(text.c_str(), &end, 0);
    if (text.empty() || text[0] < '0' || text[0] > '9' || *end || errno || v > 0xffffffffull)
        throw Failure(kExitUsage, where + ": the status must be 0 to 4294967295 (or 0x0 to "
                                          "0xffffffff), not '" + text + "'");
    return static_cast<uint32_t>(v);
}

void addAnswer(ServeOptions& o, const std::string& method, uint32_t status, const std::string& where) {
    if (method == "*") {
        o.answers["*"] = status;
        return;
    }
    std::vector<std::string> commands;
    for (const CorVaneMessageInfo* m : allMessages())
        if (m->intf == CORVANE_INTF_CMD) commands.emplace_back(m->name);
    const auto found = resolveName(method, commands);
    if (!found) {
        const CorVaneMessageInfo* other = findMessage(method);
        const std::string hint = didYouMean(method, commands);
        throw Failure(kExitUsage, where + ": " +
                                      (other ? method + " is a notification: serve answers commands"
                                             : "unknown command '" + method + "'" +
                                                   (hint.empty() ? "" : " (" + hint + ")")));
    }
    o.answers[*found] = status;
}

#define CVI_SERVE(index, Name, name, NAME, magic, key, env, P, shape)                              \
    failed |= corVane_modSrv_recvMsg_##name(                                                       \
                  user, reinterpret_cast<void*>(&onCommand),                                       \
                  const_cast<CorVaneMessageInfo*>(corVane_messageInfo(CORVANE_INTF_CMD, index)),   \
                  nullptr) != 0;
#define CVI_NEED_UPDATE_NEED_UPDATE(Name) \
    failed |= corVane_modSrv_needUpdate_ntfy##Name(user, nullptr, nullptr, nullptr) != 0;
#define CVI_NEED_UPDATE_NO_UPDATE(Name)
#define CVI_NEED_UPDATE(index, Name, name, NAME, magic, key, nu, P, shape) CVI_NEED_UPDATE_##nu(Name)

}  // namespace

void addAnswers(ServeOptions& o, const std::string& spec) {
    const std::string where = "--answer " + spec;
    if (!spec.empty() && spec[0] == '@') {
        const Json j = payloadArgument(spec);
        if (!j.is_object())
            throw Failure(kExitUsage, spec.substr(1) + ": answers are a JSON object of "
                                                        "{\"METHOD\": STATUS, ...}");
        for (const auto& [method, status] : j.items()) {
            if (!status.is_number_unsigned() || status.get<uint64_t>() > 0xffffffffull)
                throw Failure(kExitUsage, spec.substr(1) + ": the status of " + method +
                                              " must be a number, 0 to 4294967295, not " +
                                              status.dump());
            addAnswer(o, method, static_cast<uint32_t>(status.get<uint64_t>()), spec.substr(1));
        }
        return;
    }
    const size_t eq = spec.find('=');
    if (eq == std::string::npos)
        throw Failure(kExitUsage, where + ": give METHOD=STATUS or @FILE");
    addAnswer(o, spec.substr(0, eq), statusValue(spec.substr(eq + 1), where), where);
}

int runServe(const ServeOptions& o) {
    server = Server{};
    server.options = &o;
    takeLog();
    uint32_t status = corvane_initialize();
    void* user = status == CORVANE_OK ? quibDbus_newUser(o.name.c_str(), o.address.c_str(), &status)
                                      : nullptr;
    if (!user) {
        flushLog();
        char number[16];
        std::snprintf(number, sizeof number, "0x%x", status);
        throw Failure(kExitRefused, "cannot serve as " + o.name + " on " + o.address + ": " +
                                        quibDbus_strerror(status) + " (status " + number + ")");
    }
    server.user = user;
    bool failed = corVane_regUser_msgMngt(user, nullptr, nullptr, CORVANE_SELECT_BOTH) != 0;
    CORVANE_COMMANDS(CVI_SERVE)
    CORVANE_NOTIFICATIONS(CVI_NEED_UPDATE)
    if (failed) {
        quibDbus_freeUser(user);
        flushLog();
        throw Failure(kExitRefused, "registering as the server of the commands failed");
    }
    ranqDbus_schedule(kLogFlushMs, onLogTimer, nullptr);
    if (o.timeoutMs) ranqDbus_schedule(o.timeoutMs, onTimeout, nullptr);
    if (o.json)
        std::cerr << dumpLine(Json{{"serving", userBusName(o.name)}, {"user", o.name}, {"bus", o.address}})
                  << std::endl;
    else
        std::cerr << "corvane: serving the commands as " << o.name << " (" << userBusName(o.name)
                  << ") on " << o.address << std::endl;

    const int rc = ranqDbus_run();
    quibDbus_freeUser(user);  // flushes the last answer
    flushLog();
    if (rc != 0) throw Failure(kExitRefused, "the bus went away (" + o.address + ")");
    if (server.timedOut && o.count != 0 && server.served < o.count) {
        throw Failure(kExitRefused, "served " + std::to_string(server.served) + " of " +
                                        std::to_string(o.count) + " commands in " +
                                        std::to_string(o.timeoutMs) + " ms");
    }
    return kExitOk;
}

}  // namespace cvi
