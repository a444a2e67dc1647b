// The stand-in bus on its own, driven through a fake interface whose body
// callbacks log what the bus does with them: routing, fan-out and refusals.
// Tables, user registration, responses, events and failure injection are
// checked through the library by its own tests.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "corvane/base.h"
#include "quib_stub.h"

namespace {

using Words = std::vector<uint64_t>;  // wide enough for pointers and counters on every host
constexpr uint16_t kMethods = 3;
struct FakeDesc {
    CORVANE_INTF_DESC_HEAD
    CorVaneMethod methods[kMethods];
};
static_assert(offsetof(FakeDesc, methods) == CORVANE_INTF_METHODS_OFFSET);

std::string gLog;  // "what kind:value, " per callback
uint32_t gSerStatus, gUnserStatus;

uint32_t valueOf(const void *p) { uint32_t v; std::memcpy(&v, p, 4); return v; }
void *newBody(uint32_t v) { void *b = std::malloc(4); std::memcpy(b, &v, 4); return b; }
void note(const std::string &what, uint32_t kind, uint32_t value) {
    gLog += what + " " + std::to_string(kind) + ":" + std::to_string(value) + ", ";
}
QuibFn fn(auto f) { return reinterpret_cast<QuibFn>(f); }
void fakeFree(uint32_t kind, void *body) { note("free", kind, valueOf(body)); std::free(body); }
uint32_t fakeSerialize(uint32_t kind, void *body, uint8_t **buf, uint32_t *len) {
    note("ser", kind, valueOf(body));
    if (gSerStatus != 0) return gSerStatus;
    *buf = static_cast<uint8_t *>(std::malloc(*len = 5));  // the value, then a marker byte
    std::memcpy(*buf, body, 4);
    (*buf)[4] = 0xa5;
    return 0;
}
uint32_t fakeUnserialize(uint32_t kind, const uint8_t *buf, void **body, uint32_t *size) {
    note("unser", kind, *size);  // the received value is 100 more, 0 without the marker
    if (gUnserStatus == 0) *body = newBody(buf[4] == 0xa5 ? valueOf(buf) + 100 : 0);
    return gUnserStatus;
}
template <uint32_t M>  // logs which method's receive function the bus called
void fakeRecv(void *ctx, void *body, CorVaneHandler h, void *arg) {
    note("recv", M, valueOf(body));
    h(ctx, arg, body);
}
uint32_t fakeHandler(void *, void *arg, void *payload) {
    note(std::string("handler ") + static_cast<const char *>(arg), 0, valueOf(payload));
    return 0;
}

class Bus : public ::testing::Test {
protected:
    FakeDesc desc{};
    uint16_t num = 0;
    void *sender = nullptr;

    void SetUp() override {
        quibStub_reset();
        gLog.clear();
        gSerStatus = gUnserStatus = 0;
        QuibMsgMngtTable *table = nullptr;
        ASSERT_EQ(num = quibCore_getBase_msgMngt("Fake", &table, kMethods), 1u);  // reset renumbers
        desc.num = num;
        desc.count = kMethods;
        const CorVaneRecvFn recvs[kMethods] = {fakeRecv<0>, fakeRecv<1>, fakeRecv<2>};
        for (uint16_t m = 0; m < kMethods; m++) {
            desc.methods[m].recv = recvs[m];
            quib_tableRows(table)[m] = {nullptr, nullptr, fn(&fakeFree), fn(&fakeSerialize),
                                        fn(&fakeUnserialize), nullptr};
        }
        sender = quibStub_newUser("voice");
    }
    void TearDown() override {
        QuibStubStats s = stats();
        EXPECT_EQ(s.bodiesTaken, s.bodiesReleased) << "a body was not released";
        EXPECT_EQ(s.buffersTaken, s.buffersFreed) << "a buffer was not freed";
        quibStub_reset();
    }
    // Registers the user as server (command) or subscriber (notification) of method m.
    uint32_t listen(bool ntfy, void *user, const char *arg, uint16_t m) {
        void *h = reinterpret_cast<void *>(fn(&fakeHandler)), *a = const_cast<char *>(arg);
        return ntfy ? quibIntf_modCliNtfyUser_mthd(user, h, a, nullptr, 0, "bus", "u", "Fake",
                                                   nullptr, &desc, m)
                    : quibIntf_modSrv_mthd(user, h, a, nullptr, 0, "Fake", &desc, nullptr, m,
                                           0xffff, 0xffff);
    }
    // Sends a body holding 7 as a command to "mgmt", or as a notification.
    uint32_t post(bool ntfy, uint16_t m, uint16_t n = 0) {
        return ntfy ? quibIntf_sendReq_ntfy(sender, newBody(7), 0, 0, 0, nullptr, nullptr,
                                            "Fake", num, m, 0, 0, 18)
                    : quibCore_sendMsgReq_toNameUser(sender, newBody(7), 0, 0, 0, nullptr, "mgmt",
                                                     n ? n : num, m, 0xffff, 18);
    }
    static QuibStubStats stats() { QuibStubStats s; quibStub_stats(&s); return s; }
};

// Each send, delivered or refused, in the order of the row's callbacks, with
// what it adds to the counters; the sent body and every received one are released.
TEST_F(Bus, SendsGoThroughTheRowToTheirReceiversAndReleaseEveryBody) {
    void *mgmt = quibStub_newUser("mgmt"), *c = quibStub_newUser("c");
    ASSERT_EQ(listen(false, quibStub_newUser("other"), "other", 1), 0u);
    ASSERT_EQ(listen(false, mgmt, "wrong-method", 2), 0u);
    ASSERT_EQ(listen(false, mgmt, "replaced", 1), 0u);
    ASSERT_EQ(listen(false, mgmt, "mgmt", 1), 0u);  // registering again replaces the handler
    ASSERT_EQ(listen(true, quibStub_newUser("b"), "b", 2), 0u);
    ASSERT_EQ(listen(true, quibStub_newUser("a"), "a", 2), 0u);
    ASSERT_EQ(listen(true, c, "c0", 0), 0u);
    ASSERT_EQ(listen(true, c, "c", 2), 0u);
    const std::string sent = "ser 0:7, free 0:7, ";
    auto got = [](const char *who, int m) {
        return "unser 0:5, recv " + std::to_string(m) + ":107, handler " + who +
               " 0:107, free 0:107, ";
    };
    struct Case {  // counts: requests + notifications sent, deliveries, buffers taken, failures
        const char *what;
        bool ntfy;
        uint16_t method, tableNum;
        uint32_t ser, unser, inject, rc;
        std::string log;
        Words counts;
    } cases[] = {
        {"command", false, 1, 0, 0, 0, 0, 0, sent + got("mgmt", 1), {1, 1, 2, 0}},
        {"notification", true, 2, 0, 0, 0, 0, 0, sent + got("b", 2) + got("a", 2) + got("c", 2),
         {1, 3, 4, 0}},
        {"no subscriber", true, 1, 0, 0, 0, 0, 0, sent, {1, 0, 1, 0}},
        {"no server", false, 0, 0, 0, 0, 0, QUIB_STUB_E_NO_SERVER, sent, {0, 0, 2, 0}},
        {"no table", false, 1, 9, 0, 0, 0, QUIB_STUB_E_NO_TABLE, "", {0, 0, 0, 0}},
        {"method beyond table", false, 5, 0, 0, 0, 0, QUIB_STUB_E_NO_TABLE, "", {0, 0, 0, 0}},
        {"serialize fails", false, 1, 0, 9, 0, 0, QUIB_STUB_E_SERIALIZE, sent, {0, 0, 0, 1}},
        {"unserialize fails", false, 1, 0, 0, 4, 0, 4, sent + "unser 0:5, ", {1, 0, 2, 1}},
        {"command refused", false, 1, 0, 0, 0, 0x77, 0x77, "free 0:7, ", {0, 0, 0, 0}},
        {"notification refused", true, 2, 0, 0, 0, 0x78, 0x78, "free 0:7, ", {0, 0, 0, 0}},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.what);
        gLog.clear();
        gSerStatus = k.ser;
        gUnserStatus = k.unser;
        const QuibStubCall call = k.ntfy ? QUIB_STUB_SEND_NTFY : QUIB_STUB_SEND_REQ;
        quibStub_setFailure(call, k.inject, 0);
        const QuibStubStats s = stats();
        EXPECT_EQ(post(k.ntfy, k.method, k.tableNum), k.rc);
        EXPECT_EQ(gLog, k.log);
        const QuibStubStats e = stats();
        const uint64_t deliveries = e.deliveries - s.deliveries;
        const uint64_t sends = e.requestsSent + e.notificationsSent - s.requestsSent -
                               s.notificationsSent;
        EXPECT_EQ(Words({sends, deliveries, e.buffersTaken - s.buffersTaken,
                         e.failures - s.failures}), k.counts);
        EXPECT_EQ(e.bodiesReleased - s.bodiesReleased, 1 + deliveries);
        quibStub_setFailure(call, 0, 0);
    }
}

}  // namespace
