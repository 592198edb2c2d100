// NDEF messages on simulated ISO 15693 tags: the container in block 0, the TLV area from byte 4, formatting
// by the type's size or by the size the tag reports.
#include <string>
#include <vector>

#include "card_sim_fixture.h"
#include "ndef_test_support.h"

using zeltest::CardSimTest;
using namespace ndeftest;

namespace {

std::string vicinity(const char *type, const std::string &setup = "{}")
{
    return std::string(R"({"cards": [{"uid": "E004010203040506", "type": ")") + type +
           R"(", "model": "iso15693", "setup": )" + setup + "}]}";
}

class NdefIso15693 : public CardSimTest {
protected:
    std::vector<uint8_t> blocks(uint16_t n)
    {
        std::vector<uint8_t> v(n);
        uint16_t got = 0;
        EXPECT_EQ(LinearReadM(hnd, v.data(), 0, n, &got, 0x60, 0), ZEL_OK);
        return v;
    }
};

TEST_F(NdefIso15693, FormatBySizeThenAppendAndErase)
{
    struct Case {
        const char *type;
        uint8_t size; // the container's size byte
    } cases[] = {{"51", 13}, {"54", 39}, {"50", (80 * 4 - 4) / 8}};
    for (const Case &c : cases) {
        start(vicinity(c.type));
        uint8_t formatted = 0;
        ASSERT_EQ(write(hnd, 1, 1, "U", "", uri_payload(0x06, "desk@tandro.example"), &formatted), ZEL_OK) << c.type;
        EXPECT_EQ(formatted, 1);
        ASSERT_EQ(write(hnd, 1, 1, "T", "",
                        bytes("\x02"
                              "enhi")),
                  ZEL_OK);
        std::vector<uint8_t> img = blocks(48);
        EXPECT_EQ(std::vector<uint8_t>(img.begin(), img.begin() + 4), (std::vector<uint8_t>{0xE1, 0x40, c.size, 0x00}))
            << c.type;
        EXPECT_EQ(img[4], 0x03);
        EXPECT_EQ(img[6], 0x91);
        Rec r;
        ASSERT_EQ(read(hnd, 1, 1, r), ZEL_OK);
        EXPECT_EQ(r.text(), "mailto:desk@tandro.example");
        Count n;
        ASSERT_EQ(count(hnd, n), ZEL_OK);
        EXPECT_EQ(n.records, 2);
        ASSERT_EQ(erase_last_ndef_recordM(hnd, 1), ZEL_OK);
        img = blocks(48);
        EXPECT_EQ(img[6], 0xD1);
        stop();
    }
}

TEST_F(NdefIso15693, GenericTagWithoutItsMemorySizeIsNotFormatted)
{
    start(vicinity("50", R"({"info_flags": 3})"));
    EXPECT_EQ(ndef_card_initializationM(hnd), ZEL_READING_ERROR);
    Rec r;
    EXPECT_EQ(read(hnd, 1, 1, r), ZEL_WRONG_NDEF_CARD_FORMAT);
}

} // namespace

namespace {

// A factory container whose size counts its own four bytes (E1 40 0E on a tag of 112 bytes) still reads and
// writes; a size beyond even that is the block layer's refusal.
TEST_F(NdefIso15693, ContainerCountingItselfStillReads)
{
    start(vicinity("50", R"({"blocks": 28, "block_data": [{"block": 0, "data": "E1400E00"},)"
                         R"( {"block": 1, "data": "0309D101"}, {"block": 2, "data": "05550474"},)"
                         R"( {"block": 3, "data": "612E6FFE"}]})"));
    Rec r;
    ASSERT_EQ(read(hnd, 1, 1, r), ZEL_OK);
    EXPECT_EQ(r.text(), "https://ta.o");
    ASSERT_EQ(write(hnd, 1, 1, "T", "",
                    bytes("\x02"
                          "enok")),
              ZEL_OK);
    Count n;
    ASSERT_EQ(count(hnd, n), ZEL_OK);
    EXPECT_EQ(n.records, 2);
    stop();

    start(vicinity(
        "50", R"({"blocks": 28, "block_data": [{"block": 0, "data": "E1401000"}, {"block": 1, "data": "0300FE00"}]})"));
    EXPECT_EQ(count(hnd, n), ZEL_MAX_ADDRESS_EXCEEDED);
}

} // namespace
