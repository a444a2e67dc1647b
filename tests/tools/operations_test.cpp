// Tests of corvane's operations: encode and decode over all 49 messages,
// agreement of the element walk with the library's decoder, JSON against
// structs filled by member name, malformed bodies and bad JSON, the hex
// layouts (those the real xxd and hexdump print: hex_layouts.sh), bus names
// and the send-by-name table.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#include "bus_names.h"
#include "hex_input.h"
#include "inspect.h"
#include "quib_stub.h"
#include "send_table.h"

namespace {

using cvi::Json;

std::vector<const CorVaneMessageInfo*> allMessages() {
    std::vector<const CorVaneMessageInfo*> out;
    for (uint32_t intf : {CORVANE_INTF_CMD, CORVANE_INTF_NTFY})
        for (uint32_t i = 0; const CorVaneMessageInfo* m = corVane_messageInfo(intf, i); ++i)
            out.push_back(m);
    return out;
}

// A payload with every field set: distinct words, texts filled to capacity - 1
// characters, counted and fixed arrays full.
class FullPayload {
public:
    Json record(const CorVaneSchema& s) {
        Json j = Json::object();
        for (uint32_t i = 0; i < s.fieldCount; ++i) {
            const CorVaneField& f = s.fields[i];
            const bool isCount = i + 1 < s.fieldCount && s.fields[i + 1].kind == CORVANE_FIELD_ARRAY;
            switch (f.kind) {
                case CORVANE_FIELD_U32:
                    j[f.name] = isCount ? s.fields[i + 1].capacity : ++n_ * 2654435761u;
                    break;
                case CORVANE_FIELD_TEXT: {
                    std::string t = std::to_string(++n_) + ":";
                    while (t.size() < f.capacity - 1u) t += static_cast<char>('a' + t.size() % 26);
                    j[f.name] = t.substr(0, f.capacity - 1u);
                    break;
                }
                case CORVANE_FIELD_RECORD:
                    j[f.name] = record(*f.record);
                    break;
                default:
                    j[f.name] = Json::array();
                    for (uint32_t e = 0; e < f.capacity; ++e) j[f.name].push_back(record(*f.record));
                    break;
            }
        }
        return j;
    }

private:
    uint32_t n_ = 0;
};

// "a.b[3].c" as a JSON pointer, "/a/b/3/c".
Json::json_pointer pointerOf(const std::string& path) {
    std::string p = "/";
    for (char c : path) p += c == '.' || c == '[' ? "/" : c == ']' ? "" : std::string(1, c);
    return Json::json_pointer(p);
}

const void* payloadOf(const cvi::Decoded& d) {
    return static_cast<const uint8_t*>(d.body.get()) + CORVANE_BODY_PAYLOAD_OFFSET;
}

size_t leafCount(const Json& j) {
    if (!j.is_structured()) return 1;
    size_t n = 0;
    for (const auto& v : j) n += leafCount(v);
    return n;
}

TEST(InspectRoundTrip, DecodeOfEncodeIsIdentityForEveryMessage) {
    const auto messages = allMessages();
    ASSERT_EQ(messages.size(), 49u);
    for (const CorVaneMessageInfo* m : messages) {
        SCOPED_TRACE(m->name);
        const Json in = FullPayload().record(*m->payload);
        const cvi::Encoded e = cvi::encodeBody(*m, in);
        ASSERT_TRUE(e.errors.empty()) << e.errors.front();

        const cvi::Decoded d = cvi::decodeBody(*m, e.bytes);
        ASSERT_EQ(d.status, CORVANE_OK);
        EXPECT_EQ(cvi::recordToJson(*m->payload, payloadOf(d)), in);

        // The element walk reads every byte, and each element sits at the
        // path the JSON gives for its value.
        EXPECT_FALSE(d.walk.stop.has_value());
        EXPECT_EQ(d.walk.end, e.bytes.size());
        size_t elements = 0;
        for (const cvi::Item& it : d.walk.items) {
            if (it.type != cvi::Item::Type::kElement || it.path[0] == '<') continue;
            ++elements;
            const Json& expected = in.at(pointerOf(it.path));
            if (it.kind == CORVANE_FIELD_U32)
                EXPECT_EQ(expected, it.value) << it.path;
            else
                EXPECT_EQ(expected, it.text) << it.path;
        }
        EXPECT_EQ(elements, leafCount(in));
    }
}

// The JSON names reach the struct members of those names: the bytes equal the
// typed serializer's output for a struct filled through its C members (an
// array of nested records, a text, a value given in hex).
TEST(InspectEncode, MatchesStructsFilledByMemberName) {
    ProfileFQDNServers fqdn{};
    fqdn.profileIndex = 4;
    fqdn.fqdnServersNumberOfEntries = 2;
    std::strcpy(fqdn.fqdnServers[1].hostName, "sbc2");
    fqdn.fqdnServers[1].serverValue5 = 3600;
    std::vector<uint8_t> typed(corVane_ProfileFQDNServers_serialize_lg(&fqdn));
    uint8_t* cursor = typed.data();
    ASSERT_EQ(corVane_ProfileFQDNServers_serialize(&fqdn, &cursor), CORVANE_OK);

    const CorVaneMessageInfo& m = *cvi::findMessage("SetProfileFQDNServers");
    const cvi::Encoded e = cvi::encodeBody(m, Json::parse(R"({"profileIndex": 4, "fqdnServers":
        [{}, {"hostName": "sbc2", "serverValue5": "0xe10"}]})"));
    ASSERT_TRUE(e.errors.empty()) << e.errors.front();
    ASSERT_EQ(e.bytes.size(), 24 + typed.size());
    EXPECT_EQ(cvi::loadBe32(&e.bytes[8]), m.magic);
    EXPECT_EQ(std::vector<uint8_t>(e.bytes.begin() + 24, e.bytes.end()), typed);
}

// Element builders for hand-made bodies.
void putWord(std::vector<uint8_t>& b, uint32_t v) {
    for (int s = 24; s >= 0; s -= 8) b.push_back(static_cast<uint8_t>(v >> s));
}
void u32Element(std::vector<uint8_t>& b, uint32_t tag, uint32_t v) {
    putWord(b, tag);
    putWord(b, 4);
    putWord(b, v);
}
void textElement(std::vector<uint8_t>& b, uint32_t tag, const std::string& t) {
    const uint32_t len = ((static_cast<uint32_t>(t.size()) + 1) & ~3u) + 4;
    putWord(b, tag);
    putWord(b, len);
    b.insert(b.end(), t.begin(), t.end());
    b.resize(b.size() + len - t.size(), 0);
}

TEST(InspectDecode, MalformedBodiesStopWhereTheLibraryStops) {
    const CorVaneMessageInfo* call = cvi::findMessage("OnMakeCall");
    const CorVaneMessageInfo* fqdn = cvi::findMessage("SetProfileFQDNServers");
    ASSERT_TRUE(call && fqdn);
    auto envelope = [](const CorVaneMessageInfo& m, uint32_t word) {
        std::vector<uint8_t> b;
        u32Element(b, 0, m.magic);
        u32Element(b, 1, word);
        return b;
    };
    // OnMakeCall: value1, value2, text1[32], text2[32], text3[32].
    std::vector<uint8_t> longText = envelope(*call, 0);
    u32Element(longText, 3, 1);
    u32Element(longText, 4, 2);
    textElement(longText, 5, std::string(32, 'x'));
    // SetProfileFQDNServers with two entries, the second's hostName under tag 9.
    std::vector<uint8_t> wrongTag = envelope(*fqdn, 0);
    u32Element(wrongTag, 3, 1);
    u32Element(wrongTag, 4, 2);
    for (int e = 0; e < 2; ++e) {
        textElement(wrongTag, 3, "10.0.0." + std::to_string(e));
        textElement(wrongTag, e == 1 ? 9 : 4, "host");
        for (uint32_t t = 5; t <= 9; ++t) u32Element(wrongTag, t, t);
    }
    // Envelope and two words: 48 bytes; an entry: ipAddress 20, hostName 16, five words 60.
    const size_t entry0 = 48, entry1 = 48 + 96;
    std::vector<uint8_t> truncated(wrongTag.begin(), wrongTag.begin() + entry0 + 20 + 5);

    struct Case {
        const char* name;
        const CorVaneMessageInfo* msg;
        std::vector<uint8_t> bytes;
        uint32_t status;
        size_t offset;
        uint32_t tagExpected;
        const char* path;
        const char* reason;
    } cases[] = {
        {"text over capacity", call, longText, CORVANE_E_ELEMENT, 48, 5, "text1", "does not fit"},
        {"tag in an array entry", fqdn, wrongTag, CORVANE_E_ELEMENT, entry1 + 20, 4,
         "fqdnServers[1].hostName", "tag mismatch"},
        {"cut inside an element", fqdn, truncated, CORVANE_E_ELEMENT, entry0 + 20, 4,
         "fqdnServers[0].hostName", "runs past the end"},
        {"envelope word", call, envelope(*call, 1), CORVANE_E_ENVELOPE, 12, 1, "<envelope>",
         "envelope word is 1"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const cvi::Decoded d = cvi::decodeBody(*c.msg, c.bytes);
        EXPECT_EQ(d.status, c.status);
        ASSERT_TRUE(d.walk.stop.has_value());
        EXPECT_EQ(d.walk.stop->offset, c.offset);
        EXPECT_EQ(d.walk.stop->tagExpected, c.tagExpected);
        EXPECT_EQ(d.walk.stop->path, c.path);
        EXPECT_NE(d.walk.stop->reason.find(c.reason), std::string::npos) << d.walk.stop->reason;
        if (c.status == CORVANE_E_ELEMENT) {
            ASSERT_TRUE(d.libraryStop.has_value());
            EXPECT_EQ(*d.libraryStop, c.offset);
            ASSERT_FALSE(d.log.empty());
            EXPECT_EQ(d.log.front().rfind("[CORVANE] -> ", 0), 0u) << d.log.front();
        }
        std::ostringstream report;
        cvi::printFailure(report, *c.msg, c.bytes, d);
        EXPECT_NE(report.str().find(std::string("expected: tag ") + std::to_string(c.tagExpected) +
                                    ", " + c.path),
                  std::string::npos)
            << report.str();
    }
}

TEST(InspectEncode, RefusesBadJsonNamingTheField) {
    const CorVaneMessageInfo* stats = cvi::findMessage("SetLineStats");
    const CorVaneMessageInfo* fqdn = cvi::findMessage("SetProfileFQDNServers");
    ASSERT_TRUE(stats && fqdn);
    struct Case {
        const CorVaneMessageInfo* msg;
        const char* json;
        const char* error;
    } cases[] = {
        {stats, R"({"stats": {"bogus": 1}})", "unknown field 'stats.bogus'"},
        {stats, R"({"stats": {"text1": "0123456789012345678901234567890X"}})",
         "field 'stats.text1' is too long: 32 bytes, capacity 32"},
        {stats, R"({"value1": -1})", "field 'value1' expects an unsigned 32-bit number"},
        {stats, R"({"value2": 4294967296})", "field 'value2' expects an unsigned 32-bit number"},
        {stats, R"({"stats": 3})", "'stats' must be an object"},
        {fqdn, R"({"fqdnServersNumberOfEntries": 1, "fqdnServers": [{}, {}]})",
         "field 'fqdnServers' has 2 entries but its count 'fqdnServersNumberOfEntries' is 1"},
    };
    // Over capacity: 21 entries for 20.
    std::string many = R"({"fqdnServers": [{})";
    for (int i = 0; i < 20; ++i) many += ",{}";
    many += "]}";
    for (const Case& c : cases) {
        SCOPED_TRACE(c.json);
        const cvi::Encoded e = cvi::encodeBody(*c.msg, Json::parse(c.json));
        EXPECT_TRUE(e.bytes.empty());
        ASSERT_EQ(e.errors.size(), 1u);
        EXPECT_NE(e.errors[0].find(c.error), std::string::npos) << e.errors[0];
    }
    const cvi::Encoded e = cvi::encodeBody(*fqdn, Json::parse(many));
    ASSERT_EQ(e.errors.size(), 1u);
    EXPECT_NE(e.errors[0].find("has 21 entries, capacity 20"), std::string::npos) << e.errors[0];
}

// Every layout gives the same bytes: 0x61..0x66 make an ascii column of hex
// letters, the second row is shorter than the first.
TEST(HexInput, ReadsEveryLayout) {
    const std::vector<uint8_t> rows = {0x00, 0x00, 0x00, 0x00, 0x61, 0x62, 0x63, 0x64,
                                       0x65, 0x66, 0x00, 0x04, 0x20, 0x16, 0x14, 0x01,
                                       0xab, 0xcd, 0x0a};
    std::vector<uint8_t> zeros(48, 0);
    zeros.push_back(0x7f);
    struct Case {
        const char* name;
        const char* text;
        const std::vector<uint8_t>* bytes;
    } cases[] = {
        {"plain, digits run together", "0000000061626364\n656600042016\n1401abcd0a", &rows},
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
        {"0x list, spaces", "0x00 0x00 0x00 0x00 0x61 0x62 0x63 0x64 0x65 0x66 0x00 0x04 0x20 "
                            "0x16 0x14 0x01 0xAB 0xcd 0xa",
         &rows},
        {"journal lines, 0000: rows, a gap in the middle, no ascii",
         "2024-03-03T10:12:01+01:00 gw voice[812]: 0000: 00 00 00 00 61 62 63 64  65 66 00 04 20 16 14 01\n"
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
        {"a row missing",
         "00000000: 0001 0203 0405 0607  ........\n00000010: 0001  ..\n",
         "line 2: offset 0x10, but 0x8 bytes come before it", false},
        {"repeat first", "*\n00000010  00 |.|\n", "line 1: '*' before any row", false},
        {"plain bytes among 0x values", "0x00, 0x01, 02", "'02' among 0x values", false},
        {"nothing", "\n \n", "no hex bytes", false},
        {"binary", std::string("\0\0\0\0", 4), "byte 0x00 at offset 0", true},
        {"binary after text", "00 01 \xff", "byte 0xff at offset 6", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        try {
            cvi::parseHex(c.text);
            ADD_FAILURE() << "accepted";
        } catch (const cvi::BinaryNotHex& e) {
            EXPECT_TRUE(c.binary);
            EXPECT_NE(std::string(e.what()).find(c.error), std::string::npos) << e.what();
        } catch (const std::runtime_error& e) {
            EXPECT_FALSE(c.binary);
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
    for (const char* other : {"org.corvane.user.", "org.corvane.user.voice_2D1",
                              "org.corvane.user.a_5", "org.corvane.user.1a", "org.corvane.user.a_62",
                              "org.corvane.mgmt", ":1.4"})
        EXPECT_FALSE(cvi::userOfBusName(other).has_value()) << other;
}

// The send table calls each message's own send function with the payload's
// fields: every message goes from one stand-in user to the other and
// arrives with the payload it left with.
class SendTable : public ::testing::Test {
protected:
    struct Received {
        const CorVaneMessageInfo* msg = nullptr;
        Json payload;
        int count = 0;
    };
    static uint32_t onMessage(void*, void* arg, void* payload) {
        auto* r = static_cast<Received*>(arg);
        r->payload = cvi::recordToJson(*r->msg->payload, payload);
        ++r->count;
        return 0;
    }
    void SetUp() override {
        ASSERT_EQ(corvane_initialize(), CORVANE_OK);
        voice_ = quibStub_newUser("voice");
        mgmt_ = quibStub_newUser("mgmt");
        ASSERT_EQ(corVane_regUser_msgMngt(voice_, nullptr, nullptr, CORVANE_SELECT_BOTH), 0u);
        ASSERT_EQ(corVane_regUser_msgMngt(mgmt_, nullptr, nullptr, CORVANE_SELECT_BOTH), 0u);
    }
    void TearDown() override {
        corVane_unregUser_msgMngt(voice_, CORVANE_SELECT_BOTH);
        corVane_unregUser_msgMngt(mgmt_, CORVANE_SELECT_BOTH);
        ranqStub_deliver(0);
        quibStub_reset();
    }
    void* voice_ = nullptr;
    void* mgmt_ = nullptr;
};

#define CVI_TEST_SERVE(index, Name, name, NAME, magic, key, env, P, shape)                         \
    corVane_modSrv_recvMsg_##name(mgmt_, reinterpret_cast<void*>(&onMessage), &got[index], nullptr);
#define CVI_TEST_SUBSCRIBE(index, Name, name, NAME, magic, key, nu, P, shape)                      \
    corVane_modCliNtfyUser_recvMsg_##name(voice_, reinterpret_cast<void*>(&onMessage),            \
                                          &got[CORVANE_CMD_COUNT + index], nullptr, "bus", "voice");

TEST_F(SendTable, EveryMessageArrivesWithItsPayload) {
    const auto table = cvi::sendTable();
    const auto messages = allMessages();
    ASSERT_EQ(table.size(), messages.size());
    std::vector<Received> got(messages.size());
    for (size_t i = 0; i < messages.size(); ++i) got[i].msg = messages[i];
    CORVANE_COMMANDS(CVI_TEST_SERVE)
    CORVANE_NOTIFICATIONS(CVI_TEST_SUBSCRIBE)

    for (size_t i = 0; i < messages.size(); ++i) {
        const CorVaneMessageInfo& m = *messages[i];
        SCOPED_TRACE(m.name);
        const cvi::SendEntry* e = cvi::findSendEntry(m.name);
        ASSERT_EQ(e, &table[i]);
        EXPECT_EQ(e->intf, m.intf);
        EXPECT_EQ(e->index, m.index);
        const Json in = FullPayload().record(*m.payload);
        const cvi::Encoded body = cvi::encodeBody(m, in);
        const cvi::Decoded d = cvi::decodeBody(m, body.bytes);
        ASSERT_EQ(d.status, CORVANE_OK);
        const bool command = m.intf == CORVANE_INTF_CMD;
        EXPECT_EQ(e->send(command ? voice_ : mgmt_, "mgmt", payloadOf(d)), 0u);
        EXPECT_EQ(got[i].count, 1);
        EXPECT_EQ(got[i].payload, in);
    }
    EXPECT_EQ(cvi::findSendEntry("SetNothing"), nullptr);
}

}  // namespace
