// Tests of corvane's operations: encode and decode of all 49 messages with
// the element walk agreeing with the JSON, the hex layouts (those the real
// xxd and hexdump print: hex_layouts.sh) and text no dump looks like, bus
// names, and the names that forgive typos. JSON the encoder refuses is
// tested against Python's refusals, word for word, through the command line
// (tests/python/test_codec.py); bodies the decoder refuses and sending each
// message, through the command line too (CMakeLists.txt, bus_verbs_test.cpp).
#include <gtest/gtest.h>

#include "bus_names.h"
#include "hex_input.h"
#include "inspect.h"
#include "names.h"

namespace {

using cvi::Json;

// A payload with every field set: distinct words, texts filled to capacity - 1
// characters, counted and fixed arrays full. n counts the values given.
Json fullRecord(const CorVaneSchema& s, uint32_t& n) {
    Json j = Json::object();
    for (uint32_t i = 0; i < s.fieldCount; ++i) {
        const CorVaneField& f = s.fields[i];
        const bool isCount = i + 1 < s.fieldCount && s.fields[i + 1].kind == CORVANE_FIELD_ARRAY;
        switch (f.kind) {
            case CORVANE_FIELD_U32:
                j[f.name] = isCount ? s.fields[i + 1].capacity : ++n * 2654435761u;
                break;
            case CORVANE_FIELD_TEXT: {
                std::string t = std::to_string(++n) + ":";
                while (t.size() < f.capacity - 1u) t += static_cast<char>('a' + t.size() % 26);
                j[f.name] = t.substr(0, f.capacity - 1u);
                break;
            }
            case CORVANE_FIELD_RECORD:
                j[f.name] = fullRecord(*f.record, n);
                break;
            default:
                j[f.name] = Json::array();
                for (uint32_t e = 0; e < f.capacity; ++e)
                    j[f.name].push_back(fullRecord(*f.record, n));
                break;
        }
    }
    return j;
}

// "a.b[3].c" as a JSON pointer, "/a/b/3/c".
Json::json_pointer pointerOf(const std::string& path) {
    std::string p = "/";
    for (char c : path) p += c == '.' || c == '[' ? "/" : c == ']' ? "" : std::string(1, c);
    return Json::json_pointer(p);
}

TEST(InspectRoundTrip, DecodeOfEncodeIsIdentityForEveryMessage) {
    const auto messages = cvi::allMessages();
    ASSERT_EQ(messages.size(), 49u);
    for (const CorVaneMessageInfo* m : messages) {
        SCOPED_TRACE(m->name);
        uint32_t n = 0;
        const Json in = fullRecord(*m->payload, n);
        const cvi::Encoded e = cvi::encodeBody(*m, in);
        ASSERT_TRUE(e.errors.empty()) << e.errors.front();

        const cvi::Decoded d = cvi::decodeBody(*m, e.bytes);
        ASSERT_EQ(d.status, CORVANE_OK);
        const auto* body = static_cast<const uint8_t*>(d.body.get());
        EXPECT_EQ(cvi::recordToJson(*m->payload, body + CORVANE_BODY_PAYLOAD_OFFSET), in);

        // The element walk reads every byte, and each element sits at the
        // path the JSON gives for its value.
        EXPECT_FALSE(d.walk.stop.has_value());
        EXPECT_EQ(d.walk.end, e.bytes.size());
        for (const cvi::Item& it : d.walk.items) {
            if (it.type != cvi::Item::Type::kElement || it.path[0] == '<') continue;
            const Json& expected = in.at(pointerOf(it.path));
            if (it.kind == CORVANE_FIELD_U32)
                EXPECT_EQ(expected, it.value) << it.path;
            else
                EXPECT_EQ(expected, it.text) << it.path;
        }
    }
}

// Every layout gives the same bytes: 0x61..0x66 make an ascii column of hex
// letters, the second row is shorter than the first.
TEST(HexInput, ReadsEveryLayout) {
    const std::vector<uint8_t> rows = {0x00, 0x00, 0x00, 0x00, 0x61, 0x62, 0x63, 0x64, 0x65, 0x66,
                                       0x00, 0x04, 0x20, 0x16, 0x14, 0x01, 0xab, 0xcd, 0x0a};
    std::vector<uint8_t> zeros(48, 0);
    zeros.push_back(0x7f);
    struct Case {
        const char* name;
        const char* text;
        const std::vector<uint8_t>* bytes;
    } cases[] = {
        {"xxd -g1, ascii column of hex letters",
         "00000000: 00 00 00 00 61 62 63 64 65 66 00 04 20 16 14 01  ....abcdef.. ...\n"
         "00000010: ab cd 0a                                         ab.\n",
         &rows},
        {"hexdump -C, repeated rows",
         "00000000  00 00 00 00 00 00 00 00  00 00 00 00 00 00 00 00  |................|\n"
         "*\n"
         "00000030  7f                                                |.|\n"
         "00000031\n",
         &zeros},
        {"0x list, spaces",
         "0x00 0x00 0x00 0x00 0x61 0x62 0x63 0x64 0x65 0x66 0x00 0x04 0x20 "
         "0x16 0x14 0x01 0xAB 0xcd 0xa",
         &rows},
        {"journal lines, 0000: rows, a gap in the middle, no ascii",
         "2024-03-03T10:12:01+01:00 gw voice[812]: 0000: 00 00 00 00 61 62 63 64  65 66 00 04 20 "
         "16 14 01\n"
         "2024-03-03T10:12:01+01:00 gw voice[812]: 0010: ab cd 0a\n",
         &rows},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<uint8_t> got;
        ASSERT_NO_THROW(got = cvi::parseHex(c.text));
        EXPECT_EQ(got, *c.bytes);
    }
}

TEST(HexInput, RefusesWhatNoDumpLooksLike) {
    struct Case {
        const char* name;
        std::string text;
        const char* error;
        bool binary;
    } cases[] = {
        {"odd digit count", "00 01 0", "odd number of hex digits", false},
        {"not a digit", "00 01\n0g", "line 2: not a hex digit: 'g'", false},
        {"a row missing", "00000000: 0001 0203 0405 0607  ........\n00000010: 0001  ..\n",
         "line 2: offset 0x10, but 0x8 bytes come before it", false},
        {"repeat first", "*\n00000010  00 |.|\n", "line 1: '*' before any row", false},
        {"plain bytes among 0x values", "0x00, 0x01, 02", "'02' among 0x values", false},
        {"nothing", "\n \n", "no hex bytes", false},
        {"binary after text", "00 01 \xff", "byte 0xff at offset 6", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        try {
            cvi::parseHex(c.text);
            ADD_FAILURE() << "accepted";
        } catch (const std::runtime_error& e) {
            EXPECT_EQ(dynamic_cast<const cvi::BinaryNotHex*>(&e) != nullptr, c.binary);
            EXPECT_NE(std::string(e.what()).find(c.error), std::string::npos) << e.what();
        }
    }
}

TEST(BusNames, EscapeAndBack) {
    const std::pair<std::string, std::string> names[] = {
        {"mgmt", "org.corvane.user.mgmt"},
        {"1a", "org.corvane.user._31a"},
        {"a_b.c", "org.corvane.user.a_5fb_2ec"},
        {"\xc3\xa9t\xc3\xa9", "org.corvane.user._c3_a9t_c3_a9"},
    };
    for (const auto& [user, bus] : names) {
        EXPECT_EQ(cvi::userBusName(user), bus);
        EXPECT_EQ(cvi::userOfBusName(bus), user);
    }
    for (const char* other :
         {"org.corvane.user.", "org.corvane.user.voice_2D1", "org.corvane.user.a_5",
          "org.corvane.user.1a", "org.corvane.user.a_62", "org.corvane.mgmt", ":1.4"})
        EXPECT_FALSE(cvi::userOfBusName(other).has_value()) << other;
}

}  // namespace

// The same rule as python/corvane/_names.py (tests/python compares the two on
// the real names): exact, else the one case-insensitive match; else the
// names fewest edits away, a swap of two neighbours counting as one.
TEST(Names, ResolveAndSuggest) {
    const std::vector<std::string> names = {"SetLineCallState", "SetLineStats", "SetLineModif",
                                            "Abc", "ABC"};
    EXPECT_EQ(cvi::resolveName("SetLineStats", names), "SetLineStats");
    EXPECT_EQ(cvi::resolveName("setlinestats", names), "SetLineStats");
    EXPECT_EQ(cvi::resolveName("Abc", names), "Abc");
    EXPECT_EQ(cvi::resolveName("abc", names), std::nullopt);  // two names fold to it
    EXPECT_EQ(cvi::resolveName("SetLine", names), std::nullopt);
    EXPECT_EQ(cvi::editDistance("setlinecallstaet", "setlinecallstate"), 1u);
    EXPECT_EQ(cvi::editDistance("", "abc"), 3u);
    EXPECT_EQ(cvi::editDistance("kitten", "sitting"), 3u);
    EXPECT_EQ(cvi::didYouMean("SetLineCallStaet", names), "did you mean SetLineCallState?");
    EXPECT_EQ(cvi::didYouMean("SetLineStat", names), "did you mean SetLineStats?");
    // Ties are all named, in order; nothing within reach names what contains it.
    EXPECT_EQ(cvi::didYouMean("SetLineStif", names), "did you mean SetLineModif or SetLineStats?");
    EXPECT_EQ(cvi::didYouMean("Line", names),
              "did you mean SetLineCallState, SetLineModif or SetLineStats?");
    EXPECT_EQ(cvi::didYouMean("zzzz", names), "");
}
