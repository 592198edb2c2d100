/* The FTDI layer: the D2XX library's devices, their configuration, and the lists of readers and serial
 * adapters behind them. */
#ifndef ZEL_FTDI_H
#define ZEL_FTDI_H

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One FTDI device of ftdi_multiReader_getZelDevices: readers in one list, plain serial adapters in the other.
 * Entries are heap records linked by next; the caller frees each with free(). */
typedef struct zel_ftdi_device {
    uint32_t count;         /* running number, from 1 */
    uint8_t reader_type;    /* speed type of a reader entry */
    uint32_t baudrate;      /* baud rate of a reader entry */
    char com_port_name[64]; /* port name; "/" when there is none */
    char serial[16];        /* FTDI serial number */
    char description[32];   /* description of the device */
    uint8_t rts_inverted;   /* from the device's EEPROM */
    uint8_t is_ftdi_serial; /* reader entry: it can be opened by its FTDI serial */
    uint8_t esp_front;      /* reader entry: a network module stands in front of the reader */
    uint8_t ready;          /* serial adapter entry: its port and RTS data were read */
    struct zel_ftdi_device *next;
} zel_ftdi_device;

/* Up to 4 tries of the D2XX write: 0 when all bytes went, minus the shortfall, or the D2XX status. */
ZEL_API int ftdi_write(void *device, const uint8_t *buffer, uint32_t count);
/* Clears the buffer; up to 4 tries of the D2XX read, stopping at the first that brought bytes: 0 when
 * all came, minus the shortfall, or the D2XX status when nothing came. */
ZEL_API int ftdi_read(void *device, uint8_t *buffer, uint32_t count);

/* Bit mode off, both directions purged, the rate, read time-out as given and write 1000 ms, 8N1, no flow
 * control, latency 2 ms. 0, or the D2XX status of the step that failed. */
ZEL_API uint32_t ftdi_configure_hnd(void *device, uint32_t baud, uint32_t read_timeout_ms);
/* The same on the global handle's FTDI device; 1 (invalid handle) when it has none open. */
ZEL_API uint32_t ftdi_configure(uint32_t baud, uint32_t read_timeout_ms);
/* Opens the first device that opens (closing one already in *device) and configures it. */
ZEL_API uint32_t ftdi_open(uint32_t baud, uint32_t read_timeout_ms, void **device);
/* The InvertRTS bit of the device's EEPROM to *inverted (kept on failure). 0, the D2XX status, or -1 with
 * *inverted 0 when memory ran out. */
ZEL_API int ftdi_CheckRTS(void *device, uint8_t *inverted);
/* Number of devices, or minus the D2XX status. */
ZEL_API int ftdi_getDevNum(void);
/* Lists the FTDI devices: readers (description beginning "Zel" or "Nel") and serial adapters. */
ZEL_API uint32_t ftdi_multiReader_getZelDevices(uint32_t *reader_count, zel_ftdi_device **readers,
                                                uint32_t *adapter_count, zel_ftdi_device **adapters);
/* The same with all devices in one list. */
ZEL_API uint32_t ftdi_getZelDevices(uint32_t *count, zel_ftdi_device **devices);
ZEL_API void ftdi_get_set_vid_pid(void);
/* The D2XX driver version of a device: text "%X.%02X.%02X" (16 bytes at least) and its three bytes. */
ZEL_API uint32_t ftdi_GetDriverVersion(void *device, char *text, uint8_t *major, uint8_t *minor, uint8_t *build);
/* The same on the global handle's device; a failure is the D2XX status OR 0xA0. */
ZEL_API uint32_t GetFtdiDriverVersion(uint8_t *major, uint8_t *minor, uint8_t *build);
ZEL_API uint32_t GetFtdiDriverVersionStr(char *text);

#ifdef __cplusplus
}
#endif
#endif
