// `corvane decode` of a capture file: every corvane message of a pcap or
// pcapng file of D-Bus traffic (corvane capture, busctl capture,
// dbus-monitor --pcap), as `corvane monitor` shows it, with its frame number
// and time.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "corvane/corvane.h"

namespace cvi {

struct CaptureDecodeOptions {
    bool json = false;
    bool fold = true;
    std::vector<const CorVaneMessageInfo*> only;  // empty: every method
};

// Prints each command, notification and answer on standard output (text, or
// one JSON object per line: the monitor's object with "frame" and "time"
// first), then on standard error how many frames were read and skipped.
// Returns 0, or 1 with one line on standard error when the file is damaged
// (after the messages read before the damage).
int decodeCapture(std::span<const uint8_t> bytes, const std::string& where,
                  const CaptureDecodeOptions& options);

}  // namespace cvi
