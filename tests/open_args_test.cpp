// The words of an open, reader serial numbers, and the boot sequence on a scripted link.
#include <gtest/gtest.h>

#include "core/internal.h"
#include "script_link.h"
#include "tandro.h"

using namespace zeltest;

namespace {

TEST(OpenArgs, WordsSetLineResetAndSpeed)
{
    zel_handle_record r;
    zel_handle_init(&r);
    r.reset_on_open = UNIT_OPEN_RESET_FORCE;
    r.comm.rts = RTS_ALWAYS_LOW;
    parse_open_arg(&r, nullptr);
    parse_open_arg(&r, "");
    EXPECT_EQ(r.reset_on_open, UNIT_OPEN_RESET_FORCE); // nothing given, nothing changed
    EXPECT_EQ(r.comm.rts, RTS_ALWAYS_LOW);

    parse_open_arg(&r, "READER_ACTIVE_ON_RTS_HIGH");
    EXPECT_EQ(r.comm.rts, READER_ACTIVE_ON_RTS_HIGH);
    EXPECT_EQ(r.reset_on_open, UNIT_OPEN_RESET_DEFAULT); // any word resets the defaults first
    EXPECT_EQ(r.br_custom, ZEL_BR_NONE);

    parse_open_arg(&r, "RTS_DISCONNECTED  UNIT_OPEN_RESET_ONLY\tBR_250000");
    EXPECT_EQ(r.comm.rts, RTS_DISCONNECTED);
    EXPECT_EQ(r.reset_on_open, UNIT_OPEN_RESET_ONLY);
    EXPECT_EQ(r.br_custom, 2u);

    // Words match as substrings; a comma does not separate; the first keyword of a word wins.
    parse_open_arg(&r, "xxUNIT_OPEN_RESET_DISABLEyy,BR_9600");
    EXPECT_EQ(r.reset_on_open, UNIT_OPEN_RESET_DISABLE);
    EXPECT_EQ(r.br_custom, 3u);
    parse_open_arg(&r, "BR_1152000");
    EXPECT_EQ(r.br_custom, 1u);
    parse_open_arg(&r, "BR_500000 BR_460800");
    EXPECT_EQ(r.br_custom, 8u); // the later word sets it again
    parse_open_arg(&r, "BR_1000000");
    EXPECT_EQ(r.br_custom, 0u);

    // Only the first 300 bytes are read.
    std::string longer(300, 'x');
    longer += " UNIT_OPEN_RESET_FORCE";
    parse_open_arg(&r, longer.c_str());
    EXPECT_EQ(r.reset_on_open, UNIT_OPEN_RESET_DEFAULT);
}

TEST(OpenArgs, ReaderSerialNumbers)
{
    for (const char *yes : {"AB123456", "ab123456", "AB123456_BT", "AB123456_BLE"})
        EXPECT_TRUE(is_reader_serial_number(yes)) << yes;
    for (const char *no : {"AB12345", "AB1234567", "A1123456", "AB12345X", "AB123456_BL", "AB123456_BTE",
                           "AB123456XBLE", "COM7", "", "/dev/ttyUSB0"})
        EXPECT_FALSE(is_reader_serial_number(no)) << no;
    EXPECT_FALSE(is_reader_serial_number(nullptr));
}

class BootWait : public ::testing::Test {
protected:
    void SetUp() override
    {
        zel::set_sleep_hook([](uint32_t) {});
        zel::set_tick_hook([]() -> uint32_t { return now += 5; });
    }
    void TearDown() override
    {
        zel::set_sleep_hook(nullptr);
        zel::set_tick_hook(nullptr);
    }
    static inline uint32_t now = 0;
};

TEST_F(BootWait, BothSequencesAndTheTailOfAnEarlierRead)
{
    {
        ScriptLink link;
        link.preload({0x03, 0x55, 0x55, 0xBB});
        EXPECT_EQ(ReaderWaitForBootSeqHnd(&link.record, 1), ZEL_OK);
        EXPECT_EQ(link.record.boot_seen, 1);
    }
    {
        ScriptLink link;
        link.preload({0x00, 0x03, 0x55, 0x55});
        EXPECT_EQ(ReaderWaitForBootSeqHnd(&link.record, 1), ZEL_OK);
    }
    {
        // Other bytes are read 4 at a time and passed over until the sequence comes.
        ScriptLink link;
        link.preload({0x11, 0x22, 0x33, 0x44, 0x03, 0x55, 0x55, 0xBB});
        EXPECT_EQ(ReaderWaitForBootSeqHnd(&link.record, 1), ZEL_OK);
    }
    {
        // Nothing comes: a time-out in bounded time, however the clock runs.
        ScriptLink link;
        EXPECT_EQ(ReaderWaitForBootSeqHnd(&link.record, 1), ZEL_TIMEOUT_ERR);
    }
}

TEST(OpenTests, ResetOnlyAsksNothingAndOldFirmwarePasses)
{
    zel::set_sleep_hook([](uint32_t) {});
    {
        ScriptLink link;
        link.record.reset_on_open = UNIT_OPEN_RESET_ONLY;
        EXPECT_EQ(test_reader_fw_version(&link.record), ZEL_OK);
        EXPECT_TRUE(link.sent.empty());
    }
    {
        // An old firmware answers "not supported" to the parameter block, on both tries: the test passes.
        ScriptLink link;
        link.record.ee_route = 1;
        link.reply(frame(0xEC, ZEL_COMMAND_NOT_SUPPORTED, 0xCE));
        link.reply(frame(0xEC, ZEL_COMMAND_NOT_SUPPORTED, 0xCE));
        EXPECT_EQ(test_reader_fw_version(&link.record), ZEL_OK);
        EXPECT_EQ(link.record.ee_route, 0);
        ASSERT_EQ(link.writes.size(), 2u);
        EXPECT_EQ(link.writes[0][4], 1); // PAR0 1 first, then 0
        EXPECT_EQ(link.writes[1][4], 0);
    }
    {
        ScriptLink link;
        link.reply(frame(0xEC, 0x01, 0xCE));
        link.reply(frame(0xEC, 0x01, 0xCE));
        EXPECT_NE(test_reader_fw_version(&link.record), ZEL_OK);
    }
    zel::set_sleep_hook(nullptr);
}

} // namespace
