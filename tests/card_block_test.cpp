// Memory card operations on a scripted link: the frames of each key form and shape byte for byte, the
// chunking of linear transfers, the soft error 115, the multi-block stream and hostile replies.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "card/memory_frames.h"
#include "script_link.h"
#include "tandro.h"

using namespace zeltest;

namespace {

Bytes seq(uint8_t from, size_t n)
{
    Bytes b(n);
    for (size_t i = 0; i < n; ++i)
        b[i] = static_cast<uint8_t>(from + i);
    return b;
}

const Bytes KEY6 = seq(0xA0, 6);
const Bytes KEY16 = seq(0xB0, 16);

// What one block read sends for each key form and mode: PAR0, PAR1 and the key bytes behind the head.
TEST(BlockFrames, KeyFormsOnTheWire)
{
    struct Case {
        const char *what;
        ZEL_STATUS (*call)(ZEL_HANDLE, uint8_t *);
        uint8_t cmd, p0, p1;
        Bytes key;
        uint8_t reply_len;
    } cases[] = {
        {"reader key, AES mode 0x80 goes as 2",
         [](ZEL_HANDLE h, uint8_t *d) { return BlockReadM(h, d, 9, 0x80, 3); },
         0x16,
         0x02,
         0x03,
         {},
         17},
        {"provided key, 0x80 takes 16 bytes",
         [](ZEL_HANDLE h, uint8_t *d) { return BlockRead_PKM(h, d, 9, 0x80, KEY16.data()); }, 0x16, 0x80, 0x00, KEY16,
         17},
        {"provided key, 0x02 takes 6 bytes",
         [](ZEL_HANDLE h, uint8_t *d) { return BlockRead_PKM(h, d, 9, 0x02, KEY6.data()); }, 0x16, 0x02, 0x00, KEY6,
         17},
        {"AKM1 of 0x81 keeps the AES code",
         [](ZEL_HANDLE h, uint8_t *d) { return BlockRead_AKM1M(h, d, 9, 0x81); },
         0x16,
         0x23,
         0x00,
         {},
         17},
        {"AKM2 of 0x61",
         [](ZEL_HANDLE h, uint8_t *d) { return BlockRead_AKM2M(h, d, 9, 0x61); },
         0x16,
         0x41,
         0x00,
         {},
         17},
        {"SAM key of 0x60",
         [](ZEL_HANDLE h, uint8_t *d) { return BlockReadSamKeyM(h, d, 9, 0x60, 4); },
         0x16,
         0x10,
         0x04,
         {},
         17},
        {"SAM key of 0x80",
         [](ZEL_HANDLE h, uint8_t *d) { return BlockReadSamKeyM(h, d, 9, 0x80, 4); },
         0x16,
         0x11,
         0x04,
         {},
         17},
        {"value read AKM1 of 0x81 drops the AES code",
         [](ZEL_HANDLE h, uint8_t *d) {
             uint8_t a;
             return ValueBlockRead_AKM1M(h, reinterpret_cast<int32_t *>(d), &a, 9, 0x81);
         },
         0x1D,
         0x21,
         0x00,
         {},
         5},
        {"value read AKM2 of 0x80",
         [](ZEL_HANDLE h, uint8_t *d) {
             uint8_t a;
             return ValueBlockRead_AKM2M(h, reinterpret_cast<int32_t *>(d), &a, 9, 0x80);
         },
         0x1D,
         0x40,
         0x00,
         {},
         5},
    };
    for (const Case &c : cases) {
        ScriptLink link;
        const Bytes data = seq(0x30, c.reply_len - 1u);
        link.reply(ack(c.cmd, static_cast<uint8_t>(5 + c.key.size())));
        link.reply(cat(rsp(c.cmd, c.reply_len, 0x09), ext(data)));
        uint8_t out[16] = {};
        ASSERT_EQ(c.call(&link.record, out), ZEL_OK) << c.what;
        ASSERT_EQ(link.writes.size(), 2u) << c.what;
        EXPECT_EQ(link.writes[0], cmd(c.cmd, static_cast<uint8_t>(5 + c.key.size()), c.p0, c.p1)) << c.what;
        EXPECT_EQ(link.writes[1], ext(cat({9, 0, 0, 0}, c.key))) << c.what;
        EXPECT_EQ(Bytes(out, out + data.size()), data) << c.what;
    }
}

TEST(BlockFrames, AuthModeRulesBeforeAnythingIsSent)
{
    ScriptLink link;
    uint8_t d[16];
    EXPECT_EQ(BlockReadM(&link.record, d, 1, 0x62, 0), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(BlockRead_PKM(&link.record, d, 1, 0x60, nullptr), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(ValueBlockIncrementSamKeyM(&link.record, 1, 1, 0x55, 0), ZEL_PARAMETERS_ERROR);
    EXPECT_TRUE(link.sent.empty());
    // The one member without the test: any mode, 0x60 as 0x10 and the rest as 0x11.
    link.reply(ack(0x22, 9));
    link.reply(rsp(0x22));
    ASSERT_EQ(ValueBlockDecrementSamKeyM(&link.record, -2, 6, 0x55, 9), ZEL_OK);
    EXPECT_EQ(link.writes[0], cmd(0x22, 9, 0x11, 9));
    EXPECT_EQ(link.writes[1], ext({6, 0, 0, 0, 0xFE, 0xFF, 0xFF, 0xFF}));
}

// The write shapes: head, key, payload, in one EXT; trailers and formats with their payload layouts.
TEST(BlockFrames, WritePayloadLayouts)
{
    {
        ScriptLink link;
        link.reply(ack(0x20, 15));
        link.reply(rsp(0x20));
        ASSERT_EQ(ValueBlockInSectorWrite_PKM(&link.record, 0x01020304, 0x21, 7, 2, 0x61, KEY6.data()), ZEL_OK);
        EXPECT_EQ(link.writes[0], cmd(0x20, 15, 0x61, 0));
        EXPECT_EQ(link.writes[1], ext(cat(cat({2, 7, 0, 0x21}, KEY6), {4, 3, 2, 1})));
    }
    {
        // 16-byte new keys: key A and key B heads around the access codes, their rests behind.
        ScriptLink link;
        link.reply(ack(0x1A, 41));
        link.reply(rsp(0x1A));
        const Bytes ka = seq(0x10, 16), kb = seq(0x50, 16);
        ASSERT_EQ(SectorTrailerWriteM(&link.record, 1, 5, ka.data(), 1, 2, 3, 4, 0x69, kb.data(), 0x81, 2), ZEL_OK);
        EXPECT_EQ(link.writes[0], cmd(0x1A, 41, 0x03, 2));
        Bytes payload = {5, 0, 1, 0x69};
        payload = cat(payload, Bytes(ka.begin(), ka.begin() + 6));
        payload = cat(payload, {1, 2, 3, 4});
        payload = cat(payload, Bytes(kb.begin(), kb.begin() + 6));
        payload = cat(payload, Bytes(ka.begin() + 6, ka.end()));
        payload = cat(payload, Bytes(kb.begin() + 6, kb.end()));
        EXPECT_EQ(link.writes[1], ext(payload));
    }
    {
        ScriptLink link;
        link.reply(ack(0x25, 53));
        link.reply(err(14, 0, 3)); // stopped by a sector it could not open, after three
        const Bytes ka = seq(0x10, 16), kb = seq(0x50, 16);
        uint8_t done = 0xEE;
        EXPECT_EQ(LinearFormatCard_PKM(&link.record, ka.data(), 4, 3, 0x69, kb.data(), &done, 0x81, KEY16.data()),
                  ZEL_AUTH_ERROR);
        EXPECT_EQ(done, 3);
        EXPECT_EQ(link.writes[0], cmd(0x25, 53, 0x81, 0));
        Bytes payload = cat(cat({4, 3, 0, 0x69}, KEY16), Bytes(ka.begin(), ka.begin() + 6));
        payload = cat(payload, Bytes(kb.begin(), kb.begin() + 6));
        payload = cat(cat(payload, Bytes(ka.begin() + 6, ka.end())), Bytes(kb.begin() + 6, kb.end()));
        EXPECT_EQ(link.writes[1], ext(payload));
    }
    {
        ScriptLink link;
        link.reply(ack(0x25, 17));
        link.reply(err(6, 0, 3));
        uint8_t done = 0xEE;
        EXPECT_EQ(LinearFormatCardM(&link.record, KEY6.data(), 0, 1, 0x69, KEY6.data(), &done, 0x60, 0),
                  ZEL_MAX_ADDRESS_EXCEEDED);
        EXPECT_EQ(done, 0) << "only a write or key failure reports how far the format came";
    }
}

TEST(LinearChunks, ReadsOf184AreOneExchange)
{
    for (uint16_t len : {uint16_t{184}, uint16_t{185}}) {
        ScriptLink link;
        const Bytes all = seq(0, len);
        std::vector<uint16_t> chunks = len == 184 ? std::vector<uint16_t>{184} : std::vector<uint16_t>{184, 1};
        uint16_t at = 0;
        for (uint16_t c : chunks) {
            link.reply(ack(0x14, 7));
            link.reply(cat(rsp(0x14, static_cast<uint8_t>(c + 1)), ext(Bytes(all.begin() + at, all.begin() + at + c))));
            at = static_cast<uint16_t>(at + c);
        }
        Bytes out(len);
        uint16_t got = 0;
        ASSERT_EQ(LinearReadM(&link.record, out.data(), 100, len, &got, 0x61, 4), ZEL_OK);
        EXPECT_EQ(got, len);
        EXPECT_EQ(out, all);
        ASSERT_EQ(link.writes.size(), 2 * chunks.size());
        at = 0;
        uint16_t remaining = len;
        for (size_t i = 0; i < chunks.size(); ++i) {
            EXPECT_EQ(link.writes[2 * i], cmd(0x14, 7, 0x01, 4));
            EXPECT_EQ(link.writes[2 * i + 1],
                      ext(cat(cat(le16(static_cast<uint16_t>(100 + at)), le16(chunks[i])), le16(remaining))));
            at = static_cast<uint16_t>(at + chunks[i]);
            remaining = static_cast<uint16_t>(remaining - chunks[i]);
        }
    }
}

TEST(LinearChunks, WritesFillFramesTo189)
{
    ScriptLink link;
    const Bytes all = seq(0x40, 185);
    link.reply(ack(0x15, 189));
    link.reply(rsp(0x15));
    link.reply(ack(0x15, 18));
    link.reply(rsp(0x15));
    uint16_t written = 0;
    ASSERT_EQ(LinearWrite_PKM(&link.record, all.data(), 0, 185, &written, 0x60, KEY6.data()), ZEL_OK);
    EXPECT_EQ(written, 185);
    ASSERT_EQ(link.writes.size(), 4u);
    EXPECT_EQ(link.writes[0], cmd(0x15, 189, 0x60, 0));
    EXPECT_EQ(link.writes[1], ext(cat(cat(cat(le16(0), le16(178)), KEY6), Bytes(all.begin(), all.begin() + 178))));
    EXPECT_EQ(link.writes[2], cmd(0x15, 18, 0x60, 0));
    EXPECT_EQ(link.writes[3], ext(cat(cat(cat(le16(178), le16(7)), KEY6), Bytes(all.begin() + 178, all.end()))));

    // A refusal part way: what was acknowledged before counts.
    ScriptLink link2;
    link2.reply(ack(0x15, 189));
    link2.reply(rsp(0x15));
    link2.reply(ack(0x15, 5 + 184));
    link2.reply(err(4));
    const Bytes big = seq(0, 400);
    EXPECT_EQ(LinearWriteM(&link2.record, big.data(), 0, 400, &written, 0x60, 0), ZEL_WRITING_ERROR);
    EXPECT_EQ(written, 184);
}

TEST(LinearChunks, EmptyAndNearlyFullLengths)
{
    ScriptLink link;
    link.reply(ack(0x14, 7));
    link.reply(cat(rsp(0x14, 1), ext({})));
    uint8_t none[1];
    uint16_t got = 9;
    ASSERT_EQ(LinearReadM(&link.record, none, 0, 0, &got, 0x60, 0), ZEL_OK);
    EXPECT_EQ(got, 0);
    EXPECT_EQ(link.writes[1], ext(cat(cat(le16(0), le16(0)), le16(0))));
    // 65530 plus 8 wraps below 192: the whole is asked in one chunk, and the reader refuses it.
    ScriptLink link2;
    link2.reply(ack(0x14, 7));
    link2.reply(err(6));
    std::vector<uint8_t> big(65530);
    EXPECT_EQ(LinearReadM(&link2.record, big.data(), 0, 65530, &got, 0x60, 0), ZEL_MAX_ADDRESS_EXCEEDED);
    EXPECT_EQ(link2.writes[1], ext(cat(cat(le16(0), le16(65530)), le16(65530))));
    // A raw row read with a provided key always sends six key bytes.
    ScriptLink link3;
    link3.reply(ack(0x45, 13));
    link3.reply(cat(rsp(0x45, 3), ext({1, 2})));
    uint8_t two[2];
    ASSERT_EQ(LinRowRead_PKM(&link3.record, two, 0, 2, &got, 0x80, KEY16.data()), ZEL_OK);
    EXPECT_EQ(link3.writes[0], cmd(0x45, 13, 0x80, 0));
    EXPECT_EQ(link3.writes[1], ext(cat(cat(cat(le16(0), le16(2)), Bytes(KEY16.begin(), KEY16.begin() + 6)), le16(2))));
}

TEST(SoftErrors, Status115StillDeliversTheData)
{
    ScriptLink link;
    const Bytes data = seq(0x70, 16);
    link.reply(ack(0x16, 5));
    link.reply(cat(err(115, 17), ext(data)));
    uint8_t out[16] = {};
    EXPECT_EQ(BlockReadM(&link.record, out, 4, 0x60, 0), ZEL_VALUE_BLOCK_ADDR_INVALID);
    EXPECT_EQ(Bytes(out, out + 16), data);

    ScriptLink v;
    v.reply(ack(0x1D, 5));
    v.reply(cat(err(115, 5, 0x44), ext({0x10, 0, 0, 0})));
    int32_t value = 0;
    uint8_t addr = 0x99;
    EXPECT_EQ(ValueBlockReadM(&v.record, &value, &addr, 4, 0x60, 0), ZEL_VALUE_BLOCK_ADDR_INVALID);
    EXPECT_EQ(value, 16);
    EXPECT_EQ(addr, 0x99) << "no address with 115";

    ScriptLink ok;
    ok.reply(ack(0x1D, 5));
    ok.reply(cat(rsp(0x1D, 5, 0x44), ext({0xFF, 0xFF, 0xFF, 0xFF})));
    ASSERT_EQ(ValueBlockReadM(&ok.record, &value, &addr, 4, 0x60, 0), ZEL_OK);
    EXPECT_EQ(value, -1);
    EXPECT_EQ(addr, 0x44);
}

TEST(HostileReplies, SizesAndChecksumsAreTested)
{
    const Bytes data = seq(0x70, 16);
    struct Case {
        const char *what;
        Bytes reply;
    } cases[] = {
        {"one byte short", cat(rsp(0x16, 16), ext(Bytes(data.begin(), data.end() - 1)))},
        {"no EXT at all", rsp(0x16, 0)},
        {"bad checksum",
         [&] {
             Bytes r = cat(rsp(0x16, 17), ext(data));
             r.back() ^= 1;
             return r;
         }()},
        {"answer to another command", cat(rsp(0x17, 17), ext(data))},
        {"a plain acknowledge", ack(0x16, 17)},
    };
    for (const Case &c : cases) {
        ScriptLink link;
        link.reply(ack(0x16, 5));
        link.reply(c.reply);
        uint8_t out[20];
        std::memset(out, 0xAB, sizeof out);
        EXPECT_EQ(BlockReadM(&link.record, out, 4, 0x60, 0), ZEL_COMMUNICATION_ERROR) << c.what;
        EXPECT_EQ(out[16], 0xAB) << c.what << ": nothing past the block";
    }
    // A linear reply that announces more than the chunk asked for.
    ScriptLink link;
    link.reply(ack(0x14, 7));
    link.reply(cat(rsp(0x14, 200), ext(seq(0, 199))));
    Bytes small(16, 0xAB);
    uint16_t got = 0;
    EXPECT_EQ(LinearReadM(&link.record, small.data(), 0, 16, &got, 0x60, 0), ZEL_COMMUNICATION_ERROR);
    EXPECT_EQ(got, 0);
    EXPECT_EQ(small, Bytes(16, 0xAB));
}

// The stream a reader switches to with status 185.
struct StreamCase {
    const char *what;
    Bytes stream;
    ZEL_STATUS want;
};

ZEL_STATUS stream_read(const Bytes &stream, uint16_t len, Bytes &out, uint16_t &got)
{
    ScriptLink link;
    link.reply(ack(0x14, 7));
    link.reply(cat(err(185), stream));
    out.assign(len, 0xAB);
    return LinearReadM(&link.record, out.data(), 0, len, &got, 0x60, 0);
}

TEST(MultiBlockStream, RecordsUntilTheEndMarker)
{
    Bytes out;
    uint16_t got = 0;
    ASSERT_EQ(stream_read({0, 3, 'a', 'b', 'c', 0, 2, 'd', 'e', 0xDD}, 5, out, got), ZEL_OK);
    EXPECT_EQ(got, 5);
    EXPECT_EQ(out, (Bytes{'a', 'b', 'c', 'd', 'e'}));
    EXPECT_EQ(stream_read({0, 3, 'a', 'b', 'c', 0xCC}, 5, out, got), ZEL_READING_ERROR);
    EXPECT_EQ(got, 3) << "the records read count";
    EXPECT_EQ(stream_read({0, 1, 'a', 0x42}, 5, out, got), 0x42u);
    EXPECT_EQ(stream_read({0, 4, 'a'}, 5, out, got), ZEL_READING_ERROR) << "the link runs dry";
}

TEST(MultiBlockStream, OverrunsAndEndlessStreamsStop)
{
    Bytes out;
    uint16_t got = 0;
    Bytes big;
    for (int i = 0; i < 14; ++i)
        big = cat(cat(big, {0, 255}), Bytes(255, static_cast<uint8_t>(i)));
    EXPECT_EQ(stream_read(cat(big, {0xDD}), 3440, out, got), ZEL_BUFFER_OVERFLOW) << "more than 3504 bytes";
    Bytes empty_records;
    for (int i = 0; i < 4000; ++i)
        empty_records = cat(empty_records, {0, 0});
    EXPECT_EQ(stream_read(empty_records, 16, out, got), ZEL_BUFFER_OVERFLOW) << "records without end";
    // A transfer longer than the assembly buffer cannot be handed over.
    EXPECT_EQ(stream_read({0, 2, 1, 2, 0xDD}, 4000, out, got), ZEL_BUFFER_OVERFLOW);
    EXPECT_EQ(out[0], 0xAB);
}

} // namespace
