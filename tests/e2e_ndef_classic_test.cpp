// NDEF messages on simulated MIFARE Classic and Plus SL1 cards, through the application directory: formatting a
// blank card, the trailers and directories it leaves, reading and writing, and refusals of the directory.
#include <string>
#include <vector>

#include "card_sim_fixture.h"
#include "ndef_test_support.h"

using zeltest::CardSimTest;
using namespace ndeftest;

namespace {

const uint8_t MAD_KEY[6] = {0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5};
const uint8_t NDEF_KEY[6] = {0xD3, 0xF7, 0xD3, 0xF7, 0xD3, 0xF7};

std::string card(const char *model, const char *type, const std::string &setup = "")
{
    std::string s = R"({"cards": [{"uid": "C1C2C3C4", "sak": "08", "atqa": "0004", "type": ")" + std::string(type) +
                    R"(", "model": ")" + model + "\"";
    if (!setup.empty())
        s += ", \"setup\": " + setup;
    return s + "}]}";
}

class NdefClassic : public CardSimTest {
protected:
    void TearDown() override
    {
        zel::set_tick_hook(nullptr);
        CardSimTest::TearDown();
    }
    std::vector<uint8_t> trailer(uint8_t sector, const uint8_t *key)
    {
        uint8_t b[16] = {};
        EXPECT_EQ(BlockInSectorRead_PKM(hnd, b, sector, sector >= 32 ? 15 : 3, 0x60, key), ZEL_OK) << int(sector);
        return std::vector<uint8_t>(b, b + 16);
    }
    std::vector<uint8_t> linear(uint16_t addr, uint16_t n, const uint8_t *key)
    {
        std::vector<uint8_t> v(n);
        uint16_t got = 0;
        EXPECT_EQ(LinearRead_PKM(hnd, v.data(), addr, n, &got, 0x60, key), ZEL_OK);
        return v;
    }
};

TEST_F(NdefClassic, Blank1kIsLaidOutWithTheDirectoryAndNdefSectors)
{
    start(card("classic_1k", "ORB_MIFARE_CLASSIC_1K"));
    uint8_t formatted = 0;
    ASSERT_EQ(write(hnd, 1, 1, "U", "", uri_payload(0x03, "tandro.example/classic"), &formatted), ZEL_OK);
    EXPECT_EQ(formatted, 1);
    // The directory: CRC 14 (the published value for this layout), info byte 01, fifteen NDEF entries.
    const std::vector<uint8_t> mad = linear(0, 32, MAD_KEY);
    EXPECT_EQ(mad[0], 0x14);
    EXPECT_EQ(mad[1], 0x01);
    for (int e = 0; e < 15; ++e) {
        EXPECT_EQ(mad[2 + 2 * e], 0x03);
        EXPECT_EQ(mad[3 + 2 * e], 0xE1);
    }
    // Trailers: sector 0 access 4,4,4,3 packs to 78 77 88 with the general purpose byte C1; the NDEF sectors
    // 0,0,0,3 to 7F 07 88 with 40.
    const std::vector<uint8_t> t0 = trailer(0, MAD_KEY);
    EXPECT_EQ(std::vector<uint8_t>(t0.begin() + 6, t0.begin() + 10), (std::vector<uint8_t>{0x78, 0x77, 0x88, 0xC1}));
    for (uint8_t s = 1; s < 16; ++s) {
        const std::vector<uint8_t> t = trailer(s, NDEF_KEY);
        EXPECT_EQ(std::vector<uint8_t>(t.begin() + 6, t.begin() + 10), (std::vector<uint8_t>{0x7F, 0x07, 0x88, 0x40}))
            << int(s);
    }
    Rec r;
    ASSERT_EQ(read(hnd, 1, 1, r), ZEL_OK);
    EXPECT_EQ(r.text(), "http://tandro.example/classic");
    // A second format finds every trailer in place and leaves the message alone apart from the empty TLV.
    ASSERT_EQ(ndef_card_initializationM(hnd), ZEL_OK);
    const std::vector<uint8_t> head = linear(32, 4, NDEF_KEY);
    EXPECT_EQ(head, (std::vector<uint8_t>{0x03, 0x00, 0xFE, 0x00}));
}

TEST_F(NdefClassic, RecordsSpanSectorsAndCountAcrossThem)
{
    start(card("classic_1k", "ORB_MIFARE_CLASSIC_1K"));
    ASSERT_EQ(ndef_card_initializationM(hnd), ZEL_OK);
    std::vector<uint8_t> big(200);
    for (size_t i = 0; i < big.size(); ++i)
        big[i] = static_cast<uint8_t>(i * 3);
    ASSERT_EQ(write(hnd, 1, 2, "application/octet-stream", "", big), ZEL_OK);
    ASSERT_EQ(write(hnd, 1, 1, "T", "",
                    bytes("\x02"
                          "ensecond")),
              ZEL_OK);
    ASSERT_EQ(write(hnd, 1, 1, "T", "",
                    bytes("\x02"
                          "enthird")),
              ZEL_OK);
    Count c;
    ASSERT_EQ(count(hnd, c), ZEL_OK);
    EXPECT_EQ(c.records, 3);
    EXPECT_EQ(c.array[1], 3);
    Rec r;
    ASSERT_EQ(read(hnd, 1, 1, r), ZEL_OK);
    EXPECT_EQ(r.payload, big);
    ASSERT_EQ(read(hnd, 1, 3, r), ZEL_OK);
    EXPECT_EQ(r.text(), std::string("\x02"
                                    "enthird"));
    ASSERT_EQ(erase_last_ndef_recordM(hnd, 1), ZEL_OK);
    ASSERT_EQ(count(hnd, c), ZEL_OK);
    EXPECT_EQ(c.records, 2);
}

TEST_F(NdefClassic, DirectoryRefusals)
{
    struct Case {
        const char *what;
        std::string setup;
        ZEL_STATUS want;
    } cases[] = {
        {"no directory bit",
         R"({"sectors": [{"sector": 0, "key_a": "A0A1A2A3A4A5", "access": [4, 4, 4, 3], "gpb": "40"}]})",
         ZEL_MAD_NOT_ENABLED},
        {"version 3", R"({"sectors": [{"sector": 0, "key_a": "A0A1A2A3A4A5", "access": [4, 4, 4, 3], "gpb": "C3"}]})",
         ZEL_MAD_VERSION_NOT_SUPPORTED},
        {"bad checksum",
         R"({"sectors": [{"sector": 0, "key_a": "A0A1A2A3A4A5", "access": [4, 4, 4, 3], "gpb": "C1"}],
             "blocks": [{"block": 1, "data": "150103E103E103E103E103E103E103E1"},
                        {"block": 2, "data": "03E103E103E103E103E103E103E103E1"}]})",
         ZEL_WRONG_NDEF_CARD_FORMAT},
    };
    for (const Case &c : cases) {
        start(card("classic_1k", "ORB_MIFARE_CLASSIC_1K", c.setup));
        Rec r;
        EXPECT_EQ(read(hnd, 1, 1, r), c.want) << c.what;
        stop();
    }
}

TEST_F(NdefClassic, Plus4kUsesBothDirectories)
{
    start(card("plus_4k_sl1", "ORB_MIFARE_PLUS_S_4K_SL1"));
    ASSERT_EQ(ndef_card_initializationM(hnd), ZEL_OK);
    const std::vector<uint8_t> mad2 = linear(752, 48, MAD_KEY);
    EXPECT_EQ(mad2[0], 0xE8);
    EXPECT_EQ(mad2[1], 0x01);
    EXPECT_EQ(trailer(39, NDEF_KEY)[9], 0x40);
    ASSERT_EQ(write(hnd, 1, 1, "U", "", uri_payload(0x02, "tandro.example/4k")), ZEL_OK);
    Rec r;
    ASSERT_EQ(read(hnd, 1, 1, r), ZEL_OK);
    EXPECT_EQ(r.text(), "https://www.tandro.example/4k");
}

TEST_F(NdefClassic, WritesCrossingSector16RestartTheSourceInTheirSecondPart)
{
    start(card("plus_4k_sl1", "ORB_MIFARE_PLUS_S_4K_SL1"));
    ASSERT_EQ(ndef_card_initializationM(hnd), ZEL_OK);
    // One record of 800 bytes in the long form: the grown message (4-byte header) runs from image 4 to past 720.
    std::vector<uint8_t> big(800);
    for (size_t i = 0; i < big.size(); ++i)
        big[i] = static_cast<uint8_t>(0x40 + i % 61);
    ASSERT_EQ(write(hnd, 1, 2, "a/b", "", big), ZEL_OK);
    // The moved message starts at image 4 (linear 36); the part behind sector 16, at linear 800, starts with the
    // same first bytes again.
    const std::vector<uint8_t> first = linear(36, 16, NDEF_KEY);
    const std::vector<uint8_t> second = linear(800, 16, NDEF_KEY);
    EXPECT_EQ(first, second);
}

} // namespace
