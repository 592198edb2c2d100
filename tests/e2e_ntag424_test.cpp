// NTAG 424 DNA against the simulated reader: the 0xB3 operations in their key forms, and secure dynamic
// messages that the simulated card makes on every read, checked by the host functions as a server would.
#include <cstring>
#include <string>
#include <vector>

#include "card_sim_fixture.h"
#include "core/bytes.h"

using zeltest::CardSimTest;

namespace {

using Bytes = std::vector<uint8_t>;

const char *kUid = "04A5B6C7D8E980";
const Bytes kUidBytes = {0x04, 0xA5, 0xB6, 0xC7, 0xD8, 0xE9, 0x80};
const Bytes kMaster(16, 0), kMeta(16, 0x11), kFile(16, 0x22);

// The URL as the NDEF file holds it: fixed text with room for the mirrors; the enciphered part's first 16
// characters are the plain data the card enciphers.
const std::string kUrl = "https://t.example/?p=" + std::string(32, '0') + "&e=" + "secret-data-0123" +
                         std::string(16, '-') + "&m=" + std::string(16, '0');
constexpr uint32_t kPicc = 21, kEnc = 56, kMac = 91;

std::string hex_of(const std::string &s)
{
    std::string h;
    char b[3];
    for (unsigned char c : s) {
        snprintf(b, sizeof b, "%02X", c);
        h += b;
    }
    return h;
}

std::string scenario(const char *model = "ntag424")
{
    return std::string(R"({"cards": [{"uid": ")") + kUid +
           R"(", "sak": "20", "atqa": "0344", "type": "ORB_NTAG_424_DNA", "model": ")" + model +
           R"(", "setup": {"keys": ["00000000000000000000000000000000", "11111111111111111111111111111111", )"
           R"("22222222222222222222222222222222"], "ndef": ")" +
           hex_of(kUrl) + R"("}}]})";
}

Bytes unhex(const uint8_t *text, size_t chars)
{
    Bytes b(chars / 2);
    for (size_t i = 0; i < b.size(); ++i)
        b[i] = static_cast<uint8_t>(zel::hex_value(text[2 * i]) << 4 | zel::hex_value(text[2 * i + 1]));
    return b;
}

class Ntag424 : public CardSimTest {
protected:
    // The NDEF file's first n bytes, read with the library's APDU calls (each read counts on the card).
    Bytes read_file(uint32_t n = 128)
    {
        uint16_t sw = 0;
        uint32_t ne = 0;
        const uint8_t aid[7] = {0xD2, 0x76, 0x00, 0x00, 0x85, 0x01, 0x01}, fid[2] = {0xE1, 0x04};
        EXPECT_EQ(SetISO14443_4_ModeM(hnd), ZEL_OK);
        EXPECT_EQ(APDUTransceiveM(hnd, 0, 0xA4, 4, 0, aid, 7, nullptr, &ne, 0, &sw), ZEL_OK);
        EXPECT_EQ(APDUTransceiveM(hnd, 0, 0xA4, 0, 0x0C, fid, 2, nullptr, &ne, 0, &sw), ZEL_OK);
        Bytes out(n);
        ne = n;
        EXPECT_EQ(APDUTransceiveM(hnd, 0, 0xB0, 0, 0, nullptr, 0, out.data(), &ne, 1, &sw), ZEL_OK);
        EXPECT_EQ(sw, 0x0090);
        s_block_deselectM(hnd, 100);
        out.resize(ne);
        return out;
    }
    nt4h_sdm_settings sun() const
    {
        nt4h_sdm_settings s{};
        s.uid_enable = s.sdm_read_ctr_enable = s.sdm_enc_file_data_enable = 1;
        s.meta_data_key_no = 1;
        s.file_data_read_key_no = 2;
        s.read_ctr_key_no = 0x0E;
        s.picc_data_offset = kPicc;
        s.mac_input_offset = kEnc;
        s.enc_offset = kEnc;
        s.enc_length = 32;
        s.mac_offset = kMac;
        return s;
    }
};

TEST_F(Ntag424, SecureDynamicMessagesVerifyOnEveryRead)
{
    start(scenario());
    const nt4h_sdm_settings s = sun();
    ASSERT_EQ(nt4h_change_sdm_file_settings_pkM(hnd, kMaster.data(), 2, 0, 0, 0, 0x0E, 0x00, 0x0E, 0x00, &s), ZEL_OK);
    Bytes previous_mac;
    for (uint32_t read = 1; read <= 3; ++read) {
        const Bytes file = read_file();
        ASSERT_GE(file.size(), kMac + 16u);
        // The fixed text stays, the mirrors change.
        EXPECT_EQ(std::string(file.begin(), file.begin() + kPicc), kUrl.substr(0, kPicc));
        Bytes picc = unhex(file.data() + kPicc, 32);
        uint8_t tag = 0, uid[7], ctr[3];
        ASSERT_EQ(nt4h_decrypt_picc_data(picc.data(), kMeta.data(), &tag, uid, ctr), ZEL_OK);
        EXPECT_EQ(tag, 0xC7);
        EXPECT_EQ(Bytes(uid, uid + 7), kUidBytes);
        const uint32_t counter = zel::get_le24(ctr);
        EXPECT_EQ(counter, read);
        Bytes enc = unhex(file.data() + kEnc, 32);
        ASSERT_EQ(nt4h_decrypt_sdm_enc_file_data(counter, uid, kFile.data(), enc.data(), 16), ZEL_OK);
        EXPECT_EQ(std::string(enc.begin(), enc.end()), "secret-data-0123");
        const Bytes mac = unhex(file.data() + kMac, 16);
        EXPECT_EQ(nt4h_check_sdm_mac(counter, uid, kFile.data(), file.data() + kEnc, kMac - kEnc, mac.data()), ZEL_OK);
        // A replayed tap: the MAC of an earlier counter does not hold now.
        EXPECT_EQ(nt4h_check_sdm_mac(counter - 1, uid, kFile.data(), file.data() + kEnc, kMac - kEnc, mac.data()),
                  NT4H_CHECK_FAILED);
        EXPECT_EQ(nt4h_check_sdm_mac(counter, uid, kMeta.data(), file.data() + kEnc, kMac - kEnc, mac.data()),
                  NT4H_CHECK_FAILED);
        EXPECT_NE(mac, previous_mac);
        previous_mac = mac;
    }
    uint32_t ctr = 0;
    EXPECT_EQ(nt4h_get_sdm_read_ctr_no_authM(hnd, 2, 0, &ctr), ZEL_OK);
    EXPECT_EQ(ctr, 3u);
    // The settings read back carry what the host composed.
    uint8_t fs[NT4H_MAX_FILE_SETTINGS], len = 0;
    ASSERT_EQ(nt4h_get_file_settingsM(hnd, 2, fs, &len), ZEL_OK);
    ASSERT_GE(len, 10);
    EXPECT_EQ(fs[0], 0x00);
    EXPECT_EQ(fs[1], 0x40);
    EXPECT_EQ(fs[7], 0x01 | NT4H_SDM_UID_MIRROR | NT4H_SDM_READ_CTR_MIRROR | NT4H_SDM_ENC_FILE_DATA);
    EXPECT_EQ(zel::get_le24(fs + 10), kPicc);
}

TEST_F(Ntag424, PlainMirrorsAndCounterKey)
{
    start(scenario());
    nt4h_sdm_settings s{};
    s.uid_enable = s.sdm_read_ctr_enable = 1;
    s.meta_data_key_no = 0x0E;
    s.file_data_read_key_no = 2;
    s.read_ctr_key_no = 3;
    s.uid_offset = kPicc;
    s.sdm_read_ctr_offset = kPicc + 14;
    s.mac_input_offset = kMac;
    s.mac_offset = kMac;
    ASSERT_EQ(nt4h_change_sdm_file_settingsM(hnd, 0, 2, 0, 0, 0, 0x0E, 0x00, 0x0E, 0x00, &s), ZEL_OK);
    const Bytes file = read_file();
    ASSERT_GE(file.size(), kMac + 16u);
    EXPECT_EQ(std::string(file.begin() + kPicc, file.begin() + kPicc + 20), std::string(kUid) + "000001");
    const Bytes mac = unhex(file.data() + kMac, 16);
    EXPECT_EQ(nt4h_check_sdm_mac(1, kUidBytes.data(), kFile.data(), nullptr, 0, mac.data()), ZEL_OK);
    // The counter needs key 3 now: no authentication is refused, the key opens it.
    uint32_t ctr = 0;
    EXPECT_EQ(nt4h_get_sdm_read_ctr_no_authM(hnd, 2, 0, &ctr), ZEL_AUTH_ERROR);
    const Bytes k3(16, 0);
    EXPECT_EQ(nt4h_get_sdm_read_ctr_pkM(hnd, k3.data(), 2, 3, &ctr), ZEL_OK);
    EXPECT_EQ(ctr, 1u);
}

TEST_F(Ntag424, KeysIdentityAndConfiguration)
{
    start(scenario());
    uint8_t uid[7] = {};
    EXPECT_EQ(nt4h_get_uid_pkM(hnd, kMeta.data(), 1, uid), ZEL_OK);
    EXPECT_EQ(Bytes(uid, uid + 7), kUidBytes);
    EXPECT_EQ(nt4h_get_uid_pkM(hnd, kFile.data(), 1, uid), ZEL_AUTH_ERROR);
    // A reader key slot of a fresh reader opens the card's default key 0.
    EXPECT_EQ(nt4h_get_uidM(hnd, 0, 0, uid), ZEL_OK);
    // Key 1 changes with its old value; afterwards only the new one opens it.
    const Bytes fresh(16, 0x5C);
    EXPECT_EQ(nt4h_change_key_pkM(hnd, kMaster.data(), 1, fresh.data(), kFile.data()), ZEL_AUTH_ERROR);
    EXPECT_EQ(nt4h_change_key_pkM(hnd, kMaster.data(), 1, fresh.data(), kMeta.data()), ZEL_OK);
    EXPECT_EQ(nt4h_get_uid_pkM(hnd, kMeta.data(), 1, uid), ZEL_AUTH_ERROR);
    EXPECT_EQ(nt4h_get_uid_pkM(hnd, fresh.data(), 1, uid), ZEL_OK);
    EXPECT_EQ(nt4h_set_rid_pkM(hnd, kMaster.data()), ZEL_OK);
    EXPECT_EQ(nt4h_set_rid_pkM(hnd, kMeta.data()), ZEL_AUTH_ERROR);
    EXPECT_EQ(nt4h_set_global_parametersM(hnd, 2, 0, 0), ZEL_OK);
    // The standard settings: the proprietary file becomes free to read.
    EXPECT_EQ(nt4h_change_standard_file_settings_pkM(hnd, kMaster.data(), 3, 0, 0, 0, 0x0E, 0x03, 0x03, 0x00), ZEL_OK);
    uint8_t fs[NT4H_MAX_FILE_SETTINGS], len = 0;
    ASSERT_EQ(nt4h_get_file_settingsM(hnd, 3, fs, &len), ZEL_OK);
    ASSERT_EQ(len, 7);
    EXPECT_EQ(Bytes(fs, fs + 4), Bytes({0x00, 0x00, 0x30, 0xE3}));
    // No transaction MAC file and no tamper loop on this card.
    EXPECT_EQ(dfl_delete_tmc_file_pkM(hnd, kMaster.data(), 4), ZEL_COMMAND_NOT_SUPPORTED);
}

TEST_F(Ntag424, TagTamperStatus)
{
    start(scenario("ntag424_tt"));
    uint8_t perm = 0, curr = 0;
    ASSERT_EQ(nt4h_get_tt_status_pkM(hnd, kMaster.data(), 0, &perm, &curr), ZEL_OK);
    EXPECT_EQ(perm, 'I');
    ASSERT_EQ(nt4h_enable_tt_pkM(hnd, kMaster.data(), 0), ZEL_OK);
    ASSERT_EQ(nt4h_get_tt_status_no_authM(hnd, 0, &perm, &curr), ZEL_OK);
    EXPECT_EQ(perm, 'C');
    EXPECT_EQ(curr, 'C');
    EXPECT_EQ(nt4h_get_tt_status_pkM(hnd, kFile.data(), 0, &perm, &curr), ZEL_AUTH_ERROR);
}

// ---- DESFire Light: transaction MACs made by the simulated card, checked by the host ----

class DesfireLight : public CardSimTest {
protected:
    void SetUp() override
    {
        serve();
        const zsim_card c = {{0x04, 0x3A, 0x4B, 0x5C, 0x6D, 0x7E, 0x8F}, 7, 0x20, 0x0344, 0x3F};
        ASSERT_EQ(zsim_card_add_model(sim, &c, "desfire",
                                      R"({"version": "light", "master_key_type": "aes", "applications": [)"
                                      R"({"aid": "A1B2C3", "key_type": "aes", "keys": 3, "files": [)"
                                      R"({"id": 2, "type": "value", "lower": 0, "upper": 1000, "value": 100},)"
                                      R"({"id": 3, "type": "cyclic", "record_size": 16, "records": 5}]}]})"),
                  0);
        uid.assign(c.uid, c.uid + 7);
        ASSERT_EQ(
            Zel_int_DesfireCreateTransMacFile_aes_PKM(hnd, kZero.data(), 0xA1B2C3, 7, 1, 0, 0, 0, kTmacKey, &cs, &et),
            ZEL_OK);
        ASSERT_EQ(cs, CARD_OPERATION_OK);
    }
    const Bytes kZero = Bytes(16, 0);
    const uint8_t kTmacKey[16] = {0x3C, 0x5A, 0x78, 0x96, 0xB4, 0xD2, 0xF0, 0x1E,
                                  0x2D, 0x4B, 0x69, 0x87, 0xA5, 0xC3, 0xE1, 0x0F};
    Bytes uid;
    uint16_t cs = 0, et = 0;
};

TEST_F(DesfireLight, ValueOperationsCarryCheckableMacs)
{
    uint8_t rid[16], prev_enc[16], mac[8], prev[16];
    for (int i = 0; i < 16; ++i)
        rid[i] = static_cast<uint8_t>(0xA0 + i);
    uint32_t tmc = 0;
    ASSERT_EQ(Zel_int_DesfireIncreaseValueFile_TransMac_aes_PKM(hnd, kZero.data(), 0xA1B2C3, 0, 2, 0, 25, 0, rid,
                                                                prev_enc, &tmc, mac, &cs, &et),
              ZEL_OK);
    ASSERT_EQ(cs, CARD_OPERATION_OK);
    EXPECT_EQ(tmc, 1u);
    EXPECT_EQ(dfl_check_credit_value_transaction_mac(2, 25, tmc, uid.data(), kTmacKey, nullptr, nullptr, mac, nullptr),
              ZEL_OK);
    EXPECT_EQ(dfl_check_credit_value_transaction_mac(2, 26, tmc, uid.data(), kTmacKey, nullptr, nullptr, mac, nullptr),
              NT4H_CHECK_FAILED);
    EXPECT_EQ(dfl_check_debit_value_transaction_mac(2, 25, tmc, uid.data(), kTmacKey, nullptr, nullptr, mac, nullptr),
              NT4H_CHECK_FAILED);
    // With a reader id: the card's MAC covers it, and the previous reader id (none yet: zeros) comes back.
    ASSERT_EQ(Zel_int_DesfireDecreaseValueFile_TransMac_aes_PKM(hnd, kZero.data(), 0xA1B2C3, 0, 2, 0, 7, 1, rid,
                                                                prev_enc, &tmc, mac, &cs, &et),
              ZEL_OK);
    ASSERT_EQ(cs, CARD_OPERATION_OK);
    EXPECT_EQ(tmc, 2u);
    std::memset(prev, 0x55, sizeof prev);
    EXPECT_EQ(dfl_check_debit_value_transaction_mac(2, 7, tmc, uid.data(), kTmacKey, rid, prev_enc, mac, prev), ZEL_OK);
    EXPECT_EQ(Bytes(prev, prev + 16), Bytes(16, 0));
    // The next transaction hands back the reader id of this one, enciphered.
    uint8_t rid2[16];
    std::memset(rid2, 0x42, sizeof rid2);
    ASSERT_EQ(Zel_int_DesfireIncreaseValueFile_TransMac_aes_PKM(hnd, kZero.data(), 0xA1B2C3, 0, 2, 0, 1, 1, rid2,
                                                                prev_enc, &tmc, mac, &cs, &et),
              ZEL_OK);
    EXPECT_EQ(dfl_check_credit_value_transaction_mac(2, 1, tmc, uid.data(), kTmacKey, rid2, prev_enc, mac, prev),
              ZEL_OK);
    EXPECT_EQ(Bytes(prev, prev + 16), Bytes(rid, rid + 16));
}

TEST_F(DesfireLight, RecordOperationsCarryCheckableMacs)
{
    const Bytes data = {'t', 'a', 'p', ' ', 'a', 't', ' ', 'g', 'a', 't', 'e', ' ', '7', 0, 1, 2};
    uint8_t rid[16] = {}, prev_enc[16], mac[8];
    uint32_t tmc = 0;
    ASSERT_EQ(Zel_int_DesfireWriteRecord_TransMac_aes_PKM(hnd, kZero.data(), 0xA1B2C3, 0, 3, 0, 16, 0, data.data(), 0,
                                                          rid, prev_enc, &tmc, mac, &cs, &et),
              ZEL_OK);
    ASSERT_EQ(cs, CARD_OPERATION_OK);
    EXPECT_EQ(dfl_check_write_record_transaction_mac(3, 0, 16, data.data(), tmc, uid.data(), kTmacKey, nullptr, nullptr,
                                                     mac, nullptr),
              ZEL_OK);
    EXPECT_EQ(desfire_check_write_record_transaction_mac(3, 0, 16, data.data(), tmc, uid.data(), kTmacKey, nullptr,
                                                         nullptr, mac, nullptr),
              NT4H_CHECK_FAILED);
    ASSERT_EQ(Zel_int_DesfireClearRecordFile_TransMac_aes_PKM(hnd, kZero.data(), 0xA1B2C3, 3, 0, rid, prev_enc, &tmc,
                                                              mac, &cs, &et),
              ZEL_OK);
    ASSERT_EQ(cs, CARD_OPERATION_OK);
    EXPECT_EQ(desfire_check_clear_record_transaction_mac(3, tmc, uid.data(), kTmacKey, nullptr, nullptr, mac, nullptr),
              ZEL_OK);
    EXPECT_EQ(
        desfire_check_clear_record_transaction_mac(3, tmc + 1, uid.data(), kTmacKey, nullptr, nullptr, mac, nullptr),
        NT4H_CHECK_FAILED);
}

} // namespace
