// MIFARE Plus cards at security levels 0, 1 and 3. At level 0 the card speaks ISO 14443-4 and takes the
// personalisation commands in I-blocks: write perso (A8, address in two bytes little endian, 16 bytes) and
// commit perso (AA), each answered by one status byte (0x90 for success). The commit keeps what was
// written and takes the card to level 1, where it is a Classic card of its size to the block commands (and
// authenticates with its AES level 1 key); the level 3 switch key takes it to level 3, where its sectors
// open with the AES sector keys only. The reader's MIFARE Plus commands reach the card's keys through the
// PlusCard interface (mfp.h).
//
// Setup:
//   "level": 0, 1 or 3 (0 by default),
//   "size": "2k" or "4k" (by default "4k"),
//   "keys": [{"address": key block (0x9000 to 0x9004, 0xA000, 0xA001, 0xA080, 0xA081), "key": 16 bytes}],
//   "sectors": [{"sector": N (all sectors when left out), "aes_a": 16 bytes, "aes_b": 16 bytes}],
//   "classic": the setup of the Classic memory, as for the plus_2k_sl1 and plus_4k_sl1 models (without AES
//              keys: those are the "sectors" above)
// Every key not set up is 16 bytes of 0xFF.
#include <array>
#include <cstring>
#include <map>

#include "card.h"
#include "cards/memory_setup.h"
#include "json.h"
#include "mfp.h"
#include "wire.h"

namespace zs {

std::unique_ptr<Card> make_plus_2k_sl1(const zsim_card &id, const Json *config, std::string &err);
std::unique_ptr<Card> make_plus_4k_sl1(const zsim_card &id, const Json *config, std::string &err);

namespace {

using Block = std::array<uint8_t, 16>;

constexpr uint8_t CMD_DESELECT = 0x92, CMD_LEVEL4 = 0x93, CMD_BLOCK_I = 0x90;
constexpr uint8_t E_BLOCK = 115;
constexpr uint8_t WRITE_PERSO = 0xA8, COMMIT_PERSO = 0xAA;
// The card's answer bytes.
constexpr uint8_t ANS_OK = 0x90, ANS_INVALID_BLOCK = 0x09, ANS_COND_OF_USE = 0x0B, ANS_LENGTH = 0x0C;

const uint16_t CARD_KEYS[] = {MFP_MASTER_KEY,     MFP_CONFIG_KEY,  MFP_L2_SWITCH_KEY,
                              MFP_L3_SWITCH_KEY,  MFP_L1_AUTH_KEY, MFP_SELECT_VC_KEY,
                              MFP_PROX_CHECK_KEY, MFP_VC_ENC_KEY,  MFP_VC_MAC_KEY};

// The card type code the reader reports at levels 1 and 3 for a card of the given level 0 code.
struct LevelCodes {
    uint8_t sl0, sl1, sl3;
};
const LevelCodes LEVEL_CODES[] = {
    {0x23, 0x2E, 0x32}, // S 2K
    {0x24, 0x35, 0x39}, // S 4K
    {0x25, 0x2F, 0x33}, // X 2K
    {0x26, 0x36, 0x3A}, // X 4K
    {0x3C, 0x3D, 0x3E}, // SE
    {0x43, 0x30, 0x34}, // EV1 2K
    {0x44, 0x37, 0x3B}, // EV1 4K
};

const Block FF_KEY = [] {
    Block b;
    b.fill(0xFF);
    return b;
}();

class PlusCardModel;

// The card's sector memory at levels 1 and 3: the Classic memory, whose AES keys the Plus card keeps itself.
// The Classic model's own AES keys stay all 0xFF, so that an AES authentication that the Plus card allows
// opens the sector there with the same key kind.
class PlusMemory final : public SectorMemory {
public:
    PlusMemory(PlusCardModel &card, SectorMemory &inner) : card_(card), inner_(inner) {}
    unsigned sectors() const override { return inner_.sectors(); }
    unsigned first_block(unsigned s) const override { return inner_.first_block(s); }
    unsigned blocks_in(unsigned s) const override { return inner_.blocks_in(s); }
    bool streams_linear() const override { return inner_.streams_linear(); }
    MemResult authenticate(unsigned block, KeyType type, const uint8_t *key, size_t key_len) override;
    MemResult read(unsigned block, uint8_t out[16]) override { return inner_.read(block, out); }
    MemResult write(unsigned block, const uint8_t in[16]) override { return inner_.write(block, in); }
    MemResult increment(unsigned block, int32_t by) override { return inner_.increment(block, by); }
    MemResult decrement(unsigned block, int32_t by) override { return inner_.decrement(block, by); }

private:
    PlusCardModel &card_;
    SectorMemory &inner_;
};

class PlusCardModel final : public Card, public PlusCard {
public:
    PlusCardModel(const zsim_card &id, const char *model, std::unique_ptr<Card> classic)
        : Card(id), model_(model), classic_(std::move(classic)), memory_(*this, *classic_->sector_memory())
    {
        for (uint16_t a : CARD_KEYS)
            keys_[a] = FF_KEY;
        for (unsigned s = 0; s < memory_.sectors(); ++s) {
            keys_[static_cast<uint16_t>(MFP_SECTOR_KEYS + 2 * s)] = FF_KEY;
            keys_[static_cast<uint16_t>(MFP_SECTOR_KEYS + 2 * s + 1)] = FF_KEY;
        }
        field_config_.fill(0);
    }

    bool setup(const Json *cfg, std::string &err);

    // Card.
    const char *model() const override { return model_; }
    uint8_t orb_type() const override
    {
        const uint8_t sl0 = id().orb_type;
        if (level_ == 0)
            return sl0;
        for (const LevelCodes &c : LEVEL_CODES)
            if (c.sl0 == sl0)
                return level_ == 1 ? c.sl1 : c.sl3;
        return sl0;
    }
    bool wants_ext(const uint8_t f[7]) const override { return f[1] == CMD_BLOCK_I; }
    bool command(const uint8_t f[7], const uint8_t *ext, size_t ext_len, std::vector<uint8_t> &out) override;
    SectorMemory *sector_memory() override { return level_ == 0 ? nullptr : &memory_; }

    // PlusCard.
    unsigned security_level() const override { return level_; }
    void enter_level3() override { level_ = 3; }
    const uint8_t *key_block(uint16_t address) const override
    {
        const auto it = keys_.find(address);
        return it == keys_.end() ? nullptr : it->second.data();
    }
    bool write_key_block(uint16_t address, const uint8_t data[16]) override
    {
        if (address == MFP_FIELD_CONFIG) {
            std::memcpy(field_config_.data(), data, 16);
            return true;
        }
        const auto it = keys_.find(address);
        if (it == keys_.end())
            return false;
        std::memcpy(it->second.data(), data, 16);
        return true;
    }

private:
    uint8_t perso(const uint8_t *d, size_t n);
    void block_reply(std::vector<uint8_t> &out, const std::vector<uint8_t> &blk);

    const char *model_;
    std::unique_ptr<Card> classic_;
    PlusMemory memory_;
    unsigned level_ = 0;
    std::map<uint16_t, Block> keys_;  // card keys and sector keys (A at even, B at odd addresses)
    Block field_config_;              // 0xB003
    std::map<uint16_t, Block> perso_; // written at level 0, kept at the commit
    bool active_ = false;             // in an ISO 14443-4 session
    uint8_t block_nr_ = 0;
};

MemResult PlusMemory::authenticate(unsigned block, KeyType type, const uint8_t *key, size_t key_len)
{
    const bool aes = type == KeyType::AES_A || type == KeyType::AES_B;
    if (!aes) {
        if (card_.security_level() == 3) {                     // level 3 knows no Crypto keys
            inner_.authenticate(blocks(), type, key, key_len); // ends an earlier authentication
            return MemResult::AUTH;
        }
        return inner_.authenticate(block, type, key, key_len);
    }
    if (block >= blocks())
        return MemResult::ADDRESS;
    const unsigned s = sector_of(block);
    const uint8_t *want = card_.key_block(static_cast<uint16_t>(MFP_SECTOR_KEYS + 2 * s + (type == KeyType::AES_B)));
    if (!want || key_len != 16 || std::memcmp(want, key, 16) != 0) {
        inner_.authenticate(blocks(), type, key, key_len);
        return MemResult::AUTH;
    }
    // At level 3 either AES key has the rights the sector's access conditions give key A.
    return inner_.authenticate(block, card_.security_level() == 3 ? KeyType::AES_A : type, FF_KEY.data(), 16);
}

uint8_t PlusCardModel::perso(const uint8_t *d, size_t n)
{
    if (level_ != 0)
        return ANS_COND_OF_USE;
    if (d[0] == WRITE_PERSO) {
        if (n != 19)
            return ANS_LENGTH;
        const uint16_t address = static_cast<uint16_t>(d[1] | d[2] << 8);
        // Data blocks and the other configuration blocks are taken and not kept: the simulated card keeps
        // its keys and its field configuration.
        const bool data_block = address < memory_.blocks();
        const bool config = address >= 0xB000 && address <= MFP_FIELD_CONFIG;
        if (!data_block && !config && !key_block(address))
            return ANS_INVALID_BLOCK;
        Block b;
        std::memcpy(b.data(), d + 3, 16);
        perso_[address] = b;
        return ANS_OK;
    }
    if (d[0] == COMMIT_PERSO) {
        if (n != 1)
            return ANS_LENGTH;
        for (const auto &w : perso_)
            if (key_block(w.first) || w.first == MFP_FIELD_CONFIG)
                write_key_block(w.first, w.second.data());
        perso_.clear();
        level_ = 1;
        return ANS_OK;
    }
    return ANS_COND_OF_USE;
}

// The reader's reply to an I-block: status, chained flag, length, the card's block (PCB first).
void PlusCardModel::block_reply(std::vector<uint8_t> &out, const std::vector<uint8_t> &blk)
{
    std::vector<uint8_t> d = {0, 0, 0, 0, 0, static_cast<uint8_t>(blk.size())};
    d.insert(d.end(), blk.begin(), blk.end());
    put_response(out, CMD_BLOCK_I, 0, 0, d.data(), d.size());
}

bool PlusCardModel::command(const uint8_t f[7], const uint8_t *ext, size_t ext_len, std::vector<uint8_t> &out)
{
    switch (f[1]) {
    case CMD_LEVEL4:
        active_ = true;
        block_nr_ = 0;
        put_response(out, f[1], 0, 0);
        return true;
    case CMD_DESELECT:
        if (!active_)
            return put_error(out, E_NO_CARD), true;
        active_ = false; // written blocks stay, committed or not
        put_response(out, f[1], 0, 0);
        return true;
    case CMD_BLOCK_I: {
        const size_t n = ext && ext_len ? ext_len - 1 : 0;
        if (!active_ || n == 0) { // no answer from the card
            const uint8_t d[6] = {E_BLOCK, 0, 0, 0, 0, 0};
            put_frame(out, ERR_HEADER, E_BLOCK, ERR_TRAILER, sizeof d + 1, 0, 0);
            out.insert(out.end(), d, d + sizeof d);
            out.push_back(checksum(d, sizeof d));
            return true;
        }
        const uint8_t answer = perso(ext, n);
        block_reply(out, {static_cast<uint8_t>(0x02 | block_nr_), answer});
        block_nr_ ^= 1;
        return true;
    }
    default: return false;
    }
}

bool PlusCardModel::setup(const Json *cfg, std::string &err)
{
    if (!setup_members(cfg, "setup", {"level", "size", "keys", "sectors", "classic"}, err))
        return false;
    if (!cfg || cfg->kind == Json::NUL)
        return true;
    int64_t level = 0;
    bool given = false;
    if (!setup_int(*cfg, "level", "setup", 0, 3, level, given, err))
        return false;
    if (level == 2) {
        err = "setup.level: 0, 1 or 3";
        return false;
    }
    level_ = static_cast<unsigned>(level);
    std::vector<uint8_t> bytes;
    if (const Json *list = cfg->get("keys")) {
        if (list->kind != Json::ARRAY) {
            err = "setup.keys: a list is expected";
            return false;
        }
        for (const Json &e : list->items) {
            const std::string w = "setup.keys[]";
            int64_t address = 0;
            bool has_address = false, has_key = false;
            if (!setup_members(&e, w, {"address", "key"}, err) ||
                !setup_int(e, "address", w, 0x9000, 0xA081, address, has_address, err) ||
                !setup_hex(e, "key", w, 16, false, bytes, has_key, err))
                return false;
            const uint16_t a = static_cast<uint16_t>(address);
            bool card_key = false;
            for (uint16_t k : CARD_KEYS)
                card_key = card_key || k == a;
            if (!has_address || !has_key || !card_key) {
                err = w + ": a card key address and a 16-byte key are expected";
                return false;
            }
            write_key_block(a, bytes.data());
        }
    }
    if (const Json *list = cfg->get("sectors")) {
        if (list->kind != Json::ARRAY) {
            err = "setup.sectors: a list is expected";
            return false;
        }
        for (const Json &e : list->items) {
            const std::string w = "setup.sectors[]";
            int64_t s = 0;
            bool one = false, has_a = false, has_b = false;
            std::vector<uint8_t> ka, kb;
            if (!setup_members(&e, w, {"sector", "aes_a", "aes_b"}, err) ||
                !setup_int(e, "sector", w, 0, memory_.sectors() - 1, s, one, err) ||
                !setup_hex(e, "aes_a", w, 16, false, ka, has_a, err) ||
                !setup_hex(e, "aes_b", w, 16, false, kb, has_b, err))
                return false;
            const unsigned from = one ? static_cast<unsigned>(s) : 0;
            const unsigned to = one ? static_cast<unsigned>(s) + 1 : memory_.sectors();
            for (unsigned t = from; t < to; ++t) {
                if (has_a)
                    write_key_block(static_cast<uint16_t>(MFP_SECTOR_KEYS + 2 * t), ka.data());
                if (has_b)
                    write_key_block(static_cast<uint16_t>(MFP_SECTOR_KEYS + 2 * t + 1), kb.data());
            }
        }
    }
    return true;
}

// The Classic part's setup may not set AES keys: the Plus card holds them.
bool classic_setup_ok(const Json *classic, std::string &err)
{
    if (!classic || classic->kind != Json::OBJECT)
        return true;
    if (const Json *list = classic->get("sectors"); list && list->kind == Json::ARRAY)
        for (const Json &e : list->items)
            if (e.get("aes_a") || e.get("aes_b")) {
                err = "setup.classic: AES keys of a Plus card are set in setup.sectors";
                return false;
            }
    return true;
}

} // namespace

std::unique_ptr<Card> make_plus_card(const zsim_card &id, const Json *cfg, std::string &err)
{
    bool k2 = false;
    const Json *classic = nullptr;
    if (cfg && cfg->kind == Json::OBJECT) {
        if (const Json *size = cfg->get("size")) {
            if (size->kind != Json::STRING || (size->str != "2k" && size->str != "4k")) {
                err = "setup.size: \"2k\" or \"4k\"";
                return nullptr;
            }
            k2 = size->str == "2k";
        }
        classic = cfg->get("classic");
    }
    if (!classic_setup_ok(classic, err))
        return nullptr;
    std::unique_ptr<Card> inner = k2 ? make_plus_2k_sl1(id, classic, err) : make_plus_4k_sl1(id, classic, err);
    if (!inner)
        return nullptr;
    auto card = std::make_unique<PlusCardModel>(id, "plus", std::move(inner));
    if (!card->setup(cfg, err))
        return nullptr;
    return card;
}

} // namespace zs
