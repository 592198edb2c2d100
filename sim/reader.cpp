#include "reader.h"

#include <cstdio>
#include <cstring>
#include <iterator>

#include "iso7816.h"
#include "desfire.h"
#include "iso15693.h"
#include "mfp.h"
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

void ok(Answer &a, uint8_t cmd, uint8_t p0 = 0, uint8_t p1 = 0)
{
    put_response(a.bytes, cmd, p0, p1);
}

bool password_ok(const Reader &r, const uint8_t *pw)
{
    return std::memcmp(r.password, pw, 8) == 0;
}

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
    emulation_eeprom_written(r, addr, count);
    ok(a, f[1]);
}

// What the reader tells of its state: reader, card, emulation and sleep, one byte each.
void reader_state(const Reader &r, uint8_t out[4])
{
    out[0] = 0;                       // running
    out[1] = r.cards.empty() ? 0 : 1; // a card in the field
    out[2] = 0;                       // no emulation
    out[3] = 0;                       // awake
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

namespace {

// One command frame on its way to a handler: the frame, its EXT (null when none) with the checksum, and the
// EXT's data length without it.
struct Request {
    const uint8_t *f;
    const uint8_t *ext;
    size_t ext_len;
    size_t len;
};

// A command the reader answers itself: its code, whether it takes an EXT, and its handler.
struct OwnCommand {
    uint8_t code;
    bool takes_ext;
    void (*run)(Reader &r, const Request &q, Answer &a);
};

// ---- Identity and the card in the field ----

void reader_type(Reader &r, const Request &q, Answer &a)
{
    uint8_t d[4];
    put_u32(d, r.type);
    put_response(a.bytes, q.f[1], 0, 0, d, 4);
}

void serial_number(Reader &r, const Request &q, Answer &a)
{
    uint8_t d[4];
    put_u32(d, r.serial);
    put_response(a.bytes, q.f[1], 0, 0, d, 4);
}

// Hardware version with the pair 11 22; any other form is the presence test.
void hardware_version(Reader &r, const Request &q, Answer &a)
{
    if (q.f[4] == 0x11 && q.f[5] == 0x22)
        return ok(a, q.f[1], r.hw_type, r.hw_ver);
    ok(a, q.f[1]);
}

void card_id_ex_now(Reader &r, const Request &q, Answer &a)
{
    const zsim_card *c = card_in_field(r);
    if (!c)
        return put_error(a.bytes, E_NO_CARD);
    card_id_ex(c, q.f[1], a);
}

void card_type(Reader &r, const Request &q, Answer &a)
{
    const zsim_card *c = card_in_field(r);
    if (!c)
        return put_error(a.bytes, E_NO_CARD);
    ok(a, q.f[1], r.cards.front()->orb_type());
}

void last_card_id(Reader &r, const Request &q, Answer &a)
{
    if (!r.have_last_card)
        return put_error(a.bytes, E_NO_CARD);
    card_id_ex(&r.last_card, q.f[1], a);
}

// Can the card's UID be changed: a plain card's cannot.
void uid_changeable(Reader &r, const Request &q, Answer &a)
{
    if (!card_in_field(r))
        return put_error(a.bytes, E_NO_CARD);
    if (r.cards.front()->command(q.f, q.ext, q.ext_len, a.bytes))
        return;
    put_error(a.bytes, E_NOT_SUPPORTED);
}

const OwnCommand kIdentity[] = {
    {0x10, false, reader_type},
    {0x11, false, serial_number},
    {0x13, false, [](Reader &r, const Request &q, Answer &a) { card_id(r, q.f, a); }},
    {0x29, false, [](Reader &r, const Request &q, Answer &a) { ok(a, q.f[1], r.fw_major, r.fw_minor); }},
    {0x2A, false, hardware_version},
    {0x2B, false, [](Reader &r, const Request &q, Answer &a) { ok(a, q.f[1], r.build); }},
    {0x2C, false, card_id_ex_now},
    {0x3C, false, card_type},
    {0x7C, false, last_card_id},
    {0xE4, false, uid_changeable},
    {0xF0, false, [](Reader &r, const Request &q, Answer &a) { parameters(r, q.f, a); }},
    {0xF1, false, [](Reader &r, const Request &q, Answer &a) { parameters(r, q.f, a); }},
    // A plain reader has no network module in front of it.
    {0xF9, false, [](Reader &, const Request &, Answer &a) { put_error(a.bytes, E_NOT_SUPPORTED); }},
};

// ---- Keys, passwords and locks ----

// One of the 32 reader keys.
void key_write(Reader &r, const Request &q, Answer &a)
{
    if (q.len != 6)
        return put_error(a.bytes, E_PARAMETERS);
    if (q.f[4] >= KEY_COUNT)
        return put_error(a.bytes, E_MAX_KEY_INDEX);
    if (r.keys_locked)
        return put_error(a.bytes, E_KEYS_LOCKED);
    std::memcpy(r.keys[q.f[4]], q.ext, 6);
    std::memcpy(r.eeprom + EE_KEYS + 6 * q.f[4], q.ext, 6);
    ok(a, q.f[1]);
}

// Whether the EXT holds exactly len bytes with the password at pw_at; else the error is answered.
bool password_passes(const Reader &r, const Request &q, Answer &a, size_t len, size_t pw_at)
{
    if (q.len != len) {
        put_error(a.bytes, E_PARAMETERS);
        return false;
    }
    if (!password_ok(r, q.ext + pw_at)) {
        put_error(a.bytes, E_WRONG_PASSWORD);
        return false;
    }
    return true;
}

// Keys lock (0x27) and unlock (0x28), by the password.
void keys_lock(Reader &r, const Request &q, Answer &a)
{
    if (!password_passes(r, q, a, 8, 0))
        return;
    r.keys_locked = q.f[1] == 0x27;
    ok(a, q.f[1]);
}

// A write the password guards: the EXT is the password, then exactly n bytes for to.
void password_write(Reader &r, const Request &q, Answer &a, uint8_t *to, size_t n)
{
    if (!password_passes(r, q, a, 8 + n, 0))
        return;
    std::memcpy(to, q.ext + 8, n);
    ok(a, q.f[1]);
}

// Password change (0x33, and 0xE0 by the EEPROM commands): old, then new.
void password_change(Reader &r, const Request &q, Answer &a)
{
    password_write(r, q, a, r.password, 8);
}

// Key lock by the EEPROM commands: 1 locks, 0 unlocks; the password after it.
void ee_keys_lock(Reader &r, const Request &q, Answer &a)
{
    if (q.len == 9 && q.ext[0] > 1)
        return put_error(a.bytes, E_PARAMETERS);
    if (!password_passes(r, q, a, 9, 1))
        return;
    r.keys_locked = q.ext[0] == 1;
    ok(a, q.f[1]);
}

// Job id: u16, then the password.
void job_id(Reader &r, const Request &q, Answer &a)
{
    if (!password_passes(r, q, a, 10, 2))
        return;
    std::memcpy(r.eeprom + EE_JOB_ID, q.ext, 2);
    ok(a, q.f[1]);
}

// A bus admin card: password, then three bytes of the value.
void bus_admin(Reader &r, const Request &q, Answer &a)
{
    if (!password_passes(r, q, a, 11, 0))
        return;
    ok(a, q.f[1]);
}

const OwnCommand kKeys[] = {
    {0x12, true, key_write},       {0x27, true, keys_lock},    {0x28, true, keys_lock}, {0x33, true, password_change},
    {0xE0, true, password_change}, {0xE1, true, ee_keys_lock}, {0x36, true, job_id},    {0xFD, true, bus_admin},
};

// ---- EEPROM, user data and settings kept there ----

// The EEPROM write by plain address; the key area is closed while the keys are locked.
void ee_write_unlocked(Reader &r, const Request &q, Answer &a)
{
    if (r.keys_locked && q.len >= 8 && get_u32(q.ext) < EE_KEYS + 6 * KEY_COUNT &&
        get_u32(q.ext) + get_u32(q.ext + 4) > EE_KEYS)
        return put_error(a.bytes, E_KEYS_LOCKED);
    ee_write(r, q.f, q.ext, q.len, a);
}

// The serial description: read without an EXT; the set form is the password, then the 8 characters.
void serial_description(Reader &r, const Request &q, Answer &a)
{
    if (!q.ext) {
        const std::string sd = r.serial_desc();
        return put_response(a.bytes, q.f[1], 0, 0, reinterpret_cast<const uint8_t *>(sd.data()), 8);
    }
    password_write(r, q, a, r.eeprom + EE_SERIAL_DESC, 8);
}

// Pro mode: u32, of which the reader keeps the low 16 bits.
void pro_mode_set(Reader &r, const Request &q, Answer &a)
{
    if (q.len != 8)
        return put_error(a.bytes, E_PARAMETERS);
    std::memcpy(r.eeprom + EE_PRO_MODE, q.ext, 2);
    ok(a, q.f[1]);
}

// The user interface setup, 7 bytes.
void ui_setup(Reader &r, const Request &q, Answer &a)
{
    if (q.len != 7)
        return put_error(a.bytes, E_PARAMETERS);
    std::memcpy(r.custom_ui, q.ext, 7);
    ok(a, q.f[1]);
}

const OwnCommand kStorage[] = {
    {0x1B, false, [](Reader &r, const Request &q, Answer &a) { user_data(r, q.f, q.ext, q.len, a); }},
    {0x1C, true, [](Reader &r, const Request &q, Answer &a) { user_data(r, q.f, q.ext, q.len, a); }},
    {0x34, true, [](Reader &r, const Request &q, Answer &a) { eeprom_read(r, q.f, q.ext, q.len, a); }},
    {0x35, true, [](Reader &r, const Request &q, Answer &a) { eeprom_write(r, q.f, q.ext, q.len, a); }},
    {0xE2, true, [](Reader &r, const Request &q, Answer &a) { ee_read(r, q.f, q.ext, q.len, a); }},
    {0xE3, true, ee_write_unlocked},
    {0x3D, true, [](Reader &r, const Request &q, Answer &a) { async_set(r, q.f, q.ext, q.len, a); }},
    // The read-back, which some hosts send with an EXT of the same shape.
    {0x3E, true, [](Reader &r, const Request &q, Answer &a) { async_get(r, q.f, a); }},
    {0x40, true, serial_description},
    {0x42, false,
     [](Reader &r, const Request &q, Answer &a) {
         put_response(a.bytes, q.f[1], r.eeprom[EE_PRO_MODE], r.eeprom[EE_PRO_MODE + 1], r.eeprom + EE_PRO_MODE, 2);
     }},
    {0x43, true, pro_mode_set},
    {0x65, true, ui_setup},
    {0x66, false, [](Reader &r, const Request &q, Answer &a) { put_response(a.bytes, q.f[1], 0, 0, r.custom_ui, 7); }},
};

// ---- Time, speed, restart and state ----

// Time set: the password, then the 6 time bytes.
void time_set(Reader &r, const Request &q, Answer &a)
{
    password_write(r, q, a, r.time, 6);
}

// Speed kept for the next start: two 2-bit values, marked and with their complement.
void speed_set(Reader &r, const Request &q, Answer &a)
{
    const uint8_t *f = q.f;
    if (f[4] > 3 || f[5] > 3)
        return put_error(a.bytes, E_PARAMETERS);
    r.speed_par[0] = f[4];
    r.speed_par[1] = f[5];
    r.eeprom[EE_SPEED] = static_cast<uint8_t>(0x50 | (f[5] << 2) | f[4]);
    r.eeprom[EE_SPEED + 1] = static_cast<uint8_t>(~r.eeprom[EE_SPEED]);
    ok(a, f[1]);
}

// Serial speed: the new rate takes effect at once, so nothing is answered at the old one.
void serial_speed(Reader &, const Request &q, Answer &a)
{
    if (q.len != 4)
        return put_error(a.bytes, E_PARAMETERS);
    const uint32_t b = get_u32(q.ext);
    if (!reader_rate_known(b))
        return put_error(a.bytes, E_PARAMETERS);
    a.new_baud = b;
}

void state(Reader &r, const Request &q, Answer &a)
{
    uint8_t st[5];
    reader_state(r, st + 1);
    if (q.f[4] == 1) { // the long form: a count, then the state bytes
        st[0] = 4;
        return put_response(a.bytes, q.f[1], 0, 0, st, 5);
    }
    put_response(a.bytes, q.f[1], 0, 0, st + 1, 4);
}

// Subscription of a sector (PAR0 2) or block (PAR0 1), index in PAR1, a u32 value.
void subscription(Reader &, const Request &q, Answer &a)
{
    if (q.len != 4 || (q.f[4] != 1 && q.f[4] != 2))
        return put_error(a.bytes, E_PARAMETERS);
    ok(a, q.f[1], q.f[4], q.f[5]);
}

const OwnCommand kControl[] = {
    // Soft restart: answer, then boot.
    {0x30, false,
     [](Reader &, const Request &q, Answer &a) {
         a.restart = true;
         ok(a, q.f[1]);
     }},
    {0x31, false, [](Reader &r, const Request &q, Answer &a) { put_response(a.bytes, q.f[1], 0, 0, r.time, 6); }},
    {0x32, true, time_set},
    {0x4B, false, speed_set},
    {0x4C, false, [](Reader &r, const Request &q, Answer &a) { ok(a, q.f[1], r.speed_par[0], r.speed_par[1]); }},
    {0x70, true, serial_speed},
    // The RF field off and on again.
    {0xE5, false, [](Reader &, const Request &q, Answer &a) { ok(a, q.f[1], q.f[4]); }},
    {0xE6, false, state},
    {0xFE, true, subscription},
};

const OwnCommand *own_command(uint8_t code)
{
    struct Group {
        const OwnCommand *begin, *end;
    };
    static const Group groups[] = {{std::begin(kIdentity), std::end(kIdentity)},
                                   {std::begin(kKeys), std::end(kKeys)},
                                   {std::begin(kStorage), std::end(kStorage)},
                                   {std::begin(kControl), std::end(kControl)}};
    for (const Group &g : groups)
        for (const OwnCommand *c = g.begin; c != g.end; ++c)
            if (c->code == code)
                return c;
    return nullptr;
}

// ---- The engines ----

bool own_wants_ext(const Reader &, const uint8_t f[7])
{
    const OwnCommand *c = own_command(f[1]);
    return c && c->takes_ext;
}

bool own_commands(Reader &r, const uint8_t f[7], const uint8_t *ext, size_t ext_len, Answer &a)
{
    const OwnCommand *c = own_command(f[1]);
    if (!c)
        return false;
    c->run(r, Request{f, ext, ext_len, ext && ext_len ? ext_len - 1 : 0}, a);
    return true;
}

bool iso14443_engine(Reader &r, const uint8_t f[7], const uint8_t *, size_t, Answer &a)
{
    return iso14443_reader_command(r, f, a);
}

bool card_wants_ext(const Reader &r, const uint8_t f[7])
{
    return !r.cards.empty() && r.cards.front()->wants_ext(f);
}

bool card_command(Reader &r, const uint8_t f[7], const uint8_t *ext, size_t ext_len, Answer &a)
{
    return !r.cards.empty() && r.cards.front()->command(f, ext, ext_len, a.bytes);
}

// The parts of the reader a command is offered to, in this order, until one takes it: the memory card
// commands and multi-card mode, the reader's own commands, its DESFire, ISO 15693, Type 2 extras and
// ISO 14443-4 engines, and last the card in the field itself. wants_ext is null for a part that never takes
// an EXT of its own.
struct Engine {
    const char *name;
    bool (*wants_ext)(const Reader &r, const uint8_t f[7]);
    bool (*command)(Reader &r, const uint8_t f[7], const uint8_t *ext, size_t ext_len, Answer &a);
};

const Engine kEngines[] = {
    {"esp", esp_wants_ext, esp_command},
    {"memory", memory_wants_ext, memory_command},
    {"module", module_wants_ext, module_command},
    {"emulation", emulation_wants_ext, emulation_command},
    {"reader", own_wants_ext, own_commands},
    {"outputs", outputs_wants_ext, outputs_command},
    {"records", records_wants_ext, records_command},
    {"desfire", desfire_reader_wants_ext, desfire_reader_command},
    {"mfp", mfp_reader_wants_ext, mfp_reader_command},
    {"iso15693", iso15693_reader_wants_ext, iso15693_reader_command},
    {"t2t", t2t_reader_wants_ext, t2t_reader_command},
    {"iso14443_4", nullptr, iso14443_engine},
    {"card", card_wants_ext, card_command},
};

} // namespace

namespace {

// Behind a network module a command may meet another identity than the reader's: it stands in the reader's
// place for the one command.
struct IdentityInPlace {
    Reader &r;
    EspModule *id;
    IdentityInPlace(Reader &reader, const uint8_t f[7]) : r(reader), id(esp_identity_for(reader, f))
    {
        if (id)
            esp_swap_identity(r, *id);
    }
    ~IdentityInPlace()
    {
        if (id)
            esp_swap_identity(r, *id);
    }
    IdentityInPlace(const IdentityInPlace &) = delete;
    IdentityInPlace &operator=(const IdentityInPlace &) = delete;
};

} // namespace

bool reader_wants_ext(const Reader &r, const uint8_t f[7])
{
    // The swap is undone before the return: the reader is as it was.
    IdentityInPlace in_place(const_cast<Reader &>(r), f);
    for (const Engine &e : kEngines)
        if (e.wants_ext && e.wants_ext(r, f))
            return true;
    return false;
}

void reader_command(Reader &r, const uint8_t f[7], const uint8_t *ext, size_t ext_len, Answer &a)
{
    IdentityInPlace in_place(r, f);
    for (const Engine &e : kEngines)
        if (e.command(r, f, ext, ext_len, a))
            return;
    put_error(a.bytes, E_NOT_SUPPORTED);
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
