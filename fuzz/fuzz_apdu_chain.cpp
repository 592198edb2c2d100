// Arbitrary reader bytes as the answer to the APDU operations that assemble chained replies: the plain
// exchange into a buffer and to the heap, the case builder with its status word, the text form, the ATS
// and ATR readers. The first input byte picks the operation and its sizes; the rest is what the reader sends.
#include <cstdlib>
#include <cstring>

#include "core/frame.h"
#include "core/internal.h"
#include "fuzz_link.h"
#include "tandro.h"

namespace {

uint32_t fake_now = 0;
uint32_t fake_tick()
{
    return fake_now += 50;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    zelfuzz::FuzzLink link(data + 1, size - 1);
    zel::set_tick_hook(fake_tick);
    zel_handle_record &rec = link.record;

    static uint8_t cmd[4 + 31 * 20];
    for (size_t i = 0; i < sizeof cmd; ++i)
        cmd[i] = static_cast<uint8_t>(i);
    const uint8_t pick = data[0];
    switch (pick % 7) {
    case 0: {
        static uint8_t reply[ZEL_APDU_MAX_COMMAND];
        uint32_t n = 0;
        APDUPlainTransceiveM(&rec, cmd, 4 + (pick >> 3) * 20u, reply, &n);
        if (n > sizeof reply)
            std::abort();
        break;
    }
    case 1: {
        uint8_t *reply = nullptr;
        uint32_t n = 0;
        if (APDUPlainTransceiveToHeapM(&rec, cmd, 300, &reply, &n) != ZEL_OK && (reply || n))
            std::abort();
        OrbFree(reply);
        break;
    }
    case 2:
    case 3: {
        // The caller's buffer is exactly Ne: a larger reply must be refused before the copy.
        const uint32_t want = (pick >> 3) * 9u;
        uint8_t *out = static_cast<uint8_t *>(std::malloc(want ? want : 1));
        uint32_t ne = want;
        uint16_t sw = 0;
        const ZEL_STATUS st = pick % 7 == 2
                                  ? APDUTransceiveM(&rec, 0, 0xB0, 0, 0, nullptr, 0, out, &ne, 1, &sw)
                                  : APDUTransceiveForceExtendedM(&rec, 0, 0xB0, 0, 0, nullptr, 0, out, &ne, 1, &sw);
        if (st == ZEL_OK && ne > want)
            std::abort();
        std::free(out);
        break;
    }
    case 4: {
        char *text = nullptr;
        if (APDUHexStrTransceiveM(&rec, "00B0000000", &text) == ZEL_OK && std::strlen(text) >= ZEL_APDU_HEX_MAX_REPLY)
            std::abort();
        break;
    }
    case 5: {
        uint8_t ats[32], uid[10], al = 0, ul = 0, sak = 0;
        SetISO14443_4_Mode_GetATSM(&rec, ats, &al, uid, &ul, &sak);
        break;
    }
    default: {
        uint8_t atr[16];
        uint32_t n = (pick >> 3) % 17;
        const uint32_t cap = n;
        if (open_ISO7816_interfaceM(&rec, atr, &n) == ZEL_OK && n > cap)
            std::abort();
        break;
    }
    }
    zel::set_tick_hook(nullptr);
    return 0;
}
