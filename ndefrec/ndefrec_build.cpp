// The payloads of the typed records: Wi-Fi credential, Bluetooth out-of-band record, vCard, application
// record, text and the URI kinds.
#include <cstring>

#include "core/bytes.h"
#include "ndefrec/ndefrec_internal.h"
#include "tandro.h"

namespace zel::ndefrec {

const char kWifiType[] = "application/vnd.wfa.wsc";
const char kBluetoothType[] = "application/vnd.bluetooth.ep.oob";
const char kAndroidType[] = "android.com:pkg";
const char kVcardType[] = "text/vcard";

namespace {

constexpr uint8_t kTnfWellKnown = 1, kTnfMedia = 2, kTnfExternal = 4;
constexpr uint8_t kUriNoPrefix = 0, kUriTel = 5, kUriMailto = 6;

// A string's bytes as the writers count them: its length modulo 256, the limit tested on that.
struct Str {
    const char *p = nullptr;
    size_t n = 0;
};

bool take(const char *s, size_t min, size_t max, Str &out)
{
    if (!s)
        return false;
    out.p = s;
    out.n = std::strlen(s) % 256;
    return out.n >= min && out.n <= max;
}

// The length of Viber's, Whatsapp's and the text's strings, counted whole.
bool take_whole(const char *s, size_t max, Str &out)
{
    if (!s)
        return false;
    out.p = s;
    out.n = std::strlen(s);
    return out.n <= max;
}

void put(std::vector<uint8_t> &v, const char *text)
{
    v.insert(v.end(), text, text + std::strlen(text));
}

void put(std::vector<uint8_t> &v, const Str &s)
{
    v.insert(v.end(), s.p, s.p + s.n);
}

ZEL_STATUS uri(uint8_t code, std::initializer_list<const char *> head, Built &out)
{
    out.tnf = kTnfWellKnown;
    out.type = "U";
    out.payload.assign(1, code);
    for (const char *h : head)
        put(out.payload, h);
    return ZEL_OK;
}

void attr(std::vector<uint8_t> &v, uint8_t id, const uint8_t *value, uint8_t len)
{
    v.push_back(0x10);
    v.push_back(id);
    v.push_back(0);
    v.push_back(len);
    v.insert(v.end(), value, value + len);
}

} // namespace

ZEL_STATUS build_wifi(const char *ssid, uint8_t auth, uint8_t enc, const char *password, Built &out)
{
    static const uint8_t kAuth[5] = {0x01, 0x02, 0x08, 0x10, 0x20};
    static const uint8_t kEnc[5] = {0x01, 0x02, 0x04, 0x08, 0x0C};
    Str s, pw;
    if (!take(ssid, 0, 100, s) || !take(password, 0, 100, pw) || auth > 4 || enc > 4)
        return ZEL_PARAMETERS_ERROR;
    out.tnf = kTnfMedia;
    out.type = kWifiType;
    std::vector<uint8_t> &v = out.payload;
    v.clear();
    v.push_back(0x10);
    v.push_back(0x0E);
    v.push_back(0);
    v.push_back(static_cast<uint8_t>(s.n + pw.n + 35));
    const uint8_t index = 1;
    attr(v, 0x26, &index, 1);
    attr(v, 0x45, reinterpret_cast<const uint8_t *>(s.p), static_cast<uint8_t>(s.n));
    const uint8_t a[2] = {0, kAuth[auth]}, e[2] = {0, kEnc[enc]};
    attr(v, 0x03, a, 2);
    attr(v, 0x0F, e, 2);
    attr(v, 0x27, reinterpret_cast<const uint8_t *>(pw.p), static_cast<uint8_t>(pw.n));
    const uint8_t mac[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    attr(v, 0x20, mac, 6);
    return ZEL_OK;
}

ZEL_STATUS build_bt(const char *address, Built &out)
{
    Str a;
    if (!take(address, 12, 12, a))
        return ZEL_PARAMETERS_ERROR;
    out.tnf = kTnfMedia;
    out.type = kBluetoothType;
    out.payload.assign(8, 0);
    out.payload[0] = 0x08;
    size_t got = 0;
    for (size_t i = 0; i < a.n && got < 6; ++i) {
        const int hi = zel::hex_value(static_cast<unsigned char>(a.p[i]));
        if (hi < 0)
            continue;
        const int lo = i + 1 < a.n ? zel::hex_value(static_cast<unsigned char>(a.p[i + 1])) : -1;
        if (lo < 0)
            break; // a lone digit ends the collecting
        out.payload[2 + got++] = static_cast<uint8_t>(hi << 4 | lo);
        ++i;
    }
    return ZEL_OK;
}

ZEL_STATUS build_sms(const char *number, const char *message, Built &out)
{
    Str n, m;
    if (!take(number, 0, 50, n) || !take(message, 0, 200, m))
        return ZEL_PARAMETERS_ERROR;
    uri(kUriNoPrefix, {"sms:"}, out);
    put(out.payload, n);
    put(out.payload, "?body=");
    put(out.payload, m);
    return ZEL_OK;
}

ZEL_STATUS build_phone(const char *number, Built &out)
{
    Str n;
    if (!take(number, 0, 50, n))
        return ZEL_PARAMETERS_ERROR;
    uri(kUriTel, {}, out);
    put(out.payload, n);
    return ZEL_OK;
}

ZEL_STATUS build_contact(const char *name, const char *company, const char *address, const char *phone,
                         const char *email, const char *website, Built &out)
{
    Str fields[5];
    const char *given[5] = {company, address, phone, email, website};
    Str fn;
    if (!take(name, 1, 50, fn))
        return ZEL_PARAMETERS_ERROR;
    for (int i = 0; i < 5; ++i)
        if (!take(given[i] ? given[i] : "", 0, 50, fields[i]))
            return ZEL_PARAMETERS_ERROR;
    out.tnf = kTnfMedia;
    out.type = kVcardType;
    std::vector<uint8_t> &v = out.payload;
    v.clear();
    put(v, "BEGIN:VCARD\r\nVERSION:3.0\r\nFN:");
    put(v, fn);
    v.push_back('\n');
    static const char *const kHead[5] = {"ORG:", "ADR:;;", "TEL:", "EMAIL:", "URL:"};
    for (int i = 0; i < 5; ++i) {
        if (fields[i].n == 0)
            continue;
        put(v, kHead[i]);
        put(v, fields[i]);
        if (i == 1)
            put(v, ";;;;;");
        v.push_back('\n');
    }
    put(v, "END:VCARD");
    return ZEL_OK;
}

ZEL_STATUS build_viber(const char *message, Built &out)
{
    Str m;
    if (!take_whole(message, 150, m))
        return ZEL_PARAMETERS_ERROR;
    uri(kUriNoPrefix, {"viber://forward?text="}, out);
    put(out.payload, m);
    return ZEL_OK;
}

ZEL_STATUS build_whatsapp(const char *message, Built &out)
{
    Str m;
    if (!take_whole(message, 150, m))
        return ZEL_PARAMETERS_ERROR;
    uri(kUriNoPrefix, {"whatsapp://send?text="}, out);
    put(out.payload, m);
    return ZEL_OK;
}

ZEL_STATUS build_skype(const char *user, uint8_t action, Built &out)
{
    Str u;
    if (!take(user, 0, 100, u) || action > 1)
        return ZEL_PARAMETERS_ERROR;
    uri(kUriNoPrefix, {"skype:"}, out);
    put(out.payload, u);
    put(out.payload, action == 0 ? "?call" : "?chat");
    return ZEL_OK;
}

ZEL_STATUS build_streetview(const char *latitude, const char *longitude, Built &out)
{
    Str la, lo;
    if (!take(latitude, 0, 100, la) || !take(longitude, 0, 100, lo))
        return ZEL_PARAMETERS_ERROR;
    uri(kUriNoPrefix, {"google.streetview:cbll="}, out);
    put(out.payload, la);
    out.payload.push_back(',');
    put(out.payload, lo);
    return ZEL_OK;
}

ZEL_STATUS build_text(const char *text, Built &out)
{
    Str t;
    if (!take_whole(text, 10000, t))
        return ZEL_PARAMETERS_ERROR;
    out.tnf = kTnfWellKnown;
    out.type = "T";
    out.payload.assign({0x02, 'e', 'n'});
    put(out.payload, t);
    return ZEL_OK;
}

ZEL_STATUS build_android(const char *package, Built &out)
{
    Str p;
    if (!take(package, 0, 100, p))
        return ZEL_PARAMETERS_ERROR;
    out.tnf = kTnfExternal;
    out.type = kAndroidType;
    out.payload.clear();
    put(out.payload, p);
    return ZEL_OK;
}

ZEL_STATUS build_address(const char *address, Built &out)
{
    Str a;
    if (!take(address, 0, 200, a))
        return ZEL_PARAMETERS_ERROR;
    uri(kUriNoPrefix, {"geo:0,0?q="}, out);
    static const char kHex[] = "0123456789ABCDEF";
    for (size_t i = 0; i < a.n; ++i) {
        const uint8_t c = static_cast<uint8_t>(a.p[i]);
        const bool alnum = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        if (alnum) {
            out.payload.push_back(c);
        } else if (c == ' ') {
            out.payload.push_back('+');
        } else {
            out.payload.push_back('%');
            out.payload.push_back(static_cast<uint8_t>(kHex[c >> 4]));
            out.payload.push_back(static_cast<uint8_t>(kHex[c & 0x0F]));
        }
    }
    return ZEL_OK;
}

ZEL_STATUS build_email(const char *address, const char *subject, const char *message, Built &out)
{
    Str a, s, m;
    if (!take(address, 0, 50, a) || !take(subject, 0, 50, s) || !take(message, 0, 200, m))
        return ZEL_PARAMETERS_ERROR;
    uri(kUriMailto, {}, out);
    put(out.payload, a);
    put(out.payload, "?subject=");
    put(out.payload, s);
    put(out.payload, "&body=");
    put(out.payload, m);
    return ZEL_OK;
}

ZEL_STATUS build_navi(const char *destination, Built &out)
{
    Str d;
    if (!take(destination, 0, 150, d))
        return ZEL_PARAMETERS_ERROR;
    uri(kUriNoPrefix, {"google.navigation:q="}, out);
    put(out.payload, d);
    return ZEL_OK;
}

ZEL_STATUS build_geo(const char *latitude, const char *longitude, Built &out)
{
    Str la, lo;
    if (!take(latitude, 0, 100, la) || !take(longitude, 0, 100, lo))
        return ZEL_PARAMETERS_ERROR;
    uri(kUriNoPrefix, {"geo:"}, out);
    put(out.payload, la);
    out.payload.push_back(',');
    put(out.payload, lo);
    return ZEL_OK;
}

ZEL_STATUS build_bitcoin(const char *address, const char *amount, const char *message, Built &out)
{
    Str a, am, m;
    if (!take(address, 0, 100, a) || !take(amount, 0, 50, am) || !take(message, 0, 150, m))
        return ZEL_PARAMETERS_ERROR;
    uri(kUriNoPrefix, {"bitcoin:"}, out);
    put(out.payload, a);
    put(out.payload, "?amount=");
    put(out.payload, am);
    put(out.payload, "&message=");
    put(out.payload, m);
    return ZEL_OK;
}

} // namespace zel::ndefrec
