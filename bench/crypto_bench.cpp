// Passive-authentication core: verify a SOD-shaped SignedData with the certificate it carries, and that
// document signer certificate against its CSCA. The library's walkers against OpenSSL's own CMS_verify and
// X509_verify on the same bytes, parsed from DER on every round as the library does. Compare the
// Library/OpenSsl pairs of one curve or key size: the target is at most 1.5 times OpenSSL's time.
#include <benchmark/benchmark.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/x509.h>

#include "tandro.h"

namespace {

using Bytes = std::vector<uint8_t>;

// The fixtures of the tests, found from this file's own path (the build compiles it by its full path).
std::string fixtures_dir()
{
    const std::string here = __FILE__;
    return here.substr(0, here.find_last_of('/')) + "/../tests/fixtures/crypto/";
}

Bytes load(const std::string &name)
{
    std::ifstream in(fixtures_dir() + name, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

struct Case {
    Bytes sod, ds, csca;
    uint32_t cms_offset; // the SignedData behind the 0x77 header
};

Case load_case(const char *sod, const char *ds, const char *csca)
{
    Case c{load(sod), load(ds), load(csca), 0};
    if (c.sod.size() > 2)
        c.cms_offset = 2 + (c.sod[1] > 0x80 ? c.sod[1] - 0x80u : 0u);
    return c;
}

void library(benchmark::State &state, const Case &c)
{
    initCryptoSubsys();
    for (auto _ : state) {
        const uint8_t *cert = nullptr;
        uint32_t cert_len = 0;
        ZEL_STATUS st = pkcs7VerifySignature(c.sod.data(), static_cast<uint32_t>(c.sod.size()));
        if (st == ZEL_OK)
            st = pkcs7GetCert(c.sod.data(), static_cast<uint32_t>(c.sod.size()), &cert, &cert_len);
        if (st == ZEL_OK)
            st = X509VerifyDerCertSignature(cert, cert_len, c.csca.data(), static_cast<uint32_t>(c.csca.size()));
        if (st != ZEL_OK) {
            state.SkipWithError("library verification failed");
            break;
        }
        benchmark::DoNotOptimize(st);
    }
}

void openssl(benchmark::State &state, const Case &c)
{
    for (auto _ : state) {
        const unsigned char *p = c.sod.data() + c.cms_offset;
        CMS_ContentInfo *cms = d2i_CMS_ContentInfo(nullptr, &p, static_cast<long>(c.sod.size() - c.cms_offset));
        p = c.csca.data();
        X509 *csca = d2i_X509(nullptr, &p, static_cast<long>(c.csca.size()));
        bool ok = cms && csca && CMS_verify(cms, nullptr, nullptr, nullptr, nullptr, CMS_NO_SIGNER_CERT_VERIFY) == 1;
        if (ok) {
            STACK_OF(X509) *signers = CMS_get0_signers(cms);
            ok = signers && sk_X509_num(signers) == 1 &&
                 X509_verify(sk_X509_value(signers, 0), X509_get0_pubkey(csca)) == 1;
            sk_X509_free(signers);
        }
        X509_free(csca);
        CMS_ContentInfo_free(cms);
        if (!ok) {
            state.SkipWithError("OpenSSL verification failed");
            break;
        }
    }
}

const Case &rsa_case()
{
    static const Case c = load_case("rsa.sod.bin", "ds_rsa.der", "csca_rsa.der");
    return c;
}
const Case &bp256_case()
{
    static const Case c = load_case("bp256.sod.bin", "ds_brainpoolP256r1.der", "csca_bp256.der");
    return c;
}

void BM_SodVerify_Rsa2048_Library(benchmark::State &s)
{
    library(s, rsa_case());
}
void BM_SodVerify_Rsa2048_OpenSsl(benchmark::State &s)
{
    openssl(s, rsa_case());
}
void BM_SodVerify_BrainpoolP256r1_Library(benchmark::State &s)
{
    library(s, bp256_case());
}
void BM_SodVerify_BrainpoolP256r1_OpenSsl(benchmark::State &s)
{
    openssl(s, bp256_case());
}

BENCHMARK(BM_SodVerify_Rsa2048_Library)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SodVerify_Rsa2048_OpenSsl)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SodVerify_BrainpoolP256r1_Library)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SodVerify_BrainpoolP256r1_OpenSsl)->Unit(benchmark::kMicrosecond);

} // namespace
