/* Readers of DER certificates (X.509) and of the SignedData of a travel document's security object (EF.SOD,
 * a PKCS#7 SignedData in the file tag 0x77), and the verification of their signatures.
 *
 * The walkers build no tree and copy nothing: they answer the offset of a node ("Pos" functions) or a pointer
 * into the caller's buffer with a length, valid as long as that buffer. Every element's length is checked
 * against the end of the input: corrupt data gives a status, never a read outside it. Outputs are cleared
 * first. X509GetCertFromFile and pemCertToDer allocate (free with OrbFree); nothing else does. */
#ifndef ZEL_X509_H
#define ZEL_X509_H

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Key types of X509ParsePubKey. */
#define ZEL_KEY_RSA 0u
#define ZEL_KEY_ECC_NAMED 1u
#define ZEL_KEY_ECC_EXPLICIT 2u
#define ZEL_KEY_NONE 3u

/* Scheme types of pkcs7ParseDERSignatureScheme. */
#define ZEL_SCH_RSA_PKCS1 0u
#define ZEL_SCH_RSA_PSS 1u
#define ZEL_SCH_ECDSA 2u

/* Offsets of the nodes of a certificate of der_len bytes. */
ZEL_API ZEL_STATUS X509GetTbsNodePos(const uint8_t *der, uint32_t der_len, uint32_t *pos);
ZEL_API ZEL_STATUS X509GetSerialNumberPos(const uint8_t *der, uint32_t der_len, uint32_t *pos);
ZEL_API ZEL_STATUS X509GetSignatureAlgFromTBSPos(const uint8_t *der, uint32_t der_len, uint32_t *pos);
ZEL_API ZEL_STATUS X509GetIssuerPos(const uint8_t *der, uint32_t der_len, uint32_t *pos);
ZEL_API ZEL_STATUS X509GetValidityPeriodPos(const uint8_t *der, uint32_t der_len, uint32_t *pos);
ZEL_API ZEL_STATUS X509GetSubjectPos(const uint8_t *der, uint32_t der_len, uint32_t *pos);
ZEL_API ZEL_STATUS X509GetPublicKeyInfoPos(const uint8_t *der, uint32_t der_len, uint32_t *pos);
ZEL_API ZEL_STATUS X509GetExtensionsPos(const uint8_t *der, uint32_t der_len, uint32_t *pos);
ZEL_API ZEL_STATUS X509GetSignatureAlgorithmNodePos(const uint8_t *der, uint32_t der_len, uint32_t *pos);
ZEL_API ZEL_STATUS x509GetSignatureNodePos(const uint8_t *der, uint32_t der_len, uint32_t *pos);

/* Whole nodes: pointer to the tag and the node's whole length. */
ZEL_API ZEL_STATUS X509GetTbs(const uint8_t *der, uint32_t der_len, const uint8_t **out, uint32_t *out_len);
ZEL_API ZEL_STATUS X509GetIssuerSeq(const uint8_t *der, uint32_t der_len, const uint8_t **out, uint32_t *out_len);
ZEL_API ZEL_STATUS X509GetValidityPeriodSeq(const uint8_t *der, uint32_t der_len, const uint8_t **out,
                                            uint32_t *out_len);
ZEL_API ZEL_STATUS X509GetSubjectSeq(const uint8_t *der, uint32_t der_len, const uint8_t **out, uint32_t *out_len);
ZEL_API ZEL_STATUS X509GetExtensionsSeq(const uint8_t *der, uint32_t der_len, const uint8_t **out, uint32_t *out_len);
ZEL_API ZEL_STATUS X509GetSignatureAlgorithm(const uint8_t *der, uint32_t der_len, const uint8_t **out,
                                             uint32_t *out_len);
/* The serial number: pointer to the length byte behind the tag 02 and the value's length. */
ZEL_API ZEL_STATUS X509GetSerialNumberSeq(const uint8_t *der, uint32_t der_len, const uint8_t **out, uint32_t *out_len);
/* The serial number's value bytes. */
ZEL_API ZEL_STATUS X509GetSerialNumberByteArr(const uint8_t *der, uint32_t der_len, const uint8_t **out,
                                              uint32_t *out_len);
/* The version (1, 2 or 3): the version INTEGER's one-byte value + 1. */
ZEL_API ZEL_STATUS X509GetVersion(const uint8_t *der, uint32_t der_len, uint8_t *version);
/* The signature value behind the unused-bits byte of the BIT STRING. */
ZEL_API ZEL_STATUS X509GetSignature(const uint8_t *der, uint32_t der_len, const uint8_t **out, uint32_t *out_len);

/* One extension of an extensions node (starting at its tag A3): the OCTET STRING node of the extension whose
 * OID (given whole, with its tag and length) matches, and its critical flag. */
ZEL_API ZEL_STATUS X509GetExtension(const uint8_t *extensions, uint32_t len, const uint8_t *oid, const uint8_t **out,
                                    uint32_t *out_len, uint32_t *critical);
/* Subject and authority key identifiers, from the extensions node or from a whole certificate. */
ZEL_API ZEL_STATUS X509GetSKIFromExtension(const uint8_t *extensions, uint32_t len, const uint8_t **out,
                                           uint32_t *out_len);
ZEL_API ZEL_STATUS X509GetAKIFromExtension(const uint8_t *extensions, uint32_t len, const uint8_t **out,
                                           uint32_t *out_len);
ZEL_API ZEL_STATUS X509GetSKIFromCert(const uint8_t *der, uint32_t der_len, const uint8_t **out, uint32_t *out_len);
ZEL_API ZEL_STATUS X509GetAKIFromCert(const uint8_t *der, uint32_t der_len, const uint8_t **out, uint32_t *out_len);

/* The subject's public key. RSA: key is the modulus (without a leading 00) and params points to the exponent's
 * INTEGER. ECC: key is the point from its 04 on, key_len one more than the point's bytes; curve_index is the
 * table's, or params points to explicit domain parameters. */
ZEL_API ZEL_STATUS X509ParsePubKey(const uint8_t *der, uint32_t der_len, const uint8_t **key, uint32_t *key_len,
                                   uint32_t *key_bits, uint32_t *key_type, uint32_t *curve_index,
                                   const uint8_t **params);
/* The RSA exponent from the INTEGER that X509ParsePubKey pointed to, with avail bytes from there to the end of
 * the certificate: the four bytes behind a one-byte length field, read big-endian. */
ZEL_API ZEL_STATUS X509GetRSAPubKeyExponent(const uint8_t *integer, uint32_t avail, uint32_t *exponent);
/* ZEL_OK when the RSA modulus size in bytes is one the readers accept (1024 to 4096 bits). */
ZEL_API ZEL_STATUS checkRSAKeySize(uint32_t bytes);

/* Verifies the signature of a certificate with the public key of its issuer's certificate. */
ZEL_API ZEL_STATUS X509VerifyDerCertSignature(const uint8_t *der, uint32_t der_len, const uint8_t *ca_der,
                                              uint32_t ca_der_len);
/* Reads a PEM or DER certificate file of at most 32768 bytes; der is allocated (OrbFree). */
ZEL_API ZEL_STATUS X509GetCertFromFile(const char *path, uint8_t **der, uint32_t *der_len);

/* Offsets of the nodes of an EF.SOD of len bytes (tag 0x77 first). */
ZEL_API ZEL_STATUS pkcs7GetDigestAlgorithmsNodPos(const uint8_t *der, uint32_t len, uint32_t *pos);
ZEL_API ZEL_STATUS pkcs7GetEncapContentInfoNodPos(const uint8_t *der, uint32_t len, uint32_t *pos);
ZEL_API ZEL_STATUS pkcs7GetLDSSecurityObjectPos(const uint8_t *der, uint32_t len, uint32_t *pos);
ZEL_API ZEL_STATUS pkcs7GetCertNodPos(const uint8_t *der, uint32_t len, uint32_t *pos);
ZEL_API ZEL_STATUS pkcs7GetSignerInfosNodPos(const uint8_t *der, uint32_t len, uint32_t *pos);
ZEL_API ZEL_STATUS pkcs7GetSignerIdPos(const uint8_t *der, uint32_t len, uint32_t *pos);
ZEL_API ZEL_STATUS pkcs7GetSignedAttrsDigestAlgPos(const uint8_t *der, uint32_t len, uint32_t *pos);
ZEL_API ZEL_STATUS pkcs7GetSignedAttrsPos(const uint8_t *der, uint32_t len, uint32_t *pos);
ZEL_API ZEL_STATUS pkcs7GetSignatureAlgorithmPos(const uint8_t *der, uint32_t len, uint32_t *pos);
ZEL_API ZEL_STATUS pkcs7GetSignaturePos(const uint8_t *der, uint32_t len, uint32_t *pos);

/* Values of an EF.SOD. */
ZEL_API ZEL_STATUS pkcs7GetDigestAlgorithms(const uint8_t *der, uint32_t len, uint32_t *hash_id);
ZEL_API ZEL_STATUS pkcs7GetLDSSecurityObject(const uint8_t *der, uint32_t len, const uint8_t **out, uint32_t *out_len);
ZEL_API ZEL_STATUS pkcs7GetDataGroupsHashAlgorithm(const uint8_t *der, uint32_t len, uint32_t *hash_id);
/* The stored hash of data group index (a pointer to the hash bytes and their count). */
ZEL_API ZEL_STATUS pkcs7GetDataGroupHash(const uint8_t *der, uint32_t len, uint8_t index, const uint8_t **out,
                                         uint32_t *out_len);
/* The content of the certificates node: with one certificate, that certificate. */
ZEL_API ZEL_STATUS pkcs7GetCert(const uint8_t *der, uint32_t len, const uint8_t **out, uint32_t *out_len);
ZEL_API ZEL_STATUS pkcs7GetSignerIdVersion(const uint8_t *der, uint32_t len, uint8_t *version);
ZEL_API ZEL_STATUS pkcs7GetSignerId(const uint8_t *der, uint32_t len, const uint8_t **out, uint32_t *out_len);
ZEL_API ZEL_STATUS pkcs7GetSignedAttrsDigestAlgorithm(const uint8_t *der, uint32_t len, uint32_t *hash_id);
ZEL_API ZEL_STATUS pkcs7GetSignedAttrs(const uint8_t *der, uint32_t len, const uint8_t **out, uint32_t *out_len);
ZEL_API ZEL_STATUS pkcs7GetSignatureAlgorithm(const uint8_t *der, uint32_t len, const uint8_t **out, uint32_t *out_len);
/* The messageDigest value of the signed attributes. */
ZEL_API ZEL_STATUS pkcs7GetLDSSecurityObjectDigest(const uint8_t *der, uint32_t len, const uint8_t **out,
                                                   uint32_t *out_len);
ZEL_API ZEL_STATUS pkcs7GetSignature(const uint8_t *der, uint32_t len, const uint8_t **out, uint32_t *out_len);

/* A signature AlgorithmIdentifier of alg_len bytes: the scheme id, its type and, for PSS, its parameters. */
ZEL_API ZEL_STATUS pkcs7ParseDERSignatureScheme(const uint8_t *alg, uint32_t alg_len, uint32_t *scheme,
                                                uint32_t *scheme_type, const uint8_t **params, uint32_t *params_len);
/* RSASSA-PSS parameters; all three fields must be present. */
ZEL_API ZEL_STATUS pkcs7ParseRsaPSSParams(const uint8_t *params, uint32_t len, uint32_t *digest_id, uint32_t *mgf_id,
                                          uint32_t *salt_len);
/* Verifies the signature over the signed attributes with the certificate the SignedData carries. */
ZEL_API ZEL_STATUS pkcs7VerifySignature(const uint8_t *der, uint32_t len);

#ifdef __cplusplus
}
#endif
#endif
