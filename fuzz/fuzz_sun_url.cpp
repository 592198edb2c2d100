// What a server checks from a tap, made by an attacker: URLs for the tool's SUN verification (wrong lengths,
// odd hex, huge counters, missing or repeated parameters), and the host checks with lengths of every size.
#include <cstdlib>
#include <cstring>

#include "tandro.h"
#include "tools/sun.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    const uint8_t zero[16] = {};
    const uint8_t *p = data + 1;
    const size_t n = size - 1;
    switch (data[0] % 4) {
    case 0: {
        // The URL in a buffer of exactly its size.
        char *url = static_cast<char *>(std::malloc(n ? n : 1));
        if (n)
            std::memcpy(url, p, n);
        tandro::SunUrl parsed;
        tandro::SunResult r;
        if (tandro::sun_parse(url, n, parsed) == tandro::SunParse::ok)
            tandro::sun_verify(parsed, zero, zero, r);
        std::free(url);
        break;
    }
    case 1: {
        // A MAC input of the given bytes, a counter from the first bytes.
        if (n < 12)
            break;
        uint32_t ctr = 0;
        std::memcpy(&ctr, p, 4);
        uint8_t *copy = static_cast<uint8_t *>(std::malloc(n - 12 ? n - 12 : 1));
        std::memcpy(copy, p + 12, n - 12);
        nt4h_check_sdm_mac(ctr, p + 4, zero, copy, static_cast<uint32_t>(n - 12), p + 4);
        nt4h_decrypt_sdm_enc_file_data(ctr, p + 4, zero, copy, static_cast<uint32_t>(n - 12));
        std::free(copy);
        break;
    }
    case 2: {
        if (n < 16)
            break;
        uint8_t picc[16], tag = 0, uid[7], ctr[3];
        std::memcpy(picc, p, 16);
        nt4h_decrypt_picc_data(picc, p, &tag, uid, ctr);
        break;
    }
    default: {
        // Record data of the size given, and sizes that claim more than there is.
        if (n < 40)
            break;
        uint32_t size_field = 0, tmc = 0;
        std::memcpy(&size_field, p, 4);
        std::memcpy(&tmc, p + 4, 4);
        const uint32_t have = static_cast<uint32_t>(n - 40);
        const uint32_t rec = size_field <= have ? size_field : (size_field > 484 ? size_field : have);
        uint8_t *copy = static_cast<uint8_t *>(std::malloc(have ? have : 1));
        std::memcpy(copy, p + 40, have);
        uint8_t prev[16];
        const bool rid = p[8] & 1;
        if (rec <= have || rec > 484)
            dfl_check_write_record_transaction_mac(p[9], tmc, rec, copy, tmc, p + 10, zero, rid ? p + 17 : nullptr,
                                                   rid ? p + 20 : nullptr, p + 30, prev);
        dfl_check_credit_value_transaction_mac(p[9], tmc, tmc, p + 10, zero, rid ? p + 17 : nullptr, p + 20, p + 30,
                                               prev);
        std::free(copy);
        break;
    }
    }
    return 0;
}
