// A long mixed run through the stand-in bus: the 49 messages in random order,
// with empty, partly and randomly filled payloads, from a sender through
// serializeBody, unserializeBody, the receive function and freeBody into a
// handler. Each payload must arrive byte for byte as the sender's body held
// it, and every body and buffer taken on the way must be released
// (LeakSanitizer checks the heap as a whole in the sanitizer run).
//
// CORVANE_LOAD_MESSAGES sets the number of messages: one million by default,
// 100000 in sanitizer builds; emulated and valgrind runs take fewer.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>

#include "support/base_reset.h"
#include "support/bindings.h"
#include "support/records.h"
#include "support/wire_edit.h"

namespace cvtest {
namespace {

size_t messageCount() {
    if (const char* env = std::getenv("CORVANE_LOAD_MESSAGES"); env && std::atol(env) > 0)
        return static_cast<size_t>(std::atol(env));
#ifdef CVTEST_ASAN
    return 100000;
#else
    return 1000000;
#endif
}

// The payload the handler expects (as the sender's zeroed body holds it), and
// what arrived.
struct Expectation {
    const Record* payload = nullptr;
    size_t delivered = 0;
    size_t mismatches = 0;
    Bytes firstMismatch;
};

uint32_t onMessage(void*, void* arg, void* payload) {
    auto* e = static_cast<Expectation*>(arg);
    ++e->delivered;
    const auto* got = static_cast<const uint8_t*>(payload);
    if (std::memcmp(got, e->payload->data(), e->payload->size()) != 0 && e->mismatches++ == 0)
        e->firstMismatch.assign(got, got + e->payload->size());
    return 0;
}

class HardeningLoad : public testing::Test {
protected:
    void SetUp() override { resetBase(); }
    void TearDown() override {
        corVane_delBase();
        resetBase();
    }
};

TEST_F(HardeningLoad, MillionMixedMessagesReleaseEverything) {
    const size_t total = messageCount();
    ASSERT_EQ(0u, corvane_initialize());
    void* voice = quibStub_newUser("voice");
    void* mgmt = quibStub_newUser("mgmt");
    ASSERT_EQ(0u, corVane_regUser_msgMngt(voice, nullptr, nullptr, CORVANE_SELECT_BOTH));
    ASSERT_EQ(0u, corVane_regUser_msgMngt(mgmt, nullptr, nullptr, CORVANE_SELECT_BOTH));

    // Commands go from the voice service to the management side, notifications
    // the other way. Three payloads per message: all zero, full texts with
    // empty arrays, random (copied, as a sender's body holds them).
    Expectation expect;
    const auto& all = bindings();
    std::vector<std::vector<Record>> payloads;
    std::mt19937 rng(2024);
    for (const Binding& b : all) {
        const bool command = b.info->intf == CORVANE_INTF_CMD;
        ASSERT_EQ(0u, b.listen(command ? mgmt : voice, reinterpret_cast<void*>(&onMessage), &expect, nullptr,
                               "bus", command ? "mgmt" : "voice"));
        const CorVaneSchema& s = *b.info->payload;
        Record partly(&s), random(&s);
        fillFull(s, partly.data(), 31, Counts::kZero);
        fillRandom(s, random.data(), rng);
        std::vector<Record> v(3, Record(&s));
        ASSERT_EQ(0u, corVane_record_copy(&s, v[1].data(), partly.data()));
        ASSERT_EQ(0u, corVane_record_copy(&s, v[2].data(), random.data()));
        payloads.push_back(std::move(v));
    }

    std::vector<size_t> sent(all.size(), 0);
    std::uniform_int_distribution<size_t> pick(0, all.size() * 3 - 1);
    for (size_t i = 0; i < total; ++i) {
        const size_t n = pick(rng);
        const Binding& b = all[n / 3];
        expect.payload = &payloads[n / 3][n % 3];
        const size_t before = expect.delivered;
        const bool command = b.info->intf == CORVANE_INTF_CMD;
        ASSERT_EQ(0u, b.send(command ? voice : mgmt, nullptr, "mgmt", expect.payload->data())) << b.info->name;
        ASSERT_EQ(before + 1, expect.delivered) << b.info->name;
        ASSERT_EQ(0u, expect.mismatches)
            << b.info->name << " #" << i << ": "
            << diff(*b.info->payload, expect.payload->data(), expect.firstMismatch.data())
            << " (or bytes outside the fields)";
        ++sent[n / 3];
    }

    QuibStubStats st;
    quibStub_stats(&st);
    EXPECT_EQ(total, st.requestsSent + st.notificationsSent);
    EXPECT_EQ(total, st.deliveries);
    EXPECT_EQ(0u, st.failures);
    EXPECT_EQ(st.bodiesTaken, st.bodiesReleased);
    EXPECT_EQ(st.buffersTaken, st.buffersFreed);
    EXPECT_EQ(2 * total, st.bodiesTaken) << "one body sent and one received per message";
    for (size_t k = 0; k < all.size(); ++k)
        EXPECT_LT(total / all.size() / 2, sent[k]) << all[k].info->name << " was hardly sent";
}

}  // namespace
}  // namespace cvtest
