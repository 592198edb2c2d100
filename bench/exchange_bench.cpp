// Exchanges per second of GetReaderType through the library, against a raw loop that writes the same 7
// bytes and reads the same 12 on the same link (the simulated reader on a pseudo-terminal), in one run.
// Also counts heap allocations made on the calling thread during the library's loop.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>

#include "bench_link.h"

extern "C" void *__libc_malloc(size_t);
extern "C" void *__libc_calloc(size_t, size_t);
extern "C" void *__libc_realloc(void *, size_t);

// Shared with the other benchmarks of this binary that count allocations.
namespace zelbench {
thread_local bool t_counting = false;
thread_local uint64_t t_allocations = 0;
} // namespace zelbench
using zelbench::t_allocations;
using zelbench::t_counting;

// Allocation counting: the bench binary interposes the allocator and counts the calling thread's calls.
extern "C" void *malloc(size_t n)
{
    if (t_counting)
        ++t_allocations;
    return __libc_malloc(n);
}
extern "C" void *calloc(size_t a, size_t b)
{
    if (t_counting)
        ++t_allocations;
    return __libc_calloc(a, b);
}
extern "C" void *realloc(void *p, size_t n)
{
    if (t_counting)
        ++t_allocations;
    return __libc_realloc(p, n);
}

namespace {

void BM_LibraryGetReaderType(benchmark::State &state)
{
    zelbench::SimLink link;
    zel_handle_record &rec = link.rec;
    if (!link.open) {
        state.SkipWithError("open failed");
        return;
    }
    uint32_t type = 0;
    uint64_t failures = 0;
    t_allocations = 0;
    for (auto _ : state) {
        t_counting = true;
        const ZEL_STATUS s = GetReaderTypeM(&rec, &type);
        t_counting = false;
        failures += s != ZEL_OK;
    }
    state.counters["exchanges_per_s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["allocs_per_exchange"] =
        static_cast<double>(t_allocations) / static_cast<double>(state.iterations() ? state.iterations() : 1);
    state.counters["failures"] = static_cast<double>(failures);
}

void BM_RawLoopGetReaderType(benchmark::State &state)
{
    zelbench::SimLink link;
    if (!link.open) {
        state.SkipWithError("open failed");
        return;
    }
    const int fd = link.fd();
    const uint8_t frame[7] = {0x55, 0x10, 0xAA, 0x00, 0x00, 0x00, 0xF6};
    uint8_t reply[12];
    uint64_t failures = 0;
    for (auto _ : state) {
        if (write(fd, frame, 7) != 7 || !zelbench::read_exact(fd, reply, 12))
            ++failures;
    }
    state.counters["exchanges_per_s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["failures"] = static_cast<double>(failures);
}

// Both loops interleaved on one link, exchange by exchange, so that a change of the machine's load hits
// both alike: the ratio counter is the library's rate over the raw loop's.
void BM_LibraryOverRawInterleaved(benchmark::State &state)
{
    zelbench::SimLink link;
    zel_handle_record &rec = link.rec;
    if (!link.open) {
        state.SkipWithError("open failed");
        return;
    }
    const int fd = link.fd();
    const uint8_t frame[7] = {0x55, 0x10, 0xAA, 0x00, 0x00, 0x00, 0xF6};
    uint8_t reply[12];
    uint32_t type = 0;
    zelbench::interleave(
        state, "exchanges", [&] { return write(fd, frame, 7) == 7 && zelbench::read_exact(fd, reply, 12); },
        [&] { return GetReaderTypeM(&rec, &type) == ZEL_OK; }, link.sim);
}

BENCHMARK(BM_LibraryOverRawInterleaved)->MinTime(2.0)->UseRealTime();
BENCHMARK(BM_RawLoopGetReaderType)->MinTime(1.0)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_LibraryGetReaderType)->MinTime(1.0)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);

} // namespace

BENCHMARK_MAIN();
