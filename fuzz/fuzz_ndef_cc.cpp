// Capability containers: the four bytes of Type 2 and ISO 15693 tags, and the Type 4 container file.
#include <cstdlib>

#include "ndef/ndef_internal.h"
#include "zel_ndef.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size >= 4) {
        uint8_t major = 0, minor = 0, r = 0, w = 0;
        uint32_t area = 0;
        const ZEL_STATUS st = NDEF_ParseCC(data, &major, &minor, &area, &r, &w);
        if ((st == ZEL_OK) != (data[0] == 0xE1) || area > 255 * 8 || r > 1 || w > 1)
            std::abort();
    }
    zel::ndef::T4Cc cc;
    if (zel::ndef::parse_t4_cc(data, size, cc) && (cc.max_size < 5 || cc.max_size > 65534 || cc.mle < 15 || !cc.mlc))
        std::abort();
    return 0;
}
