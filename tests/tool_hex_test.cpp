// The tool's one hex rule: what it takes, what it refuses, and that its text turns back into the bytes.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tools/cli.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes parsed(const std::string &text)
{
    Bytes out{0xEE}; // whatever was there goes
    EXPECT_TRUE(tandro::parse_hex(text, out)) << '"' << text << '"';
    return out;
}

void refused(const std::string &text)
{
    Bytes out{0xEE};
    EXPECT_FALSE(tandro::parse_hex(text, out)) << '"' << text << '"';
    EXPECT_TRUE(out.empty()) << '"' << text << '"';
}

TEST(ToolHex, DigitsInEitherCaseWithSeparatorsBetweenBytes)
{
    const Bytes want{0x0A, 0xBC, 0xDE, 0xF0};
    EXPECT_EQ(parsed("0abcdef0"), want);
    EXPECT_EQ(parsed("0ABCDEF0"), want);
    EXPECT_EQ(parsed("0aBcDeF0"), want);
    EXPECT_EQ(parsed("0a bc de f0"), want);
    EXPECT_EQ(parsed("0a:bc:de:f0"), want);
    EXPECT_EQ(parsed("0a-bc-de-f0"), want);
    EXPECT_EQ(parsed("  0a :bc- de\tf0\r"), want);
    EXPECT_EQ(parsed("0abc de:f0"), want); // groups of several bytes
    EXPECT_EQ(parsed(""), Bytes{});
    EXPECT_EQ(parsed(" : - "), Bytes{});
}

TEST(ToolHex, RefusesOddCountsSplitBytesAndOtherCharacters)
{
    refused("0");
    refused("abc");
    refused("0a bc d");
    refused("0 a"); // a separator inside a byte
    refused("0a:b:c0");
    refused("0x0a"); // no prefix
    refused("0g");
    refused("0a,bc");
    refused("0a\nbc"); // a line feed ends a script line before it gets here
    refused("0a.bc");
    refused(std::string("0a\0bc", 5));
    refused("\xc3\xa9"
            "0a"); // bytes above ASCII
}

TEST(ToolHex, TextAndBytesRoundTrip)
{
    Bytes all(256);
    for (size_t i = 0; i < all.size(); ++i)
        all[i] = static_cast<uint8_t>(i);
    const std::string text = tandro::to_hex(all.data(), all.size());
    ASSERT_EQ(text.size(), 512u);
    EXPECT_EQ(text.substr(0, 8), "00010203");
    EXPECT_EQ(text.substr(504), "FCFDFEFF");
    EXPECT_EQ(parsed(text), all);
    EXPECT_EQ(tandro::to_hex(nullptr, 0), "");
}

} // namespace
