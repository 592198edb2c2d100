// The 0xB5 family on a scripted link: the frame and EXT of every form byte for byte, the acknowledge that
// leaves no room for the checksum, the block security status copy and the system information decoding.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <vector>

#include "card/iso15693_parse.h"
#include "script_link.h"
#include "tandro.h"

using namespace zeltest;

namespace {

// Every frame here is of command 0xB5.
constexpr uint8_t B5 = 0xB5;

const uint8_t PW_A[4] = {0x11, 0x22, 0x33, 0x44};
const uint8_t PW_B[4] = {0xA1, 0xB2, 0xC3, 0xD4};

struct Outputs {
    uint8_t flags = 0xEE, uid[8], dsfid = 0xEE, afi = 0xEE, ic = 0xEE;
    uint16_t size = 0xEEEE;
    Outputs() { std::memset(uid, 0xEE, sizeof uid); }
};

// Each operation's frame and EXT data (its checksum is added by ext()).
TEST(Iso15693Frames, EveryFormOnTheWire)
{
    Outputs o;
    uint8_t sec[256];
    struct Case {
        const char *what;
        std::function<ZEL_STATUS(ZEL_HANDLE)> call;
        uint8_t p0, p1;
        Bytes data;
    } cases[] = {
        {"write password by index",
         [](ZEL_HANDLE h) { return icode_write_passwordM(h, 0x02, 3, 5); },
         1,
         1,
         {0x02, 0, 0, 0, 0, 3, 0, 0, 0, 0, 5}},
        {"write password provided",
         [](ZEL_HANDLE h) { return icode_write_password_PK_M(h, 0x10, PW_A, PW_B); },
         1,
         0x61,
         {0x10, 0x11, 0x22, 0x33, 0x44, 0, 0xA1, 0xB2, 0xC3, 0xD4, 0}},
        {"protect page, all true",
         [](ZEL_HANDLE h) { return icode_protect_pageM(h, 4, 6, 0x20, 1, 7, 255, 2); },
         2,
         1,
         {0, 0, 0, 0, 4, 0, 0, 0, 0, 6, 0x20, 0x33}},
        {"protect page provided, low read and high write",
         [](ZEL_HANDLE h) { return icode_protect_page_PK_M(h, PW_A, PW_B, 9, 1, 0, 0, 1); },
         2,
         0x61,
         {0x11, 0x22, 0x33, 0x44, 0, 0xA1, 0xB2, 0xC3, 0xD4, 0, 9, 0x21}},
        {"lock block by index",
         [](ZEL_HANDLE h) { return icode_lock_blockM(h, 1, 2, 77); },
         3,
         1,
         {0, 0, 0, 0, 1, 0, 0, 0, 0, 2, 77}},
        {"lock block provided",
         [](ZEL_HANDLE h) { return icode_lock_block_PK_M(h, PW_B, PW_A, 3); },
         3,
         0x61,
         {0xA1, 0xB2, 0xC3, 0xD4, 0, 0x11, 0x22, 0x33, 0x44, 0, 3}},
        {"lock block without password",
         [](ZEL_HANDLE h) { return iso15693_lock_block_no_authM(h, 200); },
         3,
         0,
         {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 200}},
        {"security status",
         [&](ZEL_HANDLE h) { return iso15693_get_multiply_block_security_statusM(h, 5, 3, sec); },
         4,
         0,
         {5, 3}},
        {"EM4237 security status",
         [&](ZEL_HANDLE h) { return em4237_get_multiply_block_security_statusM(h, 0, 255, sec); },
         8,
         0,
         {0, 255}},
        {"EM4237 protect page by index",
         [](ZEL_HANDLE h) { return em4237_protect_pageM(h, 9, 2, 0xC5); },
         6,
         1,
         {0, 0, 0, 0, 9, 2, 0xC5}},
        {"EM4237 protect page provided",
         [](ZEL_HANDLE h) { return em4237_protect_page_PK_M(h, PW_A, 1, 3); },
         6,
         0x61,
         {0x11, 0x22, 0x33, 0x44, 0, 1, 3}},
        {"EM4237 random id by index", [](ZEL_HANDLE h) { return em4237_enable_RID_M(h, 31); }, 7, 1, {0, 0, 0, 0, 31}},
        {"EM4237 random id provided",
         [](ZEL_HANDLE h) { return em4237_enable_RID_PK_M(h, PW_B); },
         7,
         0x61,
         {0xA1, 0xB2, 0xC3, 0xD4, 0}},
    };
    for (const Case &c : cases) {
        ScriptLink link;
        const uint8_t len = static_cast<uint8_t>(c.data.size() + 1);
        link.reply(ack(B5, len));
        link.reply(rsp(B5, 0, c.p0));
        EXPECT_EQ(c.call(&link.record), ZEL_OK) << c.what;
        ASSERT_EQ(link.writes.size(), 2u) << c.what;
        EXPECT_EQ(link.writes[0], cmd(B5, len, c.p0, c.p1)) << c.what;
        EXPECT_EQ(link.writes[1], ext(c.data)) << c.what;
    }
    // The three system information forms: PAR1 1 with the index, 0x61 with the password, 0x60 with nothing.
    const Bytes info = ext({0x00, 1, 2, 3, 4, 5, 6, 7, 8});
    struct InfoCase {
        std::function<ZEL_STATUS(ZEL_HANDLE)> call;
        uint8_t p1;
        Bytes data;
    } infos[] = {
        {[&](ZEL_HANDLE h) {
             return iso15693_get_system_informationM(h, 12, &o.flags, o.uid, &o.dsfid, &o.afi, &o.size, &o.ic);
         },
         1,
         {0, 0, 0, 0, 12}},
        {[&](ZEL_HANDLE h) {
             return iso15693_get_system_information_PK_M(h, PW_A, &o.flags, o.uid, &o.dsfid, &o.afi, &o.size, &o.ic);
         },
         0x61,
         {0x11, 0x22, 0x33, 0x44, 0}},
        {[&](ZEL_HANDLE h) {
             return iso15693_get_system_information_no_authM(h, &o.flags, o.uid, &o.dsfid, &o.afi, &o.size, &o.ic);
         },
         0x60,
         {0, 0, 0, 0, 0}},
    };
    for (const InfoCase &c : infos) {
        ScriptLink link;
        link.reply(ack(B5, 6));
        link.reply(cat(rsp(B5, static_cast<uint8_t>(info.size()), 5), info));
        EXPECT_EQ(c.call(&link.record), ZEL_OK);
        ASSERT_EQ(link.writes.size(), 2u);
        EXPECT_EQ(link.writes[0], cmd(B5, 6, 5, c.p1));
        EXPECT_EQ(link.writes[1], ext(c.data));
    }
}

// The EXT checksum goes where the acknowledge's length puts it; an acknowledge of length 0 leaves no room for
// it, and reader errors pass through with their codes.
TEST(Iso15693Frames, AcknowledgeAndErrors)
{
    {
        ScriptLink link;
        link.reply(ack(B5, 0));
        EXPECT_EQ(em4237_enable_RID_M(&link.record, 1), ZEL_COMMUNICATION_ERROR);
        EXPECT_EQ(link.writes.size(), 1u); // no EXT went out
    }
    {
        uint8_t out[256];
        ScriptLink link;
        link.reply(ack(B5, 0));
        EXPECT_EQ(iso15693_get_multiply_block_security_statusM(&link.record, 0, 1, out), ZEL_COMMUNICATION_ERROR);
    }
    {
        ScriptLink link;
        link.reply(err(14));
        EXPECT_EQ(icode_lock_blockM(&link.record, 0, 1, 2), ZEL_AUTH_ERROR);
    }
    {
        ScriptLink link;
        link.reply(ack(B5, 12));
        link.reply(err(17));
        EXPECT_EQ(icode_lock_blockM(&link.record, 0, 1, 2), ZEL_UNSUPPORTED_CARD_TYPE);
    }
}

// The status bytes come out as the reader sent them, no more; a reply without EXT writes nothing.
TEST(Iso15693Frames, SecurityStatusCopiesWhatCame)
{
    uint8_t out[256];
    {
        ScriptLink link;
        const Bytes st = ext({1, 0, 0, 1});
        link.reply(ack(B5, 3));
        link.reply(cat(rsp(B5, static_cast<uint8_t>(st.size()), 4), st));
        std::memset(out, 0xEE, sizeof out);
        ASSERT_EQ(iso15693_get_multiply_block_security_statusM(&link.record, 7, 3, out), ZEL_OK);
        EXPECT_EQ(Bytes(out, out + 5), (Bytes{1, 0, 0, 1, 0xEE}));
    }
    {
        ScriptLink link;
        link.reply(ack(B5, 3));
        link.reply(rsp(B5, 0, 4));
        std::memset(out, 0xEE, sizeof out);
        ASSERT_EQ(em4237_get_multiply_block_security_statusM(&link.record, 7, 3, out), ZEL_OK);
        for (uint8_t b : out)
            ASSERT_EQ(b, 0xEE);
    }
    {
        ScriptLink link;
        Bytes st = ext({1, 1});
        st.back() ^= 0x40;
        link.reply(ack(B5, 3));
        link.reply(cat(rsp(B5, static_cast<uint8_t>(st.size()), 4), st));
        EXPECT_EQ(iso15693_get_multiply_block_security_statusM(&link.record, 0, 1, out), ZEL_COMMUNICATION_ERROR);
    }
}

// Information flags decide which fields follow the UID, at a running position.
TEST(Iso15693SystemInfo, FlagsDriveTheFields)
{
    const Bytes uid_air = {0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x04, 0xE0};
    const Bytes uid_out = {0xE0, 0x04, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};
    auto reply = [&](uint8_t flags, const Bytes &fields) {
        Bytes d{flags};
        d.insert(d.end(), uid_air.begin(), uid_air.end());
        d.insert(d.end(), fields.begin(), fields.end());
        return d;
    };
    auto run = [&](const Bytes &data, Outputs &o) {
        ScriptLink link;
        const Bytes e = ext(data);
        link.reply(ack(B5, 6));
        link.reply(cat(rsp(B5, static_cast<uint8_t>(e.size()), 5), e));
        return iso15693_get_system_information_no_authM(&link.record, &o.flags, o.uid, &o.dsfid, &o.afi, &o.size,
                                                        &o.ic);
    };
    {
        Outputs o;
        ASSERT_EQ(run(reply(0x0F, {0x3C, 0x5A, 0x4F, 0x03, 0x01}), o), ZEL_OK);
        EXPECT_EQ(o.flags, 0x0F);
        EXPECT_EQ(Bytes(o.uid, o.uid + 8), uid_out);
        EXPECT_EQ(o.dsfid, 0x3C);
        EXPECT_EQ(o.afi, 0x5A);
        EXPECT_EQ(o.size, 80 * 4);
        EXPECT_EQ(o.ic, 0x01);
    }
    {
        Outputs o;
        ASSERT_EQ(run(reply(0x00, {}), o), ZEL_OK);
        EXPECT_EQ(o.flags, 0x00);
        EXPECT_EQ(Bytes(o.uid, o.uid + 8), uid_out);
        EXPECT_EQ(o.dsfid, 0xEE);
        EXPECT_EQ(o.afi, 0xEE);
        EXPECT_EQ(o.size, 0xEEEE);
        EXPECT_EQ(o.ic, 0xEE);
    }
    {
        // Memory size alone, right behind the UID; the block size takes the low five bits only.
        Outputs o;
        ASSERT_EQ(run(reply(0x04, {0x1B, 0xE3}), o), ZEL_OK);
        EXPECT_EQ(o.size, 28 * 4);
        EXPECT_EQ(o.dsfid, 0xEE);
    }
    {
        // AFI and IC reference: the IC reference stands right behind the AFI.
        Outputs o;
        ASSERT_EQ(run(reply(0x0A, {0x07, 0x99}), o), ZEL_OK);
        EXPECT_EQ(o.afi, 0x07);
        EXPECT_EQ(o.ic, 0x99);
        EXPECT_EQ(o.size, 0xEEEE);
    }
    {
        // Flags that announce more than came, a reply shorter than the UID, a reply without EXT.
        Outputs o;
        EXPECT_EQ(run(reply(0x0F, {0x3C, 0x5A, 0x4F}), o), ZEL_COMMUNICATION_ERROR);
        EXPECT_EQ(run({0x00, 1, 2, 3}, o), ZEL_COMMUNICATION_ERROR);
        EXPECT_EQ(o.flags, 0xEE);
        ScriptLink link;
        link.reply(ack(B5, 6));
        link.reply(rsp(B5, 0, 5));
        EXPECT_EQ(
            iso15693_get_system_information_no_authM(&link.record, &o.flags, o.uid, &o.dsfid, &o.afi, &o.size, &o.ic),
            ZEL_COMMUNICATION_ERROR);
    }
}

} // namespace
