// The shared byte helpers: little-endian fields and hex text, and the reader's UID text read through them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "async/internal.h"
#include "core/bytes.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Decodes text; the bytes on success, or nothing with ok false.
Bytes decode(const std::string &text, bool &ok, uint32_t cap = 64)
{
    Bytes out(cap + 1, 0xEE); // one guard byte behind the room given
    uint32_t n = 0xFFFF;
    ok = zel::hex_decode(text.c_str(), out.data(), cap, &n);
    EXPECT_LE(n, cap) << text;
    EXPECT_EQ(out[cap], 0xEE) << "written past the room: " << text;
    out.resize(n);
    return out;
}

TEST(Bytes, LittleEndianFieldsKeepOrderAndEveryBit)
{
    // Each byte distinct and with its top bit set somewhere, so that a swapped, dropped or sign-extended
    // byte shows.
    const uint8_t raw[4] = {0x81, 0x02, 0xF3, 0xC4};
    EXPECT_EQ(zel::get_le16(raw), 0x0281u);
    EXPECT_EQ(zel::get_le24(raw), 0xF30281u);
    EXPECT_EQ(zel::get_le32(raw), 0xC4F30281u);
    const uint8_t high[4] = {0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(zel::get_le16(high), 0xFFFFu);
    EXPECT_EQ(zel::get_le24(high), 0xFFFFFFu);
    EXPECT_EQ(zel::get_le32(high), 0xFFFFFFFFu);

    // The setters write their width and nothing more, whatever v holds above it.
    for (const uint32_t v : {0u, 1u, 0x80u, 0xFFu, 0x100u, 0x8000u, 0xFFFFu, 0x10000u, 0x800000u, 0xFFFFFFu, 0x1000000u,
                             0x80000000u, 0xFFFFFFFFu, 0xC4F30281u}) {
        uint8_t b[6];
        std::memset(b, 0xEE, sizeof b);
        zel::put_le16(b + 1, v);
        EXPECT_EQ(b[0], 0xEE);
        EXPECT_EQ(b[3], 0xEE) << v;
        EXPECT_EQ(zel::get_le16(b + 1), v & 0xFFFFu) << v;
        std::memset(b, 0xEE, sizeof b);
        zel::put_le24(b + 1, v);
        EXPECT_EQ(b[4], 0xEE) << v;
        EXPECT_EQ(zel::get_le24(b + 1), v & 0xFFFFFFu) << v;
        std::memset(b, 0xEE, sizeof b);
        zel::put_le32(b + 1, v);
        EXPECT_EQ(b[0], 0xEE);
        EXPECT_EQ(b[5], 0xEE) << v;
        EXPECT_EQ(zel::get_le32(b + 1), v) << v;
        // The least significant byte comes first.
        EXPECT_EQ(b[1], static_cast<uint8_t>(v)) << v;
        EXPECT_EQ(b[4], static_cast<uint8_t>(v / 0x1000000u)) << v;
    }
}

TEST(Bytes, HexDigitsOfEveryCharacter)
{
    const std::string lower = "0123456789abcdef", upper = "0123456789ABCDEF";
    for (int c = -128; c < 256; ++c) {
        const size_t l = c > 0 ? lower.find(static_cast<char>(c)) : std::string::npos;
        const size_t u = c > 0 ? upper.find(static_cast<char>(c)) : std::string::npos;
        const int want = l != std::string::npos   ? static_cast<int>(l)
                         : u != std::string::npos ? static_cast<int>(u)
                                                  : -1;
        EXPECT_EQ(zel::hex_value(c), want) << c;
        EXPECT_EQ(zel::is_hex_digit(c), want >= 0) << c;
    }
    // Encoding takes the low four bits only and writes upper case.
    for (uint32_t v = 0; v < 16; ++v) {
        EXPECT_EQ(zel::hex_digit(v), upper[v]);
        EXPECT_EQ(zel::hex_digit(v + 0x30), upper[v]);
    }
}

TEST(Bytes, HexEncodeRoundTripsThroughDecode)
{
    Bytes all(256);
    for (size_t i = 0; i < all.size(); ++i)
        all[i] = static_cast<uint8_t>(i);
    std::string text(2 * all.size() + 1, 'x');
    zel::hex_encode(all.data(), static_cast<uint32_t>(all.size()), text.data());
    EXPECT_EQ(text.size(), 513u);
    EXPECT_EQ(text[512], '\0');
    EXPECT_EQ(text.substr(0, 8), "00010203");
    EXPECT_EQ(text.substr(2 * 0xA5, 2), "A5");
    EXPECT_EQ(text.find_first_of("abcdef"), std::string::npos);
    bool ok = false;
    EXPECT_EQ(decode(text.c_str(), ok, 256), all);
    EXPECT_TRUE(ok);
    // Nothing to encode leaves the empty text.
    char empty[1] = {'x'};
    zel::hex_encode(nullptr, 0, empty);
    EXPECT_EQ(empty[0], '\0');
}

TEST(Bytes, HexDecodeAcceptsPairsAndSeparatorsBetweenBytes)
{
    struct Case {
        std::string text;
        Bytes want;
    } cases[] = {
        {"", {}},
        {"00", {0x00}},
        {"fF", {0xFF}},
        {"0a1B2c", {0x0A, 0x1B, 0x2C}},
        {"0A 1B:2C-3D\t4E\r\n5F", {0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F}},
        {"  ::--01  ", {0x01}},
        {" \t\r\n", {}},
    };
    for (const Case &c : cases) {
        bool ok = false;
        EXPECT_EQ(decode(c.text, ok), c.want) << c.text;
        EXPECT_TRUE(ok) << c.text;
    }
}

TEST(Bytes, HexDecodeRefusesBrokenText)
{
    struct Case {
        std::string text;
        uint32_t decoded; // bytes already decoded when the fault is found
    } cases[] = {
        {"0", 0},                    // odd length
        {"012", 1},                  // a last digit without its pair
        {"0 1", 0},                  // a separator inside a byte
        {"01:2:3", 1},               // the same behind a good byte
        {"0g", 0},                   // not a digit
        {"G0", 0},     {"01,02", 1}, // not a separator
        {"01\xB0", 1},               // a byte above 0x7F
        {"0x01", 0},                 // no prefix
        {"+1", 0},                   // no sign
    };
    for (const Case &c : cases) {
        bool ok = true;
        EXPECT_EQ(decode(c.text, ok).size(), c.decoded) << c.text;
        EXPECT_FALSE(ok) << c.text;
    }
    // The room given is kept to: exactly full decodes, one byte more fails before writing it.
    bool ok = false;
    EXPECT_EQ(decode("A1B2C3", ok, 3), (Bytes{0xA1, 0xB2, 0xC3}));
    EXPECT_TRUE(ok);
    EXPECT_EQ(decode("A1B2C3D4", ok, 3).size(), 3u);
    EXPECT_FALSE(ok);
    EXPECT_EQ(decode("A1", ok, 0).size(), 0u);
    EXPECT_FALSE(ok);
}

// The reader's UID text has always been read two characters at a time as a base-16 number (leading blanks,
// a sign, then digits); the pairs of every two characters still give what that reading gives.
TEST(Bytes, UidTextPairsReadAsBefore)
{
    for (int a = 0; a < 256; ++a) {
        for (int b = 0; b < 256; ++b) {
            // A NUL ends the pair early, for both readings.
            const char text[3] = {static_cast<char>(a), static_cast<char>(b), 0};
            const uint8_t want = static_cast<uint8_t>(std::strtoul(text, nullptr, 16));
            uint8_t got[2] = {0, 0xEE};
            ASSERT_EQ(zel::async::hex_text_to_bytes(text, 2, got, 1), 1u) << a << ' ' << b;
            ASSERT_EQ(got[0], want) << "pair " << a << ' ' << b;
            ASSERT_EQ(got[1], 0xEE);
        }
    }
}

} // namespace
