// The simulated reader facing a buggy host: arbitrary bytes, fed in arbitrary pieces, into its receiver
// and its command handling, and arbitrary scenario text into its JSON reader. It must answer (or stay
// silent, or refuse the scenario) without ever reading or writing out of bounds.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "core.h"
#include "zelsim.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static zsim *sim = [] {
        zsim *s = zsim_new();
        const zsim_card card = {{0x04, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66}, 7, 0x00, 0x0044, 0x09};
        zsim_card_add(s, &card);
        zsim_set_time_scale(s, 0); // a restart does not make the reader deaf to the next input
        return s;
    }();
    // Text that opens like a JSON value goes to the scenario loader, on a reader of its own.
    if (size && (data[0] == '{' || data[0] == '[')) {
        const std::string text(reinterpret_cast<const char *>(data), size);
        zsim *s = zsim_new();
        char err[256];
        zsim_load_scenario(s, text.c_str(), err, sizeof err);
        zsim_free(s);
        return 0;
    }
    zs::LinkCore link;
    std::vector<uint8_t> out;
    size_t pos = 0;
    while (pos < size) {
        // Each piece is led by its length, so that the fuzzer also explores how writes are split.
        const size_t piece = 1 + data[pos++] % 64;
        const size_t n = piece < size - pos ? piece : size - pos;
        zs::link_input(sim, link, data + pos, n);
        pos += n;
        zs::link_due(sim, link, out);
        out.clear();
    }
    return 0;
}
