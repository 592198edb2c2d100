/* Type 2 tags and their relatives beyond blocks: the maker's ECC originality signature, counters, the
 * tag-tamper status, password and Ultralight C authentication, MIFARE authentication on its own, the random
 * id functions and the Ultralight C key writes.
 *
 * Signatures: ReadECCSignature gives the 32-byte signature, the UID in a buffer of ZEL_UID_MAX_LEN bytes
 * (cleared first), its length and the card type. ReadECCSignatureExt gives signatures of any length up to
 * ZEL_ECC_SIGNATURE_MAX_LEN. The NTAG DNA and DESFire forms authenticate first (key source 0: the key bytes,
 * 1: the reader's key by number) and give up to 56 bytes.
 *
 * Counters are read as 32-bit values; a failed read leaves the value as it was. ReadNFCCounter reads counter
 * 2; its _RK form presents the password from reader key reader_key_index first, its _PK form the six bytes
 * given.
 *
 * T2T_PwdAuth presents a password (from a reader key, or the 4 bytes given) and gives the tag's 2-byte PACK.
 * UlcAuth authenticates to an Ultralight C with a 16-byte 3DES key. The MifareAuth operations authenticate to
 * the sector of a block with key A or B of the reader (by index) or given (6 bytes).
 *
 * SetRID, SetRID_Key and GetUID pass a 16-byte key (or a reader key index) to the reader's random id
 * functions; reply receives the reply's data, at most 16 bytes.
 *
 * ULC_write_3des_key writes a new Ultralight C key (16 bytes, k0 first) to pages 44 to 47 in the card's own
 * byte order, authenticated with the old key; the _factory_key form authenticates with the factory key, the
 * _no_auth form writes page by page without authentication and stops at the first page that fails.
 *
 * OriginalityCheck is not implemented: it answers ZEL_NOT_IMPLEMENTED. Check the signature that
 * ReadECCSignature gives against the maker's public key instead. */
#ifndef ZEL_T2T_H
#define ZEL_T2T_H

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZEL_ECC_SIGNATURE_LEN 32
#define ZEL_ECC_SIGNATURE_MAX_LEN 56

#include "zel_t2t_forms.h"

/* The implementations that the forms above share, exported as they are. */
ZEL_API ZEL_STATUS ReadECCSignatureNtagDnaHnd(ZEL_HANDLE hnd, uint8_t key_source, uint8_t key_nr, const uint8_t *key,
                                              uint8_t key_no, uint8_t *signature, uint8_t *signature_len);
/* key_type: 0x00 AES, 0x10 3K3DES (a 24-byte key), 0x20 DES, 0x30 2K3DES. */
ZEL_API ZEL_STATUS ReadECCSignatureDesfireHnd(ZEL_HANDLE hnd, uint8_t key_source, uint8_t key_nr, const uint8_t *key,
                                              uint32_t aid, uint8_t aid_key_nr, uint8_t option, uint8_t key_type,
                                              uint8_t *signature, uint8_t *signature_len);
ZEL_API ZEL_STATUS RidUidHnd(ZEL_HANDLE hnd, const uint8_t *key, uint8_t key_index, uint8_t mode, uint8_t selector,
                             uint8_t *reply);
/* mode 0: no authentication, 1: old_key, 2: the factory key. */
ZEL_API ZEL_STATUS ULC_write_3des_key_internalHND(ZEL_HANDLE hnd, const uint8_t *new_key, const uint8_t *old_key,
                                                  uint8_t mode);

#ifdef __cplusplus
}
#endif
#endif
