// A hostile GIDS card: every answer to the certificate reading (select, GET DATA, GET RESPONSE) comes from the
// input, as a length byte, that many data bytes and the two status bytes; when the input runs out the reader
// fails. The lengths of the object, its chaining and the compressed size are the card's to lie about.
#include <cstdlib>
#include <cstring>

#include "tandro.h"
#include "tls/tls_internal.h"

namespace {

struct Feed {
    const uint8_t *p;
    size_t left;
    uint32_t commands = 0;
};

ZEL_STATUS answer(void *ctx, const uint8_t *, size_t cmd_len, uint8_t *reply, size_t cap, size_t *len)
{
    auto *f = static_cast<Feed *>(ctx);
    if (cmd_len > 261 || ++f->commands > 400)
        std::abort(); // a command too long for one APDU, or a dialogue without end
    if (f->left < 1)
        return ZEL_COMMUNICATION_ERROR;
    const size_t n = f->p[0] + 2u;
    if (f->left < 1 + n)
        return ZEL_COMMUNICATION_ERROR;
    if (n > cap)
        return ZEL_BUFFER_SIZE_EXCEEDED;
    std::memcpy(reply, f->p + 1, n);
    *len = n;
    f->p += 1 + n;
    f->left -= 1 + n;
    return ZEL_OK;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Feed f{data, size};
    zel::tls::set_apdu_hook(answer, &f);
    uint8_t *der = nullptr;
    uint32_t len = 0;
    const ZEL_STATUS st = zel::tls::read_gids_certificate(reinterpret_cast<ZEL_HANDLE>(&f), &der, &len);
    if (st == ZEL_OK && (!der || !len))
        std::abort();
    if (st != ZEL_OK && der)
        std::abort();
    std::free(der);
    zel::tls::set_apdu_hook(nullptr, nullptr);
    return 0;
}
