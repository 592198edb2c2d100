// The display module's commands: frames 55 A5 AA with a sub-command in byte 4, picture strips under 0xA6,
// and the module's boot loader and flash behind the same frame.
#include <cstring>
#include <vector>

#include "core/frame.h"
#include "display/display_internal.h"
#include "zel_display.h"
#include "zel_frame.h"
#include "zel_port.h"
#include "zel_status.h"

using namespace zel;
using namespace zel::disp;

namespace {

constexpr uint8_t kCmdDisplay = 0xA5, kCmdPicture = 0xA6;
constexpr uint8_t kSubParams = 0xA3, kSubText = 0xA4, kSubGallery = 0xA5, kSubErase = 0xA7, kSubClear = 0xA8,
                  kSubVersion = 0xA9, kSubBootStatus = 0xB8, kSubBoot = 0xB9, kSubSignal = 0x26, kSubTime = 0x32;
constexpr uint8_t kBootStatus = 0x0D, kBootParams = 0x01, kBootFlashWrite = 0x02, kBootFlashErase = 0x03,
                  kBootReboot = 0x04;
constexpr uint8_t kShowPicture = 0x10;
constexpr uint32_t kChunkLen = 262;
constexpr uint32_t kFlashExtLen = 68, kEraseExtLen = 6, kBootExtLen = 4;

void display_frame(uint8_t *frame, uint8_t ext_len, uint8_t sub, uint8_t par)
{
    make_command(frame, kCmdDisplay, ext_len, sub, par);
}

// Checksum of the n bytes before position n, put at n.
void checksum_at(uint8_t *buffer, uint32_t n)
{
    buffer[n] = static_cast<uint8_t>(GetChecksumFragment(0, buffer, static_cast<uint16_t>(n)) + 7);
}

bool error_frame(const uint8_t *f)
{
    return f[kHeader] == kErrHeader || f[kTrailer] == kErrTrailer;
}

bool failure_answer(const uint8_t *f)
{
    for (int i = 0; i < 6; ++i)
        if (f[i] != 0xFE)
            return false;
    return true;
}

// Steps 6 to 9 of the reply test: checksum, error frame, the response to cmd.
ZEL_STATUS test_reply(const uint8_t *reply, uint8_t cmd)
{
    if (!TestChecksum(reply, kFrameLen))
        return ZEL_COMMUNICATION_ERROR;
    if (error_frame(reply))
        return reply[kCmd];
    if (reply[kHeader] == kRspHeader && reply[kTrailer] == kRspTrailer)
        return reply[kCmd] == cmd ? ZEL_OK : ZEL_COMMUNICATION_ERROR;
    return ZEL_COMMUNICATION_ERROR;
}

// The module's answer to a command, from the failure answer on.
ZEL_STATUS test_answer(const uint8_t *reply, uint8_t cmd)
{
    if (failure_answer(reply))
        return ZEL_DISPLAY_COMMAND_FAILED;
    return test_reply(reply, cmd);
}

// Clears, then sends the frame and its EXT.
ZEL_STATUS clear_and_send(ZEL_HANDLE hnd, uint8_t *frame, uint8_t *ext)
{
    ZEL_STATUS status = Display_ClearImageHnd(hnd);
    if (status != ZEL_OK)
        return status;
    uint8_t reply[kFrameLen] = {};
    return Display_TransmitHnd(hnd, frame, ext, reply);
}

// The shared flow of the boot loader commands: the frame, an EXT of data (len bytes, the checksum added),
// the response intro against 0xA5. The intro is left in frame.
ZEL_STATUS boot_exchange(ZEL_HANDLE hnd, uint8_t *frame, uint8_t sub, uint8_t par, uint8_t *ext, uint32_t len)
{
    display_frame(frame, static_cast<uint8_t>(len + 1), sub, par);
    uint8_t ack_len = 0;
    ZEL_STATUS status = InitialHandshaking(hnd, frame, &ack_len);
    if (status != ZEL_OK)
        return status;
    checksum_at(ext, len);
    if ((status = PortWrite(hnd, ext, len + 1)) != ZEL_OK)
        return status;
    return GetAndTestResponseIntro(hnd, frame, kCmdDisplay);
}

ZEL_STATUS boot_command(ZEL_HANDLE hnd, uint8_t sub, uint8_t par)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    uint8_t frame[kFrameBufLen] = {};
    uint8_t ext[kBootExtLen] = {};
    return boot_exchange(hnd, frame, sub, par, ext, kBootExtLen - 1);
}

enum class StripMode { show, gallery, system };

// Sends the four strips under 0xA6 with par in byte 5.
ZEL_STATUS send_strips(ZEL_HANDLE hnd, const uint8_t *strips, uint8_t par, uint16_t first, uint16_t second,
                       StripMode mode)
{
    uint8_t chunk[kChunkLen];
    for (uint32_t s = 0; s < kStrips; ++s) {
        // The EXT length 0x0106 in bytes 3 and 4, low byte first.
        uint8_t frame[kFrameLen];
        make_command(frame, kCmdPicture, kChunkLen & 0xFF, kChunkLen >> 8, par);
        CalcChecksum(frame, kFrameLen);
        ZEL_STATUS status = PortWrite(hnd, frame, kFrameLen);
        if (status != ZEL_OK)
            return mode == StripMode::system ? ZEL_DISPLAY_WRITE_CMD_ERROR : status;
        uint8_t reply[kFrameLen] = {};
        status = PortRead(hnd, reply, kFrameLen);
        if (mode == StripMode::system && (status != ZEL_OK || error_frame(reply)))
            return ZEL_DISPLAY_READ_ACK_ERROR;
        if (status != ZEL_OK)
            return status;
        chunk[0] = static_cast<uint8_t>(s);
        chunk[1] = static_cast<uint8_t>(first >> 8);
        chunk[2] = static_cast<uint8_t>(first);
        chunk[3] = static_cast<uint8_t>(second >> 8);
        chunk[4] = static_cast<uint8_t>(second);
        std::memcpy(chunk + 5, strips + s * kStripLen, kStripLen);
        checksum_at(chunk, kChunkLen - 1);
        if ((status = PortWrite(hnd, chunk, kChunkLen)) != ZEL_OK)
            return status;
        status = PortRead(hnd, reply, kFrameLen);
        if (mode == StripMode::system)
            continue; // the reply is read and not examined
        if (status != ZEL_OK)
            return status;
        if (failure_answer(reply))
            return ZEL_DISPLAY_COMMAND_FAILED;
        if ((status = test_reply(reply, kCmdPicture)) != ZEL_OK)
            return status;
    }
    return ZEL_OK;
}

// Shows gallery index: the frame, then its reply tested from the failure answer on.
ZEL_STATUS gallery_show(ZEL_HANDLE hnd, uint8_t index)
{
    uint8_t frame[kFrameLen];
    display_frame(frame, 0, kSubGallery, index);
    CalcChecksum(frame, kFrameLen);
    ZEL_STATUS status = PortWrite(hnd, frame, kFrameLen);
    if (status != ZEL_OK)
        return status;
    uint8_t reply[kFrameLen] = {};
    if ((status = PortRead(hnd, reply, kFrameLen)) != ZEL_OK)
        return status;
    return test_answer(reply, kCmdDisplay);
}

// The picture's strips, then the display cleared: nothing is sent for a picture that cannot be read.
ZEL_STATUS strips_then_clear(ZEL_HANDLE hnd, const void *image, uint8_t *strips)
{
    const ZEL_STATUS status = image_strips(image, strips);
    return status != ZEL_OK ? status : Display_ClearImageHnd(hnd);
}

} // namespace

extern "C" ZEL_API ZEL_STATUS Display_TransmitHnd(ZEL_HANDLE hnd, uint8_t *frame, uint8_t *ext, uint8_t *reply)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!frame || !reply || (frame[kExtLen] && !ext))
        return ZEL_PARAMETERS_ERROR;
    CalcChecksum(frame, kFrameLen);
    ZEL_STATUS status = PortWrite(hnd, frame, kFrameLen);
    if (status != ZEL_OK)
        return status;
    const uint8_t len = frame[kExtLen];
    if (len != 0) {
        if (PortRead(hnd, reply, kFrameLen) != ZEL_OK || reply[kHeader] == kErrHeader || reply[kTrailer] == kErrTrailer)
            return ZEL_DISPLAY_READ_ACK_ERROR;
        checksum_at(ext, len - 1u);
        if ((status = PortWrite(hnd, ext, len)) != ZEL_OK)
            return status;
    }
    if ((status = PortRead(hnd, reply, kFrameLen)) != ZEL_OK)
        return status;
    return test_answer(reply, frame[kCmd]);
}

extern "C" ZEL_API ZEL_STATUS Display_ClearImageHnd(ZEL_HANDLE hnd)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    uint8_t frame[kFrameLen];
    display_frame(frame, 0, kSubClear, 0);
    CalcChecksum(frame, kFrameLen);
    ZEL_STATUS status = PortWrite(hnd, frame, kFrameLen);
    if (status != ZEL_OK)
        return status;
    uint8_t reply[kFrameLen] = {};
    status = PortRead(hnd, reply, kFrameLen);
    // The read's status counts only when the reply fails its checksum.
    if (!TestChecksum(reply, kFrameLen))
        return status != ZEL_OK ? status : ZEL_COMMUNICATION_ERROR;
    return test_reply(reply, kCmdDisplay);
}

extern "C" ZEL_API ZEL_STATUS Display_ShowBitmapHnd(ZEL_HANDLE hnd, const void *image, uint32_t value,
                                                    uint16_t first_position, uint16_t second_position)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    uint8_t strips[kStripsLen];
    ZEL_STATUS status = strips_then_clear(hnd, image, strips);
    if (status != ZEL_OK)
        return status;
    uint8_t frame[kFrameBufLen] = {};
    display_frame(frame, 5, kSubParams, 0);
    uint8_t ack_len = 0;
    if ((status = InitialHandshaking(hnd, frame, &ack_len)) != ZEL_OK)
        return status;
    uint8_t ext[5];
    unpack_bytes(value, &ext[0], &ext[1], &ext[2], &ext[3]);
    checksum_at(ext, 4);
    if ((status = PortWrite(hnd, ext, sizeof ext)) != ZEL_OK)
        return status;
    uint8_t reply[kFrameLen];
    (void)PortRead(hnd, reply, kFrameLen); // the module's answer to the parameters is not looked at
    return send_strips(hnd, strips, kShowPicture, first_position, second_position, StripMode::show);
}

extern "C" ZEL_API ZEL_STATUS Display_SaveBitmapToGalleryHnd(ZEL_HANDLE hnd, const void *image, uint8_t index)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (index > ZEL_DISPLAY_GALLERY_MAX)
        return ZEL_DISPLAY_INDEX_OVERFLOW;
    uint8_t strips[kStripsLen];
    const ZEL_STATUS status = strips_then_clear(hnd, image, strips);
    return status != ZEL_OK ? status : send_strips(hnd, strips, index, 0, 0, StripMode::gallery);
}

extern "C" ZEL_API ZEL_STATUS Display_SaveSystemBitmapHnd(ZEL_HANDLE hnd, const void *image, uint8_t slot)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    uint8_t strips[kStripsLen];
    const ZEL_STATUS status = strips_then_clear(hnd, image, strips);
    return status != ZEL_OK ? status : send_strips(hnd, strips, slot, 0, 0, StripMode::system);
}

extern "C" ZEL_API ZEL_STATUS Display_ShowBitmapFromGalleryHnd(ZEL_HANDLE hnd, uint8_t index)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    const ZEL_STATUS status = Display_ClearImageHnd(hnd);
    return status != ZEL_OK ? status : gallery_show(hnd, index);
}

extern "C" ZEL_API ZEL_STATUS Display_ShowLastUnsavedImageHnd(ZEL_HANDLE hnd)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    ZEL_STATUS status = Display_ClearImageHnd(hnd);
    if (status == ZEL_OK)
        status = Display_ClearImageHnd(hnd);
    return status != ZEL_OK ? status : gallery_show(hnd, ZEL_DISPLAY_LAST_UNSAVED);
}

extern "C" ZEL_API ZEL_STATUS Display_PrintTextHnd(ZEL_HANDLE hnd, const char *text, uint8_t first, uint8_t second,
                                                   uint8_t third, uint8_t fourth, uint8_t fifth)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!text)
        return ZEL_PARAMETERS_ERROR;
    const size_t n = std::strlen(text);
    std::vector<uint8_t> ext(n + 6);
    ext[0] = fourth;
    ext[1] = fifth;
    ext[2] = first;
    ext[3] = second;
    ext[4] = third;
    std::memcpy(ext.data() + 5, text, n);
    uint8_t frame[kFrameLen];
    // The length byte wraps at 256, as the module's protocol has it.
    display_frame(frame, static_cast<uint8_t>(n + 6), kSubText, 0);
    return clear_and_send(hnd, frame, ext.data());
}

extern "C" ZEL_API ZEL_STATUS Display_UserInterfaceSignalHnd(ZEL_HANDLE hnd, uint8_t signal)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    uint8_t frame[kFrameLen];
    display_frame(frame, 0, kSubSignal, signal);
    return clear_and_send(hnd, frame, nullptr);
}

extern "C" ZEL_API ZEL_STATUS Display_ShowTimeHnd(ZEL_HANDLE hnd, uint8_t hour, uint8_t minute)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    uint8_t frame[kFrameLen];
    display_frame(frame, 3, kSubTime, 0);
    uint8_t ext[3] = {hour, minute, 0};
    return clear_and_send(hnd, frame, ext);
}

extern "C" ZEL_API ZEL_STATUS Display_EraseSectionHnd(ZEL_HANDLE hnd, uint8_t first, uint8_t second, uint8_t third,
                                                      uint8_t fourth)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    uint8_t frame[kFrameLen];
    display_frame(frame, 5, kSubErase, 0);
    uint8_t ext[5] = {first, second, third, fourth, 0};
    return clear_and_send(hnd, frame, ext);
}

extern "C" ZEL_API ZEL_STATUS Display_SendBootCommandHnd(ZEL_HANDLE hnd)
{
    return boot_command(hnd, kSubBoot, 0);
}

extern "C" ZEL_API ZEL_STATUS Display_CheckBootStatusHnd(ZEL_HANDLE hnd)
{
    return boot_command(hnd, kSubBootStatus, kBootStatus);
}

extern "C" ZEL_API ZEL_STATUS Display_RebootHnd(ZEL_HANDLE hnd)
{
    return boot_command(hnd, kSubBootStatus, kBootReboot);
}

extern "C" ZEL_API ZEL_STATUS Display_EraseFlashI2CHnd(ZEL_HANDLE hnd, uint16_t address)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    uint8_t frame[kFrameBufLen] = {};
    uint8_t ext[kEraseExtLen] = {0,
                                 static_cast<uint8_t>(address >> 8),
                                 static_cast<uint8_t>(address),
                                 static_cast<uint8_t>(address >> 14),
                                 static_cast<uint8_t>(address >> 6),
                                 0};
    return boot_exchange(hnd, frame, kSubBootStatus, kBootFlashErase, ext, kEraseExtLen - 1);
}

extern "C" ZEL_API ZEL_STATUS Display_WriteFlashI2CHnd(ZEL_HANDLE hnd, const uint8_t *data, uint16_t address)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!data)
        return ZEL_PARAMETERS_ERROR;
    uint8_t frame[kFrameBufLen] = {};
    uint8_t ext[kFlashExtLen] = {};
    ext[0] = crc8(data, ZEL_DISPLAY_FLASH_BLOCK);
    ext[1] = static_cast<uint8_t>(address >> 8);
    ext[2] = static_cast<uint8_t>(address);
    std::memcpy(ext + 3, data, ZEL_DISPLAY_FLASH_BLOCK);
    return boot_exchange(hnd, frame, kSubBootStatus, kBootFlashWrite, ext, kFlashExtLen - 1);
}

extern "C" ZEL_API ZEL_STATUS ProgDisplayHnd(ZEL_HANDLE hnd, const uint8_t *data, uint16_t address)
{
    return Display_WriteFlashI2CHnd(hnd, data, address);
}

extern "C" ZEL_API ZEL_STATUS Display_GetParametersHnd(ZEL_HANDLE hnd, uint8_t *first, uint8_t *second, uint8_t *b1,
                                                       uint8_t *b2, uint8_t *b3, uint8_t *b4, uint8_t *b5)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!first || !second || !b1 || !b2 || !b3 || !b4 || !b5)
        return ZEL_PARAMETERS_ERROR;
    uint8_t frame[kFrameBufLen] = {};
    uint8_t ext[kBootExtLen] = {};
    ZEL_STATUS status = boot_exchange(hnd, frame, kSubBootStatus, kBootParams, ext, kBootExtLen - 1);
    if (status != ZEL_OK)
        return status;
    // As many bytes as the intro tells; a short answer leaves the rest of the outputs at zero.
    uint8_t data[256] = {};
    const uint8_t n = frame[kExtLen];
    if (n && (status = PortRead(hnd, data, n)) != ZEL_OK)
        return status;
    std::memcpy(first, data, 12);
    std::memcpy(second, data + 12, 8);
    *b1 = data[20];
    *b2 = data[21];
    *b3 = data[26];
    *b4 = data[27];
    *b5 = data[28];
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS Display_GetFirmwareVersionHnd(ZEL_HANDLE hnd, uint8_t *major, uint8_t *minor,
                                                            uint8_t *build)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!major || !minor || !build)
        return ZEL_PARAMETERS_ERROR;
    uint8_t frame[kFrameBufLen] = {};
    uint8_t ext[kBootExtLen] = {};
    display_frame(frame, kBootExtLen, kSubVersion, 0);
    uint8_t ack_len = 0;
    ZEL_STATUS status = InitialHandshaking(hnd, frame, &ack_len);
    if (status != ZEL_OK)
        return status;
    checksum_at(ext, kBootExtLen - 1);
    if ((status = PortWrite(hnd, ext, kBootExtLen)) != ZEL_OK)
        return status;
    (void)GetAndTestResponseIntro(hnd, frame, kCmdDisplay); // its result is not looked at
    uint8_t v[3] = {};
    if ((status = PortRead(hnd, v, sizeof v)) != ZEL_OK)
        return status;
    *major = v[0];
    *minor = v[1];
    *build = v[2];
    return ZEL_OK;
}
