// Tests of the stand-in platform on its own: a fake interface descriptor and
// fake body callbacks that log what the bus does with them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "corvane/base.h"
#include "quib_stub.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

namespace {

using Log = std::vector<std::string>;
using Words = std::vector<uint64_t>;  // wide enough for pointers and counters on every host
constexpr uint16_t kMethods = 3;

struct FakeDesc {
    CORVANE_INTF_DESC_HEAD
    CorVaneMethod methods[kMethods];
};
static_assert(offsetof(FakeDesc, methods) == CORVANE_INTF_METHODS_OFFSET);

struct Probe {
    Log log;
    uint32_t serializeStatus = 0, unserializeStatus = 0;
    bool respond = false;
} P;

uint32_t valueOf(const void *p) { uint32_t v; std::memcpy(&v, p, 4); return v; }
void *newBody(uint32_t v) { void *b = std::malloc(4); std::memcpy(b, &v, 4); return b; }
void note(const char *what, uint32_t a, uint32_t b) {
    P.log.push_back(std::string(what) + " " + std::to_string(a) + ":" + std::to_string(b));
}
void *fn(auto f) { return reinterpret_cast<void *>(f); }

void fakeFree(uint32_t kind, void *body) { note("free", kind, valueOf(body)); std::free(body); }
void altFree(uint32_t kind, void *body) { note("alt", kind, valueOf(body)); std::free(body); }
// Serialised form: the 4-byte value and a marker byte.
uint32_t fakeSerialize(uint32_t kind, void *body, uint8_t **buf, uint32_t *len) {
    note("ser", kind, valueOf(body));
    if (P.serializeStatus != 0) return P.serializeStatus;
    *buf = static_cast<uint8_t *>(std::malloc(5));
    std::memcpy(*buf, body, 4);
    (*buf)[4] = 0xa5;
    *len = 5;
    return 0;
}
uint32_t fakeUnserialize(uint32_t kind, const uint8_t *buf, void **body, uint32_t *size) {
    note("unser", kind, *size);
#if defined(__SANITIZE_ADDRESS__)
    EXPECT_TRUE(__asan_address_is_poisoned(buf + *size)) << "copy larger than the bytes";
#endif
    if (P.unserializeStatus != 0) return P.unserializeStatus;
    EXPECT_EQ(buf[4], 0xa5);
    *body = newBody(valueOf(buf) + 100);
    return 0;
}
template <uint32_t M>
void fakeRecv(void *ctx, void *body, CorVaneHandler h, void *arg) {
    note("recv", M, valueOf(body));
    h(ctx, arg, body);
}
uint32_t fakeHandler(void *ctx, void *arg, void *payload) {
    P.log.push_back(std::string("handler ") + static_cast<const char *>(arg) + ":" +
                    std::to_string(valueOf(payload)));
    if (P.respond) quibCore_sendMsgRes(ctx, nullptr, 20, 18);
    return 0;
}
void fakeUnreg(uint16_t num) { note("unreg", num, 0); }
void fakeEvt(void *ctx, int32_t event) { note("evt", valueOf(ctx), event); }

class Bus : public ::testing::Test {
protected:
    FakeDesc desc{};
    QuibMsgMngtTable *table = nullptr;
    uint16_t num = 0;
    void *sender = nullptr;

    void SetUp() override {
        quibStub_reset();
        P = Probe{};
        num = quibCore_getBase_msgMngt("Fake", &table, kMethods);
        ASSERT_EQ(num, 1u);
        table->unreg = reinterpret_cast<QuibFn>(&fakeUnreg);
        desc.num = num;
        desc.count = kMethods;
        const CorVaneRecvFn recvs[kMethods] = {fakeRecv<0>, fakeRecv<1>, fakeRecv<2>};
        for (uint16_t m = 0; m < kMethods; m++) {
            desc.methods[m].recv = recvs[m];
            QuibMsgMngtRow &row = quib_tableRows(table)[m];
            row.freeBody = reinterpret_cast<QuibFn>(&fakeFree);
            row.serializeBody = reinterpret_cast<QuibFn>(&fakeSerialize);
            row.unserializeBody = reinterpret_cast<QuibFn>(&fakeUnserialize);
        }
        sender = quibStub_newUser("voice");
    }
    void TearDown() override {
        QuibStubStats s = stats();
        EXPECT_EQ(s.bodiesTaken, s.bodiesReleased) << "a body was not released";
        EXPECT_EQ(s.buffersTaken, s.buffersFreed) << "a buffer was not freed";
        quibStub_reset();
    }
    uint32_t serve(void *user, const char *arg, uint16_t m) {
        return quibIntf_modSrv_mthd(user, fn(&fakeHandler), const_cast<char *>(arg), nullptr, 0,
                                    "Fake", &desc, nullptr, m, 0xffff, 0xffff);
    }
    uint32_t subscribe(void *user, const char *arg, uint16_t m) {
        return quibIntf_modCliNtfyUser_mthd(user, fn(&fakeHandler), const_cast<char *>(arg),
                                            nullptr, 0, "bus", "u", "Fake", nullptr, &desc, m);
    }
    uint32_t send(const char *to, uint16_t m, uint32_t v, uint16_t n = 0) {
        return quibCore_sendMsgReq_toNameUser(sender, newBody(v), 0, 0, 0, nullptr, to,
                                              n ? n : num, m, 0xffff, 18);
    }
    uint32_t notify(uint16_t m, uint32_t v) {
        return quibIntf_sendReq_ntfy(sender, newBody(v), 0, 0, 0, nullptr, nullptr, "Fake", num,
                                     m, 0, 0, 18);
    }
    static QuibStubStats stats() { QuibStubStats s; quibStub_stats(&s); return s; }
};

TEST_F(Bus, TablesAreNumberedZeroedSizedAndFreedByPut) {
    QuibMsgMngtTable *t2 = nullptr, *t3 = nullptr, *t4 = nullptr;
    EXPECT_EQ(quibCore_getBase_msgMngt("B", &t2, 19), 2u);
    EXPECT_EQ(quibCore_getBase_msgMngt("C", &t3, 0), 3u);
    uint16_t count = 0;
    EXPECT_EQ(quibStub_table(2, &count), t2);
    EXPECT_EQ(count, 19u);
    const auto *w = reinterpret_cast<const uintptr_t *>(t2);
    EXPECT_EQ(Words(w, w + 3 + 6 * 19), Words(3 + 6 * 19, 0));
    std::memset(t2, 0xff, (3 + 6 * 19) * sizeof(uintptr_t));  // all of it is ours (ASan)
    EXPECT_EQ(quibCore_putBase_msgMngt(2, 0), 0u);
    EXPECT_EQ(quibStub_table(2, &count), nullptr);
    EXPECT_EQ(quibCore_putBase_msgMngt(2, 0), QUIB_STUB_E_NO_TABLE);
    quibStub_setFailure(QUIB_STUB_GET_BASE, 7, 1);
    EXPECT_EQ(quibCore_getBase_msgMngt("D", &t4, 1), 4u);  // numbers are not reused
    EXPECT_EQ(quibCore_getBase_msgMngt("E", &t4, 1), QUIB_NUM_NONE);
    EXPECT_EQ(t4, nullptr);
    EXPECT_EQ(quibStub_lastCall(QUIB_STUB_GET_BASE)->calls, 5u);
}

TEST_F(Bus, CommandGoesThroughTheRowToTheNamedServerInOrder) {
    void *mgmt = quibStub_newUser("mgmt");
    ASSERT_EQ(serve(quibStub_newUser("other"), "other", 1), 0u);
    ASSERT_EQ(serve(mgmt, "wrong-method", 2), 0u);
    ASSERT_EQ(serve(mgmt, "mgmt", 1), 0u);
    EXPECT_EQ(send("mgmt", 1, 7), 0u);
    EXPECT_EQ(P.log, (Log{"ser 0:7", "free 0:7", "unser 0:5", "recv 1:107", "handler mgmt:107",
                          "free 0:107"}));
    QuibStubStats s = stats();
    EXPECT_EQ(Words({s.requestsSent, s.deliveries, s.buffersTaken, s.bodiesTaken, s.failures}),
              Words({1, 1, 2, 2, 0}));

    // The bus uses the row as the caller left it and the receive function the
    // descriptor holds at delivery; registering again replaces the handler.
    P.log.clear();
    quib_tableRows(table)[1].freeBody = reinterpret_cast<QuibFn>(&altFree);
    ASSERT_EQ(serve(mgmt, "again", 1), 0u);
    desc.methods[1].recv = fakeRecv<2>;
    EXPECT_EQ(send("mgmt", 1, 8), 0u);
    EXPECT_EQ(P.log, (Log{"ser 0:8", "alt 0:8", "unser 0:5", "recv 2:108", "handler again:108",
                          "alt 0:108"}));
}

TEST_F(Bus, NotificationFansOutToEverySubscriberInRegistrationOrder) {
    void *a = quibStub_newUser("a"), *b = quibStub_newUser("b"), *c = quibStub_newUser("c");
    using Sub = std::tuple<void *, const char *, uint16_t>;
    for (auto [user, arg, m] : {Sub{b, "b", 2}, Sub{a, "a", 2}, Sub{c, "c0", 0}, Sub{c, "c", 2}})
        ASSERT_EQ(subscribe(user, arg, m), 0u);
    EXPECT_EQ(notify(2, 9), 0u);
    Log want{"ser 0:9", "free 0:9"};
    for (std::string who : {"b", "a", "c"})
        want.insert(want.end(), {"unser 0:5", "recv 2:109", "handler " + who + ":109",
                                 "free 0:109"});
    EXPECT_EQ(P.log, want);
    QuibStubStats s = stats();
    EXPECT_EQ(Words({s.notificationsSent, s.deliveries, s.buffersTaken}), Words({1, 3, 4}));
    P.log.clear();
    EXPECT_EQ(notify(1, 5), 0u);  // nobody subscribed
    EXPECT_EQ(P.log, (Log{"ser 0:5", "free 0:5"}));
}

TEST_F(Bus, FailedSendsStillReleaseTheBody) {
    struct Case {
        const char *what, *to;
        uint16_t method, tableNum;
        uint32_t ser, unser, inject, rc;
        Log log;
    } cases[] = {
        {"no server", "nobody", 1, 0, 0, 0, 0, QUIB_STUB_E_NO_SERVER, {"ser 0:7", "free 0:7"}},
        {"no table", "mgmt", 1, 9, 0, 0, 0, QUIB_STUB_E_NO_TABLE, {}},
        {"method beyond table", "mgmt", 5, 0, 0, 0, 0, QUIB_STUB_E_NO_TABLE, {}},
        {"serialize fails", "mgmt", 1, 0, 9, 0, 0, QUIB_STUB_E_SERIALIZE, {"ser 0:7", "free 0:7"}},
        {"unserialize fails", "mgmt", 1, 0, 0, 4, 0, 4, {"ser 0:7", "free 0:7", "unser 0:5"}},
        {"injected", "mgmt", 1, 0, 0, 0, 0x77, 0x77, {"free 0:7"}},
    };
    ASSERT_EQ(serve(quibStub_newUser("mgmt"), "mgmt", 1), 0u);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        P.log.clear();
        P.serializeStatus = c.ser;
        P.unserializeStatus = c.unser;
        quibStub_setFailure(QUIB_STUB_SEND_REQ, c.inject, 0);
        QuibStubStats before = stats();
        EXPECT_EQ(send(c.to, c.method, 7, c.tableNum), c.rc);
        EXPECT_EQ(P.log, c.log);
        QuibStubStats after = stats();
        EXPECT_EQ(after.bodiesReleased - before.bodiesReleased, 1u);
        EXPECT_EQ(after.failures - before.failures, (c.ser || c.unser) ? 1u : 0u);
        EXPECT_EQ(after.deliveries, 0u);
    }
    quibStub_setFailure(QUIB_STUB_SEND_NTFY, 0x78, 0);
    P.log.clear();
    EXPECT_EQ(notify(1, 3), 0x78u);
    EXPECT_EQ(P.log, (Log{"free 0:3"}));
}

TEST_F(Bus, FailureInjectionSucceedsAfterTimesThenFailsUntilCleared) {
    void *u = quibStub_newUser("mgmt");
    ASSERT_EQ(serve(u, "mgmt", 0), 0u);
    QuibMsgMngtTable *t = nullptr;
    struct Case { QuibStubCall call; std::function<uint32_t()> run; } cases[] = {
        {QUIB_STUB_PUT_BASE,
         [&] { return quibCore_putBase_msgMngt(quibCore_getBase_msgMngt("x", &t, 1), 0); }},
        {QUIB_STUB_REG_USER,
         [&] { return quibIntf_regUser_msgMngt(u, nullptr, nullptr, 1, 0, 0); }},
        {QUIB_STUB_UNREG_USER, [&] { return quibIntf_unregUser_msgMngt(u, 1, 0, 0); }},
        {QUIB_STUB_SEND_REQ, [&] { return send("mgmt", 0, 1); }},
        {QUIB_STUB_SEND_NTFY, [&] { return notify(0, 1); }},
        {QUIB_STUB_SEND_RES, [&] { return quibCore_sendMsgRes(nullptr, nullptr, 20, 18); }},
        {QUIB_STUB_MOD_SRV, [&] { return serve(u, "mgmt", 0); }},
        {QUIB_STUB_MOD_CLI, [&] { return subscribe(u, "s", 0); }},
        {QUIB_STUB_NEED_UPDATE, [&] {
             return quibIntf_modSrv_ntfy_needUpdate(u, nullptr, nullptr, nullptr, "Fake", nullptr,
                                                    &desc, 0); }},
        {QUIB_STUB_ADD_EVT, [&] { return ranq_addEvtBase(&fakeEvt, nullptr); }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.call);
        quibStub_setFailure(c.call, 0x66, 2);
        EXPECT_EQ((Words{c.run(), c.run(), c.run(), c.run()}), (Words{0, 0, 0x66, 0x66}));
        quibStub_setFailure(c.call, 0, 0);
        EXPECT_EQ(c.run(), 0u);
        EXPECT_EQ(quibStub_lastCall(c.call)->calls, c.call == QUIB_STUB_MOD_SRV ? 6u : 5u);
    }
    size_t n = 0;
    quibStub_responses(&n);
    EXPECT_EQ(n, 3u);  // failed responses are not recorded
    quibStub_setFailure(QUIB_STUB_GET_CORE_USER, 5, 0);
    EXPECT_EQ(quibIntf_getCore_user(u), u);
}

TEST_F(Bus, EveryCallRecordsItsArguments) {
    int x = 0;
    void *p = &x, *q = &P, *u = quibStub_newUser("mgmt"), *body = nullptr;
    const char *name = "Fake";
    auto w = [](const void *v) { return reinterpret_cast<uintptr_t>(v); };
    struct Case { QuibStubCall call; std::function<void()> run; std::function<Words()> want; };
    const Case cases[] = {
        {QUIB_STUB_FIND, [&] { EXPECT_EQ(quibIntf_findSrvMthdNtfyUser(p, q, name, 4, u), p); },
         [&] { return Words{w(p), w(q), w(name), 4, w(u)}; }},
        {QUIB_STUB_UNREG_USER, [&] { quibIntf_unregUser_msgMngt(u, 3, 0xffff, 9); },
         [&] { return Words{w(u), 3, 0xffff, 9}; }},
        {QUIB_STUB_SEND_REQ, [&] {
             body = newBody(1);
             quibCore_sendMsgReq_toNameUser(u, body, 1, 2, 3, p, name, num, 2, 0xffff, 18); },
         [&] { return Words{w(u), w(body), 1, 2, 3, w(p), w(name), num, 2, 0xffff, 18}; }},
        {QUIB_STUB_SEND_NTFY, [&] {
             body = newBody(1);
             quibIntf_sendReq_ntfy(u, body, 1, 2, 3, p, q, name, num, 2, 4, 5, 18); },
         [&] { return Words{w(u), w(body), 1, 2, 3, w(p), w(q), w(name), num, 2, 4, 5, 18}; }},
        {QUIB_STUB_ADD_EVT, [&] { ranq_addEvtBase(&fakeEvt, p); },
         [&] { return Words{w(fn(&fakeEvt)), w(p)}; }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.call);
        c.run();
        const QuibStubCallRecord *r = quibStub_lastCall(c.call);
        EXPECT_EQ(Words(r->args, r->args + r->argCount), c.want());
        EXPECT_EQ(r->calls, 1u);
    }
}

TEST_F(Bus, ResponsesTakeNumAndMethodFromTheContext) {
    P.respond = true;
    ASSERT_EQ(serve(quibStub_newUser("mgmt"), "mgmt", 2), 0u);
    ASSERT_EQ(subscribe(sender, "s", 1), 0u);
    EXPECT_EQ(send("mgmt", 2, 1), 0u);
    EXPECT_EQ(notify(1, 1), 0u);
    int unknown = 0;
    EXPECT_EQ(quibCore_sendMsgRes(&unknown, nullptr, 5, 3), 0u);
    size_t n = 0;
    const QuibStubResponse *r = quibStub_responses(&n);
    std::vector<Words> got;
    for (size_t i = 0; i < n; i++)
        got.push_back({r[i].num, r[i].method, r[i].status, r[i].prio});
    const std::vector<Words> want{{num, 2, 20, 18}, {num, 1, 20, 18}, {0xffff, 0xffff, 5, 3}};
    EXPECT_EQ(got, want);
}

TEST_F(Bus, RegistrationsAndDropTable) {
    void *u = quibStub_newUser("mgmt");
    EXPECT_EQ(quibIntf_regUser_msgMngt(u, nullptr, nullptr, num, 0, 0), 0u);
    EXPECT_EQ((std::vector<int>{quibStub_isRegistered(u, num), quibStub_isRegistered(u, 2),
                                quibStub_isRegistered(sender, num)}),
              (std::vector<int>{1, 0, 0}));
    EXPECT_EQ(quibIntf_unregUser_msgMngt(u, num, 0, 0), 0u);
    EXPECT_EQ(quibStub_isRegistered(u, num), 0);
    EXPECT_EQ(quibIntf_modSrv_ntfy_needUpdate(u, nullptr, nullptr, nullptr, "Fake", nullptr, &desc,
                                              2), 0u);
    EXPECT_EQ(quibStub_needsUpdate(u, num, 2), 1);
    EXPECT_EQ(quibStub_needsUpdate(u, num, 1), 0);
    FakeDesc stale = desc;
    stale.num = 9;  // names no table
    EXPECT_EQ(serve(u, "x", kMethods), QUIB_STUB_E_NO_TABLE);
    EXPECT_EQ(subscribe(u, "x", kMethods), QUIB_STUB_E_NO_TABLE);
    EXPECT_EQ(quibIntf_modSrv_mthd(u, nullptr, nullptr, nullptr, 0, "Fake", &stale, nullptr, 0, 0,
                                   0), QUIB_STUB_E_NO_TABLE);

    EXPECT_EQ(quibStub_dropTable(num), 0u);
    EXPECT_EQ(quibStub_dropTable(num + 1), QUIB_STUB_E_NO_TABLE);
    EXPECT_EQ(P.log, (Log{"unreg " + std::to_string(num) + ":0"}));
    EXPECT_EQ(quibStub_table(num, nullptr), table);  // still there for the library to put
}

TEST_F(Bus, EventLoopCallbackAndReset) {
    EXPECT_EQ(ranqStub_deliver(0), -1);
    quibStub_setFailure(QUIB_STUB_ADD_EVT, 4, 0);
    uint32_t ctx = 42;
    EXPECT_EQ(ranq_addEvtBase(&fakeEvt, &ctx), 4u);
    EXPECT_EQ(ranqStub_deliver(0), -1);  // a refused callback is not kept
    quibStub_setFailure(QUIB_STUB_ADD_EVT, 0, 0);
    EXPECT_EQ(ranq_addEvtBase(&fakeEvt, &ctx), 0u);
    EXPECT_EQ(ranqStub_deliver(3), 0);
    EXPECT_EQ(P.log, (Log{"evt 42:3"}));

    // Leave something of every kind behind; ASan's leak check proves reset frees it.
    ASSERT_EQ(serve(quibStub_newUser("mgmt"), "mgmt", 1), 0u);
    ASSERT_EQ(subscribe(sender, "s", 1), 0u);
    quibIntf_regUser_msgMngt(sender, nullptr, nullptr, num, 0, 0);
    quibCore_sendMsgRes(nullptr, nullptr, 20, 18);
    ASSERT_EQ(send("mgmt", 1, 1), 0u);
    quibStub_setFailure(QUIB_STUB_REG_USER, 9, 0);
    quibStub_reset();
    size_t n = 1;
    quibStub_responses(&n);
    QuibStubStats s = stats();
    EXPECT_EQ(Words({n, s.requestsSent, s.bodiesTaken, s.buffersTaken,
                     quibStub_lastCall(QUIB_STUB_SEND_REQ)->argCount,
                     uintptr_t(quibStub_isRegistered(sender, num))}),
              Words({0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(ranqStub_deliver(1), -1);
    EXPECT_EQ(quibStub_table(num, nullptr), nullptr);
    EXPECT_EQ(quibIntf_regUser_msgMngt(sender, nullptr, nullptr, 1, 0, 0), 0u);  // failure cleared
    QuibMsgMngtTable *t = nullptr;
    EXPECT_EQ(quibCore_getBase_msgMngt("again", &t, 1), 1u);  // numbering restarts
}

}  // namespace
