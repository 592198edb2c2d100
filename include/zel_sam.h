/* The SAM AV2 in the reader's contact slot: its version and UID, its key entries, the host's three-pass
 * authentications to it (the legacy DES form and the AV2 form with an AES key), the two steps that
 * personalise a new SAM, and the key entry changes of the AV2 mode.
 *
 * Every operation runs APDUs through APDUPlainTransceive; the caller opens the contact interface first
 * (open_ISO7816_interface, APDU_switch_to_ISO7816_interface) and closes it after. The status word out is the
 * last one the SAM gave, in card order: SW1 in the low byte, so a success reads 0x0090.
 *
 * Raw outputs are bounded: the version reply holds at most SAM_VERSION_RAW_MAX bytes and a key entry at most
 * SAM_KEY_ENTRY_RAW_MAX; a SAM answering more is refused with ZEL_BUFFER_OVERFLOW and nothing is copied.
 *
 * The authentications use the host cryptographic kit of zel_desfire_crypto.h and its process-wide state:
 * one SAM dialogue at a time. */
#ifndef ZEL_SAM_H
#define ZEL_SAM_H

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define SAM_VERSION_RAW_MAX 32u
#define SAM_KEY_ENTRY_RAW_MAX 16u
#define SAM_UID_LEN 7u

/* The type SAM_get_version gives: hardware of the first or second kind, in AV1 or AV2 mode; 0 unknown. */
#define SAM_TYPE_UNKNOWN 0u
#define SAM_TYPE_AV2_HW3_AV1_MODE 1u
#define SAM_TYPE_AV2_HW3_AV2_MODE 2u
#define SAM_TYPE_AV2_HW4_AV1_MODE 3u
#define SAM_TYPE_AV2_HW4_AV2_MODE 4u

/* Host modes of the AV2 authentication: plain, MAC, full (enciphered). */
#define SAM_HOST_MODE_PLAIN 0u
#define SAM_HOST_MODE_MAC 1u
#define SAM_HOST_MODE_FULL 2u

#include "zel_sam_forms.h"

#ifdef __cplusplus
}
#endif
#endif
