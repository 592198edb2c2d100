// USB serial devices from the kernel's device tree: each port /dev/ttyUSBn or /dev/ttyACMn, the USB
// interface it hangs on (the port's own device) and the USB device above (its parent, with the ids and the
// serial number).
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/internal.h"
#include "transport/sysfs.h"
#include "zel_devices.h"

namespace {

std::string g_root = "/sys";
std::string g_dev_root = "/dev";
constexpr int kMaxWalkUp = 12;
constexpr size_t kMaxAttr = 255;

struct Port {
    std::string name;   // ttyUSB0
    std::string prefix; // /dev/ttyUSB
    int number = 0;
    std::string device_id;   // the interface's id
    std::string parent_id;   // the USB device's id, or "Unknown"
    std::string description; // friendly name
};

// One attribute file, cut at its first line and kept to printable bytes.
std::string read_attr(const std::string &dir, const char *name)
{
    const std::string path = dir + "/" + name;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return {};
    char buf[kMaxAttr + 1];
    const ssize_t n = read(fd, buf, kMaxAttr);
    close(fd);
    std::string out;
    for (ssize_t i = 0; i < n; ++i) {
        const unsigned char c = static_cast<unsigned char>(buf[i]);
        if (c == '\n' || c == '\0')
            break;
        if (std::isprint(c))
            out.push_back(static_cast<char>(c));
    }
    while (!out.empty() && out.back() == ' ')
        out.pop_back();
    return out;
}

bool has_attr(const std::string &dir, const char *name)
{
    return access((dir + "/" + name).c_str(), F_OK) == 0;
}

std::string upper(std::string s)
{
    for (char &c : s)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

std::string base_name(const std::string &path)
{
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string parent_dir(const std::string &path)
{
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos || slash == 0 ? std::string() : path.substr(0, slash);
}

// "USB\VID_0403&PID_6001\A9XK2TQR"; a device without a serial number gets its place in the tree instead.
std::string usb_device_id(const std::string &dir)
{
    const std::string serial = read_attr(dir, "serial");
    const std::string instance = serial.empty() ? "5&" + base_name(dir) : serial;
    return "USB\\VID_" + upper(read_attr(dir, "idVendor")) + "&PID_" + upper(read_attr(dir, "idProduct")) + "\\" +
           instance;
}

// Everything known of one tty device; false when it is not on USB.
bool describe(const std::string &tty, Port *port)
{
    char real[PATH_MAX];
    const std::string link = g_root + "/class/tty/" + tty + "/device";
    if (!realpath(link.c_str(), real))
        return false;
    std::string dir = real, iface, usb;
    for (int i = 0; i < kMaxWalkUp && !dir.empty() && usb.empty(); ++i, dir = parent_dir(dir)) {
        if (iface.empty() && has_attr(dir, "bInterfaceNumber"))
            iface = dir;
        else if (has_attr(dir, "idVendor"))
            usb = dir;
    }
    if (usb.empty())
        return false;
    port->parent_id = usb_device_id(usb);
    std::string number = iface.empty() ? "00" : read_attr(iface, "bInterfaceNumber");
    if (number.size() > 2)
        number.resize(2);
    port->device_id = "USB\\VID_" + upper(read_attr(usb, "idVendor")) + "&PID_" + upper(read_attr(usb, "idProduct")) +
                      "&MI_" + number + "\\6&" + base_name(usb) + "&0&00" + number;
    std::string product = read_attr(usb, "product");
    if (product.empty() && !iface.empty())
        product = read_attr(iface, "interface");
    port->description = product.empty() ? "Unknown" : product + " (/dev/" + tty + ")";
    return true;
}

// The USB serial ports present, in name order.
bool list_ports(std::vector<Port> *ports)
{
    DIR *d = opendir((g_root + "/class/tty").c_str());
    if (!d)
        return false;
    while (const dirent *e = readdir(d)) {
        const std::string name = e->d_name;
        for (const char *kind : {"ttyUSB", "ttyACM"}) {
            const size_t k = std::strlen(kind);
            if (name.size() <= k || name.size() > k + 6 || name.compare(0, k, kind) != 0)
                continue;
            if (!std::all_of(name.begin() + static_cast<long>(k), name.end(),
                             [](char c) { return std::isdigit(static_cast<unsigned char>(c)); }))
                continue;
            Port p;
            p.name = name;
            p.prefix = g_dev_root + "/" + kind;
            p.number = std::atoi(name.c_str() + k);
            p.parent_id = "Unknown";
            p.description = "Unknown";
            if (!describe(name, &p))
                p.device_id.clear();
            ports->push_back(p);
        }
    }
    closedir(d);
    std::sort(ports->begin(), ports->end(), [](const Port &a, const Port &b) {
        return a.prefix != b.prefix ? a.prefix < b.prefix : a.number < b.number;
    });
    return true;
}

void copy_text(char *to, size_t size, const std::string &from)
{
    if (!to || size == 0)
        return;
    std::snprintf(to, size, "%s", from.c_str());
}

void fill_entry(zel_usb_device *entry, const Port &p)
{
    copy_text(entry->description, sizeof entry->description, p.description);
    copy_text(entry->port_name, sizeof entry->port_name, "/dev/" + p.name);
    copy_text(entry->parent_id, sizeof entry->parent_id, p.parent_id);
    entry->is_2e15 = p.device_id.find("PID_2E15") != std::string::npos ? 1 : 0;
}

// The port names a port of the list: "/dev/ttyUSB0" or plain "ttyUSB0".
const Port *port_by_name(const std::vector<Port> &ports, const char *name)
{
    if (!name)
        return nullptr;
    // The ports are also named in the folder of the listed ports, when a test or the simulated readers set
    // another one.
    const std::string root = g_dev_root + "/";
    const char *plain = std::strncmp(name, "/dev/", 5) == 0                  ? name + 5
                        : std::strncmp(name, root.c_str(), root.size()) == 0 ? name + root.size()
                                                                             : name;
    for (const Port &p : ports)
        if (p.name == plain && !p.device_id.empty())
            return &p;
    return nullptr;
}

std::string last_part(const std::string &id)
{
    const size_t slash = id.find_last_of('\\');
    return slash == std::string::npos ? std::string() : id.substr(slash + 1);
}

bool same_text_nocase(const std::string &a, const char *b)
{
    return strcasecmp(a.c_str(), b) == 0;
}

} // namespace

void zel::set_sysfs_root(const char *root)
{
    g_root = root ? root : "/sys";
}

void zel::set_dev_root(const char *root)
{
    g_dev_root = root ? root : "/dev";
}

extern "C" ZEL_API int find_active_com_ports(zel_com_ports *list)
{
    if (!list)
        return EINVAL;
    std::memset(list, 0, sizeof *list);
    std::vector<Port> ports;
    if (!list_ports(&ports))
        return ENOENT;
    for (const Port &p : ports) {
        if (list->count >= ZEL_COM_PORTS_MAX)
            break;
        list->number[list->count] = p.number;
        copy_text(list->prefix[list->count], sizeof list->prefix[0], p.prefix);
        ++list->count;
    }
    return 0;
}

extern "C" ZEL_API void print_com_ports(const zel_com_ports *list)
{
    if (!list) {
        dp(6, "no port list");
        return;
    }
    const int32_t n = list->count < 0 ? 0 : list->count > ZEL_COM_PORTS_MAX ? ZEL_COM_PORTS_MAX : list->count;
    dp(6, "%d serial ports", n);
    for (int32_t i = 0; i < n; ++i)
        dp(6, "  %.64s%d", list->prefix[i], list->number[i]);
}

extern "C" ZEL_API int GetDeviceDetails(const char *id_text, zel_usb_device *devices, uint32_t *count, uint32_t limit)
{
    if (count)
        *count = 0;
    if (!id_text || !devices || !count)
        return 0;
    if (limit > ZEL_USB_DEVICES_MAX)
        limit = ZEL_USB_DEVICES_MAX;
    std::vector<Port> ports;
    if (!list_ports(&ports))
        return 0;
    for (const Port &p : ports) {
        if (*count >= limit)
            break;
        if (p.device_id.empty() || p.device_id.find(id_text) == std::string::npos)
            continue;
        fill_entry(&devices[*count], p);
        ++*count;
    }
    return 1;
}

extern "C" ZEL_API uint32_t ListUSBDevices(const char *id_text, zel_usb_device *devices, uint32_t limit)
{
    uint32_t count = 0;
    return GetDeviceDetails(id_text, devices, &count, limit) ? count : 0;
}

extern "C" ZEL_API int IsUSBDevicePresent(const char *id_text)
{
    zel_usb_device one;
    uint32_t count = 0;
    return GetDeviceDetails(id_text, &one, &count, 1) && count == 1;
}

extern "C" ZEL_API int GetDeviceDetailsByCOM(const char *port_name, zel_usb_device *device)
{
    if (!device)
        return 0;
    std::vector<Port> ports;
    if (!list_ports(&ports))
        return 0;
    const Port *p = port_by_name(ports, port_name);
    if (!p)
        return 0;
    copy_text(device->description, sizeof device->description, p->description);
    copy_text(device->port_name, sizeof device->port_name, "/dev/" + p->name);
    return 1;
}

extern "C" ZEL_API int isFtdiCOMPort(const char *port_name, const zel_ftdi_device *list, uint32_t count)
{
    if (!port_name)
        return 0;
    for (uint32_t i = 0; list && i < count; ++i, list = list->next)
        if (strncmp(list->com_port_name, port_name, sizeof list->com_port_name) == 0)
            return 1;
    return 0;
}

extern "C" ZEL_API int ExtractSerialFromInstanceID(const char *instance_id, char *serial, size_t serial_size)
{
    if (!instance_id || !serial || serial_size == 0)
        return 0;
    const char *slash = std::strrchr(instance_id, '\\');
    if (!slash || slash[1] == '\0')
        return 0;
    if (std::strchr(slash + 1, '&'))
        dp(6, "Warning: '%s' appears to be a USB hub path, not a device serial\n", slash + 1);
    std::snprintf(serial, serial_size, "%s", slash + 1);
    return 1;
}

extern "C" ZEL_API int GetDeviceInstanceIDAndSerialByCOM(const char *port_name, char *instance_id,
                                                         size_t instance_id_size, char *serial, size_t serial_size)
{
    if (!instance_id || instance_id_size == 0 || !serial || serial_size == 0)
        return 0;
    std::vector<Port> ports;
    if (!list_ports(&ports))
        return 0;
    const Port *p = port_by_name(ports, port_name);
    if (!p)
        return 0;
    copy_text(instance_id, instance_id_size, p->device_id);
    return ExtractSerialFromInstanceID(p->parent_id.c_str(), serial, serial_size);
}

extern "C" ZEL_API int FindCOMPortBySerial(const char *serial, char *port_name, size_t port_name_size,
                                           char *instance_id, size_t instance_id_size)
{
    if (!serial || !serial[0] || !port_name || port_name_size == 0)
        return 0;
    std::vector<Port> ports;
    if (!list_ports(&ports))
        return 0;
    for (const Port &p : ports) {
        if (p.device_id.empty())
            continue;
        const std::string own = last_part(p.device_id);
        bool match = same_text_nocase(own, serial);
        // A port's own id names its place on a hub; the serial number is the parent's.
        if (!match && own.find('&') != std::string::npos)
            match = same_text_nocase(last_part(p.parent_id), serial);
        if (!match)
            continue;
        copy_text(port_name, port_name_size, g_dev_root + "/" + p.name);
        if (instance_id && instance_id_size)
            copy_text(instance_id, instance_id_size, p.device_id);
        return 1;
    }
    return 0;
}
