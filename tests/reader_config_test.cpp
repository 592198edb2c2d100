// Reader configuration on a scripted link: frames byte for byte, the EEPROM route, refusals before any frame.
#include <gtest/gtest.h>

#include "core/internal.h"
#include "script_link.h"
#include "tandro.h"

using namespace zeltest;

namespace {

constexpr uint8_t ACK = 0xAC, ACK_T = 0xCA, RSP = 0xDE, RSP_T = 0xED, ERR = 0xEC, ERR_T = 0xCE;
const uint8_t PW[8] = {'1', '1', '1', '1', '1', '1', '1', '1'};
const Bytes PWB(PW, PW + 8);

// The acknowledge and the plain response of a command with an EXT.
void ack_ok(ScriptLink &link, uint8_t code, uint8_t ext_len)
{
    link.reply(frame(ACK, code, ACK_T, ext_len));
    link.reply(frame(RSP, code, RSP_T));
}

class NoSleep : public ::testing::Test {
protected:
    void SetUp() override
    {
        zel::set_sleep_hook([](uint32_t) {});
    }
    void TearDown() override { zel::set_sleep_hook(nullptr); }
};

TEST_F(NoSleep, EepromReadAndWriteFrames)
{
    ScriptLink link;
    link.reply(frame(ACK, 0x34, ACK_T, 13));
    link.reply(cat(frame(RSP, 0x34, RSP_T, 5), ext({0xA1, 0xA2, 0xA3, 0xA4})));
    uint8_t data[4] = {9, 9, 9, 9};
    ASSERT_EQ(ReaderEepromReadHnd(&link.record, data, 0x120, 4), ZEL_OK);
    EXPECT_EQ(Bytes(data, data + 4), (Bytes{0xA1, 0xA2, 0xA3, 0xA4}));
    ASSERT_EQ(link.writes.size(), 2u);
    EXPECT_EQ(link.writes[0], cmd(0x34, 13));
    EXPECT_EQ(link.writes[1], ext(cat(cat(le32(0x120), le32(4)), {9, 9, 9, 9})));

    // The route sets the address's top bit; a reply of another length is refused.
    ScriptLink routed;
    routed.record.ee_route = 1;
    routed.reply(frame(ACK, 0x34, ACK_T, 10));
    routed.reply(cat(frame(RSP, 0x34, RSP_T, 3), ext({1, 2})));
    uint8_t one = 0;
    EXPECT_EQ(ReaderEepromReadHnd(&routed.record, &one, 7, 1), ZEL_COMMUNICATION_ERROR);
    EXPECT_EQ(routed.writes[1], ext(cat(cat(le32(0x80000007), le32(1)), {0})));
    // The length is judged on the response frame alone: an EXT that never comes, or one that is spoilt, is not
    // waited for or tested (either would answer another status).
    for (const Bytes &tail : {Bytes{}, Bytes{1, 2, 0x55}}) {
        ScriptLink bad;
        bad.reply(frame(ACK, 0x34, ACK_T, 10));
        bad.reply(cat(frame(RSP, 0x34, RSP_T, 3), tail));
        one = 0x77;
        EXPECT_EQ(ReaderEepromReadHnd(&bad.record, &one, 7, 1), ZEL_COMMUNICATION_ERROR);
        EXPECT_EQ(one, 0x77);
    }

    ScriptLink w;
    ack_ok(w, 0x35, 19);
    ASSERT_EQ(ReaderEepromWriteHnd(&w.record, data, 0x10, 2, PW), ZEL_OK);
    EXPECT_EQ(w.writes[0], cmd(0x35, 19));
    EXPECT_EQ(w.writes[1], ext(cat(cat(cat(le32(0x10), le32(2)), PWB), {0xA1, 0xA2})));
}

TEST_F(NoSleep, RefusedBeforeAnyFrame)
{
    ScriptLink link;
    uint8_t big[200] = {};
    EXPECT_EQ(ReaderEepromReadHnd(&link.record, big, 0, 129), ZEL_MAX_SIZE_EXCEEDED);
    EXPECT_EQ(ReaderEepromWriteHnd(&link.record, big, 0, 129, PW), ZEL_MAX_SIZE_EXCEEDED);
    EXPECT_EQ(EE_WriteHnd(&link.record, 0, 185, big), ZEL_MAX_SIZE_EXCEEDED);
    EXPECT_EQ(EE_WriteHnd(&link.record, 0, 4, nullptr), ZEL_NO_MEMORY_ERROR);
    EXPECT_EQ(EE_ReadHnd(&link.record, 0, 4, nullptr), ZEL_NO_MEMORY_ERROR);
    EXPECT_EQ(SetUartSpeedHnd(&link.record, 12345), ZEL_PARAMETERS_ERROR);
    link.record.opened = 1;
    EXPECT_EQ(SetUartDefaultSpeedHnd(&link.record, 1, 3, "x"), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(link.record.opened, 0); // an unknown port kind still closes the port
    link.record.ee_route = 1;
    EXPECT_EQ(ReaderKeyWriteHnd(&link.record, PW, 32), ZEL_MAX_KEY_INDEX_EXCEEDED);
    EXPECT_TRUE(link.writes.empty());
}

TEST_F(NoSleep, UartSpeedSendsTheRateAndReadsNothing)
{
    ScriptLink link;
    link.reply(frame(ACK, 0x70, ACK_T, 5));
    // The scripted link has no line rate to change, so the port's refusal is what comes back.
    EXPECT_EQ(SetUartSpeedHnd(&link.record, 115200), ZEL_COMMUNICATION_ERROR);
    ASSERT_EQ(link.writes.size(), 2u);
    EXPECT_EQ(link.writes[0], cmd(0x70, 5));
    EXPECT_EQ(link.writes[1], ext(le32(115200)));
    EXPECT_EQ(link.record.baud_rate, 115200u);
}

TEST_F(NoSleep, AsyncSetupFramesAndInnerChecksum)
{
    ScriptLink link;
    ack_ok(link, 0x3D, 8);
    ASSERT_EQ(SetAsyncCardIdSendConfigHnd(&link.record, 1, 1, '!', '?', 1, 115200), ZEL_OK);
    // Flags 0x07 in PAR0; EXT prefix, suffix, baud and (flags ^ those six) + 7.
    const uint8_t inner = static_cast<uint8_t>((0x07 ^ '!' ^ '?' ^ 0x00 ^ 0xC2 ^ 0x01 ^ 0x00) + 7);
    EXPECT_EQ(link.writes[0], cmd(0x3D, 8, 0x07, 0));
    EXPECT_EQ(link.writes[1], ext(cat(cat({'!', '?'}, le32(115200)), {inner})));

    ScriptLink ex;
    ack_ok(ex, 0x3D, 8);
    ASSERT_EQ(SetAsyncCardIdSendConfigExHnd(&ex.record, 1, 0, 'a', 'b', 0, 1, 7, 9600), ZEL_OK);
    EXPECT_EQ(ex.writes[0], cmd(0x3D, 8, 0x19, 0));

    ScriptLink json;
    ack_ok(json, 0x3D, 8);
    ASSERT_EQ(SetAsyncCardJsonSendConfigHnd(&json.record, 1, 1, 1000000), ZEL_OK);
    const uint8_t jinner = static_cast<uint8_t>((0x07 ^ 0x40 ^ 0x42 ^ 0x0F) + 7);
    EXPECT_EQ(json.writes[0], cmd(0x3D, 8, 0x07, 1));
    EXPECT_EQ(json.writes[1], ext(cat(cat({0, 0}, le32(1000000)), {jinner})));

    // The route stores the whole record, flags first.
    ScriptLink routed;
    routed.record.ee_route = 1;
    ack_ok(routed, 0xE3, 17);
    ASSERT_EQ(SetAsyncCardIdSendConfigHnd(&routed.record, 1, 1, '!', '?', 1, 115200), ZEL_OK);
    EXPECT_EQ(routed.writes[1], ext(cat(cat(le32(669), le32(8)), cat(cat({0x07, '!', '?'}, le32(115200)), {inner}))));
}

TEST_F(NoSleep, AsyncSetupReadBack)
{
    const Bytes rec = {0x1D, '<', '>', 0x00, 0x96, 0x00, 0x00};
    uint8_t x = 0;
    for (uint8_t b : rec)
        x ^= b;
    ScriptLink link;
    link.reply(cat(frame(RSP, 0x3E, RSP_T, 9, 0x1D, 0), ext(cat(rec, {static_cast<uint8_t>(x + 7)}))));
    uint32_t f[5] = {9, 9, 9, 9, 9}, baud = 0;
    uint8_t prefix = 0, suffix = 0;
    ASSERT_EQ(GetAsyncCardIdSendConfigExHnd(&link.record, &f[0], &f[1], &prefix, &suffix, &f[2], &f[3], &f[4], &baud),
              ZEL_OK);
    EXPECT_EQ(link.writes[0], cmd(0x3E));
    EXPECT_EQ((Bytes{uint8_t(f[0]), uint8_t(f[1]), uint8_t(f[2]), uint8_t(f[3]), uint8_t(f[4])}),
              (Bytes{1, 0, 1, 1, 1}));
    EXPECT_EQ(prefix, '<');
    EXPECT_EQ(suffix, '>');
    EXPECT_EQ(baud, 38400u);

    ScriptLink bad;
    bad.reply(cat(frame(RSP, 0x3E, RSP_T, 9), ext(cat(rec, {static_cast<uint8_t>(x + 8)}))));
    baud = 0;
    EXPECT_EQ(GetAsyncCardIdSendConfigHnd(&bad.record, nullptr, nullptr, nullptr, nullptr, nullptr, &baud),
              ZEL_COMMUNICATION_ERROR);
    EXPECT_EQ(baud, 0u);
}

TEST_F(NoSleep, PasswordAndLockRefusalsComeFromTheReader)
{
    ScriptLink link;
    link.reply(frame(ACK, 0x27, ACK_T, 9));
    link.reply(frame(ERR, ZEL_WRONG_PASSWORD, ERR_T));
    EXPECT_EQ(ReaderKeysLockHnd(&link.record, PW), ZEL_WRONG_PASSWORD);
    EXPECT_EQ(link.writes[1], ext(PWB));
    link.reply(frame(ACK, 0x12, ACK_T, 7));
    link.reply(frame(ERR, ZEL_KEYS_LOCKED, ERR_T));
    const uint8_t key[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(ReaderKeyWriteHnd(&link.record, key, 3), ZEL_KEYS_LOCKED);
    EXPECT_EQ(link.writes[2], cmd(0x12, 7, 3));

    // The password change reads its reply by hand: an error frame, then a plain response.
    const uint8_t np[8] = {'2', '2', '2', '2', '2', '2', '2', '2'};
    ScriptLink pw;
    pw.reply(frame(ACK, 0x33, ACK_T, 17));
    pw.reply(frame(ERR, ZEL_WRONG_PASSWORD, ERR_T));
    EXPECT_EQ(ChangeReaderPasswordHnd(&pw.record, PW, np), ZEL_WRONG_PASSWORD);
    pw.reply(frame(ACK, 0x33, ACK_T, 17));
    pw.reply(frame(RSP, 0x33, RSP_T));
    EXPECT_EQ(ChangeReaderPasswordHnd(&pw.record, PW, np), ZEL_OK);
    EXPECT_EQ(pw.writes[2], cmd(0x33, 17));
    EXPECT_EQ(pw.writes[3], ext(cat(PWB, Bytes(np, np + 8))));
    pw.reply(frame(ACK, 0x33, ACK_T, 17));
    pw.reply(frame(RSP, 0x34, RSP_T));
    EXPECT_EQ(ChangeReaderPasswordHnd(&pw.record, PW, np), ZEL_COMMUNICATION_ERROR);
}

TEST_F(NoSleep, EepromRouteForStoredData)
{
    ScriptLink link;
    link.record.ee_route = 1;
    const uint8_t key[6] = {1, 2, 3, 4, 5, 6};
    ack_ok(link, 0xE3, 15);
    ASSERT_EQ(ReaderKeyWriteHnd(&link.record, key, 2), ZEL_OK);
    EXPECT_EQ(link.writes[1], ext(cat(cat(le32(166), le32(6)), Bytes(key, key + 6))));
    ack_ok(link, 0xE1, 10);
    ASSERT_EQ(ReaderKeysUnlockHnd(&link.record, PW), ZEL_OK);
    EXPECT_EQ(link.writes[2], cmd(0xE1, 10));
    EXPECT_EQ(link.writes[3], ext(cat({0}, PWB)));
    ack_ok(link, 0xE0, 17);
    ASSERT_EQ(ChangeReaderPasswordHnd(&link.record, PW, PW), ZEL_OK);
    EXPECT_EQ(link.writes[4], cmd(0xE0, 17));
    ack_ok(link, 0xE3, 11);
    ASSERT_EQ(ChangeReaderJobIdHnd(&link.record, 0x1234, PW), ZEL_OK);
    EXPECT_EQ(link.writes[7], ext(cat(cat(le32(677), le32(2)), {0x34, 0x12})));
    ack_ok(link, 0xE3, 11);
    ASSERT_EQ(SetSpeedPermanentlyHnd(&link.record, 1, 2), ZEL_OK);
    EXPECT_EQ(link.writes[9], ext(cat(cat(le32(662), le32(2)), {0x59, 0xA6})));
    const uint8_t sam_key[16] = {};
    ack_ok(link, 0xE3, 28);
    ASSERT_EQ(WriteSamUnlockKeyHnd(&link.record, 3, 4, sam_key), ZEL_OK);
    Bytes sam = {3, 4};
    sam.resize(18, 0);
    EXPECT_EQ(link.writes[11], ext(cat(cat(le32(602), le32(19)), ext(sam))));

    // A speed record without its mark or complement is a checksum failure.
    link.reply(frame(ACK, 0xE2, ACK_T, 9));
    link.reply(cat(frame(RSP, 0xE2, RSP_T, 3), ext({0x59, 0xA7})));
    uint8_t tx = 0, rx = 0;
    EXPECT_EQ(GetSpeedParametersHnd(&link.record, &tx, &rx), ZEL_CHKSUM_ERROR);
    link.reply(frame(ACK, 0xE2, ACK_T, 9));
    link.reply(cat(frame(RSP, 0xE2, RSP_T, 3), ext({0x59, 0xA6})));
    ASSERT_EQ(GetSpeedParametersHnd(&link.record, &tx, &rx), ZEL_OK);
    EXPECT_EQ(tx * 10 + rx, 12);

    // User data at 644; a reply longer than asked for does not fit the caller's buffer.
    link.reply(frame(ACK, 0xE2, ACK_T, 9));
    link.reply(cat(frame(RSP, 0xE2, RSP_T, 18), ext(Bytes(17, 0x33))));
    uint8_t user[16] = {};
    EXPECT_EQ(ReadUserDataHnd(&link.record, user, 0), ZEL_BUFFER_OVERFLOW);
    EXPECT_EQ(link.writes.back(), ext(cat(le32(644), le32(16))));
}

TEST_F(NoSleep, SmallCommandsAndStatus)
{
    ScriptLink link;
    ack_ok(link, 0xFD, 12);
    ASSERT_EQ(BusAdminCardMakeHnd(&link.record, 0xAABBCCDD, PW), ZEL_OK);
    EXPECT_EQ(link.writes[0], cmd(0xFD, 12));
    EXPECT_EQ(link.writes[1], ext(cat(PWB, {0xDD, 0xCC, 0xBB})));
    ack_ok(link, 0xFE, 5);
    ASSERT_EQ(SubscribeSectorHnd(&link.record, 9, 0x01020304), ZEL_OK);
    EXPECT_EQ(link.writes[2], cmd(0xFE, 5, 2, 9));
    ack_ok(link, 0x36, 11);
    ASSERT_EQ(ChangeReaderJobIdHnd(&link.record, 0x0102, PW), ZEL_OK);
    EXPECT_EQ(link.writes[5], ext(cat({0x02, 0x01}, PWB)));
    ack_ok(link, 0x1C, 0x21);
    uint8_t user[32] = {};
    ASSERT_EQ(WriteUserDataHnd(&link.record, user, 1), ZEL_OK);
    EXPECT_EQ(link.writes[6], cmd(0x1C, 0x21, 2));
    link.reply(frame(RSP, 0xE5, RSP_T));
    ASSERT_EQ(ReaderRfResetHnd(&link.record, 3), ZEL_OK);
    EXPECT_EQ(link.writes[8], cmd(0xE5, 0, 3));

    // The status read wakes the reader with a zero byte first.
    ScriptLink st;
    st.reply({});
    st.reply(cat(frame(RSP, 0xE6, RSP_T, 5), ext({1, 2, 3, 4})));
    uint32_t a = 0, b = 0, c = 0;
    uint8_t d = 0;
    ASSERT_EQ(GetReaderStatusHnd(&st.record, &a, &b, &c, &d), ZEL_OK);
    EXPECT_EQ(st.writes[0], Bytes{0x00});
    EXPECT_EQ(st.writes[1], cmd(0xE6));
    EXPECT_EQ(a + b * 10 + c * 100 + d * 1000u, 4321u);

    // The extended status may not claim more bytes than its EXT holds.
    ScriptLink ex;
    ex.reply(cat(frame(RSP, 0xE6, RSP_T, 4), ext({5, 1, 2})));
    uint8_t out[ZEL_READER_STATUS_EX_MAX_LEN] = {}, len = 0;
    EXPECT_EQ(GetReaderStatusExHnd(&ex.record, out, &len), ZEL_COMMUNICATION_ERROR);
    ex.reply(cat(frame(RSP, 0xE6, RSP_T, 4), ext({2, 7, 8})));
    ASSERT_EQ(GetReaderStatusExHnd(&ex.record, out, &len), ZEL_OK);
    EXPECT_EQ(ex.writes[1], cmd(0xE6, 0, 1));
    EXPECT_EQ(len, 2);
    EXPECT_EQ(out[1], 8);
}

} // namespace
