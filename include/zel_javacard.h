/* Java card applets: the signer applet (key slots, stored objects, PINs, signatures made on the card) and the
 * storage applet (seventeen numbered files). Every operation is one or a few APDUs of class 0x80 to the
 * applet selected with JCAppSelectByAid.
 *
 * A card status word other than 90 00 comes back as 0xA0000 | SW1 << 8 | SW2; JCAppGetErrorDescription
 * gives the texts of the family's statuses and of the usual status words.
 *
 * Key slots 0 to 2, separately for RSA and EC. Key types: JC_KEY_RSA, JC_KEY_RSA_CRT, JC_KEY_EC_F2M,
 * JC_KEY_EC_FP. Signing ciphers: JC_CIPHER_RSA, JC_CIPHER_ECDSA; the digest is made on the card, so digest
 * and padding are 0. Object types 0 and 1 have slots 0 to 2, type 2 slots 0 to 11. PIN references:
 * JC_PIN_USER, JC_PIN_ADMIN, JC_PUK_USER, JC_PUK_ADMIN.
 *
 * The family keeps one applet session for the process (card type, the last signature, the last object id,
 * the last public key read): one applet dialogue at a time. */
#ifndef ZEL_JAVACARD_H
#define ZEL_JAVACARD_H

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define JC_KEY_RSA 0
#define JC_KEY_RSA_CRT 1
#define JC_KEY_EC_F2M 2
#define JC_KEY_EC_FP 3
#define JC_CIPHER_RSA 0
#define JC_CIPHER_ECDSA 1
#define JC_PIN_USER 0
#define JC_PIN_ADMIN 1
#define JC_PUK_USER 2
#define JC_PUK_ADMIN 3
#define JC_SELECT_RESPONSE_LEN 16
#define JC_SIGNATURE_MAX_LEN 256
#define JC_STORAGE_FILES 17
#define JC_STORAGE_MAX_FILE 32766

#include "zel_javacard_forms.h"

/* The rules of the signer applet by card type. Each answers 0 when the card type accepts what is asked,
 * else ZEL_APDU_UNSUPPORTED_ALGORITHMS (signing) or ZEL_APDU_UNSUPPORTED_KEY_SIZE (key sizes). */
ZEL_API ZEL_STATUS JCCheckSignerAlgorithms(uint8_t card_type, uint8_t cipher, uint8_t digest, uint8_t padding);
ZEL_API ZEL_STATUS JCCheckRsaKeySize(uint8_t card_type, uint16_t key_bits);
ZEL_API ZEL_STATUS JCCheckEcdsaKeySize(uint8_t card_type, uint8_t key_type, uint16_t key_bits);
/* The same for keys generated on the card. */
ZEL_API ZEL_STATUS JCCheckRsaOnCardKeyGen(uint8_t card_type, uint16_t key_bits);
ZEL_API ZEL_STATUS JCCheckEcdsaOnCardKeyGen(uint8_t card_type, uint8_t key_type, uint16_t key_bits);

/* The text of a status of this family or of a card status word in the 0xA0000 form; "" for any other. */
ZEL_API const char *JCAppGetErrorDescription(ZEL_STATUS status);

#ifdef __cplusplus
}
#endif
#endif
