// Frame layout and the internal exchange helpers built on the receive routines.
#ifndef ZEL_CORE_FRAME_H
#define ZEL_CORE_FRAME_H

#include <cstdint>

#include "zel_frame.h"
#include "zel_handle.h"

namespace zel {

// Frame offsets.
constexpr int kHeader = 0, kCmd = 1, kTrailer = 2, kExtLen = 3, kPar0 = 4, kPar1 = 5, kChecksum = 6;
constexpr uint32_t kFrameLen = 7;
// A frame buffer that also takes the largest EXT behind the frame.
constexpr uint32_t kFrameBufLen = 256 + 8;

// Frame kinds: header and trailer.
constexpr uint8_t kCmdHeader = 0x55, kCmdTrailer = 0xAA;
constexpr uint8_t kAckHeader = 0xAC, kAckTrailer = 0xCA;
constexpr uint8_t kRspHeader = 0xDE, kRspTrailer = 0xED;
constexpr uint8_t kErrHeader = 0xEC, kErrTrailer = 0xCE;
constexpr uint8_t kInterimHeader = 0xA1, kInterimTrailer = 0x85;

// Command codes used by the core.
constexpr uint8_t kCmdChainedApdu = 0x94;
constexpr uint8_t kChainMore = 0x5A; // 'Z': more pieces follow

// Fills a command frame's first six bytes.
inline void make_command(uint8_t *frame, uint8_t cmd, uint8_t ext_len = 0, uint8_t par0 = 0, uint8_t par1 = 0)
{
    frame[kHeader] = kCmdHeader;
    frame[kCmd] = cmd;
    frame[kTrailer] = kCmdTrailer;
    frame[kExtLen] = ext_len;
    frame[kPar0] = par0;
    frame[kPar1] = par1;
    frame[kChecksum] = 0;
}

// Shape 1: a command without EXT answered by a plain frame. The reply's PAR0 and PAR1 go to reply_par when
// it is not null.
ZEL_STATUS handshake(zel_handle_record *hnd, uint8_t cmd, uint8_t par0 = 0, uint8_t par1 = 0,
                     uint8_t *reply_par = nullptr);

// The code that an auth mode puts into PAR0: 0x80 is 2, 0x81 is 3, any other its low four bits.
uint8_t auth_mode_par0(uint8_t auth_mode);

// Shape 2: a command without EXT whose reply carries an EXT. The frame and then the EXT land in buf
// (kFrameBufLen bytes); the reply frame's PAR0 and PAR1 go to par (two bytes) before the EXT overwrites them.
// ext_len tells the EXT length, checksum included.
ZEL_STATUS exchange_read_ext(zel_handle_record *hnd, uint8_t *buf, uint8_t *par, uint8_t *ext_len);

// A reply of shape 2: the reply frame's PAR0 and PAR1, and its EXT (checksum included) at the front of buf,
// where the command frame was before.
struct Reply {
    uint8_t buf[kFrameBufLen] = {};
    uint8_t par[2] = {};
    uint8_t ext_len = 0;
    // The EXT's data bytes, without the checksum.
    uint32_t data_len() const { return ext_len ? ext_len - 1u : 0u; }
};

// How the EXT of a reply is read.
enum class ExtRead : uint8_t {
    // Read and tested whatever EXT_LEN says: a reply without data (EXT_LEN 0 or 1) fails the test.
    tested,
    // EXT_LEN 0 means no EXT and holds; any other is read and tested as above.
    optional,
    // EXT_LEN 0 means no EXT; the checksum is that of the data before it, so the checksum alone (7) holds.
    optional_bare,
};

// Shape 2 for the command frame already in r.buf: the reply's PAR0, PAR1 and EXT go to r.
ZEL_STATUS exchange_reply(zel_handle_record *hnd, Reply &r, ExtRead how = ExtRead::tested);

// Shape 2 in one call: the command frame (cmd, par0, par1) is made in r.buf first, and a reply whose EXT
// (checksum included) is shorter than min_ext answers ZEL_COMMUNICATION_ERROR.
ZEL_STATUS command_reply(zel_handle_record *hnd, uint8_t cmd, uint8_t par0, uint8_t par1, Reply &r, uint8_t min_ext = 0,
                         ExtRead how = ExtRead::tested);

// Shape 4: one wake byte 0x00, a pause of 10 ms for a sleeping reader to come up, then shape 2.
ZEL_STATUS exchange_wake_read_ext(zel_handle_record *hnd, uint8_t *buf, uint8_t *par, uint8_t *ext_len);
// Shape 4 for the command frame already in r.buf.
ZEL_STATUS exchange_wake_reply(zel_handle_record *hnd, Reply &r);

// Shape 3: a command with an EXT of ext_data_len data bytes (its checksum is added), then the response.
// The response frame is left in frame and its EXT, if any, is read into frame as well, tested.
ZEL_STATUS exchange_write_ext(zel_handle_record *hnd, uint8_t *frame, const uint8_t *ext_data, uint8_t ext_data_len,
                              uint8_t *reply_par, uint8_t *reply_ext_len);

// Shape 3 with the reply in r: the command frame (cmd, par0, par1) is made in r.buf, data (len bytes) go as
// its EXT, and the response's PAR0, PAR1 and EXT come back in r. r.ext_len tells the response's EXT_LEN
// also when reading that EXT failed.
ZEL_STATUS command_write_reply(zel_handle_record *hnd, uint8_t cmd, uint8_t par0, uint8_t par1, const uint8_t *data,
                               uint8_t len, Reply &r);

// Reads a block reply of ext_len bytes whose data goes to data and whose checksum byte is read apart:
// ZEL_COMMUNICATION_ERROR when ext_len is not expected_len or the checksum is wrong.
ZEL_STATUS read_block_data(zel_handle_record *hnd, uint8_t ext_len, uint8_t expected_len, uint8_t *data);

// The byte-wise record stream a reader switches to after status 185: records go to out (cap bytes).
ZEL_STATUS read_multiblock_stream(zel_handle_record *hnd, uint8_t *out, uint32_t cap, uint32_t *len);

// Chained APDU exchange: sends data in pieces of at most 256 bytes under command 0x94 and assembles the
// reply into a heap block (freed by the caller with free) of *reply_len bytes. split_checksum sends each
// piece and its checksum in two writes. keep_long_timeout leaves the 1500 ms time-out after the last piece.
constexpr uint32_t kChainMaxCommand = 0x10008;
constexpr uint32_t kChainMaxReply = 0x10008;
ZEL_STATUS chain_transceive(zel_handle_record *hnd, const uint8_t *data, uint32_t len, uint8_t **reply,
                            uint32_t *reply_len, bool split_checksum, bool keep_long_timeout);

// How long a reader may keep sending interim frames before the wait is given up.
constexpr uint32_t kInterimLimitMs = 60000;

} // namespace zel

#endif
