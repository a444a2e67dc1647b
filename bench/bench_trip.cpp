// A message's whole trip on the stand-in bus: the sender's body, serializeBody,
// freeBody of the sent body, the bus's exact-size copy, unserializeBody, the
// receive function and its handler, freeBody of the received body.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "bench_common.h"
#include "corvane/corvane.h"
#include "quib_stub.h"
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

using Send = uint32_t (*)(void* user, void* arg, const char* userName, const void* record);
using Serve = uint32_t (*)(void* user, void* a, void* b, void* c);

struct Trip {
    cvtest::Record payload;
    Received received;
    Send send;
    size_t wireBytes;

    Trip(const CorVaneMessageInfo* m, Send s, Serve serve, bool full)
        : payload(m->payload), received{m->payload, payload.data()}, send(s) {
        if (full) cvtest::fillFull(*m->payload, payload.data(), 3, cvtest::Counts::kCapacity);
        if (serve(bus().mgmt, reinterpret_cast<void*>(onPayload), &received, nullptr) != 0)
            fail(m->name, "server registration failed");
        wireBytes = 2 * 12 + corVane_record_serialize_lg(m->payload, payload.data());
        received.checking = true;
        if (send(bus().voice, nullptr, "mgmt", payload.data()) != 0 || received.calls != 1 ||
            !received.intact)
            fail(m->name, "the message does not arrive intact");
        received.checking = false;
    }
};

void bmTrip(benchmark::State& st, Trip* t) {
    void* voice = bus().voice;
    const void* p = t->payload.data();
    uint32_t failures = 0;
    for (auto _ : st) failures += t->send(voice, nullptr, "mgmt", p);
    if (failures) st.SkipWithError("a send failed");
    st.SetBytesProcessed(int64_t(st.iterations()) * int64_t(t->wireBytes));
    st.counters["wire_bytes"] = double(t->wireBytes);
}

template <class T, uint32_t (*F)(void*, void*, const char*, const T*)>
uint32_t sendAs(void* user, void* arg, const char* to, const void* rec) {
    return F(user, arg, to, static_cast<const T*>(rec));
}

}  // namespace

void registerTrips() {
    static Trip small(corVane_messageByName("SetLineCallState"),
                      sendAs<lineCallState, corVane_sendReq_setLineCallState>,
                      corVane_modSrv_recvMsg_setLineCallState, true);
    static Trip large(corVane_messageByName("SetProfileConfig"),
                      sendAs<VoiceProfile, corVane_sendReq_setProfileConfig>,
                      corVane_modSrv_recvMsg_setProfileConfig, true);
    benchmark::RegisterBenchmark("trip/SetLineCallState", bmTrip, &small);
    benchmark::RegisterBenchmark("trip/SetProfileConfig", bmTrip, &large);
    needMemcpy(small.wireBytes);
    needMemcpy(large.wireBytes);
}

}  // namespace cvbench
