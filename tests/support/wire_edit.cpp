#include "support/wire_edit.h"

#include <cstdio>
#include <cstdlib>

namespace cvtest {

Bytes encode(const CorVaneSchema& s, const void* rec) {
    Bytes out(corVane_record_serialize_lg(&s, rec));
    uint8_t* cursor = out.data();
    corVane_record_serialize(&s, rec, &cursor);
    return out;
}

Bytes replaceElement(const Bytes& wire, const Element& e, const Bytes& replacement) {
    Bytes out(wire.begin(), wire.begin() + static_cast<std::ptrdiff_t>(e.wireOffset));
    out.insert(out.end(), replacement.begin(), replacement.end());
    out.insert(out.end(), wire.begin() + static_cast<std::ptrdiff_t>(e.wireOffset + e.wireSize),
               wire.end());
    return out;
}

Bytes stringElement(uint32_t tag, const std::string& text) {
    const uint32_t padded = static_cast<uint32_t>((text.size() + 1) / 4 * 4 + 4);
    Bytes out(8 + padded, 0);
    putBe32(out.data(), tag);
    putBe32(out.data() + 4, padded);
    std::memcpy(out.data() + 8, text.data(), text.size());
    return out;
}

ExactBuffer::ExactBuffer(const Bytes& bytes)
    : data_(static_cast<uint8_t*>(std::malloc(bytes.empty() ? 1 : bytes.size()))),
      size_(bytes.size()) {
    if (!bytes.empty()) std::memcpy(data_, bytes.data(), bytes.size());
}

ExactBuffer::~ExactBuffer() {
    limit(size_);
    std::free(data_);
}

void ExactBuffer::limit(size_t visible) {
#ifdef CVTEST_ASAN
    ASAN_UNPOISON_MEMORY_REGION(data_, size_);
    if (visible < size_) ASAN_POISON_MEMORY_REGION(data_ + visible, size_ - visible);
#else
    (void)visible;
#endif
}

std::string ptr(const void* p) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%p", p);
    return buf;
}

}  // namespace cvtest
