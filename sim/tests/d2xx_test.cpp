// The stand-in D2XX library loaded as a host loads it, and the stand-in pinctrl on a GPIO reset line.
#include <dlfcn.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "d2xx/program_data.h"
#include "host.h"
#include "zelsim.h"

using Bytes = std::vector<uint8_t>;

namespace {

using H = void *;
struct Ft {
    void *lib = nullptr;
    uint32_t (*CreateDeviceInfoList)(uint32_t *);
    uint32_t (*GetDeviceInfoDetail)(uint32_t, uint32_t *, uint32_t *, uint32_t *, uint32_t *, char *, char *, H *);
    uint32_t (*ListDevices)(void *, void *, uint32_t);
    uint32_t (*Open)(int, H *);
    uint32_t (*OpenEx)(void *, uint32_t, H *);
    uint32_t (*Close)(H);
    uint32_t (*Write)(H, void *, uint32_t, uint32_t *);
    uint32_t (*Read)(H, void *, uint32_t, uint32_t *);
    uint32_t (*GetQueueStatus)(H, uint32_t *);
    uint32_t (*Purge)(H, uint32_t);
    uint32_t (*SetTimeouts)(H, uint32_t, uint32_t);
    uint32_t (*SetBaudRate)(H, uint32_t);
    uint32_t (*SetRts)(H);
    uint32_t (*ClrRts)(H);
    uint32_t (*EE_Read)(H, void *);
    uint32_t (*GetComPortNumber)(H, int32_t *);
    int (*load)(const char *, char *, size_t);
    int (*command)(uint32_t, const char *, char *, size_t);
    int64_t (*resets)(uint32_t);

    template <typename F> void get(F &f, const char *name)
    {
        f = reinterpret_cast<F>(dlsym(lib, name));
        ASSERT_NE(f, nullptr) << name;
    }
    void open_lib()
    {
        lib = dlopen(ZSIM_D2XX_PATH, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(lib, nullptr) << dlerror();
        get(CreateDeviceInfoList, "FT_CreateDeviceInfoList");
        get(GetDeviceInfoDetail, "FT_GetDeviceInfoDetail");
        get(ListDevices, "FT_ListDevices");
        get(Open, "FT_Open");
        get(OpenEx, "FT_OpenEx");
        get(Close, "FT_Close");
        get(Write, "FT_Write");
        get(Read, "FT_Read");
        get(GetQueueStatus, "FT_GetQueueStatus");
        get(Purge, "FT_Purge");
        get(SetTimeouts, "FT_SetTimeouts");
        get(SetBaudRate, "FT_SetBaudRate");
        get(SetRts, "FT_SetRts");
        get(ClrRts, "FT_ClrRts");
        get(EE_Read, "FT_EE_Read");
        get(GetComPortNumber, "FT_GetComPortNumber");
        get(load, "zsim_d2xx_load");
        get(command, "zsim_d2xx_command");
        get(resets, "zsim_d2xx_resets");
    }
    Bytes exchange(H h, const Bytes &req, uint32_t n)
    {
        Purge(h, 3);
        uint32_t done = 0;
        Bytes b = req;
        EXPECT_EQ(Write(h, b.data(), static_cast<uint32_t>(b.size()), &done), 0u);
        Bytes out(n);
        uint32_t got = 0;
        EXPECT_EQ(Read(h, out.data(), n, &got), 0u);
        out.resize(got);
        return out;
    }
};

const char DEVICES[] = R"({"devices": [
    {"reader": {"type": "D1180022", "serial_description": "ZR000001"},
     "links": [{"kind": "d2xx", "serial": "ZR000001", "description": "Zel reader one", "invert_rts": true,
                "com_port": 7}]},
    {"reader": {"baud": 115200, "serial_description": "ZR000002"},
     "cards": [{"uid": "11223344"}],
     "links": [{"kind": "d2xx", "serial": "FT123456", "description": "USB serial adapter"}]}
]})";

TEST(D2xx, DevicesIdentityLineRateAndResetEdges)
{
    Ft ft;
    ASSERT_NO_FATAL_FAILURE(ft.open_lib());
    char err[256] = {};
    ASSERT_EQ(ft.load(DEVICES, err, sizeof err), 0) << err;
    EXPECT_EQ(ft.load("{\"devices\": 3}", err, sizeof err), -1);
    ASSERT_EQ(ft.load(DEVICES, err, sizeof err), 0) << err;

    uint32_t count = 0;
    ASSERT_EQ(ft.CreateDeviceInfoList(&count), 0u);
    ASSERT_EQ(count, 2u);
    uint32_t n = 0;
    ASSERT_EQ(ft.ListDevices(&n, nullptr, 0x80000000u), 0u);
    EXPECT_EQ(n, 2u);
    char serial[16] = {}, desc[64] = {};
    uint32_t flags = 9, type = 0, id = 0, loc = 0;
    H hd = reinterpret_cast<H>(1);
    ASSERT_EQ(ft.GetDeviceInfoDetail(1, &flags, &type, &id, &loc, serial, desc, &hd), 0u);
    EXPECT_STREQ(serial, "FT123456");
    EXPECT_STREQ(desc, "USB serial adapter");
    EXPECT_EQ(flags, 0u);
    EXPECT_EQ(hd, nullptr);
    EXPECT_EQ(ft.GetDeviceInfoDetail(2, &flags, &type, &id, &loc, serial, desc, &hd), 2u);

    H h = nullptr;
    EXPECT_EQ(ft.OpenEx(const_cast<char *>("NOSUCH00"), 1, &h), 2u);
    ASSERT_EQ(ft.OpenEx(const_cast<char *>("ZR000001"), 1, &h), 0u);
    H again = nullptr;
    EXPECT_NE(ft.Open(0, &again), 0u); // already open
    char m[64], mid[16], d[64], s[16];
    zsim_ft_program_data pd{};
    pd.Signature2 = 0xFFFFFFFFu;
    pd.Version = 5;
    pd.Manufacturer = m;
    pd.ManufacturerId = mid;
    pd.Description = d;
    pd.SerialNumber = s;
    ASSERT_EQ(ft.EE_Read(h, &pd), 0u);
    EXPECT_EQ(pd.InvertRTS, 1);
    EXPECT_EQ(pd.MaxPower, 90);
    EXPECT_EQ(pd.ProductId, 0x6001);
    // A record of an older version is filled no further than that version's end.
    alignas(zsim_ft_program_data) unsigned char older[sizeof(zsim_ft_program_data)];
    std::memset(older, 0xA5, sizeof older);
    std::memcpy(older, &pd, offsetof(zsim_ft_program_data, MaxPower));
    reinterpret_cast<zsim_ft_program_data *>(older)->Version = 2;
    ASSERT_EQ(ft.EE_Read(h, older), 0u);
    EXPECT_EQ(older[offsetof(zsim_ft_program_data, InvertRTS)], 1);
    for (size_t i = ZSIM_FT_PD_END_V2; i < sizeof older; i++)
        ASSERT_EQ(older[i], 0xA5) << "byte " << i;
    // A header that is not the caller's record's is refused.
    pd.Signature2 = 0;
    EXPECT_EQ(ft.EE_Read(h, &pd), 6u);
    pd.Signature2 = 0xFFFFFFFFu;
    pd.Version = 6;
    EXPECT_EQ(ft.EE_Read(h, &pd), 6u);
    EXPECT_STREQ(s, "ZR000001");
    EXPECT_STREQ(d, "Zel reader one");
    int32_t com = 0;
    ASSERT_EQ(ft.GetComPortNumber(h, &com), 0u);
    EXPECT_EQ(com, 7);

    ASSERT_EQ(ft.SetTimeouts(h, 100, 1000), 0u);
    // At the chip's first rate the reader hears nothing; at its own it answers.
    EXPECT_TRUE(ft.exchange(h, cmd_frame(0x10), 12).empty());
    ASSERT_EQ(ft.SetBaudRate(h, 1000000), 0u);
    Bytes r = ft.exchange(h, cmd_frame(0x10), 12);
    ASSERT_EQ(r.size(), 12u);
    EXPECT_EQ(r[10], 0xD1);

    // InvertRTS: set RTS holds the reader, clear RTS (the running level) restarts it.
    const int64_t before = ft.resets(0);
    ASSERT_EQ(ft.ClrRts(h), 0u); // already at the running level: no edge
    EXPECT_EQ(ft.resets(0), before);
    ASSERT_EQ(ft.SetRts(h), 0u);
    ASSERT_EQ(ft.ClrRts(h), 0u);
    EXPECT_EQ(ft.resets(0), before + 1);
    Bytes boot(4);
    uint32_t got = 0;
    ASSERT_EQ(ft.SetTimeouts(h, 250, 1000), 0u);
    ASSERT_EQ(ft.Read(h, boot.data(), 4, &got), 0u);
    ASSERT_EQ(got, 4u);
    EXPECT_EQ(boot, (Bytes{0x03, 0x55, 0x55, 0xBB}));
    // Frames are heard from 80 ms after the boot bytes.
    std::this_thread::sleep_for(std::chrono::milliseconds(90));
    EXPECT_EQ(ft.exchange(h, cmd_frame(0x10), 12).size(), 12u);

    // Push mode reaches the device's queue; the purge empties it.
    char out[256];
    ASSERT_EQ(ft.command(0, "add 04A1B2C3", out, sizeof out), 0) << out;
    uint32_t queued = 0;
    ASSERT_EQ(ft.GetQueueStatus(h, &queued), 0u);
    EXPECT_EQ(queued, 0u); // push mode is off by default
    EXPECT_EQ(ft.exchange(h, cmd_frame(0x13), 12)[7], 0x04);
    ASSERT_EQ(ft.command(0, "fault unplug", out, sizeof out), 0);
    uint32_t done = 0;
    Bytes req = cmd_frame(0x10);
    EXPECT_EQ(ft.Write(h, req.data(), 7, &done), 0u);
    EXPECT_NE(ft.Read(h, boot.data(), 4, &got), 0u); // the device is gone

    ASSERT_EQ(ft.Close(h), 0u);
    EXPECT_EQ(ft.Close(h), 1u);
    EXPECT_EQ(ft.command(5, "list", out, sizeof out), -1);
    ASSERT_EQ(ft.load("{\"devices\": []}", err, sizeof err), 0);
    dlclose(ft.lib);
}

TEST(Gpio, PinctrlEdgeRestartsTheReader)
{
    zsim *sim = zsim_new();
    zsim_set_time_scale(sim, 20);
    char path[256];
    ASSERT_EQ(zsim_serve_pty(sim, path, sizeof path), 0);
    const std::string sock = "/tmp/zsim-gpio-" + std::to_string(getpid()) + ".sock";
    ASSERT_EQ(zsim_serve_gpio(sim, sock.c_str(), 23), 0);
    RawHost host(path);
    auto pinctrl = [&](const char *level, int pin = 23) {
        const std::string cmd = std::string("ZSIM_PINCTRL_SOCKET=") + sock + " " + ZSIM_PINCTRL_PATH + " set " +
                                std::to_string(pin) + " op " + level;
        const int rc = std::system(cmd.c_str());
        return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    };
    EXPECT_EQ(pinctrl("dl"), 0); // already running: no edge
    EXPECT_TRUE(host.recv(1, 50).empty());
    EXPECT_EQ(pinctrl("dh", 22), 0); // another pin
    EXPECT_EQ(pinctrl("dl", 22), 0);
    EXPECT_TRUE(host.recv(1, 50).empty());
    EXPECT_EQ(pinctrl("dh"), 0);
    EXPECT_EQ(pinctrl("dl"), 0);
    EXPECT_EQ(host.recv(4, 300), (Bytes{0x03, 0x55, 0x55, 0xBB}));
    EXPECT_EQ(zsim_reset_count(sim), 1u);
    EXPECT_NE(pinctrl("dz"), 0);
    zsim_free(sim);
}

} // namespace
