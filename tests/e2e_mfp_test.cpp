// MIFARE Plus against the simulated reader: personalisation of a level 0 card, the switch to level 3, AES
// sector reads and key changes there, the UID reads, the level 1 card as a Classic card to the block
// commands and the NDEF store, and the refusals on the way.
#include <cstring>
#include <string>
#include <vector>

#include "card_sim_fixture.h"
#include "core/internal.h"
#include "ndef_test_support.h"

using zeltest::CardSimTest;

namespace {

using Key = std::vector<uint8_t>;

Key key_of(uint8_t b)
{
    return Key(16, b);
}

const Key FF = key_of(0xFF);
const uint8_t CLASSIC_FF[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
const uint8_t UID7[7] = {0x04, 0x5A, 0x11, 0x22, 0x33, 0x44, 0x80};

std::string plus_card(const char *type, const std::string &setup = "")
{
    std::string s = R"({"cards": [{"uid": "045A1122334480", "sak": "20", "atqa": "0044", "type": ")" +
                    std::string(type) + R"(", "model": "plus")";
    if (!setup.empty())
        s += ", \"setup\": " + setup;
    return s + "}]}";
}

void no_sleep(uint32_t) {}

class MfpE2E : public CardSimTest {
protected:
    void SetUp() override
    {
        zel::set_sleep_hook(no_sleep);
        std::memcpy(static_cast<void *>(&saved_), &zel_global, sizeof saved_);
        for (int i = 0; i < 9; ++i)
            keys_[i] = key_of(static_cast<uint8_t>(0x11 * (i + 1)));
    }
    void TearDown() override
    {
        std::memcpy(static_cast<void *>(&zel_global), &saved_, sizeof saved_);
        zel::set_sleep_hook(nullptr);
        CardSimTest::TearDown();
    }
    // The personalisation deselects on the global handle: lend it this reader, as an application with one
    // reader has it.
    ZEL_STATUS personalise()
    {
        std::memcpy(static_cast<void *>(&zel_global), hnd, sizeof zel_global);
        return MFP_PersonalizationMinimalM(hnd, keys_[0].data(), keys_[1].data(), keys_[2].data(), keys_[3].data(),
                                           keys_[4].data(), keys_[5].data(), keys_[6].data(), keys_[7].data(),
                                           keys_[8].data());
    }
    uint8_t card_type()
    {
        uint8_t t = 0;
        EXPECT_EQ(GetOrbCardTypeM(hnd, &t), ZEL_OK);
        return t;
    }
    ZEL_STATUS aes_read(uint8_t block, uint8_t mode, const Key &key, uint8_t *out)
    {
        return BlockRead_PKM(hnd, out, block, mode, key.data());
    }
    void store_key(uint8_t index, const Key &key)
    {
        // The reader's AES key store, where the simulated reader keeps it.
        ASSERT_EQ(zsim_eeprom_write(sim, 346 + 16u * index, key.data(), 16), 0);
    }

    Key keys_[9]; // master, configuration, level 2, level 3, level 1, select VC, proximity, VC enc, VC MAC
    zel_handle_record saved_;
};

TEST_F(MfpE2E, PersonaliseSwitchToLevel3AndWorkThere)
{
    start(plus_card("ORB_MIFARE_PLUS_X_4K_SL0"));
    EXPECT_EQ(card_type(), 0x26);
    uint8_t b[16];
    EXPECT_EQ(aes_read(4, 0x80, FF, b), ZEL_UNSUPPORTED_CARD_TYPE) << "level 0 has no sectors to read";
    EXPECT_EQ(MFP_SwitchToSecurityLevel3_PKM(hnd, keys_[3].data()), ZEL_MFP_COND_OF_USE_ERROR);

    const uint64_t before = zsim_exchange_count(sim);
    ASSERT_EQ(personalise(), ZEL_OK);
    // Type, level 4, nine writes, the commit and the deselect.
    EXPECT_EQ(zsim_exchange_count(sim) - before, 13u);
    EXPECT_EQ(card_type(), 0x36) << "committed: level 1";

    // Level 1: a Classic card to the block commands, and the level 1 AES key opens the card.
    EXPECT_EQ(BlockRead_PKM(hnd, b, 4, 0x60, CLASSIC_FF), ZEL_OK);
    EXPECT_EQ(MFP_AesAuthSecurityLevel1_PKM(hnd, keys_[4].data()), ZEL_OK);
    EXPECT_EQ(MFP_AesAuthSecurityLevel1_PKM(hnd, keys_[3].data()), ZEL_AUTH_ERROR);

    // The switch takes the level 3 switch key only.
    EXPECT_EQ(MFP_SwitchToSecurityLevel3_PKM(hnd, keys_[0].data()), ZEL_AUTH_ERROR);
    EXPECT_EQ(card_type(), 0x36);
    ASSERT_EQ(MFP_SwitchToSecurityLevel3_PKM(hnd, keys_[3].data()), ZEL_OK);
    EXPECT_EQ(card_type(), 0x3A);

    // Level 3: the Crypto keys no longer open a sector, the AES sector keys do.
    EXPECT_EQ(BlockRead_PKM(hnd, b, 4, 0x60, CLASSIC_FF), ZEL_AUTH_ERROR);
    const uint8_t data[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    ASSERT_EQ(BlockWrite_PKM(hnd, data, 5, 0x80, FF.data()), ZEL_OK);
    ASSERT_EQ(aes_read(5, 0x81, FF, b), ZEL_OK);
    EXPECT_EQ(std::memcmp(b, data, 16), 0);

    // Sector 1's key A changes through key A (0x80, selector 0); key B stays.
    const Key a1 = key_of(0xA1);
    EXPECT_EQ(MFP_ChangeSectorKey_PKM(hnd, 1, 0x80, key_of(0x01).data(), a1.data()), ZEL_AUTH_ERROR);
    ASSERT_EQ(MFP_ChangeSectorKey_PKM(hnd, 1, 0x80, FF.data(), a1.data()), ZEL_OK);
    EXPECT_EQ(aes_read(5, 0x80, FF, b), ZEL_AUTH_ERROR);
    EXPECT_EQ(aes_read(5, 0x80, a1, b), ZEL_OK);
    EXPECT_EQ(aes_read(5, 0x81, FF, b), ZEL_OK);
    // Key B of sector 1 through key A with selector 2.
    const Key b1 = key_of(0xB1);
    ASSERT_EQ(MFP_ChangeSectorKeyExt_PKM(hnd, 1, 0x80, a1.data(), b1.data(), 2), ZEL_OK);
    EXPECT_EQ(aes_read(5, 0x81, FF, b), ZEL_AUTH_ERROR);
    EXPECT_EQ(aes_read(5, 0x81, b1, b), ZEL_OK);
    // Other sectors keep theirs.
    EXPECT_EQ(aes_read(8, 0x80, FF, b), ZEL_OK);

    // The UID behind the VC polling keys.
    uint8_t uid[10] = {}, len = 0;
    ASSERT_EQ(MFP_GetUid_PKM(hnd, keys_[7].data(), keys_[8].data(), uid, &len), ZEL_OK);
    ASSERT_EQ(len, 7);
    EXPECT_EQ(std::memcmp(uid, UID7, 7), 0);
    EXPECT_EQ(MFP_GetUid_PKM(hnd, keys_[7].data(), keys_[7].data(), uid, &len), ZEL_AUTH_ERROR);
    len = 0;
    ASSERT_EQ(MFP_EvGetUid_PKM(hnd, keys_[7].data(), uid, &len), ZEL_OK);
    EXPECT_EQ(len, 7);
}

TEST_F(MfpE2E, SmallCardsTakeSixKeysAndOthersAreRefused)
{
    start(plus_card("ORB_MIFARE_PLUS_S_2K_SL0", R"({"size": "2k"})"));
    uint64_t before = zsim_exchange_count(sim);
    ASSERT_EQ(personalise(), ZEL_OK);
    EXPECT_EQ(zsim_exchange_count(sim) - before, 10u) << "no level 2, select VC or proximity key";
    EXPECT_EQ(card_type(), 0x2E);
    // Once committed, the card is no longer at level 0.
    before = zsim_exchange_count(sim);
    EXPECT_EQ(personalise(), ZEL_UNSUPPORTED_CARD_TYPE);
    EXPECT_EQ(zsim_exchange_count(sim) - before, 1u) << "refused before the card is touched";
    // Perso commands at level 1 are refused by the card.
    ASSERT_EQ(SetISO14443_4_ModeM(hnd), ZEL_OK);
    EXPECT_EQ(MFP_WritePersoM(hnd, 0x9000, keys_[0].data()), ZEL_MFP_COND_OF_USE_ERROR);

    start(R"({"cards": [{"uid": "C1C2C3C4", "sak": "08", "atqa": "0004", "type": "ORB_MIFARE_CLASSIC_1K",
               "model": "classic_1k"}]})");
    before = zsim_exchange_count(sim);
    EXPECT_EQ(personalise(), ZEL_UNSUPPORTED_CARD_TYPE);
    EXPECT_EQ(zsim_exchange_count(sim) - before, 1u);
}

TEST_F(MfpE2E, FailedPersonalisationCommitsNothing)
{
    start(plus_card("ORB_MIFARE_PLUS_X_4K_SL0"));
    // The fourth I-block goes unanswered by the card.
    const zsim_fault fault = {ZSIM_FAULT_ERROR_FRAME, 8, 0, 0, 0x90, 1, 3};
    zsim_fault_push(sim, &fault);
    EXPECT_EQ(personalise(), ZEL_NO_CARD);
    EXPECT_EQ(last_request()[1], 0x92) << "the deselect follows at once";
    EXPECT_EQ(card_type(), 0x26) << "still at level 0";
    // The blocks written stay; a new personalisation writes them again and commits.
    zsim_fault_clear(sim);
    ASSERT_EQ(personalise(), ZEL_OK);
    EXPECT_EQ(card_type(), 0x36);
}

TEST_F(MfpE2E, ReaderAndSamKeyForms)
{
    start(
        plus_card("ORB_MIFARE_PLUS_EV1_2K_SL0",
                  R"({"size": "2k", "level": 3, "keys": [{"address": 36864, "key": "00000000000000000000000000000000"},
                        {"address": 36865, "key": "01010101010101010101010101010101"},
                        {"address": 41088, "key": "80808080808080808080808080808080"},
                        {"address": 41089, "key": "81818181818181818181818181818181"}]})"));
    EXPECT_EQ(card_type(), 0x34);
    store_key(0, key_of(0x00));
    store_key(1, key_of(0x01));
    store_key(2, key_of(0x80));
    store_key(3, key_of(0x81));
    store_key(4, key_of(0x44));
    store_key(5, key_of(0x55));

    uint8_t uid[10] = {}, len = 0;
    ASSERT_EQ(MFP_GetUidM(hnd, 2, 3, uid, &len), ZEL_OK);
    EXPECT_EQ(std::memcmp(uid, UID7, 7), 0);
    EXPECT_EQ(MFP_GetUidM(hnd, 3, 2, uid, &len), ZEL_AUTH_ERROR);
    EXPECT_EQ(MFP_GetUidSamM(hnd, 2, 3, uid, &len), ZEL_OK);
    EXPECT_EQ(MFP_EvGetUidSamKeyM(hnd, 2, uid, &len), ZEL_OK);
    EXPECT_EQ(MFP_GetUidM(hnd, 16, 3, uid, &len), ZEL_MAX_KEY_INDEX_EXCEEDED);

    // The master key through the reader's key 0, then through the SAM to the key of entry 5.
    ASSERT_EQ(MFP_ChangeMasterKeyM(hnd, 0, key_of(0x44).data()), ZEL_OK);
    EXPECT_EQ(MFP_ChangeMasterKeyM(hnd, 0, key_of(0x44).data()), ZEL_AUTH_ERROR) << "key 0 is the old one";
    ASSERT_EQ(MFP_ChangeMasterKeySamKeyM(hnd, 4, 5), ZEL_OK);
    EXPECT_EQ(MFP_ChangeMasterKey_PKM(hnd, key_of(0x55).data(), key_of(0x00).data()), ZEL_OK);

    // The VC polling encryption key through the configuration key (reader key 1), checked by the UID read.
    ASSERT_EQ(MFP_ChangeVcPollingEncKeyM(hnd, 1, key_of(0x44).data()), ZEL_OK);
    EXPECT_EQ(MFP_GetUidM(hnd, 2, 3, uid, &len), ZEL_AUTH_ERROR);
    EXPECT_EQ(MFP_GetUidM(hnd, 4, 3, uid, &len), ZEL_OK);
    ASSERT_EQ(MFP_ChangeVcPollingMacKeySamKeyM(hnd, 1, 5), ZEL_OK);
    EXPECT_EQ(MFP_GetUidM(hnd, 4, 5, uid, &len), ZEL_OK);
    EXPECT_EQ(MFP_FieldConfigurationSetM(hnd, 1, 1, 0), ZEL_OK);
    EXPECT_EQ(MFP_FieldConfigurationSetM(hnd, 0, 1, 0), ZEL_AUTH_ERROR);

    // Sector keys by reader key: authenticated with key B, whatever the auth mode says.
    uint8_t b[16];
    ASSERT_EQ(MFP_ChangeSectorExtKeyM(hnd, 2, 0x60, 5, key_of(0x00).data(), 1), ZEL_AUTH_ERROR)
        << "key B of sector 2 is still all FF";
    store_key(6, FF);
    ASSERT_EQ(MFP_ChangeSectorExtKeyM(hnd, 2, 0x60, 6, key_of(0x44).data(), 1), ZEL_OK);
    EXPECT_EQ(BlockRead_PKM(hnd, b, 8, 0x80, key_of(0x44).data()), ZEL_OK) << "selector 1 wrote key A";
    ASSERT_EQ(MFP_ChangeSectorKeySamKeyM(hnd, 2, 0x61, 6, 5), ZEL_OK);
    EXPECT_EQ(BlockRead_PKM(hnd, b, 8, 0x81, key_of(0x55).data()), ZEL_OK) << "selector 0 wrote key B";
    EXPECT_EQ(MFP_ChangeSectorKeyM(hnd, 2, 0x80, 6, FF.data()), ZEL_PARAMETERS_ERROR);
}

TEST_F(MfpE2E, Level1CardKeepsTheNdefStore)
{
    start(plus_card("ORB_MIFARE_PLUS_X_4K_SL0"));
    ASSERT_EQ(personalise(), ZEL_OK);
    ASSERT_EQ(ndef_card_initializationM(hnd), ZEL_OK);
    ASSERT_EQ(ndeftest::write(hnd, 1, 1, "U", "", ndeftest::uri_payload(0x02, "tandro.example/plus")), ZEL_OK);
    ndeftest::Rec r;
    ASSERT_EQ(ndeftest::read(hnd, 1, 1, r), ZEL_OK);
    EXPECT_EQ(r.text(), "https://www.tandro.example/plus");
}

TEST_F(MfpE2E, ScenarioRefusesBadSetups)
{
    const char *bad[] = {
        R"({"level": 2})",
        R"({"size": "8k"})",
        R"({"keys": [{"address": 16384, "key": "00000000000000000000000000000000"}]})",
        R"({"classic": {"sectors": [{"aes_a": "00000000000000000000000000000000"}]}})",
        R"({"colour": 1})",
    };
    for (const char *setup : bad) {
        zsim *s = zsim_new();
        char err[256] = {};
        EXPECT_NE(zsim_load_scenario(s, plus_card("ORB_MIFARE_PLUS_X_4K_SL0", setup).c_str(), err, sizeof err), 0)
            << setup;
        EXPECT_NE(err[0], 0) << setup;
        zsim_free(s);
    }
}

} // namespace
