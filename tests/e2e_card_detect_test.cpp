// Card detection end to end: identity, type, size and maker of the card in the field, and the reader's
// multi-card mode with several cards.
#include <cstring>
#include <string>

#include "card_sim_fixture.h"

using zeltest::CardSimTest;

namespace {

const char *FIELD = R"({
  "cards": [
    {"uid": "04A1B2C3D4E5F6", "sak": "08", "atqa": "0044", "type": "ORB_MIFARE_CLASSIC_1K", "model": "classic_1k"},
    {"uid": "F0AA941E", "sak": "08", "atqa": "0004", "type": "ORB_MIFARE_CLASSIC_1K", "model": "classic_1k"},
    {"uid": "04998877665544", "sak": "00", "atqa": "0044", "type": "ORB_NTAG_216", "model": "ntag216"}
  ]
})";

TEST_F(CardSimTest, WhatIsInTheField)
{
    start(FIELD);
    uint8_t sak = 0, uid[10], len = 0;
    ASSERT_EQ(GetCardIdExM(hnd, &sak, uid, &len), ZEL_OK);
    EXPECT_EQ(sak, 0x08);
    ASSERT_EQ(len, 7);
    const uint8_t want[10] = {0x04, 0xA1, 0xB2, 0xC3, 0xD4, 0xE5, 0xF6, 0, 0, 0};
    EXPECT_EQ(std::memcmp(uid, want, 10), 0);
    uint16_t atqa = 0;
    ASSERT_EQ(GetAtqaSakM(hnd, &atqa, &sak), ZEL_OK);
    EXPECT_EQ(atqa, 0x0044);
    uint8_t type = 0;
    ASSERT_EQ(GetOrbCardTypeM(hnd, &type), ZEL_OK);
    EXPECT_EQ(type, ORB_MIFARE_CLASSIC_1K);
    uint32_t lin = 0, raw = 0;
    ASSERT_EQ(GetCardSizeM(hnd, &lin, &raw), ZEL_OK);
    EXPECT_EQ(lin, 752u);
    EXPECT_EQ(raw, 1024u);
    char maker[ZEL_MANUFACTURER_NAME_MAX] = {};
    ASSERT_EQ(GetCardManufacturerM(hnd, maker), ZEL_OK);
    EXPECT_STREQ(maker, "NXP Semiconductors");
    uint8_t info[64];
    uint32_t info_len = sizeof info;
    ASSERT_EQ(GetCardInfoM(hnd, info, &info_len), ZEL_OK);
    EXPECT_EQ(info_len, 16u) << "15 bytes and the checksum";
    EXPECT_EQ(info[0], ORB_MIFARE_CLASSIC_1K);
    EXPECT_EQ(info[4], 7);
    EXPECT_TRUE(TestChecksum(info, static_cast<uint16_t>(info_len)));
    uint32_t small = 15;
    EXPECT_EQ(GetCardInfoM(hnd, info, &small), ZEL_BUFFER_OVERFLOW);
    EXPECT_EQ(small, 15u);
    uint8_t version[8] = {1};
    EXPECT_EQ(GetNfcT2TVersionM(hnd, version), ZEL_UNSUPPORTED_CARD_TYPE);
    EXPECT_EQ(version[0], 0) << "cleared first";

    // The last card read stays known after it left.
    const uint8_t first[7] = {0x04, 0xA1, 0xB2, 0xC3, 0xD4, 0xE5, 0xF6};
    ASSERT_EQ(zsim_card_remove(sim, first, 7), 0);
    ASSERT_EQ(GetLastCardIdExM(hnd, &sak, uid, &len), ZEL_OK);
    EXPECT_EQ(len, 7);
    EXPECT_EQ(uid[6], 0xF6);

    // A four-byte UID on the reversal list is reported reversed by the extended forms only.
    ASSERT_EQ(GetCardIdExM(hnd, &sak, uid, &len), ZEL_OK);
    ASSERT_EQ(len, 4);
    const uint8_t reversed[4] = {0x1E, 0x94, 0xAA, 0xF0};
    EXPECT_EQ(std::memcmp(uid, reversed, 4), 0);
    uint32_t serial = 0;
    ASSERT_EQ(GetCardIdM(hnd, &type, &serial), ZEL_OK);
    EXPECT_EQ(serial, 0x1E94AAF0u);
    ASSERT_EQ(GetCardManufacturerM(hnd, maker), ZEL_OK);
    EXPECT_STREQ(maker, "Magellan Technology Pty Limited") << "code 0x1E, the first byte after the reversal";
}

TEST_F(CardSimTest, TypeTwoTagVersionAndSize)
{
    start(
        R"({"cards": [{"uid": "04998877665544", "sak": "00", "atqa": "0044", "type": "ORB_NTAG_216", "model": "ntag216"}]})");
    uint8_t v[8] = {};
    ASSERT_EQ(GetNfcT2TVersionM(hnd, v), ZEL_OK);
    t2t_version_t tv{};
    ASSERT_EQ(NfcT2TSafeConvertVersion(&tv, v), ZEL_OK);
    EXPECT_EQ(tv.vendor_id, 0x04);
    EXPECT_EQ(tv.product_type, 0x04);
    EXPECT_EQ(tv.storage_size, 0x13);
    uint32_t lin = 0, raw = 0;
    ASSERT_EQ(GetCardSizeM(hnd, &lin, &raw), ZEL_OK);
    EXPECT_EQ(lin, 888u);
    EXPECT_EQ(raw, 924u);
    zsim_field_clear(sim);
    lin = raw = 5;
    EXPECT_EQ(GetCardSizeM(hnd, &lin, &raw), ZEL_UNSUPPORTED_CARD_TYPE) << "no card: the type byte stays 0";
    EXPECT_EQ(lin + raw, 0u);
    uint8_t sak = 0x77, uid[10] = {}, len = 0x77;
    EXPECT_EQ(GetCardIdExM(hnd, &sak, uid, &len), ZEL_NO_CARD);
    EXPECT_EQ(sak, 0x77);
    EXPECT_EQ(len, 0x77);
}

TEST_F(CardSimTest, SeveralCardsOneSelected)
{
    start(FIELD);
    uint8_t count = 0, size = 0;
    EXPECT_EQ(EnumCardsM(hnd, &count, &size), ANTI_COLLISION_DISABLED);
    ASSERT_EQ(EnableAntiCollisionM(hnd), ZEL_OK);
    uint8_t on = 0, selected = 9;
    ASSERT_EQ(GetAntiCollisionStatusM(hnd, &on, &selected), ZEL_OK);
    EXPECT_EQ(on, 1);
    EXPECT_EQ(selected, 0);
    // No card answers until one is selected.
    uint8_t sak, uid[10], len;
    EXPECT_EQ(GetCardIdExM(hnd, &sak, uid, &len), ZEL_NO_CARD);

    ASSERT_EQ(EnumCardsM(hnd, &count, &size), ZEL_OK);
    EXPECT_EQ(count, 3);
    ASSERT_EQ(size, 33);
    uint8_t list[64] = {};
    const uint64_t before = zsim_exchange_count(sim);
    EXPECT_EQ(ListCardsM(hnd, list, 32), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(zsim_exchange_count(sim), before) << "a wrong size is refused before the reader is asked";
    ASSERT_EQ(ListCardsM(hnd, list, size), ZEL_OK);
    // The reader's records: length, then the UID in 10 bytes.
    EXPECT_EQ(list[0], 7);
    EXPECT_EQ(list[11], 4);
    EXPECT_EQ(list[12], 0xF0);
    EXPECT_EQ(list[22], 7);
    EXPECT_EQ(list[23 + 6], 0x44);

    uint8_t type = 0;
    ASSERT_EQ(SelectCardM(hnd, list + 23, list[22], &type), ZEL_OK);
    EXPECT_EQ(type, ORB_NTAG_216);
    ASSERT_EQ(GetCardIdExM(hnd, &sak, uid, &len), ZEL_OK);
    EXPECT_EQ(std::memcmp(uid, list + 23, 7), 0);
    uint16_t n = 0;
    uint8_t text[8] = {'s', 'e', 'l', 'e', 'c', 't', 'e', 'd'}, back[8] = {};
    ASSERT_EQ(LinearWriteM(hnd, text, 0, 8, &n, 0x60, 0), ZEL_OK);
    ASSERT_EQ(LinearReadM(hnd, back, 0, 8, &n, 0x60, 0), ZEL_OK);
    EXPECT_EQ(std::memcmp(back, text, 8), 0);
    EXPECT_EQ(SelectCardM(hnd, list + 1, list[0], &type), CARD_ALREADY_SELECTED);
    ASSERT_EQ(GetAntiCollisionStatusM(hnd, &on, &selected), ZEL_OK);
    EXPECT_EQ(selected, 1);

    ASSERT_EQ(DeslectCardM(hnd), ZEL_OK);
    EXPECT_EQ(GetCardIdExM(hnd, &sak, uid, &len), ZEL_NO_CARD);
    const uint8_t stranger[4] = {1, 2, 3, 4};
    EXPECT_EQ(SelectCardM(hnd, stranger, 4, &type), ZEL_NO_CARD);
    ASSERT_EQ(SelectCardM(hnd, list + 12, 4, &type), ZEL_OK);
    EXPECT_EQ(type, ORB_MIFARE_CLASSIC_1K);
    ASSERT_EQ(DisableAntiCollisionM(hnd), ZEL_OK);
    ASSERT_EQ(GetCardIdExM(hnd, &sak, uid, &len), ZEL_OK) << "a single card again";
    EXPECT_EQ(ListCardsM(hnd, list, size), ANTI_COLLISION_DISABLED);
}

} // namespace
