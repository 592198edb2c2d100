// DESFire host cryptography and the DESFire standard-file read.
//
// Cryptography, 1 KiB a round, the library and OpenSSL's EVP interleaved on the same data in the same run:
// - CMAC: the library's cmac_nl over eight messages of 128 bytes (its message length is a byte), the IV
//   carrying the chain, against one EVP CMAC of the 1,024 bytes with the same AES key.
// - Enciphered messages: crypto_preprocess_data_nl on eight 128-byte commands (CRC_A, padding, CBC) and
//   crypto_postprocess_data_nl on eight enciphered 128-byte answers (CBC, CRC-32 search and check), against
//   the same work done with OpenSSL and zlib: each command padded to the same 144 bytes and enciphered by
//   EVP AES-128-CBC with the chain running on, each answer deciphered by EVP and its CRC-32 over data and
//   status checked with zlib's crc32. zlib has no CRC_A: its CRC-32 over the same 128 bytes of a command
//   stands in for it. The counter library_over_cipher_only compares the library with the EVP enciphering
//   and deciphering of the bare 1,024 bytes each way (no CRC, no padding block, one call each way): work
//   the library's messages cannot be reduced to, shown for reference;
// - the chaining alone: aes_blocks_chained both ways against the same EVP CBC pair.
// The counter library_over_openssl is OpenSSL's time over the library's: 1.0 is equal, 0.8 the target.
//
// The read: 4,096 bytes of a standard file through Zel_int_DesfireReadStdDataFile against a raw loop that
// writes the same frame and extended data and reads the same stream and closing reply on the same link
// (the simulated reader on a pseudo-terminal, a DESFire card in its field). library_over_raw is the raw
// loop's time over the library's: 0.9 is the 10% mark.
#include <benchmark/benchmark.h>

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <poll.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench_link.h"
#include "core/internal.h"
#include "tandro.h"
#include "transport/serial.h"
#include "zelsim.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kKiB = 1024, kMsg = 128, kMsgs = kKiB / kMsg, kReps = 16;
const uint8_t kKey[16] = {0x2B, 0x7E, 0x15, 0x16, 0x28, 0xAE, 0xD2, 0xA6,
                          0xAB, 0xF7, 0x15, 0x88, 0x09, 0xCF, 0x4F, 0x3C};
const uint8_t kIv[16] = {0x0F, 0x1E, 0x2D, 0x3C, 0x4B, 0x5A, 0x69, 0x78,
                         0x87, 0x96, 0xA5, 0xB4, 0xC3, 0xD2, 0xE1, 0xF0};

Bytes kib()
{
    Bytes d(kKiB);
    for (size_t i = 0; i < d.size(); ++i)
        d[i] = static_cast<uint8_t>(i * 37 + 11);
    return d;
}

desfire_key aes_record()
{
    desfire_key k{};
    aes_key_new_with_version(&k, kKey, 0);
    cmac_generate_subkeys_nl(&k);
    return k;
}

void report(benchmark::State &state, int64_t lib_ns, int64_t ossl_ns, uint64_t failures)
{
    const double bytes = static_cast<double>(state.iterations()) * kReps * kKiB;
    state.counters["library_MiB_per_s"] = lib_ns ? bytes / (1 << 20) * 1e9 / static_cast<double>(lib_ns) : 0;
    state.counters["openssl_MiB_per_s"] = ossl_ns ? bytes / (1 << 20) * 1e9 / static_cast<double>(ossl_ns) : 0;
    state.counters["library_over_openssl"] = lib_ns ? static_cast<double>(ossl_ns) / static_cast<double>(lib_ns) : 0;
    state.counters["failures"] = static_cast<double>(failures);
}

void BM_DesfireCmac1KiBVsOpenSsl(benchmark::State &state)
{
    const Bytes data = kib();
    desfire_key key = aes_record();
    EVP_MAC *mac = EVP_MAC_fetch(nullptr, "CMAC", nullptr);
    EVP_MAC_CTX *ctx = EVP_MAC_CTX_new(mac);
    char cipher[] = "AES-128-CBC";
    OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_CIPHER, cipher, 0),
                           OSSL_PARAM_construct_end()};
    uint64_t failures = !EVP_MAC_init(ctx, kKey, 16, params);
    int64_t lib_ns = 0, ossl_ns = 0;
    uint8_t tag[16], iv[16], otag[16];
    for (auto _ : state) {
        const int64_t t0 = zel::counter_ns();
        for (size_t r = 0; r < kReps; ++r) {
            std::memcpy(iv, kIv, 16);
            for (size_t m = 0; m < kMsgs; ++m)
                cmac_nl(&key, iv, data.data() + m * kMsg, kMsg, tag);
        }
        const int64_t t1 = zel::counter_ns();
        for (size_t r = 0; r < kReps; ++r) {
            size_t n = 0;
            failures += !EVP_MAC_init(ctx, nullptr, 0, nullptr) || !EVP_MAC_update(ctx, data.data(), data.size()) ||
                        !EVP_MAC_final(ctx, otag, &n, sizeof otag);
        }
        const int64_t t2 = zel::counter_ns();
        lib_ns += t1 - t0;
        ossl_ns += t2 - t1;
        benchmark::DoNotOptimize(tag);
        benchmark::DoNotOptimize(otag);
    }
    report(state, lib_ns, ossl_ns, failures);
    EVP_MAC_CTX_free(ctx);
    EVP_MAC_free(mac);
}

// A card's enciphered answer to a read: data, CRC-32 over data and status 00, zero padding, CBC under the
// key from the given IV, then the status byte. Made with EVP, independently of the library.
Bytes card_answer(const uint8_t *data, size_t n, const uint8_t *iv)
{
    Bytes plain(data, data + n);
    plain.push_back(0);
    uint32_t crc = 0xFFFFFFFFu;
    for (uint8_t b : plain)
        for (int i = 0; i < 8; ++i)
            crc = ((crc ^ (b >> i)) & 1) ? (crc >> 1) ^ 0xEDB88320u : crc >> 1;
    plain.pop_back();
    for (int i = 0; i < 4; ++i)
        plain.push_back(static_cast<uint8_t>(crc >> (8 * i)));
    while (plain.size() % 16)
        plain.push_back(0);
    Bytes out(plain.size() + 16);
    int l1 = 0, l2 = 0;
    EVP_CIPHER_CTX *c = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex(c, EVP_aes_128_cbc(), nullptr, kKey, iv);
    EVP_CIPHER_CTX_set_padding(c, 0);
    EVP_EncryptUpdate(c, out.data(), &l1, plain.data(), static_cast<int>(plain.size()));
    EVP_EncryptFinal_ex(c, out.data() + l1, &l2);
    EVP_CIPHER_CTX_free(c);
    out.resize(static_cast<size_t>(l1 + l2));
    out.push_back(0x00);
    return out;
}

void BM_DesfireEncipheredMessages1KiBVsOpenSsl(benchmark::State &state)
{
    const Bytes data = kib();
    desfire_key key = aes_record();
    // The answers chain from one IV to the next, as the card's would.
    std::vector<Bytes> answers;
    uint8_t chain[16];
    std::memcpy(chain, kIv, 16);
    for (size_t m = 0; m < kMsgs; ++m) {
        answers.push_back(card_answer(data.data() + m * kMsg, kMsg, chain));
        std::memcpy(chain, answers.back().data() + answers.back().size() - 17, 16);
    }
    EVP_CIPHER_CTX *enc = EVP_CIPHER_CTX_new(), *dec = EVP_CIPHER_CTX_new();
    uint64_t failures = !EVP_EncryptInit_ex(enc, EVP_aes_128_cbc(), nullptr, kKey, kIv) ||
                        !EVP_DecryptInit_ex(dec, EVP_aes_128_cbc(), nullptr, kKey, kIv);
    EVP_CIPHER_CTX_set_padding(enc, 0);
    EVP_CIPHER_CTX_set_padding(dec, 0);
    int64_t lib_ns = 0, ossl_ns = 0, bare_ns = 0;
    uint8_t out[256], iv[16], cmd[kMsg + 16]; // a command, its CRC and padding: 144 bytes, as the library's
    Bytes obuf(kMsgs * sizeof cmd), obuf2(kKiB + 32);
    for (auto _ : state) {
        const int64_t t0 = zel::counter_ns();
        for (size_t r = 0; r < kReps; ++r) {
            std::memcpy(iv, kIv, 16);
            for (size_t m = 0; m < kMsgs; ++m) {
                uint8_t len = kMsg;
                failures += crypto_preprocess_data_nl(&key, iv, data.data() + m * kMsg, &len, 0,
                                                      DESFIRE_COMM_ENCIPHERED | DESFIRE_ENC_COMMAND, out) != 0;
            }
            std::memcpy(iv, kIv, 16);
            for (size_t m = 0; m < kMsgs; ++m) {
                uint8_t len = static_cast<uint8_t>(answers[m].size());
                failures +=
                    crypto_postprocess_data_nl(&key, iv, answers[m].data(), &len, DESFIRE_COMM_ENCIPHERED, out) != 0 ||
                    len != kMsg;
            }
        }
        const int64_t t1 = zel::counter_ns();
        for (size_t r = 0; r < kReps; ++r) {
            int l = 0;
            failures += !EVP_EncryptInit_ex(enc, nullptr, nullptr, nullptr, kIv);
            for (size_t m = 0; m < kMsgs; ++m) {
                const uint8_t *msg = data.data() + m * kMsg;
                std::memcpy(cmd, msg, kMsg);
                const uint32_t crc = static_cast<uint32_t>(crc32(0, msg, kMsg)); // the stand-in for CRC_A
                cmd[kMsg] = static_cast<uint8_t>(crc);
                cmd[kMsg + 1] = static_cast<uint8_t>(crc >> 8);
                std::memset(cmd + kMsg + 2, 0, sizeof cmd - kMsg - 2);
                failures += !EVP_EncryptUpdate(enc, obuf.data() + m * sizeof cmd, &l, cmd, sizeof cmd);
            }
            failures += !EVP_DecryptInit_ex(dec, nullptr, nullptr, nullptr, kIv);
            for (size_t m = 0; m < kMsgs; ++m) {
                const int n = static_cast<int>(answers[m].size() - 1);
                failures += !EVP_DecryptUpdate(dec, obuf2.data(), &l, answers[m].data(), n);
                const uint8_t status = 0;
                const uint32_t crc = ~static_cast<uint32_t>(crc32(crc32(0, obuf2.data(), kMsg), &status, 1));
                failures += std::memcmp(&crc, obuf2.data() + kMsg, 4) != 0;
            }
        }
        const int64_t t2 = zel::counter_ns();
        for (size_t r = 0; r < kReps; ++r) {
            int l = 0;
            failures += !EVP_EncryptInit_ex(enc, nullptr, nullptr, nullptr, kIv) ||
                        !EVP_EncryptUpdate(enc, obuf.data(), &l, data.data(), static_cast<int>(kKiB));
            failures += !EVP_DecryptInit_ex(dec, nullptr, nullptr, nullptr, kIv) ||
                        !EVP_DecryptUpdate(dec, obuf2.data(), &l, obuf.data(), static_cast<int>(kKiB));
        }
        const int64_t t3 = zel::counter_ns();
        lib_ns += t1 - t0;
        ossl_ns += t2 - t1;
        bare_ns += t3 - t2;
        benchmark::DoNotOptimize(out);
        benchmark::DoNotOptimize(obuf.data());
        benchmark::DoNotOptimize(obuf2.data());
    }
    state.counters["library_over_cipher_only"] =
        lib_ns ? static_cast<double>(bare_ns) / static_cast<double>(lib_ns) : 0;
    report(state, lib_ns, ossl_ns, failures);
    EVP_CIPHER_CTX_free(enc);
    EVP_CIPHER_CTX_free(dec);
}

// The chaining alone: aes_blocks_chained enciphering in send direction and deciphering in receive direction,
// eight 128-byte messages each way, against EVP AES-128-CBC over the 1,024 bytes each way.
void BM_DesfireChaining1KiBVsOpenSsl(benchmark::State &state)
{
    Bytes data = kib();
    desfire_key key = aes_record();
    EVP_CIPHER_CTX *enc = EVP_CIPHER_CTX_new(), *dec = EVP_CIPHER_CTX_new();
    uint64_t failures = !EVP_EncryptInit_ex(enc, EVP_aes_128_cbc(), nullptr, kKey, kIv) ||
                        !EVP_DecryptInit_ex(dec, EVP_aes_128_cbc(), nullptr, kKey, kIv);
    EVP_CIPHER_CTX_set_padding(enc, 0);
    EVP_CIPHER_CTX_set_padding(dec, 0);
    int64_t lib_ns = 0, ossl_ns = 0;
    uint8_t iv[16];
    Bytes obuf(kKiB + 32), obuf2(kKiB + 32);
    for (auto _ : state) {
        const int64_t t0 = zel::counter_ns();
        for (size_t r = 0; r < kReps; ++r) {
            std::memcpy(iv, kIv, 16);
            for (size_t m = 0; m < kMsgs; ++m)
                failures += aes_blocks_chained(&key, iv, data.data() + m * kMsg, kMsg, DESFIRE_SEND, DESFIRE_ENCIPHER);
            std::memcpy(iv, kIv, 16);
            for (size_t m = 0; m < kMsgs; ++m)
                failures +=
                    aes_blocks_chained(&key, iv, data.data() + m * kMsg, kMsg, DESFIRE_RECEIVE, DESFIRE_DECIPHER);
        }
        const int64_t t1 = zel::counter_ns();
        for (size_t r = 0; r < kReps; ++r) {
            int l = 0;
            failures += !EVP_EncryptInit_ex(enc, nullptr, nullptr, nullptr, kIv) ||
                        !EVP_EncryptUpdate(enc, obuf.data(), &l, data.data(), static_cast<int>(kKiB));
            failures += !EVP_DecryptInit_ex(dec, nullptr, nullptr, nullptr, kIv) ||
                        !EVP_DecryptUpdate(dec, obuf2.data(), &l, obuf.data(), static_cast<int>(kKiB));
        }
        const int64_t t2 = zel::counter_ns();
        lib_ns += t1 - t0;
        ossl_ns += t2 - t1;
        benchmark::DoNotOptimize(data.data());
        benchmark::DoNotOptimize(obuf2.data());
    }
    failures += data != kib(); // each round trip gives the data back
    report(state, lib_ns, ossl_ns, failures);
    EVP_CIPHER_CTX_free(enc);
    EVP_CIPHER_CTX_free(dec);
}

BENCHMARK(BM_DesfireCmac1KiBVsOpenSsl)->MinTime(2.0)->Repetitions(3);
BENCHMARK(BM_DesfireEncipheredMessages1KiBVsOpenSsl)->MinTime(2.0)->Repetitions(3);
BENCHMARK(BM_DesfireChaining1KiBVsOpenSsl)->MinTime(2.0)->Repetitions(3);

// ---- The 4 KiB read.

constexpr uint16_t kFileSize = 4096;
constexpr uint32_t kAid = 0xA1B2C3;
constexpr uint8_t kFileId = 1;

struct SimReader {
    zsim *sim = nullptr;
    char path[256] = {};
    SimReader()
    {
        sim = zsim_new();
        char err[256];
        std::string data(2 * kFileSize, '0');
        for (size_t i = 0; i < kFileSize; ++i) {
            static const char hexd[] = "0123456789ABCDEF";
            const uint8_t b = static_cast<uint8_t>(i * 7 + 3);
            data[2 * i] = hexd[b >> 4];
            data[2 * i + 1] = hexd[b & 15];
        }
        const std::string scenario =
            R"({"cards": [{"uid": "04D35F1E6A2B80", "sak": "20", "atqa": "0344", "type": "ORB_MIFARE_DESFIRE_EV1_8K",
              "model": "desfire", "setup": {"size": 8192, "version": "ev1", "master_key_type": "aes",
              "applications": [{"aid": "A1B2C3", "key_type": "aes", "keys": 3,
              "files": [{"id": 1, "type": "std", "size": 4096, "data": ")" +
            data + R"("}]}]}}]})";
        if (zsim_load_scenario(sim, scenario.c_str(), err, sizeof err) != 0 ||
            zsim_serve_pty(sim, path, sizeof path) != 0)
            std::abort();
    }
    ~SimReader() { zsim_free(sim); }
};

uint8_t checksum(const uint8_t *p, size_t n)
{
    uint8_t x = 0;
    for (size_t i = 0; i < n; ++i)
        x ^= p[i];
    return static_cast<uint8_t>(x + 7);
}

// Reads of the link into a buffer of its own, as many bytes as are there, so that the raw loop pays one
// system call per arrival and not one per field.
struct LinkBuffer {
    int fd;
    uint8_t buf[8192];
    size_t at = 0, end = 0;
    bool get(uint8_t *dst, size_t n)
    {
        while (n) {
            if (at == end) {
                at = end = 0;
                const ssize_t r = read(fd, buf, sizeof buf);
                if (r > 0) {
                    end = static_cast<size_t>(r);
                    continue;
                }
                pollfd p{fd, POLLIN, 0};
                if (poll(&p, 1, 1000) <= 0)
                    return false;
                continue;
            }
            const size_t take = end - at < n ? end - at : n;
            std::memcpy(dst, buf + at, take);
            at += take;
            dst += take;
            n -= take;
        }
        return true;
    }
};

// The raw read: the frame the library sends for the no-auth form, its acknowledge, the extended data, then
// the stream's pieces, its end mark and the closing response, read with no more parsing than their lengths.
bool raw_read(LinkBuffer &in, uint8_t *data)
{
    uint8_t frame[7] = {0x55, 0x83, 0xAA, 30, 0x00, 0x00, 0};
    frame[6] = checksum(frame, 6);
    uint8_t ext[30] = {};
    ext[18] = static_cast<uint8_t>(kAid);
    ext[19] = static_cast<uint8_t>(kAid >> 8);
    ext[20] = static_cast<uint8_t>(kAid >> 16);
    ext[22] = kFileId;
    ext[26] = static_cast<uint8_t>(kFileSize);
    ext[27] = static_cast<uint8_t>(kFileSize >> 8);
    ext[29] = checksum(ext, 29);
    uint8_t buf[300];
    if (write(in.fd, frame, 7) != 7 || !in.get(buf, 7) || write(in.fd, ext, 30) != 30)
        return false;
    size_t got = 0;
    for (;;) {
        uint8_t mark;
        if (!in.get(&mark, 1))
            return false;
        if (mark != 0)
            break;
        uint8_t len;
        if (!in.get(&len, 1) || got + len > kFileSize || !in.get(data + got, len))
            return false;
        got += len;
    }
    if (!in.get(buf, 7))
        return false;
    return in.get(buf + 7, buf[3]) && got == kFileSize;
}

void BM_DesfireStdRead4KiBOverRaw(benchmark::State &state)
{
    SimReader reader;
    zel_handle_record rec;
    zel_handle_init(&rec);
    if (zel::serial_open(&rec, reader.path, 1000000, true) != ZEL_OK) {
        state.SkipWithError("open failed");
        return;
    }
    LinkBuffer link{zel::com_fd(&rec), {}};
    Bytes raw(kFileSize), lib(kFileSize);
    int64_t raw_ns = 0, lib_ns = 0;
    uint64_t failures = 0;
    for (auto _ : state) {
        const int64_t t0 = zel::counter_ns();
        failures += !raw_read(link, raw.data());
        const int64_t t1 = zel::counter_ns();
        uint16_t cs = 0, et = 0;
        failures += Zel_int_DesfireReadStdDataFile_no_authM(&rec, kAid, 0, kFileId, 0, kFileSize, 0, lib.data(), &cs,
                                                            &et) != ZEL_OK ||
                    cs != CARD_OPERATION_OK;
        const int64_t t2 = zel::counter_ns();
        raw_ns += t1 - t0;
        lib_ns += t2 - t1;
    }
    failures += raw != lib;
    const double n = static_cast<double>(state.iterations());
    state.counters["raw_reads_per_s"] = raw_ns ? n * 1e9 / static_cast<double>(raw_ns) : 0;
    state.counters["library_reads_per_s"] = lib_ns ? n * 1e9 / static_cast<double>(lib_ns) : 0;
    state.counters["library_over_raw"] = lib_ns ? static_cast<double>(raw_ns) / static_cast<double>(lib_ns) : 0;
    state.counters["failures"] = static_cast<double>(failures);
    zelbench::on_modelled_line(state, reader.sim, [&] {
        uint16_t cs = 0, et = 0;
        return Zel_int_DesfireReadStdDataFile_no_authM(&rec, kAid, 0, kFileId, 0, kFileSize, 0, lib.data(), &cs, &et) ==
                   ZEL_OK &&
               cs == CARD_OPERATION_OK;
    });
    PortClose(&rec);
}

BENCHMARK(BM_DesfireStdRead4KiBOverRaw)->MinTime(3.0)->UseRealTime()->Repetitions(3);

} // namespace
