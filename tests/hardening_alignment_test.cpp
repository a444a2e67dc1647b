// Buffers at any address: every record, and every message body, is encoded
// into and decoded from buffers that start 0, 1, 2 and 3 bytes past an
// aligned address. The wire bytes, the statuses, the cursors and the decoded
// records must not depend on the shift. A word loaded through a cast pointer
// instead of a byte-wise read faults on strict-alignment hosts (the MIPS run)
// and is reported by UBSan's alignment check (the sanitizer run).
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "support/bindings.h"
#include "support/records.h"
#include "support/syslog_capture.h"
#include "support/typed_ops.h"
#include "support/wire_edit.h"

namespace cvtest {
namespace {

// `size` bytes starting `shift` bytes past a 16-byte boundary, ending exactly
// at the end of the heap block so that AddressSanitizer sees any read past it.
class ShiftedBuffer {
public:
    ShiftedBuffer(size_t size, size_t shift)
        : block_(static_cast<uint8_t*>(std::calloc(size + shift + (size + shift == 0), 1))),
          data_(block_ + shift), size_(size) {
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(block_) % 8);
    }
    ~ShiftedBuffer() { std::free(block_); }
    ShiftedBuffer(const ShiftedBuffer&) = delete;
    ShiftedBuffer& operator=(const ShiftedBuffer&) = delete;
    uint8_t* data() { return data_; }
    uint8_t* end() { return data_ + size_; }

private:
    uint8_t* block_;
    uint8_t* data_;
    size_t size_;
};

class HardeningAlignment : public testing::TestWithParam<const CorVaneSchema*> {
protected:
    void SetUp() override { clearLog(); }
};

TEST_P(HardeningAlignment, RecordsEncodeAndDecodeAtEveryShift) {
    const CorVaneSchema& s = *GetParam();
    const TypedOps& ops = typedOps(&s);
    Record src(&s);
    fillFull(s, src.data(), 21, Counts::kCapacity);
    const Bytes want = encode(s, src.data());
    Record reference(&s);
    {
        const uint8_t* in = want.data();
        ASSERT_EQ(0u, ops.unserialize(reference.data(), &in));
    }
    std::vector<size_t> linesPerShift;
    for (size_t shift : {0u, 1u, 2u, 3u}) {
        SCOPED_TRACE(shift);
        // Encoding into a shifted (zeroed) buffer: the same bytes.
        ShiftedBuffer out(want.size(), shift);
        uint8_t* cursor = out.data();
        ASSERT_EQ(0u, ops.serialize(src.data(), &cursor));
        ASSERT_EQ(out.end(), cursor);
        ASSERT_EQ(want, Bytes(out.data(), out.end()));
        // Decoding from a shifted copy of the canonical bytes, both readers.
        ShiftedBuffer in(want.size(), shift);
        std::memcpy(in.data(), want.data(), want.size());
        for (bool bounded : {false, true}) {
            Record back(&s);
            const uint8_t* at = in.data();
            ASSERT_EQ(0u, bounded ? ops.unserializeBounded(back.data(), &at, in.end())
                                  : ops.unserialize(back.data(), &at));
            ASSERT_EQ(in.end(), at);
            ASSERT_EQ(0, std::memcmp(reference.data(), back.data(), s.size)) << bounded;
        }
        // A refusal in the middle (a wrong tag on the last element) gives the
        // same status and cursor offset at every shift.
        const auto els = elements(s, src.data());
        const Element& last = els.back();
        putBe32(in.data() + last.wireOffset, last.tag + 1);
        Record back(&s);
        const uint8_t* at = in.data();
        clearLog();
        ASSERT_EQ(4u, ops.unserializeBounded(back.data(), &at, in.end()));
        ASSERT_EQ(in.data() + last.wireOffset, at);
        linesPerShift.push_back(logLines().size());
    }
    EXPECT_EQ(std::vector<size_t>(4, linesPerShift[0]), linesPerShift);
    EXPECT_LT(0u, linesPerShift[0]);
}

INSTANTIATE_TEST_SUITE_P(Registry, HardeningAlignment, testing::ValuesIn(allRecords()),
                         [](const testing::TestParamInfo<const CorVaneSchema*>& i) {
                             return std::string(i.param->name);
                         });

// The body callbacks read the envelope and the payload at any shift too.
TEST(HardeningAlignmentBodies, EveryMessageAtEveryShift) {
    for (const Binding& b : bindings()) {
        SCOPED_TRACE(b.info->name);
        Record payload(b.info->payload);
        fillFull(*b.info->payload, payload.data(), 22, Counts::kCapacity);
        void* body = std::calloc(1, b.info->bodySize);
        std::memcpy(body, &b.info->magic, 4);
        ASSERT_EQ(0u, corVane_record_copy(b.info->payload, static_cast<uint8_t*>(body) + 8,
                                          payload.data()));
        uint8_t* wire = nullptr;
        uint32_t length = 0;
        ASSERT_EQ(0u, b.serializeBody(0, body, &wire, &length));
        for (size_t shift : {0u, 1u, 2u, 3u}) {
            ShiftedBuffer in(length, shift);
            std::memcpy(in.data(), wire, length);
            for (bool bounded : {false, true}) {
                void* back = nullptr;
                uint32_t size = 0;
                ASSERT_EQ(0u, bounded ? corVane_unserializeBody_bounded(b.info, 0, in.data(), length,
                                                                        &back, &size)
                                      : b.unserializeBody(0, in.data(), &back, &size))
                    << shift;
                ASSERT_EQ(0, std::memcmp(body, back, 4)) << shift << bounded;
                ASSERT_EQ("", diff(*b.info->payload, static_cast<uint8_t*>(body) + 8,
                                   static_cast<uint8_t*>(back) + 8))
                    << shift << bounded;
                b.freeBody(0, back);
            }
        }
        std::free(wire);
        b.freeBody(0, body);
    }
    EXPECT_TRUE(logLines().empty());
}

}  // namespace
}  // namespace cvtest
