// A hostile payment card: every answer to the library's commands comes from the input, as a length byte,
// that many data bytes and the two status bytes; when the input runs out the reader fails. The first byte
// picks the account number, the last transaction or one READ RECORD.
#include <cstdlib>
#include <cstring>

#include "emv/emv_internal.h"
#include "tandro.h"

namespace {

struct Feed {
    const uint8_t *p;
    size_t left;
    uint32_t commands = 0;
};

ZEL_STATUS answer(void *ctx, uint8_t, uint8_t, uint8_t, uint8_t, const uint8_t *, uint32_t nc, uint8_t *out,
                  uint32_t *ne, uint16_t *sw)
{
    auto *f = static_cast<Feed *>(ctx);
    if (nc > 255 || ++f->commands > 2000)
        std::abort(); // a command too long for one APDU, or a dialogue without end
    if (f->left < 1)
        return ZEL_COMMUNICATION_ERROR;
    const size_t n = f->p[0];
    if (f->left < 1 + n + 2)
        return ZEL_COMMUNICATION_ERROR;
    if (n > *ne)
        return ZEL_BUFFER_SIZE_EXCEEDED;
    std::memcpy(out, f->p + 1, n);
    *ne = static_cast<uint32_t>(n);
    *sw = static_cast<uint16_t>(f->p[1 + n] | f->p[2 + n] << 8);
    f->p += 1 + n + 2;
    f->left -= 1 + n + 2;
    return ZEL_OK;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    Feed feed{data + 1, size - 1};
    zel::emv::set_transceive_hook(answer, &feed);
    switch (data[0] % 3) {
    case 0: {
        char pan[EMV_PAN_TEXT_SIZE + 1];
        pan[EMV_PAN_TEXT_SIZE] = 0x5A;
        if (EMV_GetPAN("2PAY.SYS.DDF01", pan) == ZEL_OK && std::strlen(pan) >= EMV_PAN_TEXT_SIZE)
            std::abort();
        if (pan[EMV_PAN_TEXT_SIZE] != 0x5A)
            std::abort();
        break;
    }
    case 1: {
        char text[EMV_LOG_TEXT_SIZE + 1];
        text[EMV_LOG_TEXT_SIZE] = 0x5A;
        if (EMV_GetLastTransaction("1PAY.SYS.DDF01", text) == ZEL_OK && std::strlen(text) >= EMV_LOG_TEXT_SIZE)
            std::abort();
        if (text[EMV_LOG_TEXT_SIZE] != 0x5A)
            std::abort();
        break;
    }
    default: {
        uint8_t resp[EMV_RECORD_SIZE];
        uint32_t n = 0;
        uint8_t sw[2];
        if (emvReadRecord(resp, &n, data[0] >> 3, 1, sw) == ZEL_OK && (n > EMV_RECORD_SIZE || sw[0] != 0x90))
            std::abort();
        break;
    }
    }
    zel::emv::set_transceive_hook(nullptr, nullptr);
    return 0;
}
