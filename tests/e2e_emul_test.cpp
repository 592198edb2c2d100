// Tag emulation and the network module end to end: the operations over a pseudo-terminal against the
// simulated reader, and a simulated phone that reads the emulated tag as a phone does.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "card_sim_fixture.h"
#include "tandro.h"

namespace {

using Bytes = std::vector<uint8_t>;

class EmulSim : public zeltest::CardSimTest {
protected:
    // The NDEF message a phone reads from the reader now; empty when no tag answers.
    Bytes phone()
    {
        uint8_t buf[2048];
        const long n = zsim_phone_read_ndef(sim, buf, sizeof buf);
        return n < 0 ? Bytes{} : Bytes(buf, buf + n);
    }
    zsim_emulation state()
    {
        zsim_emulation e{};
        zsim_emulation_get(sim, &e);
        return e;
    }
};

// A URI record as the NFC Forum lays it out: well-known type "U", prefix code 4 ("https://").
Bytes uri_record(const std::string &rest)
{
    Bytes r = {0xD1, 0x01, static_cast<uint8_t>(rest.size() + 1), 'U', 0x04};
    r.insert(r.end(), rest.begin(), rest.end());
    return r;
}

Bytes uri_payload(const std::string &rest)
{
    Bytes p = {0x04};
    p.insert(p.end(), rest.begin(), rest.end());
    return p;
}

TEST_F(EmulSim, PhoneReadsTheUriOnlyWhileEmulationRuns)
{
    serve();
    const uint8_t type = 'U';
    const Bytes payload = uri_payload("tandro.example/tag");
    ASSERT_EQ(WriteEmulationNdefM(hnd, 1, &type, 1, nullptr, 0, payload.data(), static_cast<uint32_t>(payload.size())),
              ZEL_OK);
    EXPECT_TRUE(phone().empty()); // loaded, not yet shown
    ASSERT_EQ(TagEmulationStartM(hnd), ZEL_OK);
    EXPECT_EQ(state().mode, 0xEA);
    EXPECT_EQ(phone(), uri_record("tandro.example/tag"));
    ASSERT_EQ(TagEmulationStopM(hnd), ZEL_OK);
    EXPECT_TRUE(phone().empty());
    // Combined mode shows it too, and the plain stop ends it.
    ASSERT_EQ(CombinedModeEmulationStartM(hnd), ZEL_OK);
    EXPECT_EQ(state().mode, 0xCE);
    EXPECT_EQ(phone(), uri_record("tandro.example/tag"));
    ASSERT_EQ(TagEmulationStopM(hnd), ZEL_OK);
    EXPECT_EQ(state().mode, 0xFF);
    EXPECT_EQ(state().phone_reads, 2u);
}

TEST_F(EmulSim, RamFormInPiecesAndTheApplicationRecord)
{
    serve();
    const uint8_t type = 'x';
    for (uint32_t len : {233u, 234u, 900u, 996u}) {
        Bytes payload(len);
        for (uint32_t i = 0; i < len; ++i)
            payload[i] = static_cast<uint8_t>(i * 7 + len);
        ASSERT_EQ(WriteEmulationNdefRamM(hnd, 2, &type, 1, nullptr, 0, payload.data(), len), ZEL_OK) << len;
        ASSERT_EQ(TagEmulationStartRamHnd(hnd), ZEL_OK);
        const Bytes got = phone();
        ASSERT_GE(got.size(), len) << len;
        EXPECT_EQ(Bytes(got.end() - len, got.end()), payload) << len;
        EXPECT_EQ(got[0] & 0x10, len < 256 ? 0x10 : 0) << len;
        ASSERT_EQ(TagEmulationStopRamHnd(hnd), ZEL_OK);
    }
    const Bytes pkg = {'o', 'r', 'g', '.', 'z'};
    const Bytes payload = uri_payload("a.example");
    ASSERT_EQ(WriteEmulationNdefWithAARHnd(hnd, 1, reinterpret_cast<const uint8_t *>("U"), 1, nullptr, 0,
                                           payload.data(), static_cast<uint32_t>(payload.size()), pkg.data(), 5),
              ZEL_OK);
    ASSERT_EQ(TagEmulationStartM(hnd), ZEL_OK);
    const Bytes got = phone();
    ASSERT_FALSE(got.empty());
    EXPECT_EQ(got[0], 0x91);
    const std::string text(got.begin(), got.end());
    EXPECT_NE(text.find("android.com:pkgorg.z"), std::string::npos);
}

TEST_F(EmulSim, EepromRouteStoresTheBlockAndTheMode)
{
    serve();
    hnd->ee_route = 1;
    const uint8_t type = 'U';
    const Bytes payload = uri_payload("ee.example");
    ASSERT_EQ(WriteEmulationNdefM(hnd, 1, &type, 1, nullptr, 0, payload.data(), static_cast<uint32_t>(payload.size())),
              ZEL_OK);
    ASSERT_EQ(TagEmulationStartM(hnd), ZEL_OK);
    uint8_t mode = 0;
    ASSERT_EQ(zsim_eeprom_read(sim, 681, &mode, 1), 1u);
    EXPECT_EQ(mode, 0xEA);
    EXPECT_EQ(phone(), uri_record("ee.example"));
    // A block whose CRC no longer holds is not shown.
    uint8_t b = 0;
    zsim_eeprom_read(sim, 682 + 2, &b, 1);
    b ^= 1;
    zsim_eeprom_write(sim, 682 + 2, &b, 1);
    EXPECT_TRUE(phone().empty());
    ASSERT_EQ(TagEmulationStopM(hnd), ZEL_OK);
    zsim_eeprom_read(sim, 681, &mode, 1);
    EXPECT_EQ(mode, 0xFF);
    hnd->ee_route = 0;
}

TEST_F(EmulSim, AdHocFieldSharedRamAndMirror)
{
    serve();
    ASSERT_EQ(AdHocEmulationStartM(hnd), ZEL_OK);
    EXPECT_EQ(state().adhoc, 1);
    ASSERT_EQ(SetAdHocEmulationParamsM(hnd, 0x0F, 7, 1, 2, 9), ZEL_OK);
    uint8_t v[5] = {};
    ASSERT_EQ(GetAdHocEmulationParamsM(hnd, v, v + 1, v + 2, v + 3, v + 4), ZEL_OK);
    EXPECT_EQ(Bytes(v, v + 5), (Bytes{0x0F, 7, 1, 2, 9}));
    ASSERT_EQ(AdHocEmulationStopM(hnd), ZEL_OK);
    EXPECT_EQ(state().adhoc, 0);

    uint8_t field = 9;
    ASSERT_EQ(GetExternalFieldStateM(hnd, &field), ZEL_OK);
    EXPECT_EQ(field, 0);
    zsim_set_external_field(sim, 1);
    ASSERT_EQ(GetExternalFieldStateM(hnd, &field), ZEL_OK);
    EXPECT_EQ(field, 1);

    // Outside the shared RAM mode the reader refuses; inside, host and device see each other's bytes.
    uint8_t buf[64] = {};
    EXPECT_NE(ReadShareRamM(hnd, buf, 0, 4), ZEL_OK);
    ASSERT_EQ(EnterShareRamCommModeM(hnd), ZEL_OK);
    const Bytes data = {0xCA, 0xFE, 0xBA, 0xBE, 0x01};
    ASSERT_EQ(WriteShareRamM(hnd, data.data(), 0x40, 5), ZEL_OK);
    uint8_t seen[5] = {};
    ASSERT_EQ(zsim_share_ram_read(sim, 0x40, seen, 5), 5u);
    EXPECT_EQ(Bytes(seen, seen + 5), data);
    const Bytes from_device = {1, 2, 3};
    zsim_share_ram_write(sim, 0x10, from_device.data(), 3);
    ASSERT_EQ(ReadShareRamM(hnd, buf, 0x10, 3), ZEL_OK);
    EXPECT_EQ(Bytes(buf, buf + 3), from_device);
    EXPECT_EQ(WriteShareRamM(hnd, buf, 0, 255), ZEL_MAX_SIZE_EXCEEDED);
    ASSERT_EQ(ExitShareRamCommModeM(hnd), ZEL_OK);
    EXPECT_EQ(state().share_ram, 0);

    zel_handle_record saved;
    std::memcpy(static_cast<void *>(&saved), &zel_global, sizeof saved);
    std::memcpy(static_cast<void *>(&zel_global), hnd, sizeof saved);
    EXPECT_EQ(TagEmulationMirrorCounterNonResetEnabled(0x0102), ZEL_OK);
    zsim_emulation e = state();
    EXPECT_EQ(e.mirror_enabled, 1);
    EXPECT_EQ(e.mirror_position, 0x0102);
    EXPECT_EQ(e.mirror_counter, 0xFFFFFFu);
    EXPECT_EQ(TagEmulationMirrorCounterResetEnabled(7), ZEL_OK);
    EXPECT_EQ(state().mirror_counter, 0u);
    EXPECT_EQ(TagEmulationMirrorCounterDisabled(), ZEL_OK);
    e = state();
    EXPECT_EQ(e.mirror_enabled, 0);
    EXPECT_EQ(e.mirror_position, 0);
    std::memcpy(static_cast<void *>(&zel_global), &saved, sizeof saved);
}

// ---- The network module ----

class EspSim : public zeltest::CardSimTest {
protected:
    void SetUp() override
    {
        sim = zsim_new();
        zsim_esp_enable(sim, 2);
        serve();
    }
    zsim_esp module()
    {
        zsim_esp m{};
        zsim_esp_get(sim, &m);
        return m;
    }
};

TEST_F(EspSim, IdentityClockIoAndSettings)
{
    uint32_t serial = 0;
    ASSERT_EQ(EspGetReaderSerialNumberM(hnd, &serial), ZEL_OK);
    EXPECT_EQ(serial, 0x0E5A0001u);
    uint8_t v[3] = {};
    ASSERT_EQ(EspGetFirmwareVersionM(hnd, v, v + 1, v + 2), ZEL_OK);
    EXPECT_EQ(Bytes(v, v + 3), (Bytes{3, 1, 12}));
    // Without a session the reader behind answers its own commands.
    uint32_t reader_serial = 0;
    ASSERT_EQ(GetReaderSerialNumberM(hnd, &reader_serial), ZEL_OK);
    EXPECT_EQ(reader_serial, 0x12345678u);

    const uint8_t pw[8] = {'1', '1', '1', '1', '1', '1', '1', '1'}, npw[8] = {'n', 'e', 'w', 'p', 'a', 's', 's', '!'};
    const uint8_t t[6] = {26, 11, 24, 12, 0, 5};
    ASSERT_EQ(EspSetReaderTimeM(hnd, pw, t), ZEL_OK);
    uint8_t back[6] = {};
    ASSERT_EQ(EspGetReaderTimeM(hnd, back), ZEL_OK);
    EXPECT_EQ(Bytes(back, back + 6), Bytes(t, t + 6));
    ASSERT_EQ(EspChangeReaderPasswordM(hnd, pw, npw), ZEL_OK);
    EXPECT_EQ(EspSetReaderTimeM(hnd, pw, t), 120u); // the old password is no longer good
    ASSERT_EQ(EspSetReaderTimeM(hnd, npw, t), ZEL_OK);

    ASSERT_EQ(EspSetIOStateM(hnd, 3, 1), ZEL_OK);
    uint8_t io[6] = {};
    ASSERT_EQ(EspGetIOStateM(hnd, io), ZEL_OK);
    EXPECT_EQ(io[3], 1);
    ASSERT_EQ(EspDisableWifiM(hnd), ZEL_OK);
    EXPECT_EQ(module().wifi, 0);
    ASSERT_EQ(EspEnableWifiM(hnd), ZEL_OK);
    EXPECT_EQ(module().wifi, 1);
    const uint8_t shown[3] = {'O', 'K', '!'};
    ASSERT_EQ(EspSetDisplayDataM(hnd, shown, 3, 2500), ZEL_OK);
    EXPECT_EQ(module().display_value, 2500);
    EXPECT_EQ(module().display_len, 3u);
    ASSERT_EQ(WritePaymentAmountHnd(hnd, 12.5f), ZEL_OK);
    EXPECT_EQ(module().payment_bits, 0x41480000u);

    Bytes data(128);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<uint8_t>(255 - i);
    ASSERT_EQ(EspReaderEepromWriteM(hnd, data.data(), 500, 128, npw), ZEL_OK);
    uint8_t got[128] = {};
    ASSERT_EQ(EspReaderEepromReadM(hnd, got, 500, 128), ZEL_OK);
    EXPECT_EQ(Bytes(got, got + 128), data);
    EXPECT_EQ(EspReaderEepromWriteM(hnd, data.data(), 500, 8, pw), 120u);
    ASSERT_EQ(EspTurnOffM(hnd), ZEL_OK);
    EXPECT_EQ(module().off, 1);
}

TEST_F(EspSim, SessionsRouteToTheUnits)
{
    uint8_t units = 0;
    ASSERT_EQ(EspGetTransparentReadersHnd(hnd, &units), ZEL_OK);
    EXPECT_EQ(units, 2);
    ASSERT_EQ(EspSetTransparentReaderSessionHnd(hnd, 2), ZEL_OK);
    EXPECT_EQ(module().target, 2);
    uint32_t serial = 0;
    // In a session with a unit, 0xE7 is the unit's (which has no such plain command).
    EXPECT_NE(EspGetReaderSerialNumberM(hnd, &serial), ZEL_OK);
    ASSERT_EQ(GetReaderSerialNumberM(hnd, &serial), ZEL_OK);
    EXPECT_EQ(serial, 0x12345678u);
    EXPECT_NE(EspSetTransparentReaderSessionHnd(hnd, 3), ZEL_OK);
    ASSERT_EQ(EspSetTransparentReaderSessionHnd(hnd, ZEL_ESP_SELF), ZEL_OK);
    // In the module's own session, only the module answers.
    EXPECT_NE(GetReaderSerialNumberM(hnd, &serial), ZEL_OK);
    ASSERT_EQ(EspGetReaderSerialNumberM(hnd, &serial), ZEL_OK);
    ASSERT_EQ(EspReaderResetM(hnd), ZEL_OK);
    EXPECT_EQ(module().target, 0);
}

TEST_F(EspSim, StreamProgressBackupAndRestore)
{
    ASSERT_EQ(EspStartStreamHnd(hnd, ZEL_ESP_SELF), ZEL_OK);
    const Bytes chunk(300, 0x42);
    ASSERT_EQ(EspWriteStreamHnd(hnd, chunk.data(), 300), ZEL_OK);
    ASSERT_EQ(EspWriteStreamHnd(hnd, chunk.data(), 100), ZEL_OK);
    for (int i = 0; i < 200 && module().stream_bytes < 400; ++i)
        usleep(1000);
    uint16_t result = 0;
    ASSERT_EQ(EspStopStreamHnd(hnd, ZEL_ESP_SELF, &result), ZEL_OK);
    EXPECT_EQ(result, 400);
    zsim_esp_progress(sim, 64);
    uint8_t progress = 0;
    ASSERT_EQ(EspReadProgressHnd(hnd, &progress), ZEL_OK);
    EXPECT_EQ(progress, 64);

    std::string cfg;
    for (int i = 0; i < 90; ++i)
        cfg += "key" + std::to_string(i) + "=value number " + std::to_string(i * i) + "\n";
    ASSERT_GT(cfg.size(), 1024u);
    ASSERT_EQ(EspRestoreConfigurationHnd(hnd, cfg.c_str()), ZEL_OK);
    std::vector<char> now(cfg.size() + 1);
    EXPECT_EQ(zsim_esp_config(sim, now.data(), now.size()), cfg.size());
    EXPECT_EQ(std::string(now.data()), cfg);
    std::vector<uint8_t> backup(ZEL_ESP_BACKUP_MAX);
    ASSERT_EQ(EspBackupConfigurationHnd(hnd, backup.data()), ZEL_OK);
    EXPECT_EQ(std::string(backup.begin(), backup.begin() + static_cast<long>(cfg.size())), cfg);
    ASSERT_EQ(EspRestoreConfigurationHnd(hnd, ""), ZEL_OK);
    EXPECT_EQ(zsim_esp_config(sim, nullptr, 0), 0u);
    // After the raw keywords the frames go on as before.
    uint8_t v[3];
    EXPECT_EQ(EspGetFirmwareVersionM(hnd, v, v + 1, v + 2), ZEL_OK);
}

} // namespace
