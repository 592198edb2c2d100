/* Hashing, signature verification, the BER readers, the PEM reader, the text and JSON helpers and the small
 * AES-128 of the host cryptography.
 *
 * Hash ids: 0 SHA-1, 1 SHA-256, 2 SHA-384, 3 SHA-512, 4 SHA-224, 5 SHA-512/224, 6 SHA-512/256; 7 is MD5 and
 * exists for DigitalSignatureVerifyHash alone. Every buffer that a ToHeap function or an allocating out
 * pointer hands over belongs to the caller, who frees it with OrbFree. Such functions clear the out pointer
 * and its length before anything else. */
#ifndef ZEL_CRYPTO_H
#define ZEL_CRYPTO_H

#include <stdio.h>

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZEL_HASH_SHA1 0u
#define ZEL_HASH_SHA256 1u
#define ZEL_HASH_SHA384 2u
#define ZEL_HASH_SHA512 3u
#define ZEL_HASH_SHA224 4u
#define ZEL_HASH_SHA512_224 5u
#define ZEL_HASH_SHA512_256 6u
#define ZEL_HASH_MD5 7u

/* The largest input of a one-shot hash. */
#define ZEL_MAX_HASH_INPUT 32768u

/* Curve indices run from 0 to 33; 34 means no curve. */
#define ZEL_ECC_CURVE_COUNT 34u
/* Signature scheme ids run from 0 to 12; 13 means no scheme. */
#define ZEL_SIGNATURE_SCHEME_COUNT 13u

/* DigitalSignatureVerifyHash: cipher_alg and padding_alg. */
#define ZEL_SIG_CIPHER_RSA 0u
#define ZEL_SIG_CIPHER_ECC 1u
#define ZEL_SIG_PADDING_PKCS1_V1_5_NA1 0u /* the digest as it stands, no DigestInfo */
#define ZEL_SIG_PADDING_PKCS1_V1_5 1u
#define ZEL_SIG_PADDING_PSS 2u /* sig_params: the salt length, a uint32_t, sig_params_len 4 */

/* The ECC key parameters of DigitalSignatureVerifyHash (24 bytes; pass exactly that length). */
#define ZEL_ECC_CURVE_BY_INDEX 0u
#define ZEL_ECC_CURVE_BY_NAME 1u
#define ZEL_ECC_CURVE_BY_PARAMS 2u /* refused */
typedef struct zel_ecc_key_params {
    uint32_t selector;
    uint32_t curve_index;
    const char *curve_name; /* NUL-terminated */
    const void *reserved;   /* not read */
} zel_ecc_key_params;

/* Subsystem start. Idempotent; a failed start leaves it stopped and the next call tries again. */
ZEL_API void initCryptoSubsys(void);
/* ZEL_OK or CRYPTO_SUBSYS_NOT_INITIALIZED. */
ZEL_API ZEL_STATUS isCryptoSubsysInitialized(void);

/* Frees a buffer that this library allocated for the caller; nothing for null. */
ZEL_API void OrbFree(void *p);

/* Names and sizes. The Orb forms answer "" and fail before the subsystem is started. */
ZEL_API const char *OrbGetHashName(uint32_t hash_id);
ZEL_API ZEL_STATUS OrbGetHashOutputByteLength(uint32_t hash_id, uint32_t *out_len);
ZEL_API const char *getHashName(uint32_t hash_id);
ZEL_API uint32_t getHashByteSize(uint32_t hash_id);

/* One-shot hashes of at most 32768 bytes. out_len must equal the hash's size. */
ZEL_API ZEL_STATUS OrbGetHash(uint32_t hash_id, const uint8_t *in, uint32_t in_len, uint8_t *out, uint32_t out_len);
ZEL_API ZEL_STATUS OrbGetHashToHeap(uint32_t hash_id, const uint8_t *in, uint32_t in_len, uint8_t **out,
                                    uint32_t *out_len);

/* The one chunked hash of the process: init, any number of updates (no size limit), finish. */
ZEL_API ZEL_STATUS OrbHashInitChunked(uint32_t hash_id);
ZEL_API ZEL_STATUS OrbHashUpdateChunked(const uint8_t *in, uint32_t in_len);
ZEL_API ZEL_STATUS OrbHashFinishChunked(uint8_t *out, uint32_t out_len);
ZEL_API ZEL_STATUS OrbHashFinishChunkedToHeap(uint8_t **out, uint32_t *out_len);

/* The curve table: name, 16-bit designator, index by designator. */
ZEL_API const char *OrbGetEccCurveName(uint32_t index);
ZEL_API ZEL_STATUS OrbGetECCCurveDesignator(uint32_t index, uint16_t *designator);
ZEL_API ZEL_STATUS OrbGetECCCurveIndex(uint16_t designator, uint32_t *index);

/* The signature scheme table. */
ZEL_API const char *OrbGetSignatureSchemeName(uint32_t scheme);
ZEL_API int isSignatureSchType_RSA_PKCS1(uint32_t scheme);
ZEL_API int isSignatureSchType_RSA_PSS(uint32_t scheme);
ZEL_API int isSignatureSchType_ECDSA(uint32_t scheme);

/* Verifies a signature over a digest the caller computed. RSA: pub_key is the modulus and pub_key_params the
 * public exponent, both big-endian. ECC: pub_key is the point (X9.63) and pub_key_params a
 * zel_ecc_key_params; the ECC branch checks everything and then always answers
 * CRYPTO_SUBSYS_SIGNATURE_VERIFICATION_ERROR (ECDSA succeeds through the certificate and SignedData
 * verifiers only). */
ZEL_API ZEL_STATUS DigitalSignatureVerifyHash(uint32_t hash_id, uint32_t padding_alg, uint32_t cipher_alg,
                                              const uint8_t *digest, uint32_t digest_len, const uint8_t *signature,
                                              uint32_t signature_len, const void *sig_params, uint32_t sig_params_len,
                                              const uint8_t *pub_key, uint32_t pub_key_len, const void *pub_key_params,
                                              uint32_t pub_key_params_len);

/* BER length readers. getTlvLen: a first byte up to 0x80 is the length itself, 0x81 to 0x84 announce 1 to 4
 * length bytes; true on success. It reads at p without a bound: the caller must hold the bytes.
 * get_ber_tlv_length: a first byte below 0x80 is the length, 0x81 and 0x82 announce 1 or 2 bytes; anything
 * else is ZEL_PARAMETERS_ERROR. */
ZEL_API int getTlvLen(const uint8_t *p, uint8_t *len_of_len, uint32_t *value_len);
ZEL_API ZEL_STATUS get_ber_tlv_length(const uint8_t *p, uint8_t *len_of_len, uint32_t *value_len);
/* A one- or two-byte BER tag; 0 when there is none. */
ZEL_API uint32_t parse_ber_tag(const uint8_t *p, int32_t len, uint8_t *tag_len);

/* The DER of a PEM certificate that begins with its BEGIN line; der is allocated (OrbFree). */
ZEL_API ZEL_STATUS pemCertToDer(const uint8_t *in, uint32_t in_len, uint8_t **der, uint32_t *der_len);

/* Size of an open file (0 for null); the stream is left at its start. */
ZEL_API uint32_t fsizeof(FILE *f);
/* A NUL-terminated needle in binary memory: pointer or null, position or 0xFFFFFFFF. */
ZEL_API const uint8_t *strmem(const uint8_t *mem, uint32_t len, const char *needle);
ZEL_API uint32_t strmempos(const uint8_t *mem, uint32_t len, const char *needle);
/* Grows *p to a + b bytes; on failure frees it, sets it to null and answers ZEL_NO_MEMORY_ERROR. */
ZEL_API ZEL_STATUS Orbrealloc(void **p, uint32_t a, uint32_t b);
/* Appends a, b and c (null c: "\n") to a growing text; a null *text starts an empty one. */
ZEL_API ZEL_STATUS Orbsprintf(char **text, uint32_t *len, const char *a, const char *b, const char *c);
/* Bytes as upper-case hexadecimal; cut with "..." when they do not fit. */
ZEL_API void hexsprintf(char *out, uint32_t out_size, const uint8_t *bytes, uint32_t n);
/* Appends text at *pos when it fits below cap (ZEL_BUFFER_SIZE_EXCEEDED otherwise). */
ZEL_API ZEL_STATUS json_append(char *buf, uint32_t *pos, uint32_t cap, const char *text);
/* Copies in with the JSON escapes \b \t \n \f \r, \" and \\; every other byte, other control bytes
 * included, goes raw. Stops where the next character would not fit, always ends with NUL; the count written. */
ZEL_API uint32_t JSONEscapeString(char *out, const char *in, uint32_t cap);

/* The small in-place AES-128 of one block. aes_encode overwrites key with the last round key, so callers pass
 * a copy; aes_calc_decode_key turns a key into that last round key, which aes_decode takes. */
ZEL_API void aes_encode(uint8_t *state, uint8_t *key);
ZEL_API void enc_key_schedule(uint8_t *key);
ZEL_API void aes_calc_decode_key(uint8_t *key);
ZEL_API void aes_decode(uint8_t *state, uint8_t *key);
ZEL_API void dec_key_schedule(uint8_t *key);
ZEL_API void encode_shift_row(uint8_t *state);
ZEL_API void decode_shift_row(uint8_t *state);

#ifdef __cplusplus
}
#endif
#endif
