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
    static uint32_t calls(QuibStubCall c) { return quibStub_lastCall(c)->calls; }
};

// corVane_base as the library is loaded, taken before any test resets it:
// what resetBase puts back must be that state.
const CorVaneBase kLoaded = corVane_base;

TEST(BaseLoaded, StartsWaitingForInitWithNothingAdded) {
    EXPECT_EQ(CORVANE_MAGIC_BASE, kLoaded.magic);
    EXPECT_EQ(CORVANE_STATE_BASE_WAIT_INIT, kLoaded.state);
    EXPECT_EQ(0u, kLoaded.flags);
    EXPECT_EQ(0u, kLoaded.debug);
    EXPECT_EQ(CORVANE_NUM_NONE, kLoaded.cmd.num);
    EXPECT_EQ(CORVANE_NUM_NONE, kLoaded.ntfy.num);
}

TEST_F(Base, AddBaseFillsBothTablesAndRegistersTheEventCallback) {
    ASSERT_EQ(0u, corvane_initialize());
    EXPECT_EQ(CORVANE_STATE_BASE_INIT, corVane_base.state);
    EXPECT_EQ(3u, corVane_base.flags);
    EXPECT_NE(0xffffu, corVane_getCmdIntfNum());
    EXPECT_NE(corVane_getCmdIntfNum(), corVane_getNtfyIntfNum());
    const struct {
        const CorVaneIntfDesc* head;
        const CorVaneMethod* methods;
        CorVaneUnregFn unreg;
        uint16_t count;
    } intfs[] = {{reinterpret_cast<const CorVaneIntfDesc*>(&corVane_base.cmd),
                  corVane_base.cmd.methods, corVane_cbEvtMsgMngt_unreg_msgCmd, 19},
                 {reinterpret_cast<const CorVaneIntfDesc*>(&corVane_base.ntfy),
                  corVane_base.ntfy.methods, corVane_cbEvtMsgMngt_unreg_msgNtfy, 30}};
    for (const auto& in : intfs) {
        uint16_t rows = 0;
        QuibMsgMngtTable* t = quibStub_table(in.head->num, &rows);
        ASSERT_NE(nullptr, t);
        ASSERT_EQ(in.count, rows);
        EXPECT_EQ(in.head->name, t->name);
        EXPECT_EQ(reinterpret_cast<QuibFn>(in.unreg), t->unreg);
        // A row holds the six words of a method from recvRes to logBody, in that order.
        const QuibMsgMngtRow* r = quib_tableRows(t);
        for (uint16_t i = 0; i < in.count; ++i)
            EXPECT_EQ(0, std::memcmp(&in.methods[i].recvRes, &r[i], sizeof r[i])) << i;
    }
    EXPECT_EQ((std::vector<uintptr_t>{reinterpret_cast<uintptr_t>(&corVane_cbEvtBase), w(&corVane_base)}),
              lastArgs(QUIB_STUB_ADD_EVT));
    // The last table asked for is the notification interface's, by name and size.
    EXPECT_EQ(w(corVane_base.ntfy.name), quibStub_lastCall(QUIB_STUB_GET_BASE)->args[0]);
    EXPECT_EQ(30u, quibStub_lastCall(QUIB_STUB_GET_BASE)->args[2]);
    EXPECT_EQ(2u, calls(QUIB_STUB_GET_BASE));
    EXPECT_TRUE(logLines().empty());
}

// What a failing step of start-up leaves behind, and that a second call asks
// the middleware again.
TEST_F(Base, FailedAddBaseKeepsWhatItWonAndCanBeRetried) {
    const struct {
        QuibStubCall call;
        uint32_t code, after;
        uint8_t flags;
        const char* line;
    } cases[] = {
        {QUIB_STUB_GET_BASE, 1, 0, 0, "corVane_addBase: Add command message management failed\n"},
        {QUIB_STUB_GET_BASE, 1, 1, 1, "corVane_addBase: Add notification message management failed\n"},
        {QUIB_STUB_GET_BASE, QUIB_STUB_NUM_WITHOUT_TABLE, 1, 1,
         "corVane_addBase: Add notification message management failed\n"},
        {QUIB_STUB_ADD_EVT, 7, 0, 3, "corVane_addBase: Add event base failed(7)\n"},
    };
    for (const auto& c : cases) {
        resetBase();
        quibStub_setFailure(c.call, c.code, c.after);
        // A table refused is the library's own status; the event base's failure is passed on.
        const uint32_t status = c.call == QUIB_STUB_GET_BASE ? CORVANE_E_NOT_PROCESSED : c.code;
        EXPECT_EQ(status, corvane_initialize());
        EXPECT_EQ(0u, corVane_base.state);
        EXPECT_EQ(c.flags, corVane_base.flags);
        EXPECT_EQ((std::vector<std::string>{
                      c.line, "corvane_initialize: Add Base failed(" + std::to_string(status) + ")\n"}),
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

// Shut-down puts both tables back; a refused put stops it, and both lines
// print the notification interface's number.
TEST_F(Base, DelBasePutsBothTablesBack) {
    const struct {
        uint32_t code, after, state, flags;
        const char* which;
    } cases[] = {{0, 0, 0, 0, nullptr}, {9, 0, 1, 3, "command"}, {9, 1, 1, 2, "notification"}};
    for (const auto& c : cases) {
        resetBase();
        ASSERT_EQ(0u, corVane_addBase());
        const uint16_t ntfy = corVane_getNtfyIntfNum();
        quibStub_setFailure(QUIB_STUB_PUT_BASE, c.code, c.after);
        EXPECT_EQ(c.code, corVane_delBase());
        EXPECT_EQ(c.state, corVane_base.state);
        EXPECT_EQ(c.flags, corVane_base.flags);
        std::vector<std::string> want;
        if (c.which)
            want.push_back(std::string("corVane_delBase: Put ") + c.which + " message management(" +
                           std::to_string(ntfy) + ") failed(9)\n");
        EXPECT_EQ(want, logTextsWithoutLine());
        if (c.code) continue;
        EXPECT_EQ(2u, calls(QUIB_STUB_PUT_BASE));
        EXPECT_EQ((std::vector<uintptr_t>{ntfy, 0}), lastArgs(QUIB_STUB_PUT_BASE));
        EXPECT_EQ(0xffffu, corVane_getCmdIntfNum());
        EXPECT_EQ(0xffffu, corVane_getNtfyIntfNum());
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
                  "corVane_cbEvtMsgMngt_unreg_msgCmd: Unset Flag[CORVANE_FLAGS_BASE_REG_CMD-1] in ctx(" +
                      kBase + ") not set[2] text[]\n"}),
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

// Start-up and shut-down are refused in the wrong state; event 0 from the
// event loop shuts down.
TEST_F(Base, WrongStateIsRefusedAndEventZeroDeletesTheBase) {
    ASSERT_EQ(0u, corVane_addBase());
    EXPECT_EQ(3u, corVane_addBase());
    ASSERT_EQ(0, ranqStub_deliver(5));
    EXPECT_EQ(1u, corVane_base.state);
    ASSERT_EQ(0, ranqStub_deliver(0));
    EXPECT_EQ(0u, corVane_base.state);
    EXPECT_EQ(3u, corVane_delBase());
    corVane_cbEvtBase(&corVane_base, 0);  // not set up any more
    const std::string delBase =
        "corVane_delBase: Check State[CORVANE_STATE_BASE_INIT-1] Ctx[ptr(" + kBase + ") state(0)] text[]\n";
    EXPECT_EQ((std::vector<std::string>{
                  "corVane_addBase: Check State[CORVANE_STATE_BASE_WAIT_INIT-0] Ctx[ptr(" + kBase + ") state(1)] text[]\n",
                  "corVane_cbEvtBase: Unknown event(5)\n", delBase, delBase, "corVane_cbEvtBase: Delete Base\n"}),
              logTextsWithoutLine());
    EXPECT_EQ(3, logLines()[0].priority);
    EXPECT_EQ(3, logLines()[2].priority);
}

TEST_F(Base, RegUserFollowsTheSelector) {
    int a = 0, r = 0;
    EXPECT_EQ(0u, corVane_regUser_msgMngt(quibStub_newUser("voice"), &a, &r, 0));  // nothing set up: skipped
    EXPECT_EQ(0u, calls(QUIB_STUB_REG_USER));
    ASSERT_EQ(0u, corVane_addBase());
    const uint16_t cmd = corVane_getCmdIntfNum(), ntfy = corVane_getNtfyIntfNum();
    const struct {
        uint32_t selector;
        bool cmd, ntfy;
    } cases[] = {{0, true, true}, {1, true, false}, {2, false, true}, {3, false, false}, {9, false, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.selector);
        void* u = quibStub_newUser("u");
        const uint32_t before = calls(QUIB_STUB_REG_USER);
        EXPECT_EQ(0u, corVane_regUser_msgMngt(u, &a, &r, c.selector));
        EXPECT_EQ(c.cmd, quibStub_isRegistered(u, cmd) != 0);
        EXPECT_EQ(c.ntfy, quibStub_isRegistered(u, ntfy) != 0);
        EXPECT_EQ(before + c.cmd + c.ntfy, calls(QUIB_STUB_REG_USER));
        if (c.cmd || c.ntfy) {
            EXPECT_EQ((std::vector<uintptr_t>{w(u), w(&a), w(&r), c.ntfy ? ntfy : cmd, 0xffff, 0}),
                      lastArgs(QUIB_STUB_REG_USER));
        }
        EXPECT_EQ(0u, corVane_unregUser_msgMngt(u, c.selector));
        EXPECT_FALSE(quibStub_isRegistered(u, cmd) || quibStub_isRegistered(u, ntfy));
        if (c.cmd || c.ntfy) {
            EXPECT_EQ((std::vector<uintptr_t>{w(u), c.ntfy ? ntfy : cmd, 0xffff, 0}), lastArgs(QUIB_STUB_UNREG_USER));
        }
    }
    EXPECT_TRUE(logLines().empty());
}

// The registration failure always prints the command interface's number;
// the unregistration failure prints the failing interface's.
TEST_F(Base, RegistrationFailuresStopAndLog) {
    ASSERT_EQ(0u, corVane_addBase());
    void* u = quibStub_newUser("u");
    int r = 0;
    quibStub_setFailure(QUIB_STUB_REG_USER, 6, 0);
    EXPECT_EQ(6u, corVane_regUser_msgMngt(u, nullptr, &r, 0));
    EXPECT_EQ(1u, calls(QUIB_STUB_REG_USER));  // the notification interface is not tried
    quibStub_setFailure(QUIB_STUB_REG_USER, 6, 1);
    EXPECT_EQ(6u, corVane_regUser_msgMngt(u, nullptr, &r, 0));
    quibStub_setFailure(QUIB_STUB_UNREG_USER, 8, 1);
    EXPECT_EQ(8u, corVane_unregUser_msgMngt(u, 0));
    const std::string user = "user(" + ptr(u) + "): ";
    const std::string reg = "corVane_regUser_msgMngt: " + user +
                            "regUser message management failed(6) -> num(" +
                            std::to_string(corVane_getCmdIntfNum()) + ") ref(" + ptr(&r) + ")\n";
    EXPECT_EQ((std::vector<std::string>{reg, reg,
                                        "corVane_unregUser_msgMngt: " + user +
                                            "unregUser message management failed(8) -> num(" +
                                            std::to_string(corVane_getNtfyIntfNum()) + ")\n"}),
              logTextsWithoutLine());
}

TEST_F(Base, LookupAndDebugWord) {
    int a = 0, b = 0, d = 0;
    EXPECT_EQ(&a, corVane_findSrvMthdNtfyUser(&a, &b, 17, &d));
    EXPECT_EQ((std::vector<uintptr_t>{w(&a), w(&b), w(corVane_base.name), 17, w(&d)}), lastArgs(QUIB_STUB_FIND));
    corVane_modDebug(0xabcdu);
    EXPECT_EQ(0xabcdu, corVane_base.debug);
}

using BaseDeathTest = Base;

TEST_F(BaseDeathTest, WrongBaseMagicAborts) {
    corVane_base.magic = 0x1234u;
    EXPECT_DEATH(corVane_addBase(),
                 "corVane_addBase\\([0-9]+\\): Magic\\[CORVANE_MAGIC_BASE-1300713\\] "
                 "Ctx\\[ptr\\(0x[0-9a-f]+\\) magic\\(1234\\)\\] text\\[\\]");
}

}  // namespace
}  // namespace cvtest
