// The TLV walk over a card image: every message number finds a TLV inside the image or none, the gap it notes
// keeps positions inside the image's own arithmetic, and the record walk of a found message stays in bounds.
#include <cstdlib>
#include <vector>

#include "ndef/ndef_internal.h"

using namespace zel::ndef;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1 || size > ZEL_NDEF_IMAGE_LEN + 1)
        return 0;
    // The first byte picks the card type (gap base) and the rest is the image.
    const uint8_t type = data[0];
    const uint8_t *img = data + 1;
    const size_t len = size - 1;
    for (unsigned nr = 0; nr < 6; ++nr) {
        Tlv t;
        Gap g;
        const ZEL_STATUS st = find_message(img, len, nr, type, t, g);
        if (st != ZEL_OK)
            continue;
        if (t.offset >= len || t.value() > len)
            std::abort();
        const std::vector<uint8_t> view = data_view(img, len, t.value(), g);
        if (view.size() > len)
            std::abort();
        std::vector<uint32_t> offs;
        std::vector<Record> recs;
        if (t.length <= view.size() && walk_records(view.data(), view.size(), t.length, offs, &recs)) {
            for (size_t i = 0; i < offs.size(); ++i)
                if (offs[i] + recs[i].size > view.size() || (i && offs[i] <= offs[i - 1]))
                    std::abort();
        }
    }
    return 0;
}
