// An ESP front's address answer and the reader list's text fields: whatever the bytes, no overrun, and an
// accepted address is a short dotted text that parses again to itself.
#include <cstring>

#include "readers/readers_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    char out[32];
    if (zel::readers::address_from_reply(data, size, out, sizeof out)) {
        const size_t n = std::strlen(out);
        if (n == 0 || n >= zel::readers::kAddressReplyMax || std::strspn(out, "0123456789.:") != n)
            __builtin_trap();
        char line[40], again[32];
        std::memcpy(line, out, n);
        line[n] = '\n';
        if (!zel::readers::address_from_reply(reinterpret_cast<const uint8_t *>(line), n + 1, again, sizeof again) ||
            std::strcmp(out, again) != 0)
            __builtin_trap();
    }
    char field[16];
    zel::readers::copy_field(field, sizeof field, reinterpret_cast<const char *>(data), size);
    for (size_t i = 0; field[i]; ++i)
        if (i >= sizeof field - 1 || field[i] < 0x20 || field[i] > 0x7E)
            __builtin_trap();
    return 0;
}
