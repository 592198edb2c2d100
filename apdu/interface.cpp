// Switching the reader's card interface: ISO 14443-4 activation, the interface session, the contact card.
#include <cstring>

#include "apdu/apdu_internal.h"
#include "core/frame.h"
#include "tandro.h"
#include "zel_apdu.h"

using namespace zel;

namespace {

constexpr uint32_t kAtsMax = 25, kUidMax = 10;

ZEL_STATUS open_iso7816(zel_handle_record *hnd, uint8_t *atr, uint32_t *atr_len, uint8_t par0)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!atr || !atr_len)
        return ZEL_PARAMETERS_ERROR;
    // The interface replies may come without an EXT, or with its checksum alone.
    Reply r;
    const ZEL_STATUS status = command_reply(hnd, kCmdContactOpen, par0, 0, r, 0, ExtRead::optional_bare);
    if (status != ZEL_OK)
        return status;
    const uint32_t n = r.data_len();
    if (n > *atr_len)
        return ZEL_NO_MEMORY_ERROR; // the caller's buffer is too small for the ATR
    std::memcpy(atr, r.buf, n);
    *atr_len = n;
    return ZEL_OK;
}

ZEL_STATUS send_icfg(zel_handle_record *hnd, uint8_t first, uint8_t second, uint8_t third)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    Reply r;
    // Byte 3 takes the record's first byte, byte 4 its third, byte 5 its second.
    make_command(r.buf, kCmdBlock7F, first, third, second);
    return exchange_reply(hnd, r, ExtRead::optional_bare);
}

} // namespace

extern "C" ZEL_API ZEL_STATUS SetISO14443_4_ModeHnd(ZEL_HANDLE hnd)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    return handshake(hnd, kCmdLevel4, 0, 0);
}

extern "C" ZEL_API ZEL_STATUS SetISO14443_4_Mode_GetATSHnd(ZEL_HANDLE hnd, uint8_t *ats, uint8_t *ats_len, uint8_t *uid,
                                                           uint8_t *uid_len, uint8_t *sak)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!ats || !ats_len || !uid || !uid_len || !sak)
        return ZEL_PARAMETERS_ERROR;
    std::memset(ats, 0, ZEL_APDU_ATS_BUFFER);
    std::memset(uid, 0, ZEL_APDU_UID_BUFFER);
    *ats_len = 0;
    *uid_len = 0;
    *sak = 0;
    Reply r;
    ZEL_STATUS status = command_reply(hnd, kCmdLevel4, 7, 0, r, 0, ExtRead::optional_bare);
    if (status != ZEL_OK)
        return status;
    const uint8_t *buf = r.buf;
    // ATS length, ATS, UID length, UID, SAK: the reader may stop after any of the parts.
    const uint32_t n = r.data_len();
    uint32_t at = 0;
    // A part behind its length byte, when it fits both the caller's room and the reply.
    const auto part = [&](uint8_t *len, uint32_t max, uint8_t *out) {
        *len = buf[at++];
        if (*len > max)
            return ZEL_MAX_SIZE_EXCEEDED;
        if (n - at < *len)
            return ZEL_COMMUNICATION_ERROR;
        std::memcpy(out, buf + at, *len);
        at += *len;
        return ZEL_OK;
    };
    if (at == n || (status = part(ats_len, kAtsMax, ats)) != ZEL_OK)
        return status;
    if (at == n || (status = part(uid_len, kUidMax, uid)) != ZEL_OK)
        return status;
    if (at == n)
        return ZEL_OK;
    *sak = buf[at];
    return n - at == 1 ? ZEL_OK : ZEL_BUFFER_OVERFLOW;
}

extern "C" ZEL_API ZEL_STATUS SetISO14443_4_OrbStorageHnd(ZEL_HANDLE hnd)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    return handshake(hnd, kCmdLevel4Storage, 0, 0);
}

extern "C" ZEL_API ZEL_STATUS s_block_deselectHnd(ZEL_HANDLE hnd, uint8_t timeout)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    return handshake(hnd, kCmdDeselect, 0, timeout);
}

extern "C" ZEL_API ZEL_STATUS card_halt_enableHnd(ZEL_HANDLE hnd)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    return handshake(hnd, kCmdHaltEnable, 0, 0);
}

extern "C" ZEL_API ZEL_STATUS Zel_DESFIRE_SendICFGHnd(ZEL_HANDLE hnd, const uint8_t *icfg)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!icfg)
        return ZEL_PARAMETERS_ERROR;
    return send_icfg(hnd, icfg[0], icfg[1], icfg[2]);
}

extern "C" ZEL_API ZEL_STATUS Zel_APDU_StartHnd(ZEL_HANDLE hnd)
{
    return send_icfg(hnd, 0, 0, 5);
}

extern "C" ZEL_API ZEL_STATUS Zel_APDU_StopHnd(ZEL_HANDLE hnd)
{
    return send_icfg(hnd, 0, 0, 2);
}

extern "C" ZEL_API ZEL_STATUS Zel_DESFIRE_StartHnd(ZEL_HANDLE hnd)
{
    return send_icfg(hnd, 0, 0, 5);
}

extern "C" ZEL_API ZEL_STATUS Zel_DESFIRE_StopHnd(ZEL_HANDLE hnd)
{
    return send_icfg(hnd, 0, 0, 2);
}

extern "C" ZEL_API ZEL_STATUS open_ISO7816_interfaceHnd(ZEL_HANDLE hnd, uint8_t *atr, uint32_t *atr_len)
{
    return open_iso7816(hnd, atr, atr_len, 1);
}

extern "C" ZEL_API ZEL_STATUS Open_ISO7816_GenericHnd(ZEL_HANDLE hnd, uint8_t *atr, uint32_t *atr_len)
{
    return open_iso7816(hnd, atr, atr_len, 4);
}

namespace {

ZEL_STATUS contact_switch(zel_handle_record *hnd, uint8_t cmd, uint8_t par0)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    return handshake(hnd, cmd, par0, 0);
}

} // namespace

extern "C" ZEL_API ZEL_STATUS APDU_switch_to_ISO7816_interfaceHnd(ZEL_HANDLE hnd)
{
    return contact_switch(hnd, kCmdContactOpen, 2);
}

extern "C" ZEL_API ZEL_STATUS close_ISO7816_interface_APDU_ISO14443_4Hnd(ZEL_HANDLE hnd)
{
    return contact_switch(hnd, kCmdContactClose, 1);
}

extern "C" ZEL_API ZEL_STATUS close_ISO7816_interface_no_APDUHnd(ZEL_HANDLE hnd)
{
    return contact_switch(hnd, kCmdContactClose, 2);
}

extern "C" ZEL_API ZEL_STATUS APDU_switch_to_ISO14443_4_interfaceHnd(ZEL_HANDLE hnd)
{
    return contact_switch(hnd, kCmdContactClose, 3);
}

extern "C" ZEL_API ZEL_STATUS APDU_switch_off_from_ISO7816_interfaceHnd(ZEL_HANDLE hnd)
{
    return contact_switch(hnd, kCmdContactClose, 4);
}
