// The NTAG 424 DNA and DESFire Light operations against arbitrary reader bytes: the UID, the raw file
// settings into a buffer of their largest size, the read counter, the tamper status and the operations
// whose reply is the frame alone.
#include <cstdlib>

#include "fuzz_link.h"
#include "tandro.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    zelfuzz::FuzzLink link(data + 1, size - 1);
    ZEL_HANDLE h = &link.record;
    const uint8_t key[16] = {0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7,
                             0xA8, 0xA9, 0xAA, 0xAB, 0xAC, 0xAD, 0xAE, 0xAF};
    switch (data[0] % 7) {
    case 0: {
        auto *uid = static_cast<uint8_t *>(std::malloc(7));
        nt4h_get_uid_pkM(h, key, 1, uid);
        std::free(uid);
        break;
    }
    case 1: {
        auto *fs = static_cast<uint8_t *>(std::malloc(NT4H_MAX_FILE_SETTINGS));
        uint8_t len = 0;
        dfl_get_file_settingsM(h, 2, fs, &len);
        std::free(fs);
        break;
    }
    case 2: {
        uint32_t ctr = 0;
        nt4h_get_sdm_read_ctr_no_authM(h, 2, 0, &ctr);
        break;
    }
    case 3: {
        uint8_t perm = 0, curr = 0;
        nt4h_get_tt_statusM(h, 0, 1, &perm, &curr);
        break;
    }
    case 4: {
        nt4h_sdm_settings s{};
        s.uid_enable = s.sdm_read_ctr_enable = s.sdm_enc_file_data_enable = s.sdm_read_ctr_limit_enable = 1;
        s.meta_data_key_no = 1;
        s.file_data_read_key_no = 2;
        nt4h_tt_change_sdm_file_settings_pkM(h, key, 2, 0, 0, 0, 14, 0, 14, 0, &s);
        break;
    }
    case 5: dfl_delete_tmc_file_pkM(h, key, 3); break;
    default: nt4h_set_global_parametersM(h, 2, 1, 3); break;
    }
    return 0;
}
