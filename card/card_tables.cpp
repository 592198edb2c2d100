// Card identification data: capacities by type, manufacturer names, the reversal list.
#include "card/card_tables.h"

#include <algorithm>
#include <iterator>

namespace zel {

namespace {

struct SizeRow {
    uint8_t type;
    CardSize size;
};

// Types without a row have no size, on purpose: the 2K classic, the Plus EV1 4K in level 1, the Plus cards
// in levels 0 and 2, later DESFire generations and the NT3H and DNA tags among them.
const SizeRow kSizes[] = {
    {0x01, {48, 64}},     {0x02, {48, 80}},     {0x06, {48, 80}},     {0x0B, {48, 80}},     {0x03, {128, 164}},
    {0x07, {128, 164}},   {0x04, {144, 192}},   {0x05, {144, 168}},   {0x08, {144, 180}},   {0x15, {144, 180}},
    {0x09, {504, 540}},   {0x0A, {888, 924}},   {0x14, {48, 60}},     {0x20, {224, 320}},   {0x21, {752, 1024}},
    {0x22, {3440, 4096}}, {0x35, {3440, 4096}}, {0x36, {3440, 4096}}, {0x2E, {1520, 2048}}, {0x2F, {1520, 2048}},
    {0x30, {1520, 2048}}, {0x32, {1520, 1520}}, {0x33, {1520, 1520}}, {0x34, {1520, 1520}}, {0x39, {3440, 3440}},
    {0x3A, {3440, 3440}}, {0x3B, {3440, 3440}}, {0x27, {4096, 4096}}, {0x29, {4096, 4096}}, {0x28, {2048, 2048}},
    {0x2A, {8192, 8192}},
};

const char *const kManufacturers[] = {
#include "card/manufacturers.inc"
};
static_assert(std::size(kManufacturers) == 126, "one name for each code from 1 to 126");

} // namespace

const uint32_t uid_reversal_table[] = {
#include "card/uid_reversal.inc"
};
const size_t uid_reversal_table_len = std::size(uid_reversal_table);

bool card_size_of(uint8_t card_type, CardSize &out)
{
    for (const SizeRow &row : kSizes)
        if (row.type == card_type) {
            out = row.size;
            return true;
        }
    out = CardSize{0, 0};
    return false;
}

const char *manufacturer_name(uint8_t code)
{
    if (code == 0 || code > std::size(kManufacturers))
        return "Unknown manufacturer";
    return kManufacturers[code - 1];
}

bool uid_on_reversal_list(uint32_t value)
{
    return std::binary_search(uid_reversal_table, uid_reversal_table + uid_reversal_table_len, value);
}

} // namespace zel
