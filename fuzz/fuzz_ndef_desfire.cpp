// The payload reader of a DESFire card's NDEF message: the record's lengths against the message and the
// caller's buffer, which is allocated to its exact size so that a byte past it is caught.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "ndef/ndef_internal.h"
#include "zel_ndef.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1 || size > 12000)
        return 0;
    // The first byte chooses the caller's buffer size for the sized form; the rest is the message.
    const uint32_t cap = 1u + data[0] * 3u;
    const uint8_t *msg = data + 1;
    const uint32_t len = static_cast<uint32_t>(size - 1);

    std::vector<char> sized(cap);
    uint32_t out = cap;
    ZEL_STATUS st = zel::ndef::desfire_payload(msg, len, sized.data(), out, true);
    if (st == ZEL_OK && (out > cap || out == 0 || std::strlen(sized.data()) > out - 1))
        std::abort();

    std::vector<char> whole(ZEL_DESFIRE_NDEF_MAX_PAYLOAD);
    st = zel::ndef::desfire_payload(msg, len, whole.data(), out, false);
    if (st == ZEL_OK && (out > ZEL_DESFIRE_NDEF_MAX_PAYLOAD || out == 0))
        std::abort();
    return 0;
}
