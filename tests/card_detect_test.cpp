// Card detection on a scripted link: UID rules, the list and selection replies, the data tables.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "card/card_tables.h"
#include "script_link.h"
#include "tandro.h"

using namespace zeltest;

namespace {

// A GetCardIdEx reply with the UID in a 10-byte EXT.
Bytes card_id_reply(uint8_t sak, uint8_t len, const Bytes &uid)
{
    Bytes d = uid;
    d.resize(10, 0);
    return cat(rsp(0x2C, 11, sak, len), ext(d));
}

TEST(CardIdEx, LengthsAndTheReversalList)
{
    struct Case {
        const char *what;
        uint8_t len;
        Bytes uid;
        ZEL_STATUS want;
        Bytes seen;
    } cases[] = {
        {"on the list", 4, {0xF0, 0xAA, 0x94, 0x1E}, ZEL_OK, {0x1E, 0x94, 0xAA, 0xF0}},
        {"the list's last value", 4, {0x11, 0x60, 0x17, 0xDD}, ZEL_OK, {0xDD, 0x17, 0x60, 0x11}},
        {"not on the list", 4, {0xF1, 0xAA, 0x94, 0x1E}, ZEL_OK, {0xF1, 0xAA, 0x94, 0x1E}},
        {"seven bytes are never reversed",
         7,
         {0xF0, 0xAA, 0x94, 0x1E, 1, 2, 3},
         ZEL_OK,
         {0xF0, 0xAA, 0x94, 0x1E, 1, 2, 3}},
        {"ten bytes fit", 10, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, ZEL_OK, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}},
        {"eleven do not", 11, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, ZEL_BUFFER_OVERFLOW, {}},
    };
    for (const Case &c : cases) {
        ScriptLink link;
        link.reply(card_id_reply(0x88, c.len, c.uid));
        uint8_t sak = 0x11, uid[12], len = 0x22;
        std::memset(uid, 0x5A, sizeof uid);
        ASSERT_EQ(GetCardIdExM(&link.record, &sak, uid, &len), c.want) << c.what;
        EXPECT_EQ(link.writes[0], cmd(0x2C)) << c.what;
        if (c.want != ZEL_OK) {
            EXPECT_EQ(sak, 0x11) << c.what;
            EXPECT_EQ(len, 0x22) << c.what;
            EXPECT_EQ(uid[0], 0x5A) << c.what;
            continue;
        }
        EXPECT_EQ(sak, 0x88);
        EXPECT_EQ(len, c.len);
        Bytes padded = c.seen;
        padded.resize(10, 0);
        EXPECT_EQ(Bytes(uid, uid + 10), padded) << c.what;
        EXPECT_EQ(uid[10], 0x5A) << c.what << ": ten bytes cleared, no more";
    }
    // A reply that announces more UID than it carries, and one without EXT.
    ScriptLink link;
    link.reply(cat(rsp(0x7C, 5, 0, 7), ext({1, 2, 3, 4})));
    uint8_t sak, uid[10], len;
    EXPECT_EQ(GetLastCardIdExM(&link.record, &sak, uid, &len), ZEL_COMMUNICATION_ERROR);
    EXPECT_EQ(link.writes[0], cmd(0x7C));
    ScriptLink empty;
    empty.reply(rsp(0x2C, 0, 0, 4));
    EXPECT_EQ(GetCardIdExM(&empty.record, &sak, uid, &len), ZEL_COMMUNICATION_ERROR);
}

TEST(CardInfo, ExtendedRepliesAndTheirLimits)
{
    ScriptLink link;
    link.reply(cat(rsp(0xEB, 5), ext({9, 8, 7, 6})));
    uint8_t info[8] = {};
    uint32_t len = 4;
    EXPECT_EQ(GetCardInfoM(&link.record, info, &len), ZEL_BUFFER_OVERFLOW);
    EXPECT_EQ(len, 4u);
    EXPECT_EQ(info[0], 0);
    EXPECT_EQ(link.writes[0], cmd(0xEB, 0, 1));
    link.reply(cat(rsp(0xEB, 5), ext({9, 8, 7, 6})));
    len = 8;
    ASSERT_EQ(GetCardInfoM(&link.record, info, &len), ZEL_OK);
    EXPECT_EQ(Bytes(info, info + len), ext({9, 8, 7, 6})) << "the checksum byte comes too";

    ScriptLink v;
    v.reply(cat(rsp(0xB0, 8), ext({0, 4, 4, 2, 1, 0, 0x11})));
    uint8_t version[8];
    std::memset(version, 0x77, sizeof version);
    EXPECT_EQ(GetNfcT2TVersionM(&v.record, version), ZEL_BUFFER_OVERFLOW);
    EXPECT_EQ(Bytes(version, version + 8), Bytes(8, 0));

    ScriptLink a;
    a.reply(cat(rsp(0x13, 5, 0x28), ext({0x44, 0x03, 0, 0})));
    uint16_t atqa = 0;
    uint8_t sak = 0;
    ASSERT_EQ(GetAtqaSakM(&a.record, &atqa, &sak), ZEL_OK);
    EXPECT_EQ(a.writes[0], cmd(0x13, 0, 1));
    EXPECT_EQ(atqa, 0x0344);
    EXPECT_EQ(sak, 0x28);
}

TEST(CardSize, TheTableAndItsHoles)
{
    struct Case {
        uint8_t type;
        ZEL_STATUS want;
        uint32_t lin, raw;
    } cases[] = {
        {ORB_MIFARE_ULTRALIGHT, ZEL_OK, 48, 64},
        {ORB_NTAG_210U, ZEL_OK, 48, 60},
        {ORB_MIFARE_MINI, ZEL_OK, 224, 320},
        {ORB_MIFARE_PLUS_S_4K_SL1, ZEL_OK, 3440, 4096},
        {ORB_MIFARE_PLUS_EV1_2K_SL3, ZEL_OK, 1520, 1520},
        {ORB_MIFARE_DESFIRE_EV1_8K, ZEL_OK, 8192, 8192},
        {ORB_MIFARE_CLASSIC_2K, ZEL_UNSUPPORTED_CARD_TYPE, 0, 0},
        {ORB_MIFARE_PLUS_EV1_4K_SL1, ZEL_UNSUPPORTED_CARD_TYPE, 0, 0},
        {ORB_MIFARE_DESFIRE_EV2_2K, ZEL_UNSUPPORTED_CARD_TYPE, 0, 0},
        {ORB_NTAG_424_DNA, ZEL_UNSUPPORTED_CARD_TYPE, 0, 0},
    };
    for (const Case &c : cases) {
        ScriptLink link;
        link.reply(rsp(0x3C, 0, c.type));
        uint32_t lin = 99, raw = 99;
        EXPECT_EQ(GetCardSizeM(&link.record, &lin, &raw), c.want) << int(c.type);
        EXPECT_EQ(lin, c.lin) << int(c.type);
        EXPECT_EQ(raw, c.raw) << int(c.type);
    }
}

TEST(Manufacturers, RegisterNames)
{
    char name[ZEL_MANUFACTURER_NAME_MAX];
    getCardManufacturer(2, name);
    EXPECT_STREQ(name, "STMicroelectronics SA");
    getCardManufacturer(4, name);
    EXPECT_STREQ(name, "NXP Semiconductors");
    getCardManufacturer(126, name);
    EXPECT_STREQ(name, "Holtek");
    for (int code : {0, 127, 255}) {
        getCardManufacturer(static_cast<uint8_t>(code), name);
        EXPECT_STREQ(name, "Unknown manufacturer") << code;
    }
    size_t longest = 0;
    bool shenzen = false;
    for (int code = 1; code <= 126; ++code) {
        getCardManufacturer(static_cast<uint8_t>(code), name);
        EXPECT_GT(std::strlen(name), 1u) << code;
        longest = std::max(longest, std::strlen(name));
        shenzen = shenzen || std::string(name) == "Shenzen Nation RFID Technology Co Ltd";
    }
    EXPECT_EQ(longest, ZEL_MANUFACTURER_NAME_MAX - 1u);
    EXPECT_TRUE(shenzen);
    // The reversal list: ascending, with its known ends.
    ASSERT_GE(zel::uid_reversal_table_len, 4u);
    EXPECT_EQ(zel::uid_reversal_table[0], 0x1E94AAF0u);
    EXPECT_EQ(zel::uid_reversal_table[zel::uid_reversal_table_len - 1], 0xDD176011u);
    for (size_t i = 1; i < zel::uid_reversal_table_len; ++i)
        EXPECT_LT(zel::uid_reversal_table[i - 1], zel::uid_reversal_table[i]);
}

TEST(AntiCollision, ListSizeIsSharedAndChecked)
{
    ScriptLink link;
    ZEL_HANDLE h = &link.record;
    link.reply(rsp(0x37, 0, 2, 22));
    uint8_t count = 0, size = 0;
    ASSERT_EQ(EnumCardsM(h, &count, &size), ZEL_OK);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(size, 22);
    uint8_t list[32];
    EXPECT_EQ(ListCards(list, 21), ZEL_PARAMETERS_ERROR) << "the size is one for all handles";
    const Bytes records = [] {
        Bytes b(22);
        for (size_t i = 0; i < b.size(); ++i)
            b[i] = static_cast<uint8_t>(i * 3);
        return b;
    }();
    link.reply(cat(rsp(0x38, 23, 2, 22), ext(records)));
    ASSERT_EQ(ListCardsM(h, list, 22), ZEL_OK);
    EXPECT_EQ(Bytes(list, list + 22), records);
    // The reply must agree with the size in its PAR1 and in its EXT length.
    link.reply(cat(rsp(0x38, 23, 2, 21), ext(records)));
    EXPECT_EQ(ListCardsM(h, list, 22), ZEL_PARAMETERS_ERROR);
    link.reply(cat(rsp(0x38, 22, 2, 22), ext(Bytes(records.begin(), records.end() - 1))));
    EXPECT_EQ(ListCardsM(h, list, 22), ZEL_PARAMETERS_ERROR);
    // A bad checksum is told after the list was copied.
    Bytes bad = cat(rsp(0x38, 23, 2, 22), ext(Bytes(22, 0x99)));
    bad.back() ^= 1;
    link.reply(bad);
    EXPECT_EQ(ListCardsM(h, list, 22), ZEL_COMMUNICATION_ERROR);
    EXPECT_EQ(list[0], 0x99);
    // An enumeration with an EXT fails and forgets the size.
    link.reply(cat(rsp(0x37, 2, 1, 11), ext({0})));
    EXPECT_EQ(EnumCardsM(h, &count, &size), ZEL_COMMUNICATION_ERROR);
    // Size 0 passes the first test and asks the reader; a one-byte EXT never passes its checksum test.
    const size_t writes = link.writes.size();
    link.reply(cat(rsp(0x38, 1, 0, 0), ext({})));
    EXPECT_EQ(ListCardsM(h, list, 0), ZEL_COMMUNICATION_ERROR);
    EXPECT_EQ(link.writes.size(), writes + 1);
}

TEST(AntiCollision, SelectReadsItsOwnReply)
{
    const Bytes uid = {4, 5, 6, 7, 8, 9, 10};
    struct Case {
        const char *what;
        Bytes reply;
        ZEL_STATUS want;
    } cases[] = {
        {"selected", rsp(0x39, 0, 0x21), ZEL_OK},
        {"error frame", frame(0xEC, 127, 0xCE), 127},
        {"error trailer alone", frame(0xDE, 126, 0xCE), 126},
        {"other command", rsp(0x38, 0, 0x21), ZEL_COMMUNICATION_ERROR},
        {"wrong header", frame(0xAC, 0x39, 0xED), ZEL_COMMUNICATION_ERROR},
        {"bad checksum",
         [] {
             Bytes b = rsp(0x39, 0, 0x21);
             b[6] ^= 1;
             return b;
         }(),
         ZEL_COMMUNICATION_ERROR},
    };
    for (const Case &c : cases) {
        ScriptLink link;
        link.reply(ack(0x39, 8));
        link.reply(c.reply);
        uint8_t type = 0x55;
        EXPECT_EQ(SelectCardM(&link.record, uid.data(), 7, &type), c.want) << c.what;
        EXPECT_EQ(type, c.want == ZEL_OK ? 0x21 : 0x55) << c.what;
        EXPECT_EQ(link.writes[0], cmd(0x39, 8, 7)) << c.what;
        EXPECT_EQ(link.writes[1], ext(uid)) << c.what;
    }
    ScriptLink plain;
    plain.reply(cat(rsp(0x2D, 2), ext({0})));
    EXPECT_EQ(EnableAntiCollisionM(&plain.record), ZEL_COMMUNICATION_ERROR) << "no EXT expected";
    plain.reply(rsp(0x3B, 0, 1, 0));
    uint8_t on = 0, sel = 9;
    ASSERT_EQ(GetAntiCollisionStatusM(&plain.record, &on, &sel), ZEL_OK);
    EXPECT_EQ(on, 1);
    EXPECT_EQ(sel, 0);
}

TEST(T2TVersion, SpreadOverFields)
{
    const uint8_t wire[8] = {0x00, 0x04, 0x04, 0x02, 0x01, 0x00, 0x11, 0x03};
    t2t_version_t v{};
    ASSERT_EQ(NfcT2TSafeConvertVersion(&v, wire), ZEL_OK);
    EXPECT_EQ(v.header, 0);
    EXPECT_EQ(v.vendor_id, 4);
    EXPECT_EQ(v.product_type, 4);
    EXPECT_EQ(v.product_subtype, 2);
    EXPECT_EQ(v.major_product_version, 1);
    EXPECT_EQ(v.minor_product_version, 0);
    EXPECT_EQ(v.storage_size, 0x11);
    EXPECT_EQ(v.protocol_type, 3);
    EXPECT_EQ(NfcT2TSafeConvertVersion(nullptr, wire), ZEL_PARAMETERS_ERROR);
}

} // namespace
