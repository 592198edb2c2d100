// The EF.COM walk on arbitrary files: it ends, and its tag list lies inside the file.
#include <cstdint>
#include <vector>

#include "tandro.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::vector<uint8_t> exact(data, data + size);
    uint8_t *tags = nullptr;
    uint8_t count = 0;
    const ZEL_STATUS st = MRTDGetDGTagListFromCOM(exact.data(), uint32_t(size), &tags, &count);
    if (st == ZEL_OK) {
        if (count > 16 || (tags == nullptr) || tags < exact.data() || tags + count > exact.data() + size)
            __builtin_trap();
        for (uint8_t i = 0; i < count; ++i)
            (void)MRTDGetDgName(tags[i]);
    } else if (tags != nullptr || count != 0) {
        __builtin_trap();
    }
    return 0;
}
