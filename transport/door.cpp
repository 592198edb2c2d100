// The door controller's own frame: 22 bytes, every payload nibble coded with an extended Hamming (8,4)
// code, sent to D2XX device 0 and echoed back by the controller.
#include <cstring>

#include "transport/d2xx.h"
#include "zel_frame.h"
#include "zel_ftdi.h"

namespace {
constexpr uint8_t kHamming84[16] = {0x00, 0x87, 0x99, 0x1E, 0xAA, 0x2D, 0x33, 0xB4,
                                    0x4B, 0xCC, 0xD2, 0x55, 0xE1, 0x66, 0x78, 0xFF};
constexpr uint32_t kDoorFrameLen = 22;

// Kept between calls: payload bytes 3 to 7 are never set and keep what they hold.
uint8_t g_payload[8];
uint8_t g_frame[kDoorFrameLen];
uint8_t g_echo[kDoorFrameLen];

void code_byte(uint8_t *out, uint8_t value)
{
    out[0] = kHamming84[value >> 4];
    out[1] = kHamming84[value & 0x0F];
}
} // namespace

extern "C" ZEL_API void CodeFrame(uint8_t *frame22, const uint8_t *payload8, uint32_t frame_kind)
{
    if (!frame22 || !payload8)
        return;
    frame22[0] = 0x81;
    frame22[1] = frame_kind == 1 ? 0x7E : 0x77;
    uint8_t sum = 0;
    for (int i = 0; i < 8; ++i) {
        code_byte(frame22 + 2 + 2 * i, payload8[i]);
        sum = static_cast<uint8_t>(sum + payload8[i]);
    }
    code_byte(frame22 + 18, static_cast<uint8_t>(sum + 7));
    frame22[20] = 0xBD;
    frame22[21] = 0xDB;
}

extern "C" ZEL_API int VRT_SendCommand(uint8_t command, uint32_t frame_kind, uint8_t parameter)
{
    g_payload[0] = command;
    g_payload[1] = parameter;
    g_payload[2] = 0;
    CodeFrame(g_frame, g_payload, frame_kind);
    const zel::D2xxTable &ft = zel::d2xx();
    if (!ft.FT_Purge || !ft.FT_Write || !ft.FT_Read)
        return 0;
    void *const device0 = nullptr;
    ft.FT_Purge(device0, zel::FT_PURGE_RX | zel::FT_PURGE_TX);
    if (ftdi_write(device0, g_frame, kDoorFrameLen) != 0)
        return 0;
    if (ftdi_read(device0, g_echo, kDoorFrameLen) != 0)
        return 0;
    // The frame kind in byte 1 is not compared.
    return g_echo[0] == g_frame[0] && std::memcmp(g_echo + 2, g_frame + 2, kDoorFrameLen - 2) == 0;
}

extern "C" ZEL_API int VRT_ReceiveAnswerBoot(void)
{
    return 0;
}
