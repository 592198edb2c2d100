// Scenario files: a JSON description of the reader, the cards in its field, its faults and its links.
// Everything is checked before anything changes, so a bad file leaves the reader as it was.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "core.h"
#include "json.h"
#include "links.h"
#include "scenario.h"

#include "line.h"

namespace zs {

namespace {

struct OrbName {
    const char *name;
    uint8_t code;
};

const OrbName ORB_NAMES[] = {
    {"ORB_MIFARE_ULTRALIGHT", 0x01},
    {"ORB_MIFARE_ULTRALIGHT_EV1_11", 0x02},
    {"ORB_MIFARE_ULTRALIGHT_EV1_21", 0x03},
    {"ORB_MIFARE_ULTRALIGHT_C", 0x04},
    {"ORB_NTAG_203", 0x05},
    {"ORB_NTAG_210", 0x06},
    {"ORB_NTAG_212", 0x07},
    {"ORB_NTAG_213", 0x08},
    {"ORB_NTAG_215", 0x09},
    {"ORB_NTAG_216", 0x0A},
    {"ORB_MIKRON_MIK640D", 0x0B},
    {"NFC_T2T_GENERIC", 0x0C},
    {"ORB_NT3H_1101", 0x0D},
    {"ORB_NT3H_1201", 0x0E},
    {"ORB_NT3H_2111", 0x0F},
    {"ORB_NT3H_2211", 0x10},
    {"ORB_NTAG_413_DNA", 0x11},
    {"ORB_NTAG_424_DNA", 0x12},
    {"ORB_NTAG_424_DNA_TT", 0x13},
    {"ORB_NTAG_210U", 0x14},
    {"ORB_NTAG_213_TT", 0x15},
    {"ORB_MIFARE_CLASSIC_2K", 0x19},
    {"ORB_MIFARE_MINI", 0x20},
    {"ORB_MIFARE_CLASSIC_1K", 0x21},
    {"ORB_MIFARE_CLASSIC_4K", 0x22},
    {"ORB_MIFARE_PLUS_S_2K_SL0", 0x23},
    {"ORB_MIFARE_PLUS_S_4K_SL0", 0x24},
    {"ORB_MIFARE_PLUS_X_2K_SL0", 0x25},
    {"ORB_MIFARE_PLUS_X_4K_SL0", 0x26},
    {"ORB_MIFARE_DESFIRE", 0x27},
    {"ORB_MIFARE_DESFIRE_EV1_2K", 0x28},
    {"ORB_MIFARE_DESFIRE_EV1_4K", 0x29},
    {"ORB_MIFARE_DESFIRE_EV1_8K", 0x2A},
    {"ORB_MIFARE_DESFIRE_EV2_2K", 0x2B},
    {"ORB_MIFARE_DESFIRE_EV2_4K", 0x2C},
    {"ORB_MIFARE_DESFIRE_EV2_8K", 0x2D},
    {"ORB_MIFARE_PLUS_S_2K_SL1", 0x2E},
    {"ORB_MIFARE_PLUS_X_2K_SL1", 0x2F},
    {"ORB_MIFARE_PLUS_EV1_2K_SL1", 0x30},
    {"ORB_MIFARE_PLUS_X_2K_SL2", 0x31},
    {"ORB_MIFARE_PLUS_S_2K_SL3", 0x32},
    {"ORB_MIFARE_PLUS_X_2K_SL3", 0x33},
    {"ORB_MIFARE_PLUS_EV1_2K_SL3", 0x34},
    {"ORB_MIFARE_PLUS_S_4K_SL1", 0x35},
    {"ORB_MIFARE_PLUS_X_4K_SL1", 0x36},
    {"ORB_MIFARE_PLUS_EV1_4K_SL1", 0x37},
    {"ORB_MIFARE_PLUS_X_4K_SL2", 0x38},
    {"ORB_MIFARE_PLUS_S_4K_SL3", 0x39},
    {"ORB_MIFARE_PLUS_X_4K_SL3", 0x3A},
    {"ORB_MIFARE_PLUS_EV1_4K_SL3", 0x3B},
    {"ORB_MIFARE_PLUS_SE_SL0", 0x3C},
    {"ORB_MIFARE_PLUS_SE_SL1", 0x3D},
    {"ORB_MIFARE_PLUS_SE_SL3", 0x3E},
    {"ORB_MIFARE_DESFIRE_LIGHT", 0x3F},
    {"ORB_GENERIC_ISO14443_4", 0x40},
    {"ORB_GENERIC_ISO14443_4_TYPE_B", 0x41},
    {"ORB_GENERIC_ISO14443_3_TYPE_B", 0x42},
    {"ORB_MIFARE_PLUS_EV1_2K_SL0", 0x43},
    {"ORB_MIFARE_PLUS_EV1_4K_SL0", 0x44},
    {"ORB_MIFARE_DESFIRE_EV3_2K", 0x45},
    {"ORB_MIFARE_DESFIRE_EV3_4K", 0x46},
    {"ORB_MIFARE_DESFIRE_EV3_8K", 0x47},
    {"ORB_MOBILE_AID", 0x60},
    {"ORB_APPLE_VAS_V1", 0x6A},
    {"ORB_APPLE_VAS_V2", 0x6B},
    {"ORB_IMEI_UID", 0x80},
    {"M24SR02", 0x82},
    {"M24SR64", 0x84},
    {"M24SR16", 0x85},
    {"M24SR04", 0x86},
    {"M24SR02_AUTOMOTIVE", 0x8A},
    {"M24SR64_AUTOMOTIVE", 0x8C},
    {"M24SR16_AUTOMOTIVE", 0x8D},
    {"M24SR04_AUTOMOTIVE", 0x8E},
    {"OrbSigner81", 0xA0},
    {"OrbSigner22", 0xA1},
    {"OrbSigner30", 0xA2},
    {"OrbSigner10", 0xA3},
    {"OrbSigner145", 0xAA},
};

struct FaultName {
    const char *name;
    zsim_fault_kind kind;
};

const FaultName FAULT_NAMES[] = {
    {"silence", ZSIM_FAULT_SILENCE},
    {"late", ZSIM_FAULT_LATE},
    {"bad_checksum", ZSIM_FAULT_BAD_CHECKSUM},
    {"wrong_echo", ZSIM_FAULT_WRONG_ECHO},
    {"error_frame", ZSIM_FAULT_ERROR_FRAME},
    {"truncate", ZSIM_FAULT_TRUNCATE},
    {"extra_bytes", ZSIM_FAULT_EXTRA_BYTES},
    {"endless_interim", ZSIM_FAULT_ENDLESS_INTERIM},
    {"unplug", ZSIM_FAULT_UNPLUG},
};

// Checks an object's member names against the ones allowed, so that a misspelt name is an error.
bool members_known(const Json &o, const char *where, std::initializer_list<const char *> names, std::string &err)
{
    if (o.kind != Json::OBJECT) {
        err = std::string(where) + ": an object is expected";
        return false;
    }
    for (const auto &f : o.fields) {
        bool known = false;
        for (const char *n : names)
            known = known || f.first == n;
        if (!known) {
            err = std::string(where) + ": unknown member '" + f.first + "'";
            return false;
        }
    }
    return true;
}

int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

} // namespace

bool parse_hex_text(const std::string &s, std::vector<uint8_t> &out, size_t max)
{
    out.clear();
    std::string h;
    for (char c : s) {
        if (c == ' ' || c == ':' || c == '-')
            continue;
        if (hex_digit(c) < 0)
            return false;
        h += c;
    }
    if (h.size() % 2 || h.size() / 2 > max)
        return false;
    for (size_t i = 0; i < h.size(); i += 2)
        out.push_back(static_cast<uint8_t>(hex_digit(h[i]) << 4 | hex_digit(h[i + 1])));
    return true;
}

bool parse_hex_number(const std::string &text, uint64_t max, uint64_t &v)
{
    std::string s = text;
    if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X'))
        s = s.substr(2);
    if (s.empty() || s.size() > 16)
        return false;
    v = 0;
    for (char c : s) {
        const int d = hex_digit(c);
        if (d < 0)
            return false;
        v = v << 4 | static_cast<uint64_t>(d);
    }
    return v <= max;
}

bool orb_type_by_name(const std::string &name, uint8_t &code)
{
    for (const auto &o : ORB_NAMES)
        if (name == o.name) {
            code = o.code;
            return true;
        }
    return false;
}

bool fault_kind_by_name(const std::string &name, zsim_fault_kind &kind)
{
    for (const auto &f : FAULT_NAMES)
        if (name == f.name) {
            kind = f.kind;
            return true;
        }
    return false;
}

namespace {

// A number given either as a JSON number (decimal) or as a string of hexadecimal digits.
bool number_of(const Json *j, const char *what, uint64_t max, uint64_t &v, std::string &err)
{
    if (j->kind == Json::NUMBER) {
        if (j->num < 0 || j->num > static_cast<double>(max) ||
            j->num != static_cast<double>(static_cast<uint64_t>(j->num))) {
            err = std::string(what) + ": a whole number from 0 to " + std::to_string(max) + " is expected";
            return false;
        }
        v = static_cast<uint64_t>(j->num);
        return true;
    }
    if (j->kind == Json::STRING && parse_hex_number(j->str, max, v))
        return true;
    err = std::string(what) + ": a number, or hexadecimal digits in a string, is expected";
    return false;
}

template <typename T>
bool opt_number(const Json &o, const char *name, const char *where, uint64_t max, T &out, std::string &err)
{
    const Json *j = o.get(name);
    if (!j)
        return true;
    uint64_t v = 0;
    if (!number_of(j, (std::string(where) + "." + name).c_str(), max, v, err))
        return false;
    out = static_cast<T>(v);
    return true;
}

bool opt_decimal(const Json &o, const char *name, const char *where, uint64_t max, uint64_t &out, std::string &err)
{
    const Json *j = o.get(name);
    if (!j)
        return true;
    if (j->kind != Json::NUMBER || j->num < 0 || j->num > static_cast<double>(max) ||
        j->num != static_cast<double>(static_cast<uint64_t>(j->num))) {
        err = std::string(where) + "." + name + ": a whole number from 0 to " + std::to_string(max) + " is expected";
        return false;
    }
    out = static_cast<uint64_t>(j->num);
    return true;
}

bool opt_bool(const Json &o, const char *name, const char *where, bool &out, std::string &err)
{
    const Json *j = o.get(name);
    if (!j)
        return true;
    if (j->kind != Json::BOOL) {
        err = std::string(where) + "." + name + ": true or false is expected";
        return false;
    }
    out = j->b;
    return true;
}

bool opt_string(const Json &o, const char *name, const char *where, size_t max, std::string &out, std::string &err)
{
    const Json *j = o.get(name);
    if (!j)
        return true;
    if (j->kind != Json::STRING || j->str.size() > max) {
        err = std::string(where) + "." + name + ": a string of at most " + std::to_string(max) +
              " characters is expected";
        return false;
    }
    out = j->str;
    return true;
}

bool opt_hex(const Json &o, const char *name, const char *where, size_t max, std::vector<uint8_t> &out, bool &given,
             std::string &err)
{
    const Json *j = o.get(name);
    given = j != nullptr;
    if (!j)
        return true;
    if (j->kind != Json::STRING || !parse_hex_text(j->str, out, max)) {
        err =
            std::string(where) + "." + name + ": at most " + std::to_string(max) + " bytes in hexadecimal are expected";
        return false;
    }
    return true;
}

// A character given as a one-character string or as its code.
bool opt_char(const Json &o, const char *name, const char *where, uint8_t &out, std::string &err)
{
    const Json *j = o.get(name);
    if (!j)
        return true;
    if (j->kind == Json::STRING && j->str.size() == 1) {
        out = static_cast<uint8_t>(j->str[0]);
        return true;
    }
    uint64_t v = 0;
    if (j->kind != Json::NUMBER || !number_of(j, name, 255, v, err)) {
        err = std::string(where) + "." + name + ": one character, or its code, is expected";
        return false;
    }
    out = static_cast<uint8_t>(v);
    return true;
}

// "boot_loader": {"image_length": N, "firmware": {"major", "minor", "build"},
//                 "faults": [{"packet": K, "kind": "drop" | "delay" | "garble", "delay_ms": MS}]}
bool parse_boot_loader(const Json &o, BootLoader &b, std::string &err)
{
    const char *W = "boot_loader";
    if (!members_known(o, W, {"image_length", "firmware", "faults"}, err) ||
        !opt_number(o, "image_length", W, 0x1000000u, b.image_len, err))
        return false;
    if (const Json *fw = o.get("firmware")) {
        if (!members_known(*fw, "boot_loader.firmware", {"major", "minor", "build"}, err) ||
            !opt_number(*fw, "major", "boot_loader.firmware", 255, b.next_fw[0], err) ||
            !opt_number(*fw, "minor", "boot_loader.firmware", 255, b.next_fw[1], err) ||
            !opt_number(*fw, "build", "boot_loader.firmware", 255, b.next_fw[2], err))
            return false;
        b.next_fw_set = true;
    }
    if (const Json *faults = o.get("faults")) {
        if (faults->kind != Json::ARRAY || faults->items.size() > 1024) {
            err = "boot_loader.faults: a list of at most 1024 faults is expected";
            return false;
        }
        for (const auto &f : faults->items) {
            const char *F = "boot_loader.faults[]";
            BootFault bf;
            std::string kind = "drop";
            if (!members_known(f, F, {"packet", "kind", "delay_ms"}, err) ||
                !opt_number(f, "packet", F, 0xFFFF, bf.packet, err) ||
                !opt_number(f, "delay_ms", F, 60000, bf.delay_ms, err) || !opt_string(f, "kind", F, 16, kind, err))
                return false;
            if (kind == "drop")
                bf.kind = PacketFault::DROP;
            else if (kind == "delay")
                bf.kind = PacketFault::DELAY;
            else if (kind == "garble")
                bf.kind = PacketFault::GARBLE;
            else {
                err = "boot_loader.faults[].kind: drop, delay or garble is expected";
                return false;
            }
            b.faults.push_back(bf);
        }
    }
    return true;
}

// "identity": {"serial_description": TEXT, "hardware": {"type", "version"}, "firmware": {"major", "minor",
// "build"}} of the network module or of a unit behind it.
bool parse_esp_identity(const Json &o, const std::string &W, EspModule &id, std::string &err)
{
    if (!members_known(o, W.c_str(), {"serial_description", "hardware", "firmware"}, err))
        return false;
    id.given = true;
    std::string text;
    if (o.get("serial_description")) {
        if (!opt_string(o, "serial_description", W.c_str(), 8, text, err))
            return false;
        std::memset(id.serial_desc, 0, sizeof id.serial_desc);
        std::memcpy(id.serial_desc, text.data(), text.size() < 8 ? text.size() : 8);
    }
    if (const Json *hw = o.get("hardware")) {
        const std::string H = W + ".hardware";
        if (!members_known(*hw, H.c_str(), {"type", "version"}, err) ||
            !opt_number(*hw, "type", H.c_str(), 255, id.hw_type, err) ||
            !opt_number(*hw, "version", H.c_str(), 255, id.hw_ver, err))
            return false;
    }
    if (const Json *fw = o.get("firmware")) {
        const std::string F = W + ".firmware";
        if (!members_known(*fw, F.c_str(), {"major", "minor", "build"}, err) ||
            !opt_number(*fw, "major", F.c_str(), 255, id.fw[0], err) ||
            !opt_number(*fw, "minor", F.c_str(), 255, id.fw[1], err) ||
            !opt_number(*fw, "build", F.c_str(), 255, id.fw[2], err))
            return false;
    }
    return true;
}

// "network_module": {"units": N, "identity": {...}, "boot_loader": {...},
//                    "unit_modules": [{"identity": {...}, "boot_loader": {...}}, ...]} (unit 1 first)
bool parse_network_module(const Json &o, EspFront &m, std::string &err)
{
    const char *W = "network_module";
    if (!members_known(o, W, {"units", "identity", "boot_loader", "unit_modules"}, err))
        return false;
    m = EspFront{};
    m.present = true;
    uint32_t units = 1;
    if (!opt_number(o, "units", W, 16, units, err))
        return false;
    if (units == 0) {
        err = "network_module.units: 1 to 16 units are expected";
        return false;
    }
    m.units = static_cast<uint8_t>(units);
    m.unit.resize(units);
    if (const Json *id = o.get("identity"))
        if (!parse_esp_identity(*id, "network_module.identity", m.self, err))
            return false;
    if (const Json *bl = o.get("boot_loader"))
        if (!parse_boot_loader(*bl, m.self.boot, err))
            return false;
    if (const Json *list = o.get("unit_modules")) {
        if (list->kind != Json::ARRAY || list->items.size() > units) {
            err = "network_module.unit_modules: a list of at most units modules is expected";
            return false;
        }
        for (size_t i = 0; i < list->items.size(); ++i) {
            const Json &u = list->items[i];
            const std::string U = "network_module.unit_modules[" + std::to_string(i) + "]";
            if (!members_known(u, U.c_str(), {"identity", "boot_loader"}, err))
                return false;
            EspModule &mod = m.unit[i];
            // A unit starts as the reader model does.
            mod = EspModule{};
            mod.hw_type = 1;
            mod.hw_ver = 2;
            mod.fw[0] = 5, mod.fw[1] = 0, mod.fw[2] = 60;
            std::memcpy(mod.serial_desc, "ZS000001", 8);
            if (const Json *id = u.get("identity"))
                if (!parse_esp_identity(*id, U + ".identity", mod, err))
                    return false;
            mod.given = true;
            if (const Json *bl = u.get("boot_loader"))
                if (!parse_boot_loader(*bl, mod.boot, err))
                    return false;
        }
    }
    return true;
}

bool parse_reader(const Json &o, Reader &r, std::string &err)
{
    const char *W = "reader";
    if (!members_known(o, W,
                       {"type",   "serial_number",   "serial_description", "firmware",    "hardware", "device_type",
                        "mui",    "parameter_block", "password",           "keys_locked", "keys",     "time",
                        "job_id", "user_data",       "pro_mode",           "baud",        "eeprom",   "async",
                        "speed",  "access"},
                       err))
        return false;
    if (!opt_number(o, "type", W, 0xFFFFFFFFu, r.type, err) ||
        !opt_number(o, "serial_number", W, 0xFFFFFFFFu, r.serial, err) ||
        !opt_number(o, "device_type", W, 0xFFFFFFFFu, r.device_type, err) ||
        !opt_bool(o, "keys_locked", W, r.keys_locked, err))
        return false;
    std::string text;
    if (o.get("serial_description")) {
        if (!opt_string(o, "serial_description", W, 8, text, err))
            return false;
        r.set_serial_desc(text);
    }
    if (const Json *fw = o.get("firmware")) {
        if (!members_known(*fw, "reader.firmware", {"major", "minor", "build"}, err) ||
            !opt_number(*fw, "major", "reader.firmware", 255, r.fw_major, err) ||
            !opt_number(*fw, "minor", "reader.firmware", 255, r.fw_minor, err) ||
            !opt_number(*fw, "build", "reader.firmware", 255, r.build, err))
            return false;
    }
    if (const Json *hw = o.get("hardware")) {
        if (!members_known(*hw, "reader.hardware", {"type", "version"}, err) ||
            !opt_number(*hw, "type", "reader.hardware", 255, r.hw_type, err) ||
            !opt_number(*hw, "version", "reader.hardware", 255, r.hw_ver, err))
            return false;
    }
    std::vector<uint8_t> bytes;
    bool given = false;
    if (!opt_hex(o, "mui", W, 16, bytes, given, err))
        return false;
    if (given) {
        if (bytes.empty()) {
            err = "reader.mui: 1 to 16 bytes in hexadecimal are expected";
            return false;
        }
        std::memset(r.mui, 0, sizeof r.mui);
        std::memcpy(r.mui, bytes.data(), bytes.size());
        r.mui_len = static_cast<uint8_t>(bytes.size());
    }
    if (o.get("parameter_block")) {
        if (!opt_string(o, "parameter_block", W, 8, text, err))
            return false;
        if (text == "long")
            r.param_form = ParamForm::LONG;
        else if (text == "short")
            r.param_form = ParamForm::SHORT;
        else if (text == "none")
            r.param_form = ParamForm::NONE;
        else {
            err = "reader.parameter_block: \"long\", \"short\" or \"none\" is expected";
            return false;
        }
    }
    if (const Json *pw = o.get("password")) {
        // Eight characters, or sixteen hexadecimal digits.
        if (pw->kind == Json::STRING && pw->str.size() == 8) {
            std::memcpy(r.password, pw->str.data(), 8);
        } else if (pw->kind == Json::STRING && parse_hex_text(pw->str, bytes, 8) && bytes.size() == 8) {
            std::memcpy(r.password, bytes.data(), 8);
        } else {
            err = "reader.password: 8 characters or 16 hexadecimal digits are expected";
            return false;
        }
    }
    if (const Json *keys = o.get("keys")) {
        if (keys->kind != Json::ARRAY) {
            err = "reader.keys: a list is expected";
            return false;
        }
        for (const auto &k : keys->items) {
            uint32_t index = 0;
            if (!members_known(k, "reader.keys[]", {"index", "key"}, err) ||
                !opt_number(k, "index", "reader.keys[]", KEY_COUNT - 1, index, err) ||
                !opt_hex(k, "key", "reader.keys[]", 6, bytes, given, err))
                return false;
            if (!given || bytes.size() != 6) {
                err = "reader.keys[].key: 6 bytes in hexadecimal are expected";
                return false;
            }
            std::memcpy(r.keys[index], bytes.data(), 6);
        }
    }
    if (!opt_hex(o, "time", W, 6, bytes, given, err))
        return false;
    if (given) {
        std::memset(r.time, 0, 6);
        std::memcpy(r.time, bytes.data(), bytes.size());
    }
    uint64_t v = 0;
    if (o.get("job_id")) {
        if (!opt_number(o, "job_id", W, 0xFFFF, v, err))
            return false;
        r.eeprom[EE_JOB_ID] = static_cast<uint8_t>(v);
        r.eeprom[EE_JOB_ID + 1] = static_cast<uint8_t>(v >> 8);
    }
    if (o.get("pro_mode")) {
        if (!opt_number(o, "pro_mode", W, 0xFFFF, v, err))
            return false;
        r.eeprom[EE_PRO_MODE] = static_cast<uint8_t>(v);
        r.eeprom[EE_PRO_MODE + 1] = static_cast<uint8_t>(v >> 8);
    }
    if (!opt_hex(o, "user_data", W, 32, bytes, given, err))
        return false;
    if (given) {
        bytes.resize(32, 0);
        std::memcpy(r.eeprom + EE_USER_DATA, bytes.data(), 16);
        std::memcpy(r.user_data_ext, bytes.data() + 16, 16);
    }
    if (o.get("baud")) {
        if (!opt_decimal(o, "baud", W, 0xFFFFFFFFu, v, err))
            return false;
        if (!reader_rate_known(static_cast<uint32_t>(v))) {
            err = "reader.baud: one of 9600, 19200, 38400, 57600, 115200, 230400, 250000, 460800, 500000, 1000000";
            return false;
        }
        r.baud = static_cast<uint32_t>(v);
    }
    if (const Json *sp = o.get("speed")) {
        if (sp->kind != Json::ARRAY || sp->items.size() != 2) {
            err = "reader.speed: a list of two numbers from 0 to 3 is expected";
            return false;
        }
        for (int i = 0; i < 2; ++i)
            if (!number_of(&sp->items[i], "reader.speed[]", 3, v, err))
                return false;
            else
                r.speed_par[i] = static_cast<uint8_t>(v);
        r.eeprom[EE_SPEED] = static_cast<uint8_t>(0x50 | (r.speed_par[1] << 2) | r.speed_par[0]);
        r.eeprom[EE_SPEED + 1] = static_cast<uint8_t>(~r.eeprom[EE_SPEED]);
    }
    if (const Json *ac = o.get("access")) {
        // The access system's card number and use byte, and the card encryption job's salter and last card.
        const char *A = "reader.access";
        AccessRecords &s = r.access;
        if (!members_known(*ac, A, {"card_number", "use", "salter", "small_value", "card_serial"}, err) ||
            !opt_number(*ac, "card_number", A, 0xFFFF, s.card_number, err) ||
            !opt_number(*ac, "use", A, 255, s.use, err) ||
            !opt_number(*ac, "small_value", A, 255, s.small_value, err) ||
            !opt_number(*ac, "card_serial", A, 0xFFFFFFFFu, s.card_serial, err) ||
            !opt_hex(*ac, "salter", A, 8, bytes, given, err))
            return false;
        if (given) {
            if (bytes.size() != 8) {
                err = "reader.access.salter: 8 bytes in hexadecimal are expected";
                return false;
            }
            std::memcpy(s.salter, bytes.data(), 8);
        }
    }
    if (const Json *as = o.get("async")) {
        const char *A = "reader.async";
        uint8_t flags = r.eeprom[EE_ASYNC], prefix = r.eeprom[EE_ASYNC + 1], suffix = r.eeprom[EE_ASYNC + 2];
        uint64_t baud = r.eeprom[EE_ASYNC + 3] | r.eeprom[EE_ASYNC + 4] << 8 | r.eeprom[EE_ASYNC + 5] << 16 |
                        static_cast<uint64_t>(r.eeprom[EE_ASYNC + 6]) << 24;
        if (!members_known(*as, A, {"flags", "prefix", "suffix", "baud", "json"}, err) ||
            !opt_number(*as, "flags", A, 0x1F, flags, err) || !opt_char(*as, "prefix", A, prefix, err) ||
            !opt_char(*as, "suffix", A, suffix, err) || !opt_decimal(*as, "baud", A, 0xFFFFFFFFu, baud, err) ||
            !opt_bool(*as, "json", A, r.async_json, err))
            return false;
        r.set_async(flags, prefix, suffix, static_cast<uint32_t>(baud));
    }
    if (const Json *ee = o.get("eeprom")) {
        if (ee->kind != Json::ARRAY) {
            err = "reader.eeprom: a list of {\"address\", \"data\"} is expected";
            return false;
        }
        for (const auto &e : ee->items) {
            uint64_t addr = 0;
            if (!members_known(e, "reader.eeprom[]", {"address", "data"}, err) ||
                !opt_decimal(e, "address", "reader.eeprom[]", EEPROM_SIZE - 1, addr, err) ||
                !opt_hex(e, "data", "reader.eeprom[]", EEPROM_SIZE, bytes, given, err))
                return false;
            if (bytes.size() > EEPROM_SIZE - addr) {
                err = "reader.eeprom[]: the data run past the end of the EEPROM (" + std::to_string(EEPROM_SIZE) +
                      " bytes)";
                return false;
            }
            std::memcpy(r.eeprom + addr, bytes.data(), bytes.size());
        }
    }
    return true;
}

} // namespace

bool parse_card(const Json &o, const char *where, ParsedCard &pc, std::string &err)
{
    if (!members_known(o, where, {"uid", "sak", "atqa", "type", "model", "setup"}, err))
        return false;
    std::vector<uint8_t> uid;
    bool given = false;
    if (!opt_hex(o, "uid", where, 10, uid, given, err))
        return false;
    if (!given || (uid.size() != 4 && uid.size() != 7 && uid.size() != 8 && uid.size() != 10)) {
        err = std::string(where) + ".uid: 4, 7, 8 (a vicinity tag) or 10 bytes in hexadecimal are expected";
        return false;
    }
    zsim_card &c = pc.card;
    c = zsim_card{};
    std::memcpy(c.uid, uid.data(), uid.size());
    c.uid_len = static_cast<uint8_t>(uid.size());
    c.sak = 0x08;
    c.atqa = 0x0004;
    if (!opt_number(o, "sak", where, 0xFF, c.sak, err) || !opt_number(o, "atqa", where, 0xFFFF, c.atqa, err))
        return false;
    c.orb_type = default_orb_type(c.sak);
    if (const Json *t = o.get("type")) {
        uint64_t v = 0;
        if (t->kind == Json::STRING && orb_type_by_name(t->str, c.orb_type)) {
        } else if (number_of(t, (std::string(where) + ".type").c_str(), 0xFF, v, err)) {
            c.orb_type = static_cast<uint8_t>(v);
        } else {
            err = std::string(where) + ".type: a card type name such as \"ORB_NTAG_213\", or its code, is expected";
            return false;
        }
    }
    if (!opt_string(o, "model", where, 32, pc.model, err))
        return false;
    pc.setup = o.get("setup");
    std::string card_err;
    if (!make_card(pc.model.c_str(), c, pc.setup, card_err)) {
        err = std::string(where) + ": " + card_err;
        return false;
    }
    return true;
}

uint8_t default_orb_type(uint8_t sak)
{
    switch (sak) {
    case 0x00: return 0x08; // a Type 2 tag
    case 0x09: return 0x20;
    case 0x18: return 0x22;
    case 0x20: return 0x40;
    default: return 0x21; // a 1K classic card
    }
}

bool parse_fault(const Json &o, const char *where, zsim_fault &f, std::string &err)
{
    if (!members_known(o, where, {"kind", "command", "code", "delay_ms", "count", "times", "after"}, err))
        return false;
    f = zsim_fault{};
    f.command = -1;
    std::string kind;
    if (!opt_string(o, "kind", where, 32, kind, err))
        return false;
    if (!fault_kind_by_name(kind, f.kind)) {
        err = std::string(where) + ".kind: one of silence, late, bad_checksum, wrong_echo, error_frame, truncate, "
                                   "extra_bytes, endless_interim, unplug is expected";
        return false;
    }
    uint64_t v = 0;
    if (o.get("command")) {
        if (!opt_number(o, "command", where, 0xFF, v, err))
            return false;
        f.command = static_cast<int>(v);
    }
    if (!opt_number(o, "code", where, 0xFF, f.code, err) || !opt_decimal(o, "delay_ms", where, 600000, v = 0, err))
        return false;
    f.delay_ms = static_cast<uint32_t>(v);
    v = 0;
    if (!opt_decimal(o, "count", where, 4096, v, err))
        return false;
    f.count = static_cast<uint32_t>(v);
    v = 0;
    if (!opt_decimal(o, "after", where, 1000000, v, err))
        return false;
    f.after = static_cast<uint32_t>(v);
    if (const Json *t = o.get("times")) {
        if (t->kind == Json::STRING && t->str == "always") {
            f.times = -1;
        } else if (t->kind == Json::NUMBER && t->num >= 1 && t->num <= 1000000 &&
                   t->num == static_cast<int32_t>(t->num)) {
            f.times = static_cast<int32_t>(t->num);
        } else {
            err = std::string(where) + ".times: a count from 1, or \"always\", is expected";
            return false;
        }
    }
    return true;
}

namespace {

bool parse_link(const Json &o, LinkSpec &l, std::string &err)
{
    const char *W = "links[]";
    if (!members_known(
            o, W, {"kind", "host", "port", "form", "socket", "pin", "serial", "description", "invert_rts", "com_port"},
            err) ||
        !opt_string(o, "kind", W, 16, l.kind, err))
        return false;
    if (l.kind != "pty" && l.kind != "udp" && l.kind != "tcp" && l.kind != "discovery" && l.kind != "gpio" &&
        l.kind != "d2xx") {
        err = "links[].kind: one of pty, udp, tcp, discovery, gpio, d2xx is expected";
        return false;
    }
    uint64_t v = 0;
    if (l.kind == "discovery")
        l.port = 8880;
    else if (l.kind == "udp" || l.kind == "tcp")
        l.port = 8881;
    if (!opt_string(o, "host", W, 64, l.host, err) || !opt_decimal(o, "port", W, 65535, v = l.port, err))
        return false;
    l.port = static_cast<uint16_t>(v);
    std::string form = "long";
    if (!opt_string(o, "form", W, 8, form, err))
        return false;
    if (form != "long" && form != "short") {
        err = "links[].form: \"long\" or \"short\" is expected";
        return false;
    }
    l.short_form = form == "short";
    v = l.pin;
    if (!opt_string(o, "socket", W, 107, l.path, err) || !opt_decimal(o, "pin", W, 63, v, err))
        return false;
    l.pin = static_cast<uint32_t>(v);
    if (l.kind == "gpio" && l.path.empty()) {
        err = "links[]: a gpio link needs \"socket\", the path of its Unix socket";
        return false;
    }
    v = 0;
    if (!opt_string(o, "serial", W, 15, l.serial, err) || !opt_string(o, "description", W, 63, l.description, err) ||
        !opt_bool(o, "invert_rts", W, l.invert_rts, err))
        return false;
    if (o.get("com_port")) {
        if (!opt_decimal(o, "com_port", W, 255, v, err))
            return false;
        l.com_port = static_cast<int32_t>(v);
    }
    return true;
}

void set_err(char *err, size_t err_len, const std::string &msg)
{
    if (err && err_len)
        std::snprintf(err, err_len, "%s", msg.c_str());
}

} // namespace

bool parse_scenario(const Json &root, Scenario &s, const Reader &base, std::string &err)
{
    if (!members_known(root, "scenario",
                       {"reader", "cards", "faults", "links", "time_scale", "log", "line", "esp_front", "boot_loader",
                        "network_module"},
                       err))
        return false;
    s.reader = std::make_unique<Reader>();
    Reader &r = *s.reader;
    // Start from the reader as it is, the field apart.
    r.type = base.type;
    r.serial = base.serial;
    r.fw_major = base.fw_major;
    r.fw_minor = base.fw_minor;
    r.build = base.build;
    r.hw_type = base.hw_type;
    r.hw_ver = base.hw_ver;
    r.device_type = base.device_type;
    std::memcpy(r.mui, base.mui, sizeof r.mui);
    r.mui_len = base.mui_len;
    r.param_form = base.param_form;
    std::memcpy(r.eeprom, base.eeprom, sizeof r.eeprom);
    std::memcpy(r.keys, base.keys, sizeof r.keys);
    std::memcpy(r.password, base.password, sizeof r.password);
    r.keys_locked = base.keys_locked;
    std::memcpy(r.time, base.time, sizeof r.time);
    std::memcpy(r.user_data_ext, base.user_data_ext, sizeof r.user_data_ext);
    std::memcpy(r.speed_par, base.speed_par, sizeof r.speed_par);
    r.async_json = base.async_json;
    r.baud = base.baud;
    r.access = base.access;
    if (const Json *rd = root.get("reader"))
        if (!parse_reader(*rd, r, err))
            return false;
    if (const Json *cards = root.get("cards")) {
        if (cards->kind != Json::ARRAY || cards->items.size() > MAX_CARDS) {
            err = "cards: a list of at most " + std::to_string(MAX_CARDS) + " cards is expected";
            return false;
        }
        s.cards_given = true;
        for (const auto &c : cards->items) {
            ParsedCard pc;
            if (!parse_card(c, "cards[]", pc, err))
                return false;
            s.cards.push_back(std::move(pc));
        }
    }
    if (const Json *faults = root.get("faults")) {
        if (faults->kind != Json::ARRAY || faults->items.size() > 1024) {
            err = "faults: a list of at most 1024 faults is expected";
            return false;
        }
        for (const auto &f : faults->items) {
            zsim_fault z;
            if (!parse_fault(f, "faults[]", z, err))
                return false;
            s.faults.push_back(z);
        }
    }
    if (const Json *links = root.get("links")) {
        if (links->kind != Json::ARRAY || links->items.size() > 16) {
            err = "links: a list of at most 16 links is expected";
            return false;
        }
        s.links_given = true;
        for (const auto &l : links->items) {
            LinkSpec spec;
            if (!parse_link(l, spec, err))
                return false;
            s.links.push_back(spec);
        }
    }
    uint64_t v = 0;
    if (root.get("time_scale")) {
        if (!opt_decimal(root, "time_scale", "scenario", 10000, v, err))
            return false;
        s.time_scale = static_cast<int>(v);
    }
    if (const Json *lg = root.get("log")) {
        if (lg->kind != Json::BOOL) {
            err = "scenario.log: true or false is expected";
            return false;
        }
        s.log = lg->b ? 1 : 0;
    }
    if (const Json *line = root.get("line")) {
        uint64_t rate = 0, turnaround = LINE_DEFAULT_TURNAROUND_US / 1000;
        if (!members_known(*line, "line", {"rate", "turnaround_ms"}, err) ||
            !opt_decimal(*line, "rate", "line", 100000000, rate, err) ||
            !opt_decimal(*line, "turnaround_ms", "line", 60000, turnaround, err))
            return false;
        s.line_given = true;
        s.line_rate = static_cast<uint32_t>(rate);
        s.line_turnaround_us = static_cast<uint32_t>(turnaround * 1000);
    }
    if (const Json *esp = root.get("esp_front")) {
        if (!members_known(*esp, "esp_front", {"address"}, err) ||
            !opt_string(*esp, "address", "esp_front", 31, s.esp_address, err))
            return false;
        s.esp_given = true;
    }
    if (const Json *bl = root.get("boot_loader")) {
        if (!parse_boot_loader(*bl, r.boot, err))
            return false;
        s.boot_given = true;
    }
    if (const Json *nm = root.get("network_module")) {
        if (!parse_network_module(*nm, r.esp, err))
            return false;
        s.network_given = true;
    }
    return true;
}

void apply_scenario(zsim *sim, Scenario &s)
{
    std::lock_guard<std::mutex> links(sim->links_mu);
    std::lock_guard<std::mutex> lock(sim->mu);
    Reader &r = sim->reader;
    // Keep the field unless the scenario sets it.
    std::vector<std::unique_ptr<Card>> cards = std::move(r.cards);
    const zsim_card last = r.last_card;
    const bool have_last = r.have_last_card;
    r.type = s.reader->type;
    r.serial = s.reader->serial;
    r.fw_major = s.reader->fw_major;
    r.fw_minor = s.reader->fw_minor;
    r.build = s.reader->build;
    r.hw_type = s.reader->hw_type;
    r.hw_ver = s.reader->hw_ver;
    r.device_type = s.reader->device_type;
    std::memcpy(r.mui, s.reader->mui, sizeof r.mui);
    r.mui_len = s.reader->mui_len;
    r.param_form = s.reader->param_form;
    std::memcpy(r.eeprom, s.reader->eeprom, sizeof r.eeprom);
    std::memcpy(r.keys, s.reader->keys, sizeof r.keys);
    std::memcpy(r.password, s.reader->password, sizeof r.password);
    r.keys_locked = s.reader->keys_locked;
    std::memcpy(r.time, s.reader->time, sizeof r.time);
    std::memcpy(r.user_data_ext, s.reader->user_data_ext, sizeof r.user_data_ext);
    std::memcpy(r.speed_par, s.reader->speed_par, sizeof r.speed_par);
    r.async_json = s.reader->async_json;
    r.baud = s.reader->baud;
    r.access = s.reader->access;
    r.cards = std::move(cards);
    r.last_card = last;
    r.have_last_card = have_last;
    if (s.cards_given) {
        r.cards.clear();
        for (auto &pc : s.cards) {
            std::string err;
            auto c = make_card(pc.model.c_str(), pc.card, pc.setup, err);
            if (c)
                r.cards.push_back(std::move(c));
        }
    }
    for (const auto &f : s.faults)
        sim->faults.push_back(f);
    if (s.links_given)
        sim->link_specs = s.links;
    if (s.time_scale >= 0)
        sim->time_scale_pct.store(static_cast<uint32_t>(s.time_scale));
    if (s.log >= 0)
        sim->log.store(s.log);
    if (s.line_given) {
        sim->line_rate.store(s.line_rate);
        sim->line_turnaround_us.store(s.line_turnaround_us);
    }
    if (s.esp_given) {
        sim->esp_front = true;
        sim->esp_address = s.esp_address;
    }
    if (s.boot_given) {
        r.boot.image_len = s.reader->boot.image_len;
        std::memcpy(r.boot.next_fw, s.reader->boot.next_fw, sizeof r.boot.next_fw);
        r.boot.next_fw_set = s.reader->boot.next_fw_set;
        r.boot.faults = s.reader->boot.faults;
    }
    if (s.network_given)
        r.esp = std::move(s.reader->esp);
}

} // namespace zs

extern "C" int zsim_load_scenario(zsim *sim, const char *json, char *err, size_t err_len)
{
    if (!sim || !json) {
        zs::set_err(err, err_len, "no simulator or no text");
        return -1;
    }
    try {
        zs::Json root;
        std::string msg;
        if (!zs::json_parse(json, std::strlen(json), root, msg)) {
            zs::set_err(err, err_len, msg);
            return -1;
        }
        zs::Scenario s;
        {
            std::lock_guard<std::mutex> lock(sim->mu);
            if (!zs::parse_scenario(root, s, sim->reader, msg)) {
                zs::set_err(err, err_len, msg);
                return -1;
            }
        }
        zs::apply_scenario(sim, s);
        return 0;
    } catch (const std::exception &e) {
        zs::set_err(err, err_len, e.what());
        return -1;
    }
}

extern "C" int zsim_load_scenario_file(zsim *sim, const char *path, char *err, size_t err_len)
{
    if (!sim || !path) {
        zs::set_err(err, err_len, "no simulator or no path");
        return -1;
    }
    FILE *f = std::fopen(path, "rb");
    if (!f) {
        zs::set_err(err, err_len, std::string("cannot read ") + path + ": " + std::strerror(errno));
        return -1;
    }
    std::string text;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0 && text.size() <= zs::JSON_MAX_TEXT)
        text.append(buf, n);
    const bool failed = std::ferror(f) != 0;
    std::fclose(f);
    if (failed) {
        zs::set_err(err, err_len, std::string("cannot read ") + path);
        return -1;
    }
    if (text.size() > zs::JSON_MAX_TEXT || text.find('\0') != std::string::npos) {
        zs::set_err(err, err_len, std::string(path) + ": not a scenario (too long, or not text)");
        return -1;
    }
    return zsim_load_scenario(sim, text.c_str(), err, err_len);
}
