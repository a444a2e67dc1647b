// Peers: who is behind a user name or a received message, as the bus tells.

#include "internal.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace quibdbus;

extern "C" {

int32_t quibDbus_userPid(void *user, const char *userName)
{
    User *u = userOf(user);
    char name[kMaxBusName + 1];
    if (u == nullptr || quibDbus_busName(userName, name, sizeof name) != 0)
        return -1;
    sd_bus_creds *creds = nullptr;
    pid_t pid = -1;
    if (sd_bus_get_name_creds(u->bus, name, SD_BUS_CREDS_PID, &creds) < 0 ||
        sd_bus_creds_get_pid(creds, &pid) < 0)
        pid = -1;
    sd_bus_creds_unref(creds);
    return pid;
}

int quibDbus_ctxSender(void *ctx, char *userName, size_t size, int32_t *pid)
{
    return guarded<int>(-1, [&]() -> int {
        auto *c = static_cast<MsgCtx *>(ctx);
        if (!isLive(c))
            return -1;
        const char *unique = sd_bus_message_get_sender(c->message);
        if (unique == nullptr)
            unique = "";
        State &s = st();
        auto it = s.peers.find(unique);
        if (it == s.peers.end()) {
            // Looked up once per connection: its pid, and the user name whose
            // well-known name it owns (its unique name if none).
            Peer peer{unique, -1};
            sd_bus *bus = c->to->bus;
            sd_bus_creds *creds = nullptr;
            pid_t p;
            if (sd_bus_get_name_creds(bus, unique, SD_BUS_CREDS_PID, &creds) >= 0 &&
                sd_bus_creds_get_pid(creds, &p) >= 0)
                peer.pid = p;
            creds = sd_bus_creds_unref(creds);
            char **names = nullptr;
            if (sd_bus_list_names(bus, &names, nullptr) >= 0 && names != nullptr) {
                const size_t prefix = std::strlen(kUserPrefix);
                for (char **n = names; *n != nullptr; ++n) {
                    const char *owner = nullptr;
                    if (std::strncmp(*n, kUserPrefix, prefix) == 0 &&
                        sd_bus_get_name_creds(bus, *n, SD_BUS_CREDS_UNIQUE_NAME, &creds) >= 0 &&
                        sd_bus_creds_get_unique_name(creds, &owner) >= 0 &&
                        std::strcmp(owner, unique) == 0)
                        peer.name = unescape(*n + prefix);
                    creds = sd_bus_creds_unref(creds);
                }
            }
            for (char **n = names; n != nullptr && *n != nullptr; ++n)
                std::free(*n);
            std::free(names);
            if (s.peers.size() >= 64)
                s.peers.clear();
            it = s.peers.emplace(unique, peer).first;
        }
        if (userName != nullptr && size > 0)
            std::snprintf(userName, size, "%s", it->second.name.c_str());
        if (pid != nullptr)
            *pid = it->second.pid;
        return 0;
    });
}

}  // extern "C"
