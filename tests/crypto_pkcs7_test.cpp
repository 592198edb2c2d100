// The SignedData walker on SOD-shaped objects made by the openssl command line (content type
// 2.23.136.1.1.1, tag 0x77 around): stored hashes, the message digest, the signer's certificate, signature
// checks with RSA v1.5, PSS and ECDSA, the scheme and PSS parameter readers, and corrupt input.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "crypto_fixtures.h"
#include "tandro.h"

using namespace zeltest;

namespace {

uint32_t size32(const Bytes &b)
{
    return static_cast<uint32_t>(b.size());
}

class Pkcs7Sod : public ::testing::Test {
protected:
    static void SetUpTestSuite() { initCryptoSubsys(); }
};

TEST_F(Pkcs7Sod, ContentDigestsAndCertificate)
{
    const Bytes sod = fixture("rsa.sod.bin");
    const uint32_t n = size32(sod);
    uint32_t id = 99;
    ASSERT_EQ(pkcs7GetDigestAlgorithms(sod.data(), n, &id), ZEL_OK);
    EXPECT_EQ(id, ZEL_HASH_SHA256);
    ASSERT_EQ(pkcs7GetDataGroupsHashAlgorithm(sod.data(), n, &id), ZEL_OK);
    EXPECT_EQ(id, ZEL_HASH_SHA256);
    ASSERT_EQ(pkcs7GetSignedAttrsDigestAlgorithm(sod.data(), n, &id), ZEL_OK);
    EXPECT_EQ(id, ZEL_HASH_SHA256);

    // Stored hashes against the digests the fixture script computed, and against the data groups themselves.
    std::ifstream list(fixture_path("dg_sha256.txt"));
    std::string h1, h2;
    list >> h1 >> h2;
    const uint8_t *p = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(pkcs7GetDataGroupHash(sod.data(), n, 1, &p, &len), ZEL_OK);
    EXPECT_EQ(Bytes(p, p + len), from_hex(h1));
    ASSERT_EQ(pkcs7GetDataGroupHash(sod.data(), n, 2, &p, &len), ZEL_OK);
    EXPECT_EQ(Bytes(p, p + len), from_hex(h2));
    const Bytes dg2 = fixture("dg2.bin");
    uint8_t digest[32];
    ASSERT_EQ(OrbGetHash(ZEL_HASH_SHA256, dg2.data(), size32(dg2), digest, 32), ZEL_OK);
    EXPECT_EQ(Bytes(p, p + len), Bytes(digest, digest + 32));
    EXPECT_EQ(pkcs7GetDataGroupHash(sod.data(), n, 3, &p, &len), MRTD_DATA_GROUOP_INDEX_NOT_EXIST);
    EXPECT_EQ(p, nullptr);

    // The LDS Security Object is the signed content, and the message digest is its hash.
    ASSERT_EQ(pkcs7GetLDSSecurityObject(sod.data(), n, &p, &len), ZEL_OK);
    EXPECT_EQ(Bytes(p, p + len), fixture("lds.der"));
    ASSERT_EQ(OrbGetHash(ZEL_HASH_SHA256, p, len, digest, 32), ZEL_OK);
    ASSERT_EQ(pkcs7GetLDSSecurityObjectDigest(sod.data(), n, &p, &len), ZEL_OK);
    EXPECT_EQ(Bytes(p, p + len), Bytes(digest, digest + 32));

    ASSERT_EQ(pkcs7GetCert(sod.data(), n, &p, &len), ZEL_OK);
    EXPECT_EQ(Bytes(p, p + len), fixture("ds_rsa.der"));
    uint8_t version = 0;
    ASSERT_EQ(pkcs7GetSignerIdVersion(sod.data(), n, &version), ZEL_OK);
    EXPECT_EQ(version, 1);
    // The signer id names the certificate's issuer.
    const Bytes ds = fixture("ds_rsa.der");
    const uint8_t *issuer = nullptr;
    uint32_t issuer_len = 0;
    ASSERT_EQ(X509GetIssuerSeq(ds.data(), size32(ds), &issuer, &issuer_len), ZEL_OK);
    ASSERT_EQ(pkcs7GetSignerId(sod.data(), n, &p, &len), ZEL_OK);
    const uint8_t *name = p + 2 + (p[1] > 0x80 ? p[1] - 0x80 : 0); // behind the SEQUENCE header
    EXPECT_EQ(Bytes(name, name + issuer_len), Bytes(issuer, issuer + issuer_len));

    uint32_t a = 0, b = 0, c = 0, d = 0, e = 0;
    ASSERT_EQ(pkcs7GetSignerInfosNodPos(sod.data(), n, &a), ZEL_OK);
    ASSERT_EQ(pkcs7GetSignedAttrsPos(sod.data(), n, &b), ZEL_OK);
    ASSERT_EQ(pkcs7GetSignatureAlgorithmPos(sod.data(), n, &c), ZEL_OK);
    ASSERT_EQ(pkcs7GetSignaturePos(sod.data(), n, &d), ZEL_OK);
    ASSERT_EQ(pkcs7GetCertNodPos(sod.data(), n, &e), ZEL_OK);
    EXPECT_EQ(sod[a], 0x31);
    EXPECT_EQ(sod[b], 0xA0);
    EXPECT_EQ(sod[c], 0x30);
    EXPECT_EQ(sod[d], 0x04);
    EXPECT_EQ(sod[e], 0xA0);
    EXPECT_TRUE(e < a && a < b && b < c && c < d);
}

TEST_F(Pkcs7Sod, SignaturesOfEveryScheme)
{
    for (const char *name : {"rsa.sod.bin", "rsa_pss.sod.bin", "rsa_pss_mgf512.sod.bin", "bp256.sod.bin",
                             "bp384.sod.bin", "bp256t1.sod.bin", "explicit.sod.bin"}) {
        SCOPED_TRACE(name);
        const Bytes sod = fixture(name);
        EXPECT_EQ(pkcs7VerifySignature(sod.data(), size32(sod)), ZEL_OK);
        // A changed signed attribute (a byte of the message digest) breaks the signature.
        const uint8_t *p = nullptr;
        uint32_t len = 0;
        ASSERT_EQ(pkcs7GetLDSSecurityObjectDigest(sod.data(), size32(sod), &p, &len), ZEL_OK);
        Bytes bad = sod;
        bad[static_cast<size_t>(p - sod.data())] ^= 0x01;
        EXPECT_EQ(pkcs7VerifySignature(bad.data(), size32(bad)), PKCS7_WRONG_SIGNATURE);
    }
    const Bytes sha224 = fixture("bp256_sha224.sod.bin");
    EXPECT_EQ(pkcs7VerifySignature(sha224.data(), size32(sha224)), PKCS7_UNSUPPORTED_SIGNATURE_SCHEME);
}

TEST_F(Pkcs7Sod, FileTagAndOuterLength)
{
    Bytes sod = fixture("rsa.sod.bin");
    uint32_t pos = 0;
    sod[0] = 0x30;
    EXPECT_EQ(pkcs7GetCertNodPos(sod.data(), size32(sod), &pos), MRTD_WRONG_SOD_DATA);
    sod[0] = 0x77;
    sod.push_back(0);
    EXPECT_EQ(pkcs7GetCertNodPos(sod.data(), size32(sod), &pos), MRTD_WRONG_SOD_LENGTH);
    EXPECT_EQ(pkcs7VerifySignature(sod.data(), size32(sod)), MRTD_WRONG_SOD_LENGTH);
}

TEST_F(Pkcs7Sod, SchemeAndPssParameterReaders)
{
    uint32_t scheme = 0, type = 0, digest = 0, mgf = 0, salt = 0;
    const uint8_t *params = nullptr;
    uint32_t params_len = 0;
    // sha256WithRSAEncryption with NULL parameters.
    const Bytes v15 = from_hex("300D06092A864886F70D01010B0500");
    ASSERT_EQ(pkcs7ParseDERSignatureScheme(v15.data(), size32(v15), &scheme, &type, &params, &params_len), ZEL_OK);
    EXPECT_EQ(scheme, 1u);
    EXPECT_EQ(type, ZEL_SCH_RSA_PKCS1);
    EXPECT_EQ(params, nullptr);
    // PSS: SHA-256, MGF1 with SHA-512, salt 32.
    const Bytes pss = from_hex("304106092A864886F70D01010A3034A00F300D06096086480165030402010500A11C301A06092A864886"
                               "F70D010108300D06096086480165030402030500A203020120");
    ASSERT_EQ(pkcs7ParseDERSignatureScheme(pss.data(), size32(pss), &scheme, &type, &params, &params_len), ZEL_OK);
    EXPECT_EQ(scheme, 7u);
    EXPECT_EQ(type, ZEL_SCH_RSA_PSS);
    ASSERT_EQ(params_len, 0x36u);
    ASSERT_EQ(pkcs7ParseRsaPSSParams(params, params_len, &digest, &mgf, &salt), ZEL_OK);
    EXPECT_EQ(digest, ZEL_HASH_SHA256);
    EXPECT_EQ(mgf, ZEL_HASH_SHA512);
    EXPECT_EQ(salt, 32u);
    // PSS with its parameters left out, and with the salt left to its default.
    const Bytes bare = from_hex("300B06092A864886F70D01010A");
    EXPECT_EQ(pkcs7ParseDERSignatureScheme(bare.data(), size32(bare), &scheme, &type, &params, &params_len),
              PKCS7_WRONG_DATA);
    const Bytes no_salt = from_hex("302FA00F300D06096086480165030402010500A11C301A06092A864886F70D010108300D060960"
                                   "86480165030402030500");
    EXPECT_EQ(pkcs7ParseRsaPSSParams(no_salt.data(), size32(no_salt), &digest, &mgf, &salt), PKCS7_WRONG_DATA);
    // A two-byte salt.
    const Bytes big_salt = from_hex("3035A00F300D06096086480165030402010500A11C301A06092A864886F70D010108300D0609608"
                                    "6480165030402030500A20402020100");
    EXPECT_EQ(pkcs7ParseRsaPSSParams(big_salt.data(), size32(big_salt), &digest, &mgf, &salt),
              PKCS7_UNSUPPORTED_SIGNATURE_SCHEME);
    // ECDSA with SHA-224 is named but refused; an unknown OID likewise.
    const Bytes sha224 = from_hex("300A06082A8648CE3D040301");
    EXPECT_EQ(pkcs7ParseDERSignatureScheme(sha224.data(), size32(sha224), &scheme, &type, &params, &params_len),
              PKCS7_UNSUPPORTED_SIGNATURE_SCHEME);
    EXPECT_EQ(scheme, 12u);
    const Bytes unknown = from_hex("300A06082A8648CE3D040309");
    EXPECT_EQ(pkcs7ParseDERSignatureScheme(unknown.data(), size32(unknown), &scheme, &type, &params, &params_len),
              PKCS7_UNSUPPORTED_SIGNATURE_SCHEME);
    EXPECT_EQ(scheme, 13u);
    EXPECT_EQ(pkcs7ParseDERSignatureScheme(v15.data(), 5, &scheme, &type, &params, &params_len), PKCS7_WRONG_DATA);
}

TEST_F(Pkcs7Sod, TruncatedAndCorruptObjectsGiveStatuses)
{
    for (const char *name : {"rsa_pss.sod.bin", "explicit.sod.bin"}) {
        const Bytes full = fixture(name);
        for (size_t cut = 0; cut < full.size(); cut += 3) {
            Bytes part(full.begin(), full.begin() + static_cast<long>(cut));
            EXPECT_NE(pkcs7VerifySignature(part.data(), size32(part)), ZEL_OK);
        }
        for (size_t i = 0; i < full.size(); ++i) {
            for (uint8_t v : {uint8_t(0x00), uint8_t(0x83), uint8_t(0xFF)}) {
                Bytes bad = full;
                bad[i] = v;
                const uint8_t *p = nullptr;
                uint32_t len = 0, id = 0;
                (void)pkcs7VerifySignature(bad.data(), size32(bad));
                (void)pkcs7GetDataGroupHash(bad.data(), size32(bad), 2, &p, &len);
                (void)pkcs7GetLDSSecurityObjectDigest(bad.data(), size32(bad), &p, &len);
                (void)pkcs7GetDigestAlgorithms(bad.data(), size32(bad), &id);
            }
        }
    }
}

} // namespace
