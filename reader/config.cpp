// What the reader keeps: keys, password, EEPROM, clock, job id, user data, serial speed and the setup of
// the unsolicited card id stream. With ee_route set the stored data goes through the EE_ commands at the
// reader's fixed EEPROM addresses instead.
#include <cstring>

#include "core/bytes.h"
#include "core/frame.h"
#include "core/internal.h"
#include "core/wipe.h"
#include "transport/line.h"
#include "transport/reset_line.h"
#include "zel_open.h"
#include "zel_port.h"
#include "zel_reader.h"
#include "zel_status.h"

using namespace zel;

namespace {

constexpr uint8_t kCmdKeyWrite = 0x12, kCmdReadUserData = 0x1B, kCmdWriteUserData = 0x1C, kCmdKeysLock = 0x27,
                  kCmdKeysUnlock = 0x28, kCmdGetTime = 0x31, kCmdSetTime = 0x32, kCmdChangePassword = 0x33,
                  kCmdEepromRead = 0x34, kCmdEepromWrite = 0x35, kCmdJobId = 0x36, kCmdAsyncSet = 0x3D,
                  kCmdAsyncGet = 0x3E, kCmdSetSpeed = 0x4B, kCmdGetSpeed = 0x4C, kCmdSetCustomUi = 0x65,
                  kCmdGetCustomUi = 0x66, kCmdUartSpeed = 0x70, kCmdEePasswordChange = 0xE0, kCmdEeLock = 0xE1,
                  kCmdEeRead = 0xE2, kCmdEeWrite = 0xE3, kCmdUidChangeable = 0xE4, kCmdRfReset = 0xE5,
                  kCmdStatus = 0xE6, kCmdParametersDefault = 0xF1, kCmdBusAdmin = 0xFD, kCmdSubscribe = 0xFE;

// The reader's EEPROM map.
constexpr uint32_t kEeKeys = 154, kEeSamUnlock = 602, kEeReaderId = 621, kEeUserData = 644, kEeSpeed = 662,
                   kEeAsync = 669, kEeJobId = 677;
constexpr uint32_t kEeRouteBit = 0x80000000u;
constexpr uint32_t kEepromMax = 128;
constexpr uint32_t kEeWriteMax = 184;
constexpr uint8_t kSpeedMark = 0x50;
constexpr uint32_t kKeyCount = 32;

bool routed(ZEL_HANDLE hnd)
{
    return hnd && hnd->ee_route;
}

// Shape 3 with nothing wanted back but the status.
ZEL_STATUS send_ext(ZEL_HANDLE hnd, uint8_t cmd, uint8_t par0, uint8_t par1, const uint8_t *data, uint8_t len)
{
    uint8_t frame[kFrameBufLen] = {};
    make_command(frame, cmd, 0, par0, par1);
    return exchange_write_ext(hnd, frame, data, len, nullptr, nullptr);
}

// Shape 2 whose EXT must carry at least `want` data bytes; they go to out.
ZEL_STATUS read_ext(ZEL_HANDLE hnd, uint8_t cmd, uint8_t par0, uint8_t par1, uint8_t *out, uint32_t want)
{
    Reply r;
    const ZEL_STATUS status = command_reply(hnd, cmd, par0, par1, r, static_cast<uint8_t>(want + 1));
    if (status != ZEL_OK)
        return status;
    if (out)
        std::memcpy(out, r.buf, want);
    return ZEL_OK;
}

bool in_baud_table(uint32_t baud)
{
    for (uint32_t rate : zel_baud_table)
        if (rate == baud)
            return true;
    return false;
}

// The asynchronous card id record: flags, prefix, suffix, baud, and the inner checksum over those seven.
void async_record(uint8_t *rec, uint8_t flags, uint8_t prefix, uint8_t suffix, uint32_t baud)
{
    rec[0] = flags;
    rec[1] = prefix;
    rec[2] = suffix;
    put_le32(rec + 3, baud);
    rec[7] = static_cast<uint8_t>(GetChecksumFragment(0, rec, 7) + 7);
}

ZEL_STATUS async_set(ZEL_HANDLE hnd, uint8_t flags, uint8_t prefix, uint8_t suffix, uint32_t baud, bool json)
{
    uint8_t rec[8];
    async_record(rec, flags, prefix, suffix, baud);
    if (routed(hnd))
        return EE_WriteHnd(hnd, kEeAsync, sizeof rec, rec);
    // The flags travel in PAR0, the rest of the record in the EXT.
    return send_ext(hnd, kCmdAsyncSet, flags, json ? 1 : 0, rec + 1, 7);
}

ZEL_STATUS async_get(ZEL_HANDLE hnd, bool json, uint8_t *rec)
{
    const ZEL_STATUS status =
        routed(hnd) ? EE_ReadHnd(hnd, kEeAsync, 8, rec) : read_ext(hnd, kCmdAsyncGet, 0, json ? 1 : 0, rec, 8);
    if (status != ZEL_OK)
        return status;
    return rec[7] == static_cast<uint8_t>(GetChecksumFragment(0, rec, 7) + 7) ? ZEL_OK : ZEL_COMMUNICATION_ERROR;
}

template <typename T> void put_flag(T *out, uint8_t flags, int bit)
{
    if (out)
        *out = (flags >> bit) & 1u;
}

uint8_t bit(uint32_t flag, int n)
{
    return static_cast<uint8_t>((flag ? 1u : 0u) << n);
}

} // namespace

// Keys and password.

extern "C" ZEL_API ZEL_STATUS ReaderKeyWriteHnd(ZEL_HANDLE hnd, const uint8_t *key, uint8_t key_index)
{
    if (!key)
        return ZEL_PARAMETERS_ERROR;
    if (routed(hnd)) {
        if (key_index >= kKeyCount)
            return ZEL_MAX_KEY_INDEX_EXCEEDED;
        return EE_WriteHnd(hnd, kEeKeys + 6u * key_index, 6, key);
    }
    return send_ext(hnd, kCmdKeyWrite, key_index, 0, key, 6);
}

extern "C" ZEL_API ZEL_STATUS ReaderKeysLockHnd(ZEL_HANDLE hnd, const uint8_t *password)
{
    if (!password)
        return ZEL_PARAMETERS_ERROR;
    if (routed(hnd))
        return EE_LockHnd(hnd, password, 1);
    return send_ext(hnd, kCmdKeysLock, 0, 0, password, 8);
}

extern "C" ZEL_API ZEL_STATUS ReaderKeysUnlockHnd(ZEL_HANDLE hnd, const uint8_t *password)
{
    if (!password)
        return ZEL_PARAMETERS_ERROR;
    if (routed(hnd))
        return EE_LockHnd(hnd, password, 0);
    return send_ext(hnd, kCmdKeysUnlock, 0, 0, password, 8);
}

extern "C" ZEL_API ZEL_STATUS ChangeReaderPasswordHnd(ZEL_HANDLE hnd, const uint8_t *old_password,
                                                      const uint8_t *new_password)
{
    if (!old_password || !new_password)
        return ZEL_PARAMETERS_ERROR;
    if (routed(hnd))
        return EE_Password_ChangeHnd(hnd, old_password, new_password);
    uint8_t frame[kFrameBufLen] = {};
    uint8_t ack_len = 0;
    make_command(frame, kCmdChangePassword, 17);
    ZEL_STATUS status = InitialHandshaking(hnd, frame, &ack_len);
    if (status != ZEL_OK)
        return status;
    uint8_t ext[17];
    const WipeOnExit wipe_ext(ext, sizeof ext); // holds a password or a key
    std::memcpy(ext, old_password, 8);
    std::memcpy(ext + 8, new_password, 8);
    CalcChecksum(ext, sizeof ext);
    if ((status = PortWrite(hnd, ext, sizeof ext)) != ZEL_OK)
        return status;
    // The reply is taken by hand: an error frame gives its code, anything but the response gives 1.
    if ((status = PortRead(hnd, frame, kFrameLen)) != ZEL_OK)
        return status;
    if (frame[kHeader] == kErrHeader || frame[kTrailer] == kErrTrailer)
        return frame[kCmd];
    return frame[kHeader] == kRspHeader && frame[kTrailer] == kRspTrailer && frame[kCmd] == kCmdChangePassword
               ? ZEL_OK
               : ZEL_COMMUNICATION_ERROR;
}

// EEPROM.

extern "C" ZEL_API ZEL_STATUS ReaderEepromReadHnd(ZEL_HANDLE hnd, uint8_t *data, uint32_t address, uint32_t size)
{
    if (size > kEepromMax)
        return ZEL_MAX_SIZE_EXCEEDED;
    if (!data)
        return ZEL_PARAMETERS_ERROR;
    if (routed(hnd))
        address |= kEeRouteBit;
    // The request carries as many bytes as it asks for: whatever the caller's buffer holds.
    uint8_t ext[8 + kEepromMax + 1];
    put_le32(ext, address);
    put_le32(ext + 4, size);
    std::memcpy(ext + 8, data, size);
    const uint8_t ext_len = static_cast<uint8_t>(8 + size);
    uint8_t frame[kFrameBufLen] = {};
    make_command(frame, kCmdEepromRead, static_cast<uint8_t>(ext_len + 1), 0, 0);
    uint8_t ack_len = 0;
    ZEL_STATUS status = InitialHandshaking(hnd, frame, &ack_len);
    if (status != ZEL_OK)
        return status;
    ext[ext_len] = static_cast<uint8_t>(GetChecksumFragment(0, ext, ext_len) + 7);
    if ((status = PortWrite(hnd, ext, ext_len + 1u)) != ZEL_OK)
        return status;
    if ((status = GetAndTestResponseIntro(hnd, frame, kCmdEepromRead)) != ZEL_OK)
        return status;
    // The reply's length is judged before any of its EXT is read.
    if (frame[kExtLen] != size + 1)
        return ZEL_COMMUNICATION_ERROR;
    if ((status = GetAndTestResponseData(hnd, frame[kExtLen], frame)) != ZEL_OK)
        return status;
    std::memcpy(data, frame, size);
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS ReaderEepromWriteHnd(ZEL_HANDLE hnd, const uint8_t *data, uint32_t address, uint32_t size,
                                                   const uint8_t *password)
{
    if (size > kEepromMax)
        return ZEL_MAX_SIZE_EXCEEDED;
    if ((!data && size) || !password)
        return ZEL_PARAMETERS_ERROR;
    if (routed(hnd))
        address |= kEeRouteBit;
    uint8_t ext[16 + kEepromMax];
    const WipeOnExit wipe_ext(ext, sizeof ext); // holds a password or a key
    put_le32(ext, address);
    put_le32(ext + 4, size);
    std::memcpy(ext + 8, password, 8);
    if (size)
        std::memcpy(ext + 16, data, size);
    return send_ext(hnd, kCmdEepromWrite, 0, 0, ext, static_cast<uint8_t>(16 + size));
}

// User data, clock, job id.

extern "C" ZEL_API ZEL_STATUS ReadUserDataHnd(ZEL_HANDLE hnd, uint8_t *data, uint32_t extended)
{
    const uint32_t n = extended ? 32 : 16;
    if (!data)
        return ZEL_PARAMETERS_ERROR;
    if (routed(hnd)) {
        // The map keeps 16 bytes at 644; the pro mode, speed and card id setup follow them.
        if (extended)
            return ZEL_PARAMETERS_ERROR;
        return EE_ReadHnd(hnd, kEeUserData, n, data);
    }
    return read_ext(hnd, kCmdReadUserData, extended ? 2 : 0, 0, data, n);
}

extern "C" ZEL_API ZEL_STATUS WriteUserDataHnd(ZEL_HANDLE hnd, const uint8_t *data, uint32_t extended)
{
    const uint32_t n = extended ? 32 : 16;
    if (!data)
        return ZEL_PARAMETERS_ERROR;
    if (routed(hnd)) {
        if (extended)
            return ZEL_PARAMETERS_ERROR; // 16 more bytes would overwrite the settings behind the user data
        return EE_WriteHnd(hnd, kEeUserData, n, data);
    }
    return send_ext(hnd, kCmdWriteUserData, extended ? 2 : 0, 0, data, static_cast<uint8_t>(n));
}

extern "C" ZEL_API ZEL_STATUS GetReaderTimeHnd(ZEL_HANDLE hnd, uint8_t *time)
{
    return read_ext(hnd, kCmdGetTime, 0, 0, time, 6);
}

extern "C" ZEL_API ZEL_STATUS SetReaderTimeHnd(ZEL_HANDLE hnd, const uint8_t *password, const uint8_t *time)
{
    if (!password || !time)
        return ZEL_PARAMETERS_ERROR;
    uint8_t ext[14];
    const WipeOnExit wipe_ext(ext, sizeof ext); // holds a password or a key
    std::memcpy(ext, password, 8);
    std::memcpy(ext + 8, time, 6);
    return send_ext(hnd, kCmdSetTime, 0, 0, ext, sizeof ext);
}

extern "C" ZEL_API ZEL_STATUS ChangeReaderJobIdHnd(ZEL_HANDLE hnd, uint16_t job_id, const uint8_t *password)
{
    const uint8_t id[2] = {static_cast<uint8_t>(job_id), static_cast<uint8_t>(job_id >> 8)};
    if (routed(hnd))
        return EE_WriteHnd(hnd, kEeJobId, 2, id);
    if (!password)
        return ZEL_PARAMETERS_ERROR;
    uint8_t ext[10];
    const WipeOnExit wipe_ext(ext, sizeof ext); // holds a password or a key
    std::memcpy(ext, id, 2);
    std::memcpy(ext + 2, password, 8);
    return send_ext(hnd, kCmdJobId, 0, 0, ext, sizeof ext);
}

extern "C" ZEL_API ZEL_STATUS SubscribeSectorHnd(ZEL_HANDLE hnd, uint8_t index, uint32_t value)
{
    uint8_t ext[4];
    put_le32(ext, value);
    return send_ext(hnd, kCmdSubscribe, 2, index, ext, sizeof ext);
}

extern "C" ZEL_API ZEL_STATUS SubscribeBlockHnd(ZEL_HANDLE hnd, uint8_t index, uint32_t value)
{
    uint8_t ext[4];
    put_le32(ext, value);
    return send_ext(hnd, kCmdSubscribe, 1, index, ext, sizeof ext);
}

extern "C" ZEL_API ZEL_STATUS BusAdminCardMakeHnd(ZEL_HANDLE hnd, uint32_t value, const uint8_t *password)
{
    if (!password)
        return ZEL_PARAMETERS_ERROR;
    // The password and the value's low three bytes; the checksum takes the fourth's place.
    uint8_t ext[11];
    const WipeOnExit wipe_ext(ext, sizeof ext); // holds a password or a key
    std::memcpy(ext, password, 8);
    ext[8] = static_cast<uint8_t>(value);
    ext[9] = static_cast<uint8_t>(value >> 8);
    ext[10] = static_cast<uint8_t>(value >> 16);
    return send_ext(hnd, kCmdBusAdmin, 0, 0, ext, sizeof ext);
}

// The asynchronous card id setup.

extern "C" ZEL_API ZEL_STATUS SetAsyncCardIdSendConfigHnd(ZEL_HANDLE hnd, uint32_t send_enable, uint32_t prefix_enable,
                                                          uint8_t prefix, uint8_t suffix, uint32_t send_removed_enable,
                                                          uint32_t baud)
{
    const uint8_t flags = bit(send_enable, 0) | bit(prefix_enable, 1) | bit(send_removed_enable, 2);
    return async_set(hnd, flags, prefix, suffix, baud, false);
}

extern "C" ZEL_API ZEL_STATUS SetAsyncCardIdSendConfigExHnd(ZEL_HANDLE hnd, uint32_t send_enable,
                                                            uint32_t prefix_enable, uint8_t prefix, uint8_t suffix,
                                                            uint32_t send_removed_enable, uint32_t reverse_byte_order,
                                                            uint32_t decimal_representation, uint32_t baud)
{
    const uint8_t flags = bit(send_enable, 0) | bit(prefix_enable, 1) | bit(send_removed_enable, 2) |
                          bit(reverse_byte_order, 3) | bit(decimal_representation, 4);
    return async_set(hnd, flags, prefix, suffix, baud, false);
}

extern "C" ZEL_API ZEL_STATUS SetAsyncCardJsonSendConfigHnd(ZEL_HANDLE hnd, uint32_t send_enable,
                                                            uint32_t send_removed_enable, uint32_t baud)
{
    // The second flag sets bits 1 and 2 together; the JSON form has no prefix or suffix.
    const uint8_t flags = bit(send_enable, 0) | bit(send_removed_enable, 1) | bit(send_removed_enable, 2);
    return async_set(hnd, flags, 0, 0, baud, true);
}

extern "C" ZEL_API ZEL_STATUS GetAsyncCardIdSendConfigHnd(ZEL_HANDLE hnd, uint32_t *send_enable,
                                                          uint32_t *prefix_enable, uint8_t *prefix, uint8_t *suffix,
                                                          uint32_t *send_removed_enable, uint32_t *baud)
{
    return GetAsyncCardIdSendConfigExHnd(hnd, send_enable, prefix_enable, prefix, suffix, send_removed_enable, nullptr,
                                         nullptr, baud);
}

extern "C" ZEL_API ZEL_STATUS GetAsyncCardIdSendConfigExHnd(ZEL_HANDLE hnd, uint32_t *send_enable,
                                                            uint32_t *prefix_enable, uint8_t *prefix, uint8_t *suffix,
                                                            uint32_t *send_removed_enable, uint32_t *reverse_byte_order,
                                                            uint32_t *decimal_representation, uint32_t *baud)
{
    uint8_t rec[8];
    const ZEL_STATUS status = async_get(hnd, false, rec);
    if (status != ZEL_OK)
        return status;
    put_flag(send_enable, rec[0], 0);
    put_flag(prefix_enable, rec[0], 1);
    put_flag(send_removed_enable, rec[0], 2);
    put_flag(reverse_byte_order, rec[0], 3);
    put_flag(decimal_representation, rec[0], 4);
    if (prefix)
        *prefix = rec[1];
    if (suffix)
        *suffix = rec[2];
    if (baud)
        *baud = get_le32(rec + 3);
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS GetAsyncCardJsonSendConfigHnd(ZEL_HANDLE hnd, uint32_t *send_enable,
                                                            uint32_t *send_removed_enable, uint32_t *baud)
{
    uint8_t rec[8];
    const ZEL_STATUS status = async_get(hnd, true, rec);
    if (status != ZEL_OK)
        return status;
    put_flag(send_enable, rec[0], 0);
    put_flag(send_removed_enable, rec[0], 1);
    if (baud)
        *baud = get_le32(rec + 3);
    return ZEL_OK;
}

// User interface, speeds.

extern "C" ZEL_API ZEL_STATUS SetCustomUiConfigHnd(ZEL_HANDLE hnd, const uint8_t *config)
{
    if (!config)
        return ZEL_PARAMETERS_ERROR;
    return send_ext(hnd, kCmdSetCustomUi, 0, 0, config, 7);
}

extern "C" ZEL_API ZEL_STATUS GetCustomUiConfigHnd(ZEL_HANDLE hnd, uint8_t *config)
{
    return read_ext(hnd, kCmdGetCustomUi, 0, 0, config, 7);
}

extern "C" ZEL_API ZEL_STATUS SetSpeedPermanentlyHnd(ZEL_HANDLE hnd, uint8_t tx_speed, uint8_t rx_speed)
{
    if (routed(hnd)) {
        uint8_t rec[2];
        rec[0] = static_cast<uint8_t>(kSpeedMark | (rx_speed & 3) << 2 | (tx_speed & 3));
        rec[1] = static_cast<uint8_t>(~rec[0]);
        return EE_WriteHnd(hnd, kEeSpeed, 2, rec);
    }
    return handshake(hnd, kCmdSetSpeed, tx_speed, rx_speed);
}

extern "C" ZEL_API ZEL_STATUS GetSpeedParametersHnd(ZEL_HANDLE hnd, uint8_t *tx_speed, uint8_t *rx_speed)
{
    uint8_t rec[kFrameBufLen] = {};
    if (routed(hnd)) {
        const ZEL_STATUS status = EE_ReadHnd(hnd, kEeSpeed, 2, rec);
        if (status != ZEL_OK)
            return status;
        if ((rec[0] & 0xF0) != kSpeedMark || rec[1] != static_cast<uint8_t>(~rec[0]))
            return ZEL_CHKSUM_ERROR;
        rec[1] = (rec[0] >> 2) & 3;
        rec[0] &= 3;
    } else {
        const ZEL_STATUS status = handshake(hnd, kCmdGetSpeed, 0, 0, rec);
        if (status != ZEL_OK)
            return status;
    }
    if (tx_speed)
        *tx_speed = rec[0];
    if (rx_speed)
        *rx_speed = rec[1];
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS SetUartSpeedHnd(ZEL_HANDLE hnd, uint32_t baud)
{
    if (!in_baud_table(baud))
        return ZEL_PARAMETERS_ERROR;
    uint8_t frame[kFrameBufLen] = {};
    uint8_t ack_len = 0;
    make_command(frame, kCmdUartSpeed, 5);
    ZEL_STATUS status = InitialHandshaking(hnd, frame, &ack_len);
    if (status != ZEL_OK)
        return status;
    uint8_t ext[5];
    put_le32(ext, baud);
    CalcChecksum(ext, sizeof ext);
    if ((status = PortWrite(hnd, ext, sizeof ext)) != ZEL_OK)
        return status;
    // No reply: the reader is on the new rate already. Follow it, and leave its reset line where it runs.
    os_sleep(50);
    hnd->baud_rate = baud;
    status = PortSetBaudRate(hnd, baud);
    (void)ReaderResetSetHnd(hnd, 1);
    os_sleep(500);
    return status;
}

extern "C" ZEL_API ZEL_STATUS SetUartDefaultSpeedHnd(ZEL_HANDLE hnd, uint8_t reader_type, uint8_t port_kind,
                                                     const char *port_name)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    // The port is closed first, whatever kind is asked for.
    (void)PortClose(hnd);
    if (port_kind != 1 && port_kind != 2)
        return ZEL_PARAMETERS_ERROR;
    ZEL_STATUS status = port_kind == 1 ? default_rate_open_serial(hnd, reader_type, port_name)
                                       : default_rate_open_ftdi(hnd, reader_type);
    if (status != ZEL_OK)
        return status;
    // Catch the reader in its boot loader and ask the rate check there.
    (void)reset_pulse_no_wait(hnd);
    uint8_t boot[4];
    (void)PortRead(hnd, boot, sizeof boot);
    uint8_t frame[kFrameLen];
    make_command(frame, kCmdParametersDefault, 0, 1, 1);
    CalcChecksum(frame, kFrameLen);
    if ((status = PortWrite(hnd, frame, kFrameLen)) == ZEL_OK && (status = PortRead(hnd, frame, kFrameLen)) == ZEL_OK &&
        !TestChecksum(frame, kFrameLen))
        status = ZEL_COMMUNICATION_ERROR;
    if (status != ZEL_OK) {
        PortClose(hnd);
        return status;
    }
    os_sleep(1000);
    status = SetUartSpeedHnd(hnd, reader_type == 1 ? 1000000u : 115200u);
    PortClose(hnd);
    return status;
}

// Records written through the EEPROM route.

extern "C" ZEL_API ZEL_STATUS WriteSamUnlockKeyHnd(ZEL_HANDLE hnd, uint8_t key_no, uint8_t key_ver, const uint8_t *key)
{
    if (!key)
        return ZEL_PARAMETERS_ERROR;
    uint8_t rec[19];
    const WipeOnExit wipe_rec(rec, sizeof rec); // holds a password or a key
    rec[0] = key_no;
    rec[1] = key_ver;
    std::memcpy(rec + 2, key, 16);
    CalcChecksum(rec, sizeof rec);
    return EE_WriteHnd(hnd, kEeSamUnlock, sizeof rec, rec);
}

extern "C" ZEL_API ZEL_STATUS WriteReaderIdHnd(ZEL_HANDLE hnd, const uint8_t *reader_id)
{
    return EE_WriteHnd(hnd, kEeReaderId, 16, reader_id);
}

// Small commands and status.

extern "C" ZEL_API ZEL_STATUS CheckUidChangeableHnd(ZEL_HANDLE hnd)
{
    return handshake(hnd, kCmdUidChangeable, 0, 0);
}

extern "C" ZEL_API ZEL_STATUS ReaderRfResetHnd(ZEL_HANDLE hnd, uint8_t mode)
{
    return handshake(hnd, kCmdRfReset, mode, 0);
}

extern "C" ZEL_API ZEL_STATUS GetReaderStatusHnd(ZEL_HANDLE hnd, uint32_t *reader_state, uint32_t *card_state,
                                                 uint32_t *emulation_state, uint8_t *sleep_mode)
{
    Reply r;
    make_command(r.buf, kCmdStatus);
    const ZEL_STATUS status = exchange_wake_reply(hnd, r);
    if (status != ZEL_OK)
        return status;
    if (r.ext_len < 5)
        return ZEL_COMMUNICATION_ERROR;
    if (reader_state)
        *reader_state = r.buf[0];
    if (card_state)
        *card_state = r.buf[1];
    if (emulation_state)
        *emulation_state = r.buf[2];
    if (sleep_mode)
        *sleep_mode = r.buf[3];
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS GetReaderStatusExHnd(ZEL_HANDLE hnd, uint8_t *status_out, uint8_t *status_len)
{
    Reply r;
    const ZEL_STATUS status = command_reply(hnd, kCmdStatus, 1, 0, r);
    if (status != ZEL_OK)
        return status;
    // The first byte counts what follows; it must stay inside the EXT.
    if (r.ext_len < 2 || r.buf[0] > r.ext_len - 2u)
        return ZEL_COMMUNICATION_ERROR;
    if (status_out)
        std::memcpy(status_out, r.buf + 1, r.buf[0]);
    if (status_len)
        *status_len = r.buf[0];
    return ZEL_OK;
}

// The EE_ commands.

extern "C" ZEL_API ZEL_STATUS EE_ReadHnd(ZEL_HANDLE hnd, uint32_t address, uint32_t size, uint8_t *data)
{
    if (!data)
        return ZEL_NO_MEMORY_ERROR;
    uint8_t ext[8];
    put_le32(ext, address);
    put_le32(ext + 4, size);
    Reply r;
    const ZEL_STATUS status = command_write_reply(hnd, kCmdEeRead, 0, 0, ext, sizeof ext, r);
    if (status != ZEL_OK)
        return status;
    if (r.ext_len == 0)
        return ZEL_COMMUNICATION_ERROR;
    if (r.ext_len - 1u > size)
        return ZEL_BUFFER_OVERFLOW; // more than was asked for does not fit the caller's buffer
    std::memcpy(data, r.buf, r.ext_len - 1u);
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS EE_WriteHnd(ZEL_HANDLE hnd, uint32_t address, uint32_t size, const uint8_t *data)
{
    if (!data)
        return ZEL_NO_MEMORY_ERROR;
    if (size > kEeWriteMax)
        return ZEL_MAX_SIZE_EXCEEDED;
    uint8_t ext[8 + kEeWriteMax];
    const WipeOnExit wipe_ext(ext, sizeof ext); // holds a password or a key
    put_le32(ext, address);
    put_le32(ext + 4, size);
    std::memcpy(ext + 8, data, size);
    return send_ext(hnd, kCmdEeWrite, 0, 0, ext, static_cast<uint8_t>(8 + size));
}

extern "C" ZEL_API ZEL_STATUS EE_LockHnd(ZEL_HANDLE hnd, const uint8_t *password, uint32_t lock)
{
    if (!password)
        return ZEL_PARAMETERS_ERROR;
    uint8_t ext[9];
    const WipeOnExit wipe_ext(ext, sizeof ext); // holds a password or a key
    ext[0] = lock ? 1 : 0;
    std::memcpy(ext + 1, password, 8);
    return send_ext(hnd, kCmdEeLock, 0, 0, ext, sizeof ext);
}

extern "C" ZEL_API ZEL_STATUS EE_Password_ChangeHnd(ZEL_HANDLE hnd, const uint8_t *old_password,
                                                    const uint8_t *new_password)
{
    if (!old_password || !new_password)
        return ZEL_PARAMETERS_ERROR;
    uint8_t ext[16];
    const WipeOnExit wipe_ext(ext, sizeof ext); // holds a password or a key
    std::memcpy(ext, old_password, 8);
    std::memcpy(ext + 8, new_password, 8);
    return send_ext(hnd, kCmdEePasswordChange, 0, 0, ext, sizeof ext);
}
