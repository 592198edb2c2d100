// The back end of each kind of link: serial terminal, D2XX device, socket and the test link. The port
// layer (transport/port.cpp) picks one by the record's comm.use and knows no kind of its own.
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include "core/internal.h"
#include "transport/d2xx.h"
#include "transport/port.h"
#include "transport/serial.h"
#include "zel_port.h"
#include "zel_status.h"

namespace {

inline ZEL_STATUS ft_status(zel::FT_STATUS s)
{
    return ZEL_FT_STATUS_BASE | s;
}

inline bool ftdi_ready(const zel_handle_record *hnd)
{
    return (hnd->ftdi_loaded & 1) != 0;
}

// Serial terminal.

zel::ReadAhead read_ahead(zel_handle_record *hnd)
{
    return zel::ReadAhead{hnd->com_rx_buf, sizeof hnd->com_rx_buf, &hnd->com_rx_len};
}

ZEL_STATUS serial_read(zel_handle_record *hnd, uint8_t *buffer, uint32_t count, uint32_t *got)
{
    switch (zel::serial_read(zel::com_fd(hnd), read_ahead(hnd), buffer, count, hnd->com_read_timeout_ms, got)) {
    case zel::IoResult::ok: return ZEL_OK;
    case zel::IoResult::short_count: return ZEL_COMMUNICATION_BREAK;
    case zel::IoResult::failed: break;
    }
    return ZEL_COMMUNICATION_ERROR;
}

ZEL_STATUS serial_write(zel_handle_record *hnd, const uint8_t *buffer, uint32_t count, uint32_t *done)
{
    int error = 0;
    switch (zel::serial_write(zel::com_fd(hnd), buffer, count, hnd->com_write_timeout_ms, done, &error)) {
    case zel::IoResult::ok: return ZEL_OK;
    case zel::IoResult::short_count: return ZEL_COMMUNICATION_BREAK;
    case zel::IoResult::failed: break;
    }
    // A device that does not take the request reports EINVAL; it reads as the fifth FT status.
    return error == EINVAL ? ZEL_FT_STATUS_ERROR_5 : ZEL_COMMUNICATION_ERROR;
}

ZEL_STATUS serial_purge(zel_handle_record *hnd, bool input_read)
{
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

ZEL_STATUS serial_available(zel_handle_record *hnd, uint32_t *available)
{
    int queued = 0;
    const int fd = zel::com_fd(hnd);
    if (fd < 0 || ioctl(fd, FIONREAD, &queued) != 0)
        return ZEL_COMMUNICATION_ERROR;
    *available = (queued > 0 ? static_cast<uint32_t>(queued) : 0u) + hnd->com_rx_len;
    return ZEL_OK;
}

ZEL_STATUS serial_set_timeout(zel_handle_record *hnd, uint32_t ms)
{
    const int fd = zel::com_fd(hnd);
    if (fd < 0 || fcntl(fd, F_GETFD) == -1)
        return ZEL_READER_PORT_NOT_OPENED;
    hnd->com_read_timeout_ms = ms;
    return ZEL_OK;
}

ZEL_STATUS serial_set_rts(zel_handle_record *hnd, uint32_t level)
{
    const int fd = zel::com_fd(hnd);
    int rts = TIOCM_RTS;
    const bool failed = fd < 0 || ioctl(fd, level ? TIOCMBIS : TIOCMBIC, &rts) != 0;
    // Every RTS change also drops DTR, whatever happened to RTS.
    int dtr = TIOCM_DTR;
    if (fd >= 0)
        (void)ioctl(fd, TIOCMBIC, &dtr);
    return failed ? ZEL_COMMUNICATION_ERROR : ZEL_OK;
}

// The speed of the record's descriptor; every kind but the D2XX device sets it this way.
ZEL_STATUS descriptor_set_baud(zel_handle_record *hnd, uint32_t baud)
{
    const int fd = zel::com_fd(hnd);
    if (fd < 0 || zel::serial_set_baud(fd, baud) != 0)
        return ZEL_COMMUNICATION_ERROR;
    return ZEL_OK;
}

ZEL_STATUS serial_close(zel_handle_record *hnd)
{
    const int fd = zel::com_fd(hnd);
    // Only a descriptor this record opened is ever closed; none at all reads as a failed close.
    const ZEL_STATUS status = fd < 0 || close(fd) != 0 ? ZEL_CANT_CLOSE_READER_PORT : ZEL_OK;
    hnd->comHandle = nullptr;
    hnd->com_rx_len = 0;
    return status;
}

uint32_t serial_read_some(zel_handle_record *hnd, uint8_t *buffer, uint32_t max)
{
    uint32_t got = 0;
    return zel::serial_read_some(zel::com_fd(hnd), read_ahead(hnd), buffer, max, hnd->com_read_timeout_ms, &got) ==
                   zel::IoResult::ok
               ? got
               : 0;
}

uint32_t serial_unread(zel_handle_record *hnd, const uint8_t *bytes, uint32_t n)
{
    return zel::serial_unread(read_ahead(hnd), bytes, n);
}

// D2XX device. Every call first needs the library loaded.

ZEL_STATUS ftdi_read(zel_handle_record *hnd, uint8_t *buffer, uint32_t count, uint32_t *got)
{
    if (!ftdi_ready(hnd))
        return ZEL_FTD2XX_DLL_NOT_FOUND;
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

ZEL_STATUS ftdi_write(zel_handle_record *hnd, const uint8_t *buffer, uint32_t count, uint32_t *done)
{
    if (!ftdi_ready(hnd))
        return ZEL_FTD2XX_DLL_NOT_FOUND;
    const zel::D2xxTable &ft = zel::d2xx();
    if (!ft.FT_Write)
        return ZEL_FTD2XX_DLL_NOT_FOUND;
    const zel::FT_STATUS s = ft.FT_Write(hnd->ftHandle, const_cast<uint8_t *>(buffer), count, done);
    if (s != zel::FT_OK)
        return ft_status(s);
    return *done != count ? ZEL_COMMUNICATION_BREAK : ZEL_OK;
}

ZEL_STATUS ftdi_purge(zel_handle_record *hnd, bool input_read)
{
    if (!ftdi_ready(hnd) || !zel::d2xx().FT_Purge)
        return ZEL_FTD2XX_DLL_NOT_FOUND;
    const zel::FT_STATUS s =
        zel::d2xx().FT_Purge(hnd->ftHandle, input_read ? zel::FT_PURGE_TX : zel::FT_PURGE_RX | zel::FT_PURGE_TX);
    return s == zel::FT_OK ? ZEL_OK : ft_status(s);
}

ZEL_STATUS ftdi_available(zel_handle_record *hnd, uint32_t *available)
{
    if (!ftdi_ready(hnd) || !zel::d2xx().FT_GetQueueStatus)
        return ZEL_FTD2XX_DLL_NOT_FOUND;
    const zel::FT_STATUS s = zel::d2xx().FT_GetQueueStatus(hnd->ftHandle, available);
    return s == zel::FT_OK ? ZEL_OK : ft_status(s);
}

ZEL_STATUS ftdi_set_timeout(zel_handle_record *hnd, uint32_t ms)
{
    if (!ftdi_ready(hnd) || !zel::d2xx().FT_SetTimeouts)
        return ZEL_FTD2XX_DLL_NOT_FOUND;
    return zel::d2xx().FT_SetTimeouts(hnd->ftHandle, ms, 1000);
}

ZEL_STATUS ftdi_set_rts(zel_handle_record *hnd, uint32_t level)
{
    if (!ftdi_ready(hnd))
        return ZEL_FTD2XX_DLL_NOT_FOUND;
    const zel::D2xxTable &ft = zel::d2xx();
    auto fn = level ? ft.FT_SetRts : ft.FT_ClrRts;
    if (!fn)
        return ZEL_FTD2XX_DLL_NOT_FOUND;
    const zel::FT_STATUS s = fn(hnd->ftHandle);
    return s == zel::FT_OK ? ZEL_OK : ft_status(s);
}

ZEL_STATUS ftdi_set_baud(zel_handle_record *hnd, uint32_t baud)
{
    if (!ftdi_ready(hnd) || !zel::d2xx().FT_SetBaudRate)
        return ZEL_FTD2XX_DLL_NOT_FOUND;
    return zel::d2xx().FT_SetBaudRate(hnd->ftHandle, baud);
}

ZEL_STATUS ftdi_close(zel_handle_record *hnd)
{
    if (!ftdi_ready(hnd) || !zel::d2xx().FT_Close)
        return ZEL_FTD2XX_DLL_NOT_FOUND;
    const zel::FT_STATUS s = zel::d2xx().FT_Close(hnd->ftHandle);
    hnd->ftHandle = reinterpret_cast<void *>(~static_cast<uintptr_t>(0));
    if (s == zel::FT_INVALID_HANDLE)
        return ZEL_READER_PORT_NOT_OPENED;
    return s != zel::FT_OK ? ZEL_CANT_CLOSE_READER_PORT : ZEL_OK;
}

// Socket: reads take from the front of the record's receive buffer.

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

ZEL_STATUS socket_write(zel_handle_record *hnd, const uint8_t *buffer, uint32_t count, uint32_t *done)
{
    const int sent = udp_tx(hnd, buffer, count);
    *done = sent < 0 ? 0u : static_cast<uint32_t>(sent);
    return *done != count ? ZEL_COMMUNICATION_BREAK : ZEL_OK;
}

ZEL_STATUS socket_purge(zel_handle_record *hnd, bool)
{
    udp_purge(hnd);
    return ZEL_OK;
}

ZEL_STATUS socket_close(zel_handle_record *hnd)
{
    udp_close(hnd);
    return ZEL_OK;
}

// The test link: the caller's functions, one set for the process.

std::atomic<const zel::LinkHooks *> g_hooks{nullptr};

ZEL_STATUS hook_read(zel_handle_record *, uint8_t *buffer, uint32_t count, uint32_t *got)
{
    const zel::LinkHooks *h = g_hooks.load();
    if (!h || !h->read)
        return ZEL_COMMUNICATION_ERROR;
    *got = h->read(h->context, buffer, count);
    if (*got > count)
        *got = count;
    return *got < count ? ZEL_COMMUNICATION_BREAK : ZEL_OK;
}

ZEL_STATUS hook_write(zel_handle_record *, const uint8_t *buffer, uint32_t count, uint32_t *done)
{
    const zel::LinkHooks *h = g_hooks.load();
    if (!h || !h->write)
        return ZEL_COMMUNICATION_ERROR;
    *done = h->write(h->context, buffer, count);
    return *done != count ? ZEL_COMMUNICATION_BREAK : ZEL_OK;
}

ZEL_STATUS hook_purge(zel_handle_record *, bool)
{
    if (const zel::LinkHooks *h = g_hooks.load(); h && h->purge)
        h->purge(h->context);
    return ZEL_OK;
}

ZEL_STATUS hook_available(zel_handle_record *, uint32_t *available)
{
    const zel::LinkHooks *h = g_hooks.load();
    if (!h)
        return ZEL_COMMUNICATION_ERROR;
    *available = h->available ? h->available(h->context) : 0u;
    return ZEL_OK;
}

} // namespace

void zel::set_link_hooks(const LinkHooks *hooks)
{
    g_hooks.store(hooks);
}

namespace {

constexpr zel::LinkDriver kSerialDriver = {.read = serial_read,
                                           .counted_read = true,
                                           .write = serial_write,
                                           .purge = serial_purge,
                                           .available = serial_available,
                                           .set_timeout = serial_set_timeout,
                                           .set_rts = serial_set_rts,
                                           .set_baud = descriptor_set_baud,
                                           .close = serial_close,
                                           .read_some = serial_read_some,
                                           .unread = serial_unread};
constexpr zel::LinkDriver kFtdiDriver = {.read = ftdi_read,
                                         .counted_read = true,
                                         .write = ftdi_write,
                                         .purge = ftdi_purge,
                                         .available = ftdi_available,
                                         .set_timeout = ftdi_set_timeout,
                                         .set_rts = ftdi_set_rts,
                                         .set_baud = ftdi_set_baud,
                                         .close = ftdi_close};
// A socket has no queue to ask, no time-out of the port's and no RTS line; its speed is set as a
// descriptor's (the record has none: a communication error).
constexpr zel::LinkDriver kSocketDriver = {.read = socket_read,
                                           .write = socket_write,
                                           .purge = socket_purge,
                                           .set_baud = descriptor_set_baud,
                                           .close = socket_close};
constexpr zel::LinkDriver kHookDriver = {.read = hook_read,
                                         .write = hook_write,
                                         .purge = hook_purge,
                                         .available = hook_available,
                                         .set_baud = descriptor_set_baud};
// Any other kind, the local interface (ZEL_PORT_LOCAL) among them, which is not implemented.
constexpr zel::LinkDriver kUnknownDriver = {.set_baud = descriptor_set_baud};

struct KindDriver {
    uint32_t kind;
    const zel::LinkDriver *driver;
};
constexpr KindDriver kDrivers[] = {{ZEL_PORT_FTDI, &kFtdiDriver},
                                   {ZEL_PORT_SERIAL, &kSerialDriver},
                                   {ZEL_PORT_SOCKET, &kSocketDriver},
                                   {zel::kPortHook, &kHookDriver}};

} // namespace

const zel::LinkDriver &zel::link_driver(const zel_handle_record *hnd)
{
    for (const KindDriver &k : kDrivers) {
        if (k.kind == hnd->comm.use)
            return *k.driver;
    }
    return kUnknownDriver;
}
