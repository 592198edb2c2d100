/* MIFARE Plus: personalisation at security level 0, the switch to level 3, AES authentication at level 1,
 * key and field configuration changes, and the UID behind the random id. The reader runs the AES dialogue
 * with the card; the library fills the frames, and runs the personalisation itself over I-blocks. */
#ifndef ZEL_MFP_H
#define ZEL_MFP_H

#include "zel_mfp_forms.h"
#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Key block addresses (16-bit, little endian on the wire). */
#define MFP_CARD_MASTER_KEY 0x9000u
#define MFP_CARD_CONFIGURATION_KEY 0x9001u
#define MFP_LEVEL_2_SWITCH_KEY 0x9002u
#define MFP_LEVEL_3_SWITCH_KEY 0x9003u
#define MFP_LEVEL_1_AUTH_KEY 0x9004u
#define MFP_SELECT_VC_KEY 0xA000u
#define MFP_PROXIMITY_CHECK_KEY 0xA001u
#define MFP_VC_POLLING_ENC_KEY 0xA080u
#define MFP_VC_POLLING_MAC_KEY 0xA081u
#define MFP_FIELD_CONFIGURATION_BLOCK 0xB003u
/* Sector keys: key A of sector s is MFP_SECTOR_KEY_A(s), key B the next address. */
#define MFP_SECTOR_KEY_A(s) ((uint16_t)(((s) + 0x2000u) * 2u))
#define MFP_SECTOR_KEY_B(s) ((uint16_t)(((s) + 0x2000u) * 2u + 1u))

/* The implementations of the SAM forms: the authenticating key is a SAM entry (PAR1), and so is the new
 * key (EXT byte 20). The field configuration has no new key: its data go in the EXT, the entry byte is 0. */
ZEL_API ZEL_STATUS MFP_ChangeMasterKeySamHnd(ZEL_HANDLE hnd, uint8_t key_index, uint8_t new_key_index);
ZEL_API ZEL_STATUS MFP_ChangeConfigurationKeySamHnd(ZEL_HANDLE hnd, uint8_t key_index, uint8_t new_key_index);
ZEL_API ZEL_STATUS MFP_FieldConfigurationSetSamHnd(ZEL_HANDLE hnd, uint8_t configuration_key_index, uint8_t rid_use,
                                                   uint8_t prox_check_use);
ZEL_API ZEL_STATUS MFP_ChangeSectorKeySamHnd(ZEL_HANDLE hnd, uint8_t sector_nr, uint8_t auth_mode, uint8_t key_index,
                                             uint8_t new_key_index);
ZEL_API ZEL_STATUS MFP_ChangeSectorKeySamExtHnd(ZEL_HANDLE hnd, uint8_t sector_nr, uint8_t auth_mode, uint8_t key_index,
                                                uint8_t new_key_index, uint8_t new_key_selector);
ZEL_API ZEL_STATUS MFP_ChangeVcPollingEncKeySamHnd(ZEL_HANDLE hnd, uint8_t configuration_key_index,
                                                   uint8_t new_key_index);
ZEL_API ZEL_STATUS MFP_ChangeVcPollingMacKeySamHnd(ZEL_HANDLE hnd, uint8_t configuration_key_index,
                                                   uint8_t new_key_index);
ZEL_API ZEL_STATUS MFP_GetUidSamHnd(ZEL_HANDLE hnd, uint8_t key_index_vc_poll_enc_key,
                                    uint8_t key_index_vc_poll_mac_key, uint8_t *uid, uint8_t *uid_len);
ZEL_API ZEL_STATUS MFP_EvGetUidSamHnd(ZEL_HANDLE hnd, uint8_t key_index_vc_poll_enc_key, uint8_t *uid,
                                      uint8_t *uid_len);

#ifdef __cplusplus
}
#endif
#endif
