// Finding the card in the reader's field: identity, type, size, maker, and the reader's multi-card mode.
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "card/card_tables.h"
#include "core/bytes.h"
#include "core/frame.h"
#include "zel_card.h"
#include "zel_port.h"
#include "zel_status.h"

using namespace zel;

namespace {
constexpr uint8_t kCmdGetCardId = 0x13;
constexpr uint8_t kCmdGetCardIdEx = 0x2C;
constexpr uint8_t kCmdEnableAntiCollision = 0x2D;
constexpr uint8_t kCmdDisableAntiCollision = 0x2E;
constexpr uint8_t kCmdEnumCards = 0x37;
constexpr uint8_t kCmdListCards = 0x38;
constexpr uint8_t kCmdSelectCard = 0x39;
constexpr uint8_t kCmdDeselectCard = 0x3A;
constexpr uint8_t kCmdAntiCollisionStatus = 0x3B;
constexpr uint8_t kCmdGetOrbCardType = 0x3C;
constexpr uint8_t kCmdGetLastCardIdEx = 0x7C;
constexpr uint8_t kCmdGetNfcT2TVersion = 0xB0;
constexpr uint8_t kCmdGetCardInfo = 0xEB;

// The size of the list the last enumeration announced: one for the whole library, shared by every handle.
std::atomic<uint8_t> g_list_size{0};

// The extended card id of cmd: SAK, length, UID; four-byte UIDs on the reversal list come reversed.
ZEL_STATUS card_id_ex(ZEL_HANDLE hnd, uint8_t cmd, uint8_t *sak, uint8_t *uid, uint8_t *uid_size)
{
    Reply r;
    const ZEL_STATUS status = command_reply(hnd, cmd, 0, 0, r);
    if (status != ZEL_OK)
        return status;
    const uint8_t len = r.par[1];
    if (len > ZEL_UID_MAX_LEN)
        return ZEL_BUFFER_OVERFLOW;
    if (len > r.ext_len - 1u)
        return ZEL_COMMUNICATION_ERROR; // the reply does not hold the UID it announces
    if (!sak || !uid || !uid_size)
        return ZEL_PARAMETERS_ERROR;
    if (len == 4) {
        const uint32_t v = get_le32(r.buf);
        if (uid_on_reversal_list(v)) {
            r.buf[0] = static_cast<uint8_t>(v >> 24);
            r.buf[1] = static_cast<uint8_t>(v >> 16);
            r.buf[2] = static_cast<uint8_t>(v >> 8);
            r.buf[3] = static_cast<uint8_t>(v);
        }
    }
    *sak = r.par[0];
    *uid_size = len;
    std::memset(uid, 0, ZEL_UID_MAX_LEN);
    std::memcpy(uid, r.buf, len);
    return ZEL_OK;
}

// A command answered by a plain frame: EXT_LEN 0 or a communication error.
ZEL_STATUS plain_command(ZEL_HANDLE hnd, uint8_t cmd, uint8_t *par = nullptr)
{
    uint8_t frame[kFrameBufLen] = {};
    uint8_t ext_len = 0;
    make_command(frame, cmd);
    const ZEL_STATUS status = InitialHandshaking(hnd, frame, &ext_len);
    if (status != ZEL_OK)
        return status;
    if (ext_len != 0)
        return ZEL_COMMUNICATION_ERROR;
    if (par) {
        par[0] = frame[kPar0];
        par[1] = frame[kPar1];
    }
    return ZEL_OK;
}

} // namespace

extern "C" ZEL_API ZEL_STATUS GetCardIdHnd(ZEL_HANDLE hnd, uint8_t *card_type, uint32_t *card_serial)
{
    Reply r;
    // A reply with no room for the UID in front of its checksum is malformed.
    const ZEL_STATUS status = command_reply(hnd, kCmdGetCardId, 0, 0, r, 5);
    if (status != ZEL_OK)
        return status;
    // The outputs are written only once the whole reply has passed its tests.
    if (card_type)
        *card_type = r.par[0];
    if (card_serial)
        *card_serial = get_le32(r.buf);
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS GetAtqaSakHnd(ZEL_HANDLE hnd, uint16_t *atqa, uint8_t *sak)
{
    Reply r;
    const ZEL_STATUS status = command_reply(hnd, kCmdGetCardId, 1, 0, r, 3);
    if (status != ZEL_OK)
        return status;
    if (atqa)
        *atqa = static_cast<uint16_t>(get_le16(r.buf));
    if (sak)
        *sak = r.par[0];
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS GetCardIdExHnd(ZEL_HANDLE hnd, uint8_t *sak, uint8_t *uid, uint8_t *uid_size)
{
    return card_id_ex(hnd, kCmdGetCardIdEx, sak, uid, uid_size);
}

extern "C" ZEL_API ZEL_STATUS GetLastCardIdExHnd(ZEL_HANDLE hnd, uint8_t *sak, uint8_t *uid, uint8_t *uid_size)
{
    return card_id_ex(hnd, kCmdGetLastCardIdEx, sak, uid, uid_size);
}

extern "C" ZEL_API ZEL_STATUS GetCardInfoHnd(ZEL_HANDLE hnd, uint8_t *info, uint32_t *length)
{
    Reply r;
    const ZEL_STATUS status = command_reply(hnd, kCmdGetCardInfo, 1, 0, r);
    if (status != ZEL_OK)
        return status;
    if (!info || !length)
        return ZEL_PARAMETERS_ERROR;
    if (*length < r.ext_len)
        return ZEL_BUFFER_OVERFLOW;
    std::memcpy(info, r.buf, r.ext_len); // the checksum byte too
    *length = r.ext_len;
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS GetOrbCardTypeHnd(ZEL_HANDLE hnd, uint8_t *card_type)
{
    uint8_t par[2];
    const ZEL_STATUS status = handshake(hnd, kCmdGetOrbCardType, 0, 0, par);
    if (status != ZEL_OK)
        return status;
    if (card_type)
        *card_type = par[0];
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS GetCardSizeHnd(ZEL_HANDLE hnd, uint32_t *linear_size, uint32_t *raw_size)
{
    // The type decides alone: without a card the byte stays 0, which has no size.
    uint8_t type = 0;
    (void)GetOrbCardTypeHnd(hnd, &type);
    CardSize size{};
    const bool known = card_size_of(type, size);
    if (linear_size)
        *linear_size = size.linear;
    if (raw_size)
        *raw_size = size.raw;
    return known ? ZEL_OK : ZEL_UNSUPPORTED_CARD_TYPE;
}

extern "C" ZEL_API ZEL_STATUS GetCardManufacturerHnd(ZEL_HANDLE hnd, char *name)
{
    uint8_t sak = 0, uid[ZEL_UID_MAX_LEN] = {}, len = 0;
    const ZEL_STATUS status = GetCardIdExHnd(hnd, &sak, uid, &len);
    if (status != ZEL_OK)
        return status;
    getCardManufacturer(uid[0], name);
    return ZEL_OK;
}

extern "C" ZEL_API void getCardManufacturer(uint8_t code, char *name)
{
    if (!name)
        return;
    const char *text = manufacturer_name(code);
    std::memcpy(name, text, std::strlen(text) + 1);
}

extern "C" ZEL_API ZEL_STATUS GetNfcT2TVersionHnd(ZEL_HANDLE hnd, uint8_t *version)
{
    if (version)
        std::memset(version, 0, 8);
    Reply r;
    const ZEL_STATUS status = command_reply(hnd, kCmdGetNfcT2TVersion, 0, 0, r);
    if (status != ZEL_OK)
        return status;
    if (r.ext_len != 9)
        return ZEL_BUFFER_OVERFLOW;
    if (!version)
        return ZEL_PARAMETERS_ERROR;
    std::memcpy(version, r.buf, 8);
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS NfcT2TSafeConvertVersion(t2t_version_t *out, const uint8_t *version)
{
    if (!out || !version)
        return ZEL_PARAMETERS_ERROR;
    out->header = version[0];
    out->vendor_id = version[1];
    out->product_type = version[2];
    out->product_subtype = version[3];
    out->major_product_version = version[4];
    out->minor_product_version = version[5];
    out->storage_size = version[6];
    out->protocol_type = version[7];
    return ZEL_OK;
}

// The reader's multi-card mode.

extern "C" ZEL_API ZEL_STATUS EnableAntiCollisionHnd(ZEL_HANDLE hnd)
{
    return plain_command(hnd, kCmdEnableAntiCollision);
}

extern "C" ZEL_API ZEL_STATUS DisableAntiCollisionHnd(ZEL_HANDLE hnd)
{
    return plain_command(hnd, kCmdDisableAntiCollision);
}

extern "C" ZEL_API ZEL_STATUS DeslectCardHnd(ZEL_HANDLE hnd)
{
    return plain_command(hnd, kCmdDeselectCard);
}

extern "C" ZEL_API ZEL_STATUS GetAntiCollisionStatusHnd(ZEL_HANDLE hnd, uint8_t *is_enabled, uint8_t *is_selected)
{
    uint8_t par[2];
    const ZEL_STATUS status = plain_command(hnd, kCmdAntiCollisionStatus, par);
    if (status != ZEL_OK)
        return status;
    if (is_enabled)
        *is_enabled = par[0];
    if (is_selected)
        *is_selected = par[1];
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS EnumCardsHnd(ZEL_HANDLE hnd, uint8_t *card_count, uint8_t *list_size)
{
    g_list_size.store(0);
    uint8_t par[2];
    const ZEL_STATUS status = plain_command(hnd, kCmdEnumCards, par);
    if (status != ZEL_OK)
        return status;
    g_list_size.store(par[1]);
    if (card_count)
        *card_count = par[0];
    if (list_size)
        *list_size = par[1];
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS ListCardsHnd(ZEL_HANDLE hnd, uint8_t *list, uint8_t list_size)
{
    const uint8_t expected = g_list_size.load();
    if (list_size != expected)
        return ZEL_PARAMETERS_ERROR;
    uint8_t frame[kFrameBufLen] = {};
    uint8_t ext_len = 0;
    make_command(frame, kCmdListCards);
    ZEL_STATUS status = InitialHandshaking(hnd, frame, &ext_len);
    if (status != ZEL_OK)
        return status;
    if (frame[kPar1] != expected || ext_len == 0 || ext_len - 1u != expected)
        return ZEL_PARAMETERS_ERROR;
    if (expected && !list)
        return ZEL_PARAMETERS_ERROR;
    auto *block = static_cast<uint8_t *>(std::malloc(ext_len));
    if (!block)
        return ZEL_NO_MEMORY_ERROR;
    status = PortRead(hnd, block, ext_len);
    if (status == ZEL_OK) {
        // The list reaches the caller before its checksum is tested, and again once it has passed.
        if (expected)
            std::memcpy(list, block, expected);
        if (!TestChecksum(block, ext_len))
            status = ZEL_COMMUNICATION_ERROR;
        else if (expected)
            std::memcpy(list, block, expected);
    }
    std::free(block);
    return status;
}

extern "C" ZEL_API ZEL_STATUS SelectCardHnd(ZEL_HANDLE hnd, const uint8_t *uid, uint8_t uid_size, uint8_t *card_type)
{
    if (hnd && (!uid || uid_size == 0 || uid_size > ZEL_UID_MAX_LEN))
        return ZEL_PARAMETERS_ERROR;
    uint8_t frame[kFrameBufLen] = {};
    uint8_t ext_len = 0;
    make_command(frame, kCmdSelectCard, static_cast<uint8_t>(uid_size + 1u), uid_size);
    ZEL_STATUS status = InitialHandshaking(hnd, frame, &ext_len);
    if (status != ZEL_OK)
        return status;
    uint8_t ext[ZEL_UID_MAX_LEN + 1];
    std::memcpy(ext, uid, uid_size);
    ext[uid_size] = static_cast<uint8_t>(GetChecksumFragment(0, ext, uid_size) + 7);
    if ((status = PortWrite(hnd, ext, uid_size + 1u)) != ZEL_OK)
        return status;
    uint8_t b[kFrameLen];
    if ((status = PortRead(hnd, b, kFrameLen)) != ZEL_OK)
        return status;
    if (!TestChecksum(b, kFrameLen))
        return ZEL_COMMUNICATION_ERROR;
    if (b[kHeader] == kErrHeader)
        return b[kCmd];
    if (b[kTrailer] == kErrTrailer)
        return b[kCmd];
    if (b[kTrailer] != kRspTrailer || b[kHeader] != kRspHeader)
        return ZEL_COMMUNICATION_ERROR;
    if (b[kCmd] != kCmdSelectCard)
        return ZEL_COMMUNICATION_ERROR;
    if (card_type)
        *card_type = b[kPar0];
    return ZEL_OK;
}
