// The typed operations of every record type, on an empty instance (zeroed:
// texts empty, counts 0) and a full one (texts at capacity - 1, arrays full).
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "bench_common.h"
#include "support/records.h"
#include "typed_ops.h"

namespace cvbench {
namespace {

struct Case {
    const CorVaneSchema* schema;
    const cvtest::TypedOps* ops;
    cvtest::Record src;
    cvtest::Record dst;
    std::vector<uint8_t> wire;  // src's encoding
    std::vector<uint8_t> out;   // where serialize writes

    Case(const CorVaneSchema* s, bool full)
        : schema(s), ops(&cvtest::typedOps(s)), src(s), dst(s) {
        if (full) cvtest::fillFull(*s, src.data(), 1, cvtest::Counts::kCapacity);
        const uint32_t n = ops->length(src.data());
        size_t expected = 0;
        for (const auto& e : cvtest::elements(*s, src.data())) expected += e.wireSize;
        if (n != expected) fail(s->name, "serialize_lg is off");
        wire.assign(n, 0);
        out.assign(n, 0);
        uint8_t* c = wire.data();
        if (ops->serialize(src.data(), &c) != 0 || c != wire.data() + n)
            fail(s->name, "serialize failed");
        const uint8_t* r = wire.data();
        if (ops->unserialize(dst.data(), &r) != 0 || r != wire.data() + n ||
            !cvtest::diff(*s, src.data(), dst.data()).empty())
            fail(s->name, "unserialize does not give the record back");
        cvtest::Record copied(s);
        if (ops->copy(copied.data(), src.data()) != 0 ||
            !cvtest::diff(*s, src.data(), copied.data()).empty())
            fail(s->name, "copy does not give the record back");
    }
};

std::vector<std::unique_ptr<Case>>& cases() {
    static std::vector<std::unique_ptr<Case>> v;
    return v;
}

void setCounters(benchmark::State& st, const Case& c) {
    st.SetBytesProcessed(int64_t(st.iterations()) * int64_t(c.wire.size()));
    st.counters["wire_bytes"] = double(c.wire.size());
    st.counters["record_bytes"] = double(c.schema->size);
    st.counters["scalar_only"] = scalarOnly(*c.schema) ? 1 : 0;
}

void bmSerialize(benchmark::State& st, Case* c) {
    const void* rec = c->src.data();
    uint8_t* buf = c->out.data();
    for (auto _ : st) {
        uint8_t* cur = buf;
        benchmark::DoNotOptimize(c->ops->serialize(rec, &cur));
        benchmark::ClobberMemory();
    }
    setCounters(st, *c);
}

void bmLength(benchmark::State& st, Case* c) {
    const void* rec = c->src.data();
    for (auto _ : st) benchmark::DoNotOptimize(c->ops->length(rec));
    setCounters(st, *c);
}

void bmUnserialize(benchmark::State& st, Case* c) {
    void* rec = c->dst.data();
    const uint8_t* buf = c->wire.data();
    for (auto _ : st) {
        const uint8_t* cur = buf;
        benchmark::DoNotOptimize(c->ops->unserialize(rec, &cur));
        benchmark::ClobberMemory();
    }
    setCounters(st, *c);
}

void bmCopy(benchmark::State& st, Case* c) {
    void* d = c->dst.data();
    const void* s = c->src.data();
    for (auto _ : st) {
        benchmark::DoNotOptimize(c->ops->copy(d, s));
        benchmark::ClobberMemory();
    }
    setCounters(st, *c);
}

}  // namespace

void registerRecords() {
    for (const CorVaneSchema* s : cvtest::allRecords()) {
        for (bool full : {false, true}) {
            cases().push_back(std::make_unique<Case>(s, full));
            Case* c = cases().back().get();
            const std::string base =
                std::string("record/") + s->name + (full ? "/full/" : "/empty/");
            benchmark::RegisterBenchmark((base + "serialize").c_str(), bmSerialize, c);
            benchmark::RegisterBenchmark((base + "unserialize").c_str(), bmUnserialize, c);
            benchmark::RegisterBenchmark((base + "copy").c_str(), bmCopy, c);
            benchmark::RegisterBenchmark((base + "serialize_lg").c_str(), bmLength, c);
            needMemcpy(c->wire.size());
            needMemcpy(s->size);
            if (scalarOnly(*s)) needSwap(c->wire.size() / 4);
        }
    }
}

}  // namespace cvbench
