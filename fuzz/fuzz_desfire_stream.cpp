// DESFire streamed reads (0x83 standard data, 0x99 records) against arbitrary reader bytes, into a buffer of
// exactly the length asked for: pieces that do not fit, streams without end and odd closing replies must
// neither write past the buffer nor hang. With the top bit of the first byte, the same bytes go to the stream
// reader of serial lines, arriving in chunks of a size the first byte gives, through a buffer of the least
// size it takes.
#include <cstdlib>
#include <cstring>

#include "fuzz_link.h"
#include "smartcard/desfire_internal.h"
#include "tandro.h"

namespace {

struct Chunks {
    const uint8_t *p;
    size_t n, step;
    static uint32_t more(void *ctx, uint8_t *dst, uint32_t max)
    {
        auto *c = static_cast<Chunks *>(ctx);
        size_t k = c->n < c->step ? c->n : c->step;
        k = k < max ? k : max;
        std::memcpy(dst, c->p, k);
        c->p += k;
        c->n -= k;
        return static_cast<uint32_t>(k);
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 3)
        return 0;
    const uint16_t len = static_cast<uint16_t>(data[1] | (data[2] & 0x1F) << 8);
    zelfuzz::FuzzLink link(data + 3, size - 3);
    ZEL_HANDLE h = &link.record;
    auto *out = static_cast<uint8_t *>(std::malloc(len ? len : 1));
    if (data[0] & 0x80) {
        Chunks src{data + 3, size - 3, static_cast<size_t>((data[0] >> 2 & 0x1F) * 13 + 1)};
        uint8_t buf[257];
        zel::desfire::StreamBuf sb{buf, sizeof buf};
        uint32_t got = 0;
        bool overflow = false;
        zel::desfire::read_stream(Chunks::more, &src, sb, out, len, &got, &overflow);
        if (got > len || sb.at > sb.end || sb.end > sizeof buf)
            std::abort();
        std::free(out);
        return 0;
    }
    const uint8_t key[24] = {0x3A, 0x4B, 0x5C, 0x6D, 0x7E, 0x8F, 0x90, 0xA1, 0xB2, 0xC3, 0xD4, 0xE5,
                             0xF6, 0x07, 0x18, 0x29, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};
    uint16_t cs = 0, et = 0;
    switch (data[0] % 4) {
    case 0: Zel_int_DesfireReadStdDataFile_aes_PKM(h, key, 0xA1B2C3, 1, 2, 0, len, 3, out, &cs, &et); break;
    case 1: Zel_int_DesfireReadStdDataFile_no_authM(h, 0xA1B2C3, 0, 2, 0, len, 0, out, &cs, &et); break;
    case 2: {
        // Records: len bytes as records of 8 (or fewer when len is smaller).
        const uint16_t rs = len < 8 ? (len ? len : 1) : 8;
        Zel_int_DesfireReadRecords_3k3des_PKM(h, key, 0xA1B2C3, 1, 3, 0, static_cast<uint16_t>(len / rs), rs, 1, out,
                                              &cs, &et);
        break;
    }
    case 3: Zel_int_DesfireReadRecords_no_authM(h, 0xA1B2C3, 0, 3, 0, 1, len, 0, out, &cs, &et); break;
    }
    std::free(out);
    return 0;
}
