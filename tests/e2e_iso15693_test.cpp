// ISO 15693 tags end to end: the exported operations over a pseudo-terminal against the simulated reader's
// 0xB5 engine and its ICODE and EM4237 tag models, with the block and linear operations on the same tags.
#include <cstring>
#include <vector>

#include "card_sim_fixture.h"

using zeltest::CardSimTest;

namespace {

using Bytes = std::vector<uint8_t>;

// An ICODE tag of 40 blocks with its read, write and privacy passwords, and a reader that holds them at 3, 4
// and 5 (the first four bytes of a key count), and another password at 8.
const char *ICODE = R"({
  "reader": {"keys": [{"index": 3, "key": "0F0E0D0C0000"}, {"index": 4, "key": "A0A1A2A30000"},
                      {"index": 5, "key": "010203040000"}, {"index": 8, "key": "717273740000"}]},
  "cards": [{"uid": "E0040150A1B2C3D4", "sak": "00", "type": "50", "model": "iso15693",
             "setup": {"blocks": 40, "dsfid": "3C", "afi": "5A", "ic_reference": 1,
                       "block_data": [{"block": 2, "data": "CAFEBABE"}],
                       "passwords": {"read": "0F0E0D0C", "write": "A0A1A2A3", "privacy": "01020304"}}}]
})";

const char *EM = R"({
  "reader": {"keys": [{"index": 9, "key": "55AA55AA0000"}]},
  "cards": [{"uid": "E016240112345678", "sak": "00", "type": "50", "model": "iso15693",
             "setup": {"family": "em4237", "blocks": 32, "password": "55AA55AA", "info_flags": 5}}]
})";

struct Info {
    uint8_t flags = 0, uid[8] = {}, dsfid = 0, afi = 0, ic = 0;
    uint16_t size = 0;
};

TEST_F(CardSimTest, Iso15693SystemInformationMatchesTheTag)
{
    start(ICODE);
    Info i;
    ASSERT_EQ(iso15693_get_system_information_no_authM(hnd, &i.flags, i.uid, &i.dsfid, &i.afi, &i.size, &i.ic), ZEL_OK);
    EXPECT_EQ(i.flags, 0x0F);
    // The same UID, in the same order, as the card id operations report.
    uint8_t sak = 0, uid[10] = {}, uid_len = 0;
    ASSERT_EQ(GetCardIdExM(hnd, &sak, uid, &uid_len), ZEL_OK);
    ASSERT_EQ(uid_len, 8);
    EXPECT_EQ(Bytes(i.uid, i.uid + 8), Bytes(uid, uid + 8));
    EXPECT_EQ(i.dsfid, 0x3C);
    EXPECT_EQ(i.afi, 0x5A);
    EXPECT_EQ(i.size, 40 * 4);
    EXPECT_EQ(i.ic, 1);
    // With a password: the privacy password opens it, another one does not.
    const uint8_t privacy[4] = {1, 2, 3, 4}, wrong[4] = {1, 2, 3, 5};
    EXPECT_EQ(iso15693_get_system_information_PK_M(hnd, privacy, &i.flags, i.uid, &i.dsfid, &i.afi, &i.size, &i.ic),
              ZEL_OK);
    EXPECT_EQ(iso15693_get_system_information_PK_M(hnd, wrong, &i.flags, i.uid, &i.dsfid, &i.afi, &i.size, &i.ic),
              ZEL_AUTH_ERROR);
}

// Blocks of 4 bytes through the ordinary block and linear operations, the linear space from block 0.
TEST_F(CardSimTest, Iso15693BlocksAndLinearSpace)
{
    start(ICODE);
    uint8_t b[16] = {};
    ASSERT_EQ(BlockReadM(hnd, b, 2, 0x60, 0), ZEL_OK);
    EXPECT_EQ(Bytes(b, b + 4), (Bytes{0xCA, 0xFE, 0xBA, 0xBE}));
    const uint8_t cc[16] = {0xE1, 0x40, 0x05, 0x00};
    ASSERT_EQ(BlockWriteM(hnd, cc, 0, 0x60, 0), ZEL_OK);
    Bytes msg(30);
    for (size_t k = 0; k < msg.size(); ++k)
        msg[k] = static_cast<uint8_t>(0x40 + k);
    uint16_t n = 0;
    ASSERT_EQ(LinearWriteM(hnd, msg.data(), 4, static_cast<uint16_t>(msg.size()), &n, 0x60, 0), ZEL_OK);
    Bytes back(34);
    ASSERT_EQ(LinearReadM(hnd, back.data(), 0, 34, &n, 0x60, 0), ZEL_OK);
    EXPECT_EQ(Bytes(back.begin(), back.begin() + 4), (Bytes{0xE1, 0x40, 0x05, 0x00}));
    EXPECT_EQ(Bytes(back.begin() + 4, back.end()), msg);
    // The block read of the last block wraps to block 0.
    ASSERT_EQ(BlockReadM(hnd, b, 39, 0x60, 0), ZEL_OK);
    EXPECT_EQ(Bytes(b + 4, b + 8), (Bytes{0xE1, 0x40, 0x05, 0x00}));
}

// A lock holds against writes and shows in the security status; the status covers count + 1 blocks.
TEST_F(CardSimTest, Iso15693LocksAndSecurityStatus)
{
    start(ICODE);
    ASSERT_EQ(iso15693_lock_block_no_authM(hnd, 5), ZEL_OK);
    ASSERT_EQ(icode_lock_blockM(hnd, 3, 4, 7), ZEL_OK);
    const uint8_t wrong[4] = {9, 9, 9, 9}, write_pw[4] = {0xA0, 0xA1, 0xA2, 0xA3};
    EXPECT_EQ(icode_lock_block_PK_M(hnd, wrong, write_pw, 8), ZEL_AUTH_ERROR);
    uint8_t st[256];
    std::memset(st, 0xEE, sizeof st);
    ASSERT_EQ(iso15693_get_multiply_block_security_statusM(hnd, 4, 4, st), ZEL_OK);
    EXPECT_EQ(Bytes(st, st + 6), (Bytes{0, 1, 0, 1, 0, 0xEE}));
    const uint8_t data[16] = {1, 2, 3, 4};
    EXPECT_NE(BlockWriteM(hnd, data, 5, 0x60, 0), ZEL_OK);
    EXPECT_EQ(BlockWriteM(hnd, data, 6, 0x60, 0), ZEL_OK);
    EXPECT_EQ(iso15693_get_multiply_block_security_statusM(hnd, 38, 2, st), ZEL_MAX_ADDRESS_EXCEEDED);
    // The last of the 40 blocks alone: one byte, the ones behind it untouched.
    std::memset(st, 0xEE, sizeof st);
    ASSERT_EQ(iso15693_get_multiply_block_security_statusM(hnd, 39, 0, st), ZEL_OK);
    EXPECT_EQ(Bytes(st, st + 2), (Bytes{0, 0xEE}));
    // The EM4237 form is not an ICODE command.
    EXPECT_EQ(em4237_get_multiply_block_security_statusM(hnd, 0, 0, st), ZEL_UNSUPPORTED_CARD_TYPE);
}

// Password changes take effect at once; page protection with the passwords then closes the high page.
TEST_F(CardSimTest, Iso15693PasswordsAndPageProtection)
{
    start(ICODE);
    const uint8_t read_pw[4] = {0x0F, 0x0E, 0x0D, 0x0C}, new_read[4] = {0x71, 0x72, 0x73, 0x74};
    EXPECT_EQ(icode_write_password_PK_M(hnd, ZEL_ICODE_PWD_READ, new_read, read_pw), ZEL_AUTH_ERROR);
    ASSERT_EQ(icode_write_password_PK_M(hnd, ZEL_ICODE_PWD_READ, read_pw, new_read), ZEL_OK);
    // The reader's key 3 still holds the old read password: the protection by indexes now fails.
    EXPECT_EQ(icode_protect_pageM(hnd, 3, 4, 16, 0, 0, 1, 1), ZEL_AUTH_ERROR);
    // Back to the old one by indexes would need the new one at an index: use the provided form instead.
    const uint8_t write_pw[4] = {0xA0, 0xA1, 0xA2, 0xA3};
    ASSERT_EQ(icode_protect_page_PK_M(hnd, new_read, write_pw, 16, 0, 0, 1, 1), ZEL_OK);
    uint8_t b[16];
    EXPECT_EQ(BlockReadM(hnd, b, 15, 0x60, 0), ZEL_OK);
    EXPECT_NE(BlockReadM(hnd, b, 16, 0x60, 0), ZEL_OK);
    const uint8_t data[16] = {5, 6, 7, 8};
    EXPECT_NE(BlockWriteM(hnd, data, 20, 0x60, 0), ZEL_OK);
    EXPECT_EQ(BlockWriteM(hnd, data, 2, 0x60, 0), ZEL_OK);
    // A write-protected block is locked only with the passwords.
    EXPECT_NE(iso15693_lock_block_no_authM(hnd, 20), ZEL_OK);
    EXPECT_EQ(icode_lock_block_PK_M(hnd, new_read, write_pw, 20), ZEL_OK);
    // Index form of the password change: key 3 (old read password) no longer matches.
    EXPECT_EQ(icode_write_passwordM(hnd, ZEL_ICODE_PWD_READ, 3, 4), ZEL_AUTH_ERROR);
}

// The index forms reach the passwords through the reader's keys: each one succeeds with the keys holding the
// tag's passwords and fails with another key in any of its places.
TEST_F(CardSimTest, Iso15693IndexFormsUseTheReaderKeys)
{
    start(ICODE);
    Info i;
    EXPECT_EQ(iso15693_get_system_informationM(hnd, 3, &i.flags, i.uid, &i.dsfid, &i.afi, &i.size, &i.ic),
              ZEL_AUTH_ERROR);
    ASSERT_EQ(iso15693_get_system_informationM(hnd, 5, &i.flags, i.uid, &i.dsfid, &i.afi, &i.size, &i.ic), ZEL_OK);
    EXPECT_EQ(i.size, 40 * 4);
    // Low page read-protected below block 16.
    EXPECT_EQ(icode_protect_pageM(hnd, 4, 3, 16, 1, 0, 0, 0), ZEL_AUTH_ERROR);
    ASSERT_EQ(icode_protect_pageM(hnd, 3, 4, 16, 1, 0, 0, 0), ZEL_OK);
    uint8_t b[16];
    EXPECT_NE(BlockReadM(hnd, b, 2, 0x60, 0), ZEL_OK);
    EXPECT_EQ(BlockReadM(hnd, b, 16, 0x60, 0), ZEL_OK);
    // The read password moves from key 3's value to key 8's; the locks follow it.
    EXPECT_EQ(icode_write_passwordM(hnd, ZEL_ICODE_PWD_READ, 8, 3), ZEL_AUTH_ERROR);
    ASSERT_EQ(icode_write_passwordM(hnd, ZEL_ICODE_PWD_READ, 3, 8), ZEL_OK);
    EXPECT_EQ(icode_lock_blockM(hnd, 3, 4, 9), ZEL_AUTH_ERROR);
    ASSERT_EQ(icode_lock_blockM(hnd, 8, 4, 9), ZEL_OK);
    uint8_t st[256] = {};
    ASSERT_EQ(iso15693_get_multiply_block_security_statusM(hnd, 9, 0, st), ZEL_OK);
    EXPECT_EQ(st[0], 0x01);
}

TEST_F(CardSimTest, Em4237ProtectionAndRandomId)
{
    start(EM);
    Info before;
    ASSERT_EQ(iso15693_get_system_information_no_authM(hnd, &before.flags, before.uid, &before.dsfid, &before.afi,
                                                       &before.size, &before.ic),
              ZEL_OK);
    EXPECT_EQ(before.flags, 0x05);
    EXPECT_EQ(before.size, 32 * 4);
    const uint8_t wrong[4] = {0, 0, 0, 1}, pw[4] = {0x55, 0xAA, 0x55, 0xAA};
    EXPECT_EQ(em4237_protect_page_PK_M(hnd, wrong, 1, 0x02), ZEL_AUTH_ERROR);
    ASSERT_EQ(em4237_protect_pageM(hnd, 9, 1, 0x02), ZEL_OK); // blocks 4 to 7 write-protected
    ASSERT_EQ(iso15693_lock_block_no_authM(hnd, 3), ZEL_OK);
    uint8_t st[256] = {};
    ASSERT_EQ(em4237_get_multiply_block_security_statusM(hnd, 3, 1, st), ZEL_OK);
    EXPECT_EQ(Bytes(st, st + 2), (Bytes{0x01, 0x04}));
    const uint8_t data[16] = {1};
    EXPECT_NE(BlockWriteM(hnd, data, 4, 0x60, 0), ZEL_OK);
    // ICODE commands are not the EM4237's.
    EXPECT_EQ(icode_protect_pageM(hnd, 9, 9, 1, 1, 1, 1, 1), ZEL_UNSUPPORTED_CARD_TYPE);
    // The random id hides the serial in the system information.
    ASSERT_EQ(em4237_enable_RID_PK_M(hnd, pw), ZEL_OK);
    Info after;
    ASSERT_EQ(iso15693_get_system_information_no_authM(hnd, &after.flags, after.uid, &after.dsfid, &after.afi,
                                                       &after.size, &after.ic),
              ZEL_OK);
    EXPECT_EQ(Bytes(after.uid, after.uid + 2), Bytes(before.uid, before.uid + 2));
    EXPECT_NE(Bytes(after.uid, after.uid + 8), Bytes(before.uid, before.uid + 8));
    EXPECT_EQ(em4237_enable_RID_M(hnd, 31), ZEL_AUTH_ERROR);
    EXPECT_EQ(em4237_enable_RID_M(hnd, 9), ZEL_OK);
}

// A tag of 256 blocks: the status of all of them does not fit one reply, and the reader says so; 254 do.
TEST_F(CardSimTest, Iso15693SecurityStatusOfMoreBlocksThanAReplyHolds)
{
    start(R"({"cards": [{"uid": "E0040150A1B2C3D5", "sak": "00", "type": "50", "model": "iso15693",
                         "setup": {"blocks": 256, "locked": [0, 253, 254]}}]})");
    uint8_t st[256];
    std::memset(st, 0xEE, sizeof st);
    EXPECT_EQ(iso15693_get_multiply_block_security_statusM(hnd, 0, 255, st), ZEL_MAX_SIZE_EXCEEDED);
    EXPECT_EQ(st[0], 0xEE);
    ASSERT_EQ(iso15693_get_multiply_block_security_statusM(hnd, 0, 253, st), ZEL_OK);
    EXPECT_EQ(st[0], 0x01);
    EXPECT_EQ(st[252], 0x00);
    EXPECT_EQ(st[253], 0x01);
    EXPECT_EQ(st[254], 0xEE);
}

// A card that is not a vicinity tag, and an empty field.
TEST_F(CardSimTest, Iso15693CommandsNeedAVicinityTag)
{
    start(
        R"({"cards": [{"uid": "04A22B1A5C6480", "sak": "00", "atqa": "0044", "type": "ORB_NTAG_215", "model": "ntag215"}]})");
    Info i;
    EXPECT_EQ(iso15693_get_system_information_no_authM(hnd, &i.flags, i.uid, &i.dsfid, &i.afi, &i.size, &i.ic),
              ZEL_UNSUPPORTED_CARD_TYPE);
    const uint8_t uid[7] = {0x04, 0xA2, 0x2B, 0x1A, 0x5C, 0x64, 0x80};
    ASSERT_EQ(zsim_card_remove(sim, uid, 7), 0);
    EXPECT_EQ(em4237_enable_RID_M(hnd, 0), ZEL_NO_CARD);
}

} // namespace
