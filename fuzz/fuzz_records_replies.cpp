// The reply readers of the record family against arbitrary reader bytes: the access-system records, the
// card encryption images and serial numbers, and the balance pair. The first input byte picks the
// operation; the image text is allocated at exactly its contracted 256 bytes and the records at their sizes,
// so a write past them is caught.
#include <cstdlib>
#include <cstring>

#include "core/internal.h"
#include "fuzz_link.h"
#include "tandro.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    const uint8_t op = data[0] % 15;
    zel::set_sleep_hook([](uint32_t) {});
    zelfuzz::FuzzLink link(data + 1, size - 1);
    ZEL_HANDLE h = &link.record;
    uint16_t a = 0, b = 0;
    uint8_t sh = 0, sm = 0, eh = 0, em = 0, max = 0, type = 0;
    uint8_t *days = static_cast<uint8_t *>(std::malloc(ZEL_AIS_DAYS));
    uint8_t *rec = static_cast<uint8_t *>(std::malloc(ZEL_AIS_VALIDATE_FIELDS));
    char *text = static_cast<char *>(std::malloc(ZEL_CARD_ENCRYPTION_TEXT));
    uint32_t v[11] = {}, len = 0;
    const uint8_t key[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    switch (op) {
    case 0: ais_get_right_recordM(h, 1, &a, &b, &sh, &sm, &eh, &em, days); break;
    case 1: ais_get_validate_recordM(h, rec); break;
    case 2: ais_get_card_typeM(h, &type); break;
    case 3: ais_get_card_daily_durationM(h, &a); break;
    case 4: ais_get_card_total_durationM(h, v); break;
    case 5: ais_get_card_numberM(h, v); break;
    case 6:
        ais_get_credit_and_period_validityM(h, v, v + 1, v + 2, v + 3, v + 4, v + 5, v + 6, v + 7, v + 8, v + 9,
                                            v + 10);
        break;
    case 7: {
        uint8_t *typed = static_cast<uint8_t *>(std::malloc(ZEL_AIS_RIGHT_TYPE_DATA));
        ais_get_right_type_recordM(h, 2, &type, typed);
        std::free(typed);
        break;
    }
    case 8: ais_get_right_record_type_max_daily_counterM(h, 3, &a, &b, &sh, &sm, &eh, &em, days, &max); break;
    case 9: ais_set_validate_recordM(h, reinterpret_cast<const uint8_t *>("0123456789")); break;
    case 10: CardEncryption_GetNextEncryptedCardM(h, 1705320000, 1705323600, text); break;
    case 11: CardEncryption_GetNextM(h, 1, 1705320000, 1705323600, 2, key, &len, text); break;
    case 12: CardEncryption_GetSalterSNM(h, rec, &type); break;
    case 13: CardEncryption_GetActualCardSNM(h, v, v + 1); break;
    default: BalanceSetM(h, 0x60, key, -7); break;
    }
    std::free(days);
    std::free(rec);
    std::free(text);
    return 0;
}
