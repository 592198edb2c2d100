// Finding the card in the reader's field.
#include <cstring>

#include "core/frame.h"
#include "zel_card.h"
#include "zel_status.h"

using namespace zel;

namespace {
constexpr uint8_t kCmdGetCardId = 0x13;
} // namespace

extern "C" ZEL_API ZEL_STATUS GetCardIdHnd(ZEL_HANDLE hnd, uint8_t *card_type, uint32_t *card_serial)
{
    uint8_t buf[kFrameBufLen] = {};
    uint8_t par[2];
    uint8_t ext_len = 0;
    make_command(buf, kCmdGetCardId);
    const ZEL_STATUS status = exchange_read_ext(hnd, buf, par, &ext_len);
    if (status != ZEL_OK)
        return status;
    if (ext_len < 5)
        return ZEL_COMMUNICATION_ERROR; // no room for the UID in front of the checksum
    // The outputs are written only once the whole reply has passed its tests.
    if (card_type)
        *card_type = par[0];
    if (card_serial)
        *card_serial = static_cast<uint32_t>(buf[0]) | static_cast<uint32_t>(buf[1]) << 8 |
                       static_cast<uint32_t>(buf[2]) << 16 | static_cast<uint32_t>(buf[3]) << 24;
    return ZEL_OK;
}
