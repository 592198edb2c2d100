#include "engine.h"

#include <cstring>

#include "wire.h"

namespace zs {

void engine_reset(Engine &e)
{
    e.state = Engine::WAIT_FRAME;
    e.have = 0;
    e.ext_need = 0;
}

void engine_expect_ext(Engine &e, const uint8_t frame[7], size_t len)
{
    std::memcpy(e.frame, frame, 7);
    e.ext_need = len;
    e.have = 0;
    e.state = Engine::WAIT_EXT;
}

namespace {

// Drops the first byte of the frame buffer and slides to the next possible header.
void resync_frame(Engine &e)
{
    size_t i = 1;
    while (i < e.have && e.buf[i] != CMD_HEADER)
        ++i;
    std::memmove(e.buf, e.buf + i, e.have - i);
    e.have -= i;
}

} // namespace

size_t engine_feed(Engine &e, const uint8_t *in, size_t n, uint64_t now_ms, Event &ev)
{
    ev.kind = EventKind::NONE;
    ev.ext = nullptr;
    ev.ext_len = 0;
    if (n && e.have && now_ms - e.last_ms > STALE_INPUT_MS)
        engine_reset(e);
    if (n)
        e.last_ms = now_ms;
    for (size_t i = 0; i < n; ++i) {
        const uint8_t b = in[i];
        if (e.state == Engine::WAIT_FRAME) {
            if (e.have == 0 && b != CMD_HEADER)
                continue; // a wake byte, or noise between frames
            e.buf[e.have++] = b;
            while (e.have == 7) {
                if (e.buf[2] != CMD_TRAILER) {
                    resync_frame(e);
                    continue;
                }
                e.have = 0;
                std::memcpy(ev.frame, e.buf, 7);
                ev.kind = checksum_ok(e.buf, 7) ? EventKind::FRAME : EventKind::BAD_FRAME;
                return i + 1;
            }
            continue;
        }
        // Waiting for an EXT.
        e.buf[e.have++] = b;
        // A host that gave up on the exchange starts over with a new command frame.
        if (e.have == 7 && e.ext_need != 7 && is_command_frame(e.buf) &&
            (e.ext_need > 7 || !checksum_ok(e.buf, e.ext_need))) {
            e.state = Engine::WAIT_FRAME;
            e.have = 0;
            std::memcpy(ev.frame, e.buf, 7);
            ev.kind = EventKind::FRAME;
            return i + 1;
        }
        if (e.have == e.ext_need) {
            if (checksum_ok(e.buf, e.have)) {
                std::memcpy(ev.frame, e.frame, 7);
                ev.kind = EventKind::EXT;
                ev.ext = e.buf;
                ev.ext_len = e.have;
                e.state = Engine::WAIT_FRAME;
                e.have = 0;
                return i + 1;
            }
            // A short block that fails its checksum may be the start of a new command: look at 7 bytes.
            if (e.ext_need < 7 && e.buf[0] == CMD_HEADER)
                continue;
            std::memcpy(ev.frame, e.frame, 7);
            ev.kind = EventKind::BAD_EXT;
            engine_reset(e);
            return i + 1;
        }
        if (e.have == 7 && e.ext_need < 7) {
            // Seven bytes that are no command frame after a failed short block.
            std::memcpy(ev.frame, e.frame, 7);
            ev.kind = EventKind::BAD_EXT;
            engine_reset(e);
            return i + 1;
        }
    }
    return n;
}

} // namespace zs
