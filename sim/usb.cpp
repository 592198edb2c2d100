// The reader as a USB serial device in a device tree of its own: a port link to its pseudo-terminal and the
// kernel-style tree above it (the tty, its USB interface, the USB device with vendor, product and serial
// number). Like a real USB reader, it leaves the bus when it switches into its boot loader and when it
// restarts with a new image, and comes back after a while, under the same serial number and possibly
// another port number. The reader's time for this is given by zsim_usb_advance.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <string>

#include "core.h"
#include "display.h"
#include "zelsim.h"

struct zsim_usb {
    zsim *sim = nullptr;
    std::string dir, pty, serial;
    int number = 0;       // the port's number while present
    int next_number = -1; // the number it comes back under (-1: the same)
    uint32_t away_ms = 1000;
    bool present = false;
    int64_t away_left = 0;
    bool seen_boot = false;
    uint32_t departures = 0;
    std::mutex mu;
};

namespace {

bool write_file(const std::string &path, const std::string &text)
{
    std::ofstream f(path);
    f << text << "\n";
    return static_cast<bool>(f);
}

void make_dirs(const std::string &path)
{
    for (size_t at = 1; at <= path.size(); ++at)
        if (at == path.size() || path[at] == '/')
            mkdir(path.substr(0, at).c_str(), 0755);
}

std::string usb_dir(const zsim_usb &u)
{
    return u.dir + "/sys/devices/usb1/1-1";
}

std::string port_name(int number)
{
    return "ttyUSB" + std::to_string(number);
}

bool appear(zsim_usb &u)
{
    const std::string name = port_name(u.number);
    const std::string tty = u.dir + "/sys/class/tty/" + name;
    make_dirs(tty);
    const std::string iface = usb_dir(u) + "/1-1:1.0";
    unlink((tty + "/device").c_str());
    unlink((u.dir + "/" + name).c_str());
    const bool ok = symlink(iface.c_str(), (tty + "/device").c_str()) == 0 &&
                    symlink(u.pty.c_str(), (u.dir + "/" + name).c_str()) == 0;
    u.present = ok;
    return ok;
}

void disappear(zsim_usb &u)
{
    const std::string name = port_name(u.number);
    unlink((u.dir + "/sys/class/tty/" + name + "/device").c_str());
    rmdir((u.dir + "/sys/class/tty/" + name).c_str());
    unlink((u.dir + "/" + name).c_str());
    u.present = false;
    u.away_left = u.away_ms;
    ++u.departures;
    if (u.next_number >= 0)
        u.number = u.next_number;
}

} // namespace

extern "C" {

zsim_usb *zsim_usb_start(zsim *sim, const char *dir, const char *serial, int number, char *err, size_t err_len)
{
    auto fail = [&](const char *msg) -> zsim_usb * {
        if (err && err_len)
            std::snprintf(err, err_len, "%s", msg);
        return nullptr;
    };
    if (!sim || !dir || !serial || number < 0 || number > 999)
        return fail("a reader, a folder, a serial number and a port number 0 to 999 are expected");
    char path[256] = {};
    if (zsim_serve_pty(sim, path, sizeof path) != 0)
        return fail("cannot serve the reader on a pseudo-terminal");
    auto *u = new zsim_usb;
    u->sim = sim;
    u->dir = dir;
    u->pty = path;
    u->serial = std::string(serial).substr(0, 63);
    u->number = number;
    const std::string usb = usb_dir(*u);
    make_dirs(usb + "/1-1:1.0");
    if (!write_file(usb + "/idVendor", "0403") || !write_file(usb + "/idProduct", "6001") ||
        !write_file(usb + "/serial", u->serial) || !write_file(usb + "/product", "Zel simulated reader") ||
        !write_file(usb + "/1-1:1.0/bInterfaceNumber", "00") || !appear(*u)) {
        delete u;
        return fail("cannot write the device tree");
    }
    return u;
}

void zsim_usb_set_away(zsim_usb *u, uint32_t away_ms, int next_number)
{
    if (!u)
        return;
    std::lock_guard<std::mutex> lock(u->mu);
    u->away_ms = away_ms;
    u->next_number = next_number >= 0 && next_number <= 999 ? next_number : -1;
}

void zsim_usb_advance(zsim_usb *u, uint32_t ms)
{
    if (!u)
        return;
    std::lock_guard<std::mutex> lock(u->mu);
    if (!u->present) {
        u->away_left -= ms;
        if (u->away_left <= 0)
            appear(*u);
        return;
    }
    bool restart = false, leave = false;
    {
        std::lock_guard<std::mutex> r(u->sim->mu);
        // The reader's boot loader, or the network module's in front of it.
        const zs::BootLoader &b = u->sim->reader.boot;
        const int front = zs::esp_boot_phase(u->sim->reader);
        if (b.complete || front == 2) {
            restart = true; // the verified image starts: the device restarts
        } else if ((b.active || front == 1) && !u->seen_boot) {
            u->seen_boot = true; // the switch into the boot loader re-enumerates the device
            leave = true;
        } else if (!b.active && front == 0) {
            u->seen_boot = false;
        }
    }
    if (restart) {
        zsim_reset(u->sim);
        u->seen_boot = false;
        leave = true;
    }
    if (leave)
        disappear(*u);
}

int zsim_usb_port(zsim_usb *u, char *path, size_t len)
{
    if (!u)
        return 0;
    std::lock_guard<std::mutex> lock(u->mu);
    if (path && len)
        std::snprintf(path, len, "%s/%s", u->dir.c_str(), port_name(u->number).c_str());
    return u->present ? 1 : 0;
}

uint32_t zsim_usb_departures(zsim_usb *u)
{
    if (!u)
        return 0;
    std::lock_guard<std::mutex> lock(u->mu);
    return u->departures;
}

void zsim_usb_free(zsim_usb *u)
{
    if (!u)
        return;
    if (u->present)
        disappear(*u);
    const std::string usb = usb_dir(*u);
    for (const char *f : {"/1-1:1.0/bInterfaceNumber", "/idVendor", "/idProduct", "/serial", "/product"})
        unlink((usb + f).c_str());
    rmdir((usb + "/1-1:1.0").c_str());
    rmdir(usb.c_str());
    delete u;
}

} // extern "C"
