// The display module and the boot loader as the reader's firmware sees them: the module takes frames 55 A5 AA
// with a sub-command in byte 4 and picture strips under 0xA6; the boot loader greets after 0x06, takes the
// start call and the image in numbered 128-byte packets under 0xF2, and verifies the whole image.
#include "display.h"

#include <cstdio>
#include <cstring>

#include "reader.h"
#include "wire.h"

namespace zs {

namespace {

constexpr uint8_t DISPLAY = 0xA5, PICTURE = 0xA6;
constexpr uint8_t BOOT_ENTRY = 0x06, CODE_PROTECT = 0x07, NFC_PARAMS = 0x08, NFC_TEST = 0x09, PROGRAM = 0xF2;
constexpr uint8_t GREETING[4] = {0x03, 0x55, 0x55, 0xBB};
constexpr size_t STRIP_CHUNK = 262, PACKET_EXT = 129, PACKET = 128;
constexpr uint8_t SHOW = 0x10, LAST_SENT = 16, GALLERY_TOP = 10;
constexpr uint8_t IMAGE_VERIFIED = 0xC0;

void done(Answer &a, uint8_t cmd)
{
    put_frame(a.bytes, RSP_HEADER, cmd, RSP_TRAILER, 0, 0, 0);
}

uint8_t lcd_crc8(const uint8_t *p, size_t n)
{
    uint8_t c = 0;
    for (size_t i = 0; i < n; ++i) {
        c ^= p[i];
        for (int k = 0; k < 8; ++k)
            c = static_cast<uint8_t>((c & 0x80) ? (c << 1) ^ 0x07 : c << 1);
    }
    return c;
}

void shown_changed(Lcd &d)
{
    if (!d.png_path.empty())
        lcd_write_png(d.shown, d.png_path);
}

// A command frame without EXT.
bool display_plain(Reader &r, const uint8_t f[7], Answer &a)
{
    Lcd &d = r.lcd;
    switch (f[4]) {
    case 0xA8: // clear
        std::memset(d.shown, 0, LCD_BYTES);
        d.text.clear();
        d.hour = d.minute = -1;
        shown_changed(d);
        break;
    case 0xA5: // show from the gallery
        if (f[5] >= LCD_GALLERY) {
            put_error(a.bytes, E_PARAMETERS);
            return true;
        }
        std::memcpy(d.shown, d.gallery[f[5]], LCD_BYTES);
        shown_changed(d);
        break;
    case 0x26: d.signal = f[5]; break;
    default: put_error(a.bytes, E_NOT_SUPPORTED); return true;
    }
    done(a, DISPLAY);
    return true;
}

// A command with its EXT (checksum already tested by the receiver).
bool display_ext(Reader &r, const uint8_t f[7], const uint8_t *e, size_t n, Answer &a)
{
    Lcd &d = r.lcd;
    const size_t data = n - 1;
    switch (f[4]) {
    case 0xA3:
        if (data < 4)
            break;
        d.parameter = static_cast<uint32_t>(e[0]) << 24 | e[1] << 16 | e[2] << 8 | e[3];
        done(a, DISPLAY);
        return true;
    case 0xA4:
        if (data < 5)
            break;
        d.text_values[0] = e[2];
        d.text_values[1] = e[3];
        d.text_values[2] = e[4];
        d.text_values[3] = e[0];
        d.text_values[4] = e[1];
        d.text.assign(reinterpret_cast<const char *>(e + 5), data - 5);
        done(a, DISPLAY);
        return true;
    case 0xA7:
        if (data < 4)
            break;
        std::memcpy(d.erased, e, 4);
        done(a, DISPLAY);
        return true;
    case 0x32:
        if (data < 2)
            break;
        d.hour = e[0];
        d.minute = e[1];
        done(a, DISPLAY);
        return true;
    case 0xB9:
        d.in_boot = true;
        d.written.assign(LCD_FLASH / 64, false);
        done(a, DISPLAY);
        return true;
    case 0xA9: {
        const uint8_t v[3] = {d.version[0], d.version[1], d.version[2]};
        put_response(a.bytes, DISPLAY, 0, 0, v, 3);
        return true;
    }
    case 0xB8:
        switch (f[5]) {
        case 0x0D: put_frame(a.bytes, RSP_HEADER, DISPLAY, RSP_TRAILER, 0, d.in_boot ? 1 : 0, 0); return true;
        case 0x04:
            if (d.in_boot && d.next_set && d.written.size() == LCD_FLASH / 64) {
                bool whole = d.next_len / 64 > 0;
                for (size_t i = 0; i < d.next_len / 64 && i < d.written.size(); ++i)
                    whole = whole && d.written[i];
                if (whole) {
                    std::memcpy(d.version, d.next_version, 3);
                    std::memcpy(d.params + 26, d.next_version, 3);
                }
            }
            d.in_boot = false;
            done(a, DISPLAY);
            return true;
        case 0x01:
            // The module's parameter record, sent raw behind the intro.
            put_frame(a.bytes, RSP_HEADER, DISPLAY, RSP_TRAILER, sizeof d.params, 0, 0);
            a.bytes.insert(a.bytes.end(), d.params, d.params + sizeof d.params);
            return true;
        case 0x02: {
            if (data < 67)
                break;
            const uint32_t addr = static_cast<uint32_t>(e[1]) << 8 | e[2];
            if (!d.in_boot || lcd_crc8(e + 3, 64) != e[0] || addr + 64 > LCD_FLASH) {
                put_error(a.bytes, d.in_boot ? E_CHKSUM : E_NOT_SUPPORTED);
                return true;
            }
            std::memcpy(d.flash + addr, e + 3, 64);
            if (addr % 64 == 0 && addr / 64 < d.written.size())
                d.written[addr / 64] = true;
            done(a, DISPLAY);
            return true;
        }
        case 0x03: {
            if (data < 5)
                break;
            const uint32_t addr = static_cast<uint32_t>(e[1]) << 8 | e[2];
            if (!d.in_boot || addr + 64 > LCD_FLASH) {
                put_error(a.bytes, d.in_boot ? E_MAX_ADDRESS : E_NOT_SUPPORTED);
                return true;
            }
            std::memset(d.flash + addr, 0xFF, 64);
            done(a, DISPLAY);
            return true;
        }
        default: break;
        }
        break;
    default: break;
    }
    put_error(a.bytes, E_PARAMETERS);
    return true;
}

// One strip of a picture: it lands in its columns; the fourth completes the picture.
bool picture_strip(Reader &r, const uint8_t f[7], const uint8_t *e, size_t n, Answer &a)
{
    Lcd &d = r.lcd;
    if (n != STRIP_CHUNK || e[0] > 3) {
        put_error(a.bytes, E_PARAMETERS);
        return true;
    }
    const uint8_t s = e[0];
    if (s == 0 || d.picture_par != f[5]) {
        d.strips_got = 0;
        d.picture_par = f[5];
    }
    for (size_t row = 0; row < 64; ++row)
        std::memcpy(d.incoming + 16 * row + 4 * s, e + 5 + 4 * row, 4);
    d.strips_got = static_cast<uint8_t>(d.strips_got | 1u << s);
    if (d.strips_got == 0x0F) {
        d.strips_got = 0;
        if (f[5] == SHOW) {
            std::memcpy(d.shown, d.incoming, LCD_BYTES);
            std::memcpy(d.gallery[LAST_SENT], d.incoming, LCD_BYTES);
            shown_changed(d);
        } else if (f[5] <= GALLERY_TOP) {
            std::memcpy(d.gallery[f[5]], d.incoming, LCD_BYTES);
        } else {
            if (d.system.size() <= f[5])
                d.system.resize(f[5] + 1u);
            d.system[f[5]].assign(d.incoming, d.incoming + LCD_BYTES);
        }
    }
    done(a, PICTURE);
    return true;
}

// A programming packet: the next one in order, its sum already tested by the receiver.
bool program_packet(Reader &r, const uint8_t f[7], const uint8_t *e, size_t n, Answer &a)
{
    BootLoader &b = r.boot;
    const uint32_t packet = static_cast<uint32_t>(f[4]) | static_cast<uint32_t>(f[5]) << 8;
    // The packet before the next one may come again (its reply went astray): it replaces what came.
    const bool again =
        b.receiving && b.next_packet > 0 && packet + 1 == b.next_packet && b.last_whole && b.image.size() >= PACKET;
    if (!b.receiving || n != PACKET_EXT || (packet != b.next_packet && !again)) {
        put_error(a.bytes, E_PARAMETERS);
        return true;
    }
    if (again) {
        std::memcpy(b.image.data() + b.image.size() - PACKET, e, PACKET);
    } else {
        b.image.insert(b.image.end(), e, e + PACKET);
        ++b.next_packet;
    }
    ++b.packets;
    b.last_whole = true;
    const bool last = b.image_len ? b.image.size() >= b.image_len : false;
    if (last) {
        b.image.resize(b.image_len);
        b.complete = true;
        b.receiving = false;
        put_frame(a.bytes, RSP_HEADER, PROGRAM, RSP_TRAILER, 2, f[4], f[5]);
        a.bytes.push_back(IMAGE_VERIFIED);
        a.bytes.push_back(checksum(&IMAGE_VERIFIED, 1));
    } else {
        put_frame(a.bytes, RSP_HEADER, PROGRAM, RSP_TRAILER, 0, f[4], f[5]);
    }
    for (BootFault &fault : b.faults) {
        if (fault.used || fault.packet != packet)
            continue;
        fault.used = true;
        switch (fault.kind) {
        case PacketFault::DROP: a.bytes.clear(); break;
        case PacketFault::DELAY: a.delay_ms = fault.delay_ms; break;
        case PacketFault::GARBLE: a.bytes[6] = static_cast<uint8_t>(a.bytes[6] ^ 0x5A); break;
        }
        break;
    }
    return true;
}

bool boot_plain(Reader &r, const uint8_t f[7], Answer &a)
{
    BootLoader &b = r.boot;
    switch (f[1]) {
    case BOOT_ENTRY:
        if (f[4] != 0xAA || f[5] != 0xCC)
            return false;
        b.active = true;
        b.receiving = false;
        done(a, BOOT_ENTRY);
        a.bytes.insert(a.bytes.end(), GREETING, GREETING + 4);
        return true;
    case PROGRAM:
        b.receiving = true;
        b.complete = false;
        b.image.clear();
        b.last_whole = false;
        b.next_packet = 0;
        done(a, PROGRAM);
        return true;
    case CODE_PROTECT:
        b.protected_code = true;
        done(a, CODE_PROTECT);
        return true;
    case NFC_TEST: done(a, NFC_TEST); return true;
    default: return false;
    }
}

bool is_boot_command(uint8_t cmd)
{
    return cmd == PROGRAM || cmd == CODE_PROTECT || cmd == NFC_PARAMS || cmd == NFC_TEST;
}

// CRC-32 of PNG chunks and Adler-32 of the zlib stream.
uint32_t crc32(const uint8_t *p, size_t n, uint32_t c = 0xFFFFFFFFu)
{
    for (size_t i = 0; i < n; ++i) {
        c ^= p[i];
        for (int k = 0; k < 8; ++k)
            c = (c & 1) ? (c >> 1) ^ 0xEDB88320u : c >> 1;
    }
    return c;
}

void put32(std::vector<uint8_t> &out, uint32_t v)
{
    for (int s = 24; s >= 0; s -= 8)
        out.push_back(static_cast<uint8_t>(v >> s));
}

void chunk(std::vector<uint8_t> &out, const char *kind, const std::vector<uint8_t> &data)
{
    put32(out, static_cast<uint32_t>(data.size()));
    std::vector<uint8_t> body(kind, kind + 4);
    body.insert(body.end(), data.begin(), data.end());
    out.insert(out.end(), body.begin(), body.end());
    put32(out, crc32(body.data(), body.size()) ^ 0xFFFFFFFFu);
}

} // namespace

Lcd::Lcd()
{
    std::memset(flash, 0xFF, sizeof flash);
    for (size_t i = 0; i < sizeof params; ++i)
        params[i] = static_cast<uint8_t>(0x30 + i);
}

bool module_wants_ext(const Reader &r, const uint8_t f[7])
{
    if (f[1] == DISPLAY)
        return f[3] != 0;
    if (f[1] == PICTURE)
        return true;
    return r.boot.active && (f[1] == PROGRAM || f[1] == NFC_PARAMS) && f[3] != 0;
}

void module_frame_shape(const uint8_t f[7], size_t &need)
{
    if (f[1] == PICTURE && f[3] == (STRIP_CHUNK & 0xFF) && f[4] == (STRIP_CHUNK >> 8))
        need = STRIP_CHUNK;
}

bool module_command(Reader &r, const uint8_t f[7], const uint8_t *ext, size_t ext_len, Answer &a)
{
    if (f[1] == DISPLAY)
        return ext ? display_ext(r, f, ext, ext_len, a) : display_plain(r, f, a);
    if (f[1] == PICTURE) {
        if (!ext)
            put_error(a.bytes, E_PARAMETERS);
        return ext ? picture_strip(r, f, ext, ext_len, a) : true;
    }
    if (f[1] == BOOT_ENTRY && !ext)
        return boot_plain(r, f, a);
    if (!r.boot.active || !is_boot_command(f[1]))
        return false;
    if (!ext)
        return boot_plain(r, f, a);
    if (f[1] == PROGRAM)
        return program_packet(r, f, ext, ext_len, a);
    if (f[1] == NFC_PARAMS && ext_len == PACKET_EXT) {
        r.boot.params.assign(ext, ext + PACKET);
        done(a, NFC_PARAMS);
        return true;
    }
    put_error(a.bytes, E_PARAMETERS);
    return true;
}

void module_restart(Reader &r)
{
    BootLoader &b = r.boot;
    if (b.complete && b.next_fw_set) {
        r.fw_major = b.next_fw[0];
        r.fw_minor = b.next_fw[1];
        r.build = b.next_fw[2];
    }
    b.complete = false;
    b.active = false;
    b.receiving = false;
}

bool lcd_write_png(const uint8_t bitmap[LCD_BYTES], const std::string &path)
{
    // Rows of one filter byte and 128 grey samples, in one stored deflate block.
    std::vector<uint8_t> raw;
    for (size_t y = 0; y < 64; ++y) {
        raw.push_back(0);
        for (size_t x = 0; x < 128; ++x)
            raw.push_back((bitmap[16 * y + x / 8] >> (7 - x % 8)) & 1 ? 0x00 : 0xFF);
    }
    std::vector<uint8_t> z = {0x78, 0x01, 0x01};
    const uint16_t len = static_cast<uint16_t>(raw.size());
    z.push_back(static_cast<uint8_t>(len));
    z.push_back(static_cast<uint8_t>(len >> 8));
    z.push_back(static_cast<uint8_t>(~len));
    z.push_back(static_cast<uint8_t>(~len >> 8));
    z.insert(z.end(), raw.begin(), raw.end());
    uint32_t s1 = 1, s2 = 0;
    for (uint8_t v : raw) {
        s1 = (s1 + v) % 65521;
        s2 = (s2 + s1) % 65521;
    }
    put32(z, s2 << 16 | s1);
    std::vector<uint8_t> png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    std::vector<uint8_t> ihdr;
    put32(ihdr, 128);
    put32(ihdr, 64);
    ihdr.insert(ihdr.end(), {8, 0, 0, 0, 0});
    chunk(png, "IHDR", ihdr);
    chunk(png, "IDAT", z);
    chunk(png, "IEND", {});
    std::FILE *f = std::fopen(path.c_str(), "wb");
    if (!f)
        return false;
    const bool ok = std::fwrite(png.data(), 1, png.size(), f) == png.size();
    return std::fclose(f) == 0 && ok;
}

} // namespace zs
