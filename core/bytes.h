// Little-endian fields and hex text: the byte helpers every layer of the library shares. Standard headers
// only, so that the base layer can use it too.
#ifndef ZEL_CORE_BYTES_H
#define ZEL_CORE_BYTES_H

#include <cstdint>

namespace zel {

// Little-endian fields. The getters answer uint32_t whatever the width, so that arithmetic on a field stays
// unsigned; the setters write the low bytes of v.
inline uint32_t get_le16(const uint8_t *p)
{
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8;
}
inline uint32_t get_le24(const uint8_t *p)
{
    return get_le16(p) | static_cast<uint32_t>(p[2]) << 16;
}
inline uint32_t get_le32(const uint8_t *p)
{
    return get_le24(p) | static_cast<uint32_t>(p[3]) << 24;
}
inline void put_le16(uint8_t *p, uint32_t v)
{
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}
inline void put_le24(uint8_t *p, uint32_t v)
{
    put_le16(p, v);
    p[2] = static_cast<uint8_t>(v >> 16);
}
inline void put_le32(uint8_t *p, uint32_t v)
{
    put_le24(p, v);
    p[3] = static_cast<uint8_t>(v >> 24);
}

// The value of one hex digit, either case; -1 for any other character.
inline int hex_value(int c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}
inline bool is_hex_digit(int c)
{
    return hex_value(c) >= 0;
}

// The upper-case digit of the low four bits of v.
inline char hex_digit(uint32_t v)
{
    return "0123456789ABCDEF"[v & 0x0F];
}

// Two upper-case digits a byte and a closing NUL: text takes 2 * n + 1 characters.
inline void hex_encode(const uint8_t *bytes, uint32_t n, char *text)
{
    for (uint32_t i = 0; i < n; ++i) {
        text[2 * i] = hex_digit(bytes[i] >> 4);
        text[2 * i + 1] = hex_digit(bytes[i]);
    }
    text[2 * n] = '\0';
}

// A blank, tab, line end, ':' or '-': what may stand between the bytes of a hex text.
inline bool is_hex_separator(char c)
{
    return c == ' ' || c == '\t' || c == ':' || c == '-' || c == '\n' || c == '\r';
}

// Decodes the NUL-terminated text into out (cap bytes), the count to *n. Digits go in pairs, either case;
// separators may stand between bytes, never inside one. False for any other character, a digit left
// without its pair, or more bytes than cap; *n then counts the bytes decoded before the fault.
inline bool hex_decode(const char *text, uint8_t *out, uint32_t cap, uint32_t *n)
{
    *n = 0;
    int high = -1;
    for (const char *p = text; *p; ++p) {
        if (is_hex_separator(*p)) {
            if (high >= 0)
                return false;
            continue;
        }
        const int v = hex_value(static_cast<unsigned char>(*p));
        if (v < 0)
            return false;
        if (high < 0) {
            high = v;
            continue;
        }
        if (*n == cap)
            return false;
        out[(*n)++] = static_cast<uint8_t>(high << 4 | v);
        high = -1;
    }
    return high < 0;
}

} // namespace zel

#endif
