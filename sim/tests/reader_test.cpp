// The reader's identity and stored state, push mode and the boot, as a host sees them on the wire; and the
// network links.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "host.h"
#include "zelsim.h"

using Bytes = std::vector<uint8_t>;

namespace {

using zeltest::cat;
using zeltest::rsp;

Bytes text(const std::string &s)
{
    return Bytes(s.begin(), s.end());
}

const Bytes PW = text("11111111");

struct Reader : ::testing::Test {
    zsim *sim = nullptr;
    char path[256] = {};
    std::unique_ptr<RawHost> host;
    void SetUp() override
    {
        sim = zsim_new();
        ASSERT_EQ(zsim_serve_pty(sim, path, sizeof path), 0);
        host = std::make_unique<RawHost>(path);
    }
    void TearDown() override
    {
        host.reset();
        zsim_free(sim);
    }
    // A command with an EXT: the acknowledge must echo the frame, then the reply to the EXT comes.
    Bytes with_ext(uint8_t cmd, const Bytes &data, uint8_t p0 = 0, uint8_t p1 = 0, size_t reply = 7)
    {
        const Bytes ext = ext_block(data);
        const Bytes ack = host->exchange(cmd_frame(cmd, static_cast<uint8_t>(ext.size()), p0, p1), 7);
        EXPECT_EQ(ack, (Bytes{0xAC, cmd, 0xCA, static_cast<uint8_t>(ext.size()), p0, p1,
                              static_cast<uint8_t>((0xAC ^ cmd ^ 0xCA ^ ext.size() ^ p0 ^ p1) + 7)}));
        host->send(ext);
        return host->recv(reply);
    }
    static uint8_t status(const Bytes &r) { return r.size() >= 7 && r[0] == 0xEC ? r[1] : r.empty() ? 0xFF : 0; }
};

TEST_F(Reader, IdentityByteByByte)
{
    zsim_set_serial_number(sim, 0x0A0B0C0D);
    zsim_set_firmware(sim, 5, 3, 12);
    zsim_set_hardware(sim, 0x2F, 0x05);
    zsim_set_serial_description(sim, "ZS777777");
    EXPECT_EQ(host->exchange(cmd_frame(0x11), 12), cat(rsp(0x11, 5, 0, 0), ext_block({0x0D, 0x0C, 0x0B, 0x0A})));
    EXPECT_EQ(host->exchange(cmd_frame(0x29), 7), rsp(0x29, 0, 5, 3));
    EXPECT_EQ(host->exchange(cmd_frame(0x2B), 7), rsp(0x2B, 0, 12, 0));
    EXPECT_EQ(host->exchange(cmd_frame(0x2A, 0, 0x11, 0x22), 7), rsp(0x2A, 0, 0x2F, 0x05));
    // The presence test is a bare handshake.
    EXPECT_EQ(host->exchange(cmd_frame(0x2A), 7), rsp(0x2A, 0, 0, 0));
    Bytes r = host->exchange(cmd_frame(0x40), 16);
    ASSERT_EQ(r.size(), 16u);
    EXPECT_EQ(r[3], 9);
    EXPECT_EQ(Bytes(r.begin() + 7, r.end()), ext_block(text("ZS777777")));
    // No network module in front of a plain reader.
    EXPECT_EQ(status(host->exchange(cmd_frame(0xF9, 0, 0xFF, 0x01), 7)), 9);
}

TEST_F(Reader, ParameterBlockLongShortAndAbsent)
{
    zsim_set_firmware(sim, 5, 1, 44);
    zsim_set_hardware(sim, 0x2F, 0x07);
    zsim_set_reader_type(sim, 0xD1180022);
    Bytes r = host->exchange(cmd_frame(0xF0, 0, 1, 0), 7 + 34);
    ASSERT_EQ(r.size(), 41u);
    ASSERT_EQ(r[3], 34); // long form: more than 29
    const Bytes ext(r.begin() + 7, r.end());
    const size_t L = ext.size();
    EXPECT_EQ(ext, ext_block(Bytes(ext.begin(), ext.end() - 1)));
    EXPECT_EQ(ext[L - 2], 44);
    EXPECT_EQ(ext[L - 3], 1);
    EXPECT_EQ(ext[L - 4], 5);
    EXPECT_EQ(Bytes(ext.begin() + L - 8, ext.begin() + L - 4), (Bytes{0x22, 0x00, 0x18, 0xD1}));
    EXPECT_EQ(ext[L - 9], 0x07);
    EXPECT_EQ(ext[L - 10], 0x2F);
    EXPECT_EQ(std::string(ext.begin() + L - 18, ext.begin() + L - 10), "ZS000001");
    // 0xF1 at the default rate answers the same block.
    const Bytes f1 = host->exchange(cmd_frame(0xF1, 0, 1, 1), 41);
    ASSERT_EQ(f1.size(), 41u);
    EXPECT_EQ(f1[1], 0xF1);
    EXPECT_EQ(Bytes(f1.begin() + 7, f1.end()), ext);

    zsim_set_parameter_form(sim, 1);
    EXPECT_EQ(status(host->exchange(cmd_frame(0xF0, 0, 1, 0), 7)), 9);
    r = host->exchange(cmd_frame(0xF0), 7 + 29);
    ASSERT_EQ(r.size(), 36u);
    EXPECT_EQ(r[3], 29); // short form: no build byte
    EXPECT_EQ(r[7 + 29 - 2], 1);
    EXPECT_EQ(r[7 + 29 - 3], 5);
    zsim_set_parameter_form(sim, 2);
    EXPECT_EQ(status(host->exchange(cmd_frame(0xF0), 7)), 9);
}

TEST_F(Reader, PasswordKeysAndLock)
{
    const Bytes key = {0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5};
    EXPECT_EQ(status(with_ext(0x12, key, 31)), 0);
    uint8_t got[6];
    ASSERT_EQ(zsim_get_key(sim, 31, got), 0);
    EXPECT_EQ(Bytes(got, got + 6), key);
    EXPECT_EQ(status(with_ext(0x12, key, 32)), 7);
    EXPECT_EQ(status(with_ext(0x27, text("wrongpw!"))), 120);
    EXPECT_EQ(zsim_keys_locked(sim), 0);
    EXPECT_EQ(status(with_ext(0x27, PW)), 0);
    EXPECT_EQ(status(with_ext(0x12, key, 0)), 118);
    EXPECT_EQ(status(with_ext(0x28, PW)), 0);
    EXPECT_EQ(status(with_ext(0x12, key, 0)), 0);
    // A new password: the old one stops working.
    EXPECT_EQ(status(with_ext(0x33, cat(text("wrongpw!"), text("NEWPASS1")))), 120);
    EXPECT_EQ(status(with_ext(0x33, cat(PW, text("NEWPASS1")))), 0);
    EXPECT_EQ(status(with_ext(0x27, PW)), 120);
    EXPECT_EQ(status(with_ext(0x27, text("NEWPASS1"))), 0);
    EXPECT_EQ(zsim_keys_locked(sim), 1);
    // A short EXT for the command is a parameter error, not a crash.
    EXPECT_EQ(status(with_ext(0x33, PW)), 15);
}

TEST_F(Reader, EepromTimeJobUserDataProModeSpeed)
{
    // EEPROM write then read back, at the far end of the 1024 bytes.
    const Bytes data = {1, 2, 3, 4, 5};
    Bytes head = {0x1B, 0x04, 0, 0x80, 5, 0, 0, 0}; // address 1051 with the top bit: 0x41B past the end
    EXPECT_EQ(status(with_ext(0x35, cat(cat(head, PW), data))), 6);
    head = {0x43, 0x03, 0, 0x80, 5, 0, 0, 0}; // 835 | 0x80000000
    EXPECT_EQ(status(with_ext(0x35, cat(cat(head, text("badpassw")), data))), 120);
    EXPECT_EQ(status(with_ext(0x35, cat(cat(head, PW), data))), 0);
    Bytes r = with_ext(0x34, cat(head, Bytes(5, 0)), 0, 0, 13);
    EXPECT_EQ(r, cat(rsp(0x34, 6, 0, 0), ext_block(data)));
    Bytes big = {0, 0, 0, 0, 129, 0, 0, 0};
    EXPECT_EQ(status(with_ext(0x34, cat(big, Bytes(129, 0)))), 16);

    const Bytes t = {24, 12, 31, 23, 59, 1};
    EXPECT_EQ(status(with_ext(0x32, cat(text("badpassw"), t))), 120);
    EXPECT_EQ(status(with_ext(0x32, cat(PW, t))), 0);
    r = host->exchange(cmd_frame(0x31), 14);
    EXPECT_EQ(Bytes(r.begin() + 7, r.end()), ext_block(t));

    EXPECT_EQ(status(with_ext(0x36, cat(Bytes{0x34, 0x12}, PW))), 0);
    uint8_t b[2];
    zsim_eeprom_read(sim, 677, b, 2);
    EXPECT_EQ(b[0] | b[1] << 8, 0x1234);

    Bytes ud(32);
    for (size_t i = 0; i < ud.size(); ++i)
        ud[i] = static_cast<uint8_t>(0x40 + i);
    EXPECT_EQ(status(with_ext(0x1C, ud, 2)), 0);
    r = host->exchange(cmd_frame(0x1B), 7 + 17);
    EXPECT_EQ(Bytes(r.begin() + 7, r.end()), ext_block(Bytes(ud.begin(), ud.begin() + 16)));
    r = host->exchange(cmd_frame(0x1B, 0, 2), 7 + 33);
    EXPECT_EQ(Bytes(r.begin() + 7, r.end()), ext_block(ud));

    EXPECT_EQ(status(with_ext(0x43, {0x05, 0x01, 0, 0, 0, 0, 0, 0})), 0);
    r = host->exchange(cmd_frame(0x42), 10);
    ASSERT_EQ(r.size(), 10u);
    EXPECT_EQ(Bytes(r.begin() + 7, r.end()), ext_block({0x05, 0x01}));

    EXPECT_EQ(host->exchange(cmd_frame(0x4B, 0, 2, 1), 7)[0], 0xDE);
    EXPECT_EQ(host->exchange(cmd_frame(0x4C), 7), rsp(0x4C, 0, 2, 1));
    zsim_eeprom_read(sim, 662, b, 2);
    EXPECT_EQ(b[0], 0x50 | 1 << 2 | 2);
    EXPECT_EQ(static_cast<uint8_t>(~b[0]), b[1]);
}

TEST_F(Reader, SpeedChangeAnswersNothing)
{
    EXPECT_TRUE(with_ext(0x70, {0x00, 0xC2, 0x01, 0x00}, 0, 0, 7).empty()); // 115200
    EXPECT_EQ(zsim_baud(sim), 115200u);
    EXPECT_EQ(status(with_ext(0x70, {0x01, 0x02, 0x03, 0x00})), 15);
}

TEST_F(Reader, AsyncSetupAndPushMode)
{
    const zsim_card card = {{0x04, 0xA2, 0x2B, 0x1A, 0x5C, 0x64, 0x80}, 7, 0x00, 0x0044, 0x09};
    // Flags send, prefix, removal; prefix and suffix '!', 1,000,000 bit/s; inner checksum over the record.
    Bytes rec = {'!', '!', 0x40, 0x42, 0x0F, 0x00};
    uint8_t x = 0x07;
    for (uint8_t c : rec)
        x ^= c;
    Bytes bad = rec;
    bad.push_back(static_cast<uint8_t>(x + 8));
    EXPECT_EQ(status(with_ext(0x3D, bad, 0x07)), 2);
    rec.push_back(static_cast<uint8_t>(x + 7));
    EXPECT_EQ(status(with_ext(0x3D, rec, 0x07)), 0);
    // The read-back mirrors it, with the flags first.
    Bytes r = host->exchange(cmd_frame(0x3E), 7 + 9);
    ASSERT_EQ(r.size(), 16u);
    EXPECT_EQ(Bytes(r.begin() + 7, r.end()), ext_block(cat({0x07}, rec)));

    tcflush(host->fd, TCIOFLUSH);
    ASSERT_EQ(zsim_card_add(sim, &card), 0);
    EXPECT_EQ(host->recv(16), text("!04A22B1A5C6480!"));
    ASSERT_EQ(zsim_card_remove(sim, card.uid, 7), 0);
    EXPECT_EQ(host->recv(2), text("!!"));
    // Reverse order, no removal announcement.
    rec = {'[', ']', 0x40, 0x42, 0x0F, 0x00};
    x = 0x0B;
    for (uint8_t c : rec)
        x ^= c;
    rec.push_back(static_cast<uint8_t>(x + 7));
    EXPECT_EQ(status(with_ext(0x3D, rec, 0x0B)), 0);
    ASSERT_EQ(zsim_card_add(sim, &card), 0);
    EXPECT_EQ(host->recv(16), text("[80645C1A2BA204]"));
    zsim_field_clear(sim);
    EXPECT_TRUE(host->recv(1, 60).empty());
}

TEST_F(Reader, BootAfterResetAndSoftRestart)
{
    zsim_set_time_scale(sim, 50); // boot bytes after 10 ms, frames from 40 ms after them
    const uint64_t before = zsim_reset_count(sim);
    zsim_reset(sim);
    host->send(cmd_frame(0x10)); // not heard: the reader is booting
    EXPECT_EQ(host->recv(4, 200), (Bytes{0x03, 0x55, 0x55, 0xBB}));
    EXPECT_TRUE(host->recv(1, 20).empty());
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    EXPECT_EQ(host->exchange(cmd_frame(0x10), 12).size(), 12u);
    // 0x30 answers first, then boots.
    EXPECT_EQ(host->exchange(cmd_frame(0x30), 11, 300), cat(rsp(0x30, 0, 0, 0), {0x03, 0x55, 0x55, 0xBB}));
    EXPECT_EQ(zsim_reset_count(sim), before + 2);
}

// A bare UDP host on loopback.
struct Udp {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to{};
    Udp(uint16_t port)
    {
        to.sin_family = AF_INET;
        to.sin_port = htons(port);
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        timeval tv{0, 300000};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    }
    ~Udp() { close(fd); }
    void send(const Bytes &b) { sendto(fd, b.data(), b.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to); }
    Bytes recv()
    {
        uint8_t buf[2048];
        const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        return n > 0 ? Bytes(buf, buf + n) : Bytes{};
    }
};

TEST(Network, UdpDatagramsTcpStreamAndDiscovery)
{
    zsim *sim = zsim_new();
    uint16_t uport = 0, tport = 0, dport = 0;
    zsim_set_serial_description(sim, "ZN123456");
    ASSERT_EQ(zsim_serve_udp(sim, "127.0.0.1", 0, &uport), 0);
    ASSERT_EQ(zsim_serve_tcp(sim, "127.0.0.1", 0, &tport), 0);
    ASSERT_EQ(zsim_serve_discovery(sim, "127.0.0.1", 0, 0, &dport), 0);
    ASSERT_NE(uport, 0);

    Udp u(uport);
    u.send({0x00}); // the wake byte
    u.send(cmd_frame(0x10));
    EXPECT_EQ(u.recv().size(), 12u);
    // A long reply comes in datagrams of at most 300 bytes.
    zsim_fault f{ZSIM_FAULT_EXTRA_BYTES, 0, 0, 500, -1};
    zsim_fault_push(sim, &f);
    u.send(cmd_frame(0x10));
    const Bytes d1 = u.recv(), d2 = u.recv();
    EXPECT_EQ(d1.size(), 300u);
    EXPECT_EQ(d2.size(), 212u);

    // TCP: nothing is heard before the wake byte.
    const int t = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in ta{};
    ta.sin_family = AF_INET;
    ta.sin_port = htons(tport);
    ta.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(connect(t, reinterpret_cast<sockaddr *>(&ta), sizeof ta), 0);
    timeval tv{0, 200000};
    setsockopt(t, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    Bytes fr = cmd_frame(0x10);
    ASSERT_EQ(send(t, fr.data(), fr.size(), 0), 7);
    uint8_t buf[64];
    EXPECT_LE(recv(t, buf, sizeof buf, 0), 0);
    fr.insert(fr.begin(), 0x00);
    ASSERT_EQ(send(t, fr.data(), fr.size(), 0), 8);
    size_t got = 0;
    while (got < 12) {
        const ssize_t n = recv(t, buf + got, sizeof buf - got, 0);
        if (n <= 0)
            break;
        got += static_cast<size_t>(n);
    }
    EXPECT_EQ(got, 12u);
    close(t);

    // Discovery: only 41 00 is answered, with the first frame link (UDP here) and the serial description.
    Udp d(dport);
    d.send({0x41, 0x01});
    EXPECT_TRUE(d.recv().empty());
    d.send({0x41, 0x00});
    const Bytes rep = d.recv();
    ASSERT_EQ(rep.size(), 28u);
    EXPECT_EQ(Bytes(rep.begin(), rep.begin() + 4), (Bytes{127, 0, 0, 1}));
    EXPECT_EQ(rep[4] | rep[5] << 8, uport);
    EXPECT_EQ(rep[6], 'U');
    EXPECT_EQ(std::string(rep.begin() + 19, rep.begin() + 27), "ZN123456");
    zsim_free(sim);
}

} // namespace
