// What the verbs of `corvane` share: exit statuses, the error that ends a
// verb with one line, reading inputs and payload arguments, the bus address.
#pragma once

#include <stdexcept>
#include <string>

#include "record_json.h"

namespace cvi {

constexpr int kExitOk = 0;
constexpr int kExitRefused = 1;  // the body, the JSON or the bus refused
constexpr int kExitUsage = 2;    // bad usage: unknown name, unreadable input, wrong kind of input

// Ends a verb: one line (or, with --json, one object whose "error" is that
// line, with the details) and the exit status.
struct Failure : std::runtime_error {
    Failure(int status, const std::string& line, Json details = Json::object())
        : std::runtime_error(line), exitStatus(status), detail(std::move(details)) {}
    int exitStatus;
    Json detail;
};

// The whole content of a file, or of standard input for "-". A directory, a
// missing or unreadable file is a usage Failure naming it.
std::string readInput(const std::string& path);

// A payload given on the command line: JSON text, "@FILE" for a file's
// content, "@-" for standard input. Not JSON: a refused Failure.
Json payloadArgument(const std::string& arg);

// The bus to use: the --bus option, else $CORVANE_BUS, "system" and "user"
// naming those buses (as the middleware reads them); none, or something that
// is no bus address (a path, say), is a usage Failure with a hint. Defined
// with the sending code (bus_send.cpp), which links the middleware.
std::string busAddress(const std::string& option);

}  // namespace cvi
