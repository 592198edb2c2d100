/* The firmware manager: a reader's modules (the main module, the NFC modules behind a network module, the
 * displays) brought to a firmware package, with the images from a firmware service; and the device parameter
 * record that tells each module's identity. */
#ifndef ZEL_FIRMWARE_H
#define ZEL_FIRMWARE_H

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Module kinds of the device parameter record. */
#define ZEL_MODULE_MAIN 0u
#define ZEL_MODULE_NFC1 1u
#define ZEL_MODULE_NFC2 2u
#define ZEL_MODULE_DISPLAY 3u

/* Hardware types the manager branches on. */
#define ZEL_HW_TYPE_DISPLAY 21u
#define ZEL_HW_TYPE_ESP 46u

/* The largest image a module takes (10 MiB) and the longest version text of a package (31 characters). */
#define ZEL_FW_IMAGE_MAX 0xA00000u
#define ZEL_FW_VERSION_MAX 31u

/* The uniform form of a module's programming function: one packet (start set: the start of programming). */
typedef ZEL_STATUS (*zel_program_fn)(ZEL_HANDLE hnd, const uint8_t *data, uint16_t packet, uint8_t start,
                                     uint8_t *crc_correct);

/* The operations table of device_get_operations: the name of the programming function, and the function. */
typedef struct zel_device_operations {
    const char *name;
    zel_program_fn program;
} zel_device_operations;

/* The device parameter record. The fields up to `operations` are the identity as the module reports it;
 * the fields after it are the manager's: where the module sits and how its USB device was found again. */
typedef struct zel_device_params {
    ZEL_HANDLE hnd;
    uint8_t mui[24];
    uint8_t serial_nr[8];
    uint8_t hw_type; /* 46 network (ESP) module, 21 display */
    uint8_t hw_ver;
    uint32_t device_type;
    uint8_t fw_major, fw_minor, fw_build;
    uint8_t prog_usb;    /* set by device_get_operations: 1 for a programming route over USB */
    uint8_t is_esp;      /* hw_type 46 */
    uint8_t no_fw;       /* firmware 0.0.0: only the boot loader runs */
    uint8_t esp_readers; /* NFC modules behind a network module */
    /* Text forms, written by device_param_to_str. */
    char mui_str[49];
    char serial_str[9];
    char hw_type_str[4];
    char hw_ver_str[4];
    char device_type_str[9];
    char fw_str[12];
    uint32_t kind; /* ZEL_MODULE_* */
    zel_device_operations *operations;
    /* The manager's fields. */
    uint8_t display_in_front; /* a display on the main module itself, not behind an NFC module */
    uint8_t in_boot;          /* the module waits in its boot loader */
    char port_name[256];      /* the serial port the module was last found on */
    char instance_id[256];    /* the USB device id of that port */
    char usb_serial[64];      /* the USB serial number of the device */
    char device_serial[21];   /* the serial number the module reported, as text */
    uint8_t serial_match;     /* 1 when usb_serial names the same device as device_serial */
} zel_device_params;

/* The device parameter record of the module behind params->hnd, by params->kind (ZEL_MODULE_DISPLAY asks the
 * display module; anything else the reader). 0, or the status of the last failed try. */
ZEL_API ZEL_STATUS device_get_params(zel_device_params *params);
/* The operations table of the module (heap; device_free_operations frees it): null when the hardware type
 * has no programming route. Sets prog_usb. */
ZEL_API zel_device_operations *device_get_operations(zel_device_params *params);
ZEL_API void device_free_operations(zel_device_operations *operations);
/* Writes the text forms of the record. */
ZEL_API void device_param_to_str(zel_device_params *params);

/* The firmware service. Every function answers null while no service is registered (the library carries
 * none; an application or the tool supplies one). A response is freed by http_response_free. */
#define ZEL_HTTP_TEXT 0            /* text: a list, a manifest, a package name */
#define ZEL_HTTP_FIRMWARE_BINARY 1 /* an image */
#define ZEL_HTTP_ERROR 2           /* the service's error text */
#define ZEL_HTTP_EMPTY 3           /* no data */

typedef struct zel_http_response {
    int32_t type;
    uint8_t *data; /* heap memory of malloc */
    size_t size;
} zel_http_response;

/* What is asked of the service. */
#define ZEL_FW_ASK_IMAGE 0    /* the image of `version` for the module */
#define ZEL_FW_ASK_VERSIONS 1 /* the versions known for the module: lines "version,comment" */
#define ZEL_FW_ASK_PACKAGES 2 /* the packages for the reader: lines "package,comment" */
#define ZEL_FW_ASK_MANIFEST 3 /* the manifest of package `version` */

/* The identity of the module the service is asked about. */
typedef struct zel_fw_identity {
    uint32_t ask;  /* ZEL_FW_ASK_* */
    uint32_t kind; /* ZEL_MODULE_* */
    uint8_t hw_type;
    uint8_t hw_ver;
    uint32_t device_type;
    char serial[21];
    char fw_version[12];
} zel_fw_identity;

ZEL_API zel_http_response *http_get_firmware(const zel_fw_identity *identity, const char *version, const char *token);
ZEL_API zel_http_response *http_get_display_firmware(const zel_fw_identity *identity, const char *version,
                                                     const char *token);
/* A configuration by name; null or an empty name asks for the list of configurations. */
ZEL_API zel_http_response *http_get_configuration(const char *name);
ZEL_API zel_http_response *http_get_package_name_by_firmware_version(uint8_t hw_type, const char *version);
ZEL_API void http_response_free(zel_http_response *response);

/* Progress of a firmware operation: stage (0 information, 1 downloading, 2 preparing, 3 starting or waiting
 * for a device, 4 installing, 5 reconnecting, 7 finished), code (0 good, 1 download failed, 2 token
 * required, 3 session preparation failed, 4 no device parameters, 7 boot failed, 8 reconnection failed,
 * 10 programming failed, 15 refresh failed), percent, text, and the serial number of the module. Called on
 * the calling thread. */
typedef void (*zel_fw_callback)(int stage, int code, int percent, const char *text, const char *serial);

#include "zel_firmware_forms.h"

/* Downloads on a handle only: one image of a module (ZEL_MODULE_*, as the reader reports it) to a buffer of
 * buffer_len bytes; one configuration (null or an empty name: the list of them); the list of
 * configurations as text. */
ZEL_API ZEL_STATUS Flasher_DownloadFirmwareHnd(ZEL_HANDLE hnd, uint32_t module, const char *version, const char *token,
                                               uint8_t *buffer, uint32_t buffer_len, uint32_t *size,
                                               zel_fw_callback callback);
ZEL_API ZEL_STATUS Flasher_DownloadConfigurationHnd(ZEL_HANDLE hnd, const char *name, uint8_t *buffer,
                                                    uint32_t buffer_len, uint32_t *size);
ZEL_API ZEL_STATUS Flasher_ListConfigurationsHnd(ZEL_HANDLE hnd, char *out, uint32_t out_len);

#ifdef __cplusplus
}
#endif
#endif
