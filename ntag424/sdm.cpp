// Host checks of what NTAG 424 DNA and DESFire Light cards produce for a server: secure dynamic messages
// (PICC data, encrypted file data, the SDM MAC) and transaction MACs. All of it runs on the host kit of
// zel_desfire_crypto.h and its process-wide working state.
//
// The kit's CMAC counts the message in a byte: a padded length of 256 wraps to 0 and would give back the
// IV (all zeros) as the MAC, so every check refuses a message whose padded length is above 240 bytes before
// it computes anything.
#include "ntag424/ntag424_internal.h"

#include <openssl/crypto.h>

#include <cstring>

#include "core/bytes.h"
#include "core/wipe.h"
#include "zel_desfire_crypto.h"
#include "zel_status.h"

namespace zel::ntag424 {

namespace {

constexpr uint32_t kMaxMessage = 240; // the most the kit's CMAC and chaining serve
constexpr uint32_t kMaxRecordData = 484;

// CMAC (16 bytes) of message under key16, zero IV.
void cmac16(const uint8_t *key16, const uint8_t *message, uint32_t len, uint8_t *out)
{
    desfire_key k;
    const WipeOnExit wipe_k(&k, sizeof k);
    aes_key_new_with_version(&k, key16, 0);
    cmac_generate_subkeys_nl(&k);
    uint8_t iv[16] = {};
    cmac_nl(&k, iv, message, static_cast<uint8_t>(len), out);
}

// AES-CBC of whole blocks under key16, in place: enciphering in send direction, or deciphering in
// receive direction, from iv (updated).
void chained(const uint8_t *key16, uint8_t *iv, uint8_t *data, uint32_t len, bool decipher)
{
    desfire_key k;
    const WipeOnExit wipe_k(&k, sizeof k);
    aes_key_new_with_version(&k, key16, 0);
    aes_blocks_chained(&k, iv, data, static_cast<uint8_t>(len), decipher ? DESFIRE_RECEIVE : DESFIRE_SEND,
                       decipher ? DESFIRE_DECIPHER : DESFIRE_ENCIPHER);
}

// The eight bytes at odd positions of a CMAC against an 8-byte MAC, in constant time.
bool odd_bytes_equal(const uint8_t *cmac, const uint8_t *mac)
{
    uint8_t odd[8];
    for (int i = 0; i < 8; ++i)
        odd[i] = cmac[2 * i + 1];
    return CRYPTO_memcmp(odd, mac, 8) == 0;
}

uint32_t padded(uint32_t len)
{
    return len != 0 && len % 16 == 0 ? len : (len / 16 + 1) * 16;
}

// The session vector of SDM: six label bytes, the UID, the read counter least significant byte first.
void sdm_vector(const uint8_t label[6], const uint8_t *uid, uint32_t ctr, uint8_t *sv)
{
    std::memcpy(sv, label, 6);
    std::memcpy(sv + 6, uid, 7);
    put_le24(sv + 13, ctr);
}

// The session vector of transaction MACs: five label bytes, the counter, the UID.
void tmac_vector(const uint8_t label[5], uint32_t tmc, const uint8_t *uid, uint8_t *sv)
{
    std::memcpy(sv, label, 5);
    put_le32(sv + 5, tmc);
    std::memcpy(sv + 9, uid, 7);
}

const uint8_t kSdmEnc[6] = {0xC3, 0x3C, 0x00, 0x01, 0x00, 0x80};
const uint8_t kSdmMac[6] = {0x3C, 0xC3, 0x00, 0x01, 0x00, 0x80};
const uint8_t kTmacEnc[5] = {0xA5, 0x00, 0x01, 0x00, 0x80};
const uint8_t kTmacMac[5] = {0x5A, 0x00, 0x01, 0x00, 0x80};

void sdm_session_key(const uint8_t label[6], const uint8_t *file_key, const uint8_t *uid, uint32_t ctr, uint8_t *out)
{
    uint8_t sv[16];
    sdm_vector(label, uid, ctr, sv);
    cmac16(file_key, sv, 16, out);
}

void tmac_session_key(const uint8_t label[5], const uint8_t *tmac_key, uint32_t tmc, const uint8_t *uid, uint8_t *out)
{
    uint8_t sv[16];
    tmac_vector(label, tmc, uid, sv);
    cmac16(tmac_key, sv, 16, out);
}

// Steps shared by every transaction MAC check once the message is built: the MAC over len bytes with the
// MAC session key, then the previous reader id deciphered with the encryption session key.
ZEL_STATUS check_tmac(const uint8_t *msg, uint32_t len, uint32_t tmc, const uint8_t *uid, const uint8_t *key,
                      const uint8_t *prev_enc_reader_id, const uint8_t *mac, uint8_t *prev_reader_id)
{
    uint8_t ses_mac[16], ses_enc[16], cmac[16];
    const WipeOnExit w1(ses_mac, sizeof ses_mac), w2(ses_enc, sizeof ses_enc);
    tmac_session_key(kTmacMac, key, tmc, uid, ses_mac);
    cmac16(ses_mac, msg, len, cmac);
    if (!odd_bytes_equal(cmac, mac))
        return NT4H_CHECK_FAILED;
    if (!prev_enc_reader_id)
        return ZEL_OK;
    tmac_session_key(kTmacEnc, key, tmc, uid, ses_enc);
    uint8_t block[16], iv[16] = {};
    std::memcpy(block, prev_enc_reader_id, 16);
    chained(ses_enc, iv, block, 16, true);
    if (prev_reader_id)
        std::memcpy(prev_reader_id, block, 16);
    return ZEL_OK;
}

// The reader id block behind a message of at bytes: 0xC8, the reader id, the previous encrypted one.
uint32_t reader_id_block(uint8_t *msg, uint32_t at, const uint8_t *reader_id, const uint8_t *prev_enc)
{
    msg[at] = 0xC8;
    std::memcpy(msg + at + 1, reader_id, 16);
    if (prev_enc)
        std::memcpy(msg + at + 17, prev_enc, 16);
    return at + 48;
}

ZEL_STATUS check_value_tmac(uint8_t code, uint8_t file_no, const uint32_t *value, uint32_t tmc, const uint8_t *uid,
                            const uint8_t *key, const uint8_t *reader_id, const uint8_t *prev_enc, const uint8_t *mac,
                            uint8_t *prev_reader_id)
{
    if (!uid || !key || !mac)
        return ZEL_PARAMETERS_ERROR;
    uint8_t msg[64] = {};
    msg[0] = code;
    msg[1] = file_no;
    if (value)
        put_le32(msg + 2, *value);
    uint32_t len = 16;
    if (reader_id)
        len = reader_id_block(msg, 16, reader_id, prev_enc);
    return check_tmac(msg, len, tmc, uid, key, prev_enc, mac, prev_reader_id);
}

ZEL_STATUS check_write_record_tmac(uint8_t code, uint8_t file_no, uint32_t offset, uint32_t size, const uint8_t *data,
                                   uint32_t tmc, const uint8_t *uid, const uint8_t *key, const uint8_t *reader_id,
                                   const uint8_t *prev_enc, const uint8_t *mac, uint8_t *prev_reader_id)
{
    if (!uid || !key || !mac || (size && !data))
        return ZEL_PARAMETERS_ERROR;
    if (size > kMaxRecordData)
        return NT4H_CHECK_FAILED;
    uint32_t total = (size + 16 + 15) / 16 * 16;
    if (reader_id)
        total += 48;
    if (total > kMaxMessage)
        return NT4H_CHECK_FAILED;
    uint8_t msg[kMaxMessage] = {};
    msg[0] = code;
    msg[1] = file_no;
    put_le24(msg + 2, offset);
    put_le24(msg + 5, size);
    if (size)
        std::memcpy(msg + 16, data, size);
    if (reader_id)
        reader_id_block(msg, total - 48, reader_id, prev_enc);
    return check_tmac(msg, total, tmc, uid, key, prev_enc, mac, prev_reader_id);
}

} // namespace

void session_sdm_keys(const uint8_t *file_key, const uint8_t *uid, uint32_t read_ctr, uint8_t *enc_key,
                      uint8_t *mac_key)
{
    if (enc_key)
        sdm_session_key(kSdmEnc, file_key, uid, read_ctr, enc_key);
    if (mac_key)
        sdm_session_key(kSdmMac, file_key, uid, read_ctr, mac_key);
}

} // namespace zel::ntag424

using namespace zel::ntag424;

extern "C" ZEL_API ZEL_STATUS nt4h_check_sdm_mac(uint32_t sdm_read_counter, const uint8_t *uid, const uint8_t *auth_key,
                                                 const uint8_t *mac_in_data, uint32_t mac_in_len,
                                                 const uint8_t *sdm_mac)
{
    if (!uid || !auth_key || !sdm_mac || (mac_in_len && !mac_in_data))
        return ZEL_PARAMETERS_ERROR;
    if (padded(mac_in_len) > kMaxMessage)
        return NT4H_CHECK_FAILED;
    uint8_t ses_mac[16], cmac[16];
    const zel::WipeOnExit wipe(ses_mac, sizeof ses_mac);
    sdm_session_key(kSdmMac, auth_key, uid, sdm_read_counter, ses_mac);
    cmac16(ses_mac, mac_in_data, mac_in_len, cmac);
    return odd_bytes_equal(cmac, sdm_mac) ? ZEL_OK : NT4H_CHECK_FAILED;
}

extern "C" ZEL_API ZEL_STATUS nt4h_decrypt_sdm_enc_file_data(uint32_t sdm_read_counter, const uint8_t *uid,
                                                             const uint8_t *auth_key, uint8_t *file_data,
                                                             uint32_t file_data_len)
{
    if (!uid || !auth_key || (file_data_len && !file_data))
        return ZEL_PARAMETERS_ERROR;
    if (file_data_len % 16 != 0 || file_data_len > kMaxMessage)
        return NT4H_CHECK_FAILED;
    uint8_t ses_enc[16], iv[16] = {}, zero_iv[16] = {};
    const zel::WipeOnExit wipe(ses_enc, sizeof ses_enc);
    sdm_session_key(kSdmEnc, auth_key, uid, sdm_read_counter, ses_enc);
    zel::put_le24(iv, sdm_read_counter);
    chained(ses_enc, zero_iv, iv, 16, false);
    chained(ses_enc, iv, file_data, file_data_len, true);
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS nt4h_decrypt_picc_data(uint8_t *picc_data, const uint8_t *auth_key,
                                                     uint8_t *picc_data_tag, uint8_t *uid, uint8_t *sdm_read_cnt)
{
    if (!picc_data || !auth_key || !picc_data_tag || !uid || !sdm_read_cnt)
        return ZEL_PARAMETERS_ERROR;
    uint8_t iv[16] = {};
    chained(auth_key, iv, picc_data, 16, true);
    const uint8_t tag = picc_data[0];
    *picc_data_tag = tag;
    std::memset(uid, 0, 7);
    std::memset(sdm_read_cnt, 0, 3);
    uint32_t at = 1;
    if (tag & ~0x78u) {
        std::memcpy(uid, picc_data + 1, 7);
        at = 8;
    }
    if (tag & 0x40)
        std::memcpy(sdm_read_cnt, picc_data + at, 3);
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS dfl_check_credit_value_transaction_mac(
    uint8_t file_no, uint32_t value, uint32_t trans_mac_counter, const uint8_t *uid, const uint8_t *trans_mac_key,
    const uint8_t *reader_id, const uint8_t *prev_enc_reader_id, const uint8_t *trans_mac_value,
    uint8_t *prev_reader_id)
{
    return check_value_tmac(0x0C, file_no, &value, trans_mac_counter, uid, trans_mac_key, reader_id, prev_enc_reader_id,
                            trans_mac_value, prev_reader_id);
}

extern "C" ZEL_API ZEL_STATUS dfl_check_debit_value_transaction_mac(
    uint8_t file_no, uint32_t value, uint32_t trans_mac_counter, const uint8_t *uid, const uint8_t *trans_mac_key,
    const uint8_t *reader_id, const uint8_t *prev_enc_reader_id, const uint8_t *trans_mac_value,
    uint8_t *prev_reader_id)
{
    return check_value_tmac(0xDC, file_no, &value, trans_mac_counter, uid, trans_mac_key, reader_id, prev_enc_reader_id,
                            trans_mac_value, prev_reader_id);
}

extern "C" ZEL_API ZEL_STATUS desfire_check_clear_record_transaction_mac(
    uint8_t file_no, uint32_t trans_mac_counter, const uint8_t *uid, const uint8_t *trans_mac_key,
    const uint8_t *reader_id, const uint8_t *prev_enc_reader_id, const uint8_t *trans_mac_value,
    uint8_t *prev_reader_id)
{
    return check_value_tmac(0xEB, file_no, nullptr, trans_mac_counter, uid, trans_mac_key, reader_id,
                            prev_enc_reader_id, trans_mac_value, prev_reader_id);
}

extern "C" ZEL_API ZEL_STATUS dfl_check_write_record_transaction_mac(
    uint8_t file_no, uint32_t offset, uint32_t size, const uint8_t *data, uint32_t trans_mac_counter,
    const uint8_t *uid, const uint8_t *trans_mac_key, const uint8_t *reader_id, const uint8_t *prev_enc_reader_id,
    const uint8_t *trans_mac_value, uint8_t *prev_reader_id)
{
    return check_write_record_tmac(0x8B, file_no, offset, size, data, trans_mac_counter, uid, trans_mac_key, reader_id,
                                   prev_enc_reader_id, trans_mac_value, prev_reader_id);
}

extern "C" ZEL_API ZEL_STATUS desfire_check_write_record_transaction_mac(
    uint8_t file_no, uint32_t offset, uint32_t size, const uint8_t *data, uint32_t trans_mac_counter,
    const uint8_t *uid, const uint8_t *trans_mac_key, const uint8_t *reader_id, const uint8_t *prev_enc_reader_id,
    const uint8_t *trans_mac_value, uint8_t *prev_reader_id)
{
    return check_write_record_tmac(0x3B, file_no, offset, size, data, trans_mac_counter, uid, trans_mac_key, reader_id,
                                   prev_enc_reader_id, trans_mac_value, prev_reader_id);
}
