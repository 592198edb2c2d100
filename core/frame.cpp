// Checksums, the receive routines of the frame protocol and the exchange shapes built on them.
#include "core/frame.h"

#include <cstdlib>
#include <cstring>

#include "core/internal.h"
#include "core/wipe.h"
#include "zel_port.h"
#include "zel_status.h"

using namespace zel;

namespace {

uint8_t xor_span(const uint8_t *data, uint32_t n)
{
    uint8_t x = 0;
    for (uint32_t i = 0; i < n; ++i)
        x ^= data[i];
    return x;
}

inline bool is_frame(const uint8_t *f, uint8_t header, uint8_t trailer)
{
    return f[kHeader] == header && f[kTrailer] == trailer;
}

bool frame_checksum_ok(const uint8_t *f)
{
    return TestChecksum(f, kFrameLen) != 0;
}

} // namespace

extern "C" ZEL_API void CalcChecksum(uint8_t *buffer, uint16_t length)
{
    if (!buffer || length == 0)
        return;
    // The span comes from the low byte of the length, the position from all of it.
    uint32_t span = static_cast<uint8_t>(length);
    span = span > 2 ? span - 1 : 1;
    buffer[length - 1] = static_cast<uint8_t>(xor_span(buffer, span) + 7);
}

extern "C" ZEL_API int TestChecksum(const uint8_t *buffer, uint16_t length)
{
    if (!buffer || length == 0)
        return 0;
    const uint32_t span = length > 2 ? length - 1u : 1u;
    return buffer[length - 1] == static_cast<uint8_t>(xor_span(buffer, span) + 7);
}

extern "C" ZEL_API uint8_t GetChecksum_local(const uint8_t *buffer, uint8_t length)
{
    if (!buffer)
        return 7;
    const uint32_t span = length > 2 ? length - 1u : 1u;
    return static_cast<uint8_t>(xor_span(buffer, span) + 7);
}

extern "C" ZEL_API uint8_t GetChecksumFragment(uint8_t seed, const uint8_t *data, uint16_t length)
{
    if (!data)
        return seed;
    return static_cast<uint8_t>(seed ^ xor_span(data, length));
}

extern "C" ZEL_API ZEL_STATUS InitialHandshaking(ZEL_HANDLE hnd, uint8_t *frame, uint8_t *ext_len)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!frame || !ext_len)
        return ZEL_PARAMETERS_ERROR;
    const uint8_t command = frame[kCmd];
    ZEL_STATUS status = PortPurge(hnd);
    (void)status; // a failed purge does not stop the command: the reply tells
    CalcChecksum(frame, kFrameLen);
    if ((status = PortWrite(hnd, frame, kFrameLen)) != ZEL_OK)
        return status;
    if ((status = PortRead(hnd, frame, kFrameLen)) != ZEL_OK)
        return status;
    if (!frame_checksum_ok(frame))
        return ZEL_COMMUNICATION_ERROR;
    if (frame[kHeader] == kErrHeader)
        return frame[kTrailer] == kErrTrailer ? frame[kCmd] : ZEL_COMMUNICATION_ERROR;
    if (frame[kCmd] != command)
        return ZEL_COMMUNICATION_ERROR;
    if (is_frame(frame, kRspHeader, kRspTrailer) || is_frame(frame, kAckHeader, kAckTrailer)) {
        *ext_len = frame[kExtLen];
        return ZEL_OK;
    }
    return ZEL_COMMUNICATION_ERROR;
}

extern "C" ZEL_API ZEL_STATUS GetAndTestResponseIntro(ZEL_HANDLE hnd, uint8_t *frame, uint8_t command)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!frame)
        return ZEL_PARAMETERS_ERROR;
    ZEL_STATUS status = PortRead(hnd, frame, kFrameLen);
    if (status != ZEL_OK)
        return status;
    if (!frame_checksum_ok(frame))
        return ZEL_COMMUNICATION_ERROR;
    // Here either marker of an error frame is enough.
    if (frame[kHeader] == kErrHeader || frame[kTrailer] == kErrTrailer)
        return frame[kCmd];
    if (frame[kHeader] == kInterimHeader)
        return frame[kTrailer] == kInterimTrailer && frame[kCmd] == command ? ZEL_OK : ZEL_COMMUNICATION_ERROR;
    // The acknowledge of a piece of a chained block.
    if (frame[kCmd] == kCmdChainedApdu && frame[kHeader] == kAckHeader && frame[kPar1] == kChainMore)
        return frame[kTrailer] == kAckTrailer ? ZEL_OK : ZEL_COMMUNICATION_ERROR;
    return is_frame(frame, kRspHeader, kRspTrailer) && frame[kCmd] == command ? ZEL_OK : ZEL_COMMUNICATION_ERROR;
}

extern "C" ZEL_API ZEL_STATUS GetAndTestResponseIntroSam(ZEL_HANDLE hnd, uint8_t *frame, uint8_t command)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!frame)
        return ZEL_PARAMETERS_ERROR;
    // Interim frames may come as long as the reader works, but not for ever.
    const uint32_t start = tick_ms();
    for (;;) {
        const ZEL_STATUS status = PortRead(hnd, frame, kFrameLen);
        if (status != ZEL_OK)
            return status;
        if (frame[kHeader] == kInterimHeader) {
            if (frame[kTrailer] == kInterimTrailer && frame[kCmd] == command) {
                if (tick_ms() - start > kInterimLimitMs)
                    return ZEL_COMMUNICATION_ERROR;
                continue; // its checksum is not looked at
            }
            return frame_checksum_ok(frame) && frame[kTrailer] == kErrTrailer ? frame[kCmd] : ZEL_COMMUNICATION_ERROR;
        }
        if (!frame_checksum_ok(frame))
            return ZEL_COMMUNICATION_ERROR;
        if (frame[kHeader] == kErrHeader || frame[kTrailer] == kErrTrailer)
            return frame[kCmd];
        if (is_frame(frame, kRspHeader, kRspTrailer))
            return frame[kCmd] == command ? ZEL_OK : ZEL_COMMUNICATION_ERROR;
        return ZEL_COMMUNICATION_ERROR;
    }
}

extern "C" ZEL_API ZEL_STATUS GetAndTestResponseData(ZEL_HANDLE hnd, uint16_t length, uint8_t *buffer)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!buffer)
        return ZEL_PARAMETERS_ERROR;
    const ZEL_STATUS status = PortRead(hnd, buffer, length);
    if (status != ZEL_OK)
        return status;
    return TestChecksum(buffer, length) ? ZEL_OK : ZEL_COMMUNICATION_ERROR;
}

extern "C" ZEL_API ZEL_STATUS COMTransceiveHnd(ZEL_HANDLE hnd, const uint8_t *frame, uint32_t frame_len,
                                               const uint8_t *ext, uint32_t ext_len, uint8_t *reply,
                                               uint32_t *reply_len, uint8_t *reply_ext, uint32_t *reply_ext_len)
{
    if (reply_len)
        *reply_len = 0;
    if (reply_ext_len)
        *reply_ext_len = 0;
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!frame || !reply || !reply_len || !reply_ext || !reply_ext_len || (!ext && ext_len))
        return ZEL_PARAMETERS_ERROR;
    ZEL_STATUS status = PortWrite(hnd, frame, frame_len);
    if (status != ZEL_OK)
        return status;
    if (ext && ext_len) {
        uint8_t ack[kFrameLen];
        if ((status = PortRead(hnd, ack, kFrameLen)) != ZEL_OK)
            return status;
        if ((status = PortWrite(hnd, ext, ext_len)) != ZEL_OK)
            return status;
    }
    if ((status = PortRead(hnd, reply, kFrameLen)) != ZEL_OK)
        return status;
    *reply_len = kFrameLen;
    if (reply[kExtLen] != 0) {
        if ((status = PortRead(hnd, reply_ext, reply[kExtLen])) != ZEL_OK)
            return status;
        *reply_ext_len = reply[kExtLen];
    }
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS TestAuthMode(uint8_t auth_mode)
{
    switch (auth_mode) {
    case 0x60:
    case 0x61:
    case 0x80:
    case 0x81:
    case 0x02: return ZEL_OK;
    default: return ZEL_PARAMETERS_ERROR;
    }
}

ZEL_STATUS zel::handshake(zel_handle_record *hnd, uint8_t cmd, uint8_t par0, uint8_t par1, uint8_t *reply_par)
{
    uint8_t frame[kFrameBufLen] = {};
    uint8_t ext_len = 0;
    make_command(frame, cmd, 0, par0, par1);
    const ZEL_STATUS status = InitialHandshaking(hnd, frame, &ext_len);
    if (status == ZEL_OK && reply_par) {
        reply_par[0] = frame[kPar0];
        reply_par[1] = frame[kPar1];
    }
    return status;
}

uint8_t zel::auth_mode_par0(uint8_t auth_mode)
{
    if (auth_mode == 0x80)
        return 2;
    if (auth_mode == 0x81)
        return 3;
    return auth_mode & 0x0F;
}

extern "C" ZEL_API uint16_t CRC16(const uint8_t *data, uint16_t length)
{
    uint16_t crc = 0xFFFF;
    if (!data)
        return crc;
    for (uint32_t i = 0; i < length; ++i) {
        crc ^= static_cast<uint16_t>(data[i] << 8);
        for (int bit = 0; bit < 8; ++bit)
            crc = static_cast<uint16_t>(crc & 0x8000 ? (crc << 1) ^ 0x1021 : crc << 1);
    }
    return crc;
}

extern "C" ZEL_API uint8_t CRC8(const uint8_t *buffer, uint8_t length)
{
    uint8_t crc = 0xFF;
    if (!buffer)
        return crc;
    for (uint32_t i = 0; i < length; ++i) {
        crc ^= buffer[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = static_cast<uint8_t>(crc & 0x80 ? (crc << 1) ^ 0x31 : crc << 1);
    }
    return crc;
}

// Exchange shapes.

ZEL_STATUS zel::exchange_read_ext(zel_handle_record *hnd, uint8_t *buf, uint8_t *par, uint8_t *ext_len)
{
    uint8_t len = 0;
    ZEL_STATUS status = InitialHandshaking(hnd, buf, &len);
    if (status != ZEL_OK)
        return status;
    par[0] = buf[kPar0];
    par[1] = buf[kPar1];
    if ((status = GetAndTestResponseData(hnd, len, buf)) != ZEL_OK)
        return status;
    *ext_len = len;
    return ZEL_OK;
}

ZEL_STATUS zel::exchange_reply(zel_handle_record *hnd, Reply &r, ExtRead how)
{
    if (how == ExtRead::tested)
        return exchange_read_ext(hnd, r.buf, r.par, &r.ext_len);
    uint8_t len = 0;
    ZEL_STATUS status = InitialHandshaking(hnd, r.buf, &len);
    if (status != ZEL_OK)
        return status;
    r.par[0] = r.buf[kPar0];
    r.par[1] = r.buf[kPar1];
    r.ext_len = 0;
    if (len == 0)
        return ZEL_OK;
    if (how == ExtRead::optional) {
        status = GetAndTestResponseData(hnd, len, r.buf);
    } else if ((status = PortRead(hnd, r.buf, len)) == ZEL_OK) {
        const uint8_t want = static_cast<uint8_t>(GetChecksumFragment(0, r.buf, len - 1u) + 7);
        status = r.buf[len - 1] == want ? ZEL_OK : ZEL_COMMUNICATION_ERROR;
    }
    if (status != ZEL_OK)
        return status;
    r.ext_len = len;
    return ZEL_OK;
}

ZEL_STATUS zel::command_reply(zel_handle_record *hnd, uint8_t cmd, uint8_t par0, uint8_t par1, Reply &r,
                              uint8_t min_ext, ExtRead how)
{
    make_command(r.buf, cmd, 0, par0, par1);
    const ZEL_STATUS status = exchange_reply(hnd, r, how);
    if (status == ZEL_OK && r.ext_len < min_ext)
        return ZEL_COMMUNICATION_ERROR;
    return status;
}

ZEL_STATUS zel::exchange_wake_read_ext(zel_handle_record *hnd, uint8_t *buf, uint8_t *par, uint8_t *ext_len)
{
    const uint8_t wake = 0x00;
    const ZEL_STATUS status = PortWrite(hnd, &wake, 1);
    if (status != ZEL_OK)
        return status;
    os_sleep(10);
    return exchange_read_ext(hnd, buf, par, ext_len);
}

ZEL_STATUS zel::exchange_wake_reply(zel_handle_record *hnd, Reply &r)
{
    return exchange_wake_read_ext(hnd, r.buf, r.par, &r.ext_len);
}

ZEL_STATUS zel::exchange_write_ext(zel_handle_record *hnd, uint8_t *frame, const uint8_t *ext_data,
                                   uint8_t ext_data_len, uint8_t *reply_par, uint8_t *reply_ext_len)
{
    if (ext_data_len == 0xFF)
        return ZEL_MAX_SIZE_EXCEEDED; // the checksum byte must fit the length too
    const uint8_t command = frame[kCmd];
    frame[kExtLen] = static_cast<uint8_t>(ext_data_len + 1);
    uint8_t ack_len = 0;
    ZEL_STATUS status = InitialHandshaking(hnd, frame, &ack_len);
    if (status != ZEL_OK)
        return status;
    uint8_t ext[256];
    // An EXT may carry a key or a password.
    const WipeOnExit wipe_ext(ext, ext_data_len + 1u);
    if (ext_data_len)
        std::memcpy(ext, ext_data, ext_data_len);
    ext[ext_data_len] = static_cast<uint8_t>(GetChecksumFragment(0, ext, ext_data_len) + 7);
    if ((status = PortWrite(hnd, ext, ext_data_len + 1u)) != ZEL_OK)
        return status;
    if ((status = GetAndTestResponseIntro(hnd, frame, command)) != ZEL_OK)
        return status;
    if (reply_par) {
        reply_par[0] = frame[kPar0];
        reply_par[1] = frame[kPar1];
    }
    const uint8_t len = frame[kExtLen];
    if (reply_ext_len)
        *reply_ext_len = len;
    if (len == 0)
        return ZEL_OK;
    return GetAndTestResponseData(hnd, len, frame);
}

ZEL_STATUS zel::command_write_reply(zel_handle_record *hnd, uint8_t cmd, uint8_t par0, uint8_t par1,
                                    const uint8_t *data, uint8_t len, Reply &r)
{
    make_command(r.buf, cmd, 0, par0, par1);
    return exchange_write_ext(hnd, r.buf, data, len, r.par, &r.ext_len);
}

ZEL_STATUS zel::read_block_data(zel_handle_record *hnd, uint8_t ext_len, uint8_t expected_len, uint8_t *data)
{
    if (ext_len != expected_len || ext_len == 0)
        return ZEL_COMMUNICATION_ERROR;
    ZEL_STATUS status = PortRead(hnd, data, ext_len - 1u);
    if (status != ZEL_OK)
        return status;
    uint8_t checksum = 0;
    if ((status = PortRead(hnd, &checksum, 1)) != ZEL_OK)
        return status;
    const uint8_t expected = static_cast<uint8_t>(GetChecksumFragment(0, data, ext_len - 1u) + 7);
    return checksum == expected ? ZEL_OK : ZEL_COMMUNICATION_ERROR;
}

ZEL_STATUS zel::read_multiblock_stream(zel_handle_record *hnd, uint8_t *out, uint32_t cap, uint32_t *len)
{
    *len = 0;
    // A record costs at least two bytes of the stream; more records than that cannot be honest.
    for (uint32_t records = 0; records <= cap + 1; ++records) {
        uint8_t marker = 0;
        if (PortRead(hnd, &marker, 1) != ZEL_OK)
            return ZEL_READING_ERROR;
        if (marker == 0xDD)
            return ZEL_OK;
        if (marker == 0xCC)
            return ZEL_READING_ERROR;
        if (marker != 0)
            return marker;
        uint8_t n = 0;
        if (PortRead(hnd, &n, 1) != ZEL_OK)
            return ZEL_READING_ERROR;
        if (n > cap - *len)
            return ZEL_BUFFER_OVERFLOW;
        if (PortRead(hnd, out + *len, n) != ZEL_OK)
            return ZEL_READING_ERROR;
        *len += n;
    }
    return ZEL_BUFFER_OVERFLOW;
}

namespace {

// Waits out the interim frames that may come before the reply to a chained piece.
ZEL_STATUS await_chain_reply(zel_handle_record *hnd, uint8_t *frame)
{
    const uint32_t start = tick_ms();
    for (;;) {
        const ZEL_STATUS status = GetAndTestResponseIntro(hnd, frame, kCmdChainedApdu);
        if (status != ZEL_OK)
            return status;
        if (!is_frame(frame, kInterimHeader, kInterimTrailer))
            return ZEL_OK;
        if (tick_ms() - start > kInterimLimitMs)
            return ZEL_COMMUNICATION_ERROR;
    }
}

// Reads one reply piece of ext_len bytes behind *len bytes of the reply, over the previous checksum.
ZEL_STATUS read_chain_piece(zel_handle_record *hnd, uint8_t ext_len, uint8_t **reply, uint32_t *len, uint32_t *cap)
{
    if (ext_len == 0)
        return ZEL_APDU_TRANSCEIVE_ERROR;
    if (*len + ext_len > kChainMaxReply + 1)
        return ZEL_MAX_SIZE_EXCEEDED;
    if (*len + ext_len > *cap) {
        const uint32_t grown = (*len + ext_len) * 2;
        auto *bigger = static_cast<uint8_t *>(std::realloc(*reply, grown));
        if (!bigger)
            return ZEL_NO_MEMORY_ERROR;
        *reply = bigger;
        *cap = grown;
    }
    ZEL_STATUS status = PortRead(hnd, *reply + *len, ext_len);
    if (status != ZEL_OK)
        return status;
    if (!TestChecksum(*reply + *len, ext_len))
        return ZEL_COMMUNICATION_ERROR;
    *len += ext_len - 1u; // the next piece lands on this one's checksum
    return ZEL_OK;
}

} // namespace

ZEL_STATUS zel::chain_transceive(zel_handle_record *hnd, const uint8_t *data, uint32_t len, uint8_t **reply,
                                 uint32_t *reply_len, bool split_checksum, bool keep_long_timeout)
{
    *reply = nullptr;
    *reply_len = 0;
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!data || len == 0)
        return ZEL_PARAMETERS_ERROR;
    if (len > kChainMaxCommand)
        return ZEL_MAX_SIZE_EXCEEDED;

    uint8_t frame[kFrameLen];
    uint8_t piece[256 + 1];
    ZEL_STATUS status = ZEL_OK;
    for (uint32_t at = 0; at < len;) {
        const uint32_t left = len - at;
        const uint32_t n = left > 256 ? 256 : left;
        make_command(frame, kCmdChainedApdu, static_cast<uint8_t>((n + 1) & 0xFF), static_cast<uint8_t>((n + 1) >> 8),
                     left > 256 ? kChainMore : 0);
        if (at == 0) {
            uint8_t ack_len = 0;
            if ((status = InitialHandshaking(hnd, frame, &ack_len)) != ZEL_OK)
                return status;
        } else {
            CalcChecksum(frame, kFrameLen);
            if ((status = PortWrite(hnd, frame, kFrameLen)) != ZEL_OK)
                return status;
        }
        std::memcpy(piece, data + at, n);
        piece[n] = static_cast<uint8_t>(GetChecksumFragment(0, piece, static_cast<uint16_t>(n)) + 7);
        if (split_checksum) {
            if ((status = PortWrite(hnd, piece, n)) != ZEL_OK || (status = PortWrite(hnd, piece + n, 1)) != ZEL_OK)
                return status;
        } else if ((status = PortWrite(hnd, piece, n + 1)) != ZEL_OK) {
            return status;
        }
        PortSetTimeout(hnd, 1500);
        status = await_chain_reply(hnd, frame);
        if (!keep_long_timeout || status != ZEL_OK)
            PortSetTimeout(hnd, 1000);
        if (status != ZEL_OK)
            return status;
        at += n;
    }
    if (keep_long_timeout)
        PortSetTimeout(hnd, 1500);

    // The frame in hand answers the last piece; the reply may come in several pieces.
    uint32_t cap = frame[kExtLen];
    uint8_t *buf = static_cast<uint8_t *>(std::malloc(cap ? cap : 1));
    if (!buf)
        return ZEL_NO_MEMORY_ERROR;
    uint32_t have = 0;
    status = read_chain_piece(hnd, frame[kExtLen], &buf, &have, &cap);
    for (uint32_t pieces = 0; status == ZEL_OK && frame[kPar1] == kChainMore; ++pieces) {
        if (pieces > kChainMaxReply / 16) {
            status = ZEL_COMMUNICATION_ERROR; // a reader that never ends its reply
            break;
        }
        if ((status = GetAndTestResponseIntro(hnd, frame, kCmdChainedApdu)) != ZEL_OK)
            break;
        status = read_chain_piece(hnd, frame[kExtLen], &buf, &have, &cap);
    }
    if (status != ZEL_OK) {
        std::free(buf);
        return status;
    }
    *reply = buf;
    *reply_len = have;
    return ZEL_OK;
}
