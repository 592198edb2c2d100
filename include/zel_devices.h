/* USB serial devices and serial ports. A serial port is a terminal device: "/dev/ttyUSB0" takes the place
 * of a name such as "COM3". Device ids read like "USB\VID_0403&PID_6001\A9XK2TQR" (the serial number last);
 * a port's own device is the USB interface, "USB\VID_0403&PID_6001&MI_00\1&1.2&1&0", whose parent is the
 * USB device. */
#ifndef ZEL_DEVICES_H
#define ZEL_DEVICES_H

#include "zel_ftdi.h"
#include "zel_handle.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZEL_COM_PORTS_MAX 256
#define ZEL_USB_DEVICES_MAX 50

/* The serial ports of find_active_com_ports: "%s%d" of a prefix and its number names a port. */
typedef struct zel_com_ports {
    int32_t count;
    int32_t number[ZEL_COM_PORTS_MAX];
    char prefix[ZEL_COM_PORTS_MAX][64];
} zel_com_ports;

/* One device of GetDeviceDetails. */
typedef struct zel_usb_device {
    char description[256]; /* friendly name, or "Unknown" */
    char port_name[256];   /* port, or "Not Found" */
    char parent_id[256];   /* the parent's device id, or "Unknown" */
    uint8_t is_2e15;       /* 1 when the device id holds "PID_2E15" */
} zel_usb_device;

/* Clears the list and fills it with the USB serial ports present; 0, or the system's error code. */
ZEL_API int find_active_com_ports(zel_com_ports *list);
ZEL_API void print_com_ports(const zel_com_ports *list);

/* Opens a serial port at baud (8N1, time-outs of 1500 ms). True on success. */
ZEL_API int rs232_serial_port_init(ZEL_HANDLE hnd, const char *port_name, uint32_t baud);
/* The same at the rate of a baud table index (br_custom first, unless it is 10); records the port. 0 or -2. */
ZEL_API int rs232_serial_port_init_Hnd(ZEL_HANDLE hnd, const char *port_name, uint32_t speed_index);
ZEL_API int rs232_serial_port_init_Hnd_device_type(ZEL_HANDLE hnd, const char *port_name, uint32_t speed_index,
                                                   int32_t device_index);

/* The USB serial devices whose device id contains id_text, up to limit (at most 50). False when the
 * devices cannot be listed. */
ZEL_API int GetDeviceDetails(const char *id_text, zel_usb_device *devices, uint32_t *count, uint32_t limit);
ZEL_API uint32_t ListUSBDevices(const char *id_text, zel_usb_device *devices, uint32_t limit);
ZEL_API int IsUSBDevicePresent(const char *id_text);
/* Description and port of the device on a port. */
ZEL_API int GetDeviceDetailsByCOM(const char *port_name, zel_usb_device *device);
/* True when port_name is the port of one of count entries of the list. */
ZEL_API int isFtdiCOMPort(const char *port_name, const zel_ftdi_device *list, uint32_t count);
/* What stands after the last backslash of an instance id. */
ZEL_API int ExtractSerialFromInstanceID(const char *instance_id, char *serial, size_t serial_size);
/* The instance id of the device on a port and, from its parent, the serial number. */
ZEL_API int GetDeviceInstanceIDAndSerialByCOM(const char *port_name, char *instance_id, size_t instance_id_size,
                                              char *serial, size_t serial_size);
/* The port of the device with a serial number (case ignored), and its instance id when id is not null. */
ZEL_API int FindCOMPortBySerial(const char *serial, char *port_name, size_t port_name_size, char *instance_id,
                                size_t instance_id_size);

#ifdef __cplusplus
}
#endif
#endif
