// The receiver alone: frames cut out of a byte stream, EXT blocks, resynchronisation, bad input.
#include <gtest/gtest.h>

#include <random>

#include "engine.h"
#include "host.h"
#include "wire.h"

using namespace zs;

namespace {

struct Fed {
    std::vector<Event> events;
    std::vector<std::vector<uint8_t>> exts;
};

// Feeds a whole stream, collecting the events, as the link does; a FRAME wanting an EXT is accepted.
Fed feed_all(Engine &e, const std::vector<uint8_t> &in, uint64_t now = 1000)
{
    Fed f;
    size_t pos = 0;
    while (pos < in.size()) {
        Event ev;
        pos += engine_feed(e, in.data() + pos, in.size() - pos, now, ev);
        if (ev.kind == EventKind::NONE)
            continue;
        if (ev.kind == EventKind::FRAME && ev.frame[3])
            engine_expect_ext(e, ev.frame, ev.frame[3]);
        f.events.push_back(ev);
        f.exts.emplace_back(ev.ext, ev.ext + ev.ext_len);
    }
    return f;
}

TEST(Wire, ChecksumMatchesWorkedFrames)
{
    const uint8_t get_type[7] = {0x55, 0x10, 0xAA, 0x00, 0x00, 0x00, 0xF6};
    const uint8_t card_reply[7] = {0xDE, 0x13, 0xED, 0x05, 0x08, 0x00, 0x34};
    const uint8_t no_card[7] = {0xEC, 0x08, 0xCE, 0x00, 0x00, 0x00, 0x31};
    const uint8_t uid_ext[5] = {0x11, 0x22, 0x33, 0x44, 0x4B};
    EXPECT_TRUE(checksum_ok(get_type, 7));
    EXPECT_TRUE(checksum_ok(card_reply, 7));
    EXPECT_TRUE(checksum_ok(no_card, 7));
    EXPECT_TRUE(checksum_ok(uid_ext, 5));
    std::vector<uint8_t> out;
    const uint8_t type[4] = {0x04, 0x03, 0x02, 0x01};
    put_response(out, 0x10, 0, 0, type, 4);
    EXPECT_EQ(out, (std::vector<uint8_t>{0xDE, 0x10, 0xED, 0x05, 0x00, 0x00, 0x2D, 0x04, 0x03, 0x02, 0x01, 0x0B}));
    out.clear();
    put_error(out, 8);
    EXPECT_EQ(out, std::vector<uint8_t>(no_card, no_card + 7));
}

TEST(Engine, FramesAmidWakeBytesNoiseAndSplitWrites)
{
    Engine e;
    std::vector<uint8_t> in = {0x00, 0x00, 0x12, 0x99};
    const auto f = cmd_frame(0x10);
    in.insert(in.end(), f.begin(), f.end());
    // A stray header byte right before the frame: the receiver slides onto the real one.
    in.push_back(0x55);
    const auto g = cmd_frame(0x2C);
    in.insert(in.end(), g.begin(), g.end());
    Fed r = feed_all(e, in);
    ASSERT_EQ(r.events.size(), 2u);
    EXPECT_EQ(r.events[0].kind, EventKind::FRAME);
    EXPECT_EQ(r.events[0].frame[1], 0x10);
    EXPECT_EQ(r.events[1].kind, EventKind::FRAME);
    EXPECT_EQ(r.events[1].frame[1], 0x2C);

    // One byte at a time gives the same frame.
    Engine e2;
    std::vector<Event> got;
    for (uint8_t b : f) {
        Event ev;
        EXPECT_EQ(engine_feed(e2, &b, 1, 5, ev), 1u);
        if (ev.kind != EventKind::NONE)
            got.push_back(ev);
    }
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(std::vector<uint8_t>(got[0].frame, got[0].frame + 7), f);
}

TEST(Engine, BadChecksumsAreReportedNotTaken)
{
    Engine e;
    auto f = cmd_frame(0x10);
    f[6] ^= 0x40;
    Fed r = feed_all(e, f);
    ASSERT_EQ(r.events.size(), 1u);
    EXPECT_EQ(r.events[0].kind, EventKind::BAD_FRAME);

    auto with_ext = cmd_frame(0x35, 4);
    auto ext = ext_block({1, 2, 3});
    ext[3] ^= 1;
    with_ext.insert(with_ext.end(), ext.begin(), ext.end());
    r = feed_all(e, with_ext);
    ASSERT_EQ(r.events.size(), 2u);
    EXPECT_EQ(r.events[1].kind, EventKind::BAD_EXT);
    // The receiver is back to waiting for a frame.
    r = feed_all(e, cmd_frame(0x10));
    ASSERT_EQ(r.events.size(), 1u);
    EXPECT_EQ(r.events[0].kind, EventKind::FRAME);
}

TEST(Engine, ExtBlocksOfEverySizeAndResyncOnANewCommand)
{
    for (size_t len : {1u, 2u, 6u, 7u, 8u, 255u}) {
        Engine e;
        std::vector<uint8_t> data(len - 1);
        for (size_t i = 0; i < data.size(); ++i)
            data[i] = static_cast<uint8_t>(i * 7 + 1);
        auto in = cmd_frame(0x1C, static_cast<uint8_t>(len));
        const auto ext = ext_block(data);
        in.insert(in.end(), ext.begin(), ext.end());
        Fed r = feed_all(e, in);
        ASSERT_EQ(r.events.size(), 2u) << len;
        EXPECT_EQ(r.events[1].kind, EventKind::EXT) << len;
        EXPECT_EQ(r.exts[1], ext) << len;
    }
    // Where the EXT was due, the host sends a new command: the reader takes the command.
    for (uint8_t len : {3, 20}) {
        Engine e;
        auto in = cmd_frame(0x1C, len);
        const auto next = cmd_frame(0x10);
        in.insert(in.end(), next.begin(), next.end());
        Fed r = feed_all(e, in);
        ASSERT_EQ(r.events.size(), 2u) << int(len);
        EXPECT_EQ(r.events[1].kind, EventKind::FRAME) << int(len);
        EXPECT_EQ(r.events[1].frame[1], 0x10) << int(len);
    }
}

TEST(Engine, StalePartialInputIsDropped)
{
    Engine e;
    const auto f = cmd_frame(0x10);
    Event ev;
    engine_feed(e, f.data(), 3, 1000, ev);
    EXPECT_EQ(ev.kind, EventKind::NONE);
    // Long after, a whole frame arrives: the three old bytes must not be glued in front of it.
    Fed r = feed_all(e, f, 1000 + STALE_INPUT_MS + 1);
    ASSERT_EQ(r.events.size(), 1u);
    EXPECT_EQ(r.events[0].kind, EventKind::FRAME);
}

TEST(Engine, RandomInputNeverOverrunsAndAlwaysProgresses)
{
    std::mt19937 rng(7);
    for (int round = 0; round < 2000; ++round) {
        Engine e;
        std::vector<uint8_t> in(rng() % 600);
        for (auto &b : in)
            b = static_cast<uint8_t>(rng() % 4 == 0 ? 0x55 : rng() % 3 == 0 ? 0xAA : rng());
        size_t pos = 0;
        while (pos < in.size()) {
            Event ev;
            const size_t used = engine_feed(e, in.data() + pos, in.size() - pos, 1, ev);
            ASSERT_GT(used, 0u);
            pos += used;
            if (ev.kind == EventKind::FRAME && ev.frame[3])
                engine_expect_ext(e, ev.frame, ev.frame[3]);
            if (ev.kind == EventKind::EXT) {
                ASSERT_TRUE(checksum_ok(ev.ext, ev.ext_len));
            }
        }
        ASSERT_LE(e.have, sizeof e.buf);
    }
}

} // namespace
