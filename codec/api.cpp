#include "codec/api.h"

#include "base/log.h"
#include "codec/engine.h"

namespace cv::api {
namespace {

// Logs a null argument of corVane_<Record><op> and tells whether one was null.
bool isNull(const CorVaneSchema& s, const char* op, const void* p, const char* what) {
    if (p) return false;
    log(kPrioError, FnName{"corVane_", s.name, op, FnName::Case::kAsIs}, __LINE__,
        "Ctx[NULL] text[%s]\n", what);
    return true;
}

}  // namespace

uint32_t copy(const CorVaneSchema& s, void* destination, const void* source) {
    if (isNull(s, "_copy", destination, "destination") || isNull(s, "_copy", source, "source"))
        return kMismatch;
    return copyRecord(s, destination, source);
}

// Records own no memory: cleaning has nothing to release. The operation
// exists so that every record offers the same five.
void clean(const CorVaneSchema&, void*) {}

uint32_t length(const CorVaneSchema& s, const void* record) {
    if (isNull(s, "_serialize_lg", record, "record")) return 0;
    return recordLength(s, record);
}

uint32_t serialize(const CorVaneSchema& s, const void* record, uint8_t** cursor) {
    if (isNull(s, "_serialize", record, "record") || isNull(s, "_serialize", cursor, "cursor") ||
        isNull(s, "_serialize", cursor ? *cursor : nullptr, "*cursor"))
        return kMismatch;
    return encodeRecord(s, record, cursor);
}

uint32_t unserialize(const CorVaneSchema& s, void* record, const uint8_t** cursor,
                     const uint8_t* end, bool bounded) {
    const char* op = bounded ? "_unserialize_bounded" : "_unserialize";
    if (isNull(s, op, record, "record") || isNull(s, op, cursor, "cursor") ||
        isNull(s, op, cursor ? *cursor : nullptr, "*cursor"))
        return kMismatch;
    // A bounded read with no end has nothing to read.
    if (bounded && !end) end = *cursor;
    return publicStatus(decodeRecord(s, record, cursor, bounded ? end : nullptr));
}

}  // namespace cv::api

extern "C" uint32_t corVane_record_copy(const CorVaneSchema* s, void* destination,
                                        const void* source) {
    return s ? cv::api::copy(*s, destination, source) : cv::kMismatch;
}

extern "C" void corVane_record_clean(const CorVaneSchema*, void*) {}

extern "C" uint32_t corVane_record_serialize_lg(const CorVaneSchema* s, const void* record) {
    return s ? cv::api::length(*s, record) : 0;
}

extern "C" uint32_t corVane_record_serialize(const CorVaneSchema* s, const void* record,
                                             uint8_t** cursor) {
    return s ? cv::api::serialize(*s, record, cursor) : cv::kMismatch;
}

extern "C" uint32_t corVane_record_unserialize(const CorVaneSchema* s, void* record,
                                               const uint8_t** cursor) {
    return s ? cv::api::unserialize(*s, record, cursor, nullptr, false) : cv::kMismatch;
}

extern "C" uint32_t corVane_record_unserialize_bounded(const CorVaneSchema* s, void* record,
                                                       const uint8_t** cursor,
                                                       const uint8_t* end) {
    return s ? cv::api::unserialize(*s, record, cursor, end, true) : cv::kMismatch;
}
