// Basic Access Control: the key derivation, the host's part of the mutual authentication, the wrapping of
// command APDUs and the unwrapping of answers under secure messaging, and the dialogue that authenticates and
// reads a file through a caller's transceive function.
#include <cstdlib>
#include <cstring>

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include "mrtd/mrtd_internal.h"
#include "zel_crypto.h"
#include "zel_status.h"

extern "C" {
ZEL_API uint8_t mrtd_bac_rnd_ifd[8];
ZEL_API uint8_t mrtd_bac_kifd[16];
}

namespace zel::mrtd {

namespace {

HostRandomHook g_random_hook = nullptr;

// The SHA-256 of the last EF.DG1 and EF.DG2, allocated at first use and kept for the process.
uint8_t *g_dg_digest[2] = {nullptr, nullptr};

constexpr uint32_t kResponseCap = 300;
constexpr uint32_t kChunk = 224;

} // namespace

void put_u64_be(uint64_t v, uint8_t out[8])
{
    for (int i = 7; i >= 0; --i) {
        out[i] = static_cast<uint8_t>(v);
        v >>= 8;
    }
}

namespace {

// One exchange: a transceive failure comes back as it stands, an answer without a status word is
// ZEL_APDU_TRANSCEIVE_ERROR.
ZEL_STATUS exchange(Transceive transceive, void *context, const uint8_t *cmd, uint32_t cmd_len, uint8_t *resp,
                    uint32_t *resp_len)
{
    uint32_t len = kResponseCap;
    const ZEL_STATUS st = transceive(context, cmd, cmd_len, resp, &len);
    if (st != ZEL_OK)
        return st;
    if (len < 2 || len > kResponseCap)
        return ZEL_APDU_TRANSCEIVE_ERROR;
    *resp_len = len;
    return ZEL_OK;
}

ZEL_STATUS plain_exchange(Transceive transceive, void *context, const uint8_t *cmd, uint32_t cmd_len, uint8_t *resp,
                          uint32_t *resp_len)
{
    const ZEL_STATUS st = exchange(transceive, context, cmd, cmd_len, resp, resp_len);
    if (st != ZEL_OK)
        return st;
    const uint8_t sw1 = resp[*resp_len - 2], sw2 = resp[*resp_len - 1];
    if (sw1 != 0x90 || sw2 != 0x00)
        return card_status(sw1, sw2);
    return ZEL_OK;
}

// The chip's MAC over its protected answer, checked before anything of the answer is used. The answer is
// [DO'87' or DO'85'] DO'99' DO'8E' SW1 SW2; the MAC covers the SSC and every object in front of DO'8E'.
// An answer that is no protected answer at all (no object of secure messaging in front) is left to the
// unwrap, which refuses it; one that is protected but lacks DO'99', carries a MAC that does not verify, or
// whose status word disagrees with the one inside DO'99' is a broken session.
ZEL_STATUS verify_answer(const uint8_t *resp, uint32_t resp_len, const uint8_t *ks_mac, uint64_t ssc)
{
    const uint8_t first = resp[0];
    if (first != 0x85 && first != 0x87 && first != 0x99 && first != 0x8E)
        return ZEL_PARAMETERS_ERROR;
    // DO'99' (4 bytes), DO'8E' (10) and the status word (2) close every protected answer.
    constexpr uint32_t kTail = 16;
    if (resp_len < kTail)
        return MRTD_SECURE_CHANNEL_SESSION_FAILED;
    const uint32_t do99 = resp_len - kTail;
    const uint8_t *t = resp + do99;
    if (t[0] != 0x99 || t[1] != 0x02 || t[4] != 0x8E || t[5] != 0x08 || (first == 0x99) != (do99 == 0))
        return MRTD_SECURE_CHANNEL_SESSION_FAILED;
    uint8_t mac_in[8 + kResponseCap];
    put_u64_be(ssc, mac_in);
    std::memcpy(mac_in + 8, resp, do99 + 4);
    uint8_t mac[8];
    mrtd_crypto_mac_padding(mac_in, mac, 8 + do99 + 4, ks_mac);
    const bool mac_ok = CRYPTO_memcmp(mac, t + 6, 8) == 0;
    OPENSSL_cleanse(mac, sizeof mac);
    if (!mac_ok || t[2] != resp[resp_len - 2] || t[3] != resp[resp_len - 1])
        return MRTD_SECURE_CHANNEL_SESSION_FAILED;
    return ZEL_OK;
}

// One protected exchange: SSC + 1, wrap, send, SSC + 1, verify, unwrap, status word 90 00 (the one inside
// DO'99', which the MAC covers). data holds kResponseCap.
ZEL_STATUS sm_exchange(Transceive transceive, void *context, const uint8_t *apdu, uint32_t apdu_len,
                       const uint8_t *ks_enc, const uint8_t *ks_mac, uint64_t *ssc, uint8_t *data, uint32_t *data_len)
{
    uint8_t cmd[64], resp[kResponseCap];
    uint32_t cmd_len = 0, resp_len = 0;
    ++*ssc;
    ZEL_STATUS st = mrtd_bac_protected_apdu(apdu, cmd, apdu_len, &cmd_len, ks_enc, ks_mac, *ssc);
    if (st != ZEL_OK)
        return st;
    st = exchange(transceive, context, cmd, cmd_len, resp, &resp_len);
    if (st != ZEL_OK)
        return st;
    ++*ssc;
    *data_len = 0;
    st = verify_answer(resp, resp_len, ks_mac, *ssc);
    if (st != ZEL_OK)
        return st;
    st = mrtd_bac_decrypt_response(resp, data, resp_len, data_len, ks_enc);
    if (st != ZEL_OK)
        return st;
    const uint8_t sw1 = resp[resp_len - 14], sw2 = resp[resp_len - 13];
    if (sw1 != 0x90 || sw2 != 0x00)
        return card_status(sw1, sw2);
    return ZEL_OK;
}

// M.ICC, the chip's MAC over E.ICC in its EXTERNAL AUTHENTICATE answer, under K.MAC.
bool chip_mac_ok(const uint8_t *resp, const uint8_t *kmac)
{
    uint8_t mac[8];
    mrtd_crypto_mac_padding(resp, mac, 32, kmac);
    const bool ok = CRYPTO_memcmp(mac, resp + 32, 8) == 0;
    OPENSSL_cleanse(mac, sizeof mac);
    return ok;
}

void keep_digest(uint16_t file_id, const uint8_t *file, uint32_t len)
{
    if (file_id != 0x0101 && file_id != 0x0102)
        return;
    uint8_t digest[32];
    if (OrbGetHash(ZEL_HASH_SHA256, file, len, digest, sizeof digest) != ZEL_OK)
        return;
    uint8_t *&slot = g_dg_digest[file_id - 0x0101];
    if (slot == nullptr)
        slot = static_cast<uint8_t *>(std::malloc(sizeof digest));
    if (slot != nullptr)
        std::memcpy(slot, digest, sizeof digest);
}

} // namespace

void set_host_random_hook(HostRandomHook hook)
{
    g_random_hook = hook;
}

bool fill_host_randoms()
{
    uint8_t r[24];
    if (g_random_hook != nullptr)
        g_random_hook(r);
    else if (RAND_bytes(r, sizeof r) != 1)
        return false;
    std::memcpy(mrtd_bac_rnd_ifd, r, 8);
    std::memcpy(mrtd_bac_kifd, r + 8, 16);
    OPENSSL_cleanse(r, sizeof r);
    return true;
}

const uint8_t *last_dg_digest(int group)
{
    return group == 1 || group == 2 ? g_dg_digest[group - 1] : nullptr;
}

ZEL_STATUS bac_authenticate(Transceive transceive, void *context, const char *mrz_proto_key, uint8_t *ks_enc,
                            uint8_t *ks_mac, uint64_t *ssc)
{
    if (transceive == nullptr || mrz_proto_key == nullptr || ks_enc == nullptr || ks_mac == nullptr || ssc == nullptr ||
        strnlen(mrz_proto_key, 24) != 24)
        return ZEL_PARAMETERS_ERROR;
    uint8_t resp[kResponseCap];
    uint32_t resp_len = 0;
    static const uint8_t kSelectApp[12] = {0x00, 0xA4, 0x04, 0x0C, 0x07, 0xA0, 0x00, 0x00, 0x02, 0x47, 0x10, 0x01};
    ZEL_STATUS st = plain_exchange(transceive, context, kSelectApp, sizeof kSelectApp, resp, &resp_len);
    if (st != ZEL_OK)
        return st;
    static const uint8_t kGetChallenge[5] = {0x00, 0x84, 0x00, 0x00, 0x08};
    st = plain_exchange(transceive, context, kGetChallenge, sizeof kGetChallenge, resp, &resp_len);
    if (st != ZEL_OK)
        return st;
    if (resp_len < 8 + 2)
        return ZEL_APDU_TRANSCEIVE_ERROR;
    uint8_t rnd_icc[8];
    std::memcpy(rnd_icc, resp, 8);

    uint8_t kenc[16], kmac[16], kicc[16], seed[16];
    mrtd_bac_mrz_proto_key_to_kenc_kmac(mrz_proto_key, kenc, kmac);
    if (!fill_host_randoms()) {
        st = MRTD_SECURE_CHANNEL_SESSION_FAILED;
    } else {
        uint8_t ext_auth[46] = {0x00, 0x82, 0x00, 0x00, 0x28};
        mrtd_bac_cmd_data(mrtd_bac_rnd_ifd, mrtd_bac_kifd, rnd_icc, kenc, kmac, ext_auth + 5);
        ext_auth[45] = 0x28;
        st = plain_exchange(transceive, context, ext_auth, sizeof ext_auth, resp, &resp_len);
        // E.ICC and the chip's MAC over it; the MAC is checked before E.ICC is deciphered.
        if (st == ZEL_OK && (resp_len - 2 < 40 || !chip_mac_ok(resp, kmac) ||
                             !mrtd_bac_challenge_ok(resp, kenc, mrtd_bac_rnd_ifd, nullptr, kicc)))
            st = MRTD_SECURE_CHANNEL_SESSION_FAILED;
        if (st == ZEL_OK) {
            for (int i = 0; i < 16; ++i)
                seed[i] = mrtd_bac_kifd[i] ^ kicc[i];
            mrtd_bac_kenc_kmac(seed, ks_enc, ks_mac);
            *ssc = mrtd_bac_get_ssc(rnd_icc, mrtd_bac_rnd_ifd);
        }
    }
    // The host's randoms have served their one authentication.
    OPENSSL_cleanse(mrtd_bac_rnd_ifd, sizeof mrtd_bac_rnd_ifd);
    OPENSSL_cleanse(mrtd_bac_kifd, sizeof mrtd_bac_kifd);
    OPENSSL_cleanse(kenc, sizeof kenc);
    OPENSSL_cleanse(kmac, sizeof kmac);
    OPENSSL_cleanse(kicc, sizeof kicc);
    OPENSSL_cleanse(seed, sizeof seed);
    OPENSSL_cleanse(resp, sizeof resp);
    return st;
}

ZEL_STATUS bac_read_file(Transceive transceive, void *context, uint16_t file_id, uint8_t **out, uint32_t *out_len,
                         const uint8_t *ks_enc, const uint8_t *ks_mac, uint64_t *ssc)
{
    if (out == nullptr || out_len == nullptr)
        return ZEL_PARAMETERS_ERROR;
    *out = nullptr;
    *out_len = 0;
    if (transceive == nullptr || ks_enc == nullptr || ks_mac == nullptr || ssc == nullptr)
        return ZEL_PARAMETERS_ERROR;
    uint8_t data[kResponseCap];
    uint32_t got = 0;
    const uint8_t select[7] = {0x00, 0xA4, 0x02, 0x0C, 0x02, uint8_t(file_id >> 8), uint8_t(file_id)};
    ZEL_STATUS st = sm_exchange(transceive, context, select, sizeof select, ks_enc, ks_mac, ssc, data, &got);
    if (st != ZEL_OK)
        return st;
    static const uint8_t kReadHead[5] = {0x00, 0xB0, 0x00, 0x00, 0x04};
    st = sm_exchange(transceive, context, kReadHead, sizeof kReadHead, ks_enc, ks_mac, ssc, data, &got);
    if (st != ZEL_OK)
        return st;
    // The head of the file must carry its whole length field, and no more than was asked.
    if (got < 2 || got > 4)
        return ZEL_APDU_TRANSCEIVE_ERROR;
    uint8_t len_of_len = 0;
    uint32_t value_len = 0;
    st = get_ber_tlv_length(data + 1, &len_of_len, &value_len);
    if (st != ZEL_OK)
        return st;
    if (1u + len_of_len > got)
        return ZEL_APDU_TRANSCEIVE_ERROR;
    const uint32_t total = 1u + len_of_len + value_len;
    if (got > total)
        return ZEL_APDU_TRANSCEIVE_ERROR;
    auto *buf = static_cast<uint8_t *>(std::malloc(total + 1u));
    if (buf == nullptr)
        return ZEL_NO_MEMORY_ERROR;
    *out = buf;
    std::memcpy(buf, data, got);
    uint32_t have = got;
    while (have < total) {
        // READ BINARY with the offset in P1 P2 reaches 32767; a longer file needs another command.
        if (have > 0x7FFF)
            return ZEL_MAX_SIZE_EXCEEDED;
        const uint32_t chunk = total - have < kChunk ? total - have : kChunk;
        const uint8_t read[5] = {0x00, 0xB0, uint8_t(have >> 8), uint8_t(have), uint8_t(chunk)};
        st = sm_exchange(transceive, context, read, sizeof read, ks_enc, ks_mac, ssc, data, &got);
        if (st != ZEL_OK)
            return st;
        // No data, or more than asked: the card does not hold the file it announced.
        if (got == 0 || got > chunk)
            return ZEL_APDU_TRANSCEIVE_ERROR;
        std::memcpy(buf + have, data, got);
        have += got;
    }
    *out_len = total;
    keep_digest(file_id, buf, total);
    return ZEL_OK;
}

} // namespace zel::mrtd

using zel::mrtd::put_u64_be;
using zel::mrtd::read_tlv_len;

extern "C" {

ZEL_API void mrtd_bac_randomize_rndifd_kifd(void)
{
    zel::mrtd::fill_host_randoms();
}

ZEL_API void mrtd_bac_kenc_kmac(const uint8_t *kseed, uint8_t *kenc, uint8_t *kmac)
{
    if (kseed == nullptr || kenc == nullptr || kmac == nullptr)
        return;
    uint8_t d[20], h[20], enc[16], mac[16];
    uint32_t n = 0;
    std::memcpy(d, kseed, 16);
    for (uint8_t counter = 1; counter <= 2; ++counter) {
        const uint8_t c[4] = {0, 0, 0, counter};
        std::memcpy(d + 16, c, 4);
        mrtd_crypto_sha1(d, sizeof d, h);
        mrtd_crypto_fix_parity(h, h, sizeof h, &n);
        std::memcpy(counter == 1 ? enc : mac, h, 16);
    }
    std::memcpy(kenc, enc, 16);
    std::memcpy(kmac, mac, 16);
    OPENSSL_cleanse(d, sizeof d);
    OPENSSL_cleanse(h, sizeof h);
    OPENSSL_cleanse(enc, sizeof enc);
    OPENSSL_cleanse(mac, sizeof mac);
}

ZEL_API void mrtd_bac_mrz_proto_key_to_kenc_kmac(const char *mrz_proto_key, uint8_t *kenc, uint8_t *kmac)
{
    if (mrz_proto_key == nullptr)
        return;
    uint8_t h[20];
    mrtd_crypto_sha1(reinterpret_cast<const uint8_t *>(mrz_proto_key), 24, h);
    mrtd_bac_kenc_kmac(h, kenc, kmac);
    OPENSSL_cleanse(h, sizeof h);
}

ZEL_API void mrtd_bac_eifd_mifd(const uint8_t *rnd_ifd, const uint8_t *kifd, const uint8_t *rnd_icc,
                                const uint8_t *kenc, const uint8_t *kmac, uint8_t *eifd, uint8_t *mifd)
{
    if (rnd_ifd == nullptr || kifd == nullptr || rnd_icc == nullptr || kenc == nullptr || kmac == nullptr ||
        eifd == nullptr || mifd == nullptr)
        return;
    uint8_t s[32];
    std::memcpy(s, rnd_ifd, 8);
    std::memcpy(s + 8, rnd_icc, 8);
    std::memcpy(s + 16, kifd, 16);
    mrtd_crypto_encrypt_3des(s, eifd, sizeof s, kenc);
    mrtd_crypto_mac_padding(eifd, mifd, 32, kmac);
    OPENSSL_cleanse(s, sizeof s);
}

ZEL_API void mrtd_bac_cmd_data(const uint8_t *rnd_ifd, const uint8_t *kifd, const uint8_t *rnd_icc, const uint8_t *kenc,
                               const uint8_t *kmac, uint8_t *out)
{
    if (out == nullptr)
        return;
    mrtd_bac_eifd_mifd(rnd_ifd, kifd, rnd_icc, kenc, kmac, out, out + 32);
}

ZEL_API int mrtd_bac_challenge_ok(const uint8_t *response, const uint8_t *kenc, const uint8_t *rnd_ifd,
                                  uint8_t *rnd_icc_out, uint8_t *kicc_out)
{
    if (response == nullptr || kenc == nullptr || rnd_ifd == nullptr)
        return 0;
    uint8_t r[32];
    mrtd_crypto_decrypt_3des(response, r, sizeof r, kenc);
    const bool ok = CRYPTO_memcmp(r + 8, rnd_ifd, 8) == 0;
    if (ok) {
        if (rnd_icc_out)
            std::memcpy(rnd_icc_out, r, 8);
        if (kicc_out)
            std::memcpy(kicc_out, r + 16, 16);
    }
    OPENSSL_cleanse(r, sizeof r);
    return ok ? 1 : 0;
}

ZEL_API uint64_t mrtd_bac_get_ssc(const uint8_t *rnd_icc, const uint8_t *rnd_ifd)
{
    if (rnd_icc == nullptr || rnd_ifd == nullptr)
        return 0;
    uint64_t ssc = 0;
    for (int i = 4; i < 8; ++i)
        ssc = (ssc << 8) | rnd_icc[i];
    for (int i = 4; i < 8; ++i)
        ssc = (ssc << 8) | rnd_ifd[i];
    return ssc;
}

ZEL_API ZEL_STATUS mrtd_bac_protected_apdu(const uint8_t *apdu, uint8_t *out, uint32_t apdu_len, uint32_t *out_len,
                                           const uint8_t *ks_enc, const uint8_t *ks_mac, uint64_t ssc)
{
    if (out_len)
        *out_len = 0;
    if (apdu == nullptr || out == nullptr || out_len == nullptr || ks_enc == nullptr || ks_mac == nullptr ||
        apdu_len < 4)
        return ZEL_PARAMETERS_ERROR;
    const uint32_t lc = apdu_len >= 6 ? apdu[4] : 0;
    const bool has_data = apdu_len >= 6 && lc != 0;
    if (has_data && lc + 5u > apdu_len)
        return ZEL_PARAMETERS_ERROR;
    bool has_le = false;
    uint8_t le = 0;
    if (has_data && apdu_len > lc + 5u) {
        has_le = true;
        le = apdu[apdu_len - 1];
    } else if (apdu_len == 5) {
        has_le = true;
        le = apdu[4];
    }

    // DO'87': 87, the length of 01 and the cipher text, 01, the cipher text.
    uint8_t do87[3 + 256];
    uint32_t do87_len = 0;
    if (has_data) {
        uint8_t padded[256];
        uint32_t padded_len = 0;
        mrtd_crypto_padding(apdu + 5, padded, static_cast<int32_t>(lc), &padded_len);
        const uint32_t value_len = 1 + padded_len;
        uint32_t p = 0;
        do87[p++] = 0x87;
        if (value_len > 0x7F)
            do87[p++] = 0x81;
        do87[p++] = static_cast<uint8_t>(value_len);
        do87[p++] = 0x01;
        mrtd_crypto_encrypt_3des(padded, do87 + p, padded_len, ks_enc);
        do87_len = p + padded_len;
        OPENSSL_cleanse(padded, sizeof padded);
    }
    const uint32_t do97_len = has_le ? 3 : 0;
    const uint32_t total = 4 + 1 + do87_len + do97_len + 10 + 1;
    if (total - 6 > 0xFF)
        return ZEL_PARAMETERS_ERROR;

    // MAC over SSC, the padded header, DO'87' and DO'97'.
    uint8_t mac_in[16 + sizeof do87 + 3];
    put_u64_be(ssc, mac_in);
    const uint8_t header[8] = {0x0C, apdu[1], apdu[2], apdu[3], 0x80, 0x00, 0x00, 0x00};
    std::memcpy(mac_in + 8, header, 8);
    uint32_t m = 16;
    std::memcpy(mac_in + m, do87, do87_len);
    m += do87_len;
    if (has_le) {
        const uint8_t do97[3] = {0x97, 0x01, le};
        std::memcpy(mac_in + m, do97, 3);
        m += 3;
    }
    uint8_t mac[8];
    mrtd_crypto_mac_padding(mac_in, mac, m, ks_mac);

    uint32_t o = 0;
    std::memcpy(out, header, 4);
    o = 4;
    out[o++] = static_cast<uint8_t>(total - 6);
    std::memcpy(out + o, mac_in + 16, m - 16); // DO'87' and DO'97'
    o += m - 16;
    out[o++] = 0x8E;
    out[o++] = 0x08;
    std::memcpy(out + o, mac, 8);
    o += 8;
    out[o++] = 0x00;
    *out_len = o;
    return ZEL_OK;
}

ZEL_API ZEL_STATUS mrtd_bac_decrypt_response(const uint8_t *response, uint8_t *out, uint32_t response_len,
                                             uint32_t *out_len, const uint8_t *ks_enc)
{
    if (out_len == nullptr)
        return ZEL_PARAMETERS_ERROR;
    *out_len = 0;
    if (response == nullptr || out == nullptr || ks_enc == nullptr || response_len < 1)
        return ZEL_PARAMETERS_ERROR;
    if (response[0] == 0x99)
        return ZEL_OK;
    if (response[0] != 0x85 && response[0] != 0x87)
        return ZEL_PARAMETERS_ERROR;
    // The length field: short form, 81 with one byte, 82 with two; any other first byte counts as no field.
    uint32_t length = 0, field = 0;
    if (response_len >= 2) {
        const uint8_t b = response[1];
        if (b < 0x80) {
            length = b;
            field = 1;
        } else if (b == 0x81 && response_len >= 3) {
            length = response[2];
            field = 2;
        } else if (b == 0x82 && response_len >= 4) {
            length = (uint32_t(response[2]) << 8) | response[3];
            field = 3;
        }
    }
    // Behind the data object only DO'99' (4 bytes), DO'8E' (10) and the status word may stand.
    if (response_len <= 18 + field || 1 + field >= response_len || response[1 + field] != 0x01 ||
        uint64_t(length) + field != uint64_t(response_len) - 17)
        return ZEL_PARAMETERS_ERROR;
    const uint32_t cipher_len = length - 1;
    if (cipher_len == 0 || cipher_len % 8 != 0)
        return ZEL_PARAMETERS_ERROR;
    mrtd_crypto_decrypt_3des(response + 2 + field, out, cipher_len, ks_enc);
    // The padding must end in 80: a plain text of 0 bytes is the one block 80 00 .. 00.
    uint32_t i = cipher_len;
    while (i > 0 && out[i - 1] == 0x00)
        --i;
    if (i == 0 || out[i - 1] != 0x80) {
        OPENSSL_cleanse(out, cipher_len);
        return ZEL_PARAMETERS_ERROR;
    }
    const uint32_t plain = i - 1;
    *out_len = plain;
    return ZEL_OK;
}

ZEL_API const char *MRTDGetDgName(uint8_t tag)
{
    static const char *const kDg[17] = {"",        "EF.DG1",  "EF.DG2",  "EF.DG3",  "EF.DG4",  "EF.DG5",
                                        "EF.DG6",  "EF.DG7",  "EF.DG8",  "EF.DG9",  "EF.DG10", "EF.DG11",
                                        "EF.DG12", "EF.DG13", "EF.DG14", "EF.DG15", "EF.DG16"};
    if (tag == 0x60)
        return "EF.COM";
    if (tag == 0x77)
        return "EF.SOD";
    const uint8_t index = MRTDGetDgIndex(tag);
    return index ? kDg[index] : "NOT DEFINED";
}

ZEL_API uint8_t MRTDGetDgIndex(uint8_t tag)
{
    switch (tag) {
    case 0x61: return 1;
    case 0x75: return 2;
    case 0x63: return 3;
    case 0x76: return 4;
    default: return tag >= 0x65 && tag <= 0x70 ? static_cast<uint8_t>(tag - 0x60) : 0;
    }
}

ZEL_API ZEL_STATUS MRTDGetDGTagListFromCOM(const uint8_t *com, uint32_t com_len, uint8_t **tags, uint8_t *count)
{
    if (tags == nullptr || count == nullptr)
        return ZEL_PARAMETERS_ERROR;
    *tags = nullptr;
    *count = 0;
    uint32_t ll = 0, vl = 0;
    if (com == nullptr || com_len < 2 || com[0] != 0x60 || !read_tlv_len(com + 1, com_len - 1, &ll, &vl) || vl == 0 ||
        1u + ll + uint64_t(vl) > com_len)
        return MRTD_EF_COM_WRONG_DATA;
    const uint32_t end = 1 + ll + vl;
    uint32_t p = 1 + ll;
    const uint8_t *list = nullptr;
    uint32_t list_len = 0;
    bool seen = false;
    while (p < end) {
        uint32_t tag_len = 0;
        if (com[p] == 0x5F)
            tag_len = 2;
        else if (com[p] == 0x5C)
            tag_len = 1;
        else
            return MRTD_EF_COM_WRONG_DATA;
        if (p + tag_len >= end || !read_tlv_len(com + p + tag_len, end - p - tag_len, &ll, &vl) ||
            uint64_t(p) + tag_len + ll + vl > end)
            return MRTD_EF_COM_WRONG_DATA;
        if (tag_len == 1) {
            if (vl > 16)
                return MRTD_EF_COM_WRONG_DATA;
            list = com + p + 1 + ll;
            list_len = vl;
            seen = true;
        }
        p += tag_len + ll + vl;
    }
    if (!seen)
        return MRTD_EF_COM_WRONG_DATA;
    *tags = const_cast<uint8_t *>(list);
    *count = static_cast<uint8_t>(list_len);
    return ZEL_OK;
}

} // extern "C"
