// A message's whole trip on the stand-in bus: the sender's body, serializeBody,
// freeBody of the sent body, the bus's exact-size copy, unserializeBody, the
// receive function and its handler, freeBody of the received body.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "bench_common.h"
#include "corvane/corvane.h"
#include "quib_stub.h"
#include "support/bindings.h"
#include "support/records.h"

namespace cvbench {
namespace {

struct Received {
    const CorVaneSchema* schema;
    const void* expected;
    uint64_t calls = 0;
    bool checking = false;
    bool intact = true;
};

uint32_t onPayload(void*, void* arg, void* payload) {
    auto* r = static_cast<Received*>(arg);
    ++r->calls;
    if (r->checking) r->intact = cvtest::diff(*r->schema, r->expected, payload).empty();
    benchmark::DoNotOptimize(payload);
    return 0;
}

struct Bus {
    void* voice;
    void* mgmt;
};

Bus& bus() {
    static Bus b = [] {
        if (corVane_addBase() != 0) fail("trip", "corVane_addBase failed");
        Bus x{quibStub_newUser("voice"), quibStub_newUser("mgmt")};
        if (corVane_regUser_msgMngt(x.voice, nullptr, nullptr, CORVANE_SELECT_BOTH) != 0 ||
            corVane_regUser_msgMngt(x.mgmt, nullptr, nullptr, CORVANE_SELECT_BOTH) != 0)
            fail("trip", "user registration failed");
        return x;
    }();
    return b;
}

struct Trip {
    const cvtest::Binding& message;
    cvtest::Record payload;
    Received received;
    size_t wireBytes;

    explicit Trip(const char* name) : message(bindingOf(name)), payload(message.info->payload),
                                      received{message.info->payload, payload.data()} {
        const CorVaneMessageInfo& m = *message.info;
        if (m.intf != CORVANE_INTF_CMD) fail(name, "a trip carries a command");
        cvtest::fillFull(*m.payload, payload.data(), 3, cvtest::Counts::kCapacity);
        if (message.listen(bus().mgmt, reinterpret_cast<void*>(onPayload), &received, nullptr,
                           "bus", "mgmt") != 0)
            fail(name, "server registration failed");
        wireBytes = 2 * 12 + corVane_record_serialize_lg(m.payload, payload.data());
        received.checking = true;
        if (message.send(bus().voice, nullptr, "mgmt", payload.data()) != 0 ||
            received.calls != 1 || !received.intact)
            fail(name, "the message does not arrive intact");
        received.checking = false;
    }

    static const cvtest::Binding& bindingOf(const char* name) {
        for (const cvtest::Binding& b : cvtest::bindings())
            if (std::strcmp(b.info->name, name) == 0) return b;
        fail(name, "no such message");
    }
};

void bmTrip(benchmark::State& st, Trip* t) {
    void* voice = bus().voice;
    const void* p = t->payload.data();
    const auto send = t->message.send;
    uint32_t failures = 0;
    for (auto _ : st) failures += send(voice, nullptr, "mgmt", p);
    if (failures) st.SkipWithError("a send failed");
    st.SetBytesProcessed(int64_t(st.iterations()) * int64_t(t->wireBytes));
    st.counters["wire_bytes"] = double(t->wireBytes);
}

// The memory work the interface prescribes for one trip, with encoding and
// decoding each replaced by a memcpy of the wire bytes: the sender's zeroed
// body and the copy of the record into it, the zeroed buffer, the bus's
// exact-size copy, the receiver's zeroed body, and the four frees. No codec
// can make the trip cheaper than this.
void bmPrescribed(benchmark::State& st, Trip* t) {
    const CorVaneMessageInfo& m = *t->message.info;
    const size_t body = m.bodySize, record = m.payload->size, wire = t->wireBytes;
    const size_t decoded = wire < record ? wire : record;
    std::vector<uint8_t> bytes(wire, 0x5a);
    const uint8_t* src = bytes.data();
    const auto* rec = static_cast<const uint8_t*>(t->payload.data());
    for (auto _ : st) {
        auto* sent = static_cast<uint8_t*>(std::malloc(body));
        benchmark::DoNotOptimize(sent);
        std::memset(sent, 0, body);
        std::memcpy(sent + CORVANE_BODY_PAYLOAD_OFFSET, rec, record);
        auto* buf = static_cast<uint8_t*>(std::calloc(wire, 1));
        benchmark::DoNotOptimize(buf);
        std::memcpy(buf, src, wire);
        std::free(sent);
        auto* copy = static_cast<uint8_t*>(std::malloc(wire));
        benchmark::DoNotOptimize(copy);
        std::memcpy(copy, buf, wire);
        std::free(buf);
        auto* got = static_cast<uint8_t*>(std::malloc(body));
        benchmark::DoNotOptimize(got);
        std::memset(got, 0, body);
        std::memcpy(got + CORVANE_BODY_PAYLOAD_OFFSET, copy, decoded);
        benchmark::ClobberMemory();
        std::free(copy);
        std::free(got);
    }
    st.counters["wire_bytes"] = double(wire);
}

}  // namespace

void registerTrips() {
    static Trip small("SetLineCallState");
    static Trip large("SetProfileConfig");
    benchmark::RegisterBenchmark("trip/SetLineCallState", bmTrip, &small);
    benchmark::RegisterBenchmark("floor/prescribed/SetLineCallState", bmPrescribed, &small);
    benchmark::RegisterBenchmark("trip/SetProfileConfig", bmTrip, &large);
    benchmark::RegisterBenchmark("floor/prescribed/SetProfileConfig", bmPrescribed, &large);
    needMemcpy(small.wireBytes);
    needMemcpy(large.wireBytes);
}

}  // namespace cvbench
