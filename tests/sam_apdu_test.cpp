// The SAM operations on a scripted reader: the exact APDUs, the authentications against a SAM side computed
// here with OpenSSL from known randoms, and what wrong or hostile answers turn into.
#include <gtest/gtest.h>

#include <cstring>
#include <deque>

#include "core/internal.h"
#include "sam/sam_internal.h"
#include "sam_test_support.h"
#include "script_link.h"
#include "tandro.h"

namespace {

using samtest::Bytes;
using samtest::join;
using samtest::range;
using samtest::rol;
using zeltest::frame;
using zeltest::response;
using zeltest::ScriptLink;

// The host's randoms, in the order it asks for them.
std::deque<uint8_t> g_random;
bool scripted_random(uint8_t *out, uint32_t n)
{
    if (g_random.size() < n)
        return false;
    for (uint32_t i = 0; i < n; ++i) {
        out[i] = g_random.front();
        g_random.pop_front();
    }
    return true;
}

struct RandomScript {
    explicit RandomScript(const Bytes &b)
    {
        g_random.assign(b.begin(), b.end());
        zel::sam::set_random_source(scripted_random);
    }
    ~RandomScript() { zel::sam::set_random_source(nullptr); }
};

Bytes pattern(size_t n, uint8_t seed)
{
    Bytes b(n);
    for (size_t i = 0; i < n; ++i)
        b[i] = static_cast<uint8_t>(seed + i * 29);
    return b;
}

// One APDU of cmd_len bytes answered by data and a status word (SW1 SW2).
void answer(ScriptLink &link, size_t cmd_len, const Bytes &data, uint8_t sw1, uint8_t sw2)
{
    link.reply(frame(0xAC, 0x94, 0xCA, static_cast<uint8_t>(cmd_len + 1), 0, 0));
    link.reply(response(0x94, join({data, {sw1, sw2}})));
}

// The k-th APDU the host sent (two writes each: the frame, then the piece and its checksum).
Bytes apdu(const ScriptLink &link, size_t k)
{
    const Bytes &piece = link.writes.at(2 * k + 1);
    return Bytes(piece.begin(), piece.end() - 1);
}

Bytes version_reply(const Bytes &head, uint8_t mode, const Bytes &uid)
{
    Bytes v(31, 0);
    std::copy(head.begin(), head.end(), v.begin());
    std::copy(uid.begin(), uid.end(), v.begin() + 14);
    v[30] = mode;
    return v;
}

TEST(SamVersion, TypeTableUidAndRefusals)
{
    const Bytes uid = {0x04, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66};
    const Bytes hw3 = {0x04, 0x01, 0x01, 0x03, 0x02}, hw4 = {0x04, 0x01, 0x01, 0x04, 0x01};
    struct Row {
        Bytes head;
        uint8_t mode;
        uint32_t type;
    } rows[] = {{hw3, 0xA1, 1}, {hw3, 0xA2, 2}, {hw4, 0xA1, 3},
                {hw4, 0xA2, 4}, {hw3, 0xA3, 0}, {{0x04, 0x01, 0x01, 0x03, 0x01}, 0xA2, 0}};
    for (const Row &r : rows) {
        ScriptLink link;
        answer(link, 5, version_reply(r.head, r.mode, uid), 0x90, 0x00);
        uint32_t type = 99;
        uint8_t out[7];
        std::memset(out, 0xEE, sizeof out);
        ASSERT_EQ(SAM_get_versionM(&link.record, &type, out), ZEL_OK);
        EXPECT_EQ(apdu(link, 0), (Bytes{0x80, 0x60, 0x00, 0x00, 0x00}));
        EXPECT_EQ(type, r.type);
        EXPECT_EQ(Bytes(out, out + 7), r.type ? uid : Bytes(7, 0));
    }
    // A refusal leaves the type 0 with the transceive's result; so does a reply too short to hold the UID.
    {
        ScriptLink link;
        answer(link, 5, version_reply(hw3, 0xA2, uid), 0x6A, 0x82);
        uint32_t type = 9;
        uint8_t out[7] = {1, 1, 1, 1, 1, 1, 1};
        EXPECT_EQ(SAM_get_versionM(&link.record, &type, out), ZEL_OK);
        EXPECT_EQ(type, 0u);
        EXPECT_EQ(Bytes(out, out + 7), Bytes(7, 0));
    }
    {
        ScriptLink link;
        answer(link, 5, {0x04, 0x01, 0x01, 0x03, 0x02, 0xA2}, 0x90, 0x00);
        uint32_t type = 9;
        uint8_t out[7] = {1, 1, 1, 1, 1, 1, 1};
        EXPECT_EQ(SAM_get_versionM(&link.record, &type, out), ZEL_OK);
        EXPECT_EQ(type, 0u);
        EXPECT_EQ(Bytes(out, out + 7), Bytes(7, 0));
    }
    // Raw: the reply less its status word; more than the buffer holds is refused before any copy.
    {
        ScriptLink link;
        const Bytes v = version_reply(hw4, 0xA1, uid);
        answer(link, 5, v, 0x90, 0x00);
        uint8_t out[SAM_VERSION_RAW_MAX] = {};
        uint32_t n = 0;
        ASSERT_EQ(SAM_get_version_rawM(&link.record, out, &n), ZEL_OK);
        EXPECT_EQ(Bytes(out, out + n), v);
    }
    {
        ScriptLink link;
        answer(link, 5, pattern(SAM_VERSION_RAW_MAX + 1, 1), 0x90, 0x00);
        uint8_t out[SAM_VERSION_RAW_MAX + 8];
        std::memset(out, 0xEE, sizeof out);
        uint32_t n = 77;
        EXPECT_EQ(SAM_get_version_rawM(&link.record, out, &n), ZEL_BUFFER_OVERFLOW);
        EXPECT_EQ(n, 0u);
        EXPECT_EQ(out[0], 0xEE);
    }
}

TEST(SamVersion, EndlessInterimFramesEndWithTheFrameLimit)
{
    static uint32_t now = 0;
    zel::set_tick_hook([] { return now += 400; });
    ScriptLink link;
    Bytes interims;
    for (int i = 0; i < 200; ++i)
        interims = join({interims, frame(0xA1, 0x94, 0x85)});
    link.reply(frame(0xAC, 0x94, 0xCA, 6, 0, 0));
    link.reply(interims);
    uint32_t type = 5;
    uint8_t uid[7];
    EXPECT_EQ(SAM_get_versionM(&link.record, &type, uid), ZEL_COMMUNICATION_ERROR);
    EXPECT_EQ(type, 0u);
    zel::set_tick_hook(nullptr);
}

TEST(SamKeyEntry, RawEntryStatusWordsAndBounds)
{
    {
        ScriptLink link;
        const Bytes entry = pattern(13, 3);
        answer(link, 5, entry, 0x90, 0x00);
        uint8_t out[SAM_KEY_ENTRY_RAW_MAX] = {};
        uint8_t n = 0;
        uint16_t sw = 0;
        ASSERT_EQ(SAM_get_key_entry_rawM(&link.record, 0x05, out, &n, &sw), ZEL_OK);
        EXPECT_EQ(apdu(link, 0), (Bytes{0x80, 0x64, 0x05, 0x00, 0x00}));
        EXPECT_EQ(Bytes(out, out + n), entry);
        EXPECT_EQ(sw, 0x0090); // card order: SW1 in the low byte
    }
    {
        ScriptLink link;
        answer(link, 5, {}, 0x6A, 0x82);
        uint8_t out[SAM_KEY_ENTRY_RAW_MAX];
        uint8_t n = 9;
        uint16_t sw = 0;
        EXPECT_EQ(SAM_get_key_entry_rawM(&link.record, 0x7F, out, &n, &sw), ZEL_SAM_APDU_ERROR);
        EXPECT_EQ(sw, 0x826A);
        EXPECT_EQ(n, 0);
    }
    {
        ScriptLink link;
        answer(link, 5, pattern(SAM_KEY_ENTRY_RAW_MAX + 1, 7), 0x90, 0x00);
        uint8_t out[SAM_KEY_ENTRY_RAW_MAX + 4];
        std::memset(out, 0xEE, sizeof out);
        uint8_t n = 0;
        uint16_t sw = 0;
        EXPECT_EQ(SAM_get_key_entry_rawM(&link.record, 1, out, &n, &sw), ZEL_BUFFER_OVERFLOW);
        EXPECT_EQ(out[0], 0xEE);
    }
    uint8_t out[16], n = 0;
    EXPECT_EQ(SAM_get_key_entry_rawM(nullptr, 1, out, &n, nullptr), ZEL_DEVICE_WRONG_HANDLE);
}

// ---- AV2 authentication against a SAM side computed here ----

struct Av2Run {
    Bytes key = pattern(16, 0x41);
    Bytes rnd2 = pattern(12, 0x10), rnd1 = pattern(12, 0x90), rnda = pattern(16, 0x33), rndb = pattern(16, 0x77);
    uint8_t mode = 0;
    // What the SAM answers to the second and third passes.
    Bytes second() const
    {
        const Bytes ke = samtest::av2_session(key, rnd1, rnd2);
        return join({samtest::odd_cmac(key, rnd1, mode), samtest::aes_cbc(ke, rndb, true)});
    }
    Bytes third() const { return samtest::aes_cbc(samtest::av2_session(key, rnd1, rnd2), rol(rnda, 2), true); }
};

TEST(SamAuthAv2, ThreePassesMatchAnIndependentSamSide)
{
    for (uint8_t mode = 0; mode <= 2; ++mode) {
        Av2Run r;
        r.mode = mode;
        RandomScript rnd(join({r.rnd1, r.rnda}));
        ScriptLink link;
        answer(link, 9, r.rnd2, 0x90, 0xAF);
        answer(link, 26, r.second(), 0x90, 0xAF);
        answer(link, 38, r.third(), 0x90, 0x00);
        uint16_t sw = 0;
        ASSERT_EQ(SAM_authenticate_host_AV2_plainM(&link.record, r.key.data(), 0x07, 0x02, mode, &sw), ZEL_OK);
        EXPECT_EQ(sw, 0x0090);
        EXPECT_EQ(apdu(link, 0), (Bytes{0x80, 0xA4, 0x00, 0x00, 0x03, 0x07, 0x02, mode, 0x00}));
        EXPECT_EQ(apdu(link, 1),
                  join({{0x80, 0xA4, 0x00, 0x00, 0x14}, samtest::odd_cmac(r.key, r.rnd2, mode), r.rnd1, {0x00}}));
        const Bytes ke = samtest::av2_session(r.key, r.rnd1, r.rnd2);
        EXPECT_EQ(
            apdu(link, 2),
            join({{0x80, 0xA4, 0x00, 0x00, 0x20}, samtest::aes_cbc(ke, join({r.rnda, rol(r.rndb, 2)}), true), {0x00}}));
    }
}

TEST(SamAuthAv2, RefusalsAndForgeries)
{
    // Host mode 3 is refused before any APDU.
    {
        ScriptLink link;
        const Bytes key(16, 0);
        uint16_t sw = 1;
        EXPECT_EQ(SAM_authenticate_host_AV2_plainM(&link.record, key.data(), 0, 0, 3, &sw), ZEL_PARAMETERS_ERROR);
        EXPECT_TRUE(link.writes.empty());
    }
    // A first answer of 13 bytes: APDU error with its status word.
    {
        ScriptLink link;
        answer(link, 9, pattern(11, 1), 0x90, 0xAF);
        const Bytes key(16, 0);
        uint16_t sw = 0;
        EXPECT_EQ(SAM_authenticate_host_AV2_plainM(&link.record, key.data(), 0, 0, 0, &sw), ZEL_SAM_APDU_ERROR);
        EXPECT_EQ(sw, 0xAF90);
    }
    // The SAM's MAC made with another key: crypto error at the check of the second answer.
    {
        Av2Run r, other;
        other.key = pattern(16, 0x42);
        RandomScript rnd(join({r.rnd1, r.rnda}));
        ScriptLink link;
        answer(link, 9, r.rnd2, 0x90, 0xAF);
        Bytes forged = r.second();
        std::copy_n(other.second().begin(), 8, forged.begin());
        answer(link, 26, forged, 0x90, 0xAF);
        uint16_t sw = 0;
        EXPECT_EQ(SAM_authenticate_host_AV2_plainM(&link.record, r.key.data(), 0, 0, 0, &sw), ZEL_SAM_CRYPTO_ERROR);
        EXPECT_EQ(link.writes.size(), 4u); // no third pass
    }
    // A third answer that does not prove RndA, or is too short to, or comes with a refusal.
    struct Third {
        Bytes data;
        uint8_t sw1, sw2;
        ZEL_STATUS want;
    };
    Av2Run base;
    Bytes flipped = base.third();
    flipped[15] ^= 1;
    for (const Third &t : {Third{flipped, 0x90, 0x00, ZEL_SAM_CRYPTO_ERROR},
                           Third{range(base.third(), 0, 8), 0x90, 0x00, ZEL_SAM_CRYPTO_ERROR},
                           Third{{}, 0x69, 0x82, ZEL_SAM_APDU_ERROR}}) {
        RandomScript rnd(join({base.rnd1, base.rnda}));
        ScriptLink link;
        answer(link, 9, base.rnd2, 0x90, 0xAF);
        answer(link, 26, base.second(), 0x90, 0xAF);
        answer(link, 38, t.data, t.sw1, t.sw2);
        uint16_t sw = 0;
        EXPECT_EQ(SAM_authenticate_host_AV2_plainM(&link.record, base.key.data(), 0, 0, 0, &sw), t.want);
        EXPECT_EQ(sw, static_cast<uint16_t>(t.sw1 | t.sw2 << 8));
    }
}

TEST(SamAuthAv2, SwitchToAv2UsesLockUnlock)
{
    Av2Run r;
    r.mode = 0x03;
    RandomScript rnd(join({r.rnd1, r.rnda}));
    ScriptLink link;
    answer(link, 11, r.rnd2, 0x90, 0xAF);
    answer(link, 26, r.second(), 0x90, 0xAF);
    answer(link, 38, r.third(), 0x90, 0x00);
    uint16_t sw = 0;
    ASSERT_EQ(SAM_pre_personalization_switch_to_AV2_modeM(&link.record, r.key.data(), 0x05, &sw), ZEL_OK);
    EXPECT_EQ(sw, 0x0090);
    EXPECT_EQ(apdu(link, 0), (Bytes{0x80, 0x10, 0x03, 0x00, 0x05, 0x00, 0x05, 0x00, 0x00, 0x00, 0x00}));
    EXPECT_EQ(range(apdu(link, 1), 0, 5), (Bytes{0x80, 0x10, 0x00, 0x00, 0x14}));
    EXPECT_EQ(range(apdu(link, 2), 0, 5), (Bytes{0x80, 0x10, 0x00, 0x00, 0x20}));
}

// ---- legacy DES authentication ----

struct DesRun {
    Bytes zero = Bytes(8, 0);
    Bytes rndb = pattern(8, 0x21), rnda = pattern(8, 0x5C);
    Bytes first() const { return samtest::des_ecb(zero, rndb, true); }
    // The third pass of the SAM: rol(RndA) enciphered on its own, with no chaining from the second.
    Bytes third() const { return samtest::des_ecb(zero, rol(rnda, 1), true); }
};

TEST(SamAuthDes, ThreePassesWithAZeroVectorAtEachStep)
{
    DesRun r;
    RandomScript rnd(r.rnda);
    ScriptLink link;
    answer(link, 8, r.first(), 0x90, 0xAF);
    answer(link, 22, r.third(), 0x90, 0x00);
    uint8_t ignored[8] = {0xFF};
    ASSERT_EQ(SAM_authenticate_host_no_div_desM(&link.record, 0x02, 0x01, ignored), ZEL_OK);
    EXPECT_EQ(apdu(link, 0), (Bytes{0x80, 0xA4, 0x00, 0x00, 0x02, 0x02, 0x01, 0x00}));
    // The token, deciphered in send direction: D(RndA), then D(rol(RndB) ^ that).
    const Bytes c1 = samtest::des_ecb(r.zero, r.rnda, false);
    Bytes x = rol(r.rndb, 1);
    for (int i = 0; i < 8; ++i)
        x[i] ^= c1[i];
    const Bytes c2 = samtest::des_ecb(r.zero, x, false);
    EXPECT_EQ(apdu(link, 1), join({{0x80, 0xA4, 0x00, 0x00, 0x10}, c1, c2, {0x00}}));
}

TEST(SamAuthDes, FailuresOfEachPass)
{
    DesRun r;
    struct Case {
        Bytes first;
        uint8_t sw2;
        Bytes third;
        uint8_t third_sw1;
        ZEL_STATUS want;
    } cases[] = {
        {r.first(), 0x00, {}, 0, ZEL_AUTH_ERROR},                                            // first pass without 90 AF
        {pattern(24, 1), 0xAF, {}, 0, ZEL_AUTH_ERROR},                                       // n the host cannot hold
        {{}, 0xAF, {}, 0, ZEL_AUTH_ERROR},                                                   // no challenge at all
        {r.first(), 0xAF, {}, 0x69, ZEL_SAM_AUTH_ERROR},                                     // second pass refused
        {r.first(), 0xAF, samtest::des_ecb(r.zero, r.rnda, true), 0x90, ZEL_SAM_AUTH_ERROR}, // RndA not rotated
        {r.first(), 0xAF, range(r.third(), 0, 4), 0x90, ZEL_SAM_AUTH_ERROR},                 // short proof
    };
    for (const Case &c : cases) {
        RandomScript rnd(r.rnda);
        ScriptLink link;
        answer(link, 8, c.first, 0x90, c.sw2);
        answer(link, 22, c.third, c.third_sw1, 0x00);
        EXPECT_EQ(SAM_authenticate_host_no_div_desM(&link.record, 0, 0, nullptr), c.want);
    }
}

TEST(SamPrePersonalisation, MasterKeyMessageDecryptsUnderTheSessionKey)
{
    DesRun r;
    RandomScript rnd(r.rnda);
    ScriptLink link;
    answer(link, 8, r.first(), 0x90, 0xAF);
    answer(link, 22, r.third(), 0x90, 0x00);
    answer(link, 69, {}, 0x90, 0x00);
    const Bytes ka = pattern(16, 1), kb = pattern(16, 2), kc = pattern(16, 3);
    uint16_t sw = 0;
    ASSERT_EQ(SAM_pre_pesonalization_master_AES128_keyM(&link.record, ka.data(), 4, kb.data(), 5, kc.data(), 6, &sw),
              ZEL_OK);
    EXPECT_EQ(sw, 0x0090);
    EXPECT_EQ(apdu(link, 0), (Bytes{0x80, 0xA4, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00}));
    const Bytes msg = apdu(link, 2);
    ASSERT_EQ(msg.size(), 69u);
    EXPECT_EQ(range(msg, 0, 5), (Bytes{0x80, 0xC1, 0x00, 0xFF, 0x40}));
    const Bytes sk = join({range(r.rnda, 0, 4), range(r.rndb, 0, 4)});
    const Bytes plain = samtest::crypt(EVP_des_ede3_cbc(), sk, range(msg, 5, 64), false, Bytes(8, 0));
    ASSERT_EQ(plain.size(), 64u);
    EXPECT_EQ(range(plain, 0, 48), join({ka, kb, kc}));
    EXPECT_EQ(plain[54], 0xFF); // key usage counter of the template
    EXPECT_EQ(plain[55], 0x20); // the AES host key
    EXPECT_EQ(range(plain, 57, 3), (Bytes{4, 5, 6}));
    // CRC_A over the 60 bytes, little-endian, then two zero bytes of padding.
    const uint8_t vector[2] = {0x00, 0x00};
    ASSERT_EQ(samtest::crc_a(vector, 2), 0x1EA0); // ISO/IEC 14443-3 worked example
    const uint16_t crc = samtest::crc_a(plain.data(), 60);
    EXPECT_EQ(plain[60], crc & 0xFF);
    EXPECT_EQ(plain[61], crc >> 8);
    EXPECT_EQ(plain[62], 0);
    EXPECT_EQ(plain[63], 0);
}

TEST(SamPrePersonalisation, FirstPassRefusalIsAnApduError)
{
    ScriptLink link;
    answer(link, 8, {}, 0x6A, 0x82);
    const Bytes k(16, 0);
    uint16_t sw = 0;
    EXPECT_EQ(SAM_pre_pesonalization_master_AES128_keyM(&link.record, k.data(), 0, k.data(), 1, k.data(), 2, &sw),
              ZEL_SAM_APDU_ERROR);
    EXPECT_EQ(sw, 0x826A);
    EXPECT_EQ(link.writes.size(), 2u);
}

// ---- key entry changes ----

TEST(SamChangeKeyEntry, EveryFormFillsTheTemplate)
{
    const Bytes k24 = pattern(24, 0x61), k16 = pattern(16, 0x62), k8 = pattern(8, 0x63);
    const Bytes ma = pattern(6, 0x64), mb = pattern(6, 0x65), kb = pattern(16, 0x66), kc = pattern(16, 0x67);
    struct Form {
        const char *name;
        ZEL_STATUS (*run)(ScriptLink &, uint16_t *);
        uint8_t p2, set;
        Bytes keys; // the 48 bytes from offset 5
        Bytes versions{0, 1, 2};
    };
    auto blank = [](std::initializer_list<std::pair<size_t, Bytes>> at) {
        Bytes b(48, 0);
        for (const auto &p : at)
            std::copy(p.second.begin(), p.second.end(), b.begin() + static_cast<std::ptrdiff_t>(p.first));
        return b;
    };
    static Bytes s_k24, s_k16, s_k8, s_ma, s_mb, s_kb, s_kc;
    s_k24 = k24, s_k16 = k16, s_k8 = k8, s_ma = ma, s_mb = mb, s_kb = kb, s_kc = kc;
    const Form forms[] = {
        {"mifare",
         [](ScriptLink &l, uint16_t *sw) {
             return SAM_change_key_entry_mifare_AV2_plain_one_keyM(&l.record, 0x21, s_ma.data(), s_mb.data(), 3, 4, 5,
                                                                   sw);
         },
         0xFF, 0x10, blank({{0, ma}, {8, mb}})},
        {"aes",
         [](ScriptLink &l, uint16_t *sw) {
             return SAM_change_key_entry_AES_AV2_plain_one_keyM(&l.record, 0x21, s_k16.data(), 3, 4, 5, sw);
         },
         0xFF, 0x24, blank({{0, k16}})},
        {"3k3des",
         [](ScriptLink &l, uint16_t *sw) {
             return SAM_change_key_entry_3K3DES_AV2_plain_one_keyM(&l.record, 0x21, s_k24.data(), 3, 4, 5, sw);
         },
         0xDF, 0x1C, blank({{0, k24}})},
        {"2k3des ulc",
         [](ScriptLink &l, uint16_t *sw) {
             return SAM_change_key_entry_2K3DES_ULC_AV2_plain_one_keyM(&l.record, 0x21, s_k16.data(), 3, 4, 5, sw);
         },
         0xFF, 0x0C, blank({{0, k16}})},
        {"2k3des desfire",
         [](ScriptLink &l, uint16_t *sw) {
             return SAM_change_key_entry_2K3DES_desfire_AV2_plain_one_keyM(&l.record, 0x21, s_k16.data(), 3, 4, 5, sw);
         },
         0xFF, 0x0C, blank({{0, k16}})},
        {"des",
         [](ScriptLink &l, uint16_t *sw) {
             return SAM_change_key_entry_DES_AV2_plain_one_keyM(&l.record, 0x21, s_k8.data(), 3, 4, 5, sw);
         },
         0xFF, 0x34, blank({{0, k8}, {8, k8}})},
        {"host",
         [](ScriptLink &l, uint16_t *sw) {
             return SAM_change_key_entry_aes_AV2_plain_host_keyM(&l.record, 0x21, s_k16.data(), 7, s_kb.data(), 8,
                                                                 s_kc.data(), 9, 3, 4, 5, sw);
         },
         0xFF,
         0x20,
         join({k16, kb, kc}),
         {7, 8, 9}},
    };
    for (const Form &f : forms) {
        SCOPED_TRACE(f.name);
        ScriptLink link;
        answer(link, 66, {}, 0x90, 0x00);
        uint16_t sw = 0;
        ASSERT_EQ(f.run(link, &sw), ZEL_OK);
        EXPECT_EQ(sw, 0x0090);
        const Bytes a = apdu(link, 0);
        ASSERT_EQ(a.size(), 66u);
        EXPECT_EQ(range(a, 0, 5), (Bytes{0x80, 0xC1, 0x21, f.p2, 0x3D}));
        EXPECT_EQ(range(a, 5, 48), f.keys);
        EXPECT_EQ(range(a, 53, 9), (Bytes{0, 0, 0, 0, 3, 4, 5, f.set, 0}));
        EXPECT_EQ(range(a, 62, 3), f.versions);
        EXPECT_EQ(a[65], 0x01);
    }
    // A refusal comes back with its status word.
    ScriptLink link;
    answer(link, 66, {}, 0x69, 0x82);
    uint16_t sw = 0;
    EXPECT_EQ(SAM_change_key_entry_AES_AV2_plain_one_keyM(&link.record, 1, k16.data(), 0, 0, 0, &sw),
              ZEL_SAM_APDU_ERROR);
    EXPECT_EQ(sw, 0x8269);
    EXPECT_EQ(SAM_change_key_entry_AES_AV2_plain_one_keyM(&link.record, 1, nullptr, 0, 0, 0, &sw),
              ZEL_PARAMETERS_ERROR);
}

} // namespace
