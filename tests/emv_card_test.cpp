// The payment card dialogue against a scripted card behind the family's test seam: the exact commands, the
// 6C and 62 82 rules, and cards that answer with too much, too long or forever.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "emv/emv_internal.h"
#include "emv_test_support.h"
#include "tandro.h"

namespace {

using Bytes = std::vector<uint8_t>;

using emvtest::hex;

struct Command {
    uint8_t cla, ins, p1, p2;
    Bytes data;
    uint32_t le;
};

struct Answer {
    Bytes data;
    uint16_t sw = 0x9000; // SW1 first, as written
    ZEL_STATUS st = ZEL_OK;
};

// A card played by a function of the command; every command is kept.
class Card {
public:
    explicit Card(std::function<Answer(const Command &)> fn) : fn_(std::move(fn))
    {
        zel::emv::set_transceive_hook(&Card::hook, this);
    }
    ~Card() { zel::emv::set_transceive_hook(nullptr, nullptr); }
    Card(const Card &) = delete;
    Card &operator=(const Card &) = delete;
    std::vector<Command> sent;

private:
    static ZEL_STATUS hook(void *ctx, uint8_t cla, uint8_t ins, uint8_t p1, uint8_t p2, const uint8_t *data,
                           uint32_t nc, uint8_t *out, uint32_t *ne, uint16_t *sw)
    {
        auto *self = static_cast<Card *>(ctx);
        Command c{cla, ins, p1, p2, nc ? Bytes(data, data + nc) : Bytes(), *ne};
        self->sent.push_back(c);
        const Answer a = self->fn_(c);
        if (a.st != ZEL_OK)
            return a.st;
        if (a.data.size() > *ne)
            return ZEL_BUFFER_SIZE_EXCEEDED;
        std::copy(a.data.begin(), a.data.end(), out);
        *ne = static_cast<uint32_t>(a.data.size());
        *sw = static_cast<uint16_t>((a.sw >> 8) | (a.sw & 0xFF) << 8); // SW1 in the low byte
        return ZEL_OK;
    }
    std::function<Answer(const Command &)> fn_;
};

// A card with a proximity directory, one application and records by the given rule.
struct Script {
    Bytes fci = hex("6F 0F 84 07 A0000000031010 A5 04 50 02 4142");
    Bytes gpo = hex("77 0A 82 02 1980 94 04 10010100");
    Bytes record = hex("70 0A 5A 08 4000123456789010");
    Answer operator()(const Command &c) const
    {
        if (c.ins == 0xA4 && c.data == Bytes{'2', 'P', 'A', 'Y', '.', 'S', 'Y', 'S', '.', 'D', 'D', 'F', '0', '1'})
            return {hex("6F 1E 84 0E 325041592E5359532E4444463031 A5 0C BF0C 09 61 07 4F 05 A000000003"), 0x9000};
        if (c.ins == 0xA4 && c.data == hex("A000000003"))
            return {fci, 0x9000};
        if (c.ins == 0xA8)
            return {gpo, 0x9000};
        if (c.ins == 0xB2 && c.p2 == (2 << 3 | 4) && c.p1 == 1)
            return {record, 0x9000};
        return {{}, 0x6A83};
    }
};

TEST(EmvCard, ReadRecordRetriesOnceWithTheLengthTheCardNames)
{
    Card card([](const Command &c) -> Answer {
        if (c.le != 0x1C)
            return {{}, 0x6C1C};
        return {Bytes(0x1C, 0x70), 0x9000};
    });
    uint8_t resp[EMV_RECORD_SIZE];
    uint32_t n = 0;
    uint8_t sw[2] = {};
    ASSERT_EQ(emvReadRecord(resp, &n, 2, 1, sw), ZEL_OK);
    ASSERT_EQ(card.sent.size(), 2u);
    EXPECT_EQ(card.sent[0].le, 256u);
    EXPECT_EQ(card.sent[1].le, 0x1Cu);
    for (const auto &c : card.sent) {
        EXPECT_EQ(c.cla, 0x00);
        EXPECT_EQ(c.ins, 0xB2);
        EXPECT_EQ(c.p1, 1);
        EXPECT_EQ(c.p2, 0x14);
        EXPECT_TRUE(c.data.empty());
    }
    EXPECT_EQ(n, 0x1Cu);
    EXPECT_EQ(sw[0], 0x90);
    EXPECT_EQ(sw[1], 0x00);
}

TEST(EmvCard, ReadRecordStatusWords)
{
    const struct {
        Answer answer;
        ZEL_STATUS want;
        uint8_t sw1, sw2;
        size_t commands;
    } cases[] = {
        {{hex("7001AA"), 0x6282}, ZEL_OK, 0x90, 0x00, 1},      // a warning counts as success
        {{{}, 0x6C10}, EMV_ERR_READING_RECORD, 0x6C, 0x10, 2}, // a card naming lengths forever: one retry
        {{{}, 0x6A83}, EMV_ERR_READING_RECORD, 0x6A, 0x83, 1}, // no such record
        {{{}, 0x9000, ZEL_COMMUNICATION_ERROR}, EMV_ERR_IN_CARD_READER, 0, 0, 1},
        {{Bytes(300, 0x70), 0x9000}, EMV_ERR_IN_CARD_READER, 0, 0, 1}, // more than Le: refused below
    };
    for (const auto &c : cases) {
        Card card([&](const Command &) { return c.answer; });
        uint8_t resp[EMV_RECORD_SIZE];
        uint32_t n = 0;
        uint8_t sw[2] = {};
        EXPECT_EQ(emvReadRecord(resp, &n, 1, 1, sw), c.want);
        EXPECT_EQ(card.sent.size(), c.commands);
        if (c.want != EMV_ERR_IN_CARD_READER) {
            EXPECT_EQ(sw[0], c.sw1);
            EXPECT_EQ(sw[1], c.sw2);
        }
    }
}

TEST(EmvCard, AccountNumberDialogue)
{
    Script s;
    Card card(std::ref(s));
    char pan[EMV_PAN_TEXT_SIZE];
    ASSERT_EQ(EMV_GetPAN("2PAY.SYS.DDF01", pan), ZEL_OK);
    EXPECT_STREQ(pan, "4000123456789010");
    // SELECT directory, SELECT application (by the AID of the directory), GPO with 83 00, one record.
    ASSERT_EQ(card.sent.size(), 4u);
    EXPECT_EQ(card.sent[0].cla, 0x00);
    EXPECT_EQ(card.sent[0].p1, 0x04);
    EXPECT_EQ(card.sent[1].data, hex("A000000003"));
    EXPECT_EQ(card.sent[2].cla, 0x80);
    EXPECT_EQ(card.sent[2].ins, 0xA8);
    EXPECT_EQ(card.sent[2].data, hex("8300"));
    EXPECT_EQ(card.sent[2].le, 256u);
    EXPECT_EQ(card.sent[3].p2, 0x14);
}

TEST(EmvCard, AccountNumbersThatAreRefused)
{
    const struct {
        const char *record;
        const char *gpo;
        ZEL_STATUS want;
    } cases[] = {
        {"70 0D 5A 0B 4000123456789010123456", "77 0A 82 02 1980 94 04 10010100", EMV_ERR_TAG_WRONG_SIZE},
        {"70 0A 5A 08 4000123456789010", "80 06 1980 10010100", EMV_ERR_AFL_NOT_FOUND}, // format 1
        {"70 0A 5A 08 4000123456789010", "77 09 82 02 1980 94 03 100101", EMV_ERR_AFL_NOT_FOUND},
        {"5A 08 4000123456789010", "77 0A 82 02 1980 94 04 10010100", EMV_ERR_AFL_NOT_FOUND}, // not in a template
    };
    for (const auto &c : cases) {
        Script s;
        s.record = hex(c.record);
        s.gpo = hex(c.gpo);
        Card card(std::ref(s));
        char pan[EMV_PAN_TEXT_SIZE + 16];
        std::memset(pan, 0, sizeof pan);
        EXPECT_EQ(EMV_GetPAN("2PAY.SYS.DDF01", pan), c.want) << c.record << " " << c.gpo;
        EXPECT_EQ(pan[0], 0) << c.record;
    }
}

TEST(EmvCard, HostileCardsEndInBoundedTime)
{
    // A directory whose every record answers: the loop ends at 255 records.
    Card endless([](const Command &c) -> Answer {
        if (c.ins == 0xA4 && c.data.size() == 14)
            return {hex("6F 15 84 0E 325041592E5359532E4444463031 A5 03 88 01 01"), 0x9000};
        if (c.ins == 0xB2)
            return {hex("70 03 9F36 00"), 0x9000};
        return {{}, 0x6A82};
    });
    char pan[EMV_PAN_TEXT_SIZE];
    EXPECT_EQ(EMV_GetPAN("2PAY.SYS.DDF01", pan), EMV_ERR_AFL_NOT_FOUND);
    size_t reads = 0;
    for (const auto &c : endless.sent)
        reads += c.ins == 0xB2;
    EXPECT_EQ(reads, EMV_MAX_RECORDS);
}

TEST(EmvCard, LastTransactionAsksRecordOneEachTurn)
{
    const Bytes entry = hex("261120 143005 000000012345 0978 0276 0042");
    Card card([&](const Command &c) -> Answer {
        if (c.ins == 0xA4 && c.data.size() == 14)
            return {hex("6F 1E 84 0E 325041592E5359532E4444463031 A5 0C BF0C 09 61 07 4F 05 A000000003"), 0x9000};
        if (c.ins == 0xA4)
            return {hex("6F 0F 84 05 A000000003 A5 06 BF0C 03 9F4D 02 0B 04")}; // one byte short: refused
        if (c.ins == 0xCA)
            return {hex("9F4F 11 9A03 9F2103 9F0206 5F2A02 9F1A02 9F3602")};
        if (c.ins == 0xB2 && c.p2 == (11 << 3 | 4))
            return {entry};
        return {{}, 0x6A83};
    });
    char text[EMV_LOG_TEXT_SIZE];
    // The FCI's 9F4D runs past its template: the log entry is not found.
    EXPECT_EQ(EMV_GetLastTransaction("2PAY.SYS.DDF01", text), EMV_ERR_TAG_NOT_FOUND);

    Card good([&](const Command &c) -> Answer {
        if (c.ins == 0xA4 && c.data.size() == 14)
            return {hex("6F 1E 84 0E 325041592E5359532E4444463031 A5 0C BF0C 09 61 07 4F 05 A000000003"), 0x9000};
        if (c.ins == 0xA4)
            return {hex("6F 12 84 05 A000000003 A5 09 BF0C 06 9F4D 03 0B0400")}; // 3 bytes: skipped
        return {{}, 0x6A83};
    });
    EXPECT_EQ(EMV_GetLastTransaction("2PAY.SYS.DDF01", text), EMV_ERR_TAG_NOT_FOUND);

    Card log([&](const Command &c) -> Answer {
        if (c.ins == 0xA4 && c.data.size() == 14)
            return {hex("6F 1E 84 0E 325041592E5359532E4444463031 A5 0C BF0C 09 61 07 4F 05 A000000003"), 0x9000};
        if (c.ins == 0xA4)
            return {hex("6F 11 84 05 A000000003 A5 08 BF0C 05 9F4D 02 0B04")};
        if (c.ins == 0xCA)
            return {hex("9F4F 11 9A03 9F2103 9F0206 5F2A02 9F1A02 9F3602")};
        if (c.ins == 0xB2 && c.p2 == (11 << 3 | 4))
            return {entry};
        return {{}, 0x6A83};
    });
    ASSERT_EQ(EMV_GetLastTransaction("2PAY.SYS.DDF01", text), ZEL_OK);
    EXPECT_STREQ(text, "ATCounter: 66\nDate: 20.11.2026\nTime: 14:30:05\nAmount:        123.45\nCurrency: EUR\n"
                       "Terminal country: DE");
    std::vector<uint8_t> record_numbers;
    for (const auto &c : log.sent) {
        if (c.ins == 0xCA) {
            EXPECT_EQ(c.cla, 0x80);
            EXPECT_EQ(c.p1, 0x9F);
            EXPECT_EQ(c.p2, 0x4F);
        }
        if (c.ins == 0xB2)
            record_numbers.push_back(c.p1);
    }
    EXPECT_EQ(record_numbers, (std::vector<uint8_t>{1, 1, 1, 1}));
}

} // namespace
