// The reader of CSCA master list files: the header walk down to the SET of certificates, one certificate at a
// time from the file, and the search by serial, subject, issuer and key identifiers.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mrtd/mrtd_internal.h"
#include "zel_crypto.h"
#include "zel_mrtd_doc.h"
#include "zel_status.h"
#include "zel_x509.h"

namespace zel::mrtd {

namespace {

constexpr uint32_t kHeaderSize = 1024;
// No CSCA certificate comes near this; a larger announced size is a broken list.
constexpr uint32_t kMaxCert = 65535;

struct HeaderWalk {
    const uint8_t *buf;
    uint32_t pos = 0;

    bool tag(uint8_t want)
    {
        if (pos >= kHeaderSize || buf[pos] != want)
            return false;
        ++pos;
        return true;
    }
    // A length field; the value begins behind it.
    bool length(uint32_t *value_len)
    {
        uint32_t ll = 0;
        if (pos >= kHeaderSize || !read_tlv_len(buf + pos, kHeaderSize - pos, &ll, value_len))
            return false;
        pos += ll;
        return true;
    }
    // Enters a constructed object of the given tag.
    bool enter(uint8_t want)
    {
        uint32_t vl = 0;
        return tag(want) && length(&vl);
    }
    // Skips an object of the given tag whole; it must lie in the header.
    bool skip(uint8_t want)
    {
        uint32_t vl = 0;
        if (!tag(want) || !length(&vl) || uint64_t(pos) + vl > kHeaderSize)
            return false;
        pos += vl;
        return true;
    }
    // An OID with a one-byte length field.
    bool oid()
    {
        if (!tag(0x06) || pos >= kHeaderSize || buf[pos] >= 0x80)
            return false;
        const uint32_t n = buf[pos++];
        if (uint64_t(pos) + n > kHeaderSize)
            return false;
        pos += n;
        return true;
    }
    bool version(uint8_t want)
    {
        if (uint64_t(pos) + 3 > kHeaderSize || buf[pos] != 0x02 || buf[pos + 1] != 0x01 || buf[pos + 2] != want)
            return false;
        pos += 3;
        return true;
    }
};

bool equal(const uint8_t *a, uint32_t a_len, const uint8_t *b, uint32_t b_len)
{
    return a_len == b_len && (a_len == 0 || std::memcmp(a, b, a_len) == 0);
}

// One criterion against a certificate: 1 match, 0 no match, or the failure of the reader.
ZEL_STATUS test_cert(const uint8_t *der, uint32_t der_len, const icao_ml_search_criteria &c, bool *match)
{
    *match = false;
    const uint8_t *p = nullptr;
    uint32_t n = 0;
    ZEL_STATUS st = ZEL_OK;
    if (c.serial_len) {
        if ((st = X509GetSerialNumberSeq(der, der_len, &p, &n)) != ZEL_OK)
            return st;
        if (!equal(p, n, c.serial, c.serial_len))
            return ZEL_OK;
    }
    if (c.subject_len) {
        if ((st = X509GetSubjectSeq(der, der_len, &p, &n)) != ZEL_OK)
            return st;
        if (!equal(p, n, c.subject, c.subject_len))
            return ZEL_OK;
    }
    if (c.issuer_len) {
        // The issuer's length is held against both the issuer and the subject criterion.
        if ((st = X509GetIssuerSeq(der, der_len, &p, &n)) != ZEL_OK)
            return st;
        if (n != c.issuer_len || n != c.subject_len || std::memcmp(p, c.issuer, c.issuer_len) != 0)
            return ZEL_OK;
    }
    if (c.ski_len) {
        if ((st = X509GetSKIFromCert(der, der_len, &p, &n)) != ZEL_OK)
            return st;
        if (!equal(p, n, c.ski, c.ski_len))
            return ZEL_OK;
    }
    if (c.aki_len) {
        if ((st = X509GetAKIFromCert(der, der_len, &p, &n)) != ZEL_OK)
            return st;
        if (!equal(p, n, c.aki, c.aki_len))
            return ZEL_OK;
    }
    *match = true;
    return ZEL_OK;
}

} // namespace

} // namespace zel::mrtd

extern "C" {

ZEL_API ZEL_STATUS icaoMlMoveToFirstCert(FILE *ml, uint32_t *start, uint32_t *length)
{
    if (start)
        *start = 0;
    if (length)
        *length = 0;
    if (ml == nullptr || start == nullptr || length == nullptr)
        return ZEL_PARAMETERS_ERROR;
    auto *buf = static_cast<uint8_t *>(std::malloc(zel::mrtd::kHeaderSize));
    if (buf == nullptr)
        return ZEL_NO_MEMORY_ERROR;
    if (std::fseek(ml, 0, SEEK_SET) != 0 || std::fread(buf, 1, zel::mrtd::kHeaderSize, ml) != zel::mrtd::kHeaderSize) {
        std::free(buf);
        return ICAO_ML_CAN_NOT_READ_FILE;
    }
    // ContentInfo, signedData, [0], SignedData version 3, digest algorithms, encapsulated content of an
    // OID, [0], OCTET STRING, the list: version 0 and the SET of certificates.
    zel::mrtd::HeaderWalk w{buf};
    uint32_t set_len = 0;
    const bool ok = w.enter(0x30) && w.oid() && w.enter(0xA0) && w.enter(0x30) && w.version(3) && w.skip(0x31) &&
                    w.enter(0x30) && w.oid() && w.enter(0xA0) && w.enter(0x04) && w.enter(0x30) && w.version(0) &&
                    w.tag(0x31) && w.length(&set_len);
    const uint32_t set_start = w.pos;
    std::free(buf);
    if (!ok)
        return ICAO_ML_WRONG_FORMAT;
    if (std::fseek(ml, static_cast<long>(set_start), SEEK_SET) != 0)
        return ICAO_ML_CAN_NOT_READ_FILE;
    *start = set_start;
    *length = set_len;
    return ZEL_OK;
}

ZEL_API ZEL_STATUS icaoMlOpen(const char *path, FILE **ml)
{
    if (ml == nullptr)
        return ZEL_PARAMETERS_ERROR;
    *ml = nullptr;
    if (path == nullptr)
        return ICAO_ML_CAN_NOT_OPEN_FILE;
    FILE *f = std::fopen(path, "rb");
    if (f == nullptr)
        return ICAO_ML_CAN_NOT_OPEN_FILE;
    uint32_t start = 0, length = 0;
    const ZEL_STATUS st = icaoMlMoveToFirstCert(f, &start, &length);
    if (st != ZEL_OK) {
        std::fclose(f);
        return st;
    }
    *ml = f;
    return ZEL_OK;
}

ZEL_API ZEL_STATUS icaoMlGetCurrentCertAndMoveToNext(FILE *ml, uint8_t **cert, uint32_t *cert_len, uint32_t start,
                                                     uint32_t length)
{
    if (cert)
        *cert = nullptr;
    if (cert_len)
        *cert_len = 0;
    if (ml == nullptr || cert == nullptr || cert_len == nullptr)
        return ZEL_PARAMETERS_ERROR;
    const long here = std::ftell(ml);
    const uint64_t end = uint64_t(start) + length;
    if (here < 0)
        return ICAO_ML_CAN_NOT_READ_FILE;
    if (uint64_t(here) >= end)
        return ICAO_ML_CERTIFICATE_NOT_FOUND;
    uint8_t head[6];
    if (std::fread(head, 1, sizeof head, ml) != sizeof head)
        return ICAO_ML_CAN_NOT_READ_FILE;
    if (head[0] != 0x30)
        return ICAO_ML_WRONG_FORMAT;
    uint32_t ll = 0, vl = 0;
    if (!zel::mrtd::read_tlv_len(head + 1, sizeof head - 1, &ll, &vl))
        return ICAO_ML_WRONG_FORMAT;
    const uint64_t total = uint64_t(1) + ll + vl;
    if (total < sizeof head || total > zel::mrtd::kMaxCert || uint64_t(here) + total > end)
        return ICAO_ML_WRONG_FORMAT;
    auto *buf = static_cast<uint8_t *>(std::malloc(total));
    if (buf == nullptr)
        return ZEL_NO_MEMORY_ERROR;
    std::memcpy(buf, head, sizeof head);
    if (std::fread(buf + sizeof head, 1, total - sizeof head, ml) != total - sizeof head) {
        std::free(buf);
        return ICAO_ML_CAN_NOT_READ_FILE;
    }
    *cert = buf;
    *cert_len = static_cast<uint32_t>(total);
    return ZEL_OK;
}

ZEL_API void icaoMlClearSearchCriteria(icao_ml_search_criteria *criteria)
{
    if (criteria)
        std::memset(criteria, 0, sizeof *criteria);
}

ZEL_API ZEL_STATUS icaoMlFindCert(FILE *ml, const icao_ml_search_criteria *criteria, uint8_t **cert, uint32_t *cert_len)
{
    if (cert)
        *cert = nullptr;
    if (cert_len)
        *cert_len = 0;
    if (ml == nullptr || criteria == nullptr || cert == nullptr || cert_len == nullptr)
        return ZEL_PARAMETERS_ERROR;
    uint32_t start = 0, length = 0;
    ZEL_STATUS st = icaoMlMoveToFirstCert(ml, &start, &length);
    if (st != ZEL_OK)
        return st;
    for (;;) {
        uint8_t *der = nullptr;
        uint32_t der_len = 0;
        st = icaoMlGetCurrentCertAndMoveToNext(ml, &der, &der_len, start, length);
        if (st != ZEL_OK)
            return st;
        bool match = false;
        st = zel::mrtd::test_cert(der, der_len, *criteria, &match);
        if (st != ZEL_OK) {
            std::free(der);
            return st;
        }
        if (match) {
            *cert = der;
            *cert_len = der_len;
            return ZEL_OK;
        }
        std::free(der);
    }
}

ZEL_API ZEL_STATUS icaoMlClose(FILE *ml)
{
    if (ml)
        std::fclose(ml);
    return ZEL_OK;
}

} // extern "C"
