// The NDEF store's operations: read, append, count, erase and format, on every family, with the read cache of
// the handle and the mirrors of the NTAG21x tags.
#include <cstring>
#include <vector>

#include "core/internal.h"
#include "ndef/ndef_internal.h"
#include "zel_block.h"
#include "zel_card.h"
#include "zel_ndef.h"

using namespace zel::ndef;

namespace {

constexpr uint32_t kCacheMs = 2000;
constexpr uint8_t kZero[1] = {0};

// A message of an image as the record walk sees it: its TLV, the gap, and the bytes from its value on with the
// gap left out.
struct Message {
    Tlv tlv;
    Gap gap;
    std::vector<uint8_t> data;
    std::vector<uint32_t> offsets;
    std::vector<Record> records;
    // The image position of byte i of the message's value.
    uint32_t phys(uint32_t i) const { return phys_at(tlv.value(), i, gap); }
    // The image position right behind the value.
    uint32_t end() const { return phys(tlv.length); }
};

// Finds message nr from image offset from, reads its bytes and walks its records. A length or record that runs
// past the image is a broken format.
ZEL_STATUS open_message(const uint8_t *img, uint32_t len, unsigned nr, uint8_t type, uint32_t from, Message &m,
                        const Gap &gap_so_far = Gap{})
{
    m = Message{};
    m.gap = gap_so_far;
    const ZEL_STATUS st = find_message(img, len, nr, type, m.tlv, m.gap, from);
    if (st != ZEL_OK)
        return st;
    m.data = data_view(img, len, m.tlv.value(), m.gap);
    if (m.tlv.length > m.data.size())
        return ZEL_WRONG_NDEF_CARD_FORMAT;
    if (!walk_records(m.data.data(), m.data.size(), m.tlv.length, m.offsets, &m.records))
        return ZEL_WRONG_NDEF_CARD_FORMAT;
    return ZEL_OK;
}

// Writes n bytes that belong at positions lo.. of data starting at start, round the gap, and keeps the image
// copy in step.
ZEL_STATUS write_logical(ZEL_HANDLE hnd, uint8_t type, uint8_t *img, uint32_t img_len, uint32_t start, const Gap &gap,
                         uint32_t lo, const uint8_t *src, uint32_t n)
{
    uint32_t i = 0;
    while (i < n) {
        const uint32_t p0 = phys_at(start, lo + i, gap);
        uint32_t j = i + 1;
        while (j < n && phys_at(start, lo + j, gap) == p0 + (j - i))
            ++j;
        const ZEL_STATUS st = write_image(hnd, type, src + i, p0, j - i);
        if (st != ZEL_OK)
            return st;
        for (uint32_t k = i; k < j; ++k)
            if (p0 + (k - i) < img_len)
                img[p0 + (k - i)] = src[k];
        i = j;
    }
    return ZEL_OK;
}

ZEL_STATUS write_byte(ZEL_HANDLE hnd, uint8_t type, uint8_t *img, uint32_t img_len, uint32_t at, uint8_t value)
{
    const ZEL_STATUS st = write_image(hnd, type, &value, at, 1);
    if (st == ZEL_OK && at < img_len)
        img[at] = value;
    return st;
}

// MB on the first record only, ME on none: the flags the records before a new last one get. Each change is
// written at once.
ZEL_STATUS normalise_flags(ZEL_HANDLE hnd, uint8_t type, uint8_t *img, uint32_t img_len, Message &m)
{
    for (size_t r = 0; r < m.offsets.size(); ++r) {
        uint8_t &f = m.data[m.offsets[r]];
        const uint8_t want = r == 0 ? static_cast<uint8_t>((f & ~0x40) | 0x80) : static_cast<uint8_t>(f & ~0xC0);
        if (want == f)
            continue;
        f = want;
        const ZEL_STATUS st = write_byte(hnd, type, img, img_len, m.phys(m.offsets[r]), want);
        if (st != ZEL_OK)
            return st;
    }
    return ZEL_OK;
}

// Fills the handle's image from the card and sets the cache (never for generic ISO 14443-4 cards).
ZEL_STATUS load_image(ZEL_HANDLE hnd, uint8_t type)
{
    zel_ndef_cache &c = hnd->ndef_cache;
    c.valid = 0;
    uint32_t size = 0, len = 0;
    ZEL_STATUS st = check_capability_container(hnd, type, size);
    if (st == ZEL_OK)
        st = read_card_data(hnd, type, c.image, ZEL_NDEF_IMAGE_LEN, len, size);
    if (st != ZEL_OK)
        return st;
    c.image_len = static_cast<uint16_t>(len);
    c.card_type = type;
    c.valid = type != 64;
    c.time_ms = zel::tick_ms();
    return ZEL_OK;
}

// Where a write put the new record: its image offset and the payload's offset in it.
struct Placed {
    uint32_t record_offset = 0;
    uint32_t payload_offset = 0;
};

ZEL_STATUS write_memory_card(ZEL_HANDLE hnd, uint8_t type, uint8_t message_nr, uint8_t tnf, const uint8_t *rtype,
                             uint8_t type_len, const uint8_t *id, uint8_t id_len, const uint8_t *payload,
                             uint32_t payload_len, uint8_t *formatted, Placed &placed)
{
    uint32_t size = 0;
    ZEL_STATUS st = check_capability_container(hnd, type, size);
    if (st == ZEL_WRONG_NDEF_CARD_FORMAT || (st == ZEL_AUTH_ERROR && type >= 32)) {
        if ((st = format_card_for_ndef(hnd, type)) != ZEL_OK)
            return st;
        *formatted = 1;
        st = check_capability_container(hnd, type, size);
    }
    if (st != ZEL_OK)
        return st;
    std::vector<uint8_t> image(ZEL_NDEF_IMAGE_LEN);
    uint32_t len = 0;
    if ((st = read_card_data(hnd, type, image.data(), ZEL_NDEF_IMAGE_LEN, len, size)) != ZEL_OK)
        return st;
    uint8_t *img = image.data();
    Message m;
    if ((st = open_message(img, len, message_nr, type, 0, m)) != ZEL_OK)
        return st;
    const uint8_t mb_me = m.tlv.length == 0 ? 0xC0 : 0x40;
    std::vector<uint8_t> rec;
    uint32_t payload_at = 0;
    if (!build_record(mb_me, tnf, rtype, type_len, id, id_len, payload, payload_len, rec, &payload_at))
        return ZEL_PARAMETERS_ERROR;
    if ((st = normalise_flags(hnd, type, img, len, m)) != ZEL_OK)
        return st;
    const uint32_t old = m.tlv.length;
    const bool terminator = old < m.data.size() && m.data[old] == 0xFE;
    if (terminator)
        rec.push_back(0xFE);
    // The terminator is counted out of the length, also when there was none to add.
    const uint32_t new_len = old + static_cast<uint32_t>(rec.size()) - 1;
    if (new_len > 0xFFFF)
        return ZEL_BUFFER_OVERFLOW;
    if (old < 255 && new_len > 254) {
        // The header grows from two bytes to four: the message moves up by two, the new record behind it.
        std::vector<uint8_t> moved(m.data.begin(), m.data.begin() + old);
        moved.insert(moved.end(), rec.begin(), rec.end());
        const uint32_t start = m.tlv.offset + 4;
        if ((st = write_logical(hnd, type, img, len, start, m.gap, 0, moved.data(),
                                static_cast<uint32_t>(moved.size()))) != ZEL_OK)
            return st;
        placed.record_offset = phys_at(start, old, m.gap);
        const uint8_t head[3] = {0xFF, static_cast<uint8_t>(new_len >> 8), static_cast<uint8_t>(new_len)};
        st = write_image(hnd, type, head, m.tlv.offset + 1, 3);
    } else {
        if ((st = write_logical(hnd, type, img, len, m.tlv.value(), m.gap, old, rec.data(),
                                static_cast<uint32_t>(rec.size()))) != ZEL_OK)
            return st;
        placed.record_offset = m.phys(old);
        if (m.tlv.header == 2) {
            st = write_byte(hnd, type, img, len, m.tlv.offset + 1, static_cast<uint8_t>(new_len));
        } else {
            const uint8_t head[3] = {0xFF, static_cast<uint8_t>(new_len >> 8), static_cast<uint8_t>(new_len)};
            st = write_image(hnd, type, head, m.tlv.offset + 1, 3);
        }
    }
    placed.payload_offset = payload_at;
    return st;
}

uint16_t be16(const uint8_t *p)
{
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

// The record walk of a Type 4 NDEF file by READ BINARY.
ZEL_STATUS t4_open(ZEL_HANDLE hnd, T4Cc &cc, uint32_t &nlen, std::vector<uint32_t> &offsets,
                   std::vector<uint8_t> &flags)
{
    ZEL_STATUS st = t4_read_cc(hnd, cc);
    if (st == ZEL_OK)
        st = t4_select_file(hnd, cc.file_id);
    if (st != ZEL_OK)
        return st;
    uint8_t nb[2] = {};
    uint32_t got = 0;
    if (!t4_read(hnd, 0, 2, nb, got) || got != 2)
        return ZEL_WRONG_NDEF_CARD_FORMAT;
    nlen = be16(nb);
    if (nlen + 2u > cc.max_size)
        return ZEL_WRONG_NDEF_CARD_FORMAT;
    // A file of two bytes or less holds no record: it counts as empty and is written over.
    if (nlen <= 2) {
        offsets.clear();
        flags.clear();
        return ZEL_OK;
    }
    return t4_walk(
        [hnd](uint32_t off, uint32_t n, uint8_t *out) {
            uint32_t g = 0;
            return t4_read(hnd, off, n, out, g) ? static_cast<int>(g) : -1;
        },
        nlen, offsets, flags);
}

ZEL_STATUS write_t4(ZEL_HANDLE hnd, uint8_t tnf, const uint8_t *rtype, uint8_t type_len, const uint8_t *id,
                    uint8_t id_len, const uint8_t *payload, uint32_t payload_len)
{
    uint8_t sak = 0, uid[10] = {}, uid_size = 0;
    if (GetCardIdExHnd(hnd, &sak, uid, &uid_size) != ZEL_OK) {
        t4_done(hnd);
        return ZEL_NDEF_UNSUPPORTED_CARD_TYPE;
    }
    // These tags take at most 58 bytes in one update, whatever their container says.
    const bool short_updates =
        uid_size == 7 && uid[0] == 0x02 && (uid[1] == 0x82 || uid[1] == 0x84 || uid[1] == 0x85 || uid[1] == 0x86);
    T4Cc cc;
    uint32_t nlen = 0;
    std::vector<uint32_t> offsets;
    std::vector<uint8_t> flags;
    ZEL_STATUS st = t4_open(hnd, cc, nlen, offsets, flags);
    if (st != ZEL_OK) {
        t4_done(hnd);
        return st;
    }
    const bool empty = nlen <= 2;
    std::vector<uint8_t> rec;
    if (!build_record(empty ? 0xC0 : 0x40, tnf, rtype, type_len, id, id_len, payload, payload_len, rec)) {
        t4_done(hnd);
        return ZEL_PARAMETERS_ERROR;
    }
    const uint32_t base = empty ? 0 : nlen;
    if (static_cast<uint64_t>(nlen) + rec.size() + 1 >= cc.max_size) {
        t4_done(hnd);
        return ZEL_BUFFER_OVERFLOW;
    }
    const uint32_t mlc = short_updates && cc.mlc > 58 ? 58 : cc.mlc;
    st = ZEL_OK;
    if (!t4_update(hnd, 2 + base, rec.data(), static_cast<uint32_t>(rec.size()), mlc))
        st = ZEL_WRITING_ERROR;
    for (size_t r = 0; st == ZEL_OK && !empty && r < offsets.size(); ++r) {
        const uint8_t want =
            r == 0 ? static_cast<uint8_t>((flags[r] & ~0x40) | 0x80) : static_cast<uint8_t>(flags[r] & ~0xC0);
        if (want != flags[r] && !t4_update(hnd, offsets[r], &want, 1, mlc))
            st = ZEL_WRITING_ERROR;
    }
    const uint32_t total = base + static_cast<uint32_t>(rec.size());
    const uint8_t nb[2] = {static_cast<uint8_t>(total >> 8), static_cast<uint8_t>(total)};
    if (st == ZEL_OK && !t4_update(hnd, 0, nb, 2, mlc))
        st = ZEL_WRITING_ERROR;
    t4_done(hnd);
    return st;
}

ZEL_STATUS erase_last_t4(ZEL_HANDLE hnd)
{
    T4Cc cc;
    uint32_t nlen = 0;
    std::vector<uint32_t> offsets;
    std::vector<uint8_t> flags;
    ZEL_STATUS st = t4_open(hnd, cc, nlen, offsets, flags);
    uint32_t total = 0;
    if (st == ZEL_OK && offsets.size() > 1) {
        const size_t last = offsets.size() - 2;
        const uint8_t f = static_cast<uint8_t>(flags[last] | 0x40 | (last == 0 ? 0x80 : 0));
        if (f != flags[last] && !t4_update(hnd, offsets[last], &f, 1, cc.mlc))
            st = ZEL_WRITING_ERROR;
        total = offsets.back() - 2;
    }
    const uint8_t nb[2] = {static_cast<uint8_t>(total >> 8), static_cast<uint8_t>(total)};
    if (st == ZEL_OK && !t4_update(hnd, 0, nb, 2, cc.mlc))
        st = ZEL_WRITING_ERROR;
    t4_done(hnd);
    return st;
}

// Erases the last record (mode 0) or the whole message (mode 1) of message nr in img.
ZEL_STATUS erase_ndef_record(ZEL_HANDLE hnd, uint8_t message_nr, uint8_t type, uint8_t *img, uint32_t len, int mode)
{
    Message m;
    ZEL_STATUS st = open_message(img, len, message_nr, type, 0, m);
    if (st != ZEL_OK)
        return st;
    const uint32_t header = m.tlv.header;
    const bool terminator = m.tlv.length < m.data.size() && m.data[m.tlv.length] == 0xFE;
    if (mode == 1) {
        if (m.tlv.length == 0)
            return ZEL_OK;
        std::vector<uint8_t> buf(header + m.tlv.length + 1, 0);
        buf[0] = 0x03;
        if (terminator)
            buf[2] = 0xFE;
        // The header itself lies before the gap; the value part is placed round it.
        if ((st = write_image(hnd, type, buf.data(), m.tlv.offset, header)) != ZEL_OK)
            return st;
        return write_logical(hnd, type, img, len, m.tlv.value(), m.gap, 0, buf.data() + header,
                             static_cast<uint32_t>(buf.size() - header));
    }
    if (m.tlv.length == 0 || m.offsets.empty())
        return ZEL_NDEF_MESSAGE_NOT_FOUND;
    if ((st = normalise_flags(hnd, type, img, len, m)) != ZEL_OK)
        return st;
    const uint32_t last_off = m.offsets.back();
    const uint32_t last_size = m.records.back().size;
    if (m.offsets.size() == 1) {
        const uint8_t head[3] = {0x03, 0x00, 0xFE};
        if ((st = write_image(hnd, type, head, m.tlv.offset, 3)) != ZEL_OK)
            return st;
        // The rest of the old record's bytes (and a long length's last byte), behind the new terminator.
        uint32_t covered = 1;
        if (header == 4) {
            covered = 0;
            if ((st = write_image(hnd, type, kZero, m.tlv.offset + 3, 1)) != ZEL_OK)
                return st;
        }
        if (last_size > covered) {
            std::vector<uint8_t> zeros(last_size - covered, 0);
            return write_logical(hnd, type, img, len, m.tlv.value(), m.gap, covered, zeros.data(),
                                 static_cast<uint32_t>(zeros.size()));
        }
        return ZEL_OK;
    }
    std::vector<uint8_t> wipe(last_size, 0);
    wipe[0] = 0xFE;
    if ((st = write_logical(hnd, type, img, len, m.tlv.value(), m.gap, last_off, wipe.data(), last_size)) != ZEL_OK)
        return st;
    const uint32_t prev = m.offsets[m.offsets.size() - 2];
    const uint8_t pf = static_cast<uint8_t>(m.data[prev] | 0x40);
    if ((st = write_byte(hnd, type, img, len, m.phys(prev), pf)) != ZEL_OK)
        return st;
    m.data[prev] = pf;
    const uint32_t new_len = last_off;
    if (header == 4 && new_len < 255) {
        // Back to the one-byte length: the message moves down by two bytes.
        std::vector<uint8_t> moved(m.data.begin(), m.data.begin() + new_len);
        moved.push_back(0xFE);
        moved.push_back(0x00);
        moved.push_back(0x00);
        if ((st = write_logical(hnd, type, img, len, m.tlv.offset + 2, m.gap, 0, moved.data(),
                                static_cast<uint32_t>(moved.size()))) != ZEL_OK)
            return st;
        const uint8_t head[2] = {0x03, static_cast<uint8_t>(new_len)};
        return write_image(hnd, type, head, m.tlv.offset, 2);
    }
    if (header == 2)
        return write_byte(hnd, type, img, len, m.tlv.offset + 1, static_cast<uint8_t>(new_len));
    const uint8_t head[3] = {0xFF, static_cast<uint8_t>(new_len >> 8), static_cast<uint8_t>(new_len)};
    return write_image(hnd, type, head, m.tlv.offset + 1, 3);
}

ZEL_STATUS erase_memory_card(ZEL_HANDLE hnd, uint8_t message_nr, int mode)
{
    uint8_t type = 0;
    ZEL_STATUS st = GetOrbCardTypeHnd(hnd, &type);
    if (st != ZEL_OK)
        return st;
    uint32_t size = 0;
    (void)check_capability_container(hnd, type, size);
    std::vector<uint8_t> image(ZEL_NDEF_IMAGE_LEN);
    uint32_t len = 0;
    if ((st = read_card_data(hnd, type, image.data(), ZEL_NDEF_IMAGE_LEN, len, size)) != ZEL_OK)
        return st;
    return erase_ndef_record(hnd, message_nr, type, image.data(), len, mode);
}

bool write_args_ok(const uint8_t *tnf, const uint8_t *type_record, const uint8_t *type_length, const uint8_t *id,
                   const uint8_t *id_length, const uint8_t *payload, const uint32_t *payload_length,
                   const uint8_t *card_formated)
{
    if (!tnf || !type_length || !id_length || !payload_length || !card_formated)
        return false;
    if ((*type_length && !type_record) || (*id_length && !id) || (*payload_length && !payload))
        return false;
    // A record must fit a card image.
    return *payload_length <= ZEL_NDEF_IMAGE_LEN;
}

ZEL_STATUS write_record(ZEL_HANDLE hnd, uint8_t message_nr, const uint8_t *tnf, const uint8_t *type_record,
                        const uint8_t *type_length, const uint8_t *id, const uint8_t *id_length, const uint8_t *payload,
                        const uint32_t *payload_length, uint8_t *card_formated, Placed &placed, bool t2t_only)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!write_args_ok(tnf, type_record, type_length, id, id_length, payload, payload_length, card_formated))
        return ZEL_PARAMETERS_ERROR;
    *card_formated = 0;
    uint8_t type = 0;
    const ZEL_STATUS st = GetOrbCardTypeHnd(hnd, &type);
    if (st != ZEL_OK)
        return st;
    if (is_t4(type)) {
        if (t2t_only)
            return ZEL_UNSUPPORTED_CARD_TYPE;
        return write_t4(hnd, *tnf, type_record, *type_length, id, *id_length, payload, *payload_length);
    }
    if (t2t_only && !is_t2t(type))
        return ZEL_UNSUPPORTED_CARD_TYPE;
    return write_memory_card(hnd, type, message_nr, *tnf, type_record, *type_length, id, *id_length, payload,
                             *payload_length, card_formated, placed);
}

// The mirror configuration of the NTAG21x tags.
struct MirrorTag {
    uint8_t type;
    uint8_t page;
    bool counter;
    bool tt;
};
const MirrorTag kMirrorTags[] = {
    {ORB_NTAG_210, 16, false, false}, {ORB_NTAG_212, 37, false, false}, {ORB_NTAG_213, 41, true, false},
    {ORB_NTAG_215, 131, true, false}, {ORB_NTAG_216, 227, true, false}, {ORB_NTAG_213_TT, 41, true, true},
};

ZEL_STATUS write_mirroring(ZEL_HANDLE hnd, uint8_t message_nr, uint8_t *tnf, uint8_t *type_record, uint8_t *type_length,
                           uint8_t *id, uint8_t *id_length, uint8_t *payload, uint32_t *payload_length,
                           uint8_t *card_formated, bool uid, bool counter, bool tt, uint32_t position)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    uint8_t type = 0;
    ZEL_STATUS st = GetOrbCardTypeHnd(hnd, &type);
    if (st != ZEL_OK)
        return st;
    const MirrorTag *tag = nullptr;
    for (const MirrorTag &t : kMirrorTags)
        if (t.type == type)
            tag = &t;
    const bool any = uid || counter || tt;
    if (any && (!tag || (counter && !tag->counter) || (tt && !tag->tt)))
        return ZEL_UNSUPPORTED_CARD_TYPE;
    const bool old_form = type == ORB_NTAG_210 || type == ORB_NTAG_212;
    uint8_t cfg[16] = {};
    if (!any) {
        if (tag) {
            if ((st = BlockRead_AKM1Hnd(hnd, cfg, tag->page, ZEL_AUTH_KEY_A)) != ZEL_OK)
                return st;
            cfg[2] = 0;
            cfg[0] &= old_form ? 0xCF : 0x0F;
            if ((st = BlockWrite_AKM1Hnd(hnd, cfg, tag->page, ZEL_AUTH_KEY_A)) != ZEL_OK)
                return st;
        }
        return write_ndef_recordHnd(hnd, message_nr, tnf, type_record, type_length, id, id_length, payload,
                                    payload_length, card_formated);
    }
    Placed placed;
    if ((st = write_record(hnd, message_nr, tnf, type_record, type_length, id, id_length, payload, payload_length,
                           card_formated, placed, true)) != ZEL_OK)
        return st;
    const uint64_t p = static_cast<uint64_t>(placed.payload_offset) + 16 + placed.record_offset + position;
    if (p / 4 > 0xFF)
        return ZEL_PARAMETERS_ERROR;
    const uint8_t page = static_cast<uint8_t>(p / 4), byte = static_cast<uint8_t>(p % 4);
    if ((st = BlockRead_AKM1Hnd(hnd, cfg, tag->page, ZEL_AUTH_KEY_A)) != ZEL_OK)
        return st;
    uint8_t first = 0;
    if (old_form) {
        first = static_cast<uint8_t>((cfg[0] & ~0x30) | byte << 4 | (uid ? 0x40 : 0));
    } else if (tag->tt) {
        first = static_cast<uint8_t>((cfg[0] & 0x0F) | byte << 3 | (uid ? 0x20 : 0) | (counter ? 0x40 : 0) |
                                     (tt ? 0x80 : 0));
    } else {
        first = static_cast<uint8_t>((cfg[0] & 0x0F) | byte << 4 | (uid ? 0x40 : 0) | (counter ? 0x80 : 0));
    }
    cfg[0] = first;
    cfg[2] = page;
    if (tt)
        cfg[1] |= 0x02;
    if (counter) {
        // The counter's own switch is in the page behind the configuration page, written first.
        uint8_t next[16] = {};
        if ((st = BlockRead_AKM1Hnd(hnd, next, static_cast<uint8_t>(tag->page + 1), ZEL_AUTH_KEY_A)) != ZEL_OK)
            return st;
        next[0] |= 0x10;
        if ((st = BlockWrite_AKM1Hnd(hnd, next, static_cast<uint8_t>(tag->page + 1), ZEL_AUTH_KEY_A)) != ZEL_OK)
            return st;
    }
    return BlockWrite_AKM1Hnd(hnd, cfg, tag->page, ZEL_AUTH_KEY_A);
}

} // namespace

extern "C" ZEL_API ZEL_STATUS ndef_card_initializationHnd(ZEL_HANDLE hnd)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    uint8_t type = 0;
    const ZEL_STATUS st = GetOrbCardTypeHnd(hnd, &type);
    if (st != ZEL_OK)
        return st;
    return format_card_for_ndef(hnd, type);
}

extern "C" ZEL_API ZEL_STATUS read_ndef_recordHnd(ZEL_HANDLE hnd, uint8_t message_nr, uint8_t record_nr, uint8_t *tnf,
                                                  uint8_t *type_record, uint8_t *type_length, uint8_t *id,
                                                  uint8_t *id_length, uint8_t *payload, uint32_t *payload_length)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!tnf || !type_record || !type_length || !id || !id_length || !payload || !payload_length)
        return ZEL_PARAMETERS_ERROR;
    zel_ndef_cache &c = hnd->ndef_cache;
    if (!(c.valid && zel::tick_ms() - c.time_ms <= kCacheMs)) {
        c.valid = 0;
        uint8_t type = 0;
        ZEL_STATUS st = GetOrbCardTypeHnd(hnd, &type);
        if (st == ZEL_OK)
            st = load_image(hnd, type);
        if (st != ZEL_OK)
            return st;
    }
    const uint8_t *img = c.image;
    const uint32_t len = c.image_len;
    Message m;
    ZEL_STATUS st = open_message(img, len, message_nr, c.card_type, 0, m);
    unsigned want = record_nr ? record_nr : 1;
    // Record numbers run on into the messages that follow.
    while (st == ZEL_OK && want > m.offsets.size()) {
        want -= static_cast<unsigned>(m.offsets.size());
        const Gap gap = m.gap;
        st = open_message(img, len, 1, c.card_type, m.end(), m, gap);
    }
    if (st != ZEL_OK)
        return st;
    const Record &r = m.records[want - 1];
    uint8_t *rec = c.scratch;
    std::memcpy(rec, m.data.data() + m.offsets[want - 1], r.size);
    *tnf = r.tnf;
    *type_length = 0;
    *id_length = 0;
    *payload_length = 0;
    if (r.tnf == 0 || r.tnf == 7)
        return ZEL_OK;
    const uint8_t *p = rec + r.header_len;
    *type_length = r.type_len;
    std::memcpy(type_record, p, r.type_len);
    p += r.type_len;
    *id_length = r.id_len;
    std::memcpy(id, p, r.id_len);
    p += r.id_len;
    uint8_t *body = payload + ZEL_NDEF_PAYLOAD_SLACK;
    std::memcpy(body, p, r.payload_len);
    *payload_length = r.payload_len;
    const bool uri = r.type_len == 1 && type_record[0] == 'U' && r.tnf != 5 && r.tnf != 6;
    if (!uri) {
        std::memmove(payload, body, r.payload_len);
        return ZEL_OK;
    }
    if (r.payload_len == 0)
        return ZEL_OK;
    const char *prefix = uri_prefix(body[0]);
    if (!prefix) {
        // An unknown code, 0 included: the text alone, and the length still counts the code byte.
        std::memmove(payload, body + 1, r.payload_len - 1);
        return ZEL_OK;
    }
    const uint32_t plen = static_cast<uint32_t>(std::strlen(prefix));
    std::memmove(payload + plen, body + 1, r.payload_len - 1);
    std::memcpy(payload, prefix, plen);
    *payload_length = plen + r.payload_len - 1;
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS write_ndef_recordHnd(ZEL_HANDLE hnd, uint8_t message_nr, uint8_t *tnf,
                                                   uint8_t *type_record, uint8_t *type_length, uint8_t *id,
                                                   uint8_t *id_length, uint8_t *payload, uint32_t *payload_length,
                                                   uint8_t *card_formated)
{
    Placed placed;
    return write_record(hnd, message_nr, tnf, type_record, type_length, id, id_length, payload, payload_length,
                        card_formated, placed, false);
}

extern "C" ZEL_API ZEL_STATUS write_ndef_record_mirroringHnd(ZEL_HANDLE hnd, uint8_t message_nr, uint8_t *tnf,
                                                             uint8_t *type_record, uint8_t *type_length, uint8_t *id,
                                                             uint8_t *id_length, uint8_t *payload,
                                                             uint32_t *payload_length, uint8_t *card_formated,
                                                             int use_uid_ascii_mirror, int use_counter_ascii_mirror,
                                                             uint32_t payload_mirroring_pos)
{
    return write_mirroring(hnd, message_nr, tnf, type_record, type_length, id, id_length, payload, payload_length,
                           card_formated, use_uid_ascii_mirror != 0, use_counter_ascii_mirror != 0, false,
                           payload_mirroring_pos);
}

extern "C" ZEL_API ZEL_STATUS write_ndef_record_mirroring_ttHnd(
    ZEL_HANDLE hnd, uint8_t message_nr, uint8_t *tnf, uint8_t *type_record, uint8_t *type_length, uint8_t *id,
    uint8_t *id_length, uint8_t *payload, uint32_t *payload_length, uint8_t *card_formated, int use_uid_ascii_mirror,
    int use_counter_ascii_mirror, int use_tt_message_mirror, uint32_t payload_mirroring_pos)
{
    return write_mirroring(hnd, message_nr, tnf, type_record, type_length, id, id_length, payload, payload_length,
                           card_formated, use_uid_ascii_mirror != 0, use_counter_ascii_mirror != 0,
                           use_tt_message_mirror != 0, payload_mirroring_pos);
}

extern "C" ZEL_API ZEL_STATUS get_ndef_record_countHnd(ZEL_HANDLE hnd, uint8_t *ndef_message_cnt,
                                                       uint8_t *ndef_record_cnt, uint8_t *ndef_record_array,
                                                       uint8_t *empty_ndef_message_cnt)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!ndef_message_cnt || !ndef_record_cnt || !ndef_record_array || !empty_ndef_message_cnt)
        return ZEL_PARAMETERS_ERROR;
    *ndef_message_cnt = *ndef_record_cnt = *empty_ndef_message_cnt = 0;
    zel_ndef_cache &c = hnd->ndef_cache;
    c.valid = 0;
    uint8_t type = 0;
    ZEL_STATUS st = GetOrbCardTypeHnd(hnd, &type);
    if (st == ZEL_OK)
        st = load_image(hnd, type);
    if (st != ZEL_OK)
        return st;
    unsigned messages = 0;
    uint32_t from = 0;
    Gap gap;
    while (messages < ZEL_NDEF_RECORD_ARRAY_LEN - 1) {
        Message m;
        st = open_message(c.image, c.image_len, 1, type, from, m, gap);
        if (st == ZEL_NDEF_MESSAGE_NOT_FOUND)
            break;
        if (st != ZEL_OK)
            return st;
        ++messages;
        *ndef_message_cnt = static_cast<uint8_t>(messages);
        if (m.tlv.length == 0)
            ++*empty_ndef_message_cnt;
        for (size_t r = 0; r < m.offsets.size(); ++r) {
            ++*ndef_record_cnt;
            ndef_record_array[messages - 1] = static_cast<uint8_t>(messages);
            ndef_record_array[messages] = static_cast<uint8_t>(r + 1);
        }
        gap = m.gap;
        from = m.end();
    }
    return ZEL_OK;
}

namespace {

// Erases the last record (all = 0) or every record (all = 1): on a Type 4 card through its NDEF file, on
// the others in the card's image.
ZEL_STATUS erase_records(ZEL_HANDLE hnd, uint8_t message_nr, uint8_t all)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    uint8_t type = 0;
    const ZEL_STATUS st = GetOrbCardTypeHnd(hnd, &type);
    if (st != ZEL_OK)
        return st;
    if (type == 17 || type == 18 || type == 64)
        return all ? format_card_for_ndef(hnd, type) : erase_last_t4(hnd);
    return erase_memory_card(hnd, message_nr, all);
}

} // namespace

extern "C" ZEL_API ZEL_STATUS erase_last_ndef_recordHnd(ZEL_HANDLE hnd, uint8_t message_nr)
{
    return erase_records(hnd, message_nr, 0);
}

extern "C" ZEL_API ZEL_STATUS erase_all_ndef_recordsHnd(ZEL_HANDLE hnd, uint8_t message_nr)
{
    return erase_records(hnd, message_nr, 1);
}
