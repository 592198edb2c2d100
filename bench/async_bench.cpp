// Latency of the asynchronous session: from a card entering the simulated reader's field to the card-detected
// callback, over 200 arrivals, split into the wait for the look at the port that finds the announcement
// (the 150 ms poll period bounds it, plus 25 ms when a look finds a frame still arriving) and what follows
// that look. The baseline, measured in the same run on the same link, is what the link imposes
// after a poll: a look at the waiting count, the read of the announcement and the card type exchange done
// raw on the descriptor. The library's own share is the part after the poll less that baseline.
#include <benchmark/benchmark.h>

#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "core/internal.h"
#include "tandro.h"
#include "transport/serial.h"
#include "zelsim.h"

namespace {

constexpr int kArrivals = 200;
constexpr uint32_t kPollMs = 150;

// The library's sleeps, taken for real. On the polling thread (the one that sleeps the poll period) the end
// of each sleep is noted: a look at the port follows it, after the poll period or after the 25 ms the
// poll gives a frame that is still arriving.
constexpr uint32_t kSettleMs = 25;
std::atomic<int64_t> g_look_ends[1024];
std::atomic<uint32_t> g_look_count{0};
thread_local bool t_polling_thread = false;

void noting_sleep(uint32_t ms)
{
    const int64_t ns = static_cast<int64_t>(ms) * 1000000;
    timespec ts = {static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
    while (nanosleep(&ts, &ts) != 0) {
    }
    if (ms == kPollMs)
        t_polling_thread = true;
    if (ms == kPollMs || (ms == kSettleMs && t_polling_thread)) {
        const uint32_t i = g_look_count.fetch_add(1);
        g_look_ends[i % 1024].store(zel::counter_ns());
    }
}

// The last look at the port that began before t.
int64_t last_look_before(int64_t t)
{
    const uint32_t n = g_look_count.load();
    int64_t best = 0;
    for (uint32_t k = 0; k < n && k < 1024; ++k) {
        const int64_t v = g_look_ends[(n - 1 - k) % 1024].load();
        if (v <= t) {
            best = v;
            break;
        }
    }
    return best;
}

std::mutex g_m;
std::condition_variable g_cv;
int64_t g_detected_at = 0;
int64_t g_removed_at = 0;

void on_detected(const char *, const char *, const char *)
{
    std::lock_guard<std::mutex> lock(g_m);
    g_detected_at = zel::counter_ns();
    g_cv.notify_all();
}

void on_removed()
{
    std::lock_guard<std::mutex> lock(g_m);
    g_removed_at = zel::counter_ns();
    g_cv.notify_all();
}

bool read_exact(int fd, uint8_t *buf, size_t n)
{
    size_t got = 0;
    while (got < n) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 1000) <= 0)
            return false;
        const ssize_t r = read(fd, buf + got, n - got);
        if (r > 0)
            got += static_cast<size_t>(r);
    }
    return true;
}

double percentile(std::vector<double> v, double q)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    const size_t i = static_cast<size_t>(q * static_cast<double>(v.size() - 1) + 0.5);
    return v[i < v.size() ? i : v.size() - 1];
}

// The link's share after a poll, done raw: one announcement pushed by the reader is waited for, counted
// with FIONREAD and read, then the card type is asked with a bare frame and its reply read.
std::vector<double> raw_link_ms(zsim *sim, int fd, int rounds)
{
    const uint8_t type_frame[7] = {0x55, 0x3C, 0xAA, 0x00, 0x00, 0x00, 0xCA};
    std::vector<double> out;
    const zsim_card c = {{0x04, 0x10, 0x20, 0x30, 0x40, 0x50, 0x60}, 7, 0x00, 0x0044, ORB_NTAG_215};
    for (int i = 0; i < rounds; ++i) {
        zsim_card_add(sim, &c);
        pollfd p{fd, POLLIN, 0};
        poll(&p, 1, 1000);
        usleep(2000); // the whole announcement is there, as at a poll
        const int64_t t0 = zel::counter_ns();
        int waiting = 0;
        ioctl(fd, FIONREAD, &waiting);
        uint8_t buf[256];
        const bool ok_read = waiting > 0 && read_exact(fd, buf, static_cast<size_t>(std::min(waiting, 256)));
        uint8_t reply[7];
        const bool ok = ok_read && write(fd, type_frame, 7) == 7 && read_exact(fd, reply, 7) && reply[0] == 0xDE;
        const int64_t t1 = zel::counter_ns();
        if (ok)
            out.push_back(static_cast<double>(t1 - t0) / 1e6);
        zsim_card_remove(sim, c.uid, c.uid_len);
        poll(&p, 1, 1000);
        usleep(2000);
        tcflush(fd, TCIFLUSH);
    }
    return out;
}

void BM_AsyncArrivalLatency(benchmark::State &state)
{
    zsim *sim = zsim_new();
    char path[256] = {};
    if (!sim || zsim_serve_pty(sim, path, sizeof path) != 0) {
        state.SkipWithError("no simulated reader");
        return;
    }
    zel::set_sleep_hook(noting_sleep);
    if (ReaderOpenEx(1, path, 1, "UNIT_OPEN_RESET_DISABLE") != ZEL_OK) {
        state.SkipWithError("open failed");
        zsim_free(sim);
        return;
    }
    const int fd = zel::com_fd(&zel_global);
    std::vector<double> total, wait, after, raw;
    int lost = 0;
    for (auto _ : state) {
        // The baseline, with the reader announcing as in a session but no session running.
        SetAsyncCardIdSendConfigEx(1, 1, '!', '!', 1, 0, 0, 1000000);
        tcflush(fd, TCIFLUSH);
        raw = raw_link_ms(sim, fd, kArrivals);
        SetAsyncCardIdSendConfigEx(0, 0, '!', '!', 0, 0, 0, 1000000);

        if (StartAsyncSession(on_detected, on_removed) != ZEL_OK) {
            state.SkipWithError("session did not start");
            break;
        }
        for (int i = 0; i < kArrivals; ++i) {
            const zsim_card c = {
                {0x04, 0x7A, static_cast<uint8_t>(i), 0x1A, 0x5C, 0x64, 0x80}, 7, 0x00, 0x0044, ORB_NTAG_215};
            // Arrivals fall at every phase of the poll period.
            usleep(static_cast<useconds_t>((i * 37) % kPollMs) * 1000);
            std::unique_lock<std::mutex> lock(g_m);
            g_detected_at = 0;
            g_removed_at = 0;
            const int64_t t0 = zel::counter_ns();
            zsim_card_add(sim, &c);
            if (!g_cv.wait_for(lock, std::chrono::seconds(2), [] { return g_detected_at != 0; })) {
                ++lost;
            } else {
                const int64_t t1 = g_detected_at;
                const int64_t polled = last_look_before(t1);
                total.push_back(static_cast<double>(t1 - t0) / 1e6);
                if (polled >= t0) {
                    wait.push_back(static_cast<double>(polled - t0) / 1e6);
                    after.push_back(static_cast<double>(t1 - polled) / 1e6);
                }
            }
            lock.unlock();
            zsim_card_remove(sim, c.uid, c.uid_len);
            lock.lock();
            g_cv.wait_for(lock, std::chrono::seconds(2), [] { return g_removed_at != 0; });
        }
        StopAsyncSession();
    }
    const double raw_med = percentile(raw, 0.5), raw_p99 = percentile(raw, 0.99);
    state.counters["arrivals"] = static_cast<double>(total.size());
    state.counters["lost"] = lost;
    state.counters["poll_period_ms"] = kPollMs;
    state.counters["latency_median_ms"] = percentile(total, 0.5);
    state.counters["latency_p99_ms"] = percentile(total, 0.99);
    state.counters["poll_wait_median_ms"] = percentile(wait, 0.5);
    state.counters["after_poll_median_ms"] = percentile(after, 0.5);
    state.counters["after_poll_p99_ms"] = percentile(after, 0.99);
    state.counters["link_median_ms"] = raw_med;
    state.counters["link_p99_ms"] = raw_p99;
    state.counters["library_added_median_ms"] = percentile(after, 0.5) - raw_med;
    state.counters["library_added_p99_ms"] = percentile(after, 0.99) - raw_p99;
    ReaderClose();
    zel::set_sleep_hook(nullptr);
    zsim_free(sim);
}

BENCHMARK(BM_AsyncArrivalLatency)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace
