// The Java card operations with a reader played from fuzz input: whatever the card answers, the operations
// end, stay inside the caller's buffers and the session's, and give lengths that fit what they filled.
#include <cstdlib>
#include <vector>

#include "fuzz_link.h"
#include "tandro.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    zelfuzz::FuzzLink link(data + 1, size - 1);
    ZEL_HANDLE h = &link.record;
    uint16_t l[5] = {}, k = 0, bits = 0, des = 0, len = 0;
    switch (data[0] % 8) {
    case 0: {
        std::vector<uint8_t> parts[5];
        if (JCAppGetEcPublicKeyM(h, 0, nullptr, &l[0], nullptr, &l[1], nullptr, &l[2], nullptr, &l[3], nullptr, &l[4],
                                 &k, &bits, &des) == ZEL_OK) {
            for (int i = 0; i < 5; ++i) {
                if (l[i] > 256)
                    std::abort();
                parts[i].resize(l[i] ? l[i] : 1);
            }
            JCAppGetEcPublicKeyM(h, 0, parts[0].data(), &l[0], parts[1].data(), &l[1], parts[2].data(), &l[2],
                                 parts[3].data(), &l[3], parts[4].data(), &l[4], &k, &bits, &des);
        }
        break;
    }
    case 1: {
        if (JCAppGetRsaPublicKeyM(h, 1, nullptr, &l[0], nullptr, &l[1]) == ZEL_OK) {
            if (l[0] > 256 || l[1] > 256)
                std::abort();
            std::vector<uint8_t> m(l[0] ? l[0] : 1), e(l[1] ? l[1] : 1);
            JCAppGetRsaPublicKeyM(h, 1, m.data(), &l[0], e.data(), &l[1]);
        }
        break;
    }
    case 2: {
        if (JCAppGetObjIdM(h, 0, 1, nullptr, &len) == ZEL_OK) {
            if (len > 254)
                std::abort();
            std::vector<uint8_t> id(len ? len : 1);
            JCAppGetObjIdM(h, 0, 1, id.data(), &len);
        }
        break;
    }
    case 3: {
        std::vector<uint8_t> obj(600);
        JCAppGetObjM(h, 2, 3, obj.data(), 600);
        break;
    }
    case 4: {
        uint8_t list[JC_STORAGE_FILES];
        uint32_t count = 0;
        if (JCStorageGetFilesListSizeM(h, &count) == ZEL_OK && count > JC_STORAGE_FILES)
            std::abort();
        JCStorageListFilesM(h, list, JC_STORAGE_FILES);
        break;
    }
    case 5: {
        uint32_t fs = 0;
        if (JCStorageGetFileSizeM(h, 2, &fs) == ZEL_OK && fs > 0xFFFF)
            std::abort();
        break;
    }
    case 6: {
        std::vector<uint8_t> file(300);
        JCStorageReadFileM(h, 4, file.data(), 300);
        break;
    }
    default: {
        uint16_t sig_len = 0, tries = 0;
        if (JCAppSignatureEndM(h, &sig_len) == ZEL_OK && sig_len > JC_SIGNATURE_MAX_LEN)
            std::abort();
        JCAppGetPinTriesRemainingM(h, 0, &tries);
        JCAppGetEcKeySizeBitsM(h, 2, &bits, &des);
        break;
    }
    }
    return 0;
}
