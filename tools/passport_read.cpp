// Reading a travel document over BAC, shared by tandro passport and the demo.
#include "tools/passport_read.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cards/passport.h"
#include "tools/progress.h"
#include "tools/session.h"
#include "zelsim.h"

const char tandro::kSimulatedMrz[] =
    "P<UTOERIKSSON<<ANNA<MARIA<<<<<<<<<<<<<<<<<<<L898902C36UTO7408122F1204159ZE184226B<<<<<10";

// Removes the cards in front of the simulated passport, so that it is the card the reader activates.
void tandro::bring_passport_forward(zsim *sim)
{
    bring_forward(sim, "passport");
}

tandro::SimCscaFolder::SimCscaFolder()
{
    char tmpl[] = "/tmp/tandro-csca-XXXXXX";
    if (mkdtemp(tmpl) == nullptr)
        return;
    dir = tmpl;
    if (FILE *f = std::fopen((dir + "/simulated-csca.pem").c_str(), "w")) {
        std::fputs(zs::passport_csca_pem(), f);
        std::fclose(f);
    }
}

tandro::SimCscaFolder::~SimCscaFolder()
{
    if (dir.empty())
        return;
    unlink((dir + "/simulated-csca.pem").c_str());
    rmdir(dir.c_str());
}

namespace {

std::string photo_base(const std::string &path)
{
    for (const char *ext : {".jpeg", ".jpg", ".jp2"}) {
        const size_t n = std::strlen(ext);
        if (path.size() > n && path.compare(path.size() - n, n, ext) == 0)
            return path.substr(0, path.size() - n);
    }
    return path;
}

} // namespace

ZEL_STATUS tandro::read_passport(const std::string &doc, const std::string &birth, const std::string &expiry,
                                 const std::string &csca, const std::string &photo, int verbosity, PassportRead &out,
                                 const char **step, Progress *bar)
{
    auto stepped = [bar](unsigned n) {
        if (bar)
            bar->update(n);
    };
    auto fail = [step](const char *what, ZEL_STATUS st) {
        *step = what;
        return st;
    };
    initCryptoSubsys();
    ZEL_STATUS st = SetISO14443_4_Mode();
    if (st != ZEL_OK)
        return fail("no ISO 14443-4 card", st);
    char key[MRTD_PROTO_KEY_SIZE];
    st = MRTD_MRZDataToMRZProtoKey(doc.c_str(), birth.c_str(), expiry.c_str(), key);
    if (st != ZEL_OK)
        return fail("document number or dates", st);
    uint8_t ks_enc[16], ks_mac[16];
    uint64_t ssc = 0;
    st = MRTDAppSelectAndAuthenticateBac(key, ks_enc, ks_mac, &ssc);
    if (st != ZEL_OK)
        return fail("Basic Access Control", st);
    stepped(1);
    const uint8_t dg1_id[2] = {0x01, 0x01}, dg2_id[2] = {0x01, 0x02};
    uint8_t *dg1 = nullptr, *dg2 = nullptr;
    uint32_t dg1_len = 0, dg2_len = 0;
    st = MRTDFileReadBacToHeap(dg1_id, &dg1, &dg1_len, ks_enc, ks_mac, &ssc);
    if (st != ZEL_OK) {
        OrbFree(dg1);
        return fail("reading DG1", st);
    }
    char *holder = nullptr;
    if (dg1_len <= 255 && MRTDParseDG1ToHeap(&holder, "\n", dg1, uint8_t(dg1_len)) == ZEL_OK && holder)
        out.holder = holder;
    OrbFree(holder);
    OrbFree(dg1);
    stepped(2);
    const ZEL_STATUS dg2_st = MRTDFileReadBacToHeap(dg2_id, &dg2, &dg2_len, ks_enc, ks_mac, &ssc);
    if (!photo.empty()) {
        const std::string base = photo_base(photo);
        const uint8_t *image = nullptr;
        uint32_t image_len = 0, format = 0;
        ZEL_STATUS ps = dg2_st;
        if (ps == ZEL_OK)
            ps = MRTDGetImageFromDG2(dg2, int32_t(dg2_len), &image, &image_len, &format);
        if (ps == ZEL_OK)
            ps = MRTDGetImageFromDG2ToFile(dg2, dg2_len, base.c_str());
        out.photo_note = ps == ZEL_OK ? base + (format == MRTD_IMAGE_JPEG ? ".jpeg" : ".jp2") + " (" +
                                            std::to_string(image_len) + " bytes)"
                                      : std::string("not written: ") + ZEL_Status2String(ps);
        out.photo_failed = ps != ZEL_OK;
    }
    OrbFree(dg2);
    stepped(3);
    char *report = nullptr;
    out.validation = MRTDValidateHnd(&zel_global, csca.c_str(), &report, "\n", uint32_t(verbosity), ks_enc, ks_mac,
                                     &ssc, &out.integrity, &out.validity);
    if (report)
        out.report = report;
    OrbFree(report);
    stepped(4);
    return ZEL_OK;
}
