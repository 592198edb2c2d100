// Exchanges per second of GetReaderType through the library, against a raw loop that writes the same 7
// bytes and reads the same 12 on the same link (the simulated reader on a pseudo-terminal), in one run.
// Also counts heap allocations made on the calling thread during the library's loop.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "core/internal.h"
#include "tandro.h"
#include "transport/serial.h"
#include "zelsim.h"

extern "C" void *__libc_malloc(size_t);
extern "C" void *__libc_calloc(size_t, size_t);
extern "C" void *__libc_realloc(void *, size_t);

namespace {
thread_local bool t_counting = false;
thread_local uint64_t t_allocations = 0;
} // namespace

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

struct SimReader {
    zsim *sim = nullptr;
    char path[256] = {};
    SimReader()
    {
        sim = zsim_new();
        zsim_set_reader_type(sim, 0xD1180022);
        if (zsim_serve_pty(sim, path, sizeof path) != 0)
            std::abort();
    }
    ~SimReader() { zsim_free(sim); }
};

void BM_LibraryGetReaderType(benchmark::State &state)
{
    SimReader reader;
    zel_handle_record rec;
    zel_handle_init(&rec);
    if (zel::serial_open(&rec, reader.path, 1000000, true) != ZEL_OK) {
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
    state.counters["exchanges_per_s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["allocs_per_exchange"] =
        static_cast<double>(t_allocations) / static_cast<double>(state.iterations() ? state.iterations() : 1);
    state.counters["failures"] = static_cast<double>(failures);
    PortClose(&rec);
}

bool read_exact(int fd, uint8_t *buf, size_t n)
{
    size_t got = 0;
    while (got < n) {
        const ssize_t r = read(fd, buf + got, n - got);
        if (r > 0) {
            got += static_cast<size_t>(r);
            continue;
        }
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 1000) <= 0)
            return false;
    }
    return true;
}

void BM_RawLoopGetReaderType(benchmark::State &state)
{
    SimReader reader;
    zel_handle_record rec;
    zel_handle_init(&rec);
    if (zel::serial_open(&rec, reader.path, 1000000, true) != ZEL_OK) {
        state.SkipWithError("open failed");
        return;
    }
    const int fd = zel::com_fd(&rec);
    const uint8_t frame[7] = {0x55, 0x10, 0xAA, 0x00, 0x00, 0x00, 0xF6};
    uint8_t reply[12];
    uint64_t failures = 0;
    for (auto _ : state) {
        if (write(fd, frame, 7) != 7 || !read_exact(fd, reply, 12))
            ++failures;
    }
    state.counters["exchanges_per_s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["failures"] = static_cast<double>(failures);
    PortClose(&rec);
}

// Both loops interleaved on one link, exchange by exchange, so that a change of the machine's load hits
// both alike: the ratio counter is the library's rate over the raw loop's.
void BM_LibraryOverRawInterleaved(benchmark::State &state)
{
    SimReader reader;
    zel_handle_record rec;
    zel_handle_init(&rec);
    if (zel::serial_open(&rec, reader.path, 1000000, true) != ZEL_OK) {
        state.SkipWithError("open failed");
        return;
    }
    const int fd = zel::com_fd(&rec);
    const uint8_t frame[7] = {0x55, 0x10, 0xAA, 0x00, 0x00, 0x00, 0xF6};
    uint8_t reply[12];
    uint32_t type = 0;
    int64_t raw_ns = 0, lib_ns = 0;
    uint64_t failures = 0;
    for (auto _ : state) {
        int64_t t0 = zel::counter_ns();
        if (write(fd, frame, 7) != 7 || !read_exact(fd, reply, 12))
            ++failures;
        int64_t t1 = zel::counter_ns();
        failures += GetReaderTypeM(&rec, &type) != ZEL_OK;
        int64_t t2 = zel::counter_ns();
        raw_ns += t1 - t0;
        lib_ns += t2 - t1;
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["raw_per_s"] = raw_ns ? n * 1e9 / static_cast<double>(raw_ns) : 0;
    state.counters["library_per_s"] = lib_ns ? n * 1e9 / static_cast<double>(lib_ns) : 0;
    state.counters["library_over_raw"] = lib_ns ? static_cast<double>(raw_ns) / static_cast<double>(lib_ns) : 0;
    state.counters["failures"] = static_cast<double>(failures);
    PortClose(&rec);
}

BENCHMARK(BM_LibraryOverRawInterleaved)->MinTime(2.0)->UseRealTime();
BENCHMARK(BM_RawLoopGetReaderType)->MinTime(1.0)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_LibraryGetReaderType)->MinTime(1.0)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);

} // namespace

BENCHMARK_MAIN();
