// The data tables of card identification: sizes by card type, IC manufacturer names, and the list of
// four-byte UIDs that the reader reports in reversed byte order.
#ifndef ZEL_CARD_CARD_TABLES_H
#define ZEL_CARD_CARD_TABLES_H

#include <cstddef>
#include <cstdint>

namespace zel {

struct CardSize {
    uint32_t linear; // user bytes reachable through the linear operations
    uint32_t raw;    // the whole memory
};
// False (and sizes 0) for a type that has no size.
bool card_size_of(uint8_t card_type, CardSize &out);

// The registered name of an IC manufacturer code, or "Unknown manufacturer".
const char *manufacturer_name(uint8_t code);

// The reversal list: ascending four-byte UIDs as little-endian values.
extern const uint32_t uid_reversal_table[];
extern const size_t uid_reversal_table_len;
// Binary search of the list with a plain unsigned comparison.
bool uid_on_reversal_list(uint32_t value);

} // namespace zel

#endif
