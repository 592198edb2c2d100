// The NDEF store's pure parts on card images made by hand: the TLV walk, the reserved gap, record headers and
// the builder, the directory checksum, capability containers and the Type 4 record chain.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <vector>

#include "ndef/ndef_internal.h"
#include "zel_ndef.h"

using namespace zel::ndef;

namespace {

using Bytes = std::vector<uint8_t>;

TEST(NdefTlvWalk, FindsMessagesPastNullsAndSkippedTlvs)
{
    // null, lock control (3 value bytes), proprietary with a long length (2), two messages, terminator.
    const Bytes img = {0x00, 0x01, 0x03, 0xA0, 0x10, 0x44, 0xFD, 0xFF, 0x00,
                       0x02, 0xAA, 0xBB, 0x03, 0x01, 0x55, 0x03, 0x00, 0xFE};
    Tlv t;
    Gap g;
    ASSERT_EQ(find_message(img.data(), img.size(), 1, 8, t, g), ZEL_OK);
    EXPECT_EQ(t.offset, 12u);
    EXPECT_EQ(t.header, 2u);
    EXPECT_EQ(t.length, 1u);
    // 0 acts as 1.
    ASSERT_EQ(find_message(img.data(), img.size(), 0, 8, t, g), ZEL_OK);
    EXPECT_EQ(t.offset, 12u);
    ASSERT_EQ(find_message(img.data(), img.size(), 2, 8, t, g), ZEL_OK);
    EXPECT_EQ(t.offset, 15u);
    EXPECT_EQ(t.length, 0u);
    EXPECT_EQ(find_message(img.data(), img.size(), 3, 8, t, g), ZEL_NDEF_MESSAGE_NOT_FOUND);
    EXPECT_FALSE(g.present);
}

TEST(NdefTlvWalk, LengthsRunningOffTheImageEndTheWalk)
{
    const Bytes cases[] = {
        {0x03},                   // no length byte
        {0x03, 0xFF, 0x01},       // long length cut short
        {0x01, 0xFF},             // skipped TLV without its length
        {0x01, 0x40, 0x00, 0x03}, // skipped TLV jumping past the end
        {0x00, 0x00, 0x00},       // nulls to the end
        {0x42, 0x03, 0x00},       // an unknown type stops the walk
    };
    for (const Bytes &img : cases) {
        Tlv t;
        Gap g;
        EXPECT_EQ(find_message(img.data(), img.size(), 1, 8, t, g), ZEL_NDEF_MESSAGE_NOT_FOUND) << img.size();
    }
}

TEST(NdefGap, PageAddressTimesPageSizePlusByteOffset)
{
    struct Case {
        uint8_t position, size, control, type;
        bool present;
        uint32_t start;
    } cases[] = {
        {0xF0, 4, 0x02, 8, true, 60 - 16},       // page 15 of 4 bytes
        {0x3A, 16, 0x04, 8, true, 48 + 10 - 16}, // page 3 of 16 bytes, byte 10
        {0x48, 8, 0x03, 33, true, 32 + 8 - 32},  // a sector card takes 32 off
        {0x10, 4, 0x02, 8, false, 0},            // lands before the image
    };
    for (const Case &c : cases) {
        Gap g;
        EXPECT_EQ(gap_from_memory_control(c.position, c.size, c.control, c.type, g), c.present) << int(c.position);
        EXPECT_EQ(g.present, c.present);
        if (c.present) {
            EXPECT_EQ(g.start, c.start) << int(c.position);
            EXPECT_EQ(g.len, c.size);
        }
    }
}

TEST(NdefGap, MemoryControlBehindAnotherTlvPlacesTheGapAndDataStepsOverIt)
{
    // lock control, memory control (position F0, 4 bytes, pages of 4), message of 3 bytes.
    Bytes img = {0x01, 0x03, 0xA0, 0x10, 0x44, 0x02, 0x03, 0xF0, 0x04, 0x02, 0x03, 0x03};
    img.resize(64, 0);
    for (int i = 0; i < 4; ++i)
        img[44 + i] = 0xEE;
    Tlv t;
    Gap g;
    ASSERT_EQ(find_message(img.data(), img.size(), 1, 8, t, g), ZEL_OK);
    ASSERT_TRUE(g.present);
    EXPECT_EQ(g.start, 44u);
    EXPECT_EQ(phys_at(t.value(), 43 - 12, g), 43u);
    EXPECT_EQ(phys_at(t.value(), 44 - 12, g), 48u);
    const Bytes v = data_view(img.data(), img.size(), t.value(), g);
    EXPECT_EQ(v.size(), img.size() - 12 - 4);
    for (uint8_t b : v)
        EXPECT_NE(b, 0xEE);
    // A memory control TLV first in the area is not seen.
    const Bytes alone = {0x02, 0x03, 0xF0, 0x04, 0x02, 0x03, 0x00, 0xFE};
    Gap g2;
    ASSERT_EQ(find_message(alone.data(), alone.size(), 1, 8, t, g2), ZEL_OK);
    EXPECT_FALSE(g2.present);
}

struct Built {
    uint8_t tnf;
    Bytes type, id, payload;
};

TEST(NdefRecords, BuiltRecordsParseBackToTheirParts)
{
    const Bytes big(300, 0x5A);
    const Built cases[] = {
        {1, {'U'}, {}, {0x04, 'a', 'b'}}, {1, {'T'}, {'i', 'd'}, {0x02, 'e', 'n', 'x'}},
        {2, {'a', '/', 'b'}, {}, big},    {4, {'x', ':', 'y'}, {'7'}, big},
        {5, {}, {}, {1, 2, 3}},           {6, {}, {'q'}, {9}},
        {3, {'u', 'r', 'n'}, {}, {}},     {5, {}, {}, big},
    };
    for (const Built &c : cases) {
        Bytes out;
        uint32_t at = 0;
        ASSERT_TRUE(build_record(0xC0, c.tnf, c.type.data(), static_cast<uint8_t>(c.type.size()), c.id.data(),
                                 static_cast<uint8_t>(c.id.size()), c.payload.data(),
                                 static_cast<uint32_t>(c.payload.size()), out, &at));
        Record r;
        ASSERT_TRUE(parse_record(out.data(), out.size(), r)) << int(c.tnf);
        EXPECT_EQ(r.size, out.size());
        EXPECT_EQ(r.tnf, c.tnf);
        EXPECT_EQ(r.flags & 0xC0, 0xC0);
        EXPECT_EQ(r.id_len, c.id.size());
        EXPECT_EQ(r.payload_len, c.payload.size());
        EXPECT_EQ(Bytes(out.begin() + at, out.end()), c.payload);
        const bool special = c.tnf == 5 || c.tnf == 6;
        // The short-record flag follows the payload's size for every TNF; TNF 5 and 6 still take the long length
        // form and carry no type, whatever the caller gave.
        EXPECT_EQ(out[0] & 0x10, c.payload.size() < 256 ? 0x10 : 0x00);
        if (special) {
            EXPECT_EQ(r.header_len, 6u + (c.id.empty() ? 0u : 1u));
        }
        EXPECT_EQ(r.type_len, special ? 0 : c.type.size());
        EXPECT_EQ(Bytes(out.begin() + r.header_len, out.begin() + r.header_len + r.type_len),
                  special ? Bytes{} : c.type);
    }
    Bytes out;
    EXPECT_FALSE(build_record(0xC0, 0, nullptr, 0, nullptr, 0, nullptr, 0, out));
    EXPECT_FALSE(build_record(0xC0, 7, nullptr, 0, nullptr, 0, nullptr, 0, out));
}

TEST(NdefRecords, LyingHeadersDoNotParse)
{
    const Bytes cases[] = {
        {0xD1, 0x01},                              // header cut short
        {0xD1, 0x01, 0x09, 'U', 0x00},             // payload longer than what is there
        {0xC1, 0x01, 0xFF, 0xFF, 0xFF, 0xFF, 'U'}, // 4 GB payload
        {0xD9, 0x01, 0x01},                        // IL without its length byte
        {0xD9, 0x01, 0x00, 0xF0, 'U'},             // id longer than what is there
        {0xD5, 0x00, 0x01, 0x00},                  // TNF 5 read in the long form: six header bytes needed
    };
    for (const Bytes &b : cases) {
        Record r;
        EXPECT_FALSE(parse_record(b.data(), b.size(), r)) << b.size();
    }
    // The walk refuses a message whose records do not fit, and stops at the TLV length.
    const Bytes msg = {0x91, 0x01, 0x01, 'T', 'a', 0x51, 0x01, 0x01, 'T', 'b', 0xFE};
    std::vector<uint32_t> offs;
    ASSERT_TRUE(walk_records(msg.data(), msg.size(), 10, offs));
    EXPECT_EQ(offs, (std::vector<uint32_t>{0, 5}));
    ASSERT_TRUE(walk_records(msg.data(), msg.size(), 4, offs)); // a length one short still walks the record
    EXPECT_EQ(offs.size(), 1u);
    EXPECT_FALSE(walk_records(msg.data(), 7, 10, offs));
}

TEST(NdefDirectory, ChecksumMatchesThePublishedValue)
{
    Bytes mad1 = {0x01};
    for (int i = 0; i < 15; ++i) {
        mad1.push_back(0x03);
        mad1.push_back(0xE1);
    }
    EXPECT_EQ(mad_crc(mad1.data(), mad1.size()), 0x14); // the reference vector of a formatted 1K card
    mad1[5] ^= 1;
    EXPECT_NE(mad_crc(mad1.data(), mad1.size()), 0x14);
}

TEST(NdefCapabilityContainer, FieldsAndMissingMagic)
{
    uint8_t major = 9, minor = 9, r = 9, w = 9;
    uint32_t size = 9;
    const uint8_t cc[4] = {0xE1, 0x11, 0x3E, 0x0F};
    ASSERT_EQ(NDEF_ParseCC(cc, &major, &minor, &size, &r, &w), ZEL_OK);
    EXPECT_EQ(major, 1);
    EXPECT_EQ(minor, 1);
    EXPECT_EQ(size, 496u);
    EXPECT_EQ(r, 1);
    EXPECT_EQ(w, 0);
    const uint8_t open[4] = {0xE1, 0x40, 0x10, 0x00};
    ASSERT_EQ(NDEF_ParseCC(open, &major, &minor, &size, &r, &w), ZEL_OK);
    EXPECT_EQ(major, 4);
    EXPECT_EQ(w, 1);
    const uint8_t locked[4] = {0xE1, 0x10, 0x10, 0xF0};
    ASSERT_EQ(NDEF_ParseCC(locked, &major, &minor, &size, &r, &w), ZEL_OK);
    EXPECT_EQ(r, 0);
    const uint8_t none[4] = {0xE2, 0x10, 0x10, 0x00};
    EXPECT_EQ(NDEF_ParseCC(none, &major, &minor, &size, &r, &w), ZEL_WRONG_NDEF_CARD_FORMAT);
    EXPECT_EQ(major | minor | r | w, 0);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(NDEF_ParseCC(nullptr, &major, &minor, &size, &r, &w), ZEL_PARAMETERS_ERROR);
}

TEST(NdefCapabilityContainer, Type4ContainerLimits)
{
    const Bytes good = {0x00, 0x0F, 0x20, 0x00, 0x3B, 0x00, 0x34, 0x04, 0x06, 0xE1, 0x04, 0x00, 0xFF, 0x00, 0x00};
    T4Cc cc;
    ASSERT_TRUE(parse_t4_cc(good.data(), good.size(), cc));
    EXPECT_EQ(cc.mle, 0x3B);
    EXPECT_EQ(cc.mlc, 0x34);
    EXPECT_EQ(cc.file_id, 0xE104);
    EXPECT_EQ(cc.max_size, 0xFF);
    struct Bad {
        size_t at;
        uint8_t value;
    } bad[] = {{2, 0x30}, {4, 0x0E}, {6, 0x00}, {7, 0x05}, {8, 0x07}, {12, 0x04}, {11, 0xFF}};
    for (const Bad &b : bad) {
        Bytes c = good;
        c[b.at] = b.value;
        if (b.at == 11)
            c[12] = 0xFF; // 0xFFFF
        EXPECT_FALSE(parse_t4_cc(c.data(), c.size(), cc)) << b.at;
    }
    EXPECT_FALSE(parse_t4_cc(good.data(), 14, cc));
}

TEST(NdefType4Chain, SizesMustAddUpToNlen)
{
    // A file image: NLEN then two records.
    const Bytes rec = {0x91, 0x01, 0x02, 'T', 'a', 'b', 0x59, 0x01, 0x01, 0x01, 'T', 'i', 'c'};
    auto reader_for = [](const Bytes &file, int *reads) {
        return [file, reads](uint32_t off, uint32_t n, uint8_t *out) {
            ++*reads;
            if (off > file.size())
                return -1;
            const uint32_t k = std::min<uint32_t>(n, static_cast<uint32_t>(file.size()) - off);
            std::memcpy(out, file.data() + off, k);
            return static_cast<int>(k);
        };
    };
    Bytes file = {0x00, static_cast<uint8_t>(rec.size())};
    file.insert(file.end(), rec.begin(), rec.end());
    std::vector<uint32_t> offs;
    std::vector<uint8_t> flags;
    int reads = 0;
    ASSERT_EQ(t4_walk(reader_for(file, &reads), static_cast<uint32_t>(rec.size()), offs, flags), ZEL_OK);
    EXPECT_EQ(offs, (std::vector<uint32_t>{2, 8}));
    EXPECT_EQ(flags, (Bytes{0x91, 0x59}));
    EXPECT_LE(reads, 4); // header bytes only, not the bodies
    EXPECT_EQ(t4_walk(reader_for(file, &reads), static_cast<uint32_t>(rec.size()) - 1, offs, flags),
              ZEL_WRONG_NDEF_CARD_FORMAT);
    EXPECT_EQ(t4_walk(reader_for(file, &reads), static_cast<uint32_t>(rec.size()) + 3, offs, flags),
              ZEL_WRONG_NDEF_CARD_FORMAT);
    // NLEN of 2 or less counts as an empty file.
    ASSERT_EQ(t4_walk(reader_for(file, &reads), 2, offs, flags), ZEL_OK);
    EXPECT_TRUE(offs.empty());
}

TEST(NdefUri, PrefixTable)
{
    const std::map<uint8_t, const char *> known = {{1, "http://www."}, {4, "https://"},   {6, "mailto:"},
                                                   {0x0A, "sftp://"},  {0x1D, "file://"}, {0x23, "urn:nfc:"}};
    for (const auto &k : known)
        EXPECT_STREQ(uri_prefix(k.first), k.second) << int(k.first);
    EXPECT_EQ(uri_prefix(0), nullptr);
    EXPECT_EQ(uri_prefix(0x24), nullptr);
}

} // namespace
