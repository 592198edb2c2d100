// Reader identity end to end: the exported calls against the simulated reader on a pseudo-terminal, with the
// request bytes read back on the reader's side and the parameter block at the lengths where its form turns.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "card_sim_fixture.h"
#include "frame_helpers.h"
#include "reader/params.h"
#include "tandro.h"
#include "transport/serial.h"
#include "zelsim.h"

namespace {

using zeltest::Bytes;
using zeltest::cmd;
using zeltest::request;

// The default identity of the simulated reader, as it was built to present itself.
const Bytes kSimMui = {0x5A, 0x53, 0x49, 0x4D, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B};

class SimIdentity : public zeltest::CardSimTest {
protected:
    void SetUp() override { serve(300); }
    void load(const char *json)
    {
        char err[200] = {};
        ASSERT_EQ(zsim_load_scenario(sim, json, err, sizeof err), 0) << err;
    }
};

// Runs fn with the handle copied into the global record, so that the plain forms reach the simulator.
template <typename Fn> void on_global(ZEL_HANDLE hnd, Fn fn)
{
    zel_handle_record saved;
    std::memcpy(static_cast<void *>(&saved), &zel_global, sizeof saved);
    Zel_Hnd_SetGlobal(hnd);
    fn();
    std::memcpy(static_cast<void *>(&zel_global), &saved, sizeof saved);
}

struct Params {
    uint8_t mui[ZEL_MUI_MAX_LEN];
    uint64_t serial = 0;
    uint8_t hw_type = 0, hw_ver = 0;
    uint32_t device_type = 0;
    uint8_t major = 0, minor = 0, build = 0xEE;
    Params() { std::memset(mui, 0xEE, sizeof mui); }
    std::string serial_text() const { return std::string(reinterpret_cast<const char *>(&serial), 8); }
    Bytes mui_bytes(size_t n) const { return Bytes(mui, mui + n); }
};

ZEL_STATUS params_m(ZEL_HANDLE h, Params &p)
{
    return GetReaderParametersM(h, p.mui, &p.serial, &p.hw_type, &p.hw_ver, &p.device_type, &p.major, &p.minor,
                                &p.build);
}

TEST_F(SimIdentity, SmallQueriesThroughBothForms)
{
    zsim_set_reader_type(sim, 0xD1180022);
    zsim_set_serial_number(sim, 0x00C0FFEE);
    zsim_set_firmware(sim, 5, 3, 71);
    zsim_set_hardware(sim, 0x0B, 0x04);

    uint32_t type = 0, serial = 0;
    ASSERT_EQ(GetReaderTypeM(hnd, &type), ZEL_OK);
    EXPECT_EQ(type, 0xD1180022u);
    EXPECT_EQ(last_request(), cmd(0x10));
    ASSERT_EQ(GetReaderSerialNumberM(hnd, &serial), ZEL_OK);
    EXPECT_EQ(serial, 0x00C0FFEEu);
    EXPECT_EQ(last_request(), cmd(0x11));

    uint8_t major = 0, minor = 0, build = 0, hw_type = 0, hw_ver = 0;
    ASSERT_EQ(GetReaderFirmwareVersionM(hnd, &major, &minor), ZEL_OK);
    EXPECT_EQ(major, 5);
    EXPECT_EQ(minor, 3);
    EXPECT_EQ(last_request(), cmd(0x29));
    ASSERT_EQ(GetBuildNumberM(hnd, &build), ZEL_OK);
    EXPECT_EQ(build, 71);
    EXPECT_EQ(last_request(), cmd(0x2B));
    ASSERT_EQ(GetReaderHardwareVersionM(hnd, &hw_type, &hw_ver), ZEL_OK);
    EXPECT_EQ(hw_type, 0x0B);
    EXPECT_EQ(hw_ver, 0x04);
    EXPECT_EQ(last_request(), cmd(0x2A, 0, 0x11, 0x22)); // the pair that asks for the version

    // The plain forms reach the same reader through the global record.
    on_global(hnd, [&] {
        uint32_t t = 0, s = 0;
        uint8_t a = 0, b = 0, c = 0;
        EXPECT_EQ(GetReaderType(&t), ZEL_OK);
        EXPECT_EQ(t, 0xD1180022u);
        EXPECT_EQ(GetReaderSerialNumber(&s), ZEL_OK);
        EXPECT_EQ(s, 0x00C0FFEEu);
        EXPECT_EQ(GetReaderFirmwareVersion(&a, &b), ZEL_OK);
        EXPECT_EQ(GetBuildNumber(&c), ZEL_OK);
        EXPECT_EQ((Bytes{a, b, c}), (Bytes{5, 3, 71}));
        EXPECT_EQ(GetReaderHardwareVersion(&a, &b), ZEL_OK);
        EXPECT_EQ((Bytes{a, b}), (Bytes{0x0B, 0x04}));
    });
}

TEST_F(SimIdentity, SerialDescriptionFromTheCommandAndFromTheEeprom)
{
    zsim_set_serial_description(sim, "ZQ123456");
    uint8_t sd[8] = {};
    ASSERT_EQ(GetReaderSerialDescriptionM(hnd, sd), ZEL_OK);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(sd), 8), "ZQ123456");
    EXPECT_EQ(last_request(), cmd(0x40));

    // The EEPROM route reads the same 8 characters at address 0 with the plain EEPROM read.
    hnd->ee_route = 1;
    std::memset(sd, 0, sizeof sd);
    ASSERT_EQ(GetReaderSerialDescriptionM(hnd, sd), ZEL_OK);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(sd), 8), "ZQ123456");
    EXPECT_EQ(last_request(), request(0xE2, 0, 0, {0, 0, 0, 0, 8, 0, 0, 0}));
    hnd->ee_route = 0;

    // Setting is left to the factory: nothing reaches the reader and it keeps its text.
    const uint64_t before = zsim_exchange_count(sim);
    EXPECT_EQ(SetReaderSerialDescriptionM(hnd, "XX000000"), ZEL_OK);
    on_global(hnd, [] { EXPECT_EQ(SetReaderSerialDescription("XX000000"), ZEL_OK); });
    EXPECT_EQ(zsim_exchange_count(sim), before);
    ASSERT_EQ(GetReaderSerialDescriptionM(hnd, sd), ZEL_OK);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(sd), 8), "ZQ123456");
}

TEST_F(SimIdentity, LongParameterBlockOfCurrentFirmware)
{
    zsim_set_reader_type(sim, 0xD1180022);
    zsim_set_serial_description(sim, "ZS000001");
    zsim_set_firmware(sim, 5, 0, 60);
    zsim_set_hardware(sim, 1, 2);
    Params p;
    ASSERT_EQ(params_m(hnd, p), ZEL_OK);
    EXPECT_EQ(last_request(), cmd(0xF0, 0, 1, 0));
    EXPECT_EQ(p.serial_text(), "ZS000001");
    EXPECT_EQ(p.hw_type, 1);
    EXPECT_EQ(p.hw_ver, 2);
    EXPECT_EQ(p.device_type, 0xD1180022u);
    EXPECT_EQ((Bytes{p.major, p.minor, p.build}), (Bytes{5, 0, 60}));
    // A 16-byte identifier (EXT length 34) is taken from EXT[4] on, so its last four bytes are the serial's
    // first four; the 17th to 24th bytes of the caller's buffer stay as they were.
    const Bytes want = {0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B, 'Z', 'S', '0', '0'};
    EXPECT_EQ(p.mui_bytes(16), want);
    EXPECT_EQ(p.mui[16], 0xEE);

    // The fixed layout of the second form has the identifier where the reader put it.
    Params q;
    ASSERT_EQ(GetReaderParameters2M(hnd, q.mui, &q.serial, &q.hw_type, &q.hw_ver, &q.device_type, &q.major, &q.minor,
                                    &q.build),
              ZEL_OK);
    EXPECT_EQ(last_request(), cmd(0xF0, 0, 1, 0));
    EXPECT_EQ(q.mui_bytes(16), kSimMui);
    EXPECT_EQ(q.serial_text(), "ZS000001");
    EXPECT_EQ((Bytes{q.hw_type, q.hw_ver, q.major, q.minor, q.build}), (Bytes{1, 2, 5, 0, 60}));
    EXPECT_EQ(q.device_type, 0xD1180022u);

    // The default-rate form asks 0xF1 and decodes the same block.
    Params r;
    ASSERT_EQ(GetReaderParametersDefaultBaudrateM(hnd, r.mui, &r.serial, &r.hw_type, &r.hw_ver, &r.device_type,
                                                  &r.major, &r.minor, &r.build),
              ZEL_OK);
    EXPECT_EQ(last_request(), cmd(0xF1, 0, 1, 0));
    EXPECT_EQ(r.mui_bytes(16), want);
    EXPECT_EQ(r.build, 60);

    on_global(hnd, [&] {
        Params g;
        EXPECT_EQ(
            GetReaderParameters(g.mui, &g.serial, &g.hw_type, &g.hw_ver, &g.device_type, &g.major, &g.minor, &g.build),
            ZEL_OK);
        EXPECT_EQ(g.mui_bytes(16), want);
        EXPECT_EQ(
            GetReaderParameters2(g.mui, &g.serial, &g.hw_type, &g.hw_ver, &g.device_type, &g.major, &g.minor, &g.build),
            ZEL_OK);
        EXPECT_EQ(g.mui_bytes(16), kSimMui);
        EXPECT_EQ(GetReaderParametersDefaultBaudrate(g.mui, &g.serial, &g.hw_type, &g.hw_ver, &g.device_type, &g.major,
                                                     &g.minor, &g.build),
                  ZEL_OK);
    });
}

TEST_F(SimIdentity, BlockLengths29And30TurnTheBuildOnAndOff)
{
    // A 12-byte identifier in the long block: EXT length 30, the build is there.
    load(R"({"reader": {"mui": "A0A1A2A3A4A5A6A7A8A9AAAB", "firmware": {"major": 4, "minor": 9, "build": 17},
                        "hardware": {"type": 7, "version": 3}, "device_type": "D2150021",
                        "serial_description": "SN-00030"}})");
    Params p;
    ASSERT_EQ(params_m(hnd, p), ZEL_OK);
    const Bytes mui12 = {0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8, 0xA9, 0xAA, 0xAB};
    EXPECT_EQ(p.mui_bytes(12), mui12);
    EXPECT_EQ(p.mui[12], 0xEE);
    EXPECT_EQ((Bytes{p.major, p.minor, p.build}), (Bytes{4, 9, 17}));
    EXPECT_EQ((Bytes{p.hw_type, p.hw_ver}), (Bytes{7, 3}));
    EXPECT_EQ(p.device_type, 0xD2150021u);
    EXPECT_EQ(p.serial_text(), "SN-00030");

    // The same reader on older firmware: EXT length 29, no build byte, and PAR0 1 is refused so the second
    // try asks with PAR0 0.
    load(R"({"reader": {"parameter_block": "short"}})");
    Params q;
    ASSERT_EQ(params_m(hnd, q), ZEL_OK);
    EXPECT_EQ(last_request(), cmd(0xF0, 0, 0, 0));
    EXPECT_EQ(q.mui_bytes(12), mui12);
    EXPECT_EQ((Bytes{q.major, q.minor, q.build}), (Bytes{4, 9, 0}));
    EXPECT_EQ((Bytes{q.hw_type, q.hw_ver}), (Bytes{7, 3}));
    EXPECT_EQ(q.device_type, 0xD2150021u);
    EXPECT_EQ(q.serial_text(), "SN-00030");

    // The fixed-layout form tries once and passes the refusal on; the default-rate form answers PAR0 1.
    Params r;
    EXPECT_EQ(GetReaderParameters2M(hnd, r.mui, &r.serial, &r.hw_type, &r.hw_ver, &r.device_type, &r.major, &r.minor,
                                    &r.build),
              ZEL_COMMAND_NOT_SUPPORTED);
    EXPECT_EQ(last_request(), cmd(0xF0, 0, 1, 0));
    EXPECT_EQ(r.hw_type, 0);

    // A reader without the block: the second try's refusal reaches the caller.
    load(R"({"reader": {"parameter_block": "none"}})");
    Params s;
    EXPECT_EQ(params_m(hnd, s), ZEL_COMMAND_NOT_SUPPORTED);
    EXPECT_EQ(last_request(), cmd(0xF0, 0, 0, 0));
    EXPECT_EQ(s.mui[0], 0xEE);
}

TEST_F(SimIdentity, NetworkModuleIdentifierIsSixBytes)
{
    zsim_set_hardware(sim, 0x2E, 1);
    for (const char *form : {"long", "short"}) {
        const std::string json = std::string(R"({"reader": {"parameter_block": ")") + form + "\"}}";
        load(json.c_str());
        Params p;
        ASSERT_EQ(params_m(hnd, p), ZEL_OK) << form;
        EXPECT_EQ(p.hw_type, 0x2E);
        EXPECT_EQ(p.mui_bytes(6), Bytes(kSimMui.begin(), kSimMui.begin() + 6)) << form;
        EXPECT_EQ(p.mui[6], 0xEE) << form;
    }
}

TEST_F(SimIdentity, ProModeOnTheWireAndThroughTheEeprom)
{
    ASSERT_EQ(SetReaderProModeM(hnd, 0x010D), ZEL_OK);
    Bytes want = cmd(0x43, 9);
    const Bytes ext = {0x0D, 0x01, 0, 0, 0, 0, 0, 0};
    want.insert(want.end(), ext.begin(), ext.end());
    want.push_back(static_cast<uint8_t>((0x0D ^ 0x01) + 7));
    EXPECT_EQ(last_request(), want);
    uint8_t kept[2] = {};
    ASSERT_EQ(zsim_eeprom_read(sim, 660, kept, 2), 2u);
    EXPECT_EQ((Bytes{kept[0], kept[1]}), (Bytes{0x0D, 0x01}));

    uint32_t mode = 0xFFFFFFFF;
    uint16_t raw = 0;
    ASSERT_EQ(GetReaderProModeM(hnd, &mode, &raw), ZEL_OK);
    EXPECT_EQ(last_request(), cmd(0x42));
    EXPECT_EQ(mode, 5u); // the low three bits
    EXPECT_EQ(raw, 0x010D);

    const uint8_t other[2] = {0x02, 0x80};
    ASSERT_EQ(zsim_eeprom_write(sim, 660, other, 2), 0);
    hnd->ee_route = 1;
    ASSERT_EQ(GetReaderProModeM(hnd, &mode, &raw), ZEL_OK);
    EXPECT_EQ(last_request()[1], 0xE2);
    EXPECT_EQ(mode, 2u);
    EXPECT_EQ(raw, 0x8002);
    hnd->ee_route = 0;

    on_global(hnd, [&] {
        EXPECT_EQ(SetReaderProMode(3), ZEL_OK);
        EXPECT_EQ(GetReaderProMode(&mode, &raw), ZEL_OK);
        EXPECT_EQ(mode, 3u);
        EXPECT_EQ(raw, 3);
    });
}

TEST_F(SimIdentity, DescriptionReportOfTheSimulatedReader)
{
    zsim_set_reader_type(sim, 0xD1180022);
    zsim_set_serial_description(sim, "ZS000001");
    zsim_set_hardware(sim, 1, 2);
    zsim_set_firmware(sim, 5, 0, 60);
    const std::string rule(38, '=');
    const std::string want = rule + "\n   Info about ZelReader:\n\n" + rule + "\nSerial number: ZS000001\n" + rule +
                             "\nHW type= 1 | HW ver= 2\nFW version: 5.0.60\n" + rule +
                             "\nReaderType: D1180022 : " + zel::reader_model_name(0xD1180022) + "\n" + rule + "\n";
    EXPECT_EQ(std::string(GetReaderDescriptionM(hnd)), want);
    on_global(hnd, [&] { EXPECT_EQ(std::string(GetReaderDescription()), want); });

    // A shorter serial stops at its terminator.
    zsim_set_serial_description(sim, "ZS7");
    EXPECT_NE(std::string(GetReaderDescriptionM(hnd)).find("Serial number: ZS7\n"), std::string::npos);

    // A serial whose first byte is no letter or digit prints as pairs.
    const uint8_t odd[8] = {0x1F, 'A', 0x00, 0x7F, 0x80, 0xFF, '9', 0x20};
    ASSERT_EQ(zsim_eeprom_write(sim, 0, odd, 8), 0);
    EXPECT_NE(std::string(GetReaderDescriptionM(hnd)).find("Serial number: 1F:41:00:7F:80:FF:39:20:\n"),
              std::string::npos);

    // The reader refusing the build number: "???" and the failure, then the rest.
    const zsim_fault no_build = {ZSIM_FAULT_ERROR_FRAME, ZEL_COMMAND_NOT_SUPPORTED, 0, 0, 0x2B, 1, 0};
    zsim_fault_push(sim, &no_build);
    const std::string text = GetReaderDescriptionM(hnd);
    EXPECT_NE(text.find("FW version: 5.0.???\nGetBuildNumber() failed: "), std::string::npos) << text;
    EXPECT_NE(text.find("ReaderType: D1180022"), std::string::npos) << text;

    // An unknown type is named as such.
    zsim_set_reader_type(sim, 0xAABBCCDD);
    EXPECT_NE(std::string(GetReaderDescriptionM(hnd)).find("ReaderType: AABBCCDD : UNDEFINED TYPE\n"),
              std::string::npos);
}

TEST_F(SimIdentity, EveryModelTheReaderCanPresentHasAName)
{
    ASSERT_GT(zel::reader_model_count(), 0u);
    for (size_t i = 0; i < zel::reader_model_count(); ++i) {
        const uint32_t type = zel::reader_model_code(i);
        zsim_set_reader_type(sim, type);
        const char *name = zel::reader_model_name(type);
        ASSERT_NE(name, nullptr);
        EXPECT_STRNE(name, "");
        // The report and the info text both name it, and the firmware type (the device type's top byte,
        // the reader type by default) has a name too.
        char line[96];
        std::snprintf(line, sizeof line, "ReaderType: %X : %s\n", type, name);
        EXPECT_NE(std::string(GetReaderDescriptionM(hnd)).find(line), std::string::npos) << line;
        const char *info = nullptr;
        ASSERT_EQ(GetReaderInfoStrM(hnd, &info), ZEL_OK);
        EXPECT_EQ(std::string(info).rfind(std::string(name) + " (Firmware Type: ", 0), 0u) << info;
        EXPECT_EQ(std::string(info).find("UNKNOWN"), std::string::npos) << info;
    }
    // The types the simulator presents by default and in the project's scenarios are among them.
    for (uint32_t type : {0xD1180022u, 0x01020304u})
        EXPECT_NE(zel::reader_model_name(type), nullptr) << std::hex << type;
    // A type that is no model's.
    zsim_set_reader_type(sim, 0x00000001);
    const char *info = nullptr;
    ASSERT_EQ(GetReaderInfoStrM(hnd, &info), ZEL_OK);
    EXPECT_EQ(std::string(info).rfind("UNKNOWN (Firmware Type: ", 0), 0u) << info;
}

TEST_F(SimIdentity, InfoTextOfThePlainReader)
{
    zsim_set_reader_type(sim, 0xD1180022);
    zsim_set_firmware(sim, 5, 1, 9);
    zsim_set_hardware(sim, 1, 4);
    const char *info = nullptr;
    ASSERT_EQ(GetReaderInfoStrM(hnd, &info), ZEL_OK);
    const std::string want = std::string(zel::reader_model_name(0xD1180022)) +
                             " (Firmware Type: " + zel::firmware_type_name(0xD1) +
                             ", Firmware Version: 5.1.9, Hardware Version: 1.4)";
    EXPECT_EQ(std::string(info), want);
    EXPECT_EQ(last_request(), cmd(0x10));
    on_global(hnd, [&] {
        const char *g = nullptr;
        EXPECT_EQ(GetReaderInfoStr(&g), ZEL_OK);
        EXPECT_EQ(std::string(g), want);
    });

    // Behind a network module the module is asked first; a plain reader refuses the session switch, and
    // that refusal is the result.
    hnd->esp_session = 1;
    EXPECT_EQ(GetReaderInfoStrM(hnd, &info), ZEL_COMMAND_NOT_SUPPORTED);
    EXPECT_EQ(last_request()[1], 0xF9);
    hnd->esp_session = 0;
}

} // namespace
