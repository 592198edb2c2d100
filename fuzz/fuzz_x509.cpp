// The certificate walkers and the certificate signature check on arbitrary bytes, both as the certificate and
// as its issuer.
#include <cstdint>
#include <vector>

#include "tandro.h"

using PosFn = decltype(&X509GetTbsNodePos);
using SeqFn = decltype(&X509GetTbs);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static bool started = (initCryptoSubsys(), true);
    (void)started;
    std::vector<uint8_t> cert(data, data + size);
    const uint8_t *d = cert.data();
    const uint32_t n = static_cast<uint32_t>(cert.size());
    uint32_t pos = 0, len = 0, a = 0, b = 0, c = 0, crit = 0;
    const uint8_t *p = nullptr, *q = nullptr;
    uint8_t version = 0;
    const PosFn pos_fns[] = {X509GetTbsNodePos,       X509GetSerialNumberPos,   X509GetSignatureAlgFromTBSPos,
                             X509GetIssuerPos,        X509GetValidityPeriodPos, X509GetSubjectPos,
                             X509GetPublicKeyInfoPos, X509GetExtensionsPos,     X509GetSignatureAlgorithmNodePos,
                             x509GetSignatureNodePos};
    for (auto fn : pos_fns)
        if (fn(d, n, &pos) == ZEL_OK && pos >= n)
            __builtin_trap();
    const SeqFn seq_fns[] = {
        X509GetTbs,           X509GetIssuerSeq,          X509GetValidityPeriodSeq, X509GetSubjectSeq,
        X509GetExtensionsSeq, X509GetSignatureAlgorithm, X509GetSerialNumberSeq,   X509GetSerialNumberByteArr,
        X509GetSignature,     X509GetSKIFromCert,        X509GetAKIFromCert};
    for (auto fn : seq_fns)
        if (fn(d, n, &p, &len) == ZEL_OK && (p < d || p + len > d + n))
            __builtin_trap();
    (void)X509GetVersion(d, n, &version);
    (void)X509GetExtension(d, n, d, &p, &len, &crit); // the input as its own OID, as far as it is one
    if (X509ParsePubKey(d, n, &p, &len, &a, &b, &c, &q) == ZEL_OK && (p < d || p + len > d + n))
        __builtin_trap();
    if (q != nullptr) {
        uint32_t e = 0;
        (void)X509GetRSAPubKeyExponent(q, static_cast<uint32_t>(d + n - q), &e);
    }
    (void)X509VerifyDerCertSignature(d, n, d, n);
    return 0;
}
