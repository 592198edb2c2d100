// The credit balance in a mirrored pair of value blocks: each block of the pair holds the other's number as
// its value address, and a read settles an interrupted update by the rule of balance_pick.
#include "records/records_internal.h"
#include "tandro.h"

using namespace zel::records;

extern "C" ZEL_API ZEL_STATUS balance_get_creditHnd(ZEL_HANDLE hnd, uint8_t auth_mode, const uint8_t *key,
                                                    int32_t *credit)
{
    // The pair is read on the global handle whatever handle was given; the handle's own reader is not used.
    (void)hnd;
    if (!credit || !key)
        return ZEL_PARAMETERS_ERROR;
    int32_t a = 0, b = 0;
    uint8_t addr = 0;
    const ZEL_STATUS sa = ValueBlockRead_PK(&a, &addr, ZEL_BALANCE_BLOCK_A, auth_mode, key);
    const ZEL_STATUS sb = ValueBlockRead_PK(&b, &addr, ZEL_BALANCE_BLOCK_B, auth_mode, key);
    return balance_pick(sa, a, sb, b, credit);
}

extern "C" ZEL_API ZEL_STATUS balance_set_creditHnd(ZEL_HANDLE hnd, uint8_t auth_mode, const uint8_t *key,
                                                    int32_t credit)
{
    if (!key)
        return ZEL_PARAMETERS_ERROR;
    const ZEL_STATUS status =
        ValueBlockWrite_PKHnd(hnd, credit, ZEL_BALANCE_BLOCK_B, ZEL_BALANCE_BLOCK_A, auth_mode, key);
    if (status != ZEL_OK)
        return status;
    return ValueBlockWrite_PKHnd(hnd, credit, ZEL_BALANCE_BLOCK_A, ZEL_BALANCE_BLOCK_B, auth_mode, key);
}
