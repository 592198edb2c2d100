// tandro devices: the USB serial ports of the system with their USB identity, and the FTDI devices the D2XX
// library sees, readers and plain serial adapters apart.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tandro.h"
#include "tools/cli.h"
#include "tools/options.h"
#include "transport/d2xx.h"
#include "transport/sysfs.h"

namespace {

const char kName[] = "devices";

struct SerialPort {
    std::string name, description, id, serial;
    bool reader = false; // the readers' own vendor or product id
    bool ftdi = false;   // an FTDI chip, as older readers carry
};

bool reader_ids(const std::string &id)
{
    return id.find("VID_3629") != std::string::npos || id.find("PID_2E15") != std::string::npos;
}

std::vector<SerialPort> serial_ports(bool &listed)
{
    std::vector<SerialPort> out;
    auto *list = static_cast<zel_com_ports *>(std::calloc(1, sizeof(zel_com_ports)));
    listed = list && find_active_com_ports(list) == 0;
    for (int32_t i = 0; listed && i < list->count && i < ZEL_COM_PORTS_MAX; ++i) {
        char name[96];
        std::snprintf(name, sizeof name, "%.64s%d", list->prefix[i], list->number[i]);
        SerialPort p;
        p.name = name;
        zel_usb_device dev{};
        if (GetDeviceDetailsByCOM(name, &dev))
            p.description = dev.description;
        char id[256] = {}, serial[128] = {};
        if (GetDeviceInstanceIDAndSerialByCOM(name, id, sizeof id, serial, sizeof serial))
            p.serial = serial;
        p.id = id;
        p.reader = reader_ids(p.id);
        p.ftdi = p.id.find("VID_0403") != std::string::npos;
        out.push_back(p);
    }
    std::free(list);
    return out;
}

struct FtdiList {
    bool loaded = false;
    uint32_t status = 0;
    std::vector<zel_ftdi_device> readers, adapters;
};

FtdiList ftdi_devices()
{
    FtdiList out;
    out.loaded = LoadFTD2XXLibrary("libftd2xx.so") != 0;
    if (!out.loaded)
        return out;
    uint32_t nr = 0, na = 0;
    zel_ftdi_device *readers = nullptr, *adapters = nullptr;
    out.status = ftdi_multiReader_getZelDevices(&nr, &readers, &na, &adapters);
    for (zel_ftdi_device *e = readers; e;) {
        zel_ftdi_device *next = e->next;
        out.readers.push_back(*e);
        std::free(e);
        e = next;
    }
    for (zel_ftdi_device *e = adapters; e;) {
        zel_ftdi_device *next = e->next;
        out.adapters.push_back(*e);
        std::free(e);
        e = next;
    }
    UnloadFTD2XXLibrary(zel::d2xx_module());
    return out;
}

std::string ftdi_json(const zel_ftdi_device &e, bool reader)
{
    std::string s = "{\"serial\": " + tandro::json_string(e.serial) +
                    ", \"description\": " + tandro::json_string(e.description) +
                    ", \"port\": " + tandro::json_string(e.com_port_name);
    // A reader's RTS wiring is read from its EEPROM when it is opened; an adapter's when it is listed.
    if (reader)
        s += ", \"baud\": " + std::to_string(e.baudrate) + ", \"by_serial\": " + (e.is_ftdi_serial ? "true" : "false");
    else
        s += std::string(", \"rts_inverted\": ") + (e.rts_inverted ? "true" : "false") +
             ", \"ready\": " + (e.ready ? "true" : "false");
    return s + "}";
}

const tandro::OptionTable TABLE = {
    {
        {"", "the USB serial ports (readers and FTDI chips marked) and the FTDI readers and serial adapters"},
    },
    {
        {"--sysfs", "DIR", "the device tree under DIR in place of the system's, as tests present one"},
    },
    "No reader is opened. The FTDI devices are listed only when the D2XX library (libftd2xx.so) is installed. "
    "The exit status is 1 when the device tree cannot be read.",
};

int run_devices(const tandro::Options &opt, const tandro::Args &args)
{
    tandro::Parsed parsed;
    if (!tandro::parse(kName, TABLE, args, parsed))
        return 2;
    if (!parsed.words.empty())
        return tandro::usage_error(kName, "unknown argument \"" + parsed.words[0] + "\"");
    if (parsed.has("--sysfs"))
        zel::set_sysfs_root(parsed.value("--sysfs").c_str());
    bool listed = false;
    const std::vector<SerialPort> ports = serial_ports(listed);
    const FtdiList ftdi = ftdi_devices();

    if (opt.json) {
        std::string out = "{\"serial_ports\": [";
        for (size_t i = 0; i < ports.size(); ++i) {
            const SerialPort &p = ports[i];
            out += std::string(i ? ", " : "") + "{\"port\": " + tandro::json_string(p.name) +
                   ", \"description\": " + tandro::json_string(p.description) +
                   ", \"id\": " + tandro::json_string(p.id) + ", \"serial\": " + tandro::json_string(p.serial) +
                   ", \"reader\": " + (p.reader ? "true" : "false") + ", \"ftdi\": " + (p.ftdi ? "true" : "false") +
                   "}";
        }
        out += "], \"ftdi\": ";
        if (!ftdi.loaded) {
            out += "null";
        } else {
            out += "{\"status\": " + std::to_string(ftdi.status) + ", \"readers\": [";
            for (size_t i = 0; i < ftdi.readers.size(); ++i)
                out += (i ? ", " : "") + ftdi_json(ftdi.readers[i], true);
            out += "], \"adapters\": [";
            for (size_t i = 0; i < ftdi.adapters.size(); ++i)
                out += (i ? ", " : "") + ftdi_json(ftdi.adapters[i], false);
            out += "]}";
        }
        std::printf("%s}\n", out.c_str());
        return listed ? 0 : tandro::fail_text(kName, "the device tree cannot be read", ZEL_FILE_SYSTEM_ERROR);
    }

    std::printf("USB serial ports:%s\n", !listed ? " (the device tree cannot be read)" : ports.empty() ? " none" : "");
    for (const SerialPort &p : ports) {
        std::printf("  %-16s %s%s\n", p.name.c_str(),
                    p.description.empty() ? "(no description)" : p.description.c_str(),
                    p.reader ? "  [reader]"
                    : p.ftdi ? "  [FTDI]"
                             : "");
        if (!p.id.empty())
            std::printf("  %-16s id %s%s%s\n", "", p.id.c_str(), p.serial.empty() ? "" : ", serial ", p.serial.c_str());
    }
    if (!ftdi.loaded) {
        std::printf("FTDI devices: the D2XX library (libftd2xx.so) is not installed\n");
        return listed ? 0 : tandro::fail_text(kName, "the device tree cannot be read", ZEL_FILE_SYSTEM_ERROR);
    }
    if (ftdi.status != 0)
        std::printf("FTDI devices: listing failed with D2XX status %u\n", ftdi.status);
    std::printf("FTDI readers:%s\n", ftdi.readers.empty() ? " none" : "");
    for (const zel_ftdi_device &e : ftdi.readers)
        std::printf("  %u. %-16s %-32s %u bit/s\n", e.count, e.serial, e.description, e.baudrate);
    std::printf("FTDI serial adapters:%s\n", ftdi.adapters.empty() ? " none" : "");
    for (const zel_ftdi_device &e : ftdi.adapters)
        std::printf("  %u. %-16s %-32s port %s, RTS %s%s\n", e.count, e.serial, e.description, e.com_port_name,
                    e.rts_inverted ? "inverted" : "plain", e.ready ? "" : " (not ready)");
    return listed ? 0 : tandro::fail_text(kName, "the device tree cannot be read", ZEL_FILE_SYSTEM_ERROR);
}

const tandro::Registration devices_cmd({"devices", "[--sysfs DIR]",
                                        "the USB serial ports and the FTDI readers and adapters of this system",
                                        run_devices, false, &TABLE});

} // namespace
