// The JSON of the data groups that carry text: the tag table of DG11, DG12 and DG13 and their walk, the DG1
// fragment, and the data group filter of the document read.
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "mrtd/mrtd_internal.h"
#include "zel_crypto.h"
#include "zel_mrtd_doc.h"
#include "zel_status.h"

namespace zel::mrtd {

namespace {

enum ValueType : uint8_t { kText, kDate, kBinary, kTemplate, kCount };

struct TagRow {
    uint32_t tag;
    uint8_t tag_bytes;
    const char *key;
    const char *human;
    ValueType type;
};

// The objects of the textual data groups. A tag that is not here falls on the first row.
const TagRow kTagTable[] = {
    {0x02, 1, "instances", "Number of instances", kCount},
    {0x60, 1, "COM", "Common data elements", kTemplate},
    {0x61, 1, "DG1", "Machine readable zone", kTemplate},
    {0x75, 1, "DG2", "Encoded face", kTemplate},
    {0x63, 1, "DG3", "Encoded fingers", kTemplate},
    {0x76, 1, "DG4", "Encoded irises", kTemplate},
    {0x65, 1, "DG5", "Displayed portrait", kTemplate},
    {0x66, 1, "DG6", "Reserved for future use", kTemplate},
    {0x67, 1, "DG7", "Displayed signature or usual mark", kTemplate},
    {0x68, 1, "DG8", "Data features", kTemplate},
    {0x69, 1, "DG9", "Structure features", kTemplate},
    {0x6A, 1, "DG10", "Substance features", kTemplate},
    {0x6B, 1, "DG11", "Additional personal details", kTemplate},
    {0x6C, 1, "DG12", "Additional document details", kTemplate},
    {0x6D, 1, "DG13", "Optional details", kTemplate},
    {0x6E, 1, "DG14", "Security options", kTemplate},
    {0x6F, 1, "DG15", "Active authentication public key", kTemplate},
    {0x70, 1, "DG16", "Persons to notify", kTemplate},
    {0x77, 1, "SOD", "Document security object", kTemplate},
    {0x5C, 1, "tag_list", "Tag list", kBinary},
    {0xA0, 1, "content_specific_class", "Content specific constructed template", kTemplate},
    {0xA1, 1, "BHT", "Biometric header template", kTemplate},
    {0x5F01, 2, "LDS_Version", "LDS version", kText},
    {0x5F0E, 2, "full_name", "Full name of holder", kText},
    {0x5F0F, 2, "other_name", "Other names", kText},
    {0x5F10, 2, "personal_number", "Personal number", kText},
    {0x5F11, 2, "place_of_birth", "Place of birth", kText},
    {0x5F12, 2, "telephone", "Telephone", kText},
    {0x5F13, 2, "profession", "Profession", kText},
    {0x5F14, 2, "title", "Title", kText},
    {0x5F15, 2, "personal_summary", "Personal summary", kText},
    {0x5F16, 2, "proof_of_citizenship", "Proof of citizenship", kBinary},
    {0x5F17, 2, "other_valid_TD", "Other valid travel document numbers", kText},
    {0x5F18, 2, "custody_information", "Custody information", kText},
    {0x5F19, 2, "issuing_authority", "Issuing authority", kText},
    {0x5F1A, 2, "name_of_other_person", "Other persons in the document", kText},
    {0x5F1B, 2, "endorsements", "Endorsements and observations", kText},
    {0x5F1C, 2, "exit_requirements", "Tax and exit requirements", kText},
    {0x5F1D, 2, "front_of_doc", "Image of the front of the document", kBinary},
    {0x5F1E, 2, "rear_of_doc", "Image of the rear of the document", kBinary},
    {0x5F1F, 2, "MRZ_DO", "Machine readable zone", kText},
    {0x5F26, 2, "date_of_issue", "Date of issue", kDate},
    {0x5F2B, 2, "full_date_of_birth", "Full date of birth", kDate},
    {0x5F2E, 2, "BDB", "Biometric data block", kBinary},
    {0x5F36, 2, "unicode_version", "Unicode version", kText},
    {0x5F40, 2, "displayed_portrait", "Displayed portrait", kBinary},
    {0x5F42, 2, "permanent_address", "Permanent address", kText},
    {0x5F43, 2, "displayed_signature", "Displayed signature or usual mark", kBinary},
    {0x5F50, 2, "date_recorded", "Date data recorded", kDate},
    {0x5F51, 2, "person_to_notify", "Name of person to notify", kText},
    {0x5F52, 2, "person_to_notify_tel", "Telephone of person to notify", kText},
    {0x5F53, 2, "person_to_notify_addr", "Address of person to notify", kText},
    {0x5F55, 2, "doc_perso_datetime", "Date and time of personalisation", kDate},
    {0x5F56, 2, "perso_sys_ser_no", "Serial number of the personalisation system", kText},
    {0x7F2E, 2, "BDB", "Biometric data block, enciphered", kBinary},
    {0x7F60, 2, "Bio_info_template", "Biometric information template", kTemplate},
    {0x7F61, 2, "Bio_info_grooup_template", "Biometric information group template", kTemplate},
    {0, 0, "unknown", "Unknown", kBinary},
};

const TagRow &row_of(uint32_t tag)
{
    for (const TagRow &row : kTagTable) {
        if (row.tag == 0)
            break;
        if (row.tag == tag)
            return row;
    }
    return kTagTable[0];
}

// The value of a textual object as it goes into the JSON: cut at the first NUL, "<" as space, trailing
// spaces trimmed; the JSON writer escapes it.
std::string object_text(const uint8_t *value, uint32_t len)
{
    std::string s;
    for (uint32_t i = 0; i < len && value[i] != 0; ++i)
        s += value[i] == '<' ? ' ' : static_cast<char>(value[i]);
    while (!s.empty() && s.back() == ' ')
        s.pop_back();
    return s;
}

void append_escaped(std::string &out, const std::string &value)
{
    const size_t need = json_escaped_size(value.data(), value.size());
    std::string tmp(need + 1, '\0');
    uint32_t pos = 0;
    json_put_escaped(tmp.data(), static_cast<uint32_t>(tmp.size()), &pos, value.c_str());
    out.append(tmp.data(), pos);
}

char *to_heap(const std::string &s)
{
    char *p = static_cast<char *>(std::malloc(s.size() + 1));
    if (p)
        std::memcpy(p, s.c_str(), s.size() + 1);
    return p;
}

} // namespace

const char *dg_tag_key(uint32_t tag)
{
    return row_of(tag).key;
}

} // namespace zel::mrtd

extern "C" {

ZEL_API ZEL_STATUS MRTD_DG_To_JSON_Heap(const uint8_t *dg, uint32_t len, char **json, uint8_t flat)
{
    if (json == nullptr)
        return ZEL_PARAMETERS_ERROR;
    *json = nullptr;
    if (dg == nullptr || len < 2 || (dg[0] != 0x6B && dg[0] != 0x6C && dg[0] != 0x6D))
        return MRTD_EF_DG_WRONG_DATA;
    uint32_t ll = 0, vl = 0;
    if (!zel::mrtd::read_tlv_len(dg + 1, len - 1, &ll, &vl) || uint64_t(1) + ll + vl != len)
        return MRTD_EF_DG_WRONG_DATA;
    std::string out;
    if (!flat) {
        out += '"';
        out += zel::mrtd::dg_tag_key(dg[0]);
        out += "\":{";
    }
    uint32_t p = 1 + ll;
    const uint32_t end = len;
    bool first = true;
    while (p < end) {
        const uint32_t rest = end - p;
        uint32_t tag = dg[p];
        uint32_t tag_bytes = 1;
        if (tag != 0x5C && tag != 0xA0) {
            if ((tag & 0x1F) < 31) {
                if (tag == 0)
                    return MRTD_EF_DG_WRONG_DATA;
            } else {
                if (rest < 2 || (dg[p + 1] & 0x80))
                    return MRTD_EF_DG_WRONG_DATA;
                tag = (tag << 8) | dg[p + 1];
                tag_bytes = 2;
            }
        }
        uint32_t obj_ll = 0, obj_vl = 0;
        if (rest <= tag_bytes || !zel::mrtd::read_tlv_len(dg + p + tag_bytes, rest - tag_bytes, &obj_ll, &obj_vl) ||
            uint64_t(tag_bytes) + obj_ll + obj_vl > rest)
            return MRTD_EF_DG_WRONG_DATA;
        const uint8_t *value = dg + p + tag_bytes + obj_ll;
        p += tag_bytes + obj_ll + obj_vl;
        // The tag list and the template of other names are no members.
        if (tag == 0x5C || tag == 0xA0)
            continue;
        if (!first)
            out += ',';
        first = false;
        out += '"';
        out += zel::mrtd::dg_tag_key(tag);
        out += "\":\"";
        zel::mrtd::append_escaped(out, zel::mrtd::object_text(value, obj_vl));
        out += '"';
    }
    if (!flat)
        out += '}';
    *json = zel::mrtd::to_heap(out);
    return *json ? ZEL_OK : ZEL_NO_MEMORY_ERROR;
}

ZEL_API ZEL_STATUS parse_dg1_to_JSON(const uint8_t *dg1, int32_t len, char **json, uint8_t flat)
{
    if (json)
        *json = nullptr;
    if (dg1 == nullptr || len <= 0 || json == nullptr)
        return ZEL_PARAMETERS_ERROR;
    const uint32_t n = static_cast<uint32_t>(len);
    uint32_t ll = 0, vl = 0;
    if (n < 2 || dg1[0] != 0x61 || !zel::mrtd::read_tlv_len(dg1 + 1, n - 1, &ll, &vl) || uint64_t(1) + ll + vl != n)
        return MRTD_EF_DG_WRONG_DATA;
    uint32_t p = 1 + ll;
    uint32_t mrz_ll = 0, mrz_len = 0;
    if (n - p < 3 || dg1[p] != 0x5F || dg1[p + 1] != 0x1F ||
        !zel::mrtd::read_tlv_len(dg1 + p + 2, n - p - 2, &mrz_ll, &mrz_len) || uint64_t(p) + 2 + mrz_ll + mrz_len > n)
        return MRTD_EF_DG_WRONG_DATA;
    if (mrz_len != 88 && mrz_len != 90)
        return MRTD_EF_DG1_WRONG_LDS_VERSION_LENGTH;
    char mrz[91];
    std::memcpy(mrz, dg1 + p + 2 + mrz_ll, mrz_len);
    mrz[mrz_len] = '\0';

    constexpr uint32_t kCap = 2048;
    char *out = static_cast<char *>(std::malloc(kCap));
    if (out == nullptr)
        return ZEL_NO_MEMORY_ERROR;
    out[0] = '\0';
    uint32_t pos = 0;
    ZEL_STATUS st = ZEL_OK;
    if (!flat && !zel::mrtd::json_put_raw(out, kCap, &pos, "\"DG1\":{"))
        st = ZEL_BUFFER_SIZE_EXCEEDED;
    if (st == ZEL_OK)
        st = zel::mrtd::mrz_json_members(out, kCap, &pos, mrz, mrz_len, ZEL_BUFFER_SIZE_EXCEEDED);
    if (st == ZEL_OK && !flat && !zel::mrtd::json_put_raw(out, kCap, &pos, "}"))
        st = ZEL_BUFFER_SIZE_EXCEEDED;
    if (st != ZEL_OK) {
        std::free(out);
        return st;
    }
    *json = out;
    return ZEL_OK;
}

ZEL_API ZEL_STATUS parse_dg_filter_string(const char *filter, uint8_t *allowed16)
{
    if (filter == nullptr || allowed16 == nullptr)
        return ZEL_PARAMETERS_ERROR;
    std::memset(allowed16, 0, 16);
    const size_t n = strnlen(filter, 256);
    if (n < 1 || n > 255)
        return ZEL_PARAMETERS_ERROR;
    size_t i = 0;
    while (i < n) {
        while (i < n && std::strchr(", \t\n\r", filter[i]) != nullptr)
            ++i;
        const size_t start = i;
        while (i < n && std::strchr(", \t\n\r", filter[i]) == nullptr)
            ++i;
        const size_t tlen = i - start;
        if (tlen == 0 || tlen >= 16)
            continue;
        char token[16];
        for (size_t k = 0; k < tlen; ++k)
            token[k] = static_cast<char>(std::toupper(static_cast<unsigned char>(filter[start + k])));
        token[tlen] = '\0';
        int number = 0;
        if (token[0] == 'D' && token[1] == 'G' && std::sscanf(token + 2, "%d", &number) == 1 && number >= 1 &&
            number <= 16)
            allowed16[number - 1] = 1;
    }
    return ZEL_OK;
}

ZEL_API int is_dg_allowed(uint8_t tag, const uint8_t *allowed16, uint8_t filter_active)
{
    if (!filter_active)
        return 1;
    const uint8_t index = MRTDGetDgIndex(tag);
    if (index == 0 || allowed16 == nullptr)
        return 0;
    return allowed16[index - 1] ? 1 : 0;
}

} // extern "C"
