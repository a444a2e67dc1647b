// The operations of `corvane` on bodies, separate from its command line so
// that tests drive them directly. Everything goes through libCorvane's public C API:
// message descriptors, record schemas, the method entries of corVane_base
// (serializeBody, freeBody) and the bounded decoders.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <span>
#include <string>
#include <vector>

#include "corvane/corvane.h"
#include "record_json.h"
#include "wire.h"

namespace cvi {

// The library's log lines captured since the last call (syslog is replaced
// in the tool's process, see log_capture.cpp).
std::vector<std::string> takeLog();

// A message by method name, or nullptr.
const CorVaneMessageInfo* findMessage(const std::string& name);
// The 19 commands, then the 30 notifications.
std::vector<const CorVaneMessageInfo*> allMessages();
// The messages whose body magic that is.
std::vector<const CorVaneMessageInfo*> messagesWithMagic(uint32_t magic);
// The value of the body's first element when it is a tag-0 u32 element.
std::optional<uint32_t> bodyMagic(std::span<const uint8_t> bytes);
// "command" or "notification".
const char* interfaceKind(const CorVaneMessageInfo& m);
// The meaning of a library status (0 done, 1..5, 20 no handler).
const char* statusText(uint32_t status);
// A record or scalar payload schema by type name (or, failing that, the
// payload of the message of that name), or nullptr.
const CorVaneSchema* findSchema(const std::string& name);

// A body as corVane_unserializeBody_bounded rebuilt it, released with the
// message's freeBody.
struct BodyDeleter {
    const CorVaneMessageInfo* msg;
    void operator()(void* body) const;
};
using Body = std::unique_ptr<void, BodyDeleter>;

struct Decoded {
    uint32_t status = CORVANE_OK;      // corVane_unserializeBody_bounded's result
    Body body{nullptr, {nullptr}};     // set when status is CORVANE_OK
    Walk walk;                         // element view of the same bytes
    // Where the library's bounded payload decoder left its cursor, when the
    // envelope was good and the payload was refused.
    std::optional<size_t> libraryStop;
    std::vector<std::string> log;      // the library's lines for this body
};

Decoded decodeBody(const CorVaneMessageInfo& m, std::span<const uint8_t> bytes);

struct Encoded {
    std::vector<uint8_t> bytes;
    std::vector<std::string> errors;   // JSON problems, or the library's refusal
    std::vector<std::string> log;
};

// Builds a body from the JSON payload and serialises it with the message's
// own serializeBody.
Encoded encodeBody(const CorVaneMessageInfo& m, const Json& payload);

// One line saying why the body was refused: the envelope or magic, or where
// the payload stopped.
std::string failureLine(const CorVaneMessageInfo& m, std::span<const uint8_t> bytes,
                        const Decoded& d);

// JSON forms, one object each: a decoded body, a refused one (its "error" is
// failureLine, with where and why decoding stopped and the library's log), a
// row of the message list, a record schema.
Json decodedJson(const CorVaneMessageInfo& m, std::span<const uint8_t> bytes, const Decoded& d);
Json failureJson(const CorVaneMessageInfo& m, std::span<const uint8_t> bytes, const Decoded& d);
Json messageJson(const CorVaneMessageInfo& m);
Json schemaJson(const CorVaneSchema& s);

// Output of the commands.
void printDecoded(std::ostream& os, const CorVaneMessageInfo& m, const Decoded& d);
void printFailure(std::ostream& os, const CorVaneMessageInfo& m, std::span<const uint8_t> bytes,
                  const Decoded& d);
// A record as printRecord shows it; with `fold`, runs of three or more
// fields that are all zero or empty take one line, as do runs of two or more
// such array entries and a nested record or array that holds nothing else.
void printFolded(std::ostream& os, const CorVaneSchema& s, const void* record, int indent,
                 bool fold);
void printAnnotated(std::ostream& os, const CorVaneMessageInfo& m,
                    std::span<const uint8_t> bytes, const Walk& walk);
// "" when the body's magic is the message's own (or it has none), else a
// sentence naming the messages that use it.
std::string magicMismatch(const CorVaneMessageInfo& m, std::span<const uint8_t> bytes);
void printHex(std::ostream& os, std::span<const uint8_t> bytes);
void printMessageList(std::ostream& os);
void printSchema(std::ostream& os, const CorVaneSchema& s);

}  // namespace cvi
