// Shared pieces of the benchmarks: the floors every figure is set against,
// and the counters the ratio script (bench/ratios.py) reads.
//
// Naming, which ratios.py relies on:
//   record/<Record>/<empty|full>/<serialize|unserialize|copy|serialize_lg>
//   floor/memcpy/<bytes>        memcpy of that many bytes
//   floor/bswap/<words>         a loop byte-swapping that many words into a buffer
//   floor/prescribed/<Message>  the allocations, zeroing and copies a trip
//                               cannot avoid, with the codec at memcpy speed
//   trip/<Message>              send -> ... -> freeBody on the stand-in bus
//   peer/<corvane|protobuf>/<Record>/<encode|decode>
// Counters: wire_bytes (bytes of the encoding), record_bytes (sizeof the
// struct), scalar_only (1 when no text is reachable from the record).
#pragma once

#include <cstddef>
#include <cstdint>

#include "corvane/schema.h"

namespace cvbench {

// Floors are registered once per size, after every benchmark that asked.
void needMemcpy(size_t bytes);
void needSwap(size_t words);
void registerFloors();

void registerRecords();
void registerTrips();
void registerPeer();

// True when no text field is reachable from the schema.
bool scalarOnly(const CorVaneSchema& s);

// Stops the run with a message: a benchmark whose result would be wrong
// must not produce a figure.
[[noreturn]] void fail(const char* what, const char* detail);

}  // namespace cvbench
