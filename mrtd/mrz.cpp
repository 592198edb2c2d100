// The machine readable zone: format detection, check digits, the TD1, TD3 and lower-line checks, the proto
// key of Basic Access Control and the printed dates.
#include <cstring>
#include <initializer_list>

#include "zel_handle.h"
#include "zel_mrtd.h"
#include "zel_status.h"

namespace {

// Value of an MRZ character in the check digit, or -1 outside the character set.
int mrz_value(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'Z')
        return c - 'A' + 10;
    if (c == '<')
        return 0;
    return -1;
}

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

bool digit_ok(const char *data, int32_t len, char digit)
{
    return ValidateCheckDigit(data, len, &digit) != 0;
}

// The composite field made of several pieces of the MRZ, checked against one digit.
struct Piece {
    int offset;
    int width;
};
template <size_t N> bool composite_ok(const char *mrz, const Piece (&pieces)[N], char digit)
{
    char field[64];
    int32_t n = 0;
    for (const Piece &p : pieces) {
        std::memcpy(field + n, mrz + p.offset, static_cast<size_t>(p.width));
        n += p.width;
    }
    return digit_ok(field, n, digit);
}

bool all_digits_at(const char *mrz, std::initializer_list<int> offsets)
{
    for (int o : offsets)
        if (!is_digit(mrz[o]))
            return false;
    return true;
}

} // namespace

extern "C" {

ZEL_API int mrtd_bac_check_digit(const char *data, int32_t len, uint8_t *digit_out)
{
    if (len < 1) {
        if (digit_out)
            *digit_out = 0;
        return 1;
    }
    if (data == nullptr)
        return 0;
    static const int kWeights[3] = {7, 3, 1};
    int sum = 0;
    for (int32_t i = 0; i < len; ++i) {
        const int v = mrz_value(data[i]);
        if (v < 0)
            return 0;
        sum += v * kWeights[i % 3];
    }
    if (digit_out)
        *digit_out = static_cast<uint8_t>(sum % 10);
    return 1;
}

ZEL_API int ValidateCheckDigit(const char *data, int32_t len, const char *digit)
{
    if (digit == nullptr || !is_digit(*digit))
        return 0;
    if (len < 1)
        return *digit == '0';
    uint8_t computed = 0;
    if (!mrtd_bac_check_digit(data, len, &computed))
        return 0;
    return computed == *digit - '0';
}

ZEL_API int is_array_numeric(const char *data, int32_t len)
{
    if (len <= 0)
        return 1;
    if (data == nullptr)
        return 0;
    for (int32_t i = 0; i < len; ++i)
        if (!is_digit(data[i]))
            return 0;
    return 1;
}

ZEL_API ZEL_STATUS MRTD_MRZDetectFormat(const char *mrz, size_t len)
{
    if (mrz == nullptr || len < 2)
        return MRTD_MRZ_CHECK_ERROR;
    const char c = mrz[0], c2 = mrz[1];
    if (c == 'I' && (c2 == 'R' || c2 == 'D') && len == 90)
        return MRTD_FORMAT_TD1;
    if (c == 'P')
        return len == 88 ? MRTD_FORMAT_TD3 : MRTD_MRZ_CHECK_ERROR;
    if (c == 'A' || c == 'C' || c == 'I')
        return len == 72 ? MRTD_FORMAT_TD2 : MRTD_MRZ_CHECK_ERROR;
    return MRTD_MRZ_CHECK_ERROR;
}

ZEL_API ZEL_STATUS validate_TD1_format(const char *mrz)
{
    if (mrz == nullptr)
        return MRTD_MRZ_CHECK_ERROR;
    if (!all_digits_at(mrz, {14, 36, 44, 59}) || !is_array_numeric(mrz + 30, 6) || !is_array_numeric(mrz + 38, 6))
        return MRTD_MRZ_CHECK_ERROR;
    if (!digit_ok(mrz + 5, 9, mrz[14]) || !digit_ok(mrz + 30, 6, mrz[36]) || !digit_ok(mrz + 38, 6, mrz[44]))
        return MRTD_MRZ_CHECK_ERROR;
    static const Piece kComposite[] = {{5, 25}, {30, 7}, {38, 7}, {48, 11}};
    return composite_ok(mrz, kComposite, mrz[59]) ? ZEL_OK : MRTD_MRZ_CHECK_ERROR;
}

ZEL_API ZEL_STATUS validate_TD3_format(const char *mrz)
{
    if (mrz == nullptr)
        return MRTD_MRZ_CHECK_ERROR;
    if (!all_digits_at(mrz, {53, 63, 71, 87}) || !is_array_numeric(mrz + 57, 6) || !is_array_numeric(mrz + 65, 6))
        return MRTD_MRZ_CHECK_ERROR;
    if (!digit_ok(mrz + 44, 9, mrz[53]) || !digit_ok(mrz + 57, 6, mrz[63]) || !digit_ok(mrz + 65, 6, mrz[71]))
        return MRTD_MRZ_CHECK_ERROR;
    static const Piece kComposite[] = {{44, 10}, {57, 7}, {65, 22}};
    return composite_ok(mrz, kComposite, mrz[87]) ? ZEL_OK : MRTD_MRZ_CHECK_ERROR;
}

ZEL_API ZEL_STATUS MRTD_MRZCheck(const char *mrz, uint8_t len)
{
    dp(0, "API begin: %s()", __func__);
    switch (MRTD_MRZDetectFormat(mrz, len)) {
    case MRTD_FORMAT_TD1: return validate_TD1_format(mrz);
    case MRTD_FORMAT_TD3: return validate_TD3_format(mrz);
    case MRTD_FORMAT_TD2: return ZEL_NOT_IMPLEMENTED;
    default: return MRTD_MRZ_CHECK_ERROR;
    }
}

ZEL_API ZEL_STATUS MRTD_MRZSubjacentCheck(const char *line)
{
    if (line == nullptr)
        return MRTD_MRZ_CHECK_ERROR;
    if (!all_digits_at(line, {9, 19, 27, 43}) || !(is_digit(line[42]) || line[42] == '<') ||
        !is_array_numeric(line + 13, 6) || !is_array_numeric(line + 21, 6))
        return MRTD_MRZ_CHECK_ERROR;
    const char optional_digit = line[42] == '<' ? '0' : line[42];
    if (!digit_ok(line, 9, line[9]) || !digit_ok(line + 13, 6, line[19]) || !digit_ok(line + 21, 6, line[27]) ||
        !digit_ok(line + 28, 14, optional_digit))
        return MRTD_MRZ_CHECK_ERROR;
    static const Piece kComposite[] = {{0, 10}, {13, 7}, {21, 22}};
    return composite_ok(line, kComposite, line[43]) ? ZEL_OK : MRTD_MRZ_CHECK_ERROR;
}

ZEL_API ZEL_STATUS MRTD_MRZDataToMRZProtoKey(const char *doc_number, const char *date_of_birth,
                                             const char *date_of_expiry, char *key_out)
{
    if (doc_number == nullptr || date_of_birth == nullptr || date_of_expiry == nullptr || key_out == nullptr)
        return ZEL_PARAMETERS_ERROR;
    if (std::strlen(date_of_birth) != 6 || std::strlen(date_of_expiry) != 6)
        return ZEL_PARAMETERS_ERROR;
    const size_t doc_len = std::strlen(doc_number);
    if (doc_len > 9)
        return ZEL_PARAMETERS_ERROR;
    char key[MRTD_PROTO_KEY_SIZE];
    std::memset(key, '<', 9);
    std::memcpy(key, doc_number, doc_len);
    std::memcpy(key + 10, date_of_birth, 6);
    std::memcpy(key + 17, date_of_expiry, 6);
    uint8_t d_doc = 0, d_birth = 0, d_expiry = 0;
    if (!mrtd_bac_check_digit(key, 9, &d_doc) || !mrtd_bac_check_digit(key + 10, 6, &d_birth) ||
        !mrtd_bac_check_digit(key + 17, 6, &d_expiry))
        return MRTD_MRZ_CHECK_ERROR;
    key[9] = static_cast<char>('0' + d_doc);
    key[16] = static_cast<char>('0' + d_birth);
    key[23] = static_cast<char>('0' + d_expiry);
    key[24] = '\0';
    std::memcpy(key_out, key, sizeof key);
    return ZEL_OK;
}

ZEL_API ZEL_STATUS MRTD_MRZSubjacentToMRZProtoKey(const char *line, char *key_out)
{
    if (line == nullptr || key_out == nullptr)
        return ZEL_PARAMETERS_ERROR;
    char doc[10] = {}, birth[7] = {}, expiry[7] = {};
    std::memcpy(doc, line, 9);
    std::memcpy(birth, line + 13, 6);
    std::memcpy(expiry, line + 21, 6);
    return MRTD_MRZDataToMRZProtoKey(doc, birth, expiry, key_out);
}

ZEL_API void MRZToSpace(char *text)
{
    if (text == nullptr)
        return;
    for (char *p = text; *p; ++p)
        if (*p == '<')
            *p = ' ';
}

ZEL_API void MRZToSpaceTrim(char *text)
{
    if (text == nullptr)
        return;
    MRZToSpace(text);
    size_t n = std::strlen(text);
    while (n > 0 && text[n - 1] == ' ')
        text[--n] = '\0';
}

ZEL_API char *MRZToDate(const char *src, char *dst, uint8_t century_pivot)
{
    if (src == nullptr || dst == nullptr)
        return dst;
    // A year that is not two digits counts as 0.
    const int year = is_digit(src[0]) && is_digit(src[1]) ? (src[0] - '0') * 10 + (src[1] - '0') : 0;
    const char *century = year > century_pivot ? "19" : "20";
    const char date[12] = {src[4], src[5], '.', src[2], src[3], '.', century[0], century[1], src[0], src[1], '.', '\0'};
    std::memcpy(dst, date, sizeof date);
    return dst;
}

} // extern "C"
