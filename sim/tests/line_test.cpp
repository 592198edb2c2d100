// The line model: its option text, and the time a modelled link takes against a link without one.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>

#include "host.h"
#include "line.h"

namespace {

TEST(SimLine, ParsesRateAndTurnaround)
{
    uint32_t rate = 0, us = 0;
    ASSERT_TRUE(zs::line_parse("115200", rate, us));
    EXPECT_EQ(rate, 115200u);
    EXPECT_EQ(us, zs::LINE_DEFAULT_TURNAROUND_US);
    ASSERT_TRUE(zs::line_parse("1000000,0.5", rate, us));
    EXPECT_EQ(rate, 1000000u);
    EXPECT_EQ(us, 500u);
    ASSERT_TRUE(zs::line_parse("250000,0", rate, us));
    EXPECT_EQ(us, 0u);
    for (const char *bad : {"", "0", "fast", "115200,", "115200,x", "115200;2", "-5", "115200,2ms", "1,1234567"})
        EXPECT_FALSE(zs::line_parse(bad, rate, us)) << bad;
}

TEST(SimLine, WireTimeCountsTenBitsOnSerialAndEightOnNetwork)
{
    zsim *sim = zsim_new();
    ASSERT_NE(sim, nullptr);
    EXPECT_EQ(zs::line_wire_us(sim, 100, true), 0u) << "no model: as fast as the machine";
    zsim_set_line(sim, 115200, 2000);
    EXPECT_EQ(zs::line_wire_us(sim, 7, true), 608u); // 70 bits, rounded up
    EXPECT_EQ(zs::line_wire_us(sim, 7, false), 487u);
    zsim_set_line(sim, 1000000, 2000);
    EXPECT_EQ(zs::line_wire_us(sim, 23, true), 230u);
    zsim_free(sim);
}

} // namespace

namespace {

const std::vector<uint8_t> kTypeCommand = {0x55, 0x10, 0xAA, 0x00, 0x00, 0x00, 0xF6};

// A simulated reader on a pseudo-terminal, and a raw host on its other side.
class SimLinePty : public ::testing::Test {
protected:
    void SetUp() override
    {
        sim = zsim_new();
        ASSERT_NE(sim, nullptr);
        char path[256];
        ASSERT_EQ(zsim_serve_pty(sim, path, sizeof path), 0);
        host = std::make_unique<RawHost>(path);
    }
    void TearDown() override { zsim_free(sim); }
    zsim *sim = nullptr;
    std::unique_ptr<RawHost> host;
};

TEST_F(SimLinePty, ModelledLineWaitsTheTurnaroundBeforeAnswering)
{
    RawHost &host = *this->host;
    // A turnaround long enough that no scheduling noise can fake it.
    zsim_set_line(sim, 115200, 40000);
    const uint64_t waited_before = zsim_line_waited_us(sim);
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(host.send(kTypeCommand));
    const std::vector<uint8_t> reply = host.recv(7, 1000);
    const auto took = std::chrono::steady_clock::now() - start;
    ASSERT_EQ(reply.size(), 7u);
    EXPECT_EQ(reply[1], 0x10);
    // 40 ms of turnaround and the wire time of 7 bytes each way (608 us each).
    EXPECT_GE(took, std::chrono::microseconds(40000 + 2 * 608));
    // What the line waited is counted, the floor under the host's time: the command's 7 bytes, the turnaround
    // and the reply (its 7 bytes and what follows them, drained here).
    host.recv(64, 100);
    const uint64_t waited = zsim_line_waited_us(sim) - waited_before;
    EXPECT_GE(waited, 40000u + 608u + 608u);
    EXPECT_LE(waited, 40000u + 608u + 608u + 64u * 87u);
}

TEST_F(SimLinePty, EspFrontAnswersTheAddressQuestionOnly)
{
    RawHost &host = *this->host;
    const std::string q = "!GET_DEVICE_IP_AD!";
    // Not a front: the question is noise to the reader, which still answers frames after it.
    ASSERT_TRUE(host.send(std::vector<uint8_t>(q.begin(), q.end())));
    EXPECT_TRUE(host.recv(1, 100).empty());
    ASSERT_TRUE(host.send(kTypeCommand));
    EXPECT_EQ(host.recv(7).size(), 7u);
    host.recv(64, 50);

    zsim_set_esp_front(sim, "127.0.0.1:40001");
    ASSERT_TRUE(host.send(std::vector<uint8_t>(q.begin(), q.end())));
    const std::string want = "127.0.0.1:40001\r\n";
    const std::vector<uint8_t> got = host.recv(want.size());
    EXPECT_EQ(std::string(got.begin(), got.end()), want);

    zsim_set_esp_front(sim, "");
    ASSERT_TRUE(host.send(std::vector<uint8_t>(q.begin(), q.end())));
    const std::vector<uint8_t> none = host.recv(9);
    EXPECT_EQ(std::string(none.begin(), none.end()), "0.0.0.0\r\n");
}

} // namespace
