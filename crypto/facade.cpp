// The hash and signature facade on OpenSSL: subsystem start, hashes by id, the curve and scheme tables, and
// signature verification over a digest.
#include <atomic>
#include <cctype>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/ecdsa.h>
#include <openssl/objects.h>
#include <openssl/param_build.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include "crypto/crypto_internal.h"
#include "zel_crypto.h"
#include "zel_handle.h"
#include "zel_status.h"

using namespace zel::crypto;

namespace {

static_assert(sizeof(void *) != 8 || sizeof(zel_ecc_key_params) == 24, "the ECC key record is 24 bytes");

std::atomic<bool> g_ready{false};
std::mutex g_init_lock;
EVP_MD *g_md[8] = {};
EVP_CIPHER *g_aes = nullptr;

// The one chunked hash of the process.
EVP_MD_CTX *g_chunk = nullptr;
uint32_t g_chunk_id = 0xFFFFFFFFu;

bool ready()
{
    return g_ready.load(std::memory_order_acquire);
}

ZEL_STATUS map_update_failure()
{
    return CRYPTO_SUBSYS_HASHING_ERROR;
}

} // namespace

namespace zel::crypto {

const EVP_MD *hash_md(uint32_t hash_id)
{
    if (!ready() || hash_id > 7)
        return nullptr;
    return g_md[hash_id];
}

bool digest_all(uint32_t hash_id, const uint8_t *in, uint32_t in_len, uint8_t *out)
{
    const EVP_MD *md = hash_md(hash_id);
    if (md == nullptr || (in == nullptr && in_len != 0))
        return false;
    static const uint8_t kEmpty = 0;
    return EVP_Digest(in ? in : &kEmpty, in_len, out, nullptr, md, nullptr) == 1;
}

int curve_nid(uint32_t index)
{
    if (index >= 34)
        return 0;
    const Oid &oid = kCurves[index].oid;
    const unsigned char *p = oid.bytes;
    ASN1_OBJECT *obj = d2i_ASN1_OBJECT(nullptr, &p, oid.size());
    if (obj == nullptr)
        return 0;
    const int nid = OBJ_obj2nid(obj);
    ASN1_OBJECT_free(obj);
    return nid == NID_undef ? 0 : nid;
}

EVP_PKEY *import_spki(const uint8_t *spki, uint32_t len, bool want_rsa)
{
    if (spki == nullptr || len == 0)
        return nullptr;
    const unsigned char *p = spki;
    EVP_PKEY *key = d2i_PUBKEY(nullptr, &p, len);
    if (key == nullptr)
        return nullptr;
    if (EVP_PKEY_is_a(key, want_rsa ? "RSA" : "EC") != 1) {
        EVP_PKEY_free(key);
        return nullptr;
    }
    return key;
}

namespace {

EVP_PKEY *key_from_params(const char *type, OSSL_PARAM_BLD *bld)
{
    EVP_PKEY *key = nullptr;
    OSSL_PARAM *params = OSSL_PARAM_BLD_to_param(bld);
    EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr);
    if (params && ctx && EVP_PKEY_fromdata_init(ctx) == 1 &&
        EVP_PKEY_fromdata(ctx, &key, EVP_PKEY_PUBLIC_KEY, params) != 1)
        key = nullptr;
    EVP_PKEY_CTX_free(ctx);
    OSSL_PARAM_free(params);
    return key;
}

} // namespace

EVP_PKEY *rsa_key_from_parts(const uint8_t *n, uint32_t n_len, const uint8_t *e, uint32_t e_len)
{
    if (n == nullptr || e == nullptr || n_len == 0 || e_len == 0 || n_len > 2048 || e_len > 2048)
        return nullptr;
    BIGNUM *bn_n = BN_bin2bn(n, static_cast<int>(n_len), nullptr);
    BIGNUM *bn_e = BN_bin2bn(e, static_cast<int>(e_len), nullptr);
    EVP_PKEY *key = nullptr;
    OSSL_PARAM_BLD *bld = OSSL_PARAM_BLD_new();
    if (bn_n && bn_e && bld && !BN_is_zero(bn_n) && !BN_is_zero(bn_e) &&
        OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_N, bn_n) == 1 &&
        OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_E, bn_e) == 1)
        key = key_from_params("RSA", bld);
    OSSL_PARAM_BLD_free(bld);
    BN_free(bn_n);
    BN_free(bn_e);
    return key;
}

EVP_PKEY *ec_key_from_point(int nid, const uint8_t *point, uint32_t point_len)
{
    const char *group = OBJ_nid2sn(nid);
    if (group == nullptr || point == nullptr || point_len == 0)
        return nullptr;
    EVP_PKEY *key = nullptr;
    OSSL_PARAM_BLD *bld = OSSL_PARAM_BLD_new();
    if (bld && OSSL_PARAM_BLD_push_utf8_string(bld, OSSL_PKEY_PARAM_GROUP_NAME, group, 0) == 1 &&
        OSSL_PARAM_BLD_push_octet_string(bld, OSSL_PKEY_PARAM_PUB_KEY, point, point_len) == 1)
        key = key_from_params("EC", bld);
    OSSL_PARAM_BLD_free(bld);
    return key;
}

namespace {

// MGF1 (RFC 8017 B.2.1) of seed into mask.
bool mgf1(const EVP_MD *md, const uint8_t *seed, size_t seed_len, uint8_t *mask, size_t mask_len)
{
    const size_t h_len = static_cast<size_t>(EVP_MD_get_size(md));
    std::vector<uint8_t> block(seed_len + 4);
    std::memcpy(block.data(), seed, seed_len);
    uint8_t out[EVP_MAX_MD_SIZE];
    for (uint32_t counter = 0, done = 0; done < mask_len; ++counter) {
        block[seed_len] = static_cast<uint8_t>(counter >> 24);
        block[seed_len + 1] = static_cast<uint8_t>(counter >> 16);
        block[seed_len + 2] = static_cast<uint8_t>(counter >> 8);
        block[seed_len + 3] = static_cast<uint8_t>(counter);
        if (EVP_Digest(block.data(), block.size(), out, nullptr, md, nullptr) != 1)
            return false;
        const size_t take = mask_len - done < h_len ? mask_len - done : h_len;
        std::memcpy(mask + done, out, take);
        done += static_cast<uint32_t>(take);
    }
    return true;
}

// EMSA-PSS-VERIFY (RFC 8017 9.1.2) on the encoded message em of em_len bytes and em_bits bits.
Verdict pss_check(const uint8_t *em, size_t em_len, size_t em_bits, const EVP_MD *hash, const EVP_MD *mgf,
                  uint32_t salt_len, const uint8_t *digest, uint32_t digest_len)
{
    const size_t h_len = static_cast<size_t>(EVP_MD_get_size(hash));
    if (em_len < h_len + salt_len + 2 || em[em_len - 1] != 0xBC)
        return Verdict::kError;
    const size_t db_len = em_len - h_len - 1;
    const uint8_t *h = em + db_len;
    const unsigned top_bits = static_cast<unsigned>(8 * em_len - em_bits);
    const uint8_t top_mask = static_cast<uint8_t>(0xFF << (8 - top_bits));
    if (top_bits && (em[0] & top_mask))
        return Verdict::kError;
    std::vector<uint8_t> db(db_len);
    if (!mgf1(mgf, h, h_len, db.data(), db_len))
        return Verdict::kError;
    for (size_t i = 0; i < db_len; ++i)
        db[i] ^= em[i];
    if (top_bits)
        db[0] &= static_cast<uint8_t>(~top_mask);
    const size_t ps_len = em_len - h_len - salt_len - 2;
    for (size_t i = 0; i < ps_len; ++i)
        if (db[i] != 0)
            return Verdict::kError;
    if (db[ps_len] != 0x01)
        return Verdict::kError;
    std::vector<uint8_t> m(8 + digest_len + salt_len, 0);
    if (digest_len)
        std::memcpy(m.data() + 8, digest, digest_len);
    if (salt_len)
        std::memcpy(m.data() + 8 + digest_len, db.data() + db_len - salt_len, salt_len);
    uint8_t h2[EVP_MAX_MD_SIZE];
    if (EVP_Digest(m.data(), m.size(), h2, nullptr, hash, nullptr) != 1)
        return Verdict::kError;
    return std::memcmp(h, h2, h_len) == 0 ? Verdict::kValid : Verdict::kInvalid;
}

// A DigestInfo that fills t exactly: SEQUENCE { SEQUENCE { OID [, NULL] }, OCTET STRING }.
bool parse_digest_info(const uint8_t *t, uint32_t t_len, Node *oid, Node *digest)
{
    Node outer, alg, null_node;
    if (!expect(t, t_len, 0, 0x30, &outer, t_len) || outer.end() != t_len)
        return false;
    if (!expect(t, t_len, outer.value(), 0x30, &alg, t_len) || !expect(t, t_len, alg.value(), 0x06, oid, alg.end()))
        return false;
    if (oid->end() != alg.end() && (!expect(t, t_len, static_cast<uint32_t>(oid->end()), 0x05, &null_node, alg.end()) ||
                                    null_node.vlen != 0 || null_node.end() != alg.end()))
        return false;
    return expect(t, t_len, static_cast<uint32_t>(alg.end()), 0x04, digest, t_len) && digest->end() == t_len;
}

} // namespace

Verdict rsa_verify(EVP_PKEY *key, RsaPadding padding, uint32_t hash_id, uint32_t mgf_id, uint32_t salt_len,
                   const uint8_t *digest, uint32_t digest_len, const uint8_t *sig, uint32_t sig_len)
{
    const int k = EVP_PKEY_get_size(key);
    const int bits = EVP_PKEY_get_bits(key);
    if (k <= 0 || bits <= 0 || sig == nullptr || sig_len != static_cast<uint32_t>(k) ||
        (digest == nullptr && digest_len != 0))
        return Verdict::kError;
    std::vector<uint8_t> em(static_cast<size_t>(k));
    size_t em_len = em.size();
    EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr);
    const bool ok = ctx && EVP_PKEY_verify_recover_init(ctx) == 1 &&
                    EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_NO_PADDING) == 1 &&
                    EVP_PKEY_verify_recover(ctx, em.data(), &em_len, sig, sig_len) == 1 && em_len == em.size();
    EVP_PKEY_CTX_free(ctx);
    if (!ok)
        return Verdict::kError;

    if (padding == RsaPadding::kPss) {
        const EVP_MD *hash = hash_md(hash_id);
        const EVP_MD *mgf = hash_md(mgf_id);
        if (hash == nullptr || mgf == nullptr)
            return Verdict::kError;
        const size_t em_bits = static_cast<size_t>(bits) - 1;
        const size_t enc_len = (em_bits + 7) / 8;
        const uint8_t *enc = em.data();
        if (enc_len < em.size()) { // the modulus is one bit past a byte boundary
            if (em[0] != 0)
                return Verdict::kError;
            ++enc;
        }
        return pss_check(enc, enc_len, em_bits, hash, mgf, salt_len, digest, digest_len);
    }

    // PKCS#1 v1.5: 00 01 FF..FF (at least 8) 00 T
    if (em.size() < 11 || em[0] != 0x00 || em[1] != 0x01)
        return Verdict::kError;
    size_t i = 2;
    while (i < em.size() && em[i] == 0xFF)
        ++i;
    if (i - 2 < 8 || i >= em.size() || em[i] != 0x00)
        return Verdict::kError;
    const uint8_t *t = em.data() + i + 1;
    const uint32_t t_len = static_cast<uint32_t>(em.size() - i - 1);
    if (padding == RsaPadding::kPkcs1Raw)
        return t_len == digest_len && std::memcmp(t, digest, digest_len) == 0 ? Verdict::kValid : Verdict::kInvalid;
    Node oid, value;
    if (!parse_digest_info(t, t_len, &oid, &value))
        return Verdict::kError;
    const bool match = hash_id <= 7 && oid.whole() == kHashes[hash_id].oid.size() &&
                       oid_equal(kHashes[hash_id].oid, t + oid.pos, oid.whole()) && value.vlen == digest_len &&
                       std::memcmp(t + value.value(), digest, digest_len) == 0;
    return match ? Verdict::kValid : Verdict::kInvalid;
}

Verdict ecdsa_verify(EVP_PKEY *key, const uint8_t *digest, uint32_t digest_len, const uint8_t *sig, uint32_t sig_len)
{
    if (sig == nullptr || sig_len == 0 || digest == nullptr || digest_len == 0)
        return Verdict::kError;
    const unsigned char *p = sig;
    ECDSA_SIG *parsed = d2i_ECDSA_SIG(nullptr, &p, sig_len);
    if (parsed == nullptr)
        return Verdict::kError;
    bool in_range = p == sig + sig_len;
    const BIGNUM *r = nullptr, *s = nullptr;
    ECDSA_SIG_get0(parsed, &r, &s);
    BIGNUM *order = nullptr;
    if (in_range && EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_EC_ORDER, &order) == 1)
        in_range = !BN_is_zero(r) && !BN_is_zero(s) && !BN_is_negative(r) && !BN_is_negative(s) &&
                   BN_cmp(r, order) < 0 && BN_cmp(s, order) < 0;
    BN_free(order);
    ECDSA_SIG_free(parsed);
    if (!in_range)
        return Verdict::kError;
    EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr);
    int rc = -1;
    if (ctx && EVP_PKEY_verify_init(ctx) == 1)
        rc = EVP_PKEY_verify(ctx, sig, sig_len, digest, digest_len);
    EVP_PKEY_CTX_free(ctx);
    if (rc == 1)
        return Verdict::kValid;
    return rc == 0 ? Verdict::kInvalid : Verdict::kError;
}

} // namespace zel::crypto

// The checks every hash call makes first: the subsystem ready, the input within bounds, the algorithm known;
// its digest size into *size.
static ZEL_STATUS hash_checks(uint32_t hash_id, uint32_t in_len, uint32_t *size)
{
    if (!ready())
        return CRYPTO_SUBSYS_NOT_INITIALIZED;
    if (in_len > ZEL_MAX_HASH_INPUT)
        return CRYPTO_SUBSYS_MAX_HASH_INPUT_EXCEEDED;
    *size = getHashByteSize(hash_id);
    return *size ? ZEL_OK : CRYPTO_SUBSYS_INVALID_HASH_ALGORITHM;
}

// A digest's room on the heap, after the checks of the heap forms: the outputs cleared, the subsystem
// ready, the input within bounds, the algorithm known, both outputs given.
static ZEL_STATUS digest_on_heap(uint32_t hash_id, uint32_t in_len, uint8_t **out, uint32_t *out_len)
{
    if (out)
        *out = nullptr;
    if (out_len)
        *out_len = 0;
    uint32_t size = 0;
    if (const ZEL_STATUS st = hash_checks(hash_id, in_len, &size); st != ZEL_OK)
        return st;
    if (out == nullptr || out_len == nullptr)
        return ZEL_PARAMETERS_ERROR;
    *out = static_cast<uint8_t *>(std::malloc(size));
    if (*out == nullptr)
        return ZEL_NO_MEMORY_ERROR;
    *out_len = size;
    return ZEL_OK;
}

extern "C" {

ZEL_API void initCryptoSubsys(void)
{
    if (ready())
        return;
    std::lock_guard<std::mutex> lock(g_init_lock);
    if (ready())
        return;
    // The random source first, then the eight digests in id order, then the cipher: eleven in all.
    if (RAND_status() != 1)
        return;
    for (uint32_t id = 0; id < 8; ++id) {
        if (g_md[id] == nullptr)
            g_md[id] = EVP_MD_fetch(nullptr, kHashes[id].evp_name, nullptr);
        if (g_md[id] == nullptr)
            return;
    }
    if (g_aes == nullptr)
        g_aes = EVP_CIPHER_fetch(nullptr, "AES-128-ECB", nullptr);
    if (g_aes == nullptr)
        return;
    g_ready.store(true, std::memory_order_release);
}

ZEL_API ZEL_STATUS isCryptoSubsysInitialized(void)
{
    return ready() ? ZEL_OK : CRYPTO_SUBSYS_NOT_INITIALIZED;
}

ZEL_API void OrbFree(void *p)
{
    std::free(p);
}

ZEL_API const char *getHashName(uint32_t hash_id)
{
    return hash_id < 7 ? kHashes[hash_id].name : "";
}

ZEL_API uint32_t getHashByteSize(uint32_t hash_id)
{
    return hash_id < 7 ? kHashes[hash_id].size : 0;
}

ZEL_API const char *OrbGetHashName(uint32_t hash_id)
{
    return ready() ? getHashName(hash_id) : "";
}

ZEL_API ZEL_STATUS OrbGetHashOutputByteLength(uint32_t hash_id, uint32_t *out_len)
{
    if (out_len)
        *out_len = 0;
    if (!ready())
        return CRYPTO_SUBSYS_NOT_INITIALIZED;
    const uint32_t size = getHashByteSize(hash_id);
    if (size == 0)
        return CRYPTO_SUBSYS_INVALID_HASH_ALGORITHM;
    if (out_len)
        *out_len = size;
    return ZEL_OK;
}

namespace {

ZEL_STATUS hash_into(uint32_t hash_id, const uint8_t *in, uint32_t in_len, uint8_t *out)
{
    if (in == nullptr && in_len != 0)
        return CRYPTO_SUBSYS_HASHING_ERROR;
    EVP_MD_CTX *ctx = EVP_MD_CTX_new();
    if (ctx == nullptr || EVP_DigestInit_ex(ctx, g_md[hash_id], nullptr) != 1) {
        EVP_MD_CTX_free(ctx);
        return CRYPTO_SUBSYS_HASHING_ERROR;
    }
    ZEL_STATUS st = ZEL_OK;
    if (in_len != 0 && EVP_DigestUpdate(ctx, in, in_len) != 1)
        st = map_update_failure();
    else if (EVP_DigestFinal_ex(ctx, out, nullptr) != 1)
        st = CRYPTO_SUBSYS_HASHING_ERROR;
    EVP_MD_CTX_free(ctx);
    return st;
}

} // namespace

ZEL_API ZEL_STATUS OrbGetHash(uint32_t hash_id, const uint8_t *in, uint32_t in_len, uint8_t *out, uint32_t out_len)
{
    uint32_t size = 0;
    if (const ZEL_STATUS st = hash_checks(hash_id, in_len, &size); st != ZEL_OK)
        return st;
    if (size != out_len)
        return CRYPTO_SUBSYS_WRONG_HASH_OUTPUT_LENGTH;
    if (out == nullptr)
        return CRYPTO_SUBSYS_HASHING_ERROR;
    return hash_into(hash_id, in, in_len, out);
}

ZEL_API ZEL_STATUS OrbGetHashToHeap(uint32_t hash_id, const uint8_t *in, uint32_t in_len, uint8_t **out,
                                    uint32_t *out_len)
{
    const ZEL_STATUS st = digest_on_heap(hash_id, in_len, out, out_len);
    return st != ZEL_OK ? st : hash_into(hash_id, in, in_len, *out);
}

ZEL_API ZEL_STATUS OrbHashInitChunked(uint32_t hash_id)
{
    if (!ready())
        return CRYPTO_SUBSYS_NOT_INITIALIZED;
    if (getHashByteSize(hash_id) == 0)
        return CRYPTO_SUBSYS_INVALID_HASH_ALGORITHM;
    g_chunk_id = hash_id;
    if (g_chunk == nullptr)
        g_chunk = EVP_MD_CTX_new();
    if (g_chunk == nullptr || EVP_DigestInit_ex(g_chunk, g_md[hash_id], nullptr) != 1)
        return CRYPTO_SUBSYS_HASHING_ERROR;
    return ZEL_OK;
}

ZEL_API ZEL_STATUS OrbHashUpdateChunked(const uint8_t *in, uint32_t in_len)
{
    // Runs on whatever the last init opened; with none, the context cannot hash.
    if (g_chunk == nullptr || EVP_MD_CTX_get0_md(g_chunk) == nullptr || (in == nullptr && in_len != 0))
        return CRYPTO_SUBSYS_HASHING_ERROR;
    if (in_len != 0 && EVP_DigestUpdate(g_chunk, in, in_len) != 1)
        return map_update_failure();
    return ZEL_OK;
}

ZEL_API ZEL_STATUS OrbHashFinishChunked(uint8_t *out, uint32_t out_len)
{
    if (!ready())
        return CRYPTO_SUBSYS_NOT_INITIALIZED;
    const uint32_t size = getHashByteSize(g_chunk_id);
    if (size == 0)
        return CRYPTO_SUBSYS_INVALID_HASH_ALGORITHM;
    if (size != out_len)
        return CRYPTO_SUBSYS_WRONG_HASH_OUTPUT_LENGTH;
    if (out == nullptr || g_chunk == nullptr || EVP_MD_CTX_get0_md(g_chunk) == nullptr ||
        EVP_DigestFinal_ex(g_chunk, out, nullptr) != 1)
        return CRYPTO_SUBSYS_HASHING_ERROR;
    return ZEL_OK;
}

ZEL_API ZEL_STATUS OrbHashFinishChunkedToHeap(uint8_t **out, uint32_t *out_len)
{
    const ZEL_STATUS st = digest_on_heap(g_chunk_id, 0, out, out_len);
    return st != ZEL_OK ? st : OrbHashFinishChunked(*out, *out_len);
}

ZEL_API const char *OrbGetEccCurveName(uint32_t index)
{
    return index < 34 ? kCurves[index].name : "";
}

ZEL_API ZEL_STATUS OrbGetECCCurveDesignator(uint32_t index, uint16_t *designator)
{
    if (designator)
        *designator = 0xFFFF;
    if (index >= 34)
        return CRYPTO_SUBSYS_UNKNOWN_ECC_CURVE;
    if (designator)
        *designator = kCurves[index].designator;
    return ZEL_OK;
}

ZEL_API ZEL_STATUS OrbGetECCCurveIndex(uint16_t designator, uint32_t *index)
{
    if (index)
        *index = 34;
    for (uint32_t i = 0; i < 34; ++i)
        if (kCurves[i].designator == designator) {
            if (index)
                *index = i;
            return ZEL_OK;
        }
    return CRYPTO_SUBSYS_UNKNOWN_ECC_CURVE;
}

ZEL_API const char *OrbGetSignatureSchemeName(uint32_t scheme)
{
    return scheme < 13 ? kSchemes[scheme].name : "";
}

ZEL_API int isSignatureSchType_RSA_PKCS1(uint32_t scheme)
{
    return scheme < 7;
}

ZEL_API int isSignatureSchType_RSA_PSS(uint32_t scheme)
{
    return scheme == 7;
}

ZEL_API int isSignatureSchType_ECDSA(uint32_t scheme)
{
    return scheme >= 8 && scheme <= 11;
}

} // extern "C"

namespace {

// A curve name as the old curve finder took it: case, '-', '_' and blanks do not count. The table's names
// come first, then OpenSSL's own names and aliases (prime256v1, P-256, ...).
int nid_of_curve_name(const char *name)
{
    auto norm = [](const char *s) {
        std::string out;
        for (; *s; ++s)
            if (*s != '-' && *s != '_' && *s != ' ')
                out += static_cast<char>(std::tolower(static_cast<unsigned char>(*s)));
        return out;
    };
    const std::string wanted = norm(name);
    for (uint32_t i = 0; i < 34; ++i)
        if (norm(kCurves[i].name) == wanted)
            return curve_nid(i);
    int nid = EC_curve_nist2nid(name);
    if (nid == NID_undef)
        nid = OBJ_sn2nid(name);
    if (nid == NID_undef)
        nid = OBJ_ln2nid(name);
    if (nid == NID_undef)
        return 0;
    // Only curves: anything else named so is not one.
    for (uint32_t i = 0; i < 34; ++i)
        if (curve_nid(i) == nid)
            return nid;
    EC_GROUP *group = EC_GROUP_new_by_curve_name(nid);
    EC_GROUP_free(group);
    return group ? nid : 0;
}

} // namespace

extern "C" ZEL_API ZEL_STATUS DigitalSignatureVerifyHash(uint32_t hash_id, uint32_t padding_alg, uint32_t cipher_alg,
                                                         const uint8_t *digest, uint32_t digest_len,
                                                         const uint8_t *signature, uint32_t signature_len,
                                                         const void *sig_params, uint32_t sig_params_len,
                                                         const uint8_t *pub_key, uint32_t pub_key_len,
                                                         const void *pub_key_params, uint32_t pub_key_params_len)
{
    if (!ready())
        return CRYPTO_SUBSYS_NOT_INITIALIZED;
    if (hash_id > 7)
        return CRYPTO_SUBSYS_INVALID_HASH_ALGORITHM;
    if (cipher_alg == ZEL_SIG_CIPHER_RSA) {
        RsaPadding padding;
        uint32_t salt_len = 0;
        switch (padding_alg) {
        case ZEL_SIG_PADDING_PKCS1_V1_5_NA1: padding = RsaPadding::kPkcs1Raw; break;
        case ZEL_SIG_PADDING_PKCS1_V1_5: padding = RsaPadding::kPkcs1DigestInfo; break;
        case ZEL_SIG_PADDING_PSS:
            if (sig_params_len != 4 || sig_params == nullptr)
                return CRYPTO_SUBSYS_INVALID_SIGNATURE_PARAMS;
            std::memcpy(&salt_len, sig_params, 4);
            padding = RsaPadding::kPss;
            break;
        default: return CRYPTO_SUBSYS_INVALID_PADDING_ALGORITHM;
        }
        EVP_PKEY *key =
            rsa_key_from_parts(pub_key, pub_key_len, static_cast<const uint8_t *>(pub_key_params), pub_key_params_len);
        if (key == nullptr)
            return CRYPTO_SUBSYS_INVALID_RSA_PUB_KEY;
        const Verdict v =
            rsa_verify(key, padding, hash_id, hash_id, salt_len, digest, digest_len, signature, signature_len);
        EVP_PKEY_free(key);
        if (v == Verdict::kError)
            return CRYPTO_SUBSYS_SIGNATURE_VERIFICATION_ERROR;
        return v == Verdict::kValid ? ZEL_OK : CRYPTO_SUBSYS_WRONG_SIGNATURE;
    }
    if (cipher_alg != ZEL_SIG_CIPHER_ECC)
        return CRYPTO_SUBSYS_INVALID_CIPHER_ALGORITHM;

    if (pub_key_params_len != 24 || pub_key_params == nullptr)
        return CRYPTO_SUBSYS_INVALID_ECC_PUB_KEY_PARAMS;
    zel_ecc_key_params params;
    std::memcpy(&params, pub_key_params, sizeof params);
    int nid = 0;
    switch (params.selector) {
    case ZEL_ECC_CURVE_BY_NAME:
        if (params.curve_name == nullptr || strnlen(params.curve_name, 31) > 30)
            return CRYPTO_SUBSYS_UNKNOWN_ECC_CURVE;
        nid = nid_of_curve_name(params.curve_name);
        break;
    case ZEL_ECC_CURVE_BY_INDEX: nid = curve_nid(params.curve_index); break;
    case ZEL_ECC_CURVE_BY_PARAMS: return CRYPTO_SUBSYS_UNKNOWN_ECC_CURVE;
    default: return CRYPTO_SUBSYS_INVALID_ECC_PUB_KEY_PARAMS;
    }
    if (nid == 0)
        return CRYPTO_SUBSYS_UNKNOWN_ECC_CURVE;
    EC_GROUP *group = EC_GROUP_new_by_curve_name(nid);
    if (group == nullptr)
        return CRYPTO_SUBSYS_INVALID_ECC_PUB_KEY_PARAMS;
    EC_GROUP_free(group);
    EVP_PKEY *key = ec_key_from_point(nid, pub_key, pub_key_len);
    if (key == nullptr)
        return CRYPTO_SUBSYS_INVALID_ECC_PUB_KEY;
    // The check runs, and this entry reports failure whatever it finds: ECDSA succeeds only through the
    // certificate and SignedData verifiers.
    (void)ecdsa_verify(key, digest, digest_len, signature, signature_len);
    EVP_PKEY_free(key);
    return CRYPTO_SUBSYS_SIGNATURE_VERIFICATION_ERROR;
}
