// The record chain of a Type 4 NDEF file, walked by header reads: the file is the input (NLEN first), reads
// past its end fail as a card would refuse them.
#include <cstdlib>
#include <cstring>

#include "ndef/ndef_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2 || size > 0x10000)
        return 0;
    const uint32_t nlen = static_cast<uint32_t>(data[0]) << 8 | data[1];
    auto read = [data, size](uint32_t off, uint32_t n, uint8_t *out) {
        if (off > size || n > 8)
            return -1;
        const uint32_t k = n < size - off ? n : static_cast<uint32_t>(size - off);
        std::memcpy(out, data + off, k);
        return static_cast<int>(k);
    };
    std::vector<uint32_t> offs;
    std::vector<uint8_t> flags;
    if (zel::ndef::t4_walk(read, nlen, offs, flags) == ZEL_OK) {
        if (offs.size() != flags.size())
            std::abort();
        for (size_t i = 0; i < offs.size(); ++i)
            if (offs[i] < 2 || offs[i] >= 2 + nlen || (i && offs[i] <= offs[i - 1]))
                std::abort();
    }
    return 0;
}
