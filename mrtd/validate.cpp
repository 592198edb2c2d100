// Passive authentication of the document on the reader: the stored hashes of the data groups, the digest and
// signature of the signed attributes, the search for the CSCA of the document signer in a folder of
// certificates and master lists, and the verification of both certificates. Also the document signer's
// certificate alone.
#include <dirent.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "mrtd/mrtd_internal.h"
#include "tandro.h"
#include "zel_mrtd_doc.h"

extern "C" {
uint8_t zel_mrtd_validation_flags[2];
}

namespace zel::mrtd {

namespace {

// The text of the validation: each line is a first text, a second text and the line ending, written only
// when the verbosity reaches the line's level.
struct Report {
    char **text;
    const char *eol;
    uint32_t verbosity;
    uint32_t len = 0;

    void line(uint32_t level, const char *a, const char *b = "")
    {
        if (verbosity != 0 && verbosity >= level)
            Orbsprintf(text, &len, a, b, eol);
    }
    void blank(uint32_t level) { line(level, "", ""); }
    void status(uint32_t level, const char *a, ZEL_STATUS st) { line(level, a, ZEL_Status2String(st)); }
    void hex(uint32_t level, const char *a, const uint8_t *bytes, uint32_t n)
    {
        if (verbosity == 0 || verbosity < level)
            return;
        char buf[256];
        hexsprintf(buf, sizeof buf, bytes, n);
        line(level, a, buf);
    }
    void number(uint32_t level, const char *a, uint32_t n) { line(level, a, std::to_string(n).c_str()); }
};

bool same(const uint8_t *a, uint32_t a_len, const uint8_t *b, uint32_t b_len)
{
    return a_len == b_len && (a_len == 0 || std::memcmp(a, b, a_len) == 0);
}

ZEL_STATUS read_global(uint16_t file_id, uint8_t **out, uint32_t *out_len, const uint8_t *ks_enc, const uint8_t *ks_mac,
                       uint64_t *ssc)
{
    const Link link = card_link(&zel_global);
    return bac_read_file(link.transceive, link.context, file_id, out, out_len, ks_enc, ks_mac, ssc);
}

// What the CSCA search needs of the document signer's certificate.
struct DsIds {
    const uint8_t *issuer = nullptr;
    uint32_t issuer_len = 0;
    const uint8_t *aki = nullptr;
    uint32_t aki_len = 0;
};

// A candidate passes when its subject is the document signer's issuer, it is self-issued (when it carries
// both key identifiers) and its subject key identifier is the document signer's authority key identifier.
bool candidate_fits(const uint8_t *der, uint32_t len, const DsIds &ds, Report &r)
{
    const uint8_t *subject = nullptr;
    uint32_t subject_len = 0;
    const ZEL_STATUS st = X509GetSubjectSeq(der, len, &subject, &subject_len);
    if (st != ZEL_OK) {
        r.status(3, "Error while parsing SOD, status is: ", st);
        return false;
    }
    if (!same(subject, subject_len, ds.issuer, ds.issuer_len))
        return false;
    const uint8_t *ski = nullptr, *aki = nullptr;
    uint32_t ski_len = 0, aki_len = 0;
    const bool has_ski = X509GetSKIFromCert(der, len, &ski, &ski_len) == ZEL_OK;
    const bool has_aki = X509GetAKIFromCert(der, len, &aki, &aki_len) == ZEL_OK;
    if (has_ski && has_aki && !same(ski, ski_len, aki, aki_len))
        return false;
    return same(ski, has_ski ? ski_len : 0, ds.aki, ds.aki_len);
}

bool is_candidate_name(const char *name)
{
    return std::strlen(name) > 3 && std::strchr(name, '.') != nullptr;
}

bool is_master_list_name(const char *name)
{
    const char *dot = std::strrchr(name, '.');
    return dot != nullptr && std::strcmp(dot, ".ml") == 0;
}

// Searches the folder: single certificates first, then master lists. The CSCA found is allocated.
bool find_csca(DIR *dir, const std::string &folder, const DsIds &ds, Report &r, uint8_t **csca, uint32_t *csca_len)
{
    const bool slash = !folder.empty() && (folder.back() == '/' || folder.back() == '\\');
    for (int pass = 1; pass <= 2; ++pass) {
        if (pass == 2)
            rewinddir(dir);
        while (const dirent *e = readdir(dir)) {
            const char *name = e->d_name;
            if (!is_candidate_name(name) || is_master_list_name(name) != (pass == 2))
                continue;
            const std::string path = folder + (slash ? "" : "/") + name;
            uint8_t *der = nullptr;
            uint32_t der_len = 0;
            if (pass == 1) {
                const ZEL_STATUS st = X509GetCertFromFile(path.c_str(), &der, &der_len);
                if (st != ZEL_OK) {
                    r.line(3, "Error while processing certificate file ", name);
                    r.status(3, " processing, status is: ", st);
                    OrbFree(der);
                    continue;
                }
            } else {
                FILE *ml = nullptr;
                ZEL_STATUS st = icaoMlOpen(path.c_str(), &ml);
                if (st == ZEL_OK) {
                    icao_ml_search_criteria c;
                    icaoMlClearSearchCriteria(&c);
                    c.subject = ds.issuer;
                    c.subject_len = ds.issuer_len;
                    c.ski = ds.aki;
                    c.ski_len = ds.aki_len;
                    st = icaoMlFindCert(ml, &c, &der, &der_len);
                    icaoMlClose(ml);
                }
                if (st == ICAO_ML_CERTIFICATE_NOT_FOUND)
                    continue;
                if (st != ZEL_OK) {
                    r.line(3, "Error during Master List file '", name);
                    r.status(3, "' processing, status is: ", st);
                    continue;
                }
            }
            if (candidate_fits(der, der_len, ds, r)) {
                *csca = der;
                *csca_len = der_len;
                return true;
            }
            OrbFree(der);
        }
    }
    return false;
}

struct Buffers {
    uint8_t *com = nullptr;
    uint8_t *sod = nullptr;
    uint8_t *digest = nullptr;
    uint8_t *csca = nullptr;
    DIR *dir = nullptr;
    ~Buffers()
    {
        OrbFree(com);
        OrbFree(sod);
        std::free(digest);
        OrbFree(csca);
        if (dir)
            closedir(dir);
    }
};

// One validation on its way through the stages: what it was given, what the stages found, and the status
// it ends with. A stage returns false when the validation ends there, with result set.
struct Validation {
    Report &r;
    const char *cert_folder;
    const uint8_t *ks_enc, *ks_mac;
    uint64_t *ssc;
    uint8_t *integrity, *csca_validity;
    ZEL_STATUS result = ZEL_OK;
    Buffers b;
    uint32_t com_len = 0, sod_len = 0, csca_len = 0;
    // The data groups' hash, and the digest of the LDS security object and signed attributes.
    uint32_t hash_id = 0, hash_len = 0, sa_hash = 0, sa_len = 0;
    uint8_t *tags = nullptr, count = 0;
    bool matched[3] = {false, false, false}; // DG1, DG2 and DG14 whose hashes matched
    bool mismatch = false;                   // a computed hash of any data group that differed
    bool lds_matched = false;                // the LDS security object's digest matched
    ZEL_STATUS signature = ZEL_OK;           // the verification of the signed attributes' signature
    ZEL_STATUS last_read = ZEL_OK;
    // The document signer's certificate, and the status of reading its AKI.
    const uint8_t *ds = nullptr;
    uint32_t ds_len = 0;
    DsIds ids;
    ZEL_STATUS current = ZEL_OK;

    bool stop(ZEL_STATUS st)
    {
        result = st;
        return false;
    }
};

// EF.COM and the SOD from the chip, the data groups' hash algorithm and the list of data groups.
bool read_and_parse_sod(Validation &v)
{
    Report &r = v.r;
    ZEL_STATUS st = read_global(MRTD_FILE_COM, &v.b.com, &v.com_len, v.ks_enc, v.ks_mac, v.ssc);
    if (st != ZEL_OK) {
        r.status(3, "Error while reading file from tag, Zel status is: ", st);
        return v.stop(st);
    }
    st = read_global(MRTD_FILE_SOD, &v.b.sod, &v.sod_len, v.ks_enc, v.ks_mac, v.ssc);
    if (st != ZEL_OK) {
        r.status(3, " Error while reading file from tag, Zel status is: ", st);
        return v.stop(st);
    }
    st = pkcs7GetDataGroupsHashAlgorithm(v.b.sod, v.sod_len, &v.hash_id);
    if (st == ZEL_OK)
        st = OrbGetHashOutputByteLength(v.hash_id, &v.hash_len);
    if (st != ZEL_OK) {
        r.status(3, "Error while parsing SOD, status is: ", st);
        return v.stop(st);
    }
    v.b.digest = static_cast<uint8_t *>(std::malloc(v.hash_len ? v.hash_len : 1));
    if (v.b.digest == nullptr) {
        r.status(3, "Error while checking data groups hash values, status is: ", ZEL_NO_MEMORY_ERROR);
        return v.stop(ZEL_NO_MEMORY_ERROR);
    }
    r.line(1, "Hash algorithm for data groups used: ", OrbGetHashName(v.hash_id));
    st = MRTDGetDGTagListFromCOM(v.b.com, v.com_len, &v.tags, &v.count);
    if (st != ZEL_OK) {
        r.status(3, "Error while parsing EF.COM file, status is: ", st);
        return v.stop(MRTD_EF_COM_WRONG_DATA);
    }
    return true;
}

// What became of a data group's digest.
enum class GroupHash { Computed, Unreadable, Failed };

// The digest of data group index in v.b.digest: the one kept from reading DG1 or DG2 when it is the stored
// one, else the group read again and hashed, hash_st the status of the hashing. A group the chip keeps
// behind EAC is told in the report; a failed read ends the validation.
GroupHash hash_data_group(Validation &v, uint8_t index, const std::string &number, const uint8_t *stored,
                          uint32_t stored_len, ZEL_STATUS &hash_st)
{
    Report &r = v.r;
    hash_st = ZEL_OK;
    const uint8_t *kept = (index == 1 || index == 2) ? last_dg_digest(index) : nullptr;
    if (kept != nullptr && stored_len == 32 && std::memcmp(kept, stored, 32) == 0) {
        std::memcpy(v.b.digest, kept, 32);
        return GroupHash::Computed;
    }
    uint8_t *file = nullptr;
    uint32_t file_len = 0;
    const uint8_t id[2] = {0x01, index};
    const ZEL_STATUS st = read_global(uint16_t((id[0] << 8) | id[1]), &file, &file_len, v.ks_enc, v.ks_mac, v.ssc);
    v.last_read = st;
    if (st == 0xA6982u) {
        OrbFree(file);
        r.line(2, "Data group ", (number + ": NOT CALCULATED").c_str());
        r.line(2, "(Unreadable data without using EAC - state issued certificate needed)");
        r.hex(2, "Stored    : ", stored, stored_len);
        r.blank(1);
        return GroupHash::Unreadable;
    }
    if (st != ZEL_OK) {
        OrbFree(file);
        r.status(3, " Error while reading file from tag, Zel status is: ", st);
        v.result = st;
        return GroupHash::Failed;
    }
    hash_st = OrbGetHash(v.hash_id, file, file_len, v.b.digest, v.hash_len);
    OrbFree(file);
    return GroupHash::Computed;
}

// The digest against the stored hash, in the report; a match of DG1, DG2 or DG14 counts toward the
// document's integrity.
void compare_data_group(Validation &v, uint8_t index, const std::string &number, const uint8_t *stored,
                        uint32_t stored_len, ZEL_STATUS hash_st)
{
    Report &r = v.r;
    if (r.verbosity == 0)
        return;
    r.line(1, "Data group ", (number + ": ").c_str());
    r.hex(2, "Stored    : ", stored, stored_len);
    if (hash_st != ZEL_OK) {
        r.status(3, "Error while calculating hash value, status is: ", hash_st);
        r.blank(2);
        return;
    }
    r.hex(2, "Calculated: ", v.b.digest, v.hash_len);
    if (std::memcmp(v.b.digest, stored, v.hash_len) == 0) {
        r.line(1, "HASH IS MATCHED");
        if (index == 1)
            v.matched[0] = true;
        else if (index == 2)
            v.matched[1] = true;
        else if (index == 14)
            v.matched[2] = true;
    } else {
        v.mismatch = true;
        r.line(1, "ERROR, HASH IS NOT MATCHING! DATA IS TAMPERED!");
    }
    r.blank(2);
}

// One data group of EF.COM: its stored hash in the SOD, and its digest against it.
bool check_data_group(Validation &v, uint8_t tag)
{
    Report &r = v.r;
    const uint8_t index = MRTDGetDgIndex(tag);
    if (index == 0) {
        r.line(1, "Error while parsing EF.COM file, unknown DG tag");
        return v.stop(v.last_read);
    }
    const std::string number = std::to_string(index);
    const uint8_t *stored = nullptr;
    uint32_t stored_len = 0;
    const ZEL_STATUS st = pkcs7GetDataGroupHash(v.b.sod, v.sod_len, index, &stored, &stored_len);
    if (st != ZEL_OK) {
        r.line(3, "Error while parsing EF.COM file, can't found stored hash for EF.DG", number.c_str());
        return v.stop(st);
    }
    if (stored_len != v.hash_len) {
        r.line(3, "Error while parsing EF.COM file, wrong hash length for EF.DG", number.c_str());
        return v.stop(ZEL_OK);
    }
    ZEL_STATUS hash_st = ZEL_OK;
    switch (hash_data_group(v, index, number, stored, stored_len, hash_st)) {
    case GroupHash::Failed: return false;
    case GroupHash::Unreadable: return true;
    case GroupHash::Computed: break;
    }
    compare_data_group(v, index, number, stored, stored_len, hash_st);
    return true;
}

bool check_data_group_hashes(Validation &v)
{
    for (uint8_t t = 0; t < v.count; ++t)
        if (!check_data_group(v, v.tags[t]))
            return false;
    return true;
}

// The digest of the LDS security object against the one in the signed attributes.
bool check_lds_digest(Validation &v)
{
    Report &r = v.r;
    ZEL_STATUS st = pkcs7GetSignedAttrsDigestAlgorithm(v.b.sod, v.sod_len, &v.sa_hash);
    if (st == ZEL_OK)
        st = OrbGetHashOutputByteLength(v.sa_hash, &v.sa_len);
    if (st != ZEL_OK) {
        r.status(3, "Error while parsing SOD, status is:", st);
        return v.stop(st);
    }
    if (v.sa_hash != v.hash_id) {
        void *p = v.b.digest;
        if (Orbrealloc(&p, 0, v.sa_len ? v.sa_len : 1) != ZEL_OK) {
            v.b.digest = nullptr;
            r.status(3, "Error while parsing SOD, status is: ", ZEL_NO_MEMORY_ERROR);
            return v.stop(ZEL_NO_MEMORY_ERROR);
        }
        v.b.digest = static_cast<uint8_t *>(p);
    }
    r.blank(1);
    r.line(1, "Digest algorithm for LDS Security Object and Signed Attributes used: ", OrbGetHashName(v.sa_hash));
    r.blank(1);

    const uint8_t *md = nullptr, *lso = nullptr;
    uint32_t md_len = 0, lso_len = 0;
    st = pkcs7GetLDSSecurityObjectDigest(v.b.sod, v.sod_len, &md, &md_len);
    if (st == ZEL_OK)
        st = pkcs7GetLDSSecurityObject(v.b.sod, v.sod_len, &lso, &lso_len);
    if (st != ZEL_OK) {
        r.status(3, "Error while parsing SOD, status is: ", st);
        return v.stop(st);
    }
    const ZEL_STATUS lso_hash = OrbGetHash(v.sa_hash, lso, lso_len, v.b.digest, v.sa_len);
    r.line(1, " LDS Security Object digest: ");
    r.hex(2, "Stored    : ", md, md_len);
    if (lso_hash == ZEL_OK)
        r.hex(2, "Calculated: ", v.b.digest, v.sa_len);
    else
        r.status(3, "Error while calculating hash value, status is: ", lso_hash);
    if (lso_hash == ZEL_OK && r.verbosity != 0) {
        if (same(md, md_len, v.b.digest, v.sa_len)) {
            r.line(1, "DIGEST IS MATCHED");
            r.blank(1);
            v.lds_matched = true;
        } else {
            r.line(1, "ERROR, DIGEST IS NOT MATCHING! DATA IS TAMPERED!");
        }
    }
    return true;
}

// The document signer's certificate from the SOD and the kind of its public key.
bool read_ds_certificate(Validation &v)
{
    Report &r = v.r;
    const uint8_t *key = nullptr, *params = nullptr;
    uint32_t key_len = 0, key_bits = 0, key_type = 0, curve = 0;
    ZEL_STATUS st = pkcs7GetCert(v.b.sod, v.sod_len, &v.ds, &v.ds_len);
    if (st == ZEL_OK)
        st = X509ParsePubKey(v.ds, v.ds_len, &key, &key_len, &key_bits, &key_type, &curve, &params);
    if (st != ZEL_OK) {
        r.status(3, "Error while parsing SOD, status is: ", st);
        return v.stop(st);
    }
    switch (key_type) {
    case ZEL_KEY_RSA:
        r.line(1, "Document Signing (DS) certificate contains RSA public key");
        r.number(1, "RSA public key size in bits is ", key_bits);
        break;
    case ZEL_KEY_ECC_NAMED:
        r.line(1, "Document Signing (DS) certificate contains ECC public key");
        r.line(1, "Elliptic curve name: ", OrbGetEccCurveName(curve));
        break;
    case ZEL_KEY_ECC_EXPLICIT:
        r.line(1, "Document Signing (DS) certificate contains ECC public key with domain parameters");
        r.number(1, "ECC public key (field) bit-size is ", key_bits);
        break;
    default:
        r.status(
            3, "Error while parsing Document Signing (DS) certificate, status is: ", X509_UNSUPPORTED_PUBLIC_KEY_TYPE);
        return v.stop(X509_UNSUPPORTED_PUBLIC_KEY_TYPE);
    }
    r.blank(1);
    return true;
}

// The signature over the signed attributes: its scheme, and the verification told in the report. A
// signature that does not verify ends as the validation's status (once the report is complete), and the
// document's integrity holds only over a verified signature: the LDS digest matched, so did DG1, DG2 and
// DG14, and no computed hash differed.
bool check_signed_attributes(Validation &v)
{
    Report &r = v.r;
    const uint8_t *sig = nullptr, *alg = nullptr, *pss = nullptr;
    uint32_t sig_len = 0, alg_len = 0, scheme = 0, scheme_type = 0, pss_len = 0;
    ZEL_STATUS st = pkcs7GetSignature(v.b.sod, v.sod_len, &sig, &sig_len);
    if (st == ZEL_OK)
        st = pkcs7GetSignatureAlgorithm(v.b.sod, v.sod_len, &alg, &alg_len);
    if (st == ZEL_OK)
        st = pkcs7ParseDERSignatureScheme(alg, alg_len, &scheme, &scheme_type, &pss, &pss_len);
    if (st != ZEL_OK) {
        r.status(3, "Error while parsing SOD, status is: ", st);
        return v.stop(st);
    }
    r.line(1,
           "Signature scheme used for Signed Attributes signature verification: ", OrbGetSignatureSchemeName(scheme));
    const ZEL_STATUS sig_st = pkcs7VerifySignature(v.b.sod, v.sod_len);
    v.signature = sig_st;
    if (sig_st == ZEL_OK && v.lds_matched && !v.mismatch && v.matched[0] && v.matched[1] && v.matched[2])
        *v.integrity = 1;
    switch (sig_st) {
    case ZEL_OK: r.line(1, "Signed Attributes signature is OK."); break;
    case PKCS7_UNSUPPORTED_SIGNATURE_SCHEME: r.line(1, "Error while parsing SOD, unknown signature scheme"); break;
    case PKCS7_SIG_SCH_NOT_MATCH_CERT_KEY_TYPE:
        r.line(1, "Error, signature scheme doesn't match with an Document Signing (DS) certificate key type");
        break;
    case PKCS7_WRONG_SIGNATURE: r.line(1, "WRONG Signed Attributes signature. DATA IS TAMPERED!"); break;
    case ZEL_NO_MEMORY_ERROR: r.line(1, "Memory allocation error during signature verification"); break;
    default: r.status(1, "Error while parsing SOD, status is: ", sig_st); break;
    }
    r.blank(1);
    return true;
}

// The document signer's issuer, SKI and AKI, by which its CSCA is looked for.
bool read_ds_identifiers(Validation &v)
{
    Report &r = v.r;
    ZEL_STATUS st = X509GetIssuerSeq(v.ds, v.ds_len, &v.ids.issuer, &v.ids.issuer_len);
    if (st != ZEL_OK)
        return v.stop(st);
    const uint8_t *ds_ski = nullptr;
    uint32_t ds_ski_len = 0;
    st = X509GetSKIFromCert(v.ds, v.ds_len, &ds_ski, &ds_ski_len);
    if (st != ZEL_OK && st != X509_EXTENSION_NOT_FOUND)
        return v.stop(st);
    if (st == ZEL_OK)
        r.hex(2, "Document Signing (DS) certificate SKI: ", ds_ski, ds_ski_len);
    v.current = X509GetAKIFromCert(v.ds, v.ds_len, &v.ids.aki, &v.ids.aki_len);
    if (v.current == ZEL_OK)
        r.hex(2, "Document Signing (DS) certificate AKI: ", v.ids.aki, v.ids.aki_len);
    return true;
}

// The CSCA of the document signer in the certificate folder.
bool find_csca_certificate(Validation &v)
{
    Report &r = v.r;
    const std::string folder = v.cert_folder ? v.cert_folder : "";
    v.b.dir = v.cert_folder ? opendir(v.cert_folder) : nullptr;
    if (v.b.dir == nullptr) {
        r.blank(3);
        r.line(3, "Error, can not find and/or open csca directory");
        r.line(3, "Can not find CSCA (i.e. trust anchor) certificate");
        return v.stop(v.current);
    }
    if (!find_csca(v.b.dir, folder, v.ids, r, &v.b.csca, &v.csca_len)) {
        r.blank(1);
        r.line(1, "Can not find CSCA (i.e. trust anchor) certificate");
        return v.stop(MRTD_VERIFY_CSCA_NOT_EXIST);
    }
    r.blank(2);
    r.line(2, "Root CSCA certificate has been found");
    const uint8_t *id = nullptr;
    uint32_t id_len = 0;
    if (X509GetSKIFromCert(v.b.csca, v.csca_len, &id, &id_len) == ZEL_OK)
        r.hex(2, "CSCA certificate SKI: ", id, id_len);
    if (X509GetAKIFromCert(v.b.csca, v.csca_len, &id, &id_len) == ZEL_OK)
        r.hex(2, "CSCA certificate AKI: ", id, id_len);
    return true;
}

// The chain: the document signer's certificate signed by the CSCA, the CSCA by itself; the verdict. The
// CSCA is valid for this document when both verify; the document is confirmed when, besides, its
// signature verified and every digest compared matched.
ZEL_STATUS check_chain(Validation &v)
{
    Report &r = v.r;
    const bool ds_ok = X509VerifyDerCertSignature(v.ds, v.ds_len, v.b.csca, v.csca_len) == ZEL_OK;
    const bool csca_ok = X509VerifyDerCertSignature(v.b.csca, v.csca_len, v.b.csca, v.csca_len) == ZEL_OK;
    *v.csca_validity = ds_ok && csca_ok ? 1 : 0;
    if (ds_ok && csca_ok) {
        if (v.signature == ZEL_OK && v.lds_matched && !v.mismatch) {
            r.blank(1);
            r.line(1, "Document validity CONFIRMED");
        }
        return v.current;
    }
    if (!ds_ok) {
        r.blank(1);
        r.line(1, "Document Signing (DS) certificate signature verification failed. Wrong signature!");
    }
    if (csca_ok)
        return MRTD_VERIFY_WRONG_DS_SIGNATURE;
    r.blank(1);
    r.line(1, "Root CSCA self signed certificate signature verification failed!");
    r.line(1, "Root CSCA have wrong signature! Compromised trust anchor!");
    return MRTD_VERIFY_WRONG_CSCA_SIGNATURE;
}

ZEL_STATUS validate(const char *cert_folder, Report &r, const uint8_t *ks_enc, const uint8_t *ks_mac, uint64_t *ssc,
                    uint8_t *integrity, uint8_t *csca_validity)
{
    Validation v{r, cert_folder, ks_enc, ks_mac, ssc, integrity, csca_validity};
    if (!read_and_parse_sod(v) || !check_data_group_hashes(v) || !check_lds_digest(v) || !read_ds_certificate(v) ||
        !check_signed_attributes(v))
        return v.result;
    // A signature that failed is found before anything of the certificates: it is the status.
    const ZEL_STATUS chain = read_ds_identifiers(v) && find_csca_certificate(v) ? check_chain(v) : v.result;
    return v.signature != ZEL_OK ? v.signature : chain;
}

} // namespace

} // namespace zel::mrtd

extern "C" {

ZEL_API ZEL_STATUS MRTDValidateHnd(ZEL_HANDLE, const char *cert_folder, char **text, const char *eol,
                                   uint32_t verbosity, const uint8_t *ks_enc, const uint8_t *ks_mac, uint64_t *ssc,
                                   uint8_t *document_integrity, uint8_t *csca_root_validity)
{
    uint8_t integrity = 0, validity = 0;
    if (document_integrity)
        *document_integrity = 0;
    if (csca_root_validity)
        *csca_root_validity = 0;
    if (text)
        *text = nullptr;
    if (ks_enc == nullptr || ks_mac == nullptr || ssc == nullptr || (verbosity != 0 && text == nullptr))
        return ZEL_PARAMETERS_ERROR;
    char *t = nullptr;
    if (verbosity != 0) {
        t = static_cast<char *>(std::calloc(1, 1));
        if (t == nullptr)
            return ZEL_NO_MEMORY_ERROR;
    }
    zel::mrtd::Report r{&t, eol ? eol : "\n", verbosity};
    const ZEL_STATUS st = zel::mrtd::validate(cert_folder, r, ks_enc, ks_mac, ssc, &integrity, &validity);
    if (document_integrity)
        *document_integrity = integrity;
    if (csca_root_validity)
        *csca_root_validity = validity;
    if (verbosity != 0)
        *text = t;
    return st;
}

ZEL_API ZEL_STATUS MRTD_SOD_CertToHeapHnd(ZEL_HANDLE, uint8_t **cert, uint32_t *cert_len, const uint8_t *ks_enc,
                                          const uint8_t *ks_mac, uint64_t *ssc)
{
    if (cert)
        *cert = nullptr;
    if (cert_len)
        *cert_len = 0;
    if (cert == nullptr || cert_len == nullptr)
        return ZEL_PARAMETERS_ERROR;
    uint8_t *sod = nullptr;
    uint32_t sod_len = 0;
    ZEL_STATUS st = zel::mrtd::read_global(MRTD_FILE_SOD, &sod, &sod_len, ks_enc, ks_mac, ssc);
    const uint8_t *ds = nullptr;
    uint32_t ds_len = 0;
    if (st == ZEL_OK)
        st = pkcs7GetCert(sod, sod_len, &ds, &ds_len);
    if (st == ZEL_OK) {
        auto *copy = static_cast<uint8_t *>(std::malloc(ds_len ? ds_len : 1));
        if (copy == nullptr) {
            st = ZEL_NO_MEMORY_ERROR;
        } else {
            std::memcpy(copy, ds, ds_len);
            *cert = copy;
            *cert_len = ds_len;
        }
    }
    OrbFree(sod);
    return st;
}

} // extern "C"
