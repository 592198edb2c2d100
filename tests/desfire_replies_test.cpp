// The DESFire family against a scripted reader: the frames of chunked writes, and replies that are short,
// long, lying or endless.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "core/frame.h"
#include "script_link.h"
#include "smartcard/desfire_internal.h"
#include "tandro.h"

namespace {

using zeltest::ack;
using zeltest::Bytes;
using zeltest::cat;
using zeltest::checksum;
using zeltest::frame;
using zeltest::response;
using zeltest::ScriptLink;

// The card status and error tail of a reply's data.
Bytes results(uint16_t cs, uint16_t et = 9)
{
    return {static_cast<uint8_t>(cs), static_cast<uint8_t>(cs >> 8), static_cast<uint8_t>(et), 0};
}

const uint8_t kKey[16] = {0x3A, 0x4B, 0x5C, 0x6D, 0x7E, 0x8F, 0x90, 0xA1,
                          0xB2, 0xC3, 0xD4, 0xE5, 0xF6, 0x07, 0x18, 0x29};

TEST(DesfireWrite, DataGoesInPiecesOf160AfterEachPrompt)
{
    struct Case {
        uint16_t len;
        std::vector<size_t> pieces; // bytes of each later piece
    } cases[] = {{0, {}}, {160, {}}, {161, {1}}, {320, {160}}, {500, {160, 160, 20}}};
    for (const auto &c : cases) {
        ScriptLink link;
        link.reply(ack(0x82));
        for (size_t i = 0; i < c.pieces.size(); ++i)
            link.reply({0xAD});
        link.reply(cat({0xDD}, response(0x82, results(CARD_OPERATION_OK))));
        Bytes data(c.len);
        for (size_t i = 0; i < data.size(); ++i)
            data[i] = static_cast<uint8_t>(i ^ 0x5A);
        uint16_t cs = 0, et = 0;
        ASSERT_EQ(
            Zel_int_DesfireWriteStdDataFile_PKM(&link.record, kKey, 0x332211, 2, 5, 7, c.len, 3, data.data(), &cs, &et),
            ZEL_OK)
            << c.len;
        EXPECT_EQ(cs, CARD_OPERATION_OK);
        EXPECT_EQ(et, 9);
        ASSERT_EQ(link.writes.size(), 2 + c.pieces.size()) << c.len;
        const size_t first = c.len < 160 ? c.len : 160;
        EXPECT_EQ(link.writes[0][3], 30 + first);
        const Bytes &ext = link.writes[1];
        ASSERT_EQ(ext.size(), 30 + first);
        EXPECT_EQ(Bytes(ext.begin() + 2, ext.begin() + 18), Bytes(kKey, kKey + 16));
        EXPECT_EQ(ext[26], static_cast<uint8_t>(c.len));
        EXPECT_EQ(ext[27], c.len >> 8);
        EXPECT_EQ(Bytes(ext.begin() + 29, ext.begin() + 29 + first), Bytes(data.begin(), data.begin() + first));
        EXPECT_EQ(ext.back(), checksum(Bytes(ext.begin(), ext.end() - 1)));
        size_t at = first;
        for (size_t i = 0; i < c.pieces.size(); ++i) {
            const Bytes &p = link.writes[2 + i];
            ASSERT_EQ(p.size(), 1 + c.pieces[i]);
            EXPECT_EQ(p[0], c.pieces[i]) << "a count byte, and no checksum";
            EXPECT_EQ(Bytes(p.begin() + 1, p.end()), Bytes(data.begin() + at, data.begin() + at + c.pieces[i]));
            at += c.pieces[i];
        }
    }
}

TEST(DesfireWrite, AnotherByteThanThePromptBreaksOff)
{
    ScriptLink link;
    link.reply(ack(0x98));
    link.reply(cat({0xDD}, response(0x98, results(3072 + 0xBE))));
    Bytes data(400, 0x11);
    uint16_t cs = 0, et = 0;
    ASSERT_EQ(Zel_int_DesfireWriteRecord_aes_PKM(&link.record, kKey, 1, 0, 2, 0, 400, 0, data.data(), &cs, &et),
              ZEL_OK);
    EXPECT_EQ(cs, DESFIRE_CARD_BOUNDARY_ERROR);
    EXPECT_EQ(link.writes.size(), 2u) << "nothing more is sent";
}

TEST(DesfireStream, PiecesAreBoundedByTheAskedLength)
{
    ScriptLink link;
    link.reply(ack(0x83));
    Bytes stream = {0, 8, 1, 2, 3, 4, 5, 6, 7, 8, 0, 8, 9, 10, 11, 12, 13, 14, 15, 16, 0xDD};
    link.reply(cat(stream, response(0x83, results(CARD_OPERATION_OK))));
    uint8_t out[16];
    std::memset(out, 0xEE, sizeof out);
    uint16_t cs = 0, et = 0;
    EXPECT_EQ(Zel_int_DesfireReadStdDataFile_no_authM(&link.record, 1, 0, 1, 0, 10, 0, out, &cs, &et),
              ZEL_BUFFER_OVERFLOW);
    EXPECT_EQ(cs, CARD_OPERATION_OK) << "the reply is taken whole";
    EXPECT_EQ(out[7], 8);
    EXPECT_EQ(out[8], 0xEE) << "the second piece does not fit and is not written";
    EXPECT_EQ(out[10], 0xEE);
}

TEST(DesfireStream, ZeroLengthReadAndEndlessOrBrokenStreams)
{
    {
        ScriptLink link;
        link.reply(ack(0x83));
        link.reply(cat({0xDD}, response(0x83, results(CARD_OPERATION_OK))));
        uint16_t cs = 0, et = 0;
        EXPECT_EQ(Zel_int_DesfireReadStdDataFile_PKM(&link.record, kKey, 1, 0, 1, 0, 0, 0, nullptr, &cs, &et), ZEL_OK);
        EXPECT_EQ(cs, CARD_OPERATION_OK);
    }
    {
        // Empty pieces without end: the reader is cut off, and the missing reply is the status.
        ScriptLink link;
        link.reply(ack(0x99));
        Bytes endless;
        for (int i = 0; i < 20000; ++i) {
            endless.push_back(0);
            endless.push_back(0);
        }
        link.reply(endless);
        uint8_t out[4];
        uint16_t cs = 0, et = 0;
        EXPECT_NE(Zel_int_DesfireReadRecords_aes_PKM(&link.record, kKey, 1, 0, 1, 0, 1, 4, 0, out, &cs, &et), ZEL_OK);
    }
    {
        // A reply of another size than the results: the results are still written.
        ScriptLink link;
        link.reply(ack(0x83));
        link.reply(cat({0xDD}, response(0x83, cat(results(3001, 77), {0x42}))));
        uint16_t cs = 0, et = 0;
        uint8_t out[4];
        EXPECT_EQ(Zel_int_DesfireReadStdDataFile_PKM(&link.record, kKey, 1, 0, 1, 0, 0, 0, out, &cs, &et),
                  ZEL_PARAMETERS_ERROR);
        EXPECT_EQ(cs, 3001);
        EXPECT_EQ(et, 77);
    }
}

// The stream as a serial line delivers it: whatever has arrived, in chunks that cut pieces, counts and the
// end mark anywhere.
struct Chunks {
    Bytes bytes;
    size_t at = 0, step = 1;
    static uint32_t more(void *ctx, uint8_t *dst, uint32_t max)
    {
        auto *c = static_cast<Chunks *>(ctx);
        size_t n = c->bytes.size() - c->at;
        n = n < c->step ? n : c->step;
        n = n < max ? n : max;
        std::memcpy(dst, c->bytes.data() + c->at, n);
        c->at += n;
        return static_cast<uint32_t>(n);
    }
};

TEST(DesfireStream, ArrivalsCutAnywhereGiveTheSameDataAndLeaveTheReplyBehind)
{
    // 700 bytes in pieces of 128 (the last 60), the end mark, then the start of the closing reply.
    Bytes data(700), stream;
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<uint8_t>(i * 29 + 5);
    for (size_t at = 0; at < data.size(); at += 128) {
        const size_t k = std::min<size_t>(128, data.size() - at);
        stream.push_back(0);
        stream.push_back(static_cast<uint8_t>(k));
        stream.insert(stream.end(), data.begin() + static_cast<long>(at), data.begin() + static_cast<long>(at + k));
    }
    stream.push_back(0xDD);
    const Bytes reply = response(0x83, results(CARD_OPERATION_OK, 9));
    const Bytes line = cat(stream, reply);
    for (size_t step : {size_t{1}, size_t{2}, size_t{3}, size_t{129}, size_t{130}, size_t{1000}, line.size()}) {
        for (uint32_t room : {257u, 300u, 4608u}) {
            Chunks src{line, 0, step};
            Bytes buf(room);
            zel::desfire::StreamBuf sb{buf.data(), room};
            Bytes out(data.size(), 0xEE);
            uint32_t got = 0;
            bool overflow = false;
            EXPECT_TRUE(zel::desfire::read_stream(Chunks::more, &src, sb, out.data(), 700, &got, &overflow));
            EXPECT_EQ(out, data) << step << " " << room;
            EXPECT_EQ(got, 700u);
            EXPECT_FALSE(overflow);
            // What was read behind the end mark and what is still on the line make the reply.
            Bytes rest(buf.begin() + sb.at, buf.begin() + sb.end);
            rest.insert(rest.end(), line.begin() + static_cast<long>(src.at), line.end());
            EXPECT_EQ(rest, reply) << step << " " << room;
        }
    }
    // Room for less than asked: the pieces that do not fit are taken and dropped; a stream that breaks off
    // has no end mark.
    Chunks src{line, 0, 100};
    Bytes buf(257), out(300, 0xEE);
    zel::desfire::StreamBuf sb{buf.data(), 257};
    uint32_t got = 0;
    bool overflow = false;
    EXPECT_TRUE(zel::desfire::read_stream(Chunks::more, &src, sb, out.data(), 300, &got, &overflow));
    EXPECT_EQ(got, 256u);
    EXPECT_TRUE(overflow);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 256), Bytes(data.begin(), data.begin() + 256));
    EXPECT_EQ(out[256], 0xEE);
    Chunks cut{Bytes(stream.begin(), stream.begin() + 200), 0, 7};
    zel::desfire::StreamBuf sb2{buf.data(), 257};
    got = 0;
    EXPECT_FALSE(zel::desfire::read_stream(Chunks::more, &cut, sb2, out.data(), 300, &got, &overflow));
    EXPECT_EQ(got, 128u);
}

TEST(DesfireReplies, ApplicationIdsAreBoundedByTheReplyAndTheRoom)
{
    ScriptLink link;
    link.reply(ack(0xC0));
    // The count claims 200 ids; the reply holds two and a half.
    link.reply(response(0xC0, cat(results(CARD_OPERATION_OK), {200, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88})));
    uint32_t aids[3] = {0xAAAAAAAA, 0xBBBBBBBB, 0xCCCCCCCC};
    uint8_t n = 3;
    uint16_t cs = 0, et = 0;
    ASSERT_EQ(Zel_int_DesfireGetApplicationIds_no_authM(&link.record, aids, &n, &cs, &et), ZEL_OK);
    EXPECT_EQ(n, 2);
    EXPECT_EQ(aids[0], 0xAA332211u) << "three low bytes, little endian";
    EXPECT_EQ(aids[1], 0xBB665544u);
    EXPECT_EQ(aids[2], 0xCCCCCCCCu);
    // The ext shape: auth flag 0 at 18 for the no-auth form.
    ASSERT_EQ(link.writes.size(), 2u);
    EXPECT_EQ(link.writes[1].size(), 20u);
    EXPECT_EQ(link.writes[1][18], 0);
}

TEST(DesfireReplies, UidByReplyLength)
{
    struct Case {
        Bytes data;
        uint8_t len;
        uint16_t cs, et;
        uint8_t first;
    } cases[] = {
        {{0x04, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0xB9, 0x0B, 0x0C, 0x00}, 7, 3001, 12, 0x04},
        {{0xB9, 0x0B, 0x07, 0x00}, 0, 3001, 7, 0x00},
        {{0xEE, 0x0C}, 0x99, 3310, 0x5555, 0x99},
        {{0x01, 0x02, 0x03}, 0, 0, 0, 0x00},
    };
    for (const auto &c : cases) {
        ScriptLink link;
        link.reply(ack(0x80));
        link.reply(response(0x80, c.data));
        uint8_t uid[7];
        std::memset(uid, 0x99, sizeof uid);
        uint8_t len = 0x99;
        uint16_t cs = 0x5555, et = 0x5555;
        ASSERT_EQ(Zel_int_GetDesfireUid_aes_PKM(&link.record, kKey, 0, 0, uid, &len, &cs, &et), ZEL_OK);
        EXPECT_EQ(len, c.len) << c.data.size();
        EXPECT_EQ(cs, c.cs) << c.data.size();
        EXPECT_EQ(et, c.et) << c.data.size();
        EXPECT_EQ(uid[0], c.first) << c.data.size();
    }
}

TEST(DesfireReplies, TransactionMacDataByReplyLength)
{
    Bytes full = results(CARD_OPERATION_OK);
    for (int i = 0; i < 44; ++i)
        full.push_back(static_cast<uint8_t>(0x40 + i));
    {
        ScriptLink link;
        link.reply(ack(0x9B));
        link.reply(response(0x9B, full));
        uint8_t rid[16], prev[16], mac[8];
        uint32_t cnt = 0;
        uint16_t cs = 0, et = 0;
        ASSERT_EQ(Zel_int_DesfireIncreaseValueFile_TransMac_aes_PKM(&link.record, kKey, 1, 0, 2, 0, 100, 1, rid, prev,
                                                                    &cnt, mac, &cs, &et),
                  ZEL_OK);
        EXPECT_EQ(rid[0], 0x40);
        EXPECT_EQ(prev[0], 0x50);
        EXPECT_EQ(cnt, 0x63626160u);
        EXPECT_EQ(Bytes(mac, mac + 8), (Bytes{0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0x6A, 0x6B})) << "all 8 bytes at 40";
        EXPECT_EQ(link.writes[0][5], 3) << "PAR1 3 with the reader id";
    }
    {
        ScriptLink link;
        link.reply(ack(0x6D));
        link.reply(response(0x6D, results(CARD_OPERATION_OK)));
        uint8_t rid[16], prev[16], mac[8];
        std::memset(rid, 1, 16);
        std::memset(mac, 1, 8);
        uint32_t cnt = 5;
        uint16_t cs = 0, et = 0;
        EXPECT_EQ(Zel_int_DesfireClearRecordFile_TransMac_aes_PKM(&link.record, kKey, 1, 2, 0, rid, prev, &cnt, mac,
                                                                  &cs, &et),
                  ZEL_PARAMETERS_ERROR);
        EXPECT_EQ(cnt, 0u);
        EXPECT_EQ(mac[7], 0) << "outputs cleared";
        EXPECT_EQ(link.writes[0][5], 1);
    }
    {
        ScriptLink link;
        link.reply(ack(0x9C));
        link.reply(response(0x9C, full));
        uint16_t cs = 0x1234, et = 0;
        EXPECT_EQ(Zel_int_DesfireDecreaseValueFile_aes_PKM(&link.record, kKey, 1, 0, 2, 0, 1, &cs, &et),
                  ZEL_PARAMETERS_ERROR);
        EXPECT_EQ(cs, 0x1234) << "without the MAC form a long reply leaves the results unwritten";
    }
}

TEST(DesfireReplies, FileSettingsOfEveryTypeAndCutShort)
{
    const Bytes value_reply = cat(results(CARD_OPERATION_OK),
                                  {2, 0x03, 0x21, 0x43, 0x9C, 0xFF, 0xFF, 0xFF, 0xE8, 0x03, 0, 0, 5, 0, 0, 0, 0x01});
    zel_desfire_file_settings s;
    zel::desfire::parse_file_settings(value_reply.data(), static_cast<uint32_t>(value_reply.size()), &s);
    EXPECT_EQ(s.file_type, 2);
    EXPECT_EQ(s.communication_settings, 3);
    EXPECT_EQ(s.read_key_no, 4);
    EXPECT_EQ(s.write_key_no, 3);
    EXPECT_EQ(s.read_write_key_no, 2);
    EXPECT_EQ(s.change_key_no, 1);
    EXPECT_EQ(s.lower_limit, -100);
    EXPECT_EQ(s.upper_limit, 1000);
    EXPECT_EQ(s.limited_credit_value, 5u);
    EXPECT_EQ(s.limited_credit_enabled, 1);
    const Bytes rec = cat(results(3001), {4, 0xFD, 0x00, 0xE0, 0x10, 0, 0, 0x05, 0, 0, 0x03, 0, 0});
    zel::desfire::parse_file_settings(rec.data(), static_cast<uint32_t>(rec.size()), &s);
    EXPECT_EQ(s.communication_settings, 1) << "masked to two bits";
    EXPECT_EQ(s.record_size, 16u);
    EXPECT_EQ(s.max_records, 5u);
    EXPECT_EQ(s.current_records, 3u);
    EXPECT_EQ(s.lower_limit, 0) << "cleared between calls";
    // Every cut of the value reply reads no further than it holds (the sanitizers watch).
    for (size_t cut = 0; cut <= value_reply.size(); ++cut) {
        Bytes part(value_reply.begin(), value_reply.begin() + cut);
        part.shrink_to_fit();
        zel::desfire::parse_file_settings(part.data(), static_cast<uint32_t>(part.size()), &s);
        if (cut < 5) {
            EXPECT_EQ(s.file_type, 0);
        }
        if (cut < 16) {
            EXPECT_EQ(s.upper_limit, 0) << cut;
        }
    }
}

TEST(DesfireReplies, AnErrorFrameEndsTheOperationWithItsCode)
{
    ScriptLink link;
    link.reply(ack(0x8A));
    link.reply(frame(0xEC, ZEL_NO_CARD, 0xCE, 0));
    uint16_t cs = 0, et = 0;
    EXPECT_EQ(Zel_int_DesfireDeleteFile_no_authM(&link.record, 1, 2, &cs, &et), ZEL_NO_CARD);
    ScriptLink refused;
    refused.reply(frame(0xEC, 9, 0xCE, 0));
    EXPECT_EQ(Zel_int_DesfireDeleteFile_no_authM(&refused.record, 1, 2, &cs, &et), 9u) << "the handshake's status";
}

TEST(DesfireKeys, ChangeKeyFramesCarryKeysAndSelector)
{
    const uint8_t k3a[24] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24};
    const uint8_t des[8] = {0xD0, 0xD1, 0xD2, 0xD3, 0xD4, 0xD5, 0xD6, 0xD7};
    {
        ScriptLink link;
        link.reply(ack(0x86));
        link.reply(response(0x86, results(CARD_OPERATION_OK)));
        uint16_t cs = 0, et = 0;
        ASSERT_EQ(Zel_int_DesfireChangeDesKey_2k3desM(&link.record, 6, 0x0A0B0C, 1, des, 3, des, &cs, &et), ZEL_OK);
        const Bytes &f = link.writes[0];
        EXPECT_EQ(f[3], 56);
        EXPECT_EQ(f[4], ZEL_DESFIRE_WIRE_2K3DES + 4 * ZEL_DESFIRE_WIRE_DES);
        const Bytes &e = link.writes[1];
        EXPECT_EQ(e[0] | e[1] << 8, 0x0609) << "bit 3, the auth key in the reader as number 6";
        EXPECT_EQ(Bytes(e.begin() + 22, e.begin() + 38), (Bytes{0xD0, 0xD1, 0xD2, 0xD3, 0xD4, 0xD5, 0xD6, 0xD7, 0xD0,
                                                                0xD1, 0xD2, 0xD3, 0xD4, 0xD5, 0xD6, 0xD7}))
            << "a DES key twice";
        EXPECT_EQ(e[21], 1);
        EXPECT_EQ(e[38], 3);
        EXPECT_EQ(e[18], 0x0C);
    }
    {
        ScriptLink link;
        link.reply(ack(0x86));
        link.reply(response(0x86, results(CARD_OPERATION_OK)));
        uint16_t cs = 0, et = 0;
        ASSERT_EQ(Zel_int_DesfireChange3K3DesKey_3k3des_PKM(&link.record, k3a, 0x010203, 0, k3a, 2, k3a, &cs, &et),
                  ZEL_OK);
        EXPECT_EQ(link.writes[0][3], 80);
        const Bytes &e = link.writes[1];
        ASSERT_EQ(e.size(), 80u);
        EXPECT_EQ(e[0] | e[1] << 8, 0x0008);
        EXPECT_EQ(Bytes(e.begin() + 2, e.begin() + 18), Bytes(k3a, k3a + 16));
        EXPECT_EQ(Bytes(e.begin() + 55, e.begin() + 63), Bytes(k3a + 16, k3a + 24)) << "auth key tail at 55";
        EXPECT_EQ(Bytes(e.begin() + 63, e.begin() + 71), Bytes(k3a + 16, k3a + 24)) << "new key tail at 63";
        EXPECT_EQ(Bytes(e.begin() + 71, e.begin() + 79), Bytes(k3a + 16, k3a + 24)) << "old key tail at 71";
    }
    {
        ScriptLink link;
        link.reply(ack(0x86));
        link.reply(response(0x86, results(CARD_OPERATION_OK)));
        uint16_t cs = 0, et = 0;
        ASSERT_EQ(Zel_SAM_DesfireChangeAesKey_AesAuthM(&link.record, 4, 0x010203, 0, 5, 1, 6, &cs, &et), ZEL_OK);
        EXPECT_EQ(link.writes[0][4], 0x84);
        EXPECT_EQ(link.writes[0][5], 0x85);
        EXPECT_EQ(link.writes[1][0], 0x0F);
        EXPECT_EQ(link.writes[1][1], 0x86);
        EXPECT_EQ(Bytes(link.writes[1].begin() + 2, link.writes[1].begin() + 18), Bytes(16, 0)) << "no key bytes";
    }
}

TEST(DesfireKeys, WriteKeySizesAndTheEepromRoute)
{
    const uint8_t key[24] = {9, 8, 7, 6, 5, 4, 3, 2, 1, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14};
    const struct {
        uint8_t type;
        size_t ext;
    } cases[] = {{ZEL_DESFIRE_WIRE_AES, 18},
                 {ZEL_DESFIRE_WIRE_2K3DES, 18},
                 {ZEL_DESFIRE_WIRE_DES, 10},
                 {ZEL_DESFIRE_WIRE_3K3DES, 26},
                 {7, 2}};
    for (const auto &c : cases) {
        ScriptLink link;
        link.reply(ack(0x8E));
        link.reply(response(0x8E, {0x00}));
        EXPECT_EQ(Zel_int_DesfireWriteKeyM(&link.record, 3, key, c.type), ZEL_OK);
        EXPECT_EQ(link.writes[0][4], c.type);
        EXPECT_EQ(link.writes[1].size(), c.ext);
    }
    ScriptLink link;
    link.reply(ack(0x8E));
    link.reply(response(0x8E, {0x07}));
    EXPECT_EQ(Zel_int_DesfireWriteAesKeyM(&link.record, 3, key), 7u) << "the reader's answer byte";
    link.record.ee_route = 1;
    EXPECT_EQ(Zel_int_DesfireWriteAesKeyM(&link.record, 16, key), ZEL_MAX_KEY_INDEX_EXCEEDED);
}

TEST(DesfireFiles, SdmSettingsGoBehindTheAccessRightsWithTheirLength)
{
    // Communication mode with SDM, access, options with UID and counter mirrors, SDM access, two offsets.
    const Bytes sdm = {0x40, 0x00, 0xE0, 0xC1, 0xFF, 0x12, 0x20, 0x00, 0x00, 0x34, 0x00, 0x00};
    {
        ScriptLink link;
        link.reply(ack(0xCA));
        link.reply(response(0xCA, results(CARD_OPERATION_OK, 31)));
        uint16_t cs = 0, et = 0;
        ASSERT_EQ(Zel_int_DesfireChangeFileSettingsSdm_PKM(&link.record, kKey, 0x0A0B0C, 2, 0x03, 14, 0, 15, 1,
                                                           sdm.data(), static_cast<uint8_t>(sdm.size()), &cs, &et),
                  ZEL_OK);
        EXPECT_EQ(cs, CARD_OPERATION_OK);
        EXPECT_EQ(et, 31);
        EXPECT_EQ(link.writes[0][1], 0xCA);
        EXPECT_EQ(link.writes[0][3], 27 + sdm.size()) << "the SDM data length plus 27";
        const Bytes &e = link.writes[1];
        ASSERT_EQ(e.size(), 27 + sdm.size());
        EXPECT_EQ(e[0], ZEL_DESFIRE_KEY_PROVIDED);
        EXPECT_EQ(Bytes(e.begin() + 2, e.begin() + 18), Bytes(kKey, kKey + 16));
        EXPECT_EQ(e[18] | e[19] << 8 | e[20] << 16, 0x0A0B0C);
        EXPECT_EQ(e[21], 2);
        EXPECT_EQ(e[22], 0x03);
        EXPECT_EQ(e[23] | e[24] << 8, 0xE0F1) << "read 14, write 0, read-write 15, change 1";
        EXPECT_EQ(e[25], sdm.size());
        EXPECT_EQ(Bytes(e.begin() + 26, e.end() - 1), sdm);
        EXPECT_EQ(e.back(), checksum(Bytes(e.begin(), e.end() - 1)));
    }
    {
        // The reader key form names the key by number, the SAM form by its number in the SAM.
        ScriptLink link;
        link.reply(ack(0xCA));
        link.reply(response(0xCA, results(3072 + 0x9D)));
        uint16_t cs = 0, et = 0;
        ASSERT_EQ(
            Zel_SAM_DesfireChangeFileSettingsSdmM(&link.record, 7, 0x0A0B0C, 2, 0, 1, 2, 3, 4, sdm.data(), 6, &cs, &et),
            ZEL_OK);
        EXPECT_EQ(cs, 3072 + 0x9D);
        EXPECT_EQ(link.writes[1][0], ZEL_DESFIRE_KEY_SAM);
        EXPECT_EQ(link.writes[1][1], 7);
        EXPECT_EQ(Bytes(link.writes[1].begin() + 2, link.writes[1].begin() + 18), Bytes(16, 0));
        EXPECT_EQ(link.writes[1][25], 6);
        ScriptLink plain;
        plain.reply(ack(0xCA));
        plain.reply(response(0xCA, results(CARD_OPERATION_OK)));
        ASSERT_EQ(Zel_int_DesfireChangeFileSettingsSdmM(&plain.record, 5, 0x0A0B0C, 2, 0, 1, 2, 3, 4, sdm.data(), 0,
                                                        &cs, &et),
                  ZEL_OK);
        EXPECT_EQ(plain.writes[1][0], ZEL_DESFIRE_KEY_READER);
        EXPECT_EQ(plain.writes[1][1], 5);
        EXPECT_EQ(plain.writes[1].size(), 27u) << "no SDM data";
    }
    {
        // Settings longer than the frame can carry, or missing, are refused before anything is sent.
        ScriptLink link;
        Bytes big(ZEL_DESFIRE_MAX_SDM_SETTINGS + 1, 0x01);
        uint16_t cs = 0, et = 0;
        EXPECT_EQ(Zel_int_DesfireChangeFileSettingsSdm_PKM(&link.record, kKey, 1, 2, 0, 0, 0, 0, 0, big.data(),
                                                           static_cast<uint8_t>(big.size()), &cs, &et),
                  ZEL_PARAMETERS_ERROR);
        EXPECT_EQ(
            Zel_int_DesfireChangeFileSettingsSdm_PKM(&link.record, kKey, 1, 2, 0, 0, 0, 0, 0, nullptr, 4, &cs, &et),
            ZEL_PARAMETERS_ERROR);
        EXPECT_TRUE(link.writes.empty());
    }
}

TEST(DesfireCard, ConfigurationOptionsAtTheCardLevelAndInAnApplication)
{
    const Bytes data = {0x11, 0x22, 0x33};
    {
        ScriptLink link;
        link.reply(ack(0x8B));
        link.reply(response(0x8B, results(CARD_OPERATION_OK)));
        uint16_t cs = 0, et = 0;
        ASSERT_EQ(Zel_int_DesfireSetConfigurationEx_PKM(&link.record, kKey, 0, 0x0B, data.data(), 3, &cs, &et), ZEL_OK);
        EXPECT_EQ(cs, CARD_OPERATION_OK);
        EXPECT_EQ(link.writes[0][4], ZEL_DESFIRE_WIRE_AES << 4);
        EXPECT_EQ(link.writes[0][5], 1) << "card level";
        const Bytes &e = link.writes[1];
        ASSERT_EQ(e.size(), 21 + data.size());
        EXPECT_EQ(e[18], 0x0B);
        EXPECT_EQ(e[19], 3);
        EXPECT_EQ(Bytes(e.begin() + 20, e.begin() + 23), data);
    }
    {
        // In an application the AID goes behind the data; a 3K3DES key field is 8 longer.
        ScriptLink link;
        link.reply(ack(0x8B));
        link.reply(response(0x8B, results(3072 + 0x9E)));
        uint16_t cs = 0, et = 0;
        ASSERT_EQ(Zel_int_DesfireSetConfigurationEx_3k3desM(&link.record, 4, 0xA1B2C3, 0x0B, data.data(), 3, &cs, &et),
                  ZEL_OK);
        EXPECT_EQ(cs, 3072 + 0x9E);
        EXPECT_EQ(link.writes[0][4], ZEL_DESFIRE_WIRE_3K3DES << 4);
        EXPECT_EQ(link.writes[0][5], 2) << "with an AID";
        const Bytes &e = link.writes[1];
        ASSERT_EQ(e.size(), 8 + 21 + data.size() + 3);
        EXPECT_EQ(e[0], ZEL_DESFIRE_KEY_READER);
        EXPECT_EQ(e[1], 4);
        EXPECT_EQ(e[26], 0x0B);
        EXPECT_EQ(Bytes(e.begin() + 28, e.begin() + 31), data);
        EXPECT_EQ(e[31] | e[32] << 8 | e[33] << 16, 0xA1B2C3);
    }
    {
        // The transaction timer is option 5 with ten bytes, the timer value at the sixth.
        ScriptLink link;
        link.reply(ack(0x8B));
        link.reply(response(0x8B, results(CARD_OPERATION_OK)));
        uint16_t cs = 0, et = 0;
        ASSERT_EQ(Zel_SAM_DesfireSetTransactionTimerAesAuthM(&link.record, 2, 0x47, &cs, &et), ZEL_OK);
        const Bytes &e = link.writes[1];
        ASSERT_EQ(e.size(), 31u);
        EXPECT_EQ(e[0], ZEL_DESFIRE_KEY_SAM);
        EXPECT_EQ(Bytes(e.begin() + 18, e.begin() + 30), (Bytes{5, 10, 0, 0, 0, 0, 0, 0x47, 0, 0, 0, 0}));
    }
    ScriptLink link;
    uint16_t cs = 0, et = 0;
    Bytes big(ZEL_DESFIRE_MAX_CONFIG_DATA + 1);
    EXPECT_EQ(Zel_int_DesfireSetConfigurationExM(&link.record, 1, 0, 1, big.data(), static_cast<uint8_t>(big.size()),
                                                 &cs, &et),
              ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(Zel_int_DesfireSetConfigurationExM(&link.record, 1, 0, 1, nullptr, 2, &cs, &et), ZEL_PARAMETERS_ERROR);
    EXPECT_TRUE(link.writes.empty());
}

TEST(DesfireFiles, SdmFileSettingsReadTheOffsetsThatApply)
{
    struct Case {
        const char *what;
        Bytes settings; // behind the two results, file type first
        uint32_t uid, ctr, picc, mac_in, enc_off, enc_len, mac, limit;
    } cases[] = {
        {"plain mirrors, MAC over encrypted data, counter limit",
         {0x00, 0x43, 0xE0, 0xEE, 0x00, 0x01, 0x00, // type, SDM + enciphered, access, size
          0xF1, 0x02, 0xE3,                         // options, SDM access
          0x10, 0x00, 0x00, 0x20, 0x00, 0x00,       // UID, counter
          0x30, 0x00, 0x00, 0x40, 0x00, 0x00, 0x20, 0x00, 0x00, 0x70, 0x00, 0x00, // MAC input, enc, MAC
          0xE8, 0x03, 0x00},                                                      // limit
         0x10,
         0x20,
         0,
         0x30,
         0x40,
         0x20,
         0x70,
         1000},
        {"enciphered PICC data and a MAC",
         {0x00, 0x40, 0xE0, 0xEE, 0x00, 0x01, 0x00, 0xC1, 0x00, 0x22, 0x2A, 0x00, 0x00, 0x50, 0x00, 0x00, 0x80, 0x01,
          0x00},
         0,
         0,
         0x2A,
         0x50,
         0,
         0,
         0x180,
         0},
        {"nothing mirrored", {0x00, 0x40, 0xE0, 0xEE, 0x00, 0x01, 0x00, 0xC1, 0x00, 0xFF}, 0, 0, 0, 0, 0, 0, 0, 0},
        {"cut in the middle of the MAC offset",
         {0x00, 0x40, 0xE0, 0xEE, 0x00, 0x01, 0x00, 0xC1, 0x00, 0x22, 0x2A, 0x00, 0x00, 0x50, 0x00, 0x00, 0x80, 0x01},
         0,
         0,
         0x2A,
         0x50,
         0,
         0,
         0,
         0},
    };
    for (const Case &c : cases) {
        ScriptLink link;
        link.reply(ack(0xC6));
        link.reply(response(0xC6, cat(results(CARD_OPERATION_OK), c.settings)));
        zel_desfire_sdm_file_settings s;
        uint16_t cs = 0, et = 0;
        ASSERT_EQ(Zel_int_DesfireGetFileSettingsSdm_aes_PKM(&link.record, kKey, 0x010203, 2, &s, &cs, &et), ZEL_OK)
            << c.what;
        EXPECT_EQ(cs, CARD_OPERATION_OK) << c.what;
        EXPECT_EQ(link.writes[1].size(), 24u);
        EXPECT_EQ(s.file_type, 0);
        EXPECT_EQ(s.sdm_enabled, 1) << c.what;
        EXPECT_EQ(s.read_key_no, 14) << c.what;
        EXPECT_EQ(s.change_key_no, 0) << c.what;
        EXPECT_EQ(s.file_size, 256u) << c.what;
        const uint32_t got[] = {s.uid_offset, s.read_ctr_offset, s.picc_data_offset, s.mac_input_offset,
                                s.enc_offset, s.enc_length,      s.mac_offset,       s.read_ctr_limit};
        const uint32_t want[] = {c.uid, c.ctr, c.picc, c.mac_in, c.enc_off, c.enc_len, c.mac, c.limit};
        EXPECT_EQ(Bytes(reinterpret_cast<const uint8_t *>(got), reinterpret_cast<const uint8_t *>(got + 8)),
                  Bytes(reinterpret_cast<const uint8_t *>(want), reinterpret_cast<const uint8_t *>(want + 8)))
            << c.what;
    }
    {
        ScriptLink link;
        link.reply(ack(0xC6));
        link.reply(response(
            0xC6, cat(results(CARD_OPERATION_OK), {0x00, 0x43, 0xE0, 0xEE, 0x00, 0x01, 0x00, 0xF1, 0x02, 0xE3, 1, 2})));
        zel_desfire_sdm_file_settings s;
        uint16_t cs = 0, et = 0;
        ASSERT_EQ(Zel_SAM_DesfireGetFileSettingsSdmAesAuthM(&link.record, 3, 0x010203, 2, &s, &cs, &et), ZEL_OK);
        EXPECT_EQ(s.communication_settings, ZEL_DESFIRE_COMM_ENCIPHERED);
        EXPECT_EQ(s.sdm_options, 0xF1);
        EXPECT_EQ(s.meta_read_key_no, 14);
        EXPECT_EQ(s.file_read_key_no, 3);
        EXPECT_EQ(s.read_ctr_key_no, 2);
        EXPECT_EQ(s.uid_offset, 0u) << "an offset of two bytes is not taken";
    }
    {
        // Another file type, and the card's refusal, leave the settings empty.
        ScriptLink link;
        link.reply(ack(0xC6));
        link.reply(response(0xC6, cat(results(CARD_OPERATION_OK), {0x02, 0x40, 0xE0, 0xEE})));
        link.reply(ack(0xC6));
        link.reply(response(0xC6, results(3072 + 0xF0)));
        zel_desfire_sdm_file_settings s;
        std::memset(&s, 0x5A, sizeof s);
        uint16_t cs = 0, et = 0;
        ASSERT_EQ(Zel_int_DesfireGetFileSettingsSdm_aesM(&link.record, 1, 0x010203, 5, &s, &cs, &et), ZEL_OK);
        EXPECT_EQ(cs, ZEL_DESFIRE_NOT_STANDARD_FILE);
        EXPECT_EQ(s.file_type, 0);
        EXPECT_EQ(s.read_key_no, 0);
        ASSERT_EQ(Zel_int_DesfireGetFileSettingsSdm_aesM(&link.record, 1, 0x010203, 5, &s, &cs, &et), ZEL_OK);
        EXPECT_EQ(cs, 3072 + 0xF0);
    }
}

} // namespace
