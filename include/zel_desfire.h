/* DESFire cards through the reader's own DESFire engine: one frame names a key, an application and an
 * operation; the reader authenticates, runs the card commands and reports the card's outcome.
 *
 * Every operation returns the status of the exchange with the reader, and the card's outcome in the last two
 * arguments: card_status (3001, CARD_OPERATION_OK, is success; 3072 plus a DESFire status byte is the card's
 * own refusal) and exec_time (the reader's time for the operation).
 *
 * Key forms of an operation Op:
 *   Zel_int_DesfireOp, Zel_int_DesfireOp_aes        a key in the reader, AES (the two are the same)
 *   Zel_int_DesfireOp_des, _2k3des, _3k3des         a key in the reader of that type
 *   Zel_SAM_DesfireOpAesAuth, Op3k3desAuth, OpDesAuth, Op2k3desAuth   a key in the SAM
 *   Zel_int_DesfireOp_PK, _aes_PK, _des_PK, _2k3des_PK, _3k3des_PK    the key bytes given (first argument)
 *   Zel_int_DesfireOp_no_auth                       no authentication (the key argument is gone)
 * Extra parts: _iso (ISO identifiers; the SAM forms end in Iso), _iso_sdm, _iso_ascd, _TransMac (the card's
 * transaction MAC data comes back), _app_master (deleting an application with its own master key) and, for
 * the record clearing, _2 at the very end (with the AID key number).
 *
 * Access rights are given as four key numbers (read, write, read and write, change), each masked to four
 * bits: 0 to 13 a key, 14 free access, 15 never. */
#ifndef ZEL_DESFIRE_H
#define ZEL_DESFIRE_H

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Key types as the reader numbers them on the wire (the host key record numbers them otherwise:
 * DESFIRE_HOST_KEY_* in zel_desfire_crypto.h). */
#define ZEL_DESFIRE_WIRE_AES 0u
#define ZEL_DESFIRE_WIRE_3K3DES 1u
#define ZEL_DESFIRE_WIRE_DES 2u
#define ZEL_DESFIRE_WIRE_2K3DES 3u

/* Where the key of an operation is: in the frame, in the reader's store, in the SAM. */
#define ZEL_DESFIRE_KEY_PROVIDED 0u
#define ZEL_DESFIRE_KEY_READER 1u
#define ZEL_DESFIRE_KEY_SAM 2u

/* The key number the public forms pass for "the bytes given" in the key changing operations. */
#define ZEL_DESFIRE_KEY_GIVEN 237u

/* The most application ids one reply can carry. */
#define ZEL_DESFIRE_MAX_AIDS 83u

/* File types. */
#define ZEL_DESFIRE_FILE_STANDARD 0u
#define ZEL_DESFIRE_FILE_BACKUP 1u
#define ZEL_DESFIRE_FILE_VALUE 2u
#define ZEL_DESFIRE_FILE_LINEAR_RECORD 3u
#define ZEL_DESFIRE_FILE_CYCLIC_RECORD 4u
#define ZEL_DESFIRE_FILE_TRANSACTION_MAC 5u

/* Communication settings of a file: plain, MACed, enciphered. */
#define ZEL_DESFIRE_COMM_PLAIN 0u
#define ZEL_DESFIRE_COMM_MACED 1u
#define ZEL_DESFIRE_COMM_ENCIPHERED 3u

/* What DesfireGetFileSettings reads; the fields of other file types stay 0. */
typedef struct zel_desfire_file_settings {
    uint8_t file_type;
    uint8_t communication_settings; /* 2 bits */
    uint8_t read_key_no, write_key_no, read_write_key_no, change_key_no;
    uint32_t file_size;               /* standard and backup */
    int32_t lower_limit, upper_limit; /* value */
    uint32_t limited_credit_value;
    uint8_t limited_credit_enabled;                     /* 1 bit */
    uint32_t record_size, max_records, current_records; /* linear and cyclic record */
    uint8_t tmac_key_type;                              /* 2 bits */
    uint8_t tmac_key_version;
} zel_desfire_file_settings;

/* What DesfireGetFileSettingsSdm reads of a standard file: its settings, and with SDM on, the SDM settings.
 * A field the card did not send stays 0. A file of another type gives card_status
 * ZEL_DESFIRE_NOT_STANDARD_FILE. */
#define ZEL_DESFIRE_NOT_STANDARD_FILE 3011u
#define ZEL_DESFIRE_SDM_UID_MIRROR 0x80u
#define ZEL_DESFIRE_SDM_READ_CTR_MIRROR 0x40u
#define ZEL_DESFIRE_SDM_READ_CTR_LIMIT 0x20u
#define ZEL_DESFIRE_SDM_ENC_FILE_DATA 0x10u
#define ZEL_DESFIRE_SDM_TT_STATUS 0x08u
typedef struct zel_desfire_sdm_file_settings {
    uint8_t file_type;
    uint8_t communication_settings; /* 2 bits */
    uint8_t sdm_enabled;            /* 1 bit */
    uint8_t read_key_no, write_key_no, read_write_key_no, change_key_no;
    uint32_t file_size;
    uint8_t sdm_options;                                         /* ZEL_DESFIRE_SDM_* bits, and 0x01 */
    uint8_t meta_read_key_no, file_read_key_no, read_ctr_key_no; /* 14 plain, 15 none */
    uint32_t uid_offset, read_ctr_offset;                        /* meta read key 14, with the mirror */
    uint32_t picc_data_offset;                                   /* meta read key 0 to 13 */
    uint32_t mac_input_offset, mac_offset;                       /* file read key not 15 */
    uint32_t enc_offset, enc_length;                             /* and ZEL_DESFIRE_SDM_ENC_FILE_DATA */
    uint32_t read_ctr_limit;                                     /* ZEL_DESFIRE_SDM_READ_CTR_LIMIT */
} zel_desfire_sdm_file_settings;

/* DesfireSetConfigurationEx sends the card's SetConfiguration with an option byte and its data, at the card
 * level when aid is 0, else in that application. The most data it carries: */
#define ZEL_DESFIRE_MAX_CONFIG_DATA 200u

/* The SDM settings as the caller composed them (communication mode with 0x40, access rights, SDM options,
 * SDM access rights, offsets), sdm_settings_len bytes, at most ZEL_DESFIRE_MAX_SDM_SETTINGS. */
#define ZEL_DESFIRE_MAX_SDM_SETTINGS 200u

/* Changing keys: the key bytes of the _PK forms authenticate; new and old keys are given as bytes, except in
 * _A and the SAM forms, which name them by their number in the reader or SAM.
 *
 * Fixed operations, one form each.
 * Zel_int_DesfireChangeKey: the general key change. A key number 0 to 15 names a key in the reader, a
 * number above 15 (ZEL_DESFIRE_KEY_GIVEN) the bytes given; key types in the wire numbering. With flag set
 * the keys are named in the SAM and no key bytes go out.
 * Zel_int_DesfireWriteAesKey, Zel_int_DesfireWriteKey: put a key in the reader's store; the result is the
 * reader's answer byte. DES_to_AES_key_type and AES_to_DES_key_type turn the card's all-zero master key
 * into the all-zero key of the other type: ZEL_OK when the card did it, else ZEL_AUTH_ERROR.
 *
 * Every form of every operation is declared in zel_desfire_forms.h, generated from api/desfire.forms. */
#include "zel_desfire_forms.h"

#ifdef __cplusplus
}
#endif
#endif
