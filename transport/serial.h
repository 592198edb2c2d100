// Serial ports as terminal devices: raw 8N1 lines, millisecond time-outs kept with poll() and a deadline.
#ifndef ZEL_TRANSPORT_SERIAL_H
#define ZEL_TRANSPORT_SERIAL_H

#include <cstdint>

#include "zel_handle.h"

namespace zel {

enum class IoResult { ok, short_count, failed };

// Bytes read from the line ahead of what was asked, kept for the next read.
struct ReadAhead {
    uint8_t *buf;
    uint32_t cap;
    uint16_t *len;
};
// Reads count bytes within timeout_ms, taking what was read ahead first; got tells how many came.
IoResult serial_read(int fd, ReadAhead ahead, uint8_t *buffer, uint32_t count, uint32_t timeout_ms, uint32_t *got);
// Reads what the line holds, at least one byte and at most max, within timeout_ms: what was read ahead
// first, else one read (and a wait only when the line is empty). For a caller that parses a reply of
// unknown length from a buffer of its own.
IoResult serial_read_some(int fd, ReadAhead ahead, uint8_t *buffer, uint32_t max, uint32_t timeout_ms, uint32_t *got);
// Puts n bytes back in front of what was read ahead, as many as fit; returns how many that was.
uint32_t serial_unread(ReadAhead ahead, const uint8_t *bytes, uint32_t n);
// Writes count bytes within timeout_ms; on failure error holds errno.
IoResult serial_write(int fd, const uint8_t *buffer, uint32_t count, uint32_t timeout_ms, uint32_t *written,
                      int *error);
// Any speed, the ones termios lacks included.
int serial_set_baud(int fd, uint32_t baud);
// Opens a terminal device as a raw line at baud and makes it the record's serial port, keeping the
// record's RTS line untouched when reset_disabled is set. ZEL_OK or ZEL_READER_OPENING_ERROR.
ZEL_STATUS serial_open(zel_handle_record *hnd, const char *path, uint32_t baud, bool reset_disabled);

} // namespace zel

#endif
