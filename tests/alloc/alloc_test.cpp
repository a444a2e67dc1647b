// Allocations made by the library, counted by replacing malloc, calloc,
// realloc and free for the whole process (the test binary exports them, so
// libCorvane and the stand-in bus call these). Each call made while a test
// records is kept with its caller's return address, which tells the
// library's calls from the stand-in's; at free the block's first word is
// read, which shows what freeBody left in the body's magic.
//
// Built only without sanitizers: they replace the same functions.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <cstdint>
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
#include "support/typed_ops.h"

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void __libc_free(void*);
}

namespace {

enum class Call { kMalloc, kCalloc, kRealloc, kFree };

struct Event {
    Call call;
    void* block;     // the block returned, or freed
    void* previous;  // realloc: the block given
    size_t size;
    void* caller;
    uint32_t firstWord;  // free: the block's first word when it was freed
};

constexpr size_t kMaxEvents = 4096;
Event gEvents[kMaxEvents];
std::atomic<size_t> gCount{0};
std::atomic<bool> gRecording{false};
std::atomic<bool> gOverflow{false};

void record(const Event& e) {
    if (!gRecording.load(std::memory_order_relaxed)) return;
    const size_t i = gCount.fetch_add(1, std::memory_order_relaxed);
    if (i < kMaxEvents)
        gEvents[i] = e;
    else
        gOverflow = true;
}

}  // namespace

extern "C" {

void* malloc(size_t n) {
    void* p = __libc_malloc(n);
    record({Call::kMalloc, p, nullptr, n, __builtin_return_address(0), 0});
    return p;
}

void* calloc(size_t n, size_t size) {
    void* p = __libc_calloc(n, size);
    record({Call::kCalloc, p, nullptr, n * size, __builtin_return_address(0), 0});
    return p;
}

void* realloc(void* old, size_t n) {
    void* p = __libc_realloc(old, n);
    record({Call::kRealloc, p, old, n, __builtin_return_address(0), 0});
    return p;
}

void free(void* p) {
    if (p != nullptr && gRecording.load(std::memory_order_relaxed)) {
        uint32_t w = 0;
        if (malloc_usable_size(p) >= sizeof w) std::memcpy(&w, p, sizeof w);
        record({Call::kFree, p, nullptr, 0, __builtin_return_address(0), w});
    }
    __libc_free(p);
}

}  // extern "C"

namespace {

enum class Who { kLibrary, kStandIn, kOther };

Who whoCalled(void* caller) {
    Dl_info info{};
    if (dladdr(caller, &info) == 0 || info.dli_fname == nullptr) return Who::kOther;
    const std::string file = info.dli_fname;
    if (file.find("libCorvane.so") != std::string::npos) return Who::kLibrary;
    if (file.find("libcorvane_platform.so") != std::string::npos) return Who::kStandIn;
    return Who::kOther;
}

const char* name(Who w) {
    return w == Who::kLibrary ? "library" : w == Who::kStandIn ? "stand-in" : "other";
}

const char* name(Call c) {
    switch (c) {
        case Call::kMalloc: return "malloc";
        case Call::kCalloc: return "calloc";
        case Call::kRealloc: return "realloc";
        case Call::kFree: return "free";
    }
    return "?";
}

// The calls made while `f` ran.
template <class F>
std::vector<Event> recorded(F&& f) {
    gCount = 0;
    gOverflow = false;
    gRecording = true;
    f();
    gRecording = false;
    EXPECT_FALSE(gOverflow) << "more than " << kMaxEvents << " calls";
    const size_t n = std::min<size_t>(gCount, kMaxEvents);
    return std::vector<Event>(gEvents, gEvents + n);
}

std::string describe(const std::vector<Event>& events) {
    std::string out;
    for (const Event& e : events)
        out += std::string(name(e.call)) + "(" + std::to_string(e.size) + ") by " +
               name(whoCalled(e.caller)) + "; ";
    return out;
}

bool allocates(const Event& e) { return e.call != Call::kFree; }

// ---- the counter itself ------------------------------------------------------

// The replacements see the calls made from the libraries, and tell them
// apart: logBody allocates the empty text it hands back.
TEST(AllocCounter, SeesAndAttributesCalls) {
    const std::vector<Event> mine = recorded([] {
        void* volatile a = std::malloc(40);
        void* volatile b = std::calloc(3, 8);
        void* volatile c = std::realloc(a, 80);
        std::free(c);
        std::free(b);
    });
    ASSERT_EQ(5u, mine.size()) << describe(mine);
    EXPECT_EQ(Call::kMalloc, mine[0].call);
    EXPECT_EQ(40u, mine[0].size);
    EXPECT_EQ(Call::kCalloc, mine[1].call);
    EXPECT_EQ(24u, mine[1].size);
    EXPECT_EQ(Call::kRealloc, mine[2].call);
    EXPECT_EQ(mine[0].block, mine[2].previous);
    EXPECT_EQ(Call::kFree, mine[3].call);
    EXPECT_EQ(Who::kOther, whoCalled(mine[0].caller));

    const CorVaneMethod& m = corVane_base.cmd.methods[0];
    char* text = nullptr;
    const std::vector<Event> lib = recorded([&] { m.logBody(nullptr, nullptr, nullptr, &text); });
    ASSERT_EQ(1u, lib.size()) << describe(lib);
    EXPECT_EQ(Call::kCalloc, lib[0].call);
    EXPECT_EQ(Who::kLibrary, whoCalled(lib[0].caller));
    EXPECT_EQ(static_cast<void*>(text), lib[0].block);
    std::free(text);

    // The first word of a block is read when it is freed.
    static uint32_t* volatile escaped;  // so that the block cannot be optimised away
    const std::vector<Event> freed = recorded([] {
        escaped = static_cast<uint32_t*>(std::malloc(16));
        *escaped = 0x12345678u;
        std::free(escaped);
    });
    ASSERT_EQ(2u, freed.size());
    EXPECT_EQ(0x12345678u, freed[1].firstWord);
}

// ---- record operations ---------------------------------------------------------

// Copy, length, serialise and unserialise (plain and bounded) of every record
// type allocate nothing, on empty, full, over-full and random instances.
TEST(AllocRecords, OperationsAllocateNothing) {
    std::mt19937 rng(20240601);
    size_t operations = 0;
    for (const CorVaneSchema* s : cvtest::allRecords()) {
        const cvtest::TypedOps& ops = cvtest::typedOps(s);
        for (int variant = 0; variant < 4; ++variant) {
            SCOPED_TRACE(std::string(s->name) + " variant " + std::to_string(variant));
            cvtest::Record src(s), dst(s), copy(s);
            if (variant == 1) cvtest::fillFull(*s, src.data(), 7, cvtest::Counts::kCapacity);
            if (variant == 2) cvtest::fillFull(*s, src.data(), 8, cvtest::Counts::kAbove);
            if (variant == 3) cvtest::fillRandom(*s, src.data(), rng);
            std::vector<uint8_t> wire(cvtest::encodedLength(*s, src.data()));
            uint32_t length = 0, st[8] = {};
            const std::vector<Event> events = recorded([&] {
                st[0] = ops.copy(copy.data(), src.data());
                ops.clean(copy.data());
                length = ops.length(src.data());
                uint8_t* out = wire.data();
                st[1] = ops.serialize(src.data(), &out);
                const uint8_t* in = wire.data();
                st[2] = ops.unserialize(dst.data(), &in);
                in = wire.data();
                st[3] = ops.unserializeBounded(dst.data(), &in, wire.data() + wire.size());
                st[4] = corVane_record_copy(s, copy.data(), src.data());
                out = wire.data();
                st[5] = corVane_record_serialize(s, src.data(), &out);
                in = wire.data();
                st[6] = corVane_record_unserialize(s, dst.data(), &in);
                in = wire.data();
                st[7] = corVane_record_unserialize_bounded(s, dst.data(), &in,
                                                           wire.data() + wire.size());
            });
            operations += 10;
            EXPECT_TRUE(events.empty()) << describe(events);
            EXPECT_EQ(wire.size(), length);
            for (uint32_t v : st) EXPECT_EQ(0u, v);
            EXPECT_EQ("", cvtest::diff(*s, src.data(), dst.data()));
        }
    }
    EXPECT_EQ(66u * 4 * 10, operations);
    EXPECT_TRUE(cvtest::logLines().empty());
}

// ---- message trips ---------------------------------------------------------------

class AllocMessages : public testing::Test {
protected:
    void SetUp() override {
        cvtest::resetBase();
        ASSERT_EQ(0u, corVane_addBase());
    }
    void TearDown() override { cvtest::resetBase(); }
};

struct Capture {
    size_t size = 0;
    std::vector<uint8_t> payload;
    int calls = 0;
};

uint32_t keep(void*, void* arg, void* payload) {
    auto* c = static_cast<Capture*>(arg);
    const uint8_t* p = static_cast<const uint8_t*>(payload);
    c->payload.assign(p, p + c->size);
    ++c->calls;
    return 0;
}

// One trip of every message, full payload, from the sender's call to the
// handler and back: the library allocates the sender's body, the serialised
// buffer and the receiver's body, exactly; the stand-in its exact-size copy
// of the buffer, exactly; nothing else allocates. Every block is freed
// before the send returns, and both bodies are freed by freeBody with their
// magic already overwritten.
TEST_F(AllocMessages, EveryTripAllocatesWhatTheInterfacePrescribes) {
    size_t trips = 0;
    for (const cvtest::Binding& b : cvtest::bindings()) {
        SCOPED_TRACE(b.info->name);
        cvtest::resetBase();
        ASSERT_EQ(0u, corVane_addBase());
        const bool command = b.info->intf == CORVANE_INTF_CMD;
        void* from = quibStub_newUser(command ? "voice" : "mgmt");
        void* to = quibStub_newUser(command ? "mgmt" : "voice");
        ASSERT_EQ(0u, corVane_regUser_msgMngt(from, nullptr, nullptr, CORVANE_SELECT_BOTH));
        ASSERT_EQ(0u, corVane_regUser_msgMngt(to, nullptr, nullptr, CORVANE_SELECT_BOTH));
        Capture cap;
        cap.size = b.info->payload->size;
        ASSERT_EQ(0u, b.listen(to, reinterpret_cast<void*>(keep), &cap, nullptr, "bus",
                               command ? "mgmt" : "voice"));
        cvtest::Record payload(b.info->payload);
        cvtest::fillFull(*b.info->payload, payload.data(), 11, cvtest::Counts::kCapacity);
        const size_t wire = 24 + corVane_record_serialize_lg(b.info->payload, payload.data());
        cap.payload.reserve(cap.size);  // the handler's copy must not count

        uint32_t rc = 1;
        const std::vector<Event> events =
            recorded([&] { rc = b.send(from, nullptr, "mgmt", payload.data()); });
        ASSERT_EQ(0u, rc);
        ASSERT_EQ(1, cap.calls);
        EXPECT_EQ("", cvtest::diff(*b.info->payload, payload.data(), cap.payload.data()));
        ++trips;

        // Each free is matched with the allocation that made its block (an
        // address may be handed out again once it was freed).
        std::map<Who, std::vector<size_t>> made;  // indices into events
        std::map<void*, size_t> live;
        std::map<size_t, uint32_t> wordAtFree;  // allocation -> its first word when freed
        size_t frees = 0;
        for (size_t i = 0; i < events.size(); ++i) {
            const Event& e = events[i];
            if (allocates(e)) {
                made[whoCalled(e.caller)].push_back(i);
                live[e.block] = i;
                continue;
            }
            ++frees;
            const auto it = live.find(e.block);
            ASSERT_NE(live.end(), it) << "a block freed that the trip did not make";
            wordAtFree[it->second] = e.firstWord;
            live.erase(it);
        }
        EXPECT_TRUE(live.empty()) << live.size() << " blocks of the trip still allocated";
        EXPECT_EQ(4u, frees);

        // Bodies and buffer are zeroed blocks: malloc and memset when small,
        // calloc when large.
        const std::vector<size_t>& lib = made[Who::kLibrary];
        ASSERT_EQ(3u, lib.size()) << describe(events);
        const Event& sent = events[lib[0]];
        const Event& buffer = events[lib[1]];
        const Event& received = events[lib[2]];
        EXPECT_NE(Call::kRealloc, sent.call);
        EXPECT_EQ(b.info->bodySize, sent.size);
        EXPECT_NE(Call::kRealloc, buffer.call);
        EXPECT_EQ(wire, buffer.size);
        EXPECT_NE(Call::kRealloc, received.call);
        EXPECT_EQ(b.info->bodySize, received.size);

        const std::vector<size_t>& bus = made[Who::kStandIn];
        ASSERT_EQ(1u, bus.size()) << describe(events);
        EXPECT_EQ(Call::kMalloc, events[bus[0]].call);  // its exact-size copy of the buffer
        EXPECT_EQ(wire, events[bus[0]].size);
        EXPECT_TRUE(made[Who::kOther].empty()) << describe(events);

        // Both bodies are freed with their magic already overwritten, which
        // only freeBody does. (Who called free is not checked: freeBody ends
        // in a tail call, so the return address is its caller's.) The
        // buffer is freed as written, envelope tag 0 first.
        for (size_t body : {lib[0], lib[2]}) {
            ASSERT_EQ(1u, wordAtFree.count(body));
            EXPECT_EQ(CORVANE_MAGIC_FREED, wordAtFree[body]);
        }
        ASSERT_EQ(1u, wordAtFree.count(lib[1]));
        EXPECT_EQ(0u, wordAtFree[lib[1]]);
    }
    EXPECT_EQ(CORVANE_CMD_COUNT + CORVANE_NTFY_COUNT, trips);
    EXPECT_TRUE(cvtest::logLines().empty());
}

// freeBody of every message, called directly on a received body: one free,
// of that body, whose first word is then 0xdeadbeef.
TEST_F(AllocMessages, FreeBodyOverwritesTheMagicBeforeFreeing) {
    for (const cvtest::Binding& b : cvtest::bindings()) {
        SCOPED_TRACE(b.info->name);
        cvtest::Record payload(b.info->payload);
        cvtest::fillFull(*b.info->payload, payload.data(), 12, cvtest::Counts::kCapacity);
        // A serialised body: the envelope, then the payload.
        std::vector<uint8_t> bytes(24 + corVane_record_serialize_lg(b.info->payload,
                                                                    payload.data()));
        const uint32_t head[6] = {0, 4, b.info->magic, 1, 4, b.info->envelope};
        for (size_t i = 0; i < 6; ++i)
            for (size_t j = 0; j < 4; ++j)
                bytes[i * 4 + j] = static_cast<uint8_t>(head[i] >> (24 - 8 * j));
        uint8_t* out = bytes.data() + 24;
        ASSERT_EQ(0u, corVane_record_serialize(b.info->payload, payload.data(), &out));
        void* body = nullptr;
        uint32_t size = static_cast<uint32_t>(bytes.size());
        ASSERT_EQ(0u, b.unserializeBody(CORVANE_BODY_REQUEST, bytes.data(), &body, &size));
        ASSERT_NE(nullptr, body);
        uint32_t magic;
        std::memcpy(&magic, body, sizeof magic);
        ASSERT_EQ(b.info->magic, magic);

        const std::vector<Event> events =
            recorded([&] { b.freeBody(CORVANE_BODY_REQUEST, body); });
        ASSERT_EQ(1u, events.size()) << describe(events);
        EXPECT_EQ(Call::kFree, events[0].call);
        EXPECT_EQ(body, events[0].block);
        EXPECT_EQ(CORVANE_MAGIC_FREED, events[0].firstWord);
    }
    EXPECT_TRUE(cvtest::logLines().empty());
}

}  // namespace
