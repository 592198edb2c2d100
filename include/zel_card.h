/* Finding and identifying the cards in the reader's field. */
#ifndef ZEL_CARD_H
#define ZEL_CARD_H

#include "zel_card_types.h"
#include "zel_forms.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZEL_FAMILY_CARD_DETECT(OP, OP0) \
    OP(ZEL_STATUS, GetCardId, (uint8_t *card_type, uint32_t *card_serial), (card_type, card_serial))

ZEL_DECLARE_FAMILY(ZEL_FAMILY_CARD_DETECT)

#ifdef __cplusplus
}
#endif
#endif
