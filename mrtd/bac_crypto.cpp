// The host cryptography of Basic Access Control and secure messaging: SHA-1, DES and two-key triple DES in
// CBC mode, DES parity, ISO/IEC 9797-1 padding method 2 and MAC algorithm 3. DES runs through OpenSSL's
// three-key triple DES: K|K|K for single DES, K1|K2|K1 for the two-key form.
#include <cstring>

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include "zel_mrtd.h"

namespace {

const EVP_CIPHER *tdes_cbc()
{
    static EVP_CIPHER *cipher = EVP_CIPHER_fetch(nullptr, "DES-EDE3-CBC", nullptr);
    return cipher;
}

// Three-key triple DES in CBC mode over len bytes (a multiple of 8), starting from iv (null: zero). On any
// failure of the cipher the output is cleared and false comes back.
bool tdes(const uint8_t key24[24], const uint8_t *iv, const uint8_t *in, uint8_t *out, size_t len, bool encrypt)
{
    if (len == 0)
        return true;
    const EVP_CIPHER *cipher = tdes_cbc();
    EVP_CIPHER_CTX *ctx = cipher ? EVP_CIPHER_CTX_new() : nullptr;
    static const uint8_t kZero[8] = {};
    int out_len = 0;
    bool ok = ctx != nullptr && len <= 0x7FFFFFF8u &&
              EVP_CipherInit_ex2(ctx, cipher, key24, iv ? iv : kZero, encrypt ? 1 : 0, nullptr) == 1 &&
              EVP_CIPHER_CTX_set_padding(ctx, 0) == 1 &&
              EVP_CipherUpdate(ctx, out, &out_len, in, static_cast<int>(len)) == 1 && size_t(out_len) == len;
    EVP_CIPHER_CTX_free(ctx);
    if (!ok)
        std::memset(out, 0, len);
    return ok;
}

void key_single(const uint8_t *key8, uint8_t key24[24])
{
    std::memcpy(key24, key8, 8);
    std::memcpy(key24 + 8, key8, 8);
    std::memcpy(key24 + 16, key8, 8);
}

void key_double(const uint8_t *key16, uint8_t key24[24])
{
    std::memcpy(key24, key16, 16);
    std::memcpy(key24 + 16, key16, 8);
}

// ISO/IEC 9797-1 MAC algorithm 3 over the whole blocks of in followed by the 8 bytes of extra (if any).
void retail_mac(const uint8_t *in, size_t len, const uint8_t *extra, const uint8_t *key16, uint8_t *out8)
{
    uint8_t k1[24], k2[24];
    key_single(key16, k1);
    key_single(key16 + 8, k2);
    uint8_t h[8] = {};
    uint8_t scratch[256];
    bool ok = true;
    const size_t whole = len & ~size_t(7);
    // CBC with K1 carries its chain block by block: the last cipher block becomes the next initial vector.
    for (size_t done = 0; ok && done < whole;) {
        const size_t n = whole - done < sizeof scratch ? whole - done : sizeof scratch;
        ok = tdes(k1, h, in + done, scratch, n, true);
        std::memcpy(h, scratch + n - 8, 8);
        done += n;
    }
    if (ok && extra != nullptr) {
        ok = tdes(k1, h, extra, scratch, 8, true);
        std::memcpy(h, scratch, 8);
    }
    ok = ok && tdes(k2, nullptr, h, h, 8, false) && tdes(k1, nullptr, h, h, 8, true);
    if (ok)
        std::memcpy(out8, h, 8);
    else
        std::memset(out8, 0, 8);
    OPENSSL_cleanse(k1, sizeof k1);
    OPENSSL_cleanse(k2, sizeof k2);
    OPENSSL_cleanse(scratch, sizeof scratch);
}

} // namespace

extern "C" {

ZEL_API void mrtd_crypto_sha1(const uint8_t *in, uint32_t len, uint8_t *out)
{
    if (out == nullptr)
        return;
    static const uint8_t kEmpty[1] = {};
    if (EVP_Digest(in ? in : kEmpty, in ? len : 0, out, nullptr, EVP_sha1(), nullptr) != 1)
        std::memset(out, 0, 20);
}

ZEL_API void mrtd_crypto_crypt_des(const uint8_t *in, uint8_t *out, uint32_t len, const uint8_t *key8, uint8_t encrypt)
{
    if (in == nullptr || out == nullptr || key8 == nullptr)
        return;
    uint8_t key[24];
    key_single(key8, key);
    tdes(key, nullptr, in, out, len & ~7u, encrypt != 0);
    OPENSSL_cleanse(key, sizeof key);
}

ZEL_API void mrtd_crypto_encrypt_des(const uint8_t *in, uint8_t *out, uint32_t len, const uint8_t *key8)
{
    mrtd_crypto_crypt_des(in, out, len, key8, 1);
}

ZEL_API void mrtd_crypto_decrypt_des(const uint8_t *in, uint8_t *out, uint32_t len, const uint8_t *key8)
{
    mrtd_crypto_crypt_des(in, out, len, key8, 0);
}

ZEL_API void mrtd_crypto_crypt_3des(const uint8_t *in, uint8_t *out, uint32_t len, const uint8_t *key16,
                                    uint8_t encrypt)
{
    if (in == nullptr || out == nullptr || key16 == nullptr)
        return;
    uint8_t key[24];
    key_double(key16, key);
    tdes(key, nullptr, in, out, len & ~7u, encrypt != 0);
    OPENSSL_cleanse(key, sizeof key);
}

ZEL_API void mrtd_crypto_encrypt_3des(const uint8_t *in, uint8_t *out, uint32_t len, const uint8_t *key16)
{
    mrtd_crypto_crypt_3des(in, out, len, key16, 1);
}

ZEL_API void mrtd_crypto_decrypt_3des(const uint8_t *in, uint8_t *out, uint32_t len, const uint8_t *key16)
{
    mrtd_crypto_crypt_3des(in, out, len, key16, 0);
}

ZEL_API void mrtd_crypto_fix_parity(const uint8_t *in, uint8_t *out, int32_t len, uint32_t *out_len)
{
    if (len < 0)
        len = 0;
    if (out_len)
        *out_len = static_cast<uint32_t>(len + len / 8);
    if (in == nullptr || out == nullptr)
        return;
    for (int32_t i = 0; i < len; ++i) {
        const uint8_t high = in[i] & 0xFE;
        out[i] = static_cast<uint8_t>(high | (__builtin_popcount(high) % 2 == 0 ? 1 : 0));
    }
}

ZEL_API void mrtd_crypto_padding(const uint8_t *in, uint8_t *out, int32_t len, uint32_t *out_len)
{
    if (len < 0)
        len = 0;
    if (out == nullptr || (in == nullptr && len > 0))
        return;
    if (len > 0)
        std::memmove(out, in, static_cast<size_t>(len));
    const uint32_t total = (static_cast<uint32_t>(len) / 8 + 1) * 8;
    out[len] = 0x80;
    std::memset(out + len + 1, 0, total - static_cast<uint32_t>(len) - 1);
    if (out_len)
        *out_len = total;
}

ZEL_API void mrtd_crypto_padding_remove(const uint8_t *in, uint8_t *out, uint32_t len, uint32_t *out_len)
{
    if (out_len)
        *out_len = 0;
    if (in == nullptr || out == nullptr)
        return;
    uint32_t i = len;
    while (i > 0 && in[i - 1] == 0x00)
        --i;
    if (i == 0 || in[i - 1] != 0x80)
        return;
    std::memmove(out, in, i - 1);
    if (out_len)
        *out_len = i - 1;
}

ZEL_API void mrtd_crypto_mac(const uint8_t *in, uint8_t *out8, int32_t len, const uint8_t *key16)
{
    if (out8 == nullptr || key16 == nullptr)
        return;
    retail_mac(in, in && len > 0 ? static_cast<size_t>(len) : 0, nullptr, key16, out8);
}

ZEL_API void mrtd_crypto_mac_padding(const uint8_t *in, uint8_t *out8, uint32_t len, const uint8_t *key16)
{
    if (out8 == nullptr || key16 == nullptr)
        return;
    if (in == nullptr)
        len = 0;
    // The whole blocks as they stand, then the last block padded.
    const uint32_t whole = len & ~7u;
    uint8_t last[8] = {};
    if (len > whole)
        std::memcpy(last, in + whole, len - whole);
    last[len - whole] = 0x80;
    retail_mac(in, whole, last, key16, out8);
}

} // extern "C"
