// A simulated reader in the same process behind the library's hooked link, keeping every byte the library
// reads from it: a recording is what a genuine reader said in a whole dialogue, so played back through
// zelfuzz::FuzzLink it is a seed that reaches as deep as the dialogue went. Used by make_seeds only.
#ifndef ZEL_FUZZ_SIM_RECORDER_H
#define ZEL_FUZZ_SIM_RECORDER_H

#include <chrono>
#include <cstdint>
#include <cstring>
#include <deque>
#include <thread>
#include <vector>

#include "core.h"
#include "core/internal.h"
#include "transport/port.h"
#include "zel_handle.h"
#include "zelsim.h"

namespace zelfuzz {

class SimRecorder {
public:
    explicit SimRecorder(zsim *sim) : sim_(sim)
    {
        hooks_ = {&SimRecorder::read_fn, &SimRecorder::write_fn, &SimRecorder::purge_fn, this,
                  &SimRecorder::available_fn};
        zel::set_link_hooks(&hooks_);
        zel_handle_init(&record);
        record.comm.use = zel::kPortHook;
    }
    ~SimRecorder() { zel::set_link_hooks(nullptr); }
    SimRecorder(const SimRecorder &) = delete;
    SimRecorder &operator=(const SimRecorder &) = delete;

    zel_handle_record record;
    // Every byte the library read, in order.
    std::vector<uint8_t> recorded;

private:
    // Waits for what the reader has due, up to wait_ms.
    void pump(int wait_ms)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(wait_ms);
        for (;;) {
            std::vector<uint8_t> out;
            zs::link_due(sim_, core_, out); // takes the simulator's lock itself
            queue_.insert(queue_.end(), out.begin(), out.end());
            if (!queue_.empty() || std::chrono::steady_clock::now() >= end)
                return;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    static uint32_t read_fn(void *ctx, uint8_t *buf, uint32_t n)
    {
        auto *self = static_cast<SimRecorder *>(ctx);
        if (self->queue_.size() < n)
            self->pump(300);
        uint32_t k = 0;
        while (k < n && !self->queue_.empty()) {
            buf[k++] = self->queue_.front();
            self->queue_.pop_front();
        }
        self->recorded.insert(self->recorded.end(), buf, buf + k);
        return k;
    }
    static uint32_t write_fn(void *ctx, const uint8_t *buf, uint32_t n)
    {
        auto *self = static_cast<SimRecorder *>(ctx);
        zs::link_input(self->sim_, self->core_, buf, n); // takes the simulator's lock itself
        return n;
    }
    static void purge_fn(void *ctx) { static_cast<SimRecorder *>(ctx)->queue_.clear(); }
    static uint32_t available_fn(void *ctx)
    {
        auto *self = static_cast<SimRecorder *>(ctx);
        self->pump(0);
        return static_cast<uint32_t>(self->queue_.size());
    }

    zsim *sim_;
    zs::LinkCore core_;
    std::deque<uint8_t> queue_;
    zel::LinkHooks hooks_{};
};

} // namespace zelfuzz

#endif
