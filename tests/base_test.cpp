// The descriptor object, start-up, shut-down and user registration, driven
// through the stand-in platform.
#include <gtest/gtest.h>

#include <cstring>

#include "corvane/messages.h"
#include "support/base_reset.h"
#include "support/wire_edit.h"

namespace cvtest {
namespace {

const std::string kBase = ptr(&corVane_base);

class Base : public testing::Test {
protected:
    void SetUp() override { resetBase(); }
    void TearDown() override { resetBase(); }
    static uintptr_t arg(QuibStubCall c, int i) { return quibStub_lastCall(c)->args[i]; }
    static uint32_t calls(QuibStubCall c) { return quibStub_lastCall(c)->calls; }
};

TEST_F(Base, IsStaticallyInitialisedAsTheMiddlewareReadsIt) {
    EXPECT_EQ(0x1300713u, corVane_base.magic);
    EXPECT_STREQ("CorVane", corVane_base.name);
    const struct {
        const CorVaneIntfDesc* head;
        const CorVaneMethod* methods;
        uint32_t magic, intf;
        const char* name;
        CorVaneUnregFn unreg;
        uint16_t count;
    } intfs[] = {
        {reinterpret_cast<const CorVaneIntfDesc*>(&corVane_base.cmd), corVane_base.cmd.methods,
         0x1300714u, CORVANE_INTF_CMD, "CorVaneCmd", corVane_cbEvtMsgMngt_unreg_msgCmd, 19},
        {reinterpret_cast<const CorVaneIntfDesc*>(&corVane_base.ntfy), corVane_base.ntfy.methods,
         0x1300715u, CORVANE_INTF_NTFY, "CorVaneNtfy", corVane_cbEvtMsgMngt_unreg_msgNtfy, 30},
    };
    for (const auto& in : intfs) {
        EXPECT_EQ(in.magic, in.head->magic);
        EXPECT_STREQ(in.name, in.head->name);
        EXPECT_EQ(in.unreg, in.head->unreg);
        EXPECT_EQ(0xffffu, in.head->num);
        EXPECT_EQ(in.count, in.head->count);
        EXPECT_EQ(in.methods, corVane_intfMethods(in.head));
        for (uint16_t i = 0; i < in.count; ++i) {
            const CorVaneMethod& m = in.methods[i];
            EXPECT_EQ(i, m.index);
            EXPECT_EQ(nullptr, m.recvRes);
            EXPECT_STREQ(corVane_messageInfo(in.intf, i)->name, m.name);
            EXPECT_TRUE(m.recv && m.freeBody && m.serializeBody && m.unserializeBody && m.logBody);
        }
    }
    EXPECT_EQ(0u, corVane_base.debug);
    EXPECT_EQ(0u, corVane_base.state);
    EXPECT_EQ(0u, corVane_base.flags);
}

TEST_F(Base, AddBaseFillsBothTablesAndRegistersTheEventCallback) {
    ASSERT_EQ(0u, corvane_initialize());
    EXPECT_EQ(CORVANE_STATE_BASE_INIT, corVane_base.state);
    EXPECT_EQ(3u, corVane_base.flags);
    EXPECT_NE(0xffffu, corVane_getCmdIntfNum());
    EXPECT_NE(0xffffu, corVane_getNtfyIntfNum());
    EXPECT_NE(corVane_getCmdIntfNum(), corVane_getNtfyIntfNum());
    const struct {
        uint16_t num;
        const char* name;
        CorVaneUnregFn unreg;
        const CorVaneMethod* methods;
        uint16_t count;
    } intfs[] = {{corVane_getCmdIntfNum(), corVane_base.cmd.name, corVane_cbEvtMsgMngt_unreg_msgCmd,
                  corVane_base.cmd.methods, 19},
                 {corVane_getNtfyIntfNum(), corVane_base.ntfy.name,
                  corVane_cbEvtMsgMngt_unreg_msgNtfy, corVane_base.ntfy.methods, 30}};
    for (const auto& in : intfs) {
        uint16_t rows = 0;
        QuibMsgMngtTable* t = quibStub_table(in.num, &rows);
        ASSERT_NE(nullptr, t);
        ASSERT_EQ(in.count, rows);
        EXPECT_EQ(in.name, t->name);
        EXPECT_EQ(reinterpret_cast<QuibFn>(in.unreg), t->unreg);
        const QuibMsgMngtRow* r = quib_tableRows(t);
        for (uint16_t i = 0; i < in.count; ++i) {
            EXPECT_EQ(nullptr, r[i].recvRes);
            EXPECT_EQ(in.methods[i].name, r[i].name);
            EXPECT_EQ(reinterpret_cast<QuibFn>(in.methods[i].freeBody), r[i].freeBody);
            EXPECT_EQ(reinterpret_cast<QuibFn>(in.methods[i].serializeBody), r[i].serializeBody);
            EXPECT_EQ(reinterpret_cast<QuibFn>(in.methods[i].unserializeBody), r[i].unserializeBody);
            EXPECT_EQ(reinterpret_cast<QuibFn>(in.methods[i].logBody), r[i].logBody);
        }
    }
    EXPECT_EQ(reinterpret_cast<uintptr_t>(&corVane_cbEvtBase), arg(QUIB_STUB_ADD_EVT, 0));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(&corVane_base), arg(QUIB_STUB_ADD_EVT, 1));
    // The last table asked for is the notification interface's, by name and size.
    EXPECT_EQ(reinterpret_cast<uintptr_t>(corVane_base.ntfy.name), arg(QUIB_STUB_GET_BASE, 0));
    EXPECT_EQ(30u, arg(QUIB_STUB_GET_BASE, 2));
    EXPECT_EQ(2u, calls(QUIB_STUB_GET_BASE));
    EXPECT_TRUE(logLines().empty());
}

TEST_F(Base, WrongStateIsRefusedWithItsLine) {
    EXPECT_EQ(3u, corVane_delBase());
    ASSERT_EQ(0u, corVane_addBase());
    EXPECT_EQ(3u, corVane_addBase());
    EXPECT_EQ((std::vector<std::string>{
                  "corVane_delBase: Check State[CORVANE_STATE_BASE_INIT-1] Ctx[ptr(" + kBase +
                      ") state(0)] text[]\n",
                  "corVane_addBase: Check State[CORVANE_STATE_BASE_WAIT_INIT-0] Ctx[ptr(" + kBase +
                      ") state(1)] text[]\n"}),
              logTextsWithoutLine());
    for (const auto& l : logLines()) EXPECT_EQ(3, l.priority);
}

// What a failing step of corVane_addBase leaves behind, and that a second
// call asks the middleware again.
TEST_F(Base, FailedAddBaseKeepsWhatItWonAndCanBeRetried) {
    struct Case {
        QuibStubCall call;
        uint32_t code, after, result;
        uint8_t flags;
        const char* line;
    } cases[] = {
        {QUIB_STUB_GET_BASE, 1, 0, 1, 0, "corVane_addBase: Add command message management failed\n"},
        {QUIB_STUB_GET_BASE, 1, 1, 1, 1,
         "corVane_addBase: Add notification message management failed\n"},
        {QUIB_STUB_ADD_EVT, 7, 0, 7, 3, "corVane_addBase: Add event base failed(7)\n"},
    };
    for (const Case& c : cases) {
        resetBase();
        quibStub_setFailure(c.call, c.code, c.after);
        EXPECT_EQ(c.result, corvane_initialize());
        EXPECT_EQ(0u, corVane_base.state);
        EXPECT_EQ(c.flags, corVane_base.flags);
        EXPECT_EQ((std::vector<std::string>{
                      c.line, "corvane_initialize: Add Base failed(" + std::to_string(c.result) + ")\n"}),
                  logTextsWithoutLine());
        quibStub_setFailure(c.call, 0, 0);
        const uint32_t asked = calls(QUIB_STUB_GET_BASE);
        clearLog();
        EXPECT_EQ(0u, corVane_addBase());
        EXPECT_EQ(asked + 2, calls(QUIB_STUB_GET_BASE));
        EXPECT_EQ(3u, corVane_base.flags);
        EXPECT_TRUE(logLines().empty());
    }
}

TEST_F(Base, DelBasePutsBothTablesBack) {
    ASSERT_EQ(0u, corVane_addBase());
    const uint16_t ntfy = corVane_getNtfyIntfNum();
    EXPECT_EQ(0u, corVane_delBase());
    EXPECT_EQ(2u, calls(QUIB_STUB_PUT_BASE));
    EXPECT_EQ(ntfy, arg(QUIB_STUB_PUT_BASE, 0));
    EXPECT_EQ(0xffffu, corVane_getCmdIntfNum());
    EXPECT_EQ(0xffffu, corVane_getNtfyIntfNum());
    EXPECT_EQ(0u, corVane_base.flags);
    EXPECT_EQ(0u, corVane_base.state);
    EXPECT_TRUE(logLines().empty());
}

// A refused put stops shut-down; both lines print the notification number.
TEST_F(Base, RefusedPutStopsDelBase) {
    for (uint32_t after : {0u, 1u}) {
        resetBase();
        ASSERT_EQ(0u, corVane_addBase());
        const std::string ntfy = std::to_string(corVane_getNtfyIntfNum());
        quibStub_setFailure(QUIB_STUB_PUT_BASE, 9, after);
        EXPECT_EQ(9u, corVane_delBase());
        EXPECT_EQ(1u, corVane_base.state);
        EXPECT_EQ(after ? 2u : 3u, corVane_base.flags);
        EXPECT_EQ((std::vector<std::string>{std::string("corVane_delBase: Put ") +
                                            (after ? "notification" : "command") +
                                            " message management(" + ntfy + ") failed(9)\n"}),
                  logTextsWithoutLine());
    }
}

TEST_F(Base, UnregisterCallbacksClearTheirFlagOnly) {
    ASSERT_EQ(0u, corVane_addBase());
    const uint16_t cmd = corVane_getCmdIntfNum();
    corVane_cbEvtMsgMngt_unreg_msgNtfy(77);
    EXPECT_EQ(3u, corVane_base.flags);
    ASSERT_EQ(0u, quibStub_dropTable(cmd));  // the middleware drops the command table
    EXPECT_EQ(2u, corVane_base.flags);
    EXPECT_EQ(cmd, corVane_getCmdIntfNum());
    corVane_cbEvtMsgMngt_unreg_msgCmd(cmd);
    EXPECT_EQ((std::vector<std::string>{
                  "corVane_cbEvtMsgMngt_unreg_msgNtfy: Message management(77) unknown\n",
                  "corVane_cbEvtMsgMngt_unreg_msgCmd: Unset Flag[CORVANE_FLAGS_BASE_REG_CMD-1] in "
                  "ctx(" + kBase + ") not set[2] text[]\n"}),
              logTextsWithoutLine());
    EXPECT_EQ(3, logLines()[0].priority);
    EXPECT_EQ(4, logLines()[1].priority);
    // Shut-down then skips the command table but still ends in WAIT_INIT.
    clearLog();
    EXPECT_EQ(0u, corVane_delBase());
    EXPECT_EQ(1u, calls(QUIB_STUB_PUT_BASE));
    EXPECT_EQ(0u, corVane_base.state);
    EXPECT_EQ(cmd, corVane_getCmdIntfNum());
}

TEST_F(Base, EventZeroFromTheEventLoopDeletesTheBase) {
    ASSERT_EQ(0u, corVane_addBase());
    ASSERT_EQ(0, ranqStub_deliver(5));
    EXPECT_EQ(1u, corVane_base.state);
    ASSERT_EQ(0, ranqStub_deliver(0));
    EXPECT_EQ(0u, corVane_base.state);
    corVane_cbEvtBase(&corVane_base, 0);  // not set up any more
    EXPECT_EQ((std::vector<std::string>{
                  "corVane_cbEvtBase: Unknown event(5)\n",
                  "corVane_delBase: Check State[CORVANE_STATE_BASE_INIT-1] Ctx[ptr(" + kBase +
                      ") state(0)] text[]\n",
                  "corVane_cbEvtBase: Delete Base\n"}),
              logTextsWithoutLine());
}

TEST_F(Base, RegUserFollowsTheSelector) {
    void* user = quibStub_newUser("voice");
    int a = 0, r = 0;
    EXPECT_EQ(0u, corVane_regUser_msgMngt(user, &a, &r, 0));  // nothing set up: skipped
    EXPECT_EQ(0u, calls(QUIB_STUB_REG_USER));
    ASSERT_EQ(0u, corVane_addBase());
    const uint16_t cmd = corVane_getCmdIntfNum(), ntfy = corVane_getNtfyIntfNum();
    const struct {
        uint32_t selector;
        bool cmd, ntfy;
    } cases[] = {{0, true, true}, {1, true, false}, {2, false, true}, {3, false, false}, {9, false, false}};
    for (const auto& c : cases) {
        void* u = quibStub_newUser("u");
        const uint32_t before = calls(QUIB_STUB_REG_USER);
        EXPECT_EQ(0u, corVane_regUser_msgMngt(u, &a, &r, c.selector));
        EXPECT_EQ(c.cmd, quibStub_isRegistered(u, cmd) != 0) << c.selector;
        EXPECT_EQ(c.ntfy, quibStub_isRegistered(u, ntfy) != 0) << c.selector;
        EXPECT_EQ(before + c.cmd + c.ntfy, calls(QUIB_STUB_REG_USER));
        if (c.cmd || c.ntfy) {
            const auto* rec = quibStub_lastCall(QUIB_STUB_REG_USER);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(u), rec->args[0]);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(&a), rec->args[1]);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(&r), rec->args[2]);
            EXPECT_EQ(0xffffu, rec->args[4]);
            EXPECT_EQ(0u, rec->args[5]);
        }
        EXPECT_EQ(0u, corVane_unregUser_msgMngt(u, c.selector));
        EXPECT_FALSE(quibStub_isRegistered(u, cmd) || quibStub_isRegistered(u, ntfy));
    }
    EXPECT_TRUE(logLines().empty());
}

// The registration failure always prints the command interface's number;
// the unregistration failure prints the failing interface's.
TEST_F(Base, RegistrationFailuresStopAndLog) {
    ASSERT_EQ(0u, corVane_addBase());
    void* u = quibStub_newUser("u");
    int r = 0;
    const std::string cmd = std::to_string(corVane_getCmdIntfNum());
    const std::string ntfy = std::to_string(corVane_getNtfyIntfNum());
    const std::string up = ptr(u), rp = ptr(&r);
    quibStub_setFailure(QUIB_STUB_REG_USER, 6, 0);
    EXPECT_EQ(6u, corVane_regUser_msgMngt(u, nullptr, &r, 0));
    EXPECT_EQ(1u, calls(QUIB_STUB_REG_USER));  // the notification interface is not tried
    quibStub_setFailure(QUIB_STUB_REG_USER, 6, 1);
    EXPECT_EQ(6u, corVane_regUser_msgMngt(u, nullptr, &r, 0));
    quibStub_setFailure(QUIB_STUB_UNREG_USER, 8, 1);
    EXPECT_EQ(8u, corVane_unregUser_msgMngt(u, 0));
    const std::string reg = "corVane_regUser_msgMngt: user(" + up +
                            "): regUser message management failed(6) -> num(" + cmd + ") ref(" + rp + ")\n";
    EXPECT_EQ((std::vector<std::string>{
                  reg, reg,
                  "corVane_unregUser_msgMngt: user(" + up +
                      "): unregUser message management failed(8) -> num(" + ntfy + ")\n"}),
              logTextsWithoutLine());
}

TEST_F(Base, LookupAndDebugWord) {
    int a = 0, b = 0, d = 0;
    EXPECT_EQ(&a, corVane_findSrvMthdNtfyUser(&a, &b, 17, &d));
    const auto* rec = quibStub_lastCall(QUIB_STUB_FIND);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(&b), rec->args[1]);
    EXPECT_STREQ("CorVane", reinterpret_cast<const char*>(rec->args[2]));
    EXPECT_EQ(17u, rec->args[3]);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(&d), rec->args[4]);
    corVane_modDebug(0xabcdu);
    EXPECT_EQ(0xabcdu, corVane_base.debug);
}

using BaseDeathTest = Base;

TEST_F(BaseDeathTest, WrongBaseMagicAborts) {
    EXPECT_DEATH(
        {
            corVane_base.magic = 0x1234u;
            corVane_addBase();
        },
        "corVane_addBase\\([0-9]+\\): Magic\\[CORVANE_MAGIC_BASE-1300713\\] Ctx\\[ptr\\(0x[0-9a-f]+\\) "
        "magic\\(1234\\)\\] text\\[\\]");
}

}  // namespace
}  // namespace cvtest
