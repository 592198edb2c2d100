// The reader's MIFARE Plus engine. The reader runs the AES dialogue with the card itself; here that is a
// comparison of the key with the card's key block. Keys come from the frame's EXT (PAR0 0x80 and 0x81), the
// reader's AES key store (PAR0 0 and 1, index in PAR1) or the SAM (PAR0 0x10 and 0x11), which in the
// simulator holds the same keys as the store.
//   0x6A  EXT: key block address, [16-byte key]          authenticates; on the level 3 switch key (0x9003)
//                                                        the card goes to level 3
//   0x6B  EXT: target address, 16 bytes of new data, address of the authenticating key, then the SAM entry
//         of the new key (SAM) or the authenticating key (provided): writes a key block or the field
//         configuration, at level 3 only
//   0x6C  EXT: two key indexes or two 16-byte keys; PAR1 1 sends one key (the second is zero). The keys
//         must be the VC polling encryption key and, without PAR1, the VC polling MAC key. The reply EXT
//         is the UID length and the UID.
#include <cstring>

#include "desfire.h"
#include "mfp.h"
#include "reader.h"
#include "wire.h"

namespace zs {

namespace {

constexpr uint8_t CMD_AUTH = 0x6A, CMD_WRITE_KEY = 0x6B, CMD_UID = 0x6C;
constexpr uint8_t E_AUTH = 14, E_CARD_TYPE = 17, E_COND_OF_USE = 180, E_NOT_EXIST_BLOCK = 179;
constexpr size_t STORE_KEYS = 16;

enum class From { STORE, SAM, FRAME };

From key_source(uint8_t par0)
{
    if (par0 & 0x80)
        return From::FRAME;
    return (par0 & 0x10) ? From::SAM : From::STORE;
}

// A key of the reader's store (or the SAM's): false for an index beyond it.
bool stored(const Reader &r, uint8_t index, uint8_t key[16])
{
    if (index >= STORE_KEYS)
        return false;
    std::memcpy(key, r.eeprom + EE_DESFIRE_KEYS + 16u * index, 16);
    return true;
}

bool key_matches(const PlusCard &card, uint16_t address, const uint8_t key[16])
{
    const uint8_t *want = card.key_block(address);
    return want && std::memcmp(want, key, 16) == 0;
}

uint16_t le16(const uint8_t *p)
{
    return static_cast<uint16_t>(p[0] | p[1] << 8);
}

void auth(Reader &r, PlusCard &card, const uint8_t *f, const uint8_t *d, size_t n, Answer &a)
{
    const From from = key_source(f[4]);
    uint8_t key[16];
    if (n != (from == From::FRAME ? 18u : 2u))
        return put_error(a.bytes, E_PARAMETERS);
    if (from == From::FRAME)
        std::memcpy(key, d + 2, 16);
    else if (!stored(r, f[5], key))
        return put_error(a.bytes, E_MAX_KEY_INDEX);
    const uint16_t address = le16(d);
    if (card.security_level() == 0)
        return put_error(a.bytes, E_COND_OF_USE);
    if (!card.key_block(address))
        return put_error(a.bytes, E_NOT_EXIST_BLOCK);
    if (!key_matches(card, address, key))
        return put_error(a.bytes, E_AUTH);
    if (address == MFP_L3_SWITCH_KEY)
        card.enter_level3();
    else if (address == MFP_L1_AUTH_KEY && card.security_level() != 1)
        return put_error(a.bytes, E_COND_OF_USE);
    put_response(a.bytes, f[1], 0, 0);
}

void write_key(Reader &r, PlusCard &card, const uint8_t *f, const uint8_t *d, size_t n, Answer &a)
{
    const From from = key_source(f[4]);
    const size_t want = from == From::FRAME ? 36 : from == From::SAM ? 21 : 20;
    if (n != want)
        return put_error(a.bytes, E_PARAMETERS);
    uint8_t key[16], data[16];
    if (from == From::FRAME)
        std::memcpy(key, d + 20, 16);
    else if (!stored(r, f[5], key))
        return put_error(a.bytes, E_MAX_KEY_INDEX);
    const uint16_t target = le16(d), authenticator = le16(d + 18);
    std::memcpy(data, d + 2, 16);
    // A key from the SAM replaces the data of the frame; the field configuration has no key.
    if (from == From::SAM && target != MFP_FIELD_CONFIG && !stored(r, d[20], data))
        return put_error(a.bytes, E_MAX_KEY_INDEX);
    if (card.security_level() != 3)
        return put_error(a.bytes, E_COND_OF_USE);
    if (!card.key_block(authenticator))
        return put_error(a.bytes, E_NOT_EXIST_BLOCK);
    if (!key_matches(card, authenticator, key))
        return put_error(a.bytes, E_AUTH);
    if (!card.write_key_block(target, data))
        return put_error(a.bytes, E_NOT_EXIST_BLOCK);
    put_response(a.bytes, f[1], 0, 0);
}

void uid(Reader &r, PlusCard &card, const zsim_card &id, const uint8_t *f, const uint8_t *d, size_t n, Answer &a)
{
    const From from = key_source(f[4]);
    const bool one = f[5] == 1;
    if (n != (from == From::FRAME ? 32u : 2u))
        return put_error(a.bytes, E_PARAMETERS);
    uint8_t enc[16], mac[16];
    if (from == From::FRAME) {
        std::memcpy(enc, d, 16);
        std::memcpy(mac, d + 16, 16);
    } else if (!stored(r, d[0], enc) || (!one && !stored(r, d[1], mac))) {
        return put_error(a.bytes, E_MAX_KEY_INDEX);
    }
    if (card.security_level() == 0)
        return put_error(a.bytes, E_COND_OF_USE);
    if (!key_matches(card, MFP_VC_ENC_KEY, enc) || (!one && !key_matches(card, MFP_VC_MAC_KEY, mac)))
        return put_error(a.bytes, E_AUTH);
    uint8_t out[11] = {};
    const uint8_t len = id.uid_len > 10 ? 10 : id.uid_len;
    out[0] = len;
    std::memcpy(out + 1, id.uid, len);
    put_response(a.bytes, f[1], 0, 0, out, len + 1u);
}

} // namespace

bool mfp_reader_wants_ext(const Reader &, const uint8_t f[7])
{
    return f[1] == CMD_AUTH || f[1] == CMD_WRITE_KEY || f[1] == CMD_UID;
}

bool mfp_reader_command(Reader &r, const uint8_t f[7], const uint8_t *ext, size_t ext_len, Answer &a)
{
    if (!mfp_reader_wants_ext(r, f))
        return false;
    if (r.cards.empty())
        return put_error(a.bytes, E_NO_CARD), true;
    auto *card = dynamic_cast<PlusCard *>(r.cards.front().get());
    if (!card)
        return put_error(a.bytes, E_CARD_TYPE), true;
    const size_t n = ext && ext_len ? ext_len - 1 : 0;
    switch (f[1]) {
    case CMD_AUTH: auth(r, *card, f, ext, n, a); break;
    case CMD_WRITE_KEY: write_key(r, *card, f, ext, n, a); break;
    default: uid(r, *card, r.cards.front()->id(), f, ext, n, a); break;
    }
    return true;
}

} // namespace zs
