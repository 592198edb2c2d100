// Tag emulation and the network module on a scripted link: the emulated record's layouts (one frame, the
// EEPROM block with its CRC, the RAM form's pieces), the mode frames and their EEPROM route, the shared RAM,
// the counter mirror, and the module's frames and raw keywords, with what is refused before any traffic.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "core/internal.h"
#include "core/bytes.h"
#include "emul/emul_internal.h"
#include "script_link.h"
#include "tandro.h"

using namespace zeltest;

namespace {

constexpr uint8_t AD = 0xAD;

Bytes text_bytes(const std::string &s)
{
    return Bytes(s.begin(), s.end());
}

// The two version questions every record write starts with, and their answers.
void answer_version(ScriptLink &link)
{
    link.reply(rsp(0x29, 0, 5, 0));
    link.reply(rsp(0x2B, 0, 60, 0));
}

// An NFC Forum URI record (well-known type "U", prefix code 4 "https://"), laid out by hand.
Bytes uri_record(const std::string &rest)
{
    return cat({{0xD1, 0x01, static_cast<uint8_t>(rest.size() + 1), 'U', 0x04}, text_bytes(rest)});
}

ZEL_STATUS write_uri(ZEL_HANDLE h, const std::string &rest)
{
    const Bytes payload = cat({0x04}, text_bytes(rest));
    const uint8_t type = 'U';
    return WriteEmulationNdefHnd(h, 1, &type, 1, nullptr, 0, payload.data(), static_cast<uint32_t>(payload.size()));
}

class Emul : public ::testing::Test {
protected:
    void SetUp() override
    {
        zel::set_sleep_hook([](uint32_t ms) { slept += ms; });
        slept = 0;
    }
    void TearDown() override { zel::set_sleep_hook(nullptr); }
    static inline uint32_t slept = 0;
};

TEST_F(Emul, OneFrameRecordLayoutAndSizeLimits)
{
    ScriptLink link;
    answer_version(link);
    link.reply(ack(0x4A));
    link.reply(rsp(0x4A));
    ASSERT_EQ(write_uri(&link.record, "tandro.example"), ZEL_OK);
    const Bytes rec = uri_record("tandro.example");
    const Bytes body =
        cat({le16(static_cast<uint32_t>(rec.size() + 3)), {0x03, static_cast<uint8_t>(rec.size())}, rec, {0xFE}});
    ASSERT_EQ(link.writes.size(), 4u);
    EXPECT_EQ(link.writes[0], cmd(0x29));
    EXPECT_EQ(link.writes[1], cmd(0x2B));
    EXPECT_EQ(link.writes[2], cmd(0x4A, static_cast<uint8_t>(rec.size() + 6)));
    EXPECT_EQ(link.writes[3], ext(body));

    // 137 bytes of payload pass, 138 do not, and a record whose EXT would pass 255 bytes is refused: in
    // neither case does a byte go out.
    const Bytes big(138, 'x');
    const uint8_t type[200] = {'T'};
    struct Case {
        uint8_t type_len;
        uint32_t payload_len;
        ZEL_STATUS want;
    };
    for (const Case &c : {Case{1, 138, ZEL_MAX_SIZE_EXCEEDED}, Case{200, 60, ZEL_MAX_SIZE_EXCEEDED}}) {
        ScriptLink refused;
        EXPECT_EQ(WriteEmulationNdefHnd(&refused.record, 1, type, c.type_len, nullptr, 0, big.data(), c.payload_len),
                  c.want);
        EXPECT_TRUE(refused.sent.empty());
    }
    ScriptLink most;
    answer_version(most);
    most.reply(ack(0x4A));
    most.reply(rsp(0x4A));
    EXPECT_EQ(WriteEmulationNdefHnd(&most.record, 1, type, 1, nullptr, 0, big.data(), 137), ZEL_OK);
    ASSERT_EQ(most.writes.size(), 4u);
    EXPECT_EQ(most.writes[2][3], 1 + 1 + 1 + 1 + 137 + 6); // flags, type length, SR length, type, payload
    EXPECT_EQ(most.writes[3][4], 0xD1);                    // MB ME SR, TNF 1
    // TNF 0 is no record to show.
    ScriptLink empty;
    EXPECT_EQ(WriteEmulationNdefHnd(&empty.record, 0, nullptr, 0, nullptr, 0, nullptr, 0), ZEL_PARAMETERS_ERROR);
    EXPECT_TRUE(empty.sent.empty());
}

TEST_F(Emul, RecordWithIdAndApplicationRecord)
{
    const uint8_t type = 'T', id[2] = {'i', '1'};
    const Bytes payload = {0x02, 'e', 'n', 'h', 'i'};
    std::vector<uint8_t> msg;
    ASSERT_EQ(zel::emul::plain_message({1, &type, 1, id, 2, payload.data(), 5}, msg), ZEL_OK);
    // IL set, the id length after the payload length, the id behind the type.
    EXPECT_EQ(msg, cat({{0xD9, 0x01, 0x05, 0x02, 'T', 'i', '1'}, payload}));

    const std::string pkg = "org.tandro.app";
    ASSERT_EQ(zel::emul::aar_message({1, &type, 1, nullptr, 0, payload.data(), 5},
                                     reinterpret_cast<const uint8_t *>(pkg.data()), 14, msg),
              ZEL_OK);
    EXPECT_EQ(msg,
              cat({{0x91, 0x01, 0x05, 'T'}, payload, {0x54, 15, 14}, text_bytes("android.com:pkg"), text_bytes(pkg)}));
    // Payload and package together: 119 bytes at most.
    const Bytes long_pkg(115, 'p');
    EXPECT_EQ(zel::emul::aar_message({1, &type, 1, nullptr, 0, payload.data(), 5}, long_pkg.data(), 115, msg),
              ZEL_MAX_SIZE_EXCEEDED);
    ScriptLink link;
    EXPECT_EQ(
        WriteEmulationNdefWithAARHnd(&link.record, 1, &type, 1, nullptr, 0, payload.data(), 5, long_pkg.data(), 115),
        ZEL_MAX_SIZE_EXCEEDED);
    EXPECT_TRUE(link.sent.empty());
    answer_version(link);
    link.reply(ack(0x4A));
    link.reply(rsp(0x4A));
    ASSERT_EQ(
        WriteEmulationNdefWithAARHnd(&link.record, 1, &type, 1, nullptr, 0, payload.data(), 5, long_pkg.data(), 114),
        ZEL_OK);
    ASSERT_EQ(link.writes.size(), 4u);
    EXPECT_EQ(link.writes[3][3], 4 + 5 + 3 + 15 + 114); // both records under one TLV length
}

TEST_F(Emul, EepromRouteWritesBlockWithCrcAndModeBytes)
{
    ScriptLink link;
    link.record.ee_route = 1;
    answer_version(link);
    link.reply(ack(0xE3));
    link.reply(rsp(0xE3));
    ASSERT_EQ(write_uri(&link.record, "tandro.example"), ZEL_OK);
    ASSERT_EQ(link.writes.size(), 4u);
    const Bytes rec = uri_record("tandro.example");
    Bytes block = cat({{0x03, static_cast<uint8_t>(rec.size())}, rec, {0xFE}});
    block.resize(144, 0);
    block.push_back(CRC8(block.data(), 144));
    EXPECT_EQ(link.writes[2], cmd(0xE3, 8 + 145 + 1));
    EXPECT_EQ(link.writes[3], ext(cat({le32(682), le32(145), block})));
    std::vector<uint8_t> built;
    ASSERT_EQ(zel::emul::eeprom_block(std::vector<uint8_t>(rec.begin(), rec.end()), built), ZEL_OK);
    EXPECT_EQ(built, block);
    // A message that leaves no room for FE and the CRC does not fit.
    EXPECT_EQ(zel::emul::eeprom_block(std::vector<uint8_t>(142, 1), built), ZEL_MAX_SIZE_EXCEEDED);
    EXPECT_EQ(zel::emul::eeprom_block(std::vector<uint8_t>(141, 1), built), ZEL_OK);

    struct Mode {
        ZEL_STATUS (*op)(ZEL_HANDLE);
        uint8_t mode;
    };
    for (const Mode &m : {Mode{TagEmulationStartHnd, 0xEA}, Mode{TagEmulationStartRamHnd, 0xEA},
                          Mode{CombinedModeEmulationStartHnd, 0xCE}, Mode{TagEmulationStopHnd, 0xFF},
                          Mode{TagEmulationStopRamHnd, 0xFF}}) {
        ScriptLink ee;
        ee.record.ee_route = 1;
        ee.reply(ack(0xE3));
        ee.reply(rsp(0xE3));
        EXPECT_EQ(m.op(&ee.record), ZEL_OK);
        ASSERT_EQ(ee.writes.size(), 2u);
        EXPECT_EQ(ee.writes[1], ext(cat({le32(681), le32(1), {m.mode}})));
    }
}

TEST_F(Emul, ModeFramesWithoutTheRoute)
{
    struct Case {
        ZEL_STATUS (*op)(ZEL_HANDLE);
        Bytes frame;
    };
    const Case cases[] = {
        {TagEmulationStartHnd, cmd(0x48)},          {TagEmulationStopHnd, cmd(0x49)},
        {TagEmulationStartRamHnd, cmd(0x48, 0, 1)}, {TagEmulationStopRamHnd, cmd(0x49, 0, 1)},
        {CombinedModeEmulationStartHnd, cmd(0x4F)}, {AdHocEmulationStartHnd, cmd(0x76)},
        {AdHocEmulationStopHnd, cmd(0x77)},         {EnterShareRamCommModeHnd, cmd(0x78, 0, 0xAA, 0xBB)},
        {ExitShareRamCommModeHnd, cmd(0x79)},
    };
    for (const Case &c : cases) {
        ScriptLink link;
        link.reply(rsp(c.frame[1]));
        EXPECT_EQ(c.op(&link.record), ZEL_OK);
        ASSERT_EQ(link.writes.size(), 1u);
        EXPECT_EQ(link.writes[0], c.frame);
        ScriptLink failing;
        failing.reply(err(0x09));
        EXPECT_EQ(c.op(&failing.record), 9u);
    }
    // The ad hoc start ignores the route.
    ScriptLink routed;
    routed.record.ee_route = 1;
    routed.reply(rsp(0x76));
    EXPECT_EQ(AdHocEmulationStartHnd(&routed.record), ZEL_OK);
    EXPECT_EQ(routed.writes[0], cmd(0x76));
}

TEST_F(Emul, AdHocParametersPackAndFieldState)
{
    ScriptLink link;
    link.reply(rsp(0x9E));
    ASSERT_EQ(SetAdHocEmulationParamsHnd(&link.record, 0x0A, 5, 1, 3, 0x0C), ZEL_OK);
    EXPECT_EQ(link.writes[0], cmd(0x9E, 0, 0xA5, 0xBC));
    link.reply(rsp(0x9D, 0, 0xA5, 0xBC));
    uint8_t v[5] = {};
    ASSERT_EQ(GetAdHocEmulationParamsHnd(&link.record, v, v + 1, v + 2, v + 3, v + 4), ZEL_OK);
    EXPECT_EQ(Bytes(v, v + 5), (Bytes{0x0A, 5, 1, 3, 0x0C}));
    // Bits outside each field are dropped, not spilled into the next.
    uint8_t p0 = 0, p1 = 0;
    const uint8_t wide[5] = {0xFF, 0xF8, 0xFE, 0xF8, 0xF0};
    zel::emul::pack_adhoc(wide, p0, p1);
    EXPECT_EQ(p0, 0xF0);
    EXPECT_EQ(p1, 0x00);

    link.reply(rsp(0x9F, 0, 1));
    uint8_t field = 0xEE;
    ASSERT_EQ(GetExternalFieldStateHnd(&link.record, &field), ZEL_OK);
    EXPECT_EQ(field, 1);
    link.reply(rsp(0x9E, 0, 1)); // another command's echo
    field = 0xEE;
    EXPECT_NE(GetExternalFieldStateHnd(&link.record, &field), ZEL_OK);
    EXPECT_EQ(field, 0xEE);
}

TEST_F(Emul, RamFormPiecesFollowThePrompts)
{
    // A record of 237 bytes (3 header bytes, the type, 233 of payload) is one piece with its TLV and FE.
    const uint8_t type = 'x';
    for (uint32_t payload_len : {233u, 234u, 600u}) {
        const Bytes payload(payload_len, 0x5A);
        std::vector<uint8_t> msg, block;
        ASSERT_EQ(zel::emul::ram_message({2, &type, 1, nullptr, 0, payload.data(), payload_len}, msg), ZEL_OK);
        zel::emul::ram_block(msg, block);
        ScriptLink link;
        link.reply(ack(0x4A));
        const size_t pieces = block.size() <= 242 ? 1 : 1 + (block.size() - 242 + 239) / 240;
        for (size_t i = 1; i < pieces; ++i)
            link.reply({AD});
        link.reply(cat({AD}, rsp(0x4A)));
        ASSERT_EQ(WriteEmulationNdefRamHnd(&link.record, 2, &type, 1, nullptr, 0, payload.data(), payload_len), ZEL_OK)
            << payload_len;
        ASSERT_EQ(link.writes.size(), 1 + pieces) << payload_len;
        const size_t first = block.size() < 242 ? block.size() : 242;
        EXPECT_EQ(link.writes[0], cmd(0x4A, static_cast<uint8_t>(first + 1), 1));
        EXPECT_EQ(link.writes[1], ext(Bytes(block.begin(), block.begin() + static_cast<long>(first))));
        Bytes rest;
        for (size_t i = 2; i < link.writes.size(); ++i) {
            ASSERT_EQ(link.writes[i].size(), 1u + link.writes[i][0]);
            EXPECT_LE(link.writes[i][0], 240);
            rest.insert(rest.end(), link.writes[i].begin() + 1, link.writes[i].end());
        }
        EXPECT_EQ(cat(Bytes(block.begin(), block.begin() + static_cast<long>(first)), rest), Bytes(block));
        // The 16-bit length counts the TLV area; the long TLV length is big-endian; SR only below 256.
        EXPECT_EQ(zel::get_le16(block.data()), block.size() - 2);
        if (payload_len == 600) {
            EXPECT_EQ(Bytes(block.begin() + 2, block.begin() + 6),
                      (Bytes{0x03, 0xFF, static_cast<uint8_t>(msg.size() >> 8), static_cast<uint8_t>(msg.size())}));
            EXPECT_EQ(msg[0], 0xC2);
        } else {
            EXPECT_EQ(msg[0], 0xD2);
        }
    }
    // A message of exactly 255 bytes takes the three-byte TLV length: FF alone would open that form.
    std::vector<uint8_t> block;
    zel::emul::ram_block(std::vector<uint8_t>(255, 1), block);
    EXPECT_EQ(Bytes(block.begin() + 2, block.begin() + 6), (Bytes{0x03, 0xFF, 0x00, 0xFF}));
    // 996 bytes of payload at most, refused before any traffic.
    const Bytes too_long(997, 1);
    ScriptLink refused;
    EXPECT_EQ(WriteEmulationNdefRamHnd(&refused.record, 2, &type, 1, nullptr, 0, too_long.data(), 997),
              ZEL_MAX_SIZE_EXCEEDED);
    EXPECT_TRUE(refused.sent.empty());
    // A reader that stops prompting ends the pieces; its reply still decides.
    const Bytes payload(600, 1);
    ScriptLink stops;
    stops.reply(ack(0x4A));
    stops.reply(cat({0x00, 0x00}, err(0x10)));
    EXPECT_EQ(WriteEmulationNdefRamHnd(&stops.record, 2, &type, 1, nullptr, 0, payload.data(), 600), 0x10u);
    EXPECT_EQ(stops.writes.size(), 2u);
}

TEST_F(Emul, SharedRamAndMirror)
{
    ScriptLink link;
    const Bytes data = {1, 2, 3, 4};
    link.reply(ack(0x7B));
    link.reply(rsp(0x7B));
    ASSERT_EQ(WriteShareRamHnd(&link.record, data.data(), 0x10, 4), ZEL_OK);
    EXPECT_EQ(link.writes[0], cmd(0x7B, 5, 0x10, 4));
    EXPECT_EQ(link.writes[1], ext(data));
    ScriptLink refused;
    uint8_t big[255] = {};
    EXPECT_EQ(WriteShareRamHnd(&refused.record, big, 0, 255), ZEL_MAX_SIZE_EXCEEDED);
    EXPECT_TRUE(refused.sent.empty());
    // A wrong echo, an error frame and a bad checksum after the EXT.
    for (const Bytes &bad : {rsp(0x7A), err(0x0F), Bytes{0xDE, 0x7B, 0xED, 0, 0, 0, 0}}) {
        ScriptLink l;
        l.reply(ack(0x7B));
        l.reply(bad);
        const ZEL_STATUS st = WriteShareRamHnd(&l.record, data.data(), 0, 4);
        EXPECT_EQ(st, bad[0] == 0xEC ? 0x0Fu : ZEL_COMMUNICATION_ERROR);
    }

    // The read copies at most what came, never more than asked.
    ScriptLink rd;
    uint8_t out[8];
    std::memset(out, 0xEE, sizeof out);
    rd.reply(response(0x7A, {9, 8, 7}));
    ASSERT_EQ(ReadShareRamHnd(&rd.record, out, 0x20, 6), ZEL_OK);
    EXPECT_EQ(rd.writes.back(), cmd(0x7A, 0, 0x20, 6));
    EXPECT_EQ(Bytes(out, out + 8), (Bytes{9, 8, 7, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}));
    std::memset(out, 0xEE, sizeof out);
    rd.reply(response(0x7A, Bytes(40, 0x11)));
    ASSERT_EQ(ReadShareRamHnd(&rd.record, out, 0, 2), ZEL_OK);
    EXPECT_EQ(Bytes(out, out + 3), (Bytes{0x11, 0x11, 0xEE}));
    rd.reply(cat(rsp(0x7A, 3), {1, 2, 0}));
    EXPECT_EQ(ReadShareRamHnd(&rd.record, out, 0, 2), ZEL_COMMUNICATION_ERROR);

    ScriptLink m;
    for (int i = 0; i < 3; ++i) {
        m.reply(ack(0xE7));
        m.reply(rsp(0xE7));
    }
    EXPECT_EQ(TagEmulationMirrorCounterResetEnabledHnd(&m.record, 0x0123), ZEL_OK);
    EXPECT_EQ(TagEmulationMirrorCounterNonResetEnabledHnd(&m.record, 20), ZEL_OK);
    EXPECT_EQ(TagEmulationMirrorCounterDisabledHnd(&m.record), ZEL_OK);
    ASSERT_EQ(m.writes.size(), 6u);
    EXPECT_EQ(m.writes[0], cmd(0xE7, 9, 1));
    EXPECT_EQ(m.writes[1], ext({0xEA, 0x23, 0x01, 0, 0, 0, 0, 0}));
    EXPECT_EQ(m.writes[3], ext({0xEA, 20, 0, 0xFF, 0xFF, 0xFF, 0, 0}));
    EXPECT_EQ(m.writes[5], ext({0, 0, 0, 0, 0, 0, 0, 0}));
}

// ---- The network module ----

TEST_F(Emul, ModuleFramesAndRefusals)
{
    ScriptLink link;
    const uint8_t pw[8] = {'1', '1', '1', '1', '1', '1', '1', '1'}, npw[8] = {'2', '2', '2', '2', '2', '2', '2', '2'};
    const uint8_t t[6] = {26, 11, 24, 10, 30, 0};
    const Bytes shown = {'H', 'i'};
    link.reply(ack(0xF8));
    link.reply(rsp(0xF8));
    ASSERT_EQ(EspSetDisplayDataHnd(&link.record, shown.data(), 2, 0x0BB8), ZEL_OK);
    EXPECT_EQ(link.writes[0], cmd(0xF8, 3, 0xB8, 0x0B));
    EXPECT_EQ(link.writes[1], ext(shown));
    link.reply(ack(0xFA));
    link.reply(rsp(0xFA));
    ASSERT_EQ(EspChangeReaderPasswordHnd(&link.record, pw, npw), ZEL_OK);
    EXPECT_EQ(link.writes[2], cmd(0xFA, 0x11));
    EXPECT_EQ(link.writes[3], ext(cat(Bytes(pw, pw + 8), Bytes(npw, npw + 8))));
    link.reply(ack(0xF5));
    link.reply(rsp(0xF5));
    ASSERT_EQ(EspSetReaderTimeHnd(&link.record, pw, t), ZEL_OK);
    EXPECT_EQ(link.writes[4], cmd(0xF5, 0x0F));
    EXPECT_EQ(link.writes[5], ext(cat(Bytes(t, t + 6), Bytes(pw, pw + 8))));
    // 1.5 is 0x3FC00000 in IEEE 754 single precision.
    link.reply(ack(0xEA));
    link.reply(rsp(0xEA));
    ASSERT_EQ(WritePaymentAmountHnd(&link.record, 1.5f), ZEL_OK);
    EXPECT_EQ(link.writes[6], cmd(0xEA, 5));
    EXPECT_EQ(link.writes[7], ext({0x00, 0x00, 0xC0, 0x3F}));

    struct Plain {
        ZEL_STATUS (*op)(ZEL_HANDLE);
        Bytes frame;
    };
    for (const Plain &p : {Plain{EspTurnOffHnd, cmd(0xE8, 0, 0xFF)}, Plain{EspDisableWifiHnd, cmd(0xE8, 0, 0xFE, 0)},
                           Plain{EspEnableWifiHnd, cmd(0xE8, 0, 0xFE, 1)}, Plain{EspReaderResetHnd, cmd(0xF9)}}) {
        ScriptLink l;
        l.reply(rsp(p.frame[1]));
        EXPECT_EQ(p.op(&l.record), ZEL_OK);
        EXPECT_EQ(l.writes[0], p.frame);
    }
    ScriptLink io;
    io.reply(rsp(0xF3));
    EXPECT_EQ(EspSetIOStateHnd(&io.record, 2, 1), ZEL_OK);
    EXPECT_EQ(io.writes[0], cmd(0xF3, 0, 2, 1));
    io.reply(response(0xF4, {1, 0, 1, 0, 0, 1}));
    uint8_t state[6] = {};
    ASSERT_EQ(EspGetIOStateHnd(&io.record, state), ZEL_OK);
    EXPECT_EQ(Bytes(state, state + 6), (Bytes{1, 0, 1, 0, 0, 1}));
    io.reply(response(0xE7, {0x01, 0x00, 0x5A, 0x0E}));
    uint32_t serial = 0;
    ASSERT_EQ(EspGetReaderSerialNumberHnd(&io.record, &serial), ZEL_OK);
    EXPECT_EQ(serial, 0x0E5A0001u);
    io.reply(response(0xE9, {3, 1, 12}));
    uint8_t v[3] = {};
    ASSERT_EQ(EspGetFirmwareVersionHnd(&io.record, v, v + 1, v + 2), ZEL_OK);
    EXPECT_EQ(Bytes(v, v + 3), (Bytes{3, 1, 12}));
    io.reply(response(0xE9, {3, 1}));
    EXPECT_EQ(EspGetFirmwareVersionHnd(&io.record, v, v + 1, v + 2), ZEL_COMMUNICATION_ERROR);
    io.reply(response(0xF6, {1, 2, 3}));
    uint8_t when[6];
    EXPECT_EQ(EspGetReaderTimeHnd(&io.record, when), ZEL_COMMUNICATION_ERROR);

    // Refused before any traffic.
    ScriptLink none;
    uint8_t buf[129] = {};
    EXPECT_EQ(EspSetDisplayDataHnd(&none.record, buf, 255, 0), ZEL_MAX_SIZE_EXCEEDED);
    EXPECT_EQ(EspReaderEepromReadHnd(&none.record, buf, 0, 129), ZEL_MAX_SIZE_EXCEEDED);
    EXPECT_EQ(EspReaderEepromWriteHnd(&none.record, buf, 0, 129, pw), ZEL_MAX_SIZE_EXCEEDED);
    EXPECT_EQ(EspSetTransparentReaderSessionHnd(&none.record, 0), ZEL_PARAMETERS_ERROR);
    for (int m = 4; m <= 254; ++m) {
        EXPECT_EQ(EspStartStreamHnd(&none.record, static_cast<uint8_t>(m)), ZEL_PARAMETERS_ERROR);
        EXPECT_EQ(EspStopStreamHnd(&none.record, static_cast<uint8_t>(m), nullptr), ZEL_PARAMETERS_ERROR);
    }
    EXPECT_TRUE(none.sent.empty());
}

TEST_F(Emul, ModuleEepromAndStream)
{
    ScriptLink link;
    const uint8_t pw[8] = {'1', '1', '1', '1', '1', '1', '1', '1'};
    Bytes data(128);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<uint8_t>(i * 3);
    link.reply(ack(0xFB));
    link.reply(rsp(0xFB));
    ASSERT_EQ(EspReaderEepromWriteHnd(&link.record, data.data(), 0x100, 128, pw), ZEL_OK);
    EXPECT_EQ(link.writes[0], cmd(0xFB, 128 + 17));
    EXPECT_EQ(link.writes[1], ext(cat({le32(0x100), {128, 0, 0, 0}, Bytes(pw, pw + 8), data})));
    // The read's EXT carries what the buffer held; the reply must hold exactly size bytes.
    uint8_t buf[4] = {0xA0, 0xA1, 0xA2, 0xA3};
    link.reply(ack(0xF7));
    link.reply(response(0xF7, {5, 6, 7, 8}));
    ASSERT_EQ(EspReaderEepromReadHnd(&link.record, buf, 0x20, 4), ZEL_OK);
    EXPECT_EQ(link.writes[2], cmd(0xF7, 4 + 9));
    EXPECT_EQ(link.writes[3], ext({0x20, 0, 0, 0, 4, 0, 0, 0, 0xA0, 0xA1, 0xA2, 0xA3}));
    EXPECT_EQ(Bytes(buf, buf + 4), (Bytes{5, 6, 7, 8}));
    link.reply(ack(0xF7));
    link.reply(response(0xF7, {1, 2, 3}));
    EXPECT_EQ(EspReaderEepromReadHnd(&link.record, buf, 0, 4), ZEL_COMMUNICATION_ERROR);
    EXPECT_EQ(Bytes(buf, buf + 4), (Bytes{5, 6, 7, 8}));

    ScriptLink s;
    s.reply(rsp(0xF2));
    ASSERT_EQ(EspStartStreamHnd(&s.record, ZEL_ESP_SELF), ZEL_OK);
    EXPECT_EQ(s.writes[0], cmd(0xF2, 0, 0xBB, 1));
    s.reply(rsp(0xF2));
    ASSERT_EQ(EspStartStreamHnd(&s.record, 3), ZEL_OK);
    EXPECT_EQ(s.writes[1], cmd(0xF2, 0, 0xCC, 1));
    const Bytes chunk = {9, 9, 9};
    ASSERT_EQ(EspWriteStreamHnd(&s.record, chunk.data(), 3), ZEL_OK);
    EXPECT_EQ(s.writes[2], chunk);
    EXPECT_EQ(slept, 0u); // only a network link waits after a write
    s.reply(rsp(0xF2, 0, 0x34, 0x12));
    uint16_t result = 0;
    ASSERT_EQ(EspStopStreamHnd(&s.record, 0, &result), ZEL_OK);
    EXPECT_EQ(s.writes[3], cmd(0xF2, 0, 0xCC, 0));
    EXPECT_EQ(result, 0x1234);
    s.preload(frame(0xDE, 0xF2, 0xED, 0, 42, 0));
    uint8_t progress = 0;
    ASSERT_EQ(EspReadProgressHnd(&s.record, &progress), ZEL_OK);
    EXPECT_EQ(progress, 42);
    EXPECT_EQ(s.writes.size(), 4u); // the progress read sends nothing
}

TEST_F(Emul, ModuleBackupAndRestoreKeywords)
{
    const std::string cfg = "wifi.ssid=x\n";
    ScriptLink link;
    link.reply(cat(le16(static_cast<uint32_t>(cfg.size())), text_bytes(cfg)));
    std::vector<uint8_t> out(ZEL_ESP_BACKUP_MAX, 0xEE);
    ASSERT_EQ(EspBackupConfigurationHnd(&link.record, out.data()), ZEL_OK);
    EXPECT_EQ(link.writes[0], cat(text_bytes("!BACKUP_ZEL_NETBOX!"), {0}));
    EXPECT_EQ(std::string(out.begin(), out.begin() + static_cast<long>(cfg.size())), cfg);
    EXPECT_EQ(out[cfg.size()], 0xEE);
    // A length the module announces but does not send: a short read, and nothing past it.
    link.reply(cat(le16(0xFFFF), {1, 2}));
    EXPECT_NE(EspBackupConfigurationHnd(&link.record, out.data()), ZEL_OK);

    const Bytes head = text_bytes("!RESTORE_ZEL_NETBOX!");
    const Bytes begin = cat(text_bytes("!RESTORE_ZEL_NETBOX!BEGIN"), {0});
    const Bytes end = cat(text_bytes("!RESTORE_ZEL_NETBOX!END"), {0});
    EXPECT_EQ(begin.size(), 26u);
    EXPECT_EQ(end.size(), 24u);
    const Bytes done = text_bytes("!RESTORE_DONE!");
    for (size_t size : {size_t{0}, size_t{512}, size_t{513}, size_t{1100}}) {
        std::string text(size, 'c');
        for (size_t i = 0; i < size; ++i)
            text[i] = static_cast<char>('a' + i % 26);
        ScriptLink r;
        const size_t chunks = (size + 511) / 512;
        for (size_t i = 0; i < chunks + 1; ++i)
            r.reply({});
        r.reply(done);
        ASSERT_EQ(EspRestoreConfigurationHnd(&r.record, text.c_str()), ZEL_OK) << size;
        ASSERT_EQ(r.writes.size(), chunks + 2) << size;
        EXPECT_EQ(r.writes.front(), begin);
        EXPECT_EQ(r.writes.back(), end);
        std::string back;
        for (size_t i = 1; i + 1 < r.writes.size(); ++i) {
            ASSERT_EQ(Bytes(r.writes[i].begin(), r.writes[i].begin() + 20), head);
            EXPECT_LE(r.writes[i].size(), 20u + 512u);
            back.append(r.writes[i].begin() + 20, r.writes[i].end());
        }
        EXPECT_EQ(back, text);
    }
    ScriptLink refused;
    refused.reply({});
    refused.reply(text_bytes("?RESTORE_FULL?"));
    EXPECT_EQ(EspRestoreConfigurationHnd(&refused.record, ""), ZEL_COMMUNICATION_ERROR);
}

} // namespace
