// The 49 messages: catalogue, envelope, body callbacks, and the trip through
// the stand-in bus.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "support/base_reset.h"
#include "support/bindings.h"
#include "support/records.h"
#include "support/wire_edit.h"

namespace cvtest {
namespace {

// The catalogue as the interface defines it, written out independently of
// the library's tables.
struct Row {
    uint32_t intf;
    const char* name;
    uint32_t magic, key;
    bool needUpdate;
    const char* payload;
};

const Row kCatalogue[] = {
    {0, "SetCapabilities", 0x2300713, 0x2300714, false, "capabilities"},
    {0, "SetRegistrationStatus", 0x20132510, 0x20132511, false, "registrationStatus"},
    {0, "SetTransportStatus", 0x9032020, 0x9032021, false, "transportEvent"},
    {0, "SetPhyInterfaceStatus", 0x20132510, 0x20132511, false, "phyInterfaceStatus"},
    {0, "SetRepeaterStatus", 0x30132510, 0x30132511, false, "repeater_status"},
    {0, "SetSuotaStatus", 0x20180708, 0x20180709, false, "suotaStatus"},
    {0, "CreateRepeater", 0x30180708, 0x30180709, false, "dectRepeater"},
    {0, "DeleteRepeater", 0x40180708, 0x40180709, false, "CorVaneRepeaterId"},
    {0, "SetBatteryEnable", 0x20160104, 0x20160105, false, "CorVaneBatteryEnable"},
    {0, "SetLineCallState", 0x20132509, 0x20132510, false, "lineCallState"},
    {0, "SetPingSipState", 0x20161107, 0x20161108, false, "pingSipState"},
    {0, "SetLineStats", 0x20132508, 0x20132509, false, "lineStats"},
    {0, "SetLineModif", 0x20132507, 0x20132508, false, "lineModif"},
    {0, "SetProfileStatus", 0x20152307, 0x20152308, false, "ProfileStatus"},
    {0, "SetProfileBackupIntfStatus", 0x20151903, 0x20151904, false, "ProfileBackupIntfStatus"},
    {0, "SetProfileFQDNServers", 0x20161401, 0x20161402, false, "ProfileFQDNServers"},
    {0, "SetProfileConfig", 0x20171210, 0x20171211, false, "VoiceProfile"},
    {0, "SetAccountStatus", 0x20132510, 0x20132511, false, "accountStatus"},
    {0, "SetInternalCallStatus", 0x20162106, 0x20162107, false, "internalCallStatus"},
    {1, "OnBatteryCfg", 0x20162103, 0x20162104, false, "BatteryCfg"},
    {1, "OnVoiceBehaviorCfg", 0x20190508, 0x20190509, true, "VoiceBehavior"},
    {1, "DebugMode", 0x3300713, 0x3300714, false, "CorVaneValues1"},
    {1, "OnAddObjectVoiceProfile", 0x20132506, 0x20132507, true, "VoiceProfile"},
    {1, "OnAddObjectProfileLine", 0x20132504, 0x20132505, true, "ProfileLine"},
    {1, "OnAddObjectPhyInterface", 0x20132503, 0x20132504, true, "PhyInterface"},
    {1, "OnAddObjectRegistrar", 0x20151130, 0x20151131, true, "Registrar"},
    {1, "OnAddObjectAccount", 0x30151130, 0x30151131, true, "Account"},
    {1, "OnAddObjectContact", 0x40151130, 0x40151131, true, "Contact"},
    {1, "OnAddObjectDectRepeater", 0x20132504, 0x20132505, true, "dectRepeater"},
    {1, "OnChangeObjectVoiceProfile", 0x20132502, 0x20132503, false, "VoiceProfile"},
    {1, "OnChangeObjectProfileLine", 0x20132500, 0x20132501, false, "ProfileLine"},
    {1, "OnChangeObjectPhyInterface", 0x20132599, 0x20132600, false, "PhyInterface"},
    {1, "OnChangeObjectRegistrar", 0x50151130, 0x50151131, true, "Registrar"},
    {1, "OnChangeObjectAccount", 0x60151130, 0x60151131, true, "Account"},
    {1, "OnChangeObjectContact", 0x70151130, 0x70151131, true, "Contact"},
    {1, "OnDeleteObjectVoiceProfile", 0x20132598, 0x20132599, false, "CorVaneValues1"},
    {1, "OnDeleteObjectProfileLine", 0x20132597, 0x20132598, false, "CorVaneValues2"},
    {1, "OnDeleteObjectRegistrar", 0x80151130, 0x80151131, true, "CorVaneValues1"},
    {1, "OnDeleteObjectAccount", 0x90151130, 0x90151131, true, "CorVaneValues2"},
    {1, "OnDeleteObjectContact", 0x10151130, 0x10151131, true, "CorVaneValues3"},
    {1, "OnActionPhyInterface", 0x20132596, 0x20132597, false, "CorVaneValues4"},
    {1, "DeregisterRepeater", 0x30132596, 0x30132597, false, "CorVaneValues1"},
    {1, "StartPairing", 0x20191118, 0x20191119, false, "CorVaneValues2"},
    {1, "StopPairing", 0x20191119, 0x20191120, false, "CorVaneValues1"},
    {1, "OnActionVoiceProfile", 0x20132597, 0x20132598, false, "CorVaneValues2"},
    {1, "OnActionVoiceProfileLine", 0x20132596, 0x20132597, false, "CorVaneValues3"},
    {1, "OnMakeCall", 0x20140808, 0x20140809, false, "CorVaneMakeCall"},
    {1, "OnPingSip", 0x20161107, 0x20161108, false, "CorVanePingSip"},
    {1, "StopAutoCall", 0x20192110, 0x20192111, false, "CorVaneValues2"},
};

// The magic with its hexadecimal digits counted up by one as decimal digits.
uint32_t countedUp(uint32_t magic) {
    uint32_t out = 0, carry = 1;
    for (int shift = 0; shift < 32; shift += 4) {
        uint32_t digit = ((magic >> shift) & 0xf) + carry;
        carry = digit == 10;
        if (carry) digit = 0;
        out |= digit << shift;
    }
    return out;
}

std::string lowerFirst(std::string s) {
    s[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(s[0])));
    return s;
}

bool isCommand(const Binding& b) { return b.info->intf == CORVANE_INTF_CMD; }

// corVane_cbEvtMsgMngt_<cb>_msg{Cmd,Ntfy}[Req]_<message>
std::string callbackName(const Binding& b, const char* cb, bool req) {
    return std::string("corVane_cbEvtMsgMngt_") + cb + (isCommand(b) ? "_msgCmd" : "_msgNtfy") +
           (req ? "Req_" : "_") + lowerFirst(b.info->name);
}

// A full payload of the message's type.
Record fullPayload(const Binding& b, Counts counts = Counts::kCapacity) {
    Record r(b.info->payload);
    fillFull(*b.info->payload, r.data(), 11, counts);
    return r;
}

// A body as a sender builds it: magic, ref 0, the payload copied in.
void* makeBody(const Binding& b, const Record& payload) {
    void* body = std::calloc(1, b.info->bodySize);
    std::memcpy(body, &b.info->magic, 4);
    corVane_record_copy(b.info->payload, static_cast<uint8_t*>(body) + 8, payload.data());
    return body;
}

Bytes serialize(const Binding& b, void* body) {
    uint8_t* buf = nullptr;
    uint32_t len = 0;
    EXPECT_EQ(0u, b.serializeBody(0, body, &buf, &len));
    Bytes out(buf, buf + len);
    std::free(buf);
    return out;
}

class Messages : public testing::Test {
protected:
    void SetUp() override { resetBase(); }
    void TearDown() override { resetBase(); }
};

TEST_F(Messages, CatalogueMatchesTheInterface) {
    ASSERT_EQ(49u, bindings().size());
    for (size_t i = 0; i < 49; ++i) {
        const Row& row = kCatalogue[i];
        const Binding& b = bindings()[i];
        const uint32_t index = static_cast<uint32_t>(row.intf == 0 ? i : i - 19);
        SCOPED_TRACE(row.name);
        ASSERT_EQ(b.info, corVane_messageInfo(row.intf, index));
        EXPECT_EQ(b.info, corVane_messageByName(row.name));
        EXPECT_STREQ(row.name, b.info->name);
        EXPECT_EQ(index, b.info->index);
        EXPECT_EQ(row.magic, b.info->magic);
        EXPECT_EQ(row.key, b.info->key);
        EXPECT_EQ(countedUp(row.magic), row.key);
        EXPECT_EQ(row.needUpdate, b.needUpdate != nullptr);
        EXPECT_EQ(row.needUpdate, (b.info->flags & CORVANE_MSG_NEED_UPDATE) != 0);
        EXPECT_STREQ(row.payload, b.info->payload->name);
        EXPECT_EQ(8u + b.info->payload->size, b.info->bodySize);
        EXPECT_EQ(std::string(row.name) == "SetCapabilities" ? 1u : 0u, b.info->envelope);
        const CorVaneMethod* m = row.intf == 0 ? corVane_base.cmd.methods : corVane_base.ntfy.methods;
        EXPECT_EQ(b.recv, m[index].recv);
        EXPECT_EQ(b.freeBody, m[index].freeBody);
        EXPECT_EQ(b.serializeBody, m[index].serializeBody);
        EXPECT_EQ(b.unserializeBody, m[index].unserializeBody);
        EXPECT_EQ(b.logBody, m[index].logBody);
    }
    EXPECT_EQ(nullptr, corVane_messageInfo(0, 19));
    EXPECT_EQ(nullptr, corVane_messageInfo(1, 30));
    EXPECT_EQ(nullptr, corVane_messageInfo(2, 0));
    EXPECT_EQ(nullptr, corVane_messageByName("setCapabilities"));
}

// The envelope: tag 0 the magic, tag 1 the envelope word (1 for
// SetCapabilities alone), then the payload; 24 + the payload's length.
TEST_F(Messages, EnvelopeOfEveryMessage) {
    for (const Binding& b : bindings()) {
        SCOPED_TRACE(b.info->name);
        const Record payload = fullPayload(b);
        void* body = makeBody(b, payload);
        const Bytes wire = serialize(b, body);
        ASSERT_EQ(24u + corVane_record_serialize_lg(b.info->payload, payload.data()), wire.size());
        EXPECT_EQ(0u, be32(&wire[0]));
        EXPECT_EQ(4u, be32(&wire[4]));
        EXPECT_EQ(b.info->magic, be32(&wire[8]));
        EXPECT_EQ(1u, be32(&wire[12]));
        EXPECT_EQ(4u, be32(&wire[16]));
        EXPECT_EQ(b.info->envelope, be32(&wire[20]));
        EXPECT_EQ(encode(*b.info->payload, payload.data()), Bytes(wire.begin() + 24, wire.end()));

        // Read back (unbounded and bounded): same magic and payload, ref 0.
        for (bool bounded : {false, true}) {
            ExactBuffer exact(wire);
            void* back = nullptr;
            uint32_t size = 0;
            const uint32_t st = bounded ? corVane_unserializeBody_bounded(b.info, 0, exact.data(),
                                                                          exact.size(), &back, &size)
                                        : b.unserializeBody(0, exact.data(), &back, &size);
            ASSERT_EQ(0u, st);
            EXPECT_EQ(b.info->bodySize, size);
            EXPECT_EQ(0, std::memcmp(back, body, 6));
            EXPECT_EQ("", diff(*b.info->payload, payload.data(), static_cast<uint8_t*>(back) + 8));
            b.freeBody(0, back);
        }
        b.freeBody(0, body);
    }
    EXPECT_TRUE(logLines().empty());
}

// The second word must be exactly the message's envelope word (low 16 bits);
// the first word's value is taken whatever it is.
TEST_F(Messages, EnvelopeWordsOnReceipt) {
    for (const Binding& b : bindings()) {
        SCOPED_TRACE(b.info->name);
        void* body = makeBody(b, fullPayload(b));
        Bytes wire = serialize(b, body);
        b.freeBody(0, body);
        for (uint32_t word : {0u, 1u, 0x10000u, 0x10001u, 2u}) {
            Bytes w = wire;
            putBe32(&w[20], word);
            const bool ok = (word & 0xffff) == b.info->envelope;
            void* back = nullptr;
            uint32_t size = 0;
            clearLog();
            ASSERT_EQ(ok ? 0u : 2u, b.unserializeBody(0, w.data(), &back, &size)) << word;
            EXPECT_TRUE(logLines().empty());
            if (ok) b.freeBody(0, back);
        }
        // A foreign magic is accepted here; the receive function checks it.
        putBe32(&wire[8], 0x0badcafeu);
        void* back = nullptr;
        uint32_t size = 0;
        ASSERT_EQ(0u, b.unserializeBody(0, wire.data(), &back, &size));
        uint32_t magic;
        std::memcpy(&magic, back, 4);
        EXPECT_EQ(0x0badcafeu, magic);
        std::memcpy(back, &b.info->magic, 4);
        b.freeBody(0, back);
    }
}

TEST_F(Messages, EnvelopeTagMismatches) {
    const Binding& b = bindings()[9];  // SetLineCallState
    void* body = makeBody(b, fullPayload(b));
    const Bytes wire = serialize(b, body);
    b.freeBody(0, body);
    const std::string name = callbackName(b, "unserializeBody", true);
    for (size_t at : {0u, 12u}) {
        Bytes w = wire;
        putBe32(&w[at], 7);
        void* back = nullptr;
        uint32_t size = 0;
        clearLog();
        EXPECT_EQ(2u, b.unserializeBody(0, w.data(), &back, &size));
        std::vector<std::string> want = {name + ": pBody(" + ptr(w.data()) + "): Tl(7-4) expectded(" +
                                         std::to_string(at / 12) + ")\n"};
        if (at == 0) want.push_back(name + ": pBody(" + ptr(w.data()) + "): Type(1) -> Error Before\n");
        EXPECT_EQ(want, logTextsWithoutLine());
        EXPECT_EQ(nullptr, back);
    }
}

// Responses and unknown kinds are refused by every callback, naming the
// callback itself; a null body is refused naming the request half.
TEST_F(Messages, KindsAndNullBodies) {
    for (const Binding& b : bindings()) {
        SCOPED_TRACE(b.info->name);
        void* body = makeBody(b, fullPayload(b));
        uint8_t* buf = nullptr;
        uint32_t len = 0, size = 0;
        void* out = nullptr;
        const uint8_t bytes[24] = {};
        clearLog();
        b.freeBody(1, body);
        b.freeBody(5, body);
        EXPECT_EQ(1u, b.serializeBody(1, body, &buf, &len));
        EXPECT_EQ(1u, b.serializeBody(2, body, &buf, &len));
        EXPECT_EQ(1u, b.unserializeBody(1, bytes, &out, &size));
        EXPECT_EQ(1u, b.unserializeBody(3, bytes, &out, &size));
        b.freeBody(0, nullptr);
        EXPECT_EQ(4u, b.serializeBody(0, nullptr, &buf, &len));
        b.recv(nullptr, nullptr, nullptr, nullptr);
        b.logBody(nullptr, nullptr, nullptr, nullptr);
        const std::string recv = isCommand(b) ? "corVane_recvReq_" + lowerFirst(b.info->name)
                                              : std::string("corVane_recvReq_ntfy") + b.info->name;
        EXPECT_EQ((std::vector<std::string>{
                      callbackName(b, "freeBody", false) + ": No free body response process\n",
                      callbackName(b, "freeBody", false) + ": Type(5) unknown",
                      callbackName(b, "serializeBody", false) + ": No Serialize response process\n",
                      callbackName(b, "serializeBody", false) + ": Type(2) unknown\n",
                      callbackName(b, "unserializeBody", false) + ": No Unserialize response process\n",
                      callbackName(b, "unserializeBody", false) + ": Type(3) unknown\n",
                      callbackName(b, "freeBody", true) + ": Ctx[NULL] text[]\n",
                      callbackName(b, "serializeBody", true) + ": Ctx[NULL] text[]\n",
                      recv + ": Ctx[NULL] text[]\n",
                      callbackName(b, "logBody", true) + ": Invalid parameter\n"}),
                  logTextsWithoutLine());
        EXPECT_EQ(nullptr, buf);
        EXPECT_EQ(nullptr, out);
        // The body survived the refused frees; a held body (ref != 0) survives too.
        static_cast<CorVaneMsgBody*>(body)->ref = 1;
        b.freeBody(0, body);
        EXPECT_EQ(b.info->magic, static_cast<CorVaneMsgBody*>(body)->magic);
        static_cast<CorVaneMsgBody*>(body)->ref = 0;
        b.freeBody(0, body);
        // logBody hands out an empty string that the caller frees.
        char* text = nullptr;
        b.logBody(nullptr, nullptr, nullptr, &text);
        ASSERT_NE(nullptr, text);
        EXPECT_STREQ("", text);
        std::free(text);
    }
}

// A scalar payload logs under the callback that reads it; a record payload
// under the record's own operation.
TEST_F(Messages, PayloadMismatchLinesNameTheirReader) {
    const Binding& makeCall = bindings()[19 + 27];
    const Binding& battery = bindings()[19 + 0];
    for (const Binding* b : {&makeCall, &battery}) {
        void* body = makeBody(*b, fullPayload(*b));
        Bytes wire = serialize(*b, body);
        b->freeBody(0, body);
        putBe32(&wire[24], 9);
        void* back = nullptr;
        uint32_t size = 0;
        clearLog();
        EXPECT_EQ(4u, b->unserializeBody(0, wire.data(), &back, &size));
        const std::string who = b == &makeCall ? callbackName(*b, "unserializeBody", true)
                                               : std::string("corVane_BatteryCfg_unserialize");
        const auto lines = logTextsWithoutLine();
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(who + ": pBody(" + ptr(&wire[24]) + "): Tl(9-4) expectded(3)\n", lines[0]);
    }
    // A received OnMakeCall text of 32 characters does not fit.
    CorVaneMakeCall call{};
    std::strcpy(call.text1, "short");
    Bytes wire = {};
    {
        void* body = std::calloc(1, makeCall.info->bodySize);
        std::memcpy(body, &makeCall.info->magic, 4);
        std::memcpy(static_cast<uint8_t*>(body) + 8, &call, sizeof call);
        wire = serialize(makeCall, body);
        makeCall.freeBody(0, body);
    }
    Element text1{};
    text1.wireOffset = 24 + 24;
    text1.wireSize = 16;
    const Bytes bad = replaceElement(wire, text1, stringElement(5, std::string(32, 'c')));
    void* back = nullptr;
    uint32_t size = 0;
    clearLog();
    EXPECT_EQ(4u, makeCall.unserializeBody(0, bad.data(), &back, &size));
    const std::string who = callbackName(makeCall, "unserializeBody", true);
    EXPECT_EQ((std::vector<std::string>{
                  who + ": lgChainIn(33) lgMaxChainOut(32)\n",
                  who + ": pBody(" + ptr(&bad[24]) + "): Type(6) -> Error Before\n",
                  who + ": pBody(" + ptr(&bad[24]) + "): Type(7) -> Error Before\n"}),
              logTextsWithoutLine());
}

// What each registration and send hands the middleware.
TEST_F(Messages, MiddlewareArguments) {
    ASSERT_EQ(0u, corVane_addBase());
    void* user = quibStub_newUser("voice");
    // The stand-in takes the first value as the handler, the second as its argument.
    const CorVaneHandler ignore = [](void*, void*, void*) -> uint32_t { return 0; };
    void* a = reinterpret_cast<void*>(ignore);
    int b2 = 0, c = 0;
    for (const Binding& b : bindings()) {
        SCOPED_TRACE(b.info->name);
        ASSERT_EQ(0u, b.listen(user, a, &b2, &c, "bus", "voice"));
        const QuibStubCallRecord* r =
            quibStub_lastCall(isCommand(b) ? QUIB_STUB_MOD_SRV : QUIB_STUB_MOD_CLI);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(user), r->args[0]);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(a), r->args[1]);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(&b2), r->args[2]);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(&c), r->args[3]);
        EXPECT_EQ(b.info->key, r->args[4]);
        const size_t at = isCommand(b) ? 5 : 7;  // base name, descriptors, index
        if (!isCommand(b)) {
            EXPECT_STREQ("bus", reinterpret_cast<const char*>(r->args[5]));
            EXPECT_STREQ("voice", reinterpret_cast<const char*>(r->args[6]));
        }
        EXPECT_EQ(reinterpret_cast<uintptr_t>(corVane_base.name), r->args[at]);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(&corVane_base.cmd), r->args[at + 1]);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(&corVane_base.ntfy), r->args[at + 2]);
        EXPECT_EQ(b.info->index, r->args[at + 3]);
        if (isCommand(b)) {
            EXPECT_EQ(0xffffu, r->args[9]);
            EXPECT_EQ(0xffffu, r->args[10]);
        }
        if (b.needUpdate) {
            ASSERT_EQ(0u, b.needUpdate(user, a, &b2, &c));
            const QuibStubCallRecord* n = quibStub_lastCall(QUIB_STUB_NEED_UPDATE);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(corVane_base.name), n->args[4]);
            EXPECT_EQ(b.info->index, n->args[7]);
            EXPECT_TRUE(quibStub_needsUpdate(user, corVane_getNtfyIntfNum(), b.info->index));
        }
        const Record payload = fullPayload(b);
        b.send(user, &b2, "nobody", payload.data());
        if (isCommand(b)) {
            const QuibStubCallRecord* s = quibStub_lastCall(QUIB_STUB_SEND_REQ);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(user), s->args[0]);
            EXPECT_EQ(0u, s->args[2] | s->args[3] | s->args[4]);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(&b2), s->args[5]);
            EXPECT_STREQ("nobody", reinterpret_cast<const char*>(s->args[6]));
            EXPECT_EQ(corVane_getCmdIntfNum(), s->args[7]);
            EXPECT_EQ(b.info->index, s->args[8]);
            EXPECT_EQ(0xffffu, s->args[9]);
            EXPECT_EQ(18u, s->args[10]);
        } else {
            const QuibStubCallRecord* s = quibStub_lastCall(QUIB_STUB_SEND_NTFY);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(user), s->args[0]);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(&b2), s->args[5]);
            EXPECT_STREQ("CorVane", reinterpret_cast<const char*>(s->args[7]));
            EXPECT_EQ(corVane_getNtfyIntfNum(), s->args[8]);
            EXPECT_EQ(b.info->index, s->args[9]);
            EXPECT_EQ(0u, s->args[10] | s->args[11]);
            EXPECT_EQ(18u, s->args[12]);
        }
    }
}

TEST_F(Messages, RegistrationFailuresAreLoggedAndReturned) {
    void* user = quibStub_newUser("voice");
    const std::string u = ptr(user);
    quibStub_setFailure(QUIB_STUB_MOD_SRV, 5, 0);
    quibStub_setFailure(QUIB_STUB_MOD_CLI, 6, 0);
    quibStub_setFailure(QUIB_STUB_NEED_UPDATE, 7, 0);
    const char bus[] = "bus";
    const char who[] = "voice";
    EXPECT_EQ(5u, corVane_modSrv_recvMsg_setLineStats(user, nullptr, nullptr, nullptr));
    EXPECT_EQ(6u, corVane_modCliNtfyUser_recvMsg_onPingSip(user, nullptr, nullptr, nullptr, bus, who));
    EXPECT_EQ(7u, corVane_modSrv_needUpdate_ntfyOnChangeObjectRegistrar(user, nullptr, nullptr, nullptr));
    EXPECT_EQ((std::vector<std::string>{
                  "corVane_modSrv_recvMsg_setLineStats: user(" + u + "): ModCliNtfyUser failed(5)\n",
                  "corVane_modCliNtfyUser_recvMsg_onPingSip: user(" + u +
                      ") bus name(bus) user name(" + ptr(who) + "): ModCliNtfyUser\n",
                  "corVane_modSrv_needUpdate_ntfyOnChangeObjectRegistrar: user(" + u +
                      "): ModSrv failed(7)\n"}),
              logTextsWithoutLine());
}

TEST_F(Messages, CommandWithoutUserNameIsNotSent) {
    registrationStatus rs{};
    clearLog();
    EXPECT_EQ(0u, corVane_sendReq_setRegistrationStatus(nullptr, nullptr, nullptr, &rs));
    EXPECT_EQ(0u, quibStub_lastCall(QUIB_STUB_SEND_REQ)->calls);
    EXPECT_EQ((std::vector<std::string>{
                  "corVane_sendReq_setRegistrationStatus: user((nil)): UserName Null\n"}),
              logTextsWithoutLine());
}

// Every message, with full payloads, from a sender through the stand-in bus
// into a handler; every body and buffer is released on the way.
TEST_F(Messages, EveryMessageTravelsTheBusIntact) {
    struct Capture {
        size_t size;
        Bytes payload;
        int calls = 0;
    };
    const CorVaneHandler handler = [](void*, void* arg, void* payload) -> uint32_t {
        auto* c = static_cast<Capture*>(arg);
        const uint8_t* p = static_cast<const uint8_t*>(payload);
        c->payload.assign(p, p + c->size);
        ++c->calls;
        return 0;
    };
    for (const Binding& b : bindings()) {
        for (Counts counts : {Counts::kZero, Counts::kCapacity, Counts::kAbove}) {
            SCOPED_TRACE(b.info->name);
            Capture cap{b.info->payload->size, {}};
            resetBase();
            ASSERT_EQ(0u, corVane_addBase());
            // Commands go from the voice service to the management side,
            // notifications the other way.
            void* from = quibStub_newUser(isCommand(b) ? "voice" : "mgmt");
            void* to = quibStub_newUser(isCommand(b) ? "mgmt" : "voice");
            ASSERT_EQ(0u, corVane_regUser_msgMngt(from, nullptr, nullptr, 0));
            ASSERT_EQ(0u, corVane_regUser_msgMngt(to, nullptr, nullptr, 0));
            ASSERT_EQ(0u, b.listen(to, reinterpret_cast<void*>(handler), &cap, nullptr, "bus",
                                   isCommand(b) ? "mgmt" : "voice"));
            const Record payload = fullPayload(b, counts);
            ASSERT_EQ(0u, b.send(from, nullptr, "mgmt", payload.data()));
            ASSERT_EQ(1, cap.calls);
            EXPECT_EQ("", diff(*b.info->payload, payload.data(), cap.payload.data()));
            QuibStubStats st;
            quibStub_stats(&st);
            EXPECT_EQ(st.bodiesTaken, st.bodiesReleased);
            EXPECT_EQ(st.buffersTaken, st.buffersFreed);
            EXPECT_EQ(1u, st.deliveries);
            EXPECT_EQ(0u, st.failures);
        }
    }
    EXPECT_TRUE(logLines().empty());
}

TEST_F(Messages, ReceiveWithoutHandlerAnswers20) {
    ASSERT_EQ(0u, corVane_addBase());
    void* voice = quibStub_newUser("voice");
    void* mgmt = quibStub_newUser("mgmt");
    ASSERT_EQ(0u, corVane_modSrv_recvMsg_setLineCallState(mgmt, nullptr, nullptr, nullptr));
    lineCallState lcs{1, 2, 3};
    ASSERT_EQ(0u, corVane_sendReq_setLineCallState(voice, nullptr, "mgmt", &lcs));
    size_t n = 0;
    const QuibStubResponse* r = quibStub_responses(&n);
    ASSERT_EQ(1u, n);
    EXPECT_EQ(20u, r[0].status);
    EXPECT_EQ(18u, r[0].prio);
    EXPECT_EQ(9u, r[0].method);
    EXPECT_EQ(corVane_getCmdIntfNum(), r[0].num);
}

// The scalar sends copy texts with their capacity: 40 characters arrive as 31.
TEST_F(Messages, MakeCallTextsAreCutToTheirField) {
    ASSERT_EQ(0u, corVane_addBase());
    void* voice = quibStub_newUser("voice");
    void* mgmt = quibStub_newUser("mgmt");
    CorVaneMakeCall got{};
    const CorVaneHandler h = [](void*, void* arg, void* payload) -> uint32_t {
        std::memcpy(arg, payload, sizeof(CorVaneMakeCall));
        return 0;
    };
    ASSERT_EQ(0u, corVane_modCliNtfyUser_recvMsg_onMakeCall(voice, reinterpret_cast<void*>(h), &got,
                                                            nullptr, "bus", "voice"));
    const std::string forty(40, 'k');
    corVane_sendReq_ntfyOnMakeCall(mgmt, nullptr, nullptr, 7, 8, forty.c_str(), nullptr, "x");
    EXPECT_EQ(7u, got.value1);
    EXPECT_EQ(8u, got.value2);
    EXPECT_EQ(std::string(31, 'k'), got.text1);
    EXPECT_STREQ("", got.text2);
    EXPECT_STREQ("x", got.text3);
}

using MessagesDeathTest = Messages;

// A body is checked against its own message's magic only.
TEST_F(MessagesDeathTest, WrongMagicAbortsInReceiveAndFree) {
    const Binding& lineCall = bindings()[9];
    const Binding& addLine = bindings()[19 + 4];
    const Binding& addRepeater = bindings()[19 + 9];
    const Binding& addPhy = bindings()[19 + 5];
    EXPECT_DEATH(
        {
            uint32_t body[16] = {0x20132510u};
            corVane_recvReq_setLineCallState(nullptr, body, nullptr, nullptr);
        },
        "corVane_recvReq_setLineCallState\\([0-9]+\\): Check Magic\\[CORVANE_MAGIC_MSGCMD_"
        "SETLINECALLSTATE-20132509\\] Ctx\\[ptr\\(0x[0-9a-f]+\\) magic\\(20132510\\)\\] text\\[\\]");
    EXPECT_DEATH(
        {
            void* body = makeBody(addPhy, fullPayload(addPhy));
            addLine.recv(nullptr, body, nullptr, nullptr);
        },
        "corVane_recvReq_ntfyOnAddObjectProfileLine\\([0-9]+\\): Check Magic\\[CORVANE_MAGIC_"
        "MSGNTFY_ONADDOBJECTPROFILELINE-20132504\\].*magic\\(20132503\\)");
    EXPECT_DEATH(
        {
            uint32_t body[16] = {CORVANE_MAGIC_FREED};
            lineCall.freeBody(0, body);
        },
        "corVane_cbEvtMsgMngt_freeBody_msgCmdReq_setLineCallState\\([0-9]+\\): Check Magic.*"
        "magic\\(DEADBEEF\\)");
    // The repeater body shares the profile line's magic and passes its check.
    int called = 0;
    void* body = makeBody(addRepeater, fullPayload(addRepeater));
    addLine.recv(nullptr, body,
                 [](void*, void* arg, void*) -> uint32_t { return ++*static_cast<int*>(arg); },
                 &called);
    EXPECT_EQ(1, called);
    addRepeater.freeBody(0, body);
}

}  // namespace
}  // namespace cvtest
