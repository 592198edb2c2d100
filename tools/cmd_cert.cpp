// tandro cert FILE [--ca CAFILE]: what a certificate holds, and whether its issuer's key signed it.
#include <cstdio>
#include <string>

#include <openssl/bio.h>
#include <openssl/x509.h>

#include "tandro.h"
#include "tools/cli.h"
#include "tools/options.h"

namespace {

using tandro::to_hex;

// A distinguished name as one line of text ("C=UT, O=..., CN=...").
std::string name_text(const uint8_t *der, uint32_t len)
{
    const unsigned char *p = der;
    X509_NAME *name = d2i_X509_NAME(nullptr, &p, len);
    if (name == nullptr)
        return "(unreadable)";
    BIO *bio = BIO_new(BIO_s_mem());
    X509_NAME_print_ex(bio, name, 0, XN_FLAG_ONELINE & ~ASN1_STRFLGS_ESC_MSB);
    char *text = nullptr;
    const long n = BIO_get_mem_data(bio, &text);
    std::string out(text, static_cast<size_t>(n));
    BIO_free(bio);
    X509_NAME_free(name);
    return out;
}

// The two times of the validity node, as they are written (UTCTime or GeneralizedTime).
void validity(const uint8_t *v, uint32_t len, std::string *from, std::string *to)
{
    uint8_t lol = 0;
    uint32_t vlen = 0;
    if (len < 2 || !getTlvLen(v + 1, &lol, &vlen))
        return;
    uint32_t pos = 1u + lol;
    std::string *slot[2] = {from, to};
    for (std::string *s : slot) {
        if (pos + 2 > len || v[pos + 1] >= 0x80 || pos + 2u + v[pos + 1] > len)
            return;
        s->assign(reinterpret_cast<const char *>(v + pos + 2), v[pos + 1]);
        pos += 2u + v[pos + 1];
    }
}

const char *key_kind(uint32_t type)
{
    switch (type) {
    case ZEL_KEY_RSA: return "RSA";
    case ZEL_KEY_ECC_NAMED: return "ECC";
    case ZEL_KEY_ECC_EXPLICIT: return "ECC (explicit parameters)";
    default: return "unknown";
    }
}

const tandro::OptionTable TABLE = {
    {
        {"FILE", "the certificate's subject, issuer, serial, validity, public key, SKI and AKI"},
    },
    {
        {"--ca", "CAFILE", "also verifies the certificate's signature with the key of the issuer's certificate"},
    },
    "FILE and CAFILE are certificates in PEM or DER. No reader is opened. With --ca the exit status is 1 when "
    "the signature does not verify.",
};

int run_cert(const tandro::Options &opt, const tandro::Args &args)
{
    tandro::Parsed parsed;
    if (!tandro::parse("cert", TABLE, args, parsed))
        return 2;
    if (parsed.words.size() > 1)
        return tandro::usage_error("cert", "give one certificate file");
    const std::string file = parsed.word(0), ca_file = parsed.value("--ca");
    if (file.empty())
        return tandro::usage_error("cert", "give a certificate file (PEM or DER)");
    initCryptoSubsys();

    uint8_t *der = nullptr;
    uint32_t len = 0;
    ZEL_STATUS st = X509GetCertFromFile(file.c_str(), &der, &len);
    if (st != ZEL_OK) {
        std::fprintf(stderr, "tandro cert: %s: %s\n", file.c_str(), ZEL_Status2String(st));
        return 1;
    }
    const uint8_t *p = nullptr, *key = nullptr, *params = nullptr;
    uint32_t n = 0, key_len = 0, bits = 0, type = ZEL_KEY_NONE, curve = 34;
    std::string subject, issuer, serial, from, to, ski, aki;
    if (X509GetSubjectSeq(der, len, &p, &n) == ZEL_OK)
        subject = name_text(p, n);
    if (X509GetIssuerSeq(der, len, &p, &n) == ZEL_OK)
        issuer = name_text(p, n);
    if (X509GetSerialNumberByteArr(der, len, &p, &n) == ZEL_OK)
        serial = to_hex(p, n);
    if (X509GetValidityPeriodSeq(der, len, &p, &n) == ZEL_OK)
        validity(p, n, &from, &to);
    if (X509GetSKIFromCert(der, len, &p, &n) == ZEL_OK)
        ski = to_hex(p, n);
    if (X509GetAKIFromCert(der, len, &p, &n) == ZEL_OK)
        aki = to_hex(p, n);
    const ZEL_STATUS key_st = X509ParsePubKey(der, len, &key, &key_len, &bits, &type, &curve, &params);
    const std::string curve_name = curve < 34 ? OrbGetEccCurveName(curve) : "";

    std::string verdict;
    int rc = 0;
    if (!ca_file.empty()) {
        uint8_t *ca = nullptr;
        uint32_t ca_len = 0;
        st = X509GetCertFromFile(ca_file.c_str(), &ca, &ca_len);
        if (st == ZEL_OK)
            st = X509VerifyDerCertSignature(der, len, ca, ca_len);
        OrbFree(ca);
        verdict = ZEL_Status2String(st);
        rc = st == ZEL_OK ? 0 : 1;
    }
    OrbFree(der);

    if (opt.json) {
        using tandro::json_string;
        std::printf("{\"subject\": %s, \"issuer\": %s, \"serial\": \"%s\", \"not_before\": %s, \"not_after\": %s, ",
                    json_string(subject).c_str(), json_string(issuer).c_str(), serial.c_str(),
                    json_string(from).c_str(), json_string(to).c_str());
        std::printf("\"key\": {\"type\": %s, \"bits\": %u, \"curve\": %s, \"status\": %s}, ",
                    json_string(key_kind(type)).c_str(), bits,
                    curve_name.empty() ? "null" : json_string(curve_name).c_str(),
                    json_string(ZEL_Status2String(key_st)).c_str());
        std::printf("\"ski\": %s, \"aki\": %s, \"verified\": %s, \"verification\": %s}\n",
                    ski.empty() ? "null" : json_string(ski).c_str(), aki.empty() ? "null" : json_string(aki).c_str(),
                    ca_file.empty() ? "null" : (rc == 0 ? "true" : "false"),
                    ca_file.empty() ? "null" : json_string(verdict).c_str());
        return rc;
    }
    std::printf("Subject:    %s\nIssuer:     %s\nSerial:     %s\n", subject.c_str(), issuer.c_str(), serial.c_str());
    std::printf("Not before: %s\nNot after:  %s\n", from.c_str(), to.c_str());
    if (key_st != ZEL_OK)
        std::printf("Key:        %s\n", ZEL_Status2String(key_st));
    else if (type == ZEL_KEY_ECC_NAMED)
        std::printf("Key:        ECC %u bits, curve %s\n", bits, curve_name.c_str());
    else
        std::printf("Key:        %s %u bits\n", key_kind(type), bits);
    std::printf("SKI:        %s\nAKI:        %s\n", ski.empty() ? "-" : ski.c_str(), aki.empty() ? "-" : aki.c_str());
    if (!ca_file.empty())
        std::printf("Signature:  %s (%s)\n", rc == 0 ? "verified" : "NOT verified", verdict.c_str());
    return rc;
}

const tandro::Registration cert_cmd({"cert", "FILE [--ca CAFILE]",
                                     "a certificate's names, validity, key and key ids; --ca verifies its signature",
                                     run_cert, false, &TABLE});

} // namespace
