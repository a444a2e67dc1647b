#include "support/wire_edit.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#ifdef CVTEST_ASAN
#include <sanitizer/asan_interface.h>
#endif

namespace cvtest {

Bytes words(std::initializer_list<uint32_t> ws) {
    Bytes out(4 * ws.size());
    size_t at = 0;
    for (uint32_t w : ws) putBe32(&out[at += 4] - 4, w);
    return out;
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes encode(const CorVaneSchema& s, const void* rec) {
    Bytes out(corVane_record_serialize_lg(&s, rec));
    uint8_t* cursor = out.data();
    corVane_record_serialize(&s, rec, &cursor);
    return out;
}

Bytes replaceElement(const Bytes& wire, const Element& e, const Bytes& replacement) {
    const auto at = wire.begin() + static_cast<std::ptrdiff_t>(e.wireOffset);
    return Bytes(wire.begin(), at) + replacement +
           Bytes(at + static_cast<std::ptrdiff_t>(e.wireSize), wire.end());
}

Bytes stringElement(uint32_t tag, const std::string& text) {
    Bytes out = words({tag, paddedLength(text.size())});
    out.insert(out.end(), text.begin(), text.end());
    out.resize(8 + be32(&out[4]), 0);
    return out;
}

ExactBuffer::ExactBuffer(const Bytes& bytes, size_t shift)
    : block_(static_cast<uint8_t*>(std::malloc(shift + bytes.size() + (shift + bytes.size() == 0)))),
      data_(block_ + shift), size_(bytes.size()) {
    if (!bytes.empty()) std::memcpy(data_, bytes.data(), bytes.size());
}

ExactBuffer::~ExactBuffer() {
    limit(size_);
    std::free(block_);
}

void ExactBuffer::limit([[maybe_unused]] size_t visible) {
#ifdef CVTEST_ASAN
    ASAN_UNPOISON_MEMORY_REGION(data_, size_);
    if (visible < size_) ASAN_POISON_MEMORY_REGION(data_ + visible, size_ - visible);
#endif
}

std::string ptr(const void* p) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%p", p);
    return buf;
}

uint32_t decode(const CorVaneSchema& s, void* rec, const uint8_t** in, const uint8_t* end) {
    return end ? corVane_record_unserialize_bounded(&s, rec, in, end)
               : corVane_record_unserialize(&s, rec, in);
}

std::string fnOf(const CorVaneSchema& s, const char* op) {
    return std::string("corVane_") + s.name + op;
}

std::vector<std::string> errorBeforeLines(const Element& e, const uint8_t* wire, const char* op) {
    std::vector<std::string> out;
    for (auto it = e.levels.rbegin(); it != e.levels.rend(); ++it) {
        const CorVaneSchema& s = *it->schema;
        for (uint32_t j = it->fieldIndex + 1; j < s.fieldCount; ++j)
            if ((s.flags & CORVANE_SCHEMA_ERROR_BEFORE_RESERVED) || s.fields[j].kind <= CORVANE_FIELD_TEXT)
                out.push_back(fnOf(s, op) + ": pBody(" + ptr(wire + it->start) + "): Type(" +
                              std::to_string(j + 3) + ") -> Error Before\n");
    }
    return out;
}

}  // namespace cvtest
