// The files of a simulated travel document: EF.COM, the data groups made from the MRZ and the built-in
// images, and EF.SOD, a CMS SignedData over the LDS Security Object signed by a built-in document signer.
#include <algorithm>
#include <cstring>

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include "passport.h"
#include "passport_assets.h"

namespace zs {

namespace {

const char kDefaultTd3[] = "P<UTOERIKSSON<<ANNA<MARIA<<<<<<<<<<<<<<<<<<<"
                           "L898902C36UTO7408122F1204159ZE184226B<<<<<10";

void put_len(Bytes &out, size_t n)
{
    if (n < 0x80) {
        out.push_back(uint8_t(n));
    } else if (n < 0x100) {
        out.push_back(0x81);
        out.push_back(uint8_t(n));
    } else if (n < 0x10000) {
        out.push_back(0x82);
        out.push_back(uint8_t(n >> 8));
        out.push_back(uint8_t(n));
    } else {
        out.push_back(0x83);
        out.push_back(uint8_t(n >> 16));
        out.push_back(uint8_t(n >> 8));
        out.push_back(uint8_t(n));
    }
}

// A BER object: a tag of one or two bytes (as a number) around a value.
Bytes tlv(uint16_t tag, const Bytes &value)
{
    Bytes out;
    if (tag > 0xFF)
        out.push_back(uint8_t(tag >> 8));
    out.push_back(uint8_t(tag));
    put_len(out, value.size());
    out.insert(out.end(), value.begin(), value.end());
    return out;
}

Bytes text(const std::string &s)
{
    return Bytes(s.begin(), s.end());
}

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

// The face image, padded with JPEG comment segments behind its start marker to the size asked.
Bytes face_image(size_t size)
{
    const Bytes &jpeg = passport_face_jpeg();
    if (size <= jpeg.size())
        return jpeg;
    Bytes out(jpeg.begin(), jpeg.begin() + 2);
    size_t fill = size - jpeg.size();
    while (fill >= 4) {
        const size_t seg = std::min<size_t>(fill, 65535 + 2);
        const size_t body = seg - 4;
        out.push_back(0xFF);
        out.push_back(0xFE);
        out.push_back(uint8_t((body + 2) >> 8));
        out.push_back(uint8_t(body + 2));
        out.insert(out.end(), body, uint8_t('.'));
        fill -= seg;
    }
    out.insert(out.end(), jpeg.begin() + 2, jpeg.end());
    return out;
}

Bytes dg2(size_t face_size)
{
    const Bytes image = face_image(face_size);
    // ISO/IEC 19794-5: the record header, the facial information (no feature points), the image information.
    Bytes rec = text(std::string("FAC\0"
                                 "010\0",
                                 8));
    const size_t rec_len = 14 + 20 + 12 + image.size();
    for (int i = 3; i >= 0; --i)
        rec.push_back(uint8_t(rec_len >> (8 * i)));
    rec.insert(rec.end(), {0x00, 0x01});
    const size_t block = rec_len - 14;
    for (int i = 3; i >= 0; --i)
        rec.push_back(uint8_t(block >> (8 * i)));
    rec.insert(rec.end(),
               {0x00, 0x00, 0x02, 0x03, 0x04, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00});
    rec.insert(rec.end(), {0x01, 0x00, 0x00, 60, 0x00, 80, 0x01, 0x02, 0x00, 0x00, 0x00, 0x00});
    rec.insert(rec.end(), image.begin(), image.end());
    const Bytes header =
        tlv(0xA1, {0x80, 0x02, 0x01, 0x01, 0x81, 0x01, 0x02, 0x87, 0x02, 0x01, 0x01, 0x88, 0x02, 0x00, 0x08});
    const Bytes bit = tlv(0x7F60, cat({header, tlv(0x5F2E, rec)}));
    return tlv(0x75, tlv(0x7F61, cat({tlv(0x02, {0x01}), bit})));
}

Bytes dg7()
{
    const Bytes image(passport_assets::kSignatureJpeg,
                      passport_assets::kSignatureJpeg + sizeof passport_assets::kSignatureJpeg);
    return tlv(0x67, cat({tlv(0x02, {0x01}), tlv(0x5F43, image)}));
}

Bytes dg11(const std::string &name)
{
    const Bytes list = tlv(0x5C, {0x5F, 0x0E, 0x5F, 0x2B, 0x5F, 0x11, 0x5F, 0x42, 0x5F, 0x12});
    // The other names in their template, and a place of birth with UTF-8 and a quote in it.
    const Bytes others = tlv(0xA0, cat({tlv(0x02, {0x01}), tlv(0x5F0F, text("ANNA<<ERIKSSON"))}));
    return tlv(0x6B, cat({list, tlv(0x5F0E, text(name)), others, tlv(0x5F2B, text("19740812")),
                          tlv(0x5F11, text("ZENITH \"OLD TOWN\" K\xC3\x96LN")),
                          tlv(0x5F42, text("1 MAIN STREET<ZENITH<UTOPIA")), tlv(0x5F12, text("+99 123 4567"))}));
}

Bytes dg12()
{
    const Bytes list = tlv(0x5C, {0x5F, 0x19, 0x5F, 0x26, 0x5F, 0x1B});
    return tlv(0x6C, cat({list, tlv(0x5F19, text("PASSPORT OFFICE ZENITH")), tlv(0x5F26, text("20120416")),
                          tlv(0x5F1B, text("NONE"))}));
}

Bytes dg14()
{
    // SecurityInfos with one entry of the chip authentication protocol (id-CA-DH-3DES-CBC-CBC, version 1).
    const Bytes oid = {0x06, 0x0A, 0x04, 0x00, 0x7F, 0x00, 0x07, 0x02, 0x02, 0x03, 0x01, 0x01};
    return tlv(0x6E, tlv(0x31, tlv(0x30, cat({oid, {0x02, 0x01, 0x01}}))));
}

Bytes dg3()
{
    // A biometric group of fingers: its contents never leave the chip under BAC.
    return tlv(0x63, tlv(0x7F61, cat({tlv(0x02, {0x00})})));
}

Bytes sha256(const Bytes &in)
{
    Bytes out(32);
    unsigned len = 0;
    if (EVP_Digest(in.data(), in.size(), out.data(), &len, EVP_sha256(), nullptr) != 1 || len != 32)
        out.clear();
    return out;
}

// LDSSecurityObject: version 0, SHA-256, the hashes of the data groups.
Bytes lds_security_object(const std::map<uint16_t, Bytes> &files)
{
    const Bytes alg = tlv(0x30, {0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x01});
    Bytes hashes;
    for (const auto &f : files) {
        if (f.first == 0x011E || f.first == 0x011D)
            continue;
        const Bytes h = sha256(f.second);
        const Bytes entry = tlv(0x30, cat({tlv(0x02, {uint8_t(f.first & 0xFF)}), tlv(0x04, h)}));
        hashes.insert(hashes.end(), entry.begin(), entry.end());
    }
    return tlv(0x30, cat({{0x02, 0x01, 0x00}, alg, tlv(0x30, hashes)}));
}

// The signer's certificate signed again by a key of no CSCA, its names and key identifiers unchanged.
bool sign_by_stranger(X509 *cert)
{
    EVP_PKEY *stranger = EVP_EC_gen("prime256v1");
    const bool ok = stranger != nullptr && X509_sign(cert, stranger, EVP_sha256()) > 0;
    EVP_PKEY_free(stranger);
    return ok;
}

bool sign_sod(const Bytes &lds, bool rsa, bool foreign_ds, Bytes &sod, std::string &err)
{
    BIO *cert_bio = BIO_new_mem_buf(rsa ? passport_assets::kDsRsaPem : passport_assets::kDsEcPem, -1);
    BIO *key_bio = BIO_new_mem_buf(rsa ? passport_assets::kDsRsaKey : passport_assets::kDsEcKey, -1);
    X509 *cert = cert_bio ? PEM_read_bio_X509(cert_bio, nullptr, nullptr, nullptr) : nullptr;
    EVP_PKEY *key = key_bio ? PEM_read_bio_PrivateKey(key_bio, nullptr, nullptr, nullptr) : nullptr;
    if (cert != nullptr && foreign_ds && !sign_by_stranger(cert)) {
        X509_free(cert);
        cert = nullptr;
    }
    BIO *in = BIO_new_mem_buf(lds.data(), static_cast<int>(lds.size()));
    ASN1_OBJECT *type = OBJ_txt2obj("2.23.136.1.1.1", 1);
    const unsigned flags = CMS_BINARY | CMS_PARTIAL | CMS_NOSMIMECAP;
    CMS_ContentInfo *cms = cert && key && in && type ? CMS_sign(nullptr, nullptr, nullptr, nullptr, flags) : nullptr;
    bool ok = cms && CMS_set1_eContentType(cms, type) == 1;
    CMS_SignerInfo *si = ok ? CMS_add1_signer(cms, cert, key, EVP_sha256(), flags) : nullptr;
    ok = si && CMS_final(cms, in, nullptr, CMS_BINARY) == 1;
    if (ok && rsa) {
        // Documents name a PKCS#1 v1.5 signature sha256WithRSAEncryption; the signature covers the signed
        // attributes only, so the name can change after signing.
        X509_ALGOR *sig_alg = nullptr;
        CMS_SignerInfo_get0_algs(si, nullptr, nullptr, nullptr, &sig_alg);
        ok = sig_alg && X509_ALGOR_set0(sig_alg, OBJ_nid2obj(NID_sha256WithRSAEncryption), V_ASN1_NULL, nullptr) == 1;
    }
    unsigned char *der = nullptr;
    const int n = ok ? i2d_CMS_ContentInfo(cms, &der) : -1;
    if (n > 0)
        sod = tlv(0x77, Bytes(der, der + n));
    else
        err = "the security object could not be signed";
    OPENSSL_free(der);
    CMS_ContentInfo_free(cms);
    ASN1_OBJECT_free(type);
    BIO_free(in);
    EVP_PKEY_free(key);
    X509_free(cert);
    BIO_free(key_bio);
    BIO_free(cert_bio);
    return n > 0;
}

// Replaces the one run of old in bytes by new of the same length; false when old is not there.
bool replace_run(Bytes &bytes, const Bytes &old, const Bytes &now)
{
    if (old.empty() || old.size() != now.size())
        return false;
    const auto at = std::search(bytes.begin(), bytes.end(), old.begin(), old.end());
    if (at == bytes.end())
        return false;
    std::copy(now.begin(), now.end(), at);
    return true;
}

// The file of a data group named "DGn", or null.
Bytes *named_group(std::map<uint16_t, Bytes> &files, const std::string &name)
{
    if (name.size() < 3 || name.compare(0, 2, "DG") != 0)
        return nullptr;
    const int n = std::atoi(name.c_str() + 2);
    if (n < 1 || n > 16 || !files.count(uint16_t(0x0100 | n)))
        return nullptr;
    return &files[uint16_t(0x0100 | n)];
}

bool mrz_ok(const std::string &mrz)
{
    if (mrz.size() != 88 && mrz.size() != 90)
        return false;
    for (char c : mrz)
        if (!((c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '<'))
            return false;
    return true;
}

} // namespace

const char *passport_csca_pem()
{
    return passport_assets::kCscaPem;
}

const Bytes &passport_face_jpeg()
{
    static const Bytes face(passport_assets::kFaceJpeg, passport_assets::kFaceJpeg + sizeof passport_assets::kFaceJpeg);
    return face;
}

bool passport_build(const PassportSetup &setup, PassportDocument &doc, std::string &err)
{
    doc = PassportDocument{};
    doc.mrz = setup.mrz.empty() ? kDefaultTd3 : setup.mrz;
    if (!mrz_ok(doc.mrz)) {
        err = "a passport's MRZ has 88 (TD3) or 90 (TD1) characters of A-Z, 0-9 and <";
        return false;
    }
    if (setup.signer != "ec" && setup.signer != "rsa") {
        err = "a passport's signer is \"ec\" or \"rsa\"";
        return false;
    }
    const bool td1 = doc.mrz.size() == 90;
    const std::string name = td1 ? doc.mrz.substr(60, 30) : doc.mrz.substr(5, 39);
    auto &f = doc.files;
    f[0x0101] = tlv(0x61, tlv(0x5F1F, text(doc.mrz)));
    f[0x0102] = dg2(setup.face_size);
    f[0x0103] = dg3();
    f[0x0107] = dg7();
    f[0x010B] = dg11(name.substr(0, name.find_last_not_of('<') + 1));
    f[0x010C] = dg12();
    Bytes tags = {0x61, 0x75, 0x63, 0x67, 0x6B, 0x6C};
    if (setup.with_dg14) {
        f[0x010E] = dg14();
        tags.push_back(0x6E);
    }
    doc.eac_protected.insert(0x0103);
    f[0x011E] = tlv(0x60, cat({tlv(0x5F01, text("0107")), tlv(0x5F36, text("040000")), tlv(0x5C, tags)}));
    static const char *const kFaults[] = {"", "auth_mac", "mac", "cipher", "no_do99", "sw_mismatch"};
    if (std::find(std::begin(kFaults), std::end(kFaults), setup.fault) == std::end(kFaults)) {
        err = "fault is \"auth_mac\", \"mac\", \"cipher\", \"no_do99\" or \"sw_mismatch\"";
        return false;
    }
    doc.fault = setup.fault;
    Bytes sod;
    const Bytes lds = lds_security_object(f);
    if (!sign_sod(lds, setup.signer == "rsa", setup.foreign_ds, sod, err))
        return false;
    f[0x011D] = sod;
    for (const std::string *name : {&setup.tamper, &setup.forge}) {
        Bytes *dg = name->empty() ? nullptr : named_group(f, *name);
        if (!name->empty() && dg == nullptr) {
            err = (name == &setup.tamper ? "tamper" : "forge") + std::string(" names a data group (\"DG1\")");
            return false;
        }
        if (dg != nullptr)
            dg->back() ^= 0x01;
    }
    if (!setup.forge.empty()) {
        // The group, its hash in the security object, the object's digest in the signed attributes: all
        // of the same size, so each takes the place of the one before.
        const Bytes forged = lds_security_object(f);
        if (!replace_run(f[0x011D], lds, forged) || !replace_run(f[0x011D], sha256(lds), sha256(forged))) {
            err = "the security object could not be forged";
            return false;
        }
    }
    return true;
}

} // namespace zs
