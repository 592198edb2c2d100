// The reader's outputs: sounds and light modes, the RGB LEDs, the display, the speaker, the door controller's
// outputs and sleep. Each is one short exchange; with ee_route set the stored settings (display intensity,
// green LED blinking, auto sleep) go through the EE_ commands at the reader's EEPROM addresses instead.
#include <cstring>

#include "core/bytes.h"
#include "core/frame.h"
#include "core/internal.h"
#include "signals/signals_internal.h"
#include "zel_port.h"
#include "zel_reader.h"
#include "zel_signals.h"
#include "zel_status.h"

using namespace zel;

namespace {

constexpr uint8_t kCmdUi = 0x26, kCmdBadSelectSet = 0x3F, kCmdBadSelectGet = 0x44, kCmdSleep = 0x46, kCmdWake = 0x47,
                  kCmdAutoSleepSet = 0x4D, kCmdAutoSleepGet = 0x4E, kCmdLockOn = 0x60, kCmdOutputs = 0x61,
                  kCmdInputs = 0x62, kCmdLeds = 0x6E, kCmdLight = 0x71, kCmdDisplay = 0x72, kCmdSpeaker = 0x73,
                  kCmdIntensitySet = 0x74, kCmdIntensityGet = 0x75, kCmdServiceSet = 0xCB, kCmdServiceGet = 0xCD;

// The reader's EEPROM map for the routed settings.
constexpr uint32_t kEeIntensity = 829, kEeAutoSleep = 831, kEeGreenLed = 832;
constexpr uint8_t kIntensityCheck = 163;    // the check byte is the value XOR this
constexpr uint8_t kIntensityFallback = 100; // what a routed read gives when the pair does not hold

constexpr uint8_t kRgbMarker = 0xC5;
constexpr uint16_t kLightTimeMax = 2000;
constexpr uint8_t kSoundPar1 = 6;

// The stored settings go through the EEPROM commands when the handle asks for it.
bool routed(ZEL_HANDLE hnd)
{
    return hnd && hnd->ee_route;
}

// Shape 3 whose response carries nothing wanted.
ZEL_STATUS send_ext(ZEL_HANDLE hnd, uint8_t cmd, uint8_t par0, uint8_t par1, const uint8_t *data, uint8_t len)
{
    Reply r;
    return command_write_reply(hnd, cmd, par0, par1, data, len, r);
}

// Shape 1 whose reply's PAR0 goes to out.
ZEL_STATUS read_par0(ZEL_HANDLE hnd, uint8_t cmd, uint8_t par0, uint8_t par1, uint8_t *out)
{
    if (!out)
        return ZEL_PARAMETERS_ERROR;
    uint8_t par[2] = {};
    const ZEL_STATUS status = handshake(hnd, cmd, par0, par1, par);
    if (status == ZEL_OK)
        *out = par[0];
    return status;
}

// The light command whose EXT goes out only after the handshake, and only when the time is in range.
ZEL_STATUS light_timed(ZEL_HANDLE hnd, uint8_t enable, const uint8_t *data, uint8_t len, uint16_t time)
{
    uint8_t frame[kFrameBufLen] = {};
    make_command(frame, kCmdLight, static_cast<uint8_t>(len + 1), enable, enable ? kRgbMarker : 0);
    uint8_t ack_len = 0;
    ZEL_STATUS status = InitialHandshaking(hnd, frame, &ack_len);
    if (status != ZEL_OK)
        return status;
    // Deliberately here: the frame has gone out, its EXT does not follow.
    if (time > kLightTimeMax)
        return ZEL_PARAMETERS_ERROR;
    if ((status = sig::write_ext(hnd, data, len)) != ZEL_OK)
        return status;
    return GetAndTestResponseIntro(hnd, frame, kCmdLight);
}

// The speaker's divider as PAR0 (low) and PAR1 (high); 0xFF, 0xFF outside 20 to 20,000 hertz.
ZEL_STATUS speaker(ZEL_HANDLE hnd, uint16_t hertz, uint32_t numerator)
{
    uint8_t lo = 0xFF, hi = 0xFF;
    if (hertz >= 20 && hertz <= 20000) {
        const uint32_t divider = numerator / hertz;
        lo = static_cast<uint8_t>(divider);
        hi = static_cast<uint8_t>(divider >> 8);
    }
    return handshake(hnd, kCmdSpeaker, lo, hi);
}

// The routed green LED record: the state, its check byte and a zero.
ZEL_STATUS green_led(ZEL_HANDLE hnd, uint8_t on)
{
    if (routed(hnd)) {
        const uint8_t rec[3] = {on, static_cast<uint8_t>(on ^ kIntensityCheck), 0};
        return EE_WriteHnd(hnd, kEeGreenLed, sizeof rec, rec);
    }
    return handshake(hnd, kCmdLeds, on, 0);
}

// Shape 2 of the service commands: the reply frame by hand, then its EXT (data bytes at least min_data).
// The EXT's data go to out (cap bytes) and their count to *got.
ZEL_STATUS service_read(ZEL_HANDLE hnd, uint8_t par0, uint8_t *out, uint32_t cap, uint32_t min_data, uint32_t *got)
{
    uint8_t frame[kFrameBufLen] = {};
    make_command(frame, kCmdServiceGet, 0, par0, 0);
    ZEL_STATUS status = sig::send_frame(hnd, frame);
    if (status != ZEL_OK)
        return status;
    if ((status = sig::read_reply_by_hand(hnd, frame, kCmdServiceGet)) != ZEL_OK)
        return status;
    const uint8_t ext_len = frame[kExtLen];
    if (ext_len == 0 && min_data == 0) { // nothing to tell
        *got = 0;
        return ZEL_OK;
    }
    if (ext_len < min_data + 1u)
        return ZEL_COMMUNICATION_ERROR;
    if ((status = GetAndTestResponseData(hnd, ext_len, frame)) != ZEL_OK)
        return status;
    const uint32_t n = ext_len - 1u;
    if (n > cap)
        return ZEL_BUFFER_OVERFLOW;
    std::memcpy(out, frame, n);
    *got = n;
    return ZEL_OK;
}

// A service reply of at least n data bytes, of which the first n go to out.
ZEL_STATUS service_fixed(ZEL_HANDLE hnd, uint8_t par0, uint8_t *out, uint32_t n)
{
    if (!out)
        return ZEL_PARAMETERS_ERROR;
    uint8_t buf[256];
    uint32_t got = 0;
    const ZEL_STATUS status = service_read(hnd, par0, buf, sizeof buf, n, &got);
    if (status == ZEL_OK)
        std::memcpy(out, buf, n);
    return status;
}

} // namespace

// The reply read by hand, shared with the RF register operations.

ZEL_STATUS zel::sig::send_frame(zel_handle_record *hnd, uint8_t *frame)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    (void)PortPurge(hnd); // as in every handshake, a failed purge does not stop the command
    CalcChecksum(frame, kFrameLen);
    return PortWrite(hnd, frame, kFrameLen);
}

ZEL_STATUS zel::sig::write_ext(zel_handle_record *hnd, const uint8_t *data, uint8_t len)
{
    uint8_t ext[256];
    std::memcpy(ext, data, len);
    ext[len] = static_cast<uint8_t>(GetChecksumFragment(0, ext, len) + 7);
    return PortWrite(hnd, ext, len + 1u);
}

ZEL_STATUS zel::sig::send_ext_by_hand(zel_handle_record *hnd, uint8_t cmd, uint8_t par0, uint8_t par1,
                                      const uint8_t *data, uint8_t len)
{
    uint8_t frame[kFrameBufLen] = {};
    make_command(frame, cmd, static_cast<uint8_t>(len + 1), par0, par1);
    uint8_t ack_len = 0;
    ZEL_STATUS status = InitialHandshaking(hnd, frame, &ack_len);
    if (status != ZEL_OK)
        return status;
    if ((status = write_ext(hnd, data, len)) != ZEL_OK)
        return status;
    return read_reply_by_hand(hnd, frame, cmd);
}

ZEL_STATUS zel::sig::read_reply_by_hand(zel_handle_record *hnd, uint8_t *frame, uint8_t cmd)
{
    const ZEL_STATUS status = PortRead(hnd, frame, kFrameLen);
    if (status != ZEL_OK)
        return status;
    if (!TestChecksum(frame, kFrameLen))
        return ZEL_COMMUNICATION_ERROR;
    if (frame[kHeader] == kErrHeader || frame[kTrailer] == kErrTrailer)
        return frame[kCmd];
    return frame[kHeader] == kRspHeader && frame[kTrailer] == kRspTrailer && frame[kCmd] == cmd
               ? ZEL_OK
               : ZEL_COMMUNICATION_ERROR;
}

// Sound and light.

extern "C" ZEL_API ZEL_STATUS ReaderUISignalHnd(ZEL_HANDLE hnd, uint8_t light_mode, uint8_t sound_mode)
{
    return handshake(hnd, kCmdUi, light_mode, sound_mode);
}

extern "C" ZEL_API ZEL_STATUS ReaderSoundHnd(ZEL_HANDLE hnd, uint8_t duration)
{
    uint8_t ext[2];
    put_le16(ext, static_cast<uint16_t>(duration * 10u));
    return send_ext(hnd, kCmdUi, 0, kSoundPar1, ext, sizeof ext);
}

extern "C" ZEL_API ZEL_STATUS ZelRedLightControlHnd(ZEL_HANDLE hnd, uint8_t light_status)
{
    return handshake(hnd, kCmdLight, light_status, 0);
}

extern "C" ZEL_API ZEL_STATUS ZelRgbLightControlHnd(ZEL_HANDLE hnd, uint8_t red, uint8_t green, uint8_t blue,
                                                    uint8_t intensity, uint8_t enable)
{
    const uint8_t ext[4] = {red, green, blue, intensity};
    return send_ext(hnd, kCmdLight, enable, enable ? kRgbMarker : 0, ext, sizeof ext);
}

extern "C" ZEL_API ZEL_STATUS ZelRgbLightControlSleepHnd(ZEL_HANDLE hnd, uint8_t red, uint8_t green, uint8_t blue,
                                                         uint8_t intensity, uint8_t mode, uint16_t time, uint8_t enable)
{
    uint8_t ext[7] = {red, green, blue, intensity, mode};
    put_le16(ext + 5, time);
    return light_timed(hnd, enable, ext, sizeof ext, time);
}

extern "C" ZEL_API ZEL_STATUS ZelRgbLightControlRfHnd(ZEL_HANDLE hnd, uint8_t red, uint8_t green, uint8_t blue,
                                                      uint8_t intensity, uint16_t rf_value, uint16_t time, uint8_t mode,
                                                      uint8_t enable)
{
    uint8_t ext[9] = {red, green, blue, intensity};
    put_le16(ext + 4, rf_value);
    put_le16(ext + 6, time);
    ext[8] = mode;
    return light_timed(hnd, enable, ext, sizeof ext, time);
}

extern "C" ZEL_API ZEL_STATUS ZelRgbExtLightControlHnd(ZEL_HANDLE hnd, uint8_t enable)
{
    return handshake(hnd, kCmdLight, enable, enable);
}

// Display and speaker.

extern "C" ZEL_API ZEL_STATUS SetDisplayDataHnd(ZEL_HANDLE hnd, const uint8_t *data, uint8_t length, uint8_t option)
{
    // 255 would wrap EXT_LEN to 0; an empty or missing block has nothing to show.
    if (!data || length == 0 || length == 0xFF)
        return ZEL_PARAMETERS_ERROR;
    return sig::send_ext_by_hand(hnd, kCmdDisplay, length, option, data, length);
}

extern "C" ZEL_API ZEL_STATUS SetSpeakerFrequencyHnd(ZEL_HANDLE hnd, uint16_t hertz)
{
    return speaker(hnd, hertz, 1000000);
}

extern "C" ZEL_API ZEL_STATUS PN7462_SetSpeakerFrequencyHnd(ZEL_HANDLE hnd, uint16_t hertz)
{
    return speaker(hnd, hertz, 500000);
}

extern "C" ZEL_API ZEL_STATUS SetDisplayIntensityHnd(ZEL_HANDLE hnd, uint8_t intensity)
{
    if (routed(hnd)) {
        const uint8_t pair[2] = {intensity, static_cast<uint8_t>(intensity ^ kIntensityCheck)};
        return EE_WriteHnd(hnd, kEeIntensity, sizeof pair, pair);
    }
    return handshake(hnd, kCmdIntensitySet, intensity, 0);
}

extern "C" ZEL_API ZEL_STATUS GetDisplayIntensityHnd(ZEL_HANDLE hnd, uint8_t *intensity)
{
    if (!intensity)
        return ZEL_PARAMETERS_ERROR;
    if (routed(hnd)) {
        uint8_t pair[2] = {};
        const ZEL_STATUS status = EE_ReadHnd(hnd, kEeIntensity, sizeof pair, pair);
        if (status != ZEL_OK)
            return status;
        *intensity = pair[1] == static_cast<uint8_t>(pair[0] ^ kIntensityCheck) ? pair[0] : kIntensityFallback;
        return ZEL_OK;
    }
    return read_par0(hnd, kCmdIntensityGet, 0, 0, intensity);
}

// LEDs.

extern "C" ZEL_API ZEL_STATUS GreenLedBlinkingTurnOnHnd(ZEL_HANDLE hnd)
{
    return green_led(hnd, 1);
}

extern "C" ZEL_API ZEL_STATUS GreenLedBlinkingTurnOffHnd(ZEL_HANDLE hnd)
{
    return green_led(hnd, 0);
}

extern "C" ZEL_API ZEL_STATUS RgbInternalOnHnd(ZEL_HANDLE hnd)
{
    return handshake(hnd, kCmdLeds, 2, 1);
}

extern "C" ZEL_API ZEL_STATUS RgbInternalOffHnd(ZEL_HANDLE hnd)
{
    return handshake(hnd, kCmdLeds, 2, 2);
}

// Sleep.

extern "C" ZEL_API ZEL_STATUS ZelEnterSleepModeHnd(ZEL_HANDLE hnd)
{
    return handshake(hnd, kCmdSleep);
}

extern "C" ZEL_API ZEL_STATUS ZelLeaveSleepModeHnd(ZEL_HANDLE hnd)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    const uint8_t wake = 0x00;
    const ZEL_STATUS status = PortWrite(hnd, &wake, 1);
    if (status != ZEL_OK)
        return status;
    os_sleep(10);
    return handshake(hnd, kCmdWake);
}

extern "C" ZEL_API ZEL_STATUS AutoSleepSetHnd(ZEL_HANDLE hnd, uint8_t seconds)
{
    if (routed(hnd))
        return EE_WriteHnd(hnd, kEeAutoSleep, 1, &seconds);
    return handshake(hnd, kCmdAutoSleepSet, seconds, 0);
}

extern "C" ZEL_API ZEL_STATUS AutoSleepGetHnd(ZEL_HANDLE hnd, uint8_t *seconds)
{
    if (!seconds)
        return ZEL_PARAMETERS_ERROR;
    if (routed(hnd))
        return EE_ReadHnd(hnd, kEeAutoSleep, 1, seconds);
    return read_par0(hnd, kCmdAutoSleepGet, 0, 0, seconds);
}

// Bad-select count.

extern "C" ZEL_API ZEL_STATUS ZelSetBadSelectNrHnd(ZEL_HANDLE hnd, uint8_t value)
{
    return handshake(hnd, kCmdBadSelectSet, value, static_cast<uint8_t>((value ^ 0xA3) + 7));
}

extern "C" ZEL_API ZEL_STATUS ZelGetBadSelectNrHnd(ZEL_HANDLE hnd, uint8_t *value)
{
    return read_par0(hnd, kCmdBadSelectGet, 0, 0, value);
}

// The door controller's outputs and inputs.

extern "C" ZEL_API ZEL_STATUS ZelVrtLockOnHnd(ZEL_HANDLE hnd, uint16_t value)
{
    return handshake(hnd, kCmdLockOn, static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8));
}

extern "C" ZEL_API ZEL_STATUS ZelVrtRelayStateHnd(ZEL_HANDLE hnd, uint8_t state)
{
    return handshake(hnd, kCmdOutputs, state, 0);
}

extern "C" ZEL_API ZEL_STATUS ZelOutControlHnd(ZEL_HANDLE hnd, uint8_t out0, uint8_t out1, uint8_t out2, uint8_t out3,
                                               uint8_t option)
{
    const uint8_t ext[7] = {out0, out1, out2, out3, 0, option, 0};
    return send_ext(hnd, kCmdOutputs, 0, 1, ext, sizeof ext);
}

extern "C" ZEL_API ZEL_STATUS ZelVrtGetIoStateHnd(ZEL_HANDLE hnd, uint8_t *state0, uint8_t *state1)
{
    if (!state0 || !state1)
        return ZEL_PARAMETERS_ERROR;
    uint8_t par[2] = {};
    const ZEL_STATUS status = handshake(hnd, kCmdInputs, 0, 0, par);
    if (status != ZEL_OK)
        return status;
    *state0 = par[0];
    *state1 = par[1];
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS ZelVrtGetInputStateHnd(ZEL_HANDLE hnd, uint8_t index, uint8_t *state)
{
    return read_par0(hnd, kCmdInputs, 1, index, state);
}

// Service data, I2C devices and lock status.

extern "C" ZEL_API ZEL_STATUS SetServiceDataHnd(ZEL_HANDLE hnd, const uint8_t *data)
{
    if (!data)
        return ZEL_PARAMETERS_ERROR;
    return send_ext(hnd, kCmdServiceSet, 0, 0, data, 4);
}

extern "C" ZEL_API ZEL_STATUS GetServiceDataHnd(ZEL_HANDLE hnd, uint8_t *data)
{
    return service_fixed(hnd, 0, data, 4);
}

extern "C" ZEL_API ZEL_STATUS GetI2cDevicesHnd(ZEL_HANDLE hnd, uint8_t *devices, uint32_t *length)
{
    if (!devices || !length)
        return ZEL_PARAMETERS_ERROR;
    uint32_t got = 0;
    const ZEL_STATUS status = service_read(hnd, 1, devices, *length, 0, &got);
    if (status == ZEL_BUFFER_OVERFLOW)
        *length = 0;
    else if (status == ZEL_OK)
        *length = got;
    return status;
}

extern "C" ZEL_API ZEL_STATUS GetReaderLockStatusHnd(ZEL_HANDLE hnd, uint8_t *status)
{
    return service_fixed(hnd, 2, status, 1);
}

// Animations: this library does not drive them.

extern "C" ZEL_API ZEL_STATUS LoadAnimationHnd(ZEL_HANDLE)
{
    return ZEL_COMMAND_NOT_SUPPORTED;
}

extern "C" ZEL_API ZEL_STATUS StartAnimationHnd(ZEL_HANDLE)
{
    return ZEL_COMMAND_NOT_SUPPORTED;
}

extern "C" ZEL_API ZEL_STATUS StopAnimationHnd(ZEL_HANDLE)
{
    return ZEL_COMMAND_NOT_SUPPORTED;
}

extern "C" ZEL_API ZEL_STATUS IsAnimationPlayingHnd(ZEL_HANDLE)
{
    return ZEL_COMMAND_NOT_SUPPORTED;
}
