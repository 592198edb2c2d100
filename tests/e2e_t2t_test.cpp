// Type 2 tag extras end to end: counters, the NFC counter behind its password, password authentication,
// the signature and tag-tamper status of a simulated NTAG, Ultralight C key writes followed by 3DES
// authentication (the page order checked by the cryptography), and MIFARE authentication alone.
#include <cstring>
#include <vector>

#include "card_sim_fixture.h"

using zeltest::CardSimTest;

namespace {

using Bytes = std::vector<uint8_t>;

const char *NTAG = R"({
  "reader": {"keys": [{"index": 6, "key": "C0FFEE110000"}, {"index": 7, "key": "000000000000"}]},
  "cards": [{"uid": "04A22B1A5C6480", "sak": "00", "atqa": "0044", "type": "ORB_NTAG_213", "model": "ntag213",
             "setup": {"counters": [5, 6, 7], "password": "C0FFEE11", "pack": "9A5B",
                       "signature": "000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D1E1F",
                       "tt_message": "54414D50", "tt_status": "43",
                       "pages": [{"page": 42, "data": "08050000"}]}}]
})";

const uint8_t FACTORY[16] = {0x49, 0x45, 0x4D, 0x4B, 0x41, 0x45, 0x52, 0x42,
                             0x21, 0x4E, 0x41, 0x43, 0x55, 0x4F, 0x59, 0x46};

TEST_F(CardSimTest, NtagCountersAndPassword)
{
    start(NTAG);
    uint32_t v = 0;
    ASSERT_EQ(ReadCounterM(hnd, 0, &v), ZEL_OK);
    EXPECT_EQ(v, 5u);
    ASSERT_EQ(IncrementCounterM(hnd, 0, 10), ZEL_OK);
    ASSERT_EQ(ReadCounterM(hnd, 0, &v), ZEL_OK);
    EXPECT_EQ(v, 15u);
    EXPECT_NE(IncrementCounterM(hnd, 0, 0xFFFFFF), ZEL_OK); // 24 bits
    // The NFC counter wants the password (ACCESS bit 3): the reader's error, and the value stays.
    v = 99;
    EXPECT_EQ(ReadNFCCounterM(hnd, &v), ZEL_AUTH_ERROR);
    EXPECT_EQ(v, 99u);
    const uint8_t good[6] = {0xC0, 0xFF, 0xEE, 0x11, 0x9A, 0x5B}, bad_pack[6] = {0xC0, 0xFF, 0xEE, 0x11, 0, 0};
    EXPECT_EQ(ReadNFCCounterPwdAuth_PKM(hnd, &v, bad_pack), ZEL_AUTH_ERROR);
    ASSERT_EQ(ReadNFCCounterPwdAuth_PKM(hnd, &v, good), ZEL_OK);
    EXPECT_EQ(v, 7u);
    EXPECT_EQ(ReadNFCCounterPwdAuth_RKM(hnd, &v, 7), ZEL_AUTH_ERROR);
    ASSERT_EQ(ReadNFCCounterPwdAuth_RKM(hnd, &v, 6), ZEL_OK);
    // Password authentication gives the PACK; the password pages read as zeros.
    uint8_t pack[2] = {};
    const uint8_t pwd[4] = {0xC0, 0xFF, 0xEE, 0x11}, wrong[4] = {1, 2, 3, 4};
    EXPECT_EQ(T2T_PwdAuth_PKM(hnd, wrong, pack), ZEL_AUTH_ERROR);
    ASSERT_EQ(T2T_PwdAuth_PKM(hnd, pwd, pack), ZEL_OK);
    EXPECT_EQ(Bytes(pack, pack + 2), (Bytes{0x9A, 0x5B}));
    ASSERT_EQ(T2T_PwdAuthM(hnd, 6, pack), ZEL_OK);
    EXPECT_EQ(Bytes(pack, pack + 2), (Bytes{0x9A, 0x5B}));
}

TEST_F(CardSimTest, NtagSignatureVersionAndTamperStatus)
{
    start(NTAG);
    uint8_t sig[32], uid[10], uid_len = 0, type = 0;
    ASSERT_EQ(ReadECCSignatureM(hnd, sig, uid, &uid_len, &type), ZEL_OK);
    for (int i = 0; i < 32; ++i)
        ASSERT_EQ(sig[i], i);
    EXPECT_EQ(type, ORB_NTAG_213);
    uint8_t sak = 0, id[10] = {}, id_len = 0;
    ASSERT_EQ(GetCardIdExM(hnd, &sak, id, &id_len), ZEL_OK);
    EXPECT_EQ(uid_len, id_len);
    EXPECT_EQ(Bytes(uid, uid + 10), Bytes(id, id + 10));
    uint8_t sig2[56], sig_len = 0;
    ASSERT_EQ(ReadECCSignatureExtM(hnd, sig2, &sig_len, uid, &uid_len, &type), ZEL_OK);
    EXPECT_EQ(sig_len, 32);
    EXPECT_EQ(Bytes(sig2, sig2 + 32), Bytes(sig, sig + 32));
    uint8_t version[8];
    ASSERT_EQ(GetNfcT2TVersionM(hnd, version), ZEL_OK);
    EXPECT_EQ(version[2], 0x04); // an NTAG
    uint8_t msg[4], st = 0;
    ASSERT_EQ(ReadTTStatusM(hnd, msg, &st), ZEL_OK);
    EXPECT_EQ(Bytes(msg, msg + 4), (Bytes{'T', 'A', 'M', 'P'}));
    EXPECT_EQ(st, 0x43);
    // The NTAG DNA form is not this tag's.
    EXPECT_EQ(nt4h_rid_read_ecc_signatureM(hnd, 0, 0, sig2, &sig_len), ZEL_UNSUPPORTED_CARD_TYPE);
    EXPECT_EQ(OriginalityCheckM(hnd, sig, uid, uid_len, type), ZEL_NOT_IMPLEMENTED);
}

// Each key write is checked by a 3DES authentication that only succeeds when the tag's pages 44 to 47 hold
// the key in the card's order.
TEST_F(CardSimTest, UltralightCKeyWritesThenAuthentication)
{
    start(R"({"cards": [{"uid": "04C1C2C3C4C5C6", "sak": "00", "atqa": "0044", "type": "ORB_MIFARE_ULTRALIGHT_C",
                         "model": "ultralight_c"}]})");
    ASSERT_EQ(UlcAuth_PKM(hnd, FACTORY), ZEL_OK);
    uint8_t k1[16], k2[16], k3[16];
    for (int i = 0; i < 16; ++i) {
        k1[i] = static_cast<uint8_t>(0x11 * (i + 1));
        k2[i] = static_cast<uint8_t>(0xF0 - 3 * i);
        k3[i] = static_cast<uint8_t>(i * i + 1);
    }
    EXPECT_EQ(UlcAuth_PKM(hnd, k1), ZEL_AUTH_ERROR);
    ASSERT_EQ(ULC_write_3des_key_factory_keyM(hnd, k1), ZEL_OK);
    EXPECT_EQ(UlcAuth_PKM(hnd, FACTORY), ZEL_AUTH_ERROR);
    ASSERT_EQ(ULC_ExternalAuth_PKM(hnd, k1), ZEL_OK);
    // A wrong old key does not open the tag; the right one does.
    EXPECT_EQ(ULC_write_3des_keyM(hnd, k2, FACTORY), ZEL_AUTH_ERROR);
    ASSERT_EQ(ULC_write_3des_keyM(hnd, k2, k1), ZEL_OK);
    ASSERT_EQ(UlcAuth_PKM(hnd, k2), ZEL_OK);
    ASSERT_EQ(ULC_write_3des_key_no_authM(hnd, k3), ZEL_OK);
    ASSERT_EQ(UlcAuth_PKM(hnd, k3), ZEL_OK);
    EXPECT_EQ(UlcAuth_PKM(hnd, k2), ZEL_AUTH_ERROR);
    // The key pages read as zeros.
    uint8_t b[16];
    ASSERT_EQ(BlockReadM(hnd, b, 44, 0x60, 0), ZEL_OK);
    EXPECT_EQ(Bytes(b, b + 16), Bytes(16, 0));
}

// A tag without 3DES authentication refuses the key write's authenticated linear write, as a reader does:
// the key must not land in an NTAG's user memory.
TEST_F(CardSimTest, KeyWriteOnATagWithout3desIsRefused)
{
    start(R"({"cards": [{"uid": "04A22B1A5C6480", "sak": "00", "atqa": "0044", "type": "ORB_NTAG_215",
                         "model": "ntag215", "setup": {"pages": [{"page": 44, "data": "0102030405060708"}]}}]})");
    uint8_t before[16], after[16];
    ASSERT_EQ(BlockReadM(hnd, before, 44, 0x60, 0), ZEL_OK);
    const uint8_t key[16] = {0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7,
                             0xA8, 0xA9, 0xAA, 0xAB, 0xAC, 0xAD, 0xAE, 0xAF};
    EXPECT_EQ(ULC_write_3des_key_factory_keyM(hnd, key), ZEL_AUTH_ERROR);
    EXPECT_EQ(ULC_write_3des_keyM(hnd, key, FACTORY), ZEL_AUTH_ERROR);
    ASSERT_EQ(BlockReadM(hnd, after, 44, 0x60, 0), ZEL_OK);
    EXPECT_EQ(Bytes(after, after + 16), Bytes(before, before + 16));
    EXPECT_EQ(before[0], 0x01);
}

TEST_F(CardSimTest, MifareAuthenticationAlone)
{
    start(R"({"reader": {"keys": [{"index": 2, "key": "A0A1A2A3A4A5"}, {"index": 3, "key": "B0B1B2B3B4B5"}]},
              "cards": [{"uid": "C1C2C3C4", "sak": "08", "atqa": "0004", "type": "ORB_MIFARE_CLASSIC_1K",
                         "model": "classic_1k",
                         "setup": {"sectors": [{"sector": 1, "key_a": "A0A1A2A3A4A5", "key_b": "B0B1B2B3B4B5",
                                                "access": [0, 0, 0, 3]}]}}]})");
    const uint8_t ka[6] = {0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5}, kb[6] = {0xB0, 0xB1, 0xB2, 0xB3, 0xB4, 0xB5};
    EXPECT_EQ(MifareAuthKeyA_PKM(hnd, 4, ka), ZEL_OK);
    EXPECT_EQ(MifareAuthKeyB_PKM(hnd, 5, kb), ZEL_OK);
    EXPECT_EQ(MifareAuthKeyA_PKM(hnd, 4, kb), ZEL_AUTH_ERROR);
    EXPECT_EQ(MifareAuthKeyAM(hnd, 6, 2), ZEL_OK);
    EXPECT_EQ(MifareAuthKeyBM(hnd, 6, 2), ZEL_AUTH_ERROR);
    EXPECT_EQ(MifareAuthKeyBM(hnd, 6, 3), ZEL_OK);
    // Type 2 operations on a sector card, and random id functions on this reader.
    uint32_t v = 0;
    EXPECT_EQ(ReadCounterM(hnd, 0, &v), ZEL_UNSUPPORTED_CARD_TYPE);
    uint8_t reply[16];
    EXPECT_EQ(SetRIDM(hnd, 0, reply), ZEL_COMMAND_NOT_SUPPORTED);
}

} // namespace
