// The face (DG2) and signature (DG7) image extraction on arbitrary files: each ends, and an image it finds
// lies inside the file; the JSON member of a found image is built without fault.
#include <cstdint>
#include <vector>

#include "tandro.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > 0x7FFFFFFF)
        return 0;
    const std::vector<uint8_t> exact(data, data + size);
    for (int group = 0; group < 2; ++group) {
        const uint8_t *image = nullptr;
        uint32_t len = 0, format = 0;
        const ZEL_STATUS st = group == 0 ? MRTDGetImageFromDG2(exact.data(), int32_t(size), &image, &len, &format)
                                         : MRTDGetImageFromDG7(exact.data(), int32_t(size), &image, &len, &format);
        if (st == ZEL_OK) {
            if (image == nullptr || image < exact.data() || image + len > exact.data() + size)
                __builtin_trap();
            if (group == 0 && format > 1)
                __builtin_trap();
            char *json = nullptr;
            parse_dg_image_to_JSON(group == 0 ? 0x75 : 0x67, exact.data(), uint32_t(size), &json, uint8_t(size & 1));
            OrbFree(json);
        } else if (image != nullptr || len != 0) {
            __builtin_trap();
        }
    }
    return 0;
}
