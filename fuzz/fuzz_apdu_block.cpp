// The block reply parser alone, and arbitrary reader bytes as the answers to the block operations and to
// an APDU run over blocks (whose R(ACK) loop must end). The first input byte picks; the rest is the reader.
#include <cstdlib>
#include <cstring>

#include "apdu/apdu_internal.h"
#include "core/frame.h"
#include "core/internal.h"
#include "fuzz_link.h"
#include "tandro.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    const uint8_t pick = data[0];
    if (pick % 5 == 0) {
        zel::BlockReply r;
        const uint32_t n = static_cast<uint32_t>(size - 1);
        if (zel::block_reply_parse(data + 1, n, pick & 0x80, r) &&
            (r.block < data + 1 || r.block + r.length > data + size))
            std::abort();
        return 0;
    }
    zelfuzz::FuzzLink link(data + 1, size - 1);
    zel_handle_record &rec = link.record;
    const uint8_t send[8] = {0x00, 0xB0, 0x00, 0x00, 0x10, 0, 0, 0};
    uint8_t rcv[255];
    uint8_t len = 0, chained = 0;
    uint32_t status = 0;
    switch (pick % 5) {
    case 1: i_block_trans_rcv_chainM(&rec, pick & 0x10, 100, 5, send, &len, rcv, &chained, &status); break;
    case 2: {
        uint64_t len64 = 0;
        Zel_i_block_transceiveM(&rec, 0, 100, 5, send, &len64, rcv, &status);
        if (len64 > sizeof rcv)
            std::abort();
        break;
    }
    case 3: r_block_transceiveM(&rec, pick & 0x10, 100, &len, rcv, &chained, &status); break;
    default: {
        const uint32_t cap = (pick >> 3) * 8u;
        uint8_t *out = static_cast<uint8_t *>(std::malloc(cap ? cap : 1));
        uint32_t ne = 16;
        uint8_t sw[2];
        if (Zel_APDU_TransceiveM(&rec, 0, 0xB0, 0, 0, nullptr, 0, out, cap, &ne, 1, sw) == ZEL_OK && ne > cap)
            std::abort();
        std::free(out);
        break;
    }
    }
    return 0;
}
