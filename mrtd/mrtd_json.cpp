// The JSON writer of the document texts and the bounded BER length reader of the data group walks.
#include <cstdio>
#include <cstring>

#include "mrtd/mrtd_internal.h"
#include "zel_crypto.h"

namespace zel::mrtd {

bool read_tlv_len(const uint8_t *p, uint32_t avail, uint32_t *len_of_len, uint32_t *value_len)
{
    if (p == nullptr || avail < 1)
        return false;
    const uint8_t first = p[0];
    if (first <= 0x80) {
        *len_of_len = 1;
        *value_len = first;
        return true;
    }
    const uint32_t n = first - 0x80u;
    if (n > 4 || avail < 1 + n)
        return false;
    uint32_t v = 0;
    for (uint32_t i = 1; i <= n; ++i)
        v = (v << 8) | p[i];
    *len_of_len = 1 + n;
    *value_len = v;
    return true;
}

namespace {

// Length of the well-formed UTF-8 sequence at s (2 to 4 bytes), or 0.
size_t utf8_sequence(const unsigned char *s, size_t n)
{
    const unsigned char c = s[0];
    size_t len = 0;
    unsigned char lo = 0x80, hi = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) {
        len = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
        len = 3;
        if (c == 0xE0)
            lo = 0xA0;
        else if (c == 0xED)
            hi = 0x9F;
    } else if (c >= 0xF0 && c <= 0xF4) {
        len = 4;
        if (c == 0xF0)
            lo = 0x90;
        else if (c == 0xF4)
            hi = 0x8F;
    } else {
        return 0;
    }
    if (n < len || s[1] < lo || s[1] > hi)
        return 0;
    for (size_t i = 2; i < len; ++i)
        if (s[i] < 0x80 || s[i] > 0xBF)
            return 0;
    return len;
}

bool plain_ascii(unsigned char c)
{
    return c >= 0x20 && c < 0x7F;
}

// Writes the escaped form of s into out, which holds exactly json_escaped_size(s, n) + 1 bytes. Runs of
// printable ASCII go through the library's JSONEscapeString, which quotes " and \.
void json_escape_into(char *out, const char *s, size_t n)
{
    const auto *u = reinterpret_cast<const unsigned char *>(s);
    size_t pos = 0, i = 0;
    char run[65];
    while (i < n) {
        if (plain_ascii(u[i])) {
            size_t k = 0;
            size_t size = 0;
            while (i < n && k < sizeof run - 1 && plain_ascii(u[i])) {
                size += (u[i] == '"' || u[i] == '\\') ? 2 : 1;
                run[k++] = static_cast<char>(u[i++]);
            }
            run[k] = '\0';
            pos += JSONEscapeString(out + pos, run, static_cast<uint32_t>(size + 1));
            continue;
        }
        const size_t seq = u[i] >= 0x80 ? utf8_sequence(u + i, n - i) : 0;
        if (seq) {
            std::memcpy(out + pos, u + i, seq);
            pos += seq;
            i += seq;
        } else {
            std::snprintf(out + pos, 7, "\\u%04x", u[i]);
            pos += 6;
            ++i;
        }
    }
    out[pos] = '\0';
}

} // namespace

size_t json_escaped_size(const char *s, size_t n)
{
    const auto *u = reinterpret_cast<const unsigned char *>(s);
    size_t size = 0;
    for (size_t i = 0; i < n;) {
        if (plain_ascii(u[i])) {
            size += (u[i] == '"' || u[i] == '\\') ? 2 : 1;
            ++i;
            continue;
        }
        const size_t seq = u[i] >= 0x80 ? utf8_sequence(u + i, n - i) : 0;
        if (seq) {
            size += seq;
            i += seq;
        } else {
            size += 6;
            ++i;
        }
    }
    return size;
}

bool json_put_raw(char *out, uint32_t cap, uint32_t *pos, const char *text)
{
    if (out == nullptr || pos == nullptr || text == nullptr)
        return false;
    const size_t n = std::strlen(text);
    if (uint64_t(*pos) + n >= cap)
        return false;
    std::memcpy(out + *pos, text, n + 1);
    *pos += static_cast<uint32_t>(n);
    return true;
}

bool json_put_escaped(char *out, uint32_t cap, uint32_t *pos, const char *text)
{
    if (out == nullptr || pos == nullptr || text == nullptr)
        return false;
    const size_t n = std::strlen(text);
    const size_t need = json_escaped_size(text, n);
    if (uint64_t(*pos) + need >= cap)
        return false;
    json_escape_into(out + *pos, text, n);
    *pos += static_cast<uint32_t>(need);
    return true;
}

bool json_put_member(char *out, uint32_t cap, uint32_t *pos, const char *key, const char *value, bool first)
{
    if (out == nullptr || pos == nullptr || key == nullptr || value == nullptr)
        return false;
    const size_t need = (first ? 0 : 1) + 1 + std::strlen(key) + 3 + json_escaped_size(value, std::strlen(value)) + 1;
    if (uint64_t(*pos) + need >= cap)
        return false;
    // Everything fits: the pieces cannot fail.
    json_put_raw(out, cap, pos, first ? "\"" : ",\"");
    json_put_raw(out, cap, pos, key);
    json_put_raw(out, cap, pos, "\":\"");
    json_put_escaped(out, cap, pos, value);
    json_put_raw(out, cap, pos, "\"");
    return true;
}

} // namespace zel::mrtd
