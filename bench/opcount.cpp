// Instructions per operation, counted by callgrind: a figure that does not
// move with the load of a shared machine, for comparing engine changes.
//
//   valgrind --tool=callgrind --instr-atstart=no --collect-atstart=no
//       corvane_bench_opcount <Record|trip> <empty|full|Message> <op> [N]
//
// op: serialize, unserialize, copy, serialize_lg; for "trip", any message's
// name (e.g. SetLineCallState, SetProfileConfig) and op "send". Collection is on
// only around N (default 200) calls; the count callgrind prints at exit,
// divided by N, is the figure. bench/opcount.sh runs a list of them.
#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "corvane/corvane.h"
#include "quib_stub.h"
#include "support/bindings.h"
#include "support/records.h"
#include "typed_ops.h"

namespace {

[[noreturn]] void usage(const char* why) {
    std::fprintf(stderr, "corvane_bench_opcount: %s\n", why);
    std::exit(2);
}

uint32_t onPayload(void*, void*, void*) { return 0; }

template <class F>
void measure(int n, F&& op) {
    op();  // warm: first-call binding, first touch
    CALLGRIND_START_INSTRUMENTATION;
    CALLGRIND_TOGGLE_COLLECT;
    for (int i = 0; i < n; ++i) op();
    CALLGRIND_TOGGLE_COLLECT;
    CALLGRIND_STOP_INSTRUMENTATION;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) usage("usage: <Record|trip> <empty|full|Message> <op> [N]");
    const std::string what = argv[1], how = argv[2], op = argv[3];
    const int n = argc > 4 ? std::atoi(argv[4]) : 200;
    if (n <= 0) usage("N must be positive");

    if (what == "trip") {
        const cvtest::Binding* b = nullptr;
        for (const cvtest::Binding& x : cvtest::bindings())
            if (how == x.info->name) b = &x;
        if (!b || op != "send") usage("trip needs a message name and op send");
        if (corVane_addBase() != 0) usage("corVane_addBase failed");
        void* voice = quibStub_newUser("voice");
        void* mgmt = quibStub_newUser("mgmt");
        corVane_regUser_msgMngt(voice, nullptr, nullptr, CORVANE_SELECT_BOTH);
        corVane_regUser_msgMngt(mgmt, nullptr, nullptr, CORVANE_SELECT_BOTH);
        // Commands go from the voice service to the management side,
        // notifications the other way.
        const bool command = b->info->intf == CORVANE_INTF_CMD;
        if (b->listen(command ? mgmt : voice, reinterpret_cast<void*>(onPayload), nullptr, nullptr,
                      "bus", command ? "mgmt" : "voice") != 0)
            usage("registration failed");
        cvtest::Record payload(b->info->payload);
        cvtest::fillFull(*b->info->payload, payload.data(), 3, cvtest::Counts::kCapacity);
        uint32_t failures = 0;
        measure(n, [&] { failures += b->send(command ? voice : mgmt, nullptr, "mgmt", payload.data()); });
        if (failures) usage("a send failed");
        return 0;
    }

    const CorVaneSchema* s = corVane_recordSchema(what.c_str());
    if (!s) usage("no such record type");
    const cvtest::TypedOps& ops = cvtest::typedOps(s);
    cvtest::Record src(s), dst(s);
    if (how == "full") cvtest::fillFull(*s, src.data(), 1, cvtest::Counts::kCapacity);
    else if (how != "empty") usage("empty or full");
    std::vector<uint8_t> wire(ops.length(src.data()));
    uint8_t* c = wire.data();
    if (ops.serialize(src.data(), &c) != 0) usage("serialize failed");
    std::vector<uint8_t> out(wire.size());
    uint32_t bad = 0;
    if (op == "serialize") {
        measure(n, [&] { uint8_t* cur = out.data(); bad += ops.serialize(src.data(), &cur); });
    } else if (op == "unserialize") {
        measure(n, [&] { const uint8_t* cur = wire.data(); bad += ops.unserialize(dst.data(), &cur); });
    } else if (op == "copy") {
        measure(n, [&] { bad += ops.copy(dst.data(), src.data()); });
    } else if (op == "serialize_lg") {
        measure(n, [&] { bad += ops.length(src.data()) == wire.size() ? 0 : 1; });
    } else {
        usage("op: serialize, unserialize, copy or serialize_lg");
    }
    if (bad) usage("an operation failed");
    return 0;
}
