// Type 2 tag extras and their relatives: signatures (0xBF), counters (0xB1, 0xB2), the tag-tamper status
// (0xB4), authentication (0xB7), the random id functions (0xB6) and the Ultralight C key writes.
#include <cstring>

#include "card/t2t_parse.h"
#include "core/bytes.h"
#include "core/frame.h"
#include "core/wipe.h"
#include "core/internal.h"
#include "tandro.h"

using namespace zel;

namespace {

constexpr uint8_t kCmdReadCounter = 0xB1, kCmdIncrementCounter = 0xB2, kCmdTTStatus = 0xB4, kCmdRidUid = 0xB6,
                  kCmdAuth = 0xB7, kCmdSignature = 0xBF;

// The Ultralight C's key as it leaves the factory, k0 first.
constexpr uint8_t kUlcFactoryKey[16] = {0x49, 0x45, 0x4D, 0x4B, 0x41, 0x45, 0x52, 0x42,
                                        0x21, 0x4E, 0x41, 0x43, 0x55, 0x4F, 0x59, 0x46};

// A command with an EXT whose reply carries at most a header: its status.
ZEL_STATUS send_ext(ZEL_HANDLE hnd, uint8_t cmd, uint8_t p0, uint8_t p1, const uint8_t *data, uint8_t len,
                    uint8_t *reply = nullptr, uint8_t *reply_ext_len = nullptr)
{
    Reply r;
    const ZEL_STATUS status = command_write_reply(hnd, cmd, p0, p1, data, len, r);
    if (reply_ext_len)
        *reply_ext_len = r.ext_len;
    if (status == ZEL_OK && reply && r.ext_len)
        std::memcpy(reply, r.buf, r.ext_len);
    return status;
}

// The signature replies of the authenticated forms: up to 56 bytes, the length in PAR0.
ZEL_STATUS signature_reply(ZEL_HANDLE hnd, uint8_t p0, uint8_t p1, const uint8_t *data, uint8_t len, uint8_t *signature,
                           uint8_t *signature_len)
{
    if (!signature || !signature_len)
        return ZEL_PARAMETERS_ERROR;
    Reply r;
    const ZEL_STATUS status = command_write_reply(hnd, kCmdSignature, p0, p1, data, len, r);
    if (status != ZEL_OK)
        return status;
    if (r.ext_len == 0)
        return ZEL_BUFFER_OVERFLOW;
    const uint8_t n = static_cast<uint8_t>(r.ext_len - 1);
    if (n > ZEL_ECC_SIGNATURE_MAX_LEN || r.par[0] > n)
        return ZEL_COMMUNICATION_ERROR;
    std::memcpy(signature, r.buf, n);
    *signature_len = r.par[0];
    return ZEL_OK;
}

// ReadCounter in its three modes: 0 without password, 1 with a reader key, 0x61 with six given bytes.
ZEL_STATUS read_counter(ZEL_HANDLE hnd, uint8_t address, uint8_t mode, uint8_t key_index, const uint8_t *six,
                        uint32_t *value)
{
    if (!value)
        return ZEL_PARAMETERS_ERROR;
    Reply r;
    ZEL_STATUS status;
    if (mode == 0) {
        status = command_reply(hnd, kCmdReadCounter, 0, address, r);
    } else {
        uint8_t d[6] = {};
        const WipeOnExit wipe_d(d, sizeof d);
        uint8_t len = 2;
        if (mode == 1) {
            d[0] = key_index;
        } else {
            if (!six)
                return ZEL_PARAMETERS_ERROR;
            std::memcpy(d, six, 6);
            len = 6;
        }
        status = command_write_reply(hnd, kCmdReadCounter, mode, address, d, len, r);
    }
    if (status != ZEL_OK)
        return status;
    if (r.ext_len != 5)
        return ZEL_BUFFER_OVERFLOW;
    *value = get_le32(r.buf);
    return ZEL_OK;
}

ZEL_STATUS auth(ZEL_HANDLE hnd, uint8_t p0, uint8_t p1, const uint8_t *data, uint8_t len)
{
    return send_ext(hnd, kCmdAuth, p0, p1, data, len);
}

ZEL_STATUS mifare_auth(ZEL_HANDLE hnd, uint8_t p0, uint8_t p1, uint8_t block, const uint8_t *key)
{
    uint8_t d[7] = {block};
    const WipeOnExit wipe_d(d, sizeof d);
    if (key)
        std::memcpy(d + 1, key, 6);
    return auth(hnd, p0, p1, d, sizeof d);
}

} // namespace

bool zel::parse_signature_ext(const uint8_t *data, size_t n, uint8_t uid_len, uint8_t *signature,
                              uint8_t *signature_len, uint8_t *uid)
{
    if (n < ZEL_UID_MAX_LEN || uid_len > ZEL_UID_MAX_LEN)
        return false;
    const size_t sig = n - ZEL_UID_MAX_LEN;
    if (sig > ZEL_ECC_SIGNATURE_MAX_LEN)
        return false;
    std::memcpy(signature, data, sig);
    *signature_len = static_cast<uint8_t>(sig);
    std::memset(uid, 0, ZEL_UID_MAX_LEN);
    std::memcpy(uid, data + sig, uid_len);
    return true;
}

extern "C" {

ZEL_API ZEL_STATUS ReadECCSignatureHnd(ZEL_HANDLE hnd, uint8_t *signature, uint8_t *uid, uint8_t *uid_len,
                                       uint8_t *card_type)
{
    if (!signature || !uid || !uid_len || !card_type)
        return ZEL_PARAMETERS_ERROR;
    Reply r;
    const ZEL_STATUS status = command_reply(hnd, kCmdSignature, 0, 0, r);
    if (status != ZEL_OK)
        return status;
    *card_type = r.par[0];
    *uid_len = r.par[1];
    if (r.ext_len != ZEL_ECC_SIGNATURE_LEN + ZEL_UID_MAX_LEN + 1)
        return ZEL_BUFFER_OVERFLOW;
    if (r.par[1] > ZEL_UID_MAX_LEN)
        return ZEL_COMMUNICATION_ERROR;
    std::memcpy(signature, r.buf, ZEL_ECC_SIGNATURE_LEN);
    std::memset(uid, 0, ZEL_UID_MAX_LEN);
    std::memcpy(uid, r.buf + ZEL_ECC_SIGNATURE_LEN, r.par[1]);
    return ZEL_OK;
}

ZEL_API ZEL_STATUS ReadECCSignatureExtHnd(ZEL_HANDLE hnd, uint8_t *signature, uint8_t *signature_len, uint8_t *uid,
                                          uint8_t *uid_len, uint8_t *card_type)
{
    if (!signature || !signature_len || !uid || !uid_len || !card_type)
        return ZEL_PARAMETERS_ERROR;
    Reply r;
    const ZEL_STATUS status = command_reply(hnd, kCmdSignature, 1, 0, r);
    if (status != ZEL_OK)
        return status;
    *card_type = r.par[0];
    *uid_len = r.par[1];
    if (r.ext_len == 0 || !parse_signature_ext(r.buf, r.ext_len - 1u, r.par[1], signature, signature_len, uid))
        return ZEL_COMMUNICATION_ERROR;
    return ZEL_OK;
}

ZEL_API ZEL_STATUS ReadECCSignatureNtagDnaHnd(ZEL_HANDLE hnd, uint8_t key_source, uint8_t key_nr, const uint8_t *key,
                                              uint8_t key_no, uint8_t *signature, uint8_t *signature_len)
{
    uint8_t d[18] = {key_source, key_nr};
    const WipeOnExit wipe_d(d, sizeof d);
    if (key_source == 0) {
        if (!key)
            return ZEL_PARAMETERS_ERROR;
        std::memcpy(d + 2, key, 16);
    }
    return signature_reply(hnd, 2, key_no, d, sizeof d, signature, signature_len);
}

ZEL_API ZEL_STATUS ReadECCSignatureDesfireHnd(ZEL_HANDLE hnd, uint8_t key_source, uint8_t key_nr, const uint8_t *key,
                                              uint32_t aid, uint8_t aid_key_nr, uint8_t option, uint8_t key_type,
                                              uint8_t *signature, uint8_t *signature_len)
{
    const bool k3 = key_type == 0x10;
    uint8_t d[31] = {key_source, key_nr};
    const WipeOnExit wipe_d(d, sizeof d);
    if (key_source == 0) {
        if (!key)
            return ZEL_PARAMETERS_ERROR;
        std::memcpy(d + 2, key, 16);
        if (k3)
            std::memcpy(d + 23, key + 16, 8);
    }
    put_le24(d + 18, aid);
    d[21] = aid_key_nr;
    d[22] = option;
    return signature_reply(hnd, static_cast<uint8_t>(key_type | 3), 0, d, k3 ? 31 : 23, signature, signature_len);
}

ZEL_API ZEL_STATUS nt4h_rid_read_ecc_signatureHnd(ZEL_HANDLE hnd, uint8_t auth_key_nr, uint8_t key_no,
                                                  uint8_t *signature, uint8_t *signature_len)
{
    return ReadECCSignatureNtagDnaHnd(hnd, 1, auth_key_nr, nullptr, key_no, signature, signature_len);
}

ZEL_API ZEL_STATUS nt4h_rid_read_ecc_signature_pkHnd(ZEL_HANDLE hnd, const uint8_t *auth_key, uint8_t key_no,
                                                     uint8_t *signature, uint8_t *signature_len)
{
    if (!auth_key)
        return ZEL_PARAMETERS_ERROR;
    return ReadECCSignatureNtagDnaHnd(hnd, 0, 0, auth_key, key_no, signature, signature_len);
}

ZEL_API ZEL_STATUS ReadCounterHnd(ZEL_HANDLE hnd, uint8_t counter_address, uint32_t *value)
{
    return read_counter(hnd, counter_address, 0, 0, nullptr, value);
}

ZEL_API ZEL_STATUS ReadNFCCounterHnd(ZEL_HANDLE hnd, uint32_t *value)
{
    return read_counter(hnd, 2, 0, 0, nullptr, value);
}

ZEL_API ZEL_STATUS ReadNFCCounterPwdAuth_RKHnd(ZEL_HANDLE hnd, uint32_t *value, uint8_t reader_key_index)
{
    return read_counter(hnd, 2, 1, reader_key_index, nullptr, value);
}

ZEL_API ZEL_STATUS ReadNFCCounterPwdAuth_PKHnd(ZEL_HANDLE hnd, uint32_t *value, const uint8_t *pwd_pack)
{
    return read_counter(hnd, 2, 0x61, 0, pwd_pack, value);
}

ZEL_API ZEL_STATUS IncrementCounterHnd(ZEL_HANDLE hnd, uint8_t counter_address, uint32_t increment)
{
    uint8_t d[4];
    put_le32(d, increment);
    return send_ext(hnd, kCmdIncrementCounter, 0, counter_address, d, sizeof d);
}

ZEL_API ZEL_STATUS ReadTTStatusHnd(ZEL_HANDLE hnd, uint8_t *tt_message, uint8_t *tt_status)
{
    if (!tt_message || !tt_status)
        return ZEL_PARAMETERS_ERROR;
    Reply r;
    const ZEL_STATUS status = command_reply(hnd, kCmdTTStatus, 0, 0, r);
    if (status != ZEL_OK)
        return status;
    if (r.ext_len != 6)
        return ZEL_BUFFER_OVERFLOW;
    std::memcpy(tt_message, r.buf, 4);
    *tt_status = r.buf[4];
    return ZEL_OK;
}

static ZEL_STATUS pwd_auth(ZEL_HANDLE hnd, uint8_t p0, uint8_t p1, const uint8_t *pwd, uint8_t *pack)
{
    if (!pack)
        return ZEL_PARAMETERS_ERROR;
    uint8_t d[4] = {};
    const WipeOnExit wipe_d(d, sizeof d);
    if (pwd)
        std::memcpy(d, pwd, 4);
    uint8_t reply[256] = {}, ext_len = 0;
    const ZEL_STATUS status = send_ext(hnd, kCmdAuth, p0, p1, d, sizeof d, reply, &ext_len);
    if (status != ZEL_OK)
        return status;
    if (ext_len != 3)
        return ZEL_BUFFER_OVERFLOW;
    std::memcpy(pack, reply, 2);
    return ZEL_OK;
}

ZEL_API ZEL_STATUS T2T_PwdAuthHnd(ZEL_HANDLE hnd, uint8_t reader_key_index, uint8_t *pack)
{
    return pwd_auth(hnd, 1, reader_key_index, nullptr, pack);
}

ZEL_API ZEL_STATUS T2T_PwdAuth_PKHnd(ZEL_HANDLE hnd, const uint8_t *pwd, uint8_t *pack)
{
    if (!pwd)
        return ZEL_PARAMETERS_ERROR;
    return pwd_auth(hnd, 0x61, 0, pwd, pack);
}

ZEL_API ZEL_STATUS UlcAuthHnd(ZEL_HANDLE hnd, uint8_t key_index)
{
    const uint8_t zero[16] = {};
    return auth(hnd, 1, key_index, zero, sizeof zero);
}

ZEL_API ZEL_STATUS UlcAuth_PKHnd(ZEL_HANDLE hnd, const uint8_t *key)
{
    if (!key)
        return ZEL_PARAMETERS_ERROR;
    return auth(hnd, 0x80, 0, key, 16);
}

ZEL_API ZEL_STATUS ULC_ExternalAuth_PKHnd(ZEL_HANDLE hnd, const uint8_t *key)
{
    return UlcAuth_PKHnd(hnd, key);
}

ZEL_API ZEL_STATUS MifareAuthKeyAHnd(ZEL_HANDLE hnd, uint8_t block, uint8_t key_index)
{
    return mifare_auth(hnd, 0, key_index, block, nullptr);
}

ZEL_API ZEL_STATUS MifareAuthKeyBHnd(ZEL_HANDLE hnd, uint8_t block, uint8_t key_index)
{
    return mifare_auth(hnd, 1, key_index, block, nullptr);
}

ZEL_API ZEL_STATUS MifareAuthKeyA_PKHnd(ZEL_HANDLE hnd, uint8_t block, const uint8_t *key)
{
    if (!key)
        return ZEL_PARAMETERS_ERROR;
    return mifare_auth(hnd, 0x60, 0, block, key);
}

ZEL_API ZEL_STATUS MifareAuthKeyB_PKHnd(ZEL_HANDLE hnd, uint8_t block, const uint8_t *key)
{
    if (!key)
        return ZEL_PARAMETERS_ERROR;
    return mifare_auth(hnd, 0x61, 0, block, key);
}

ZEL_API ZEL_STATUS RidUidHnd(ZEL_HANDLE hnd, const uint8_t *key, uint8_t key_index, uint8_t mode, uint8_t selector,
                             uint8_t *reply)
{
    uint8_t d[18] = {selector, key_index};
    const WipeOnExit wipe_d(d, sizeof d);
    if (key)
        std::memcpy(d + 2, key, 16);
    uint8_t buf[256] = {}, ext_len = 0;
    const ZEL_STATUS status = send_ext(hnd, kCmdRidUid, mode, 0, d, sizeof d, buf, &ext_len);
    if (status != ZEL_OK || ext_len == 0)
        return status;
    if (ext_len - 1u > 16)
        return ZEL_BUFFER_OVERFLOW;
    if (!reply)
        return ZEL_PARAMETERS_ERROR;
    std::memcpy(reply, buf, ext_len - 1u);
    return ZEL_OK;
}

ZEL_API ZEL_STATUS SetRIDHnd(ZEL_HANDLE hnd, uint8_t key_index, uint8_t *reply)
{
    return RidUidHnd(hnd, nullptr, key_index, 1, 1, reply);
}

ZEL_API ZEL_STATUS SetRID_KeyHnd(ZEL_HANDLE hnd, const uint8_t *key, uint8_t *reply)
{
    if (!key)
        return ZEL_PARAMETERS_ERROR;
    return RidUidHnd(hnd, key, 0, 2, 0, reply);
}

ZEL_API ZEL_STATUS GetUIDHnd(ZEL_HANDLE hnd, uint8_t key_index, const uint8_t *key, uint8_t *uid)
{
    return RidUidHnd(hnd, key, key_index, 3, key ? 0 : 1, uid);
}

ZEL_API ZEL_STATUS ULC_write_3des_key_internalHND(ZEL_HANDLE hnd, const uint8_t *new_key, const uint8_t *old_key,
                                                  uint8_t mode)
{
    if (!new_key || (mode == 1 && !old_key) || mode > 2)
        return ZEL_PARAMETERS_ERROR;
    // The card keeps the key's halves swapped, each group of four bytes reversed.
    uint8_t pages[16];
    static const uint8_t order[16] = {7, 6, 5, 4, 3, 2, 1, 0, 15, 14, 13, 12, 11, 10, 9, 8};
    for (int i = 0; i < 16; ++i)
        pages[i] = new_key[order[i]];
    if (mode == 0) {
        for (int p = 0; p < 4; ++p) {
            uint8_t block[16] = {};
            std::memcpy(block, pages + 4 * p, 4);
            const ZEL_STATUS status = BlockWriteHnd(hnd, block, static_cast<uint8_t>(44 + p), 0x60, 0);
            if (status != ZEL_OK)
                return status;
        }
        return ZEL_OK;
    }
    uint16_t written = 0;
    return LinearWrite_PKHnd(hnd, pages, 160, 16, &written, 0x80, mode == 1 ? old_key : kUlcFactoryKey);
}

ZEL_API ZEL_STATUS ULC_write_3des_keyHnd(ZEL_HANDLE hnd, const uint8_t *new_key, const uint8_t *old_key)
{
    return ULC_write_3des_key_internalHND(hnd, new_key, old_key, 1);
}

ZEL_API ZEL_STATUS ULC_write_3des_key_no_authHnd(ZEL_HANDLE hnd, const uint8_t *new_key)
{
    return ULC_write_3des_key_internalHND(hnd, new_key, nullptr, 0);
}

ZEL_API ZEL_STATUS ULC_write_3des_key_factory_keyHnd(ZEL_HANDLE hnd, const uint8_t *new_key)
{
    return ULC_write_3des_key_internalHND(hnd, new_key, nullptr, 2);
}

ZEL_API ZEL_STATUS OriginalityCheckHnd(ZEL_HANDLE, const uint8_t *, const uint8_t *, uint8_t, uint8_t)
{
    return ZEL_NOT_IMPLEMENTED;
}

} // extern "C"
