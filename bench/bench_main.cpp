// Entry point of corvane_bench: registers every benchmark, then the floors
// they asked for, and runs them with the usual Google Benchmark flags.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "bench_common.h"

namespace cvbench {
namespace {

std::set<size_t>& memcpySizes() {
    static std::set<size_t> s;
    return s;
}

std::set<size_t>& swapSizes() {
    static std::set<size_t> s;
    return s;
}

// The floor of a u32-only encoding: each word read, byte-swapped and
// stored, as the plainest code would do it. Not inlined, and the count is a
// runtime value, so the compiler cannot shape it to one size.
__attribute__((noinline)) void swapWords(uint32_t* __restrict dst, const uint32_t* __restrict src,
                                         size_t n) {
    for (size_t i = 0; i < n; ++i) dst[i] = __builtin_bswap32(src[i]);
}

}  // namespace

void needMemcpy(size_t bytes) { memcpySizes().insert(bytes); }
void needSwap(size_t words) { swapSizes().insert(words); }

bool scalarOnly(const CorVaneSchema& s) {
    for (uint32_t i = 0; i < s.fieldCount; ++i) {
        const CorVaneField& f = s.fields[i];
        if (f.kind == CORVANE_FIELD_TEXT) return false;
        if (f.record && !scalarOnly(*f.record)) return false;
    }
    return true;
}

void fail(const char* what, const char* detail) {
    std::fprintf(stderr, "corvane_bench: %s: %s\n", what, detail);
    std::exit(1);
}

void registerFloors() {
    for (size_t n : memcpySizes()) {
        auto src = std::shared_ptr<uint8_t[]>(new uint8_t[n + 1]);
        auto dst = std::shared_ptr<uint8_t[]>(new uint8_t[n + 1]);
        for (size_t i = 0; i < n; ++i) src[i] = static_cast<uint8_t>(i * 31 + 7);
        benchmark::RegisterBenchmark(("floor/memcpy/" + std::to_string(n)).c_str(),
                                     [src, dst, n](benchmark::State& st) {
                                         uint8_t* d = dst.get();
                                         const uint8_t* s = src.get();
                                         size_t len = n;
                                         for (auto _ : st) {
                                             benchmark::DoNotOptimize(d);
                                             benchmark::DoNotOptimize(len);
                                             std::memcpy(d, s, len);
                                             benchmark::ClobberMemory();
                                         }
                                         st.SetBytesProcessed(int64_t(st.iterations()) * n);
                                     });
    }
    for (size_t w : swapSizes()) {
        auto src = std::shared_ptr<uint32_t[]>(new uint32_t[w + 1]);
        auto dst = std::shared_ptr<uint32_t[]>(new uint32_t[w + 1]);
        for (size_t i = 0; i < w; ++i) src[i] = static_cast<uint32_t>(i * 2654435761u);
        benchmark::RegisterBenchmark(("floor/bswap/" + std::to_string(w)).c_str(),
                                     [src, dst, w](benchmark::State& st) {
                                         for (auto _ : st) {
                                             swapWords(dst.get(), src.get(), w);
                                             benchmark::ClobberMemory();
                                         }
                                         st.SetBytesProcessed(int64_t(st.iterations()) * w * 4);
                                     });
    }
}

}  // namespace cvbench

int main(int argc, char** argv) {
    // The trips allocate and free blocks of ~200 KB. With glibc's default
    // thresholds the heap top is given back to the kernel after each large
    // trip and faulted in again by the next, so the figure would be mostly
    // page faults. A long-running service keeps its heap warm; so does the
    // bench, unless CORVANE_BENCH_DEFAULT_MALLOC=1 asks for the defaults.
    const char* keep = std::getenv("CORVANE_BENCH_DEFAULT_MALLOC");
    if (!keep || std::strcmp(keep, "1") != 0) {
        mallopt(M_MMAP_THRESHOLD, 16 << 20);
        mallopt(M_TRIM_THRESHOLD, 64 << 20);
        benchmark::AddCustomContext("malloc", "glibc, mmap threshold 16 MB, trim threshold 64 MB");
    } else {
        benchmark::AddCustomContext("malloc", "glibc defaults");
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    cvbench::registerRecords();
    cvbench::registerTrips();
    cvbench::registerPeer();
    cvbench::registerFloors();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
