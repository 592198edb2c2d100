// The simulated SAM from the host's side, driven APDU by APDU with OpenSSL: the legacy authentication by
// hand, then enciphered key entry changes whose CRC_A and padding the SAM checks.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "../../tests/sam_test_support.h"
#include "card.h"
#include "iso7816.h"

namespace {

using samtest::Bytes;
using samtest::join;
using samtest::range;
using samtest::rol;

struct SamCard : ::testing::Test {
    std::unique_ptr<zs::Card> card;
    zs::AppHost *sam = nullptr;
    const Bytes zero = Bytes(8, 0);
    Bytes session; // the DES session key after authenticate()

    void SetUp() override
    {
        const zsim_card id = {{0x04, 1, 2, 3, 4, 5, 6}, 7, 0x20, 0x0344, 0x01};
        std::string err;
        card = zs::make_card("sam_av2", id, nullptr, err);
        ASSERT_NE(card, nullptr) << err;
        sam = &static_cast<zs::Iso14443Card *>(card.get())->contact_host();
    }
    Bytes send(const Bytes &apdu) { return sam->transceive(apdu.data(), apdu.size()); }
    static uint16_t sw(const Bytes &r) { return static_cast<uint16_t>(r.at(r.size() - 2) << 8 | r.back()); }

    // The legacy three-pass on entry 0; true when the SAM proved itself.
    bool authenticate(bool rotate_rndb = true)
    {
        const Bytes first = send({0x80, 0xA4, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00});
        if (first.size() != 10 || sw(first) != 0x90AF)
            return false;
        const Bytes rndb = samtest::des_ecb(zero, range(first, 0, 8), false);
        const Bytes rnda = {0x10, 0x32, 0x54, 0x76, 0x98, 0xBA, 0xDC, 0xFE};
        const Bytes c1 = samtest::des_ecb(zero, rnda, false);
        Bytes x = rotate_rndb ? rol(rndb, 1) : rndb;
        for (int i = 0; i < 8; ++i)
            x[i] ^= c1[i];
        const Bytes reply = send(join({{0x80, 0xA4, 0x00, 0x00, 0x10}, c1, samtest::des_ecb(zero, x, false), {0x00}}));
        if (reply.size() != 10 || sw(reply) != 0x9000)
            return false;
        session = join({range(rnda, 0, 4), range(rndb, 0, 4)});
        return samtest::des_ecb(zero, range(reply, 0, 8), false) == rol(rnda, 1);
    }

    // ChangeKeyEntry of the AV1 mode for entry 3: 60 bytes, then tail (CRC and padding), enciphered.
    Bytes change(const Bytes &entry60, const Bytes &tail)
    {
        const Bytes plain = join({entry60, tail});
        return send(join(
            {{0x80, 0xC1, 0x03, 0xFF, 0x40}, samtest::crypt(EVP_des_ede3_cbc(), session, plain, true, Bytes(8, 0))}));
    }
};

Bytes entry_data()
{
    Bytes d(60, 0);
    for (int i = 0; i < 48; ++i)
        d[i] = static_cast<uint8_t>(0xA0 + i);
    d[54] = 0xFF; // key usage counter
    d[55] = 0x20; // AES host key
    d[57] = 7, d[58] = 8, d[59] = 9;
    return d;
}

Bytes crc_tail(const Bytes &d)
{
    const uint16_t c = samtest::crc_a(d.data(), d.size());
    return {static_cast<uint8_t>(c), static_cast<uint8_t>(c >> 8), 0x00, 0x00};
}

TEST_F(SamCard, EncipheredEntryChangeIsChecked)
{
    ASSERT_TRUE(authenticate());
    const Bytes d = entry_data();
    // A wrong CRC, then nonzero padding behind a right one: both refused, the entry untouched.
    Bytes bad_crc = crc_tail(d);
    bad_crc[0] ^= 1;
    EXPECT_EQ(sw(change(d, bad_crc)), 0x6A80);
    Bytes bad_pad = crc_tail(d);
    bad_pad[3] = 0x01;
    EXPECT_EQ(sw(change(d, bad_pad)), 0x6A80);
    EXPECT_EQ(send({0x80, 0x64, 0x03, 0x00, 0x00}), (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0, 0, 0x90, 0x00}));
    // The intact message is written.
    EXPECT_EQ(change(d, crc_tail(d)), (Bytes{0x90, 0x00}));
    EXPECT_EQ(send({0x80, 0x64, 0x03, 0x00, 0x00}), (Bytes{7, 8, 9, 0, 0, 0, 0, 0, 0, 0xFF, 0x20, 0x00, 0x90, 0x00}));
}

TEST_F(SamCard, FailedAuthenticationLeavesNoSession)
{
    EXPECT_FALSE(authenticate(false));
    session = zero;
    const Bytes d = entry_data();
    EXPECT_EQ(change(d, crc_tail(d)), (Bytes{0x69, 0x82}));
    // The AV2 form is not there in AV1 mode; unknown entries and instructions are refused.
    EXPECT_EQ(send({0x80, 0xA4, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00, 0x00}), (Bytes{0x69, 0x85}));
    EXPECT_EQ(send({0x80, 0x64, 0x80, 0x00, 0x00}), (Bytes{0x6A, 0x82}));
    EXPECT_EQ(send({0x80, 0xEE, 0x00, 0x00}), (Bytes{0x6D, 0x00}));
    EXPECT_EQ(send({0x00, 0x60, 0x00, 0x00, 0x00}), (Bytes{0x6E, 0x00})); // the SAM speaks class 80 only
}

} // namespace
