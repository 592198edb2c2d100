// Raw paths: bytes to the card through the reader's contactless front end, the raw transceive mode in which
// the serial link talks to the card directly, and the way out of it.
#include <cstring>

#include "apdu/apdu_internal.h"
#include "core/bytes.h"
#include "core/frame.h"
#include "tandro.h"
#include "zel_apdu.h"

using namespace zel;

namespace {

const char kExitText[] = "exit from transceive mode"; // sent without its terminator
constexpr uint32_t kExitLen = sizeof kExitText - 1;

} // namespace

extern "C" ZEL_API ZEL_STATUS pn512_transceiveHnd(ZEL_HANDLE hnd, uint8_t flag1, uint8_t flag2, uint8_t flag3,
                                                  uint8_t flag4, uint8_t flag5, uint32_t param, const uint8_t *send,
                                                  uint8_t send_len, uint8_t *recv, uint32_t *recv_len)
{
    if (recv_len)
        *recv_len = 0;
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if ((!send && send_len) || !recv || !recv_len)
        return ZEL_PARAMETERS_ERROR;
    if (send_len > 248)
        return ZEL_MAX_SIZE_EXCEEDED; // parameter, length, bytes, zero byte and checksum fill one EXT
    const uint8_t flags = static_cast<uint8_t>((flag1 ? 0x01 : 0) | (flag2 ? 0x02 : 0) | (flag3 ? 0x04 : 0) |
                                               (flag4 ? 0x08 : 0) | (flag5 ? 0x10 : 0));
    uint8_t ext[256];
    put_le32(ext, param);
    ext[4] = send_len;
    if (send_len)
        std::memcpy(ext + 5, send, send_len);
    ext[5 + send_len] = 0;
    Reply r;
    const ZEL_STATUS status =
        command_write_reply(hnd, kCmdFrontEnd, flags, 0, ext, static_cast<uint8_t>(send_len + 6), r);
    if (status != ZEL_OK)
        return status;
    const uint32_t n = r.data_len();
    std::memcpy(recv, r.buf, n);
    *recv_len = n;
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS card_transceiveHnd(ZEL_HANDLE hnd, uint8_t flag1, uint8_t flag2, uint8_t flag3,
                                                 uint8_t flag4, uint8_t flag5, uint32_t param, const uint8_t *send,
                                                 uint8_t send_len, uint8_t *recv, uint32_t *recv_len)
{
    return pn512_transceiveHnd(hnd, flag1, flag2, flag3, flag4, flag5, param, send, send_len, recv, recv_len);
}

extern "C" ZEL_API ZEL_STATUS pn512_transceive_mode_startHnd(ZEL_HANDLE hnd, uint8_t flag1, uint8_t flag2,
                                                             uint32_t param, uint32_t timeout_ms)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    const uint8_t flags = static_cast<uint8_t>(0x02 | (flag1 ? 0x04 : 0) | (flag2 ? 0x08 : 0));
    uint8_t ext[5];
    put_le32(ext, param);
    ext[4] = 0;
    uint8_t buf[kFrameBufLen] = {};
    make_command(buf, kCmdFrontEnd, 0, flags, 0);
    const ZEL_STATUS status = exchange_write_ext(hnd, buf, ext, sizeof ext, nullptr, nullptr);
    if (status != ZEL_OK)
        return status;
    PortSetTimeout(hnd, timeout_ms);
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS card_transceive_mode_startHnd(ZEL_HANDLE hnd, uint8_t flag1, uint8_t flag2,
                                                            uint32_t param, uint32_t timeout_ms)
{
    return pn512_transceive_mode_startHnd(hnd, flag1, flag2, param, timeout_ms);
}

extern "C" ZEL_API ZEL_STATUS pn512_transceive_mode_stopHnd(ZEL_HANDLE hnd)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    ZEL_STATUS status = PortWrite(hnd, reinterpret_cast<const uint8_t *>(kExitText), kExitLen);
    if (status != ZEL_OK)
        return status;
    uint8_t ok[2] = {};
    uint32_t got = 0;
    status = PortRead1(hnd, ok, 2, &got);
    if (got < 2)
        return ZEL_COMMUNICATION_BREAK;
    return ok[0] == 'O' && ok[1] == 'K' ? ZEL_OK : ZEL_COMMUNICATION_ERROR;
}

extern "C" ZEL_API ZEL_STATUS card_transceive_mode_stopHnd(ZEL_HANDLE hnd)
{
    return pn512_transceive_mode_stopHnd(hnd);
}

extern "C" ZEL_API ZEL_STATUS uart_transceiveHnd(ZEL_HANDLE hnd, const uint8_t *send, uint8_t send_len, uint8_t *recv,
                                                 uint32_t capacity, uint32_t *recv_len)
{
    if (recv_len)
        *recv_len = 0;
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if ((!send && send_len) || (!recv && capacity) || !recv_len)
        return ZEL_PARAMETERS_ERROR;
    ZEL_STATUS status = PortWrite(hnd, send, send_len);
    if (status != ZEL_OK)
        return status;
    uint32_t got = 0;
    status = PortRead1(hnd, recv, capacity, &got);
    *recv_len = got;
    // The card's answer is as long as it is: the read ends at the time-out, and what came is the reply.
    if (status == ZEL_COMMUNICATION_BREAK && got > 0)
        return ZEL_OK;
    return status;
}
