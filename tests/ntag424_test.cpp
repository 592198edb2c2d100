// NTAG 424 DNA and DESFire Light: the host checks against the worked examples of secure dynamic messaging
// and against a transaction MAC computed here with OpenSSL's own CMAC, and the 0xB3 frames against a
// scripted reader.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <cstring>
#include <string>

#include "core/bytes.h"
#include "ntag424/ntag424_internal.h"
#include "script_link.h"
#include "tandro.h"

namespace {

using zeltest::ack;
using zeltest::Bytes;
using zeltest::cat;
using zeltest::response;
using zeltest::ScriptLink;

Bytes hex(const std::string &s)
{
    Bytes b;
    for (size_t i = 0; i + 1 < s.size(); i += 2)
        b.push_back(static_cast<uint8_t>(std::stoul(s.substr(i, 2), nullptr, 16)));
    return b;
}

const Bytes kZero(16, 0);

// AES-128-CMAC by OpenSSL's MAC interface, apart from the library's kit.
Bytes ref_cmac(const Bytes &key, const Bytes &msg)
{
    EVP_MAC *mac = EVP_MAC_fetch(nullptr, "CMAC", nullptr);
    EVP_MAC_CTX *ctx = EVP_MAC_CTX_new(mac);
    char cipher[] = "AES-128-CBC";
    OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string("cipher", cipher, 0), OSSL_PARAM_construct_end()};
    Bytes out(16);
    size_t n = 0;
    EVP_MAC_init(ctx, key.data(), key.size(), params);
    EVP_MAC_update(ctx, msg.data(), msg.size());
    EVP_MAC_final(ctx, out.data(), &n, out.size());
    EVP_MAC_CTX_free(ctx);
    EVP_MAC_free(mac);
    return out;
}

Bytes ref_aes(const Bytes &key, const Bytes &in, bool encrypt, const Bytes &iv = kZero)
{
    EVP_CIPHER_CTX *c = EVP_CIPHER_CTX_new();
    EVP_CipherInit_ex(c, EVP_aes_128_cbc(), nullptr, key.data(), iv.data(), encrypt ? 1 : 0);
    EVP_CIPHER_CTX_set_padding(c, 0);
    Bytes out(in.size());
    int n = 0;
    EVP_CipherUpdate(c, out.data(), &n, in.data(), static_cast<int>(in.size()));
    EVP_CIPHER_CTX_free(c);
    return out;
}

Bytes odd(const Bytes &cmac)
{
    Bytes m;
    for (size_t i = 1; i < 16; i += 2)
        m.push_back(cmac[i]);
    return m;
}

// ---- Secure dynamic messaging: the worked examples ----

TEST(SdmExamples, PiccDataGivesTagUidAndCounter)
{
    struct Case {
        const char *picc, *key, *uid;
        uint32_t ctr;
    } cases[] = {
        {"EF963FF7828658A599F3041510671E88", "00000000000000000000000000000000", "04DE5F1EACC040", 61},
        {"FD91EC264309878BE6345CBE53BADF40", "00000000000000000000000000000000", "04958CAA5C5E80", 8},
        {"8ACADDEF0A9B62CDAE39A16B83FC14DE", "42AFF114F2CB3B6141BE6DC95DFC5416", "041D3C8A2D6B80", 291},
    };
    for (const auto &c : cases) {
        Bytes picc = hex(c.picc);
        uint8_t tag = 0, uid[7], ctr[3];
        ASSERT_EQ(nt4h_decrypt_picc_data(picc.data(), hex(c.key).data(), &tag, uid, ctr), ZEL_OK);
        EXPECT_EQ(tag, 0xC7) << c.picc;
        EXPECT_EQ(Bytes(uid, uid + 7), hex(c.uid)) << c.picc;
        EXPECT_EQ(zel::get_le24(ctr), c.ctr) << c.picc;
    }
}

TEST(SdmExamples, MacHoldsAndAlteredMacsAreRefused)
{
    const std::string url_part = "CEE9A53E3E463EF1F459635736738962&cmac=";
    const Bytes text(url_part.begin(), url_part.end());
    struct Case {
        const char *uid;
        uint32_t ctr;
        Bytes input;
        const char *good, *bad;
    } cases[] = {
        {"04DE5F1EACC040", 61, {}, "94EED9EE65337086", "94EED9EE65337087"},
        {"04958CAA5C5E80", 8, text, "ECC1E7F6C6C73BF6", "3CC1E7F6C6C33B33"},
        {"041E3C8A2D6B80", 6, {}, "4B00064004B0B3D3", "AB00064004B0B3AB"},
    };
    for (const auto &c : cases) {
        const Bytes uid = hex(c.uid);
        EXPECT_EQ(nt4h_check_sdm_mac(c.ctr, uid.data(), kZero.data(), c.input.data(),
                                     static_cast<uint32_t>(c.input.size()), hex(c.good).data()),
                  ZEL_OK)
            << c.good;
        EXPECT_EQ(nt4h_check_sdm_mac(c.ctr, uid.data(), kZero.data(), c.input.data(),
                                     static_cast<uint32_t>(c.input.size()), hex(c.bad).data()),
                  NT4H_CHECK_FAILED)
            << c.bad;
        // The counter is part of the session key: the next read's MAC is another one.
        EXPECT_EQ(nt4h_check_sdm_mac(c.ctr + 1, uid.data(), kZero.data(), c.input.data(),
                                     static_cast<uint32_t>(c.input.size()), hex(c.good).data()),
                  NT4H_CHECK_FAILED);
    }
}

TEST(SdmExamples, EncryptedFileDataDeciphers)
{
    Bytes data = hex("CEE9A53E3E463EF1F459635736738962");
    ASSERT_EQ(nt4h_decrypt_sdm_enc_file_data(8, hex("04958CAA5C5E80").data(), kZero.data(), data.data(), 16), ZEL_OK);
    EXPECT_EQ(data, Bytes(16, 'x'));
    data = hex("B8436E11F627BB7F543FCC0C1E0D1A89");
    ASSERT_EQ(nt4h_decrypt_sdm_enc_file_data(291, hex("041D3C8A2D6B80").data(),
                                             hex("B62A9BAF092439BD43C62AEE96B970C5").data(), data.data(), 16),
              ZEL_OK);
    EXPECT_EQ(data, hex("4E545858716E6F5F6F42467077792D56"));
}

// ---- Secure dynamic messaging: what a hand-made card would send ----

// The session key of SDM made here from the description: label, UID, counter least significant first.
Bytes ref_sdm_key(uint8_t first, const Bytes &key, const Bytes &uid, uint32_t ctr)
{
    Bytes sv{first, static_cast<uint8_t>(first ^ 0xFF), 0x00, 0x01, 0x00, 0x80};
    sv.insert(sv.end(), uid.begin(), uid.end());
    sv.push_back(static_cast<uint8_t>(ctr));
    sv.push_back(static_cast<uint8_t>(ctr >> 8));
    sv.push_back(static_cast<uint8_t>(ctr >> 16));
    return ref_cmac(key, sv);
}

TEST(SdmPiccData, TagDecidesWhereUidAndCounterAre)
{
    const Bytes key = hex("0F0E0D0C0B0A09080706050403020100");
    struct Case {
        uint8_t tag;
        bool uid;
        size_t ctr_at; // 0: no counter
    } cases[] = {{0xC7, true, 8}, {0x47, true, 8},  {0x40, false, 1},
                 {0x87, true, 0}, {0x00, false, 0}, {0x38, false, 0}};
    for (const auto &c : cases) {
        Bytes plain(16);
        for (size_t i = 0; i < 16; ++i)
            plain[i] = static_cast<uint8_t>(0x10 + i);
        plain[0] = c.tag;
        Bytes picc = ref_aes(key, plain, true);
        uint8_t tag = 0, uid[7], ctr[3];
        std::memset(uid, 0xEE, 7);
        std::memset(ctr, 0xEE, 3);
        ASSERT_EQ(nt4h_decrypt_picc_data(picc.data(), key.data(), &tag, uid, ctr), ZEL_OK);
        EXPECT_EQ(tag, c.tag);
        EXPECT_EQ(Bytes(uid, uid + 7), c.uid ? Bytes(plain.begin() + 1, plain.begin() + 8) : Bytes(7, 0)) << int(c.tag);
        EXPECT_EQ(Bytes(ctr, ctr + 3),
                  c.ctr_at ? Bytes(plain.begin() + c.ctr_at, plain.begin() + c.ctr_at + 3) : Bytes(3, 0))
            << int(c.tag);
    }
}

TEST(SdmChecks, MacInputOfEveryServedLengthAgreesWithReference)
{
    const Bytes key = hex("00112233445566778899AABBCCDDEEFF"), uid = hex("04A1B2C3D4E5F6");
    const uint32_t ctr = 0x0A0B0C;
    const Bytes ses = ref_sdm_key(0x3C, key, uid, ctr);
    for (uint32_t len : {0u, 1u, 15u, 16u, 17u, 100u, 239u, 240u}) {
        Bytes input(len);
        for (uint32_t i = 0; i < len; ++i)
            input[i] = static_cast<uint8_t>(i * 7 + 1);
        const Bytes mac = odd(ref_cmac(ses, input));
        EXPECT_EQ(nt4h_check_sdm_mac(ctr, uid.data(), key.data(), input.data(), len, mac.data()), ZEL_OK) << len;
        Bytes flipped = mac;
        flipped[7] ^= 0x01;
        EXPECT_EQ(nt4h_check_sdm_mac(ctr, uid.data(), key.data(), input.data(), len, flipped.data()),
                  NT4H_CHECK_FAILED);
    }
}

TEST(SdmChecks, InputsTheKitCannotServeAreRefusedBeforeAnyMac)
{
    const Bytes uid(7, 0x04);
    Bytes input(300, 0x41);
    // Padded to 256, the kit's count would wrap and give back the zero IV: an all-zero MAC must not hold.
    const Bytes zero_mac(8, 0);
    for (uint32_t len : {241u, 250u, 255u, 256u, 300u})
        EXPECT_EQ(nt4h_check_sdm_mac(1, uid.data(), kZero.data(), input.data(), len, zero_mac.data()),
                  NT4H_CHECK_FAILED)
            << len;
    for (uint32_t len : {1u, 15u, 17u, 256u, 1000u}) {
        Bytes data(len > 300 ? 300 : len, 0x5A);
        const Bytes before = data;
        EXPECT_EQ(nt4h_decrypt_sdm_enc_file_data(1, uid.data(), kZero.data(), data.data(), len), NT4H_CHECK_FAILED)
            << len;
        EXPECT_EQ(data, before);
    }
    EXPECT_EQ(nt4h_check_sdm_mac(1, nullptr, kZero.data(), nullptr, 0, zero_mac.data()), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(nt4h_decrypt_picc_data(nullptr, kZero.data(), nullptr, nullptr, nullptr), ZEL_PARAMETERS_ERROR);
}

TEST(SdmChecks, EncryptedFileDataAgreesWithReferenceOverManyBlocks)
{
    const Bytes key = hex("F0E1D2C3B4A5968778695A4B3C2D1E0F"), uid = hex("04112233445566");
    const uint32_t ctr = 0x123456;
    const Bytes ses = ref_sdm_key(0xC3, key, uid, ctr);
    Bytes ivin(16, 0);
    ivin[0] = 0x56;
    ivin[1] = 0x34;
    ivin[2] = 0x12;
    const Bytes iv = ref_aes(ses, ivin, true);
    Bytes plain(240);
    for (size_t i = 0; i < plain.size(); ++i)
        plain[i] = static_cast<uint8_t>('A' + i % 26);
    Bytes data = ref_aes(ses, plain, true, iv);
    ASSERT_EQ(nt4h_decrypt_sdm_enc_file_data(ctr, uid.data(), key.data(), data.data(), 240), ZEL_OK);
    EXPECT_EQ(data, plain);
}

// ---- Transaction MACs against a reference built from the description ----

struct Tmac {
    Bytes key = hex("6B1E2A4C8D9F0A1B2C3D4E5F60718293"), uid = hex("04DEADBEEF0102");
    uint32_t tmc = 0x01020304;
    Bytes session(uint8_t label) const
    {
        Bytes sv{label, 0x00, 0x01, 0x00, 0x80};
        const Bytes t = zeltest::le32(tmc);
        sv.insert(sv.end(), t.begin(), t.end());
        sv.insert(sv.end(), uid.begin(), uid.end());
        return ref_cmac(key, sv);
    }
    Bytes mac(const Bytes &msg) const { return odd(ref_cmac(session(0x5A), msg)); }
};

Bytes value_message(uint8_t code, uint8_t file, uint32_t value, const Bytes *rid, const Bytes *prev)
{
    Bytes m(16, 0);
    m[0] = code;
    m[1] = file;
    zel::put_le32(m.data() + 2, value);
    if (rid) {
        m.resize(64, 0);
        m[16] = 0xC8;
        std::copy(rid->begin(), rid->end(), m.begin() + 17);
        if (prev)
            std::copy(prev->begin(), prev->end(), m.begin() + 33);
    }
    return m;
}

TEST(TransactionMac, ValueOperationsWithAndWithoutReaderId)
{
    const Tmac t;
    const Bytes rid = hex("A0A1A2A3A4A5A6A7A8A9AAABACADAEAF"), prev_plain = hex("B0B1B2B3B4B5B6B7B8B9BABBBCBDBEBF");
    const Bytes prev_enc = ref_aes(t.session(0xA5), prev_plain, true);
    using Check = ZEL_STATUS (*)(uint8_t, uint32_t, uint32_t, const uint8_t *, const uint8_t *, const uint8_t *,
                                 const uint8_t *, const uint8_t *, uint8_t *);
    const struct {
        uint8_t code;
        Check check;
    } ops[] = {{0x0C, dfl_check_credit_value_transaction_mac}, {0xDC, dfl_check_debit_value_transaction_mac}};
    for (const auto &op : ops) {
        // Without a reader id: 16 bytes, nothing to decipher.
        Bytes mac = t.mac(value_message(op.code, 3, 1234, nullptr, nullptr));
        EXPECT_EQ(op.check(3, 1234, t.tmc, t.uid.data(), t.key.data(), nullptr, nullptr, mac.data(), nullptr), ZEL_OK);
        EXPECT_EQ(op.check(3, 1235, t.tmc, t.uid.data(), t.key.data(), nullptr, nullptr, mac.data(), nullptr),
                  NT4H_CHECK_FAILED);
        EXPECT_EQ(op.check(4, 1234, t.tmc, t.uid.data(), t.key.data(), nullptr, nullptr, mac.data(), nullptr),
                  NT4H_CHECK_FAILED);
        EXPECT_EQ(op.check(3, 1234, t.tmc + 1, t.uid.data(), t.key.data(), nullptr, nullptr, mac.data(), nullptr),
                  NT4H_CHECK_FAILED);
        // With the reader ids: 64 bytes, and the previous reader id comes back deciphered.
        mac = t.mac(value_message(op.code, 3, 1234, &rid, &prev_enc));
        uint8_t prev[16] = {};
        EXPECT_EQ(op.check(3, 1234, t.tmc, t.uid.data(), t.key.data(), rid.data(), prev_enc.data(), mac.data(), prev),
                  ZEL_OK);
        EXPECT_EQ(Bytes(prev, prev + 16), prev_plain);
        // A MAC that does not hold leaves the output alone.
        uint8_t untouched[16];
        std::memset(untouched, 0x77, 16);
        mac[0] ^= 0x80;
        EXPECT_EQ(
            op.check(3, 1234, t.tmc, t.uid.data(), t.key.data(), rid.data(), prev_enc.data(), mac.data(), untouched),
            NT4H_CHECK_FAILED);
        EXPECT_EQ(Bytes(untouched, untouched + 16), Bytes(16, 0x77));
    }
    // Clear record: the code alone with the file number.
    Bytes m(16, 0);
    m[0] = 0xEB;
    m[1] = 9;
    const Bytes mac = t.mac(m);
    EXPECT_EQ(desfire_check_clear_record_transaction_mac(9, t.tmc, t.uid.data(), t.key.data(), nullptr, nullptr,
                                                         mac.data(), nullptr),
              ZEL_OK);
    // A credit MAC is no debit MAC.
    const Bytes credit = t.mac(value_message(0x0C, 3, 10, nullptr, nullptr));
    EXPECT_EQ(dfl_check_debit_value_transaction_mac(3, 10, t.tmc, t.uid.data(), t.key.data(), nullptr, nullptr,
                                                    credit.data(), nullptr),
              NT4H_CHECK_FAILED);
}

Bytes record_message(uint8_t code, uint8_t file, uint32_t offset, const Bytes &data, const Bytes *rid)
{
    Bytes m((data.size() + 16 + 15) / 16 * 16, 0);
    m[0] = code;
    m[1] = file;
    zel::put_le24(m.data() + 2, offset);
    zel::put_le24(m.data() + 5, static_cast<uint32_t>(data.size()));
    std::copy(data.begin(), data.end(), m.begin() + 16);
    if (rid) {
        const size_t at = m.size();
        m.resize(at + 48, 0);
        m[at] = 0xC8;
        std::copy(rid->begin(), rid->end(), m.begin() + static_cast<long>(at) + 1);
    }
    return m;
}

TEST(TransactionMac, WriteRecordBothFormsAndTheLengthLimit)
{
    const Tmac t;
    const Bytes rid = hex("0102030405060708090A0B0C0D0E0F10");
    for (uint32_t size : {0u, 1u, 16u, 100u, 176u, 224u}) {
        Bytes data(size);
        for (uint32_t i = 0; i < size; ++i)
            data[i] = static_cast<uint8_t>(i + 3);
        Bytes mac = t.mac(record_message(0x8B, 5, 0x10203, data, nullptr));
        EXPECT_EQ(dfl_check_write_record_transaction_mac(5, 0x10203, size, data.data(), t.tmc, t.uid.data(),
                                                         t.key.data(), nullptr, nullptr, mac.data(), nullptr),
                  ZEL_OK)
            << size;
        EXPECT_EQ(desfire_check_write_record_transaction_mac(5, 0x10203, size, data.data(), t.tmc, t.uid.data(),
                                                             t.key.data(), nullptr, nullptr, mac.data(), nullptr),
                  NT4H_CHECK_FAILED)
            << size;
        if (size <= 176) {
            mac = t.mac(record_message(0x3B, 5, 0, data, &rid));
            EXPECT_EQ(desfire_check_write_record_transaction_mac(5, 0, size, data.data(), t.tmc, t.uid.data(),
                                                                 t.key.data(), rid.data(), nullptr, mac.data(),
                                                                 nullptr),
                      ZEL_OK)
                << size;
        }
    }
    // Totals above 240 bytes are refused before any MAC: an all-zero MAC of a wrapped count never holds.
    const Bytes zero_mac(8, 0), big(600, 0x11);
    for (uint32_t size : {225u, 240u, 484u, 485u, 100000u})
        EXPECT_EQ(dfl_check_write_record_transaction_mac(5, 0, size, big.data(), t.tmc, t.uid.data(), t.key.data(),
                                                         nullptr, nullptr, zero_mac.data(), nullptr),
                  NT4H_CHECK_FAILED)
            << size;
    EXPECT_EQ(desfire_check_write_record_transaction_mac(5, 0, 177, big.data(), t.tmc, t.uid.data(), t.key.data(),
                                                         rid.data(), nullptr, zero_mac.data(), nullptr),
              NT4H_CHECK_FAILED);
}

// ---- The 0xB3 frames ----

const Bytes kAuth = hex("112233445566778899AABBCCDDEEFF00");

// The extended data the host sent with its command (without the checksum), after checking the frame.
Bytes sent_ext(const ScriptLink &link, uint8_t op)
{
    EXPECT_GE(link.writes.size(), 2u);
    if (link.writes.size() < 2)
        return {};
    const Bytes &f = link.writes[0];
    EXPECT_EQ(f[1], 0xB3);
    EXPECT_EQ(f[4], op);
    const Bytes &e = link.writes[1];
    EXPECT_EQ(f[3], e.size());
    return Bytes(e.begin(), e.end() - 1);
}

TEST(Ntag424Frames, KeyHeadsOfEveryForm)
{
    {
        ScriptLink link;
        link.reply(ack(0xB3));
        link.reply(response(0xB3, hex("04112233445566")));
        uint8_t uid[7] = {};
        ASSERT_EQ(nt4h_get_uid_pkM(&link.record, kAuth.data(), 2, uid), ZEL_OK);
        EXPECT_EQ(Bytes(uid, uid + 7), hex("04112233445566"));
        const Bytes e = sent_ext(link, 5);
        ASSERT_EQ(e.size(), 19u);
        EXPECT_EQ(e[0], NT4H_KEY_PROVIDED);
        EXPECT_EQ(Bytes(e.begin() + 2, e.begin() + 18), kAuth);
        EXPECT_EQ(e[18], 2);
    }
    {
        ScriptLink link;
        link.reply(ack(0xB3));
        link.reply(response(0xB3, {0x2A, 0x00, 0x01}));
        uint32_t ctr = 0;
        ASSERT_EQ(nt4h_get_sdm_read_ctrM(&link.record, 9, 2, 1, &ctr), ZEL_OK);
        EXPECT_EQ(ctr, 0x1002Au);
        const Bytes e = sent_ext(link, 7);
        ASSERT_EQ(e.size(), 20u);
        EXPECT_EQ(e[0], NT4H_KEY_READER);
        EXPECT_EQ(e[1], 9);
        EXPECT_EQ(Bytes(e.begin() + 2, e.begin() + 18), Bytes(16, 0));
        EXPECT_EQ(e[18], 1);
        EXPECT_EQ(e[19], 2);
    }
    {
        ScriptLink link;
        link.reply(ack(0xB3));
        link.reply(response(0xB3, {0x43, 0x4F}));
        uint8_t perm = 0, curr = 0;
        ASSERT_EQ(nt4h_get_tt_status_no_authM(&link.record, 0, &perm, &curr), ZEL_OK);
        EXPECT_EQ(perm, 0x43);
        EXPECT_EQ(curr, 0x4F);
        EXPECT_EQ(sent_ext(link, 9)[0], NT4H_KEY_NONE);
    }
    {
        ScriptLink link;
        link.reply(ack(0xB3));
        link.reply(response(0xB3, {}));
        const Bytes nk = hex("A1A2A3A4A5A6A7A8A9AAABACADAEAFB0"), ok = hex("0102030405060708090A0B0C0D0E0F10");
        ASSERT_EQ(dfl_change_keyM(&link.record, 4, 3, nk.data(), ok.data()), ZEL_OK);
        const Bytes e = sent_ext(link, 4);
        ASSERT_EQ(e.size(), 51u);
        EXPECT_EQ(e[1], 4);
        EXPECT_EQ(e[18], 3);
        EXPECT_EQ(Bytes(e.begin() + 19, e.begin() + 35), nk);
        EXPECT_EQ(Bytes(e.begin() + 35, e.end()), ok);
    }
}

TEST(Ntag424Frames, CardSelectorAndSettingsFields)
{
    {
        ScriptLink link;
        link.reply(ack(0xB3));
        link.reply(response(0xB3, {}));
        ASSERT_EQ(dfl_change_file_settings_pkM(&link.record, kAuth.data(), 2, 0, 3, 1, 1, 2, 3, 0), ZEL_OK);
        const Bytes e = sent_ext(link, 2);
        ASSERT_EQ(e.size(), 26u);
        EXPECT_EQ(Bytes(e.begin() + 18, e.end()), Bytes({2, 2, 0, 3, 3, 0x01, 0x30, 0x12}));
    }
    {
        ScriptLink link;
        link.reply(ack(0xB3));
        link.reply(response(0xB3, hex("0040EEEE000100C1F121200000430000430000")));
        uint8_t fs[NT4H_MAX_FILE_SETTINGS], len = 0;
        ASSERT_EQ(dfl_get_file_settingsM(&link.record, 2, fs, &len), ZEL_OK);
        EXPECT_EQ(Bytes(fs, fs + len), hex("0040EEEE000100C1F121200000430000430000"));
        EXPECT_EQ(sent_ext(link, 6), Bytes({NT4H_KEY_NONE, 0, 2, 2}));
    }
    {
        ScriptLink link;
        link.reply(ack(0xB3));
        link.reply(response(0xB3, {}));
        ASSERT_EQ(nt4h_set_ridM(&link.record, 1), ZEL_OK);
        const Bytes e = sent_ext(link, 3);
        ASSERT_EQ(e.size(), 22u);
        EXPECT_EQ(Bytes(e.begin() + 18, e.end()), Bytes({1, 0, 1, 0x02}));
    }
    {
        ScriptLink link;
        link.reply(ack(0xB3));
        link.reply(response(0xB3, {}));
        ASSERT_EQ(nt4h_set_global_parametersM(&link.record, 2, 1, 3), ZEL_OK);
        EXPECT_EQ(sent_ext(link, 1), Bytes({2, 1, 3}));
    }
}

TEST(Ntag424Frames, SdmSettingsOffsetsFollowTheAccessKeys)
{
    struct Case {
        nt4h_sdm_settings s;
        bool tt;
        const char *want;
    } cases[] = {
        // PICC data, MAC input, encrypted data and MAC, counter limit.
        {{1, 1, 1, 1, 0, 2, 3, 4, 0, 0, 0x20, 0x43, 0x43, 0x20, 0x70, 0x1000},
         false,
         "40E0EEF1F423200000430000430000200000700000001000"},
        // Plain mirror: UID and counter offsets, no MAC input when the file key is 15.
        {{1, 1, 0, 0, 1, 0x0E, 0x0F, 0x0E, 0x10, 0x20, 0, 0, 0, 0, 0, 0}, true, "40E0EEC9FEEF100000200000"},
        // Meta key 15: no PICC data, nothing but the MAC input and the MAC.
        {{0, 0, 0, 0, 0, 0x0F, 0x01, 0x0F, 0, 0, 0, 0x30, 0, 0, 0x40, 0}, false, "40E0EE01FFF1300000400000"},
    };
    for (const auto &c : cases) {
        uint8_t out[NT4H_MAX_FILE_SETTINGS];
        const uint8_t len = zel::ntag424::compose_sdm_settings(0, 0x0E, 0x0E, 0x0E, 0x00, c.s, c.tt, out);
        EXPECT_EQ(Bytes(out, out + len), hex(c.want)) << c.want;
    }
}

TEST(Ntag424Frames, RepliesThatDoNotFit)
{
    uint8_t uid[7];
    std::memset(uid, 0xAB, sizeof uid);
    for (const Bytes &data : {Bytes{}, hex("041122334455"), hex("0411223344556677")}) {
        ScriptLink link;
        link.reply(ack(0xB3));
        link.reply(response(0xB3, data));
        EXPECT_EQ(nt4h_get_uidM(&link.record, 1, 0, uid), ZEL_COMMUNICATION_ERROR) << data.size();
        EXPECT_EQ(Bytes(uid, uid + 7), Bytes(7, 0xAB));
    }
    {
        ScriptLink link;
        link.reply(ack(0xB3));
        link.reply(response(0xB3, Bytes(NT4H_MAX_FILE_SETTINGS + 1, 0x55)));
        uint8_t fs[NT4H_MAX_FILE_SETTINGS], len = 9;
        EXPECT_EQ(nt4h_get_file_settingsM(&link.record, 2, fs, &len), ZEL_BUFFER_OVERFLOW);
        EXPECT_EQ(len, 0);
    }
    {
        // The reader refuses: its error status is the outcome.
        ScriptLink link;
        link.reply(ack(0xB3));
        link.reply(zeltest::err(0x0C));
        EXPECT_EQ(dfl_delete_tmc_fileM(&link.record, 1, 3), 0x0Cu);
    }
    EXPECT_EQ(nt4h_get_uid_pkM(nullptr, kAuth.data(), 0, uid), ZEL_DEVICE_WRONG_HANDLE);
    ScriptLink link;
    EXPECT_EQ(nt4h_get_uid_pkM(&link.record, nullptr, 0, uid), ZEL_PARAMETERS_ERROR);
    EXPECT_TRUE(link.writes.empty());
}

} // namespace
