// The record codec: every record type through the operations users call,
// checked against the element list that support/records.cpp works out from
// the wire rules on its own, and golden lengths and bytes written out by hand. The
// same expected bytes hold on little- and big-endian hosts; buffers start at
// every byte shift, so a misaligned access faults on the strict-alignment
// host (the MIPS run) and in UBSan's alignment check.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <set>

#include "corvane/records.h"
#include "support/records.h"
#include "support/syslog_capture.h"
#include "support/wire_edit.h"

namespace cvtest {
namespace {

// After a failure at element `failed`, the fields of the elements before it
// hold the source's values and the others what the destination held.
void expectReadUpTo(const Record& src, const Record& before, const Record& after,
                    const std::vector<Element>& els, size_t failed) {
    for (size_t k = 0; k < els.size(); ++k) {
        const Element& e = els[k];
        const size_t size = e.field->kind == CORVANE_FIELD_TEXT ? e.field->capacity : 4u;
        const Record& want = k < failed ? src : before;
        const uint8_t* got = after.data() + e.recordOffset;
        if (k < failed && e.field->kind == CORVANE_FIELD_TEXT)
            ASSERT_STREQ(reinterpret_cast<const char*>(want.data() + e.recordOffset),
                         reinterpret_cast<const char*>(got)) << e.path;
        else
            ASSERT_EQ(0, std::memcmp(want.data() + e.recordOffset, got, size))
                << e.path << ", failure at " << els[failed].path;
    }
}

class AllRecords : public testing::TestWithParam<const CorVaneSchema*> {
protected:
    void SetUp() override { clearLog(); }
    const CorVaneSchema& s() const { return *GetParam(); }
};

// Full instances (every word distinct, texts at capacity - 1, counts at 0,
// at the capacity and 0xFFFFFFFF) and random ones (texts of every length
// with junk after the NUL, counts around the capacity): copy gives the
// source, length is what serialise writes, every element sits where the wire
// rules put it with its text and padding as they must be, and both readers
// give the source back and stop at the end. Each round uses another byte
// shift for both buffers.
TEST_P(AllRecords, RoundTripAtEveryShift) {
    std::mt19937 rng(12345);
    for (int round = 0; round < 7; ++round) {
        SCOPED_TRACE(round);
        const size_t shift = round % 4;
        Record src(&s()), sentinel(&s());
        if (round < 3)
            fillFull(s(), src.data(), 1, static_cast<Counts>(round));
        else
            fillRandom(s(), src.data(), rng);
        fillFull(s(), sentinel.data(), 2, Counts::kCapacity);

        Record copy(sentinel);
        ASSERT_EQ(0u, corVane_record_copy(&s(), copy.data(), src.data()));
        ASSERT_EQ("", diff(s(), src.data(), copy.data()));

        const auto els = elements(s(), src.data());
        const uint32_t length = corVane_record_serialize_lg(&s(), src.data());
        ASSERT_EQ(els.back().wireOffset + els.back().wireSize, length);
        ExactBuffer out(Bytes(length + 8, 0xA5), shift);
        uint8_t* cursor = out.data();
        ASSERT_EQ(0u, corVane_record_serialize(&s(), src.data(), &cursor));
        ASSERT_EQ(out.data() + length, cursor);
        for (const Element& e : els) {
            const uint8_t* el = out.data() + e.wireOffset;
            const uint8_t* field = src.data() + e.recordOffset;
            ASSERT_EQ(e.tag, be32(el)) << e.path;
            ASSERT_EQ(e.wireSize - 8, be32(el + 4)) << e.path;
            if (e.field->kind == CORVANE_FIELD_U32) {
                uint32_t v;
                std::memcpy(&v, field, 4);
                ASSERT_EQ(v, be32(el + 8)) << e.path;
                continue;
            }
            const size_t n = strnlen(reinterpret_cast<const char*>(field), e.field->capacity);
            ASSERT_EQ(0, std::memcmp(field, el + 8, n)) << e.path;
            ASSERT_EQ(0, el[8 + n]) << e.path;
            for (size_t p = 9 + n; p < e.wireSize; ++p) ASSERT_EQ(0xA5, el[p]) << e.path << " padding";
        }
        for (size_t p = length; p < out.size(); ++p) ASSERT_EQ(0xA5, out.data()[p]) << "past the end";

        ExactBuffer wire(Bytes(out.data(), out.data() + length), 3 - shift);
        for (bool bounded : {false, true}) {
            Record back(sentinel);
            const uint8_t* in = wire.data();
            ASSERT_EQ(0u, decode(s(), back.data(), &in, bounded ? wire.end() : nullptr));
            ASSERT_EQ(wire.end(), in);
            ASSERT_EQ("", diff(s(), src.data(), back.data()));
            // A text is written through its NUL and no further.
            for (const Element& e : els) {
                if (e.field->kind != CORVANE_FIELD_TEXT) continue;
                const auto* text = reinterpret_cast<const char*>(src.data() + e.recordOffset);
                const size_t at = e.recordOffset + strnlen(text, e.field->capacity) + 1;
                ASSERT_EQ(0, std::memcmp(sentinel.data() + at, back.data() + at,
                                         e.recordOffset + e.field->capacity - at))
                    << e.path << " past its NUL";
            }
        }
    }
    EXPECT_TRUE(logLines().empty());
}

// Each element of a full encoding spoilt in turn, for both readers: a wrong
// tag anywhere (one that differs in its high bytes; every small one is tried
// in codec_properties_test.cpp), or a text one byte too long for its field, gives 4, the
// cursor on that element, the exact lines at LOG_ERR, the fields before it
// read and the others untouched.
TEST_P(AllRecords, SpoiltElements) {
    Record src(&s()), sentinel(&s());
    fillFull(s(), src.data(), 3, Counts::kCapacity);
    fillFull(s(), sentinel.data(), 4, Counts::kCapacity);
    const Bytes wire = encode(s(), src.data());
    const auto els = elements(s(), src.data());
    for (size_t k = 0; k < els.size(); ++k) {
        const Element& e = els[k];
        const std::string inner = fnOf(*e.levels.back().schema) + ": ";
        // Each spoilt encoding and its first line, "@" standing for the innermost record's address.
        std::vector<std::pair<Bytes, std::string>> spoilt;
        Bytes retagged = wire;
        putBe32(&retagged[e.wireOffset], e.tag + 0x100);
        spoilt.emplace_back(retagged, inner + "pBody(@): Tl(" + std::to_string(e.tag + 0x100) +
                                          "-" + std::to_string(e.wireSize - 8) + ") expectded(" +
                                          std::to_string(e.tag) + ")\n");
        const uint16_t cap = e.field->capacity;
        // The over-long text is of DEL bytes (0x7f), which a NUL test off by
        // one would take for NULs.
        if (e.field->kind == CORVANE_FIELD_TEXT)
            spoilt.emplace_back(replaceElement(wire, e, stringElement(e.tag, std::string(cap, '\x7f'))),
                                inner + "lgChainIn(" + std::to_string(cap + 1) + ") lgMaxChainOut(" +
                                    std::to_string(cap) + ")\n");
        for (const auto& [bytes, line] : spoilt) {
            ExactBuffer exact(bytes);
            std::vector<std::string> want{line};
            if (const size_t at = line.find('@'); at != std::string::npos)
                want[0].replace(at, 1, ptr(exact.data() + e.levels.back().start));
            for (auto& l : errorBeforeLines(e, exact.data())) want.push_back(l);
            for (bool bounded : {false, true}) {
                Record dst(sentinel);
                clearLog();
                const uint8_t* in = exact.data();
                ASSERT_EQ(4u, decode(s(), dst.data(), &in, bounded ? exact.end() : nullptr))
                    << e.path;
                ASSERT_EQ(exact.data() + e.wireOffset, in) << e.path;
                ASSERT_EQ(want, logTextsWithoutLine()) << e.path;
                for (const auto& l : logLines()) ASSERT_EQ(3, l.priority);
                expectReadUpTo(src, sentinel, dst, els, k);
            }
        }
        // An element longer than its value (a newer peer's) is read and skipped whole.
        Record want(src);
        Bytes longer;
        if (e.field->kind == CORVANE_FIELD_U32) {
            longer.assign(wire.begin() + static_cast<std::ptrdiff_t>(e.wireOffset),
                          wire.begin() + static_cast<std::ptrdiff_t>(e.wireOffset + 12));
        } else {
            const std::string text = std::string("abc").substr(0, e.field->capacity - 1u);
            longer = stringElement(e.tag, text);
            std::strcpy(reinterpret_cast<char*>(want.data() + e.recordOffset), text.c_str());
        }
        putBe32(&longer[4], be32(&longer[4]) + 5);
        longer.resize(longer.size() + 5, 0xEE);
        ExactBuffer exact(replaceElement(wire, e, longer));
        for (bool bounded : {false, true}) {
            Record back(sentinel);  // no NUL waiting where the text ends
            const uint8_t* in = exact.data();
            ASSERT_EQ(0u, decode(s(), back.data(), &in, bounded ? exact.end() : nullptr)) << e.path;
            ASSERT_EQ(exact.end(), in);
            ASSERT_EQ("", diff(s(), want.data(), back.data())) << e.path;
        }
    }
}

// Cut short anywhere, a full encoding gives 4 from the bounded reader with
// one line and no read past the cut (AddressSanitizer builds make the rest
// unreadable). Every length, but for the two records of over 16 KB every
// 97th in their middle; CORVANE_TRUNCATION_STRIDE=n (emulated runs) takes
// every n-th length. Lengths near an element boundary are always taken.
TEST_P(AllRecords, TruncatedAtEveryLength) {
    Record src(&s()), dst(&s());
    fillFull(s(), src.data(), 8, Counts::kCapacity);
    const Bytes wire = encode(s(), src.data());
    ExactBuffer exact(wire);
    std::set<size_t> cuts;
    const char* env = std::getenv("CORVANE_TRUNCATION_STRIDE");
    const size_t stride = env && std::atoi(env) > 0 ? static_cast<size_t>(std::atoi(env)) : 1;
    for (size_t n = 0; n < wire.size(); n += stride)
        if (wire.size() <= 16384 || n < 4096 || n + 4096 > wire.size() || n % 97 == 0) cuts.insert(n);
    for (const Element& e : elements(s(), src.data()))
        for (size_t d = 0; d < 13; ++d) {
            if (e.wireOffset + d < wire.size()) cuts.insert(e.wireOffset + d);
            if (e.wireOffset + e.wireSize > d) cuts.insert(e.wireOffset + e.wireSize - d - 1);
        }
    for (size_t n : cuts) {
        exact.limit(n);
        clearLog();
        const uint8_t* in = exact.data();
        ASSERT_EQ(4u, decode(s(), dst.data(), &in, exact.data() + n)) << n;
        ASSERT_LE(in, exact.data() + n);
        ASSERT_EQ(1u, logLines().size()) << n;
        const std::string& line = logLines()[0].text;
        ASSERT_TRUE(line.find("runs past the end of the buffer") != std::string::npos ||
                    line.find("has no NUL before the end of the buffer") != std::string::npos) << line;
    }
}

INSTANTIATE_TEST_SUITE_P(Registry, AllRecords, testing::ValuesIn(allRecords()),
                         [](const testing::TestParamInfo<const CorVaneSchema*>& i) { return i.param->name; });

// The lengths the record descriptions state, for empty instances and for
// full ones (texts at capacity - 1, counts at capacity), each record found
// by its name in the registry of 66.
TEST(Golden, StatedLengths) {
    ASSERT_EQ(66u, allRecords().size());
    EXPECT_EQ(nullptr, corVane_recordSchema("NoSuchRecord"));
    EXPECT_EQ(nullptr, corVane_recordSchemaAt(66));
    const struct {
        const char* record;
        bool full;
        uint32_t length;
    } cases[] = {
        {"internalCallStatus", false, 12}, {"ProfileStatus", false, 24}, {"ProfileBackupIntfStatus", false, 36},
        {"lineCallState", false, 36}, {"pingSipState", false, 36}, {"FaxT38", true, 72}, {"ProfileRTP", false, 168},
        {"ProfileSIP", false, 744}, {"PrefixInfo", false, 120}, {"NumberingPlan", false, 4920},
        {"FQDNServers", false, 84}, {"ProfileFQDNServers", false, 24}, {"outBoundProxy", false, 12},
        {"VoiceBehavior", false, 132}, {"BatteryCfg", false, 48}, {"CallControl", false, 12}, {"DualStack", false, 12},
        {"BackupInterface", false, 48}, {"LineRinger", false, 36}, {"EventList", true, 24}, {"PatternList", true, 48},
        {"DescriptionList", false, 60}, {"LineCodec", false, 96}, {"CodecList", false, 96},
        {"LineVoiceProcessing", true, 60}, {"CallingFeatures", false, 684}, {"CallingFeatures", true, 1580},
        {"outGoingLine", true, 24}, {"Registrar", false, 144}, {"Contact", false, 108}, {"Account", false, 876},
        {"accountStatus", false, 120}, {"phyInterfaceCodecList", true, 12}, {"phyInterfaceDectUsb", true, 12},
        {"phyInterfaceDectPp", true, 24}, {"phyInterfaceReinjection", true, 24}, {"phyInterfaceFxs", true, 60},
        {"phyInterfaceStatusTest", true, 24}, {"phyInterfaceStatusDectUsb", true, 36}, {"repeater_status", true, 36},
        {"capabilities", false, 2736}, {"transportEvent", false, 60}, {"lineModif", false, 372}, {"lineStats", false, 396}};
    for (const auto& c : cases) {
        const CorVaneSchema* s = corVane_recordSchema(c.record);
        ASSERT_NE(nullptr, s) << c.record;
        Record r(s);
        if (c.full) fillFull(*s, r.data(), 1, Counts::kCapacity);
        EXPECT_EQ(c.length, corVane_record_serialize_lg(s, r.data())) << c.record << (c.full ? " full" : " empty");
    }
}

// The published field descriptions hold what the header says of each kind
// and nothing else: a capacity only for texts and arrays, a nested schema
// only for records and arrays, the reserved byte 0. Tools read these.
TEST(Golden, FieldDescriptionsFollowTheirKind) {
    for (const CorVaneSchema* s : allRecords())
        for (uint32_t j = 0; j < s->fieldCount; ++j) {
            const CorVaneField& f = s->fields[j];
            SCOPED_TRACE(std::string(s->name) + "." + f.name);
            EXPECT_LE(f.kind, CORVANE_FIELD_FIXED_ARRAY);
            EXPECT_EQ(f.kind != CORVANE_FIELD_U32 && f.kind != CORVANE_FIELD_RECORD, f.capacity != 0);
            EXPECT_EQ(f.kind >= CORVANE_FIELD_RECORD, f.record != nullptr);
            EXPECT_EQ(0, f.reserved);
        }
}

// Tags above 255 are written and read in full: a record of 255 words and a
// text carries tags 3 to 258, and a header that only a tag counter carried
// into the length word would give is refused where tag 256 is expected.
TEST(Codec, TagsAbove255) {
    constexpr uint16_t kWords = 255;
    struct Wide {
        uint32_t w[kWords];
        char text[4];
    };
    std::vector<CorVaneField> fields(kWords + 1);
    for (uint16_t i = 0; i < kWords; ++i) fields[i] = {"w", nullptr, 4u * i, 0, CORVANE_FIELD_U32, 0};
    fields[kWords] = {"text", nullptr, offsetof(Wide, text), 4, CORVANE_FIELD_TEXT, 0};
    const CorVaneSchema s{"Wide", fields.data(), sizeof(Wide), kWords + 1, 0};
    Wide rec{}, back{};
    Bytes want;
    for (uint32_t i = 0; i < kWords; ++i) want = want + words({3 + i, 4, rec.w[i] = 0x01000000u + i});
    std::strcpy(rec.text, "hi");
    want = want + words({258, 4}) + Bytes{'h', 'i', 0, 0xEE};
    ASSERT_EQ(want.size(), corVane_record_serialize_lg(&s, &rec));
    Bytes out(want.size(), 0xEE);
    uint8_t* cur = out.data();
    ASSERT_EQ(0u, corVane_record_serialize(&s, &rec, &cur));
    EXPECT_EQ(want, out);
    const uint8_t* in = out.data();
    ASSERT_EQ(0u, corVane_record_unserialize(&s, &back, &in));
    EXPECT_EQ("", diff(s, &rec, &back));
    // 254 words, the first record whose last tag is 256: written and read in full.
    const CorVaneSchema s254{"Wide", fields.data(), sizeof(Wide), kWords - 1, 0};
    Bytes out254(12 * (kWords - 1), 0xEE);
    cur = out254.data();
    ASSERT_EQ(0u, corVane_record_serialize(&s254, &rec, &cur));
    EXPECT_EQ(Bytes(want.begin(), want.begin() + 12 * (kWords - 1)), out254);
    Wide back254{};
    const uint8_t* in254 = out254.data();
    ASSERT_EQ(0u, corVane_record_unserialize(&s254, &back254, &in254));
    EXPECT_EQ("", diff(s254, &rec, &back254));
    const Bytes bad = words({0, 0x01000004u});
    std::memcpy(out.data() + 12 * 253, bad.data(), bad.size());
    for (const bool bounded : {false, true}) {
        in = out.data();
        clearLog();
        EXPECT_EQ(4u, decode(s, &back, &in, bounded ? out.data() + out.size() : nullptr));
        EXPECT_EQ(out.data() + 12 * 253, in);
        ASSERT_FALSE(logTextsWithoutLine().empty());
        EXPECT_EQ("corVane_Wide_unserialize: pBody(" + ptr(out.data()) + "): Tl(0-16777220) expectded(256)\n",
                  logTextsWithoutLine()[0]);
    }
}

// Null arguments are refused with a line, never dereferenced.
TEST(Codec, NullArgumentsAreRefused) {
    ProfileStatus ps{};
    uint8_t buf[24];
    uint8_t* cur = buf;
    const uint8_t* in = buf;
    clearLog();
    EXPECT_EQ(4u, corVane_ProfileStatus_copy(nullptr, &ps));
    EXPECT_EQ(4u, corVane_ProfileStatus_copy(&ps, nullptr));
    EXPECT_EQ(4u, corVane_ProfileStatus_serialize(&ps, nullptr));
    cur = nullptr;
    EXPECT_EQ(4u, corVane_ProfileStatus_serialize(&ps, &cur));
    EXPECT_EQ(4u, corVane_ProfileStatus_unserialize(nullptr, &in));
    EXPECT_EQ(4u, corVane_ProfileStatus_unserialize_bounded(&ps, nullptr, buf));
    EXPECT_EQ(0u, corVane_ProfileStatus_serialize_lg(nullptr));
    corVane_ProfileStatus_clean(nullptr);
    EXPECT_EQ(4u, corVane_ProfileStatus_unserialize_bounded(&ps, &in, nullptr));
    EXPECT_EQ(buf, in);
    EXPECT_EQ(4u, corVane_record_copy(nullptr, &ps, &ps));
    EXPECT_EQ(0u, corVane_record_serialize_lg(nullptr, &ps));
    const std::string p = "corVane_ProfileStatus_";
    EXPECT_EQ((std::vector<std::string>{
                  p + "copy: Ctx[NULL] text[destination]\n", p + "copy: Ctx[NULL] text[source]\n",
                  p + "serialize: Ctx[NULL] text[cursor]\n", p + "serialize: Ctx[NULL] text[*cursor]\n",
                  p + "unserialize: Ctx[NULL] text[record]\n", p + "unserialize_bounded: Ctx[NULL] text[cursor]\n",
                  p + "serialize_lg: Ctx[NULL] text[record]\n",
                  p + "unserialize: pBody(" + ptr(buf) + "): Type(3) runs past the end of the buffer: 8 bytes needed, 0 left\n"}),
              logTextsWithoutLine());
}

// _copy takes the same record (nothing is done: an unterminated text stays
// as it is) or two that do not overlap (such a text is then cut to
// capacity - 1); records back to back are the closest such pair, and no
// byte of a neighbour changes.
TEST(Codec, CopyOfTheSameOrAdjacentRecords) {
    const CorVaneSchema& s = *corVane_recordSchema("dectRepeater");
    std::vector<dectRepeater> three(3);
    for (uint32_t i = 0; i < 3; ++i) fillFull(s, &three[i], 40 + i, Counts::kCapacity);
    const dectRepeater middle = three[1];
    std::memset(three[1].text2, 'u', sizeof three[1].text2);
    const dectRepeater unterminated = three[1];
    ASSERT_EQ(0u, corVane_dectRepeater_copy(&three[1], &three[1]));
    EXPECT_EQ(0, std::memcmp(&unterminated, &three[1], sizeof middle));
    ASSERT_EQ(0u, corVane_dectRepeater_copy(&three[0], &unterminated));
    EXPECT_EQ(std::string(sizeof middle.text2 - 1, 'u'), three[0].text2);
    three[1] = middle;
    ASSERT_EQ(0u, corVane_dectRepeater_copy(&three[0], &three[1]));
    ASSERT_EQ(0u, corVane_dectRepeater_copy(&three[2], &three[1]));
    for (int i : {0, 1, 2}) EXPECT_EQ(0, std::memcmp(&middle, &three[i], sizeof middle)) << i;
}

}  // namespace
}  // namespace cvtest
