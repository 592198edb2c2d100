// The MRZ as readable text and as JSON members, and the readable text of an EF.DG1 file.
#include <cstring>

#include "mrtd/mrtd_internal.h"
#include "zel_crypto.h"
#include "zel_mrtd.h"
#include "zel_status.h"

namespace {

constexpr uint8_t kBirthPivot = 24;
constexpr uint8_t kExpiryPivot = 100;

// A fixed field of the MRZ as a NUL-terminated text.
struct Field {
    char text[48];
    Field(const char *mrz, int offset, int width)
    {
        std::memcpy(text, mrz + offset, static_cast<size_t>(width));
        text[width] = '\0';
    }
};

// One line of the readable text: label, value with fillers as spaces, eol.
ZEL_STATUS line(char **text, const char *eol, const char *label, const char *mrz, int offset, int width)
{
    Field f(mrz, offset, width);
    MRZToSpace(f.text);
    return Orbsprintf(text, nullptr, label, f.text, eol);
}

ZEL_STATUS date_line(char **text, const char *eol, const char *label, const char *mrz, int offset, uint8_t pivot)
{
    char date[12];
    MRZToDate(mrz + offset, date, pivot);
    MRZToSpace(date);
    return Orbsprintf(text, nullptr, label, date, eol);
}

ZEL_STATUS sex_line(char **text, const char *eol, const char *mrz, int offset)
{
    const char sex[2] = {mrz[offset], '\0'};
    return Orbsprintf(text, nullptr, "Sex: ", sex, eol);
}

ZEL_STATUS head_lines(char **text, const char *eol, const char *mrz, const char *format_name)
{
    ZEL_STATUS st = Orbsprintf(text, nullptr, "eMRTD format: ", format_name, eol);
    if (st != ZEL_OK)
        return st;
    char code[16];
    Field f(mrz, 0, 2);
    MRZToSpace(f.text);
    std::strcpy(code, f.text);
    if (std::strcmp(code, "P ") == 0)
        std::strcat(code, "(ePassport)");
    st = Orbsprintf(text, nullptr, "Document code: ", code, eol);
    if (st != ZEL_OK)
        return st;
    return line(text, eol, "Issuing State or organization: ", mrz, 2, 3);
}

// Runs the lines one after the other and stops at the first failure.
template <typename... Steps> ZEL_STATUS all(Steps... steps)
{
    ZEL_STATUS st = ZEL_OK;
    ((st == ZEL_OK ? (st = steps()) : st), ...);
    return st;
}

ZEL_STATUS start_text(char **text)
{
    if (text == nullptr)
        return ZEL_PARAMETERS_ERROR;
    *text = nullptr;
    return ZEL_OK;
}

// A JSON member of a fixed field: fillers to spaces, trailing spaces cut.
bool put_field(char *out, uint32_t cap, uint32_t *pos, const char *key, const char *mrz, int offset, int width)
{
    Field f(mrz, offset, width);
    MRZToSpaceTrim(f.text);
    return zel::mrtd::json_put_member(out, cap, pos, key, f.text, false);
}

bool put_date(char *out, uint32_t cap, uint32_t *pos, const char *key, const char *mrz, int offset, uint8_t pivot)
{
    char date[12];
    MRZToDate(mrz + offset, date, pivot);
    MRZToSpaceTrim(date);
    return zel::mrtd::json_put_member(out, cap, pos, key, date, false);
}

bool put_sex(char *out, uint32_t cap, uint32_t *pos, const char *mrz, int offset)
{
    const char sex[2] = {mrz[offset], '\0'};
    return zel::mrtd::json_put_member(out, cap, pos, "sex", sex, false);
}

bool json_args_ok(const char *out, int32_t capacity, const uint32_t *pos, const char *mrz)
{
    return out != nullptr && pos != nullptr && mrz != nullptr && capacity > 0 && *pos < uint32_t(capacity);
}

} // namespace

namespace zel::mrtd {

ZEL_STATUS mrz_json_members(char *out, uint32_t cap, uint32_t *pos, const char *mrz, uint32_t mrz_len,
                            ZEL_STATUS head_no_room)
{
    const char *type = "unknown";
    if (mrz[0] == 'P')
        type = "ePassport";
    else if (mrz[0] == 'I' && mrz[1] == 'D')
        type = "IdentityCard";
    Field code(mrz, 0, 2);
    MRZToSpaceTrim(code.text);
    if (!json_put_member(out, cap, pos, "document_code", code.text, true) ||
        !json_put_member(out, cap, pos, "document_type", type, false) ||
        !put_field(out, cap, pos, "issuing_state", mrz, 2, 3))
        return head_no_room;
    return mrz_len == 90 ? ParseTD1Format(out, int32_t(cap), pos, mrz + 5)
                         : ParseTD3Format(out, int32_t(cap), pos, mrz + 5);
}

} // namespace zel::mrtd

extern "C" {

ZEL_API ZEL_STATUS MRZSprintfDataTD1Format(char **text, const char *eol, const char *mrz)
{
    ZEL_STATUS st = start_text(text);
    if (st != ZEL_OK || mrz == nullptr)
        return st != ZEL_OK ? st : ZEL_PARAMETERS_ERROR;
    const char *extension = mrz[14] == '<' ? "Document number extension: " : "Optional data: ";
    return all([&] { return head_lines(text, eol, mrz, "DG1"); },
               [&] { return line(text, eol, "Document number: ", mrz, 5, 9); },
               [&] { return line(text, eol, extension, mrz, 15, 15); },
               [&] { return date_line(text, eol, "Date of birth (dd.MM.yyyy.): ", mrz, 30, kBirthPivot); },
               [&] { return sex_line(text, eol, mrz, 37); },
               [&] { return date_line(text, eol, "Date of expiry (dd.MM.yyyy.): ", mrz, 38, kExpiryPivot); },
               [&] { return line(text, eol, "Nationality: ", mrz, 45, 3); },
               [&] { return line(text, eol, "Optional data: ", mrz, 48, 11); },
               [&] { return line(text, eol, "Name of holder: ", mrz, 60, 30); });
}

ZEL_API ZEL_STATUS MRZSprintfDataTD2Format(char **text, const char *eol, const char *mrz)
{
    ZEL_STATUS st = start_text(text);
    if (st != ZEL_OK || mrz == nullptr)
        return st != ZEL_OK ? st : ZEL_PARAMETERS_ERROR;
    return all([&] { return head_lines(text, eol, mrz, "DG2"); },
               [&] { return line(text, eol, "Name of holder: ", mrz, 5, 31); },
               [&] { return line(text, eol, "Document number: ", mrz, 36, 9); },
               [&] { return line(text, eol, "Nationality: ", mrz, 46, 3); },
               [&] { return date_line(text, eol, "Date of birth (dd.MM.yyyy.): ", mrz, 49, kBirthPivot); },
               [&] { return sex_line(text, eol, mrz, 56); },
               [&] { return date_line(text, eol, "Date of expiry (dd.MM.yyyy.): ", mrz, 57, kExpiryPivot); },
               [&] { return line(text, eol, "Optional data: ", mrz, 64, 7); });
}

ZEL_API ZEL_STATUS MRZSprintfDataTD3Format(char **text, const char *eol, const char *mrz)
{
    ZEL_STATUS st = start_text(text);
    if (st != ZEL_OK || mrz == nullptr)
        return st != ZEL_OK ? st : ZEL_PARAMETERS_ERROR;
    return all([&] { return head_lines(text, eol, mrz, "DG3"); },
               [&] { return line(text, eol, "Name of holder: ", mrz, 5, 39); },
               [&] { return line(text, eol, "Document number: ", mrz, 44, 9); },
               [&] { return line(text, eol, "Nationality: ", mrz, 54, 3); },
               [&] { return date_line(text, eol, "Date of birth (dd.MM.yyyy.): ", mrz, 57, kBirthPivot); },
               [&] { return sex_line(text, eol, mrz, 64); },
               [&] { return date_line(text, eol, "Date of expiry (dd.MM.yyyy.): ", mrz, 65, kExpiryPivot); },
               [&] { return line(text, eol, "Optional data: ", mrz, 72, 14); });
}

// Offsets below count from offset 5 of the MRZ.
ZEL_API ZEL_STATUS ParseTD1Format(char *out, int32_t capacity, uint32_t *pos, const char *mrz)
{
    if (!json_args_ok(out, capacity, pos, mrz))
        return ZEL_BUFFER_OVERFLOW;
    const uint32_t cap = uint32_t(capacity);
    const char *second = mrz[9] == '<' ? "document_number_extension" : "optional_data";
    const bool ok =
        put_field(out, cap, pos, "document_number", mrz, 0, 9) && put_field(out, cap, pos, second, mrz, 10, 15) &&
        put_date(out, cap, pos, "date_of_birth", mrz, 25, kBirthPivot) && put_sex(out, cap, pos, mrz, 32) &&
        put_date(out, cap, pos, "date_of_expiry", mrz, 33, kExpiryPivot) &&
        put_field(out, cap, pos, "nationality", mrz, 40, 3) &&
        put_field(out, cap, pos, "optional_data2", mrz, 43, 11) && put_field(out, cap, pos, "holder_name", mrz, 55, 30);
    return ok ? ZEL_OK : ZEL_BUFFER_OVERFLOW;
}

ZEL_API ZEL_STATUS ParseTD3Format(char *out, int32_t capacity, uint32_t *pos, const char *mrz)
{
    if (!json_args_ok(out, capacity, pos, mrz))
        return ZEL_BUFFER_OVERFLOW;
    const uint32_t cap = uint32_t(capacity);
    const bool ok = put_field(out, cap, pos, "holder_name", mrz, 0, 39) &&
                    put_field(out, cap, pos, "document_number", mrz, 39, 9) &&
                    put_field(out, cap, pos, "nationality", mrz, 49, 3) &&
                    put_date(out, cap, pos, "date_of_birth", mrz, 52, kBirthPivot) && put_sex(out, cap, pos, mrz, 59) &&
                    put_date(out, cap, pos, "date_of_expiry", mrz, 60, kExpiryPivot) &&
                    put_field(out, cap, pos, "optional_data", mrz, 67, 14);
    return ok ? ZEL_OK : ZEL_BUFFER_OVERFLOW;
}

ZEL_API const char *GetMimeType(uint32_t format)
{
    switch (format) {
    case MRTD_IMAGE_JPEG: return "image/jpeg";
    case MRTD_IMAGE_JPEG2000: return "image/jp2";
    default: return "application/octet-stream";
    }
}

ZEL_API ZEL_STATUS MRZDataToJSON(char *out, uint32_t *out_len, const char *mrz, uint8_t mrz_len,
                                 const char *image_base64, uint32_t image_format)
{
    if (out == nullptr || out_len == nullptr || mrz == nullptr || *out_len == 0)
        return ZEL_NO_MEMORY_ERROR;
    if (mrz_len != 88 && mrz_len != 90)
        return ZEL_PARAMETERS_ERROR;
    const uint32_t cap = *out_len;
    uint32_t pos = 0;
    if (!zel::mrtd::json_put_raw(out, cap, &pos, "{"))
        return ZEL_BUFFER_SIZE_EXCEEDED;
    ZEL_STATUS st = zel::mrtd::mrz_json_members(out, cap, &pos, mrz, mrz_len, ZEL_BUFFER_OVERFLOW);
    if (st != ZEL_OK)
        return st;
    if (image_base64 != nullptr) {
        const char *mime = GetMimeType(image_format);
        if (!zel::mrtd::json_put_member(out, cap, &pos, "image_type", mime, false))
            return ZEL_BUFFER_OVERFLOW;
        const uint64_t need = std::strlen(",\"image\":\"data:") + std::strlen(mime) + std::strlen(";base64,") +
                              zel::mrtd::json_escaped_size(image_base64, std::strlen(image_base64)) + 1;
        if (pos + need >= cap)
            return ZEL_BUFFER_OVERFLOW;
        zel::mrtd::json_put_raw(out, cap, &pos, ",\"image\":\"data:");
        zel::mrtd::json_put_raw(out, cap, &pos, mime);
        zel::mrtd::json_put_raw(out, cap, &pos, ";base64,");
        zel::mrtd::json_put_escaped(out, cap, &pos, image_base64);
        zel::mrtd::json_put_raw(out, cap, &pos, "\"");
    }
    if (!zel::mrtd::json_put_raw(out, cap, &pos, "}"))
        return ZEL_BUFFER_OVERFLOW;
    *out_len = pos;
    return ZEL_OK;
}

ZEL_API ZEL_STATUS MRTDParseDG1ToHeap(char **text, const char *eol, const uint8_t *dg1, uint8_t dg1_len)
{
    if (text == nullptr)
        return ZEL_PARAMETERS_ERROR;
    *text = nullptr;
    if (dg1 == nullptr || dg1_len < 2 || dg1[0] != 0x61)
        return MRTD_EF_DG_WRONG_DATA;
    uint32_t ll = 0, vl = 0;
    if (!zel::mrtd::read_tlv_len(dg1 + 1, dg1_len - 1u, &ll, &vl) || 1u + ll + uint64_t(vl) != dg1_len)
        return MRTD_EF_DG_WRONG_DATA;
    const uint32_t p = 1 + ll;
    if (uint64_t(p) + 2 > dg1_len || dg1[p] != 0x5F || dg1[p + 1] != 0x1F)
        return MRTD_EF_DG_WRONG_DATA;
    uint32_t mll = 0, mrz_len = 0;
    if (!zel::mrtd::read_tlv_len(dg1 + p + 2, dg1_len - (p + 2), &mll, &mrz_len) ||
        uint64_t(p) + 2 + mll + mrz_len > dg1_len)
        return MRTD_EF_DG_WRONG_DATA;
    const char *mrz = reinterpret_cast<const char *>(dg1 + p + 2 + mll);
    switch (mrz_len) {
    case 88: MRZSprintfDataTD3Format(text, eol, mrz); break;
    case 90: MRZSprintfDataTD1Format(text, eol, mrz); break;
    case 72: MRZSprintfDataTD2Format(text, eol, mrz); break;
    default: return MRTD_EF_DG1_WRONG_LDS_VERSION_LENGTH;
    }
    return ZEL_OK;
}

} // extern "C"
