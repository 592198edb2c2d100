// Internal interfaces shared by the library's modules, tests and tools. Never exported.
#ifndef ZEL_CORE_INTERNAL_H
#define ZEL_CORE_INTERNAL_H

#include <cstdint>

#include "zel_handle.h"

namespace zel {

// Blocking sleep of the operating system; every ordinary wait of the library goes through it.
void os_sleep(uint32_t ms);
// Test seam: replaces the blocking sleep (null restores it).
using SleepHook = void (*)(uint32_t ms);
void set_sleep_hook(SleepHook hook);

// Millisecond tick of the monotonic clock.
uint32_t tick_ms();
// Test seam: replaces the tick source (null restores it).
using TickHook = uint32_t (*)();
void set_tick_hook(TickHook hook);

// Monotonic counter in nanoseconds.
int64_t counter_ns();

// The wait of zel_sleep, in nanoseconds: ms * 1,000,000 computed in 32 bits and sign-extended.
int64_t zel_sleep_span_ns(uint32_t ms);

// True when the debug print is on; callers skip costly arguments when it is off.
bool dp_enabled();

// The serial port descriptor held in a record (-1 for none).
inline int com_fd(const zel_handle_record *h)
{
    return h->comHandle ? static_cast<int>(reinterpret_cast<intptr_t>(h->comHandle) - 1) : -1;
}
inline void set_com_fd(zel_handle_record *h, int fd)
{
    h->comHandle = fd >= 0 ? reinterpret_cast<void *>(static_cast<intptr_t>(fd) + 1) : nullptr;
}

// Test seam: a link made of the caller's functions, for records whose comm.use is kPortHook. Fuzz
// targets and unit tests use it to play a reader byte by byte without a device.
constexpr uint32_t kPortHook = 0x7E;
struct LinkHooks {
    // Each returns the number of bytes moved (reads may move fewer than asked: a time-out).
    uint32_t (*read)(void *context, uint8_t *buffer, uint32_t count);
    uint32_t (*write)(void *context, const uint8_t *buffer, uint32_t count);
    void (*purge)(void *context);
    void *context;
    // Bytes waiting to be read; a link without it reports none.
    uint32_t (*available)(void *context) = nullptr;
};
void set_link_hooks(const LinkHooks *hooks);
const LinkHooks *link_hooks();

} // namespace zel

#endif
