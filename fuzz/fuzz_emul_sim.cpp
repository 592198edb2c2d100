// The simulated reader with a network module in front, facing a buggy host: arbitrary bytes in arbitrary
// pieces into its receiver, so that the module's raw keywords, its stream, the emulation record's pieces and
// the shared RAM meet every kind of input. It must answer or stay silent without reading or writing out of
// bounds, and without keeping more than it bounds.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "core.h"
#include "zelsim.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static zsim *sim = [] {
        zsim *s = zsim_new();
        zsim_set_time_scale(s, 0);
        return s;
    }();
    zsim_esp_enable(sim, 2); // a fresh module and session state for every input
    zs::LinkCore link;
    std::vector<uint8_t> out;
    size_t pos = 0;
    while (pos < size) {
        const size_t piece = 1 + data[pos++] % 128;
        const size_t n = piece < size - pos ? piece : size - pos;
        zs::link_input(sim, link, data + pos, n);
        pos += n;
        zs::link_due(sim, link, out);
        out.clear();
    }
    uint8_t msg[2048];
    zsim_phone_read_ndef(sim, msg, sizeof msg);
    return 0;
}
