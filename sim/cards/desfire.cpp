// The DESFire card: a card master key and its applications, each with its keys and up to 32 files of the six
// kinds, access rights checked per key, value limits, cyclic records, a transaction that holds the changes
// to backup, value and record files until a commit, and free memory. It answers DESFire native commands;
// authentication is the mutual challenge and response of the AES and ISO forms.
#include <openssl/evp.h>
#include <openssl/params.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cstring>

#include "desfire.h"
#include "json.h"
#include "scenario.h"

namespace zs {

// AES-CMAC, and the DESFire Light session keys from the transaction MAC key over the label,
// the counter (least significant byte first) and the UID.
std::array<uint8_t, 16> df_aes_cmac(const std::array<uint8_t, 16> &key, const uint8_t *msg, size_t n)
{
    std::array<uint8_t, 16> out{};
    EVP_MAC *mac = EVP_MAC_fetch(nullptr, "CMAC", nullptr);
    EVP_MAC_CTX *ctx = mac ? EVP_MAC_CTX_new(mac) : nullptr;
    char cipher[] = "AES-128-CBC";
    OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string("cipher", cipher, 0), OSSL_PARAM_construct_end()};
    size_t len = 0;
    if (ctx && EVP_MAC_init(ctx, key.data(), 16, params) == 1) {
        EVP_MAC_update(ctx, msg, n);
        EVP_MAC_final(ctx, out.data(), &len, out.size());
    }
    EVP_MAC_CTX_free(ctx);
    EVP_MAC_free(mac);
    return out;
}

static std::array<uint8_t, 16> light_session_key(uint8_t label, const std::array<uint8_t, 16> &key, uint32_t tmc,
                                                 const uint8_t *uid)
{
    uint8_t sv[16] = {label, 0x00, 0x01, 0x00, 0x80};
    for (int i = 0; i < 4; ++i)
        sv[5 + i] = static_cast<uint8_t>(tmc >> (8 * i));
    std::memcpy(sv + 9, uid, 7);
    return df_aes_cmac(key, sv, 16);
}

size_t df_block(DfKeyKind kind)
{
    return kind == DfKeyKind::AES ? 16 : 8;
}

bool df_cbc(DfKeyKind kind, const uint8_t *key, uint8_t *iv, uint8_t *data, size_t n, bool encipher)
{
    const size_t bs = df_block(kind);
    if (n % bs)
        return false;
    const EVP_CIPHER *c = kind == DfKeyKind::AES      ? EVP_aes_128_cbc()
                          : kind == DfKeyKind::TK3DES ? EVP_des_ede3_cbc()
                                                      : EVP_des_ede_cbc();
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    if (!ctx)
        return false;
    uint8_t next[16];
    std::memcpy(next, encipher ? iv : data + n - bs, bs);
    int out = 0;
    bool ok = EVP_CipherInit_ex(ctx, c, nullptr, key, iv, encipher ? 1 : 0) == 1;
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    if (ok && n)
        ok = EVP_CipherUpdate(ctx, data, &out, data, static_cast<int>(n)) == 1;
    EVP_CIPHER_CTX_free(ctx);
    if (!ok)
        return false;
    if (n)
        std::memcpy(iv, encipher ? data + n - bs : next, bs);
    return true;
}

void df_random(uint8_t *p, size_t n)
{
    if (RAND_bytes(p, static_cast<int>(n)) != 1)
        for (size_t i = 0; i < n; ++i)
            p[i] = static_cast<uint8_t>(i * 37 + 11);
}

namespace {

uint32_t g24(const uint8_t *p)
{
    return p[0] | p[1] << 8 | static_cast<uint32_t>(p[2]) << 16;
}
uint32_t g32(const uint8_t *p)
{
    return g24(p) | static_cast<uint32_t>(p[3]) << 24;
}
void p24(std::vector<uint8_t> &v, uint32_t x)
{
    for (int i = 0; i < 3; ++i)
        v.push_back(static_cast<uint8_t>(x >> (8 * i)));
}
void p32(std::vector<uint8_t> &v, uint32_t x)
{
    for (int i = 0; i < 4; ++i)
        v.push_back(static_cast<uint8_t>(x >> (8 * i)));
}

size_t key_size(DfKeyKind k)
{
    return k == DfKeyKind::TK3DES ? 24 : 16;
}
uint8_t kind_bits(DfKeyKind k)
{
    return k == DfKeyKind::AES ? 0x80 : k == DfKeyKind::TK3DES ? 0x40 : 0x00;
}
DfKeyKind kind_of_bits(uint8_t b)
{
    return (b & 0x80) ? DfKeyKind::AES : (b & 0x40) ? DfKeyKind::TK3DES : DfKeyKind::TDES;
}

std::vector<uint8_t> st(uint8_t s)
{
    return {s};
}

// A new file of a type, with the communication mode and access rights of a create command (bytes 2 to 4).
DfFile new_file(const uint8_t *c, uint8_t type)
{
    DfFile f;
    f.type = type;
    f.comm = c[2];
    f.access = static_cast<uint16_t>(c[3] | c[4] << 8);
    return f;
}

// The access nibbles of a file: read, write, read-and-write, change.
uint8_t right_r(const DfFile &f)
{
    return f.access >> 12;
}
uint8_t right_w(const DfFile &f)
{
    return f.access >> 8 & 15;
}
uint8_t right_rw(const DfFile &f)
{
    return f.access >> 4 & 15;
}
uint8_t right_ch(const DfFile &f)
{
    return f.access & 15;
}

constexpr size_t MAX_APPS = 28, MAX_FILES = 32, APP_COST = 64;

// The bytes of the SDM part of a file option that the options and SDM access rights at p call for: the
// mirrors read in plain (meta read key 14) or the PICC data, the MAC input, encrypted data and MAC
// offsets when the file read key is set, and the counter limit.
size_t sdm_length(const uint8_t *p)
{
    const uint8_t opt = p[0];
    const unsigned file_read = p[2] & 0x0F, meta_read = p[2] >> 4;
    size_t len = 3;
    if (meta_read == 14)
        len += ((opt & 0x80) ? 3 : 0) + ((opt & 0x40) ? 3 : 0);
    else if (meta_read != 15)
        len += 3;
    if (file_read != 15)
        len += 6 + ((opt & 0x10) ? 6 : 0);
    if (opt & 0x20)
        len += 3;
    return len;
}

} // namespace

size_t DfFile::cost() const
{
    size_t bytes = 32;
    if (type <= 1)
        bytes = data.size();
    else if (type == 3 || type == 4)
        bytes = static_cast<size_t>(rec_size) * max_rec;
    return (bytes + 31) / 32 * 32;
}

DesfireCard::DesfireCard(const zsim_card &id, const DfSetup &setup) : Card(id), setup_(setup)
{
    picc_.aid = 0;
    picc_.kind = setup.master_kind;
    picc_.keys.resize(1);
    picc_.keys[0].bytes = setup.master_key;
    iso_ = make_desfire_iso_view(*this);
}

void DesfireCard::deselect()
{
    abort_transaction();
    selected_ = 0;
    auth_key_ = -1;
    auth_step_ = 0;
    pending = PendingWrite{};
}

DfApp *DesfireCard::selected_app()
{
    if (selected_ == 0)
        return &picc_;
    for (auto &a : apps_)
        if (a.aid == selected_)
            return &a;
    return nullptr;
}

DfFile *DesfireCard::file(uint8_t fid)
{
    DfApp *a = selected_app();
    if (!a || selected_ == 0)
        return nullptr;
    auto it = a->files.find(fid);
    return it == a->files.end() ? nullptr : &it->second;
}

bool DesfireCard::may(uint8_t nibble) const
{
    return nibble == 0x0E || (auth_key_ >= 0 && nibble == auth_key_);
}

uint32_t DesfireCard::free_memory() const
{
    size_t used = apps_.size() * APP_COST;
    for (const auto &a : apps_)
        for (const auto &f : a.files)
            used += f.second.cost();
    return used >= setup_.size ? 0 : static_cast<uint32_t>(setup_.size - used);
}

void DesfireCard::abort_transaction()
{
    tmac_msg_.clear();
    rid_in_transaction_ = false;
    DfApp *a = selected_app();
    if (!a)
        return;
    for (auto &kv : a->files) {
        DfFile &f = kv.second;
        f.dirty = false;
        f.p_new_record = false;
        f.p_data.clear();
        f.p_records.clear();
    }
}

std::vector<uint8_t> DesfireCard::commit(uint8_t option)
{
    DfApp *a = selected_app();
    if (!a || selected_ == 0)
        return st(DF_PERMISSION_DENIED);
    bool any = false;
    DfFile *tmac = nullptr;
    for (auto &kv : a->files) {
        DfFile &f = kv.second;
        if (f.type == 5)
            tmac = &f;
        if (!f.dirty)
            continue;
        any = true;
        if (f.type == 1)
            f.data = f.p_data;
        else if (f.type == 2)
            f.value = f.p_value;
        else if (f.type == 3 || f.type == 4) {
            f.records = f.p_records;
            if (f.type == 4)
                while (f.records.size() > f.max_rec - 1)
                    f.records.erase(f.records.begin());
        }
        f.dirty = false;
        f.p_new_record = false;
        f.p_data.clear();
        f.p_records.clear();
    }
    std::vector<uint8_t> out = st(DF_OK);
    if (tmac && any)
        ++tmac->tmac_counter;
    if (tmac && option & 1 && setup_.version == "light") {
        // DESFire Light: the MAC of the transaction's MACed operation under the session MAC key of the counter.
        std::vector<uint8_t> msg = tmac_msg_;
        if (msg.empty())
            msg.assign(16, 0);
        if (rid_in_transaction_) {
            const size_t at = msg.size();
            msg.resize(at + 48, 0);
            msg[at] = 0xC8;
            std::memcpy(msg.data() + at + 1, reader_id_.data(), 16);
            std::memcpy(msg.data() + at + 17, prev_enc_reader_id_.data(), 16);
        }
        const std::array<uint8_t, 16> ses = light_session_key(0x5A, tmac->tmac_key, tmac->tmac_counter, id().uid);
        const std::array<uint8_t, 16> full = df_aes_cmac(ses, msg.data(), msg.size());
        p32(out, tmac->tmac_counter);
        for (int i = 0; i < 8; ++i)
            out.push_back(full[2 * i + 1]);
    } else if (tmac && option & 1) {
        // A MAC value of the simulator's own making: the transaction counter enciphered under the file's key.
        uint8_t blk[16] = {};
        for (int i = 0; i < 4; ++i)
            blk[i] = static_cast<uint8_t>(tmac->tmac_counter >> (8 * i));
        std::memcpy(blk + 4, reader_id_.data(), 12);
        uint8_t iv[16] = {};
        df_cbc(DfKeyKind::AES, tmac->tmac_key.data(), iv, blk, 16, true);
        p32(out, tmac->tmac_counter);
        out.insert(out.end(), blk, blk + 8);
    }
    tmac_msg_.clear();
    rid_in_transaction_ = false;
    return out;
}

std::vector<uint8_t> DesfireCard::native(const uint8_t *c, size_t n)
{
    if (!c || n == 0)
        return st(DF_LENGTH);
    if (auth_step_ == 1 && c[0] == DF_ADDITIONAL_FRAME) {
        auth_step_ = 0;
        DfApp *a = selected_app();
        const DfKeyKind kind = a->kind;
        const size_t rl = rndb_.size();
        if (n != 1 + 2 * rl)
            return st(DF_LENGTH);
        std::vector<uint8_t> m(c + 1, c + n);
        if (!df_cbc(kind, a->keys[auth_keyno_].bytes.data(), auth_iv_.data(), m.data(), m.size(), false))
            return st(DF_AUTHENTICATION);
        std::vector<uint8_t> rot(rndb_.begin() + 1, rndb_.end());
        rot.push_back(rndb_[0]);
        if (!std::equal(rot.begin(), rot.end(), m.begin() + rl))
            return st(DF_AUTHENTICATION);
        std::vector<uint8_t> ra(m.begin() + 1, m.begin() + rl);
        ra.push_back(m[0]);
        df_cbc(kind, a->keys[auth_keyno_].bytes.data(), auth_iv_.data(), ra.data(), ra.size(), true);
        auth_key_ = auth_keyno_;
        std::vector<uint8_t> out = st(DF_OK);
        out.insert(out.end(), ra.begin(), ra.end());
        return out;
    }
    auth_step_ = 0;
    return run(c, n);
}

// The native commands by group. Card commands run wherever the card stands; the others need an application
// selected, and the file commands also the file named by their second byte.
const DesfireCard::Command *DesfireCard::find_command(uint8_t code)
{
    static const Command table[] = {
        // Card and applications.
        {0x5A, Needs::Card, &DesfireCard::select_application},
        {0x6A, Needs::Card, &DesfireCard::application_ids},
        {0x6E, Needs::Card, &DesfireCard::free_memory_command},
        {0xFC, Needs::Card, &DesfireCard::format},
        {0x5C, Needs::Card, &DesfireCard::set_configuration},
        {0x51, Needs::Card, &DesfireCard::card_uid},
        {0xCA, Needs::Card, &DesfireCard::create_application},
        {0xDA, Needs::Card, &DesfireCard::delete_application},
        // Keys and authentication.
        {0xAA, Needs::Card, &DesfireCard::authenticate},
        {0x1A, Needs::Card, &DesfireCard::authenticate},
        {0x45, Needs::Card, &DesfireCard::key_settings},
        {0x54, Needs::Card, &DesfireCard::change_key_settings},
        {0xC4, Needs::Card, &DesfireCard::change_key},
        // Files and the transaction.
        {0xCD, Needs::App, &DesfireCard::create_data_file},
        {0xCB, Needs::App, &DesfireCard::create_data_file},
        {0xCC, Needs::App, &DesfireCard::create_value_file},
        {0xC1, Needs::App, &DesfireCard::create_record_file},
        {0xC0, Needs::App, &DesfireCard::create_record_file},
        {0xCE, Needs::App, &DesfireCard::create_tmac_file},
        {0xDF, Needs::App, &DesfireCard::delete_file},
        {0xC7, Needs::App, &DesfireCard::commit_command},
        {0xA7, Needs::App, &DesfireCard::abort_command},
        {0xC8, Needs::App, &DesfireCard::commit_reader_id},
        // File settings, data, values and records.
        {0xF5, Needs::File, &DesfireCard::file_settings},
        {0x5F, Needs::File, &DesfireCard::change_file_settings},
        {0xBD, Needs::File, &DesfireCard::read_data},
        {0x3D, Needs::File, &DesfireCard::write_data},
        {0x6C, Needs::File, &DesfireCard::get_value},
        {0x0C, Needs::File, &DesfireCard::credit_debit},
        {0xDC, Needs::File, &DesfireCard::credit_debit},
        {0x3B, Needs::File, &DesfireCard::write_record},
        {0xBB, Needs::File, &DesfireCard::read_records},
        {0xEB, Needs::File, &DesfireCard::clear_records},
    };
    for (const Command &cmd : table)
        if (cmd.code == code)
            return &cmd;
    return nullptr;
}

std::vector<uint8_t> DesfireCard::run(const uint8_t *c, size_t n)
{
    DfApp *app = selected_app();
    if (!app)
        return st(DF_APP_NOT_FOUND);
    const Command *cmd = find_command(c[0]);
    Call call{c, n, app, selected_ == 0, nullptr};
    if (cmd && cmd->needs == Needs::Card)
        return (this->*cmd->handler)(call);
    // At the card level the transaction has nothing to commit or abort; everything else needs an application.
    if (call.at_picc)
        return c[0] == 0xC7 || c[0] == 0xA7 ? st(DF_OK) : st(DF_PERMISSION_DENIED);
    if (cmd && cmd->needs == Needs::App)
        return (this->*cmd->handler)(call);
    if (n < 2)
        return st(c[0] == 0xF5 || c[0] == 0x5F ? DF_LENGTH : DF_ILLEGAL_COMMAND);
    if (!cmd)
        return st(DF_ILLEGAL_COMMAND);
    call.f = file(c[1]);
    if (!call.f)
        return st(DF_FILE_NOT_FOUND);
    return (this->*cmd->handler)(call);
}

// ---- Card and applications ----

std::vector<uint8_t> DesfireCard::select_application(const Call &k)
{
    if (k.n != 4)
        return st(DF_LENGTH);
    const uint32_t aid = g24(k.c + 1);
    abort_transaction();
    auth_key_ = -1;
    if (aid != 0 && std::none_of(apps_.begin(), apps_.end(), [&](const DfApp &a) { return a.aid == aid; }))
        return st(DF_APP_NOT_FOUND);
    selected_ = aid;
    return st(DF_OK);
}

std::vector<uint8_t> DesfireCard::application_ids(const Call &k)
{
    if (!k.at_picc)
        return st(DF_PERMISSION_DENIED);
    if (!(picc_.settings & 0x02) && auth_key_ != 0)
        return st(DF_AUTHENTICATION);
    std::vector<uint8_t> out = st(DF_OK);
    for (const auto &a : apps_)
        p24(out, a.aid);
    return out;
}

std::vector<uint8_t> DesfireCard::free_memory_command(const Call &)
{
    std::vector<uint8_t> out = st(DF_OK);
    p24(out, free_memory());
    return out;
}

std::vector<uint8_t> DesfireCard::format(const Call &k)
{
    if (!k.at_picc || auth_key_ != 0)
        return st(DF_AUTHENTICATION);
    if (format_disabled_)
        return st(DF_PERMISSION_DENIED);
    apps_.clear();
    return st(DF_OK);
}

std::vector<uint8_t> DesfireCard::set_configuration(const Call &k)
{
    if (k.n < 3)
        return st(DF_LENGTH);
    if (k.c[1] == 0x00) {
        if (!k.at_picc || auth_key_ != 0)
            return st(DF_AUTHENTICATION);
        format_disabled_ = k.c[2] & 1;
        random_uid_ = k.c[2] & 2;
        return st(DF_OK);
    }
    if (k.c[1] == 0x05) // transaction timer: kept by the card, not modelled further
        return auth_key_ == 0 ? st(DF_OK) : st(DF_AUTHENTICATION);
    return st(DF_PARAMETER);
}

std::vector<uint8_t> DesfireCard::card_uid(const Call &)
{
    if (auth_key_ < 0)
        return st(DF_AUTHENTICATION);
    std::vector<uint8_t> out = st(DF_OK);
    out.insert(out.end(), id().uid, id().uid + 7);
    return out;
}

// Create application: aid, settings, key count and kind [ISO id] [DF name].
std::vector<uint8_t> DesfireCard::create_application(const Call &k)
{
    const uint8_t *c = k.c;
    const size_t n = k.n;
    if (n < 6)
        return st(DF_LENGTH);
    if (!k.at_picc)
        return st(DF_PERMISSION_DENIED);
    if (!(picc_.settings & 0x04) && auth_key_ != 0)
        return st(DF_AUTHENTICATION);
    const uint32_t aid = g24(c + 1);
    const uint8_t count = c[5] & 0x0F;
    if (aid == 0 || count == 0 || count > 14)
        return st(DF_PARAMETER);
    if (std::any_of(apps_.begin(), apps_.end(), [&](const DfApp &a) { return a.aid == aid; }))
        return st(DF_DUPLICATE);
    if (apps_.size() >= MAX_APPS)
        return st(DF_COUNT);
    if (free_memory() < APP_COST)
        return st(DF_OUT_OF_EEPROM);
    DfApp a;
    a.aid = aid;
    a.settings = c[4];
    a.kind = kind_of_bits(c[5]);
    a.keys.resize(count);
    size_t at = 6;
    if (c[5] & 0x20) {
        if (n < 8)
            return st(DF_LENGTH);
        a.iso_id = static_cast<uint16_t>(c[6] | c[7] << 8);
        at = 8;
    }
    if (n - at > 16)
        return st(DF_LENGTH);
    a.df_name.assign(c + at, c + n);
    apps_.push_back(std::move(a));
    return st(DF_OK);
}

std::vector<uint8_t> DesfireCard::delete_application(const Call &k)
{
    if (k.n != 4)
        return st(DF_LENGTH);
    const uint32_t aid = g24(k.c + 1);
    const bool own = !k.at_picc && selected_ == aid && auth_key_ == 0;
    if (!own && !(k.at_picc && auth_key_ == 0))
        return st(DF_AUTHENTICATION);
    auto it = std::find_if(apps_.begin(), apps_.end(), [&](const DfApp &a) { return a.aid == aid; });
    if (it == apps_.end())
        return st(DF_APP_NOT_FOUND);
    apps_.erase(it);
    if (own) {
        selected_ = 0;
        auth_key_ = -1;
    }
    return st(DF_OK);
}

// ---- Keys and authentication ----

// Authenticate, AES (0xAA) or ISO (0x1A, 2K3DES and 3K3DES): the card's challenge; the reader's answer
// comes as an additional frame (native()).
std::vector<uint8_t> DesfireCard::authenticate(const Call &k)
{
    DfApp *app = k.app;
    if (k.n != 2)
        return st(DF_LENGTH);
    abort_transaction();
    auth_key_ = -1;
    if (k.c[1] >= app->keys.size())
        return st(DF_NO_SUCH_KEY);
    if ((k.c[0] == 0xAA) != (app->kind == DfKeyKind::AES))
        return st(DF_AUTHENTICATION);
    auth_keyno_ = k.c[1];
    rndb_.assign(app->kind == DfKeyKind::TDES ? 8 : 16, 0);
    df_random(rndb_.data(), rndb_.size());
    std::vector<uint8_t> e = rndb_;
    auth_iv_.assign(df_block(app->kind), 0);
    df_cbc(app->kind, app->keys[auth_keyno_].bytes.data(), auth_iv_.data(), e.data(), e.size(), true);
    auth_step_ = 1;
    std::vector<uint8_t> out = st(DF_ADDITIONAL_FRAME);
    out.insert(out.end(), e.begin(), e.end());
    return out;
}

std::vector<uint8_t> DesfireCard::key_settings(const Call &k)
{
    std::vector<uint8_t> out = st(DF_OK);
    out.push_back(k.app->settings);
    out.push_back(static_cast<uint8_t>(k.app->keys.size() | kind_bits(k.app->kind)));
    return out;
}

std::vector<uint8_t> DesfireCard::change_key_settings(const Call &k)
{
    if (k.n != 2)
        return st(DF_LENGTH);
    if (auth_key_ != 0)
        return st(DF_AUTHENTICATION);
    if (!(k.app->settings & 0x08))
        return st(DF_PERMISSION_DENIED);
    k.app->settings = k.c[1];
    return st(DF_OK);
}

// Whether the key authenticated may change key keyno of the application, by its change-key setting.
bool DesfireCard::may_change_key(const DfApp &app, bool at_picc, uint8_t keyno) const
{
    const uint8_t cka = app.settings >> 4;
    if (keyno == 0 || at_picc)
        return auth_key_ == 0 && (app.settings & 0x01);
    if (cka == 0x0E)
        return auth_key_ == keyno;
    if (cka == 0x0F)
        return false;
    return auth_key_ == cka;
}

// Change key: key number (with the new type's bits on the card level), new key, old key.
std::vector<uint8_t> DesfireCard::change_key(const Call &k)
{
    DfApp *app = k.app;
    const uint8_t *c = k.c;
    if (k.n != 50)
        return st(DF_LENGTH);
    const uint8_t keyno = c[1] & 0x3F;
    if (keyno >= app->keys.size())
        return st(DF_NO_SUCH_KEY);
    if (auth_key_ < 0)
        return st(DF_AUTHENTICATION);
    if (!may_change_key(*app, k.at_picc, keyno))
        return st(DF_PERMISSION_DENIED);
    const DfKeyKind new_kind = k.at_picc ? kind_of_bits(c[1]) : app->kind;
    if (!k.at_picc && kind_of_bits(c[1]) != app->kind)
        return st(DF_PARAMETER);
    DfKey &key = app->keys[keyno];
    if (std::memcmp(key.bytes.data(), c + 26, key_size(app->kind)) != 0)
        return st(DF_INTEGRITY);
    key.bytes.fill(0);
    std::memcpy(key.bytes.data(), c + 2, key_size(new_kind));
    ++key.version;
    app->kind = new_kind;
    if (keyno == auth_key_)
        auth_key_ = -1;
    return st(DF_OK);
}

// ---- Files and the transaction ----

bool DesfireCard::may_manage(const DfApp &app) const
{
    return (app.settings & 0x04) || auth_key_ == 0;
}

std::vector<uint8_t> DesfireCard::add_file(DfApp &app, uint8_t fid, DfFile f)
{
    if (fid > 31)
        return st(DF_PARAMETER);
    if (!may_manage(app))
        return st(DF_PERMISSION_DENIED);
    if (app.files.count(fid))
        return st(DF_DUPLICATE);
    if (app.files.size() >= MAX_FILES)
        return st(DF_COUNT);
    if (f.cost() > free_memory())
        return st(DF_OUT_OF_EEPROM);
    app.files[fid] = std::move(f);
    return st(DF_OK);
}

// Standard (0xCD) or backup (0xCB): fid comm access(2) size(3) [ISO id(2)].
std::vector<uint8_t> DesfireCard::create_data_file(const Call &k)
{
    const uint8_t *c = k.c;
    if (k.n != 8 && k.n != 10)
        return st(DF_LENGTH);
    DfFile f = new_file(c, c[0] == 0xCD ? 0 : 1);
    f.data.assign(g24(c + 5), 0);
    if (k.n == 10)
        f.iso_id = static_cast<uint16_t>(c[8] | c[9] << 8);
    return add_file(*k.app, c[1], std::move(f));
}

// Value: fid comm access lower upper value limited-credit flag.
std::vector<uint8_t> DesfireCard::create_value_file(const Call &k)
{
    const uint8_t *c = k.c;
    if (k.n != 18)
        return st(DF_LENGTH);
    DfFile f = new_file(c, 2);
    f.lower = static_cast<int32_t>(g32(c + 5));
    f.upper = static_cast<int32_t>(g32(c + 9));
    f.value = static_cast<int32_t>(g32(c + 13));
    f.lc_enabled = c[17] & 1;
    if (f.lower > f.upper || f.value < f.lower || f.value > f.upper)
        return st(DF_BOUNDARY);
    return add_file(*k.app, c[1], std::move(f));
}

// Linear (0xC1) or cyclic (0xC0) record file: fid comm access record size(3) records(3).
std::vector<uint8_t> DesfireCard::create_record_file(const Call &k)
{
    const uint8_t *c = k.c;
    if (k.n != 11)
        return st(DF_LENGTH);
    DfFile f = new_file(c, c[0] == 0xC1 ? 3 : 4);
    f.rec_size = g24(c + 5);
    f.max_rec = g24(c + 8);
    if (f.rec_size == 0 || f.max_rec < (f.type == 4 ? 2u : 1u))
        return st(DF_PARAMETER);
    return add_file(*k.app, c[1], std::move(f));
}

// Transaction MAC: fid comm access key type key(16) version.
std::vector<uint8_t> DesfireCard::create_tmac_file(const Call &k)
{
    const uint8_t *c = k.c;
    if (k.n != 23)
        return st(DF_LENGTH);
    for (const auto &kv : k.app->files)
        if (kv.second.type == 5)
            return st(DF_DUPLICATE);
    DfFile f = new_file(c, 5);
    std::memcpy(f.tmac_key.data(), c + 6, 16);
    f.tmac_version = c[22];
    return add_file(*k.app, c[1], std::move(f));
}

std::vector<uint8_t> DesfireCard::delete_file(const Call &k)
{
    if (k.n != 2)
        return st(DF_LENGTH);
    if (!may_manage(*k.app))
        return st(DF_PERMISSION_DENIED);
    if (!k.app->files.erase(k.c[1]))
        return st(DF_FILE_NOT_FOUND);
    return st(DF_OK);
}

std::vector<uint8_t> DesfireCard::commit_command(const Call &k)
{
    return commit(k.n > 1 ? k.c[1] : 0);
}

std::vector<uint8_t> DesfireCard::abort_command(const Call &)
{
    abort_transaction();
    return st(DF_OK);
}

// Commit reader id: the previous id comes back enciphered under the MAC key.
std::vector<uint8_t> DesfireCard::commit_reader_id(const Call &k)
{
    if (k.n != 17)
        return st(DF_LENGTH);
    std::vector<uint8_t> out = st(DF_OK);
    uint8_t prev[16];
    std::memcpy(prev, reader_id_.data(), 16);
    for (const auto &kv : k.app->files)
        if (kv.second.type == 5 && setup_.version == "light") {
            const std::array<uint8_t, 16> enc =
                light_session_key(0xA5, kv.second.tmac_key, kv.second.tmac_counter + 1, id().uid);
            uint8_t iv[16] = {};
            df_cbc(DfKeyKind::AES, enc.data(), iv, prev, 16, true);
            std::memcpy(prev_enc_reader_id_.data(), prev, 16);
            rid_in_transaction_ = true;
        } else if (kv.second.type == 5) {
            uint8_t iv[16] = {};
            df_cbc(DfKeyKind::AES, kv.second.tmac_key.data(), iv, prev, 16, true);
        }
    std::memcpy(reader_id_.data(), k.c + 1, 16);
    out.insert(out.end(), prev, prev + 16);
    return out;
}

// ---- File settings, data, values and records ----

std::vector<uint8_t> DesfireCard::file_settings(const Call &k)
{
    const DfFile *f = k.f;
    if (!(k.app->settings & 0x02) && auth_key_ != 0)
        return st(DF_PERMISSION_DENIED);
    std::vector<uint8_t> out = st(DF_OK);
    out.push_back(f->type);
    // SDM shows once it has its settings.
    out.push_back(f->sdm.empty() ? static_cast<uint8_t>(f->comm & ~0x40) : f->comm);
    out.push_back(static_cast<uint8_t>(f->access));
    out.push_back(static_cast<uint8_t>(f->access >> 8));
    switch (f->type) {
    case 0:
    case 1:
        p24(out, static_cast<uint32_t>(f->data.size()));
        out.insert(out.end(), f->sdm.begin(), f->sdm.end());
        break;
    case 2:
        p32(out, static_cast<uint32_t>(f->lower));
        p32(out, static_cast<uint32_t>(f->upper));
        p32(out, static_cast<uint32_t>(f->lc_value));
        out.push_back(f->lc_enabled ? 1 : 0);
        break;
    case 3:
    case 4:
        p24(out, f->rec_size);
        p24(out, f->max_rec);
        p24(out, static_cast<uint32_t>(f->records.size()));
        break;
    case 5:
        out.push_back(0x02); // AES
        out.push_back(f->tmac_version);
        break;
    }
    return out;
}

// Change file settings: fid option access(2) [SDM options, SDM access rights(2), offsets].
std::vector<uint8_t> DesfireCard::change_file_settings(const Call &k)
{
    const uint8_t *c = k.c;
    const size_t n = k.n;
    DfFile *f = k.f;
    const bool sdm = n > 2 && (c[2] & 0x40) != 0;
    if (sdm ? n < 8 || n - 5 != sdm_length(c + 5) : n != 5)
        return st(DF_LENGTH);
    if (sdm && f->type != 0)
        return st(DF_PARAMETER);
    if (!may(right_ch(*f)))
        return st(DF_PERMISSION_DENIED);
    f->comm = c[2];
    f->access = static_cast<uint16_t>(c[3] | c[4] << 8);
    f->sdm.assign(c + 5, c + n);
    return st(DF_OK);
}

// Read data: fid offset(3) length(3).
std::vector<uint8_t> DesfireCard::read_data(const Call &k)
{
    const DfFile *f = k.f;
    if (k.n != 8)
        return st(DF_LENGTH);
    if (f->type > 1)
        return st(DF_PARAMETER);
    if (!may(right_r(*f)) && !may(right_rw(*f)))
        return st(DF_PERMISSION_DENIED);
    const uint32_t off = g24(k.c + 2);
    uint32_t len = g24(k.c + 5);
    if (off > f->data.size() || (len && len > f->data.size() - off))
        return st(DF_BOUNDARY);
    if (len == 0)
        len = static_cast<uint32_t>(f->data.size() - off);
    std::vector<uint8_t> out = st(DF_OK);
    out.insert(out.end(), f->data.begin() + off, f->data.begin() + off + len);
    return out;
}

// Write data: fid offset(3) length(3) data; a backup file's writes wait for the commit.
std::vector<uint8_t> DesfireCard::write_data(const Call &k)
{
    const uint8_t *c = k.c;
    DfFile *f = k.f;
    if (k.n < 8 || k.n - 8 != g24(c + 5))
        return st(DF_LENGTH);
    if (f->type > 1)
        return st(DF_PARAMETER);
    if (!may(right_w(*f)) && !may(right_rw(*f)))
        return st(DF_PERMISSION_DENIED);
    const uint32_t off = g24(c + 2), len = g24(c + 5);
    if (off > f->data.size() || len > f->data.size() - off)
        return st(DF_BOUNDARY);
    if (f->type == 0) {
        std::memcpy(f->data.data() + off, c + 8, len);
    } else {
        if (!f->dirty)
            f->p_data = f->data;
        f->dirty = true;
        std::memcpy(f->p_data.data() + off, c + 8, len);
    }
    return st(DF_OK);
}

std::vector<uint8_t> DesfireCard::get_value(const Call &k)
{
    const DfFile *f = k.f;
    if (f->type != 2)
        return st(DF_PARAMETER);
    if (!may(right_r(*f)) && !may(right_w(*f)) && !may(right_rw(*f)))
        return st(DF_PERMISSION_DENIED);
    std::vector<uint8_t> out = st(DF_OK);
    p32(out, static_cast<uint32_t>(f->value));
    return out;
}

// Credit (0x0C) or debit (0xDC): fid amount(4), within the file's limits.
std::vector<uint8_t> DesfireCard::credit_debit(const Call &k)
{
    DfFile *f = k.f;
    if (k.n != 6)
        return st(DF_LENGTH);
    if (f->type != 2)
        return st(DF_PARAMETER);
    const bool credit = k.c[0] == 0x0C;
    const uint8_t r = right_r(*f), w = right_w(*f), rw = right_rw(*f);
    if (credit ? !may(rw) : (!may(r) && !may(w) && !may(rw)))
        return st(DF_PERMISSION_DENIED);
    const int64_t amount = static_cast<int32_t>(g32(k.c + 2));
    if (amount < 0)
        return st(DF_PARAMETER);
    const int64_t now = f->dirty ? f->p_value : f->value;
    const int64_t next = credit ? now + amount : now - amount;
    if (next > f->upper || next < f->lower)
        return st(DF_BOUNDARY);
    f->p_value = static_cast<int32_t>(next);
    f->dirty = true;
    tmac_msg_.assign(16, 0);
    std::memcpy(tmac_msg_.data(), k.c, 6); // code, file, value
    return st(DF_OK);
}

// Write record: fid offset(3) length(3) data, into the record the transaction adds.
std::vector<uint8_t> DesfireCard::write_record(const Call &k)
{
    const uint8_t *c = k.c;
    DfFile *f = k.f;
    if (k.n < 8 || k.n - 8 != g24(c + 5))
        return st(DF_LENGTH);
    if (f->type != 3 && f->type != 4)
        return st(DF_PARAMETER);
    if (!may(right_w(*f)) && !may(right_rw(*f)))
        return st(DF_PERMISSION_DENIED);
    const uint32_t off = g24(c + 2), len = g24(c + 5);
    if (off > f->rec_size || len > f->rec_size - off || len == 0)
        return st(DF_BOUNDARY);
    if (!f->dirty) {
        f->p_records = f->records;
        f->dirty = true;
    }
    if (!f->p_new_record) {
        if (f->type == 3 && f->p_records.size() >= f->max_rec)
            return st(DF_BOUNDARY);
        f->p_records.emplace_back(f->rec_size, 0);
        f->p_new_record = true;
    }
    std::memcpy(f->p_records.back().data() + off, c + 8, len);
    // The Light's MAC input: its own code, file, offset, size, the data from byte 16, in whole blocks.
    tmac_msg_.assign((len + 16 + 15) / 16 * 16, 0);
    std::memcpy(tmac_msg_.data(), c, 8);
    tmac_msg_[0] = 0x8B;
    std::memcpy(tmac_msg_.data() + 16, c + 8, len);
    return st(DF_OK);
}

// Read records: fid offset(3) count(3), the newest at offset 0.
std::vector<uint8_t> DesfireCard::read_records(const Call &k)
{
    const DfFile *f = k.f;
    if (k.n != 8)
        return st(DF_LENGTH);
    if (f->type != 3 && f->type != 4)
        return st(DF_PARAMETER);
    if (!may(right_r(*f)) && !may(right_rw(*f)))
        return st(DF_PERMISSION_DENIED);
    const size_t have = f->records.size();
    const uint32_t off = g24(k.c + 2);
    uint32_t count = g24(k.c + 5);
    if (off >= have)
        return st(DF_BOUNDARY);
    if (count == 0)
        count = static_cast<uint32_t>(have - off);
    if (count > have - off)
        return st(DF_BOUNDARY);
    std::vector<uint8_t> out = st(DF_OK);
    for (size_t i = have - off - count; i < have - off; ++i)
        out.insert(out.end(), f->records[i].begin(), f->records[i].end());
    return out;
}

std::vector<uint8_t> DesfireCard::clear_records(const Call &k)
{
    DfFile *f = k.f;
    if (f->type != 3 && f->type != 4)
        return st(DF_PARAMETER);
    if (!may(right_rw(*f)))
        return st(DF_PERMISSION_DENIED);
    f->p_records.clear();
    f->p_new_record = false;
    f->dirty = true;
    tmac_msg_.assign(16, 0);
    tmac_msg_[0] = 0xEB;
    tmac_msg_[1] = k.c[1];
    return st(DF_OK);
}

namespace {

bool read_key(const Json &v, std::array<uint8_t, 24> &out, std::string &err)
{
    std::vector<uint8_t> k;
    if (v.kind != Json::STRING || !parse_hex_text(v.str, k, 24) ||
        (k.size() != 8 && k.size() != 16 && k.size() != 24)) {
        err = "setup: master_key takes 8, 16 or 24 hex bytes";
        return false;
    }
    out.fill(0);
    std::memcpy(out.data(), k.data(), k.size());
    if (k.size() == 8)
        std::memcpy(out.data() + 8, k.data(), 8);
    return true;
}

bool num(const Json &o, const char *name, double lo, double hi, double &out, std::string &err)
{
    const Json *v = o.get(name);
    if (!v)
        return true;
    if (v->kind != Json::NUMBER || v->num < lo || v->num > hi) {
        err = std::string("setup: ") + name + " is out of range";
        return false;
    }
    out = v->num;
    return true;
}

bool read_file(const Json &o, DfApp &app, std::string &err)
{
    double id = -1, size = 32, lower = 0, upper = 1000, value = 0, rec = 16, recs = 4;
    const Json *type = o.get("type");
    if (o.kind != Json::OBJECT || !type || type->kind != Json::STRING || !num(o, "id", 0, 31, id, err) || id < 0 ||
        !num(o, "size", 1, 8192, size, err) || !num(o, "lower", -2147483648.0, 2147483647.0, lower, err) ||
        !num(o, "upper", -2147483648.0, 2147483647.0, upper, err) ||
        !num(o, "value", -2147483648.0, 2147483647.0, value, err) || !num(o, "record_size", 1, 1024, rec, err) ||
        !num(o, "records", 2, 256, recs, err)) {
        if (err.empty())
            err = "setup: a file has an id (0 to 31) and a type";
        return false;
    }
    DfFile f;
    const std::string &t = type->str;
    f.type = t == "std" ? 0 : t == "backup" ? 1 : t == "value" ? 2 : t == "linear" ? 3 : t == "cyclic" ? 4 : 9;
    if (f.type == 9) {
        err = "setup: a file type is std, backup, value, linear or cyclic";
        return false;
    }
    f.data.assign(static_cast<size_t>(size), 0);
    if (const Json *d = o.get("data")) {
        std::vector<uint8_t> b;
        if (d->kind != Json::STRING || !parse_hex_text(d->str, b, f.data.size())) {
            err = "setup: file data is hex, at most the file's size";
            return false;
        }
        std::copy(b.begin(), b.end(), f.data.begin());
    }
    f.lower = static_cast<int32_t>(lower);
    f.upper = static_cast<int32_t>(upper);
    f.value = static_cast<int32_t>(value);
    f.rec_size = static_cast<uint32_t>(rec);
    f.max_rec = static_cast<uint32_t>(recs);
    if (f.type != 0 && f.type != 1)
        f.data.clear();
    app.files[static_cast<uint8_t>(id)] = std::move(f);
    return true;
}

bool read_apps(const Json &list, std::vector<DfApp> &apps, std::string &err)
{
    if (list.kind != Json::ARRAY || list.items.size() > MAX_APPS) {
        err = "setup: applications come in an array of at most 28";
        return false;
    }
    for (const Json &o : list.items) {
        std::vector<uint8_t> aid;
        const Json *a = o.kind == Json::OBJECT ? o.get("aid") : nullptr;
        if (!a || a->kind != Json::STRING || !parse_hex_text(a->str, aid, 3) || aid.size() != 3) {
            err = "setup: an application has an aid of 3 hex bytes";
            return false;
        }
        DfApp app;
        app.aid = static_cast<uint32_t>(aid[0]) << 16 | aid[1] << 8 | aid[2];
        double keys = 1;
        if (!num(o, "keys", 1, 14, keys, err))
            return false;
        app.keys.resize(static_cast<size_t>(keys));
        if (const Json *kt = o.get("key_type")) {
            if (kt->kind != Json::STRING || (kt->str != "aes" && kt->str != "des" && kt->str != "3k3des")) {
                err = "setup: key_type is aes, des or 3k3des";
                return false;
            }
            app.kind = kt->str == "aes" ? DfKeyKind::AES : kt->str == "3k3des" ? DfKeyKind::TK3DES : DfKeyKind::TDES;
        }
        if (const Json *files = o.get("files")) {
            if (files->kind != Json::ARRAY) {
                err = "setup: files come in an array";
                return false;
            }
            for (const Json &f : files->items)
                if (!read_file(f, app, err))
                    return false;
        }
        apps.push_back(std::move(app));
    }
    return true;
}

} // namespace

std::unique_ptr<Card> make_desfire_card(const zsim_card &id, const Json *setup, std::string &err)
{
    DfSetup s;
    std::vector<DfApp> apps;
    if (setup && setup->kind == Json::OBJECT) {
        for (const auto &m : setup->fields) {
            const Json &v = m.second;
            if (m.first == "size") {
                if (v.kind != Json::NUMBER || v.num < 256 || v.num > 65536) {
                    err = "setup: size is a number of bytes from 256 to 65536";
                    return nullptr;
                }
                s.size = static_cast<uint32_t>(v.num);
            } else if (m.first == "version") {
                if (v.kind != Json::STRING ||
                    (v.str != "ev1" && v.str != "ev2" && v.str != "ev3" && v.str != "light")) {
                    err = "setup: version is \"ev1\", \"ev2\", \"ev3\" or \"light\"";
                    return nullptr;
                }
                s.version = v.str;
            } else if (m.first == "master_key") {
                if (!read_key(v, s.master_key, err))
                    return nullptr;
            } else if (m.first == "master_key_type") {
                if (v.kind == Json::STRING && (v.str == "des" || v.str == "2k3des"))
                    s.master_kind = DfKeyKind::TDES;
                else if (v.kind == Json::STRING && v.str == "3k3des")
                    s.master_kind = DfKeyKind::TK3DES;
                else if (v.kind == Json::STRING && v.str == "aes")
                    s.master_kind = DfKeyKind::AES;
                else {
                    err = "setup: master_key_type is \"des\", \"2k3des\", \"3k3des\" or \"aes\"";
                    return nullptr;
                }
            } else if (m.first == "applications") {
                if (!read_apps(v, apps, err))
                    return nullptr;
            } else {
                err = "setup: unknown DESFire member '" + m.first + "'";
                return nullptr;
            }
        }
    } else if (setup && setup->kind != Json::NUL) {
        err = "setup: a DESFire card's setup is an object";
        return nullptr;
    }
    if (id.uid_len != 7) {
        err = "a DESFire card has a 7-byte UID";
        return nullptr;
    }
    auto card = std::make_unique<DesfireCard>(id, s);
    card->apps() = std::move(apps);
    return card;
}

} // namespace zs
