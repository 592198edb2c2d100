// The key files and sector trailers of tandro dump and restore.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tools/card_image.h"

namespace {

using tandro::KeyFileFormat;
using tandro::SectorKeys;

struct Outcome {
    bool ok;
    std::vector<SectorKeys> keys;
    std::string err;
};

Outcome read_keys(const std::string &bytes, KeyFileFormat format = KeyFileFormat::AUTO)
{
    Outcome o;
    o.ok = tandro::parse_key_file(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size(), format, o.keys, o.err);
    return o;
}

std::string hex(const uint8_t *p, size_t n)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (size_t i = 0; i < n; ++i) {
        out += digits[p[i] >> 4];
        out += digits[p[i] & 15];
    }
    return out;
}

// The three access bytes of four C1C2C3 codes, laid out as the card's data sheet draws them: byte 6 holds
// the inverted C2 and C1 bits, byte 7 C1 and the inverted C3, byte 8 C3 and C2, block 0 in the lowest bit.
void access_bytes(const uint8_t codes[4], uint8_t out[3])
{
    unsigned c1 = 0, c2 = 0, c3 = 0;
    for (unsigned i = 0; i < 4; ++i) {
        c1 |= ((codes[i] >> 2) & 1u) << i;
        c2 |= ((codes[i] >> 1) & 1u) << i;
        c3 |= (codes[i] & 1u) << i;
    }
    out[0] = static_cast<uint8_t>((~c2 & 15u) << 4 | (~c1 & 15u));
    out[1] = static_cast<uint8_t>(c1 << 4 | (~c3 & 15u));
    out[2] = static_cast<uint8_t>(c3 << 4 | c2);
}

TEST(KeyFile, TextWithCommentsBlanksAndEitherCase)
{
    const Outcome o = read_keys("# keys of the office cards\n"
                                "FFFFFFFFFFFF\n"
                                "  ffffffffffff   # key B, lower case\n"
                                "\n"
                                "\ta0a1A2A3a4A5\r\n"
                                "B0B1B2B3B4B5#no blank before the comment\r\n"
                                "# trailing comment without a line end");
    ASSERT_TRUE(o.ok) << o.err;
    ASSERT_EQ(o.keys.size(), 2u);
    EXPECT_EQ(hex(o.keys[0].a, 6), "FFFFFFFFFFFF");
    EXPECT_EQ(hex(o.keys[0].b, 6), "FFFFFFFFFFFF");
    EXPECT_EQ(hex(o.keys[1].a, 6), "A0A1A2A3A4A5");
    EXPECT_EQ(hex(o.keys[1].b, 6), "B0B1B2B3B4B5");
}

TEST(KeyFile, BinaryTwelveBytesASectorKeyAFirst)
{
    std::string bytes;
    for (int s = 0; s < 3; ++s)
        for (int i = 0; i < 12; ++i)
            bytes += static_cast<char>(s * 16 + i); // not text: read as binary
    const Outcome o = read_keys(bytes);
    ASSERT_TRUE(o.ok) << o.err;
    ASSERT_EQ(o.keys.size(), 3u);
    EXPECT_EQ(hex(o.keys[2].a, 6), "202122232425");
    EXPECT_EQ(hex(o.keys[2].b, 6), "262728292A2B");
    // The same bytes forced as text are refused, naming the first line and the byte.
    const Outcome t = read_keys(bytes, KeyFileFormat::TEXT);
    EXPECT_FALSE(t.ok);
    EXPECT_TRUE(t.keys.empty());
    EXPECT_NE(t.err.find("line 1: byte 0x00 is not a hex digit"), std::string::npos) << t.err;
}

TEST(KeyFile, FormatChosenByTheBytesUnlessGiven)
{
    // Twelve printable bytes are a text file by default, and one sector of keys when read as binary.
    const std::string printable = "ABCDEFGHIJKL";
    const Outcome text = read_keys(printable);
    EXPECT_FALSE(text.ok);
    EXPECT_NE(text.err.find("line 1: 'G' is not a hex digit"), std::string::npos) << text.err;
    const Outcome binary = read_keys(printable, KeyFileFormat::BINARY);
    ASSERT_TRUE(binary.ok) << binary.err;
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(binary.keys[0].a), 6), "ABCDEF");
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(binary.keys[0].b), 6), "GHIJKL");
}

TEST(KeyFile, TextFaultsNameTheirLine)
{
    const struct {
        const char *text, *message;
    } cases[] = {
        {"FFFFFFFFFFFF\nFFFFFFFFFFF\n", "line 2: 11 hex digits, a key has 12"},
        {"FFFFFFFFFFFF\n\nFFFFFFFFFFFFF\n", "line 3: 13 hex digits, a key has 12"},
        {"FFFFFFFFFFFF\nFFFFFFFFFFFG\n", "line 2: 'G' is not a hex digit"},
        {"FFFF FFFF FFFF\n", "line 1: ' ' is not a hex digit"},
        {"FFFFFFFFFFFF FFFFFFFFFFFF\n", "line 1: ' ' is not a hex digit"},
        {"0x00112233445\n", "line 1: 'x' is not a hex digit"},
        {"FFFFFFFFFFFF\nFFFFFFFFFFFF\nA0A1A2A3A4A5\n# no key B\n", "line 3: key A of sector 1 has no key B"},
        {"# only comments\n\n", "without a key"},
    };
    for (const auto &c : cases) {
        const Outcome o = read_keys(c.text);
        EXPECT_FALSE(o.ok) << c.text;
        EXPECT_TRUE(o.keys.empty());
        EXPECT_NE(o.err.find(c.message), std::string::npos) << c.text << " gave: " << o.err;
    }
}

TEST(KeyFile, SizesFromOneToFortySectors)
{
    std::string text, binary;
    for (int k = 0; k < 80; ++k)
        text += "A0A1A2A3A4A5\n";
    binary.assign(40 * 12, '\xFF');
    EXPECT_EQ(read_keys(text).keys.size(), 40u);
    EXPECT_EQ(read_keys(binary).keys.size(), 40u);

    const Outcome long_text = read_keys(text + "A0A1A2A3A4A5\nB0B1B2B3B4B5\n");
    EXPECT_FALSE(long_text.ok);
    EXPECT_NE(long_text.err.find("line 81: more keys than"), std::string::npos) << long_text.err;
    const Outcome long_binary = read_keys(binary + std::string(12, '\xFF'));
    EXPECT_FALSE(long_binary.ok);
    EXPECT_NE(long_binary.err.find("492 bytes"), std::string::npos) << long_binary.err;
    for (size_t n : {0u, 1u, 6u, 13u, 23u}) {
        const Outcome o = read_keys(std::string(n, '\xFF'), KeyFileFormat::BINARY);
        EXPECT_FALSE(o.ok) << n;
        EXPECT_NE(o.err.find(std::to_string(n) + " bytes: a binary key file holds 12 bytes a sector"),
                  std::string::npos)
            << o.err;
    }
}

TEST(SectorLayout, MiniOneKTwoKFourK)
{
    unsigned n = 0;
    const struct {
        uint32_t size;
        unsigned sectors;
    } cards[] = {{320, 5}, {1024, 16}, {2048, 32}, {4096, 40}};
    for (const auto &c : cards) {
        ASSERT_TRUE(tandro::sector_count(c.size, n)) << c.size;
        EXPECT_EQ(n, c.sectors);
        // The sectors cover the memory block by block, without gap or overlap.
        unsigned next = 0;
        for (unsigned s = 0; s < n; ++s) {
            EXPECT_EQ(tandro::sector_first_block(s), next) << s;
            next += tandro::sector_blocks(s);
        }
        EXPECT_EQ(next * 16, c.size);
    }
    EXPECT_EQ(tandro::sector_first_block(39) + tandro::sector_blocks(39) - 1, 255u);
    for (uint32_t size : {0u, 16u, 540u, 1008u, 4112u})
        EXPECT_FALSE(tandro::sector_count(size, n)) << size;
}

TEST(Trailer, AccessCodesOfEveryCombination)
{
    // The transport configuration FF0780: blocks 000, trailer 001.
    const uint8_t transport[3] = {0xFF, 0x07, 0x80};
    uint8_t codes[4] = {9, 9, 9, 9};
    ASSERT_TRUE(tandro::access_codes(transport, codes));
    EXPECT_EQ(codes[0] | codes[1] | codes[2], 0);
    EXPECT_EQ(codes[3], 1);
    for (unsigned all = 0; all < 4096; ++all) {
        const uint8_t want[4] = {uint8_t(all & 7), uint8_t(all >> 3 & 7), uint8_t(all >> 6 & 7), uint8_t(all >> 9)};
        uint8_t bytes[3], got[4];
        access_bytes(want, bytes);
        ASSERT_TRUE(tandro::access_codes(bytes, got)) << all;
        ASSERT_EQ(std::memcmp(want, got, 4), 0) << all;
        // Any single bit turned breaks the redundant form.
        for (unsigned bit = 0; bit < 24; ++bit) {
            uint8_t flipped[3] = {bytes[0], bytes[1], bytes[2]};
            flipped[bit / 8] = static_cast<uint8_t>(flipped[bit / 8] ^ (1u << (bit % 8)));
            ASSERT_FALSE(tandro::access_codes(flipped, got)) << all << " bit " << bit;
        }
    }
}

TEST(Trailer, FaultOnlyForAccessBytesOutOfForm)
{
    uint8_t trailer[16] = {0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xFF, 0x07,
                           0x80, 0x69, 0xB0, 0xB1, 0xB2, 0xB3, 0xB4, 0xB5};
    EXPECT_EQ(tandro::trailer_fault(trailer), "");
    // Keys and the general purpose byte do not matter; access bytes of all zeros do.
    std::memset(trailer, 0, 6);
    trailer[9] = 0;
    EXPECT_EQ(tandro::trailer_fault(trailer), "");
    std::memset(trailer + 6, 0, 3);
    const std::string why = tandro::trailer_fault(trailer);
    EXPECT_NE(why.find("access bytes 000000 are not valid"), std::string::npos) << why;
    // Key B reads back as data under the three codes that let key A read it, the transport one included.
    EXPECT_TRUE(tandro::key_b_readable(1));
    EXPECT_FALSE(tandro::key_b_readable(3));
}

} // namespace
