// The stand-in D2XX library (libftd2xx.so): its devices are simulated readers in the calling process. The
// devices come from the scenario file named by ZSIM_D2XX_SCENARIO ({"devices": [scenario, ...]} or one
// scenario), read at the first call; each scenario's "d2xx" link gives the device's serial, description,
// InvertRTS bit and COM number. Line rate, time-outs, purges and RTS edges reach the reader: an RTS edge into
// the running level (RTS XOR InvertRTS = 1) restarts it.
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core.h"
#include "json.h"
#include "line.h"
#include "links.h"
#include "program_data.h"
#include "scenario.h"

#define FT_API extern "C" __attribute__((visibility("default")))

using FT_HANDLE = void *;
using FT_STATUS = uint32_t;

namespace {

constexpr FT_STATUS FT_OK = 0, FT_INVALID_HANDLE = 1, FT_DEVICE_NOT_FOUND = 2, FT_DEVICE_NOT_OPENED = 3,
                    FT_IO_ERROR = 4, FT_INVALID_PARAMETER = 6, FT_INVALID_BAUD_RATE = 7;
constexpr uint32_t OPEN_BY_SERIAL = 1, OPEN_BY_DESCRIPTION = 2, OPEN_BY_LOCATION = 4;
constexpr uint32_t LIST_NUMBER_ONLY = 0x80000000u, LIST_BY_INDEX = 0x40000000u;

struct FtComStat {
    uint32_t flags, in_queue, out_queue;
};

// A link with no thread of its own: the host's calls move the bytes.
struct D2xxLink : zs::Link {
    void stop() override {}
    void poke() override {}
};

struct Device {
    zsim *sim = nullptr;
    D2xxLink *link = nullptr; // owned by the simulator's links
    std::string serial, description;
    bool invert_rts = false;
    int32_t com_port = -1;
    uint32_t location = 0;
    // The host's side of the line, under mu.
    std::mutex mu;
    bool open = false;
    std::vector<uint8_t> rx;
    uint32_t read_timeout_ms = 0, write_timeout_ms = 0;
    bool rts = true;
    uint8_t latency = 16;

    ~Device() { zsim_free(sim); }
    bool running_level(bool level) const { return level != invert_rts; }

    // Moves what the reader has sent by now into the receive queue.
    void pull()
    {
        zs::link_due(sim, link->core, rx);
        if (rx.size() > (1u << 20))
            rx.erase(rx.begin(), rx.end() - (1u << 20));
    }
};

std::mutex g_mu;
bool g_loaded = false;
std::vector<std::unique_ptr<Device>> g_devices;

std::string load_devices(const char *text)
{
    zs::Json root;
    std::string err;
    if (!zs::json_parse(text, std::strlen(text), root, err))
        return err;
    std::vector<const zs::Json *> list;
    if (const zs::Json *devs = root.get("devices")) {
        if (devs->kind != zs::Json::ARRAY || devs->items.size() > 32)
            return "devices: a list of at most 32 scenarios is expected";
        for (const auto &d : devs->items)
            list.push_back(&d);
    } else if (const zs::Json *readers = root.get("readers")) {
        // A list of several readers: the ones with a d2xx link are this library's devices.
        if (readers->kind != zs::Json::ARRAY || readers->items.size() > 128)
            return "readers: a list of scenarios is expected";
        for (const auto &r : readers->items) {
            const zs::Json *links = r.get("links");
            bool d2xx = false;
            for (size_t k = 0; links && links->kind == zs::Json::ARRAY && k < links->items.size(); ++k) {
                const zs::Json *kind = links->items[k].get("kind");
                d2xx = d2xx || (kind && kind->kind == zs::Json::STRING && kind->str == "d2xx");
            }
            if (d2xx && list.size() < 32)
                list.push_back(&r);
        }
    } else {
        list.push_back(&root);
    }
    std::vector<std::unique_ptr<Device>> made;
    for (size_t i = 0; i < list.size(); ++i) {
        auto dev = std::make_unique<Device>();
        dev->sim = zsim_new();
        zs::Scenario s;
        {
            std::lock_guard<std::mutex> lock(dev->sim->mu);
            if (!zs::parse_scenario(*list[i], s, dev->sim->reader, err))
                return "device " + std::to_string(i) + ": " + err;
        }
        zs::apply_scenario(dev->sim, s);
        char serial[32];
        std::snprintf(serial, sizeof serial, "ZSD%05u", static_cast<unsigned>(i + 1));
        dev->serial = serial;
        dev->description = "Zel reader (simulated)";
        for (const auto &l : s.links) {
            if (l.kind != "d2xx")
                continue;
            if (!l.serial.empty())
                dev->serial = l.serial;
            if (!l.description.empty())
                dev->description = l.description;
            dev->invert_rts = l.invert_rts;
            dev->com_port = l.com_port;
        }
        dev->location = static_cast<uint32_t>(i + 1);
        dev->rts = !dev->invert_rts; // at the running level
        auto link = std::make_unique<D2xxLink>();
        link->core.check_baud = true;
        link->core.host_baud = 9600; // the chip's rate until the host sets one
        dev->link = link.get();
        zs::add_link(dev->sim, std::move(link));
        made.push_back(std::move(dev));
    }
    g_devices = std::move(made);
    return {};
}

void ensure_loaded()
{
    if (g_loaded)
        return;
    g_loaded = true;
    const char *path = std::getenv("ZSIM_D2XX_SCENARIO");
    if (!path || !*path)
        return;
    FILE *f = std::fopen(path, "rb");
    if (!f) {
        std::fprintf(stderr, "libftd2xx (simulated): cannot read %s\n", path);
        return;
    }
    std::string text;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0 && text.size() <= zs::JSON_MAX_TEXT)
        text.append(buf, n);
    std::fclose(f);
    const std::string err = load_devices(text.c_str());
    if (!err.empty())
        std::fprintf(stderr, "libftd2xx (simulated): %s: %s\n", path, err.c_str());
}

Device *by_handle(FT_HANDLE h)
{
    std::lock_guard<std::mutex> lock(g_mu);
    for (auto &d : g_devices)
        if (d.get() == h)
            return d->open ? d.get() : nullptr;
    return nullptr;
}

FT_STATUS open_device(Device *d, FT_HANDLE *out)
{
    std::lock_guard<std::mutex> lock(d->mu);
    if (d->open)
        return FT_DEVICE_NOT_OPENED;
    d->open = true;
    d->rx.clear();
    *out = d;
    return FT_OK;
}

void copy_text(char *to, size_t size, const std::string &from)
{
    if (!to)
        return;
    std::snprintf(to, size, "%s", from.c_str());
}

void set_rts(Device *d, bool level)
{
    std::lock_guard<std::mutex> lock(d->mu);
    const bool was_running = d->running_level(d->rts);
    d->rts = level;
    if (!was_running && d->running_level(level)) {
        std::lock_guard<std::mutex> sim_lock(d->sim->mu);
        zs::link_reset(d->sim, d->link->core);
        d->sim->resets.fetch_add(1);
    }
}

} // namespace

FT_API FT_STATUS FT_CreateDeviceInfoList(uint32_t *count)
{
    if (!count)
        return FT_INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(g_mu);
    ensure_loaded();
    *count = static_cast<uint32_t>(g_devices.size());
    return FT_OK;
}

FT_API FT_STATUS FT_GetDeviceInfoDetail(uint32_t index, uint32_t *flags, uint32_t *type, uint32_t *id,
                                        uint32_t *location, char *serial, char *description, FT_HANDLE *handle)
{
    std::lock_guard<std::mutex> lock(g_mu);
    ensure_loaded();
    if (index >= g_devices.size())
        return FT_DEVICE_NOT_FOUND;
    Device *d = g_devices[index].get();
    std::lock_guard<std::mutex> dl(d->mu);
    if (flags)
        *flags = d->open ? 1 : 0;
    if (type)
        *type = 5; // an FT232R
    if (id)
        *id = 0x04036001;
    if (location)
        *location = d->location;
    copy_text(serial, 16, d->serial);
    copy_text(description, 64, d->description);
    if (handle)
        *handle = d->open ? d : nullptr;
    return FT_OK;
}

FT_API FT_STATUS FT_ListDevices(void *arg1, void *arg2, uint32_t flags)
{
    std::lock_guard<std::mutex> lock(g_mu);
    ensure_loaded();
    if ((flags & LIST_NUMBER_ONLY) && arg1) {
        *static_cast<uint32_t *>(arg1) = static_cast<uint32_t>(g_devices.size());
        return FT_OK;
    }
    if ((flags & LIST_BY_INDEX) && arg2) {
        const uintptr_t index = reinterpret_cast<uintptr_t>(arg1);
        if (index >= g_devices.size())
            return FT_DEVICE_NOT_FOUND;
        copy_text(static_cast<char *>(arg2), 64,
                  (flags & OPEN_BY_DESCRIPTION) ? g_devices[index]->description : g_devices[index]->serial);
        return FT_OK;
    }
    return FT_INVALID_PARAMETER;
}

FT_API FT_STATUS FT_Open(int index, FT_HANDLE *handle)
{
    if (!handle)
        return FT_INVALID_PARAMETER;
    Device *d = nullptr;
    {
        std::lock_guard<std::mutex> lock(g_mu);
        ensure_loaded();
        if (index < 0 || static_cast<size_t>(index) >= g_devices.size())
            return FT_DEVICE_NOT_FOUND;
        d = g_devices[static_cast<size_t>(index)].get();
    }
    return open_device(d, handle);
}

FT_API FT_STATUS FT_OpenEx(void *arg, uint32_t flags, FT_HANDLE *handle)
{
    if (!arg || !handle)
        return FT_INVALID_PARAMETER;
    Device *d = nullptr;
    {
        std::lock_guard<std::mutex> lock(g_mu);
        ensure_loaded();
        for (auto &dev : g_devices) {
            const bool match = (flags & OPEN_BY_SERIAL)        ? dev->serial == static_cast<const char *>(arg)
                               : (flags & OPEN_BY_DESCRIPTION) ? dev->description == static_cast<const char *>(arg)
                               : (flags & OPEN_BY_LOCATION)
                                   ? dev->location == static_cast<uint32_t>(reinterpret_cast<uintptr_t>(arg))
                                   : false;
            if (match) {
                d = dev.get();
                break;
            }
        }
    }
    if (!d)
        return FT_DEVICE_NOT_FOUND;
    return open_device(d, handle);
}

FT_API FT_STATUS FT_Close(FT_HANDLE h)
{
    Device *d = by_handle(h);
    if (!d)
        return FT_INVALID_HANDLE;
    std::lock_guard<std::mutex> lock(d->mu);
    d->open = false;
    d->rx.clear();
    return FT_OK;
}

FT_API FT_STATUS FT_Write(FT_HANDLE h, void *buffer, uint32_t count, uint32_t *written)
{
    Device *d = by_handle(h);
    if (!d)
        return FT_INVALID_HANDLE;
    if (!buffer || !written)
        return FT_INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(d->mu);
    if (d->link->core.unplugged)
        return FT_IO_ERROR;
    zs::line_input(d->sim, d->link->core, static_cast<const uint8_t *>(buffer), count, true);
    *written = count;
    return FT_OK;
}

FT_API FT_STATUS FT_Read(FT_HANDLE h, void *buffer, uint32_t count, uint32_t *returned)
{
    Device *d = by_handle(h);
    if (!d)
        return FT_INVALID_HANDLE;
    if (!buffer || !returned)
        return FT_INVALID_PARAMETER;
    uint32_t timeout = 0;
    {
        std::lock_guard<std::mutex> lock(d->mu);
        timeout = d->read_timeout_ms;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout);
    while (true) {
        {
            std::lock_guard<std::mutex> lock(d->mu);
            d->pull();
            if (d->link->core.unplugged)
                return FT_IO_ERROR;
            if (d->rx.size() >= count || std::chrono::steady_clock::now() >= deadline) {
                const size_t n = d->rx.size() < count ? d->rx.size() : count;
                if (n)
                    std::memcpy(buffer, d->rx.data(), n);
                d->rx.erase(d->rx.begin(), d->rx.begin() + static_cast<long>(n));
                *returned = static_cast<uint32_t>(n);
                zs::line_output(d->sim, n, true);
                return FT_OK;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

FT_API FT_STATUS FT_GetQueueStatus(FT_HANDLE h, uint32_t *rx_bytes)
{
    Device *d = by_handle(h);
    if (!d)
        return FT_INVALID_HANDLE;
    if (!rx_bytes)
        return FT_INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(d->mu);
    d->pull();
    *rx_bytes = static_cast<uint32_t>(d->rx.size());
    return FT_OK;
}

FT_API int FT_W32_ClearCommError(FT_HANDLE h, uint32_t *errors, FtComStat *stat)
{
    Device *d = by_handle(h);
    if (!d)
        return 0;
    std::lock_guard<std::mutex> lock(d->mu);
    d->pull();
    if (errors)
        *errors = 0;
    if (stat) {
        stat->flags = 0;
        stat->in_queue = static_cast<uint32_t>(d->rx.size());
        stat->out_queue = 0;
    }
    return 1;
}

FT_API FT_STATUS FT_Purge(FT_HANDLE h, uint32_t mask)
{
    Device *d = by_handle(h);
    if (!d)
        return FT_INVALID_HANDLE;
    std::lock_guard<std::mutex> lock(d->mu);
    if (mask & 1) {
        d->pull();
        d->rx.clear();
    }
    return FT_OK;
}

FT_API FT_STATUS FT_SetTimeouts(FT_HANDLE h, uint32_t read_ms, uint32_t write_ms)
{
    Device *d = by_handle(h);
    if (!d)
        return FT_INVALID_HANDLE;
    std::lock_guard<std::mutex> lock(d->mu);
    d->read_timeout_ms = read_ms > 600000 ? 600000 : read_ms;
    d->write_timeout_ms = write_ms;
    return FT_OK;
}

FT_API FT_STATUS FT_SetBaudRate(FT_HANDLE h, uint32_t baud)
{
    Device *d = by_handle(h);
    if (!d)
        return FT_INVALID_HANDLE;
    if (baud < 183 || baud > 3000000)
        return FT_INVALID_BAUD_RATE;
    std::lock_guard<std::mutex> lock(d->mu);
    std::lock_guard<std::mutex> sim_lock(d->sim->mu);
    d->link->core.host_baud = baud;
    return FT_OK;
}

FT_API FT_STATUS FT_SetRts(FT_HANDLE h)
{
    Device *d = by_handle(h);
    if (!d)
        return FT_INVALID_HANDLE;
    set_rts(d, true);
    return FT_OK;
}

FT_API FT_STATUS FT_ClrRts(FT_HANDLE h)
{
    Device *d = by_handle(h);
    if (!d)
        return FT_INVALID_HANDLE;
    set_rts(d, false);
    return FT_OK;
}

FT_API FT_STATUS FT_GetDriverVersion(FT_HANDLE h, uint32_t *version)
{
    if (!by_handle(h))
        return FT_INVALID_HANDLE;
    if (!version)
        return FT_INVALID_PARAMETER;
    *version = 0x00021204; // 2.12.04
    return FT_OK;
}

FT_API FT_STATUS FT_SetBitMode(FT_HANDLE h, uint8_t, uint8_t)
{
    return by_handle(h) ? FT_OK : FT_INVALID_HANDLE;
}
FT_API FT_STATUS FT_ResetDevice(FT_HANDLE h)
{
    return by_handle(h) ? FT_OK : FT_INVALID_HANDLE;
}
FT_API FT_STATUS FT_SetDataCharacteristics(FT_HANDLE h, uint8_t, uint8_t, uint8_t)
{
    return by_handle(h) ? FT_OK : FT_INVALID_HANDLE;
}
FT_API FT_STATUS FT_SetFlowControl(FT_HANDLE h, uint16_t, uint8_t, uint8_t)
{
    return by_handle(h) ? FT_OK : FT_INVALID_HANDLE;
}

FT_API FT_STATUS FT_SetLatencyTimer(FT_HANDLE h, uint8_t ms)
{
    Device *d = by_handle(h);
    if (!d)
        return FT_INVALID_HANDLE;
    std::lock_guard<std::mutex> lock(d->mu);
    d->latency = ms;
    return FT_OK;
}

FT_API FT_STATUS FT_GetLatencyTimer(FT_HANDLE h, uint8_t *ms)
{
    Device *d = by_handle(h);
    if (!d)
        return FT_INVALID_HANDLE;
    if (!ms)
        return FT_INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(d->mu);
    *ms = d->latency;
    return FT_OK;
}

// An FT232R's EEPROM as the record of the caller's version holds it; no byte past that version's end is written.
FT_API FT_STATUS FT_EE_Read(FT_HANDLE h, void *program_data)
{
    Device *d = by_handle(h);
    if (!d)
        return FT_INVALID_HANDLE;
    if (!program_data)
        return FT_INVALID_PARAMETER;
    zsim_ft_program_data r;
    std::memcpy(&r, program_data, offsetof(zsim_ft_program_data, VendorId));
    if (r.Signature1 != 0x00000000u || r.Signature2 != 0xFFFFFFFFu || r.Version > 5)
        return FT_INVALID_PARAMETER;
    static const size_t ends[] = {ZSIM_FT_PD_END_V0, ZSIM_FT_PD_END_V1, ZSIM_FT_PD_END_V2,
                                  ZSIM_FT_PD_END_V3, ZSIM_FT_PD_END_V4, sizeof(zsim_ft_program_data)};
    const size_t end = ends[r.Version];
    std::memcpy(&r.Manufacturer, static_cast<char *>(program_data) + offsetof(zsim_ft_program_data, Manufacturer),
                4 * sizeof(char *));
    std::memset(reinterpret_cast<char *>(&r) + offsetof(zsim_ft_program_data, MaxPower), 0,
                sizeof r - offsetof(zsim_ft_program_data, MaxPower));
    r.VendorId = 0x0403;
    r.ProductId = 0x6001;
    copy_text(r.Manufacturer, 64, "Zel (simulated)");
    copy_text(r.ManufacturerId, 16, "ZS");
    copy_text(r.Description, 64, d->description);
    copy_text(r.SerialNumber, 16, d->serial);
    r.MaxPower = 90;
    r.PnP = 1;
    r.RemoteWakeup = 1;
    r.SerNumEnable = 1;
    r.USBVersion = 0x0200;
    r.USBVersion5 = 0x0200;
    r.EndPointSize = 64;
    r.SerNumEnableR = 1;
    r.InvertRTS = d->invert_rts ? 1 : 0;
    r.Cbus0 = 3; // the CBUS pins' functions
    r.Cbus1 = 2;
    r.Cbus2 = 0;
    r.Cbus3 = 1;
    r.Cbus4 = 5;
    std::memcpy(program_data, &r, end);
    return FT_OK;
}

FT_API FT_STATUS FT_GetComPortNumber(FT_HANDLE h, int32_t *port)
{
    Device *d = by_handle(h);
    if (!d)
        return FT_INVALID_HANDLE;
    if (!port)
        return FT_INVALID_PARAMETER;
    *port = d->com_port;
    return FT_OK;
}

// Control of the simulated devices, for tests that load this library themselves.

// Replaces the devices with those of a scenario text, as ZSIM_D2XX_SCENARIO would. 0, or -1 with err.
FT_API int zsim_d2xx_load(const char *json, char *err, size_t err_len)
{
    if (!json)
        return -1;
    std::lock_guard<std::mutex> lock(g_mu);
    g_loaded = true;
    try {
        const std::string e = load_devices(json);
        if (err && err_len)
            std::snprintf(err, err_len, "%s", e.c_str());
        return e.empty() ? 0 : -1;
    } catch (...) {
        return -1;
    }
}

// One text command of tandro-sim's standard input for device index ("add 04A1B2C3", "fault silence", ...).
FT_API int zsim_d2xx_command(uint32_t index, const char *line, char *out, size_t out_len)
{
    zsim *sim = nullptr;
    {
        std::lock_guard<std::mutex> lock(g_mu);
        ensure_loaded();
        if (index >= g_devices.size())
            return -1;
        sim = g_devices[index]->sim;
    }
    return zsim_command(sim, line, out, out_len);
}

// Restarts of device index so far (RTS edges into the running level, soft restarts), or -1.
FT_API int64_t zsim_d2xx_resets(uint32_t index)
{
    std::lock_guard<std::mutex> lock(g_mu);
    ensure_loaded();
    if (index >= g_devices.size())
        return -1;
    return static_cast<int64_t>(zsim_reset_count(g_devices[index]->sim));
}
