// The certificate walker against certificates made by the openssl command line, cross-checked with OpenSSL's
// own parse of the same bytes; signature checks on every curve of the table and on RSA 1024 to 4096 bits;
// corrupt and truncated certificates.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "crypto_fixtures.h"
#include "tandro.h"

using namespace zeltest;

namespace {

uint32_t size32(const Bytes &b)
{
    return static_cast<uint32_t>(b.size());
}

// What OpenSSL reads from the same certificate.
struct Reference {
    Bytes subject, issuer, serial, ski, aki;
    explicit Reference(const Bytes &der)
    {
        const unsigned char *p = der.data();
        X509 *x = d2i_X509(nullptr, &p, static_cast<long>(der.size()));
        EXPECT_NE(x, nullptr);
        if (!x)
            return;
        unsigned char *out = nullptr;
        int n = i2d_X509_NAME(X509_get_subject_name(x), &out);
        subject.assign(out, out + n);
        OPENSSL_free(out);
        out = nullptr;
        n = i2d_X509_NAME(X509_get_issuer_name(x), &out);
        issuer.assign(out, out + n);
        OPENSSL_free(out);
        const ASN1_INTEGER *sn = X509_get0_serialNumber(x);
        serial.assign(ASN1_STRING_get0_data(sn), ASN1_STRING_get0_data(sn) + ASN1_STRING_length(sn));
        if (const ASN1_OCTET_STRING *id = X509_get0_subject_key_id(x))
            ski.assign(ASN1_STRING_get0_data(id), ASN1_STRING_get0_data(id) + ASN1_STRING_length(id));
        if (const ASN1_OCTET_STRING *id = X509_get0_authority_key_id(x))
            aki.assign(ASN1_STRING_get0_data(id), ASN1_STRING_get0_data(id) + ASN1_STRING_length(id));
        X509_free(x);
    }
};

class X509Walk : public ::testing::Test {
protected:
    static void SetUpTestSuite() { initCryptoSubsys(); }
};

TEST_F(X509Walk, NodesMatchOpenSslParse)
{
    for (const char *name : {"csca_rsa.der", "ds_rsa.der", "ds_brainpoolP256r1.der", "ds_rsa_pss.der"}) {
        SCOPED_TRACE(name);
        const Bytes der = fixture(name);
        const Reference ref(der);
        const uint8_t *p = nullptr;
        uint32_t n = 0;
        ASSERT_EQ(X509GetSubjectSeq(der.data(), size32(der), &p, &n), ZEL_OK);
        EXPECT_EQ(Bytes(p, p + n), ref.subject);
        ASSERT_EQ(X509GetIssuerSeq(der.data(), size32(der), &p, &n), ZEL_OK);
        EXPECT_EQ(Bytes(p, p + n), ref.issuer);
        ASSERT_EQ(X509GetSerialNumberByteArr(der.data(), size32(der), &p, &n), ZEL_OK);
        EXPECT_EQ(Bytes(p, p + n), ref.serial);
        // The Seq form points at the length byte and gives the value's length.
        const uint8_t *q = nullptr;
        uint32_t m = 0;
        ASSERT_EQ(X509GetSerialNumberSeq(der.data(), size32(der), &q, &m), ZEL_OK);
        EXPECT_EQ(q + 1, p);
        EXPECT_EQ(m, n);
        EXPECT_EQ(q[-1], 0x02);
        ASSERT_EQ(X509GetSKIFromCert(der.data(), size32(der), &p, &n), ZEL_OK);
        EXPECT_EQ(Bytes(p, p + n), ref.ski);
        ASSERT_EQ(X509GetAKIFromCert(der.data(), size32(der), &p, &n), ZEL_OK);
        EXPECT_EQ(Bytes(p, p + n), ref.aki);
        uint8_t version = 0;
        ASSERT_EQ(X509GetVersion(der.data(), size32(der), &version), ZEL_OK);
        EXPECT_EQ(version, 3);

        // Positions follow the layout: each node's offset is the previous one's end.
        uint32_t tbs = 0, serial = 0, alg = 0, issuer = 0, validity = 0, subject = 0, spki = 0, ext = 0, outer = 0,
                 sig = 0;
        ASSERT_EQ(X509GetTbsNodePos(der.data(), size32(der), &tbs), ZEL_OK);
        ASSERT_EQ(X509GetSerialNumberPos(der.data(), size32(der), &serial), ZEL_OK);
        ASSERT_EQ(X509GetSignatureAlgFromTBSPos(der.data(), size32(der), &alg), ZEL_OK);
        ASSERT_EQ(X509GetIssuerPos(der.data(), size32(der), &issuer), ZEL_OK);
        ASSERT_EQ(X509GetValidityPeriodPos(der.data(), size32(der), &validity), ZEL_OK);
        ASSERT_EQ(X509GetSubjectPos(der.data(), size32(der), &subject), ZEL_OK);
        ASSERT_EQ(X509GetPublicKeyInfoPos(der.data(), size32(der), &spki), ZEL_OK);
        ASSERT_EQ(X509GetExtensionsPos(der.data(), size32(der), &ext), ZEL_OK);
        ASSERT_EQ(X509GetSignatureAlgorithmNodePos(der.data(), size32(der), &outer), ZEL_OK);
        ASSERT_EQ(x509GetSignatureNodePos(der.data(), size32(der), &sig), ZEL_OK);
        EXPECT_EQ(der[tbs], 0x30);
        EXPECT_EQ(der[serial], 0x02);
        EXPECT_EQ(der[ext], 0xA3);
        EXPECT_EQ(der[sig], 0x03);
        EXPECT_TRUE(tbs < serial && serial < alg && alg < issuer && issuer < validity && validity < subject &&
                    subject < spki && spki < ext && ext < outer && outer < sig);
        const uint8_t *tbs_p = nullptr, *sig_p = nullptr;
        uint32_t tbs_len = 0, sig_len = 0;
        ASSERT_EQ(X509GetTbs(der.data(), size32(der), &tbs_p, &tbs_len), ZEL_OK);
        EXPECT_EQ(tbs_p + tbs_len, der.data() + outer);
        ASSERT_EQ(X509GetSignature(der.data(), size32(der), &sig_p, &sig_len), ZEL_OK);
        EXPECT_EQ(sig_p + sig_len, der.data() + der.size());
    }
}

TEST_F(X509Walk, ExtensionLookupFlagsAndMissingNodes)
{
    const Bytes der = fixture("csca_rsa.der");
    const uint8_t *ext = nullptr, *p = nullptr;
    uint32_t ext_len = 0, n = 0, critical = 7;
    ASSERT_EQ(X509GetExtensionsSeq(der.data(), size32(der), &ext, &ext_len), ZEL_OK);
    const uint8_t basic_constraints[] = {0x06, 0x03, 0x55, 0x1D, 0x13};
    ASSERT_EQ(X509GetExtension(ext, ext_len, basic_constraints, &p, &n, &critical), ZEL_OK);
    EXPECT_EQ(critical, 1u);
    EXPECT_EQ(p[0], 0x04);
    const uint8_t ski_oid[] = {0x06, 0x03, 0x55, 0x1D, 0x0E};
    ASSERT_EQ(X509GetExtension(ext, ext_len, ski_oid, &p, &n, &critical), ZEL_OK);
    EXPECT_EQ(critical, 0u);
    EXPECT_EQ(n, 24u); // the whole node: 04 16 04 14 and twenty bytes
    const uint8_t policies[] = {0x06, 0x03, 0x55, 0x1D, 0x20};
    EXPECT_EQ(X509GetExtension(ext, ext_len, policies, &p, &n, &critical), X509_EXTENSION_NOT_FOUND);
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(X509GetExtension(der.data(), size32(der), policies, &p, &n, &critical), X509_WRONG_DATA);

    // A version 1 certificate: no version node, so no walk inside the TBS.
    const Bytes v1 = fixture("v1.der");
    uint32_t pos = 0;
    EXPECT_EQ(X509GetIssuerPos(v1.data(), size32(v1), &pos), X509_WRONG_DATA);
    EXPECT_EQ(X509GetTbsNodePos(v1.data(), size32(v1), &pos), ZEL_OK);
    // Extensions without SKI and AKI, and a certificate without extensions.
    const Bytes noski = fixture("noski.der");
    EXPECT_EQ(X509GetSKIFromCert(noski.data(), size32(noski), &p, &n), X509_EXTENSION_NOT_FOUND);
    EXPECT_EQ(X509GetAKIFromCert(noski.data(), size32(noski), &p, &n), X509_EXTENSION_NOT_FOUND);
    EXPECT_EQ(X509GetExtensionsPos(v1.data(), size32(v1), &pos), X509_WRONG_DATA);
    EXPECT_EQ(X509GetSKIFromCert(v1.data(), size32(v1), &p, &n), X509_WRONG_DATA);
}

TEST_F(X509Walk, OuterLengthMustMatchTheBuffer)
{
    Bytes der = fixture("ds_rsa.der");
    der.push_back(0);
    const uint32_t n = size32(der);
    uint32_t pos = 0;
    const uint8_t *p = nullptr;
    uint32_t len = 0;
    EXPECT_EQ(X509GetTbsNodePos(der.data(), n, &pos), X509_WRONG_LENGTH);
    EXPECT_EQ(X509GetSubjectPos(der.data(), n, &pos), X509_WRONG_LENGTH);
    EXPECT_EQ(x509GetSignatureNodePos(der.data(), n, &pos), X509_WRONG_LENGTH);
    EXPECT_EQ(X509GetIssuerSeq(der.data(), n, &p, &len), X509_WRONG_LENGTH);
    EXPECT_EQ(X509GetExtensionsSeq(der.data(), n, &p, &len), X509_WRONG_LENGTH);
    der[0] = 0x31;
    EXPECT_EQ(X509GetTbsNodePos(der.data(), n, &pos), X509_WRONG_DATA);
}

TEST_F(X509Walk, PublicKeysOfEveryKind)
{
    const uint8_t *key = nullptr, *params = nullptr;
    uint32_t key_len = 0, bits = 0, type = 0, curve = 0;
    auto parse = [&](const Bytes &der) {
        return X509ParsePubKey(der.data(), size32(der), &key, &key_len, &bits, &type, &curve, &params);
    };
    const Bytes rsa = fixture("ds_rsa.der");
    ASSERT_EQ(parse(rsa), ZEL_OK);
    EXPECT_EQ(type, ZEL_KEY_RSA);
    EXPECT_EQ(bits, 2048u);
    EXPECT_EQ(key_len, 256u);
    EXPECT_GE(key[0], 0x80) << "the leading 00 of the modulus is dropped";
    EXPECT_EQ(curve, 34u);
    uint32_t exponent = 0;
    const uint32_t avail = static_cast<uint32_t>(rsa.data() + rsa.size() - params);
    ASSERT_EQ(X509GetRSAPubKeyExponent(params, avail, &exponent), ZEL_OK);
    // Four bytes behind the length field, whatever it says: 01 00 01 and the next byte.
    EXPECT_EQ(exponent >> 8, 0x010001u);
    const uint8_t long_form[] = {0x02, 0x81, 0x03, 0x01, 0x00, 0x01};
    EXPECT_EQ(X509GetRSAPubKeyExponent(long_form, 6, &exponent), X509_UNSUPPORTED_PUBLIC_KEY_EXPONENT);
    EXPECT_EQ(X509GetRSAPubKeyExponent(long_form + 1, 5, &exponent), X509_WRONG_DATA);

    ASSERT_EQ(parse(fixture("rsa1984.der")), ZEL_OK);
    EXPECT_EQ(bits, 1984u);
    EXPECT_EQ(parse(fixture("rsa2560.der")), X509_UNSUPPORTED_PUBLIC_KEY_SIZE);
    EXPECT_EQ(checkRSAKeySize(160), ZEL_OK);
    EXPECT_EQ(checkRSAKeySize(320), X509_UNSUPPORTED_PUBLIC_KEY_SIZE);

    const Bytes bp384 = fixture("ds_brainpoolP384r1.der"), expl = fixture("ds_explicit.der");
    ASSERT_EQ(parse(bp384), ZEL_OK);
    EXPECT_EQ(type, ZEL_KEY_ECC_NAMED);
    EXPECT_EQ(curve, 25u);
    EXPECT_EQ(key[0], 0x04);
    EXPECT_EQ(key_len, 98u); // the point's 97 bytes and one
    EXPECT_EQ(bits, 384u);

    ASSERT_EQ(parse(expl), ZEL_OK);
    EXPECT_EQ(type, ZEL_KEY_ECC_EXPLICIT);
    EXPECT_EQ(curve, 34u);
    ASSERT_NE(params, nullptr);
    EXPECT_EQ(params[0], 0x30);
    EXPECT_EQ(bits, 256u);
}

TEST_F(X509Walk, SignatureOnEveryCurveOfTheTable)
{
    for (uint32_t i = 0; i < 34; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "curve%02u.der", i);
        SCOPED_TRACE(name);
        const Bytes der = fixture(name);
        ASSERT_FALSE(der.empty());
        const uint8_t *key = nullptr, *params = nullptr;
        uint32_t key_len = 0, bits = 0, type = 0, curve = 0;
        ASSERT_EQ(X509ParsePubKey(der.data(), size32(der), &key, &key_len, &bits, &type, &curve, &params), ZEL_OK);
        EXPECT_EQ(curve, i);
        EXPECT_EQ(X509VerifyDerCertSignature(der.data(), size32(der), der.data(), size32(der)), ZEL_OK);
    }
}

TEST_F(X509Walk, DocumentSignersAgainstTheirCsca)
{
    const Bytes csca_rsa = fixture("csca_rsa.der"), csca_ec = fixture("csca_bp256.der");
    auto check = [](const Bytes &cert, const Bytes &ca) {
        return X509VerifyDerCertSignature(cert.data(), size32(cert), ca.data(), size32(ca));
    };
    EXPECT_EQ(check(csca_rsa, csca_rsa), ZEL_OK);
    EXPECT_EQ(check(csca_ec, csca_ec), ZEL_OK);
    EXPECT_EQ(check(csca_rsa, fixture("ds_rsa.der")), CRYPTO_SUBSYS_SIGNATURE_VERIFICATION_ERROR);
    for (const char *name : {"ds_rsa.der", "ds_rsa_pss.der", "ds_rsa_pss_mgf512.der", "ds_rsa_sha1.der"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(check(fixture(name), csca_rsa), ZEL_OK);
        EXPECT_EQ(check(fixture(name), csca_ec), X509_SIGNATURE_NOT_MATCH_CA_PUBLIC_KEY);
    }
    for (const char *name :
         {"ds_prime256v1.der", "ds_brainpoolP256r1.der", "ds_brainpoolP384r1.der", "ds_brainpoolP512r1.der",
          "ds_brainpoolP256t1.der", "ds_explicit.der", "ds_bp256_sha512.der"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(check(fixture(name), csca_ec), ZEL_OK);
        EXPECT_EQ(check(fixture(name), csca_rsa), X509_SIGNATURE_NOT_MATCH_CA_PUBLIC_KEY);
    }
    // The explicit-parameter key verifies as an issuer too.
    const Bytes expl = fixture("ds_explicit.der");
    EXPECT_EQ(check(expl, fixture("ds_brainpoolP256r1.der")), X509_WRONG_SIGNATURE);
    // ECDSA with SHA-224 is named but not verified; the scheme reader's status comes back.
    EXPECT_EQ(check(fixture("ds_bp256_sha224.der"), csca_ec), PKCS7_UNSUPPORTED_SIGNATURE_SCHEME);
    for (const char *name : {"rsa1024", "rsa1984", "rsa3072", "rsa4096"}) {
        SCOPED_TRACE(name);
        const Bytes v15 = fixture(std::string(name) + ".der"), pss = fixture(std::string(name) + "_pss.der");
        EXPECT_EQ(check(v15, v15), ZEL_OK);
        EXPECT_EQ(check(pss, pss), ZEL_OK);
        EXPECT_EQ(check(pss, v15), ZEL_OK) << "the same key";
        // Under another key the signature does not even decode: a failed check, not a "wrong signature".
        EXPECT_EQ(check(v15, csca_rsa), CRYPTO_SUBSYS_SIGNATURE_VERIFICATION_ERROR);
    }
}

TEST_F(X509Walk, TamperedCertificatesFailVerification)
{
    const Bytes csca = fixture("csca_rsa.der");
    Bytes ds = fixture("ds_rsa.der");
    uint32_t subject = 0;
    ASSERT_EQ(X509GetSubjectPos(ds.data(), size32(ds), &subject), ZEL_OK);
    ds[subject + 12] ^= 0x01; // a letter of the subject
    EXPECT_EQ(X509VerifyDerCertSignature(ds.data(), size32(ds), csca.data(), size32(csca)), X509_WRONG_SIGNATURE);

    Bytes ec = fixture("ds_brainpoolP256r1.der");
    const Bytes csca_ec = fixture("csca_bp256.der");
    ASSERT_EQ(X509GetSubjectPos(ec.data(), size32(ec), &subject), ZEL_OK);
    ec[subject + 12] ^= 0x01;
    EXPECT_EQ(X509VerifyDerCertSignature(ec.data(), size32(ec), csca_ec.data(), size32(csca_ec)), X509_WRONG_SIGNATURE);
    // A signature value that is no ECDSA structure.
    Bytes broken = fixture("ds_brainpoolP256r1.der");
    uint32_t sig = 0;
    ASSERT_EQ(x509GetSignatureNodePos(broken.data(), size32(broken), &sig), ZEL_OK);
    broken[sig + 3] = 0x31; // the SEQUENCE tag inside the BIT STRING
    EXPECT_EQ(X509VerifyDerCertSignature(broken.data(), size32(broken), csca_ec.data(), size32(csca_ec)),
              CRYPTO_SUBSYS_SIGNATURE_VERIFICATION_ERROR);
}

// Every prefix and many single-byte corruptions of a certificate: a status, never a read past the bytes
// (the sanitizer build checks the reads).
TEST_F(X509Walk, TruncatedAndCorruptCertificatesGiveStatuses)
{
    for (const char *name : {"ds_rsa_pss.der", "ds_explicit.der"}) {
        const Bytes full = fixture(name);
        const Bytes ca = fixture(std::string(name) == "ds_explicit.der" ? "csca_bp256.der" : "csca_rsa.der");
        for (size_t cut = 0; cut < full.size(); ++cut) {
            Bytes part(full.begin(), full.begin() + static_cast<long>(cut));
            const uint8_t *p = nullptr, *params = nullptr;
            uint32_t n = 0, pos = 0, bits = 0, type = 0, curve = 0;
            EXPECT_NE(x509GetSignatureNodePos(part.data(), size32(part), &pos), ZEL_OK);
            EXPECT_NE(X509GetSKIFromCert(part.data(), size32(part), &p, &n), ZEL_OK);
            EXPECT_NE(X509ParsePubKey(part.data(), size32(part), &p, &n, &bits, &type, &curve, &params), ZEL_OK);
            EXPECT_NE(X509VerifyDerCertSignature(part.data(), size32(part), ca.data(), size32(ca)), ZEL_OK);
        }
        for (size_t i = 0; i < full.size(); ++i) {
            for (uint8_t v : {uint8_t(0x00), uint8_t(0x7F), uint8_t(0x84), uint8_t(0xFF)}) {
                Bytes bad = full;
                bad[i] = v;
                Bytes exact(bad); // an exact-size heap copy, so any overrun is caught
                const uint8_t *p = nullptr, *params = nullptr;
                uint32_t n = 0, bits = 0, type = 0, curve = 0;
                (void)X509GetAKIFromCert(exact.data(), size32(exact), &p, &n);
                (void)X509ParsePubKey(exact.data(), size32(exact), &p, &n, &bits, &type, &curve, &params);
                (void)X509VerifyDerCertSignature(exact.data(), size32(exact), ca.data(), size32(ca));
                (void)X509VerifyDerCertSignature(ca.data(), size32(ca), exact.data(), size32(exact));
            }
        }
    }
}

TEST_F(X509Walk, CertificateFilesPemDerAndSizeLimit)
{
    uint8_t *der = nullptr;
    uint32_t der_len = 0;
    ASSERT_EQ(X509GetCertFromFile(fixture_path("csca_rsa.pem").c_str(), &der, &der_len), ZEL_OK);
    EXPECT_EQ(Bytes(der, der + der_len), fixture("csca_rsa.der"));
    OrbFree(der);
    ASSERT_EQ(X509GetCertFromFile(fixture_path("ds_explicit.der").c_str(), &der, &der_len), ZEL_OK);
    EXPECT_EQ(Bytes(der, der + der_len), fixture("ds_explicit.der"));
    OrbFree(der);
    EXPECT_EQ(X509GetCertFromFile(fixture_path("no-such-file").c_str(), &der, &der_len), X509_CAN_NOT_OPEN_FILE);
    EXPECT_EQ(der, nullptr);

    // 32768 bytes pass the size test (and then fail as a certificate: no tag 30); 32769 do not.
    const std::string path = ::testing::TempDir() + "zel_cert_size.bin";
    for (uint32_t size : {32768u, 32769u}) {
        FILE *f = std::fopen(path.c_str(), "wb");
        ASSERT_NE(f, nullptr);
        Bytes junk(size, 0x31);
        std::fwrite(junk.data(), 1, junk.size(), f);
        std::fclose(f);
        const ZEL_STATUS st = X509GetCertFromFile(path.c_str(), &der, &der_len);
        EXPECT_EQ(st, size == 32768u ? X509_WRONG_DATA : X509_WRONG_LENGTH);
        EXPECT_EQ(der, nullptr);
    }
    std::remove(path.c_str());
}

} // namespace
