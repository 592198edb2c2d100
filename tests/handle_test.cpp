// The handle record, the global copy, versions, the debug print and the timing helpers.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/internal.h"
#include "script_link.h"
#include "tandro.h"

namespace {

TEST(Handle, CreateInitAndTryPort)
{
    ZEL_HANDLE h = Zel_Hnd_Create();
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->br_custom, ZEL_BR_NONE);
    EXPECT_EQ(h->opened, 0);
    EXPECT_EQ(h->ftHandle, nullptr);
    EXPECT_EQ(h->comFd, 0);

    Zel_Hnd_assign_try_port(h, nullptr);
    EXPECT_EQ(h->try_port_set, 0);
    Zel_Hnd_assign_try_port(nullptr, "/dev/ttyUSB0");
    Zel_Hnd_assign_try_port(h, "/dev/ttyUSB0");
    EXPECT_EQ(h->try_port_set, 1);
    EXPECT_STREQ(h->try_port, "/dev/ttyUSB0");
    // A name longer than the field is cut at 511 bytes, never past the field.
    const std::string long_name(900, 'x');
    Zel_Hnd_assign_try_port(h, long_name.c_str());
    EXPECT_EQ(std::strlen(h->try_port), 511u);

    h->baud_rate = 115200;
    zel_handle_init(h);
    EXPECT_EQ(h->baud_rate, 0u);
    EXPECT_EQ(h->br_custom, ZEL_BR_NONE);
    zel_handle_init(nullptr);
    Zel_Hnd_Destroy(h);
    Zel_Hnd_Destroy(nullptr);
}

TEST(Handle, GlobalIsACopyNotAnAlias)
{
    zel_handle_record saved;
    std::memcpy(static_cast<void *>(&saved), &zel_global, sizeof saved);

    ZEL_HANDLE h = Zel_Hnd_Create();
    h->udp_rx_len = 3;
    h->udp_rx_buf[0] = 0xAB;
    Zel_Hnd_assign_try_port(h, "/dev/pts/9");
    Zel_Hnd_SetGlobal(h);
    EXPECT_STREQ(zel_global.try_port, "/dev/pts/9");
    EXPECT_EQ(zel_global.udp_rx_buf[0], 0xAB); // the socket buffer travels with its contents
    // Later changes are learned by one copy only.
    Zel_Hnd_assign_try_port(h, "/dev/pts/10");
    EXPECT_STREQ(zel_global.try_port, "/dev/pts/9");
    Zel_Hnd_SetGlobal(nullptr);
    EXPECT_STREQ(zel_global.try_port, "/dev/pts/9");
    Zel_Hnd_Destroy(h);

    std::memcpy(static_cast<void *>(&zel_global), &saved, sizeof saved);
}

TEST(Handle, PlainFormWorksOnTheGlobalRecord)
{
    zeltest::ScriptLink link;
    zel_handle_record saved;
    std::memcpy(static_cast<void *>(&saved), &zel_global, sizeof saved);
    Zel_Hnd_SetGlobal(&link.record);
    link.reply(zeltest::cat(zeltest::frame(0xDE, 0x10, 0xED, 5), zeltest::ext({0x22, 0x00, 0x18, 0xD1})));
    uint32_t type = 0;
    EXPECT_EQ(GetReaderType(&type), ZEL_OK);
    EXPECT_EQ(type, 0xD1180022u);
    std::memcpy(static_cast<void *>(&zel_global), &saved, sizeof saved);
}

TEST(Handle, NullHandleReachesThePortLayer)
{
    uint32_t type;
    EXPECT_EQ(GetReaderTypeM(nullptr, &type), ZEL_DEVICE_WRONG_HANDLE);
    uint8_t card_type;
    EXPECT_EQ(GetCardIdM(nullptr, &card_type, &type), ZEL_DEVICE_WRONG_HANDLE);
    EXPECT_EQ(ReaderCloseM(nullptr), ZEL_DEVICE_WRONG_HANDLE);
}

TEST(Version, NumberAndText)
{
    EXPECT_EQ(GetDllVersion(), 0x350006u);
    EXPECT_STREQ(GetDllVersionStr(), "6.0.53");
}

struct Captured {
    std::vector<std::pair<int, std::string>> lines;
};
void capture(int level, const char *text, void *ctx)
{
    static_cast<Captured *>(ctx)->lines.emplace_back(level, text);
}

TEST(DebugPrint, OffByDefaultAndSwitchable)
{
    Captured cap;
    ZEL_DebugPrintSetSink(capture, &cap);
    uint32_t type;
    GetReaderTypeM(nullptr, &type);
    EXPECT_TRUE(cap.lines.empty());

    ZEL_DebugPrintEnable(1);
    GetReaderTypeM(nullptr, &type);
    dp(12, "open %s %d", "x", 3);
    const uint8_t bytes[3] = {0x01, 0xAB, 0xFF};
    dp_hex_eol(6, bytes, 3);
    ZEL_DebugPrintEnable(0);
    ZEL_DebugPrintSetSink(nullptr, nullptr);

    ASSERT_EQ(cap.lines.size(), 3u);
    EXPECT_EQ(cap.lines[0].first, 0);
    EXPECT_EQ(cap.lines[0].second, "API begin: GetReaderTypeM()\n");
    EXPECT_EQ(cap.lines[1].second, "open x 3\n");
    EXPECT_EQ(cap.lines[2].second, "01 AB FF \n");
}

TEST(Timing, SleepSpanWrapsIn32Bits)
{
    EXPECT_EQ(zel::zel_sleep_span_ns(2147), 2147000000);
    EXPECT_LT(zel::zel_sleep_span_ns(2148), 0); // wraps: the wait ends at once
    EXPECT_EQ(zel::zel_sleep_span_ns(0), 0);

    zel_timer never_started{};
    EXPECT_EQ(TimerStop(&never_started), 0);

    zel_timer t{};
    TimerStart(&t);
    zel_sleep(3);
    const int64_t ms = TimerStop(&t);
    EXPECT_GE(ms, 3);
    EXPECT_LT(ms, 1000);
    EXPECT_GT(get_ns(), 0u);

    TimerStart(&t);
    zel_sleep(2148); // returns at once
    EXPECT_LT(TimerStop(&t), 1000);
}

} // namespace
