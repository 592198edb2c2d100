// Programming a reader in its boot loader: the boot entry and its greeting, 128-byte packets (whole, or in
// 64-byte reports each acknowledged by one byte), 4,096-byte stream packets, and the NFC processor's
// protection, parameters and test.
#include <cstring>

#include "core/frame.h"
#include "zel_frame.h"
#include "zel_port.h"
#include "zel_prog.h"
#include "zel_status.h"

using namespace zel;

namespace {

constexpr uint8_t kCmdBoot = 0x06, kCmdProtect = 0x07, kCmdParams = 0x08, kCmdTest = 0x09, kCmdProg = 0xF2;
constexpr uint8_t kGreeting[4] = {0x03, 0x55, 0x55, 0xBB};
constexpr uint32_t kPacketExtLen = ZEL_PROG_PACKET_LEN + 1;
constexpr uint32_t kReport = 64;
constexpr uint8_t kImageVerified = 0xC0;
constexpr uint32_t kGreetingReads = 3;
constexpr uint32_t kFirstPacketReads = 4, kFirstPacketReadsUsb = 3;
constexpr uint32_t kStreamFirstTimeoutMs = 21000, kStreamTimeoutMs = 4000;
constexpr uint32_t kParamsOffsetMode = 124;

// A handshake that fails during programming closes the port: the caller opens it again.
ZEL_STATUS handshake_or_close(ZEL_HANDLE hnd, uint8_t *frame)
{
    uint8_t ext_len = 0;
    const ZEL_STATUS status = InitialHandshaking(hnd, frame, &ext_len);
    if (status != ZEL_OK)
        (void)PortClose(hnd);
    return status;
}

// The 129-byte EXT: 128 bytes and (XOR of them) + 7.
void packet_ext(const uint8_t *data, uint8_t *ext)
{
    std::memcpy(ext, data, ZEL_PROG_PACKET_LEN);
    ext[ZEL_PROG_PACKET_LEN] = static_cast<uint8_t>(GetChecksumFragment(0, data, ZEL_PROG_PACKET_LEN) + 7);
}

// The EXT in two 64-byte reports and its checksum alone, each answered by one byte: 1, 2, 3.
ZEL_STATUS write_in_reports(ZEL_HANDLE hnd, const uint8_t *ext)
{
    const uint32_t offsets[3] = {0, kReport, 2 * kReport};
    const uint32_t lengths[3] = {kReport, kReport, 1};
    for (uint8_t i = 0; i < 3; ++i) {
        ZEL_STATUS status = PortWrite(hnd, ext + offsets[i], lengths[i]);
        if (status != ZEL_OK)
            return status;
        uint8_t answer = 0;
        if ((status = PortRead(hnd, &answer, 1)) != ZEL_OK)
            return status;
        if (answer != i + 1)
            return ZEL_COMMUNICATION_ERROR;
    }
    return ZEL_OK;
}

// The reply to a packet, read again while it does not come, up to reads times.
ZEL_STATUS packet_reply(ZEL_HANDLE hnd, uint8_t *frame, uint32_t reads)
{
    ZEL_STATUS status = ZEL_COMMUNICATION_BREAK;
    for (uint32_t i = 0; i < reads; ++i) {
        status = GetAndTestResponseIntro(hnd, frame, kCmdProg);
        if (status != ZEL_COMMUNICATION_BREAK)
            break;
    }
    return status;
}

ZEL_STATUS prog(ZEL_HANDLE hnd, const uint8_t *data, uint16_t packet, uint8_t start, uint8_t *crc_correct, bool usb)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!crc_correct || (!start && !data))
        return ZEL_PARAMETERS_ERROR;
    *crc_correct = 0;
    uint8_t frame[kFrameBufLen] = {};
    if (start) {
        make_command(frame, kCmdProg);
        return handshake_or_close(hnd, frame);
    }
    make_command(frame, kCmdProg, kPacketExtLen, static_cast<uint8_t>(packet), static_cast<uint8_t>(packet >> 8));
    ZEL_STATUS status = handshake_or_close(hnd, frame);
    if (status != ZEL_OK)
        return status;
    uint8_t ext[kPacketExtLen];
    packet_ext(data, ext);
    status = usb ? write_in_reports(hnd, ext) : PortWrite(hnd, ext, kPacketExtLen);
    if (status != ZEL_OK)
        return status;
    const uint32_t reads = packet != 0 ? 1 : usb ? kFirstPacketReadsUsb : kFirstPacketReads;
    if ((status = packet_reply(hnd, frame, reads)) != ZEL_OK)
        return status;
    if (frame[kExtLen] == 2) {
        uint8_t tail[2] = {};
        if ((status = PortRead(hnd, tail, sizeof tail)) != ZEL_OK)
            return status;
        *crc_correct = tail[0] == kImageVerified ? 1 : 0;
    }
    return ZEL_OK;
}

ZEL_STATUS prog_stream(ZEL_HANDLE hnd, const uint8_t *data, uint16_t packet)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!data)
        return ZEL_PARAMETERS_ERROR;
    // A socket has no read time-out to set (4096): the packet goes all the same.
    (void)PortSetTimeout(hnd, packet == 0 ? kStreamFirstTimeoutMs : kStreamTimeoutMs);
    ZEL_STATUS status = PortWrite(hnd, data, ZEL_PROG_STREAM_PACKET_LEN);
    if (status != ZEL_OK)
        return status;
    uint8_t frame[kFrameBufLen] = {};
    if ((status = GetAndTestResponseIntro(hnd, frame, kCmdProg)) != ZEL_OK)
        return status;
    const uint16_t got = static_cast<uint16_t>(frame[kPar0] | frame[kPar1] << 8);
    return got == packet ? ZEL_OK : ZEL_COMMUNICATION_ERROR;
}

ZEL_STATUS write_params(ZEL_HANDLE hnd, const uint8_t *first, const uint8_t *second, uint8_t third, uint8_t fourth,
                        const uint32_t *fifth, uint8_t product, bool usb)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!product && (!first || !second))
        return ZEL_PARAMETERS_ERROR;
    uint8_t frame[kFrameBufLen] = {};
    make_command(frame, kCmdParams, kPacketExtLen);
    ZEL_STATUS status = handshake_or_close(hnd, frame);
    if (status != ZEL_OK)
        return status;
    uint8_t ext[kPacketExtLen] = {};
    if (product) {
        std::memcpy(ext + kParamsOffsetMode, "PROD", 4);
    } else {
        std::memcpy(ext, first, 16);
        std::memcpy(ext + 16, second, 8);
        ext[24] = third;
        ext[25] = fourth;
        const uint32_t v = fifth ? *fifth : 0;
        for (int i = 0; i < 4; ++i)
            ext[26 + i] = static_cast<uint8_t>(v >> (8 * i));
        std::memcpy(ext + kParamsOffsetMode, "LOCK", 4);
    }
    ext[ZEL_PROG_PACKET_LEN] = static_cast<uint8_t>(GetChecksumFragment(0, ext, ZEL_PROG_PACKET_LEN) + 7);
    status = usb ? write_in_reports(hnd, ext) : PortWrite(hnd, ext, kPacketExtLen);
    if (status != ZEL_OK)
        return status;
    if ((status = PortRead(hnd, frame, kFrameLen)) != ZEL_OK)
        return status;
    if (!TestChecksum(frame, kFrameLen))
        return ZEL_COMMUNICATION_ERROR;
    if (frame[kHeader] == kErrHeader || frame[kTrailer] == kErrTrailer)
        return frame[kCmd];
    if (frame[kHeader] == kRspHeader && frame[kTrailer] == kRspTrailer)
        return frame[kCmd] == kCmdParams ? ZEL_OK : ZEL_COMMUNICATION_ERROR;
    return ZEL_COMMUNICATION_ERROR;
}

bool greeting_at(const uint8_t *bytes, uint32_t offset)
{
    return std::memcmp(bytes + offset, kGreeting, sizeof kGreeting) == 0;
}

} // namespace

extern "C" ZEL_API ZEL_STATUS BootReaderHnd(ZEL_HANDLE hnd)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    uint8_t frame[kFrameBufLen] = {};
    make_command(frame, kCmdBoot, 0, 0xAA, 0xCC);
    uint8_t ext_len = 0;
    ZEL_STATUS status = InitialHandshaking(hnd, frame, &ext_len);
    bool owed = true;
    if (status == ZEL_COMMUNICATION_ERROR) {
        // The boot loader may have answered at once: its greeting somewhere in the seven bytes.
        for (uint32_t offset = 0; offset + sizeof kGreeting <= kFrameLen && owed; ++offset)
            owed = !greeting_at(frame, offset);
        if (owed) {
            (void)PortClose(hnd);
            return status;
        }
    } else if (status != ZEL_OK) {
        (void)PortClose(hnd);
        return status;
    }
    uint8_t greeting[sizeof kGreeting] = {};
    for (uint32_t i = 0; i < kGreetingReads; ++i) {
        status = PortRead(hnd, greeting, sizeof greeting);
        if (status != ZEL_COMMUNICATION_BREAK)
            break;
    }
    if (status != ZEL_OK)
        return status;
    if (owed && !greeting_at(greeting, 0)) {
        (void)PortClose(hnd);
        return ZEL_COMMUNICATION_ERROR;
    }
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS ProgReaderHnd(ZEL_HANDLE hnd, const uint8_t *data, uint16_t packet, uint8_t start,
                                            uint8_t *crc_correct)
{
    return prog(hnd, data, packet, start, crc_correct, false);
}

extern "C" ZEL_API ZEL_STATUS ProgReaderUsbHnd(ZEL_HANDLE hnd, const uint8_t *data, uint16_t packet, uint8_t start,
                                               uint8_t *crc_correct)
{
    return prog(hnd, data, packet, start, crc_correct, true);
}

extern "C" ZEL_API ZEL_STATUS ProgReaderStreamUsbHnd(ZEL_HANDLE hnd, const uint8_t *data, uint16_t packet)
{
    return prog_stream(hnd, data, packet);
}

extern "C" ZEL_API ZEL_STATUS ProgEspHnd(ZEL_HANDLE hnd, const uint8_t *data, uint16_t packet)
{
    return prog_stream(hnd, data, packet);
}

extern "C" ZEL_API ZEL_STATUS PN7462_CodeProtectHnd(ZEL_HANDLE hnd)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    uint8_t frame[kFrameBufLen] = {};
    make_command(frame, kCmdProtect);
    return handshake_or_close(hnd, frame);
}

extern "C" ZEL_API ZEL_STATUS PN7462_TestHnd(ZEL_HANDLE hnd, uint8_t value)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    uint8_t frame[kFrameBufLen] = {};
    make_command(frame, kCmdTest, 0, value);
    return handshake_or_close(hnd, frame);
}

extern "C" ZEL_API ZEL_STATUS PN7462_WriteParamsHnd(ZEL_HANDLE hnd, const uint8_t *first, const uint8_t *second,
                                                    uint8_t third, uint8_t fourth, const uint32_t *fifth,
                                                    uint8_t product)
{
    return write_params(hnd, first, second, third, fourth, fifth, product, false);
}

extern "C" ZEL_API ZEL_STATUS PN7462_WriteParamsUsbHnd(ZEL_HANDLE hnd, const uint8_t *first, const uint8_t *second,
                                                       uint8_t third, uint8_t fourth, const uint32_t *fifth,
                                                       uint8_t product)
{
    return write_params(hnd, first, second, third, fourth, fifth, product, true);
}

extern "C" ZEL_API ZEL_STATUS PN7462_LpcdCalibrationHnd(ZEL_HANDLE)
{
    return ZEL_NOT_IMPLEMENTED;
}

extern "C" ZEL_API ZEL_STATUS PN7462_LpcdPerformHnd(ZEL_HANDLE)
{
    return ZEL_NOT_IMPLEMENTED;
}

extern "C" ZEL_API ZEL_STATUS PN7462_RfOnOffHnd(ZEL_HANDLE, uint8_t)
{
    return ZEL_NOT_IMPLEMENTED;
}

extern "C" ZEL_API ZEL_STATUS PN7462_RfOffHnd(ZEL_HANDLE hnd)
{
    return PN7462_RfOnOffHnd(hnd, 1);
}

extern "C" ZEL_API ZEL_STATUS PN7462_RfOnHnd(ZEL_HANDLE hnd)
{
    return PN7462_RfOnOffHnd(hnd, 0);
}

extern "C" ZEL_API ZEL_STATUS PN7462_ExtFieldHnd(ZEL_HANDLE)
{
    return ZEL_NOT_IMPLEMENTED;
}

extern "C" ZEL_API ZEL_STATUS PN7462_ESP32_boot_initHnd(ZEL_HANDLE)
{
    return ZEL_NOT_IMPLEMENTED;
}
