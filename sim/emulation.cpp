// The reader as an NFC tag: the record it shows (loaded in one frame, in pieces it asks for, or written into
// its EEPROM block), the modes, the external field, the shared RAM, the counter mirror, and a phone that reads
// the tag through the Type 4 commands a phone sends. Written from the reader's and the phone's side.
#include "emulation.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core.h"
#include "wire.h"

namespace zs {

namespace {

constexpr uint8_t MODE_ON = 0xEA, MODE_COMBINED = 0xCE, MODE_OFF = 0xFF;
constexpr uint8_t PROMPT = 0xAD;
constexpr size_t RAM_LOAD_MAX = 4096; // far above the largest record a host may load

uint8_t crc8(const uint8_t *p, size_t n)
{
    uint8_t crc = 0xFF;
    for (size_t i = 0; i < n; ++i) {
        crc ^= p[i];
        for (int b = 0; b < 8; ++b)
            crc = static_cast<uint8_t>(crc & 0x80 ? (crc << 1) ^ 0x31 : crc << 1);
    }
    return crc;
}

void ok(Answer &a, uint8_t cmd, uint8_t p0 = 0, uint8_t p1 = 0)
{
    put_response(a.bytes, cmd, p0, p1);
}

// The message inside an NDEF TLV area (03 L ... or 03 FF hi lo ...); false when there is none.
bool tlv_message(const uint8_t *p, size_t n, std::vector<uint8_t> &msg)
{
    if (n < 2 || p[0] != 0x03)
        return false;
    size_t len = p[1], at = 2;
    if (p[1] == 0xFF) {
        if (n < 4)
            return false;
        len = static_cast<size_t>(p[2]) << 8 | p[3];
        at = 4;
    }
    if (len > n - at)
        return false;
    msg.assign(p + at, p + at + len);
    return true;
}

// A complete RAM form block (LE16 length, then the TLV area) becomes the record shown.
void ram_load_done(Reader &r, Answer &a)
{
    Emulation &e = r.emul;
    e.loading = false;
    const std::vector<uint8_t> &d = e.load_data;
    std::vector<uint8_t> msg;
    if (!tlv_message(d.data() + 2, d.size() - 2, msg)) {
        a.bytes.push_back(PROMPT);
        return put_error(a.bytes, E_PARAMETERS);
    }
    e.tlv.assign(d.begin() + 2, d.end());
    e.from_eeprom = false;
    a.bytes.push_back(PROMPT);
    ok(a, 0x4A);
}

// 0x4A: one frame (LE16, 03 L message FE), or with PAR0 1 the first piece of a RAM form block.
void load(Reader &r, const uint8_t *f, const uint8_t *ext, size_t len, Answer &a)
{
    Emulation &e = r.emul;
    if (len < 2)
        return put_error(a.bytes, E_PARAMETERS);
    const size_t total = static_cast<size_t>(ext[0]) | static_cast<size_t>(ext[1]) << 8;
    if (f[4] == 1) {
        if (total + 2 > RAM_LOAD_MAX || len > total + 2)
            return put_error(a.bytes, E_MAX_SIZE);
        e.load_data.assign(ext, ext + len);
        e.load_piece.clear();
        e.load_total = total + 2;
        e.loading = true;
        if (e.load_data.size() >= e.load_total)
            return ram_load_done(r, a);
        a.bytes.push_back(PROMPT);
        return;
    }
    std::vector<uint8_t> msg;
    if (total != len - 2 || !tlv_message(ext + 2, len - 2, msg))
        return put_error(a.bytes, E_PARAMETERS);
    e.tlv.assign(ext + 2, ext + len);
    e.from_eeprom = false;
    ok(a, f[1]);
}

void set_mode(Reader &r, const uint8_t *f, uint8_t mode, Answer &a)
{
    r.eeprom[EE_EMUL_MODE] = mode;
    ok(a, f[1], f[4]);
}

// 0xE7 with its EXT: enable (0xEA), position, counter, a zero byte.
void mirror(Reader &r, const uint8_t *f, const uint8_t *ext, size_t len, Answer &a)
{
    if (len != 8 || f[4] != 1 || (ext[0] != MODE_ON && ext[0] != 0))
        return put_error(a.bytes, E_PARAMETERS);
    r.emul.mirror_on = ext[0] == MODE_ON;
    r.emul.mirror_pos = static_cast<uint16_t>(ext[1] | ext[2] << 8);
    r.emul.mirror_counter = static_cast<uint32_t>(ext[3]) | static_cast<uint32_t>(ext[4]) << 8 |
                            static_cast<uint32_t>(ext[5]) << 16 | static_cast<uint32_t>(ext[6]) << 24;
    ok(a, f[1]);
}

void share_read(Reader &r, const uint8_t *f, Answer &a)
{
    if (!r.emul.share_mode)
        return put_error(a.bytes, E_NOT_SUPPORTED);
    const size_t addr = f[4], n = f[5];
    if (addr + n > sizeof r.emul.share_ram)
        return put_error(a.bytes, E_MAX_ADDRESS);
    if (n == 0)
        return ok(a, f[1]);
    put_response(a.bytes, f[1], 0, 0, r.emul.share_ram + addr, n);
}

void share_write(Reader &r, const uint8_t *f, const uint8_t *ext, size_t len, Answer &a)
{
    if (!r.emul.share_mode)
        return put_error(a.bytes, E_NOT_SUPPORTED);
    const size_t addr = f[4], n = f[5];
    if (len != n)
        return put_error(a.bytes, E_PARAMETERS);
    if (addr + n > sizeof r.emul.share_ram)
        return put_error(a.bytes, E_MAX_ADDRESS);
    std::memcpy(r.emul.share_ram + addr, ext, n);
    ok(a, f[1]);
}

// ---- The tag a phone sees: a Type 4 tag with a capability container and one NDEF file ----

bool emulating(const Reader &r)
{
    const uint8_t m = r.eeprom[EE_EMUL_MODE];
    return m == MODE_ON || m == MODE_COMBINED;
}

// The message the tag shows; false when none is loaded (or the EEPROM block's CRC is wrong).
bool shown_message(const Reader &r, std::vector<uint8_t> &msg)
{
    if (r.emul.from_eeprom) {
        const uint8_t *b = r.eeprom + EE_EMUL_BLOCK;
        if (crc8(b, EMUL_BLOCK_LEN - 1) != b[EMUL_BLOCK_LEN - 1])
            return false;
        return tlv_message(b, EMUL_BLOCK_LEN - 1, msg);
    }
    return tlv_message(r.emul.tlv.data(), r.emul.tlv.size(), msg);
}

struct TagFiles {
    std::vector<uint8_t> cc, ndef;
    const std::vector<uint8_t> *selected = nullptr;
    bool app = false;
};

constexpr uint8_t NDEF_AID[] = {0xD2, 0x76, 0x00, 0x00, 0x85, 0x01, 0x01};
constexpr uint16_t MLE = 0x3B; // the most the tag answers to one READ BINARY

std::vector<uint8_t> sw(uint8_t sw1, uint8_t sw2, const uint8_t *data = nullptr, size_t n = 0)
{
    std::vector<uint8_t> out;
    if (data)
        out.assign(data, data + n);
    out.push_back(sw1);
    out.push_back(sw2);
    return out;
}

// One command APDU at the emulated tag.
std::vector<uint8_t> tag_apdu(TagFiles &t, const std::vector<uint8_t> &c)
{
    if (c.size() < 4)
        return sw(0x67, 0x00);
    if (c[1] == 0xA4) {
        const size_t lc = c.size() > 4 ? c[4] : 0;
        if (c.size() < 5 + lc)
            return sw(0x67, 0x00);
        const uint8_t *d = c.data() + 5;
        if (c[2] == 0x04 && lc == sizeof NDEF_AID && std::memcmp(d, NDEF_AID, lc) == 0) {
            t.app = true;
            t.selected = nullptr;
            return sw(0x90, 0x00);
        }
        if (c[2] == 0x00 && lc == 2 && t.app) {
            const uint16_t fid = static_cast<uint16_t>(d[0] << 8 | d[1]);
            if (fid == 0xE103 || fid == 0xE104) {
                t.selected = fid == 0xE103 ? &t.cc : &t.ndef;
                return sw(0x90, 0x00);
            }
        }
        return sw(0x6A, 0x82);
    }
    if (c[1] == 0xB0) {
        if (!t.selected)
            return sw(0x69, 0x86);
        const size_t off = static_cast<size_t>(c[2]) << 8 | c[3];
        size_t le = c.size() > 4 ? c[4] : 256;
        if (le == 0)
            le = 256;
        if (le > MLE)
            le = MLE;
        if (off > t.selected->size())
            return sw(0x6B, 0x00);
        const size_t n = t.selected->size() - off < le ? t.selected->size() - off : le;
        return sw(0x90, 0x00, t.selected->data() + off, n);
    }
    return sw(0x6D, 0x00);
}

// The phone: selects the NDEF application, reads the container, then NLEN and the message.
long phone_read(TagFiles &t, std::vector<uint8_t> &msg)
{
    auto ok_sw = [](const std::vector<uint8_t> &r) {
        return r.size() >= 2 && r[r.size() - 2] == 0x90 && r.back() == 0;
    };
    std::vector<uint8_t> sel = {0x00, 0xA4, 0x04, 0x00, sizeof NDEF_AID};
    sel.insert(sel.end(), NDEF_AID, NDEF_AID + sizeof NDEF_AID);
    sel.push_back(0x00);
    if (!ok_sw(tag_apdu(t, sel)))
        return -1;
    if (!ok_sw(tag_apdu(t, {0x00, 0xA4, 0x00, 0x0C, 0x02, 0xE1, 0x03})))
        return -1;
    const std::vector<uint8_t> cc = tag_apdu(t, {0x00, 0xB0, 0x00, 0x00, 0x0F});
    if (!ok_sw(cc) || cc.size() < 17 || cc[7] != 0x04)
        return -1;
    const size_t mle = static_cast<size_t>(cc[3]) << 8 | cc[4];
    if (!ok_sw(tag_apdu(t, {0x00, 0xA4, 0x00, 0x0C, 0x02, cc[9], cc[10]})))
        return -1;
    const std::vector<uint8_t> nl = tag_apdu(t, {0x00, 0xB0, 0x00, 0x00, 0x02});
    if (!ok_sw(nl) || nl.size() != 4)
        return -1;
    const size_t nlen = static_cast<size_t>(nl[0]) << 8 | nl[1];
    msg.clear();
    while (msg.size() < nlen) {
        const size_t off = 2 + msg.size();
        const size_t want = nlen - msg.size() < mle ? nlen - msg.size() : mle;
        const std::vector<uint8_t> r = tag_apdu(
            t, {0x00, 0xB0, static_cast<uint8_t>(off >> 8), static_cast<uint8_t>(off), static_cast<uint8_t>(want)});
        if (!ok_sw(r) || r.size() <= 2)
            return -1;
        msg.insert(msg.end(), r.begin(), r.end() - 2);
    }
    return static_cast<long>(msg.size());
}

} // namespace

bool emulation_wants_ext(const Reader &, const uint8_t f[7])
{
    return f[1] == 0x4A || f[1] == 0x7B || (f[1] == 0xE7 && f[3] != 0);
}

bool emulation_command(Reader &r, const uint8_t f[7], const uint8_t *ext, size_t ext_len, Answer &a)
{
    const size_t len = ext && ext_len ? ext_len - 1 : 0;
    Emulation &e = r.emul;
    switch (f[1]) {
    case 0x48: set_mode(r, f, MODE_ON, a); break;
    case 0x49: set_mode(r, f, MODE_OFF, a); break;
    case 0x4F: set_mode(r, f, MODE_COMBINED, a); break;
    case 0x4A: load(r, f, ext, len, a); break;
    case 0x76:
        e.adhoc = true;
        ok(a, f[1]);
        break;
    case 0x77:
        e.adhoc = false;
        ok(a, f[1]);
        break;
    case 0x9D: ok(a, f[1], e.adhoc_par[0], e.adhoc_par[1]); break;
    case 0x9E:
        e.adhoc_par[0] = f[4];
        e.adhoc_par[1] = f[5];
        ok(a, f[1], f[4], f[5]);
        break;
    case 0x9F: ok(a, f[1], e.field); break;
    case 0x78:
        if (f[4] != 0xAA || f[5] != 0xBB)
            return put_error(a.bytes, E_PARAMETERS), true;
        e.share_mode = true;
        ok(a, f[1]);
        break;
    case 0x79:
        e.share_mode = false;
        ok(a, f[1]);
        break;
    case 0x7A: share_read(r, f, a); break;
    case 0x7B: share_write(r, f, ext, len, a); break;
    case 0xE7:
        if (!ext)
            return false; // the plain 0xE7 is not the mirror
        mirror(r, f, ext, len, a);
        break;
    default: return false;
    }
    return true;
}

bool emulation_link_input(zsim *sim, LinkCore &link, const uint8_t *in, size_t n)
{
    Emulation &e = sim->reader.emul;
    if (!e.loading)
        return false;
    Answer a;
    for (size_t i = 0; i < n && e.loading; ++i) {
        e.load_piece.push_back(in[i]);
        if (e.load_piece.size() < 1u + e.load_piece[0])
            continue;
        const size_t want = e.load_total - e.load_data.size();
        const size_t take = e.load_piece.size() - 1 < want ? e.load_piece.size() - 1 : want;
        e.load_data.insert(e.load_data.end(), e.load_piece.begin() + 1, e.load_piece.begin() + 1 + take);
        e.load_piece.clear();
        if (e.load_data.size() < e.load_total)
            a.bytes.push_back(PROMPT);
        else
            ram_load_done(sim->reader, a);
    }
    link_push(sim, link, a.bytes);
    return true;
}

void emulation_eeprom_written(Reader &r, size_t address, size_t count)
{
    if (address < EE_EMUL_BLOCK + EMUL_BLOCK_LEN && EE_EMUL_BLOCK < address + count)
        r.emul.from_eeprom = true;
}

namespace {

std::string hex(const uint8_t *p, size_t n)
{
    static const char D[] = "0123456789ABCDEF";
    std::string out;
    for (size_t i = 0; i < n; ++i) {
        out.push_back(D[p[i] >> 4]);
        out.push_back(D[p[i] & 15]);
    }
    return out;
}

// What a phone shows for the first record: a URI or a text of the well-known types, else nothing.
std::string phone_shows(const std::vector<uint8_t> &m)
{
    static const char *const PREFIX[] = {"", "http://www.", "https://www.", "http://", "https://", "tel:", "mailto:"};
    if (m.size() < 3 || !(m[0] & 0x10) || (m[0] & 7) != 1 || m[1] != 1)
        return "";
    const size_t il = (m[0] & 0x08) ? 1 : 0;
    const size_t pl = m[2], at = 3 + il + 1 + (il ? m[3] : 0);
    if (m.size() < 3 + il || at > m.size() || pl > m.size() - at || pl == 0)
        return "";
    const uint8_t type = m[3 + il];
    const char *p = reinterpret_cast<const char *>(m.data() + at);
    if (type == 'U' && m[at] < sizeof PREFIX / sizeof PREFIX[0])
        return std::string("uri ") + PREFIX[m[at]] + std::string(p + 1, pl - 1);
    const size_t lang = m[at] & 0x3F;
    if (type == 'T' && 1 + lang <= pl)
        return "text " + std::string(p + 1 + lang, pl - 1 - lang);
    return "";
}

bool hex_bytes(const std::string &t, std::vector<uint8_t> &out)
{
    out.clear();
    if (t.size() % 2)
        return false;
    for (size_t i = 0; i < t.size(); i += 2) {
        const std::string d = t.substr(i, 2);
        char *end = nullptr;
        const unsigned long v = std::strtoul(d.c_str(), &end, 16);
        if (!end || *end || !std::isxdigit(static_cast<unsigned char>(d[0])))
            return false;
        out.push_back(static_cast<uint8_t>(v));
    }
    return true;
}

bool small_number(const std::string &t, unsigned long max, unsigned long &v)
{
    char *end = nullptr;
    if (t.empty() || !std::isdigit(static_cast<unsigned char>(t[0])))
        return false;
    v = std::strtoul(t.c_str(), &end, 10);
    return end && !*end && v <= max;
}

} // namespace

bool emulation_text_command(zsim *sim, const std::vector<std::string> &w, std::string &out, int &rc)
{
    const std::string &c = w[0];
    rc = 0;
    unsigned long v = 0, n = 0;
    if (c == "phone" && w.size() == 1) {
        uint8_t buf[4096];
        const long got = zsim_phone_read_ndef(sim, buf, sizeof buf);
        if (got < 0) {
            out += "phone: no tag answers (emulation off or no record)\n";
            rc = -1;
            return true;
        }
        const std::vector<uint8_t> m(buf, buf + got);
        out += "ndef " + hex(buf, static_cast<size_t>(got)) + "\n";
        const std::string shows = phone_shows(m);
        if (!shows.empty())
            out += shows + "\n";
        return true;
    }
    if (c == "field" && w.size() == 2 && (w[1] == "on" || w[1] == "off")) {
        zsim_set_external_field(sim, w[1] == "on");
        out += "external field " + w[1] + "\n";
        return true;
    }
    if (c == "emulation" && w.size() == 1) {
        zsim_emulation e;
        zsim_emulation_get(sim, &e);
        char line[200];
        std::snprintf(line, sizeof line,
                      "mode %s adhoc %s field %u share_ram %s mirror %s position %u counter %u phone_reads %u\n",
                      e.mode == MODE_ON         ? "on"
                      : e.mode == MODE_COMBINED ? "combined"
                                                : "off",
                      e.adhoc ? "on" : "off", e.field, e.share_ram ? "on" : "off", e.mirror_enabled ? "on" : "off",
                      e.mirror_position, e.mirror_counter, e.phone_reads);
        out += line;
        return true;
    }
    if (c == "share" && w.size() == 4 && w[1] == "read" && small_number(w[2], 255, v) && small_number(w[3], 256, n)) {
        uint8_t buf[256];
        const size_t got = zsim_share_ram_read(sim, static_cast<uint8_t>(v), buf, n);
        out += "ram " + hex(buf, got) + "\n";
        return true;
    }
    std::vector<uint8_t> bytes;
    if (c == "share" && w.size() == 4 && w[1] == "write" && small_number(w[2], 255, v) && hex_bytes(w[3], bytes)) {
        const size_t put = zsim_share_ram_write(sim, static_cast<uint8_t>(v), bytes.data(), bytes.size());
        out += "wrote " + std::to_string(put) + " bytes\n";
        return true;
    }
    if (c == "esp" && w.size() >= 2) {
        if (w[1] == "on" && (w.size() == 2 || (w.size() == 3 && small_number(w[2], 254, v) && v > 0))) {
            zsim_esp_enable(sim, static_cast<uint8_t>(w.size() == 3 ? v : 1));
            out += "network module in front\n";
            return true;
        }
        if (w[1] == "off" && w.size() == 2) {
            zsim_esp_enable(sim, 0);
            out += "no network module\n";
            return true;
        }
        if (w[1] == "progress" && w.size() == 3 && small_number(w[2], 100, v)) {
            zsim_esp_progress(sim, static_cast<uint8_t>(v));
            out += "progress " + w[2] + "\n";
            return true;
        }
        if (w[1] == "config" && w.size() == 2) {
            const size_t len = zsim_esp_config(sim, nullptr, 0);
            std::vector<char> buf(len + 1);
            zsim_esp_config(sim, buf.data(), buf.size());
            out += buf.data();
            return true;
        }
    }
    if (c == "phone" || c == "field" || c == "emulation" || c == "share" || c == "esp") {
        out += c + ": usage: phone | field on|off | emulation | share read ADDR LEN | share write ADDR HEX | "
                   "esp on [UNITS] | esp off | esp progress PERCENT | esp config\n";
        rc = -1;
        return true;
    }
    return false;
}

} // namespace zs

extern "C" {

void zsim_emulation_get(zsim *sim, zsim_emulation *out)
{
    if (!sim || !out)
        return;
    std::lock_guard<std::mutex> lock(sim->mu);
    const zs::Emulation &e = sim->reader.emul;
    *out = zsim_emulation{};
    out->mode = sim->reader.eeprom[zs::EE_EMUL_MODE];
    out->adhoc = e.adhoc ? 1 : 0;
    out->adhoc_par[0] = e.adhoc_par[0];
    out->adhoc_par[1] = e.adhoc_par[1];
    out->field = e.field;
    out->share_ram = e.share_mode ? 1 : 0;
    out->mirror_enabled = e.mirror_on ? 1 : 0;
    out->mirror_position = e.mirror_pos;
    out->mirror_counter = e.mirror_counter;
    out->phone_reads = e.phone_reads;
}

long zsim_phone_read_ndef(zsim *sim, uint8_t *buf, size_t len)
{
    if (!sim)
        return -1;
    std::lock_guard<std::mutex> lock(sim->mu);
    zs::Reader &r = sim->reader;
    std::vector<uint8_t> shown;
    if (!zs::emulating(r) || !zs::shown_message(r, shown) || shown.size() > 0xFFFD)
        return -1;
    zs::TagFiles t;
    const uint16_t max = static_cast<uint16_t>(shown.size() + 2);
    t.cc = {0x00,
            0x0F,
            0x20,
            0x00,
            static_cast<uint8_t>(zs::MLE),
            0x00,
            0x34,
            0x04,
            0x06,
            0xE1,
            0x04,
            static_cast<uint8_t>(max >> 8),
            static_cast<uint8_t>(max),
            0x00,
            0xFF};
    t.ndef = {static_cast<uint8_t>(shown.size() >> 8), static_cast<uint8_t>(shown.size())};
    t.ndef.insert(t.ndef.end(), shown.begin(), shown.end());
    std::vector<uint8_t> msg;
    const long n = zs::phone_read(t, msg);
    if (n < 0)
        return -1;
    ++r.emul.phone_reads;
    if (static_cast<size_t>(n) > len || (!buf && n))
        return -2;
    if (n)
        std::memcpy(buf, msg.data(), msg.size());
    return n;
}

void zsim_set_external_field(zsim *sim, int present)
{
    if (!sim)
        return;
    std::lock_guard<std::mutex> lock(sim->mu);
    sim->reader.emul.field = present ? 1 : 0;
}

size_t zsim_share_ram_read(zsim *sim, uint8_t address, uint8_t *buf, size_t len)
{
    if (!sim || !buf)
        return 0;
    std::lock_guard<std::mutex> lock(sim->mu);
    const size_t n = 256u - address < len ? 256u - address : len;
    std::memcpy(buf, sim->reader.emul.share_ram + address, n);
    return n;
}

size_t zsim_share_ram_write(zsim *sim, uint8_t address, const uint8_t *buf, size_t len)
{
    if (!sim || !buf)
        return 0;
    std::lock_guard<std::mutex> lock(sim->mu);
    const size_t n = 256u - address < len ? 256u - address : len;
    std::memcpy(sim->reader.emul.share_ram + address, buf, n);
    return n;
}

} // extern "C"
