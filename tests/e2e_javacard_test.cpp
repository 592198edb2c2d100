// The Java card applets against the simulated Java card: keys made on the card and imported, signatures
// checked with OpenSSL against the public key the library reads out, PINs counted down, blocked and
// unblocked, stored objects, and the file store at its limits.
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>
#include <openssl/param_build.h>

#include <cstdio>
#include <string>
#include <unistd.h>
#include <vector>

#include "card_sim_fixture.h"

using zeltest::CardSimTest;

namespace {

using Bytes = std::vector<uint8_t>;

const Bytes SIGNER = {0xA0, 0x00, 0x00, 0x07, 0x47, 0x53, 0x49, 0x47, 0x4E};
const Bytes STORAGE = {0xA0, 0x00, 0x00, 0x07, 0x47, 0x53, 0x54, 0x4F, 0x52};

Bytes hex(const char *h)
{
    Bytes b;
    for (; h[0] && h[1]; h += 2)
        b.push_back(static_cast<uint8_t>(std::stoi(std::string(h, 2), nullptr, 16)));
    return b;
}

Bytes message(size_t n, uint8_t seed)
{
    Bytes m(n);
    for (size_t i = 0; i < n; ++i)
        m[i] = static_cast<uint8_t>(seed + i * 7);
    return m;
}

// Verifies a SHA-256 signature (PKCS#1 v1.5 for RSA, DER ECDSA) of msg with key.
bool verifies(EVP_PKEY *key, const Bytes &msg, const Bytes &sig)
{
    EVP_MD_CTX *ctx = EVP_MD_CTX_new();
    const bool ok = ctx && EVP_DigestVerifyInit(ctx, nullptr, EVP_sha256(), nullptr, key) == 1 &&
                    EVP_DigestVerify(ctx, sig.data(), sig.size(), msg.data(), msg.size()) == 1;
    EVP_MD_CTX_free(ctx);
    return ok;
}

EVP_PKEY *from_params(const char *type, OSSL_PARAM_BLD *bld)
{
    OSSL_PARAM *params = OSSL_PARAM_BLD_to_param(bld);
    EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr);
    EVP_PKEY *key = nullptr;
    if (!ctx || EVP_PKEY_fromdata_init(ctx) <= 0 || EVP_PKEY_fromdata(ctx, &key, EVP_PKEY_PUBLIC_KEY, params) <= 0)
        key = nullptr;
    EVP_PKEY_CTX_free(ctx);
    OSSL_PARAM_free(params);
    OSSL_PARAM_BLD_free(bld);
    return key;
}

EVP_PKEY *rsa_public(const Bytes &n, const Bytes &e)
{
    BIGNUM *bn_n = BN_bin2bn(n.data(), static_cast<int>(n.size()), nullptr);
    BIGNUM *bn_e = BN_bin2bn(e.data(), static_cast<int>(e.size()), nullptr);
    OSSL_PARAM_BLD *bld = OSSL_PARAM_BLD_new();
    OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_N, bn_n);
    OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_E, bn_e);
    EVP_PKEY *key = from_params("RSA", bld);
    BN_free(bn_n);
    BN_free(bn_e);
    return key;
}

EVP_PKEY *ec_public(const char *curve, const Bytes &w)
{
    OSSL_PARAM_BLD *bld = OSSL_PARAM_BLD_new();
    OSSL_PARAM_BLD_push_utf8_string(bld, OSSL_PKEY_PARAM_GROUP_NAME, curve, 0);
    OSSL_PARAM_BLD_push_octet_string(bld, OSSL_PKEY_PARAM_PUB_KEY, w.data(), w.size());
    return from_params("EC", bld);
}

Bytes bn_param(EVP_PKEY *key, const char *name, size_t n)
{
    BIGNUM *b = nullptr;
    EXPECT_EQ(EVP_PKEY_get_bn_param(key, name, &b), 1) << name;
    Bytes out(n);
    BN_bn2binpad(b, out.data(), static_cast<int>(n));
    BN_clear_free(b);
    return out;
}

// P-256 as published (FIPS 186-4, D.1.2.3): p, a, b, G uncompressed, the order r, the cofactor 1.
Bytes p256_params()
{
    Bytes out = hex("FFFFFFFF00000001000000000000000000000000FFFFFFFFFFFFFFFFFFFFFFFF"
                    "FFFFFFFF00000001000000000000000000000000FFFFFFFFFFFFFFFFFFFFFFFC"
                    "5AC635D8AA3A93E7B3EBBD55769886BC651D06B0CC53B0F63BCE3C3E27D2604B"
                    "04"
                    "6B17D1F2E12C4247F8BCE6E563A440F277037D812DEB33A0F4A13945D898C296"
                    "4FE342E2FE1A7F9B8EE7EB4A7C0F9E162BCE33576B315ECECBB6406837BF51F5"
                    "FFFFFFFF00000000FFFFFFFFFFFFFFFFBCE6FAADA7179E84F3B9CAC2FC632551"
                    "0001");
    return out;
}

// The same bytes of another named curve, from OpenSSL's own description of it.
Bytes curve_params(int nid, size_t n)
{
    EC_GROUP *g = EC_GROUP_new_by_curve_name(nid);
    BIGNUM *p = BN_new(), *a = BN_new(), *b = BN_new();
    EC_GROUP_get_curve(g, p, a, b, nullptr);
    Bytes out(3 * n + 2 * n + 1 + n);
    BN_bn2binpad(p, out.data(), static_cast<int>(n));
    BN_bn2binpad(a, out.data() + n, static_cast<int>(n));
    BN_bn2binpad(b, out.data() + 2 * n, static_cast<int>(n));
    EC_POINT_point2oct(g, EC_GROUP_get0_generator(g), POINT_CONVERSION_UNCOMPRESSED, out.data() + 3 * n, 2 * n + 1,
                       nullptr);
    BN_bn2binpad(EC_GROUP_get0_order(g), out.data() + 5 * n + 1, static_cast<int>(n));
    out.push_back(0x00);
    out.push_back(0x01);
    BN_free(p);
    BN_free(a);
    BN_free(b);
    EC_GROUP_free(g);
    return out;
}

class JavaCard : public CardSimTest {
protected:
    void start_card(const std::string &setup = "{}")
    {
        start(R"({"cards": [{"uid": "04A1B2C3D4E5F6", "sak": "20", "atqa": "0344", "type": "ORB_GENERIC_ISO14443_4",)"
              R"( "model": "javacard", "setup": )" +
              setup + "}]}");
        ASSERT_EQ(SetISO14443_4_ModeM(hnd), ZEL_OK);
        select(SIGNER);
    }
    void select(const Bytes &aid, uint8_t want_type = 0xAA)
    {
        uint8_t resp[16] = {};
        ASSERT_EQ(JCAppSelectByAidM(hnd, aid.data(), static_cast<uint8_t>(aid.size()), resp), ZEL_OK);
        EXPECT_EQ(resp[0], want_type);
    }
    ZEL_STATUS login(bool admin, const std::string &pin)
    {
        return JCAppLoginM(hnd, admin, reinterpret_cast<const uint8_t *>(pin.data()), static_cast<uint8_t>(pin.size()));
    }
    // Signs msg by parts of at most 255 bytes and gives the held signature.
    Bytes sign_by_parts(uint8_t cipher, uint8_t index, const Bytes &msg)
    {
        const size_t first = msg.size() < 255 ? msg.size() : 255;
        EXPECT_EQ(JCAppSignatureBeginM(hnd, cipher, 0, 0, index, msg.data(), static_cast<uint16_t>(first), nullptr),
                  ZEL_OK);
        for (size_t at = first; at < msg.size(); at += 255) {
            const size_t n = msg.size() - at < 255 ? msg.size() - at : 255;
            EXPECT_EQ(JCAppSignatureUpdateM(hnd, msg.data() + at, static_cast<uint16_t>(n)), ZEL_OK);
        }
        uint16_t len = 0;
        EXPECT_EQ(JCAppSignatureEndM(hnd, &len), ZEL_OK);
        Bytes sig(len);
        EXPECT_EQ(JCAppGetSignatureM(hnd, sig.data(), len), ZEL_OK);
        return sig;
    }
    Bytes sign_one_shot(uint8_t cipher, uint8_t index, const Bytes &msg)
    {
        uint16_t len = 0;
        EXPECT_EQ(
            JCAppGenerateSignatureM(hnd, cipher, 0, 0, index, msg.data(), static_cast<uint16_t>(msg.size()), &len),
            ZEL_OK);
        Bytes sig(len);
        EXPECT_EQ(JCAppGetSignatureM(hnd, sig.data(), len), ZEL_OK);
        return sig;
    }
    EVP_PKEY *read_rsa(uint8_t index)
    {
        uint16_t ml = 0, el = 0;
        EXPECT_EQ(JCAppGetRsaPublicKeyM(hnd, index, nullptr, &ml, nullptr, &el), ZEL_OK);
        Bytes m(ml), e(el);
        EXPECT_EQ(JCAppGetRsaPublicKeyM(hnd, index, m.data(), &ml, e.data(), &el), ZEL_OK);
        return rsa_public(m, e);
    }
};

TEST_F(JavaCard, RsaKeyMadeOnTheCardSignsWhatOpensslVerifies)
{
    start_card();
    ASSERT_EQ(login(true, "12345678"), ZEL_OK);
    ASSERT_EQ(JCAppGenerateKeyPairM(hnd, JC_KEY_RSA, 0, 0, 1024, nullptr, 0), ZEL_OK);
    EVP_PKEY *pub = read_rsa(0);
    ASSERT_NE(pub, nullptr);
    EXPECT_EQ(EVP_PKEY_get_bits(pub), 1024);
    ASSERT_EQ(login(false, "1234"), ZEL_OK);

    const Bytes msg = message(600, 1);
    const Bytes sig = sign_by_parts(JC_CIPHER_RSA, 0, msg);
    ASSERT_EQ(sig.size(), 128u);
    EXPECT_TRUE(verifies(pub, msg, sig));
    Bytes altered = msg;
    altered[599] ^= 1;
    EXPECT_FALSE(verifies(pub, altered, sig));

    const Bytes small = message(100, 9);
    EXPECT_TRUE(verifies(pub, small, sign_one_shot(JC_CIPHER_RSA, 0, small)));
    // A second key in another slot is another key.
    ASSERT_EQ(JCAppGenerateKeyPairM(hnd, JC_KEY_RSA_CRT, 1, 0, 736, nullptr, 0), ZEL_OK);
    EVP_PKEY *other = read_rsa(1);
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(EVP_PKEY_get_bits(other), 736);
    const Bytes sig1 = sign_one_shot(JC_CIPHER_RSA, 1, small);
    EXPECT_TRUE(verifies(other, small, sig1));
    EXPECT_FALSE(verifies(pub, small, sig1));
    EVP_PKEY_free(other);
    EVP_PKEY_free(pub);

    ASSERT_EQ(JCAppDeleteRsaKeyPairM(hnd, 0), ZEL_OK);
    uint16_t ml = 0, el = 0;
    EXPECT_EQ(JCAppGetRsaPublicKeyM(hnd, 0, nullptr, &ml, nullptr, &el), 0xA6A82u);
}

TEST_F(JavaCard, ImportedRsaKeysInBothForms)
{
    start_card();
    ASSERT_EQ(login(true, "12345678"), ZEL_OK);
    ASSERT_EQ(login(false, "1234"), ZEL_OK);
    EVP_PKEY *key = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(2048));
    ASSERT_NE(key, nullptr);
    Bytes crt;
    for (const char *name : {OSSL_PKEY_PARAM_RSA_FACTOR1, OSSL_PKEY_PARAM_RSA_FACTOR2, OSSL_PKEY_PARAM_RSA_EXPONENT1,
                             OSSL_PKEY_PARAM_RSA_EXPONENT2, OSSL_PKEY_PARAM_RSA_COEFFICIENT1}) {
        const Bytes part = bn_param(key, name, 128);
        crt.insert(crt.end(), part.begin(), part.end());
    }
    ASSERT_EQ(crt.size(), 640u);
    ASSERT_EQ(JCAppPutPrivateKeyM(hnd, JC_KEY_RSA_CRT, 1, crt.data(), 2048, nullptr, 0), ZEL_OK);
    const Bytes msg = message(1000, 3);
    EXPECT_TRUE(verifies(key, msg, sign_by_parts(JC_CIPHER_RSA, 1, msg)));
    // The public key read out is the key's.
    uint16_t ml = 0, el = 0;
    ASSERT_EQ(JCAppGetRsaPublicKeyM(hnd, 1, nullptr, &ml, nullptr, &el), ZEL_OK);
    Bytes m(ml), e(el);
    ASSERT_EQ(JCAppGetRsaPublicKeyM(hnd, 1, m.data(), &ml, e.data(), &el), ZEL_OK);
    EXPECT_EQ(m, bn_param(key, OSSL_PKEY_PARAM_RSA_N, 256));
    EXPECT_EQ(e, (Bytes{0x01, 0x00, 0x01}));

    // Modulus and private exponent: the card signs, and has no public exponent to give.
    EVP_PKEY *key2 = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(1024));
    Bytes nd = bn_param(key2, OSSL_PKEY_PARAM_RSA_N, 128);
    const Bytes d = bn_param(key2, OSSL_PKEY_PARAM_RSA_D, 128);
    nd.insert(nd.end(), d.begin(), d.end());
    ASSERT_EQ(JCAppPutPrivateKeyM(hnd, JC_KEY_RSA, 2, nd.data(), 1024, nullptr, 0), ZEL_OK);
    EXPECT_TRUE(verifies(key2, msg, sign_by_parts(JC_CIPHER_RSA, 2, msg)));
    EXPECT_EQ(JCAppGetRsaPublicKeyM(hnd, 2, nullptr, &ml, nullptr, &el), 0xA6985u);
    EVP_PKEY_free(key2);
    EVP_PKEY_free(key);
}

TEST_F(JavaCard, EcKeysMadeOnTheCardAndImported)
{
    start_card();
    ASSERT_EQ(login(true, "12345678"), ZEL_OK);
    ASSERT_EQ(login(false, "1234"), ZEL_OK);
    Bytes gen = {0x00};
    const Bytes p256 = p256_params();
    gen.insert(gen.end(), p256.begin(), p256.end());
    ASSERT_EQ(JCAppGenerateKeyPairM(hnd, JC_KEY_EC_FP, 0, 2, 256, gen.data(), static_cast<uint16_t>(gen.size())),
              ZEL_OK);

    Bytes parts[5];
    uint16_t lens[5] = {}, k = 0, bits = 0, des = 0;
    ASSERT_EQ(JCAppGetEcPublicKeyM(hnd, 0, nullptr, &lens[0], nullptr, &lens[1], nullptr, &lens[2], nullptr, &lens[3],
                                   nullptr, &lens[4], &k, &bits, &des),
              ZEL_OK);
    for (int i = 0; i < 5; ++i)
        parts[i].resize(lens[i]);
    ASSERT_EQ(JCAppGetEcPublicKeyM(hnd, 0, parts[0].data(), &lens[0], parts[1].data(), &lens[1], parts[2].data(),
                                   &lens[2], parts[3].data(), &lens[3], parts[4].data(), &lens[4], &k, &bits, &des),
              ZEL_OK);
    EXPECT_EQ(bits, 256);
    EXPECT_EQ(des, 2);
    EXPECT_EQ(k, 1);
    EXPECT_EQ(parts[1], Bytes(p256.begin(), p256.begin() + 32));       // the field prime
    EXPECT_EQ(parts[4], Bytes(p256.begin() + 96, p256.begin() + 161)); // the generator
    ASSERT_EQ(parts[0].size(), 65u);
    EVP_PKEY *pub = ec_public("P-256", parts[0]);
    ASSERT_NE(pub, nullptr);
    const Bytes msg = message(700, 5);
    EXPECT_TRUE(verifies(pub, msg, sign_by_parts(JC_CIPHER_ECDSA, 0, msg)));
    const Bytes small = message(40, 2);
    const Bytes sig = sign_one_shot(JC_CIPHER_ECDSA, 0, small);
    EXPECT_TRUE(verifies(pub, small, sig));
    EXPECT_FALSE(verifies(pub, msg, sig));
    EVP_PKEY_free(pub);

    // A P-384 key made by OpenSSL, stored on the card with its curve.
    EVP_PKEY *key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-384");
    ASSERT_NE(key, nullptr);
    Bytes stored = curve_params(NID_secp384r1, 48);
    const Bytes s = bn_param(key, OSSL_PKEY_PARAM_PRIV_KEY, 48);
    stored.insert(stored.end(), s.begin(), s.end());
    ASSERT_EQ(stored.size(), 7u * 48 + 3);
    const uint8_t flag = 0;
    ASSERT_EQ(JCAppPutPrivateKeyM(hnd, JC_KEY_EC_FP, 1, stored.data(), 384, &flag, 1), ZEL_OK);
    EXPECT_TRUE(verifies(key, msg, sign_by_parts(JC_CIPHER_ECDSA, 1, msg)));
    ASSERT_EQ(JCAppGetEcKeySizeBitsM(hnd, 1, &bits, &des), ZEL_OK);
    EXPECT_EQ(bits, 384);
    EVP_PKEY_free(key);
    // Parameters of no curve the card knows are refused by the card.
    gen[5] ^= 1;
    EXPECT_EQ(JCAppGenerateKeyPairM(hnd, JC_KEY_EC_FP, 2, 0, 256, gen.data(), static_cast<uint16_t>(gen.size())),
              0xA6A80u);

    ASSERT_EQ(JCAppDeleteEcKeyPairM(hnd, 1), ZEL_OK);
    EXPECT_EQ(JCAppGetEcKeySizeBitsM(hnd, 1, &bits, &des), 0xA6A82u);
}

TEST_F(JavaCard, PinsCountDownBlockAndUnblock)
{
    start_card(R"({"user_pin": "2468"})");
    ASSERT_EQ(login(true, "12345678"), ZEL_OK);
    ASSERT_EQ(JCAppGenerateKeyPairM(hnd, JC_KEY_RSA, 0, 0, 512, nullptr, 0), ZEL_OK);
    const Bytes msg = message(20, 0);
    uint16_t len = 0, tries = 0;
    EXPECT_EQ(JCAppGenerateSignatureM(hnd, 0, 0, 0, 0, msg.data(), 20, &len), 0xA6982u);
    EXPECT_STREQ(JCAppGetErrorDescription(0xA6982), "security condition not satisfied");

    EXPECT_EQ(login(false, "0000"), 0xA63C2u);
    EXPECT_EQ(login(false, "1111"), 0xA63C1u);
    ASSERT_EQ(JCAppGetPinTriesRemainingM(hnd, JC_PIN_USER, &tries), ZEL_OK);
    EXPECT_EQ(tries, 1);
    EXPECT_EQ(login(false, "2222"), 0xA6983u);
    EXPECT_EQ(login(false, "2468"), 0xA6983u) << "blocked: the right PIN no longer opens";
    ASSERT_EQ(JCAppGetPinTriesRemainingM(hnd, JC_PIN_USER, &tries), ZEL_OK);
    EXPECT_EQ(tries, 0);

    const uint8_t wrong_puk[8] = {'9', '9', '9', '9', '9', '9', '9', '9'},
                  puk[8] = {'1', '1', '1', '1', '1', '1', '1', '1'};
    EXPECT_EQ(JCAppPinUnblockM(hnd, 0, wrong_puk, 8), 0xA63C4u);
    ASSERT_EQ(JCAppPinUnblockM(hnd, 0, puk, 8), ZEL_OK);
    ASSERT_EQ(JCAppGetPinTriesRemainingM(hnd, JC_PUK_USER, &tries), ZEL_OK);
    EXPECT_EQ(tries, 5);
    ASSERT_EQ(JCAppGetPinTriesRemainingM(hnd, JC_PIN_USER, &tries), ZEL_OK);
    EXPECT_EQ(tries, 3);
    ASSERT_EQ(login(false, "2468"), ZEL_OK);
    EXPECT_EQ(JCAppGenerateSignatureM(hnd, 0, 0, 0, 0, msg.data(), 20, &len), ZEL_OK);

    const uint8_t new_pin[4] = {'4', '3', '2', '1'};
    ASSERT_EQ(JCAppPinChangeM(hnd, JC_PIN_USER, new_pin, 4), ZEL_OK);
    select(SIGNER); // logs out
    EXPECT_EQ(login(false, "2468"), 0xA63C2u);
    ASSERT_EQ(login(false, "4321"), ZEL_OK);

    // With the user PIN disabled by the administrator, signing needs no login.
    ASSERT_EQ(login(true, "12345678"), ZEL_OK);
    ASSERT_EQ(JCAppPinDisableM(hnd, 0), ZEL_OK);
    select(SIGNER);
    EXPECT_EQ(JCAppGenerateSignatureM(hnd, 0, 0, 0, 0, msg.data(), 20, &len), ZEL_OK);
    ASSERT_EQ(login(true, "12345678"), ZEL_OK);
    ASSERT_EQ(JCAppPinEnableM(hnd, 0), ZEL_OK);
    select(SIGNER);
    EXPECT_EQ(JCAppGenerateSignatureM(hnd, 0, 0, 0, 0, msg.data(), 20, &len), 0xA6982u);
}

TEST_F(JavaCard, StoredObjects)
{
    start_card();
    const Bytes cert = message(700, 4), id = {'c', 'e', 'r', 't', '1'};
    EXPECT_EQ(JCAppPutObjM(hnd, 0, 1, cert.data(), 700, id.data(), 5), 0xA6982u);
    ASSERT_EQ(login(true, "12345678"), ZEL_OK);
    ASSERT_EQ(JCAppPutObjM(hnd, 0, 1, cert.data(), 700, id.data(), 5), ZEL_OK);
    const uint8_t subject[3] = {'C', 'N', '1'};
    ASSERT_EQ(JCAppPutObjSubjectM(hnd, 0, 1, subject, 3), ZEL_OK);

    uint16_t len = 0;
    ASSERT_EQ(JCAppGetObjIdM(hnd, 0, 1, nullptr, &len), ZEL_OK);
    ASSERT_EQ(len, 5);
    Bytes got_id(len);
    ASSERT_EQ(JCAppGetObjIdM(hnd, 0, 1, got_id.data(), &len), ZEL_OK);
    EXPECT_EQ(got_id, id);
    ASSERT_EQ(len, 700);
    Bytes got(700);
    ASSERT_EQ(JCAppGetObjM(hnd, 0, 1, got.data(), 700), ZEL_OK);
    EXPECT_EQ(got, cert);
    // Read again from the start: the first request starts over.
    ASSERT_EQ(JCAppGetObjM(hnd, 0, 1, got.data(), 700), ZEL_OK);
    EXPECT_EQ(got, cert);

    // Type 2 reaches slot 11.
    ASSERT_EQ(JCAppPutObjM(hnd, 2, 11, id.data(), 5, nullptr, 0), ZEL_OK);
    ASSERT_EQ(JCAppGetObjIdM(hnd, 2, 11, nullptr, &len), ZEL_OK);
    EXPECT_EQ(len, 0);

    ASSERT_EQ(JCAppInvalidateCertM(hnd, 0, 1), ZEL_OK);
    EXPECT_EQ(JCAppGetObjIdM(hnd, 0, 1, nullptr, &len), 0xA6A82u);
}

class JavaCardStore : public JavaCard {
protected:
    Bytes list()
    {
        Bytes l(17);
        EXPECT_EQ(JCStorageListFilesM(hnd, l.data(), 17), ZEL_OK);
        return l;
    }
};

TEST_F(JavaCardStore, SeventeenFilesAtTheirLimits)
{
    start_card();
    select(STORAGE);
    uint32_t count = 0, size = 0;
    ASSERT_EQ(JCStorageGetFilesListSizeM(hnd, &count), ZEL_OK);
    EXPECT_EQ(count, 17u);
    EXPECT_EQ(list(), Bytes(17, 0));

    for (uint8_t f = 0; f < 17; ++f) {
        const Bytes data = message(10u + f, f);
        ASSERT_EQ(JCStorageWriteFileM(hnd, f, data.data(), static_cast<uint32_t>(data.size())), ZEL_OK) << int(f);
    }
    EXPECT_EQ(list(), Bytes(17, 1));
    for (uint8_t f = 0; f < 17; f = static_cast<uint8_t>(f + 8)) {
        Bytes got(10u + f);
        ASSERT_EQ(JCStorageReadFileM(hnd, f, got.data(), static_cast<uint32_t>(got.size())), ZEL_OK);
        EXPECT_EQ(got, message(10u + f, f));
    }

    // The largest file is stored, but its read asks more than the transport allows; one byte less reads.
    const Bytes largest = message(32766, 7);
    ASSERT_EQ(JCStorageWriteFileM(hnd, 16, largest.data(), 32766), ZEL_OK);
    ASSERT_EQ(JCStorageGetFileSizeM(hnd, 16, &size), ZEL_OK);
    EXPECT_EQ(size, 32766u);
    Bytes got(32766);
    EXPECT_EQ(JCStorageReadFileM(hnd, 16, got.data(), 32766), ZEL_PARAMETERS_ERROR);
    const Bytes big = message(32765, 8);
    ASSERT_EQ(JCStorageWriteFileM(hnd, 15, big.data(), 32765), ZEL_OK);
    got.resize(32765);
    ASSERT_EQ(JCStorageReadFileM(hnd, 15, got.data(), 32765), ZEL_OK);
    EXPECT_EQ(got, big);

    // A size other than the stored one: too small, the card refuses; too large, the length differs.
    got.resize(20);
    EXPECT_EQ(JCStorageReadFileM(hnd, 3, got.data(), 10), 0xA6700u);
    EXPECT_EQ(JCStorageReadFileM(hnd, 3, got.data(), 14), ZEL_PARAMETERS_ERROR);

    ASSERT_EQ(JCStorageDeleteFileM(hnd, 3), ZEL_OK);
    EXPECT_EQ(list()[3], 0);
    EXPECT_EQ(JCStorageGetFileSizeM(hnd, 3, &size), 0xA6A82u);
    EXPECT_EQ(JCStorageDeleteFileM(hnd, 3), 0xA6A82u);
}

TEST_F(JavaCardStore, FilesOfTheFileSystem)
{
    start_card();
    select(STORAGE);
    char path[] = "/tmp/jc_store_XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    const Bytes data = message(1000, 11);
    ASSERT_EQ(write(fd, data.data(), data.size()), 1000);
    close(fd);
    ASSERT_EQ(JCStorageWriteFileFromFileSystemM(hnd, 5, path), ZEL_OK);
    Bytes got(1000);
    ASSERT_EQ(JCStorageReadFileM(hnd, 5, got.data(), 1000), ZEL_OK);
    EXPECT_EQ(got, data);

    // Reading to the file system: a small file leaves an empty file and success; a file of 1000 bytes asks
    // 1000 mod 256 and the card refuses.
    const Bytes small = message(10, 1);
    ASSERT_EQ(JCStorageWriteFileM(hnd, 6, small.data(), 10), ZEL_OK);
    ASSERT_EQ(JCStorageReadFileToFileSystemM(hnd, 6, path), ZEL_OK);
    std::FILE *f = std::fopen(path, "rb");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(std::fgetc(f), EOF);
    std::fclose(f);
    EXPECT_EQ(JCStorageReadFileToFileSystemM(hnd, 5, path), 0xA6700u);
    std::remove(path);
    EXPECT_EQ(JCStorageWriteFileFromFileSystemM(hnd, 5, path), ZEL_FILE_NOT_EXISTS);
}

} // namespace
