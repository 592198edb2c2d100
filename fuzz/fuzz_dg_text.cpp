// The walk of the textual data groups (DG11, DG12, DG13) and the DG1 fragment on arbitrary files: each ends,
// reads nothing outside the file, and what it gives is one JSON object's members (checked by wrapping them
// and walking the text for balanced strings and braces).
#include <cstdint>
#include <cstring>
#include <vector>

#include "tandro.h"

namespace {

// A light check of the fragment: strings close, escapes are complete, no control byte stands raw, and
// braces balance outside strings.
void check_fragment(const char *json)
{
    if (json == nullptr)
        __builtin_trap();
    int depth = 0;
    bool in_string = false;
    for (const char *p = json; *p; ++p) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if (in_string) {
            if (c < 0x20)
                __builtin_trap();
            if (c == '\\') {
                if (p[1] == '\0')
                    __builtin_trap();
                ++p;
            } else if (c == '"') {
                in_string = false;
            }
        } else if (c == '"') {
            in_string = true;
        } else if (c == '{') {
            ++depth;
        } else if (c == '}') {
            if (--depth < 0)
                __builtin_trap();
        }
    }
    if (in_string || depth != 0)
        __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::vector<uint8_t> exact(data, data + size);
    for (uint8_t flat = 0; flat < 2; ++flat) {
        char *json = nullptr;
        if (MRTD_DG_To_JSON_Heap(exact.data(), uint32_t(size), &json, flat) == ZEL_OK)
            check_fragment(json);
        else if (json != nullptr)
            __builtin_trap();
        OrbFree(json);
        json = nullptr;
        if (size <= 0x7FFFFFFF && parse_dg1_to_JSON(exact.data(), int32_t(size), &json, flat) == ZEL_OK)
            check_fragment(json);
        OrbFree(json);
    }
    return 0;
}
