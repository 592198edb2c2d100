// The simulated memory cards on their own: access conditions as the card enforces them, trailer packing,
// large sectors, and the page rules of Type 2 tags.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "card.h"
#include "json.h"

namespace {

using Bytes = std::vector<uint8_t>;
using zs::KeyType;
using zs::MemResult;

const uint8_t KA[6] = {0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5};
const uint8_t KB[6] = {0xB0, 0xB1, 0xB2, 0xB3, 0xB4, 0xB5};
const uint8_t FF[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

std::unique_ptr<zs::Card> card(const char *model, const std::string &setup)
{
    zsim_card id{{0x04, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66}, 7, 0x08, 0x0044, 0x21};
    zs::Json j;
    std::string err;
    EXPECT_TRUE(zs::json_parse(setup.data(), setup.size(), j, err)) << err;
    auto c = zs::make_card(model, id, &j, err);
    EXPECT_NE(c, nullptr) << err;
    return c;
}

// Sector 1 with keys A and B and the given block codes; trailer code 3 keeps key B usable.
std::unique_ptr<zs::Card> sector1(int c0, int c1, int c2, int ct = 3)
{
    return card("classic_1k",
                R"({"sectors": [{"sector": 1, "key_a": "A0A1A2A3A4A5", "key_b": "B0B1B2B3B4B5", "access": [)" +
                    std::to_string(c0) + "," + std::to_string(c1) + "," + std::to_string(c2) + "," +
                    std::to_string(ct) + "]}]}");
}

MemResult as(zs::SectorMemory &m, KeyType k, unsigned block)
{
    return m.authenticate(block, k, k == KeyType::A ? KA : KB, 6);
}

TEST(SectorCard, DataBlockConditions)
{
    // Block 4 read only (2), block 5 written by key B alone (4), block 6 a value block (6).
    auto c = sector1(2, 4, 6);
    zs::SectorMemory &m = *c->sector_memory();
    uint8_t b[16] = {};
    ASSERT_EQ(as(m, KeyType::A, 4), MemResult::OK);
    EXPECT_EQ(m.read(4, b), MemResult::OK);
    EXPECT_EQ(m.write(4, b), MemResult::DENIED);
    EXPECT_EQ(m.write(5, b), MemResult::DENIED);
    EXPECT_EQ(m.increment(6, 1), MemResult::DENIED) << "code 6: key B increments";
    EXPECT_EQ(m.decrement(6, 1), MemResult::FORMAT) << "allowed, but the block is no value yet";
    ASSERT_EQ(as(m, KeyType::B, 4), MemResult::OK);
    EXPECT_EQ(m.write(4, b), MemResult::DENIED);
    EXPECT_EQ(m.write(5, b), MemResult::OK);
    const uint8_t value[16] = {5, 0, 0, 0, 0xFA, 0xFF, 0xFF, 0xFF, 5, 0, 0, 0, 6, 0xF9, 6, 0xF9};
    ASSERT_EQ(m.write(6, value), MemResult::OK);
    ASSERT_EQ(m.increment(6, 10), MemResult::OK);
    ASSERT_EQ(m.read(6, b), MemResult::OK);
    EXPECT_EQ(b[0], 15);
    EXPECT_EQ(b[4], 0xF0);
    EXPECT_EQ(b[12], 6) << "the address byte stays";
    // Another sector's blocks need their own authentication.
    EXPECT_EQ(m.read(8, b), MemResult::DENIED);
    // A failed authentication ends the earlier one.
    EXPECT_EQ(m.authenticate(4, KeyType::A, FF, 6), MemResult::AUTH);
    EXPECT_EQ(m.read(4, b), MemResult::DENIED);
    EXPECT_EQ(m.read(64, b), MemResult::ADDRESS);
}

TEST(SectorCard, NothingAndEverything)
{
    auto c = sector1(7, 3, 0);
    zs::SectorMemory &m = *c->sector_memory();
    uint8_t b[16] = {};
    ASSERT_EQ(as(m, KeyType::B, 4), MemResult::OK);
    EXPECT_EQ(m.read(4, b), MemResult::DENIED);
    EXPECT_EQ(m.write(4, b), MemResult::DENIED);
    EXPECT_EQ(m.read(5, b), MemResult::OK) << "code 3: key B reads";
    ASSERT_EQ(as(m, KeyType::A, 4), MemResult::OK);
    EXPECT_EQ(m.read(5, b), MemResult::DENIED);
    EXPECT_EQ(m.write(6, b), MemResult::OK);
    EXPECT_EQ(m.read(6, b), MemResult::OK);
}

TEST(SectorCard, TrailerPartsAndReadableKeyB)
{
    // Trailer code 3: key B writes both keys and the access bytes; key A writes none of them.
    auto c = sector1(0, 0, 0, 3);
    zs::SectorMemory &m = *c->sector_memory();
    uint8_t t[16];
    ASSERT_EQ(as(m, KeyType::A, 7), MemResult::OK);
    ASSERT_EQ(m.read(7, t), MemResult::OK);
    const uint8_t packed[3] = {0x7F, 0x07, 0x88}; // codes 0, 0, 0, 3
    EXPECT_EQ(Bytes(t, t + 6), Bytes(6, 0)) << "key A never reads back";
    EXPECT_EQ(std::memcmp(t + 6, packed, 3), 0);
    EXPECT_EQ(Bytes(t + 10, t + 16), Bytes(6, 0)) << "key B is not readable under code 3";
    uint8_t nt[16];
    std::memset(nt, 0x11, 16);
    std::memcpy(nt + 6, packed, 3);
    EXPECT_EQ(m.write(7, nt), MemResult::DENIED);
    ASSERT_EQ(as(m, KeyType::B, 7), MemResult::OK);
    ASSERT_EQ(m.write(7, nt), MemResult::OK);
    const uint8_t k11[6] = {0x11, 0x11, 0x11, 0x11, 0x11, 0x11};
    EXPECT_EQ(m.authenticate(4, KeyType::A, k11, 6), MemResult::OK);
    EXPECT_EQ(m.authenticate(4, KeyType::B, k11, 6), MemResult::OK);

    // The transport trailer (code 1) makes key B readable: it authenticates and then opens nothing.
    auto t1 = card("classic_1k", "{}");
    zs::SectorMemory &m1 = *t1->sector_memory();
    uint8_t b[16];
    ASSERT_EQ(m1.authenticate(4, KeyType::B, FF, 6), MemResult::OK);
    EXPECT_EQ(m1.read(4, b), MemResult::DENIED);
    ASSERT_EQ(m1.authenticate(4, KeyType::A, FF, 6), MemResult::OK);
    ASSERT_EQ(m1.read(7, b), MemResult::OK);
    EXPECT_EQ(Bytes(b + 10, b + 16), Bytes(FF, FF + 6)) << "key B readable with key A";
    // Access bytes not in their redundant form close the sector.
    uint8_t broken[16] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x07,
                          0x81, 0x69, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    ASSERT_EQ(m1.write(7, broken), MemResult::OK);
    ASSERT_EQ(m1.authenticate(4, KeyType::A, FF, 6), MemResult::OK);
    EXPECT_EQ(m1.read(4, b), MemResult::DENIED);
}

TEST(SectorCard, PackedAccessBytesAndLargeSectors)
{
    // The published packings: codes 4,4,4,3 are 78 77 88.
    auto c = card("classic_4k", R"({"sectors": [{"sector": 33, "access": [4, 4, 4, 3], "key_b": "B0B1B2B3B4B5"}]})");
    zs::SectorMemory &m = *c->sector_memory();
    EXPECT_EQ(m.blocks(), 256u);
    EXPECT_EQ(m.first_block(33), 144u);
    EXPECT_EQ(m.sector_of(159), 33u);
    EXPECT_TRUE(m.is_trailer(159));
    EXPECT_FALSE(m.is_trailer(158));
    uint8_t t[16];
    ASSERT_EQ(m.authenticate(159, KeyType::A, FF, 6), MemResult::OK);
    ASSERT_EQ(m.read(159, t), MemResult::OK);
    const uint8_t packed[3] = {0x78, 0x77, 0x88};
    EXPECT_EQ(std::memcmp(t + 6, packed, 3), 0);
    // Code 4 covers all fifteen data blocks of the large sector: key A reads, only key B writes.
    uint8_t b[16] = {};
    EXPECT_EQ(m.write(144, b), MemResult::DENIED);
    EXPECT_EQ(m.write(158, b), MemResult::DENIED);
    ASSERT_EQ(m.authenticate(150, KeyType::B, KB, 6), MemResult::OK);
    EXPECT_EQ(m.write(158, b), MemResult::OK);
    auto mini = card("classic_mini", "{}");
    EXPECT_EQ(mini->sector_memory()->blocks(), 20u);
}

TEST(SectorCard, SetupErrors)
{
    zsim_card id{{1, 2, 3, 4}, 4, 0x08, 0x0004, 0x21};
    const char *bad[] = {
        R"({"sectors": [{"sector": 16}]})",
        R"({"sectors": [{"access": [0, 0, 8, 1]}]})",
        R"({"sectors": [{"aes_a": "000102030405060708090A0B0C0D0E0F"}]})",
        R"({"values": [{"block": 7, "value": 1}]})",
        R"({"blocks": [{"data": "00"}]})",
        R"({"colour": "red"})",
    };
    for (const char *s : bad) {
        zs::Json j;
        std::string err;
        ASSERT_TRUE(zs::json_parse(s, std::strlen(s), j, err));
        EXPECT_EQ(zs::make_card("classic_1k", id, &j, err), nullptr) << s;
        EXPECT_FALSE(err.empty()) << s;
    }
}

TEST(PageTag, PagesLocksAndVersion)
{
    auto c = card("ntag213", R"({"pages": [{"page": 4, "data": "0102030405060708"}]})");
    zs::PageMemory &p = *c->page_memory();
    EXPECT_EQ(p.pages(), 45u);
    EXPECT_EQ(p.user_pages(), 36u);
    uint8_t b[16];
    ASSERT_EQ(p.read(0, b), MemResult::OK);
    EXPECT_EQ(b[0], 0x04);
    EXPECT_EQ(b[3], 0x88 ^ 0x04 ^ 0x11 ^ 0x22);
    EXPECT_EQ(b[8], 0x33 ^ 0x44 ^ 0x55 ^ 0x66);
    const uint8_t cc[4] = {0xE1, 0x10, 0x12, 0x00};
    EXPECT_EQ(std::memcmp(b + 12, cc, 4), 0);
    ASSERT_EQ(p.read(4, b), MemResult::OK);
    EXPECT_EQ(b[7], 8);
    // Reads wrap past the last page to page 0.
    ASSERT_EQ(p.read(44, b), MemResult::OK);
    EXPECT_EQ(b[4], 0x04);
    EXPECT_EQ(p.read(45, b), MemResult::ADDRESS);
    const uint8_t w[4] = {0xF0, 0x0F, 0x00, 0x01};
    EXPECT_EQ(p.write(1, w), MemResult::DENIED);
    ASSERT_EQ(p.write(3, w), MemResult::OK);
    ASSERT_EQ(p.read(3, b), MemResult::OK);
    EXPECT_EQ(b[0], 0xF1) << "one-time programmable bits OR in";
    // Lock bit 4 of page 2's byte 2 locks page 4.
    const uint8_t lock[4] = {0, 0, 0x10, 0};
    ASSERT_EQ(p.write(2, lock), MemResult::OK);
    EXPECT_EQ(p.write(4, w), MemResult::DENIED);
    EXPECT_EQ(p.write(5, w), MemResult::OK);
    uint8_t v[8];
    ASSERT_TRUE(p.version(v));
    EXPECT_EQ(v[6], 0x0F);
    auto ul = card("ultralight", "{}");
    EXPECT_FALSE(ul->page_memory()->version(v));
    EXPECT_EQ(ul->sector_memory(), nullptr);
}

} // namespace
