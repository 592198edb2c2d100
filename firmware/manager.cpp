// The firmware manager: brings every module of a reader (the main module, the NFC modules behind a network
// module, the displays) to a package, module by module: download, boot loader, USB re-detection by serial
// number, packets, restart, re-detection. Every wait goes through the sleep seam.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <strings.h>
#include <vector>

#include "core/internal.h"
#include "firmware/manager_internal.h"
#include "zel_devices.h"
#include "zel_display.h"
#include "zel_esp.h"
#include "zel_firmware.h"
#include "zel_handle.h"
#include "zel_open.h"
#include "zel_port.h"
#include "zel_prog.h"
#include "zel_reader.h"
#include "zel_status.h"

using namespace zel::fw;

namespace {

// Callback stages and codes.
enum Stage { INFO = 0, DOWNLOADING = 1, PREPARING = 2, WAITING = 3, INSTALLING = 4, RECONNECTING = 5, FINISHED = 7 };
enum Code {
    GOOD = 0,
    DOWNLOAD_FAILED = 1,
    TOKEN_REQUIRED = 2,
    SESSION_FAILED = 3,
    NO_PARAMETERS = 4,
    BOOT_FAILED = 7,
    RECONNECT_FAILED = 8,
    PROGRAM_FAILED = 10,
    REFRESH_FAILED = 15
};

// The modules of firmware_install, by the texts each gets.
constexpr int kModMain = 0, kModNfc1 = 1, kModNfc2 = 2, kModDisplay = 3, kModDisplayNfc1 = 4, kModDisplayNfc2 = 5,
              kModEsp = 255;

constexpr uint32_t kPollMs = 250;
constexpr uint32_t kDetectTimeoutMs = 6000;
constexpr uint32_t kSmartStableMs = 1500;
constexpr uint32_t kLegacyStableMs = 3000;
constexpr uint32_t kSettleMs = 3500;
constexpr uint32_t kDisplayBootMs = 1000;
constexpr uint32_t kBleRestartMs = 7000;
constexpr int kOpenAttempts = 3;
constexpr int kPacketTries = 3;
constexpr uint32_t kStreamChunk = 4096;
constexpr int kProgressReads = 400;

std::mutex g_upgrade_mu;  // held across the boot switch and the re-detection of a USB reader
std::mutex g_callback_mu; // one report at a time

struct Run {
    zel_fw_callback cb;
    const char *serial; // the main module's serial number text, for the reports
};

void report(const Run &run, int stage, int code, int percent, const char *text)
{
    std::lock_guard<std::mutex> lock(g_callback_mu);
    if (run.cb)
        run.cb(stage, code, percent, text, run.serial ? run.serial : "");
}

void reportf(const Run &run, int stage, int code, int percent, const char *format, ...)
    __attribute__((format(printf, 5, 6)));
void reportf(const Run &run, int stage, int code, int percent, const char *format, ...)
{
    char text[256];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(text, sizeof text, format, ap);
    va_end(ap);
    report(run, stage, code, percent, text);
}

const char *init_text(int module)
{
    switch (module) {
    case kModNfc1: return "Initializing NFC1 module firmware upgrade.";
    case kModNfc2: return "Initializing NFC2 module firmware upgrade.";
    case kModDisplay: return "Initializing Display firmware upgrade.";
    case kModEsp: return "Initializing ESP module firmware upgrade.";
    case kModDisplayNfc1: return "Initializing Display on NFC1 firmware upgrade.";
    case kModDisplayNfc2: return "Initializing Display on NFC2 firmware upgrade.";
    default: return "Initializing firmware upgrade.";
    }
}

// The closing text; `e` selects the stream route's spelling.
const char *finish_format(int module, bool stream)
{
    switch (module) {
    case kModNfc1:
        return stream ? "Finished NFC1 module firmware upgrade. New firmware: %s"
                      : "Finished NFC1 module firmware upgrade. New firmare: %s ...";
    case kModNfc2:
        return stream ? "Finished NFC2 module firmware upgrade. New firmware: %s"
                      : "Finished NFC2 module firmware upgrade. New firmare: %s ...";
    case kModEsp:
        return stream ? "Finished ESP module firmware upgrade. New firmware: %s"
                      : "Finished ESP module firmware upgrade. New firmare: %s ...";
    case kModDisplay:
        return stream ? "Finished Display module firmware upgrade. New firmware: %s"
                      : "Finished Display module firmware upgrade. New firmare: %s ...";
    case kModDisplayNfc1:
        return stream ? "Finished Display on NFC1 module firmware upgrade. New firmware: %s"
                      : "Finished Display on NFC1 module firmware upgrade. New firmare: %s ...";
    case kModDisplayNfc2:
        return stream ? "Finished Display on NFC2 module firmware upgrade. New firmware: %s"
                      : "Finished Display on NFC2 module firmware upgrade. New firmare: %s ...";
    default:
        return stream ? "Finished firmware upgrade. New firmware: %s"
                      : "Finished firmware upgrade. New firmare: %s ...";
    }
}

bool is_display(const zel_device_params *p)
{
    return p->kind == ZEL_MODULE_DISPLAY || p->hw_type == ZEL_HW_TYPE_DISPLAY;
}

zel_fw_identity identity_of(const zel_device_params *p, uint32_t ask)
{
    zel_fw_identity id{};
    id.ask = ask;
    id.kind = p->kind;
    id.hw_type = p->hw_type;
    id.hw_ver = p->hw_ver;
    id.device_type = p->device_type;
    std::snprintf(id.serial, sizeof id.serial, "%s", p->serial_str);
    std::snprintf(id.fw_version, sizeof id.fw_version, "%s", p->fw_str);
    return id;
}

// A parameter record of the manager's; its operations table goes with it.
struct Params {
    zel_device_params p{};
    ~Params() { device_free_operations(p.operations); }
};

// firmware_download, display_firmware_download: 0 good, 2 token required, 1 any other failure.
int firmware_download(FirmwareRecord *record, const zel_device_params *p, const char *version, const char *token)
{
    if (!record || !p || !version || !version[0]) {
        dp(6, "Error: Invalid parameters\n");
        return 1;
    }
    const zel_fw_identity id = identity_of(p, ZEL_FW_ASK_IMAGE);
    zel_http_response *r =
        is_display(p) ? http_get_display_firmware(&id, version, token) : http_get_firmware(&id, version, token);
    const int result = check_firmware_response(r, record, version);
    http_response_free(r);
    return result;
}

// A text of the service (list, manifest): 0, 2 token required, 1 otherwise.
int text_download(zel_http_response *r, char *out, size_t out_len)
{
    const int result = check_text_response(r, out, out_len);
    http_response_free(r);
    return result;
}

ZEL_STATUS download_status(int result)
{
    return result == 2 ? ZEL_FLASHER_TOKEN_ERROR : ZEL_FLASHER_ERROR_DOWNLOAD_FAILED;
}

// The ports present, as "prefix%d" names.
std::vector<std::string> port_names()
{
    std::vector<std::string> names;
    auto list = std::make_unique<zel_com_ports>();
    if (find_active_com_ports(list.get()) != 0)
        return names;
    const int32_t n = list->count < 0 ? 0 : list->count > ZEL_COM_PORTS_MAX ? ZEL_COM_PORTS_MAX : list->count;
    for (int32_t i = 0; i < n; ++i) {
        list->prefix[i][sizeof list->prefix[i] - 1] = '\0';
        names.push_back(std::string(list->prefix[i]) + std::to_string(list->number[i]));
    }
    return names;
}

bool contains(const std::vector<std::string> &list, const std::string &name)
{
    for (const std::string &n : list)
        if (n == name)
            return true;
    return false;
}

// After a port is found: a reader of hardware type above 46 gets at least 3,500 ms from the start of the wait.
void settle(const zel_device_params *p, uint32_t waited)
{
    if (p->hw_type > ZEL_HW_TYPE_ESP && waited < kSettleMs) {
        const uint32_t extra = kSettleMs - waited;
        dp(6,
           "Minimal %dms delay for post-upgrade stabilization (hw_type %d) | waited_ms = %d, additional delay = %d\n",
           static_cast<int>(kSettleMs), p->hw_type, static_cast<int>(waited), static_cast<int>(extra));
        zel::os_sleep(extra);
    }
}

// poll_and_detect_com_port_smart: the port of the USB device with the module's serial number, once it has
// kept its name for 1,500 ms; empty after 6,000 ms.
std::string poll_and_detect_com_port_smart(const Run &run, zel_device_params *p, int percent)
{
    reportf(run, WAITING, GOOD, percent, "Waiting for device %s to reconnect...", p->usb_serial);
    std::string last;
    uint32_t waited = 0, stable = 0;
    for (;;) {
        if (waited >= kDetectTimeoutMs) {
            dp(6, "Device '%s' not found after %d ms\n", p->usb_serial, static_cast<int>(waited));
            reportf(run, WAITING, RECONNECT_FAILED, 0, "Timeout waiting for device %s to reconnect", p->usb_serial);
            return {};
        }
        zel::os_sleep(kPollMs);
        waited += kPollMs;
        char name[256] = {}, id[256] = {};
        if (FindCOMPortBySerial(p->usb_serial, name, sizeof name, id, sizeof id)) {
            if (last != name) {
                last = name;
                stable = kPollMs;
            } else {
                stable += kPollMs;
            }
            if (stable >= kSmartStableMs) {
                std::snprintf(p->instance_id, sizeof p->instance_id, "%s", id);
                break;
            }
        } else {
            last.clear();
            stable = 0;
        }
    }
    settle(p, waited);
    return last;
}

// poll_and_detect_com_port: for hardware types 45 to 47 a port that was not there before the upgrade, for
// the others the port of the name the module had; 3,000 ms of the same name end the search.
std::string poll_and_detect_com_port(zel_device_params *p, const std::vector<std::string> &before)
{
    const bool new_port_rule = p->hw_type >= 45 && p->hw_type <= 47;
    std::string last;
    uint32_t waited = 0, stable = 0;
    while (waited < kDetectTimeoutMs) {
        zel::os_sleep(kPollMs);
        waited += kPollMs;
        std::string found;
        for (const std::string &name : port_names()) {
            if (new_port_rule ? !contains(before, name) : name == p->port_name) {
                found = name;
                break;
            }
        }
        if (found.empty()) {
            last.clear();
            stable = 0;
            continue;
        }
        if (found != last) {
            last = found;
            stable = kPollMs;
        } else {
            stable += kPollMs;
        }
        if (stable >= kLegacyStableMs) {
            settle(p, waited);
            return last;
        }
    }
    return {};
}

std::string detect(const Run &run, zel_device_params *p, const std::vector<std::string> &before, int percent, bool post)
{
    if (p->usb_serial[0]) {
        if (post)
            dp(6, "Post-upgrade: Using smart detection for serial %s\n", p->usb_serial);
        else
            dp(6, "Using smart USB serial-based detection\n");
        return poll_and_detect_com_port_smart(run, p, percent);
    }
    dp(6, post ? "Post-upgrade: Using legacy detection\n" : "Falling back to legacy COM port detection\n");
    return poll_and_detect_com_port(p, before);
}

// Three opens, 500 ms and then 1,000 ms apart.
ZEL_STATUS open_with_retries(ZEL_HANDLE hnd, const char *port, const char *prefix)
{
    ZEL_STATUS status = ZEL_READER_OPENING_ERROR;
    for (int attempt = 1; attempt <= kOpenAttempts; ++attempt) {
        status = ReaderOpenExHnd(hnd, 1, port, 1, "UNIT_OPEN_RESET_DISABLE");
        if (status == ZEL_OK)
            return ZEL_OK;
        if (attempt < kOpenAttempts) {
            const int wait = attempt == 1 ? 500 : 1000;
            dp(6, "%sFailed to open port (attempt %d/%d), error %d. Waiting %dms before retry...\n", prefix, attempt,
               kOpenAttempts, static_cast<int>(status), wait);
            zel::os_sleep(static_cast<uint32_t>(wait));
        }
    }
    dp(6, "%sFailed to open port after %d attempts, final error %d\n", prefix, kOpenAttempts, static_cast<int>(status));
    return status;
}

// verify_serial_number: the module on the port found must be the one that left.
ZEL_STATUS verify_serial_number(const Run &run, zel_device_params *p, int percent)
{
    uint8_t mui[24] = {};
    uint64_t serial = 0;
    uint8_t t = 0, v = 0, a = 0, b = 0, c = 0;
    uint32_t d = 0;
    if (GetReaderParametersHnd(p->hnd, mui, &serial, &t, &v, &d, &a, &b, &c) != ZEL_OK) {
        report(run, RECONNECTING, RECONNECT_FAILED, percent, "Failed to get reader parameters after reconnect.");
        (void)ReaderCloseHnd(p->hnd);
        return ZEL_COMMAND_FAILED;
    }
    char got[9] = {};
    std::memcpy(got, &serial, 8);
    if (p->device_serial[0] && std::strncmp(got, p->device_serial, 8) != 0) {
        report(run, RECONNECTING, RECONNECT_FAILED, percent,
               "Serial number mismatch after reconnect. Wrong device opened!");
        dp(6, "Error: Serial number mismatch after reconnect. Expected: %s, Got: %s\n", p->device_serial, got);
        (void)ReaderCloseHnd(p->hnd);
        return ZEL_COMMAND_FAILED;
    }
    return ZEL_OK;
}

// The boot switch of a USB reader: the identity captured, the port closed, the reader found again and opened
// in its boot loader. Runs under the upgrade mutex.
ZEL_STATUS reopen_in_boot(const Run &run, zel_device_params *p, const std::vector<std::string> &before)
{
    ZEL_HANDLE hnd = p->hnd;
    char id[256] = {}, usb_serial[64] = {};
    if (GetDeviceInstanceIDAndSerialByCOM(p->port_name, id, sizeof id, usb_serial, sizeof usb_serial)) {
        std::snprintf(p->instance_id, sizeof p->instance_id, "%s", id);
        std::snprintf(p->usb_serial, sizeof p->usb_serial, "%s", usb_serial);
        p->serial_match = p->device_serial[0] && strcasecmp(usb_serial, p->device_serial) == 0 ? 1 : 0;
        dp(6, "USB Identity Captured:\n");
        dp(6, "  Instance ID: %s\n  USB serial: %s\n  Device serial: %s (%s)\n", p->instance_id, p->usb_serial,
           p->device_serial, p->serial_match ? "match" : "no match");
    }
    (void)ReaderCloseHnd(hnd);
    p->in_boot = 1;
    report(run, WAITING, GOOD, 0, "Entering USB mutex: waiting for USB reader to be ready...");
    const std::string found = detect(run, p, before, 0, false);
    if (!found.empty()) {
        report(run, WAITING, GOOD, 0, "Trying detected com port...");
        std::snprintf(p->port_name, sizeof p->port_name, "%s", found.c_str());
    } else {
        report(run, WAITING, GOOD, 0, "No new com port detected, trying previous port...");
    }
    if (open_with_retries(hnd, p->port_name, "") != ZEL_OK) {
        report(run, WAITING, RECONNECT_FAILED, 0, "Failed to re-open USB reader in boot mode...");
        return ZEL_FLASHER_FIRMWARE_INSTALL_ERROR;
    }
    if (!p->serial_match)
        return verify_serial_number(run, p, 0) == ZEL_OK ? ZEL_OK : ZEL_FLASHER_FIRMWARE_INSTALL_ERROR;
    dp(6, "Skipping serial verification - USB serial already matched\n");
    return ZEL_OK;
}

// After the last packet: the USB reader restarts, is found again and opened with its new firmware.
ZEL_STATUS reconnect_after_upgrade(const Run &run, zel_device_params *p)
{
    ZEL_HANDLE hnd = p->hnd;
    report(run, RECONNECTING, GOOD, 100, "Trying to reset and re-open USB reader...");
    std::lock_guard<std::mutex> lock(g_upgrade_mu);
    const std::vector<std::string> before = port_names();
    (void)ReaderResetHnd(hnd);
    (void)ReaderCloseHnd(hnd);
    const std::string found = detect(run, p, before, 100, true);
    if (!found.empty())
        std::snprintf(p->port_name, sizeof p->port_name, "%s", found.c_str());
    if (open_with_retries(hnd, p->port_name, "Post-upgrade: ") != ZEL_OK) {
        report(run, RECONNECTING, RECONNECT_FAILED, 100, "Failed to re-open USB reader after firmware upgrade...");
        return ZEL_FLASHER_FIRMWARE_INSTALL_ERROR;
    }
    if (!p->serial_match) {
        dp(6, "Post-upgrade: Performing verification\n");
        if (verify_serial_number(run, p, 100) != ZEL_OK) {
            report(run, RECONNECTING, RECONNECT_FAILED, 100, "Failed to re-open USB reader after firmware upgrade...");
            return ZEL_FLASHER_FIRMWARE_INSTALL_ERROR;
        }
    } else {
        dp(6, "Post-upgrade: Skipping verification (USB serial matched)\n");
    }
    p->in_boot = 0;
    report(run, RECONNECTING, GOOD, 100, "Successfully reconnected the USB reader.");
    return ZEL_OK;
}

// firmware_install_ble_stream: the image streamed through the module in front. Reached only on a Bluetooth
// link, which no open of this library makes.
ZEL_STATUS firmware_install_ble_stream(const Run &run, int module, zel_device_params *p, const FirmwareRecord *fw)
{
    ZEL_HANDLE hnd = p->hnd;
    const bool esp = module == kModEsp;
    const uint8_t target = esp ? ZEL_ESP_SELF : static_cast<uint8_t>(module == kModNfc2 ? 2 : 1);
    if (EspStartStreamHnd(hnd, target) != ZEL_OK) {
        report(run, INSTALLING, PROGRAM_FAILED, 0, "Failed to start BLE stream");
        return ZEL_FLASHER_FIRMWARE_INSTALL_ERROR;
    }
    int shown = -1;
    for (size_t at = 0; at < fw->size; at += kStreamChunk) {
        const size_t n = fw->size - at < kStreamChunk ? fw->size - at : kStreamChunk;
        const ZEL_STATUS status = EspWriteStreamHnd(hnd, fw->data + at, static_cast<uint32_t>(n));
        if (status != ZEL_OK) {
            reportf(run, INSTALLING, PROGRAM_FAILED, static_cast<int>(at * 100 / fw->size),
                    "Failed to write stream data at offset %zu, status = %02X", at, status);
            return ZEL_FLASHER_FIRMWARE_INSTALL_ERROR;
        }
        const int percent = static_cast<int>((at + n) * 100 / fw->size);
        if (percent != shown && percent % 10 == 0) {
            shown = percent;
            report(run, INSTALLING, GOOD, percent,
                   esp ? "Transferring ESP firmware..." : "Transferring NFC firmware...");
        }
    }
    uint16_t result = 0;
    report(run, INSTALLING, GOOD, 100, esp ? "Finishing ESP firmware..." : "Finishing ESP firmware transfer...");
    if (EspStopStreamHnd(hnd, target, &result) != ZEL_OK) {
        report(run, INSTALLING, PROGRAM_FAILED, 100, "Failed to stop BLE stream");
        return ZEL_FLASHER_FIRMWARE_INSTALL_ERROR;
    }
    shown = -1;
    for (int i = 0; i < kProgressReads; ++i) {
        uint8_t progress = 0;
        if (EspReadProgressHnd(hnd, &progress) != ZEL_OK)
            break;
        if (progress != shown) {
            shown = progress;
            dp(6, "Firmware installation progress: %d%%\n", progress);
            report(run, INSTALLING, GOOD, progress, esp ? "Installing ESP firmware..." : "Installing NFC firmware...");
        }
        if (progress >= 100)
            break;
    }
    (void)ReaderCloseHnd(hnd);
    zel::os_sleep(kBleRestartMs);
    if (ReaderOpenExHnd(hnd, 1, p->port_name, 'L', "UNIT_OPEN_RESET_DISABLE") != ZEL_OK) {
        report(run, RECONNECTING, RECONNECT_FAILED, 0, "Failed to re-open BLE reader after BLE stream installation...");
        return ZEL_FLASHER_FIRMWARE_INSTALL_ERROR;
    }
    if (EspSetTransparentReaderSessionHnd(hnd, target) != ZEL_OK) {
        if (esp)
            report(run, RECONNECTING, SESSION_FAILED, 0,
                   "Failed to resume ESP session after BLE stream installation...");
        else
            reportf(run, RECONNECTING, SESSION_FAILED, 0,
                    "Failed to resume NFC%d session after BLE stream installation!", target);
        return ZEL_FLASHER_FIRMWARE_INSTALL_ERROR;
    }
    uint8_t a = 0, b = 0, c = 0;
    ZEL_STATUS status;
    if (esp) {
        status = EspGetFirmwareVersionHnd(hnd, &a, &b, &c);
    } else {
        uint8_t mui[24];
        uint64_t serial;
        uint8_t t, v;
        uint32_t d;
        status = GetReaderParametersHnd(hnd, mui, &serial, &t, &v, &d, &a, &b, &c);
    }
    if (status != ZEL_OK) {
        report(run, FINISHED, PROGRAM_FAILED, 0,
               esp ? "Failed to retrieve ESP firmare version after BLE stream installation..."
                   : "Failed to get firmware version after installation");
        return ZEL_FLASHER_FIRMWARE_INSTALL_ERROR;
    }
    char now[16];
    std::snprintf(now, sizeof now, "%d.%d.%d", a, b, c);
    int x = 0, y = 0, z = 0;
    if (!parse_version(fw->version, &x, &y, &z) || x != a || y != b || z != c) {
        report(run, FINISHED, PROGRAM_FAILED, 0, "Failed to verify firmware version after installation");
        return ZEL_FLASHER_FIRMWARE_INSTALL_ERROR;
    }
    reportf(run, FINISHED, GOOD, 100, finish_format(module, true), now);
    return ZEL_OK;
}

// The image as bytes: hexadecimal text, except on hardware type 46 whose image is binary.
bool image_bytes(const Run &run, const zel_device_params *p, const FirmwareRecord *fw, std::vector<uint8_t> &out)
{
    if (p->hw_type == ZEL_HW_TYPE_ESP && !is_display(p)) {
        out.assign(fw->data, fw->data + fw->size);
        return true;
    }
    const char *text = reinterpret_cast<const char *>(fw->data);
    if (!is_valid_hex_string(text, fw->size)) {
        dp(6, "ERROR: Firmware data is not valid hexadecimal format!\n");
        dp(6, "This may be an HTML error page or corrupted download.\n");
        dp(6, "Preview (first 200 bytes): %.*s\n", static_cast<int>(fw->size < 200 ? fw->size : 200), text ? text : "");
        report(run, INSTALLING, PROGRAM_FAILED, 0, "Invalid firmware format - not valid hexadecimal data");
        return false;
    }
    out.resize(fw->size / 2);
    hex_str_to_bin(text, fw->size, out.data());
    return true;
}

// The packets of one module.
ZEL_STATUS send_packets(const Run &run, zel_device_params *p, const std::vector<uint8_t> &bin, zel_program_fn prog)
{
    ZEL_HANDLE hnd = p->hnd;
    const bool display = is_display(p);
    const bool esp = p->hw_type == ZEL_HW_TYPE_ESP;
    const size_t packet_len = display ? ZEL_DISPLAY_FLASH_BLOCK
                              : esp   ? ZEL_PROG_STREAM_PACKET_LEN
                                      : ZEL_PROG_PACKET_LEN;
    // Counted as the image text gives them: a partial last packet is not sent.
    const size_t count = display ? bin.size() * 2 / 128 : esp ? bin.size() / 4096 : bin.size() * 2 / 256;
    const size_t first = display ? 0 : 1;
    if (count > 0xFFFF || (display && count > 0x10000 / ZEL_DISPLAY_FLASH_BLOCK)) {
        report(run, INSTALLING, PROGRAM_FAILED, 0, "Firmware image too large for the module");
        return ZEL_FLASHER_FIRMWARE_INSTALL_ERROR;
    }
    uint8_t crc_ok = 0;
    if (!display) {
        if (count == 0) {
            report(run, INSTALLING, PROGRAM_FAILED, 0, "Error 1: Failed to program firmware!");
            return ZEL_FLASHER_FIRMWARE_INSTALL_ERROR;
        }
        const zel_program_fn start = esp ? ProgReaderUsbHnd : prog;
        if (start(hnd, bin.data(), 0, 1, &crc_ok) != ZEL_OK) {
            report(run, INSTALLING, PROGRAM_FAILED, 0, "Error 1: Failed to program firmware!");
            return ZEL_FLASHER_FIRMWARE_INSTALL_ERROR;
        }
        if (prog(hnd, bin.data(), 0, 0, &crc_ok) != ZEL_OK) {
            report(run, INSTALLING, PROGRAM_FAILED, 0, "Error 2: Failed to program firmware!");
            return ZEL_FLASHER_FIRMWARE_INSTALL_ERROR;
        }
    }
    int shown = -1;
    for (size_t i = first; i < count; ++i) {
        const int percent = static_cast<int>(i * 100 / count);
        ZEL_STATUS status = ZEL_OK;
        if (display && i % 64 == 0) {
            status = Display_EraseFlashI2CHnd(hnd, static_cast<uint16_t>(i * ZEL_DISPLAY_FLASH_BLOCK));
            if (status != ZEL_OK) {
                reportf(run, INSTALLING, PROGRAM_FAILED, percent,
                        "Firmware upgrade failed, packet_nr = %d | crc_ok = %d, status = %02X", static_cast<int>(i),
                        crc_ok, status);
                dp(6, "Error: Failed to program packet %d | %s\n", static_cast<int>(i), ZEL_Status2String(status));
                return ZEL_FLASHER_FIRMWARE_INSTALL_ERROR;
            }
        }
        for (int t = 1; t <= kPacketTries; ++t) {
            status = prog(hnd, bin.data() + i * packet_len, static_cast<uint16_t>(i), 0, &crc_ok);
            if (status == ZEL_OK)
                break;
            dp(6, "ProgReader: %d/3 !\n", t);
        }
        if (status != ZEL_OK) {
            reportf(run, INSTALLING, PROGRAM_FAILED, percent,
                    "Firmware upgrade failed, packet_nr = %d | crc_ok = %d, status = %02X", static_cast<int>(i), crc_ok,
                    status);
            dp(6, "Error: Failed to program packet %d | %s\n", static_cast<int>(i), ZEL_Status2String(status));
            return ZEL_FLASHER_FIRMWARE_INSTALL_ERROR;
        }
        if (percent != shown && percent % 10 == 0) {
            shown = percent;
            report(run, INSTALLING, GOOD, percent, "Installing firmware...");
        }
    }
    return ZEL_OK;
}

// firmware_install: the state machine of one module.
ZEL_STATUS firmware_install(const Run &run, int module, zel_device_params *p, const FirmwareRecord *fw)
{
    ZEL_HANDLE hnd = p->hnd;
    if (hnd->comm.use == ZEL_PORT_LOCAL) {
        report(run, INFO, GOOD, 0, "Trying firmware upgrade over BLE.");
        return firmware_install_ble_stream(run, module, p, fw);
    }
    const uint32_t started = zel::tick_ms();
    dp(6, "Starting firmware upgrade...\n");
    const bool display = is_display(p);
    const bool usb = !display && hnd->comm.use == ZEL_PORT_SERIAL && (module == kModMain || module == kModEsp);
    if (!p->port_name[0] && hnd->try_port[0])
        std::snprintf(p->port_name, sizeof p->port_name, "%.255s", hnd->try_port);
    if (display) {
        if (!p->in_boot) {
            const ZEL_STATUS status = Display_SendBootCommandHnd(hnd);
            if (status != ZEL_OK) {
                dp(6, "[!] Failed to send Display into boot! %s\n", ZEL_Status2String(status));
                report(run, WAITING, BOOT_FAILED, 0, "Failed to send Display into boot!");
                return ZEL_FLASHER_FIRMWARE_INSTALL_ERROR;
            }
            p->in_boot = 1;
            zel::os_sleep(kDisplayBootMs);
        }
    } else {
        std::unique_lock<std::mutex> lock(g_upgrade_mu);
        dp(6, "Firmware upgrade critical section entered for sn: [%s].\n", p->serial_str);
        const std::vector<std::string> before = port_names();
        if (BootReaderHnd(hnd) != ZEL_OK) {
            report(run, WAITING, BOOT_FAILED, 0, "Failed to initialize the boot.");
            return ZEL_FLASHER_FIRMWARE_INSTALL_ERROR;
        }
        if (usb && !p->in_boot) {
            const ZEL_STATUS status = reopen_in_boot(run, p, before);
            if (status != ZEL_OK)
                return status;
        }
        p->in_boot = 1;
    }
    std::vector<uint8_t> bin;
    if (!image_bytes(run, p, fw, bin))
        return ZEL_FLASHER_FIRMWARE_INSTALL_ERROR;
    report(run, INSTALLING, GOOD, 0, init_text(module));
    if (!p->operations || !p->operations->program) {
        report(run, INSTALLING, PROGRAM_FAILED, 0, "Error 1: Failed to program firmware!");
        return ZEL_FLASHER_FIRMWARE_INSTALL_ERROR;
    }
    ZEL_STATUS status = send_packets(run, p, bin, p->operations->program);
    if (status != ZEL_OK)
        return status;
    if (display) {
        if ((status = Display_RebootHnd(hnd)) != ZEL_OK) {
            report(run, INSTALLING, PROGRAM_FAILED, 100, "Failed to reboot the display.");
            return ZEL_FLASHER_FIRMWARE_INSTALL_ERROR;
        }
        p->in_boot = 0;
    }
    dp(6, "Firmware upgrade finished successfully\n");
    if (usb) {
        if ((status = reconnect_after_upgrade(run, p)) != ZEL_OK)
            return status;
    } else if (!display) {
        // A module behind the network module restarts on the module's command; another link on the reset line.
        (void)(module == kModNfc1 || module == kModNfc2 ? EspReaderResetHnd(hnd) : ReaderResetHnd(hnd));
        p->in_boot = 0;
    }
    dp(6, "Firmware upgrade took %u ms\n", zel::tick_ms() - started);
    reportf(run, FINISHED, GOOD, 100, finish_format(module, false), fw->version);
    return ZEL_OK;
}

ZEL_STATUS set_session(ZEL_HANDLE hnd, int n)
{
    return EspSetTransparentReaderSessionHnd(hnd, n < 0 ? ZEL_ESP_SELF : static_cast<uint8_t>(n));
}

// get_esp_uart_devices: the parameters of each NFC module behind the network module.
ZEL_STATUS get_esp_uart_devices(const Run &run, ZEL_HANDLE hnd, int count, Params *nfc, bool *present)
{
    ZEL_STATUS result = ZEL_OK;
    for (int n = 1; n <= count && n <= 2; ++n) {
        present[n - 1] = false;
        if (set_session(hnd, n) != ZEL_OK) {
            reportf(run, PREPARING, SESSION_FAILED, 0, "Failed to prepare NFC%d session!", n);
            result = n == 1 ? ZEL_FLASHER_ESP_NFC1_SESSION_ERROR : ZEL_FLASHER_ESP_NFC2_SESSION_ERROR;
            break;
        }
        device_free_operations(nfc[n - 1].p.operations);
        nfc[n - 1].p = zel_device_params{};
        nfc[n - 1].p.hnd = hnd;
        nfc[n - 1].p.kind = static_cast<uint32_t>(n);
        if (device_get_params(&nfc[n - 1].p) != ZEL_OK) {
            reportf(run, PREPARING, NO_PARAMETERS, 0, "Failed to obtain device parameters for NFC%d!", n);
            result = ZEL_FLASHER_DEVICE_PARAMETERS_ERROR;
            break;
        }
        present[n - 1] = true;
    }
    (void)set_session(hnd, -1);
    return result;
}

// get_i2c_device_parameters: the display behind each NFC module, where one answers.
ZEL_STATUS get_i2c_device_parameters(const Run &run, ZEL_HANDLE hnd, int count, Params *disp, bool *present)
{
    ZEL_STATUS result = ZEL_OK;
    for (int n = 1; n <= count && n <= 2; ++n) {
        present[n - 1] = false;
        if (set_session(hnd, n) != ZEL_OK) {
            reportf(run, PREPARING, SESSION_FAILED, 0, "Failed to prepare NFC%d session!", n);
            result = n == 1 ? ZEL_FLASHER_ESP_NFC1_SESSION_ERROR : ZEL_FLASHER_ESP_NFC2_SESSION_ERROR;
            break;
        }
        device_free_operations(disp[n - 1].p.operations);
        disp[n - 1].p = zel_device_params{};
        disp[n - 1].p.hnd = hnd;
        disp[n - 1].p.kind = ZEL_MODULE_DISPLAY;
        present[n - 1] = device_get_params(&disp[n - 1].p) == ZEL_OK;
    }
    (void)set_session(hnd, -1);
    return result;
}

bool same_version(const char *wanted, const char *installed)
{
    return wanted[0] && std::strcmp(wanted, installed) == 0;
}

// The records of one package run, freed on every way out; the network module's session goes back to itself.
struct PackageRun {
    ZEL_HANDLE hnd;
    bool esp = false;
    FirmwareRecord main, nfc[2], disp[2];
    ~PackageRun()
    {
        if (esp)
            (void)set_session(hnd, -1);
        free_record(&main);
        for (int i = 0; i < 2; ++i) {
            free_record(&nfc[i]);
            free_record(&disp[i]);
        }
    }
};

ZEL_STATUS install_package(ZEL_HANDLE hnd, const char *manifest, const char *token, bool force, zel_fw_callback cb)
{
    std::unique_ptr<PackageRun> pr(new (std::nothrow) PackageRun{hnd});
    std::unique_ptr<Params> dev(new (std::nothrow) Params);
    std::unique_ptr<Params[]> nfc(new (std::nothrow) Params[2]);
    std::unique_ptr<Params[]> disp(new (std::nothrow) Params[2]);
    if (!pr || !dev || !nfc || !disp)
        return ZEL_NO_MEMORY_ERROR;
    Run run{cb, ""};
    dev->p.hnd = hnd;
    dev->p.kind = ZEL_MODULE_MAIN;
    if (hnd->try_port[0])
        std::snprintf(dev->p.port_name, sizeof dev->p.port_name, "%.255s", hnd->try_port);
    if (device_get_params(&dev->p) != ZEL_OK) {
        report(run, INFO, NO_PARAMETERS, 0, "Failed to obtain device parameters!");
        return ZEL_FLASHER_DEVICE_PARAMETERS_ERROR;
    }
    run.serial = dev->p.serial_str;
    PackageVersions v{};
    if (parse_firmware_manifest(manifest, manifest ? std::strlen(manifest) : 0, &v) != 0) {
        report(run, INFO, GOOD, 0, "Manifest JSON parse error");
        return ZEL_FLASHER_FIRMWARE_MANIFEST_ERROR;
    }
    report(run, INFO, GOOD, 0, "Firmware manifest parsed successfully");
    const bool esp = dev->p.is_esp;
    pr->esp = esp;
    const char *main_version = esp ? v.esp : v.nfc1;
    bool main_upgraded = false;
    if (!main_version[0] || (same_version(main_version, dev->p.fw_str) && !force)) {
        report(run, INFO, GOOD, 100, "Skipping main module upgrade, same firmware already installed!");
    } else {
        report(run, DOWNLOADING, GOOD, 0, "Firmware download for the main module...");
        const int r = firmware_download(&pr->main, &dev->p, main_version, token);
        if (r == 2) {
            report(run, DOWNLOADING, TOKEN_REQUIRED, 0, "Firmware download failed: token required.");
            return ZEL_FLASHER_TOKEN_ERROR;
        }
        if (r != 0) {
            report(run, DOWNLOADING, DOWNLOAD_FAILED, 0, "Firmware download for the main module...failed!");
            return ZEL_FLASHER_ERROR_DOWNLOAD_FAILED;
        }
        report(run, DOWNLOADING, GOOD, 100, "Firmware downloaded for the main module successfully!");
        if (esp && set_session(hnd, -1) != ZEL_OK) {
            report(run, PREPARING, SESSION_FAILED, 0, "Failed to prepare ESP for firmware upgrade!");
            return ZEL_FLASHER_ESP_SESSION_ERROR;
        }
        report(run, WAITING, GOOD, 0, "Starting main module firmware upgrade...");
        const ZEL_STATUS status = firmware_install(run, esp ? kModEsp : kModMain, &dev->p, &pr->main);
        if (status != ZEL_OK)
            return status;
        main_upgraded = true;
    }

    bool nfc_present[2] = {}, nfc_upgraded[2] = {}, disp_present[2] = {};
    const char *nfc_version[2] = {v.nfc1, v.nfc2};
    const char *disp_version[2] = {v.display1, v.display2};
    int units = 0;
    if (esp) {
        report(run, INFO, GOOD, 0, "Checking available modules (UART/I2C)...");
        if (device_get_params(&dev->p) != ZEL_OK) {
            report(run, INFO, NO_PARAMETERS, 0, "Failed to obtain device parameters!");
            return ZEL_FLASHER_DEVICE_PARAMETERS_ERROR;
        }
        units = dev->p.esp_readers > 2 ? 2 : dev->p.esp_readers;
        ZEL_STATUS status = get_esp_uart_devices(run, hnd, units, nfc.get(), nfc_present);
        if (status != ZEL_OK)
            return status;
        bool skip[2] = {};
        for (int n = 1; n <= units; ++n) {
            Params &m = nfc[n - 1];
            if (!nfc_present[n - 1] || !nfc_version[n - 1][0] ||
                (same_version(nfc_version[n - 1], m.p.fw_str) && !force)) {
                reportf(run, INFO, GOOD, 0, "Skipping NFC%d firmware download, same firmware already installed!", n);
                skip[n - 1] = true;
                continue;
            }
            const int r = firmware_download(&pr->nfc[n - 1], &m.p, nfc_version[n - 1], token);
            if (r == 2) {
                reportf(run, DOWNLOADING, TOKEN_REQUIRED, 0,
                        "Firmware download for the NFC%d module failed: token required!", n);
                return ZEL_FLASHER_TOKEN_ERROR;
            }
            if (r != 0) {
                reportf(run, DOWNLOADING, DOWNLOAD_FAILED, 0, "Firmware download for the NFC%d module failed!", n);
                return ZEL_FLASHER_ERROR_DOWNLOAD_FAILED;
            }
        }
        for (int n = 1; n <= units; ++n) {
            if (skip[n - 1]) {
                reportf(run, INFO, GOOD, 100, "Skipping NFC%d firmware installation, same firmware already installed!",
                        n);
                continue;
            }
            if (set_session(hnd, n) != ZEL_OK) {
                reportf(run, PREPARING, SESSION_FAILED, 0, "Failed to prepare NFC%d session!", n);
                return n == 1 ? ZEL_FLASHER_ESP_NFC1_SESSION_ERROR : ZEL_FLASHER_ESP_NFC2_SESSION_ERROR;
            }
            if ((status = firmware_install(run, n, &nfc[n - 1].p, &pr->nfc[n - 1])) != ZEL_OK)
                return status;
            nfc_upgraded[n - 1] = true;
            // The unit restarted at the end of its install, which may have ended its session: the refresh
            // chooses it again so that the question reaches this unit.
            if (disp_version[n - 1][0] &&
                (set_session(hnd, n) != ZEL_OK || device_get_params(&nfc[n - 1].p) != ZEL_OK)) {
                reportf(run, INFO, REFRESH_FAILED, 0, "Failed to refresh NFC%d parameters after firmware install!", n);
                return ZEL_FLASHER_DEVICE_PARAMETERS_ERROR;
            }
        }
        (void)set_session(hnd, -1);
        if (device_get_params(&dev->p) != ZEL_OK ||
            get_i2c_device_parameters(run, hnd, units, disp.get(), disp_present) != ZEL_OK) {
            report(run, INFO, REFRESH_FAILED, 0, "Failed to refresh I2C devices!");
            return ZEL_FLASHER_DEVICE_PARAMETERS_ERROR;
        }
    } else {
        // Without a network module the one display is the reader's own, in front of it.
        disp[0].p.hnd = hnd;
        disp[0].p.kind = ZEL_MODULE_DISPLAY;
        disp[0].p.display_in_front = 1;
        disp_present[0] = disp_version[0][0] && device_get_params(&disp[0].p) == ZEL_OK;
    }

    // The displays: all downloads, then the installs.
    bool disp_skip[2] = {true, true};
    for (int d = 1; d <= 2; ++d) {
        if (!disp_present[d - 1])
            continue;
        Params &m = disp[d - 1];
        if (!disp_version[d - 1][0] || (same_version(disp_version[d - 1], m.p.fw_str) && !force)) {
            reportf(run, INFO, GOOD, 0, "Skipping Display%d firmware download, same firmware already installed!", d);
            continue;
        }
        disp_skip[d - 1] = false;
        const int r = firmware_download(&pr->disp[d - 1], &m.p, disp_version[d - 1], token);
        if (r == 2) {
            reportf(run, DOWNLOADING, TOKEN_REQUIRED, 0,
                    "Firmware download for the Display%d module failed: token required!", d);
            return ZEL_FLASHER_TOKEN_ERROR;
        }
        if (r != 0) {
            reportf(run, DOWNLOADING, DOWNLOAD_FAILED, 0, "Firmware download for the Display%d module failed!", d);
            return ZEL_FLASHER_ERROR_DOWNLOAD_FAILED;
        }
    }
    for (int d = 1; d <= 2; ++d) {
        if (!disp_present[d - 1])
            continue;
        Params &m = disp[d - 1];
        if (disp_skip[d - 1]) {
            reportf(run, INFO, GOOD, 100, "Skipping Display%d firmware installation, same firmware already installed!",
                    d);
            continue;
        }
        const bool parent_upgraded = esp ? nfc_upgraded[d - 1] : main_upgraded;
        if (parent_upgraded) {
            reportf(run, DOWNLOADING, GOOD, 0, "Re-downloading Display%d firmware after parent module upgrade...", d);
            const int r = firmware_download(&pr->disp[d - 1], &m.p, disp_version[d - 1], token);
            if (r != 0) {
                reportf(run, DOWNLOADING, r == 2 ? TOKEN_REQUIRED : DOWNLOAD_FAILED, 0,
                        r == 2 ? "Firmware download for the Display%d module failed: token required!"
                               : "Firmware download for the Display%d module failed!",
                        d);
                return download_status(r);
            }
        }
        if (esp && set_session(hnd, d) != ZEL_OK) {
            reportf(run, PREPARING, SESSION_FAILED, 0, "Failed to prepare NFC%d session for Display!", d);
            return d == 1 ? ZEL_FLASHER_ESP_NFC1_SESSION_ERROR : ZEL_FLASHER_ESP_NFC2_SESSION_ERROR;
        }
        const int module = esp ? (d == 1 ? kModDisplayNfc1 : kModDisplayNfc2) : kModDisplay;
        const ZEL_STATUS status = firmware_install(run, module, &m.p, &pr->disp[d - 1]);
        if (status != ZEL_OK)
            return status;
    }
    report(run, FINISHED, GOOD, 100, "Firmware package upgrade completed!");
    return ZEL_OK;
}

// The main module's parameters, for the downloads and lists.
ZEL_STATUS main_params(ZEL_HANDLE hnd, Params &dev, uint32_t kind = ZEL_MODULE_MAIN)
{
    dev.p.hnd = hnd;
    dev.p.kind = kind;
    return device_get_params(&dev.p) == ZEL_OK ? ZEL_OK : ZEL_FLASHER_DEVICE_PARAMETERS_ERROR;
}

// get_firmware_list_common: the packages of the reader as "%s,%s\n" lines.
ZEL_STATUS package_list(const zel_device_params *p, char *out, size_t out_len)
{
    const zel_fw_identity id = identity_of(p, ZEL_FW_ASK_PACKAGES);
    std::unique_ptr<char[]> text(new (std::nothrow) char[65537]);
    if (!text)
        return ZEL_NO_MEMORY_ERROR;
    const int r = text_download(http_get_firmware(&id, nullptr, nullptr), text.get(), 65537);
    if (r != 0)
        return download_status(r);
    parse_version_list(text.get(), std::strlen(text.get()), out, out_len);
    return ZEL_OK;
}

// get_package_manifest.
ZEL_STATUS package_manifest(const zel_device_params *p, const char *package, char *out, size_t out_len)
{
    if (!package || !package[0])
        return ZEL_PARAMETERS_ERROR;
    const zel_fw_identity id = identity_of(p, ZEL_FW_ASK_MANIFEST);
    const int r = text_download(http_get_firmware(&id, package, nullptr), out, out_len);
    return r == 0 ? ZEL_OK : download_status(r);
}

ZEL_STATUS installed_package(const zel_device_params *p, char *out, size_t out_len)
{
    const int r = text_download(http_get_package_name_by_firmware_version(p->hw_type, p->fw_str), out, out_len);
    if (r != 0)
        return download_status(r);
    // The name is the first line.
    out[std::strcspn(out, "\r\n")] = '\0';
    return ZEL_OK;
}

bool usable_out(const void *out, uint32_t len)
{
    return out && len > 0;
}

} // namespace

extern "C" ZEL_API ZEL_STATUS Flasher_InstallFirmwarePackageHnd(ZEL_HANDLE hnd, const char *manifest, const char *token,
                                                                uint8_t force, zel_fw_callback callback)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    return install_package(hnd, manifest, token, force != 0, callback);
}

extern "C" ZEL_API ZEL_STATUS Flasher_InstallLatestStableFirmwarePackageHnd(ZEL_HANDLE hnd, zel_fw_callback callback)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    Run run{callback, ""};
    report(run, INFO, GOOD, 0, "Getting device parameters...");
    Params dev;
    if (main_params(hnd, dev) != ZEL_OK) {
        report(run, INFO, NO_PARAMETERS, 0, "Failed to obtain device parameters!");
        return ZEL_FLASHER_DEVICE_PARAMETERS_ERROR;
    }
    run.serial = dev.p.serial_str;
    report(run, INFO, GOOD, 0, "Retrieving available packages...");
    std::unique_ptr<char[]> list(new (std::nothrow) char[65537]);
    std::unique_ptr<char[]> manifest(new (std::nothrow) char[65537]);
    if (!list || !manifest)
        return ZEL_NO_MEMORY_ERROR;
    ZEL_STATUS status = package_list(&dev.p, list.get(), 65537);
    if (status != ZEL_OK) {
        report(run, DOWNLOADING, status == ZEL_FLASHER_TOKEN_ERROR ? TOKEN_REQUIRED : DOWNLOAD_FAILED, 0,
               "Failed to retrieve available packages!");
        return status;
    }
    char package[32] = {};
    if (!get_last_line(list.get(), package, sizeof package)) {
        report(run, DOWNLOADING, DOWNLOAD_FAILED, 0, "No package available for the reader!");
        return ZEL_FLASHER_ERROR_DOWNLOAD_FAILED;
    }
    report(run, INFO, GOOD, 0, "Retrieving latest package manifest...");
    if ((status = package_manifest(&dev.p, package, manifest.get(), 65537)) != ZEL_OK) {
        report(run, DOWNLOADING, status == ZEL_FLASHER_TOKEN_ERROR ? TOKEN_REQUIRED : DOWNLOAD_FAILED, 0,
               "Failed to retrieve the package manifest!");
        return status;
    }
    PackageVersions v{};
    if (parse_firmware_manifest(manifest.get(), std::strlen(manifest.get()), &v) != 0) {
        report(run, INFO, GOOD, 0, "Manifest JSON parse error");
        return ZEL_FLASHER_FIRMWARE_MANIFEST_ERROR;
    }
    report(run, INFO, GOOD, 0, "Checking if update is necessary...");
    char installed[64] = {};
    int a = 0, b = 0, c = 0, x = 0, y = 0, z = 0;
    if (installed_package(&dev.p, installed, sizeof installed) == ZEL_OK && parse_version(installed, &a, &b, &c) &&
        parse_version(package, &x, &y, &z) && a == x && b == y && c == z) {
        report(run, FINISHED, GOOD, 100, "Package has been already installed.");
        return ZEL_FLASHER_PACKAGE_ALREADY_INSTALLED;
    }
    return install_package(hnd, manifest.get(), nullptr, false, callback);
}

extern "C" ZEL_API ZEL_STATUS Flasher_ListReaderFirmwarePackagesHnd(ZEL_HANDLE hnd, char *out, uint32_t out_len)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!usable_out(out, out_len))
        return ZEL_PARAMETERS_ERROR;
    out[0] = '\0';
    Params dev;
    if (main_params(hnd, dev) != ZEL_OK)
        return ZEL_FLASHER_DEVICE_PARAMETERS_ERROR;
    return package_list(&dev.p, out, out_len);
}

extern "C" ZEL_API ZEL_STATUS Flasher_GetFirmwarePackageManifestHnd(ZEL_HANDLE hnd, const char *package, char *out,
                                                                    uint32_t out_len)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!usable_out(out, out_len))
        return ZEL_PARAMETERS_ERROR;
    out[0] = '\0';
    Params dev;
    if (main_params(hnd, dev) != ZEL_OK)
        return ZEL_FLASHER_DEVICE_PARAMETERS_ERROR;
    return package_manifest(&dev.p, package, out, out_len);
}

extern "C" ZEL_API ZEL_STATUS Flasher_GetInstalledPackageNameHnd(ZEL_HANDLE hnd, char *out, uint32_t out_len)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!usable_out(out, out_len))
        return ZEL_PARAMETERS_ERROR;
    out[0] = '\0';
    Params dev;
    if (main_params(hnd, dev) != ZEL_OK)
        return ZEL_FLASHER_DEVICE_PARAMETERS_ERROR;
    return installed_package(&dev.p, out, out_len);
}

extern "C" ZEL_API ZEL_STATUS Flasher_DownloadFirmwareHnd(ZEL_HANDLE hnd, uint32_t module, const char *version,
                                                          const char *token, uint8_t *buffer, uint32_t buffer_len,
                                                          uint32_t *size, zel_fw_callback callback)
{
    if (size)
        *size = 0;
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!buffer || !size || !version || module > ZEL_MODULE_DISPLAY)
        return ZEL_PARAMETERS_ERROR;
    Run run{callback, ""};
    std::unique_ptr<Params> dev(new (std::nothrow) Params);
    std::unique_ptr<FirmwareRecord, void (*)(FirmwareRecord *)> record(new (std::nothrow) FirmwareRecord,
                                                                       [](FirmwareRecord *r) {
                                                                           free_record(r);
                                                                           delete r;
                                                                       });
    if (!dev || !record) {
        report(run, INFO, GOOD, 0, "Failed to allocate memory for thread parameters.");
        return ZEL_NO_MEMORY_ERROR;
    }
    if (main_params(hnd, *dev, module) != ZEL_OK) {
        report(run, INFO, NO_PARAMETERS, 0, "Failed to obtain device parameters!");
        return ZEL_FLASHER_DEVICE_PARAMETERS_ERROR;
    }
    run.serial = dev->p.serial_str;
    report(run, DOWNLOADING, GOOD, 0, "Downloading firmware...");
    const int r = firmware_download(record.get(), &dev->p, version, token);
    if (r != 0) {
        report(run, DOWNLOADING, r == 2 ? TOKEN_REQUIRED : DOWNLOAD_FAILED, 0, "Firmware download failed!");
        return download_status(r);
    }
    if (record->size > buffer_len)
        return ZEL_BUFFER_OVERFLOW;
    std::memcpy(buffer, record->data, record->size);
    *size = static_cast<uint32_t>(record->size);
    report(run, DOWNLOADING, GOOD, 100, "Firmware downloaded successfully!");
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS Flasher_DownloadConfigurationHnd(ZEL_HANDLE hnd, const char *name, uint8_t *buffer,
                                                               uint32_t buffer_len, uint32_t *size)
{
    if (size)
        *size = 0;
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!buffer || !size || buffer_len == 0)
        return ZEL_PARAMETERS_ERROR;
    zel_http_response *r = http_get_configuration(name && name[0] ? name : nullptr);
    ZEL_STATUS status = ZEL_OK;
    if (!r) {
        dp(6, "Error: Failed to get firmware response (NULL returned)\n");
        status = ZEL_FLASHER_ERROR_DOWNLOAD_FAILED;
    } else if (r->type == ZEL_HTTP_ERROR) {
        const char *text = r->data ? reinterpret_cast<const char *>(r->data) : "";
        dp(6, "Error: Server returned error: %.*s\n", static_cast<int>(r->size < 1024 ? r->size : 1024), text);
        status = ZEL_FLASHER_ERROR_DOWNLOAD_FAILED;
    } else if ((r->type != ZEL_HTTP_TEXT && r->type != ZEL_HTTP_FIRMWARE_BINARY) || !r->data || r->size == 0) {
        dp(6, "Error: Unexpected response type: %d\n", r->type);
        status = ZEL_FLASHER_ERROR_DOWNLOAD_FAILED;
    } else if (r->size > buffer_len) {
        status = ZEL_BUFFER_OVERFLOW;
    } else {
        std::memcpy(buffer, r->data, r->size);
        *size = static_cast<uint32_t>(r->size);
    }
    http_response_free(r);
    return status;
}

extern "C" ZEL_API ZEL_STATUS Flasher_ListConfigurationsHnd(ZEL_HANDLE hnd, char *out, uint32_t out_len)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!usable_out(out, out_len))
        return ZEL_PARAMETERS_ERROR;
    const int r = text_download(http_get_configuration(nullptr), out, out_len);
    return r == 0 ? ZEL_OK : download_status(r);
}
