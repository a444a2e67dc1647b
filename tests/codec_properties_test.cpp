// Rules of the codec checked at every field of every record rather than on
// chosen cases: what the bounded reader makes of a text element of any
// length wherever the buffer ends, that serialize_lg is what serialize
// writes for texts that fill their field, and the edges of the generic
// operations and of the names in log lines. The expected answers are worked
// out here from the wire rules, not taken from the engine. Instances hold
// one entry in each counted array, so that every kind of element appears in
// a short encoding.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <set>

#include "corvane/messages.h"
#include "corvane/records.h"
#include "support/records.h"
#include "support/syslog_capture.h"
#include "support/wire_edit.h"

namespace cvtest {
namespace {

// Bytes that are not NULs: 0x01 and 0xff lie next to it in value, 0x80 has
// only the bit that a word-wide NUL test flags.
constexpr uint8_t kNonZero[] = {0x01, 0x58, 0x7f, 0x80, 0xff};

uint8_t nonZero(size_t i) { return kNonZero[i % std::size(kNonZero)]; }

// The first element of each text field (a field of a nested type counts once).
std::vector<size_t> firstOfEachTextField(const std::vector<Element>& els) {
    std::set<const CorVaneField*> seen;
    std::vector<size_t> out;
    for (size_t k = 0; k < els.size(); ++k)
        if (els[k].field->kind == CORVANE_FIELD_TEXT && seen.insert(els[k].field).second)
            out.push_back(k);
    return out;
}

struct Answer {
    uint32_t status;
    size_t cursor;
    std::vector<std::string> lines;
    std::optional<std::string> text;  // what the field holds once the element is taken
    bool boundOnly;                    // an answer only a reader that knows the end can give
};

std::string overrunLine(const Element& e, const uint8_t* base, uint64_t need, size_t left) {
    return fnOf(*e.levels.back().schema) + ": pBody(" + ptr(base + e.levels.back().start) +
           "): Type(" + std::to_string(e.tag) + ") runs past the end of the buffer: " +
           std::to_string(need) + " bytes needed, " + std::to_string(left) + " left\n";
}

// The bounded reader's answer for `buf` (at `base`): the encoding up to
// element k, that element as a header declaring `length` bytes and what
// follows it. `restFollows`: the rest of the encoding comes after the
// element. The text is measured up to its NUL wherever that lies in the
// buffer; it must fit its field, and the whole element must lie in the buffer.
Answer boundedAnswer(const std::vector<Element>& els, size_t k, const Bytes& buf,
                     const uint8_t* base, uint32_t length, bool restFollows) {
    const Element& e = els[k];
    const size_t at = e.wireOffset, textAt = at + 8, cap = e.field->capacity;
    const auto nul = std::find(buf.begin() + static_cast<std::ptrdiff_t>(textAt), buf.end(), 0);
    if (nul == buf.end())
        return {4, at,
                {fnOf(*e.levels.back().schema) + ": pBody(" + ptr(base + e.levels.back().start) +
                 "): Type(" + std::to_string(e.tag) +
                 ") text has no NUL before the end of the buffer(" +
                 std::to_string(buf.size() - textAt) + " bytes)\n"},
                {}, true};
    const auto n = static_cast<size_t>(nul - buf.begin()) - textAt;
    if (n + 1 > cap) {
        std::vector<std::string> lines{fnOf(*e.levels.back().schema) + ": lgChainIn(" +
                                       std::to_string(n + 1) + ") lgMaxChainOut(" +
                                       std::to_string(cap) + ")\n"};
        for (auto& l : errorBeforeLines(e, base)) lines.push_back(l);
        return {4, at, lines, {}, false};
    }
    if (8 + uint64_t{length} > buf.size() - at)
        return {4, at, {overrunLine(e, base, 8 + uint64_t{length}, buf.size() - at)}, {}, true};
    const std::string text(reinterpret_cast<const char*>(&buf[textAt]), n);
    const size_t next = at + 8 + length;
    if (restFollows) return {0, buf.size(), {}, text, false};
    if (k + 1 == els.size()) return {0, next, {}, text, false};
    // The next element's header is cut short. A record that begins there
    // begins where the element ends.
    Element x = els[k + 1];
    if (x.levels.back().start > at) x.levels.back().start = next;
    return {4, next, {overrunLine(x, base, 8, buf.size() - next)}, text, true};
}

class EveryRecord : public testing::TestWithParam<const CorVaneSchema*> {
protected:
    void SetUp() override { clearLog(); }
    const CorVaneSchema& s() const { return *GetParam(); }
};

// Every text field, with an element of every length from 0 to 9 and around
// its capacity, holding no NUL or one NUL at each place (near both ends for
// long ones), the other bytes non-zero; the buffer ending after the rest of
// the encoding, just after the element, with a few non-zero bytes after it,
// or one byte before its end. The bounded reader gives the answer above;
// its field holds the text and its NUL, or keeps what it held. Where the
// classic reader can take the same bytes (the text ends in the buffer and
// the element is refused or lies whole in it), it gives the same answer.
TEST_P(EveryRecord, TextElementsOfAnyLengthWhereverTheBufferEnds) {
    Record src(&s()), sentinel(&s());
    fillFull(s(), src.data(), 5, Counts::kOne);
    fillFull(s(), sentinel.data(), 6, Counts::kOne);
    const Bytes wire = encode(s(), src.data());
    const auto els = elements(s(), src.data());
    for (const size_t k : firstOfEachTextField(els)) {
        const Element& e = els[k];
        const uint32_t cap = e.field->capacity;
        const auto at = wire.begin() + static_cast<std::ptrdiff_t>(e.wireOffset);
        const Bytes before(wire.begin(), at);
        const Bytes rest(at + static_cast<std::ptrdiff_t>(e.wireSize), wire.end());
        std::set<uint32_t> lengths;
        for (uint32_t n = 0; n <= 9; ++n) lengths.insert(n);
        for (uint32_t n = cap - 2; n <= cap + 5; ++n) lengths.insert(n);
        for (const uint32_t length : lengths) {
            std::set<size_t> nulAt{length};  // at `length`: no NUL in the element
            for (size_t t = 0; t < length; ++t)
                if (length <= 9 || t < 2 || t + 5 >= length) nulAt.insert(t);
            for (const size_t t : nulAt) {
                Bytes element = words({e.tag, length});
                for (size_t i = 0; i < length; ++i) element.push_back(i == t ? 0 : nonZero(i));
                std::vector<std::pair<Bytes, bool>> buffers{{before + element + rest, true},
                                                            {before + element, false},
                                                            {before + element + Bytes{1, 0xff, 1}, false}};
                if (length > 0) buffers.push_back({before + Bytes(element.begin(), element.end() - 1), false});
                for (const auto& [bytes, restFollows] : buffers) {
                    ExactBuffer exact(bytes);
                    const Answer want =
                        boundedAnswer(els, k, bytes, exact.data(), length, restFollows);
                    for (const bool bounded : {true, false}) {
                        if (!bounded && want.boundOnly) continue;
                        Record dst(sentinel);
                        clearLog();
                        const uint8_t* in = exact.data();
                        const std::string where = e.path + " length " + std::to_string(length) +
                                                  " NUL at " + std::to_string(t) + " in " +
                                                  std::to_string(bytes.size()) + " bytes" +
                                                  (bounded ? "" : ", classic reader");
                        ASSERT_EQ(want.status, decode(s(), dst.data(), &in, bounded ? exact.end() : nullptr))
                            << where;
                        ASSERT_EQ(want.cursor, static_cast<size_t>(in - exact.data())) << where;
                        ASSERT_EQ(want.lines, logTextsWithoutLine()) << where;
                        const uint8_t* field = dst.data() + e.recordOffset;
                        const uint8_t* held = sentinel.data() + e.recordOffset;
                        const size_t written = want.text ? want.text->size() + 1 : 0;
                        if (want.text) {
                            ASSERT_EQ(0, std::memcmp(want.text->c_str(), field, written)) << where;
                        }
                        ASSERT_EQ(0, std::memcmp(held + written, field + written, cap - written))
                            << where << ": the field past what was written";
                    }
                }
            }
        }
    }
}

// Every text field filled to its capacity, of 0x01 or 0xff bytes, with a
// NUL in its last byte or none, and non-zero bytes in the word after it:
// with the NUL, serialize writes serialize_lg bytes and the record reads
// back; without, serialize refuses it (4, the cursor at the element,
// nothing written from there, the lines of the record and its parents) and
// serialize_lg counts it as capacity characters.
TEST_P(EveryRecord, SerializeLgForTextsFillingTheirField) {
    Record base(&s());
    fillFull(s(), base.data(), 7, Counts::kOne);
    const auto els = elements(s(), base.data());
    size_t total = 0;
    for (const Element& e : els) total += e.wireSize;
    for (const size_t k : firstOfEachTextField(els)) {
        const Element& e = els[k];
        const uint32_t cap = e.field->capacity;
        const CorVaneSchema& owner = *e.levels.back().schema;
        const CorVaneField* after = nullptr;
        for (uint32_t j = 0; j < owner.fieldCount; ++j)
            if (owner.fields[j].offset == e.field->offset + cap) after = &owner.fields[j];
        for (const bool terminated : {true, false}) {
            for (const uint8_t fill : {uint8_t{0x01}, uint8_t{0xff}}) {
                Record rec(base);
                uint8_t* field = rec.data() + e.recordOffset;
                std::memset(field, fill, cap);
                if (terminated) field[cap - 1] = 0;
                if (after && after->kind == CORVANE_FIELD_U32) std::memset(field + cap, fill, 4);
                const std::string where = e.path + (terminated ? " with" : " without") +
                                          " a NUL, bytes " + std::to_string(fill);
                const uint32_t chars = terminated ? cap - 1 : cap;
                const size_t length = total - e.wireSize + 8 + paddedLength(chars);
                ASSERT_EQ(length, corVane_record_serialize_lg(&s(), rec.data())) << where;
                ExactBuffer out(Bytes(length, 0xEE));
                uint8_t* cur = out.data();
                clearLog();
                const uint32_t st = corVane_record_serialize(&s(), rec.data(), &cur);
                if (terminated) {
                    ASSERT_EQ(0u, st) << where;
                    ASSERT_EQ(out.end(), cur) << where;
                    ASSERT_EQ(paddedLength(chars), be32(out.data() + e.wireOffset + 4)) << where;
                    Record back(&s());
                    const uint8_t* in = out.data();
                    ASSERT_EQ(0u, decode(s(), back.data(), &in, out.end())) << where;
                    ASSERT_EQ("", diff(s(), rec.data(), back.data())) << where;
                    continue;
                }
                ASSERT_EQ(4u, st) << where;
                ASSERT_EQ(out.data() + e.wireOffset, cur) << where;
                ASSERT_TRUE(std::all_of(cur, out.end(), [](uint8_t b) { return b == 0xEE; })) << where;
                std::vector<std::string> want{fnOf(owner, "_serialize") + ": lgChainIn(" +
                                              std::to_string(cap + 1) + ") lgMaxChainOut(" +
                                              std::to_string(cap) + ")\n"};
                for (auto& l : errorBeforeLines(e, out.data(), "_serialize")) want.push_back(l);
                ASSERT_EQ(want, logTextsWithoutLine()) << where;
            }
        }
    }
}

// At every element, every tag but the expected one, from 0 to one past the
// record's largest (the previous tag repeats an element, the next skips
// one), gives 4 from both readers, the cursor on that element and the
// record's lines.
TEST_P(EveryRecord, EveryOtherTagIsRefusedAtEveryElement) {
    Record src(&s()), dst(&s());
    fillFull(s(), src.data(), 9, Counts::kOne);
    const auto els = elements(s(), src.data());
    uint32_t largest = 0;
    for (const Element& e : els) largest = std::max(largest, e.tag);
    ExactBuffer exact(encode(s(), src.data()));
    for (const Element& e : els) {
        uint8_t* header = exact.data() + e.wireOffset;
        for (uint32_t tag = 0; tag <= largest + 1; ++tag) {
            if (tag == e.tag) continue;
            putBe32(header, tag);
            std::vector<std::string> want{fnOf(*e.levels.back().schema) + ": pBody(" +
                                          ptr(exact.data() + e.levels.back().start) + "): Tl(" +
                                          std::to_string(tag) + "-" + std::to_string(e.wireSize - 8) +
                                          ") expectded(" + std::to_string(e.tag) + ")\n"};
            for (auto& l : errorBeforeLines(e, exact.data())) want.push_back(l);
            for (const bool bounded : {true, false}) {
                clearLog();
                const uint8_t* in = exact.data();
                ASSERT_EQ(4u, decode(s(), dst.data(), &in, bounded ? exact.end() : nullptr)) << e.path << " tag " << tag;
                ASSERT_EQ(header, in) << e.path << " tag " << tag;
                ASSERT_EQ(want, logTextsWithoutLine()) << e.path << " tag " << tag;
            }
        }
        putBe32(header, e.tag);
    }
}

INSTANTIATE_TEST_SUITE_P(Registry, EveryRecord, testing::ValuesIn(allRecords()),
                         [](const testing::TestParamInfo<const CorVaneSchema*>& i) { return i.param->name; });

// A schema of no fields, with or without a field list: nothing to count,
// write, read or copy. Every generic operation returns 0 and touches no byte.
TEST(GenericOperations, SchemaOfNoFields) {
    const CorVaneField word{"w", nullptr, 0, 0, CORVANE_FIELD_U32, 0};
    for (const CorVaneField* fields : {static_cast<const CorVaneField*>(nullptr), &word}) {
        const CorVaneSchema s{"nothing", fields, sizeof(uint32_t), 0, 0};
        uint32_t rec = 0x11111111u, other = 0x22222222u;
        clearLog();
        EXPECT_EQ(0u, corVane_record_serialize_lg(&s, &rec));
        Bytes out(16, 0xEE);
        uint8_t* cur = out.data();
        EXPECT_EQ(0u, corVane_record_serialize(&s, &rec, &cur));
        EXPECT_EQ(out.data(), cur);
        EXPECT_EQ(Bytes(16, 0xEE), out);
        const Bytes wire = words({3, 4, 7});
        for (const uint8_t* end : {wire.data() + wire.size(), wire.data(), static_cast<const uint8_t*>(nullptr)}) {
            const uint8_t* in = wire.data();
            EXPECT_EQ(0u, decode(s, &rec, &in, end));
            EXPECT_EQ(wire.data(), in);
        }
        EXPECT_EQ(0x11111111u, rec);
        EXPECT_EQ(0u, corVane_record_copy(&s, &other, &rec));
        EXPECT_EQ(0x22222222u, other);
        EXPECT_TRUE(logLines().empty());
    }
}

// A record that ends with a text, of each capacity from 2 to 40 and each
// length up to it (at the capacity, no NUL), other bytes non-zero, in a
// block that ends where it ends: every operation gives the text's answer
// and reads nothing past the block (AddressSanitizer builds see such a
// read), nor writes past the record it fills.
TEST(GenericOperations, ARecordEndingWithATextIsReadNoFurther) {
    for (uint16_t cap = 2; cap <= 40; ++cap) {
        const CorVaneField field{"t", nullptr, 0, cap, CORVANE_FIELD_TEXT, 0};
        const CorVaneSchema s{"tail", &field, cap, 1, 0};
        for (uint32_t n = 0; n <= cap; ++n) {
            Bytes text(cap);
            for (size_t i = 0; i < cap; ++i) text[i] = i == n ? 0 : nonZero(i);
            ExactBuffer rec(text), copy(Bytes(cap, 0xEE));
            const std::string where = "capacity " + std::to_string(cap) + ", length " + std::to_string(n);
            const std::string kept(reinterpret_cast<const char*>(text.data()), std::min<size_t>(n, cap - 1u));
            ASSERT_EQ(0u, corVane_record_copy(&s, copy.data(), rec.data())) << where;
            ASSERT_EQ(kept, reinterpret_cast<const char*>(copy.data())) << where;
            const uint32_t length = 8 + paddedLength(n);
            ASSERT_EQ(length, corVane_record_serialize_lg(&s, rec.data())) << where;
            ExactBuffer out(Bytes(length, 0xEE));
            uint8_t* cur = out.data();
            ASSERT_EQ(n < cap ? 0u : 4u, corVane_record_serialize(&s, rec.data(), &cur)) << where;
            if (n == cap) continue;
            ASSERT_EQ(out.end(), cur) << where;
            for (const bool bounded : {true, false}) {
                ExactBuffer back(Bytes(cap, 0xEE));
                const uint8_t* in = out.data();
                ASSERT_EQ(0u, decode(s, back.data(), &in, bounded ? out.end() : nullptr)) << where;
                ASSERT_EQ(out.end(), in) << where;
                ASSERT_EQ(kept, reinterpret_cast<const char*>(back.data())) << where;
            }
        }
    }
}

// A function name in a line is cut to the 127 characters its buffer holds,
// however long the record's name (a caller's schema through the generic
// operations).
TEST(LogNames, AreCutToTheirBuffer) {
    const CorVaneField word{"w", nullptr, 0, 0, CORVANE_FIELD_U32, 0};
    std::string name;
    for (size_t n = 0; n <= 300; ++n, name += static_cast<char>('a' + n % 26)) {
        const CorVaneSchema s{name.c_str(), &word, sizeof(uint32_t), 1, 0};
        uint32_t rec = 0;
        const uint8_t none[1] = {0};
        const uint8_t* in = none;
        clearLog();
        ASSERT_EQ(4u, corVane_record_unserialize_bounded(&s, &rec, &in, none));
        const std::string fn = ("corVane_" + name + "_unserialize").substr(0, 127);
        ASSERT_EQ(std::vector<std::string>{fn + ": pBody(" + ptr(none) +
                                           "): Type(3) runs past the end of the buffer: 8 bytes needed, 0 left\n"},
                  logTextsWithoutLine())
            << n;
    }
}

// The method name in a command's function names starts lower-case (only
// 'A' to 'Z' change), and in a magic's label is all upper-case (only 'a' to
// 'z' change), whatever its characters: a caller's descriptor named with
// every printable character in turn.
TEST(LogNames, CaseRulesHoldForEveryCharacter) {
    CorVaneMessageInfo m = *corVane_messageByName("SetLineCallState");
    for (int c = 0x21; c < 0x7f; ++c) {
        if (c == '(') continue;  // the line's own "name(line): " would no longer parse
        const std::string name = std::string(1, static_cast<char>(c)) + "lPha" + static_cast<char>(c);
        m.name = name.c_str();
        std::string lowered = name, upper = name;
        if (c >= 'A' && c <= 'Z') lowered[0] = static_cast<char>(c - 'A' + 'a');
        for (char& u : upper)
            if (u >= 'a' && u <= 'z') u = static_cast<char>(u - 'a' + 'A');
        char magic[16];
        std::snprintf(magic, sizeof magic, "%X", m.magic);
        const Bytes body = words({0, 4, 0, 1, 4, m.envelope});
        void* out = nullptr;
        uint32_t size = 0;
        clearLog();
        ASSERT_EQ(2u, corVane_unserializeBody_bounded(&m, 0, body.data(), body.size(), &out, &size));
        EXPECT_EQ(std::vector<std::string>{"corVane_cbEvtMsgMngt_unserializeBody_msgCmdReq_" + lowered +
                                           ": pBody(" + ptr(body.data()) + "): Check Magic[CORVANE_MAGIC_MSGCMD_" +
                                           upper + "-" + magic + "] magic(0) refused\n"},
                  logTextsWithoutLine())
            << name;
    }
}

}  // namespace
}  // namespace cvtest
