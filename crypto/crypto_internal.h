// Internals of the cryptographic module: the tables, a bounded DER node reader and the OpenSSL key and
// verification helpers shared by the facade and the certificate readers. Never exported.
#ifndef ZEL_CRYPTO_INTERNAL_H
#define ZEL_CRYPTO_INTERNAL_H

#include <cstdint>
#include <cstring>

#include <openssl/evp.h>

namespace zel::crypto {

// Empties an output pointer and its length, each when given.
inline void clear_out(const uint8_t **out, uint32_t *out_len)
{
    if (out)
        *out = nullptr;
    if (out_len)
        *out_len = 0;
}

// An OID as the walks compare it: whole, with its tag 06 and its one-byte length.
struct Oid {
    uint8_t bytes[12];
    uint32_t size() const { return 2u + bytes[1]; }
};
bool oid_equal(const Oid &oid, const uint8_t *p, uint64_t avail);

struct HashRow {
    const char *name;     // "" for MD5
    uint32_t size;        // 0 for MD5 as far as getHashByteSize is concerned
    const char *evp_name; // OpenSSL's name
    uint32_t real_size;
    Oid oid;
};
extern const HashRow kHashes[8];

struct CurveRow {
    const char *name;
    uint16_t designator;
    Oid oid;
};
extern const CurveRow kCurves[34];

struct SchemeRow {
    const char *name;
    Oid oid;
};
extern const SchemeRow kSchemes[13];

extern const Oid kOidSignedData, kOidLdsSecurityObject, kOidCscaMasterList, kOidSki, kOidAki, kOidMessageDigest,
    kOidRsaEncryption, kOidMgf1, kOidEcPublicKey;

// The digest of a hash id 0 to 7 (null when the subsystem is not started or the id is unknown).
const EVP_MD *hash_md(uint32_t hash_id);
// The hash id of a digest OID at p (0 to 6), or 7 when none matches.
uint32_t hash_id_of_oid(const uint8_t *p, uint64_t avail);

// One DER node at pos in a buffer of len bytes. The length field follows getTlvLen: a first byte up to 0x80
// is the length, 0x81 to 0x84 announce 1 to 4 bytes.
struct Node {
    uint32_t pos = 0;
    uint8_t tag = 0;
    uint32_t hdr = 0;  // tag and length field
    uint32_t vlen = 0; // value length
    uint32_t value() const { return pos + hdr; }
    uint64_t end() const { return uint64_t(pos) + hdr + vlen; }
    uint32_t whole() const { return hdr + vlen; }
};
// Reads the tag and the length field only, within len. False on a short buffer or a bad length field.
bool read_header(const uint8_t *d, uint32_t len, uint32_t pos, Node *n);
// read_header, and the value must end within limit (at most len).
bool read_node(const uint8_t *d, uint32_t len, uint32_t pos, Node *n, uint64_t limit);
// read_node with a required tag.
bool expect(const uint8_t *d, uint32_t len, uint32_t pos, uint8_t tag, Node *n, uint64_t limit);

// Public keys.
enum class Verdict { kValid, kInvalid, kError };
// A SubjectPublicKeyInfo of len bytes; null on failure. want_rsa picks the family it must be.
EVP_PKEY *import_spki(const uint8_t *spki, uint32_t len, bool want_rsa);
// An RSA key from a big-endian modulus and exponent; null when either is empty or zero.
EVP_PKEY *rsa_key_from_parts(const uint8_t *n, uint32_t n_len, const uint8_t *e, uint32_t e_len);
// An EC key on a named curve (OpenSSL's NID) from an X9.63 point; null when the point is not on it.
EVP_PKEY *ec_key_from_point(int nid, const uint8_t *point, uint32_t point_len);
// The NID of a curve table row, or 0.
int curve_nid(uint32_t index);

enum class RsaPadding { kPkcs1Raw, kPkcs1DigestInfo, kPss };
// RSA verification with the distinction of the old interface: kError for a signature of the wrong length
// or one whose padding does not decode, kInvalid for a well-formed signature over another digest.
// For PSS, hash_id hashes M' and mgf_id drives MGF1; for PKCS#1 with DigestInfo, hash_id names the OID.
Verdict rsa_verify(EVP_PKEY *key, RsaPadding padding, uint32_t hash_id, uint32_t mgf_id, uint32_t salt_len,
                   const uint8_t *digest, uint32_t digest_len, const uint8_t *sig, uint32_t sig_len);
// ECDSA over a digest with an ASN.1 signature: kError when the signature does not decode or r, s lie outside
// 1 to n - 1, else kValid or kInvalid.
Verdict ecdsa_verify(EVP_PKEY *key, const uint8_t *digest, uint32_t digest_len, const uint8_t *sig, uint32_t sig_len);
// The SubjectPublicKeyInfo node of a certificate (whole), for the key import; false when the walk fails.
bool cert_spki(const uint8_t *der, uint32_t der_len, const uint8_t **spki, uint32_t *spki_len);

// A whole-buffer digest through the registered descriptor (no size limit); false on failure.
bool digest_all(uint32_t hash_id, const uint8_t *in, uint32_t in_len, uint8_t *out);

} // namespace zel::crypto

#endif
