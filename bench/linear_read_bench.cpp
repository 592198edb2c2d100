// LinearRead of a whole classic 4K linear space (3,440 bytes, 19 exchanges) through the library, against a
// raw loop that writes the same frames and EXT blocks and reads the same replies on the same link (the
// simulated reader on a pseudo-terminal), interleaved in one run. The counter library_over_raw is the raw
// loop's time over the library's: 1.0 means no cost of its own, 0.9 is the 10% mark.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "bench_link.h"

namespace {

constexpr uint16_t kLinearSize = 3440;

const char kScenario[] = R"({"reader": {"keys": [{"index": 0, "key": "FFFFFFFFFFFF"}]},
  "cards": [{"uid": "D1D2D3D4", "sak": "18", "type": "ORB_MIFARE_CLASSIC_4K", "model": "classic_4k"}]})";

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
        e.frame[6] = zelbench::frame_checksum(e.frame, 6);
        const uint8_t x[7] = {static_cast<uint8_t>(addr),
                              static_cast<uint8_t>(addr >> 8),
                              static_cast<uint8_t>(chunk),
                              static_cast<uint8_t>(chunk >> 8),
                              static_cast<uint8_t>(remaining),
                              static_cast<uint8_t>(remaining >> 8),
                              0};
        std::memcpy(e.ext, x, 7);
        e.ext[6] = zelbench::frame_checksum(e.ext, 6);
        e.reply_len = 7 + chunk + 1u;
        out.push_back(e);
        addr = static_cast<uint16_t>(addr + chunk);
        remaining = static_cast<uint16_t>(remaining - chunk);
    }
    return out;
}

// The raw loop: every frame, acknowledge, EXT and reply of the whole read, nothing else.
bool raw_whole_read(int fd, const std::vector<Exchange> &ex, uint8_t *buf)
{
    for (const Exchange &e : ex) {
        if (write(fd, e.frame, 7) != 7 || !zelbench::read_exact(fd, buf, 7) || write(fd, e.ext, 7) != 7 ||
            !zelbench::read_exact(fd, buf, e.reply_len))
            return false;
    }
    return true;
}

void BM_LinearReadOverRawInterleaved(benchmark::State &state)
{
    zelbench::SimLink link(kScenario);
    if (!link.open) {
        state.SkipWithError("open failed");
        return;
    }
    const std::vector<Exchange> ex = exchanges_of_whole_read();
    std::vector<uint8_t> data(kLinearSize), scratch(512);
    zelbench::interleave(
        state, "reads", [&] { return raw_whole_read(link.fd(), ex, scratch.data()); },
        [&] {
            uint16_t got = 0;
            return LinearReadM(&link.rec, data.data(), 0, kLinearSize, &got, 0x60, 0) == ZEL_OK && got == kLinearSize;
        },
        link.sim);
    state.counters["exchanges_per_read"] = static_cast<double>(ex.size());
}

BENCHMARK(BM_LinearReadOverRawInterleaved)->MinTime(3.0)->UseRealTime()->Repetitions(3);

} // namespace
