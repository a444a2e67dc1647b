// The record and body operations hold no mutable state of their own: several
// threads copy, serialise and unserialise every record and every message body
// at once, with refusals that log along the way, and must get exactly the
// bytes one thread got. Under ThreadSanitizer (the tsan preset) any data race
// in those paths fails the run.
#include <gtest/gtest.h>

#include <thread>

#include "support/bindings.h"
#include "support/records.h"
#include "support/syslog_capture.h"
#include "support/wire_edit.h"

namespace cvtest {
namespace {

// "" or what went wrong with record i (i < 66) or message body i - 66.
std::string trip(size_t i, const std::vector<Record>& sources, const std::vector<Bytes>& wires) {
    const Bytes& wire = wires[i];
    if (i < sources.size()) {
        const CorVaneSchema& s = *sources[i].schema();
        Record copy(&s), back(&s);
        const uint8_t* in = wire.data();
        const uint8_t* half = wire.data() + wire.size() / 2;
        if (corVane_record_copy(&s, copy.data(), sources[i].data()) != 0 || encode(s, copy.data()) != wire)
            return std::string(s.name) + ": copy or encoding";
        if (corVane_record_unserialize(&s, back.data(), &in) != 0 || !diff(s, sources[i].data(), back.data()).empty())
            return std::string(s.name) + ": unserialize";
        in = wire.data();
        if (corVane_record_unserialize_bounded(&s, back.data(), &in, half) != 4 || in > half)
            return std::string(s.name) + ": truncated read";
        return "";
    }
    const Binding& b = bindings()[i - sources.size()];
    void* body = nullptr;
    uint32_t size = 0;
    if (corVane_unserializeBody_bounded(b.info, 0, wire.data(), static_cast<uint32_t>(wire.size()), &body, &size))
        return std::string(b.info->name) + ": unserializeBody";
    const Bytes again = serializedBody(b, body);
    b.freeBody(0, body);
    return again == wire ? "" : std::string(b.info->name) + ": serializeBody";
}

TEST(HardeningThreads, RecordAndBodyOperationsRunConcurrently) {
    constexpr unsigned kThreads = 4;
    constexpr int kRounds = 3;
    std::vector<Record> sources;
    std::vector<Bytes> wires;
    std::mt19937 rng(99);
    for (const CorVaneSchema* s : allRecords()) {
        sources.emplace_back(s);
        fillRandom(*s, sources.back().data(), rng);
        wires.push_back(encode(*s, sources.back().data()));
    }
    for (const Binding& b : bindings()) {
        Record payload(b.info->payload);
        fillFull(*b.info->payload, payload.data(), 5, Counts::kCapacity);
        void* body = makeBody(b, payload.data());
        wires.push_back(serializedBody(b, body));
        b.freeBody(0, body);
    }
    clearLog();
    std::vector<std::string> first(kThreads);  // each thread's first failure
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            // Each thread starts at another type, so that different ones are in flight together.
            for (size_t k = 0; k < kRounds * wires.size() && first[t].empty(); ++k)
                first[t] = trip((k + t * wires.size() / kThreads) % wires.size(), sources, wires);
        });
    for (auto& th : threads) th.join();
    for (const auto& f : first) EXPECT_EQ("", f);
    // Every truncated read logged its one line, none was lost.
    EXPECT_EQ(kThreads * kRounds * sources.size(), logLines().size());
    clearLog();
}

}  // namespace
}  // namespace cvtest
