// Names: a user name as a well-known bus name, a table name as an object
// path and an interface, and the bus address a user is given.

#include "internal.h"

#include <cstdlib>
#include <cstring>

namespace quibdbus {
namespace {

bool isAlnum(unsigned char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

}  // namespace

std::string escape(const char *name)
{
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(name); *p; ++p) {
        const bool leadingDigit = out.empty() && *p >= '0' && *p <= '9';
        if (isAlnum(*p) && !leadingDigit) {
            out += static_cast<char>(*p);
        } else {
            out += '_';
            out += kHex[*p >> 4];
            out += kHex[*p & 15];
        }
    }
    return out;
}

std::string unescape(const char *escaped)
{
    std::string out;
    for (const char *p = escaped; *p; ++p) {
        int hi, lo;
        if (*p == '_' && (hi = hexValue(p[1])) >= 0 && (lo = hexValue(p[2])) >= 0) {
            out += static_cast<char>(hi << 4 | lo);
            p += 2;
        } else {
            out += *p;
        }
    }
    return out;
}

}  // namespace quibdbus

using namespace quibdbus;

extern "C" {

const char *quibDbus_address(const char *address)
{
    return guarded<const char *>(nullptr, [&]() -> const char * {
        const char *given = address;
        if (given == nullptr || *given == '\0')
            given = std::getenv("CORVANE_BUS");
        if (given == nullptr || *given == '\0')
            return nullptr;
        // The two buses a process finds by name, as sd_bus_open_system and
        // sd_bus_open_user find them.
        std::string &named = st().namedAddress;
        if (std::strcmp(given, "system") == 0) {
            const char *env = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
            named = env != nullptr && *env != '\0' ? env : "unix:path=/run/dbus/system_bus_socket";
            return named.c_str();
        }
        if (std::strcmp(given, "user") == 0) {
            const char *env = std::getenv("DBUS_SESSION_BUS_ADDRESS");
            const char *runtime = std::getenv("XDG_RUNTIME_DIR");
            if (env != nullptr && *env != '\0')
                named = env;
            else if (runtime != nullptr && *runtime == '/')
                named = std::string("unix:path=") + runtime + "/bus";
            else
                return nullptr;
            return named.c_str();
        }
        return given;
    });
}

const char *quibDbus_addressProblem(const char *address)
{
    return guarded<const char *>("not a bus address", [&]() -> const char * {
        if (address == nullptr || *address == '\0')
            return "no bus: give --bus ADDRESS (or system, or user) or set CORVANE_BUS";
        // Every address of a list "a;b" is transport:key=value,...
        const char *colon = std::strchr(address, ':');
        const char *semicolon = std::strchr(address, ';');
        if (colon != nullptr && (semicolon == nullptr || colon < semicolon) && colon != address)
            return nullptr;
        std::string &line = st().addressProblem;
        if (std::strchr(address, '/') != nullptr)
            line = std::string(address) + " is a path, not a bus address: give unix:path=" + address;
        else
            line = std::string(address) +
                   " is not a bus address (transport:key=value, e.g. unix:path=/run/corvane/bus), "
                   "nor system or user";
        return line.c_str();
    });
}

int quibDbus_busName(const char *userName, char *out, size_t size)
{
    return guarded<int>(-1, [&]() -> int {
        if (userName == nullptr || *userName == '\0' || out == nullptr)
            return -1;
        const std::string name = kUserPrefix + escape(userName);
        if (name.size() > kMaxBusName || name.size() + 1 > size)
            return -1;
        std::memcpy(out, name.c_str(), name.size() + 1);
        return 0;
    });
}

}  // extern "C"
