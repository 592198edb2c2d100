// Package manifests from a firmware service, made by an attacker: the tokenizer's limits (64 tokens, escapes,
// brackets, control characters), keys of near lengths, long values; the text in a buffer of exactly its size.
#include <cstdlib>
#include <cstring>

#include "firmware/manager_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    char *text = static_cast<char *>(std::malloc(size ? size : 1));
    if (size)
        std::memcpy(text, data, size);
    zel::fw::PackageVersions v{};
    if (zel::fw::parse_firmware_manifest(text, size, &v) == 0) {
        // Every value is terminated within its 32 bytes, its length beside it.
        const char *values[] = {v.esp, v.nfc1, v.nfc2, v.display1, v.display2};
        const uint8_t lens[] = {v.esp_len, v.nfc1_len, v.nfc2_len, v.display1_len, v.display2_len};
        for (int i = 0; i < 5; ++i)
            if (lens[i] > 31 || std::strlen(values[i]) > lens[i])
                std::abort();
    }
    std::free(text);
    return 0;
}
