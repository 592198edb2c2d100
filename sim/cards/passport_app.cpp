// The card's side of the document application: BAC (its own RND.ICC and K.ICC, the check of the host's
// cryptogram, the session keys) and secure messaging of every later command and answer, with SELECT of the
// document's files and READ BINARY at an offset.
#include <cstring>

#include <openssl/evp.h>
#include <openssl/rand.h>

#include "passport.h"

namespace zs {

namespace {

constexpr uint16_t SW_SM_MISSING = 0x6987;
constexpr uint16_t SW_SM_WRONG = 0x6988;
constexpr uint16_t SW_AUTH_FAILED = 0x6300;

// One pass of a triple DES cipher in CBC mode with a zero IV, no padding (whole blocks only).
Bytes tdes(const uint8_t key16[16], const uint8_t *in, size_t n, bool encrypt)
{
    Bytes out(n + 8);
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    const uint8_t iv[8] = {};
    int len1 = 0, len2 = 0;
    bool ok = ctx && EVP_CipherInit_ex(ctx, EVP_des_ede_cbc(), nullptr, key16, iv, encrypt ? 1 : 0) == 1 &&
              EVP_CIPHER_CTX_set_padding(ctx, 0) == 1 &&
              EVP_CipherUpdate(ctx, out.data(), &len1, in, static_cast<int>(n)) == 1 &&
              EVP_CipherFinal_ex(ctx, out.data() + len1, &len2) == 1;
    EVP_CIPHER_CTX_free(ctx);
    out.resize(ok ? size_t(len1 + len2) : 0);
    return out;
}

// Single DES of one block (encryption), as triple DES with K1 three times.
void des_block(const uint8_t key8[8], uint8_t block[8])
{
    uint8_t k[24];
    std::memcpy(k, key8, 8);
    std::memcpy(k + 8, key8, 8);
    std::memcpy(k + 16, key8, 8);
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    int len = 0;
    uint8_t out[16];
    if (ctx && EVP_EncryptInit_ex(ctx, EVP_des_ede3_ecb(), nullptr, k, nullptr) == 1 &&
        EVP_CIPHER_CTX_set_padding(ctx, 0) == 1 && EVP_EncryptUpdate(ctx, out, &len, block, 8) == 1 && len == 8)
        std::memcpy(block, out, 8);
    EVP_CIPHER_CTX_free(ctx);
}

Bytes pad(const uint8_t *in, size_t n)
{
    Bytes out(in, in + n);
    out.push_back(0x80);
    while (out.size() % 8)
        out.push_back(0x00);
    return out;
}

// ISO/IEC 9797-1 MAC algorithm 3 over data padded with method 2: DES-CBC with K1, the last block through
// K1, K2, K1.
Bytes retail_mac(const uint8_t key16[16], const Bytes &data)
{
    const Bytes p = pad(data.data(), data.size());
    uint8_t h[8] = {};
    for (size_t i = 0; i + 8 < p.size(); i += 8) {
        for (int k = 0; k < 8; ++k)
            h[k] ^= p[i + k];
        des_block(key16, h);
    }
    for (int k = 0; k < 8; ++k)
        h[k] ^= p[p.size() - 8 + k];
    Bytes last = tdes(key16, h, 8, true);
    last.resize(8);
    return last;
}

Bytes sha1(const uint8_t *in, size_t n)
{
    Bytes out(EVP_MAX_MD_SIZE);
    unsigned len = 0;
    if (EVP_Digest(in, n, out.data(), &len, EVP_sha1(), nullptr) != 1)
        len = 0;
    out.resize(len);
    return out;
}

// K.Enc / K.MAC (or the session keys) from a 16-byte seed; parity bits are left as the hash gives them,
// DES ignores them.
void derive(const uint8_t seed[16], uint8_t enc[16], uint8_t mac[16])
{
    for (uint8_t c = 1; c <= 2; ++c) {
        uint8_t d[20];
        std::memcpy(d, seed, 16);
        d[16] = d[17] = d[18] = 0;
        d[19] = c;
        const Bytes h = sha1(d, sizeof d);
        std::memcpy(c == 1 ? enc : mac, h.data(), 16);
    }
}

int check_digit(const std::string &s)
{
    static const int kWeights[3] = {7, 3, 1};
    int sum = 0;
    for (size_t i = 0; i < s.size(); ++i) {
        const char c = s[i];
        const int v = c >= '0' && c <= '9' ? c - '0' : c >= 'A' && c <= 'Z' ? c - 'A' + 10 : 0;
        sum += v * kWeights[i % 3];
    }
    return sum % 10;
}

// The key seed of the document's MRZ: document number, birth and expiry with their digits recomputed.
void mrz_keys(const std::string &mrz, uint8_t kenc[16], uint8_t kmac[16])
{
    std::string number, birth, expiry;
    if (mrz.size() == 90) {
        number = mrz.substr(5, 9), birth = mrz.substr(30, 6), expiry = mrz.substr(38, 6);
    } else if (mrz.size() >= 88) {
        number = mrz.substr(44, 9), birth = mrz.substr(57, 6), expiry = mrz.substr(65, 6);
    }
    std::string info = number + char('0' + check_digit(number)) + birth + char('0' + check_digit(birth)) + expiry +
                       char('0' + check_digit(expiry));
    const Bytes h = sha1(reinterpret_cast<const uint8_t *>(info.data()), info.size());
    uint8_t seed[16] = {};
    if (h.size() >= 16)
        std::memcpy(seed, h.data(), 16);
    derive(seed, kenc, kmac);
}

void put_ssc(uint64_t ssc, Bytes &out)
{
    for (int i = 7; i >= 0; --i)
        out.push_back(static_cast<uint8_t>(ssc >> (8 * i)));
}

// The objects of a protected command: DO'87' (or '85'), DO'97', DO'8E'.
struct SmCommand {
    const uint8_t *do87 = nullptr; // the whole object
    size_t do87_len = 0;
    const uint8_t *cipher = nullptr;
    size_t cipher_len = 0;
    bool has_le = false;
    size_t le = 0;
    const uint8_t *do97 = nullptr;
    size_t do97_len = 0;
    const uint8_t *mac = nullptr;
};

// A BER length at p (inside [p, end)); false when malformed.
bool ber_len(const uint8_t *&p, const uint8_t *end, size_t &len)
{
    if (p >= end)
        return false;
    const uint8_t b = *p++;
    if (b < 0x80) {
        len = b;
    } else if (b == 0x81 && end - p >= 1) {
        len = *p++;
    } else if (b == 0x82 && end - p >= 2) {
        len = (size_t(p[0]) << 8) | p[1];
        p += 2;
    } else {
        return false;
    }
    return size_t(end - p) >= len;
}

bool parse_sm(const Apdu &c, SmCommand &sm)
{
    const uint8_t *p = c.data;
    const uint8_t *end = c.data + c.nc;
    while (p < end) {
        const uint8_t *start = p;
        const uint8_t tag = *p++;
        size_t len = 0;
        if (!ber_len(p, end, len))
            return false;
        if (tag == 0x87 || tag == 0x85) {
            if (len < 1 || (tag == 0x87 && p[0] != 0x01))
                return false;
            sm.cipher = p + (tag == 0x87 ? 1 : 0);
            sm.cipher_len = len - (tag == 0x87 ? 1 : 0);
            sm.do87 = start;
            sm.do87_len = size_t(p + len - start);
        } else if (tag == 0x97) {
            if (len > 2)
                return false;
            sm.has_le = true;
            sm.le = len == 0 ? 0 : len == 1 ? p[0] : (size_t(p[0]) << 8) | p[1];
            if (sm.le == 0)
                sm.le = len == 2 ? 65536 : 256;
            sm.do97 = start;
            sm.do97_len = size_t(p + len - start);
        } else if (tag == 0x8E) {
            if (len != 8)
                return false;
            sm.mac = p;
        } else {
            return false;
        }
        p += len;
    }
    return sm.mac != nullptr && (sm.cipher_len % 8) == 0;
}

} // namespace

struct PassportApp::State {
    PassportDocument doc;
    uint8_t kenc[16] = {}, kmac[16] = {};
    uint8_t rnd_icc[8] = {};
    bool challenged = false;
    bool session = false;
    uint8_t ks_enc[16] = {}, ks_mac[16] = {};
    uint64_t ssc = 0;
    const Bytes *file = nullptr;
    uint16_t file_id = 0;
    size_t replay_next = 0;
    RandomSource random = nullptr;
    void *random_context = nullptr;

    bool fill_random(uint8_t *out, size_t n)
    {
        if (random != nullptr) {
            random(out, n, random_context);
            return true;
        }
        return RAND_bytes(out, static_cast<int>(n)) == 1;
    }

    RApdu replayed()
    {
        const Bytes &r = doc.replay[replay_next];
        replay_next = (replay_next + 1) % doc.replay.size();
        if (r.size() < 2)
            return RApdu::sw_only(SW_WRONG_LENGTH);
        return {Bytes(r.begin(), r.end() - 2), uint16_t((r[r.size() - 2] << 8) | r.back())};
    }

    void drop()
    {
        session = false;
        challenged = false;
        file = nullptr;
        OPENSSL_cleanse(ks_enc, sizeof ks_enc);
        OPENSSL_cleanse(ks_mac, sizeof ks_mac);
    }

    RApdu get_challenge(const Apdu &c)
    {
        if (c.p1 != 0 || c.p2 != 0 || !c.has_le || c.ne != 8)
            return RApdu::sw_only(SW_WRONG_LENGTH);
        drop();
        if (!fill_random(rnd_icc, sizeof rnd_icc))
            return RApdu::sw_only(SW_CONDITIONS_NOT_SATISFIED);
        challenged = true;
        return {Bytes(rnd_icc, rnd_icc + 8), SW_OK};
    }

    RApdu external_authenticate(const Apdu &c)
    {
        if (!challenged)
            return RApdu::sw_only(SW_CONDITIONS_NOT_SATISFIED);
        challenged = false;
        if (c.nc != 40)
            return RApdu::sw_only(SW_WRONG_LENGTH);
        const Bytes eifd(c.data, c.data + 32);
        const Bytes mac = retail_mac(kmac, eifd);
        if (std::memcmp(mac.data(), c.data + 32, 8) != 0)
            return RApdu::sw_only(SW_AUTH_FAILED);
        const Bytes s = tdes(kenc, c.data, 32, false);
        if (s.size() != 32 || std::memcmp(s.data() + 8, rnd_icc, 8) != 0)
            return RApdu::sw_only(SW_AUTH_FAILED);
        uint8_t kicc[16];
        if (!fill_random(kicc, sizeof kicc))
            return RApdu::sw_only(SW_CONDITIONS_NOT_SATISFIED);
        Bytes r;
        r.insert(r.end(), rnd_icc, rnd_icc + 8);
        r.insert(r.end(), s.begin(), s.begin() + 8); // RND.IFD
        r.insert(r.end(), kicc, kicc + 16);
        Bytes answer = tdes(kenc, r.data(), r.size(), true);
        Bytes micc = retail_mac(kmac, answer);
        if (doc.fault == "auth_mac" && !micc.empty())
            micc[0] ^= 0x01;
        answer.insert(answer.end(), micc.begin(), micc.end());
        uint8_t seed[16];
        for (int i = 0; i < 16; ++i)
            seed[i] = s[16 + i] ^ kicc[i];
        derive(seed, ks_enc, ks_mac);
        ssc = 0;
        for (int i = 4; i < 8; ++i)
            ssc = (ssc << 8) | rnd_icc[i];
        for (int i = 4; i < 8; ++i)
            ssc = (ssc << 8) | s[i];
        session = true;
        file = nullptr;
        OPENSSL_cleanse(kicc, sizeof kicc);
        OPENSSL_cleanse(seed, sizeof seed);
        return {answer, SW_OK};
    }

    // The protected answer: DO'87' with the enciphered data, DO'99' with the status word, DO'8E'.
    RApdu wrap(const Bytes &data, uint16_t sw)
    {
        ++ssc;
        Bytes objects;
        if (!data.empty()) {
            const Bytes padded = pad(data.data(), data.size());
            const Bytes cipher = tdes(ks_enc, padded.data(), padded.size(), true);
            const size_t len = cipher.size() + 1;
            objects.push_back(0x87);
            if (len >= 0x100) {
                objects.push_back(0x82);
                objects.push_back(uint8_t(len >> 8));
                objects.push_back(uint8_t(len));
            } else if (len >= 0x80) {
                objects.push_back(0x81);
                objects.push_back(uint8_t(len));
            } else {
                objects.push_back(uint8_t(len));
            }
            objects.push_back(0x01);
            objects.insert(objects.end(), cipher.begin(), cipher.end());
        }
        if (doc.fault != "no_do99") {
            objects.push_back(0x99);
            objects.push_back(0x02);
            objects.push_back(uint8_t(sw >> 8));
            objects.push_back(uint8_t(sw));
        }
        Bytes mac_in;
        put_ssc(ssc, mac_in);
        mac_in.insert(mac_in.end(), objects.begin(), objects.end());
        Bytes mac = retail_mac(ks_mac, mac_in);
        if (doc.fault == "mac" && !mac.empty())
            mac[7] ^= 0x80;
        // The cipher text's first block: its change garbles the first block of plain text and flips one bit
        // of the second, and leaves the padding at the end as it was.
        if (doc.fault == "cipher" && !data.empty())
            objects[objects[1] == 0x81 ? 4 : objects[1] == 0x82 ? 5 : 3] ^= 0x01;
        objects.push_back(0x8E);
        objects.push_back(0x08);
        objects.insert(objects.end(), mac.begin(), mac.end());
        if (doc.fault == "sw_mismatch")
            return {objects, sw == SW_OK ? uint16_t(0x6282) : SW_OK};
        return {objects, sw};
    }

    RApdu secure(const Apdu &c)
    {
        if ((c.cla & 0x0C) != 0x0C) {
            drop();
            return RApdu::sw_only(SW_SM_MISSING);
        }
        SmCommand sm;
        if (!parse_sm(c, sm)) {
            drop();
            return RApdu::sw_only(SW_SM_WRONG);
        }
        ++ssc;
        Bytes mac_in;
        put_ssc(ssc, mac_in);
        const uint8_t header[4] = {c.cla, c.ins, c.p1, c.p2};
        const Bytes padded_header = pad(header, 4);
        mac_in.insert(mac_in.end(), padded_header.begin(), padded_header.end());
        if (sm.do87)
            mac_in.insert(mac_in.end(), sm.do87, sm.do87 + sm.do87_len);
        if (sm.do97)
            mac_in.insert(mac_in.end(), sm.do97, sm.do97 + sm.do97_len);
        const Bytes mac = retail_mac(ks_mac, mac_in);
        if (std::memcmp(mac.data(), sm.mac, 8) != 0) {
            drop();
            return RApdu::sw_only(SW_SM_WRONG);
        }
        Bytes plain;
        if (sm.cipher_len) {
            plain = tdes(ks_enc, sm.cipher, sm.cipher_len, false);
            size_t n = plain.size();
            while (n > 0 && plain[n - 1] == 0x00)
                --n;
            if (n == 0 || plain[n - 1] != 0x80) {
                drop();
                return RApdu::sw_only(SW_SM_WRONG);
            }
            plain.resize(n - 1);
        }
        switch (c.ins) {
        case 0xA4: return select_file(c, plain);
        case 0xB0: return read_binary(c, sm);
        default: return wrap({}, SW_INS_NOT_SUPPORTED);
        }
    }

    RApdu select_file(const Apdu &c, const Bytes &plain)
    {
        if (c.p1 != 0x02 || plain.size() != 2)
            return wrap({}, SW_WRONG_P1P2);
        const uint16_t id = uint16_t((plain[0] << 8) | plain[1]);
        const auto it = doc.files.find(id);
        if (it == doc.files.end()) {
            file = nullptr;
            return wrap({}, SW_FILE_NOT_FOUND);
        }
        file = &it->second;
        file_id = id;
        return wrap({}, SW_OK);
    }

    RApdu read_binary(const Apdu &c, const SmCommand &sm)
    {
        if (file == nullptr)
            return wrap({}, SW_CONDITIONS_NOT_SATISFIED);
        if (doc.eac_protected.count(file_id))
            return wrap({}, SW_SECURITY_NOT_SATISFIED);
        if (c.p1 & 0x80)
            return wrap({}, SW_WRONG_P1P2);
        const size_t offset = (size_t(c.p1) << 8) | c.p2;
        if (offset >= file->size())
            return wrap({}, SW_WRONG_P1P2);
        const size_t want = sm.has_le ? sm.le : 256;
        const size_t n = std::min(want, file->size() - offset);
        const Bytes data(file->begin() + long(offset), file->begin() + long(offset + n));
        return wrap(data, n < want ? SW_END_OF_FILE : SW_OK);
    }
};

PassportApp::PassportApp(PassportDocument doc)
    : Application({0xA0, 0x00, 0x00, 0x02, 0x47, 0x10, 0x01}), st_(std::make_unique<State>())
{
    st_->doc = std::move(doc);
    mrz_keys(st_->doc.mrz, st_->kenc, st_->kmac);
}

PassportApp::~PassportApp()
{
    st_->drop();
    OPENSSL_cleanse(st_->kenc, sizeof st_->kenc);
    OPENSSL_cleanse(st_->kmac, sizeof st_->kmac);
}

RApdu PassportApp::select(const Apdu &)
{
    if (!st_->doc.replay.empty())
        return st_->replayed();
    st_->drop();
    return RApdu::sw_only(SW_OK);
}

void PassportApp::deselect()
{
    st_->drop();
}

RApdu PassportApp::command(const Apdu &c)
{
    if (!st_->doc.replay.empty())
        return st_->replayed();
    if (st_->session)
        return st_->secure(c);
    if (c.cla != 0x00)
        return RApdu::sw_only(SW_SM_MISSING);
    switch (c.ins) {
    case 0x84: return st_->get_challenge(c);
    case 0x82: return st_->external_authenticate(c);
    case 0xA4:
    case 0xB0: return RApdu::sw_only(SW_SECURITY_NOT_SATISFIED);
    default: return RApdu::sw_only(SW_INS_NOT_SUPPORTED);
    }
}

bool PassportApp::authenticated() const
{
    return st_->session;
}

uint64_t PassportApp::ssc() const
{
    return st_->ssc;
}

void PassportApp::set_random_source(RandomSource source, void *context)
{
    st_->random = source;
    st_->random_context = context;
}

} // namespace zs
