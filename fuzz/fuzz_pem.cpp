// The PEM certificate reader and the text searches on arbitrary bytes.
#include <cstdint>
#include <vector>

#include "tandro.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::vector<uint8_t> exact(data, data + size);
    uint8_t *der = nullptr;
    uint32_t der_len = 0;
    const ZEL_STATUS st = pemCertToDer(exact.data(), static_cast<uint32_t>(exact.size()), &der, &der_len);
    if (st == ZEL_OK) {
        if (der == nullptr || der_len == 0 || der_len > exact.size())
            __builtin_trap();
        // What it decoded goes on to the certificate walker, as a certificate file would.
        uint32_t pos = 0;
        (void)x509GetSignatureNodePos(der, der_len, &pos);
    } else if (der != nullptr || der_len != 0) {
        __builtin_trap();
    }
    OrbFree(der);
    (void)strmempos(exact.data(), static_cast<uint32_t>(exact.size()), "-----END CERTIFICATE-----");
    return 0;
}
