// APDU transport end to end: the exported operations against the simulated ISO 14443-4 card on a
// pseudo-terminal, with the generic test application behind it.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "card_sim_fixture.h"
#include "tandro.h"
#include "transport/serial.h"
#include "zelsim.h"

namespace {

using Bytes = std::vector<uint8_t>;

const Bytes kAid{0xA0, 0x00, 0x00, 0x07, 0x47, 0x54, 0x45, 0x53, 0x54};
const zsim_card kCard = {{0x04, 0x51, 0x62, 0x73, 0x84, 0x95, 0xA6}, 7, 0x20, 0x0344, 0x40};

// Byte i of the test application's file, as its setup describes it.
uint8_t file_byte(size_t i)
{
    return static_cast<uint8_t>((i & 0xFF) ^ (i >> 8));
}

class ApduE2E : public zeltest::CardSimTest {
protected:
    void SetUp() override { start_card(R"({"block_size": 32})"); }
    // A reader whose field holds the test card with this setup, in place of any before.
    void start_card(const char *setup)
    {
        stop();
        sim = zsim_new();
        ASSERT_NE(sim, nullptr);
        ASSERT_EQ(zsim_card_add_model(sim, &kCard, "iso14443_4", setup), 0);
        serve(300);
    }
    void select_test_app()
    {
        ASSERT_EQ(SetISO14443_4_ModeM(hnd), ZEL_OK);
        uint8_t fci[64];
        uint32_t ne = sizeof fci;
        uint16_t sw = 0;
        ASSERT_EQ(APDUTransceiveM(hnd, 0x00, 0xA4, 0x04, 0x00, kAid.data(), static_cast<uint32_t>(kAid.size()), fci,
                                  &ne, 1, &sw),
                  ZEL_OK);
        ASSERT_EQ(sw, 0x0090);
        ASSERT_EQ(ne, kAid.size() + 4);
        EXPECT_EQ(fci[0], 0x6F);
        EXPECT_EQ(Bytes(fci + 4, fci + ne), kAid);
    }
};

TEST_F(ApduE2E, ActivationGivesAtsUidAndSak)
{
    uint8_t ats[32], uid[10], ats_len = 0, uid_len = 0, sak = 0;
    ASSERT_EQ(SetISO14443_4_Mode_GetATSM(hnd, ats, &ats_len, uid, &uid_len, &sak), ZEL_OK);
    EXPECT_EQ(Bytes(ats, ats + ats_len), (Bytes{0x06, 0x75, 0x77, 0x81, 0x02, 0x80}));
    EXPECT_EQ(Bytes(uid, uid + uid_len), Bytes(kCard.uid, kCard.uid + 7));
    EXPECT_EQ(sak, 0x20);
    EXPECT_EQ(s_block_deselectM(hnd, 0x64), ZEL_OK);

    // Without a level-4 session the reader has nobody to give the APDU to.
    const uint8_t cmd[5] = {0x00, 0xB0, 0x00, 0x00, 0x01};
    uint8_t reply[16];
    uint32_t n = 0;
    EXPECT_EQ(APDUPlainTransceiveM(hnd, cmd, 5, reply, &n), ZEL_APDU_TRANSCEIVE_ERROR);
    EXPECT_EQ(Zel_APDU_StartM(hnd), ZEL_OK);
    EXPECT_EQ(APDUPlainTransceiveM(hnd, cmd, 5, reply, &n), ZEL_OK);
    EXPECT_EQ(Zel_APDU_StopM(hnd), ZEL_OK);

    zsim_field_clear(sim);
    EXPECT_EQ(SetISO14443_4_ModeM(hnd), ZEL_NO_CARD);
}

TEST_F(ApduE2E, ReadBinaryShortAndExtended)
{
    select_test_app();
    // Short Le of 256 (sent as 00) at an offset.
    Bytes out(256);
    uint32_t ne = 256;
    uint16_t sw = 0;
    ASSERT_EQ(APDUTransceiveM(hnd, 0x00, 0xB0, 0x01, 0x10, nullptr, 0, out.data(), &ne, 1, &sw), ZEL_OK);
    EXPECT_EQ(sw, 0x0090);
    ASSERT_EQ(ne, 256u);
    for (size_t i = 0; i < 256; ++i)
        ASSERT_EQ(out[i], file_byte(0x110 + i)) << i;
    // Extended Le: 4,096 bytes in one APDU, the reply chained over 17 frames.
    out.assign(4096, 0);
    ne = 4096;
    ASSERT_EQ(APDUTransceiveM(hnd, 0x00, 0xB0, 0x00, 0x00, nullptr, 0, out.data(), &ne, 1, &sw), ZEL_OK);
    ASSERT_EQ(ne, 4096u);
    for (size_t i = 0; i < 4096; ++i)
        ASSERT_EQ(out[i], file_byte(i)) << i;
    // The same through the forced-extended form, and past the end of the 8 KiB file.
    out.assign(300, 0);
    ne = 300;
    ASSERT_EQ(APDUTransceiveForceExtendedM(hnd, 0x00, 0xB0, 0x1F, 0x00, nullptr, 0, out.data(), &ne, 1, &sw), ZEL_OK);
    EXPECT_EQ(ne, 256u);
    EXPECT_EQ(sw, 0x8262);
    EXPECT_EQ(out[255], file_byte(0x1FFF));
    // The card answers more than the caller's buffer: refused, nothing copied.
    out.assign(16, 0xEE);
    ne = 16;
    EXPECT_EQ(APDUTransceiveForceExtendedM(hnd, 0x80, 0x12, 0x00, 0x00, nullptr, 0, out.data(), &ne, 1, &sw), ZEL_OK);
    EXPECT_EQ(ne, 16u);
    const uint8_t echo[20] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20};
    ne = 16;
    EXPECT_EQ(APDUTransceiveM(hnd, 0x80, 0x10, 0x00, 0x00, echo, 20, out.data(), &ne, 1, &sw), ZEL_OK)
        << "the card keeps what Le does not take for GET RESPONSE";
    EXPECT_EQ(sw, 0x0461);
    // A card's refusal is a successful exchange.
    ne = 0;
    EXPECT_EQ(APDUTransceiveM(hnd, 0x80, 0x14, 0x69, 0x82, nullptr, 0, nullptr, &ne, 0, &sw), ZEL_OK);
    EXPECT_EQ(sw, 0x8269);
}

TEST_F(ApduE2E, LongestCommandAndReplyThroughThePlainExchange)
{
    select_test_app();
    // Extended echo with Lc 65535 and Le 0000: 65,544 command bytes, the reply 65,537 bytes.
    Bytes cmd{0x80, 0x10, 0x00, 0x00, 0x00, 0xFF, 0xFF};
    for (size_t i = 0; i < 65535; ++i)
        cmd.push_back(static_cast<uint8_t>(i * 31 + (i >> 9)));
    cmd.push_back(0x00);
    cmd.push_back(0x00);
    ASSERT_EQ(cmd.size(), 0x10008u);
    uint8_t *reply = nullptr;
    uint32_t n = 0;
    ASSERT_EQ(APDUPlainTransceiveToHeapM(hnd, cmd.data(), static_cast<uint32_t>(cmd.size()), &reply, &n), ZEL_OK);
    ASSERT_EQ(n, 65537u);
    EXPECT_EQ(Bytes(reply, reply + 65535), Bytes(cmd.begin() + 7, cmd.end() - 2));
    EXPECT_EQ(reply[65535], 0x90);
    EXPECT_EQ(reply[65536], 0x00);
    OrbFree(reply);

    cmd.push_back(0x00);
    EXPECT_EQ(APDUPlainTransceiveToHeapM(hnd, cmd.data(), static_cast<uint32_t>(cmd.size()), &reply, &n),
              ZEL_MAX_SIZE_EXCEEDED);

    // The link is in step afterwards, and the hexadecimal form shows the reply as text.
    char *text = nullptr;
    ASSERT_EQ(APDUHexStrTransceiveM(hnd, "80 10 00 00 03 0A 0B 0C 00", &text), ZEL_OK);
    EXPECT_STREQ(text, "0A0B0C9000");
}

TEST_F(ApduE2E, HostRunBlocksToggleAndChain)
{
    ASSERT_EQ(SetISO14443_4_ModeM(hnd), ZEL_OK);
    // SELECT in two chained I-blocks: the first is acknowledged, then the answer comes chained in blocks of 32.
    Bytes sel{0x00, 0xA4, 0x04, 0x00, static_cast<uint8_t>(kAid.size())};
    sel.insert(sel.end(), kAid.begin(), kAid.end());
    uint8_t len = 0, chained = 0, data[255];
    uint32_t status = 0;
    ASSERT_EQ(i_block_trans_rcv_chainM(hnd, 1, 100, 6, sel.data(), &len, data, &chained, &status), ZEL_OK);
    ASSERT_EQ(len, 1);
    EXPECT_EQ(data[0], 0xA2) << "R(ACK) with block number 0";
    EXPECT_EQ(chained, 0);
    ASSERT_EQ(i_block_trans_rcv_chainM(hnd, 0, 100, static_cast<uint8_t>(sel.size() - 6), sel.data() + 6, &len, data,
                                       &chained, &status),
              ZEL_OK);
    EXPECT_EQ(data[0], 0x03) << "I-block, block number 1, the last";
    EXPECT_EQ(chained, 0);
    EXPECT_EQ(data[len - 2], 0x90);

    // An echo of 70 bytes comes back in three blocks; the block number follows the reader's.
    Bytes echo{0x80, 0x10, 0x00, 0x00, 70};
    for (int i = 0; i < 70; ++i)
        echo.push_back(static_cast<uint8_t>(0x40 + i));
    echo.push_back(0x00);
    ASSERT_EQ(i_block_trans_rcv_chainM(hnd, 0, 100, static_cast<uint8_t>(echo.size()), echo.data(), &len, data,
                                       &chained, &status),
              ZEL_OK);
    EXPECT_EQ(data[0], 0x12);
    EXPECT_EQ(chained, 1);
    EXPECT_EQ(len, 33);
    ASSERT_EQ(r_block_transceiveM(hnd, 1, 100, &len, data, &chained, &status), ZEL_OK);
    EXPECT_EQ(data[0], 0x13);
    EXPECT_EQ(chained, 1);
    ASSERT_EQ(r_block_transceiveM(hnd, 0, 100, &len, data, &chained, &status), ZEL_OK);
    EXPECT_EQ(data[0], 0x13) << "a NAK brings the same block again";
    ASSERT_EQ(r_block_transceiveM(hnd, 1, 100, &len, data, &chained, &status), ZEL_OK);
    EXPECT_EQ(data[0], 0x02);
    EXPECT_EQ(chained, 0);
    EXPECT_EQ(len, 1 + 70 + 2 - 64);

    // The whole exchange in one call, with the status bytes counted in the data.
    uint8_t out[128] = {};
    uint32_t ne = 0;
    uint8_t sw[2] = {};
    ASSERT_EQ(Zel_APDU_TransceiveM(hnd, 0x80, 0x10, 0x00, 0x00, echo.data() + 5, 70, out, sizeof out, &ne, 1, sw),
              ZEL_OK);
    ASSERT_EQ(ne, 72u);
    EXPECT_EQ(Bytes(out, out + 70), Bytes(echo.begin() + 5, echo.end() - 1));
    EXPECT_EQ(sw[0], 0x90);
    EXPECT_EQ(sw[1], 0x00);
    EXPECT_EQ(Zel_APDU_TransceiveM(hnd, 0x80, 0x10, 0x00, 0x00, echo.data() + 5, 70, out, 40, &ne, 1, sw),
              ZEL_MAX_SIZE_EXCEEDED);
    // The 0x7F form: no chained flag in its reply.
    uint64_t len64 = 0;
    const uint8_t get[5] = {0x80, 0x14, 0x90, 0x00, 0x00};
    // The answer left unread by the refused call is dropped by the card at the next command.
    ASSERT_EQ(Zel_i_block_transceiveM(hnd, 0, 100, 4, get, &len64, data, &status), ZEL_OK);
    EXPECT_EQ(len64, 3u);
    EXPECT_EQ(data[1], 0x90);

    // A block to a card that left the level-4 session: the reader's soft error, and the link stays in step.
    ASSERT_EQ(s_block_deselectM(hnd, 100), ZEL_OK);
    EXPECT_EQ(r_block_transceiveM(hnd, 1, 100, &len, data, &chained, &status), ZEL_VALUE_BLOCK_ADDR_INVALID);
    EXPECT_EQ(SetISO14443_4_ModeM(hnd), ZEL_OK);
}

TEST_F(ApduE2E, ContactInterface)
{
    uint8_t atr[40];
    uint32_t atr_len = 4;
    EXPECT_EQ(open_ISO7816_interfaceM(hnd, atr, &atr_len), ZEL_NO_MEMORY_ERROR);
    atr_len = sizeof atr;
    ASSERT_EQ(open_ISO7816_interfaceM(hnd, atr, &atr_len), ZEL_OK);
    ASSERT_EQ(atr_len, 15u);
    EXPECT_EQ(atr[0], 0x3B);
    ASSERT_EQ(APDU_switch_to_ISO7816_interfaceM(hnd), ZEL_OK);
    // No level-4 activation: the APDU goes to the contact card's application.
    Bytes sel{0x00, 0xA4, 0x04, 0x00, static_cast<uint8_t>(kAid.size())};
    sel.insert(sel.end(), kAid.begin(), kAid.end());
    uint8_t reply[64];
    uint32_t n = 0;
    ASSERT_EQ(APDUPlainTransceiveM(hnd, sel.data(), static_cast<uint32_t>(sel.size()), reply, &n), ZEL_OK);
    EXPECT_EQ(reply[n - 2], 0x90);
    ASSERT_EQ(close_ISO7816_interface_APDU_ISO14443_4M(hnd), ZEL_OK);
    EXPECT_EQ(APDUPlainTransceiveM(hnd, sel.data(), static_cast<uint32_t>(sel.size()), reply, &n),
              ZEL_APDU_TRANSCEIVE_ERROR)
        << "back on the contactless side, which was never activated";
    EXPECT_EQ(APDU_switch_to_ISO7816_interfaceM(hnd), ZEL_NO_CARD) << "the contact interface is closed";
}

TEST_F(ApduE2E, RawFrontEndAndRawMode)
{
    const uint8_t rats[2] = {0xE0, 0x50};
    uint8_t recv[255];
    uint32_t n = 0;
    ASSERT_EQ(card_transceiveM(hnd, 1, 1, 0, 0, 0, 0, rats, 2, recv, &n), ZEL_OK);
    EXPECT_EQ(Bytes(recv, recv + n), (Bytes{0x06, 0x75, 0x77, 0x81, 0x02, 0x80}));

    ASSERT_EQ(pn512_transceive_mode_startM(hnd, 0, 0, 0, 200), ZEL_OK);
    Bytes iblock{0x02, 0x00, 0xA4, 0x04, 0x00, static_cast<uint8_t>(kAid.size())};
    iblock.insert(iblock.end(), kAid.begin(), kAid.end());
    ASSERT_EQ(uart_transceiveM(hnd, iblock.data(), static_cast<uint8_t>(iblock.size()), recv, sizeof recv, &n), ZEL_OK);
    ASSERT_GE(n, 3u);
    EXPECT_EQ(recv[0], 0x02);
    EXPECT_EQ(Bytes(recv + n - 2, recv + n), (Bytes{0x90, 0x00}));
    uint32_t type = 0;
    EXPECT_NE(GetReaderTypeM(hnd, &type), ZEL_OK) << "no framed command in raw mode";
    ASSERT_EQ(card_transceive_mode_stopM(hnd), ZEL_OK);
    PortSetTimeout(hnd, 300);
    EXPECT_EQ(GetReaderTypeM(hnd, &type), ZEL_OK);
}

class ApduSlowCardE2E : public ApduE2E {
protected:
    void SetUp() override { start_card(R"({"interim_frames": 4, "apps": [{"kind": "test", "size": 64}]})"); }
};

TEST_F(ApduSlowCardE2E, InterimFramesBeforeTheAnswer)
{
    select_test_app();
    uint8_t out[64];
    uint32_t ne = 64;
    uint16_t sw = 0;
    ASSERT_EQ(APDUTransceiveM(hnd, 0x00, 0xB0, 0x00, 0x00, nullptr, 0, out, &ne, 1, &sw), ZEL_OK);
    EXPECT_EQ(ne, 64u);
    EXPECT_EQ(out[63], file_byte(63));
}

TEST_F(ApduE2E, ReaderFaultsReachTheCaller)
{
    select_test_app();
    const zsim_fault interim = {ZSIM_FAULT_ENDLESS_INTERIM, 0, 0, 0, 0x94, 1, 0};
    zsim_fault_push(sim, &interim);
    const uint8_t cmd[5] = {0x00, 0xB0, 0x00, 0x00, 0x10};
    uint8_t reply[64];
    uint32_t n = 0;
    // Interim frames until the host speaks again: the wait ends at the library's bound, not never. The fault
    // bends the acknowledge of the first frame, so the handshake itself sees interim frames and fails.
    EXPECT_EQ(APDUPlainTransceiveM(hnd, cmd, 5, reply, &n), ZEL_COMMUNICATION_ERROR);
    zsim_fault_clear(sim);
    // The host speaking again ends the interim frames; the purge of the next exchange drops the stale ones.
    uint32_t type = 0;
    GetReaderTypeM(hnd, &type);
    EXPECT_EQ(APDUPlainTransceiveM(hnd, cmd, 5, reply, &n), ZEL_OK);
    EXPECT_EQ(n, 18u);
}

} // namespace
