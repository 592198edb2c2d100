/* Programming a reader that waits in its boot loader: the boot entry, 128-byte packets (and their forms for a
 * port in 64-byte reports and for 4,096-byte stream packets), and the NFC processor's protection, parameters
 * and test. */
#ifndef ZEL_PROG_H
#define ZEL_PROG_H

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZEL_PROG_PACKET_LEN 128
#define ZEL_PROG_STREAM_PACKET_LEN 4096

#include "zel_prog_forms.h"

/* A 4,096-byte packet to the ESP32 module: the implementation form only. */
ZEL_API ZEL_STATUS ProgEspHnd(ZEL_HANDLE hnd, const uint8_t *data, uint16_t packet);
/* The shared body of PN7462_RfOff (1) and PN7462_RfOn (0): answers ZEL_NOT_IMPLEMENTED. */
ZEL_API ZEL_STATUS PN7462_RfOnOffHnd(ZEL_HANDLE hnd, uint8_t off);

#ifdef __cplusplus
}
#endif
#endif
