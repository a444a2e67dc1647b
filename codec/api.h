// The checks every public record operation makes before it hands over to the
// engine: null arguments are logged and refused rather than dereferenced.
#pragma once

#include <cstdint>

#include "corvane/schema.h"

namespace cv::api {

uint32_t copy(const CorVaneSchema& s, void* destination, const void* source);
void clean(const CorVaneSchema& s, void* record);
uint32_t length(const CorVaneSchema& s, const void* record);
uint32_t serialize(const CorVaneSchema& s, const void* record, uint8_t** cursor);
// Trusts the buffer to hold the whole encoding.
uint32_t unserialize(const CorVaneSchema& s, void* record, const uint8_t** cursor);
// Reads nothing at or beyond end (a null end leaves nothing to read).
uint32_t unserializeBounded(const CorVaneSchema& s, void* record, const uint8_t** cursor,
                            const uint8_t* end);

}  // namespace cv::api
