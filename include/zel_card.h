/* Finding and identifying the cards in the reader's field. */
#ifndef ZEL_CARD_H
#define ZEL_CARD_H

#include "zel_card_types.h"
#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A UID is at most this long; the extended card id operations clear this many bytes of the caller's buffer. */
#define ZEL_UID_MAX_LEN 10
/* Manufacturer names need at most this many bytes, terminator included. */
#define ZEL_MANUFACTURER_NAME_MAX 77

/* The eight bytes of a Type 2 tag's version record spread over fields (see NfcT2TSafeConvertVersion). */
typedef struct t2t_version_t {
    uint8_t header;
    uint16_t vendor_id;
    uint8_t product_type;
    uint8_t product_subtype;
    uint8_t major_product_version;
    uint8_t minor_product_version;
    uint8_t storage_size;
    uint8_t protocol_type;
} t2t_version_t;

/* Detection. GetCardId: type byte and the first four UID bytes as a little-endian value.
 * GetCardIdEx and GetLastCardIdEx: the UID into a buffer of ZEL_UID_MAX_LEN bytes (cleared first); a four-byte
 * UID found in the library's reversal table is reported with its bytes reversed.
 * GetCardInfo: the reader's card record as it comes, checksum byte included; length is the capacity on entry
 * and the length on return. GetCardSize: linear and raw sizes of the card type in the field.
 * GetCardManufacturer: the name of the IC maker of the first UID byte (ZEL_MANUFACTURER_NAME_MAX bytes).
 * Anti-collision: the reader's multi-card mode, the enumeration, its list and the selection of one card. */

#include "zel_card_forms.h"

/* The IC maker's name for a manufacturer code, into name (ZEL_MANUFACTURER_NAME_MAX bytes, not bounded). */
ZEL_API void getCardManufacturer(uint8_t code, char *name);
/* Spreads the eight wire bytes of a version record over the structure's fields. */
ZEL_API ZEL_STATUS NfcT2TSafeConvertVersion(t2t_version_t *out, const uint8_t *version);

#ifdef __cplusplus
}
#endif
#endif
