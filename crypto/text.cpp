// The BER length and tag readers, the PEM certificate reader and the small text helpers: binary search,
// growing texts, hexadecimal and JSON output.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/bytes.h"
#include "zel_crypto.h"
#include "zel_status.h"

namespace {

const char kPemBegin[] = "-----BEGIN CERTIFICATE-----"; // 27 characters
const char kPemEnd[] = "-----END CERTIFICATE-----";     // 25 characters

int b64_value(uint8_t c)
{
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    if (c == '+')
        return 62;
    if (c == '/')
        return 63;
    return -1;
}

bool b64_skippable(uint8_t c)
{
    return c == '\r' || c == '\n' || c == ' ' || c == '\t';
}

// Base-64 that skips line breaks and blanks and nothing else. Padding is optional, but once it starts only
// padding and blanks may follow. Answers the decoded length, or -1.
long base64_decode(const uint8_t *in, uint32_t in_len, uint8_t *out)
{
    uint32_t acc = 0, bits = 0, symbols = 0, pads = 0;
    long n = 0;
    for (uint32_t i = 0; i < in_len; ++i) {
        const uint8_t c = in[i];
        if (b64_skippable(c))
            continue;
        if (c == '=') {
            ++pads;
            continue;
        }
        const int v = b64_value(c);
        if (v < 0 || pads != 0)
            return -1;
        ++symbols;
        acc = (acc << 6) | static_cast<uint32_t>(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out[n++] = static_cast<uint8_t>(acc >> bits);
            acc &= (1u << bits) - 1;
        }
    }
    if (symbols % 4 == 1 || pads > 2 || (pads != 0 && (symbols + pads) % 4 != 0))
        return -1;
    return n;
}

} // namespace

extern "C" {

ZEL_API int getTlvLen(const uint8_t *p, uint8_t *len_of_len, uint32_t *value_len)
{
    if (len_of_len)
        *len_of_len = 0;
    if (value_len)
        *value_len = 0;
    if (p == nullptr)
        return 0;
    uint32_t count = 0, value = 0;
    if (p[0] < 0x81) {
        value = p[0];
    } else if (p[0] <= 0x84) {
        count = p[0] - 0x80u;
        for (uint32_t i = 0; i < count; ++i)
            value = (value << 8) | p[1 + i];
    } else {
        return 0;
    }
    if (len_of_len)
        *len_of_len = static_cast<uint8_t>(count + 1);
    if (value_len)
        *value_len = value;
    return 1;
}

ZEL_API ZEL_STATUS get_ber_tlv_length(const uint8_t *p, uint8_t *len_of_len, uint32_t *value_len)
{
    if (len_of_len)
        *len_of_len = 0;
    if (value_len)
        *value_len = 0;
    if (p == nullptr)
        return ZEL_PARAMETERS_ERROR;
    uint8_t size;
    uint32_t value;
    if (p[0] < 0x80) {
        size = 1;
        value = p[0];
    } else if (p[0] == 0x81) {
        size = 2;
        value = p[1];
    } else if (p[0] == 0x82) {
        size = 3;
        value = (uint32_t(p[1]) << 8) | p[2];
    } else {
        return ZEL_PARAMETERS_ERROR;
    }
    if (len_of_len)
        *len_of_len = size;
    if (value_len)
        *value_len = value;
    return ZEL_OK;
}

ZEL_API uint32_t parse_ber_tag(const uint8_t *p, int32_t len, uint8_t *tag_len)
{
    if (tag_len)
        *tag_len = 0;
    if (p == nullptr || len == 0)
        return 0;
    if ((p[0] & 0x1F) < 0x1F) {
        if (tag_len)
            *tag_len = 1;
        return p[0];
    }
    if (len < 2 || p[1] >= 0x80)
        return 0;
    if (tag_len)
        *tag_len = 2;
    return uint32_t(p[0]) * 256u + p[1];
}

ZEL_API uint32_t strmempos(const uint8_t *mem, uint32_t len, const char *needle)
{
    if (mem == nullptr || needle == nullptr)
        return 0xFFFFFFFFu;
    const uint32_t n = static_cast<uint32_t>(std::strlen(needle));
    // "Not found" when len is not above n - 1, which for an empty needle (n - 1 wraps) is always.
    if (len <= n - 1u)
        return 0xFFFFFFFFu;
    for (uint32_t i = 0; i + n <= len; ++i)
        if (std::memcmp(mem + i, needle, n) == 0)
            return i;
    return 0xFFFFFFFFu;
}

ZEL_API const uint8_t *strmem(const uint8_t *mem, uint32_t len, const char *needle)
{
    const uint32_t pos = strmempos(mem, len, needle);
    return pos == 0xFFFFFFFFu ? nullptr : mem + pos;
}

ZEL_API ZEL_STATUS pemCertToDer(const uint8_t *in, uint32_t in_len, uint8_t **der, uint32_t *der_len)
{
    if (der)
        *der = nullptr;
    if (der_len)
        *der_len = 0;
    const uint32_t begin_len = sizeof kPemBegin - 1;
    if (in == nullptr || der == nullptr || der_len == nullptr || in_len < begin_len)
        return ZEL_WRONG_PEM_CERT_FORMAT;
    if (strmempos(in, in_len, kPemBegin) == 0xFFFFFFFFu)
        return ZEL_WRONG_PEM_CERT_FORMAT;
    // The base-64 runs from byte 27 to the end line, wherever the begin line stood.
    const uint32_t b64_len = strmempos(in + begin_len, in_len - begin_len, kPemEnd);
    if (b64_len == 0xFFFFFFFFu || b64_len == 0)
        return ZEL_WRONG_PEM_CERT_FORMAT;
    uint8_t *buf = static_cast<uint8_t *>(std::malloc(b64_len));
    if (buf == nullptr)
        return ZEL_NO_MEMORY_ERROR;
    const long n = base64_decode(in + begin_len, b64_len, buf);
    if (n <= 0) {
        std::free(buf);
        return ZEL_WRONG_PEM_CERT_FORMAT;
    }
    *der = buf;
    *der_len = static_cast<uint32_t>(n);
    return ZEL_OK;
}

ZEL_API uint32_t fsizeof(FILE *f)
{
    if (f == nullptr)
        return 0;
    if (std::fseek(f, 0, SEEK_END) != 0)
        return 0;
    const long size = std::ftell(f);
    std::fseek(f, 0, SEEK_SET);
    return size < 0 ? 0 : static_cast<uint32_t>(size);
}

ZEL_API ZEL_STATUS Orbrealloc(void **p, uint32_t a, uint32_t b)
{
    if (p == nullptr)
        return ZEL_NO_MEMORY_ERROR;
    const uint64_t size = uint64_t(a) + b;
    void *grown = size > 0xFFFFFFFFu ? nullptr : std::realloc(*p, size ? size : 1);
    if (grown == nullptr) {
        std::free(*p);
        *p = nullptr;
        return ZEL_NO_MEMORY_ERROR;
    }
    *p = grown;
    return ZEL_OK;
}

ZEL_API ZEL_STATUS Orbsprintf(char **text, uint32_t *len, const char *a, const char *b, const char *c)
{
    if (text == nullptr)
        return ZEL_NO_MEMORY_ERROR;
    if (*text == nullptr) {
        if (len)
            *len = 0;
        *text = static_cast<char *>(std::calloc(1, 1));
        if (*text == nullptr)
            return ZEL_NO_MEMORY_ERROR;
    }
    if (a == nullptr)
        a = "";
    if (b == nullptr)
        b = "";
    if (c == nullptr)
        c = "\n";
    const size_t old = std::strlen(*text);
    const size_t add = std::strlen(a) + std::strlen(b) + std::strlen(c);
    void *p = *text;
    if (Orbrealloc(&p, static_cast<uint32_t>(old), static_cast<uint32_t>(add + 1)) != ZEL_OK) {
        *text = nullptr;
        return ZEL_NO_MEMORY_ERROR;
    }
    *text = static_cast<char *>(p);
    std::snprintf(*text + old, add + 1, "%s%s%s", a, b, c);
    return ZEL_OK;
}

ZEL_API void hexsprintf(char *out, uint32_t out_size, const uint8_t *bytes, uint32_t n)
{
    if (out == nullptr || out_size == 0)
        return;
    out[0] = '\0';
    if (bytes == nullptr && n != 0)
        return;
    uint32_t take = n;
    bool cut = false;
    if (uint64_t(n) * 2 > out_size - 1u) {
        cut = true;
        take = out_size / 2 >= 2 ? out_size / 2 - 2 : 0;
    }
    uint32_t pos = 0;
    for (uint32_t i = 0; i < take; ++i) {
        out[pos++] = zel::hex_digit(bytes[i] >> 4);
        out[pos++] = zel::hex_digit(bytes[i]);
    }
    out[pos] = '\0';
    if (cut) {
        // Room for "..." and the NUL: a size below 4 keeps what fits of it.
        std::snprintf(out + pos, out_size - pos, "...");
    }
}

ZEL_API ZEL_STATUS json_append(char *buf, uint32_t *pos, uint32_t cap, const char *text)
{
    if (buf == nullptr || pos == nullptr || text == nullptr)
        return ZEL_BUFFER_SIZE_EXCEEDED;
    const size_t n = std::strlen(text);
    if (uint64_t(*pos) + n >= cap)
        return ZEL_BUFFER_SIZE_EXCEEDED;
    std::memcpy(buf + *pos, text, n + 1);
    *pos += static_cast<uint32_t>(n);
    return ZEL_OK;
}

ZEL_API uint32_t JSONEscapeString(char *out, const char *in, uint32_t cap)
{
    if (out == nullptr || in == nullptr || cap == 0)
        return 0;
    uint32_t pos = 0;
    for (const char *s = in; *s; ++s) {
        char escape = 0;
        switch (*s) {
        case '\b': escape = 'b'; break;
        case '\t': escape = 't'; break;
        case '\n': escape = 'n'; break;
        case '\f': escape = 'f'; break;
        case '\r': escape = 'r'; break;
        case '"': escape = '"'; break;
        case '\\': escape = '\\'; break;
        default: break;
        }
        if (escape) {
            if (pos + 2 >= cap)
                break;
            out[pos++] = '\\';
            out[pos++] = escape;
        } else {
            if (pos >= cap - 1)
                break;
            out[pos++] = *s;
        }
    }
    out[pos] = '\0';
    return pos;
}

} // extern "C"
