// NDEF messages on simulated Type 2 tags: formatting a blank tag, appending, the length growth, erasing, the
// reserved gap, lying lengths, the read cache and the NTAG21x mirrors.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "card_sim_fixture.h"
#include "ndef_test_support.h"

using zeltest::CardSimTest;
using namespace ndeftest;

namespace {

std::string tag(const char *model, const char *type, const std::string &setup = "")
{
    std::string s = R"({"cards": [{"uid": "04A22B1A5C6480", "sak": "00", "atqa": "0044", "type": ")" +
                    std::string(type) + R"(", "model": ")" + model + "\"";
    if (!setup.empty())
        s += ", \"setup\": " + setup;
    return s + "}]}";
}

// An NTAG 215 whose data area starts with an empty message.
std::string empty_ntag215()
{
    return tag("ntag215", "ORB_NTAG_215", R"({"pages": [{"page": 4, "data": "0300FE00"}]})");
}

class NdefT2t : public CardSimTest {
protected:
    void TearDown() override
    {
        zel::set_tick_hook(nullptr);
        CardSimTest::TearDown();
    }
    std::vector<uint8_t> user(uint16_t n)
    {
        std::vector<uint8_t> v(n);
        uint16_t got = 0;
        EXPECT_EQ(LinearReadM(hnd, v.data(), 0, n, &got, 0x60, 0), ZEL_OK);
        v.resize(got);
        return v;
    }
};

TEST_F(NdefT2t, BlankTagIsFormattedByTheFirstWriteAndReadsBack)
{
    start(tag("ultralight", "ORB_MIFARE_ULTRALIGHT"));
    uint8_t formatted = 0;
    ASSERT_EQ(write(hnd, 1, 1, "U", "", uri_payload(0x04, "tandro.example/a"), &formatted), ZEL_OK);
    EXPECT_EQ(formatted, 1);
    uint8_t cc[16] = {};
    ASSERT_EQ(BlockRead_AKM1M(hnd, cc, 3, 0x60), ZEL_OK);
    EXPECT_EQ(std::vector<uint8_t>(cc, cc + 4), (std::vector<uint8_t>{0xE1, 0x10, 0x06, 0x00}));
    Rec r;
    ASSERT_EQ(read(hnd, 1, 1, r), ZEL_OK);
    EXPECT_EQ(r.tnf, 1);
    EXPECT_EQ(r.type, "U");
    EXPECT_EQ(r.text(), "https://tandro.example/a");
    // The layout on the card: TLV, one short record with MB and ME, the terminator.
    const std::vector<uint8_t> img = user(24);
    EXPECT_EQ(img[0], 0x03);
    EXPECT_EQ(img[1], 5 + 16);
    EXPECT_EQ(img[2], 0xD1);
    EXPECT_EQ(img[2 + img[1]], 0xFE);
    // A second write does not format again.
    ASSERT_EQ(write(hnd, 1, 1, "T", "",
                    bytes("\x02"
                          "enhi"),
                    &formatted),
              ZEL_OK);
    EXPECT_EQ(formatted, 0);
}

TEST_F(NdefT2t, AppendingKeepsMbOnTheFirstAndMeOnTheLast)
{
    start(empty_ntag215());
    ASSERT_EQ(write(hnd, 1, 1, "T", "",
                    bytes("\x02"
                          "enone")),
              ZEL_OK);
    ASSERT_EQ(write(hnd, 1, 4, "tandro.example:k", "id7", bytes("two")), ZEL_OK);
    ASSERT_EQ(write(hnd, 1, 2, "text/plain", "", bytes("three")), ZEL_OK);
    const std::vector<uint8_t> img = user(64);
    ASSERT_EQ(img[0], 0x03);
    EXPECT_EQ(img[2] & 0xC0, 0x80); // first: MB
    const size_t second = 2 + 3 + 1 + 6;
    EXPECT_EQ(img[second] & 0xC8, 0x08); // neither MB nor ME, IL set
    Count c;
    ASSERT_EQ(count(hnd, c), ZEL_OK);
    EXPECT_EQ(c.messages, 1);
    EXPECT_EQ(c.records, 3);
    EXPECT_EQ(c.empty, 0);
    EXPECT_EQ(c.array[0], 1);
    EXPECT_EQ(c.array[1], 3);
    Rec r;
    ASSERT_EQ(read(hnd, 1, 2, r), ZEL_OK);
    EXPECT_EQ(r.tnf, 4);
    EXPECT_EQ(r.type, "tandro.example:k");
    EXPECT_EQ(r.id, "id7");
    EXPECT_EQ(r.text(), "two");
    ASSERT_EQ(read(hnd, 1, 3, r), ZEL_OK);
    EXPECT_EQ(r.type, "text/plain");
    EXPECT_EQ(r.text(), "three");
    EXPECT_EQ(read(hnd, 1, 4, r), ZEL_NDEF_MESSAGE_NOT_FOUND);
    EXPECT_EQ(read(hnd, 2, 1, r), ZEL_NDEF_MESSAGE_NOT_FOUND);
}

TEST_F(NdefT2t, UnknownAndUnchangedRecordsTakeTheLongFormAndCount)
{
    start(empty_ntag215());
    ASSERT_EQ(write(hnd, 1, 1, "U", "", uri_payload(0x04, "t.example")), ZEL_OK);
    // TNF 5 with an id, TNF 6 without: the type the caller gives is not written; the short-record flag is set
    // for their small payloads, the length keeps its four bytes.
    ASSERT_EQ(write(hnd, 1, 5, "", "u", bytes("abc")), ZEL_OK);
    ASSERT_EQ(write(hnd, 1, 6, "", "", bytes("de")), ZEL_OK);
    const std::vector<uint8_t> img = user(64);
    const size_t second = 2 + 3 + 1 + 10;
    EXPECT_EQ(std::vector<uint8_t>(img.begin() + second, img.begin() + second + 11),
              (std::vector<uint8_t>{0x1D, 0x00, 0x00, 0x00, 0x00, 0x03, 0x01, 'u', 'a', 'b', 'c'}));
    const size_t third = second + 11;
    EXPECT_EQ(std::vector<uint8_t>(img.begin() + third, img.begin() + third + 8),
              (std::vector<uint8_t>{0x56, 0x00, 0x00, 0x00, 0x00, 0x02, 'd', 'e'}));
    EXPECT_EQ(img[1], 14 + 11 + 8);
    EXPECT_EQ(img[third + 8], 0xFE);
    Count c;
    ASSERT_EQ(count(hnd, c), ZEL_OK);
    EXPECT_EQ(c.records, 3);
    Rec r;
    ASSERT_EQ(read(hnd, 1, 2, r), ZEL_OK);
    EXPECT_EQ(r.tnf, 5);
    EXPECT_EQ(r.type, "");
    EXPECT_EQ(r.id, "u");
    EXPECT_EQ(r.text(), "abc");
    ASSERT_EQ(read(hnd, 1, 3, r), ZEL_OK);
    EXPECT_EQ(r.tnf, 6);
    EXPECT_EQ(r.text(), "de");
    ASSERT_EQ(erase_last_ndef_recordM(hnd, 1), ZEL_OK);
    ASSERT_EQ(count(hnd, c), ZEL_OK);
    EXPECT_EQ(c.records, 2);
}

TEST_F(NdefT2t, MessageGrowingPast254TakesTheLongLengthAndMoves)
{
    start(empty_ntag215());
    std::vector<uint8_t> first(240);
    for (size_t i = 0; i < first.size(); ++i)
        first[i] = static_cast<uint8_t>(i);
    ASSERT_EQ(write(hnd, 1, 2, "a/b", "", first), ZEL_OK); // 3 + 3 + 240 = 246 bytes
    std::vector<uint8_t> img = user(300);
    ASSERT_EQ(img[1], 246);
    ASSERT_EQ(write(hnd, 1, 2, "a/c", "", bytes("0123456789")), ZEL_OK); // 16 more: 262
    img = user(300);
    EXPECT_EQ(img[0], 0x03);
    EXPECT_EQ(img[1], 0xFF);
    EXPECT_EQ(img[2] << 8 | img[3], 262);
    EXPECT_EQ(img[4], 0x92); // the first record, moved down by two
    EXPECT_EQ(img[4 + 262], 0xFE);
    expire_cache();
    Rec r;
    ASSERT_EQ(read(hnd, 1, 1, r), ZEL_OK);
    EXPECT_EQ(r.payload, first);
    ASSERT_EQ(read(hnd, 1, 2, r), ZEL_OK);
    EXPECT_EQ(r.text(), "0123456789");
    // Erasing the second record brings the one-byte length back.
    ASSERT_EQ(erase_last_ndef_recordM(hnd, 1), ZEL_OK);
    img = user(300);
    EXPECT_EQ(img[0], 0x03);
    EXPECT_EQ(img[1], 246);
    EXPECT_EQ(img[2], 0xD2);
    EXPECT_EQ(img[2 + 246], 0xFE);
    expire_cache();
    ASSERT_EQ(read(hnd, 1, 1, r), ZEL_OK);
    EXPECT_EQ(r.payload, first);
}

TEST_F(NdefT2t, ErasingLastAndAll)
{
    start(empty_ntag215());
    EXPECT_EQ(erase_last_ndef_recordM(hnd, 1), ZEL_NDEF_MESSAGE_NOT_FOUND);
    ASSERT_EQ(write(hnd, 1, 1, "T", "",
                    bytes("\x02"
                          "enA")),
              ZEL_OK);
    ASSERT_EQ(write(hnd, 1, 1, "T", "",
                    bytes("\x02"
                          "enB")),
              ZEL_OK);
    ASSERT_EQ(erase_last_ndef_recordM(hnd, 1), ZEL_OK);
    std::vector<uint8_t> img = user(32);
    EXPECT_EQ(img[1], 8);
    EXPECT_EQ(img[2], 0xD1); // MB and ME again
    EXPECT_EQ(img[10], 0xFE);
    ASSERT_EQ(erase_last_ndef_recordM(hnd, 1), ZEL_OK);
    img = user(32);
    // The old record's bytes are zeroed behind the new terminator.
    EXPECT_EQ(std::vector<uint8_t>(img.begin(), img.begin() + 10),
              (std::vector<uint8_t>{0x03, 0x00, 0xFE, 0, 0, 0, 0, 0, 0, 0}));
    ASSERT_EQ(write(hnd, 1, 1, "T", "",
                    bytes("\x02"
                          "enC")),
              ZEL_OK);
    ASSERT_EQ(erase_all_ndef_recordsM(hnd, 1), ZEL_OK);
    img = user(32);
    EXPECT_EQ(std::vector<uint8_t>(img.begin(), img.begin() + 11),
              (std::vector<uint8_t>{0x03, 0x00, 0xFE, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(erase_all_ndef_recordsM(hnd, 3), ZEL_NDEF_MESSAGE_NOT_FOUND);
    EXPECT_EQ(erase_last_ndef_recordM(hnd, 2), ZEL_NDEF_MESSAGE_NOT_FOUND);
}

TEST_F(NdefT2t, RecordAcrossTheReservedGapSkipsIt)
{
    // Lock control, then a memory control TLV reserving 4 bytes at page 15 (page size 2^2): image bytes 44 to 47,
    // marked AA so that a write into them shows.
    start(tag("ntag215", "ORB_NTAG_215",
              R"({"pages": [{"page": 4, "data": "0103A010440203F004020300FE00"}, {"page": 15, "data": "AAAAAAAA"}]})"));
    std::vector<uint8_t> payload(60);
    for (size_t i = 0; i < payload.size(); ++i)
        payload[i] = static_cast<uint8_t>(0x30 + i);
    ASSERT_EQ(write(hnd, 1, 2, "x/y", "", payload), ZEL_OK);
    const std::vector<uint8_t> img = user(96);
    EXPECT_EQ(std::vector<uint8_t>(img.begin() + 44, img.begin() + 48), (std::vector<uint8_t>(4, 0xAA)));
    // The record starts at 12 with six header and type bytes: payload byte 26 would be at 44, and sits at 48.
    EXPECT_EQ(img[43], payload[25]);
    EXPECT_EQ(img[48], payload[26]);
    Rec r;
    ASSERT_EQ(read(hnd, 1, 1, r), ZEL_OK);
    EXPECT_EQ(r.payload, payload);
    ASSERT_EQ(erase_all_ndef_recordsM(hnd, 1), ZEL_OK);
    const std::vector<uint8_t> after = user(96);
    EXPECT_EQ(std::vector<uint8_t>(after.begin() + 44, after.begin() + 48), (std::vector<uint8_t>(4, 0xAA)));
}

TEST_F(NdefT2t, LyingLengthsAreRefusedNotFollowed)
{
    struct Case {
        const char *what, *data;
        ZEL_STATUS read, count;
    } cases[] = {
        // The TLV claims more than the 496-byte area holds.
        {"tlv length", "03FF0400D1010155", ZEL_WRONG_NDEF_CARD_FORMAT, ZEL_WRONG_NDEF_CARD_FORMAT},
        // A long-form record claiming 4 GB.
        {"record length", "030AC101FFFFFFF055616263", ZEL_WRONG_NDEF_CARD_FORMAT, ZEL_WRONG_NDEF_CARD_FORMAT},
        // A lock control TLV running off the end, then nothing.
        {"skipped tlv", "01FF0FFF", ZEL_NDEF_MESSAGE_NOT_FOUND, ZEL_OK},
    };
    for (const Case &c : cases) {
        start(tag("ntag215", "ORB_NTAG_215", std::string(R"({"pages": [{"page": 4, "data": ")") + c.data + "\"}]}"));
        Rec r;
        EXPECT_EQ(read(hnd, 1, 1, r), c.read) << c.what;
        Count n;
        EXPECT_EQ(count(hnd, n), c.count) << c.what;
        stop();
    }
}

TEST_F(NdefT2t, ReadCacheHoldsForTwoSeconds)
{
    start(empty_ntag215());
    zel::set_tick_hook(shifted_tick);
    ASSERT_EQ(write(hnd, 1, 1, "T", "",
                    bytes("\x02"
                          "enold")),
              ZEL_OK);
    Rec r;
    ASSERT_EQ(read(hnd, 1, 1, r), ZEL_OK);
    ASSERT_EQ(r.text(), std::string("\x02"
                                    "enold"));
    // Changed behind the cache's back: the cached image answers until it expires.
    const uint8_t newer[3] = {'n', 'e', 'w'};
    uint16_t done = 0;
    ASSERT_EQ(LinearWrite_AKM1M(hnd, newer, 9, 3, &done, 0x60), ZEL_OK);
    ASSERT_EQ(read(hnd, 1, 1, r), ZEL_OK);
    EXPECT_EQ(r.text(), std::string("\x02"
                                    "enold"));
    clock_offset() += 2001;
    ASSERT_EQ(read(hnd, 1, 1, r), ZEL_OK);
    EXPECT_EQ(r.text(), std::string("\x02"
                                    "ennew"));
}

TEST_F(NdefT2t, UidMirrorPointsTheConfigurationAtThePayload)
{
    start(tag("ntag213", "ORB_NTAG_213", R"({"pages": [{"page": 4, "data": "0300FE00"}]})"));
    const std::vector<uint8_t> payload = uri_payload(0x04, "tandro.example/?uid=00000000000000");
    uint8_t t = 1, tl = 1, il = 0, f = 0, type[2] = {'U', 0}, id[1] = {0};
    std::vector<uint8_t> pb(payload);
    uint32_t pl = static_cast<uint32_t>(pb.size());
    ASSERT_EQ(write_ndef_record_mirroringM(hnd, 1, &t, type, &tl, id, &il, pb.data(), &pl, &f, 1, 0, 20), ZEL_OK);
    // Where the payload landed, found on the card, and the mirror position within it.
    const std::vector<uint8_t> img = user(64);
    const auto at = std::search(img.begin(), img.end(), payload.begin(), payload.end()) - img.begin();
    ASSERT_LT(at, 64);
    const unsigned p = static_cast<unsigned>(at) + 16 + 20;
    uint8_t cfg[16] = {};
    ASSERT_EQ(BlockRead_AKM1M(hnd, cfg, 41, 0x60), ZEL_OK);
    EXPECT_EQ(cfg[0] & 0xF0, 0x40 | (p % 4) << 4);
    EXPECT_EQ(cfg[2], p / 4);
    // A counter mirror the tag lacks, and a TT mirror on a plain NTAG 213.
    EXPECT_EQ(write_ndef_record_mirroring_ttM(hnd, 1, &t, type, &tl, id, &il, pb.data(), &pl, &f, 0, 0, 1, 0),
              ZEL_UNSUPPORTED_CARD_TYPE);
    // With no mirror the configuration is cleared again.
    ASSERT_EQ(write_ndef_record_mirroringM(hnd, 1, &t, type, &tl, id, &il, pb.data(), &pl, &f, 0, 0, 0), ZEL_OK);
    ASSERT_EQ(BlockRead_AKM1M(hnd, cfg, 41, 0x60), ZEL_OK);
    EXPECT_EQ(cfg[0] & 0xF0, 0);
    EXPECT_EQ(cfg[2], 0);
}

TEST_F(NdefT2t, CounterAndTtMirrorsSetTheirBits)
{
    const std::vector<uint8_t> payload = uri_payload(0x04, "tandro.example/?n=000000&t=00000000");
    uint8_t t = 1, tl = 1, il = 0, f = 0, type[2] = {'U', 0}, id[1] = {0};
    std::vector<uint8_t> pb(payload);
    uint32_t pl = static_cast<uint32_t>(pb.size());
    // Where the mirror lands: payload position on the card (from page 0) plus the mirror position.
    auto where = [&](uint32_t pos) {
        const std::vector<uint8_t> img = user(96);
        const auto at = std::search(img.begin(), img.end(), payload.begin(), payload.end()) - img.begin();
        EXPECT_LT(at, 96);
        return static_cast<unsigned>(at) + 16 + pos;
    };
    uint8_t cfg[16] = {}, access[16] = {};
    {
        SCOPED_TRACE("NTAG 215, counter");
        start(tag("ntag215", "ORB_NTAG_215", R"({"pages": [{"page": 4, "data": "0300FE00"}]})"));
        ASSERT_EQ(write_ndef_record_mirroringM(hnd, 1, &t, type, &tl, id, &il, pb.data(), &pl, &f, 0, 1, 18), ZEL_OK);
        const unsigned p = where(18);
        ASSERT_EQ(BlockRead_AKM1M(hnd, cfg, 131, 0x60), ZEL_OK);
        ASSERT_EQ(BlockRead_AKM1M(hnd, access, 132, 0x60), ZEL_OK);
        EXPECT_EQ(cfg[0] & 0xF0, 0x80 | (p % 4) << 4);
        EXPECT_EQ(cfg[2], p / 4);
        EXPECT_EQ(access[0] & 0x10, 0x10);
        EXPECT_EQ(cfg[1] & 0x02, 0);
        stop();
    }
    {
        SCOPED_TRACE("NTAG 213 TT, UID, counter and TT message");
        start(tag("ntag213", "ORB_NTAG_213_TT", R"({"pages": [{"page": 4, "data": "0300FE00"}]})"));
        ASSERT_EQ(write_ndef_record_mirroring_ttM(hnd, 1, &t, type, &tl, id, &il, pb.data(), &pl, &f, 1, 1, 1, 27),
                  ZEL_OK);
        const unsigned p = where(27);
        ASSERT_EQ(BlockRead_AKM1M(hnd, cfg, 41, 0x60), ZEL_OK);
        ASSERT_EQ(BlockRead_AKM1M(hnd, access, 42, 0x60), ZEL_OK);
        EXPECT_EQ(cfg[0] & 0xF8, 0x20 | 0x40 | 0x80 | (p % 4) << 3);
        EXPECT_EQ(cfg[2], p / 4);
        EXPECT_EQ(cfg[1] & 0x02, 0x02);
        EXPECT_EQ(access[0] & 0x10, 0x10);
    }
}

TEST_F(NdefT2t, FormattingRefusesTheGenericTypeAndUnknownCodes)
{
    start(tag("ultralight", "0C"));
    EXPECT_EQ(ndef_card_initializationM(hnd), ZEL_NDEF_UNSUPPORTED_CARD_TYPE);
}

} // namespace

namespace {

// With several cards in the field, the NDEF calls work on the card selected in multi-card mode.
TEST_F(NdefT2t, SelectedTagAmongOthers)
{
    start(R"({"cards": [
      {"uid": "5A3C9E21", "sak": "08", "atqa": "0004", "type": "ORB_MIFARE_CLASSIC_1K", "model": "classic_1k"},
      {"uid": "04A22B1A5C6480", "sak": "00", "atqa": "0044", "type": "ORB_NTAG_215", "model": "ntag215",
       "setup": {"pages": [{"page": 4, "data": "0317D10113550474616E64726F2E6578616D706C652F73696DFE"}]}}]})");
    Rec r;
    // The classic card comes first and has no directory.
    EXPECT_EQ(read(hnd, 1, 1, r), ZEL_AUTH_ERROR);
    const uint8_t uid[7] = {0x04, 0xA2, 0x2B, 0x1A, 0x5C, 0x64, 0x80};
    uint8_t count = 0, size = 0, type = 0;
    ASSERT_EQ(EnableAntiCollisionM(hnd), ZEL_OK);
    ASSERT_EQ(EnumCardsM(hnd, &count, &size), ZEL_OK);
    ASSERT_EQ(SelectCardM(hnd, uid, 7, &type), ZEL_OK);
    ASSERT_EQ(read(hnd, 1, 1, r), ZEL_OK);
    EXPECT_EQ(r.type, "U");
    EXPECT_EQ(r.text(), "https://tandro.example/sim");
    DisableAntiCollisionM(hnd);
}

} // namespace
