#include "bus_names.h"

namespace cvi {
namespace {

bool keptAsIs(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;  // upper case is never written
}

}  // namespace

std::string userBusName(std::string_view user) {
    if (user.empty()) return "";
    static const char kHex[] = "0123456789abcdef";
    std::string out(kUserPrefix);
    for (size_t i = 0; i < user.size(); ++i) {
        const auto c = static_cast<unsigned char>(user[i]);
        if (keptAsIs(c) && !(i == 0 && c >= '0' && c <= '9')) {
            out += static_cast<char>(c);
        } else {
            out += '_';
            out += kHex[c >> 4];
            out += kHex[c & 15];
        }
    }
    return out;
}

std::optional<std::string> userOfBusName(std::string_view busName) {
    if (busName.substr(0, kUserPrefix.size()) != kUserPrefix) return std::nullopt;
    const std::string_view rest = busName.substr(kUserPrefix.size());
    std::string user;
    for (size_t i = 0; i < rest.size(); ++i) {
        if (rest[i] != '_') {
            user += rest[i];
            continue;
        }
        if (i + 2 >= rest.size()) return std::nullopt;
        const int hi = hexValue(rest[i + 1]), lo = hexValue(rest[i + 2]);
        if (hi < 0 || lo < 0) return std::nullopt;
        user += static_cast<char>(hi << 4 | lo);
        i += 2;
    }
    // Only the canonical spelling names a user.
    if (user.empty() || userBusName(user) != busName) return std::nullopt;
    return user;
}

}  // namespace cvi
