// BAC and the file reads on a reader: the card link behind a handle and the implementations of the BAC
// family.
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "mrtd/mrtd_internal.h"
#include "tandro.h"
#include "zel_mrtd_doc.h"

namespace zel::mrtd {

namespace {

std::atomic<Transceive> g_hook_transceive{nullptr};
std::atomic<void *> g_hook_context{nullptr};

// One command APDU to the card on the reader of the handle; the answer with its status word.
ZEL_STATUS reader_transceive(void *context, const uint8_t *cmd, uint32_t cmd_len, uint8_t *resp, uint32_t *resp_len)
{
    auto hnd = static_cast<ZEL_HANDLE>(context);
    uint8_t *reply = nullptr;
    uint32_t reply_len = 0;
    const ZEL_STATUS st = APDUPlainTransceiveToHeapHnd(hnd, cmd, cmd_len, &reply, &reply_len);
    if (st != ZEL_OK) {
        OrbFree(reply);
        return st;
    }
    // The answer must fit the caller's buffer; a longer one is no answer of a travel document.
    if (reply_len > *resp_len) {
        OrbFree(reply);
        return ZEL_APDU_TRANSCEIVE_ERROR;
    }
    if (reply_len)
        std::memcpy(resp, reply, reply_len);
    *resp_len = reply_len;
    OrbFree(reply);
    return ZEL_OK;
}

} // namespace

Link card_link(ZEL_HANDLE hnd)
{
    const Transceive hook = g_hook_transceive.load();
    if (hook != nullptr)
        return Link{hook, g_hook_context.load()};
    return Link{reader_transceive, hnd};
}

void set_link_hook(Transceive transceive, void *context)
{
    g_hook_context.store(context);
    g_hook_transceive.store(transceive);
}

} // namespace zel::mrtd

extern "C" {

ZEL_API ZEL_STATUS MRTDAppSelectAndAuthenticateBacHnd(ZEL_HANDLE hnd, const char *mrz_proto_key, uint8_t *ks_enc,
                                                      uint8_t *ks_mac, uint64_t *ssc)
{
    const zel::mrtd::Link link = zel::mrtd::card_link(hnd);
    return zel::mrtd::bac_authenticate(link.transceive, link.context, mrz_proto_key, ks_enc, ks_mac, ssc);
}

ZEL_API ZEL_STATUS MRTDFileReadBacToHeapHnd(ZEL_HANDLE hnd, const uint8_t *file_id, uint8_t **out, uint32_t *out_len,
                                            const uint8_t *ks_enc, const uint8_t *ks_mac, uint64_t *ssc)
{
    if (out)
        *out = nullptr;
    if (out_len)
        *out_len = 0;
    if (file_id == nullptr)
        return ZEL_PARAMETERS_ERROR;
    const zel::mrtd::Link link = zel::mrtd::card_link(hnd);
    return zel::mrtd::bac_read_file(link.transceive, link.context, uint16_t((file_id[0] << 8) | file_id[1]), out,
                                    out_len, ks_enc, ks_mac, ssc);
}

} // extern "C"
