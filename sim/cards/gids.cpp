// A GIDS smart card with one RSA-2048 key: the GIDS application (AID A0 00 00 03 97 42 54 46 59), its
// certificate object DF 24 stored compressed, the PIN with a count of tries, and the key's signature.
//
// Model "gids". Setup (besides ats, atr, block_size, interim_frames of every ISO 14443-4 card):
//   "pin": the PIN as text (default "123456", 4 to 16 characters);
//   "tries": tries of the PIN (1 to 15, default 3); each wrong VERIFY takes one, a right one gives them back;
//   "key", "certificate": PEM files of the card's private key (RSA-2048) and its certificate. Without them the
//       card makes a key with OpenSSL and a self-signed certificate for it (one key for every such card of
//       the process, as making one takes a while).
// Commands of the application:
//   00 CB A0 10 5C 02 DF 24 Le   GET DATA: DF 24, a two-byte length (82 hi lo), 01 00, the certificate's
//                                length (little-endian) and its zlib stream; what Le leaves comes with
//                                GET RESPONSE
//   00 20 00 80 [PIN]            VERIFY: 90 00, 63 Cx with x tries left, 69 83 when none is left; without data
//                                it tells the tries left (90 00 once verified)
//   00 22 41 B6 80 01 57 84 01 81  MANAGE SECURITY ENVIRONMENT: signing with PKCS#1 and key 81
//   00 2A 9E 9A data Le          PERFORM SECURITY OPERATION: the PKCS#1 v1.5 signature of the data (a
//                                DigestInfo) after VERIFY and MANAGE SECURITY ENVIRONMENT (69 82, 69 85)
// A new SELECT or the end of the level-4 session forgets the PIN and the environment.
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <zlib.h>

#include <cstdio>
#include <cstring>
#include <mutex>

#include "../iso7816.h"
#include "../json.h"

namespace zs {

namespace {

using Bytes = std::vector<uint8_t>;

const Bytes kGidsAid{0xA0, 0x00, 0x00, 0x03, 0x97, 0x42, 0x54, 0x46, 0x59};

struct KeyPair {
    EVP_PKEY *key = nullptr;
    Bytes cert_der;
};

// The key and certificate every card without files of its own shares.
std::mutex g_made_lock;
KeyPair g_made;

bool make_self_signed(KeyPair &kp)
{
    kp.key = EVP_RSA_gen(2048);
    X509 *x = X509_new();
    bool ok = kp.key && x;
    if (ok) {
        X509_set_version(x, 2);
        ASN1_INTEGER_set(X509_get_serialNumber(x), 0x5151);
        X509_gmtime_adj(X509_getm_notBefore(x), -3600);
        X509_gmtime_adj(X509_getm_notAfter(x), 3650L * 24 * 3600);
        X509_NAME *name = X509_get_subject_name(x);
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char *>("Simulated GIDS card"), -1, -1, 0);
        X509_set_issuer_name(x, name);
        ok = X509_set_pubkey(x, kp.key) == 1 && X509_sign(x, kp.key, EVP_sha256()) > 0;
    }
    if (ok) {
        unsigned char *der = nullptr;
        const int n = i2d_X509(x, &der);
        ok = n > 0;
        if (ok)
            kp.cert_der.assign(der, der + n);
        OPENSSL_free(der);
    }
    X509_free(x);
    return ok;
}

bool load_files(const std::string &key_path, const std::string &cert_path, KeyPair &kp, std::string &err)
{
    FILE *f = std::fopen(key_path.c_str(), "r");
    if (f) {
        kp.key = PEM_read_PrivateKey(f, nullptr, nullptr, nullptr);
        std::fclose(f);
    }
    if (!kp.key || EVP_PKEY_get_base_id(kp.key) != EVP_PKEY_RSA || EVP_PKEY_get_bits(kp.key) != 2048) {
        err = "setup: key must name a PEM file of an RSA-2048 private key";
        return false;
    }
    X509 *x = nullptr;
    f = std::fopen(cert_path.c_str(), "r");
    if (f) {
        x = PEM_read_X509(f, nullptr, nullptr, nullptr);
        std::fclose(f);
    }
    unsigned char *der = nullptr;
    const int n = x ? i2d_X509(x, &der) : 0;
    const bool match = x && X509_check_private_key(x, kp.key) == 1;
    if (n > 0)
        kp.cert_der.assign(der, der + n);
    OPENSSL_free(der);
    X509_free(x);
    if (n <= 0 || !match) {
        err = "setup: certificate must name a PEM file of the key's certificate";
        return false;
    }
    return true;
}

// DF 24 82 hi lo 01 00 plain-length(LE) zlib(certificate).
Bytes certificate_object(const Bytes &der)
{
    uLongf zlen = compressBound(static_cast<uLong>(der.size()));
    Bytes z(zlen);
    if (compress2(z.data(), &zlen, der.data(), static_cast<uLong>(der.size()), 9) != Z_OK)
        return {};
    z.resize(zlen);
    const size_t len = 4 + z.size();
    Bytes out{0xDF,
              0x24,
              0x82,
              static_cast<uint8_t>(len >> 8),
              static_cast<uint8_t>(len),
              0x01,
              0x00,
              static_cast<uint8_t>(der.size()),
              static_cast<uint8_t>(der.size() >> 8)};
    out.insert(out.end(), z.begin(), z.end());
    return out;
}

class GidsApp final : public Application {
public:
    GidsApp(EVP_PKEY *key, bool owned, const Bytes &cert_der, std::string pin, int tries)
        : Application(kGidsAid), key_(key), owned_(owned), object_(certificate_object(cert_der)), pin_(std::move(pin)),
          max_tries_(tries), tries_(tries)
    {
    }
    ~GidsApp() override
    {
        if (owned_)
            EVP_PKEY_free(key_);
    }
    RApdu select(const Apdu &) override
    {
        forget();
        return RApdu::sw_only(SW_OK);
    }
    void deselect() override { forget(); }

    RApdu command(const Apdu &c) override
    {
        if (c.cla != 0x00)
            return RApdu::sw_only(SW_CLA_NOT_SUPPORTED);
        switch (c.ins) {
        case 0xCB: return get_data(c);
        case 0x20: return verify(c);
        case 0x22: return manage_environment(c);
        case 0x2A: return sign(c);
        default: return RApdu::sw_only(SW_INS_NOT_SUPPORTED);
        }
    }

private:
    void forget()
    {
        verified_ = false;
        environment_ = false;
    }
    RApdu get_data(const Apdu &c)
    {
        static const uint8_t tag[] = {0x5C, 0x02, 0xDF, 0x24};
        if (c.p1 != 0xA0 || c.p2 != 0x10)
            return RApdu::sw_only(SW_WRONG_P1P2);
        if (c.nc != sizeof tag || std::memcmp(c.data, tag, sizeof tag) != 0)
            return RApdu::sw_only(SW_FILE_NOT_FOUND);
        if (object_.empty())
            return RApdu::sw_only(0x6F00);
        return RApdu{object_, SW_OK};
    }
    RApdu verify(const Apdu &c)
    {
        if (c.p1 != 0x00 || c.p2 != 0x80)
            return RApdu::sw_only(SW_WRONG_P1P2);
        if (tries_ == 0)
            return RApdu::sw_only(0x6983);
        if (c.nc == 0)
            return RApdu::sw_only(verified_ ? SW_OK : static_cast<uint16_t>(0x63C0 | tries_));
        const bool right = c.nc == pin_.size() && std::memcmp(c.data, pin_.data(), c.nc) == 0;
        if (!right) {
            verified_ = false;
            --tries_;
            return RApdu::sw_only(tries_ == 0 ? 0x6983 : static_cast<uint16_t>(0x63C0 | tries_));
        }
        tries_ = max_tries_;
        verified_ = true;
        return RApdu::sw_only(SW_OK);
    }
    RApdu manage_environment(const Apdu &c)
    {
        static const uint8_t want[] = {0x80, 0x01, 0x57, 0x84, 0x01, 0x81};
        if (c.p1 != 0x41 || c.p2 != 0xB6)
            return RApdu::sw_only(SW_WRONG_P1P2);
        if (c.nc != sizeof want || std::memcmp(c.data, want, sizeof want) != 0)
            return RApdu::sw_only(SW_WRONG_DATA);
        environment_ = true;
        return RApdu::sw_only(SW_OK);
    }
    RApdu sign(const Apdu &c)
    {
        if (c.p1 != 0x9E || c.p2 != 0x9A)
            return RApdu::sw_only(SW_WRONG_P1P2);
        if (!verified_)
            return RApdu::sw_only(SW_SECURITY_NOT_SATISFIED);
        if (!environment_)
            return RApdu::sw_only(SW_CONDITIONS_NOT_SATISFIED);
        EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new(key_, nullptr);
        Bytes sig(256);
        size_t n = sig.size();
        const bool ok = ctx && EVP_PKEY_sign_init(ctx) == 1 &&
                        EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING) == 1 &&
                        EVP_PKEY_sign(ctx, sig.data(), &n, c.data, c.nc) == 1;
        EVP_PKEY_CTX_free(ctx);
        if (!ok)
            return RApdu::sw_only(SW_WRONG_DATA);
        sig.resize(n);
        return RApdu{sig, SW_OK};
    }

    EVP_PKEY *key_;
    bool owned_;
    Bytes object_;
    std::string pin_;
    int max_tries_;
    int tries_;
    bool verified_ = false;
    bool environment_ = false;
};

class GidsCard final : public Iso14443Card {
public:
    using Iso14443Card::Iso14443Card;
    const char *model() const override { return "gids"; }
};

bool string_member(const Json *setup, const char *name, std::string &out, std::string &err)
{
    const Json *v = setup ? setup->get(name) : nullptr;
    if (!v)
        return true;
    if (v->kind != Json::STRING || v->str.empty()) {
        err = std::string("setup: ") + name + " takes a text";
        return false;
    }
    out = v->str;
    return true;
}

} // namespace

std::unique_ptr<Card> make_gids_card(const zsim_card &id, const Json *setup, std::string &err)
{
    Iso14443Setup s;
    if (!iso14443_setup_read(setup, s, err, {"pin", "tries", "key", "certificate"}))
        return nullptr;
    std::string pin = "123456", key_path, cert_path;
    int tries = 3;
    if (!string_member(setup, "pin", pin, err) || !string_member(setup, "key", key_path, err) ||
        !string_member(setup, "certificate", cert_path, err))
        return nullptr;
    if (pin.size() < 4 || pin.size() > 16) {
        err = "setup: pin takes 4 to 16 characters";
        return nullptr;
    }
    if (const Json *t = setup ? setup->get("tries") : nullptr) {
        if (t->kind != Json::NUMBER || t->num < 1 || t->num > 15 || t->num != static_cast<int>(t->num)) {
            err = "setup: tries takes 1 to 15";
            return nullptr;
        }
        tries = static_cast<int>(t->num);
    }
    if (key_path.empty() != cert_path.empty()) {
        err = "setup: key and certificate go together";
        return nullptr;
    }
    auto card = std::make_unique<GidsCard>(id, s);
    if (!key_path.empty()) {
        KeyPair kp;
        if (!load_files(key_path, cert_path, kp, err)) {
            EVP_PKEY_free(kp.key);
            return nullptr;
        }
        card->host().add(std::make_unique<GidsApp>(kp.key, true, kp.cert_der, pin, tries));
        return card;
    }
    std::lock_guard<std::mutex> lock(g_made_lock);
    if (!g_made.key && !make_self_signed(g_made)) {
        EVP_PKEY_free(g_made.key);
        g_made = KeyPair{};
        err = "setup: the card's key could not be made";
        return nullptr;
    }
    card->host().add(std::make_unique<GidsApp>(g_made.key, false, g_made.cert_der, pin, tries));
    return card;
}

} // namespace zs
