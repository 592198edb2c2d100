// Memory card replies against arbitrary reader bytes: chunked linear reads into a buffer of exactly the
// length asked for (with the multi-block stream a reply may switch to), block reads and value reads.
#include <cstdlib>
#include <cstring>

#include "card/memory_frames.h"
#include "fuzz_link.h"
#include "tandro.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 3)
        return 0;
    const uint16_t len = static_cast<uint16_t>(data[1] | (data[2] & 0x0F) << 8);
    zelfuzz::FuzzLink link(data + 3, size - 3);
    ZEL_HANDLE h = &link.record;
    switch (data[0] % 4) {
    case 0: {
        auto *out = static_cast<uint8_t *>(std::malloc(len ? len : 1));
        uint16_t got = 0;
        LinearReadM(h, out, 0, len, &got, 0x60, 0);
        std::free(out);
        break;
    }
    case 1: {
        auto *out = static_cast<uint8_t *>(std::malloc(len ? len : 1));
        uint16_t got = 0;
        zel::read_linear_stream(h, out, len, &got);
        std::free(out);
        break;
    }
    case 2: {
        auto *block = static_cast<uint8_t *>(std::malloc(16));
        BlockReadM(h, block, 4, 0x60, 0);
        std::free(block);
        break;
    }
    case 3: {
        int32_t value = 0;
        uint8_t addr = 0;
        ValueBlockReadM(h, &value, &addr, 4, 0x60, 0);
        const uint8_t d[16] = {};
        uint16_t written = 0;
        LinearWriteM(h, d, 0, 16, &written, 0x60, 0);
        break;
    }
    }
    return 0;
}
