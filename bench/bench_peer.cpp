// The peer: the same full CallingFeatures and full VoiceProfile content
// encoded and decoded by protobuf C++ (messages written from our schemas by
// protogen.cpp), next to the library doing the same job.
//
// Both sides are given the job on equal terms: an encode produces the
// encoding into a buffer from the in-memory record, length included (ours:
// serialize_lg then serialize; protobuf: SerializeToArray, which sizes the
// message first); a decode reads the encoding into an existing object (ours:
// unserialize into a record; protobuf: ParseFromArray into a message reused
// from the previous iteration, so that it keeps its strings and sub-messages
// and allocates nothing new — its fastest path without an arena).
#include <benchmark/benchmark.h>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bench_common.h"
#include "corvane_peer.pb.h"
#include "support/records.h"

namespace cvbench {
namespace {

namespace pb = google::protobuf;

uint32_t word(const uint8_t* p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

// Fills a protobuf message with the record's content, field by field, by
// tag; fails if the message's definition does not match the schema.
void fill(const CorVaneSchema& s, const uint8_t* rec, pb::Message& msg) {
    const pb::Descriptor* d = msg.GetDescriptor();
    const pb::Reflection* r = msg.GetReflection();
    for (uint32_t i = 0; i < s.fieldCount; ++i) {
        const CorVaneField& f = s.fields[i];
        const pb::FieldDescriptor* fd = d->FindFieldByNumber(int(i + CORVANE_FIRST_TAG));
        if (!fd || fd->name() != f.name) fail(s.name, "peer definition does not match");
        const uint8_t* m = rec + f.offset;
        switch (f.kind) {
            case CORVANE_FIELD_U32:
                r->SetUInt32(&msg, fd, word(m));
                break;
            case CORVANE_FIELD_TEXT:
                r->SetString(&msg, fd,
                             std::string(reinterpret_cast<const char*>(m),
                                         strnlen(reinterpret_cast<const char*>(m), f.capacity)));
                break;
            case CORVANE_FIELD_RECORD:
                fill(*f.record, m, *r->MutableMessage(&msg, fd));
                break;
            default: {
                uint32_t n = f.capacity;
                if (f.kind == CORVANE_FIELD_ARRAY) {
                    const uint32_t count = word(rec + s.fields[i - 1].offset);
                    n = count < n ? count : n;
                }
                for (uint32_t j = 0; j < n; ++j)
                    fill(*f.record, m + j * f.record->size, *r->AddMessage(&msg, fd));
                break;
            }
        }
    }
}

struct Peer {
    const CorVaneSchema* schema;
    cvtest::Record rec;
    cvtest::Record decoded;
    std::vector<uint8_t> wire;
    std::vector<uint8_t> out;
    std::unique_ptr<pb::Message> msg;
    std::unique_ptr<pb::Message> parsed;
    std::string pbWire;
    std::vector<uint8_t> pbOut;

    Peer(const char* name, std::unique_ptr<pb::Message> proto)
        : schema(corVane_recordSchema(name)), rec(schema), decoded(schema), msg(std::move(proto)) {
        cvtest::fillFull(*schema, rec.data(), 5, cvtest::Counts::kCapacity);
        const uint32_t n = corVane_record_serialize_lg(schema, rec.data());
        wire.assign(n, 0);
        out.assign(n, 0);
        uint8_t* c = wire.data();
        if (corVane_record_serialize(schema, rec.data(), &c) != 0) fail(name, "serialize failed");
        fill(*schema, rec.data(), *msg);
        parsed.reset(msg->New());
        if (!msg->SerializeToString(&pbWire)) fail(name, "protobuf serialize failed");
        pbOut.assign(pbWire.size(), 0);
        if (!parsed->ParseFromString(pbWire) || parsed->SerializeAsString() != pbWire)
            fail(name, "protobuf round trip differs");
    }
};

void counters(benchmark::State& st, const Peer& p, size_t bytes) {
    st.SetBytesProcessed(int64_t(st.iterations()) * int64_t(bytes));
    st.counters["wire_bytes"] = double(p.wire.size());
    st.counters["protobuf_bytes"] = double(p.pbWire.size());
}

void bmOurEncode(benchmark::State& st, Peer* p) {
    const void* rec = p->rec.data();
    for (auto _ : st) {
        const uint32_t n = corVane_record_serialize_lg(p->schema, rec);
        if (n > p->out.size()) st.SkipWithError("length grew");
        uint8_t* cur = p->out.data();
        benchmark::DoNotOptimize(corVane_record_serialize(p->schema, rec, &cur));
        benchmark::ClobberMemory();
    }
    counters(st, *p, p->wire.size());
}

void bmOurDecode(benchmark::State& st, Peer* p) {
    void* rec = p->decoded.data();
    for (auto _ : st) {
        const uint8_t* cur = p->wire.data();
        benchmark::DoNotOptimize(corVane_record_unserialize(p->schema, rec, &cur));
        benchmark::ClobberMemory();
    }
    counters(st, *p, p->wire.size());
}

void bmPbEncode(benchmark::State& st, Peer* p) {
    for (auto _ : st) {
        benchmark::DoNotOptimize(
            p->msg->SerializeToArray(p->pbOut.data(), int(p->pbOut.size())));
        benchmark::ClobberMemory();
    }
    counters(st, *p, p->pbWire.size());
}

void bmPbDecode(benchmark::State& st, Peer* p) {
    for (auto _ : st) {
        benchmark::DoNotOptimize(p->parsed->ParseFromArray(p->pbWire.data(), int(p->pbWire.size())));
        benchmark::ClobberMemory();
    }
    counters(st, *p, p->pbWire.size());
}

}  // namespace

void registerPeer() {
    static Peer peers[] = {
        {"CallingFeatures", std::make_unique<corvane_peer::CallingFeatures>()},
        {"VoiceProfile", std::make_unique<corvane_peer::VoiceProfile>()},
    };
    for (Peer& p : peers) {
        const std::string n = p.schema->name;
        benchmark::RegisterBenchmark(("peer/corvane/" + n + "/encode").c_str(), bmOurEncode, &p);
        benchmark::RegisterBenchmark(("peer/corvane/" + n + "/decode").c_str(), bmOurDecode, &p);
        benchmark::RegisterBenchmark(("peer/protobuf/" + n + "/encode").c_str(), bmPbEncode, &p);
        benchmark::RegisterBenchmark(("peer/protobuf/" + n + "/decode").c_str(), bmPbDecode, &p);
    }
}

}  // namespace cvbench
