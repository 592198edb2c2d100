// The card detection readers against arbitrary reader bytes: the enumeration and its list (into a buffer of
// exactly the announced size), the selection's own reply, the extended card id and the card record.
#include <cstdlib>
#include <cstring>

#include "fuzz_link.h"
#include "tandro.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    zelfuzz::FuzzLink link(data + 1, size - 1);
    ZEL_HANDLE h = &link.record;
    switch (data[0] % 5) {
    case 0: {
        uint8_t count = 0, list_size = 0;
        if (EnumCardsM(h, &count, &list_size) != ZEL_OK)
            break;
        // Exactly the announced size, so that a copy past it is caught.
        auto *list = static_cast<uint8_t *>(std::malloc(list_size ? list_size : 1));
        ListCardsM(h, list, list_size);
        std::free(list);
        break;
    }
    case 1: {
        const uint8_t uid[7] = {4, 1, 2, 3, 4, 5, 6};
        uint8_t type = 0;
        SelectCardM(h, uid, static_cast<uint8_t>(data[0] >> 4 & 7 ? 7 : 4), &type);
        break;
    }
    case 2: {
        auto *uid = static_cast<uint8_t *>(std::malloc(ZEL_UID_MAX_LEN));
        uint8_t sak = 0, len = 0;
        GetCardIdExM(h, &sak, uid, &len);
        char name[ZEL_MANUFACTURER_NAME_MAX];
        GetCardManufacturerM(h, name);
        std::free(uid);
        break;
    }
    case 3: {
        const uint32_t cap = data[0] >> 3;
        auto *info = static_cast<uint8_t *>(std::malloc(cap ? cap : 1));
        uint32_t len = cap;
        GetCardInfoM(h, info, &len);
        std::free(info);
        break;
    }
    case 4: {
        uint8_t version[8];
        GetNfcT2TVersionM(h, version);
        uint32_t lin, raw;
        GetCardSizeM(h, &lin, &raw);
        break;
    }
    }
    return 0;
}
