// The SignedData walkers, the scheme and PSS parameter readers and the SignedData signature check on
// arbitrary bytes.
#include <cstdint>
#include <vector>

#include "tandro.h"

using PosFn = decltype(&pkcs7GetDigestAlgorithmsNodPos);
using SeqFn = decltype(&pkcs7GetLDSSecurityObject);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static bool started = (initCryptoSubsys(), true);
    (void)started;
    std::vector<uint8_t> sod(data, data + size);
    const uint8_t *d = sod.data();
    const uint32_t n = static_cast<uint32_t>(sod.size());
    uint32_t pos = 0, len = 0, id = 0, x = 0, y = 0, z = 0;
    const uint8_t *p = nullptr;
    uint8_t version = 0;
    const PosFn pos_fns[] = {pkcs7GetDigestAlgorithmsNodPos,  pkcs7GetEncapContentInfoNodPos,
                             pkcs7GetLDSSecurityObjectPos,    pkcs7GetCertNodPos,
                             pkcs7GetSignerInfosNodPos,       pkcs7GetSignerIdPos,
                             pkcs7GetSignedAttrsDigestAlgPos, pkcs7GetSignedAttrsPos,
                             pkcs7GetSignatureAlgorithmPos,   pkcs7GetSignaturePos};
    for (auto fn : pos_fns)
        if (fn(d, n, &pos) == ZEL_OK && pos >= n)
            __builtin_trap();
    const SeqFn seq_fns[] = {pkcs7GetLDSSecurityObject,  pkcs7GetCert,
                             pkcs7GetSignerId,           pkcs7GetSignedAttrs,
                             pkcs7GetSignatureAlgorithm, pkcs7GetLDSSecurityObjectDigest,
                             pkcs7GetSignature};
    for (auto fn : seq_fns)
        if (fn(d, n, &p, &len) == ZEL_OK && (p < d || p + len > d + n))
            __builtin_trap();
    (void)pkcs7GetDigestAlgorithms(d, n, &id);
    (void)pkcs7GetDataGroupsHashAlgorithm(d, n, &id);
    (void)pkcs7GetSignedAttrsDigestAlgorithm(d, n, &id);
    (void)pkcs7GetSignerIdVersion(d, n, &version);
    for (uint8_t dg = 0; dg < 4; ++dg)
        if (pkcs7GetDataGroupHash(d, n, dg, &p, &len) == ZEL_OK && (p < d || p + len > d + n))
            __builtin_trap();
    if (pkcs7ParseDERSignatureScheme(d, n, &x, &y, &p, &len) == ZEL_OK && p != nullptr && (p < d || p + len > d + n))
        __builtin_trap();
    (void)pkcs7ParseRsaPSSParams(d, n, &x, &y, &z);
    (void)pkcs7VerifySignature(d, n);
    return 0;
}
