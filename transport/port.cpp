// The port layer: read, write, purge, time-outs, RTS, speed and close, each through the back end of the
// record's kind of link (transport/port_links.cpp), under the guard of a running session.
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "core/internal.h"
#include "transport/port.h"
#include "zel_port.h"
#include "zel_status.h"

namespace {

std::atomic<const zel::PortGuardHooks *> g_guard{nullptr};

// While an asynchronous session runs, port calls raise the busy flag, then take the lock; they release in
// the opposite order. On the session's own record the session decides when a call may go (see
// async/arbiter.cpp): a command of the event thread and the application's never interleave on the line.
class PortGuard {
public:
    PortGuard(zel_handle_record *hnd, zel::PortCall call)
        : hnd_(hnd),
          hooks_(__atomic_load_n(&hnd->port_lock_on, __ATOMIC_ACQUIRE) != 0 ? g_guard.load(std::memory_order_acquire)
                                                                            : nullptr)
    {
        if (hooks_)
            token_ = hooks_->enter(hnd_, call);
    }
    ~PortGuard()
    {
        if (hooks_)
            hooks_->leave(hnd_, token_);
    }
    PortGuard(const PortGuard &) = delete;
    PortGuard &operator=(const PortGuard &) = delete;

    // The guard on the record of a running session, else null.
    const zel::PortGuardHooks *session() const { return hooks_ && hooks_->session(hnd_) ? hooks_ : nullptr; }

private:
    zel_handle_record *hnd_;
    const zel::PortGuardHooks *hooks_;
    int token_ = 0;
};

// Adds what moved to the record's count of link bytes.
uint32_t count_moved(zel_handle_record *hnd, uint32_t n)
{
    __atomic_fetch_add(&hnd->link_bytes, static_cast<uint64_t>(n), __ATOMIC_RELAXED);
    return n;
}

void log_transfer(const char *format, ZEL_STATUS status, uint32_t asked, uint32_t done, const uint8_t *bytes)
{
    if (!zel::dp_enabled())
        return;
    dp(6, format, ZEL_Status2String(status), asked, done);
    dp_hex_eol(6, bytes, done);
}

} // namespace

void zel::set_port_guard(const PortGuardHooks *hooks)
{
    g_guard.store(hooks, std::memory_order_release);
}

ZEL_STATUS zel::port_read_raw(zel_handle_record *hnd, uint8_t *buffer, uint32_t count, uint32_t *got)
{
    *got = 0;
    const LinkDriver &link = link_driver(hnd);
    if (!link.read)
        return ZEL_PARAMETERS_ERROR;
    const ZEL_STATUS status = link.read(hnd, buffer, count, got);
    count_moved(hnd, *got < count ? *got : count);
    return status;
}

ZEL_STATUS zel::port_available_raw(zel_handle_record *hnd, uint32_t *available)
{
    *available = 0;
    const LinkDriver &link = link_driver(hnd);
    return link.available ? link.available(hnd, available) : ZEL_PARAMETERS_ERROR;
}

bool zel::port_can_stream(const zel_handle_record *hnd)
{
    return link_driver(hnd).read_some && link_driver(hnd).unread &&
           !__atomic_load_n(&hnd->port_lock_on, __ATOMIC_ACQUIRE) && !dp_enabled();
}

uint32_t zel::port_read_some(zel_handle_record *hnd, uint8_t *buffer, uint32_t max)
{
    const LinkDriver &link = link_driver(hnd);
    return link.read_some ? count_moved(hnd, link.read_some(hnd, buffer, max)) : 0u;
}

uint32_t zel::port_unread(zel_handle_record *hnd, const uint8_t *bytes, uint32_t n)
{
    const LinkDriver &link = link_driver(hnd);
    return link.unread ? link.unread(hnd, bytes, n) : 0u;
}

extern "C" ZEL_API ZEL_STATUS PortRead(ZEL_HANDLE hnd, uint8_t *buffer, uint32_t count)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!buffer && count)
        return ZEL_PARAMETERS_ERROR;
    PortGuard guard(hnd, zel::PortCall::read);
    uint32_t got = 0;
    ZEL_STATUS status = zel::port_read_raw(hnd, buffer, count, &got);
    if (!zel::link_driver(hnd).read)
        return status;
    if (const zel::PortGuardHooks *session = guard.session())
        status = session->filter_reply(hnd, buffer, count, &got, status);
    log_transfer("PortRead[]:> %s | ( %u -> %u ) :: ", status, count, got, buffer);
    return status;
}

extern "C" ZEL_API ZEL_STATUS PortRead1(ZEL_HANDLE hnd, uint8_t *buffer, uint32_t count, uint32_t *count_read)
{
    uint32_t got = 0;
    if (count_read)
        *count_read = 0;
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!buffer && count)
        return ZEL_PARAMETERS_ERROR;
    if (count)
        std::memset(buffer, 0, count);
    const zel::LinkDriver &link = zel::link_driver(hnd);
    const ZEL_STATUS status = link.counted_read ? link.read(hnd, buffer, count, &got) : ZEL_COMMUNICATION_ERROR;
    count_moved(hnd, got < count ? got : count);
    if (count_read)
        *count_read = got;
    return status;
}

extern "C" ZEL_API ZEL_STATUS PortWrite(ZEL_HANDLE hnd, const uint8_t *buffer, uint32_t count)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!buffer && count)
        return ZEL_PARAMETERS_ERROR;
    PortGuard guard(hnd, zel::PortCall::write);
    const zel::LinkDriver &link = zel::link_driver(hnd);
    if (!link.write)
        return ZEL_PARAMETERS_ERROR;
    uint32_t done = 0;
    const ZEL_STATUS status = link.write(hnd, buffer, count, &done);
    count_moved(hnd, done < count ? done : count);
    // A link whose library is missing moved nothing and logs nothing (no driver status maps to this one).
    if (status == ZEL_FTD2XX_DLL_NOT_FOUND)
        return status;
    if (const zel::PortGuardHooks *session = guard.session(); session && status == ZEL_OK)
        session->expect_reply(hnd);
    log_transfer("PortWrite[]:> %s | ( %u -> %u ) :: ", status, count, done < count ? done : count, buffer);
    return status;
}

extern "C" ZEL_API ZEL_STATUS PortPurge(ZEL_HANDLE hnd)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    PortGuard guard(hnd, zel::PortCall::purge);
    // During a session what waits is read instead of dropped (announcements are the session's, not stale);
    // then only the output is purged, so that nothing arriving meanwhile is lost.
    const zel::PortGuardHooks *session = guard.session();
    const bool input_read = session && session->rescue_before_purge(hnd);
    const zel::LinkDriver &link = zel::link_driver(hnd);
    return link.purge ? link.purge(hnd, input_read) : ZEL_PARAMETERS_ERROR;
}

extern "C" ZEL_API ZEL_STATUS PortGetAvailable(ZEL_HANDLE hnd, uint32_t *available)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!available)
        return ZEL_PARAMETERS_ERROR;
    PortGuard guard(hnd, zel::PortCall::plain);
    return zel::port_available_raw(hnd, available);
}

extern "C" ZEL_API ZEL_STATUS PortSetTimeout(ZEL_HANDLE hnd, uint32_t ms)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    PortGuard guard(hnd, zel::PortCall::plain);
    const zel::LinkDriver &link = zel::link_driver(hnd);
    return link.set_timeout ? link.set_timeout(hnd, ms) : ZEL_NOT_IMPLEMENTED;
}

extern "C" ZEL_API ZEL_STATUS PortSetRTS(ZEL_HANDLE hnd, uint32_t level)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (hnd->comm.rts == RTS_DISCONNECTED)
        return ZEL_OK;
    const zel::LinkDriver &link = zel::link_driver(hnd);
    return link.set_rts ? link.set_rts(hnd, level) : ZEL_PARAMETERS_ERROR;
}

extern "C" ZEL_API ZEL_STATUS PortSetBaudRate(ZEL_HANDLE hnd, uint32_t baud)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    return zel::link_driver(hnd).set_baud(hnd, baud);
}

extern "C" ZEL_API ZEL_STATUS PortClose(ZEL_HANDLE hnd)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    const zel::LinkDriver &link = zel::link_driver(hnd);
    const ZEL_STATUS status = link.close ? link.close(hnd) : ZEL_PARAMETERS_ERROR;
    // Without its library a device is left as it was, open.
    if (status == ZEL_FTD2XX_DLL_NOT_FOUND)
        return status;
    hnd->opened = 0;
    return status;
}

extern "C" ZEL_API ZEL_STATUS ReaderCloseHnd(ZEL_HANDLE hnd)
{
    return PortClose(hnd);
}

extern "C" ZEL_API void Zel_Hnd_Destroy(ZEL_HANDLE hnd)
{
    if (!hnd)
        return;
    ReaderCloseHnd(hnd);
    std::free(hnd);
}
