// The network module's own identity and boot loader, and the units behind it with their own, as a host sees
// them on the wire: the identity each session meets, the module's raw 4,096-byte packets, a unit's packets in
// 64-byte reports, the restarts that bring the new versions, and the scenario member that sets it all.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "host.h"
#include "zelsim.h"

using Bytes = std::vector<uint8_t>;

namespace {

constexpr const char *kScenario = R"({"network_module": {
    "units": 2,
    "identity": {"serial_description": "ZE000009", "hardware": {"type": 46, "version": 2},
                 "firmware": {"major": 3, "minor": 1, "build": 12}},
    "boot_loader": {"image_length": 8192, "firmware": {"major": 3, "minor": 3, "build": 0}},
    "unit_modules": [{"identity": {"serial_description": "ZL000101", "hardware": {"type": 50, "version": 2}}},
                     {"identity": {"serial_description": "ZL000102", "hardware": {"type": 51, "version": 2},
                                   "firmware": {"major": 5, "minor": 0, "build": 61}},
                      "boot_loader": {"image_length": 256, "firmware": {"major": 5, "minor": 2, "build": 0}}}]}})";

struct NetworkModule : ::testing::Test {
    zsim *sim = nullptr;
    char path[256] = {};
    std::unique_ptr<RawHost> host;
    void SetUp() override
    {
        sim = zsim_new();
        ASSERT_NE(sim, nullptr);
        zsim_set_time_scale(sim, 0);
        char err[256] = {};
        ASSERT_EQ(zsim_load_scenario(sim, kScenario, err, sizeof err), 0) << err;
        ASSERT_EQ(zsim_serve_pty(sim, path, sizeof path), 0);
        host = std::make_unique<RawHost>(path);
    }
    void TearDown() override
    {
        host.reset();
        zsim_free(sim);
    }
    bool session(uint8_t n, uint8_t p1 = 1) { return host->exchange(cmd_frame(0xF9, 0, n, p1), 7).size() == 7; }
    // The serial description, hardware type and firmware of the parameter block the host meets now.
    std::string identity()
    {
        const Bytes r = host->exchange(cmd_frame(0xF0), 41);
        if (r.size() != 41 || r[0] != 0xDE)
            return "none";
        return std::string(r.begin() + 23, r.begin() + 31) + " " + std::to_string(r[31]) + " " + std::to_string(r[37]) +
               "." + std::to_string(r[38]) + "." + std::to_string(r[39]);
    }
};

TEST_F(NetworkModule, EachSessionMeetsItsOwnIdentity)
{
    ASSERT_TRUE(session(0xFF));
    EXPECT_EQ(identity(), "ZE000009 46 3.1.12");
    EXPECT_EQ(host->exchange(cmd_frame(0xE9), 11)[7], 3); // the module's own version command agrees
    ASSERT_TRUE(session(2));
    EXPECT_EQ(identity(), "ZL000102 51 5.0.61");
    ASSERT_TRUE(session(1));
    EXPECT_EQ(identity(), "ZL000101 50 5.0.60"); // unset parts are the reader model's
    ASSERT_TRUE(session(0, 0));
    EXPECT_EQ(identity(), "ZL000101 50 5.0.60"); // without a session the first unit answers
    // The identity is lent for the one command: the reader's own stays as it was.
    zsim_esp_enable(sim, 0);
    EXPECT_EQ(identity(), "ZS000001 1 5.0.60");
}

TEST_F(NetworkModule, TheModuleTakesItsImageRawAndRestartsWithIt)
{
    ASSERT_TRUE(session(0xFF));
    // The boot entry needs its pair; then the greeting follows the response.
    EXPECT_EQ(host->exchange(cmd_frame(0x06, 0, 0xAA, 0x00), 7)[0], 0xEC);
    Bytes r = host->exchange(cmd_frame(0x06, 0, 0xAA, 0xCC), 11);
    ASSERT_EQ(r.size(), 11u);
    EXPECT_EQ(Bytes(r.begin() + 7, r.end()), (Bytes{0x03, 0x55, 0x55, 0xBB}));
    EXPECT_EQ(zsim_esp_boot_state(sim, 0, nullptr, nullptr), 1);
    EXPECT_EQ(host->exchange(cmd_frame(0xF2), 7), zeltest::rsp(0xF2));
    Bytes image(8192);
    for (size_t i = 0; i < image.size(); ++i)
        image[i] = static_cast<uint8_t>(i * 7 + 1);
    // A packet in pieces is answered once whole, with its number.
    ASSERT_TRUE(host->send(Bytes(image.begin(), image.begin() + 1000)));
    EXPECT_TRUE(host->recv(1, 100).empty());
    ASSERT_TRUE(host->send(Bytes(image.begin() + 1000, image.begin() + 4096)));
    EXPECT_EQ(host->recv(7), zeltest::rsp(0xF2, 0, 0, 0));
    ASSERT_TRUE(host->send(Bytes(image.begin() + 4096, image.end())));
    EXPECT_EQ(host->recv(7), zeltest::rsp(0xF2, 0, 1, 0));
    size_t got = 0;
    uint32_t packets = 0;
    EXPECT_EQ(zsim_esp_boot_state(sim, 0, &got, &packets), 3);
    EXPECT_EQ(got, 8192u);
    EXPECT_EQ(packets, 2u);
    Bytes kept(8192);
    ASSERT_EQ(zsim_esp_boot_image(sim, 0, kept.data(), kept.size()), 8192u);
    EXPECT_EQ(kept, image);
    // The units' restart is not the module's: only the device's restart starts the image.
    ASSERT_TRUE(session(0, 0));
    ASSERT_TRUE(session(0xFF));
    EXPECT_EQ(identity(), "ZE000009 46 3.1.12");
    zsim_reset(sim);
    host->recv(4, 300); // the boot bytes
    ASSERT_TRUE(session(0xFF));
    EXPECT_EQ(identity(), "ZE000009 46 3.3.0");
    EXPECT_EQ(zsim_esp_boot_state(sim, 0, nullptr, nullptr), 0);
}

TEST_F(NetworkModule, AUnitTakesPacketsInReportsAndRestartsWithTheModulesCommand)
{
    ASSERT_TRUE(session(2));
    ASSERT_EQ(host->exchange(cmd_frame(0x06, 0, 0xAA, 0xCC), 11).size(), 11u);
    EXPECT_EQ(zsim_esp_boot_state(sim, 2, nullptr, nullptr), 1);
    EXPECT_EQ(zsim_esp_boot_state(sim, 1, nullptr, nullptr), 0); // the other unit stays as it was
    EXPECT_EQ(host->exchange(cmd_frame(0xF2), 7), zeltest::rsp(0xF2));
    for (uint8_t p = 0; p < 2; ++p) {
        Bytes data(128, static_cast<uint8_t>(0x40 + p));
        const Bytes ext = ext_block(data);
        EXPECT_EQ(host->exchange(cmd_frame(0xF2, 129, p, 0), 7), zeltest::frame(0xAC, 0xF2, 0xCA, 129, p, 0));
        ASSERT_TRUE(host->send(Bytes(ext.begin(), ext.begin() + 64)));
        EXPECT_EQ(host->recv(1), Bytes{1});
        ASSERT_TRUE(host->send(Bytes(ext.begin() + 64, ext.begin() + 128)));
        EXPECT_EQ(host->recv(1), Bytes{2});
        ASSERT_TRUE(host->send(Bytes(ext.begin() + 128, ext.end())));
        EXPECT_EQ(host->recv(1), Bytes{3});
        const Bytes reply = host->recv(p == 1 ? 9 : 7);
        ASSERT_GE(reply.size(), 7u);
        EXPECT_EQ(reply[0], 0xDE);
        EXPECT_EQ(reply[3], p == 1 ? 2 : 0); // the last packet is followed by the verification
    }
    EXPECT_EQ(zsim_esp_boot_state(sim, 2, nullptr, nullptr), 3);
    EXPECT_EQ(identity(), "ZL000102 51 5.0.61");
    ASSERT_TRUE(session(0, 0)); // the module restarts the units
    ASSERT_TRUE(session(2));
    EXPECT_EQ(identity(), "ZL000102 51 5.2.0");
    ASSERT_TRUE(session(0xFF));
    EXPECT_EQ(identity(), "ZE000009 46 3.1.12");
}

TEST(NetworkModuleScenario, RefusesWhatDoesNotFit)
{
    const char *bad[] = {
        R"({"network_module": {"units": 0}})",
        R"({"network_module": {"units": 17}})",
        R"({"network_module": {"units": 1, "unit_modules": [{}, {}]}})",
        R"({"network_module": {"identity": {"serial_description": "TOOLONGTEXT"}}})",
        R"({"network_module": {"identity": {"hardware": {"type": 256}}}})",
        R"({"network_module": {"unit_modules": [{"colour": 1}]}})",
        R"({"network_module": {"boot_loader": {"faults": [{"kind": "melt"}]}}})",
        R"({"network_module": []})",
    };
    for (const char *json : bad) {
        zsim *sim = zsim_new();
        char err[256] = {};
        EXPECT_NE(zsim_load_scenario(sim, json, err, sizeof err), 0) << json;
        EXPECT_NE(err[0], '\0') << json;
        zsim_free(sim);
    }
}

} // namespace
