// SUN verification, the work a web service does on every tap: decipher the PICC data with the meta read
// key, derive the MAC session key from the file read key, check the MAC over the URL's MAC input. The tool's
// routine (tandro::sun_verify on a parsed URL) against the same work written directly with OpenSSL EVP, in
// one run, and the heap allocations of the tool's routine per verification (none are expected).
#include <benchmark/benchmark.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <cstring>
#include <string>

#include "tandro.h"
#include "tools/sun.h"

namespace zelbench {
extern thread_local bool t_counting;
extern thread_local uint64_t t_allocations;
} // namespace zelbench

namespace {

const std::string kUrl = "https://t.example/?picc_data=EF963FF7828658A599F3041510671E88&cmac=94EED9EE65337086";
const uint8_t kZero[16] = {};

void BM_SunVerifyTandro(benchmark::State &state)
{
    tandro::SunUrl url;
    if (tandro::sun_parse(kUrl.data(), kUrl.size(), url) != tandro::SunParse::ok) {
        state.SkipWithError("parse failed");
        return;
    }
    tandro::SunResult r;
    uint64_t failures = 0;
    zelbench::t_allocations = 0;
    for (auto _ : state) {
        zelbench::t_counting = true;
        r.mac_ok = false;
        const uint32_t st = tandro::sun_verify(url, kZero, kZero, r);
        zelbench::t_counting = false;
        failures += st != ZEL_OK || !r.mac_ok;
        benchmark::DoNotOptimize(r);
    }
    state.counters["verifications_per_s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["allocs_per_verification"] =
        static_cast<double>(zelbench::t_allocations) / static_cast<double>(state.iterations() ? state.iterations() : 1);
    state.counters["failures"] = static_cast<double>(failures);
}

// The same steps on OpenSSL directly: contexts made once, keyed per verification as a service must (every
// tag has its own keys and counter).
void BM_SunVerifyEvp(benchmark::State &state)
{
    tandro::SunUrl url;
    if (tandro::sun_parse(kUrl.data(), kUrl.size(), url) != tandro::SunParse::ok) {
        state.SkipWithError("parse failed");
        return;
    }
    EVP_CIPHER_CTX *aes = EVP_CIPHER_CTX_new();
    EVP_MAC *mac = EVP_MAC_fetch(nullptr, "CMAC", nullptr);
    EVP_MAC_CTX *cm = EVP_MAC_CTX_new(mac);
    char cipher[] = "AES-128-CBC";
    OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_CIPHER, cipher, 0),
                           OSSL_PARAM_construct_end()};
    EVP_MAC_init(cm, kZero, 16, params);
    const EVP_CIPHER *ecb = EVP_aes_128_ecb();
    uint64_t failures = 0;
    for (auto _ : state) {
        uint8_t plain[16];
        int n = 0;
        EVP_DecryptInit_ex(aes, ecb, nullptr, kZero, nullptr);
        EVP_CIPHER_CTX_set_padding(aes, 0);
        EVP_DecryptUpdate(aes, plain, &n, url.picc, 16);
        uint8_t sv[16] = {0x3C, 0xC3, 0x00, 0x01, 0x00, 0x80};
        std::memcpy(sv + 6, plain + 1, 7);
        std::memcpy(sv + 13, plain + 8, 3);
        uint8_t ses[16], full[16];
        size_t len = 0;
        EVP_MAC_init(cm, kZero, 16, nullptr);
        EVP_MAC_update(cm, sv, 16);
        EVP_MAC_final(cm, ses, &len, 16);
        EVP_MAC_init(cm, ses, 16, nullptr);
        EVP_MAC_update(cm, reinterpret_cast<const uint8_t *>(url.mac_input), url.mac_input_len);
        EVP_MAC_final(cm, full, &len, 16);
        uint8_t odd[8];
        for (int i = 0; i < 8; ++i)
            odd[i] = full[2 * i + 1];
        failures += CRYPTO_memcmp(odd, url.mac, 8) != 0;
        benchmark::DoNotOptimize(odd);
    }
    EVP_MAC_CTX_free(cm);
    EVP_MAC_free(mac);
    EVP_CIPHER_CTX_free(aes);
    state.counters["verifications_per_s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["failures"] = static_cast<double>(failures);
}

BENCHMARK(BM_SunVerifyTandro);
BENCHMARK(BM_SunVerifyEvp);

} // namespace
