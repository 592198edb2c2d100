// Signals, lights, sleep and the RF analog registers on a scripted link: the frames byte for byte, the
// replies read by hand, the EEPROM route, and what is refused before any frame.
#include <gtest/gtest.h>

#include "core/internal.h"
#include "script_link.h"
#include "signals/signals_internal.h"
#include "tandro.h"

using namespace zeltest;

namespace {

constexpr uint8_t ACK = 0xAC, ACK_T = 0xCA, RSP = 0xDE, RSP_T = 0xED;

Bytes interim(uint8_t code)
{
    return frame(0xA1, code, 0x85);
}

// The EE_ command frames of the route: a write of data at address, a read of n bytes at address.
Bytes ee_write_ext(uint32_t address, const Bytes &data)
{
    return ext(cat({le32(address), le32(static_cast<uint32_t>(data.size())), data}));
}

class Signals : public ::testing::Test {
protected:
    void SetUp() override
    {
        zel::set_sleep_hook([](uint32_t ms) { slept += ms; });
        slept = 0;
    }
    void TearDown() override { zel::set_sleep_hook(nullptr); }
    static inline uint32_t slept = 0;
};

TEST_F(Signals, SpeakerDividerAndItsRange)
{
    struct Case {
        bool pn7462;
        uint16_t hz;
        uint8_t lo, hi;
    };
    const Case cases[] = {
        {false, 1000, 0xE8, 0x03}, {false, 19, 0xFF, 0xFF},  {false, 20001, 0xFF, 0xFF}, {false, 20, 0x50, 0xC3},
        {false, 20000, 50, 0},     {true, 1000, 0xF4, 0x01}, {true, 0, 0xFF, 0xFF},      {true, 20, 0xA8, 0x61},
    };
    for (const Case &c : cases) {
        ScriptLink link;
        link.reply(rsp(0x73));
        const ZEL_STATUS st =
            c.pn7462 ? PN7462_SetSpeakerFrequencyHnd(&link.record, c.hz) : SetSpeakerFrequencyHnd(&link.record, c.hz);
        EXPECT_EQ(st, ZEL_OK);
        ASSERT_EQ(link.writes.size(), 1u);
        EXPECT_EQ(link.writes[0], cmd(0x73, 0, c.lo, c.hi)) << c.hz << (c.pn7462 ? " pn7462" : "");
    }
}

TEST_F(Signals, SoundAndLightFrames)
{
    ScriptLink ui;
    ui.reply(rsp(0x26));
    EXPECT_EQ(ReaderUISignalHnd(&ui.record, 4, 2), ZEL_OK);
    EXPECT_EQ(ui.writes, (std::vector<Bytes>{cmd(0x26, 0, 4, 2)}));

    // Ten times the argument, little-endian, behind PAR1 6.
    ScriptLink sound;
    sound.reply(frame(ACK, 0x26, ACK_T));
    sound.reply(rsp(0x26));
    EXPECT_EQ(ReaderSoundHnd(&sound.record, 30), ZEL_OK);
    EXPECT_EQ(sound.writes, (std::vector<Bytes>{cmd(0x26, 3, 0, 6), ext({0x2C, 0x01})}));

    ScriptLink rgb;
    rgb.reply(frame(ACK, 0x71, ACK_T));
    rgb.reply(rsp(0x71));
    EXPECT_EQ(ZelRgbLightControlHnd(&rgb.record, 0x10, 0x20, 0x30, 90, 1), ZEL_OK);
    EXPECT_EQ(rgb.writes, (std::vector<Bytes>{cmd(0x71, 5, 1, 0xC5), ext({0x10, 0x20, 0x30, 90})}));
    ScriptLink off;
    off.reply(frame(ACK, 0x71, ACK_T));
    off.reply(rsp(0x71));
    EXPECT_EQ(ZelRgbLightControlHnd(&off.record, 1, 2, 3, 4, 0), ZEL_OK);
    EXPECT_EQ(off.writes[0], cmd(0x71, 5, 0, 0));

    // One scripted link at a time: each takes over the port hooks.
    {
        ScriptLink red;
        red.reply(rsp(0x71));
        EXPECT_EQ(ZelRedLightControlHnd(&red.record, 1), ZEL_OK);
        EXPECT_EQ(red.writes[0], cmd(0x71, 0, 1, 0));
    }
    ScriptLink ext_light;
    ext_light.reply(rsp(0x71));
    EXPECT_EQ(ZelRgbExtLightControlHnd(&ext_light.record, 3), ZEL_OK);
    EXPECT_EQ(ext_light.writes[0], cmd(0x71, 0, 3, 3));
}

TEST_F(Signals, TimedLightsCheckTheTimeAfterTheHandshake)
{
    ScriptLink sleep_form;
    sleep_form.reply(frame(ACK, 0x71, ACK_T));
    sleep_form.reply(rsp(0x71));
    EXPECT_EQ(ZelRgbLightControlSleepHnd(&sleep_form.record, 1, 2, 3, 4, 5, 2000, 1), ZEL_OK);
    EXPECT_EQ(sleep_form.writes, (std::vector<Bytes>{cmd(0x71, 8, 1, 0xC5), ext(cat({{1, 2, 3, 4, 5}, le16(2000)}))}));

    ScriptLink rf;
    rf.reply(frame(ACK, 0x71, ACK_T));
    rf.reply(rsp(0x71));
    EXPECT_EQ(ZelRgbLightControlRfHnd(&rf.record, 1, 2, 3, 4, 0x1234, 700, 9, 0), ZEL_OK);
    EXPECT_EQ(rf.writes,
              (std::vector<Bytes>{cmd(0x71, 10, 0, 0), ext(cat({{1, 2, 3, 4}, le16(0x1234), le16(700), {9}}))}));

    // Above 2000: the frame has gone out and been acknowledged, the EXT does not follow.
    for (int form = 0; form < 2; ++form) {
        ScriptLink late;
        late.reply(frame(ACK, 0x71, ACK_T));
        const ZEL_STATUS st = form == 0 ? ZelRgbLightControlSleepHnd(&late.record, 1, 2, 3, 4, 5, 2001, 1)
                                        : ZelRgbLightControlRfHnd(&late.record, 1, 2, 3, 4, 0, 2001, 0, 1);
        EXPECT_EQ(st, ZEL_PARAMETERS_ERROR);
        ASSERT_EQ(late.writes.size(), 1u);
        EXPECT_EQ(late.writes[0][3], form == 0 ? 8 : 10);
    }
}

TEST_F(Signals, DisplayDataRefusalsAndTheReplyReadByHand)
{
    ScriptLink link;
    uint8_t data[255] = {0x41, 0x42};
    EXPECT_EQ(SetDisplayDataHnd(&link.record, data, 255, 0), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(SetDisplayDataHnd(&link.record, nullptr, 2, 0), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(SetDisplayDataHnd(&link.record, data, 0, 0), ZEL_PARAMETERS_ERROR);
    EXPECT_TRUE(link.writes.empty());

    ScriptLink good;
    good.reply(frame(ACK, 0x72, ACK_T));
    good.reply(rsp(0x72));
    EXPECT_EQ(SetDisplayDataHnd(&good.record, data, 254, 7), ZEL_OK);
    ASSERT_EQ(good.writes.size(), 2u);
    EXPECT_EQ(good.writes[0], cmd(0x72, 255, 254, 7));
    EXPECT_EQ(good.writes[1], ext(Bytes(data, data + 254)));

    // By hand, an interim frame is no answer (the usual response reader would take it) and an error frame's
    // code passes by either marker.
    const Bytes replies[] = {interim(0x72), frame(0xEC, 0x0F, 0x00), frame(0x00, 0x33, 0xCE), frame(RSP, 0x73, RSP_T)};
    const ZEL_STATUS want[] = {ZEL_COMMUNICATION_ERROR, 0x0F, 0x33, ZEL_COMMUNICATION_ERROR};
    for (size_t i = 0; i < 4; ++i) {
        ScriptLink l;
        l.reply(frame(ACK, 0x72, ACK_T));
        l.reply(replies[i]);
        EXPECT_EQ(SetDisplayDataHnd(&l.record, data, 2, 0), want[i]) << i;
    }
}

TEST_F(Signals, StoredSettingsTakeTheEepromRouteWhenSet)
{
    ScriptLink set;
    set.record.ee_route = 1;
    set.reply(frame(ACK, 0xE3, ACK_T));
    set.reply(rsp(0xE3));
    EXPECT_EQ(SetDisplayIntensityHnd(&set.record, 40), ZEL_OK);
    EXPECT_EQ(set.writes[1], ee_write_ext(829, {40, 40 ^ 163}));

    // A pair that holds gives its value, any other 100.
    const Bytes pairs[] = {{40, 40 ^ 163}, {40, 40}};
    const uint8_t want[] = {40, 100};
    for (int i = 0; i < 2; ++i) {
        ScriptLink get;
        get.record.ee_route = 1;
        get.reply(frame(ACK, 0xE2, ACK_T));
        get.reply(cat(rsp(0xE2, 3), ext(pairs[i])));
        uint8_t v = 0;
        EXPECT_EQ(GetDisplayIntensityHnd(&get.record, &v), ZEL_OK);
        EXPECT_EQ(v, want[i]);
        EXPECT_EQ(get.writes[1], ext(cat(le32(829), le32(2))));
    }

    ScriptLink led;
    led.record.ee_route = 1;
    led.reply(frame(ACK, 0xE3, ACK_T));
    led.reply(rsp(0xE3));
    EXPECT_EQ(GreenLedBlinkingTurnOnHnd(&led.record), ZEL_OK);
    EXPECT_EQ(led.writes[1], ee_write_ext(832, {1, 1 ^ 163, 0}));

    {
        ScriptLink sleep_set;
        sleep_set.record.ee_route = 1;
        sleep_set.reply(frame(ACK, 0xE3, ACK_T));
        sleep_set.reply(rsp(0xE3));
        EXPECT_EQ(AutoSleepSetHnd(&sleep_set.record, 12), ZEL_OK);
        EXPECT_EQ(sleep_set.writes[1], ee_write_ext(831, {12}));
    }
    ScriptLink sleep_get;
    sleep_get.record.ee_route = 1;
    sleep_get.reply(frame(ACK, 0xE2, ACK_T));
    sleep_get.reply(cat(rsp(0xE2, 2), ext({12})));
    uint8_t secs = 0;
    EXPECT_EQ(AutoSleepGetHnd(&sleep_get.record, &secs), ZEL_OK);
    EXPECT_EQ(secs, 12);

    // Without the route: the reader's own commands.
    ScriptLink plain;
    plain.reply(rsp(0x75, 0, 66));
    uint8_t v = 0;
    EXPECT_EQ(GetDisplayIntensityHnd(&plain.record, &v), ZEL_OK);
    EXPECT_EQ(v, 66);
    EXPECT_EQ(plain.writes[0], cmd(0x75));
}

TEST_F(Signals, PowerDoorAndLedFrames)
{
    ScriptLink wake;
    wake.reply({}); // the wake byte is not answered
    wake.reply(rsp(0x47));
    EXPECT_EQ(ZelLeaveSleepModeHnd(&wake.record), ZEL_OK);
    EXPECT_EQ(wake.writes, (std::vector<Bytes>{{0x00}, cmd(0x47)}));
    EXPECT_EQ(slept, 10u);

    ScriptLink bad;
    bad.reply(rsp(0x3F));
    EXPECT_EQ(ZelSetBadSelectNrHnd(&bad.record, 5), ZEL_OK);
    EXPECT_EQ(bad.writes[0], cmd(0x3F, 0, 5, static_cast<uint8_t>((5 ^ 0xA3) + 7)));

    ScriptLink lock;
    lock.reply(rsp(0x60));
    EXPECT_EQ(ZelVrtLockOnHnd(&lock.record, 0x0302), ZEL_OK);
    EXPECT_EQ(lock.writes[0], cmd(0x60, 0, 0x02, 0x03));

    ScriptLink outs;
    outs.reply(frame(ACK, 0x61, ACK_T));
    outs.reply(rsp(0x61));
    EXPECT_EQ(ZelOutControlHnd(&outs.record, 1, 0, 1, 1, 9), ZEL_OK);
    EXPECT_EQ(outs.writes, (std::vector<Bytes>{cmd(0x61, 8, 0, 1), ext({1, 0, 1, 1, 0, 9, 0})}));

    ScriptLink input;
    input.reply(rsp(0x62, 0, 1));
    uint8_t state = 9;
    EXPECT_EQ(ZelVrtGetInputStateHnd(&input.record, 2, &state), ZEL_OK);
    EXPECT_EQ(input.writes[0], cmd(0x62, 0, 1, 2));
    EXPECT_EQ(state, 1);
    // The reply must echo 0x62.
    ScriptLink wrong;
    wrong.reply(rsp(0x63, 0, 1));
    EXPECT_EQ(ZelVrtGetInputStateHnd(&wrong.record, 2, &state), ZEL_COMMUNICATION_ERROR);

    for (int on = 0; on < 2; ++on) {
        ScriptLink rgb;
        rgb.reply(rsp(0x6E));
        EXPECT_EQ(on ? RgbInternalOnHnd(&rgb.record) : RgbInternalOffHnd(&rgb.record), ZEL_OK);
        EXPECT_EQ(rgb.writes[0], cmd(0x6E, 0, 2, on ? 1 : 2));
    }

    // Animations are refused at once.
    ScriptLink none;
    EXPECT_EQ(LoadAnimationHnd(&none.record), ZEL_COMMAND_NOT_SUPPORTED);
    EXPECT_EQ(StartAnimationHnd(&none.record), ZEL_COMMAND_NOT_SUPPORTED);
    EXPECT_EQ(StopAnimationHnd(&none.record), ZEL_COMMAND_NOT_SUPPORTED);
    EXPECT_EQ(IsAnimationPlayingHnd(&none.record), ZEL_COMMAND_NOT_SUPPORTED);
    EXPECT_TRUE(none.writes.empty());
}

TEST_F(Signals, ServiceRepliesAreBounded)
{
    ScriptLink service;
    service.reply(cat(rsp(0xCD, 5), ext({1, 2, 3, 4})));
    uint8_t data[4] = {};
    EXPECT_EQ(GetServiceDataHnd(&service.record, data), ZEL_OK);
    EXPECT_EQ(Bytes(data, data + 4), (Bytes{1, 2, 3, 4}));
    EXPECT_EQ(service.writes[0], cmd(0xCD, 0, 0, 0));

    // Three devices for a buffer of two: refused with the length cleared; none at all is an empty list.
    ScriptLink i2c;
    i2c.reply(cat(rsp(0xCD, 4), ext({0x60, 0x50, 0x51})));
    uint8_t dev[2] = {};
    uint32_t len = sizeof dev;
    EXPECT_EQ(GetI2cDevicesHnd(&i2c.record, dev, &len), ZEL_BUFFER_OVERFLOW);
    EXPECT_EQ(len, 0u);
    ScriptLink empty;
    empty.reply(rsp(0xCD));
    len = sizeof dev;
    EXPECT_EQ(GetI2cDevicesHnd(&empty.record, dev, &len), ZEL_OK);
    EXPECT_EQ(len, 0u);

    // Too short a service block, and the lock status without its byte.
    ScriptLink short_service;
    short_service.reply(cat(rsp(0xCD, 3), ext({1, 2})));
    EXPECT_EQ(GetServiceDataHnd(&short_service.record, data), ZEL_COMMUNICATION_ERROR);
    ScriptLink lock;
    lock.reply(rsp(0xCD));
    uint8_t st = 0;
    EXPECT_EQ(GetReaderLockStatusHnd(&lock.record, &st), ZEL_COMMUNICATION_ERROR);
    EXPECT_EQ(lock.writes[0], cmd(0xCD, 0, 2, 0));
}

TEST_F(Signals, RfRegisterSetsAndDefaults)
{
    // first A, second 5, third 1, fourth 6, fifth C: EC A5.
    ScriptLink a;
    a.reply(frame(ACK, 0x7D, ACK_T));
    a.reply(rsp(0x7D));
    EXPECT_EQ(SetRfAnalogRegistersTypeAHnd(&a.record, 0xA, 5, 1, 6, 0xC), ZEL_OK);
    EXPECT_EQ(a.writes, (std::vector<Bytes>{cmd(0x7D, 6, 1, 0), ext({0xEC, 0xA5, 0x88, 0x20, 0x88})}));

    ScriptLink b;
    b.reply(frame(ACK, 0x7D, ACK_T));
    b.reply(rsp(0x7D));
    EXPECT_EQ(SetRfAnalogRegistersTypeBHnd(&b.record, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF), ZEL_OK);
    EXPECT_EQ(b.writes[1], ext({0xFF, 0xF7, 0xF8, 0x3F, 0x06})) << "bit 3 of the second byte stays clear";

    ScriptLink r424;
    r424.reply(frame(ACK, 0x7D, ACK_T));
    r424.reply(rsp(0x7D));
    EXPECT_EQ(SetRfAnalogRegistersISO14443_424Hnd(&r424.record, 1, 2, 0, 3, 4), ZEL_OK);
    EXPECT_EQ(r424.writes, (std::vector<Bytes>{cmd(0x7D, 3, 4, 0), ext({0x34, 0x12})}));

    // The type B transmit form addresses set 1.
    ScriptLink bt;
    bt.reply(frame(ACK, 0x7D, ACK_T));
    bt.reply(rsp(0x7D));
    EXPECT_EQ(SetRfAnalogRegistersTypeBTransHnd(&bt.record, 1, 1, 1, 1, 1, 0x11, 0x22, 0x3, 0x4), ZEL_OK);
    EXPECT_EQ(bt.writes, (std::vector<Bytes>{cmd(0x7D, 6, 1, 0), ext({0x91, 0x11, 0x11, 0x22, 0x34})}));

    ScriptLink pn;
    pn.reply(frame(ACK, 0x7D, ACK_T));
    pn.reply(rsp(0x7D));
    EXPECT_EQ(SetRfAnalogRegistersPN7462Hnd(&pn.record, 0xA, 0x5, 0x2, 0x9, 0x3), ZEL_OK);
    EXPECT_EQ(pn.writes, (std::vector<Bytes>{cmd(0x7D, 6, 6, 0), ext({0x5A, 0x9E, 0, 0, 0})}));

    // Defaults: PAR1 1 without EXT; the PN7462 default by PAR0 7, PAR1 0. An acknowledge is no answer here.
    using Fn = ZEL_STATUS (*)(ZEL_HANDLE);
    const struct {
        Fn fn;
        uint8_t p0, p1;
    } defaults[] = {{SetRfAnalogRegistersTypeADefaultHnd, 1, 1},
                    {SetRfAnalogRegistersTypeBDefaultHnd, 2, 1},
                    {SetRfAnalogRegistersISO14443_212DefaultHnd, 3, 1},
                    {SetRfAnalogRegistersISO14443_424DefaultHnd, 4, 1},
                    {SetRfAnalogRegistersPN7462DefaultHnd, 7, 0}};
    for (const auto &d : defaults) {
        ScriptLink l;
        l.reply(rsp(0x7D));
        EXPECT_EQ(d.fn(&l.record), ZEL_OK);
        EXPECT_EQ(l.writes, (std::vector<Bytes>{cmd(0x7D, 0, d.p0, d.p1)}));
        ScriptLink acked;
        acked.reply(frame(ACK, 0x7D, ACK_T));
        EXPECT_EQ(d.fn(&acked.record), ZEL_COMMUNICATION_ERROR);
    }
}

TEST_F(Signals, RfRegisterReadBack)
{
    // The read-back has bytes 0 and 1 the other way round.
    ScriptLink a;
    a.reply(cat(rsp(0x7E, 6, 1), ext({0xA5, 0xEC, 0x88, 0x20, 0x88})));
    uint8_t v[9] = {};
    EXPECT_EQ(GetRfAnalogRegistersTypeAHnd(&a.record, v, v + 1, v + 2, v + 3, v + 4), ZEL_OK);
    EXPECT_EQ(Bytes(v, v + 5), (Bytes{0xA, 5, 1, 6, 0xC}));
    EXPECT_EQ(a.writes[0], cmd(0x7E, 0, 1, 0));

    ScriptLink t;
    t.reply(cat(rsp(0x7E, 6, 1), ext({0x91, 0x11, 0x11, 0x22, 0x34})));
    EXPECT_EQ(GetRfAnalogRegistersTypeATransHnd(&t.record, v, v + 1, v + 2, v + 3, v + 4, v + 5, v + 6, v + 7, v + 8),
              ZEL_OK);
    EXPECT_EQ(Bytes(v, v + 9), (Bytes{9, 1, 0, 1, 1, 0x11, 0x22, 3, 4}));

    // The 424 read asks for set 3.
    ScriptLink r424;
    r424.reply(cat(rsp(0x7E, 3), ext({0x12, 0x34})));
    EXPECT_EQ(GetRfAnalogRegistersISO14443_424Hnd(&r424.record, v, v + 1, v + 2, v + 3, v + 4), ZEL_OK);
    EXPECT_EQ(r424.writes[0], cmd(0x7E, 0, 3, 0));
    EXPECT_EQ(Bytes(v, v + 5), (Bytes{1, 2, 0, 3, 4}));

    ScriptLink pn;
    pn.reply(cat(rsp(0x7E, 6), ext({0x9E, 0x5A, 0, 0, 0})));
    EXPECT_EQ(GetRfAnalogRegistersPN7462Hnd(&pn.record, v, v + 1, v + 2, v + 3, v + 4), ZEL_OK);
    EXPECT_EQ(Bytes(v, v + 5), (Bytes{0xA, 0x5, 0x2, 0x9, 0x3}));

    // Failures: an error frame gives its code after its EXT was read; a wrong length, a bad EXT checksum, an
    // acknowledge or another command give 1.
    const Bytes replies[] = {cat(frame(0xEC, 0x0F, 0xCE, 2), ext({1})), cat(rsp(0x7E, 3), ext({1, 2})),
                             cat(rsp(0x7E, 6), Bytes{1, 2, 3, 4, 5, 6}),
                             cat(frame(ACK, 0x7E, ACK_T, 6), ext({1, 2, 3, 4, 5})),
                             cat(rsp(0x7D, 6), ext({1, 2, 3, 4, 5}))};
    const ZEL_STATUS want[] = {0x0F, ZEL_COMMUNICATION_ERROR, ZEL_COMMUNICATION_ERROR, ZEL_COMMUNICATION_ERROR,
                               ZEL_COMMUNICATION_ERROR};
    for (size_t i = 0; i < std::size(replies); ++i) {
        ScriptLink l;
        l.reply(replies[i]);
        EXPECT_EQ(GetRfAnalogRegistersTypeBHnd(&l.record, v, v + 1, v + 2, v + 3, v + 4), want[i]) << i;
    }
}

TEST(SignalsPacking, EveryValueSurvivesPackAndUnpack)
{
    for (uint32_t bits = 0; bits < 0x1000; ++bits) {
        zel::sig::RfValues in, out, pn_out;
        in.v[0] = bits & 0xF;
        in.v[1] = (bits >> 4) & 7;
        in.v[2] = (bits >> 7) & 1;
        in.v[3] = (bits >> 8) & 7;
        in.v[4] = (bits >> 4) & 0xF;
        uint8_t packed[2];
        zel::sig::rf_pack(in, packed);
        zel::sig::rf_unpack(packed, out);
        ASSERT_EQ(Bytes(out.v, out.v + 5), Bytes(in.v, in.v + 5)) << bits;
        zel::sig::RfValues pn = in;
        pn.v[1] = (bits >> 8) & 0xF;
        pn.v[2] = bits & 3;
        pn.v[3] = (bits >> 4) & 0xF;
        pn.v[4] = (bits >> 2) & 3;
        zel::sig::rf_pack_pn7462(pn, packed);
        zel::sig::rf_unpack_pn7462(packed, pn_out);
        ASSERT_EQ(Bytes(pn_out.v, pn_out.v + 5), Bytes(pn.v, pn.v + 5)) << bits;
    }
}

} // namespace
