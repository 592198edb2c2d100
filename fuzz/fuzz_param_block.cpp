// The reader's parameter block on arbitrary bytes: both decoders on a buffer of exactly the input's size,
// and the whole reply (frame, EXT, checksum) through the identity operations that read it. The first input
// byte picks the path; the rest is the block, or what the reader sends.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/frame.h"
#include "core/internal.h"
#include "fuzz_link.h"
#include "reader/params.h"
#include "tandro.h"

namespace {

// Traps unless a decoded block keeps within what the caller's buffers hold.
void check(const zel::ReaderParams &p, bool from_end)
{
    if (p.mui_len > ZEL_MUI_MAX_LEN)
        __builtin_trap();
    if (from_end && p.hw_type == zel::kHwTypeEsp && p.mui_len != 6)
        __builtin_trap();
}

// A well-formed reply around the block, so that the decoders behind the frame tests are reached often.
std::vector<uint8_t> reply_around(uint8_t cmd, const uint8_t *block, size_t len)
{
    if (len > 254)
        len = 254;
    std::vector<uint8_t> out = {0xDE, cmd, 0xED, static_cast<uint8_t>(len + 1), 0, 0, 0};
    uint8_t x = 0;
    for (int i = 0; i < 6; ++i)
        x ^= out[i];
    out[6] = static_cast<uint8_t>(x + 7);
    out.insert(out.end(), block, block + len);
    x = 0;
    for (size_t i = 0; i < len; ++i)
        x ^= block[i];
    out.push_back(static_cast<uint8_t>(x + 7));
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    const uint8_t mode = data[0];
    // The decoders read from an exact copy, so a read past the block is caught.
    std::vector<uint8_t> block(data + 1, data + size);
    zel::ReaderParams p{};
    if (zel::decode_parameter_block(block.data(), static_cast<uint32_t>(block.size()), &p) == ZEL_OK)
        check(p, true);
    if (zel::decode_parameter_block2(block.data(), static_cast<uint32_t>(block.size()), &p) == ZEL_OK)
        check(p, false);

    // The operations on a scripted link: raw reader bytes, or the block wrapped in a good reply.
    const uint8_t cmd = (mode & 0x40) ? 0xF1 : 0xF0;
    std::vector<uint8_t> wire =
        (mode & 0x80) ? std::vector<uint8_t>(data + 1, data + size) : reply_around(cmd, data + 1, size - 1);
    zelfuzz::FuzzLink link(wire.data(), wire.size());
    zel_handle_record &rec = link.record;

    // Out buffers of exactly the documented sizes.
    uint8_t *mui = static_cast<uint8_t *>(std::malloc(ZEL_MUI_MAX_LEN));
    uint64_t serial = 0;
    uint8_t hw_type = 0, hw_ver = 0, major = 0, minor = 0, build = 0;
    uint32_t device_type = 0;
    switch (mode % 4) {
    case 0: GetReaderParametersHnd(&rec, mui, &serial, &hw_type, &hw_ver, &device_type, &major, &minor, &build); break;
    case 1: GetReaderParameters2Hnd(&rec, mui, &serial, &hw_type, &hw_ver, &device_type, &major, &minor, &build); break;
    case 2:
        GetReaderParametersDefaultBaudrateHnd(&rec, mui, &serial, &hw_type, &hw_ver, &device_type, &major, &minor,
                                              &build);
        break;
    default: {
        const char *text = nullptr;
        GetReaderInfoStrHnd(&rec, &text);
        if (text && std::strlen(text) >= 512)
            __builtin_trap();
        break;
    }
    }
    std::free(mui);
    return 0;
}
