// What the link benchmarks share: the simulated reader on a pseudo-terminal with a record opened on it, exact
// reads for the raw loops, and the interleaved measurement of the library against the raw loop.
#ifndef ZEL_BENCH_LINK_H
#define ZEL_BENCH_LINK_H

#include <benchmark/benchmark.h>

#include <poll.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/internal.h"
#include "tandro.h"
#include "transport/serial.h"
#include "zelsim.h"

namespace zelbench {

// Reads exactly n bytes, waiting up to a second for each piece.
inline bool read_exact(int fd, uint8_t *buf, size_t n)
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

// The frame checksum: the bytes XORed, plus 7.
inline uint8_t frame_checksum(const uint8_t *p, size_t n)
{
    uint8_t x = 0;
    for (size_t i = 0; i < n; ++i)
        x ^= p[i];
    return static_cast<uint8_t>(x + 7);
}

// The simulated reader (with the cards of a scenario, when given) on a pseudo-terminal, and a record opened
// on it at 1 Mbit/s.
struct SimLink {
    zsim *sim = nullptr;
    char path[256] = {};
    zel_handle_record rec;
    bool open = false;

    explicit SimLink(const char *scenario = nullptr)
    {
        sim = zsim_new();
        char err[256] = {};
        if (!sim || (scenario && zsim_load_scenario(sim, scenario, err, sizeof err) != 0) ||
            zsim_serve_pty(sim, path, sizeof path) != 0)
            std::abort();
        zel_handle_init(&rec);
        open = zel::serial_open(&rec, path, 1000000, true) == ZEL_OK;
    }
    ~SimLink()
    {
        PortClose(&rec);
        zsim_free(sim);
    }
    SimLink(const SimLink &) = delete;
    SimLink &operator=(const SimLink &) = delete;
    int fd() const { return zel::com_fd(&rec); }
};

// Both loops interleaved on one link, step by step, so that a change of the machine's load hits both alike.
// raw() and library() each return true on success. The counters: raw_<what>_per_s, library_<what>_per_s,
// library_over_raw (the library's rate over the raw loop's) and failures.
// The library's steps on a modelled line (1,000,000 bit/s, 10 bits a byte, 2 ms reader turnaround), where
// the floor is the wire time itself: the counter library_over_wire is the library's time for its steps over
// the time the line model spent on the wire and in turnarounds for the same steps (1 is the floor). Runs for
// about half a second, at least three steps, outside the benchmark's own timing.
template <class Library> void on_modelled_line(benchmark::State &state, zsim *sim, Library library)
{
    if (!sim)
        return;
    zsim_set_line(sim, 1000000, 2000);
    const uint64_t waited0 = zsim_line_waited_us(sim);
    const int64_t t0 = zel::counter_ns();
    uint64_t steps = 0, failures = 0;
    while (steps < 3 || (zel::counter_ns() - t0 < 500000000 && steps < 1000)) {
        failures += !library();
        ++steps;
    }
    const double took_us = static_cast<double>(zel::counter_ns() - t0) / 1000.0;
    const double wire_us = static_cast<double>(zsim_line_waited_us(sim) - waited0);
    zsim_set_line(sim, 0, 0);
    state.counters["modelled_line_step_ms"] = took_us / 1000.0 / static_cast<double>(steps);
    state.counters["library_over_wire"] = wire_us > 0 ? took_us / wire_us : 0;
    state.counters["modelled_line_failures"] = static_cast<double>(failures);
}

// With sim given, the library's steps then also run on the modelled line (on_modelled_line).
template <class Raw, class Library>
void interleave(benchmark::State &state, const std::string &what, Raw raw, Library library, zsim *sim = nullptr)
{
    int64_t raw_ns = 0, lib_ns = 0;
    uint64_t failures = 0;
    for (auto _ : state) {
        const int64_t t0 = zel::counter_ns();
        failures += !raw();
        const int64_t t1 = zel::counter_ns();
        failures += !library();
        const int64_t t2 = zel::counter_ns();
        raw_ns += t1 - t0;
        lib_ns += t2 - t1;
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["raw_" + what + "_per_s"] = raw_ns ? n * 1e9 / static_cast<double>(raw_ns) : 0;
    state.counters["library_" + what + "_per_s"] = lib_ns ? n * 1e9 / static_cast<double>(lib_ns) : 0;
    state.counters["library_over_raw"] = lib_ns ? static_cast<double>(raw_ns) / static_cast<double>(lib_ns) : 0;
    state.counters["failures"] = static_cast<double>(failures);
    on_modelled_line(state, sim, library);
}

} // namespace zelbench

#endif
