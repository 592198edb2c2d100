// The certificate walker: offsets and slices of the nodes of a DER certificate, extensions and key
// identifiers, the subject public key, certificate files and the check of a certificate's signature.
//
// Every node read is bounded by its parent and by the input: corrupt certificates give a status.
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "crypto/crypto_internal.h"
#include "zel_crypto.h"
#include "zel_status.h"
#include "zel_x509.h"

using namespace zel::crypto;

namespace {

enum class Target {
    kTbs,
    kVersion,
    kSerial,
    kSigAlgTbs,
    kIssuer,
    kValidity,
    kSubject,
    kSpki,
    kExtensions,
    kSigAlg,
    kSignature
};

// The outer SEQUENCE: tag 30, a readable length field, and tag + length field + value equal to len.
ZEL_STATUS outer(const uint8_t *d, uint32_t len, Node *cert)
{
    if (d == nullptr || len < 2 || d[0] != 0x30 || !read_header(d, len, 0, cert))
        return X509_WRONG_DATA;
    return cert->end() == len ? ZEL_OK : X509_WRONG_LENGTH;
}

ZEL_STATUS cert_node(const uint8_t *d, uint32_t len, Target target, Node *out)
{
    Node cert, tbs;
    ZEL_STATUS st = outer(d, len, &cert);
    if (st != ZEL_OK)
        return st;
    if (!expect(d, len, cert.value(), 0x30, &tbs, cert.end()))
        return X509_WRONG_DATA;
    if (target == Target::kTbs) {
        *out = tbs;
        return ZEL_OK;
    }
    if (target == Target::kSigAlg || target == Target::kSignature) {
        Node alg;
        if (!expect(d, len, static_cast<uint32_t>(tbs.end()), 0x30, &alg, cert.end()))
            return X509_WRONG_DATA;
        if (target == Target::kSigAlg) {
            *out = alg;
            return ZEL_OK;
        }
        return expect(d, len, static_cast<uint32_t>(alg.end()), 0x03, out, cert.end()) ? ZEL_OK : X509_WRONG_DATA;
    }
    // Inside the TBSCertificate the version node is mandatory.
    static const uint8_t kTags[] = {0xA0, 0x02, 0x30, 0x30, 0x30, 0x30, 0x30};
    static const Target kOrder[] = {Target::kVersion,  Target::kSerial,  Target::kSigAlgTbs, Target::kIssuer,
                                    Target::kValidity, Target::kSubject, Target::kSpki};
    uint32_t pos = tbs.value();
    Node n;
    for (size_t i = 0; i < sizeof kTags; ++i) {
        if (!expect(d, len, pos, kTags[i], &n, tbs.end()))
            return X509_WRONG_DATA;
        if (kOrder[i] == target) {
            *out = n;
            return ZEL_OK;
        }
        pos = static_cast<uint32_t>(n.end());
    }
    // Optional issuer and subject unique ids, then the extensions.
    while (pos < tbs.end() && read_node(d, len, pos, &n, tbs.end())) {
        if (n.tag == 0xA3) {
            *out = n;
            return ZEL_OK;
        }
        if (n.tag != 0xA1 && n.tag != 0xA2)
            break;
        pos = static_cast<uint32_t>(n.end());
    }
    return X509_WRONG_DATA;
}

ZEL_STATUS node_pos(const uint8_t *d, uint32_t len, Target target, uint32_t *pos)
{
    if (pos)
        *pos = 0;
    Node n;
    const ZEL_STATUS st = cert_node(d, len, target, &n);
    if (st == ZEL_OK && pos)
        *pos = n.pos;
    return st;
}

ZEL_STATUS node_seq(const uint8_t *d, uint32_t len, Target target, const uint8_t **out, uint32_t *out_len)
{
    if (out)
        *out = nullptr;
    if (out_len)
        *out_len = 0;
    Node n;
    const ZEL_STATUS st = cert_node(d, len, target, &n);
    if (st != ZEL_OK)
        return st;
    if (out)
        *out = d + n.pos;
    if (out_len)
        *out_len = n.whole();
    return ZEL_OK;
}

// The OCTET STRING of the extension with the given OID (whole, with tag and length).
ZEL_STATUS find_extension(const uint8_t *ext, uint32_t len, const uint8_t *oid, Node *octets, uint32_t *critical)
{
    Node a3, list;
    if (oid == nullptr || ext == nullptr || !expect(ext, len, 0, 0xA3, &a3, len) ||
        !expect(ext, len, a3.value(), 0x30, &list, a3.end()))
        return X509_WRONG_DATA;
    if (list.vlen == 0)
        return X509_EXTENSION_NOT_FOUND;
    const uint32_t oid_size = 2u + oid[1];
    uint32_t pos = list.value();
    while (pos < list.end()) {
        Node item, id;
        if (!expect(ext, len, pos, 0x30, &item, list.end()) || !expect(ext, len, item.value(), 0x06, &id, item.end()))
            return X509_WRONG_DATA;
        if (id.pos + uint64_t(oid_size) <= item.end() && std::memcmp(ext + id.pos, oid, oid_size) == 0) {
            uint32_t p = static_cast<uint32_t>(id.end());
            Node flag;
            if (p < item.end() && ext[p] == 0x01) {
                if (!read_node(ext, len, p, &flag, item.end()) || flag.hdr != 2 || flag.vlen > 1)
                    return X509_WRONG_DATA;
                if (critical)
                    *critical = flag.vlen == 1 && ext[flag.value()] != 0;
                p = static_cast<uint32_t>(flag.end());
            }
            return expect(ext, len, p, 0x04, octets, item.end()) ? ZEL_OK : X509_WRONG_DATA;
        }
        pos = static_cast<uint32_t>(item.end());
    }
    return X509_EXTENSION_NOT_FOUND;
}

ZEL_STATUS ski_from_extensions(const uint8_t *ext, uint32_t len, const uint8_t **out, uint32_t *out_len)
{
    Node octets;
    ZEL_STATUS st = find_extension(ext, len, kOidSki.bytes, &octets, nullptr);
    if (st != ZEL_OK)
        return st;
    if (octets.vlen == 20) {
        *out = ext + octets.value();
        *out_len = 20;
        return ZEL_OK;
    }
    Node inner;
    if (!expect(ext, len, octets.value(), 0x04, &inner, octets.end()))
        return X509_WRONG_DATA;
    *out = ext + inner.value();
    *out_len = inner.vlen;
    return ZEL_OK;
}

ZEL_STATUS aki_from_extensions(const uint8_t *ext, uint32_t len, const uint8_t **out, uint32_t *out_len)
{
    Node octets, seq, id;
    ZEL_STATUS st = find_extension(ext, len, kOidAki.bytes, &octets, nullptr);
    if (st != ZEL_OK)
        return st;
    if (!expect(ext, len, octets.value(), 0x30, &seq, octets.end()) ||
        !expect(ext, len, seq.value(), 0x80, &id, seq.end()))
        return X509_WRONG_DATA;
    *out = ext + id.value();
    *out_len = id.vlen;
    return ZEL_OK;
}

} // namespace

namespace zel::crypto {

// The SubjectPublicKeyInfo node of a certificate, for the key import.
bool cert_spki(const uint8_t *der, uint32_t der_len, const uint8_t **spki, uint32_t *spki_len)
{
    Node n;
    if (cert_node(der, der_len, Target::kSpki, &n) != ZEL_OK)
        return false;
    *spki = der + n.pos;
    *spki_len = n.whole();
    return true;
}

} // namespace zel::crypto

// The serial number, pointed at from its length field (the Seq form) or from its value.
static ZEL_STATUS serial_number(const uint8_t *der, uint32_t der_len, bool from_value, const uint8_t **out,
                                uint32_t *out_len)
{
    clear_out(out, out_len);
    Node n;
    const ZEL_STATUS st = cert_node(der, der_len, Target::kSerial, &n);
    if (st != ZEL_OK)
        return st;
    if (out)
        *out = der + (from_value ? n.value() : n.pos + 1);
    if (out_len)
        *out_len = n.vlen;
    return ZEL_OK;
}

extern "C" {

// The position of each certificate node, and the node itself with its length.
#define ZEL_X509_NODE_POS(X)                     \
    X(X509GetTbsNodePos, kTbs)                   \
    X(X509GetSerialNumberPos, kSerial)           \
    X(X509GetSignatureAlgFromTBSPos, kSigAlgTbs) \
    X(X509GetIssuerPos, kIssuer)                 \
    X(X509GetValidityPeriodPos, kValidity)       \
    X(X509GetSubjectPos, kSubject)               \
    X(X509GetPublicKeyInfoPos, kSpki)            \
    X(X509GetExtensionsPos, kExtensions)         \
    X(X509GetSignatureAlgorithmNodePos, kSigAlg) \
    X(x509GetSignatureNodePos, kSignature)
#define ZEL_X509_NODE_SEQ(X)               \
    X(X509GetTbs, kTbs)                    \
    X(X509GetIssuerSeq, kIssuer)           \
    X(X509GetValidityPeriodSeq, kValidity) \
    X(X509GetSubjectSeq, kSubject)         \
    X(X509GetExtensionsSeq, kExtensions)   \
    X(X509GetSignatureAlgorithm, kSigAlg)

#define ZEL_X509_POS_FN(NAME, TARGET)                                            \
    ZEL_API ZEL_STATUS NAME(const uint8_t *der, uint32_t der_len, uint32_t *pos) \
    {                                                                            \
        return node_pos(der, der_len, Target::TARGET, pos);                      \
    }
#define ZEL_X509_SEQ_FN(NAME, TARGET)                                                                     \
    ZEL_API ZEL_STATUS NAME(const uint8_t *der, uint32_t der_len, const uint8_t **out, uint32_t *out_len) \
    {                                                                                                     \
        return node_seq(der, der_len, Target::TARGET, out, out_len);                                      \
    }
ZEL_X509_NODE_POS(ZEL_X509_POS_FN)
ZEL_X509_NODE_SEQ(ZEL_X509_SEQ_FN)
#undef ZEL_X509_POS_FN
#undef ZEL_X509_SEQ_FN

ZEL_API ZEL_STATUS X509GetSerialNumberSeq(const uint8_t *der, uint32_t der_len, const uint8_t **out, uint32_t *out_len)
{
    return serial_number(der, der_len, false, out, out_len);
}

ZEL_API ZEL_STATUS X509GetSerialNumberByteArr(const uint8_t *der, uint32_t der_len, const uint8_t **out,
                                              uint32_t *out_len)
{
    return serial_number(der, der_len, true, out, out_len);
}

ZEL_API ZEL_STATUS X509GetVersion(const uint8_t *der, uint32_t der_len, uint8_t *version)
{
    if (version)
        *version = 0;
    Node a0, integer;
    const ZEL_STATUS st = cert_node(der, der_len, Target::kVersion, &a0);
    if (st != ZEL_OK)
        return st;
    if (!expect(der, der_len, a0.value(), 0x02, &integer, a0.end()) || integer.hdr != 2 || integer.vlen != 1)
        return X509_WRONG_DATA;
    if (version)
        *version = static_cast<uint8_t>(der[integer.value()] + 1);
    return ZEL_OK;
}

ZEL_API ZEL_STATUS X509GetSignature(const uint8_t *der, uint32_t der_len, const uint8_t **out, uint32_t *out_len)
{
    clear_out(out, out_len);
    Node n;
    const ZEL_STATUS st = cert_node(der, der_len, Target::kSignature, &n);
    if (st != ZEL_OK)
        return st;
    if (n.vlen < 1)
        return X509_WRONG_DATA;
    if (out)
        *out = der + n.value() + 1;
    if (out_len)
        *out_len = n.vlen - 1;
    return ZEL_OK;
}

ZEL_API ZEL_STATUS X509GetExtension(const uint8_t *extensions, uint32_t len, const uint8_t *oid, const uint8_t **out,
                                    uint32_t *out_len, uint32_t *critical)
{
    clear_out(out, out_len);
    if (critical)
        *critical = 0;
    Node octets;
    const ZEL_STATUS st = find_extension(extensions, len, oid, &octets, critical);
    if (st != ZEL_OK)
        return st;
    if (out)
        *out = extensions + octets.pos;
    if (out_len)
        *out_len = octets.whole();
    return ZEL_OK;
}

ZEL_API ZEL_STATUS X509GetSKIFromExtension(const uint8_t *extensions, uint32_t len, const uint8_t **out,
                                           uint32_t *out_len)
{
    clear_out(out, out_len);
    const uint8_t *p = nullptr;
    uint32_t n = 0;
    const ZEL_STATUS st = ski_from_extensions(extensions, len, &p, &n);
    if (st == ZEL_OK && out && out_len)
        *out = p, *out_len = n;
    return st;
}

ZEL_API ZEL_STATUS X509GetAKIFromExtension(const uint8_t *extensions, uint32_t len, const uint8_t **out,
                                           uint32_t *out_len)
{
    clear_out(out, out_len);
    const uint8_t *p = nullptr;
    uint32_t n = 0;
    const ZEL_STATUS st = aki_from_extensions(extensions, len, &p, &n);
    if (st == ZEL_OK && out && out_len)
        *out = p, *out_len = n;
    return st;
}

ZEL_API ZEL_STATUS X509GetSKIFromCert(const uint8_t *der, uint32_t der_len, const uint8_t **out, uint32_t *out_len)
{
    clear_out(out, out_len);
    const uint8_t *ext = nullptr;
    uint32_t ext_len = 0;
    const ZEL_STATUS st = X509GetExtensionsSeq(der, der_len, &ext, &ext_len);
    return st != ZEL_OK ? st : X509GetSKIFromExtension(ext, ext_len, out, out_len);
}

ZEL_API ZEL_STATUS X509GetAKIFromCert(const uint8_t *der, uint32_t der_len, const uint8_t **out, uint32_t *out_len)
{
    clear_out(out, out_len);
    const uint8_t *ext = nullptr;
    uint32_t ext_len = 0;
    const ZEL_STATUS st = X509GetExtensionsSeq(der, der_len, &ext, &ext_len);
    return st != ZEL_OK ? st : X509GetAKIFromExtension(ext, ext_len, out, out_len);
}

ZEL_API ZEL_STATUS checkRSAKeySize(uint32_t bytes)
{
    static const uint32_t kBits[] = {1024, 1280, 1536, 1984, 2048, 3072, 4096};
    for (uint32_t bits : kBits)
        if (bytes * 8u == bits && bytes < 0x20000000u)
            return ZEL_OK;
    return X509_UNSUPPORTED_PUBLIC_KEY_SIZE;
}

ZEL_API ZEL_STATUS X509ParsePubKey(const uint8_t *der, uint32_t der_len, const uint8_t **key, uint32_t *key_len,
                                   uint32_t *key_bits, uint32_t *key_type, uint32_t *curve_index,
                                   const uint8_t **params)
{
    if (key)
        *key = nullptr;
    if (key_len)
        *key_len = 0;
    if (key_bits)
        *key_bits = 0;
    if (key_type)
        *key_type = ZEL_KEY_NONE;
    if (curve_index)
        *curve_index = 34;
    if (params)
        *params = nullptr;

    Node cert, tbs, n;
    ZEL_STATUS st = outer(der, der_len, &cert);
    if (st != ZEL_OK)
        return st;
    if (!expect(der, der_len, cert.value(), 0x30, &tbs, cert.end()) ||
        !expect(der, der_len, tbs.value(), 0xA0, &n, tbs.end()) ||
        !expect(der, der_len, static_cast<uint32_t>(n.end()), 0x02, &n, tbs.end()))
        return X509_WRONG_DATA;
    // Signature algorithm, issuer, validity, subject: skipped by their lengths; an unreadable one ends the
    // skipping and the walk goes on from there.
    uint32_t pos = static_cast<uint32_t>(n.end());
    for (int i = 0; i < 4; ++i) {
        if (!read_node(der, der_len, pos, &n, tbs.end()))
            break;
        pos = static_cast<uint32_t>(n.end());
    }
    Node spki, alg, oid, bits;
    if (!expect(der, der_len, pos, 0x30, &spki, tbs.end()) ||
        !expect(der, der_len, spki.value(), 0x30, &alg, spki.end()) || alg.end() >= spki.end() ||
        der[alg.end()] != 0x03 || !expect(der, der_len, alg.value(), 0x06, &oid, alg.end()))
        return X509_WRONG_DATA;
    const uint32_t bits_pos = static_cast<uint32_t>(alg.end());

    if (oid.whole() == kOidRsaEncryption.size() && oid_equal(kOidRsaEncryption, der + oid.pos, oid.whole())) {
        Node rsa, modulus;
        if (!expect(der, der_len, bits_pos, 0x03, &bits, spki.end()) || bits.vlen < 1 || der[bits.value()] != 0x00 ||
            !expect(der, der_len, bits.value() + 1, 0x30, &rsa, bits.end()) ||
            !expect(der, der_len, rsa.value(), 0x02, &modulus, rsa.end()))
            return X509_WRONG_DATA;
        uint32_t m = modulus.value(), m_len = modulus.vlen;
        if (m_len > 0 && der[m] == 0x00)
            ++m, --m_len;
        if (checkRSAKeySize(m_len) != ZEL_OK)
            return X509_UNSUPPORTED_PUBLIC_KEY_SIZE;
        if (modulus.end() >= rsa.end() || der[modulus.end()] != 0x02)
            return X509_WRONG_DATA;
        if (key)
            *key = der + m;
        if (key_len)
            *key_len = m_len;
        if (key_bits)
            *key_bits = 8 * m_len;
        if (params)
            *params = der + modulus.end();
        if (key_type)
            *key_type = ZEL_KEY_RSA;
        return ZEL_OK;
    }
    if (!(oid.whole() == kOidEcPublicKey.size() && oid_equal(kOidEcPublicKey, der + oid.pos, oid.whole())))
        return X509_UNSUPPORTED_PUBLIC_KEY_TYPE;

    uint32_t type = ZEL_KEY_NONE;
    Node curve;
    if (oid.end() < alg.end() && read_node(der, der_len, static_cast<uint32_t>(oid.end()), &curve, alg.end())) {
        if (curve.tag == 0x06) {
            uint32_t i = 0;
            while (i < 34 && !(curve.whole() == kCurves[i].oid.size() &&
                               oid_equal(kCurves[i].oid, der + curve.pos, curve.whole())))
                ++i;
            if (i == 34)
                return X509_UNSUPPORTED_ECC_CURVE;
            if (curve_index)
                *curve_index = i;
            type = ZEL_KEY_ECC_NAMED;
        } else if (curve.tag == 0x30) {
            if (params)
                *params = der + curve.pos;
            type = ZEL_KEY_ECC_EXPLICIT;
        }
    }
    if (key_type)
        *key_type = type;
    const ZEL_STATUS fail = type == ZEL_KEY_ECC_NAMED ? X509_WRONG_DATA : X509_UNSUPPORTED_ECC_CURVE;
    // The key's length counts the unused-bits byte too, so the slice reaches one byte past the point: that
    // byte must exist in the input.
    if (!expect(der, der_len, bits_pos, 0x03, &bits, spki.end()) || bits.vlen < 2 || der[bits.value()] != 0x00 ||
        bits.end() >= der_len)
        return fail;
    if (der[bits.value() + 1] != 0x04)
        return X509_UNSUPPORTED_PUBLIC_KEY_TYPE;
    if (key)
        *key = der + bits.value() + 1;
    if (key_len)
        *key_len = bits.vlen;
    if (key_bits)
        *key_bits = (bits.vlen - 1) / 2 * 8;
    return ZEL_OK;
}

ZEL_API ZEL_STATUS X509GetRSAPubKeyExponent(const uint8_t *integer, uint32_t avail, uint32_t *exponent)
{
    if (exponent)
        *exponent = 0;
    if (integer == nullptr || avail < 2 || integer[0] != 0x02)
        return X509_WRONG_DATA;
    if (integer[1] >= 0x80)
        return X509_UNSUPPORTED_PUBLIC_KEY_EXPONENT;
    // Four bytes behind the length field, whatever the length says.
    if (avail < 6)
        return X509_WRONG_DATA;
    if (exponent)
        *exponent =
            (uint32_t(integer[2]) << 24) | (uint32_t(integer[3]) << 16) | (uint32_t(integer[4]) << 8) | integer[5];
    return ZEL_OK;
}

ZEL_API ZEL_STATUS X509GetCertFromFile(const char *path, uint8_t **der, uint32_t *der_len)
{
    if (der)
        *der = nullptr;
    if (der_len)
        *der_len = 0;
    if (path == nullptr || der == nullptr || der_len == nullptr)
        return X509_CAN_NOT_OPEN_FILE;
    FILE *f = std::fopen(path, "rb");
    if (f == nullptr)
        return X509_CAN_NOT_OPEN_FILE;
    const uint32_t size = fsizeof(f);
    if (size > ZEL_MAX_HASH_INPUT) {
        std::fclose(f);
        return X509_WRONG_LENGTH;
    }
    uint8_t *buf = static_cast<uint8_t *>(std::malloc(size ? size : 1));
    if (buf == nullptr) {
        std::fclose(f);
        return ZEL_NO_MEMORY_ERROR;
    }
    const size_t got = std::fread(buf, 1, size, f);
    std::fclose(f);
    if (got != size) {
        std::free(buf);
        return X509_CAN_NOT_OPEN_FILE;
    }
    uint8_t *cert = nullptr;
    uint32_t cert_len = 0;
    const ZEL_STATUS pem = pemCertToDer(buf, size, &cert, &cert_len);
    if (pem == ZEL_WRONG_PEM_CERT_FORMAT) {
        cert = buf; // DER as it stands
        cert_len = size;
    } else {
        std::free(buf);
        if (pem != ZEL_OK)
            return pem;
    }
    uint32_t pos = 0;
    const ZEL_STATUS st = x509GetSignatureNodePos(cert, cert_len, &pos);
    if (st != ZEL_OK) {
        std::free(cert);
        return st;
    }
    *der = cert;
    *der_len = cert_len;
    return ZEL_OK;
}

} // extern "C"
