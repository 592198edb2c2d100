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

// The kind of link (comm.use) of the test link, whose reads and writes are the caller's functions (see
// transport/port.h). The other kinds are ZEL_PORT_FTDI, ZEL_PORT_SERIAL, ZEL_PORT_SOCKET and ZEL_PORT_LOCAL.
constexpr uint32_t kPortHook = 0x7E;

} // namespace zel

#endif
