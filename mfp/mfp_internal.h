// MIFARE Plus internals: the answer byte table, the key address rules and the UID reply reader, kept apart
// from the exchanges so that tests and the fuzz target reach them directly.
#ifndef ZEL_MFP_INTERNAL_H
#define ZEL_MFP_INTERNAL_H

#include <cstdint>

#include "zel_types.h"

namespace zel::mfp {

// Command codes.
constexpr uint8_t kCmdAuthKeyBlock = 0x6A, kCmdWriteKey = 0x6B, kCmdGetUid = 0x6C;
// The card's personalisation commands and their time-out bytes.
constexpr uint8_t kWritePerso = 0xA8, kCommitPerso = 0xAA;
constexpr uint8_t kWritePersoTimeout = 100, kCommitPersoTimeout = 250, kDeselectTimeout = 100;
// The wait after the commit, while the card settles at its new level.
constexpr uint32_t kCommitSettleMs = 2000;

// How the key that authenticates is given: PAR0 and where the key travels.
enum class KeyForm : uint8_t { Reader, Sam, Provided };

// The status of a card's answer byte to a personalisation command.
ZEL_STATUS error_code(uint8_t answer);

// True for the card type codes of a Plus card at level 0 that the personalisation takes.
bool perso_card_type(uint8_t orb_type);
// True for the level 0 codes that also hold the level 2 switch, select VC and proximity check keys.
bool perso_full_key_set(uint8_t orb_type);

// Sector key addresses.
inline uint16_t sector_key_a(uint8_t sector)
{
    return static_cast<uint16_t>((sector + 0x2000u) * 2u);
}
inline uint16_t sector_key_b(uint8_t sector)
{
    return static_cast<uint16_t>(sector_key_a(sector) + 1u);
}

// A sector key change: PAR0, the key written and the key that authenticates. False for an auth mode that
// the key form does not take (0x60 and 0x61 for reader and SAM keys, 0x80 and 0x81 for a provided key).
struct SectorKeyPlan {
    uint8_t par0 = 0;
    uint16_t target = 0;
    uint16_t authenticator = 0;
};
bool sector_key_plan(KeyForm form, uint8_t sector, uint8_t auth_mode, uint8_t selector, SectorKeyPlan &plan);

// The 16 data bytes of the field configuration block.
void field_configuration(uint8_t rid_use, uint8_t prox_check_use, uint8_t out[16]);

// Reads the EXT of a UID reply (ext_len bytes as the frame tells, checksum included, at ext): the length and
// at most 10 UID bytes go to uid and uid_len (bytes the reply lacks are zero). ZEL_OK, ZEL_PARAMETERS_ERROR
// when the length disagrees with the EXT (the UID is delivered all the same), ZEL_BUFFER_OVERFLOW for a
// length above 10, ZEL_COMMUNICATION_ERROR for a reply without a length byte.
ZEL_STATUS uid_reply(const uint8_t *ext, uint8_t ext_len, uint8_t *uid, uint8_t *uid_len);

} // namespace zel::mfp

#endif
