// The APDU case decoders: the library's and the simulated card's must agree on every byte string, what
// decodes must build back to the same bytes where the case builder can make it, and the simulated card
// must take any bytes as an APDU or as a block over RF without harm.
#include <cstdlib>
#include <cstring>

#include "apdu/apdu_internal.h"
#include "iso7816.h"
#include "zel_apdu.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > 70000)
        return 0;
    zel::ApduCase lib;
    zs::Apdu card;
    const bool a = zel::apdu_case_decode(data, static_cast<uint32_t>(size), lib);
    const bool b = zs::apdu_decode(data, size, card);
    if (a != b)
        std::abort();
    if (a) {
        if (lib.kind != card.kind || lib.nc != card.nc || lib.ne != card.ne || lib.extended != card.extended ||
            lib.has_le != card.has_le || (lib.nc && data + lib.data_at != card.data))
            std::abort();
        // Short cases and the extended Le alone are what the builder makes.
        const bool buildable = !lib.extended ? lib.nc <= 255 && (lib.kind != 4 || lib.ne <= 256)
                                             : lib.kind == 2 && lib.ne > 256 && lib.ne <= ZEL_APDU_MAX_NE;
        if (buildable) {
            uint8_t out[zel::kApduBuildMax];
            uint32_t block = 0;
            const uint32_t n = zel::apdu_build(data, lib.nc ? data + lib.data_at : nullptr, lib.nc,
                                               lib.has_le ? lib.ne : 0, lib.has_le, out, &block);
            if (n != size || std::memcmp(out, data, n) != 0)
                std::abort();
        }
    }
    // The simulated card: as a whole APDU, and cut into blocks over RF.
    static zs::AppHost *host = [] {
        auto *h = new zs::AppHost;
        h->add(zs::make_test_application({}, 512));
        return h;
    }();
    const std::vector<uint8_t> r = host->transceive(data, size);
    if (r.size() < 2)
        std::abort();
    static const zsim_card id = {{1, 2, 3, 4}, 4, 0x20, 0x0344, 0x40};
    static zs::Iso14443Card *iso = new zs::Iso14443Card(id, zs::Iso14443Setup{});
    static bool ready = [] {
        iso->host().add(zs::make_test_application({}, 512));
        return true;
    }();
    (void)ready;
    for (size_t at = 0; at < size;) {
        const size_t n = 1 + data[at] % 40;
        const size_t k = n < size - at ? n : size - at;
        iso->rf_block(data + at, k);
        at += k;
    }
    return 0;
}
