// Allocations made by the library, counted by replacing malloc, calloc and
// free for the whole process (the binary exports them, so the libraries call
// these). Each call is kept with its caller, which tells the library's calls
// from the stand-in bus's, and each free with the block's first word, which
// shows what freeBody left in a body's magic.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "corvane/corvane.h"
#include "quib_stub.h"
#include "support/base_reset.h"
#include "support/bindings.h"
#include "support/records.h"
#include "support/syslog_capture.h"

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void __libc_free(void*);
}

namespace {

struct Event {
    bool freed;  // a free, else an allocation
    void* block;
    size_t size;
    void* caller;
    uint32_t firstWord;  // free: the block's first word when it was freed
};

constexpr size_t kMaxEvents = 4096;
Event gEvents[kMaxEvents];
std::atomic<size_t> gCount{0};
std::atomic<bool> gRecording{false};

void* record(bool freed, void* block, size_t size, void* caller, uint32_t firstWord = 0) {
    if (!gRecording.load(std::memory_order_relaxed)) return block;
    const size_t i = gCount.fetch_add(1, std::memory_order_relaxed);
    if (i < kMaxEvents) gEvents[i] = {freed, block, size, caller, firstWord};
    return block;
}

// The next allocation of this many bytes fails, once.
std::atomic<size_t> gRefuse{0};
bool refused(size_t n) { return n != 0 && gRefuse.compare_exchange_strong(n, 0); }

}  // namespace

extern "C" {
void* malloc(size_t n) {
    return refused(n) ? nullptr : record(false, __libc_malloc(n), n, __builtin_return_address(0));
}
void* calloc(size_t n, size_t size) {
    return refused(n * size) ? nullptr
                             : record(false, __libc_calloc(n, size), n * size, __builtin_return_address(0));
}
void free(void* p) {
    if (p != nullptr && gRecording.load(std::memory_order_relaxed)) {
        uint32_t w = 0;
        if (malloc_usable_size(p) >= sizeof w) std::memcpy(&w, p, sizeof w);
        record(true, p, 0, __builtin_return_address(0), w);
    }
    __libc_free(p);
}
}  // extern "C"

namespace {

// Which shared object made the call: "library", "stand-in" or "other".
std::string whoCalled(void* caller) {
    Dl_info info{};
    const std::string file = dladdr(caller, &info) && info.dli_fname ? info.dli_fname : "";
    if (file.find("libCorvane.so") != std::string::npos) return "library";
    return file.find("libcorvane_platform.so") != std::string::npos ? "stand-in" : "other";
}

// The calls made while `f` ran.
template <class F>
std::vector<Event> recorded(F&& f) {
    gCount = 0;
    gRecording = true;
    f();
    gRecording = false;
    EXPECT_LE(gCount.load(), kMaxEvents) << "more calls than the record holds";
    return std::vector<Event>(gEvents, gEvents + std::min(gCount.load(), kMaxEvents));
}

// The payload a handler registered with `deliver` must get, and how many of
// its calls got exactly that.
struct Inbox {
    const cvtest::Record* want;
    int same = 0;
};

uint32_t deliver(void*, void* arg, void* payload) {
    auto* in = static_cast<Inbox*>(arg);
    in->same += std::memcmp(in->want->data(), payload, in->want->size()) == 0;
    return 0;
}

// One trip of every message, full payload, from the sender's call through the
// handler, which gets the payload as sent: the library allocates the sender's
// body, the serialised buffer and the receiver's body, the stand-in its
// exact-size copy of the buffer, nothing else allocates, and every block is
// freed before the send returns. Both bodies are freed with their magic
// overwritten (which only freeBody does), the buffer and its copy as written,
// envelope tag 0 first.
TEST(Alloc, EveryMessageTripAllocatesItsBlocksAndFreesThem) {
    for (const cvtest::Binding& b : cvtest::bindings()) {
        SCOPED_TRACE(b.info->name);
        cvtest::resetBase();
        ASSERT_EQ(0u, corVane_addBase());
        const bool command = b.info->intf == CORVANE_INTF_CMD;
        void* from = quibStub_newUser(command ? "voice" : "mgmt");
        void* to = quibStub_newUser(command ? "mgmt" : "voice");
        cvtest::Record payload(b.info->payload);
        cvtest::fillFull(*b.info->payload, payload.data(), 11, cvtest::Counts::kCapacity);
        Inbox in{&payload};
        ASSERT_EQ(0u, b.listen(to, reinterpret_cast<void*>(deliver), &in, nullptr, "bus",
                               command ? "mgmt" : "voice"));
        const std::string body = std::to_string(b.info->bodySize);
        const std::string wire =
            std::to_string(24 + corVane_record_serialize_lg(b.info->payload, payload.data()));
        const std::string freed = std::to_string(CORVANE_MAGIC_FREED);

        uint32_t rc = 1;
        const std::vector<Event> events =
            recorded([&] { rc = b.send(from, nullptr, "mgmt", payload.data()); });
        ASSERT_EQ(0u, rc);
        EXPECT_EQ(1, in.same);  // one call, with the payload as sent
        // Each allocation in order, with the first word of its block when freed
        // (an address may be handed out again once it was freed).
        std::vector<std::string> blocks;
        std::map<void*, size_t> live;
        for (const Event& e : events) {
            if (!e.freed) {
                live[e.block] = blocks.size();
                blocks.push_back(whoCalled(e.caller) + " " + std::to_string(e.size) + " kept");
                continue;
            }
            const auto it = live.find(e.block);
            ASSERT_NE(live.end(), it) << "a block freed that the trip did not make";
            std::string& block = blocks[it->second];
            block.replace(block.size() - 4, 4, "freed " + std::to_string(e.firstWord));
            live.erase(it);
        }
        EXPECT_EQ((std::vector<std::string>{"library " + body + " freed " + freed,
                                            "library " + wire + " freed 0",
                                            "stand-in " + wire + " freed 0",
                                            "library " + body + " freed " + freed}),
                  blocks);
    }
    cvtest::resetBase();
}

// Each allocation a message needs, refused in turn: the caller's status and
// line, and nothing handed out.
TEST(Alloc, RefusedAllocationsAreReported) {
    const cvtest::Binding& b = cvtest::bindings()[9];  // SetLineCallState
    cvtest::resetBase();
    ASSERT_EQ(0u, corVane_addBase());
    void* voice = quibStub_newUser("voice");
    const lineCallState lcs{1, 2, 3};
    void* body = cvtest::makeBody(b, &lcs);
    const std::vector<uint8_t> wire = cvtest::serializedBody(b, body);
    uint8_t* buf = nullptr;
    uint32_t len = 0, size = 0;
    void* back = nullptr;
    char* text = nullptr;
    cvtest::clearLog();
    gRefuse = wire.size();
    EXPECT_EQ(5u, b.serializeBody(0, body, &buf, &len));
    gRefuse = b.info->bodySize;
    EXPECT_EQ(5u, b.unserializeBody(0, wire.data(), &back, &size));
    gRefuse = 1;
    b.logBody(nullptr, nullptr, nullptr, &text);
    gRefuse = b.info->bodySize;
    EXPECT_EQ(0u, corVane_sendReq_setLineCallState(voice, nullptr, "mgmt", &lcs));
    EXPECT_EQ(0u, gRefuse.load());
    EXPECT_EQ(0u, quibStub_lastCall(QUIB_STUB_SEND_REQ)->calls);
    EXPECT_TRUE(buf == nullptr && back == nullptr && text == nullptr);
    const std::string cb = "corVane_cbEvtMsgMngt_", name = "_msgCmdReq_setLineCallState: ";
    EXPECT_EQ((std::vector<std::string>{cb + "serializeBody" + name + "Allocating Memory N Ctx[]\n",
                                        cb + "unserializeBody" + name + "Allocating Memory Ctx[]\n",
                                        cb + "logBody" + name + "Allocating Memory N Ctx[]\n",
                                        "corVane_sendReq_setLineCallState: Allocating Memory Ctx[]\n"}),
              cvtest::logTextsWithoutLine());
    // Bodies refused on receipt (foreign magic, envelope tag, envelope word,
    // payload) are released before the call returns, and so is the buffer of
    // a payload that cannot be written (OnMakeCall's texts without their NUL).
    std::vector<std::vector<uint8_t>> refused(4, wire);
    refused[0][11] ^= 1;
    refused[1][23] = 2;
    refused[2][27] = 9;
    refused[3][15] = 7;
    const cvtest::Binding& call = *std::find_if(
        cvtest::bindings().begin(), cvtest::bindings().end(),
        [](const cvtest::Binding& x) { return std::strcmp(x.info->name, "OnMakeCall") == 0; });
    const cvtest::Record empty(call.info->payload);
    void* callBody = cvtest::makeBody(call, empty.data());
    std::memset(static_cast<uint8_t*>(callBody) + 8, 'x', empty.size());  // the payload
    const std::vector<Event> events = recorded([&] {
        EXPECT_EQ(2u, corVane_unserializeBody_bounded(b.info, 0, refused[0].data(), 60, &back, &size));
        EXPECT_EQ(2u, b.unserializeBody(0, refused[1].data(), &back, &size));
        EXPECT_EQ(4u, b.unserializeBody(0, refused[2].data(), &back, &size));
        EXPECT_EQ(2u, b.unserializeBody(0, refused[3].data(), &back, &size));
        EXPECT_EQ(4u, call.serializeBody(0, callBody, &buf, &len));
    });
    EXPECT_EQ(nullptr, buf);
    std::map<void*, int> live;
    size_t library = 0;
    for (const Event& e : events)
        if (e.freed || whoCalled(e.caller) == "library") live[e.block] += e.freed ? -1 : (++library, 1);
    EXPECT_EQ(5u, library);
    for (const auto& [block, n] : live) EXPECT_GE(0, n) << "a block kept";
    b.freeBody(0, body);
    call.freeBody(0, callBody);
    cvtest::resetBase();
}

}  // namespace
