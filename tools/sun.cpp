#include "tools/sun.h"

#include <cstring>

#include "tandro.h"

namespace tandro {

namespace {

int hexv(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Exactly 2 * n hex digits into out.
bool hex_exact(const char *p, size_t len, uint8_t *out, size_t n)
{
    if (len != 2 * n)
        return false;
    for (size_t i = 0; i < n; ++i) {
        const int hi = hexv(p[2 * i]), lo = hexv(p[2 * i + 1]);
        if (hi < 0 || lo < 0)
            return false;
        out[i] = static_cast<uint8_t>(hi << 4 | lo);
    }
    return true;
}

bool name_is(const char *p, size_t n, const char *a, const char *b = nullptr)
{
    return (std::strlen(a) == n && std::memcmp(p, a, n) == 0) ||
           (b && std::strlen(b) == n && std::memcmp(p, b, n) == 0);
}

} // namespace

SunParse sun_parse(const char *url, size_t len, SunUrl &out)
{
    out = SunUrl{};
    if (!url)
        return SunParse::no_mac;
    // The query starts behind the first '?'; without one the whole text is taken as a query.
    size_t at = 0;
    while (at < len && url[at] != '?')
        ++at;
    at = at < len ? at + 1 : 0;
    const char *enc_start = nullptr;
    bool has_mac = false;
    while (at < len) {
        size_t end = at;
        while (end < len && url[end] != '&' && url[end] != '#')
            ++end;
        size_t eq = at;
        while (eq < end && url[eq] != '=')
            ++eq;
        const char *name = url + at, *value = url + (eq < end ? eq + 1 : end);
        const size_t name_len = eq - at, value_len = eq < end ? end - eq - 1 : 0;
        bool bad = false, dup = false;
        if (name_is(name, name_len, "picc_data", "p")) {
            dup = out.has_picc;
            bad = !hex_exact(value, value_len, out.picc, 16);
            out.has_picc = true;
        } else if (name_is(name, name_len, "uid")) {
            dup = out.has_uid;
            bad = !hex_exact(value, value_len, out.uid, 7);
            out.has_uid = true;
        } else if (name_is(name, name_len, "ctr")) {
            dup = out.has_ctr;
            bad = !hex_exact(value, value_len, out.ctr, 3);
            out.has_ctr = true;
        } else if (name_is(name, name_len, "enc", "e")) {
            dup = out.has_enc;
            if (value_len == 0 || value_len % 32 != 0 || value_len > 2 * sizeof out.enc)
                return SunParse::bad_length;
            bad = !hex_exact(value, value_len, out.enc, value_len / 2);
            out.enc_len = static_cast<uint32_t>(value_len / 2);
            out.has_enc = true;
            enc_start = value;
        } else if (name_is(name, name_len, "cmac", "m")) {
            dup = has_mac;
            bad = !hex_exact(value, value_len, out.mac, 8);
            has_mac = true;
            out.mac_input = enc_start ? enc_start : value;
            out.mac_input_len = static_cast<uint32_t>(value - out.mac_input);
        }
        if (dup)
            return SunParse::duplicate;
        if (bad)
            return value_len % 2 ? SunParse::bad_hex : (value_len == 0 ? SunParse::bad_length : SunParse::bad_hex);
        if (end < len && url[end] == '#')
            break;
        at = end + 1;
    }
    if (!has_mac)
        return SunParse::no_mac;
    if (!out.has_picc && !(out.has_uid && out.has_ctr))
        return SunParse::no_identity;
    return SunParse::ok;
}

const char *sun_parse_text(SunParse p)
{
    switch (p) {
    case SunParse::ok: return "ok";
    case SunParse::no_mac: return "the URL carries no MAC (cmac or m)";
    case SunParse::bad_hex: return "a parameter is not hexadecimal of its length";
    case SunParse::bad_length: return "a parameter has the wrong length";
    case SunParse::duplicate: return "a parameter comes twice";
    case SunParse::no_identity: return "the URL carries neither PICC data nor UID and counter";
    }
    return "?";
}

uint32_t sun_verify(const SunUrl &url, const uint8_t *meta_key, const uint8_t *file_key, SunResult &out)
{
    out.mac_ok = false;
    out.file_data_len = 0;
    if (url.has_picc) {
        if (!meta_key)
            return ZEL_PARAMETERS_ERROR;
        uint8_t picc[16], ctr[3];
        std::memcpy(picc, url.picc, 16);
        const ZEL_STATUS st = nt4h_decrypt_picc_data(picc, meta_key, &out.tag, out.uid, ctr);
        if (st != ZEL_OK)
            return st;
        out.counter = static_cast<uint32_t>(ctr[0] | ctr[1] << 8 | ctr[2] << 16);
    } else {
        std::memcpy(out.uid, url.uid, 7);
        out.counter = static_cast<uint32_t>(url.ctr[0] << 16 | url.ctr[1] << 8 | url.ctr[2]);
    }
    const ZEL_STATUS st = nt4h_check_sdm_mac(
        out.counter, out.uid, file_key, reinterpret_cast<const uint8_t *>(url.mac_input), url.mac_input_len, url.mac);
    if (st != ZEL_OK)
        return st;
    out.mac_ok = true;
    if (url.has_enc) {
        std::memcpy(out.file_data, url.enc, url.enc_len);
        if (nt4h_decrypt_sdm_enc_file_data(out.counter, out.uid, file_key, out.file_data, url.enc_len) == ZEL_OK)
            out.file_data_len = url.enc_len;
    }
    return ZEL_OK;
}

} // namespace tandro
