// Basic Access Control and secure messaging. The worked example of ICAO Doc 9303 Part 11 Appendix D is
// replayed step by step and as a whole dialogue; DES against the FIPS 81 example.
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "mrtd/mrtd_internal.h"
#include "tandro.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes hex(const std::string &h)
{
    Bytes b;
    for (size_t i = 0; i + 1 < h.size(); i += 2)
        b.push_back(static_cast<uint8_t>(std::stoul(h.substr(i, 2), nullptr, 16)));
    return b;
}

Bytes cut(const uint8_t *p, size_t n)
{
    return Bytes(p, p + n);
}

Bytes operator+(Bytes a, const Bytes &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Appendix D.
const char kProtoKey[] = "L898902C<369080619406236";
const Bytes kSeed = hex("239AB9CB282DAF66231DC5A4DF6BFBAE");
const Bytes kKEnc = hex("AB94FDECF2674FDFB9B391F85D7F76F2");
const Bytes kKMac = hex("7962D9ECE03D1ACD4C76089DCE131543");
const Bytes kRndIc = hex("4608F91988702212");
const Bytes kRndIfd = hex("781723860C06C226");
const Bytes kKIfd = hex("0B795240CB7049B01C19B33E32804F0B");
const Bytes kEIfd = hex("72C29C2371CC9BDB65B779B8E8D37B29ECC154AA56A8799FAE2F498F76ED92F2");
const Bytes kMIfd = hex("5F1448EEA8AD90A7");
const Bytes kCardAnswer = hex("46B9342A41396CD7386BF5803104D7CEDC122B9132139BAF2EEDC94EE178534F2F2D235D074D7449");
const Bytes kKIc = hex("0B4F80323EB3191CB04970CB4052790B");
const Bytes kKsEnc = hex("979EC13B1CBFE9DCD01AB0FED307EAE5");
const Bytes kKsMac = hex("F1CB1F1FB5ADF208806B89DC579DC1F8");
const uint64_t kSsc = 0x887022120C06C226ull;
const Bytes kSelectCom = hex("0CA4020C158709016375432908C044F68E08BF8B92D635FF24F800");
const Bytes kSelectAnswer = hex("990290008E08FA855A5D4C50A8ED9000");
const Bytes kRead4 = hex("0CB000000D9701048E08ED6705417E96BA5500");
const Bytes kRead4Answer = hex("8709019FF0EC34F9922651990290008E08AD55CC17140B2DED9000");
const Bytes kRead18 = hex("0CB000040D9701128E082EA28A70F3C7B53500");
const Bytes kRead18Answer =
    hex("871901FB9235F4E4037F2327DCC8964F1F9B8C30F42C8E2FFF224A990290008E08C8B2787EAEA07D749000");
const Bytes kEfCom = hex("60145F0104303130365F36063034303030305C026175");

Bytes protect(const Bytes &apdu, uint64_t ssc)
{
    uint8_t out[300];
    uint32_t n = 0;
    EXPECT_EQ(mrtd_bac_protected_apdu(apdu.data(), out, uint32_t(apdu.size()), &n, kKsEnc.data(), kKsMac.data(), ssc),
              ZEL_OK);
    return cut(out, n);
}

ZEL_STATUS unwrap(const Bytes &resp, Bytes *plain)
{
    uint8_t out[300];
    uint32_t n = 0xFFFF;
    const ZEL_STATUS st = mrtd_bac_decrypt_response(resp.data(), out, uint32_t(resp.size()), &n, kKsEnc.data());
    *plain = cut(out, n);
    return st;
}

TEST(BacWorkedExample, KeysAuthenticationAndSessionKeys)
{
    uint8_t h[20], kenc[16], kmac[16];
    mrtd_crypto_sha1(reinterpret_cast<const uint8_t *>(kProtoKey), 24, h);
    EXPECT_EQ(cut(h, 16), kSeed);
    mrtd_bac_mrz_proto_key_to_kenc_kmac(kProtoKey, kenc, kmac);
    EXPECT_EQ(cut(kenc, 16), kKEnc);
    EXPECT_EQ(cut(kmac, 16), kKMac);

    uint8_t eifd[32], mifd[8], cmd[40];
    mrtd_bac_eifd_mifd(kRndIfd.data(), kKIfd.data(), kRndIc.data(), kKEnc.data(), kKMac.data(), eifd, mifd);
    EXPECT_EQ(cut(eifd, 32), kEIfd);
    EXPECT_EQ(cut(mifd, 8), kMIfd);
    mrtd_bac_cmd_data(kRndIfd.data(), kKIfd.data(), kRndIc.data(), kKEnc.data(), kKMac.data(), cmd);
    Bytes both = kEIfd;
    both.insert(both.end(), kMIfd.begin(), kMIfd.end());
    EXPECT_EQ(cut(cmd, 40), both);

    uint8_t rnd_icc[8], kicc[16];
    ASSERT_TRUE(mrtd_bac_challenge_ok(kCardAnswer.data(), kKEnc.data(), kRndIfd.data(), rnd_icc, kicc));
    EXPECT_EQ(cut(rnd_icc, 8), kRndIc);
    EXPECT_EQ(cut(kicc, 16), kKIc);
    EXPECT_TRUE(mrtd_bac_challenge_ok(kCardAnswer.data(), kKEnc.data(), kRndIfd.data(), nullptr, nullptr));
    Bytes other_rnd = kRndIfd;
    other_rnd[7] ^= 1;
    EXPECT_FALSE(mrtd_bac_challenge_ok(kCardAnswer.data(), kKEnc.data(), other_rnd.data(), rnd_icc, kicc));

    uint8_t seed[16], ks_enc[16], ks_mac[16];
    for (int i = 0; i < 16; ++i)
        seed[i] = kKIfd[i] ^ kKIc[i];
    mrtd_bac_kenc_kmac(seed, ks_enc, ks_mac);
    EXPECT_EQ(cut(ks_enc, 16), kKsEnc);
    EXPECT_EQ(cut(ks_mac, 16), kKsMac);
    EXPECT_EQ(mrtd_bac_get_ssc(kRndIc.data(), kRndIfd.data()), kSsc);
}

TEST(BacWorkedExample, ProtectedApdusAndAnswers)
{
    EXPECT_EQ(protect(hex("00A4020C02011E"), kSsc + 1), kSelectCom);
    EXPECT_EQ(protect(hex("00B0000004"), kSsc + 3), kRead4);
    EXPECT_EQ(protect(hex("00B0000412"), kSsc + 5), kRead18);

    Bytes plain;
    EXPECT_EQ(unwrap(kSelectAnswer, &plain), ZEL_OK);
    EXPECT_TRUE(plain.empty());
    EXPECT_EQ(unwrap(kRead4Answer, &plain), ZEL_OK);
    EXPECT_EQ(plain, hex("60145F01"));
    EXPECT_EQ(unwrap(kRead18Answer, &plain), ZEL_OK);
    EXPECT_EQ(plain, hex("04303130365F36063034303030305C026175"));

    // The answers' MACs, recomputed over SSC, DO'87' and DO'99', match the example too.
    auto answer_mac = [](const Bytes &resp, uint64_t ssc) {
        Bytes in(8);
        for (int i = 0; i < 8; ++i)
            in[i] = uint8_t(ssc >> (56 - 8 * i));
        in.insert(in.end(), resp.begin(), resp.end() - 12);
        uint8_t mac[8];
        mrtd_crypto_mac_padding(in.data(), mac, uint32_t(in.size()), kKsMac.data());
        return cut(mac, 8) == Bytes(resp.end() - 10, resp.end() - 2);
    };
    EXPECT_TRUE(answer_mac(kSelectAnswer, kSsc + 2));
    EXPECT_TRUE(answer_mac(kRead4Answer, kSsc + 4));
    EXPECT_TRUE(answer_mac(kRead18Answer, kSsc + 6));
}

// A card that expects a fixed sequence of commands and gives the scripted answers.
struct ScriptedCard {
    std::deque<std::pair<Bytes, Bytes>> script; // expected command (empty: any), answer
    int exchanges = 0;
    ZEL_STATUS link_status = ZEL_OK;
    static ZEL_STATUS transceive(void *ctx, const uint8_t *cmd, uint32_t cmd_len, uint8_t *resp, uint32_t *resp_len)
    {
        auto *card = static_cast<ScriptedCard *>(ctx);
        ++card->exchanges;
        if (card->link_status != ZEL_OK)
            return card->link_status;
        if (card->script.empty()) {
            ADD_FAILURE() << "command past the end of the script";
            return ZEL_APDU_TRANSCEIVE_ERROR;
        }
        auto [want, answer] = card->script.front();
        card->script.pop_front();
        if (!want.empty()) {
            EXPECT_EQ(cut(cmd, cmd_len), want) << "exchange " << card->exchanges;
        }
        EXPECT_GE(*resp_len, answer.size());
        std::memcpy(resp, answer.data(), answer.size());
        *resp_len = uint32_t(answer.size());
        return ZEL_OK;
    }
};

void example_randoms(uint8_t out[24])
{
    std::memcpy(out, kRndIfd.data(), 8);
    std::memcpy(out + 8, kKIfd.data(), 16);
}

Bytes with_ok(Bytes b)
{
    b.push_back(0x90);
    b.push_back(0x00);
    return b;
}

TEST(BacWorkedExample, WholeDialogueThroughATransceiveFunction)
{
    zel::mrtd::set_host_random_hook(example_randoms);
    ScriptedCard card;
    Bytes ext_auth = hex("0082000028");
    ext_auth.insert(ext_auth.end(), kEIfd.begin(), kEIfd.end());
    ext_auth.insert(ext_auth.end(), kMIfd.begin(), kMIfd.end());
    ext_auth.push_back(0x28);
    card.script = {{hex("00A4040C07A0000002471001"), hex("9000")},
                   {hex("0084000008"), with_ok(kRndIc)},
                   {ext_auth, with_ok(kCardAnswer)},
                   {kSelectCom, kSelectAnswer},
                   {kRead4, kRead4Answer},
                   {kRead18, kRead18Answer}};
    uint8_t ks_enc[16], ks_mac[16];
    uint64_t ssc = 0;
    ASSERT_EQ(zel::mrtd::bac_authenticate(ScriptedCard::transceive, &card, kProtoKey, ks_enc, ks_mac, &ssc), ZEL_OK);
    zel::mrtd::set_host_random_hook(nullptr);
    EXPECT_EQ(cut(ks_enc, 16), kKsEnc);
    EXPECT_EQ(cut(ks_mac, 16), kKsMac);
    EXPECT_EQ(ssc, kSsc);

    uint8_t *file = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(zel::mrtd::bac_read_file(ScriptedCard::transceive, &card, 0x011E, &file, &len, ks_enc, ks_mac, &ssc),
              ZEL_OK);
    EXPECT_EQ(cut(file, len), kEfCom);
    EXPECT_EQ(ssc, kSsc + 6);
    EXPECT_TRUE(card.script.empty());
    // The host's randoms served this one authentication and are gone.
    EXPECT_EQ(cut(mrtd_bac_rnd_ifd, 8), Bytes(8, 0));
    EXPECT_EQ(cut(mrtd_bac_kifd, 16), Bytes(16, 0));

    uint8_t *tags = nullptr;
    uint8_t count = 0;
    ASSERT_EQ(MRTDGetDGTagListFromCOM(file, len, &tags, &count), ZEL_OK);
    EXPECT_EQ(cut(tags, count), hex("6175"));
    OrbFree(file);
}

// DO'8E' over the SSC and the objects in front of it, under the example's KS.MAC.
Bytes with_mac(Bytes objects, uint64_t ssc)
{
    Bytes mac_in(8);
    for (int i = 0; i < 8; ++i)
        mac_in[i] = uint8_t(ssc >> (56 - 8 * i));
    mac_in.insert(mac_in.end(), objects.begin(), objects.end());
    uint8_t mac[8];
    mrtd_crypto_mac_padding(mac_in.data(), mac, uint32_t(mac_in.size()), kKsMac.data());
    objects.push_back(0x8E);
    objects.push_back(0x08);
    objects.insert(objects.end(), mac, mac + 8);
    return objects;
}

// A protected answer made the way a card makes it: DO'87' (when there is data), DO'99', DO'8E'.
Bytes card_answer(const Bytes &plain, uint16_t sw, uint64_t ssc)
{
    Bytes r;
    if (!plain.empty()) {
        uint8_t padded[300], enc[300];
        uint32_t n = 0;
        mrtd_crypto_padding(plain.data(), padded, int32_t(plain.size()), &n);
        mrtd_crypto_encrypt_3des(padded, enc, n, kKsEnc.data());
        r = {0x87};
        if (n + 1 > 0x7F)
            r.push_back(0x81);
        r.push_back(uint8_t(n + 1));
        r.push_back(0x01);
        r.insert(r.end(), enc, enc + n);
    }
    const Bytes do99 = {0x99, 0x02, uint8_t(sw >> 8), uint8_t(sw)};
    r.insert(r.end(), do99.begin(), do99.end());
    r = with_mac(r, ssc);
    r.push_back(uint8_t(sw >> 8));
    r.push_back(uint8_t(sw));
    return r;
}

struct ReadResult {
    ZEL_STATUS status;
    Bytes file;
    uint64_t ssc;
};

// Reads file 01 0x with the card answering the head with `head` and later chunks from `chunks`.
ReadResult read_with(const Bytes &head, const std::vector<Bytes> &chunks, uint16_t head_sw = 0x9000,
                     uint16_t select_sw = 0x9000)
{
    ScriptedCard card;
    uint64_t ssc = kSsc;
    card.script.push_back({{}, card_answer({}, select_sw, ssc + 2)});
    card.script.push_back({{}, card_answer(head, head_sw, ssc + 4)});
    uint64_t s = ssc + 6;
    for (const Bytes &c : chunks) {
        card.script.push_back({{}, card_answer(c, 0x9000, s)});
        s += 2;
    }
    uint8_t *file = nullptr;
    uint32_t len = 0;
    ReadResult r;
    r.status = zel::mrtd::bac_read_file(ScriptedCard::transceive, &card, 0x0101, &file, &len, kKsEnc.data(),
                                        kKsMac.data(), &ssc);
    r.file = r.status == ZEL_OK ? cut(file, len) : Bytes{};
    r.ssc = ssc;
    OrbFree(file);
    return r;
}

TEST(BacReadFile, ChunksStatusesAndLyingCards)
{
    // A file of 4 + 300 bytes: one chunk of 224 and one of 76; a short answer is simply asked again.
    Bytes file = hex("61820128");
    for (int i = 0; i < 0x128; ++i)
        file.push_back(uint8_t(i));
    const Bytes head(file.begin(), file.begin() + 4);
    ReadResult r =
        read_with(head, {Bytes(file.begin() + 4, file.begin() + 228), Bytes(file.begin() + 228, file.end())});
    ASSERT_EQ(r.status, ZEL_OK);
    EXPECT_EQ(r.file, file);
    EXPECT_EQ(r.ssc, kSsc + 8);
    r = read_with(head, {Bytes(file.begin() + 4, file.begin() + 100), Bytes(file.begin() + 100, file.begin() + 228),
                         Bytes(file.begin() + 228, file.end())});
    EXPECT_EQ(r.status, ZEL_OK);
    EXPECT_EQ(r.file, file);
    EXPECT_EQ(r.ssc, kSsc + 10);
    // The digest of the last DG1 read is kept.
    initCryptoSubsys();
    r = read_with(head, {Bytes(file.begin() + 4, file.begin() + 228), Bytes(file.begin() + 228, file.end())});
    ASSERT_EQ(r.status, ZEL_OK);
    const uint8_t *digest = zel::mrtd::last_dg_digest(1);
    ASSERT_NE(digest, nullptr);
    uint8_t want[32];
    ASSERT_EQ(OrbGetHash(ZEL_HASH_SHA256, file.data(), uint32_t(file.size()), want, 32), ZEL_OK);
    EXPECT_EQ(cut(digest, 32), cut(want, 32));

    // A file of four bytes or fewer takes no chunk.
    r = read_with(hex("6102AABB"), {});
    EXPECT_EQ(r.status, ZEL_OK);
    EXPECT_EQ(r.file, hex("6102AABB"));

    // Refused with a wrapped status word: 0xA0000 with it.
    EXPECT_EQ(read_with({}, {}, 0x9000, 0x6982).status, 0xA6982u);
    EXPECT_EQ(read_with({}, {}, 0x6982).status, 0xA6982u);
    // Zero data with 90 00, more data than asked, a file length that lies about what follows.
    EXPECT_EQ(read_with(head, {Bytes{}}).status, ZEL_APDU_TRANSCEIVE_ERROR);
    EXPECT_EQ(read_with(head, {Bytes(file.begin() + 4, file.begin() + 229)}).status, ZEL_APDU_TRANSCEIVE_ERROR);
    EXPECT_EQ(read_with(hex("6102AABBCC"), {}).status, ZEL_APDU_TRANSCEIVE_ERROR);
    EXPECT_EQ(read_with(hex("6101AABB"), {}).status, ZEL_APDU_TRANSCEIVE_ERROR);
    EXPECT_EQ(read_with(hex("61"), {}).status, ZEL_APDU_TRANSCEIVE_ERROR);
    EXPECT_EQ(read_with(hex("6183000000"), {}).status, ZEL_APDU_TRANSCEIVE_ERROR);
    EXPECT_EQ(read_with(hex("61850000"), {}).status, ZEL_PARAMETERS_ERROR); // the length field itself is bad
}

TEST(BacReadFile, AnswersNotMadeByTheChipBreakTheSession)
{
    // The head of the file comes back through `answer`; nothing of a refused answer reaches the caller.
    auto read_head = [](const Bytes &answer) {
        ScriptedCard card;
        card.script = {{{}, card_answer({}, 0x9000, kSsc + 2)}, {{}, answer}};
        uint64_t ssc = kSsc;
        uint8_t *file = nullptr;
        uint32_t len = 0;
        ReadResult r;
        r.status = zel::mrtd::bac_read_file(ScriptedCard::transceive, &card, 0x0101, &file, &len, kKsEnc.data(),
                                            kKsMac.data(), &ssc);
        r.file = file != nullptr ? cut(file, len) : Bytes{};
        r.ssc = ssc;
        OrbFree(file);
        return r;
    };
    const Bytes head = hex("6102AABB");
    const Bytes good = card_answer(head, 0x9000, kSsc + 4);
    ASSERT_EQ(read_head(good).status, ZEL_OK);
    ASSERT_EQ(read_head(good).file, head);

    Bytes encrypted;
    {
        uint8_t padded[16], enc[16];
        uint32_t n = 0;
        mrtd_crypto_padding(head.data(), padded, int32_t(head.size()), &n);
        mrtd_crypto_encrypt_3des(padded, enc, n, kKsEnc.data());
        encrypted = hex("870901") + cut(enc, n);
    }
    Bytes spoilt_mac = good, flipped_cipher = good, sw_hidden = good;
    spoilt_mac[spoilt_mac.size() - 3] ^= 0x01;
    flipped_cipher[4] ^= 0x01; // a bit of the cipher text, the MAC as the chip made it
    sw_hidden[sw_hidden.size() - 2] = 0x62;
    sw_hidden[sw_hidden.size() - 1] = 0x82;
    Bytes refusal_hidden = card_answer({}, 0x6982, kSsc + 4);
    refusal_hidden[refusal_hidden.size() - 2] = 0x90;
    refusal_hidden[refusal_hidden.size() - 1] = 0x00;
    const struct {
        const char *what;
        Bytes answer;
    } hostile[] = {
        {"spoilt DO'8E'", spoilt_mac},
        {"flipped cipher text", flipped_cipher},
        {"answer of another counter", card_answer(head, 0x9000, kSsc + 3)},
        {"no DO'99', a good MAC over the rest", with_mac(encrypted, kSsc + 4) + hex("9000")},
        {"no DO'99' nor DO'8E'", encrypted + hex("9000")},
        {"plain status other than DO'99'", sw_hidden},
        {"a refusal inside DO'99', 90 00 outside", refusal_hidden},
        {"DO'8E' cut short", Bytes(good.begin(), good.end() - 3) + hex("9000")},
    };
    for (const auto &h : hostile) {
        const ReadResult r = read_head(h.answer);
        EXPECT_EQ(r.status, MRTD_SECURE_CHANNEL_SESSION_FAILED) << h.what;
        EXPECT_TRUE(r.file.empty()) << h.what;
        EXPECT_EQ(r.ssc, kSsc + 4) << h.what;
    }
    // The status that counts is the one the MAC covers: a refusal in both places is the card's status.
    EXPECT_EQ(read_head(card_answer({}, 0x6982, kSsc + 4)).status, 0xA6982u);
}

TEST(BacReadFile, LinkFailuresAndPlainAnswers)
{
    uint8_t *file = nullptr;
    uint32_t len = 0;
    uint64_t ssc = kSsc;
    ScriptedCard card;
    card.link_status = ZEL_COMMUNICATION_ERROR;
    EXPECT_EQ(zel::mrtd::bac_read_file(ScriptedCard::transceive, &card, 0x011E, &file, &len, kKsEnc.data(),
                                       kKsMac.data(), &ssc),
              ZEL_COMMUNICATION_ERROR);
    card.link_status = ZEL_OK;
    card.script = {{{}, hex("6A")}};
    EXPECT_EQ(zel::mrtd::bac_read_file(ScriptedCard::transceive, &card, 0x011E, &file, &len, kKsEnc.data(),
                                       kKsMac.data(), &ssc),
              ZEL_APDU_TRANSCEIVE_ERROR);
    // A plain status word is not a protected answer: the unwrap refuses it first.
    card.script = {{{}, hex("6A82")}};
    EXPECT_EQ(zel::mrtd::bac_read_file(ScriptedCard::transceive, &card, 0x011E, &file, &len, kKsEnc.data(),
                                       kKsMac.data(), &ssc),
              ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(file, nullptr);
}

TEST(BacAuthenticate, CardRefusalsAndWrongAnswers)
{
    zel::mrtd::set_host_random_hook(example_randoms);
    uint8_t ks_enc[16], ks_mac[16];
    uint64_t ssc = 0;
    auto run = [&](std::deque<std::pair<Bytes, Bytes>> script) {
        ScriptedCard card;
        card.script = std::move(script);
        return zel::mrtd::bac_authenticate(ScriptedCard::transceive, &card, kProtoKey, ks_enc, ks_mac, &ssc);
    };
    EXPECT_EQ(run({{{}, hex("6A82")}}), 0xA6A82u);
    EXPECT_EQ(run({{{}, hex("9000")}, {{}, hex("1122339000")}}), ZEL_APDU_TRANSCEIVE_ERROR);
    // A wrong MRZ: the card refuses EXTERNAL AUTHENTICATE.
    EXPECT_EQ(run({{{}, hex("9000")}, {{}, with_ok(kRndIc)}, {{}, hex("6300")}}), 0xA6300u);
    // 90 00 but the wrong RND.IFD inside (under a good MAC), a MAC that does not verify, or too short an
    // answer. The host's randoms are wiped after a failure too.
    Bytes wrong(40);
    {
        Bytes plain = kRndIc + kRndIfd + kKIc;
        plain[10] ^= 0x55;
        mrtd_crypto_encrypt_3des(plain.data(), wrong.data(), 32, kKEnc.data());
        mrtd_crypto_mac_padding(wrong.data(), wrong.data() + 32, 32, kKMac.data());
    }
    EXPECT_EQ(run({{{}, hex("9000")}, {{}, with_ok(kRndIc)}, {{}, with_ok(wrong)}}),
              MRTD_SECURE_CHANNEL_SESSION_FAILED);
    EXPECT_EQ(cut(mrtd_bac_kifd, 16), Bytes(16, 0));
    Bytes spoilt_mac = kCardAnswer;
    spoilt_mac[39] ^= 0x01;
    EXPECT_EQ(run({{{}, hex("9000")}, {{}, with_ok(kRndIc)}, {{}, with_ok(spoilt_mac)}}),
              MRTD_SECURE_CHANNEL_SESSION_FAILED);
    EXPECT_EQ(run({{{}, hex("9000")},
                   {{}, with_ok(kRndIc)},
                   {{}, with_ok(Bytes(kCardAnswer.begin(), kCardAnswer.begin() + 32))}}),
              MRTD_SECURE_CHANNEL_SESSION_FAILED);
    EXPECT_EQ(run({{{}, hex("9000")},
                   {{}, with_ok(kRndIc)},
                   {{}, with_ok(Bytes(kCardAnswer.begin(), kCardAnswer.begin() + 31))}}),
              MRTD_SECURE_CHANNEL_SESSION_FAILED);
    EXPECT_EQ(run({{{}, hex("90")}}), ZEL_APDU_TRANSCEIVE_ERROR);
    zel::mrtd::set_host_random_hook(nullptr);

    // Without the hook the host randoms come from the generator and differ from call to call.
    zel::mrtd::fill_host_randoms();
    const Bytes first = cut(mrtd_bac_kifd, 16);
    mrtd_bac_randomize_rndifd_kifd();
    EXPECT_NE(cut(mrtd_bac_kifd, 16), first);
}

TEST(BacSecureMessaging, CommandShapes)
{
    // Case 1 (header only), case 3 (data, no Le), case 4 (data and Le).
    const Bytes c1 = protect(hex("00A40000"), kSsc);
    EXPECT_EQ(c1.size(), 4u + 1 + 10 + 1);
    EXPECT_EQ(c1[4], 0x0A);
    EXPECT_EQ(c1[5], 0x8E);
    const Bytes c3 = protect(hex("00A4020C02011E"), kSsc);
    EXPECT_EQ(c3.size(), 27u);
    EXPECT_EQ(c3[4], 21);
    const Bytes c4 = protect(hex("00A4020C02011E00"), kSsc);
    EXPECT_EQ(c4.size(), 30u);
    EXPECT_EQ(Bytes(c4.begin() + 16, c4.begin() + 19), hex("970100"));
    // More than one block of data: the data object's length follows the cipher text.
    const Bytes c_long = protect(hex("0022C1A412") + Bytes(18, 0x42), kSsc);
    EXPECT_EQ(Bytes(c_long.begin() + 5, c_long.begin() + 8), hex("871901"));
    EXPECT_EQ(c_long[4], c_long.size() - 6);

    uint8_t out[300];
    uint32_t n = 7;
    EXPECT_EQ(mrtd_bac_protected_apdu(hex("00A402").data(), out, 3, &n, kKsEnc.data(), kKsMac.data(), kSsc),
              ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(mrtd_bac_protected_apdu(hex("00A4020C0901").data(), out, 6, &n, kKsEnc.data(), kKsMac.data(), kSsc),
              ZEL_PARAMETERS_ERROR); // Lc runs past the APDU
    const Bytes big = hex("00DA0000F0") + Bytes(240, 1);
    EXPECT_EQ(mrtd_bac_protected_apdu(big.data(), out, uint32_t(big.size()), &n, kKsEnc.data(), kKsMac.data(), kSsc),
              ZEL_PARAMETERS_ERROR); // no short APDU holds it
}

TEST(BacSecureMessaging, MalformedAnswersAreRefused)
{
    Bytes plain;
    EXPECT_EQ(unwrap(hex("99"), &plain), ZEL_OK);
    EXPECT_TRUE(plain.empty());
    EXPECT_EQ(unwrap(hex("9000"), &plain), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(unwrap(Bytes{}, &plain), ZEL_PARAMETERS_ERROR);
    // One byte short or long, a missing 01, a length of one byte of cipher text.
    Bytes short_answer = kRead4Answer;
    short_answer.pop_back();
    EXPECT_EQ(unwrap(short_answer, &plain), ZEL_PARAMETERS_ERROR);
    Bytes long_answer = kRead4Answer;
    long_answer.push_back(0);
    EXPECT_EQ(unwrap(long_answer, &plain), ZEL_PARAMETERS_ERROR);
    Bytes no01 = kRead4Answer;
    no01[2] = 0x02;
    EXPECT_EQ(unwrap(no01, &plain), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(unwrap(hex("87050112345678") + Bytes(16, 0), &plain), ZEL_PARAMETERS_ERROR); // 4 bytes of cipher
    EXPECT_EQ(unwrap(hex("8783") + Bytes(30, 0), &plain), ZEL_PARAMETERS_ERROR);
    // A padding that never ends in 80.
    uint8_t enc[8];
    const Bytes block = hex("0102030405060708");
    mrtd_crypto_encrypt_3des(block.data(), enc, 8, kKsEnc.data());
    Bytes bad_pad = hex("870901");
    bad_pad.insert(bad_pad.end(), enc, enc + 8);
    bad_pad.resize(bad_pad.size() + 16, 0);
    EXPECT_EQ(unwrap(bad_pad, &plain), ZEL_PARAMETERS_ERROR);
    EXPECT_TRUE(plain.empty());
    // The 81 and 82 length forms.
    const Bytes data(150, 0x5A);
    Bytes r81 = card_answer(data, 0x9000, kSsc);
    ASSERT_EQ(r81[1], 0x81);
    EXPECT_EQ(unwrap(r81, &plain), ZEL_OK);
    EXPECT_EQ(plain, data);
}

TEST(BacCrypto, DesParityPaddingAndMac)
{
    // FIPS 81: DES of "Now is t" under 0123456789ABCDEF is 3FA40E8A984D4815.
    const Bytes key = hex("0123456789ABCDEF");
    const Bytes now = {'N', 'o', 'w', ' ', 'i', 's', ' ', 't'};
    uint8_t out[16];
    mrtd_crypto_encrypt_des(now.data(), out, 8, key.data());
    EXPECT_EQ(cut(out, 8), hex("3FA40E8A984D4815"));
    mrtd_crypto_decrypt_des(out, out, 8, key.data());
    EXPECT_EQ(cut(out, 8), now);
    // Two-key triple DES with K1 = K2 is single DES.
    const Bytes k16 = hex("0123456789ABCDEF0123456789ABCDEF");
    mrtd_crypto_encrypt_3des(now.data(), out, 8, k16.data());
    EXPECT_EQ(cut(out, 8), hex("3FA40E8A984D4815"));

    uint8_t par[256];
    uint8_t all[256];
    for (int i = 0; i < 256; ++i)
        all[i] = uint8_t(i);
    uint32_t n = 0;
    mrtd_crypto_fix_parity(all, par, 256, &n);
    EXPECT_EQ(n, 256u + 32);
    EXPECT_EQ(par[0x00], 0x01);
    EXPECT_EQ(par[0xFF], 0xFE);
    for (int i = 0; i < 256; ++i) {
        EXPECT_EQ(__builtin_popcount(par[i]) % 2, 1) << i;
        EXPECT_EQ(par[i] & 0xFE, i & 0xFE) << i;
    }

    uint8_t padded[24], back[24];
    mrtd_crypto_padding(now.data(), padded, 8, &n);
    EXPECT_EQ(cut(padded, n), hex("4E6F772069732074") + hex("8000000000000000"));
    mrtd_crypto_padding(now.data(), padded, 3, &n);
    EXPECT_EQ(cut(padded, n), hex("4E6F778000000000"));
    mrtd_crypto_padding_remove(padded, back, n, &n);
    EXPECT_EQ(cut(back, n), hex("4E6F77"));
    const Bytes no_end = hex("4E6F770000000000");
    n = 9;
    mrtd_crypto_padding_remove(no_end.data(), back, 8, &n);
    EXPECT_EQ(n, 0u);

    // The padded MAC equals the plain MAC over the padded data; only whole blocks count in the plain one.
    uint8_t m1[8], m2[8], m3[8];
    mrtd_crypto_mac_padding(now.data(), m1, 5, kKMac.data());
    mrtd_crypto_padding(now.data(), padded, 5, &n);
    mrtd_crypto_mac(padded, m2, int32_t(n), kKMac.data());
    EXPECT_EQ(cut(m1, 8), cut(m2, 8));
    mrtd_crypto_mac(padded, m3, int32_t(n) + 5, kKMac.data());
    EXPECT_EQ(cut(m3, 8), cut(m2, 8));
}

TEST(MrtdDataGroups, NamesIndicesAndTheComWalk)
{
    EXPECT_STREQ(MRTDGetDgName(0x60), "EF.COM");
    EXPECT_STREQ(MRTDGetDgName(0x61), "EF.DG1");
    EXPECT_STREQ(MRTDGetDgName(0x75), "EF.DG2");
    EXPECT_STREQ(MRTDGetDgName(0x63), "EF.DG3");
    EXPECT_STREQ(MRTDGetDgName(0x76), "EF.DG4");
    EXPECT_STREQ(MRTDGetDgName(0x65), "EF.DG5");
    EXPECT_STREQ(MRTDGetDgName(0x70), "EF.DG16");
    EXPECT_STREQ(MRTDGetDgName(0x77), "EF.SOD");
    for (uint8_t t : {0x00, 0x62, 0x64, 0x71, 0x74, 0x78, 0xFF})
        EXPECT_STREQ(MRTDGetDgName(t), "NOT DEFINED") << int(t);
    EXPECT_EQ(MRTDGetDgIndex(0x6B), 11);
    EXPECT_EQ(MRTDGetDgIndex(0x75), 2);
    EXPECT_EQ(MRTDGetDgIndex(0x77), 0);
    EXPECT_EQ(MRTDGetDgIndex(0x62), 0);

    auto walk = [](const Bytes &com, Bytes *tags_out = nullptr) {
        uint8_t *tags = reinterpret_cast<uint8_t *>(1);
        uint8_t count = 99;
        const ZEL_STATUS st = MRTDGetDGTagListFromCOM(com.data(), uint32_t(com.size()), &tags, &count);
        if (tags_out && st == ZEL_OK)
            *tags_out = cut(tags, count);
        if (st != ZEL_OK) {
            EXPECT_EQ(tags, nullptr);
            EXPECT_EQ(count, 0);
        }
        return st;
    };
    Bytes tags;
    EXPECT_EQ(walk(kEfCom, &tags), ZEL_OK);
    EXPECT_EQ(tags, hex("6175"));
    EXPECT_EQ(walk(hex("60025C00"), &tags), ZEL_OK);
    EXPECT_TRUE(tags.empty());
    EXPECT_EQ(walk(hex("60125C10") + Bytes(16, 0x6B), &tags), ZEL_OK);
    EXPECT_EQ(tags.size(), 16u);
    EXPECT_EQ(walk(hex("60135C11") + Bytes(17, 0x6B)), MRTD_EF_COM_WRONG_DATA); // more than 16 tags
    EXPECT_EQ(walk(hex("6006") + hex("5F0102AABB")), MRTD_EF_COM_WRONG_DATA);   // no tag list
    EXPECT_EQ(walk(hex("6005") + hex("AA5C026175")), MRTD_EF_COM_WRONG_DATA);   // an unknown object
    EXPECT_EQ(walk(hex("6000")), MRTD_EF_COM_WRONG_DATA);
    EXPECT_EQ(walk(hex("6004") + hex("5C036175")), MRTD_EF_COM_WRONG_DATA); // list past the file
    EXPECT_EQ(walk(hex("6015") + Bytes(kEfCom.begin() + 2, kEfCom.end())), MRTD_EF_COM_WRONG_DATA);
    EXPECT_EQ(walk(hex("6104") + hex("5C026175")), MRTD_EF_COM_WRONG_DATA);
    EXPECT_EQ(walk(hex("60025F")), MRTD_EF_COM_WRONG_DATA);
    EXPECT_EQ(walk(hex("60035F01")), MRTD_EF_COM_WRONG_DATA);
}

} // namespace
