// Exact wire bytes and element rules, checked against hand-written encodings.
// The same expected bytes hold on little- and big-endian hosts.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <vector>

#include "corvane/records.h"
#include "support/records.h"
#include "support/syslog_capture.h"
#include "support/typed_ops.h"
#include "support/wire_edit.h"

namespace cvtest {
namespace {

// Words of an expected encoding, written out big-endian.
Bytes words(std::initializer_list<uint32_t> ws) {
    Bytes out;
    for (uint32_t w : ws) {
        out.push_back(static_cast<uint8_t>(w >> 24));
        out.push_back(static_cast<uint8_t>(w >> 16));
        out.push_back(static_cast<uint8_t>(w >> 8));
        out.push_back(static_cast<uint8_t>(w));
    }
    return out;
}

TEST(Wire, ScalarRecordIsBigEndianWords) {
    ProfileStatus ps{0x11223344u, 0xA0B0C0D0u};
    ASSERT_EQ(24u, corVane_ProfileStatus_serialize_lg(&ps));
    Bytes out(24);
    uint8_t* cur = out.data();
    ASSERT_EQ(0u, corVane_ProfileStatus_serialize(&ps, &cur));
    EXPECT_EQ(out.data() + 24, cur);
    EXPECT_EQ(words({3, 4, 0x11223344u, 4, 4, 0xA0B0C0D0u}), out);
}

// dectRepeater: three words, then texts "" (L 4) and "abc" (L 8); a
// suotaStatus text of 7 characters takes L 12. Padding keeps the buffer's bytes.
TEST(Wire, StringElementsPadTheirLengthAndLeavePaddingUntouched) {
    dectRepeater r{};
    r.value1 = 1;
    r.value2 = 2;
    r.value3 = 3;
    std::strcpy(r.text2, "abc");
    ASSERT_EQ(36u + 12u + 16u, corVane_dectRepeater_serialize_lg(&r));
    Bytes out(64, 0xEE);
    uint8_t* cur = out.data();
    ASSERT_EQ(0u, corVane_dectRepeater_serialize(&r, &cur));
    Bytes want = words({3, 4, 1, 4, 4, 2, 5, 4, 3, 6, 4});
    for (int b : {0x00, 0xEE, 0xEE, 0xEE}) want.push_back(static_cast<uint8_t>(b));
    Bytes tail = words({7, 8});
    want.insert(want.end(), tail.begin(), tail.end());
    for (int b : {0x61, 0x62, 0x63, 0x00, 0xEE, 0xEE, 0xEE, 0xEE}) want.push_back(static_cast<uint8_t>(b));
    EXPECT_EQ(want, out);

    suotaStatus s{};
    std::strcpy(s.text1, "1234567");
    EXPECT_EQ(36u + 20u, corVane_suotaStatus_serialize_lg(&s));
    std::strcpy(s.text1, "1234");
    EXPECT_EQ(36u + 16u, corVane_suotaStatus_serialize_lg(&s));
}

// A scalar element's length word moves the cursor: 8 plus the length found,
// also below 4 (the value word is still read), and the value is taken as is.
TEST(Wire, ScalarCursorFollowsTheLengthWord) {
    const Bytes wire = words({3, 8, 0xCAFEu, 0xFFFFFFFFu});
    internalCallStatus ics{};
    const uint8_t* in = wire.data();
    ASSERT_EQ(0u, corVane_internalCallStatus_unserialize(&ics, &in));
    EXPECT_EQ(0xCAFEu, ics.value1);
    EXPECT_EQ(wire.data() + 16, in);

    const Bytes shortLen = words({3, 0, 0x1234u});
    in = shortLen.data();
    ASSERT_EQ(0u, corVane_internalCallStatus_unserialize_bounded(&ics, &in, shortLen.data() + 12));
    EXPECT_EQ(0x1234u, ics.value1);
    EXPECT_EQ(shortLen.data() + 8, in);
}

// A wrong tag at the second field: the first field read, the second as it
// was, the cursor on the second element, one Tl line and the later fields'
// "Error Before" lines.
TEST(Wire, WrongTagAtSecondField) {
    const Bytes wire = words({3, 4, 7, 5, 4, 8, 5, 4, 9});
    lineCallState lcs{100, 200, 300};
    clearLog();
    const uint8_t* in = wire.data();
    ASSERT_EQ(4u, corVane_lineCallState_unserialize(&lcs, &in));
    EXPECT_EQ(wire.data() + 12, in);
    EXPECT_EQ(7u, lcs.value1);
    EXPECT_EQ(200u, lcs.value2);
    EXPECT_EQ(300u, lcs.value3);
    const std::string p = ptr(wire.data());
    EXPECT_EQ((std::vector<std::string>{
                  "corVane_lineCallState_unserialize: pBody(" + p + "): Tl(5-4) expectded(4)\n",
                  "corVane_lineCallState_unserialize: pBody(" + p + "): Type(5) -> Error Before\n"}),
              logTextsWithoutLine());
}

// Inline records and arrays write no element of their own: in
// registrationStatus the registrar's text (its own tag 3) follows tag 6, and
// the parent's text (tag 8) follows the registrar's tag 5.
TEST(Wire, NestedRecordsRestartTheirTagsInPlace) {
    registrationStatus rs{};
    const Bytes wire = encode(*corVane_recordSchema("registrationStatus"), &rs);
    const uint32_t tags[] = {3, 4, 5, 6, 3, 4, 5, 8};
    size_t at = 0;
    for (uint32_t tag : tags) {
        ASSERT_EQ(tag, be32(wire.data() + at));
        at += 8 + be32(wire.data() + at + 4);
    }
    EXPECT_EQ(wire.size(), at);
}

// Every length of a text in one field of each capacity the records use (all
// lengths up to 300 bytes, the ends and a stride beyond): the element holds
// exactly the text and its NUL with the padding left as it was, the length
// operation agrees, and both reads write the text and its NUL and leave the
// rest of the field as it was. Serialised into a buffer of exactly the
// announced length, so a sanitizer sees any write past it.
TEST(Wire, EveryTextLengthOfEveryCapacity) {
    std::map<uint16_t, std::pair<const CorVaneSchema*, const CorVaneField*>> picks;
    for (const CorVaneSchema* s : allRecords())
        for (uint32_t i = 0; i < s->fieldCount; ++i)
            if (s->fields[i].kind == CORVANE_FIELD_TEXT)
                picks.emplace(s->fields[i].capacity, std::pair{s, &s->fields[i]});
    ASSERT_GE(picks.size(), 8u);
    clearLog();
    for (const auto& [cap, pick] : picks) {
        const auto [schema, field] = pick;
        const TypedOps& ops = typedOps(schema);
        std::vector<size_t> lengths;
        for (size_t n = 0; n < cap; ++n)
            if (cap <= 300 || n < 100 || n + 100 >= cap || n % 37 == 0) lengths.push_back(n);
        Record rec(schema), back(schema);
        char* text = reinterpret_cast<char*>(rec.data() + field->offset);
        char* got = reinterpret_cast<char*>(back.data() + field->offset);
        for (size_t n : lengths) {
            SCOPED_TRACE(std::string(schema->name) + "." + field->name + " length " +
                         std::to_string(n));
            std::memset(text, 0, cap);
            for (size_t k = 0; k < n; ++k) text[k] = static_cast<char>('a' + (k * 7 + n) % 26);
            const uint32_t length = ops.length(rec.data());
            Bytes wire(length, 0xA5);
            uint8_t* out = wire.data();
            ASSERT_EQ(0u, ops.serialize(rec.data(), &out));
            ASSERT_EQ(wire.data() + length, out);
            size_t at = 0;
            for (const Element& e : elements(*schema, rec.data()))
                if (e.field == field && e.levels.size() == 1) at = e.wireOffset;
            const uint32_t padded = static_cast<uint32_t>(((n + 1) & ~size_t{3}) + 4);
            ASSERT_EQ(field - schema->fields + CORVANE_FIRST_TAG, be32(&wire[at]));
            ASSERT_EQ(padded, be32(&wire[at + 4]));
            ASSERT_EQ(0, std::memcmp(text, &wire[at + 8], n + 1));
            for (size_t p = n + 1; p < padded; ++p) ASSERT_EQ(0xA5, wire[at + 8 + p]) << p;

            ExactBuffer exact(wire);
            for (bool bounded : {false, true}) {
                std::memset(got, '#', cap);
                const uint8_t* in = exact.data();
                ASSERT_EQ(0u, bounded ? ops.unserializeBounded(back.data(), &in, in + length)
                                      : ops.unserialize(back.data(), &in));
                ASSERT_EQ(exact.data() + length, in);
                ASSERT_EQ(0, std::memcmp(text, got, n + 1)) << bounded;
                ASSERT_EQ(std::string(cap - n - 1, '#'), std::string(got + n + 1, cap - n - 1))
                    << bounded;
            }
        }
    }
    EXPECT_TRUE(logLines().empty());
}

// Tags above 255 are written and read in full: a record of 300 words (built
// here; no record of the interface has that many fields) carries tags 3 to
// 302, and a header that only a tag counter carried into the length word
// would produce is refused where tag 256 is expected.
TEST(Wire, TagsAbove255) {
    constexpr uint16_t kFields = 300;
    std::vector<CorVaneField> fields(kFields);
    for (uint16_t i = 0; i < kFields; ++i)
        fields[i] = {"w", nullptr, 4u * i, 0, CORVANE_FIELD_U32, 0};
    const CorVaneSchema s{"Words300", fields.data(), 4 * kFields, kFields, 0};
    std::vector<uint32_t> rec(kFields), back(kFields);
    for (uint32_t i = 0; i < kFields; ++i) rec[i] = 0x01000000u + i;
    ASSERT_EQ(12u * kFields, corVane_record_serialize_lg(&s, rec.data()));
    Bytes out(12 * kFields);
    uint8_t* cur = out.data();
    ASSERT_EQ(0u, corVane_record_serialize(&s, rec.data(), &cur));
    Bytes want;
    for (uint32_t i = 0; i < kFields; ++i) {
        const Bytes e = words({3 + i, 4, rec[i]});
        want.insert(want.end(), e.begin(), e.end());
    }
    EXPECT_EQ(want, out);
    const uint8_t* in = out.data();
    ASSERT_EQ(0u, corVane_record_unserialize(&s, back.data(), &in));
    EXPECT_EQ(rec, back);

    const Bytes bad = words({0, 0x01000004u});
    std::memcpy(out.data() + 12 * 253, bad.data(), bad.size());
    for (const bool bounded : {false, true}) {
        in = out.data();
        clearLog();
        EXPECT_EQ(4u, bounded ? corVane_record_unserialize_bounded(&s, back.data(), &in,
                                                                   out.data() + out.size())
                              : corVane_record_unserialize(&s, back.data(), &in));
        EXPECT_EQ(out.data() + 12 * 253, in);
        ASSERT_FALSE(logTextsWithoutLine().empty());
        EXPECT_NE(std::string::npos, logTextsWithoutLine()[0].find("Tl(0-16777220) expectded(256)"));
    }
}

// Null arguments are refused with a log line, never dereferenced.
TEST(Wire, NullArgumentsAreRefused) {
    ProfileStatus ps{};
    uint8_t buf[24];
    uint8_t* cur = buf;
    const uint8_t* in = buf;
    clearLog();
    EXPECT_EQ(4u, corVane_ProfileStatus_copy(nullptr, &ps));
    EXPECT_EQ(4u, corVane_ProfileStatus_serialize(&ps, nullptr));
    EXPECT_EQ(4u, corVane_ProfileStatus_unserialize(nullptr, &in));
    EXPECT_EQ(0u, corVane_ProfileStatus_serialize_lg(nullptr));
    corVane_ProfileStatus_clean(nullptr);
    EXPECT_EQ(4u, corVane_ProfileStatus_unserialize_bounded(&ps, &in, nullptr));
    EXPECT_EQ(buf, cur);
    EXPECT_EQ((std::vector<std::string>{
                  "corVane_ProfileStatus_copy: Ctx[NULL] text[destination]\n",
                  "corVane_ProfileStatus_serialize: Ctx[NULL] text[cursor]\n",
                  "corVane_ProfileStatus_unserialize: Ctx[NULL] text[record]\n",
                  "corVane_ProfileStatus_serialize_lg: Ctx[NULL] text[record]\n",
                  "corVane_ProfileStatus_unserialize: pBody(" + ptr(buf) +
                      "): Type(3) runs past the end of the buffer: 8 bytes needed, 0 left\n"}),
              logTextsWithoutLine());
}

// A text that is not terminated within its field is refused on writing:
// nothing more is written, the cursor stays on that element.
TEST(Wire, UnterminatedTextIsRefusedOnWriting) {
    dectRepeater r{};
    std::memset(r.text1, 'q', sizeof r.text1);
    Bytes out(128, 0);
    uint8_t* cur = out.data();
    clearLog();
    ASSERT_EQ(4u, corVane_dectRepeater_serialize(&r, &cur));
    EXPECT_EQ(out.data() + 36, cur);
    EXPECT_EQ((std::vector<std::string>{
                  "corVane_dectRepeater_serialize: lgChainIn(14) lgMaxChainOut(13)\n",
                  "corVane_dectRepeater_serialize: pBody(" + ptr(out.data()) +
                      "): Type(7) -> Error Before\n"}),
              logTextsWithoutLine());
}

// The lengths the record descriptions state, for empty and full instances.
struct StatedLength {
    const char* record;
    bool full;       // texts at capacity - 1 and counts at capacity, else all zero
    uint32_t length;
};

// GoogleTest names a case by this rather than by the struct's bytes, padding
// included.
void PrintTo(const StatedLength& c, std::ostream* os) {
    *os << c.record << (c.full ? " full" : " empty") << " " << c.length;
}

class StatedLengths : public testing::TestWithParam<StatedLength> {};

TEST_P(StatedLengths, Match) {
    const StatedLength& c = GetParam();
    const CorVaneSchema* s = corVane_recordSchema(c.record);
    ASSERT_NE(nullptr, s);
    Record r(s);
    if (c.full) fillFull(*s, r.data(), 1, Counts::kCapacity);
    EXPECT_EQ(c.length, corVane_record_serialize_lg(s, r.data()));
    EXPECT_EQ(c.length, encode(*s, r.data()).size());
}

INSTANTIATE_TEST_SUITE_P(
    Records, StatedLengths,
    testing::Values(
        StatedLength{"internalCallStatus", false, 12}, StatedLength{"ProfileStatus", false, 24},
        StatedLength{"ProfileBackupIntfStatus", false, 36},
        StatedLength{"lineCallState", false, 36}, StatedLength{"pingSipState", false, 36},
        StatedLength{"FaxT38", true, 72}, StatedLength{"ProfileRTP", false, 168},
        StatedLength{"ProfileSIP", false, 523 + 234 - 13},
        StatedLength{"PrefixInfo", false, 120}, StatedLength{"NumberingPlan", false, 96 + 4800 + 24},
        StatedLength{"FQDNServers", false, 84}, StatedLength{"ProfileFQDNServers", false, 24},
        StatedLength{"outBoundProxy", false, 12}, StatedLength{"VoiceBehavior", false, 132},
        StatedLength{"BatteryCfg", false, 48}, StatedLength{"CallControl", false, 12},
        StatedLength{"DualStack", false, 12}, StatedLength{"BackupInterface", false, 48},
        StatedLength{"LineRinger", false, 36}, StatedLength{"EventList", true, 24},
        StatedLength{"PatternList", true, 48}, StatedLength{"DescriptionList", false, 60},
        StatedLength{"LineCodec", false, 96}, StatedLength{"CodecList", false, 96},
        StatedLength{"LineVoiceProcessing", true, 60},
        StatedLength{"CallingFeatures", false, 684}, StatedLength{"CallingFeatures", true, 1580},
        StatedLength{"outGoingLine", true, 24}, StatedLength{"Registrar", false, 144},
        StatedLength{"Contact", false, 108}, StatedLength{"Account", false, 876},
        StatedLength{"accountStatus", false, 120}, StatedLength{"phyInterfaceCodecList", true, 12},
        StatedLength{"phyInterfaceDectUsb", true, 12}, StatedLength{"phyInterfaceDectPp", true, 24},
        StatedLength{"phyInterfaceReinjection", true, 24}, StatedLength{"phyInterfaceFxs", true, 60},
        StatedLength{"phyInterfaceStatusTest", true, 24},
        StatedLength{"phyInterfaceStatusDectUsb", true, 36},
        StatedLength{"repeater_status", true, 36}, StatedLength{"capabilities", false, 2736},
        StatedLength{"transportEvent", false, 60}, StatedLength{"lineModif", false, 372},
        StatedLength{"lineStats", false, 396}),
    [](const testing::TestParamInfo<StatedLength>& i) {
        return std::string(i.param.record) + (i.param.full ? "_full" : "_empty");
    });

}  // namespace
}  // namespace cvtest
