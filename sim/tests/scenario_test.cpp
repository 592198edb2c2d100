// Scenario files: the JSON reader, what a scenario sets, faults that stay in force, the text commands.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "host.h"
#include "json.h"
#include "zelsim.h"

using Bytes = std::vector<uint8_t>;

namespace {

TEST(Json, ReadsNestedValuesAndEscapes)
{
    zs::Json j;
    std::string err;
    const std::string text = R"({"a": [1, -2.5e1, true, null, {"b": "x\"\u00e9\ud83d\ude00\n"}], "a": 3, "c": {}})";
    ASSERT_TRUE(zs::json_parse(text.data(), text.size(), j, err)) << err;
    ASSERT_EQ(j.kind, zs::Json::OBJECT);
    // A repeated name: the last one counts.
    ASSERT_NE(j.get("a"), nullptr);
    EXPECT_EQ(j.get("a")->num, 3);
    const zs::Json &list = j.fields[0].second;
    ASSERT_EQ(list.items.size(), 5u);
    EXPECT_EQ(list.items[1].num, -25);
    EXPECT_TRUE(list.items[2].b);
    EXPECT_EQ(list.items[3].kind, zs::Json::NUL);
    EXPECT_EQ(list.items[4].get("b")->str, "x\"\xC3\xA9\xF0\x9F\x98\x80\n");
    EXPECT_EQ(j.get("missing"), nullptr);
}

TEST(Json, RefusesBadTextWithItsPlace)
{
    const char *bad[] = {"",      "{",   "[1,]",        "{\"a\" 1}",  "01",    "\"\\x\"",    "\"a\nb\"",
                         "[1] 2", "tru", "\"\\ud800\"", "{\"a\":1,}", "1e999", "[\"\\u12\"]"};
    for (const char *t : bad) {
        zs::Json j;
        std::string err;
        EXPECT_FALSE(zs::json_parse(t, std::strlen(t), j, err)) << t;
        EXPECT_NE(err.find("line"), std::string::npos) << t;
    }
    zs::Json j;
    std::string err;
    const std::string two_lines = "{\n  \"a\": ]}";
    EXPECT_FALSE(zs::json_parse(two_lines.data(), two_lines.size(), j, err));
    EXPECT_EQ(err.rfind("line 2, column 8", 0), 0u) << err;
}

TEST(Json, DepthIsBounded)
{
    std::string ok(zs::JSON_MAX_DEPTH, '['), deep(zs::JSON_MAX_DEPTH + 2, '[');
    ok += std::string(zs::JSON_MAX_DEPTH, ']');
    deep += std::string(zs::JSON_MAX_DEPTH + 2, ']');
    zs::Json j;
    std::string err;
    EXPECT_TRUE(zs::json_parse(ok.data(), ok.size(), j, err)) << err;
    EXPECT_FALSE(zs::json_parse(deep.data(), deep.size(), j, err));
    EXPECT_NE(err.find("deeply"), std::string::npos);
    // A hostile depth far past the bound ends quickly, without exhausting the stack.
    std::string hostile(200000, '[');
    EXPECT_FALSE(zs::json_parse(hostile.data(), hostile.size(), j, err));
}

struct ScenarioReader : ::testing::Test {
    zsim *sim = nullptr;
    char path[256] = {};
    std::unique_ptr<RawHost> host;
    void SetUp() override
    {
        sim = zsim_new();
        ASSERT_NE(sim, nullptr);
    }
    void serve()
    {
        ASSERT_EQ(zsim_serve_pty(sim, path, sizeof path), 0);
        host = std::make_unique<RawHost>(path);
    }
    void TearDown() override
    {
        host.reset();
        zsim_free(sim);
    }
    int load(const std::string &json, std::string *err = nullptr)
    {
        char e[256] = {};
        const int rc = zsim_load_scenario(sim, json.c_str(), e, sizeof e);
        if (err)
            *err = e;
        return rc;
    }
};

TEST_F(ScenarioReader, SetsIdentityCardsAndFaults)
{
    ASSERT_EQ(load(R"({
        "reader": {"type": "01020304", "serial_number": 305419896, "serial_description": "AB123456",
                   "firmware": {"major": 5, "minor": 2, "build": 7}, "hardware": {"type": "2F", "version": 3}},
        "cards": [{"uid": "04A22B1A5C6480", "sak": "00", "atqa": "0044", "type": "ORB_NTAG_215"},
                  {"uid": "11223344"}],
        "faults": [{"kind": "error_frame", "command": "29", "code": "0B", "times": "always", "after": 1}],
        "links": [{"kind": "pty"}]
    })"),
              0);
    serve();
    EXPECT_EQ(host->exchange(cmd_frame(0x10), 12),
              (Bytes{0xDE, 0x10, 0xED, 0x05, 0, 0, 0x2D, 0x04, 0x03, 0x02, 0x01, 0x0B}));
    Bytes r = host->exchange(cmd_frame(0x11), 12);
    ASSERT_EQ(r.size(), 12u);
    EXPECT_EQ(Bytes(r.begin() + 7, r.begin() + 11), (Bytes{0x78, 0x56, 0x34, 0x12}));
    r = host->exchange(cmd_frame(0x40), 16);
    ASSERT_EQ(r.size(), 16u);
    EXPECT_EQ(std::string(r.begin() + 7, r.begin() + 15), "AB123456");
    EXPECT_EQ(host->exchange(cmd_frame(0x2A, 0, 0x11, 0x22), 7)[4], 0x2F);
    // The first card added answers, with the type named in the file.
    r = host->exchange(cmd_frame(0x13), 12);
    ASSERT_EQ(r.size(), 12u);
    EXPECT_EQ(r[4], 0x09);
    EXPECT_EQ(Bytes(r.begin() + 7, r.begin() + 11), (Bytes{0x04, 0xA2, 0x2B, 0x1A}));
    // The rule lets one firmware query pass, then bends every one after it.
    EXPECT_EQ(host->exchange(cmd_frame(0x29), 7), (Bytes{0xDE, 0x29, 0xED, 0x00, 0x05, 0x02, 0x24}));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(host->exchange(cmd_frame(0x29), 7), (Bytes{0xEC, 0x0B, 0xCE, 0x00, 0x00, 0x00, 0x30}));
    EXPECT_EQ(host->exchange(cmd_frame(0x2B), 7)[4], 7); // other commands pass
    zsim_fault_clear(sim);
    EXPECT_EQ(host->exchange(cmd_frame(0x29), 7)[0], 0xDE);
}

TEST_F(ScenarioReader, CountedFaultsWearOut)
{
    serve();
    ASSERT_EQ(load(R"({"faults": [{"kind": "silence", "times": 2}, {"kind": "truncate", "count": 3}]})"), 0);
    EXPECT_TRUE(host->exchange(cmd_frame(0x10), 12, 60).empty());
    EXPECT_TRUE(host->exchange(cmd_frame(0x10), 12, 60).empty());
    EXPECT_EQ(host->exchange(cmd_frame(0x10), 12, 80).size(), 3u);
    EXPECT_EQ(host->exchange(cmd_frame(0x10), 12).size(), 12u);
}

TEST_F(ScenarioReader, BadScenarioChangesNothing)
{
    zsim_set_reader_type(sim, 0xAABBCCDD);
    const char *bad[] = {
        R"({"reader": {"type": "01020304", "tpye": 1}})",
        R"({"reader": {"type": "01020304"}, "cards": [{"uid": "0102"}]})",
        R"({"reader": {"type": "01020304"}, "cards": [{"uid": "01020304", "model": "teapot"}]})",
        R"({"reader": {"type": "01020304"}, "faults": [{"kind": "sometimes"}]})",
        R"({"reader": {"type": "01020304", "baud": 12345}})",
        R"({"reader": {"type": "1FFFFFFFF"}})",
        R"({"reader": {"keys": [{"index": 32, "key": "FFFFFFFFFFFF"}]}})",
        R"({"reader": {"eeprom": [{"address": 1020, "data": "0102030405"}]}})",
        R"({"links": [{"kind": "carrier-pigeon"}]})",
        R"([1, 2])",
    };
    for (const char *t : bad) {
        std::string err;
        EXPECT_EQ(load(t, &err), -1) << t;
        EXPECT_FALSE(err.empty()) << t;
    }
    EXPECT_EQ(zsim_load_scenario(sim, nullptr, nullptr, 0), -1);
    serve();
    Bytes r = host->exchange(cmd_frame(0x10), 12);
    ASSERT_EQ(r.size(), 12u);
    EXPECT_EQ(r[7], 0xDD);
    EXPECT_EQ(host->exchange(cmd_frame(0x13), 7)[0], 0xEC); // no card came in
}

TEST_F(ScenarioReader, StoredStateReachesTheEeprom)
{
    ASSERT_EQ(load(R"({"reader": {"job_id": 4660, "user_data": "00112233", "pro_mode": 5,
                        "eeprom": [{"address": 900, "data": "CAFE"}], "password": "ABCDEFGH",
                        "keys": [{"index": 31, "key": "A0A1A2A3A4A5"}]}})"),
              0);
    uint8_t b[4] = {};
    ASSERT_EQ(zsim_eeprom_read(sim, 677, b, 2), 2u);
    EXPECT_EQ(b[0] | b[1] << 8, 4660);
    ASSERT_EQ(zsim_eeprom_read(sim, 644, b, 4), 4u);
    EXPECT_EQ(Bytes(b, b + 4), (Bytes{0x00, 0x11, 0x22, 0x33}));
    ASSERT_EQ(zsim_eeprom_read(sim, 900, b, 2), 2u);
    EXPECT_EQ(b[0], 0xCA);
    ASSERT_EQ(zsim_eeprom_read(sim, 660, b, 1), 1u);
    EXPECT_EQ(b[0], 5);
    uint8_t key[6], pw[8];
    ASSERT_EQ(zsim_get_key(sim, 31, key), 0);
    EXPECT_EQ(key[5], 0xA5);
    EXPECT_EQ(zsim_get_key(sim, 32, key), -1);
    zsim_get_password(sim, pw);
    EXPECT_EQ(std::string(pw, pw + 8), "ABCDEFGH");
}

TEST_F(ScenarioReader, ScenarioFileAndTextCommands)
{
    char err[256] = {};
    EXPECT_EQ(zsim_load_scenario_file(sim, "/nonexistent/scenario.json", err, sizeof err), -1);
    EXPECT_NE(std::string(err).find("cannot read"), std::string::npos);

    char out[512] = {};
    EXPECT_EQ(zsim_command(sim, "add 04112233445566 00 0044 ORB_NTAG_213", out, sizeof out), 0);
    EXPECT_EQ(zsim_command(sim, "add 0411 00", out, sizeof out), -1);
    EXPECT_EQ(zsim_command(sim, "list", out, sizeof out), 0);
    EXPECT_EQ(std::string(out), "04112233445566 sak 00 atqa 0044 type 08 plain\n");
    EXPECT_EQ(zsim_command(sim, "fault late delay=150 command=10", out, sizeof out), 0);
    EXPECT_EQ(zsim_command(sim, "fault late delay=x", out, sizeof out), -1);
    EXPECT_EQ(zsim_command(sim, "frobnicate", out, sizeof out), -1);
    EXPECT_EQ(zsim_command(sim, "quit", out, sizeof out), 1);
    serve();
    EXPECT_TRUE(host->exchange(cmd_frame(0x10), 12, 60).empty());
    EXPECT_EQ(host->recv(12, 400).size(), 12u);
    EXPECT_EQ(zsim_command(sim, "remove 04112233445566", out, sizeof out), 0);
    EXPECT_EQ(host->exchange(cmd_frame(0x13), 7)[1], 0x08);
}

} // namespace
