/* The host's DESFire cryptographic kit: one key record, CMAC, CBC chaining in the DESFire send and receive
 * manner, CRC-32 and CRC_A, padding arithmetic, and the treatment of a message before sending and after
 * receiving in the enciphered communication mode.
 *
 * The schedules, working buffers and CRC state live once in the library: one thread at a time, and a DES
 * record's schedules hold until another record is built or refreshed (update_key_schedules brings them
 * back). */
#ifndef ZEL_DESFIRE_CRYPTO_H
#define ZEL_DESFIRE_CRYPTO_H

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Key types of the host key record (desfire_key.type). The reader's wire numbering is another one: see
 * ZEL_DESFIRE_WIRE_* in zel_desfire.h. */
#define DESFIRE_HOST_KEY_DES 0u
#define DESFIRE_HOST_KEY_2K3DES 1u
#define DESFIRE_HOST_KEY_3K3DES 2u
#define DESFIRE_HOST_KEY_AES 3u

typedef struct desfire_key {
    uint8_t data[24];     /* DES: its 8 bytes twice; 2K3DES 16, 3K3DES 24, AES 16 */
    uint32_t type;        /* DESFIRE_HOST_KEY_* */
    uint8_t cmac_sk1[24]; /* CMAC subkeys, filled by cmac_generate_subkeys_nl */
    uint8_t cmac_sk2[24];
    uint8_t aes_version;
} desfire_key;

/* Communication settings word. */
#define DESFIRE_COMM_PLAIN 0x0000u
#define DESFIRE_COMM_ENCIPHERED 0x0003u
#define DESFIRE_ENC_COMMAND 0x1000u   /* the command itself is enciphered */
#define DESFIRE_NO_CRC 0x2000u        /* send: no CRC; receive: not the last piece of a message */
#define DESFIRE_CRC_CONTINUES 0x4000u /* receive: the CRC runs on from the earlier pieces */

/* Chaining direction and operation. */
#define DESFIRE_SEND 0u
#define DESFIRE_RECEIVE 1u
#define DESFIRE_ENCIPHER 0u
#define DESFIRE_DECIPHER 1u

/* Results of the message routines. */
#define DESFIRE_CRYPTO_OK 0u
#define DESFIRE_CRYPTO_NOT_SERVED 1u /* a mode this kit does not offer, or a message that does not verify */
#define DESFIRE_CRYPTO_TOO_LONG 126u /* a message above 184 bytes */
#define DESFIRE_CRYPTO_MAX_MESSAGE 184u

/* Key records. The DES forms adjust the parity bits in the caller's buffer too: DES clears the lowest bit
 * of all eight bytes; 2K3DES clears it in the first eight and sets it in the second eight; 3K3DES clears it
 * in the first eight only. */
ZEL_API void des_key_new(desfire_key *key, uint8_t *value);
ZEL_API void desfire_2k3des_key_new(desfire_key *key, uint8_t *value);
ZEL_API void desfire_3k3des_key_new(desfire_key *key, uint8_t *value);
ZEL_API void aes_key_new_with_version(desfire_key *key, const uint8_t *value, uint8_t version);
ZEL_API void update_key_schedules(desfire_key *key);
/* The session key from the two 16-byte randoms. Any record but AES becomes a DES record. */
ZEL_API void session_key_new(const uint8_t *rnda, const uint8_t *rndb, desfire_key *key);

/* CMAC (AES and DES records only). ivect (16 bytes) carries the chain and ends as the CMAC; cmac receives
 * block size bytes. A length whose padding reaches 256 leaves the IV as it came. */
ZEL_API void cmac_generate_subkeys_nl(desfire_key *key);
ZEL_API void cmac_nl(desfire_key *key, uint8_t *ivect, const uint8_t *message, uint8_t length, uint8_t *cmac);

/* One AES block under the 16 key bytes: direction DESFIRE_SEND or DESFIRE_RECEIVE chain with ivect, any
 * other direction is the bare operation. */
ZEL_API void cypher_single_block(const uint8_t *key, uint8_t *data, uint8_t *ivect, uint8_t direction,
                                 uint8_t operation);
/* AES over whole 16-byte blocks in place; 0, or ZEL_PARAMETERS_ERROR for a length that is not a whole
 * number of blocks (nothing is touched then). */
ZEL_API uint32_t aes_blocks_chained(desfire_key *key, uint8_t *ivect, uint8_t *data, uint8_t length, uint8_t direction,
                                    uint8_t operation);
/* One DES block with the first schedule (DES records only; others pass the block on unciphered). */
ZEL_API void cypher_single_block_des(desfire_key *key, uint8_t *data, uint8_t *ivect, uint8_t direction,
                                     uint8_t operation);
/* DES over whole 8-byte blocks; operation 0 or 3 enciphers, 1 or 2 deciphers, others do no ciphering.
 * 0, or ZEL_PARAMETERS_ERROR for a length that is not a whole number of blocks. */
ZEL_API uint32_t des_blocks_chained(desfire_key *key, uint8_t *ivect, uint8_t *data, uint8_t length, uint8_t direction,
                                    uint8_t operation);

/* A command as it goes on the wire: offset bytes stay clear, the rest (with CRC_A unless DESFIRE_NO_CRC)
 * is padded and enciphered in send direction. out holds offset + the enciphered length (at most 203). */
ZEL_API uint32_t crypto_preprocess_data_nl(desfire_key *key, uint8_t *ivect, const uint8_t *data, uint8_t *length,
                                           uint8_t offset, uint32_t settings, uint8_t *out);
/* A received message (data then the status byte) deciphered in receive direction and its CRC-32 found and
 * checked; *length becomes the data length. out holds *length + 4 bytes. */
ZEL_API uint32_t crypto_postprocess_data_nl(desfire_key *key, uint8_t *ivect, const uint8_t *data, uint8_t *length,
                                            uint32_t settings, uint8_t *out);

/* CRC-32 of the DESFire kind: reflected polynomial 0xEDB88320, start all ones, no final inversion. With
 * restart bit 0 set it starts afresh, otherwise from the running value; the result is kept as the running
 * value. */
ZEL_API void desfire_crc32(const uint8_t *data, uint8_t length, uint32_t *crc, uint8_t restart);
/* Appends the CRC-32 of data[0..length) behind it, four bytes little endian. */
ZEL_API void desfire_crc32_append(uint8_t *data, uint8_t length);
ZEL_API void desfire_crc32_byte(uint32_t *crc, uint8_t value);
/* CRC_A (start 0x6363). The loop runs at least once: a length of 0 covers 256 bytes. */
ZEL_API void iso14443a_crc_nl(const uint8_t *data, uint8_t length, uint16_t *crc, uint8_t restart);
ZEL_API void iso14443a_crc_append_nl(uint8_t *data, uint8_t length);

ZEL_API uint32_t padded_data_length(uint8_t length, uint8_t block_size);
ZEL_API uint32_t enciphered_data_length_des_nl(const desfire_key *key, uint8_t length, uint32_t settings);

#ifdef __cplusplus
}
#endif
#endif
