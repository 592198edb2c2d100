// ISO 15693 vicinity tags of the two custom families the reader knows: ICODE (five passwords, a protected
// page pair, block locks) and EM4237 (one password, page protection by status byte, the random id). Blocks
// are 4 bytes; the reader's block and linear commands reach them from block 0 (a block read gives four
// blocks, wrapping), and its 0xB5 engine reaches the custom commands through VicinityTag.
//
// Scenario: {"model": "iso15693", "type": "50", "uid": "E004...", "setup": {...}}, every member optional:
//   "family":       "icode" (default) or "em4237"
//   "blocks":       number of blocks, 1 to 256 (default 80)
//   "dsfid", "afi", "ic_reference": bytes of the system information (defaults 0, 0, 1)
//   "info_flags":   which fields the system information carries (default 0x0F: all four)
//   "memory":       bytes from block 0 on
//   "block_data":   [{"block": N, "data": bytes (several blocks in a row when longer than 4)}]
//   "locked":       [block numbers locked for good]
//   "passwords":    {"read", "write", "privacy", "destroy", "eas_afi"}: 4 bytes each (default 00000000)
//   "password":     the EM4237 password, 4 bytes (default 00000000)
//   "protection":   {"page": N, "status": N}: ICODE page protection. Blocks below "page" are the low page,
//                   the others the high page; status bits 0x01 low read, 0x02 low write, 0x10 high read,
//                   0x20 high write (a read- or write-protected block refuses plain reads or writes).
//   "em_pages":     [{"page": N, "status": N}]: EM4237 protection of the four blocks from 4 N; status bit
//                   0x01 read protection, 0x02 write protection.
// The UID is given most significant byte first, as the reader reports it; the tag sends it the other way.
#include <cstring>

#include "card.h"
#include "cards/memory_setup.h"
#include "iso15693.h"
#include "json.h"

namespace zs {

namespace {

constexpr unsigned BLOCK = 4;

class VicinityCard final : public Card, public PageMemory, public VicinityTag {
public:
    explicit VicinityCard(const zsim_card &id) : Card(id) { resize(80); }

    const char *model() const override { return "iso15693"; }
    bool wants_ext(const uint8_t *) const override { return false; }
    bool command(const uint8_t *, const uint8_t *, size_t, std::vector<uint8_t> &) override { return false; }
    PageMemory *page_memory() override { return this; }

    // Blocks as pages.
    unsigned pages() const override { return static_cast<unsigned>(locked_.size()); }
    unsigned user_pages() const override { return pages(); }
    unsigned first_user_page() const override { return 0; }
    bool version(uint8_t *) const override { return false; }

    MemResult read(unsigned block, uint8_t out[16]) override
    {
        if (block >= pages())
            return MemResult::ADDRESS;
        if (read_protected(block))
            return MemResult::DENIED;
        for (unsigned i = 0; i < 4; ++i) {
            const unsigned b = (block + i) % pages();
            if (read_protected(b))
                std::memset(out + BLOCK * i, 0, BLOCK);
            else
                std::memcpy(out + BLOCK * i, mem_.data() + static_cast<size_t>(b) * BLOCK, BLOCK);
        }
        return MemResult::OK;
    }

    MemResult write(unsigned block, const uint8_t in[4]) override
    {
        if (block >= pages())
            return MemResult::ADDRESS;
        if (locked_[block] || write_protected(block))
            return MemResult::DENIED;
        std::memcpy(mem_.data() + static_cast<size_t>(block) * BLOCK, in, BLOCK);
        return MemResult::OK;
    }

    // The custom commands.
    bool is_em4237() const override { return em_; }

    uint8_t icode_write_password(uint8_t id, const uint8_t current[4], const uint8_t next[4]) override
    {
        if (em_)
            return E15_CARD_TYPE;
        uint8_t *pw = password(id);
        if (!pw || std::memcmp(pw, current, 4) != 0)
            return E15_AUTH;
        std::memcpy(pw, next, 4);
        return 0;
    }

    uint8_t icode_protect_page(const uint8_t read_pw[4], const uint8_t write_pw[4], uint8_t page,
                               uint8_t status) override
    {
        if (em_)
            return E15_CARD_TYPE;
        if (std::memcmp(read_pw, pw_read_, 4) != 0 || std::memcmp(write_pw, pw_write_, 4) != 0)
            return E15_AUTH;
        if (page >= pages())
            return E15_ADDRESS;
        prot_page_ = page;
        prot_status_ = status & 0x33;
        return 0;
    }

    uint8_t lock_block(const uint8_t *read_pw, const uint8_t *write_pw, uint8_t block) override
    {
        if (read_pw && (std::memcmp(read_pw, em_ ? em_pw_ : pw_read_, 4) != 0 ||
                        std::memcmp(write_pw, em_ ? em_pw_ : pw_write_, 4) != 0))
            return E15_AUTH;
        if (block >= pages())
            return E15_ADDRESS;
        // A write-protected block is locked only by a host that presented the passwords.
        if (!read_pw && write_protected(block))
            return E15_WRITING;
        locked_[block] = true;
        return 0;
    }

    uint8_t block_security(uint8_t first, uint8_t count, bool em_form, std::vector<uint8_t> &out) override
    {
        if (em_form && !em_)
            return E15_CARD_TYPE;
        if (static_cast<unsigned>(first) + count >= pages())
            return E15_ADDRESS;
        out.clear();
        for (unsigned b = first; b <= static_cast<unsigned>(first) + count; ++b) {
            uint8_t s = locked_[b] ? 0x01 : 0x00;
            if (em_form) {
                const uint8_t e = em_status(b);
                s |= static_cast<uint8_t>((e & 0x03) << 1);
            }
            out.push_back(s);
        }
        return 0;
    }

    uint8_t system_information(const uint8_t *pw, std::vector<uint8_t> &out) override
    {
        if (pw && std::memcmp(pw, em_ ? em_pw_ : pw_privacy_, 4) != 0)
            return E15_AUTH;
        out.clear();
        out.push_back(info_flags_);
        uint8_t uid[8] = {};
        const zsim_card &c = id();
        const size_t n = c.uid_len < 8 ? c.uid_len : 8;
        for (size_t i = 0; i < n; ++i)
            uid[i] = c.uid[n - 1 - i]; // least significant byte first on the air
        if (rid_)
            for (int i = 0; i < 6; ++i) // the random id keeps the maker bytes and hides the serial
                uid[i] = static_cast<uint8_t>(uid[i] ^ 0xA5 ^ (i * 0x1D));
        out.insert(out.end(), uid, uid + 8);
        if (info_flags_ & 0x01)
            out.push_back(dsfid_);
        if (info_flags_ & 0x02)
            out.push_back(afi_);
        if (info_flags_ & 0x04) {
            out.push_back(static_cast<uint8_t>(pages() - 1));
            out.push_back(BLOCK - 1);
        }
        if (info_flags_ & 0x08)
            out.push_back(ic_ref_);
        return 0;
    }

    uint8_t em_protect_page(const uint8_t pw[4], uint8_t page, uint8_t status) override
    {
        if (!em_)
            return E15_CARD_TYPE;
        if (std::memcmp(pw, em_pw_, 4) != 0)
            return E15_AUTH;
        if (static_cast<unsigned>(page) * 4 >= pages())
            return E15_ADDRESS;
        em_pages_[page] = status;
        return 0;
    }

    uint8_t em_enable_rid(const uint8_t pw[4]) override
    {
        if (!em_)
            return E15_CARD_TYPE;
        if (std::memcmp(pw, em_pw_, 4) != 0)
            return E15_AUTH;
        rid_ = true;
        return 0;
    }

    bool setup(const Json *cfg, std::string &err);

private:
    void resize(unsigned blocks)
    {
        mem_.assign(static_cast<size_t>(blocks) * BLOCK, 0);
        locked_.assign(blocks, false);
        em_pages_.assign((blocks + 3) / 4, 0);
    }
    uint8_t *password(uint8_t id)
    {
        switch (id) {
        case PWD_READ: return pw_read_;
        case PWD_WRITE: return pw_write_;
        case PWD_PRIVACY: return pw_privacy_;
        case PWD_DESTROY: return pw_destroy_;
        case PWD_EAS_AFI: return pw_eas_;
        default: return nullptr;
        }
    }
    uint8_t em_status(unsigned block) const { return em_pages_[block / 4]; }
    bool read_protected(unsigned block) const
    {
        if (em_)
            return em_status(block) & 0x01;
        return prot_status_ & (block < prot_page_ ? 0x01 : 0x10);
    }
    bool write_protected(unsigned block) const
    {
        if (em_)
            return em_status(block) & 0x02;
        return prot_status_ & (block < prot_page_ ? 0x02 : 0x20);
    }

    bool em_ = false;
    std::vector<uint8_t> mem_;
    std::vector<bool> locked_;
    std::vector<uint8_t> em_pages_;
    uint8_t dsfid_ = 0, afi_ = 0, ic_ref_ = 1, info_flags_ = 0x0F;
    uint8_t pw_read_[4] = {}, pw_write_[4] = {}, pw_privacy_[4] = {}, pw_destroy_[4] = {}, pw_eas_[4] = {};
    uint8_t em_pw_[4] = {};
    uint8_t prot_page_ = 0, prot_status_ = 0;
    bool rid_ = false;
};

bool setup_byte(const Json &o, const char *name, const std::string &w, uint8_t &out, std::string &err)
{
    int64_t v = 0;
    bool given = false;
    if (!setup_int(o, name, w, 0, 255, v, given, err))
        return false;
    if (given)
        out = static_cast<uint8_t>(v);
    return true;
}

bool setup_pw(const Json &o, const char *name, const std::string &w, uint8_t *out, std::string &err)
{
    std::vector<uint8_t> b;
    bool given = false;
    if (!setup_hex(o, name, w, 4, false, b, given, err))
        return false;
    if (given)
        std::memcpy(out, b.data(), 4);
    return true;
}

bool VicinityCard::setup(const Json *cfg, std::string &err)
{
    const std::string W = "setup";
    if (!setup_members(cfg, W,
                       {"family", "blocks", "dsfid", "afi", "ic_reference", "info_flags", "memory", "block_data",
                        "locked", "passwords", "password", "protection", "em_pages"},
                       err))
        return false;
    if (!cfg || cfg->kind == Json::NUL)
        return true;
    if (const Json *f = cfg->get("family")) {
        if (f->kind != Json::STRING || (f->str != "icode" && f->str != "em4237")) {
            err = "setup.family: \"icode\" or \"em4237\" is expected";
            return false;
        }
        em_ = f->str == "em4237";
    }
    int64_t blocks = 0;
    bool given = false;
    if (!setup_int(*cfg, "blocks", W, 1, 256, blocks, given, err))
        return false;
    if (given)
        resize(static_cast<unsigned>(blocks));
    if (!setup_byte(*cfg, "dsfid", W, dsfid_, err) || !setup_byte(*cfg, "afi", W, afi_, err) ||
        !setup_byte(*cfg, "ic_reference", W, ic_ref_, err) || !setup_byte(*cfg, "info_flags", W, info_flags_, err) ||
        !setup_pw(*cfg, "password", W, em_pw_, err))
        return false;
    if (!setup_memory(*cfg, W, mem_, err))
        return false;
    std::vector<uint8_t> bytes;
    if (const Json *list = cfg->get("block_data")) {
        if (list->kind != Json::ARRAY) {
            err = "setup.block_data: a list is expected";
            return false;
        }
        for (const Json &e : list->items) {
            const std::string w = "setup.block_data[]";
            int64_t block = 0;
            bool has_block = false;
            if (!setup_members(&e, w, {"block", "data"}, err) ||
                !setup_int(e, "block", w, 0, pages() - 1, block, has_block, err) ||
                !setup_hex(e, "data", w, mem_.size(), true, bytes, given, err))
                return false;
            if (!has_block || bytes.size() > mem_.size() - static_cast<size_t>(block) * BLOCK) {
                err = w + ": a block number and data that fit the tag are expected";
                return false;
            }
            std::memcpy(mem_.data() + static_cast<size_t>(block) * BLOCK, bytes.data(), bytes.size());
        }
    }
    if (const Json *list = cfg->get("locked")) {
        if (list->kind != Json::ARRAY) {
            err = "setup.locked: a list of block numbers is expected";
            return false;
        }
        for (const Json &e : list->items) {
            if (e.kind != Json::NUMBER || e.num < 0 || e.num >= pages() || e.num != static_cast<int>(e.num)) {
                err = "setup.locked: block numbers of the tag are expected";
                return false;
            }
            locked_[static_cast<size_t>(e.num)] = true;
        }
    }
    if (const Json *p = cfg->get("passwords")) {
        const std::string w = "setup.passwords";
        if (p->kind != Json::OBJECT) {
            err = w + ": an object is expected";
            return false;
        }
        if (!setup_members(p, w, {"read", "write", "privacy", "destroy", "eas_afi"}, err) ||
            !setup_pw(*p, "read", w, pw_read_, err) || !setup_pw(*p, "write", w, pw_write_, err) ||
            !setup_pw(*p, "privacy", w, pw_privacy_, err) || !setup_pw(*p, "destroy", w, pw_destroy_, err) ||
            !setup_pw(*p, "eas_afi", w, pw_eas_, err))
            return false;
    }
    if (const Json *p = cfg->get("protection")) {
        const std::string w = "setup.protection";
        if (p->kind != Json::OBJECT || !setup_members(p, w, {"page", "status"}, err) ||
            !setup_byte(*p, "page", w, prot_page_, err) || !setup_byte(*p, "status", w, prot_status_, err)) {
            if (err.empty())
                err = w + ": an object is expected";
            return false;
        }
    }
    if (const Json *list = cfg->get("em_pages")) {
        if (list->kind != Json::ARRAY) {
            err = "setup.em_pages: a list is expected";
            return false;
        }
        for (const Json &e : list->items) {
            const std::string w = "setup.em_pages[]";
            int64_t page = 0;
            bool has_page = false;
            uint8_t status = 0;
            if (!setup_members(&e, w, {"page", "status"}, err) ||
                !setup_int(e, "page", w, 0, static_cast<int64_t>(em_pages_.size()) - 1, page, has_page, err) ||
                !setup_byte(e, "status", w, status, err))
                return false;
            if (!has_page) {
                err = w + ": a page number is expected";
                return false;
            }
            em_pages_[static_cast<size_t>(page)] = status;
        }
    }
    return true;
}

} // namespace

std::unique_ptr<Card> make_iso15693_tag(const zsim_card &id, const Json *cfg, std::string &err)
{
    auto card = std::make_unique<VicinityCard>(id);
    if (!card->setup(cfg, err))
        return nullptr;
    return card;
}

} // namespace zs
