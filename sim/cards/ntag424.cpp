// NTAG 424 DNA: an ISO 14443-4 card with the NDEF application (AID D2 76 00 00 85 01 01) and its three
// standard files, E103 (capability container, file 1), E104 (NDEF, file 2) and E105 (proprietary, file 3),
// five AES keys, and secure dynamic messaging on its files: each READ BINARY from offset 0 of a file with
// SDM on counts the file's read counter up and writes the mirrors into what the read serves (UID and counter
// as ASCII hex, or the enciphered PICC data; the enciphered file data; the SDM MAC), computed here with
// OpenSSL from the card's keys.
//
// The reader's command 0xB3 for this card is answered by the model as the reader and card together: the
// EXT brings a key source (0 the 16 key bytes, 1 a reader key, which in this reader is the all-zero AES key
// of a fresh reader, 2 none) and the card checks that key against its own before it does anything that asks
// for one.
//
// Models "ntag424" and "ntag424_tt" (with tag tamper). Setup (besides the ISO 14443-4 members):
//   "keys": up to five AES keys as hex (default all zero),
//   "ndef": hex bytes the NDEF file starts with,
//   "read_ctr": the NDEF file's read counter to start from,
//   "tt_open": true when the tamper loop is open (ntag424_tt).
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <array>
#include <cstring>

#include "../desfire.h"
#include "../iso7816.h"
#include "../json.h"
#include "../scenario.h"
#include "../wire.h"

namespace zs {

namespace {

const std::vector<uint8_t> NDEF_AID = {0xD2, 0x76, 0x00, 0x00, 0x85, 0x01, 0x01};
constexpr uint8_t CMD_NT4H = 0xB3;
constexpr uint8_t E_AUTH = 14;
constexpr uint8_t FREE = 0x0E, NEVER = 0x0F;

using Key = std::array<uint8_t, 16>;

// AES-128 in CBC (zero IV unless given) over whole blocks.
void aes_cbc(const Key &key, const uint8_t *iv, uint8_t *data, size_t n, bool encrypt)
{
    static const uint8_t zero[16] = {};
    EVP_CIPHER_CTX *c = EVP_CIPHER_CTX_new();
    int out = 0;
    if (c && EVP_CipherInit_ex(c, EVP_aes_128_cbc(), nullptr, key.data(), iv ? iv : zero, encrypt ? 1 : 0) == 1) {
        EVP_CIPHER_CTX_set_padding(c, 0);
        EVP_CipherUpdate(c, data, &out, data, static_cast<int>(n));
    }
    EVP_CIPHER_CTX_free(c);
}

Key cmac(const Key &key, const uint8_t *msg, size_t n)
{
    return df_aes_cmac(key, msg, n);
}

void put_hex(std::vector<uint8_t> &img, size_t at, const uint8_t *bytes, size_t n)
{
    static const char digits[] = "0123456789ABCDEF";
    for (size_t i = 0; i < n && at + 2 * i + 1 < img.size(); ++i) {
        img[at + 2 * i] = static_cast<uint8_t>(digits[bytes[i] >> 4]);
        img[at + 2 * i + 1] = static_cast<uint8_t>(digits[bytes[i] & 0x0F]);
    }
}

// The SDM part of a file's settings as the card reads it: options, access keys and offsets.
struct Sdm {
    bool on = false;
    uint8_t options = 0, meta = NEVER, file = NEVER, ctr_key = NEVER;
    uint32_t uid_off = 0, ctr_off = 0, picc_off = 0, mac_in_off = 0, enc_off = 0, enc_len = 0, mac_off = 0;
    uint32_t limit = 0;
    std::vector<uint8_t> raw; // options, access (2), offsets: as the settings brought them
};

struct File {
    uint16_t iso_id = 0;
    std::vector<uint8_t> data;
    uint8_t comm = 0;
    uint8_t ar_lo = 0xE0, ar_hi = 0xEE; // read-write and change keys; read and write keys
    Sdm sdm;
    uint32_t read_ctr = 0;
    std::vector<uint8_t> image; // what the last counted read served
    uint8_t read_key() const { return ar_hi >> 4; }
    uint8_t change_key() const { return ar_lo & 0x0F; }
};

// Reads the SDM part (p: options onwards, n bytes) for a file of size bytes; false when it does not add up.
bool parse_sdm(const uint8_t *p, size_t n, size_t size, Sdm &s)
{
    if (n < 3)
        return false;
    s = Sdm{};
    s.on = true;
    s.options = p[0];
    const uint16_t access = static_cast<uint16_t>(p[1] | p[2] << 8);
    s.ctr_key = access & 0x0F;
    s.file = (access >> 8) & 0x0F;
    s.meta = (access >> 12) & 0x0F;
    size_t at = 3;
    bool ok = true;
    auto next = [&](uint32_t &v) {
        if (at + 3 > n) {
            ok = false;
            return;
        }
        v = static_cast<uint32_t>(p[at] | p[at + 1] << 8 | p[at + 2] << 16);
        at += 3;
    };
    if (s.meta == FREE) {
        if (s.options & 0x80)
            next(s.uid_off);
        if (s.options & 0x40)
            next(s.ctr_off);
    } else if (s.meta != NEVER) {
        next(s.picc_off);
    }
    if (s.file != NEVER) {
        next(s.mac_in_off);
        if (s.options & 0x10) {
            next(s.enc_off);
            next(s.enc_len);
        }
        next(s.mac_off);
    }
    if (s.options & 0x20)
        next(s.limit);
    if (!ok || at != n)
        return false;
    // Every mirror has to lie inside the file.
    auto fits = [&](uint32_t off, uint32_t len) { return off <= size && len <= size - off; };
    if (s.meta == FREE && (((s.options & 0x80) && !fits(s.uid_off, 14)) || ((s.options & 0x40) && !fits(s.ctr_off, 6))))
        return false;
    if (s.meta < FREE && !fits(s.picc_off, 32))
        return false;
    if (s.file != NEVER) {
        if (!fits(s.mac_off, 16) || s.mac_in_off > s.mac_off)
            return false;
        if ((s.options & 0x10) && (s.enc_len == 0 || s.enc_len % 32 != 0 || !fits(s.enc_off, s.enc_len)))
            return false;
    }
    s.raw.assign(p, p + n);
    return true;
}

struct NtagState {
    std::array<Key, 5> keys{};
    std::array<File, 3> files;
    std::vector<uint8_t> uid;
    bool random_id = false, tt = false, tt_enabled = false, tt_open = false;
    uint8_t global[3] = {};
};

// Session keys of SDM: CMAC with the file read key over the label, UID and counter.
Key sdm_session(const Key &file_key, uint8_t first, const std::vector<uint8_t> &uid, uint32_t ctr)
{
    uint8_t sv[16] = {first, static_cast<uint8_t>(first ^ 0xFF), 0x00, 0x01, 0x00, 0x80};
    std::memcpy(sv + 6, uid.data(), 7);
    sv[13] = static_cast<uint8_t>(ctr);
    sv[14] = static_cast<uint8_t>(ctr >> 8);
    sv[15] = static_cast<uint8_t>(ctr >> 16);
    return cmac(file_key, sv, 16);
}

// The file as one counted read serves it, with every mirror written in.
std::vector<uint8_t> mirrored(const NtagState &st, const File &f)
{
    std::vector<uint8_t> img = f.data;
    const Sdm &s = f.sdm;
    const uint32_t ctr = f.read_ctr;
    const uint8_t ctr_be[3] = {static_cast<uint8_t>(ctr >> 16), static_cast<uint8_t>(ctr >> 8),
                               static_cast<uint8_t>(ctr)};
    if (s.meta == FREE) {
        if (s.options & 0x80)
            put_hex(img, s.uid_off, st.uid.data(), 7);
        if (s.options & 0x40)
            put_hex(img, s.ctr_off, ctr_be, 3);
    } else if (s.meta < 5) {
        uint8_t picc[16];
        RAND_bytes(picc, sizeof picc);
        size_t at = 1;
        picc[0] = 0;
        if (s.options & 0x80) {
            picc[0] |= 0x87;
            std::memcpy(picc + 1, st.uid.data(), 7);
            at = 8;
        }
        if (s.options & 0x40) {
            picc[0] |= 0x40;
            picc[at] = static_cast<uint8_t>(ctr);
            picc[at + 1] = static_cast<uint8_t>(ctr >> 8);
            picc[at + 2] = static_cast<uint8_t>(ctr >> 16);
        }
        aes_cbc(st.keys[s.meta], nullptr, picc, 16, true);
        put_hex(img, s.picc_off, picc, 16);
    }
    if (s.file < 5) {
        if (s.options & 0x10) {
            const Key enc = sdm_session(st.keys[s.file], 0xC3, st.uid, ctr);
            uint8_t iv[16] = {static_cast<uint8_t>(ctr), static_cast<uint8_t>(ctr >> 8),
                              static_cast<uint8_t>(ctr >> 16)};
            aes_cbc(enc, nullptr, iv, 16, true);
            std::vector<uint8_t> plain(f.data.begin() + s.enc_off, f.data.begin() + s.enc_off + s.enc_len / 2);
            aes_cbc(enc, iv, plain.data(), plain.size(), true);
            put_hex(img, s.enc_off, plain.data(), plain.size());
        }
        const Key mac = sdm_session(st.keys[s.file], 0x3C, st.uid, ctr);
        const Key full = cmac(mac, img.data() + s.mac_in_off, s.mac_off - s.mac_in_off);
        uint8_t odd[8];
        for (int i = 0; i < 8; ++i)
            odd[i] = full[2 * i + 1];
        put_hex(img, s.mac_off, odd, 8);
    }
    return img;
}

class NtagApplication final : public Application {
public:
    explicit NtagApplication(NtagState &st) : Application(NDEF_AID), st_(st) {}
    RApdu select(const Apdu &) override
    {
        file_ = nullptr;
        return RApdu::sw_only(SW_OK);
    }
    void deselect() override { file_ = nullptr; }
    RApdu command(const Apdu &c) override
    {
        if (c.cla != 0x00)
            return RApdu::sw_only(SW_CLA_NOT_SUPPORTED);
        if (c.ins == 0xA4) {
            if (c.nc != 2)
                return RApdu::sw_only(SW_WRONG_P1P2);
            const uint16_t id = static_cast<uint16_t>(c.data[0] << 8 | c.data[1]);
            for (File &f : st_.files)
                if (f.iso_id == id) {
                    file_ = &f;
                    return RApdu::sw_only(SW_OK);
                }
            return RApdu::sw_only(SW_FILE_NOT_FOUND);
        }
        if (c.ins != 0xB0)
            return RApdu::sw_only(SW_INS_NOT_SUPPORTED);
        if (!file_)
            return RApdu::sw_only(SW_CONDITIONS_NOT_SATISFIED);
        if (file_->read_key() != FREE && (file_->ar_lo >> 4) != FREE)
            return RApdu::sw_only(SW_SECURITY_NOT_SATISFIED);
        const size_t off = static_cast<size_t>(c.p1 & 0x7F) << 8 | c.p2;
        if (off > file_->data.size())
            return RApdu::sw_only(SW_WRONG_P1P2);
        const std::vector<uint8_t> *src = &file_->data;
        if (file_->sdm.on) {
            if (off == 0) {
                if ((file_->sdm.options & 0x20) && file_->read_ctr >= file_->sdm.limit)
                    return RApdu::sw_only(SW_SECURITY_NOT_SATISFIED);
                if (file_->read_ctr < 0xFFFFFF)
                    ++file_->read_ctr;
                file_->image = mirrored(st_, *file_);
            }
            if (!file_->image.empty())
                src = &file_->image;
        }
        const size_t want = c.ne ? c.ne : src->size() - off;
        const size_t n = std::min(want, src->size() - off);
        RApdu r{std::vector<uint8_t>(src->begin() + static_cast<long>(off), src->begin() + static_cast<long>(off + n)),
                SW_OK};
        if (n < want)
            r.sw = SW_END_OF_FILE;
        return r;
    }

private:
    NtagState &st_;
    File *file_ = nullptr;
};

class Ntag424Card final : public Iso14443Card {
public:
    Ntag424Card(const zsim_card &id, const Iso14443Setup &s, std::unique_ptr<NtagState> st)
        : Iso14443Card(id, s), st_(std::move(st))
    {
        host().add(std::make_unique<NtagApplication>(*st_));
    }
    const char *model() const override { return st_->tt ? "ntag424_tt" : "ntag424"; }
    bool wants_ext(const uint8_t f[7]) const override { return f[1] == CMD_NT4H || Iso14443Card::wants_ext(f); }
    bool command(const uint8_t f[7], const uint8_t *ext, size_t ext_len, std::vector<uint8_t> &out) override
    {
        if (f[1] != CMD_NT4H)
            return Iso14443Card::command(f, ext, ext_len, out);
        const size_t n = ext && ext_len ? ext_len - 1 : 0;
        const int code = run(f[4], ext, n, out);
        if (code >= 0)
            put_error(out, static_cast<uint8_t>(code));
        return true;
    }

private:
    // The key the EXT brings against the card's key number k (FREE: anyone passes, NEVER: nobody).
    bool key_ok(const uint8_t *e, uint8_t k) const
    {
        if (k == FREE)
            return true;
        if (k >= 5)
            return false;
        static const Key zero{};
        if (e[0] == 0)
            return std::memcmp(e + 2, st_->keys[k].data(), 16) == 0;
        if (e[0] == 1)
            return st_->keys[k] == zero;
        return false;
    }
    File *file(uint8_t no) { return no >= 1 && no <= 3 ? &st_->files[no - 1] : nullptr; }
    void ok(std::vector<uint8_t> &out, const uint8_t *data = nullptr, size_t len = 0)
    {
        put_response(out, CMD_NT4H, 0, 0, data, len);
    }

    // One operation; -1 when answered, else the error code to answer.
    int run(uint8_t op, const uint8_t *e, size_t n, std::vector<uint8_t> &out)
    {
        NtagState &s = *st_;
        switch (op) {
        case 1:
            if (n != 3)
                return E_PARAMETERS;
            std::memcpy(s.global, e, 3);
            ok(out);
            return -1;
        case 2: {
            if (n < 23 || n != 23u + e[22] || e[22] < 3 || e[18] != 1)
                return E_PARAMETERS;
            File *f = file(e[19]);
            if (!f)
                return E_PARAMETERS;
            if (e[20] != f->change_key() || !key_ok(e, f->change_key()))
                return E_AUTH;
            const uint8_t *p = e + 23;
            Sdm sdm;
            if (p[0] & 0x40) {
                if (e[19] == 1 || !parse_sdm(p + 3, e[22] - 3u, f->data.size(), sdm))
                    return E_PARAMETERS;
            } else if (e[22] != 3) {
                return E_PARAMETERS;
            }
            f->comm = p[0] & 0x03;
            f->ar_lo = p[1];
            f->ar_hi = p[2];
            f->sdm = sdm;
            f->image.clear();
            ok(out);
            return -1;
        }
        case 3: {
            if (n < 21 || n != 21u + e[20] || e[18] != 1)
                return E_PARAMETERS;
            if (!key_ok(e, 0))
                return E_AUTH;
            if (e[19] == 0 && e[20] == 1)
                s.random_id = (e[21] & 0x02) != 0;
            else if (e[19] == 7 && e[20] == 2 && s.tt)
                s.tt_enabled = (e[21] & 0x01) != 0;
            else
                return E_PARAMETERS;
            ok(out);
            return -1;
        }
        case 4: {
            if (n != 51 || e[18] >= 5)
                return E_PARAMETERS;
            if (!key_ok(e, 0))
                return E_AUTH;
            // Any key but the master key is changed only by one who knows its old value.
            if (e[18] != 0 && std::memcmp(e + 35, s.keys[e[18]].data(), 16) != 0)
                return E_AUTH;
            std::memcpy(s.keys[e[18]].data(), e + 19, 16);
            ok(out);
            return -1;
        }
        case 5:
            if (n != 19)
                return E_PARAMETERS;
            if (e[18] >= 5 || !key_ok(e, e[18]))
                return E_AUTH;
            ok(out, s.uid.data(), 7);
            return -1;
        case 6: {
            if (n != 4 || e[2] != 1)
                return E_PARAMETERS;
            File *f = file(e[3]);
            if (!f)
                return E_PARAMETERS;
            std::vector<uint8_t> r{0x00,
                                   static_cast<uint8_t>(f->comm | (f->sdm.on ? 0x40 : 0)),
                                   f->ar_lo,
                                   f->ar_hi,
                                   static_cast<uint8_t>(f->data.size()),
                                   static_cast<uint8_t>(f->data.size() >> 8),
                                   0};
            r.insert(r.end(), f->sdm.raw.begin(), f->sdm.raw.end());
            ok(out, r.data(), r.size());
            return -1;
        }
        case 7: {
            if (n != 20)
                return E_PARAMETERS;
            File *f = file(e[19]);
            if (!f || !f->sdm.on)
                return E_PARAMETERS;
            const uint8_t k = f->sdm.ctr_key;
            if (e[0] == 2 ? k != FREE : e[18] != k || !key_ok(e, k))
                return E_AUTH;
            const uint8_t c[3] = {static_cast<uint8_t>(f->read_ctr), static_cast<uint8_t>(f->read_ctr >> 8),
                                  static_cast<uint8_t>(f->read_ctr >> 16)};
            ok(out, c, 3);
            return -1;
        }
        case 9: {
            if (!s.tt)
                return E_NOT_SUPPORTED;
            if (n != 19)
                return E_PARAMETERS;
            if (e[0] != 2 && (e[18] >= 5 || !key_ok(e, e[18])))
                return E_AUTH;
            const uint8_t closed = 'C', open = 'O', invalid = 'I';
            const uint8_t r[2] = {s.tt_enabled ? (s.tt_open ? open : closed) : invalid,
                                  s.tt_enabled ? (s.tt_open ? open : closed) : invalid};
            ok(out, r, 2);
            return -1;
        }
        default: return E_NOT_SUPPORTED; // no transaction MAC file on this card (8), or no such operation
        }
    }

    std::unique_ptr<NtagState> st_;
};

std::unique_ptr<Card> make(const zsim_card &id, const Json *setup, std::string &err, bool tt)
{
    Iso14443Setup iso;
    if (!iso14443_setup_read(setup, iso, err, {"keys", "ndef", "read_ctr", "tt_open"}))
        return nullptr;
    if (id.uid_len != 7) {
        err = "setup: an NTAG 424 DNA has a seven-byte UID";
        return nullptr;
    }
    auto st = std::make_unique<NtagState>();
    st->tt = tt;
    st->uid.assign(id.uid, id.uid + 7);
    const uint8_t cc[] = {0x00, 0x17, 0x20, 0x01, 0x00, 0x00, 0xFF, 0x04, 0x06, 0xE1, 0x04, 0x01,
                          0x00, 0x00, 0x00, 0x05, 0x06, 0xE1, 0x05, 0x00, 0x80, 0x82, 0x83};
    st->files[0].iso_id = 0xE103;
    st->files[0].data.assign(32, 0);
    std::memcpy(st->files[0].data.data(), cc, sizeof cc);
    st->files[0].ar_lo = 0xE0;
    st->files[1].iso_id = 0xE104;
    st->files[1].data.assign(256, 0);
    st->files[2].iso_id = 0xE105;
    st->files[2].data.assign(128, 0);
    st->files[2].ar_hi = 0x33;
    st->files[2].ar_lo = 0x30;
    if (setup && setup->kind == Json::OBJECT) {
        if (const Json *k = setup->get("keys")) {
            if (k->kind != Json::ARRAY || k->items.size() > 5) {
                err = "setup: keys takes up to five hex keys";
                return nullptr;
            }
            for (size_t i = 0; i < k->items.size(); ++i) {
                std::vector<uint8_t> b;
                if (k->items[i].kind != Json::STRING || !parse_hex_text(k->items[i].str, b, 16) || b.size() != 16) {
                    err = "setup: every key is 16 hex bytes";
                    return nullptr;
                }
                std::memcpy(st->keys[i].data(), b.data(), 16);
            }
        }
        if (const Json *v = setup->get("ndef")) {
            std::vector<uint8_t> b;
            if (v->kind != Json::STRING || !parse_hex_text(v->str, b, 256)) {
                err = "setup: ndef takes up to 256 hex bytes";
                return nullptr;
            }
            std::memcpy(st->files[1].data.data(), b.data(), b.size());
        }
        if (const Json *v = setup->get("read_ctr")) {
            if (v->kind != Json::NUMBER || v->num < 0 || v->num > 0xFFFFFF) {
                err = "setup: read_ctr takes a number below 2^24";
                return nullptr;
            }
            st->files[1].read_ctr = static_cast<uint32_t>(v->num);
        }
        if (const Json *v = setup->get("tt_open"))
            st->tt_open = v->kind == Json::BOOL && v->b;
    }
    return std::make_unique<Ntag424Card>(id, iso, std::move(st));
}

} // namespace

std::unique_ptr<Card> make_ntag424_card(const zsim_card &id, const Json *setup, std::string &err)
{
    return make(id, setup, err, false);
}

std::unique_ptr<Card> make_ntag424_tt_card(const zsim_card &id, const Json *setup, std::string &err)
{
    return make(id, setup, err, true);
}

} // namespace zs
