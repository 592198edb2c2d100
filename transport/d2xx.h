// The D2XX function table: the entry points of the FTDI library, resolved by name at load time and shared
// by all handles. Integer widths follow the library's 32-bit DWORD and ULONG.
#ifndef ZEL_TRANSPORT_D2XX_H
#define ZEL_TRANSPORT_D2XX_H

#include <cstdint>

namespace zel {

using FT_HANDLE = void *;
using FT_STATUS = uint32_t;

constexpr FT_STATUS FT_OK = 0;
constexpr FT_STATUS FT_INVALID_HANDLE = 1;
constexpr FT_STATUS FT_DEVICE_NOT_FOUND = 2;
constexpr uint32_t FT_PURGE_RX = 1;
constexpr uint32_t FT_PURGE_TX = 2;

struct FtComStat {
    uint32_t flags;
    uint32_t cbInQue;
    uint32_t cbOutQue;
};

// The entry points line up as the D2XX library declares them.
// clang-format off
struct D2xxTable {
    FT_STATUS (*FT_Open)(int index, FT_HANDLE *handle);
    FT_STATUS (*FT_Close)(FT_HANDLE handle);
    FT_STATUS (*FT_Write)(FT_HANDLE handle, void *buffer, uint32_t count, uint32_t *written);
    FT_STATUS (*FT_SetTimeouts)(FT_HANDLE handle, uint32_t read_ms, uint32_t write_ms);
    FT_STATUS (*FT_Purge)(FT_HANDLE handle, uint32_t mask);
    FT_STATUS (*FT_GetQueueStatus)(FT_HANDLE handle, uint32_t *rx_bytes);
    FT_STATUS (*FT_Read)(FT_HANDLE handle, void *buffer, uint32_t count, uint32_t *returned);
    FT_STATUS (*FT_ClrRts)(FT_HANDLE handle);
    FT_STATUS (*FT_SetRts)(FT_HANDLE handle);
    FT_STATUS (*FT_SetBaudRate)(FT_HANDLE handle, uint32_t baud);
    FT_STATUS (*FT_OpenEx)(void *arg, uint32_t flags, FT_HANDLE *handle);
    int (*FT_W32_ClearCommError)(FT_HANDLE handle, uint32_t *errors, FtComStat *stat);
    FT_STATUS (*FT_GetDriverVersion)(FT_HANDLE handle, uint32_t *version);
    FT_STATUS (*FT_SetBitMode)(FT_HANDLE handle, uint8_t mask, uint8_t mode);
    FT_STATUS (*FT_ResetDevice)(FT_HANDLE handle);
    FT_STATUS (*FT_SetDataCharacteristics)(FT_HANDLE handle, uint8_t word_length, uint8_t stop_bits, uint8_t parity);
    FT_STATUS (*FT_SetFlowControl)(FT_HANDLE handle, uint16_t flow, uint8_t xon, uint8_t xoff);
    FT_STATUS (*FT_SetLatencyTimer)(FT_HANDLE handle, uint8_t ms);
    FT_STATUS (*FT_GetLatencyTimer)(FT_HANDLE handle, uint8_t *ms);
    FT_STATUS (*FT_EE_Read)(FT_HANDLE handle, void *program_data);
    FT_STATUS (*FT_CreateDeviceInfoList)(uint32_t *count);
    FT_STATUS (*FT_GetDeviceInfoDetail)(uint32_t index, uint32_t *flags, uint32_t *type, uint32_t *id,
                                        uint32_t *location, char *serial, char *description, FT_HANDLE *handle);
    FT_STATUS (*FT_GetComPortNumber)(FT_HANDLE handle, int32_t *port);
    FT_STATUS (*FT_ListDevices)(void *arg1, void *arg2, uint32_t flags);
};
// clang-format on

// The program data record that FT_EE_Read fills: a header set by the caller, the USB ids, four text buffers
// of the caller's (64, 16, 64 and 16 bytes) and, of the FT232R part, the InvertRTS bit. 64-bit layout:
// InvertRTS at offset 48.
struct FtProgramData {
    uint32_t signature1; // 0x00000000
    uint32_t signature2; // 0xFFFFFFFF
    uint32_t version;
    uint16_t vendor_id;
    uint16_t product_id;
    char *manufacturer;
    char *manufacturer_id;
    char *description;
    char *serial_number;
    uint8_t invert_rts;
};
constexpr uint32_t kFtProgramDataVersion = 5;
constexpr uint32_t FT_OPEN_BY_SERIAL_NUMBER = 1;
constexpr uint32_t FT_LIST_NUMBER_ONLY = 0x80000000u;

// The process-wide table (entries are null until a load finds them).
const D2xxTable &d2xx();
// Test seam: installs a table of the caller's, as a load would.
void d2xx_install(const D2xxTable &table);
// The module of the last load (null when the table came from d2xx_install or nothing was loaded).
void *d2xx_module();

} // namespace zel

#endif
