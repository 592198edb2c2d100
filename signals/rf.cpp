// The analog registers of the RF front end, one set per card technology: set, back to the default, and read.
// The host packs five values into two bytes; the type A and B sets add three fixed bytes, the transmit forms
// their own three. Replies are read by hand.
#include <cstring>
#include <initializer_list>

#include "core/frame.h"
#include "signals/signals_internal.h"
#include "zel_port.h"
#include "zel_signals.h"
#include "zel_status.h"

using namespace zel;
using namespace zel::sig;

namespace {

constexpr uint8_t kTailA[3] = {0x88, 0x20, 0x88};
constexpr uint8_t kTailB[3] = {0xF8, 0x3F, 0x06};

// A set command with data (len bytes) as its EXT; the reply read by hand.
ZEL_STATUS rf_set(ZEL_HANDLE hnd, uint8_t set, const uint8_t *data, uint8_t len)
{
    return send_ext_by_hand(hnd, kCmdRfSet, set, 0, data, len);
}

// Back to the reader's default set: a frame without EXT, the reply read by hand.
ZEL_STATUS rf_default(ZEL_HANDLE hnd, uint8_t set, uint8_t par1)
{
    uint8_t frame[kFrameBufLen] = {};
    make_command(frame, kCmdRfSet, 0, set, par1);
    const ZEL_STATUS status = send_frame(hnd, frame);
    if (status != ZEL_OK)
        return status;
    return read_reply_by_hand(hnd, frame, kCmdRfSet);
}

RfValues values(uint8_t first, uint8_t second, uint8_t third, uint8_t fourth, uint8_t fifth)
{
    RfValues v;
    v.v[0] = first;
    v.v[1] = second;
    v.v[2] = third;
    v.v[3] = fourth;
    v.v[4] = fifth;
    return v;
}

ZEL_STATUS set_five(ZEL_HANDLE hnd, uint8_t set, const RfValues &v, const uint8_t *tail)
{
    uint8_t data[5];
    rf_pack(v, data);
    if (!tail)
        return rf_set(hnd, set, data, 2);
    std::memcpy(data + 2, tail, 3);
    return rf_set(hnd, set, data, 5);
}

ZEL_STATUS set_trans(ZEL_HANDLE hnd, const RfValues &v, uint8_t tx0, uint8_t tx1, uint8_t tx_high, uint8_t tx_low)
{
    const uint8_t tail[3] = {tx0, tx1, static_cast<uint8_t>(tx_high << 4 | (tx_low & 0x0F))};
    // Both transmit forms address the first set.
    return set_five(hnd, kRfTypeA, v, tail);
}

// The bytes of a read-back come with bytes 0 and 1 in the other order than the set command sends them.
void unswap(const uint8_t *ext, uint8_t out[2])
{
    out[0] = ext[1];
    out[1] = ext[0];
}

bool all_out(std::initializer_list<uint8_t *> outs)
{
    for (uint8_t *p : outs)
        if (!p)
            return false;
    return true;
}

ZEL_STATUS get_five(ZEL_HANDLE hnd, uint8_t set, uint8_t want_ext, bool pn7462, uint8_t *first, uint8_t *second,
                    uint8_t *third, uint8_t *fourth, uint8_t *fifth, uint8_t *tail = nullptr)
{
    if (!all_out({first, second, third, fourth, fifth}))
        return ZEL_PARAMETERS_ERROR;
    uint8_t ext[kFrameBufLen] = {};
    const ZEL_STATUS status = rf_get(hnd, set, ext, want_ext);
    if (status != ZEL_OK)
        return status;
    uint8_t packed[2];
    unswap(ext, packed);
    RfValues v;
    if (pn7462)
        rf_unpack_pn7462(packed, v);
    else
        rf_unpack(packed, v);
    *first = v.v[0];
    *second = v.v[1];
    *third = v.v[2];
    *fourth = v.v[3];
    *fifth = v.v[4];
    if (tail)
        std::memcpy(tail, ext + 2, 3);
    return ZEL_OK;
}

ZEL_STATUS get_trans(ZEL_HANDLE hnd, uint8_t *first, uint8_t *second, uint8_t *third, uint8_t *fourth, uint8_t *fifth,
                     uint8_t *tx0, uint8_t *tx1, uint8_t *tx_high, uint8_t *tx_low)
{
    if (!all_out({tx0, tx1, tx_high, tx_low}))
        return ZEL_PARAMETERS_ERROR;
    uint8_t tail[3];
    const ZEL_STATUS status = get_five(hnd, kRfTypeA, 6, false, first, second, third, fourth, fifth, tail);
    if (status != ZEL_OK)
        return status;
    *tx0 = tail[0];
    *tx1 = tail[1];
    *tx_high = tail[2] >> 4;
    *tx_low = tail[2] & 0x0F;
    return ZEL_OK;
}

} // namespace

void zel::sig::rf_pack(const RfValues &in, uint8_t out[2])
{
    out[0] = static_cast<uint8_t>((in.v[2] & 1) << 7 | (in.v[3] & 7) << 4 | (in.v[4] & 0x0F));
    out[1] = static_cast<uint8_t>((in.v[0] & 0x0F) << 4 | (in.v[1] & 7));
}

void zel::sig::rf_unpack(const uint8_t in[2], RfValues &out)
{
    out.v[0] = in[1] >> 4;
    out.v[1] = in[1] & 7;
    out.v[2] = in[0] >> 7;
    out.v[3] = (in[0] >> 4) & 7;
    out.v[4] = in[0] & 0x0F;
}

void zel::sig::rf_pack_pn7462(const RfValues &in, uint8_t out[2])
{
    out[0] = static_cast<uint8_t>((in.v[0] & 0x0F) | (in.v[1] & 0x0F) << 4);
    out[1] = static_cast<uint8_t>((in.v[2] & 3) | (in.v[4] & 3) << 2 | (in.v[3] & 0x0F) << 4);
}

void zel::sig::rf_unpack_pn7462(const uint8_t in[2], RfValues &out)
{
    out.v[0] = in[0] & 0x0F;
    out.v[1] = in[0] >> 4;
    out.v[2] = in[1] & 3;
    out.v[3] = in[1] >> 4;
    out.v[4] = (in[1] >> 2) & 3;
}

ZEL_STATUS zel::sig::rf_get(zel_handle_record *hnd, uint8_t set, uint8_t *ext, uint8_t want_ext)
{
    uint8_t frame[kFrameLen] = {};
    make_command(frame, kCmdRfGet, 0, set, 0);
    ZEL_STATUS status = send_frame(hnd, frame);
    if (status != ZEL_OK)
        return status;
    if ((status = PortRead(hnd, frame, kFrameLen)) != ZEL_OK)
        return status;
    if (!TestChecksum(frame, kFrameLen))
        return ZEL_COMMUNICATION_ERROR;
    // The EXT is read first; the frame, kept apart, is tested after it.
    const uint8_t ext_len = frame[kExtLen];
    if (ext_len && (status = PortRead(hnd, ext, ext_len)) != ZEL_OK)
        return status;
    if (frame[kHeader] == kErrHeader || frame[kTrailer] == kErrTrailer)
        return frame[kCmd];
    if (frame[kHeader] != kRspHeader || frame[kTrailer] != kRspTrailer || frame[kCmd] != kCmdRfGet)
        return ZEL_COMMUNICATION_ERROR;
    if (ext_len != want_ext || !TestChecksum(ext, ext_len))
        return ZEL_COMMUNICATION_ERROR;
    return ZEL_OK;
}

// Set.

extern "C" ZEL_API ZEL_STATUS SetRfAnalogRegistersTypeAHnd(ZEL_HANDLE hnd, uint8_t first, uint8_t second, uint8_t third,
                                                           uint8_t fourth, uint8_t fifth)
{
    return set_five(hnd, kRfTypeA, values(first, second, third, fourth, fifth), kTailA);
}

extern "C" ZEL_API ZEL_STATUS SetRfAnalogRegistersTypeBHnd(ZEL_HANDLE hnd, uint8_t first, uint8_t second, uint8_t third,
                                                           uint8_t fourth, uint8_t fifth)
{
    return set_five(hnd, kRfTypeB, values(first, second, third, fourth, fifth), kTailB);
}

extern "C" ZEL_API ZEL_STATUS SetRfAnalogRegistersISO14443_212Hnd(ZEL_HANDLE hnd, uint8_t first, uint8_t second,
                                                                  uint8_t third, uint8_t fourth, uint8_t fifth)
{
    return set_five(hnd, kRf212, values(first, second, third, fourth, fifth), nullptr);
}

extern "C" ZEL_API ZEL_STATUS SetRfAnalogRegistersISO14443_424Hnd(ZEL_HANDLE hnd, uint8_t first, uint8_t second,
                                                                  uint8_t third, uint8_t fourth, uint8_t fifth)
{
    return set_five(hnd, kRf424, values(first, second, third, fourth, fifth), nullptr);
}

extern "C" ZEL_API ZEL_STATUS SetRfAnalogRegistersTypeATransHnd(ZEL_HANDLE hnd, uint8_t first, uint8_t second,
                                                                uint8_t third, uint8_t fourth, uint8_t fifth,
                                                                uint8_t tx0, uint8_t tx1, uint8_t tx_high,
                                                                uint8_t tx_low)
{
    return set_trans(hnd, values(first, second, third, fourth, fifth), tx0, tx1, tx_high, tx_low);
}

extern "C" ZEL_API ZEL_STATUS SetRfAnalogRegistersTypeBTransHnd(ZEL_HANDLE hnd, uint8_t first, uint8_t second,
                                                                uint8_t third, uint8_t fourth, uint8_t fifth,
                                                                uint8_t tx0, uint8_t tx1, uint8_t tx_high,
                                                                uint8_t tx_low)
{
    return set_trans(hnd, values(first, second, third, fourth, fifth), tx0, tx1, tx_high, tx_low);
}

extern "C" ZEL_API ZEL_STATUS SetRfAnalogRegistersPN7462Hnd(ZEL_HANDLE hnd, uint8_t first, uint8_t second,
                                                            uint8_t third, uint8_t fourth, uint8_t fifth)
{
    uint8_t data[5] = {};
    rf_pack_pn7462(values(first, second, third, fourth, fifth), data);
    return rf_set(hnd, kRfPn7462, data, sizeof data);
}

// Default.

extern "C" ZEL_API ZEL_STATUS SetRfAnalogRegistersTypeADefaultHnd(ZEL_HANDLE hnd)
{
    return rf_default(hnd, kRfTypeA, 1);
}

extern "C" ZEL_API ZEL_STATUS SetRfAnalogRegistersTypeBDefaultHnd(ZEL_HANDLE hnd)
{
    return rf_default(hnd, kRfTypeB, 1);
}

extern "C" ZEL_API ZEL_STATUS SetRfAnalogRegistersISO14443_212DefaultHnd(ZEL_HANDLE hnd)
{
    return rf_default(hnd, kRf212, 1);
}

extern "C" ZEL_API ZEL_STATUS SetRfAnalogRegistersISO14443_424DefaultHnd(ZEL_HANDLE hnd)
{
    return rf_default(hnd, kRf424, 1);
}

extern "C" ZEL_API ZEL_STATUS SetRfAnalogRegistersPN7462DefaultHnd(ZEL_HANDLE hnd)
{
    return rf_default(hnd, kRfPn7462Default, 0);
}

// Read back.

extern "C" ZEL_API ZEL_STATUS GetRfAnalogRegistersTypeAHnd(ZEL_HANDLE hnd, uint8_t *first, uint8_t *second,
                                                           uint8_t *third, uint8_t *fourth, uint8_t *fifth)
{
    return get_five(hnd, kRfTypeA, 6, false, first, second, third, fourth, fifth);
}

extern "C" ZEL_API ZEL_STATUS GetRfAnalogRegistersTypeBHnd(ZEL_HANDLE hnd, uint8_t *first, uint8_t *second,
                                                           uint8_t *third, uint8_t *fourth, uint8_t *fifth)
{
    return get_five(hnd, kRfTypeB, 6, false, first, second, third, fourth, fifth);
}

extern "C" ZEL_API ZEL_STATUS GetRfAnalogRegistersISO14443_212Hnd(ZEL_HANDLE hnd, uint8_t *first, uint8_t *second,
                                                                  uint8_t *third, uint8_t *fourth, uint8_t *fifth)
{
    return get_five(hnd, kRf212, 3, false, first, second, third, fourth, fifth);
}

// The same routine as the 212 read: it asks for the 212 set.
extern "C" ZEL_API ZEL_STATUS GetRfAnalogRegistersISO14443_424Hnd(ZEL_HANDLE hnd, uint8_t *first, uint8_t *second,
                                                                  uint8_t *third, uint8_t *fourth, uint8_t *fifth)
{
    return GetRfAnalogRegistersISO14443_212Hnd(hnd, first, second, third, fourth, fifth);
}

extern "C" ZEL_API ZEL_STATUS GetRfAnalogRegistersTypeATransHnd(ZEL_HANDLE hnd, uint8_t *first, uint8_t *second,
                                                                uint8_t *third, uint8_t *fourth, uint8_t *fifth,
                                                                uint8_t *tx0, uint8_t *tx1, uint8_t *tx_high,
                                                                uint8_t *tx_low)
{
    return get_trans(hnd, first, second, third, fourth, fifth, tx0, tx1, tx_high, tx_low);
}

extern "C" ZEL_API ZEL_STATUS GetRfAnalogRegistersTypeBTransHnd(ZEL_HANDLE hnd, uint8_t *first, uint8_t *second,
                                                                uint8_t *third, uint8_t *fourth, uint8_t *fifth,
                                                                uint8_t *tx0, uint8_t *tx1, uint8_t *tx_high,
                                                                uint8_t *tx_low)
{
    return get_trans(hnd, first, second, third, fourth, fifth, tx0, tx1, tx_high, tx_low);
}

extern "C" ZEL_API ZEL_STATUS GetRfAnalogRegistersPN7462Hnd(ZEL_HANDLE hnd, uint8_t *first, uint8_t *second,
                                                            uint8_t *third, uint8_t *fourth, uint8_t *fifth)
{
    return get_five(hnd, kRfPn7462, 6, true, first, second, third, fourth, fifth);
}
