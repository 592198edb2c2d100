// The hash, curve and signature scheme tables, and the OIDs the certificate walks compare.
#include "crypto/crypto_internal.h"

namespace zel::crypto {

bool oid_equal(const Oid &oid, const uint8_t *p, uint64_t avail)
{
    return p != nullptr && avail >= oid.size() && std::memcmp(oid.bytes, p, oid.size()) == 0;
}

const HashRow kHashes[8] = {
    {"SHA-1", 20, "SHA1", 20, {{0x06, 0x05, 0x2B, 0x0E, 0x03, 0x02, 0x1A}}},
    {"SHA-256", 32, "SHA256", 32, {{0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x01}}},
    {"SHA-384", 48, "SHA384", 48, {{0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x02}}},
    {"SHA-512", 64, "SHA512", 64, {{0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x03}}},
    {"SHA-224", 28, "SHA224", 28, {{0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x04}}},
    {"SHA-512/224", 28, "SHA512-224", 28, {{0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x05}}},
    {"SHA-512/256", 32, "SHA512-256", 32, {{0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x06}}},
    {"", 0, "MD5", 16, {{0x06, 0x08, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x02, 0x05}}},
};

#define ZEL_SECG(n)                               \
    {                                             \
        {                                         \
            0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, n \
        }                                         \
    }
#define ZEL_X962(n)                                                 \
    {                                                               \
        {                                                           \
            0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, n \
        }                                                           \
    }
#define ZEL_BRAINPOOL(n)                                                  \
    {                                                                     \
        {                                                                 \
            0x06, 0x09, 0x2B, 0x24, 0x03, 0x03, 0x02, 0x08, 0x01, 0x01, n \
        }                                                                 \
    }
const CurveRow kCurves[34] = {
    {"secp112r1", 0x0040, ZEL_SECG(0x06)},
    {"secp112r2", 0x0080, ZEL_SECG(0x07)},
    {"secp128r1", 0x0041, ZEL_SECG(0x1C)},
    {"secp128r2", 0x0081, ZEL_SECG(0x1D)},
    {"secp160r1", 0x0042, ZEL_SECG(0x08)},
    {"secp160r2", 0x0082, ZEL_SECG(0x1E)},
    {"secp160k1", 0x0002, ZEL_SECG(0x09)},
    {"secp192r1", 0x0043, ZEL_X962(0x01)},
    {"prime192v2", 0x0083, ZEL_X962(0x02)},
    {"prime192v3", 0x00C3, ZEL_X962(0x03)},
    {"secp192k1", 0x0003, ZEL_SECG(0x1F)},
    {"secp224r1", 0x0044, ZEL_SECG(0x21)},
    {"secp224k1", 0x0004, ZEL_SECG(0x20)},
    {"secp256r1", 0x0045, ZEL_X962(0x07)},
    {"secp256k1", 0x0005, ZEL_SECG(0x0A)},
    {"secp384r1", 0x0046, ZEL_SECG(0x22)},
    {"secp521r1", 0x0047, ZEL_SECG(0x23)},
    {"prime239v1", 0x0048, ZEL_X962(0x04)},
    {"prime239v2", 0x0088, ZEL_X962(0x05)},
    {"prime239v3", 0x00C8, ZEL_X962(0x06)},
    {"brainpoolP160r1", 0x0142, ZEL_BRAINPOOL(0x01)},
    {"brainpoolP192r1", 0x0143, ZEL_BRAINPOOL(0x03)},
    {"brainpoolP224r1", 0x0144, ZEL_BRAINPOOL(0x05)},
    {"brainpoolP256r1", 0x0145, ZEL_BRAINPOOL(0x07)},
    {"brainpoolP320r1", 0x0149, ZEL_BRAINPOOL(0x09)},
    {"brainpoolP384r1", 0x0146, ZEL_BRAINPOOL(0x0B)},
    {"brainpoolP512r1", 0x014A, ZEL_BRAINPOOL(0x0D)},
    {"brainpoolP160t1", 0x01C2, ZEL_BRAINPOOL(0x02)},
    {"brainpoolP192t1", 0x01C3, ZEL_BRAINPOOL(0x04)},
    {"brainpoolP224t1", 0x01C4, ZEL_BRAINPOOL(0x06)},
    {"brainpoolP256t1", 0x01C5, ZEL_BRAINPOOL(0x08)},
    {"brainpoolP320t1", 0x01C9, ZEL_BRAINPOOL(0x0A)},
    {"brainpoolP384t1", 0x01C6, ZEL_BRAINPOOL(0x0C)},
    {"brainpoolP512t1", 0x01CA, ZEL_BRAINPOOL(0x0E)},
};

#define ZEL_PKCS1(n)                                                      \
    {                                                                     \
        {                                                                 \
            0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, n \
        }                                                                 \
    }
#define ZEL_ECDSA2(n)                                               \
    {                                                               \
        {                                                           \
            0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x04, 0x03, n \
        }                                                           \
    }
const SchemeRow kSchemes[13] = {
    {"SHA1 with RSA", ZEL_PKCS1(0x05)},
    {"SHA256 with RSA", ZEL_PKCS1(0x0B)},
    {"SHA384 with RSA", ZEL_PKCS1(0x0C)},
    {"SHA512 with RSA", ZEL_PKCS1(0x0D)},
    {"SHA224 with RSA", ZEL_PKCS1(0x0E)},
    {"SHA512/224 with RSA", ZEL_PKCS1(0x0F)},
    {"SHA512/256 with RSA", ZEL_PKCS1(0x10)},
    {"RSA-PSS", ZEL_PKCS1(0x0A)},
    {"ECDSA with SHA1", {{0x06, 0x07, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x04, 0x01}}},
    {"ECDSA with SHA256", ZEL_ECDSA2(0x02)},
    {"ECDSA with SHA384", ZEL_ECDSA2(0x03)},
    {"ECDSA with SHA512", ZEL_ECDSA2(0x04)},
    {"ECDSA with SHA224", ZEL_ECDSA2(0x01)},
};

const Oid kOidSignedData = {{0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x07, 0x02}};
const Oid kOidLdsSecurityObject = {{0x06, 0x06, 0x67, 0x81, 0x08, 0x01, 0x01, 0x01}};
const Oid kOidCscaMasterList = {{0x06, 0x06, 0x67, 0x81, 0x08, 0x01, 0x01, 0x02}};
const Oid kOidSki = {{0x06, 0x03, 0x55, 0x1D, 0x0E}};
const Oid kOidAki = {{0x06, 0x03, 0x55, 0x1D, 0x23}};
const Oid kOidMessageDigest = {{0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x04}};
const Oid kOidRsaEncryption = ZEL_PKCS1(0x01);
const Oid kOidMgf1 = ZEL_PKCS1(0x08);
const Oid kOidEcPublicKey = {{0x06, 0x07, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02, 0x01}};

uint32_t hash_id_of_oid(const uint8_t *p, uint64_t avail)
{
    for (uint32_t id = 0; id < 7; ++id)
        if (oid_equal(kHashes[id].oid, p, avail))
            return id;
    return 7;
}

bool read_header(const uint8_t *d, uint32_t len, uint32_t pos, Node *n)
{
    if (d == nullptr || uint64_t(pos) + 2 > len)
        return false;
    n->pos = pos;
    n->tag = d[pos];
    const uint8_t first = d[pos + 1];
    if (first <= 0x80) {
        n->hdr = 2;
        n->vlen = first;
        return true;
    }
    if (first > 0x84)
        return false;
    const uint32_t count = first - 0x80u;
    if (uint64_t(pos) + 2 + count > len)
        return false;
    uint32_t v = 0;
    for (uint32_t i = 0; i < count; ++i)
        v = (v << 8) | d[pos + 2 + i];
    n->hdr = 2 + count;
    n->vlen = v;
    return true;
}

bool read_node(const uint8_t *d, uint32_t len, uint32_t pos, Node *n, uint64_t limit)
{
    if (limit > len)
        limit = len;
    return read_header(d, len, pos, n) && n->end() <= limit;
}

bool expect(const uint8_t *d, uint32_t len, uint32_t pos, uint8_t tag, Node *n, uint64_t limit)
{
    return read_node(d, len, pos, n, limit) && n->tag == tag;
}

} // namespace zel::crypto
