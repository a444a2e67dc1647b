// Hex text to bytes, as engineers paste it: plain digits, `xxd` and
// `hexdump -C` dumps, `0x..` lists (C arrays included) and the same dumps
// inside log lines (syslog and journal prefixes are skipped).
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace cvi {

// Input that is not hex text at all (binary bytes): the caller meant a binary
// file. Derived from runtime_error like every other refusal of parseHex.
struct BinaryNotHex : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The bytes the text shows. The layout is recognised from the whole text:
//  - offset, two spaces, bytes, `|ascii|` (hexdump -C; `*` repeats the row
//    above up to the next offset);
//  - offset with a colon, bytes, two spaces, ascii (xxd, any -g or -c, and
//    "0000: 00 01 ..." dumps, the ascii column optional);
//  - `0x` tokens separated by spaces, commas or braces; lines without one
//    are skipped (the declaration lines of `xxd -i`);
//  - otherwise hex digits and whitespace only (digits may run together).
// Offsets are checked against the bytes read so far. Throws
// std::runtime_error naming the line and what is wrong, BinaryNotHex when
// the text holds bytes that no hex dump has.
std::vector<uint8_t> parseHex(std::string_view text);

}  // namespace cvi
