// What a reader pushes by itself during an asynchronous session, on arbitrary bytes: the first-frame reader
// and the splitter of kept announcements on a buffer of exactly the input's size, then one polling step and
// the synchronous partial form on a link that claims any count of waiting bytes, and a command's reply read
// on the session's link with announcements in front of it. The first input byte picks the path and, for
// the link, how many bytes it claims beyond what it holds.
#include <cstdint>
#include <cstring>
#include <vector>

#include "async/internal.h"
#include "core/internal.h"
#include "tandro.h"

namespace {

struct Link {
    const uint8_t *data;
    size_t size;
    size_t at;
    uint32_t extra; // claimed but never delivered
};

uint32_t link_read(void *ctx, uint8_t *buf, uint32_t n)
{
    auto *l = static_cast<Link *>(ctx);
    const size_t left = l->size - l->at;
    const uint32_t take = left < n ? static_cast<uint32_t>(left) : n;
    std::memcpy(buf, l->data + l->at, take);
    l->at += take;
    return take;
}
uint32_t link_write(void *, const uint8_t *, uint32_t n)
{
    return n;
}
void link_purge(void *) {}
uint32_t link_available(void *ctx)
{
    auto *l = static_cast<Link *>(ctx);
    return static_cast<uint32_t>(l->size - l->at) + l->extra;
}

void no_sleep(uint32_t) {}

void on_detected(const char *uid, const char *type, const char *maker)
{
    // The three texts are terminated within their buffers.
    if (std::strlen(uid) > 255 || std::strlen(type) > 255 || std::strlen(maker) > 255)
        __builtin_trap();
}
void on_removed() {}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    const uint8_t mode = data[0];
    std::vector<uint8_t> body(data + 1, data + size); // exactly sized, so an overrun is seen
    const uint32_t len = static_cast<uint32_t>(body.size());

    if ((mode & 3) == 0) {
        const zel::async::Parsed p = zel::async::parse_read(body.data(), len);
        if (p.uid_size > sizeof p.uid || (p.kind != zel::async::ReadKind::uid && p.uid_size != 0))
            __builtin_trap();
        zel::async::Parsed out[16];
        const uint32_t n = zel::async::split_stored(body.data(), len, out, 16);
        if (n > 16)
            __builtin_trap();
        for (uint32_t i = 0; i < n; ++i)
            if (out[i].uid_size > sizeof out[i].uid)
                __builtin_trap();
        return 0;
    }

    zel::set_sleep_hook(no_sleep);
    Link link{body.data(), body.size(), 0, (mode & 0x80) ? 0x10000u * (mode & 0x0F) + 300u : 0u};
    zel::LinkHooks hooks{link_read, link_write, link_purge, &link, link_available};
    zel::set_link_hooks(&hooks);
    zel_handle_record rec;
    zel_handle_init(&rec);
    rec.comm.use = zel::kPortHook;
    rec.async_ring_head = rec.async_ring_tail = 0;
    setCardDetectedCallback(on_detected);
    setCardRemovedCallback(on_removed);

    if ((mode & 3) == 3) {
        // A command's reply on the session's link: announcements in front of it are taken off and kept,
        // the reply's frame and EXT are followed, and a purge reads what is left.
        zel::async::gate_open(&rec);
        zel::async::expect_reply(&rec);
        for (int i = 0; i < 4; ++i) {
            uint8_t reply[300] = {};
            const uint32_t want = i == 0 ? 7u : (mode >> 2) % 32u + 1u;
            uint32_t got = 0;
            ZEL_STATUS status = zel::port_read_raw(&rec, reply, want, &got);
            status = zel::async::filter_reply(&rec, reply, want, &got, status);
            if (got > want)
                __builtin_trap();
        }
        (void)zel::async::rescue_before_purge(&rec);
        uint8_t kept[256];
        const uint32_t n = zel::async::take_stored(kept, sizeof kept);
        zel::async::Parsed out[16];
        if (n > sizeof kept || zel::async::split_stored(kept, n, out, 16) > 16)
            __builtin_trap();
        zel::async::gate_close(&rec);
    } else if ((mode & 3) == 1) {
        for (int i = 0; i < 4 && link.at < link.size; ++i)
            (void)readAsyncUID(&rec);
        zel_async_uid_event e{};
        while (zel::async::ring_take(&rec, &e))
            if (e.uid_size > sizeof e.uid)
                __builtin_trap();
    } else {
        // The held bytes are the first part of the input, the port holds the rest.
        const uint8_t held = static_cast<uint8_t>(len < 40 ? len / 2 : 20);
        link.at = held;
        // The type query goes to the global handle: it reads its reply from the same link.
        const uint32_t use = zel_global.comm.use;
        zel_global.comm.use = zel::kPortHook;
        (void)readPartialAsyncUID(&rec, body.data(), held);
        zel_global.comm.use = use;
    }
    removeCallbackHandlers();
    zel::set_link_hooks(nullptr);
    zel::set_sleep_hook(nullptr);
    return 0;
}
