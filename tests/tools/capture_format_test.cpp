// Tests of what corvane reads and writes around the bus: D-Bus messages in
// wire form (both byte orders, every cut and every flipped byte of one),
// pcap and pcapng files (written, read back, damaged at every length and in
// each field that bounds a read), the dumps of the D-Bus tools, what the
// traffic of a bus becomes (entries, answers matched to calls, owners), the
// folded text of records and the dissector's tables. The same files from
// the real tools, on a real bus: capture_test.cpp.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>

#include "bus_traffic.h"
#include "cli.h"
#include "dbus_message.h"
#include "hex_input.h"
#include "inspect.h"
#include "pcap.h"
#include "verbs.h"

namespace {

using cvi::DbusMessage;
using cvi::Json;

DbusMessage call(const std::string& member, std::vector<uint8_t> body, uint32_t serial = 7) {
    DbusMessage m;
    m.type = DbusMessage::kMethodCall;
    m.serial = serial;
    m.path = "/org/corvane/CorVaneCmd";
    m.interface = "org.corvane.CorVaneCmd";
    m.member = member;
    m.destination = "org.corvane.user.mgmt";
    m.sender = ":1.7";
    m.signature = "ay";
    cvi::DbusWriter w;
    const auto a = w.openArray(1);
    w.bytes().insert(w.bytes().end(), body.begin(), body.end());
    w.closeArray(a);
    m.body = w.bytes();
    return m;
}

std::vector<uint8_t> encoded(const char* method, const Json& payload) {
    const cvi::Encoded e = cvi::encodeBody(*corVane_messageByName(method), payload);
    EXPECT_TRUE(e.errors.empty());
    return e.bytes;
}

// The words of a big-endian message differ from a little-endian one's only
// in byte order; both read back field for field.
TEST(DbusMessage, MarshalAndParseBothByteOrders) {
    const std::vector<uint8_t> body = encoded("SetLineCallState", {{"value1", 1}, {"value2", 2}});
    for (bool big : {false, true}) {
        SCOPED_TRACE(big ? "big-endian" : "little-endian");
        DbusMessage m = call("SetLineCallState", body, 0x01020304);
        m.bigEndian = big;
        cvi::DbusWriter w(big);
        const auto a = w.openArray(1);
        w.bytes().insert(w.bytes().end(), body.begin(), body.end());
        w.closeArray(a);
        m.body = w.bytes();
        m.flags = DbusMessage::kNoAutoStart;
        const std::vector<uint8_t> wire = cvi::marshalDbusMessage(m);
        ASSERT_EQ(wire[0], big ? 'B' : 'l');
        std::string why;
        const auto back = cvi::parseDbusMessage(wire, &why);
        ASSERT_TRUE(back) << why;
        EXPECT_EQ(back->serial, 0x01020304u);
        EXPECT_EQ(back->flags, DbusMessage::kNoAutoStart);
        EXPECT_EQ(back->member, "SetLineCallState");
        EXPECT_EQ(back->path, "/org/corvane/CorVaneCmd");
        EXPECT_EQ(back->destination, "org.corvane.user.mgmt");
        EXPECT_EQ(back->sender, ":1.7");
        EXPECT_EQ(back->signature, "ay");
        ASSERT_TRUE(back->byteArray());
        EXPECT_EQ(std::vector<uint8_t>(back->byteArray()->begin(), back->byteArray()->end()), body);
        EXPECT_EQ(cvi::marshalDbusMessage(*back), wire);
    }
}

// A return, an error and NameOwnerChanged: the readers of their bodies.
TEST(DbusMessage, BodiesOfAnswersAndSignals) {
    DbusMessage r;
    r.type = DbusMessage::kMethodReturn;
    r.serial = 9;
    r.replySerial = 7;
    r.signature = "u";
    cvi::DbusWriter u;
    u.u32(4);
    r.body = u.bytes();
    auto back = cvi::parseDbusMessage(cvi::marshalDbusMessage(r), nullptr);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->uint32(), 4u);
    EXPECT_FALSE(back->byteArray());

    DbusMessage s;
    s.type = DbusMessage::kSignal;
    s.serial = 3;
    s.path = "/org/freedesktop/DBus";
    s.interface = "org.freedesktop.DBus";
    s.member = "NameOwnerChanged";
    s.signature = "sss";
    cvi::DbusWriter w(true);
    w.string("org.corvane.user.mgmt");
    w.string("");
    w.string(":1.4");
    s.body = w.bytes();
    s.bigEndian = true;
    back = cvi::parseDbusMessage(cvi::marshalDbusMessage(s), nullptr);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->strings(3), (std::vector<std::string>{"org.corvane.user.mgmt", "", ":1.4"}));
    EXPECT_FALSE(back->strings(4));
    EXPECT_FALSE(back->uint32());
}

// Every cut of a message is refused with a reason; so is each header that
// lacks what its type requires; no flipped byte makes the reader read
// outside the message (AddressSanitizer watches) or accept a body longer
// than the bytes.
TEST(DbusMessage, RefusesCutAndDamagedMessages) {
    const std::vector<uint8_t> wire = cvi::marshalDbusMessage(
        call("SetLineCallState", encoded("SetLineCallState", Json::object())));
    for (size_t n = 0; n < wire.size(); ++n) {
        std::string why;
        EXPECT_FALSE(cvi::parseDbusMessage(std::span(wire).first(n), &why)) << n;
        EXPECT_FALSE(why.empty()) << n;
    }
    std::vector<uint8_t> longer = wire;
    longer.push_back(0);
    std::string why;
    EXPECT_FALSE(cvi::parseDbusMessage(longer, &why));
    EXPECT_NE(why.find("1 bytes after the message"), std::string::npos) << why;
    for (size_t i = 0; i < wire.size(); ++i) {
        for (uint8_t flip : {0x01, 0x80, 0xff}) {
            std::vector<uint8_t> bad = wire;
            bad[i] ^= flip;
            const auto m = cvi::parseDbusMessage(bad, nullptr);
            if (m) {
                EXPECT_LE(m->body.size(), bad.size());
            }
        }
    }
    DbusMessage nul = call(std::string("Set\0Line", 8), {1});
    EXPECT_FALSE(cvi::parseDbusMessage(cvi::marshalDbusMessage(nul), &why));
    EXPECT_NE(why.find("a string at offset 88 holds a NUL"), std::string::npos) << why;
    DbusMessage noMember = call("x", {1});
    noMember.member.reset();
    EXPECT_FALSE(cvi::parseDbusMessage(cvi::marshalDbusMessage(noMember), &why));
    EXPECT_EQ(why, "a method call without a member");
    DbusMessage noReply;
    noReply.type = DbusMessage::kMethodReturn;
    noReply.serial = 2;
    EXPECT_FALSE(cvi::parseDbusMessage(cvi::marshalDbusMessage(noReply), &why));
    EXPECT_EQ(why, "a method return without a reply serial");

    // A header field of a later protocol is stepped over, whatever its type.
    cvi::DbusWriter w;
    for (const uint8_t c : {uint8_t{'l'}, uint8_t{1}, uint8_t{0}, uint8_t{1}}) w.u8(c);
    w.u32(0);
    w.u32(5);
    const auto fields = w.openArray(8);
    w.align(8);
    w.u8(1);
    w.signature("o");
    w.string("/p");
    w.align(8);
    w.u8(3);
    w.signature("s");
    w.string("M");
    w.align(8);
    w.u8(42);
    w.signature("a(yv)");
    const auto inner = w.openArray(8);
    w.align(8);
    w.u8(1);
    w.signature("t");
    w.u64(5);
    w.closeArray(inner);
    w.closeArray(fields);
    w.align(8);
    const auto m = cvi::parseDbusMessage(w.bytes(), &why);
    ASSERT_TRUE(m) << why;
    EXPECT_EQ(m->member, "M");
}

// Captures: what the writer wrote reads back frame for frame; the pcap of
// dbus-monitor, big-endian and with nanoseconds; pcapng with several
// sections and interfaces, simple packets and a time resolution.
struct Le {
    std::vector<uint8_t> b;
    bool big = false;
    Le& u32(uint32_t v) {
        for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (big ? 24 - 8 * i : 8 * i)));
        return *this;
    }
    Le& u16(uint16_t v) {
        if (big) b.insert(b.end(), {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)});
        else b.insert(b.end(), {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8)});
        return *this;
    }
    Le& bytes(std::span<const uint8_t> d) {
        b.insert(b.end(), d.begin(), d.end());
        while (b.size() % 4) b.push_back(0);
        return *this;
    }
    // A pcapng block around what `fill` writes.
    template <class F>
    Le& block(uint32_t type, F&& fill) {
        Le body;
        body.big = big;
        fill(body);
        const auto n = static_cast<uint32_t>(body.b.size() + 12);
        u32(type).u32(n);
        b.insert(b.end(), body.b.begin(), body.b.end());
        return u32(n);
    }
};

std::string tempFile() {
    char tmpl[] = "/tmp/corvane-capture-XXXXXX";
    const int fd = mkstemp(tmpl);
    close(fd);
    return tmpl;
}

std::vector<uint8_t> fileBytes(const std::string& path) {
    std::string raw = cvi::readInput(path);
    return {raw.begin(), raw.end()};
}

TEST(Capture, WrittenPcapngReadsBack) {
    const std::string path = tempFile();
    const std::vector<uint8_t> a = cvi::marshalDbusMessage(call("SetLineCallState", {0, 1, 2}));
    const std::vector<uint8_t> b = cvi::marshalDbusMessage(call("OnMakeCall", {9}));
    {
        const int fd = open(path.c_str(), O_WRONLY | O_TRUNC);
        cvi::PcapngWriter w(fd, "corvane test", "unix:path=/tmp/bus");
        w.write(a, 1700000000, 123456, "voice[12] -> mgmt[13]");
        w.write(b, 1700000001, 999999, "");
        close(fd);
    }
    const std::vector<uint8_t> file = fileBytes(path);
    std::filesystem::remove(path);
    ASSERT_TRUE(cvi::isCaptureFile(file));
    const cvi::Capture c = cvi::readCapture(file);
    ASSERT_FALSE(c.damage) << *c.damage;
    EXPECT_EQ(c.format, "pcapng");
    ASSERT_EQ(c.frames.size(), 2u);
    EXPECT_EQ(c.frames[0].number, 1u);
    EXPECT_EQ(c.frames[0].linkType, cvi::kLinkTypeDbus);
    EXPECT_EQ(c.frames[0].seconds, 1700000000u);
    EXPECT_EQ(c.frames[0].nanoseconds, 123456000u);
    EXPECT_EQ(c.frames[0].comments, std::vector<std::string>{"voice[12] -> mgmt[13]"});
    EXPECT_EQ(std::vector<uint8_t>(c.frames[0].data.begin(), c.frames[0].data.end()), a);
    EXPECT_EQ(c.frames[1].nanoseconds, 999999000u);
    EXPECT_TRUE(c.frames[1].comments.empty());
    EXPECT_EQ(std::vector<uint8_t>(c.frames[1].data.begin(), c.frames[1].data.end()), b);

    // Cut anywhere: the whole frames before the cut, and the damage named;
    // cut between two blocks, a shorter file.
    std::vector<size_t> ends;  // of the blocks
    for (size_t o = 0; o < file.size(); o += file[o + 4] | file[o + 5] << 8) ends.push_back(o + (file[o + 4] | file[o + 5] << 8));
    ASSERT_EQ(ends.size(), 4u);  // section, interface, two packets
    for (size_t n = 4; n < file.size(); ++n) {
        const cvi::Capture cut = cvi::readCapture(std::span(file).first(n));
        const size_t whole = static_cast<size_t>(std::upper_bound(ends.begin(), ends.end(), n) - ends.begin());
        EXPECT_EQ(cut.frames.size(), whole > 2 ? whole - 2 : 0) << n;
        if (std::find(ends.begin(), ends.end(), n) != ends.end()) {
            EXPECT_FALSE(cut.damage) << n;
            continue;
        }
        ASSERT_TRUE(cut.damage) << n;
        EXPECT_NE(cut.damage->find("cut short"), std::string::npos) << n << ": " << *cut.damage;
    }
}

TEST(Capture, ReadsThePcapAndPcapngVariants) {
    const std::vector<uint8_t> msg = cvi::marshalDbusMessage(call("SetLineCallState", {1}));
    // dbus-monitor --pcap: classic pcap, here big-endian with nanoseconds.
    Le pcap;
    pcap.big = true;
    pcap.u32(0xa1b23c4d).u16(2).u16(4).u32(0).u32(0).u32(1 << 27).u32(231);
    pcap.u32(1700000000).u32(5).u32(static_cast<uint32_t>(msg.size())).u32(static_cast<uint32_t>(msg.size() + 10));
    pcap.b.insert(pcap.b.end(), msg.begin(), msg.end());
    cvi::Capture c = cvi::readCapture(pcap.b);
    ASSERT_FALSE(c.damage) << *c.damage;
    EXPECT_EQ(c.format, "pcap");
    ASSERT_EQ(c.frames.size(), 1u);
    EXPECT_EQ(c.frames[0].nanoseconds, 5u);
    EXPECT_TRUE(c.frames[0].cut);
    EXPECT_EQ(c.frames[0].data.size(), msg.size());

    // pcapng: a big-endian section with an interface of another link type
    // and one in 2^-10 s, then a little-endian section whose interface 0
    // gets a simple packet and a packet of the obsolete kind (its interface
    // in 16 bits, then a count of drops).
    Le ng;
    ng.big = true;
    ng.block(0x0a0d0d0a, [](Le& s) { s.u32(0x1a2b3c4d).u16(1).u16(0).u32(0xffffffff).u32(0xffffffff); });
    ng.block(1, [](Le& s) { s.u16(1).u16(0).u32(0); });
    ng.block(1, [](Le& s) {
        s.u16(231).u16(0).u32(0);
        s.u16(9).u16(1).b.push_back(0x8a);
        s.b.insert(s.b.end(), 3, 0);
        s.u16(0).u16(0);
    });
    ng.block(6, [&](Le& s) { s.u32(1).u32(0).u32(3 * 1024 + 512).u32(static_cast<uint32_t>(msg.size())).u32(static_cast<uint32_t>(msg.size())).bytes(msg); });
    ng.block(6, [&](Le& s) { s.u32(0).u32(0).u32(0).u32(2).u32(2).bytes(std::span(msg).first(2)); });
    ng.block(0x0badbad, [](Le& s) { s.u32(7); });  // a block type nobody knows
    ng.big = false;
    ng.block(0x0a0d0d0a, [](Le& s) { s.u32(0x1a2b3c4d).u16(1).u16(0).u32(0xffffffff).u32(0xffffffff); });
    ng.block(1, [](Le& s) { s.u16(231).u16(0).u32(0); });
    ng.block(3, [&](Le& s) { s.u32(static_cast<uint32_t>(msg.size())).bytes(msg); });
    ng.block(2, [&](Le& s) { s.u16(0).u16(9).u32(0).u32(7).u32(static_cast<uint32_t>(msg.size())).u32(static_cast<uint32_t>(msg.size())).bytes(msg); });
    c = cvi::readCapture(ng.b);
    ASSERT_FALSE(c.damage) << *c.damage;
    ASSERT_EQ(c.frames.size(), 4u);
    EXPECT_EQ(c.frames[0].linkType, 231u);
    EXPECT_EQ(c.frames[0].seconds, 3u);
    EXPECT_EQ(c.frames[0].nanoseconds, 500000000u);
    EXPECT_EQ(c.frames[1].linkType, 1u);
    EXPECT_EQ(c.frames[2].number, 3u);
    EXPECT_EQ(c.frames[2].linkType, 231u);
    EXPECT_EQ(c.frames[2].data.size(), msg.size());
    EXPECT_EQ(c.frames[3].linkType, 231u);
    EXPECT_EQ(c.frames[3].nanoseconds, 7000u);
    EXPECT_EQ(c.frames[3].data.size(), msg.size());

    // Each field that bounds a read, made to lie: one line naming it. The
    // section header takes bytes 0-27, the interfaces 28-47 and 48-79 (its
    // time resolution option at 64), the first packet starts at 80.
    struct Lie {
        const char* name;
        size_t offset;
        uint32_t value;
        const char* says;
    } lies[] = {
        {"block length", 4, 0xfffffff0, "more than the"},
        {"block length not a multiple of 4", 4, 30, "not a multiple of 4"},
        {"interface of a packet", 88, 5, "names interface 5, of 2 described"},
        {"captured length", 100, 0xffff0000, "runs past the end of its block"},
        {"option length", 64, 0x000900ff, "has an option (code 9, 255 bytes) that runs past its end"},
        {"time resolution", 68, 0xff000000, "a time resolution 255 no clock has"},
    };
    for (const Lie& l : lies) {
        SCOPED_TRACE(l.name);
        std::vector<uint8_t> bad = ng.b;
        for (int i = 0; i < 4; ++i) bad[l.offset + static_cast<size_t>(i)] = static_cast<uint8_t>(l.value >> (24 - 8 * i));
        const cvi::Capture d = cvi::readCapture(bad);
        ASSERT_TRUE(d.damage);
        EXPECT_NE(d.damage->find(l.says), std::string::npos) << *d.damage;
    }
    EXPECT_FALSE(cvi::isCaptureFile(std::vector<uint8_t>{0, 0, 0, 0, 0, 0, 0, 4}));
}

// The dumps the D-Bus tools printed of the daemons' SetLineCallState call
// (data/: dbus-monitor's with the answer before it, busctl monitor's in
// colour, tshark -P -x of its frame): each is that one message's bytes (for
// tshark the whole D-Bus message, whose ay is the body); twice in a file,
// refused and counted; a BYTE that is none, a row missing, refused.
TEST(HexInput, ReadsTheDumpsOfDbusTools) {
    const std::vector<uint8_t> body = encoded("SetLineCallState", {{"value1", 10000}, {"value2", 10001}, {"value3", 10002}});
    std::map<std::string, std::string> dumps;
    for (const auto& [tool, file] : {std::pair{"dbus-monitor", "dbus-monitor"}, {"busctl monitor", "busctl-monitor"},
                                     {"tshark -x", "tshark-x"}}) {
        SCOPED_TRACE(tool);
        const std::string text = dumps[tool] = cvi::readInput(std::string(CORVANE_DATA "/SetLineCallState.") + file);
        cvi::HexDump d;
        ASSERT_NO_THROW(d = cvi::parseDump(text)) << text;
        EXPECT_EQ(d.tool, tool);
        const bool whole = d.tool == "tshark -x";
        EXPECT_EQ(d.member, whole ? "" : "SetLineCallState");
        const auto m = cvi::parseDbusMessage(d.bytes, nullptr);
        EXPECT_EQ(whole && m && m->byteArray() ? std::vector<uint8_t>(m->byteArray()->begin(), m->byteArray()->end())
                                               : d.bytes,
                  body);
        try {
            cvi::parseDump(text + text);
            ADD_FAILURE() << "two messages accepted";
        } catch (const cvi::SeveralMessages& e) {
            EXPECT_NE(std::string(e.what()).find("holds 2 "), std::string::npos) << e.what();
        }
    }
    std::string text = dumps["busctl monitor"];
    text.replace(text.find("BYTE \x1b[0;1;39m4\x1b"), 15, "BYTE \x1b[0;1;39m256");
    EXPECT_THROW(cvi::parseDump(text), std::runtime_error);
    text = dumps["tshark -x"];
    const size_t row = text.find("\n0010");
    text.erase(row, text.find('\n', row + 1) - row);
    try {
        cvi::parseDump(text);
        ADD_FAILURE() << "a missing row accepted";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("offset 0x20, but 0x10 bytes come before it"), std::string::npos) << e.what();
    }
}

// Names as a test gives them.
class FixedNames : public cvi::Names {
public:
    std::map<std::string, std::string> users;
    std::string shown(const std::string& n) override {
        const auto it = users.find(n);
        return it == users.end() ? n : it->second;
    }
    std::optional<uint32_t> pid(const std::string& n) override {
        return n == ":1.4" ? std::optional<uint32_t>(44) : std::nullopt;
    }
    void ownerChanged(const std::string& name, const std::string&, const std::string& owner) override {
        users[owner] = name.substr(name.rfind('.') + 1);
    }
};

TEST(Traffic, EntriesAnswersAndOwners) {
    FixedNames names;
    cvi::Traffic t(names, {}, true);
    DbusMessage owner;
    owner.type = DbusMessage::kSignal;
    owner.sender = "org.freedesktop.DBus";
    owner.interface = "org.freedesktop.DBus";
    owner.member = "NameOwnerChanged";
    owner.signature = "sss";
    cvi::DbusWriter w;
    w.string("org.corvane.user.voice");
    w.string("");
    w.string(":1.4");
    owner.body = w.bytes();
    EXPECT_EQ(t.take(owner).kind, cvi::Traffic::Kind::kOwnerChange);
    EXPECT_EQ(names.users[":1.4"], "voice");

    DbusMessage c = call("SetLineCallState", encoded("SetLineCallState", {{"value1", 3}}), 11);
    c.sender = ":1.4";
    auto r = t.take(c);
    ASSERT_EQ(r.kind, cvi::Traffic::Kind::kEntry);
    EXPECT_EQ(r.entry->json["sender"], "voice");
    EXPECT_EQ(r.entry->json["sender_pid"], 44);
    EXPECT_EQ(r.entry->json["destination"], "org.corvane.user.mgmt");
    EXPECT_EQ(r.entry->json["payload"]["value1"], 3);
    EXPECT_EQ(r.entry->text.substr(0, r.entry->text.find('\n')),
              "call SetLineCallState voice[44] -> org.corvane.user.mgmt, serial 11, 60 bytes");

    DbusMessage ret;
    ret.type = DbusMessage::kMethodReturn;
    ret.sender = ":1.2";
    ret.destination = ":1.4";
    ret.replySerial = 12;  // not a call it saw
    ret.signature = "u";
    cvi::DbusWriter u;
    u.u32(3);
    ret.body = u.bytes();
    EXPECT_EQ(t.take(ret).kind, cvi::Traffic::Kind::kOther);
    ret.replySerial = 11;
    r = t.take(ret);
    ASSERT_EQ(r.kind, cvi::Traffic::Kind::kEntry);
    EXPECT_EQ(r.entry->json["method"], "SetLineCallState");
    EXPECT_EQ(r.entry->json["status"], 3);
    EXPECT_EQ(r.entry->json["status_text"], "wrong state");
    EXPECT_EQ(t.take(ret).kind, cvi::Traffic::Kind::kOther);  // answered once

    cvi::Traffic only(names, {corVane_messageByName("OnMakeCall")}, true);
    EXPECT_EQ(only.take(c).kind, cvi::Traffic::Kind::kFiltered);
    c.interface = "org.example.Other";
    EXPECT_EQ(t.take(c).kind, cvi::Traffic::Kind::kOther);
}

// Folding shows every field that is not zero or empty, and runs of those
// that are, by name; unfolded it shows every field.
TEST(Folding, FoldsRuns) {
    const CorVaneSchema& profile = *corVane_recordSchema("VoiceProfile");
    std::vector<uint8_t> zero(profile.size, 0);
    std::ostringstream folded, all;
    cvi::printFolded(folded, profile, zero.data(), 0, true);
    cvi::printFolded(all, profile, zero.data(), 0, false);
    EXPECT_EQ(folded.str(), "profileValue3 .. profileValue33: all 31 zero or empty\n");
    const std::string unfolded = all.str();
    EXPECT_GT(std::count(unfolded.begin(), unfolded.end(), '\n'), 500);

    const Json j = {{"profileValue4", 2},
                    {"sip", {{"proxyServer", "p"}}},
                    {"numberingPlan",
                     {{"prefixInfo", Json::array({Json::object(), {{"prefixRange", "9"}}, Json::object(),
                                                  Json::object(), {{"prefixValue1", 1}}})}}}};
    ASSERT_TRUE(cvi::recordFromJson(profile, j, zero.data()).empty());
    std::ostringstream some;
    cvi::printFolded(some, profile, zero.data(), 0, true);
    EXPECT_EQ(some.str(),
              "profileValue3 = 0\n"
              "profileValue4 = 2\n"
              "profileValue5 .. profileValue25: all 21 zero or empty\n"
              "sip: ProfileSIP\n"
              "  proxyServer = \"p\"\n"
              "  proxyServerPort .. sipValue65: all 62 zero or empty\n"
              "rtp: ProfileRTP, all zero or empty\n"
              "numberingPlan: NumberingPlan\n"
              "  planValue1 .. planValue8: all 8 zero or empty\n"
              "  prefixInfo: 40 of 40 PrefixInfo\n"
              "    [0]: all zero or empty\n"
              "    [1]\n"
              "      prefixValue1 = 0\n"
              "      prefixRange = \"9\"\n"
              "      prefixValue3 .. facilityActionArgument: all 8 zero or empty\n"
              "    [2] .. [3]: all 2 zero or empty\n"
              "    [4]\n"
              "      prefixValue1 = 1\n"
              "      prefixRange .. facilityActionArgument: all 9 zero or empty\n"
              "    [5] .. [39]: all 35 zero or empty\n"
              "  planText = \"\"\n"
              "  planValue13 = 0\n"
              "faxT38 .. profileValue33: all 5 zero or empty\n");
}

// The dissector's tables: every record and payload, every field in order with
// a filter field of its own class, one abbreviation per name and class.
TEST(DissectorTables, EveryRecordAndFieldOnce) {
    const std::string lua = cvi::dissectorTables("9.9.9");
    EXPECT_NE(lua.find("local CORVANE_VERSION = \"9.9.9\""), std::string::npos);
    for (const CorVaneMessageInfo* m : cvi::allMessages()) {
        char row[160];
        std::snprintf(row, sizeof row, "[\"%s\"] = { kind = \"%s\", index = %u, magic = 0x%08x, envelope = %u, payload = \"%s\" }",
                      m->name, cvi::interfaceKind(*m), unsigned{m->index}, m->magic, unsigned{m->envelope},
                      m->payload->name);
        EXPECT_NE(lua.find(row), std::string::npos) << row;
    }
    const CorVaneSchema& fqdn = *corVane_recordSchema("ProfileFQDNServers");
    EXPECT_NE(lua.find("  [\"ProfileFQDNServers\"] = {\n"
                       "    { \"profileIndex\", \"u32\", \"corvane.profileIndex\", 0, nil },\n"
                       "    { \"fqdnServersNumberOfEntries\", \"u32\", \"corvane.fqdnServersNumberOfEntries\", 0, nil },\n"
                       "    { \"fqdnServers\", \"array\", \"corvane.fqdnServers\", 20, \"FQDNServers\" },\n"
                       "  },"),
              std::string::npos);
    EXPECT_EQ(fqdn.fieldCount, 3u);
    // A name used as a number in one record and a text in another.
    std::set<std::string> abbreviations;
    std::istringstream in(lua.substr(lua.find("local FIELDS")));
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("  { \"corvane.", 0) != 0) continue;
        const std::string abbr = line.substr(5, line.find('"', 5) - 5);
        EXPECT_TRUE(abbreviations.insert(abbr).second) << abbr;
    }
    EXPECT_TRUE(abbreviations.count("corvane.codec"));
    EXPECT_TRUE(abbreviations.count("corvane.codec.text"));
    EXPECT_TRUE(abbreviations.count("corvane.codec.record"));
    EXPECT_FALSE(abbreviations.count("corvane.method"));  // the dissector's own
}

}  // namespace
