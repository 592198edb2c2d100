// A Java card with two applets: a signer (PKI) applet and a storage applet, both of class 0x80.
//
// Signer applet, AID A0 00 00 07 47 53 49 47 4E. SELECT answers 16 bytes: the card type, then the applet's
// version 01 00 and zeros. Keys are real (OpenSSL): RSA slots 0 to 2 and EC slots 0 to 2 on the named prime
// curves of 192, 224, 256, 384 and 521 bits, given by their explicit parameters. Objects: types 0 and 1 with
// slots 0 to 2, type 2 with slots 0 to 11, each with an id and a subject. Four secrets: user PIN, admin PIN,
// user and admin unblock codes; a wrong one counts its tries down (63 Cx), none left answers 69 83.
// Key and object writes need the admin PIN (or the admin PIN disabled), signing the user PIN (or the user
// PIN disabled); without them 69 82. Signatures hash the message on the card with SHA-256: RSA as PKCS#1
// v1.5 with the SHA-256 DigestInfo, ECDSA as a DER sequence of r and s.
//
// Storage applet, AID A0 00 00 07 47 53 54 4F 52: seventeen files 0 to 16 of at most 32766 bytes.
//
// Model "javacard". Setup (besides ats, atr, block_size, interim_frames of every ISO 14443-4 card):
//   "card_type": the first byte of the select answers (default AA),
//   "user_pin", "admin_pin", "user_puk", "admin_puk": the secrets as text (defaults 1234, 12345678,
//   11111111, 22222222),
//   "pin_tries", "puk_tries": the tries of the PINs and the unblock codes (default 3 and 5).
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>
#include <openssl/param_build.h>

#include <array>
#include <cstring>
#include <memory>

#include "../iso7816.h"
#include "../json.h"
#include "../scenario.h"

namespace zs {

namespace {

const std::vector<uint8_t> SIGNER_AID = {0xA0, 0x00, 0x00, 0x07, 0x47, 0x53, 0x49, 0x47, 0x4E};
const std::vector<uint8_t> STORAGE_AID = {0xA0, 0x00, 0x00, 0x07, 0x47, 0x53, 0x54, 0x4F, 0x52};

constexpr uint16_t SW_BLOCKED = 0x6983;
constexpr uint16_t SW_NO_PRECISE = 0x6F00; // a slot or file number out of range
constexpr size_t MAX_FILE = 32766, FILES = 17;

struct JcSetup {
    uint8_t card_type = 0xAA;
    std::string pins[4] = {"1234", "12345678", "11111111", "22222222"};
    int pin_tries = 3, puk_tries = 5;
};

using Bn = std::unique_ptr<BIGNUM, decltype(&BN_clear_free)>;
using Pkey = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
Bn bn(BIGNUM *b = nullptr)
{
    return Bn(b ? b : BN_new(), BN_clear_free);
}
Bn bn_bytes(const uint8_t *p, size_t n)
{
    return Bn(BN_bin2bn(p, static_cast<int>(n), nullptr), BN_clear_free);
}
std::vector<uint8_t> bytes_of(const BIGNUM *b, size_t n)
{
    std::vector<uint8_t> v(n);
    BN_bn2binpad(b, v.data(), static_cast<int>(n));
    return v;
}

// ---- RSA: the private operation with the modulus and exponent, or with the CRT parts ----

struct RsaKey {
    Bn n = bn(), d = bn(), e = bn(), p = bn(), q = bn(), dp = bn(), dq = bn(), qinv = bn();
    bool crt = false;
    bool has_e = false;
    size_t len = 0; // modulus bytes
};

std::vector<uint8_t> rsa_sign(const RsaKey &k, const uint8_t digest[32])
{
    static const uint8_t INFO[] = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                   0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
    const size_t t = sizeof INFO + 32;
    if (k.len < t + 11)
        return {};
    std::vector<uint8_t> em(k.len, 0xFF);
    em[0] = 0x00;
    em[1] = 0x01;
    em[k.len - t - 1] = 0x00;
    std::memcpy(em.data() + k.len - t, INFO, sizeof INFO);
    std::memcpy(em.data() + k.len - 32, digest, 32);
    BN_CTX *ctx = BN_CTX_new();
    Bn m = bn_bytes(em.data(), em.size()), s = bn();
    if (!k.crt) {
        BN_mod_exp(s.get(), m.get(), k.d.get(), k.n.get(), ctx);
    } else {
        Bn m1 = bn(), m2 = bn(), h = bn();
        BN_mod_exp(m1.get(), m.get(), k.dp.get(), k.p.get(), ctx);
        BN_mod_exp(m2.get(), m.get(), k.dq.get(), k.q.get(), ctx);
        BN_mod_sub(h.get(), m1.get(), m2.get(), k.p.get(), ctx);
        BN_mod_mul(h.get(), h.get(), k.qinv.get(), k.p.get(), ctx);
        BN_mul(h.get(), h.get(), k.q.get(), ctx);
        BN_add(s.get(), h.get(), m2.get());
    }
    BN_CTX_free(ctx);
    return bytes_of(s.get(), k.len);
}

// ---- EC on named prime curves ----

struct Curve {
    int nid;
    const char *name;
    uint16_t bits;
};
const Curve CURVES[] = {{NID_X9_62_prime192v1, "P-192", 192},
                        {NID_secp224r1, "P-224", 224},
                        {NID_X9_62_prime256v1, "P-256", 256},
                        {NID_secp384r1, "P-384", 384},
                        {NID_secp521r1, "P-521", 521}};

// p, a, b, G (uncompressed), r of a curve, each number in n bytes.
std::vector<uint8_t> curve_params(const Curve &c, size_t n)
{
    std::vector<uint8_t> out;
    EC_GROUP *g = EC_GROUP_new_by_curve_name(c.nid);
    BN_CTX *ctx = BN_CTX_new();
    Bn p = bn(), a = bn(), b = bn();
    if (g && EC_GROUP_get_curve(g, p.get(), a.get(), b.get(), ctx)) {
        for (const BIGNUM *x : {p.get(), a.get(), b.get()}) {
            const auto v = bytes_of(x, n);
            out.insert(out.end(), v.begin(), v.end());
        }
        std::vector<uint8_t> gen(2 * n + 1);
        EC_POINT_point2oct(g, EC_GROUP_get0_generator(g), POINT_CONVERSION_UNCOMPRESSED, gen.data(), gen.size(), ctx);
        out.insert(out.end(), gen.begin(), gen.end());
        const auto r = bytes_of(EC_GROUP_get0_order(g), n);
        out.insert(out.end(), r.begin(), r.end());
    }
    BN_CTX_free(ctx);
    EC_GROUP_free(g);
    return out;
}

// The curve whose parameters (p a b G r, then the 2-byte cofactor) start the bytes; null for none.
const Curve *match_curve(uint16_t bits, const uint8_t *p, size_t len)
{
    const size_t n = (bits + 7) / 8;
    for (const Curve &c : CURVES) {
        if (c.bits != bits)
            continue;
        const auto want = curve_params(c, n);
        if (len >= want.size() + 2 && std::memcmp(p, want.data(), want.size()) == 0 && p[want.size()] == 0 &&
            p[want.size() + 1] == 1)
            return &c;
    }
    return nullptr;
}

struct EcKey {
    Pkey key{nullptr, EVP_PKEY_free};
    const Curve *curve = nullptr;
    uint16_t designator = 0;
};

Pkey ec_from_private(const Curve &c, const uint8_t *s, size_t n)
{
    Pkey out(nullptr, EVP_PKEY_free);
    EC_GROUP *g = EC_GROUP_new_by_curve_name(c.nid);
    EC_POINT *w = g ? EC_POINT_new(g) : nullptr;
    BN_CTX *ctx = BN_CTX_new();
    Bn priv = bn_bytes(s, n);
    std::vector<uint8_t> pub(2 * ((c.bits + 7) / 8) + 1);
    OSSL_PARAM_BLD *bld = OSSL_PARAM_BLD_new();
    if (w && EC_POINT_mul(g, w, priv.get(), nullptr, nullptr, ctx) &&
        EC_POINT_point2oct(g, w, POINT_CONVERSION_UNCOMPRESSED, pub.data(), pub.size(), ctx) == pub.size() && bld &&
        OSSL_PARAM_BLD_push_utf8_string(bld, OSSL_PKEY_PARAM_GROUP_NAME, c.name, 0) &&
        OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_PRIV_KEY, priv.get()) &&
        OSSL_PARAM_BLD_push_octet_string(bld, OSSL_PKEY_PARAM_PUB_KEY, pub.data(), pub.size())) {
        OSSL_PARAM *params = OSSL_PARAM_BLD_to_param(bld);
        EVP_PKEY_CTX *pc = EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr);
        EVP_PKEY *k = nullptr;
        if (params && pc && EVP_PKEY_fromdata_init(pc) > 0 && EVP_PKEY_fromdata(pc, &k, EVP_PKEY_KEYPAIR, params) > 0)
            out.reset(k);
        EVP_PKEY_CTX_free(pc);
        OSSL_PARAM_free(params);
    }
    OSSL_PARAM_BLD_free(bld);
    BN_CTX_free(ctx);
    EC_POINT_free(w);
    EC_GROUP_free(g);
    return out;
}

std::vector<uint8_t> ec_sign(const EcKey &k, const uint8_t digest[32])
{
    std::vector<uint8_t> sig(EVP_PKEY_get_size(k.key.get()));
    size_t len = sig.size();
    EVP_PKEY_CTX *pc = EVP_PKEY_CTX_new(k.key.get(), nullptr);
    const bool ok = pc && EVP_PKEY_sign_init(pc) > 0 && EVP_PKEY_sign(pc, sig.data(), &len, digest, 32) > 0;
    EVP_PKEY_CTX_free(pc);
    if (!ok)
        return {};
    sig.resize(len);
    return sig;
}

// ---- the signer applet ----

struct Object {
    bool present = false;
    std::vector<uint8_t> id, subject, data;
};

struct Secret {
    std::vector<uint8_t> value;
    int tries = 0, max = 0;
    bool enabled = true;
};

class SignerApplet final : public Application {
public:
    explicit SignerApplet(const JcSetup &s) : Application(SIGNER_AID), card_type_(s.card_type)
    {
        for (int i = 0; i < 4; ++i) {
            secrets_[i].value.assign(s.pins[i].begin(), s.pins[i].end());
            secrets_[i].max = secrets_[i].tries = i < 2 ? s.pin_tries : s.puk_tries;
        }
        for (auto &o : objects_)
            o.resize(12);
    }
    ~SignerApplet() override
    {
        wipe();
        EVP_MD_CTX_free(md_);
    }

    RApdu select(const Apdu &) override
    {
        deselect();
        std::vector<uint8_t> r(16, 0);
        r[0] = card_type_;
        r[1] = 0x01;
        return {r, SW_OK};
    }
    void deselect() override
    {
        logged_[0] = logged_[1] = false;
        signing_ = false;
        pending_.clear();
        EVP_MD_CTX_free(md_);
        md_ = nullptr;
    }

    RApdu command(const Apdu &c) override
    {
        if (c.cla != 0x80)
            return RApdu::sw_only(SW_CLA_NOT_SUPPORTED);
        switch (c.ins) {
        case 0x20: return login(c);
        case 0x21: return tries(c);
        case 0x22: return change(c);
        case 0x23: return unblock(c);
        case 0x24:
        case 0x25: return enable(c);
        case 0x31: return put_object(c);
        case 0x32:
        case 0x33: return object_meta(c);
        case 0x41: return get_object(c);
        case 0x42: return get_object_id(c);
        case 0x51:
        case 0x61: return put_key(c);
        case 0x52: return generate_rsa(c);
        case 0x62: return generate_ec(c);
        case 0x53:
        case 0x54: return rsa_public(c);
        case 0x63:
        case 0x64:
        case 0x65:
        case 0x66:
        case 0x67: return ec_public(c);
        case 0x5F:
        case 0x6F: return delete_key(c);
        case 0x71: return sign(c);
        default: return RApdu::sw_only(SW_INS_NOT_SUPPORTED);
        }
    }

private:
    bool user_ok() const { return !secrets_[0].enabled || logged_[0]; }
    bool admin_ok() const { return !secrets_[1].enabled || logged_[1]; }
    void wipe()
    {
        for (auto &s : secrets_)
            OPENSSL_cleanse(s.value.data(), s.value.size());
    }

    // A secret presented: 90 00 and its tries back to the start, or one try fewer.
    uint16_t present(Secret &s, const Apdu &c)
    {
        if (s.tries <= 0)
            return SW_BLOCKED;
        const bool same = c.nc == s.value.size() && CRYPTO_memcmp(c.data, s.value.data(), c.nc) == 0;
        if (same) {
            s.tries = s.max;
            return SW_OK;
        }
        --s.tries;
        return s.tries ? static_cast<uint16_t>(0x63C0 | (s.tries & 0x0F)) : SW_BLOCKED;
    }

    RApdu login(const Apdu &c)
    {
        if (c.p1 > 1)
            return RApdu::sw_only(SW_WRONG_P1P2);
        logged_[c.p1] = false;
        const uint16_t sw = present(secrets_[c.p1], c);
        logged_[c.p1] = sw == SW_OK;
        return RApdu::sw_only(sw);
    }
    RApdu tries(const Apdu &c)
    {
        if (c.p1 > 3)
            return RApdu::sw_only(SW_WRONG_P1P2);
        const int t = secrets_[c.p1].tries;
        return {{static_cast<uint8_t>(t >> 8), static_cast<uint8_t>(t)}, SW_OK};
    }
    RApdu change(const Apdu &c)
    {
        if (c.p1 > 3)
            return RApdu::sw_only(SW_WRONG_P1P2);
        if (!(c.p1 == 0 ? logged_[0] || logged_[1] : logged_[1]))
            return RApdu::sw_only(SW_SECURITY_NOT_SATISFIED);
        if (c.nc < 4 || c.nc > 16)
            return RApdu::sw_only(SW_WRONG_LENGTH);
        Secret &s = secrets_[c.p1];
        OPENSSL_cleanse(s.value.data(), s.value.size());
        s.value.assign(c.data, c.data + c.nc);
        s.tries = s.max;
        return RApdu::sw_only(SW_OK);
    }
    RApdu unblock(const Apdu &c)
    {
        if (c.p1 != 2 && c.p1 != 3)
            return RApdu::sw_only(SW_WRONG_P1P2);
        const uint16_t sw = present(secrets_[c.p1], c);
        if (sw == SW_OK)
            secrets_[c.p1 - 2].tries = secrets_[c.p1 - 2].max;
        return RApdu::sw_only(sw);
    }
    RApdu enable(const Apdu &c)
    {
        if (c.p1 > 1)
            return RApdu::sw_only(SW_WRONG_P1P2);
        if (!logged_[1])
            return RApdu::sw_only(SW_SECURITY_NOT_SATISFIED);
        secrets_[c.p1].enabled = c.ins == 0x24;
        return RApdu::sw_only(SW_OK);
    }

    Object *object(uint8_t type, uint8_t index)
    {
        if (type > 2 || index > (type == 2 ? 11 : 2))
            return nullptr;
        return &objects_[type][index];
    }

    RApdu put_object(const Apdu &c)
    {
        if (!admin_ok())
            return RApdu::sw_only(SW_SECURITY_NOT_SATISFIED);
        Object *o = object(c.p1 & 0x7F, c.p2);
        if (!o)
            return RApdu::sw_only(SW_NO_PRECISE);
        if (c.p1 & 0x80) {
            if (c.nc < 2)
                return RApdu::sw_only(SW_WRONG_LENGTH);
            put_ = o;
            put_left_ = static_cast<size_t>(c.data[0] << 8 | c.data[1]);
            *o = Object{};
            o->present = true;
            o->id.assign(c.data + 2, c.data + c.nc);
            return RApdu::sw_only(SW_OK);
        }
        if (put_ != o || c.nc > put_left_)
            return RApdu::sw_only(put_ != o ? SW_CONDITIONS_NOT_SATISFIED : SW_WRONG_LENGTH);
        o->data.insert(o->data.end(), c.data, c.data + c.nc);
        put_left_ -= c.nc;
        return RApdu::sw_only(SW_OK);
    }
    RApdu object_meta(const Apdu &c)
    {
        if (!admin_ok())
            return RApdu::sw_only(SW_SECURITY_NOT_SATISFIED);
        Object *o = object(c.p1, c.p2);
        if (!o)
            return RApdu::sw_only(SW_NO_PRECISE);
        if (!o->present)
            return RApdu::sw_only(SW_FILE_NOT_FOUND);
        if (c.ins == 0x32)
            o->subject.assign(c.data, c.data + c.nc);
        else
            *o = Object{};
        return RApdu::sw_only(SW_OK);
    }
    RApdu get_object(const Apdu &c)
    {
        Object *o = object(c.p1 & 0x7F, c.p2);
        if (!o)
            return RApdu::sw_only(SW_NO_PRECISE);
        if (!o->present)
            return RApdu::sw_only(SW_FILE_NOT_FOUND);
        if (c.p1 & 0x80 || read_ != o) {
            read_ = o;
            read_at_ = 0;
        }
        const size_t n = std::min<size_t>(c.ne ? c.ne : 256, o->data.size() - read_at_);
        RApdu r{{o->data.begin() + static_cast<long>(read_at_), o->data.begin() + static_cast<long>(read_at_ + n)},
                SW_OK};
        read_at_ += n;
        return r;
    }
    RApdu get_object_id(const Apdu &c)
    {
        Object *o = object(c.p1, c.p2);
        if (!o)
            return RApdu::sw_only(SW_NO_PRECISE);
        if (!o->present)
            return RApdu::sw_only(SW_FILE_NOT_FOUND);
        std::vector<uint8_t> r = {static_cast<uint8_t>(o->data.size() >> 8), static_cast<uint8_t>(o->data.size())};
        r.insert(r.end(), o->id.begin(), o->id.end());
        return {r, SW_OK};
    }

    static int rsa_bits(uint8_t code)
    {
        static const uint16_t BITS[] = {512, 736, 768, 896, 1024, 1280, 1536, 1984, 2048};
        return code < 9 ? BITS[code] : -1;
    }
    static int fp_bits(uint8_t code)
    {
        static const uint16_t BITS[] = {112, 128, 160, 192, 224, 256, 384, 521};
        return code < 8 ? BITS[code] : -1;
    }

    // Chunked key data: pieces gather until the one with bit 7 of P1.
    bool gather(const Apdu &c, bool &complete)
    {
        const uint32_t tag = static_cast<uint32_t>(c.ins) << 16 | (c.p1 & 0x7Fu) << 8 | c.p2;
        if (pending_.empty() || pending_tag_ != tag) {
            OPENSSL_cleanse(pending_.data(), pending_.size());
            pending_.clear();
            pending_tag_ = tag;
        }
        if (pending_.size() + c.nc > 4096)
            return false;
        pending_.insert(pending_.end(), c.data, c.data + c.nc);
        complete = c.p1 & 0x80;
        return true;
    }
    void drop_pending()
    {
        OPENSSL_cleanse(pending_.data(), pending_.size());
        pending_.clear();
    }

    // A piece of a chunked key command: the admin check, the slot, the gathering. True when the last piece
    // is in; otherwise sw is the answer.
    bool key_piece(const Apdu &c, uint8_t &index, uint16_t &sw)
    {
        bool complete = false;
        index = c.p1 & 0x7F;
        if (!admin_ok())
            sw = SW_SECURITY_NOT_SATISFIED;
        else if (index > 2)
            sw = SW_NO_PRECISE;
        else if (!gather(c, complete))
            sw = SW_WRONG_LENGTH;
        else
            sw = SW_OK;
        return sw == SW_OK && complete;
    }

    RApdu put_key(const Apdu &c)
    {
        uint8_t index = 0;
        uint16_t sw = SW_OK;
        if (!key_piece(c, index, sw))
            return RApdu::sw_only(sw);
        sw = c.ins == 0x51 ? store_rsa(index, c.p2) : store_ec(index, c.p2);
        drop_pending();
        return RApdu::sw_only(sw);
    }

    uint16_t store_rsa(uint8_t index, uint8_t p2)
    {
        const int bits = rsa_bits(p2 & 0x0F);
        if (bits < 0 || (p2 & 0xE0))
            return SW_WRONG_DATA;
        const size_t n = (bits + 7) / 8;
        auto k = std::make_unique<RsaKey>();
        k->len = n;
        const uint8_t *p = pending_.data();
        if (p2 & 0x10) {
            if (pending_.size() != 5 * n / 2)
                return SW_WRONG_LENGTH;
            const size_t h = n / 2;
            k->p = bn_bytes(p, h);
            k->q = bn_bytes(p + h, h);
            k->dp = bn_bytes(p + 2 * h, h);
            k->dq = bn_bytes(p + 3 * h, h);
            k->qinv = bn_bytes(p + 4 * h, h);
            k->crt = true;
            BN_CTX *ctx = BN_CTX_new();
            Bn p1 = bn(BN_dup(k->p.get()));
            BN_sub_word(p1.get(), 1);
            BN_mul(k->n.get(), k->p.get(), k->q.get(), ctx);
            k->has_e = BN_mod_inverse(k->e.get(), k->dp.get(), p1.get(), ctx) != nullptr;
            BN_CTX_free(ctx);
        } else {
            if (pending_.size() != 2 * n)
                return SW_WRONG_LENGTH;
            k->n = bn_bytes(p, n);
            k->d = bn_bytes(p + n, n);
        }
        rsa_[index] = std::move(k);
        return SW_OK;
    }

    uint16_t store_ec(uint8_t index, uint8_t p2)
    {
        // Binary fields and the second representation are not on this card.
        if (p2 & 0x30)
            return SW_WRONG_DATA;
        const int bits = fp_bits(p2 & 0x0F);
        if (bits < 0)
            return SW_WRONG_DATA;
        const size_t n = (bits + 7) / 8;
        if (pending_.size() != 7 * n + 3)
            return SW_WRONG_LENGTH;
        const Curve *curve = match_curve(static_cast<uint16_t>(bits), pending_.data(), pending_.size());
        if (!curve)
            return SW_WRONG_DATA;
        auto k = std::make_unique<EcKey>();
        k->key = ec_from_private(*curve, pending_.data() + 6 * n + 3, n);
        if (!k->key)
            return SW_WRONG_DATA;
        k->curve = curve;
        k->designator = p2 >> 6;
        ec_[index] = std::move(k);
        return SW_OK;
    }

    RApdu generate_rsa(const Apdu &c)
    {
        if (!admin_ok())
            return RApdu::sw_only(SW_SECURITY_NOT_SATISFIED);
        const uint8_t index = c.p1 & 0x7F;
        if (index > 2)
            return RApdu::sw_only(SW_NO_PRECISE);
        const int bits = rsa_bits(c.p2 & 0x0F);
        if (bits < 0 || (c.p2 & 0xE0))
            return RApdu::sw_only(SW_WRONG_DATA);
        Pkey key(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(bits)), EVP_PKEY_free);
        auto k = std::make_unique<RsaKey>();
        BIGNUM *n = nullptr, *e = nullptr, *d = nullptr;
        if (!key || !EVP_PKEY_get_bn_param(key.get(), OSSL_PKEY_PARAM_RSA_N, &n) ||
            !EVP_PKEY_get_bn_param(key.get(), OSSL_PKEY_PARAM_RSA_E, &e) ||
            !EVP_PKEY_get_bn_param(key.get(), OSSL_PKEY_PARAM_RSA_D, &d)) {
            BN_free(n);
            BN_free(e);
            BN_clear_free(d);
            return RApdu::sw_only(SW_NO_PRECISE);
        }
        k->n = bn(n);
        k->e = bn(e);
        k->d = bn(d);
        k->has_e = true;
        k->len = (static_cast<size_t>(bits) + 7) / 8;
        rsa_[index] = std::move(k);
        return RApdu::sw_only(SW_OK);
    }

    RApdu generate_ec(const Apdu &c)
    {
        uint8_t index = 0;
        uint16_t sw = SW_OK;
        if (!key_piece(c, index, sw))
            return RApdu::sw_only(sw);
        const int bits = (c.p2 & 0x30) ? -1 : fp_bits(c.p2 & 0x0F);
        const size_t n = bits > 0 ? (static_cast<size_t>(bits) + 7) / 8 : 0;
        const Curve *curve = bits > 0 && pending_.size() == 6 * n + 3
                                 ? match_curve(static_cast<uint16_t>(bits), pending_.data(), pending_.size())
                                 : nullptr;
        drop_pending();
        if (!curve)
            return RApdu::sw_only(SW_WRONG_DATA);
        auto k = std::make_unique<EcKey>();
        k->key.reset(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", curve->name));
        if (!k->key)
            return RApdu::sw_only(SW_NO_PRECISE);
        k->curve = curve;
        k->designator = c.p2 >> 6;
        ec_[index] = std::move(k);
        return RApdu::sw_only(SW_OK);
    }

    RApdu rsa_public(const Apdu &c)
    {
        if (c.p1 > 2)
            return RApdu::sw_only(SW_NO_PRECISE);
        const RsaKey *k = rsa_[c.p1].get();
        if (!k)
            return RApdu::sw_only(SW_FILE_NOT_FOUND);
        if (c.ins == 0x53)
            return {bytes_of(k->n.get(), k->len), SW_OK};
        // A key stored as modulus and private exponent has no public exponent on the card.
        if (!k->has_e)
            return RApdu::sw_only(SW_CONDITIONS_NOT_SATISFIED);
        return {bytes_of(k->e.get(), static_cast<size_t>(BN_num_bytes(k->e.get()))), SW_OK};
    }

    RApdu ec_public(const Apdu &c)
    {
        if (c.p1 > 2)
            return RApdu::sw_only(SW_NO_PRECISE);
        const EcKey *k = ec_[c.p1].get();
        if (!k)
            return RApdu::sw_only(SW_FILE_NOT_FOUND);
        const size_t n = (k->curve->bits + 7) / 8;
        const auto params = curve_params(*k->curve, n);
        std::vector<uint8_t> r;
        switch (c.ins) {
        case 0x63: {
            r.resize(2 * n + 1);
            size_t len = 0;
            EVP_PKEY_get_octet_string_param(k->key.get(), OSSL_PKEY_PARAM_PUB_KEY, r.data(), r.size(), &len);
            r.resize(len);
            break;
        }
        case 0x64: r.assign(params.begin(), params.begin() + static_cast<long>(n)); break;
        case 0x65: r.assign(params.begin() + static_cast<long>(n), params.begin() + static_cast<long>(2 * n)); break;
        case 0x66:
            r.assign(params.begin() + static_cast<long>(2 * n), params.begin() + static_cast<long>(3 * n));
            break;
        default:
            r.assign(params.begin() + static_cast<long>(3 * n), params.begin() + static_cast<long>(5 * n + 1));
            for (uint16_t v : {uint16_t{1}, k->curve->bits, k->designator}) {
                r.push_back(static_cast<uint8_t>(v >> 8));
                r.push_back(static_cast<uint8_t>(v));
            }
        }
        return {r, SW_OK};
    }

    RApdu delete_key(const Apdu &c)
    {
        if (!admin_ok())
            return RApdu::sw_only(SW_SECURITY_NOT_SATISFIED);
        if (c.p1 > 2)
            return RApdu::sw_only(SW_NO_PRECISE);
        if (c.ins == 0x5F ? !rsa_[c.p1] : !ec_[c.p1])
            return RApdu::sw_only(SW_FILE_NOT_FOUND);
        if (c.ins == 0x5F)
            rsa_[c.p1].reset();
        else
            ec_[c.p1].reset();
        return RApdu::sw_only(SW_OK);
    }

    // 71: P1 bit 7 with data or P2 set signs in one go; 80 00 without data ends a session; any other P1
    // starts a session, except 00 00 while one is open, which continues it.
    RApdu sign(const Apdu &c)
    {
        const bool end = c.p1 == 0x80 && c.p2 == 0 && c.nc == 0;
        if (!end && !(c.p1 & 0x80) && c.p1 == 0 && c.p2 == 0 && signing_) {
            EVP_DigestUpdate(md_, c.data, c.nc);
            return RApdu::sw_only(SW_OK);
        }
        if (end) {
            if (!signing_)
                return RApdu::sw_only(SW_CONDITIONS_NOT_SATISFIED);
            signing_ = false;
            uint8_t digest[32];
            EVP_DigestFinal_ex(md_, digest, nullptr);
            return finish(sign_cipher_, sign_index_, digest);
        }
        if (!user_ok())
            return RApdu::sw_only(SW_SECURITY_NOT_SATISFIED);
        const uint8_t index = c.p1 & 0x0F, cipher = (c.p1 >> 4) & 0x07;
        if (index > 2 || cipher > 1)
            return RApdu::sw_only(SW_NO_PRECISE);
        if (cipher == 0 ? !rsa_[index] : !ec_[index])
            return RApdu::sw_only(SW_FILE_NOT_FOUND);
        if (!md_)
            md_ = EVP_MD_CTX_new();
        EVP_DigestInit_ex(md_, EVP_sha256(), nullptr);
        EVP_DigestUpdate(md_, c.data, c.nc);
        if (c.p1 & 0x80) {
            uint8_t digest[32];
            EVP_DigestFinal_ex(md_, digest, nullptr);
            signing_ = false;
            return finish(cipher, index, digest);
        }
        signing_ = true;
        sign_cipher_ = cipher;
        sign_index_ = index;
        return RApdu::sw_only(SW_OK);
    }

    RApdu finish(uint8_t cipher, uint8_t index, const uint8_t digest[32])
    {
        std::vector<uint8_t> sig;
        if (cipher == 0 && rsa_[index])
            sig = rsa_sign(*rsa_[index], digest);
        else if (cipher == 1 && ec_[index])
            sig = ec_sign(*ec_[index], digest);
        if (sig.empty())
            return RApdu::sw_only(SW_FILE_NOT_FOUND);
        return {sig, SW_OK};
    }

    uint8_t card_type_;
    Secret secrets_[4];
    bool logged_[2] = {false, false};
    std::array<std::vector<Object>, 3> objects_;
    Object *put_ = nullptr;
    size_t put_left_ = 0;
    Object *read_ = nullptr;
    size_t read_at_ = 0;
    std::unique_ptr<RsaKey> rsa_[3];
    std::unique_ptr<EcKey> ec_[3];
    std::vector<uint8_t> pending_;
    uint32_t pending_tag_ = 0;
    EVP_MD_CTX *md_ = nullptr;
    bool signing_ = false;
    uint8_t sign_cipher_ = 0, sign_index_ = 0;
};

// ---- the storage applet ----

class StorageApplet final : public Application {
public:
    explicit StorageApplet(uint8_t card_type) : Application(STORAGE_AID), card_type_(card_type) {}

    RApdu select(const Apdu &) override
    {
        std::vector<uint8_t> r(16, 0);
        r[0] = card_type_;
        r[1] = 0x01;
        return {r, SW_OK};
    }
    void deselect() override { writing_ = -1; }

    RApdu command(const Apdu &c) override
    {
        if (c.cla != 0x80)
            return RApdu::sw_only(SW_CLA_NOT_SUPPORTED);
        if (c.ins == 0x31) {
            std::vector<uint8_t> list(FILES);
            for (size_t i = 0; i < FILES; ++i)
                list[i] = files_[i].present ? 1 : 0;
            return {list, SW_OK};
        }
        if (c.ins != 0x32 && c.ins != 0x33 && c.ins != 0x34 && c.ins != 0x3F)
            return RApdu::sw_only(SW_INS_NOT_SUPPORTED);
        if (c.p2 >= FILES)
            return RApdu::sw_only(SW_NO_PRECISE);
        File &f = files_[c.p2];
        if (c.ins == 0x34)
            return write(c, f);
        if (!f.present)
            return RApdu::sw_only(SW_FILE_NOT_FOUND);
        switch (c.ins) {
        case 0x32: return {{static_cast<uint8_t>(f.data.size() >> 8), static_cast<uint8_t>(f.data.size())}, SW_OK};
        case 0x33:
            if (!c.has_le || c.ne < f.data.size())
                return RApdu::sw_only(SW_WRONG_LENGTH);
            return {f.data, SW_OK};
        default: f = File{}; return RApdu::sw_only(SW_OK);
        }
    }

private:
    struct File {
        bool present = false;
        std::vector<uint8_t> data;
        size_t filled = 0;
    };

    // 80 on P1 announces the size plus two; the data follows in pieces with P1 00.
    RApdu write(const Apdu &c, File &f)
    {
        if (c.p1 == 0x80) {
            if (c.nc != 2)
                return RApdu::sw_only(SW_WRONG_LENGTH);
            const size_t total = static_cast<size_t>(c.data[0] << 8 | c.data[1]);
            if (total < 2 || total - 2 > MAX_FILE)
                return RApdu::sw_only(SW_WRONG_DATA);
            f = File{};
            f.present = true;
            f.data.assign(total - 2, 0);
            writing_ = c.p2;
            return RApdu::sw_only(SW_OK);
        }
        if (writing_ != c.p2 || !f.present)
            return RApdu::sw_only(SW_CONDITIONS_NOT_SATISFIED);
        if (c.nc > f.data.size() - f.filled)
            return RApdu::sw_only(SW_WRONG_LENGTH);
        if (c.nc)
            std::memcpy(f.data.data() + f.filled, c.data, c.nc);
        f.filled += c.nc;
        return RApdu::sw_only(SW_OK);
    }

    uint8_t card_type_;
    File files_[FILES];
    int writing_ = -1;
};

class JavaCard final : public Iso14443Card {
public:
    using Iso14443Card::Iso14443Card;
    const char *model() const override { return "javacard"; }
};

bool read_jc_setup(const Json *setup, JcSetup &s, std::string &err)
{
    if (!setup || setup->kind != Json::OBJECT)
        return true;
    static const char *const PIN_NAMES[] = {"user_pin", "admin_pin", "user_puk", "admin_puk"};
    for (const auto &m : setup->fields) {
        const std::string &k = m.first;
        const Json &v = m.second;
        uint64_t n = 0;
        if (k == "card_type") {
            if (!(v.kind == Json::STRING && parse_hex_number(v.str, 0xFF, n)) &&
                !(v.kind == Json::NUMBER && v.num >= 0 && v.num <= 255 && (n = static_cast<uint64_t>(v.num), true))) {
                err = "setup: card_type takes a byte";
                return false;
            }
            s.card_type = static_cast<uint8_t>(n);
        } else if (k == "pin_tries" || k == "puk_tries") {
            if (v.kind != Json::NUMBER || v.num < 1 || v.num > 15) {
                err = "setup: " + k + " takes a number from 1 to 15";
                return false;
            }
            (k == "pin_tries" ? s.pin_tries : s.puk_tries) = static_cast<int>(v.num);
        } else {
            for (int i = 0; i < 4; ++i) {
                if (k != PIN_NAMES[i])
                    continue;
                if (v.kind != Json::STRING || v.str.empty() || v.str.size() > 16) {
                    err = "setup: " + k + " takes a text of 1 to 16 characters";
                    return false;
                }
                s.pins[i] = v.str;
            }
        }
    }
    return true;
}

} // namespace

std::unique_ptr<Card> make_javacard(const zsim_card &id, const Json *setup, std::string &err)
{
    Iso14443Setup s;
    if (!iso14443_setup_read(setup, s, err,
                             {"card_type", "user_pin", "admin_pin", "user_puk", "admin_puk", "pin_tries", "puk_tries"}))
        return nullptr;
    JcSetup j;
    if (!read_jc_setup(setup, j, err))
        return nullptr;
    auto card = std::make_unique<JavaCard>(id, s);
    card->host().add(std::make_unique<SignerApplet>(j));
    card->host().add(std::make_unique<StorageApplet>(j.card_type));
    return card;
}

} // namespace zs
