// The display module's and the boot loader's answers from arbitrary reader bytes. The first input byte picks the
// operation; the outputs sit in buffers of exactly their announced size, so a write past one is caught.
#include <cstdlib>
#include <cstring>

#include "core/internal.h"
#include "fuzz_link.h"
#include "tandro.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    const uint8_t op = data[0] % 12;
    zel::set_sleep_hook([](uint32_t) {});
    zelfuzz::FuzzLink link(data + 1, size - 1);
    ZEL_HANDLE h = &link.record;
    auto *first = static_cast<uint8_t *>(std::malloc(12));
    auto *second = static_cast<uint8_t *>(std::malloc(8));
    uint8_t v[5] = {};
    uint8_t bitmap[1024];
    std::memset(bitmap, 0x5A, sizeof bitmap);
    uint8_t packet[4096] = {};
    switch (op) {
    case 0: Display_GetParametersHnd(h, first, second, v, v + 1, v + 2, v + 3, v + 4); break;
    case 1: Display_GetFirmwareVersionHnd(h, v, v + 1, v + 2); break;
    case 2: Display_ShowBitmapHnd(h, bitmap, 1, 2, 3); break;
    case 3: Display_SaveSystemBitmapHnd(h, bitmap, 20); break;
    case 4: Display_PrintTextHnd(h, "fuzz", 1, 2, 3, 4, 5); break;
    case 5: Display_ShowLastUnsavedImageHnd(h); break;
    case 6: Display_WriteFlashI2CHnd(h, packet, 0x100); break;
    case 7: BootReaderHnd(h); break;
    case 8: ProgReaderHnd(h, packet, 0, 0, v); break;
    case 9: ProgReaderUsbHnd(h, packet, 3, 0, v); break;
    case 10: ProgEspHnd(h, packet, 1); break;
    default: PN7462_WriteParamsHnd(h, packet, packet, 1, 2, nullptr, 0); break;
    }
    std::free(first);
    std::free(second);
    zel::set_sleep_hook(nullptr);
    return 0;
}
