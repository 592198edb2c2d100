// Many readers at full speed: N simulated readers on N threads against one reader on one thread, in the same
// run, on a modelled line (1,000,000 bit/s, 10 bits a byte, 2 ms reader turnaround per command). Each thread
// drives its own handle of the reader list, so nothing but the machine is shared between them.
//
// Counters: single_per_s (one reader, one thread), aggregate_per_s (N readers, N threads), scaling
// (aggregate over N x single; the target is at least 0.9), and library_over_wire: the time of one exchange
// over the time the line itself takes for it (the bytes both ways and the turnaround), the floor of any host.
// BM_ReaderListScan reports the time the scan takes to find and open 8 simulated readers, which it opens in turn.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "tandro.h"
#include "transport/sysfs.h"
#include "zelsim.h"

namespace {

constexpr uint32_t kRate = 1000000;
constexpr double kTurnaroundUs = 2000;
// GetReaderType: a 7-byte command, a 7-byte response frame and its 5-byte EXT, 10 bits a byte.
constexpr double kWireUs = (7.0 + 7.0 + 5.0) * 10.0 * 1e6 / kRate;
constexpr double kRunSeconds = 1.0;

// Eight simulated readers on pseudo-terminals with the line model, found by the scan through the port folder.
struct Readers {
    zsim_set *set = nullptr;
    std::string dir;
    double scan_ms = 0;
    bool ok = false;

    Readers()
    {
        char tmpl[] = "/tmp/zel_bench_readers_XXXXXX";
        if (!mkdtemp(tmpl))
            return;
        dir = tmpl;
        std::string json = R"({"readers": [)";
        for (int i = 0; i < 8; ++i)
            json += std::string(i ? "," : "") + R"({"reader": {"serial_description": "ZB00000)" + std::to_string(i) +
                    R"("}, "line": {"rate": 1000000, "turnaround_ms": 2}, "links": [{"kind": "pty"}]})";
        json += "]}";
        char report[4096], err[256];
        const std::string ports = dir + "/ports";
        set = zsim_set_start(json.c_str(), ports.c_str(), report, sizeof report, err, sizeof err);
        if (!set)
            return;
        zel::set_sysfs_root((ports + "/sys").c_str());
        zel::set_dev_root(ports.c_str());
        // The stand-in D2XX library (no devices unless ZSIM_D2XX_SCENARIO names some), so that the scan runs whole.
        (void)dlopen(ZEL_D2XX_PATH, RTLD_NOW | RTLD_GLOBAL);
        uint32_t count = 0;
        const auto start = std::chrono::steady_clock::now();
        // Without the D2XX library the scan stops before the ports: they are added one by one instead.
        ZEL_STATUS st = ReaderList_UpdateAndGetCount(&count);
        if (st == ZEL_FTD2XX_DLL_NOT_FOUND) {
            for (int i = 0; i < 8; ++i) {
                ZEL_HANDLE h = nullptr;
                const std::string port = ports + "/ttyUSB" + std::to_string(i);
                ReaderList_Add(&h, 1, port.c_str(), 1, "UNIT_OPEN_RESET_DISABLE");
            }
            st = ZEL_OK;
        }
        scan_ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
        ok = st == ZEL_OK && list_size() == 8;
    }
    ~Readers()
    {
        for (uint32_t n = list_size(); n > 0; --n)
            list_remove(list_get_by_idx(n - 1));
        zel::set_sysfs_root(nullptr);
        zel::set_dev_root(nullptr);
        zsim_set_free(set);
        if (!dir.empty())
            rmdir(dir.c_str());
    }
};

Readers &readers()
{
    static Readers r;
    return r;
}

// Exchanges per second of n readers, one thread each, for kRunSeconds; failed exchanges go to *failed.
double exchanges_per_s(int n, std::atomic<int> *failed)
{
    std::atomic<bool> stop{false};
    std::vector<uint64_t> done(static_cast<size_t>(n), 0);
    std::vector<std::thread> threads;
    const auto start = std::chrono::steady_clock::now();
    for (int t = 0; t < n; ++t)
        threads.emplace_back([t, &stop, &done, failed] {
            ZEL_HANDLE h = list_get_by_idx(static_cast<uint32_t>(t));
            while (!stop.load(std::memory_order_relaxed)) {
                uint32_t type = 0;
                if (GetReaderTypeM(h, &type) != ZEL_OK)
                    failed->fetch_add(1);
                ++done[static_cast<size_t>(t)];
            }
        });
    std::this_thread::sleep_for(std::chrono::duration<double>(kRunSeconds));
    stop.store(true);
    for (auto &th : threads)
        th.join();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    uint64_t total = 0;
    for (uint64_t d : done)
        total += d;
    return static_cast<double>(total) / seconds;
}

void BM_ReadersOnThreads(benchmark::State &state)
{
    Readers &r = readers();
    if (!r.ok) {
        state.SkipWithError("the simulated readers did not start or were not all found");
        return;
    }
    const int n = static_cast<int>(state.range(0));
    std::atomic<int> failed{0};
    double single = 0, aggregate = 0;
    for (auto _ : state) {
        // The single reader before and after the N readers, so that a change of the machine's load during the
        // run weighs on both sides alike.
        single = exchanges_per_s(1, &failed) / 2;
        aggregate = exchanges_per_s(n, &failed);
        single += exchanges_per_s(1, &failed) / 2;
    }
    state.counters["single_per_s"] = single;
    state.counters["aggregate_per_s"] = aggregate;
    state.counters["scaling"] = aggregate / (n * single);
    state.counters["library_over_wire"] = (1e6 / single) / (kWireUs + kTurnaroundUs);
    state.counters["failed"] = failed.load();
}
BENCHMARK(BM_ReadersOnThreads)->Arg(2)->Arg(4)->Arg(8)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_ReaderListScan(benchmark::State &state)
{
    Readers &r = readers();
    if (!r.ok) {
        state.SkipWithError("the simulated readers did not start or were not all found");
        return;
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(r.scan_ms);
    state.counters["readers"] = static_cast<double>(list_size());
    state.counters["scan_ms"] = r.scan_ms;
}
BENCHMARK(BM_ReaderListScan)->Iterations(1);

} // namespace
