#include "codec/api.h"

#include "base/log.h"
#include "codec/engine.h"

namespace cv::api {
namespace {

struct Arg {
    const void* p;
    const char* what;
};

// Logs the first null argument of corVane_<Record><op>. Reached only when
// one of them is null, so the checks in the common case are bare tests.
CV_COLD uint32_t refuseNull(const CorVaneSchema& s, const char* op, Arg a, Arg b = {nullptr, nullptr},
                            Arg c = {nullptr, nullptr}) {
    const char* what = !a.p ? a.what : !b.p ? b.what : c.what;
    log(kPrioError, FnName{"corVane_", s.name, op, FnName::Case::kAsIs}, __LINE__,
        "Ctx[NULL] text[%s]\n", what);
    return kMismatch;
}

}  // namespace

uint32_t copy(const CorVaneSchema& s, void* destination, const void* source) {
    if (!destination || !source) [[unlikely]]
        return refuseNull(s, "_copy", {destination, "destination"}, {source, "source"});
    return copyRecord(s, destination, source);
}

// Records own no memory: cleaning has nothing to release. The operation
// exists so that every record offers the same five.
void clean(const CorVaneSchema&, void*) {}

uint32_t length(const CorVaneSchema& s, const void* record) {
    if (!record) [[unlikely]] {
        refuseNull(s, "_serialize_lg", {record, "record"});
        return 0;
    }
    return recordLength(s, record);
}

uint32_t serialize(const CorVaneSchema& s, const void* record, uint8_t** cursor) {
    if (!record || !cursor || !*cursor) [[unlikely]]
        return refuseNull(s, "_serialize", {record, "record"}, {cursor, "cursor"},
                          {cursor ? *cursor : nullptr, "*cursor"});
    return encodeRecord(s, record, cursor);
}

uint32_t unserialize(const CorVaneSchema& s, void* record, const uint8_t** cursor) {
    if (!record || !cursor || !*cursor) [[unlikely]]
        return refuseNull(s, "_unserialize", {record, "record"}, {cursor, "cursor"},
                          {cursor ? *cursor : nullptr, "*cursor"});
    return decodeTrusted(s, record, cursor);
}

uint32_t unserializeBounded(const CorVaneSchema& s, void* record, const uint8_t** cursor,
                            const uint8_t* end) {
    if (!record || !cursor || !*cursor) [[unlikely]]
        return refuseNull(s, "_unserialize_bounded", {record, "record"}, {cursor, "cursor"},
                          {cursor ? *cursor : nullptr, "*cursor"});
    // A bounded read with no end has nothing to read.
    return decodeBounded(s, record, cursor, end ? end : *cursor);
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
    return s ? cv::api::unserialize(*s, record, cursor) : cv::kMismatch;
}

extern "C" uint32_t corVane_record_unserialize_bounded(const CorVaneSchema* s, void* record,
                                                       const uint8_t** cursor,
                                                       const uint8_t* end) {
    return s ? cv::api::unserializeBounded(*s, record, cursor, end) : cv::kMismatch;
}
