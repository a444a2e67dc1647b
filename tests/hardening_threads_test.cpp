// The record and body operations hold no mutable state of their own: several
// threads may serialise, unserialise and copy at once, with refusals that log
// along the way, and must get exactly the bytes one thread got. Under
// ThreadSanitizer (the tsan preset) any data race in those paths fails the run.
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

// A record's copy, its encoding, both reads back, and a refused read of the
// first half of its bytes (one line); "" or what differed.
std::string recordTrip(const CorVaneSchema& s, const Record& source, const Bytes& wire) {
    Record copy(&s), back(&s), cut(&s);
    if (corVane_record_copy(&s, copy.data(), source.data()) != 0) return "copy";
    if (encode(s, copy.data()) != wire) return "encoding";
    const uint8_t* in = wire.data();
    if (corVane_record_unserialize(&s, back.data(), &in) != 0 || in != wire.data() + wire.size())
        return "unserialize";
    if (!diff(s, source.data(), back.data()).empty()) return "unserialized fields";
    in = wire.data();
    const uint8_t* end = wire.data() + wire.size() / 2;
    if (corVane_record_unserialize_bounded(&s, cut.data(), &in, end) != 4 || in > end) return "truncated read";
    return "";
}

// A body read back from its bytes and serialised again; "" or what differed.
std::string bodyTrip(const Binding& b, const Bytes& wire) {
    void* body = nullptr;
    uint8_t* again = nullptr;
    uint32_t size = 0, length = 0;
    std::string what;
    if (corVane_unserializeBody_bounded(b.info, 0, wire.data(), wire.size(), &body, &size) != 0)
        what = "unserializeBody";
    else if (b.serializeBody(0, body, &again, &length) != 0 || Bytes(again, again + length) != wire)
        what = "serializeBody";
    std::free(again);
    if (body) b.freeBody(0, body);
    return what;
}

// Each thread takes every record type and every message, starting at a
// different one, so that different types are in flight at the same moment.
TEST(HardeningThreads, RecordAndBodyOperationsRunConcurrently) {
    const std::vector<const CorVaneSchema*> schemas = allRecords();
    std::vector<Record> sources;
    std::vector<Bytes> recordWires, bodyWires;
    std::mt19937 rng(99);
    sources.reserve(schemas.size());
    for (const CorVaneSchema* s : schemas) {
        sources.emplace_back(s);
        fillRandom(*s, sources.back().data(), rng);
        recordWires.push_back(encode(*s, sources.back().data()));
    }
    for (const Binding& b : bindings()) {
        Record payload(b.info->payload);
        fillFull(*b.info->payload, payload.data(), 5, Counts::kCapacity);
        void* body = makeBody(b, payload.data());
        bodyWires.push_back(serializedBody(b, body));
        ASSERT_FALSE(bodyWires.back().empty()) << b.info->name;
        b.freeBody(0, body);
    }
    clearLog();
    std::atomic<int> failures{0};
    std::vector<std::string> first(kThreads);
    const auto fail = [&](unsigned t, const std::string& what) {
        if (failures.fetch_add(1) == 0) first[t] = what;
    };
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int round = 0; round < kRounds; ++round) {
                for (size_t k = 0; k < schemas.size(); ++k) {
                    const size_t i = (k + t * schemas.size() / kThreads) % schemas.size();
                    if (auto what = recordTrip(*schemas[i], sources[i], recordWires[i]); !what.empty())
                        fail(t, schemas[i]->name + (": " + what));
                }
                for (size_t k = 0; k < bodyWires.size(); ++k) {
                    const size_t i = (k + t * 13) % bodyWires.size();
                    if (auto what = bodyTrip(bindings()[i], bodyWires[i]); !what.empty())
                        fail(t, bindings()[i].info->name + (": " + what));
                }
            }
        });
    for (auto& th : threads) th.join();
    for (const auto& f : first) EXPECT_EQ("", f);
    EXPECT_EQ(0, failures.load());
    // Every truncated read logged its one line, none was lost.
    EXPECT_EQ(kThreads * kRounds * schemas.size(), logLines().size());
    clearLog();
}

}  // namespace
}  // namespace cvtest
