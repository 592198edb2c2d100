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

// The program data record that FT_EE_Read fills, version 5: a header set by the caller, the USB ids, four text
// buffers of the caller's (64, 16, 64 and 16 bytes), the power and USB settings, then one block of settings per
// chip family (FT232B, FT2232, FT232R, FT2232H, FT4232H, FT232H). The library fills every field of the version
// it is given, so the record must be the whole of it. The D2XX types on Linux: DWORD 32 bits, WORD 16, UCHAR 8.
struct FtProgramData {
    uint32_t signature1; // 0x00000000
    uint32_t signature2; // 0xFFFFFFFF
    uint32_t version;    // 5: every block below
    uint16_t vendor_id;
    uint16_t product_id;
    char *manufacturer;
    char *manufacturer_id;
    char *description;
    char *serial_number;
    uint16_t max_power; // mA, 1 to 500
    uint16_t pnp;
    uint16_t self_powered;
    uint16_t remote_wakeup;
    // FT232B
    uint8_t rev4;
    uint8_t iso_in;
    uint8_t iso_out;
    uint8_t pull_down_enable;
    uint8_t ser_num_enable;
    uint8_t usb_version_enable;
    uint16_t usb_version;
    // FT2232
    uint8_t rev5;
    uint8_t iso_in_a;
    uint8_t iso_in_b;
    uint8_t iso_out_a;
    uint8_t iso_out_b;
    uint8_t pull_down_enable5;
    uint8_t ser_num_enable5;
    uint8_t usb_version_enable5;
    uint16_t usb_version5;
    uint8_t a_is_high_current;
    uint8_t b_is_high_current;
    uint8_t ifa_is_fifo;
    uint8_t ifa_is_fifo_tar;
    uint8_t ifa_is_fast_ser;
    uint8_t a_is_vcp;
    uint8_t ifb_is_fifo;
    uint8_t ifb_is_fifo_tar;
    uint8_t ifb_is_fast_ser;
    uint8_t b_is_vcp;
    // FT232R
    uint8_t use_ext_osc;
    uint8_t high_drive_ios;
    uint8_t end_point_size;
    uint8_t pull_down_enable_r;
    uint8_t ser_num_enable_r;
    uint8_t invert_txd;
    uint8_t invert_rxd;
    uint8_t invert_rts;
    uint8_t invert_cts;
    uint8_t invert_dtr;
    uint8_t invert_dsr;
    uint8_t invert_dcd;
    uint8_t invert_ri;
    uint8_t cbus0;
    uint8_t cbus1;
    uint8_t cbus2;
    uint8_t cbus3;
    uint8_t cbus4;
    uint8_t r_is_d2xx;
    // FT2232H
    uint8_t pull_down_enable7;
    uint8_t ser_num_enable7;
    uint8_t al_slow_slew;
    uint8_t al_schmitt_input;
    uint8_t al_drive_current;
    uint8_t ah_slow_slew;
    uint8_t ah_schmitt_input;
    uint8_t ah_drive_current;
    uint8_t bl_slow_slew;
    uint8_t bl_schmitt_input;
    uint8_t bl_drive_current;
    uint8_t bh_slow_slew;
    uint8_t bh_schmitt_input;
    uint8_t bh_drive_current;
    uint8_t ifa_is_fifo7;
    uint8_t ifa_is_fifo_tar7;
    uint8_t ifa_is_fast_ser7;
    uint8_t a_is_vcp7;
    uint8_t ifb_is_fifo7;
    uint8_t ifb_is_fifo_tar7;
    uint8_t ifb_is_fast_ser7;
    uint8_t b_is_vcp7;
    uint8_t power_save_enable;
    // FT4232H
    uint8_t pull_down_enable8;
    uint8_t ser_num_enable8;
    uint8_t a_slow_slew;
    uint8_t a_schmitt_input;
    uint8_t a_drive_current;
    uint8_t b_slow_slew;
    uint8_t b_schmitt_input;
    uint8_t b_drive_current;
    uint8_t c_slow_slew;
    uint8_t c_schmitt_input;
    uint8_t c_drive_current;
    uint8_t d_slow_slew;
    uint8_t d_schmitt_input;
    uint8_t d_drive_current;
    uint8_t ari_is_txden;
    uint8_t bri_is_txden;
    uint8_t cri_is_txden;
    uint8_t dri_is_txden;
    uint8_t a_is_vcp8;
    uint8_t b_is_vcp8;
    uint8_t c_is_vcp8;
    uint8_t d_is_vcp8;
    // FT232H
    uint8_t pull_down_enable_h;
    uint8_t ser_num_enable_h;
    uint8_t ac_slow_slew_h;
    uint8_t ac_schmitt_input_h;
    uint8_t ac_drive_current_h;
    uint8_t ad_slow_slew_h;
    uint8_t ad_schmitt_input_h;
    uint8_t ad_drive_current_h;
    uint8_t cbus0_h;
    uint8_t cbus1_h;
    uint8_t cbus2_h;
    uint8_t cbus3_h;
    uint8_t cbus4_h;
    uint8_t cbus5_h;
    uint8_t cbus6_h;
    uint8_t cbus7_h;
    uint8_t cbus8_h;
    uint8_t cbus9_h;
    uint8_t is_fifo_h;
    uint8_t is_fifo_tar_h;
    uint8_t is_fast_ser_h;
    uint8_t is_ft1248_h;
    uint8_t ft1248_cpol_h;
    uint8_t ft1248_lsb_h;
    uint8_t ft1248_flow_control_h;
    uint8_t is_vcp_h;
    uint8_t power_save_enable_h;
};
// 64-bit layout: 16 bytes of header and ids, four pointers, 8 bytes of power settings, then 127 single bytes and
// two 16-bit versions; 175 bytes padded to the pointers' alignment.
static_assert(sizeof(void *) != 8 || sizeof(FtProgramData) == 176, "FT_PROGRAM_DATA version 5 is 176 bytes");
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
