// tandro mrz TEXT...: checks and reads a machine readable zone (the lines may come as separate arguments or
// with line breaks), or the lower line of a passport alone.
#include <cstdio>
#include <string>

#include "tandro.h"
#include "tools/cli.h"

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

int run_mrz(const tandro::Options &opt, const tandro::Args &args)
{
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
    const ZEL_STATUS check = lower_line ? MRTD_MRZSubjacentCheck(mrz.c_str())
                                        : MRTD_MRZCheck(mrz.c_str(), static_cast<uint8_t>(mrz.size()));
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

const tandro::Registration mrz_cmd({"mrz", "TEXT...",
                                    "checks and reads a machine readable zone (TD1, TD2, TD3 or a passport's lower line)",
                                    run_mrz});

} // namespace
