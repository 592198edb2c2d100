/* NTAG 424 DNA (nt4h_) and DESFire Light (dfl_): the reader's command family under command 0xB3, and the host
 * checks of what such cards produce for a server: secure dynamic messages (PICC data, encrypted file data,
 * the SDM MAC) and transaction MACs.
 *
 * The commands come in the forms X (a key in the reader, by number), X_pk (the key's 16 bytes) and, where a
 * card lets the command run unauthenticated, X_no_auth; the dfl_ forms address a DESFire Light card. The host
 * checks need no reader: they answer ZEL_OK, or NT4H_CHECK_FAILED when the data does not verify (outputs are
 * written only when it does), or ZEL_PARAMETERS_ERROR for a null pointer. They share the host kit's working
 * state (zel_desfire_crypto.h): one thread at a time. */
#ifndef ZEL_NTAG424_H
#define ZEL_NTAG424_H

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The status of a check that failed: a MAC that does not hold, or input the check cannot serve. */
#define NT4H_CHECK_FAILED 202u

/* Key source byte of the commands. */
#define NT4H_KEY_PROVIDED 0u
#define NT4H_KEY_READER 1u
#define NT4H_KEY_NONE 2u /* the command runs without authentication */

/* Card selector byte. */
#define NT4H_CARD_NTAG424 1u
#define NT4H_CARD_DESFIRE_LIGHT 2u

/* Communication modes. */
#define NT4H_COMM_PLAIN 0u
#define NT4H_COMM_MACED 1u
#define NT4H_COMM_ENCIPHERED 3u

/* SDM options (the 0x01 bit, ASCII encoding, is always set). */
#define NT4H_SDM_UID_MIRROR 0x80u
#define NT4H_SDM_READ_CTR_MIRROR 0x40u
#define NT4H_SDM_READ_CTR_LIMIT 0x20u
#define NT4H_SDM_ENC_FILE_DATA 0x10u
#define NT4H_SDM_TT_STATUS 0x08u

/* The most bytes a settings field holds (a file settings read delivers at most this many). */
#define NT4H_MAX_FILE_SETTINGS 64u

/* What nt4h_change_sdm_file_settings composes into the settings field: the SDM access keys (14 free, 15 never) and the offsets that
 * apply to them (see docs/behaviour.md, "NTAG 424 DNA and DESFire Light"). */
typedef struct nt4h_sdm_settings {
    uint8_t uid_enable, sdm_read_ctr_enable, sdm_read_ctr_limit_enable, sdm_enc_file_data_enable;
    uint8_t tt_status_enable; /* only nt4h_tt_change_sdm_file_settings sends it */
    uint8_t meta_data_key_no, file_data_read_key_no, read_ctr_key_no;
    uint32_t uid_offset, sdm_read_ctr_offset, picc_data_offset, mac_input_offset;
    uint32_t enc_offset, enc_length, mac_offset, read_ctr_limit;
} nt4h_sdm_settings;

/* Secure dynamic messaging. uid is 7 bytes, keys 16, sdm_mac 8; the read counter is the 24-bit value. */
ZEL_API ZEL_STATUS nt4h_check_sdm_mac(uint32_t sdm_read_counter, const uint8_t *uid, const uint8_t *auth_key,
                                      const uint8_t *mac_in_data, uint32_t mac_in_len, const uint8_t *sdm_mac);
/* Deciphers file_data in place; a length that is not whole blocks, or above 240, leaves it untouched. */
ZEL_API ZEL_STATUS nt4h_decrypt_sdm_enc_file_data(uint32_t sdm_read_counter, const uint8_t *uid,
                                                  const uint8_t *auth_key, uint8_t *file_data, uint32_t file_data_len);
/* Deciphers the 16 bytes of picc_data in place and reads them: the tag byte, the UID (7 bytes, zeros when
 * the data holds none) and the read counter (3 bytes, least significant first; zeros without one). */
ZEL_API ZEL_STATUS nt4h_decrypt_picc_data(uint8_t *picc_data, const uint8_t *auth_key, uint8_t *picc_data_tag,
                                          uint8_t *uid, uint8_t *sdm_read_cnt);

/* Transaction MACs. reader_id and prev_enc_reader_id are 16 bytes or null; trans_mac_value 8 bytes; with a
 * previous encrypted reader id, prev_reader_id (16 bytes) receives it deciphered. */
ZEL_API ZEL_STATUS dfl_check_credit_value_transaction_mac(uint8_t file_no, uint32_t value, uint32_t trans_mac_counter,
                                                          const uint8_t *uid, const uint8_t *trans_mac_key,
                                                          const uint8_t *reader_id, const uint8_t *prev_enc_reader_id,
                                                          const uint8_t *trans_mac_value, uint8_t *prev_reader_id);
ZEL_API ZEL_STATUS dfl_check_debit_value_transaction_mac(uint8_t file_no, uint32_t value, uint32_t trans_mac_counter,
                                                         const uint8_t *uid, const uint8_t *trans_mac_key,
                                                         const uint8_t *reader_id, const uint8_t *prev_enc_reader_id,
                                                         const uint8_t *trans_mac_value, uint8_t *prev_reader_id);
ZEL_API ZEL_STATUS dfl_check_write_record_transaction_mac(uint8_t file_no, uint32_t offset, uint32_t size,
                                                          const uint8_t *data, uint32_t trans_mac_counter,
                                                          const uint8_t *uid, const uint8_t *trans_mac_key,
                                                          const uint8_t *reader_id, const uint8_t *prev_enc_reader_id,
                                                          const uint8_t *trans_mac_value, uint8_t *prev_reader_id);
ZEL_API ZEL_STATUS desfire_check_write_record_transaction_mac(uint8_t file_no, uint32_t offset, uint32_t size,
                                                              const uint8_t *data, uint32_t trans_mac_counter,
                                                              const uint8_t *uid, const uint8_t *trans_mac_key,
                                                              const uint8_t *reader_id,
                                                              const uint8_t *prev_enc_reader_id,
                                                              const uint8_t *trans_mac_value, uint8_t *prev_reader_id);
ZEL_API ZEL_STATUS desfire_check_clear_record_transaction_mac(uint8_t file_no, uint32_t trans_mac_counter,
                                                              const uint8_t *uid, const uint8_t *trans_mac_key,
                                                              const uint8_t *reader_id,
                                                              const uint8_t *prev_enc_reader_id,
                                                              const uint8_t *trans_mac_value, uint8_t *prev_reader_id);

#ifdef __cplusplus
}
#endif

#include "zel_ntag424_forms.h"

#endif
