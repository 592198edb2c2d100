// The other DESFire reply readers against arbitrary reader bytes: key settings, application id lists into a
// list of the room given, the UID by reply length, values, transaction MAC data, free memory, and a chunked
// write that waits for the reader's prompts.
#include <cstdlib>

#include "fuzz_link.h"
#include "tandro.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    zelfuzz::FuzzLink link(data + 2, size - 2);
    ZEL_HANDLE h = &link.record;
    const uint8_t key[16] = {0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7,
                             0xA8, 0xA9, 0xAA, 0xAB, 0xAC, 0xAD, 0xAE, 0xAF};
    uint16_t cs = 0, et = 0;
    switch (data[0] % 7) {
    case 0: {
        uint8_t setting = 0, max_keys = 0;
        Zel_int_DesfireGetKeySettings_no_authM(h, 0x0A0B0C, &setting, &max_keys, &cs, &et);
        break;
    }
    case 1: {
        // A list of exactly the room announced (data[1] % 84 entries, 0 meaning the most a reply holds).
        uint8_t n = static_cast<uint8_t>(data[1] % (ZEL_DESFIRE_MAX_AIDS + 1));
        const size_t room = n ? n : ZEL_DESFIRE_MAX_AIDS;
        auto *aids = static_cast<uint32_t *>(std::calloc(room, sizeof(uint32_t)));
        Zel_int_DesfireGetApplicationIds_aes_PKM(h, key, aids, &n, &cs, &et);
        std::free(aids);
        break;
    }
    case 2: {
        auto *uid = static_cast<uint8_t *>(std::malloc(7));
        uint8_t len = 0;
        Zel_int_GetDesfireUid_PKM(h, key, 0x0A0B0C, 1, uid, &len, &cs, &et);
        std::free(uid);
        break;
    }
    case 3: {
        int32_t value = 0;
        Zel_int_DesfireReadValueFile_des_PKM(h, key, 0x0A0B0C, 1, 2, 3, &value, &cs, &et);
        break;
    }
    case 4: {
        auto *rid = static_cast<uint8_t *>(std::malloc(16));
        auto *prev = static_cast<uint8_t *>(std::malloc(16));
        auto *mac = static_cast<uint8_t *>(std::malloc(8));
        uint32_t counter = 0;
        Zel_int_DesfireDecreaseValueFile_TransMac_aes_PKM(h, key, 0x0A0B0C, 1, 2, 3, 5, data[1] & 1, rid, prev,
                                                          &counter, mac, &cs, &et);
        std::free(rid);
        std::free(prev);
        std::free(mac);
        break;
    }
    case 5: {
        uint32_t free_mem = 0;
        Zel_int_DesfireFreeMemM(h, &free_mem, &cs, &et);
        break;
    }
    case 6: {
        const uint16_t len = static_cast<uint16_t>(data[1] * 3);
        auto *buf = static_cast<uint8_t *>(std::calloc(len ? len : 1, 1));
        Zel_int_DesfireWriteStdDataFile_aes_PKM(h, key, 0x0A0B0C, 1, 2, 0, len, 0, buf, &cs, &et);
        std::free(buf);
        break;
    }
    }
    return 0;
}
