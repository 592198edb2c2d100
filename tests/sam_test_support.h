// Helpers of the SAM tests: the SAM's side of the cryptography, from OpenSSL alone, so that the host's kit
// is checked against an independent implementation.
#ifndef ZEL_TESTS_SAM_TEST_SUPPORT_H
#define ZEL_TESTS_SAM_TEST_SUPPORT_H

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace samtest {

using Bytes = std::vector<uint8_t>;

// Whole blocks through an OpenSSL cipher, padding off. A DES key of 8 bytes runs as K|K|K.
inline Bytes crypt(const EVP_CIPHER *c, Bytes key, const Bytes &in, bool enc, const Bytes &iv = Bytes(16, 0))
{
    if (key.size() == 8) {
        const Bytes k8 = key;
        key.insert(key.end(), k8.begin(), k8.end());
        key.insert(key.end(), k8.begin(), k8.end());
    }
    Bytes out(in.size() + 32);
    int a = 0, b = 0;
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    EVP_CipherInit_ex(ctx, c, nullptr, key.data(), iv.data(), enc ? 1 : 0);
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    EVP_CipherUpdate(ctx, out.data(), &a, in.data(), static_cast<int>(in.size()));
    EVP_CipherFinal_ex(ctx, out.data() + a, &b);
    EVP_CIPHER_CTX_free(ctx);
    out.resize(static_cast<size_t>(a + b));
    return out;
}

inline Bytes des_ecb(const Bytes &k8, const Bytes &in, bool enc)
{
    return crypt(EVP_des_ede3_ecb(), k8, in, enc);
}

inline Bytes aes_cbc(const Bytes &k, const Bytes &in, bool enc)
{
    return crypt(EVP_aes_128_cbc(), k, in, enc);
}

// The odd-position bytes of the AES CMAC of r | mode | 00 00 00.
inline Bytes odd_cmac(const Bytes &key, const Bytes &r, uint8_t mode)
{
    Bytes m = r;
    m.push_back(mode);
    m.resize(16, 0);
    EVP_MAC *alg = EVP_MAC_fetch(nullptr, "CMAC", nullptr);
    EVP_MAC_CTX *ctx = EVP_MAC_CTX_new(alg);
    char cipher[] = "AES-128-CBC";
    const OSSL_PARAM p[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_CIPHER, cipher, 0),
                            OSSL_PARAM_construct_end()};
    uint8_t full[16] = {};
    size_t n = 0;
    EVP_MAC_init(ctx, key.data(), key.size(), p);
    EVP_MAC_update(ctx, m.data(), m.size());
    EVP_MAC_final(ctx, full, &n, sizeof full);
    EVP_MAC_CTX_free(ctx);
    EVP_MAC_free(alg);
    Bytes odd;
    for (int i = 1; i < 16; i += 2)
        odd.push_back(full[i]);
    return odd;
}

// CRC_A of ISO/IEC 14443-3 bit by bit (polynomial x^16 + x^12 + x^5 + 1 reflected, start 0x6363).
inline uint16_t crc_a(const uint8_t *p, size_t n)
{
    uint16_t crc = 0x6363;
    for (size_t i = 0; i < n; ++i) {
        crc ^= p[i];
        for (int b = 0; b < 8; ++b)
            crc = static_cast<uint16_t>(crc & 1 ? (crc >> 1) ^ 0x8408 : crc >> 1);
    }
    return crc;
}

inline Bytes rol(const Bytes &b, size_t by)
{
    Bytes r(b.size());
    for (size_t i = 0; i < b.size(); ++i)
        r[i] = b[(i + by) % b.size()];
    return r;
}

inline Bytes range(const Bytes &b, size_t at, size_t n)
{
    return Bytes(b.begin() + static_cast<std::ptrdiff_t>(at), b.begin() + static_cast<std::ptrdiff_t>(at + n));
}

inline Bytes join(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

// The AV2 session key from the two 12-byte randoms (host's Rnd1, SAM's Rnd2) under the key.
inline Bytes av2_session(const Bytes &key, const Bytes &rnd1, const Bytes &rnd2)
{
    Bytes sv = join({range(rnd1, 7, 5), range(rnd2, 7, 5)});
    for (int i = 0; i < 5; ++i)
        sv.push_back(static_cast<uint8_t>(rnd1[i] ^ rnd2[i]));
    sv.push_back(0x91);
    return crypt(EVP_aes_128_ecb(), key, sv, true);
}

} // namespace samtest

#endif
