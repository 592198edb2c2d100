// The default-rate opens of the speed repair.
#include "transport/line.h"

#include <cstdio>
#include <cstring>

#include "core/internal.h"
#include "transport/d2xx.h"
#include "transport/reset_line.h"
#include "zel_devices.h"
#include "zel_ftdi.h"
#include "zel_open.h"
#include "zel_port.h"
#include "zel_status.h"

namespace {

uint32_t baud_of(uint8_t reader_type)
{
    return zel_baud_table[reader_type == 1 ? 0 : 1];
}

ZEL_STATUS pulse_and_boot(zel_handle_record *hnd)
{
    uint8_t boot[4];
    ZEL_STATUS status = zel::reset_pulse_no_wait(hnd);
    if (status == ZEL_OK)
        status = PortRead(hnd, boot, sizeof boot);
    return status;
}

} // namespace

ZEL_STATUS zel::default_rate_open_serial(zel_handle_record *hnd, uint8_t reader_type, const char *port_name)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    hnd->opened = 0;
    hnd->open_speed = reader_type;
    hnd->comm.use = ZEL_PORT_SERIAL;
    hnd->br_custom = ZEL_BR_NONE;
    if (rs232_serial_port_init_Hnd(hnd, port_name, reader_type == 1 ? 0 : 1) != 0)
        return ZEL_READER_OPENING_ERROR;
    (void)PortPurge(hnd);
    ZEL_STATUS status = pulse_and_boot(hnd);
    if (status != ZEL_OK) {
        // Perhaps the reset line is wired the other way round.
        hnd->comm.rts = READER_ACTIVE_ON_RTS_HIGH;
        hnd->comm.RTS_inverted = 0;
        status = pulse_and_boot(hnd);
    }
    if (status != ZEL_OK)
        ReaderCloseHnd(hnd);
    return status;
}

ZEL_STATUS zel::default_rate_open_ftdi(zel_handle_record *hnd, uint8_t reader_type)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    hnd->opened = 0;
    const D2xxTable &ft = d2xx();
    if (!(hnd->ftdi_loaded & 1) || !ft.FT_Open)
        return ZEL_FTD2XX_DLL_NOT_FOUND;
    hnd->idx_speed = reader_type == 1 ? 0 : 1;
    hnd->baud_rate = baud_of(reader_type);
    FT_HANDLE dev = nullptr;
    if (ft.FT_Open(0, &dev) != FT_OK)
        return ZEL_READER_OPENING_ERROR;
    hnd->ftHandle = dev;
    hnd->comm.use = ZEL_PORT_FTDI;
    if (ftdi_configure_hnd(dev, hnd->baud_rate, 1500) != FT_OK) {
        PortClose(hnd);
        return ZEL_CAN_NOT_OPEN_READER;
    }
    hnd->opened = 1;
    hnd->open_speed = reader_type;
    (void)PortPurge(hnd);
    ZEL_STATUS status = ReaderResetSetHnd(hnd, 0);
    if (status == ZEL_OK)
        status = ReaderResetSetHnd(hnd, 1);
    os_sleep(5);
    if (status != ZEL_OK) {
        PortClose(hnd);
        return status;
    }
    uint8_t boot[4];
    if (PortRead(hnd, boot, sizeof boot) == ZEL_OK)
        return ZEL_OK;
    // The second pulse and read go through the serial branches, as the repair path always did.
    hnd->comm.use = ZEL_PORT_SERIAL;
    if ((status = pulse_and_boot(hnd)) != ZEL_OK) {
        ReaderCloseHnd(hnd);
        if (ft.FT_Close)
            ft.FT_Close(dev); // the device itself is not left open behind the serial close
        hnd->ftHandle = reinterpret_cast<void *>(~static_cast<uintptr_t>(0));
    }
    return status;
}
