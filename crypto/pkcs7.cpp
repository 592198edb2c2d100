// The SignedData walker of a travel document's security object (EF.SOD: tag 0x77 around a CMS SignedData
// whose content is the LDS Security Object), the signature scheme readers, and the two signature checks:
// certificate by certificate and SignedData by its signer's certificate.
#include <cstdlib>
#include <vector>

#include "crypto/crypto_internal.h"
#include "zel_crypto.h"
#include "zel_status.h"
#include "zel_x509.h"

using namespace zel::crypto;

namespace {

// The nodes from the file tag to the signer's signature, as far as a walk went.
struct Sod {
    Node file, info, signed_data, digest_algs, encap, certs, signer_infos, signer, version, sid, digest_alg, attrs,
        sig_alg, sig;
};

enum class Stop { kEncap, kCerts, kSignerInfos, kSignature };

ZEL_STATUS walk(const uint8_t *d, uint32_t len, Stop stop, Sod *s)
{
    if (d == nullptr || len < 2 || d[0] != 0x77 || !read_header(d, len, 0, &s->file))
        return MRTD_WRONG_SOD_DATA;
    if (s->file.end() != len)
        return MRTD_WRONG_SOD_LENGTH;
    Node oid, a0, version;
    if (!expect(d, len, s->file.value(), 0x30, &s->info, s->file.end()) ||
        !expect(d, len, s->info.value(), 0x06, &oid, s->info.end()) || oid.hdr != 2 ||
        oid.whole() != kOidSignedData.size() || !oid_equal(kOidSignedData, d + oid.pos, oid.whole()) ||
        !expect(d, len, static_cast<uint32_t>(oid.end()), 0xA0, &a0, s->info.end()) ||
        !expect(d, len, a0.value(), 0x30, &s->signed_data, a0.end()) ||
        !expect(d, len, s->signed_data.value(), 0x02, &version, s->signed_data.end()) || version.vlen != 1 ||
        d[version.value()] != 3 ||
        !expect(d, len, static_cast<uint32_t>(version.end()), 0x31, &s->digest_algs, s->signed_data.end()) ||
        !expect(d, len, static_cast<uint32_t>(s->digest_algs.end()), 0x30, &s->encap, s->signed_data.end()))
        return MRTD_WRONG_SOD_DATA;
    if (stop == Stop::kEncap)
        return ZEL_OK;

    const uint64_t end = s->signed_data.end();
    Node n;
    uint32_t pos = static_cast<uint32_t>(s->encap.end());
    if (!read_node(d, len, pos, &n, end))
        return MRTD_WRONG_SOD_DATA;
    if (n.tag != 0xA0 && n.tag != 0x31) { // one other node may stand in front of the certificates
        pos = static_cast<uint32_t>(n.end());
        if (!read_node(d, len, pos, &n, end))
            return MRTD_WRONG_SOD_DATA;
    }
    if (stop == Stop::kCerts) {
        if (n.tag != 0xA0)
            return MRTD_WARNING_DOES_NOT_CONTAINS_DS_CERT;
        s->certs = n;
        return ZEL_OK;
    }
    // The certificates are skipped whatever their tag.
    if (!expect(d, len, static_cast<uint32_t>(n.end()), 0x31, &s->signer_infos, end))
        return MRTD_WRONG_SOD_DATA;
    if (stop == Stop::kSignerInfos)
        return ZEL_OK;

    const uint64_t si_end = s->signer_infos.end();
    if (!expect(d, len, s->signer_infos.value(), 0x30, &s->signer, si_end))
        return MRTD_WRONG_SOD_DATA;
    const uint64_t e = s->signer.end();
    if (!expect(d, len, s->signer.value(), 0x02, &s->version, e) ||
        !expect(d, len, static_cast<uint32_t>(s->version.end()), 0x30, &s->sid, e) ||
        !expect(d, len, static_cast<uint32_t>(s->sid.end()), 0x30, &s->digest_alg, e) ||
        !expect(d, len, static_cast<uint32_t>(s->digest_alg.end()), 0xA0, &s->attrs, e) ||
        !expect(d, len, static_cast<uint32_t>(s->attrs.end()), 0x30, &s->sig_alg, e) ||
        !expect(d, len, static_cast<uint32_t>(s->sig_alg.end()), 0x04, &s->sig, e))
        return MRTD_WRONG_SOD_DATA;
    return ZEL_OK;
}

// The LDS Security Object: encapContentInfo 30, its OID, A0, 04, and the SEQUENCE inside.
ZEL_STATUS lds_object(const uint8_t *d, uint32_t len, Node *lds)
{
    Sod s;
    ZEL_STATUS st = walk(d, len, Stop::kEncap, &s);
    if (st != ZEL_OK)
        return st;
    Node oid, a0, octets;
    if (!expect(d, len, s.encap.value(), 0x06, &oid, s.encap.end()) || oid.whole() != kOidLdsSecurityObject.size() ||
        !oid_equal(kOidLdsSecurityObject, d + oid.pos, oid.whole()) ||
        !expect(d, len, static_cast<uint32_t>(oid.end()), 0xA0, &a0, s.encap.end()) ||
        !expect(d, len, a0.value(), 0x04, &octets, a0.end()) ||
        !expect(d, len, octets.value(), 0x30, lds, octets.end()))
        return MRTD_WRONG_SOD_DATA;
    return ZEL_OK;
}

// The hash id of the AlgorithmIdentifier at alg (its first element, an OID).
ZEL_STATUS digest_of_alg(const uint8_t *d, uint32_t len, const Node &alg, uint32_t *hash_id)
{
    Node oid;
    if (!expect(d, len, alg.value(), 0x06, &oid, alg.end()))
        return MRTD_WRONG_SOD_DATA;
    const uint32_t id = oid.whole() <= 11 ? hash_id_of_oid(d + oid.pos, oid.whole()) : 7;
    if (id == 7 || kHashes[id].oid.size() != oid.whole())
        return MRTD_UNKNOWN_DIGEST_ALGORITHM;
    *hash_id = id;
    return ZEL_OK;
}

ZEL_STATUS node_pos(const uint8_t *d, uint32_t len, Stop stop, Node Sod::*field, uint32_t *pos)
{
    if (pos)
        *pos = 0;
    Sod s;
    const ZEL_STATUS st = walk(d, len, stop, &s);
    if (st == ZEL_OK && pos)
        *pos = (s.*field).pos;
    return st;
}

ZEL_STATUS node_seq(const uint8_t *d, uint32_t len, Node Sod::*field, const uint8_t **out, uint32_t *out_len)
{
    clear_out(out, out_len);
    Sod s;
    const ZEL_STATUS st = walk(d, len, Stop::kSignature, &s);
    if (st != ZEL_OK)
        return st;
    if (out)
        *out = d + (s.*field).pos;
    if (out_len)
        *out_len = (s.*field).whole();
    return ZEL_OK;
}

// What the two verifiers share once the key and the scheme are known.
struct Check {
    uint32_t key_type;
    uint32_t scheme;
    uint32_t scheme_type;
    const uint8_t *params;
    uint32_t params_len;
};

// Picks the hash and the PSS parameters of a scheme for a key; the status on failure uses the caller's codes.
ZEL_STATUS plan(const Check &c, ZEL_STATUS wrong_key, ZEL_STATUS unsupported, uint32_t *hash_id, uint32_t *mgf_id,
                uint32_t *salt_len)
{
    const bool rsa = c.key_type == ZEL_KEY_RSA;
    const bool ecc = c.key_type == ZEL_KEY_ECC_NAMED || c.key_type == ZEL_KEY_ECC_EXPLICIT;
    switch (c.scheme_type) {
    case ZEL_SCH_RSA_PKCS1:
        if (!rsa)
            return wrong_key;
        if (c.scheme > 6)
            return unsupported;
        *hash_id = c.scheme;
        break;
    case ZEL_SCH_RSA_PSS: {
        if (!rsa)
            return wrong_key;
        if (c.scheme != 7)
            return unsupported;
        const ZEL_STATUS st = pkcs7ParseRsaPSSParams(c.params, c.params_len, hash_id, mgf_id, salt_len);
        if (st != ZEL_OK)
            return st;
        break;
    }
    case ZEL_SCH_ECDSA:
        if (!ecc)
            return wrong_key;
        if (c.scheme < 8 || c.scheme > 12)
            return unsupported;
        *hash_id = c.scheme - 8;
        break;
    default: return unsupported;
    }
    if (getHashByteSize(*hash_id) == 0)
        return unsupported;
    return ZEL_OK;
}

// Imports the certificate's key after X509ParsePubKey.
ZEL_STATUS import_key(const uint8_t *cert, uint32_t cert_len, uint32_t key_type, EVP_PKEY **key)
{
    *key = nullptr;
    if (key_type != ZEL_KEY_RSA && key_type != ZEL_KEY_ECC_NAMED && key_type != ZEL_KEY_ECC_EXPLICIT)
        return X509_UNKNOWN_PUBLIC_KEY_TYPE;
    const bool rsa = key_type == ZEL_KEY_RSA;
    const uint8_t *spki = nullptr;
    uint32_t spki_len = 0;
    if (cert_spki(cert, cert_len, &spki, &spki_len))
        *key = import_spki(spki, spki_len, rsa);
    if (*key == nullptr)
        return rsa ? X509_WRONG_RSA_PUBLIC_KEY_FORMAT : X509_WRONG_ECC_PUBLIC_KEY_FORMAT;
    return ZEL_OK;
}

// Hashes data and verifies sig with the key; wrong_sig is the caller's "not valid".
ZEL_STATUS hash_and_verify(EVP_PKEY *key, const Check &c, uint32_t hash_id, uint32_t mgf_id, uint32_t salt_len,
                           const uint8_t *data, uint32_t data_len, const uint8_t *sig, uint32_t sig_len,
                           ZEL_STATUS wrong_sig)
{
    uint8_t digest[EVP_MAX_MD_SIZE];
    if (!digest_all(hash_id, data, data_len, digest))
        return isCryptoSubsysInitialized() != ZEL_OK ? CRYPTO_SUBSYS_NOT_INITIALIZED : CRYPTO_SUBSYS_HASHING_ERROR;
    const uint32_t digest_len = getHashByteSize(hash_id);
    Verdict v;
    if (c.scheme_type == ZEL_SCH_ECDSA)
        v = ecdsa_verify(key, digest, digest_len, sig, sig_len);
    else if (c.scheme_type == ZEL_SCH_RSA_PSS)
        v = rsa_verify(key, RsaPadding::kPss, hash_id, mgf_id, salt_len, digest, digest_len, sig, sig_len);
    else
        v = rsa_verify(key, RsaPadding::kPkcs1DigestInfo, hash_id, hash_id, 0, digest, digest_len, sig, sig_len);
    if (v == Verdict::kError)
        return CRYPTO_SUBSYS_SIGNATURE_VERIFICATION_ERROR;
    return v == Verdict::kValid ? ZEL_OK : wrong_sig;
}

} // namespace

extern "C" {

// The position of each node of a signed document object, and the node its walk stops after.
#define ZEL_PKCS7_NODE_POS(X)                                  \
    X(pkcs7GetDigestAlgorithmsNodPos, kEncap, digest_algs)     \
    X(pkcs7GetEncapContentInfoNodPos, kEncap, encap)           \
    X(pkcs7GetCertNodPos, kCerts, certs)                       \
    X(pkcs7GetSignerInfosNodPos, kSignerInfos, signer_infos)   \
    X(pkcs7GetSignerIdPos, kSignature, sid)                    \
    X(pkcs7GetSignedAttrsDigestAlgPos, kSignature, digest_alg) \
    X(pkcs7GetSignedAttrsPos, kSignature, attrs)               \
    X(pkcs7GetSignatureAlgorithmPos, kSignature, sig_alg)      \
    X(pkcs7GetSignaturePos, kSignature, sig)

#define ZEL_PKCS7_POS_FN(NAME, STOP, FIELD)                                  \
    ZEL_API ZEL_STATUS NAME(const uint8_t *der, uint32_t len, uint32_t *pos) \
    {                                                                        \
        return node_pos(der, len, Stop::STOP, &Sod::FIELD, pos);             \
    }
ZEL_PKCS7_NODE_POS(ZEL_PKCS7_POS_FN)
#undef ZEL_PKCS7_POS_FN

ZEL_API ZEL_STATUS pkcs7GetLDSSecurityObjectPos(const uint8_t *der, uint32_t len, uint32_t *pos)
{
    if (pos)
        *pos = 0;
    Node lds;
    const ZEL_STATUS st = lds_object(der, len, &lds);
    if (st == ZEL_OK && pos)
        *pos = lds.pos;
    return st;
}

ZEL_API ZEL_STATUS pkcs7GetLDSSecurityObject(const uint8_t *der, uint32_t len, const uint8_t **out, uint32_t *out_len)
{
    clear_out(out, out_len);
    Node lds;
    const ZEL_STATUS st = lds_object(der, len, &lds);
    if (st == ZEL_OK) {
        if (out)
            *out = der + lds.pos;
        if (out_len)
            *out_len = lds.whole();
    }
    return st;
}

ZEL_API ZEL_STATUS pkcs7GetDigestAlgorithms(const uint8_t *der, uint32_t len, uint32_t *hash_id)
{
    if (hash_id)
        *hash_id = 7;
    Sod s;
    ZEL_STATUS st = walk(der, len, Stop::kEncap, &s);
    if (st != ZEL_OK)
        return st;
    Node alg;
    if (!expect(der, len, s.digest_algs.value(), 0x30, &alg, s.digest_algs.end()))
        return MRTD_WRONG_SOD_DATA;
    uint32_t id = 7;
    st = digest_of_alg(der, len, alg, &id);
    if (st == ZEL_OK && hash_id)
        *hash_id = id;
    return st;
}

ZEL_API ZEL_STATUS pkcs7GetDataGroupsHashAlgorithm(const uint8_t *der, uint32_t len, uint32_t *hash_id)
{
    if (hash_id)
        *hash_id = 7;
    Node lds, version, alg;
    ZEL_STATUS st = lds_object(der, len, &lds);
    if (st != ZEL_OK)
        return st;
    if (!expect(der, len, lds.value(), 0x02, &version, lds.end()) ||
        !expect(der, len, static_cast<uint32_t>(version.end()), 0x30, &alg, lds.end()))
        return MRTD_WRONG_SOD_DATA;
    uint32_t id = 7;
    st = digest_of_alg(der, len, alg, &id);
    if (st == ZEL_OK && hash_id)
        *hash_id = id;
    return st;
}

ZEL_API ZEL_STATUS pkcs7GetDataGroupHash(const uint8_t *der, uint32_t len, uint8_t index, const uint8_t **out,
                                         uint32_t *out_len)
{
    clear_out(out, out_len);
    Node lds, version, alg, list;
    ZEL_STATUS st = lds_object(der, len, &lds);
    if (st != ZEL_OK)
        return st;
    if (!read_node(der, len, lds.value(), &version, lds.end()) ||
        !read_node(der, len, static_cast<uint32_t>(version.end()), &alg, lds.end()) ||
        !expect(der, len, static_cast<uint32_t>(alg.end()), 0x30, &list, lds.end()))
        return MRTD_WRONG_SOD_DATA;
    uint32_t pos = list.value();
    while (pos < list.end()) {
        Node entry, number, hash;
        if (!expect(der, len, pos, 0x30, &entry, list.end()) ||
            !expect(der, len, entry.value(), 0x02, &number, entry.end()))
            break;
        // Lenient on the number's form: only a length field and a value both longer than a byte fail.
        if ((number.hdr - 1 != 1 && number.vlen != 1) || number.value() >= entry.end())
            break;
        if (der[number.value()] == index) {
            if (!expect(der, len, static_cast<uint32_t>(number.end()), 0x04, &hash, entry.end()))
                break;
            if (out)
                *out = der + hash.value();
            if (out_len)
                *out_len = hash.vlen;
            return ZEL_OK;
        }
        pos = static_cast<uint32_t>(entry.end());
    }
    return MRTD_DATA_GROUOP_INDEX_NOT_EXIST;
}

ZEL_API ZEL_STATUS pkcs7GetCert(const uint8_t *der, uint32_t len, const uint8_t **out, uint32_t *out_len)
{
    clear_out(out, out_len);
    Sod s;
    const ZEL_STATUS st = walk(der, len, Stop::kCerts, &s);
    if (st != ZEL_OK)
        return st;
    if (out)
        *out = der + s.certs.value();
    if (out_len)
        *out_len = s.certs.vlen;
    return ZEL_OK;
}

ZEL_API ZEL_STATUS pkcs7GetSignerIdVersion(const uint8_t *der, uint32_t len, uint8_t *version)
{
    if (version)
        *version = 0;
    Sod s;
    const ZEL_STATUS st = walk(der, len, Stop::kSignature, &s);
    if (st != ZEL_OK)
        return st;
    if (s.version.hdr != 2 || s.version.vlen != 1)
        return MRTD_WRONG_SOD_DATA;
    if (version)
        *version = der[s.version.value()];
    return ZEL_OK;
}

ZEL_API ZEL_STATUS pkcs7GetSignerId(const uint8_t *der, uint32_t len, const uint8_t **out, uint32_t *out_len)
{
    return node_seq(der, len, &Sod::sid, out, out_len);
}

ZEL_API ZEL_STATUS pkcs7GetSignedAttrs(const uint8_t *der, uint32_t len, const uint8_t **out, uint32_t *out_len)
{
    return node_seq(der, len, &Sod::attrs, out, out_len);
}

ZEL_API ZEL_STATUS pkcs7GetSignatureAlgorithm(const uint8_t *der, uint32_t len, const uint8_t **out, uint32_t *out_len)
{
    return node_seq(der, len, &Sod::sig_alg, out, out_len);
}

ZEL_API ZEL_STATUS pkcs7GetSignedAttrsDigestAlgorithm(const uint8_t *der, uint32_t len, uint32_t *hash_id)
{
    if (hash_id)
        *hash_id = 7;
    Sod s;
    ZEL_STATUS st = walk(der, len, Stop::kSignature, &s);
    if (st != ZEL_OK)
        return st;
    uint32_t id = 7;
    st = digest_of_alg(der, len, s.digest_alg, &id);
    if (st == ZEL_OK && hash_id)
        *hash_id = id;
    return st;
}

ZEL_API ZEL_STATUS pkcs7GetLDSSecurityObjectDigest(const uint8_t *der, uint32_t len, const uint8_t **out,
                                                   uint32_t *out_len)
{
    clear_out(out, out_len);
    Sod s;
    const ZEL_STATUS st = walk(der, len, Stop::kSignature, &s);
    if (st != ZEL_OK)
        return st;
    uint32_t pos = s.attrs.value();
    while (pos < s.attrs.end()) {
        Node attr, oid, set, value;
        if (!expect(der, len, pos, 0x30, &attr, s.attrs.end()) ||
            !expect(der, len, attr.value(), 0x06, &oid, attr.end()))
            break;
        if (oid.whole() == kOidMessageDigest.size() && oid_equal(kOidMessageDigest, der + oid.pos, oid.whole())) {
            if (!expect(der, len, static_cast<uint32_t>(oid.end()), 0x31, &set, attr.end()) ||
                !expect(der, len, set.value(), 0x04, &value, set.end()))
                break;
            if (out)
                *out = der + value.value();
            if (out_len)
                *out_len = value.vlen;
            return ZEL_OK;
        }
        pos = static_cast<uint32_t>(attr.end());
    }
    return MRTD_WRONG_SOD_DATA;
}

ZEL_API ZEL_STATUS pkcs7GetSignature(const uint8_t *der, uint32_t len, const uint8_t **out, uint32_t *out_len)
{
    clear_out(out, out_len);
    Sod s;
    const ZEL_STATUS st = walk(der, len, Stop::kSignature, &s);
    if (st != ZEL_OK)
        return st;
    if (out)
        *out = der + s.sig.value();
    if (out_len)
        *out_len = s.sig.vlen;
    return ZEL_OK;
}

ZEL_API ZEL_STATUS pkcs7ParseDERSignatureScheme(const uint8_t *alg, uint32_t alg_len, uint32_t *scheme,
                                                uint32_t *scheme_type, const uint8_t **params, uint32_t *params_len)
{
    if (scheme)
        *scheme = 13;
    if (scheme_type)
        *scheme_type = 3;
    clear_out(params, params_len);
    Node seq, oid;
    if (!expect(alg, alg_len, 0, 0x30, &seq, alg_len) || !expect(alg, alg_len, seq.value(), 0x06, &oid, seq.end()))
        return PKCS7_WRONG_DATA;
    uint32_t id = 0;
    while (id < 13 &&
           !(oid.whole() == kSchemes[id].oid.size() && oid_equal(kSchemes[id].oid, alg + oid.pos, oid.whole())))
        ++id;
    if (id == 13)
        return PKCS7_UNSUPPORTED_SIGNATURE_SCHEME;
    if (scheme)
        *scheme = id;
    if (id == 12) // ECDSA with SHA-224: named, but not verified
        return PKCS7_UNSUPPORTED_SIGNATURE_SCHEME;
    uint32_t type = id < 7 ? ZEL_SCH_RSA_PKCS1 : id == 7 ? ZEL_SCH_RSA_PSS : ZEL_SCH_ECDSA;
    if (type == ZEL_SCH_RSA_PSS) {
        Node p;
        if (!expect(alg, alg_len, static_cast<uint32_t>(oid.end()), 0x30, &p, seq.end()))
            return PKCS7_WRONG_DATA;
        if (params)
            *params = alg + p.pos;
        if (params_len)
            *params_len = p.whole();
    }
    if (scheme_type)
        *scheme_type = type;
    return ZEL_OK;
}

ZEL_API ZEL_STATUS pkcs7ParseRsaPSSParams(const uint8_t *params, uint32_t len, uint32_t *digest_id, uint32_t *mgf_id,
                                          uint32_t *salt_len)
{
    if (digest_id)
        *digest_id = 7;
    if (mgf_id)
        *mgf_id = 7;
    if (salt_len)
        *salt_len = 0;
    Node seq, a0, halg, hoid, a1, malg, moid, mhalg, mhoid, a2, salt;
    if (!expect(params, len, 0, 0x30, &seq, len) || !expect(params, len, seq.value(), 0xA0, &a0, seq.end()) ||
        !expect(params, len, a0.value(), 0x30, &halg, a0.end()) ||
        !expect(params, len, halg.value(), 0x06, &hoid, halg.end()))
        return PKCS7_WRONG_DATA;
    const uint32_t h = hash_id_of_oid(params + hoid.pos, hoid.whole());
    if (h == 7 || kHashes[h].oid.size() != hoid.whole())
        return PKCS7_UNSUPPORTED_SIGNATURE_SCHEME;
    if (digest_id)
        *digest_id = h;
    if (!expect(params, len, static_cast<uint32_t>(a0.end()), 0xA1, &a1, seq.end()) ||
        !expect(params, len, a1.value(), 0x30, &malg, a1.end()) ||
        !expect(params, len, malg.value(), 0x06, &moid, malg.end()) || moid.whole() != kOidMgf1.size() ||
        !oid_equal(kOidMgf1, params + moid.pos, moid.whole()) ||
        !expect(params, len, static_cast<uint32_t>(moid.end()), 0x30, &mhalg, malg.end()) ||
        !expect(params, len, mhalg.value(), 0x06, &mhoid, mhalg.end()))
        return PKCS7_WRONG_DATA;
    const uint32_t m = hash_id_of_oid(params + mhoid.pos, mhoid.whole());
    if (m == 7 || kHashes[m].oid.size() != mhoid.whole())
        return PKCS7_UNSUPPORTED_SIGNATURE_SCHEME;
    if (mgf_id)
        *mgf_id = m;
    if (!expect(params, len, static_cast<uint32_t>(a1.end()), 0xA2, &a2, seq.end()) ||
        !expect(params, len, a2.value(), 0x02, &salt, a2.end()))
        return PKCS7_WRONG_DATA;
    if (salt.hdr != 2 || salt.vlen > 1)
        return PKCS7_UNSUPPORTED_SIGNATURE_SCHEME;
    if (salt_len)
        *salt_len = salt.vlen ? params[salt.value()] : 0;
    return ZEL_OK;
}

ZEL_API ZEL_STATUS X509VerifyDerCertSignature(const uint8_t *der, uint32_t der_len, const uint8_t *ca_der,
                                              uint32_t ca_der_len)
{
    Check c{};
    ZEL_STATUS st = X509ParsePubKey(ca_der, ca_der_len, nullptr, nullptr, nullptr, &c.key_type, nullptr, nullptr);
    if (st != ZEL_OK)
        return st;
    EVP_PKEY *key = nullptr;
    st = import_key(ca_der, ca_der_len, c.key_type, &key);
    if (st != ZEL_OK)
        return st;
    const uint8_t *tbs = nullptr, *sig = nullptr, *alg = nullptr;
    uint32_t tbs_len = 0, sig_len = 0, alg_len = 0, hash_id = 0, mgf_id = 0, salt_len = 0;
    st = X509GetTbs(der, der_len, &tbs, &tbs_len);
    if (st == ZEL_OK)
        st = X509GetSignature(der, der_len, &sig, &sig_len);
    if (st == ZEL_OK)
        st = X509GetSignatureAlgorithm(der, der_len, &alg, &alg_len);
    if (st == ZEL_OK)
        st = pkcs7ParseDERSignatureScheme(alg, alg_len, &c.scheme, &c.scheme_type, &c.params, &c.params_len);
    if (st == ZEL_OK)
        st = plan(c, X509_SIGNATURE_NOT_MATCH_CA_PUBLIC_KEY, X509_UNSUPPORTED_SIGNATURE_SCH, &hash_id, &mgf_id,
                  &salt_len);
    if (st == ZEL_OK)
        st = hash_and_verify(key, c, hash_id, mgf_id, salt_len, tbs, tbs_len, sig, sig_len, X509_WRONG_SIGNATURE);
    EVP_PKEY_free(key);
    return st;
}

ZEL_API ZEL_STATUS pkcs7VerifySignature(const uint8_t *der, uint32_t len)
{
    Sod s;
    ZEL_STATUS st = walk(der, len, Stop::kCerts, &s);
    if (st != ZEL_OK)
        return st;
    // The signer's certificate is the first one in the certificates node.
    Node cert;
    if (!expect(der, len, s.certs.value(), 0x30, &cert, s.certs.end()))
        return X509_WRONG_DATA;
    const uint8_t *cert_der = der + cert.pos;
    Check c{};
    st = X509ParsePubKey(cert_der, cert.whole(), nullptr, nullptr, nullptr, &c.key_type, nullptr, nullptr);
    if (st != ZEL_OK)
        return st;
    EVP_PKEY *key = nullptr;
    st = import_key(cert_der, cert.whole(), c.key_type, &key);
    if (st != ZEL_OK)
        return st;
    const uint8_t *sig = nullptr, *alg = nullptr, *attrs = nullptr;
    uint32_t sig_len = 0, alg_len = 0, attrs_len = 0, hash_id = 0, mgf_id = 0, salt_len = 0;
    st = pkcs7GetSignature(der, len, &sig, &sig_len);
    if (st == ZEL_OK)
        st = pkcs7GetSignatureAlgorithm(der, len, &alg, &alg_len);
    if (st == ZEL_OK)
        st = pkcs7ParseDERSignatureScheme(alg, alg_len, &c.scheme, &c.scheme_type, &c.params, &c.params_len);
    if (st == ZEL_OK)
        st = pkcs7GetSignedAttrs(der, len, &attrs, &attrs_len);
    if (st == ZEL_OK)
        st = plan(c, PKCS7_SIG_SCH_NOT_MATCH_CERT_KEY_TYPE, PKCS7_UNSUPPORTED_SIGNATURE_SCHEME, &hash_id, &mgf_id,
                  &salt_len);
    if (st == ZEL_OK) {
        // The digest is taken over the SET form of the signed attributes.
        std::vector<uint8_t> copy(attrs, attrs + attrs_len);
        copy[0] = 0x31;
        st = hash_and_verify(key, c, hash_id, mgf_id, salt_len, copy.data(), attrs_len, sig, sig_len,
                             PKCS7_WRONG_SIGNATURE);
    }
    EVP_PKEY_free(key);
    return st;
}

} // extern "C"
