// The SAM operations with a reader played from fuzz input: whatever the SAM answers through the APDU path,
// the operations end, stay inside the caller's buffers, and give lengths and types that fit what they
// filled.
#include <cstdlib>
#include <cstring>

#include "fuzz_link.h"
#include "sam/sam_internal.h"
#include "tandro.h"

namespace {

// Challenges from a counter: a failing case replays the same way.
bool counter_random(uint8_t *out, uint32_t n)
{
    for (uint32_t i = 0; i < n; ++i)
        out[i] = static_cast<uint8_t>(i * 37 + 11);
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1 || size > 4096)
        return 0;
    zelfuzz::FuzzLink link(data + 1, size - 1);
    zelfuzz::QuickTime quick(50);
    zel::sam::set_random_source(counter_random);
    ZEL_HANDLE h = &link.record;
    const uint8_t key[24] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24};
    uint16_t sw = 0;
    switch (data[0] % 8) {
    case 0: {
        uint8_t out[SAM_VERSION_RAW_MAX + 1];
        out[SAM_VERSION_RAW_MAX] = 0xA5;
        uint32_t n = 0;
        const ZEL_STATUS st = SAM_get_version_rawM(h, out, &n);
        if (n > SAM_VERSION_RAW_MAX || out[SAM_VERSION_RAW_MAX] != 0xA5 || (st != ZEL_OK && n != 0))
            std::abort();
        break;
    }
    case 1: {
        uint32_t type = 77;
        uint8_t uid[SAM_UID_LEN + 1];
        uid[SAM_UID_LEN] = 0xA5;
        SAM_get_versionM(h, &type, uid);
        if (type > SAM_TYPE_AV2_HW4_AV2_MODE || uid[SAM_UID_LEN] != 0xA5)
            std::abort();
        if (type == 0)
            for (uint32_t i = 0; i < SAM_UID_LEN; ++i)
                if (uid[i])
                    std::abort();
        break;
    }
    case 2: {
        uint8_t out[SAM_KEY_ENTRY_RAW_MAX + 1];
        out[SAM_KEY_ENTRY_RAW_MAX] = 0xA5;
        uint8_t n = 0;
        if (SAM_get_key_entry_rawM(h, 3, out, &n, &sw) == ZEL_OK && n > SAM_KEY_ENTRY_RAW_MAX)
            std::abort();
        if (out[SAM_KEY_ENTRY_RAW_MAX] != 0xA5)
            std::abort();
        break;
    }
    case 3: SAM_authenticate_host_no_div_desM(h, 0, 0, nullptr); break;
    case 4: SAM_authenticate_host_AV2_plainM(h, key, 1, 2, data[0] % 3, &sw); break;
    case 5: SAM_pre_personalization_switch_to_AV2_modeM(h, key, 0, &sw); break;
    case 6: SAM_pre_pesonalization_master_AES128_keyM(h, key, 0, key, 1, key, 2, &sw); break;
    default:
        SAM_change_key_entry_3K3DES_AV2_plain_one_keyM(h, 4, key, 0, 0, 0xFF, &sw);
        SAM_change_key_entry_aes_AV2_plain_host_keyM(h, 5, key, 0, key, 1, key, 2, 0, 0, 0xFF, &sw);
        break;
    }
    zel::sam::set_random_source(nullptr);
    return 0;
}
