// The FTDI devices through the D2XX table: configuration, the EEPROM's RTS wiring, the lists of readers and
// serial adapters, and the driver version.
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/internal.h"
#include "transport/d2xx.h"
#include "zel_ftdi.h"
#include "zel_handle.h"

using namespace zel;

static_assert(sizeof(void *) != 8 || offsetof(FtProgramData, invert_rts) == 91,
              "InvertRTS sits in the FT232R block of the program data record");

namespace {

constexpr FT_STATUS kMissingEntry = 18; // FT_OTHER_ERROR: the loaded library lacks this entry point
constexpr uint32_t kMaxDevices = 128;
constexpr int kMaxOpenIndex = 64;
// Where an adapter's port number goes in a port name; it plays the part of "COM".
constexpr const char kPortPrefix[] = "/dev/ttyUSB";

void *const kClosed = reinterpret_cast<void *>(~static_cast<uintptr_t>(0));

FT_STATUS fail(const char *step, FT_STATUS status)
{
    dp(7, "Error while configure FTDI port! %s: %u", step, status);
    return status;
}

// A text the library wrote into a buffer of size bytes, cut at its end whatever it holds.
void copy_bounded(char *to, size_t to_size, const char *from, size_t from_size)
{
    size_t n = 0;
    while (n < from_size && from[n])
        ++n;
    if (n >= to_size)
        n = to_size - 1;
    std::memcpy(to, from, n);
    to[n] = '\0';
}

bool is_reader_description(const char *description)
{
    return std::strncmp(description, "Zel", 3) == 0 || std::strncmp(description, "Nel", 3) == 0;
}

void append(zel_ftdi_device **head, uint32_t *count, zel_ftdi_device *entry)
{
    zel_ftdi_device **at = head;
    while (*at)
        at = &(*at)->next;
    *at = entry;
    ++*count;
    entry->count = *count;
}

// Opens an adapter by its serial for a moment: its port number and RTS wiring.
void read_adapter(zel_ftdi_device *e)
{
    const D2xxTable &ft = d2xx();
    std::snprintf(e->com_port_name, sizeof e->com_port_name, "/");
    FT_HANDLE dev = nullptr;
    if (!ft.FT_OpenEx || ft.FT_OpenEx(e->serial, FT_OPEN_BY_SERIAL_NUMBER, &dev) != FT_OK) {
        dp(6, "FTDI adapter %s does not open", e->serial);
        e->ready = 0;
        return;
    }
    int32_t port = -1;
    if (ft.FT_GetComPortNumber && ft.FT_GetComPortNumber(dev, &port) == FT_OK && port >= 0)
        std::snprintf(e->com_port_name, sizeof e->com_port_name, "%s%d", kPortPrefix, port);
    ftdi_CheckRTS(dev, &e->rts_inverted);
    if (ft.FT_Close)
        ft.FT_Close(dev);
    e->ready = 1;
}

// The walk of both listings: with adapters null, every device goes to the readers' list.
uint32_t list_devices(uint32_t *reader_count, zel_ftdi_device **readers, uint32_t *adapter_count,
                      zel_ftdi_device **adapters)
{
    const D2xxTable &ft = d2xx();
    *reader_count = 0;
    *readers = nullptr;
    if (adapter_count)
        *adapter_count = 0;
    if (adapters)
        *adapters = nullptr;
    if (!ft.FT_CreateDeviceInfoList || !ft.FT_GetDeviceInfoDetail)
        return kMissingEntry;
    uint32_t n = 0;
    const FT_STATUS status = ft.FT_CreateDeviceInfoList(&n);
    if (status != FT_OK)
        return status;
    if (n > kMaxDevices)
        n = kMaxDevices;
    zel_ftdi_device *last = nullptr;
    for (uint32_t i = 0; i < n; ++i) {
        uint32_t flags = 0, type = 0, id = 0, location = 0;
        char serial[64] = {}, description[128] = {};
        FT_HANDLE handle = nullptr;
        if (ft.FT_GetDeviceInfoDetail(i, &flags, &type, &id, &location, serial, description, &handle) != FT_OK) {
            dp(6, "FTDI device %u: no details", i);
            if (last)
                last->ready = 0;
            continue;
        }
        auto *e = static_cast<zel_ftdi_device *>(std::calloc(1, sizeof(zel_ftdi_device)));
        if (!e)
            return 0;
        copy_bounded(e->serial, sizeof e->serial, serial, sizeof serial);
        copy_bounded(e->description, sizeof e->description, description, sizeof description);
        const bool reader = is_reader_description(e->description);
        if (reader) {
            std::snprintf(e->com_port_name, sizeof e->com_port_name, "/");
            e->reader_type = 1;
            e->baudrate = 1000000;
            e->is_ftdi_serial = e->serial[0] != '\0';
            e->ready = 1;
        } else {
            read_adapter(e);
        }
        if (reader || !adapters)
            append(readers, reader_count, e);
        else
            append(adapters, adapter_count, e);
        last = e;
    }
    return FT_OK;
}

} // namespace

extern "C" ZEL_API uint32_t ftdi_configure_hnd(void *device, uint32_t baud, uint32_t read_timeout_ms)
{
    const D2xxTable &ft = d2xx();
    FT_STATUS s;
    if (ft.FT_GetDriverVersion) {
        uint32_t version = 0;
        (void)ft.FT_GetDriverVersion(device, &version);
    }
    if (!ft.FT_SetBitMode)
        return fail("FT_SetBitMode", kMissingEntry);
    if ((s = ft.FT_SetBitMode(device, 0, 0)) != FT_OK)
        return fail("FT_SetBitMode", s);
    if (!ft.FT_Purge)
        return fail("FT_Purge", kMissingEntry);
    if ((s = ft.FT_Purge(device, FT_PURGE_RX | FT_PURGE_TX)) != FT_OK)
        return fail("FT_Purge", s);
    if (!ft.FT_SetBaudRate)
        return fail("FT_SetBaudRate", kMissingEntry);
    if ((s = ft.FT_SetBaudRate(device, baud)) != FT_OK)
        return fail("FT_SetBaudRate", s);
    if (!ft.FT_SetTimeouts)
        return fail("FT_SetTimeouts", kMissingEntry);
    if ((s = ft.FT_SetTimeouts(device, read_timeout_ms, 1000)) != FT_OK)
        return fail("FT_SetTimeouts", s);
    if (!ft.FT_SetDataCharacteristics)
        return fail("FT_SetDataCharacteristics", kMissingEntry);
    if ((s = ft.FT_SetDataCharacteristics(device, 8, 0, 0)) != FT_OK)
        return fail("FT_SetDataCharacteristics", s);
    if (!ft.FT_SetFlowControl)
        return fail("FT_SetFlowControl", kMissingEntry);
    if ((s = ft.FT_SetFlowControl(device, 0, 0, 0)) != FT_OK)
        return fail("FT_SetFlowControl", s);
    if (!ft.FT_SetLatencyTimer)
        return fail("FT_SetLatencyTimer", kMissingEntry);
    if ((s = ft.FT_SetLatencyTimer(device, 2)) != FT_OK)
        return fail("FT_SetLatencyTimer", s);
    if (ft.FT_GetLatencyTimer) {
        uint8_t latency = 0;
        s = ft.FT_GetLatencyTimer(device, &latency);
        dp(7, "LatencyTimer(%d)=> %d\n", static_cast<int>(s), latency);
    }
    return FT_OK;
}

extern "C" ZEL_API uint32_t ftdi_configure(uint32_t baud, uint32_t read_timeout_ms)
{
    void *device = zel_global.ftHandle;
    if (!device || device == kClosed)
        return FT_INVALID_HANDLE;
    return ftdi_configure_hnd(device, baud, read_timeout_ms);
}

extern "C" ZEL_API uint32_t ftdi_open(uint32_t baud, uint32_t read_timeout_ms, void **device)
{
    const D2xxTable &ft = d2xx();
    if (!device)
        return FT_INVALID_HANDLE;
    if (!ft.FT_Open)
        return kMissingEntry;
    if (*device && *device != kClosed && ft.FT_Close)
        ft.FT_Close(*device);
    *device = nullptr;
    FT_HANDLE dev = nullptr;
    FT_STATUS s = FT_DEVICE_NOT_FOUND;
    for (int index = 0; index < kMaxOpenIndex; ++index) {
        s = ft.FT_Open(index, &dev);
        if (s == FT_OK || s == FT_DEVICE_NOT_FOUND)
            break;
    }
    if (s != FT_OK)
        return s;
    if ((s = ftdi_configure_hnd(dev, baud, read_timeout_ms)) != FT_OK) {
        if (ft.FT_Close)
            ft.FT_Close(dev);
        return s;
    }
    *device = dev;
    return FT_OK;
}

extern "C" ZEL_API int ftdi_CheckRTS(void *device, uint8_t *inverted)
{
    const D2xxTable &ft = d2xx();
    if (!inverted)
        return static_cast<int>(FT_INVALID_HANDLE);
    if (!ft.FT_EE_Read)
        return static_cast<int>(kMissingEntry);
    // The texts of the record are the caller's buffers.
    char *texts = static_cast<char *>(std::calloc(1, 64 + 16 + 64 + 16));
    if (!texts) {
        *inverted = 0;
        return -1;
    }
    FtProgramData data{};
    data.signature1 = 0x00000000;
    data.signature2 = 0xFFFFFFFF;
    data.version = kFtProgramDataVersion;
    data.manufacturer = texts;
    data.manufacturer_id = texts + 64;
    data.description = texts + 80;
    data.serial_number = texts + 144;
    const FT_STATUS s = ft.FT_EE_Read(device, &data);
    if (s == FT_OK)
        *inverted = data.invert_rts ? 1 : 0;
    std::free(texts);
    return static_cast<int>(s);
}

extern "C" ZEL_API int ftdi_getDevNum(void)
{
    const D2xxTable &ft = d2xx();
    if (!ft.FT_ListDevices)
        return -static_cast<int>(kMissingEntry);
    uint32_t n = 0;
    const FT_STATUS s = ft.FT_ListDevices(&n, nullptr, FT_LIST_NUMBER_ONLY);
    if (s != FT_OK)
        return -static_cast<int>(s);
    return n > kMaxDevices ? static_cast<int>(kMaxDevices) : static_cast<int>(n);
}

extern "C" ZEL_API uint32_t ftdi_multiReader_getZelDevices(uint32_t *reader_count, zel_ftdi_device **readers,
                                                           uint32_t *adapter_count, zel_ftdi_device **adapters)
{
    if (!reader_count || !readers || !adapter_count || !adapters)
        return FT_INVALID_HANDLE;
    return list_devices(reader_count, readers, adapter_count, adapters);
}

extern "C" ZEL_API uint32_t ftdi_getZelDevices(uint32_t *count, zel_ftdi_device **devices)
{
    if (!count || !devices)
        return FT_INVALID_HANDLE;
    return list_devices(count, devices, nullptr, nullptr);
}

extern "C" ZEL_API void ftdi_get_set_vid_pid(void) {}

extern "C" ZEL_API uint32_t ftdi_GetDriverVersion(void *device, char *text, uint8_t *major, uint8_t *minor,
                                                  uint8_t *build)
{
    const D2xxTable &ft = d2xx();
    uint32_t version = 0;
    const FT_STATUS s = ft.FT_GetDriverVersion ? ft.FT_GetDriverVersion(device, &version) : kMissingEntry;
    if (s != FT_OK)
        version = 0;
    const uint8_t ma = static_cast<uint8_t>(version >> 16), mi = static_cast<uint8_t>(version >> 8),
                  bu = static_cast<uint8_t>(version);
    if (major)
        *major = ma;
    if (minor)
        *minor = mi;
    if (build)
        *build = bu;
    if (text && s == FT_OK)
        std::snprintf(text, 16, "%X.%02X.%02X", ma, mi, bu);
    return s;
}

extern "C" ZEL_API uint32_t GetFtdiDriverVersion(uint8_t *major, uint8_t *minor, uint8_t *build)
{
    const uint32_t s = ftdi_GetDriverVersion(zel_global.ftHandle, nullptr, major, minor, build);
    return s == FT_OK ? 0 : (s | 0xA0u);
}

extern "C" ZEL_API uint32_t GetFtdiDriverVersionStr(char *text)
{
    const uint32_t s = ftdi_GetDriverVersion(zel_global.ftHandle, text, nullptr, nullptr, nullptr);
    return s == FT_OK ? 0 : (s | 0xA0u);
}
