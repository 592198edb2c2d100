// The reader's memory card commands: blocks, blocks in sectors, the linear space (with the multi-block stream
// for cards that use it), sector trailers, value blocks and the card format, in every key form; and the
// multi-card mode with its enumeration, list and selection. The reader runs the card protocol: it picks the
// key, authenticates to each sector it touches, and forms value blocks and trailers itself.
//
// The key forms by PAR0 (EXT sizes tell provided keys apart):
//   0x00-0x03  a reader key, index in PAR1 (low bits: 0 key A, 1 key B, 2 AES key A, 3 AES key B);
//   0x20-0x23  first automatic rule: key A of sector s at index s mod 16, key B at 16 + s mod 16;
//   0x40-0x43  second automatic rule: key A at index 0, key B at index 1, for every sector;
//   0x10, 0x11 the SAM's key PAR1 for key A or key B; the SAM's entries hold the reader's keys;
//   with key bytes in the EXT, PAR0 is the auth mode: 0x60, 0x61 (6 bytes), 0x80, 0x81 (16), 0x02 (6, AES A).
// The reader keeps 6-byte keys only, so the AES codes succeed with provided keys alone.
#include <algorithm>
#include <cstring>

#include "reader.h"
#include "wire.h"

namespace zs {

namespace {

// Reader error codes of the memory commands.
constexpr uint8_t E_READING = 3, E_WRITING = 4, E_TRAILER_DIRECT = 10, E_NOT_TRAILER = 11, E_ADDRESS_MODE = 12,
                  E_ACCESS_BITS = 13, E_AUTH = 14, E_CARD_TYPE = 17, E_VALUE_INVALID = 114, E_VALUE_ADDR = 115,
                  E_VALUE_OP = 116, E_MULTI_BLOCK = 185, E_ANTICOLL_OFF = 125, E_NOT_ENUMERATED = 126,
                  E_ALREADY_SELECTED = 127;

constexpr size_t LIST_RECORD = 11; // UID length, then the UID in 10 bytes

uint16_t le16(const uint8_t *p)
{
    return static_cast<uint16_t>(p[0] | p[1] << 8);
}

void put_le32(uint8_t *p, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<uint8_t>(v >> (8 * i));
}

// An error frame that still carries values (the sector count of a format, the value of a 115 read) and
// perhaps an EXT.
void put_error_with(std::vector<uint8_t> &out, uint8_t code, uint8_t p0, const uint8_t *data = nullptr, size_t len = 0)
{
    put_frame(out, ERR_HEADER, code, ERR_TRAILER, static_cast<uint8_t>(data ? len + 1 : 0), p0, 0);
    if (data) {
        out.insert(out.end(), data, data + len);
        out.push_back(checksum(data, len));
    }
}

// Which key a command names.
struct KeySpec {
    enum Source { READER, AKM1, AKM2, SAM, PROVIDED } source = READER;
    KeyType type = KeyType::A;
    uint8_t index = 0;
    const uint8_t *key = nullptr;
    size_t key_len = 0;
};

// Reads PAR0, PAR1 and the provided key bytes. 0 or an error code.
uint8_t key_spec(const uint8_t *f, const uint8_t *key, size_t key_len, KeySpec &k)
{
    k = KeySpec{};
    if (key_len) {
        k.source = KeySpec::PROVIDED;
        k.key = key;
        k.key_len = key_len;
        switch (f[4]) {
        case 0x60: k.type = KeyType::A; break;
        case 0x61: k.type = KeyType::B; break;
        case 0x80: k.type = KeyType::AES_A; break;
        case 0x81: k.type = KeyType::AES_B; break;
        case 0x02: k.type = KeyType::AES_A; break;
        default: return E_PARAMETERS;
        }
        const bool aes = f[4] == 0x80 || f[4] == 0x81;
        return (aes ? key_len == 16 : key_len == 6) ? 0 : E_PARAMETERS;
    }
    const uint8_t low = f[4] & 0x0F;
    if (low > 3)
        return E_PARAMETERS;
    k.type = static_cast<KeyType>(low);
    switch (f[4] & 0xF0) {
    case 0x00: k.source = KeySpec::READER; break;
    case 0x20: k.source = KeySpec::AKM1; break;
    case 0x40: k.source = KeySpec::AKM2; break;
    case 0x10:
        if (low > 1)
            return E_PARAMETERS;
        k.source = KeySpec::SAM;
        break;
    default: return E_PARAMETERS;
    }
    k.index = f[5];
    if ((k.source == KeySpec::READER || k.source == KeySpec::SAM) && k.index >= KEY_COUNT)
        return E_MAX_KEY_INDEX;
    return 0;
}

// The key bytes for one sector.
void key_for(const Reader &r, const KeySpec &k, unsigned sector, const uint8_t *&key, size_t &len)
{
    if (k.source == KeySpec::PROVIDED) {
        key = k.key;
        len = k.key_len;
        return;
    }
    const bool b = k.type == KeyType::B || k.type == KeyType::AES_B;
    size_t index = k.index;
    if (k.source == KeySpec::AKM1)
        index = (sector % 16) + (b ? 16 : 0);
    else if (k.source == KeySpec::AKM2)
        index = b ? 1 : 0;
    key = r.keys[index];
    len = 6;
}

uint8_t mem_error(MemResult m, bool writing)
{
    switch (m) {
    case MemResult::OK: return 0;
    case MemResult::AUTH: return E_AUTH;
    case MemResult::DENIED: return writing ? E_WRITING : E_READING;
    case MemResult::ADDRESS: return E_MAX_ADDRESS;
    case MemResult::FORMAT: return E_VALUE_INVALID;
    case MemResult::OVERFLOW: return E_VALUE_OP;
    }
    return E_READING;
}

// A session of one command on a sector card: authenticates once for each sector it enters.
struct SectorSession {
    const Reader &r;
    SectorMemory &m;
    const KeySpec &k;
    int sector = -1;

    uint8_t enter(unsigned block)
    {
        if (block >= m.blocks())
            return E_MAX_ADDRESS;
        const unsigned s = m.sector_of(block);
        if (static_cast<int>(s) == sector)
            return 0;
        const uint8_t *key = nullptr;
        size_t len = 0;
        key_for(r, k, s, key, len);
        const MemResult res = m.authenticate(block, k.type, key, len);
        if (res != MemResult::OK) {
            sector = -1;
            return mem_error(res, false);
        }
        sector = static_cast<int>(s);
        return 0;
    }
    uint8_t read(unsigned block, uint8_t *out)
    {
        const uint8_t e = enter(block);
        return e ? e : mem_error(m.read(block, out), false);
    }
    uint8_t write(unsigned block, const uint8_t *in)
    {
        const uint8_t e = enter(block);
        return e ? e : mem_error(m.write(block, in), true);
    }
};

// The linear space of a sector card skips block 0 and every trailer; the raw space has all blocks.
bool linear_block(SectorMemory &m, bool raw, unsigned index, unsigned &block)
{
    if (raw) {
        block = index;
        return index < m.blocks();
    }
    unsigned n = 0;
    for (unsigned s = 0; s < m.sectors(); ++s) {
        const unsigned first = s == 0 ? 1 : 0, data = m.blocks_in(s) - 1 - first;
        if (index < n + data) {
            block = m.first_block(s) + first + (index - n);
            return true;
        }
        n += data;
    }
    return false;
}

unsigned linear_size(SectorMemory &m, bool raw)
{
    if (raw)
        return m.blocks() * 16;
    unsigned n = 0;
    for (unsigned s = 0; s < m.sectors(); ++s)
        n += m.blocks_in(s) - 1 - (s == 0 ? 1 : 0);
    return n * 16;
}

// The card the reader talks to now: the selected one in multi-card mode, else the first in the field.
Card *current_card(Reader &r)
{
    if (r.cards.empty())
        return nullptr;
    if (r.anticollision) {
        if (!r.card_selected)
            return nullptr;
        const zsim_card &f = r.cards.front()->id();
        if (f.uid_len != r.selected.uid_len || std::memcmp(f.uid, r.selected.uid, f.uid_len) != 0)
            return nullptr; // the selected card has left the field
    }
    return r.cards.front().get();
}

// The key a block command names: its EXT data split into head, key and payload by its size, and the key
// form of PAR0 and PAR1. 0, or the error code of a size that fits none of the forms or of a bad key form.
uint8_t command_key(const uint8_t *f, const uint8_t *d, size_t len, size_t payload, size_t &key_len, KeySpec &k)
{
    if (len < 4 + payload)
        return E_PARAMETERS;
    key_len = len - 4 - payload;
    if (key_len != 0 && key_len != 6 && key_len != 16)
        return E_PARAMETERS;
    return key_spec(f, key_len ? d + 4 : nullptr, key_len, k);
}

// The absolute block of a block command: block address, or block in sector.
uint8_t block_of(SectorMemory &m, bool in_sector, const uint8_t *head, unsigned &block)
{
    if (!in_sector) {
        block = head[0];
        return block < m.blocks() ? 0 : E_MAX_ADDRESS;
    }
    const unsigned s = head[1];
    if (s >= m.sectors() || head[0] >= m.blocks_in(s))
        return E_MAX_ADDRESS;
    block = m.first_block(s) + head[0];
    return 0;
}

void block_read(Reader &r, Card &c, const uint8_t *f, const uint8_t *d, size_t len, Answer &a)
{
    const bool in_sector = f[1] == 0x18;
    size_t key_len = 0;
    KeySpec k;
    if (const uint8_t e = command_key(f, d, len, 0, key_len, k))
        return put_error(a.bytes, e);
    uint8_t out[16];
    if (PageMemory *p = c.page_memory()) {
        if (in_sector)
            return put_error(a.bytes, E_CARD_TYPE);
        if (const uint8_t e = mem_error(p->read(d[0], out), false))
            return put_error(a.bytes, e);
        return put_response(a.bytes, f[1], 0, 0, out, 16);
    }
    SectorMemory &m = *c.sector_memory();
    unsigned block = 0;
    if (const uint8_t e = block_of(m, in_sector, d, block))
        return put_error(a.bytes, e);
    SectorSession s{r, m, k};
    if (const uint8_t e = s.read(block, out))
        return put_error(a.bytes, e);
    put_response(a.bytes, f[1], 0, 0, out, 16);
}

void block_write(Reader &r, Card &c, const uint8_t *f, const uint8_t *d, size_t len, Answer &a)
{
    const bool in_sector = f[1] == 0x19;
    size_t key_len = 0;
    KeySpec k;
    if (const uint8_t e = command_key(f, d, len, 16, key_len, k))
        return put_error(a.bytes, e);
    const uint8_t *data = d + 4 + key_len;
    if (PageMemory *p = c.page_memory()) {
        // A page takes the first four bytes, as the compatibility write of these tags does.
        if (in_sector)
            return put_error(a.bytes, E_CARD_TYPE);
        if (const uint8_t e = mem_error(p->write(d[0], data), true))
            return put_error(a.bytes, e);
        return put_response(a.bytes, f[1], 0, 0);
    }
    SectorMemory &m = *c.sector_memory();
    unsigned block = 0;
    if (const uint8_t e = block_of(m, in_sector, d, block))
        return put_error(a.bytes, e);
    if (m.is_trailer(block))
        return put_error(a.bytes, E_TRAILER_DIRECT);
    SectorSession s{r, m, k};
    if (const uint8_t e = s.write(block, data))
        return put_error(a.bytes, e);
    put_response(a.bytes, f[1], 0, 0);
}

// Value blocks: read (0x1D, 0x1F), write (0x1E, 0x20), increment (0x21, 0x23), decrement (0x22, 0x24).
void value_command(Reader &r, Card &c, const uint8_t *f, const uint8_t *d, size_t len, Answer &a)
{
    const uint8_t cmd = f[1];
    const bool reading = cmd == 0x1D || cmd == 0x1F;
    const bool in_sector = cmd == 0x1F || cmd == 0x20 || cmd == 0x23 || cmd == 0x24;
    size_t key_len = 0;
    KeySpec k;
    if (const uint8_t e = command_key(f, d, len, reading ? 0 : 4, key_len, k))
        return put_error(a.bytes, e);
    SectorMemory *m = c.sector_memory();
    if (!m)
        return put_error(a.bytes, E_CARD_TYPE);
    unsigned block = 0;
    if (const uint8_t e = block_of(*m, in_sector, d, block))
        return put_error(a.bytes, e);
    if (m->is_trailer(block))
        return put_error(a.bytes, reading ? E_VALUE_INVALID : E_TRAILER_DIRECT);
    SectorSession s{r, *m, k};
    const uint8_t *operand = d + 4 + key_len;
    const int32_t v =
        static_cast<int32_t>(static_cast<uint32_t>(operand[0]) | static_cast<uint32_t>(operand[1]) << 8 |
                             static_cast<uint32_t>(operand[2]) << 16 | static_cast<uint32_t>(operand[3]) << 24);
    if (reading) {
        uint8_t b[16];
        if (const uint8_t e = s.read(block, b))
            return put_error(a.bytes, e);
        for (int i = 0; i < 4; ++i)
            if (b[i] != b[8 + i] || b[i] != static_cast<uint8_t>(~b[4 + i]))
                return put_error(a.bytes, E_VALUE_INVALID);
        // A value whose address bytes disagree still comes, under status 115.
        if (b[12] != b[14] || b[13] != b[15] || b[13] != static_cast<uint8_t>(~b[12]))
            return put_error_with(a.bytes, E_VALUE_ADDR, 0, b, 4);
        return put_response(a.bytes, cmd, b[12], 0, b, 4);
    }
    if (cmd == 0x1E || cmd == 0x20) {
        uint8_t b[16];
        const uint8_t addr = d[3];
        const uint32_t u = static_cast<uint32_t>(v);
        put_le32(b, u);
        put_le32(b + 4, ~u);
        put_le32(b + 8, u);
        b[12] = addr;
        b[13] = static_cast<uint8_t>(~addr);
        b[14] = addr;
        b[15] = static_cast<uint8_t>(~addr);
        if (const uint8_t e = s.write(block, b))
            return put_error(a.bytes, e);
        return put_response(a.bytes, cmd, 0, 0);
    }
    if (const uint8_t e = s.enter(block))
        return put_error(a.bytes, e);
    const bool up = cmd == 0x21 || cmd == 0x23;
    const MemResult res = up ? m->increment(block, v) : m->decrement(block, v);
    if (res == MemResult::DENIED)
        return put_error(a.bytes, E_VALUE_OP);
    if (const uint8_t e = mem_error(res, true))
        return put_error(a.bytes, e);
    put_response(a.bytes, cmd, 0, 0);
}

// The trailer of C1C2C3 codes for blocks 0, 1, 2 and the trailer: the packed, inverted access bytes.
void compose_trailer(uint8_t *t, const uint8_t *key_a, const uint8_t codes[4], uint8_t byte9, const uint8_t *key_b)
{
    uint8_t c1 = 0, c2 = 0, c3 = 0;
    for (int i = 0; i < 4; ++i) {
        c1 = static_cast<uint8_t>(c1 | ((codes[i] >> 2) & 1) << i);
        c2 = static_cast<uint8_t>(c2 | ((codes[i] >> 1) & 1) << i);
        c3 = static_cast<uint8_t>(c3 | (codes[i] & 1) << i);
    }
    std::memcpy(t, key_a, 6);
    t[6] = static_cast<uint8_t>((~c2 & 0x0F) << 4 | (~c1 & 0x0F));
    t[7] = static_cast<uint8_t>(c1 << 4 | (~c3 & 0x0F));
    t[8] = static_cast<uint8_t>(c3 << 4 | c2);
    t[9] = byte9;
    std::memcpy(t + 10, key_b, 6);
}

// The trailer addressed by a trailer command: mode 1 a sector, mode 0 a block that must be a trailer.
uint8_t trailer_block(SectorMemory &m, uint8_t mode, uint8_t address, unsigned &block)
{
    if (mode == 1) {
        if (address >= m.sectors())
            return E_MAX_ADDRESS;
        block = m.first_block(address) + m.blocks_in(address) - 1;
        return 0;
    }
    if (mode != 0)
        return E_ADDRESS_MODE;
    if (address >= m.blocks())
        return E_MAX_ADDRESS;
    if (!m.is_trailer(address))
        return E_NOT_TRAILER;
    block = address;
    return 0;
}

// 0x1A (composed by the reader) and 0x2F (16 bytes as given).
void trailer_write(Reader &r, Card &c, const uint8_t *f, const uint8_t *d, size_t len, Answer &a)
{
    const bool raw = f[1] == 0x2F;
    size_t key_len = 0, payload = 16;
    // The composed form carries 16-byte new keys (36 bytes) with the AES modes; the size tells.
    if (!raw && (len == 4 + 36 || len == 4 + 16 + 36))
        payload = 36;
    KeySpec k;
    if (const uint8_t e = command_key(f, d, len, payload, key_len, k))
        return put_error(a.bytes, e);
    SectorMemory *m = c.sector_memory();
    if (!m)
        return put_error(a.bytes, E_CARD_TYPE);
    unsigned block = 0;
    if (const uint8_t e = trailer_block(*m, d[2], d[0], block))
        return put_error(a.bytes, e);
    const uint8_t *p = d + 4 + key_len;
    uint8_t t[16];
    if (raw) {
        std::memcpy(t, p, 16);
    } else {
        const uint8_t codes[4] = {p[6], p[7], p[8], p[9]};
        for (uint8_t code : codes)
            if (code > 7)
                return put_error(a.bytes, E_ACCESS_BITS);
        compose_trailer(t, p, codes, d[3], p + 10);
    }
    SectorSession s{r, *m, k};
    if (const uint8_t e = s.write(block, t))
        return put_error(a.bytes, e);
    put_response(a.bytes, f[1], 0, 0);
}

// 0x25: every sector's trailer gets the new keys and access codes; the count of sectors done comes back.
void format_card(Reader &r, Card &c, const uint8_t *f, const uint8_t *d, size_t len, Answer &a)
{
    size_t key_len = 0, payload = len == 4 + 32 || len == 4 + 16 + 32 ? 32 : 12;
    KeySpec k;
    if (const uint8_t e = command_key(f, d, len, payload, key_len, k))
        return put_error(a.bytes, e);
    SectorMemory *m = c.sector_memory();
    if (!m)
        return put_error(a.bytes, E_CARD_TYPE);
    if (d[0] > 7 || d[1] > 7)
        return put_error(a.bytes, E_ACCESS_BITS);
    const uint8_t *p = d + 4 + key_len;
    const uint8_t codes[4] = {d[0], d[0], d[0], d[1]};
    uint8_t t[16];
    compose_trailer(t, p, codes, d[3], p + 6);
    SectorSession s{r, *m, k};
    uint8_t done = 0;
    for (unsigned sec = 0; sec < m->sectors(); ++sec) {
        const unsigned block = m->first_block(sec) + m->blocks_in(sec) - 1;
        if (const uint8_t e = s.write(block, t))
            return put_error_with(a.bytes, e, done);
        ++done;
    }
    put_response(a.bytes, f[1], done, 0);
}

// The reader's linear spaces of a card: (offset, length) to bytes, reading or writing.
uint8_t linear_io(Reader &r, Card &c, const KeySpec &k, bool raw, unsigned addr, unsigned len, uint8_t *rd,
                  const uint8_t *wr)
{
    if (PageMemory *p = c.page_memory()) {
        const unsigned first = raw ? 0 : p->first_user_page();
        int key_pages = 0; // a write with a 16-byte key may reach an Ultralight C's key pages
        if (wr && !raw && k.key_len == 16 && (key_pages = p->key_write_pages(k.key)) < 0)
            return E_AUTH;
        const unsigned size = (raw ? p->pages() : p->user_pages() + static_cast<unsigned>(key_pages)) * 4;
        if (addr > size || len > size - addr)
            return E_MAX_ADDRESS;
        for (unsigned at = addr; at < addr + len;) {
            const unsigned page = first + at / 4, off = at % 4, n = std::min(4 - off, addr + len - at);
            uint8_t buf[16];
            if (const uint8_t e = mem_error(p->read(page, buf), false))
                return e;
            if (rd) {
                std::memcpy(rd + (at - addr), buf + off, n);
            } else {
                std::memcpy(buf + off, wr + (at - addr), n);
                if (const uint8_t e = mem_error(p->write(page, buf), true))
                    return e;
            }
            at += n;
        }
        return 0;
    }
    SectorMemory &m = *c.sector_memory();
    const unsigned size = linear_size(m, raw);
    if (addr > size || len > size - addr)
        return E_MAX_ADDRESS;
    SectorSession s{r, m, k};
    for (unsigned at = addr; at < addr + len;) {
        unsigned block = 0;
        if (!linear_block(m, raw, at / 16, block))
            return E_MAX_ADDRESS;
        const unsigned off = at % 16, n = std::min(16 - off, addr + len - at);
        uint8_t buf[16];
        if (rd || n < 16)
            if (const uint8_t e = s.read(block, buf))
                return e;
        if (rd) {
            std::memcpy(rd + (at - addr), buf + off, n);
        } else {
            std::memcpy(buf + off, wr + (at - addr), n);
            if (const uint8_t e = s.write(block, buf))
                return e;
        }
        at += n;
    }
    return 0;
}

// 0x14 and 0x45: address, chunk, key, remaining. A card that streams gets the whole rest in records.
void linear_read(Reader &r, Card &c, const uint8_t *f, const uint8_t *d, size_t len, Answer &a)
{
    if (len < 6 || (len - 6 != 0 && len - 6 != 6 && len - 6 != 16))
        return put_error(a.bytes, E_PARAMETERS);
    const size_t key_len = len - 6;
    KeySpec k;
    if (const uint8_t e = key_spec(f, key_len ? d + 4 : nullptr, key_len, k))
        return put_error(a.bytes, e);
    const bool raw = f[1] == 0x45;
    const unsigned addr = le16(d), chunk = le16(d + 2), remaining = le16(d + 4 + key_len);
    SectorMemory *m = c.sector_memory();
    if (!raw && m && m->streams_linear() && chunk < remaining) {
        std::vector<uint8_t> all(remaining);
        if (const uint8_t e = linear_io(r, c, k, raw, addr, remaining, all.data(), nullptr))
            return put_error(a.bytes, e);
        put_error(a.bytes, E_MULTI_BLOCK);
        for (size_t at = 0; at < all.size(); at += 16) {
            const size_t n = std::min<size_t>(16, all.size() - at);
            a.bytes.push_back(0x00);
            a.bytes.push_back(static_cast<uint8_t>(n));
            a.bytes.insert(a.bytes.end(), all.begin() + static_cast<long>(at), all.begin() + static_cast<long>(at + n));
        }
        a.bytes.push_back(0xDD);
        return;
    }
    if (chunk > 254)
        return put_error(a.bytes, E_MAX_SIZE);
    uint8_t out[256];
    if (const uint8_t e = linear_io(r, c, k, raw, addr, chunk, out, nullptr))
        return put_error(a.bytes, e);
    put_response(a.bytes, f[1], 0, 0, out, chunk);
}

// 0x15: address, chunk, key, data.
void linear_write(Reader &r, Card &c, const uint8_t *f, const uint8_t *d, size_t len, Answer &a)
{
    if (len < 4)
        return put_error(a.bytes, E_PARAMETERS);
    const unsigned addr = le16(d), chunk = le16(d + 2);
    if (len < 4 + chunk)
        return put_error(a.bytes, E_PARAMETERS);
    const size_t key_len = len - 4 - chunk;
    if (key_len != 0 && key_len != 6 && key_len != 16)
        return put_error(a.bytes, E_PARAMETERS);
    KeySpec k;
    if (const uint8_t e = key_spec(f, key_len ? d + 4 : nullptr, key_len, k))
        return put_error(a.bytes, e);
    if (const uint8_t e = linear_io(r, c, k, false, addr, chunk, nullptr, d + 4 + key_len))
        return put_error(a.bytes, e);
    put_response(a.bytes, f[1], 0, 0);
}

// The reader's own record of a card for 0xEB: type, SAK, ATQA, UID length, UID in 10 bytes.
void card_info(Card &c, const uint8_t *f, Answer &a)
{
    const zsim_card &id = c.id();
    uint8_t d[15] = {id.orb_type, id.sak, static_cast<uint8_t>(id.atqa), static_cast<uint8_t>(id.atqa >> 8),
                     id.uid_len};
    std::memcpy(d + 5, id.uid, id.uid_len > 10 ? 10 : id.uid_len);
    put_response(a.bytes, f[1], 0, 0, d, sizeof d);
}

bool is_memory_command(uint8_t cmd)
{
    return (cmd >= 0x14 && cmd <= 0x25) && cmd != 0x1B && cmd != 0x1C;
}

// The multi-card mode.
void anticollision(Reader &r, const uint8_t *f, const uint8_t *ext, size_t len, Answer &a)
{
    const uint8_t cmd = f[1];
    switch (cmd) {
    case 0x2D:
        r.anticollision = true;
        r.card_selected = false;
        r.enumerated = false;
        r.enum_list.clear();
        return put_response(a.bytes, cmd, 0, 0);
    case 0x2E:
        r.anticollision = false;
        r.card_selected = false;
        return put_response(a.bytes, cmd, 0, 0);
    case 0x3B: return put_response(a.bytes, cmd, r.anticollision ? 1 : 0, r.card_selected ? 1 : 0);
    default: break;
    }
    if (!r.anticollision)
        return put_error(a.bytes, E_ANTICOLL_OFF);
    switch (cmd) {
    case 0x37: // enumerate: count and the size of the list
        if (r.cards.empty())
            return put_error(a.bytes, E_NO_CARD);
        r.enum_list.clear();
        for (const auto &c : r.cards)
            r.enum_list.push_back(c->id());
        r.enumerated = true;
        return put_response(a.bytes, cmd, static_cast<uint8_t>(r.enum_list.size()),
                            static_cast<uint8_t>(r.enum_list.size() * LIST_RECORD));
    case 0x38: {
        if (!r.enumerated)
            return put_error(a.bytes, E_NOT_ENUMERATED);
        std::vector<uint8_t> list;
        for (const zsim_card &c : r.enum_list) {
            uint8_t rec[LIST_RECORD] = {c.uid_len};
            std::memcpy(rec + 1, c.uid, c.uid_len > 10 ? 10 : c.uid_len);
            list.insert(list.end(), rec, rec + LIST_RECORD);
        }
        return put_response(a.bytes, cmd, static_cast<uint8_t>(r.enum_list.size()), static_cast<uint8_t>(list.size()),
                            list.data(), list.size());
    }
    case 0x39: {
        if (r.card_selected)
            return put_error(a.bytes, E_ALREADY_SELECTED);
        if (!r.enumerated)
            return put_error(a.bytes, E_NOT_ENUMERATED);
        if (!ext || len != f[4] || len == 0 || len > 10)
            return put_error(a.bytes, E_PARAMETERS);
        for (size_t i = 0; i < r.cards.size(); ++i) {
            const zsim_card &id = r.cards[i]->id();
            if (id.uid_len == len && std::memcmp(id.uid, ext, len) == 0) {
                // The selected card becomes the one every card command reaches.
                std::rotate(r.cards.begin(), r.cards.begin() + static_cast<long>(i),
                            r.cards.begin() + static_cast<long>(i) + 1);
                r.selected = id;
                r.card_selected = true;
                return put_response(a.bytes, cmd, id.orb_type, 0);
            }
        }
        return put_error(a.bytes, E_NO_CARD);
    }
    case 0x3A: r.card_selected = false; return put_response(a.bytes, cmd, 0, 0);
    default: return put_error(a.bytes, E_NOT_SUPPORTED);
    }
}

} // namespace

bool memory_wants_ext(const Reader &, const uint8_t f[7])
{
    return is_memory_command(f[1]) || f[1] == 0x2F || f[1] == 0x45 || f[1] == 0x39;
}

bool memory_command(Reader &r, const uint8_t f[7], const uint8_t *ext, size_t ext_len, Answer &a)
{
    const uint8_t cmd = f[1];
    const size_t len = ext && ext_len ? ext_len - 1 : 0;
    switch (cmd) {
    case 0x2D:
    case 0x2E:
    case 0x37:
    case 0x38:
    case 0x39:
    case 0x3A:
    case 0x3B: anticollision(r, f, ext, len, a); return true;
    case 0x13:
    case 0x2C:
    case 0x3C:
        // In multi-card mode only a selected card answers; otherwise the reader's own handling.
        if (r.anticollision && !current_card(r)) {
            put_error(a.bytes, E_NO_CARD);
            return true;
        }
        return false;
    case 0xB0:
    case 0xEB: {
        Card *c = current_card(r);
        if (!c) {
            put_error(a.bytes, E_NO_CARD);
            return true;
        }
        if (cmd == 0xEB) {
            card_info(*c, f, a);
            return true;
        }
        uint8_t v[8];
        PageMemory *p = c->page_memory();
        if (!p || !p->version(v))
            put_error(a.bytes, E_CARD_TYPE);
        else
            put_response(a.bytes, cmd, 0, 0, v, 8);
        return true;
    }
    default: break;
    }
    if (!is_memory_command(cmd) && cmd != 0x2F && cmd != 0x45)
        return false;
    if (!ext) {
        put_error(a.bytes, E_PARAMETERS);
        return true;
    }
    Card *c = current_card(r);
    if (!c) {
        put_error(a.bytes, E_NO_CARD);
        return true;
    }
    if (!c->sector_memory() && !c->page_memory()) {
        put_error(a.bytes, E_CARD_TYPE);
        return true;
    }
    if (len < 4) {
        put_error(a.bytes, E_PARAMETERS);
        return true;
    }
    switch (cmd) {
    case 0x14:
    case 0x45: linear_read(r, *c, f, ext, len, a); break;
    case 0x15: linear_write(r, *c, f, ext, len, a); break;
    case 0x16:
    case 0x18: block_read(r, *c, f, ext, len, a); break;
    case 0x17:
    case 0x19: block_write(r, *c, f, ext, len, a); break;
    case 0x1A:
    case 0x2F: trailer_write(r, *c, f, ext, len, a); break;
    case 0x25: format_card(r, *c, f, ext, len, a); break;
    default: value_command(r, *c, f, ext, len, a); break;
    }
    return true;
}

} // namespace zs
