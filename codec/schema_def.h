// Building record schemas at compile time.
//
// A record's schema is written once, as the list of its members in
// declaration order:
//
//   CV_RECORD(LineCodec,
//             CV_FIELD(value1), ..., CV_FIELD(listNumberOfEntries),
//             CV_ARRAY(list, listNumberOfEntries))
//
// Everything else follows from that list and from the member types: the
// tag of the i-th entry is i + 3, a uint32_t member is a u32 element, a
// char[N] member a text of capacity N, a struct member an inline record, and
// an array of structs a record array of that capacity (CV_ARRAY, with its
// count member, which must be the member just before it) or a fixed array
// (CV_FIXED). The schema of a nested type is found through kSchemaOf.
//
// The static_asserts prove that the list names every member of the struct,
// once each, in declaration order: the offsets strictly increase, and a
// structured binding with exactly as many names as the list has entries
// compiles, so the struct has no member the list leaves out.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "codec/member_count.h"
#include "corvane/schema.h"

namespace cv {

// The schema of each record and payload type; both are specialised by the
// type lists.
template <class T>
inline constexpr const CorVaneSchema* kSchemaOf = nullptr;
template <class T>
inline constexpr bool kHasSchema = false;

// One entry of a schema list, with what the compile-time checks need beyond
// the runtime field descriptor.
struct FieldDef {
    CorVaneField field;
    uint32_t size;         // sizeof the member
    uint32_t countOffset;  // CV_ARRAY: offset of its count member
};

template <class M>
consteval FieldDef makeField(const char* name, size_t offset) {
    FieldDef d{{name, nullptr, static_cast<uint32_t>(offset), 0, 0, 0}, sizeof(M), 0};
    if constexpr (std::is_same_v<M, uint32_t>) {
        d.field.kind = CORVANE_FIELD_U32;
    } else if constexpr (std::is_array_v<M> && std::is_same_v<std::remove_extent_t<M>, char>) {
        static_assert(std::extent_v<M> >= 2 && std::extent_v<M> <= 0xffff,
                      "text capacity out of range");
        d.field.kind = CORVANE_FIELD_TEXT;
        d.field.capacity = static_cast<uint16_t>(std::extent_v<M>);
    } else if constexpr (std::is_class_v<M>) {
        static_assert(kHasSchema<M>, "nested record type has no schema");
        d.field.kind = CORVANE_FIELD_RECORD;
        d.field.record = kSchemaOf<M>;
    } else {
        static_assert(!sizeof(M), "members are uint32_t, char[N], records, or CV_ARRAY/CV_FIXED");
    }
    return d;
}

template <class M>
consteval FieldDef makeArray(const char* name, size_t offset, uint8_t kind, size_t countOffset) {
    using E = std::remove_extent_t<M>;
    static_assert(std::is_array_v<M> && std::is_class_v<E>, "an array of records is expected");
    static_assert(kHasSchema<E>, "array entry type has no schema");
    static_assert(std::extent_v<M> >= 1 && std::extent_v<M> <= 0xffff, "capacity out of range");
    return FieldDef{{name, kSchemaOf<E>, static_cast<uint32_t>(offset),
                     static_cast<uint16_t>(std::extent_v<M>), kind, 0},
                    sizeof(M), static_cast<uint32_t>(countOffset)};
}

// Offsets strictly increase, every member lies inside the struct, and each
// counted array's count is the u32 member just before it.
template <class R, size_t N>
consteval bool fieldsInOrder(const FieldDef (&d)[N]) {
    for (size_t i = 0; i < N; ++i) {
        if (d[i].field.offset + d[i].size > sizeof(R)) return false;
        if (i > 0 && d[i].field.offset < d[i - 1].field.offset + d[i - 1].size) return false;
        if (d[i].field.kind == CORVANE_FIELD_ARRAY) {
            if (i == 0 || d[i - 1].field.kind != CORVANE_FIELD_U32 ||
                d[i - 1].field.offset != d[i].countOffset)
                return false;
        }
    }
    return true;
}

// Compiles only when R has exactly N members (see member_count.h).
template <class R, size_t N>
inline constexpr bool kListsEveryMember =
    std::is_same_v<decltype(detail::bindMembers<R, N>(std::declval<R&>())), size_t>;

template <size_t N>
consteval std::array<CorVaneField, N> toFields(const FieldDef (&d)[N]) {
    std::array<CorVaneField, N> out{};
    for (size_t i = 0; i < N; ++i) out[i] = d[i].field;
    return out;
}

}  // namespace cv

// Inside a CV_RECORD list, R is the record type being described.
#define CV_FIELD(m) ::cv::makeField<decltype(R::m)>(#m, offsetof(R, m))
#define CV_ARRAY(m, count)                                                                 \
    ::cv::makeArray<decltype(R::m)>(#m, offsetof(R, m), CORVANE_FIELD_ARRAY, offsetof(R, count))
#define CV_FIXED(m) ::cv::makeArray<decltype(R::m)>(#m, offsetof(R, m), CORVANE_FIELD_FIXED_ARRAY, 0)

// Defines the schema object cv::schemas::T (declared by the type lists).
#define CV_RECORD_FLAGS(T, FLAGS, ...)                                                          \
    namespace cv::schemas {                                                                     \
    namespace def_##T {                                                                         \
    using R = ::T;                                                                              \
    inline constexpr ::cv::FieldDef kDefs[] = {__VA_ARGS__};                                    \
    static_assert(::cv::fieldsInOrder<R>(kDefs),                                                \
                  #T ": the schema's members overlap or are out of declaration order");        \
    static_assert(::cv::kListsEveryMember<R, std::size(kDefs)>);                                \
    inline constexpr auto kFields = ::cv::toFields(kDefs);                                      \
    }                                                                                           \
    constinit const CorVaneSchema T = {#T, def_##T::kFields.data(), sizeof(::T),                \
                                       static_cast<uint16_t>(std::size(def_##T::kDefs)), FLAGS}; \
    }

#define CV_RECORD(T, ...) CV_RECORD_FLAGS(T, 0, __VA_ARGS__)
