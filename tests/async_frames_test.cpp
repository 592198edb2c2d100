// What the polling thread makes of the reader's own bytes, the ring between the two threads, and one polling
// step on a played serial link.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "async/internal.h"
#include "core/internal.h"
#include "tandro.h"

namespace {

using namespace zel::async;

Parsed parse(const std::string &s)
{
    return parse_read(reinterpret_cast<const uint8_t *>(s.data()), static_cast<uint32_t>(s.size()));
}

std::vector<uint8_t> bytes_of(const Parsed &p)
{
    return std::vector<uint8_t>(p.uid, p.uid + p.uid_size);
}

TEST(AsyncFrames, FirstFrameOfOneRead)
{
    struct Case {
        std::string in;
        ReadKind kind;
        std::vector<uint8_t> uid;
    } cases[] = {
        {"!04A22B1A5C6480!", ReadKind::uid, {0x04, 0xA2, 0x2B, 0x1A, 0x5C, 0x64, 0x80}},
        {"!c1c2c30d!", ReadKind::uid, {0xC1, 0xC2, 0xC3, 0x0D}},
        // No synchronisation on the mark: bytes before the first one belong to the text.
        {"04!A2!", ReadKind::uid, {0x04, 0xA2}},
        // A last odd digit is ignored; a pair without digits becomes 0.
        {"!ABC!", ReadKind::uid, {0xAB}},
        {"!zz01!", ReadKind::uid, {0x00, 0x01}},
        // A detection and a removal in one read give the detection alone.
        {"!1122!!!", ReadKind::uid, {0x11, 0x22}},
        {"!!", ReadKind::removal, {}},
        {"!!!3344!", ReadKind::removal, {}},
        // A removal behind other bytes is no removal; a text that gives no UID byte is no arrival.
        {"x!!", ReadKind::nothing, {}},
        {"!A!", ReadKind::nothing, {}},
        // A frame cut in two is dropped.
        {"!04A22B", ReadKind::nothing, {}},
        {"04A22B!", ReadKind::nothing, {}},
        {"", ReadKind::nothing, {}},
        {"!", ReadKind::nothing, {}},
        // Longer than any UID: no frame of ours.
        {"!" + std::string(24, 'A') + "!", ReadKind::nothing, {}},
        // Eleven bytes is the most; the odd 23rd digit is ignored.
        {"!" + std::string(22, 'F') + "1!", ReadKind::uid, std::vector<uint8_t>(11, 0xFF)},
    };
    for (const Case &c : cases) {
        const Parsed p = parse(c.in);
        EXPECT_EQ(p.kind, c.kind) << c.in;
        EXPECT_EQ(bytes_of(p), c.uid) << c.in;
    }
    // The reader's boot bytes win over everything else, also when a frame follows.
    const uint8_t boot[] = {0x03, 0x55, 0x55, 0xBB, '!', '0', '1', '!'};
    EXPECT_EQ(parse_read(boot, sizeof boot).kind, ReadKind::reset);
    EXPECT_EQ(parse_read(boot, 3).kind, ReadKind::nothing);
}

TEST(AsyncFrames, StoredBytesSplitIntoEventsInOrder)
{
    const std::string s = std::string("!0A0B!!!") + "\x03\x55\x55\xBB" + "zz" + "!0C0D!" + "0E!" + "!0F";
    Parsed out[8];
    const uint32_t n =
        split_stored(reinterpret_cast<const uint8_t *>(s.data()), static_cast<uint32_t>(s.size()), out, 8);
    ASSERT_EQ(n, 4u);
    EXPECT_EQ(out[0].kind, ReadKind::uid);
    EXPECT_EQ(bytes_of(out[0]), (std::vector<uint8_t>{0x0A, 0x0B}));
    EXPECT_EQ(out[1].kind, ReadKind::removal);
    EXPECT_EQ(out[2].kind, ReadKind::reset);
    EXPECT_EQ(out[3].kind, ReadKind::uid);
    EXPECT_EQ(bytes_of(out[3]), (std::vector<uint8_t>{0x0C, 0x0D}));
    // The tail of a frame whose start went elsewhere ("0E!") and the unfinished one at the end are gone;
    // a full output stops the split.
    EXPECT_EQ(split_stored(reinterpret_cast<const uint8_t *>(s.data()), static_cast<uint32_t>(s.size()), out, 2), 2u);
}

TEST(AsyncFrames, HexConversionKeepsToItsBuffers)
{
    uint8_t out[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(hex_text_to_bytes("0102030405", 10, out, 3), 3u);
    EXPECT_EQ(out[2], 0x03);
    EXPECT_EQ(out[3], 0xEE);
    char text[2 * 3 + 1];
    const uint8_t uid[3] = {0x0a, 0xF0, 0x5c};
    uid_to_text(uid, 3, text);
    EXPECT_STREQ(text, "0AF05C");
    char small[8];
    uint32_t len = 0, used = 0;
    const uint8_t frame[] = "!0102!rest";
    EXPECT_TRUE(walk_frame(frame, 10, small, sizeof small, &len, &used));
    EXPECT_EQ(len, 4u);
    EXPECT_EQ(used, 6u);
    const uint8_t longer[] = "!01020304!";
    EXPECT_FALSE(walk_frame(longer, 10, small, sizeof small, &len, nullptr));
}

TEST(AsyncRing, HoldsOneLessThanItsSizeAndDropsTheOldest)
{
    zel_handle_record rec;
    zel_handle_init(&rec);
    rec.async_ring_head = rec.async_ring_tail = 0;
    for (uint8_t i = 0; i < 17; ++i) {
        const uint8_t uid[2] = {0xA0, i};
        ring_put(&rec, uid, 2);
    }
    zel_async_uid_event e{};
    std::vector<int> seen;
    while (ring_take(&rec, &e)) {
        ASSERT_EQ(e.uid_size, 2);
        EXPECT_EQ(e.skip, 0);
        seen.push_back(e.uid[1]);
    }
    ASSERT_EQ(seen.size(), 15u);
    for (size_t i = 0; i < seen.size(); ++i)
        EXPECT_EQ(seen[i], static_cast<int>(i) + 2);
    // An over-long UID is cut to the entry; indices out of range are brought back instead of used.
    const uint8_t big[20] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13};
    ring_put(&rec, big, 20);
    ASSERT_TRUE(ring_take(&rec, &e));
    EXPECT_EQ(e.uid_size, 11);
    EXPECT_EQ(e.uid[10], 11);
    rec.async_ring_head = 99;
    rec.async_ring_tail = -3;
    EXPECT_FALSE(ring_take(&rec, &e));
    ring_put(&rec, big, 4);
    EXPECT_TRUE(ring_take(&rec, &e));
}

// A serial link played from a script: what waits, and what each read takes.
struct Played {
    std::vector<std::vector<uint8_t>> arrivals; // each look at the port may bring the next piece
    std::vector<uint8_t> waiting;
    size_t looks = 0;
    bool fail_reads = false;
};

uint32_t played_available(void *ctx)
{
    auto *p = static_cast<Played *>(ctx);
    if (p->looks < p->arrivals.size()) {
        const auto &a = p->arrivals[p->looks];
        p->waiting.insert(p->waiting.end(), a.begin(), a.end());
    }
    ++p->looks;
    return static_cast<uint32_t>(p->waiting.size());
}

uint32_t played_read(void *ctx, uint8_t *buf, uint32_t n)
{
    auto *p = static_cast<Played *>(ctx);
    if (p->fail_reads)
        return 0;
    const uint32_t take = n < p->waiting.size() ? n : static_cast<uint32_t>(p->waiting.size());
    std::memcpy(buf, p->waiting.data(), take);
    p->waiting.erase(p->waiting.begin(), p->waiting.begin() + take);
    return take;
}

uint32_t played_write(void *, const uint8_t *, uint32_t n)
{
    return n;
}

void played_purge(void *ctx)
{
    static_cast<Played *>(ctx)->waiting.clear();
}

int g_removals = 0;
void count_removal()
{
    ++g_removals;
}

void no_sleep(uint32_t) {}

class AsyncPollStep : public ::testing::Test {
protected:
    void SetUp() override
    {
        zel::set_sleep_hook(no_sleep);
        hooks = {played_read, played_write, played_purge, &link, played_available};
        zel::set_link_hooks(&hooks);
        zel_handle_init(&rec);
        rec.comm.use = zel::kPortHook;
        rec.async_ring_head = rec.async_ring_tail = 0;
        removeCallbackHandlers();
        g_removals = 0;
    }
    void TearDown() override
    {
        removeCallbackHandlers();
        zel::set_link_hooks(nullptr);
        zel::set_sleep_hook(nullptr);
    }
    uint32_t step(std::vector<std::vector<uint8_t>> arrivals)
    {
        link.arrivals = std::move(arrivals);
        link.looks = 0;
        return readAsyncUID(&rec);
    }
    int queued()
    {
        int n = 0;
        zel_async_uid_event e{};
        while (ring_take(&rec, &e))
            ++n;
        return n;
    }

    Played link;
    zel::LinkHooks hooks{};
    zel_handle_record rec;
};

std::vector<uint8_t> b(const std::string &s)
{
    return std::vector<uint8_t>(s.begin(), s.end());
}

TEST_F(AsyncPollStep, ResultsOfOneStep)
{
    EXPECT_EQ(step({}), 1u) << "nothing waits";
    // A short start is given a second look, which finds the rest of the frame.
    EXPECT_EQ(step({b("!04A2"), b("2B1A5C6480!")}), 0u);
    EXPECT_EQ(queued(), 1);
    EXPECT_TRUE(link.waiting.empty());
    // A second look that finds nothing new still reads the short frame.
    EXPECT_EQ(step({b("!0102!")}), 0u);
    EXPECT_EQ(queued(), 1);
    // Ten bytes or more are read at once; a removal goes to its callback on this thread.
    setCardRemovedCallback(count_removal);
    EXPECT_EQ(step({b("!!")}), 0u);
    EXPECT_EQ(g_removals, 1);
    EXPECT_EQ(queued(), 0);
    // Boot bytes and a frame without its closing mark give nothing.
    EXPECT_EQ(step({{0x03, 0x55, 0x55, 0xBB, 0x21, 0x21}}), 1u);
    EXPECT_EQ(step({b("!04A22B1A5C6480")}), 1u);
    EXPECT_EQ(queued(), 0);
    EXPECT_TRUE(link.waiting.empty()) << "a fragment is read and dropped";
    // The read fails.
    link.fail_reads = true;
    EXPECT_EQ(step({b("!04A22B1A5C6480!")}), 3u);
    link.fail_reads = false;
    link.waiting.clear();
    // A manual operation has the port: the bytes stay for it.
    rec.port_busy = 1;
    link.waiting = b("!04A22B1A5C6480!");
    EXPECT_EQ(step({}), 1u);
    EXPECT_EQ(link.waiting.size(), 16u);
    rec.port_busy = 0;
    link.waiting.clear();
}

TEST_F(AsyncPollStep, MoreWaitingThanTheBufferIsCut)
{
    std::vector<uint8_t> flood(1000, '7');
    flood[0] = '!';
    flood[999] = '!';
    EXPECT_EQ(step({flood}), 1u) << "no closing mark within one buffer";
    EXPECT_EQ(link.waiting.size(), 1000u - kReadBufLen) << "the rest waits for the next poll";
    EXPECT_EQ(queued(), 0);
}

} // namespace
