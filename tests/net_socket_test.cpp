// The socket set-up of network readers, with a reader's sockets played on loopback by the test.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "tandro.h"
#include "transport/net.h"
#include "zel_net.h"

namespace {

TEST(NetHostText, PortsAndMalformedTexts)
{
    zel::HostText h{};
    ASSERT_TRUE(zel::parse_host_text("192.168.1.7", &h));
    EXPECT_STREQ(h.host, "192.168.1.7");
    EXPECT_EQ(h.port, 8881u);
    EXPECT_EQ(h.local_port, -1);
    ASSERT_TRUE(zel::parse_host_text("reader.local:8882", &h));
    EXPECT_STREQ(h.host, "reader.local");
    EXPECT_EQ(h.port, 8882u);
    ASSERT_TRUE(zel::parse_host_text("10.0.0.1:9000:55600", &h));
    EXPECT_EQ(h.port, 9000u);
    EXPECT_EQ(h.local_port, 55600);
    for (const char *bad : {"", ":8881", "host:", "host:abc", "host:70000", "host:0", "host:1:x", "host:1:99999"})
        EXPECT_FALSE(zel::parse_host_text(bad, &h)) << bad;
    const std::string long_host(100, 'h');
    EXPECT_FALSE(zel::parse_host_text(long_host.c_str(), &h));
    EXPECT_FALSE(zel::parse_host_text(nullptr, &h));
}

TEST(NetDiscovery, ReplyForms)
{
    uint8_t reply[28] = {192, 168, 1, 50, 0xB1, 0x22, 'U'};
    std::memcpy(reply + 19, "ON123456", 8);
    zel::DiscoveryReply r{};
    ASSERT_TRUE(zel::parse_discovery_reply(reply, 28, &r));
    EXPECT_STREQ(r.address, "192.168.1.50");
    EXPECT_EQ(r.port, 8881u);
    EXPECT_EQ(r.protocol, 'U');
    EXPECT_STREQ(r.serial, "ON123456");
    ASSERT_TRUE(zel::parse_discovery_reply(reply, 19, &r));
    EXPECT_STREQ(r.serial, ""); // the short form has none
    for (size_t len : {0u, 18u, 20u, 27u, 29u, 1024u})
        EXPECT_FALSE(zel::parse_discovery_reply(reply, len, &r)) << len;
}

struct Listener {
    int fd = -1;
    uint16_t port = 0;
    explicit Listener(int type)
    {
        fd = socket(AF_INET, type, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
        socklen_t len = sizeof a;
        getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
        port = ntohs(a.sin_port);
        if (type == SOCK_STREAM)
            listen(fd, 1);
        timeval tv{2, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    }
    ~Listener() { close(fd); }
};

TEST(NetSocket, UdpWakesTheReaderAndCarriesFrames)
{
    Listener reader(SOCK_DGRAM);
    zel_handle_record rec;
    zel_handle_init(&rec);
    const std::string host = "127.0.0.1:" + std::to_string(reader.port);
    ASSERT_EQ(udp_init(&rec, 0, host.c_str(), 'U', nullptr), ZEL_OK);
    EXPECT_EQ(rec.comm.use, ZEL_PORT_SOCKET);
    EXPECT_EQ(rec.udp_ready, 1);
    EXPECT_STREQ(rec.try_port, host.c_str());
    EXPECT_STREQ(rec.udp_host, "127.0.0.1");
    EXPECT_EQ(rec.udp_tx_port, reader.port);

    uint8_t got[64];
    sockaddr_in from{};
    socklen_t from_len = sizeof from;
    ASSERT_EQ(recvfrom(reader.fd, got, sizeof got, 0, reinterpret_cast<sockaddr *>(&from), &from_len), 1);
    EXPECT_EQ(got[0], 0x00); // the wake byte

    // A frame each way through the port layer.
    const uint8_t frame[7] = {0x55, 0x10, 0xAA, 0, 0, 0, 0xF6};
    ASSERT_EQ(PortWrite(&rec, frame, 7), ZEL_OK);
    ASSERT_EQ(recv(reader.fd, got, sizeof got, 0), 7);
    const uint8_t answer[12] = {0xDE, 0x10, 0xED, 0x05, 0, 0, 0x2D, 4, 3, 2, 1, 0x0B};
    // An empty datagram first: on a datagram socket it is nothing, not the end of the link.
    sendto(reader.fd, answer, 0, 0, reinterpret_cast<sockaddr *>(&from), from_len);
    sendto(reader.fd, answer, 12, 0, reinterpret_cast<sockaddr *>(&from), from_len);
    ASSERT_EQ(PortRead(&rec, got, 12), ZEL_OK);
    EXPECT_EQ(got[11], 0x0B);

    // A second set-up on another record takes a port of the system's unless one is given.
    zel_handle_record second;
    zel_handle_init(&second);
    ASSERT_EQ(udp_init(&second, 0, (host + ":0").c_str(), 'U', nullptr), ZEL_OK);
    sockaddr_in local{};
    socklen_t local_len = sizeof local;
    getsockname(second.udp_socket, reinterpret_cast<sockaddr *>(&local), &local_len);
    EXPECT_NE(ntohs(local.sin_port), 0);
    EXPECT_EQ(PortClose(&second), ZEL_OK);
    EXPECT_EQ(second.udp_socket, 0);
    EXPECT_EQ(second.udp_ready, 0);
    EXPECT_EQ(ReaderCloseM(&rec), ZEL_OK);
}

// A record opened on a reader's address hears that address and port only: a datagram of another sender, even
// one that looks like a reply and comes first, is never taken as the reader's.
TEST(NetSocket, UdpTakesDatagramsOnlyFromItsReader)
{
    Listener reader(SOCK_DGRAM);
    Listener stray(SOCK_DGRAM);
    zel_handle_record rec;
    zel_handle_init(&rec);
    const std::string host = "127.0.0.1:" + std::to_string(reader.port);
    ASSERT_EQ(udp_init(&rec, 0, host.c_str(), 'U', nullptr), ZEL_OK);
    uint8_t got[64];
    sockaddr_in from{};
    socklen_t from_len = sizeof from;
    ASSERT_EQ(recvfrom(reader.fd, got, sizeof got, 0, reinterpret_cast<sockaddr *>(&from), &from_len), 1);

    const uint8_t forged[7] = {0xDE, 0x10, 0xED, 0, 0x66, 0x66, 0x51};
    const uint8_t genuine[7] = {0xDE, 0x10, 0xED, 0, 0x11, 0x22, 0x1B};
    ASSERT_EQ(sendto(stray.fd, forged, 7, 0, reinterpret_cast<sockaddr *>(&from), from_len), 7);
    ASSERT_EQ(sendto(reader.fd, genuine, 7, 0, reinterpret_cast<sockaddr *>(&from), from_len), 7);
    ASSERT_EQ(PortRead(&rec, got, 7), ZEL_OK);
    EXPECT_EQ(std::memcmp(got, genuine, 7), 0);
    // Nothing of the stray sender is left waiting either.
    EXPECT_EQ(udp_rx(&rec, 1), 0);
    EXPECT_EQ(ReaderCloseM(&rec), ZEL_OK);
}

TEST(NetSocket, TcpStreamBeginsWithTheWakeByte)
{
    Listener reader(SOCK_STREAM);
    zel_handle_record rec;
    zel_handle_init(&rec);
    const std::string host = "127.0.0.1:" + std::to_string(reader.port);
    ASSERT_EQ(udp_init(&rec, 0, host.c_str(), 'T', nullptr), ZEL_OK);
    const int conn = accept(reader.fd, nullptr, nullptr);
    ASSERT_GE(conn, 0);
    uint8_t got[16];
    ASSERT_EQ(recv(conn, got, 1, 0), 1);
    EXPECT_EQ(got[0], 0x00);
    const uint8_t frame[7] = {0x55, 0x13, 0xAA, 0, 0, 0, 0xF3};
    ASSERT_EQ(PortWrite(&rec, frame, 7), ZEL_OK);
    ASSERT_EQ(recv(conn, got, 7, MSG_WAITALL), 7);
    EXPECT_EQ(got[6], 0xF3);
    const uint8_t no_card[7] = {0xEC, 0x08, 0xCE, 0, 0, 0, 0x31};
    send(conn, no_card, 4, 0);
    send(conn, no_card + 4, 3, 0); // a stream may come in pieces
    ASSERT_EQ(PortRead(&rec, got, 7), ZEL_OK);
    EXPECT_EQ(got[1], 0x08);
    close(conn); // the reader goes away: reads fail at once
    EXPECT_EQ(PortRead(&rec, got, 7), ZEL_COMMUNICATION_BREAK);
    PortClose(&rec);
}

TEST(NetSocket, SetUpFailures)
{
    zel_handle_record rec;
    zel_handle_init(&rec);
    EXPECT_EQ(udp_init(&rec, 0, "bad host name with spaces:8881", 'U', nullptr), ZEL_COMMAND_FAILED);
    EXPECT_EQ(rec.udp_ready, 0);
    EXPECT_EQ(udp_init(&rec, 0, "127.0.0.1:1", 'T', nullptr), ZEL_COMMAND_FAILED); // nothing listens
    EXPECT_EQ(udp_init(&rec, 0, nullptr, 'U', nullptr), ZEL_COMMAND_FAILED);
    EXPECT_EQ(udp_init(nullptr, 0, "127.0.0.1", 'U', nullptr), ZEL_DEVICE_WRONG_HANDLE);
    PortClose(&rec);
}

TEST(NetLocal, AddressAndBroadcastText)
{
    char ip[32];
    ASSERT_EQ(getlocalip(ip, sizeof ip), 0);
    in_addr a{};
    EXPECT_EQ(inet_pton(AF_INET, ip, &a), 1);
    const std::string bc = get_local_net_addr();
    EXPECT_EQ(bc.substr(bc.size() - 4), ".255");
    EXPECT_EQ(bc.substr(0, bc.rfind('.')), std::string(ip).substr(0, std::string(ip).rfind('.')));
    EXPECT_EQ(getlocalip(ip, 4), 1);
}

} // namespace
