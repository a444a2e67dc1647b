// Element-level view of a serialised body, driven by the library's schemas:
// where each element starts, its tag and length, the field path it belongs
// to and its value, and where and why reading stops on a malformed body.
// It reads the same way the library's bounded decoder does, so that the stop
// it finds is the element the decoder refused (corvane checks the two
// agree); the decoded values shown to users come from the library itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/messages.h"
#include "corvane/schema.h"

namespace cvi {

uint32_t loadBe32(const uint8_t* p);

// One line of the walk: an element, or the start of a nested record, array
// or array entry (which have no element of their own).
struct Item {
    enum class Type { kElement, kNested } type = Type::kElement;
    size_t offset = 0;        // first byte of the element (or of the nested record)
    std::string path;         // e.g. "sip.eventSubscribe[3].notifier"
    // Elements.
    uint8_t kind = CORVANE_FIELD_U32;  // CORVANE_FIELD_U32 or CORVANE_FIELD_TEXT
    uint32_t tag = 0;
    uint32_t length = 0;      // the declared length word
    size_t size = 0;          // bytes the element takes: 8 + length
    uint32_t value = 0;       // u32 elements
    std::string text;         // text elements, without the NUL
    size_t padding = 0;       // text elements: bytes after the NUL inside the element
    // Nested starts: what is there, e.g. "lineStatsS, inline (tag 5 reserved)".
    std::string note;
};

// Where reading stopped on a malformed body.
struct Stop {
    size_t offset = 0;          // start of the element that could not be read
    bool haveTag = false;       // false when fewer than 8 bytes were left
    uint32_t tagFound = 0;
    uint32_t lengthFound = 0;
    uint32_t tagExpected = 0;
    std::string path;           // the field the element should have been
    std::string kind;           // "u32" or "text[N]"
    std::string reason;
};

struct Walk {
    std::vector<Item> items;
    std::optional<Stop> stop;
    size_t end = 0;  // offset just past the last element read
};

// Reads a whole serialised body of message m: envelope, then payload.
Walk walkBody(const CorVaneMessageInfo& m, std::span<const uint8_t> body);

// Escapes a text for display: printable ASCII as is, the rest as \xNN.
std::string escaped(std::string_view text);

}  // namespace cvi
