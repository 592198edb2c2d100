// Reading typed records: the fields of each kind as the readers give them, and the text report of
// ParseNdefMessage. Every byte read here comes from a card: each index is tested against the payload's
// length before it is used.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "ndefrec/ndefrec_internal.h"
#include "tandro.h"

namespace zel::ndefrec {

namespace {

constexpr size_t npos = static_cast<size_t>(-1);

const char *const kAuthText[][2] = {{"\x01", "OPEN"},
                                    {"\x02", "WPA-Personal"},
                                    {"\x08", "WPA-Enterprise"},
                                    {"\x10", "WPA2-Enterprise"},
                                    {"\x20", "WPA2-Personal"}};
const char *const kEncText[][2] = {
    {"\x01", "NONE"}, {"\x02", "WEP"}, {"\x04", "TKIP"}, {"\x08", "AES"}, {"\x0C", "AES/TKIP"}};

const char *type_text(const char *const table[][2], uint8_t value)
{
    for (int i = 0; i < 5; ++i)
        if (static_cast<uint8_t>(table[i][0][0]) == value)
            return table[i][1];
    return "";
}

bool type_is(const Seen &r, const char *t)
{
    const size_t n = std::strlen(t);
    return r.type && r.type_len == n && std::memcmp(r.type, t, n) == 0;
}

bool starts(const Seen &r, const char *prefix)
{
    const size_t n = std::strlen(prefix);
    return r.payload && r.payload_len >= n && std::memcmp(r.payload, prefix, n) == 0;
}

std::string range(const uint8_t *p, size_t from, size_t to)
{
    return from < to ? std::string(reinterpret_cast<const char *>(p) + from, to - from) : std::string();
}

size_t last_of(const uint8_t *p, size_t from, size_t to, uint8_t c)
{
    size_t hit = npos;
    for (size_t i = from; i < to; ++i)
        if (p[i] == c)
            hit = i;
    return hit;
}

// The end of the text of a kind written with URI code 0: such a record comes from read_ndef_record with a
// length one above its text. Records of other types are taken at their length.
size_t text_end(const Seen &r)
{
    const bool uri = r.tnf == 1 && r.type_len == 1 && r.type && r.type[0] == 'U';
    return uri && r.payload_len ? r.payload_len - 1 : r.payload_len;
}

// The "?" of an SMS: the first from byte 4 whose next byte is "b" and fifth next byte is "=", before end.
size_t sms_mark(const uint8_t *p, size_t end)
{
    for (size_t i = 4; i + 5 < end; ++i)
        if (p[i] == '?' && p[i + 1] == 'b' && p[i + 5] == '=')
            return i;
    return npos;
}

// Splits [from, end) at the last c in it: before and after it, or all before when there is none.
void split_last(const uint8_t *p, size_t from, size_t end, uint8_t c, std::vector<std::string> &f)
{
    const size_t at = last_of(p, from, end, c);
    if (at == npos) {
        f = {range(p, from, end), std::string()};
        return;
    }
    f = {range(p, from, at), range(p, at + 1, end)};
}

} // namespace

void scan_wifi(const uint8_t *p, size_t n, WifiFields &out)
{
    out = WifiFields{};
    if (!p)
        return;
    for (size_t i = 0; i + 3 < n; ++i) {
        if (p[i] != 0x10)
            continue;
        const uint8_t id = p[i + 1];
        const size_t len = p[i + 3], v = i + 4;
        // A value that would run past the payload is no attribute.
        if (v + len > n)
            continue;
        switch (id) {
        case 0x45: out.ssid.assign(reinterpret_cast<const char *>(p + v), len); break;
        case 0x27: out.password.assign(reinterpret_cast<const char *>(p + v), len); break;
        case 0x03: out.auth = len && v + 1 < n ? type_text(kAuthText, p[v + 1]) : ""; break;
        case 0x0F: out.enc = len && v + 1 < n ? type_text(kEncText, p[v + 1]) : ""; break;
        default: break;
        }
    }
}

ZEL_STATUS extract(Kind kind, const Seen &r, std::vector<std::string> &f)
{
    f.clear();
    const uint8_t *p = r.payload;
    const size_t n = r.payload_len;
    if (!p && n)
        return ZEL_NDEF_MESSAGE_NOT_COMPATIBLE;
    const size_t end = text_end(r);
    switch (kind) {
    case Kind::WiFi: {
        if (!type_is(r, kWifiType))
            return ZEL_NDEF_MESSAGE_NOT_COMPATIBLE;
        WifiFields w;
        scan_wifi(p, n, w);
        f = {w.ssid, w.auth, w.enc, w.password};
        return ZEL_OK;
    }
    case Kind::BT: {
        if (!type_is(r, kBluetoothType) || n < 8)
            return ZEL_NDEF_MESSAGE_NOT_COMPATIBLE;
        char hex[13];
        for (int i = 0; i < 6; ++i)
            std::snprintf(hex + 2 * i, 3, "%02X", p[2 + i]);
        f = {std::string(hex, 12)};
        return ZEL_OK;
    }
    case Kind::SMS: {
        if (!starts(r, "sms:"))
            return ZEL_NDEF_MESSAGE_NOT_COMPATIBLE;
        const size_t q = sms_mark(p, end);
        // Without the mark the number is the whole rest and the message the whole text, "sms:" included.
        if (q == npos)
            f = {range(p, 4, end), range(p, 0, end)};
        else
            f = {range(p, 4, q), range(p, q + 6, end)};
        return ZEL_OK;
    }
    case Kind::Phone:
        if (!starts(r, "tel:"))
            return ZEL_NDEF_MESSAGE_NOT_COMPATIBLE;
        f = {range(p, 4, n)};
        return ZEL_OK;
    case Kind::Contact:
        if (!type_is(r, kVcardType))
            return ZEL_NDEF_MESSAGE_NOT_COMPATIBLE;
        f = {range(p, 0, n)};
        return ZEL_OK;
    case Kind::Viber:
    case Kind::Whatsapp: {
        const char *prefix = kind == Kind::Viber ? "viber://forward?text=" : "whatsapp://send?text=";
        if (!starts(r, prefix))
            return ZEL_NDEF_MESSAGE_NOT_COMPATIBLE;
        f = {range(p, std::strlen(prefix), end)};
        return ZEL_OK;
    }
    case Kind::Skype:
        if (!starts(r, "skype:"))
            return ZEL_NDEF_MESSAGE_NOT_COMPATIBLE;
        split_last(p, 6, end, '?', f);
        return ZEL_OK;
    case Kind::StreetView:
        if (!starts(r, "google.streetview:cbll="))
            return ZEL_NDEF_MESSAGE_NOT_COMPATIBLE;
        split_last(p, 23, end, ',', f);
        return ZEL_OK;
    case Kind::Text:
        if (!(r.type_len == 1 && r.type && r.type[0] == 'T') || !starts(r, "\x02"
                                                                           "en"))
            return ZEL_NDEF_MESSAGE_NOT_COMPATIBLE;
        f = {range(p, 3, n)};
        return ZEL_OK;
    case Kind::AndroidApp:
        if (!type_is(r, kAndroidType))
            return ZEL_NDEF_MESSAGE_NOT_COMPATIBLE;
        f = {range(p, 0, n)};
        return ZEL_OK;
    case Kind::Address:
        if (!starts(r, "geo:0,0?q="))
            return ZEL_NDEF_MESSAGE_NOT_COMPATIBLE;
        f = {range(p, 10, end)};
        return ZEL_OK;
    case Kind::Email: {
        if (!starts(r, "mailto:"))
            return ZEL_NDEF_MESSAGE_NOT_COMPATIBLE;
        size_t q = last_of(p, 0, n, '?'), a = last_of(p, 0, n, '&');
        if (q == npos)
            q = n;
        if (a == npos || a < q)
            a = n;
        f = {range(p, 7, q), range(p, q + 9, a), range(p, a + 6, n)};
        return ZEL_OK;
    }
    case Kind::NaviDestination:
        if (!starts(r, "google.navigation:q="))
            return ZEL_NDEF_MESSAGE_NOT_COMPATIBLE;
        f = {range(p, 20, end)};
        return ZEL_OK;
    case Kind::GeoLocation:
        // A latitude that begins with 0 is refused: "geo:0" is how an address record begins.
        if (!starts(r, "geo:") || n < 5 || p[4] == '0')
            return ZEL_NDEF_MESSAGE_NOT_COMPATIBLE;
        split_last(p, 4, end, ',', f);
        return ZEL_OK;
    case Kind::Bitcoin: {
        if (!starts(r, "bitcoin:"))
            return ZEL_NDEF_MESSAGE_NOT_COMPATIBLE;
        size_t q = last_of(p, 8, end, '?'), a = last_of(p, 8, end, '&');
        if (q == npos)
            q = end;
        if (a == npos || a < q)
            a = end;
        f = {range(p, 8, q), range(p, q + 8, a), range(p, a + 9, end)};
        return ZEL_OK;
    }
    }
    return ZEL_NDEF_MESSAGE_NOT_COMPATIBLE;
}

namespace {

// The report's writer: formats into the buffer, cutting what does not fit.
struct Report {
    char *out;
    size_t size;
    void say(const char *fmt, ...) __attribute__((format(printf, 2, 3)))
    {
        va_list ap;
        va_start(ap, fmt);
        std::vsnprintf(out, size, fmt, ap);
        va_end(ap);
    }
};

// Bytes [from, to) of the payload on 8-bit indexes; the string stops at a zero byte as the report prints it.
std::string f8(const uint8_t *p, uint8_t from, uint8_t to)
{
    std::string s = range(p, from, to);
    return s.substr(0, std::strlen(s.c_str()));
}

// The last c in [from, to), or -1.
int last8(const uint8_t *p, uint8_t from, uint8_t to, uint8_t c)
{
    int hit = -1;
    for (unsigned i = from; i < to; ++i)
        if (p[i] == c)
            hit = static_cast<int>(i);
    return hit;
}

// An index k bytes behind a found one, on 8 bits.
uint8_t after(int at, unsigned k)
{
    return static_cast<uint8_t>(static_cast<unsigned>(at) + k);
}

// Three fields split by a mark and a later separator: [from, mark), [mark + skip1, sep), [sep + skip2, end).
// Without the mark the first field runs to the end; without a separator behind the mark, the second does.
void split3(const uint8_t *p, uint8_t from, int mark, int sep, unsigned skip1, unsigned skip2, uint8_t end,
            std::string &first, std::string &second, std::string &third)
{
    if (mark < 0) {
        first = f8(p, from, end);
        second = third = std::string();
        return;
    }
    first = f8(p, from, static_cast<uint8_t>(mark));
    if (sep < mark) {
        second = f8(p, after(mark, skip1), end);
        third = std::string();
        return;
    }
    second = f8(p, after(mark, skip1), static_cast<uint8_t>(sep));
    third = f8(p, after(sep, skip2), end);
}

bool begins(const uint8_t *p, uint32_t n, const char *prefix)
{
    const size_t k = std::strlen(prefix);
    return n >= k && std::memcmp(p, prefix, k) == 0;
}

// The URI kinds, in the order they are tested. L is the payload's length on 8 bits; every index is below
// L or below 256 where the payload is longer, so all of them lie inside the payload. The last field ends
// before index L - 1 (the records of code 0 arrive one byte longer than their text), but for SMS and phone.
void uri_report(const uint8_t *p, uint32_t n, Report &rep)
{
    const uint8_t L = static_cast<uint8_t>(n);
    const uint8_t end = static_cast<uint8_t>(L - 1);
    if (begins(p, n, "bitcoin:")) {
        std::string a, am, m;
        if (L >= 9)
            split3(p, 8, last8(p, 8, end, '?'), last8(p, 8, end, '&'), 8, 9, end, a, am, m);
        rep.say("Bitcoin address: %s\nAmount: %s\nMessage: %s", a.c_str(), am.c_str(), m.c_str());
    } else if (begins(p, n, "geo:0,0?q=")) {
        rep.say("Address: %s", L >= 12 ? f8(p, 10, end).c_str() : "");
    } else if (begins(p, n, "geo:")) {
        const int c = last8(p, 4, end, ',');
        const std::string la = f8(p, 4, c < 0 ? end : c), lo = c < 0 ? "" : f8(p, after(c, 1), end);
        rep.say("Location latitude: %s\nLocation longitude: %s", la.c_str(), lo.c_str());
    } else if (begins(p, n, "google.navigation:q=")) {
        rep.say("Destination: %s", L >= 22 ? f8(p, 20, end).c_str() : "");
    } else if (begins(p, n, "mailto:")) {
        std::string a, sub, m;
        split3(p, 7, last8(p, 0, L, '?'), last8(p, 0, L, '&'), 9, 6, end, a, sub, m);
        rep.say("Email address: %s\nSubject: %s\nMessage: %s", a.c_str(), sub.c_str(), m.c_str());
    } else if (begins(p, n, "google.streetview:cbll=")) {
        const int c = last8(p, 23, end, ',');
        const std::string la = f8(p, 23, c < 0 ? end : c), lo = c < 0 ? "" : f8(p, after(c, 1), end);
        rep.say("StreetView latitude: %s\nStreetView longitude: %s", la.c_str(), lo.c_str());
    } else if (begins(p, n, "skype:")) {
        const int q = last8(p, 6, end, '?');
        const std::string u = f8(p, 6, q < 0 ? end : q), a = q < 0 ? "" : f8(p, after(q, 1), end);
        rep.say("Username: %s\nAction: %s", u.c_str(), a.c_str());
    } else if (begins(p, n, "whatsapp://send?text=")) {
        rep.say("Whatsapp message: %s", f8(p, 21, end).c_str());
    } else if (begins(p, n, "viber://forward?text=")) {
        rep.say("Viber message: %s", f8(p, 21, end).c_str());
    } else if (begins(p, n, "sms:")) {
        uint8_t q = L;
        for (unsigned i = 4; i + 5 < L; ++i)
            if (p[i] == '?' && p[i + 1] == 'b' && p[i + 5] == '=') {
                q = static_cast<uint8_t>(i);
                break;
            }
        const std::string num = f8(p, 4, q), msg = q < L ? f8(p, static_cast<uint8_t>(q + 6), L) : "";
        rep.say("Phone number: %s\nMessage: %s", num.c_str(), msg.c_str());
    } else if (begins(p, n, "tel:")) {
        rep.say("Phone number: %s", f8(p, 4, L).c_str());
    }
}

// A type that is the start of the candidate (or the whole of it, its terminating zero included).
bool type_starts(const uint8_t *type, uint8_t len, const char *candidate)
{
    return len <= std::strlen(candidate) + 1 && std::memcmp(type, candidate, len) == 0;
}

} // namespace

void parse_report(const uint8_t *type, uint8_t type_len, const uint8_t *payload, uint32_t payload_len, char *out,
                  size_t size)
{
    if (!out || size == 0)
        return;
    std::memset(out, 0, size);
    Report rep{out, size};
    if (!type || !payload || type_len == 0 || payload_len == 0) {
        rep.say("%s", "MESSAGE NOT FOUND");
        return;
    }
    const uint8_t *p = payload;
    const uint32_t n = payload_len;
    if (type_starts(type, type_len, kWifiType)) {
        WifiFields w;
        scan_wifi(p, n, w);
        rep.say("SSID: %s\nAuthentication type: %s\nEncryption type: %s\nPassword: %s", w.ssid.c_str(), w.auth.c_str(),
                w.enc.c_str(), w.password.c_str());
    } else if (type_starts(type, type_len, kBluetoothType)) {
        if (n < 8)
            rep.say("%s", "MESSAGE NOT COMPATIBLE");
        else
            rep.say("BT MAC address: %02X%02X%02X%02X%02X%02X", p[2], p[3], p[4], p[5], p[6], p[7]);
    } else if (type_starts(type, type_len, kAndroidType)) {
        rep.say("Package name: %s", range(p, 0, n).c_str());
    } else if (type_starts(type, type_len, kVcardType)) {
        rep.say("%s", range(p, 0, n).c_str());
    } else if (type[0] == 'U') {
        uri_report(p, n, rep);
    } else if (type[0] == 'T') {
        if (begins(p, n,
                   "\x02"
                   "en"))
            rep.say("Text: %s", range(p, 3, n).c_str());
        else
            rep.say("%s", "MESSAGE NOT COMPATIBLE");
    } else {
        rep.say("%s", "MESSAGE NOT COMPATIBLE");
    }
}

} // namespace zel::ndefrec

extern "C" ZEL_API const char *ParseNdefMessage(const uint8_t *type_record, uint8_t type_length, const uint8_t *payload,
                                                uint32_t payload_length)
{
    dp(0, "API begin: %s()", __func__);
    static char report[ZEL_NDEF_PARSE_TEXT_SIZE];
    zel::ndefrec::parse_report(type_record, type_length, payload, payload_length, report, sizeof report);
    return report;
}
