// The machine readable zone: check digits, formats, validation, the proto key, dates, text and JSON forms.
// Reference values are the specimens and check digits of ICAO Doc 9303 Parts 3 to 5.
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "tandro.h"

namespace {

const std::string kTd3Upper = "P<UTOERIKSSON<<ANNA<MARIA<<<<<<<<<<<<<<<<<<<";
const std::string kTd3Lower = "L898902C36UTO7408122F1204159ZE184226B<<<<<10";
const std::string kTd3 = kTd3Upper + kTd3Lower;
const std::string kTd3OldLower = "L898902C<3UTO6908061F9406236ZE184226B<<<<<14";
// The TD1 specimen with the document code ID (the code is outside every check digit).
const std::string kTd1 = "IDUTOD231458907<<<<<<<<<<<<<<<"
                         "7408122F1204159UTO<<<<<<<<<<<6"
                         "ERIKSSON<<ANNA<MARIA<<<<<<<<<<";

uint8_t digit(const std::string &s)
{
    uint8_t d = 0xFF;
    EXPECT_TRUE(mrtd_bac_check_digit(s.data(), int32_t(s.size()), &d)) << s;
    return d;
}

// Another character whose value differs by one, so that no weight hides the change.
char nudge(char c)
{
    if (c == '<')
        return '1';
    return c == '9' || c == 'Z' ? char(c - 1) : char(c + 1);
}

std::string text_of(ZEL_STATUS (*fn)(char **, const char *, const char *), const std::string &mrz, const char *eol)
{
    char *text = nullptr;
    EXPECT_EQ(fn(&text, eol, mrz.c_str()), ZEL_OK);
    std::string s = text ? text : "";
    OrbFree(text);
    return s;
}

TEST(MrzCheckDigit, ReferenceValuesAndCharacterSet)
{
    EXPECT_EQ(digit("520727"), 3);
    EXPECT_EQ(digit("L898902C3"), 6);
    EXPECT_EQ(digit("740812"), 2);
    EXPECT_EQ(digit("120415"), 9);
    EXPECT_EQ(digit("D23145890"), 7);
    EXPECT_EQ(digit("L898902C<"), 3); // the filler counts 0

    uint8_t d = 0xFF;
    EXPECT_FALSE(mrtd_bac_check_digit("l898902C3", 9, &d)); // lower case is outside the set
    EXPECT_FALSE(mrtd_bac_check_digit("7408 2", 6, &d));
    EXPECT_TRUE(mrtd_bac_check_digit("", 0, &d));
    EXPECT_EQ(d, 0);

    EXPECT_TRUE(ValidateCheckDigit("740812", 6, "2"));
    EXPECT_FALSE(ValidateCheckDigit("740812", 6, "3"));
    EXPECT_FALSE(ValidateCheckDigit("740812", 6, "<"));
    EXPECT_FALSE(ValidateCheckDigit("740812", 6, nullptr));
    EXPECT_TRUE(ValidateCheckDigit("", 0, "0"));
    EXPECT_FALSE(ValidateCheckDigit("", 0, "1"));
    EXPECT_FALSE(ValidateCheckDigit("74o812", 6, "2"));

    EXPECT_TRUE(is_array_numeric("", 0));
    EXPECT_TRUE(is_array_numeric("0123456789", 10));
    EXPECT_FALSE(is_array_numeric("01234<", 6));
}

TEST(MrzFormat, DetectionByCodeAndLength)
{
    const std::string f90(90, '<'), f88(88, '<'), f72(72, '<');
    auto detect = [](std::string code, const std::string &fill) {
        std::string s = fill;
        s.replace(0, code.size(), code);
        return MRTD_MRZDetectFormat(s.data(), s.size());
    };
    EXPECT_EQ(detect("ID", f90), MRTD_FORMAT_TD1);
    EXPECT_EQ(detect("IR", f90), MRTD_FORMAT_TD1);
    EXPECT_EQ(detect("I<", f90), MRTD_MRZ_CHECK_ERROR);
    EXPECT_EQ(detect("AC", f90), MRTD_MRZ_CHECK_ERROR);
    EXPECT_EQ(detect("C<", f90), MRTD_MRZ_CHECK_ERROR);
    EXPECT_EQ(detect("P<", f88), MRTD_FORMAT_TD3);
    EXPECT_EQ(detect("P<", f90), MRTD_MRZ_CHECK_ERROR);
    EXPECT_EQ(detect("V<", f88), MRTD_MRZ_CHECK_ERROR); // a visa code is not a TD3 here
    EXPECT_EQ(detect("I<", f72), MRTD_FORMAT_TD2);
    EXPECT_EQ(detect("ID", f72), MRTD_FORMAT_TD2);
    EXPECT_EQ(detect("AC", f72), MRTD_FORMAT_TD2);
    EXPECT_EQ(detect("C<", f72), MRTD_FORMAT_TD2);
    EXPECT_EQ(MRTD_MRZDetectFormat("P", 1), MRTD_MRZ_CHECK_ERROR);
    EXPECT_EQ(MRTD_MRZDetectFormat(nullptr, 88), MRTD_MRZ_CHECK_ERROR);
}

TEST(MrzCheck, SpecimensPassAndEveryCheckedFieldCounts)
{
    EXPECT_EQ(MRTD_MRZCheck(kTd3.c_str(), 88), ZEL_OK);
    EXPECT_EQ(MRTD_MRZCheck(kTd1.c_str(), 90), ZEL_OK);
    EXPECT_EQ(MRTD_MRZCheck(kTd1.c_str(), 88), MRTD_MRZ_CHECK_ERROR);
    EXPECT_EQ(MRTD_MRZCheck(std::string(72, '<').replace(0, 2, "I<").c_str(), 72), ZEL_NOT_IMPLEMENTED);

    // A change in each checked field of the TD3, or of its digit, is caught (by the field's digit or the
    // composite); offset 72 to 85 is covered by the composite through the digit at 86 only.
    for (int offset : {44, 52, 53, 57, 62, 63, 65, 70, 71, 80, 86, 87}) {
        std::string bad = kTd3;
        bad[offset] = nudge(bad[offset]);
        EXPECT_EQ(MRTD_MRZCheck(bad.c_str(), 88), MRTD_MRZ_CHECK_ERROR) << offset;
    }
    for (int offset : {5, 13, 14, 20, 30, 36, 38, 44, 50, 59}) {
        std::string bad = kTd1;
        bad[offset] = nudge(bad[offset]);
        EXPECT_EQ(MRTD_MRZCheck(bad.c_str(), 90), MRTD_MRZ_CHECK_ERROR) << offset;
    }
    // Fields outside every digit: name, nationality, sex.
    std::string free_fields = kTd3;
    free_fields[10] = 'X';
    free_fields[54] = 'X';
    free_fields[64] = 'M';
    EXPECT_EQ(MRTD_MRZCheck(free_fields.c_str(), 88), ZEL_OK);

    std::string lower = kTd3;
    lower[44] = 'l';
    EXPECT_EQ(MRTD_MRZCheck(lower.c_str(), 88), MRTD_MRZ_CHECK_ERROR);
    // A document number that continues in the optional field (filler at 14) is refused.
    std::string continued = kTd1;
    continued[14] = '<';
    EXPECT_EQ(validate_TD1_format(continued.c_str()), MRTD_MRZ_CHECK_ERROR);
}

TEST(MrzSubjacent, LowerLinesAndTheOptionalDataDigit)
{
    EXPECT_EQ(MRTD_MRZSubjacentCheck(kTd3Lower.c_str()), ZEL_OK);
    EXPECT_EQ(MRTD_MRZSubjacentCheck(kTd3OldLower.c_str()), ZEL_OK);
    std::string bad = kTd3Lower;
    bad[42] = '2'; // the optional data digit is checked here
    EXPECT_EQ(MRTD_MRZSubjacentCheck(bad.c_str()), MRTD_MRZ_CHECK_ERROR);

    // Empty optional data with a filler for its digit: the filler counts 0, in the composite too.
    std::string empty = kTd3Lower.substr(0, 28) + std::string(14, '<') + "<";
    std::string composite = empty.substr(0, 10) + empty.substr(13, 7) + empty.substr(21, 22);
    empty += char('0' + digit(composite));
    ASSERT_EQ(empty.size(), 44u);
    EXPECT_EQ(MRTD_MRZSubjacentCheck(empty.c_str()), ZEL_OK);
}

TEST(MrzProtoKey, FromFieldsAndFromTheLowerLine)
{
    char key[MRTD_PROTO_KEY_SIZE];
    ASSERT_EQ(MRTD_MRZDataToMRZProtoKey("L898902C3", "740812", "120415", key), ZEL_OK);
    EXPECT_STREQ(key, "L898902C3674081221204159");
    // The Doc 9303 Part 11 worked example: an eight-character number padded with a filler.
    ASSERT_EQ(MRTD_MRZDataToMRZProtoKey("L898902C", "690806", "940623", key), ZEL_OK);
    EXPECT_STREQ(key, "L898902C<369080619406236");
    ASSERT_EQ(MRTD_MRZSubjacentToMRZProtoKey(kTd3OldLower.c_str(), key), ZEL_OK);
    EXPECT_STREQ(key, "L898902C<369080619406236");

    EXPECT_EQ(MRTD_MRZDataToMRZProtoKey("L898902C3", "7408122", "120415", key), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(MRTD_MRZDataToMRZProtoKey("L898902C36", "740812", "120415", key), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(MRTD_MRZDataToMRZProtoKey("l898902C3", "740812", "120415", key), MRTD_MRZ_CHECK_ERROR);
    EXPECT_EQ(MRTD_MRZDataToMRZProtoKey(nullptr, "740812", "120415", key), ZEL_PARAMETERS_ERROR);
    std::string nul_in_date = kTd3Lower;
    nul_in_date[15] = '\0';
    EXPECT_EQ(MRTD_MRZSubjacentToMRZProtoKey(nul_in_date.data(), key), ZEL_PARAMETERS_ERROR);
}

TEST(MrzText, DatesFillersAndTrim)
{
    char date[12];
    EXPECT_STREQ(MRZToDate("991231", date, 24), "31.12.1999.");
    EXPECT_STREQ(MRZToDate("240101", date, 24), "01.01.2024.");
    EXPECT_STREQ(MRZToDate("250101", date, 24), "01.01.1925.");
    EXPECT_STREQ(MRZToDate("991231", date, 100), "31.12.2099.");

    char text[] = "ANNA<MARIA<<<";
    MRZToSpace(text);
    EXPECT_STREQ(text, "ANNA MARIA   ");
    char trim[] = "ANNA<MARIA<<<";
    MRZToSpaceTrim(trim);
    EXPECT_STREQ(trim, "ANNA MARIA");
    MRZToSpaceTrim(nullptr);
}

TEST(MrzText, ReadableFormsOfTheThreeFormats)
{
    EXPECT_EQ(text_of(MRZSprintfDataTD3Format, kTd3, nullptr),
              "eMRTD format: DG3\n"
              "Document code: P (ePassport)\n"
              "Issuing State or organization: UTO\n"
              "Name of holder: ERIKSSON  ANNA MARIA                   \n"
              "Document number: L898902C3\n"
              "Nationality: UTO\n"
              "Date of birth (dd.MM.yyyy.): 12.08.1974.\n"
              "Sex: F\n"
              "Date of expiry (dd.MM.yyyy.): 15.04.2012.\n"
              "Optional data: ZE184226B     \n");
    EXPECT_EQ(text_of(MRZSprintfDataTD1Format, kTd1, "\r\n"), "eMRTD format: DG1\r\n"
                                                              "Document code: ID\r\n"
                                                              "Issuing State or organization: UTO\r\n"
                                                              "Document number: D23145890\r\n"
                                                              "Optional data:                \r\n"
                                                              "Date of birth (dd.MM.yyyy.): 12.08.1974.\r\n"
                                                              "Sex: F\r\n"
                                                              "Date of expiry (dd.MM.yyyy.): 15.04.2012.\r\n"
                                                              "Nationality: UTO\r\n"
                                                              "Optional data:            \r\n"
                                                              "Name of holder: ERIKSSON  ANNA MARIA          \r\n");
    std::string continued = kTd1;
    continued[14] = '<';
    EXPECT_NE(text_of(MRZSprintfDataTD1Format, continued, nullptr).find("Document number extension: "),
              std::string::npos);
    const std::string td2 = "I<UTOERIKSSON<<ANNA<MARIA<<<<<<<<<<<D231458907UTO7408122F1204159<<<<<<<6";
    ASSERT_EQ(td2.size(), 72u);
    EXPECT_EQ(text_of(MRZSprintfDataTD2Format, td2, nullptr), "eMRTD format: DG2\n"
                                                              "Document code: I \n"
                                                              "Issuing State or organization: UTO\n"
                                                              "Name of holder: ERIKSSON  ANNA MARIA           \n"
                                                              "Document number: D23145890\n"
                                                              "Nationality: UTO\n"
                                                              "Date of birth (dd.MM.yyyy.): 12.08.1974.\n"
                                                              "Sex: F\n"
                                                              "Date of expiry (dd.MM.yyyy.): 15.04.2012.\n"
                                                              "Optional data:        \n");
}

TEST(MrzJson, MembersOfTd3AndTd1)
{
    char out[1024];
    uint32_t len = sizeof out;
    ASSERT_EQ(MRZDataToJSON(out, &len, kTd3.c_str(), 88, nullptr, 0), ZEL_OK);
    const std::string td3_json =
        "{\"document_code\":\"P\",\"document_type\":\"ePassport\",\"issuing_state\":\"UTO\","
        "\"holder_name\":\"ERIKSSON  ANNA MARIA\",\"document_number\":\"L898902C3\",\"nationality\":\"UTO\","
        "\"date_of_birth\":\"12.08.1974.\",\"sex\":\"F\",\"date_of_expiry\":\"15.04.2012.\","
        "\"optional_data\":\"ZE184226B\"}";
    EXPECT_EQ(std::string(out), td3_json);
    EXPECT_EQ(len, td3_json.size());

    len = sizeof out;
    ASSERT_EQ(MRZDataToJSON(out, &len, kTd1.c_str(), 90, "/9j/AA==", MRTD_IMAGE_JPEG), ZEL_OK);
    EXPECT_EQ(std::string(out),
              "{\"document_code\":\"ID\",\"document_type\":\"IdentityCard\",\"issuing_state\":\"UTO\","
              "\"document_number\":\"D23145890\",\"optional_data\":\"\",\"date_of_birth\":\"12.08.1974.\","
              "\"sex\":\"F\",\"date_of_expiry\":\"15.04.2012.\",\"nationality\":\"UTO\",\"optional_data2\":\"\","
              "\"holder_name\":\"ERIKSSON  ANNA MARIA\",\"image_type\":\"image/jpeg\","
              "\"image\":\"data:image/jpeg;base64,/9j/AA==\"}");

    // Every capacity below the whole text fails without writing past it; the exact size succeeds.
    for (uint32_t cap = 1; cap <= td3_json.size() + 1; ++cap) {
        std::string buf(cap + 8, '#');
        uint32_t n = cap;
        const ZEL_STATUS st = MRZDataToJSON(buf.data(), &n, kTd3.c_str(), 88, nullptr, 0);
        const ZEL_STATUS want = cap == td3_json.size() + 1 ? ZEL_OK
                                : cap < 2                  ? ZEL_BUFFER_SIZE_EXCEEDED
                                                           : ZEL_BUFFER_OVERFLOW;
        ASSERT_EQ(st, want) << cap;
        EXPECT_EQ(buf.substr(cap), std::string(8, '#')) << cap;
    }
    len = sizeof out;
    EXPECT_EQ(MRZDataToJSON(out, &len, kTd3.c_str(), 72, nullptr, 0), ZEL_PARAMETERS_ERROR);
    len = 0;
    EXPECT_EQ(MRZDataToJSON(out, &len, kTd3.c_str(), 88, nullptr, 0), ZEL_NO_MEMORY_ERROR);
    EXPECT_STREQ(GetMimeType(MRTD_IMAGE_JPEG2000), "image/jp2");
    EXPECT_STREQ(GetMimeType(7), "application/octet-stream");
}

TEST(MrzJson, HostileTextStaysValidJson)
{
    // Quotes, backslashes, control bytes and bytes that are not UTF-8 in the name; a quote as sex.
    std::string mrz = kTd3;
    mrz.replace(5, 9, std::string("A\"B\\C\x01\xff", 7) + "\xc3\xa9");
    mrz[64] = '"';
    char out[1024];
    uint32_t len = sizeof out;
    ASSERT_EQ(MRZDataToJSON(out, &len, mrz.c_str(), 88, nullptr, 0), ZEL_OK);
    const std::string s(out, len);
    EXPECT_NE(s.find("\"holder_name\":\"A\\\"B\\\\C\\u0001\\u00ff\xc3\xa9"
                     " ANNA MARIA\""),
              std::string::npos)
        << s;
    EXPECT_NE(s.find("\"sex\":\"\\\"\""), std::string::npos) << s;
    for (unsigned char c : s)
        EXPECT_GE(c, 0x20);
}

TEST(MrzDg1, FileUnwrapAndMalformedFiles)
{
    auto dg1 = [](const std::string &mrz) {
        std::string f = "\x5F\x1F" + std::string(1, char(mrz.size())) + mrz;
        return "\x61" + std::string(1, char(f.size())) + f;
    };
    const std::string file = dg1(kTd3);
    char *text = reinterpret_cast<char *>(1);
    ASSERT_EQ(MRTDParseDG1ToHeap(&text, nullptr, reinterpret_cast<const uint8_t *>(file.data()), uint8_t(file.size())),
              ZEL_OK);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::string(text), text_of(MRZSprintfDataTD3Format, kTd3, nullptr));
    OrbFree(text);

    auto parse = [&](const std::string &f) {
        char *t = nullptr;
        const ZEL_STATUS st =
            MRTDParseDG1ToHeap(&t, nullptr, reinterpret_cast<const uint8_t *>(f.data()), uint8_t(f.size()));
        OrbFree(t);
        return st;
    };
    EXPECT_EQ(parse(file.substr(0, file.size() - 1)), MRTD_EF_DG_WRONG_DATA); // outer length lies
    std::string tag = file;
    tag[0] = 0x60;
    EXPECT_EQ(parse(tag), MRTD_EF_DG_WRONG_DATA);
    std::string inner = file;
    inner[3] = 0x1E;
    EXPECT_EQ(parse(inner), MRTD_EF_DG_WRONG_DATA);
    std::string long_inner = file;
    long_inner[4] = char(0x7F); // the MRZ runs past the file
    EXPECT_EQ(parse(long_inner), MRTD_EF_DG_WRONG_DATA);
    EXPECT_EQ(parse(dg1(kTd3.substr(0, 80))), MRTD_EF_DG1_WRONG_LDS_VERSION_LENGTH);
    EXPECT_EQ(parse(dg1(kTd1)), ZEL_OK);
    EXPECT_EQ(parse("\x61\x84\xff\xff\xff"), MRTD_EF_DG_WRONG_DATA);
}

} // namespace
