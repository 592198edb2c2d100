// The reader list's parsers of untrusted bytes: an ESP front's address answer and the text fields.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "readers/readers_internal.h"

namespace {

using zel::readers::address_from_reply;
using zel::readers::copy_field;

bool address(const std::string &reply, std::string *out = nullptr)
{
    char text[32];
    std::memset(text, 'x', sizeof text);
    const bool ok =
        address_from_reply(reinterpret_cast<const uint8_t *>(reply.data()), reply.size(), text, sizeof text);
    EXPECT_NE(std::memchr(text, '\0', sizeof text), nullptr) << "the output is always terminated";
    if (out)
        *out = text;
    return ok;
}

TEST(ReaderListAddress, AcceptsDottedAddressesWithOptionalPort)
{
    std::string out;
    EXPECT_TRUE(address("192.168.1.20\n", &out));
    EXPECT_EQ(out, "192.168.1.20");
    // Carriage returns before the line feed go, whatever their number; bytes after it are not read.
    EXPECT_TRUE(address("10.0.0.7\r\r\nrubbish", &out));
    EXPECT_EQ(out, "10.0.0.7");
    EXPECT_TRUE(address("127.0.0.1:40001\r\n", &out));
    EXPECT_EQ(out, "127.0.0.1:40001");
    EXPECT_TRUE(address("255.255.255.255:65535\n", &out));
    EXPECT_EQ(out, "255.255.255.255:65535");
}

TEST(ReaderListAddress, NoAddressForZeroEmptyCutOrMalformedAnswers)
{
    std::string out = "unchanged";
    EXPECT_FALSE(address("0.0.0.0\r\n", &out));
    EXPECT_EQ(out, "");
    EXPECT_FALSE(address(""));
    EXPECT_FALSE(address("\r\n"));
    EXPECT_FALSE(address("192.168.1.20")) << "no line feed: the answer was cut or timed out";
    EXPECT_FALSE(address("256.1.1.1\n"));
    EXPECT_FALSE(address("1.2.3\n"));
    EXPECT_FALSE(address("1.2.3.4.5\n"));
    EXPECT_FALSE(address("1..3.4\n"));
    EXPECT_FALSE(address("0001.2.3.4\n"));
    EXPECT_FALSE(address("1.2.3.4:\n"));
    EXPECT_FALSE(address("1.2.3.4:0\n"));
    EXPECT_FALSE(address("1.2.3.4:65536\n"));
    EXPECT_FALSE(address("1.2.3.4 \n"));
    EXPECT_FALSE(address("host.example\n"));
    EXPECT_FALSE(address(std::string("1.2.3.4\0\n", 9)));
    EXPECT_FALSE(address("1.2.3.4:1234567890123456789\n")) << "longer than any answer";
    char tiny[8];
    EXPECT_FALSE(address_from_reply(reinterpret_cast<const uint8_t *>("10.0.0.7\n"), 9, tiny, sizeof tiny))
        << "an address that does not fit the output";
    EXPECT_FALSE(address_from_reply(nullptr, 4, tiny, sizeof tiny));
}

TEST(ReaderListText, FieldsAreBoundedPrintableAndTerminated)
{
    char out[8];
    copy_field(out, sizeof out, "ABCDEFGHIJ", 10);
    EXPECT_STREQ(out, "ABCDEFG");
    const char raw[6] = {'Z', '\x01', 'e', '\xFF', 'l', 'X'};
    copy_field(out, sizeof out, raw, 5); // the source need not be terminated
    EXPECT_STREQ(out, "Z?e?l");
    copy_field(out, sizeof out, "AB\0CD", 5);
    EXPECT_STREQ(out, "AB");
    copy_field(out, sizeof out, nullptr, 5);
    EXPECT_STREQ(out, "");
}

} // namespace
