// The DESFire command family end to end: exported calls, frames on a pseudo-terminal, the simulated
// reader's DESFire engine and a simulated DESFire card that checks every key by mutual authentication.
#include <gtest/gtest.h>

#include <openssl/evp.h>

#include <cstring>
#include <vector>

#include "card_sim_fixture.h"
#include "core/frame.h"
#include "desfire.h" // the simulated card, for checks on the card's side
#include "tandro.h"
#include "transport/serial.h"
#include "zelsim.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint16_t OK = CARD_OPERATION_OK;
constexpr uint16_t card(uint8_t s)
{
    return static_cast<uint16_t>(3072 + s);
}

// Keys of the card, none of them trivial.
const uint8_t kPiccAes[16] = {0x51, 0x2A, 0x93, 0x0C, 0xE4, 0x7D, 0x16, 0xBF,
                              0x28, 0xC1, 0x5A, 0xF3, 0x8C, 0x25, 0xBE, 0x47};
const uint8_t kZero24[24] = {};
const uint8_t kAppKey0[16] = {0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7,
                              0xA8, 0xA9, 0xAA, 0xAB, 0xAC, 0xAD, 0xAE, 0xAF};
const uint8_t kReadKey[16] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88,
                              0x99, 0x00, 0xAB, 0xCD, 0xEF, 0x01, 0x23, 0x45};
const uint8_t kWriteKey[16] = {0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54, 0x32, 0x10,
                               0x0F, 0x1E, 0x2D, 0x3C, 0x4B, 0x5A, 0x69, 0x78};
constexpr uint32_t kAid = 0x00A1B2;

class DesfireSim : public zeltest::CardSimTest {
protected:
    void SetUp() override { serve(); }
    void add_card(const char *setup = R"({"master_key": "512A930CE47D16BF28C15AF38C25BE47", "master_key_type": "aes"})")
    {
        const zsim_card c = {{0x04, 0x51, 0x62, 0x73, 0x84, 0x95, 0xA6}, 7, 0x20, 0x0344, 0x29};
        ASSERT_EQ(zsim_card_add_model(sim, &c, "desfire", setup), 0);
    }
    // An AES application with five AES keys: key 0 kAppKey0, 1 kReadKey, 2 kWriteKey, 3 and 4 zero.
    void make_app()
    {
        ASSERT_EQ(Zel_int_DesfireCreateAesApplication_PKM(hnd, kPiccAes, kAid, 0x0F, 5, &cs, &et), ZEL_OK);
        ASSERT_EQ(cs, OK);
        ASSERT_EQ(Zel_int_DesfireChangeAesKey_PKM(hnd, kZero24, kAid, 0, kAppKey0, 0, kZero24, &cs, &et), ZEL_OK);
        ASSERT_EQ(cs, OK);
        ASSERT_EQ(Zel_int_DesfireChangeAesKey_aes_PKM(hnd, kAppKey0, kAid, 0, kReadKey, 1, kZero24, &cs, &et), ZEL_OK);
        ASSERT_EQ(cs, OK);
        ASSERT_EQ(Zel_int_DesfireChangeAesKey_aes_PKM(hnd, kAppKey0, kAid, 0, kWriteKey, 2, kZero24, &cs, &et), ZEL_OK);
        ASSERT_EQ(cs, OK);
    }

    uint16_t cs = 0, et = 0;
};

TEST_F(DesfireSim, WithoutACardTheReaderSaysSo)
{
    uint32_t free_mem = 77;
    ASSERT_EQ(Zel_int_DesfireFreeMemM(hnd, &free_mem, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, NO_CARD_DETECTED);
    uint32_t aids[4];
    uint8_t n = 4;
    ASSERT_EQ(Zel_int_DesfireGetApplicationIds_no_authM(hnd, aids, &n, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, NO_CARD_DETECTED);
    EXPECT_EQ(n, 0);
}

TEST_F(DesfireSim, ApplicationsOfEveryKeyTypeListedDeletedAndFormatted)
{
    add_card();
    uint32_t free0 = 0, free1 = 0;
    ASSERT_EQ(Zel_int_DesfireFreeMemM(hnd, &free0, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    EXPECT_EQ(free0, 4096u);

    ASSERT_EQ(Zel_int_DesfireCreateAesApplication_aes_PKM(hnd, kPiccAes, 0x112233, 0x0F, 3, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    ASSERT_EQ(Zel_int_DesfireCreateDesApplication_aes_PKM(hnd, kPiccAes, 0x445566, 0x0F, 2, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    ASSERT_EQ(Zel_int_DesfireCreate3k3desApplication_aes_PKM(hnd, kPiccAes, 0x778899, 0x0F, 1, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    ASSERT_EQ(Zel_int_DesfireCreateAesApplication_PKM(hnd, kPiccAes, 0x112233, 0x0F, 3, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, DESFIRE_CARD_DUPLICATE_ERROR);
    // The card's master key is checked: a wrong key is the card's authentication error.
    uint8_t wrong[16];
    std::memcpy(wrong, kPiccAes, 16);
    wrong[15] ^= 1;
    ASSERT_EQ(Zel_int_DesfireCreateAesApplication_PKM(hnd, wrong, 0x010203, 0x0F, 3, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, DESFIRE_CARD_AUTHENTICATION_ERROR);

    // Key settings tell each application's key type and count.
    uint8_t settings = 0, max_keys = 0;
    ASSERT_EQ(Zel_int_DesfireGetKeySettings_no_authM(hnd, 0x445566, &settings, &max_keys, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    EXPECT_EQ(settings, 0x0F);
    EXPECT_EQ(max_keys, 0x02);
    ASSERT_EQ(Zel_int_DesfireGetKeySettings_no_authM(hnd, 0x778899, &settings, &max_keys, &cs, &et), ZEL_OK);
    EXPECT_EQ(max_keys, 0x41);
    ASSERT_EQ(Zel_int_DesfireGetKeySettings_no_authM(hnd, 0x112233, &settings, &max_keys, &cs, &et), ZEL_OK);
    EXPECT_EQ(max_keys, 0x83);

    uint32_t aids[ZEL_DESFIRE_MAX_AIDS];
    std::memset(aids, 0xEE, sizeof aids);
    uint8_t n = 0;
    ASSERT_EQ(Zel_int_DesfireGetApplicationIds_PKM(hnd, kPiccAes, aids, &n, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    ASSERT_EQ(n, 3);
    // Each id fills its three low bytes; the high byte is the caller's.
    EXPECT_EQ(aids[0] & 0xFFFFFF, 0x112233u);
    EXPECT_EQ(aids[1] & 0xFFFFFF, 0x445566u);
    EXPECT_EQ(aids[2] & 0xFFFFFF, 0x778899u);
    EXPECT_EQ(aids[0] >> 24, 0xEEu);
    // The list is bounded by the room the caller gives.
    n = 2;
    EXPECT_EQ(Zel_int_DesfireGetApplicationIds_PKM(hnd, kPiccAes, aids, &n, &cs, &et), ZEL_BUFFER_OVERFLOW);
    EXPECT_EQ(n, 2);

    ASSERT_EQ(Zel_int_DesfireFreeMemM(hnd, &free1, &cs, &et), ZEL_OK);
    EXPECT_LT(free1, free0);

    ASSERT_EQ(Zel_int_DesfireDeleteApplication_aes_PKM(hnd, kPiccAes, 0x445566, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    ASSERT_EQ(Zel_int_DesfireDeleteApplication_aes_PKM(hnd, kPiccAes, 0x445566, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, DESFIRE_CARD_APPLICATION_NOT_FOUND);
    n = 0;
    ASSERT_EQ(Zel_int_DesfireGetApplicationIds_no_authM(hnd, aids, &n, &cs, &et), ZEL_OK);
    EXPECT_EQ(n, 2);

    ASSERT_EQ(Zel_int_DesfireFormatCard_PKM(hnd, kPiccAes, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    ASSERT_EQ(Zel_int_DesfireGetApplicationIds_no_authM(hnd, aids, &n, &cs, &et), ZEL_OK);
    EXPECT_EQ(n, 0);
    ASSERT_EQ(Zel_int_DesfireFreeMemM(hnd, &free1, &cs, &et), ZEL_OK);
    EXPECT_EQ(free1, free0);
}

TEST_F(DesfireSim, ReaderKeysAndSamKeysComeFromTheReadersStore)
{
    add_card();
    // The card's master key in reader slot 3, and a DES key in slot 5.
    EXPECT_EQ(Zel_int_DesfireWriteAesKeyM(hnd, 3, kPiccAes), ZEL_OK);
    const uint8_t des[8] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF0};
    EXPECT_EQ(Zel_int_DesfireWriteKeyM(hnd, 5, des, ZEL_DESFIRE_WIRE_DES), ZEL_OK);
    EXPECT_EQ(Zel_int_DesfireWriteAesKeyM(hnd, 16, kPiccAes), ZEL_MAX_KEY_INDEX_EXCEEDED);

    ASSERT_EQ(Zel_int_DesfireCreateAesApplicationM(hnd, 3, 0x0A0B0C, 0x0F, 2, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    ASSERT_EQ(Zel_int_DesfireCreateDesApplication_aesM(hnd, 3, 0x0D0E0F, 0x0F, 2, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    ASSERT_EQ(Zel_SAM_DesfireCreateDesApplicationAesAuthM(hnd, 3, 0x102030, 0x0F, 2, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    // A slot holding another key fails at the card.
    ASSERT_EQ(Zel_int_DesfireCreateAesApplicationM(hnd, 4, 0x405060, 0x0F, 2, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, DESFIRE_CARD_AUTHENTICATION_ERROR);

    // A DES application's key 0 set to the stored DES key, then used from the store, as a DES key and as
    // the 2K3DES key of equal halves.
    uint8_t des2[16];
    std::memcpy(des2, des, 8);
    std::memcpy(des2 + 8, des, 8);
    ASSERT_EQ(Zel_int_DesfireChangeDesKey_des_PKM(hnd, kZero24, 0x0D0E0F, 0, des, 0, kZero24, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    uint8_t settings = 0, max_keys = 0;
    ASSERT_EQ(Zel_int_DesfireGetKeySettings_desM(hnd, 5, 0x0D0E0F, &settings, &max_keys, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    ASSERT_EQ(Zel_int_DesfireGetKeySettings_2k3des_PKM(hnd, des2, 0x0D0E0F, &settings, &max_keys, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    ASSERT_EQ(Zel_SAM_DesfireGetKeySettingsDesAuthM(hnd, 5, 0x0D0E0F, &settings, &max_keys, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    // An AES key on a DES application is refused by the card.
    ASSERT_EQ(Zel_int_DesfireGetKeySettings_aesM(hnd, 3, 0x0D0E0F, &settings, &max_keys, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, DESFIRE_CARD_AUTHENTICATION_ERROR);
}

TEST_F(DesfireSim, StandardFileAccessRightsPerKeyAndChunkedWrites)
{
    add_card();
    make_app();
    // read key 1, write key 2, read and write key 3, change key 0
    ASSERT_EQ(Zel_int_DesfireCreateStdDataFile_aes_PKM(hnd, kAppKey0, kAid, 1, 400, 1, 2, 3, 0, 0, &cs, &et), ZEL_OK);
    ASSERT_EQ(cs, OK);
    for (uint16_t len : {160, 161, 320, 400}) {
        Bytes data(len);
        for (size_t i = 0; i < len; ++i)
            data[i] = static_cast<uint8_t>(i * 7 + len);
        ASSERT_EQ(Zel_int_DesfireWriteStdDataFile_PKM(hnd, kWriteKey, kAid, 2, 1, 0, len, 0, data.data(), &cs, &et),
                  ZEL_OK);
        EXPECT_EQ(cs, OK) << len;
        Bytes back(len + 8, 0xCC);
        ASSERT_EQ(Zel_int_DesfireReadStdDataFile_PKM(hnd, kReadKey, kAid, 1, 1, 0, len, 0, back.data(), &cs, &et),
                  ZEL_OK);
        EXPECT_EQ(cs, OK);
        EXPECT_EQ(Bytes(back.begin(), back.begin() + len), data) << len;
        EXPECT_EQ(back[len], 0xCC) << "nothing past the asked length";
    }
    // A part at an offset.
    uint8_t part[5] = {};
    ASSERT_EQ(Zel_int_DesfireReadStdDataFile_aes_PKM(hnd, kReadKey, kAid, 1, 1, 390, 5, 0, part, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    EXPECT_EQ(part[0], static_cast<uint8_t>(390 * 7 + 400));

    const uint8_t some[4] = {1, 2, 3, 4};
    // The read key may not write, nor may anyone without a key; the write key may not read.
    ASSERT_EQ(Zel_int_DesfireWriteStdDataFile_PKM(hnd, kReadKey, kAid, 1, 1, 0, 4, 0, some, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, DESFIRE_CARD_PERMISSION_DENIED);
    ASSERT_EQ(Zel_int_DesfireWriteStdDataFile_no_authM(hnd, kAid, 0, 1, 0, 4, 0, some, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, DESFIRE_CARD_PERMISSION_DENIED);
    uint8_t got[4];
    ASSERT_EQ(Zel_int_DesfireReadStdDataFile_PKM(hnd, kWriteKey, kAid, 2, 1, 0, 4, 0, got, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, DESFIRE_CARD_PERMISSION_DENIED);
    // A wrong key under the right number fails the authentication.
    ASSERT_EQ(Zel_int_DesfireReadStdDataFile_PKM(hnd, kWriteKey, kAid, 1, 1, 0, 4, 0, got, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, DESFIRE_CARD_AUTHENTICATION_ERROR);
    // Past the end.
    ASSERT_EQ(Zel_int_DesfireReadStdDataFile_PKM(hnd, kReadKey, kAid, 1, 1, 398, 4, 0, got, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, DESFIRE_CARD_BOUNDARY_ERROR);

    // Free access after the settings change: read key 14.
    ASSERT_EQ(Zel_int_DesfireChangeFileSettings_aes_PKM(hnd, kAppKey0, kAid, 1, 0, 14, 2, 3, 0, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    ASSERT_EQ(Zel_int_DesfireReadStdDataFile_no_authM(hnd, kAid, 0, 1, 0, 4, 0, got, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    EXPECT_EQ(got[1], static_cast<uint8_t>(7 + 400));

    uint32_t size = 0;
    ASSERT_EQ(Zel_int_DesfireGetStdFileSize_aes_PKM(hnd, kAppKey0, kAid, 1, &size, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    EXPECT_EQ(size, 400u);
    ASSERT_EQ(Zel_int_DesfireDeleteFile_PKM(hnd, kAppKey0, kAid, 1, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    ASSERT_EQ(Zel_int_DesfireReadStdDataFile_no_authM(hnd, kAid, 0, 1, 0, 4, 0, got, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, DESFIRE_CARD_FILE_NOT_FOUND);
}

TEST_F(DesfireSim, BackupFilesChangeOnlyOnCommit)
{
    add_card();
    make_app();
    ASSERT_EQ(Zel_int_DesfireCreateBackupDataFile_aes_PKM(hnd, kAppKey0, kAid, 4, 32, 14, 2, 2, 0, 0, &cs, &et),
              ZEL_OK);
    ASSERT_EQ(cs, OK);
    Bytes data(20);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<uint8_t>(0xB0 + i);
    ASSERT_EQ(Zel_int_DesfireWriteBackupDataFile_aes_PKM(hnd, kWriteKey, kAid, 2, 4, 3, 20, 0, data.data(), &cs, &et),
              ZEL_OK);
    EXPECT_EQ(cs, OK);
    Bytes back(20);
    ASSERT_EQ(Zel_int_DesfireReadStdDataFile_no_authM(hnd, kAid, 0, 4, 3, 20, 0, back.data(), &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    EXPECT_EQ(back, data) << "the reader commits after the write";
    zel_desfire_file_settings s;
    ASSERT_EQ(Zel_int_DesfireGetFileSettings_aes_PKM(hnd, kAppKey0, kAid, 4, &s, &cs, &et), ZEL_OK);
    EXPECT_EQ(s.file_type, ZEL_DESFIRE_FILE_BACKUP);
    EXPECT_EQ(s.file_size, 32u);
    EXPECT_EQ(s.read_key_no, 14);
    EXPECT_EQ(s.write_key_no, 2);
}

TEST(DesfireCardEngine, TransactionsHoldBackupValueAndRecordChanges)
{
    const zsim_card id = {{0x04, 1, 2, 3, 4, 5, 6}, 7, 0x20, 0x0344, 0x29};
    zs::DfSetup setup; // card master key: zero 2K3DES, free creation
    zs::DesfireCard card(id, setup);
    auto run = [&](Bytes c) { return card.native(c.data(), c.size()); };
    ASSERT_EQ(run({0xCA, 0x01, 0x00, 0x00, 0x0F, 0x01})[0], zs::DF_OK); // free creation on the card
    ASSERT_EQ(run({0x5A, 0x01, 0x00, 0x00})[0], zs::DF_OK);
    ASSERT_EQ(run({0xCB, 0x01, 0x00, 0xEE, 0xEE, 0x08, 0x00, 0x00})[0], zs::DF_OK);
    ASSERT_EQ(run({0xCC, 0x02, 0x00, 0xEE, 0xEE, 0, 0, 0, 0, 100, 0, 0, 0, 10, 0, 0, 0, 0})[0], zs::DF_OK);
    ASSERT_EQ(run({0xC0, 0x03, 0x00, 0xEE, 0xEE, 2, 0, 0, 3, 0, 0})[0], zs::DF_OK); // cyclic, 2 usable records

    ASSERT_EQ(run({0x3D, 0x01, 0, 0, 0, 2, 0, 0, 0xAA, 0xBB})[0], zs::DF_OK);
    EXPECT_EQ(run({0xBD, 0x01, 0, 0, 0, 2, 0, 0}), (Bytes{0x00, 0x00, 0x00})) << "before the commit: old data";
    ASSERT_EQ(run({0xC7})[0], zs::DF_OK);
    EXPECT_EQ(run({0xBD, 0x01, 0, 0, 0, 2, 0, 0}), (Bytes{0x00, 0xAA, 0xBB}));

    ASSERT_EQ(run({0x0C, 0x02, 50, 0, 0, 0})[0], zs::DF_OK);
    EXPECT_EQ(run({0x6C, 0x02}), (Bytes{0x00, 10, 0, 0, 0}));
    EXPECT_EQ(run({0x0C, 0x02, 41, 0, 0, 0})[0], zs::DF_BOUNDARY) << "60 + 41 passes the upper limit";
    ASSERT_EQ(run({0xA7})[0], zs::DF_OK);
    EXPECT_EQ(run({0x6C, 0x02}), (Bytes{0x00, 10, 0, 0, 0})) << "aborted";
    EXPECT_EQ(run({0xDC, 0x02, 11, 0, 0, 0})[0], zs::DF_BOUNDARY) << "below the lower limit";

    for (uint8_t v : {1, 2, 3}) {
        ASSERT_EQ(run({0x3B, 0x03, 0, 0, 0, 2, 0, 0, v, v})[0], zs::DF_OK);
        ASSERT_EQ(run({0xC7})[0], zs::DF_OK);
    }
    EXPECT_EQ(run({0xBB, 0x03, 0, 0, 0, 0, 0, 0}), (Bytes{0x00, 2, 2, 3, 3})) << "the oldest record made room";
    ASSERT_EQ(run({0xEB, 0x03})[0], zs::DF_OK);
    EXPECT_EQ(run({0xBB, 0x03, 0, 0, 0, 0, 0, 0}).size(), 5u) << "clearing waits for the commit too";
    ASSERT_EQ(run({0xC7})[0], zs::DF_OK);
    EXPECT_EQ(run({0xBB, 0x03, 0, 0, 0, 0, 0, 0})[0], zs::DF_BOUNDARY);
}

TEST_F(DesfireSim, ValueFilesWithLimitsAndTransactionMac)
{
    add_card();
    make_app();
    // read 1, write 2, read and write 2, change 0
    ASSERT_EQ(Zel_int_DesfireCreateValueFile_PKM(hnd, kAppKey0, kAid, 2, -100, 1000, 50, 1, 1, 2, 2, 0, 0, &cs, &et),
              ZEL_OK);
    ASSERT_EQ(cs, OK);
    int32_t value = 0;
    ASSERT_EQ(Zel_int_DesfireReadValueFile_PKM(hnd, kReadKey, kAid, 1, 2, 0, &value, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    EXPECT_EQ(value, 50);
    ASSERT_EQ(Zel_int_DesfireIncreaseValueFile_PKM(hnd, kWriteKey, kAid, 2, 2, 0, 25, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    ASSERT_EQ(Zel_int_DesfireDecreaseValueFile_PKM(hnd, kWriteKey, kAid, 2, 2, 0, 200, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, DESFIRE_CARD_BOUNDARY_ERROR);
    ASSERT_EQ(Zel_int_DesfireDecreaseValueFile_PKM(hnd, kReadKey, kAid, 1, 2, 0, 170, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK) << "the read key may debit";
    ASSERT_EQ(Zel_int_DesfireIncreaseValueFile_PKM(hnd, kReadKey, kAid, 1, 2, 0, 1, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, DESFIRE_CARD_PERMISSION_DENIED) << "but not credit";
    ASSERT_EQ(Zel_int_DesfireReadValueFile_PKM(hnd, kReadKey, kAid, 1, 2, 0, &value, &cs, &et), ZEL_OK);
    EXPECT_EQ(value, -95);

    zel_desfire_file_settings s;
    std::memset(&s, 0x5A, sizeof s);
    ASSERT_EQ(Zel_int_DesfireGetFileSettings_aes_PKM(hnd, kAppKey0, kAid, 2, &s, &cs, &et), ZEL_OK);
    EXPECT_EQ(s.file_type, ZEL_DESFIRE_FILE_VALUE);
    EXPECT_EQ(s.lower_limit, -100);
    EXPECT_EQ(s.upper_limit, 1000);
    EXPECT_EQ(s.limited_credit_enabled, 1);
    EXPECT_EQ(s.file_size, 0u) << "fields of other types are cleared";
    uint32_t size = 1;
    ASSERT_EQ(Zel_int_DesfireGetStdFileSize_aes_PKM(hnd, kAppKey0, kAid, 2, &size, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, DESFIRE_CARD_FILE_NOT_FOUND) << "a value file has no size";

    // Transaction MAC: the counter and the MAC value of the card's commit come back.
    const uint8_t tmac_key[16] = {0x3C, 0x5A, 0x78, 0x96, 0xB4, 0xD2, 0xF0, 0x1E,
                                  0x2D, 0x4B, 0x69, 0x87, 0xA5, 0xC3, 0xE1, 0x0F};
    ASSERT_EQ(Zel_int_DesfireCreateTransMacFile_aes_PKM(hnd, kAppKey0, kAid, 7, 1, 2, 0, 0, tmac_key, &cs, &et),
              ZEL_OK);
    ASSERT_EQ(cs, OK);
    uint8_t reader_id[16], prev[16], mac[8];
    uint32_t counter = 0;
    std::memset(mac, 0, sizeof mac);
    ASSERT_EQ(Zel_int_DesfireIncreaseValueFile_TransMac_aes_PKM(hnd, kWriteKey, kAid, 2, 2, 0, 5, 1, reader_id, prev,
                                                                &counter, mac, &cs, &et),
              ZEL_OK);
    EXPECT_EQ(cs, OK);
    EXPECT_EQ(counter, 1u);
    // The simulated card's MAC: the counter and the reader id under the file's key.
    uint8_t blk[16] = {1, 0, 0, 0};
    std::memcpy(blk + 4, reader_id, 12);
    uint8_t want[16];
    int outl = 0;
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex(ctx, EVP_aes_128_ecb(), nullptr, tmac_key, nullptr);
    EVP_EncryptUpdate(ctx, want, &outl, blk, 16);
    EVP_CIPHER_CTX_free(ctx);
    EXPECT_EQ(Bytes(mac, mac + 8), Bytes(want, want + 8));
    ASSERT_EQ(Zel_int_DesfireDecreaseValueFile_TransMac_aes_PKM(hnd, kWriteKey, kAid, 2, 2, 0, 5, 0, reader_id, prev,
                                                                &counter, mac, &cs, &et),
              ZEL_OK);
    EXPECT_EQ(counter, 2u);
    ASSERT_EQ(Zel_int_DesfireReadValueFile_PKM(hnd, kReadKey, kAid, 1, 2, 0, &value, &cs, &et), ZEL_OK);
    EXPECT_EQ(value, -95);
}

TEST_F(DesfireSim, LinearAndCyclicRecords)
{
    add_card();
    make_app();
    ASSERT_EQ(Zel_int_DesfireCreateLinearRecordFile_aes_PKM(hnd, kAppKey0, kAid, 5, 6, 3, 1, 2, 2, 0, 0, &cs, &et),
              ZEL_OK);
    ASSERT_EQ(cs, OK);
    ASSERT_EQ(Zel_int_DesfireCreateCyclicRecordFile_aes_PKM(hnd, kAppKey0, kAid, 6, 4, 3, 1, 2, 2, 0, 0, &cs, &et),
              ZEL_OK);
    ASSERT_EQ(cs, OK);
    for (uint8_t r = 1; r <= 4; ++r) {
        const uint8_t rec[6] = {r, r, r, r, r, r};
        ASSERT_EQ(Zel_int_DesfireWriteRecord_aes_PKM(hnd, kWriteKey, kAid, 2, 5, 0, 6, 0, rec, &cs, &et), ZEL_OK);
        EXPECT_EQ(cs, r <= 3 ? OK : DESFIRE_CARD_BOUNDARY_ERROR) << int(r);
        ASSERT_EQ(Zel_int_DesfireWriteRecord_aes_PKM(hnd, kWriteKey, kAid, 2, 6, 0, 4, 0, rec, &cs, &et), ZEL_OK);
        EXPECT_EQ(cs, OK);
    }
    uint8_t out[18] = {};
    ASSERT_EQ(Zel_int_DesfireReadRecords_aes_PKM(hnd, kReadKey, kAid, 1, 5, 0, 3, 6, 0, out, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    EXPECT_EQ(out[0], 1);
    EXPECT_EQ(out[12], 3);
    ASSERT_EQ(Zel_int_DesfireReadRecords_aes_PKM(hnd, kReadKey, kAid, 1, 6, 0, 2, 4, 0, out, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    EXPECT_EQ(Bytes(out, out + 8), (Bytes{3, 3, 3, 3, 4, 4, 4, 4})) << "a cyclic file keeps the newest";
    zel_desfire_file_settings s;
    ASSERT_EQ(Zel_int_DesfireGetFileSettings_aes_PKM(hnd, kAppKey0, kAid, 5, &s, &cs, &et), ZEL_OK);
    EXPECT_EQ(s.file_type, ZEL_DESFIRE_FILE_LINEAR_RECORD);
    EXPECT_EQ(s.record_size, 6u);
    EXPECT_EQ(s.max_records, 3u);
    EXPECT_EQ(s.current_records, 3u);

    // Clearing needs the read and write key; the _2 form names the key it authenticates with.
    ASSERT_EQ(Zel_int_DesfireClearRecordFile_aes_PK_2M(hnd, kReadKey, kAid, 1, 5, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, DESFIRE_CARD_PERMISSION_DENIED);
    ASSERT_EQ(Zel_int_DesfireClearRecordFile_aes_PK_2M(hnd, kWriteKey, kAid, 2, 5, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    ASSERT_EQ(Zel_int_DesfireGetFileSettings_aes_PKM(hnd, kAppKey0, kAid, 5, &s, &cs, &et), ZEL_OK);
    EXPECT_EQ(s.current_records, 0u);
}

TEST_F(DesfireSim, ChangingKeysOfEveryTypeAndTheMasterKeyType)
{
    add_card(R"({"master_key_type": "des"})"); // an all-zero DES master key
    // DES to AES and back, and the card still answers to the all-zero key of each type.
    ASSERT_EQ(DES_to_AES_key_typeM(hnd), ZEL_OK);
    uint32_t aids[4];
    uint8_t n = 0;
    ASSERT_EQ(Zel_int_DesfireGetApplicationIds_aes_PKM(hnd, kZero24, aids, &n, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    ASSERT_EQ(Zel_int_DesfireGetApplicationIds_des_PKM(hnd, kZero24, aids, &n, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, DESFIRE_CARD_AUTHENTICATION_ERROR);
    ASSERT_EQ(DES_to_AES_key_typeM(hnd), ZEL_AUTH_ERROR) << "it is an AES key now";
    ASSERT_EQ(AES_to_DES_key_typeM(hnd), ZEL_OK);
    ASSERT_EQ(Zel_int_DesfireGetApplicationIds_des_PKM(hnd, kZero24, aids, &n, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);

    // The master key to a 3K3DES key through the general change, then used.
    const uint8_t k3[24] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0xFE, 0xDC, 0xBA, 0x98,
                            0x76, 0x54, 0x32, 0x10, 0x0F, 0x1E, 0x2D, 0x3C, 0x4B, 0x5A, 0x69, 0x78};
    ASSERT_EQ(
        Zel_int_DesfireChangeMasterKey_PKM(hnd, kZero24, ZEL_DESFIRE_WIRE_DES, k3, ZEL_DESFIRE_WIRE_3K3DES, &cs, &et),
        ZEL_OK);
    EXPECT_EQ(cs, OK);
    ASSERT_EQ(Zel_int_DesfireCreate3k3desApplication_3k3des_PKM(hnd, k3, 0x330000, 0x0F, 2, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    // In the 3K3DES application: key 1 to k3 with the 3K3DES change, authenticating with key 0 (zero).
    ASSERT_EQ(Zel_int_DesfireChange3K3DesKey_3k3des_PKM(hnd, kZero24, 0x330000, 0, k3, 1, kZero24, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    // The old key given wrong is refused by the card.
    ASSERT_EQ(Zel_int_DesfireChange3K3DesKey_3k3des_PKM(hnd, kZero24, 0x330000, 0, k3, 1, kZero24, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, DESFIRE_CARD_INTEGRITY_ERROR);

    // A 2K3DES application key through the reader's store.
    const uint8_t k2[16] = {0x10, 0x32, 0x54, 0x76, 0x98, 0xBA, 0xDC, 0xFE,
                            0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF};
    ASSERT_EQ(Zel_int_DesfireCreateDesApplication_3k3des_PKM(hnd, k3, 0x220000, 0x0F, 2, &cs, &et), ZEL_OK);
    ASSERT_EQ(cs, OK);
    ASSERT_EQ(Zel_int_DesfireWriteKeyM(hnd, 7, k2, ZEL_DESFIRE_WIRE_2K3DES), ZEL_OK);
    ASSERT_EQ(Zel_int_DesfireChange2K3DesKey_des_PKM(hnd, kZero24, 0x220000, 0, k2, 0, kZero24, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    uint8_t settings = 0, max_keys = 0;
    ASSERT_EQ(Zel_int_DesfireGetKeySettings_2k3desM(hnd, 7, 0x220000, &settings, &max_keys, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    ASSERT_EQ(Zel_int_DesfireChangeKeySettings_2k3desM(hnd, 7, 0x220000, 0x09, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    ASSERT_EQ(Zel_int_DesfireGetKeySettings_2k3desM(hnd, 7, 0x220000, &settings, &max_keys, &cs, &et), ZEL_OK);
    EXPECT_EQ(settings, 0x09);

    // The AES change with keys named in the store (_A).
    ASSERT_EQ(Zel_int_DesfireCreateAesApplication_3k3des_PKM(hnd, k3, 0x110000, 0x0F, 2, &cs, &et), ZEL_OK);
    ASSERT_EQ(Zel_int_DesfireWriteAesKeyM(hnd, 8, kZero24), ZEL_OK);
    ASSERT_EQ(Zel_int_DesfireWriteAesKeyM(hnd, 9, kReadKey), ZEL_OK);
    ASSERT_EQ(Zel_int_DesfireChangeAesKey_AM(hnd, 8, 0x110000, 0, 9, 1, 8, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    ASSERT_EQ(Zel_int_DesfireChangeAesKey_AM(hnd, 8, 0x110000, 0, 9, 1, 8, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, DESFIRE_CARD_INTEGRITY_ERROR) << "key 1 is no longer the zero key";
}

TEST_F(DesfireSim, UidAndConfiguration)
{
    add_card();
    uint8_t uid[10];
    std::memset(uid, 0x77, sizeof uid);
    uint8_t len = 0;
    ASSERT_EQ(Zel_int_GetDesfireUid_PKM(hnd, kPiccAes, 0, 0, uid, &len, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    EXPECT_EQ(len, 7);
    EXPECT_EQ(Bytes(uid, uid + 7), (Bytes{0x04, 0x51, 0x62, 0x73, 0x84, 0x95, 0xA6}));
    EXPECT_GT(et, 0);
    ASSERT_EQ(Zel_int_GetDesfireUid_PKM(hnd, kZero24, 0, 0, uid, &len, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, DESFIRE_CARD_AUTHENTICATION_ERROR);
    EXPECT_EQ(len, 0);
    EXPECT_EQ(uid[0], 0) << "a reply without a UID clears it";

    // Format disabled by the configuration.
    ASSERT_EQ(Zel_int_DesfireSetConfiguration_PKM(hnd, kPiccAes, 0, 1, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    ASSERT_EQ(Zel_int_DesfireFormatCard_PKM(hnd, kPiccAes, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, DESFIRE_CARD_PERMISSION_DENIED);
    ASSERT_EQ(Zel_int_DesfireSetTransactionTimer_aes_PKM(hnd, kPiccAes, 3, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    // The option form: option 0 with format allowed again, then an option the card does not know.
    const uint8_t allow_format = 0x00;
    ASSERT_EQ(Zel_int_DesfireSetConfigurationEx_PKM(hnd, kPiccAes, 0, 0, &allow_format, 1, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    ASSERT_EQ(Zel_int_DesfireFormatCard_PKM(hnd, kPiccAes, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    ASSERT_EQ(Zel_int_DesfireSetConfigurationEx_PKM(hnd, kPiccAes, 0, 0x0A, &allow_format, 1, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, DESFIRE_CARD_PARAMETER_ERROR);
}

// Secure Dynamic Messaging settings of a standard file: set through the change with SDM data, read back with
// the offsets that apply; the card checks their length and the file type.
TEST_F(DesfireSim, SdmSettingsOfAStandardFile)
{
    add_card();
    make_app();
    ASSERT_EQ(Zel_int_DesfireCreateStdDataFile_aes_PKM(hnd, kAppKey0, kAid, 1, 256, 14, 0, 0, 0, 0, &cs, &et), ZEL_OK);
    ASSERT_EQ(cs, OK);
    zel_desfire_sdm_file_settings s;
    ASSERT_EQ(Zel_int_DesfireGetFileSettingsSdm_aes_PKM(hnd, kAppKey0, kAid, 1, &s, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    EXPECT_EQ(s.sdm_enabled, 0);
    EXPECT_EQ(s.file_size, 256u);
    EXPECT_EQ(s.read_key_no, 14);

    // Plain UID and counter mirrors, a MAC with the file read key 2, counter key 1.
    const Bytes sdm = {0x40, 0x00, 0xE0, 0xC1, 0xF1, 0xE2, 0x20, 0x00, 0x00,
                       0x40, 0x00, 0x00, 0x50, 0x00, 0x00, 0x60, 0x00, 0x00};
    ASSERT_EQ(Zel_int_DesfireChangeFileSettingsSdm_PKM(hnd, kAppKey0, kAid, 1, 0, 14, 0, 0, 0, sdm.data(),
                                                       static_cast<uint8_t>(sdm.size()), &cs, &et),
              ZEL_OK);
    EXPECT_EQ(cs, OK);
    ASSERT_EQ(Zel_int_DesfireGetFileSettingsSdm_aes_PKM(hnd, kAppKey0, kAid, 1, &s, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    EXPECT_EQ(s.sdm_enabled, 1);
    EXPECT_EQ(s.file_size, 256u);
    EXPECT_EQ(s.sdm_options, 0xC1);
    EXPECT_EQ(s.meta_read_key_no, 14);
    EXPECT_EQ(s.file_read_key_no, 2);
    EXPECT_EQ(s.read_ctr_key_no, 1);
    EXPECT_EQ(s.uid_offset, 0x20u);
    EXPECT_EQ(s.read_ctr_offset, 0x40u);
    EXPECT_EQ(s.mac_input_offset, 0x50u);
    EXPECT_EQ(s.mac_offset, 0x60u);
    // The ordinary settings read sees the same file.
    zel_desfire_file_settings plain;
    ASSERT_EQ(Zel_int_DesfireGetFileSettings_aes_PKM(hnd, kAppKey0, kAid, 1, &plain, &cs, &et), ZEL_OK);
    EXPECT_EQ(plain.file_size, 256u);

    // One offset short, and SDM on a value file, are refused by the card.
    ASSERT_EQ(Zel_int_DesfireChangeFileSettingsSdm_PKM(hnd, kAppKey0, kAid, 1, 0, 14, 0, 0, 0, sdm.data(),
                                                       static_cast<uint8_t>(sdm.size() - 3), &cs, &et),
              ZEL_OK);
    EXPECT_EQ(cs, DESFIRE_CARD_LENGTH_ERROR);
    ASSERT_EQ(Zel_int_DesfireCreateValueFile_PKM(hnd, kAppKey0, kAid, 2, 0, 100, 0, 0, 0, 0, 0, 0, 0, &cs, &et),
              ZEL_OK);
    ASSERT_EQ(cs, OK);
    ASSERT_EQ(Zel_int_DesfireChangeFileSettingsSdm_PKM(hnd, kAppKey0, kAid, 2, 0, 14, 0, 0, 0, sdm.data(),
                                                       static_cast<uint8_t>(sdm.size()), &cs, &et),
              ZEL_OK);
    EXPECT_EQ(cs, DESFIRE_CARD_PARAMETER_ERROR);
    ASSERT_EQ(Zel_int_DesfireGetFileSettingsSdm_aes_PKM(hnd, kAppKey0, kAid, 2, &s, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, ZEL_DESFIRE_NOT_STANDARD_FILE);
    EXPECT_EQ(s.file_size, 0u);
}

// The frames the reader receives, for the forms whose layout differs.
TEST_F(DesfireSim, FramesOfTheKeyForms)
{
    add_card();
    uint8_t buf[8];
    // 3K3DES: a key field of 24 bytes moves everything by 8; PAR0 high nibble 1.
    const uint8_t k3[24] = {0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F, 0x60, 0x71, 0x82, 0x93, 0xA4, 0xB5,
                            0xC6, 0xD7, 0xE8, 0xF9, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18};
    Zel_int_DesfireReadStdDataFile_3k3des_PKM(hnd, k3, 0x123456, 3, 9, 0x0102, 4, 3, buf, &cs, &et);
    Bytes r = last_request();
    ASSERT_EQ(r.size(), 7u + 0x26);
    EXPECT_EQ(r[1], 0x83);
    EXPECT_EQ(r[3], 0x26);
    EXPECT_EQ(r[4], 0x10);
    EXPECT_EQ(Bytes(r.begin() + 9, r.begin() + 33), Bytes(k3, k3 + 24));
    EXPECT_EQ(Bytes(r.begin() + 33, r.begin() + 36), (Bytes{0x56, 0x34, 0x12}));
    EXPECT_EQ(r[7 + 29], 3);    // AID key number
    EXPECT_EQ(r[7 + 30], 9);    // file id
    EXPECT_EQ(r[7 + 31], 1);    // auth flag
    EXPECT_EQ(r[7 + 32], 0x02); // offset, little endian
    EXPECT_EQ(r[7 + 36], 3);    // communication settings

    // No authentication: source 0, key number 0, zero key, auth flag 0.
    Zel_int_DesfireReadStdDataFile_no_authM(hnd, 0x123456, 5, 9, 0, 4, 0, buf, &cs, &et);
    r = last_request();
    ASSERT_EQ(r.size(), 7u + 30);
    EXPECT_EQ(r[4], 0x00);
    EXPECT_EQ(Bytes(r.begin() + 7, r.begin() + 25), Bytes(18, 0));
    EXPECT_EQ(r[7 + 23], 0);

    // The reader key form names the key by number; DES is PAR0 high nibble 2, 2K3DES 3.
    Zel_int_DesfireDeleteFile_desM(hnd, 6, 0x123456, 2, &cs, &et);
    r = last_request();
    EXPECT_EQ(r[4], 0x20);
    EXPECT_EQ(r[7], 1);
    EXPECT_EQ(r[8], 6);
    Zel_int_DesfireDeleteFile_2k3desM(hnd, 6, 0x123456, 2, &cs, &et);
    EXPECT_EQ(last_request()[4], 0x30);
    Zel_SAM_DesfireDeleteFile2k3desAuthM(hnd, 6, 0x123456, 2, &cs, &et);
    r = last_request();
    EXPECT_EQ(r[4], 0x30);
    EXPECT_EQ(r[7], 2);

    // The plain name and _aes are the same frame.
    Zel_int_DesfireDeleteFileM(hnd, 4, 0x010203, 2, &cs, &et);
    const Bytes plain = last_request();
    Zel_int_DesfireDeleteFile_aesM(hnd, 4, 0x010203, 2, &cs, &et);
    EXPECT_EQ(last_request(), plain);

    // _iso without an identifier: size 31, no 0x80; with one: size 33.
    Zel_int_DesfireCreateStdDataFile_iso_aes_PKM(hnd, kPiccAes, 0x010203, 1, 32, 0, 0, 0, 0, 0, 0, &cs, &et);
    r = last_request();
    EXPECT_EQ(r[3], 31);
    EXPECT_EQ(r[4] & 0x80, 0);
    Zel_int_DesfireCreateStdDataFile_iso_aes_PKM(hnd, kPiccAes, 0x010203, 1, 32, 0, 0, 0, 0, 0, 0xE104, &cs, &et);
    r = last_request();
    EXPECT_EQ(r[3], 33);
    EXPECT_EQ(r[4] & 0x80, 0x80);
    EXPECT_EQ(r[7 + 30], 0x04);
    // An application's DF name without an identifier: size 26 plus the name's length, the name at 27.
    const uint8_t name[5] = {'D', 'F', 'N', 'A', 'M'};
    Zel_int_DesfireCreateAesApplication_iso_aes_PKM(hnd, kPiccAes, 0x0F0E0D, 0x0F, 1, 0, name, 5, &cs, &et);
    r = last_request();
    EXPECT_EQ(r[3], 26 + 5);
    EXPECT_EQ(r[4], 0x80);
    EXPECT_EQ(r[7 + 26], 5);
    EXPECT_EQ(r[7 + 27], 'D');
    // Access rights: read in bits 12 to 15 ... change in 0 to 3, each masked to four bits.
    Zel_int_DesfireChangeFileSettings_aes_PKM(hnd, kPiccAes, 0x010203, 1, 3, 0x1A, 0x2B, 0x3C, 0x4D, &cs, &et);
    r = last_request();
    EXPECT_EQ(r[7 + 23], 0xCD);
    EXPECT_EQ(r[7 + 24], 0xAB);
}

TEST_F(DesfireSim, CallFormsOnTheGlobalHandle)
{
    add_card();
    zel_handle_record saved;
    std::memcpy(static_cast<void *>(&saved), &zel_global, sizeof saved);
    Zel_Hnd_SetGlobal(hnd);
    uint32_t free_mem = 0;
    EXPECT_EQ(Zel_int_DesfireFreeMem(&free_mem, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    EXPECT_EQ(free_mem, 4096u);
    uint8_t n = 0;
    uint32_t aids[4];
    EXPECT_EQ(Zel_int_DesfireGetApplicationIds_aes_PK(kPiccAes, aids, &n, &cs, &et), ZEL_OK);
    EXPECT_EQ(cs, OK);
    std::memcpy(static_cast<void *>(&zel_global), &saved, sizeof saved);
}

} // namespace
