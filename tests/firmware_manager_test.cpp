// The firmware manager's readers of untrusted text: the package manifest, the checks of the service's answers,
// version lists and image text; and the device parameter record's text forms and programming routes.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "firmware/manager_internal.h"
#include "tandro.h"

using namespace zel::fw;

namespace {

int parse(const std::string &text, PackageVersions *v)
{
    return parse_firmware_manifest(text.data(), text.size(), v);
}

// A response whose data has no terminating zero behind it: a scan past the bytes received is an overrun.
struct Exact {
    zel_http_response r{};
    std::vector<uint8_t> bytes;
    Exact(int32_t type, const std::string &text) : bytes(text.begin(), text.end())
    {
        r.type = type;
        r.data = bytes.empty() ? nullptr : bytes.data();
        r.size = bytes.size();
    }
};

int image(int32_t type, const std::string &text, FirmwareRecord *rec, const char *version)
{
    Exact e(type, text);
    return check_firmware_response(&e.r, rec, version);
}

int text(int32_t type, const std::string &t, char *out, size_t len)
{
    Exact e(type, t);
    return check_text_response(&e.r, out, len);
}

TEST(FirmwareManifest, ReadsTheFiveVersionsByExactKey)
{
    PackageVersions v{};
    ASSERT_EQ(parse(R"({"esp_version": "3.1.4", "nfc1_version": "5.0.61", "nfc2_version": "5.0.62",
                       "display1_version": "1.2.3", "display2_version": "1.2.4", "comment": "ignored",
                       "nested": {"esp_version": "9.9.9"}, "list": [1, 2, "x"]})",
                    &v),
              0);
    // A key met twice (here inside a nested object) ends with the last value, as the tokens come.
    EXPECT_STREQ(v.esp, "9.9.9");
    EXPECT_STREQ(v.nfc1, "5.0.61");
    EXPECT_EQ(v.nfc1_len, 6);
    EXPECT_STREQ(v.nfc2, "5.0.62");
    EXPECT_STREQ(v.display1, "1.2.3");
    EXPECT_STREQ(v.display2, "1.2.4");

    // Keys of another length are other keys, even with the same start; values are cut to 31 characters.
    ASSERT_EQ(parse(R"({"esp_versionX": "1", "esp_versio": "2", "nfc1_version": ")" + std::string(40, '7') + "\"}", &v),
              0);
    EXPECT_STREQ(v.esp, "");
    EXPECT_EQ(std::string(v.nfc1), std::string(31, '7'));
    EXPECT_EQ(v.nfc1_len, 31);
    // Escapes the tokenizer knows pass, and a primitive value is taken as it stands.
    ASSERT_EQ(parse(R"({"nfc2_version": "a\"b\\c\/d\n\u00e9", "display1_version": 42})", &v), 0);
    EXPECT_STREQ(v.nfc2, R"(a\"b\\c\/d\n\u00e9)");
    EXPECT_STREQ(v.display1, "42");
}

TEST(FirmwareManifest, RefusesWhatTheTokenizerCannotTake)
{
    PackageVersions v{};
    std::string many = "{\"a\": [";
    for (int i = 0; i < 70; ++i)
        many += std::to_string(i) + ",";
    many += "0]}";
    for (const std::string &bad :
         {std::string(), std::string("   "), many, std::string(R"({"a": "\x"})"), std::string(R"({"a": "\u12G4"})"),
          std::string(R"({"a": "\u12)"), std::string(R"({"a": [1, 2})"), std::string(R"({"a": 1]})"),
          std::string("{\"a\": 1}}"), std::string("{\"a\":\x01 1}"), std::string(R"({"a": "open)"),
          std::string(R"(["nfc1_version", "1.0.0"])")})
        EXPECT_EQ(parse(bad, &v), -1) << bad;
    // 64 tokens pass, 65 do not: the object, 30 pairs, a key and its array of one or two.
    std::string full = "{";
    for (int i = 0; i < 30; ++i)
        full += "\"k" + std::to_string(i) + "\":" + std::to_string(i) + ",";
    EXPECT_EQ(parse(full + "\"z\":[1]}", &v), 0);
    EXPECT_EQ(parse(full + "\"z\":[1,2]}", &v), -1);
    // The length given bounds the read: a manifest cut before its closing bracket is unmatched.
    const std::string whole = R"({"nfc1_version": "1.0.0"})";
    EXPECT_EQ(parse_firmware_manifest(whole.data(), whole.size() - 1, &v), -1);
    EXPECT_EQ(parse_firmware_manifest(nullptr, 5, &v), -1);
}

TEST(FirmwareResponse, ChecksComeInTheirOrder)
{
    FirmwareRecord rec;
    EXPECT_EQ(check_firmware_response(nullptr, &rec, "1.0.0"), 1);
    EXPECT_EQ(image(ZEL_HTTP_ERROR, "Token required for upgrade\n", &rec, "1"), 2);
    EXPECT_EQ(image(ZEL_HTTP_ERROR, "x Error: Not allowed, you need token to upgrade.", &rec, "1"), 2);
    EXPECT_EQ(image(ZEL_HTTP_ERROR, "busy", &rec, "1"), 1);
    EXPECT_EQ(image(ZEL_HTTP_TEXT, "00112233", &rec, "1"), 1);
    EXPECT_EQ(image(ZEL_HTTP_FIRMWARE_BINARY, "", &rec, "1"), 1);
    for (const char *page : {"<!doctype html>", "xx<HEAD>", "<body>", "HTTP/1.1 502 Bad Gateway", "Gateway Timeout",
                             "0011Error: no", "ERROR: x", "error: y", "Error z"})
        EXPECT_EQ(image(ZEL_HTTP_FIRMWARE_BINARY, page, &rec, "1"), 1) << page;
    // An error text in a small image that also names the token is the token case.
    EXPECT_EQ(image(ZEL_HTTP_FIRMWARE_BINARY, "Error: Token required for upgrade\n", &rec, "1"), 2);
    EXPECT_EQ(rec.data, nullptr);

    // Only the first 1,024 bytes of a small image are examined, and large images not at all.
    EXPECT_EQ(image(ZEL_HTTP_FIRMWARE_BINARY, std::string(1024, 'A') + "<html>", &rec, "2.0.0"), 0);
    EXPECT_EQ(rec.size, 1030u);
    EXPECT_STREQ(rec.version, "2.0.0");
    const std::string big = std::string(10240, '0') + "<html>";
    EXPECT_EQ(image(ZEL_HTTP_FIRMWARE_BINARY, big, &rec, "3.0.0"), 0);
    EXPECT_EQ(rec.size, big.size());
    EXPECT_EQ(0, std::memcmp(rec.data, big.data(), big.size()));
    // Above 10 MiB: refused, and the record keeps what it had.
    const std::string huge(ZEL_FW_IMAGE_MAX + 1, '0');
    EXPECT_EQ(image(ZEL_HTTP_FIRMWARE_BINARY, huge, &rec, "4.0.0"), 1);
    EXPECT_STREQ(rec.version, "3.0.0");
    free_record(&rec);
    EXPECT_EQ(rec.data, nullptr);
}

TEST(FirmwareResponse, TextAnswersAreCutAndTerminated)
{
    char out[8];
    EXPECT_EQ(text(ZEL_HTTP_TEXT, "1.0.0,first\n2.0.0,second", out, sizeof out), 0);
    EXPECT_STREQ(out, "1.0.0,f");
    EXPECT_EQ(text(ZEL_HTTP_TEXT, std::string("ab\0cd", 5), out, sizeof out), 0);
    EXPECT_STREQ(out, "ab");
    EXPECT_EQ(text(ZEL_HTTP_FIRMWARE_BINARY, "ab", out, sizeof out), 1);
    EXPECT_EQ(text(ZEL_HTTP_ERROR, "Token required for upgrade\n", out, sizeof out), 2);
    EXPECT_EQ(text(ZEL_HTTP_TEXT, std::string(70000, 'x'), out, sizeof out), 1);
    EXPECT_EQ(check_text_response(nullptr, out, sizeof out), 1);
    EXPECT_STREQ(out, "");
}

TEST(FirmwareVersionList, LinesAreRewrittenUntilAnOverlongOne)
{
    char out[256];
    const std::string list = "1.0.0,first\r\nno comma here\n2.0.0,\n" + std::string(32, '9') + ",too long\n3.0.0,x\n";
    EXPECT_EQ(parse_version_list(list.data(), list.size(), out, sizeof out), 2);
    EXPECT_STREQ(out, "1.0.0,first\n2.0.0,\n");
    const std::string comment = "1.0.0," + std::string(128, 'c') + "\n2.0.0,b";
    EXPECT_EQ(parse_version_list(comment.data(), comment.size(), out, sizeof out), 0);
    EXPECT_STREQ(out, "");
    // A list that does not fit stops at the last whole line.
    char small[16];
    const std::string two = "1.0.0,aaaa\n2.0.0,bbbb\n";
    EXPECT_EQ(parse_version_list(two.data(), two.size(), small, sizeof small), 1);
    EXPECT_STREQ(small, "1.0.0,aaaa\n");

    char version[32];
    EXPECT_TRUE(get_last_line("1.0.0,a\n2.1.0,b\n\n", version, sizeof version));
    EXPECT_STREQ(version, "2.1.0");
    EXPECT_TRUE(get_last_line("3.0.0", version, sizeof version));
    EXPECT_STREQ(version, "3.0.0");
    EXPECT_FALSE(get_last_line("\n\n", version, sizeof version));
    EXPECT_FALSE(get_last_line("1.0.0,a\n,b", version, sizeof version));
}

TEST(FirmwareImageText, HexIsCheckedAndConverted)
{
    EXPECT_TRUE(is_valid_hex_string("00aFfF", 6));
    for (const char *bad : {"", "0", "0g", "0 11", "00-1"})
        EXPECT_FALSE(is_valid_hex_string(bad, std::strlen(bad))) << bad;
    uint8_t out[3] = {};
    hex_str_to_bin("0aFf7E", 6, out);
    EXPECT_EQ(out[0], 0x0A);
    EXPECT_EQ(out[1], 0xFF);
    EXPECT_EQ(out[2], 0x7E);
    int a = 0, b = 0, c = 0;
    EXPECT_TRUE(parse_version("5.0.61", &a, &b, &c));
    EXPECT_EQ(a * 10000 + b * 100 + c, 50061);
    EXPECT_FALSE(parse_version("5.0", &a, &b, &c));
}

TEST(DeviceParams, TextFormsFollowTheHardwareType)
{
    zel_device_params p{};
    for (uint8_t i = 0; i < 24; ++i)
        p.mui[i] = static_cast<uint8_t>(0xA0 + i);
    std::memcpy(p.serial_nr, "ZL000042", 8);
    p.hw_type = 50;
    p.hw_ver = 7;
    p.device_type = 0xD1180022;
    p.fw_major = 5;
    p.fw_minor = 0;
    p.fw_build = 61;
    device_param_to_str(&p);
    EXPECT_STREQ(p.mui_str, "A0A1A2A3A4A5A6A7A8A9AAAB");
    EXPECT_STREQ(p.serial_str, "ZL000042");
    EXPECT_STREQ(p.hw_type_str, "50");
    EXPECT_STREQ(p.hw_ver_str, "7");
    EXPECT_STREQ(p.device_type_str, "D1180022");
    EXPECT_STREQ(p.fw_str, "5.0.61");
    p.hw_type = ZEL_HW_TYPE_ESP;
    p.fw_major = 255;
    p.fw_minor = 255;
    p.fw_build = 255;
    device_param_to_str(&p);
    EXPECT_STREQ(p.mui_str, "A0A1A2A3A4A5");
    EXPECT_STREQ(p.fw_str, "255.255.255");
}

TEST(DeviceParams, ProgrammingRouteByHardware)
{
    zel_handle_record *hnd = Zel_Hnd_Create();
    struct Case {
        uint8_t hw_type, hw_ver;
        uint32_t kind;
        uint8_t session;
        const char *name; // null: no route
        uint8_t prog_usb;
    } cases[] = {
        {21, 0, ZEL_MODULE_DISPLAY, 0, "ProgDisplayHnd", 0}, {46, 0, ZEL_MODULE_MAIN, 0, "ProgEspHnd", 1},
        {46, 0, ZEL_MODULE_NFC2, 0, "ProgReaderUsbHnd", 0},  {47, 22, ZEL_MODULE_NFC1, 1, "ProgReaderUsbHnd", 0},
        {47, 21, ZEL_MODULE_MAIN, 0, "ProgReaderUsbHnd", 1}, {60, 49, ZEL_MODULE_MAIN, 0, "ProgReaderUsbHnd", 1},
        {47, 22, ZEL_MODULE_MAIN, 0, "ProgReaderHnd", 0},    {45, 21, ZEL_MODULE_MAIN, 0, nullptr, 9},
    };
    for (const Case &c : cases) {
        zel_device_params p{};
        p.hnd = hnd;
        hnd->esp_session = c.session;
        p.hw_type = c.hw_type;
        p.hw_ver = c.hw_ver;
        p.kind = c.kind;
        p.prog_usb = 9;
        zel_device_operations *ops = device_get_operations(&p);
        if (!c.name) {
            EXPECT_EQ(ops, nullptr);
            EXPECT_EQ(p.prog_usb, 9);
            continue;
        }
        ASSERT_NE(ops, nullptr) << c.name;
        EXPECT_STREQ(ops->name, c.name);
        EXPECT_NE(ops->program, nullptr);
        EXPECT_EQ(p.prog_usb, c.prog_usb) << c.name << " " << int(c.hw_ver);
        device_free_operations(ops);
    }
    Zel_Hnd_Destroy(hnd);
}

TEST(FirmwareService, EveryFunctionAnswersNullWithoutAService)
{
    zel_fw_identity id{};
    EXPECT_EQ(http_get_firmware(&id, "1.0.0", "t"), nullptr);
    EXPECT_EQ(http_get_display_firmware(&id, "1.0.0", nullptr), nullptr);
    EXPECT_EQ(http_get_configuration(nullptr), nullptr);
    EXPECT_EQ(http_get_package_name_by_firmware_version(50, "5.0.60"), nullptr);
    http_response_free(nullptr);
    // A response of any type is freed whole.
    http_response_free(make_response(ZEL_HTTP_EMPTY, "x", 1));
    // The downloads on a handle report the missing service as a failed download.
    zel_handle_record *hnd = Zel_Hnd_Create();
    char out[64] = "untouched";
    EXPECT_EQ(Flasher_ListConfigurationsHnd(hnd, out, sizeof out), ZEL_FLASHER_ERROR_DOWNLOAD_FAILED);
    EXPECT_STREQ(out, "");
    uint8_t buf[16];
    uint32_t size = 7;
    EXPECT_EQ(Flasher_DownloadConfigurationHnd(hnd, "door", buf, sizeof buf, &size), ZEL_FLASHER_ERROR_DOWNLOAD_FAILED);
    EXPECT_EQ(size, 0u);
    Zel_Hnd_Destroy(hnd);
}

} // namespace
