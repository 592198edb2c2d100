// MIFARE Plus in the simulator: what the reader's MIFARE Plus engine (mfp_reader.cpp) needs of a Plus card
// model (cards/plus.cpp), which keeps its security level, its AES key blocks and its sector memory.
#ifndef ZELSIM_MFP_H
#define ZELSIM_MFP_H

#include <cstddef>
#include <cstdint>

namespace zs {

struct Reader;
struct Answer;

// Key block addresses of the card.
constexpr uint16_t MFP_MASTER_KEY = 0x9000, MFP_CONFIG_KEY = 0x9001, MFP_L2_SWITCH_KEY = 0x9002,
                   MFP_L3_SWITCH_KEY = 0x9003, MFP_L1_AUTH_KEY = 0x9004, MFP_SELECT_VC_KEY = 0xA000,
                   MFP_PROX_CHECK_KEY = 0xA001, MFP_VC_ENC_KEY = 0xA080, MFP_VC_MAC_KEY = 0xA081,
                   MFP_FIELD_CONFIG = 0xB003, MFP_SECTOR_KEYS = 0x4000;

class PlusCard {
public:
    virtual ~PlusCard() = default;
    // 0, 1 or 3.
    virtual unsigned security_level() const = 0;
    // The level 3 switch: the card answers at level 3 from now on.
    virtual void enter_level3() = 0;
    // The 16 bytes of an AES key block (card keys, sector keys), or null when the card has no such key.
    virtual const uint8_t *key_block(uint16_t address) const = 0;
    // Writes a key block or the field configuration block; false when the card has no such block.
    virtual bool write_key_block(uint16_t address, const uint8_t data[16]) = 0;
};

// The reader's commands for MIFARE Plus cards: 0x6A (authenticate by a key block), 0x6B (write a key block
// through a key), 0x6C (the UID).
bool mfp_reader_wants_ext(const Reader &r, const uint8_t frame[7]);
bool mfp_reader_command(Reader &r, const uint8_t frame[7], const uint8_t *ext, size_t ext_len, Answer &a);

} // namespace zs
#endif
