// Capture files of D-Bus traffic (link type 231, LINKTYPE_DBUS: each packet
// one whole D-Bus message): reading pcap and pcapng, writing pcapng.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace cvi {

constexpr uint32_t kLinkTypeDbus = 231;

// Whether the bytes start with the magic of a pcap or a pcapng file.
bool isCaptureFile(std::span<const uint8_t> bytes);

struct CaptureFrame {
    uint64_t number = 0;         // from 1, as Wireshark counts them
    uint64_t seconds = 0;        // since the epoch, UTC
    uint32_t nanoseconds = 0;
    uint32_t linkType = 0;
    bool cut = false;            // captured shorter than it was on the wire
    std::span<const uint8_t> data;
    std::vector<std::string> comments;  // pcapng opt_comment options
};

struct Capture {
    std::string format;          // "pcap" or "pcapng"
    std::vector<CaptureFrame> frames;
    // Set when the file is damaged: what is wrong and where; the frames
    // before the damage are in `frames`.
    std::optional<std::string> damage;
};

// Reads every packet of a pcap or pcapng file; frames point into `bytes`.
// Never reads outside it: a damaged file ends the frames with `damage` set.
Capture readCapture(std::span<const uint8_t> bytes);

// Writes a pcapng file of D-Bus messages to a file descriptor, one block per
// write(2) so that a file stopped at any moment ends on a whole block.
class PcapngWriter {
public:
    // Writes the section header and the interface (named `interfaceName`).
    // Throws std::runtime_error when the descriptor refuses the bytes.
    PcapngWriter(int fd, const std::string& application, const std::string& interfaceName);

    // One packet: the message's bytes, the time it was seen, and a comment
    // (empty: none).
    void write(std::span<const uint8_t> message, uint64_t seconds, uint32_t microseconds,
               const std::string& comment);

private:
    int fd_;
    void put(const std::vector<uint8_t>& block);
};

}  // namespace cvi
