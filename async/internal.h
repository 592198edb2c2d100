// Insides of the asynchronous session shared with the port layer, the tests and the fuzz targets.
#ifndef ZEL_ASYNC_INTERNAL_H
#define ZEL_ASYNC_INTERNAL_H

#include <cstdint>

#include "transport/port.h"
#include "zel_async.h"
#include "zel_handle.h"

namespace zel::async {

// Bytes of one read the polling thread takes at most, and the longest UID text an announcement may carry
// (eleven UID bytes, plus one odd digit that is ignored).
constexpr uint32_t kReadBufLen = 256;
constexpr uint32_t kUidTextMax = 23;
constexpr uint8_t kMark = 0x21; // '!', before and after the UID
constexpr uint8_t kBoot[4] = {0x03, 0x55, 0x55, 0xBB};

// What the start of one read from the reader holds.
enum class ReadKind { nothing, reset, removal, uid };
struct Parsed {
    ReadKind kind = ReadKind::nothing;
    uint8_t uid[11] = {};
    uint8_t uid_size = 0;
};
// Reads the way the polling thread does: the boot bytes, then "!!", then the first frame of the data: every
// byte but '!' goes to the text, the first '!' is passed over, the second ends the frame; what follows it is
// not looked at. Without a second '!', with a text that makes no UID byte or is over-long, nothing.
Parsed parse_read(const uint8_t *data, uint32_t len);
// Collects the text of the first frame as parse_read does. Returns true when a second '!' ended it; text
// gets at most cap - 1 characters and a terminator (over-long gives false). consumed, when given, tells how
// many bytes the frame took.
bool walk_frame(const uint8_t *data, uint32_t len, char *text, uint32_t cap, uint32_t *text_len, uint32_t *consumed);
// Two characters at a time, each pair by a base-16 conversion (a pair without digits gives 0); a last odd
// character is ignored. Returns the number of bytes (at most cap).
uint32_t hex_text_to_bytes(const char *text, uint32_t len, uint8_t *out, uint32_t cap);
// Upper-case hexadecimal of n bytes into text (2n + 1 bytes).
void uid_to_text(const uint8_t *uid, uint32_t n, char *text);

// Announcements taken from the port by something other than the polling thread (a command's purge, or
// the front of a reply) wait in a store of the session until the polling thread delivers them in order.
// split_stored cuts such bytes into events: each complete frame, "!!" or boot sequence is one, bytes that
// are none of these are skipped, an unfinished frame at the end is dropped. Returns the number of events
// written to out (at most cap).
uint32_t split_stored(const uint8_t *data, uint32_t len, Parsed *out, uint32_t cap);

// The ring between the two threads; the caller holds async_ring_lock. A full ring drops its oldest entry.
void ring_put(zel_handle_record *hnd, const uint8_t *uid, uint8_t size);
bool ring_take(zel_handle_record *hnd, zel_async_uid_event *out);

// The session-error callback as stored.
zel_session_error_callback session_error_callback();

// How the port layer arbitrates while a session runs (port_lock_on set), through the guard the session
// installs there (install_port_guard). A manual operation is one port call; a purge starts a command. On the
// session's record a call also waits while the event thread runs a command of its own or the polling thread
// reads, so that no two of them meet on the line. port_enter returns what port_leave needs to undo.
using PortCall = zel::PortCall;
void install_port_guard();
int port_enter(zel_handle_record *hnd, PortCall call);
void port_leave(zel_handle_record *hnd, int token);
// True when hnd is the record of the running session.
bool is_session_port(const zel_handle_record *hnd);
// After a write on the session's record the next read is the start of the reader's reply.
void expect_reply(zel_handle_record *hnd);
// Inside a purge on the session's record: what waits on the port is read and its announcements are kept
// for the session. True when the input was read to its end, so that the purge drops only the output: an
// announcement arriving meanwhile is not lost to the purge.
bool rescue_before_purge(zel_handle_record *hnd);
// Inside a read on the session's record: when the first read after a write starts with announcements (the
// reader sent them just before its reply) they are taken out and kept for the session, and the read is
// filled up from the port. got and the returned status are those the caller sees.
ZEL_STATUS filter_reply(zel_handle_record *hnd, uint8_t *buffer, uint32_t count, uint32_t *got, ZEL_STATUS status);

// The session's side of the arbitration.
void gate_open(zel_handle_record *hnd);  // before the threads start
void gate_close(zel_handle_record *hnd); // after they ended
// The polling thread: whether it has to stand aside (a manual operation wants or holds the port, or one
// ended so recently that its command may still be under way); entering takes the port for one look.
bool poller_must_wait(const zel_handle_record *hnd);
bool poller_enter(zel_handle_record *hnd);
void poller_leave();
// The event thread's own command: waits until the application's command is over (bounded; false when
// the port did not come free or the session is stopping), then has the port until command_end.
bool command_begin(zel_handle_record *hnd);
void command_end(zel_handle_record *hnd);
// Announcements kept for the session, taken out in the order they came (at most cap bytes).
uint32_t take_stored(uint8_t *out, uint32_t cap);

} // namespace zel::async

#endif
