// Opening a serial port for a reader.
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdio>

#include "core/internal.h"
#include "transport/serial.h"
#include "zel_devices.h"
#include "zel_port.h"
#include "zel_status.h"

// The speeds a reader opens at, by index.
const uint32_t zel_baud_table[ZEL_BAUD_TABLE_LEN] = {1000000, 115200, 250000, 9600,   19200,
                                                     38400,   57600,  230400, 460800, 500000};

extern "C" ZEL_API int rs232_serial_port_init(ZEL_HANDLE hnd, const char *port_name, uint32_t baud)
{
    if (!hnd || !port_name)
        return 0;
    // With the reset line disconnected or the reset left out, the open must not move RTS.
    const bool keep_rts = hnd->comm.rts == RTS_DISCONNECTED || hnd->reset_on_open == UNIT_OPEN_RESET_DISABLE;
    if (zel::serial_open(hnd, port_name, baud, keep_rts) != ZEL_OK) {
        dp(6, "Not valid port: %s | error = %d", port_name, errno);
        return 0;
    }
    // Exclusive, as a port that another program also reads loses replies.
    (void)ioctl(zel::com_fd(hnd), TIOCEXCL);
    hnd->com_read_timeout_ms = 1500;
    hnd->com_write_timeout_ms = 1500;
    return 1;
}

namespace {
int init_at_index(ZEL_HANDLE hnd, const char *port_name, uint32_t index)
{
    if (!hnd || index >= ZEL_BAUD_TABLE_LEN)
        return -2;
    hnd->idx_speed = index;
    hnd->baud_rate = zel_baud_table[index];
    hnd->comm.use = ZEL_PORT_SERIAL;
    const int ok = rs232_serial_port_init(hnd, port_name, hnd->baud_rate);
    hnd->opened = ok ? 1 : 0;
    return ok ? 0 : -2;
}
} // namespace

extern "C" ZEL_API int rs232_serial_port_init_Hnd(ZEL_HANDLE hnd, const char *port_name, uint32_t speed_index)
{
    if (!hnd)
        return -2;
    if (hnd->br_custom != ZEL_BR_NONE)
        speed_index = hnd->br_custom;
    if (port_name)
        std::snprintf(hnd->try_port, ZEL_TRY_PORT_LEN - 1, "%s", port_name);
    return init_at_index(hnd, port_name, speed_index);
}

extern "C" ZEL_API int rs232_serial_port_init_Hnd_device_type(ZEL_HANDLE hnd, const char *port_name,
                                                              uint32_t speed_index, int32_t device_index)
{
    if (!hnd)
        return -2;
    hnd->device_index = device_index;
    return init_at_index(hnd, port_name, speed_index);
}
