/* Resetting a reader, its boot sequence, and the presence tests. */
#ifndef ZEL_OPEN_H
#define ZEL_OPEN_H

#include "zel_devices.h"
#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The boot loader's greeting after a reset, and the form with a stray zero in front. */
#define ZEL_BOOT_SEQUENCE      \
    {                          \
        0x03, 0x55, 0x55, 0xBB \
    }
#define ZEL_BOOT_SEQUENCE_SHIFTED \
    {                             \
        0x00, 0x03, 0x55, 0x55    \
    }

/* Level 1 lets the reader run, level 0 holds it in reset. ReaderHwReset pulses the line without waiting
 * for the boot sequence; ReaderReset waits for it. ReaderStillConnected sets *connected to 1 when the
 * reader answered. */

#include "zel_open_forms.h"

/* The same pulse as ReaderHwReset, under its implementation's name. */
ZEL_API ZEL_STATUS ReaderHwRestartHnd(ZEL_HANDLE hnd);

/* Drives a GPIO pin with the pinctrl command ("pinctrl set PIN OPERATION"): 0, or -1 when it failed. */
ZEL_API int setGPIOPin(uint32_t pin, const char *operation);

/* Opening. reader_type: 0 any, 1 a reader at 1,000,000 bit/s, 2 at 115,200, 3 at 250,000, 4 a network
 * reader found by discovery, 5 a local device. port_interface: 0 auto, 1 serial port, 2 FTDI, 10 serial
 * port with the reset line on GPIO pin 23, 'T' TCP, 'U' UDP, 'L' local (not implemented). port_name: a
 * serial port (a device path such as "/dev/ttyUSB0", or "COM..."), a reader serial number (AB123456), an
 * FTDI serial, or for sockets host, host:port or host:port:localport. arg: space-separated words
 * (READER_ACTIVE_ON_RTS_LOW/HIGH, RTS_ALWAYS_HIGH/LOW, RTS_DISCONNECTED, UNIT_OPEN_RESET_DEFAULT/DISABLE/
 * FORCE/ONLY, BR_1000000 ... BR_500000); may be null. The plain forms open onto the global handle. */
ZEL_API ZEL_STATUS ReaderOpen(void);
ZEL_API ZEL_STATUS ReaderOpenM(ZEL_HANDLE *hnd);
ZEL_API ZEL_STATUS ReaderOpenHnd(ZEL_HANDLE *hnd, uint32_t reader_type);
ZEL_API ZEL_STATUS ReaderOpenByType(uint32_t reader_type);
ZEL_API ZEL_STATUS ReaderOpenEx(uint32_t reader_type, const char *port_name, uint32_t port_interface, const char *arg);
ZEL_API ZEL_STATUS ReaderOpenExHnd(ZEL_HANDLE hnd, uint32_t reader_type, const char *port_name, uint32_t port_interface,
                                   const char *arg);
/* Stages of the automatic search. */
ZEL_API ZEL_STATUS ReaderOpenHnd_MicaUSB(ZEL_HANDLE hnd);
ZEL_API ZEL_STATUS ReaderOpenHnd_FtdiUSB(ZEL_HANDLE hnd);
ZEL_API ZEL_STATUS ReaderOpenHnd_FtdiZel(ZEL_HANDLE hnd, const struct zel_ftdi_device *readers, uint32_t count);
ZEL_API ZEL_STATUS ReaderOpenHnd_FtdiRS232(ZEL_HANDLE hnd, const struct zel_ftdi_device *adapters, uint32_t count);
ZEL_API ZEL_STATUS ReaderOpenHnd_Serial(ZEL_HANDLE hnd, const char *port_name, const struct zel_ftdi_device *adapters,
                                        uint32_t adapter_count);
/* Lower opens. port_type: 0 FTDI then serial, 1 serial, 2 FTDI. */
ZEL_API ZEL_STATUS PortOpen_by(ZEL_HANDLE hnd, struct zel_com_ports *work, const char *port_name, uint32_t reader_type,
                               uint32_t port_type);
ZEL_API ZEL_STATUS PortOpen_byCOM(ZEL_HANDLE hnd, struct zel_com_ports *work, const char *port_name,
                                  uint32_t reader_type);
ZEL_API ZEL_STATUS PortOpen_byFTDI(ZEL_HANDLE hnd, struct zel_com_ports *work, const char *port_name,
                                   uint32_t reader_type);
/* FTDI devices by index: at a speed index of the baud table, through the speed ladder, or by reader type. */
ZEL_API ZEL_STATUS ReaderOpenByIdxSpeed(uint32_t device_index, uint32_t speed_index, uint32_t reset_flag,
                                        uint32_t *reader_type, ZEL_HANDLE hnd);
ZEL_API ZEL_STATUS ReaderOpenByFTDIIndex(uint32_t device_index, ZEL_HANDLE hnd);
ZEL_API ZEL_STATUS ReaderOpenByTypeNIndex(uint32_t device_index, ZEL_HANDLE hnd, uint32_t reader_type);
/* Opens at the default rate of a reader type for the speed repair (a serial port, or FTDI device 0). */
ZEL_API ZEL_STATUS PortDefaultBaudRateOpen(ZEL_HANDLE hnd, uint8_t reader_type, const char *port_name);
ZEL_API ZEL_STATUS PortFtdiDefaultBaudRateOpen(ZEL_HANDLE hnd, uint8_t reader_type);
/* Network readers: discovery and open (flag set: no fall-back to USB), and the open of reader_type 4. */
ZEL_API ZEL_STATUS ReaderOpen_ZelNet(const char *serial);
ZEL_API ZEL_STATUS ReaderOpen_ZelNetHnd(ZEL_HANDLE hnd, uint32_t flag, const char *serial);
ZEL_API ZEL_STATUS OpenZelNetReader_auto(ZEL_HANDLE hnd, const char *port_name, uint32_t port_interface,
                                         const char *arg);
/* Broadcast search of network readers on both frame ports; each found is added to the reader list.
 * The number added. */
ZEL_API uint32_t udp_reader_list(void);
/* The process-wide reader list: heap copies of records. */
ZEL_API uint32_t list_size(void);
ZEL_API ZEL_HANDLE list_get_by_idx(uint32_t index);
ZEL_API ZEL_HANDLE appendToEnd(const zel_handle_record *record);
ZEL_API int removeData(ZEL_HANDLE hnd);

/* The pieces of an open. */
ZEL_API int is_reader_serial_number(const char *text);
ZEL_API void parse_open_arg(ZEL_HANDLE hnd, const char *arg);
/* The open's test: the parameter block (an old firmware's "not supported" passes), then 250 ms. */
ZEL_API ZEL_STATUS test_reader_fw_version(ZEL_HANDLE hnd);
ZEL_API ZEL_STATUS test_reader_sn(ZEL_HANDLE hnd);
ZEL_API ZEL_STATUS test_esp_sn(ZEL_HANDLE hnd);
/* A reset that waits until the reader answers (up to 10 tries of the serial description). */
ZEL_API ZEL_STATUS ReaderResetWaitHnd(ZEL_HANDLE hnd);
/* Catches the boot loader: an optional reset with no wait, then the boot sequence. */
ZEL_API ZEL_STATUS rs232_init_programming(ZEL_HANDLE hnd, uint32_t do_reset);

/* Statuses of a failed GPIO command for the reset line: running level, reset level. */
#define ZEL_GPIO_RUN_FAILED 0x1111u
#define ZEL_GPIO_RESET_FAILED 0x1112u

#ifdef __cplusplus
}
#endif
#endif
