// The network module in front of the reader units: its reset and transparent sessions to the units, its
// display, password, EEPROM, clock, I/O, identity, payment amount, power and Wi-Fi, the firmware stream of a
// module, and the backup and restore of its configuration, which travel as raw keywords without frames.
#include <cstring>

#include "core/bytes.h"
#include "core/frame.h"
#include "core/internal.h"
#include "core/wipe.h"
#include "zel_esp.h"
#include "zel_port.h"
#include "zel_status.h"

namespace {
constexpr uint8_t kCmdEspTransparent = 0xF9;
constexpr uint8_t kGetUnits = 0xFE;
constexpr uint8_t kCmdEspStream = 0xF2, kCmdEspSetIo = 0xF3, kCmdEspGetIo = 0xF4, kCmdEspSetTime = 0xF5,
                  kCmdEspGetTime = 0xF6, kCmdEspEeRead = 0xF7, kCmdEspDisplay = 0xF8, kCmdEspPassword = 0xFA,
                  kCmdEspEeWrite = 0xFB, kCmdEspSerial = 0xE7, kCmdEspPower = 0xE8, kCmdEspVersion = 0xE9,
                  kCmdEspPayment = 0xEA;
constexpr uint8_t kEspPowerOff = 0xFF, kEspWifi = 0xFE;
constexpr uint8_t kEspStreamNfc = 0xCC, kEspStreamSelf = 0xBB;
constexpr uint32_t kEspEeMax = 128;
constexpr uint32_t kEspRestoreChunk = 512;
// The keywords, with their terminating zero where it is sent; the chunk head goes without one.
constexpr char kEspBackup[] = "!BACKUP_ZEL_NETBOX!";
constexpr char kEspRestoreBegin[] = "!RESTORE_ZEL_NETBOX!BEGIN";
constexpr char kEspRestoreHead[] = "!RESTORE_ZEL_NETBOX!";
constexpr char kEspRestoreEnd[] = "!RESTORE_ZEL_NETBOX!END";
constexpr uint32_t kEspRestoreHeadLen = sizeof kEspRestoreHead - 1;
constexpr uint32_t kEspRestoreAnswer = 14;

bool valid_esp_module(uint8_t module)
{
    return module <= 3 || module == ZEL_ESP_SELF;
}

ZEL_STATUS esp_write_text(ZEL_HANDLE hnd, const char *text, uint32_t n)
{
    return PortWrite(hnd, reinterpret_cast<const uint8_t *>(text), n);
}

// The EXT head of the module's EEPROM commands: address, size, three zero bytes.
void esp_ee_head(uint8_t *ext, uint32_t address, uint32_t size)
{
    zel::put_le32(ext, address);
    ext[4] = static_cast<uint8_t>(size);
    ext[5] = ext[6] = ext[7] = 0;
}
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

extern "C" ZEL_API ZEL_STATUS EspSetDisplayDataHnd(ZEL_HANDLE hnd, const uint8_t *display_data, uint8_t data_length,
                                                   uint16_t duration)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (data_length == 0xFF)
        return ZEL_MAX_SIZE_EXCEEDED;
    if (!display_data && data_length)
        return ZEL_PARAMETERS_ERROR;
    zel::Reply r;
    return zel::command_write_reply(hnd, kCmdEspDisplay, static_cast<uint8_t>(duration),
                                    static_cast<uint8_t>(duration >> 8), display_data, data_length, r);
}

extern "C" ZEL_API ZEL_STATUS EspChangeReaderPasswordHnd(ZEL_HANDLE hnd, const uint8_t *old_password,
                                                         const uint8_t *new_password)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!old_password || !new_password)
        return ZEL_PARAMETERS_ERROR;
    uint8_t ext[16];
    const zel::WipeOnExit wipe(ext, sizeof ext);
    std::memcpy(ext, old_password, 8);
    std::memcpy(ext + 8, new_password, 8);
    zel::Reply r;
    return zel::command_write_reply(hnd, kCmdEspPassword, 0, 0, ext, sizeof ext, r);
}

extern "C" ZEL_API ZEL_STATUS EspReaderEepromWriteHnd(ZEL_HANDLE hnd, const uint8_t *data, uint32_t address,
                                                      uint32_t size, const uint8_t *password)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (size > kEspEeMax)
        return ZEL_MAX_SIZE_EXCEEDED;
    if (!password || (!data && size))
        return ZEL_PARAMETERS_ERROR;
    uint8_t ext[16 + kEspEeMax];
    const zel::WipeOnExit wipe(ext + 8, 8);
    esp_ee_head(ext, address, size);
    std::memcpy(ext + 8, password, 8);
    if (size)
        std::memcpy(ext + 16, data, size);
    zel::Reply r;
    return zel::command_write_reply(hnd, kCmdEspEeWrite, 0, 0, ext, static_cast<uint8_t>(16 + size), r);
}

extern "C" ZEL_API ZEL_STATUS EspReaderEepromReadHnd(ZEL_HANDLE hnd, uint8_t *data, uint32_t address, uint32_t size)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (size > kEspEeMax)
        return ZEL_MAX_SIZE_EXCEEDED;
    if (!data && size)
        return ZEL_PARAMETERS_ERROR;
    // The EXT carries size bytes behind the head: what the buffer holds now.
    uint8_t ext[8 + kEspEeMax];
    esp_ee_head(ext, address, size);
    if (size)
        std::memcpy(ext + 8, data, size);
    zel::Reply r;
    const ZEL_STATUS st = zel::command_write_reply(hnd, kCmdEspEeRead, 0, 0, ext, static_cast<uint8_t>(8 + size), r);
    if (st != ZEL_OK)
        return st;
    if (r.ext_len != size + 1)
        return ZEL_COMMUNICATION_ERROR;
    if (size)
        std::memcpy(data, r.buf, size);
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS EspGetReaderTimeHnd(ZEL_HANDLE hnd, uint8_t *time)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!time)
        return ZEL_PARAMETERS_ERROR;
    zel::Reply r;
    const ZEL_STATUS st = zel::command_reply(hnd, kCmdEspGetTime, 0, 0, r, 7);
    if (st == ZEL_OK)
        std::memcpy(time, r.buf, 6);
    return st;
}

extern "C" ZEL_API ZEL_STATUS EspSetReaderTimeHnd(ZEL_HANDLE hnd, const uint8_t *password, const uint8_t *time)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!password || !time)
        return ZEL_PARAMETERS_ERROR;
    uint8_t ext[14];
    const zel::WipeOnExit wipe(ext + 6, 8);
    std::memcpy(ext, time, 6);
    std::memcpy(ext + 6, password, 8);
    zel::Reply r;
    return zel::command_write_reply(hnd, kCmdEspSetTime, 0, 0, ext, sizeof ext, r);
}

extern "C" ZEL_API ZEL_STATUS EspSetIOStateHnd(ZEL_HANDLE hnd, uint8_t pin, uint8_t state)
{
    return hnd ? zel::handshake(hnd, kCmdEspSetIo, pin, state) : ZEL_DEVICE_WRONG_HANDLE;
}

extern "C" ZEL_API ZEL_STATUS EspGetIOStateHnd(ZEL_HANDLE hnd, uint8_t *state)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!state)
        return ZEL_PARAMETERS_ERROR;
    zel::Reply r;
    const ZEL_STATUS st = zel::command_reply(hnd, kCmdEspGetIo, 0, 0, r, 7);
    if (st == ZEL_OK)
        std::memcpy(state, r.buf, 6);
    return st;
}

extern "C" ZEL_API ZEL_STATUS EspGetReaderSerialNumberHnd(ZEL_HANDLE hnd, uint32_t *serial_number)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!serial_number)
        return ZEL_PARAMETERS_ERROR;
    zel::Reply r;
    const ZEL_STATUS st = zel::command_reply(hnd, kCmdEspSerial, 0, 0, r, 5);
    if (st == ZEL_OK)
        *serial_number = zel::get_le32(r.buf);
    return st;
}

extern "C" ZEL_API ZEL_STATUS EspGetFirmwareVersionHnd(ZEL_HANDLE hnd, uint8_t *major, uint8_t *minor, uint8_t *build)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!major || !minor || !build)
        return ZEL_PARAMETERS_ERROR;
    zel::Reply r;
    const ZEL_STATUS st = zel::command_reply(hnd, kCmdEspVersion, 0, 0, r, 4);
    if (st != ZEL_OK)
        return st;
    *major = r.buf[0];
    *minor = r.buf[1];
    *build = r.buf[2];
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS WritePaymentAmountHnd(ZEL_HANDLE hnd, float amount)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    uint32_t bits = 0;
    static_assert(sizeof bits == sizeof amount, "a 32-bit float");
    std::memcpy(&bits, &amount, sizeof bits);
    uint8_t ext[4];
    zel::put_le32(ext, bits);
    zel::Reply r;
    return zel::command_write_reply(hnd, kCmdEspPayment, 0, 0, ext, sizeof ext, r);
}

extern "C" ZEL_API ZEL_STATUS EspTurnOffHnd(ZEL_HANDLE hnd)
{
    return hnd ? zel::handshake(hnd, kCmdEspPower, kEspPowerOff, 0) : ZEL_DEVICE_WRONG_HANDLE;
}

extern "C" ZEL_API ZEL_STATUS EspDisableWifiHnd(ZEL_HANDLE hnd)
{
    return hnd ? zel::handshake(hnd, kCmdEspPower, kEspWifi, 0) : ZEL_DEVICE_WRONG_HANDLE;
}

extern "C" ZEL_API ZEL_STATUS EspEnableWifiHnd(ZEL_HANDLE hnd)
{
    return hnd ? zel::handshake(hnd, kCmdEspPower, kEspWifi, 1) : ZEL_DEVICE_WRONG_HANDLE;
}

extern "C" ZEL_API ZEL_STATUS EspStartStreamHnd(ZEL_HANDLE hnd, uint8_t module)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!valid_esp_module(module))
        return ZEL_PARAMETERS_ERROR;
    return zel::handshake(hnd, kCmdEspStream, module == ZEL_ESP_SELF ? kEspStreamSelf : kEspStreamNfc, 1);
}

extern "C" ZEL_API ZEL_STATUS EspStopStreamHnd(ZEL_HANDLE hnd, uint8_t module, uint16_t *result)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!valid_esp_module(module))
        return ZEL_PARAMETERS_ERROR;
    uint8_t par[2] = {};
    const ZEL_STATUS st =
        zel::handshake(hnd, kCmdEspStream, module == ZEL_ESP_SELF ? kEspStreamSelf : kEspStreamNfc, 0, par);
    if (st == ZEL_OK && result)
        *result = static_cast<uint16_t>(zel::get_le16(par));
    return st;
}

extern "C" ZEL_API ZEL_STATUS EspWriteStreamHnd(ZEL_HANDLE hnd, const uint8_t *data, uint32_t length)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!data && length)
        return ZEL_PARAMETERS_ERROR;
    const ZEL_STATUS st = PortWrite(hnd, data, length);
    if (st == ZEL_OK && hnd->comm.use == ZEL_PORT_SOCKET)
        zel::os_sleep(10);
    return st;
}

extern "C" ZEL_API ZEL_STATUS EspReadProgressHnd(ZEL_HANDLE hnd, uint8_t *progress)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!progress)
        return ZEL_PARAMETERS_ERROR;
    uint8_t frame[zel::kFrameLen];
    const ZEL_STATUS st = PortRead(hnd, frame, sizeof frame);
    if (st == ZEL_OK)
        *progress = frame[zel::kPar0];
    return st;
}

extern "C" ZEL_API ZEL_STATUS EspBackupConfigurationHnd(ZEL_HANDLE hnd, uint8_t *config)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!config)
        return ZEL_PARAMETERS_ERROR;
    (void)PortPurge(hnd); // what is left of an earlier exchange is not the backup
    ZEL_STATUS st = esp_write_text(hnd, kEspBackup, sizeof kEspBackup);
    if (st != ZEL_OK)
        return st;
    uint8_t len[2];
    if ((st = PortRead(hnd, len, 2)) != ZEL_OK)
        return st;
    // At most 65,535 bytes: the buffer's promised size.
    const uint32_t n = zel::get_le16(len);
    return n ? PortRead(hnd, config, n) : ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS EspRestoreConfigurationHnd(ZEL_HANDLE hnd, const char *config)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!config)
        return ZEL_PARAMETERS_ERROR;
    (void)PortPurge(hnd);
    ZEL_STATUS st = esp_write_text(hnd, kEspRestoreBegin, sizeof kEspRestoreBegin);
    if (st != ZEL_OK)
        return st;
    const size_t total = std::strlen(config);
    uint8_t chunk[kEspRestoreHeadLen + kEspRestoreChunk];
    std::memcpy(chunk, kEspRestoreHead, kEspRestoreHeadLen);
    for (size_t at = 0; at < total;) {
        const size_t n = total - at < kEspRestoreChunk ? total - at : kEspRestoreChunk;
        std::memcpy(chunk + kEspRestoreHeadLen, config + at, n);
        if ((st = PortWrite(hnd, chunk, static_cast<uint32_t>(kEspRestoreHeadLen + n))) != ZEL_OK)
            return st;
        at += n;
    }
    if ((st = esp_write_text(hnd, kEspRestoreEnd, sizeof kEspRestoreEnd)) != ZEL_OK)
        return st;
    uint8_t answer[kEspRestoreAnswer];
    if ((st = PortRead(hnd, answer, sizeof answer)) != ZEL_OK)
        return st;
    return answer[0] == '!' ? ZEL_OK : ZEL_COMMUNICATION_ERROR;
}
