// Buffers at any address: every record, and every message body, is encoded
// into and decoded from buffers that start 0, 1, 2 and 3 bytes past an
// aligned address, with the same bytes, statuses, cursors and results at each
// shift. A word loaded through a cast pointer instead of a byte-wise read
// faults on strict-alignment hosts (the MIPS run) and is reported by UBSan's
// alignment check (the sanitizer run).
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "support/bindings.h"
#include "support/records.h"
#include "support/syslog_capture.h"
#include "support/typed_ops.h"
#include "support/wire_edit.h"

namespace cvtest {
namespace {

// A copy of `bytes` starting `shift` bytes past malloc's aligned address and
// ending exactly at the end of its heap block, so that AddressSanitizer sees
// any read past it.
struct Shifted {
    Shifted(const Bytes& bytes, size_t shift)
        : block(static_cast<uint8_t*>(std::calloc(bytes.size() + shift + (bytes.size() + shift == 0), 1)),
                &std::free),
          data(block.get() + shift), end(data + bytes.size()) {
        if (!bytes.empty()) std::memcpy(data, bytes.data(), bytes.size());
    }
    std::unique_ptr<uint8_t, decltype(&std::free)> block;
    uint8_t* data;
    uint8_t* end;
};

class HardeningAlignment : public testing::TestWithParam<const CorVaneSchema*> {
protected:
    void SetUp() override { clearLog(); }
};

TEST_P(HardeningAlignment, RecordsEncodeAndDecodeAtEveryShift) {
    const CorVaneSchema& s = *GetParam();
    const TypedOps& ops = typedOps(&s);
    Record src(&s), reference(&s);
    fillFull(s, src.data(), 21, Counts::kCapacity);
    const Bytes want = encode(s, src.data());
    const uint8_t* in = want.data();
    ASSERT_EQ(0u, ops.unserialize(reference.data(), &in));
    const Element last = elements(s, src.data()).back();
    std::vector<size_t> linesPerShift;
    for (size_t shift : {0u, 1u, 2u, 3u}) {
        SCOPED_TRACE(shift);
        Shifted out(Bytes(want.size()), shift);
        uint8_t* cursor = out.data;
        ASSERT_EQ(0u, ops.serialize(src.data(), &cursor));
        ASSERT_EQ(out.end, cursor);
        ASSERT_EQ(want, Bytes(out.data, out.end));
        Shifted wire(want, shift);
        for (bool bounded : {false, true}) {
            Record back(&s);
            const uint8_t* at = wire.data;
            ASSERT_EQ(0u, bounded ? ops.unserializeBounded(back.data(), &at, wire.end)
                                  : ops.unserialize(back.data(), &at));
            ASSERT_EQ(wire.end, at);
            ASSERT_EQ(0, std::memcmp(reference.data(), back.data(), s.size)) << bounded;
        }
        // A refusal in the middle (a wrong tag on the last element) stops at
        // the same offset with the same number of lines at every shift.
        putBe32(wire.data + last.wireOffset, last.tag + 1);
        Record back(&s);
        const uint8_t* at = wire.data;
        clearLog();
        ASSERT_EQ(4u, ops.unserializeBounded(back.data(), &at, wire.end));
        ASSERT_EQ(wire.data + last.wireOffset, at);
        linesPerShift.push_back(logLines().size());
    }
    EXPECT_EQ(std::vector<size_t>(4, linesPerShift[0]), linesPerShift);
    EXPECT_LT(0u, linesPerShift[0]);
}

INSTANTIATE_TEST_SUITE_P(Registry, HardeningAlignment, testing::ValuesIn(allRecords()),
                         [](const testing::TestParamInfo<const CorVaneSchema*>& i) {
                             return std::string(i.param->name);
                         });

// The body callbacks read the envelope and the payload at any shift too, and
// hand back a body of the message's size with the sender's magic and ref 0.
TEST(HardeningAlignmentBodies, EveryMessageAtEveryShift) {
    clearLog();
    for (const Binding& b : bindings()) {
        SCOPED_TRACE(b.info->name);
        Record payload(b.info->payload);
        fillFull(*b.info->payload, payload.data(), 22, Counts::kCapacity);
        auto* body = static_cast<uint8_t*>(makeBody(b, payload.data()));
        const Bytes wire = serializedBody(b, body);
        ASSERT_FALSE(wire.empty());
        const uint32_t length = static_cast<uint32_t>(wire.size());
        for (size_t shift : {0u, 1u, 2u, 3u}) {
            Shifted in(wire, shift);
            for (bool bounded : {false, true}) {
                SCOPED_TRACE(testing::Message() << "shift " << shift << (bounded ? " bounded" : ""));
                void* back = nullptr;
                uint32_t size = 0;
                ASSERT_EQ(0u, bounded ? corVane_unserializeBody_bounded(b.info, 0, in.data, length, &back,
                                                                        &size)
                                      : b.unserializeBody(0, in.data, &back, &size));
                EXPECT_EQ(b.info->bodySize, size);
                EXPECT_EQ(0, std::memcmp(body, back, 6));
                EXPECT_EQ("", diff(*b.info->payload, body + 8, static_cast<uint8_t*>(back) + 8));
                b.freeBody(0, back);
            }
        }
        b.freeBody(0, body);
    }
    EXPECT_TRUE(logLines().empty());
}

}  // namespace
}  // namespace cvtest
