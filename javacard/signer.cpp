// The signer applet: selection, key slots, stored objects, PINs and signatures made on the card.
#include <openssl/crypto.h>

#include <cstring>

#include "apdu/apdu_internal.h"
#include "core/internal.h"
#include "javacard/jc_internal.h"
#include "tandro.h"

using namespace zel::jc;

namespace {

constexpr uint8_t kInsSign = 0x71;

bool is_known_card(uint8_t t)
{
    return t == 0xA0 || t == 0xA1 || t == 0xA2 || t == 0xAA;
}

bool in_list(uint32_t v, const uint16_t *list, size_t n)
{
    for (size_t i = 0; i < n; ++i)
        if (list[i] == v)
            return true;
    return false;
}

const uint16_t kRsaBits[] = {512, 736, 768, 896, 1024, 1280, 1536, 1984, 2048};
const uint16_t kFpBits[] = {112, 128, 160, 192, 224, 256, 384, 521};
const uint16_t kF2mBits[] = {113, 131, 163, 193, 233, 239, 283, 409, 571};

const uint16_t kFpA0[] = {128, 160, 192, 224, 256};
const uint16_t kFpA1[] = {112, 128, 160, 192, 224, 256, 384, 521};
const uint16_t kF2mA1[] = {113, 131, 163, 193, 233, 239, 283, 409};
const uint16_t kF2mA1Gen[] = {113, 131, 163, 193};
const uint16_t kFpA2[] = {192, 256, 384};
const uint16_t kFpAA[] = {160, 192, 224, 256, 384, 521};

template <size_t N> bool has(const uint16_t (&list)[N], uint32_t v)
{
    return in_list(v, list, N);
}

bool ec_size_ok(uint8_t card_type, uint8_t key_type, uint32_t bits, bool on_card)
{
    if (key_type == JC_KEY_EC_FP) {
        switch (card_type) {
        case 0xA0: return !on_card && has(kFpA0, bits);
        case 0xA1: return has(kFpA1, bits);
        case 0xA2: return !on_card && has(kFpA2, bits);
        case 0xAA: return has(kFpAA, bits);
        default: return false;
        }
    }
    if (key_type == JC_KEY_EC_F2M && card_type == 0xA1)
        return on_card ? has(kF2mA1Gen, bits) : has(kF2mA1, bits);
    return false;
}

bool is_ec(uint8_t key_type)
{
    return key_type == JC_KEY_EC_F2M || key_type == JC_KEY_EC_FP;
}

// The object type and slot rules of the object operations.
ZEL_STATUS check_object(uint8_t type, uint8_t index)
{
    if (type > 2)
        return ZEL_APDU_WRONG_KEY_TYPE;
    if (index > (type == 2 ? 11 : 2))
        return ZEL_APDU_WRONG_KEY_PARAMS;
    return ZEL_OK;
}

// The checks of a signing request, in their order.
ZEL_STATUS check_signing(uint8_t cipher, uint8_t digest, uint8_t padding, uint8_t key_index, uint32_t len)
{
    if (padding != 0 || digest > 7 || cipher > 1)
        return ZEL_APDU_WRONG_SIGNING_ALGORITHM;
    if (key_index > 2)
        return ZEL_APDU_WRONG_KEY_PARAMS;
    if (len > kChunk)
        return ZEL_APDU_PLAIN_TEXT_MAX_SIZE_EXCEEDED;
    return JCCheckSignerAlgorithms(session().card_type, cipher, digest, padding);
}

// A secret's APDU: the card gets it, the host keeps no copy of it.
ZEL_STATUS send_secret(ZEL_HANDLE hnd, uint8_t ins, uint8_t p1, const uint8_t *secret, uint8_t len)
{
    if (!secret || !len)
        return ZEL_PARAMETERS_ERROR;
    uint8_t copy[kChunk];
    std::memcpy(copy, secret, len);
    const ZEL_STATUS status = exchange(hnd, kCla, ins, p1, 0, copy, len, nullptr, 0, nullptr);
    OPENSSL_cleanse(copy, sizeof copy);
    return status;
}

} // namespace

// ---- the rules by card type ----

extern "C" ZEL_API ZEL_STATUS JCCheckSignerAlgorithms(uint8_t card_type, uint8_t cipher, uint8_t digest,
                                                      uint8_t /*padding*/)
{
    if (card_type == 0xA3)
        return cipher == 0 && digest == 0 ? ZEL_OK : ZEL_APDU_UNSUPPORTED_ALGORITHMS;
    if (is_known_card(card_type))
        return digest == 0 && cipher <= 1 ? ZEL_OK : ZEL_APDU_UNSUPPORTED_ALGORITHMS;
    return ZEL_APDU_UNSUPPORTED_ALGORITHMS;
}

extern "C" ZEL_API ZEL_STATUS JCCheckRsaKeySize(uint8_t card_type, uint16_t key_bits)
{
    if (card_type == 0xA0 || card_type == 0xAA)
        return has(kRsaBits, key_bits) ? ZEL_OK : ZEL_APDU_UNSUPPORTED_KEY_SIZE;
    if (card_type == 0xA1 || card_type == 0xA2 || card_type == 0xA3)
        return key_bits != 736 && has(kRsaBits, key_bits) ? ZEL_OK : ZEL_APDU_UNSUPPORTED_KEY_SIZE;
    return ZEL_APDU_UNSUPPORTED_KEY_SIZE;
}

extern "C" ZEL_API ZEL_STATUS JCCheckEcdsaKeySize(uint8_t card_type, uint8_t key_type, uint16_t key_bits)
{
    return ec_size_ok(card_type, key_type, key_bits, false) ? ZEL_OK : ZEL_APDU_UNSUPPORTED_KEY_SIZE;
}

extern "C" ZEL_API ZEL_STATUS JCCheckRsaOnCardKeyGen(uint8_t card_type, uint16_t key_bits)
{
    return JCCheckRsaKeySize(card_type, key_bits);
}

extern "C" ZEL_API ZEL_STATUS JCCheckEcdsaOnCardKeyGen(uint8_t card_type, uint8_t key_type, uint16_t key_bits)
{
    return ec_size_ok(card_type, key_type, key_bits, true) ? ZEL_OK : ZEL_APDU_UNSUPPORTED_KEY_SIZE;
}

int zel::jc::rsa_size_code(uint32_t bits)
{
    for (size_t i = 0; i < sizeof kRsaBits / sizeof kRsaBits[0]; ++i)
        if (kRsaBits[i] == bits)
            return static_cast<int>(i);
    return -1;
}

int zel::jc::ec_size_code(uint8_t key_type, uint32_t bits)
{
    const uint16_t *list = key_type == JC_KEY_EC_F2M ? kF2mBits : kFpBits;
    const size_t n = key_type == JC_KEY_EC_F2M ? sizeof kF2mBits / 2 : sizeof kFpBits / 2;
    for (size_t i = 0; i < n; ++i)
        if (list[i] == bits)
            return static_cast<int>(i);
    return -1;
}

uint32_t zel::jc::private_key_len(uint8_t key_type, uint32_t bits, bool flag)
{
    const uint32_t n = (bits + 7) / 8;
    switch (key_type) {
    case JC_KEY_RSA: return 2 * n;
    case JC_KEY_RSA_CRT: return 5 * n / 2;
    case JC_KEY_EC_FP: return flag ? 7 * n + 4 : 7 * n + 3;
    default: return flag ? 6 * n + 9 : 6 * n + 5;
    }
}

uint32_t zel::jc::ec_generate_params_len(uint8_t key_type, uint32_t bits, bool flag)
{
    const uint32_t n = (bits + 7) / 8;
    if (key_type == JC_KEY_EC_FP)
        return flag ? 6 * n + 4 : 6 * n + 3;
    return flag ? 5 * (n + 1) + 4 : 5 * (n + 1);
}

ZEL_STATUS zel::jc::send_chunked(ZEL_HANDLE hnd, uint8_t ins, uint8_t p1, uint8_t p2, const uint8_t *data, uint32_t n)
{
    uint32_t at = 0;
    while (at < n) {
        const uint32_t rest = n - at;
        const uint32_t piece = rest < kChunk ? rest : kChunk;
        const uint8_t p1_here = static_cast<uint8_t>(rest < 256 ? p1 | 0x80 : p1);
        const ZEL_STATUS status = exchange(hnd, kCla, ins, p1_here, p2, data + at, piece, nullptr, 0, nullptr);
        if (status != ZEL_OK)
            return status;
        at += piece;
    }
    return ZEL_OK;
}

// ---- selection ----

extern "C" ZEL_API ZEL_STATUS JCAppSelectByAidHnd(ZEL_HANDLE hnd, const uint8_t *aid, uint8_t aid_len,
                                                  uint8_t *response)
{
    if (!aid || !aid_len || !response)
        return ZEL_PARAMETERS_ERROR;
    uint8_t reply[JC_SELECT_RESPONSE_LEN];
    uint32_t n = 0;
    const ZEL_STATUS status = exchange(hnd, 0x00, 0xA4, 0x04, 0x00, aid, aid_len, reply, sizeof reply, &n);
    if (status != ZEL_OK)
        return status;
    if (n != JC_SELECT_RESPONSE_LEN)
        return ZEL_APDU_WRONG_SELECT_RESPONSE;
    std::memcpy(response, reply, JC_SELECT_RESPONSE_LEN);
    session().card_type = reply[0];
    return ZEL_OK;
}

// ---- keys ----

extern "C" ZEL_API ZEL_STATUS JCAppPutPrivateKeyHnd(ZEL_HANDLE hnd, uint8_t key_type, uint8_t key_index,
                                                    const uint8_t *key, uint16_t key_bits, const uint8_t *key_params,
                                                    int16_t params_len)
{
    if (key_index > 2)
        return ZEL_APDU_WRONG_KEY_PARAMS;
    if (key_type > 3)
        return ZEL_APDU_WRONG_KEY_TYPE;
    const bool ec = is_ec(key_type);
    if (ec && (params_len <= 0 || !key_params))
        return ZEL_APDU_WRONG_KEY_PARAMS;
    const uint8_t card = session().card_type;
    int code = 0;
    if (ec) {
        if (JCCheckEcdsaKeySize(card, key_type, key_bits) != ZEL_OK)
            return ZEL_APDU_UNSUPPORTED_KEY_SIZE;
        code = ec_size_code(key_type, key_bits);
        if (code < 0)
            return ZEL_APDU_WRONG_KEY_SIZE;
    } else {
        code = rsa_size_code(key_bits);
        if (code < 0)
            return ZEL_APDU_WRONG_KEY_SIZE;
        if (JCCheckRsaKeySize(card, key_bits) != ZEL_OK)
            return ZEL_APDU_UNSUPPORTED_KEY_SIZE;
    }
    if (!key)
        return ZEL_PARAMETERS_ERROR;
    const bool flag = ec && (key_params[0] & 1);
    uint8_t p2 = static_cast<uint8_t>(code);
    if (key_type == JC_KEY_RSA_CRT)
        p2 |= 16;
    if (ec) {
        if (flag)
            p2 |= 16;
        if (key_type == JC_KEY_EC_F2M)
            p2 |= 32;
    }
    return send_chunked(hnd, ec ? 0x61 : 0x51, key_index, p2, key, private_key_len(key_type, key_bits, flag));
}

extern "C" ZEL_API ZEL_STATUS JCAppGenerateKeyPairHnd(ZEL_HANDLE hnd, uint8_t key_type, uint8_t key_index,
                                                      uint32_t designator, uint16_t key_bits, const uint8_t *params,
                                                      uint16_t params_len)
{
    if (key_index > 2)
        return ZEL_APDU_WRONG_KEY_PARAMS;
    if (key_type > 3)
        return ZEL_APDU_WRONG_KEY_TYPE;
    const uint8_t card = session().card_type;
    if (!is_ec(key_type)) {
        const int code = rsa_size_code(key_bits);
        if (code < 0)
            return ZEL_APDU_WRONG_KEY_SIZE;
        if (JCCheckRsaKeySize(card, key_bits) != ZEL_OK)
            return ZEL_APDU_UNSUPPORTED_KEY_SIZE;
        const uint8_t p2 = static_cast<uint8_t>(code + (key_type == JC_KEY_RSA_CRT ? 16 : 0));
        return exchange(hnd, kCla, 0x52, static_cast<uint8_t>(key_index | 0x80), p2, nullptr, 0, nullptr, 0, nullptr);
    }
    if (params_len == 0 || !params)
        return ZEL_APDU_WRONG_KEY_PARAMS;
    if (JCCheckEcdsaKeySize(card, key_type, key_bits) != ZEL_OK)
        return ZEL_APDU_UNSUPPORTED_KEY_SIZE;
    const int code = ec_size_code(key_type, key_bits);
    if (code < 0)
        return ZEL_APDU_WRONG_KEY_SIZE;
    const bool flag = params[0] & 1;
    if (static_cast<uint32_t>(params_len) - 1 != ec_generate_params_len(key_type, key_bits, flag))
        return ZEL_APDU_WRONG_KEY_PARAMS;
    uint32_t p2 = designator * 64 | static_cast<uint32_t>(code);
    if (flag)
        p2 |= 16;
    if (key_type == JC_KEY_EC_F2M)
        p2 |= 32;
    return send_chunked(hnd, 0x62, key_index, static_cast<uint8_t>(p2), params + 1, params_len - 1u);
}

extern "C" ZEL_API ZEL_STATUS JCAppDeleteRsaKeyPairHnd(ZEL_HANDLE hnd, uint8_t key_index)
{
    if (key_index > 2)
        return ZEL_APDU_WRONG_KEY_PARAMS;
    return exchange(hnd, kCla, 0x5F, key_index, 0, nullptr, 0, nullptr, 0, nullptr);
}

extern "C" ZEL_API ZEL_STATUS JCAppDeleteEcKeyPairHnd(ZEL_HANDLE hnd, uint8_t key_index)
{
    if (key_index > 2)
        return ZEL_APDU_WRONG_KEY_PARAMS;
    return exchange(hnd, kCla, 0x6F, key_index, 0, nullptr, 0, nullptr, 0, nullptr);
}

extern "C" ZEL_API ZEL_STATUS JCAppGetRsaPublicKeyHnd(ZEL_HANDLE hnd, uint8_t key_index, uint8_t *modulus,
                                                      uint16_t *modulus_len, uint8_t *exponent, uint16_t *exponent_len)
{
    if (key_index > 2)
        return ZEL_APDU_WRONG_KEY_PARAMS;
    if (!modulus_len || !exponent_len)
        return ZEL_PARAMETERS_ERROR;
    Session &s = session();
    // The second step: the caller's buffers for the parts the first step kept.
    if (modulus && s.part_len[0] && *modulus_len == s.part_len[0]) {
        if (!exponent || *exponent_len != s.part_len[1])
            return ZEL_APDU_WRONG_KEY_PARAMS;
        std::memcpy(modulus, s.part[0], s.part_len[0]);
        std::memcpy(exponent, s.part[1], s.part_len[1]);
        return ZEL_OK;
    }
    for (uint32_t i = 0; i < 2; ++i) {
        uint32_t n = 0;
        s.part_len[i] = 0;
        const ZEL_STATUS status =
            exchange(hnd, kCla, static_cast<uint8_t>(0x53 + i), key_index, 0, nullptr, 0, s.part[i], kReplyMax, &n);
        if (status != ZEL_OK)
            return status;
        s.part_len[i] = static_cast<uint16_t>(n);
    }
    *modulus_len = s.part_len[0];
    *exponent_len = s.part_len[1];
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS JCAppGetEcPublicKeyHnd(ZEL_HANDLE hnd, uint8_t key_index, uint8_t *part1, uint16_t *len1,
                                                     uint8_t *part2, uint16_t *len2, uint8_t *part3, uint16_t *len3,
                                                     uint8_t *part4, uint16_t *len4, uint8_t *part5, uint16_t *len5,
                                                     uint16_t *k, uint16_t *key_bits, uint16_t *designator)
{
    if (key_index > 2)
        return ZEL_APDU_WRONG_KEY_PARAMS;
    uint8_t *parts[kParts] = {part1, part2, part3, part4, part5};
    uint16_t *lens[kParts] = {len1, len2, len3, len4, len5};
    for (uint16_t *l : lens)
        if (!l)
            return ZEL_PARAMETERS_ERROR;
    if (!k || !key_bits || !designator)
        return ZEL_PARAMETERS_ERROR;
    Session &s = session();
    if (part1 && s.part_len[0] && *len1 == s.part_len[0]) {
        for (uint32_t i = 1; i < kParts; ++i)
            if (!parts[i] || *lens[i] != s.part_len[i])
                return ZEL_APDU_WRONG_KEY_PARAMS;
        for (uint32_t i = 0; i < kParts; ++i)
            std::memcpy(parts[i], s.part[i], s.part_len[i]);
        *k = s.k;
        *key_bits = s.key_bits;
        *designator = s.designator;
        return ZEL_OK;
    }
    for (uint32_t i = 0; i < kParts; ++i) {
        uint32_t n = 0;
        s.part_len[i] = 0;
        const ZEL_STATUS status =
            exchange(hnd, kCla, static_cast<uint8_t>(0x63 + i), key_index, 0, nullptr, 0, s.part[i], kReplyMax, &n);
        if (status != ZEL_OK)
            return status;
        if (i == kParts - 1) {
            EcTail tail;
            if (!parse_ec_tail(s.part[i], n, tail))
                return ZEL_APDU_TRANSCEIVE_ERROR;
            n = tail.part_len;
            s.k = tail.k;
            s.key_bits = tail.key_bits;
            s.designator = tail.designator;
        }
        s.part_len[i] = static_cast<uint16_t>(n);
    }
    for (uint32_t i = 0; i < kParts; ++i)
        *lens[i] = s.part_len[i];
    *k = s.k;
    *key_bits = s.key_bits;
    *designator = s.designator;
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS JCAppGetEcKeySizeBitsHnd(ZEL_HANDLE hnd, uint8_t key_index, uint16_t *key_bits,
                                                       uint16_t *designator)
{
    if (key_index > 2)
        return ZEL_APDU_WRONG_KEY_PARAMS;
    if (!key_bits || !designator)
        return ZEL_PARAMETERS_ERROR;
    uint8_t reply[kReplyMax];
    uint32_t n = 0;
    const ZEL_STATUS status = exchange(hnd, kCla, 0x67, key_index, 0, nullptr, 0, reply, sizeof reply, &n);
    if (status != ZEL_OK)
        return status;
    return parse_ec_size(reply, n, key_bits, designator) ? ZEL_OK : ZEL_APDU_TRANSCEIVE_ERROR;
}

// ---- signatures ----

extern "C" ZEL_API ZEL_STATUS JCAppSignatureBeginHnd(ZEL_HANDLE hnd, uint8_t cipher, uint8_t digest, uint8_t padding,
                                                     uint8_t key_index, const uint8_t *chunk, uint16_t chunk_len,
                                                     const uint8_t * /*alg_param*/)
{
    const ZEL_STATUS checked = check_signing(cipher, digest, padding, key_index, chunk_len);
    if (checked != ZEL_OK)
        return checked;
    if (!chunk && chunk_len)
        return ZEL_PARAMETERS_ERROR;
    session().sig_len = 0;
    const uint8_t p1 = static_cast<uint8_t>(key_index | cipher << 4);
    return exchange(hnd, kCla, kInsSign, p1, 0, chunk, chunk_len, nullptr, 0, nullptr);
}

extern "C" ZEL_API ZEL_STATUS JCAppSignatureUpdateHnd(ZEL_HANDLE hnd, const uint8_t *chunk, uint16_t chunk_len)
{
    session().sig_len = 0;
    if (chunk_len > kChunk)
        return ZEL_APDU_PLAIN_TEXT_MAX_SIZE_EXCEEDED;
    if (!chunk && chunk_len)
        return ZEL_PARAMETERS_ERROR;
    return exchange(hnd, kCla, kInsSign, 0, 0, chunk, chunk_len, nullptr, 0, nullptr);
}

extern "C" ZEL_API ZEL_STATUS JCAppSignatureEndHnd(ZEL_HANDLE hnd, uint16_t *sig_len)
{
    if (!sig_len)
        return ZEL_PARAMETERS_ERROR;
    *sig_len = 0;
    Session &s = session();
    s.sig_len = 0;
    uint32_t n = 0;
    const ZEL_STATUS status = exchange(hnd, kCla, kInsSign, 0x80, 0, nullptr, 0, s.sig, kReplyMax, &n);
    if (status != ZEL_OK)
        return status;
    s.sig_len = static_cast<uint16_t>(n);
    *sig_len = s.sig_len;
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS JCAppGenerateSignatureHnd(ZEL_HANDLE hnd, uint8_t cipher, uint8_t digest, uint8_t padding,
                                                        uint8_t key_index, const uint8_t *plain, uint16_t plain_len,
                                                        uint16_t *sig_len)
{
    const ZEL_STATUS checked = check_signing(cipher, digest, padding, key_index, plain_len);
    if (checked != ZEL_OK)
        return checked;
    if (!sig_len || (!plain && plain_len))
        return ZEL_PARAMETERS_ERROR;
    *sig_len = 0;
    Session &s = session();
    s.sig_len = 0;
    const uint8_t p1 = static_cast<uint8_t>(key_index | cipher << 4 | 0x80);
    const uint8_t p2 = cipher == 0 ? 0x10 : 0x00;
    uint32_t n = 0;
    ZEL_STATUS status = exchange(hnd, kCla, kInsSign, p1, p2, plain, plain_len, s.sig, kReplyMax, &n);
    if (status == ZEL_BUFFER_SIZE_EXCEEDED)
        status = ZEL_BUFFER_OVERFLOW;
    if (status != ZEL_OK)
        return status;
    s.sig_len = static_cast<uint16_t>(n);
    *sig_len = s.sig_len;
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS JCAppGetSignatureHnd(ZEL_HANDLE, uint8_t *sig, uint16_t sig_len)
{
    const Session &s = session();
    if (!s.sig_len)
        return ZEL_APDU_JC_APP_BUFF_EMPTY;
    if (s.sig_len > sig_len)
        return ZEL_BUFFER_OVERFLOW;
    if (!sig)
        return ZEL_PARAMETERS_ERROR;
    std::memcpy(sig, s.sig, s.sig_len);
    return ZEL_OK;
}

// ---- objects ----

extern "C" ZEL_API ZEL_STATUS JCAppPutObjHnd(ZEL_HANDLE hnd, uint8_t obj_type, uint8_t obj_index, const uint8_t *obj,
                                             int16_t obj_len, const uint8_t *id, uint8_t id_len)
{
    const ZEL_STATUS checked = check_object(obj_type, obj_index);
    if (checked != ZEL_OK)
        return checked;
    if (id_len > 253)
        return ZEL_APDU_WRONG_KEY_PARAMS;
    if (obj_len < 0 || (!obj && obj_len) || (!id && id_len))
        return ZEL_PARAMETERS_ERROR;
    uint8_t head[2 + 253];
    head[0] = static_cast<uint8_t>(static_cast<uint16_t>(obj_len) >> 8);
    head[1] = static_cast<uint8_t>(obj_len);
    if (id_len)
        std::memcpy(head + 2, id, id_len);
    ZEL_STATUS status = exchange(hnd, kCla, 0x31, static_cast<uint8_t>(obj_type | 0x80), obj_index, head, 2u + id_len,
                                 nullptr, 0, nullptr);
    for (uint32_t at = 0; status == ZEL_OK && at < static_cast<uint32_t>(obj_len); at += kChunk) {
        const uint32_t rest = static_cast<uint32_t>(obj_len) - at;
        status = exchange(hnd, kCla, 0x31, obj_type, obj_index, obj + at, rest < kChunk ? rest : kChunk, nullptr, 0,
                          nullptr);
    }
    return status;
}

extern "C" ZEL_API ZEL_STATUS JCAppPutObjSubjectHnd(ZEL_HANDLE hnd, uint8_t obj_type, uint8_t obj_index,
                                                    const uint8_t *subject, uint8_t subject_len)
{
    const ZEL_STATUS checked = check_object(obj_type, obj_index);
    if (checked != ZEL_OK)
        return checked;
    if (!subject && subject_len)
        return ZEL_PARAMETERS_ERROR;
    return exchange(hnd, kCla, 0x32, obj_type, obj_index, subject, subject_len, nullptr, 0, nullptr);
}

extern "C" ZEL_API ZEL_STATUS JCAppInvalidateCertHnd(ZEL_HANDLE hnd, uint8_t obj_type, uint8_t obj_index)
{
    const ZEL_STATUS checked = check_object(obj_type, obj_index);
    if (checked != ZEL_OK)
        return checked;
    return exchange(hnd, kCla, 0x33, obj_type, obj_index, nullptr, 0, nullptr, 0, nullptr);
}

extern "C" ZEL_API ZEL_STATUS JCAppGetObjIdHnd(ZEL_HANDLE hnd, uint8_t obj_type, uint8_t obj_index, uint8_t *id,
                                               uint16_t *len)
{
    const ZEL_STATUS checked = check_object(obj_type, obj_index);
    if (checked != ZEL_OK)
        return checked;
    if (!len)
        return ZEL_PARAMETERS_ERROR;
    Session &s = session();
    if (id) {
        if (*len != s.obj_id_len)
            return ZEL_APDU_PKI_OBJECT_NOT_FOUND;
        std::memcpy(id, s.obj_id, s.obj_id_len);
        *len = s.obj_len;
        return ZEL_OK;
    }
    uint8_t reply[kReplyMax];
    uint32_t n = 0;
    const ZEL_STATUS status = exchange(hnd, kCla, 0x42, obj_type, obj_index, nullptr, 0, reply, sizeof reply, &n);
    if (status != ZEL_OK)
        return status;
    ObjIdReply r;
    if (!parse_obj_id(reply, n, r))
        return ZEL_APDU_PKI_OBJECT_NOT_FOUND;
    s.obj_len = r.obj_len;
    s.obj_id_len = static_cast<uint16_t>(r.id_len);
    if (r.id_len)
        std::memcpy(s.obj_id, r.id, r.id_len);
    *len = s.obj_id_len;
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS JCAppGetObjSubjectHnd(ZEL_HANDLE hnd, uint8_t obj_type, uint8_t obj_index, uint8_t *id,
                                                    uint16_t *len)
{
    return JCAppGetObjIdHnd(hnd, obj_type, obj_index, id, len);
}

extern "C" ZEL_API ZEL_STATUS JCAppGetObjHnd(ZEL_HANDLE hnd, uint8_t obj_type, uint8_t obj_index, uint8_t *obj,
                                             int16_t obj_len)
{
    if (!obj)
        return ZEL_APDU_JC_APP_BUFF_EMPTY;
    const ZEL_STATUS checked = check_object(obj_type, obj_index);
    if (checked != ZEL_OK)
        return checked;
    if (obj_len < 1)
        return ZEL_OK;
    const uint32_t want = static_cast<uint32_t>(obj_len);
    uint32_t got = 0, empty = 0;
    bool first = true;
    uint8_t reply[kReplyMax];
    while (got < want) {
        uint32_t n = 0;
        const uint8_t p1 = static_cast<uint8_t>(first ? obj_type | 0x80 : obj_type);
        ZEL_STATUS status = exchange(hnd, kCla, 0x41, p1, obj_index, nullptr, 0, reply, sizeof reply, &n);
        if (status == ZEL_BUFFER_SIZE_EXCEEDED)
            status = ZEL_BUFFER_OVERFLOW;
        if (status != ZEL_OK)
            return status;
        first = false;
        if (n > want - got)
            return ZEL_BUFFER_OVERFLOW;
        // A card that answers 90 00 with nothing more would keep the loop going for ever.
        if (n == 0) {
            if (++empty >= kMaxEmptyAnswers)
                return ZEL_APDU_TRANSCEIVE_ERROR;
            continue;
        }
        empty = 0;
        std::memcpy(obj + got, reply, n);
        got += n;
    }
    return ZEL_OK;
}

// ---- PINs ----

extern "C" ZEL_API ZEL_STATUS JCAppLoginHnd(ZEL_HANDLE hnd, uint8_t is_admin, const uint8_t *pin, uint8_t pin_len)
{
    return send_secret(hnd, 0x20, is_admin ? 1 : 0, pin, pin_len);
}

extern "C" ZEL_API ZEL_STATUS JCAppGetPinTriesRemainingHnd(ZEL_HANDLE hnd, uint32_t ref, uint16_t *tries)
{
    if (!tries)
        return ZEL_PARAMETERS_ERROR;
    uint8_t reply[kReplyMax];
    uint32_t n = 0;
    const ZEL_STATUS status =
        exchange(hnd, kCla, 0x21, static_cast<uint8_t>(ref), 0, nullptr, 0, reply, sizeof reply, &n);
    if (status != ZEL_OK)
        return status;
    return parse_tries(reply, n, tries) ? ZEL_OK : ZEL_APDU_TRANSCEIVE_ERROR;
}

extern "C" ZEL_API ZEL_STATUS JCAppPinChangeHnd(ZEL_HANDLE hnd, uint32_t ref, const uint8_t *new_pin, uint8_t pin_len)
{
    return send_secret(hnd, 0x22, static_cast<uint8_t>(ref), new_pin, pin_len);
}

extern "C" ZEL_API ZEL_STATUS JCAppPinUnblockHnd(ZEL_HANDLE hnd, uint8_t is_admin, const uint8_t *code,
                                                 uint8_t code_len)
{
    return send_secret(hnd, 0x23, is_admin ? 3 : 2, code, code_len);
}

extern "C" ZEL_API ZEL_STATUS JCAppPinEnableHnd(ZEL_HANDLE hnd, uint8_t is_admin)
{
    return exchange(hnd, kCla, 0x24, is_admin ? 1 : 0, 0, nullptr, 0, nullptr, 0, nullptr);
}

extern "C" ZEL_API ZEL_STATUS JCAppPinDisableHnd(ZEL_HANDLE hnd, uint8_t is_admin)
{
    return exchange(hnd, kCla, 0x25, is_admin ? 1 : 0, 0, nullptr, 0, nullptr, 0, nullptr);
}

// ---- texts ----

extern "C" ZEL_API const char *JCAppGetErrorDescription(ZEL_STATUS status)
{
    struct Text {
        ZEL_STATUS status;
        const char *text;
    };
    static const Text kTexts[] = {
        {ZEL_APDU_TRANSCEIVE_ERROR, "APDU transceive error"},
        {ZEL_APDU_JC_APP_NOT_SELECTED, "the applet was not previously selected"},
        {ZEL_APDU_JC_APP_BUFF_EMPTY, "APDU buffer empty"},
        {ZEL_APDU_WRONG_SELECT_RESPONSE, "wrong applet selection response"},
        {ZEL_APDU_WRONG_KEY_TYPE, "wrong asymmetric key type"},
        {ZEL_APDU_WRONG_KEY_SIZE, "wrong asymmetric key size"},
        {ZEL_APDU_WRONG_KEY_PARAMS, "wrong asymmetric key parameters"},
        {ZEL_APDU_WRONG_SIGNING_ALGORITHM, "wrong asymmetric cryptography signing algorithm"},
        {ZEL_APDU_PLAIN_TEXT_MAX_SIZE_EXCEEDED, "the size of plain text is exceeded"},
        {ZEL_APDU_UNSUPPORTED_KEY_SIZE, "unsupported asymmetric key size"},
        {ZEL_APDU_UNSUPPORTED_ALGORITHMS, "unsupported asymmetric algorithm"},
        {ZEL_APDU_PKI_OBJECT_NOT_FOUND, "PKI object not found"},
        {0xA6700, "wrong length"},
        {0xA6982, "security condition not satisfied"},
        {0xA6983, "authentication method blocked"},
        {0xA6984, "data invalid (probably message limit exceeded for RSA using PKCS#1 padding)"},
        {0xA6985, "conditions of use not satisfied"},
        {0xA6A80, "wrong data"},
        {0xA6A82, "file not found"},
        {0xA6A83, "record not found"},
        {0xA6A89, "entity (file) already exists"},
        {0xA6D00, "instruction not supported"},
        {0xA6F00, "no precise diagnostic in Java card (probably index out of range)"},
    };
    for (const Text &t : kTexts)
        if (t.status == status)
            return t.text;
    return "";
}
