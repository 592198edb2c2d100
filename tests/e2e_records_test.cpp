// Card record formats end to end: the access system's records and the card encryption job kept by the
// simulated reader, and the balance pair in the value blocks of a simulated classic card.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "card_sim_fixture.h"
#include "tools/session.h"

using zeltest::CardSimTest;

namespace {

const uint8_t FF6[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

const char *READER = R"({
  "reader": {"job_id": 1911, "access": {"card_number": 48879, "use": 3, "salter": "0102030405060708",
                                        "small_value": 4, "card_serial": 65536}},
  "cards": [{"uid": "C1C2C3C4", "sak": "08", "atqa": "0004", "type": "ORB_MIFARE_CLASSIC_1K", "model": "classic_1k"}]
})";

class ZoneCET {
public:
    ZoneCET()
    {
        setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
        tzset();
    }
    ~ZoneCET()
    {
        unsetenv("TZ");
        tzset();
    }
};

// The value block layout of a classic card: value, its complement, value, and the address four times.
bool is_value_block(const uint8_t *b, int32_t value, uint8_t addr)
{
    uint8_t v[4];
    std::memcpy(v, &value, 4);
    for (int i = 0; i < 4; ++i)
        if (b[i] != v[i] || b[4 + i] != static_cast<uint8_t>(~v[i]) || b[8 + i] != v[i])
            return false;
    return b[12] == addr && b[13] == static_cast<uint8_t>(~addr) && b[14] == addr &&
           b[15] == static_cast<uint8_t>(~addr);
}

} // namespace

TEST_F(CardSimTest, AccessRecordsRoundTripThroughTheReader)
{
    start(READER);
    const uint8_t days[7] = {1, 1, 1, 1, 1, 0, 0};
    ASSERT_EQ(ais_set_right_recordM(hnd, 5, 1000, 2000, 7, 45, 23, 59, days), ZEL_OK);
    uint16_t a = 0, b = 0;
    uint8_t sh = 0, sm = 0, eh = 0, em = 0, got_days[7] = {};
    ASSERT_EQ(ais_get_right_recordM(hnd, 5, &a, &b, &sh, &sm, &eh, &em, got_days), ZEL_OK);
    EXPECT_EQ(a, 1000);
    EXPECT_EQ(b, 2000);
    EXPECT_EQ(sh * 100 + sm, 745);
    EXPECT_EQ(eh * 100 + em, 2359);
    EXPECT_EQ(std::memcmp(got_days, days, 7), 0);

    ASSERT_EQ(ais_erase_right_recordM(hnd, 5), ZEL_OK);
    ASSERT_EQ(ais_get_right_recordM(hnd, 5, &a, &b, &sh, &sm, &eh, &em, got_days), ZEL_OK);
    EXPECT_EQ(a + b + sh + sm + eh + em, 0);
    // The reader holds 64 right records.
    EXPECT_EQ(ais_set_right_recordM(hnd, 64, 1, 1, 0, 0, 0, 0, days), 6u);

    // The daily counter record, and a typed record of another type that its reader leaves alone.
    ASSERT_EQ(ais_set_right_record_type_max_daily_counterM(hnd, 6, 10, 20, 6, 0, 18, 30, days, 9), ZEL_OK);
    uint8_t max = 0;
    ASSERT_EQ(ais_get_right_record_type_max_daily_counterM(hnd, 6, &a, &b, &sh, &sm, &eh, &em, got_days, &max), ZEL_OK);
    EXPECT_EQ(max, 9);
    EXPECT_EQ(eh * 100 + em, 1830);
    const uint8_t other[11] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
    ASSERT_EQ(ais_set_right_type_recordM(hnd, 7, 3, other), ZEL_OK);
    max = 0xEE;
    ASSERT_EQ(ais_get_right_record_type_max_daily_counterM(hnd, 7, &a, &b, &sh, &sm, &eh, &em, got_days, &max), ZEL_OK);
    EXPECT_EQ(max, 0xEE);
    uint8_t type = 0, data[11] = {};
    ASSERT_EQ(ais_get_right_type_recordM(hnd, 7, &type, data), ZEL_OK);
    EXPECT_EQ(type, 3);
    EXPECT_EQ(std::memcmp(data, other, 11), 0);

    const uint8_t fields[10] = {9, 8, 7, 6, 5, 4, 3, 2, 1, 0};
    uint8_t got_fields[10] = {};
    ASSERT_EQ(ais_set_validate_recordM(hnd, fields), ZEL_OK);
    ASSERT_EQ(ais_get_validate_recordM(hnd, got_fields), ZEL_OK);
    EXPECT_EQ(std::memcmp(got_fields, fields, 10), 0);

    uint8_t card_type = 0;
    uint16_t daily = 0;
    uint32_t total = 0, number = 0;
    ASSERT_EQ(ais_set_card_typeM(hnd, 0x21), ZEL_OK);
    ASSERT_EQ(ais_set_card_daily_durationM(hnd, 480), ZEL_OK);
    ASSERT_EQ(ais_set_card_total_durationM(hnd, 100000), ZEL_OK);
    ASSERT_EQ(ais_get_card_typeM(hnd, &card_type), ZEL_OK);
    ASSERT_EQ(ais_get_card_daily_durationM(hnd, &daily), ZEL_OK);
    ASSERT_EQ(ais_get_card_total_durationM(hnd, &total), ZEL_OK);
    ASSERT_EQ(ais_get_card_numberM(hnd, &number), ZEL_OK);
    EXPECT_EQ(card_type, 0x21);
    EXPECT_EQ(daily, 480);
    EXPECT_EQ(total, 100000u);
    EXPECT_EQ(number, 48879u);
}

TEST_F(CardSimTest, CreditAndPeriodAndTheReaderLeftWaiting)
{
    ZoneCET zone;
    start(READER);
    ASSERT_EQ(ais_set_credit_and_period_validityM(hnd, 2500, 2026, 1, 1, 0, 0, 2027, 6, 30, 23, 59), ZEL_OK);
    uint32_t v[11] = {};
    ASSERT_EQ(ais_get_credit_and_period_validityM(hnd, v, v + 1, v + 2, v + 3, v + 4, v + 5, v + 6, v + 7, v + 8, v + 9,
                                                  v + 10),
              ZEL_OK);
    const uint32_t want[11] = {2500, 2026, 1, 1, 0, 0, 2027, 6, 30, 23, 59};
    EXPECT_EQ(std::memcmp(v, want, sizeof want), 0);
    // The reader has been told of a record, then no EXT comes: the next command is still heard.
    EXPECT_EQ(ais_set_credit_and_period_validityM(hnd, 1, 0xFFFFFFFFu, 1, 1, 0, 0, 2027, 1, 1, 0, 0),
              ZEL_PARAMETERS_ERROR);
    // The announced record never completed: the last command the reader took is still the read.
    EXPECT_EQ(last_request()[1], 0x5B);
    uint8_t card_type = 0xFF;
    EXPECT_EQ(ais_get_card_typeM(hnd, &card_type), ZEL_OK);
    // The stored record is the one written before.
    ASSERT_EQ(ais_get_credit_and_period_validityM(hnd, v, v + 1, v + 2, v + 3, v + 4, v + 5, v + 6, v + 7, v + 8, v + 9,
                                                  v + 10),
              ZEL_OK);
    EXPECT_EQ(v[0], 2500u);
}

TEST_F(CardSimTest, CardEncryptionImagesCountTheJobsCards)
{
    ZoneCET zone;
    start(READER);
    uint32_t job = 0, sn = 0, sn15 = 0;
    uint8_t salter[8] = {}, small = 0;
    ASSERT_EQ(CardEncryption_GetJobSNM(hnd, &job), ZEL_OK);
    ASSERT_EQ(CardEncryption_GetSalterSNM(hnd, salter, &small), ZEL_OK);
    EXPECT_EQ(job, 1911u);
    EXPECT_EQ(small, 4);
    EXPECT_EQ(salter[7], 8);

    // 2024-01-15 12:00 UTC, winter: the start is one hour earlier, in minutes from 2012.
    const uint32_t from = 1705320000, start_min = 6332340;
    char text[ZEL_CARD_ENCRYPTION_TEXT];
    ASSERT_EQ(CardEncryption_GetNextEncryptedCardM(hnd, from, from + 7200, text), ZEL_OK);
    ASSERT_EQ(CardEncryption_GetActualCardSNM(hnd, &sn, &sn15), ZEL_OK);
    EXPECT_EQ(sn, 65537u);
    EXPECT_EQ(sn15, 1u);
    // The image: serial, start, duration, job and small value, masked with the salter's number.
    uint8_t plain[16] = {0x01, 0x00, 0x01, 0x00};
    plain[4] = start_min & 0xFF;
    plain[5] = (start_min >> 8) & 0xFF;
    plain[6] = (start_min >> 16) & 0xFF;
    plain[7] = 120;
    plain[10] = 1911 & 0xFF;
    plain[11] = 1911 >> 8;
    plain[12] = 4;
    std::string want;
    for (int i = 0; i < 16; ++i) {
        char h[3];
        std::snprintf(h, sizeof h, "%02X", plain[i] ^ (i % 8 + 1));
        want += h;
    }
    EXPECT_EQ(std::string(text), want);

    uint32_t len = 0;
    const uint8_t data[3] = {'a', 'b', 'c'};
    ASSERT_EQ(CardEncryption_GetNextM(hnd, 7, from, from + 60, 3, data, &len, text), ZEL_OK);
    EXPECT_EQ(len, 38u);
    EXPECT_EQ(std::string(text).substr(32), "616263");
    ASSERT_EQ(CardEncryption_GetActualCardSNM(hnd, &sn, &sn15), ZEL_OK);
    EXPECT_EQ(sn, 65538u);
    // A window the library refuses reaches no reader.
    const uint64_t served = zsim_exchange_count(sim);
    EXPECT_EQ(CardEncryption_GetNextEncryptedCardM(hnd, from, from - 1, text), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(zsim_exchange_count(sim), served);
}

TEST_F(CardSimTest, TheBalancePairLivesInTwoValueBlocks)
{
    start(READER);
    ASSERT_EQ(BalanceSetM(hnd, 0x60, FF6, 1500), ZEL_OK);
    uint8_t blk[16];
    ASSERT_EQ(BlockRead_PKM(hnd, blk, 61, 0x60, FF6), ZEL_OK);
    EXPECT_TRUE(is_value_block(blk, 1500, 62));
    ASSERT_EQ(BlockRead_PKM(hnd, blk, 62, 0x60, FF6), ZEL_OK);
    EXPECT_TRUE(is_value_block(blk, 1500, 61));

    int32_t credit = 0;
    // The pair is read on the global handle, which has no reader yet: the handle given does not help.
    EXPECT_NE(BalanceGetM(hnd, 0x60, FF6, &credit), ZEL_OK);
    tandro::GlobalReader lend(hnd);
    ASSERT_EQ(BalanceGetM(hnd, 0x60, FF6, &credit), ZEL_OK);
    EXPECT_EQ(credit, 1500);
    // An update cut after its first block: the lower of two values one apart.
    ASSERT_EQ(ValueBlockWrite_PKM(hnd, 1501, 62, 61, 0x60, FF6), ZEL_OK);
    ASSERT_EQ(BalanceGet(0x60, FF6, &credit), ZEL_OK);
    EXPECT_EQ(credit, 1500);
    // Further apart: the larger.
    ASSERT_EQ(ValueBlockWrite_PKM(hnd, -40, 62, 61, 0x60, FF6), ZEL_OK);
    ASSERT_EQ(BalanceGet(0x60, FF6, &credit), ZEL_OK);
    EXPECT_EQ(credit, 1500);
    // A half that is no value block: the other half's value.
    const uint8_t junk[16] = {1, 2, 3};
    ASSERT_EQ(BlockWrite_PKM(hnd, junk, 62, 0x60, FF6), ZEL_OK);
    ASSERT_EQ(BalanceGet(0x60, FF6, &credit), ZEL_OK);
    EXPECT_EQ(credit, -40);
    // A wrong key reads neither half.
    const uint8_t wrong[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_NE(BalanceGet(0x60, wrong, &credit), ZEL_OK);
    EXPECT_NE(BalanceSetM(hnd, 0x60, wrong, 1), ZEL_OK);
}
