// The hash and signature facade: digests pinned to FIPS 180-4 and RFC 1321, the tables, signature checks
// over a digest against signatures made by the openssl command line, the BER readers, the PEM reader, the
// text helpers and the small AES pinned to FIPS 197.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <openssl/evp.h>

#include "crypto_fixtures.h"
#include "tandro.h"

using namespace zeltest;

namespace {

const uint8_t kAbc[] = {'a', 'b', 'c'};
const char kTwoBlocks[] = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";

class CryptoHash : public ::testing::Test {
protected:
    static void SetUpTestSuite() { initCryptoSubsys(); }
};

TEST_F(CryptoHash, OneShotDigestsMatchFips180)
{
    const char *expected[7] = {
        "A9993E364706816ABA3E25717850C26C9CD0D89D",
        "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD",
        "CB00753F45A35E8BB5A03D699AC65007272C32AB0EDED1631A8B605A43FF5BED8086072BA1E7CC2358BAECA134C825A7",
        "DDAF35A193617ABACC417349AE20413112E6FA4E89A97EA20A9EEEE64B55D39A2192992A274FC1A836BA3C23A3FEEBBD454D4423643C"
        "E80E2A9AC94FA54CA49F",
        "23097D223405D8228642A477BDA255B32AADBCE4BDA0B3F7E36C9DA7",
        "4634270F707B6A54DAAE7530460842E20E37ED265CEEE9A43E8924AA",
        "53048E2681941EF99B2E29B76B4C7DABE4C2D0C634FC6D46E0E2F13107E7AF23",
    };
    const char *names[7] = {"SHA-1", "SHA-256", "SHA-384", "SHA-512", "SHA-224", "SHA-512/224", "SHA-512/256"};
    for (uint32_t id = 0; id < 7; ++id) {
        SCOPED_TRACE(id);
        uint32_t size = 0;
        ASSERT_EQ(OrbGetHashOutputByteLength(id, &size), ZEL_OK);
        EXPECT_EQ(size * 2, std::strlen(expected[id]));
        EXPECT_STREQ(OrbGetHashName(id), names[id]);
        uint8_t out[64];
        ASSERT_EQ(OrbGetHash(id, kAbc, 3, out, size), ZEL_OK);
        EXPECT_EQ(to_hex(out, size), expected[id]);

        uint8_t *heap = nullptr;
        uint32_t heap_len = 0;
        ASSERT_EQ(OrbGetHashToHeap(id, kAbc, 3, &heap, &heap_len), ZEL_OK);
        EXPECT_EQ(heap_len, size);
        EXPECT_EQ(to_hex(heap, heap_len), expected[id]);
        OrbFree(heap);
    }
    OrbFree(nullptr);
}

TEST_F(CryptoHash, ChunkedDigestSpansUpdatesAndFinishForms)
{
    const auto *msg = reinterpret_cast<const uint8_t *>(kTwoBlocks);
    const uint32_t n = static_cast<uint32_t>(std::strlen(kTwoBlocks));
    ASSERT_EQ(OrbHashInitChunked(ZEL_HASH_SHA256), ZEL_OK);
    for (uint32_t i = 0; i < n; i += 7)
        ASSERT_EQ(OrbHashUpdateChunked(msg + i, n - i < 7 ? n - i : 7), ZEL_OK);
    uint8_t out[33];
    EXPECT_EQ(OrbHashFinishChunked(out, 33), CRYPTO_SUBSYS_WRONG_HASH_OUTPUT_LENGTH);
    ASSERT_EQ(OrbHashFinishChunked(out, 32), ZEL_OK);
    EXPECT_EQ(to_hex(out, 32), "248D6A61D20638B8E5C026930C3E6039A33CE45964FF2167F6ECEDD419DB06C1");

    // No size limit on the chunked road.
    Bytes big(70000, 0x61);
    ASSERT_EQ(OrbHashInitChunked(ZEL_HASH_SHA1), ZEL_OK);
    ASSERT_EQ(OrbHashUpdateChunked(big.data(), static_cast<uint32_t>(big.size())), ZEL_OK);
    uint8_t *heap = nullptr;
    uint32_t heap_len = 0;
    ASSERT_EQ(OrbHashFinishChunkedToHeap(&heap, &heap_len), ZEL_OK);
    uint8_t ref[20];
    EVP_Digest(big.data(), big.size(), ref, nullptr, EVP_sha1(), nullptr);
    EXPECT_EQ(to_hex(heap, heap_len), to_hex(ref, 20));
    OrbFree(heap);

    EXPECT_EQ(OrbHashInitChunked(ZEL_HASH_MD5), CRYPTO_SUBSYS_INVALID_HASH_ALGORITHM);
}

TEST_F(CryptoHash, InputLimitIdAndLengthChecksInOrder)
{
    Bytes buf(32769, 0);
    uint8_t out[64];
    EXPECT_EQ(OrbGetHash(ZEL_HASH_SHA256, buf.data(), 32768, out, 32), ZEL_OK);
    // The size test comes before the id is looked at.
    EXPECT_EQ(OrbGetHash(99, buf.data(), 32769, out, 32), CRYPTO_SUBSYS_MAX_HASH_INPUT_EXCEEDED);
    EXPECT_EQ(OrbGetHash(ZEL_HASH_MD5, kAbc, 3, out, 16), CRYPTO_SUBSYS_INVALID_HASH_ALGORITHM);
    EXPECT_EQ(OrbGetHash(ZEL_HASH_SHA1, kAbc, 3, out, 21), CRYPTO_SUBSYS_WRONG_HASH_OUTPUT_LENGTH);

    uint8_t *heap = reinterpret_cast<uint8_t *>(&buf);
    uint32_t heap_len = 77;
    EXPECT_EQ(OrbGetHashToHeap(8, kAbc, 3, &heap, &heap_len), CRYPTO_SUBSYS_INVALID_HASH_ALGORITHM);
    EXPECT_EQ(heap, nullptr);
    EXPECT_EQ(heap_len, 0u);

    uint32_t size = 5;
    EXPECT_EQ(OrbGetHashOutputByteLength(7, &size), CRYPTO_SUBSYS_INVALID_HASH_ALGORITHM);
    EXPECT_EQ(size, 0u);
    EXPECT_STREQ(OrbGetHashName(7), "");
    EXPECT_STREQ(getHashName(7), "");
    EXPECT_EQ(getHashByteSize(7), 0u);
    EXPECT_EQ(isCryptoSubsysInitialized(), ZEL_OK);
}

TEST(CryptoTables, CurvesDesignatorsAndSchemes)
{
    EXPECT_STREQ(OrbGetEccCurveName(0), "secp112r1");
    EXPECT_STREQ(OrbGetEccCurveName(23), "brainpoolP256r1");
    EXPECT_STREQ(OrbGetEccCurveName(33), "brainpoolP512t1");
    EXPECT_STREQ(OrbGetEccCurveName(34), "");
    for (uint32_t i = 0; i < 34; ++i) {
        uint16_t d = 0;
        uint32_t back = 99;
        ASSERT_EQ(OrbGetECCCurveDesignator(i, &d), ZEL_OK);
        ASSERT_EQ(OrbGetECCCurveIndex(d, &back), ZEL_OK);
        EXPECT_EQ(back, i) << "designators are unique";
    }
    uint16_t d = 0;
    EXPECT_EQ(OrbGetECCCurveDesignator(13, &d), ZEL_OK);
    EXPECT_EQ(d, 0x0045);
    EXPECT_EQ(OrbGetECCCurveDesignator(34, &d), CRYPTO_SUBSYS_UNKNOWN_ECC_CURVE);
    EXPECT_EQ(d, 0xFFFF);
    uint32_t index = 0;
    EXPECT_EQ(OrbGetECCCurveIndex(0x01CA, &index), ZEL_OK);
    EXPECT_EQ(index, 33u);
    EXPECT_EQ(OrbGetECCCurveIndex(0x1234, &index), CRYPTO_SUBSYS_UNKNOWN_ECC_CURVE);
    EXPECT_EQ(index, 34u);

    EXPECT_STREQ(OrbGetSignatureSchemeName(5), "SHA512/224 with RSA");
    EXPECT_STREQ(OrbGetSignatureSchemeName(7), "RSA-PSS");
    EXPECT_STREQ(OrbGetSignatureSchemeName(12), "ECDSA with SHA224");
    EXPECT_STREQ(OrbGetSignatureSchemeName(13), "");
    EXPECT_TRUE(isSignatureSchType_RSA_PKCS1(6));
    EXPECT_FALSE(isSignatureSchType_RSA_PKCS1(7));
    EXPECT_TRUE(isSignatureSchType_RSA_PSS(7));
    EXPECT_TRUE(isSignatureSchType_ECDSA(11));
    EXPECT_FALSE(isSignatureSchType_ECDSA(12));
}

// The RSA key of the document signer fixture, and signatures over "abc" made with it.
class CryptoVerifyHash : public ::testing::Test {
protected:
    static void SetUpTestSuite() { initCryptoSubsys(); }
    void SetUp() override
    {
        cert = fixture("ds_rsa.der");
        ASSERT_FALSE(cert.empty());
        uint32_t bits = 0, type = 0, curve = 0;
        const uint8_t *params = nullptr;
        ASSERT_EQ(X509ParsePubKey(cert.data(), static_cast<uint32_t>(cert.size()), &modulus, &modulus_len, &bits, &type,
                                  &curve, &params),
                  ZEL_OK);
        uint8_t digest[32];
        ASSERT_EQ(OrbGetHash(ZEL_HASH_SHA256, kAbc, 3, digest, 32), ZEL_OK);
        sha256.assign(digest, digest + 32);
    }
    ZEL_STATUS verify(uint32_t hash, uint32_t padding, const Bytes &digest, const Bytes &sig, const uint32_t *salt)
    {
        return DigitalSignatureVerifyHash(
            hash, padding, ZEL_SIG_CIPHER_RSA, digest.data(), static_cast<uint32_t>(digest.size()), sig.data(),
            static_cast<uint32_t>(sig.size()), salt, salt ? 4 : 0, modulus, modulus_len, kExponent, 3);
    }
    static constexpr uint8_t kExponent[3] = {0x01, 0x00, 0x01};
    Bytes cert, sha256;
    const uint8_t *modulus = nullptr;
    uint32_t modulus_len = 0;
};

TEST_F(CryptoVerifyHash, RsaSchemesAcceptTheirSignatures)
{
    const uint32_t salt = 32;
    EXPECT_EQ(verify(ZEL_HASH_SHA256, ZEL_SIG_PADDING_PKCS1_V1_5_NA1, sha256, fixture("abc_raw.sig"), nullptr), ZEL_OK);
    EXPECT_EQ(verify(ZEL_HASH_SHA256, ZEL_SIG_PADDING_PSS, sha256, fixture("abc_sha256_pss.sig"), &salt), ZEL_OK);
    // MD5 (RFC 1321 digest of "abc") is known to this entry alone.
    EXPECT_EQ(verify(ZEL_HASH_MD5, ZEL_SIG_PADDING_PKCS1_V1_5, from_hex("900150983CD24FB0D6963F7D28E17F72"),
                     fixture("abc_md5.sig"), nullptr),
              ZEL_OK);
}

TEST_F(CryptoVerifyHash, WrongSignaturesAndParametersAreToldApart)
{
    Bytes other = sha256;
    other[0] ^= 1;
    const uint32_t salt = 32, wrong_salt = 20;
    // Well-formed signatures over another digest: "wrong signature".
    EXPECT_EQ(verify(ZEL_HASH_SHA256, ZEL_SIG_PADDING_PKCS1_V1_5_NA1, other, fixture("abc_raw.sig"), nullptr),
              CRYPTO_SUBSYS_WRONG_SIGNATURE);
    EXPECT_EQ(verify(ZEL_HASH_SHA256, ZEL_SIG_PADDING_PSS, other, fixture("abc_sha256_pss.sig"), &salt),
              CRYPTO_SUBSYS_WRONG_SIGNATURE);
    EXPECT_EQ(verify(ZEL_HASH_SHA1, ZEL_SIG_PADDING_PKCS1_V1_5, Bytes(20, 0), fixture("abc_md5.sig"), nullptr),
              CRYPTO_SUBSYS_WRONG_SIGNATURE);
    // Signatures that do not decode: a wrong length, a broken padding, a wrong salt length.
    Bytes short_sig = fixture("abc_raw.sig");
    short_sig.pop_back();
    EXPECT_EQ(verify(ZEL_HASH_SHA256, ZEL_SIG_PADDING_PKCS1_V1_5_NA1, sha256, short_sig, nullptr),
              CRYPTO_SUBSYS_SIGNATURE_VERIFICATION_ERROR);
    Bytes garbled = fixture("abc_raw.sig");
    garbled[10] ^= 0x40;
    EXPECT_EQ(verify(ZEL_HASH_SHA256, ZEL_SIG_PADDING_PKCS1_V1_5_NA1, sha256, garbled, nullptr),
              CRYPTO_SUBSYS_SIGNATURE_VERIFICATION_ERROR);
    EXPECT_EQ(verify(ZEL_HASH_SHA256, ZEL_SIG_PADDING_PSS, sha256, fixture("abc_sha256_pss.sig"), &wrong_salt),
              CRYPTO_SUBSYS_SIGNATURE_VERIFICATION_ERROR);

    // Argument checks, in their order.
    EXPECT_EQ(verify(8, 0, sha256, fixture("abc_raw.sig"), nullptr), CRYPTO_SUBSYS_INVALID_HASH_ALGORITHM);
    EXPECT_EQ(verify(1, 3, sha256, fixture("abc_raw.sig"), nullptr), CRYPTO_SUBSYS_INVALID_PADDING_ALGORITHM);
    EXPECT_EQ(verify(1, ZEL_SIG_PADDING_PSS, sha256, fixture("abc_raw.sig"), nullptr),
              CRYPTO_SUBSYS_INVALID_SIGNATURE_PARAMS);
    EXPECT_EQ(DigitalSignatureVerifyHash(1, 0, 2, sha256.data(), 32, sha256.data(), 32, nullptr, 0, modulus,
                                         modulus_len, kExponent, 3),
              CRYPTO_SUBSYS_INVALID_CIPHER_ALGORITHM);
    const uint8_t zero = 0;
    EXPECT_EQ(
        DigitalSignatureVerifyHash(1, 0, 0, sha256.data(), 32, sha256.data(), 32, nullptr, 0, &zero, 1, kExponent, 3),
        CRYPTO_SUBSYS_INVALID_RSA_PUB_KEY);
}

TEST_F(CryptoVerifyHash, EcdsaBranchChecksItsInputsAndNeverSucceeds)
{
    const Bytes cert_ec = fixture("ds_prime256v1.der");
    const uint8_t *point = nullptr, *params = nullptr;
    uint32_t point_len = 0, bits = 0, type = 0, curve = 0;
    ASSERT_EQ(X509ParsePubKey(cert_ec.data(), static_cast<uint32_t>(cert_ec.size()), &point, &point_len, &bits, &type,
                              &curve, &params),
              ZEL_OK);
    ASSERT_EQ(curve, 13u);
    const Bytes sig = fixture("abc_p256.sig");
    // key_len counts the unused-bits byte: the point itself is one byte shorter.
    auto run = [&](const zel_ecc_key_params &p, uint32_t params_len, uint32_t key_len) {
        return DigitalSignatureVerifyHash(ZEL_HASH_SHA256, 0, ZEL_SIG_CIPHER_ECC, sha256.data(), 32, sig.data(),
                                          static_cast<uint32_t>(sig.size()), nullptr, 0, point, key_len, &p,
                                          params_len);
    };
    zel_ecc_key_params p{ZEL_ECC_CURVE_BY_INDEX, 13, nullptr, nullptr};
    EXPECT_EQ(run(p, 24, point_len - 1), CRYPTO_SUBSYS_SIGNATURE_VERIFICATION_ERROR);
    zel_ecc_key_params by_name{ZEL_ECC_CURVE_BY_NAME, 0, "secp256r1", nullptr};
    EXPECT_EQ(run(by_name, 24, point_len - 1), CRYPTO_SUBSYS_SIGNATURE_VERIFICATION_ERROR);
    EXPECT_EQ(run(p, 16, point_len - 1), CRYPTO_SUBSYS_INVALID_ECC_PUB_KEY_PARAMS);
    EXPECT_EQ(run(p, 24, point_len - 2), CRYPTO_SUBSYS_INVALID_ECC_PUB_KEY);
    p.curve_index = 34;
    EXPECT_EQ(run(p, 24, point_len - 1), CRYPTO_SUBSYS_UNKNOWN_ECC_CURVE);
    by_name.curve_name = "no such curve";
    EXPECT_EQ(run(by_name, 24, point_len - 1), CRYPTO_SUBSYS_UNKNOWN_ECC_CURVE);
    by_name.curve_name = "brainpoolP256r1-with-a-name-too-long";
    EXPECT_EQ(run(by_name, 24, point_len - 1), CRYPTO_SUBSYS_UNKNOWN_ECC_CURVE);
    const zel_ecc_key_params explicit_params{ZEL_ECC_CURVE_BY_PARAMS, 0, nullptr, nullptr};
    EXPECT_EQ(run(explicit_params, 24, point_len - 1), CRYPTO_SUBSYS_UNKNOWN_ECC_CURVE);
    const zel_ecc_key_params odd{5, 0, nullptr, nullptr};
    EXPECT_EQ(run(odd, 24, point_len - 1), CRYPTO_SUBSYS_INVALID_ECC_PUB_KEY_PARAMS);
}

TEST(BerReaders, LengthFormsAndTags)
{
    uint8_t lol = 9;
    uint32_t len = 9;
    const uint8_t b80[] = {0x80};
    EXPECT_TRUE(getTlvLen(b80, &lol, &len));
    EXPECT_EQ(lol, 1);
    EXPECT_EQ(len, 128u);
    EXPECT_EQ(get_ber_tlv_length(b80, &lol, &len), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(len, 0u);
    const uint8_t b84[] = {0x84, 0x01, 0x02, 0x03, 0x04};
    EXPECT_TRUE(getTlvLen(b84, &lol, &len));
    EXPECT_EQ(lol, 5);
    EXPECT_EQ(len, 0x01020304u);
    EXPECT_EQ(get_ber_tlv_length(b84, &lol, &len), ZEL_PARAMETERS_ERROR);
    const uint8_t b85[] = {0x85, 0, 0, 0, 0, 1};
    EXPECT_FALSE(getTlvLen(b85, &lol, &len));
    EXPECT_EQ(lol, 0);
    const uint8_t b82[] = {0x82, 0x12, 0x34};
    EXPECT_EQ(get_ber_tlv_length(b82, &lol, &len), ZEL_OK);
    EXPECT_EQ(lol, 3);
    EXPECT_EQ(len, 0x1234u);
    const uint8_t b7f[] = {0x7F};
    EXPECT_EQ(get_ber_tlv_length(b7f, &lol, &len), ZEL_OK);
    EXPECT_EQ(len, 0x7Fu);

    uint8_t tl = 9;
    const uint8_t t5f1f[] = {0x5F, 0x1F}, t5f81[] = {0x5F, 0x81}, t61[] = {0x61, 0x00};
    EXPECT_EQ(parse_ber_tag(t5f1f, 2, &tl), 0x5F1Fu);
    EXPECT_EQ(tl, 2);
    EXPECT_EQ(parse_ber_tag(t5f81, 2, &tl), 0u);
    EXPECT_EQ(parse_ber_tag(t5f1f, 1, &tl), 0u);
    EXPECT_EQ(parse_ber_tag(t61, 2, &tl), 0x61u);
    EXPECT_EQ(tl, 1);
    EXPECT_EQ(parse_ber_tag(nullptr, 2, &tl), 0u);
    EXPECT_EQ(parse_ber_tag(t61, 0, &tl), 0u);
}

TEST(CryptoPem, DecodesTheFixtureAndRefusesBrokenFiles)
{
    const Bytes pem = fixture("csca_rsa.pem"), der = fixture("csca_rsa.der");
    uint8_t *out = nullptr;
    uint32_t out_len = 0;
    ASSERT_EQ(pemCertToDer(pem.data(), static_cast<uint32_t>(pem.size()), &out, &out_len), ZEL_OK);
    EXPECT_EQ(Bytes(out, out + out_len), der);
    OrbFree(out);

    const std::string head = "-----BEGIN CERTIFICATE-----";
    auto run = [&](const std::string &text) {
        uint8_t *o = reinterpret_cast<uint8_t *>(1);
        uint32_t n = 5;
        const ZEL_STATUS st =
            pemCertToDer(reinterpret_cast<const uint8_t *>(text.data()), static_cast<uint32_t>(text.size()), &o, &n);
        if (st == ZEL_OK) {
            std::string s(reinterpret_cast<char *>(o), n);
            OrbFree(o);
            return s;
        }
        EXPECT_EQ(o, nullptr);
        EXPECT_EQ(n, 0u);
        return "status " + std::to_string(st);
    };
    const std::string wrong = "status " + std::to_string(ZEL_WRONG_PEM_CERT_FORMAT);
    EXPECT_EQ(run(std::string(26, '-')), wrong);
    EXPECT_EQ(run(head + "\nTWFu\n"), wrong); // no END line
    EXPECT_EQ(run(head + "\nTW*u\n-----END CERTIFICATE-----\n"), wrong);
    EXPECT_EQ(run(head + "\r\n TWFu\tTWE=\r\n-----END CERTIFICATE-----\n"), "ManMa");
    EXPECT_EQ(run(head + "\nTWE\n-----END CERTIFICATE-----"), "Ma"); // padding may be left out
    EXPECT_EQ(run(head + "\nTW=E\n-----END CERTIFICATE-----"), wrong);
}

TEST(CryptoText, SearchGrowHexAndJson)
{
    const uint8_t mem[] = {0, 'a', 'b', 0, 'a', 'b', 'c'};
    EXPECT_EQ(strmempos(mem, 7, "abc"), 4u);
    EXPECT_EQ(strmem(mem, 7, "abc"), mem + 4);
    EXPECT_EQ(strmempos(mem, 2, "abc"), 0xFFFFFFFFu);
    EXPECT_EQ(strmempos(mem, 7, ""), 0xFFFFFFFFu);
    EXPECT_EQ(strmem(mem, 6, "abc"), nullptr);

    char *text = nullptr;
    uint32_t len = 99;
    ASSERT_EQ(Orbsprintf(&text, &len, "a", "b", "c"), ZEL_OK);
    EXPECT_EQ(len, 0u);
    ASSERT_EQ(Orbsprintf(&text, &len, "line ", "two", nullptr), ZEL_OK);
    EXPECT_STREQ(text, "abcline two\n");
    OrbFree(text);

    char hex[16];
    const uint8_t bytes[] = {0xDE, 0xAD, 0xBE, 0xEF};
    hexsprintf(hex, 9, bytes, 4);
    EXPECT_STREQ(hex, "DEADBEEF");
    hexsprintf(hex, 8, bytes, 4);
    EXPECT_STREQ(hex, "DEAD...");
    hexsprintf(hex, 5, bytes, 3);
    EXPECT_STREQ(hex, "...");

    char buf[8];
    uint32_t pos = 0;
    EXPECT_EQ(json_append(buf, &pos, 7, "abc"), ZEL_OK);
    EXPECT_EQ(json_append(buf, &pos, 7, "defg"), ZEL_BUFFER_SIZE_EXCEEDED); // 3 + 4 is not below 7
    EXPECT_EQ(json_append(buf, &pos, 7, "def"), ZEL_OK);
    EXPECT_STREQ(buf, "abcdef");
    EXPECT_EQ(pos, 6u);

    char esc[32];
    EXPECT_EQ(JSONEscapeString(esc, "a\"b\\c\n\t\x01", 32), 12u);
    EXPECT_STREQ(esc, "a\\\"b\\\\c\\n\\t\x01");
    // An escape needs two places before the NUL: it is not split.
    EXPECT_EQ(JSONEscapeString(esc, "ab\"", 4), 2u);
    EXPECT_STREQ(esc, "ab");
    EXPECT_EQ(JSONEscapeString(esc, "abcdef", 4), 3u);
    EXPECT_EQ(JSONEscapeString(esc, "x", 0), 0u);
    EXPECT_EQ(JSONEscapeString(nullptr, "x", 4), 0u);

    void *p = std::malloc(4);
    ASSERT_EQ(Orbrealloc(&p, 4, 12), ZEL_OK);
    std::memset(p, 0, 16);
    OrbFree(p);

    FILE *f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    std::fputs("12345", f);
    EXPECT_EQ(fsizeof(f), 5u);
    EXPECT_EQ(std::ftell(f), 0);
    std::fclose(f);
    EXPECT_EQ(fsizeof(nullptr), 0u);
}

TEST(CryptoAes, Fips197BlocksAndKeyBufferContract)
{
    // FIPS 197 Appendix C.1.
    Bytes key = from_hex("000102030405060708090A0B0C0D0E0F");
    Bytes state = from_hex("00112233445566778899AABBCCDDEEFF");
    Bytes work = key;
    aes_encode(state.data(), work.data());
    EXPECT_EQ(to_hex(state.data(), 16), "69C4E0D86A7B0430D8CDB78070B4C55A");
    // The key buffer now holds the last round key, which is what decoding starts from.
    Bytes dec = key;
    aes_calc_decode_key(dec.data());
    EXPECT_EQ(work, dec);
    aes_decode(state.data(), dec.data());
    EXPECT_EQ(to_hex(state.data(), 16), "00112233445566778899AABBCCDDEEFF");
    EXPECT_EQ(dec, key) << "decoding walks the schedule back to the cipher key";

    // FIPS 197 Appendix A.1: the last round key of 2B7E1516...; Appendix B: the worked block.
    Bytes k2 = from_hex("2B7E151628AED2A6ABF7158809CF4F3C");
    Bytes last = k2;
    aes_calc_decode_key(last.data());
    EXPECT_EQ(to_hex(last.data(), 16), "D014F9A8C9EE2589E13F0CC8B6630CA6");
    Bytes b = from_hex("3243F6A8885A308D313198A2E0370734");
    aes_encode(b.data(), k2.data());
    EXPECT_EQ(to_hex(b.data(), 16), "3925841D02DC09FBDC118597196A0B32");

    // ShiftRows and its inverse.
    uint8_t s[16];
    for (int i = 0; i < 16; ++i)
        s[i] = static_cast<uint8_t>(i);
    encode_shift_row(s);
    const uint8_t shifted[16] = {0, 5, 10, 15, 4, 9, 14, 3, 8, 13, 2, 7, 12, 1, 6, 11};
    EXPECT_EQ(0, std::memcmp(s, shifted, 16));
    decode_shift_row(s);
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ(s[i], i);
}

} // namespace
