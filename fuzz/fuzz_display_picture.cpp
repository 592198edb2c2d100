// Picture files for the display module: PNG, JPEG and BMP from arbitrary bytes, JPEG through libjpeg-turbo
// (whose errors must come back as statuses, never end the process) and the others through stb_image. The
// size is read first and a picture larger than the display is refused before decoding, so decoding bombs
// cost nothing.
#include <cstddef>
#include <cstdint>

#include "display/display_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    uint8_t strips[zel::disp::kStripsLen];
    (void)zel::disp::picture_from_memory(data, size, strips);
    return 0;
}
