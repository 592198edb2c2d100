// The ISO 15693 readers against arbitrary bytes: the system information decoder alone (on a buffer of
// exactly the input's size), the same through the exchange, and the block security status into a buffer of
// the largest size a reply can fill.
#include <cstdlib>
#include <cstring>

#include "card/iso15693_parse.h"
#include "fuzz_link.h"
#include "tandro.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    const uint8_t mode = data[0] % 3;
    data += 1;
    size -= 1;
    if (mode == 0) {
        auto *copy = static_cast<uint8_t *>(std::malloc(size ? size : 1));
        if (size)
            std::memcpy(copy, data, size);
        zel::SystemInfo info;
        zel::parse_system_information(copy, size, info);
        std::free(copy);
        return 0;
    }
    zelfuzz::FuzzLink link(data, size);
    ZEL_HANDLE h = &link.record;
    if (mode == 1) {
        uint8_t flags = 0, dsfid = 0, afi = 0, ic = 0;
        uint16_t mem = 0;
        auto *uid = static_cast<uint8_t *>(std::malloc(8));
        iso15693_get_system_information_no_authM(h, &flags, uid, &dsfid, &afi, &mem, &ic);
        std::free(uid);
    } else {
        auto *out = static_cast<uint8_t *>(std::malloc(254));
        iso15693_get_multiply_block_security_statusM(h, 0, 3, out);
        std::free(out);
    }
    return 0;
}
