// The network module in front of the reader: transparent sessions to the reader units behind it (every unit
// is the one reader model), its own identity, clock, I/O, EEPROM, password, display data, payment amount,
// power and Wi-Fi, the firmware stream, progress frames, and the configuration backup and restore, which
// arrive as raw keywords without frames. Written from the module's side.
#include <cstring>

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
    if (f[4] == 0 && f[5] == 0) { // the module restarts its link to the units
        m.target = 0;
        m.streaming = false;
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

void module_command(EspFront &m, const uint8_t *f, const uint8_t *ext, size_t len, Answer &a)
{
    switch (f[1]) {
    case 0xF2:
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
    case 0xE9: return put_response(a.bytes, f[1], 0, 0, m.fw, 3);
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

} // extern "C"
