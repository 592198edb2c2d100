// The reader's receiver: cuts the host's byte stream into command frames and EXT blocks.
#ifndef ZELSIM_ENGINE_H
#define ZELSIM_ENGINE_H

#include <cstddef>
#include <cstdint>

namespace zs {

// A partial frame or EXT older than this is dropped, as the reader's receive timer does.
constexpr uint64_t STALE_INPUT_MS = 500;

struct Engine {
    enum State { WAIT_FRAME, WAIT_EXT } state = WAIT_FRAME;
    uint8_t buf[7 + 256] = {};
    size_t have = 0;
    uint8_t frame[7] = {}; // the command whose EXT is awaited
    size_t ext_need = 0;
    uint64_t last_ms = 0;
};

enum class EventKind {
    NONE,      // all input taken, nothing complete yet
    FRAME,     // a command frame in ev.frame; ev.frame[3] tells whether it wants an EXT
    EXT,       // the EXT of the command in ev.frame is in ev.ext
    BAD_FRAME, // a command-shaped frame with a wrong checksum
    BAD_EXT,   // an EXT with a wrong checksum
};

struct Event {
    EventKind kind = EventKind::NONE;
    uint8_t frame[7] = {};
    const uint8_t *ext = nullptr; // points into the engine; valid until the next feed
    size_t ext_len = 0;
};

// Takes bytes until one event is complete or the input runs out; returns the number of bytes taken.
size_t engine_feed(Engine &e, const uint8_t *in, size_t n, uint64_t now_ms, Event &ev);
// After a FRAME event whose command the reader accepted: wait for its EXT of `len` bytes.
void engine_expect_ext(Engine &e, const uint8_t frame[7], size_t len);
void engine_reset(Engine &e);

} // namespace zs
#endif
