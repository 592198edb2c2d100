// The master list reader on arbitrary files: the header walk, the certificate walk and the search end on
// every input, read nothing outside their buffers, and hand over certificates that begin with a SEQUENCE.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "tandro.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const std::string path = "/tmp/fuzz_master_list." + std::to_string(getpid()) + ".ml";
    FILE *f = std::fopen(path.c_str(), "wb");
    if (f == nullptr)
        return 0;
    if (size)
        std::fwrite(data, 1, size, f);
    std::fclose(f);
    initCryptoSubsys();

    FILE *ml = nullptr;
    if (icaoMlOpen(path.c_str(), &ml) != ZEL_OK) {
        if (ml != nullptr)
            __builtin_trap();
        return 0;
    }
    uint32_t start = 0, length = 0;
    if (icaoMlMoveToFirstCert(ml, &start, &length) == ZEL_OK) {
        for (int i = 0; i < 64; ++i) {
            uint8_t *cert = nullptr;
            uint32_t len = 0;
            if (icaoMlGetCurrentCertAndMoveToNext(ml, &cert, &len, start, length) != ZEL_OK)
                break;
            if (cert == nullptr || len < 6 || cert[0] != 0x30)
                __builtin_trap();
            OrbFree(cert);
        }
    }
    // A search on a subject taken from the input itself.
    icao_ml_search_criteria c;
    icaoMlClearSearchCriteria(&c);
    c.subject = data;
    c.subject_len = size > 40 ? 40 : uint32_t(size);
    c.ski = data;
    c.ski_len = size > 20 ? 20 : uint32_t(size);
    uint8_t *cert = nullptr;
    uint32_t len = 0;
    if (icaoMlFindCert(ml, &c, &cert, &len) == ZEL_OK && (cert == nullptr || len == 0))
        __builtin_trap();
    OrbFree(cert);
    icaoMlClose(ml);
    return 0;
}
