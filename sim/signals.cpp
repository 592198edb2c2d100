// The reader's outputs, power, RF tuning, secure element and feature blocks, from the reader's side.
#include "signals.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "reader.h"
#include "wire.h"

namespace zs {

namespace {

constexpr uint8_t CHECK_XOR = 163;
constexpr uint8_t RGB_MARK = 0xC5;

// Secure element subcommands and its lock bytes (0x55 open, 0x00 locked).
constexpr uint8_t SE_CONFIG = 0x80, SE_OTP = 0x81, SE_LOCK_CONFIG = 0x82, SE_LOCK_DATA = 0x83, SE_KEY_PLAIN = 0x85,
                  SE_IO_KEY = 0x86, SE_KEY_WRAPPED = 0x87, SE_DEFAULT_SLOTS = 0x88, SE_DEFAULT_KEYS = 0x89,
                  SE_INFO = 0x8A;
constexpr size_t SE_LOCK_VALUE = 86, SE_LOCK_CONFIG_AT = 87, SE_SLOT_LOCKED = 88, SE_SLOT_CONFIG = 20,
                 SE_KEY_CONFIG = 96, SE_WRITABLE_FROM = 16;
constexpr uint8_t SE_OPEN = 0x55, SE_LOCKED = 0x00;

constexpr uint8_t FEATURE_DISCOVERY = 129, FEATURE_MOBILE_AID = 130;

struct Request {
    const uint8_t *f;
    const uint8_t *ext; // null without EXT
    size_t len;         // EXT data bytes, without the checksum
};

Outputs &out(Reader &r)
{
    return r.outputs;
}

void note(Reader &r, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void note(Reader &r, const char *fmt, ...)
{
    char line[160];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    r.outputs.log.emplace_back(line);
}

void ok(Answer &a, uint8_t cmd, uint8_t p0 = 0, uint8_t p1 = 0)
{
    put_response(a.bytes, cmd, p0, p1);
}

uint16_t u16(const uint8_t *p)
{
    return static_cast<uint16_t>(p[0] | p[1] << 8);
}

std::string hex(const uint8_t *p, size_t n)
{
    std::string s;
    char b[3];
    for (size_t i = 0; i < n; ++i) {
        std::snprintf(b, sizeof b, "%02X", p[i]);
        s += b;
    }
    return s;
}

// ---- Sound, light, display and speaker ----

// 0x26: the light and sound modes in PAR0 and PAR1, or with PAR1 6 and an EXT a sound of a length.
void ui(Reader &r, const Request &q, Answer &a)
{
    if (q.ext) {
        if (q.f[5] != 6 || q.len != 2)
            return put_error(a.bytes, E_PARAMETERS);
        out(r).sound_ms = u16(q.ext);
        note(r, "sound %u", out(r).sound_ms);
        return ok(a, q.f[1]);
    }
    out(r).ui_light = q.f[4];
    out(r).ui_sound = q.f[5];
    note(r, "signal light %u sound %u", q.f[4], q.f[5]);
    ok(a, q.f[1]);
}

// 0x71: the red light (PAR1 0), the external light (PAR1 equal to PAR0), or the RGB light by its EXT: 4 bytes
// colour and intensity, 7 with a mode and a time (the sleep form), 9 with a value, a time and a mode (RF).
void light(Reader &r, const Request &q, Answer &a)
{
    Outputs &o = out(r);
    const uint8_t *f = q.f;
    if (!q.ext) {
        if (f[5] == 0) {
            o.red_light = f[4];
            note(r, "red light %u", f[4]);
        } else if (f[5] == f[4]) {
            o.ext_light = f[4];
            note(r, "external light %u", f[4]);
        } else {
            return put_error(a.bytes, E_PARAMETERS);
        }
        return ok(a, f[1]);
    }
    if (f[5] != (f[4] ? RGB_MARK : 0) || (q.len != 4 && q.len != 7 && q.len != 9))
        return put_error(a.bytes, E_PARAMETERS);
    const uint8_t *e = q.ext;
    uint16_t time = 0;
    if (q.len == 7)
        time = u16(e + 5);
    else if (q.len == 9)
        time = u16(e + 6);
    if (time > 2000)
        return put_error(a.bytes, E_PARAMETERS);
    o.rgb_form = q.len == 4 ? 0 : q.len == 7 ? 1 : 2;
    std::memcpy(o.rgb, e, 3);
    o.rgb_intensity = e[3];
    o.rgb_enable = f[4];
    o.rgb_time = time;
    o.rgb_mode = q.len == 7 ? e[4] : q.len == 9 ? e[8] : 0;
    o.rgb_rf = q.len == 9 ? u16(e + 4) : 0;
    note(r, "rgb %02X%02X%02X intensity %u %s form %u time %u", e[0], e[1], e[2], e[3], f[4] ? "on" : "off", o.rgb_form,
         time);
    ok(a, f[1]);
}

// 0x72: PAR0 the length, which the EXT must carry; PAR1 an option.
void display(Reader &r, const Request &q, Answer &a)
{
    if (q.len != q.f[4] || q.len == 0)
        return put_error(a.bytes, E_PARAMETERS);
    out(r).display.assign(q.ext, q.ext + q.len);
    out(r).display_option = q.f[5];
    note(r, "display %s option %u", hex(q.ext, q.len).c_str(), q.f[5]);
    ok(a, q.f[1]);
}

// 0x73: the divider, low then high byte; 0xFFFF silences the speaker.
void speaker(Reader &r, const Request &q, Answer &a)
{
    out(r).speaker_divider = u16(q.f + 4);
    note(r, "speaker divider %u", out(r).speaker_divider);
    ok(a, q.f[1]);
}

void intensity_set(Reader &r, const Request &q, Answer &a)
{
    r.eeprom[EE_DISPLAY_INTENSITY] = q.f[4];
    r.eeprom[EE_DISPLAY_INTENSITY + 1] = static_cast<uint8_t>(q.f[4] ^ CHECK_XOR);
    note(r, "display intensity %u", q.f[4]);
    ok(a, q.f[1]);
}

// The intensity as kept; a pair that does not hold reads as the factory value 100.
void intensity_get(Reader &r, const Request &q, Answer &a)
{
    const uint8_t v = r.eeprom[EE_DISPLAY_INTENSITY];
    ok(a, q.f[1], r.eeprom[EE_DISPLAY_INTENSITY + 1] == static_cast<uint8_t>(v ^ CHECK_XOR) ? v : 100);
}

// 0x6E: PAR0 1 or 0 the green LED blinking; PAR0 2 with PAR1 1 or 2 the internal RGB LEDs on or off.
void leds(Reader &r, const Request &q, Answer &a)
{
    const uint8_t p0 = q.f[4], p1 = q.f[5];
    if (p0 <= 1) {
        uint8_t *g = r.eeprom + EE_GREEN_LED;
        g[0] = p0;
        g[1] = static_cast<uint8_t>(p0 ^ CHECK_XOR);
        g[2] = 0;
        note(r, "green led blinking %s", p0 ? "on" : "off");
        return ok(a, q.f[1]);
    }
    if (p0 != 2 || (p1 != 1 && p1 != 2))
        return put_error(a.bytes, E_PARAMETERS);
    out(r).rgb_internal = p1 == 1;
    note(r, "internal rgb %s", p1 == 1 ? "on" : "off");
    ok(a, q.f[1]);
}

// ---- Power and the bad-select count ----

void sleep_enter(Reader &r, const Request &q, Answer &a)
{
    out(r).sleeping = true;
    note(r, "sleep");
    ok(a, q.f[1]);
}

void sleep_leave(Reader &r, const Request &q, Answer &a)
{
    out(r).sleeping = false;
    note(r, "awake");
    ok(a, q.f[1]);
}

void auto_sleep_set(Reader &r, const Request &q, Answer &a)
{
    r.eeprom[EE_AUTO_SLEEP] = q.f[4];
    note(r, "auto sleep %u", q.f[4]);
    ok(a, q.f[1]);
}

// 0x3F: the value and its guard, (value XOR 0xA3) + 7.
void bad_select_set(Reader &r, const Request &q, Answer &a)
{
    if (q.f[5] != static_cast<uint8_t>((q.f[4] ^ 0xA3) + 7))
        return put_error(a.bytes, E_PARAMETERS);
    out(r).bad_select = q.f[4];
    note(r, "bad select %u", q.f[4]);
    ok(a, q.f[1]);
}

// ---- The door controller ----

void lock_on(Reader &r, const Request &q, Answer &a)
{
    out(r).lock_on = u16(q.f + 4);
    note(r, "lock on %u", out(r).lock_on);
    ok(a, q.f[1]);
}

// 0x61: the relay by PAR0, or with PAR1 1 and an EXT of four outputs, 0, an option, 0.
void outputs(Reader &r, const Request &q, Answer &a)
{
    Outputs &o = out(r);
    if (!q.ext) {
        o.relay = q.f[4];
        note(r, "relay %u", q.f[4]);
        return ok(a, q.f[1]);
    }
    if (q.f[5] != 1 || q.len != 7)
        return put_error(a.bytes, E_PARAMETERS);
    std::memcpy(o.outs, q.ext, 4);
    o.out_option = q.ext[5];
    note(r, "outputs %s option %u", hex(q.ext, 4).c_str(), q.ext[5]);
    ok(a, q.f[1]);
}

// 0x62: the I/O state, or with PAR0 1 the input PAR1.
void inputs(Reader &r, const Request &q, Answer &a)
{
    const Outputs &o = out(r);
    if (q.f[4] == 0)
        return ok(a, q.f[1], o.io_state[0], o.io_state[1]);
    if (q.f[4] != 1 || q.f[5] >= std::size(o.inputs))
        return put_error(a.bytes, E_PARAMETERS);
    ok(a, q.f[1], o.inputs[q.f[5]]);
}

// ---- Service data, I2C devices, lock status ----

void service_set(Reader &r, const Request &q, Answer &a)
{
    if (q.len != 4)
        return put_error(a.bytes, E_PARAMETERS);
    std::memcpy(out(r).service, q.ext, 4);
    note(r, "service data %s", hex(q.ext, 4).c_str());
    ok(a, q.f[1]);
}

void service_get(Reader &r, const Request &q, Answer &a)
{
    const Outputs &o = out(r);
    switch (q.f[4]) {
    case 0: return put_response(a.bytes, q.f[1], 0, 0, o.service, 4);
    case 1:
        if (o.i2c.empty())
            return ok(a, q.f[1]);
        return put_response(a.bytes, q.f[1], 0, 0, o.i2c.data(), o.i2c.size());
    case 2: return put_response(a.bytes, q.f[1], 0, 0, &o.lock_status, 1);
    default: put_error(a.bytes, E_PARAMETERS);
    }
}

// ---- RF analog registers ----

// 0x7D: PAR0 the set; PAR1 1 without an EXT restores its default (the PN7462 set by PAR0 7, PAR1 0).
void rf_set(Reader &r, const Request &q, Answer &a)
{
    const uint8_t set = q.f[4];
    Outputs &o = out(r);
    if (!q.ext) {
        const bool pn_default = set == 7 && q.f[5] == 0;
        const uint8_t which = pn_default ? 6 : set;
        if (!pn_default && (q.f[5] != 1 || set < 1 || set > 4))
            return put_error(a.bytes, E_PARAMETERS);
        RfSet &s = o.rf[which];
        std::memcpy(s.bytes, s.defaults, s.len);
        note(r, "rf set %u default", which);
        return ok(a, q.f[1]);
    }
    if (set < 1 || set > 6 || set == 5 || q.len != o.rf[set].len)
        return put_error(a.bytes, E_PARAMETERS);
    std::memcpy(o.rf[set].bytes, q.ext, q.len);
    note(r, "rf set %u %s", set, hex(q.ext, q.len).c_str());
    ok(a, q.f[1]);
}

// 0x7E: the set's bytes with the first two in the other order.
void rf_get(Reader &r, const Request &q, Answer &a)
{
    const uint8_t set = q.f[4];
    if (set < 1 || set > 6 || set == 5)
        return put_error(a.bytes, E_PARAMETERS);
    const RfSet &s = out(r).rf[set];
    uint8_t d[5];
    std::memcpy(d, s.bytes, s.len);
    d[0] = s.bytes[1];
    d[1] = s.bytes[0];
    put_response(a.bytes, q.f[1], set, 0, d, s.len);
}

// ---- The secure element ----

bool config_locked(const Outputs &o)
{
    return o.se_config[SE_LOCK_CONFIG_AT] == SE_LOCKED;
}

bool data_locked(const Outputs &o)
{
    return o.se_config[SE_LOCK_VALUE] == SE_LOCKED;
}

bool slot_locked(const Outputs &o, size_t slot)
{
    const uint16_t bits = u16(o.se_config + SE_SLOT_LOCKED);
    return !(bits >> slot & 1);
}

// The chip's default slot and key configuration: ECC private keys in slots 0 to 7, data beyond.
void default_config(Outputs &o, size_t at, uint16_t key_slot, uint16_t data_slot)
{
    for (size_t s = 0; s < SE_SLOTS; ++s) {
        const uint16_t v = s < 8 ? key_slot : data_slot;
        o.se_config[at + 2 * s] = static_cast<uint8_t>(v);
        o.se_config[at + 2 * s + 1] = static_cast<uint8_t>(v >> 8);
    }
}

// The 70-byte key frame: an option, a 4-byte field and 32 bytes that make the slot's 36-byte value, and
// 32 bytes more (the reader's own use); the slot in PAR1.
void se_key(Reader &r, const Request &q, Answer &a)
{
    Outputs &o = out(r);
    const uint8_t slot = q.f[5];
    const bool wrapped = q.f[4] == SE_KEY_WRAPPED;
    if (q.len != 69 || slot >= 8 || slot_locked(o, slot))
        return put_error(a.bytes, E_PARAMETERS);
    // A key goes in the clear only before the data zone is locked, and wrapped only after.
    if (wrapped != data_locked(o))
        return put_error(a.bytes, E_PARAMETERS);
    o.se_slot[slot].assign(q.ext + 1, q.ext + 37);
    note(r, "se key slot %u %s", slot, wrapped ? "encrypted" : "unencrypted");
    ok(a, q.f[1], q.f[4], slot);
}

// 0xC7 with an EXT: a key frame, or bytes for the configuration (0x80) or OTP (0x81) zone at offset PAR1.
void se_write(Reader &r, const Request &q, Answer &a)
{
    Outputs &o = out(r);
    const uint8_t sub = q.f[4], at = q.f[5];
    if (sub == SE_KEY_PLAIN || sub == SE_KEY_WRAPPED)
        return se_key(r, q, a);
    if (sub == SE_CONFIG) {
        if (config_locked(o) || at < SE_WRITABLE_FROM || at + q.len > SE_LOCK_VALUE)
            return put_error(a.bytes, E_PARAMETERS);
        std::memcpy(o.se_config + at, q.ext, q.len);
    } else if (sub == SE_OTP) {
        if (data_locked(o) || at + q.len > SE_OTP_LEN)
            return put_error(a.bytes, E_PARAMETERS);
        std::memcpy(o.se_otp + at, q.ext, q.len);
    } else {
        return put_error(a.bytes, E_PARAMETERS);
    }
    note(r, "se %s write %u bytes at %u", sub == SE_CONFIG ? "config" : "otp", static_cast<unsigned>(q.len), at);
    ok(a, q.f[1], sub, at);
}

void se_set(Reader &r, const Request &q, Answer &a)
{
    if (q.ext)
        return se_write(r, q, a);
    Outputs &o = out(r);
    const uint8_t sub = q.f[4], p1 = q.f[5];
    switch (sub) {
    case SE_LOCK_CONFIG:
        if (config_locked(o))
            return put_error(a.bytes, E_PARAMETERS);
        o.se_config[SE_LOCK_CONFIG_AT] = SE_LOCKED;
        note(r, "se config locked");
        break;
    case SE_LOCK_DATA:
        if (p1 == 0) {
            if (!config_locked(o) || data_locked(o))
                return put_error(a.bytes, E_PARAMETERS);
            o.se_config[SE_LOCK_VALUE] = SE_LOCKED;
            note(r, "se data and otp locked");
        } else {
            if (p1 >= SE_SLOTS || !data_locked(o) || slot_locked(o, p1))
                return put_error(a.bytes, E_PARAMETERS);
            uint16_t bits = u16(o.se_config + SE_SLOT_LOCKED);
            bits = static_cast<uint16_t>(bits & ~(1u << p1));
            o.se_config[SE_SLOT_LOCKED] = static_cast<uint8_t>(bits);
            o.se_config[SE_SLOT_LOCKED + 1] = static_cast<uint8_t>(bits >> 8);
            note(r, "se slot %u locked", p1);
        }
        break;
    case SE_IO_KEY:
        if (o.se_io_key && data_locked(o))
            return put_error(a.bytes, E_PARAMETERS);
        o.se_io_key = true;
        note(r, "se io secret key");
        break;
    case SE_DEFAULT_SLOTS:
    case SE_DEFAULT_KEYS:
        if (config_locked(o))
            return put_error(a.bytes, E_PARAMETERS);
        if (sub == SE_DEFAULT_SLOTS)
            default_config(o, SE_SLOT_CONFIG, 0x2083, 0x0F0F);
        else
            default_config(o, SE_KEY_CONFIG, 0x0033, 0x003C);
        note(r, "se default %s configuration", sub == SE_DEFAULT_SLOTS ? "slots" : "keys");
        break;
    default: return put_error(a.bytes, E_PARAMETERS);
    }
    ok(a, q.f[1], sub, p1);
}

void se_get(Reader &r, const Request &q, Answer &a)
{
    const Outputs &o = out(r);
    switch (q.f[4]) {
    case SE_CONFIG: return put_response(a.bytes, q.f[1], SE_CONFIG, 0, o.se_config, SE_CONFIG_LEN);
    case SE_OTP: return put_response(a.bytes, q.f[1], SE_OTP, 0, o.se_otp, SE_OTP_LEN);
    case SE_LOCK_CONFIG: return ok(a, q.f[1], config_locked(o) ? 1 : 0, data_locked(o) ? 1 : 0);
    case SE_INFO: return put_response(a.bytes, q.f[1], SE_INFO, 0, o.se_info, 4);
    default: put_error(a.bytes, E_PARAMETERS);
    }
}

// ---- Feature blocks ----

void feature_get(Reader &r, const Request &q, Answer &a)
{
    const Outputs &o = out(r);
    std::vector<uint8_t> d;
    if (q.f[4] == FEATURE_DISCOVERY)
        d = o.discovery;
    else if (q.f[4] == FEATURE_MOBILE_AID)
        d.assign(o.mobile_aid, o.mobile_aid + sizeof o.mobile_aid);
    else
        return put_error(a.bytes, E_PARAMETERS);
    d.push_back(feature_crc(d.data(), d.size()));
    put_response(a.bytes, q.f[1], q.f[4], 0, d.data(), d.size());
}

// 0xC4: the block, then its CRC-8, which the reader checks.
void feature_set(Reader &r, const Request &q, Answer &a)
{
    Outputs &o = out(r);
    if (q.len < 1)
        return put_error(a.bytes, E_PARAMETERS);
    const size_t n = q.len - 1;
    if (feature_crc(q.ext, n) != q.ext[n])
        return put_error(a.bytes, E_CHKSUM);
    if (q.f[4] == FEATURE_DISCOVERY) {
        o.discovery.assign(q.ext, q.ext + n);
        note(r, "discovery loop %s", hex(q.ext, n).c_str());
    } else if (q.f[4] == FEATURE_MOBILE_AID) {
        if (n != sizeof o.mobile_aid || q.ext[0] < 1 || q.ext[0] > 16)
            return put_error(a.bytes, E_PARAMETERS);
        std::memcpy(o.mobile_aid, q.ext, n);
        note(r, "mobile aid %s", hex(q.ext + 1, q.ext[0]).c_str());
    } else {
        return put_error(a.bytes, E_PARAMETERS);
    }
    ok(a, q.f[1], q.f[4]);
}

// 0xC5: what the last phone handed over; without one there is nothing to read.
void mobile_data(Reader &r, const Request &q, Answer &a)
{
    const Outputs &o = out(r);
    if (o.mobile_data.empty())
        return put_error(a.bytes, E_NO_CARD);
    put_response(a.bytes, q.f[1], 0, 0, o.mobile_data.data(), o.mobile_data.size());
}

struct Command {
    uint8_t code;
    void (*run)(Reader &r, const Request &q, Answer &a);
};

const Command COMMANDS[] = {
    {0x26, ui},
    {0x3F, bad_select_set},
    {0x44, [](Reader &r, const Request &q, Answer &a) { ok(a, q.f[1], out(r).bad_select); }},
    {0x46, sleep_enter},
    {0x47, sleep_leave},
    {0x4D, auto_sleep_set},
    {0x4E, [](Reader &r, const Request &q, Answer &a) { ok(a, q.f[1], r.eeprom[EE_AUTO_SLEEP]); }},
    {0x60, lock_on},
    {0x61, outputs},
    {0x62, inputs},
    {0x6E, leds},
    {0x71, light},
    {0x72, display},
    {0x73, speaker},
    {0x74, intensity_set},
    {0x75, intensity_get},
    {0x7D, rf_set},
    {0x7E, rf_get},
    {0xC3, feature_get},
    {0xC4, feature_set},
    {0xC5, mobile_data},
    {0xC7, se_set},
    {0xC8, se_get},
    {0xCB, service_set},
    {0xCD, service_get},
};

const Command *find(uint8_t code)
{
    for (const Command &c : COMMANDS)
        if (c.code == code)
            return &c;
    return nullptr;
}

} // namespace

size_t se_slot_len(size_t slot)
{
    return slot < 8 ? 36 : slot == 8 ? 416 : 72;
}

uint8_t feature_crc(const uint8_t *p, size_t n)
{
    uint8_t crc = 0xFF;
    for (size_t i = 0; i < n; ++i) {
        crc ^= p[i];
        for (int b = 0; b < 8; ++b)
            crc = static_cast<uint8_t>(crc & 0x80 ? (crc << 1) ^ 0x31 : crc << 1);
    }
    return crc;
}

Outputs::Outputs()
{
    static const uint8_t defaults[7][5] = {
        {}, {0xF4, 0x59, 0x88, 0x20, 0x88}, {0xF4, 0x59, 0xF8, 0x3F, 0x06}, {0x84, 0x59}, {0x84, 0x79},
        {}, {0x3A, 0x25, 0x00, 0x00, 0x00}};
    for (int i = 1; i <= 6; ++i) {
        rf[i].len = (i == 3 || i == 4) ? 2 : 5;
        std::memcpy(rf[i].defaults, defaults[i], 5);
        std::memcpy(rf[i].bytes, defaults[i], 5);
    }
    // The configuration zone: serial number, revision, I2C address, both zones open, all slots open.
    static const uint8_t head[16] = {0x01, 0x23, 0x5A, 0x53, 0x00, 0x00, 0x60, 0x02,
                                     0x11, 0x22, 0x33, 0x44, 0xEE, 0x01, 0x01, 0x00};
    std::memcpy(se_config, head, sizeof head);
    se_config[16] = 0xC0;
    se_config[SE_LOCK_VALUE] = SE_OPEN;
    se_config[SE_LOCK_CONFIG_AT] = SE_OPEN;
    se_config[SE_SLOT_LOCKED] = 0xFF;
    se_config[SE_SLOT_LOCKED + 1] = 0xFF;
    for (size_t s = 0; s < SE_SLOTS; ++s)
        se_slot[s].assign(se_slot_len(s), 0);
    discovery = {0x01, 0x02, 0x04, 0x08};
    mobile_aid[0] = 7;
    const uint8_t aid[7] = {0xF0, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06};
    std::memcpy(mobile_aid + 1, aid, sizeof aid);
}

bool outputs_wants_ext(const Reader &, const uint8_t f[7])
{
    return f[3] != 0 && find(f[1]) != nullptr;
}

bool outputs_command(Reader &r, const uint8_t f[7], const uint8_t *ext, size_t ext_len, Answer &a)
{
    const Command *c = find(f[1]);
    if (!c)
        return false;
    c->run(r, Request{f, ext && ext_len ? ext : nullptr, ext && ext_len ? ext_len - 1 : 0}, a);
    return true;
}

} // namespace zs
