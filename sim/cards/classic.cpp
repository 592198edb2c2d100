// Sector cards: the classic Mini, 1K and 4K, and the Plus 2K and 4K in security level 1, which behave the same
// toward the reader (the Plus cards also hold AES sector keys, and the reader reads them in the multi-block
// stream). Each sector ends in its trailer: key A, three access bytes, a general purpose byte, key B. The
// access conditions are enforced as the card does it, block by block, from the trailer's C1 C2 C3 bits.
//
// Setup:
//   "sectors": [{"sector": N (all sectors when left out), "key_a": 6 bytes, "key_b": 6 bytes,
//                "access": [c0, c1, c2, c3] (C1C2C3 codes 0 to 7) or "access_bytes": 3 bytes,
//                "gpb": byte, "aes_a": 16 bytes, "aes_b": 16 bytes}],
//   "blocks": [{"block": N, "data": up to 16 bytes}],
//   "values": [{"block": N, "value": signed 32-bit, "address": byte}],
//   "memory": raw bytes from block 0 on (trailers included),
//   "stream": the reader answers linear reads in the multi-block stream (Plus cards: true by default)
#include <cstring>

#include "card.h"
#include "cards/memory_setup.h"
#include "json.h"

namespace zs {

namespace {

enum Geometry { MINI, K1, K2, K4 };

// Who may do something: key A, key B, both, or nobody.
constexpr uint8_t NONE = 0, KA = 1, KB = 2, AB = 3;

struct DataRights {
    uint8_t read, write, inc, dec;
};
// Data blocks by C1C2C3.
const DataRights DATA_RIGHTS[8] = {
    {AB, AB, AB, AB},       // 000: transport configuration
    {AB, NONE, NONE, AB},   // 001: value block, decrement only
    {AB, NONE, NONE, NONE}, // 010: read only
    {KB, KB, NONE, NONE},   // 011
    {AB, KB, NONE, NONE},   // 100
    {KB, NONE, NONE, NONE}, // 101
    {AB, KB, KB, AB},       // 110: value block
    {NONE, NONE, NONE, NONE},
};

struct TrailerRights {
    uint8_t key_a_write, access_read, access_write, key_b_read, key_b_write;
};
// The trailer by C1C2C3.
const TrailerRights TRAILER_RIGHTS[8] = {
    {KA, KA, NONE, KA, KA},       // 000
    {KA, KA, KA, KA, KA},         // 001: transport configuration
    {NONE, KA, NONE, KA, NONE},   // 010
    {KB, AB, KB, NONE, KB},       // 011
    {KB, AB, NONE, NONE, KB},     // 100
    {NONE, AB, KB, NONE, NONE},   // 101
    {NONE, AB, NONE, NONE, NONE}, // 110
    {NONE, AB, NONE, NONE, NONE}, // 111
};

int32_t le_i32(const uint8_t *p)
{
    return static_cast<int32_t>(static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
                                static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24);
}

void put_le_i32(uint8_t *p, int32_t v)
{
    const uint32_t u = static_cast<uint32_t>(v);
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<uint8_t>(u >> (8 * i));
}

// The value block layout: value, its inverse, value, then address, inverse, address, inverse.
void make_value_block(uint8_t *b, int32_t value, uint8_t address)
{
    put_le_i32(b, value);
    put_le_i32(b + 4, static_cast<int32_t>(~static_cast<uint32_t>(value)));
    put_le_i32(b + 8, value);
    b[12] = address;
    b[13] = static_cast<uint8_t>(~address);
    b[14] = address;
    b[15] = static_cast<uint8_t>(~address);
}

bool value_of(const uint8_t *b, int32_t &v)
{
    for (int i = 0; i < 4; ++i)
        if (b[i] != b[8 + i] || b[i] != static_cast<uint8_t>(~b[4 + i]))
            return false;
    v = le_i32(b);
    return true;
}

// The access bytes of C1C2C3 codes for blocks 0, 1, 2 and the trailer.
void pack_access(const uint8_t c[4], uint8_t out[3])
{
    uint8_t c1 = 0, c2 = 0, c3 = 0;
    for (int i = 0; i < 4; ++i) {
        c1 = static_cast<uint8_t>(c1 | ((c[i] >> 2) & 1) << i);
        c2 = static_cast<uint8_t>(c2 | ((c[i] >> 1) & 1) << i);
        c3 = static_cast<uint8_t>(c3 | (c[i] & 1) << i);
    }
    out[0] = static_cast<uint8_t>((~c2 & 0x0F) << 4 | (~c1 & 0x0F));
    out[1] = static_cast<uint8_t>(c1 << 4 | (~c3 & 0x0F));
    out[2] = static_cast<uint8_t>(c3 << 4 | c2);
}

// False when the bytes are not in the redundant form (the card then refuses the whole sector).
bool unpack_access(const uint8_t b[3], uint8_t c[4])
{
    const uint8_t c1 = b[1] >> 4, c2 = b[2] & 0x0F, c3 = b[2] >> 4;
    if ((b[0] & 0x0F) != (~c1 & 0x0F) || (b[0] >> 4) != (~c2 & 0x0F) || (b[1] & 0x0F) != (~c3 & 0x0F))
        return false;
    for (int i = 0; i < 4; ++i)
        c[i] = static_cast<uint8_t>(((c1 >> i) & 1) << 2 | ((c2 >> i) & 1) << 1 | ((c3 >> i) & 1));
    return true;
}

class SectorCard final : public Card, public SectorMemory {
public:
    SectorCard(const zsim_card &id, const char *model, Geometry g, bool plus)
        : Card(id), model_(model), geometry_(g), plus_(plus), stream_(plus)
    {
        mem_.assign(static_cast<size_t>(blocks()) * 16, 0);
        aes_.assign(static_cast<size_t>(sectors()) * 32, 0xFF);
        // Block 0: the UID, its check byte for four-byte UIDs, SAK and ATQA, then the maker's bytes.
        uint8_t *b0 = mem_.data();
        const uint8_t n = id.uid_len > 10 ? 10 : id.uid_len;
        std::memcpy(b0, id.uid, n);
        size_t at = n;
        if (n == 4)
            b0[at++] = static_cast<uint8_t>(id.uid[0] ^ id.uid[1] ^ id.uid[2] ^ id.uid[3]);
        b0[at++] = id.sak;
        b0[at++] = static_cast<uint8_t>(id.atqa);
        b0[at++] = static_cast<uint8_t>(id.atqa >> 8);
        for (size_t i = at; i < 16; ++i)
            b0[i] = static_cast<uint8_t>(0x60 + i);
        const uint8_t transport[16] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x07,
                                       0x80, 0x69, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
        for (unsigned s = 0; s < sectors(); ++s)
            std::memcpy(block(trailer_of(s)), transport, 16);
    }

    const char *model() const override { return model_; }
    bool wants_ext(const uint8_t *) const override { return false; }
    bool command(const uint8_t *, const uint8_t *, size_t, std::vector<uint8_t> &) override { return false; }
    SectorMemory *sector_memory() override { return this; }

    unsigned sectors() const override
    {
        switch (geometry_) {
        case MINI: return 5;
        case K1: return 16;
        case K2: return 32;
        case K4: return 40;
        }
        return 0;
    }
    unsigned first_block(unsigned s) const override { return s < 32 ? s * 4 : 128 + (s - 32) * 16; }
    unsigned blocks_in(unsigned s) const override { return s < 32 ? 4 : 16; }
    bool streams_linear() const override { return stream_; }

    MemResult authenticate(unsigned blk, KeyType type, const uint8_t *key, size_t key_len) override
    {
        auth_sector_ = -1;
        if (blk >= blocks())
            return MemResult::ADDRESS;
        const unsigned s = sector_of(blk);
        const uint8_t *t = block(trailer_of(s));
        bool ok = false;
        switch (type) {
        case KeyType::A: ok = key_len == 6 && std::memcmp(key, t, 6) == 0; break;
        case KeyType::B: ok = key_len == 6 && std::memcmp(key, t + 10, 6) == 0; break;
        case KeyType::AES_A: ok = plus_ && key_len == 16 && std::memcmp(key, aes(s), 16) == 0; break;
        case KeyType::AES_B: ok = plus_ && key_len == 16 && std::memcmp(key, aes(s) + 16, 16) == 0; break;
        }
        if (!ok)
            return MemResult::AUTH;
        auth_sector_ = static_cast<int>(s);
        auth_key_ = type == KeyType::A || type == KeyType::AES_A ? KA : KB;
        return MemResult::OK;
    }

    MemResult read(unsigned blk, uint8_t out[16]) override
    {
        uint8_t c = 0;
        const MemResult r = rights_of(blk, c);
        if (r != MemResult::OK)
            return r;
        if (!is_trailer(blk)) {
            if (!(DATA_RIGHTS[c].read & key_now()))
                return MemResult::DENIED;
            std::memcpy(out, block(blk), 16);
            return MemResult::OK;
        }
        const TrailerRights &tr = TRAILER_RIGHTS[c];
        if (!(tr.access_read & key_now()))
            return MemResult::DENIED;
        std::memset(out, 0, 16); // key A never reads back
        std::memcpy(out + 6, block(blk) + 6, 4);
        if (tr.key_b_read & key_now())
            std::memcpy(out + 10, block(blk) + 10, 6);
        return MemResult::OK;
    }

    MemResult write(unsigned blk, const uint8_t in[16]) override
    {
        uint8_t c = 0;
        const MemResult r = rights_of(blk, c);
        if (r != MemResult::OK)
            return r;
        if (blk == 0)
            return MemResult::DENIED; // the maker's block
        if (!is_trailer(blk)) {
            if (!(DATA_RIGHTS[c].write & key_now()))
                return MemResult::DENIED;
            std::memcpy(block(blk), in, 16);
            return MemResult::OK;
        }
        // Each part of the trailer changes only where its condition lets the key change it.
        const TrailerRights &tr = TRAILER_RIGHTS[c];
        const bool ka = tr.key_a_write & key_now(), acc = tr.access_write & key_now(), kb = tr.key_b_write & key_now();
        if (!ka && !acc && !kb)
            return MemResult::DENIED;
        uint8_t *t = block(blk);
        if (ka)
            std::memcpy(t, in, 6);
        if (acc)
            std::memcpy(t + 6, in + 6, 4);
        if (kb)
            std::memcpy(t + 10, in + 10, 6);
        return MemResult::OK;
    }

    MemResult increment(unsigned blk, int32_t by) override { return value_op(blk, by, true); }
    MemResult decrement(unsigned blk, int32_t by) override { return value_op(blk, by, false); }

    // Setup.
    bool setup(const Json *cfg, std::string &err);

private:
    uint8_t *block(unsigned b) { return mem_.data() + static_cast<size_t>(b) * 16; }
    const uint8_t *block(unsigned b) const { return mem_.data() + static_cast<size_t>(b) * 16; }
    uint8_t *aes(unsigned s) { return aes_.data() + static_cast<size_t>(s) * 32; }
    unsigned trailer_of(unsigned s) const { return first_block(s) + blocks_in(s) - 1; }
    uint8_t key_now() const { return auth_key_; }
    // The access group of a block inside its sector: large sectors share one code among five blocks.
    unsigned group_of(unsigned blk) const
    {
        const unsigned s = sector_of(blk), i = blk - first_block(s);
        if (blocks_in(s) == 4)
            return i;
        return i == 15 ? 3 : i / 5;
    }
    // The C1C2C3 code of a block once its sector is authenticated.
    MemResult rights_of(unsigned blk, uint8_t &c) const
    {
        if (blk >= blocks())
            return MemResult::ADDRESS;
        const unsigned s = sector_of(blk);
        if (auth_sector_ != static_cast<int>(s))
            return MemResult::DENIED;
        uint8_t codes[4];
        if (!unpack_access(block(trailer_of(s)) + 6, codes))
            return MemResult::DENIED;
        // A key B that may be read cannot serve: after it every access of the sector is refused.
        if (auth_key_ == KB && (TRAILER_RIGHTS[codes[3]].key_b_read & KA))
            return MemResult::DENIED;
        c = codes[group_of(blk)];
        return MemResult::OK;
    }

    MemResult value_op(unsigned blk, int32_t by, bool up)
    {
        uint8_t c = 0;
        const MemResult r = rights_of(blk, c);
        if (r != MemResult::OK)
            return r;
        if (is_trailer(blk))
            return MemResult::FORMAT;
        const uint8_t who = up ? DATA_RIGHTS[c].inc : DATA_RIGHTS[c].dec;
        if (!(who & key_now()))
            return MemResult::DENIED;
        int32_t v = 0;
        if (!value_of(block(blk), v))
            return MemResult::FORMAT;
        const int64_t next = up ? static_cast<int64_t>(v) + by : static_cast<int64_t>(v) - by;
        if (next > INT32_MAX || next < INT32_MIN)
            return MemResult::OVERFLOW;
        make_value_block(block(blk), static_cast<int32_t>(next), block(blk)[12]);
        return MemResult::OK;
    }

    const char *model_;
    Geometry geometry_;
    bool plus_;
    bool stream_;
    std::vector<uint8_t> mem_;
    std::vector<uint8_t> aes_; // per sector: AES key A, AES key B
    int auth_sector_ = -1;
    uint8_t auth_key_ = NONE;
};

bool SectorCard::setup(const Json *cfg, std::string &err)
{
    if (!setup_members(cfg, "setup", {"sectors", "blocks", "values", "memory", "stream"}, err))
        return false;
    if (!cfg || cfg->kind == Json::NUL)
        return true;
    if (!setup_memory(*cfg, "setup", mem_, err))
        return false;
    bool given = false;
    std::vector<uint8_t> bytes;
    if (!setup_bool(*cfg, "stream", "setup", stream_, err))
        return false;
    if (const Json *list = cfg->get("sectors")) {
        if (list->kind != Json::ARRAY) {
            err = "setup.sectors: a list is expected";
            return false;
        }
        for (const Json &e : list->items) {
            const std::string w = "setup.sectors[]";
            if (!setup_members(&e, w, {"sector", "key_a", "key_b", "access", "access_bytes", "gpb", "aes_a", "aes_b"},
                               err))
                return false;
            int64_t s = 0;
            bool one = false;
            if (!setup_int(e, "sector", w, 0, sectors() - 1, s, one, err))
                return false;
            std::vector<uint8_t> ka, kb, ab, aa, abk;
            bool has_ka, has_kb, has_ab, has_aa, has_abk;
            if (!setup_hex(e, "key_a", w, 6, false, ka, has_ka, err) ||
                !setup_hex(e, "key_b", w, 6, false, kb, has_kb, err) ||
                !setup_hex(e, "access_bytes", w, 3, false, ab, has_ab, err) ||
                !setup_hex(e, "aes_a", w, 16, false, aa, has_aa, err) ||
                !setup_hex(e, "aes_b", w, 16, false, abk, has_abk, err))
                return false;
            int64_t gpb = 0;
            bool has_gpb = false;
            if (!setup_int(e, "gpb", w, 0, 255, gpb, has_gpb, err))
                return false;
            if (const Json *acc = e.get("access")) {
                if (acc->kind != Json::ARRAY || acc->items.size() != 4) {
                    err = w + ".access: four codes from 0 to 7 are expected";
                    return false;
                }
                uint8_t codes[4];
                for (int i = 0; i < 4; ++i) {
                    const Json &x = acc->items[static_cast<size_t>(i)];
                    if (x.kind != Json::NUMBER || x.num < 0 || x.num > 7 || x.num != static_cast<int>(x.num)) {
                        err = w + ".access: four codes from 0 to 7 are expected";
                        return false;
                    }
                    codes[i] = static_cast<uint8_t>(x.num);
                }
                ab.resize(3);
                pack_access(codes, ab.data());
                has_ab = true;
            }
            if ((has_aa || has_abk) && !plus_) {
                err = w + ": AES keys are for the Plus models";
                return false;
            }
            for (unsigned t = one ? static_cast<unsigned>(s) : 0; t < (one ? static_cast<unsigned>(s) + 1 : sectors());
                 ++t) {
                uint8_t *tr = block(trailer_of(t));
                if (has_ka)
                    std::memcpy(tr, ka.data(), 6);
                if (has_ab)
                    std::memcpy(tr + 6, ab.data(), 3);
                if (has_gpb)
                    tr[9] = static_cast<uint8_t>(gpb);
                if (has_kb)
                    std::memcpy(tr + 10, kb.data(), 6);
                if (has_aa)
                    std::memcpy(aes(t), aa.data(), 16);
                if (has_abk)
                    std::memcpy(aes(t) + 16, abk.data(), 16);
            }
        }
    }
    if (const Json *list = cfg->get("blocks")) {
        if (list->kind != Json::ARRAY) {
            err = "setup.blocks: a list is expected";
            return false;
        }
        for (const Json &e : list->items) {
            const std::string w = "setup.blocks[]";
            int64_t b = 0;
            bool has_b = false;
            if (!setup_members(&e, w, {"block", "data"}, err) ||
                !setup_int(e, "block", w, 0, blocks() - 1, b, has_b, err) ||
                !setup_hex(e, "data", w, 16, true, bytes, given, err))
                return false;
            if (!has_b) {
                err = w + ": a block number is expected";
                return false;
            }
            std::memcpy(block(static_cast<unsigned>(b)), bytes.data(), bytes.size());
        }
    }
    if (const Json *list = cfg->get("values")) {
        if (list->kind != Json::ARRAY) {
            err = "setup.values: a list is expected";
            return false;
        }
        for (const Json &e : list->items) {
            const std::string w = "setup.values[]";
            int64_t b = 0, v = 0, a = 0;
            bool has_b = false, has_v = false, has_a = false;
            if (!setup_members(&e, w, {"block", "value", "address"}, err) ||
                !setup_int(e, "block", w, 0, blocks() - 1, b, has_b, err) ||
                !setup_int(e, "value", w, INT32_MIN, INT32_MAX, v, has_v, err) ||
                !setup_int(e, "address", w, 0, 255, a, has_a, err))
                return false;
            if (!has_b || is_trailer(static_cast<unsigned>(b))) {
                err = w + ": a data block number is expected";
                return false;
            }
            make_value_block(block(static_cast<unsigned>(b)), static_cast<int32_t>(v),
                             static_cast<uint8_t>(has_a ? a : b));
        }
    }
    return true;
}

std::unique_ptr<Card> make_sector_card(const zsim_card &id, const Json *cfg, std::string &err, const char *model,
                                       Geometry g, bool plus)
{
    auto card = std::make_unique<SectorCard>(id, model, g, plus);
    if (!card->setup(cfg, err))
        return nullptr;
    return card;
}

} // namespace

std::unique_ptr<Card> make_classic_mini(const zsim_card &id, const Json *cfg, std::string &err)
{
    return make_sector_card(id, cfg, err, "classic_mini", MINI, false);
}
std::unique_ptr<Card> make_classic_1k(const zsim_card &id, const Json *cfg, std::string &err)
{
    return make_sector_card(id, cfg, err, "classic_1k", K1, false);
}
std::unique_ptr<Card> make_classic_4k(const zsim_card &id, const Json *cfg, std::string &err)
{
    return make_sector_card(id, cfg, err, "classic_4k", K4, false);
}
std::unique_ptr<Card> make_plus_2k_sl1(const zsim_card &id, const Json *cfg, std::string &err)
{
    return make_sector_card(id, cfg, err, "plus_2k_sl1", K2, true);
}
std::unique_ptr<Card> make_plus_4k_sl1(const zsim_card &id, const Json *cfg, std::string &err)
{
    return make_sector_card(id, cfg, err, "plus_4k_sl1", K4, true);
}

} // namespace zs
