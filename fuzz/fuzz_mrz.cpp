// MRZ text and DG1 files: detection, checks, proto keys, the readable and JSON forms on arbitrary bytes.
#include <cstdint>
#include <cstring>
#include <vector>

#include "tandro.h"

namespace {

// Traps unless text is a run of JSON members inside one object: no raw control byte, only known escapes.
void check_json(const char *text, uint32_t len)
{
    if (std::strlen(text) != len || len < 2 || text[0] != '{' || text[len - 1] != '}')
        __builtin_trap();
    bool in_string = false;
    for (uint32_t i = 0; i < len; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c < 0x20)
            __builtin_trap();
        if (!in_string) {
            if (c == '"')
                in_string = true;
            continue;
        }
        if (c == '"') {
            in_string = false;
        } else if (c == '\\') {
            const char e = text[++i];
            if (e == 'u')
                i += 4;
            else if (!std::strchr("\"\\/bfnrt", e))
                __builtin_trap();
        }
    }
    if (in_string)
        __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const char *text = reinterpret_cast<const char *>(data);
    std::vector<char> exact(text, text + size);
    const ZEL_STATUS format = MRTD_MRZDetectFormat(exact.data(), exact.size());
    if (size <= 255)
        (void)MRTD_MRZCheck(exact.data(), static_cast<uint8_t>(size));

    // The fixed-offset functions take a whole MRZ: hand them the input padded with fillers.
    std::vector<char> mrz(text, text + (size < 90 ? size : 90));
    mrz.resize(91, '<');
    mrz[90] = '\0';
    (void)validate_TD1_format(mrz.data());
    (void)validate_TD3_format(mrz.data());
    (void)MRTD_MRZSubjacentCheck(mrz.data());
    char key[MRTD_PROTO_KEY_SIZE];
    if (MRTD_MRZSubjacentToMRZProtoKey(mrz.data(), key) == ZEL_OK && std::strlen(key) != 24)
        __builtin_trap();
    static ZEL_STATUS (*const kText[3])(char **, const char *, const char *) = {
        MRZSprintfDataTD1Format, MRZSprintfDataTD2Format, MRZSprintfDataTD3Format};
    for (auto fn : kText) {
        char *t = nullptr;
        (void)fn(&t, "\r\n", mrz.data());
        OrbFree(t);
    }
    char json[2048];
    for (uint8_t mrz_len : {uint8_t(88), uint8_t(90)}) {
        for (uint32_t cap : {1u, 64u, 200u, uint32_t(sizeof json)}) {
            uint32_t n = cap;
            if (MRZDataToJSON(json, &n, mrz.data(), mrz_len, format == MRTD_FORMAT_TD3 ? "AAAA" : nullptr, 0) == ZEL_OK)
                check_json(json, n);
        }
    }

    // The input as an EF.DG1 file.
    if (size <= 255) {
        char *t = nullptr;
        (void)MRTDParseDG1ToHeap(&t, nullptr, reinterpret_cast<const uint8_t *>(exact.data()),
                                 static_cast<uint8_t>(size));
        OrbFree(t);
    }
    return 0;
}
