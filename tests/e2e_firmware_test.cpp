// The firmware manager against the simulated reader shown as a USB device: a whole package (the reader's own
// module and its display) installed through the boot loader, the USB device leaving and coming back under
// the same serial number on another port, with every wait of the library taken from the reader's time.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <vector>

#include "core/internal.h"
#include "fw_service.h"
#include "tandro.h"
#include "transport/sysfs.h"
#include "zelsim.h"

namespace {

std::atomic<zsim_usb *> g_usb{nullptr};
std::atomic<uint64_t> g_slept{0};

// The library's waits: no real sleep, the reader's time goes on instead.
void reader_time(uint32_t ms)
{
    g_slept += ms;
    zsim_usb_advance(g_usb.load(), ms);
}

std::vector<uint8_t> pattern(size_t n, uint32_t seed)
{
    std::vector<uint8_t> out(n);
    for (size_t i = 0; i < n; ++i) {
        seed = seed * 1103515245u + 12345u;
        out[i] = static_cast<uint8_t>(seed >> 16);
    }
    return out;
}

// Hex text with digits of both cases, as services send them.
std::string hex_of(const std::vector<uint8_t> &bytes)
{
    static const char upper[] = "0123456789ABCDEF", lower[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < bytes.size(); ++i) {
        const char *d = i % 3 ? upper : lower;
        s += d[bytes[i] >> 4];
        s += d[bytes[i] & 15];
    }
    return s;
}

struct Report {
    int stage, code, percent;
    std::string text, serial;
};
std::vector<Report> g_reports;

void collect(int stage, int code, int percent, const char *text, const char *serial)
{
    g_reports.push_back({stage, code, percent, text ? text : "", serial ? serial : "(null)"});
}

bool reported(const std::string &text, int stage = -1, int code = -1)
{
    for (const Report &r : g_reports)
        if (r.text == text && (stage < 0 || r.stage == stage) && (code < 0 || r.code == code))
            return true;
    return false;
}

class FirmwareE2E : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/zelfw.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        sim = zsim_new();
        char err[256] = {};
        const char *scenario = R"({"reader": {"serial_description": "ZL000042", "hardware": {"type": 50, "version": 2},
                                   "firmware": {"major": 5, "minor": 0, "build": 60}}})";
        ASSERT_EQ(zsim_load_scenario(sim, scenario, err, sizeof err), 0) << err;
        zsim_set_time_scale(sim, 0);
        zsim_display_identity(sim, ZEL_HW_TYPE_DISPLAY, 3);
        usb = zsim_usb_start(sim, dir.c_str(), "ZL000042", 3, err, sizeof err);
        ASSERT_NE(usb, nullptr) << err;
        g_usb = usb;
        g_slept = 0;
        g_reports.clear();
        zel::set_dev_root(dir.c_str());
        zel::set_sysfs_root((dir + "/sys").c_str());
        zel::set_sleep_hook(reader_time);
        hnd = Zel_Hnd_Create();
        ASSERT_EQ(ReaderOpenExHnd(hnd, 1, (dir + "/ttyUSB3").c_str(), 1, "UNIT_OPEN_RESET_DISABLE"), ZEL_OK);
    }
    void TearDown() override
    {
        if (hnd)
            Zel_Hnd_Destroy(hnd);
        zel::set_sleep_hook(nullptr);
        zel::set_dev_root(nullptr);
        zel::set_sysfs_root(nullptr);
        g_usb = nullptr;
        zsim_usb_free(usb);
        zsim_free(sim);
        const std::string cmd = "rm -rf '" + dir + "'";
        EXPECT_EQ(system(cmd.c_str()), 0);
    }

    std::string dir;
    zsim *sim = nullptr;
    zsim_usb *usb = nullptr;
    ZEL_HANDLE hnd = nullptr;
};

TEST_F(FirmwareE2E, WholePackageThenNothingToDo)
{
    // The reader's image ends with a partial packet, which the manager does not send; the display's too.
    const std::vector<uint8_t> main_image = pattern(128 * 20 + 50, 7);
    const std::vector<uint8_t> display_image = pattern(64 * 70 + 10, 9);
    zsim_boot_loader(sim, 128 * 20, 5, 1, 0);
    zsim_boot_fault(sim, 5, ZSIM_PACKET_DROP, 0); // one reply lost: the packet goes again
    zsim_display_firmware(sim, 64 * 70, 1, 5, 0);
    zsim_usb_set_away(usb, 1000, 7); // back on another port number
    zeltest::FwService service;
    service.image("main", "5.1.0", hex_of(main_image));
    service.image("display", "1.5.0", hex_of(display_image));
    const char *manifest = R"({"package": "2.0.0", "nfc1_version": "5.1.0", "display1_version": "1.5.0"})";

    ASSERT_EQ(Flasher_InstallFirmwarePackageHnd(hnd, manifest, nullptr, 0, collect), ZEL_OK);

    // The boot loader took exactly the whole packets, in order, and restarted with the new version.
    std::vector<uint8_t> got(main_image.size());
    ASSERT_EQ(zsim_boot_image(sim, got.data(), got.size()), 128u * 20);
    EXPECT_EQ(0, std::memcmp(got.data(), main_image.data(), 128 * 20));
    EXPECT_EQ(zsim_usb_departures(usb), 2u); // into the boot loader, and the restart
    char port[512] = {};
    EXPECT_EQ(zsim_usb_port(usb, port, sizeof port), 1);
    EXPECT_EQ(std::string(port), dir + "/ttyUSB7");
    uint8_t major = 0, minor = 0, build = 0;
    ASSERT_EQ(GetReaderFirmwareVersionHnd(hnd, &major, &minor), ZEL_OK); // the handle is on the new port
    EXPECT_EQ(major, 5);
    EXPECT_EQ(minor, 1);
    // The display's flash holds its image; it restarted with its new version.
    std::vector<uint8_t> flash(64 * 70);
    ASSERT_EQ(zsim_display_flash(sim, 0, flash.data(), flash.size()), flash.size());
    EXPECT_EQ(0, std::memcmp(flash.data(), display_image.data(), flash.size()));
    ASSERT_EQ(Display_GetFirmwareVersionHnd(hnd, &major, &minor, &build), ZEL_OK);
    EXPECT_EQ(major * 10000 + minor * 100 + build, 10500);

    EXPECT_TRUE(reported("Finished firmware upgrade. New firmare: 5.1.0 ...", 7, 0));
    EXPECT_TRUE(reported("Finished Display module firmware upgrade. New firmare: 1.5.0 ...", 7, 0));
    EXPECT_TRUE(reported("Successfully reconnected the USB reader.", 5, 0));
    EXPECT_TRUE(reported("Re-downloading Display1 firmware after parent module upgrade..."));
    ASSERT_FALSE(g_reports.empty());
    EXPECT_EQ(g_reports.back().text, "Firmware package upgrade completed!");
    EXPECT_EQ(g_reports.back().percent, 100);
    for (const Report &r : g_reports)
        EXPECT_EQ(r.serial, "ZL000042") << r.text;
    // Installing reports come at changes of percentage only, each a multiple of 10, rising within a module.
    int last = -1;
    for (const Report &r : g_reports) {
        if (r.text == "Installing firmware...") {
            EXPECT_EQ(r.percent % 10, 0);
            if (r.percent > 0) {
                EXPECT_GT(r.percent, last);
            }
            last = r.percent;
        }
    }
    EXPECT_EQ(service.count("image main 5.1.0"), 1u);
    EXPECT_EQ(service.count("image display 1.5.0"), 2u); // again after its parent's upgrade
    // The waits were the reader's time, not the test's: the re-detections and the 3,500 ms settling.
    EXPECT_GE(g_slept.load(), 2u * 3500u);

    // A second run finds every module at the package's versions: nothing is downloaded or installed.
    const size_t before = service.requests().size();
    g_reports.clear();
    ASSERT_EQ(Flasher_InstallFirmwarePackageHnd(hnd, manifest, nullptr, 0, collect), ZEL_OK);
    EXPECT_EQ(service.requests().size(), before);
    EXPECT_TRUE(reported("Skipping main module upgrade, same firmware already installed!"));
    EXPECT_TRUE(reported("Skipping Display1 firmware download, same firmware already installed!"));
    EXPECT_EQ(zsim_usb_departures(usb), 2u);
    ASSERT_FALSE(g_reports.empty());
    EXPECT_EQ(g_reports.back().stage, 7);
    EXPECT_EQ(g_reports.back().percent, 100);
}

TEST_F(FirmwareE2E, AFailedModuleIsRetriedAndTheUpgradedOneSkipped)
{
    const std::vector<uint8_t> main_image = pattern(128 * 8, 3);
    const std::vector<uint8_t> display_image = pattern(64 * 10, 4);
    zsim_boot_loader(sim, 128 * 8, 5, 2, 1);
    zsim_display_firmware(sim, 64 * 10, 2, 0, 0);
    zeltest::FwService service;
    service.image("main", "5.2.1", hex_of(main_image));
    service.image("display", "2.0.0", hex_of(display_image));
    // The display's image comes back once as an error page: the run ends after the reader's own upgrade.
    service.bend("display", "2.0.0", zeltest::Bend::HTML, 1);
    const char *manifest = R"({"nfc1_version": "5.2.1", "display1_version": "2.0.0"})";

    EXPECT_EQ(Flasher_InstallFirmwarePackageHnd(hnd, manifest, nullptr, 0, collect), ZEL_FLASHER_ERROR_DOWNLOAD_FAILED);
    EXPECT_TRUE(reported("Firmware download for the Display1 module failed!", 1, 1));
    uint8_t major = 0, minor = 0, build = 0;
    ASSERT_EQ(GetReaderFirmwareVersionHnd(hnd, &major, &minor), ZEL_OK);
    EXPECT_EQ(minor, 2); // the reader's upgrade stays
    ASSERT_EQ(Display_GetFirmwareVersionHnd(hnd, &major, &minor, &build), ZEL_OK);
    EXPECT_EQ(major, 1); // the display was never touched

    g_reports.clear();
    ASSERT_EQ(Flasher_InstallFirmwarePackageHnd(hnd, manifest, nullptr, 0, collect), ZEL_OK);
    EXPECT_TRUE(reported("Skipping main module upgrade, same firmware already installed!"));
    EXPECT_EQ(service.count("image main 5.2.1"), 1u);
    ASSERT_EQ(Display_GetFirmwareVersionHnd(hnd, &major, &minor, &build), ZEL_OK);
    EXPECT_EQ(major, 2);
    EXPECT_EQ(zsim_usb_departures(usb), 2u);
}

TEST_F(FirmwareE2E, AReaderThatStaysAwayEndsTheRunWithReconnectionFailed)
{
    zsim_boot_loader(sim, 128 * 4, 5, 3, 0);
    zsim_usb_set_away(usb, 60000, -1); // gone far longer than the manager waits
    zeltest::FwService service;
    service.image("main", "5.3.0", hex_of(pattern(128 * 4, 1)));
    EXPECT_EQ(Flasher_InstallFirmwarePackageHnd(hnd, R"({"nfc1_version": "5.3.0"})", nullptr, 0, collect),
              ZEL_FLASHER_FIRMWARE_INSTALL_ERROR);
    EXPECT_TRUE(reported("Timeout waiting for device ZL000042 to reconnect", 3, 8));
    // The previous port is tried last: it is gone too.
    EXPECT_TRUE(reported("Failed to re-open USB reader in boot mode...", 3, 8));
    int boot_state = zsim_boot_state(sim, nullptr, nullptr);
    EXPECT_EQ(boot_state, 1); // waiting in its boot loader, nothing programmed
}

TEST_F(FirmwareE2E, RefusedDownloadsProgramNothing)
{
    zeltest::FwService service;
    service.image("main", "6.0.0", hex_of(pattern(128 * 4, 2)));
    const char *manifest = R"({"nfc1_version": "6.0.0"})";
    struct Case {
        zeltest::Bend bend;
        ZEL_STATUS status;
    } cases[] = {
        {zeltest::Bend::NULL_RESPONSE, ZEL_FLASHER_ERROR_DOWNLOAD_FAILED},
        {zeltest::Bend::TOKEN_TEXT, ZEL_FLASHER_TOKEN_ERROR},
        {zeltest::Bend::HTML, ZEL_FLASHER_ERROR_DOWNLOAD_FAILED},
        {zeltest::Bend::BAD_GATEWAY, ZEL_FLASHER_ERROR_DOWNLOAD_FAILED},
        {zeltest::Bend::WRONG_TYPE, ZEL_FLASHER_ERROR_DOWNLOAD_FAILED},
        {zeltest::Bend::EMPTY, ZEL_FLASHER_ERROR_DOWNLOAD_FAILED},
    };
    for (const Case &c : cases) {
        service.bend("main", "6.0.0", c.bend, 1);
        EXPECT_EQ(Flasher_InstallFirmwarePackageHnd(hnd, manifest, nullptr, 0, collect), c.status)
            << static_cast<int>(c.bend);
    }
    // Odd-length hex passes the download checks and is refused before any packet.
    service.bend("main", "6.0.0", zeltest::Bend::ODD_HEX, 1);
    EXPECT_EQ(Flasher_InstallFirmwarePackageHnd(hnd, manifest, nullptr, 0, collect),
              ZEL_FLASHER_FIRMWARE_INSTALL_ERROR);
    EXPECT_TRUE(reported("Invalid firmware format - not valid hexadecimal data", 4, 10));
    uint32_t packets = 0;
    zsim_boot_state(sim, nullptr, &packets);
    EXPECT_EQ(packets, 0u);
    EXPECT_EQ(Flasher_InstallFirmwarePackageHnd(hnd, "{\"nfc1_version\": ", nullptr, 0, collect),
              ZEL_FLASHER_FIRMWARE_MANIFEST_ERROR);
}

} // namespace

namespace {

TEST_F(FirmwareE2E, DeviceParameterRecordsOfTheReaderAndItsDisplay)
{
    zel_device_params reader{};
    reader.hnd = hnd;
    ASSERT_EQ(device_get_params(&reader), ZEL_OK);
    EXPECT_EQ(reader.hw_type, 50);
    EXPECT_EQ(reader.hw_ver, 2);
    EXPECT_STREQ(reader.fw_str, "5.0.60");
    EXPECT_STREQ(reader.serial_str, "ZL000042");
    EXPECT_EQ(reader.is_esp, 0);
    EXPECT_EQ(reader.no_fw, 0);
    ASSERT_NE(reader.operations, nullptr);
    EXPECT_STREQ(reader.operations->name, "ProgReaderHnd");
    device_free_operations(reader.operations);

    zel_device_params display{};
    display.hnd = hnd;
    display.kind = ZEL_MODULE_DISPLAY;
    ASSERT_EQ(device_get_params(&display), ZEL_OK);
    EXPECT_EQ(display.hw_type, ZEL_HW_TYPE_DISPLAY);
    EXPECT_EQ(display.hw_ver, 3);
    EXPECT_STREQ(display.fw_str, "1.4.2");
    EXPECT_STREQ(display.serial_str, "<=>?@ABC"); // bytes 12 to 19 of the module's record
    ASSERT_NE(display.operations, nullptr);
    EXPECT_STREQ(display.operations->name, "ProgDisplayHnd");
    EXPECT_EQ(display.prog_usb, 0);
    device_free_operations(display.operations);
}

TEST_F(FirmwareE2E, PackageListsManifestsAndTheLatestStablePackage)
{
    zeltest::FwService service;
    service.packages = "1.0.0,first\r\n2.0.0,stable\n";
    service.manifests["2.0.0"] = R"({"nfc1_version": "5.0.60", "display1_version": "1.4.2"})";
    service.package_name = "1.0.0\n";
    char out[256] = {};
    ASSERT_EQ(Flasher_ListReaderFirmwarePackagesHnd(hnd, out, sizeof out), ZEL_OK);
    EXPECT_STREQ(out, "1.0.0,first\n2.0.0,stable\n");
    ASSERT_EQ(Flasher_GetFirmwarePackageManifestHnd(hnd, "2.0.0", out, sizeof out), ZEL_OK);
    EXPECT_EQ(std::string(out), service.manifests["2.0.0"]);
    EXPECT_EQ(Flasher_GetFirmwarePackageManifestHnd(hnd, "9.9.9", out, sizeof out), ZEL_FLASHER_ERROR_DOWNLOAD_FAILED);
    ASSERT_EQ(Flasher_GetInstalledPackageNameHnd(hnd, out, sizeof out), ZEL_OK);
    EXPECT_STREQ(out, "1.0.0");
    EXPECT_EQ(service.count("package-name 50 5.0.60"), 1u);

    // Another package is newer: it is installed, here with nothing to change.
    ASSERT_EQ(Flasher_InstallLatestStableFirmwarePackageHnd(hnd, collect), ZEL_OK);
    EXPECT_EQ(service.count("manifest 2.0.0"), 2u);
    EXPECT_TRUE(reported("Checking if update is necessary..."));
    EXPECT_TRUE(reported("Firmware package upgrade completed!", 7, 0));
    // The newest package is the installed one.
    service.package_name = "2.0.0";
    g_reports.clear();
    EXPECT_EQ(Flasher_InstallLatestStableFirmwarePackageHnd(hnd, collect), ZEL_FLASHER_PACKAGE_ALREADY_INSTALLED);
    EXPECT_TRUE(reported("Package has been already installed.", 7, 0));
}

TEST_F(FirmwareE2E, OneImageDownloadedToABuffer)
{
    zeltest::FwService service;
    const std::string text = hex_of(pattern(300, 5));
    service.image("display", "1.9.0", text);
    std::vector<uint8_t> buf(1024);
    uint32_t size = 0;
    ASSERT_EQ(Flasher_DownloadFirmwareHnd(hnd, ZEL_MODULE_DISPLAY, "1.9.0", "secret", buf.data(),
                                          static_cast<uint32_t>(buf.size()), &size, collect),
              ZEL_OK);
    ASSERT_EQ(size, text.size());
    EXPECT_EQ(0, std::memcmp(buf.data(), text.data(), size));
    EXPECT_EQ(service.count("image display 1.9.0 token"), 1u);
    EXPECT_EQ(Flasher_DownloadFirmwareHnd(hnd, ZEL_MODULE_DISPLAY, "1.9.0", nullptr, buf.data(), 599, &size, collect),
              ZEL_BUFFER_OVERFLOW);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(Flasher_DownloadFirmwareHnd(hnd, ZEL_MODULE_MAIN, "0.0.1", nullptr, buf.data(), 1024, &size, collect),
              ZEL_FLASHER_ERROR_DOWNLOAD_FAILED);
}

} // namespace

namespace {

// A network module shown as a USB device, with two NFC modules behind it, each with its own identity and
// boot loader; the library reaches them through its sessions.
class FirmwareEspE2E : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/zelfwesp.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        sim = zsim_new();
        zsim_set_time_scale(sim, 0);
        zsim_esp_enable(sim, 2);
        zsim_esp_identity(sim, 0, "ZE000007", ZEL_HW_TYPE_ESP, 1, 3, 1, 12);
        zsim_esp_identity(sim, 1, "ZL000101", 50, 2, 5, 0, 60);
        zsim_esp_identity(sim, 2, "ZL000102", 50, 2, 5, 0, 60);
        char err[256] = {};
        usb = zsim_usb_start(sim, dir.c_str(), "ZE000007", 3, err, sizeof err);
        ASSERT_NE(usb, nullptr) << err;
        g_usb = usb;
        g_slept = 0;
        g_reports.clear();
        zel::set_dev_root(dir.c_str());
        zel::set_sysfs_root((dir + "/sys").c_str());
        zel::set_sleep_hook(reader_time);
        hnd = Zel_Hnd_Create();
        ASSERT_EQ(ReaderOpenExHnd(hnd, 1, (dir + "/ttyUSB3").c_str(), 1, "UNIT_OPEN_RESET_DISABLE"), ZEL_OK);
    }
    void TearDown() override
    {
        if (hnd)
            Zel_Hnd_Destroy(hnd);
        zel::set_sleep_hook(nullptr);
        zel::set_dev_root(nullptr);
        zel::set_sysfs_root(nullptr);
        g_usb = nullptr;
        zsim_usb_free(usb);
        zsim_free(sim);
        const std::string cmd = "rm -rf '" + dir + "'";
        EXPECT_EQ(system(cmd.c_str()), 0);
    }

    uint8_t session()
    {
        zsim_esp e{};
        zsim_esp_get(sim, &e);
        return e.target;
    }
    // The version a unit reports in a session with it.
    std::string unit_version(uint8_t unit)
    {
        uint8_t major = 0, minor = 0;
        if (EspSetTransparentReaderSessionHnd(hnd, unit) != ZEL_OK ||
            GetReaderFirmwareVersionHnd(hnd, &major, &minor) != ZEL_OK)
            return "?";
        (void)EspSetTransparentReaderSessionHnd(hnd, ZEL_ESP_SELF);
        return std::to_string(major) + "." + std::to_string(minor);
    }
    bool boot_image_is(uint8_t unit, const std::vector<uint8_t> &image, size_t len)
    {
        std::vector<uint8_t> got(len + 1);
        return zsim_esp_boot_image(sim, unit, got.data(), got.size()) == len &&
               std::memcmp(got.data(), image.data(), len) == 0;
    }

    std::string dir;
    zsim *sim = nullptr;
    zsim_usb *usb = nullptr;
    ZEL_HANDLE hnd = nullptr;
};

TEST_F(FirmwareEspE2E, TheModuleAndItsUnitsWithOneUnitFailingOnce)
{
    // The module's image is binary and goes in whole 4,096-byte packets; the partial rest is not sent.
    const std::vector<uint8_t> esp_image = pattern(4096 * 3 + 100, 11);
    const std::vector<uint8_t> nfc1_image = pattern(128 * 6, 12);
    const std::vector<uint8_t> nfc2_image = pattern(128 * 5, 13);
    zsim_esp_boot_loader(sim, 0, 4096 * 3, 3, 2, 0);
    zsim_esp_boot_loader(sim, 1, 128 * 6, 5, 1, 0);
    zsim_esp_boot_loader(sim, 2, 128 * 5, 5, 1, 1);
    for (int i = 0; i < 3; ++i) // every try of packet 2 gets a bent reply: the second unit fails
        zsim_esp_boot_fault(sim, 2, 2, ZSIM_PACKET_GARBLE, 0);
    zsim_usb_set_away(usb, 1000, 5);
    zeltest::FwService service;
    service.image("main", "3.2.0", std::string(esp_image.begin(), esp_image.end()));
    service.image("main", "5.1.0", hex_of(nfc1_image));
    service.image("main", "5.1.1", hex_of(nfc2_image));
    const char *manifest = R"({"esp_version": "3.2.0", "nfc1_version": "5.1.0", "nfc2_version": "5.1.1"})";

    EXPECT_EQ(Flasher_InstallFirmwarePackageHnd(hnd, manifest, nullptr, 0, collect),
              ZEL_FLASHER_FIRMWARE_INSTALL_ERROR);
    EXPECT_EQ(session(), ZEL_ESP_SELF); // back with the module after the failure
    // The module took its whole packets and restarted with its new version on another port.
    EXPECT_TRUE(boot_image_is(0, esp_image, 4096 * 3));
    EXPECT_EQ(zsim_usb_departures(usb), 2u);
    uint8_t major = 0, minor = 0, build = 0;
    ASSERT_EQ(EspGetFirmwareVersionHnd(hnd, &major, &minor, &build), ZEL_OK);
    EXPECT_EQ(major * 10000 + minor * 100 + build, 30200);
    // The first unit has its image and version; the second stays at its own.
    EXPECT_TRUE(boot_image_is(1, nfc1_image, nfc1_image.size()));
    EXPECT_EQ(unit_version(1), "5.1");
    EXPECT_EQ(unit_version(2), "5.0");
    EXPECT_TRUE(reported("Finished ESP module firmware upgrade. New firmare: 3.2.0 ...", 7, 0));
    EXPECT_TRUE(reported("Finished NFC1 module firmware upgrade. New firmare: 5.1.0 ...", 7, 0));
    bool packet_failure = false;
    for (const Report &r : g_reports)
        packet_failure |=
            r.stage == 4 && r.code == 10 && r.text.rfind("Firmware upgrade failed, packet_nr = 2 ", 0) == 0;
    EXPECT_TRUE(packet_failure);
    for (const Report &r : g_reports)
        EXPECT_EQ(r.serial, "ZE000007") << r.text;
    // Each image was asked for with the identity of the module it is for.
    const std::vector<std::string> askers = service.image_askers();
    const std::vector<std::string> expected = {"ZE000007 46 3.2.0", "ZL000101 50 5.1.0", "ZL000102 50 5.1.1"};
    EXPECT_EQ(askers, expected);

    // The retry finds the module and the first unit done: only the second unit's image comes again.
    g_reports.clear();
    ASSERT_EQ(Flasher_InstallFirmwarePackageHnd(hnd, manifest, nullptr, 0, collect), ZEL_OK);
    EXPECT_EQ(session(), ZEL_ESP_SELF);
    EXPECT_TRUE(reported("Skipping main module upgrade, same firmware already installed!"));
    EXPECT_TRUE(reported("Skipping NFC1 firmware download, same firmware already installed!"));
    EXPECT_TRUE(reported("Finished NFC2 module firmware upgrade. New firmare: 5.1.1 ...", 7, 0));
    EXPECT_EQ(service.count("image main 3.2.0"), 1u);
    EXPECT_EQ(service.count("image main 5.1.0"), 1u);
    EXPECT_EQ(service.count("image main 5.1.1"), 2u);
    EXPECT_TRUE(boot_image_is(2, nfc2_image, nfc2_image.size()));
    EXPECT_EQ(unit_version(2), "5.1");
    ASSERT_EQ(EspSetTransparentReaderSessionHnd(hnd, 2), ZEL_OK);
    ASSERT_EQ(GetBuildNumberHnd(hnd, &build), ZEL_OK);
    EXPECT_EQ(build, 1);
    ASSERT_EQ(EspSetTransparentReaderSessionHnd(hnd, ZEL_ESP_SELF), ZEL_OK);
    EXPECT_EQ(zsim_usb_departures(usb), 2u); // the units restart behind the module: the device stays

    // A third run downloads and installs nothing.
    const size_t before = service.requests().size();
    g_reports.clear();
    ASSERT_EQ(Flasher_InstallFirmwarePackageHnd(hnd, manifest, nullptr, 0, collect), ZEL_OK);
    EXPECT_EQ(service.requests().size(), before);
    EXPECT_TRUE(reported("Skipping NFC2 firmware download, same firmware already installed!"));
    EXPECT_EQ(session(), ZEL_ESP_SELF);
    ASSERT_FALSE(g_reports.empty());
    EXPECT_EQ(g_reports.back().text, "Firmware package upgrade completed!");
}

} // namespace
