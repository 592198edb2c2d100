// The BER length and tag readers on arbitrary bytes. getTlvLen reads without a bound by contract, so it is
// given a buffer with five readable bytes behind every start.
#include <cstdint>
#include <cstring>
#include <vector>

#include "tandro.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::vector<uint8_t> padded(data, data + size);
    padded.resize(size + 5, 0);
    for (size_t i = 0; i < size; ++i) {
        uint8_t lol = 0, tag_len = 0;
        uint32_t len = 0;
        if (getTlvLen(padded.data() + i, &lol, &len) && (lol < 1 || lol > 5))
            __builtin_trap();
        if (get_ber_tlv_length(padded.data() + i, &lol, &len) == ZEL_OK && (lol < 1 || lol > 3 || len > 0xFFFF))
            __builtin_trap();
        std::vector<uint8_t> exact(data + i, data + size);
        const uint32_t tag = parse_ber_tag(exact.data(), static_cast<int32_t>(exact.size()), &tag_len);
        if (tag != 0 && tag_len != 1 && tag_len != 2)
            __builtin_trap();
    }
    return 0;
}
