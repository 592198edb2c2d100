// The parts of the APDU transport that tests, fuzz targets and the tool reach directly. Never exported.
#ifndef ZEL_APDU_INTERNAL_H
#define ZEL_APDU_INTERNAL_H

#include <cstdint>

#include "zel_handle.h"

namespace zel {

// Reader commands of the level-4 and APDU paths.
constexpr uint8_t kCmdFrontEnd = 0x63, kCmdHaltEnable = 0x64, kCmdBlock7F = 0x7F, kCmdIBlock = 0x90, kCmdRBlock = 0x91,
                  kCmdDeselect = 0x92, kCmdLevel4 = 0x93, kCmdContactOpen = 0x95, kCmdContactClose = 0x96,
                  kCmdLevel4Storage = 0x97;

// How long a command APDU of the case builder can be: header, 00 Lc Lc, 255 bytes, Le.
constexpr uint32_t kApduBuildMax = 4 + 1 + 255 + 1;

// Builds the command of APDUTransceive by its case table. Returns the command length (0 for arguments the
// table refuses) and the size of the reply block the exchange needs in *reply_block.
uint32_t apdu_build(const uint8_t header[4], const uint8_t *data, uint32_t nc, uint32_t ne, bool send_le,
                    uint8_t out[kApduBuildMax], uint32_t *reply_block);
// The forced-extended form: header and, with send_le, 00 Ne-high Ne-low.
uint32_t apdu_build_extended(const uint8_t header[4], uint32_t ne, bool send_le, uint8_t out[kApduBuildMax],
                             uint32_t *reply_block);

// What a command APDU holds, by its case (1 to 4), short or extended.
struct ApduCase {
    int kind = 0;
    bool extended = false;
    uint32_t nc = 0;      // command data length
    uint32_t data_at = 0; // where the data starts
    uint32_t ne = 0;      // expected length; Le 00 is 256, extended 0000 is 65536; 0 without Le
    bool has_le = false;
};
// Decodes the case of a command APDU; false for bytes whose lengths do not add up.
bool apdu_case_decode(const uint8_t *apdu, uint32_t len, ApduCase &out);

// The block reply of commands 0x90 and 0x91 (with the chained flag) or 0x7F (without): status, chained,
// length, the block. ext holds ext_len bytes, checksum last (tested by the caller). False when the
// lengths do not add up.
struct BlockReply {
    uint32_t status = 0;
    uint8_t chained = 0;
    uint8_t length = 0;
    const uint8_t *block = nullptr;
};
bool block_reply_parse(const uint8_t *ext, uint32_t ext_len, bool has_chained_flag, BlockReply &out);

// APDUPlainTransceive into a buffer of known capacity: a reply that does not fit is refused before any
// copy (ZEL_BUFFER_SIZE_EXCEEDED).
ZEL_STATUS apdu_plain(zel_handle_record *hnd, const uint8_t *cmd, uint32_t len, uint8_t *reply, uint32_t capacity,
                      uint32_t *reply_len);

// The most R(ACK) rounds Zel_APDU_Transceive runs for one reply before it gives up.
constexpr uint32_t kMaxAckRounds = 1024;

} // namespace zel

#endif
