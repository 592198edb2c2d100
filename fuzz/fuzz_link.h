// A reader played from fuzz input: every read of the library takes the next bytes of the input, every write
// is swallowed. Install one for the span of a test case. With report_available the link also tells how many
// input bytes are left to read, as a line with bytes waiting would (waits that poll the link see them).
#ifndef ZEL_FUZZ_LINK_H
#define ZEL_FUZZ_LINK_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "core/internal.h"
#include "transport/port.h"
#include "zel_handle.h"

namespace zelfuzz {

class FuzzLink {
public:
    FuzzLink(const uint8_t *data, size_t size, bool report_available = false) : data_(data), size_(size)
    {
        hooks_ = {&FuzzLink::read_fn, &FuzzLink::write_fn, &FuzzLink::purge_fn, this,
                  report_available ? &FuzzLink::available_fn : nullptr};
        zel::set_link_hooks(&hooks_);
        zel_handle_init(&record);
        record.comm.use = zel::kPortHook;
    }
    ~FuzzLink() { zel::set_link_hooks(nullptr); }
    FuzzLink(const FuzzLink &) = delete;
    FuzzLink &operator=(const FuzzLink &) = delete;

    zel_handle_record record;

private:
    static uint32_t read_fn(void *ctx, uint8_t *buf, uint32_t n)
    {
        auto *self = static_cast<FuzzLink *>(ctx);
        const size_t left = self->size_ - self->at_;
        const uint32_t take = left < n ? static_cast<uint32_t>(left) : n;
        std::memcpy(buf, self->data_ + self->at_, take);
        self->at_ += take;
        return take;
    }
    static uint32_t write_fn(void *, const uint8_t *, uint32_t n) { return n; }
    static void purge_fn(void *) {}
    static uint32_t available_fn(void *ctx)
    {
        auto *self = static_cast<FuzzLink *>(ctx);
        const size_t left = self->size_ - self->at_;
        return left > 0xFFFF ? 0xFFFFu : static_cast<uint32_t>(left);
    }

    const uint8_t *data_;
    size_t size_;
    size_t at_ = 0;
    zel::LinkHooks hooks_{};
};

// Quick time for the span of a test case: the library's sleeps return at once and, with a step, its clock
// moves step milliseconds at every look, so that every wait ends after a few rounds (a step of 0 leaves
// the clock alone).
class QuickTime {
public:
    explicit QuickTime(uint32_t step_ms)
    {
        step_ = step_ms;
        zel::set_sleep_hook(&QuickTime::skip);
        if (step_ms)
            zel::set_tick_hook(&QuickTime::tick);
    }
    ~QuickTime()
    {
        zel::set_tick_hook(nullptr);
        zel::set_sleep_hook(nullptr);
    }
    QuickTime(const QuickTime &) = delete;
    QuickTime &operator=(const QuickTime &) = delete;

private:
    static void skip(uint32_t) {}
    static uint32_t tick() { return now_ += step_; }
    static inline uint32_t now_ = 0;
    static inline uint32_t step_ = 0;
};

} // namespace zelfuzz

#endif
