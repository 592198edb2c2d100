#include "tools/card_image.h"

#include <cstdio>
#include <cstring>

namespace tandro {

namespace {

int hex_digit(uint8_t c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

bool text_byte(uint8_t c)
{
    return (c >= 0x20 && c < 0x7F) || c == '\t' || c == '\r' || c == '\n';
}

// A byte of a faulty line for a message: itself when printable, else its code.
std::string shown(uint8_t c)
{
    char text[16];
    if (c >= 0x20 && c < 0x7F)
        std::snprintf(text, sizeof text, "'%c'", static_cast<char>(c));
    else
        std::snprintf(text, sizeof text, "byte 0x%02X", c);
    return text;
}

std::string sectors_text(size_t n)
{
    return std::to_string(n) + " sector" + (n == 1 ? "" : "s");
}

bool parse_binary(const uint8_t *data, size_t size, std::vector<SectorKeys> &out, std::string &err)
{
    if (size == 0 || size % 12 != 0) {
        err = std::to_string(size) + " bytes: a binary key file holds 12 bytes a sector (key A, then key B)";
        return false;
    }
    if (size / 12 > kMaxKeySectors) {
        err = std::to_string(size) + " bytes: keys for " + sectors_text(size / 12) + ", more than a card has (" +
              std::to_string(kMaxKeySectors) + ")";
        return false;
    }
    for (size_t at = 0; at < size; at += 12) {
        SectorKeys k;
        std::memcpy(k.a, data + at, 6);
        std::memcpy(k.b, data + at + 6, 6);
        out.push_back(k);
    }
    return true;
}

bool parse_text(const uint8_t *data, size_t size, std::vector<SectorKeys> &out, std::string &err)
{
    std::vector<uint8_t> keys; // 6 bytes a key, in file order
    size_t line = 0, last_key_line = 0;
    for (size_t at = 0; at < size;) {
        ++line;
        size_t end = at;
        while (end < size && data[end] != '\n')
            ++end;
        const size_t next = end + 1;
        const std::string where = "line " + std::to_string(line) + ": ";
        // The key is what stands before a comment, without the blanks around it.
        size_t stop = at;
        while (stop < end && data[stop] != '#')
            ++stop;
        while (at < stop && (data[at] == ' ' || data[at] == '\t' || data[at] == '\r'))
            ++at;
        while (stop > at && (data[stop - 1] == ' ' || data[stop - 1] == '\t' || data[stop - 1] == '\r'))
            --stop;
        if (at == stop) {
            at = next;
            continue;
        }
        for (size_t i = at; i < stop; ++i)
            if (hex_digit(data[i]) < 0) {
                err = where + shown(data[i]) + " is not a hex digit (one key of 12 hex digits a line)";
                return false;
            }
        if (stop - at != 12) {
            err = where + std::to_string(stop - at) + " hex digits, a key has 12";
            return false;
        }
        if (keys.size() / 12 >= kMaxKeySectors) {
            err = where + "more keys than the " + std::to_string(2 * kMaxKeySectors) + " of " +
                  sectors_text(kMaxKeySectors) + ", the most a card has";
            return false;
        }
        for (size_t i = at; i < stop; i += 2)
            keys.push_back(static_cast<uint8_t>(hex_digit(data[i]) << 4 | hex_digit(data[i + 1])));
        last_key_line = line;
        at = next;
    }
    if (keys.empty()) {
        err = "line " + std::to_string(line) + ": the file ends without a key";
        return false;
    }
    if (keys.size() % 12 != 0) {
        err = "line " + std::to_string(last_key_line) + ": key A of sector " + std::to_string(keys.size() / 12) +
              " has no key B after it (keys come in pairs, A then B)";
        return false;
    }
    return parse_binary(keys.data(), keys.size(), out, err);
}

} // namespace

bool parse_key_file(const uint8_t *data, size_t size, KeyFileFormat format, std::vector<SectorKeys> &out,
                    std::string &err)
{
    out.clear();
    err.clear();
    if (format == KeyFileFormat::AUTO) {
        format = KeyFileFormat::TEXT;
        for (size_t i = 0; i < size; ++i)
            if (!text_byte(data[i])) {
                format = KeyFileFormat::BINARY;
                break;
            }
        if (size == 0)
            format = KeyFileFormat::BINARY;
    }
    const bool ok =
        format == KeyFileFormat::TEXT ? parse_text(data, size, out, err) : parse_binary(data, size, out, err);
    if (!ok)
        out.clear();
    return ok;
}

bool sector_count(uint32_t raw_size, unsigned &sectors)
{
    switch (raw_size) {
    case 320: sectors = 5; return true;
    case 1024: sectors = 16; return true;
    case 2048: sectors = 32; return true;
    case 4096: sectors = 40; return true;
    default: return false;
    }
}

unsigned sector_first_block(unsigned sector)
{
    return sector < 32 ? sector * 4 : 128 + (sector - 32) * 16;
}

unsigned sector_blocks(unsigned sector)
{
    return sector < 32 ? 4 : 16;
}

bool access_codes(const uint8_t access[3], uint8_t codes[4])
{
    const uint8_t c1 = access[1] >> 4, c2 = access[2] & 0x0F, c3 = access[2] >> 4;
    const uint8_t n1 = access[0] & 0x0F, n2 = access[0] >> 4, n3 = access[1] & 0x0F;
    if ((c1 ^ n1) != 0x0F || (c2 ^ n2) != 0x0F || (c3 ^ n3) != 0x0F)
        return false;
    for (int i = 0; i < 4; ++i)
        codes[i] = static_cast<uint8_t>(((c1 >> i) & 1) << 2 | ((c2 >> i) & 1) << 1 | ((c3 >> i) & 1));
    return true;
}

bool key_b_readable(uint8_t trailer_code)
{
    return trailer_code <= 2;
}

std::string trailer_fault(const uint8_t trailer[16])
{
    uint8_t codes[4];
    if (!access_codes(trailer + 6, codes)) {
        char bytes[8];
        std::snprintf(bytes, sizeof bytes, "%02X%02X%02X", trailer[6], trailer[7], trailer[8]);
        return std::string("access bytes ") + bytes +
               " are not valid (each bit must come once plain and once "
               "inverted); the card would lock the sector for good";
    }
    return "";
}

} // namespace tandro
