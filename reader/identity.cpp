// The reader's identity.
#include <cstring>

#include "core/frame.h"
#include "zel_reader.h"
#include "zel_status.h"

using namespace zel;

namespace {
constexpr uint8_t kCmdGetReaderType = 0x10;

uint32_t le32(const uint8_t *p)
{
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}
} // namespace

extern "C" ZEL_API ZEL_STATUS GetReaderTypeHnd(ZEL_HANDLE hnd, uint32_t *reader_type)
{
    uint8_t buf[kFrameBufLen] = {};
    uint8_t par[2];
    uint8_t ext_len = 0;
    make_command(buf, kCmdGetReaderType);
    const ZEL_STATUS status = exchange_read_ext(hnd, buf, par, &ext_len);
    if (status != ZEL_OK)
        return status;
    if (ext_len < 5)
        return ZEL_COMMUNICATION_ERROR; // no room for the type in front of the checksum
    if (reader_type)
        *reader_type = le32(buf);
    return ZEL_OK;
}
