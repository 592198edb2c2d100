/* Travel documents: the machine readable zone (MRZ), the host cryptography of Basic Access Control (BAC) and
 * of secure messaging, the data group tables and the EF.COM walk. None of these touches a reader.
 *
 * An MRZ is one array of characters with no line breaks: TD1 90 characters (3 x 30), TD2 72 (2 x 36), TD3 88
 * (2 x 44). The MRZ proto key is the document number (9, padded with "<"), its check digit, the date of birth
 * (YYMMDD), its digit, the date of expiry, its digit: 24 characters and a NUL. Keys are double-length DES keys
 * of 16 bytes; the send sequence counter (SSC) is a host integer whose most significant byte goes first on the
 * wire. Every text that a function allocates is freed with OrbFree. */
#ifndef ZEL_MRTD_H
#define ZEL_MRTD_H

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define MRTD_FORMAT_TD1 1u
#define MRTD_FORMAT_TD2 2u
#define MRTD_FORMAT_TD3 3u
#define MRTD_PROTO_KEY_SIZE 25u

/* Image format codes of GetMimeType. */
#define MRTD_IMAGE_JPEG 0u
#define MRTD_IMAGE_JPEG2000 1u

/* ---- Machine readable zone ---- */

/* MRTD_FORMAT_TD1, _TD2 or _TD3 by the document code and the length, or MRTD_MRZ_CHECK_ERROR. */
ZEL_API ZEL_STATUS MRTD_MRZDetectFormat(const char *mrz, size_t len);
/* Detects and validates: TD1 and TD3 are checked in full; a TD2 answers ZEL_NOT_IMPLEMENTED. */
ZEL_API ZEL_STATUS MRTD_MRZCheck(const char *mrz, uint8_t len);
/* The full check of one format; mrz must hold 90 (TD1) or 88 (TD3) characters. */
ZEL_API ZEL_STATUS validate_TD1_format(const char *mrz);
ZEL_API ZEL_STATUS validate_TD3_format(const char *mrz);
/* The check of the 44-character lower line of a TD3, the digit of the optional data included. */
ZEL_API ZEL_STATUS MRTD_MRZSubjacentCheck(const char *line44);
/* The proto key (25 bytes with the NUL) from three NUL-terminated texts; the check digits are computed. */
ZEL_API ZEL_STATUS MRTD_MRZDataToMRZProtoKey(const char *doc_number, const char *date_of_birth,
                                             const char *date_of_expiry, char *key_out);
/* The proto key from the 44-character lower line of a TD3; the digits in the line are not read. */
ZEL_API ZEL_STATUS MRTD_MRZSubjacentToMRZProtoKey(const char *line44, char *key_out);

/* Check digit with the weights 7, 3, 1: digit_out is the value 0 to 9. False on a character outside
 * "A"-"Z", "0"-"9", "<"; a length below 1 is true with digit 0. */
ZEL_API int mrtd_bac_check_digit(const char *data, int32_t len, uint8_t *digit_out);
/* True when *digit is the decimal character of the computed check digit. */
ZEL_API int ValidateCheckDigit(const char *data, int32_t len, const char *digit);
/* True when every one of len characters is a decimal digit (true for length 0). */
ZEL_API int is_array_numeric(const char *data, int32_t len);
/* Every "<" of the NUL-terminated text becomes a space, in place; the Trim form then cuts trailing spaces.
 * Null is ignored. */
ZEL_API void MRZToSpace(char *text);
ZEL_API void MRZToSpaceTrim(char *text);
/* YYMMDD to "DD.MM.YYYY." (12 bytes with the NUL) in dst; the century is "19" when the year is above the
 * pivot, else "20" (24 for a date of birth, 100 for a date of expiry). Answers dst. */
ZEL_API char *MRZToDate(const char *src, char *dst, uint8_t century_pivot);

/* Readable text of an MRZ, one "label: value" line each, lines ended by eol (null: "\n"). The text is
 * allocated (OrbFree); mrz holds 90, 72 or 88 characters. */
ZEL_API ZEL_STATUS MRZSprintfDataTD1Format(char **text, const char *eol, const char *mrz);
ZEL_API ZEL_STATUS MRZSprintfDataTD2Format(char **text, const char *eol, const char *mrz);
ZEL_API ZEL_STATUS MRZSprintfDataTD3Format(char **text, const char *eol, const char *mrz);
/* The MRZ as one JSON object. On entry *out_len is the capacity of out, on success the count of characters
 * written (the NUL not counted). mrz_len is 90 or 88; image_base64 (optional) is added as a data URL. */
ZEL_API ZEL_STATUS MRZDataToJSON(char *out, uint32_t *out_len, const char *mrz, uint8_t mrz_len,
                                 const char *image_base64, uint32_t image_format);
/* Append the JSON members of one format at *pos; mrz points at offset 5 of the MRZ. */
ZEL_API ZEL_STATUS ParseTD1Format(char *out, int32_t capacity, uint32_t *pos, const char *mrz);
ZEL_API ZEL_STATUS ParseTD3Format(char *out, int32_t capacity, uint32_t *pos, const char *mrz);
/* The readable text of an EF.DG1 file (tag 61 holding 5F 1F and the MRZ). */
ZEL_API ZEL_STATUS MRTDParseDG1ToHeap(char **text, const char *eol, const uint8_t *dg1, uint8_t dg1_len);
/* "image/jpeg", "image/jp2" or "application/octet-stream". */
ZEL_API const char *GetMimeType(uint32_t format);

/* ---- Basic Access Control: the host's steps ---- */

/* RND.IFD (8 bytes) and K.IFD (16 bytes) of the process, filled by mrtd_bac_randomize_rndifd_kifd from
 * OpenSSL's generator and rewritten by every authentication. */
ZEL_API extern uint8_t mrtd_bac_rnd_ifd[8];
ZEL_API extern uint8_t mrtd_bac_kifd[16];
ZEL_API void mrtd_bac_randomize_rndifd_kifd(void);

/* K.Enc and K.MAC from the 24 characters of the proto key (SHA-1, then mrtd_bac_kenc_kmac). */
ZEL_API void mrtd_bac_mrz_proto_key_to_kenc_kmac(const char *mrz_proto_key, uint8_t *kenc, uint8_t *kmac);
/* An encryption and a MAC key (16 bytes each, odd parity) from a 16-byte seed. */
ZEL_API void mrtd_bac_kenc_kmac(const uint8_t *kseed, uint8_t *kenc, uint8_t *kmac);
/* E.IFD (32 bytes) and M.IFD (8 bytes) of the EXTERNAL AUTHENTICATE. */
ZEL_API void mrtd_bac_eifd_mifd(const uint8_t *rnd_ifd, const uint8_t *kifd, const uint8_t *rnd_icc,
                                const uint8_t *kenc, const uint8_t *kmac, uint8_t *eifd, uint8_t *mifd);
/* E.IFD and M.IFD in one 40-byte buffer. */
ZEL_API void mrtd_bac_cmd_data(const uint8_t *rnd_ifd, const uint8_t *kifd, const uint8_t *rnd_icc, const uint8_t *kenc,
                               const uint8_t *kmac, uint8_t *out);
/* Deciphers the first 32 bytes of the card's answer: true when they carry RND.IFD; then RND.ICC (8 bytes)
 * and K.ICC (16 bytes) go to the outputs that are not null. The card's MAC is not read. */
ZEL_API int mrtd_bac_challenge_ok(const uint8_t *response, const uint8_t *kenc, const uint8_t *rnd_ifd,
                                  uint8_t *rnd_icc_out, uint8_t *kicc_out);
/* The starting SSC: the last four bytes of RND.ICC, then the last four of RND.IFD. */
ZEL_API uint64_t mrtd_bac_get_ssc(const uint8_t *rnd_icc, const uint8_t *rnd_ifd);
/* Wraps a plain command APDU (4, 5 or more bytes) with DO'87', DO'97' and DO'8E' under the session keys and
 * the SSC as given (the caller steps it). out needs room for apdu_len + 25 bytes. ZEL_PARAMETERS_ERROR when
 * the APDU is shorter than 4 bytes, its Lc runs past apdu_len, or the result does not fit a short APDU. */
ZEL_API ZEL_STATUS mrtd_bac_protected_apdu(const uint8_t *apdu, uint8_t *out, uint32_t apdu_len, uint32_t *out_len,
                                           const uint8_t *ks_enc, const uint8_t *ks_mac, uint64_t ssc);
/* Unwraps a protected response (DO'87' or DO'85', then DO'99', DO'8E' and the status word, or DO'99'
 * alone) into the plain data; out needs room for response_len bytes. ZEL_PARAMETERS_ERROR for a response
 * of another shape, a cipher text that is not whole blocks, or a padding that does not end. */
ZEL_API ZEL_STATUS mrtd_bac_decrypt_response(const uint8_t *response, uint8_t *out, uint32_t response_len,
                                             uint32_t *out_len, const uint8_t *ks_enc);

/* ---- Host cryptography ---- */

ZEL_API void mrtd_crypto_sha1(const uint8_t *in, uint32_t len, uint8_t *out);
/* DES in CBC mode with a zero initial vector over the whole 8-byte blocks of len; in and out may be the same
 * buffer. single DES takes an 8-byte key, triple DES a 16-byte key K1 K2 used as K1, K2, K1. */
ZEL_API void mrtd_crypto_crypt_des(const uint8_t *in, uint8_t *out, uint32_t len, const uint8_t *key8, uint8_t encrypt);
ZEL_API void mrtd_crypto_encrypt_des(const uint8_t *in, uint8_t *out, uint32_t len, const uint8_t *key8);
ZEL_API void mrtd_crypto_decrypt_des(const uint8_t *in, uint8_t *out, uint32_t len, const uint8_t *key8);
ZEL_API void mrtd_crypto_crypt_3des(const uint8_t *in, uint8_t *out, uint32_t len, const uint8_t *key16,
                                    uint8_t encrypt);
ZEL_API void mrtd_crypto_encrypt_3des(const uint8_t *in, uint8_t *out, uint32_t len, const uint8_t *key16);
ZEL_API void mrtd_crypto_decrypt_3des(const uint8_t *in, uint8_t *out, uint32_t len, const uint8_t *key16);
/* Odd parity in every byte, by its lowest bit; *out_len becomes len + len / 8. */
ZEL_API void mrtd_crypto_fix_parity(const uint8_t *in, uint8_t *out, int32_t len, uint32_t *out_len);
/* ISO/IEC 9797-1 padding method 2 (80, then 00 to a multiple of 8); out needs len + 8 bytes. */
ZEL_API void mrtd_crypto_padding(const uint8_t *in, uint8_t *out, int32_t len, uint32_t *out_len);
/* Removes that padding: *out_len is 0 and nothing is copied when no 80 ends the data. */
ZEL_API void mrtd_crypto_padding_remove(const uint8_t *in, uint8_t *out, uint32_t len, uint32_t *out_len);
/* ISO/IEC 9797-1 MAC algorithm 3 (retail MAC) over the whole blocks of in, no padding. */
ZEL_API void mrtd_crypto_mac(const uint8_t *in, uint8_t *out8, int32_t len, const uint8_t *key16);
/* The same over in padded with method 2. */
ZEL_API void mrtd_crypto_mac_padding(const uint8_t *in, uint8_t *out8, uint32_t len, const uint8_t *key16);

/* ---- Data groups ---- */

/* "EF.COM", "EF.DG1" ... "EF.DG16", "EF.SOD" by the tag of a file, else "NOT DEFINED". */
ZEL_API const char *MRTDGetDgName(uint8_t tag);
/* The data group number of a tag (0 for EF.COM, EF.SOD and every tag that is no data group). */
ZEL_API uint8_t MRTDGetDgIndex(uint8_t tag);
/* The tag list (object 5C) of an EF.COM: *tags points into com, no copy. MRTD_EF_COM_WRONG_DATA for a file
 * that is not tag 60, holds an object other than 5F xx and 5C, lists more than 16 tags or has no tag list. */
ZEL_API ZEL_STATUS MRTDGetDGTagListFromCOM(const uint8_t *com, uint32_t com_len, uint8_t **tags, uint8_t *count);

#ifdef __cplusplus
}
#endif
#endif
