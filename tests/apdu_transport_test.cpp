// APDU transport on a scripted reader: the bytes of every frame shape, chaining both ways, the APDU cases,
// the block protocol, and what hostile replies turn into.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "apdu/apdu_internal.h"
#include "core/internal.h"
#include "script_link.h"
#include "tandro.h"

namespace {

using zeltest::Bytes;
using zeltest::cat;
using zeltest::ext;
using zeltest::frame;
using zeltest::response;
using zeltest::ScriptLink;

constexpr uint8_t CMD = 0x55, CTR = 0xAA, ACK = 0xAC, ACT = 0xCA, RSP = 0xDE, RST = 0xED;

Bytes pattern(size_t n, uint8_t seed = 0)
{
    Bytes b(n);
    for (size_t i = 0; i < n; ++i)
        b[i] = static_cast<uint8_t>(seed + i * 13);
    return b;
}

Bytes slice(const Bytes &b, size_t at, size_t n)
{
    return Bytes(b.begin() + at, b.begin() + at + n);
}

// The chained command frame of a piece of n bytes: 16-bit length n + 1, mark 5A while more follow.
Bytes chain_frame(size_t n, bool more)
{
    return frame(CMD, 0x94, CTR, static_cast<uint8_t>((n + 1) & 0xFF), static_cast<uint8_t>((n + 1) >> 8),
                 more ? 0x5A : 0x00);
}

// Scripts a single-piece APDU exchange answered by reply (data then SW).
void script_single(ScriptLink &link, size_t cmd_len, const Bytes &reply)
{
    link.reply(frame(ACK, 0x94, ACT, static_cast<uint8_t>(cmd_len + 1), static_cast<uint8_t>((cmd_len + 1) >> 8), 0));
    link.reply(response(0x94, reply));
}

// The command bytes of an APDU exchange of one piece, from what the host wrote.
Bytes sent_apdu(const ScriptLink &link)
{
    EXPECT_GE(link.writes.size(), 2u);
    const Bytes &piece = link.writes[1];
    return Bytes(piece.begin(), piece.end() - 1);
}

TEST(ApduPlain, PieceBoundariesAndFrames)
{
    // 256 bytes: one piece, no mark.
    {
        ScriptLink link;
        const Bytes cmd = pattern(256);
        script_single(link, 256, {0x90, 0x00});
        uint8_t reply[16] = {};
        uint32_t n = 0;
        ASSERT_EQ(APDUPlainTransceiveM(&link.record, cmd.data(), 256, reply, &n), ZEL_OK);
        ASSERT_EQ(link.writes.size(), 2u);
        EXPECT_EQ(link.writes[0], chain_frame(256, false));
        EXPECT_EQ(link.writes[1], ext(cmd));
        EXPECT_EQ(n, 2u);
        EXPECT_EQ(reply[0], 0x90);
    }
    // 257 bytes: a marked piece of 256 through the handshake, then a frame of 1 written without one.
    {
        ScriptLink link;
        const Bytes cmd = pattern(257, 3);
        link.reply(frame(ACK, 0x94, ACT, 0x01, 0x01, 0x5A));
        link.reply(frame(ACK, 0x94, ACT, 0x00, 0x00, 0x5A)); // the chained piece's acknowledge
        link.reply({});                                      // no answer to the bare frame
        link.reply(response(0x94, {0x61, 0x10, 0x90, 0x00}));
        uint8_t reply[16] = {};
        uint32_t n = 0;
        ASSERT_EQ(APDUPlainTransceiveM(&link.record, cmd.data(), 257, reply, &n), ZEL_OK);
        ASSERT_EQ(link.writes.size(), 4u);
        EXPECT_EQ(link.writes[0], chain_frame(256, true));
        EXPECT_EQ(link.writes[1], ext(slice(cmd, 0, 256)));
        EXPECT_EQ(link.writes[2], chain_frame(1, false));
        EXPECT_EQ(link.writes[3], ext(slice(cmd, 256, 1)));
        EXPECT_EQ(link.purges, 1) << "only the first frame goes through the handshake";
        EXPECT_EQ(Bytes(reply, reply + n), (Bytes{0x61, 0x10, 0x90, 0x00}));
    }
}

TEST(ApduPlain, ArgumentLimits)
{
    ScriptLink link;
    uint8_t cmd[8] = {0, 0xA4, 4, 0};
    uint8_t reply[8];
    uint32_t n = 0;
    EXPECT_EQ(APDUPlainTransceiveM(&link.record, cmd, 3, reply, &n), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(APDUPlainTransceiveM(&link.record, nullptr, 4, reply, &n), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(APDUPlainTransceiveM(&link.record, cmd, 4, nullptr, &n), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(APDUPlainTransceiveM(&link.record, cmd, 0x10009, reply, &n), ZEL_MAX_SIZE_EXCEEDED);
    EXPECT_EQ(APDUPlainTransceiveM(nullptr, cmd, 4, reply, &n), ZEL_DEVICE_WRONG_HANDLE);
    EXPECT_TRUE(link.writes.empty());
}

TEST(ApduPlain, InterimFramesChainedRepliesAndEmptyReplies)
{
    // Interim frames before the answer, then an answer in three marked pieces.
    {
        ScriptLink link;
        const Bytes cmd{0x00, 0xB0, 0x00, 0x00, 0x00};
        const Bytes whole = pattern(254 + 254 + 10, 7);
        link.reply(frame(ACK, 0x94, ACT, 6, 0, 0));
        link.reply(
            cat(cat(frame(0xA1, 0x94, 0x85), frame(0xA1, 0x94, 0x85)),
                cat(cat(response(0x94, slice(whole, 0, 254), 0x5A), response(0x94, slice(whole, 254, 254), 0x5A)),
                    response(0x94, slice(whole, 508, 10)))));
        uint8_t *reply = nullptr;
        uint32_t n = 0;
        ASSERT_EQ(APDUPlainTransceiveToHeapM(&link.record, cmd.data(), 5, &reply, &n), ZEL_OK);
        ASSERT_EQ(n, whole.size());
        EXPECT_EQ(Bytes(reply, reply + n), whole);
        OrbFree(reply);
    }
    // An answer without data, first or in the middle of a chained reply.
    for (bool middle : {false, true}) {
        ScriptLink link;
        const Bytes cmd{0x00, 0xB0, 0x00, 0x00};
        link.reply(frame(ACK, 0x94, ACT, 5, 0, 0));
        link.reply(middle ? cat(response(0x94, {1, 2, 3}, 0x5A), frame(RSP, 0x94, RST, 0, 0, 0))
                          : frame(RSP, 0x94, RST));
        uint8_t *reply = reinterpret_cast<uint8_t *>(&link);
        uint32_t n = 99;
        EXPECT_EQ(APDUPlainTransceiveToHeapM(&link.record, cmd.data(), 4, &reply, &n), ZEL_APDU_TRANSCEIVE_ERROR);
        EXPECT_EQ(reply, nullptr);
        EXPECT_EQ(n, 0u);
    }
}

TEST(ApduPlain, ToHeapWritesPieceAndChecksumApart)
{
    ScriptLink link;
    const Bytes cmd = pattern(300, 1);
    link.reply(frame(ACK, 0x94, ACT, 0x01, 0x01, 0x5A));
    link.reply({});                                // the piece
    link.reply(frame(ACK, 0x94, ACT, 0, 0, 0x5A)); // its checksum
    link.reply({});
    link.reply({});
    link.reply(response(0x94, {0x90, 0x00}));
    uint8_t *reply = nullptr;
    uint32_t n = 0;
    ASSERT_EQ(APDUPlainTransceiveToHeapM(&link.record, cmd.data(), 300, &reply, &n), ZEL_OK);
    ASSERT_EQ(link.writes.size(), 6u);
    EXPECT_EQ(link.writes[1], slice(cmd, 0, 256));
    EXPECT_EQ(link.writes[2], Bytes{ext(slice(cmd, 0, 256)).back()});
    EXPECT_EQ(link.writes[3], chain_frame(44, false));
    EXPECT_EQ(Bytes(reply, reply + n), (Bytes{0x90, 0x00}));
    OrbFree(reply);
}

uint32_t fake_now = 0;
uint32_t fake_tick()
{
    return fake_now += 1000;
}

TEST(ApduPlain, EndlessInterimFramesEnd)
{
    ScriptLink link;
    zel::set_tick_hook(fake_tick);
    Bytes interims;
    for (int i = 0; i < 100; ++i)
        interims = cat(interims, frame(0xA1, 0x94, 0x85));
    link.reply(frame(ACK, 0x94, ACT, 5, 0, 0));
    link.reply(interims);
    const uint8_t cmd[4] = {0, 0xB0, 0, 0};
    uint8_t reply[8];
    uint32_t n = 0;
    EXPECT_EQ(APDUPlainTransceiveM(&link.record, cmd, 4, reply, &n), ZEL_COMMUNICATION_ERROR);
    zel::set_tick_hook(nullptr);
}

TEST(ApduCases, BuilderTable)
{
    const uint8_t hdr[4] = {0x00, 0xB0, 0x01, 0x02};
    const uint8_t data[3] = {0xAA, 0xBB, 0xCC};
    struct Case {
        const uint8_t *data;
        uint32_t nc, ne;
        bool le;
        Bytes tail; // bytes behind the header; {0xFF} marks a refusal
        uint32_t block;
    } cases[] = {
        {nullptr, 0, 300, false, {}, 2},
        {nullptr, 0, 257, true, {0x00, 0x01, 0x01}, 259},
        {nullptr, 0, 32767, true, {0x00, 0x7F, 0xFF}, 32769},
        {nullptr, 0, 256, true, {0x00}, 258},
        {nullptr, 0, 1, true, {0x01}, 3},
        {nullptr, 0, 0, true, {}, 2},
        {data, 3, 0, false, {0x03, 0xAA, 0xBB, 0xCC}, 2},
        {data, 3, 256, true, {0x03, 0xAA, 0xBB, 0xCC, 0x00}, 258},
        {data, 3, 0, true, {0x03, 0xAA, 0xBB, 0xCC, 0x00}, 2},
        {data, 3, 16, true, {0x03, 0xAA, 0xBB, 0xCC, 0x10}, 18},
        {nullptr, 0, 40000, true, {0xFF}, 0},
        {data, 3, 257, true, {0xFF}, 0},
        {data, 0, 0, false, {0xFF}, 0},
        {nullptr, 3, 0, false, {0xFF}, 0},
        {data, 256, 0, false, {0xFF}, 0},
    };
    for (const Case &c : cases) {
        uint8_t out[zel::kApduBuildMax];
        uint32_t block = 0;
        const uint32_t n = zel::apdu_build(hdr, c.data, c.nc, c.ne, c.le, out, &block);
        if (c.tail == Bytes{0xFF}) {
            EXPECT_EQ(n, 0u) << "nc " << c.nc << " ne " << c.ne;
            continue;
        }
        EXPECT_EQ(Bytes(out, out + n), cat(Bytes(hdr, hdr + 4), c.tail)) << "nc " << c.nc << " ne " << c.ne;
        EXPECT_EQ(block, c.block);
        // Whatever the builder makes, the decoder reads back.
        zel::ApduCase dc;
        ASSERT_TRUE(zel::apdu_case_decode(out, n, dc));
        EXPECT_EQ(dc.nc, c.nc);
    }
}

TEST(ApduCases, DecoderRefusesLengthsThatDoNotAddUp)
{
    const Bytes bad[] = {{0x00, 0xB0, 0x00},
                         {0x00, 0xD6, 0x00, 0x00, 0x03, 0x01},
                         {0x00, 0xD6, 0x00, 0x00, 0x01, 0x01, 0x02, 0x03},
                         {0x00, 0xD6, 0x00, 0x00, 0x00, 0x01},
                         {0x00, 0xD6, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01},
                         {0x00, 0xD6, 0x00, 0x00, 0x00, 0x00, 0x01, 0x01, 0x00}};
    for (const Bytes &b : bad) {
        zel::ApduCase c;
        EXPECT_FALSE(zel::apdu_case_decode(b.data(), static_cast<uint32_t>(b.size()), c)) << b.size();
    }
    const Bytes ext4{0x00, 0xD6, 0x00, 0x00, 0x00, 0x00, 0x02, 0x11, 0x22, 0x00, 0x00};
    zel::ApduCase c;
    ASSERT_TRUE(zel::apdu_case_decode(ext4.data(), static_cast<uint32_t>(ext4.size()), c));
    EXPECT_EQ(c.kind, 4);
    EXPECT_TRUE(c.extended);
    EXPECT_EQ(c.ne, 65536u);
    EXPECT_EQ(c.data_at, 7u);
}

TEST(ApduTransceive, StatusWordDataAndRefusals)
{
    // Data and SW 90 00: SW1 in the low byte of the value.
    {
        ScriptLink link;
        script_single(link, 5, {0x11, 0x22, 0x33, 0x90, 0x00});
        uint8_t out[8] = {};
        uint32_t ne = 8;
        uint16_t sw = 0xFFFF;
        ASSERT_EQ(APDUTransceiveM(&link.record, 0x00, 0xB0, 0x00, 0x00, nullptr, 0, out, &ne, 1, &sw), ZEL_OK);
        EXPECT_EQ(sent_apdu(link), (Bytes{0x00, 0xB0, 0x00, 0x00, 0x08}));
        EXPECT_EQ(ne, 3u);
        EXPECT_EQ(sw, 0x0090);
        EXPECT_EQ(Bytes(out, out + 3), (Bytes{0x11, 0x22, 0x33}));
    }
    // A refusal is a successful exchange with no data.
    {
        ScriptLink link;
        script_single(link, 7, {0x6A, 0x82});
        const uint8_t fid[2] = {0x3F, 0x00};
        uint32_t ne = 0;
        uint16_t sw = 0;
        ASSERT_EQ(APDUTransceiveM(&link.record, 0x00, 0xA4, 0x00, 0x0C, fid, 2, nullptr, &ne, 0, &sw), ZEL_OK);
        EXPECT_EQ(sent_apdu(link), (Bytes{0x00, 0xA4, 0x00, 0x0C, 0x02, 0x3F, 0x00}));
        EXPECT_EQ(ne, 0u);
        EXPECT_EQ(sw, 0x826A);
    }
    // More data than asked for: refused, nothing copied, the length told.
    {
        ScriptLink link;
        script_single(link, 5, {1, 2, 3, 4, 5, 0x90, 0x00});
        uint8_t out[8] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
        uint32_t ne = 4;
        uint16_t sw = 0;
        EXPECT_EQ(APDUTransceiveM(&link.record, 0x00, 0xB0, 0x00, 0x00, nullptr, 0, out, &ne, 1, &sw),
                  ZEL_BUFFER_SIZE_EXCEEDED);
        EXPECT_EQ(ne, 5u);
        EXPECT_THAT(out, ::testing::Each(0xEE));
    }
    // Without Le the exchange keeps a block of 2: data from the card does not fit it.
    {
        ScriptLink link;
        script_single(link, 4, {1, 0x90, 0x00});
        uint8_t out[8] = {};
        uint32_t ne = 8;
        uint16_t sw = 0;
        EXPECT_EQ(APDUTransceiveM(&link.record, 0x00, 0xB0, 0x00, 0x00, nullptr, 0, out, &ne, 0, &sw),
                  ZEL_BUFFER_SIZE_EXCEEDED);
        EXPECT_EQ(out[0], 0);
    }
    // One byte of reply is too short for a status word.
    {
        ScriptLink link;
        script_single(link, 5, {0x90});
        uint8_t out[8] = {};
        uint32_t ne = 8;
        uint16_t sw = 0;
        EXPECT_EQ(APDUTransceiveM(&link.record, 0x00, 0xB0, 0x00, 0x00, nullptr, 0, out, &ne, 1, &sw),
                  ZEL_READING_ERROR);
    }
    // Arguments the case table refuses never reach the reader.
    {
        ScriptLink link;
        uint8_t out[8];
        uint32_t ne = 40000;
        uint16_t sw = 0;
        EXPECT_EQ(APDUTransceiveM(&link.record, 0, 0xB0, 0, 0, nullptr, 0, out, &ne, 1, &sw), ZEL_PARAMETERS_ERROR);
        ne = 1;
        EXPECT_EQ(APDUTransceiveForceExtendedM(&link.record, 0, 0xB0, 0, 0, out, 1, out, &ne, 1, &sw),
                  ZEL_PARAMETERS_ERROR);
        EXPECT_TRUE(link.writes.empty());
    }
}

TEST(ApduTransceive, ForcedExtendedLe)
{
    ScriptLink link;
    script_single(link, 7, {0xAB, 0x90, 0x00});
    uint8_t out[16] = {};
    uint32_t ne = 16;
    uint16_t sw = 0;
    ASSERT_EQ(APDUTransceiveForceExtendedM(&link.record, 0x00, 0xB0, 0x00, 0x00, nullptr, 0, out, &ne, 1, &sw), ZEL_OK);
    EXPECT_EQ(sent_apdu(link), (Bytes{0x00, 0xB0, 0x00, 0x00, 0x00, 0x00, 0x10}));
    EXPECT_EQ(ne, 1u);
    EXPECT_EQ(out[0], 0xAB);
}

TEST(ApduHexText, CommandAndReplyText)
{
    ScriptLink link;
    script_single(link, 5, {0x0A, 0xBC, 0x90, 0x00});
    char *text = nullptr;
    ASSERT_EQ(APDUHexStrTransceiveM(&link.record, "00 b0 00 00 02", &text), ZEL_OK);
    EXPECT_EQ(sent_apdu(link), (Bytes{0x00, 0xB0, 0x00, 0x00, 0x02}));
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "0ABC9000");

    EXPECT_EQ(APDUHexStrTransceiveM(&link.record, "00B000", &text), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(APDUHexStrTransceiveM(&link.record, "00B0000G", &text), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(APDUHexStrTransceiveM(&link.record, "00B00000F", &text), ZEL_PARAMETERS_ERROR);
    const std::string long_text(1026, '0');
    EXPECT_EQ(APDUHexStrTransceiveM(&link.record, long_text.c_str(), &text), ZEL_MAX_SIZE_EXCEEDED);
}

TEST(ApduHexText, ReplyLongerThanTheTextIsRefused)
{
    ScriptLink link;
    const Bytes big = pattern(254);
    link.reply(frame(ACK, 0x94, ACT, 5, 0, 0));
    Bytes replies;
    for (int i = 0; i < 17; ++i) // 4318 bytes: 8636 characters
        replies = cat(replies, response(0x94, big, i < 16 ? 0x5A : 0));
    link.reply(replies);
    char *text = nullptr;
    EXPECT_EQ(APDUHexStrTransceiveM(&link.record, "00B00000", &text), ZEL_BUFFER_SIZE_EXCEEDED);
    EXPECT_EQ(text, nullptr);
}

TEST(ApduInterface, SwitchFrames)
{
    struct Case {
        ZEL_STATUS (*op)(ZEL_HANDLE);
        uint8_t cmd, par0, par1;
    } cases[] = {
        {SetISO14443_4_ModeM, 0x93, 0, 0},
        {SetISO14443_4_OrbStorageM, 0x97, 0, 0},
        {card_halt_enableM, 0x64, 0, 0},
        {Zel_APDU_StartM, 0x7F, 5, 0},
        {Zel_APDU_StopM, 0x7F, 2, 0},
        {Zel_DESFIRE_StartM, 0x7F, 5, 0},
        {Zel_DESFIRE_StopM, 0x7F, 2, 0},
        {APDU_switch_to_ISO7816_interfaceM, 0x95, 2, 0},
        {close_ISO7816_interface_APDU_ISO14443_4M, 0x96, 1, 0},
        {close_ISO7816_interface_no_APDUM, 0x96, 2, 0},
        {APDU_switch_to_ISO14443_4_interfaceM, 0x96, 3, 0},
        {APDU_switch_off_from_ISO7816_interfaceM, 0x96, 4, 0},
    };
    for (const Case &c : cases) {
        ScriptLink link;
        link.reply(frame(RSP, c.cmd, RST));
        EXPECT_EQ(c.op(&link.record), ZEL_OK);
        ASSERT_EQ(link.writes.size(), 1u);
        EXPECT_EQ(link.writes[0], frame(CMD, c.cmd, CTR, 0, c.par0, c.par1));
        // The reader's refusal is the result.
        ScriptLink refusing;
        refusing.reply(frame(0xEC, 0x08, 0xCE));
        EXPECT_EQ(c.op(&refusing.record), ZEL_NO_CARD);
    }
    ScriptLink link;
    link.reply(frame(RSP, 0x92, RST));
    EXPECT_EQ(s_block_deselectM(&link.record, 0x64), ZEL_OK);
    EXPECT_EQ(link.writes[0], frame(CMD, 0x92, CTR, 0, 0, 0x64));

    // The configuration record: byte 3 its first byte, byte 4 its third, byte 5 its second; an EXT is read.
    ScriptLink icfg;
    icfg.reply(response(0x7F, {0x01}));
    const uint8_t rec[3] = {0x00, 0x21, 0x05};
    EXPECT_EQ(Zel_DESFIRE_SendICFGM(&icfg.record, rec), ZEL_OK);
    EXPECT_EQ(icfg.writes[0], frame(CMD, 0x7F, CTR, 0x00, 0x05, 0x21));
}

TEST(ApduInterface, AtsUidSakInEveryLength)
{
    const Bytes ats{0x05, 0x78, 0x80, 0x70, 0x02};
    const Bytes uid{0x04, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66};
    struct Case {
        Bytes data;
        ZEL_STATUS want;
        uint8_t ats_len, uid_len, sak;
    } cases[] = {
        {{}, ZEL_OK, 0, 0, 0},
        {cat(Bytes{5}, ats), ZEL_OK, 5, 0, 0},
        {cat(cat(Bytes{5}, ats), cat(Bytes{7}, uid)), ZEL_OK, 5, 7, 0},
        {cat(cat(Bytes{5}, ats), cat(cat(Bytes{7}, uid), Bytes{0x20})), ZEL_OK, 5, 7, 0x20},
        {cat(cat(Bytes{5}, ats), cat(cat(Bytes{7}, uid), Bytes{0x20, 0x00})), ZEL_BUFFER_OVERFLOW, 5, 7, 0x20},
        {cat(Bytes{26}, pattern(26)), ZEL_MAX_SIZE_EXCEEDED, 26, 0, 0},
        {cat(cat(Bytes{5}, ats), cat(Bytes{11}, pattern(11))), ZEL_MAX_SIZE_EXCEEDED, 5, 11, 0},
        {cat(Bytes{9}, ats), ZEL_COMMUNICATION_ERROR, 9, 0, 0},
    };
    for (const Case &c : cases) {
        ScriptLink link;
        link.reply(c.data.empty() ? cat(frame(RSP, 0x93, RST, 1), ext({})) : response(0x93, c.data));
        uint8_t a[32], u[10], al = 0xEE, ul = 0xEE, sak = 0xEE;
        std::memset(a, 0xEE, sizeof a);
        EXPECT_EQ(SetISO14443_4_Mode_GetATSM(&link.record, a, &al, u, &ul, &sak), c.want) << c.data.size();
        EXPECT_EQ(link.writes[0], frame(CMD, 0x93, CTR, 0, 7, 0));
        EXPECT_EQ(al, c.ats_len);
        EXPECT_EQ(ul, c.uid_len);
        EXPECT_EQ(sak, c.sak);
        if (c.want == ZEL_OK && c.ats_len) {
            EXPECT_EQ(Bytes(a, a + 5), ats);
        }
        EXPECT_EQ(a[31], 0) << "the ATS buffer is cleared for 32";
    }
}

TEST(ApduInterface, ContactAtr)
{
    const Bytes atr{0x3B, 0x8A, 0x80, 0x01, 0x11};
    {
        ScriptLink link;
        link.reply(response(0x95, atr));
        uint8_t out[8] = {};
        uint32_t len = sizeof out;
        ASSERT_EQ(Open_ISO7816_GenericM(&link.record, out, &len), ZEL_OK);
        EXPECT_EQ(link.writes[0], frame(CMD, 0x95, CTR, 0, 4, 0));
        EXPECT_EQ(Bytes(out, out + len), atr);
    }
    {
        ScriptLink link;
        link.reply(response(0x95, atr));
        uint8_t out[8] = {};
        uint32_t len = 4;
        EXPECT_EQ(open_ISO7816_interfaceM(&link.record, out, &len), ZEL_NO_MEMORY_ERROR);
        EXPECT_EQ(link.writes[0], frame(CMD, 0x95, CTR, 0, 1, 0));
        EXPECT_EQ(len, 4u);
        EXPECT_EQ(out[0], 0);
    }
}

Bytes block_reply(uint8_t cmd, const Bytes &blk, uint8_t chained, uint32_t status = 0)
{
    Bytes d{static_cast<uint8_t>(status), static_cast<uint8_t>(status >> 8), static_cast<uint8_t>(status >> 16),
            static_cast<uint8_t>(status >> 24)};
    if (cmd != 0x7F)
        d.push_back(chained);
    d.push_back(static_cast<uint8_t>(blk.size()));
    return response(cmd, cat(d, blk));
}

TEST(ApduBlocks, IBlockRBlockFramesAndReplies)
{
    const Bytes inf{0x00, 0xB0, 0x00, 0x00, 0x04};
    {
        ScriptLink link;
        link.reply(frame(ACK, 0x90, ACT, 6, 0x0C, 0x20));
        link.reply(block_reply(0x90, {0x13, 0xAA, 0xBB}, 1, 0x01020304));
        uint8_t len = 0, chained = 0, data[255] = {};
        uint32_t status = 0;
        ASSERT_EQ(i_block_trans_rcv_chainM(&link.record, 1, 0x20, 5, inf.data(), &len, data, &chained, &status),
                  ZEL_OK);
        EXPECT_EQ(link.writes[0], frame(CMD, 0x90, CTR, 6, 0x0C, 0x20));
        EXPECT_EQ(link.writes[1], ext(inf));
        EXPECT_EQ(len, 3);
        EXPECT_EQ(chained, 1);
        EXPECT_EQ(status, 0x01020304u);
        EXPECT_EQ(Bytes(data, data + 3), (Bytes{0x13, 0xAA, 0xBB}));
    }
    {
        ScriptLink link;
        link.reply(frame(ACK, 0x7F, ACT, 6, 0x04, 0x64));
        link.reply(block_reply(0x7F, {0x02, 0x90, 0x00}, 0));
        uint64_t len = 0;
        uint8_t data[255] = {};
        uint32_t status = 7;
        ASSERT_EQ(Zel_i_block_transceiveM(&link.record, 0, 0x64, 5, inf.data(), &len, data, &status), ZEL_OK);
        EXPECT_EQ(link.writes[0], frame(CMD, 0x7F, CTR, 6, 0x04, 0x64));
        EXPECT_EQ(len, 3u);
        EXPECT_EQ(status, 0u);
    }
    {
        ScriptLink link;
        link.reply(block_reply(0x91, {0x02, 0x01}, 0));
        uint8_t len = 0, chained = 9, data[255] = {};
        uint32_t status = 0;
        ASSERT_EQ(r_block_transceiveM(&link.record, 1, 0x10, &len, data, &chained, &status), ZEL_OK);
        EXPECT_EQ(link.writes[0], frame(CMD, 0x91, CTR, 0, 1, 0x10));
        EXPECT_EQ(chained, 0);
        EXPECT_EQ(len, 2);
    }
}

TEST(ApduBlocks, SoftErrorKeepsTheLinkInStepAndBadRepliesFail)
{
    ScriptLink link;
    // Status 115 in an error frame that still carries its EXT; then the next exchange must read cleanly.
    const Bytes soft_ext = ext({0x73, 0, 0, 0, 0, 0});
    link.reply(cat(frame(0xEC, 0x73, 0xCE, static_cast<uint8_t>(soft_ext.size())), soft_ext));
    uint8_t len = 0xEE, chained = 0xEE, data[255] = {};
    uint32_t status = 0xEEEE;
    EXPECT_EQ(r_block_transceiveM(&link.record, 1, 0x10, &len, data, &chained, &status), ZEL_VALUE_BLOCK_ADDR_INVALID);
    EXPECT_EQ(len, 0xEE);
    EXPECT_EQ(status, 0xEEEEu);
    link.reply(block_reply(0x91, {0xA2}, 0));
    EXPECT_EQ(r_block_transceiveM(&link.record, 1, 0x10, &len, data, &chained, &status), ZEL_OK);
    EXPECT_EQ(len, 1);

    // A length byte that promises more than the EXT holds.
    Bytes lying{0, 0, 0, 0, 0, 9, 0x02};
    link.reply(response(0x91, lying));
    EXPECT_EQ(r_block_transceiveM(&link.record, 1, 0x10, &len, data, &chained, &status), ZEL_COMMUNICATION_ERROR);
}

TEST(ApduBlocks, ApduOverBlocksCollectsChainedAnswer)
{
    ScriptLink link;
    link.reply(frame(ACK, 0x90, ACT, 6, 0x04, 100));
    link.reply(block_reply(0x90, {0x12, 1, 2, 3}, 1));
    link.reply(block_reply(0x91, {0x13}, 1)); // nothing behind the PCB: ignored
    link.reply(block_reply(0x91, {0x13, 4, 5}, 1));
    link.reply(block_reply(0x91, {0x02, 6, 0x90, 0x00}, 0));
    uint8_t out[16] = {};
    uint32_t ne = 4;
    uint8_t sw[2] = {0xEE, 0xEE};
    ASSERT_EQ(Zel_APDU_TransceiveM(&link.record, 0x00, 0xB0, 0x00, 0x00, nullptr, 0, out, sizeof out, &ne, 1, sw),
              ZEL_OK);
    EXPECT_EQ(link.writes[0], frame(CMD, 0x90, CTR, 6, 0x04, 100));
    EXPECT_EQ(link.writes[1], ext({0x00, 0xB0, 0x00, 0x00, 0x04}));
    EXPECT_EQ(link.writes[2], frame(CMD, 0x91, CTR, 0, 0x01, 0x64));
    EXPECT_EQ(ne, 8u);
    EXPECT_EQ(Bytes(out, out + 8), (Bytes{1, 2, 3, 4, 5, 6, 0x90, 0x00}));
    EXPECT_EQ(sw[0], 0x90);
    EXPECT_EQ(sw[1], 0x00);
}

TEST(ApduBlocks, ApduOverBlocksBounds)
{
    // More than the capacity.
    {
        ScriptLink link;
        link.reply(frame(ACK, 0x90, ACT, 6, 0x04, 100));
        link.reply(block_reply(0x90, {0x12, 1, 2, 3}, 1));
        link.reply(block_reply(0x91, {0x13, 4, 5, 6}, 0));
        uint8_t out[5] = {};
        uint32_t ne = 4;
        uint8_t sw[2];
        EXPECT_EQ(Zel_APDU_TransceiveM(&link.record, 0, 0xB0, 0, 0, nullptr, 0, out, sizeof out, &ne, 1, sw),
                  ZEL_MAX_SIZE_EXCEEDED);
    }
    // A card that chains for ever.
    {
        ScriptLink link;
        link.reply(frame(ACK, 0x90, ACT, 6, 0x04, 100));
        link.reply(block_reply(0x90, {0x12}, 1));
        for (uint32_t i = 0; i <= zel::kMaxAckRounds; ++i)
            link.reply(block_reply(0x91, {0x13}, 1));
        uint8_t out[5] = {};
        uint32_t ne = 4;
        uint8_t sw[2];
        EXPECT_EQ(Zel_APDU_TransceiveM(&link.record, 0, 0xB0, 0, 0, nullptr, 0, out, sizeof out, &ne, 1, sw),
                  ZEL_COMMUNICATION_ERROR);
    }
}

TEST(ApduRaw, FrontEndFrame)
{
    ScriptLink link;
    link.reply(frame(ACK, 0x63, ACT, 9, 0x15, 0));
    link.reply(response(0x63, {0x04, 0x00}));
    const uint8_t req[2] = {0x26, 0x07};
    uint8_t recv[255] = {};
    uint32_t n = 0;
    ASSERT_EQ(card_transceiveM(&link.record, 1, 0, 1, 0, 1, 0x11223344, req, 2, recv, &n), ZEL_OK);
    EXPECT_EQ(link.writes[0], frame(CMD, 0x63, CTR, 9, 0x15, 0));
    EXPECT_EQ(link.writes[1], ext({0x44, 0x33, 0x22, 0x11, 0x02, 0x26, 0x07, 0x00}));
    EXPECT_EQ(Bytes(recv, recv + n), (Bytes{0x04, 0x00}));

    ScriptLink start;
    start.reply(frame(ACK, 0x63, ACT, 6, 0x0E, 0));
    start.reply(frame(RSP, 0x63, RST));
    ASSERT_EQ(card_transceive_mode_startM(&start.record, 1, 1, 0x01, 250), ZEL_OK);
    EXPECT_EQ(start.writes[0], frame(CMD, 0x63, CTR, 6, 0x0E, 0));
    EXPECT_EQ(start.writes[1], ext({0x01, 0x00, 0x00, 0x00, 0x00}));
}

} // namespace
