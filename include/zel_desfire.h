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

#include "zel_forms.h"

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
    uint32_t file_size;             /* standard and backup */
    int32_t lower_limit, upper_limit; /* value */
    uint32_t limited_credit_value;
    uint8_t limited_credit_enabled; /* 1 bit */
    uint32_t record_size, max_records, current_records; /* linear and cyclic record */
    uint8_t tmac_key_type;          /* 2 bits */
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
    uint8_t sdm_options;            /* ZEL_DESFIRE_SDM_* bits, and 0x01 */
    uint8_t meta_read_key_no, file_read_key_no, read_ctr_key_no; /* 14 plain, 15 none */
    uint32_t uid_offset, read_ctr_offset;  /* meta read key 14, with the mirror */
    uint32_t picc_data_offset;             /* meta read key 0 to 13 */
    uint32_t mac_input_offset, mac_offset; /* file read key not 15 */
    uint32_t enc_offset, enc_length;       /* and ZEL_DESFIRE_SDM_ENC_FILE_DATA */
    uint32_t read_ctr_limit;               /* ZEL_DESFIRE_SDM_READ_CTR_LIMIT */
} zel_desfire_sdm_file_settings;

/* DesfireSetConfigurationEx sends the card's SetConfiguration with an option byte and its data, at the card
 * level when aid is 0, else in that application. The most data it carries: */
#define ZEL_DESFIRE_MAX_CONFIG_DATA 200u

/* ---- Form generators. A row macro R(OP, Name, Impl, Key, KeyParams, KeyArgs, Params, Args) receives each
 * form; ZDF_R_PUB turns it into an OP row of a family list. Key is the key reference the implementation
 * gets, in the implementation's own terms. */
#define ZDF_ID(...) __VA_ARGS__
#define ZDF_R_PUB(OP, Name, Impl, Key, KP, KA, P, A) OP(ZEL_STATUS, Name, (ZDF_ID KP ZDF_ID P), (ZDF_ID KA ZDF_ID A))

#define ZDF_KEY_RD(type) (ZEL_DESFIRE_KEY_READER, key_nr, 0, type, 1)
#define ZDF_KEY_PK(type) (ZEL_DESFIRE_KEY_PROVIDED, 0, key, type, 1)
#define ZDF_KEY_SAM(type) (ZEL_DESFIRE_KEY_SAM, key_nr, 0, type, 1)
#define ZDF_KEY_NONE (ZEL_DESFIRE_KEY_PROVIDED, 0, 0, ZEL_DESFIRE_WIRE_AES, 0)
#define ZDF_KP_NR (uint8_t key_nr, )
#define ZDF_KA_NR (key_nr, )
#define ZDF_KP_PK (const uint8_t *key, )
#define ZDF_KA_PK (key, )

/* S stem, X suffix of the int names, SX and SY the parts around AesAuth in the SAM names, Z the very end. */
#define ZDF_F_PLAIN(R, OP, S, X, SX, SY, Z, I, P, A) \
    R(OP, Zel_int_##S##X##Z, I, ZDF_KEY_RD(ZEL_DESFIRE_WIRE_AES), ZDF_KP_NR, ZDF_KA_NR, P, A)
#define ZDF_F_TYPED(R, OP, S, X, SX, SY, Z, I, P, A)                                                       \
    R(OP, Zel_int_##S##X##_aes##Z, I, ZDF_KEY_RD(ZEL_DESFIRE_WIRE_AES), ZDF_KP_NR, ZDF_KA_NR, P, A)          \
    R(OP, Zel_int_##S##X##_des##Z, I, ZDF_KEY_RD(ZEL_DESFIRE_WIRE_DES), ZDF_KP_NR, ZDF_KA_NR, P, A)          \
    R(OP, Zel_int_##S##X##_2k3des##Z, I, ZDF_KEY_RD(ZEL_DESFIRE_WIRE_2K3DES), ZDF_KP_NR, ZDF_KA_NR, P, A)    \
    R(OP, Zel_int_##S##X##_3k3des##Z, I, ZDF_KEY_RD(ZEL_DESFIRE_WIRE_3K3DES), ZDF_KP_NR, ZDF_KA_NR, P, A)
#define ZDF_F_SAM(R, OP, S, X, SX, SY, Z, I, P, A)                                                            \
    R(OP, Zel_SAM_##S##SX##AesAuth##SY##Z, I, ZDF_KEY_SAM(ZEL_DESFIRE_WIRE_AES), ZDF_KP_NR, ZDF_KA_NR, P, A)      \
    R(OP, Zel_SAM_##S##SX##3k3desAuth##SY##Z, I, ZDF_KEY_SAM(ZEL_DESFIRE_WIRE_3K3DES), ZDF_KP_NR, ZDF_KA_NR, P, A) \
    R(OP, Zel_SAM_##S##SX##DesAuth##SY##Z, I, ZDF_KEY_SAM(ZEL_DESFIRE_WIRE_DES), ZDF_KP_NR, ZDF_KA_NR, P, A)      \
    R(OP, Zel_SAM_##S##SX##2k3desAuth##SY##Z, I, ZDF_KEY_SAM(ZEL_DESFIRE_WIRE_2K3DES), ZDF_KP_NR, ZDF_KA_NR, P, A)
#define ZDF_F_PK(R, OP, S, X, SX, SY, Z, I, P, A) \
    R(OP, Zel_int_##S##X##_PK##Z, I, ZDF_KEY_PK(ZEL_DESFIRE_WIRE_AES), ZDF_KP_PK, ZDF_KA_PK, P, A)
#define ZDF_F_TYPED_PK(R, OP, S, X, SX, SY, Z, I, P, A)                                                      \
    R(OP, Zel_int_##S##X##_aes_PK##Z, I, ZDF_KEY_PK(ZEL_DESFIRE_WIRE_AES), ZDF_KP_PK, ZDF_KA_PK, P, A)         \
    R(OP, Zel_int_##S##X##_des_PK##Z, I, ZDF_KEY_PK(ZEL_DESFIRE_WIRE_DES), ZDF_KP_PK, ZDF_KA_PK, P, A)         \
    R(OP, Zel_int_##S##X##_2k3des_PK##Z, I, ZDF_KEY_PK(ZEL_DESFIRE_WIRE_2K3DES), ZDF_KP_PK, ZDF_KA_PK, P, A)   \
    R(OP, Zel_int_##S##X##_3k3des_PK##Z, I, ZDF_KEY_PK(ZEL_DESFIRE_WIRE_3K3DES), ZDF_KP_PK, ZDF_KA_PK, P, A)
#define ZDF_F_NOAUTH(R, OP, S, X, SX, SY, Z, I, P, A) R(OP, Zel_int_##S##X##_no_auth##Z, I, ZDF_KEY_NONE, (), (), P, A)
#define ZDF_F_AES_ONLY(R, OP, S, X, SX, SY, Z, I, P, A)                                                    \
    R(OP, Zel_int_##S##X##_aes##Z, I, ZDF_KEY_RD(ZEL_DESFIRE_WIRE_AES), ZDF_KP_NR, ZDF_KA_NR, P, A)          \
    R(OP, Zel_int_##S##X##_aes_PK##Z, I, ZDF_KEY_PK(ZEL_DESFIRE_WIRE_AES), ZDF_KP_PK, ZDF_KA_PK, P, A)       \
    R(OP, Zel_SAM_##S##SX##AesAuth##SY##Z, I, ZDF_KEY_SAM(ZEL_DESFIRE_WIRE_AES), ZDF_KP_NR, ZDF_KA_NR, P, A)

/* The sets of forms. */
#define ZDF_ALL15(...) ZDF_F_PLAIN(__VA_ARGS__) ZDF_F_TYPED(__VA_ARGS__) ZDF_F_SAM(__VA_ARGS__) \
    ZDF_F_PK(__VA_ARGS__) ZDF_F_TYPED_PK(__VA_ARGS__) ZDF_F_NOAUTH(__VA_ARGS__)
#define ZDF_NO_NOAUTH(...) ZDF_F_PLAIN(__VA_ARGS__) ZDF_F_TYPED(__VA_ARGS__) ZDF_F_SAM(__VA_ARGS__) \
    ZDF_F_PK(__VA_ARGS__) ZDF_F_TYPED_PK(__VA_ARGS__)
#define ZDF_NO_PLAIN(...) ZDF_F_TYPED(__VA_ARGS__) ZDF_F_SAM(__VA_ARGS__) ZDF_F_PK(__VA_ARGS__) \
    ZDF_F_TYPED_PK(__VA_ARGS__) ZDF_F_NOAUTH(__VA_ARGS__)
#define ZDF_NO_PLAIN_PK(...) ZDF_F_TYPED(__VA_ARGS__) ZDF_F_SAM(__VA_ARGS__) ZDF_F_TYPED_PK(__VA_ARGS__) \
    ZDF_F_NOAUTH(__VA_ARGS__)
#define ZDF_NO_PLAIN_NOAUTH(...) ZDF_F_TYPED(__VA_ARGS__) ZDF_F_SAM(__VA_ARGS__) ZDF_F_PK(__VA_ARGS__) \
    ZDF_F_TYPED_PK(__VA_ARGS__)
#define ZDF_TYPED_SAM_TYPEDPK(...) ZDF_F_TYPED(__VA_ARGS__) ZDF_F_SAM(__VA_ARGS__) ZDF_F_TYPED_PK(__VA_ARGS__)
#define ZDF_ISO(...) ZDF_F_TYPED(__VA_ARGS__) ZDF_F_TYPED_PK(__VA_ARGS__) ZDF_F_NOAUTH(__VA_ARGS__) \
    ZDF_F_SAM(__VA_ARGS__)

#define ZDF_CS uint16_t *card_status, uint16_t *exec_time
#define ZDF_CA card_status, exec_time
#define ZDF_ACCESS_P uint8_t read_key_no, uint8_t write_key_no, uint8_t read_write_key_no, uint8_t change_key_no
#define ZDF_ACCESS_A read_key_no, write_key_no, read_write_key_no, change_key_no
#define ZDF_TMAC_P \
    uint8_t use_reader_id, uint8_t *reader_id, uint8_t *prev_enc_reader_id, uint32_t *trans_mac_cnt, uint8_t *trans_mac_value
#define ZDF_TMAC_A use_reader_id, reader_id, prev_enc_reader_id, trans_mac_cnt, trans_mac_value

/* ---- Card, applications and keys. */
#define ZDF_LIST_CARD(R, OP)                                                                                  \
    ZDF_NO_NOAUTH(R, OP, DesfireFormatCard, , , , , zdf_format_card, (ZDF_CS), (ZDF_CA))                       \
    ZDF_NO_NOAUTH(R, OP, DesfireSetConfiguration, , , , , zdf_set_configuration,                               \
                  (uint8_t random_uid, uint8_t format_disable, ZDF_CS), (random_uid, format_disable, ZDF_CA))  \
    ZDF_NO_NOAUTH(R, OP, GetDesfireUid, , , , , zdf_get_uid,                                                   \
                  (uint32_t aid, uint8_t aid_key_nr, uint8_t *card_uid, uint8_t *card_uid_len, ZDF_CS),        \
                  (aid, aid_key_nr, card_uid, card_uid_len, ZDF_CA))                                           \
    ZDF_NO_NOAUTH(R, OP, DesfireSetConfigurationEx, , , , , zdf_set_configuration_ex,                          \
                  (uint32_t aid, uint8_t option, const uint8_t *data, uint8_t data_length, ZDF_CS),            \
                  (aid, option, data, data_length, ZDF_CA))                                                    \
    ZDF_F_AES_ONLY(R, OP, DesfireSetTransactionTimer, , , , , zdf_set_transaction_timer,                      \
                   (uint8_t timer_value, ZDF_CS), (timer_value, ZDF_CA))                                       \
    ZDF_ALL15(R, OP, DesfireGetKeySettings, , , , , zdf_get_key_settings,                                      \
              (uint32_t aid, uint8_t *setting, uint8_t *max_key_no, ZDF_CS), (aid, setting, max_key_no, ZDF_CA)) \
    ZDF_NO_NOAUTH(R, OP, DesfireChangeKeySettings, , , , , zdf_change_key_settings,                            \
                  (uint32_t aid, uint8_t setting, ZDF_CS), (aid, setting, ZDF_CA))                             \
    ZDF_ALL15(R, OP, DesfireGetApplicationIds, , , , , zdf_get_application_ids,                                \
              (uint32_t *aid_list, uint8_t *number_of_aid, ZDF_CS), (aid_list, number_of_aid, ZDF_CA))

#define ZDF_APP_P uint32_t aid_nr, uint8_t setting, uint8_t max_key_no
#define ZDF_APP_A aid_nr, setting, max_key_no
#define ZDF_APP_ISO_P ZDF_APP_P, uint16_t iso_df_id, const uint8_t *df_name, uint8_t df_name_len
#define ZDF_APP_ISO_A ZDF_APP_A, iso_df_id, df_name, df_name_len

#define ZDF_LIST_APPS(R, OP)                                                                                   \
    ZDF_ALL15(R, OP, DesfireCreateAesApplication, , , , , zdf_create_aes_app, (ZDF_APP_P, ZDF_CS),             \
              (ZDF_APP_A, ZDF_CA))                                                                             \
    ZDF_NO_PLAIN_PK(R, OP, DesfireCreateDesApplication, , , , , zdf_create_des_app, (ZDF_APP_P, ZDF_CS),       \
                    (ZDF_APP_A, ZDF_CA))                                                                       \
    ZDF_NO_PLAIN_PK(R, OP, DesfireCreate3k3desApplication, , , , , zdf_create_3k3des_app, (ZDF_APP_P, ZDF_CS), \
                    (ZDF_APP_A, ZDF_CA))                                                                       \
    ZDF_ISO(R, OP, DesfireCreateAesApplication, _iso, , Iso, , zdf_create_aes_app_iso, (ZDF_APP_ISO_P, ZDF_CS), \
            (ZDF_APP_ISO_A, ZDF_CA))                                                                           \
    ZDF_ISO(R, OP, DesfireCreateDesApplication, _iso, , Iso, , zdf_create_des_app_iso, (ZDF_APP_ISO_P, ZDF_CS), \
            (ZDF_APP_ISO_A, ZDF_CA))                                                                           \
    ZDF_ISO(R, OP, DesfireCreate3k3desApplication, _iso, , Iso, , zdf_create_3k3des_app_iso,                   \
            (ZDF_APP_ISO_P, ZDF_CS), (ZDF_APP_ISO_A, ZDF_CA))                                                  \
    ZDF_F_AES_ONLY(R, OP, DesfireCreateAesApplication, _iso_ascd, , IsoAscd, , zdf_create_aes_app_ascd,        \
                   (ZDF_APP_ISO_P, ZDF_CS), (ZDF_APP_ISO_A, ZDF_CA))                                           \
    ZDF_NO_NOAUTH(R, OP, DesfireDeleteApplication, , , , , zdf_delete_app, (uint32_t aid, ZDF_CS), (aid, ZDF_CA)) \
    ZDF_NO_PLAIN_NOAUTH(R, OP, DesfireDeleteApplication, _app_master, _app_master, , , zdf_delete_app_master,  \
                        (uint32_t aid, ZDF_CS), (aid, ZDF_CA))

/* ---- Files. */
#define ZDF_STD_P uint32_t aid, uint8_t file_id, uint32_t file_size, ZDF_ACCESS_P, uint8_t communication_settings
#define ZDF_STD_A aid, file_id, file_size, ZDF_ACCESS_A, communication_settings
#define ZDF_REC_P                                                                                              \
    uint32_t aid, uint8_t file_id, uint32_t record_size, uint32_t max_rec_no, ZDF_ACCESS_P, uint8_t communication_settings
#define ZDF_REC_A aid, file_id, record_size, max_rec_no, ZDF_ACCESS_A, communication_settings

/* The SDM settings as the caller composed them (communication mode with 0x40, access rights, SDM options,
 * SDM access rights, offsets), sdm_settings_len bytes, at most ZEL_DESFIRE_MAX_SDM_SETTINGS. */
#define ZEL_DESFIRE_MAX_SDM_SETTINGS 200u
#define ZDF_SDM_P uint32_t aid, uint8_t file_id, uint8_t communication_settings, ZDF_ACCESS_P, \
    const uint8_t *sdm_settings, uint8_t sdm_settings_len, ZDF_CS
#define ZDF_SDM_A aid, file_id, communication_settings, ZDF_ACCESS_A, sdm_settings, sdm_settings_len, ZDF_CA

#define ZDF_LIST_FILES(R, OP)                                                                                  \
    ZDF_ALL15(R, OP, DesfireCreateStdDataFile, , , , , zdf_create_std_file, (ZDF_STD_P, ZDF_CS), (ZDF_STD_A, ZDF_CA)) \
    ZDF_ISO(R, OP, DesfireCreateStdDataFile, _iso, , Iso, , zdf_create_std_file_iso,                            \
            (ZDF_STD_P, uint16_t iso_file_id, ZDF_CS), (ZDF_STD_A, iso_file_id, ZDF_CA))                        \
    ZDF_F_AES_ONLY(R, OP, DesfireCreateStdDataFile, _iso_sdm, , IsoSdm, , zdf_create_std_file_sdm,             \
                   (ZDF_STD_P, uint16_t iso_file_id, ZDF_CS), (ZDF_STD_A, iso_file_id, ZDF_CA))                 \
    ZDF_NO_PLAIN(R, OP, DesfireCreateBackupDataFile, , , , , zdf_create_backup_file, (ZDF_STD_P, ZDF_CS),      \
                 (ZDF_STD_A, ZDF_CA))                                                                          \
    ZDF_ALL15(R, OP, DesfireCreateValueFile, , , , , zdf_create_value_file,                                    \
              (uint32_t aid, uint8_t file_id, int32_t lower_limit, int32_t upper_limit, int32_t value,          \
               uint8_t limited_credit_enabled, ZDF_ACCESS_P, uint8_t communication_settings, ZDF_CS),          \
              (aid, file_id, lower_limit, upper_limit, value, limited_credit_enabled, ZDF_ACCESS_A,            \
               communication_settings, ZDF_CA))                                                                \
    ZDF_NO_PLAIN_PK(R, OP, DesfireCreateLinearRecordFile, , , , , zdf_create_linear_file, (ZDF_REC_P, ZDF_CS), \
                    (ZDF_REC_A, ZDF_CA))                                                                       \
    ZDF_NO_PLAIN_PK(R, OP, DesfireCreateCyclicRecordFile, , , , , zdf_create_cyclic_file, (ZDF_REC_P, ZDF_CS), \
                    (ZDF_REC_A, ZDF_CA))                                                                       \
    ZDF_TYPED_SAM_TYPEDPK(R, OP, DesfireCreateTransMacFile, , , , , zdf_create_tmac_file,                      \
                          (uint32_t aid, uint8_t file_id, uint8_t read_key_no, uint8_t commit_reader_id_key_no, \
                           uint8_t change_key_no, uint8_t communication_settings, const uint8_t *trans_mac_key, \
                           ZDF_CS),                                                                            \
                          (aid, file_id, read_key_no, commit_reader_id_key_no, change_key_no,                  \
                           communication_settings, trans_mac_key, ZDF_CA))                                     \
    ZDF_ALL15(R, OP, DesfireDeleteFile, , , , , zdf_delete_file, (uint32_t aid, uint8_t file_id, ZDF_CS),      \
              (aid, file_id, ZDF_CA))                                                                          \
    ZDF_NO_PLAIN_PK(R, OP, DesfireGetFileSettings, , , , , zdf_get_file_settings,                              \
                    (uint32_t aid, uint8_t file_id, zel_desfire_file_settings *settings, ZDF_CS),              \
                    (aid, file_id, settings, ZDF_CA))                                                          \
    ZDF_F_AES_ONLY(R, OP, DesfireGetFileSettingsSdm, , , , , zdf_get_file_settings_sdm,                       \
                   (uint32_t aid, uint8_t file_id, zel_desfire_sdm_file_settings *settings, ZDF_CS),          \
                   (aid, file_id, settings, ZDF_CA))                                                           \
    ZDF_NO_PLAIN_PK(R, OP, DesfireGetStdFileSize, , , , , zdf_get_std_file_size,                              \
                    (uint32_t aid, uint8_t file_id, uint32_t *file_size, ZDF_CS), (aid, file_id, file_size, ZDF_CA)) \
    ZDF_TYPED_SAM_TYPEDPK(R, OP, DesfireChangeFileSettings, , , , , zdf_change_file_settings,                  \
                          (uint32_t aid, uint8_t file_id, uint8_t communication_settings, ZDF_ACCESS_P, ZDF_CS), \
                          (aid, file_id, communication_settings, ZDF_ACCESS_A, ZDF_CA))                          \
    ZDF_F_PLAIN(R, OP, DesfireChangeFileSettingsSdm, , , , , zdf_change_file_settings_sdm, (ZDF_SDM_P), (ZDF_SDM_A)) \
    ZDF_F_PK(R, OP, DesfireChangeFileSettingsSdm, , , , , zdf_change_file_settings_sdm, (ZDF_SDM_P), (ZDF_SDM_A))    \
    R(OP, Zel_SAM_DesfireChangeFileSettingsSdm, zdf_change_file_settings_sdm, ZDF_KEY_SAM(ZEL_DESFIRE_WIRE_AES),     \
      ZDF_KP_NR, ZDF_KA_NR, (ZDF_SDM_P), (ZDF_SDM_A))

/* ---- Data, values and records. */
#define ZDF_DATA_P uint32_t aid, uint8_t aid_key_nr, uint8_t file_id, uint16_t offset, uint16_t data_length, \
    uint8_t communication_settings
#define ZDF_DATA_A aid, aid_key_nr, file_id, offset, data_length, communication_settings
#define ZDF_VAL_P uint32_t aid, uint8_t aid_key_nr, uint8_t file_id, uint8_t communication_settings
#define ZDF_VAL_A aid, aid_key_nr, file_id, communication_settings

#define ZDF_LIST_DATA(R, OP)                                                                                   \
    ZDF_ALL15(R, OP, DesfireReadStdDataFile, , , , , zdf_read_std, (ZDF_DATA_P, uint8_t *data, ZDF_CS),        \
              (ZDF_DATA_A, data, ZDF_CA))                                                                      \
    ZDF_ALL15(R, OP, DesfireWriteStdDataFile, , , , , zdf_write_std, (ZDF_DATA_P, const uint8_t *data, ZDF_CS), \
              (ZDF_DATA_A, data, ZDF_CA))                                                                      \
    ZDF_NO_PLAIN_PK(R, OP, DesfireWriteBackupDataFile, , , , , zdf_write_std,                                  \
                    (ZDF_DATA_P, const uint8_t *data, ZDF_CS), (ZDF_DATA_A, data, ZDF_CA))                     \
    ZDF_ALL15(R, OP, DesfireReadValueFile, , , , , zdf_read_value, (ZDF_VAL_P, int32_t *value, ZDF_CS),        \
              (ZDF_VAL_A, value, ZDF_CA))                                                                      \
    ZDF_ALL15(R, OP, DesfireIncreaseValueFile, , , , , zdf_increase_value, (ZDF_VAL_P, uint32_t value, ZDF_CS), \
              (ZDF_VAL_A, value, ZDF_CA))                                                                      \
    ZDF_ALL15(R, OP, DesfireDecreaseValueFile, , , , , zdf_decrease_value, (ZDF_VAL_P, uint32_t value, ZDF_CS), \
              (ZDF_VAL_A, value, ZDF_CA))                                                                      \
    ZDF_NO_PLAIN_PK(R, OP, DesfireIncreaseValueFile, _TransMac, _TransMac, , , zdf_increase_value_tmac,        \
                    (ZDF_VAL_P, uint32_t value, ZDF_TMAC_P, ZDF_CS), (ZDF_VAL_A, value, ZDF_TMAC_A, ZDF_CA))    \
    ZDF_NO_PLAIN_PK(R, OP, DesfireDecreaseValueFile, _TransMac, _TransMac, , , zdf_decrease_value_tmac,        \
                    (ZDF_VAL_P, uint32_t value, ZDF_TMAC_P, ZDF_CS), (ZDF_VAL_A, value, ZDF_TMAC_A, ZDF_CA))    \
    ZDF_NO_PLAIN_PK(R, OP, DesfireReadRecords, , , , , zdf_read_records,                                       \
                    (uint32_t aid, uint8_t aid_key_nr, uint8_t file_id, uint16_t offset, uint16_t number_of_records, \
                     uint16_t record_size, uint8_t communication_settings, uint8_t *data, ZDF_CS),             \
                    (aid, aid_key_nr, file_id, offset, number_of_records, record_size, communication_settings, \
                     data, ZDF_CA))                                                                            \
    ZDF_NO_PLAIN_PK(R, OP, DesfireWriteRecord, , , , , zdf_write_record, (ZDF_DATA_P, const uint8_t *data, ZDF_CS), \
                    (ZDF_DATA_A, data, ZDF_CA))                                                                \
    ZDF_NO_PLAIN_PK(R, OP, DesfireWriteRecord, _TransMac, _TransMac, , , zdf_write_record_tmac,               \
                    (ZDF_DATA_P, const uint8_t *data, ZDF_TMAC_P, ZDF_CS), (ZDF_DATA_A, data, ZDF_TMAC_A, ZDF_CA)) \
    ZDF_ALL15(R, OP, DesfireClearRecordFile, , , , , zdf_clear_records, (uint32_t aid, uint8_t file_id, ZDF_CS), \
              (aid, file_id, ZDF_CA))                                                                          \
    ZDF_ALL15(R, OP, DesfireClearRecordFile, , , , _2, zdf_clear_records_2,                                      \
              (uint32_t aid, uint8_t aid_key_nr, uint8_t file_id, ZDF_CS), (aid, aid_key_nr, file_id, ZDF_CA))  \
    ZDF_NO_PLAIN_PK(R, OP, DesfireClearRecordFile, _TransMac, _TransMac, , , zdf_clear_records_tmac,          \
                    (uint32_t aid, uint8_t file_id, ZDF_TMAC_P, ZDF_CS), (aid, file_id, ZDF_TMAC_A, ZDF_CA)) \
    ZDF_NO_PLAIN_PK(R, OP, DesfireClearRecordFile, _TransMac, _TransMac, , _2, zdf_clear_records_tmac_2,        \
                    (uint32_t aid, uint8_t aid_key_nr, uint8_t file_id, ZDF_TMAC_P, ZDF_CS),                   \
                    (aid, aid_key_nr, file_id, ZDF_TMAC_A, ZDF_CA))

/* ---- Changing keys. The key bytes of the _PK forms authenticate; new and old keys are given as bytes,
 * except in _A and the SAM forms, which name them by their number in the reader or SAM. */
#define ZDF_CHG_P(kt) uint32_t aid, uint8_t aid_key_no_auth, const uint8_t *new_##kt##_key, uint8_t aid_key_no, \
    const uint8_t *old_##kt##_key, ZDF_CS
#define ZDF_CHG_A(kt) aid, aid_key_no_auth, new_##kt##_key, aid_key_no, old_##kt##_key, ZDF_CA
#define ZDF_CHGN_P uint32_t aid, uint8_t aid_key_no_auth, uint8_t new_key_nr_in, uint8_t aid_key_no, \
    uint8_t old_key_nr_in, ZDF_CS
#define ZDF_CHGN_A aid, aid_key_no_auth, new_key_nr_in, aid_key_no, old_key_nr_in, ZDF_CA

/* Impl (kt new key type, given bytes) and (kt, numbered keys). */
#define ZDF_LIST_KEYS(R, OP)                                                                                   \
    R(OP, Zel_int_DesfireChangeAesKey, zdf_change_aes, ZDF_KEY_RD(ZEL_DESFIRE_WIRE_AES), ZDF_KP_NR, ZDF_KA_NR, \
      (ZDF_CHG_P(aes)), (ZDF_CHG_A(aes)))                                                                      \
    R(OP, Zel_int_DesfireChangeAesKey_aes, zdf_change_aes, ZDF_KEY_RD(ZEL_DESFIRE_WIRE_AES), ZDF_KP_NR,        \
      ZDF_KA_NR, (ZDF_CHG_P(aes)), (ZDF_CHG_A(aes)))                                                          \
    R(OP, Zel_int_DesfireChangeAesKey_PK, zdf_change_aes, ZDF_KEY_PK(ZEL_DESFIRE_WIRE_AES), ZDF_KP_PK,         \
      ZDF_KA_PK, (ZDF_CHG_P(aes)), (ZDF_CHG_A(aes)))                                                          \
    R(OP, Zel_int_DesfireChangeAesKey_aes_PK, zdf_change_aes, ZDF_KEY_PK(ZEL_DESFIRE_WIRE_AES), ZDF_KP_PK,     \
      ZDF_KA_PK, (ZDF_CHG_P(aes)), (ZDF_CHG_A(aes)))                                                          \
    R(OP, Zel_int_DesfireChangeAesKey_A, zdf_change_aes_numbered, ZDF_KEY_RD(ZEL_DESFIRE_WIRE_AES), ZDF_KP_NR, \
      ZDF_KA_NR, (ZDF_CHGN_P), (ZDF_CHGN_A))                                                                   \
    R(OP, Zel_SAM_DesfireChangeAesKey_AesAuth, zdf_change_aes_sam, ZDF_KEY_SAM(ZEL_DESFIRE_WIRE_AES),          \
      ZDF_KP_NR, ZDF_KA_NR, (ZDF_CHGN_P), (ZDF_CHGN_A))                                                        \
    R(OP, Zel_int_DesfireChangeDesKey_des, zdf_change_des, ZDF_KEY_RD(ZEL_DESFIRE_WIRE_DES), ZDF_KP_NR,        \
      ZDF_KA_NR, (ZDF_CHG_P(des)), (ZDF_CHG_A(des)))                                                          \
    R(OP, Zel_int_DesfireChangeDesKey_2k3des, zdf_change_des, ZDF_KEY_RD(ZEL_DESFIRE_WIRE_2K3DES), ZDF_KP_NR,  \
      ZDF_KA_NR, (ZDF_CHG_P(des)), (ZDF_CHG_A(des)))                                                          \
    R(OP, Zel_int_DesfireChangeDesKey_des_PK, zdf_change_des, ZDF_KEY_PK(ZEL_DESFIRE_WIRE_DES), ZDF_KP_PK,     \
      ZDF_KA_PK, (ZDF_CHG_P(des)), (ZDF_CHG_A(des)))                                                          \
    R(OP, Zel_int_DesfireChangeDesKey_2k3des_PK, zdf_change_des, ZDF_KEY_PK(ZEL_DESFIRE_WIRE_2K3DES),          \
      ZDF_KP_PK, ZDF_KA_PK, (ZDF_CHG_P(des)), (ZDF_CHG_A(des)))                                               \
    R(OP, Zel_SAM_DesfireChangeDesKey_DesAuth, zdf_change_des_sam, ZDF_KEY_SAM(ZEL_DESFIRE_WIRE_DES),          \
      ZDF_KP_NR, ZDF_KA_NR, (ZDF_CHGN_P), (ZDF_CHGN_A))                                                        \
    R(OP, Zel_SAM_DesfireChangeDesKey_2k3desAuth, zdf_change_des_sam, ZDF_KEY_SAM(ZEL_DESFIRE_WIRE_2K3DES),    \
      ZDF_KP_NR, ZDF_KA_NR, (ZDF_CHGN_P), (ZDF_CHGN_A))                                                        \
    R(OP, Zel_int_DesfireChange2K3DesKey_des, zdf_change_2k3des, ZDF_KEY_RD(ZEL_DESFIRE_WIRE_DES), ZDF_KP_NR,  \
      ZDF_KA_NR, (ZDF_CHG_P(2k3des)), (ZDF_CHG_A(2k3des)))                                                    \
    R(OP, Zel_int_DesfireChange2K3DesKey_2k3des, zdf_change_2k3des, ZDF_KEY_RD(ZEL_DESFIRE_WIRE_2K3DES),       \
      ZDF_KP_NR, ZDF_KA_NR, (ZDF_CHG_P(2k3des)), (ZDF_CHG_A(2k3des)))                                         \
    R(OP, Zel_int_DesfireChange2K3DesKey_des_PK, zdf_change_2k3des, ZDF_KEY_PK(ZEL_DESFIRE_WIRE_DES),          \
      ZDF_KP_PK, ZDF_KA_PK, (ZDF_CHG_P(2k3des)), (ZDF_CHG_A(2k3des)))                                         \
    R(OP, Zel_int_DesfireChange2K3DesKey_2k3des_PK, zdf_change_2k3des, ZDF_KEY_PK(ZEL_DESFIRE_WIRE_2K3DES),    \
      ZDF_KP_PK, ZDF_KA_PK, (ZDF_CHG_P(2k3des)), (ZDF_CHG_A(2k3des)))                                         \
    R(OP, Zel_SAM_DesfireChange2k3desKey_DesAuth, zdf_change_2k3des_sam, ZDF_KEY_SAM(ZEL_DESFIRE_WIRE_DES),    \
      ZDF_KP_NR, ZDF_KA_NR, (ZDF_CHGN_P), (ZDF_CHGN_A))                                                        \
    R(OP, Zel_SAM_DesfireChange2k3desKey_2k3desAuth, zdf_change_2k3des_sam,                                    \
      ZDF_KEY_SAM(ZEL_DESFIRE_WIRE_2K3DES), ZDF_KP_NR, ZDF_KA_NR, (ZDF_CHGN_P), (ZDF_CHGN_A))                  \
    R(OP, Zel_int_DesfireChange3K3DesKey_3k3des, zdf_change_3k3des, ZDF_KEY_RD(ZEL_DESFIRE_WIRE_3K3DES),       \
      ZDF_KP_NR, ZDF_KA_NR, (ZDF_CHG_P(3k3des)), (ZDF_CHG_A(3k3des)))                                         \
    R(OP, Zel_int_DesfireChange3K3DesKey_3k3des_PK, zdf_change_3k3des, ZDF_KEY_PK(ZEL_DESFIRE_WIRE_3K3DES),    \
      ZDF_KP_PK, ZDF_KA_PK, (ZDF_CHG_P(3k3des)), (ZDF_CHG_A(3k3des)))                                         \
    R(OP, Zel_SAM_DesfireChange3k3desKey_3k3desAuth, zdf_change_3k3des_sam,                                    \
      ZDF_KEY_SAM(ZEL_DESFIRE_WIRE_3K3DES), ZDF_KP_NR, ZDF_KA_NR, (ZDF_CHGN_P), (ZDF_CHGN_A))                  \
    R(OP, Zel_int_DesfireChangeMasterKey, zdf_change_master, ZDF_KEY_RD(ZEL_DESFIRE_WIRE_AES), ZDF_KP_NR,      \
      ZDF_KA_NR, (uint8_t auth_key_type, uint8_t new_key_nr_in, uint8_t new_key_type, ZDF_CS),                 \
      (auth_key_type, new_key_nr_in, new_key_type, ZDF_CA))                                                 \
    R(OP, Zel_int_DesfireChangeMasterKey_PK, zdf_change_master_pk, ZDF_KEY_PK(ZEL_DESFIRE_WIRE_AES), ZDF_KP_PK,   \
      ZDF_KA_PK, (uint8_t auth_key_type, const uint8_t *new_key, uint8_t new_key_type, ZDF_CS),                \
      (auth_key_type, new_key, new_key_type, ZDF_CA))                                   \
    R(OP, Zel_SAM_DesfireChangeMasterKey, zdf_change_master_sam, ZDF_KEY_SAM(ZEL_DESFIRE_WIRE_AES), ZDF_KP_NR, \
      ZDF_KA_NR, (uint8_t auth_key_type, uint8_t new_key_nr_in, uint8_t new_key_type, ZDF_CS),                 \
      (auth_key_type, new_key_nr_in, new_key_type, ZDF_CA))

#define ZEL_FAMILY_DESFIRE_CARD(OP, OP0) ZDF_LIST_CARD(ZDF_R_PUB, OP)
#define ZEL_FAMILY_DESFIRE_APPS(OP, OP0) ZDF_LIST_APPS(ZDF_R_PUB, OP)
#define ZEL_FAMILY_DESFIRE_FILES(OP, OP0) ZDF_LIST_FILES(ZDF_R_PUB, OP)
#define ZEL_FAMILY_DESFIRE_DATA(OP, OP0) ZDF_LIST_DATA(ZDF_R_PUB, OP)
#define ZEL_FAMILY_DESFIRE_KEYS(OP, OP0) ZDF_LIST_KEYS(ZDF_R_PUB, OP)

/* Fixed operations, one form each.
 * Zel_int_DesfireChangeKey: the general key change. A key number 0 to 15 names a key in the reader, a
 * number above 15 (ZEL_DESFIRE_KEY_GIVEN) the bytes given; key types in the wire numbering. With flag set
 * the keys are named in the SAM and no key bytes go out.
 * Zel_int_DesfireWriteAesKey, Zel_int_DesfireWriteKey: put a key in the reader's store; the result is the
 * reader's answer byte. DES_to_AES_key_type and AES_to_DES_key_type turn the card's all-zero master key
 * into the all-zero key of the other type: ZEL_OK when the card did it, else ZEL_AUTH_ERROR. */
#define ZEL_FAMILY_DESFIRE_FIXED(OP, OP0)                                                                     \
    OP(ZEL_STATUS, Zel_int_DesfireFreeMem, (uint32_t *free_mem_byte, ZDF_CS), (free_mem_byte, ZDF_CA))         \
    OP(ZEL_STATUS, Zel_int_DesfireWriteAesKey, (uint8_t aes_key_no, const uint8_t *aes_key),                  \
       (aes_key_no, aes_key))                                                                                  \
    OP(ZEL_STATUS, Zel_int_DesfireWriteKey, (uint8_t key_no, const uint8_t *key, uint8_t key_type),           \
       (key_no, key, key_type))                                                                                \
    OP(ZEL_STATUS, Zel_int_DesfireChangeKey,                                                                  \
       (uint8_t auth_key_nr, const uint8_t *auth_key, uint32_t aid, uint8_t aid_key_no_auth, uint8_t new_key_nr, \
        const uint8_t *new_key, uint8_t aid_key_no, uint8_t old_key_nr, const uint8_t *old_key,               \
        uint16_t *card_status, uint16_t *exec_time, uint8_t flag, uint8_t auth_key_type, uint8_t new_key_type), \
       (auth_key_nr, auth_key, aid, aid_key_no_auth, new_key_nr, new_key, aid_key_no, old_key_nr, old_key,    \
        card_status, exec_time, flag, auth_key_type, new_key_type))                                           \
    OP0(ZEL_STATUS, DES_to_AES_key_type)                                                                      \
    OP0(ZEL_STATUS, AES_to_DES_key_type)

ZEL_DECLARE_FAMILY(ZEL_FAMILY_DESFIRE_CARD)
ZEL_DECLARE_FAMILY(ZEL_FAMILY_DESFIRE_APPS)
ZEL_DECLARE_FAMILY(ZEL_FAMILY_DESFIRE_FILES)
ZEL_DECLARE_FAMILY(ZEL_FAMILY_DESFIRE_DATA)
ZEL_DECLARE_FAMILY(ZEL_FAMILY_DESFIRE_KEYS)
ZEL_DECLARE_FAMILY(ZEL_FAMILY_DESFIRE_FIXED)

#ifdef __cplusplus
}
#endif
#endif
