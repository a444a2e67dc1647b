// One D-Bus message as it travels on the bus: the fixed header, the header
// fields and the body, in D-Bus's own wire format (fixed
// 12-byte header, an a(yv) array of header fields, the body aligned to 8).
// Captures (pcap and pcapng, link type D-Bus) hold messages in this form.
// Reading is bounded: any byte string gives a message or a reason.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace cvi {

struct DbusMessage {
    enum Type : uint8_t { kMethodCall = 1, kMethodReturn = 2, kError = 3, kSignal = 4 };
    enum Flag : uint8_t { kNoReplyExpected = 1, kNoAutoStart = 2, kAllowInteractiveAuth = 4 };

    bool bigEndian = false;
    uint8_t type = 0;
    uint8_t flags = 0;
    uint8_t version = 1;
    uint32_t serial = 0;
    std::optional<std::string> path, interface, member, errorName, destination, sender;
    std::optional<uint32_t> replySerial, unixFds;
    std::string signature;       // of the body; empty when it has none
    std::vector<uint8_t> body;   // in the message's byte order
    // Bytes at the end of the body that a capture did not keep (its
    // snapshot length cut the packet); 0 for a whole message.
    uint64_t bodyMissing = 0;

    // The body's only value when the signature is exactly that (and the
    // body whole), else nullopt.
    std::optional<std::span<const uint8_t>> byteArray() const;     // "ay"
    // The length word of an "ay" body, cut or not.
    std::optional<uint32_t> byteArrayLength() const;
    std::optional<uint32_t> uint32() const;                        // "u"
    // The first value when the body starts with strings: "s...", e.g. an
    // error's message; `count` of them for "sss" (NameOwnerChanged).
    std::optional<std::vector<std::string>> strings(size_t count) const;
};

// The message in `bytes`, which must hold exactly one message; nullopt with
// the reason in *why otherwise. With `cut`, the bytes may end inside the body
// (a packet cut by a capture's snapshot length): bodyMissing says how much.
std::optional<DbusMessage> parseDbusMessage(std::span<const uint8_t> bytes, std::string* why,
                                            bool cut = false);

// Whether the bytes start as a D-Bus message does: 'l' or 'B', a known
// type, protocol version 1.
bool looksLikeDbusMessage(std::span<const uint8_t> bytes);

// The message on the wire, in its byte order (bigEndian); header fields in
// the order of their codes.
std::vector<uint8_t> marshalDbusMessage(const DbusMessage& m);

// Writes values of a body in D-Bus wire format: each value aligned from the
// body's start, in one byte order.
class DbusWriter {
public:
    explicit DbusWriter(bool bigEndian = false) : big_(bigEndian) {}

    void align(size_t n);
    void u8(uint8_t v) { out_.push_back(v); }
    void u16(uint16_t v);
    void u32(uint32_t v);
    void u64(uint64_t v);
    void string(std::string_view s);     // 's' and 'o'
    void signature(std::string_view s);  // 'g'
    // An array: its length word, padding to the elements' alignment, then
    // what the caller writes; closeArray sets the length.
    struct Array {
        size_t lengthAt, start;
    };
    Array openArray(size_t elementAlignment);
    void closeArray(Array a);

    std::vector<uint8_t>& bytes() { return out_; }

private:
    bool big_;
    std::vector<uint8_t> out_;
};

// Alignment of a D-Bus type code: 1 for y g v, 2 n q, 4 b i u h s o a, 8 x t d ( {.
size_t dbusAlignment(char typeCode);

}  // namespace cvi
