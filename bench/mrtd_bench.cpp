// Travel documents.
//
// 1. A BAC read of EF.COM, DG1, a 20 KB DG2 and EF.SOD over the simulated reader on a pseudo-terminal, by
//    the library (BAC, secure messaging, the file reads), against the raw time of the same frames on the same
//    link in the same run: the command APDUs the library sent, replayed through the plain APDU transport. A
//    first read against the simulated passport records the chip's answers; both then run, interleaved read
//    by read, against a chip that replays those answers, with the host randoms fixed, so that the bytes on
//    the wire are the same in both. The counter library_over_raw is the ratio (target: 0.90 or more).
// 2. MRTDValidate with a CSCA folder of N single certificates (50 to 500) and one master list of 200 that
//    holds the document's CSCA last (the worst case: every single certificate is read first). The folder is
//    made at the start in a temporary directory with OpenSSL's C API.
#include <benchmark/benchmark.h>

#include <dirent.h>
#include <unistd.h>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench_link.h"
#include "cards/passport.h"
#include "mrtd/mrtd_internal.h"
#include "tandro.h"
#include "transport/serial.h"
#include "zelsim.h"

namespace {

using Bytes = std::vector<uint8_t>;

const char kProtoKeyDoc[] = "L898902C3";
const zsim_card kCard = {{0x08, 0x21, 0x43, 0x65}, 4, 0x20, 0x0004, 0x40};

void fixed_randoms(uint8_t out[24])
{
    for (int i = 0; i < 24; ++i)
        out[i] = uint8_t(0x31 * i + 7);
}

std::string hex(const Bytes &b)
{
    static const char kHex[] = "0123456789ABCDEF";
    std::string s;
    for (uint8_t c : b) {
        s += kHex[c >> 4];
        s += kHex[c & 15];
    }
    return s;
}

// ---- 1. BAC read ----

struct Recorder {
    ZEL_HANDLE hnd;
    std::vector<Bytes> commands, answers;
};

ZEL_STATUS recording_transceive(void *context, const uint8_t *cmd, uint32_t cmd_len, uint8_t *resp, uint32_t *resp_len)
{
    auto *r = static_cast<Recorder *>(context);
    uint8_t *reply = nullptr;
    uint32_t reply_len = 0;
    const ZEL_STATUS st = APDUPlainTransceiveToHeapHnd(r->hnd, cmd, cmd_len, &reply, &reply_len);
    if (st == ZEL_OK && reply_len <= *resp_len) {
        std::memcpy(resp, reply, reply_len);
        *resp_len = reply_len;
        r->commands.emplace_back(cmd, cmd + cmd_len);
        r->answers.emplace_back(reply, reply + reply_len);
    }
    OrbFree(reply);
    return st == ZEL_OK && reply_len > *resp_len ? ZEL_APDU_TRANSCEIVE_ERROR : st;
}

// BAC and the four files: the library's whole work for one document read.
bool library_read()
{
    char key[MRTD_PROTO_KEY_SIZE];
    if (MRTD_MRZDataToMRZProtoKey(kProtoKeyDoc, "740812", "120415", key) != ZEL_OK)
        return false;
    uint8_t ks_enc[16], ks_mac[16];
    uint64_t ssc = 0;
    if (MRTDAppSelectAndAuthenticateBac(key, ks_enc, ks_mac, &ssc) != ZEL_OK)
        return false;
    for (uint8_t id : {0x1E, 0x01, 0x02, 0x1D}) {
        const uint8_t fid[2] = {0x01, id};
        uint8_t *data = nullptr;
        uint32_t len = 0;
        const ZEL_STATUS st = MRTDFileReadBacToHeap(fid, &data, &len, ks_enc, ks_mac, &ssc);
        OrbFree(data);
        if (st != ZEL_OK || (id == 0x02 && len < 20000))
            return false;
    }
    return true;
}

// A simulated reader holding a passport (optionally replaying answers), opened as the global reader.
struct PassportReader {
    zsim *sim = nullptr;
    bool ok = false;
    explicit PassportReader(const std::string &setup)
    {
        initCryptoSubsys();
        sim = zsim_new();
        char path[256] = {};
        ok = sim && zsim_card_add_model(sim, &kCard, "passport", setup.c_str()) == 0 &&
             zsim_serve_pty(sim, path, sizeof path) == 0 &&
             zel::serial_open(&zel_global, path, 1000000, true) == ZEL_OK;
        if (ok) {
            PortSetTimeout(&zel_global, 1000);
            ok = SetISO14443_4_Mode() == ZEL_OK;
        }
    }
    ~PassportReader()
    {
        ReaderClose();
        if (sim)
            zsim_free(sim);
    }
};

// The commands of one read and the chip's answers to them, recorded once against the real chip.
struct Recording {
    std::vector<Bytes> commands, answers;
    bool ok = false;
};

const Recording &recording()
{
    static const Recording rec = [] {
        Recording r;
        zel::mrtd::set_host_random_hook(fixed_randoms);
        PassportReader reader(R"({"face_size": 20000})");
        Recorder recorder{&zel_global, {}, {}};
        if (reader.ok) {
            zel::mrtd::set_link_hook(recording_transceive, &recorder);
            r.ok = library_read();
            zel::mrtd::set_link_hook(nullptr, nullptr);
        }
        r.commands = recorder.commands;
        r.answers = recorder.answers;
        return r;
    }();
    return rec;
}

std::string replay_setup(const Recording &r)
{
    std::string s = R"({"face_size": 20000, "replay": [)";
    for (size_t i = 0; i < r.answers.size(); ++i)
        s += (i ? ",\"" : "\"") + hex(r.answers[i]) + "\"";
    return s + "]}";
}

// The library's read and the raw frames interleaved, read by read, on one link against one replaying chip,
// so that a change of the machine's load hits both alike. Each read takes the same answers of the replay
// in the same order, so the two loops stay in step with it. library_over_raw is the raw loop's time over
// the library's.
void BM_MrtdBacReadLibraryOverRaw(benchmark::State &state)
{
    const Recording &r = recording();
    if (!r.ok) {
        state.SkipWithError("recording failed");
        return;
    }
    PassportReader reader(replay_setup(r));
    if (!reader.ok) {
        state.SkipWithError("reader failed");
        return;
    }
    zel::mrtd::set_host_random_hook(fixed_randoms);
    const auto raw = [&r] {
        bool ok = true;
        for (size_t i = 0; i < r.commands.size(); ++i) {
            uint8_t *reply = nullptr;
            uint32_t reply_len = 0;
            const ZEL_STATUS st =
                APDUPlainTransceiveToHeap(r.commands[i].data(), uint32_t(r.commands[i].size()), &reply, &reply_len);
            ok = ok && st == ZEL_OK && reply_len == r.answers[i].size();
            OrbFree(reply);
        }
        return ok;
    };
    zelbench::interleave(state, "reads", raw, library_read, reader.sim);
    zel::mrtd::set_host_random_hook(nullptr);
    state.counters["apdus_per_read"] = double(r.commands.size());
}

BENCHMARK(BM_MrtdBacReadLibraryOverRaw)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();

// ---- 2. Validation with a large CSCA folder ----

struct EvpKey {
    EVP_PKEY *key = nullptr;
    EvpKey() { key = EVP_EC_gen("prime256v1"); }
    ~EvpKey() { EVP_PKEY_free(key); }
};

// A self-signed CA certificate of a name of its own, in DER.
Bytes make_ca(EVP_PKEY *key, const std::string &cn, long serial)
{
    X509 *x = X509_new();
    X509_set_version(x, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(x), serial);
    X509_gmtime_adj(X509_getm_notBefore(x), 0);
    X509_gmtime_adj(X509_getm_notAfter(x), 3600L * 24 * 365);
    X509_set_pubkey(x, key);
    X509_NAME *name = X509_get_subject_name(x);
    X509_NAME_add_entry_by_txt(name, "C", MBSTRING_ASC, reinterpret_cast<const unsigned char *>("UT"), -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char *>(cn.c_str()), -1, -1,
                               0);
    X509_set_issuer_name(x, name);
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, x, x, nullptr, nullptr, 0);
    for (const auto &[nid, value] :
         std::vector<std::pair<int, const char *>>{{NID_basic_constraints, "critical,CA:TRUE"},
                                                   {NID_subject_key_identifier, "hash"},
                                                   {NID_authority_key_identifier, "keyid:always"}}) {
        X509_EXTENSION *e = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
        if (e) {
            X509_add_ext(x, e, -1);
            X509_EXTENSION_free(e);
        }
    }
    X509_sign(x, key, EVP_sha256());
    unsigned char *der = nullptr;
    const int n = i2d_X509(x, &der);
    Bytes out;
    if (n > 0)
        out.assign(der, der + n);
    OPENSSL_free(der);
    X509_free(x);
    return out;
}

Bytes der_tlv(uint8_t tag, const Bytes &value)
{
    Bytes out{tag};
    const size_t n = value.size();
    if (n < 0x80) {
        out.push_back(uint8_t(n));
    } else if (n < 0x100) {
        out.insert(out.end(), {0x81, uint8_t(n)});
    } else if (n < 0x10000) {
        out.insert(out.end(), {0x82, uint8_t(n >> 8), uint8_t(n)});
    } else {
        out.insert(out.end(), {0x83, uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)});
    }
    out.insert(out.end(), value.begin(), value.end());
    return out;
}

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

// A CSCA master list of the certificates (its signature is not read, so the list carries none).
Bytes master_list(const std::vector<Bytes> &certs)
{
    Bytes set;
    for (const Bytes &c : certs)
        set.insert(set.end(), c.begin(), c.end());
    const Bytes signed_data_oid = {0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x07, 0x02};
    const Bytes list_oid = {0x06, 0x06, 0x67, 0x81, 0x08, 0x01, 0x01, 0x02};
    const Bytes list = der_tlv(0x30, cat({{0x02, 0x01, 0x00}, der_tlv(0x31, set)}));
    const Bytes encap = der_tlv(0x30, cat({list_oid, der_tlv(0xA0, der_tlv(0x04, list))}));
    const Bytes signed_data = der_tlv(0x30, cat({{0x02, 0x01, 0x03, 0x31, 0x00}, encap, {0x31, 0x00}}));
    return der_tlv(0x30, cat({signed_data_oid, der_tlv(0xA0, signed_data)}));
}

Bytes pem_to_der(const char *pem)
{
    BIO *bio = BIO_new_mem_buf(pem, -1);
    X509 *x = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
    unsigned char *der = nullptr;
    const int n = x ? i2d_X509(x, &der) : -1;
    Bytes out;
    if (n > 0)
        out.assign(der, der + n);
    OPENSSL_free(der);
    X509_free(x);
    BIO_free(bio);
    return out;
}

void write_file(const std::string &path, const Bytes &data)
{
    if (FILE *f = std::fopen(path.c_str(), "wb")) {
        std::fwrite(data.data(), 1, data.size(), f);
        std::fclose(f);
    }
}

// The folders, one per size, made once: N certificates and the master list.
class CscaFolders {
public:
    static CscaFolders &get()
    {
        static CscaFolders f;
        return f;
    }
    std::string folder(int n)
    {
        auto it = dirs_.find(n);
        if (it != dirs_.end())
            return it->second;
        char tmpl[] = "/tmp/zel-mrtd-bench-XXXXXX";
        if (mkdtemp(tmpl) == nullptr)
            return "";
        const std::string dir = tmpl;
        for (int i = 0; i < n; ++i) {
            char name[32];
            std::snprintf(name, sizeof name, "/csca%04d.der", i);
            write_file(dir + name, single_[size_t(i)]);
        }
        write_file(dir + "/countries.ml", list_);
        dirs_[n] = dir;
        return dir;
    }
    ~CscaFolders()
    {
        for (const auto &d : dirs_) {
            if (DIR *dir = opendir(d.second.c_str())) {
                while (const dirent *e = readdir(dir))
                    if (std::strcmp(e->d_name, ".") && std::strcmp(e->d_name, ".."))
                        unlink((d.second + "/" + e->d_name).c_str());
                closedir(dir);
            }
            rmdir(d.second.c_str());
        }
    }

private:
    CscaFolders()
    {
        EvpKey key;
        for (int i = 0; i < 500; ++i)
            single_.push_back(make_ca(key.key, "CSCA single " + std::to_string(i), 100 + i));
        std::vector<Bytes> listed;
        for (int i = 0; i < 199; ++i)
            listed.push_back(make_ca(key.key, "CSCA listed " + std::to_string(i), 1000 + i));
        listed.push_back(pem_to_der(zs::passport_csca_pem()));
        list_ = master_list(listed);
    }
    std::vector<Bytes> single_;
    Bytes list_;
    std::map<int, std::string> dirs_;
};

// The simulated chip in process, as the card link of the validation.
struct InProcessChip {
    zs::AppHost host;
    InProcessChip()
    {
        zs::PassportDocument doc;
        std::string err;
        zs::passport_build({}, doc, err);
        host.add(std::make_unique<zs::PassportApp>(std::move(doc)));
        zel::mrtd::set_link_hook(&InProcessChip::transceive, this);
    }
    ~InProcessChip() { zel::mrtd::set_link_hook(nullptr, nullptr); }
    static ZEL_STATUS transceive(void *context, const uint8_t *cmd, uint32_t n, uint8_t *resp, uint32_t *resp_len)
    {
        const Bytes r = static_cast<InProcessChip *>(context)->host.transceive(cmd, n);
        if (r.size() > *resp_len)
            return ZEL_APDU_TRANSCEIVE_ERROR;
        std::memcpy(resp, r.data(), r.size());
        *resp_len = uint32_t(r.size());
        return ZEL_OK;
    }
};

void BM_MrtdValidateCscaFolder(benchmark::State &state)
{
    initCryptoSubsys();
    const std::string dir = CscaFolders::get().folder(int(state.range(0)));
    InProcessChip chip;
    char key[MRTD_PROTO_KEY_SIZE];
    MRTD_MRZDataToMRZProtoKey(kProtoKeyDoc, "740812", "120415", key);
    uint64_t failures = 0;
    for (auto _ : state) {
        uint8_t ks_enc[16], ks_mac[16], integrity = 0, validity = 0;
        uint64_t ssc = 0;
        char *text = nullptr;
        ZEL_STATUS st = MRTDAppSelectAndAuthenticateBac(key, ks_enc, ks_mac, &ssc);
        if (st == ZEL_OK)
            st = MRTDValidateHnd(&zel_global, dir.c_str(), &text, "\n", 1, ks_enc, ks_mac, &ssc, &integrity, &validity);
        OrbFree(text);
        failures += st != ZEL_OK || !validity;
    }
    state.counters["certificates"] = double(state.range(0));
    state.counters["failures"] = double(failures);
}

BENCHMARK(BM_MrtdValidateCscaFolder)->Arg(50)->Arg(100)->Arg(200)->Arg(500)->Unit(benchmark::kMillisecond);

} // namespace
