// Hostile bytes from the other side, each with one defined answer: a status,
// the cursor where the read stopped, and the exact log lines. The bounded
// readers get the bytes in an exact heap block (AddressSanitizer sees any
// read past it); where the unbounded reader can take the same bytes followed
// by zeros without running off them, its answer is pinned too. "{+n}" in a
// line stands for the address n bytes into the buffer. README.md's table of
// hostile input is drawn from these cases.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <optional>

#include "corvane/base.h"
#include "corvane/messages.h"
#include "corvane/records.h"
#include "support/records.h"
#include "support/syslog_capture.h"
#include "support/wire_edit.h"

namespace cvtest {
namespace {

Bytes chars(const std::string& s) { return Bytes(s.begin(), s.end()); }

// Replaces each "{+n}" with the address base + n, as the library prints it.
std::vector<std::string> at(std::vector<std::string> lines, const uint8_t* base) {
    for (std::string& line : lines)
        for (size_t open; (open = line.find("{+")) != std::string::npos;) {
            const size_t close = line.find('}', open);
            line.replace(open, close - open + 1, ptr(base + std::stoul(line.substr(open + 2))));
        }
    return lines;
}

constexpr uint32_t kLineCallMagic = 0x20132509u;  // SetLineCallState
constexpr uint32_t kMakeCallMagic = 0x20140808u;  // OnMakeCall
const std::string kLineCall = "corVane_lineCallState_unserialize: ";
const std::string kLineCallBody =
    "corVane_cbEvtMsgMngt_unserializeBody_msgCmdReq_setLineCallState: ";

struct Answer {
    uint32_t status;
    size_t cursor;  // records: where the cursor stops (offset)
    std::vector<std::string> lines;
};

struct HostileCase {
    const char* name;
    const char* target;  // a record type, or a message's method name
    Bytes (*input)();
    Answer bounded;
    // The classic reader on the bytes then zeros; {} where it would run off them.
    std::optional<Answer> unbounded;
};

// A serialised body of a message with an all-zero payload and tag-1 word `word`.
Bytes bodyWithWord(const char* method, uint32_t word) {
    const CorVaneMessageInfo* m = corVane_messageByName(method);
    Bytes out = words({0, 4, m->magic, 1, 4, word});
    Record payload(m->payload);
    return out + encode(*m->payload, payload.data());
}

// A record's first line, then its "Error Before" lines for tags from..to;
// the record begins `at` bytes into the buffer.
std::vector<std::string> refused(const std::string& record, size_t at, const std::string& first,
                                 int from, int to) {
    const std::string fn = "corVane_" + record + "_unserialize: ";
    std::vector<std::string> lines{fn + first};
    for (int tag = from; tag <= to; ++tag)
        lines.push_back(fn + "pBody({+" + std::to_string(at) + "}): Type(" + std::to_string(tag) +
                        ") -> Error Before\n");
    return lines;
}

// A 4-byte text field whose element says 256 bytes, the low byte of that
// length word being 0, and holds "abcd" then zeros.
Bytes fourByteFieldOf256() {
    return words({3, 4, 1, 4, 4, 0, 5, 4, 0, 6, 256}) + chars("abcd") + Bytes(252, 0);
}

const HostileCase kCases[] = {
    // ---- length words -------------------------------------------------------
    {"U32LengthAllOnes", "lineCallState",
     [] { return words({3, 0xFFFFFFFFu, 7, 4, 4, 8, 5, 4, 9}); },
     {4, 0, {kLineCall + "pBody({+0}): Type(3) runs past the end of the buffer: 4294967303 bytes needed, 36 left\n"}},
     // 8 + length taken on 32 bits moves the cursor 7 bytes, into the value.
     Answer{4, 7, {kLineCall + "pBody({+0}): Tl(4278190080-117440512) expectded(4)\n",
                   kLineCall + "pBody({+0}): Type(5) -> Error Before\n"}}},
    {"U32LengthWrapsTheCursor", "lineCallState",
     [] { return words({3, 0xFFFFFFF8u, 7, 4, 4, 8, 5, 4, 9}); },
     {4, 0, {kLineCall + "pBody({+0}): Type(3) runs past the end of the buffer: 4294967296 bytes needed, 36 left\n"}},
     // 8 + length is 2^32: the cursor does not move, the next field finds tag 3.
     Answer{4, 0, {kLineCall + "pBody({+0}): Tl(3-4294967288) expectded(4)\n",
                   kLineCall + "pBody({+0}): Type(5) -> Error Before\n"}}},
    {"TextLengthAllOnes", "outBoundProxy",
     [] { return words({3, 0xFFFFFFFFu}) + chars(std::string("abc\0", 4)); },
     {4, 0, {"corVane_outBoundProxy_unserialize: pBody({+0}): Type(3) runs past the end of the buffer: 4294967303 bytes needed, 12 left\n"}}, {}},
    // ---- texts ---------------------------------------------------------------
    {"TextWithoutNulBeforeTheEnd", "outBoundProxy",
     [] { return words({3, 8}) + chars("abcdefgh"); },
     {4, 0, {"corVane_outBoundProxy_unserialize: pBody({+0}): Type(3) text has no NUL before the end of the buffer(8 bytes)\n"}}, {}},
    // A length of 0 is not trusted either: the text is looked for in the
    // buffer, which here ends with the header.
    {"TextLengthZeroAtTheEnd", "outBoundProxy", [] { return words({3, 0}); },
     {4, 0, {"corVane_outBoundProxy_unserialize: pBody({+0}): Type(3) text has no NUL before the end of the buffer(0 bytes)\n"}}, {}},
    // The length word says one byte less than the field holds and there is no
    // NUL: the byte after the buffer must not be taken for one.
    {"TextFillingItsFieldWithoutNul", "outBoundProxy", [] { return words({3, 255}) + chars(std::string(255, 'x')); },
     {4, 0, {"corVane_outBoundProxy_unserialize: pBody({+0}): Type(3) text has no NUL before the end of the buffer(255 bytes)\n"}}, {}},
    // Five bytes for a 4-byte field: refused, though the byte before the
    // text (the length word's last) is a NUL.
    {"FourCharactersInAFourByteField", "phyInterfaceStatusDectPp", fourByteFieldOf256,
     {4, 36, refused("phyInterfaceStatusDectPp", 0, "lgChainIn(5) lgMaxChainOut(4)\n", 7, 15)},
     Answer{4, 36, refused("phyInterfaceStatusDectPp", 0, "lgChainIn(5) lgMaxChainOut(4)\n", 7, 15)}},
    // ---- counts --------------------------------------------------------------
    // Where the first entry should begin, a text element under the array's
    // own reserved tag: the entry's reader refuses it, nothing takes it for
    // a text of the parent.
    {"TextUnderTheArraysTag", "ProfileFQDNServers",
     [] { return words({3, 4, 9, 4, 4, 1, 5, 4}) + chars(std::string("ab\0\0", 4)); },
     {4, 24, refused("FQDNServers", 24, "pBody({+24}): Tl(5-4) expectded(3)\n", 4, 9)},
     Answer{4, 24, refused("FQDNServers", 24, "pBody({+24}): Tl(5-4) expectded(3)\n", 4, 9)}},
    {"CountAllOnesWithoutEntries", "ProfileFQDNServers",
     [] { return words({3, 4, 9, 4, 4, 0xFFFFFFFFu}); },
     {4, 24, {"corVane_FQDNServers_unserialize: pBody({+24}): Type(3) runs past the end of the buffer: 8 bytes needed, 0 left\n"}}, {}},
    // With the 20 entries present it is accepted; copying and encoding such a
    // count take 20 entries (records_test.cpp, RoundTripAtEveryShift).
    {"CountAllOnesWithEntries", "ProfileFQDNServers",
     [] {
         Record entry(corVane_recordSchema("FQDNServers"));
         Bytes in = words({3, 4, 9, 4, 4, 0xFFFFFFFFu});
         for (int i = 0; i < 20; ++i) in = in + encode(*entry.schema(), entry.data());
         return in;
     },
     {0, 24 + 20 * 84, {}}, Answer{0, 24 + 20 * 84, {}}},
    // ---- short buffers ---------------------------------------------------------
    {"EmptyRecordBuffer", "lineCallState", [] { return Bytes{}; },
     {4, 0, {kLineCall + "pBody({+0}): Type(3) runs past the end of the buffer: 8 bytes needed, 0 left\n"}}, {}},
    {"OneByteRecordBuffer", "lineCallState", [] { return Bytes{0}; },
     {4, 0, {kLineCall + "pBody({+0}): Type(3) runs past the end of the buffer: 8 bytes needed, 1 left\n"}}, {}},

    // ---- message bodies (cursor unused) ------------------------------------------
    {"EnvelopeWithOnlyTag0", "SetLineCallState", [] { return words({0, 4, kLineCallMagic}); },
     {4, 0, {kLineCallBody + "pBody({+0}): Type(1) runs past the end of the buffer: 8 bytes needed, 0 left\n"}},
     Answer{2, 0, {kLineCallBody + "pBody({+0}): Tl(0-0) expectded(1)\n"}}},
    {"EmptyBody", "SetLineCallState", [] { return Bytes{}; },
     {4, 0, {kLineCallBody + "pBody({+0}): Type(0) runs past the end of the buffer: 8 bytes needed, 0 left\n"}}, {}},
    {"OneByteBody", "SetLineCallState", [] { return Bytes{0}; },
     {4, 0, {kLineCallBody + "pBody({+0}): Type(0) runs past the end of the buffer: 8 bytes needed, 1 left\n"}}, {}},
    {"EnvelopeLengthAllOnes", "SetLineCallState",
     [] { return words({0, 0xFFFFFFFFu, kLineCallMagic, 1, 4, 0, 3, 4, 1, 4, 4, 2, 5, 4, 3}); },
     {4, 0, {kLineCallBody + "pBody({+0}): Type(0) runs past the end of the buffer: 4294967303 bytes needed, 60 left\n"}}, {}},
    {"EnvelopeLengthWrapsTheCursor", "SetLineCallState",
     [] { return words({0, 4, kLineCallMagic, 1, 0xFFFFFFF8u, 0, 3, 4, 1, 4, 4, 2, 5, 4, 3}); },
     {4, 0, {kLineCallBody + "pBody({+0}): Type(1) runs past the end of the buffer: 4294967296 bytes needed, 48 left\n"}},
     // The cursor stays on the tag-1 element, where the payload's tag 3 is expected.
     Answer{4, 0, {kLineCall + "pBody({+12}): Tl(1-4294967288) expectded(3)\n",
                   kLineCall + "pBody({+12}): Type(4) -> Error Before\n",
                   kLineCall + "pBody({+12}): Type(5) -> Error Before\n"}}},
    {"BodyTextWithoutNul", "OnMakeCall",
     [] { return words({0, 4, kMakeCallMagic, 1, 4, 0, 3, 4, 1, 4, 4, 2, 5, 32}) + chars(std::string(32, 'x')); },
     {4, 0, {"corVane_cbEvtMsgMngt_unserializeBody_msgNtfyReq_onMakeCall: pBody({+24}): Type(5) text has no NUL before the end of the buffer(32 bytes)\n"}}, {}},
    // ---- tags of a body (both readers alike) ------------------------------------
    {"MagicTagWrong", "SetLineCallState", [] { return words({1, 4, kLineCallMagic, 1, 4, 0, 3, 4, 1}); },
     {2, 0, {kLineCallBody + "pBody({+0}): Tl(1-4) expectded(0)\n", kLineCallBody + "pBody({+0}): Type(1) -> Error Before\n"}},
     Answer{2, 0, {kLineCallBody + "pBody({+0}): Tl(1-4) expectded(0)\n", kLineCallBody + "pBody({+0}): Type(1) -> Error Before\n"}}},
    // The usual envelope is two 4-byte elements, tags 0 and 1; any other is read
    // element by element: a second tag 0 is refused, a longer element skipped
    // whole, and a 5-byte magic whose next bytes look like the usual tag 1 is
    // not taken for it.
    {"SecondEnvelopeTag0", "SetLineCallState", [] { return words({0, 4, kLineCallMagic, 0, 4, 0, 3, 4, 1}); },
     {2, 0, {kLineCallBody + "pBody({+0}): Tl(0-4) expectded(1)\n"}},
     Answer{2, 0, {kLineCallBody + "pBody({+0}): Tl(0-4) expectded(1)\n"}}},
    {"Tag1ElementOf5Bytes", "SetLineCallState",
     [] { return words({0, 4, kLineCallMagic, 1, 5, 0}) + Bytes{0x7f} + words({3, 4, 1, 4, 4, 2, 5, 4, 3}); },
     {0, 0, {}}, Answer{0, 0, {}}},
    // Bytes 12 to 19 read 00000001 00000004; the tag-1 header is at 13.
    {"MagicOf5BytesThenTag1Lookalike", "SetLineCallState",
     [] { return words({0, 5, kLineCallMagic}) + Bytes{0, 0, 0, 1} + words({4, 0, 3, 4, 1, 4, 4, 2, 5, 4, 3}); },
     {2, 0, {kLineCallBody + "pBody({+0}): Tl(256-1024) expectded(1)\n"}},
     Answer{2, 0, {kLineCallBody + "pBody({+0}): Tl(256-1024) expectded(1)\n"}}},
    // Bytes 13 to 20 read 00000001 00000004; the element at 12 has tag 0x07000000.
    {"Tag1LookalikeOneByteLate", "SetLineCallState",
     [] { return words({0, 4, kLineCallMagic}) + Bytes{7, 0, 0, 0, 1, 0, 0, 0, 4, 0, 0, 0} + words({3, 4, 1, 4, 4, 2, 5, 4, 3}); },
     {2, 0, {kLineCallBody + "pBody({+0}): Tl(117440512-16777216) expectded(1)\n"}},
     Answer{2, 0, {kLineCallBody + "pBody({+0}): Tl(117440512-16777216) expectded(1)\n"}}},
    // ---- magics -------------------------------------------------------------------
    // Another message's magic (SetRegistrationStatus shares none with this
    // one), and none at all: refused by the bounded reader, where the classic
    // callback builds a body that would abort in the receive function.
    {"AnotherMessagesMagic", "SetLineCallState",
     [] { return words({0, 4, 0x20132510u, 1, 4, 0, 3, 4, 1, 4, 4, 2, 5, 4, 3}); },
     {2, 0, {kLineCallBody + "pBody({+0}): Check Magic[CORVANE_MAGIC_MSGCMD_SETLINECALLSTATE-20132509] magic(20132510) refused\n"}}, {}},
    {"NoMagic", "OnMakeCall", [] { return words({0, 4, 0, 1, 4, 0}); },
     {2, 0, {"corVane_cbEvtMsgMngt_unserializeBody_msgNtfyReq_onMakeCall: pBody({+0}): Check Magic[CORVANE_MAGIC_MSGNTFY_ONMAKECALL-20140808] magic(0) refused\n"}}, {}},
    // Only the low 16 bits of the tag-1 word count: 0x10001 is SetCapabilities' 1...
    {"Tag1Word0x10001ForSetCapabilities", "SetCapabilities",
     [] { return bodyWithWord("SetCapabilities", 0x10001u); }, {0, 0, {}}, Answer{0, 0, {}}},
    // ... and no other message's 0; refused without a line.
    {"Tag1Word0x10001ForOthers", "SetLineCallState",
     [] { return bodyWithWord("SetLineCallState", 0x10001u); }, {2, 0, {}}, Answer{2, 0, {}}},
};

// GoogleTest names a failing case by this, not by the bytes of the struct.
void PrintTo(const HostileCase& c, std::ostream* os) { *os << c.name; }

// Runs the target on `n` bytes at `p`, bounded to their end or not, and
// checks the status, the cursor (records only) and the lines at LOG_ERR.
void expectAnswer(const char* target, const uint8_t* p, size_t n, bool bounded, const Answer& want) {
    clearLog();
    uint32_t status;
    size_t cursor = 0;
    if (const CorVaneSchema* s = corVane_recordSchema(target)) {
        Record rec(s);
        const uint8_t* cur = p;
        status = bounded ? corVane_record_unserialize_bounded(s, rec.data(), &cur, p + n)
                         : corVane_record_unserialize(s, rec.data(), &cur);
        cursor = static_cast<size_t>(cur - p);
    } else {
        const CorVaneMessageInfo* m = corVane_messageByName(target);
        ASSERT_NE(nullptr, m) << "no record or message named " << target;
        const CorVaneMethod& method =
            (m->intf ? corVane_base.ntfy.methods : corVane_base.cmd.methods)[m->index];
        void* body = nullptr;
        uint32_t size = 0;
        status = bounded ? corVane_unserializeBody_bounded(m, 0, p, n, &body, &size)
                         : method.unserializeBody(0, p, &body, &size);
        EXPECT_EQ(status == 0, body != nullptr);
        if (body) {
            EXPECT_EQ(m->bodySize, size);
            method.freeBody(0, body);
        }
    }
    EXPECT_EQ(want.status, status);
    EXPECT_EQ(want.cursor, cursor);
    EXPECT_EQ(at(want.lines, p), logTextsWithoutLine());
    for (const LogLine& l : logLines()) EXPECT_EQ(3, l.priority);
}

class HardeningHostile : public testing::TestWithParam<HostileCase> {};

TEST_P(HardeningHostile, GetsItsDefinedAnswer) {
    const HostileCase& c = GetParam();
    const Bytes input = c.input();
    ExactBuffer exact(input);
    expectAnswer(c.target, exact.data(), exact.size(), true, c.bounded);
    if (!c.unbounded) return;
    // The unbounded reader gets the bytes, then zeros it may look at but never needs.
    Bytes padded = input;
    padded.resize(input.size() + 64, 0);
    SCOPED_TRACE("unbounded");
    expectAnswer(c.target, padded.data(), padded.size(), false, *c.unbounded);
}

INSTANTIATE_TEST_SUITE_P(Inputs, HardeningHostile, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<HostileCase>& i) {
                             return std::string(i.param.name);
                         });

// The envelope is read from where the buffer starts to where it ends: twelve
// bytes before it that look like the tag-1 element change nothing, a bounded
// read stops at its end though a whole body follows, and a null buffer is
// refused before anything is read.
TEST(HardeningHostileEdges, BytesOutsideTheBufferAreNotRead) {
    const Bytes bytes = words({1, 4, 0, 0, 4, kLineCallMagic, 7, 4, 0, 3, 4, 1, 4, 4, 2, 5, 4, 3});
    for (bool bounded : {true, false})
        expectAnswer("SetLineCallState", bytes.data() + 12, bytes.size() - 12, bounded,
                     {2, 0, {kLineCallBody + "pBody({+0}): Tl(7-4) expectded(1)\n"}});
    const Bytes whole = bodyWithWord("SetLineCallState", 0);
    expectAnswer("SetLineCallState", whole.data(), 20, true,
                 {4, 0, {kLineCallBody + "pBody({+0}): Type(1) runs past the end of the buffer: 12 bytes needed, 8 left\n"}});
    for (bool bounded : {true, false})
        expectAnswer("SetLineCallState", nullptr, 0, bounded,
                     {4, 0, {kLineCallBody + "Ctx[NULL] text[buffer]\n"}});
}

}  // namespace
}  // namespace cvtest
