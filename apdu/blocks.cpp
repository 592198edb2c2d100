// Blocks that the host runs itself through the reader: I-blocks (commands 0x90 and 0x7F), R-blocks
// (0x91), and an APDU run over them.
#include <cstring>

#include "apdu/apdu_internal.h"
#include "core/bytes.h"
#include "core/frame.h"
#include "tandro.h"
#include "zel_apdu.h"

using namespace zel;

bool zel::block_reply_parse(const uint8_t *ext, uint32_t ext_len, bool has_chained_flag, BlockReply &out)
{
    out = BlockReply{};
    const uint32_t head = 4u + (has_chained_flag ? 1u : 0u) + 1u;
    if (!ext || ext_len < head + 1)
        return false;
    const uint8_t length = ext[head - 1];
    if (ext_len != head + length + 1u) // the checksum closes the block
        return false;
    out.status = get_le32(ext);
    out.chained = has_chained_flag ? ext[4] : 0;
    out.length = length;
    out.block = ext + head;
    return true;
}

namespace {

// After the reader said 115, its EXT still comes: read it so that the next exchange starts in step.
ZEL_STATUS drain_soft_error(zel_handle_record *hnd, uint8_t ext_len, uint8_t *buf)
{
    if (ext_len) {
        const ZEL_STATUS status = PortRead(hnd, buf, ext_len);
        if (status != ZEL_OK)
            return status;
    }
    return ZEL_VALUE_BLOCK_ADDR_INVALID;
}

// Takes the reply frame already in buf (status from its receive routine) and its EXT, and parses it.
ZEL_STATUS take_block_reply(zel_handle_record *hnd, ZEL_STATUS status, uint8_t *buf, bool has_flag, BlockReply &r)
{
    if (status == ZEL_VALUE_BLOCK_ADDR_INVALID)
        return drain_soft_error(hnd, buf[kExtLen], buf);
    if (status != ZEL_OK)
        return status;
    const uint8_t ext_len = buf[kExtLen];
    if ((status = GetAndTestResponseData(hnd, ext_len, buf)) != ZEL_OK)
        return status;
    return block_reply_parse(buf, ext_len, has_flag, r) ? ZEL_OK : ZEL_COMMUNICATION_ERROR;
}

// An I-block under command cmd: the data go in the EXT, PAR0 is 0x04 with 0x08 for chaining.
ZEL_STATUS i_block(zel_handle_record *hnd, uint8_t cmd, uint8_t chaining, uint8_t timeout, uint8_t len,
                   const uint8_t *data, uint8_t *buf, BlockReply &r)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!data && len)
        return ZEL_PARAMETERS_ERROR;
    if (len == 0xFF)
        return ZEL_MAX_SIZE_EXCEEDED; // the checksum must fit the EXT length too
    make_command(buf, cmd, static_cast<uint8_t>(len + 1), static_cast<uint8_t>(0x04 | (chaining ? 0x08 : 0)), timeout);
    uint8_t ack_len = 0;
    ZEL_STATUS status = InitialHandshaking(hnd, buf, &ack_len);
    if (status != ZEL_OK)
        return status == ZEL_VALUE_BLOCK_ADDR_INVALID ? drain_soft_error(hnd, buf[kExtLen], buf) : status;
    uint8_t ext[256];
    if (len)
        std::memcpy(ext, data, len);
    ext[len] = static_cast<uint8_t>(GetChecksumFragment(0, ext, len) + 7);
    if ((status = PortWrite(hnd, ext, len + 1u)) != ZEL_OK)
        return status;
    status = GetAndTestResponseIntro(hnd, buf, cmd);
    return take_block_reply(hnd, status, buf, cmd != kCmdBlock7F, r);
}

ZEL_STATUS r_block(zel_handle_record *hnd, uint8_t ack, uint8_t timeout, uint8_t *buf, BlockReply &r)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    make_command(buf, kCmdRBlock, 0, ack, timeout);
    uint8_t ext_len = 0;
    const ZEL_STATUS status = InitialHandshaking(hnd, buf, &ext_len);
    return take_block_reply(hnd, status, buf, true, r);
}

} // namespace

extern "C" ZEL_API ZEL_STATUS i_block_transceiveHnd(ZEL_HANDLE hnd, uint8_t chaining, uint8_t timeout,
                                                    uint8_t block_length, const uint8_t *snd_data, uint8_t *rcv_length,
                                                    uint8_t *rcv_data, uint8_t *chained, uint32_t *status_out)
{
    if (hnd && (!rcv_length || !rcv_data || !chained || !status_out))
        return ZEL_PARAMETERS_ERROR;
    uint8_t buf[kFrameBufLen] = {};
    BlockReply r;
    const ZEL_STATUS status = i_block(hnd, kCmdIBlock, chaining, timeout, block_length, snd_data, buf, r);
    if (status != ZEL_OK)
        return status;
    *status_out = r.status;
    *chained = r.chained;
    *rcv_length = r.length;
    std::memcpy(rcv_data, r.block, r.length);
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS i_block_transmitHnd(ZEL_HANDLE hnd, uint8_t chaining, uint8_t timeout,
                                                  uint8_t block_length, const uint8_t *snd_data, uint64_t *rcv_length,
                                                  uint8_t *rcv_data, uint32_t *status_out)
{
    if (hnd && (!rcv_length || !rcv_data || !status_out))
        return ZEL_PARAMETERS_ERROR;
    uint8_t buf[kFrameBufLen] = {};
    BlockReply r;
    const ZEL_STATUS status = i_block(hnd, kCmdBlock7F, chaining, timeout, block_length, snd_data, buf, r);
    if (status != ZEL_OK)
        return status;
    *status_out = r.status;
    *rcv_length = r.length;
    std::memcpy(rcv_data, r.block, r.length);
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS i_block_trans_rcv_chainHnd(ZEL_HANDLE hnd, uint8_t chaining, uint8_t timeout,
                                                         uint8_t block_length, const uint8_t *snd_data,
                                                         uint8_t *rcv_length, uint8_t *rcv_data, uint8_t *chained,
                                                         uint32_t *status_out)
{
    return i_block_transceiveHnd(hnd, chaining, timeout, block_length, snd_data, rcv_length, rcv_data, chained,
                                 status_out);
}

extern "C" ZEL_API ZEL_STATUS Zel_i_block_transceiveHnd(ZEL_HANDLE hnd, uint8_t chaining, uint8_t timeout,
                                                        uint8_t block_length, const uint8_t *snd_data,
                                                        uint64_t *rcv_length, uint8_t *rcv_data, uint32_t *status_out)
{
    return i_block_transmitHnd(hnd, chaining, timeout, block_length, snd_data, rcv_length, rcv_data, status_out);
}

extern "C" ZEL_API ZEL_STATUS r_block_transceiveHnd(ZEL_HANDLE hnd, uint8_t ack, uint8_t timeout, uint8_t *rcv_length,
                                                    uint8_t *rcv_data, uint8_t *chained, uint32_t *status_out)
{
    if (hnd && (!rcv_length || !rcv_data || !chained || !status_out))
        return ZEL_PARAMETERS_ERROR;
    uint8_t buf[kFrameBufLen] = {};
    BlockReply r;
    const ZEL_STATUS status = r_block(hnd, ack, timeout, buf, r);
    if (status != ZEL_OK)
        return status;
    *status_out = r.status;
    *chained = r.chained;
    *rcv_length = r.length;
    std::memcpy(rcv_data, r.block, r.length);
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS Zel_APDU_TransceiveHnd(ZEL_HANDLE hnd, uint8_t cla, uint8_t ins, uint8_t p1, uint8_t p2,
                                                     const uint8_t *data_in, uint8_t nc, uint8_t *data_out,
                                                     uint32_t max_out, uint32_t *ne, uint8_t send_le, uint8_t *sw)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!ne || !sw || !data_out || (!data_in && nc))
        return ZEL_PARAMETERS_ERROR;
    uint8_t cmd[kApduBuildMax];
    uint32_t len = 0;
    cmd[len++] = cla;
    cmd[len++] = ins;
    cmd[len++] = p1;
    cmd[len++] = p2;
    if (nc) {
        cmd[len++] = nc;
        std::memcpy(cmd + len, data_in, nc);
        len += nc;
    }
    if (send_le)
        cmd[len++] = static_cast<uint8_t>(*ne);
    if (len > 0xFE)
        return ZEL_MAX_SIZE_EXCEEDED; // the I-block's EXT holds the command and its checksum
    *ne = 0;
    uint8_t buf[kFrameBufLen] = {};
    BlockReply r;
    ZEL_STATUS status = i_block(hnd, kCmdIBlock, 0, 100, static_cast<uint8_t>(len), cmd, buf, r);
    if (status != ZEL_OK)
        return status;
    uint32_t have = 0;
    uint32_t last = r.length ? r.length - 1u : 0u; // bytes behind the PCB in the last block
    if (r.length > 1) {
        if (last > max_out)
            return ZEL_MAX_SIZE_EXCEEDED;
        std::memcpy(data_out, r.block + 1, last);
        have = last;
        *ne = have;
    }
    // The card chains its answer: an R(ACK) for each further block.
    for (uint32_t rounds = 0; r.chained; ++rounds) {
        if (rounds >= kMaxAckRounds)
            return ZEL_COMMUNICATION_ERROR;
        if ((status = r_block(hnd, 1, 100, buf, r)) != ZEL_OK)
            return status;
        if (r.length < 2) {
            last = 0;
            continue; // nothing behind the PCB: ask again while the card says it has more
        }
        last = r.length - 1u;
        if (last + have > max_out)
            return ZEL_MAX_SIZE_EXCEEDED;
        std::memcpy(data_out + have, r.block + 1, last);
        have += last;
        *ne = have;
    }
    // The status bytes stay at the end of the data and are counted; sw gets a copy.
    if (last >= 2) {
        sw[0] = data_out[have - 2];
        sw[1] = data_out[have - 1];
    } else {
        sw[0] = 0;
        sw[1] = 0;
    }
    return ZEL_OK;
}
