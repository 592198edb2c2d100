// Type 2 tags: pages of four bytes. Pages 0 to 2 hold the UID with its check bytes and the static lock
// bytes, page 3 the capability container (one-time programmable: writes OR into it), the user area starts
// at page 4 and configuration pages follow it on the larger tags. The static lock bits are honoured.
//
// Setup:
//   "pages": [{"page": N, "data": bytes (several pages in a row when longer than 4)}],
//   "memory": raw bytes from page 0 on
// Extras of the tags that have them (t2t.h): "counters" (three values; counter 2 is the NFC counter of an
// NTAG), "password" (4 bytes) and "pack" (2) in the configuration pages, "signature" (32 bytes), "tt_message"
// (4 bytes) and "tt_status" (a byte) for a tag-tamper status, and on an Ultralight C "key" (16 bytes, k0
// first), kept in pages 44 to 47 in the card's own order (the factory key by default; they read as zeros).
#include <cstring>

#include "card.h"
#include "cards/memory_setup.h"
#include "json.h"
#include "t2t.h"

namespace zs {

namespace {

struct TagKind {
    const char *model;
    unsigned pages;
    unsigned user_pages;
    uint8_t cc_size;    // byte 2 of the capability container; 0 leaves page 3 blank
    uint8_t version[8]; // GET_VERSION; a header byte of 0xFF marks a tag without it
    unsigned cfg_page;  // CFG0, the first configuration page (0: none); CFG1, PWD and PACK follow it
};

const TagKind ULTRALIGHT = {"ultralight", 16, 12, 0, {0xFF}, 0};
const TagKind ULTRALIGHT_EV1_11 = {
    "ultralight_ev1_11", 20, 12, 0, {0x00, 0x04, 0x03, 0x01, 0x01, 0x00, 0x0B, 0x03}, 16};
const TagKind ULTRALIGHT_EV1_21 = {
    "ultralight_ev1_21", 41, 32, 0, {0x00, 0x04, 0x03, 0x01, 0x01, 0x00, 0x0E, 0x03}, 37};
const TagKind ULTRALIGHT_C = {"ultralight_c", 48, 36, 0, {0xFF}, 0};
const TagKind NTAG213 = {"ntag213", 45, 36, 0x12, {0x00, 0x04, 0x04, 0x02, 0x01, 0x00, 0x0F, 0x03}, 41};
const TagKind NTAG215 = {"ntag215", 135, 126, 0x3E, {0x00, 0x04, 0x04, 0x02, 0x01, 0x00, 0x11, 0x03}, 131};
const TagKind NTAG216 = {"ntag216", 231, 222, 0x6D, {0x00, 0x04, 0x04, 0x02, 0x01, 0x00, 0x13, 0x03}, 227};

// The Ultralight C's key pages, and its key as it leaves the factory (k0 first).
constexpr unsigned ULC_KEY_PAGE = 44;
const uint8_t ULC_FACTORY_KEY[16] = {0x49, 0x45, 0x4D, 0x4B, 0x41, 0x45, 0x52, 0x42,
                                     0x21, 0x4E, 0x41, 0x43, 0x55, 0x4F, 0x59, 0x46};
// Page byte i of pages 44 to 47 holds key byte ULC_ORDER[i].
const uint8_t ULC_ORDER[16] = {7, 6, 5, 4, 3, 2, 1, 0, 15, 14, 13, 12, 11, 10, 9, 8};

class PageTag final : public Card, public PageMemory, public TypeTwoExtras {
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
            // The dynamic lock bytes where the tag has them (between the user area and CFG0), then the
            // configuration with its protection from AUTH0 0xFF (none), and the password as delivered.
            uint8_t *c = m + static_cast<size_t>(k.cfg_page) * 4;
            if (k.cfg_page > 4 + k.user_pages)
                c[-1] = 0xBD;
            c[0] = 0x04;
            c[3] = 0xFF;
            c[5] = 0x05;
            std::memset(c + 8, 0xFF, 4);
        }
        if (is_ulc())
            for (int i = 0; i < 16; ++i)
                m[ULC_KEY_PAGE * 4 + i] = ULC_FACTORY_KEY[ULC_ORDER[i]];
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
                if (p >= kind_.cfg_page + 2)
                    std::memset(out + 4 * i, 0, 4);
            }
        // So do the key pages of an Ultralight C.
        if (is_ulc())
            for (unsigned i = 0; i < 4; ++i)
                if ((page + i) % kind_.pages >= ULC_KEY_PAGE)
                    std::memset(out + 4 * i, 0, 4);
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

    // The extras.
    uint8_t pwd_auth(const uint8_t pwd[4], uint8_t pack[2]) override
    {
        if (!kind_.cfg_page)
            return ET2_NOT_SUPPORTED;
        const uint8_t *c = mem_.data() + static_cast<size_t>(kind_.cfg_page) * 4;
        if (std::memcmp(c + 8, pwd, 4) != 0)
            return ET2_AUTH;
        std::memcpy(pack, c + 12, 2);
        pwd_ok_ = true;
        return 0;
    }

    uint8_t read_counter(uint8_t counter, uint32_t &value) override
    {
        if (!kind_.cfg_page)
            return ET2_NOT_SUPPORTED;
        if (counter > 2)
            return ET2_NOT_SUPPORTED;
        // ACCESS bit 3: the NFC counter of an NTAG needs the password first.
        if (kind_.version[2] == 0x04 && counter == 2 && (mem_[kind_.cfg_page * 4 + 4] & 0x08) && !pwd_ok_)
            return ET2_AUTH;
        value = counters_[counter];
        return 0;
    }

    uint8_t increment_counter(uint8_t counter, uint32_t by) override
    {
        if (!kind_.cfg_page || counter > 2)
            return ET2_NOT_SUPPORTED;
        if (by > 0xFFFFFF || counters_[counter] + by > 0xFFFFFF)
            return ET2_NOT_SUPPORTED; // the 24-bit counter would overflow
        counters_[counter] += by;
        return 0;
    }

    bool signature(uint8_t out[32]) const override
    {
        if (!kind_.cfg_page)
            return false;
        std::memcpy(out, signature_, 32);
        return true;
    }

    bool tt_status(uint8_t message[4], uint8_t &status) const override
    {
        if (!has_tt_)
            return false;
        std::memcpy(message, tt_message_, 4);
        status = tt_status_;
        return true;
    }

    bool ulc_key(uint8_t key[16]) const override
    {
        if (!is_ulc())
            return false;
        for (int i = 0; i < 16; ++i)
            key[ULC_ORDER[i]] = mem_[ULC_KEY_PAGE * 4 + i];
        return true;
    }

    int key_write_pages(const uint8_t *key) override
    {
        uint8_t k[16];
        if (!ulc_key(k))
            return -1; // no 3DES on this tag: the reader's authentication fails

        return std::memcmp(k, key, 16) == 0 ? static_cast<int>(kind_.pages - 4 - kind_.user_pages) : -1;
    }

    bool setup(const Json *cfg, std::string &err)
    {
        if (!setup_members(
                cfg, "setup",
                {"pages", "memory", "counters", "password", "pack", "signature", "tt_message", "tt_status", "key"},
                err) ||
            !setup_extras(cfg, err))
            return false;
        if (!cfg || cfg->kind == Json::NUL)
            return true;
        if (!setup_memory(*cfg, "setup", mem_, err))
            return false;
        bool given = false;
        std::vector<uint8_t> bytes;
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
    bool is_ulc() const { return &kind_ == &ULTRALIGHT_C; }

    bool setup_extras(const Json *cfg, std::string &err)
    {
        if (!cfg || cfg->kind != Json::OBJECT)
            return true;
        const std::string W = "setup";
        std::vector<uint8_t> b;
        bool given = false;
        if (const Json *list = cfg->get("counters")) {
            if (list->kind != Json::ARRAY || list->items.size() != 3) {
                err = "setup.counters: a list of three values is expected";
                return false;
            }
            for (size_t i = 0; i < 3; ++i) {
                const Json &e = list->items[i];
                if (e.kind != Json::NUMBER || e.num < 0 || e.num > 0xFFFFFF ||
                    e.num != static_cast<double>(static_cast<uint32_t>(e.num))) {
                    err = "setup.counters: values from 0 to 16777215 are expected";
                    return false;
                }
                counters_[i] = static_cast<uint32_t>(e.num);
            }
        }
        const bool cfg_pages = kind_.cfg_page != 0;
        uint8_t *c = cfg_pages ? mem_.data() + static_cast<size_t>(kind_.cfg_page) * 4 : nullptr;
        if (!setup_hex(*cfg, "password", W, 4, false, b, given, err))
            return false;
        if (given && c)
            std::memcpy(c + 8, b.data(), 4);
        if (!setup_hex(*cfg, "pack", W, 2, false, b, given, err))
            return false;
        if (given && c)
            std::memcpy(c + 12, b.data(), 2);
        if (!setup_hex(*cfg, "signature", W, 32, false, b, given, err))
            return false;
        if (given)
            std::memcpy(signature_, b.data(), 32);
        if (!setup_hex(*cfg, "tt_message", W, 4, false, b, given, err))
            return false;
        if (given) {
            std::memcpy(tt_message_, b.data(), 4);
            has_tt_ = true;
        }
        int64_t st = 0;
        if (!setup_int(*cfg, "tt_status", W, 0, 255, st, given, err))
            return false;
        if (given) {
            tt_status_ = static_cast<uint8_t>(st);
            has_tt_ = true;
        }
        if (!setup_hex(*cfg, "key", W, 16, false, b, given, err))
            return false;
        if (given && is_ulc())
            for (int i = 0; i < 16; ++i)
                mem_[ULC_KEY_PAGE * 4 + i] = b[ULC_ORDER[i]];
        return true;
    }

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
    uint32_t counters_[3] = {};
    uint8_t signature_[32] = {};
    uint8_t tt_message_[4] = {};
    uint8_t tt_status_ = 0;
    bool has_tt_ = false;
    bool pwd_ok_ = false;
};

std::unique_ptr<Card> make_tag(const zsim_card &id, const Json *cfg, std::string &err, const TagKind &k)
{
    auto card = std::make_unique<PageTag>(id, k);
    if (!card->setup(cfg, err))
        return nullptr;
    return card;
}

} // namespace

std::unique_ptr<Card> make_ultralight(const zsim_card &id, const Json *c, std::string &e)
{
    return make_tag(id, c, e, ULTRALIGHT);
}
std::unique_ptr<Card> make_ultralight_ev1_11(const zsim_card &id, const Json *c, std::string &e)
{
    return make_tag(id, c, e, ULTRALIGHT_EV1_11);
}
std::unique_ptr<Card> make_ultralight_ev1_21(const zsim_card &id, const Json *c, std::string &e)
{
    return make_tag(id, c, e, ULTRALIGHT_EV1_21);
}
std::unique_ptr<Card> make_ultralight_c(const zsim_card &id, const Json *c, std::string &e)
{
    return make_tag(id, c, e, ULTRALIGHT_C);
}
std::unique_ptr<Card> make_ntag213(const zsim_card &id, const Json *c, std::string &e)
{
    return make_tag(id, c, e, NTAG213);
}
std::unique_ptr<Card> make_ntag215(const zsim_card &id, const Json *c, std::string &e)
{
    return make_tag(id, c, e, NTAG215);
}
std::unique_ptr<Card> make_ntag216(const zsim_card &id, const Json *c, std::string &e)
{
    return make_tag(id, c, e, NTAG216);
}

} // namespace zs
