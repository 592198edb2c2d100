// The reader's access system and card encryption job on their own: what the reader stores and answers,
// and the receiver dropping an announced EXT that never comes.
#include <gtest/gtest.h>

#include "../../tests/frame_helpers.h"
#include "engine.h"
#include "reader.h"
#include "records.h"
#include "wire.h"

using namespace zs;
using namespace zeltest;

namespace {

// The reader's answer to a command frame and its EXT (data with the checksum added), as the link passes it.
Bytes answer(Reader &r, const Bytes &frame, const Bytes &data = {})
{
    Answer a;
    const Bytes e = data.empty() ? Bytes{} : ext(data);
    reader_command(r, frame.data(), e.empty() ? nullptr : e.data(), e.size(), a);
    return a.bytes;
}

} // namespace

TEST(AccessRecords, TheReaderKeepsWhatItIsGiven)
{
    Reader r;
    EXPECT_TRUE(reader_wants_ext(r, cmd(0x50, 10, 4).data()));
    EXPECT_FALSE(reader_wants_ext(r, cmd(0x51, 0, 4).data()));
    const Bytes right{0x34, 0x12, 0xEF, 0xBE, 0xFE, 0x01, 0x9F, 0x05, 0x45};
    EXPECT_EQ(answer(r, cmd(0x50, 10, 4), right), rsp(0x50));
    EXPECT_EQ(answer(r, cmd(0x51, 0, 4)), response(0x51, right));
    // A plain right record reads back as a typed one of type 0, and the other way round.
    EXPECT_EQ(answer(r, cmd(0x5E, 0, 4)), response(0x5E, cat(Bytes{0}, cat(right, Bytes{0, 0}))));
    const Bytes typed{1, 1, 0, 2, 0, 0, 0, 0xD0, 0x02, 0x02, 5, 0};
    EXPECT_EQ(answer(r, cmd(0x5D, 13, 4), typed), rsp(0x5D));
    EXPECT_EQ(answer(r, cmd(0x5E, 0, 4)), response(0x5E, typed));
    EXPECT_EQ(answer(r, cmd(0x51, 0, 4)), response(0x51, Bytes(typed.begin() + 1, typed.begin() + 10)));
    // 64 records; a wrong size is refused.
    EXPECT_EQ(answer(r, cmd(0x51, 0, 64)), err(E_MAX_ADDRESS));
    EXPECT_EQ(answer(r, cmd(0x50, 9, 4), Bytes(8, 0)), err(E_PARAMETERS));

    EXPECT_EQ(answer(r, cmd(0x54, 0, 0x21)), rsp(0x54));
    EXPECT_EQ(answer(r, cmd(0x55)), rsp(0x55, 0, 0x21));
    EXPECT_EQ(answer(r, cmd(0x56, 0, 0xE0, 0x01)), rsp(0x56));
    EXPECT_EQ(answer(r, cmd(0x57)), rsp(0x57, 0, 0xE0, 0x01));
    EXPECT_EQ(answer(r, cmd(0x58, 5), {1, 2, 3, 4}), rsp(0x58));
    EXPECT_EQ(answer(r, cmd(0x59)), response(0x59, {1, 2, 3, 4}));
    r.access.use = 9;
    const Bytes credit{0xF4, 1, 0, 0, 26, 3, 29, 2, 30, 27, 12, 31, 23, 59};
    EXPECT_EQ(answer(r, cmd(0x5C, 15), credit), rsp(0x5C));
    EXPECT_EQ(answer(r, cmd(0x5B)), response(0x5B, cat(Bytes{9}, credit)));
}

TEST(AccessRecords, CardImagesTakeTheNextSerialNumber)
{
    Reader r;
    r.eeprom[EE_JOB_ID] = 0x77;
    r.eeprom[EE_JOB_ID + 1] = 0x07;
    r.access.card_serial = 0x10;
    EXPECT_EQ(answer(r, cmd(0xA3)),
              response(0xA3, cat(Bytes{0x77, 0x07, 3}, Bytes(r.access.salter, r.access.salter + 8))));
    const Bytes a1 = answer(r, cmd(0xA1, 7), {0, 0, 1, 60, 0, 0});
    ASSERT_EQ(a1.size(), 7u + 33);
    EXPECT_EQ(a1[3], 33);
    // The first byte of the image: serial 0x11 masked with the salter's first byte 'S' (0x53), in hex.
    EXPECT_EQ(a1[7], '4');
    EXPECT_EQ(a1[8], '2');
    EXPECT_EQ(answer(r, cmd(0xA2)), response(0xA2, {0x11, 0, 0, 0}));
    // With data: the data follow the sixteen bytes, then the marks and the size of the text.
    const Bytes a4 = answer(r, cmd(0xA4, 17), {0, 0, 1, 60, 0, 0, 9, 0, 0, 0, 2, 0, 0, 0, 0xAB, 0xCD});
    ASSERT_EQ(a4.size(), 7u + 36 + 3 + 1);
    EXPECT_EQ(Bytes(a4.end() - 4, a4.end() - 1), (Bytes{0xDA, 0xBE, 36}));
    EXPECT_EQ(std::string(a4.begin() + 7 + 32, a4.begin() + 7 + 36), "ABCD");
    // A size that disagrees with the EXT, and more than four data bytes, are refused without a new card.
    EXPECT_EQ(answer(r, cmd(0xA4, 16), {0, 0, 1, 60, 0, 0, 9, 0, 0, 0, 2, 0, 0, 0, 0xAB}), err(E_PARAMETERS));
    EXPECT_EQ(answer(r, cmd(0xA4, 20), {0, 0, 1, 60, 0, 0, 9, 0, 0, 0, 5, 0, 0, 0, 1, 2, 3, 4, 5}), err(E_PARAMETERS));
    EXPECT_EQ(r.access.card_serial, 0x12u);
}

TEST(AccessRecords, AnAnnouncedExtThatNeverComesIsDropped)
{
    // The host announces a credit record and sends nothing more; after the receive time-out its next
    // command is heard as a command.
    Engine e;
    Event ev;
    const Bytes announce = cmd(0x5C, 15);
    ASSERT_EQ(engine_feed(e, announce.data(), announce.size(), 1000, ev), announce.size());
    ASSERT_EQ(ev.kind, EventKind::FRAME);
    engine_expect_ext(e, ev.frame, ev.frame[3]);
    const Bytes next = cmd(0x55);
    ASSERT_EQ(engine_feed(e, next.data(), next.size(), 1000 + STALE_INPUT_MS + 1, ev), next.size());
    EXPECT_EQ(ev.kind, EventKind::FRAME);
    EXPECT_EQ(ev.frame[1], 0x55);

    // Half an EXT: within the time-out the next command's bytes would be taken as the rest of it; after
    // the time-out they are a command again.
    engine_reset(e);
    ASSERT_EQ(engine_feed(e, announce.data(), announce.size(), 2000, ev), announce.size());
    engine_expect_ext(e, ev.frame, ev.frame[3]);
    const Bytes half{0xF4, 0x01, 0x00};
    engine_feed(e, half.data(), half.size(), 2000, ev);
    EXPECT_EQ(ev.kind, EventKind::NONE);
    ASSERT_EQ(engine_feed(e, next.data(), next.size(), 2000 + STALE_INPUT_MS + 1, ev), next.size());
    EXPECT_EQ(ev.kind, EventKind::FRAME);
    EXPECT_EQ(ev.frame[1], 0x55);
}
