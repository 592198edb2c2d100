// The list of many readers: the scan of FTDI devices and serial ports, the entries' identity, and the opens by
// index and serial number. The entries themselves are the open layer's list of heap records (list_size,
// list_get_by_idx, appendToEnd, removeData); what the scan learns about each one beside its record (FTDI
// serial and description, firmware, type, the ESP front) is kept here, by handle.
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "core/internal.h"
#include "readers/readers_internal.h"
#include "transport/d2xx.h"
#include "zel_devices.h"
#include "zel_ftdi.h"
#include "zel_open.h"
#include "zel_port.h"
#include "zel_reader.h"
#include "zel_status.h"

using namespace zel;

namespace {

constexpr char kD2xxLibrary[] = "libftd2xx.so";
constexpr uint32_t kDefaultBaud = 115200;
constexpr int kSerialSearch = 64;

// One candidate of a scan.
struct DeviceEntry {
    uint32_t count = 0;
    uint32_t baudrate = kDefaultBaud;
    uint8_t port_interface = 1;
    uint8_t reader_type = 1;
    uint8_t network_front = 0;
    uint8_t has_ftdi = 0;
    uint8_t is_ftdi_serial = 0;
    char ftdi_description[48] = {};
    char ftdi_port_name[64] = {};
    char com_port_name[64] = {};
    uint8_t rts_inverted = 0;
};

// What the list knows of an entry beside its record.
struct EntryInfo {
    ZEL_HANDLE hnd = nullptr;
    uint32_t type = 0;
    uint32_t serial_number = 0;
    uint32_t baud_rate = 0;
    uint8_t esp = 0;
    char firmware[16] = {};
    char ftdi_serial[ZEL_READER_LIST_TEXT_LEN] = {};
    char ftdi_description[ZEL_READER_LIST_TEXT_LEN] = {};
};

std::vector<EntryInfo> g_info;
zel_handle_record g_work[ZEL_READER_LIST_SCAN_MAX];
zel_handle_record g_add_record;

EntryInfo *info_for(ZEL_HANDLE hnd, bool create)
{
    for (EntryInfo &i : g_info)
        if (i.hnd == hnd)
            return &i;
    if (!create)
        return nullptr;
    g_info.push_back(EntryInfo{});
    g_info.back().hnd = hnd;
    return &g_info.back();
}

void forget(ZEL_HANDLE hnd)
{
    for (size_t i = 0; i < g_info.size(); ++i)
        if (g_info[i].hnd == hnd) {
            g_info.erase(g_info.begin() + static_cast<long>(i));
            return;
        }
}

bool in_list(ZEL_HANDLE hnd)
{
    const uint32_t n = list_size();
    for (uint32_t i = 0; i < n; ++i)
        if (list_get_by_idx(i) == hnd)
            return true;
    return false;
}

ZEL_HANDLE entry_at(int32_t index)
{
    return index < 0 ? nullptr : list_get_by_idx(static_cast<uint32_t>(index));
}

// Appends a heap copy of a working record and moves what was learnt of it to the copy.
ZEL_HANDLE append_entry(ZEL_HANDLE work)
{
    ZEL_HANDLE entry = appendToEnd(work);
    if (!entry)
        return nullptr;
    if (EntryInfo *i = info_for(work, false))
        i->hnd = entry;
    return entry;
}

// Opens one candidate on a working record, as its kind asks.
ZEL_STATUS open_entry(ZEL_HANDLE rec, const DeviceEntry &e)
{
    if (e.has_ftdi) {
        const char *arg = !e.is_ftdi_serial ? "UNIT_OPEN_RESET_DISABLE"
                          : e.rts_inverted  ? "READER_ACTIVE_ON_RTS_LOW"
                                            : "READER_ACTIVE_ON_RTS_HIGH";
        return ReaderOpenExHnd(rec, e.reader_type, e.ftdi_port_name, e.port_interface, arg);
    }
    static const char *const kArgs[] = {"UNIT_OPEN_RESET_DISABLE", "READER_ACTIVE_ON_RTS_LOW",
                                        "READER_ACTIVE_ON_RTS_HIGH"};
    ZEL_STATUS status = ZEL_READER_OPENING_ERROR;
    for (uint32_t type = 1; type <= 2; ++type)
        for (const char *arg : kArgs) {
            status = ReaderOpenExHnd(rec, type, e.com_port_name, 1, arg);
            if (status == ZEL_OK)
                return status;
        }
    return status;
}

// Asks an ESP front for its network address; false when it has none (or did not say).
bool ask_address(ZEL_HANDLE rec, char *address, size_t address_len)
{
    address[0] = '\0';
    uint8_t reply[readers::kAddressReplyMax] = {};
    size_t n = 0;
    if (PortWrite(rec, reinterpret_cast<const uint8_t *>(readers::kAddressQuestion),
                  sizeof readers::kAddressQuestion - 1) == ZEL_OK) {
        while (n < sizeof reply) {
            uint8_t b = 0;
            if (PortRead(rec, &b, 1) != ZEL_OK)
                break;
            reply[n++] = b;
            if (b == '\n')
                break;
        }
    }
    return readers::address_from_reply(reply, n, address, address_len);
}

// Moves an ESP front's reader to its network address when it has one: the network record takes the working
// record's place, and the serial link to the front is closed. True when it did.
bool switch_to_network(ZEL_HANDLE rec)
{
    char address[readers::kAddressReplyMax];
    if (!ask_address(rec, address, sizeof address))
        return false;
    zel_handle_record *net = static_cast<zel_handle_record *>(std::calloc(1, sizeof(zel_handle_record)));
    if (!net)
        return false;
    zel_handle_init(net);
    ZEL_STATUS status = ReaderOpenExHnd(net, 0, address, 'U', "UNIT_OPEN_RESET_DISABLE");
    if (status != ZEL_OK) {
        (void)ReaderCloseHnd(net);
        zel_handle_init(net);
        status = ReaderOpenExHnd(net, 0, address, 'T', "UNIT_OPEN_RESET_DISABLE");
    }
    if (status == ZEL_OK) {
        dp(6, "SWITCH TO UDP SUCCESSFULL!!");
        (void)ReaderCloseHnd(rec);
        *rec = *net;
    } else {
        (void)ReaderCloseHnd(net);
    }
    std::free(net);
    return status == ZEL_OK;
}

bool same_name(const char *a, const char *b)
{
    return std::strcmp(a, b) == 0;
}

// The FTDI devices of both lists, as scan candidates.
void add_ftdi_entries(std::vector<DeviceEntry> &out, const zel_ftdi_device *readers, const zel_ftdi_device *adapters)
{
    for (const zel_ftdi_device *d = readers; d; d = d->next) {
        DeviceEntry e;
        e.count = static_cast<uint32_t>(out.size() + 1);
        e.baudrate = d->baudrate ? d->baudrate : kDefaultBaud;
        e.port_interface = 2;
        e.reader_type = d->reader_type;
        // A front is flagged by the device list or, for devices the list does not flag, by its description.
        e.network_front = d->esp_front || std::strstr(d->description, "ESP") ? 1 : 0;
        e.has_ftdi = 1;
        e.is_ftdi_serial = d->is_ftdi_serial;
        e.rts_inverted = d->rts_inverted;
        readers::copy_field(e.ftdi_description, sizeof e.ftdi_description, d->description, sizeof d->description);
        readers::copy_field(e.ftdi_port_name, sizeof e.ftdi_port_name, d->serial, sizeof d->serial);
        readers::copy_field(e.com_port_name, sizeof e.com_port_name, d->com_port_name, sizeof d->com_port_name);
        out.push_back(e);
    }
    for (const zel_ftdi_device *d = adapters; d; d = d->next) {
        DeviceEntry e;
        e.count = static_cast<uint32_t>(out.size() + 1);
        e.port_interface = 2;
        e.reader_type = 2;
        e.has_ftdi = 1;
        e.rts_inverted = d->rts_inverted;
        readers::copy_field(e.ftdi_description, sizeof e.ftdi_description, d->description, sizeof d->description);
        readers::copy_field(e.ftdi_port_name, sizeof e.ftdi_port_name, d->serial, sizeof d->serial);
        readers::copy_field(e.com_port_name, sizeof e.com_port_name, d->com_port_name, sizeof d->com_port_name);
        out.push_back(e);
    }
}

// The serial ports that are not an FTDI device's port.
void add_serial_entries(std::vector<DeviceEntry> &out, const zel_ftdi_device *readers, const zel_ftdi_device *adapters)
{
    auto ports = std::make_unique<zel_com_ports>();
    if (find_active_com_ports(ports.get()) != 0)
        return;
    const int32_t n = ports->count < 0 ? 0 : ports->count > ZEL_COM_PORTS_MAX ? ZEL_COM_PORTS_MAX : ports->count;
    for (int32_t i = 0; i < n; ++i) {
        char name[96];
        const int len = std::snprintf(name, sizeof name, "%.64s%d", ports->prefix[i], ports->number[i]);
        if (len < 0 || static_cast<size_t>(len) >= sizeof DeviceEntry::com_port_name) {
            dp(6, "port name too long: %s", name);
            continue;
        }
        bool taken = false;
        for (const zel_ftdi_device *list : {readers, adapters})
            for (const zel_ftdi_device *d = list; d && !taken; d = d->next)
                taken = same_name(d->com_port_name, name);
        if (taken)
            continue;
        DeviceEntry e;
        e.count = static_cast<uint32_t>(out.size() + 1);
        e.port_interface = 1;
        e.reader_type = 2;
        std::memcpy(e.com_port_name, name, static_cast<size_t>(len) + 1);
        out.push_back(e);
    }
}

void free_devices(zel_ftdi_device *d)
{
    while (d) {
        zel_ftdi_device *next = d->next;
        std::free(d);
        d = next;
    }
}

// The entry at index and what is known of it (null when nothing is), for a single-field output.
ZEL_STATUS entry_for_output(int32_t index, const void *out, const EntryInfo **info)
{
    ZEL_HANDLE e = entry_at(index);
    if (!e)
        return ZEL_DEVICE_INDEX_OUT_OF_BOUND;
    if (!out)
        return ZEL_PARAMETERS_ERROR;
    *info = info_for(e, false);
    return ZEL_OK;
}

ZEL_STATUS number_out(int32_t index, uint32_t *out, uint32_t EntryInfo::*field)
{
    const EntryInfo *i = nullptr;
    const ZEL_STATUS st = entry_for_output(index, out, &i);
    if (st == ZEL_OK)
        *out = i ? i->*field : 0;
    return st;
}

ZEL_STATUS copy_text_out(int32_t index, char *out, char (EntryInfo::*field)[ZEL_READER_LIST_TEXT_LEN])
{
    const EntryInfo *i = nullptr;
    const ZEL_STATUS st = entry_for_output(index, out, &i);
    if (st == ZEL_OK)
        std::snprintf(out, ZEL_READER_LIST_TEXT_LEN, "%s", i ? i->*field : "");
    return st;
}

} // namespace

namespace zel::readers {

namespace {

// Up to max decimal digits from reply[i] on, into v; the count read.
size_t read_digits(const uint8_t *reply, size_t n, size_t &i, size_t max, uint32_t &v)
{
    size_t digits = 0;
    v = 0;
    while (i < n && std::isdigit(reply[i]) && digits < max) {
        v = v * 10 + static_cast<uint32_t>(reply[i] - '0');
        ++i;
        ++digits;
    }
    return digits;
}

} // namespace

void copy_field(char *out, size_t out_len, const char *in, size_t in_len)
{
    if (!out || out_len == 0)
        return;
    size_t n = 0;
    for (size_t i = 0; in && i < in_len && in[i] && n + 1 < out_len; ++i) {
        const unsigned char c = static_cast<unsigned char>(in[i]);
        out[n++] = c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '?';
    }
    out[n] = '\0';
}

bool address_from_reply(const uint8_t *reply, size_t len, char *out, size_t out_len)
{
    if (!out || out_len == 0)
        return false;
    out[0] = '\0';
    if (!reply)
        return false;
    const uint8_t *lf = static_cast<const uint8_t *>(std::memchr(reply, '\n', len));
    if (!lf)
        return false; // cut off or timed out
    size_t n = static_cast<size_t>(lf - reply);
    while (n > 0 && reply[n - 1] == '\r')
        --n;
    if (n == 0 || n >= kAddressReplyMax || n >= out_len)
        return false;
    // Four parts of one to three digits, each at most 255, then an optional port.
    size_t i = 0;
    bool any = false;
    for (int part = 0; part < 4; ++part) {
        if (part > 0) {
            if (i >= n || reply[i] != '.')
                return false;
            ++i;
        }
        uint32_t v = 0;
        const size_t digits = read_digits(reply, n, i, 4, v);
        if (digits == 0 || digits > 3 || v > 255)
            return false;
        any = any || v != 0;
    }
    if (i < n) {
        if (reply[i] != ':')
            return false;
        ++i;
        uint32_t port = 0;
        const size_t digits = read_digits(reply, n, i, 6, port);
        if (i != n || digits == 0 || port == 0 || port > 65535)
            return false;
    }
    if (!any)
        return false; // "0.0.0.0": the front has no network address
    std::memcpy(out, reply, n);
    out[n] = '\0';
    return true;
}

} // namespace zel::readers

extern "C" ZEL_API ZEL_STATUS list_remove(ZEL_HANDLE hnd)
{
    const uint32_t before = list_size();
    if (hnd && in_list(hnd)) {
        (void)ReaderCloseHnd(hnd);
        forget(hnd);
        (void)removeData(hnd);
    }
    if (list_size() + 1 != before) {
        dp(6, "ERROR: remove_from_list - not in list !");
        return ZEL_DEVICE_WRONG_HANDLE;
    }
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS list_multi_remove(ZEL_HANDLE *hnd)
{
    if (!hnd)
        return ZEL_PARAMETERS_ERROR;
    const ZEL_STATUS status = list_remove(*hnd);
    *hnd = nullptr;
    return status;
}

extern "C" ZEL_API ZEL_STATUS do_f_to_all_devices(ZEL_STATUS (*f)(ZEL_HANDLE))
{
    if (!f)
        return ZEL_PARAMETERS_ERROR;
    // The function may remove the entry it gets, so the entries are taken first.
    std::vector<ZEL_HANDLE> all;
    const uint32_t n = list_size();
    for (uint32_t i = 0; i < n; ++i)
        all.push_back(list_get_by_idx(i));
    ZEL_STATUS result = ZEL_OK;
    for (ZEL_HANDLE h : all)
        if (h)
            result |= f(h);
    return result;
}

extern "C" ZEL_API ZEL_STATUS unit_check_available(ZEL_HANDLE hnd)
{
    if (!hnd)
        return ZEL_PARAMETERS_ERROR;
    uint32_t connected = 0;
    if (ReaderStillConnectedHnd(hnd, &connected) == ZEL_OK && connected)
        return ZEL_OK;
    (void)list_remove(hnd);
    return ZEL_DEVICE_IS_NOT_CONNECTED;
}

extern "C" ZEL_API ZEL_STATUS unit_delete_if_not_opened(ZEL_HANDLE hnd)
{
    if (!hnd)
        return ZEL_PARAMETERS_ERROR;
    if (hnd->opened)
        return ZEL_OK;
    (void)list_remove(hnd);
    return ZEL_DEVICE_IS_NOT_CONNECTED;
}

extern "C" ZEL_API void pre_multi_open(void)
{
    (void)do_f_to_all_devices(unit_check_available);
    for (zel_handle_record &r : g_work)
        zel_handle_init(&r);
}

extern "C" ZEL_API ZEL_STATUS GetReaderInfo(ZEL_HANDLE hnd)
{
    if (!hnd)
        return ZEL_PARAMETERS_ERROR;
    hnd->opened = 1;
    EntryInfo *info = info_for(hnd, true);
    info->esp = 0;
    info->ftdi_serial[0] = info->ftdi_description[0] = '\0';
    const D2xxTable &ft = d2xx();
    // The D2XX library counts as loaded when its table is filled: the record's own flag is set by some opens only.
    if (hnd->comm.use == ZEL_PORT_FTDI && ft.FT_CreateDeviceInfoList && ft.FT_GetDeviceInfoDetail) {
        uint32_t n = 0;
        if (ft.FT_CreateDeviceInfoList(&n) == FT_OK) {
            for (uint32_t i = 0; i < n && i < 64; ++i) {
                uint32_t flags = 0, type = 0, id = 0, location = 0;
                char serial[64] = {}, description[128] = {};
                FT_HANDLE dev = nullptr;
                if (ft.FT_GetDeviceInfoDetail(i, &flags, &type, &id, &location, serial, description, &dev) != FT_OK)
                    continue;
                serial[sizeof serial - 1] = description[sizeof description - 1] = '\0';
                // The device's serial against the start of the port, over the length of its description.
                if (std::strncmp(serial, hnd->try_port, std::strlen(description)) != 0)
                    continue;
                readers::copy_field(info->ftdi_serial, sizeof info->ftdi_serial, serial, sizeof serial);
                readers::copy_field(info->ftdi_description, sizeof info->ftdi_description, description,
                                    sizeof description);
                break;
            }
        }
    }
    uint8_t major = 0, minor = 0, build = 0;
    if (GetReaderFirmwareVersionHnd(hnd, &major, &minor) != ZEL_OK)
        major = minor = 0;
    if (GetBuildNumberHnd(hnd, &build) != ZEL_OK)
        build = 0;
    std::snprintf(info->firmware, sizeof info->firmware, "%d.%d.%d", major, minor, build);
    (void)test_reader_sn(hnd);
    hnd->serial[sizeof hnd->serial - 1] = '\0';
    if (GetReaderTypeHnd(hnd, &info->type) != ZEL_OK)
        info->type = 0;
    if (GetReaderSerialNumberHnd(hnd, &info->serial_number) != ZEL_OK)
        info->serial_number = 0;
    info->baud_rate = hnd->baud_rate ? hnd->baud_rate : kDefaultBaud;
    return ZEL_OK;
}

ZEL_STATUS ReaderList_UpdateAndGetCountHnd(ZEL_HANDLE, uint32_t *count)
{
    if (!count)
        return ZEL_PARAMETERS_ERROR;
    *count = 0;
    if (!LoadFTD2XXLibrary(kD2xxLibrary))
        return ZEL_FTD2XX_DLL_NOT_FOUND;
    (void)ftdi_getDevNum();
    // Every entry goes: the list does not outlive a scan.
    for (uint32_t n = list_size(); n > 0; --n)
        (void)list_remove(list_get_by_idx(n - 1));
    g_info.clear();
    pre_multi_open();

    uint32_t reader_count = 0, adapter_count = 0;
    zel_ftdi_device *readers = nullptr, *adapters = nullptr;
    (void)ftdi_multiReader_getZelDevices(&reader_count, &readers, &adapter_count, &adapters);
    std::vector<DeviceEntry> entries;
    add_ftdi_entries(entries, readers, adapters);
    add_serial_entries(entries, readers, adapters);
    free_devices(readers);
    free_devices(adapters);

    uint32_t opened = 0;
    auto spare = std::make_unique<zel_handle_record>();
    for (const DeviceEntry &e : entries) {
        // Past the last working record a reader is opened only to be closed again.
        ZEL_HANDLE rec = opened < ZEL_READER_LIST_SCAN_MAX ? &g_work[opened] : spare.get();
        zel_handle_init(rec);
        rec->esp_session = 0;
        ZEL_STATUS status = open_entry(rec, e);
        // The front is asked whatever the open gave; a reader reached on the network counts as opened.
        if (e.network_front && switch_to_network(rec))
            status = ZEL_OK;
        if (status != ZEL_OK || rec == spare.get()) {
            if (status == ZEL_OK)
                dp(6, "reader list full: %s dropped", e.has_ftdi ? e.ftdi_port_name : e.com_port_name);
            rec->opened = 0;
            (void)ReaderCloseHnd(rec);
            continue;
        }
        // An FTDI open by serial leaves the record's port empty: the port is the serial it was opened by.
        if (!rec->try_port[0] && rec->comm.use == ZEL_PORT_FTDI)
            Zel_Hnd_assign_try_port(rec, e.ftdi_port_name);
        (void)GetReaderInfo(rec);
        if (EntryInfo *i = info_for(rec, false)) {
            i->esp = e.network_front;
            if (rec->comm.use != ZEL_PORT_SOCKET)
                i->baud_rate = rec->baud_rate ? rec->baud_rate : e.baudrate;
        }
        if (!append_entry(rec)) {
            (void)ReaderCloseHnd(rec);
            forget(rec);
            continue;
        }
        ++opened;
    }
    *count = list_size();
    return ZEL_OK;
}

ZEL_STATUS ReaderList_GetInformationHnd(ZEL_HANDLE, int32_t index, ZEL_HANDLE *handle, char *serial, uint32_t *type,
                                        char *firmware, uint32_t *spare, uint32_t *baud_rate, char *ftdi_serial,
                                        char *ftdi_description, uint32_t *opened, uint32_t *esp_flag)
{
    if (list_size() == 0)
        return ZEL_DEVICE_INDEX_OUT_OF_BOUND;
    if (!handle || !serial || !type || !firmware || !spare || !baud_rate || !ftdi_serial || !ftdi_description ||
        !opened || !esp_flag)
        return ZEL_PARAMETERS_ERROR;
    ZEL_HANDLE e = entry_at(index);
    if (!e)
        return ZEL_DEVICE_INDEX_OUT_OF_BOUND;
    const EntryInfo *i = info_for(e, false);
    *handle = e;
    readers::copy_field(serial, ZEL_READER_LIST_TEXT_LEN, e->serial, sizeof e->serial);
    *type = i ? i->type : 0;
    std::snprintf(firmware, ZEL_READER_LIST_TEXT_LEN, "%s", i ? i->firmware : "");
    *spare = 0;
    *baud_rate = i ? i->baud_rate : e->baud_rate;
    std::snprintf(ftdi_serial, ZEL_READER_LIST_TEXT_LEN, "%s", i ? i->ftdi_serial : "");
    std::snprintf(ftdi_description, ZEL_READER_LIST_TEXT_LEN, "%s", i ? i->ftdi_description : "");
    *opened = e->opened;
    *esp_flag = i ? i->esp : 0;
    return ZEL_OK;
}

ZEL_STATUS ReaderList_GetSerialByIndexHnd(ZEL_HANDLE, int32_t index, uint32_t *serial_number)
{
    return number_out(index, serial_number, &EntryInfo::serial_number);
}

ZEL_STATUS ReaderList_GetSerialDescriptionByIndexHnd(ZEL_HANDLE, int32_t index, char *serial_description)
{
    ZEL_HANDLE e = entry_at(index);
    if (!e)
        return ZEL_DEVICE_INDEX_OUT_OF_BOUND;
    if (!serial_description)
        return ZEL_PARAMETERS_ERROR;
    readers::copy_field(serial_description, ZEL_READER_LIST_TEXT_LEN, e->serial, sizeof e->serial);
    return ZEL_OK;
}

ZEL_STATUS ReaderList_GetTypeByIndexHnd(ZEL_HANDLE, int32_t index, uint32_t *type)
{
    return number_out(index, type, &EntryInfo::type);
}

ZEL_STATUS ReaderList_GetFTDISerialByIndexHnd(ZEL_HANDLE, int32_t index, char *ftdi_serial)
{
    return copy_text_out(index, ftdi_serial, &EntryInfo::ftdi_serial);
}

ZEL_STATUS ReaderList_GetFTDIDescriptionByIndexHnd(ZEL_HANDLE, int32_t index, char *ftdi_description)
{
    return copy_text_out(index, ftdi_description, &EntryInfo::ftdi_description);
}

ZEL_STATUS ReaderList_AddHnd(ZEL_HANDLE, ZEL_HANDLE *handle, uint32_t reader_type, const char *port_name,
                             uint32_t port_interface, const char *arg)
{
    if (!handle)
        return ZEL_PARAMETERS_ERROR;
    *handle = nullptr;
    zel_handle_init(&g_add_record);
    const ZEL_STATUS status = ReaderOpenExHnd(&g_add_record, reader_type, port_name, port_interface, arg);
    if (status != ZEL_OK)
        return status;
    (void)GetReaderInfo(&g_add_record);
    const uint32_t n = list_size();
    for (uint32_t i = 0; i < n; ++i) {
        const ZEL_HANDLE e = list_get_by_idx(i);
        if (e && std::strncmp(e->serial, g_add_record.serial, sizeof e->serial) == 0) {
            // The second port stays open on the static record, as the caller may still want it.
            forget(&g_add_record);
            return ZEL_DEVICE_ALREADY_OPENED;
        }
    }
    ZEL_HANDLE entry = append_entry(&g_add_record);
    if (!entry) {
        forget(&g_add_record);
        (void)ReaderCloseHnd(&g_add_record);
        return ZEL_NO_MEMORY_ERROR;
    }
    *handle = entry;
    return ZEL_OK;
}

ZEL_STATUS ReaderList_DestroyHnd(ZEL_HANDLE, ZEL_HANDLE *handle)
{
    return list_multi_remove(handle);
}

ZEL_STATUS ReaderList_OpenByIndexHnd(ZEL_HANDLE, int32_t index, ZEL_HANDLE *handle)
{
    if (!handle)
        return ZEL_PARAMETERS_ERROR;
    ZEL_HANDLE e = entry_at(index);
    if (!e)
        return ZEL_DEVICE_INDEX_OUT_OF_BOUND;
    *handle = e;
    if (e->opened)
        return ZEL_OK;
    if (!LoadFTD2XXLibrary(kD2xxLibrary))
        return ZEL_FTD2XX_DLL_NOT_FOUND;
    return ReaderOpenByFTDIIndex(static_cast<uint32_t>(e->device_index < 0 ? 0 : e->device_index), e);
}

ZEL_STATUS ReaderList_OpenBySerialHnd(ZEL_HANDLE, const char *serial, ZEL_HANDLE *handle)
{
    if (!serial || !handle)
        return ZEL_PARAMETERS_ERROR;
    const size_t len = strnlen(serial, ZEL_READER_LIST_TEXT_LEN);
    ZEL_STATUS status = ZEL_COMMUNICATION_BREAK;
    for (int32_t index = 0; index < kSerialSearch; ++index) {
        ZEL_HANDLE e = entry_at(index);
        if (!e)
            return ZEL_DEVICE_INDEX_OUT_OF_BOUND;
        if (std::strncmp(serial, e->serial, len) != 0)
            continue;
        char port[ZEL_TRY_PORT_LEN];
        std::snprintf(port, sizeof port, "%s", e->try_port);
        switch (e->comm.use) {
        case ZEL_PORT_FTDI: (void)ReaderOpenExHnd(e, 0, port, 2, nullptr); break;
        case 1:
        case 2: (void)ReaderOpenExHnd(e, 0, port, 1, nullptr); break;
        case ZEL_PORT_SOCKET:
            if (ReaderOpenExHnd(e, 0, port, 'U', "UNIT_OPEN_RESET_DISABLE") != ZEL_OK)
                (void)ReaderOpenExHnd(e, 0, port, 'T', "UNIT_OPEN_RESET_DISABLE");
            break;
        default: break;
        }
        status = test_reader_fw_version(e);
        if (status == ZEL_OK) {
            *handle = e;
            return ZEL_OK;
        }
    }
    return status;
}
