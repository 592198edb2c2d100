// Type 2 tags: pages of four bytes. Pages 0 to 2 hold the UID with its check bytes and the static lock
// bytes, page 3 the capability container (one-time programmable: writes OR into it), the user area starts
// at page 4 and configuration pages follow it on the larger tags. The static lock bits are honoured.
//
// Setup:
//   "pages": [{"page": N, "data": bytes (several pages in a row when longer than 4)}],
//   "memory": raw bytes from page 0 on
#include <cstring>

#include "card.h"
#include "cards/memory_setup.h"
#include "json.h"

namespace zs {

namespace {

struct TagKind {
    const char *model;
    unsigned pages;
    unsigned user_pages;
    uint8_t cc_size;     // byte 2 of the capability container; 0 leaves page 3 blank
    uint8_t version[8];  // GET_VERSION; a header byte of 0xFF marks a tag without it
    unsigned cfg_page;   // first configuration page after the user area (0: none)
};

const TagKind ULTRALIGHT = {"ultralight", 16, 12, 0, {0xFF}, 0};
const TagKind ULTRALIGHT_EV1_11 = {"ultralight_ev1_11", 20, 12, 0, {0x00, 0x04, 0x03, 0x01, 0x01, 0x00, 0x0B, 0x03}, 16};
const TagKind ULTRALIGHT_EV1_21 = {"ultralight_ev1_21", 41, 32, 0, {0x00, 0x04, 0x03, 0x01, 0x01, 0x00, 0x0E, 0x03}, 37};
const TagKind ULTRALIGHT_C = {"ultralight_c", 48, 36, 0, {0xFF}, 0};
const TagKind NTAG213 = {"ntag213", 45, 36, 0x12, {0x00, 0x04, 0x04, 0x02, 0x01, 0x00, 0x0F, 0x03}, 41};
const TagKind NTAG215 = {"ntag215", 135, 126, 0x3E, {0x00, 0x04, 0x04, 0x02, 0x01, 0x00, 0x11, 0x03}, 131};
const TagKind NTAG216 = {"ntag216", 231, 222, 0x6D, {0x00, 0x04, 0x04, 0x02, 0x01, 0x00, 0x13, 0x03}, 227};

class PageTag final : public Card, public PageMemory {
public:
    PageTag(const zsim_card &id, const TagKind &k) : Card(id), kind_(k)
    {
        mem_.assign(static_cast<size_t>(k.pages) * 4, 0);
        uint8_t uid[7] = {};
        std::memcpy(uid, id.uid, id.uid_len < 7 ? id.uid_len : 7);
        uint8_t *m = mem_.data();
        m[0] = uid[0];
        m[1] = uid[1];
        m[2] = uid[2];
        m[3] = static_cast<uint8_t>(0x88 ^ uid[0] ^ uid[1] ^ uid[2]);
        std::memcpy(m + 4, uid + 3, 4);
        m[8] = static_cast<uint8_t>(uid[3] ^ uid[4] ^ uid[5] ^ uid[6]);
        m[9] = 0x48;
        if (k.cc_size) {
            const uint8_t cc[4] = {0xE1, 0x10, k.cc_size, 0x00};
            std::memcpy(m + 12, cc, 4);
        }
        if (k.cfg_page) {
            // Dynamic lock bytes, then the configuration with its protection from AUTH0 0xFF (none).
            uint8_t *c = m + static_cast<size_t>(k.cfg_page) * 4;
            c[3] = 0xBD;
            c[4] = 0x04;
            c[7] = 0xFF;
            c[9] = 0x05;
            std::memset(c + 12, 0xFF, 4);
        }
    }

    const char *model() const override { return kind_.model; }
    bool wants_ext(const uint8_t *) const override { return false; }
    bool command(const uint8_t *, const uint8_t *, size_t, std::vector<uint8_t> &) override { return false; }
    PageMemory *page_memory() override { return this; }

    unsigned pages() const override { return kind_.pages; }
    unsigned user_pages() const override { return kind_.user_pages; }

    MemResult read(unsigned page, uint8_t out[16]) override
    {
        if (page >= kind_.pages)
            return MemResult::ADDRESS;
        for (unsigned i = 0; i < 4; ++i) {
            const unsigned p = (page + i) % kind_.pages;
            std::memcpy(out + 4 * i, mem_.data() + static_cast<size_t>(p) * 4, 4);
        }
        // The password pages read as zeros.
        if (kind_.cfg_page)
            for (unsigned i = 0; i < 4; ++i) {
                const unsigned p = (page + i) % kind_.pages;
                if (p >= kind_.cfg_page + 3)
                    std::memset(out + 4 * i, 0, 4);
            }
        return MemResult::OK;
    }

    MemResult write(unsigned page, const uint8_t in[4]) override
    {
        if (page >= kind_.pages)
            return MemResult::ADDRESS;
        uint8_t *p = mem_.data() + static_cast<size_t>(page) * 4;
        if (page < 2)
            return MemResult::DENIED; // the UID
        if (page == 2) {
            p[2] |= in[2];
            p[3] |= in[3];
            return MemResult::OK;
        }
        if (locked(page))
            return MemResult::DENIED;
        if (page == 3) {
            for (int i = 0; i < 4; ++i)
                p[i] |= in[i];
            return MemResult::OK;
        }
        std::memcpy(p, in, 4);
        return MemResult::OK;
    }

    bool version(uint8_t out[8]) const override
    {
        if (kind_.version[0] == 0xFF)
            return false;
        std::memcpy(out, kind_.version, 8);
        return true;
    }

    bool setup(const Json *cfg, std::string &err)
    {
        if (!setup_members(cfg, "setup", {"pages", "memory"}, err))
            return false;
        if (!cfg || cfg->kind == Json::NUL)
            return true;
        bool given = false;
        std::vector<uint8_t> bytes;
        if (!setup_hex(*cfg, "memory", "setup", mem_.size(), true, bytes, given, err))
            return false;
        if (given)
            std::memcpy(mem_.data(), bytes.data(), bytes.size());
        if (const Json *list = cfg->get("pages")) {
            if (list->kind != Json::ARRAY) {
                err = "setup.pages: a list is expected";
                return false;
            }
            for (const Json &e : list->items) {
                const std::string w = "setup.pages[]";
                int64_t page = 0;
                bool has_page = false;
                if (!setup_members(&e, w, {"page", "data"}, err) ||
                    !setup_int(e, "page", w, 0, kind_.pages - 1, page, has_page, err) ||
                    !setup_hex(e, "data", w, mem_.size(), true, bytes, given, err))
                    return false;
                if (!has_page || bytes.size() > mem_.size() - static_cast<size_t>(page) * 4) {
                    err = w + ": a page number and data that fit the tag are expected";
                    return false;
                }
                std::memcpy(mem_.data() + static_cast<size_t>(page) * 4, bytes.data(), bytes.size());
            }
        }
        return true;
    }

private:
    // The static lock bits of page 2: bits 3 to 7 of byte 2 lock pages 3 to 7, byte 3 pages 8 to 15.
    bool locked(unsigned page) const
    {
        if (page < 3 || page > 15)
            return false;
        const uint8_t l0 = mem_[10], l1 = mem_[11];
        return page < 8 ? (l0 >> page) & 1 : (l1 >> (page - 8)) & 1;
    }

    const TagKind &kind_;
    std::vector<uint8_t> mem_;
};

std::unique_ptr<Card> make_tag(const zsim_card &id, const Json *cfg, std::string &err, const TagKind &k)
{
    auto card = std::make_unique<PageTag>(id, k);
    if (!card->setup(cfg, err))
        return nullptr;
    return card;
}

} // namespace

std::unique_ptr<Card> make_ultralight(const zsim_card &id, const Json *c, std::string &e) { return make_tag(id, c, e, ULTRALIGHT); }
std::unique_ptr<Card> make_ultralight_ev1_11(const zsim_card &id, const Json *c, std::string &e) { return make_tag(id, c, e, ULTRALIGHT_EV1_11); }
std::unique_ptr<Card> make_ultralight_ev1_21(const zsim_card &id, const Json *c, std::string &e) { return make_tag(id, c, e, ULTRALIGHT_EV1_21); }
std::unique_ptr<Card> make_ultralight_c(const zsim_card &id, const Json *c, std::string &e) { return make_tag(id, c, e, ULTRALIGHT_C); }
std::unique_ptr<Card> make_ntag213(const zsim_card &id, const Json *c, std::string &e) { return make_tag(id, c, e, NTAG213); }
std::unique_ptr<Card> make_ntag215(const zsim_card &id, const Json *c, std::string &e) { return make_tag(id, c, e, NTAG215); }
std::unique_ptr<Card> make_ntag216(const zsim_card &id, const Json *c, std::string &e) { return make_tag(id, c, e, NTAG216); }

} // namespace zs
