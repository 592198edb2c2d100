// The Type 2 extras' reply readers against arbitrary reader bytes, every output in a buffer of exactly its
// documented size: the signature decoder alone, the four signature reads, and the counter, tag-tamper,
// PACK and random id replies.
#include <cstdlib>
#include <cstring>

#include "card/t2t_parse.h"
#include "fuzz_link.h"
#include "tandro.h"

namespace {

uint8_t *exact(size_t n)
{
    return static_cast<uint8_t *>(std::malloc(n ? n : 1));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    const uint8_t mode = data[0] % 8, arg = data[1];
    data += 2;
    size -= 2;
    uint8_t *sig = exact(ZEL_ECC_SIGNATURE_MAX_LEN), *uid = exact(ZEL_UID_MAX_LEN), *small = exact(16);
    uint8_t sig_len = 0, uid_len = 0, type = 0;
    if (mode == 0) {
        uint8_t *copy = exact(size);
        if (size)
            std::memcpy(copy, data, size);
        zel::parse_signature_ext(copy, size, arg, sig, &sig_len, uid);
        std::free(copy);
    } else {
        zelfuzz::FuzzLink link(data, size);
        ZEL_HANDLE h = &link.record;
        switch (mode) {
        case 1: {
            uint8_t *sig32 = exact(ZEL_ECC_SIGNATURE_LEN);
            ReadECCSignatureM(h, sig32, uid, &uid_len, &type);
            std::free(sig32);
            break;
        }
        case 2: ReadECCSignatureExtM(h, sig, &sig_len, uid, &uid_len, &type); break;
        case 3: nt4h_rid_read_ecc_signatureM(h, arg, 0, sig, &sig_len); break;
        case 4:
            ReadECCSignatureDesfireHnd(h, 1, 0, nullptr, 0, 0, 0, static_cast<uint8_t>(arg & 0x30), sig, &sig_len);
            break;
        case 5: {
            uint32_t v = 0;
            if (arg & 1)
                ReadCounterM(h, 0, &v);
            else
                ReadNFCCounterPwdAuth_RKM(h, &v, 1);
            break;
        }
        case 6: {
            uint8_t st = 0;
            if (arg & 1)
                ReadTTStatusM(h, small, &st);
            else
                T2T_PwdAuthM(h, 0, small);
            break;
        }
        default: SetRIDM(h, 0, small); break;
        }
    }
    std::free(sig);
    std::free(uid);
    std::free(small);
    return 0;
}
