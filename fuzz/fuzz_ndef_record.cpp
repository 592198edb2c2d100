// Reading records out of a card image held in the handle's cache: every message and record number, URI
// prefixes, ids and types, with buffers of the documented sizes. Nothing may be touched outside them.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/internal.h"
#include "ndef/ndef_internal.h"
#include "tandro.h"

namespace {
uint32_t fixed_tick()
{
    return 1000;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1 || size > ZEL_NDEF_IMAGE_LEN + 1)
        return 0;
    static zel_handle_record *rec = [] {
        zel::set_tick_hook(fixed_tick);
        return new zel_handle_record{};
    }();
    zel_ndef_cache &c = rec->ndef_cache;
    c.card_type = data[0] & 0x7F;
    std::memcpy(c.image, data + 1, size - 1);
    c.image_len = static_cast<uint16_t>(size - 1);
    c.valid = 1;
    c.time_ms = 1000;
    // A payload can be as long as the image; the caller gives 30 bytes more.
    static std::vector<uint8_t> payload(ZEL_NDEF_IMAGE_LEN + ZEL_NDEF_PAYLOAD_SLACK);
    uint8_t type[256], id[256], tnf = 0, tl = 0, il = 0;
    uint32_t pl = 0;
    for (uint8_t m = 0; m < 4; ++m)
        for (uint8_t r = 0; r < 6; ++r) {
            if (read_ndef_recordHnd(rec, m, r, &tnf, type, &tl, id, &il, payload.data(), &pl) != ZEL_OK)
                continue;
            if (pl > payload.size() || tnf > 7)
                std::abort();
        }
    zel::ndef::Record one;
    if (zel::ndef::parse_record(data, size, one) && one.size > size)
        std::abort();
    return 0;
}
