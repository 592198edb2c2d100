// The reset line and the default-rate opens of the speed repair.
#include "reader/line.h"

#include <spawn.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstring>

#include "core/internal.h"
#include "transport/d2xx.h"
#include "zel_devices.h"
#include "zel_ftdi.h"
#include "zel_port.h"
#include "zel_status.h"

extern char **environ;

namespace {

constexpr uint32_t kResetPin = 23;
zel::PinCommandHook g_pin_hook = nullptr;

// Runs "pinctrl set PIN op dl|dh" without a shell.
int run_pin_command(const char *command)
{
    if (g_pin_hook)
        return g_pin_hook(command);
    char copy[64];
    std::snprintf(copy, sizeof copy, "%s", command);
    char *argv[8] = {};
    int argc = 0;
    for (char *save = nullptr, *word = strtok_r(copy, " ", &save); word && argc < 7;
         word = strtok_r(nullptr, " ", &save))
        argv[argc++] = word;
    pid_t pid = 0;
    if (argc == 0 || posix_spawnp(&pid, argv[0], nullptr, nullptr, argv, environ) != 0)
        return -1;
    int wstatus = 0;
    if (waitpid(pid, &wstatus, 0) != pid)
        return -1;
    return WIFEXITED(wstatus) && WEXITSTATUS(wstatus) == 0 ? 0 : -1;
}

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

void zel::set_pin_command_hook(PinCommandHook hook)
{
    g_pin_hook = hook;
}

ZEL_STATUS zel::reset_line_set(zel_handle_record *hnd, uint32_t level)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (hnd->gpio_reset) {
        hnd->comm.RTS_inverted = 0;
        char command[64];
        std::snprintf(command, sizeof command, "pinctrl set %u %s", kResetPin, level ? "op dl" : "op dh");
        if (run_pin_command(command) != 0) {
            std::fprintf(stderr, "Error executing pinctrl command\n");
            return level ? 0x1111u : 0x1112u;
        }
        return ZEL_OK;
    }
    if (hnd->comm.use == ZEL_PORT_FTDI) {
        if (hnd->ftdi_loaded & 1) {
            uint8_t inverted = static_cast<uint8_t>(hnd->comm.RTS_inverted);
            ftdi_CheckRTS(hnd->ftHandle, &inverted);
            hnd->comm.RTS_inverted = inverted;
        }
    } else {
        hnd->comm.RTS_inverted = hnd->comm.rts == READER_ACTIVE_ON_RTS_LOW ? 1 : 0;
    }
    return PortSetRTS(hnd, (level ^ hnd->comm.RTS_inverted) & 1u);
}

ZEL_STATUS zel::reset_pulse_no_wait(zel_handle_record *hnd)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    (void)PortPurge(hnd);
    (void)reset_line_set(hnd, 0);
    const ZEL_STATUS status = reset_line_set(hnd, 1);
    os_sleep(5);
    return status;
}

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
    ZEL_STATUS status = reset_line_set(hnd, 0);
    if (status == ZEL_OK)
        status = reset_line_set(hnd, 1);
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
