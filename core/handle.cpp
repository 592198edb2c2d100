// The handle record's life, the global handle, versions, the debug print and the timing helpers.
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

#include "core/bytes.h"
#include "core/internal.h"
#include "zel_port.h"

zel_handle_record zel_global;
zel_handle_record zel_open_record;

extern "C" ZEL_API void zel_handle_init(zel_handle_record *record)
{
    if (!record)
        return;
    std::memset(static_cast<void *>(record), 0, sizeof *record);
    record->br_custom = ZEL_BR_NONE;
}

extern "C" ZEL_API ZEL_HANDLE Zel_Hnd_Create(void)
{
    auto *record = static_cast<zel_handle_record *>(std::calloc(1, sizeof(zel_handle_record)));
    if (!record) {
        std::perror("Zel_Hnd_Create() FAILED !");
        return nullptr;
    }
    record->br_custom = ZEL_BR_NONE;
    return record;
}

extern "C" ZEL_API void Zel_Hnd_assign_try_port(ZEL_HANDLE hnd, const char *port_name)
{
    if (!hnd || !port_name)
        return;
    std::snprintf(hnd->try_port, ZEL_TRY_PORT_LEN, "%.511s", port_name);
    hnd->try_port_set = 1;
}

extern "C" ZEL_API void Zel_Hnd_SetGlobal(ZEL_HANDLE hnd)
{
    if (!hnd || hnd == &zel_global)
        return;
    std::memcpy(static_cast<void *>(&zel_global), hnd, sizeof zel_global);
}

// Versions.

namespace {
constexpr uint32_t kVersionMajor = 6;
constexpr uint32_t kVersionMinor = 0;
constexpr uint32_t kVersionBuild = 53;
} // namespace

extern "C" ZEL_API uint32_t GetDllVersion(void)
{
    return kVersionMajor | kVersionMinor << 8 | kVersionBuild << 16;
}

extern "C" ZEL_API const char *GetDllVersionStr(void)
{
    static char text[32];
    std::snprintf(text, sizeof text, "%d.%d.%d", static_cast<int>(kVersionMajor), static_cast<int>(kVersionMinor),
                  static_cast<int>(kVersionBuild));
    return text;
}

// Debug print.

namespace {
std::atomic<bool> g_dp_on{false};
std::mutex g_dp_mutex;
zel_debug_sink g_dp_sink = nullptr;
void *g_dp_context = nullptr;

void dp_emit(int level, const char *text)
{
    std::lock_guard<std::mutex> lock(g_dp_mutex);
    if (g_dp_sink)
        g_dp_sink(level, text, g_dp_context);
    else
        std::fprintf(stderr, "%s", text);
}

void dp_hex_line(int level, const uint8_t *bytes, uint32_t length, bool eol)
{
    if (!zel::dp_enabled() || (!bytes && length))
        return;
    // Printed in pieces so that any length fits.
    char text[3 * 64 + 2];
    uint32_t i = 0;
    do {
        size_t pos = 0;
        for (uint32_t n = 0; n < 64 && i < length; ++n, ++i) {
            text[pos++] = zel::hex_digit(bytes[i] >> 4);
            text[pos++] = zel::hex_digit(bytes[i]);
            text[pos++] = ' ';
        }
        if (eol && i >= length)
            text[pos++] = '\n';
        text[pos] = 0;
        dp_emit(level, text);
    } while (i < length);
}

int64_t g_timespan_start;
} // namespace

bool zel::dp_enabled()
{
    return g_dp_on.load(std::memory_order_relaxed);
}

extern "C" ZEL_API void ZEL_DebugPrintEnable(uint32_t on)
{
    g_dp_on.store(on != 0, std::memory_order_relaxed);
}

extern "C" ZEL_API void ZEL_DebugPrintSetSink(zel_debug_sink sink, void *context)
{
    std::lock_guard<std::mutex> lock(g_dp_mutex);
    g_dp_sink = sink;
    g_dp_context = context;
}

extern "C" ZEL_API void dp(int level, const char *format, ...)
{
    if (!zel::dp_enabled() || !format)
        return;
    char text[1024];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text - 1, format, args);
    va_end(args);
    size_t n = std::strlen(text);
    if (n == 0 || text[n - 1] != '\n') {
        text[n] = '\n';
        text[n + 1] = 0;
    }
    dp_emit(level, text);
}

extern "C" ZEL_API void dp_hex(int level, const uint8_t *bytes, uint32_t length)
{
    dp_hex_line(level, bytes, length, false);
}

extern "C" ZEL_API void dp_hex_eol(int level, const uint8_t *bytes, uint32_t length)
{
    dp_hex_line(level, bytes, length, true);
}

extern "C" ZEL_API void prn_modem_status(ZEL_HANDLE hnd)
{
    if (!hnd || !zel::dp_enabled())
        return;
    dp(6, "modem status: port kind %u, opened %u, rts wiring %u, rts inverted %u", hnd->comm.use, hnd->opened,
       hnd->comm.rts, hnd->comm.RTS_inverted);
}

extern "C" ZEL_API void timespan_start(void)
{
    g_timespan_start = zel::counter_ns();
}

extern "C" ZEL_API void timespan_prn(const char *text)
{
    if (!zel::dp_enabled())
        return;
    dp(12, "%s: %lld ms", text ? text : "", static_cast<long long>((zel::counter_ns() - g_timespan_start) / 1000000));
}

// Time.

namespace {
std::atomic<zel::SleepHook> g_sleep_hook{nullptr};
std::atomic<zel::TickHook> g_tick_hook{nullptr};
// The counter runs in nanoseconds, so its frequency is fixed; zel_sleep fetches it once, at its first call.
constexpr int64_t kCounterFrequency = 1000000000;
std::atomic<int64_t> g_sleep_frequency{0};
} // namespace

int64_t zel::counter_ns()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

void zel::set_sleep_hook(SleepHook hook)
{
    g_sleep_hook.store(hook);
}

void zel::os_sleep(uint32_t ms)
{
    if (SleepHook hook = g_sleep_hook.load()) {
        hook(ms);
        return;
    }
    timespec ts{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) == -1 && errno == EINTR) {
    }
}

void zel::set_tick_hook(TickHook hook)
{
    g_tick_hook.store(hook);
}

uint32_t zel::tick_ms()
{
    if (TickHook hook = g_tick_hook.load())
        return hook();
    return static_cast<uint32_t>(counter_ns() / 1000000);
}

int64_t zel::zel_sleep_span_ns(uint32_t ms)
{
    // The product is formed in 32 bits and then widened with its sign: long waits wrap.
    return static_cast<int32_t>(ms * 1000000u);
}

extern "C" ZEL_API void TimerStart(zel_timer *timer)
{
    if (!timer)
        return;
    timer->frequency = kCounterFrequency;
    timer->start = zel::counter_ns();
}

extern "C" ZEL_API int64_t TimerStop(zel_timer *timer)
{
    if (!timer)
        return 0;
    timer->stop = zel::counter_ns();
    if (timer->frequency == 0)
        return 0;
    return (timer->stop - timer->start) * 1000 / timer->frequency;
}

extern "C" ZEL_API uint64_t get_ns(void)
{
    const int64_t frequency = g_sleep_frequency.load(std::memory_order_relaxed);
    if (frequency == 0)
        return 0; // no zel_sleep yet
    return static_cast<uint64_t>(static_cast<double>(zel::counter_ns()) * 1e9 / static_cast<double>(frequency));
}

extern "C" ZEL_API void zel_sleep(uint32_t ms)
{
    if (g_sleep_frequency.load(std::memory_order_relaxed) == 0)
        g_sleep_frequency.store(kCounterFrequency, std::memory_order_relaxed);
    const int64_t end = zel::counter_ns() + zel::zel_sleep_span_ns(ms);
    while (zel::counter_ns() < end) {
    }
}
