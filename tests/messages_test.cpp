// The 49 messages: lookups, envelope, body callbacks, and what they hand the
// stand-in bus.
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

bool isCommand(const Binding& b) { return b.info->intf == CORVANE_INTF_CMD; }

std::string lowerFirst(const Binding& b) {
    std::string name = b.info->name;
    name[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(name[0])));
    return name;
}

// corVane_cbEvtMsgMngt_<cb>_msg{Cmd,Ntfy}[Req]_<message>
std::string callbackName(const Binding& b, const char* cb, bool req) {
    return std::string("corVane_cbEvtMsgMngt_") + cb + (isCommand(b) ? "_msgCmd" : "_msgNtfy") +
           (req ? "Req_" : "_") + lowerFirst(b);
}

Record fullPayload(const Binding& b) {
    Record r(b.info->payload);
    fillFull(*b.info->payload, r.data(), 11, Counts::kCapacity);
    return r;
}

class Messages : public testing::Test {
protected:
    void SetUp() override { resetBase(); }
    void TearDown() override { resetBase(); }
};

// Each message is found by its name, its body is its payload after the
// 8-byte head, and the descriptor's method entry at its index holds its own
// callbacks; lookups past either table find nothing.
TEST_F(Messages, LookupsAndMethodEntries) {
    ASSERT_EQ(49u, bindings().size());
    for (const Binding& b : bindings()) {
        SCOPED_TRACE(b.info->name);
        EXPECT_EQ(b.info, corVane_messageByName(b.info->name));
        EXPECT_EQ(8u + b.info->payload->size, b.info->bodySize);
        const CorVaneMethod& m =
            (isCommand(b) ? corVane_base.cmd.methods : corVane_base.ntfy.methods)[b.info->index];
        EXPECT_STREQ(b.info->name, m.name);
        EXPECT_TRUE(m.index == b.info->index && !m.recvRes && b.recv == m.recv &&
                    b.freeBody == m.freeBody && b.logBody == m.logBody &&
                    b.serializeBody == m.serializeBody && b.unserializeBody == m.unserializeBody);
    }
    EXPECT_EQ(nullptr, corVane_messageInfo(0, 19));
    EXPECT_EQ(nullptr, corVane_messageInfo(1, 30));
    EXPECT_EQ(nullptr, corVane_messageInfo(2, 0));
    EXPECT_EQ(nullptr, corVane_messageByName("setCapabilities"));
}

// Tag 0 the magic, tag 1 the envelope word, then the payload. On receipt the
// envelope word must match in its low 16 bits (refused silently otherwise);
// the magic is taken as it comes, the receive function checks it. Longer
// envelope elements give their word too.
TEST_F(Messages, EnvelopeOfEveryMessage) {
    for (const Binding& b : bindings()) {
        SCOPED_TRACE(b.info->name);
        const Record payload = fullPayload(b);
        void* body = makeBody(b, payload.data());
        Bytes wire = serializedBody(b, body);
        b.freeBody(0, body);
        EXPECT_EQ(words({0, 4, b.info->magic, 1, 4, b.info->envelope}) + encode(*b.info->payload, payload.data()),
                  wire);
        putBe32(&wire[8], 0x0badcafeu);
        for (uint32_t word : {0u, 1u, 0x10000u, 0x10001u, 2u}) {
            putBe32(&wire[20], word);
            const bool ok = (word & 0xffff) == b.info->envelope;
            void* back = nullptr;
            uint32_t size = 0;
            ASSERT_EQ(ok ? 0u : 2u, b.unserializeBody(0, wire.data(), &back, &size)) << word;
            if (!ok) continue;
            EXPECT_EQ(0x0badcafeu, static_cast<CorVaneMsgBody*>(back)->magic);
            static_cast<CorVaneMsgBody*>(back)->magic = b.info->magic;
            b.freeBody(0, back);
        }
        // Envelope elements longer than their word (a newer peer's) are read
        // and skipped whole, by both readers.
        const Bytes longer = words({0, 8, b.info->magic, 0xEEEEEEEEu, 1, 6, b.info->envelope}) +
                             Bytes{0xEE, 0xEE} + encode(*b.info->payload, payload.data());
        for (const bool bounded : {false, true}) {
            void* back = nullptr;
            uint32_t size = 0;
            ASSERT_EQ(0u, bounded ? corVane_unserializeBody_bounded(b.info, 0, longer.data(), longer.size(),
                                                                    &back, &size)
                                  : b.unserializeBody(0, longer.data(), &back, &size))
                << bounded;
            auto* got = static_cast<CorVaneMsgBody*>(back);
            EXPECT_EQ(b.info->magic, got->magic) << bounded;
            EXPECT_EQ("", diff(*b.info->payload, payload.data(), static_cast<uint8_t*>(back) + 8)) << bounded;
            got->magic = b.info->magic;
            b.freeBody(0, back);
        }
    }
    EXPECT_TRUE(logLines().empty());
}

// Responses and unknown kinds are refused by every callback, naming the
// callback itself; a null body is refused naming the request half.
TEST_F(Messages, KindsAndNullBodies) {
    for (const Binding& b : bindings()) {
        SCOPED_TRACE(b.info->name);
        auto* body = static_cast<CorVaneMsgBody*>(makeBody(b, fullPayload(b).data()));
        uint8_t* buf = nullptr;
        void* out = nullptr;
        uint32_t len = 0, size = 0;
        const uint8_t bytes[24] = {};
        const auto cb = [&](const char* f, bool req) { return callbackName(b, f, req) + ": "; };
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
        const std::string recv = isCommand(b) ? "corVane_recvReq_" + lowerFirst(b)
                                              : std::string("corVane_recvReq_ntfy") + b.info->name;
        EXPECT_EQ((std::vector<std::string>{cb("freeBody", false) + "No free body response process\n",
                                            cb("freeBody", false) + "Type(5) unknown",
                                            cb("serializeBody", false) + "No Serialize response process\n",
                                            cb("serializeBody", false) + "Type(2) unknown\n",
                                            cb("unserializeBody", false) + "No Unserialize response process\n",
                                            cb("unserializeBody", false) + "Type(3) unknown\n",
                                            cb("freeBody", true) + "Ctx[NULL] text[]\n",
                                            cb("serializeBody", true) + "Ctx[NULL] text[]\n",
                                            recv + ": Ctx[NULL] text[]\n",
                                            cb("logBody", true) + "Invalid parameter\n"}),
                  logTextsWithoutLine());
        EXPECT_EQ(nullptr, buf);
        EXPECT_EQ(nullptr, out);
        // The body survived the refused frees; a held body (ref != 0) survives too.
        body->ref = 1;
        b.freeBody(0, body);
        EXPECT_EQ(b.info->magic, body->magic);
        body->ref = 0;
        b.freeBody(0, body);
        // logBody hands out an empty string that the caller frees.
        char* text = nullptr;
        b.logBody(nullptr, nullptr, nullptr, &text);
        ASSERT_NE(nullptr, text);
        EXPECT_STREQ("", text);
        std::free(text);
    }
}

// What each registration and send hands the middleware.
TEST_F(Messages, MiddlewareArguments) {
    ASSERT_EQ(0u, corVane_addBase());
    void* user = quibStub_newUser("voice");
    // The stand-in takes the first value as the handler, the second as its argument.
    const CorVaneHandler ignore = [](void*, void*, void*) -> uint32_t { return 0; };
    void* a = reinterpret_cast<void*>(ignore);
    int b2 = 0, c = 0;
    const char bus[] = "bus", who[] = "voice", to[] = "nobody";
    const uintptr_t base = w(corVane_base.name), cmd = w(&corVane_base.cmd), ntfy = w(&corVane_base.ntfy);
    const std::vector<uintptr_t> head = {w(user), w(a), w(&b2), w(&c)};
    for (const Binding& b : bindings()) {
        SCOPED_TRACE(b.info->name);
        const uintptr_t key = b.info->key, index = b.info->index;
        ASSERT_EQ(0u, b.listen(user, a, &b2, &c, bus, who));
        std::vector<uintptr_t> want = head;
        if (isCommand(b))
            want.insert(want.end(), {key, base, cmd, ntfy, index, 0xffff, 0xffff});
        else
            want.insert(want.end(), {key, w(bus), w(who), base, cmd, ntfy, index});
        EXPECT_EQ(want, lastArgs(isCommand(b) ? QUIB_STUB_MOD_SRV : QUIB_STUB_MOD_CLI));
        // The flag that tools read says whether the function exists.
        EXPECT_EQ(b.needUpdate != nullptr, (b.info->flags & CORVANE_MSG_NEED_UPDATE) != 0);
        if (b.needUpdate) {
            ASSERT_EQ(0u, b.needUpdate(user, a, &b2, &c));
            want = head;
            want.insert(want.end(), {base, cmd, ntfy, index});
            EXPECT_EQ(want, lastArgs(QUIB_STUB_NEED_UPDATE));
            EXPECT_TRUE(quibStub_needsUpdate(user, corVane_getNtfyIntfNum(), b.info->index));
        }
        b.send(user, &b2, to, fullPayload(b).data());
        // The body (second word) is the library's own; it is not compared.
        std::vector<uintptr_t> got = lastArgs(isCommand(b) ? QUIB_STUB_SEND_REQ : QUIB_STUB_SEND_NTFY);
        ASSERT_LT(1u, got.size());
        got[1] = 0;
        if (isCommand(b))
            want = {w(user), 0, 0, 0, 0, w(&b2), w(to), corVane_getCmdIntfNum(), index, 0xffff, 18};
        else
            want = {w(user), 0, 0, 0, 0, w(&b2), 0, base, corVane_getNtfyIntfNum(), index, 0, 0, 18};
        EXPECT_EQ(want, got);
    }
}

TEST_F(Messages, RegistrationFailuresAreLoggedAndReturned) {
    void* user = quibStub_newUser("voice");
    const std::string u = ptr(user);
    quibStub_setFailure(QUIB_STUB_MOD_SRV, 5, 0);
    quibStub_setFailure(QUIB_STUB_MOD_CLI, 6, 0);
    quibStub_setFailure(QUIB_STUB_NEED_UPDATE, 7, 0);
    const char who[] = "voice";
    EXPECT_EQ(5u, corVane_modSrv_recvMsg_setLineStats(user, nullptr, nullptr, nullptr));
    EXPECT_EQ(6u, corVane_modCliNtfyUser_recvMsg_onPingSip(user, nullptr, nullptr, nullptr, "bus", who));
    EXPECT_EQ(7u, corVane_modSrv_needUpdate_ntfyOnChangeObjectRegistrar(user, nullptr, nullptr, nullptr));
    EXPECT_EQ((std::vector<std::string>{
                  "corVane_modSrv_recvMsg_setLineStats: user(" + u + "): ModCliNtfyUser failed(5)\n",
                  "corVane_modCliNtfyUser_recvMsg_onPingSip: user(" + u + ") bus name(bus) user name(" +
                      ptr(who) + "): ModCliNtfyUser\n",
                  "corVane_modSrv_needUpdate_ntfyOnChangeObjectRegistrar: user(" + u +
                      "): ModSrv failed(7)\n"}),
              logTextsWithoutLine());
    // A line longer than the library's 512-byte buffer is cut to 511 characters.
    const std::string bus(600, 'b');
    EXPECT_EQ(6u, corVane_modCliNtfyUser_recvMsg_onPingSip(user, nullptr, nullptr, nullptr, bus.c_str(), who));
    const std::string& cut = logLines().back().text;
    EXPECT_EQ(511u, cut.size());
    EXPECT_EQ(std::string(40, 'b'), cut.substr(471));
}

// A command without a user name is not sent; one without a handler is
// answered with 20; the scalar sends cut texts to their fields (40
// characters arrive as 31, a null text as "").
TEST_F(Messages, SendEdges) {
    ASSERT_EQ(0u, corVane_addBase());
    void* voice = quibStub_newUser("voice");
    void* mgmt = quibStub_newUser("mgmt");
    registrationStatus rs{};
    EXPECT_EQ(0u, corVane_sendReq_setRegistrationStatus(voice, nullptr, nullptr, &rs));
    EXPECT_EQ(0u, quibStub_lastCall(QUIB_STUB_SEND_REQ)->calls);
    EXPECT_EQ(std::vector<std::string>{"corVane_sendReq_setRegistrationStatus: user(" + ptr(voice) + "): UserName Null\n"},
              logTextsWithoutLine());
    ASSERT_EQ(0u, corVane_modSrv_recvMsg_setLineCallState(mgmt, nullptr, nullptr, nullptr));
    lineCallState lcs{1, 2, 3};
    ASSERT_EQ(0u, corVane_sendReq_setLineCallState(voice, nullptr, "mgmt", &lcs));
    size_t n = 0;
    const QuibStubResponse* r = quibStub_responses(&n);
    ASSERT_EQ(1u, n);
    EXPECT_EQ((std::vector<uint32_t>{20, 18, 9, corVane_getCmdIntfNum()}),
              (std::vector<uint32_t>{r[0].status, r[0].prio, r[0].method, r[0].num}));
    const CorVaneHandler keep = [](void*, void* got, void* payload) -> uint32_t {
        std::memcpy(got, payload, sizeof(CorVaneMakeCall));
        return 0;
    };
    CorVaneMakeCall got{};
    ASSERT_EQ(0u, corVane_modCliNtfyUser_recvMsg_onMakeCall(voice, reinterpret_cast<void*>(keep),
                                                            &got, nullptr, "bus", "voice"));
    corVane_sendReq_ntfyOnMakeCall(mgmt, nullptr, nullptr, 7, 8, std::string(40, 'k').c_str(), nullptr, "x");
    const CorVaneMakeCall want{7, 8, "kkkkkkkkkkkkkkkkkkkkkkkkkkkkkkk", "", "x"};
    EXPECT_EQ("", diff(*bindings()[19 + 27].info->payload, &want, &got));
}

using MessagesDeathTest = Messages;

// A body is checked against its own message's magic only.
TEST_F(MessagesDeathTest, WrongMagicAbortsInReceiveSerializeAndFree) {
    const Binding& addLine = bindings()[19 + 4];
    const Binding& addPhy = bindings()[19 + 5];
    const Binding& addRepeater = bindings()[19 + 9];
    uint32_t foreign[16] = {0x20132510u}, freed[16] = {CORVANE_MAGIC_FREED};
    EXPECT_DEATH(corVane_recvReq_setLineCallState(nullptr, foreign, nullptr, nullptr),
                 "corVane_recvReq_setLineCallState\\([0-9]+\\): Check Magic\\[CORVANE_MAGIC_MSGCMD_"
                 "SETLINECALLSTATE-20132509\\] Ctx\\[ptr\\(0x[0-9a-f]+\\) magic\\(20132510\\)\\] text\\[\\]");
    EXPECT_DEATH(addLine.recv(nullptr, makeBody(addPhy, fullPayload(addPhy).data()), nullptr, nullptr),
                 "corVane_recvReq_ntfyOnAddObjectProfileLine\\([0-9]+\\): Check Magic\\[CORVANE_MAGIC_"
                 "MSGNTFY_ONADDOBJECTPROFILELINE-20132504\\].*magic\\(20132503\\)");
    EXPECT_DEATH(bindings()[9].freeBody(0, freed),
                 "corVane_cbEvtMsgMngt_freeBody_msgCmdReq_setLineCallState\\([0-9]+\\): Check Magic.*"
                 "magic\\(DEADBEEF\\)");
    uint8_t* buffer = nullptr;
    uint32_t length = 0;
    EXPECT_DEATH(bindings()[9].serializeBody(0, foreign, &buffer, &length),
                 "corVane_cbEvtMsgMngt_serializeBody_msgCmdReq_setLineCallState\\([0-9]+\\): Check Magic.*"
                 "magic\\(20132510\\)");
    // The repeater body shares the profile line's magic and passes its check.
    int called = 0;
    void* body = makeBody(addRepeater, fullPayload(addRepeater).data());
    addLine.recv(nullptr, body, [](void*, void* arg, void*) -> uint32_t { return ++*static_cast<int*>(arg); },
                 &called);
    EXPECT_EQ(1, called);
    addRepeater.freeBody(0, body);
}

}  // namespace
}  // namespace cvtest
