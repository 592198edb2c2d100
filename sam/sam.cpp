// The SAM AV2 on the contact interface: version, key entries, the host authentications and the key entry
// changes, all as APDUs through the plain APDU path.
#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <cstring>

#include "apdu/apdu_internal.h"
#include "core/wipe.h"
#include "sam/sam_internal.h"
#include "tandro.h"

namespace zel::sam {

namespace {

RandomFn g_random = nullptr;

bool random_bytes(uint8_t *out, uint32_t n)
{
    if (g_random)
        return g_random(out, n);
    return RAND_bytes(out, static_cast<int>(n)) == 1;
}

void rotate_left(uint8_t *p, uint32_t n, uint32_t by)
{
    uint8_t tmp[16];
    for (uint32_t i = 0; i < n; ++i)
        tmp[i] = p[(i + by) % n];
    std::memcpy(p, tmp, n);
    OPENSSL_cleanse(tmp, sizeof tmp);
}

void put_sw(uint16_t *out, uint16_t sw)
{
    if (out)
        *out = sw;
}

// The eight odd-position bytes of a 16-byte CMAC over the 16-byte message m, with a zero IV.
void odd_mac(desfire_key *k, const uint8_t m[16], uint8_t mac[8])
{
    uint8_t iv[16] = {}, full[16] = {};
    cmac_nl(k, iv, m, 16, full);
    for (int i = 0; i < 8; ++i)
        mac[i] = full[2 * i + 1];
    OPENSSL_cleanse(iv, sizeof iv);
    OPENSSL_cleanse(full, sizeof full);
}

// What the legacy DES authentication leaves for a caller that goes on with a session key.
struct DesAuth {
    uint8_t rnda[16] = {}, rndb[16] = {};
    uint32_t n = 0;
    uint16_t first_sw = 0;
    bool first_pass_failed = false;
};

// The three passes of the DES authentication with the key of eight zero bytes. A zero IV starts each of the
// cipher steps 2, 4 and 6, on both sides.
ZEL_STATUS des_authenticate(ZEL_HANDLE hnd, uint8_t key_no, uint8_t key_ver, DesAuth &out)
{
    const uint8_t first[8] = {kCla, kInsAuthHost, 0x00, 0x00, 0x02, key_no, key_ver, 0x00};
    Answer a;
    ZEL_STATUS st = exchange(hnd, first, sizeof first, a);
    out.first_sw = a.sw;
    if (st != ZEL_OK || a.sw != kSwMore || (a.len != 8 && a.len != 16)) {
        out.first_pass_failed = true;
        return st != ZEL_OK ? st : ZEL_AUTH_ERROR;
    }
    const uint32_t n = a.len;
    out.n = n;
    desfire_key k{};
    WipeOnExit wipe_k(&k, sizeof k);
    uint8_t zero[8] = {};
    des_key_new(&k, zero);
    uint8_t iv[16] = {};
    WipeOnExit wipe_iv(iv, sizeof iv);
    std::memcpy(out.rndb, a.data, n);
    des_blocks_chained(&k, iv, out.rndb, static_cast<uint8_t>(n), DESFIRE_RECEIVE, DESFIRE_DECIPHER);
    if (!random_bytes(out.rnda, n))
        return ZEL_SAM_AUTH_ERROR;
    uint8_t cmd[5 + 32 + 1] = {kCla, kInsAuthHost, 0x00, 0x00, static_cast<uint8_t>(2 * n)};
    WipeOnExit wipe_cmd(cmd, sizeof cmd);
    std::memcpy(cmd + 5, out.rnda, n);
    std::memcpy(cmd + 5 + n, out.rndb, n);
    rotate_left(cmd + 5 + n, n, 1);
    std::memset(iv, 0, sizeof iv);
    des_blocks_chained(&k, iv, cmd + 5, static_cast<uint8_t>(2 * n), DESFIRE_SEND, DESFIRE_DECIPHER);
    cmd[5 + 2 * n] = 0x00;
    Answer b;
    WipeOnExit wipe_b(&b, sizeof b);
    if ((st = exchange(hnd, cmd, 5 + 2 * n + 1, b)) != ZEL_OK)
        return st;
    if (b.sw != kSwOk || b.len < n)
        return ZEL_SAM_AUTH_ERROR;
    std::memset(iv, 0, sizeof iv);
    des_blocks_chained(&k, iv, b.data, static_cast<uint8_t>(n), DESFIRE_RECEIVE, DESFIRE_DECIPHER);
    uint8_t expect[16];
    WipeOnExit wipe_expect(expect, sizeof expect);
    std::memcpy(expect, out.rnda, n);
    rotate_left(expect, n, 1);
    return CRYPTO_memcmp(expect, b.data, n) == 0 ? ZEL_OK : ZEL_SAM_AUTH_ERROR;
}

// The AV2 three-pass exchange: first (with its length) is the whole first APDU, ins the instruction of the
// two that follow, mode the byte that goes into both MACs. The session key lives only in this call.
ZEL_STATUS av2_authenticate(ZEL_HANDLE hnd, const uint8_t *first, uint32_t first_len, uint8_t ins, uint8_t mode,
                            const uint8_t *aes_key, uint16_t *sw_out)
{
    put_sw(sw_out, 0);
    Answer a;
    ZEL_STATUS st = exchange(hnd, first, first_len, a);
    put_sw(sw_out, a.sw);
    if (st != ZEL_OK)
        return st;
    if (a.sw != kSwMore || a.len != 12)
        return ZEL_SAM_APDU_ERROR;
    uint8_t rnd1[12], rnd2[12], rnda[16], rndb[16], msg[16], mac[8], sv[16];
    uint8_t iv[16] = {};
    desfire_key k{}, s{};
    WipeOnExit w1(rnd1, sizeof rnd1), w2(rnd2, sizeof rnd2), w3(rnda, sizeof rnda), w4(rndb, sizeof rndb),
        w5(msg, sizeof msg), w6(mac, sizeof mac), w7(sv, sizeof sv), w8(iv, sizeof iv), w9(&k, sizeof k),
        w10(&s, sizeof s);
    std::memcpy(rnd2, a.data, 12);
    if (!random_bytes(rnd1, sizeof rnd1))
        return ZEL_SAM_CRYPTO_ERROR;
    aes_key_new_with_version(&k, aes_key, 0);
    cmac_generate_subkeys_nl(&k);
    std::memset(msg, 0, sizeof msg);
    std::memcpy(msg, rnd2, 12);
    msg[12] = mode;
    odd_mac(&k, msg, mac);

    uint8_t second[26] = {kCla, ins, 0x00, 0x00, 0x14};
    std::memcpy(second + 5, mac, 8);
    std::memcpy(second + 13, rnd1, 12);
    second[25] = 0x00;
    Answer b;
    WipeOnExit wb(&b, sizeof b);
    st = exchange(hnd, second, sizeof second, b);
    put_sw(sw_out, b.sw);
    if (st != ZEL_OK)
        return st;
    if (b.sw != kSwMore || b.len != 24)
        return ZEL_SAM_APDU_ERROR;

    // Session vector: Rnd1[7..11], Rnd2[7..11], Rnd1[0..4] ^ Rnd2[0..4], 0x91; enciphered under the key.
    std::memcpy(sv, rnd1 + 7, 5);
    std::memcpy(sv + 5, rnd2 + 7, 5);
    for (int i = 0; i < 5; ++i)
        sv[10 + i] = static_cast<uint8_t>(rnd1[i] ^ rnd2[i]);
    sv[15] = 0x91;
    aes_blocks_chained(&k, iv, sv, 16, DESFIRE_SEND, DESFIRE_ENCIPHER);
    aes_key_new_with_version(&s, sv, 0);

    std::memset(msg, 0, sizeof msg);
    std::memcpy(msg, rnd1, 12);
    msg[12] = mode;
    odd_mac(&k, msg, mac);
    if (CRYPTO_memcmp(mac, b.data, 8) != 0)
        return ZEL_SAM_CRYPTO_ERROR;

    std::memcpy(rndb, b.data + 8, 16);
    std::memset(iv, 0, sizeof iv);
    aes_blocks_chained(&s, iv, rndb, 16, DESFIRE_RECEIVE, DESFIRE_DECIPHER);
    if (!random_bytes(rnda, sizeof rnda))
        return ZEL_SAM_CRYPTO_ERROR;
    rotate_left(rndb, 16, 2);

    uint8_t third[38] = {kCla, ins, 0x00, 0x00, 0x20};
    WipeOnExit wt(third, sizeof third);
    std::memcpy(third + 5, rnda, 16);
    std::memcpy(third + 21, rndb, 16);
    std::memset(iv, 0, sizeof iv);
    aes_blocks_chained(&s, iv, third + 5, 32, DESFIRE_SEND, DESFIRE_ENCIPHER);
    third[37] = 0x00;
    Answer c;
    WipeOnExit wc(&c, sizeof c);
    st = exchange(hnd, third, sizeof third, c);
    put_sw(sw_out, c.sw);
    if (st != ZEL_OK)
        return st;
    if (c.sw != kSwOk)
        return ZEL_SAM_APDU_ERROR;
    if (c.len < 16)
        return ZEL_SAM_CRYPTO_ERROR;
    std::memset(iv, 0, sizeof iv);
    aes_blocks_chained(&s, iv, c.data, 16, DESFIRE_RECEIVE, DESFIRE_DECIPHER);
    rotate_left(rnda, 16, 2);
    return CRYPTO_memcmp(rnda, c.data, 16) == 0 ? ZEL_OK : ZEL_SAM_CRYPTO_ERROR;
}

// Sends a ChangeKeyEntry in plain and expects 90 00.
ZEL_STATUS send_entry(ZEL_HANDLE hnd, const EntryFields &f, uint16_t *sw_out)
{
    put_sw(sw_out, 0);
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    uint8_t apdu[kChangeKeyEntryLen];
    WipeOnExit wipe(apdu, sizeof apdu);
    change_key_entry_apdu(f, apdu);
    Answer a;
    const ZEL_STATUS st = exchange(hnd, apdu, sizeof apdu, a);
    put_sw(sw_out, a.sw);
    if (st != ZEL_OK)
        return st;
    return a.sw == kSwOk ? ZEL_OK : ZEL_SAM_APDU_ERROR;
}

// One key in the A field of an entry of the given configuration, the other fields zero.
ZEL_STATUS one_key(ZEL_HANDLE hnd, uint8_t entry, const uint8_t *key, uint8_t key_len, uint8_t set, uint8_t p2,
                   uint8_t cek_no, uint8_t cek_ver, uint8_t kuc, uint16_t *sw)
{
    put_sw(sw, 0);
    if (!key)
        return ZEL_PARAMETERS_ERROR;
    EntryFields f;
    f.entry = entry;
    f.p2 = p2;
    f.key_a = key;
    f.len_a = key_len;
    f.cek_no = cek_no;
    f.cek_ver = cek_ver;
    f.kuc = kuc;
    f.set = set;
    return send_entry(hnd, f, sw);
}

} // namespace

void set_random_source(RandomFn fn)
{
    g_random = fn;
}

ZEL_STATUS exchange(ZEL_HANDLE hnd, const uint8_t *cmd, uint32_t len, Answer &a)
{
    a.len = 0;
    a.sw = 0;
    uint8_t reply[kReplyMax];
    uint32_t n = 0;
    const ZEL_STATUS st = apdu_plain(hnd, cmd, len, reply, sizeof reply, &n);
    if (st != ZEL_OK)
        return st;
    if (n < 2)
        return ZEL_SAM_APDU_ERROR;
    a.sw = static_cast<uint16_t>(reply[n - 2] | reply[n - 1] << 8);
    a.len = n - 2;
    std::memcpy(a.data, reply, a.len);
    OPENSSL_cleanse(reply, sizeof reply);
    return ZEL_OK;
}

void change_key_entry_apdu(const EntryFields &f, uint8_t out[kChangeKeyEntryLen])
{
    std::memset(out, 0, kChangeKeyEntryLen);
    out[0] = kCla;
    out[1] = kInsChangeKeyEntry;
    out[2] = f.entry;
    out[3] = f.p2;
    out[4] = 0x3D;
    // Key A may run on into B's field (a 24-byte key), so B and C are written first.
    if (f.key_c)
        std::memcpy(out + 37, f.key_c, f.len_c > 16 ? 16 : f.len_c);
    if (f.key_b)
        std::memcpy(out + 21, f.key_b, f.len_b > 16 ? 16 : f.len_b);
    if (f.key_a)
        std::memcpy(out + 5, f.key_a, f.len_a > 48 ? 48 : f.len_a);
    out[57] = f.cek_no;
    out[58] = f.cek_ver;
    out[59] = f.kuc;
    out[60] = f.set;
    out[62] = f.ver_a;
    out[63] = f.ver_b;
    out[64] = f.ver_c;
    out[65] = 0x01;
}

} // namespace zel::sam

using namespace zel::sam;

extern "C" ZEL_API ZEL_STATUS SAM_get_version_rawHnd(ZEL_HANDLE hnd, uint8_t *data, uint32_t *length)
{
    if (length)
        *length = 0;
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!data || !length)
        return ZEL_PARAMETERS_ERROR;
    const uint8_t cmd[5] = {kCla, kInsVersion, 0x00, 0x00, 0x00};
    Answer a;
    const ZEL_STATUS st = exchange(hnd, cmd, sizeof cmd, a);
    if (st != ZEL_OK)
        return st;
    if (a.len > SAM_VERSION_RAW_MAX)
        return ZEL_BUFFER_OVERFLOW;
    std::memcpy(data, a.data, a.len);
    *length = a.len;
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS SAM_get_versionHnd(ZEL_HANDLE hnd, uint32_t *sam_type, uint8_t *sam_uid)
{
    if (sam_type)
        *sam_type = SAM_TYPE_UNKNOWN;
    if (sam_uid)
        std::memset(sam_uid, 0, SAM_UID_LEN);
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!sam_type || !sam_uid)
        return ZEL_PARAMETERS_ERROR;
    const uint8_t cmd[5] = {kCla, kInsVersion, 0x00, 0x00, 0x00};
    Answer a;
    const ZEL_STATUS st = exchange(hnd, cmd, sizeof cmd, a);
    // The type is known only from a whole version (its UID ends at byte 20) with 90 00.
    if (st != ZEL_OK || a.sw != kSwOk || a.len < 14 + SAM_UID_LEN)
        return st;
    static const uint8_t hw3[5] = {0x04, 0x01, 0x01, 0x03, 0x02}, hw4[5] = {0x04, 0x01, 0x01, 0x04, 0x01};
    const uint8_t mode = a.data[a.len - 1];
    uint32_t type = SAM_TYPE_UNKNOWN;
    if (std::memcmp(a.data, hw3, 5) == 0)
        type = mode == 0xA1 ? SAM_TYPE_AV2_HW3_AV1_MODE : mode == 0xA2 ? SAM_TYPE_AV2_HW3_AV2_MODE : 0;
    else if (std::memcmp(a.data, hw4, 5) == 0)
        type = mode == 0xA1 ? SAM_TYPE_AV2_HW4_AV1_MODE : mode == 0xA2 ? SAM_TYPE_AV2_HW4_AV2_MODE : 0;
    *sam_type = type;
    if (type != SAM_TYPE_UNKNOWN)
        std::memcpy(sam_uid, a.data + 14, SAM_UID_LEN);
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS SAM_get_key_entry_rawHnd(ZEL_HANDLE hnd, uint8_t key_no, uint8_t *key_entry,
                                                       uint8_t *key_length, uint16_t *apdu_sw)
{
    if (key_length)
        *key_length = 0;
    put_sw(apdu_sw, 0);
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!key_entry || !key_length)
        return ZEL_PARAMETERS_ERROR;
    const uint8_t cmd[5] = {kCla, kInsKeyEntry, key_no, 0x00, 0x00};
    Answer a;
    const ZEL_STATUS st = exchange(hnd, cmd, sizeof cmd, a);
    put_sw(apdu_sw, a.sw);
    if (st != ZEL_OK)
        return st;
    if (a.sw != kSwOk)
        return ZEL_SAM_APDU_ERROR;
    if (a.len > SAM_KEY_ENTRY_RAW_MAX)
        return ZEL_BUFFER_OVERFLOW;
    std::memcpy(key_entry, a.data, a.len);
    *key_length = static_cast<uint8_t>(a.len);
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS SAM_authenticate_host_no_div_desHnd(ZEL_HANDLE hnd, uint8_t key_no, uint8_t key_ver,
                                                                  uint8_t *host_key)
{
    (void)host_key; // taken and ignored: the key is the one of eight zero bytes
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    DesAuth auth;
    zel::WipeOnExit wipe(&auth, sizeof auth);
    return des_authenticate(hnd, key_no, key_ver, auth);
}

extern "C" ZEL_API ZEL_STATUS SAM_authenticate_host_AV2_plainHnd(ZEL_HANDLE hnd, const uint8_t *host_aes_key,
                                                                 uint8_t key_no, uint8_t key_ver, uint8_t host_mode,
                                                                 uint16_t *apdu_sw)
{
    put_sw(apdu_sw, 0);
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (host_mode > SAM_HOST_MODE_FULL || !host_aes_key)
        return ZEL_PARAMETERS_ERROR;
    const uint8_t first[9] = {kCla, kInsAuthHost, 0x00, 0x00, 0x03, key_no, key_ver, host_mode, 0x00};
    return av2_authenticate(hnd, first, sizeof first, kInsAuthHost, host_mode, host_aes_key, apdu_sw);
}

extern "C" ZEL_API ZEL_STATUS SAM_pre_personalization_switch_to_AV2_modeHnd(ZEL_HANDLE hnd,
                                                                            const uint8_t *master_aes_key,
                                                                            uint8_t key_version, uint16_t *apdu_sw)
{
    put_sw(apdu_sw, 0);
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!master_aes_key)
        return ZEL_PARAMETERS_ERROR;
    // P1 03 asks for the AV2 mode; the data are the master key entry 0, its version and a chain block limit
    // of 0 (three bytes), which sets no limit.
    constexpr uint8_t kActivateAv2 = 0x03;
    const uint8_t first[11] = {kCla,        kInsLockUnlock, kActivateAv2, 0x00, 0x05, 0x00,
                               key_version, 0x00,           0x00,         0x00, 0x00};
    return av2_authenticate(hnd, first, sizeof first, kInsLockUnlock, kActivateAv2, master_aes_key, apdu_sw);
}

extern "C" ZEL_API ZEL_STATUS SAM_pre_pesonalization_master_AES128_keyHnd(ZEL_HANDLE hnd, const uint8_t *aes_key_ver_a,
                                                                          uint8_t ver_a, const uint8_t *aes_key_ver_b,
                                                                          uint8_t ver_b, const uint8_t *aes_key_ver_c,
                                                                          uint8_t ver_c, uint16_t *apdu_sw)
{
    put_sw(apdu_sw, 0);
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!aes_key_ver_a || !aes_key_ver_b || !aes_key_ver_c)
        return ZEL_PARAMETERS_ERROR;
    DesAuth auth;
    zel::WipeOnExit wipe_auth(&auth, sizeof auth);
    ZEL_STATUS st = des_authenticate(hnd, 0, 0, auth);
    if (auth.first_pass_failed) {
        put_sw(apdu_sw, auth.first_sw);
        return st == ZEL_AUTH_ERROR ? ZEL_SAM_APDU_ERROR : st;
    }
    if (st != ZEL_OK)
        return st;
    uint8_t sk[8];
    desfire_key session{};
    zel::WipeOnExit wipe_sk(sk, sizeof sk), wipe_session(&session, sizeof session);
    std::memcpy(sk, auth.rnda, 4);
    std::memcpy(sk + 4, auth.rndb, 4);
    des_key_new(&session, sk);

    // The AV1 form of the message: 60 bytes of data, no extended configuration.
    uint8_t msg[65] = {kCla, kInsChangeKeyEntry, 0x00, 0xFF, 0x40};
    zel::WipeOnExit wipe_msg(msg, sizeof msg);
    std::memcpy(msg + 5, aes_key_ver_a, 16);
    std::memcpy(msg + 21, aes_key_ver_b, 16);
    std::memcpy(msg + 37, aes_key_ver_c, 16);
    msg[59] = 0xFF;
    msg[60] = kSetAesHost;
    msg[62] = ver_a;
    msg[63] = ver_b;
    msg[64] = ver_c;
    // Zeroed first: two bytes behind the CRC_A are left as they stood, and the SAM checks them as padding.
    uint8_t out[256] = {};
    zel::WipeOnExit wipe_out(out, sizeof out);
    uint8_t iv[16] = {};
    uint8_t len = sizeof msg;
    if (crypto_preprocess_data_nl(&session, iv, msg, &len, 5, DESFIRE_ENC_COMMAND | DESFIRE_COMM_ENCIPHERED, out) !=
        DESFIRE_CRYPTO_OK)
        return ZEL_SAM_CRYPTO_ERROR;
    Answer a;
    st = exchange(hnd, out, len, a);
    put_sw(apdu_sw, a.sw);
    if (st != ZEL_OK)
        return st;
    return a.sw == kSwOk ? ZEL_OK : ZEL_SAM_APDU_ERROR;
}

extern "C" ZEL_API ZEL_STATUS SAM_change_key_entry_mifare_AV2_plain_one_keyHnd(ZEL_HANDLE hnd, uint8_t key_entry_no,
                                                                               const uint8_t *key_a,
                                                                               const uint8_t *key_b, uint8_t key_no_ce,
                                                                               uint8_t key_ver_ce, uint8_t ref_no_kuc,
                                                                               uint16_t *apdu_sw)
{
    put_sw(apdu_sw, 0);
    if (!key_a || !key_b)
        return ZEL_PARAMETERS_ERROR;
    // Key A at 5 and key B at 13, six bytes each.
    uint8_t keys[14] = {};
    std::memcpy(keys, key_a, 6);
    std::memcpy(keys + 8, key_b, 6);
    return one_key(hnd, key_entry_no, keys, sizeof keys, kSetMifare, 0xFF, key_no_ce, key_ver_ce, ref_no_kuc, apdu_sw);
}

extern "C" ZEL_API ZEL_STATUS SAM_change_key_entry_AES_AV2_plain_one_keyHnd(ZEL_HANDLE hnd, uint8_t key_entry_no,
                                                                            const uint8_t *key, uint8_t key_no_ce,
                                                                            uint8_t key_ver_ce, uint8_t ref_no_kuc,
                                                                            uint16_t *apdu_sw)
{
    return one_key(hnd, key_entry_no, key, 16, kSetAes, 0xFF, key_no_ce, key_ver_ce, ref_no_kuc, apdu_sw);
}

extern "C" ZEL_API ZEL_STATUS SAM_change_key_entry_3K3DES_AV2_plain_one_keyHnd(ZEL_HANDLE hnd, uint8_t key_entry_no,
                                                                               const uint8_t *key, uint8_t key_no_ce,
                                                                               uint8_t key_ver_ce, uint8_t ref_no_kuc,
                                                                               uint16_t *apdu_sw)
{
    // A 24-byte key from 5 on; 0xDF leaves the version of the third key out of the update.
    return one_key(hnd, key_entry_no, key, 24, kSet3k3des, 0xDF, key_no_ce, key_ver_ce, ref_no_kuc, apdu_sw);
}

extern "C" ZEL_API ZEL_STATUS SAM_change_key_entry_2K3DES_ULC_AV2_plain_one_keyHnd(
    ZEL_HANDLE hnd, uint8_t key_entry_no, const uint8_t *key, uint8_t key_no_ce, uint8_t key_ver_ce, uint8_t ref_no_kuc,
    uint16_t *apdu_sw)
{
    return one_key(hnd, key_entry_no, key, 16, kSet2k3des, 0xFF, key_no_ce, key_ver_ce, ref_no_kuc, apdu_sw);
}

extern "C" ZEL_API ZEL_STATUS SAM_change_key_entry_2K3DES_desfire_AV2_plain_one_keyHnd(
    ZEL_HANDLE hnd, uint8_t key_entry_no, const uint8_t *key, uint8_t key_no_ce, uint8_t key_ver_ce, uint8_t ref_no_kuc,
    uint16_t *apdu_sw)
{
    return one_key(hnd, key_entry_no, key, 16, kSet2k3des, 0xFF, key_no_ce, key_ver_ce, ref_no_kuc, apdu_sw);
}

extern "C" ZEL_API ZEL_STATUS SAM_change_key_entry_DES_AV2_plain_one_keyHnd(ZEL_HANDLE hnd, uint8_t key_entry_no,
                                                                            const uint8_t *key, uint8_t key_no_ce,
                                                                            uint8_t key_ver_ce, uint8_t ref_no_kuc,
                                                                            uint16_t *apdu_sw)
{
    put_sw(apdu_sw, 0);
    if (!key)
        return ZEL_PARAMETERS_ERROR;
    // The DES key twice, at 5 and 13.
    uint8_t twice[16];
    zel::WipeOnExit wipe(twice, sizeof twice);
    std::memcpy(twice, key, 8);
    std::memcpy(twice + 8, key, 8);
    return one_key(hnd, key_entry_no, twice, sizeof twice, kSetDes, 0xFF, key_no_ce, key_ver_ce, ref_no_kuc, apdu_sw);
}

extern "C" ZEL_API ZEL_STATUS SAM_change_key_entry_aes_AV2_plain_host_keyHnd(
    ZEL_HANDLE hnd, uint8_t key_entry_no, const uint8_t *key_a, uint8_t ver_a, const uint8_t *key_b, uint8_t ver_b,
    const uint8_t *key_c, uint8_t ver_c, uint8_t key_no_ce, uint8_t key_ver_ce, uint8_t ref_no_kuc, uint16_t *apdu_sw)
{
    put_sw(apdu_sw, 0);
    if (!key_a || !key_b || !key_c)
        return ZEL_PARAMETERS_ERROR;
    EntryFields f;
    f.entry = key_entry_no;
    f.key_a = key_a;
    f.key_b = key_b;
    f.key_c = key_c;
    f.ver_a = ver_a;
    f.ver_b = ver_b;
    f.ver_c = ver_c;
    f.cek_no = key_no_ce;
    f.cek_ver = key_ver_ce;
    f.kuc = ref_no_kuc;
    f.set = kSetAesHost;
    return send_entry(hnd, f, apdu_sw);
}
