// The secure element on the reader's I2C bus (commands 0xC7 and 0xC8 with a subcommand in PAR0) and the
// feature blocks (0xC3 and 0xC4), which carry a CRC-8 of their own behind the data.
#include <cstring>

#include "core/frame.h"
#include "signals/signals_internal.h"
#include "zel_frame.h"
#include "zel_port.h"
#include "zel_signals.h"
#include "zel_status.h"

using namespace zel;

namespace {

constexpr uint8_t kCmdSeSet = 0xC7, kCmdSeGet = 0xC8, kCmdFeatureGet = 0xC3, kCmdFeatureSet = 0xC4,
                  kCmdMobileData = 0xC5;

// Subcommands.
constexpr uint8_t kSeConfigZone = 0x80, kSeOtpZone = 0x81, kSeLockConfig = 0x82, kSeLockStatus = 0x82,
                  kSeLockData = 0x83, kSeKeyPlain = 0x85, kSeIoKey = 0x86, kSeKeyWrapped = 0x87, kSeDefaultSlots = 0x88,
                  kSeDefaultKeys = 0x89, kSeInfo = 0x8A;

constexpr uint8_t kKeyFrameExt = 70; // option, field (4), two halves of 32, checksum
constexpr uint32_t kAidBlock = 17;

// Wipes a buffer that held key material in a way the compiler keeps.
void wipe(uint8_t *p, size_t n)
{
    volatile uint8_t *v = p;
    while (n--)
        *v++ = 0;
}

ZEL_STATUS key_frame(ZEL_HANDLE hnd, uint8_t sub, uint8_t slot, uint8_t option, const uint8_t *field,
                     const uint8_t *first_half, const uint8_t *second_half)
{
    if (!field || !first_half || !second_half)
        return ZEL_PARAMETERS_ERROR;
    uint8_t frame[kFrameBufLen] = {};
    make_command(frame, kCmdSeSet, kKeyFrameExt, sub, slot);
    uint8_t ack_len = 0;
    ZEL_STATUS status = InitialHandshaking(hnd, frame, &ack_len);
    if (status != ZEL_OK)
        return status;
    uint8_t ext[kKeyFrameExt];
    ext[0] = option;
    std::memcpy(ext + 1, field, 4);
    std::memcpy(ext + 5, first_half, 32);
    std::memcpy(ext + 37, second_half, 32);
    CalcChecksum(ext, sizeof ext);
    status = PortWrite(hnd, ext, sizeof ext);
    wipe(ext, sizeof ext);
    if (status != ZEL_OK)
        return status;
    return GetAndTestResponseIntro(hnd, frame, kCmdSeSet);
}

// A zone of exactly len bytes.
ZEL_STATUS zone(ZEL_HANDLE hnd, uint8_t sub, uint8_t *out, uint32_t len)
{
    if (!out)
        return ZEL_PARAMETERS_ERROR;
    uint8_t buf[256];
    uint32_t got = sizeof buf;
    const ZEL_STATUS status = GetATECC608SettingsHnd(hnd, sub, 0, nullptr, nullptr, buf, &got);
    if (status != ZEL_OK)
        return status;
    if (got != len)
        return ZEL_COMMUNICATION_ERROR;
    std::memcpy(out, buf, len);
    return ZEL_OK;
}

} // namespace

// Secure element.

extern "C" ZEL_API ZEL_STATUS SetATECC608Hnd(ZEL_HANDLE hnd, uint8_t par0, uint8_t par1, const uint8_t *data,
                                             uint8_t length)
{
    if (length == 0xFF || (!data && length) || (data && !length))
        return ZEL_PARAMETERS_ERROR;
    if (!data)
        return handshake(hnd, kCmdSeSet, par0, par1);
    uint8_t frame[kFrameBufLen] = {};
    make_command(frame, kCmdSeSet, 0, par0, par1);
    return exchange_write_ext(hnd, frame, data, length, nullptr, nullptr);
}

extern "C" ZEL_API ZEL_STATUS ATECC608LockConfigHnd(ZEL_HANDLE hnd)
{
    return handshake(hnd, kCmdSeSet, kSeLockConfig, 0);
}

extern "C" ZEL_API ZEL_STATUS ATECC608LockDataAndOtpHnd(ZEL_HANDLE hnd)
{
    return handshake(hnd, kCmdSeSet, kSeLockData, 0);
}

extern "C" ZEL_API ZEL_STATUS ATECC608LockKeySlotHnd(ZEL_HANDLE hnd, uint8_t slot)
{
    return handshake(hnd, kCmdSeSet, kSeLockData, slot);
}

extern "C" ZEL_API ZEL_STATUS SetATECC608DefaultSlotsConfigurationHnd(ZEL_HANDLE hnd)
{
    return handshake(hnd, kCmdSeSet, kSeDefaultSlots, 0);
}

extern "C" ZEL_API ZEL_STATUS SetATECC608DefaultKeysConfigurationHnd(ZEL_HANDLE hnd)
{
    return handshake(hnd, kCmdSeSet, kSeDefaultKeys, 0);
}

extern "C" ZEL_API ZEL_STATUS SetATECC608IOSecretKeyHnd(ZEL_HANDLE hnd)
{
    return handshake(hnd, kCmdSeSet, kSeIoKey, 0);
}

extern "C" ZEL_API ZEL_STATUS SetATECC608ECCPrivateKeyUnencryptedHnd(ZEL_HANDLE hnd, uint8_t slot, uint8_t option,
                                                                     const uint8_t *field, const uint8_t *first_half,
                                                                     const uint8_t *second_half)
{
    return key_frame(hnd, kSeKeyPlain, slot, option, field, first_half, second_half);
}

extern "C" ZEL_API ZEL_STATUS SetATECC608ECCPrivateKeyHnd(ZEL_HANDLE hnd, uint8_t slot, uint8_t option,
                                                          const uint8_t *field, const uint8_t *first_half,
                                                          const uint8_t *second_half)
{
    return key_frame(hnd, kSeKeyWrapped, slot, option, field, first_half, second_half);
}

extern "C" ZEL_API ZEL_STATUS GetATECC608SettingsHnd(ZEL_HANDLE hnd, uint8_t par0, uint8_t par1, uint8_t *out0,
                                                     uint8_t *out1, uint8_t *data, uint32_t *length)
{
    const bool want_data = data && length && *length > 0;
    Reply r;
    const ZEL_STATUS status =
        command_reply(hnd, kCmdSeGet, par0, par1, r, 0, want_data ? ExtRead::tested : ExtRead::optional);
    if (status != ZEL_OK)
        return status;
    if (out0)
        *out0 = r.par[0];
    if (out1)
        *out1 = r.par[1];
    if (!want_data)
        return ZEL_OK;
    if (r.ext_len > *length + 1u) {
        *length = 0;
        return ZEL_BUFFER_OVERFLOW;
    }
    *length = r.data_len();
    std::memcpy(data, r.buf, *length);
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS GetATECC608ConfigZoneHnd(ZEL_HANDLE hnd, uint8_t *config_zone)
{
    return zone(hnd, kSeConfigZone, config_zone, ZEL_ATECC608_CONFIG_ZONE_LEN);
}

extern "C" ZEL_API ZEL_STATUS GetATECC608OtpZoneHnd(ZEL_HANDLE hnd, uint8_t *otp_zone)
{
    return zone(hnd, kSeOtpZone, otp_zone, ZEL_ATECC608_OTP_ZONE_LEN);
}

extern "C" ZEL_API ZEL_STATUS GetATECC608ZonesLockStatusHnd(ZEL_HANDLE hnd, uint8_t *config_locked,
                                                            uint8_t *data_locked)
{
    return GetATECC608SettingsHnd(hnd, kSeLockStatus, 0, config_locked, data_locked, nullptr, nullptr);
}

extern "C" ZEL_API ZEL_STATUS GetATECC608InfoRevisionHnd(ZEL_HANDLE hnd, uint8_t *info)
{
    return zone(hnd, kSeInfo, info, ZEL_ATECC608_INFO_LEN);
}

// Feature blocks.

extern "C" ZEL_API ZEL_STATUS GetFeaturesSetupHnd(ZEL_HANDLE hnd, uint8_t feature, uint8_t *data, uint32_t *length)
{
    if (!data || !length)
        return ZEL_PARAMETERS_ERROR;
    Reply r;
    const ZEL_STATUS status = command_reply(hnd, kCmdFeatureGet, feature, 0, r);
    if (status != ZEL_OK)
        return status;
    if (r.ext_len > *length + 2u) {
        *length = 0;
        return ZEL_BUFFER_OVERFLOW;
    }
    const uint32_t n = r.ext_len - 2u; // the EXT holds the CRC-8 and the checksum at least (tested above)
    if (CRC8(r.buf, static_cast<uint8_t>(n)) != r.buf[n])
        return ZEL_CHKSUM_ERROR;
    *length = n;
    std::memcpy(data, r.buf, n);
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS SetFeaturesHnd(ZEL_HANDLE hnd, uint8_t feature, const uint8_t *data, uint32_t length)
{
    // EXT_LEN is length + 2 and must fit its byte.
    if ((!data && length) || length > 253)
        return ZEL_PARAMETERS_ERROR;
    uint8_t block[254];
    if (length)
        std::memcpy(block, data, length);
    block[length] = CRC8(block, static_cast<uint8_t>(length));
    uint8_t frame[kFrameBufLen] = {};
    make_command(frame, kCmdFeatureSet, 0, feature, 0);
    return exchange_write_ext(hnd, frame, block, static_cast<uint8_t>(length + 1), nullptr, nullptr);
}

extern "C" ZEL_API ZEL_STATUS GetDiscoveryLoopSetupHnd(ZEL_HANDLE hnd, uint8_t *data, uint32_t *length)
{
    return GetFeaturesSetupHnd(hnd, ZEL_FEATURE_DISCOVERY_LOOP, data, length);
}

extern "C" ZEL_API ZEL_STATUS SetDiscoveryLoopHnd(ZEL_HANDLE hnd, const uint8_t *data, uint32_t length)
{
    return SetFeaturesHnd(hnd, ZEL_FEATURE_DISCOVERY_LOOP, data, length);
}

extern "C" ZEL_API ZEL_STATUS GetMobileUniqueIdAidHnd(ZEL_HANDLE hnd, uint8_t *aid, uint32_t *length)
{
    if (!aid || !length)
        return ZEL_PARAMETERS_ERROR;
    uint8_t block[kAidBlock] = {};
    uint32_t got = sizeof block;
    const ZEL_STATUS status = GetFeaturesSetupHnd(hnd, ZEL_FEATURE_MOBILE_UNIQUE_ID_AID, block, &got);
    if (status != ZEL_OK)
        return status;
    const uint8_t count = block[0];
    // A count that the block cannot hold, or more than came, is a malformed reply.
    if (got == 0 || count > ZEL_MOBILE_AID_MAX_LEN || count + 1u > got)
        return ZEL_COMMUNICATION_ERROR;
    if (*length < count)
        return ZEL_BUFFER_OVERFLOW;
    std::memcpy(aid, block + 1, count);
    *length = count;
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS SetMobileUniqueIdAidHnd(ZEL_HANDLE hnd, const uint8_t *aid, uint32_t length)
{
    if (!aid || length < 1 || length > ZEL_MOBILE_AID_MAX_LEN)
        return ZEL_PARAMETERS_ERROR;
    uint8_t block[kAidBlock] = {};
    block[0] = static_cast<uint8_t>(length);
    std::memcpy(block + 1, aid, length);
    return SetFeaturesHnd(hnd, ZEL_FEATURE_MOBILE_UNIQUE_ID_AID, block, sizeof block);
}

extern "C" ZEL_API ZEL_STATUS GetMobileAdditionalDataHnd(ZEL_HANDLE hnd, uint8_t *data, uint32_t *length)
{
    if (!data || !length || *length < ZEL_MOBILE_DATA_MIN_LEN)
        return ZEL_PARAMETERS_ERROR;
    Reply r;
    const ZEL_STATUS status = command_reply(hnd, kCmdMobileData, 0, 0, r);
    if (status != ZEL_OK)
        return status;
    if (r.ext_len > *length + 1u) {
        *length = 0;
        return ZEL_BUFFER_OVERFLOW;
    }
    *length = r.data_len();
    std::memcpy(data, r.buf, *length);
    return ZEL_OK;
}
