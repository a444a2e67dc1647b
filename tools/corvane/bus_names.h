// Names on the bus. A user is the connection that owns
// "org.corvane.user." + the escaped user name: bytes [A-Za-z0-9] are kept,
// any other byte and a leading digit become "_" and two lower-case hex
// digits ("voice-1" -> org.corvane.user.voice_2d1). Commands are method calls
// and notifications signals on /org/corvane/<table> with interface
// org.corvane.<table>, member = the method name.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace cvi {

inline constexpr std::string_view kUserPrefix = "org.corvane.user.";
inline constexpr const char* kCmdInterface = "org.corvane.CorVaneCmd";
inline constexpr const char* kNtfyInterface = "org.corvane.CorVaneNtfy";
inline constexpr const char* kCmdPath = "/org/corvane/CorVaneCmd";
inline constexpr const char* kNtfyPath = "/org/corvane/CorVaneNtfy";

// The well-known name of a user; empty for an empty user name.
std::string userBusName(std::string_view user);
// The user name behind a well-known name of that form; nullopt for any other
// name (another prefix, a bad escape, an escape that was not needed).
std::optional<std::string> userOfBusName(std::string_view busName);

}  // namespace cvi
