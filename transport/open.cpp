// Opening a reader: the directed open with its argument words, the lower opens of serial and FTDI ports,
// the speed ladders of FTDI devices, the automatic search, and the global forms that copy the opened record
// over the global handle.
#include <cstdio>
#include <initializer_list>
#include <cstdlib>
#include <cstring>

#include "core/frame.h"
#include "core/internal.h"
#include "transport/line.h"
#include "transport/d2xx.h"
#include "transport/reset.h"
#include "zel_crypto.h"
#include "zel_devices.h"
#include "zel_esp.h"
#include "zel_ftdi.h"
#include "zel_net.h"
#include "zel_open.h"
#include "zel_port.h"
#include "zel_reader.h"
#include "zel_status.h"

using namespace zel;

namespace {

constexpr uint32_t kTestTimeoutMs = 250;    // while the reader is tested
constexpr uint32_t kOpenedTimeoutMs = 1500; // a serial port once open
constexpr uint32_t kFtdiOpenedTimeoutMs = 1000;
constexpr uint32_t kEspTimeoutMs = 1000;
constexpr uint32_t kAfterTestMs = 250; // a reader that just answered settles before the next command
constexpr int kTests = 3;
constexpr uint32_t kArgMax = 300;
constexpr uint8_t kAsyncOff = 33; // prefix and suffix of the closing asynchronous id setup

bool starts_with(const char *text, const char *prefix)
{
    return text && std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

bool empty(const char *text)
{
    return !text || !*text;
}

// A port name as a serial port: "COM..." as on other systems, or a device path.
bool is_port_path(const char *name)
{
    return starts_with(name, "COM") || starts_with(name, "/dev/");
}

bool has_port(const zel_handle_record *hnd)
{
    return hnd->comHandle != nullptr || hnd->udp_ready || (hnd->opened && hnd->comm.use == ZEL_PORT_FTDI);
}

// The reset of an open: the module's own reset in front of a network module, the pulse on the line
// otherwise.
ZEL_STATUS open_reset(zel_handle_record *hnd)
{
    if (hnd->esp_session)
        return EspReaderResetHnd(hnd);
    return reset_pulse(hnd);
}

ZEL_STATUS run_tests(zel_handle_record *hnd, const char *log_text)
{
    ZEL_STATUS status = ZEL_READER_OPENING_ERROR;
    for (int i = 1; i <= kTests; ++i) {
        if (log_text)
            dp(6, log_text, i);
        if ((status = test_reader_fw_version(hnd)) == ZEL_OK)
            break;
    }
    return status;
}

// The reset and the tests of an open, by reset_on_open.
ZEL_STATUS reset_and_test(zel_handle_record *hnd, const char *log_text)
{
    switch (hnd->reset_on_open) {
    case UNIT_OPEN_RESET_DISABLE: return run_tests(hnd, log_text);
    case UNIT_OPEN_RESET_ONLY:
        if (open_reset(hnd) == ZEL_OK)
            return ZEL_OK;
        [[fallthrough]];
    default: {
        const ZEL_STATUS status = open_reset(hnd);
        if (status != ZEL_OK)
            return status;
        return run_tests(hnd, log_text);
    }
    }
}

bool serial_matches(zel_handle_record *hnd, const char *wanted)
{
    uint8_t serial[8] = {};
    if (GetReaderSerialDescriptionHnd(hnd, serial) != ZEL_OK)
        return false;
    return std::strncmp(reinterpret_cast<const char *>(serial), wanted, 8) == 0;
}

void close_quietly(zel_handle_record *hnd)
{
    (void)ReaderCloseHnd(hnd);
}

ZEL_STATUS try_com_port(zel_handle_record *hnd, const char *name, uint32_t reader_type, bool single)
{
    if (rs232_serial_port_init_Hnd(hnd, name, reader_type - 1) != 0)
        return ZEL_READER_OPENING_ERROR;
    PortSetTimeout(hnd, kTestTimeoutMs);
    if (EspSetTransparentReaderSessionHnd(hnd, ZEL_ESP_SELF) == ZEL_OK)
        hnd->esp_session = 1;
    if (single)
        PortPurge(hnd);
    hnd->open_speed = static_cast<uint8_t>(reader_type);
    return reset_and_test(hnd, "PortOpen_byCOM try_get %d / 3");
}

// The D2XX entry points, loading the library on first use.
bool ftdi_ready(zel_handle_record *hnd)
{
    if (!(hnd->ftdi_loaded & 1) || !d2xx().FT_Open) {
        if (!LoadFTD2XXLibrary("libftd2xx.so")) {
            hnd->ftdi_loaded = 0;
            dp(6, "FT_Open pointer is null [%p], FTDI driver most likely not installed",
               reinterpret_cast<void *>(d2xx().FT_Open));
            return false;
        }
        hnd->ftdi_loaded = 1;
    }
    return true;
}

void set_speed(zel_handle_record *hnd, uint32_t speed_index)
{
    if (speed_index >= ZEL_BAUD_TABLE_LEN)
        speed_index = 0;
    hnd->idx_speed = speed_index;
    hnd->baud_rate = zel_baud_table[speed_index];
}

uint32_t speed_or_custom(const zel_handle_record *hnd, uint32_t fallback)
{
    return hnd->br_custom != ZEL_BR_NONE ? hnd->br_custom : fallback;
}

void global_async_off()
{
    (void)SetAsyncCardIdSendConfigExHnd(&zel_global, 0, 0, kAsyncOff, kAsyncOff, 0, 0, 0, zel_global.baud_rate);
}

// The global handle gives way to a new open: its port is closed when it has one of its own.
void close_global()
{
    if (has_port(&zel_global))
        (void)ReaderCloseHnd(&zel_global);
}

void copy_to_global(const zel_handle_record &record)
{
    zel_global = record;
}

} // namespace

// Argument words and tests.

extern "C" ZEL_API int is_reader_serial_number(const char *text)
{
    if (!text)
        return 0;
    const size_t len = std::strlen(text);
    if (len < 8)
        return 0;
    for (int i = 0; i < 2; ++i)
        if (!((text[i] >= 'A' && text[i] <= 'Z') || (text[i] >= 'a' && text[i] <= 'z')))
            return 0;
    for (int i = 2; i < 8; ++i)
        if (text[i] < '0' || text[i] > '9')
            return 0;
    return len == 8 || (len == 11 && std::strcmp(text + 8, "_BT") == 0) ||
           (len == 12 && std::strcmp(text + 8, "_BLE") == 0);
}

extern "C" ZEL_API void parse_open_arg(ZEL_HANDLE hnd, const char *arg)
{
    if (!hnd || empty(arg))
        return;
    hnd->reset_on_open = UNIT_OPEN_RESET_DEFAULT;
    hnd->br_custom = ZEL_BR_NONE;
    char copy[kArgMax + 1] = {};
    std::strncpy(copy, arg, kArgMax);
    static const struct {
        const char *word;
        uint32_t value;
    } kRts[] = {{"READER_ACTIVE_ON_RTS_LOW", READER_ACTIVE_ON_RTS_LOW},
                {"READER_ACTIVE_ON_RTS_HIGH", READER_ACTIVE_ON_RTS_HIGH},
                {"RTS_ALWAYS_HIGH", RTS_ALWAYS_HIGH},
                {"RTS_ALWAYS_LOW", RTS_ALWAYS_LOW},
                {"RTS_DISCONNECTED", RTS_DISCONNECTED}},
      kReset[] = {{"UNIT_OPEN_RESET_DEFAULT", UNIT_OPEN_RESET_DEFAULT},
                  {"UNIT_OPEN_RESET_DISABLE", UNIT_OPEN_RESET_DISABLE},
                  {"UNIT_OPEN_RESET_FORCE", UNIT_OPEN_RESET_FORCE},
                  {"UNIT_OPEN_RESET_ONLY", UNIT_OPEN_RESET_ONLY}},
      // 115200 before 250000, then the table's order, so that no rate is taken for a longer one.
        kBaud[] = {{"BR_115200", 1}, {"BR_250000", 2}, {"BR_1000000", 0}, {"BR_9600", 3},   {"BR_19200", 4},
                   {"BR_38400", 5},  {"BR_57600", 6},  {"BR_230400", 7},  {"BR_460800", 8}, {"BR_500000", 9}};
    char *save = nullptr;
    for (char *word = strtok_r(copy, " \t", &save); word; word = strtok_r(nullptr, " \t", &save)) {
        for (const auto &w : kRts)
            if (std::strstr(word, w.word)) {
                hnd->comm.rts = w.value;
                break;
            }
        for (const auto &w : kReset)
            if (std::strstr(word, w.word)) {
                hnd->reset_on_open = w.value;
                break;
            }
        for (const auto &w : kBaud)
            if (std::strstr(word, w.word)) {
                hnd->br_custom = w.value;
                break;
            }
    }
}

extern "C" ZEL_API ZEL_STATUS test_reader_fw_version(ZEL_HANDLE hnd)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (hnd->reset_on_open == UNIT_OPEN_RESET_ONLY)
        return ZEL_OK;
    if (hnd->esp_session)
        (void)EspSetTransparentReaderSessionHnd(hnd, ZEL_ESP_SELF);
    uint8_t mui[ZEL_MUI_MAX_LEN] = {};
    uint64_t serial = 0;
    uint8_t hw_type = 0, hw_version = 0, fw_major = 0, fw_minor = 0, fw_build = 0;
    uint32_t device_type = 0;
    const ZEL_STATUS status =
        GetReaderParametersHnd(hnd, mui, &serial, &hw_type, &hw_version, &device_type, &fw_major, &fw_minor, &fw_build);
    if (status != ZEL_OK && status != ZEL_COMMAND_NOT_SUPPORTED)
        return status;
    std::memset(hnd->serial, 0, 9);
    std::memcpy(hnd->serial, &serial, 8);
    hnd->ee_route = 0;
    os_sleep(kAfterTestMs);
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS test_reader_sn(ZEL_HANDLE hnd)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    return GetReaderSerialDescriptionHnd(hnd, reinterpret_cast<uint8_t *>(hnd->serial));
}

extern "C" ZEL_API ZEL_STATUS test_esp_sn(ZEL_HANDLE hnd)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    ZEL_STATUS status = EspSetTransparentReaderSessionHnd(hnd, ZEL_ESP_SELF);
    if (status != ZEL_OK)
        return status;
    uint8_t count = 0;
    return EspGetTransparentReadersHnd(hnd, &count);
}

// Serial ports.

extern "C" ZEL_API ZEL_STATUS PortOpen_byCOM(ZEL_HANDLE hnd, zel_com_ports *work, const char *port_name,
                                             uint32_t reader_type)
{
    if (!hnd || reader_type < 1 || reader_type > 3)
        return ZEL_PARAMETERS_ERROR;
    if (!empty(port_name) && !is_reader_serial_number(port_name)) {
        const ZEL_STATUS status = try_com_port(hnd, port_name, reader_type, true);
        if (status != ZEL_OK) {
            close_quietly(hnd);
            return status;
        }
        PortSetTimeout(hnd, kOpenedTimeoutMs);
        return ZEL_OK;
    }
    // A search over the serial ports, for a reader serial number when one is given.
    char wanted[16] = {};
    if (!empty(port_name))
        std::snprintf(wanted, sizeof wanted, "%s", port_name);
    zel_com_ports local{};
    zel_com_ports *ports = work ? work : &local;
    if (find_active_com_ports(ports) != 0 || ports->count <= 0)
        return ZEL_READER_OPENING_ERROR;
    const int32_t count = ports->count < ZEL_COM_PORTS_MAX ? ports->count : ZEL_COM_PORTS_MAX;
    for (int32_t i = 0; i < count; ++i) {
        char name[128];
        std::snprintf(name, sizeof name, "%s%d", ports->prefix[i], ports->number[i]);
        const ZEL_STATUS status = try_com_port(hnd, name, reader_type, false);
        // With a serial number asked for, the reader is asked for its own even after failed tests.
        const bool ok = wanted[0] ? serial_matches(hnd, wanted) : status == ZEL_OK;
        if (ok) {
            PortSetTimeout(hnd, kOpenedTimeoutMs);
            return ZEL_OK;
        }
        close_quietly(hnd);
        close_quietly(hnd);
    }
    return ZEL_READER_OPENING_ERROR;
}

// FTDI devices.

extern "C" ZEL_API ZEL_STATUS ReaderOpenByIdxSpeed(uint32_t device_index, uint32_t speed_index, uint32_t reset_flag,
                                                   uint32_t *reader_type, ZEL_HANDLE hnd)
{
    (void)reset_flag; // what counts is reset_on_open in the record
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    hnd->opened = 0;
    if (!ftdi_ready(hnd))
        return ZEL_FTD2XX_DLL_NOT_FOUND;
    hnd->device_index = static_cast<int32_t>(device_index);
    set_speed(hnd, speed_index);
    if (reader_type)
        *reader_type = hnd->reader_type;
    FT_HANDLE dev = nullptr;
    if (d2xx().FT_Open(static_cast<int>(device_index), &dev) != FT_OK || !dev)
        return ZEL_READER_OPENING_ERROR;
    hnd->ftHandle = dev;
    hnd->comm.use = ZEL_PORT_FTDI;
    hnd->opened = 1;
    if (ftdi_configure_hnd(dev, hnd->baud_rate, kTestTimeoutMs) != FT_OK) {
        close_quietly(hnd);
        return ZEL_READER_OPENING_ERROR;
    }
    uint8_t inverted = 0;
    ftdi_CheckRTS(dev, &inverted);
    if (inverted)
        hnd->comm.RTS_inverted = 1;
    else
        hnd->comm.rts = READER_ACTIVE_ON_RTS_HIGH;
    PortPurge(hnd);
    ZEL_STATUS status;
    if (hnd->reset_on_open == UNIT_OPEN_RESET_DISABLE) {
        status = run_tests(hnd, "ReaderOpenByIdxSpeed RESET_DISABLE try_get %d / 3");
    } else {
        status = EspReaderResetHnd(hnd);
        if (status != ZEL_OK)
            status = open_reset(hnd);
        if (status != ZEL_OK) {
            close_quietly(hnd);
            return status;
        }
        if (hnd->reset_on_open == UNIT_OPEN_RESET_ONLY)
            return ZEL_OK;
        status = run_tests(hnd, "ReaderOpenByIdxSpeed RESET try_get %d / 3");
    }
    if (status != ZEL_OK)
        close_quietly(hnd);
    return status;
}

extern "C" ZEL_API ZEL_STATUS ReaderOpenByFTDIIndex(uint32_t device_index, ZEL_HANDLE hnd)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    static const struct {
        uint8_t open_speed, speed_index, reset_flag;
    } kLadder[] = {{1, 0, 0}, {1, 0, 1}, {2, 1, 0}, {2, 1, 1}, {3, 2, 0}};
    ZEL_STATUS status = ZEL_READER_OPENING_ERROR;
    for (size_t i = 0; i < sizeof kLadder / sizeof kLadder[0]; ++i) {
        if (i)
            os_sleep(10);
        hnd->open_speed = kLadder[i].open_speed;
        status = ReaderOpenByIdxSpeed(device_index, kLadder[i].speed_index, kLadder[i].reset_flag, nullptr, hnd);
        if (status == ZEL_OK) {
            status = test_reader_fw_version(hnd);
            if (status != ZEL_OK)
                close_quietly(hnd);
            return status;
        }
    }
    close_quietly(hnd);
    return status;
}

extern "C" ZEL_API ZEL_STATUS ReaderOpenByTypeNIndex(uint32_t device_index, ZEL_HANDLE hnd, uint32_t reader_type)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    hnd->reader_type = reader_type;
    switch (reader_type) {
    case 0: return ReaderOpenByFTDIIndex(device_index, hnd);
    case 1:
    case 3:
        hnd->open_speed = static_cast<uint8_t>(reader_type);
        return ReaderOpenByIdxSpeed(device_index, speed_or_custom(hnd, reader_type - 1), 0, nullptr, hnd);
    case 2: {
        hnd->open_speed = 2;
        const ZEL_STATUS status = ReaderOpenByIdxSpeed(device_index, speed_or_custom(hnd, 1), 0, nullptr, hnd);
        if (status == ZEL_OK)
            return status;
        os_sleep(10);
        return ReaderOpenByIdxSpeed(device_index, speed_or_custom(hnd, 1), 1, nullptr, hnd);
    }
    default: return ZEL_PARAMETERS_ERROR;
    }
}

extern "C" ZEL_API ZEL_STATUS PortOpen_byFTDI(ZEL_HANDLE hnd, zel_com_ports *work, const char *port_name,
                                              uint32_t reader_type)
{
    (void)work;
    if (!hnd)
        return ZEL_PARAMETERS_ERROR;
    hnd->comm.use = ZEL_PORT_FTDI;
    if (!ftdi_ready(hnd))
        return ZEL_FTD2XX_DLL_NOT_FOUND;
    const D2xxTable &ft = d2xx();
    ZEL_STATUS status = ZEL_READER_OPENING_ERROR;
    if (!empty(port_name) && !is_reader_serial_number(port_name)) {
        hnd->opened = 0;
        FT_HANDLE dev = nullptr;
        if (!ft.FT_OpenEx || ft.FT_OpenEx(const_cast<char *>(port_name), FT_OPEN_BY_SERIAL_NUMBER, &dev) != FT_OK ||
            !dev)
            return ZEL_READER_OPENING_ERROR;
        hnd->ftHandle = dev;
        hnd->opened = 1;
        hnd->open_speed = static_cast<uint8_t>(reader_type);
        set_speed(hnd, reader_type >= 1 ? reader_type - 1 : 0);
        Zel_Hnd_assign_try_port(hnd, port_name);
        if (ftdi_configure_hnd(dev, hnd->baud_rate, hnd->esp_session ? kEspTimeoutMs : kTestTimeoutMs) != FT_OK) {
            close_quietly(hnd);
            return ZEL_READER_OPENING_ERROR;
        }
        uint8_t inverted = 0;
        ftdi_CheckRTS(dev, &inverted);
        hnd->comm.RTS_inverted = inverted ? 1 : 0;
        hnd->comm.rts = inverted ? 0 : 1;
        status = reset_and_test(hnd, "PortOpen_byFTDI try_get %d / 3");
        if (status != ZEL_OK) {
            close_quietly(hnd);
            return status;
        }
    } else {
        const int devices = ftdi_getDevNum();
        if (devices <= 0)
            return ZEL_READER_OPENING_ERROR;
        bool found = false;
        for (int i = 0; i < devices && !found; ++i) {
            hnd->reader_type = reader_type;
            switch (reader_type) {
            case 0: status = ReaderOpenByFTDIIndex(static_cast<uint32_t>(i), hnd); break;
            case 1:
                status = ReaderOpenByIdxSpeed(static_cast<uint32_t>(i), speed_or_custom(hnd, 0), 0, nullptr, hnd);
                break;
            case 2:
                status = ReaderOpenByIdxSpeed(static_cast<uint32_t>(i), speed_or_custom(hnd, 1), 0, nullptr, hnd);
                if (status != ZEL_OK) {
                    os_sleep(10);
                    status = ReaderOpenByIdxSpeed(static_cast<uint32_t>(i), speed_or_custom(hnd, 1), 1, nullptr, hnd);
                }
                break;
            case 3:
                status = ReaderOpenByIdxSpeed(static_cast<uint32_t>(i), speed_or_custom(hnd, 2), 0, nullptr, hnd);
                break;
            default: status = ZEL_PARAMETERS_ERROR; break;
            }
            if (!empty(port_name)) {
                // The reader's own serial decides, whatever the open said.
                found = serial_matches(hnd, port_name);
                if (!found)
                    close_quietly(hnd);
            } else {
                found = status == ZEL_OK;
            }
        }
        if (!found) {
            close_quietly(hnd);
            return status == ZEL_OK ? ZEL_READER_OPENING_ERROR : status;
        }
    }
    if (hnd->comm.use == ZEL_PORT_SERIAL) {
        PortSetTimeout(hnd, kFtdiOpenedTimeoutMs);
    } else if (ft.FT_SetTimeouts) {
        ft.FT_SetTimeouts(hnd->ftHandle, kFtdiOpenedTimeoutMs, kFtdiOpenedTimeoutMs);
    }
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS PortOpen_by(ZEL_HANDLE hnd, zel_com_ports *work, const char *port_name,
                                          uint32_t reader_type, uint32_t port_type)
{
    if (!hnd || reader_type > 3)
        return ZEL_PARAMETERS_ERROR;
    if (reader_type == 0 && port_type == 0 && empty(port_name)) {
        ZEL_HANDLE opened = nullptr;
        const ZEL_STATUS status = ReaderOpenHnd(&opened, 0);
        if (status == ZEL_OK && opened != hnd)
            *hnd = *opened;
        return status;
    }
    const uint32_t first = reader_type ? reader_type : 1;
    const uint32_t last = reader_type ? reader_type : 2;
    ZEL_STATUS status = ZEL_READER_OPENING_ERROR;
    for (uint32_t type = first; type <= last; ++type) {
        switch (port_type) {
        case 0:
            status = PortOpen_byFTDI(hnd, work, port_name, type);
            if (status != ZEL_OK)
                status = PortOpen_byCOM(hnd, work, port_name, type);
            break;
        case 1: status = PortOpen_byCOM(hnd, work, port_name, type); break;
        case 2: status = PortOpen_byFTDI(hnd, work, port_name, type); break;
        default: return ZEL_READER_OPENING_ERROR;
        }
        if (status == ZEL_OK)
            return ZEL_OK;
    }
    return status;
}

// The directed open.

extern "C" ZEL_API ZEL_STATUS ReaderOpenExHnd(ZEL_HANDLE hnd, uint32_t reader_type, const char *port_name,
                                              uint32_t port_interface, const char *arg)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    parse_open_arg(hnd, arg);
    if (reader_type == 4)
        return OpenZelNetReader_auto(hnd, port_name, port_interface, arg);
    __atomic_store_n(&hnd->port_busy, 0u, __ATOMIC_SEQ_CST);
    initCryptoSubsys();
    std::srand(tick_ms());
    zel_com_ports work{};
    if (port_interface == 'T' || port_interface == 'U') {
        const ZEL_STATUS status = udp_init(hnd, reader_type, port_name, port_interface, arg);
        if (status != ZEL_OK)
            return status;
        for (int i = 0; i < kTests; ++i)
            if (test_reader_fw_version(hnd) == ZEL_OK)
                return ZEL_OK;
        close_quietly(hnd);
        return ZEL_READER_OPENING_ERROR;
    }
    if (port_interface == 'L') {
        hnd->comm.use = ZEL_PORT_LOCAL;
        return ZEL_NOT_IMPLEMENTED;
    }
    uint32_t port_type;
    const char *name = port_name;
    const bool gpio = port_interface == 10;
    if (empty(port_name)) {
        name = nullptr;
        port_type = port_interface == 2 ? 2 : (gpio || port_interface == 1) ? 1 : 0;
    } else if (is_port_path(port_name)) {
        port_type = port_interface == 2 ? 2 : 1;
    } else if (is_reader_serial_number(port_name)) {
        if (port_interface == 2 || gpio || port_interface == 1) {
            port_type = port_interface == 2 ? 2 : 1;
            name = nullptr;
        } else {
            port_type = 0;
        }
    } else {
        port_type = (gpio || port_interface == 1) ? 1 : 2;
    }
    if (gpio)
        hnd->gpio_reset = 1;
    const ZEL_STATUS status = PortOpen_by(hnd, &work, name, reader_type, port_type);
    if (status != ZEL_OK)
        close_quietly(hnd);
    return status;
}

extern "C" ZEL_API ZEL_STATUS ReaderOpenEx(uint32_t reader_type, const char *port_name, uint32_t port_interface,
                                           const char *arg)
{
    dp(0, "API begin: %s()", __func__);
    zel_handle_record record;
    zel_handle_init(&record);
    close_global();
    const ZEL_STATUS status = ReaderOpenExHnd(&record, reader_type, port_name, port_interface, arg);
    if (status != ZEL_OK)
        return status;
    copy_to_global(record);
    if (port_interface != 'L' && reader_type != 5)
        global_async_off();
    return ZEL_OK;
}

// The automatic search.

extern "C" ZEL_API ZEL_STATUS ReaderOpenHnd_Serial(ZEL_HANDLE hnd, const char *port_name,
                                                   const zel_ftdi_device *adapters, uint32_t adapter_count)
{
    if (!hnd || empty(port_name))
        return ZEL_PARAMETERS_ERROR;
    if (adapters && isFtdiCOMPort(port_name, adapters, adapter_count))
        return ZEL_READER_OPENING_ERROR;
    static const char *const kArgs[] = {"UNIT_OPEN_RESET_DISABLE", "READER_ACTIVE_ON_RTS_HIGH",
                                        "READER_ACTIVE_ON_RTS_LOW"};
    ZEL_STATUS status = ZEL_READER_OPENING_ERROR;
    for (uint32_t type : {2u, 1u})
        for (const char *a : kArgs)
            if ((status = ReaderOpenExHnd(hnd, type, port_name, 1, a)) == ZEL_OK)
                return ZEL_OK;
    return status;
}

namespace {

ZEL_STATUS open_usb_list(zel_handle_record *hnd, const char *id_text, std::initializer_list<uint32_t> types,
                         const char *arg)
{
    zel_usb_device devices[ZEL_USB_DEVICES_MAX];
    const uint32_t count = ListUSBDevices(id_text, devices, ZEL_USB_DEVICES_MAX);
    if (count == 0)
        return ZEL_READER_OPENING_ERROR;
    for (uint32_t i = 0; i < count && i < ZEL_USB_DEVICES_MAX; ++i)
        for (uint32_t type : types)
            if (ReaderOpenExHnd(hnd, type, devices[i].port_name, 1, arg) == ZEL_OK)
                return ZEL_OK;
    return ZEL_READER_OPENING_ERROR;
}

void free_list(zel_ftdi_device *list)
{
    while (list) {
        zel_ftdi_device *next = list->next;
        std::free(list);
        list = next;
    }
}

} // namespace

extern "C" ZEL_API ZEL_STATUS ReaderOpenHnd_MicaUSB(ZEL_HANDLE hnd)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    hnd->comm.rts = READER_ACTIVE_ON_RTS_HIGH;
    hnd->comm.RTS_inverted = 0;
    return open_usb_list(hnd, "3629", {1u}, "UNIT_OPEN_RESET_DISABLE");
}

extern "C" ZEL_API ZEL_STATUS ReaderOpenHnd_FtdiUSB(ZEL_HANDLE hnd)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    hnd->comm.rts = READER_ACTIVE_ON_RTS_LOW;
    hnd->comm.RTS_inverted = 1;
    return open_usb_list(hnd, "0403", {1u, 2u}, "");
}

extern "C" ZEL_API ZEL_STATUS ReaderOpenHnd_FtdiZel(ZEL_HANDLE hnd, const zel_ftdi_device *readers, uint32_t count)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (count == 0)
        return ZEL_READER_OPENING_ERROR;
    ZEL_STATUS status = ZEL_READER_OPENING_ERROR;
    for (const zel_ftdi_device *d = readers; d && count--; d = d->next) {
        hnd->esp_session = d->esp_front;
        if ((status = ReaderOpenExHnd(hnd, 1, d->serial, 2, "")) == ZEL_OK)
            return ZEL_OK;
    }
    return status;
}

extern "C" ZEL_API ZEL_STATUS ReaderOpenHnd_FtdiRS232(ZEL_HANDLE hnd, const zel_ftdi_device *adapters, uint32_t count)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (count == 0)
        return ZEL_READER_OPENING_ERROR;
    ZEL_STATUS status = ZEL_READER_OPENING_ERROR;
    for (const zel_ftdi_device *d = adapters; d && count--; d = d->next)
        if ((status = ReaderOpenExHnd(hnd, 2, d->serial, 2, "")) == ZEL_OK)
            return ZEL_OK;
    return status;
}

extern "C" ZEL_API ZEL_STATUS ReaderOpenHnd(ZEL_HANDLE *out, uint32_t reader_type)
{
    (void)reader_type; // the search looks everywhere
    zel_handle_record *hnd = &zel_open_record;
    zel_handle_init(hnd);
    initCryptoSubsys();
    std::srand(tick_ms());
    if (ReaderOpenHnd_MicaUSB(hnd) == ZEL_OK) {
        if (out)
            *out = hnd;
        return ZEL_OK;
    }
    uint32_t reader_count = 0, adapter_count = 0;
    zel_ftdi_device *readers = nullptr, *adapters = nullptr;
    ZEL_STATUS status = ZEL_READER_OPENING_ERROR;
    bool opened = false;
    if (IsUSBDevicePresent("0403")) {
        if (!LoadFTD2XXLibrary("libftd2xx.so")) {
            hnd->ftdi_loaded = 0;
            return ZEL_FTD2XX_DLL_NOT_FOUND;
        }
        hnd->ftdi_loaded = 1;
        ftdi_multiReader_getZelDevices(&reader_count, &readers, &adapter_count, &adapters);
        opened = (status = ReaderOpenHnd_FtdiZel(hnd, readers, reader_count)) == ZEL_OK;
        if (!opened)
            opened = (status = ReaderOpenHnd_FtdiRS232(hnd, adapters, adapter_count)) == ZEL_OK;
    }
    if (!opened) {
        zel_com_ports ports{};
        if (find_active_com_ports(&ports) != 0 || ports.count <= 0) {
            status = ZEL_READER_OPENING_ERROR;
        } else {
            const int32_t n = ports.count < ZEL_COM_PORTS_MAX ? ports.count : ZEL_COM_PORTS_MAX;
            for (int32_t i = 0; i < n && !opened; ++i) {
                char name[128];
                std::snprintf(name, sizeof name, "%s%d", ports.prefix[i], ports.number[i]);
                if (adapters && isFtdiCOMPort(name, adapters, adapter_count))
                    continue;
                opened = (status = ReaderOpenHnd_Serial(hnd, name, nullptr, 0)) == ZEL_OK;
            }
        }
    }
    free_list(readers);
    free_list(adapters);
    if (!opened)
        return status;
    if (out)
        *out = hnd;
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS ReaderOpenM(ZEL_HANDLE *out)
{
    dp(0, "API begin: %s()", __func__);
    return ReaderOpenHnd(out, 0);
}

extern "C" ZEL_API ZEL_STATUS ReaderOpen(void)
{
    dp(0, "API begin: %s()", __func__);
    if (has_port(&zel_global))
        (void)ReaderCloseHnd(&zel_global);
    ZEL_HANDLE opened = nullptr;
    const ZEL_STATUS status = ReaderOpenHnd(&opened, 0);
    if (status != ZEL_OK)
        return status;
    copy_to_global(*opened);
    global_async_off();
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS ReaderOpenByType(uint32_t reader_type)
{
    dp(0, "API begin: %s()", __func__);
    (void)ReaderCloseHnd(&zel_global);
    ZEL_HANDLE opened = nullptr;
    const ZEL_STATUS status = ReaderOpenHnd(&opened, reader_type);
    if (status != ZEL_OK)
        return status;
    copy_to_global(*opened);
    return ZEL_OK;
}

// Default-rate opens of the speed repair, and the reset that waits for the reader's answer.

extern "C" ZEL_API ZEL_STATUS PortDefaultBaudRateOpen(ZEL_HANDLE hnd, uint8_t reader_type, const char *port_name)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    return default_rate_open_serial(hnd, reader_type, port_name);
}

extern "C" ZEL_API ZEL_STATUS PortFtdiDefaultBaudRateOpen(ZEL_HANDLE hnd, uint8_t reader_type)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    return default_rate_open_ftdi(hnd, reader_type);
}

extern "C" ZEL_API ZEL_STATUS ReaderResetWaitHnd(ZEL_HANDLE hnd)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    ZEL_STATUS status = open_reset(hnd);
    if (status != ZEL_OK)
        return status;
    PortSetTimeout(hnd, 50);
    constexpr int kTries = 10;
    for (int i = 1; i <= kTries; ++i) {
        dp(6, "ReaderResetWait() test #%d / %d", i, kTries);
        if ((status = GetReaderSerialDescriptionHnd(hnd, reinterpret_cast<uint8_t *>(hnd->serial))) == ZEL_OK)
            break;
    }
    PortSetTimeout(hnd, 1000);
    return status;
}

extern "C" ZEL_API ZEL_STATUS rs232_init_programming(ZEL_HANDLE hnd, uint32_t do_reset)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (do_reset) {
        (void)ReaderResetNoWaitFWHnd(hnd);
        os_sleep(1);
    }
    return ReaderWaitForBootSeqHnd(hnd, 0);
}
