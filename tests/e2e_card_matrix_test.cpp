// Every member of the memory card family end to end, grouped by key form: each reaches the simulated card
// with its own command code and key route, so a member wired to the wrong command or form shows here.
#include <cstring>
#include <string>

#include "card_sim_fixture.h"

using zeltest::CardSimTest;

namespace {

// Every reader key (and so every automatic rule and SAM entry) is the card's key A.
std::string scenario()
{
    std::string keys;
    for (int i = 0; i < 32; ++i)
        keys += std::string(i ? "," : "") + R"({"index": )" + std::to_string(i) + R"(, "key": "FFFFFFFFFFFF"})";
    return R"({"reader": {"keys": [)" + keys + R"(]},
      "cards": [{"uid": "C1C2C3C4", "sak": "08", "type": "ORB_MIFARE_CLASSIC_1K", "model": "classic_1k"}]})";
}

const uint8_t FF6[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
const uint8_t TRANSPORT[16] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x07,
                               0x80, 0x69, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

// The members that every key form has. S is the form's suffix, the rest its key arguments.
#define ZEL_RUN_COMMON(S, ...)                                                                           \
    do {                                                                                                 \
        uint8_t d[16], back[16];                                                                         \
        for (int i = 0; i < 16; ++i)                                                                     \
            d[i] = static_cast<uint8_t>(seed + i);                                                       \
        ASSERT_EQ(BlockWrite##S##M(hnd, d, 4, __VA_ARGS__), ZEL_OK);                                     \
        ASSERT_EQ(BlockRead##S##M(hnd, back, 4, __VA_ARGS__), ZEL_OK);                                   \
        EXPECT_EQ(std::memcmp(back, d, 16), 0);                                                          \
        d[0] ^= 0x80;                                                                                    \
        ASSERT_EQ(BlockInSectorWrite##S##M(hnd, d, 2, 1, __VA_ARGS__), ZEL_OK);                          \
        ASSERT_EQ(BlockInSectorRead##S##M(hnd, back, 2, 1, __VA_ARGS__), ZEL_OK);                        \
        EXPECT_EQ(std::memcmp(back, d, 16), 0);                                                          \
        ASSERT_EQ(BlockRead##S##M(hnd, back, 9, __VA_ARGS__), ZEL_OK);                                   \
        EXPECT_EQ(std::memcmp(back, d, 16), 0) << "block 1 of sector 2 is block 9";                      \
        uint8_t lin[40], lin_back[40];                                                                   \
        for (int i = 0; i < 40; ++i)                                                                     \
            lin[i] = static_cast<uint8_t>(seed * 3 + i);                                                 \
        uint16_t n = 0;                                                                                  \
        ASSERT_EQ(LinearWrite##S##M(hnd, lin, 20, 40, &n, __VA_ARGS__), ZEL_OK);                         \
        EXPECT_EQ(n, 40);                                                                                \
        ASSERT_EQ(LinearRead##S##M(hnd, lin_back, 20, 40, &n, __VA_ARGS__), ZEL_OK);                     \
        EXPECT_EQ(std::memcmp(lin_back, lin, 40), 0);                                                    \
        int32_t v = 0;                                                                                   \
        uint8_t a = 0;                                                                                   \
        ASSERT_EQ(ValueBlockWrite##S##M(hnd, seed, 0x21, 12, __VA_ARGS__), ZEL_OK);                      \
        ASSERT_EQ(ValueBlockIncrement##S##M(hnd, 10, 12, __VA_ARGS__), ZEL_OK);                          \
        ASSERT_EQ(ValueBlockInSectorDecrement##S##M(hnd, 3, 3, 0, __VA_ARGS__), ZEL_OK);                 \
        ASSERT_EQ(ValueBlockRead##S##M(hnd, &v, &a, 12, __VA_ARGS__), ZEL_OK);                           \
        EXPECT_EQ(v, seed + 7);                                                                          \
        EXPECT_EQ(a, 0x21);                                                                              \
        ASSERT_EQ(ValueBlockInSectorWrite##S##M(hnd, -seed, 0x22, 3, 1, __VA_ARGS__), ZEL_OK);           \
        ASSERT_EQ(ValueBlockInSectorIncrement##S##M(hnd, 1, 3, 1, __VA_ARGS__), ZEL_OK);                 \
        ASSERT_EQ(ValueBlockDecrement##S##M(hnd, 2, 13, __VA_ARGS__), ZEL_OK);                           \
        ASSERT_EQ(ValueBlockInSectorRead##S##M(hnd, &v, &a, 3, 1, __VA_ARGS__), ZEL_OK);                 \
        EXPECT_EQ(v, -seed - 1);                                                                         \
        EXPECT_EQ(a, 0x22);                                                                              \
        ASSERT_EQ(SectorTrailerWrite##S##M(hnd, 1, 4, FF6, 0, 0, 0, 1, 0x5A, FF6, __VA_ARGS__), ZEL_OK); \
        ASSERT_EQ(BlockRead##S##M(hnd, back, 19, __VA_ARGS__), ZEL_OK);                                  \
        EXPECT_EQ(back[9], 0x5A);                                                                        \
        ++seed;                                                                                          \
    } while (0)

// The members that the SAM form lacks.
#define ZEL_RUN_NO_SAM(S, ...)                                                                                \
    do {                                                                                                      \
        uint8_t rows[32];                                                                                     \
        uint16_t n = 0;                                                                                       \
        ASSERT_EQ(LinRowRead##S##M(hnd, rows, 48, 32, &n, __VA_ARGS__), ZEL_OK);                              \
        EXPECT_EQ(rows[7], 0x07) << "the raw space shows sector 0's trailer";                                 \
        EXPECT_EQ(rows[16], static_cast<uint8_t>((seed - 1) * 3 + 12)) << "block 4 is linear bytes 32 to 47"; \
        ASSERT_EQ(SectorTrailerWriteUnsafe##S##M(hnd, 0, 23, TRANSPORT, __VA_ARGS__), ZEL_OK);                \
        uint8_t done = 0;                                                                                     \
        ASSERT_EQ(LinearFormatCard##S##M(hnd, FF6, 0, 1, 0x69, FF6, &done, __VA_ARGS__), ZEL_OK);             \
        EXPECT_EQ(done, 16);                                                                                  \
    } while (0)

TEST_F(CardSimTest, EveryMemberInEveryKeyForm)
{
    start(scenario());
    int32_t seed = 10;
    ZEL_RUN_COMMON(, 0x60, 3);
    ZEL_RUN_NO_SAM(, 0x60, 3);
    ZEL_RUN_COMMON(_AKM1, 0x60);
    ZEL_RUN_NO_SAM(_AKM1, 0x60);
    ZEL_RUN_COMMON(_AKM2, 0x60);
    ZEL_RUN_NO_SAM(_AKM2, 0x60);
    ZEL_RUN_COMMON(_PK, 0x60, FF6);
    ZEL_RUN_NO_SAM(_PK, 0x60, FF6);
    ZEL_RUN_COMMON(SamKey, 0x60, 9);
    // The reader saw the forms' own parameters: the SAM form's last command was the trailer read.
    const std::vector<uint8_t> req = last_request();
    ASSERT_GE(req.size(), 7u);
    EXPECT_EQ(req[1], 0x16);
    EXPECT_EQ(req[4], 0x10);
    EXPECT_EQ(req[5], 9);
}

} // namespace
