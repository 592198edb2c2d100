// The MIFARE Plus reply readers against arbitrary reader bytes, the UID in a buffer of exactly ten bytes:
// the UID reply reader alone, the UID reads, the personalisation blocks (the card's answer in an I-block
// reply) and the whole personalisation, and the key block commands.
#include <cstdlib>
#include <cstring>

#include "core/internal.h"
#include "fuzz_link.h"
#include "mfp/mfp_internal.h"
#include "tandro.h"

namespace {

void no_sleep(uint32_t) {}

const uint8_t KEY[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    zel::set_sleep_hook(no_sleep);
    const uint8_t mode = data[0] % 6, arg = data[1];
    data += 2;
    size -= 2;
    auto *uid = static_cast<uint8_t *>(std::malloc(10));
    uint8_t uid_len = 0;
    if (mode == 0) {
        // The reader as given: at most 255 bytes of EXT, arg its length byte.
        const size_t n = size < 255 ? size : 255;
        auto *copy = static_cast<uint8_t *>(std::malloc(n ? n : 1));
        if (n)
            std::memcpy(copy, data, n);
        zel::mfp::uid_reply(copy, static_cast<uint8_t>(arg < n ? arg : n), uid, &uid_len);
        std::free(copy);
    } else {
        zelfuzz::FuzzLink link(data, size);
        ZEL_HANDLE h = &link.record;
        switch (mode) {
        case 1:
            if (arg & 1)
                MFP_GetUid_PKM(h, KEY, KEY, uid, &uid_len);
            else
                MFP_EvGetUidSamKeyM(h, arg, uid, &uid_len);
            break;
        case 2:
            if (arg & 1)
                MFP_WritePersoM(h, arg, KEY);
            else
                MFP_CommitPersoM(h);
            break;
        case 3: {
            // The deselect goes to the global handle: this link, for the length of the call.
            zel_handle_record saved;
            std::memcpy(static_cast<void *>(&saved), &zel_global, sizeof saved);
            std::memcpy(static_cast<void *>(&zel_global), h, sizeof saved);
            MFP_PersonalizationMinimalM(h, KEY, KEY, KEY, KEY, KEY, KEY, KEY, KEY, KEY);
            std::memcpy(static_cast<void *>(&zel_global), &saved, sizeof saved);
            break;
        }
        case 4: MFP_SwitchToSecurityLevel3_PKM(h, KEY); break;
        default: MFP_ChangeSectorKeyExt_PKM(h, arg, 0x80 | (arg & 1), KEY, KEY, arg >> 1); break;
        }
    }
    std::free(uid);
    zel::set_sleep_hook(nullptr);
    return 0;
}
