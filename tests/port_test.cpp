// The port layer on its three kinds of link: a UDP pair on loopback, a pseudo-terminal and a D2XX table.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "core/internal.h"
#include "tandro.h"
#include "transport/d2xx.h"
#include "transport/serial.h"

namespace {

// A reader's UDP socket and a record whose socket talks to it.
struct UdpPair {
    int peer = -1;
    zel_handle_record rec;
    UdpPair()
    {
        zel_handle_init(&rec);
        peer = socket(AF_INET, SOCK_DGRAM, 0);
        const int host = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        bind(peer, reinterpret_cast<sockaddr *>(&a), sizeof a);
        getsockname(peer, reinterpret_cast<sockaddr *>(&rec.udp_remote), &len);
        bind(host, reinterpret_cast<sockaddr *>(&a), sizeof a);
        rec.comm.use = ZEL_PORT_SOCKET;
        rec.udp_socket = host;
        rec.udp_ready = 1;
    }
    ~UdpPair()
    {
        udp_close(&rec);
        close(peer);
    }
    void send_to_host(const std::vector<uint8_t> &b)
    {
        sockaddr_in host{};
        socklen_t len = sizeof host;
        getsockname(rec.udp_socket, reinterpret_cast<sockaddr *>(&host), &len);
        sendto(peer, b.data(), b.size(), 0, reinterpret_cast<sockaddr *>(&host), sizeof host);
    }
};

TEST(SocketPort, BufferKeepsWhatIsNotTaken)
{
    UdpPair p;
    p.send_to_host({1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
    uint8_t buf[7];
    ASSERT_EQ(PortRead(&p.rec, buf, 7), ZEL_OK);
    EXPECT_EQ(buf[6], 7);
    EXPECT_EQ(p.rec.udp_rx_len, 3);
    EXPECT_EQ(p.rec.udp_rx_buf[0], 8);
    ASSERT_EQ(PortRead(&p.rec, buf, 3), ZEL_OK);
    EXPECT_EQ(buf[2], 10);

    const uint8_t frame[7] = {0x55, 0x10, 0xAA, 0, 0, 0, 0xF6};
    ASSERT_EQ(PortWrite(&p.rec, frame, 7), ZEL_OK);
    uint8_t got[16];
    EXPECT_EQ(recv(p.peer, got, sizeof got, 0), 7);
    EXPECT_EQ(got[6], 0xF6);
}

TEST(SocketPort, ShortReadConsumesWhatCame)
{
    UdpPair p;
    p.send_to_host({1, 2, 3});
    uint8_t buf[7];
    EXPECT_EQ(PortRead(&p.rec, buf, 7), ZEL_COMMUNICATION_BREAK); // waits out the second
    EXPECT_EQ(p.rec.udp_rx_len, 0);
    EXPECT_EQ(buf[2], 3);
}

TEST(SocketPort, PeerCannotOverfillTheBuffer)
{
    UdpPair p;
    std::vector<uint8_t> big(300, 0xEE);
    for (int i = 0; i < 16; ++i)
        p.send_to_host(big);
    EXPECT_EQ(udp_rx(&p.rec, 100000), ZEL_UDP_RX_BUF_LEN);
    EXPECT_EQ(p.rec.udp_rx_len, ZEL_UDP_RX_BUF_LEN);
    // A purge empties it.
    EXPECT_EQ(PortPurge(&p.rec), ZEL_OK);
    EXPECT_EQ(p.rec.udp_rx_len, 0);
    // A corrupted count is not trusted.
    p.rec.udp_rx_len = 999999;
    uint8_t b[4];
    p.send_to_host({9, 9, 9, 9});
    EXPECT_EQ(PortRead(&p.rec, b, 4), ZEL_OK);
}

TEST(SocketPort, CallsThatSocketsDoNotHave)
{
    UdpPair p;
    uint32_t n = 5;
    EXPECT_EQ(PortGetAvailable(&p.rec, &n), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(PortSetTimeout(&p.rec, 50), ZEL_NOT_IMPLEMENTED);
    EXPECT_EQ(PortSetRTS(&p.rec, 1), ZEL_PARAMETERS_ERROR);
    p.rec.comm.rts = RTS_DISCONNECTED;
    EXPECT_EQ(PortSetRTS(&p.rec, 1), ZEL_OK);
    uint32_t count = 9;
    EXPECT_EQ(PortRead1(&p.rec, reinterpret_cast<uint8_t *>(&n), 4, &count), ZEL_COMMUNICATION_ERROR);
    EXPECT_EQ(count, 0u);
}

TEST(Port, NullHandleAndUnknownKind)
{
    uint8_t b[4];
    uint32_t n;
    EXPECT_EQ(PortRead(nullptr, b, 4), ZEL_DEVICE_WRONG_HANDLE);
    EXPECT_EQ(PortWrite(nullptr, b, 4), ZEL_DEVICE_WRONG_HANDLE);
    EXPECT_EQ(PortPurge(nullptr), ZEL_DEVICE_WRONG_HANDLE);
    EXPECT_EQ(PortGetAvailable(nullptr, &n), ZEL_DEVICE_WRONG_HANDLE);
    EXPECT_EQ(PortSetTimeout(nullptr, 1), ZEL_DEVICE_WRONG_HANDLE);
    EXPECT_EQ(PortClose(nullptr), ZEL_DEVICE_WRONG_HANDLE);
    zel_handle_record rec;
    zel_handle_init(&rec);
    rec.comm.use = ZEL_PORT_LOCAL;
    EXPECT_EQ(PortRead(&rec, b, 4), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(PortWrite(&rec, b, 4), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(PortPurge(&rec), ZEL_PARAMETERS_ERROR);
    rec.opened = 1;
    EXPECT_EQ(PortClose(&rec), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(rec.opened, 0);
}

// A pseudo-terminal stands in for a serial port.
struct Pty {
    int master = -1;
    char path[128] = {};
    Pty()
    {
        master = posix_openpt(O_RDWR | O_NOCTTY);
        grantpt(master);
        unlockpt(master);
        ptsname_r(master, path, sizeof path);
        termios t{};
        tcgetattr(master, &t);
        cfmakeraw(&t);
        tcsetattr(master, TCSANOW, &t);
    }
    ~Pty() { close(master); }
};

TEST(SerialPort, ReadWriteTimeoutsAndClose)
{
    Pty pty;
    zel_handle_record rec;
    zel_handle_init(&rec);
    ASSERT_EQ(zel::serial_open(&rec, pty.path, 250000, true), ZEL_OK); // a rate termios has no constant for
    EXPECT_EQ(rec.comm.use, ZEL_PORT_SERIAL);
    EXPECT_EQ(rec.opened, 1);
    EXPECT_EQ(PortSetBaudRate(&rec, 500000), ZEL_OK);
    EXPECT_EQ(PortSetBaudRate(&rec, 1000000), ZEL_OK);

    const uint8_t out[7] = {0x55, 0x10, 0xAA, 0, 0, 0, 0xF6};
    ASSERT_EQ(PortWrite(&rec, out, 7), ZEL_OK);
    uint8_t seen[7];
    ASSERT_EQ(read(pty.master, seen, 7), 7);
    EXPECT_EQ(std::memcmp(seen, out, 7), 0);

    ASSERT_EQ(write(pty.master, "abcdef", 6), 6);
    usleep(20000);
    uint32_t avail = 0;
    ASSERT_EQ(PortGetAvailable(&rec, &avail), ZEL_OK);
    EXPECT_EQ(avail, 6u);
    uint8_t in[8];
    ASSERT_EQ(PortRead(&rec, in, 4), ZEL_OK);
    EXPECT_EQ(std::memcmp(in, "abcd", 4), 0);
    ASSERT_EQ(PortSetTimeout(&rec, 30), ZEL_OK);
    uint32_t count = 0;
    EXPECT_EQ(PortRead1(&rec, in, 4, &count), ZEL_COMMUNICATION_BREAK); // two came, the time-out ended it
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(in[0], 'e');
    EXPECT_EQ(PortRead(&rec, in, 1), ZEL_COMMUNICATION_BREAK);

    ASSERT_EQ(write(pty.master, "zz", 2), 2);
    usleep(20000);
    EXPECT_EQ(PortPurge(&rec), ZEL_OK);
    EXPECT_EQ(PortRead(&rec, in, 1), ZEL_COMMUNICATION_BREAK);

    // A pseudo-terminal has no modem lines.
    EXPECT_EQ(PortSetRTS(&rec, 1), ZEL_COMMUNICATION_ERROR);
    rec.comm.rts = RTS_DISCONNECTED;
    EXPECT_EQ(PortSetRTS(&rec, 1), ZEL_OK);

    EXPECT_EQ(ReaderCloseM(&rec), ZEL_OK);
    EXPECT_EQ(rec.opened, 0);
    EXPECT_EQ(rec.comHandle, nullptr);
    // A second close has no descriptor to close, and never takes standard input for one.
    EXPECT_EQ(PortClose(&rec), ZEL_CANT_CLOSE_READER_PORT);
    EXPECT_NE(fcntl(0, F_GETFD), -1);
    EXPECT_EQ(PortSetTimeout(&rec, 10), ZEL_READER_PORT_NOT_OPENED);
    EXPECT_EQ(PortSetBaudRate(&rec, 115200), ZEL_COMMUNICATION_ERROR);
}

TEST(SerialPort, BytesReadAheadBelongToTheNextReadUntilAPurge)
{
    Pty pty;
    zel_handle_record rec;
    zel_handle_init(&rec);
    ASSERT_EQ(zel::serial_open(&rec, pty.path, 1000000, true), ZEL_OK);
    PortSetTimeout(&rec, 30);
    ASSERT_EQ(write(pty.master, "0123456789AB", 12), 12);
    uint8_t in[12];
    ASSERT_EQ(PortRead(&rec, in, 7), ZEL_OK);
    EXPECT_EQ(std::memcmp(in, "0123456", 7), 0);
    uint32_t avail = 0;
    ASSERT_EQ(PortGetAvailable(&rec, &avail), ZEL_OK);
    EXPECT_EQ(avail, 5u); // read ahead, still waiting for the caller
    ASSERT_EQ(PortRead(&rec, in, 5), ZEL_OK);
    EXPECT_EQ(std::memcmp(in, "789AB", 5), 0);

    ASSERT_EQ(write(pty.master, "stale!", 6), 6);
    ASSERT_EQ(PortRead(&rec, in, 2), ZEL_OK);
    EXPECT_EQ(PortPurge(&rec), ZEL_OK); // drops what was read ahead as well as the queue
    ASSERT_EQ(PortGetAvailable(&rec, &avail), ZEL_OK);
    EXPECT_EQ(avail, 0u);
    EXPECT_EQ(PortRead(&rec, in, 1), ZEL_COMMUNICATION_BREAK);
    // A copy of the record carries what it had read ahead, like the socket buffer.
    ASSERT_EQ(write(pty.master, "xy", 2), 2);
    ASSERT_EQ(PortRead(&rec, in, 1), ZEL_OK);
    zel_handle_record copy;
    std::memcpy(static_cast<void *>(&copy), &rec, sizeof rec);
    EXPECT_EQ(copy.com_rx_len, rec.com_rx_len);
    PortClose(&rec);
}

// The record's count of link bytes follows what the caller actually got and sent, short reads included, so
// that another thread can draw a long operation's progress from it.
TEST(SerialPort, LinkByteCountFollowsWhatMoved)
{
    Pty pty;
    zel_handle_record rec;
    zel_handle_init(&rec);
    ASSERT_EQ(zel::serial_open(&rec, pty.path, 1000000, true), ZEL_OK);
    PortSetTimeout(&rec, 30);
    EXPECT_EQ(__atomic_load_n(&rec.link_bytes, __ATOMIC_RELAXED), 0u);
    const uint8_t out[5] = {1, 2, 3, 4, 5};
    ASSERT_EQ(PortWrite(&rec, out, sizeof out), ZEL_OK);
    EXPECT_EQ(rec.link_bytes, 5u);
    ASSERT_EQ(write(pty.master, "0123456789", 10), 10);
    uint8_t in[16];
    ASSERT_EQ(PortRead(&rec, in, 4), ZEL_OK);
    EXPECT_EQ(rec.link_bytes, 9u); // the bytes read ahead count when the caller takes them
    uint32_t got = 0;
    PortRead1(&rec, in, 16, &got); // asks more than is there: a short read
    EXPECT_EQ(got, 6u);
    EXPECT_EQ(rec.link_bytes, 15u);
    EXPECT_NE(PortRead(&rec, in, 3), ZEL_OK); // nothing came
    EXPECT_EQ(rec.link_bytes, 15u);
    PortClose(&rec);
}

TEST(SerialPort, EveryRateOfTheBaudTable)
{
    Pty pty;
    for (uint32_t baud : zel_baud_table) {
        zel_handle_record rec;
        zel_handle_init(&rec);
        ASSERT_EQ(zel::serial_open(&rec, pty.path, baud, true), ZEL_OK) << baud;
        EXPECT_EQ(rec.baud_rate, baud);
        EXPECT_EQ(PortSetBaudRate(&rec, baud), ZEL_OK) << baud;
        EXPECT_EQ(PortClose(&rec), ZEL_OK);
    }
    zel_handle_record rec;
    zel_handle_init(&rec);
    EXPECT_EQ(zel::serial_open(&rec, "/nonexistent/tty", 115200, true), ZEL_READER_OPENING_ERROR);
    EXPECT_EQ(rec.opened, 0);
}

TEST(SerialPort, PeerGoneIsAFailureNotAHang)
{
    auto *pty = new Pty;
    zel_handle_record rec;
    zel_handle_init(&rec);
    ASSERT_EQ(zel::serial_open(&rec, pty->path, 115200, true), ZEL_OK);
    delete pty; // the reader is unplugged
    uint8_t in[7];
    EXPECT_EQ(PortRead(&rec, in, 7), ZEL_COMMUNICATION_ERROR);
    PortClose(&rec);
}

// A D2XX device played by functions of the test.
struct FakeFtdi {
    static inline uint32_t read_status = 0;
    static inline uint32_t short_by = 0;
    static inline std::vector<uint32_t> timeouts;
    static inline std::vector<int> rts;
    static zel::FT_STATUS read(zel::FT_HANDLE, void *b, uint32_t n, uint32_t *got)
    {
        std::memset(b, 0x42, n);
        *got = n - (short_by < n ? short_by : n);
        return read_status;
    }
    static zel::FT_STATUS write(zel::FT_HANDLE, void *, uint32_t n, uint32_t *done)
    {
        *done = n;
        return 0;
    }
    static zel::FT_STATUS close(zel::FT_HANDLE h)
    {
        return h == reinterpret_cast<void *>(~static_cast<uintptr_t>(0)) ? zel::FT_INVALID_HANDLE : 0;
    }
    static zel::FT_STATUS set_timeouts(zel::FT_HANDLE, uint32_t r, uint32_t)
    {
        timeouts.push_back(r);
        return 4;
    }
    static zel::FT_STATUS set_rts(zel::FT_HANDLE)
    {
        rts.push_back(1);
        return 0;
    }
    static zel::FT_STATUS clr_rts(zel::FT_HANDLE)
    {
        rts.push_back(0);
        return 0;
    }
    static zel::FT_STATUS queue(zel::FT_HANDLE, uint32_t *n)
    {
        *n = 12;
        return 0;
    }
};

TEST(FtdiPort, StatusMappingAndClose)
{
    zel::D2xxTable t{};
    t.FT_Read = FakeFtdi::read;
    t.FT_Write = FakeFtdi::write;
    t.FT_Close = FakeFtdi::close;
    t.FT_SetTimeouts = FakeFtdi::set_timeouts;
    t.FT_SetRts = FakeFtdi::set_rts;
    t.FT_ClrRts = FakeFtdi::clr_rts;
    t.FT_GetQueueStatus = FakeFtdi::queue;
    zel::d2xx_install(t);

    zel_handle_record rec;
    zel_handle_init(&rec);
    rec.comm.use = ZEL_PORT_FTDI;
    uint8_t b[7];
    EXPECT_EQ(PortRead(&rec, b, 7), ZEL_FTD2XX_DLL_NOT_FOUND); // not loaded for this record
    EXPECT_EQ(PortClose(&rec), ZEL_FTD2XX_DLL_NOT_FOUND);
    rec.ftdi_loaded = 1;
    rec.opened = 1;
    rec.ftHandle = reinterpret_cast<void *>(0x1234);

    EXPECT_EQ(PortRead(&rec, b, 7), ZEL_OK);
    FakeFtdi::short_by = 2;
    EXPECT_EQ(PortRead(&rec, b, 7), ZEL_COMMUNICATION_BREAK);
    FakeFtdi::short_by = 0;
    FakeFtdi::read_status = 3;
    EXPECT_EQ(PortRead(&rec, b, 7), 0xA3u);
    FakeFtdi::read_status = 0;
    uint32_t n = 0;
    EXPECT_EQ(PortGetAvailable(&rec, &n), ZEL_OK);
    EXPECT_EQ(n, 12u);
    EXPECT_EQ(PortSetTimeout(&rec, 250), 4u); // the D2XX status as it stands
    EXPECT_EQ(FakeFtdi::timeouts.back(), 250u);
    EXPECT_EQ(PortSetRTS(&rec, 1), ZEL_OK);
    EXPECT_EQ(PortSetRTS(&rec, 0), ZEL_OK);
    EXPECT_EQ(FakeFtdi::rts, (std::vector<int>{1, 0}));
    EXPECT_EQ(PortPurge(&rec), ZEL_FTD2XX_DLL_NOT_FOUND); // the table has no purge

    EXPECT_EQ(PortClose(&rec), ZEL_OK);
    EXPECT_EQ(rec.opened, 0);
    EXPECT_EQ(PortClose(&rec), ZEL_READER_PORT_NOT_OPENED); // all-ones handle: invalid
    zel::d2xx_install(zel::D2xxTable{});
}

TEST(FtdiLibrary, MissingLibraryIsReported)
{
    EXPECT_FALSE(LoadFTD2XXLibrary("/nonexistent/libftd2xx.so"));
    EXPECT_FALSE(LoadFTD2XXLibrary(nullptr));
}

TEST(PortLock, TakenAndReleasedDuringASession)
{
    UdpPair p;
    p.rec.port_lock_on = 1;
    p.send_to_host({1, 2});
    uint8_t b[2];
    ASSERT_EQ(PortRead(&p.rec, b, 2), ZEL_OK);
    EXPECT_EQ(p.rec.port_busy, 0u);
    EXPECT_EQ(pthread_mutex_trylock(&p.rec.port_lock), 0);
    pthread_mutex_unlock(&p.rec.port_lock);
}

} // namespace
