// Signals, lights, sleep, RF tuning, the secure element and the feature blocks end to end: each exported
// operation against the simulated reader, with its effect read back through the library or seen on the
// reader's side (its log of changes, its EEPROM, its register sets and secure element slots).
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "card_sim_fixture.h"
#include "core/internal.h"
#include "frame_helpers.h"
#include "tandro.h"
#include "zelsim.h"

namespace {

using zeltest::Bytes;

class SimSignals : public zeltest::CardSimTest {
protected:
    void SetUp() override
    {
        zel::set_sleep_hook([](uint32_t) {});
        serve();
    }
    void TearDown() override
    {
        stop();
        zel::set_sleep_hook(nullptr);
    }
    std::string log()
    {
        std::string out(zsim_signal_log(sim, nullptr, 0) + 1, '\0');
        zsim_signal_log(sim, out.data(), out.size());
        out.pop_back();
        return out;
    }
    Bytes eeprom(uint32_t address, size_t n)
    {
        Bytes b(n);
        zsim_eeprom_read(sim, address, b.data(), n);
        return b;
    }
};

TEST_F(SimSignals, LightsSoundAndDisplayReachTheReader)
{
    ASSERT_EQ(ReaderUISignalM(hnd, 2, 3), ZEL_OK);
    ASSERT_EQ(ReaderSoundM(hnd, 25), ZEL_OK);
    ASSERT_EQ(ZelRedLightControlM(hnd, 1), ZEL_OK);
    ASSERT_EQ(ZelRgbExtLightControlM(hnd, 4), ZEL_OK);
    ASSERT_EQ(ZelRgbLightControlM(hnd, 0xFF, 0x80, 0x00, 50, 1), ZEL_OK);
    ASSERT_EQ(ZelRgbLightControlSleepM(hnd, 1, 2, 3, 40, 7, 1500, 1), ZEL_OK);
    ASSERT_EQ(ZelRgbLightControlRfM(hnd, 4, 5, 6, 30, 0x0102, 2000, 3, 0), ZEL_OK);
    const uint8_t text[5] = {'H', 'E', 'L', 'L', 'O'};
    ASSERT_EQ(SetDisplayDataM(hnd, text, 5, 2), ZEL_OK);
    ASSERT_EQ(SetSpeakerFrequencyM(hnd, 1000), ZEL_OK);
    ASSERT_EQ(PN7462_SetSpeakerFrequencyM(hnd, 19), ZEL_OK);
    ASSERT_EQ(RgbInternalOffM(hnd), ZEL_OK);
    EXPECT_EQ(log(), "signal light 2 sound 3\n"
                     "sound 250\n"
                     "red light 1\n"
                     "external light 4\n"
                     "rgb FF8000 intensity 50 on form 0 time 0\n"
                     "rgb 010203 intensity 40 on form 1 time 1500\n"
                     "rgb 040506 intensity 30 off form 2 time 2000\n"
                     "display 48454C4C4F option 2\n"
                     "speaker divider 1000\n"
                     "speaker divider 65535\n"
                     "internal rgb off\n");

    // Above 2000 the frame goes out alone: the reader is left waiting and the next command still passes.
    EXPECT_EQ(ZelRgbLightControlSleepM(hnd, 1, 2, 3, 4, 5, 2001, 1), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(ZelRedLightControlM(hnd, 0), ZEL_OK);
    // Refused before any traffic.
    const uint64_t before = zsim_exchange_count(sim);
    uint8_t big[255] = {};
    EXPECT_EQ(SetDisplayDataM(hnd, big, 255, 0), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(LoadAnimationM(hnd), ZEL_COMMAND_NOT_SUPPORTED);
    EXPECT_EQ(IsAnimationPlayingM(hnd), ZEL_COMMAND_NOT_SUPPORTED);
    EXPECT_EQ(zsim_exchange_count(sim), before);
}

TEST_F(SimSignals, StoredSettingsAgreeOnBothRoutes)
{
    uint8_t v = 0;
    EXPECT_EQ(GetDisplayIntensityM(hnd, &v), ZEL_OK);
    EXPECT_EQ(v, 100) << "a reader that never kept an intensity reports the factory value";
    ASSERT_EQ(SetDisplayIntensityM(hnd, 70), ZEL_OK);
    EXPECT_EQ(eeprom(829, 2), (Bytes{70, 70 ^ 163}));
    ASSERT_EQ(AutoSleepSetM(hnd, 30), ZEL_OK);
    ASSERT_EQ(GreenLedBlinkingTurnOnM(hnd), ZEL_OK);

    // Through the EEPROM commands the same settings are seen, and written where the reader keeps them.
    hnd->ee_route = 1;
    EXPECT_EQ(GetDisplayIntensityM(hnd, &v), ZEL_OK);
    EXPECT_EQ(v, 70);
    EXPECT_EQ(AutoSleepGetM(hnd, &v), ZEL_OK);
    EXPECT_EQ(v, 30);
    ASSERT_EQ(SetDisplayIntensityM(hnd, 20), ZEL_OK);
    ASSERT_EQ(AutoSleepSetM(hnd, 5), ZEL_OK);
    ASSERT_EQ(GreenLedBlinkingTurnOffM(hnd), ZEL_OK);
    EXPECT_EQ(eeprom(829, 2), (Bytes{20, 20 ^ 163}));
    EXPECT_EQ(eeprom(831, 4), (Bytes{5, 0, 0 ^ 163, 0}));
    const uint8_t broken[2] = {20, 21};
    ASSERT_EQ(zsim_eeprom_write(sim, 829, broken, 2), 0);
    EXPECT_EQ(GetDisplayIntensityM(hnd, &v), ZEL_OK);
    EXPECT_EQ(v, 100);

    hnd->ee_route = 0;
    EXPECT_EQ(AutoSleepGetM(hnd, &v), ZEL_OK);
    EXPECT_EQ(v, 5);
    EXPECT_EQ(GetDisplayIntensityM(hnd, &v), ZEL_OK);
    EXPECT_EQ(v, 100);
}

TEST_F(SimSignals, SleepBadSelectAndDoorController)
{
    ASSERT_EQ(ZelEnterSleepModeM(hnd), ZEL_OK);
    EXPECT_EQ(zsim_sleeping(sim), 1);
    ASSERT_EQ(ZelLeaveSleepModeM(hnd), ZEL_OK);
    EXPECT_EQ(zsim_sleeping(sim), 0);

    uint8_t v = 0;
    ASSERT_EQ(ZelSetBadSelectNrM(hnd, 9), ZEL_OK);
    ASSERT_EQ(ZelGetBadSelectNrM(hnd, &v), ZEL_OK);
    EXPECT_EQ(v, 9);

    uint8_t s0 = 9, s1 = 9, in = 9;
    ASSERT_EQ(ZelVrtGetIoStateM(hnd, &s0, &s1), ZEL_OK);
    EXPECT_EQ(s0, 1);
    EXPECT_EQ(s1, 0);
    ASSERT_EQ(ZelVrtGetInputStateM(hnd, 2, &in), ZEL_OK);
    EXPECT_EQ(in, 1);
    EXPECT_EQ(ZelVrtGetInputStateM(hnd, 9, &in), ZEL_PARAMETERS_ERROR);
    ASSERT_EQ(ZelVrtLockOnM(hnd, 0x0203), ZEL_OK);
    ASSERT_EQ(ZelVrtRelayStateM(hnd, 1), ZEL_OK);
    ASSERT_EQ(ZelOutControlM(hnd, 1, 0, 0, 1, 6), ZEL_OK);

    const uint8_t service[4] = {0xDE, 0xAD, 0xBE, 0xEF};
    uint8_t back[4] = {}, devices[8] = {}, lock = 9;
    uint32_t n = sizeof devices;
    ASSERT_EQ(SetServiceDataM(hnd, service), ZEL_OK);
    ASSERT_EQ(GetServiceDataM(hnd, back), ZEL_OK);
    EXPECT_EQ(Bytes(back, back + 4), Bytes(service, service + 4));
    ASSERT_EQ(GetI2cDevicesM(hnd, devices, &n), ZEL_OK);
    EXPECT_EQ(Bytes(devices, devices + n), (Bytes{0x60}));
    ASSERT_EQ(GetReaderLockStatusM(hnd, &lock), ZEL_OK);
    EXPECT_EQ(lock, 0);
    EXPECT_NE(log().find("sleep\nawake\nbad select 9\nlock on 515\nrelay 1\noutputs 01000001 option 6\n"
                         "service data DEADBEEF\n"),
              std::string::npos)
        << log();
}

TEST_F(SimSignals, RfRegisterSetsRoundTripAndRestore)
{
    uint8_t d[5] = {}, def[5] = {}, v[9] = {};
    ASSERT_EQ(zsim_rf_registers(sim, 1, def), 5u);
    ASSERT_EQ(SetRfAnalogRegistersTypeAM(hnd, 0xA, 5, 1, 6, 0xC), ZEL_OK);
    ASSERT_EQ(GetRfAnalogRegistersTypeAM(hnd, v, v + 1, v + 2, v + 3, v + 4), ZEL_OK);
    EXPECT_EQ(Bytes(v, v + 5), (Bytes{0xA, 5, 1, 6, 0xC}));
    ASSERT_EQ(SetRfAnalogRegistersTypeADefaultM(hnd), ZEL_OK);
    zsim_rf_registers(sim, 1, d);
    EXPECT_EQ(Bytes(d, d + 5), Bytes(def, def + 5));

    // Both transmit forms land on the first set.
    ASSERT_EQ(SetRfAnalogRegistersTypeBTransM(hnd, 3, 2, 0, 4, 9, 0x11, 0x22, 0xA, 0xB), ZEL_OK);
    zsim_rf_registers(sim, 1, d);
    EXPECT_EQ(Bytes(d, d + 5), (Bytes{0x49, 0x32, 0x11, 0x22, 0xAB}));
    ASSERT_EQ(GetRfAnalogRegistersTypeBTransM(hnd, v, v + 1, v + 2, v + 3, v + 4, v + 5, v + 6, v + 7, v + 8), ZEL_OK);
    EXPECT_EQ(Bytes(v, v + 9), (Bytes{3, 2, 0, 4, 9, 0x11, 0x22, 0xA, 0xB}));

    ASSERT_EQ(SetRfAnalogRegistersTypeBM(hnd, 1, 1, 1, 1, 1), ZEL_OK);
    ASSERT_EQ(GetRfAnalogRegistersTypeBM(hnd, v, v + 1, v + 2, v + 3, v + 4), ZEL_OK);
    EXPECT_EQ(Bytes(v, v + 5), (Bytes{1, 1, 1, 1, 1}));

    // The 424 read is the 212 read.
    ASSERT_EQ(SetRfAnalogRegistersISO14443_212M(hnd, 2, 2, 0, 2, 2), ZEL_OK);
    ASSERT_EQ(SetRfAnalogRegistersISO14443_424M(hnd, 7, 7, 1, 7, 7), ZEL_OK);
    ASSERT_EQ(GetRfAnalogRegistersISO14443_424M(hnd, v, v + 1, v + 2, v + 3, v + 4), ZEL_OK);
    EXPECT_EQ(Bytes(v, v + 5), (Bytes{2, 2, 0, 2, 2}));
    ASSERT_EQ(zsim_rf_registers(sim, 4, d), 2u);
    EXPECT_EQ(Bytes(d, d + 2), (Bytes{0xF7, 0x77}));
    ASSERT_EQ(SetRfAnalogRegistersISO14443_424DefaultM(hnd), ZEL_OK);
    ASSERT_EQ(SetRfAnalogRegistersISO14443_212DefaultM(hnd), ZEL_OK);
    ASSERT_EQ(SetRfAnalogRegistersTypeBDefaultM(hnd), ZEL_OK);

    uint8_t pn_def[5];
    zsim_rf_registers(sim, 6, pn_def);
    ASSERT_EQ(SetRfAnalogRegistersPN7462M(hnd, 0xA, 0x5, 0x2, 0x9, 0x3), ZEL_OK);
    ASSERT_EQ(GetRfAnalogRegistersPN7462M(hnd, v, v + 1, v + 2, v + 3, v + 4), ZEL_OK);
    EXPECT_EQ(Bytes(v, v + 5), (Bytes{0xA, 0x5, 0x2, 0x9, 0x3}));
    ASSERT_EQ(SetRfAnalogRegistersPN7462DefaultM(hnd), ZEL_OK);
    zsim_rf_registers(sim, 6, d);
    EXPECT_EQ(Bytes(d, d + 5), Bytes(pn_def, pn_def + 5));
}

TEST_F(SimSignals, SecureElementLifecycle)
{
    uint8_t config[128] = {}, otp[64] = {}, info[4] = {}, cfg = 9, dat = 9;
    ASSERT_EQ(GetATECC608ConfigZoneM(hnd, config), ZEL_OK);
    EXPECT_EQ(config[87], 0x55);
    ASSERT_EQ(GetATECC608ZonesLockStatusM(hnd, &cfg, &dat), ZEL_OK);
    EXPECT_EQ(cfg, 0);
    EXPECT_EQ(dat, 0);
    ASSERT_EQ(GetATECC608InfoRevisionM(hnd, info), ZEL_OK);
    EXPECT_EQ(Bytes(info, info + 4), (Bytes{0x00, 0x00, 0x60, 0x02}));

    // Configuration while the zone is open; OTP bytes before the data lock.
    ASSERT_EQ(SetATECC608DefaultSlotsConfigurationM(hnd), ZEL_OK);
    ASSERT_EQ(SetATECC608DefaultKeysConfigurationM(hnd), ZEL_OK);
    const uint8_t otp_bytes[3] = {0xCA, 0xFE, 0x01};
    ASSERT_EQ(SetATECC608M(hnd, 0x81, 10, otp_bytes, 3), ZEL_OK);
    ASSERT_EQ(GetATECC608ConfigZoneM(hnd, config), ZEL_OK);
    EXPECT_EQ(Bytes(config + 20, config + 22), (Bytes{0x83, 0x20}));
    EXPECT_EQ(Bytes(config + 96, config + 98), (Bytes{0x33, 0x00}));

    uint8_t field[4] = {0, 0, 0, 0}, first[32], second[32] = {};
    for (int i = 0; i < 32; ++i)
        first[i] = static_cast<uint8_t>(i + 1);
    ASSERT_EQ(SetATECC608ECCPrivateKeyUnencryptedM(hnd, 2, 0, field, first, second), ZEL_OK);
    uint8_t slot[36] = {};
    ASSERT_EQ(zsim_se_slot(sim, 2, slot, sizeof slot), 36u);
    EXPECT_EQ(Bytes(slot + 4, slot + 36), Bytes(first, first + 32));
    EXPECT_EQ(zsim_se_slot(sim, 8, nullptr, 0), 416u);
    EXPECT_EQ(zsim_se_slot(sim, 15, nullptr, 0), 72u);

    // Data before config is refused; then both locks, after which keys go only wrapped and OTP is fixed.
    EXPECT_EQ(ATECC608LockDataAndOtpM(hnd), ZEL_PARAMETERS_ERROR);
    ASSERT_EQ(ATECC608LockConfigM(hnd), ZEL_OK);
    EXPECT_EQ(SetATECC608DefaultSlotsConfigurationM(hnd), ZEL_PARAMETERS_ERROR);
    ASSERT_EQ(ATECC608LockDataAndOtpM(hnd), ZEL_OK);
    ASSERT_EQ(GetATECC608ZonesLockStatusM(hnd, &cfg, &dat), ZEL_OK);
    EXPECT_EQ(cfg, 1);
    EXPECT_EQ(dat, 1);
    EXPECT_EQ(SetATECC608ECCPrivateKeyUnencryptedM(hnd, 2, 0, field, first, second), ZEL_PARAMETERS_ERROR);
    ASSERT_EQ(SetATECC608ECCPrivateKeyM(hnd, 2, 0, field, second, first), ZEL_OK);
    ASSERT_EQ(SetATECC608IOSecretKeyM(hnd), ZEL_OK);
    ASSERT_EQ(ATECC608LockKeySlotM(hnd, 2), ZEL_OK);
    EXPECT_EQ(SetATECC608ECCPrivateKeyM(hnd, 2, 0, field, first, second), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(SetATECC608M(hnd, 0x81, 10, otp_bytes, 3), ZEL_PARAMETERS_ERROR);
    ASSERT_EQ(GetATECC608OtpZoneM(hnd, otp), ZEL_OK);
    EXPECT_EQ(Bytes(otp + 10, otp + 13), Bytes(otp_bytes, otp_bytes + 3));
    ASSERT_EQ(GetATECC608ConfigZoneM(hnd, config), ZEL_OK);
    EXPECT_EQ(Bytes(config + 86, config + 90), (Bytes{0x00, 0x00, 0xFB, 0xFF}));
    EXPECT_NE(log().find("se key slot 2 unencrypted\nse config locked\nse data and otp locked\n"
                         "se key slot 2 encrypted\nse io secret key\nse slot 2 locked\n"),
              std::string::npos)
        << log();
}

TEST_F(SimSignals, FeatureBlocksAndMobileData)
{
    uint8_t buf[64] = {};
    uint32_t len = sizeof buf;
    const uint8_t loop[6] = {0x01, 0x04, 0x10, 0x20, 0x00, 0x7F};
    ASSERT_EQ(SetDiscoveryLoopM(hnd, loop, sizeof loop), ZEL_OK);
    ASSERT_EQ(GetDiscoveryLoopSetupM(hnd, buf, &len), ZEL_OK);
    EXPECT_EQ(Bytes(buf, buf + len), Bytes(loop, loop + sizeof loop));
    ASSERT_EQ(SetDiscoveryLoopM(hnd, nullptr, 0), ZEL_OK);
    len = sizeof buf;
    ASSERT_EQ(GetDiscoveryLoopSetupM(hnd, buf, &len), ZEL_OK);
    EXPECT_EQ(len, 0u);
    len = sizeof buf;
    EXPECT_EQ(GetFeaturesSetupM(hnd, 131, buf, &len), ZEL_PARAMETERS_ERROR);

    const uint8_t aid[16] = {0xA0, 0, 0, 0x06, 0x47, 0x2F, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    ASSERT_EQ(SetMobileUniqueIdAidM(hnd, aid, 16), ZEL_OK);
    uint8_t got[16] = {};
    len = sizeof got;
    ASSERT_EQ(GetMobileUniqueIdAidM(hnd, got, &len), ZEL_OK);
    EXPECT_EQ(Bytes(got, got + len), Bytes(aid, aid + 16));
    len = 15;
    EXPECT_EQ(GetMobileUniqueIdAidM(hnd, got, &len), ZEL_BUFFER_OVERFLOW);

    len = sizeof buf;
    EXPECT_EQ(GetMobileAdditionalDataM(hnd, buf, &len), ZEL_NO_CARD);
    const uint8_t phone[40] = {0x50, 0x48, 0x4F, 0x4E, 0x45};
    zsim_set_mobile_data(sim, phone, sizeof phone);
    len = 40;
    ASSERT_EQ(GetMobileAdditionalDataM(hnd, buf, &len), ZEL_OK);
    EXPECT_EQ(Bytes(buf, buf + len), Bytes(phone, phone + 40));
    len = 32;
    EXPECT_EQ(GetMobileAdditionalDataM(hnd, buf, &len), ZEL_BUFFER_OVERFLOW);
    EXPECT_EQ(len, 0u);
}

} // namespace
