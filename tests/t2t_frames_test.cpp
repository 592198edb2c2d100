// Type 2 tag extras on a scripted link: each operation's frame and EXT byte for byte, the reply sizes that
// are refused, the malformed signature replies and the Ultralight C key layout on the wire.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <vector>

#include "script_link.h"
#include "tandro.h"

using namespace zeltest;

namespace {

Bytes err(uint8_t code)
{
    return frame(0xEC, code, 0xCE);
}
Bytes seq(uint8_t from, size_t n)
{
    Bytes b(n);
    for (size_t i = 0; i < n; ++i)
        b[i] = static_cast<uint8_t>(from + i);
    return b;
}
Bytes zeros(size_t n)
{
    return Bytes(n, 0);
}
Bytes join(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

const Bytes KEY16 = seq(0x30, 16);
const Bytes KEY6 = seq(0xA0, 6);
const Bytes KEY24 = seq(0x50, 24);
const Bytes PWD = {0x12, 0x34, 0x56, 0x78};

// Commands with an EXT: the frame, the EXT, and a reply of the header alone.
TEST(T2TFrames, CommandsWithExtOnTheWire)
{
    uint8_t pack[2], reply[16], sig[56], sig_len = 0;
    uint32_t value = 0;
    struct Case {
        const char *what;
        std::function<ZEL_STATUS(ZEL_HANDLE)> call;
        Bytes frame, data, reply_ext;
    } cases[] = {
        {"NFC counter, reader key",
         [&](ZEL_HANDLE h) { return ReadNFCCounterPwdAuth_RKM(h, &value, 7); },
         cmd(0xB1, 3, 1, 2),
         {7, 0},
         {1, 0, 0, 0}},
        {"NFC counter, given bytes",
         [&](ZEL_HANDLE h) { return ReadNFCCounterPwdAuth_PKM(h, &value, KEY6.data()); },
         cmd(0xB1, 7, 0x61, 2),
         KEY6,
         {1, 0, 0, 0}},
        {"increment",
         [](ZEL_HANDLE h) { return IncrementCounterM(h, 1, 0x01020304); },
         cmd(0xB2, 5, 0, 1),
         {4, 3, 2, 1},
         {}},
        {"password, reader key",
         [&](ZEL_HANDLE h) { return T2T_PwdAuthM(h, 5, pack); },
         cmd(0xB7, 5, 1, 5),
         zeros(4),
         {0xAB, 0xCD}},
        {"password given",
         [&](ZEL_HANDLE h) { return T2T_PwdAuth_PKM(h, PWD.data(), pack); },
         cmd(0xB7, 5, 0x61, 0),
         PWD,
         {0xAB, 0xCD}},
        {"Ultralight C, reader key", [](ZEL_HANDLE h) { return UlcAuthM(h, 3); }, cmd(0xB7, 0x11, 1, 3), zeros(16), {}},
        {"Ultralight C, key given",
         [](ZEL_HANDLE h) { return UlcAuth_PKM(h, KEY16.data()); },
         cmd(0xB7, 0x11, 0x80, 0),
         KEY16,
         {}},
        {"Ultralight C, external",
         [](ZEL_HANDLE h) { return ULC_ExternalAuth_PKM(h, KEY16.data()); },
         cmd(0xB7, 0x11, 0x80, 0),
         KEY16,
         {}},
        {"MIFARE key A, reader",
         [](ZEL_HANDLE h) { return MifareAuthKeyAM(h, 8, 4); },
         cmd(0xB7, 8, 0, 4),
         join({{8}, zeros(6)}),
         {}},
        {"MIFARE key B, reader",
         [](ZEL_HANDLE h) { return MifareAuthKeyBM(h, 9, 30); },
         cmd(0xB7, 8, 1, 30),
         join({{9}, zeros(6)}),
         {}},
        {"MIFARE key A given",
         [](ZEL_HANDLE h) { return MifareAuthKeyA_PKM(h, 12, KEY6.data()); },
         cmd(0xB7, 8, 0x60, 0),
         join({{12}, KEY6}),
         {}},
        {"MIFARE key B given",
         [](ZEL_HANDLE h) { return MifareAuthKeyB_PKM(h, 13, KEY6.data()); },
         cmd(0xB7, 8, 0x61, 0),
         join({{13}, KEY6}),
         {}},
        {"random id",
         [&](ZEL_HANDLE h) { return SetRIDM(h, 5, reply); },
         cmd(0xB6, 0x13, 1, 0),
         join({{1, 5}, zeros(16)}),
         {}},
        {"random id key",
         [&](ZEL_HANDLE h) { return SetRID_KeyM(h, KEY16.data(), reply); },
         cmd(0xB6, 0x13, 2, 0),
         join({{0, 0}, KEY16}),
         {}},
        {"NTAG DNA signature, reader key",
         [&](ZEL_HANDLE h) { return nt4h_rid_read_ecc_signatureM(h, 3, 1, sig, &sig_len); }, cmd(0xBF, 0x13, 2, 1),
         join({{1, 3}, zeros(16)}), seq(1, 56)},
        {"NTAG DNA signature, key given",
         [&](ZEL_HANDLE h) { return nt4h_rid_read_ecc_signature_pkM(h, KEY16.data(), 2, sig, &sig_len); },
         cmd(0xBF, 0x13, 2, 2), join({{0, 0}, KEY16}), seq(1, 56)},
        {"DESFire signature, AES",
         [&](ZEL_HANDLE h) {
             return ReadECCSignatureDesfireHnd(h, 0, 0, KEY16.data(), 0x123456, 2, 7, 0x00, sig, &sig_len);
         },
         cmd(0xBF, 0x18, 0x03, 0), join({{0, 0}, KEY16, {0x56, 0x34, 0x12, 2, 7}}), seq(1, 56)},
        {"DESFire signature, 3K3DES",
         [&](ZEL_HANDLE h) {
             return ReadECCSignatureDesfireHnd(h, 0, 0, KEY24.data(), 0xA1B2C3, 1, 0, 0x10, sig, &sig_len);
         },
         cmd(0xBF, 0x20, 0x13, 0), join({{0, 0}, seq(0x50, 16), {0xC3, 0xB2, 0xA1, 1, 0}, seq(0x60, 8)}), seq(1, 56)},
        {"DESFire signature, reader key",
         [&](ZEL_HANDLE h) {
             return ReadECCSignatureDesfireHnd(h, 1, 9, nullptr, 0x000001, 0, 0, 0x30, sig, &sig_len);
         },
         cmd(0xBF, 0x18, 0x33, 0), join({{1, 9}, zeros(16), {1, 0, 0, 0, 0}}), seq(1, 56)},
    };
    for (const Case &c : cases) {
        ScriptLink link;
        link.reply(ack(c.frame[1], c.frame[3]));
        const Bytes e = c.reply_ext.empty() ? Bytes{} : ext(c.reply_ext);
        link.reply(cat(rsp(c.frame[1], static_cast<uint8_t>(e.size()), 56), e));
        EXPECT_EQ(c.call(&link.record), ZEL_OK) << c.what;
        ASSERT_EQ(link.writes.size(), 2u) << c.what;
        EXPECT_EQ(link.writes[0], c.frame) << c.what;
        EXPECT_EQ(link.writes[1], ext(c.data)) << c.what;
    }
}

// Commands without EXT and what their replies give.
TEST(T2TFrames, ReadsWithoutExt)
{
    {
        ScriptLink link;
        link.reply(cat(rsp(0xB1, 5), ext({0x45, 0x23, 0x01, 0x00})));
        uint32_t v = 0;
        ASSERT_EQ(ReadCounterM(&link.record, 1, &v), ZEL_OK);
        EXPECT_EQ(link.writes[0], cmd(0xB1, 0, 0, 1));
        EXPECT_EQ(v, 0x012345u);
    }
    {
        ScriptLink link;
        link.reply(cat(rsp(0xB1, 5), ext({1, 2, 3, 4})));
        uint32_t v = 0;
        ASSERT_EQ(ReadNFCCounterM(&link.record, &v), ZEL_OK);
        EXPECT_EQ(link.writes[0], cmd(0xB1, 0, 0, 2));
        EXPECT_EQ(v, 0x04030201u);
    }
    {
        ScriptLink link;
        link.reply(cat(rsp(0xB4, 6), ext({'T', 'A', 'M', 'P', 0x43})));
        uint8_t msg[4], st = 0;
        ASSERT_EQ(ReadTTStatusM(&link.record, msg, &st), ZEL_OK);
        EXPECT_EQ(link.writes[0], cmd(0xB4, 0, 0, 0));
        EXPECT_EQ(Bytes(msg, msg + 4), (Bytes{'T', 'A', 'M', 'P'}));
        EXPECT_EQ(st, 0x43);
    }
    {
        ScriptLink link;
        const Bytes sig = seq(0x80, 32), uid = {4, 1, 2, 3, 4, 5, 6, 0xEE, 0xEE, 0xEE};
        link.reply(cat(rsp(0xBF, 43, 0x08, 7), ext(join({sig, uid}))));
        uint8_t s[32], u[10], ul = 0, type = 0;
        ASSERT_EQ(ReadECCSignatureM(&link.record, s, u, &ul, &type), ZEL_OK);
        EXPECT_EQ(link.writes[0], cmd(0xBF, 0, 0, 0));
        EXPECT_EQ(Bytes(s, s + 32), sig);
        EXPECT_EQ(Bytes(u, u + 10), (Bytes{4, 1, 2, 3, 4, 5, 6, 0, 0, 0})); // only the UID's own length
        EXPECT_EQ(ul, 7);
        EXPECT_EQ(type, 0x08);
    }
    {
        ScriptLink link;
        const Bytes sig = seq(0x10, 48), uid = join({seq(0x20, 4), zeros(6)});
        link.reply(cat(rsp(0xBF, 59, 0x12, 4), ext(join({sig, uid}))));
        uint8_t s[56], sl = 0, u[10], ul = 0, type = 0;
        ASSERT_EQ(ReadECCSignatureExtM(&link.record, s, &sl, u, &ul, &type), ZEL_OK);
        EXPECT_EQ(link.writes[0], cmd(0xBF, 0, 1, 0));
        EXPECT_EQ(sl, 48);
        EXPECT_EQ(Bytes(s, s + 48), sig);
        EXPECT_EQ(Bytes(u, u + 4), seq(0x20, 4));
        EXPECT_EQ(ul, 4);
    }
}

// Replies of the wrong size or shape: the size faults, the malformed signature replies, and nothing
// written past the caller's buffers or into a value on failure.
TEST(T2TFrames, RefusedReplies)
{
    {
        // Extended size 42: the header's outputs are written already.
        ScriptLink link;
        link.reply(cat(rsp(0xBF, 42, 0x09, 7), ext(seq(0, 41))));
        uint8_t s[32], u[10], ul = 0, type = 0;
        EXPECT_EQ(ReadECCSignatureM(&link.record, s, u, &ul, &type), ZEL_BUFFER_OVERFLOW);
        EXPECT_EQ(type, 0x09);
        EXPECT_EQ(ul, 7);
    }
    {
        // A UID length over 10 with the right size.
        ScriptLink link;
        link.reply(cat(rsp(0xBF, 43, 0x09, 11), ext(seq(0, 42))));
        uint8_t buf[32 + 10 + 8];
        std::memset(buf, 0xEE, sizeof buf);
        uint8_t ul = 0, type = 0;
        EXPECT_EQ(ReadECCSignatureM(&link.record, buf, buf + 32, &ul, &type), ZEL_COMMUNICATION_ERROR);
        EXPECT_TRUE(std::all_of(buf + 42, buf + sizeof buf, [](uint8_t b) { return b == 0xEE; }));
    }
    {
        // Extended forms: a signature of 57 bytes, a UID of 11, a reply shorter than the UID field.
        const struct {
            uint8_t uid_len;
            size_t data;
        } bad[] = {{7, 57 + 10}, {11, 32 + 10}, {4, 9}};
        for (const auto &b : bad) {
            ScriptLink link;
            link.reply(cat(rsp(0xBF, static_cast<uint8_t>(b.data + 1), 1, b.uid_len), ext(seq(0, b.data))));
            uint8_t s[56 + 8], sl = 0xEE, u[10 + 8], ul = 0, type = 0;
            std::memset(s, 0xEE, sizeof s);
            std::memset(u, 0xEE, sizeof u);
            EXPECT_EQ(ReadECCSignatureExtM(&link.record, s, &sl, u, &ul, &type), ZEL_COMMUNICATION_ERROR) << b.data;
            EXPECT_TRUE(std::all_of(s + 56, s + sizeof s, [](uint8_t x) { return x == 0xEE; }));
            EXPECT_TRUE(std::all_of(u + 10, u + sizeof u, [](uint8_t x) { return x == 0xEE; }));
        }
    }
    {
        // NTAG DNA: more than 56 bytes, or a length in PAR0 beyond the data.
        const struct {
            uint8_t p0;
            size_t data;
        } bad[] = {{56, 57}, {40, 30}};
        for (const auto &b : bad) {
            ScriptLink link;
            link.reply(ack(0xBF, 0x13));
            link.reply(cat(rsp(0xBF, static_cast<uint8_t>(b.data + 1), b.p0), ext(seq(0, b.data))));
            uint8_t s[56 + 8], sl = 0;
            std::memset(s, 0xEE, sizeof s);
            EXPECT_EQ(nt4h_rid_read_ecc_signatureM(&link.record, 0, 0, s, &sl), ZEL_COMMUNICATION_ERROR);
            EXPECT_TRUE(std::all_of(s + 56, s + sizeof s, [](uint8_t x) { return x == 0xEE; }));
        }
    }
    {
        // A counter reply of 4 bytes, a bad checksum, a reader error: the value stays.
        uint32_t v = 0xDEADBEEF;
        ScriptLink a;
        a.reply(cat(rsp(0xB1, 4), ext({1, 2, 3})));
        EXPECT_EQ(ReadCounterM(&a.record, 0, &v), ZEL_BUFFER_OVERFLOW);
        ScriptLink b;
        Bytes e = ext({1, 2, 3, 4});
        e.back() ^= 1;
        b.reply(cat(rsp(0xB1, 5), e));
        EXPECT_EQ(ReadCounterM(&b.record, 0, &v), ZEL_COMMUNICATION_ERROR);
        ScriptLink c;
        c.reply(ack(0xB1, 3));
        c.reply(err(14));
        EXPECT_EQ(ReadNFCCounterPwdAuth_RKM(&c.record, &v, 1), ZEL_AUTH_ERROR);
        EXPECT_EQ(v, 0xDEADBEEFu);
    }
    {
        ScriptLink link;
        link.reply(cat(rsp(0xB4, 5), ext({1, 2, 3, 4})));
        uint8_t msg[4], st = 0;
        EXPECT_EQ(ReadTTStatusM(&link.record, msg, &st), ZEL_BUFFER_OVERFLOW);
    }
    {
        // A PACK reply of three bytes.
        ScriptLink link;
        link.reply(ack(0xB7, 5));
        link.reply(cat(rsp(0xB7, 4), ext({1, 2, 3})));
        uint8_t pack[2];
        EXPECT_EQ(T2T_PwdAuth_PKM(&link.record, PWD.data(), pack), ZEL_BUFFER_OVERFLOW);
    }
    EXPECT_EQ(OriginalityCheckM(nullptr, nullptr, nullptr, 0, 0), ZEL_NOT_IMPLEMENTED);
    EXPECT_EQ(OriginalityCheck(nullptr, nullptr, 7, 8), ZEL_NOT_IMPLEMENTED);
}

// The random id functions copy the reply's data, less its checksum, into a 16-byte buffer.
TEST(T2TFrames, RandomIdReplies)
{
    {
        ScriptLink link;
        link.reply(ack(0xB6, 0x13));
        link.reply(cat(rsp(0xB6, 8), ext(seq(0x04, 7))));
        uint8_t uid[16];
        std::memset(uid, 0xEE, sizeof uid);
        ASSERT_EQ(GetUIDM(&link.record, 4, nullptr, uid), ZEL_OK);
        EXPECT_EQ(link.writes[0], cmd(0xB6, 0x13, 3, 0));
        EXPECT_EQ(link.writes[1], ext(join({{1, 4}, zeros(16)})));
        EXPECT_EQ(Bytes(uid, uid + 8), join({seq(0x04, 7), {0xEE}}));
    }
    {
        ScriptLink link;
        link.reply(ack(0xB6, 0x13));
        link.reply(cat(rsp(0xB6, 18), ext(seq(0, 17))));
        uint8_t reply[16 + 4];
        std::memset(reply, 0xEE, sizeof reply);
        EXPECT_EQ(GetUIDM(&link.record, 0, KEY16.data(), reply), ZEL_BUFFER_OVERFLOW);
        EXPECT_EQ(link.writes[1], ext(join({{0, 0}, KEY16})));
        EXPECT_TRUE(std::all_of(reply, reply + sizeof reply, [](uint8_t x) { return x == 0xEE; }));
    }
}

// The key goes to pages 44 to 47 with the halves swapped and each group of four reversed: page by page
// without authentication (stopping at the first failure), or in one linear write with the old key.
TEST(T2TFrames, UltralightCKeyLayout)
{
    const Bytes pages = {7, 6, 5, 4, 3, 2, 1, 0, 15, 14, 13, 12, 11, 10, 9, 8};
    Bytes key(16);
    for (int i = 0; i < 16; ++i)
        key[i] = static_cast<uint8_t>(i);
    {
        ScriptLink link;
        for (int p = 0; p < 4; ++p) {
            link.reply(ack(0x17, 21));
            link.reply(rsp(0x17));
        }
        ASSERT_EQ(ULC_write_3des_key_no_authM(&link.record, key.data()), ZEL_OK);
        ASSERT_EQ(link.writes.size(), 8u);
        for (int p = 0; p < 4; ++p) {
            EXPECT_EQ(link.writes[2 * p][1], 0x17);
            const Bytes &e = link.writes[2 * p + 1];
            EXPECT_EQ(e[0], 44 + p);
            const Bytes want(pages.begin() + 4 * p, pages.begin() + 4 * p + 4);
            EXPECT_NE(std::search(e.begin(), e.end(), want.begin(), want.end()), e.end()) << p;
        }
    }
    {
        ScriptLink link;
        link.reply(ack(0x17, 21));
        link.reply(rsp(0x17));
        link.reply(ack(0x17, 21));
        link.reply(err(4));
        EXPECT_EQ(ULC_write_3des_key_no_authM(&link.record, key.data()), ZEL_WRITING_ERROR);
        EXPECT_EQ(link.writes.size(), 4u); // pages 46 and 47 were not tried
    }
    {
        ScriptLink link;
        link.reply(ack(0x15, 37));
        link.reply(rsp(0x15));
        const Bytes old = seq(0x90, 16);
        ASSERT_EQ(ULC_write_3des_keyM(&link.record, key.data(), old.data()), ZEL_OK);
        ASSERT_GE(link.writes.size(), 2u);
        EXPECT_EQ(link.writes[0][1], 0x15);
        EXPECT_EQ(link.writes[0][4], 0x80);
        const Bytes &e = link.writes[1];
        EXPECT_EQ(e[0] | e[1] << 8, 160);
        EXPECT_EQ(e[2] | e[3] << 8, 16);
        EXPECT_NE(std::search(e.begin(), e.end(), old.begin(), old.end()), e.end());
        EXPECT_NE(std::search(e.begin(), e.end(), pages.begin(), pages.end()), e.end());
    }
}

} // namespace
