// Raw mode and the contact interface against arbitrary reader bytes: bytes to the card through the front
// end (into a buffer of exactly the documented 254 bytes), the raw transceive mode with its exchanges and its
// way out, and the ATR of the ISO 7816 interface into a buffer of exactly the size the caller gives.
#include <cstdlib>
#include <cstring>

#include "core/internal.h"
#include "fuzz_link.h"
#include "tandro.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2 || size > 20000)
        return 0;
    zelfuzz::QuickTime quick(50);
    {
        zelfuzz::FuzzLink link(data + 2, size - 2);
        ZEL_HANDLE h = &link.record;
        const uint8_t pick = data[0], arg = data[1];
        static const uint8_t kSend[8] = {0x26, 0x93, 0x20, 0x30, 0x04, 0xA2, 0x05, 0x00};
        switch (pick % 4) {
        case 0: {
            auto *recv = static_cast<uint8_t *>(std::malloc(254));
            uint32_t n = 0;
            const ZEL_STATUS st = (pick & 4) ? pn512_transceiveHnd(h, 1, 0, 1, 0, 1, arg, kSend, arg % 9, recv, &n)
                                             : card_transceiveHnd(h, 0, 1, 0, 1, 0, arg, kSend, arg % 9, recv, &n);
            if (n > 254 || (st != ZEL_OK && n != 0))
                std::abort();
            std::free(recv);
            break;
        }
        case 1: {
            // Into raw mode, exchanges straight with the card, and out again.
            const uint32_t cap = arg;
            auto *recv = static_cast<uint8_t *>(std::malloc(cap ? cap : 1));
            (void)card_transceive_mode_startHnd(h, pick & 4, pick & 8, arg, 50);
            for (int i = 0; i < 1 + (pick >> 4 & 3); ++i) {
                uint32_t n = 0;
                uart_transceiveHnd(h, kSend, 1 + i, recv, cap, &n);
                if (n > cap)
                    std::abort();
            }
            (void)card_transceive_mode_stopHnd(h);
            std::free(recv);
            break;
        }
        case 2:
        case 3: {
            const uint32_t cap = arg % 40;
            auto *atr = static_cast<uint8_t *>(std::malloc(cap ? cap : 1));
            uint32_t n = cap;
            const ZEL_STATUS st =
                pick % 4 == 2 ? open_ISO7816_interfaceHnd(h, atr, &n) : Open_ISO7816_GenericHnd(h, atr, &n);
            if (st == ZEL_OK && n > cap)
                std::abort();
            if (pick & 4) {
                APDU_switch_to_ISO7816_interfaceHnd(h);
                APDU_switch_to_ISO14443_4_interfaceHnd(h);
                close_ISO7816_interface_APDU_ISO14443_4Hnd(h);
            } else {
                APDU_switch_off_from_ISO7816_interfaceHnd(h);
                close_ISO7816_interface_no_APDUHnd(h);
            }
            std::free(atr);
            break;
        }
        }
    }
    return 0;
}
