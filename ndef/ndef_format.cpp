// The NDEF store's pure parts: TLV walk, gap, record headers and builder, directory checksum, Type 4 chain.
#include <cstring>

#include "ndef/ndef_internal.h"
#include "zel_ndef.h"

namespace zel::ndef {

bool is_t2t(uint8_t t)
{
    return (t >= 1 && t <= 16) || t == 20 || t == 21;
}
bool is_t4(uint8_t t)
{
    return t == 17 || t == 18 || t == 19 || t == 64;
}
bool is_mifare_1k(uint8_t t)
{
    return t == 33;
}
bool is_mifare_2k(uint8_t t)
{
    return t == 46 || t == 47 || t == 48 || t == 73;
}
static bool is_mifare_4k(uint8_t t)
{
    return t == 34 || t == 53 || t == 54 || t == 55 || t == 76;
}
bool is_mifare(uint8_t t)
{
    return is_mifare_1k(t) || is_mifare_2k(t) || is_mifare_4k(t);
}

bool gap_from_memory_control(uint8_t position, uint8_t size, uint8_t page_control, uint8_t card_type, Gap &gap)
{
    const int64_t page = position >> 4;
    const int64_t offset = position & 0x0F;
    const int64_t base = card_type < 32 ? 16 : 32;
    const int64_t start = (page << (page_control & 0x0F)) + offset - base;
    if (start < 0)
        return false;
    gap.present = true;
    gap.start = static_cast<uint32_t>(start);
    gap.len = size;
    return true;
}

namespace {

// The length of the TLV at pos: header size and value length. False when it runs past the image.
bool tlv_length(const uint8_t *img, size_t len, size_t pos, uint32_t &header, uint32_t &value)
{
    if (pos + 1 >= len)
        return false;
    if (img[pos + 1] != 0xFF) {
        header = 2;
        value = img[pos + 1];
        return true;
    }
    if (pos + 3 >= len)
        return false;
    header = 4;
    value = static_cast<uint32_t>(img[pos + 2]) << 8 | img[pos + 3];
    return true;
}

} // namespace

ZEL_STATUS find_message(const uint8_t *img, size_t len, unsigned message_nr, uint8_t card_type, Tlv &out, Gap &gap,
                        size_t from)
{
    unsigned count = 0;
    size_t pos = from;
    while (pos < len) {
        const uint8_t t = img[pos];
        if (t == 0x00) {
            ++pos;
            continue;
        }
        uint32_t header = 0, value = 0;
        if (t == 0x01 || t == 0x02 || t == 0xFD) {
            if (!tlv_length(img, len, pos, header, value))
                return ZEL_NDEF_MESSAGE_NOT_FOUND;
            const size_t next = pos + header + value;
            // A memory control TLV right behind a skipped one places the reserved gap.
            if (next + 4 < len && img[next] == 0x02)
                gap_from_memory_control(img[next + 2], img[next + 3], img[next + 4], card_type, gap);
            pos = next;
            continue;
        }
        if (t != 0x03)
            return ZEL_NDEF_MESSAGE_NOT_FOUND;
        if (!tlv_length(img, len, pos, header, value))
            return ZEL_NDEF_MESSAGE_NOT_FOUND;
        if (++count >= message_nr) {
            out.offset = static_cast<uint32_t>(pos);
            out.header = header;
            out.length = value;
            return ZEL_OK;
        }
        pos += header + value;
    }
    return ZEL_NDEF_MESSAGE_NOT_FOUND;
}

uint32_t phys_at(uint32_t start, uint32_t i, const Gap &gap)
{
    const uint32_t p = start + i;
    if (gap.present && gap.start >= start && p >= gap.start)
        return p + gap.len;
    return p;
}

std::vector<uint8_t> data_view(const uint8_t *img, size_t len, uint32_t start, const Gap &gap)
{
    std::vector<uint8_t> v;
    for (uint32_t i = 0;; ++i) {
        const uint32_t p = phys_at(start, i, gap);
        if (p >= len)
            break;
        v.push_back(img[p]);
    }
    return v;
}

bool parse_record(const uint8_t *p, size_t avail, Record &r)
{
    r = Record{};
    if (avail < 3)
        return false;
    r.flags = p[0];
    r.tnf = p[0] & 0x07;
    const bool il = (p[0] & 0x08) != 0;
    const bool long_form = !(p[0] & 0x10) || r.tnf == 5 || r.tnf == 6;
    r.type_len = (r.tnf == 5 || r.tnf == 6) ? 0 : p[1];
    size_t h = 2;
    if (long_form) {
        if (avail < 6)
            return false;
        r.payload_len = static_cast<uint32_t>(p[2]) << 24 | static_cast<uint32_t>(p[3]) << 16 |
                        static_cast<uint32_t>(p[4]) << 8 | p[5];
        h = 6;
    } else {
        r.payload_len = p[2];
        h = 3;
    }
    if (il) {
        if (avail < h + 1)
            return false;
        r.id_len = p[h];
        ++h;
    }
    r.header_len = static_cast<uint32_t>(h);
    const uint64_t size = static_cast<uint64_t>(h) + r.type_len + r.id_len + r.payload_len;
    if (size > avail)
        return false;
    r.size = static_cast<uint32_t>(size);
    return true;
}

bool walk_records(const uint8_t *data, size_t avail, uint32_t length, std::vector<uint32_t> &offsets,
                  std::vector<Record> *records)
{
    offsets.clear();
    if (records)
        records->clear();
    uint32_t pos = 0;
    while (pos < length) {
        Record r;
        if (pos >= avail || !parse_record(data + pos, avail - pos, r))
            return false;
        offsets.push_back(pos);
        if (records)
            records->push_back(r);
        pos += r.size;
    }
    return true;
}

bool build_record(uint8_t mb_me, uint8_t tnf, const uint8_t *type, uint8_t type_len, const uint8_t *id, uint8_t id_len,
                  const uint8_t *payload, uint32_t payload_len, std::vector<uint8_t> &out, uint32_t *payload_offset)
{
    out.clear();
    if (tnf == 0 || tnf >= 7)
        return false;
    const bool special = tnf == 5 || tnf == 6;
    // The short-record flag follows the payload's size for every TNF; TNF 5 and 6 keep the four-byte length
    // all the same, as the parser reads them.
    const bool sr = payload_len < 256;
    uint8_t flags = static_cast<uint8_t>((mb_me & 0xC0) | tnf);
    if (id_len)
        flags |= 0x08;
    if (sr)
        flags |= 0x10;
    out.push_back(flags);
    out.push_back(special ? 0 : type_len);
    if (sr && !special) {
        out.push_back(static_cast<uint8_t>(payload_len));
    } else {
        out.push_back(static_cast<uint8_t>(payload_len >> 24));
        out.push_back(static_cast<uint8_t>(payload_len >> 16));
        out.push_back(static_cast<uint8_t>(payload_len >> 8));
        out.push_back(static_cast<uint8_t>(payload_len));
    }
    if (id_len)
        out.push_back(id_len);
    if (!special && type_len)
        out.insert(out.end(), type, type + type_len);
    if (id_len)
        out.insert(out.end(), id, id + id_len);
    if (payload_offset)
        *payload_offset = static_cast<uint32_t>(out.size());
    if (payload_len)
        out.insert(out.end(), payload, payload + payload_len);
    return true;
}

uint8_t mad_crc(const uint8_t *data, size_t n)
{
    uint8_t crc = 0xC7;
    for (size_t i = 0; i < n; ++i) {
        crc ^= data[i];
        for (int b = 0; b < 8; ++b)
            crc = static_cast<uint8_t>(crc & 0x80 ? (crc << 1) ^ 0x1D : crc << 1);
    }
    return crc;
}

const char *uri_prefix(uint8_t code)
{
    static const char *const table[36] = {
        nullptr,        "http://www.",  "https://www.", "http://",
        "https://",     "tel:",         "mailto:",      "ftp://anonymous:anonymous@",
        "ftp://ftp.",   "ftps://",      "sftp://",      "nfs://",
        "nfs://",       "ftp://",       "dav://",       "news:",
        "telnet://",    "imap:",        "rtsp://",      "urn:",
        "pop:",         "sip:",         "sips:",        "tftp:",
        "btspp://",     "btl2cap://",   "btgoep://",    "tcpobex://",
        "irdaobex://",  "file://",      "urn:epc:id:",  "urn:epc:tag:",
        "urn:epc:pat:", "urn:epc:raw:", "urn:epc:",     "urn:nfc:",
    };
    return code < 36 ? table[code] : nullptr;
}

bool parse_t4_cc(const uint8_t *cc, size_t n, T4Cc &out)
{
    out = T4Cc{};
    if (n < 15)
        return false;
    out.cclen = static_cast<uint16_t>(n);
    out.mle = static_cast<uint16_t>(cc[3] << 8 | cc[4]);
    out.mlc = static_cast<uint16_t>(cc[5] << 8 | cc[6]);
    out.file_id = static_cast<uint16_t>(cc[9] << 8 | cc[10]);
    out.max_size = static_cast<uint16_t>(cc[11] << 8 | cc[12]);
    out.read_access = cc[13];
    out.write_access = cc[14];
    return (cc[2] == 0x10 || cc[2] == 0x20) && out.mle >= 15 && out.mlc != 0 && cc[7] == 0x04 && cc[8] == 0x06 &&
           out.max_size >= 5 && out.max_size <= 65534;
}

ZEL_STATUS t4_walk(const FileReader &read, uint32_t nlen, std::vector<uint32_t> &offsets, std::vector<uint8_t> &flags)
{
    offsets.clear();
    flags.clear();
    if (nlen <= 2)
        return ZEL_OK;
    uint32_t sum = 0;
    while (sum < nlen) {
        // Flags, type length and the first length byte, then what the header still needs: the rest of a long
        // length and the id length.
        uint8_t h[7] = {};
        const uint32_t left = nlen - sum;
        if (left < 3 || read(2 + sum, 3, h) != 3)
            return ZEL_WRONG_NDEF_CARD_FORMAT;
        const uint8_t tnf = h[0] & 7;
        const bool long_form = !(h[0] & 0x10) || tnf == 5 || tnf == 6;
        const bool il = (h[0] & 0x08) != 0;
        const uint32_t need = (long_form ? 6u : 3u) + (il ? 1u : 0u);
        if (need > left)
            return ZEL_WRONG_NDEF_CARD_FORMAT;
        if (need > 3 && read(2 + sum + 3, need - 3, h + 3) != static_cast<int>(need - 3))
            return ZEL_WRONG_NDEF_CARD_FORMAT;
        const uint32_t type_len = (tnf == 5 || tnf == 6) ? 0 : h[1];
        const uint32_t payload_len = long_form
                                         ? (static_cast<uint32_t>(h[2]) << 24 | static_cast<uint32_t>(h[3]) << 16 |
                                            static_cast<uint32_t>(h[4]) << 8 | h[5])
                                         : h[2];
        const uint32_t id_len = il ? h[need - 1] : 0;
        const uint64_t size = static_cast<uint64_t>(need) + type_len + id_len + payload_len;
        if (size > left)
            return ZEL_WRONG_NDEF_CARD_FORMAT;
        offsets.push_back(2 + sum);
        flags.push_back(h[0]);
        sum += static_cast<uint32_t>(size);
    }
    return ZEL_OK;
}

} // namespace zel::ndef

extern "C" ZEL_API ZEL_STATUS NDEF_ParseCC(const uint8_t *cc, uint8_t *version_major, uint8_t *version_minor,
                                           uint32_t *data_area_size, uint8_t *read_access, uint8_t *write_access)
{
    if (!cc || !version_major || !version_minor || !data_area_size || !read_access || !write_access)
        return ZEL_PARAMETERS_ERROR;
    *version_major = *version_minor = *read_access = *write_access = 0;
    *data_area_size = 0;
    if (cc[0] != 0xE1)
        return ZEL_WRONG_NDEF_CARD_FORMAT;
    *version_major = cc[1] >> 4;
    *version_minor = cc[1] & 0x0F;
    *data_area_size = static_cast<uint32_t>(cc[2]) * 8;
    *read_access = cc[3] < 16;
    *write_access = (cc[3] & 0x0F) == 0;
    return ZEL_OK;
}
