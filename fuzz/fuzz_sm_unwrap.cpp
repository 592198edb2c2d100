// Secure messaging on arbitrary card answers: the unwrap alone, then a whole file read under BAC whose
// answers are cut from the input.
#include <cstdint>
#include <cstring>
#include <vector>

#include "mrtd/mrtd_internal.h"
#include "tandro.h"

namespace {

const uint8_t kKsEnc[16] = {0x97, 0x9E, 0xC1, 0x3B, 0x1C, 0xBF, 0xE9, 0xDC,
                            0xD0, 0x1A, 0xB0, 0xFE, 0xD3, 0x07, 0xEA, 0xE5};
const uint8_t kKsMac[16] = {0xF1, 0xCB, 0x1F, 0x1F, 0xB5, 0xAD, 0xF2, 0x08,
                            0x80, 0x6B, 0x89, 0xDC, 0x57, 0x9D, 0xC1, 0xF8};

// Each answer is one length byte and that many bytes of the input; the card falls silent at the end.
struct Answers {
    const uint8_t *p;
    size_t left;
    int count;
};

ZEL_STATUS transceive(void *ctx, const uint8_t *, uint32_t, uint8_t *resp, uint32_t *resp_len)
{
    auto *a = static_cast<Answers *>(ctx);
    if (a->left == 0 || ++a->count > 4096)
        return ZEL_COMMUNICATION_ERROR;
    uint32_t n = a->p[0];
    ++a->p;
    --a->left;
    if (n > a->left)
        n = static_cast<uint32_t>(a->left);
    if (n > *resp_len)
        n = *resp_len;
    std::memcpy(resp, a->p, n);
    a->p += n;
    a->left -= n;
    *resp_len = n;
    return ZEL_OK;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::vector<uint8_t> exact(data, data + size);
    std::vector<uint8_t> out(size + 1);
    uint32_t n = 0xFFFFFFFF;
    const ZEL_STATUS st = mrtd_bac_decrypt_response(exact.data(), out.data(), uint32_t(size), &n, kKsEnc);
    if ((st == ZEL_OK && n > size) || (st != ZEL_OK && n != 0))
        __builtin_trap();

    Answers answers{data, size, 0};
    uint8_t *file = nullptr;
    uint32_t len = 0;
    uint64_t ssc = 0x887022120C06C226ull;
    const ZEL_STATUS rd = zel::mrtd::bac_read_file(transceive, &answers, 0x0101, &file, &len, kKsEnc, kKsMac, &ssc);
    if (rd == ZEL_OK && (file == nullptr || len == 0))
        __builtin_trap();
    if (len != 0)
        (void)file[len - 1];
    OrbFree(file);
    return 0;
}
