// The host DESFire kit against independent references: the NIST SP 800-38B AES-CMAC example, OpenSSL's own
// CMAC and CBC, zlib's CRC-32 and the CRC catalogue values.
#include <gtest/gtest.h>

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <zlib.h>

#include <cstring>
#include <string>
#include <vector>

#include "zel_desfire_crypto.h"
#include "smartcard/desfire_internal.h"
#include "zel_status.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes hex(const std::string &s)
{
    Bytes out;
    for (size_t i = 0; i + 1 < s.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoul(s.substr(i, 2), nullptr, 16)));
    return out;
}

// OpenSSL references.
Bytes ossl_cbc(const char *cipher, const Bytes &key, const Bytes &iv, const Bytes &in, int enc)
{
    EVP_CIPHER_CTX *c = EVP_CIPHER_CTX_new();
    EXPECT_EQ(
        EVP_CipherInit_ex(c, EVP_get_cipherbyname(cipher), nullptr, key.data(), iv.empty() ? nullptr : iv.data(), enc),
        1);
    EVP_CIPHER_CTX_set_padding(c, 0);
    Bytes out(in.size() + 32);
    int n = 0, f = 0;
    EVP_CipherUpdate(c, out.data(), &n, in.data(), static_cast<int>(in.size()));
    EVP_CipherFinal_ex(c, out.data() + n, &f);
    EVP_CIPHER_CTX_free(c);
    out.resize(n + f);
    return out;
}

Bytes ossl_cmac(const char *cipher, const Bytes &key, const Bytes &msg)
{
    EVP_MAC *mac = EVP_MAC_fetch(nullptr, "CMAC", nullptr);
    EVP_MAC_CTX *ctx = EVP_MAC_CTX_new(mac);
    OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_CIPHER, const_cast<char *>(cipher), 0),
                           OSSL_PARAM_construct_end()};
    EXPECT_EQ(EVP_MAC_init(ctx, key.data(), key.size(), params), 1);
    EVP_MAC_update(ctx, msg.data(), msg.size());
    Bytes out(16);
    size_t n = 0;
    EVP_MAC_final(ctx, out.data(), &n, out.size());
    out.resize(n);
    EVP_MAC_CTX_free(ctx);
    EVP_MAC_free(mac);
    return out;
}

uint32_t jamcrc(const Bytes &b)
{
    return ~static_cast<uint32_t>(crc32(0, b.data(), static_cast<uInt>(b.size())));
}

desfire_key aes_key(const Bytes &k, uint8_t version = 0)
{
    desfire_key key{};
    aes_key_new_with_version(&key, k.data(), version);
    return key;
}

const Bytes kNistKey = hex("2B7E151628AED2A6ABF7158809CF4F3C");
const Bytes kNistMsg64 = hex("6BC1BEE22E409F96E93D7E117393172AAE2D8A571E03AC9C9EB76FAC45AF8E5130C81C46A35CE411"
                             "E5FBC1191A0A52EFF69F2445DF4F9B17AD2B417BE66C3710");

TEST(DesfireCmac, AesSubkeysAndTagsMatchTheNistExample)
{
    desfire_key key = aes_key(kNistKey);
    cmac_generate_subkeys_nl(&key);
    EXPECT_EQ(Bytes(key.cmac_sk1, key.cmac_sk1 + 16), hex("FBEED618357133667C85E08F7236A8DE"));
    EXPECT_EQ(Bytes(key.cmac_sk2, key.cmac_sk2 + 16), hex("F7DDAC306AE266CCF90BC11EE46D513B"));
    const struct {
        size_t len;
        const char *tag;
    } cases[] = {{0, "BB1D6929E95937287FA37D129B756746"},
                 {16, "070A16B46B4D4144F79BDD9DD04A287C"},
                 {40, "DFA66747DE9AE63030CA32611497C827"},
                 {64, "51F0BEBF7E3B9D92FC49741779363CFE"}};
    for (const auto &c : cases) {
        uint8_t iv[16] = {};
        uint8_t tag[16] = {};
        cmac_nl(&key, iv, kNistMsg64.data(), static_cast<uint8_t>(c.len), tag);
        EXPECT_EQ(Bytes(tag, tag + 16), hex(c.tag)) << c.len;
        EXPECT_EQ(Bytes(iv, iv + 16), hex(c.tag)) << "the IV ends as the CMAC";
    }
}

TEST(DesfireCmac, AesAgreesWithOpenSslOnOtherKeysAndLengths)
{
    const Bytes k = hex("0F1E2D3C4B5A69788796A5B4C3D2E1F0");
    desfire_key key = aes_key(k);
    cmac_generate_subkeys_nl(&key);
    Bytes msg(240);
    for (size_t i = 0; i < msg.size(); ++i)
        msg[i] = static_cast<uint8_t>(i * 7 + 3);
    for (size_t len : {1u, 15u, 17u, 31u, 32u, 100u, 239u, 240u}) {
        uint8_t iv[16] = {};
        uint8_t tag[16];
        cmac_nl(&key, iv, msg.data(), static_cast<uint8_t>(len), tag);
        EXPECT_EQ(Bytes(tag, tag + 16), ossl_cmac("AES-128-CBC", k, Bytes(msg.begin(), msg.begin() + len))) << len;
    }
}

TEST(DesfireCmac, PaddingThatReaches256LeavesTheIv)
{
    desfire_key key = aes_key(kNistKey);
    cmac_generate_subkeys_nl(&key);
    Bytes msg(241, 0x5A);
    uint8_t iv[16];
    for (int i = 0; i < 16; ++i)
        iv[i] = static_cast<uint8_t>(0xA0 + i);
    const Bytes before(iv, iv + 16);
    uint8_t tag[16] = {};
    cmac_nl(&key, iv, msg.data(), 241, tag);
    EXPECT_EQ(Bytes(tag, tag + 16), before);
    EXPECT_EQ(Bytes(iv, iv + 16), before);
}

TEST(DesfireCmac, SingleDesAgreesWithOpenSslCmac)
{
    Bytes k = hex("0123456789ABCDEF");
    desfire_key key{};
    des_key_new(&key, k.data()); // clears the parity bits in k as well
    Bytes k3;
    for (int i = 0; i < 3; ++i)
        k3.insert(k3.end(), k.begin(), k.end());
    cmac_generate_subkeys_nl(&key);
    Bytes msg = hex("6BC1BEE22E409F96E93D7E117393172AAE2D8A571E03AC9C9EB76FAC45AF8E51");
    for (size_t len : {0u, 5u, 8u, 16u, 20u, 32u}) {
        uint8_t iv[16] = {};
        uint8_t tag[8];
        cmac_nl(&key, iv, msg.data(), static_cast<uint8_t>(len), tag);
        EXPECT_EQ(Bytes(tag, tag + 8), ossl_cmac("DES-EDE3-CBC", k3, Bytes(msg.begin(), msg.begin() + len))) << len;
    }
}

TEST(DesfireCmac, AnIvCarriesTheChainIntoTheNextMessage)
{
    // CMAC of a message with a non-zero IV equals the plain CMAC of the IV-xored first block.
    desfire_key key = aes_key(hex("00112233445566778899AABBCCDDEEFF"));
    cmac_generate_subkeys_nl(&key);
    const Bytes iv0 = hex("F0E1D2C3B4A5968778695A4B3C2D1E0F");
    Bytes msg = hex("000102030405060708090A0B0C0D0E0F101112131415161718");
    uint8_t iv[16];
    std::memcpy(iv, iv0.data(), 16);
    uint8_t tag[16];
    cmac_nl(&key, iv, msg.data(), static_cast<uint8_t>(msg.size()), tag);
    Bytes shifted = msg;
    for (int i = 0; i < 16; ++i)
        shifted[i] ^= iv0[i];
    EXPECT_EQ(Bytes(tag, tag + 16), ossl_cmac("AES-128-CBC", hex("00112233445566778899AABBCCDDEEFF"), shifted));
}

TEST(DesfireCrc, CatalogueValues)
{
    const Bytes text = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    uint32_t c32 = 0;
    desfire_crc32(text.data(), 9, &c32, 1);
    EXPECT_EQ(c32, 0x340BC6D9u);
    uint16_t ca = 0;
    iso14443a_crc_nl(text.data(), 9, &ca, 1);
    EXPECT_EQ(ca, 0xBF05);

    uint8_t b1[4] = {0x00, 0x00};
    iso14443a_crc_append_nl(b1, 2);
    EXPECT_EQ(Bytes(b1, b1 + 4), hex("0000A01E"));
    uint8_t b2[4] = {0x12, 0x34};
    iso14443a_crc_append_nl(b2, 2);
    EXPECT_EQ(Bytes(b2, b2 + 4), hex("123426CF"));
}

TEST(DesfireCrc, CrcAOfEveryLengthMatchesTheBitwiseDefinition)
{
    // Reflected polynomial 0x8408 from 0x6363, bit by bit, against the library on every length to 64 and on
    // 255 (every step width and tail), and 256 by the length byte 0.
    auto bitwise = [](const Bytes &d, size_t n) {
        uint16_t c = 0x6363;
        for (size_t i = 0; i < n; ++i) {
            c ^= d[i];
            for (int b = 0; b < 8; ++b)
                c = static_cast<uint16_t>(c & 1 ? (c >> 1) ^ 0x8408 : c >> 1);
        }
        return c;
    };
    Bytes data(256);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<uint8_t>(i * 101 + 17);
    for (size_t n = 1; n <= 64; ++n) {
        uint16_t c = 0;
        iso14443a_crc_nl(data.data(), static_cast<uint8_t>(n), &c, 1);
        EXPECT_EQ(c, bitwise(data, n)) << n;
    }
    uint16_t c = 0;
    iso14443a_crc_nl(data.data(), 255, &c, 1);
    EXPECT_EQ(c, bitwise(data, 255));
    iso14443a_crc_nl(data.data(), 0, &c, 1);
    EXPECT_EQ(c, bitwise(data, 256)) << "a length of 0 covers 256 bytes";
}

TEST(DesfireCrc, BothCrcsOfEveryLengthAndRunningStartMatchTheirReferences)
{
    // Both ways of computing: by table alone, then folding where the processor has it.
    for (bool fold : {false, true}) {
        zel::desfire::crc_folding(fold);
        SCOPED_TRACE(fold ? "folding where offered" : "by table");
        // Every length a byte can give, each from a fresh start and from a running value left by an odd-sized
        // prefix (the start value enters the first bytes of a long run), against zlib and the bitwise CRC_A.
        Bytes data(300);
        for (size_t i = 0; i < data.size(); ++i)
            data[i] = static_cast<uint8_t>(i * 151 + (i >> 3) + 29);
        auto crca_bits = [](uint16_t c, const uint8_t *d, size_t n) {
            for (size_t i = 0; i < n; ++i) {
                c ^= d[i];
                for (int b = 0; b < 8; ++b)
                    c = static_cast<uint16_t>(c & 1 ? (c >> 1) ^ 0x8408 : c >> 1);
            }
            return c;
        };
        for (size_t prefix : {size_t{0}, size_t{7}, size_t{33}}) {
            for (size_t n = 1; n <= 255; ++n) {
                uint32_t c32 = 0;
                desfire_crc32(data.data(), static_cast<uint8_t>(prefix), &c32, 1);
                desfire_crc32(data.data() + prefix, static_cast<uint8_t>(n), &c32, 0);
                EXPECT_EQ(c32, jamcrc(Bytes(data.begin(), data.begin() + static_cast<long>(prefix + n))))
                    << prefix << "+" << n;
                uint16_t ca = 0;
                if (prefix)
                    iso14443a_crc_nl(data.data(), static_cast<uint8_t>(prefix), &ca, 1);
                iso14443a_crc_nl(data.data() + prefix, static_cast<uint8_t>(n), &ca, prefix ? 0 : 1);
                EXPECT_EQ(ca, crca_bits(0x6363, data.data(), prefix + n)) << prefix << "+" << n;
            }
        }
    }
}

TEST(DesfireCrc, RunningValuesRestartsAndAppend)
{
    Bytes data(200);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<uint8_t>(i * 13 + 1);
    uint32_t whole = 0, part = 0;
    desfire_crc32(data.data(), 200, &whole, 1);
    EXPECT_EQ(whole, jamcrc(data));
    desfire_crc32(data.data(), 77, &part, 1);
    desfire_crc32(data.data() + 77, 123, &part, 0); // carries on from the running value
    EXPECT_EQ(part, whole);
    uint32_t by_byte = 0xFFFFFFFFu;
    for (uint8_t b : data)
        desfire_crc32_byte(&by_byte, b);
    EXPECT_EQ(by_byte, whole);
    // The byte routine alone on the check string: the CRC-32 catalogue value without the final inversion,
    // not the CRC-32C one (0xE3069283 inverted).
    uint32_t check = 0xFFFFFFFFu;
    for (char ch : std::string("123456789"))
        desfire_crc32_byte(&check, static_cast<uint8_t>(ch));
    EXPECT_EQ(check, 0x340BC6D9u);
    EXPECT_NE(check, ~0xE3069283u);

    uint8_t buf[208];
    std::memcpy(buf, data.data(), 200);
    desfire_crc32_append(buf, 200);
    EXPECT_EQ(buf[200] | buf[201] << 8 | buf[202] << 16 | static_cast<uint32_t>(buf[203]) << 24, whole);
    uint32_t residue = 1;
    desfire_crc32(buf, 204, &residue, 1);
    EXPECT_EQ(residue, 0u) << "a message with its CRC behind it checks to zero";
    uint8_t empty[4] = {1, 2, 3, 4};
    desfire_crc32_append(empty, 0);
    EXPECT_EQ(Bytes(empty, empty + 4), hex("FFFFFFFF"));

    uint16_t a1 = 0, a2 = 0;
    iso14443a_crc_nl(data.data(), 50, &a1, 1);
    iso14443a_crc_nl(data.data() + 50, 30, &a1, 0);
    iso14443a_crc_nl(data.data(), 80, &a2, 1);
    EXPECT_EQ(a1, a2);
}

TEST(DesfireKeys, ParityTreatmentOfTheDesForms)
{
    uint8_t ff[8];
    std::memset(ff, 0xFF, 8);
    desfire_key key{};
    des_key_new(&key, ff);
    EXPECT_EQ(key.type, DESFIRE_HOST_KEY_DES);
    EXPECT_EQ(Bytes(key.data, key.data + 16), Bytes(16, 0xFE));
    EXPECT_EQ(Bytes(ff, ff + 8), Bytes(8, 0xFE));

    Bytes k2 = hex("0102030405060708F0E0D0C0B0A09080");
    desfire_2k3des_key_new(&key, k2.data());
    EXPECT_EQ(key.type, DESFIRE_HOST_KEY_2K3DES);
    EXPECT_EQ(Bytes(key.data, key.data + 16), hex("0002020404060608F1E1D1C1B1A19181"));
    EXPECT_EQ(k2, hex("0002020404060608F1E1D1C1B1A19181"));

    Bytes k3 = hex("0102030405060708F0E0D0C0B0A09080111213141516171A");
    desfire_3k3des_key_new(&key, k3.data());
    EXPECT_EQ(key.type, DESFIRE_HOST_KEY_3K3DES);
    EXPECT_EQ(Bytes(key.data, key.data + 24), hex("0002020404060608F0E0D0C0B0A09080111213141516171A"));

    desfire_key a = aes_key(hex("FFEEDDCCBBAA99887766554433221101"), 0x42);
    EXPECT_EQ(a.type, DESFIRE_HOST_KEY_AES);
    EXPECT_EQ(a.aes_version, 0x42);
    EXPECT_EQ(Bytes(a.data, a.data + 16), hex("FFEEDDCCBBAA99887766554433221101")) << "AES keeps every bit";
}

TEST(DesfireKeys, SessionKeysOfEachType)
{
    const Bytes rnda = hex("A1A2A3A4A5A6A7A8A9AAABACADAEAFB0");
    const Bytes rndb = hex("1112131415161718191A1B1C1D1E1F20");
    desfire_key a = aes_key(hex("00112233445566778899AABBCCDDEEFF"), 7);
    session_key_new(rnda.data(), rndb.data(), &a);
    EXPECT_EQ(a.type, DESFIRE_HOST_KEY_AES);
    EXPECT_EQ(Bytes(a.data, a.data + 16), hex("A1A2A3A411121314ADAEAFB01D1E1F20"));

    const Bytes want_des = hex("A0A2A2A410121214A0A2A2A410121214");
    Bytes kd = hex("1032547698BADCFE");
    Bytes k2 = hex("1032547698BADCFE0123456789ABCDEF");
    Bytes k3 = hex("1032547698BADCFE0123456789ABCDEF0F1E2D3C4B5A6978");
    desfire_key d{}, t2{}, t3{};
    des_key_new(&d, kd.data());
    desfire_2k3des_key_new(&t2, k2.data());
    desfire_3k3des_key_new(&t3, k3.data());
    for (desfire_key *k : {&d, &t2, &t3}) {
        session_key_new(rnda.data(), rndb.data(), k);
        EXPECT_EQ(k->type, DESFIRE_HOST_KEY_DES);
        EXPECT_EQ(Bytes(k->data, k->data + 16), want_des);
    }
    // The refreshed schedules cipher with the session key: a DES block against OpenSSL.
    Bytes blk = hex("0011223344556677");
    uint8_t iv[8] = {};
    cypher_single_block_des(&t3, blk.data(), iv, 2, DESFIRE_ENCIPHER);
    Bytes k3s(want_des.begin(), want_des.begin() + 8);
    k3s.insert(k3s.end(), want_des.begin(), want_des.end());
    EXPECT_EQ(blk, ossl_cbc("DES-EDE3-ECB", k3s, {}, hex("0011223344556677"), 1));
}

// The four chaining pairs against OpenSSL, AES and DES alike.
struct ChainCase {
    const char *name;
    uint8_t direction, operation;
};

Bytes reference_chain(const char *ecb, const Bytes &key, Bytes iv, const Bytes &in, size_t bs, const ChainCase &c)
{
    Bytes out;
    for (size_t at = 0; at < in.size(); at += bs) {
        Bytes blk(in.begin() + at, in.begin() + at + bs);
        if (c.direction == DESFIRE_SEND) {
            for (size_t i = 0; i < bs; ++i)
                blk[i] ^= iv[i];
            blk = ossl_cbc(ecb, key, {}, blk, c.operation == DESFIRE_ENCIPHER);
            iv = blk;
        } else {
            const Bytes kept = blk;
            blk = ossl_cbc(ecb, key, {}, blk, c.operation == DESFIRE_ENCIPHER);
            for (size_t i = 0; i < bs; ++i)
                blk[i] ^= iv[i];
            iv = kept;
        }
        out.insert(out.end(), blk.begin(), blk.end());
    }
    out.insert(out.end(), iv.begin(), iv.end()); // the final IV behind the data
    return out;
}

const ChainCase kPairs[] = {{"send encipher", DESFIRE_SEND, DESFIRE_ENCIPHER},
                            {"send decipher", DESFIRE_SEND, DESFIRE_DECIPHER},
                            {"receive encipher", DESFIRE_RECEIVE, DESFIRE_ENCIPHER},
                            {"receive decipher", DESFIRE_RECEIVE, DESFIRE_DECIPHER}};

TEST(DesfireChaining, AesPairsMatchOpenSsl)
{
    const Bytes k = hex("C0C1C2C3C4C5C6C7C8C9CACBCCCDCECF");
    const Bytes iv0 = hex("0F0E0D0C0B0A09080706050403020100");
    Bytes data(80);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<uint8_t>(0x31 * i + 5);
    for (const auto &c : kPairs) {
        desfire_key key = aes_key(k);
        Bytes d = data;
        uint8_t iv[16];
        std::memcpy(iv, iv0.data(), 16);
        ASSERT_EQ(aes_blocks_chained(&key, iv, d.data(), 80, c.direction, c.operation), ZEL_OK);
        Bytes got = d;
        got.insert(got.end(), iv, iv + 16);
        EXPECT_EQ(got, reference_chain("AES-128-ECB", k, iv0, data, 16, c)) << c.name;

        // One block at a time through cypher_single_block gives the same.
        Bytes s = data;
        std::memcpy(iv, iv0.data(), 16);
        for (size_t at = 0; at < s.size(); at += 16)
            cypher_single_block(k.data(), s.data() + at, iv, c.direction, c.operation);
        EXPECT_EQ(s, d) << c.name;
    }
}

TEST(DesfireChaining, DesPairsMatchOpenSslAndTheAliasOperations)
{
    Bytes k = hex("3E5C7A98B6D4F2E0");
    const Bytes iv0 = hex("8877665544332211");
    Bytes data(40);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<uint8_t>(0x47 * i + 9);
    desfire_key key{};
    des_key_new(&key, k.data());
    Bytes k3 = k;
    k3.insert(k3.end(), k.begin(), k.end());
    k3.insert(k3.end(), k.begin(), k.end());
    for (const auto &c : kPairs) {
        for (uint8_t op : {c.operation, static_cast<uint8_t>(c.operation == DESFIRE_ENCIPHER ? 3 : 2)}) {
            Bytes d = data;
            uint8_t iv[16] = {};
            std::memcpy(iv, iv0.data(), 8);
            ASSERT_EQ(des_blocks_chained(&key, iv, d.data(), 40, c.direction, op), ZEL_OK);
            d.insert(d.end(), iv, iv + 8);
            EXPECT_EQ(d, reference_chain("DES-EDE3-ECB", k3, iv0, data, 8, c)) << c.name << " op " << int(op);
        }
    }
    // Operation 7 does no ciphering: the plain chain of XORs.
    Bytes d = data;
    uint8_t iv[8];
    std::memcpy(iv, iv0.data(), 8);
    ASSERT_EQ(des_blocks_chained(&key, iv, d.data(), 8, DESFIRE_SEND, 7), ZEL_OK);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(d[i], data[i] ^ iv0[i]);
}

TEST(DesfireChaining, MessagesInAnyOrderEachStartFromTheirOwnIv)
{
    // Successive messages with unrelated IVs, of both directions and two keys, interleaved: each must equal
    // a fresh CBC from its own IV, whatever ran before it.
    const Bytes k1 = hex("0F1E2D3C4B5A69788796A5B4C3D2E1F0"), k2 = hex("C0FFEE00112233445566778899AABBCC");
    struct Step {
        const Bytes *key;
        uint8_t direction;
        size_t len;
        uint8_t iv_seed;
    } steps[] = {{&k1, DESFIRE_SEND, 48, 1},    {&k1, DESFIRE_SEND, 16, 2},    {&k1, DESFIRE_RECEIVE, 32, 3},
                 {&k2, DESFIRE_RECEIVE, 64, 4}, {&k1, DESFIRE_RECEIVE, 16, 5}, {&k2, DESFIRE_SEND, 80, 6},
                 {&k1, DESFIRE_SEND, 32, 7},    {&k1, DESFIRE_RECEIVE, 48, 8}};
    for (const Step &st : steps) {
        Bytes iv(16), data(st.len);
        for (size_t i = 0; i < 16; ++i)
            iv[i] = static_cast<uint8_t>(st.iv_seed * 31 + i * 7);
        for (size_t i = 0; i < data.size(); ++i)
            data[i] = static_cast<uint8_t>(st.iv_seed + i * 13);
        desfire_key key = aes_key(*st.key);
        Bytes d = data, v = iv;
        const uint8_t op = st.direction == DESFIRE_SEND ? DESFIRE_ENCIPHER : DESFIRE_DECIPHER;
        ASSERT_EQ(aes_blocks_chained(&key, v.data(), d.data(), static_cast<uint8_t>(d.size()), st.direction, op),
                  ZEL_OK);
        const Bytes want = ossl_cbc("AES-128-CBC", *st.key, iv, data, st.direction == DESFIRE_SEND ? 1 : 0);
        EXPECT_EQ(d, want) << int(st.iv_seed);
        const Bytes &last_cipher = st.direction == DESFIRE_SEND ? d : data;
        EXPECT_EQ(v, Bytes(last_cipher.end() - 16, last_cipher.end())) << int(st.iv_seed);
    }
}

TEST(DesfireChaining, RoundTripsAndRefusedLengths)
{
    desfire_key key = aes_key(hex("5566778899AABBCCDDEEFF0011223344"));
    Bytes data(64);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<uint8_t>(255 - 3 * i);
    // Each sending form undone by the receiving form of the other operation.
    for (auto [send_op, recv_op] : {std::pair<uint8_t, uint8_t>{0, 1}, {1, 0}}) {
        Bytes d = data;
        uint8_t iv1[16] = {9, 8, 7, 6, 5, 4, 3, 2, 1, 0, 1, 2, 3, 4, 5, 6};
        uint8_t iv2[16];
        std::memcpy(iv2, iv1, 16);
        ASSERT_EQ(aes_blocks_chained(&key, iv1, d.data(), 64, DESFIRE_SEND, send_op), ZEL_OK);
        EXPECT_NE(d, data);
        ASSERT_EQ(aes_blocks_chained(&key, iv2, d.data(), 64, DESFIRE_RECEIVE, recv_op), ZEL_OK);
        EXPECT_EQ(d, data);
        EXPECT_EQ(0, std::memcmp(iv1, iv2, 16)) << "both ends hold the same chain afterwards";
    }
    Bytes d = data;
    uint8_t iv[16] = {};
    for (uint8_t bad : {15, 17, 241, 250, 255}) {
        Bytes big(256, 0x11);
        EXPECT_EQ(aes_blocks_chained(&key, iv, big.data(), bad, DESFIRE_SEND, 0), ZEL_PARAMETERS_ERROR) << int(bad);
        EXPECT_EQ(big, Bytes(256, 0x11));
    }
    desfire_key dk{};
    Bytes k = hex("0102030405060708");
    des_key_new(&dk, k.data());
    EXPECT_EQ(des_blocks_chained(&dk, iv, d.data(), 12, DESFIRE_SEND, 0), ZEL_PARAMETERS_ERROR);
    {
        // 248 is whole DES blocks, but a byte offset stepping by 8 would wrap: refused, untouched.
        Bytes big(256, 0x22);
        EXPECT_EQ(des_blocks_chained(&dk, iv, big.data(), 248, DESFIRE_SEND, 0), ZEL_PARAMETERS_ERROR);
        EXPECT_EQ(big, Bytes(256, 0x22));
        EXPECT_EQ(des_blocks_chained(&dk, iv, big.data(), 240, DESFIRE_SEND, 0), ZEL_OK);
        EXPECT_NE(big, Bytes(256, 0x22));
        EXPECT_EQ(big[240], 0x22) << "nothing past the length";
    }
    EXPECT_EQ(aes_blocks_chained(&key, iv, d.data(), 0, DESFIRE_SEND, 0), ZEL_OK);
}

TEST(DesfireMessages, PreprocessEnciphersWithCrcAAndPadding)
{
    const Bytes k = hex("A0B1C2D3E4F5061728394A5B6C7D8E9F");
    desfire_key key = aes_key(k);
    const Bytes iv0 = hex("00112233445566778899AABBCCDDEEFF");
    const Bytes msg = hex("3D0100000005000011223344AABB"); // header of 8 bytes then 6 data bytes
    uint8_t out[64];
    std::memset(out, 0xEE, sizeof out);
    uint8_t iv[16];
    std::memcpy(iv, iv0.data(), 16);
    uint8_t len = static_cast<uint8_t>(msg.size());
    ASSERT_EQ(
        crypto_preprocess_data_nl(&key, iv, msg.data(), &len, 8, DESFIRE_COMM_ENCIPHERED | DESFIRE_ENC_COMMAND, out),
        0u);
    ASSERT_EQ(len, 8 + 16);
    EXPECT_EQ(Bytes(out, out + 8), Bytes(msg.begin(), msg.begin() + 8)) << "the header stays clear";
    const Bytes plain = ossl_cbc("AES-128-CBC", k, iv0, Bytes(out + 8, out + 24), 0);
    uint8_t crc_src[8] = {0x11, 0x22, 0x33, 0x44, 0xAA, 0xBB};
    iso14443a_crc_append_nl(crc_src, 6);
    EXPECT_EQ(Bytes(plain.begin(), plain.begin() + 8), Bytes(crc_src, crc_src + 8));
    EXPECT_EQ(Bytes(plain.begin() + 8, plain.begin() + 10), hex("EEEE")) << "two CRC bytes keep the buffer's bytes";
    EXPECT_EQ(Bytes(plain.begin() + 10, plain.end()), Bytes(6, 0));
    EXPECT_EQ(Bytes(iv, iv + 16), Bytes(out + 8, out + 24)) << "the IV carries the last cipher block";

    // NO_CRC: padding only; DES record.
    Bytes kd = hex("1F2E3D4C5B6A7988");
    desfire_key dk{};
    des_key_new(&dk, kd.data());
    uint8_t ivd[16] = {1, 2, 3, 4, 5, 6, 7, 8};
    len = 11;
    ASSERT_EQ(
        crypto_preprocess_data_nl(&dk, ivd, msg.data(), &len, 1, 0x3003 /* enciphered, ENC_COMMAND, NO_CRC */, out),
        0u);
    EXPECT_EQ(len, 1 + 16);
    Bytes kd3 = kd;
    kd3.insert(kd3.end(), kd.begin(), kd.end());
    kd3.insert(kd3.end(), kd.begin(), kd.end());
    Bytes want_plain(msg.begin() + 1, msg.begin() + 11);
    want_plain.resize(16, 0);
    EXPECT_EQ(ossl_cbc("DES-EDE3-CBC", kd3, hex("0102030405060708"), Bytes(out + 1, out + 17), 0), want_plain);
}

TEST(DesfireMessages, PreprocessModesAndLimits)
{
    desfire_key key = aes_key(hex("A0B1C2D3E4F5061728394A5B6C7D8E9F"));
    uint8_t iv[16] = {};
    Bytes msg(200, 0x42);
    uint8_t out[256] = {};
    uint8_t len = 185;
    EXPECT_EQ(crypto_preprocess_data_nl(&key, iv, msg.data(), &len, 0, 0x1003, out), 126u);
    len = 10;
    EXPECT_EQ(crypto_preprocess_data_nl(&key, iv, msg.data(), &len, 0, 0x1000, out), 0u);
    EXPECT_EQ(Bytes(out, out + 10), Bytes(10, 0x42)) << "plain is a copy";
    EXPECT_EQ(len, 10);
    EXPECT_EQ(crypto_preprocess_data_nl(&key, iv, msg.data(), &len, 0, 0x1001, out), 1u);
    EXPECT_EQ(crypto_preprocess_data_nl(&key, iv, msg.data(), &len, 0, 0x1002, out), 1u);
    std::memset(out, 0, sizeof out);
    EXPECT_EQ(crypto_preprocess_data_nl(&key, iv, msg.data(), &len, 0, 0x0003, out), 0u);
    EXPECT_EQ(out[0], 0) << "without ENC_COMMAND nothing is written";
    len = 184;
    EXPECT_EQ(crypto_preprocess_data_nl(&key, iv, msg.data(), &len, 0, 0x1003, out), 0u);
    EXPECT_EQ(len, 192);
}

// Builds what a card answers in the enciphered mode: data, CRC-32 over data and status 00, padding,
// enciphered in CBC, then the status byte.
Bytes card_answer(const Bytes &key, const Bytes &iv, const Bytes &data, size_t bs, const char *cbc)
{
    Bytes withstatus = data;
    withstatus.push_back(0x00);
    const uint32_t c = jamcrc(withstatus);
    Bytes plain = data;
    for (int i = 0; i < 4; ++i)
        plain.push_back(static_cast<uint8_t>(c >> (8 * i)));
    while (plain.size() % bs)
        plain.push_back(0);
    Bytes enc = ossl_cbc(cbc, key, iv, plain, 1);
    enc.push_back(0x00);
    return enc;
}

TEST(DesfireMessages, PostprocessFindsTheCrcForEveryDataLength)
{
    const Bytes k = hex("2468ACE013579BDF0246813579BDFECA");
    const Bytes iv0 = hex("FEDCBA98765432100123456789ABCDEF");
    for (size_t n = 0; n <= 40; ++n) {
        Bytes data(n);
        for (size_t i = 0; i < n; ++i)
            data[i] = static_cast<uint8_t>(i * 29 + n);
        const Bytes ans = card_answer(k, iv0, data, 16, "AES-128-CBC");
        desfire_key key = aes_key(k);
        uint8_t iv[16];
        std::memcpy(iv, iv0.data(), 16);
        uint8_t out[256];
        uint8_t len = static_cast<uint8_t>(ans.size());
        ASSERT_EQ(crypto_postprocess_data_nl(&key, iv, ans.data(), &len, 3, out), 0u) << n;
        EXPECT_EQ(len, n);
        EXPECT_EQ(Bytes(out, out + len), data) << n;
        EXPECT_EQ(Bytes(iv, iv + 16), Bytes(ans.end() - 17, ans.end() - 1)) << "IV is the last cipher block";

        // A flipped bit anywhere makes the message unverifiable.
        Bytes bad = ans;
        bad[bad.size() / 2] ^= 0x04;
        std::memcpy(iv, iv0.data(), 16);
        len = static_cast<uint8_t>(bad.size());
        EXPECT_EQ(crypto_postprocess_data_nl(&key, iv, bad.data(), &len, 3, out), 1u) << n;
    }
}

TEST(DesfireMessages, PostprocessOfAMessageInPieces)
{
    const Bytes kd = hex("13579BDF02468ACE");
    Bytes kdm = kd;
    desfire_key key{};
    des_key_new(&key, kdm.data());
    Bytes k3 = kdm;
    k3.insert(k3.end(), kdm.begin(), kdm.end());
    k3.insert(k3.end(), kdm.begin(), kdm.end());
    const Bytes iv0 = hex("0102030405060708");
    Bytes data(45);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<uint8_t>(0x80 + i);
    const Bytes ans = card_answer(k3, iv0, data, 8, "DES-EDE3-CBC");
    ASSERT_EQ(ans.size(), 57u); // 56 cipher bytes and the status
    // Pieces of 24 and 32 cipher bytes, each with a status byte behind.
    Bytes p1(ans.begin(), ans.begin() + 24), p2(ans.begin() + 24, ans.end() - 1);
    p1.push_back(0xAF);
    p2.push_back(0x00);
    uint8_t iv[16] = {};
    std::memcpy(iv, iv0.data(), 8);
    uint8_t out1[64], out2[64];
    uint8_t len1 = static_cast<uint8_t>(p1.size());
    ASSERT_EQ(crypto_postprocess_data_nl(&key, iv, p1.data(), &len1, 0x2003, out1), 0u);
    uint8_t len2 = static_cast<uint8_t>(p2.size());
    ASSERT_EQ(crypto_postprocess_data_nl(&key, iv, p2.data(), &len2, 0x4003, out2), 0u);
    Bytes got(out1, out1 + len1);
    got.insert(got.end(), out2, out2 + len2);
    EXPECT_EQ(got, data);
}

TEST(DesfireMessages, PostprocessModesAndLimits)
{
    desfire_key key = aes_key(hex("0A1B2C3D4E5F60718293A4B5C6D7E8F9"));
    uint8_t iv[16] = {};
    Bytes m(200, 0x10);
    uint8_t out[256];
    uint8_t len = 1;
    EXPECT_EQ(crypto_postprocess_data_nl(&key, iv, m.data(), &len, 3, out), 0u);
    len = 185;
    EXPECT_EQ(crypto_postprocess_data_nl(&key, iv, m.data(), &len, 3, out), 126u);
    len = 17;
    EXPECT_EQ(crypto_postprocess_data_nl(&key, iv, m.data(), &len, 1, out), 1u);
    EXPECT_EQ(crypto_postprocess_data_nl(&key, iv, m.data(), &len, 2, out), 1u);
    EXPECT_EQ(crypto_postprocess_data_nl(&key, iv, m.data(), &len, 0, out), 0u);
    len = 20; // 19 cipher bytes: not whole blocks
    EXPECT_EQ(crypto_postprocess_data_nl(&key, iv, m.data(), &len, 3, out), 1u);
}

TEST(DesfireLengths, PaddingAndEncipheredLengths)
{
    EXPECT_EQ(padded_data_length(0, 8), 8u);
    EXPECT_EQ(padded_data_length(8, 8), 8u);
    EXPECT_EQ(padded_data_length(9, 8), 16u);
    EXPECT_EQ(padded_data_length(17, 16), 32u);
    EXPECT_EQ(padded_data_length(5, 0), 0u);
    Bytes k = hex("0102030405060708");
    desfire_key d{};
    des_key_new(&d, k.data());
    EXPECT_EQ(enciphered_data_length_des_nl(&d, 12, 3), 16u);
    EXPECT_EQ(enciphered_data_length_des_nl(&d, 12, 0x2003), 16u);
    EXPECT_EQ(enciphered_data_length_des_nl(&d, 4, 0x2003), 8u);
    EXPECT_EQ(enciphered_data_length_des_nl(&d, 4, 3), 8u);
    EXPECT_EQ(enciphered_data_length_des_nl(&d, 5, 3), 16u);
    EXPECT_EQ(enciphered_data_length_des_nl(&d, 252, 3), 8u) << "the sum wraps in a byte";
    desfire_key a = aes_key(hex("000102030405060708090A0B0C0D0E0F"));
    EXPECT_EQ(enciphered_data_length_des_nl(&a, 13, 3), 32u);
    EXPECT_EQ(enciphered_data_length_des_nl(&a, 12, 3), 16u);
    EXPECT_EQ(enciphered_data_length_des_nl(&a, 13, 1), 16u);
}

} // namespace
