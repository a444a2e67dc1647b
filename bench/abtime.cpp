// Times one record operation in two builds of the library loaded side by
// side into this process (each in its own link namespace), alternating
// between them in short batches. On a shared machine whose speed drifts
// from minute to minute, two separate benchmark runs differ by more than
// most engine changes; batches a few tens of microseconds apart see the same
// machine, so the ratio of their medians is the figure to compare.
//
//   corvane_bench_abtime LIB_A LIB_B <Record> <empty|full> <op> [rounds]
//
// op: serialize, unserialize, copy, serialize_lg. Prints the median and the
// fastest batch of each build (ns per operation), B / A of the medians and
// the share of rounds in which B was the faster. bench/ab.sh runs a list.
#include <dlfcn.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "corvane/schema.h"
#include "support/records.h"

namespace {

[[noreturn]] void fail(const std::string& why) {
    std::fprintf(stderr, "corvane_bench_abtime: %s\n", why.c_str());
    std::exit(2);
}

using Schema = const CorVaneSchema*;

// The generic entry points of one build.
struct Build {
    Schema (*schema)(const char*);
    uint32_t (*length)(Schema, const void*);
    uint32_t (*serialize)(Schema, const void*, uint8_t**);
    uint32_t (*unserialize)(Schema, void*, const uint8_t**);
    uint32_t (*copy)(Schema, void*, const void*);
};

template <class F>
void bind(void* lib, const char* name, F& f) {
    f = reinterpret_cast<F>(dlsym(lib, name));
    if (!f) fail(std::string("no ") + name);
}

Build load(const char* path) {
    // Lazy: libCorvane's middleware imports are left unbound in the new
    // namespace, where no middleware is loaded; the record operations timed
    // here never call them.
    void* lib = dlmopen(LM_ID_NEWLM, path, RTLD_LAZY | RTLD_LOCAL);
    if (!lib) fail(dlerror());
    Build b{};
    bind(lib, "corVane_recordSchema", b.schema);
    bind(lib, "corVane_record_serialize_lg", b.length);
    bind(lib, "corVane_record_serialize", b.serialize);
    bind(lib, "corVane_record_unserialize", b.unserialize);
    bind(lib, "corVane_record_copy", b.copy);
    return b;
}

// One operation of one build on fixed data.
struct Case {
    Build b;
    Schema s;
    const uint8_t* rec;
    uint8_t* out;
    const uint8_t* wire;
    uint8_t* dst;
    int op;

    void run() const {
        switch (op) {
            case 0: {
                uint8_t* c = out;
                b.serialize(s, rec, &c);
                break;
            }
            case 1: {
                const uint8_t* c = wire;
                b.unserialize(s, dst, &c);
                break;
            }
            case 2:
                b.copy(s, dst, rec);
                break;
            default: {
                volatile uint32_t n = b.length(s, rec);
                (void)n;
            }
        }
        asm volatile("" ::: "memory");
    }

    double batch(int n) const {
        const auto t0 = std::chrono::steady_clock::now();
        for (int i = 0; i < n; ++i) run();
        return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - t0)
                   .count() / n;
    }
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 6) fail("usage: LIB_A LIB_B <Record> <empty|full> <op> [rounds]");
    const std::string how = argv[4], opName = argv[5];
    const int rounds = argc > 6 ? std::atoi(argv[6]) : 300;
    const char* ops[] = {"serialize", "unserialize", "copy", "serialize_lg"};
    const int op = static_cast<int>(std::find(ops, ops + 4, opName) - ops);
    if (op == 4 || (how != "empty" && how != "full") || rounds < 1) fail("bad arguments");

    const Build builds[2] = {load(argv[1]), load(argv[2])};
    const Schema s = builds[0].schema(argv[3]);
    if (!s || !builds[1].schema(argv[3])) fail(std::string("no record ") + argv[3]);
    // One instance for both builds: the layout is the public struct's.
    cvtest::Record rec(s), dst(s);
    if (how == "full") cvtest::fillFull(*s, rec.data(), 1, cvtest::Counts::kCapacity);
    const uint32_t n = builds[0].length(s, rec.data());
    if (n != builds[1].length(builds[1].schema(argv[3]), rec.data())) fail("lengths differ");
    std::vector<uint8_t> wire(n), out(n);
    uint8_t* c = wire.data();
    if (builds[0].serialize(s, rec.data(), &c) != 0) fail("serialize failed");

    Case cases[2];
    for (int i = 0; i < 2; ++i)
        cases[i] = {builds[i], builds[i].schema(argv[3]), rec.data(), out.data(), wire.data(),
                    dst.data(), op};
    // Batches of about 50 microseconds.
    int batch = 1;
    while (cases[0].batch(batch) * batch < 50e3 && batch < (1 << 24)) batch *= 2;

    std::vector<double> t[2];
    int bFaster = 0;
    for (int r = 0; r < rounds; ++r) {
        double x[2];
        for (int k = 0; k < 2; ++k) {
            const int i = (r & 1) ? 1 - k : k;  // alternate which goes first
            x[i] = cases[i].batch(batch);
        }
        t[0].push_back(x[0]);
        t[1].push_back(x[1]);
        bFaster += x[1] < x[0];
    }
    for (auto& v : t) std::sort(v.begin(), v.end());
    const double a = t[0][t[0].size() / 2], b = t[1][t[1].size() / 2];
    std::printf("%-34s A %9.1f (fastest %9.1f)  B %9.1f (fastest %9.1f)  B/A %.3f  B faster in %3d%%\n",
                (std::string(argv[3]) + "/" + how + "/" + opName).c_str(), a, t[0][0], b, t[1][0],
                b / a, 100 * bFaster / rounds);
}
