// The port layer: read, write, purge, time-outs, RTS, speed and close over the three kinds of link.
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include "async/internal.h"
#include "core/internal.h"
#include "transport/d2xx.h"
#include "transport/serial.h"
#include "zel_port.h"
#include "zel_status.h"

const uint32_t zel_baud_table[ZEL_BAUD_TABLE_LEN] = {1000000, 115200, 250000, 9600,   19200,
                                                     38400,   57600,  230400, 460800, 500000};

namespace {

// While an asynchronous session runs, port calls raise the busy flag, then take the lock; they release in
// the opposite order. On the session's own record the session decides when a call may go (see
// async/arbiter.cpp): a command of the event thread and the application's never interleave on the line.
class PortGuard {
public:
    PortGuard(zel_handle_record *hnd, zel::async::PortCall call)
        : hnd_(hnd), locked_(__atomic_load_n(&hnd->port_lock_on, __ATOMIC_ACQUIRE) != 0)
    {
        if (locked_)
            token_ = zel::async::port_enter(hnd_, call);
    }
    ~PortGuard()
    {
        if (locked_)
            zel::async::port_leave(hnd_, token_);
    }
    PortGuard(const PortGuard &) = delete;
    PortGuard &operator=(const PortGuard &) = delete;

    // True on the record of a running session.
    bool session() const { return locked_ && zel::async::is_session_port(hnd_); }

private:
    zel_handle_record *hnd_;
    bool locked_;
    int token_ = 0;
};

inline ZEL_STATUS ft_status(zel::FT_STATUS s)
{
    return ZEL_FT_STATUS_BASE | s;
}

inline bool ftdi_ready(const zel_handle_record *hnd)
{
    return (hnd->ftdi_loaded & 1) != 0;
}

void log_transfer(const char *format, ZEL_STATUS status, uint32_t asked, uint32_t done, const uint8_t *bytes)
{
    if (!zel::dp_enabled())
        return;
    dp(6, format, ZEL_Status2String(status), asked, done);
    dp_hex_eol(6, bytes, done);
}

ZEL_STATUS serial_read(zel_handle_record *hnd, uint8_t *buffer, uint32_t count, uint32_t *got)
{
    const zel::ReadAhead ahead{hnd->com_rx_buf, sizeof hnd->com_rx_buf, &hnd->com_rx_len};
    switch (zel::serial_read(zel::com_fd(hnd), ahead, buffer, count, hnd->com_read_timeout_ms, got)) {
    case zel::IoResult::ok: return ZEL_OK;
    case zel::IoResult::short_count: return ZEL_COMMUNICATION_BREAK;
    case zel::IoResult::failed: break;
    }
    return ZEL_COMMUNICATION_ERROR;
}

ZEL_STATUS ftdi_read(zel_handle_record *hnd, uint8_t *buffer, uint32_t count, uint32_t *got)
{
    const zel::D2xxTable &ft = zel::d2xx();
    if (!ft.FT_Read)
        return ZEL_FTD2XX_DLL_NOT_FOUND;
    const zel::FT_STATUS s = ft.FT_Read(hnd->ftHandle, buffer, count, got);
    if (*got > count)
        *got = count; // never trust a driver's count beyond what was asked
    if (s != zel::FT_OK)
        return ft_status(s);
    return *got < count ? ZEL_COMMUNICATION_BREAK : ZEL_OK;
}

// Takes up to count bytes from the front of the socket buffer.
ZEL_STATUS socket_read(zel_handle_record *hnd, uint8_t *buffer, uint32_t count, uint32_t *got)
{
    if (hnd->udp_rx_len < 0 || hnd->udp_rx_len > ZEL_UDP_RX_BUF_LEN)
        hnd->udp_rx_len = 0;
    if (static_cast<uint32_t>(hnd->udp_rx_len) < count)
        udp_rx(hnd, count);
    const uint32_t held = static_cast<uint32_t>(hnd->udp_rx_len);
    const uint32_t take = held < count ? held : count;
    if (take) {
        std::memcpy(buffer, hnd->udp_rx_buf, take);
        std::memmove(hnd->udp_rx_buf, hnd->udp_rx_buf + take, held - take);
        hnd->udp_rx_len = static_cast<int32_t>(held - take);
    }
    *got = take;
    return take < count ? ZEL_COMMUNICATION_BREAK : ZEL_OK;
}

std::atomic<const zel::LinkHooks *> g_hooks{nullptr};

ZEL_STATUS hook_read(uint8_t *buffer, uint32_t count, uint32_t *got)
{
    const zel::LinkHooks *h = g_hooks.load();
    if (!h || !h->read)
        return ZEL_COMMUNICATION_ERROR;
    *got = h->read(h->context, buffer, count);
    if (*got > count)
        *got = count;
    return *got < count ? ZEL_COMMUNICATION_BREAK : ZEL_OK;
}

ZEL_STATUS hook_write(const uint8_t *buffer, uint32_t count, uint32_t *done)
{
    const zel::LinkHooks *h = g_hooks.load();
    if (!h || !h->write)
        return ZEL_COMMUNICATION_ERROR;
    *done = h->write(h->context, buffer, count);
    return *done != count ? ZEL_COMMUNICATION_BREAK : ZEL_OK;
}

} // namespace

void zel::set_link_hooks(const LinkHooks *hooks)
{
    g_hooks.store(hooks);
}

const zel::LinkHooks *zel::link_hooks()
{
    return g_hooks.load();
}

namespace {

// The read of each kind of port; false for a kind that has none.
bool read_by_kind(zel_handle_record *hnd, uint8_t *buffer, uint32_t count, uint32_t *got, ZEL_STATUS *status)
{
    switch (hnd->comm.use) {
    case ZEL_PORT_SERIAL: *status = serial_read(hnd, buffer, count, got); return true;
    case ZEL_PORT_FTDI:
        *status = ftdi_ready(hnd) ? ftdi_read(hnd, buffer, count, got) : ZEL_FTD2XX_DLL_NOT_FOUND;
        return true;
    case ZEL_PORT_SOCKET: *status = socket_read(hnd, buffer, count, got); return true;
    case zel::kPortHook: *status = hook_read(buffer, count, got); return true;
    default: return false;
    }
}

} // namespace

ZEL_STATUS zel::port_read_raw(zel_handle_record *hnd, uint8_t *buffer, uint32_t count, uint32_t *got)
{
    *got = 0;
    ZEL_STATUS status = ZEL_PARAMETERS_ERROR;
    if (!read_by_kind(hnd, buffer, count, got, &status))
        return ZEL_PARAMETERS_ERROR;
    return status;
}

extern "C" ZEL_API ZEL_STATUS PortRead(ZEL_HANDLE hnd, uint8_t *buffer, uint32_t count)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!buffer && count)
        return ZEL_PARAMETERS_ERROR;
    PortGuard guard(hnd, zel::async::PortCall::read);
    uint32_t got = 0;
    ZEL_STATUS status = ZEL_OK;
    if (!read_by_kind(hnd, buffer, count, &got, &status))
        return ZEL_PARAMETERS_ERROR;
    if (guard.session())
        status = zel::async::filter_reply(hnd, buffer, count, &got, status);
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
    ZEL_STATUS status;
    switch (hnd->comm.use) {
    case ZEL_PORT_SERIAL: status = serial_read(hnd, buffer, count, &got); break;
    case ZEL_PORT_FTDI:
        status = ftdi_ready(hnd) ? ftdi_read(hnd, buffer, count, &got) : ZEL_FTD2XX_DLL_NOT_FOUND;
        break;
    default: status = ZEL_COMMUNICATION_ERROR; break;
    }
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
    PortGuard guard(hnd, zel::async::PortCall::write);
    uint32_t done = 0;
    ZEL_STATUS status = ZEL_OK;
    switch (hnd->comm.use) {
    case ZEL_PORT_SERIAL: {
        int error = 0;
        switch (zel::serial_write(zel::com_fd(hnd), buffer, count, hnd->com_write_timeout_ms, &done, &error)) {
        case zel::IoResult::ok: break;
        case zel::IoResult::short_count: status = ZEL_COMMUNICATION_BREAK; break;
        case zel::IoResult::failed:
            // A device that does not take the request reports EINVAL; it reads as the fifth FT status.
            status = error == EINVAL ? ZEL_FT_STATUS_ERROR_5 : ZEL_COMMUNICATION_ERROR;
            break;
        }
        break;
    }
    case ZEL_PORT_SOCKET: {
        const int sent = udp_tx(hnd, buffer, count);
        done = sent < 0 ? 0u : static_cast<uint32_t>(sent);
        status = done != count ? ZEL_COMMUNICATION_BREAK : ZEL_OK;
        break;
    }
    case zel::kPortHook: status = hook_write(buffer, count, &done); break;
    case ZEL_PORT_FTDI: {
        if (!ftdi_ready(hnd))
            return ZEL_FTD2XX_DLL_NOT_FOUND;
        const zel::D2xxTable &ft = zel::d2xx();
        if (!ft.FT_Write)
            return ZEL_FTD2XX_DLL_NOT_FOUND;
        const zel::FT_STATUS s = ft.FT_Write(hnd->ftHandle, const_cast<uint8_t *>(buffer), count, &done);
        if (s != zel::FT_OK)
            status = ft_status(s);
        else if (done != count)
            status = ZEL_COMMUNICATION_BREAK;
        break;
    }
    default: return ZEL_PARAMETERS_ERROR;
    }
    if (guard.session() && status == ZEL_OK)
        zel::async::expect_reply(hnd);
    log_transfer("PortWrite[]:> %s | ( %u -> %u ) :: ", status, count, done < count ? done : count, buffer);
    return status;
}

extern "C" ZEL_API ZEL_STATUS PortPurge(ZEL_HANDLE hnd)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    PortGuard guard(hnd, zel::async::PortCall::purge);
    // During a session what waits is read instead of dropped (announcements are the session's, not stale);
    // then only the output is purged, so that nothing arriving meanwhile is lost.
    const bool input_read = guard.session() && zel::async::rescue_before_purge(hnd);
    switch (hnd->comm.use) {
    case ZEL_PORT_SERIAL: {
        const int fd = zel::com_fd(hnd);
        if (!input_read)
            hnd->com_rx_len = 0; // what was read ahead is stale too
        if (fd < 0)
            return ZEL_COMMAND_FAILED;
        // Asking whether a queue holds anything costs less than flushing it; mostly neither does.
        int in_queue = 0, out_queue = 0;
        if (ioctl(fd, FIONREAD, &in_queue) != 0 || ioctl(fd, TIOCOUTQ, &out_queue) != 0)
            return tcflush(fd, input_read ? TCOFLUSH : TCIOFLUSH) == 0 ? ZEL_OK : ZEL_COMMAND_FAILED;
        if (input_read)
            in_queue = 0;
        const int which = in_queue && out_queue ? TCIOFLUSH : in_queue ? TCIFLUSH : out_queue ? TCOFLUSH : -1;
        if (which >= 0 && tcflush(fd, which) != 0)
            return ZEL_COMMAND_FAILED;
        return ZEL_OK;
    }
    case ZEL_PORT_FTDI: {
        if (!ftdi_ready(hnd) || !zel::d2xx().FT_Purge)
            return ZEL_FTD2XX_DLL_NOT_FOUND;
        const zel::FT_STATUS s =
            zel::d2xx().FT_Purge(hnd->ftHandle, input_read ? zel::FT_PURGE_TX : zel::FT_PURGE_RX | zel::FT_PURGE_TX);
        return s == zel::FT_OK ? ZEL_OK : ft_status(s);
    }
    case ZEL_PORT_SOCKET: udp_purge(hnd); return ZEL_OK;
    case zel::kPortHook:
        if (const zel::LinkHooks *h = g_hooks.load(); h && h->purge)
            h->purge(h->context);
        return ZEL_OK;
    default: return ZEL_PARAMETERS_ERROR;
    }
}

ZEL_STATUS zel::port_available_raw(zel_handle_record *hnd, uint32_t *available)
{
    *available = 0;
    switch (hnd->comm.use) {
    case ZEL_PORT_FTDI: {
        if (!ftdi_ready(hnd) || !zel::d2xx().FT_GetQueueStatus)
            return ZEL_FTD2XX_DLL_NOT_FOUND;
        const zel::FT_STATUS s = zel::d2xx().FT_GetQueueStatus(hnd->ftHandle, available);
        return s == zel::FT_OK ? ZEL_OK : ft_status(s);
    }
    case ZEL_PORT_SERIAL: {
        int queued = 0;
        const int fd = zel::com_fd(hnd);
        if (fd < 0 || ioctl(fd, FIONREAD, &queued) != 0)
            return ZEL_COMMUNICATION_ERROR;
        *available = (queued > 0 ? static_cast<uint32_t>(queued) : 0u) + hnd->com_rx_len;
        return ZEL_OK;
    }
    case zel::kPortHook: {
        const zel::LinkHooks *h = g_hooks.load();
        if (!h)
            return ZEL_COMMUNICATION_ERROR;
        *available = h->available ? h->available(h->context) : 0u;
        return ZEL_OK;
    }
    default: return ZEL_PARAMETERS_ERROR;
    }
}

extern "C" ZEL_API ZEL_STATUS PortGetAvailable(ZEL_HANDLE hnd, uint32_t *available)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!available)
        return ZEL_PARAMETERS_ERROR;
    PortGuard guard(hnd, zel::async::PortCall::plain);
    return zel::port_available_raw(hnd, available);
}

extern "C" ZEL_API ZEL_STATUS PortSetTimeout(ZEL_HANDLE hnd, uint32_t ms)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    PortGuard guard(hnd, zel::async::PortCall::plain);
    switch (hnd->comm.use) {
    case ZEL_PORT_FTDI:
        if (!ftdi_ready(hnd) || !zel::d2xx().FT_SetTimeouts)
            return ZEL_FTD2XX_DLL_NOT_FOUND;
        return zel::d2xx().FT_SetTimeouts(hnd->ftHandle, ms, 1000);
    case ZEL_PORT_SERIAL: {
        const int fd = zel::com_fd(hnd);
        if (fd < 0 || fcntl(fd, F_GETFD) == -1)
            return ZEL_READER_PORT_NOT_OPENED;
        hnd->com_read_timeout_ms = ms;
        return ZEL_OK;
    }
    default: return ZEL_NOT_IMPLEMENTED;
    }
}

extern "C" ZEL_API ZEL_STATUS PortSetRTS(ZEL_HANDLE hnd, uint32_t level)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (hnd->comm.rts == RTS_DISCONNECTED)
        return ZEL_OK;
    switch (hnd->comm.use) {
    case ZEL_PORT_FTDI: {
        if (!ftdi_ready(hnd))
            return ZEL_FTD2XX_DLL_NOT_FOUND;
        const zel::D2xxTable &ft = zel::d2xx();
        auto fn = level ? ft.FT_SetRts : ft.FT_ClrRts;
        if (!fn)
            return ZEL_FTD2XX_DLL_NOT_FOUND;
        const zel::FT_STATUS s = fn(hnd->ftHandle);
        return s == zel::FT_OK ? ZEL_OK : ft_status(s);
    }
    case ZEL_PORT_SERIAL: {
        const int fd = zel::com_fd(hnd);
        int rts = TIOCM_RTS;
        const bool failed = fd < 0 || ioctl(fd, level ? TIOCMBIS : TIOCMBIC, &rts) != 0;
        // Every RTS change also drops DTR, whatever happened to RTS.
        int dtr = TIOCM_DTR;
        if (fd >= 0)
            (void)ioctl(fd, TIOCMBIC, &dtr);
        return failed ? ZEL_COMMUNICATION_ERROR : ZEL_OK;
    }
    default: return ZEL_PARAMETERS_ERROR;
    }
}

extern "C" ZEL_API ZEL_STATUS PortSetBaudRate(ZEL_HANDLE hnd, uint32_t baud)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (hnd->comm.use == ZEL_PORT_FTDI) {
        if (!ftdi_ready(hnd) || !zel::d2xx().FT_SetBaudRate)
            return ZEL_FTD2XX_DLL_NOT_FOUND;
        return zel::d2xx().FT_SetBaudRate(hnd->ftHandle, baud);
    }
    const int fd = zel::com_fd(hnd);
    if (fd < 0 || zel::serial_set_baud(fd, baud) != 0)
        return ZEL_COMMUNICATION_ERROR;
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS PortClose(ZEL_HANDLE hnd)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    ZEL_STATUS status = ZEL_OK;
    switch (hnd->comm.use) {
    case ZEL_PORT_SERIAL: {
        const int fd = zel::com_fd(hnd);
        // Only a descriptor this record opened is ever closed; none at all reads as a failed close.
        if (fd < 0 || close(fd) != 0)
            status = ZEL_CANT_CLOSE_READER_PORT;
        hnd->comHandle = nullptr;
        hnd->com_rx_len = 0;
        break;
    }
    case ZEL_PORT_FTDI: {
        if (!ftdi_ready(hnd) || !zel::d2xx().FT_Close)
            return ZEL_FTD2XX_DLL_NOT_FOUND;
        const zel::FT_STATUS s = zel::d2xx().FT_Close(hnd->ftHandle);
        hnd->ftHandle = reinterpret_cast<void *>(~static_cast<uintptr_t>(0));
        if (s == zel::FT_INVALID_HANDLE)
            status = ZEL_READER_PORT_NOT_OPENED;
        else if (s != zel::FT_OK)
            status = ZEL_CANT_CLOSE_READER_PORT;
        break;
    }
    case ZEL_PORT_SOCKET: udp_close(hnd); break;
    default: status = ZEL_PARAMETERS_ERROR; break;
    }
    hnd->opened = 0;
    return status;
}

extern "C" ZEL_API ZEL_STATUS ReaderCloseHnd(ZEL_HANDLE hnd)
{
    return PortClose(hnd);
}
