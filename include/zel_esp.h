/* The network module in front of a reader: its reset and transparent access to the reader units behind it. */
#ifndef ZEL_ESP_H
#define ZEL_ESP_H

#include "zel_forms.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The module itself as a transparent-session target. */
#define ZEL_ESP_SELF 0xFFu

/* EspSetTransparentReader: what the host sends from now on reaches reader unit n (from 1). */
#define ZEL_FAMILY_ESP(OP, OP0)    \
    OP0(ZEL_STATUS, EspReaderReset) \
    OP(ZEL_STATUS, EspSetTransparentReader, (uint8_t reader_no), (reader_no))

/* Without an explicit-handle form: the session form (ZEL_ESP_SELF ends it) and the number of units. */
#define ZEL_FAMILY_ESP_SESSION(OP, OP0)                                                   \
    OP(ZEL_STATUS, EspSetTransparentReaderSession, (uint8_t reader_no), (reader_no))     \
    OP(ZEL_STATUS, EspGetTransparentReaders, (uint8_t *count), (count))

ZEL_DECLARE_FAMILY(ZEL_FAMILY_ESP)
ZEL_DECLARE_FAMILY_NO_M(ZEL_FAMILY_ESP_SESSION)

#ifdef __cplusplus
}
#endif
#endif
