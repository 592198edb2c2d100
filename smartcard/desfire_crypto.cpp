// The host's DESFire cryptographic kit. Block ciphers run on OpenSSL (single DES as DES-EDE3 with K|K|K);
// a key's cipher contexts are kept and re-keyed only when another key comes, so that a message costs what
// its blocks cost. All state is process-wide: one thread at a time.
#include <cstring>

#include <immintrin.h>
#include <openssl/evp.h>

#include "core/wipe.h"
#include "zel_desfire_crypto.h"
#include "zel_status.h"

namespace {

// Cipher contexts of one key, made on first use.
struct Contexts {
    EVP_CIPHER_CTX *ecb_enc = nullptr, *ecb_dec = nullptr, *cbc_enc = nullptr, *cbc_dec = nullptr;
    uint8_t key[24] = {};
    bool keyed = false;
    // The chain value each CBC context carries now (the last cipher block it saw), so that a new IV can be
    // folded into the data instead of restarting the context for every message.
    uint8_t enc_chain[16] = {}, dec_chain[16] = {};
};

// A DES key schedule: the 8 key bytes and their contexts.
struct DesSchedule {
    uint8_t key[8] = {};
    Contexts ctx;
};

DesSchedule ks1, ks2, ks3;
Contexts aes_ctx;
uint8_t block[16];
uint8_t buffer_tmp[256];
uint32_t crc32_global = 0xFFFFFFFFu;
uint16_t crc16_global = 0x6363;
bool crc_found = false;
struct {
    uint8_t bytes[4];
    uint8_t count;
} crc_32_f;

uint32_t crc32_table[8][256];
uint16_t crca_table[8][256];
bool tables_ready = false;

// CRC-32 over n bytes from a running value by table, eight bytes a step where it can.
uint32_t crc32_table_run(uint32_t crc, const uint8_t *p, size_t n)
{
    while (n >= 8) {
        const uint32_t lo = crc ^ (uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24);
        crc = crc32_table[7][lo & 0xFF] ^ crc32_table[6][(lo >> 8) & 0xFF] ^ crc32_table[5][(lo >> 16) & 0xFF] ^
              crc32_table[4][lo >> 24] ^ crc32_table[3][p[4]] ^ crc32_table[2][p[5]] ^ crc32_table[1][p[6]] ^
              crc32_table[0][p[7]];
        p += 8;
        n -= 8;
    }
    while (n--)
        crc = (crc >> 8) ^ crc32_table[0][(crc ^ *p++) & 0xFF];
    return crc;
}

// CRC_A the same way: the 16-bit register meets the first two bytes of each step.
uint16_t crca_table_run(uint16_t crc, const uint8_t *p, size_t n)
{
    while (n >= 8) {
        const uint32_t x = crc ^ (uint32_t(p[0]) | uint32_t(p[1]) << 8);
        crc = static_cast<uint16_t>(crca_table[7][x & 0xFF] ^ crca_table[6][x >> 8] ^ crca_table[5][p[2]] ^
                                    crca_table[4][p[3]] ^ crca_table[3][p[4]] ^ crca_table[2][p[5]] ^
                                    crca_table[1][p[6]] ^ crca_table[0][p[7]]);
        p += 8;
        n -= 8;
    }
    while (n--)
        crc = static_cast<uint16_t>((crc >> 8) ^ crca_table[0][(crc ^ *p++) & 0xFF]);
    return crc;
}

// Folding with carry-less multiplication, for the processors that have it. Both CRCs are reflected: a
// 16-byte chunk loaded little endian holds its first (highest) coefficient in bit 0. A chunk A followed by
// 128 more bits is congruent, modulo the polynomial, to the chunk
//   clmul(A.low, k_low) ^ clmul(A.high, k_high)
// where k_low and k_high are x^160 and x^96 modulo the polynomial, bit-reversed over 33 bits. What stays
// after the last fold is a 16-byte chunk with the same CRC (from zero) as all the chunks before it, which
// the table finishes together with the tail. The start value goes into the first bytes beforehand.
struct Fold {
    uint64_t k_low, k_high;
};
Fold crc32_fold, crca_fold;
bool have_clmul = false;

// x^e modulo the polynomial poly of degree w (in the usual, unreflected order), bit-reversed over 33 bits.
uint64_t fold_constant(unsigned e, uint64_t poly, unsigned w)
{
    uint64_t r = 1;
    for (unsigned i = 0; i < e; ++i) {
        r <<= 1;
        if (r >> w & 1)
            r ^= poly;
    }
    uint64_t c = 0;
    for (unsigned d = 0; d < w; ++d)
        if (r >> d & 1)
            c |= uint64_t{1} << (32 - d);
    return c;
}

__attribute__((target("pclmul,sse2"))) void fold_chunks(uint32_t start, const uint8_t *p, size_t blocks, Fold k,
                                                        uint8_t out[16])
{
    __m128i x = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i *>(p)),
                              _mm_cvtsi32_si128(static_cast<int>(start)));
    const __m128i kk = _mm_set_epi64x(static_cast<long long>(k.k_high), static_cast<long long>(k.k_low));
    for (size_t b = 1; b < blocks; ++b) {
        const __m128i lo = _mm_clmulepi64_si128(x, kk, 0x00);
        const __m128i hi = _mm_clmulepi64_si128(x, kk, 0x11);
        x = _mm_xor_si128(_mm_xor_si128(lo, hi), _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + 16 * b)));
    }
    _mm_storeu_si128(reinterpret_cast<__m128i *>(out), x);
}

constexpr size_t kFoldFrom = 32; // shorter runs cost less by table

void make_tables()
{
    if (tables_ready)
        return;
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int b = 0; b < 8; ++b)
            c = c & 1 ? (c >> 1) ^ 0xEDB88320u : c >> 1;
        crc32_table[0][i] = c;
        uint16_t a = static_cast<uint16_t>(i);
        for (int b = 0; b < 8; ++b)
            a = static_cast<uint16_t>(a & 1 ? (a >> 1) ^ 0x8408 : a >> 1);
        crca_table[0][i] = a;
    }
    for (uint32_t i = 0; i < 256; ++i)
        for (int t = 1; t < 8; ++t)
            crc32_table[t][i] = (crc32_table[t - 1][i] >> 8) ^ crc32_table[0][crc32_table[t - 1][i] & 0xFF];
    for (uint32_t i = 0; i < 256; ++i)
        for (int t = 1; t < 8; ++t)
            crca_table[t][i] =
                static_cast<uint16_t>((crca_table[t - 1][i] >> 8) ^ crca_table[0][crca_table[t - 1][i] & 0xFF]);
    crc32_fold = {fold_constant(160, 0x104C11DB7u, 32), fold_constant(96, 0x104C11DB7u, 32)};
    crca_fold = {fold_constant(160, 0x11021u, 16), fold_constant(96, 0x11021u, 16)};
    __builtin_cpu_init();
    have_clmul = __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse2");
    tables_ready = true;
}

// A CRC over n bytes from a running value: whole 16-byte blocks folded where the processor can, the folded
// remainder and the tail by table.
template <typename T>
T crc_run(T crc, const uint8_t *p, size_t n, const Fold &fold, T (*table_run)(T, const uint8_t *, size_t))
{
    make_tables();
    if (have_clmul && n >= kFoldFrom) {
        uint8_t folded[16];
        const size_t blocks = n / 16;
        fold_chunks(crc, p, blocks, fold, folded);
        return table_run(table_run(0, folded, 16), p + 16 * blocks, n - 16 * blocks);
    }
    return table_run(crc, p, n);
}

uint32_t crc32_run(uint32_t crc, const uint8_t *p, size_t n)
{
    return crc_run(crc, p, n, crc32_fold, crc32_table_run);
}
uint16_t crca_run(uint16_t crc, const uint8_t *p, size_t n)
{
    return crc_run(crc, p, n, crca_fold, crca_table_run);
}

const uint8_t kZeroIv[16] = {};

EVP_CIPHER_CTX *new_ctx(const EVP_CIPHER *cipher, const uint8_t *key, int enc)
{
    EVP_CIPHER_CTX *c = EVP_CIPHER_CTX_new();
    if (!c)
        return nullptr;
    if (EVP_CipherInit_ex(c, cipher, nullptr, key, kZeroIv, enc) != 1) {
        EVP_CIPHER_CTX_free(c);
        return nullptr;
    }
    EVP_CIPHER_CTX_set_padding(c, 0);
    return c;
}

// Keys the four contexts of a key (16 bytes AES, or 24 bytes of DES-EDE3) when it changed.
bool key_contexts(Contexts &c, const uint8_t *key, size_t key_len, bool aes)
{
    if (c.keyed && std::memcmp(c.key, key, key_len) == 0)
        return true;
    const EVP_CIPHER *ecb = aes ? EVP_aes_128_ecb() : EVP_des_ede3_ecb();
    const EVP_CIPHER *cbc = aes ? EVP_aes_128_cbc() : EVP_des_ede3_cbc();
    EVP_CIPHER_CTX **all[4] = {&c.ecb_enc, &c.ecb_dec, &c.cbc_enc, &c.cbc_dec};
    const EVP_CIPHER *kinds[4] = {ecb, ecb, cbc, cbc};
    const int enc[4] = {1, 0, 1, 0};
    for (int i = 0; i < 4; ++i) {
        if (!*all[i]) {
            if (!(*all[i] = new_ctx(kinds[i], key, enc[i])))
                return c.keyed = false;
        } else if (EVP_CipherInit_ex(*all[i], nullptr, nullptr, key, kZeroIv, enc[i]) != 1) {
            return c.keyed = false;
        }
    }
    std::memset(c.enc_chain, 0, sizeof c.enc_chain);
    std::memset(c.dec_chain, 0, sizeof c.dec_chain);
    std::memcpy(c.key, key, key_len);
    return c.keyed = true;
}

Contexts *aes_contexts(const uint8_t *key16)
{
    return key_contexts(aes_ctx, key16, 16, true) ? &aes_ctx : nullptr;
}

Contexts *des_contexts(DesSchedule &ks)
{
    uint8_t k3[24];
    const zel::WipeOnExit wipe_k3(k3, sizeof k3);
    for (int i = 0; i < 3; ++i)
        std::memcpy(k3 + 8 * i, ks.key, 8);
    return key_contexts(ks.ctx, k3, 24, false) ? &ks.ctx : nullptr;
}

// ECB of one block with a context; nothing happens without one (a failed OpenSSL start).
void ecb(EVP_CIPHER_CTX *c, uint8_t *data, int n)
{
    int out = 0;
    if (c)
        EVP_CipherUpdate(c, data, &out, data, n);
}

void xor_into(uint8_t *dst, const uint8_t *src, int n)
{
    for (int i = 0; i < n; ++i)
        dst[i] ^= src[i];
}

// CBC in place over n bytes with the standard chain (encipher in send direction, decipher in receive
// direction), the IV updated. The context runs on from its own chain value: enciphering folds the caller's
// IV and that value into the first block, deciphering folds them into the first plain block.
void cbc_bulk(Contexts *c, uint8_t *iv, uint8_t *data, int n, int bs, bool decipher)
{
    if (!c || n <= 0)
        return;
    int out = 0;
    if (!decipher) {
        xor_into(data, iv, bs);
        xor_into(data, c->enc_chain, bs);
        EVP_CipherUpdate(c->cbc_enc, data, &out, data, n);
        std::memcpy(c->enc_chain, data + n - bs, bs);
        std::memcpy(iv, data + n - bs, bs);
        return;
    }
    uint8_t next_iv[16];
    std::memcpy(next_iv, data + n - bs, bs);
    EVP_CipherUpdate(c->cbc_dec, data, &out, data, n);
    xor_into(data, c->dec_chain, bs);
    xor_into(data, iv, bs);
    std::memcpy(c->dec_chain, next_iv, bs);
    std::memcpy(iv, next_iv, bs);
}

// One chained block with a block operation: op(ctx, block) where ctx is null for "no ciphering".
void chain_block(EVP_CIPHER_CTX *c, uint8_t *data, uint8_t *iv, int bs, uint8_t direction)
{
    if (direction == DESFIRE_SEND) {
        xor_into(data, iv, bs);
        ecb(c, data, bs);
        std::memcpy(iv, data, bs);
    } else if (direction == DESFIRE_RECEIVE) {
        uint8_t kept[16];
        std::memcpy(kept, data, bs);
        ecb(c, data, bs);
        xor_into(data, iv, bs);
        std::memcpy(iv, kept, bs);
    } else {
        ecb(c, data, bs);
    }
}

// Chains whole blocks: the standard pairs in bulk, the legacy pairs block by block.
void chain(Contexts *c, uint8_t *iv, uint8_t *data, int n, int bs, uint8_t direction, bool encipher, bool cipher)
{
    if (!cipher) {
        for (int at = 0; at < n; at += bs)
            chain_block(nullptr, data + at, iv, bs, direction);
        return;
    }
    if (direction == DESFIRE_SEND && encipher)
        return cbc_bulk(c, iv, data, n, bs, false);
    if (direction == DESFIRE_RECEIVE && !encipher)
        return cbc_bulk(c, iv, data, n, bs, true);
    EVP_CIPHER_CTX *e = c ? (encipher ? c->ecb_enc : c->ecb_dec) : nullptr;
    for (int at = 0; at < n; at += bs)
        chain_block(e, data + at, iv, bs, direction);
}

int block_size(const desfire_key *key)
{
    return key->type == DESFIRE_HOST_KEY_AES ? 16 : 8;
}

// Shifts a block left by one bit and folds the carry into the last byte.
void subkey_step(const uint8_t *in, uint8_t *out, int bs)
{
    const bool carry = in[0] & 0x80;
    for (int i = 0; i < bs; ++i)
        out[i] = static_cast<uint8_t>(in[i] << 1 | (i + 1 < bs ? in[i + 1] >> 7 : 0));
    if (carry)
        out[bs - 1] ^= bs == 16 ? 0x87 : 0x1B;
}

void set_schedule(DesSchedule &ks, const uint8_t *k8)
{
    std::memcpy(ks.key, k8, 8);
}

// Enciphers whole blocks in send direction with the record's cipher (DES records only for the DES path).
void encipher_send(desfire_key *key, uint8_t *iv, uint8_t *data, int n)
{
    if (key->type == DESFIRE_HOST_KEY_AES)
        chain(aes_contexts(key->data), iv, data, n, 16, DESFIRE_SEND, true, true);
    else
        chain(key->type == DESFIRE_HOST_KEY_DES ? des_contexts(ks1) : nullptr, iv, data, n, 8, DESFIRE_SEND, true,
              key->type == DESFIRE_HOST_KEY_DES);
}

} // namespace

namespace zel::desfire {
// Test seam: the CRCs by table alone even where the processor could fold; true gives the folding back
// where the processor has it. Returns whether folding is on afterwards.
bool crc_folding(bool on)
{
    tables_ready = false;
    make_tables();
    have_clmul = have_clmul && on;
    return have_clmul;
}
} // namespace zel::desfire

extern "C" {

ZEL_API void update_key_schedules(desfire_key *key)
{
    if (!key)
        return;
    set_schedule(ks1, key->data);
    set_schedule(ks2, key->data + 8);
    if (key->type == DESFIRE_HOST_KEY_3K3DES)
        set_schedule(ks3, key->data + 16);
}

ZEL_API void des_key_new(desfire_key *key, uint8_t *value)
{
    if (!key || !value)
        return;
    for (int i = 0; i < 8; ++i)
        value[i] &= 0xFE;
    std::memset(key->data, 0, sizeof key->data);
    std::memcpy(key->data, value, 8);
    std::memcpy(key->data + 8, value, 8);
    key->type = DESFIRE_HOST_KEY_DES;
    update_key_schedules(key);
}

ZEL_API void desfire_2k3des_key_new(desfire_key *key, uint8_t *value)
{
    if (!key || !value)
        return;
    for (int i = 0; i < 8; ++i) {
        value[i] &= 0xFE;
        value[i + 8] |= 0x01;
    }
    std::memset(key->data, 0, sizeof key->data);
    std::memcpy(key->data, value, 16);
    key->type = DESFIRE_HOST_KEY_2K3DES;
    update_key_schedules(key);
}

ZEL_API void desfire_3k3des_key_new(desfire_key *key, uint8_t *value)
{
    if (!key || !value)
        return;
    for (int i = 0; i < 8; ++i)
        value[i] &= 0xFE;
    std::memcpy(key->data, value, 24);
    key->type = DESFIRE_HOST_KEY_3K3DES;
    update_key_schedules(key);
}

ZEL_API void aes_key_new_with_version(desfire_key *key, const uint8_t *value, uint8_t version)
{
    if (!key || !value)
        return;
    std::memset(key->data, 0, sizeof key->data);
    std::memcpy(key->data, value, 16);
    key->type = DESFIRE_HOST_KEY_AES;
    key->aes_version = version;
}

ZEL_API void session_key_new(const uint8_t *rnda, const uint8_t *rndb, desfire_key *key)
{
    if (!rnda || !rndb || !key)
        return;
    uint8_t k[16];
    const zel::WipeOnExit wipe_k(k, sizeof k);
    std::memcpy(k, rnda, 4);
    std::memcpy(k + 4, rndb, 4);
    if (key->type == DESFIRE_HOST_KEY_AES) {
        std::memcpy(k + 8, rnda + 12, 4);
        std::memcpy(k + 12, rndb + 12, 4);
        std::memcpy(key->data, k, 16);
        return;
    }
    for (int i = 0; i < 8; ++i)
        k[i] &= 0xFE;
    std::memcpy(k + 8, k, 8);
    std::memset(key->data, 0, sizeof key->data);
    std::memcpy(key->data, k, 16);
    key->type = DESFIRE_HOST_KEY_DES;
    update_key_schedules(key);
}

ZEL_API void cmac_generate_subkeys_nl(desfire_key *key)
{
    if (!key)
        return;
    const int bs = block_size(key);
    std::memset(block, 0, sizeof block);
    if (key->type == DESFIRE_HOST_KEY_AES) {
        Contexts *c = aes_contexts(key->data);
        ecb(c ? c->ecb_enc : nullptr, block, 16);
    } else if (key->type == DESFIRE_HOST_KEY_DES) {
        Contexts *c = des_contexts(ks1);
        ecb(c ? c->ecb_enc : nullptr, block, 8);
    }
    subkey_step(block, key->cmac_sk1, bs);
    subkey_step(key->cmac_sk1, key->cmac_sk2, bs);
}

ZEL_API void cmac_nl(desfire_key *key, uint8_t *ivect, const uint8_t *message, uint8_t length, uint8_t *cmac)
{
    if (!key || !ivect || (!message && length) || !cmac)
        return;
    const int bs = block_size(key);
    if (length)
        std::memcpy(buffer_tmp, message, length);
    uint8_t padded = length;
    if (length != 0 && length % bs == 0) {
        xor_into(buffer_tmp + length - bs, key->cmac_sk1, bs);
    } else {
        padded = static_cast<uint8_t>((length / bs + 1) * bs); // may wrap to 0: then nothing is ciphered
        if (padded != 0) {
            buffer_tmp[length] = 0x80;
            std::memset(buffer_tmp + length + 1, 0, padded - length - 1u);
            xor_into(buffer_tmp + padded - bs, key->cmac_sk2, bs);
        }
    }
    encipher_send(key, ivect, buffer_tmp, padded);
    std::memcpy(cmac, ivect, bs);
}

ZEL_API void cypher_single_block(const uint8_t *key, uint8_t *data, uint8_t *ivect, uint8_t direction,
                                 uint8_t operation)
{
    if (!key || !data || !ivect)
        return;
    Contexts *c = aes_contexts(key);
    EVP_CIPHER_CTX *e = c ? (operation == DESFIRE_ENCIPHER ? c->ecb_enc : c->ecb_dec) : nullptr;
    chain_block(e, data, ivect, 16, direction);
}

ZEL_API uint32_t aes_blocks_chained(desfire_key *key, uint8_t *ivect, uint8_t *data, uint8_t length, uint8_t direction,
                                    uint8_t operation)
{
    if (!key || !ivect || (!data && length))
        return ZEL_PARAMETERS_ERROR;
    // Offsets count in a byte: a length past 240 would wrap the count and never end, and is refused.
    if (length % 16 != 0 || length > 240)
        return ZEL_PARAMETERS_ERROR;
    if (length == 0)
        return ZEL_OK;
    Contexts *c = aes_contexts(key->data);
    if (direction != DESFIRE_SEND && direction != DESFIRE_RECEIVE) {
        for (int at = 0; at < length; at += 16)
            cypher_single_block(key->data, data + at, ivect, direction, operation);
        return ZEL_OK;
    }
    chain(c, ivect, data, length, 16, direction, operation == DESFIRE_ENCIPHER, true);
    return ZEL_OK;
}

ZEL_API void cypher_single_block_des(desfire_key *key, uint8_t *data, uint8_t *ivect, uint8_t direction,
                                     uint8_t operation)
{
    if (!key || !data || !ivect)
        return;
    EVP_CIPHER_CTX *e = nullptr;
    if (key->type == DESFIRE_HOST_KEY_DES) {
        Contexts *c = des_contexts(ks1);
        e = c ? (operation == DESFIRE_ENCIPHER ? c->ecb_enc : c->ecb_dec) : nullptr;
    }
    chain_block(e, data, ivect, 8, direction);
}

ZEL_API uint32_t des_blocks_chained(desfire_key *key, uint8_t *ivect, uint8_t *data, uint8_t length, uint8_t direction,
                                    uint8_t operation)
{
    if (!key || !ivect || (!data && length))
        return ZEL_PARAMETERS_ERROR;
    if (length % 8 != 0 || length > 240) // 248 would wrap a byte offset stepping by 8
        return ZEL_PARAMETERS_ERROR;
    if (length == 0)
        return ZEL_OK;
    const bool encipher = operation == 0 || operation == 3;
    const bool decipher = operation == 1 || operation == 2;
    const bool cipher = (encipher || decipher) && key->type == DESFIRE_HOST_KEY_DES;
    chain(cipher ? des_contexts(ks1) : nullptr, ivect, data, length, 8, direction, encipher, cipher);
    return ZEL_OK;
}

ZEL_API uint32_t crypto_preprocess_data_nl(desfire_key *key, uint8_t *ivect, const uint8_t *data, uint8_t *length,
                                           uint8_t offset, uint32_t settings, uint8_t *out)
{
    if (!key || !ivect || !data || !length || !out)
        return DESFIRE_CRYPTO_NOT_SERVED;
    const uint8_t n = *length;
    if (n > DESFIRE_CRYPTO_MAX_MESSAGE)
        return DESFIRE_CRYPTO_TOO_LONG;
    const uint32_t mode = settings & 3;
    if (mode == 0) {
        std::memmove(out, data, n);
        return DESFIRE_CRYPTO_OK;
    }
    if (mode != 3)
        return DESFIRE_CRYPTO_NOT_SERVED;
    if (!(settings & DESFIRE_ENC_COMMAND))
        return DESFIRE_CRYPTO_OK;
    if (offset > n)
        return DESFIRE_CRYPTO_NOT_SERVED;
    const bool crc = !(settings & DESFIRE_NO_CRC);
    const uint32_t bs = static_cast<uint32_t>(block_size(key));
    uint32_t enc = n - offset + (crc ? 4u : 0u);
    enc = (enc + bs - 1) / bs * bs;
    std::memmove(out, data, n);
    uint32_t filled = n;
    if (crc) {
        // CRC_A over the enciphered part, in two bytes; four are counted, and the two behind it keep what
        // the output buffer held.
        const uint16_t c = crca_run(0x6363, out + offset, n - offset);
        crc16_global = c;
        out[n] = static_cast<uint8_t>(c);
        out[n + 1] = static_cast<uint8_t>(c >> 8);
        filled = n + 4u;
    }
    if (offset + enc > filled)
        std::memset(out + filled, 0, offset + enc - filled);
    *length = static_cast<uint8_t>(offset + enc);
    encipher_send(key, ivect, out + offset, static_cast<int>(enc));
    return DESFIRE_CRYPTO_OK;
}

ZEL_API uint32_t crypto_postprocess_data_nl(desfire_key *key, uint8_t *ivect, const uint8_t *data, uint8_t *length,
                                            uint32_t settings, uint8_t *out)
{
    if (!key || !ivect || !data || !length || !out)
        return DESFIRE_CRYPTO_NOT_SERVED;
    const uint8_t total = *length;
    if (total == 1)
        return DESFIRE_CRYPTO_OK;
    if (total > DESFIRE_CRYPTO_MAX_MESSAGE)
        return DESFIRE_CRYPTO_TOO_LONG;
    const uint32_t mode = settings & 3;
    if (mode == 0) {
        std::memmove(out, data, total);
        return DESFIRE_CRYPTO_OK;
    }
    if (mode != 3 || total == 0)
        return DESFIRE_CRYPTO_NOT_SERVED;
    const int bs = block_size(key);
    const int n = total - 1; // the status byte is not deciphered
    if (n % bs != 0)
        return DESFIRE_CRYPTO_NOT_SERVED;
    // The held tail of an earlier piece goes first.
    int held = crc_found ? crc_32_f.count : 0;
    uint8_t *body = out + held;
    std::memmove(body, data, n);
    if (key->type == DESFIRE_HOST_KEY_AES)
        chain(aes_contexts(key->data), ivect, body, n, 16, DESFIRE_RECEIVE, false, true);
    else
        chain(key->type == DESFIRE_HOST_KEY_DES ? des_contexts(ks1) : nullptr, ivect, body, n, 8, DESFIRE_RECEIVE,
              false, key->type == DESFIRE_HOST_KEY_DES);
    if (held)
        std::memcpy(out, crc_32_f.bytes, held);
    const int len = n + held;
    crc_found = false;
    crc_32_f.count = 0;
    uint32_t start = (settings & DESFIRE_CRC_CONTINUES) ? crc32_global : 0xFFFFFFFFu;

    if (settings & DESFIRE_NO_CRC) {
        // Not the last piece: hold back the last four bytes, which may be the start of the CRC, and carry the
        // CRC over the rest.
        const int keep = len < 4 ? len : 4;
        std::memcpy(crc_32_f.bytes, out + len - keep, keep);
        crc_32_f.count = static_cast<uint8_t>(keep);
        crc_found = keep > 0;
        crc32_global = crc32_run(start, out, len - keep);
        *length = static_cast<uint8_t>(len - keep);
        return DESFIRE_CRYPTO_OK;
    }

    // The status byte 00 stands behind the data inside the CRC; try each place for it from len - 19 on.
    int p = len - 19 < 0 ? 0 : len - 19;
    uint32_t running = crc32_run(start, out, p);
    for (; p + 4 <= len; ++p) {
        // Padding behind the place first (cheap), then the CRC over the status byte and the four bytes.
        bool tail_ok = true;
        for (int i = p + 4; tail_ok && i < len; ++i)
            tail_ok = out[i] == 0 || (i == p + 4 && out[i] == 0x80);
        static const uint8_t status = 0x00;
        uint32_t c = 0;
        if (tail_ok) {
            c = crc32_run(running, &status, 1);
            c = crc32_run(c, out + p, 4);
            tail_ok = c == 0;
        }
        if (tail_ok) {
            crc32_global = c;
            *length = static_cast<uint8_t>(p);
            return DESFIRE_CRYPTO_OK;
        }
        running = crc32_run(running, out + p, 1);
    }
    return DESFIRE_CRYPTO_NOT_SERVED;
}

ZEL_API void desfire_crc32(const uint8_t *data, uint8_t length, uint32_t *crc, uint8_t restart)
{
    const uint32_t start = (restart & 1) ? 0xFFFFFFFFu : crc32_global;
    crc32_global = data ? crc32_run(start, data, length) : start;
    if (crc)
        *crc = crc32_global;
}

ZEL_API void desfire_crc32_append(uint8_t *data, uint8_t length)
{
    if (!data)
        return;
    uint32_t c = 0;
    desfire_crc32(data, length, &c, 1);
    for (int i = 0; i < 4; ++i)
        data[length + i] = static_cast<uint8_t>(c >> (8 * i));
}

ZEL_API void desfire_crc32_byte(uint32_t *crc, uint8_t value)
{
    if (crc)
        *crc = crc32_run(*crc, &value, 1);
}

ZEL_API void iso14443a_crc_nl(const uint8_t *data, uint8_t length, uint16_t *crc, uint8_t restart)
{
    const uint16_t start = (restart & 1) ? 0x6363 : crc16_global;
    crc16_global = data ? crca_run(start, data, length ? length : 256u) : start;
    if (crc)
        *crc = crc16_global;
}

ZEL_API void iso14443a_crc_append_nl(uint8_t *data, uint8_t length)
{
    if (!data)
        return;
    uint16_t c = 0;
    iso14443a_crc_nl(data, length, &c, 1);
    const uint32_t at = length ? length : 256u;
    data[at] = static_cast<uint8_t>(c);
    data[at + 1] = static_cast<uint8_t>(c >> 8);
}

ZEL_API uint32_t padded_data_length(uint8_t length, uint8_t block_size)
{
    if (block_size == 0)
        return 0;
    if (length == 0)
        return block_size;
    return (length + block_size - 1u) / block_size * block_size;
}

ZEL_API uint32_t enciphered_data_length_des_nl(const desfire_key *key, uint8_t length, uint32_t settings)
{
    const uint32_t bs = key && key->type == DESFIRE_HOST_KEY_AES ? 16u : 8u;
    uint8_t n = length;
    if ((settings & (3u | DESFIRE_NO_CRC)) == 3u)
        n = static_cast<uint8_t>(n + 4);
    if (n == 0)
        return bs;
    return (n + bs - 1) / bs * bs;
}

} // extern "C"
