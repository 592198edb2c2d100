// Memory cards end to end: the exported operations, frames on a pseudo-terminal, the simulated reader and
// its classic, Plus and Type 2 card models.
#include <cstring>
#include <numeric>
#include <vector>

#include "card_sim_fixture.h"

using zeltest::CardSimTest;

namespace {

const uint8_t KEY_A[6] = {0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5};
const uint8_t KEY_B[6] = {0xB0, 0xB1, 0xB2, 0xB3, 0xB4, 0xB5};
const uint8_t FF6[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

// A 1K card whose sector 1 has its own keys A and B with key B usable (trailer code 3), and a reader that
// holds key A at 5, the automatic rules' keys for sector 1 (A at 1, B at 17; A at 0, B at 1) and key B at 7.
const char *CLASSIC = R"({
  "reader": {"keys": [{"index": 5, "key": "A0A1A2A3A4A5"}, {"index": 1, "key": "A0A1A2A3A4A5"},
                      {"index": 17, "key": "B0B1B2B3B4B5"}, {"index": 0, "key": "A0A1A2A3A4A5"},
                      {"index": 7, "key": "B0B1B2B3B4B5"}]},
  "cards": [{"uid": "C1C2C3C4", "sak": "08", "atqa": "0004", "type": "ORB_MIFARE_CLASSIC_1K", "model": "classic_1k",
             "setup": {"sectors": [{"sector": 1, "key_a": "A0A1A2A3A4A5", "key_b": "B0B1B2B3B4B5", "access": [0, 0, 0, 3]},
                                   {"sector": 2, "key_a": "A0A1A2A3A4A5", "key_b": "B0B1B2B3B4B5", "access": [2, 3, 6, 3]}],
                       "values": [{"block": 10, "value": 1000, "address": 10}]}}]
})";

std::vector<uint8_t> pattern(size_t n, uint8_t seed)
{
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i)
        v[i] = static_cast<uint8_t>(seed + i * 7);
    return v;
}

TEST_F(CardSimTest, EveryKeyFormReachesTheSameSector)
{
    start(CLASSIC);
    // Each form writes block 4 and the next form reads it back.
    struct Form {
        const char *name;
        ZEL_STATUS (*write)(ZEL_HANDLE, const uint8_t *);
        ZEL_STATUS (*read)(ZEL_HANDLE, uint8_t *);
    } forms[] = {
        {"reader key A", [](ZEL_HANDLE h, const uint8_t *d) { return BlockWriteM(h, d, 4, 0x60, 5); },
         [](ZEL_HANDLE h, uint8_t *d) { return BlockReadM(h, d, 4, 0x60, 5); }},
        {"AKM1 key B", [](ZEL_HANDLE h, const uint8_t *d) { return BlockWrite_AKM1M(h, d, 4, 0x61); },
         [](ZEL_HANDLE h, uint8_t *d) { return BlockRead_AKM1M(h, d, 4, 0x61); }},
        {"AKM2 key A", [](ZEL_HANDLE h, const uint8_t *d) { return BlockInSectorWrite_AKM2M(h, d, 1, 0, 0x60); },
         [](ZEL_HANDLE h, uint8_t *d) { return BlockInSectorRead_AKM2M(h, d, 1, 0, 0x60); }},
        {"provided key B", [](ZEL_HANDLE h, const uint8_t *d) { return BlockWrite_PKM(h, d, 4, 0x61, KEY_B); },
         [](ZEL_HANDLE h, uint8_t *d) { return BlockInSectorRead_PKM(h, d, 1, 0, 0x61, KEY_B); }},
        {"SAM key B", [](ZEL_HANDLE h, const uint8_t *d) { return BlockWriteSamKeyM(h, d, 4, 0x61, 7); },
         [](ZEL_HANDLE h, uint8_t *d) { return BlockReadSamKeyM(h, d, 4, 0x61, 7); }},
    };
    uint8_t seed = 1;
    for (const Form &f : forms) {
        const std::vector<uint8_t> data = pattern(16, seed++);
        ASSERT_EQ(f.write(hnd, data.data()), ZEL_OK) << f.name;
        uint8_t back[16] = {};
        ASSERT_EQ(f.read(hnd, back), ZEL_OK) << f.name;
        EXPECT_EQ(std::vector<uint8_t>(back, back + 16), data) << f.name;
    }
    // The wrong key, a key index past the reader's table, a mode outside the five (nothing sent).
    uint8_t d[16];
    EXPECT_EQ(BlockReadM(hnd, d, 4, 0x61, 5), ZEL_AUTH_ERROR);
    EXPECT_EQ(BlockRead_PKM(hnd, d, 4, 0x60, FF6), ZEL_AUTH_ERROR);
    EXPECT_EQ(BlockReadM(hnd, d, 4, 0x60, 40), ZEL_MAX_KEY_INDEX_EXCEEDED);
    const uint64_t before = zsim_exchange_count(sim);
    EXPECT_EQ(BlockReadM(hnd, d, 4, 0x62, 5), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(zsim_exchange_count(sim), before);
    // Out of the card, and the trailer by a plain block write.
    EXPECT_EQ(BlockRead_PKM(hnd, d, 64, 0x60, FF6), ZEL_MAX_ADDRESS_EXCEEDED);
    EXPECT_EQ(BlockInSectorReadM(hnd, d, 1, 4, 0x60, 5), ZEL_MAX_ADDRESS_EXCEEDED);
    EXPECT_EQ(BlockWrite_PKM(hnd, d, 7, 0x60, KEY_A), ZEL_FORBIDEN_DIRECT_WRITE_IN_SECTOR_TRAILER);
}

TEST_F(CardSimTest, AccessConditionsDecideWhatAKeyMayDo)
{
    start(CLASSIC);
    uint8_t d[16] = {};
    // Sector 2: block 8 read only (code 2), block 9 key B only (3), block 10 a value block (6).
    EXPECT_EQ(BlockRead_PKM(hnd, d, 8, 0x60, KEY_A), ZEL_OK);
    EXPECT_EQ(BlockWrite_PKM(hnd, d, 8, 0x61, KEY_B), ZEL_WRITING_ERROR);
    EXPECT_EQ(BlockRead_PKM(hnd, d, 9, 0x60, KEY_A), ZEL_READING_ERROR);
    EXPECT_EQ(BlockRead_PKM(hnd, d, 9, 0x61, KEY_B), ZEL_OK);
    EXPECT_EQ(ValueBlockIncrement_PKM(hnd, 5, 10, 0x60, KEY_A), ZEL_VALUE_BLOCK_MANIPULATION_ERROR);
    EXPECT_EQ(ValueBlockIncrement_PKM(hnd, 5, 10, 0x61, KEY_B), ZEL_OK);
    EXPECT_EQ(ValueBlockDecrement_PKM(hnd, 1, 10, 0x60, KEY_A), ZEL_OK);
    int32_t v = 0;
    uint8_t addr = 0;
    ASSERT_EQ(ValueBlockRead_PKM(hnd, &v, &addr, 10, 0x60, KEY_A), ZEL_OK);
    EXPECT_EQ(v, 1004);
    EXPECT_EQ(addr, 10);
    // Sector 0 keeps the transport trailer: key B may be read there, so it opens nothing.
    EXPECT_EQ(BlockRead_PKM(hnd, d, 1, 0x61, FF6), ZEL_READING_ERROR);
    ASSERT_EQ(BlockRead_PKM(hnd, d, 3, 0x60, FF6), ZEL_OK);
    const uint8_t transport[16] = {0, 0, 0, 0, 0, 0, 0xFF, 0x07, 0x80, 0x69, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(std::memcmp(d, transport, 16), 0) << "key A reads as zeros, key B is readable";
    // Block 0 is the maker's.
    ASSERT_EQ(BlockRead_PKM(hnd, d, 0, 0x60, FF6), ZEL_OK);
    EXPECT_EQ(d[0], 0xC1);
    EXPECT_EQ(d[4], 0xC1 ^ 0xC2 ^ 0xC3 ^ 0xC4);
    EXPECT_EQ(BlockWrite_PKM(hnd, d, 0, 0x60, FF6), ZEL_WRITING_ERROR);
}

TEST_F(CardSimTest, ValueBlocksInEveryShape)
{
    start(CLASSIC);
    int32_t v = 0;
    uint8_t addr = 0;
    // Sector 1 is open to both keys: write, move and read a value by block and by block in sector.
    ASSERT_EQ(ValueBlockWrite_PKM(hnd, -20, 0x33, 5, 0x60, KEY_A), ZEL_OK);
    ASSERT_EQ(ValueBlockInSectorIncrementM(hnd, 50, 1, 1, 0x60, 5), ZEL_OK);
    ASSERT_EQ(ValueBlockDecrement_AKM2M(hnd, 7, 5, 0x60), ZEL_OK);
    ASSERT_EQ(ValueBlockInSectorReadSamKeyM(hnd, &v, &addr, 1, 1, 0x61, 7), ZEL_OK);
    EXPECT_EQ(v, 23);
    EXPECT_EQ(addr, 0x33);
    // The block holds the redundant form.
    uint8_t b[16];
    ASSERT_EQ(BlockReadM(hnd, b, 5, 0x60, 5), ZEL_OK);
    const uint8_t want[16] = {23, 0, 0, 0, 0xE8, 0xFF, 0xFF, 0xFF, 23, 0, 0, 0, 0x33, 0xCC, 0x33, 0xCC};
    EXPECT_EQ(std::memcmp(b, want, 16), 0);
    ASSERT_EQ(ValueBlockInSectorWrite_AKM1M(hnd, INT32_MAX, 6, 1, 2, 0x61), ZEL_OK);
    EXPECT_EQ(ValueBlockIncrementSamKeyM(hnd, 1, 6, 0x61, 7), ZEL_VALUE_BLOCK_MANIPULATION_ERROR);

    // A block that is no value, and one whose address bytes disagree: the value still comes, with 115.
    const uint8_t plain[16] = {1, 2, 3};
    ASSERT_EQ(BlockWriteM(hnd, plain, 4, 0x60, 5), ZEL_OK);
    EXPECT_EQ(ValueBlockReadM(hnd, &v, &addr, 4, 0x60, 5), ZEL_VALUE_BLOCK_INVALID);
    EXPECT_EQ(ValueBlockIncrementM(hnd, 1, 4, 0x60, 5), ZEL_VALUE_BLOCK_INVALID);
    uint8_t bad_addr[16];
    std::memcpy(bad_addr, want, 16);
    bad_addr[13] = 0x00;
    ASSERT_EQ(BlockWriteM(hnd, bad_addr, 4, 0x60, 5), ZEL_OK);
    v = 0;
    addr = 0x99;
    EXPECT_EQ(ValueBlockRead_PKM(hnd, &v, &addr, 4, 0x60, KEY_A), ZEL_VALUE_BLOCK_ADDR_INVALID);
    EXPECT_EQ(v, 23);
    EXPECT_EQ(addr, 0x99);
    uint8_t data[16] = {};
    EXPECT_EQ(BlockRead_PKM(hnd, data, 4, 0x60, KEY_A), ZEL_OK);
    EXPECT_EQ(ValueBlockWrite_PKM(hnd, 1, 1, 7, 0x60, KEY_A), ZEL_FORBIDEN_DIRECT_WRITE_IN_SECTOR_TRAILER);
}

TEST_F(CardSimTest, SectorTrailersComposedAndRaw)
{
    start(CLASSIC);
    const uint8_t new_a[6] = {1, 2, 3, 4, 5, 6}, new_b[6] = {11, 12, 13, 14, 15, 16};
    // Codes 4, 4, 4, 3 by sector number: the reader packs them to 78 77 88.
    ASSERT_EQ(SectorTrailerWrite_PKM(hnd, 1, 3, new_a, 4, 4, 4, 3, 0x42, new_b, 0x60, FF6), ZEL_OK);
    uint8_t t[16];
    ASSERT_EQ(BlockRead_PKM(hnd, t, 15, 0x60, new_a), ZEL_OK);
    const uint8_t packed[4] = {0x78, 0x77, 0x88, 0x42};
    EXPECT_EQ(std::memcmp(t + 6, packed, 4), 0);
    EXPECT_EQ(BlockRead_PKM(hnd, t, 12, 0x60, FF6), ZEL_AUTH_ERROR) << "the old key is gone";
    uint8_t d[16] = {9};
    EXPECT_EQ(BlockWrite_PKM(hnd, d, 12, 0x60, new_a), ZEL_WRITING_ERROR) << "code 4: only key B writes";
    EXPECT_EQ(BlockWrite_PKM(hnd, d, 12, 0x61, new_b), ZEL_OK);

    // Codes 0, 0, 0, 3 by block address, then the raw form writes the transport trailer back.
    ASSERT_EQ(SectorTrailerWriteSamKeyM(hnd, 0, 7, new_a, 0, 0, 0, 3, 0x69, new_b, 0x61, 7), ZEL_OK);
    ASSERT_EQ(BlockRead_PKM(hnd, t, 7, 0x61, new_b), ZEL_OK);
    const uint8_t packed2[3] = {0x7F, 0x07, 0x88};
    EXPECT_EQ(std::memcmp(t + 6, packed2, 3), 0);
    const uint8_t transport[16] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x07,
                                   0x80, 0x69, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    ASSERT_EQ(SectorTrailerWriteUnsafe_PKM(hnd, 1, 1, transport, 0x61, new_b), ZEL_OK);
    EXPECT_EQ(BlockRead_PKM(hnd, t, 4, 0x60, FF6), ZEL_OK);

    // The reader's refusals.
    EXPECT_EQ(SectorTrailerWrite_PKM(hnd, 0, 6, new_a, 0, 0, 0, 1, 0, new_b, 0x60, FF6),
              ZEL_ADDRESSED_BLOCK_IS_NOT_SECTOR_TRAILER);
    EXPECT_EQ(SectorTrailerWrite_PKM(hnd, 2, 7, new_a, 0, 0, 0, 1, 0, new_b, 0x60, FF6), ZEL_WRONG_ADDRESS_MODE);
    EXPECT_EQ(SectorTrailerWrite_PKM(hnd, 1, 0, new_a, 0, 8, 0, 1, 0, new_b, 0x60, FF6), ZEL_WRONG_ACCESS_BITS_VALUES);
}

TEST_F(CardSimTest, FormatCountsTheSectorsItReached)
{
    start(CLASSIC);
    const uint8_t new_a[6] = {0x11, 0x11, 0x11, 0x11, 0x11, 0x11}, new_b[6] = {0x22, 0x22, 0x22, 0x22, 0x22, 0x22};
    uint8_t done = 0xEE;
    // Sector 1 has its own key: the format stops there.
    EXPECT_EQ(LinearFormatCard_PKM(hnd, new_a, 0, 1, 0x69, new_b, &done, 0x60, FF6), ZEL_AUTH_ERROR);
    EXPECT_EQ(done, 1);
    uint8_t d[16];
    EXPECT_EQ(BlockRead_PKM(hnd, d, 1, 0x60, new_a), ZEL_OK);
    // Reader key 0 and AKM2 with key A reach sectors 1 and 2 only: sector 0 now has the new key.
    EXPECT_EQ(LinearFormatCard_AKM2M(hnd, new_a, 0, 1, 0x69, new_b, &done, 0x60), ZEL_AUTH_ERROR);
    EXPECT_EQ(done, 0);
}

TEST_F(CardSimTest, LinearSpaceSkipsTrailersAndComesInChunks)
{
    start(R"({"reader": {"keys": [{"index": 0, "key": "FFFFFFFFFFFF"}]},
              "cards": [{"uid": "D1D2D3D4", "sak": "18", "type": "ORB_MIFARE_CLASSIC_4K", "model": "classic_4k"},
                        {"uid": "04998877665544", "sak": "00", "atqa": "0044", "type": "ORB_NTAG_215", "model": "ntag215"}]})");
    uint32_t lin = 0, raw = 0;
    ASSERT_EQ(GetCardSizeM(hnd, &lin, &raw), ZEL_OK);
    ASSERT_EQ(lin, 3440u);
    const std::vector<uint8_t> all = pattern(lin, 3);
    uint16_t n = 0;
    ASSERT_EQ(LinearWrite_PKM(hnd, all.data(), 0, static_cast<uint16_t>(lin), &n, 0x60, FF6), ZEL_OK);
    EXPECT_EQ(n, lin);
    std::vector<uint8_t> back(lin);
    ASSERT_EQ(LinearReadM(hnd, back.data(), 0, static_cast<uint16_t>(lin), &n, 0x60, 0), ZEL_OK);
    EXPECT_EQ(n, lin);
    EXPECT_EQ(back, all);
    // Linear byte 32 is block 4's first (blocks 1 and 2 before it, trailer 3 skipped); block 128 opens
    // the first large sector.
    uint8_t b[16];
    ASSERT_EQ(BlockRead_PKM(hnd, b, 4, 0x60, FF6), ZEL_OK);
    EXPECT_EQ(b[0], all[32]);
    ASSERT_EQ(BlockInSectorRead_PKM(hnd, b, 32, 0, 0x60, FF6), ZEL_OK);
    EXPECT_EQ(b[0], all[(128 - 32 - 1) * 16]);
    // The raw space has block 0 and the trailers.
    std::vector<uint8_t> rows(64);
    ASSERT_EQ(LinRowRead_PKM(hnd, rows.data(), 0, 64, &n, 0x60, FF6), ZEL_OK);
    EXPECT_EQ(rows[0], 0xD1);
    EXPECT_EQ(rows[16], all[0]);
    EXPECT_EQ(rows[48 + 7], 0x07) << "trailer of sector 0";
    // Past the end.
    EXPECT_EQ(LinearReadM(hnd, back.data(), 3400, 41, &n, 0x60, 0), ZEL_MAX_ADDRESS_EXCEEDED);

    // The Type 2 tag: pages from 4 on, the key forms accepted and not needed.
    const uint8_t classic_uid[4] = {0xD1, 0xD2, 0xD3, 0xD4};
    ASSERT_EQ(zsim_card_remove(sim, classic_uid, 4), 0);
    ASSERT_EQ(GetCardSizeM(hnd, &lin, &raw), ZEL_OK);
    ASSERT_EQ(lin, 504u);
    const std::vector<uint8_t> text = pattern(lin, 9);
    ASSERT_EQ(LinearWrite_AKM1M(hnd, text.data(), 0, static_cast<uint16_t>(lin), &n, 0x60), ZEL_OK);
    std::vector<uint8_t> tb(lin);
    ASSERT_EQ(LinearRead_PKM(hnd, tb.data(), 0, static_cast<uint16_t>(lin), &n, 0x02, FF6), ZEL_OK);
    EXPECT_EQ(tb, text);
    ASSERT_EQ(BlockReadM(hnd, b, 4, 0x02, 0), ZEL_OK);
    EXPECT_EQ(std::memcmp(b, text.data(), 16), 0);
    ASSERT_EQ(BlockReadM(hnd, b, 0, 0x02, 0), ZEL_OK);
    EXPECT_EQ(b[0], 0x04);
    EXPECT_EQ(b[3], 0x88 ^ 0x04 ^ 0x99 ^ 0x88);
    EXPECT_EQ(b[12], 0xE1) << "capability container";
    const uint8_t page[16] = {0xCA, 0xFE, 0xBA, 0xBE};
    ASSERT_EQ(BlockWriteM(hnd, page, 6, 0x02, 0), ZEL_OK);
    ASSERT_EQ(LinearReadM(hnd, tb.data(), 8, 4, &n, 0x02, 0), ZEL_OK);
    EXPECT_EQ(std::memcmp(tb.data(), page, 4), 0);
    EXPECT_EQ(ValueBlockReadM(hnd, nullptr, nullptr, 4, 0x60, 0), ZEL_PARAMETERS_ERROR);
    int32_t v;
    uint8_t a;
    EXPECT_EQ(ValueBlockReadM(hnd, &v, &a, 4, 0x60, 0), ZEL_UNSUPPORTED_CARD_TYPE);
    EXPECT_EQ(LinearWriteM(hnd, text.data(), 500, 5, &n, 0x60, 0), ZEL_MAX_ADDRESS_EXCEEDED);
}

TEST_F(CardSimTest, PlusCardsStreamLongReadsAndTakeAesKeys)
{
    start(
        R"({"cards": [{"uid": "04112233445566", "sak": "18", "type": "ORB_MIFARE_PLUS_X_4K_SL1", "model": "plus_4k_sl1",
                         "setup": {"sectors": [{"aes_a": "000102030405060708090A0B0C0D0E0F"}]}}]})");
    const std::vector<uint8_t> all = pattern(3440, 5);
    uint16_t n = 0;
    ASSERT_EQ(LinearWrite_PKM(hnd, all.data(), 0, 3440, &n, 0x60, FF6), ZEL_OK);
    std::vector<uint8_t> back(3440);
    const uint64_t before = zsim_exchange_count(sim);
    ASSERT_EQ(LinearRead_PKM(hnd, back.data(), 0, 3440, &n, 0x60, FF6), ZEL_OK);
    EXPECT_EQ(zsim_exchange_count(sim) - before, 1u) << "one request, the rest streamed";
    EXPECT_EQ(n, 3440);
    EXPECT_EQ(back, all);
    // A read from the middle lands at the start of the caller's buffer.
    std::vector<uint8_t> part(300);
    ASSERT_EQ(LinearRead_AKM1M(hnd, part.data(), 100, 300, &n, 0x60), ZEL_AUTH_ERROR)
        << "reader key 0 is not the card's";
    ASSERT_EQ(LinearRead_PKM(hnd, part.data(), 100, 300, &n, 0x60, FF6), ZEL_OK);
    EXPECT_TRUE(std::equal(part.begin(), part.end(), all.begin() + 100));
    // AES key A of the sector, provided in 16 bytes.
    uint8_t aes[16];
    std::iota(aes, aes + 16, 0);
    uint8_t b[16];
    ASSERT_EQ(BlockRead_PKM(hnd, b, 1, 0x80, aes), ZEL_OK);
    EXPECT_EQ(std::memcmp(b, all.data(), 16), 0);
    aes[15] ^= 1;
    EXPECT_EQ(BlockRead_PKM(hnd, b, 1, 0x80, aes), ZEL_AUTH_ERROR);
    EXPECT_EQ(BlockReadM(hnd, b, 1, 0x80, 0), ZEL_AUTH_ERROR) << "the reader keeps no AES keys";
}

TEST_F(CardSimTest, CardsWithoutMemoryAndNoCard)
{
    start(R"({"cards": [{"uid": "11223344", "model": "plain"}]})");
    uint8_t d[16];
    EXPECT_EQ(BlockReadM(hnd, d, 4, 0x60, 0), ZEL_UNSUPPORTED_CARD_TYPE);
    zsim_field_clear(sim);
    EXPECT_EQ(BlockReadM(hnd, d, 4, 0x60, 0), ZEL_NO_CARD);
    uint16_t n = 77;
    EXPECT_EQ(LinearReadM(hnd, d, 0, 16, &n, 0x60, 0), ZEL_NO_CARD);
    EXPECT_EQ(n, 0);
}

} // namespace
