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

/* The firmware stream of a module, implementation form only. module is 0 to 3 (an NFC module) or ZEL_ESP_SELF;
 * any other gives ZEL_PARAMETERS_ERROR. The stop hands out the 16-bit result of the module's reply. */
ZEL_API ZEL_STATUS EspStartStreamHnd(ZEL_HANDLE hnd, uint8_t module);
ZEL_API ZEL_STATUS EspStopStreamHnd(ZEL_HANDLE hnd, uint8_t module, uint16_t *result);
/* Writes stream data as it is, without frames (on a network link it then waits 10 ms). */
ZEL_API ZEL_STATUS EspWriteStreamHnd(ZEL_HANDLE hnd, const uint8_t *data, uint32_t length);
/* Reads one 7-byte progress frame the module sends by itself and hands out its byte 4 (it sends nothing). */
ZEL_API ZEL_STATUS EspReadProgressHnd(ZEL_HANDLE hnd, uint8_t *progress);

/* EspBackupConfiguration: config must hold ZEL_ESP_BACKUP_MAX (65,535) bytes, the largest length the module
 * can announce. EspRestoreConfiguration sends a zero-terminated text in chunks of at most 512 bytes. */
#define ZEL_ESP_BACKUP_MAX 65535u

/* EspSetDisplayData: data_length 255 gives ZEL_MAX_SIZE_EXCEEDED (the length and its checksum must fit a
 * byte). EspReaderEepromRead and EspReaderEepromWrite: size at most 128, else ZEL_MAX_SIZE_EXCEEDED. Times
 * are 6 bytes; passwords 8. */

#include "zel_esp_forms.h"

#ifdef __cplusplus
}
#endif
#endif
