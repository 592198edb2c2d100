// The access system and the card encryption job of the reader (records.h).
#include "records.h"

#include <cstring>

#include "reader.h"
#include "wire.h"

namespace zs {

namespace {

uint32_t le(const uint8_t *p, int n)
{
    uint32_t v = 0;
    for (int i = n - 1; i >= 0; --i)
        v = v << 8 | p[i];
    return v;
}

void put_le(uint8_t *p, uint32_t v, int n)
{
    for (int i = 0; i < n; ++i)
        p[i] = static_cast<uint8_t>(v >> (8 * i));
}

// The EXT sizes (checksum included) of the commands that take one; 0xA4's depends on its size field.
size_t ext_size(uint8_t cmd)
{
    switch (cmd) {
    case 0x50: return 10;
    case 0x52: return 11;
    case 0x58: return 5;
    case 0x5C: return 15;
    case 0x5D: return 13;
    case 0xA1: return 7;
    default: return 0;
    }
}

bool is_records_command(uint8_t cmd)
{
    return (cmd >= 0x50 && cmd <= 0x5E) || (cmd >= 0xA1 && cmd <= 0xA4);
}

void image_text(const uint8_t *bytes, size_t n, std::vector<uint8_t> &text)
{
    static const char digits[] = "0123456789ABCDEF";
    for (size_t i = 0; i < n; ++i) {
        text.push_back(static_cast<uint8_t>(digits[bytes[i] >> 4]));
        text.push_back(static_cast<uint8_t>(digits[bytes[i] & 15]));
    }
}

void next_image(Reader &r, const uint8_t f[7], const uint8_t *ext, size_t len, Answer &a)
{
    AccessRecords &s = r.access;
    const bool with_data = f[1] == 0xA4;
    if (len < (with_data ? 14u : 6u))
        return put_error(a.bytes, E_PARAMETERS);
    const uint32_t start = le(ext, 3), duration = le(ext + 3, 3);
    size_t data_len = 0;
    if (with_data) {
        data_len = le(ext + 10, 4);
        if (data_len > 4 || len != 14 + data_len)
            return put_error(a.bytes, E_PARAMETERS);
    }
    if (duration == 0)
        return put_error(a.bytes, E_PARAMETERS);
    ++s.card_serial;
    uint8_t image[32];
    const uint16_t job = static_cast<uint16_t>(le(r.eeprom + EE_JOB_ID, 2));
    const size_t n =
        records_card_image(s, job, s.card_serial, start, duration, with_data ? ext + 14 : nullptr, data_len, image);
    std::vector<uint8_t> text;
    image_text(image, n, text);
    if (with_data) {
        // The image ends with its marks and its size.
        const size_t size = text.size();
        text.push_back(0xDA);
        text.push_back(0xBE);
        text.push_back(static_cast<uint8_t>(size));
    }
    put_response(a.bytes, f[1], 0, 0, text.data(), text.size());
}

} // namespace

size_t records_card_image(const AccessRecords &s, uint16_t job, uint32_t sn, uint32_t start, uint32_t duration,
                          const uint8_t *data, size_t data_len, uint8_t *out)
{
    uint8_t plain[16] = {};
    put_le(plain, sn, 4);
    put_le(plain + 4, start, 3);
    put_le(plain + 7, duration, 3);
    put_le(plain + 10, job, 2);
    plain[12] = s.small_value;
    for (int i = 0; i < 16; ++i)
        out[i] = static_cast<uint8_t>(plain[i] ^ s.salter[i % 8]);
    if (data && data_len)
        std::memcpy(out + 16, data, data_len);
    return 16 + (data ? data_len : 0);
}

bool records_wants_ext(const Reader &, const uint8_t f[7])
{
    return ext_size(f[1]) != 0 || f[1] == 0xA4;
}

bool records_command(Reader &r, const uint8_t f[7], const uint8_t *ext, size_t ext_len, Answer &a)
{
    const uint8_t cmd = f[1];
    if (!is_records_command(cmd))
        return false;
    AccessRecords &s = r.access;
    // The EXT's data, without its checksum.
    const size_t len = ext && ext_len ? ext_len - 1 : 0;
    const size_t want = ext_size(cmd);
    if (want && ext_len != want)
        return put_error(a.bytes, E_PARAMETERS), true;
    const uint8_t rec = f[4];
    const bool numbered = cmd == 0x50 || cmd == 0x51 || cmd == 0x5D || cmd == 0x5E;
    if (numbered && rec >= ACCESS_RIGHTS)
        return put_error(a.bytes, E_MAX_ADDRESS), true;
    uint8_t d[16] = {};
    switch (cmd) {
    case 0x50:
        std::memset(s.right[rec], 0, 11);
        std::memcpy(s.right[rec], ext, 9);
        s.right_type[rec] = 0;
        put_response(a.bytes, cmd, 0, 0);
        break;
    case 0x51: put_response(a.bytes, cmd, 0, 0, s.right[rec], 9); break;
    case 0x52:
        std::memcpy(s.validate, ext, 10);
        put_response(a.bytes, cmd, 0, 0);
        break;
    case 0x53: put_response(a.bytes, cmd, 0, 0, s.validate, 10); break;
    case 0x54:
        s.card_type = f[4];
        put_response(a.bytes, cmd, 0, 0);
        break;
    case 0x55: put_response(a.bytes, cmd, s.card_type, 0); break;
    case 0x56:
        s.daily = static_cast<uint16_t>(f[4] | f[5] << 8);
        put_response(a.bytes, cmd, 0, 0);
        break;
    case 0x57: put_response(a.bytes, cmd, static_cast<uint8_t>(s.daily), static_cast<uint8_t>(s.daily >> 8)); break;
    case 0x58:
        s.total = le(ext, 4);
        put_response(a.bytes, cmd, 0, 0);
        break;
    case 0x59:
        put_le(d, s.total, 4);
        put_response(a.bytes, cmd, 0, 0, d, 4);
        break;
    case 0x5A:
        put_le(d, s.card_number, 2);
        put_response(a.bytes, cmd, 0, 0, d, 2);
        break;
    case 0x5B:
        d[0] = s.use;
        std::memcpy(d + 1, s.credit, 14);
        put_response(a.bytes, cmd, 0, 0, d, 15);
        break;
    case 0x5C:
        std::memcpy(s.credit, ext, 14);
        put_response(a.bytes, cmd, 0, 0);
        break;
    case 0x5D:
        s.right_type[rec] = ext[0];
        std::memcpy(s.right[rec], ext + 1, 11);
        put_response(a.bytes, cmd, 0, 0);
        break;
    case 0x5E:
        d[0] = s.right_type[rec];
        std::memcpy(d + 1, s.right[rec], 11);
        put_response(a.bytes, cmd, 0, 0, d, 12);
        break;
    case 0xA1:
    case 0xA4: next_image(r, f, ext, len, a); break;
    case 0xA2:
        put_le(d, s.card_serial, 4);
        put_response(a.bytes, cmd, 0, 0, d, 4);
        break;
    case 0xA3:
        put_le(d, le(r.eeprom + EE_JOB_ID, 2), 2);
        d[2] = s.small_value;
        std::memcpy(d + 3, s.salter, 8);
        put_response(a.bytes, cmd, 0, 0, d, 11);
        break;
    default: put_error(a.bytes, E_NOT_SUPPORTED); break;
    }
    return true;
}

} // namespace zs
