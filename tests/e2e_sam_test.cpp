// The SAM operations against the simulated SAM in the reader's contact slot: the whole life of a new SAM
// (legacy authentication, master key, switch to AV2, AV2 authentication, key entries), with random
// challenges on both sides, and the SAM's refusals.
#include <cstring>
#include <string>

#include "card_sim_fixture.h"
#include "sam_test_support.h"

using zeltest::CardSimTest;

namespace {

using samtest::Bytes;

std::string scenario(const std::string &setup)
{
    return R"({"cards": [{"uid": "04C0FFEE112233", "sak": "20", "atqa": "0344", "type": "ORB_GENERIC_ISO14443_4",
                          "model": "sam_av2", "setup": {)" +
           setup + "}}]}";
}

const char *MASTER_HEX = "000102030405060708090A0B0C0D0E0F";
const Bytes MASTER = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};

class SamSim : public CardSimTest {
protected:
    // Starts the reader with a SAM of the setup and routes APDUs to the contact slot.
    void start_sam(const std::string &setup)
    {
        start(scenario(setup));
        uint8_t atr[64];
        uint32_t atr_len = sizeof atr;
        ASSERT_EQ(open_ISO7816_interfaceM(hnd, atr, &atr_len), ZEL_OK);
        ASSERT_EQ(APDU_switch_to_ISO7816_interfaceM(hnd), ZEL_OK);
    }
    Bytes entry(uint8_t n)
    {
        uint8_t out[SAM_KEY_ENTRY_RAW_MAX];
        uint8_t len = 0;
        uint16_t sw = 0;
        EXPECT_EQ(SAM_get_key_entry_rawM(hnd, n, out, &len, &sw), ZEL_OK);
        return Bytes(out, out + len);
    }
    uint32_t type()
    {
        uint32_t t = 99;
        uint8_t uid[SAM_UID_LEN];
        EXPECT_EQ(SAM_get_versionM(hnd, &t, uid), ZEL_OK);
        return t;
    }
};

TEST_F(SamSim, VersionTypesAndUid)
{
    start_sam(R"("uid": "04A1B2C3D4E5F6", "hardware": 4, "mode": "av2")");
    uint32_t t = 0;
    uint8_t uid[SAM_UID_LEN] = {};
    ASSERT_EQ(SAM_get_versionM(hnd, &t, uid), ZEL_OK);
    EXPECT_EQ(t, SAM_TYPE_AV2_HW4_AV2_MODE);
    EXPECT_EQ(Bytes(uid, uid + 7), (Bytes{0x04, 0xA1, 0xB2, 0xC3, 0xD4, 0xE5, 0xF6}));
    uint8_t raw[SAM_VERSION_RAW_MAX];
    uint32_t n = 0;
    ASSERT_EQ(SAM_get_version_rawM(hnd, raw, &n), ZEL_OK);
    ASSERT_EQ(n, 31u);
    EXPECT_EQ(raw[30], 0xA2);
    start_sam("");
    EXPECT_EQ(type(), SAM_TYPE_AV2_HW3_AV1_MODE);
}

// A new SAM all the way to AV2 mode and its first key entries.
TEST_F(SamSim, PersonalisationFromNewToAv2)
{
    start_sam("");
    EXPECT_EQ(SAM_authenticate_host_no_div_desM(hnd, 0, 0, nullptr), ZEL_OK);
    const Bytes kb = samtest::rol(MASTER, 5), kc = samtest::rol(MASTER, 9);
    uint16_t sw = 0;
    ASSERT_EQ(
        SAM_pre_pesonalization_master_AES128_keyM(hnd, MASTER.data(), 0x10, kb.data(), 0x11, kc.data(), 0x12, &sw),
        ZEL_OK);
    EXPECT_EQ(sw, 0x0090);
    // Entry 0 now holds the host key: versions, the change key 0, the usage counter FF, configuration 20 00.
    EXPECT_EQ(entry(0), (Bytes{0x10, 0x11, 0x12, 0, 0, 0, 0, 0, 0, 0xFF, 0x20, 0x00}));
    // Still AV1: the AV2 authentication is refused by the SAM.
    EXPECT_EQ(SAM_authenticate_host_AV2_plainM(hnd, MASTER.data(), 0, 0x10, 0, &sw), ZEL_SAM_APDU_ERROR);
    EXPECT_EQ(sw, 0x8569);

    ASSERT_EQ(SAM_pre_personalization_switch_to_AV2_modeM(hnd, MASTER.data(), 0x10, &sw), ZEL_OK);
    EXPECT_EQ(type(), SAM_TYPE_AV2_HW3_AV2_MODE);
    // Each of the three keys by its version; the legacy authentication is gone.
    EXPECT_EQ(SAM_authenticate_host_AV2_plainM(hnd, kc.data(), 0, 0x12, 2, &sw), ZEL_OK);
    EXPECT_EQ(SAM_authenticate_host_AV2_plainM(hnd, kb.data(), 0, 0x11, 1, &sw), ZEL_OK);
    EXPECT_EQ(SAM_authenticate_host_AV2_plainM(hnd, MASTER.data(), 0, 0x10, 0, &sw), ZEL_OK);
    EXPECT_EQ(sw, 0x0090);
    EXPECT_EQ(SAM_authenticate_host_no_div_desM(hnd, 0, 0, nullptr), ZEL_AUTH_ERROR);
}

TEST_F(SamSim, AuthenticationBothWaysWithRandomChallenges)
{
    start_sam(std::string(R"("mode": "av2", "master_key": ")") + MASTER_HEX + "\"");
    for (int i = 0; i < 25; ++i) {
        uint16_t sw = 0;
        ASSERT_EQ(SAM_authenticate_host_AV2_plainM(hnd, MASTER.data(), 0, static_cast<uint8_t>(i % 3),
                                                   static_cast<uint8_t>(i % 3), &sw),
                  ZEL_OK)
            << "round " << i;
    }
    start_sam("");
    for (int i = 0; i < 25; ++i)
        ASSERT_EQ(SAM_authenticate_host_no_div_desM(hnd, static_cast<uint8_t>(i % 4), 0, nullptr), ZEL_OK) << i;
}

TEST_F(SamSim, WrongKeysAndUnknownEntries)
{
    start_sam(std::string(R"("mode": "av2", "master_key": ")") + MASTER_HEX + "\"");
    Bytes wrong = MASTER;
    wrong[15] ^= 0x80;
    uint16_t sw = 0;
    // The SAM checks the host's MAC first and refuses with 69 82.
    EXPECT_EQ(SAM_authenticate_host_AV2_plainM(hnd, wrong.data(), 0, 0, 0, &sw), ZEL_SAM_APDU_ERROR);
    EXPECT_EQ(sw, 0x8269);
    // No key of that version, and an entry that holds no AES key.
    EXPECT_EQ(SAM_authenticate_host_AV2_plainM(hnd, MASTER.data(), 0, 7, 0, &sw), ZEL_SAM_APDU_ERROR);
    EXPECT_EQ(sw, 0x826A);
    EXPECT_EQ(SAM_authenticate_host_AV2_plainM(hnd, MASTER.data(), 9, 0, 0, &sw), ZEL_SAM_APDU_ERROR);
    EXPECT_EQ(SAM_authenticate_host_AV2_plainM(hnd, MASTER.data(), 0, 0, 3, &sw), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(sw, 0);
}

TEST_F(SamSim, KeyEntryChangesAfterAuthentication)
{
    start_sam(std::string(R"("mode": "av2", "master_key": ")") + MASTER_HEX + "\"");
    const Bytes aes = samtest::rol(MASTER, 3);
    uint16_t sw = 0;
    // Without an authentication the SAM refuses.
    EXPECT_EQ(SAM_change_key_entry_AES_AV2_plain_one_keyM(hnd, 5, aes.data(), 0, 0, 0xFF, &sw), ZEL_SAM_APDU_ERROR);
    EXPECT_EQ(sw, 0x8269);
    ASSERT_EQ(SAM_authenticate_host_AV2_plainM(hnd, MASTER.data(), 0, 0, 0, &sw), ZEL_OK);
    ASSERT_EQ(SAM_change_key_entry_AES_AV2_plain_one_keyM(hnd, 5, aes.data(), 0, 0, 0xFF, &sw), ZEL_OK);
    EXPECT_EQ(sw, 0x0090);
    // The new AES key authenticates on its own entry: it went where the SAM reads key A.
    ASSERT_EQ(SAM_authenticate_host_AV2_plainM(hnd, aes.data(), 5, 0, 0, &sw), ZEL_OK);
    ASSERT_EQ(SAM_authenticate_host_AV2_plainM(hnd, MASTER.data(), 0, 0, 0, &sw), ZEL_OK);

    const Bytes k24 = samtest::rol(Bytes(MASTER.begin(), MASTER.end()), 1), k8(8, 0x5A), m6(6, 0xA5);
    Bytes k3 = k24;
    k3.insert(k3.end(), MASTER.begin(), MASTER.begin() + 8);
    EXPECT_EQ(SAM_change_key_entry_mifare_AV2_plain_one_keyM(hnd, 10, m6.data(), m6.data(), 0, 0, 1, &sw), ZEL_OK);
    EXPECT_EQ(SAM_change_key_entry_3K3DES_AV2_plain_one_keyM(hnd, 11, k3.data(), 0, 0, 2, &sw), ZEL_OK);
    EXPECT_EQ(SAM_change_key_entry_2K3DES_ULC_AV2_plain_one_keyM(hnd, 12, k24.data(), 0, 0, 3, &sw), ZEL_OK);
    EXPECT_EQ(SAM_change_key_entry_2K3DES_desfire_AV2_plain_one_keyM(hnd, 13, k24.data(), 0, 0, 4, &sw), ZEL_OK);
    EXPECT_EQ(SAM_change_key_entry_DES_AV2_plain_one_keyM(hnd, 14, k8.data(), 0, 0, 5, &sw), ZEL_OK);
    EXPECT_EQ(SAM_change_key_entry_aes_AV2_plain_host_keyM(hnd, 15, aes.data(), 4, aes.data(), 5, aes.data(), 6, 15, 6,
                                                           0xFF, &sw),
              ZEL_OK);
    // The entries as the SAM reads them back: versions, AID, key number, change key, counter, SET, ExtSET.
    EXPECT_EQ(entry(10), (Bytes{0, 1, 2, 0, 0, 0, 0, 0, 0, 1, 0x10, 0, 1}));
    EXPECT_EQ(entry(11), (Bytes{0, 1, 0, 0, 0, 0, 0, 0, 2, 0x1C, 0, 1}));
    EXPECT_EQ(entry(12), (Bytes{0, 1, 2, 0, 0, 0, 0, 0, 0, 3, 0x0C, 0, 1}));
    EXPECT_EQ(entry(14), (Bytes{0, 1, 2, 0, 0, 0, 0, 0, 0, 5, 0x34, 0, 1}));
    EXPECT_EQ(entry(15), (Bytes{4, 5, 6, 0, 0, 0, 0, 15, 6, 0xFF, 0x20, 0, 1}));
    // Entry 15 now changes only under its own key: the master key no longer may.
    EXPECT_EQ(SAM_change_key_entry_AES_AV2_plain_one_keyM(hnd, 15, MASTER.data(), 0, 0, 0, &sw), ZEL_SAM_APDU_ERROR);
    ASSERT_EQ(SAM_authenticate_host_AV2_plainM(hnd, aes.data(), 15, 5, 0, &sw), ZEL_OK);
    EXPECT_EQ(SAM_change_key_entry_AES_AV2_plain_one_keyM(hnd, 15, MASTER.data(), 0, 0, 0, &sw), ZEL_OK);
}

TEST_F(SamSim, ClosedContactInterfaceEndsTheSession)
{
    start_sam(std::string(R"("mode": "av2", "master_key": ")") + MASTER_HEX + "\"");
    uint16_t sw = 0;
    ASSERT_EQ(SAM_authenticate_host_AV2_plainM(hnd, MASTER.data(), 0, 0, 0, &sw), ZEL_OK);
    ASSERT_EQ(close_ISO7816_interface_no_APDUM(hnd), ZEL_OK);
    uint8_t atr[64];
    uint32_t atr_len = sizeof atr;
    ASSERT_EQ(open_ISO7816_interfaceM(hnd, atr, &atr_len), ZEL_OK);
    ASSERT_EQ(APDU_switch_to_ISO7816_interfaceM(hnd), ZEL_OK);
    const Bytes aes(16, 0x33);
    EXPECT_EQ(SAM_change_key_entry_AES_AV2_plain_one_keyM(hnd, 3, aes.data(), 0, 0, 0, &sw), ZEL_SAM_APDU_ERROR);
    EXPECT_EQ(sw, 0x8269);
}

} // namespace
