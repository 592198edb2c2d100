// Reader identity on a scripted link: every frame pinned, the parameter block at its edges.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "reader/params.h"
#include "script_link.h"
#include "tandro.h"

using namespace zeltest;

namespace {

constexpr uint8_t ACK = 0xAC, ACK_T = 0xCA, RSP = 0xDE, RSP_T = 0xED, ERR = 0xEC, ERR_T = 0xCE;

// A block of n data bytes numbered from 0x40, with the fixed fields written from its end.
Bytes block(uint32_t data_len, bool long_form, uint8_t hw_type)
{
    Bytes d(data_len);
    for (uint32_t i = 0; i < data_len; ++i)
        d[i] = static_cast<uint8_t>(0x40 + i);
    const uint32_t L = data_len + 1; // with the checksum
    const uint32_t s = long_form ? 0 : 1;
    if (long_form)
        d[L - 2] = 0x21; // build
    d[L - 3 + s] = 7;    // minor
    d[L - 4 + s] = 5;    // major
    d[L - 8 + s] = 0x22, d[L - 7 + s] = 0x00, d[L - 6 + s] = 0x18, d[L - 5 + s] = 0xD1;
    d[L - 9 + s] = 3; // HW version
    d[L - 10 + s] = hw_type;
    return ext(d);
}

TEST(ParameterBlock, ShortAndLongFormsMeetAt29And30)
{
    zel::ReaderParams p{};
    const Bytes b29 = block(28, false, 1);
    ASSERT_EQ(zel::decode_parameter_block(b29.data(), 29, &p), ZEL_OK);
    EXPECT_EQ(p.fw_build, 0);
    EXPECT_EQ(p.fw_major, 5);
    EXPECT_EQ(p.fw_minor, 7);
    EXPECT_EQ(p.device_type, 0xD1180022u);
    EXPECT_EQ(p.hw_ver, 3);
    EXPECT_EQ(p.mui_len, 12); // 29 - 17, from the start
    EXPECT_EQ(p.mui[0], 0x40);
    EXPECT_EQ(p.serial[0], b29[29 - 17]);

    const Bytes b30 = block(29, true, 1);
    ASSERT_EQ(zel::decode_parameter_block(b30.data(), 30, &p), ZEL_OK);
    EXPECT_EQ(p.fw_build, 0x21);
    EXPECT_EQ(p.fw_major, 5);
    EXPECT_EQ(p.mui_len, 12);
    EXPECT_EQ(p.mui[0], 0x40);
    EXPECT_EQ(std::memcmp(p.serial, b30.data() + 12, 8), 0);

    // Past 12 bytes the identifier starts behind a 4-byte head.
    const Bytes b34 = block(33, true, 1);
    ASSERT_EQ(zel::decode_parameter_block(b34.data(), 34, &p), ZEL_OK);
    EXPECT_EQ(p.mui_len, 16);
    EXPECT_EQ(p.mui[0], 0x44);
    EXPECT_EQ(p.mui[15], b34[19]);
}

TEST(ParameterBlock, EspModuleTakesSixIdentifierBytes)
{
    zel::ReaderParams p{};
    for (uint32_t data_len : {28u, 33u, 40u}) {
        const Bytes b = block(data_len, data_len + 1 >= 30, 0x2E);
        ASSERT_EQ(zel::decode_parameter_block(b.data(), data_len + 1, &p), ZEL_OK) << data_len;
        EXPECT_EQ(p.mui_len, 6);
        EXPECT_EQ(std::memcmp(p.mui, b.data(), 6), 0);
    }
}

TEST(ParameterBlock, BlocksThatCannotBeOneAreRefused)
{
    zel::ReaderParams p{};
    p.hw_type = 0x99;
    Bytes b = block(40, true, 1);
    EXPECT_EQ(zel::decode_parameter_block(b.data(), 17, &p), ZEL_COMMUNICATION_ERROR);
    EXPECT_EQ(zel::decode_parameter_block(b.data(), 18, &p), ZEL_OK); // the smallest block
    const Bytes big = block(42, true, 1);                             // identifier of 25 bytes
    EXPECT_EQ(zel::decode_parameter_block(big.data(), 43, &p), ZEL_COMMUNICATION_ERROR);
    EXPECT_EQ(zel::decode_parameter_block2(b.data(), 33, &p), ZEL_COMMUNICATION_ERROR);
}

TEST(ReaderIdentity, ParametersRetryWithPar0ZeroForOlderFirmware)
{
    ScriptLink link;
    const Bytes b = block(28, false, 1);
    link.reply(frame(ERR, ZEL_COMMAND_NOT_SUPPORTED, ERR_T));
    link.reply(cat(frame(RSP, 0xF0, RSP_T, 29), b));
    uint8_t mui[24] = {};
    uint64_t serial = 0;
    uint8_t hw_type = 0, hw_ver = 0, major = 0, minor = 0, build = 0xFF;
    uint32_t type = 0;
    ASSERT_EQ(GetReaderParametersM(&link.record, mui, &serial, &hw_type, &hw_ver, &type, &major, &minor, &build),
              ZEL_OK);
    ASSERT_EQ(link.writes.size(), 2u);
    EXPECT_EQ(link.writes[0], cmd(0xF0, 0, 1, 0));
    EXPECT_EQ(link.writes[1], cmd(0xF0, 0, 0, 0));
    EXPECT_EQ(build, 0);
    EXPECT_EQ(type, 0xD1180022u);
    EXPECT_EQ(std::memcmp(&serial, b.data() + 12, 8), 0);
    EXPECT_EQ(mui[11], b[11]);
    EXPECT_EQ(mui[12], 0); // nothing past the identifier
}

TEST(ReaderIdentity, ParameterFailuresReachTheCaller)
{
    {
        ScriptLink link;
        link.reply(frame(ERR, ZEL_COMMAND_NOT_SUPPORTED, ERR_T));
        link.reply(frame(ERR, ZEL_COMMAND_NOT_SUPPORTED, ERR_T));
        EXPECT_EQ(GetReaderParametersHnd(&link.record, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                         nullptr),
                  ZEL_COMMAND_NOT_SUPPORTED);
    }
    {
        // An acknowledge is no answer to a read, and a bad EXT checksum is caught.
        ScriptLink link;
        link.reply(cat(frame(ACK, 0xF0, ACK_T, 30), block(29, true, 1)));
        uint8_t hw = 0x77;
        EXPECT_EQ(
            GetReaderParametersHnd(&link.record, nullptr, nullptr, &hw, nullptr, nullptr, nullptr, nullptr, nullptr),
            ZEL_COMMUNICATION_ERROR);
        EXPECT_EQ(hw, 0x77);
        ScriptLink bad;
        Bytes b = block(29, true, 1);
        b.back() ^= 1;
        bad.reply(cat(frame(RSP, 0xF0, RSP_T, 30), b));
        EXPECT_EQ(
            GetReaderParametersHnd(&bad.record, nullptr, nullptr, &hw, nullptr, nullptr, nullptr, nullptr, nullptr),
            ZEL_COMMUNICATION_ERROR);
    }
    {
        // The second form has one try only and a fixed layout.
        ScriptLink link;
        link.reply(frame(ERR, ZEL_COMMAND_NOT_SUPPORTED, ERR_T));
        EXPECT_EQ(GetReaderParameters2Hnd(&link.record, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                          nullptr),
                  ZEL_COMMAND_NOT_SUPPORTED);
        EXPECT_EQ(link.writes.size(), 1u);
    }
}

TEST(ReaderIdentity, SmallQueriesSendTheirFramesAndTakeThePars)
{
    ScriptLink link;
    link.reply(frame(RSP, 0x29, RSP_T, 0, 5, 3));
    link.reply(frame(RSP, 0x2B, RSP_T, 0, 60, 0));
    link.reply(frame(RSP, 0x2A, RSP_T, 0, 1, 2));
    link.reply(cat(frame(RSP, 0x11, RSP_T, 5), ext({0x78, 0x56, 0x34, 0x12})));
    uint8_t a = 0, b = 0, build = 0;
    uint32_t sn = 0;
    ASSERT_EQ(GetReaderFirmwareVersionHnd(&link.record, &a, &b), ZEL_OK);
    EXPECT_EQ(a * 100 + b, 503);
    ASSERT_EQ(GetBuildNumberHnd(&link.record, &build), ZEL_OK);
    EXPECT_EQ(build, 60);
    ASSERT_EQ(GetReaderHardwareVersionHnd(&link.record, &a, &b), ZEL_OK);
    EXPECT_EQ(a * 100 + b, 102);
    ASSERT_EQ(GetReaderSerialNumberHnd(&link.record, &sn), ZEL_OK);
    EXPECT_EQ(sn, 0x12345678u);
    ASSERT_EQ(link.writes.size(), 4u);
    EXPECT_EQ(link.writes[0], cmd(0x29));
    EXPECT_EQ(link.writes[1], cmd(0x2B));
    EXPECT_EQ(link.writes[2], cmd(0x2A, 0, 0x11, 0x22));
    EXPECT_EQ(link.writes[3], cmd(0x11));
}

TEST(ReaderIdentity, ProModeThroughTheCommandAndTheEepromRoute)
{
    ScriptLink link;
    link.reply(cat(frame(RSP, 0x42, RSP_T, 3), ext({0xFD, 0x12})));
    uint32_t mode = 0xFFFFFFFF;
    uint16_t raw = 0;
    ASSERT_EQ(GetReaderProModeHnd(&link.record, &mode, &raw), ZEL_OK);
    EXPECT_EQ(mode, 5u);
    EXPECT_EQ(raw, 0x12FD);

    ScriptLink routed;
    routed.record.ee_route = 1;
    routed.reply(frame(ACK, 0xE2, ACK_T, 9));
    routed.reply(cat(frame(RSP, 0xE2, RSP_T, 3), ext({0x02, 0x00})));
    ASSERT_EQ(GetReaderProModeHnd(&routed.record, &mode, &raw), ZEL_OK);
    EXPECT_EQ(mode, 2u);
    ASSERT_EQ(routed.writes.size(), 2u);
    EXPECT_EQ(routed.writes[0], cmd(0xE2, 9));
    EXPECT_EQ(routed.writes[1], ext({0x94, 0x02, 0, 0, 2, 0, 0, 0})); // address 660, 2 bytes

    ScriptLink set;
    set.reply(frame(ACK, 0x43, ACK_T, 9));
    set.reply(frame(RSP, 0x43, RSP_T));
    ASSERT_EQ(SetReaderProModeHnd(&set.record, 0x0102), ZEL_OK);
    EXPECT_EQ(set.writes[0], cmd(0x43, 9));
    EXPECT_EQ(set.writes[1], ext({0x02, 0x01, 0, 0, 0, 0, 0, 0}));
}

// The answers GetReaderDescription asks for, in its order.
void script_description(ScriptLink &link, const Bytes &serial)
{
    link.reply(cat(frame(RSP, 0x40, RSP_T, 9), ext(serial)));
    link.reply(frame(RSP, 0x2A, RSP_T, 0, 1, 2));
    link.reply(frame(RSP, 0x29, RSP_T, 0, 5, 0));
    link.reply(frame(RSP, 0x2B, RSP_T, 0, 60, 0));
    link.reply(cat(frame(RSP, 0x10, RSP_T, 5), ext({0x22, 0x00, 0x18, 0xD1})));
}

TEST(ReaderIdentity, DescriptionReport)
{
    const std::string rule = "======================================\n";
    {
        ScriptLink link;
        script_description(link, {'Z', 'S', '0', '0', '0', '0', '0', '1'});
        const std::string text = GetReaderDescriptionHnd(&link.record);
        EXPECT_EQ(text, rule + "   Info about ZelReader:\n\n" + rule + "Serial number: ZS000001\n" + rule +
                            "HW type= 1 | HW ver= 2\nFW version: 5.0.60\n" + rule +
                            "ReaderType: D1180022 : " + zel::reader_model_name(0xD1180022) + "\n" + rule);
    }
    {
        ScriptLink link;
        script_description(link, {0x01, 0xAB, 0, 0, 0, 0, 0, 0xFF});
        const std::string text = GetReaderDescriptionHnd(&link.record);
        EXPECT_NE(text.find("Serial number: 01:AB:00:00:00:00:00:FF:\n"), std::string::npos) << text;
    }
    {
        // A failing build number shows as ??? with its own line; a failing type ends the text.
        ScriptLink link;
        link.reply(cat(frame(RSP, 0x40, RSP_T, 9), ext({'A', 'B', '1', '2', '3', '4', '5', '6'})));
        link.reply(frame(RSP, 0x2A, RSP_T, 0, 1, 2));
        link.reply(frame(RSP, 0x29, RSP_T, 0, 5, 0));
        link.reply(frame(ERR, ZEL_COMMAND_NOT_SUPPORTED, ERR_T));
        link.reply(frame(ERR, ZEL_COMMAND_NOT_SUPPORTED, ERR_T));
        const std::string text = GetReaderDescriptionHnd(&link.record);
        EXPECT_NE(text.find("FW version: 5.0.???\nGetBuildNumber() failed: "), std::string::npos) << text;
        EXPECT_EQ(text.find("ReaderType"), std::string::npos);
        EXPECT_EQ(text.substr(text.size() - rule.size()), rule);
    }
}

TEST(ReaderIdentity, InfoTextNamesModelAndFirmware)
{
    ScriptLink link;
    Bytes d(33, 0);
    d[24] = 1, d[25] = 2, d[26] = 0x22, d[27] = 0x00, d[28] = 0x18, d[29] = 0xD1, d[30] = 5, d[31] = 0, d[32] = 60;
    link.reply(cat(frame(RSP, 0xF0, RSP_T, 34), ext(d)));
    link.reply(cat(frame(RSP, 0x10, RSP_T, 5), ext({0x22, 0x00, 0x18, 0xD1})));
    const char *text = nullptr;
    ASSERT_EQ(GetReaderInfoStrHnd(&link.record, &text), ZEL_OK);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::string(text), std::string(zel::reader_model_name(0xD1180022)) +
                                     " (Firmware Type: " + zel::firmware_type_name(0xD1) +
                                     ", Firmware Version: 5.0.60, Hardware Version: 1.2)");
    EXPECT_EQ(link.writes[0], cmd(0xF0, 0, 1, 0));
    EXPECT_EQ(GetReaderInfoStrHnd(&link.record, nullptr), ZEL_PARAMETERS_ERROR);
}

// The fixed-layout block of a reader or module: HW type and version, device type, firmware.
Bytes block2(uint8_t hw_type, uint8_t hw_ver, uint32_t device_type, uint8_t major, uint8_t minor, uint8_t build)
{
    Bytes d(33, 0);
    d[24] = hw_type, d[25] = hw_ver;
    for (int i = 0; i < 4; ++i)
        d[26 + i] = static_cast<uint8_t>(device_type >> (8 * i));
    d[30] = major, d[31] = minor, d[32] = build;
    return cat(frame(RSP, 0xF0, RSP_T, 34), ext(d));
}

TEST(ReaderIdentity, InfoTextBehindANetworkModule)
{
    struct Case {
        uint8_t module_hw_type, module_hw_ver;
        std::string name;
    } cases[] = {
        {42, 1, "ZelNet WiFi"}, {42, 2, "ZelNet Ethernet"}, {42, 7, "ZelNet"}, {46, 2, zel::esp_firmware_type_name(2)},
        {46, 99, "UNKNOWN"},
    };
    for (const Case &c : cases) {
        ScriptLink link;
        link.record.esp_session = 1;
        link.reply(frame(RSP, 0xF9, RSP_T)); // the module itself
        link.reply(block2(c.module_hw_type, c.module_hw_ver, 0xD1000000, 2, 1, 3));
        link.reply(frame(RSP, 0xF9, RSP_T)); // the reader behind it
        link.reply(block2(1, 2, 0xD1180022, 5, 0, 60));
        link.reply(cat(frame(RSP, 0x10, RSP_T, 5), ext({0x22, 0x00, 0x18, 0xD1})));
        link.reply(frame(RSP, 0xF9, RSP_T)); // back to the module
        const char *text = nullptr;
        ASSERT_EQ(GetReaderInfoStrHnd(&link.record, &text), ZEL_OK) << c.name;
        const std::string fw = zel::firmware_type_name(0xD1);
        EXPECT_EQ(std::string(text),
                  c.name + " (ESP Firmware Type: " + fw + ", ESP Firmware Version: 2.1.3, " +
                      "ESP Hardware Version: " + std::to_string(c.module_hw_type) + "." +
                      std::to_string(c.module_hw_ver) + ") (NFC Model: " + zel::reader_model_name(0xD1180022) +
                      ", NFC Firmware Type: " + fw + ", NFC Firmware Version: 5.0.60, NFC Hardware Version: 1.2)");
        ASSERT_EQ(link.writes.size(), 6u);
        EXPECT_EQ(link.writes[0], cmd(0xF9, 0, 0xFF, 1));
        EXPECT_EQ(link.writes[2], cmd(0xF9, 0, 1, 1));
        EXPECT_EQ(link.writes[5], cmd(0xF9, 0, 0xFF, 1));
    }
    // A module that refuses the session switch ends the report with its status; so does a failing block.
    ScriptLink refused;
    refused.record.esp_session = 1;
    refused.reply(frame(ERR, ZEL_COMMAND_NOT_SUPPORTED, ERR_T));
    const char *text = nullptr;
    EXPECT_EQ(GetReaderInfoStrHnd(&refused.record, &text), ZEL_COMMAND_NOT_SUPPORTED);
    EXPECT_EQ(text, nullptr);
    ScriptLink short_block;
    short_block.record.esp_session = 1;
    short_block.reply(frame(RSP, 0xF9, RSP_T));
    short_block.reply(cat(frame(RSP, 0xF0, RSP_T, 30), ext(Bytes(29, 0))));
    EXPECT_EQ(GetReaderInfoStrHnd(&short_block.record, &text), ZEL_COMMUNICATION_ERROR);
}

TEST(ReaderIdentity, SerialDescriptionBothWays)
{
    ScriptLink link;
    link.reply(cat(frame(RSP, 0x40, RSP_T, 9), ext({'Z', 'S', '0', '0', '0', '0', '0', '7'})));
    uint8_t sd[9] = {};
    ASSERT_EQ(GetReaderSerialDescriptionHnd(&link.record, sd), ZEL_OK);
    EXPECT_STREQ(reinterpret_cast<char *>(sd), "ZS000007");
    // A reply too short for 8 characters is refused.
    ScriptLink short_reply;
    short_reply.reply(cat(frame(RSP, 0x40, RSP_T, 5), ext({'Z', 'S', '0', '0'})));
    EXPECT_EQ(GetReaderSerialDescriptionHnd(&short_reply.record, sd), ZEL_COMMUNICATION_ERROR);
    EXPECT_EQ(SetReaderSerialDescriptionHnd(&link.record, "XY123456"), ZEL_OK);
    EXPECT_EQ(link.writes.size(), 1u); // setting sends nothing
}

} // namespace
