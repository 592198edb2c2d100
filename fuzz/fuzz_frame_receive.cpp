// Arbitrary reader bytes through the receive routines, the exchange shapes, the chained block receive and
// the record stream. The first input byte picks the routine; the rest is what the reader sends.
#include <cstdlib>
#include <cstring>

#include "core/frame.h"
#include "core/internal.h"
#include "fuzz/fuzz_link.h"
#include "tandro.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    zelfuzz::FuzzLink link(data + 1, size - 1);
    zel_handle_record &rec = link.record;

    uint8_t frame[zel::kFrameBufLen] = {};
    switch (data[0] % 9) {
    case 0: {
        uint32_t type;
        GetReaderTypeM(&rec, &type);
        break;
    }
    case 1: {
        uint8_t card_type;
        uint32_t uid;
        GetCardIdM(&rec, &card_type, &uid);
        break;
    }
    case 2: GetAndTestResponseIntro(&rec, frame, data[0]); break;
    case 3: GetAndTestResponseIntroSam(&rec, frame, data[0]); break;
    case 4: {
        uint8_t *reply = nullptr;
        uint32_t len = 0;
        uint8_t apdu[300];
        std::memset(apdu, 0xA5, sizeof apdu);
        if (zel::chain_transceive(&rec, apdu, (data[0] & 0x10) ? 300 : 5, &reply, &len, data[0] & 0x20,
                                  data[0] & 0x40) == ZEL_OK) {
            volatile uint8_t sink = len ? reply[len - 1] : 0;
            (void)sink;
        }
        std::free(reply);
        break;
    }
    case 5: {
        uint8_t out[3504];
        uint32_t len = 0;
        zel::read_multiblock_stream(&rec, out, sizeof out, &len);
        break;
    }
    case 6: {
        zel::make_command(frame, 0x27);
        const uint8_t ext[8] = {1, 2, 3, 4, 5, 6, 7, 8};
        uint8_t par[2], reply_len;
        zel::exchange_write_ext(&rec, frame, ext, 8, par, &reply_len);
        break;
    }
    case 7: {
        uint8_t reply[7], reply_ext[256];
        uint32_t rl, rel;
        const uint8_t f[7] = {0x55, 0x10, 0xAA, 0, 0, 0, 0xF6};
        COMTransceiveM(&rec, f, 7, f, 7, reply, &rl, reply_ext, &rel);
        break;
    }
    case 8: {
        uint8_t data16[16];
        zel::read_block_data(&rec, data[0], 17, data16);
        break;
    }
    }
    return 0;
}
