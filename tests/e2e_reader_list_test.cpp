// The reader list against simulated readers: FTDI devices behind the stand-in D2XX library (one of them an ESP
// front whose reader is on UDP), serial readers on pseudo-terminals found through the port enumeration, and
// many handles used at once.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tandro.h"
#include "transport/sysfs.h"
#include "zelsim.h"

namespace {

std::string classic_reader(const std::string &serial, uint8_t mark, const char *link)
{
    char block[33];
    std::snprintf(block, sizeof block, "%02X%02X%02X%02X000000000000000000000000", mark, mark ^ 0xFFu, mark, 0xA5u);
    return R"({"reader": {"serial_description": ")" + serial +
           R"(", "keys": [{"index": 0, "key": "FFFFFFFFFFFF"}]}, "time_scale": 10,
      "cards": [{"uid": "5A3C9E)" +
           std::to_string(10 + mark % 80) + R"(", "sak": "08", "atqa": "0004", "type": "ORB_MIFARE_CLASSIC_1K",
                 "model": "classic_1k", "setup": {"blocks": [{"block": 1, "data": ")" +
           block + R"("}]}}],
      "links": [)" +
           link + "]}";
}

class ReaderListTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        lib = dlopen(ZEL_D2XX_PATH, RTLD_NOW | RTLD_GLOBAL);
        ASSERT_NE(lib, nullptr) << dlerror();
        d2xx_load = reinterpret_cast<int (*)(const char *, char *, size_t)>(dlsym(lib, "zsim_d2xx_load"));
        ASSERT_NE(d2xx_load, nullptr);
        char tmpl[] = "/tmp/zel_list_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        ports = dir + "/ports";
    }
    void TearDown() override
    {
        uint32_t n = list_size();
        while (n-- > 0)
            list_remove(list_get_by_idx(n));
        zel::set_sysfs_root(nullptr);
        zel::set_dev_root(nullptr);
        zsim_set_free(serial_set);
        zsim_set_free(net_set);
        if (d2xx_load) {
            char err[64];
            d2xx_load("{\"devices\": []}", err, sizeof err);
        }
        rmdir(dir.c_str());
    }
    // Serial readers on pseudo-terminals, shown to the scan as its serial ports.
    void serial_readers(const std::vector<std::string> &scenarios)
    {
        std::string json = R"({"readers": [)";
        for (size_t i = 0; i < scenarios.size(); ++i)
            json += (i ? "," : "") + scenarios[i];
        json += "]}";
        char report[4096], err[256] = {};
        serial_set = zsim_set_start(json.c_str(), ports.c_str(), report, sizeof report, err, sizeof err);
        ASSERT_NE(serial_set, nullptr) << err;
        zel::set_sysfs_root((ports + "/sys").c_str());
        zel::set_dev_root(ports.c_str());
    }
    void ftdi_readers(const std::string &devices_json)
    {
        char err[256] = {};
        ASSERT_EQ(d2xx_load(devices_json.c_str(), err, sizeof err), 0) << err;
    }
    // The reader behind the ESP front, on UDP; its port goes to *port.
    void network_reader(uint16_t *port)
    {
        char report[512], err[256] = {};
        net_set = zsim_set_start(classic_reader("ZN000001", 9, R"({"kind": "udp", "port": 0})").c_str(), nullptr,
                                 report, sizeof report, err, sizeof err);
        ASSERT_NE(net_set, nullptr) << err;
        const char *colon = std::strrchr(report, ':');
        ASSERT_NE(colon, nullptr);
        *port = static_cast<uint16_t>(std::atoi(colon + 1));
    }
    std::string serial_of(int32_t index)
    {
        char text[ZEL_READER_LIST_TEXT_LEN] = {};
        EXPECT_EQ(ReaderList_GetSerialDescriptionByIndex(index, text), ZEL_OK);
        return text;
    }

    void *lib = nullptr;
    int (*d2xx_load)(const char *, char *, size_t) = nullptr;
    std::string dir, ports;
    zsim_set *serial_set = nullptr;
    zsim_set *net_set = nullptr;
};

TEST_F(ReaderListTest, ScanFindsFtdiSerialAndEspFrontReaders)
{
    uint16_t udp_port = 0;
    network_reader(&udp_port);
    ftdi_readers(
        R"({"devices": [)" +
        classic_reader("ZF000001", 1, R"({"kind": "d2xx", "serial": "FT000001", "description": "Zel reader"})") + "," +
        R"({"reader": {"serial_description": "ZE000001"}, "time_scale": 10,
                     "esp_front": {"address": "127.0.0.1:)" +
        std::to_string(udp_port) +
        R"("}, "links": [{"kind": "d2xx", "serial": "FT000002", "description": "Zel ESP front"}]}]})");
    serial_readers(
        {classic_reader("ZS000001", 2, R"({"kind": "pty"})"), classic_reader("ZS000002", 3, R"({"kind": "pty"})")});

    uint32_t count = 99;
    ASSERT_EQ(ReaderList_UpdateAndGetCount(&count), ZEL_OK);
    ASSERT_EQ(count, 4u);
    EXPECT_EQ(list_size(), 4u);

    // FTDI readers first, in device order, then the serial ports; the front's entry is its network reader.
    EXPECT_EQ(serial_of(0), "ZF000001");
    EXPECT_EQ(serial_of(1), "ZN000001");
    EXPECT_EQ(serial_of(2), "ZS000001");
    EXPECT_EQ(serial_of(3), "ZS000002");

    ZEL_HANDLE h = nullptr;
    char serial[ZEL_READER_LIST_TEXT_LEN], fw[ZEL_READER_LIST_TEXT_LEN], ftdi_serial[ZEL_READER_LIST_TEXT_LEN],
        ftdi_desc[ZEL_READER_LIST_TEXT_LEN];
    uint32_t type = 0, spare = 7, baud = 0, opened = 0, esp = 9;
    ASSERT_EQ(ReaderList_GetInformation(0, &h, serial, &type, fw, &spare, &baud, ftdi_serial, ftdi_desc, &opened, &esp),
              ZEL_OK);
    EXPECT_EQ(h, list_get_by_idx(0));
    EXPECT_STREQ(serial, "ZF000001");
    EXPECT_EQ(type, 0xD1180022u);
    EXPECT_STREQ(fw, "5.0.60");
    EXPECT_EQ(spare, 0u);
    EXPECT_EQ(baud, 1000000u);
    EXPECT_STREQ(ftdi_serial, "FT000001");
    EXPECT_STREQ(ftdi_desc, "Zel reader");
    EXPECT_EQ(opened, 1u);
    EXPECT_EQ(esp, 0u);

    ASSERT_EQ(ReaderList_GetInformation(1, &h, serial, &type, fw, &spare, &baud, ftdi_serial, ftdi_desc, &opened, &esp),
              ZEL_OK);
    EXPECT_EQ(esp, 1u);
    EXPECT_EQ(h->comm.use, ZEL_PORT_SOCKET);
    EXPECT_STREQ(ftdi_serial, "");

    ASSERT_EQ(ReaderList_GetInformation(2, &h, serial, &type, fw, &spare, &baud, ftdi_serial, ftdi_desc, &opened, &esp),
              ZEL_OK);
    EXPECT_EQ(h->comm.use, ZEL_PORT_SERIAL);
    EXPECT_EQ(std::strncmp(h->try_port, ports.c_str(), ports.size()), 0);

    // The single fields agree with the whole record.
    uint32_t sn = 0, t = 0;
    EXPECT_EQ(ReaderList_GetSerialByIndex(3, &sn), ZEL_OK);
    EXPECT_EQ(sn, 0x12345678u); // the simulated reader's default
    EXPECT_EQ(ReaderList_GetTypeByIndex(3, &t), ZEL_OK);
    EXPECT_EQ(t, 0xD1180022u);
    EXPECT_EQ(ReaderList_GetFTDISerialByIndex(0, ftdi_serial), ZEL_OK);
    EXPECT_STREQ(ftdi_serial, "FT000001");
    EXPECT_EQ(ReaderList_GetFTDIDescriptionByIndex(0, ftdi_desc), ZEL_OK);
    EXPECT_STREQ(ftdi_desc, "Zel reader");

    // Out of range and null outputs.
    EXPECT_EQ(ReaderList_GetTypeByIndex(4, &t), ZEL_DEVICE_INDEX_OUT_OF_BOUND);
    EXPECT_EQ(ReaderList_GetTypeByIndex(-1, &t), ZEL_DEVICE_INDEX_OUT_OF_BOUND);
    EXPECT_EQ(ReaderList_GetTypeByIndex(0, nullptr), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(ReaderList_GetInformation(0, &h, serial, &type, fw, &spare, &baud, ftdi_serial, nullptr, &opened, &esp),
              ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(ReaderList_GetInformation(9, &h, serial, &type, fw, &spare, &baud, ftdi_serial, ftdi_desc, &opened, &esp),
              ZEL_DEVICE_INDEX_OUT_OF_BOUND);

    // Every entry works on its own handle.
    for (uint32_t i = 0; i < count; ++i) {
        uint8_t data[16] = {};
        EXPECT_EQ(BlockReadM(list_get_by_idx(i), data, 1, 0x60, 0), ZEL_OK) << i;
    }
}

TEST_F(ReaderListTest, EmptyListAnswersOutOfBoundBeforeCheckingPointers)
{
    ftdi_readers(R"({"devices": []})");
    uint32_t count = 5;
    ASSERT_EQ(ReaderList_UpdateAndGetCount(&count), ZEL_OK);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(ReaderList_GetInformation(0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                        nullptr, nullptr),
              ZEL_DEVICE_INDEX_OUT_OF_BOUND);
    EXPECT_EQ(ReaderList_UpdateAndGetCount(nullptr), ZEL_PARAMETERS_ERROR);
}

TEST_F(ReaderListTest, AddOpenDestroyAndRescan)
{
    ftdi_readers(R"({"devices": []})");
    serial_readers(
        {classic_reader("ZS000011", 4, R"({"kind": "pty"})"), classic_reader("ZS000012", 5, R"({"kind": "pty"})")});
    uint32_t count = 0;
    ASSERT_EQ(ReaderList_UpdateAndGetCount(&count), ZEL_OK);
    ASSERT_EQ(count, 2u);

    // A reader given by hand: a third one, outside the scan's ports.
    zsim *extra = zsim_new();
    ASSERT_NE(extra, nullptr);
    zsim_set_serial_description(extra, "ZS000013");
    char path[256];
    ASSERT_EQ(zsim_serve_pty(extra, path, sizeof path), 0);
    ZEL_HANDLE added = nullptr;
    ASSERT_EQ(ReaderList_Add(&added, 1, path, 1, "UNIT_OPEN_RESET_DISABLE"), ZEL_OK);
    EXPECT_EQ(added, list_get_by_idx(2));
    EXPECT_EQ(serial_of(2), "ZS000013");
    // The same reader again is refused and the list stays as it was.
    ZEL_HANDLE again = reinterpret_cast<ZEL_HANDLE>(0x1);
    EXPECT_EQ(ReaderList_Add(&again, 1, path, 1, "UNIT_OPEN_RESET_DISABLE"), ZEL_DEVICE_ALREADY_OPENED);
    EXPECT_EQ(again, nullptr);
    EXPECT_EQ(list_size(), 3u);
    ZEL_HANDLE none = reinterpret_cast<ZEL_HANDLE>(0x1);
    EXPECT_NE(ReaderList_Add(&none, 1, "/nonexistent/tty", 1, "UNIT_OPEN_RESET_DISABLE"), ZEL_OK);
    EXPECT_EQ(none, nullptr);

    // By index and by serial: the entry itself, open.
    ZEL_HANDLE h = nullptr;
    EXPECT_EQ(ReaderList_OpenByIndex(1, &h), ZEL_OK);
    EXPECT_EQ(h, list_get_by_idx(1));
    EXPECT_EQ(ReaderList_OpenByIndex(3, &h), ZEL_DEVICE_INDEX_OUT_OF_BOUND);
    EXPECT_EQ(ReaderList_OpenByIndex(-1, &h), ZEL_DEVICE_INDEX_OUT_OF_BOUND);
    EXPECT_EQ(ReaderList_OpenByIndex(0, nullptr), ZEL_PARAMETERS_ERROR);
    h = nullptr;
    ASSERT_EQ(ReaderList_OpenBySerial("ZS000012", &h), ZEL_OK);
    EXPECT_EQ(h, list_get_by_idx(1));
    uint8_t data[16] = {};
    EXPECT_EQ(BlockReadM(h, data, 1, 0x60, 0), ZEL_OK);
    EXPECT_EQ(data[0], 5);
    EXPECT_EQ(ReaderList_OpenBySerial("ZX", &h), ZEL_DEVICE_INDEX_OUT_OF_BOUND);

    // Removal: the entry goes and the pointer is cleared; a handle not in the list is refused.
    ZEL_HANDLE gone = list_get_by_idx(0);
    EXPECT_EQ(ReaderList_Destroy(&gone), ZEL_OK);
    EXPECT_EQ(gone, nullptr);
    EXPECT_EQ(list_size(), 2u);
    EXPECT_EQ(serial_of(0), "ZS000012");
    zel_handle_record stranger;
    zel_handle_init(&stranger);
    EXPECT_EQ(list_remove(&stranger), ZEL_DEVICE_WRONG_HANDLE);
    EXPECT_EQ(list_remove(nullptr), ZEL_DEVICE_WRONG_HANDLE);
    EXPECT_EQ(list_size(), 2u);

    // A rescan closes every entry, the one added by hand too, and finds the scan's readers again.
    ASSERT_EQ(ReaderList_UpdateAndGetCount(&count), ZEL_OK);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(serial_of(0), "ZS000011");
    zsim_free(extra);
}

TEST_F(ReaderListTest, ChecksRemoveReadersThatAreGoneOrClosed)
{
    ftdi_readers(R"({"devices": []})");
    serial_readers({classic_reader("ZS000021", 6, R"({"kind": "pty"})"),
                    classic_reader("ZS000022", 7, R"({"kind": "pty"})"),
                    classic_reader("ZS000023", 8, R"({"kind": "pty"})")});
    uint32_t count = 0;
    ASSERT_EQ(ReaderList_UpdateAndGetCount(&count), ZEL_OK);
    ASSERT_EQ(count, 3u);
    EXPECT_EQ(unit_check_available(list_get_by_idx(0)), ZEL_OK);
    // The second reader stops answering; the third is closed by its user.
    zsim_fault silent{};
    silent.kind = ZSIM_FAULT_SILENCE;
    silent.command = -1;
    silent.times = -1;
    zsim_fault_push(zsim_set_reader(serial_set, 1), &silent);
    PortSetTimeout(list_get_by_idx(1), 100);
    list_get_by_idx(2)->opened = 0;
    EXPECT_EQ(do_f_to_all_devices(unit_delete_if_not_opened), ZEL_DEVICE_IS_NOT_CONNECTED);
    EXPECT_EQ(list_size(), 2u);
    EXPECT_EQ(do_f_to_all_devices(unit_check_available), ZEL_DEVICE_IS_NOT_CONNECTED);
    ASSERT_EQ(list_size(), 1u);
    EXPECT_EQ(serial_of(0), "ZS000021");
    EXPECT_EQ(unit_check_available(nullptr), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(unit_delete_if_not_opened(nullptr), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(do_f_to_all_devices(nullptr), ZEL_PARAMETERS_ERROR);
}

// Eight readers on eight threads: every handle its own reader, every reply that reader's data.
TEST_F(ReaderListTest, EightReadersOnEightThreads)
{
    ftdi_readers(R"({"devices": []})");
    std::vector<std::string> readers;
    for (uint8_t i = 0; i < 8; ++i)
        readers.push_back(
            classic_reader("ZT00000" + std::to_string(i), static_cast<uint8_t>(0x10 + i), R"({"kind": "pty"})"));
    serial_readers(readers);
    uint32_t count = 0;
    ASSERT_EQ(ReaderList_UpdateAndGetCount(&count), ZEL_OK);
    ASSERT_EQ(count, 8u);
    std::atomic<int> bad{0};
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < 8; ++t)
        threads.emplace_back([t, &bad] {
            ZEL_HANDLE h = list_get_by_idx(t);
            const uint8_t mark = static_cast<uint8_t>(0x10 + (h->serial[7] - '0'));
            for (int k = 0; k < 40; ++k) {
                uint8_t data[16] = {};
                if (BlockReadM(h, data, 1, 0x60, 0) != ZEL_OK || data[0] != mark || data[1] != (mark ^ 0xFF) ||
                    data[2] != mark || data[3] != 0xA5)
                    bad.fetch_add(1);
            }
        });
    for (auto &th : threads)
        th.join();
    EXPECT_EQ(bad.load(), 0);
    std::set<std::string> seen;
    for (int32_t i = 0; i < 8; ++i)
        seen.insert(serial_of(i));
    EXPECT_EQ(seen.size(), 8u);
}

} // namespace
