// The in-process view of the display module and the boot loader.
#include <cstring>
#include <mutex>

#include "core.h"
#include "zelsim.h"

extern "C" {

size_t zsim_display_bitmap(zsim *sim, uint8_t bitmap[1024])
{
    if (!sim || !bitmap)
        return 0;
    std::lock_guard<std::mutex> lock(sim->mu);
    std::memcpy(bitmap, sim->reader.lcd.shown, zs::LCD_BYTES);
    return zs::LCD_BYTES;
}

size_t zsim_display_gallery(zsim *sim, uint8_t index, uint8_t bitmap[1024])
{
    if (!sim || !bitmap || index >= zs::LCD_GALLERY)
        return 0;
    std::lock_guard<std::mutex> lock(sim->mu);
    std::memcpy(bitmap, sim->reader.lcd.gallery[index], zs::LCD_BYTES);
    return zs::LCD_BYTES;
}

size_t zsim_display_system(zsim *sim, uint8_t slot, uint8_t bitmap[1024])
{
    if (!sim || !bitmap)
        return 0;
    std::lock_guard<std::mutex> lock(sim->mu);
    const auto &sys = sim->reader.lcd.system;
    if (slot >= sys.size() || sys[slot].empty())
        return 0;
    std::memcpy(bitmap, sys[slot].data(), zs::LCD_BYTES);
    return zs::LCD_BYTES;
}

int zsim_display_png(zsim *sim, const char *path)
{
    if (!sim || !path)
        return -1;
    uint8_t shown[zs::LCD_BYTES];
    {
        std::lock_guard<std::mutex> lock(sim->mu);
        std::memcpy(shown, sim->reader.lcd.shown, sizeof shown);
    }
    return zs::lcd_write_png(shown, path) ? 0 : -1;
}

void zsim_display_png_on_change(zsim *sim, const char *path)
{
    if (!sim)
        return;
    std::lock_guard<std::mutex> lock(sim->mu);
    sim->reader.lcd.png_path = path ? path : "";
}

size_t zsim_display_state(zsim *sim, char *text, size_t len, int *hour, int *minute, int *signal)
{
    if (!sim)
        return 0;
    std::lock_guard<std::mutex> lock(sim->mu);
    const zs::Lcd &d = sim->reader.lcd;
    if (hour)
        *hour = d.hour;
    if (minute)
        *minute = d.minute;
    if (signal)
        *signal = d.signal;
    if (text && len) {
        const size_t n = d.text.size() < len - 1 ? d.text.size() : len - 1;
        std::memcpy(text, d.text.data(), n);
        text[n] = 0;
    }
    return d.text.size();
}

size_t zsim_display_flash(zsim *sim, uint32_t address, uint8_t *buf, size_t len)
{
    if (!sim || !buf || address >= zs::LCD_FLASH)
        return 0;
    const size_t n = len < zs::LCD_FLASH - address ? len : zs::LCD_FLASH - address;
    std::lock_guard<std::mutex> lock(sim->mu);
    std::memcpy(buf, sim->reader.lcd.flash + address, n);
    return n;
}

void zsim_display_identity(zsim *sim, uint8_t hw_type, uint8_t hw_ver)
{
    if (!sim)
        return;
    std::lock_guard<std::mutex> lock(sim->mu);
    zs::Lcd &d = sim->reader.lcd;
    d.params[20] = hw_type;
    d.params[21] = hw_ver;
    std::memcpy(d.params + 26, d.version, 3);
}

void zsim_display_firmware(zsim *sim, uint32_t image_len, uint8_t major, uint8_t minor, uint8_t build)
{
    if (!sim)
        return;
    std::lock_guard<std::mutex> lock(sim->mu);
    zs::Lcd &d = sim->reader.lcd;
    d.next_len = image_len;
    d.next_version[0] = major;
    d.next_version[1] = minor;
    d.next_version[2] = build;
    d.next_set = true;
}

void zsim_boot_loader(zsim *sim, uint32_t image_len, uint8_t major, uint8_t minor, uint8_t build)
{
    if (!sim)
        return;
    std::lock_guard<std::mutex> lock(sim->mu);
    zs::BootLoader &b = sim->reader.boot;
    b.image_len = image_len;
    b.next_fw[0] = major;
    b.next_fw[1] = minor;
    b.next_fw[2] = build;
    b.next_fw_set = true;
}

void zsim_boot_fault(zsim *sim, uint32_t packet, zsim_packet_fault kind, uint32_t delay_ms)
{
    if (!sim)
        return;
    std::lock_guard<std::mutex> lock(sim->mu);
    zs::BootFault f;
    f.packet = packet;
    f.kind = kind == ZSIM_PACKET_DELAY    ? zs::PacketFault::DELAY
             : kind == ZSIM_PACKET_GARBLE ? zs::PacketFault::GARBLE
                                          : zs::PacketFault::DROP;
    f.delay_ms = delay_ms;
    sim->reader.boot.faults.push_back(f);
}

int zsim_boot_state(zsim *sim, size_t *image_got, uint32_t *packets)
{
    if (!sim)
        return -1;
    std::lock_guard<std::mutex> lock(sim->mu);
    const zs::BootLoader &b = sim->reader.boot;
    if (image_got)
        *image_got = b.image.size();
    if (packets)
        *packets = b.packets;
    return b.complete ? 3 : b.receiving ? 2 : b.active ? 1 : 0;
}

size_t zsim_boot_image(zsim *sim, uint8_t *buf, size_t len)
{
    if (!sim)
        return 0;
    std::lock_guard<std::mutex> lock(sim->mu);
    const std::vector<uint8_t> &img = sim->reader.boot.image;
    if (buf)
        std::memcpy(buf, img.data(), img.size() < len ? img.size() : len);
    return img.size();
}

} // extern "C"
