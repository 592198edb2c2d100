// The reader list's implementations behind the plain forms, and its parsers of untrusted bytes.
#ifndef ZEL_READERS_INTERNAL_H
#define ZEL_READERS_INTERNAL_H

#include <cstddef>
#include <cstdint>

#include "zel_handle.h"
#include "zel_readers.h"

// The list is one for the process: the implementations get the global handle from the plain forms and do
// not use it. They are not exported.
ZEL_STATUS ReaderList_UpdateAndGetCountHnd(ZEL_HANDLE, uint32_t *count);
ZEL_STATUS ReaderList_GetInformationHnd(ZEL_HANDLE, int32_t index, ZEL_HANDLE *handle, char *serial, uint32_t *type,
                                        char *firmware, uint32_t *spare, uint32_t *baud_rate, char *ftdi_serial,
                                        char *ftdi_description, uint32_t *opened, uint32_t *esp_flag);
ZEL_STATUS ReaderList_GetSerialByIndexHnd(ZEL_HANDLE, int32_t index, uint32_t *serial_number);
ZEL_STATUS ReaderList_GetSerialDescriptionByIndexHnd(ZEL_HANDLE, int32_t index, char *serial_description);
ZEL_STATUS ReaderList_GetTypeByIndexHnd(ZEL_HANDLE, int32_t index, uint32_t *type);
ZEL_STATUS ReaderList_GetFTDISerialByIndexHnd(ZEL_HANDLE, int32_t index, char *ftdi_serial);
ZEL_STATUS ReaderList_GetFTDIDescriptionByIndexHnd(ZEL_HANDLE, int32_t index, char *ftdi_description);
ZEL_STATUS ReaderList_AddHnd(ZEL_HANDLE, ZEL_HANDLE *handle, uint32_t reader_type, const char *port_name,
                             uint32_t port_interface, const char *arg);
ZEL_STATUS ReaderList_DestroyHnd(ZEL_HANDLE, ZEL_HANDLE *handle);
ZEL_STATUS ReaderList_OpenByIndexHnd(ZEL_HANDLE, int32_t index, ZEL_HANDLE *handle);
ZEL_STATUS ReaderList_OpenBySerialHnd(ZEL_HANDLE, const char *serial, ZEL_HANDLE *handle);

namespace zel::readers {

// The question an ESP front answers with its network address, and the longest answer read.
constexpr char kAddressQuestion[] = "!GET_DEVICE_IP_AD!";
constexpr size_t kAddressReplyMax = 32;

// The address in an ESP front's answer: the bytes before the first line feed, any carriage returns before it
// dropped. Only a dotted IPv4 address (each part 0 to 255), optionally with ":PORT" (1 to 65535), counts;
// "0.0.0.0", an empty, cut or malformed answer means no address. True with the text in out (at least 32
// bytes) when there is one; out is always terminated.
bool address_from_reply(const uint8_t *reply, size_t len, char *out, size_t out_len);

// One text field of the list: printable ASCII up to the first zero, at most out_len - 1 bytes, terminated.
void copy_field(char *out, size_t out_len, const char *in, size_t in_len);

} // namespace zel::readers

#endif
