// tandro mrz TEXT...: checks and reads a machine readable zone (the lines may come as separate arguments or
// with line breaks), or the lower line of a passport alone.
// tandro passport: reads a travel document over BAC, prints the holder's data and the validation report,
// writes the JSON document and the face image.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tandro.h"
#include "tools/cli.h"
#include "tools/options.h"
#include "tools/passport_read.h"
#include "tools/progress.h"
#include "tools/session.h"
#include "zelsim.h"

namespace {

const char *format_name(ZEL_STATUS format)
{
    switch (format) {
    case MRTD_FORMAT_TD1: return "TD1";
    case MRTD_FORMAT_TD2: return "TD2";
    case MRTD_FORMAT_TD3: return "TD3";
    default: return "unknown";
    }
}

std::string status_name(ZEL_STATUS st)
{
    const std::string text = ZEL_Status2String(st);
    const size_t close = text.find("] ");
    return close == std::string::npos ? text : text.substr(close + 2);
}

// The three fields of the proto key: document number (9), birth (6), expiry (6).
bool key_fields(const std::string &mrz, ZEL_STATUS format, std::string *doc, std::string *birth, std::string *expiry)
{
    size_t d = 0, b = 0, e = 0;
    if (format == MRTD_FORMAT_TD1) {
        d = 5, b = 30, e = 38;
    } else if (format == MRTD_FORMAT_TD3) {
        d = 44, b = 57, e = 65;
    } else if (format == MRTD_FORMAT_TD2) {
        d = 36, b = 49, e = 57;
    } else {
        return false;
    }
    *doc = mrz.substr(d, 9);
    *birth = mrz.substr(b, 6);
    *expiry = mrz.substr(e, 6);
    return true;
}

const tandro::OptionTable MRZ_TABLE = {
    {{"TEXT...", "checks the zone's check digits, prints its fields and the document's BAC proto key"}},
    {},
    "The lines of the zone may come as separate words or with line breaks (blanks are dropped): TD1 (3 lines of "
    "30), TD2 (2 of 36), TD3 (2 of 44), or a passport's lower line alone. The command fails when a check digit "
    "is wrong.",
};

int run_mrz(const tandro::Options &opt, const tandro::Args &all)
{
    tandro::Parsed parsed;
    if (!tandro::parse("mrz", MRZ_TABLE, all, parsed))
        return 2;
    const tandro::Args &args = parsed.words;
    if (args.empty())
        return tandro::usage_error("mrz", "give the MRZ text");
    std::string mrz;
    for (const std::string &a : args)
        for (char c : a)
            if (c != '\n' && c != '\r' && c != ' ' && c != '\t')
                mrz += c;
    if (mrz.size() > 255)
        return tandro::usage_error("mrz", "an MRZ has at most 90 characters");

    const bool lower_line = mrz.size() == 44;
    const ZEL_STATUS format = lower_line ? MRTD_FORMAT_TD3 : MRTD_MRZDetectFormat(mrz.data(), mrz.size());
    const ZEL_STATUS check =
        lower_line ? MRTD_MRZSubjacentCheck(mrz.c_str()) : MRTD_MRZCheck(mrz.c_str(), static_cast<uint8_t>(mrz.size()));
    const bool known = format == MRTD_FORMAT_TD1 || format == MRTD_FORMAT_TD2 || format == MRTD_FORMAT_TD3;

    char key[MRTD_PROTO_KEY_SIZE] = "";
    ZEL_STATUS key_status = MRTD_MRZ_CHECK_ERROR;
    std::string doc, birth, expiry;
    if (lower_line)
        key_status = MRTD_MRZSubjacentToMRZProtoKey(mrz.c_str(), key);
    else if (key_fields(mrz, format, &doc, &birth, &expiry))
        key_status = MRTD_MRZDataToMRZProtoKey(doc.c_str(), birth.c_str(), expiry.c_str(), key);

    std::string text;
    if (known && !lower_line) {
        char *t = nullptr;
        const ZEL_STATUS st = format == MRTD_FORMAT_TD1   ? MRZSprintfDataTD1Format(&t, nullptr, mrz.c_str())
                              : format == MRTD_FORMAT_TD2 ? MRZSprintfDataTD2Format(&t, nullptr, mrz.c_str())
                                                          : MRZSprintfDataTD3Format(&t, nullptr, mrz.c_str());
        if (st == ZEL_OK && t)
            text = t;
        OrbFree(t);
    }

    const char *shape = lower_line ? "TD3 lower line" : format_name(format);
    if (opt.json) {
        std::string data = "null";
        if (known && !lower_line && format != MRTD_FORMAT_TD2) {
            char json[2048];
            uint32_t n = sizeof json;
            if (MRZDataToJSON(json, &n, mrz.c_str(), static_cast<uint8_t>(mrz.size()), nullptr, 0) == ZEL_OK)
                data.assign(json, n);
        }
        std::printf("{\"format\": %s, \"valid\": %s, \"status\": %s, \"proto_key\": %s, \"data\": %s}\n",
                    tandro::json_string(shape).c_str(), check == ZEL_OK ? "true" : "false",
                    tandro::json_string(status_name(check)).c_str(),
                    key_status == ZEL_OK ? tandro::json_string(key).c_str() : "null", data.c_str());
    } else {
        std::printf("Format: %s (%zu characters)\n", shape, mrz.size());
        if (check == ZEL_OK)
            std::printf("Check digits: valid\n");
        else
            std::printf("Check digits: %s\n", status_name(check).c_str());
        if (key_status == ZEL_OK)
            std::printf("MRZ proto key: %s\n", key);
        std::fputs(text.c_str(), stdout);
    }
    return check == ZEL_OK ? 0 : 1;
}

const tandro::Registration mrz_cmd(
    {"mrz", "TEXT...", "checks and reads a machine readable zone (TD1, TD2, TD3 or a passport's lower line)", run_mrz,
     false, &MRZ_TABLE});

} // namespace

namespace {

struct PassportArgs {
    std::string mrz, doc, birth, expiry, json_file, photo, csca;
    bool json_file_given = false;
};

const tandro::OptionTable PASSPORT_TABLE = {
    {
        {"--mrz TEXT", "reads the document whose machine readable zone is TEXT (TD1, TD3 or the lower line)"},
        {"--doc N --birth YYMMDD --expiry YYMMDD", "reads the document with this number and these dates"},
    },
    {
        {"--mrz", "TEXT", "the machine readable zone (or a passport's lower line)"},
        {"--doc", "N", "the document number"},
        {"--birth", "YYMMDD", "the holder's date of birth"},
        {"--expiry", "YYMMDD", "the document's date of expiry"},
        {"--photo", "FILE", "write the face image to FILE (.jpeg or .jp2 by its format)"},
        {"--csca", "DIR", "the folder of CSCA certificates to validate against (default ./csca)"},
    },
    "The holder's data, the face image and the validation report are printed; with --json the document's JSON "
    "is printed instead, and with --json FILE written to FILE next to the text. With the built-in simulated "
    "reader and no --mrz or --doc the simulated specimen is read, validated against its own CSCA. The read shows "
    "a progress bar on a terminal.",
};

bool parse_passport_args(const tandro::Options &opt, const tandro::Parsed &p, PassportArgs &a, std::string &err)
{
    a.mrz = p.value("--mrz");
    a.doc = p.value("--doc");
    a.birth = p.value("--birth");
    a.expiry = p.value("--expiry");
    a.photo = p.value("--photo");
    a.csca = p.value("--csca");
    if (opt.sim && !p.has("--mrz") && !p.has("--doc"))
        a.mrz = tandro::kSimulatedMrz;
    const std::vector<std::string> &rest = p.words;
    // "--json FILE": the tool takes --json itself, so the file stands alone behind it.
    if (rest.size() == 1 && opt.json) {
        a.json_file = rest[0];
        a.json_file_given = true;
    } else if (!rest.empty()) {
        err = "unexpected argument " + rest[0];
        return false;
    }
    if (!a.mrz.empty()) {
        std::string m;
        for (char c : a.mrz)
            if (c != '\n' && c != '\r' && c != ' ' && c != '\t')
                m += c;
        const ZEL_STATUS format = m.size() == 44 ? MRTD_FORMAT_TD3 : MRTD_MRZDetectFormat(m.data(), m.size());
        const size_t base = m.size() == 44 ? 0 : 44;
        if (format == MRTD_FORMAT_TD3 && m.size() >= base + 44) {
            a.doc = m.substr(base, 9), a.birth = m.substr(base + 13, 6), a.expiry = m.substr(base + 21, 6);
        } else if (format == MRTD_FORMAT_TD1) {
            a.doc = m.substr(5, 9), a.birth = m.substr(30, 6), a.expiry = m.substr(38, 6);
        } else {
            err = "the MRZ is no TD1, TD3 or passport lower line";
            return false;
        }
        while (!a.doc.empty() && a.doc.back() == '<')
            a.doc.pop_back();
    }
    if (a.doc.empty() || a.birth.size() != 6 || a.expiry.size() != 6) {
        err = "give --mrz TEXT, or --doc NUMBER --birth YYMMDD --expiry YYMMDD";
        return false;
    }
    return true;
}

int run_passport(const tandro::Options &opt, const tandro::Args &args)
{
    tandro::Parsed parsed;
    if (!tandro::parse("passport", PASSPORT_TABLE, args, parsed))
        return 2;
    PassportArgs a;
    std::string err;
    if (!parse_passport_args(opt, parsed, a, err))
        return tandro::usage_error("passport", err);
    // A CSCA folder named on the command line must be there: without it nothing can be validated.
    if (struct stat st{}; !a.csca.empty() && (stat(a.csca.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)))
        return tandro::fail_text("passport", "--csca " + a.csca + ": not a readable folder",
                                 ZEL_FILE_SYSTEM_PATH_NOT_EXISTS);

    tandro::ReaderSession session;
    if (!session.open("passport", opt))
        return 1;
    std::unique_ptr<tandro::SimCscaFolder> sim_csca;
    if (session.sim()) {
        tandro::bring_passport_forward(session.sim());
        if (a.csca.empty()) {
            sim_csca = std::make_unique<tandro::SimCscaFolder>();
            a.csca = sim_csca->dir;
        }
    }
    if (a.csca.empty())
        a.csca = "./csca";
    initCryptoSubsys();
    tandro::GlobalReader global(session.hnd());
    auto fail = [](const char *what, ZEL_STATUS st) { return tandro::fail("passport", what, st); };
    tandro::PassportRead read;
    const char *step = nullptr;
    tandro::Progress bar(opt, "passport", tandro::kPassportSteps, "steps");
    bar.update(0);
    ZEL_STATUS st =
        tandro::read_passport(a.doc, a.birth, a.expiry, a.csca, a.photo, opt.debug ? 3 : 1, read, &step, &bar);
    bar.done(st == ZEL_OK);
    if (st != ZEL_OK)
        return fail(step, st);
    const ZEL_STATUS vst = read.validation;
    const uint8_t integrity = read.integrity, validity = read.validity;

    // The JSON document, through the document session.
    std::string json;
    if (opt.json) {
        st = MRTD_SessionInit(a.doc.c_str(), a.birth.c_str(), a.expiry.c_str());
        if (st == ZEL_OK) {
            std::vector<char> buf(1u << 20);
            uint32_t len = uint32_t(buf.size());
            st = MRTD_ReadDocumentDataEx(buf.data(), &len, 0, 0, nullptr);
            if (st == ZEL_OK && len >= 2) {
                json.assign(buf.data(), len - 1);
                json += std::string(json.size() > 1 ? "," : "") +
                        "\"Validation\":{\"document_integrity\":" + (integrity ? "true" : "false") +
                        ",\"csca_root_validity\":" + (validity ? "true" : "false") +
                        ",\"status\":" + tandro::json_string(ZEL_Status2String(vst)) + "}}";
            }
        }
        MRTD_SessionClose();
        if (json.empty())
            return fail("reading the document", st);
    }

    if (a.json_file_given || !opt.json) {
        std::printf("Document on the %s\n", session.where().c_str());
        std::fputs(read.holder.empty() ? "DG1: not readable\n" : read.holder.c_str(), stdout);
        if (!read.photo_note.empty())
            std::printf("Face image: %s\n", read.photo_note.c_str());
        std::printf("\nValidation (CSCA folder %s):\n%s\n", a.csca.c_str(), read.report.c_str());
        std::printf("Document integrity: %s\nCSCA root validity: %s\nResult: %s\n", integrity ? "yes" : "no",
                    validity ? "yes" : "no", ZEL_Status2String(vst));
    }
    if (a.json_file_given) {
        FILE *f = std::fopen(a.json_file.c_str(), "w");
        if (f == nullptr || std::fputs(json.c_str(), f) < 0) {
            if (f)
                std::fclose(f);
            return tandro::fail_text("passport", "cannot write " + a.json_file, ZEL_FILE_SYSTEM_ERROR);
        }
        std::fclose(f);
        std::printf("JSON document: %s\n", a.json_file.c_str());
    } else if (opt.json) {
        std::printf("%s\n", json.c_str());
    }
    // A face image that was asked for and not written is a failure too.
    if (read.photo_failed)
        return tandro::fail_text("passport", "--photo " + a.photo + ": " + read.photo_note, ZEL_FILE_SYSTEM_ERROR);
    return vst == ZEL_OK ? 0 : tandro::fail("passport", "validation", vst);
}

const tandro::Registration passport_cmd(
    {"passport", "--mrz TEXT | --doc N --birth YYMMDD --expiry YYMMDD [--json FILE] [--photo FILE] [--csca DIR]",
     "reads a travel document over BAC: holder's data, face image, JSON document and validation", run_passport, false,
     &PASSPORT_TABLE});

} // namespace
