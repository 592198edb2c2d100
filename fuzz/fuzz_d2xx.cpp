// The D2XX library's answers taken as untrusted: a stand-in table of entry points that answers from the
// input. The device listings (device count, each device's serial number and description buffers filled to
// their last byte without a terminator, the statuses, the adapters' port numbers and their EEPROM records)
// must give terminated texts within the entries; the read path (FT_Read counts beyond what was asked, short
// reads, failures, queue sizes) under the frame protocol and the plain reads must stay within the caller's
// buffers.
#include <cstdlib>
#include <cstring>

#include "core/internal.h"
#include "fuzz_link.h"
#include "tandro.h"
#include "transport/d2xx.h"
#include "transport/port.h"
#include "zel_ftdi.h"

using namespace zel;

namespace {

struct Input {
    const uint8_t *data = nullptr;
    size_t size = 0, at = 0;
    uint8_t byte() { return at < size ? data[at++] : 0; }
    uint32_t take(uint8_t *out, uint32_t n)
    {
        const size_t left = size - at;
        const uint32_t k = left < n ? static_cast<uint32_t>(left) : n;
        if (k)
            std::memcpy(out, data + at, k);
        at += k;
        return k;
    }
};
Input in;

// A status: mostly FT_OK, sometimes a failure of the input's choosing.
FT_STATUS status()
{
    const uint8_t b = in.byte();
    return b < 0xE0 ? FT_OK : static_cast<FT_STATUS>(b & 0x1F);
}

void fill_text(char *to, uint32_t n)
{
    // The whole buffer, with no terminator unless the input holds one.
    std::memset(to, 'x', n);
    in.take(reinterpret_cast<uint8_t *>(to), n);
}

FT_STATUS create_list(uint32_t *count)
{
    *count = in.byte() % 24;
    return status();
}
FT_STATUS info_detail(uint32_t, uint32_t *flags, uint32_t *type, uint32_t *id, uint32_t *location, char *serial,
                      char *description, FT_HANDLE *handle)
{
    *flags = in.byte();
    *type = in.byte();
    *id = 0x04036001;
    *location = in.byte();
    // The D2XX library's documented sizes: 16 bytes of serial number, 64 of description.
    fill_text(serial, 16);
    fill_text(description, 64);
    *handle = nullptr;
    return status();
}
FT_STATUS open_ex(void *, uint32_t, FT_HANDLE *handle)
{
    *handle = reinterpret_cast<FT_HANDLE>(0x1000);
    return status();
}
FT_STATUS close_dev(FT_HANDLE)
{
    return FT_OK;
}
FT_STATUS com_port(FT_HANDLE, int32_t *port)
{
    *port = static_cast<int8_t>(in.byte()) * 1000;
    return status();
}
FT_STATUS ee_read(FT_HANDLE, void *record)
{
    auto *d = static_cast<FtProgramData *>(record);
    fill_text(d->manufacturer, 32);
    fill_text(d->manufacturer_id, 16);
    fill_text(d->description, 64);
    fill_text(d->serial_number, 16);
    d->invert_rts = in.byte() & 1;
    return status();
}
FT_STATUS list_devices(void *arg1, void *, uint32_t)
{
    *static_cast<uint32_t *>(arg1) = static_cast<uint32_t>(in.byte()) << 8 | in.byte();
    return status();
}
FT_STATUS read_dev(FT_HANDLE, void *buffer, uint32_t count, uint32_t *returned)
{
    // A count of the input's choosing, beyond what was asked included; the bytes never beyond it.
    const uint8_t shape = in.byte();
    uint32_t n = shape & 0x80 ? count : shape % (count + 1);
    n = in.take(static_cast<uint8_t *>(buffer), n);
    *returned = shape >= 0xF0 ? count + shape : n;
    return shape == 0x7F ? 4 : FT_OK;
}
FT_STATUS write_dev(FT_HANDLE, void *, uint32_t count, uint32_t *written)
{
    *written = count;
    return FT_OK;
}
FT_STATUS queue_status(FT_HANDLE, uint32_t *rx)
{
    *rx = static_cast<uint32_t>(in.byte()) << 4;
    return status();
}
FT_STATUS purge(FT_HANDLE, uint32_t)
{
    return FT_OK;
}
FT_STATUS set_timeouts(FT_HANDLE, uint32_t, uint32_t)
{
    return FT_OK;
}
FT_STATUS driver_version(FT_HANDLE, uint32_t *version)
{
    *version = static_cast<uint32_t>(in.byte()) << 16 | static_cast<uint32_t>(in.byte()) << 8 | in.byte();
    return status();
}

void check_list(const zel_ftdi_device *list, uint32_t count)
{
    uint32_t seen = 0;
    for (const zel_ftdi_device *e = list; e; e = e->next) {
        ++seen;
        if (!std::memchr(e->serial, 0, sizeof e->serial) || !std::memchr(e->description, 0, sizeof e->description) ||
            !std::memchr(e->com_port_name, 0, sizeof e->com_port_name) || e->count != seen)
            std::abort();
    }
    if (seen != count)
        std::abort();
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

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool installed = [] {
        D2xxTable t{};
        t.FT_CreateDeviceInfoList = create_list;
        t.FT_GetDeviceInfoDetail = info_detail;
        t.FT_OpenEx = open_ex;
        t.FT_Close = close_dev;
        t.FT_GetComPortNumber = com_port;
        t.FT_EE_Read = ee_read;
        t.FT_ListDevices = list_devices;
        t.FT_Read = read_dev;
        t.FT_Write = write_dev;
        t.FT_GetQueueStatus = queue_status;
        t.FT_Purge = purge;
        t.FT_SetTimeouts = set_timeouts;
        t.FT_GetDriverVersion = driver_version;
        d2xx_install(t);
        return true;
    }();
    (void)installed;
    if (size < 1 || size > 20000)
        return 0;
    in = Input{data + 1, size - 1};
    zelfuzz::QuickTime quick(40);
    switch (data[0] % 4) {
    case 0: {
        uint32_t readers = 0, adapters = 0;
        zel_ftdi_device *r = nullptr, *a = nullptr;
        if (ftdi_multiReader_getZelDevices(&readers, &r, &adapters, &a) == 0) {
            check_list(r, readers);
            check_list(a, adapters);
        }
        free_list(r);
        free_list(a);
        break;
    }
    case 1: {
        uint32_t count = 0;
        zel_ftdi_device *all = nullptr;
        if (ftdi_getZelDevices(&count, &all) == 0)
            check_list(all, count);
        free_list(all);
        const int n = ftdi_getDevNum();
        if (n > 128) // the listing's own limit of devices
            std::abort();
        char text[16];
        uint8_t major = 0, minor = 0, build = 0;
        if (ftdi_GetDriverVersion(nullptr, text, &major, &minor, &build) == 0 && !std::memchr(text, 0, sizeof text))
            std::abort();
        uint8_t inverted = 9;
        if (ftdi_CheckRTS(nullptr, &inverted) == 0 && inverted > 1)
            std::abort();
        break;
    }
    case 2: {
        // The plain read into a buffer of exactly the asked size.
        const uint32_t count = 1 + data[0] / 4;
        auto *buf = static_cast<uint8_t *>(std::malloc(count));
        const int r = ftdi_read(reinterpret_cast<void *>(0x1000), buf, count);
        if ((r > 0 && r != 4) || r < -static_cast<int>(count)) // 4: the stand-in's one failure status
            std::abort();
        std::free(buf);
        break;
    }
    default: {
        // The frame protocol over a D2XX record.
        zel_handle_record rec;
        zel_handle_init(&rec);
        rec.comm.use = ZEL_PORT_FTDI;
        rec.ftdi_loaded = 1;
        rec.opened = 1;
        rec.ftHandle = reinterpret_cast<void *>(0x1000);
        uint32_t type = 0;
        GetReaderTypeHnd(&rec, &type);
        uint8_t serial[8];
        GetReaderSerialDescriptionHnd(&rec, serial);
        uint32_t available = 0;
        PortGetAvailable(&rec, &available);
        uint8_t raw[40];
        uint32_t got = 0;
        PortRead1(&rec, raw, sizeof raw, &got);
        if (got > sizeof raw)
            std::abort();
        break;
    }
    }
    return 0;
}
