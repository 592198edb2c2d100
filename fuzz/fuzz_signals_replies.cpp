// The reply readers of the signal, RF register, secure element and feature operations against arbitrary
// reader bytes. The first input byte picks the operation and the caller's buffer size; every buffer is
// allocated at exactly the size the caller announces, so a write past it is caught.
#include <cstdlib>
#include <cstring>

#include "core/internal.h"
#include "fuzz_link.h"
#include "tandro.h"

namespace {

uint8_t *exact(size_t n)
{
    return static_cast<uint8_t *>(std::malloc(n ? n : 1));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    const uint8_t op = data[0] % 14;
    const uint32_t cap = data[0] / 14 + 1; // 1 to 19: small buffers catch overruns
    zel::set_sleep_hook([](uint32_t) {});
    zelfuzz::FuzzLink link(data + 1, size - 1);
    ZEL_HANDLE h = &link.record;
    uint8_t v[9];
    uint32_t len = cap;
    uint8_t *buf = nullptr;
    switch (op) {
    case 0: GetRfAnalogRegistersTypeAM(h, v, v + 1, v + 2, v + 3, v + 4); break;
    case 1: GetRfAnalogRegistersTypeATransM(h, v, v + 1, v + 2, v + 3, v + 4, v + 5, v + 6, v + 7, v + 8); break;
    case 2: GetRfAnalogRegistersISO14443_212M(h, v, v + 1, v + 2, v + 3, v + 4); break;
    case 3: GetRfAnalogRegistersPN7462M(h, v, v + 1, v + 2, v + 3, v + 4); break;
    case 4:
        buf = exact(cap);
        GetATECC608SettingsM(h, 0x80, 0, v, v + 1, buf, &len);
        break;
    case 5:
        buf = exact(128);
        GetATECC608ConfigZoneM(h, buf);
        break;
    case 6:
        buf = exact(cap);
        GetFeaturesSetupM(h, 129, buf, &len);
        break;
    case 7:
        buf = exact(cap);
        GetMobileUniqueIdAidM(h, buf, &len);
        break;
    case 8:
        len = 32 + cap;
        buf = exact(len);
        GetMobileAdditionalDataM(h, buf, &len);
        break;
    case 9:
        buf = exact(cap);
        GetI2cDevicesM(h, buf, &len);
        break;
    case 10:
        buf = exact(4);
        GetServiceDataM(h, buf);
        break;
    case 11: GetReaderLockStatusM(h, v); break;
    case 12:
        link.record.ee_route = 1;
        GetDisplayIntensityM(h, v);
        break;
    default: ZelVrtGetIoStateM(h, v, v + 1); break;
    }
    std::free(buf);
    zel::set_sleep_hook(nullptr);
    return 0;
}
