// The reader's side of the signal, RF, secure element and feature commands alone: the checks a correct host
// never trips (guard bytes, CRC-8, lengths, lock order), and the CRC-8 against its published check value.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "reader.h"
#include "signals.h"
#include "wire.h"

namespace {

using Bytes = std::vector<uint8_t>;

// The reader's answer to a command with an EXT of data (its checksum place added) or none.
Bytes answer(zs::Reader &r, uint8_t cmd, uint8_t p0, uint8_t p1, const Bytes &data = {}, bool with_ext = false)
{
    Bytes block = data;
    if (with_ext || !block.empty())
        block.push_back(0);
    const uint8_t f[7] = {0x55, cmd, 0xAA, static_cast<uint8_t>(block.size()), p0, p1, 0};
    zs::Answer a;
    zs::reader_command(r, f, block.empty() ? nullptr : block.data(), block.size(), a);
    return a.bytes;
}

bool refused(const Bytes &reply, uint8_t code)
{
    return reply.size() == 7 && reply[0] == zs::ERR_HEADER && reply[1] == code;
}

bool accepted(const Bytes &reply)
{
    return reply.size() >= 7 && reply[0] == zs::RSP_HEADER;
}

TEST(SignalsParts, FeatureCrcCheckValue)
{
    const uint8_t digits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    EXPECT_EQ(zs::feature_crc(digits, 9), 0xF7);
    const uint8_t beef[] = {0xBE, 0xEF};
    EXPECT_EQ(zs::feature_crc(beef, 2), 0x92);
}

TEST(SignalsParts, GuardsAHostCannotPass)
{
    zs::Reader r;
    // The bad-select guard byte, the RGB marker, a display length that the EXT does not carry.
    EXPECT_TRUE(refused(answer(r, 0x3F, 5, 5), zs::E_PARAMETERS));
    EXPECT_TRUE(accepted(answer(r, 0x3F, 5, static_cast<uint8_t>((5 ^ 0xA3) + 7))));
    EXPECT_TRUE(refused(answer(r, 0x71, 1, 0, {1, 2, 3, 4}), zs::E_PARAMETERS));
    EXPECT_TRUE(refused(answer(r, 0x72, 3, 0, {1, 2}), zs::E_PARAMETERS));
    // A feature block whose CRC-8 is wrong, an AID block with a count of 17, an unknown feature.
    EXPECT_TRUE(refused(answer(r, 0xC4, 129, 0, {0xBE, 0xEF, 0x93}), zs::E_CHKSUM));
    Bytes aid(17, 0);
    aid[0] = 17;
    aid.push_back(zs::feature_crc(aid.data(), aid.size()));
    EXPECT_TRUE(refused(answer(r, 0xC4, 130, 0, aid), zs::E_PARAMETERS));
    EXPECT_TRUE(refused(answer(r, 0xC3, 128, 0), zs::E_PARAMETERS));
    // RF sets: a length that is not the set's, set 5, a default asked with PAR1 0.
    EXPECT_TRUE(refused(answer(r, 0x7D, 3, 0, {1, 2, 3, 4, 5}), zs::E_PARAMETERS));
    EXPECT_TRUE(refused(answer(r, 0x7E, 5, 0), zs::E_PARAMETERS));
    EXPECT_TRUE(refused(answer(r, 0x7D, 1, 0), zs::E_PARAMETERS));
}

TEST(SignalsParts, SecureElementLockOrder)
{
    zs::Reader r;
    const Bytes key(69, 0x11);
    // A wrapped key before the data lock, a slot lock before it, a slot past 7 for a key.
    EXPECT_TRUE(refused(answer(r, 0xC7, 0x87, 1, key), zs::E_PARAMETERS));
    EXPECT_TRUE(refused(answer(r, 0xC7, 0x83, 1), zs::E_PARAMETERS));
    EXPECT_TRUE(refused(answer(r, 0xC7, 0x85, 8, key), zs::E_PARAMETERS));
    // The first 16 configuration bytes are the chip's own.
    EXPECT_TRUE(refused(answer(r, 0xC7, 0x80, 15, {1}), zs::E_PARAMETERS));
    EXPECT_TRUE(accepted(answer(r, 0xC7, 0x80, 16, {0xC2})));
    EXPECT_EQ(r.outputs.se_config[16], 0xC2);
    EXPECT_TRUE(accepted(answer(r, 0xC7, 0x82, 0)));
    EXPECT_TRUE(refused(answer(r, 0xC7, 0x82, 0), zs::E_PARAMETERS)) << "locked once only";
    EXPECT_TRUE(refused(answer(r, 0xC7, 0x80, 16, {0xC4}), zs::E_PARAMETERS));
    EXPECT_TRUE(accepted(answer(r, 0xC7, 0x83, 0)));
    EXPECT_TRUE(accepted(answer(r, 0xC7, 0x87, 1, key)));
    EXPECT_EQ(r.outputs.se_slot[1], Bytes(36, 0x11));
    EXPECT_EQ(r.outputs.log.back(), "se key slot 1 encrypted");
}

} // namespace
