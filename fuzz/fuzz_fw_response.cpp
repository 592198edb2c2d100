// What a firmware service answers, made by an attacker: images of any type and size (HTML and error pages,
// token texts, bytes without a terminating zero), version lists and text answers, each in a buffer of exactly
// its size.
#include <cstdlib>
#include <cstring>

#include "firmware/manager_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    const uint8_t *p = data + 1;
    const size_t n = size - 1;
    uint8_t *bytes = static_cast<uint8_t *>(std::malloc(n ? n : 1));
    if (n)
        std::memcpy(bytes, p, n);
    zel_http_response r{};
    r.type = data[0] >> 2 & 3;
    r.data = n ? bytes : nullptr;
    r.size = n;
    switch (data[0] % 4) {
    case 0: {
        zel::fw::FirmwareRecord record;
        const int result = zel::fw::check_firmware_response(&r, &record, "1.2.3");
        if (result == 0 && (record.size != n || std::memcmp(record.data, bytes, n) != 0))
            std::abort();
        zel::fw::free_record(&record);
        break;
    }
    case 1: {
        char out[300];
        if (zel::fw::check_text_response(&r, out, sizeof out) == 0 && std::strlen(out) >= sizeof out)
            std::abort();
        break;
    }
    case 2: {
        char out[512];
        zel::fw::parse_version_list(reinterpret_cast<const char *>(bytes), n, out, sizeof out);
        char version[32];
        if (zel::fw::get_last_line(out, version, sizeof version) && std::strlen(version) > 31)
            std::abort();
        break;
    }
    default: {
        const char *text = reinterpret_cast<const char *>(bytes);
        if (zel::fw::is_valid_hex_string(text, n)) {
            uint8_t *bin = static_cast<uint8_t *>(std::malloc(n / 2 + 1));
            zel::fw::hex_str_to_bin(text, n, bin);
            std::free(bin);
        }
        break;
    }
    }
    std::free(bytes);
    return 0;
}
