// Retrying D2XX reads and writes, used off the port layer.
#include <cstring>

#include "transport/d2xx.h"
#include "zel_ftdi.h"

namespace {
constexpr int kTries = 4;
}

extern "C" ZEL_API int ftdi_write(void *device, const uint8_t *buffer, uint32_t count)
{
    const zel::D2xxTable &ft = zel::d2xx();
    if (!ft.FT_Write || (!buffer && count))
        return -static_cast<int>(count);
    zel::FT_STATUS status = zel::FT_OK;
    for (int i = 0; i < kTries; ++i) {
        uint32_t written = 0;
        status = ft.FT_Write(device, const_cast<uint8_t *>(buffer), count, &written);
        if (status == zel::FT_OK)
            return written >= count ? 0 : static_cast<int>(written) - static_cast<int>(count);
    }
    return static_cast<int>(status);
}

extern "C" ZEL_API int ftdi_read(void *device, uint8_t *buffer, uint32_t count)
{
    const zel::D2xxTable &ft = zel::d2xx();
    if (!buffer)
        return -static_cast<int>(count);
    std::memset(buffer, 0, count);
    if (!ft.FT_Read)
        return -static_cast<int>(count);
    zel::FT_STATUS status = zel::FT_OK;
    for (int i = 0; i < kTries; ++i) {
        uint32_t got = 0;
        status = ft.FT_Read(device, buffer, count, &got);
        if (got > count)
            got = count;
        if (got > 0)
            return got == count ? 0 : static_cast<int>(got) - static_cast<int>(count);
    }
    return status != zel::FT_OK ? static_cast<int>(status) : -static_cast<int>(count);
}
