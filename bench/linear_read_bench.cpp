// LinearRead of a whole classic 4K linear space (3,440 bytes, 19 exchanges) through the library, against a
// raw loop that writes the same frames and EXT blocks and reads the same replies on the same link (the
// simulated reader on a pseudo-terminal), interleaved in one run. The counter library_over_raw is the raw
// loop's time over the library's: 1.0 means no cost of its own, 0.9 is the 10% mark.
#include <benchmark/benchmark.h>

#include <poll.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/internal.h"
#include "tandro.h"
#include "transport/serial.h"
#include "zelsim.h"

namespace {

constexpr uint16_t kLinearSize = 3440;

struct SimReader {
    zsim *sim = nullptr;
    char path[256] = {};
    SimReader()
    {
        sim = zsim_new();
        char err[256];
        const char *scenario = R"({"reader": {"keys": [{"index": 0, "key": "FFFFFFFFFFFF"}]},
          "cards": [{"uid": "D1D2D3D4", "sak": "18", "type": "ORB_MIFARE_CLASSIC_4K", "model": "classic_4k"}]})";
        if (zsim_load_scenario(sim, scenario, err, sizeof err) != 0 || zsim_serve_pty(sim, path, sizeof path) != 0)
            std::abort();
    }
    ~SimReader() { zsim_free(sim); }
};

uint8_t checksum(const uint8_t *p, size_t n)
{
    uint8_t x = 0;
    for (size_t i = 0; i < n; ++i)
        x ^= p[i];
    return static_cast<uint8_t>(x + 7);
}

// The frames of one whole read with reader key 0 and key A, as the library sends them.
struct Exchange {
    uint8_t frame[7];
    uint8_t ext[7];
    size_t reply_len; // the response frame and its EXT
};

std::vector<Exchange> exchanges_of_whole_read()
{
    std::vector<Exchange> out;
    uint16_t addr = 0, remaining = kLinearSize;
    while (remaining) {
        const uint16_t chunk = static_cast<uint16_t>(remaining + 8) <= 192 ? remaining : 184;
        Exchange e{};
        const uint8_t f[7] = {0x55, 0x14, 0xAA, 7, 0x00, 0x00, 0};
        std::memcpy(e.frame, f, 7);
        e.frame[6] = checksum(e.frame, 6);
        const uint8_t x[7] = {static_cast<uint8_t>(addr), static_cast<uint8_t>(addr >> 8), static_cast<uint8_t>(chunk),
                              static_cast<uint8_t>(chunk >> 8), static_cast<uint8_t>(remaining),
                              static_cast<uint8_t>(remaining >> 8), 0};
        std::memcpy(e.ext, x, 7);
        e.ext[6] = checksum(e.ext, 6);
        e.reply_len = 7 + chunk + 1u;
        out.push_back(e);
        addr = static_cast<uint16_t>(addr + chunk);
        remaining = static_cast<uint16_t>(remaining - chunk);
    }
    return out;
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

// The raw loop: every frame, acknowledge, EXT and reply of the whole read, nothing else.
bool raw_whole_read(int fd, const std::vector<Exchange> &ex, uint8_t *buf)
{
    for (const Exchange &e : ex) {
        if (write(fd, e.frame, 7) != 7 || !read_exact(fd, buf, 7) || write(fd, e.ext, 7) != 7 ||
            !read_exact(fd, buf, e.reply_len))
            return false;
    }
    return true;
}

void BM_LinearReadOverRawInterleaved(benchmark::State &state)
{
    SimReader reader;
    zel_handle_record rec;
    zel_handle_init(&rec);
    if (zel::serial_open(&rec, reader.path, 1000000, true) != ZEL_OK) {
        state.SkipWithError("open failed");
        return;
    }
    const int fd = zel::com_fd(&rec);
    const std::vector<Exchange> ex = exchanges_of_whole_read();
    std::vector<uint8_t> data(kLinearSize), scratch(512);
    int64_t raw_ns = 0, lib_ns = 0;
    uint64_t failures = 0;
    for (auto _ : state) {
        const int64_t t0 = zel::counter_ns();
        failures += !raw_whole_read(fd, ex, scratch.data());
        const int64_t t1 = zel::counter_ns();
        uint16_t got = 0;
        failures += LinearReadM(&rec, data.data(), 0, kLinearSize, &got, 0x60, 0) != ZEL_OK || got != kLinearSize;
        const int64_t t2 = zel::counter_ns();
        raw_ns += t1 - t0;
        lib_ns += t2 - t1;
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["exchanges_per_read"] = static_cast<double>(ex.size());
    state.counters["raw_reads_per_s"] = raw_ns ? n * 1e9 / static_cast<double>(raw_ns) : 0;
    state.counters["library_reads_per_s"] = lib_ns ? n * 1e9 / static_cast<double>(lib_ns) : 0;
    state.counters["library_over_raw"] = lib_ns ? static_cast<double>(raw_ns) / static_cast<double>(lib_ns) : 0;
    state.counters["failures"] = static_cast<double>(failures);
    PortClose(&rec);
}

BENCHMARK(BM_LinearReadOverRawInterleaved)->MinTime(3.0)->UseRealTime()->Repetitions(3);

} // namespace
