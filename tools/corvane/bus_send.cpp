#include "bus_send.h"

#include <unistd.h>

#include "cli.h"
#include "inspect.h"
#include "quib_dbus.h"

namespace cvi {

std::string busAddress(const std::string& option) {
    const char* address = quibDbus_address(option.empty() ? nullptr : option.c_str());
    if (const char* problem = quibDbus_addressProblem(address)) throw Failure(kExitUsage, problem);
    return address;
}

SendOutcome sendOnBus(const std::string& address, const SendEntry& e, const std::string& to,
                      const void* payload, uint32_t timeoutMs) {
    SendOutcome out;
    out.from = "corvane-" + std::to_string(getpid());
    takeLog();
    out.status = corvane_initialize();
    void* user = out.status == CORVANE_OK
                     ? quibDbus_newUser(out.from.c_str(), address.c_str(), &out.status)
                     : nullptr;
    if (user) {
        out.joined = true;
        out.status = corVane_regUser_msgMngt(user, nullptr, nullptr, CORVANE_SELECT_BOTH);
    }
    if (out.joined && out.status == CORVANE_OK) {
        quibDbus_setTimeout(timeoutMs);
        out.timeoutMs = quibDbus_timeout();
        e.send(user, to.c_str(), payload);
        // A notification's send function returns nothing: the middleware
        // keeps the status of either kind of send.
        out.status = quibDbus_lastStatus(user);
        QuibDbusSendReport report{};
        if (quibDbus_lastSend(user, &report) == 0) out.subscribers = report.subscribers;
        if (e.intf == CORVANE_INTF_CMD) out.toPid = quibDbus_userPid(user, to.c_str());
        corVane_unregUser_msgMngt(user, CORVANE_SELECT_BOTH);
    }
    if (user) quibDbus_freeUser(user);  // flushes what is still queued (a signal)
    out.log = takeLog();
    return out;
}

}  // namespace cvi
