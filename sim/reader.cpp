#include "reader.h"

#include <cstdio>
#include <cstring>

#include "iso7816.h"
#include "desfire.h"
#include "iso15693.h"
#include "t2t.h"
#include "wire.h"

namespace zs {

namespace {

void put_u32(uint8_t *p, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<uint8_t>(v >> (8 * i));
}

uint32_t get_u32(const uint8_t *p)
{
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

const uint32_t RATES[] = {1000000, 115200, 250000, 9600, 19200, 38400, 57600, 230400, 460800, 500000};

const zsim_card *card_in_field(Reader &r)
{
    if (r.cards.empty())
        return nullptr;
    r.last_card = r.cards.front()->id();
    r.have_last_card = true;
    return &r.cards.front()->id();
}

void card_id(Reader &r, const uint8_t *f, Answer &a)
{
    const zsim_card *c = card_in_field(r);
    if (!c)
        return put_error(a.bytes, E_NO_CARD);
    uint8_t d[4] = {};
    if (f[4] == 1) { // ATQA and SAK
        d[0] = static_cast<uint8_t>(c->atqa);
        d[1] = static_cast<uint8_t>(c->atqa >> 8);
        return put_response(a.bytes, f[1], c->sak, 0, d, 4);
    }
    std::memcpy(d, c->uid, c->uid_len < 4 ? c->uid_len : 4);
    put_response(a.bytes, f[1], c->orb_type, 0, d, 4);
}

void card_id_ex(const zsim_card *c, uint8_t cmd, Answer &a)
{
    uint8_t d[10] = {};
    const uint8_t n = c->uid_len > 10 ? 10 : c->uid_len;
    std::memcpy(d, c->uid, n);
    put_response(a.bytes, cmd, c->sak, n, d, 10);
}

void ok(Answer &a, uint8_t cmd, uint8_t p0 = 0, uint8_t p1 = 0) { put_response(a.bytes, cmd, p0, p1); }

bool password_ok(const Reader &r, const uint8_t *pw) { return std::memcmp(r.password, pw, 8) == 0; }

// The parameter block of 0xF0 and 0xF1: MUI, serial, HW type and version, device type, firmware.
void parameters(const Reader &r, const uint8_t *f, Answer &a)
{
    if (r.param_form == ParamForm::NONE || (r.param_form == ParamForm::SHORT && f[1] == 0xF0 && f[4] == 1))
        return put_error(a.bytes, E_NOT_SUPPORTED);
    std::vector<uint8_t> d;
    const bool long_form = r.param_form == ParamForm::LONG;
    const size_t mui_len = long_form ? r.mui_len : (r.mui_len < 12 ? r.mui_len : 12);
    d.insert(d.end(), r.mui, r.mui + mui_len);
    const std::string sd = r.serial_desc();
    d.insert(d.end(), sd.begin(), sd.end());
    d.push_back(r.hw_type);
    d.push_back(r.hw_ver);
    uint8_t t[4];
    put_u32(t, r.device_type ? r.device_type : r.type);
    d.insert(d.end(), t, t + 4);
    d.push_back(r.fw_major);
    d.push_back(r.fw_minor);
    if (long_form)
        d.push_back(r.build);
    put_response(a.bytes, f[1], 0, 0, d.data(), d.size());
}

// The address and count in front of an EEPROM access whose data starts at head: 0 when the EXT holds
// exactly the count announced (at most 128), else the error to answer.
uint8_t eeprom_head(const uint8_t *ext, size_t len, size_t head, uint32_t &addr, uint32_t &count)
{
    if (len < head)
        return E_PARAMETERS;
    addr = get_u32(ext) & 0x7FFFFFFF;
    count = get_u32(ext + 4);
    if (count > 128)
        return E_MAX_SIZE;
    return len == count + head ? 0 : E_PARAMETERS;
}

void eeprom_read(Reader &r, const uint8_t *f, const uint8_t *ext, size_t len, Answer &a)
{
    uint32_t addr = 0, count = 0;
    if (const uint8_t e = eeprom_head(ext, len, 8, addr, count))
        return put_error(a.bytes, e);
    if (addr > EEPROM_SIZE || count > EEPROM_SIZE - addr)
        return put_error(a.bytes, E_MAX_ADDRESS);
    if (count == 0)
        return ok(a, f[1]);
    put_response(a.bytes, f[1], 0, 0, r.eeprom + addr, count);
}

void eeprom_write(Reader &r, const uint8_t *f, const uint8_t *ext, size_t len, Answer &a)
{
    uint32_t addr = 0, count = 0;
    if (const uint8_t e = eeprom_head(ext, len, 16, addr, count))
        return put_error(a.bytes, e);
    if (!password_ok(r, ext + 8))
        return put_error(a.bytes, E_WRONG_PASSWORD);
    if (addr > EEPROM_SIZE || count > EEPROM_SIZE - addr)
        return put_error(a.bytes, E_MAX_ADDRESS);
    std::memcpy(r.eeprom + addr, ext + 16, count);
    ok(a, f[1]);
}

void user_data(Reader &r, const uint8_t *f, const uint8_t *ext, size_t len, Answer &a)
{
    const bool extended = f[4] == 2;
    const size_t n = extended ? 32 : 16;
    if (f[1] == 0x1B) {
        uint8_t d[32];
        std::memcpy(d, r.eeprom + EE_USER_DATA, 16);
        std::memcpy(d + 16, r.user_data_ext, 16);
        return put_response(a.bytes, f[1], 0, 0, d, n);
    }
    if (len != n)
        return put_error(a.bytes, E_PARAMETERS);
    std::memcpy(r.eeprom + EE_USER_DATA, ext, 16);
    if (extended)
        std::memcpy(r.user_data_ext, ext + 16, 16);
    ok(a, f[1]);
}

// The asynchronous card id setup: flags in PAR0; EXT prefix, suffix, baud, and a checksum of its own over
// the flags and those six bytes.
void async_set(Reader &r, const uint8_t *f, const uint8_t *ext, size_t len, Answer &a)
{
    if (len != 7)
        return put_error(a.bytes, E_PARAMETERS);
    const uint8_t flags = f[4];
    uint8_t inner = flags;
    for (int i = 0; i < 6; ++i)
        inner ^= ext[i];
    if (static_cast<uint8_t>(inner + 7) != ext[6])
        return put_error(a.bytes, E_CHKSUM);
    r.set_async(flags, ext[0], ext[1], get_u32(ext + 2));
    r.async_json = f[5] == 1;
    ok(a, f[1], flags, f[5]);
}

// The read-back mirrors the setup: flags, prefix, suffix, baud and the inner checksum.
void async_get(Reader &r, const uint8_t *f, Answer &a)
{
    put_response(a.bytes, f[1], r.eeprom[EE_ASYNC], r.async_json ? 1 : 0, r.eeprom + EE_ASYNC, 8);
}

// Keeps what the key commands see in step with the key area of the EEPROM after a direct write there.
void keys_from_eeprom(Reader &r, uint32_t addr, uint32_t count)
{
    for (size_t i = 0; i < KEY_COUNT; ++i) {
        const size_t at = EE_KEYS + 6 * i;
        if (addr < at + 6 && at < addr + count)
            std::memcpy(r.keys[i], r.eeprom + at, 6);
    }
    // The speed record is read back by 0x4C only when its mark and complement hold.
    const uint8_t sp = r.eeprom[EE_SPEED];
    if (addr <= EE_SPEED + 1 && EE_SPEED < addr + count && (sp & 0xF0) == 0x50 &&
        r.eeprom[EE_SPEED + 1] == static_cast<uint8_t>(~sp)) {
        r.speed_par[0] = sp & 3;
        r.speed_par[1] = (sp >> 2) & 3;
    }
}

// The EE_ commands reach the EEPROM by plain addresses, without the top bit of 0x34 and 0x35.
void ee_read(Reader &r, const uint8_t *f, const uint8_t *ext, size_t len, Answer &a)
{
    if (len != 8)
        return put_error(a.bytes, E_PARAMETERS);
    const uint32_t addr = get_u32(ext), count = get_u32(ext + 4);
    if (count == 0 || count > 254)
        return put_error(a.bytes, E_MAX_SIZE);
    if (addr > EEPROM_SIZE || count > EEPROM_SIZE - addr)
        return put_error(a.bytes, E_MAX_ADDRESS);
    put_response(a.bytes, f[1], 0, 0, r.eeprom + addr, count);
}

void ee_write(Reader &r, const uint8_t *f, const uint8_t *ext, size_t len, Answer &a)
{
    if (len < 8)
        return put_error(a.bytes, E_PARAMETERS);
    const uint32_t addr = get_u32(ext), count = get_u32(ext + 4);
    if (count > 184)
        return put_error(a.bytes, E_MAX_SIZE);
    if (len != count + 8)
        return put_error(a.bytes, E_PARAMETERS);
    if (addr > EEPROM_SIZE || count > EEPROM_SIZE - addr)
        return put_error(a.bytes, E_MAX_ADDRESS);
    std::memcpy(r.eeprom + addr, ext + 8, count);
    keys_from_eeprom(r, addr, count);
    ok(a, f[1]);
}

// What the reader tells of its state: reader, card, emulation and sleep, one byte each.
void reader_state(const Reader &r, uint8_t out[4])
{
    out[0] = 0;                      // running
    out[1] = r.cards.empty() ? 0 : 1; // a card in the field
    out[2] = 0;                      // no emulation
    out[3] = 0;                      // awake
}

} // namespace

Reader::Reader()
{
    set_serial_desc("ZS000001");
    set_async(0, '!', '!', 1000000);
}

std::string Reader::serial_desc() const
{
    return std::string(reinterpret_cast<const char *>(eeprom + EE_SERIAL_DESC), 8);
}

void Reader::set_serial_desc(const std::string &s)
{
    std::memset(eeprom + EE_SERIAL_DESC, 0, 8);
    std::memcpy(eeprom + EE_SERIAL_DESC, s.data(), s.size() < 8 ? s.size() : 8);
}

void Reader::set_async(uint8_t flags, uint8_t prefix, uint8_t suffix, uint32_t b)
{
    uint8_t *p = eeprom + EE_ASYNC;
    p[0] = flags;
    p[1] = prefix;
    p[2] = suffix;
    put_u32(p + 3, b);
    uint8_t x = 0;
    for (int i = 0; i < 7; ++i)
        x ^= p[i];
    p[7] = static_cast<uint8_t>(x + 7);
}

bool reader_rate_known(uint32_t baud)
{
    for (uint32_t r : RATES)
        if (r == baud)
            return true;
    return false;
}

bool reader_wants_ext(const Reader &r, const uint8_t f[7])
{
    if (desfire_reader_wants_ext(r, f)) return true; // the reader's DESFire engine
    if (iso15693_reader_wants_ext(r, f)) return true; // the reader's ISO 15693 engine
    if (t2t_reader_wants_ext(r, f)) return true; // the reader's Type 2 extras engine
    switch (f[1]) {
    case 0x12: // key write
    case 0x1C: // user data write
    case 0x27: // keys lock
    case 0x28: // keys unlock
    case 0x32: // time set
    case 0x33: // password change
    case 0x34: // EEPROM read
    case 0x35: // EEPROM write
    case 0x36: // job id
    case 0x3D: // asynchronous card id setup
    case 0x3E: // its read-back, which some hosts send with an EXT of the same shape
    case 0x40: // serial description, set form
    case 0x65: // user interface setup
    case 0xE0: // EEPROM password change
    case 0xE1: // EEPROM lock
    case 0xE2: // EEPROM read by plain address
    case 0xE3: // EEPROM write by plain address
    case 0xFD: // bus admin card
    case 0xFE: // sector or block subscription
    case 0x43: // pro mode set
    case 0x70: // serial speed
        return true;
    default:
        return memory_wants_ext(r, f) || (!r.cards.empty() && r.cards.front()->wants_ext(f));
    }
}

void reader_command(Reader &r, const uint8_t f[7], const uint8_t *ext, size_t ext_len, Answer &a)
{
    const uint8_t cmd = f[1];
    // The EXT's data, without its checksum.
    const size_t len = ext && ext_len ? ext_len - 1 : 0;
    if (memory_command(r, f, ext, ext_len, a))
        return;
    switch (cmd) {
    case 0x10: { // reader type
        uint8_t d[4];
        put_u32(d, r.type);
        return put_response(a.bytes, cmd, 0, 0, d, 4);
    }
    case 0x11: { // serial number
        uint8_t d[4];
        put_u32(d, r.serial);
        return put_response(a.bytes, cmd, 0, 0, d, 4);
    }
    case 0x12: // one of the 32 reader keys
        if (len != 6)
            return put_error(a.bytes, E_PARAMETERS);
        if (f[4] >= KEY_COUNT)
            return put_error(a.bytes, E_MAX_KEY_INDEX);
        if (r.keys_locked)
            return put_error(a.bytes, E_KEYS_LOCKED);
        std::memcpy(r.keys[f[4]], ext, 6);
        std::memcpy(r.eeprom + EE_KEYS + 6 * f[4], ext, 6);
        return ok(a, cmd);
    case 0x13:
        return card_id(r, f, a);
    case 0x1B:
    case 0x1C:
        return user_data(r, f, ext, len, a);
    case 0x27:
    case 0x28:
        if (len != 8)
            return put_error(a.bytes, E_PARAMETERS);
        if (!password_ok(r, ext))
            return put_error(a.bytes, E_WRONG_PASSWORD);
        r.keys_locked = cmd == 0x27;
        return ok(a, cmd);
    case 0x29: // firmware version
        return ok(a, cmd, r.fw_major, r.fw_minor);
    case 0x2A: // hardware version with the pair 11 22; any other form is the presence test
        if (f[4] == 0x11 && f[5] == 0x22)
            return ok(a, cmd, r.hw_type, r.hw_ver);
        return ok(a, cmd);
    case 0x2B:
        return ok(a, cmd, r.build);
    case 0x2C: {
        const zsim_card *c = card_in_field(r);
        if (!c)
            return put_error(a.bytes, E_NO_CARD);
        return card_id_ex(c, cmd, a);
    }
    case 0x30: // soft restart: answer, then boot
        a.restart = true;
        return ok(a, cmd);
    case 0x31:
        return put_response(a.bytes, cmd, 0, 0, r.time, 6);
    case 0x32:
        if (len != 14)
            return put_error(a.bytes, E_PARAMETERS);
        if (!password_ok(r, ext))
            return put_error(a.bytes, E_WRONG_PASSWORD);
        std::memcpy(r.time, ext + 8, 6);
        return ok(a, cmd);
    case 0x33:
        if (len != 16)
            return put_error(a.bytes, E_PARAMETERS);
        if (!password_ok(r, ext))
            return put_error(a.bytes, E_WRONG_PASSWORD);
        std::memcpy(r.password, ext + 8, 8);
        return ok(a, cmd);
    case 0x34:
        return eeprom_read(r, f, ext, len, a);
    case 0x35:
        return eeprom_write(r, f, ext, len, a);
    case 0x36: // job id: u16, then the password
        if (len != 10)
            return put_error(a.bytes, E_PARAMETERS);
        if (!password_ok(r, ext + 2))
            return put_error(a.bytes, E_WRONG_PASSWORD);
        std::memcpy(r.eeprom + EE_JOB_ID, ext, 2);
        return ok(a, cmd);
    case 0x3C: {
        const zsim_card *c = card_in_field(r);
        if (!c)
            return put_error(a.bytes, E_NO_CARD);
        return ok(a, cmd, c->orb_type);
    }
    case 0x3D:
        return async_set(r, f, ext, len, a);
    case 0x3E:
        return async_get(r, f, a);
    case 0x40: {
        if (!ext) {
            const std::string sd = r.serial_desc();
            return put_response(a.bytes, cmd, 0, 0, reinterpret_cast<const uint8_t *>(sd.data()), 8);
        }
        // The set form: the password, then the 8 characters.
        if (len != 16)
            return put_error(a.bytes, E_PARAMETERS);
        if (!password_ok(r, ext))
            return put_error(a.bytes, E_WRONG_PASSWORD);
        std::memcpy(r.eeprom + EE_SERIAL_DESC, ext + 8, 8);
        return ok(a, cmd);
    }
    case 0x42:
        return put_response(a.bytes, cmd, r.eeprom[EE_PRO_MODE], r.eeprom[EE_PRO_MODE + 1], r.eeprom + EE_PRO_MODE, 2);
    case 0x43: // pro mode: u32, of which the reader keeps the low 16 bits
        if (len != 8)
            return put_error(a.bytes, E_PARAMETERS);
        std::memcpy(r.eeprom + EE_PRO_MODE, ext, 2);
        return ok(a, cmd);
    case 0x4B: // speed kept for the next start: two 2-bit values, marked and with their complement
        if (f[4] > 3 || f[5] > 3)
            return put_error(a.bytes, E_PARAMETERS);
        r.speed_par[0] = f[4];
        r.speed_par[1] = f[5];
        r.eeprom[EE_SPEED] = static_cast<uint8_t>(0x50 | (f[5] << 2) | f[4]);
        r.eeprom[EE_SPEED + 1] = static_cast<uint8_t>(~r.eeprom[EE_SPEED]);
        return ok(a, cmd);
    case 0x4C:
        return ok(a, cmd, r.speed_par[0], r.speed_par[1]);
    case 0x65: // the user interface setup, 7 bytes
        if (len != 7)
            return put_error(a.bytes, E_PARAMETERS);
        std::memcpy(r.custom_ui, ext, 7);
        return ok(a, cmd);
    case 0x66:
        return put_response(a.bytes, cmd, 0, 0, r.custom_ui, 7);
    case 0x70: { // the new rate takes effect at once: nothing is answered at the old one
        if (len != 4)
            return put_error(a.bytes, E_PARAMETERS);
        const uint32_t b = get_u32(ext);
        if (!reader_rate_known(b))
            return put_error(a.bytes, E_PARAMETERS);
        a.new_baud = b;
        return;
    }
    case 0x7C:
        if (!r.have_last_card)
            return put_error(a.bytes, E_NO_CARD);
        return card_id_ex(&r.last_card, cmd, a);
    case 0xE0: // password change by the EEPROM commands: old, then new
        if (len != 16)
            return put_error(a.bytes, E_PARAMETERS);
        if (!password_ok(r, ext))
            return put_error(a.bytes, E_WRONG_PASSWORD);
        std::memcpy(r.password, ext + 8, 8);
        return ok(a, cmd);
    case 0xE1: // key lock by the EEPROM commands: 1 locks, 0 unlocks; the password after it
        if (len != 9 || ext[0] > 1)
            return put_error(a.bytes, E_PARAMETERS);
        if (!password_ok(r, ext + 1))
            return put_error(a.bytes, E_WRONG_PASSWORD);
        r.keys_locked = ext[0] == 1;
        return ok(a, cmd);
    case 0xE2:
        return ee_read(r, f, ext, len, a);
    case 0xE3:
        if (r.keys_locked && len >= 8 && get_u32(ext) < EE_KEYS + 6 * KEY_COUNT &&
            get_u32(ext) + get_u32(ext + 4) > EE_KEYS)
            return put_error(a.bytes, E_KEYS_LOCKED); // the key area is closed while the keys are locked
        return ee_write(r, f, ext, len, a);
    case 0xE4: // can the card's UID be changed: a plain card's cannot
        if (!card_in_field(r))
            return put_error(a.bytes, E_NO_CARD);
        if (r.cards.front()->command(f, ext, ext_len, a.bytes))
            return;
        return put_error(a.bytes, E_NOT_SUPPORTED);
    case 0xE5: // the RF field off and on again
        return ok(a, cmd, f[4]);
    case 0xE6: {
        uint8_t st[5];
        reader_state(r, st + 1);
        if (f[4] == 1) { // the long form: a count, then the state bytes
            st[0] = 4;
            return put_response(a.bytes, cmd, 0, 0, st, 5);
        }
        return put_response(a.bytes, cmd, 0, 0, st + 1, 4);
    }
    case 0xF0:
    case 0xF1:
        return parameters(r, f, a);
    case 0xF9: // a plain reader has no network module in front of it
        return put_error(a.bytes, E_NOT_SUPPORTED);
    case 0xFD: // a bus admin card: password, then three bytes of the value
        if (len != 11)
            return put_error(a.bytes, E_PARAMETERS);
        if (!password_ok(r, ext))
            return put_error(a.bytes, E_WRONG_PASSWORD);
        return ok(a, cmd);
    case 0xFE: // subscription of a sector (PAR0 2) or block (PAR0 1), index in PAR1, a u32 value
        if (len != 4 || (f[4] != 1 && f[4] != 2))
            return put_error(a.bytes, E_PARAMETERS);
        return ok(a, cmd, f[4], f[5]);
    default:
        if (desfire_reader_command(r, f, ext, ext_len, a)) return; // the reader's DESFire engine
        if (iso15693_reader_command(r, f, ext, ext_len, a)) return; // the reader's ISO 15693 engine
        if (t2t_reader_command(r, f, ext, ext_len, a)) return; // the reader's Type 2 extras engine
        if (iso14443_reader_command(r, f, a))
            return;
        if (!r.cards.empty() && r.cards.front()->command(f, ext, ext_len, a.bytes))
            return;
        return put_error(a.bytes, E_NOT_SUPPORTED);
    }
}

namespace {

std::vector<uint8_t> uid_text(const Reader &r, const zsim_card &c)
{
    const uint8_t flags = r.async_flags();
    uint8_t uid[10];
    const size_t n = c.uid_len > 10 ? 10 : c.uid_len;
    for (size_t i = 0; i < n; ++i)
        uid[i] = (flags & ASYNC_REVERSE) ? c.uid[n - 1 - i] : c.uid[i];
    char text[32] = {};
    if (flags & ASYNC_DECIMAL) {
        // The UID as one big-endian number, in decimal; at most its last 8 bytes fit.
        uint64_t v = 0;
        for (size_t i = n > 8 ? n - 8 : 0; i < n; ++i)
            v = v << 8 | uid[i];
        std::snprintf(text, sizeof text, "%llu", static_cast<unsigned long long>(v));
    } else {
        for (size_t i = 0; i < n; ++i)
            std::snprintf(text + 2 * i, 3, "%02X", uid[i]);
    }
    return std::vector<uint8_t>(text, text + std::strlen(text));
}

} // namespace

std::vector<uint8_t> reader_push_arrival(const Reader &r, const zsim_card &c)
{
    std::vector<uint8_t> out;
    const uint8_t flags = r.async_flags();
    if (!(flags & ASYNC_SEND))
        return out;
    const std::vector<uint8_t> text = uid_text(r, c);
    if (r.async_json) {
        const char *head = "{\"uid\":\"";
        out.insert(out.end(), head, head + std::strlen(head));
        out.insert(out.end(), text.begin(), text.end());
        out.push_back('"');
        out.push_back('}');
        return out;
    }
    if (flags & ASYNC_PREFIX)
        out.push_back(r.eeprom[EE_ASYNC + 1]);
    out.insert(out.end(), text.begin(), text.end());
    out.push_back(r.eeprom[EE_ASYNC + 2]);
    return out;
}

std::vector<uint8_t> reader_push_removal(const Reader &r)
{
    std::vector<uint8_t> out;
    const uint8_t flags = r.async_flags();
    if (!(flags & ASYNC_SEND) || !(flags & ASYNC_REMOVAL))
        return out;
    if (r.async_json) {
        const char *t = "{\"uid\":\"\"}";
        return std::vector<uint8_t>(t, t + std::strlen(t));
    }
    if (flags & ASYNC_PREFIX)
        out.push_back(r.eeprom[EE_ASYNC + 1]);
    out.push_back(r.eeprom[EE_ASYNC + 2]);
    return out;
}

} // namespace zs
