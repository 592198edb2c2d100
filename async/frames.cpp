// What the reader sends by itself during a session: card announcements, removals and its boot bytes; and the
// ring that carries UIDs from the polling thread to the event thread.
#include <cstring>

#include "async/internal.h"
#include "core/bytes.h"

namespace zel::async {

namespace {

bool starts_with_boot(const uint8_t *data, uint32_t len)
{
    return len >= sizeof kBoot && std::memcmp(data, kBoot, sizeof kBoot) == 0;
}

// One pair of the reader's UID text, read as the reader's text has always been read: blanks, then a sign,
// then as many hex digits as stand there. A pair without digits is 0; a minus sign negates modulo 256.
uint8_t uid_pair(char a, char b)
{
    const char pair[2] = {a, b};
    int i = 0;
    while (i < 2 && (pair[i] == ' ' || (pair[i] >= '\t' && pair[i] <= '\r')))
        ++i;
    bool negative = false;
    if (i < 2 && (pair[i] == '+' || pair[i] == '-'))
        negative = pair[i++] == '-';
    uint32_t v = 0;
    for (; i < 2 && is_hex_digit(static_cast<unsigned char>(pair[i])); ++i)
        v = v << 4 | static_cast<uint32_t>(hex_value(static_cast<unsigned char>(pair[i])));
    return static_cast<uint8_t>(negative ? 0u - v : v);
}

Parsed uid_event(const char *text, uint32_t text_len)
{
    Parsed p;
    p.kind = ReadKind::uid;
    p.uid_size = static_cast<uint8_t>(hex_text_to_bytes(text, text_len, p.uid, sizeof p.uid));
    return p;
}

} // namespace

bool walk_frame(const uint8_t *data, uint32_t len, char *text, uint32_t cap, uint32_t *text_len, uint32_t *consumed)
{
    uint32_t n = 0;
    bool opened = false;
    *text_len = 0;
    if (cap == 0)
        return false;
    text[0] = 0;
    for (uint32_t i = 0; i < len; ++i) {
        if (data[i] == kMark) {
            if (opened) {
                text[n] = 0;
                *text_len = n;
                if (consumed)
                    *consumed = i + 1;
                return true;
            }
            opened = true;
            continue;
        }
        if (n + 1 >= cap)
            return false; // longer than any UID: not a frame of ours
        text[n++] = static_cast<char>(data[i]);
    }
    text[n] = 0;
    *text_len = n;
    return false;
}

uint32_t hex_text_to_bytes(const char *text, uint32_t len, uint8_t *out, uint32_t cap)
{
    uint32_t n = 0;
    for (uint32_t i = 0; i + 1 < len && n < cap; i += 2) {
        out[n++] = uid_pair(text[i], text[i + 1]);
    }
    return n;
}

void uid_to_text(const uint8_t *uid, uint32_t n, char *text)
{
    hex_encode(uid, n, text);
}

Parsed parse_read(const uint8_t *data, uint32_t len)
{
    Parsed p;
    if (starts_with_boot(data, len)) {
        p.kind = ReadKind::reset;
        return p;
    }
    if (len >= 2 && data[0] == kMark && data[1] == kMark) {
        p.kind = ReadKind::removal;
        return p;
    }
    char text[kUidTextMax + 1];
    uint32_t text_len = 0;
    if (!walk_frame(data, len, text, sizeof text, &text_len, nullptr) || text_len == 0)
        return p;
    const Parsed uid = uid_event(text, text_len);
    return uid.uid_size ? uid : p; // a single character makes no UID byte
}

uint32_t split_stored(const uint8_t *data, uint32_t len, Parsed *out, uint32_t cap)
{
    uint32_t count = 0;
    uint32_t i = 0;
    while (i < len && count < cap) {
        if (starts_with_boot(data + i, len - i)) {
            out[count++].kind = ReadKind::reset;
            i += sizeof kBoot;
            continue;
        }
        if (data[i] != kMark) {
            // The tail of a frame whose start was taken elsewhere: its digits and its closing mark go.
            uint32_t j = i;
            while (j < len && is_hex_digit(data[j]))
                ++j;
            if (j == i)
                i = j + 1; // a byte that belongs to no announcement
            else
                i = j < len && data[j] == kMark ? j + 1 : j;
            continue;
        }
        if (i + 1 < len && data[i + 1] == kMark) {
            out[count].kind = ReadKind::removal;
            out[count].uid_size = 0;
            ++count;
            i += 2;
            continue;
        }
        uint32_t j = i + 1;
        while (j < len && j - i - 1 <= kUidTextMax && is_hex_digit(data[j]))
            ++j;
        if (j >= len)
            break; // unfinished at the end: dropped
        if (data[j] != kMark || j - i - 1 > kUidTextMax) {
            ++i; // not an announcement after all
            continue;
        }
        out[count] = uid_event(reinterpret_cast<const char *>(data + i + 1), j - i - 1);
        if (out[count].uid_size)
            ++count;
        i = j + 1;
    }
    return count;
}

void ring_put(zel_handle_record *hnd, const uint8_t *uid, uint8_t size)
{
    // The indices live in a plain record: whatever they hold, they are brought back into the ring.
    if (hnd->async_ring_head < 0 || hnd->async_ring_head >= ZEL_ASYNC_RING_LEN)
        hnd->async_ring_head = 0;
    if (hnd->async_ring_tail < 0 || hnd->async_ring_tail >= ZEL_ASYNC_RING_LEN)
        hnd->async_ring_tail = 0;
    const int32_t next = (hnd->async_ring_tail + 1) % ZEL_ASYNC_RING_LEN;
    if (next == hnd->async_ring_head)
        hnd->async_ring_head = (hnd->async_ring_head + 1) % ZEL_ASYNC_RING_LEN; // full: the oldest goes
    zel_async_uid_event &e = hnd->async_ring[hnd->async_ring_tail];
    const uint8_t n = size > sizeof e.uid ? static_cast<uint8_t>(sizeof e.uid) : size;
    std::memset(e.uid, 0, sizeof e.uid);
    std::memcpy(e.uid, uid, n);
    e.uid_size = n;
    e.skip = 0;
    hnd->async_ring_tail = next;
}

bool ring_take(zel_handle_record *hnd, zel_async_uid_event *out)
{
    if (hnd->async_ring_head < 0 || hnd->async_ring_head >= ZEL_ASYNC_RING_LEN || hnd->async_ring_tail < 0 ||
        hnd->async_ring_tail >= ZEL_ASYNC_RING_LEN) {
        hnd->async_ring_head = hnd->async_ring_tail = 0;
        return false;
    }
    if (hnd->async_ring_head == hnd->async_ring_tail)
        return false;
    *out = hnd->async_ring[hnd->async_ring_head];
    hnd->async_ring_head = (hnd->async_ring_head + 1) % ZEL_ASYNC_RING_LEN;
    if (out->uid_size > sizeof out->uid)
        out->uid_size = sizeof out->uid;
    return true;
}

} // namespace zel::async
