#include "typed_ops.h"

#include <cstring>
#include <stdexcept>

#include "records/record_list.h"

namespace cvtest {

#define CVTEST_TYPED_OPS_(T)                                                                      \
    TypedOps{#T,                                                                                  \
             [](void* d, const void* s) {                                                         \
                 return corVane_##T##_copy(static_cast<T*>(d), static_cast<const T*>(s));         \
             },                                                                                   \
             [](void* r) { corVane_##T##_clean(static_cast<T*>(r)); },                            \
             [](const void* r) { return corVane_##T##_serialize_lg(static_cast<const T*>(r)); },  \
             [](const void* r, uint8_t** c) {                                                     \
                 return corVane_##T##_serialize(static_cast<const T*>(r), c);                     \
             },                                                                                   \
             [](void* r, const uint8_t** c) {                                                     \
                 return corVane_##T##_unserialize(static_cast<T*>(r), c);                         \
             },                                                                                   \
             [](void* r, const uint8_t** c, const uint8_t* e) {                                   \
                 return corVane_##T##_unserialize_bounded(static_cast<T*>(r), c, e);              \
             }},

const std::vector<TypedOps>& typedOps() {
    static const std::vector<TypedOps> ops = {CORVANE_RECORD_LIST(CVTEST_TYPED_OPS_)};
    return ops;
}

const TypedOps& typedOps(const CorVaneSchema* schema) {
    for (const TypedOps& o : typedOps())
        if (std::strcmp(o.name, schema->name) == 0) return o;
    throw std::runtime_error("no typed operations for a record type");
}

}  // namespace cvtest
