// Passive authentication of a hostile document: EF.COM, EF.SOD (with the document signer's certificate
// inside), the data groups the validation hashes, and the CSCA file and master list of the certificate
// folder all come from the input. The simulated passport chip serves the files under BAC and secure
// messaging (its cryptography is its own), so the bytes reach the validation as a genuine chip would give
// them; the chip's and the host's randoms are fixed so that a run repeats.
//
// Input: one option byte, then sections of a two-byte big-endian length and the bytes, in this order:
// EF.COM, EF.SOD, DG1, DG2, DG11, DG14, the CSCA file (csca.der) and a master list (list.ml). A missing
// section leaves the file out (an empty DG1 section: no DG1 on the chip).
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "cards/passport.h"
#include "mrtd/mrtd_internal.h"
#include "tandro.h"

namespace {

const char kTd3[] = "P<UTOERIKSSON<<ANNA<MARIA<<<<<<<<<<<<<<<<<<<L898902C36UTO7408122F1204159ZE184226B<<<<<10";

void chip_randoms(uint8_t *out, size_t n, void *)
{
    for (size_t i = 0; i < n; ++i)
        out[i] = static_cast<uint8_t>(0x5A ^ i * 7);
}

void host_randoms(uint8_t out[24])
{
    for (int i = 0; i < 24; ++i)
        out[i] = static_cast<uint8_t>(0xA5 ^ i * 13);
}

struct Chip {
    zs::AppHost host;

    static ZEL_STATUS transceive(void *context, const uint8_t *cmd, uint32_t cmd_len, uint8_t *resp, uint32_t *resp_len)
    {
        auto *self = static_cast<Chip *>(context);
        const std::vector<uint8_t> r = self->host.transceive(cmd, cmd_len);
        if (r.size() > *resp_len)
            return ZEL_APDU_TRANSCEIVE_ERROR;
        std::memcpy(resp, r.data(), r.size());
        *resp_len = static_cast<uint32_t>(r.size());
        return ZEL_OK;
    }
};

// A certificate folder of the test case's own, removed with its files at the end of the case.
class Folder {
public:
    Folder()
    {
        char tmpl[] = "/tmp/fuzz_mrtd_validate.XXXXXX";
        const char *made = mkdtemp(tmpl);
        if (made == nullptr)
            std::abort();
        path_ = made;
    }
    ~Folder()
    {
        for (const char *name : kNames)
            unlink((path_ + "/" + name).c_str());
        rmdir(path_.c_str());
    }
    Folder(const Folder &) = delete;
    Folder &operator=(const Folder &) = delete;

    const char *path() const { return path_.c_str(); }
    // Writes the file when present.
    void put(const char *name, const uint8_t *data, size_t len, bool present) const
    {
        if (!present)
            return;
        FILE *f = std::fopen((path_ + "/" + name).c_str(), "wb");
        if (f == nullptr)
            std::abort();
        if (len && std::fwrite(data, 1, len, f) != len)
            std::abort();
        std::fclose(f);
    }

    static constexpr const char *kNames[] = {"csca.der", "list.ml"};

private:
    std::string path_;
};

struct Reader {
    const uint8_t *data;
    size_t size, at = 0;
    // The next section; false when the input has ended.
    bool next(const uint8_t *&p, size_t &n)
    {
        if (size - at < 2)
            return false;
        n = static_cast<size_t>(data[at]) << 8 | data[at + 1];
        at += 2;
        if (n > size - at)
            n = size - at;
        p = data + at;
        at += n;
        return true;
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // The hash and signature facade is set up once, as an application does before validating.
    static const bool crypto = [] {
        initCryptoSubsys();
        return true;
    }();
    (void)crypto;
    if (size < 1 || size > 40000)
        return 0;
    const uint8_t options = data[0];
    Reader in{data + 1, size - 1};
    static const uint16_t kFiles[] = {0x011E, 0x011D, 0x0101, 0x0102, 0x010B, 0x010E};
    zs::PassportDocument doc;
    doc.mrz = kTd3;
    for (const uint16_t id : kFiles) {
        const uint8_t *p = nullptr;
        size_t n = 0;
        if (in.next(p, n) && n > 0)
            doc.files[id] = std::vector<uint8_t>(p, p + n);
    }
    const uint8_t *p = nullptr;
    size_t n = 0;
    const Folder folder;
    const bool has_csca = in.next(p, n) && n > 0;
    folder.put(Folder::kNames[0], p, n, has_csca);
    const bool has_list = in.next(p, n) && n > 0;
    folder.put(Folder::kNames[1], p, n, has_list);

    Chip chip;
    auto app = std::make_unique<zs::PassportApp>(std::move(doc));
    app->set_random_source(chip_randoms, nullptr);
    chip.host.add(std::move(app));
    zel::mrtd::set_link_hook(&Chip::transceive, &chip);
    zel::mrtd::set_host_random_hook(host_randoms);

    char key[MRTD_PROTO_KEY_SIZE];
    uint8_t ks_enc[16] = {}, ks_mac[16] = {};
    uint64_t ssc = 0;
    if (MRTD_MRZDataToMRZProtoKey("L898902C3", "740812", "120415", key) == ZEL_OK &&
        MRTDAppSelectAndAuthenticateBac(key, ks_enc, ks_mac, &ssc) == ZEL_OK) {
        if (options & 1) {
            // A read of DG2 first, whose digest the library keeps.
            const uint8_t dg2[2] = {0x01, 0x02};
            uint8_t *face = nullptr;
            uint32_t face_len = 0;
            (void)MRTDFileReadBacToHeap(dg2, &face, &face_len, ks_enc, ks_mac, &ssc);
            OrbFree(face);
        }
        const uint32_t verbosity = (options >> 1) % 4;
        char *text = nullptr;
        uint8_t integrity = 0xFF, validity = 0xFF;
        const ZEL_STATUS st = MRTDValidateHnd(&zel_global, folder.path(), verbosity ? &text : nullptr, "\n", verbosity,
                                              ks_enc, ks_mac, &ssc, &integrity, &validity);
        // The flags are always written, and only as 0 or 1; a text is given whenever one was asked for.
        if (integrity > 1 || validity > 1 || (verbosity && text == nullptr))
            std::abort();
        // Whatever the files, the CSCA is never confirmed without a CSCA file or master list to find it in.
        if (validity == 1 && !has_csca && !has_list)
            std::abort();
        if (text != nullptr && std::strlen(text) > 1000000)
            std::abort();
        (void)st;
        OrbFree(text);
        uint8_t *ds = nullptr;
        uint32_t ds_len = 0;
        if (options & 8) {
            if (MRTD_SOD_CertToHeapHnd(&zel_global, &ds, &ds_len, ks_enc, ks_mac, &ssc) == ZEL_OK && ds_len == 0)
                std::abort();
            OrbFree(ds);
        }
    }
    zel::mrtd::set_host_random_hook(nullptr);
    zel::mrtd::set_link_hook(nullptr, nullptr);
    return 0;
}
