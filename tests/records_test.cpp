// The record family against a scripted reader: the exact frames of the access-system records, the reply
// tests they make themselves, the card encryption window and image replies, and the balance pair's pick.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include "records/records_internal.h"
#include "script_link.h"
#include "tandro.h"

using namespace zeltest;

namespace {

// Central European time with its summer rule, written out so that no zone database is needed.
class LocalZone {
public:
    LocalZone()
    {
        const char *old = std::getenv("TZ");
        had_ = old != nullptr;
        if (had_)
            old_ = old;
        setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
        tzset();
    }
    ~LocalZone()
    {
        if (had_)
            setenv("TZ", old_.c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }

private:
    bool had_ = false;
    std::string old_;
};

std::vector<uint32_t> g_sleeps;

class Sleeps {
public:
    Sleeps()
    {
        g_sleeps.clear();
        zel::set_sleep_hook([](uint32_t ms) { g_sleeps.push_back(ms); });
    }
    ~Sleeps() { zel::set_sleep_hook(nullptr); }
};

const uint8_t kAllDays[7] = {1, 0, 2, 0, 0, 0, 9}; // days 1, 3 and 7: bits 0, 2 and 6

} // namespace

TEST(AisFrames, SetsPackTheRecordsAndReadTheirReplyThemselves)
{
    {
        ScriptLink link;
        link.reply(ack(0x50));
        link.reply(rsp(0x50));
        ASSERT_EQ(ais_set_right_recordM(&link.record, 7, 0x1234, 0xBEEF, 8, 30, 23, 59, kAllDays), ZEL_OK);
        // 08:30 is 510 minutes (0x01FE), 23:59 is 1439 (0x059F); the days make 0x45.
        EXPECT_EQ(link.sent, request(0x50, 7, 0, {0x34, 0x12, 0xEF, 0xBE, 0xFE, 0x01, 0x9F, 0x05, 0x45}));
    }
    {
        ScriptLink link;
        link.reply(ack(0x50));
        link.reply(rsp(0x50));
        ASSERT_EQ(ais_erase_right_recordM(&link.record, 3), ZEL_OK);
        EXPECT_EQ(link.sent, cat(cmd(0x50, 10, 3), Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0x07}));
    }
    {
        ScriptLink link;
        link.reply(ack(0x52));
        link.reply(rsp(0x52));
        const uint8_t fields[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
        ASSERT_EQ(ais_set_validate_recordM(&link.record, fields), ZEL_OK);
        EXPECT_EQ(link.sent, request(0x52, 0, 0, Bytes(fields, fields + 10)));
    }
    {
        ScriptLink link;
        link.reply(ack(0x58));
        link.reply(rsp(0x58));
        ASSERT_EQ(ais_set_card_total_durationM(&link.record, 0xA1B2C3D4), ZEL_OK);
        EXPECT_EQ(link.sent, request(0x58, 0, 0, {0xD4, 0xC3, 0xB2, 0xA1}));
    }
    {
        ScriptLink link;
        link.reply(ack(0x5D));
        link.reply(rsp(0x5D));
        const uint8_t days[7] = {0, 1, 0, 0, 0, 0, 0};
        ASSERT_EQ(ais_set_right_record_type_max_daily_counterM(&link.record, 2, 1, 2, 0, 0, 12, 0, days, 5), ZEL_OK);
        EXPECT_EQ(link.sent, request(0x5D, 2, 0, {1, 1, 0, 2, 0, 0, 0, 0xD0, 0x02, 0x02, 5, 0}));
    }
    {
        // Without an EXT: the type in PAR0, the daily duration in PAR0 and PAR1.
        ScriptLink link;
        link.reply(rsp(0x54));
        link.reply(rsp(0x56));
        ASSERT_EQ(ais_set_card_typeM(&link.record, 0x42), ZEL_OK);
        ASSERT_EQ(ais_set_card_daily_durationM(&link.record, 0x1E0), ZEL_OK);
        EXPECT_EQ(link.sent, cat(cmd(0x54, 0, 0x42), cmd(0x56, 0, 0xE0, 0x01)));
    }
}

TEST(AisFrames, TheReplyAfterAnExtIsJudgedByItsMarkers)
{
    struct Case {
        const char *what;
        Bytes reply;
        ZEL_STATUS want;
    } cases[] = {
        {"error frame", err(0x0F), 15},
        {"error header alone", frame(0xEC, 0x21, 0xED), 0x21},
        {"error trailer alone", frame(0xDE, 0x22, 0xCE), 0x22},
        {"error frame with code 0", err(0x00), ZEL_COMMUNICATION_ERROR},
        {"response to another command", rsp(0x51), ZEL_COMMUNICATION_ERROR},
        {"acknowledge again", ack(0x52), ZEL_COMMUNICATION_ERROR},
        {"bad checksum", Bytes{0xDE, 0x52, 0xED, 0, 0, 0, 0}, ZEL_COMMUNICATION_ERROR},
        {"silence", Bytes{}, 80},
    };
    const uint8_t fields[10] = {};
    for (const Case &c : cases) {
        ScriptLink link;
        link.reply(ack(0x52));
        link.reply(c.reply);
        EXPECT_EQ(ais_set_validate_recordM(&link.record, fields), c.want) << c.what;
    }
    // An error frame to the command itself ends the exchange before the EXT.
    ScriptLink link;
    link.reply(err(0x08));
    EXPECT_EQ(ais_set_validate_recordM(&link.record, fields), 8u);
    EXPECT_EQ(link.writes.size(), 1u);
}

TEST(AisFrames, GetsReadTheRecordsAndRefuseShortOrBrokenOnes)
{
    {
        ScriptLink link;
        link.reply(response(0x51, {0x34, 0x12, 0xEF, 0xBE, 0xFE, 0x01, 0x9F, 0x05, 0xC5}));
        uint16_t a = 0, b = 0;
        uint8_t sh = 0, sm = 0, eh = 0, em = 0, days[7];
        ASSERT_EQ(ais_get_right_recordM(&link.record, 9, &a, &b, &sh, &sm, &eh, &em, days), ZEL_OK);
        EXPECT_EQ(link.sent, cmd(0x51, 0, 9));
        EXPECT_EQ(a, 0x1234);
        EXPECT_EQ(b, 0xBEEF);
        EXPECT_EQ(sh * 100 + sm, 830);
        EXPECT_EQ(eh * 100 + em, 2359);
        const uint8_t want_days[7] = {1, 0, 1, 0, 0, 0, 1}; // bit 7 is no day
        EXPECT_EQ(std::memcmp(days, want_days, 7), 0);
    }
    {
        // The credit read starts with the use byte; the years come back with 2000 added.
        ScriptLink link;
        link.reply(response(0x5B, {0x07, 0x10, 0x27, 0, 0, 26, 3, 29, 1, 30, 255, 12, 31, 23, 59}));
        uint32_t v[11] = {};
        ASSERT_EQ(ais_get_credit_and_period_validityM(&link.record, v, v + 1, v + 2, v + 3, v + 4, v + 5, v + 6, v + 7,
                                                      v + 8, v + 9, v + 10),
                  ZEL_OK);
        const uint32_t want[11] = {10000, 2026, 3, 29, 1, 30, 2255, 12, 31, 23, 59};
        EXPECT_EQ(std::memcmp(v, want, sizeof want), 0);
    }
    {
        ScriptLink link;
        link.reply(response(0x5A, {0x78, 0x56, 0x34, 0x12}));
        link.reply(response(0x59, {0x78, 0x56, 0x34, 0x12}));
        uint32_t number = 0, total = 0;
        ASSERT_EQ(ais_get_card_numberM(&link.record, &number), ZEL_OK);
        ASSERT_EQ(ais_get_card_total_durationM(&link.record, &total), ZEL_OK);
        EXPECT_EQ(number, 0x5678u);
        EXPECT_EQ(total, 0x12345678u);
    }
    {
        // Getters without an EXT zero their output first, also when the reader refuses.
        ScriptLink link;
        link.reply(rsp(0x55, 0, 0x33));
        link.reply(rsp(0x57, 0, 0x34, 0x12));
        link.reply(err(0x0A));
        uint8_t type = 0xFF;
        uint16_t daily = 0xFFFF;
        ASSERT_EQ(ais_get_card_typeM(&link.record, &type), ZEL_OK);
        ASSERT_EQ(ais_get_card_daily_durationM(&link.record, &daily), ZEL_OK);
        EXPECT_EQ(type, 0x33);
        EXPECT_EQ(daily, 0x1234);
        EXPECT_EQ(ais_get_card_typeM(&link.record, &type), 10u);
        EXPECT_EQ(type, 0);
    }
    // A record shorter than its layout, or with a broken checksum, is a malformed reply.
    uint8_t fields[10] = {};
    {
        ScriptLink link;
        link.reply(response(0x53, {1, 2, 3}));
        EXPECT_EQ(ais_get_validate_recordM(&link.record, fields), ZEL_COMMUNICATION_ERROR);
    }
    {
        ScriptLink link;
        Bytes r = response(0x53, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
        r.back() ^= 1;
        link.reply(r);
        EXPECT_EQ(ais_get_validate_recordM(&link.record, fields), ZEL_COMMUNICATION_ERROR);
    }
    {
        ScriptLink link;
        link.reply(rsp(0x5A));
        uint32_t number = 0;
        EXPECT_EQ(ais_get_card_numberM(&link.record, &number), ZEL_COMMUNICATION_ERROR);
    }
}

TEST(AisFrames, DailyCounterRecordsOfAnotherTypeLeaveTheOutputs)
{
    uint16_t a = 111, b = 222;
    uint8_t sh = 1, sm = 2, eh = 3, em = 4, days[7] = {9, 9, 9, 9, 9, 9, 9}, max = 77;
    {
        ScriptLink link;
        link.reply(response(0x5E, {2, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
        ASSERT_EQ(ais_get_right_record_type_max_daily_counterM(&link.record, 4, &a, &b, &sh, &sm, &eh, &em, days, &max),
                  ZEL_OK);
        EXPECT_EQ(a + b + sh + sm + eh + em + max, 111 + 222 + 1 + 2 + 3 + 4 + 77);
        EXPECT_EQ(days[0], 9);
    }
    {
        ScriptLink link;
        link.reply(response(0x5E, {1, 5, 0, 6, 0, 0x3C, 0, 0x9F, 0x05, 0x7F, 12, 0}));
        ASSERT_EQ(ais_get_right_record_type_max_daily_counterM(&link.record, 4, &a, &b, &sh, &sm, &eh, &em, days, &max),
                  ZEL_OK);
        EXPECT_EQ(a, 5);
        EXPECT_EQ(b, 6);
        EXPECT_EQ(sh * 100 + sm, 100);
        EXPECT_EQ(eh * 100 + em, 2359);
        EXPECT_EQ(max, 12);
        for (uint8_t d : days)
            EXPECT_EQ(d, 1);
    }
}

TEST(AisCredit, DatesTravelAsYearLess2000AndBadOnesStopAfterTheHandshake)
{
    LocalZone zone;
    {
        ScriptLink link;
        link.reply(ack(0x5C));
        link.reply(rsp(0x5C));
        ASSERT_EQ(ais_set_credit_and_period_validityM(&link.record, 500, 2026, 3, 29, 2, 30, 2255, 12, 31, 23, 59),
                  ZEL_OK);
        EXPECT_EQ(link.sent, request(0x5C, 0, 0, {0xF4, 0x01, 0, 0, 26, 3, 29, 2, 30, 255, 12, 31, 23, 59}));
    }
    {
        // A year the calendar cannot hold: the frame went out, no EXT follows.
        ScriptLink link;
        link.reply(ack(0x5C));
        EXPECT_EQ(ais_set_credit_and_period_validityM(&link.record, 1, 2026, 1, 1, 0, 0, 0xFFFFFFFFu, 1, 1, 0, 0),
                  ZEL_PARAMETERS_ERROR);
        EXPECT_EQ(link.sent, cmd(0x5C, 15));
    }
}

TEST(CardEncryption, TheWindowFollowsLocalSummerTime)
{
    LocalZone zone;
    using zel::records::encryption_window;
    uint32_t start = 0, dur = 0;
    // 2024-01-15 12:00 UTC is winter time: one hour back.
    ASSERT_EQ(encryption_window(1705320000, 1705320000 + 3600 * 24, &start, &dur), ZEL_OK);
    EXPECT_EQ(start, 6332340u);
    EXPECT_EQ(dur, 1440u);
    // 2024-07-01 00:00 UTC is summer time: two hours back.
    ASSERT_EQ(encryption_window(1719792000, 1719792059, &start, &dur), ZEL_OK);
    EXPECT_EQ(start, 6573480u);
    EXPECT_EQ(dur, 0u);
    // The limits: before 2012, to before from, a start past the last one, a span too long.
    EXPECT_EQ(encryption_window(1325375999, 1325380000, &start, &dur), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(encryption_window(1705320000, 1705319999, &start, &dur), ZEL_PARAMETERS_ERROR);
    ASSERT_EQ(encryption_window(2332008959u + 3600, 2332008959u + 3600, &start, &dur), ZEL_OK);
    EXPECT_EQ(start, 0xFFFFFFu);
    EXPECT_EQ(encryption_window(2332008959u + 3601, 2332008959u + 3601, &start, &dur), ZEL_PARAMETERS_ERROR);
    ASSERT_EQ(encryption_window(1705320000, 1705320000 + 0x3BFFFFF, &start, &dur), ZEL_OK);
    EXPECT_EQ(dur, 0xFFFFFu);
    EXPECT_EQ(encryption_window(1705320000, 1705320000 + 0x3C00000, &start, &dur), ZEL_PARAMETERS_ERROR);
    // The first hour of 2012 would start before the count.
    EXPECT_EQ(encryption_window(1325376000 + 1800, 1325380000, &start, &dur), ZEL_PARAMETERS_ERROR);
}

TEST(CardEncryption, ImagesAndSerialNumbersFromTheReader)
{
    LocalZone zone;
    Sleeps sleeps;
    {
        ScriptLink link;
        link.reply(ack(0xA1));
        link.reply(response(0xA1, {'A', 'B', 'C', '1'}));
        char text[ZEL_CARD_ENCRYPTION_TEXT];
        std::memset(text, 'x', sizeof text);
        ASSERT_EQ(CardEncryption_GetNextEncryptedCardM(&link.record, 1705320000, 1705320000 + 600, text), ZEL_OK);
        EXPECT_STREQ(text, "ABC1");
        EXPECT_EQ(link.sent, request(0xA1, 0, 0, {0xB4, 0x9F, 0x60, 10, 0, 0}));
        EXPECT_EQ(g_sleeps, std::vector<uint32_t>{5});
    }
    {
        ScriptLink link;
        link.reply(ack(0xA4));
        link.reply(response(0xA4, {'X', 'Y', 0xDA, 0xBE, 2}));
        char text[ZEL_CARD_ENCRYPTION_TEXT];
        uint32_t len = 0;
        const uint8_t data[2] = {0xCA, 0xFE};
        ASSERT_EQ(CardEncryption_GetNextM(&link.record, 0x01020304, 1705320000, 1705320000, 2, data, &len, text),
                  ZEL_OK);
        EXPECT_EQ(len, 2u);
        EXPECT_STREQ(text, "XY");
        EXPECT_EQ(link.sent, request(0xA4, 0, 0, {0xB4, 0x9F, 0x60, 0, 0, 0, 4, 3, 2, 1, 2, 0, 0, 0, 0xCA, 0xFE}));
    }
    // The image must end with DA BE and its own size.
    const Bytes bad_tails[] = {{'X', 'Y', 0xDA, 0xBF, 2}, {'X', 'Y', 0xDA, 0xBE, 3}, {0xBE, 0}, {}};
    for (const Bytes &tail : bad_tails) {
        ScriptLink link;
        link.reply(ack(0xA4));
        link.reply(tail.empty() ? rsp(0xA4, 1) : response(0xA4, tail));
        char text[ZEL_CARD_ENCRYPTION_TEXT];
        uint32_t len = 99;
        EXPECT_NE(CardEncryption_GetNextM(&link.record, 0, 1705320000, 1705320000, 0, nullptr, &len, text), ZEL_OK);
        EXPECT_EQ(len, 99u);
    }
    {
        // More than four data bytes: nothing goes to the reader.
        ScriptLink link;
        char text[ZEL_CARD_ENCRYPTION_TEXT];
        uint32_t len = 0;
        const uint8_t data[5] = {};
        EXPECT_EQ(CardEncryption_GetNextM(&link.record, 0, 1705320000, 1705320000, 5, data, &len, text),
                  ZEL_PARAMETERS_ERROR);
        EXPECT_TRUE(link.sent.empty());
        EXPECT_EQ(CardEncryption_InitializeM(&link.record, data, 5), ZEL_NOT_IMPLEMENTED);
    }
    {
        ScriptLink link;
        link.reply(response(0xA3, {0x34, 0x12, 0x09, 1, 2, 3, 4, 5, 6, 7, 8}));
        link.reply(response(0xA3, {0x34, 0x12, 0x09, 1, 2, 3, 4, 5, 6, 7, 8}));
        link.reply(response(0xA2, {0xCD, 0xAB, 0x01, 0x00}));
        link.reply(response(0xA2, {0xCD, 0xAB, 0x01}));
        uint32_t job = 0, sn = 0, sn15 = 0;
        uint8_t salter[8] = {}, small = 0;
        ASSERT_EQ(CardEncryption_GetJobSNM(&link.record, &job), ZEL_OK);
        ASSERT_EQ(CardEncryption_GetSalterSNM(&link.record, salter, &small), ZEL_OK);
        ASSERT_EQ(CardEncryption_GetActualCardSNM(&link.record, &sn, &sn15), ZEL_OK);
        EXPECT_EQ(job, 0x1234u);
        EXPECT_EQ(small, 9);
        EXPECT_EQ(salter[0] + salter[7], 9);
        EXPECT_EQ(sn, 0x1ABCDu);
        EXPECT_EQ(sn15, 0x2BCDu);
        EXPECT_EQ(CardEncryption_GetActualCardSNM(&link.record, &sn, &sn15), ZEL_PARAMETERS_ERROR);
    }
}

TEST(Balance, ThePairSettlesAnInterruptedUpdate)
{
    using zel::records::balance_pick;
    struct Case {
        int32_t a, b, want;
    } cases[] = {{100, 101, 100},
                 {101, 100, 100},
                 {100, 100, 100},
                 {100, 200, 200},
                 {200, 100, 200},
                 {-5, 3, 3},
                 {-1, 0, -1},
                 {INT32_MIN, INT32_MAX, INT32_MAX},
                 {INT32_MAX, INT32_MIN, INT32_MAX}};
    for (const Case &c : cases) {
        int32_t v = 0;
        ASSERT_EQ(balance_pick(ZEL_OK, c.a, ZEL_OK, c.b, &v), ZEL_OK);
        EXPECT_EQ(v, c.want) << c.a << " " << c.b;
    }
    int32_t v = 0;
    EXPECT_EQ(balance_pick(ZEL_OK, 7, 12, 9, &v), ZEL_OK);
    EXPECT_EQ(v, 7);
    EXPECT_EQ(balance_pick(12, 7, ZEL_OK, 9, &v), ZEL_OK);
    EXPECT_EQ(v, 9);
    v = 55;
    EXPECT_EQ(balance_pick(12, 7, 13, 9, &v), 12u);
    EXPECT_EQ(v, 55);
}
