// Insides of the port layer shared with the layers above it, the tests and the fuzz targets: the back end
// of each kind of link, the test link, the guard a running session puts on the port, and the raw calls.
#ifndef ZEL_TRANSPORT_PORT_H
#define ZEL_TRANSPORT_PORT_H

#include <cstdint>

#include "core/internal.h"
#include "zel_handle.h"

namespace zel {

// Test seam: a link made of the caller's functions, for records whose comm.use is kPortHook. Fuzz
// targets and unit tests use it to play a reader byte by byte without a device.
struct LinkHooks {
    // Each returns the number of bytes moved (reads may move fewer than asked: a time-out).
    uint32_t (*read)(void *context, uint8_t *buffer, uint32_t count);
    uint32_t (*write)(void *context, const uint8_t *buffer, uint32_t count);
    void (*purge)(void *context);
    void *context;
    // Bytes waiting to be read; a link without it reports none.
    uint32_t (*available)(void *context) = nullptr;
};
void set_link_hooks(const LinkHooks *hooks);

// The back end of one kind of link. A null entry is a call that kind does not have; the port layer then
// answers as it does for an unknown kind.
struct LinkDriver {
    // Reads count bytes (fewer on a time-out); got tells how many came.
    ZEL_STATUS (*read)(zel_handle_record *hnd, uint8_t *buffer, uint32_t count, uint32_t *got);
    // Whether PortRead1 reads this kind (the others answer it with a communication error).
    bool counted_read;
    ZEL_STATUS (*write)(zel_handle_record *hnd, const uint8_t *buffer, uint32_t count, uint32_t *done);
    // Drops what waits on the link; with input_read only the output (the input was read to its end).
    ZEL_STATUS (*purge)(zel_handle_record *hnd, bool input_read);
    ZEL_STATUS (*available)(zel_handle_record *hnd, uint32_t *available);
    ZEL_STATUS (*set_timeout)(zel_handle_record *hnd, uint32_t ms);
    ZEL_STATUS (*set_rts)(zel_handle_record *hnd, uint32_t level);
    ZEL_STATUS (*set_baud)(zel_handle_record *hnd, uint32_t baud);
    ZEL_STATUS (*close)(zel_handle_record *hnd);
    // Stream reading: at least one byte and at most max of what the link holds (0: nothing came in time),
    // and putting bytes back in front of the next read (returns how many fit).
    uint32_t (*read_some)(zel_handle_record *hnd, uint8_t *buffer, uint32_t max);
    uint32_t (*unread)(zel_handle_record *hnd, const uint8_t *bytes, uint32_t n);
};
// The back end of the record's kind of link; a kind without one gets the table of an unknown kind.
const LinkDriver &link_driver(const zel_handle_record *hnd);

// What a port call is to the arbitration of a running session. A manual operation is one port call; a
// purge starts a command.
enum class PortCall { plain, purge, write, read };

// The guard a running asynchronous session puts on the port, installed by the session (the port layer
// calls it while port_lock_on is set, and knows nothing else of the session). enter returns what leave
// needs to undo; session tells whether hnd is the record of the running session; the others act on the
// session's record only (see the session's arbitration).
using FilterReplyFn = ZEL_STATUS(zel_handle_record *hnd, uint8_t *buffer, uint32_t count, uint32_t *got,
                                 ZEL_STATUS status);
struct PortGuardHooks {
    int (*enter)(zel_handle_record *hnd, PortCall call);
    void (*leave)(zel_handle_record *hnd, int token);
    bool (*session)(const zel_handle_record *hnd);
    void (*expect_reply)(zel_handle_record *hnd);
    bool (*rescue_before_purge)(zel_handle_record *hnd);
    FilterReplyFn *filter_reply;
};
// Installs the guard (null removes it). The table must stay alive while installed.
void set_port_guard(const PortGuardHooks *hooks);

// The port layer's calls without arbitration or logging, for the session's own threads inside the gate.
ZEL_STATUS port_available_raw(zel_handle_record *hnd, uint32_t *available);
ZEL_STATUS port_read_raw(zel_handle_record *hnd, uint8_t *buffer, uint32_t count, uint32_t *got);

// Reading a reply of unknown length straight from the link, for a caller that parses it from a buffer of
// its own: possible only on a link that reads in pieces, with no session on the record and no transfer log
// (which the ordinary reads keep). port_read_some gives what the link holds (at least one byte, at most
// max; 0 when nothing came in time); port_unread puts bytes back in front of the next read.
bool port_can_stream(const zel_handle_record *hnd);
uint32_t port_read_some(zel_handle_record *hnd, uint8_t *buffer, uint32_t max);
uint32_t port_unread(zel_handle_record *hnd, const uint8_t *bytes, uint32_t n);

} // namespace zel

#endif
