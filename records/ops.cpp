// The exported operations of every record type: thin wrappers over the
// engine, generated from the record list.
#include <cstring>
#include <iterator>

#include "codec/api.h"
#include "records/record_list.h"

#define CV_DEFINE_RECORD_OPS_(T)                                                                \
    extern "C" uint32_t corVane_##T##_copy(T* destination, const T* source) {                   \
        return cv::api::copy(cv::schemas::T, destination, source);                              \
    }                                                                                           \
    extern "C" void corVane_##T##_clean(T* record) { cv::api::clean(cv::schemas::T, record); }  \
    extern "C" uint32_t corVane_##T##_serialize_lg(const T* record) {                           \
        return cv::api::length(cv::schemas::T, record);                                         \
    }                                                                                           \
    extern "C" uint32_t corVane_##T##_serialize(const T* record, uint8_t** cursor) {            \
        return cv::api::serialize(cv::schemas::T, record, cursor);                              \
    }                                                                                           \
    extern "C" uint32_t corVane_##T##_unserialize(T* record, const uint8_t** cursor) {          \
        return cv::api::unserialize(cv::schemas::T, record, cursor);                            \
    }                                                                                           \
    extern "C" uint32_t corVane_##T##_unserialize_bounded(T* record, const uint8_t** cursor,    \
                                                          const uint8_t* end) {                 \
        return cv::api::unserializeBounded(cv::schemas::T, record, cursor, end);                \
    }

CORVANE_RECORD_LIST(CV_DEFINE_RECORD_OPS_)

namespace {
#define CV_SCHEMA_ADDRESS_(T) &cv::schemas::T,
constexpr const CorVaneSchema* kRecords[] = {CORVANE_RECORD_LIST(CV_SCHEMA_ADDRESS_)};
}  // namespace

extern "C" uint32_t corVane_recordCount(void) { return std::size(kRecords); }

extern "C" const CorVaneSchema* corVane_recordSchemaAt(uint32_t index) {
    return index < std::size(kRecords) ? kRecords[index] : nullptr;
}

extern "C" const CorVaneSchema* corVane_recordSchema(const char* name) {
    if (!name) return nullptr;
    for (const CorVaneSchema* s : kRecords)
        if (std::strcmp(s->name, name) == 0) return s;
    return nullptr;
}
