// The exported typed operations of every record type, reached by name, so
// that the benchmarks time the functions users call.
#pragma once

#include <cstdint>
#include <vector>

#include "corvane/schema.h"

namespace cvtest {

struct TypedOps {
    const char* name;
    uint32_t (*copy)(void* destination, const void* source);
    void (*clean)(void* record);
    uint32_t (*length)(const void* record);
    uint32_t (*serialize)(const void* record, uint8_t** cursor);
    uint32_t (*unserialize)(void* record, const uint8_t** cursor);
    uint32_t (*unserializeBounded)(void* record, const uint8_t** cursor, const uint8_t* end);
};

// In the order of the library's record registry.
const std::vector<TypedOps>& typedOps();
const TypedOps& typedOps(const CorVaneSchema* schema);

}  // namespace cvtest
