// The network module's reset and its transparent sessions to the reader units behind it.
#include "core/frame.h"
#include "core/internal.h"
#include "zel_esp.h"
#include "zel_status.h"

namespace {
constexpr uint8_t kCmdEspTransparent = 0xF9;
constexpr uint8_t kGetUnits = 0xFE;
} // namespace

extern "C" ZEL_API ZEL_STATUS EspReaderResetHnd(ZEL_HANDLE hnd)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    return zel::handshake(hnd, kCmdEspTransparent);
}

extern "C" ZEL_API ZEL_STATUS EspSetTransparentReaderHnd(ZEL_HANDLE hnd, uint8_t reader_no)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (reader_no == 0)
        return ZEL_PARAMETERS_ERROR;
    return zel::handshake(hnd, kCmdEspTransparent, reader_no, 0);
}

extern "C" ZEL_API ZEL_STATUS EspSetTransparentReaderSessionHnd(ZEL_HANDLE hnd, uint8_t reader_no)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (reader_no == 0)
        return ZEL_PARAMETERS_ERROR;
    return zel::handshake(hnd, kCmdEspTransparent, reader_no, 1);
}

extern "C" ZEL_API ZEL_STATUS EspGetTransparentReadersHnd(ZEL_HANDLE hnd, uint8_t *count)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    uint8_t par[2] = {};
    const ZEL_STATUS status = zel::handshake(hnd, kCmdEspTransparent, kGetUnits, 0, par);
    if (status == ZEL_OK && count)
        *count = par[0];
    return status;
}
