// The DESFire NDEF calls end to end: the layout made on a simulated DESFire card by the reader's DESFire engine,
// checked with the card's own reads and read back by ISO commands through the card's ISO view; lying lengths
// and small buffers on a simulated NDEF application (a Type 4 tag) whose file says what the test wants.
#include <cstring>
#include <string>
#include <vector>

#include "card_sim_fixture.h"
#include "core/internal.h"
#include "ndef_test_support.h"

using zeltest::CardSimTest;

namespace {

using Bytes = std::vector<uint8_t>;

// No real waits between the tries.
unsigned g_sleeps = 0;
void count_sleep(uint32_t)
{
    ++g_sleeps;
}

std::string hex(const Bytes &b)
{
    static const char *d = "0123456789ABCDEF";
    std::string s;
    for (uint8_t x : b) {
        s += d[x >> 4];
        s += d[x & 15];
    }
    return s;
}

class NdefDesfire : public CardSimTest {
protected:
    void SetUp() override
    {
        g_sleeps = 0;
        zel::set_sleep_hook(count_sleep);
    }
    void TearDown() override
    {
        zel::set_sleep_hook(nullptr);
        CardSimTest::TearDown();
    }
    void desfire(const char *setup = "{\"size\": 4096}")
    {
        start(std::string(R"({"cards": [{"uid": "04D35F1E6A2B80", "sak": "20", "atqa": "0344", )"
                          R"("type": "ORB_MIFARE_DESFIRE_EV1_4K", "model": "desfire", "setup": )") +
              setup + "}]}");
    }
    // A Type 4 tag whose NDEF file holds message (hex) behind its length.
    void tag(const Bytes &message, const std::string &extra = R"(, "file_size": 32768)")
    {
        start(R"({"cards": [{"uid": "04518A2B3C4D80", "sak": "20", "atqa": "0344", "type": "ORB_GENERIC_ISO14443_4",)"
              R"( "model": "ndef_t4", "setup": {"mle": 65535, "message": ")" +
              hex(message) + "\"" + extra + "}}]}");
    }
    // The bytes of a file of the NDEF application, read with the card's native command (free read access).
    Bytes file(uint8_t id, uint16_t n)
    {
        Bytes out(n);
        uint16_t cs = 0, et = 0;
        EXPECT_EQ(Zel_int_DesfireReadStdDataFile_no_authM(hnd, 1, 0, id, 0, n, 0, out.data(), &cs, &et), ZEL_OK);
        EXPECT_EQ(cs, CARD_OPERATION_OK);
        return out;
    }
    uint32_t file_size(uint8_t id)
    {
        uint32_t size = 0;
        uint16_t cs = 0, et = 0;
        const uint8_t zero[16] = {};
        EXPECT_EQ(Zel_int_DesfireGetStdFileSize_aes_PKM(hnd, zero, 1, id, &size, &cs, &et), ZEL_OK);
        EXPECT_EQ(cs, CARD_OPERATION_OK);
        return size;
    }
};

// A one-record message as the payload writer lays it out: SR URI record with code 0.
Bytes short_uri(const std::string &text)
{
    Bytes m{0xD1, 0x01, static_cast<uint8_t>(text.size() + 1), 0x55, 0x00};
    m.insert(m.end(), text.begin(), text.end());
    return m;
}

TEST_F(NdefDesfire, FormatLaysOutTheNdefApplicationAndPayloadsGoToItsFile)
{
    desfire();
    ASSERT_EQ(Zel_int_DesfireNDEFFormatHnd(hnd, 512, 0), ZEL_OK);

    // The container: version 2.0, MLe 003A, MLc 0034, the NDEF file E104 of 512 bytes, free access.
    const Bytes cc = file(1, 15);
    EXPECT_EQ(cc, (Bytes{0x00, 0x0F, 0x20, 0x00, 0x3A, 0x00, 0x34, 0x04, 0x06, 0xE1, 0x04, 0x02, 0x00, 0x00, 0x00}));
    EXPECT_EQ(file_size(1), 16u);
    EXPECT_EQ(file_size(2), 512u);

    // A short text: NLEN, then D1 01 len 55 00 text.
    ASSERT_EQ(Zel_int_DesfireWriteNDEFPayloadHnd(hnd, "tandro.example/df"), ZEL_OK);
    Bytes want{0x00, 22};
    const Bytes rec = short_uri("tandro.example/df");
    want.insert(want.end(), rec.begin(), rec.end());
    EXPECT_EQ(file(2, static_cast<uint16_t>(want.size())), want);
    // The card's ISO view gives the same record back.
    std::string text(ZEL_DESFIRE_NDEF_MAX_PAYLOAD + 1, '#');
    ASSERT_EQ(Zel_int_DesfireReadNDEFPayloadHnd(hnd, text.data()), ZEL_OK);
    EXPECT_STREQ(text.c_str(), "tandro.example/df");

    // A text of 300 bytes takes the four-byte length: C1 01 00 00 01 2D 55 00 text, NLEN 308.
    const std::string longer(300, 'x');
    ASSERT_EQ(Zel_int_DesfireWriteNDEFPayloadHnd(hnd, longer.c_str()), ZEL_OK);
    const Bytes head = file(2, 10);
    EXPECT_EQ(head, (Bytes{0x01, 0x34, 0xC1, 0x01, 0x00, 0x00, 0x01, 0x2D, 0x55, 0x00}));
    EXPECT_EQ(file(2, 310)[309], 'x');
    ASSERT_EQ(Zel_int_DesfireReadNDEFPayloadHnd(hnd, text.data()), ZEL_OK);
    EXPECT_EQ(std::string(text.c_str()), longer);

    // A message given whole lands at the file's start as it is.
    const Bytes msg{0x00, 0x03, 0xD0, 0x00, 0x00};
    ASSERT_EQ(Zel_int_DesfireWriteNDEFMessageHnd(hnd, msg.data(), static_cast<uint32_t>(msg.size())), ZEL_OK);
    EXPECT_EQ(file(2, 5), msg);
    EXPECT_EQ(Zel_int_DesfireWriteNDEFMessageHnd(hnd, msg.data(), 0), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(g_sleeps, 0u);
}

TEST_F(NdefDesfire, FormatSizeZeroTakesTheFreeMemoryAndWritesWithoutACardRetry)
{
    desfire();
    ASSERT_EQ(Zel_int_DesfireNDEFFormatHnd(hnd, 0, 0), ZEL_OK);
    // What is left after the layout, plus the 32 bytes kept back, is what the card had free before file 2.
    uint32_t left = 0;
    uint16_t cs = 0, et = 0;
    ASSERT_EQ(Zel_int_DesfireFreeMemM(hnd, &left, &cs, &et), ZEL_OK);
    const uint32_t size = file_size(2);
    EXPECT_GT(size, 1000u);
    EXPECT_LE(left, 32u + 31u); // the card allocates in 32-byte steps
    const Bytes cc = file(1, 15);
    EXPECT_EQ(static_cast<uint32_t>(cc[11] << 8 | cc[12]), size);

    // Without a card the writer tries three times, 50 ms apart, and fails.
    char list[256] = {};
    ASSERT_EQ(zsim_command(sim, "clear", list, sizeof list), 0);
    const ZEL_STATUS st = Zel_int_DesfireWriteNDEFPayloadHnd(hnd, "gone");
    EXPECT_TRUE(st == ZEL_NO_CARD || st == ZEL_WRITING_ERROR) << st;
    EXPECT_EQ(g_sleeps, 2u);
    EXPECT_EQ(Zel_int_DesfireNDEFFormatHnd(hnd, 64, 0), ZEL_NDEF_CARD_FORMAT_ERROR);
}

TEST_F(NdefDesfire, MessageAndPayloadReadBackByIsoCommands)
{
    const Bytes rec = short_uri("https://tandro.example");
    tag(rec);
    Bytes buf(ZEL_DESFIRE_NDEF_MAX_MESSAGE, 0xEE);
    uint32_t len = 0;
    ASSERT_EQ(Zel_int_DesfireReadNDEFMessageHnd(hnd, buf.data(), &len), ZEL_OK);
    ASSERT_EQ(len, rec.size());
    EXPECT_EQ(Bytes(buf.begin(), buf.begin() + len), rec);

    // The text comes back with a terminating 0.
    std::string text(ZEL_DESFIRE_NDEF_MAX_PAYLOAD + 1, '#');
    ASSERT_EQ(Zel_int_DesfireReadNDEFPayloadHnd(hnd, text.data()), ZEL_OK);
    EXPECT_STREQ(text.c_str(), "https://tandro.example");

    // The sized form reports the payload length (text and its 0) and refuses a buffer one byte short.
    char small[64];
    uint32_t size = 23;
    ASSERT_EQ(Zel_int_DesfireReadNDEFPayloadExHnd(hnd, small, &size), ZEL_OK);
    EXPECT_EQ(size, 23u);
    EXPECT_STREQ(small, "https://tandro.example");
    size = 22;
    EXPECT_EQ(Zel_int_DesfireReadNDEFPayloadExHnd(hnd, small, &size), ZEL_BUFFER_OVERFLOW);
    size = 0;
    EXPECT_EQ(Zel_int_DesfireReadNDEFPayloadExHnd(hnd, small, &size), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(g_sleeps, 0u);
}

TEST_F(NdefDesfire, LongRecordReadsBackWhole)
{
    const std::string text(1000, 'q');
    Bytes rec{0xC1, 0x01, 0x00, 0x00, 0x03, 0xE9, 0x55, 0x00};
    rec.insert(rec.end(), text.begin(), text.end());
    tag(rec);
    std::string out(ZEL_DESFIRE_NDEF_MAX_PAYLOAD + 1, '#');
    ASSERT_EQ(Zel_int_DesfireReadNDEFPayloadHnd(hnd, out.data()), ZEL_OK);
    EXPECT_EQ(std::string(out.c_str()), text);
}

TEST_F(NdefDesfire, LyingAndEmptyMessagesAreRefused)
{
    std::string out(ZEL_DESFIRE_NDEF_MAX_PAYLOAD + 1, '#');
    uint32_t size = 100;
    {
        // The record claims 200 payload bytes in a message of 10.
        SCOPED_TRACE("short record lies");
        tag(Bytes{0xD1, 0x01, 0xC8, 0x55, 0x00, 'a', 'b', 'c', 'd', 'e'});
        EXPECT_EQ(Zel_int_DesfireReadNDEFPayloadHnd(hnd, out.data()), ZEL_WRONG_NDEF_CARD_FORMAT);
        EXPECT_EQ(out[0], '#');
    }
    {
        SCOPED_TRACE("long record lies");
        tag(Bytes{0xC1, 0x01, 0x7F, 0xFF, 0xFF, 0xFF, 0x55, 0x00, 'a'});
        EXPECT_EQ(Zel_int_DesfireReadNDEFPayloadHnd(hnd, out.data()), ZEL_MAX_SIZE_EXCEEDED);
        tag(Bytes{0xC1, 0x01, 0x00, 0x00, 0x00, 0x01, 0x55, 0x00, 'a'});
        EXPECT_EQ(Zel_int_DesfireReadNDEFPayloadHnd(hnd, out.data()), ZEL_WRONG_NDEF_CARD_FORMAT);
    }
    {
        SCOPED_TRACE("empty short record");
        tag(Bytes{0xD1, 0x01, 0x00, 0x55});
        EXPECT_EQ(Zel_int_DesfireReadNDEFPayloadExHnd(hnd, out.data(), &size), ZEL_NDEF_MESSAGE_NOT_FOUND);
    }
    {
        SCOPED_TRACE("message above the payload reader's limit");
        tag(Bytes(9000, 0xD1));
        EXPECT_EQ(Zel_int_DesfireReadNDEFPayloadExHnd(hnd, out.data(), &size), ZEL_MAX_SIZE_EXCEEDED);
    }
    {
        // NLEN 0: the message read fails with out length 0, after three tries.
        SCOPED_TRACE("no message");
        tag(Bytes{});
        Bytes buf(ZEL_DESFIRE_NDEF_MAX_MESSAGE);
        uint32_t len = 77;
        g_sleeps = 0;
        EXPECT_EQ(Zel_int_DesfireReadNDEFMessageHnd(hnd, buf.data(), &len), ZEL_APDU_TRANSCEIVE_ERROR);
        EXPECT_EQ(len, 0u);
        EXPECT_EQ(g_sleeps, 2u);
    }
    {
        // NLEN beyond the file: the card answers what it has and the length says so.
        SCOPED_TRACE("NLEN past the file");
        tag(Bytes{0xD1, 0x01, 0x02, 0x55, 0x00, 'z'}, R"(, "nlen": 40000, "file_size": 64)");
        Bytes buf(ZEL_DESFIRE_NDEF_MAX_MESSAGE);
        uint32_t len = 0;
        EXPECT_EQ(Zel_int_DesfireReadNDEFMessageHnd(hnd, buf.data(), &len), ZEL_OK);
        EXPECT_EQ(len, 62u);
    }
}

} // namespace
