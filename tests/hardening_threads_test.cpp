// The library holds no mutable state of its own in the record and body
// operations: several threads may serialise, unserialise and copy at once.
// Each thread works through its own share of the record types (and of the
// message bodies), with refusals that log along the way, and must get exactly
// the bytes a single thread got. Built with ThreadSanitizer (the tsan preset),
// any data race in those paths fails the run.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "support/bindings.h"
#include "support/records.h"
#include "support/syslog_capture.h"
#include "support/wire_edit.h"

namespace cvtest {
namespace {

constexpr unsigned kThreads = 4;
constexpr int kRounds = 3;

// What one record type must give, worked out before the threads start.
struct Expected {
    const CorVaneSchema* schema;
    Record source;
    Bytes wire;
};

// Copies, serialises, reads back (bounded and unbounded) and reads a
// truncated copy; returns the first difference from `e`, or "".
std::string exercise(const Expected& e) {
    const CorVaneSchema& s = *e.schema;
    Record copy(&s), back(&s), cut(&s);
    if (corVane_record_copy(&s, copy.data(), e.source.data()) != 0) return "copy";
    if (encode(s, copy.data()) != e.wire) return "encoding";
    const uint8_t* in = e.wire.data();
    if (corVane_record_unserialize(&s, back.data(), &in) != 0 || in != e.wire.data() + e.wire.size())
        return "unserialize";
    if (!diff(s, e.source.data(), back.data()).empty()) return "unserialized fields";
    in = e.wire.data();
    const uint8_t* end = e.wire.data() + e.wire.size() / 2;
    if (corVane_record_unserialize_bounded(&s, cut.data(), &in, end) != 4 || in > end)
        return "truncated read";
    return "";
}

TEST(HardeningThreads, RecordOperationsRunConcurrently) {
    std::vector<Expected> expected;
    std::mt19937 rng(99);
    for (const CorVaneSchema* s : allRecords()) {
        Expected e{s, Record(s), {}};
        fillRandom(*s, e.source.data(), rng);
        e.wire = encode(*s, e.source.data());
        expected.push_back(std::move(e));
    }
    clearLog();
    std::atomic<int> failures{0};
    std::vector<std::string> firstFailure(kThreads);
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            // Thread t takes every record type, starting at a different one,
            // so that different types are in flight at the same moment.
            for (int round = 0; round < kRounds; ++round) {
                for (size_t k = 0; k < expected.size(); ++k) {
                    const Expected& e = expected[(k + t * expected.size() / kThreads) % expected.size()];
                    const std::string what = exercise(e);
                    if (!what.empty() && failures.fetch_add(1) == 0)
                        firstFailure[t] = std::string(e.schema->name) + ": " + what;
                }
            }
        });
    }
    for (auto& th : threads) th.join();
    for (const auto& f : firstFailure) EXPECT_EQ("", f);
    EXPECT_EQ(0, failures.load());
    // Every truncated read logged its one line, none was lost.
    EXPECT_EQ(kThreads * kRounds * expected.size(), logLines().size());
    clearLog();
}

TEST(HardeningThreads, BodyCallbacksRunConcurrently) {
    struct Wire {
        const Binding* binding;
        Bytes bytes;
    };
    std::vector<Wire> wires;
    for (const Binding& b : bindings()) {
        Record payload(b.info->payload);
        fillFull(*b.info->payload, payload.data(), 5, Counts::kCapacity);
        void* body = std::calloc(1, b.info->bodySize);
        std::memcpy(body, &b.info->magic, 4);
        corVane_record_copy(b.info->payload, static_cast<uint8_t*>(body) + 8, payload.data());
        uint8_t* out = nullptr;
        uint32_t length = 0;
        ASSERT_EQ(0u, b.serializeBody(0, body, &out, &length));
        wires.push_back({&b, Bytes(out, out + length)});
        std::free(out);
        b.freeBody(0, body);
    }
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (size_t k = 0; k < wires.size(); ++k) {
                const Wire& w = wires[(k + t * 13) % wires.size()];
                void* body = nullptr;
                uint32_t size = 0;
                uint8_t* again = nullptr;
                uint32_t length = 0;
                if (corVane_unserializeBody_bounded(w.binding->info, 0, w.bytes.data(), w.bytes.size(),
                                                    &body, &size) != 0 ||
                    w.binding->serializeBody(0, body, &again, &length) != 0 ||
                    Bytes(again, again + length) != w.bytes)
                    failures.fetch_add(1);
                std::free(again);
                if (body) w.binding->freeBody(0, body);
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(0, failures.load());
}

}  // namespace
}  // namespace cvtest
