// The GIDS card dialogue of the HTTPS client against a scripted card: the exact commands of reading the
// certificate (select, GET DATA, GET RESPONSE with the Le the card asks for) and of signing, every form of the
// object's length, the failures of each step, and the argument checks of the client's calls.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "core/bytes.h"
#include "tandro.h"
#include "tls/tls_internal.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes hex(const char *t)
{
    Bytes out(std::strlen(t) / 2 + 1);
    uint32_t n = 0;
    EXPECT_TRUE(zel::hex_decode(t, out.data(), uint32_t(out.size()), &n)) << t;
    out.resize(n);
    return out;
}

Bytes cat(Bytes a, const Bytes &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// A card that answers from a list and keeps the commands it got.
struct Card {
    std::deque<Bytes> replies;
    std::deque<ZEL_STATUS> fail; // status of each exchange, ZEL_OK when the list runs out
    std::vector<Bytes> got;
    static ZEL_STATUS hook(void *ctx, const uint8_t *cmd, size_t n, uint8_t *reply, size_t cap, size_t *len)
    {
        auto *c = static_cast<Card *>(ctx);
        c->got.emplace_back(cmd, cmd + n);
        ZEL_STATUS st = ZEL_OK;
        if (!c->fail.empty()) {
            st = c->fail.front();
            c->fail.pop_front();
        }
        if (st != ZEL_OK)
            return st;
        Bytes r = c->replies.empty() ? hex("6F00") : c->replies.front();
        if (!c->replies.empty())
            c->replies.pop_front();
        if (r.size() > cap)
            return ZEL_BUFFER_SIZE_EXCEEDED;
        std::memcpy(reply, r.data(), r.size());
        *len = r.size();
        return ZEL_OK;
    }
};

// A certificate-like body and its object: DF 24, the length in the given form, 01 00, plain length, zlib.
Bytes plain_cert(size_t n)
{
    Bytes b(n);
    for (size_t i = 0; i < n; ++i)
        b[i] = static_cast<uint8_t>((i * 7) ^ (i >> 3));
    return b;
}

Bytes object(const Bytes &plain, uint8_t form, int plain_len_delta = 0)
{
    uLongf zlen = compressBound(uLong(plain.size()));
    Bytes z(zlen);
    EXPECT_EQ(compress2(z.data(), &zlen, plain.data(), uLong(plain.size()), 9), Z_OK);
    z.resize(zlen);
    const size_t len = 4 + z.size();
    Bytes out{0xDF, 0x24, form};
    if ((form & 0x7F) == 2)
        out.push_back(static_cast<uint8_t>(len >> 8));
    out.push_back(static_cast<uint8_t>(len));
    const size_t pl = size_t(int(plain.size()) + plain_len_delta);
    out.insert(out.end(), {0x01, 0x00, uint8_t(pl), uint8_t(pl >> 8)});
    return cat(out, z);
}

// The card's answers to the reading: the object in pieces of up to 256 bytes with 61 xx between them.
void answer_reading(Card &c, const Bytes &obj, const char *last_sw = "9000")
{
    c.replies.push_back(hex("9000")); // select
    size_t at = 0;
    while (at < obj.size()) {
        const size_t take = std::min<size_t>(256, obj.size() - at);
        Bytes r(obj.begin() + long(at), obj.begin() + long(at + take));
        at += take;
        const size_t left = obj.size() - at;
        if (left)
            r = cat(r, {0x61, uint8_t(left >= 256 ? 0 : left)});
        else
            r = cat(r, hex(last_sw));
        c.replies.push_back(r);
    }
}

class Gids : public ::testing::Test {
protected:
    void SetUp() override
    {
        zel::tls::set_apdu_hook(Card::hook, &card);
        zel::tls::set_pin(nullptr, 0);
    }
    void TearDown() override
    {
        zel::tls::set_apdu_hook(nullptr, nullptr);
        zel::tls::set_pin(nullptr, 0);
        ORB_TLS_SetClientCertificate(ZEL_TLS_CERT_X509, reinterpret_cast<const uint8_t *>("x"), 1);
    }
    Bytes held()
    {
        uint32_t n = 0;
        const uint8_t *p = zel::tls::held_certificate(&n);
        return p ? Bytes(p, p + n) : Bytes();
    }
    Card card;
};

TEST_F(Gids, ReadsTheCompressedCertificateThroughGetResponseChaining)
{
    const Bytes plain = plain_cert(900);
    const Bytes obj = object(plain, 0x82);
    ASSERT_GT(obj.size(), 512u);
    answer_reading(card, obj);
    ASSERT_EQ(ORB_TLS_SetClientCertificate(ZEL_TLS_CERT_GIDS, nullptr, 0), ZEL_OK);
    EXPECT_EQ(held(), plain);
    ASSERT_GE(card.got.size(), 3u);
    EXPECT_EQ(card.got[0], hex("00A4040009A0000003974254465900"));
    EXPECT_EQ(card.got[1], hex("00CBA010045C02DF2400"));
    // GET RESPONSE with the Le of the card's 61 xx: 00 for 256 or more, then the rest.
    EXPECT_EQ(card.got[2], hex("00C0000000"));
    const size_t rest = obj.size() - 512;
    EXPECT_EQ(card.got.back(), cat(hex("00C00000"), {uint8_t(rest)}));
    EXPECT_EQ(card.got.size(), 2 + (obj.size() + 255) / 256 - 1);
}

TEST_F(Gids, LengthFormsOfTheObject)
{
    // One length byte after 81, or after 01, which counts as 81; two after 82 or 02.
    const Bytes small = Bytes(60, 0x41); // compresses to well under 256 bytes
    for (uint8_t form : {0x81, 0x01}) {
        card = Card{};
        answer_reading(card, object(small, form));
        EXPECT_EQ(ORB_TLS_SetClientCertificate(ZEL_TLS_CERT_GIDS, nullptr, 0), ZEL_OK) << int(form);
        EXPECT_EQ(held(), small);
    }
    for (uint8_t form : {0x82, 0x02}) {
        card = Card{};
        answer_reading(card, object(plain_cert(700), form));
        EXPECT_EQ(ORB_TLS_SetClientCertificate(ZEL_TLS_CERT_GIDS, nullptr, 0), ZEL_OK) << int(form);
        EXPECT_EQ(held(), plain_cert(700));
    }
    for (uint8_t form : {0x80, 0x83, 0x00, 0x03}) {
        card = Card{};
        Bytes obj = object(small, 0x81);
        obj[2] = form;
        answer_reading(card, obj);
        EXPECT_EQ(ORB_TLS_SetClientCertificate(ZEL_TLS_CERT_GIDS, nullptr, 0), TLS_ERR_UNKNOWN_GIDS_CERTIFICATE_FORMAT)
            << int(form);
        EXPECT_TRUE(held().empty());
    }
}

TEST_F(Gids, MalformedObjectsAreRefused)
{
    const Bytes plain = plain_cert(600);
    struct Case {
        const char *what;
        Bytes obj;
        const char *last_sw;
        ZEL_STATUS want;
    };
    Bytes wrong_tag = object(plain, 0x82);
    wrong_tag[1] = 0x25;
    Bytes no_mark = object(plain, 0x82);
    no_mark[5] = 0x02;
    Bytes longer = object(plain, 0x82);
    longer.push_back(0x00); // more than the length says
    Bytes shorter = object(plain, 0x82);
    shorter.pop_back(); // the card stops before the length is filled
    const Case cases[] = {
        {"tag", wrong_tag, "9000", TLS_ERR_UNKNOWN_GIDS_CERTIFICATE_FORMAT},
        {"mark", no_mark, "9000", TLS_ERR_UNKNOWN_GIDS_CERTIFICATE_FORMAT},
        {"overrun", longer, "9000", TLS_ERR_UNKNOWN_GIDS_CERTIFICATE_FORMAT},
        {"short", shorter, "9000", TLS_ERR_UNKNOWN_GIDS_CERTIFICATE_FORMAT},
        {"plain length lies", object(plain, 0x82, 1), "9000", TLS_ERR_UNKNOWN_GIDS_CERTIFICATE_FORMAT},
        {"plain length lies low", object(plain, 0x82, -1), "9000", TLS_ERR_UNKNOWN_GIDS_CERTIFICATE_FORMAT},
        {"card refuses", object(plain, 0x82), "6A82", ZEL_APDU_TRANSCEIVE_ERROR},
    };
    for (const auto &c : cases) {
        card = Card{};
        answer_reading(card, c.obj, c.last_sw);
        EXPECT_EQ(ORB_TLS_SetClientCertificate(ZEL_TLS_CERT_GIDS, nullptr, 0), c.want) << c.what;
        EXPECT_TRUE(held().empty()) << c.what;
    }
    // Endless 61 xx with no data ends.
    card = Card{};
    const Bytes whole = object(plain, 0x82);
    card.replies = {hex("9000"), cat(Bytes(whole.begin(), whole.begin() + 256), hex("6100"))};
    for (int i = 0; i < 400; ++i)
        card.replies.push_back(hex("6100"));
    EXPECT_EQ(ORB_TLS_SetClientCertificate(ZEL_TLS_CERT_GIDS, nullptr, 0), TLS_ERR_UNKNOWN_GIDS_CERTIFICATE_FORMAT);
    EXPECT_LT(card.got.size(), 310u);
    // A failed exchange comes back as it came; the type is kept all the same.
    card = Card{};
    card.fail = {ZEL_OK, ZEL_TIMEOUT_ERR};
    card.replies = {hex("9000")};
    EXPECT_EQ(ORB_TLS_SetClientCertificate(ZEL_TLS_CERT_GIDS, nullptr, 0), ZEL_TIMEOUT_ERR);
    EXPECT_EQ(ORB_TLS_SetClientX509PrivateKey_PEM(reinterpret_cast<const uint8_t *>("k"), 1),
              TLS_ERR_PRIVATE_KEY_CONTEXT_WRONG);
}

TEST_F(Gids, ClientCallsCheckTheirArguments)
{
    EXPECT_EQ(ORB_TLS_SetClientCertificate(1, nullptr, 0), TLS_ERR_UNSUPPORTED_CERTIFICATE_TYPE);
    EXPECT_EQ(ORB_TLS_SetClientCertificate(3, nullptr, 0), TLS_ERR_UNSUPPORTED_CERTIFICATE_TYPE);
    ASSERT_EQ(ORB_TLS_SetClientCertificate(ZEL_TLS_CERT_X509, reinterpret_cast<const uint8_t *>("abc"), 3), ZEL_OK);
    EXPECT_EQ(held(), Bytes({'a', 'b', 'c'}));
    EXPECT_EQ(ORB_TLS_SetClientX509PrivateKey_PEM(reinterpret_cast<const uint8_t *>("k"), 1), ZEL_OK);
    uint8_t *resp = reinterpret_cast<uint8_t *>(this);
    uint32_t len = 9;
    EXPECT_EQ(ORB_TLS_Request(&resp, &len, "127.0.0.1", "/", 1, reinterpret_cast<const uint8_t *>("1234"), 4),
              TLS_ERR_SET_PIN_FOR_GIDS_CERT_ONLY);
    EXPECT_EQ(resp, nullptr);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(ORB_TLS_Request(&resp, &len, "127.0.0.1", nullptr, 1, nullptr, 0), ZEL_PARAMETERS_ERROR);
    EXPECT_TRUE(card.got.empty());
}

class GidsSign : public Gids {
protected:
    Bytes info = cat(hex("3031300D060960864801650304020105000420"), Bytes(32, 0xAB));
    uint8_t sig[ZEL_TLS_SIGNATURE_MAX + 8] = {};
    uint32_t sig_len = 99;
    ZEL_STATUS sign() { return TLS_Sign_NFC_GIDS(info.data(), uint32_t(info.size()), sig, &sig_len); }
};

TEST_F(GidsSign, SendsSelectVerifyEnvironmentAndSignature)
{
    zel::tls::set_pin(reinterpret_cast<const uint8_t *>("4711"), 4);
    const Bytes s(256, 0x5A);
    card.replies = {hex("9000"), hex("9000"), hex("9000"), cat(s, hex("9000"))};
    ASSERT_EQ(sign(), ZEL_OK);
    EXPECT_EQ(sig_len, 256u);
    EXPECT_EQ(Bytes(sig, sig + 256), s);
    ASSERT_EQ(card.got.size(), 4u);
    EXPECT_EQ(card.got[0], hex("00A4040009A0000003974254465900"));
    EXPECT_EQ(card.got[1], hex("002000800434373131"));
    EXPECT_EQ(card.got[2], hex("002241B606800157840181"));
    EXPECT_EQ(card.got[3], cat(cat(hex("002A9E9A33"), info), hex("00")));
}

TEST_F(GidsSign, FailuresOfEachStep)
{
    zel::tls::set_pin(reinterpret_cast<const uint8_t *>("4711"), 4);
    struct Case {
        std::vector<const char *> replies;
        ZEL_STATUS want;
        size_t commands;
    };
    const Case cases[] = {
        {{"6A82"}, 0xA6A82, 1},
        {{"9000", "63C2"}, 0xA63C2, 2},
        {{"9000", "6983"}, 0xA6983, 2},
        {{"9000", "9000", "6A80"}, 0xA6A80, 3},
        {{"9000", "9000", "9000", "6982"}, 0xA6982, 4},
    };
    for (const auto &c : cases) {
        card = Card{};
        for (const char *r : c.replies)
            card.replies.push_back(hex(r));
        sig_len = 99;
        EXPECT_EQ(sign(), c.want) << c.replies.back();
        EXPECT_EQ(card.got.size(), c.commands);
        EXPECT_EQ(sig_len, 0u);
    }
    // A signature longer than its 256 bytes.
    card = Card{};
    card.replies = {hex("9000"), hex("9000"), hex("9000"), cat(Bytes(257, 1), hex("9000"))};
    EXPECT_EQ(sign(), ZEL_BUFFER_OVERFLOW);
    // The reader's failure as it came.
    card = Card{};
    card.replies = {hex("9000")};
    card.fail = {ZEL_OK, ZEL_COMMUNICATION_ERROR};
    EXPECT_EQ(sign(), ZEL_COMMUNICATION_ERROR);
    EXPECT_EQ(TLS_Sign_NFC_GIDS(nullptr, 51, sig, &sig_len), ZEL_PARAMETERS_ERROR);
}

} // namespace
