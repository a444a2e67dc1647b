// Hex text to bytes, as engineers paste it: plain digits, `xxd` and
// `hexdump -C` dumps, `0x..` lists (C arrays included) and the same dumps
// inside log lines (syslog and journal prefixes are skipped), and what the
// D-Bus tools print of one message: `dbus-monitor` (its "array of bytes"),
// `busctl monitor` (one "BYTE n;" line per byte) and `tshark -x`.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace cvi {

// Input that is not hex text at all (binary bytes): the caller meant a binary
// file. Derived from runtime_error like every other refusal of parseHex.
struct BinaryNotHex : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A dump of several D-Bus messages where one is due.
struct SeveralMessages : std::runtime_error {
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

// parseHex, and where the bytes came from when a D-Bus tool printed them.
struct HexDump {
    std::vector<uint8_t> bytes;
    // "dbus-monitor", "busctl monitor" or "tshark -x"; empty for the layouts
    // of parseHex. dbus-monitor and busctl monitor print the byte array of
    // a message's body; tshark a whole D-Bus message.
    std::string tool;
    std::string member;  // the message's member, when the dump names it
};

// Also takes the dumps of one D-Bus message printed by dbus-monitor,
// busctl monitor (its text output, colours included) and tshark -x (with or
// without its summary and detail lines); a dump of several messages is
// refused, saying how many it holds.
HexDump parseDump(std::string_view text);

}  // namespace cvi
