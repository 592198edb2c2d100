// The device parameter record: the identity of a reader, a network module or a display as the firmware
// manager needs it, its text forms, and the table that names the module's programming function.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/internal.h"
#include "zel_display.h"
#include "zel_esp.h"
#include "zel_firmware.h"
#include "zel_handle.h"
#include "zel_prog.h"
#include "zel_reader.h"
#include "zel_status.h"

namespace {

constexpr int kTries = 5;
constexpr uint32_t kTryGapMs = 1000;
constexpr int kUnitTries = 3;

// The display takes 64-byte packets; packet n lands at byte n * 64 of its flash.
ZEL_STATUS prog_display(ZEL_HANDLE hnd, const uint8_t *data, uint16_t packet, uint8_t start, uint8_t *crc_correct)
{
    if (crc_correct)
        *crc_correct = 0;
    if (start)
        return ZEL_OK;
    if (packet >= 0x10000 / ZEL_DISPLAY_FLASH_BLOCK)
        return ZEL_PARAMETERS_ERROR;
    return ProgDisplayHnd(hnd, data, static_cast<uint16_t>(packet * ZEL_DISPLAY_FLASH_BLOCK));
}

ZEL_STATUS prog_esp(ZEL_HANDLE hnd, const uint8_t *data, uint16_t packet, uint8_t, uint8_t *crc_correct)
{
    if (crc_correct)
        *crc_correct = 0;
    return ProgEspHnd(hnd, data, packet);
}

bool hw_ver_usb(uint8_t v)
{
    static const uint8_t kUsb[] = {21, 23, 27, 29, 31, 33, 35, 37, 39, 41, 45, 49};
    for (uint8_t u : kUsb)
        if (u == v)
            return true;
    return false;
}

ZEL_STATUS read_display(zel_device_params *p)
{
    (void)Display_ClearImageHnd(p->hnd);
    ZEL_STATUS status = ZEL_OK;
    for (int i = 0; i < kTries; ++i) {
        if (i)
            zel::os_sleep(kTryGapMs);
        uint8_t first[12] = {}, second[8] = {}, b[5] = {};
        status = Display_GetParametersHnd(p->hnd, first, second, &b[0], &b[1], &b[2], &b[3], &b[4]);
        if (status != ZEL_OK)
            continue;
        std::memset(p->mui, 0, sizeof p->mui);
        std::memcpy(p->mui, first, sizeof first);
        std::memcpy(p->serial_nr, second, sizeof second);
        p->hw_type = b[0];
        p->hw_ver = b[1];
        p->device_type = 0;
        p->fw_major = b[2];
        p->fw_minor = b[3];
        p->fw_build = b[4];
        return ZEL_OK;
    }
    return status;
}

ZEL_STATUS read_reader(zel_device_params *p)
{
    ZEL_STATUS status = ZEL_OK;
    for (int i = 0; i < kTries; ++i) {
        if (i)
            zel::os_sleep(kTryGapMs);
        uint8_t mui[24] = {};
        uint64_t serial = 0;
        uint8_t hw_type = 0, hw_ver = 0, major = 0, minor = 0, build = 0;
        uint32_t device_type = 0;
        status = GetReaderParameters2Hnd(p->hnd, mui, &serial, &hw_type, &hw_ver, &device_type, &major, &minor, &build);
        if (status != ZEL_OK)
            continue;
        std::memcpy(p->mui, mui, sizeof p->mui);
        std::memcpy(p->serial_nr, &serial, sizeof p->serial_nr);
        p->hw_type = hw_type;
        p->hw_ver = hw_ver;
        p->device_type = device_type;
        p->fw_major = major;
        p->fw_minor = minor;
        p->fw_build = build;
        return ZEL_OK;
    }
    return status;
}

} // namespace

extern "C" ZEL_API void device_param_to_str(zel_device_params *p)
{
    if (!p)
        return;
    const int mui_len = p->hw_type == ZEL_HW_TYPE_ESP ? 6 : 12;
    for (int i = 0; i < mui_len; ++i)
        std::snprintf(p->mui_str + 2 * i, sizeof p->mui_str - 2 * static_cast<size_t>(i), "%02X", p->mui[i]);
    std::memcpy(p->serial_str, p->serial_nr, 8);
    p->serial_str[8] = '\0';
    std::snprintf(p->hw_type_str, sizeof p->hw_type_str, "%d", p->hw_type);
    std::snprintf(p->hw_ver_str, sizeof p->hw_ver_str, "%d", p->hw_ver);
    std::snprintf(p->device_type_str, sizeof p->device_type_str, "%02X%02X%02X%02X", (p->device_type >> 24) & 0xFF,
                  (p->device_type >> 16) & 0xFF, (p->device_type >> 8) & 0xFF, p->device_type & 0xFF);
    std::snprintf(p->fw_str, sizeof p->fw_str, "%d.%d.%d", p->fw_major, p->fw_minor, p->fw_build);
    std::snprintf(p->device_serial, sizeof p->device_serial, "%s", p->serial_str);
}

extern "C" ZEL_API zel_device_operations *device_get_operations(zel_device_params *p)
{
    if (!p)
        return nullptr;
    const bool session = p->hnd && p->hnd->esp_session;
    uint8_t usb = 0;
    const char *name = nullptr;
    zel_program_fn fn = nullptr;
    if (p->hw_type == ZEL_HW_TYPE_DISPLAY || p->kind == ZEL_MODULE_DISPLAY) {
        name = "ProgDisplayHnd";
        fn = prog_display;
    } else if (p->hw_type == ZEL_HW_TYPE_ESP && p->kind != ZEL_MODULE_NFC1 && p->kind != ZEL_MODULE_NFC2) {
        usb = 1;
        name = "ProgEspHnd";
        fn = prog_esp;
    } else if (p->hw_type == ZEL_HW_TYPE_ESP) {
        name = "ProgReaderUsbHnd";
        fn = ProgReaderUsbHnd;
    } else if (p->hw_type >= 47 && session) {
        name = "ProgReaderUsbHnd";
        fn = ProgReaderUsbHnd;
    } else if (p->hw_type >= 47 && hw_ver_usb(p->hw_ver)) {
        usb = 1;
        name = "ProgReaderUsbHnd";
        fn = ProgReaderUsbHnd;
    } else if (p->hw_type >= 47) {
        name = "ProgReaderHnd";
        fn = ProgReaderHnd;
    } else {
        return nullptr; // no programming route for this hardware type
    }
    auto *ops = static_cast<zel_device_operations *>(std::calloc(1, sizeof(zel_device_operations)));
    if (!ops)
        return nullptr;
    ops->name = name;
    ops->program = fn;
    p->prog_usb = usb;
    return ops;
}

extern "C" ZEL_API void device_free_operations(zel_device_operations *operations)
{
    std::free(operations);
}

extern "C" ZEL_API ZEL_STATUS device_get_params(zel_device_params *p)
{
    if (!p || !p->hnd)
        return ZEL_PARAMETERS_ERROR;
    if (p->hnd->serial[0])
        dp(6, "Device parameters of reader %.20s", p->hnd->serial);
    else
        dp(6, "Device parameters of %.8s", p->serial_str);
    ZEL_STATUS status;
    if (p->kind == ZEL_MODULE_DISPLAY) {
        if ((status = read_display(p)) != ZEL_OK)
            return status;
        p->prog_usb = 0;
    } else if ((status = read_reader(p)) != ZEL_OK) {
        return status;
    }
    p->is_esp = p->hw_type == ZEL_HW_TYPE_ESP ? 1 : 0;
    p->no_fw = p->fw_major == 0 && p->fw_minor == 0 && p->fw_build == 0 ? 1 : 0;
    device_param_to_str(p);
    device_free_operations(p->operations);
    p->operations = device_get_operations(p);
    if (p->kind == ZEL_MODULE_DISPLAY)
        p->prog_usb = 0;
    if (p->no_fw || !p->is_esp)
        return ZEL_OK;
    if (p->hnd->comm.use == ZEL_PORT_LOCAL) {
        // A Bluetooth front answers for one reader at most: ask it whether one is there.
        p->esp_readers = 0;
        if (EspSetTransparentReaderSessionHnd(p->hnd, 1) == ZEL_OK) {
            uint8_t mui[24];
            uint64_t serial;
            uint8_t t, v, a, b, c;
            uint32_t d;
            if (GetReaderParametersHnd(p->hnd, mui, &serial, &t, &v, &d, &a, &b, &c) == ZEL_OK)
                p->esp_readers = 1;
        }
        (void)EspSetTransparentReaderSessionHnd(p->hnd, ZEL_ESP_SELF);
        return ZEL_OK;
    }
    for (int i = 0; i < kUnitTries; ++i)
        if (EspGetTransparentReadersHnd(p->hnd, &p->esp_readers) == ZEL_OK)
            break;
    return ZEL_OK;
}
