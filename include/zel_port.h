/* The port layer: one byte stream over a serial port, an FTDI link through the D2XX library, or a UDP or
 * TCP socket, chosen by comm.use of the record. Every call takes the handle first. */
#ifndef ZEL_PORT_H
#define ZEL_PORT_H

#include "zel_types.h"
#include "zel_handle.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The baud table, indexed by idx_speed and br_custom. */
#define ZEL_BAUD_TABLE_LEN 10
ZEL_API extern const uint32_t zel_baud_table[ZEL_BAUD_TABLE_LEN];

/* Reads exactly count bytes, or fails: ZEL_COMMUNICATION_BREAK (80) when fewer came in the time-out. */
ZEL_API ZEL_STATUS PortRead(ZEL_HANDLE hnd, uint8_t *buffer, uint32_t count);
/* As PortRead, telling how many bytes came; clears the buffer first. Serial and FTDI only. */
ZEL_API ZEL_STATUS PortRead1(ZEL_HANDLE hnd, uint8_t *buffer, uint32_t count, uint32_t *count_read);
/* Writes exactly count bytes, or fails. */
ZEL_API ZEL_STATUS PortWrite(ZEL_HANDLE hnd, const uint8_t *buffer, uint32_t count);
/* Drops what waits in both directions. */
ZEL_API ZEL_STATUS PortPurge(ZEL_HANDLE hnd);
/* Bytes waiting to be read (serial and FTDI). */
ZEL_API ZEL_STATUS PortGetAvailable(ZEL_HANDLE hnd, uint32_t *available);
/* The read time-out in milliseconds (serial and FTDI). */
ZEL_API ZEL_STATUS PortSetTimeout(ZEL_HANDLE hnd, uint32_t ms);
/* Sets the RTS line (nothing when comm.rts is RTS_DISCONNECTED); a serial port also drops DTR. */
ZEL_API ZEL_STATUS PortSetRTS(ZEL_HANDLE hnd, uint32_t level);
/* Changes the speed of the open port. */
ZEL_API ZEL_STATUS PortSetBaudRate(ZEL_HANDLE hnd, uint32_t baud);
/* Closes the port; the record is kept. */
ZEL_API ZEL_STATUS PortClose(ZEL_HANDLE hnd);

/* Socket links. */
/* One send of count bytes to the reader; the count sent, or -1. */
ZEL_API int udp_tx(ZEL_HANDLE hnd, const uint8_t *buffer, uint32_t count);
/* Receives into the record's buffer until it holds wanted bytes or a second has passed; the bytes held,
 * or -1 when there is no socket. */
ZEL_API int udp_rx(ZEL_HANDLE hnd, uint32_t wanted);
/* Drops what waits on the socket and empties the buffer. */
ZEL_API int udp_purge(ZEL_HANDLE hnd);
/* Closes the socket and clears udp_ready. */
ZEL_API int udp_close(ZEL_HANDLE hnd);
/* The socket's receive time-out. */
ZEL_API int udp_set_timeout_ms(ZEL_HANDLE hnd, uint32_t ms);

/* The D2XX library, loaded by name: true when it and FT_Open, FT_Close and FT_Write were found; the
 * other entry points may be missing. Each load replaces the table. */
ZEL_API int LoadFTD2XXLibrary(const char *file_name);
ZEL_API void UnloadFTD2XXLibrary(void *module);

/* Reader open and close. */

#include "zel_port_forms.h"

#ifdef __cplusplus
}
#endif
#endif
