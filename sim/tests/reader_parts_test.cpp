// The simulated reader's parts in their order: a command reaches the first part that takes it, and a
// command no part takes is refused.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "reader.h"
#include "wire.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Frame {
    uint8_t bytes[7];
};

Frame frame(uint8_t cmd, uint8_t ext_len = 0, uint8_t p0 = 0, uint8_t p1 = 0)
{
    Frame f{{0x55, cmd, 0xAA, ext_len, p0, p1, 0}};
    return f;
}

Bytes answer(zs::Reader &r, uint8_t cmd, const Bytes &ext = {}, uint8_t p0 = 0, uint8_t p1 = 0)
{
    Bytes block = ext;
    if (!block.empty())
        block.push_back(0); // the checksum place: the parts read the data before it
    const Frame f = frame(cmd, static_cast<uint8_t>(block.size()), p0, p1);
    zs::Answer a;
    zs::reader_command(r, f.bytes, block.empty() ? nullptr : block.data(), block.size(), a);
    return a.bytes;
}

Bytes error_frame(uint8_t code)
{
    Bytes e;
    e.reserve(7); // one frame
    zs::put_error(e, code);
    return e;
}

TEST(ReaderParts, EachCommandReachesThePartThatTakesIt)
{
    zs::Reader r;
    // No part takes 0x01.
    EXPECT_EQ(answer(r, 0x01), error_frame(zs::E_NOT_SUPPORTED));
    // The reader's own commands: its type, and a password-guarded write refused for its length.
    const Bytes type = answer(r, 0x10);
    ASSERT_EQ(type.size(), 7u + 5u);
    EXPECT_EQ(type[1], 0x10);
    EXPECT_EQ(type[7] | type[8] << 8 | type[9] << 16 | static_cast<uint32_t>(type[10]) << 24, r.type);
    EXPECT_EQ(answer(r, 0x33, Bytes(15, 0x31)), error_frame(zs::E_PARAMETERS));
    EXPECT_EQ(answer(r, 0x33, Bytes(16, 0x30)), error_frame(zs::E_WRONG_PASSWORD));
    // The DESFire engine answers its operations itself, with no card in the field too (card status 3000).
    const Bytes uid = answer(r, 0x80, Bytes(20, 0));
    ASSERT_GE(uid.size(), 7u + 2u);
    EXPECT_EQ(uid[1], 0x80);
    EXPECT_EQ(uid[7] | uid[8] << 8, 3000);
    // The reader's own question to the card, with no card.
    EXPECT_EQ(answer(r, 0xE4), error_frame(zs::E_NO_CARD)) << "is the UID changeable";
}

TEST(ReaderParts, WhoTakesAnExt)
{
    const zs::Reader r;
    auto wants = [&](uint8_t cmd) { return zs::reader_wants_ext(r, frame(cmd).bytes); };
    EXPECT_TRUE(wants(0x1C)) << "user data write";
    EXPECT_FALSE(wants(0x1B)) << "user data read";
    EXPECT_TRUE(wants(0x40)) << "serial description, which has a set form";
    EXPECT_TRUE(wants(0x80)) << "a DESFire operation";
    EXPECT_FALSE(wants(0x8D)) << "DESFire free memory";
    EXPECT_FALSE(wants(0x10));
    EXPECT_FALSE(wants(0x01));
}

} // namespace
