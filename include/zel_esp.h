/* The network module in front of a reader: its reset and transparent access to the reader units behind it. */
#ifndef ZEL_ESP_H
#define ZEL_ESP_H

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The module itself as a transparent-session target. */
#define ZEL_ESP_SELF 0xFFu

/* EspSetTransparentReader: what the host sends from now on reaches reader unit n (from 1). */

#include "zel_esp_forms.h"

#ifdef __cplusplus
}
#endif
#endif
