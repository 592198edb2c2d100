// A SAM AV2 in the reader's contact slot, written from the SAM's side with OpenSSL.
//
// The model "sam_av2" is a level-4 card whose contact interface holds the SAM (its contactless side holds
// nothing). The SAM needs no SELECT: after open_ISO7816_interface and the switch of APDUs to the contact
// interface it answers these commands of class 80:
//   60 GetVersion        31 bytes: hardware (7), software (7), UID (7) at 14, batch and date, mode (A1/A2) last
//   64 GetKeyEntry       P1 the entry: versions (3, or 2 for 3K3DES), DESFire AID (3) and key number, change
//                        entry key and version, key usage counter, configuration (2), in AV2 mode the
//                        extended configuration
//   A4 AuthenticateHost  Lc 2 (entry, version): the legacy DES three-pass, AV1 mode only. Lc 3 (entry,
//                        version, host mode 0 to 2): the AV2 three-pass with an AES key, AV2 mode only
//   10 LockUnlock        P1 03, Lc 5 (entry, version, three bytes of chain limit): the AV2 three-pass with the
//                        AES key of that entry; success switches the SAM to AV2 mode for good
//   C1 ChangeKeyEntry    AV1 mode: 64 bytes DES-enciphered under the session key of the DES authentication
//                        (60 bytes of entry, CRC_A, zero padding). AV2 mode: 61 bytes in plain after an AV2
//                        authentication. Either way the host must have authenticated with the entry's change
//                        key (its key number); every field of the message is written whatever P2 says.
//
// Keys: 128 entries. A fresh SAM is in AV1 mode with entry 0 a DES key of eight zero bytes (version 0) that
// may change every entry. The legacy authentication uses entries whose configuration names a DES family
// key with equal halves; the AV2 ones entries with an AES configuration (bits 5 to 3 equal to 100).
//
// Setup (besides ats, atr, block_size, interim_frames of every ISO 14443-4 card):
//   "mode": "av1" or "av2" (default av1), "uid": 7 hex bytes, "hardware": 3 or 4 (the version's first five
//   bytes 04 01 01 03 02 or 04 01 01 04 01; default 3), "master_key": 16 hex bytes that entry 0 holds as an
//   AES host key (keys A, B, C all this key, versions 0, 1, 2).
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <openssl/rand.h>

#include <array>
#include <cstring>
#include <memory>

#include "../iso7816.h"
#include "../json.h"
#include "../scenario.h"

namespace zs {

namespace {

constexpr size_t ENTRIES = 128;
constexpr uint16_t SW_MORE_FRAMES = 0x90AF;
constexpr uint16_t SW_AUTH_FAILED = 0x6982;
constexpr uint16_t SW_NO_KEY = 0x6A82;
constexpr uint8_t MODE_AV1 = 0xA1, MODE_AV2 = 0xA2;

struct Entry {
    uint8_t keys[48] = {}; // A, B, C (a 3K3DES key runs over A and half of B)
    uint8_t ver[3] = {};
    uint8_t df_aid[3] = {};
    uint8_t df_key_no = 0;
    uint8_t cek_no = 0, cek_ver = 0, kuc = 0xFF;
    uint8_t set[2] = {};
    uint8_t ext_set = 0;
    uint8_t kind() const { return static_cast<uint8_t>((set[0] >> 3) & 7); }
};

constexpr uint8_t KIND_AES = 4, KIND_3K3DES = 3;

// ---- the SAM's own cryptography ----

// Whole blocks through a cipher with padding off; false when OpenSSL refuses.
bool run_cipher(const EVP_CIPHER *c, const uint8_t *key, const uint8_t *iv, const uint8_t *in, size_t n, uint8_t *out,
                bool enc)
{
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    int l1 = 0, l2 = 0;
    const bool ok = ctx && EVP_CipherInit_ex(ctx, c, nullptr, key, iv, enc ? 1 : 0) == 1 &&
                    EVP_CIPHER_CTX_set_padding(ctx, 0) == 1 &&
                    EVP_CipherUpdate(ctx, out, &l1, in, static_cast<int>(n)) == 1 &&
                    EVP_CipherFinal_ex(ctx, out + l1, &l2) == 1;
    EVP_CIPHER_CTX_free(ctx);
    return ok;
}

// Single DES as three-key DES with K|K|K, one block, no chaining.
bool des_block(const uint8_t k8[8], const uint8_t in[8], uint8_t out[8], bool enc)
{
    uint8_t k[24];
    for (int i = 0; i < 3; ++i)
        std::memcpy(k + 8 * i, k8, 8);
    const bool ok = run_cipher(EVP_des_ede3_ecb(), k, nullptr, in, 8, out, enc);
    OPENSSL_cleanse(k, sizeof k);
    return ok;
}

bool aes_cbc(const uint8_t key[16], const uint8_t *in, size_t n, uint8_t *out, bool enc)
{
    const uint8_t iv[16] = {};
    return run_cipher(EVP_aes_128_cbc(), key, iv, in, n, out, enc);
}

bool aes_cmac(const uint8_t key[16], const uint8_t *m, size_t n, uint8_t mac[16])
{
    EVP_MAC *alg = EVP_MAC_fetch(nullptr, "CMAC", nullptr);
    EVP_MAC_CTX *ctx = alg ? EVP_MAC_CTX_new(alg) : nullptr;
    char cipher[] = "AES-128-CBC";
    const OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_CIPHER, cipher, 0),
                                 OSSL_PARAM_construct_end()};
    size_t len = 0;
    const bool ok = ctx && EVP_MAC_init(ctx, key, 16, params) == 1 && EVP_MAC_update(ctx, m, n) == 1 &&
                    EVP_MAC_final(ctx, mac, &len, 16) == 1 && len == 16;
    EVP_MAC_CTX_free(ctx);
    EVP_MAC_free(alg);
    return ok;
}

// The AV2 MAC of a 12-byte random: the CMAC of random | mode | 00 00 00, its bytes 1, 3, ..., 15.
bool av2_mac(const uint8_t key[16], const uint8_t rnd[12], uint8_t mode, uint8_t mac[8])
{
    uint8_t m[16] = {}, full[16];
    std::memcpy(m, rnd, 12);
    m[12] = mode;
    if (!aes_cmac(key, m, sizeof m, full))
        return false;
    for (int i = 0; i < 8; ++i)
        mac[i] = full[1 + 2 * i];
    return true;
}

uint16_t crc_a(const uint8_t *p, size_t n)
{
    uint32_t crc = 0x6363;
    for (size_t i = 0; i < n; ++i) {
        uint8_t b = static_cast<uint8_t>(p[i] ^ (crc & 0xFF));
        b = static_cast<uint8_t>(b ^ (b << 4));
        crc = (crc >> 8) ^ (static_cast<uint32_t>(b) << 8) ^ (static_cast<uint32_t>(b) << 3) ^ (b >> 4);
    }
    return static_cast<uint16_t>(crc);
}

std::vector<uint8_t> rotated(const uint8_t *p, size_t n, size_t by)
{
    std::vector<uint8_t> r(n);
    for (size_t i = 0; i < n; ++i)
        r[i] = p[(i + by) % n];
    return r;
}

struct SamSetup {
    bool av2 = false;
    uint8_t uid[7] = {0x04, 0x5A, 0x11, 0x22, 0x33, 0x44, 0x55};
    int hardware = 3;
    bool have_master = false;
    uint8_t master[16] = {};
};

class SamAv2 final : public Application {
public:
    explicit SamAv2(const SamSetup &s) : Application({0xFF}), mode_(s.av2 ? MODE_AV2 : MODE_AV1), setup_(s)
    {
        if (s.have_master) {
            Entry &e = entries_[0];
            for (int i = 0; i < 3; ++i) {
                std::memcpy(e.keys + 16 * i, s.master, 16);
                e.ver[i] = static_cast<uint8_t>(i);
            }
            e.set[0] = 0x20;
        }
    }
    ~SamAv2() override { OPENSSL_cleanse(&st_, sizeof st_); }

    void deselect() override { clear(); }

    RApdu command(const Apdu &c) override
    {
        if (c.cla != 0x80)
            return RApdu::sw_only(SW_CLA_NOT_SUPPORTED);
        switch (c.ins) {
        case 0x60: return version();
        case 0x64: return key_entry(c);
        case 0xA4: return authenticate(c);
        case 0x10: return lock_unlock(c);
        case 0xC1: return change_key_entry(c);
        default: clear(); return RApdu::sw_only(SW_INS_NOT_SUPPORTED);
        }
    }

private:
    enum class Step { NONE, DES_1, AV2_1, AV2_2 };
    struct State {
        Step step = Step::NONE;
        uint8_t ins = 0, mode = 0, entry = 0;
        uint8_t key[16] = {};
        uint8_t rnd2[12] = {}, rndb[16] = {}, session[16] = {};
        // After a successful authentication: which entry, and the DES session key of the legacy form.
        bool authenticated = false;
        bool des_session = false;
        uint8_t auth_entry = 0;
        uint8_t des_key[8] = {};
    };

    void clear()
    {
        OPENSSL_cleanse(&st_, sizeof st_);
        st_ = State{};
    }
    RApdu fail(uint16_t sw)
    {
        clear();
        return RApdu::sw_only(sw);
    }

    RApdu version() const
    {
        std::vector<uint8_t> v(31, 0);
        const uint8_t hw3[7] = {0x04, 0x01, 0x01, 0x03, 0x02, 0x18, 0x05};
        const uint8_t hw4[7] = {0x04, 0x01, 0x01, 0x04, 0x01, 0x18, 0x05};
        std::memcpy(v.data(), setup_.hardware == 4 ? hw4 : hw3, 7);
        std::memcpy(v.data() + 7, setup_.hardware == 4 ? hw4 : hw3, 7);
        std::memcpy(v.data() + 14, setup_.uid, 7);
        const uint8_t batch[5] = {0x10, 0x20, 0x30, 0x40, 0x50};
        std::memcpy(v.data() + 21, batch, 5);
        v[26] = 0x21; // week and year of production
        v[27] = 0x14;
        v[30] = mode_;
        return {v, SW_OK};
    }

    RApdu key_entry(const Apdu &c) const
    {
        if (c.p1 >= ENTRIES)
            return RApdu::sw_only(SW_NO_KEY);
        const Entry &e = entries_[c.p1];
        std::vector<uint8_t> d(e.ver, e.ver + (e.kind() == KIND_3K3DES ? 2 : 3));
        d.insert(d.end(), e.df_aid, e.df_aid + 3);
        d.push_back(e.df_key_no);
        d.push_back(e.cek_no);
        d.push_back(e.cek_ver);
        d.push_back(e.kuc);
        d.push_back(e.set[0]);
        d.push_back(e.set[1]);
        if (mode_ == MODE_AV2)
            d.push_back(e.ext_set);
        return {d, SW_OK};
    }

    // The key of the entry with that version, or null; aes asks for an AES entry, else a single DES key.
    const uint8_t *find_key(uint8_t entry, uint8_t version, bool aes) const
    {
        if (entry >= ENTRIES)
            return nullptr;
        const Entry &e = entries_[entry];
        const uint8_t kind = e.kind();
        if (aes ? kind != KIND_AES : (kind != 0 && kind != 1 && kind != 6))
            return nullptr;
        for (int i = 0; i < 3; ++i) {
            const uint8_t *k = e.keys + 16 * i;
            if (e.ver[i] == version && (aes || std::memcmp(k, k + 8, 8) == 0))
                return k;
        }
        return nullptr;
    }

    RApdu authenticate(const Apdu &c)
    {
        if (st_.step == Step::DES_1 && c.nc == 16)
            return des_second(c);
        if ((st_.step == Step::AV2_1 && c.nc == 20) || (st_.step == Step::AV2_2 && c.nc == 32))
            return av2_next(c);
        if (c.nc == 2)
            return des_first(c);
        if (c.nc == 3) {
            if (mode_ != MODE_AV2)
                return fail(SW_CONDITIONS_NOT_SATISFIED);
            if (c.data[2] > 2)
                return fail(SW_WRONG_DATA);
            return av2_first(c.ins, c.data[0], c.data[1], c.data[2]);
        }
        return fail(SW_WRONG_LENGTH);
    }

    RApdu lock_unlock(const Apdu &c)
    {
        if (st_.step != Step::NONE && st_.ins == 0x10 && (c.nc == 20 || c.nc == 32))
            return av2_next(c);
        if (c.p1 != 0x03)
            return fail(SW_WRONG_P1P2);
        if (c.nc != 5)
            return fail(SW_WRONG_LENGTH);
        if (mode_ == MODE_AV2)
            return fail(SW_CONDITIONS_NOT_SATISFIED);
        return av2_first(c.ins, c.data[0], c.data[1], c.p1);
    }

    // ---- legacy DES ----

    RApdu des_first(const Apdu &c)
    {
        clear();
        if (mode_ != MODE_AV1)
            return fail(SW_CONDITIONS_NOT_SATISFIED);
        const uint8_t *k = find_key(c.data[0], c.data[1], false);
        if (!k)
            return fail(SW_NO_KEY);
        std::memcpy(st_.key, k, 8);
        st_.entry = c.data[0];
        uint8_t enc[8];
        if (RAND_bytes(st_.rndb, 8) != 1 || !des_block(st_.key, st_.rndb, enc, true))
            return fail(SW_AUTH_FAILED);
        st_.step = Step::DES_1;
        return {std::vector<uint8_t>(enc, enc + 8), SW_MORE_FRAMES};
    }

    RApdu des_second(const Apdu &c)
    {
        // The host deciphered in send direction: each block here goes through the cipher forwards and then
        // meets the block before it.
        uint8_t rnda[8], rndb_rot[8];
        if (!des_block(st_.key, c.data, rnda, true) || !des_block(st_.key, c.data + 8, rndb_rot, true))
            return fail(SW_AUTH_FAILED);
        for (int i = 0; i < 8; ++i)
            rndb_rot[i] ^= c.data[i];
        const std::vector<uint8_t> want = rotated(st_.rndb, 8, 1);
        if (CRYPTO_memcmp(want.data(), rndb_rot, 8) != 0)
            return fail(SW_AUTH_FAILED);
        const std::vector<uint8_t> a_rot = rotated(rnda, 8, 1);
        uint8_t enc[8];
        if (!des_block(st_.key, a_rot.data(), enc, true))
            return fail(SW_AUTH_FAILED);
        const uint8_t entry = st_.entry;
        uint8_t sk[8];
        std::memcpy(sk, rnda, 4);
        std::memcpy(sk + 4, st_.rndb, 4);
        clear();
        st_.authenticated = true;
        st_.des_session = true;
        st_.auth_entry = entry;
        std::memcpy(st_.des_key, sk, 8);
        OPENSSL_cleanse(rnda, sizeof rnda);
        OPENSSL_cleanse(sk, sizeof sk);
        return {std::vector<uint8_t>(enc, enc + 8), SW_OK};
    }

    // ---- AV2 three-pass (AuthenticateHost and LockUnlock) ----

    RApdu av2_first(uint8_t ins, uint8_t entry, uint8_t version, uint8_t mode)
    {
        clear();
        const uint8_t *k = find_key(entry, version, true);
        if (!k)
            return fail(SW_NO_KEY);
        std::memcpy(st_.key, k, 16);
        st_.entry = entry;
        st_.ins = ins;
        st_.mode = mode;
        if (RAND_bytes(st_.rnd2, 12) != 1)
            return fail(SW_AUTH_FAILED);
        st_.step = Step::AV2_1;
        return {std::vector<uint8_t>(st_.rnd2, st_.rnd2 + 12), SW_MORE_FRAMES};
    }

    RApdu av2_next(const Apdu &c)
    {
        if (c.ins != st_.ins)
            return fail(SW_CONDITIONS_NOT_SATISFIED);
        return st_.step == Step::AV2_1 ? av2_second(c) : av2_third(c);
    }

    RApdu av2_second(const Apdu &c)
    {
        uint8_t mac[8];
        if (!av2_mac(st_.key, st_.rnd2, st_.mode, mac) || CRYPTO_memcmp(mac, c.data, 8) != 0)
            return fail(SW_AUTH_FAILED);
        const uint8_t *rnd1 = c.data + 8;
        uint8_t sv[16];
        std::memcpy(sv, rnd1 + 7, 5);
        std::memcpy(sv + 5, st_.rnd2 + 7, 5);
        for (int i = 0; i < 5; ++i)
            sv[10 + i] = static_cast<uint8_t>(rnd1[i] ^ st_.rnd2[i]);
        sv[15] = 0x91;
        std::vector<uint8_t> out(24);
        if (!run_cipher(EVP_aes_128_ecb(), st_.key, nullptr, sv, 16, st_.session, true) ||
            !av2_mac(st_.key, rnd1, st_.mode, out.data()) || RAND_bytes(st_.rndb, 16) != 1 ||
            !aes_cbc(st_.session, st_.rndb, 16, out.data() + 8, true))
            return fail(SW_AUTH_FAILED);
        OPENSSL_cleanse(sv, sizeof sv);
        st_.step = Step::AV2_2;
        return {out, SW_MORE_FRAMES};
    }

    RApdu av2_third(const Apdu &c)
    {
        uint8_t plain[32];
        if (!aes_cbc(st_.session, c.data, 32, plain, false))
            return fail(SW_AUTH_FAILED);
        const std::vector<uint8_t> want = rotated(st_.rndb, 16, 2);
        if (CRYPTO_memcmp(want.data(), plain + 16, 16) != 0)
            return fail(SW_AUTH_FAILED);
        const std::vector<uint8_t> a_rot = rotated(plain, 16, 2);
        std::vector<uint8_t> out(16);
        if (!aes_cbc(st_.session, a_rot.data(), 16, out.data(), true))
            return fail(SW_AUTH_FAILED);
        OPENSSL_cleanse(plain, sizeof plain);
        const uint8_t entry = st_.entry, ins = st_.ins;
        clear();
        if (ins == 0x10) {
            mode_ = MODE_AV2; // the switch ends the session; the host authenticates anew
        } else {
            st_.authenticated = true;
            st_.auth_entry = entry;
        }
        return {out, SW_OK};
    }

    // ---- key entries ----

    RApdu change_key_entry(const Apdu &c)
    {
        st_.step = Step::NONE;
        if (c.p1 >= ENTRIES)
            return RApdu::sw_only(SW_NO_KEY);
        Entry &e = entries_[c.p1];
        if (!st_.authenticated || st_.auth_entry != e.cek_no)
            return RApdu::sw_only(SW_AUTH_FAILED);
        if (mode_ == MODE_AV2) {
            if (st_.des_session || c.nc != 61)
                return RApdu::sw_only(SW_WRONG_LENGTH);
            store(e, c.data, true);
            return RApdu::sw_only(SW_OK);
        }
        if (!st_.des_session || c.nc != 64)
            return RApdu::sw_only(SW_WRONG_LENGTH);
        uint8_t k[24], plain[64];
        for (int i = 0; i < 3; ++i)
            std::memcpy(k + 8 * i, st_.des_key, 8);
        const uint8_t iv[8] = {};
        const bool ok = run_cipher(EVP_des_ede3_cbc(), k, iv, c.data, 64, plain, false);
        OPENSSL_cleanse(k, sizeof k);
        // 60 bytes of entry, CRC_A over them (little-endian), then zeros.
        const uint16_t crc = crc_a(plain, 60);
        const bool intact =
            ok && plain[60] == (crc & 0xFF) && plain[61] == (crc >> 8) && plain[62] == 0 && plain[63] == 0;
        if (intact)
            store(e, plain, false);
        OPENSSL_cleanse(plain, sizeof plain);
        return RApdu::sw_only(intact ? SW_OK : SW_WRONG_DATA);
    }

    // The entry's fields in message order: keys (48), DESFire AID (3) and key number, change entry key and
    // version, key usage counter, configuration (2), three versions, and in AV2 the extended configuration.
    static void store(Entry &e, const uint8_t *d, bool av2)
    {
        std::memcpy(e.keys, d, 48);
        std::memcpy(e.df_aid, d + 48, 3);
        e.df_key_no = d[51];
        e.cek_no = d[52];
        e.cek_ver = d[53];
        e.kuc = d[54];
        e.set[0] = d[55];
        e.set[1] = d[56];
        std::memcpy(e.ver, d + 57, 3);
        e.ext_set = av2 ? d[60] : 0;
    }

    uint8_t mode_;
    SamSetup setup_;
    std::array<Entry, ENTRIES> entries_{};
    State st_;
};

// A member of exactly n hex bytes into out, when the setup has it.
bool hex_member(const Json *setup, const char *name, uint8_t *out, size_t n, std::string &err)
{
    const Json *v = setup->get(name);
    if (!v)
        return true;
    std::vector<uint8_t> b;
    if (v->kind != Json::STRING || !parse_hex_text(v->str, b, n) || b.size() != n) {
        err = std::string("setup: ") + name + " is " + std::to_string(n) + " hex bytes";
        return false;
    }
    std::memcpy(out, b.data(), n);
    return true;
}

bool read_sam_setup(const Json *setup, SamSetup &s, std::string &err)
{
    if (!setup || setup->kind != Json::OBJECT)
        return true;
    if (const Json *m = setup->get("mode")) {
        if (m->kind != Json::STRING || (m->str != "av1" && m->str != "av2")) {
            err = "setup: mode is \"av1\" or \"av2\"";
            return false;
        }
        s.av2 = m->str == "av2";
    }
    if (!hex_member(setup, "uid", s.uid, 7, err))
        return false;
    if (const Json *h = setup->get("hardware")) {
        if (h->kind != Json::NUMBER || (h->num != 3 && h->num != 4)) {
            err = "setup: hardware is 3 or 4";
            return false;
        }
        s.hardware = static_cast<int>(h->num);
    }
    s.have_master = setup->get("master_key") != nullptr;
    if (!hex_member(setup, "master_key", s.master, 16, err))
        return false;
    return true;
}

} // namespace

std::unique_ptr<Card> make_sam_av2(const zsim_card &id, const Json *setup, std::string &err)
{
    Iso14443Setup s;
    if (!iso14443_setup_read(setup, s, err, {"mode", "uid", "hardware", "master_key"}))
        return nullptr;
    SamSetup sam;
    if (!read_sam_setup(setup, sam, err))
        return nullptr;
    auto card = std::make_unique<Iso14443Card>(id, s);
    card->contact_host().add_default(std::make_unique<SamAv2>(sam));
    return card;
}

} // namespace zs
