// What the signal, RF register and secure element operations share: the reply read by hand and the packing
// of the RF analog register sets, apart so that tests and fuzz targets reach them.
#ifndef ZEL_SIGNALS_INTERNAL_H
#define ZEL_SIGNALS_INTERNAL_H

#include <cstdint>

#include "core/frame.h"
#include "zel_handle.h"

namespace zel::sig {

constexpr uint8_t kCmdRfSet = 0x7D, kCmdRfGet = 0x7E;

// Register sets by PAR0.
constexpr uint8_t kRfTypeA = 1, kRfTypeB = 2, kRf212 = 3, kRf424 = 4, kRfPn7462 = 6, kRfPn7462Default = 7;

// Reads a reply frame by hand into frame: 7 bytes, their checksum, then an error frame (either marker) gives
// its code, and anything but the response to cmd gives ZEL_COMMUNICATION_ERROR.
ZEL_STATUS read_reply_by_hand(zel_handle_record *hnd, uint8_t *frame, uint8_t cmd);

// Writes data (len bytes) and its checksum as the EXT of the command just acknowledged.
ZEL_STATUS write_ext(zel_handle_record *hnd, const uint8_t *data, uint8_t len);

// Shape 3 with the response read by hand: the command with data (len bytes, at most 254) as its EXT.
ZEL_STATUS send_ext_by_hand(zel_handle_record *hnd, uint8_t cmd, uint8_t par0, uint8_t par1, const uint8_t *data,
                            uint8_t len);

// Sends the command frame in frame (its checksum is made) after a purge, without reading anything.
ZEL_STATUS send_frame(zel_handle_record *hnd, uint8_t *frame);

// The five values of a register set and, for the transmit forms, the four transmit values.
struct RfValues {
    uint8_t v[5] = {};
    uint8_t tx[4] = {};
};

// The two bytes of a type A, type B, 212 or 424 set, in the order of the set command.
void rf_pack(const RfValues &in, uint8_t out[2]);
// The inverse of rf_pack.
void rf_unpack(const uint8_t in[2], RfValues &out);
// The two bytes of a PN7462 set.
void rf_pack_pn7462(const RfValues &in, uint8_t out[2]);
void rf_unpack_pn7462(const uint8_t in[2], RfValues &out);

// A register set read back (command 0x7E with set in PAR0): the reply frame, then its EXT of exactly
// want_ext bytes (checksum included) into ext. The frame is tested after the EXT has been read.
ZEL_STATUS rf_get(zel_handle_record *hnd, uint8_t set, uint8_t *ext, uint8_t want_ext);

} // namespace zel::sig

#endif
