// read_ndef_record on a simulated MIFARE Classic 1K laid out for NDEF, against the block operations a reader
// of the same card needs at least (the directory's trailer, the directory, and the fifteen NDEF sectors in one
// linear read), interleaved in one run on the same link. The counter floor_over_ndef is the bare operations'
// time over the NDEF read's: near 1.0 means the NDEF layer adds little traffic of its own and reads
// neighbouring sectors in one go. cached_over_ndef compares a read served by the 2 s cache.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <vector>

#include "core/internal.h"
#include "tandro.h"
#include "transport/serial.h"
#include "zelsim.h"

namespace {

const uint8_t kMadKey[6] = {0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5};
const uint8_t kNdefKey[6] = {0xD3, 0xF7, 0xD3, 0xF7, 0xD3, 0xF7};

uint32_t g_offset = 0;
uint32_t moved_tick()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<uint32_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count()) + g_offset;
}

struct Setup {
    zsim *sim = nullptr;
    ZEL_HANDLE hnd = nullptr;
    Setup()
    {
        sim = zsim_new();
        char err[256], path[256];
        const char *scenario = R"({"cards": [{"uid": "D1D2D3D4", "sak": "08", "type": "ORB_MIFARE_CLASSIC_1K",
                                              "model": "classic_1k"}]})";
        if (zsim_load_scenario(sim, scenario, err, sizeof err) != 0 || zsim_serve_pty(sim, path, sizeof path) != 0)
            std::abort();
        hnd = Zel_Hnd_Create();
        if (zel::serial_open(hnd, path, 1000000, true) != ZEL_OK)
            std::abort();
        PortSetTimeout(hnd, 500);
        // A message of several records filling most of the card.
        std::vector<uint8_t> payload(200, 0x41);
        for (int i = 0; i < 3; ++i) {
            uint8_t tnf = 2, tl = 3, il = 0, f = 0, type[] = {'a', '/', 'b'}, id[1] = {0};
            uint32_t pl = static_cast<uint32_t>(payload.size());
            if (write_ndef_recordM(hnd, 1, &tnf, type, &tl, id, &il, payload.data(), &pl, &f) != ZEL_OK)
                std::abort();
        }
        zel::set_tick_hook(moved_tick);
    }
    ~Setup()
    {
        zel::set_tick_hook(nullptr);
        Zel_Hnd_Destroy(hnd);
        zsim_free(sim);
    }
};

bool read_record(ZEL_HANDLE h)
{
    static std::vector<uint8_t> payload(ZEL_NDEF_IMAGE_LEN + ZEL_NDEF_PAYLOAD_SLACK);
    uint8_t tnf = 0, tl = 0, il = 0, type[256], id[256];
    uint32_t pl = 0;
    return read_ndef_recordM(h, 1, 3, &tnf, type, &tl, id, &il, payload.data(), &pl) == ZEL_OK && pl == 200;
}

bool floor_reads(ZEL_HANDLE h)
{
    uint8_t type = 0, blk[16], mad[32];
    static std::vector<uint8_t> img(720);
    uint16_t got = 0;
    return GetOrbCardTypeM(h, &type) == ZEL_OK && BlockInSectorRead_PKM(h, blk, 0, 3, 0x60, kMadKey) == ZEL_OK &&
           LinearRead_PKM(h, mad, 0, 32, &got, 0x60, kMadKey) == ZEL_OK &&
           LinearRead_PKM(h, img.data(), 32, 720, &got, 0x60, kNdefKey) == ZEL_OK;
}

void BM_NdefRead(benchmark::State &state)
{
    static Setup s;
    double ndef_s = 0, floor_s = 0, cached_s = 0;
    for (auto _ : state) {
        using clock = std::chrono::steady_clock;
        g_offset += 5000; // past the cache
        auto t0 = clock::now();
        if (!read_record(s.hnd))
            state.SkipWithError("NDEF read failed");
        auto t1 = clock::now();
        if (!floor_reads(s.hnd))
            state.SkipWithError("block reads failed");
        auto t2 = clock::now();
        if (!read_record(s.hnd))
            state.SkipWithError("cached read failed");
        auto t3 = clock::now();
        ndef_s += std::chrono::duration<double>(t1 - t0).count();
        floor_s += std::chrono::duration<double>(t2 - t1).count();
        cached_s += std::chrono::duration<double>(t3 - t2).count();
    }
    state.counters["floor_over_ndef"] = ndef_s > 0 ? floor_s / ndef_s : 0;
    state.counters["cached_over_ndef"] = ndef_s > 0 ? cached_s / ndef_s : 0;
    state.counters["ndef_read_ms"] = state.iterations() ? 1000 * ndef_s / static_cast<double>(state.iterations()) : 0;
}
BENCHMARK(BM_NdefRead)->Iterations(30)->Unit(benchmark::kMillisecond);

} // namespace
