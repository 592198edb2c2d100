// Network readers end to end: the simulated reader on UDP and TCP, its discovery responder, and the
// broadcast search. These use the protocol's fixed ports, so they run one at a time.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "core/internal.h"
#include "tandro.h"
#include "zelsim.h"

namespace {

void tenth_sleep(uint32_t ms)
{
    usleep(ms * 100);
}

class NetOpen : public ::testing::Test {
protected:
    void SetUp() override { zel::set_sleep_hook(tenth_sleep); }
    void TearDown() override
    {
        ReaderClose();
        for (zsim *s : sims)
            zsim_free(s);
        zel::set_sleep_hook(nullptr);
    }
    zsim *reader(const char *serial, uint32_t type)
    {
        zsim *s = zsim_new();
        zsim_set_serial_description(s, serial);
        zsim_set_reader_type(s, type);
        sims.push_back(s);
        return s;
    }
    std::vector<zsim *> sims;
};

TEST_F(NetOpen, UdpAndTcpByHostText)
{
    zsim *s = reader("ON000001", 0xD1180022);
    uint16_t udp_port = 0, tcp_port = 0;
    ASSERT_EQ(zsim_serve_udp(s, "127.0.0.1", 0, &udp_port), 0);
    ASSERT_EQ(zsim_serve_tcp(s, "127.0.0.1", 0, &tcp_port), 0);

    const std::string udp = "127.0.0.1:" + std::to_string(udp_port);
    ASSERT_EQ(ReaderOpenEx(0, udp.c_str(), 'U', nullptr), ZEL_OK);
    EXPECT_EQ(zel_global.comm.use, ZEL_PORT_SOCKET);
    EXPECT_STREQ(zel_global.try_port, udp.c_str());
    uint32_t type = 0;
    EXPECT_EQ(GetReaderType(&type), ZEL_OK);
    EXPECT_EQ(type, 0xD1180022u);
    ReaderClose();

    // host:port:localport names the source port too.
    const std::string tcp = "127.0.0.1:" + std::to_string(tcp_port);
    ZEL_HANDLE hnd = Zel_Hnd_Create();
    ASSERT_EQ(ReaderOpenExHnd(hnd, 0, tcp.c_str(), 'T', nullptr), ZEL_OK);
    uint8_t desc[8] = {};
    EXPECT_EQ(GetReaderSerialDescriptionM(hnd, desc), ZEL_OK);
    EXPECT_EQ(std::memcmp(desc, "ON000001", 8), 0);
    Zel_Hnd_Destroy(hnd);

    // Nobody there, or no host: the set-up fails and the record stays closed and usable.
    hnd = Zel_Hnd_Create();
    EXPECT_EQ(ReaderOpenExHnd(hnd, 0, "127.0.0.1:1", 'T', nullptr), ZEL_COMMAND_FAILED);
    EXPECT_EQ(ReaderOpenExHnd(hnd, 0, "127.0.0.1:port", 'U', nullptr), ZEL_COMMAND_FAILED);
    EXPECT_EQ(hnd->udp_ready, 0);
    EXPECT_EQ(ReaderOpenExHnd(hnd, 0, nullptr, 'L', nullptr), ZEL_NOT_IMPLEMENTED);
    ASSERT_EQ(ReaderOpenExHnd(hnd, 0, udp.c_str(), 'U', nullptr), ZEL_OK);
    Zel_Hnd_Destroy(hnd);
}

TEST_F(NetOpen, DiscoveryAtAnAddressBySerialNumberAndTheBroadcastSearch)
{
    // A device with two reader units: the first on 8881, the second on 8882; discovery names the first.
    zsim *first = reader("ON000001", 0x11111111);
    zsim *second = reader("ON000002", 0x22222222);
    ASSERT_EQ(zsim_serve_udp(first, "0.0.0.0", 8881, nullptr), 0);
    ASSERT_EQ(zsim_serve_udp(second, "0.0.0.0", 8882, nullptr), 0);
    ASSERT_EQ(zsim_serve_discovery(first, "0.0.0.0", 8880, 0, nullptr), 0);

    // Type 4 with an address: the request goes there, and the reply's protocol is used.
    ASSERT_EQ(ReaderOpenEx(4, "127.0.0.1", 0, nullptr), ZEL_OK);
    uint32_t type = 0;
    EXPECT_EQ(GetReaderType(&type), ZEL_OK);
    EXPECT_EQ(type, 0x11111111u);
    ReaderClose();

    // The global discovery open, by serial number.
    ASSERT_EQ(ReaderOpen_ZelNet("ON000001"), ZEL_OK);
    EXPECT_EQ(GetReaderType(&type), ZEL_OK);
    EXPECT_EQ(type, 0x11111111u);

    // The broadcast search finds both units and keeps them in the reader list.
    const uint32_t before = list_size();
    const uint32_t added = udp_reader_list();
    EXPECT_EQ(added, 2u);
    ASSERT_EQ(list_size(), before + added);
    bool seen[2] = {};
    for (uint32_t i = before; i < list_size(); ++i) {
        ZEL_HANDLE h = list_get_by_idx(i);
        ASSERT_NE(h, nullptr);
        seen[0] = seen[0] || std::memcmp(h->serial, "ON000001", 8) == 0;
        seen[1] = seen[1] || std::memcmp(h->serial, "ON000002", 8) == 0;
    }
    EXPECT_TRUE(seen[0] && seen[1]);
    while (list_size() > before) {
        ZEL_HANDLE h = list_get_by_idx(before);
        udp_close(h);
        EXPECT_EQ(removeData(h), 1);
    }
}

TEST_F(NetOpen, AWantedSerialOfTheSecondUnit)
{
    // The network module answers discovery with the device's serial; its first unit has another.
    zsim *first = reader("ON000001", 0x11111111);
    zsim *second = reader("ON000002", 0x22222222);
    zsim *module = reader("ON000002", 0);
    ASSERT_EQ(zsim_serve_udp(first, "0.0.0.0", 8881, nullptr), 0);
    ASSERT_EQ(zsim_serve_udp(second, "0.0.0.0", 8882, nullptr), 0);
    uint16_t spare = 0;
    ASSERT_EQ(zsim_serve_udp(module, "127.0.0.1", 0, &spare), 0);
    ASSERT_EQ(zsim_serve_discovery(module, "0.0.0.0", 8880, 0, nullptr), 0);
    ZEL_HANDLE hnd = Zel_Hnd_Create();
    ASSERT_EQ(ReaderOpenExHnd(hnd, 4, "ON000002", 'U', nullptr), ZEL_OK);
    uint32_t type = 0;
    EXPECT_EQ(GetReaderTypeM(hnd, &type), ZEL_OK);
    EXPECT_EQ(type, 0x22222222u);
    EXPECT_STREQ(hnd->try_port, "127.0.0.1:8882");
    // Nobody answers for this serial.
    EXPECT_EQ(ReaderOpenExHnd(hnd, 4, "ON999999", 'U', nullptr), ZEL_READER_OPENING_ERROR);
    Zel_Hnd_Destroy(hnd);
}

TEST_F(NetOpen, ShortDiscoveryRepliesMatchOnlyAnEmptySerial)
{
    zsim *s = reader("ON000003", 0x33333333);
    ASSERT_EQ(zsim_serve_tcp(s, "0.0.0.0", 8881, nullptr), 0);
    ASSERT_EQ(zsim_serve_discovery(s, "0.0.0.0", 8880, 1, nullptr), 0);
    ZEL_HANDLE hnd = Zel_Hnd_Create();
    ASSERT_EQ(ReaderOpenExHnd(hnd, 4, "127.0.0.1", 0, nullptr), ZEL_OK);
    EXPECT_EQ(hnd->udp_ready, 1);
    ReaderCloseM(hnd);
    // Asked by serial, a reply without one never matches: with the flag set there is no fall-back.
    EXPECT_EQ(ReaderOpen_ZelNetHnd(hnd, 1, "ON000003"), ZEL_READER_OPENING_ERROR);
    Zel_Hnd_Destroy(hnd);
}

// The discovery socket cannot be set up (its port is held by another socket): that is a failure of its own, 84,
// and not a reason to search USB instead, which would hide a network fault behind whatever reader is plugged in.
TEST_F(NetOpen, DiscoverySocketFailureDoesNotFallBackToUsb)
{
    const int holder = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(holder, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    a.sin_port = htons(ZEL_NET_DISCOVERY_SOURCE_PORT);
    ASSERT_EQ(bind(holder, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    ZEL_HANDLE hnd = Zel_Hnd_Create();
    // The USB search clears the busy mark before anything else; it stays as set when no search ran.
    hnd->port_busy = 7;
    EXPECT_EQ(ReaderOpen_ZelNetHnd(hnd, 0, "ON000001"), ZEL_READER_OPENING_ERROR);
    EXPECT_EQ(hnd->port_busy, 7u);
    EXPECT_EQ(ReaderOpen_ZelNet("ON000001"), ZEL_READER_OPENING_ERROR);
    close(holder);
    Zel_Hnd_Destroy(hnd);
}

} // namespace
