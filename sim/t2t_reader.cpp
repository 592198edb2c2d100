// The reader's engine for the Type 2 tag extras: counters (0xB1, 0xB2), the tag-tamper status (0xB4),
// authentication (0xB7: PWD_AUTH by EXT size 5, MIFARE by 8, Ultralight C by 17), the originality signature
// (0xBF). The random id functions (0xB6) belong to cards this reader does not model: they are refused.
// Ultralight C authentication runs the three-pass 3DES exchange between the reader (the host's key) and the
// tag (its key from pages 44 to 47), with OpenSSL's EVP.
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cstring>

#include "card.h"
#include "reader.h"
#include "t2t.h"
#include "wire.h"

namespace zs {

namespace {

constexpr uint8_t CMD_READ_CNT = 0xB1, CMD_INCR_CNT = 0xB2, CMD_TT = 0xB4, CMD_RID = 0xB6, CMD_AUTH = 0xB7,
                  CMD_SIG = 0xBF;

// Two-key 3DES in CBC mode over n bytes (a multiple of 8).
bool des2_cbc(const uint8_t key[16], const uint8_t iv[8], const uint8_t *in, int n, uint8_t *out, bool enc)
{
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    if (!ctx)
        return false;
    int len = 0;
    const bool ok = EVP_CipherInit_ex(ctx, EVP_des_ede_cbc(), nullptr, key, iv, enc ? 1 : 0) == 1 &&
                    EVP_CIPHER_CTX_set_padding(ctx, 0) == 1 && EVP_CipherUpdate(ctx, out, &len, in, n) == 1 && len == n;
    EVP_CIPHER_CTX_free(ctx);
    return ok;
}

void rotate_left(const uint8_t in[8], uint8_t out[8])
{
    std::memmove(out, in + 1, 7);
    out[7] = in[0];
}

// The three passes; true when reader and tag prove the same key to each other.
bool ulc_mutual_auth(const uint8_t reader_key[16], const uint8_t tag_key[16])
{
    const uint8_t zero[8] = {};
    uint8_t rnd_b[8], rnd_a[8], ek_b[8];
    if (RAND_bytes(rnd_b, 8) != 1 || RAND_bytes(rnd_a, 8) != 1)
        return false;
    // Tag: ek(RndB).
    if (!des2_cbc(tag_key, zero, rnd_b, 8, ek_b, true))
        return false;
    // Reader: RndB, rotated, behind RndA, chained on ek(RndB).
    uint8_t b[8], msg_plain[16], msg[16];
    if (!des2_cbc(reader_key, zero, ek_b, 8, b, false))
        return false;
    std::memcpy(msg_plain, rnd_a, 8);
    rotate_left(b, msg_plain + 8);
    if (!des2_cbc(reader_key, ek_b, msg_plain, 16, msg, true))
        return false;
    // Tag: checks RndB', answers ek(RndA').
    uint8_t dec[16], b_rot[8], a_rot[8], ek_a[8];
    if (!des2_cbc(tag_key, ek_b, msg, 16, dec, false))
        return false;
    rotate_left(rnd_b, b_rot);
    if (std::memcmp(dec + 8, b_rot, 8) != 0)
        return false;
    rotate_left(dec, a_rot);
    if (!des2_cbc(tag_key, msg + 8, a_rot, 8, ek_a, true))
        return false;
    // Reader: checks RndA'.
    uint8_t a_back[8], a_expect[8];
    if (!des2_cbc(reader_key, msg + 8, ek_a, 8, a_back, false))
        return false;
    rotate_left(rnd_a, a_expect);
    return std::memcmp(a_back, a_expect, 8) == 0;
}

Card *card_now(Reader &r)
{
    if (r.cards.empty() || (r.anticollision && !r.card_selected))
        return nullptr;
    return r.cards.front().get();
}

void put_le32(uint8_t *p, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<uint8_t>(v >> (8 * i));
}

uint8_t authenticate(Reader &r, Card &c, const uint8_t *f, const uint8_t *d, size_t len, Answer &a)
{
    const uint8_t mode = f[4];
    auto *t = dynamic_cast<TypeTwoExtras *>(&c);
    if (len == 4) { // PWD_AUTH: reader key (its first four bytes) or the password given
        if (!t)
            return ET2_CARD_TYPE;
        uint8_t pwd[4];
        if (mode == 1) {
            if (f[5] >= KEY_COUNT)
                return E_MAX_KEY_INDEX;
            std::memcpy(pwd, r.keys[f[5]], 4);
        } else if (mode == 0x61) {
            std::memcpy(pwd, d, 4);
        } else {
            return E_PARAMETERS;
        }
        uint8_t pack[2];
        if (const uint8_t e = t->pwd_auth(pwd, pack))
            return e;
        put_response(a.bytes, f[1], 0, 0, pack, 2);
        return 0;
    }
    if (len == 16) { // Ultralight C: the key given (the reader keeps no 16-byte keys)
        uint8_t tag_key[16];
        if (!t || !t->ulc_key(tag_key))
            return ET2_CARD_TYPE;
        if (mode != 0x80)
            return ET2_NOT_SUPPORTED;
        if (!ulc_mutual_auth(d, tag_key))
            return ET2_AUTH;
        put_response(a.bytes, f[1], 0, 0);
        return 0;
    }
    if (len == 7) { // MIFARE: block, then key A or B of the reader or given
        SectorMemory *m = c.sector_memory();
        if (!m)
            return ET2_CARD_TYPE;
        const uint8_t *key = d + 1;
        KeyType type;
        switch (mode) {
        case 0x00:
        case 0x01:
            if (f[5] >= KEY_COUNT)
                return E_MAX_KEY_INDEX;
            key = r.keys[f[5]];
            type = mode ? KeyType::B : KeyType::A;
            break;
        case 0x60: type = KeyType::A; break;
        case 0x61: type = KeyType::B; break;
        default: return E_PARAMETERS;
        }
        if (d[0] >= m->blocks())
            return E_MAX_ADDRESS;
        if (m->authenticate(d[0], type, key, 6) != MemResult::OK)
            return ET2_AUTH;
        put_response(a.bytes, f[1], 0, 0);
        return 0;
    }
    return E_PARAMETERS;
}

uint8_t run(Reader &r, const uint8_t *f, const uint8_t *ext, size_t ext_len, Answer &a)
{
    const uint8_t cmd = f[1];
    const size_t len = ext && ext_len ? ext_len - 1 : 0;
    Card *c = card_now(r);
    if (!c)
        return E_NO_CARD;
    if (cmd == CMD_AUTH)
        return authenticate(r, *c, f, ext, len, a);
    if (cmd == CMD_RID)
        return ET2_NOT_SUPPORTED;
    auto *t = dynamic_cast<TypeTwoExtras *>(c);
    if (!t)
        return ET2_CARD_TYPE;
    switch (cmd) {
    case CMD_READ_CNT: {
        // PAR0 0 reads at once; 1 presents a reader key's password first, 0x61 the password and PACK given.
        if (f[4] == 1 || f[4] == 0x61) {
            uint8_t pwd[4], pack[2];
            if (f[4] == 1) {
                if (len != 2)
                    return E_PARAMETERS;
                if (ext[0] >= KEY_COUNT)
                    return E_MAX_KEY_INDEX;
                std::memcpy(pwd, r.keys[ext[0]], 4);
            } else {
                if (len != 6)
                    return E_PARAMETERS;
                std::memcpy(pwd, ext, 4);
            }
            if (const uint8_t e = t->pwd_auth(pwd, pack))
                return e;
            if (f[4] == 0x61 && std::memcmp(pack, ext + 4, 2) != 0)
                return ET2_AUTH; // the tag is not the one the host expects
        } else if (f[4] != 0) {
            return E_PARAMETERS;
        }
        uint32_t v = 0;
        if (const uint8_t e = t->read_counter(f[5], v))
            return e;
        uint8_t d[4];
        put_le32(d, v);
        put_response(a.bytes, cmd, 0, 0, d, 4);
        return 0;
    }
    case CMD_INCR_CNT: {
        if (len != 4)
            return E_PARAMETERS;
        const uint32_t by = static_cast<uint32_t>(ext[0]) | static_cast<uint32_t>(ext[1]) << 8 |
                            static_cast<uint32_t>(ext[2]) << 16 | static_cast<uint32_t>(ext[3]) << 24;
        if (const uint8_t e = t->increment_counter(f[5], by))
            return e;
        put_response(a.bytes, cmd, 0, 0);
        return 0;
    }
    case CMD_TT: {
        uint8_t d[5];
        if (!t->tt_status(d, d[4]))
            return ET2_NOT_SUPPORTED;
        put_response(a.bytes, cmd, 0, 0, d, 5);
        return 0;
    }
    case CMD_SIG: {
        if (f[4] > 1)
            return ET2_CARD_TYPE; // the NTAG DNA and DESFire forms are other cards' business
        uint8_t d[42] = {};
        if (!t->signature(d))
            return ET2_NOT_SUPPORTED;
        const zsim_card &id = c->id();
        const uint8_t n = id.uid_len > 10 ? 10 : id.uid_len;
        std::memcpy(d + 32, id.uid, n);
        put_response(a.bytes, cmd, id.orb_type, n, d, sizeof d);
        return 0;
    }
    default: return E_NOT_SUPPORTED;
    }
}

} // namespace

bool t2t_reader_wants_ext(const Reader &, const uint8_t f[7])
{
    switch (f[1]) {
    case CMD_READ_CNT: return f[4] != 0;
    case CMD_INCR_CNT:
    case CMD_RID:
    case CMD_AUTH: return true;
    case CMD_SIG: return f[4] > 1;
    default: return false;
    }
}

bool t2t_reader_command(Reader &r, const uint8_t f[7], const uint8_t *ext, size_t ext_len, Answer &a)
{
    switch (f[1]) {
    case CMD_READ_CNT:
    case CMD_INCR_CNT:
    case CMD_TT:
    case CMD_RID:
    case CMD_AUTH:
    case CMD_SIG: break;
    default: return false;
    }
    if (const uint8_t e = run(r, f, ext, ext_len, a))
        put_error(a.bytes, e);
    return true;
}

} // namespace zs
