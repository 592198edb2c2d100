// NDEF messages on simulated Type 4 tags: the NDEF application, its capability container and NDEF file over
// APDUs, appending in pieces of the container's MLc, erasing, full files and lying lengths.
#include <string>
#include <vector>

#include "card_sim_fixture.h"
#include "ndef_test_support.h"

using zeltest::CardSimTest;
using namespace ndeftest;

namespace {

std::string t4(const std::string &setup = "{}", const char *type = "ORB_GENERIC_ISO14443_4",
               const char *uid = "04518A2B3C4D80")
{
    return std::string(R"({"cards": [{"uid": ")") + uid + R"(", "sak": "20", "atqa": "0344", "type": ")" + type +
           R"(", "model": "ndef_t4", "setup": )" + setup + "}]}";
}

class NdefT4 : public CardSimTest {
protected:
    // The NDEF file's first n bytes, read with the library's APDU calls.
    std::vector<uint8_t> file(uint32_t n)
    {
        uint16_t sw = 0;
        uint32_t ne = 0;
        const uint8_t aid[7] = {0xD2, 0x76, 0x00, 0x00, 0x85, 0x01, 0x01}, fid[2] = {0xE1, 0x04};
        EXPECT_EQ(SetISO14443_4_ModeM(hnd), ZEL_OK);
        EXPECT_EQ(APDUTransceiveM(hnd, 0, 0xA4, 4, 0, aid, 7, nullptr, &ne, 0, &sw), ZEL_OK);
        EXPECT_EQ(APDUTransceiveM(hnd, 0, 0xA4, 0, 0x0C, fid, 2, nullptr, &ne, 0, &sw), ZEL_OK);
        std::vector<uint8_t> out(n);
        ne = n;
        EXPECT_EQ(APDUTransceiveM(hnd, 0, 0xB0, 0, 0, nullptr, 0, out.data(), &ne, 1, &sw), ZEL_OK);
        EXPECT_EQ(sw, 0x0090); // SW1 in the low byte
        s_block_deselectM(hnd, 100);
        out.resize(ne);
        return out;
    }
};

TEST_F(NdefT4, AppendReadCountAndErase)
{
    start(t4());
    uint8_t formatted = 0xAA;
    ASSERT_EQ(write(hnd, 1, 1, "U", "", uri_payload(0x04, "tandro.example/t4"), &formatted), ZEL_OK);
    EXPECT_EQ(formatted, 0);
    ASSERT_EQ(write(hnd, 1, 1, "T", "",
                    bytes("\x02"
                          "enhello")),
              ZEL_OK);
    ASSERT_EQ(write(hnd, 1, 2, "text/plain", "i", bytes("third")), ZEL_OK);
    std::vector<uint8_t> f = file(64);
    const uint32_t r1 = 3 + 1 + 18, r2 = 3 + 1 + 8, r3 = 4 + 10 + 1 + 5;
    EXPECT_EQ(f[0] << 8 | f[1], static_cast<int>(r1 + r2 + r3));
    EXPECT_EQ(f[2], 0x91);           // MB only
    EXPECT_EQ(f[2 + r1], 0x11);      // neither
    EXPECT_EQ(f[2 + r1 + r2], 0x5A); // ME, SR, IL, TNF 2
    Rec r;
    ASSERT_EQ(read(hnd, 1, 1, r), ZEL_OK);
    EXPECT_EQ(r.text(), "https://tandro.example/t4");
    ASSERT_EQ(read(hnd, 1, 3, r), ZEL_OK);
    EXPECT_EQ(r.id, "i");
    EXPECT_EQ(r.text(), "third");
    Count c;
    ASSERT_EQ(count(hnd, c), ZEL_OK);
    EXPECT_EQ(c.messages, 1);
    EXPECT_EQ(c.records, 3);
    ASSERT_EQ(erase_last_ndef_recordM(hnd, 1), ZEL_OK);
    f = file(64);
    EXPECT_EQ(f[0] << 8 | f[1], static_cast<int>(r1 + r2));
    EXPECT_EQ(f[2 + r1], 0x51); // ME again
    ASSERT_EQ(erase_all_ndef_recordsM(hnd, 1), ZEL_OK);
    f = file(2);
    EXPECT_EQ(f[0] << 8 | f[1], 0);
    ASSERT_EQ(count(hnd, c), ZEL_OK);
    EXPECT_EQ(c.empty, 1);
    EXPECT_EQ(c.records, 0);
}

TEST_F(NdefT4, LongRecordsGoInPiecesOfMlcAndReadInPiecesOfMle)
{
    start(t4(R"({"mlc": 16, "mle": 40, "file_size": 2048})", "ORB_NTAG_424_DNA"));
    std::vector<uint8_t> big(600);
    for (size_t i = 0; i < big.size(); ++i)
        big[i] = static_cast<uint8_t>(i * 5 + 1);
    ASSERT_EQ(write(hnd, 1, 2, "a/b", "", big), ZEL_OK);
    Rec r;
    ASSERT_EQ(read(hnd, 1, 1, r), ZEL_OK);
    EXPECT_EQ(r.payload, big);
}

TEST_F(NdefT4, FullFilesAndLyingLengthsAreRefused)
{
    struct Case {
        const char *what;
        std::string setup;
        ZEL_STATUS write, read;
    } cases[] = {
        {"message that does not fit", R"({"file_size": 40})", ZEL_BUFFER_OVERFLOW, ZEL_OK},
        // NLEN beyond the file.
        {"nlen past the file", R"({"file_size": 64, "nlen": 900})", ZEL_WRONG_NDEF_CARD_FORMAT,
         ZEL_WRONG_NDEF_CARD_FORMAT},
        // Records that add up to more than NLEN.
        {"records past nlen", R"({"message": "D1010A55016162", "nlen": 7})", ZEL_WRONG_NDEF_CARD_FORMAT,
         ZEL_WRONG_NDEF_CARD_FORMAT},
        // A container with no NDEF file control TLV.
        {"bad container", R"({"cc": "000F2000FF00FF0506E1040400000000"})", ZEL_WRONG_NDEF_CARD_FORMAT,
         ZEL_WRONG_NDEF_CARD_FORMAT},
    };
    for (const Case &c : cases) {
        start(t4(c.setup));
        EXPECT_EQ(write(hnd, 1, 2, "a/b", "", std::vector<uint8_t>(48, 7)), c.write) << c.what;
        Rec r;
        const ZEL_STATUS st = read(hnd, 1, 1, r);
        if (c.read == ZEL_OK)
            EXPECT_EQ(st, ZEL_NDEF_MESSAGE_NOT_FOUND) << c.what; // the file stayed empty
        else
            EXPECT_EQ(st, c.read) << c.what;
        stop();
    }
}

TEST_F(NdefT4, FileOfTwoBytesOrLessIsWrittenOver)
{
    start(t4(R"({"message": "D100"})"));
    ASSERT_EQ(write(hnd, 1, 1, "U", "", uri_payload(0x03, "tandro.example")), ZEL_OK);
    const std::vector<uint8_t> f = file(5);
    EXPECT_EQ(f, (std::vector<uint8_t>{0x00, 0x13, 0xD1, 0x01, 0x0F}));
    Rec r;
    ASSERT_EQ(read(hnd, 1, 1, r), ZEL_OK);
    EXPECT_EQ(r.text(), "http://tandro.example");
}

TEST_F(NdefT4, CardsWithoutTheApplicationAreNotNdefCards)
{
    start(R"({"cards": [{"uid": "04518A2B3C4D80", "sak": "20", "atqa": "0344", "type": "ORB_GENERIC_ISO14443_4",
                         "model": "iso14443_4", "setup": {"apps": [{"kind": "test", "data": "00"}],
                                                  "contact_apps": [{"kind": "test", "data": "00"}]}}]})");
    Rec r;
    EXPECT_EQ(read(hnd, 1, 1, r), ZEL_NDEF_UNSUPPORTED_CARD_TYPE);
    EXPECT_EQ(write(hnd, 1, 1, "T", "", bytes("x")), ZEL_NDEF_UNSUPPORTED_CARD_TYPE);
    EXPECT_EQ(erase_all_ndef_recordsM(hnd, 1), ZEL_NDEF_UNSUPPORTED_CARD_TYPE);
}

TEST_F(NdefT4, TheTtTagWritesButDoesNotCount)
{
    start(t4("{}", "ORB_NTAG_424_DNA_TT"));
    ASSERT_EQ(write(hnd, 1, 1, "T", "",
                    bytes("\x02"
                          "entt")),
              ZEL_OK);
    Count c;
    EXPECT_EQ(count(hnd, c), ZEL_NDEF_UNSUPPORTED_CARD_TYPE);
    EXPECT_EQ(file(8)[2], 0xD1);
}

} // namespace
