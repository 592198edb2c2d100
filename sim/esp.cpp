// The network module in front of the reader: transparent sessions to the reader units behind it (every unit
// is the one reader model), its own identity, clock, I/O, EEPROM, password, display data, payment amount,
// power and Wi-Fi, the firmware stream, progress frames, and the configuration backup and restore, which
// arrive as raw keywords without frames. The module has its own identity and a boot loader that takes its
// image raw in 4,096-byte packets; a unit may have an identity and a boot loader of its own, which stand in
// the reader's place while a command reaches that unit. Written from the module's side.
#include <algorithm>
#include <cstring>
#include <utility>

#include "core.h"
#include "emulation.h"
#include "wire.h"

namespace zs {

namespace {

constexpr char BACKUP[] = "!BACKUP_ZEL_NETBOX!";      // sent with its zero: 20 bytes
constexpr char BEGIN[] = "!RESTORE_ZEL_NETBOX!BEGIN"; // 26
constexpr char HEAD[] = "!RESTORE_ZEL_NETBOX!";       // 20, no zero
constexpr char END[] = "!RESTORE_ZEL_NETBOX!END";     // 24
constexpr char RESTORED[] = "!RESTORE_DONE!";         // the 14-byte answer
constexpr char REFUSED[] = "?RESTORE_FULL?";          // too much to keep
constexpr size_t CONFIG_MAX = 65535;                  // what a 16-bit length can announce
constexpr size_t RESTORE_MAX = CONFIG_MAX + CONFIG_MAX / 512 * 20 + 64;
constexpr uint8_t STREAM_NFC = 0xCC, STREAM_SELF = 0xBB;
constexpr size_t STREAM_PACKET = 4096;
constexpr uint8_t BOOT_GREETING[4] = {0x03, 0x55, 0x55, 0xBB};

uint32_t le32(const uint8_t *p)
{
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

void ok(Answer &a, uint8_t cmd, uint8_t p0 = 0, uint8_t p1 = 0)
{
    put_response(a.bytes, cmd, p0, p1);
}

bool own(uint8_t cmd, const uint8_t f[7])
{
    switch (cmd) {
    case 0xF2:
    case 0xF3:
    case 0xF4:
    case 0xF5:
    case 0xF6:
    case 0xF7:
    case 0xF8:
    case 0xFA:
    case 0xFB:
    case 0xE8:
    case 0xE9:
    case 0xEA: return true;
    case 0xE7: return f[3] == 0; // with an EXT it is the reader's counter mirror
    default: return false;
    }
}

bool password_ok(const EspFront &m, const uint8_t *pw)
{
    return std::memcmp(m.password, pw, 8) == 0;
}

void transparent(EspFront &m, const uint8_t *f, Answer &a)
{
    if (f[4] == 0 && f[5] == 0) { // the module restarts its link to the units, and the units
        m.target = 0;
        m.streaming = false;
        for (EspModule &u : m.unit) {
            BootLoader &b = u.boot;
            if (b.complete && b.next_fw_set)
                std::memcpy(u.fw, b.next_fw, 3);
            b.complete = b.active = b.receiving = false;
        }
        return ok(a, f[1]);
    }
    if (f[4] == 0xFE)
        return ok(a, f[1], m.units);
    if (f[4] != 0xFF && (f[4] == 0 || f[4] > m.units))
        return put_error(a.bytes, E_PARAMETERS);
    m.target = f[4];
    ok(a, f[1], f[4], f[5]);
}

// The module's EEPROM: address, size, three zero bytes, then the password (write) and the data.
void eeprom(EspFront &m, const uint8_t *f, const uint8_t *ext, size_t len, Answer &a)
{
    const bool write = f[1] == 0xFB;
    const size_t head = write ? 16 : 8;
    if (len < head)
        return put_error(a.bytes, E_PARAMETERS);
    const uint32_t addr = le32(ext), n = ext[4];
    if (n > 128)
        return put_error(a.bytes, E_MAX_SIZE);
    if (len != head + n)
        return put_error(a.bytes, E_PARAMETERS);
    if (addr > sizeof m.eeprom || n > sizeof m.eeprom - addr)
        return put_error(a.bytes, E_MAX_ADDRESS);
    if (!write)
        return n ? put_response(a.bytes, f[1], 0, 0, m.eeprom + addr, n) : ok(a, f[1]);
    if (!password_ok(m, ext + 8))
        return put_error(a.bytes, E_WRONG_PASSWORD);
    std::memcpy(m.eeprom + addr, ext + 16, n);
    ok(a, f[1]);
}

// The commands a unit or the module answers with its identity.
bool identity_command(const uint8_t f[7])
{
    switch (f[1]) {
    case 0x10:
    case 0x29:
    case 0x2A:
    case 0x2B:
    case 0xF0:
    case 0xF1: return true;
    case 0x40: return f[3] == 0; // the serial description read
    default: return false;
    }
}

void module_command(EspFront &m, const uint8_t *f, const uint8_t *ext, size_t len, Answer &a)
{
    switch (f[1]) {
    case 0xF2:
        if (f[4] == 0 && f[5] == 0 && m.self.boot.active) { // the boot loader's start call
            BootLoader &b = m.self.boot;
            b.receiving = true;
            b.complete = false;
            b.image.clear();
            b.next_packet = 0;
            m.incoming.clear();
            return ok(a, f[1]);
        }
        if (f[4] != STREAM_NFC && f[4] != STREAM_SELF)
            return put_error(a.bytes, E_PARAMETERS);
        if (f[5] == 1) {
            m.streaming = true;
            m.stream_kind = f[4];
            m.stream_bytes = 0;
            return ok(a, f[1]);
        }
        m.streaming = false;
        return ok(a, f[1], static_cast<uint8_t>(m.stream_bytes), static_cast<uint8_t>(m.stream_bytes >> 8));
    case 0xF3:
        if (f[4] >= sizeof m.io)
            return put_error(a.bytes, E_PARAMETERS);
        m.io[f[4]] = f[5];
        return ok(a, f[1]);
    case 0xF4: return put_response(a.bytes, f[1], 0, 0, m.io, sizeof m.io);
    case 0xF5:
        if (len != 14)
            return put_error(a.bytes, E_PARAMETERS);
        if (!password_ok(m, ext + 6))
            return put_error(a.bytes, E_WRONG_PASSWORD);
        std::memcpy(m.time, ext, 6);
        return ok(a, f[1]);
    case 0xF6: return put_response(a.bytes, f[1], 0, 0, m.time, sizeof m.time);
    case 0xF7:
    case 0xFB: return eeprom(m, f, ext, len, a);
    case 0xF8:
        m.display.assign(ext ? ext : f, ext ? ext + len : f);
        m.display_value = static_cast<uint16_t>(f[4] | f[5] << 8);
        return ok(a, f[1]);
    case 0xFA:
        if (len != 16)
            return put_error(a.bytes, E_PARAMETERS);
        if (!password_ok(m, ext))
            return put_error(a.bytes, E_WRONG_PASSWORD);
        std::memcpy(m.password, ext + 8, 8);
        return ok(a, f[1]);
    case 0xE7: {
        const uint8_t d[4] = {static_cast<uint8_t>(m.serial), static_cast<uint8_t>(m.serial >> 8),
                              static_cast<uint8_t>(m.serial >> 16), static_cast<uint8_t>(m.serial >> 24)};
        return put_response(a.bytes, f[1], 0, 0, d, 4);
    }
    case 0xE8:
        if (f[4] == 0xFF)
            m.off = true;
        else if (f[4] == 0xFE && f[5] <= 1)
            m.wifi = f[5] == 1;
        else
            return put_error(a.bytes, E_PARAMETERS);
        return ok(a, f[1], f[4], f[5]);
    case 0xE9: return put_response(a.bytes, f[1], 0, 0, m.self.fw, 3);
    case 0xEA:
        if (len != 4)
            return put_error(a.bytes, E_PARAMETERS);
        m.payment_bits = le32(ext);
        return ok(a, f[1]);
    default: put_error(a.bytes, E_NOT_SUPPORTED);
    }
}

// The 14-byte answer to a restore.
void put_answer(std::vector<uint8_t> &out, const char *text)
{
    const size_t at = out.size();
    out.resize(at + 14);
    std::memcpy(out.data() + at, text, 14);
}

bool ends_with(const std::vector<uint8_t> &v, const char *s, size_t n)
{
    return v.size() >= n && std::memcmp(v.data() + v.size() - n, s, n) == 0;
}

// The chunks between BEGIN and END: each behind the chunk head.
void restore_done(EspFront &m, std::vector<uint8_t> &reply)
{
    const size_t head = sizeof HEAD - 1;
    std::vector<uint8_t> &b = m.restore;
    b.resize(b.size() - sizeof END);
    std::string text;
    size_t at = 0;
    bool good = true;
    while (at < b.size()) {
        if (b.size() - at < head || std::memcmp(b.data() + at, HEAD, head) != 0) {
            good = false;
            break;
        }
        at += head;
        size_t next = at;
        while (next < b.size() && !(b.size() - next >= head && std::memcmp(b.data() + next, HEAD, head) == 0))
            ++next;
        text.append(reinterpret_cast<const char *>(b.data() + at), next - at);
        at = next;
    }
    m.restoring = false;
    b.clear();
    if (good && text.size() <= CONFIG_MAX)
        m.config = text;
    put_answer(reply, good ? RESTORED : REFUSED);
}

} // namespace

bool esp_wants_ext(const Reader &r, const uint8_t f[7])
{
    const EspFront &m = r.esp;
    if (!m.present || f[1] == 0xF9 || (m.target != 0 && m.target != 0xFF))
        return false;
    return own(f[1], f) && f[3] != 0;
}

bool esp_command(Reader &r, const uint8_t f[7], const uint8_t *ext, size_t ext_len, Answer &a)
{
    EspFront &m = r.esp;
    if (!m.present)
        return false;
    if (f[1] == 0xF9) {
        transparent(m, f, a);
        return true;
    }
    if (m.target != 0 && m.target != 0xFF)
        return false; // a session with a unit: the unit answers
    if (m.target == 0xFF && identity_command(f))
        return false; // the reader's answers, with the module's identity in its place
    if (m.target == 0xFF && f[1] == 0x06 && f[3] == 0) {
        if (f[4] != 0xAA || f[5] != 0xCC) {
            put_error(a.bytes, E_PARAMETERS);
            return true;
        }
        m.self.boot.active = true;
        m.self.boot.receiving = false;
        ok(a, f[1]);
        a.bytes.insert(a.bytes.end(), BOOT_GREETING, BOOT_GREETING + 4);
        return true;
    }
    if (!own(f[1], f) && m.target != 0xFF)
        return false; // no session: the reader's commands reach the first unit
    module_command(m, f, ext, ext && ext_len ? ext_len - 1 : 0, a);
    return true;
}

bool esp_link_input(zsim *sim, LinkCore &link, const uint8_t *in, size_t n)
{
    EspFront &m = sim->reader.esp;
    if (!m.present)
        return false;
    std::vector<uint8_t> reply;
    BootLoader &boot = m.self.boot;
    if (boot.receiving && !(m.incoming.empty() && n == 7 && is_command_frame(in))) {
        // The boot loader's packets come raw; each whole one is answered with its number.
        while (n) {
            const size_t take = STREAM_PACKET - m.incoming.size() < n ? STREAM_PACKET - m.incoming.size() : n;
            m.incoming.insert(m.incoming.end(), in, in + take);
            in += take;
            n -= take;
            if (m.incoming.size() < STREAM_PACKET || !boot.receiving)
                continue;
            const uint32_t packet = boot.next_packet++;
            boot.image.insert(boot.image.end(), m.incoming.begin(), m.incoming.end());
            m.incoming.clear();
            ++boot.packets;
            put_response(reply, 0xF2, static_cast<uint8_t>(packet), static_cast<uint8_t>(packet >> 8));
            if (boot.image_len && boot.image.size() >= boot.image_len) {
                boot.image.resize(boot.image_len);
                boot.complete = true;
                boot.receiving = false;
            }
        }
        link_push(sim, link, reply);
        return true;
    }
    if (m.streaming && !(n == 7 && is_command_frame(in))) {
        m.stream_bytes += static_cast<uint32_t>(n);
        return true;
    }
    if (m.restoring) {
        if (m.restore.size() + n > RESTORE_MAX) {
            m.restoring = false;
            m.restore.clear();
            put_answer(reply, REFUSED);
        } else {
            m.restore.insert(m.restore.end(), in, in + n);
            if (ends_with(m.restore, END, sizeof END))
                restore_done(m, reply);
        }
        link_push(sim, link, reply);
        return true;
    }
    if (m.raw.empty() && in[0] != '!')
        return false;
    m.raw.insert(m.raw.end(), in, in + n);
    const auto starts = [&](const char *k, size_t len) {
        return m.raw.size() >= len && std::memcmp(m.raw.data(), k, len) == 0;
    };
    const auto prefix_of = [&](const char *k, size_t len) {
        return m.raw.size() < len && std::memcmp(m.raw.data(), k, m.raw.size()) == 0;
    };
    if (starts(BACKUP, sizeof BACKUP)) {
        const size_t len = m.config.size() < CONFIG_MAX ? m.config.size() : CONFIG_MAX;
        reply.resize(2 + len);
        reply[0] = static_cast<uint8_t>(len);
        reply[1] = static_cast<uint8_t>(len >> 8);
        if (len)
            std::memcpy(reply.data() + 2, m.config.data(), len);
        m.raw.clear();
    } else if (starts(BEGIN, sizeof BEGIN)) {
        // What came behind the keyword in the same read already belongs to the restore.
        m.restoring = true;
        m.restore.assign(m.raw.begin() + sizeof BEGIN, m.raw.end());
        m.raw.clear();
        if (m.restore.size() > RESTORE_MAX) {
            m.restoring = false;
            m.restore.clear();
            put_answer(reply, REFUSED);
        } else if (ends_with(m.restore, END, sizeof END)) {
            restore_done(m, reply);
        }
    } else if (!prefix_of(BACKUP, sizeof BACKUP) && !prefix_of(BEGIN, sizeof BEGIN)) {
        m.raw.clear(); // no keyword: noise
    }
    link_push(sim, link, reply);
    return true;
}

EspModule *esp_identity_for(Reader &r, const uint8_t f[7])
{
    EspFront &m = r.esp;
    if (!m.present || f[1] == 0xF9)
        return nullptr;
    if (m.target == 0xFF)
        return identity_command(f) ? &m.self : nullptr;
    if (m.target == 0 && own(f[1], f))
        return nullptr;
    const size_t n = m.target == 0 ? 1 : m.target;
    return n <= m.unit.size() && m.unit[n - 1].given ? &m.unit[n - 1] : nullptr;
}

void esp_swap_identity(Reader &r, EspModule &id)
{
    std::swap(r.hw_type, id.hw_type);
    std::swap(r.hw_ver, id.hw_ver);
    std::swap(r.fw_major, id.fw[0]);
    std::swap(r.fw_minor, id.fw[1]);
    std::swap(r.build, id.fw[2]);
    uint8_t *desc = r.eeprom + EE_SERIAL_DESC;
    std::swap_ranges(desc, desc + 8, reinterpret_cast<uint8_t *>(id.serial_desc));
    std::swap(r.boot, id.boot);
}

bool esp_ext_in_reports(const Reader &r, const uint8_t f[7])
{
    const EspFront &m = r.esp;
    if (!m.present || f[1] != 0xF2 || m.target == 0xFF)
        return false;
    const size_t n = m.target == 0 ? 1 : m.target;
    return n <= m.unit.size() && m.unit[n - 1].given && m.unit[n - 1].boot.active;
}

void esp_restart(Reader &r)
{
    BootLoader &b = r.esp.self.boot;
    if (b.complete && b.next_fw_set)
        std::memcpy(r.esp.self.fw, b.next_fw, 3);
    b.complete = b.active = b.receiving = false;
    r.esp.incoming.clear();
}

int esp_boot_phase(const Reader &r)
{
    const BootLoader &b = r.esp.self.boot;
    if (!r.esp.present)
        return 0;
    return b.complete ? 2 : b.active ? 1 : 0;
}

} // namespace zs

extern "C" {

void zsim_esp_enable(zsim *sim, uint8_t units)
{
    if (!sim)
        return;
    std::lock_guard<std::mutex> lock(sim->mu);
    zs::EspFront &m = sim->reader.esp;
    m = zs::EspFront{};
    m.present = units != 0;
    m.units = units;
    m.unit.resize(units);
}

void zsim_esp_get(zsim *sim, zsim_esp *out)
{
    if (!sim || !out)
        return;
    std::lock_guard<std::mutex> lock(sim->mu);
    const zs::EspFront &m = sim->reader.esp;
    *out = zsim_esp{};
    out->target = m.target;
    out->wifi = m.wifi ? 1 : 0;
    out->off = m.off ? 1 : 0;
    std::memcpy(out->io, m.io, 6);
    std::memcpy(out->time, m.time, 6);
    std::memcpy(out->password, m.password, 8);
    out->payment_bits = m.payment_bits;
    out->display_value = m.display_value;
    out->display_len = m.display.size();
    out->streaming = m.streaming ? 1 : 0;
    out->stream_bytes = m.stream_bytes;
}

size_t zsim_esp_config(zsim *sim, char *buf, size_t len)
{
    if (!sim)
        return 0;
    std::lock_guard<std::mutex> lock(sim->mu);
    const std::string &c = sim->reader.esp.config;
    if (buf && len) {
        const size_t n = c.size() < len - 1 ? c.size() : len - 1;
        std::memcpy(buf, c.data(), n);
        buf[n] = 0;
    }
    return c.size();
}

void zsim_esp_set_config(zsim *sim, const char *text)
{
    if (!sim || !text)
        return;
    std::lock_guard<std::mutex> lock(sim->mu);
    sim->reader.esp.config.assign(text, std::strlen(text) < 65535 ? std::strlen(text) : 65535);
}

void zsim_esp_progress(zsim *sim, uint8_t percent)
{
    if (!sim)
        return;
    std::lock_guard<std::mutex> links(sim->links_mu);
    std::lock_guard<std::mutex> lock(sim->mu);
    std::vector<uint8_t> frame;
    zs::put_frame(frame, zs::RSP_HEADER, 0xF2, zs::RSP_TRAILER, 0, percent, 0);
    for (auto &l : sim->links) {
        zs::link_push(sim, l->core, frame);
        l->poke();
    }
}

size_t zsim_esp_eeprom_read(zsim *sim, uint32_t address, uint8_t *buf, size_t len)
{
    if (!sim || !buf)
        return 0;
    std::lock_guard<std::mutex> lock(sim->mu);
    const zs::EspFront &m = sim->reader.esp;
    if (address >= sizeof m.eeprom)
        return 0;
    const size_t n = sizeof m.eeprom - address < len ? sizeof m.eeprom - address : len;
    std::memcpy(buf, m.eeprom + address, n);
    return n;
}

namespace {

// The module (0) or a unit (1 to units) of the network module; null for another number.
zs::EspModule *module_of(zsim *sim, uint8_t unit)
{
    zs::EspFront &m = sim->reader.esp;
    if (!m.present)
        return nullptr;
    if (unit == 0)
        return &m.self;
    return unit <= m.unit.size() ? &m.unit[unit - 1] : nullptr;
}

} // namespace

void zsim_esp_identity(zsim *sim, uint8_t unit, const char *serial_desc, uint8_t hw_type, uint8_t hw_ver, uint8_t major,
                       uint8_t minor, uint8_t build)
{
    if (!sim)
        return;
    std::lock_guard<std::mutex> lock(sim->mu);
    zs::EspModule *id = module_of(sim, unit);
    if (!id)
        return;
    id->given = true;
    std::memset(id->serial_desc, 0, sizeof id->serial_desc);
    if (serial_desc)
        std::memcpy(id->serial_desc, serial_desc, std::min(std::strlen(serial_desc), sizeof id->serial_desc));
    id->hw_type = hw_type;
    id->hw_ver = hw_ver;
    id->fw[0] = major;
    id->fw[1] = minor;
    id->fw[2] = build;
}

void zsim_esp_boot_loader(zsim *sim, uint8_t unit, uint32_t image_len, uint8_t major, uint8_t minor, uint8_t build)
{
    if (!sim)
        return;
    std::lock_guard<std::mutex> lock(sim->mu);
    zs::EspModule *id = module_of(sim, unit);
    if (!id)
        return;
    id->boot.image_len = image_len;
    id->boot.next_fw[0] = major;
    id->boot.next_fw[1] = minor;
    id->boot.next_fw[2] = build;
    id->boot.next_fw_set = true;
}

void zsim_esp_boot_fault(zsim *sim, uint8_t unit, uint32_t packet, zsim_packet_fault kind, uint32_t delay_ms)
{
    if (!sim || unit == 0)
        return;
    std::lock_guard<std::mutex> lock(sim->mu);
    zs::EspModule *id = module_of(sim, unit);
    if (!id)
        return;
    zs::BootFault f;
    f.packet = packet;
    f.kind = kind == ZSIM_PACKET_DELAY    ? zs::PacketFault::DELAY
             : kind == ZSIM_PACKET_GARBLE ? zs::PacketFault::GARBLE
                                          : zs::PacketFault::DROP;
    f.delay_ms = delay_ms;
    id->boot.faults.push_back(f);
}

int zsim_esp_boot_state(zsim *sim, uint8_t unit, size_t *image_got, uint32_t *packets)
{
    if (!sim)
        return -1;
    std::lock_guard<std::mutex> lock(sim->mu);
    const zs::EspModule *id = module_of(sim, unit);
    if (!id)
        return -1;
    const zs::BootLoader &b = id->boot;
    if (image_got)
        *image_got = b.image.size();
    if (packets)
        *packets = b.packets;
    return b.complete ? 3 : b.receiving ? 2 : b.active ? 1 : 0;
}

size_t zsim_esp_boot_image(zsim *sim, uint8_t unit, uint8_t *buf, size_t len)
{
    if (!sim)
        return 0;
    std::lock_guard<std::mutex> lock(sim->mu);
    const zs::EspModule *id = module_of(sim, unit);
    if (!id)
        return 0;
    const std::vector<uint8_t> &img = id->boot.image;
    if (buf && len)
        std::memcpy(buf, img.data(), std::min(len, img.size()));
    return img.size();
}

} // extern "C"
