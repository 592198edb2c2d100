// The NDEF store's card traffic: finding the NDEF area of each family, reading it into an image, writing image
// bytes back, laying out blank cards, and the Type 4 files over APDUs.
#include <cstring>

#include "ndef/ndef_internal.h"
#include "zel_apdu.h"
#include "zel_block.h"
#include "zel_iso15693.h"

namespace zel::ndef {

const uint8_t kMadKey[6] = {0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5};
const uint8_t kNdefKey[6] = {0xD3, 0xF7, 0xD3, 0xF7, 0xD3, 0xF7};
const uint8_t kDefaultKey[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

MadBuffer g_mad;

namespace {

constexpr uint8_t kNdefAid[7] = {0xD2, 0x76, 0x00, 0x00, 0x85, 0x01, 0x01};
constexpr uint32_t kT4Chunk = 246;
constexpr uint8_t kZeroLength[2] = {0, 0};

bool is_iso15693(uint8_t t)
{
    return t >= 80 && t <= 86;
}
bool t2t_sector_form(uint8_t t)
{
    return t >= 13 && t <= 16;
}

// One APDU; true only for a completed exchange that ends in 90 00 (the status out value holds SW1 in its low
// byte).
bool apdu_ok(ZEL_HANDLE hnd, uint8_t ins, uint8_t p1, uint8_t p2, const uint8_t *data, uint32_t nc, uint8_t *out,
             uint32_t &ne, bool send_le)
{
    uint16_t sw = 0;
    const ZEL_STATUS st = APDUTransceiveHnd(hnd, 0x00, ins, p1, p2, data, nc, out, &ne, send_le ? 1 : 0, &sw);
    return st == ZEL_OK && sw == 0x0090;
}

bool select_file(ZEL_HANDLE hnd, uint16_t id)
{
    const uint8_t fid[2] = {static_cast<uint8_t>(id >> 8), static_cast<uint8_t>(id)};
    uint32_t ne = 0;
    return apdu_ok(hnd, 0xA4, 0x00, 0x0C, fid, 2, nullptr, ne, false);
}

ZEL_STATUS read_cc_block(ZEL_HANDLE hnd, uint8_t type, uint8_t block[16])
{
    if (t2t_sector_form(type))
        return BlockInSectorReadHnd(hnd, block, 0, 3, ZEL_AUTH_KEY_A, 0);
    return BlockRead_AKM1Hnd(hnd, block, 3, ZEL_AUTH_KEY_A);
}

ZEL_STATUS write_cc_block(ZEL_HANDLE hnd, uint8_t type, const uint8_t block[16])
{
    if (t2t_sector_form(type))
        return BlockInSectorWriteHnd(hnd, block, 0, 3, ZEL_AUTH_KEY_A, 0);
    return BlockWrite_AKM1Hnd(hnd, block, 3, ZEL_AUTH_KEY_A);
}

// Sector s's trailer block within the sector.
uint8_t trailer_block(unsigned s)
{
    return s >= 32 ? 15 : 3;
}

// Reads n bytes at a linear address with a key, checking that all came.
ZEL_STATUS linear_read_pk(ZEL_HANDLE hnd, uint8_t *out, uint32_t addr, uint32_t n, const uint8_t *key)
{
    uint16_t got = 0;
    const ZEL_STATUS st =
        LinearRead_PKHnd(hnd, out, static_cast<uint16_t>(addr), static_cast<uint16_t>(n), &got, ZEL_AUTH_KEY_A, key);
    if (st != ZEL_OK)
        return st;
    return got == n ? ZEL_OK : ZEL_READING_ERROR;
}

// A directory entry that marks an NDEF sector: the application 0xE103, low byte first.
bool ndef_entry(const uint8_t *e)
{
    return e[0] == 0x03 && e[1] == 0xE1;
}

// Appends the runs of marked sectors of one directory to the image. entries[i] belongs to the sector that
// starts at start(i) with size(i) bytes.
template <typename Start, typename Size>
ZEL_STATUS read_runs(ZEL_HANDLE hnd, const uint8_t *entries, unsigned count, Start start, Size size, uint8_t *img,
                     uint32_t cap, uint32_t &len)
{
    unsigned i = 0;
    while (i < count) {
        if (!ndef_entry(entries + 2 * i)) {
            ++i;
            continue;
        }
        const uint32_t from = start(i);
        uint32_t n = 0;
        while (i < count && ndef_entry(entries + 2 * i))
            n += size(i++);
        if (n > cap - len)
            return ZEL_BUFFER_OVERFLOW;
        const ZEL_STATUS st = linear_read_pk(hnd, img + len, from, n, kNdefKey);
        if (st != ZEL_OK)
            return st;
        len += n;
    }
    return ZEL_OK;
}

// Prepares one sector's trailer for the NDEF layout. A trailer the transport key opens is written with it; one
// that opens with the layout's own key and already has its general purpose byte is left as it is; any other is
// written with key B, the transport key.
ZEL_STATUS prepare_trailer(ZEL_HANDLE hnd, unsigned s, const uint8_t *key_a, uint8_t b0, uint8_t b1, uint8_t b2,
                           uint8_t tr, uint8_t gpb, const uint8_t *second_key)
{
    uint8_t blk[16] = {};
    const uint8_t sector = static_cast<uint8_t>(s);
    ZEL_STATUS st = BlockInSectorRead_PKHnd(hnd, blk, sector, trailer_block(s), ZEL_AUTH_KEY_A, kDefaultKey);
    uint8_t mode = ZEL_AUTH_KEY_A;
    if (st == ZEL_AUTH_ERROR) {
        st = BlockInSectorRead_PKHnd(hnd, blk, sector, trailer_block(s), ZEL_AUTH_KEY_A, second_key);
        if (st != ZEL_OK)
            return st;
        if (blk[9] == gpb)
            return ZEL_OK;
        mode = ZEL_AUTH_KEY_B;
    } else if (st != ZEL_OK) {
        return st;
    }
    return SectorTrailerWrite_PKHnd(hnd, 1, sector, key_a, b0, b1, b2, tr, gpb, kDefaultKey, mode, kDefaultKey);
}

// Writes a directory with key B and reads it back with the directory key.
ZEL_STATUS write_directory(ZEL_HANDLE hnd, const uint8_t *mad, uint32_t n, uint32_t addr)
{
    uint16_t done = 0;
    (void)LinearWrite_PKHnd(hnd, mad, static_cast<uint16_t>(addr), static_cast<uint16_t>(n), &done, ZEL_AUTH_KEY_B,
                            kDefaultKey);
    uint8_t back[48] = {};
    if (linear_read_pk(hnd, back, addr, n, kMadKey) != ZEL_OK || std::memcmp(back, mad, n) != 0)
        return ZEL_NDEF_CARD_FORMAT_ERROR;
    return ZEL_OK;
}

ZEL_STATUS format_mifare(ZEL_HANDLE hnd, uint8_t type)
{
    const bool k1 = is_mifare_1k(type);
    ZEL_STATUS st = prepare_trailer(hnd, 0, kMadKey, 4, 4, 4, 3, k1 ? 0xC1 : 0xC2, kMadKey);
    if (st != ZEL_OK)
        return st;
    uint8_t mad1[32] = {0x00, 0x01};
    for (unsigned e = 0; e < 15; ++e) {
        mad1[2 + 2 * e] = 0x03;
        mad1[3 + 2 * e] = 0xE1;
    }
    mad1[0] = mad_crc(mad1 + 1, 31);
    if ((st = write_directory(hnd, mad1, 32, 0)) != ZEL_OK)
        return st;
    for (unsigned s = 1; s <= 15; ++s)
        if ((st = prepare_trailer(hnd, s, kNdefKey, 0, 0, 0, 3, 0x40, kNdefKey)) != ZEL_OK)
            return st;
    if (!k1) {
        if ((st = prepare_trailer(hnd, 16, kMadKey, 4, 4, 4, 3, 0xC2, kMadKey)) != ZEL_OK)
            return st;
        uint8_t mad2[48] = {0x00, 0x01};
        const bool small = type == 46 || type == 47;
        for (unsigned e = 0; e < 23; ++e) {
            const bool there = !small || e < 15;
            mad2[2 + 2 * e] = there ? 0x03 : 0x00;
            mad2[3 + 2 * e] = there ? 0xE1 : 0x05;
        }
        mad2[0] = mad_crc(mad2 + 1, 47);
        if ((st = write_directory(hnd, mad2, 48, 752)) != ZEL_OK)
            return st;
        const unsigned last = is_mifare_2k(type) ? 31 : 39;
        for (unsigned s = 17; s <= last; ++s)
            if ((st = prepare_trailer(hnd, s, kNdefKey, 0, 0, 0, 3, 0x40, kNdefKey)) != ZEL_OK)
                return st;
    }
    const uint8_t empty[4] = {0x03, 0x00, 0xFE, 0x00};
    uint16_t done = 0;
    (void)LinearWrite_PKHnd(hnd, empty, 32, 4, &done, ZEL_AUTH_KEY_A, kNdefKey);
    uint8_t back[4] = {};
    if (linear_read_pk(hnd, back, 32, 4, kNdefKey) != ZEL_OK || std::memcmp(back, empty, 4) != 0)
        return ZEL_NDEF_CARD_FORMAT_ERROR;
    return ZEL_OK;
}

struct T2tTemplate {
    uint8_t size;
    uint8_t bytes[8];
    uint8_t len;
};

bool t2t_template(uint8_t type, T2tTemplate &t)
{
    switch (type) {
    case 1:
    case 2:
    case 6:
    case 11:
    case 20: t = {6, {0x03, 0x00, 0xFE, 0x00}, 4}; return true;
    case 3:
    case 7: t = {16, {0x01, 0x03, 0x90, 0x0A, 0x34, 0x03, 0x00, 0xFE}, 8}; return true;
    case 4:
    case 5: t = {18, {0x01, 0x03, 0xA0, 0x10, 0x44, 0x03, 0x00, 0xFE}, 8}; return true;
    case 8:
    case 21: t = {18, {0x01, 0x03, 0xA0, 0x0C, 0x34, 0x03, 0x00, 0xFE}, 8}; return true;
    case 9: t = {62, {0x01, 0x03, 0x88, 0x08, 0x66, 0x03, 0x00, 0xFE}, 8}; return true;
    case 10:
    case 13:
    case 15: t = {109, {0x01, 0x03, 0xE8, 0x0E, 0x66, 0x03, 0x00, 0xFE}, 8}; return true;
    case 14: t = {234, {0x01, 0x03, 0xF0, 0x0F, 0x77, 0x03, 0x00, 0xFE}, 8}; return true;
    case 16: t = {109, {0x01, 0x03, 0x78, 0x07, 0x77, 0x03, 0x00, 0xFE}, 8}; return true;
    default: return false;
    }
}

ZEL_STATUS format_t2t(ZEL_HANDLE hnd, uint8_t type)
{
    T2tTemplate t{};
    if (!t2t_template(type, t))
        return ZEL_NDEF_UNSUPPORTED_CARD_TYPE;
    uint8_t blk[16] = {};
    const ZEL_STATUS st = read_cc_block(hnd, type, blk);
    if (st != ZEL_OK)
        return st;
    if (blk[0] != 0xE1 || blk[1] != 0x10) {
        uint8_t cc[16] = {0xE1, 0x10, t.size, 0x00};
        const ZEL_STATUS w = write_cc_block(hnd, type, cc);
        if (w != ZEL_OK)
            return w;
    }
    uint16_t done = 0;
    if (t.len == 4) {
        uint8_t page[16] = {};
        std::memcpy(page, t.bytes, 4);
        (void)BlockWrite_AKM1Hnd(hnd, page, 4, ZEL_AUTH_KEY_A);
    } else {
        (void)LinearWrite_AKM1Hnd(hnd, t.bytes, 0, t.len, &done, ZEL_AUTH_KEY_A);
    }
    uint8_t back[8] = {};
    if (LinearReadHnd(hnd, back, 0, t.len, &done, ZEL_AUTH_KEY_A, 0) != ZEL_OK || done != t.len ||
        std::memcmp(back, t.bytes, t.len) != 0)
        return ZEL_NDEF_CARD_FORMAT_ERROR;
    return ZEL_OK;
}

ZEL_STATUS format_iso15693(ZEL_HANDLE hnd, uint8_t type)
{
    uint8_t size = 0;
    switch (type) {
    case 81: size = 13; break;
    case 82: size = 19; break;
    case 83: size = 3; break;
    case 84: size = 39; break;
    case 85: size = 31; break;
    case 86: size = 37; break;
    case 87: size = 32; break;
    case 88: size = 15; break;
    case 80: {
        // The generic tag tells its memory size in its system information.
        uint8_t flags = 0, uid[8] = {}, dsfid = 0, afi = 0, ic = 0;
        uint16_t memory = 0;
        const ZEL_STATUS st = iso15693_get_system_information_no_authHnd(hnd, &flags, uid, &dsfid, &afi, &memory, &ic);
        if (st != ZEL_OK)
            return st;
        if (!(flags & 0x04))
            return ZEL_READING_ERROR;
        const int diff = static_cast<int>(memory) - 4;
        const int units = diff < 0 ? (memory + 3) / 8 : diff / 8;
        size = static_cast<uint8_t>(units > 255 ? 255 : units);
        break;
    }
    default: return ZEL_NDEF_UNSUPPORTED_CARD_TYPE;
    }
    uint8_t b0[16] = {0xE1, 0x40, size, 0x00};
    uint8_t b1[16] = {0x03, 0x00, 0xFE, 0x00};
    ZEL_STATUS st = BlockWriteHnd(hnd, b0, 0, ZEL_AUTH_KEY_A, 0);
    if (st == ZEL_OK)
        st = BlockWriteHnd(hnd, b1, 1, ZEL_AUTH_KEY_A, 0);
    return st;
}

ZEL_STATUS format_t4(ZEL_HANDLE hnd)
{
    T4Cc cc;
    ZEL_STATUS st = t4_read_cc(hnd, cc);
    if (st == ZEL_OK && !select_file(hnd, cc.file_id))
        st = ZEL_NDEF_UNSUPPORTED_CARD_TYPE;
    if (st == ZEL_OK) {
        uint8_t nlen[2] = {};
        uint32_t got = 0;
        if (!t4_read(hnd, 0, 2, nlen, got) || got != 2)
            st = ZEL_NDEF_CARD_FORMAT_ERROR;
        else if ((nlen[0] || nlen[1]) && !t4_update(hnd, 0, kZeroLength, 2, cc.mlc))
            st = ZEL_WRITING_ERROR;
    }
    t4_done(hnd);
    return st;
}

ZEL_STATUS read_t4(ZEL_HANDLE hnd, uint8_t *img, uint32_t cap, uint32_t &len)
{
    T4Cc cc;
    ZEL_STATUS st = t4_read_cc(hnd, cc);
    uint8_t nb[2] = {};
    uint32_t got = 0;
    if (st == ZEL_OK && !select_file(hnd, cc.file_id))
        st = ZEL_NDEF_UNSUPPORTED_CARD_TYPE;
    if (st == ZEL_OK && (!t4_read(hnd, 0, 2, nb, got) || got != 2))
        st = ZEL_WRONG_NDEF_CARD_FORMAT;
    if (st != ZEL_OK) {
        t4_done(hnd);
        return st;
    }
    const uint32_t nlen = static_cast<uint32_t>(nb[0]) << 8 | nb[1];
    const uint32_t header = nlen < 255 ? 2 : 4;
    // The file's own limit and the image: a length beyond either is a lie or a message too big to hold.
    if (nlen + 2 > cc.max_size) {
        t4_done(hnd);
        return ZEL_WRONG_NDEF_CARD_FORMAT;
    }
    if (header + nlen + 1 > cap) {
        t4_done(hnd);
        return ZEL_BUFFER_OVERFLOW;
    }
    img[0] = 0x03;
    if (header == 2) {
        img[1] = static_cast<uint8_t>(nlen);
    } else {
        img[1] = 0xFF;
        img[2] = static_cast<uint8_t>(nlen >> 8);
        img[3] = static_cast<uint8_t>(nlen);
    }
    uint32_t done = 0;
    while (done < nlen) {
        uint32_t want = nlen - done < kT4Chunk ? nlen - done : kT4Chunk;
        if (cc.mle && want > cc.mle)
            want = cc.mle;
        if (!t4_read(hnd, 2 + done, want, img + header + done, got) || got == 0 || got > want) {
            t4_done(hnd);
            return ZEL_NDEF_CARD_FORMAT_ERROR;
        }
        done += got;
    }
    img[header + nlen] = 0xFE;
    len = header + nlen + 1;
    t4_done(hnd);
    return ZEL_OK;
}

} // namespace

ZEL_STATUS check_capability_container(ZEL_HANDLE hnd, uint8_t type, uint32_t &size)
{
    size = 0;
    if (type > 86)
        return ZEL_NDEF_UNSUPPORTED_CARD_TYPE;
    uint8_t blk[16] = {};
    if (is_t2t(type) || type == 12) {
        const ZEL_STATUS st = read_cc_block(hnd, type, blk);
        if (st != ZEL_OK)
            return st;
        if (blk[0] != 0xE1 || (blk[1] != 0x10 && blk[1] != 0x11))
            return ZEL_WRONG_NDEF_CARD_FORMAT;
        size = static_cast<uint32_t>(blk[2]) * 8;
        return ZEL_OK;
    }
    if (is_iso15693(type)) {
        const ZEL_STATUS st = BlockReadHnd(hnd, blk, 0, ZEL_AUTH_KEY_A, 0);
        if (st != ZEL_OK)
            return st;
        if (blk[0] != 0xE1 || blk[1] != 0x40)
            return ZEL_WRONG_NDEF_CARD_FORMAT;
        size = static_cast<uint32_t>(blk[2]) * 8;
        return ZEL_OK;
    }
    if (type == 17 || type == 18 || type == 64) {
        T4Cc cc;
        const ZEL_STATUS st = t4_read_cc(hnd, cc);
        t4_done(hnd);
        if (st != ZEL_OK)
            return st;
        size = cc.max_size;
        return ZEL_OK;
    }
    if (!is_mifare(type))
        return ZEL_NDEF_UNSUPPORTED_CARD_TYPE;
    ZEL_STATUS st = BlockInSectorRead_PKHnd(hnd, blk, 0, 3, ZEL_AUTH_KEY_A, kMadKey);
    if (st != ZEL_OK)
        return st;
    if (blk[9] < 0x80)
        return ZEL_MAD_NOT_ENABLED;
    const uint8_t version = blk[9] & 0x03;
    if (version != 1 && version != 2)
        return ZEL_MAD_VERSION_NOT_SUPPORTED;
    g_mad.version = version;
    if ((st = linear_read_pk(hnd, g_mad.mad1, 0, 32, kMadKey)) != ZEL_OK)
        return st;
    if (mad_crc(g_mad.mad1 + 1, 31) != g_mad.mad1[0])
        return ZEL_WRONG_NDEF_CARD_FORMAT;
    if (!is_mifare_1k(type) && version == 2) {
        if ((st = linear_read_pk(hnd, g_mad.mad2, 752, 48, kMadKey)) != ZEL_OK)
            return st;
        if (mad_crc(g_mad.mad2 + 1, 47) != g_mad.mad2[0])
            return ZEL_WRONG_NDEF_CARD_FORMAT;
    }
    return ZEL_OK;
}

ZEL_STATUS read_card_data(ZEL_HANDLE hnd, uint8_t type, uint8_t *img, uint32_t cap, uint32_t &len, uint32_t size)
{
    len = 0;
    if (is_t2t(type) || type == 12 || is_iso15693(type)) {
        if (size > cap)
            size = cap;
        uint16_t got = 0;
        ZEL_STATUS st =
            LinearReadHnd(hnd, img, is_iso15693(type) ? 4 : 0, static_cast<uint16_t>(size), &got, ZEL_AUTH_KEY_A, 0);
        // Vicinity tags often leave the factory with a container whose size counts the container's own four
        // bytes: the area then ends four bytes sooner than the size says.
        if (st == ZEL_MAX_ADDRESS_EXCEEDED && is_iso15693(type) && size > 4) {
            size -= 4;
            st = LinearReadHnd(hnd, img, 4, static_cast<uint16_t>(size), &got, ZEL_AUTH_KEY_A, 0);
        }
        if (st != ZEL_OK)
            return st;
        len = got < size ? got : size;
        return ZEL_OK;
    }
    if (is_t4(type))
        return read_t4(hnd, img, cap, len);
    if (!is_mifare(type))
        return ZEL_NDEF_UNSUPPORTED_CARD_TYPE;
    ZEL_STATUS st = read_runs(
        hnd, g_mad.mad1 + 2, 15, [](unsigned i) { return 48 * (i + 1) - 16; }, [](unsigned) { return 48u; }, img, cap,
        len);
    if (st != ZEL_OK || is_mifare_1k(type))
        return st;
    const unsigned count = is_mifare_2k(type) ? 15 : 23;
    return read_runs(
        hnd, g_mad.mad2 + 2, count, [](unsigned e) { return e < 15 ? 800 + 48 * e : 240 * e - 2080; },
        [](unsigned e) { return e < 15 ? 48u : 240u; }, img, cap, len);
}

ZEL_STATUS format_card_for_ndef(ZEL_HANDLE hnd, uint8_t type)
{
    if (type > 88)
        return ZEL_NDEF_UNSUPPORTED_CARD_TYPE;
    if (is_t2t(type))
        return format_t2t(hnd, type);
    if (type >= 80)
        return format_iso15693(hnd, type);
    if (is_t4(type))
        return format_t4(hnd);
    if (is_mifare(type))
        return format_mifare(hnd, type);
    return ZEL_NDEF_UNSUPPORTED_CARD_TYPE;
}

ZEL_STATUS ndef_mifare_classic_linear_write(ZEL_HANDLE hnd, const uint8_t *src, uint32_t off, uint32_t n)
{
    uint16_t done = 0;
    if (off >= 720)
        return LinearWrite_PKHnd(hnd, src, static_cast<uint16_t>(off + 80), static_cast<uint16_t>(n), &done,
                                 ZEL_AUTH_KEY_A, kNdefKey);
    if (off + n < 720)
        return LinearWrite_PKHnd(hnd, src, static_cast<uint16_t>(off + 32), static_cast<uint16_t>(n), &done,
                                 ZEL_AUTH_KEY_A, kNdefKey);
    const ZEL_STATUS st = LinearWrite_PKHnd(hnd, src, static_cast<uint16_t>(off + 32), static_cast<uint16_t>(720 - off),
                                            &done, ZEL_AUTH_KEY_A, kNdefKey);
    if (st != ZEL_OK)
        return st;
    // The part behind sector 16 starts again from the first source byte.
    return LinearWrite_PKHnd(hnd, src, 800, static_cast<uint16_t>(off + 32 + n - 752), &done, ZEL_AUTH_KEY_A, kNdefKey);
}

ZEL_STATUS write_image(ZEL_HANDLE hnd, uint8_t type, const uint8_t *src, uint32_t off, uint32_t n)
{
    if (n == 0)
        return ZEL_OK;
    uint16_t done = 0;
    if (is_t2t(type) || type == 12)
        return LinearWrite_AKM1Hnd(hnd, src, static_cast<uint16_t>(off), static_cast<uint16_t>(n), &done,
                                   ZEL_AUTH_KEY_A);
    if (is_iso15693(type))
        return LinearWriteHnd(hnd, src, static_cast<uint16_t>(off + 4), static_cast<uint16_t>(n), &done, ZEL_AUTH_KEY_A,
                              0);
    if (is_mifare(type))
        return ndef_mifare_classic_linear_write(hnd, src, off, n);
    return ZEL_NDEF_UNSUPPORTED_CARD_TYPE;
}

ZEL_STATUS t4_read_cc(ZEL_HANDLE hnd, T4Cc &cc)
{
    cc = T4Cc{};
    if (SetISO14443_4_ModeHnd(hnd) != ZEL_OK)
        return ZEL_NDEF_UNSUPPORTED_CARD_TYPE;
    uint32_t ne = 0;
    if (!apdu_ok(hnd, 0xA4, 0x04, 0x00, kNdefAid, sizeof kNdefAid, nullptr, ne, false) || !select_file(hnd, 0xE103))
        return ZEL_NDEF_UNSUPPORTED_CARD_TYPE;
    uint8_t buf[256] = {};
    uint32_t got = 0;
    if (!t4_read(hnd, 0, 2, buf, got) || got != 2)
        return ZEL_NDEF_UNSUPPORTED_CARD_TYPE;
    uint32_t cclen = static_cast<uint32_t>(buf[0]) << 8 | buf[1];
    if (cclen > 255)
        cclen = 255;
    if (cclen < 15 || !t4_read(hnd, 0, cclen, buf, got))
        return ZEL_NDEF_UNSUPPORTED_CARD_TYPE;
    if (!parse_t4_cc(buf, got, cc))
        return ZEL_WRONG_NDEF_CARD_FORMAT;
    return ZEL_OK;
}

ZEL_STATUS t4_select_file(ZEL_HANDLE hnd, uint16_t file_id)
{
    return select_file(hnd, file_id) ? ZEL_OK : ZEL_NDEF_UNSUPPORTED_CARD_TYPE;
}

bool t4_read(ZEL_HANDLE hnd, uint32_t off, uint32_t n, uint8_t *out, uint32_t &got)
{
    got = 0;
    if (off > 0x7FFF || n == 0 || n > 256)
        return false;
    uint32_t ne = n;
    if (!apdu_ok(hnd, 0xB0, static_cast<uint8_t>(off >> 8), static_cast<uint8_t>(off), nullptr, 0, out, ne, true))
        return false;
    got = ne;
    return ne <= n;
}

bool t4_update(ZEL_HANDLE hnd, uint32_t off, const uint8_t *data, uint32_t n, uint32_t mlc)
{
    if (mlc == 0 || mlc > 255)
        mlc = 255;
    for (uint32_t done = 0; done < n;) {
        const uint32_t piece = n - done < mlc ? n - done : mlc;
        const uint32_t at = off + done;
        if (at > 0x7FFF)
            return false;
        uint32_t ne = 0;
        if (!apdu_ok(hnd, 0xD6, static_cast<uint8_t>(at >> 8), static_cast<uint8_t>(at), data + done, piece, nullptr,
                     ne, false))
            return false;
        done += piece;
    }
    return true;
}

void t4_done(ZEL_HANDLE hnd)
{
    (void)s_block_deselectHnd(hnd, 100);
}

} // namespace zel::ndef
