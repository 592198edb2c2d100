// The device layer against a device tree of the test's own and a D2XX table of the test's own.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "tandro.h"
#include "transport/d2xx.h"
#include "transport/sysfs.h"

namespace {

// A device tree: a hub (no serial), an FTDI adapter on ttyUSB0 and a reader on ttyACM0 behind it, a
// platform port ttyS0 that is not on USB, and a ttyUSB1 whose device is gone.
class FakeTree : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/zel_sysfs_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root = tmpl;
        const std::string hub = "devices/pci0/usb1/1-1";
        usb(hub, "1d6b", "0002", "", "");
        usb(hub + "/1-1.2", "0403", "6001", "A9XK2TQR", "FT232R USB UART");
        iface(hub + "/1-1.2/1-1.2:1.0", "00");
        dir(hub + "/1-1.2/1-1.2:1.0/ttyUSB0");
        usb(hub + "/1-1.3", "3629", "2e15", "ZR000123", "Zel Reader");
        iface(hub + "/1-1.3/1-1.3:1.0", "00");
        tty("ttyUSB0", "../../../" + hub + "/1-1.2/1-1.2:1.0/ttyUSB0");
        tty("ttyACM0", "../../../" + hub + "/1-1.3/1-1.3:1.0");
        dir("devices/platform/serial8250");
        tty("ttyS0", "../../../devices/platform/serial8250");
        tty("ttyUSB1", "../../../devices/gone");
        zel::set_sysfs_root(root.c_str());
    }
    void TearDown() override
    {
        zel::set_sysfs_root(nullptr);
        std::system(("rm -rf " + root).c_str());
    }
    void dir(const std::string &rel) { std::system(("mkdir -p " + root + "/" + rel).c_str()); }
    void file(const std::string &rel, const std::string &text) { std::ofstream(root + "/" + rel) << text; }
    void usb(const std::string &rel, const char *vid, const char *pid, const char *serial, const char *product)
    {
        dir(rel);
        file(rel + "/idVendor", std::string(vid) + "\n");
        file(rel + "/idProduct", std::string(pid) + "\n");
        if (*serial)
            file(rel + "/serial", std::string(serial) + "\n");
        if (*product)
            file(rel + "/product", std::string(product) + "\n");
    }
    void iface(const std::string &rel, const char *number)
    {
        dir(rel);
        file(rel + "/bInterfaceNumber", std::string(number) + "\n");
    }
    void tty(const std::string &name, const std::string &target)
    {
        dir("class/tty/" + name);
        ASSERT_EQ(symlink(target.c_str(), (root + "/class/tty/" + name + "/device").c_str()), 0);
    }
    std::string root;
};

TEST_F(FakeTree, SerialPortsAreTheUsbTtys)
{
    auto *list = new zel_com_ports;
    list->count = 99;
    ASSERT_EQ(find_active_com_ports(list), 0);
    ASSERT_EQ(list->count, 3); // ttyACM0, ttyUSB0, ttyUSB1; not ttyS0
    EXPECT_STREQ(list->prefix[0], "/dev/ttyACM");
    EXPECT_EQ(list->number[0], 0);
    EXPECT_STREQ(list->prefix[2], "/dev/ttyUSB");
    EXPECT_EQ(list->number[2], 1);
    EXPECT_EQ(offsetof(zel_com_ports, prefix), 1028u);
    EXPECT_EQ(sizeof(zel_com_ports), 17412u);
    EXPECT_EQ(sizeof(zel_usb_device), 769u);
    delete list;

    zel::set_sysfs_root("/nonexistent/zel");
    zel_com_ports empty;
    EXPECT_NE(find_active_com_ports(&empty), 0);
    EXPECT_EQ(empty.count, 0);
}

TEST_F(FakeTree, DevicesByVendorWithPortAndParent)
{
    zel_usb_device devs[ZEL_USB_DEVICES_MAX] = {};
    ASSERT_EQ(ListUSBDevices("0403", devs, 50), 1u);
    EXPECT_STREQ(devs[0].port_name, "/dev/ttyUSB0");
    EXPECT_STREQ(devs[0].description, "FT232R USB UART (/dev/ttyUSB0)");
    EXPECT_STREQ(devs[0].parent_id, "USB\\VID_0403&PID_6001\\A9XK2TQR");
    EXPECT_EQ(devs[0].is_2e15, 0);

    ASSERT_EQ(ListUSBDevices("3629", devs, 50), 1u);
    EXPECT_STREQ(devs[0].port_name, "/dev/ttyACM0");
    EXPECT_EQ(devs[0].is_2e15, 1);
    EXPECT_EQ(ListUSBDevices("VID_", devs, 1), 1u); // the limit holds
    EXPECT_TRUE(IsUSBDevicePresent("PID_2E15"));
    EXPECT_FALSE(IsUSBDevicePresent("1D6B")); // the hub has no port

    zel_usb_device one = {};
    ASSERT_TRUE(GetDeviceDetailsByCOM("/dev/ttyACM0", &one));
    EXPECT_STREQ(one.description, "Zel Reader (/dev/ttyACM0)");
    EXPECT_FALSE(GetDeviceDetailsByCOM("/dev/ttyS0", &one));
    EXPECT_FALSE(GetDeviceDetailsByCOM("/dev/ttyUSB1", &one));
}

TEST_F(FakeTree, SerialNumbersAndPorts)
{
    char port[64] = {}, id[256] = {}, serial[32] = {};
    ASSERT_TRUE(FindCOMPortBySerial("zr000123", port, sizeof port, id, sizeof id));
    EXPECT_STREQ(port, "/dev/ttyACM0");
    EXPECT_STREQ(id, "USB\\VID_3629&PID_2E15&MI_00\\6&1-1.3&0&0000");
    ASSERT_TRUE(FindCOMPortBySerial("A9XK2TQR", port, sizeof port, nullptr, 0));
    EXPECT_STREQ(port, "/dev/ttyUSB0");
    EXPECT_FALSE(FindCOMPortBySerial("A9XK2TQ", port, sizeof port, nullptr, 0));
    EXPECT_FALSE(FindCOMPortBySerial("", port, sizeof port, nullptr, 0));
    EXPECT_FALSE(FindCOMPortBySerial("A9XK2TQR", nullptr, 0, nullptr, 0));

    ASSERT_TRUE(GetDeviceInstanceIDAndSerialByCOM("/dev/ttyUSB0", id, sizeof id, serial, sizeof serial));
    EXPECT_STREQ(serial, "A9XK2TQR");
    EXPECT_FALSE(GetDeviceInstanceIDAndSerialByCOM("/dev/ttyUSB7", id, sizeof id, serial, sizeof serial));
}

TEST(InstanceId, SerialIsWhatStandsAfterTheLastBackslash)
{
    char s[8] = {};
    EXPECT_TRUE(ExtractSerialFromInstanceID("USB\\VID_0403&PID_6001\\AB12", s, sizeof s));
    EXPECT_STREQ(s, "AB12");
    EXPECT_TRUE(ExtractSerialFromInstanceID("USB\\X\\5&1-1", s, sizeof s)); // a hub path is only logged
    EXPECT_STREQ(s, "5&1-1");
    EXPECT_FALSE(ExtractSerialFromInstanceID("USB\\X\\", s, sizeof s));
    EXPECT_FALSE(ExtractSerialFromInstanceID("no backslash", s, sizeof s));
    EXPECT_TRUE(ExtractSerialFromInstanceID("\\0123456789ABCDEF", s, sizeof s)); // cut to the buffer
    EXPECT_STREQ(s, "0123456");
}

TEST_F(FakeTree, HostileAttributesStayInBounds)
{
    const std::string hub = "devices/pci0/usb1/1-1";
    file(hub + "/1-1.2/serial", std::string(5000, 'S') + std::string("\x01\x02\n", 3));
    file(hub + "/1-1.2/product", std::string(600, '\xFF'));
    zel_usb_device devs[2] = {};
    ASSERT_EQ(ListUSBDevices("0403", devs, 2), 1u);
    EXPECT_LT(std::strlen(devs[0].parent_id), sizeof devs[0].parent_id);
    EXPECT_STREQ(devs[0].description, "Unknown");
}

// A D2XX table of the test's own: three devices, one of which answers no details.
struct FakeFt {
    std::vector<std::string> calls;
    uint32_t fail_step = 0; // 1-based index into the configuration calls
    bool invert = true;
    uint8_t latency = 0;
    uint32_t read_timeout = 0, write_timeout = 0;
    int open_devices = 0;
};
FakeFt *g_ft = nullptr;
void *const kDev = reinterpret_cast<void *>(0x1234);

zel::FT_STATUS step(const char *name)
{
    g_ft->calls.push_back(name);
    return g_ft->fail_step == g_ft->calls.size() ? 4 : 0;
}

zel::D2xxTable fake_table()
{
    zel::D2xxTable t{};
    t.FT_Open = [](int index, zel::FT_HANDLE *h) -> zel::FT_STATUS {
        g_ft->calls.push_back("Open" + std::to_string(index));
        if (index == 0)
            return 3; // busy: try the next
        *h = kDev;
        ++g_ft->open_devices;
        return 0;
    };
    t.FT_Close = [](zel::FT_HANDLE) -> zel::FT_STATUS {
        --g_ft->open_devices;
        return 0;
    };
    t.FT_Write = [](zel::FT_HANDLE, void *, uint32_t, uint32_t *) -> zel::FT_STATUS { return 0; };
    t.FT_GetDriverVersion = [](zel::FT_HANDLE, uint32_t *v) -> zel::FT_STATUS {
        *v = 0x00021204;
        return step("GetDriverVersion");
    };
    t.FT_SetBitMode = [](zel::FT_HANDLE, uint8_t, uint8_t) { return step("SetBitMode"); };
    t.FT_Purge = [](zel::FT_HANDLE, uint32_t mask) { return step(mask == 3 ? "Purge3" : "Purge"); };
    t.FT_SetBaudRate = [](zel::FT_HANDLE, uint32_t b) { return step(b == 1000000 ? "Baud1M" : "Baud"); };
    t.FT_SetTimeouts = [](zel::FT_HANDLE, uint32_t r, uint32_t w) {
        g_ft->read_timeout = r, g_ft->write_timeout = w;
        return step("SetTimeouts");
    };
    t.FT_SetDataCharacteristics = [](zel::FT_HANDLE, uint8_t bits, uint8_t stop, uint8_t parity) {
        return step(bits == 8 && stop == 0 && parity == 0 ? "8N1" : "DataCharacteristics");
    };
    t.FT_SetFlowControl = [](zel::FT_HANDLE, uint16_t flow, uint8_t, uint8_t) {
        return step(flow == 0 ? "NoFlow" : "Flow");
    };
    t.FT_SetLatencyTimer = [](zel::FT_HANDLE, uint8_t ms) {
        g_ft->latency = ms;
        return step("SetLatency");
    };
    t.FT_GetLatencyTimer = [](zel::FT_HANDLE, uint8_t *ms) {
        *ms = g_ft->latency;
        return step("GetLatency");
    };
    t.FT_EE_Read = [](zel::FT_HANDLE, void *data) -> zel::FT_STATUS {
        auto *pd = static_cast<zel::FtProgramData *>(data);
        if (pd->signature2 != 0xFFFFFFFF || !pd->serial_number)
            return 6;
        std::snprintf(pd->serial_number, 16, "%s", "AD1");
        pd->invert_rts = g_ft->invert ? 1 : 0;
        return 0;
    };
    t.FT_CreateDeviceInfoList = [](uint32_t *n) -> zel::FT_STATUS {
        *n = 3;
        return 0;
    };
    t.FT_GetDeviceInfoDetail = [](uint32_t i, uint32_t *, uint32_t *, uint32_t *, uint32_t *, char *serial,
                                  char *description, zel::FT_HANDLE *) -> zel::FT_STATUS {
        if (i == 2)
            return 4;
        // Texts as long as the buffers the library offers, unterminated within the entry's sizes.
        std::snprintf(serial, 16, "%s", i == 0 ? "ZR1" : "AD1ABCDEFGHIJKL");
        std::snprintf(description, 64, "%s", i == 0 ? "Zel reader" : "FT232R USB UART and a long description");
        return 0;
    };
    t.FT_OpenEx = [](void *arg, uint32_t flags, zel::FT_HANDLE *h) -> zel::FT_STATUS {
        if (flags != 1 || std::strcmp(static_cast<char *>(arg), "AD1ABCDEFGHIJKL") != 0)
            return 2;
        *h = kDev;
        ++g_ft->open_devices;
        return 0;
    };
    t.FT_GetComPortNumber = [](zel::FT_HANDLE, int32_t *port) -> zel::FT_STATUS {
        *port = 5;
        return 0;
    };
    t.FT_ListDevices = [](void *n, void *, uint32_t flags) -> zel::FT_STATUS {
        if (flags != 0x80000000u)
            return 6;
        *static_cast<uint32_t *>(n) = 3;
        return 0;
    };
    return t;
}

class FakeD2xx : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_ft = &ft;
        zel::d2xx_install(fake_table());
    }
    void TearDown() override
    {
        zel::d2xx_install(zel::D2xxTable{});
        g_ft = nullptr;
    }
    FakeFt ft;
};

TEST_F(FakeD2xx, ConfigurationStepsInOrderAndTheFailingOne)
{
    ASSERT_EQ(ftdi_configure_hnd(kDev, 1000000, 250), 0u);
    EXPECT_EQ(ft.calls, (std::vector<std::string>{"GetDriverVersion", "SetBitMode", "Purge3", "Baud1M", "SetTimeouts",
                                                  "8N1", "NoFlow", "SetLatency", "GetLatency"}));
    EXPECT_EQ(ft.read_timeout, 250u);
    EXPECT_EQ(ft.write_timeout, 1000u);
    EXPECT_EQ(ft.latency, 2);

    ft.calls.clear();
    ft.fail_step = 5; // SetTimeouts
    EXPECT_EQ(ftdi_configure_hnd(kDev, 1000000, 250), 4u);
    EXPECT_EQ(ft.calls.back(), "SetTimeouts");
    ft.calls.clear();
    ft.fail_step = 1; // the driver version is only asked, never a failure
    EXPECT_EQ(ftdi_configure_hnd(kDev, 115200, 250), 0u);
}

TEST_F(FakeD2xx, GlobalFormConfiguresTheGlobalHandlesDevice)
{
    void *const saved = zel_global.ftHandle;
    zel_global.ftHandle = nullptr;
    EXPECT_EQ(ftdi_configure(115200, 300), 1u);
    EXPECT_TRUE(ft.calls.empty()); // no device, no D2XX call
    zel_global.ftHandle = kDev;
    ASSERT_EQ(ftdi_configure(115200, 300), 0u);
    EXPECT_EQ(ft.calls, (std::vector<std::string>{"GetDriverVersion", "SetBitMode", "Purge3", "Baud", "SetTimeouts",
                                                  "8N1", "NoFlow", "SetLatency", "GetLatency"}));
    EXPECT_EQ(ft.read_timeout, 300u);
    ft.calls.clear();
    ft.fail_step = 8; // SetLatency
    EXPECT_EQ(ftdi_configure(115200, 300), 4u);
    EXPECT_EQ(ft.calls.back(), "SetLatency");
    zel_global.ftHandle = saved;
}

TEST_F(FakeD2xx, OpenTakesTheFirstDeviceThatOpens)
{
    void *dev = nullptr;
    ASSERT_EQ(ftdi_open(1000000, 1000, &dev), 0u);
    EXPECT_EQ(dev, kDev);
    EXPECT_EQ(ft.calls[0], "Open0");
    EXPECT_EQ(ft.calls[1], "Open1");
    EXPECT_EQ(ft.open_devices, 1);
    ft.fail_step = 15; // SetBitMode of the second open
    ASSERT_EQ(ftdi_open(1000000, 1000, &dev), 4u);
    EXPECT_EQ(ft.open_devices, 0); // the old device and the one that failed are both closed
    EXPECT_EQ(ftdi_open(1000000, 1000, nullptr), 1u);
}

TEST_F(FakeD2xx, RtsWiringFromTheEeprom)
{
    uint8_t inverted = 7;
    EXPECT_EQ(ftdi_CheckRTS(kDev, &inverted), 0);
    EXPECT_EQ(inverted, 1);
    ft.invert = false;
    EXPECT_EQ(ftdi_CheckRTS(kDev, &inverted), 0);
    EXPECT_EQ(inverted, 0);
    zel::D2xxTable t = fake_table();
    t.FT_EE_Read = nullptr;
    zel::d2xx_install(t);
    inverted = 7;
    EXPECT_NE(ftdi_CheckRTS(kDev, &inverted), 0);
    EXPECT_EQ(inverted, 7);
}

TEST_F(FakeD2xx, ReadersAndAdaptersInTwoLists)
{
    uint32_t nr = 9, na = 9;
    zel_ftdi_device *readers = nullptr, *adapters = nullptr;
    ASSERT_EQ(ftdi_multiReader_getZelDevices(&nr, &readers, &na, &adapters), 0u);
    ASSERT_EQ(nr, 1u);
    ASSERT_EQ(na, 1u);
    EXPECT_STREQ(readers->serial, "ZR1");
    EXPECT_STREQ(readers->com_port_name, "/");
    EXPECT_EQ(readers->count, 1u);
    EXPECT_EQ(readers->is_ftdi_serial, 1);
    EXPECT_STREQ(adapters->com_port_name, "/dev/ttyUSB5");
    EXPECT_EQ(adapters->rts_inverted, 1);
    EXPECT_EQ(adapters->ready, 0); // the device after it gave no details
    EXPECT_EQ(std::strlen(adapters->description), sizeof adapters->description - 1);
    EXPECT_EQ(ft.open_devices, 0);
    EXPECT_TRUE(isFtdiCOMPort("/dev/ttyUSB5", adapters, na));
    EXPECT_FALSE(isFtdiCOMPort("/dev/ttyUSB0", adapters, na));
    std::free(readers);
    std::free(adapters);

    uint32_t n = 0;
    zel_ftdi_device *all = nullptr;
    ASSERT_EQ(ftdi_getZelDevices(&n, &all), 0u);
    ASSERT_EQ(n, 2u);
    EXPECT_EQ(all->next->count, 2u);
    std::free(all->next);
    std::free(all);
    EXPECT_EQ(ftdi_getDevNum(), 3);
}

TEST_F(FakeD2xx, DriverVersionText)
{
    char text[16] = {};
    uint8_t a = 0, b = 0, c = 0;
    ASSERT_EQ(ftdi_GetDriverVersion(kDev, text, &a, &b, &c), 0u);
    EXPECT_STREQ(text, "2.12.04");
    EXPECT_EQ((a << 16) | (b << 8) | c, 0x021204);
}

TEST_F(FakeD2xx, TableWithOnlyTheThreeRequiredEntries)
{
    // What a library that has FT_Open, FT_Close and FT_Write but nothing else leaves: every routine that
    // needs a missing entry fails with a status, none calls through a null slot.
    zel::D2xxTable t{};
    const zel::D2xxTable full = fake_table();
    t.FT_Open = full.FT_Open;
    t.FT_Close = full.FT_Close;
    t.FT_Write = full.FT_Write;
    zel::d2xx_install(t);
    EXPECT_NE(ftdi_configure_hnd(kDev, 115200, 250), 0u);
    void *dev = nullptr;
    EXPECT_NE(ftdi_open(115200, 250, &dev), 0u);
    EXPECT_EQ(dev, nullptr);
    EXPECT_EQ(ft.open_devices, 0); // the device that opened but could not be set up is closed again
    EXPECT_LT(ftdi_getDevNum(), 0);
    uint32_t nr = 5, na = 5;
    zel_ftdi_device *readers = nullptr, *adapters = nullptr;
    EXPECT_NE(ftdi_multiReader_getZelDevices(&nr, &readers, &na, &adapters), 0u);
    EXPECT_EQ(nr + na, 0u);
    EXPECT_EQ(readers, nullptr);
    uint8_t inverted = 3, a = 9, b = 9, c = 9;
    EXPECT_NE(ftdi_CheckRTS(kDev, &inverted), 0);
    EXPECT_EQ(inverted, 3);
    char text[16] = "unchanged";
    EXPECT_NE(ftdi_GetDriverVersion(kDev, text, &a, &b, &c), 0u);
    EXPECT_EQ((std::vector<int>{a, b, c}), (std::vector<int>{0, 0, 0}));
    EXPECT_STREQ(text, "unchanged");
}

TEST(D2xxLoad, MissingLibraryIsNotLoaded)
{
    EXPECT_FALSE(LoadFTD2XXLibrary("libzel_no_such_d2xx.so"));
    EXPECT_FALSE(LoadFTD2XXLibrary(nullptr));
    UnloadFTD2XXLibrary(nullptr);
}

} // namespace
