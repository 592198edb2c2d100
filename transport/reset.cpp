// Resetting a reader as a whole (through the network module in front of it when there is one) and the
// presence tests: the frames of the reset family, above the reader operations.
#include "transport/reset.h"

#include "core/frame.h"
#include "core/internal.h"
#include "zel_esp.h"
#include "zel_open.h"
#include "zel_status.h"

namespace {

constexpr uint8_t kCmdStillConnected = 0x2A;
constexpr uint8_t kCmdSoftRestart = 0x30;

} // namespace

ZEL_STATUS zel::reset_pulse(zel_handle_record *hnd)
{
    // A network module in front of the reader resets it on command.
    if (hnd->esp_session)
        return EspReaderResetHnd(hnd);
    const ZEL_STATUS status = reset_pulse_no_wait(hnd);
    if (status != ZEL_OK)
        return status;
    return reset_boot_wait(hnd);
}

extern "C" ZEL_API ZEL_STATUS ReaderResetHnd(ZEL_HANDLE hnd)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    return zel::reset_pulse(hnd);
}

extern "C" ZEL_API ZEL_STATUS ReaderStillConnectedHnd(ZEL_HANDLE hnd, uint32_t *connected)
{
    if (!hnd) {
        if (connected)
            *connected = 0;
        return ZEL_DEVICE_WRONG_HANDLE;
    }
    const ZEL_STATUS status = zel::handshake(hnd, kCmdStillConnected);
    if (connected)
        *connected = status == ZEL_OK ? 1 : 0;
    return status;
}

extern "C" ZEL_API ZEL_STATUS ReaderSoftRestartHnd(ZEL_HANDLE hnd)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    return zel::handshake(hnd, kCmdSoftRestart);
}
