// Opening, resetting and closing readers end to end: a simulated reader on a pseudo-terminal, behind the
// stand-in D2XX library (FTDI) and behind the stand-in pinctrl (GPIO reset line).
#include <gtest/gtest.h>

#include <dirent.h>
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "core/internal.h"
#include "tandro.h"
#include "transport/reset.h"
#include "transport/sysfs.h"
#include "zelsim.h"

namespace {

// The open's deliberate sleeps, and the reader's own times, at a tenth.
void tenth_sleep(uint32_t ms)
{
    usleep(ms * 100);
}

int open_descriptors()
{
    int n = 0;
    if (DIR *d = opendir("/proc/self/fd")) {
        while (readdir(d))
            ++n;
        closedir(d);
    }
    return n;
}

class OpenTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        zel::set_sleep_hook(tenth_sleep);
        sim = zsim_new();
        ASSERT_NE(sim, nullptr);
        zsim_set_time_scale(sim, 10);
        zsim_set_serial_description(sim, "ZR004711");
        ASSERT_EQ(zsim_serve_pty(sim, path, sizeof path), 0);
    }
    void TearDown() override
    {
        ReaderClose();
        zsim_free(sim);
        zel::set_sleep_hook(nullptr);
    }
    // The command byte of the reader's last request.
    uint8_t last_command()
    {
        uint8_t buf[300] = {};
        return zsim_last_request(sim, buf, sizeof buf) >= 2 ? buf[1] : 0;
    }

    zsim *sim = nullptr;
    char path[256] = {};
};

TEST_F(OpenTest, GlobalOpenOnASerialPortClosesAndOpensAgain)
{
    ASSERT_EQ(ReaderOpenEx(1, path, 1, "UNIT_OPEN_RESET_DISABLE"), ZEL_OK);
    EXPECT_EQ(zel_global.comm.use, ZEL_PORT_SERIAL);
    EXPECT_EQ(zel_global.reset_on_open, UNIT_OPEN_RESET_DISABLE);
    EXPECT_EQ(zel_global.baud_rate, 1000000u);
    EXPECT_EQ(zel_global.open_speed, 1);
    EXPECT_STREQ(zel_global.try_port, path);
    // The global open ends with the asynchronous card id sending switched off.
    EXPECT_EQ(last_command(), 0x3D);
    uint32_t type = 0;
    EXPECT_EQ(GetReaderType(&type), ZEL_OK);
    EXPECT_EQ(type, 0xD1180022u);
    uint32_t connected = 7;
    EXPECT_EQ(ReaderStillConnected(&connected), ZEL_OK);
    EXPECT_EQ(connected, 1u);

    ASSERT_EQ(ReaderClose(), ZEL_OK);
    EXPECT_NE(GetReaderType(&type), ZEL_OK);
    // A device path with the automatic interface takes the serial port as a "COM" name would.
    ASSERT_EQ(ReaderOpenEx(1, path, 0, "UNIT_OPEN_RESET_DISABLE"), ZEL_OK);
    EXPECT_EQ(zel_global.comm.use, ZEL_PORT_SERIAL);
    EXPECT_EQ(GetReaderType(&type), ZEL_OK);

    // A reader on a handle of one's own, beside the global one, on the same record kind.
    ZEL_HANDLE hnd = Zel_Hnd_Create();
    zsim *second = zsim_new();
    char second_path[256] = {};
    ASSERT_EQ(zsim_serve_pty(second, second_path, sizeof second_path), 0);
    zsim_set_reader_type(second, 0x0A0B0C0D);
    ASSERT_EQ(ReaderOpenExHnd(hnd, 1, second_path, 1, "UNIT_OPEN_RESET_DISABLE"), ZEL_OK);
    EXPECT_EQ(GetReaderTypeM(hnd, &type), ZEL_OK);
    EXPECT_EQ(type, 0x0A0B0C0Du);
    EXPECT_EQ(GetReaderType(&type), ZEL_OK);
    EXPECT_EQ(type, 0xD1180022u);
    Zel_Hnd_Destroy(hnd);
    zsim_free(second);
}

TEST_F(OpenTest, FailedOpensCloseTheirPortAndLeaveTheRecordUsable)
{
    const int before = open_descriptors();
    ZEL_HANDLE hnd = Zel_Hnd_Create();
    // No such port.
    EXPECT_EQ(ReaderOpenExHnd(hnd, 1, "/dev/zel-no-such-port", 1, "UNIT_OPEN_RESET_DISABLE"), ZEL_READER_OPENING_ERROR);
    // A pseudo-terminal has no reset line: an open that resets fails at the reset.
    EXPECT_NE(ReaderOpenExHnd(hnd, 1, path, 1, "UNIT_OPEN_RESET_FORCE"), ZEL_OK);
    // A reader that never answers.
    zsim_fault silent{};
    silent.kind = ZSIM_FAULT_SILENCE;
    silent.times = -1;
    silent.command = -1;
    zsim_fault_push(sim, &silent);
    EXPECT_EQ(ReaderOpenExHnd(hnd, 1, path, 1, "UNIT_OPEN_RESET_DISABLE"), ZEL_COMMUNICATION_BREAK);
    zsim_fault_clear(sim);
    // Garbage instead of a reply.
    zsim_fault bad{};
    bad.kind = ZSIM_FAULT_BAD_CHECKSUM;
    bad.times = -1;
    bad.command = -1;
    zsim_fault_push(sim, &bad);
    EXPECT_NE(ReaderOpenExHnd(hnd, 1, path, 1, "UNIT_OPEN_RESET_DISABLE"), ZEL_OK);
    zsim_fault_clear(sim);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(hnd->comHandle, nullptr);

    ASSERT_EQ(ReaderOpenExHnd(hnd, 1, path, 1, "UNIT_OPEN_RESET_DISABLE"), ZEL_OK);
    uint32_t type = 0;
    EXPECT_EQ(GetReaderTypeM(hnd, &type), ZEL_OK);
    Zel_Hnd_Destroy(hnd);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(OpenTest, ResetOnlySkipsTheTestAndUnpluggedReadersReportGone)
{
    ZEL_HANDLE hnd = Zel_Hnd_Create();
    // Reset only, with the line disconnected: nothing moves, nothing is asked.
    const uint64_t exchanges = zsim_exchange_count(sim);
    EXPECT_EQ(ReaderOpenExHnd(hnd, 1, path, 1, "UNIT_OPEN_RESET_DISABLE"), ZEL_OK);
    EXPECT_GT(zsim_exchange_count(sim), exchanges);
    hnd->reset_on_open = UNIT_OPEN_RESET_ONLY;
    const uint64_t now = zsim_exchange_count(sim);
    EXPECT_EQ(test_reader_fw_version(hnd), ZEL_OK);
    EXPECT_EQ(zsim_exchange_count(sim), now);

    EXPECT_EQ(ReaderSoftRestartM(hnd), ZEL_OK);
    EXPECT_EQ(last_command(), 0x30);

    uint32_t connected = 9;
    zsim_stop(sim); // the reader is unplugged
    EXPECT_NE(ReaderStillConnectedM(hnd, &connected), ZEL_OK);
    EXPECT_EQ(connected, 0u);
    EXPECT_EQ(ReaderStillConnectedHnd(nullptr, &connected), ZEL_DEVICE_WRONG_HANDLE);
    Zel_Hnd_Destroy(hnd);
}

// The stand-in D2XX library, loaded before the library asks for it by name so that its load finds it.
class FtdiTest : public OpenTest {
protected:
    void SetUp() override
    {
        OpenTest::SetUp();
        lib = dlopen(ZEL_D2XX_PATH, RTLD_NOW | RTLD_GLOBAL);
        ASSERT_NE(lib, nullptr) << dlerror();
        load = reinterpret_cast<int (*)(const char *, char *, size_t)>(dlsym(lib, "zsim_d2xx_load"));
        resets = reinterpret_cast<int64_t (*)(uint32_t)>(dlsym(lib, "zsim_d2xx_resets"));
        ASSERT_NE(load, nullptr);
        ASSERT_NE(resets, nullptr);
    }
    void TearDown() override
    {
        ReaderClose();
        char err[64];
        load("{\"devices\": []}", err, sizeof err);
        OpenTest::TearDown();
    }
    void devices(const char *json)
    {
        char err[256] = {};
        ASSERT_EQ(load(json, err, sizeof err), 0) << err;
    }

    void *lib = nullptr;
    int (*load)(const char *, char *, size_t) = nullptr;
    int64_t (*resets)(uint32_t) = nullptr;
};

TEST_F(FtdiTest, OpenBySerialResetsTheReaderAndWaitsForItsBoot)
{
    devices(R"({"devices": [
        {"time_scale": 10, "reader": {"serial_description": "ZR000001"},
         "links": [{"kind": "d2xx", "serial": "FTDI0001", "description": "Zel reader"}]},
        {"time_scale": 10, "reader": {"serial_description": "ZR000002"},
         "links": [{"kind": "d2xx", "serial": "FTDI0002", "description": "Zel reader", "invert_rts": true}]}]})");
    ZEL_HANDLE hnd = Zel_Hnd_Create();
    ASSERT_EQ(ReaderOpenExHnd(hnd, 1, "FTDI0002", 2, nullptr), ZEL_OK);
    EXPECT_EQ(hnd->comm.use, ZEL_PORT_FTDI);
    EXPECT_EQ(hnd->comm.RTS_inverted, 1u); // from the device's EEPROM
    EXPECT_EQ(resets(1), 1);               // one reset edge, seen by the reader
    EXPECT_EQ(resets(0), 0);
    uint8_t desc[8] = {};
    EXPECT_EQ(GetReaderSerialDescriptionM(hnd, desc), ZEL_OK);
    EXPECT_EQ(std::memcmp(desc, "ZR000002", 8), 0);

    // The explicit reset: a pulse and the boot sequence again.
    EXPECT_EQ(ReaderResetM(hnd), ZEL_OK);
    EXPECT_EQ(resets(1), 2);
    // A pulse with no wait leaves the boot bytes to the caller.
    EXPECT_EQ(ReaderHwResetM(hnd), ZEL_OK);
    EXPECT_EQ(ReaderWaitForBootSeqM(hnd, 1), ZEL_OK);
    EXPECT_EQ(resets(1), 3);
    // With no reset, no boot sequence comes.
    EXPECT_EQ(ReaderWaitForBootSeqM(hnd, 1), ZEL_TIMEOUT_ERR);
    Zel_Hnd_Destroy(hnd);

    // By reader serial number: each device is opened and asked for its serial.
    ASSERT_EQ(ReaderOpenEx(1, "ZR000001", 0, nullptr), ZEL_OK);
    EXPECT_EQ(GetReaderSerialDescription(desc), ZEL_OK);
    EXPECT_EQ(std::memcmp(desc, "ZR000001", 8), 0);
}

// The EEPROM record is the D2XX library's whole one: the flag is InvertRTS, not a byte of the power settings,
// and reading it writes nothing past the record (the stand-in fills all of version 5).
TEST_F(FtdiTest, InvertRtsComesFromTheWholeEepromRecord)
{
    devices(R"({"devices": [
        {"time_scale": 10, "reader": {"serial_description": "ZR000011"},
         "links": [{"kind": "d2xx", "serial": "FTDI0011", "description": "Zel reader"}]},
        {"time_scale": 10, "reader": {"serial_description": "ZR000012"},
         "links": [{"kind": "d2xx", "serial": "FTDI0012", "description": "Zel reader", "invert_rts": true}]}]})");
    for (int inverted = 0; inverted < 2; inverted++) {
        ZEL_HANDLE hnd = Zel_Hnd_Create();
        ASSERT_EQ(ReaderOpenExHnd(hnd, 1, inverted ? "FTDI0012" : "FTDI0011", 2, nullptr), ZEL_OK);
        EXPECT_EQ(hnd->comm.RTS_inverted, static_cast<uint32_t>(inverted));
        uint8_t flag = 7;
        EXPECT_EQ(ftdi_CheckRTS(hnd->ftHandle, &flag), 0);
        EXPECT_EQ(flag, inverted);
        EXPECT_EQ(resets(static_cast<uint32_t>(inverted)), 1); // the open's reset edge had the right polarity
        Zel_Hnd_Destroy(hnd);
    }
}

TEST_F(FtdiTest, SpeedLaddersFindAReaderAtItsRate)
{
    devices(R"({"devices": [
        {"time_scale": 10, "reader": {"baud": 115200},
         "links": [{"kind": "d2xx", "serial": "FTDI0003", "description": "Zel reader"}]}]})");
    ZEL_HANDLE hnd = Zel_Hnd_Create();
    // By index through the ladder: 1,000,000 twice, then 115,200.
    ASSERT_EQ(ReaderOpenByFTDIIndex(0, hnd), ZEL_OK);
    EXPECT_EQ(hnd->baud_rate, 115200u);
    EXPECT_EQ(hnd->open_speed, 2);
    ReaderCloseM(hnd);
    // At a speed that is not the reader's, the open fails and closes.
    EXPECT_NE(ReaderOpenByIdxSpeed(0, 0, 0, nullptr, hnd), ZEL_OK);
    EXPECT_EQ(hnd->opened, 0);
    ASSERT_EQ(ReaderOpenByTypeNIndex(0, hnd, 2), ZEL_OK);
    uint32_t type = 0;
    EXPECT_EQ(GetReaderTypeM(hnd, &type), ZEL_OK);
    ReaderCloseM(hnd);
    // A baud word other than the speed of the open skips the boot wait: the reader is not heard at once.
    ASSERT_EQ(ReaderOpenExHnd(hnd, 2, "FTDI0003", 2, "BR_115200"), ZEL_OK);
    Zel_Hnd_Destroy(hnd);
}

TEST_F(FtdiTest, AutomaticSearchFindsTheReaderThroughTheDeviceTree)
{
    devices(R"({"devices": [
        {"time_scale": 10, "reader": {"serial_description": "ZR000009"},
         "links": [{"kind": "d2xx", "serial": "FTDI0009", "description": "Zel reader"}]}]})");
    char tmpl[] = "/tmp/zel_search_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string root = tmpl;
    // One FTDI device on a hub, with its serial port.
    const std::string dev = root + "/devices/pci0/usb1/1-1/1-1.4";
    const std::string port = dev + "/1-1.4:1.0";
    ASSERT_EQ(std::system(("mkdir -p " + port + "/ttyUSB0 " + root + "/class/tty/ttyUSB0").c_str()), 0);
    std::ofstream(dev + "/idVendor") << "0403\n";
    std::ofstream(dev + "/idProduct") << "6001\n";
    std::ofstream(dev + "/serial") << "FTDI0009\n";
    std::ofstream(port + "/bInterfaceNumber") << "00\n";
    ASSERT_EQ(
        symlink("../../../devices/pci0/usb1/1-1/1-1.4/1-1.4:1.0/ttyUSB0", (root + "/class/tty/ttyUSB0/device").c_str()),
        0);
    zel::set_sysfs_root(root.c_str());

    ZEL_HANDLE first = nullptr, second = nullptr;
    const ZEL_STATUS status = ReaderOpenM(&first);
    zel::set_sysfs_root(nullptr);
    ASSERT_EQ(status, ZEL_OK);
    EXPECT_EQ(first, &zel_open_record);
    uint8_t desc[8] = {};
    EXPECT_EQ(GetReaderSerialDescriptionM(first, desc), ZEL_OK);
    EXPECT_EQ(std::memcmp(desc, "ZR000009", 8), 0);
    ReaderCloseM(first);
    // Every caller of the search gets the same record.
    zel::set_sysfs_root(root.c_str());
    EXPECT_EQ(ReaderOpenM(&second), ZEL_OK);
    zel::set_sysfs_root(nullptr);
    EXPECT_EQ(second, first);
    ReaderCloseM(second);
    std::system(("rm -rf " + root).c_str());
}

TEST_F(OpenTest, GpioResetLineThroughPinctrl)
{
    const std::string sock = std::string("/tmp/zel-gpio-") + std::to_string(getpid()) + ".sock";
    ASSERT_EQ(zsim_serve_gpio(sim, sock.c_str(), 23), 0);
    setenv("ZSIM_PINCTRL_SOCKET", sock.c_str(), 1);
    zel::set_gpio_program(ZEL_PINCTRL_PATH);
    const uint64_t before = zsim_reset_count(sim);
    ZEL_HANDLE hnd = Zel_Hnd_Create();
    // Interface 10: the reset goes through the pin, and the boot sequence comes on the serial port.
    EXPECT_EQ(ReaderOpenExHnd(hnd, 1, path, 10, nullptr), ZEL_OK);
    EXPECT_EQ(hnd->gpio_reset, 1u);
    EXPECT_EQ(zsim_reset_count(sim), before + 1);
    // A pin program that fails reports the level it could not set.
    zel::set_gpio_program("/bin/false");
    EXPECT_EQ(ReaderResetOnM(hnd), ZEL_GPIO_RUN_FAILED);
    EXPECT_EQ(ReaderResetOffM(hnd), ZEL_GPIO_RESET_FAILED);
    EXPECT_EQ(setGPIOPin(23, "op dl"), -1);
    // A pin program that hangs is killed at its deadline, and the call fails.
    const std::string script = std::string("/tmp/zel-gpio-hang-") + std::to_string(getpid());
    const std::string pid_file = script + ".pid";
    {
        std::ofstream out(script);
        out << "#!/bin/sh\necho $$ > " << pid_file << "\nexec sleep 30\n";
    }
    ASSERT_EQ(chmod(script.c_str(), 0700), 0);
    zel::set_gpio_program(script.c_str());
    zel::set_gpio_deadline_ms(1000);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ReaderResetOnM(hnd), ZEL_GPIO_RUN_FAILED);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    pid_t hung = 0;
    std::ifstream(pid_file) >> hung;
    ASSERT_GT(hung, 0);
    EXPECT_NE(kill(hung, 0), 0); // gone, and reaped: not even a zombie is left
    zel::set_gpio_deadline_ms(0);
    std::remove(script.c_str());
    std::remove(pid_file.c_str());
    zel::set_gpio_program(nullptr);
    unsetenv("ZSIM_PINCTRL_SOCKET");
    Zel_Hnd_Destroy(hnd);
}

} // namespace
