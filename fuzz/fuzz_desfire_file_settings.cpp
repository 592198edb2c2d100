// DESFire file settings, plain and with SDM, from arbitrary bytes: the reply parsers alone on a reply of
// exactly the given length, and GetFileSettings / GetFileSettingsSdm / GetStdFileSize against a reader
// played from the input.
#include <cstdlib>
#include <cstring>

#include "fuzz_link.h"
#include "smartcard/desfire_internal.h"
#include "tandro.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    if (data[0] & 1) {
        // An exact copy, so that any read past the reply is seen.
        const size_t n = size - 1 < 256 ? size - 1 : 256;
        auto *reply = static_cast<uint8_t *>(std::malloc(n ? n : 1));
        if (n)
            std::memcpy(reply, data + 1, n);
        if (data[0] & 2) {
            zel_desfire_sdm_file_settings s;
            zel::desfire::parse_sdm_file_settings(reply, static_cast<uint32_t>(n), &s);
        } else {
            zel_desfire_file_settings s;
            zel::desfire::parse_file_settings(reply, static_cast<uint32_t>(n), &s);
        }
        std::free(reply);
        return 0;
    }
    zelfuzz::FuzzLink link(data + 1, size - 1);
    ZEL_HANDLE h = &link.record;
    uint16_t cs = 0, et = 0;
    const uint8_t key[16] = {0x51, 0x2A, 0x93, 0x0C, 0xE4, 0x7D, 0x16, 0xBF,
                             0x28, 0xC1, 0x5A, 0xF3, 0x8C, 0x25, 0xBE, 0x47};
    if (data[0] & 4) {
        zel_desfire_sdm_file_settings s;
        Zel_int_DesfireGetFileSettingsSdm_aes_PKM(h, key, 0x010203, 4, &s, &cs, &et);
    } else if (data[0] & 2) {
        zel_desfire_file_settings s;
        Zel_int_DesfireGetFileSettings_aes_PKM(h, key, 0x010203, 4, &s, &cs, &et);
    } else {
        uint32_t file_size = 0;
        Zel_int_DesfireGetStdFileSize_no_authM(h, 0x010203, 4, &file_size, &cs, &et);
    }
    return 0;
}
